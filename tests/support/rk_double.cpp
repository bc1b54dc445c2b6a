#include "rk_double.h"

#include <stdarg.h>
#include <stdlib.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>

#include "rk_internal.h"

struct rk_server {
    int id = 0;
    rkdouble::HandleSettings settings;
};

namespace rkdouble {

namespace {

struct PointerScript {
    int after = 0;  // successful calls still to let through before failing
    int times = 0;  // failing calls still to come
};

struct State {
    std::mutex mutex;
    bool recording = true;
    std::vector<std::string> calls;
    std::map<std::string, int> fixedResults;
    std::map<std::string, std::deque<int>> queuedResults;
    std::map<std::string, PointerScript> pointerScripts;
    bool startupFails = false;
    std::string startupMessage;
    bool started = false;
    Responder responder;
    std::chrono::microseconds invokeDelay{0};
    std::map<rk_server*, std::unique_ptr<rk_server>> handles;
    int opened = 0;
    int closed = 0;
    int misuses = 0;
};

State& S() {
    static State* state = new State;  // never destroyed: handles may be closed at exit
    return *state;
}

std::string Text(const char* s) {
    return s == nullptr ? "(null)" : s;
}
std::string Text(const std::string& s) {
    return s;
}
std::string Text(int v) {
    return std::to_string(v);
}
std::string Text(size_t v) {
    return std::to_string(v);
}
std::string Text(rk_elem_t* e) {
    return e == nullptr ? "(null)" : e->name;
}
std::string Text(const void* p) {
    return p == nullptr ? "(null)" : "ptr";
}

std::string HandleNameLocked(rk_server_t* server) {
    if (server == nullptr) {
        return "(null)";
    }
    auto it = S().handles.find(server);
    return it == S().handles.end() ? "h?" : "h" + std::to_string(it->second->id);
}

std::string Text(rk_server_t* server) {
    return HandleNameLocked(server);
}

template <typename... Args>
void Record(const char* function, const Args&... args) {
    std::lock_guard<std::mutex> lock(S().mutex);
    if (!S().recording) {
        return;
    }
    std::string line = function;
    line += '(';
    bool first = true;
    ((line += (first ? "" : ", ") + Text(args), first = false), ...);
    line += ')';
    S().calls.push_back(std::move(line));
}

// The scripted int result of `function`, or `dflt`.
int IntResult(const std::string& function, int dflt) {
    std::lock_guard<std::mutex> lock(S().mutex);
    auto queued = S().queuedResults.find(function);
    if (queued != S().queuedResults.end() && !queued->second.empty()) {
        int value = queued->second.front();
        queued->second.pop_front();
        return value;
    }
    auto fixed = S().fixedResults.find(function);
    return fixed == S().fixedResults.end() ? dflt : fixed->second;
}

// True when this call of a pointer-returning function is scripted to fail.
bool ShouldFail(const std::string& function) {
    std::lock_guard<std::mutex> lock(S().mutex);
    auto it = S().pointerScripts.find(function);
    if (it == S().pointerScripts.end()) {
        return false;
    }
    PointerScript& script = it->second;
    if (script.after > 0) {
        --script.after;
        return false;
    }
    if (script.times > 0) {
        --script.times;
        return true;
    }
    return false;
}

// A handle the double made and has not closed; counts a misuse otherwise.
rk_server* LiveHandle(rk_server_t* server) {
    std::lock_guard<std::mutex> lock(S().mutex);
    auto it = S().handles.find(server);
    if (it == S().handles.end() || it->second->settings.closed) {
        ++S().misuses;
        return nullptr;
    }
    return it->second.get();
}

int Configure(const char* function, rk_server_t* server,
              const std::function<void(HandleSettings&)>& apply) {
    rk_server* handle = LiveHandle(server);
    int result = IntResult(function, 1);
    if (handle != nullptr && result != 0) {
        std::lock_guard<std::mutex> lock(S().mutex);
        apply(handle->settings);
    }
    return result;
}

rk_elem_t* Answer(rk_server_t* server, const std::string& api, rk_elem_t* request) {
    std::string host;
    Responder responder;
    std::chrono::microseconds delay;
    {
        std::lock_guard<std::mutex> lock(S().mutex);
        auto it = S().handles.find(server);
        if (it != S().handles.end()) {
            host = it->second->settings.host;
        }
        responder = S().responder;
        delay = S().invokeDelay;
    }
    if (delay.count() > 0) {
        std::this_thread::sleep_for(delay);
    }
    if (server == nullptr) {
        return nullptr;
    }
    if (LiveHandle(server) == nullptr) {
        return rk::ResultsNewFailed("call on a closed handle", 13099);
    }
    return responder ? responder(host, api, request) : rk::ResultsNewPassed();
}

}  // namespace

void Reset() {
    std::lock_guard<std::mutex> lock(S().mutex);
    State& s = S();
    s.recording = true;
    s.calls.clear();
    s.fixedResults.clear();
    s.queuedResults.clear();
    s.pointerScripts.clear();
    s.startupFails = false;
    s.startupMessage.clear();
    s.started = false;
    s.responder = nullptr;
    s.invokeDelay = std::chrono::microseconds(0);
    s.handles.clear();
    s.opened = 0;
    s.closed = 0;
    s.misuses = 0;
}

std::vector<std::string> Calls() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().calls;
}

std::vector<std::string> Calls(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(S().mutex);
    std::vector<std::string> out;
    for (const std::string& call : S().calls) {
        if (call.compare(0, prefix.size(), prefix) == 0) {
            out.push_back(call);
        }
    }
    return out;
}

int CountCalls(const std::string& function) {
    std::lock_guard<std::mutex> lock(S().mutex);
    int count = 0;
    for (const std::string& call : S().calls) {
        if (call.compare(0, function.size() + 1, function + "(") == 0) {
            ++count;
        }
    }
    return count;
}

void ClearCalls() {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().calls.clear();
}

void SetRecording(bool on) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().recording = on;
}

void SetResult(const std::string& function, int value) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().fixedResults[function] = value;
}

void QueueResult(const std::string& function, int value) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().queuedResults[function].push_back(value);
}

void FailNext(const std::string& function, int times, int after) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().pointerScripts[function] = PointerScript{after, times};
}

void FailStartup(const std::string& message) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().startupFails = true;
    S().startupMessage = message;
}

void SetStarted(bool started) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().started = started;
}

bool IsStarted() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().started;
}

void SetResponder(Responder responder) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().responder = std::move(responder);
}

void SetInvokeDelay(std::chrono::microseconds delay) {
    std::lock_guard<std::mutex> lock(S().mutex);
    S().invokeDelay = delay;
}

rk_elem_t* Passed() {
    return rk::ResultsNewPassed();
}

rk_elem_t* Failed(const std::string& reason, int errnum) {
    return rk::ResultsNewFailed(reason.c_str(), errnum);
}

rk_elem_t* PassedWith(const std::string& xmlChildren) {
    std::string document = "<results status=\"passed\">" + xmlChildren + "</results>";
    rk::ParseError error;
    rk_elem_t* result = rk::ParseXml(document.data(), document.size(),
                                     rk::ParseLimits::ForSize(RK_PARSE_MAX_BYTES), &error);
    if (result == nullptr) {
        fprintf(stderr, "rkdouble::PassedWith: %s\n", error.reason.c_str());
        abort();
    }
    return result;
}

int HandlesOpened() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().opened;
}

int HandlesClosed() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().closed;
}

int HandlesOpen() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().opened - S().closed;
}

int HandleMisuses() {
    std::lock_guard<std::mutex> lock(S().mutex);
    return S().misuses;
}

std::string HandleName(rk_server_t* server) {
    std::lock_guard<std::mutex> lock(S().mutex);
    return HandleNameLocked(server);
}

HandleSettings Settings(rk_server_t* server) {
    std::lock_guard<std::mutex> lock(S().mutex);
    auto it = S().handles.find(server);
    return it == S().handles.end() ? HandleSettings{} : it->second->settings;
}

}  // namespace rkdouble

using rkdouble::Configure;
using rkdouble::HandleSettings;
using rkdouble::IntResult;
using rkdouble::Record;
using rkdouble::ShouldFail;

extern "C" {

int rk_startup(char* errbuf, int errbuflen) {
    Record("rk_startup", errbuflen);
    std::lock_guard<std::mutex> lock(rkdouble::S().mutex);
    if (rkdouble::S().startupFails) {
        rk::CopyToBuffer(rkdouble::S().startupMessage, errbuf, errbuflen);
        return 0;
    }
    rkdouble::S().started = true;
    return 1;
}

void rk_shutdown(void) {
    Record("rk_shutdown");
    std::lock_guard<std::mutex> lock(rkdouble::S().mutex);
    rkdouble::S().started = false;
}

int rk_is_started(void) {
    Record("rk_is_started");
    return IntResult("rk_is_started", rkdouble::IsStarted() ? 1 : 0);
}

rk_server_t* rk_server_open(const char* host, int major, int minor) {
    Record("rk_server_open", host, major, minor);
    if (ShouldFail("rk_server_open") || host == nullptr) {
        return nullptr;
    }
    auto handle = std::make_unique<rk_server>();
    handle->settings.host = host;
    handle->settings.major = major;
    handle->settings.minor = minor;
    std::lock_guard<std::mutex> lock(rkdouble::S().mutex);
    handle->id = ++rkdouble::S().opened;
    rk_server* raw = handle.get();
    rkdouble::S().handles.emplace(raw, std::move(handle));
    return raw;
}

int rk_server_close(rk_server_t* server) {
    Record("rk_server_close", server);
    int result = IntResult("rk_server_close", 1);
    std::lock_guard<std::mutex> lock(rkdouble::S().mutex);
    auto it = rkdouble::S().handles.find(server);
    if (it == rkdouble::S().handles.end() || it->second->settings.closed) {
        ++rkdouble::S().misuses;
        return result;
    }
    // The handle is kept (marked closed) until Reset, so that a second close is detected.
    it->second->settings.closed = true;
    ++rkdouble::S().closed;
    return result;
}

int rk_server_set_style(rk_server_t* server, int style) {
    Record("rk_server_set_style", server, style);
    return Configure("rk_server_set_style", server, [&](HandleSettings& s) { s.style = style; });
}

int rk_server_set_server_type(rk_server_t* server, int type) {
    Record("rk_server_set_server_type", server, type);
    return Configure("rk_server_set_server_type", server,
                     [&](HandleSettings& s) { s.type = type; });
}

int rk_server_set_transport_type(rk_server_t* server, int transport, const void* reserved) {
    Record("rk_server_set_transport_type", server, transport, reserved);
    return Configure("rk_server_set_transport_type", server,
                     [&](HandleSettings& s) { s.transport = transport; });
}

int rk_server_set_port(rk_server_t* server, int port) {
    Record("rk_server_set_port", server, port);
    return Configure("rk_server_set_port", server, [&](HandleSettings& s) { s.port = port; });
}

int rk_server_set_admin_user(rk_server_t* server, const char* login, const char* password) {
    // The password is logged like any argument: tests check that it reaches the handle.
    Record("rk_server_set_admin_user", server, login, password);
    return Configure("rk_server_set_admin_user", server, [&](HandleSettings& s) {
        s.login = login == nullptr ? "" : login;
        s.password = password == nullptr ? "" : password;
    });
}

int rk_server_set_timeout(rk_server_t* server, int seconds) {
    Record("rk_server_set_timeout", server, seconds);
    return Configure("rk_server_set_timeout", server,
                     [&](HandleSettings& s) { s.timeout = seconds; });
}

int rk_server_set_ca_file(rk_server_t* server, const char* path) {
    Record("rk_server_set_ca_file", server, path);
    return Configure("rk_server_set_ca_file", server, [](HandleSettings&) {});
}

int rk_server_set_client_cert(rk_server_t* server, const char* cert_path, const char* key_path,
                              const char* key_passphrase) {
    Record("rk_server_set_client_cert", server, cert_path, key_path, key_passphrase);
    return Configure("rk_server_set_client_cert", server, [](HandleSettings&) {});
}

int rk_server_set_max_response_size(rk_server_t* server, size_t bytes) {
    Record("rk_server_set_max_response_size", server, bytes);
    return Configure("rk_server_set_max_response_size", server, [](HandleSettings&) {});
}

int rk_inprocess_register(const char* name, rk_inprocess_handler_t handler, void* context) {
    Record("rk_inprocess_register", name, reinterpret_cast<const void*>(handler), context);
    return IntResult("rk_inprocess_register", name != nullptr && handler != nullptr ? 1 : 0);
}

int rk_inprocess_unregister(const char* name) {
    Record("rk_inprocess_unregister", name);
    return IntResult("rk_inprocess_unregister", name != nullptr ? 1 : 0);
}

rk_elem_t* rk_server_invoke(rk_server_t* server, const char* api, ...) {
    std::vector<std::pair<std::string, std::string>> pairs;
    va_list args;
    va_start(args, api);
    for (const char* name = va_arg(args, const char*); name != nullptr;
         name = va_arg(args, const char*)) {
        const char* value = va_arg(args, const char*);
        pairs.emplace_back(name, value == nullptr ? "" : value);
    }
    va_end(args);
    std::string line;
    for (const auto& pair : pairs) {
        line += ", " + pair.first + "=" + pair.second;
    }
    Record("rk_server_invoke", server, std::string(api == nullptr ? "(null)" : api) + line);
    if (ShouldFail("rk_server_invoke")) {
        return nullptr;
    }
    rk_elem_t* request = nullptr;
    if (!pairs.empty() && api != nullptr) {
        request = rk::ElemNew(api);
        for (const auto& pair : pairs) {
            rk::ChildAddString(request, pair.first.c_str(), pair.second.c_str());
        }
    }
    rk_elem_t* result = rkdouble::Answer(server, api == nullptr ? "" : api, request);
    rk::ElemFree(request);
    return result;
}

rk_elem_t* rk_server_invoke_elem(rk_server_t* server, rk_elem_t* request) {
    Record("rk_server_invoke_elem", server, request);
    if (ShouldFail("rk_server_invoke_elem")) {
        return nullptr;
    }
    return rkdouble::Answer(server, request == nullptr ? "" : request->name, request);
}

int rk_results_status(rk_elem_t* result) {
    Record("rk_results_status", result);
    return IntResult("rk_results_status", rk::ResultsStatus(result));
}

const char* rk_results_reason(rk_elem_t* result) {
    Record("rk_results_reason", result);
    return rk::ResultsReason(result);
}

int rk_results_errno(rk_elem_t* result) {
    Record("rk_results_errno", result);
    return IntResult("rk_results_errno", rk::ResultsErrno(result));
}

rk_elem_t* rk_results_new_passed(void) {
    Record("rk_results_new_passed");
    return rk::ResultsNewPassed();
}

rk_elem_t* rk_results_new_failed(const char* reason, int errnum) {
    Record("rk_results_new_failed", reason, errnum);
    return rk::ResultsNewFailed(reason, errnum);
}

rk_elem_t* rk_elem_new(const char* name) {
    Record("rk_elem_new", name);
    return ShouldFail("rk_elem_new") ? nullptr : rk::ElemNew(name);
}

void rk_elem_free(rk_elem_t* elem) {
    Record("rk_elem_free", elem);
    rk::ElemFree(elem);
}

const char* rk_elem_get_name(rk_elem_t* elem) {
    Record("rk_elem_get_name", elem);
    return rk::ElemGetName(elem);
}

const char* rk_elem_get_content(rk_elem_t* elem) {
    Record("rk_elem_get_content", elem);
    return rk::ElemGetContent(elem);
}

int rk_elem_set_content(rk_elem_t* elem, const char* text) {
    Record("rk_elem_set_content", elem, text);
    return IntResult("rk_elem_set_content", rk::ElemSetContent(elem, text) ? 1 : 0);
}

rk_elem_t* rk_elem_child(rk_elem_t* elem, const char* name) {
    Record("rk_elem_child", elem, name);
    return rk::ElemChild(elem, name);
}

rk_elem_t* rk_child_add(rk_elem_t* parent, rk_elem_t* child) {
    Record("rk_child_add", parent, child);
    return ShouldFail("rk_child_add") ? nullptr : rk::ChildAdd(parent, child);
}

rk_elem_t* rk_child_add_string(rk_elem_t* parent, const char* name, const char* value) {
    Record("rk_child_add_string", parent, name, value);
    return ShouldFail("rk_child_add_string") ? nullptr : rk::ChildAddString(parent, name, value);
}

rk_elem_t* rk_child_add_string_encrypted(rk_elem_t* parent, const char* name, const char* value,
                                         const char* key) {
    Record("rk_child_add_string_encrypted", parent, name, value, key);
    return ShouldFail("rk_child_add_string_encrypted")
               ? nullptr
               : rk::ChildAddStringEncrypted(parent, name, value, key);
}

rk_elem_t* rk_child_add_bool(rk_elem_t* parent, const char* name, int value) {
    Record("rk_child_add_bool", parent, name, value);
    return ShouldFail("rk_child_add_bool") ? nullptr : rk::ChildAddBool(parent, name, value != 0);
}

const char* rk_child_get_string(rk_elem_t* elem, const char* name) {
    Record("rk_child_get_string", elem, name);
    return rk::ChildGetString(elem, name);
}

char* rk_child_get_string_encrypted(rk_elem_t* elem, const char* name, const char* key) {
    Record("rk_child_get_string_encrypted", elem, name, key);
    return ShouldFail("rk_child_get_string_encrypted")
               ? nullptr
               : rk::ChildGetStringEncrypted(elem, name, key);
}

int rk_child_get_bool(rk_elem_t* elem, const char* name, int dflt) {
    Record("rk_child_get_bool", elem, name, dflt);
    return rk::ChildGetBool(elem, name, dflt);
}

rk_iterator_t rk_child_iterator(rk_elem_t* elem) {
    Record("rk_child_iterator", elem);
    return rk::ChildIterator(elem);
}

rk_elem_t* rk_iterator_next(rk_iterator_t* it) {
    Record("rk_iterator_next", it == nullptr ? nullptr : it->parent);
    return rk::IteratorNext(it);
}

char* rk_elem_sprintf(rk_elem_t* elem) {
    Record("rk_elem_sprintf", elem);
    return ShouldFail("rk_elem_sprintf") ? nullptr : rk::ElemSprintf(elem);
}

void rk_free(void* p) {
    Record("rk_free", static_cast<const void*>(p));
    free(p);
}

int rk_elem_write(rk_elem_t* elem, size_t piece_size, rk_write_fn write, void* context) {
    Record("rk_elem_write", elem);
    return !ShouldFail("rk_elem_write") && rk::WritePieces(elem, piece_size, write, context) ? 1
                                                                                             : 0;
}

size_t rk_elem_child_count(rk_elem_t* elem) {
    Record("rk_elem_child_count", elem);
    return rk::ElemChildCount(elem);
}

rk_elem_t* rk_elem_parent(rk_elem_t* elem) {
    Record("rk_elem_parent", elem);
    return rk::ElemParent(elem);
}

rk_elem_t* rk_child_remove(rk_elem_t* parent, rk_elem_t* child) {
    Record("rk_child_remove", parent, child);
    return rk::ChildRemove(parent, child);
}

int rk_elem_set_attr(rk_elem_t* elem, const char* name, const char* value) {
    Record("rk_elem_set_attr", elem, name, value);
    return rk::ElemSetAttr(elem, name, value) ? 1 : 0;
}

const char* rk_elem_get_attr(rk_elem_t* elem, const char* name) {
    Record("rk_elem_get_attr", elem, name);
    return rk::ElemGetAttr(elem, name);
}

rk_elem_t* rk_elem_copy(rk_elem_t* elem) {
    Record("rk_elem_copy", elem);
    return rk::ElemCopy(elem);
}

rk_elem_t* rk_elem_parse(const char* text, size_t len, char* errbuf, int errbuflen) {
    Record("rk_elem_parse", len);
    rk::ParseError error;
    rk_elem_t* tree = rk::ParseXml(text, len, rk::ParseLimits::ForSize(RK_PARSE_MAX_BYTES), &error);
    if (tree == nullptr) {
        rk::CopyToBuffer(error.reason, errbuf, errbuflen);
    }
    return tree;
}

int rk_set_default_key(const char* key) {
    Record("rk_set_default_key", key == nullptr ? "(null)" : "key");
    return rk::SetDefaultKey(key) ? 1 : 0;
}

int rk_set_default_ca_file(const char* path) {
    Record("rk_set_default_ca_file", path == nullptr ? "(null)" : path);
    return 1;
}

int rk_set_default_client_cert(const char* cert_path, const char* key_path,
                               const char* key_passphrase) {
    // The pass phrase is recorded as present or not, never as its text.
    Record("rk_set_default_client_cert", cert_path == nullptr ? "(null)" : cert_path,
           key_path == nullptr ? "(null)" : key_path,
           key_passphrase == nullptr ? "(null)" : "passphrase");
    return 1;
}

int rk_set_tls_session_resumption(int enabled) {
    Record("rk_set_tls_session_resumption", enabled);
    return 1;
}

}  // extern "C"
