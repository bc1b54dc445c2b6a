// TezaInterface's invocation frame: API invocation with its tag counter, the tracing of API
// calls, the per-API counters and the timing values.

#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#include <iostream>
#include <sstream>
#include <string>

#include "TezaCounter.h"
#include "TezaFieldType.h"
#include "TezaInterface.h"
#include "TezaLogger.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaTime.h"
#include "TezaTracer.h"
#include "TezaUtil.h"
#include "rk.h"

// --- Trace hook ---------------------------------------------------------------------------

// Weak and never inlined, so that every call from the runtime goes through the dynamic linker
// and a host's own definition takes this one's place.
extern "C" __attribute__((weak, noinline)) void TRACE_PRINTRLC_U(void*, int, const char*,
                                                                 const char*) {}

namespace {

// Every hooked trace text is of kind 1, request or response alike.
const int kHookKind = 1;
// Level 2 cuts an element trace to this many characters, prefix included.
const size_t kShortTraceLength = 100;

bool hookOn(const void* handle, const char* label) {
    return handle != nullptr && label != nullptr;
}

// "Mon dd hh:mm:ss" in UTC, with the leading zero of the day of month replaced by a space.
std::string getTime() {
    time_t now = time(nullptr);
    struct tm utc = {};
    gmtime_r(&now, &utc);
    char buffer[24];
    size_t ret = strftime(buffer, sizeof(buffer), "%b %d %H:%M:%S", &utc);
    TEZA_ASSERT(ret);
    if (buffer[4] == '0') {
        buffer[4] = ' ';
    }
    return buffer;
}

// Copies the element's text into `out` and releases the client library's copy; false when the
// client library could not render it.
bool elementText(rk_elem_t* element, std::string* out) {
    char* text = rk_elem_sprintf(element);
    if (text == nullptr) {
        return false;
    }
    out->assign(text);
    free(text);
    return true;
}

// Hands the element's text to the hook, when the client library can render it.
void hookElement(rk_elem_t* element, void* handle, const char* label) {
    char* text = rk_elem_sprintf(element);
    if (text != nullptr) {
        TRACE_PRINTRLC_U(handle, kHookKind, label, text);
        free(text);
    }
}

// Holds a counter's mutex for one update or read. Counting never fails a call, so the lock
// and unlock results are not checked.
class CountLock {
  public:
    explicit CountLock(pthread_mutex_t& mutex) : _mutex(mutex) {
        (void)pthread_mutex_lock(&_mutex);
    }
    ~CountLock() { (void)pthread_mutex_unlock(&_mutex); }

    CountLock(const CountLock&) = delete;
    CountLock& operator=(const CountLock&) = delete;

  private:
    pthread_mutex_t& _mutex;
};

}  // namespace

// --- TezaTracer ----------------------------------------------------------------------------

TezaTracer::TezaTracer() : _traceLevel(0) {}

TezaTracer::~TezaTracer() {}

std::string TezaTracer::prefix(const unsigned int& tag, const TezaTraceType& type) {
    std::ostringstream text;
    text << getTime() << " TezaInterface: Tag: " << tag;
    switch (type) {
        case TRACE_REQUEST:
            text << " Request: ";
            break;
        case TRACE_RESPONSE:
            text << " Response: ";
            break;
        default:
            text << ' ';
            break;
    }
    return text.str();
}

void TezaTracer::printServerConnection(unsigned int tag, const TezaServerConnection& connection,
                                       const bool& force, void* handle, const char* label) {
    const int level = effectiveLevel(force);
    const bool hook = hookOn(handle, label);
    std::string line;
    if (!((level <= 0 || level == 4) && !hook)) {
        std::ostringstream trace;
        trace << prefix(tag, TRACE_NONE) << "TezaServerConnection: "
              << " host: " << connection.getHost() << " major: " << connection.getMajorVersion()
              << " minor: " << connection.getMinorVersion()
              << " style: " << static_cast<int>(connection.getStyle())
              << " type: " << static_cast<int>(connection.getServerType())
              << " transport: " << static_cast<int>(connection.getTransport())
              << " port: " << connection.getPort()
              << " connect timeout: " << connection.getConnectTimeout()
              << " call timeout: " << connection.getCallTimeout() << '\n';
        line = trace.str();
    }
    if (!line.empty() && hook) {
        TRACE_PRINTRLC_U(handle, kHookKind, label, line.c_str());
    }
    // Level 4 keeps quiet only while the hook is off: with the hook on the line was built
    // above and is written here like at any other non-zero level.
    if (level != 0) {
        std::cout << line;
    }
}

void TezaTracer::printEmptyRequest(const unsigned int& tag, const bool& force, void* handle,
                                   const char* label) {
    const int level = effectiveLevel(force);
    const bool hook = hookOn(handle, label);
    std::string line;
    // Unlike the response side, level 1 alone builds no line here; the asymmetry is kept.
    if (level > 1 || hook) {
        line = prefix(tag, TRACE_NONE) + '<' + getTraceName() + ">\n";
    }
    if (hook) {
        TRACE_PRINTRLC_U(handle, kHookKind, label, line.c_str());
    }
    if (level == 0) {
        return;
    }
    if (level == 4) {
        _heldRequest = line;
        return;
    }
    std::cout << line;
}

void TezaTracer::printEmptyResponse(const unsigned int& tag, const bool& force, void* handle,
                                    const char* label) {
    const int level = effectiveLevel(force);
    const bool hook = hookOn(handle, label);
    std::string line;
    if (hook || level >= 1) {
        line = prefix(tag, TRACE_RESPONSE) + " Received response for: <" + getTraceName() + ">\n";
    }
    if (hook) {
        TRACE_PRINTRLC_U(handle, kHookKind, label, line.c_str());
    }
    if (level != 0) {
        std::cout << line;
    }
}

void TezaTracer::printRequest(const unsigned int& tag, rk_elem_t* request, const bool& force,
                              void* handle, const char* label) {
    const int level = effectiveLevel(force);
    const bool hook = hookOn(handle, label);
    std::string line;
    if (request != nullptr && level >= 2) {
        std::string text;
        if (elementText(request, &text)) {
            line = prefix(tag, TRACE_REQUEST) + text + '\n';
        }
    }
    // The hook gets the element text on its own, taken afresh.
    if (request != nullptr && hook) {
        hookElement(request, handle, label);
    }
    if (level == 0) {
        return;
    }
    if (line.empty() || level == 1) {
        // The force flag is deliberately not passed on: the short line follows the tracker's
        // own level.
        printEmptyRequest(tag, false, handle, label);
        return;
    }
    if (level == 2) {
        // The cut counts the prefix too; a shorter text keeps its own line end and gains one.
        line = line.substr(0, kShortTraceLength) + "\n";
    }
    // A last guard: a trace that reaches this point is never written as nothing.
    if (line.empty()) {
        line = prefix(tag, TRACE_NONE) + "No request to print\n";
    }
    if (level == 4) {
        _heldRequest = line;
    } else if (level == 2 || level == 3) {
        std::cout << line;
    }
}

void TezaTracer::printResponse(const unsigned int& tag, rk_elem_t* response, const bool& force,
                               void* handle, const char* label) {
    const int level = effectiveLevel(force);
    const bool hook = hookOn(handle, label);
    std::string line;
    if (response != nullptr && level >= 2) {
        std::string text;
        if (elementText(response, &text)) {
            // The element text ends with its own line end.
            line = prefix(tag, TRACE_RESPONSE) + text;
        }
    }
    if (response != nullptr && hook) {
        hookElement(response, handle, label);
    }
    // No early stop at level 0, unlike the request side: the short line then reaches only the
    // hook.
    if (line.empty() || level == 1) {
        printEmptyResponse(tag, false, handle, label);
        return;
    }
    if (level == 2) {
        line = line.substr(0, kShortTraceLength) + "\n";
    }
    // A last guard, as for requests.
    if (line.empty()) {
        line = prefix(tag, TRACE_NONE) + "No response to print\n";
    }
    if (level == 4) {
        // A failed call brings out the request held for it; a passed one stays quiet.
        if (rk_results_status(response) != 1) {
            std::cout << _heldRequest + line;
        }
    } else if (level == 2 || level == 3) {
        std::cout << line;
    }
}

void TezaTracer::printTezaFailed(const unsigned int& tag, const TezaServerConnection& connection,
                                 const TezaStatus& status, const bool& force, void* handle,
                                 const char* label) {
    const int level = effectiveLevel(force);
    std::ostringstream trace;
    trace << prefix(tag, TRACE_NONE) << "Host: " << connection.getHost()
          << " Teza failed. Request: <" << getTraceName() << "> Error: " << status.errnum
          << " Reason: " << status.reason << '\n';
    const std::string line = trace.str();
    if (hookOn(handle, label)) {
        TRACE_PRINTRLC_U(handle, kHookKind, label, line.c_str());
    }
    if (level != 0) {
        std::cout << line;
    }
}

// --- TezaCounter ---------------------------------------------------------------------------

TezaCounter::TezaCounter()
    : _successes(0), _failures(0), _flaggedSuccesses(0), _flaggedFailures(0) {
    pthread_mutex_init(&_mutex, nullptr);
}

TezaCounter::~TezaCounter() {
    pthread_mutex_destroy(&_mutex);
}

void TezaCounter::success(bool flag) {
    CountLock lock(_mutex);
    ++_successes;
    if (flag) {
        ++_flaggedSuccesses;
    }
}

void TezaCounter::failure(bool flag) {
    CountLock lock(_mutex);
    ++_failures;
    if (flag) {
        ++_flaggedFailures;
    }
}

uint64_t TezaCounter::getSuccesses() const {
    CountLock lock(_mutex);
    return _successes;
}

uint64_t TezaCounter::getFailures() const {
    CountLock lock(_mutex);
    return _failures;
}

uint64_t TezaCounter::getFlaggedSuccesses() const {
    CountLock lock(_mutex);
    return _flaggedSuccesses;
}

uint64_t TezaCounter::getFlaggedFailures() const {
    CountLock lock(_mutex);
    return _flaggedFailures;
}

// --- TezaTime ------------------------------------------------------------------------------

TezaTime::TezaTime() : _value(0) {
    gettimeofday(&_time, nullptr);
}

TezaTime::~TezaTime() {}

const int TezaTiming::MAX_ENTRIES;

// --- Tag counter ---------------------------------------------------------------------------

// Every API call, and every failed open, is traced under a tag of its own: one process-wide
// sequence starting at 0. Kept unsigned so that it wraps at 32 bits without overflow.
static uint32_t __latestTag = 0;
static pthread_mutex_t __tagLock = PTHREAD_MUTEX_INITIALIZER;

static int32_t getNextTag() {
    int ret = pthread_mutex_lock(&__tagLock);
    TEZA_ASSERT(!ret);
    const uint32_t tag = __latestTag++;
    ret = pthread_mutex_unlock(&__tagLock);
    TEZA_ASSERT(!ret);
    return static_cast<int32_t>(tag);
}

// --- TezaInterface -------------------------------------------------------------------------

const char* TezaInterface::_mt_handle = "TezaInterface";
const char* (*TezaInterface::get_trans_label)() = nullptr;

namespace {

// Node refused by the health check (TezaServerConnection::open).
const int kNodeNotHealthy = 14007;

// Frees the elements of one call, request first; either may be null.
void freeElements(rk_elem_t* request, rk_elem_t* response) {
    if (request != nullptr) {
        rk_elem_free(request);
    }
    if (response != nullptr) {
        rk_elem_free(response);
    }
}

// The two trace lines before sending, in each variant's order: a request element is traced
// before the connection, the call without one after it. `traceName` gives the interface's
// trace name afresh for each tracer call.
template <typename TraceName>
void traceBeforeSend(TezaTracer* tracker, unsigned int tag, rk_elem_t* request,
                     const TezaServerConnection& connection, const bool& force, void* handle,
                     TraceName traceName) {
    const bool off = false;
    if (request != nullptr) {
        tracker->printRequest(tag, request, force, handle, traceName());
        tracker->printServerConnection(tag, connection, off, nullptr, nullptr);
    } else {
        tracker->printServerConnection(tag, connection, off, nullptr, nullptr);
        tracker->printEmptyRequest(tag, force, handle, traceName());
    }
}

// Counts and traces a call that the server did not pass, and returns its status: the decoded
// reason text (an absent one reads as empty) and the server's error number. Only the call
// without records passes the interface's trace settings to the failure trace; the others pass
// fixed "off" values. The asymmetry is kept as it is.
template <typename TraceName>
TezaStatus reportApiFailure(TezaTracer* tracker, unsigned int tag,
                            const TezaServerConnection& connection, rk_elem_t* response,
                            bool withRecords, const bool& force, void* handle,
                            TraceName traceName) {
    const char* reason = rk_results_reason(response);
    const std::string decoded = TezaFieldType::getDecodedString(reason != nullptr ? reason : "");
    TezaStatus failure(TezaStatus::ApiFailed, decoded, rk_results_errno(response));
    tracker->getCounter().failure(false);
    if (!withRecords) {
        tracker->printTezaFailed(tag, connection, failure, force, handle, traceName());
    } else {
        const bool off = false;
        tracker->printTezaFailed(tag, connection, failure, off, nullptr, nullptr);
    }
    return failure;
}

}  // namespace

TezaInterface::TezaInterface(const TezaServerConnection& connection, const bool& forceTrace,
                             void* traceHandle, const char* traceLabel)
    : _connection(connection),
      _forceTrace(forceTrace),
      _traceHandle(traceHandle),
      _traceLabel(traceLabel) {}

TezaInterface::~TezaInterface() {
    _traceLabel = nullptr;
}

const char* TezaInterface::traceName(int api) const {
    return _traceLabel != nullptr ? _traceLabel : getApiName(api).c_str();
}

TezaStatus TezaInterface::openConnection(int api) {
    const char* msg = get_trans_label != nullptr ? get_trans_label() : nullptr;
    if (msg != nullptr) {
        // A call made while holding a database transaction is a programming error: the
        // transaction would stay open for as long as the server takes to answer.
        const std::string text = std::string("Holding RDB transaction '") + msg +
                                 "' while making TEZA call " + getApiName(api);
        std::cout << text << std::endl;
        // clang-format off
        TEZA_ASSERT(msg==NULL);
        // clang-format on
    }
    _connection.setProc(getApiName(api).c_str());
    TezaStatus status = _connection.open();
    if (status.status == TezaStatus::Success) {
        return status;
    }
    if (status.errnum == kNodeNotHealthy) {
        std::cout << " TezaInterface: Request: <" + getApiName(api) + "> skipped. Node " +
                         _connection.getHost() + " is not healthy.\n";
    }
    const unsigned int tag = static_cast<unsigned int>(getNextTag());
    TezaTracer* tracker = TezaNS_depot::getTezaTracker(getInterfaceId(), api);
    tracker->getCounter().failure(false);
    const bool off = false;
    tracker->printServerConnection(tag, _connection, off, nullptr, nullptr);
    tracker->printTezaFailed(tag, _connection, status, off, nullptr, nullptr);
    return status;
}

void TezaInterface::perform_invocation(rk_elem_t* request, rk_elem_t*& response, int,
                                       const char* apiName) {
    // Taken for the timing of generated code; their values are not used here.
    TezaTime start;
    TezaTime end;
    if (_connection.isremote()) {
        return;
    }
    rk_server_t* server = _connection.getServer();
    TEZA_ASSERT(server != NULL);
    if (apiName != nullptr) {
        response = rk_server_invoke(server, apiName, nullptr);
    } else {
        response = rk_server_invoke_elem(server, request);
    }
}

void TezaInterface::cacheConnection() {
    TezaLogger::Log("Set cacheConnection\n");
    _connection.setCachable(true);
    _connection.close();
}

void TezaInterface::closeConnection() {
    _connection.setCachable(false);
    _connection.close();
}

TezaStatus TezaInterface::invoke(int api) {
    return invokeWith(api, nullptr, nullptr);
}

TezaStatus TezaInterface::invoke(int api, const TezaFieldType& input) {
    return invokeWith(api, &input, nullptr);
}

TezaStatus TezaInterface::invoke(int api, TezaFieldType& output) {
    return invokeWith(api, nullptr, &output);
}

TezaStatus TezaInterface::invoke(int api, const TezaFieldType& input, TezaFieldType& output) {
    return invokeWith(api, &input, &output);
}

TezaStatus TezaInterface::invokeWith(int api, const TezaFieldType* input, TezaFieldType* output) {
    const unsigned int tag = static_cast<unsigned int>(getNextTag());
    // A remote descriptor opens nothing and goes on from success.
    const TezaStatus status = _connection.isremote() ? TezaStatus() : openConnection(api);
    if (status.status != TezaStatus::Success) {
        return status;
    }
    TezaTracer* tracker = TezaNS_depot::getTezaTracker(getInterfaceId(), api);
    auto name = [this, api] { return traceName(api); };

    rk_elem_t* request = nullptr;
    if (input != nullptr) {
        request = rk_elem_new(getApiName(api).c_str());
        if (request == nullptr) {
            // Nothing is sent, traced or counted, and the call reports success; the handle is
            // handed to the cache, and cacheConnection runs even for a remote descriptor.
            // Callers cannot tell this from a success; kept as it is.
            cacheConnection();
            return status;
        }
        input->constructRkChildElement(request);
    }
    traceBeforeSend(tracker, tag, request, _connection, _forceTrace, _traceHandle, name);
    // A request element goes with rk_server_invoke_elem, a call without one by its name with
    // rk_server_invoke.
    rk_elem_t* response = nullptr;
    perform_invocation(request, response, api,
                       request != nullptr ? nullptr : getApiName(api).c_str());

    // A remote descriptor sent nothing: the null response goes to the tracer and to the
    // client library as it is, which reports it as not passed.
    tracker->printResponse(tag, response, _forceTrace, _traceHandle, traceName(api));
    if (rk_results_status(response) != 1) {
        const bool withRecords = input != nullptr || output != nullptr;
        TezaStatus failure = reportApiFailure(tracker, tag, _connection, response, withRecords,
                                              _forceTrace, _traceHandle, name);
        freeElements(request, response);
        if (!_connection.isremote()) {
            closeConnection();
        }
        return failure;
    }

    tracker->getCounter().success(false);
    if (output != nullptr) {
        output->parseRkChildElement(response);
    }
    freeElements(request, response);
    if (!_connection.isremote()) {
        cacheConnection();
    }
    return TezaStatus();
}
