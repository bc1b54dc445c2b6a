// The in-process transport: a registry of servers running in this process, called directly
// on the caller's thread. The request and the result are put in wire form (texts escaped, as
// if parsed from XML) so that both sides see exactly what they would see over the network.

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "transport.h"

namespace rk {

namespace {

struct Registration {
    rk_inprocess_handler_t handler;
    void* context;
    int callsInProgress = 0;  // guarded by Registry::mutex
};

struct Registry {
    std::mutex mutex;
    std::condition_variable callEnded;
    std::map<std::string, std::shared_ptr<Registration>> servers;  // guarded by `mutex`
};

Registry& TheRegistry() {
    static Registry* registry = new Registry;  // never destroyed: calls may run at exit
    return *registry;
}

using ElemPtr = std::unique_ptr<rk_elem, void (*)(rk_elem*)>;

// Ends a call in progress, also when the handler's result handling throws.
class CallScope {
  public:
    explicit CallScope(std::shared_ptr<Registration> r) : _registration(std::move(r)) {}
    ~CallScope() {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        --_registration->callsInProgress;
        registry.callEnded.notify_all();
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

  private:
    std::shared_ptr<Registration> _registration;
};

}  // namespace

rk_elem* InProcessCall(const ServerSettings& s, const rk_elem* request) {
    Registry& registry = TheRegistry();
    std::shared_ptr<Registration> server;
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        auto it = registry.servers.find(s.host);
        if (it != registry.servers.end()) {
            server = it->second;
            ++server->callsInProgress;
        }
    }
    if (server == nullptr) {
        return ResultsNewFailedWire("no in-process server named '" + s.host + "' is registered",
                                    RK_ERR_NO_SERVER);
    }
    CallScope scope(server);

    ElemPtr wire(ElemCopy(request), ElemFree);
    ToWireForm(wire.get());
    const bool credentials = s.style == RK_STYLE_LOGIN_PASSWORD && s.hasUser;
    rk_inprocess_call_t call;
    call.host = s.host.c_str();
    call.major = s.major;
    call.minor = s.minor;
    call.style = s.style;
    call.server_type = s.serverType;
    call.login = credentials ? s.login.c_str() : nullptr;
    call.password = credentials ? s.password.c_str() : nullptr;
    call.token = s.style == RK_STYLE_TOKEN ? s.password.c_str() : nullptr;
    rk_elem* answer = nullptr;
    try {
        answer = server->handler(server->context, &call, wire.get());
    } catch (...) {
        // A C++ handler's exception ends at this boundary, as the call's failure.
        return ResultsNewFailedWire(
            "the in-process server '" + s.host + "' failed with an exception", RK_ERR_NO_ANSWER);
    }
    ElemPtr result(answer, ElemFree);

    if (result == nullptr) {
        return ResultsNewFailedWire("the in-process server '" + s.host + "' gave no answer",
                                    RK_ERR_NO_ANSWER);
    }
    ToWireForm(result.get());
    if (!IsResults(result.get())) {
        return ResultsNewFailedWire("the answer of the in-process server '" + s.host + "' is a <" +
                                        result->name + "> element, not a TEZA result",
                                    RK_ERR_NOT_RESULT);
    }
    return AcceptServerResult(result.release(), "the in-process server '" + s.host + "'");
}

}  // namespace rk

extern "C" {

int rk_inprocess_register(const char* name, rk_inprocess_handler_t handler, void* context) {
    if (name == nullptr || name[0] == '\0' || handler == nullptr) {
        return 0;
    }
    try {
        auto registration = std::make_shared<rk::Registration>();
        registration->handler = handler;
        registration->context = context;
        rk::Registry& registry = rk::TheRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        return registry.servers.emplace(name, std::move(registration)).second ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

int rk_inprocess_unregister(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    try {
        rk::Registry& registry = rk::TheRegistry();
        std::unique_lock<std::mutex> lock(registry.mutex);
        auto it = registry.servers.find(name);
        if (it == registry.servers.end()) {
            return 0;
        }
        std::shared_ptr<rk::Registration> server = it->second;
        registry.servers.erase(it);
        registry.callEnded.wait(lock, [&] { return server->callsInProgress == 0; });
        return 1;
    } catch (...) {
        return 0;
    }
}

}  // extern "C"
