// Serves a ServiceCore to this process's clients through librk's in-process transport: a
// handle opened with the registered name and RK_TRANSPORT_IN_PROCESS calls the core directly.
//
// Faults that only exist on a connection (HTTP errors, dropped, reset or truncated answers)
// have no in-process form: such a call gets no answer, which the client reports as
// RK_ERR_NO_ANSWER. Raw bodies are parsed and handed over when they are XML.
#ifndef TEZAD_CORE_INPROCESS_SERVER_H_
#define TEZAD_CORE_INPROCESS_SERVER_H_

#include <string>

#include "service_core.h"

namespace tezad {

class InProcessServer {
  public:
    // Registers `core` (which must outlive this object) under `name`.
    InProcessServer(const std::string& name, ServiceCore* core);
    // Unregisters, after the calls in progress have ended.
    ~InProcessServer();
    InProcessServer(const InProcessServer&) = delete;
    InProcessServer& operator=(const InProcessServer&) = delete;

    // False when the name was taken or invalid.
    bool registered() const { return _registered; }

  private:
    static rk_elem_t* Answer(void* context, const rk_inprocess_call_t* call, rk_elem_t* request);

    const std::string _name;
    ServiceCore* const _core;
    bool _registered;
};

}  // namespace tezad

#endif  // TEZAD_CORE_INPROCESS_SERVER_H_
