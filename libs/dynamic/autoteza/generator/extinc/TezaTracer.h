// TezaTracer: the base class of the per-API trackers that generated code defines. A tracker
// holds the API's trace level and its counter; the runtime supplies the trace line prefix and
// the printing operations with which an API call is traced to standard output and to the
// trace hook TRACE_PRINTRLC_U.
//
// One tracker is shared by every thread that calls its API. Only the counter is locked: the
// trace level and the held request text are read and written without a lock, so at level 4
// concurrent calls of one API may interleave their held texts.
#ifndef TEZA_TRACER_H_
#define TEZA_TRACER_H_

#include <stdint.h>

#include <string>

#include "TezaCounter.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaUtil.h"
#include "rk.h"

// The trace hook. The runtime's own definition does nothing; the runtime calls it through the
// dynamic linker, so a host process that defines this function receives every hooked trace
// text instead. Called with kind 1, the caller's label and the text, for a call whose trace
// handle and label are both non-null. The host's definition must be exported: an executable
// is linked with --export-dynamic for it (this declaration gives it default visibility).
extern "C" TEZA_API void TRACE_PRINTRLC_U(void* handle, int kind, const char* label,
                                          const char* text);

// Trace levels, per call: the force flag makes the level 3, otherwise the tracker's level
// holds.
//   0  nothing on standard output; only the hook, when it is on
//   1  a short line per request ("<name>") and per response, the connection line, failures
//   2  request and response element texts, cut to their first 100 characters
//   3  request and response element texts in full
//   4  quiet unless the call fails: the request text is held until the response shows a
//      failure, then both are written; no connection line
class TEZA_API TezaTracer {
  public:
    // The kind of a trace line, as printed in its prefix.
    enum TezaTraceType { TRACE_NONE = 0, TRACE_REQUEST = 1, TRACE_RESPONSE = 2 };

    // Level 0, empty counts.
    TezaTracer();
    // The destructor's two forms take the first two slots of the virtual table, so the name
    // is its third operation, as generated trackers expect.
    virtual ~TezaTracer();
    // The name printed in trace lines: the API's own, never the caller's label.
    virtual const std::string& getTraceName() const = 0;

    TezaTracer(const TezaTracer&) = delete;
    TezaTracer& operator=(const TezaTracer&) = delete;

    int getTraceLevel() const { return _traceLevel; }
    void setTraceLevel(int level) { _traceLevel = level; }
    TezaCounter& getCounter() { return _counter; }
    // The request trace kept at level 4 until the response is known.
    const std::string& getHeldRequest() const { return _heldRequest; }

    // "<Mon dd hh:mm:ss> TezaInterface: Tag: <tag>" and " Request: ", " Response: " or a
    // single space by `type`. The time is UTC; a day of month below 10 is padded with a space.
    static std::string prefix(const unsigned int& tag, const TezaTraceType& type);

    // Each operation traces one step of an API call. `force` true makes the level 3; the hook
    // is on when both `handle` and `label` are non-null. Element texts are taken with
    // rk_elem_sprintf; the elements stay the caller's.
    void printServerConnection(unsigned int tag, const TezaServerConnection& connection,
                               const bool& force, void* handle, const char* label);
    void printEmptyRequest(const unsigned int& tag, const bool& force, void* handle,
                           const char* label);
    void printEmptyResponse(const unsigned int& tag, const bool& force, void* handle,
                            const char* label);
    void printRequest(const unsigned int& tag, rk_elem_t* request, const bool& force, void* handle,
                      const char* label);
    void printResponse(const unsigned int& tag, rk_elem_t* response, const bool& force,
                       void* handle, const char* label);
    void printTezaFailed(const unsigned int& tag, const TezaServerConnection& connection,
                         const TezaStatus& status, const bool& force, void* handle,
                         const char* label);

  private:
    int effectiveLevel(bool force) const { return force ? 3 : _traceLevel; }

    int32_t _traceLevel;
    std::string _heldRequest;
    TezaCounter _counter;
};

namespace TezaNS_depot {

// Defined by generated code: the tracker of API `api` of the interface family `interfaceId`.
// The tracker belongs to the generated code and outlives every call; the runtime never frees
// it.
TEZA_API TezaTracer* getTezaTracker(int interfaceId, int api);

}  // namespace TezaNS_depot

#endif  // TEZA_TRACER_H_
