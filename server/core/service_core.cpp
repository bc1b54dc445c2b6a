#include "service_core.h"

#include <exception>
#include <stdexcept>
#include <utility>

namespace tezad {

const char kVersionApi[] = "system-get-corvi-version";
const char kCountersApi[] = "system-get-counters";
const char kListApi[] = "system-api-list";
const char kDescribeApi[] = "system-api-describe";

namespace {

const char* TypeName(int type) {
    switch (type) {
        case RK_SERVER_TYPE_NODE:
            return "node";
        case RK_SERVER_TYPE_CLUSTER:
            return "cluster";
        case RK_SERVER_TYPE_AGENT:
            return "agent";
        case RK_SERVER_TYPE_DEPOT:
            return "depot";
        default:
            return "unknown server type";
    }
}

// Compares a given password with the expected one in a time that does not depend on where
// they differ.
bool SamePassword(const std::string& given, const std::string& expected) {
    unsigned char diff = given.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < expected.size(); ++i) {
        unsigned char g = i < given.size() ? static_cast<unsigned char>(given[i]) : 0;
        diff |= static_cast<unsigned char>(g ^ static_cast<unsigned char>(expected[i]));
    }
    return diff == 0;
}

}  // namespace

ServiceCore::ServiceCore(CoreOptions options) : _options(std::move(options)) {
    std::string error;
    if (!_description.Add(tezad_builtin_description, "the built-in APIs' description", &error)) {
        throw std::logic_error(error);
    }
}

bool ServiceCore::AddDescription(const std::string& xml, const std::string& origin,
                                 std::string* error) {
    return _description.Add(xml, origin, error);
}

void ServiceCore::AddApi(const std::string& name, Handler handler) {
    _handlers[name] = std::move(handler);
}

void ServiceCore::SetScript(std::unique_ptr<Script> script) {
    _script = std::move(script);
}

Reply ServiceCore::Handle(const CallInfo& info, const char* body, size_t length) {
    char error[256];
    ElemPtr request(rk_elem_parse(body, length, error, static_cast<int>(sizeof error)));
    if (request == nullptr) {
        Reply reply;
        reply.httpStatus = 400;
        reply.result = NewFailed(
            std::string("the request is not a well-formed XML element: ") + error, kErrBadRequest);
        return reply;
    }
    return Dispatch(info, request.get());
}

Reply ServiceCore::Handle(const CallInfo& info, rk_elem_t* request) {
    return Dispatch(info, request);
}

Reply ServiceCore::Dispatch(const CallInfo& info, rk_elem_t* request) {
    const std::string api = rk_elem_get_name(request);
    {
        std::lock_guard<std::mutex> lock(_countersMutex);
        ++_calls[api];
    }
    Reply reply;
    try {
        reply.result = Refusal(info, &reply.httpStatus);
        if (reply.result != nullptr) {
            return reply;
        }
        if (_script != nullptr) {
            if (std::optional<ScriptAction> action = _script->Next(api)) {
                return Scripted(*action, request);
            }
        }
        reply.result = Builtin(api, request);
        if (reply.result != nullptr) {
            return reply;
        }
        auto handler = _handlers.find(api);
        if (handler == _handlers.end()) {
            reply.result = NewFailed("unknown API \"" + api + "\"", kErrUnknownApi);
            return reply;
        }
        reply.result = handler->second(Args(request));
    } catch (const ApiError& e) {
        reply.result = NewFailed(e.reason, e.errnum);
    } catch (const std::exception& e) {
        reply.result = NewFailed(std::string("internal error: ") + e.what(), kErrInternal);
    }
    return reply;
}

// Why a call without a matching credential is refused: the credential it brought, or the
// ones the server takes. Secrets are never part of the text.
std::string ServiceCore::CredentialProblem(const CallInfo& info) const {
    if (info.hasCredentials) {
        return "login or password is wrong";
    }
    if (info.hasToken) {
        return "the token is wrong";
    }
    if (info.certificate == ClientCertificate::Verified) {
        return "the client certificate's subject CN \"" + info.certificateName +
               "\" is not a user of this server";
    }
    if (_options.tokens.empty() && _options.certUsers.empty()) {
        return "this server needs a login and a password";
    }
    std::string accepted;
    if (!_options.users.empty()) {
        accepted = "a login and a password";
    }
    if (!_options.tokens.empty()) {
        accepted += std::string(accepted.empty() ? "" : ", ") + "a bearer token";
    }
    if (!_options.certUsers.empty()) {
        accepted += std::string(accepted.empty() ? "" : ", ") + "a client certificate";
    }
    return "this server needs credentials: " + accepted;
}

bool ServiceCore::Authenticated(const CallInfo& info) const {
    if (info.certificate == ClientCertificate::Verified &&
        _options.certUsers.count(info.certificateName) != 0) {
        return true;
    }
    if (info.hasCredentials) {
        auto user = _options.users.find(info.login);
        if (user != _options.users.end() && SamePassword(info.password, user->second)) {
            return true;
        }
    }
    if (info.hasToken) {
        // Every token is compared, in a time that does not depend on which one matches.
        bool matched = false;
        for (const std::string& token : _options.tokens) {
            matched |= SamePassword(info.token, token);
        }
        return matched;
    }
    return false;
}

ElemPtr ServiceCore::Refusal(const CallInfo& info, int* httpStatus) const {
    if (info.certificateRequired && info.certificate != ClientCertificate::Verified) {
        *httpStatus = 401;
        return NewFailed(info.certificate == ClientCertificate::None
                             ? "this server needs a client certificate signed by its CA"
                             : "the client certificate was refused: " + info.certificateProblem,
                         kErrAuthentication);
    }
    if (_options.NeedsCredentials() && !Authenticated(info)) {
        *httpStatus = 401;
        return NewFailed(CredentialProblem(info), kErrAuthentication);
    }
    const std::string served = std::to_string(_options.major) + ".0 to " +
                               std::to_string(_options.major) + "." +
                               std::to_string(_options.minor);
    if (!info.hasVersion) {
        return NewFailed("the call names no API version; this server serves " + served,
                         kErrApiVersion);
    }
    if (info.major != _options.major || info.minor < 0 || info.minor > _options.minor) {
        return NewFailed("API version " + std::to_string(info.major) + "." +
                             std::to_string(info.minor) + " is not served here: use " + served,
                         kErrApiVersion);
    }
    if (!info.hasServerType) {
        return NewFailed("the call names no server type", kErrServerType);
    }
    if (info.serverType != RK_SERVER_TYPE_ANY && info.serverType != _options.serverType) {
        return NewFailed("this server is a " + std::string(TypeName(_options.serverType)) + " (" +
                             std::to_string(_options.serverType) + "), not a " +
                             TypeName(info.serverType) + " (" + std::to_string(info.serverType) +
                             ")",
                         kErrServerType);
    }
    return nullptr;
}

Reply ServiceCore::Scripted(const ScriptAction& action, rk_elem_t* request) {
    Wait(action.delay);
    Reply reply;
    using Kind = ScriptAction::Kind;
    switch (action.kind) {
        case Kind::Pass:
            reply.result.reset(rk_elem_copy(action.children));
            if (reply.result == nullptr) {
                throw std::bad_alloc();
            }
            break;
        case Kind::Fail:
            reply.result = NewFailed(action.text, action.number);
            break;
        case Kind::Echo: {
            reply.result = NewPassed();
            rk_elem_t* copy = rk_elem_copy(request);
            if (copy == nullptr || rk_child_add(reply.result.get(), copy) == nullptr) {
                rk_elem_free(copy);
                throw std::bad_alloc();
            }
            break;
        }
        case Kind::Http:
            reply.kind = Reply::Kind::Http;
            reply.httpStatus = action.number;
            reply.body = action.text;
            break;
        case Kind::Raw:
            reply.kind = Reply::Kind::Raw;
            reply.body = action.text;
            break;
        case Kind::Malformed:
            reply.kind = Reply::Kind::Raw;
            reply.body =
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                "<results status=\"passed\"><count>3</results>\n";
            break;
        case Kind::Truncated:
            reply.kind = Reply::Kind::Truncated;
            reply.result = NewPassed();
            AddText(reply.result.get(), "padding",
                    "a result long enough to be cut in half on its way to the client");
            break;
        case Kind::Drop:
            reply.kind = Reply::Kind::Drop;
            break;
        case Kind::Refuse:
            reply.kind = Reply::Kind::Refuse;
            break;
    }
    return reply;
}

ElemPtr ServiceCore::Builtin(const std::string& api, rk_elem_t* request) const {
    if (api == kListApi) {
        return _description.List();
    }
    if (api == kDescribeApi) {
        return _description.Describe(Args(request));
    }
    if (api == kVersionApi) {
        ElemPtr result = NewPassed();
        AddText(result.get(), "major-version", std::to_string(_options.major));
        AddText(result.get(), "minor-version", std::to_string(_options.minor));
        AddText(result.get(), "server-type", std::to_string(_options.serverType));
        AddText(result.get(), "server", "tezad " TEZAD_VERSION);
        return result;
    }
    if (api == kCountersApi) {
        Counters counters = GetCounters();
        ElemPtr result = NewPassed();
        AddText(result.get(), "connections-accepted", std::to_string(counters.connections));
        AddText(result.get(), "connections-open", std::to_string(counters.openConnections));
        AddText(result.get(), "calls-served", std::to_string(counters.calls));
        AddText(result.get(), "tls-sessions-resumed", std::to_string(counters.tlsSessionsResumed));
        rk_elem_t* list = AddElem(result.get(), "api-calls");
        for (const auto& [name, calls] : counters.callsPerApi) {
            rk_elem_t* item = AddElem(list, "api-call");
            AddText(item, "api", name);
            AddText(item, "calls", std::to_string(calls));
        }
        return result;
    }
    return nullptr;
}

Counters ServiceCore::GetCounters() const {
    Counters counters;
    counters.connections = _connections.load(std::memory_order_relaxed);
    counters.openConnections = _openConnections.load(std::memory_order_relaxed);
    counters.tlsSessionsResumed = _tlsSessionsResumed.load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(_countersMutex);
    counters.callsPerApi = _calls;
    for (const auto& entry : _calls) {
        counters.calls += entry.second;
    }
    return counters;
}

std::string ServiceCore::CountersLine() const {
    Counters counters = GetCounters();
    std::string line = std::to_string(counters.connections) + " connections accepted, " +
                       std::to_string(counters.openConnections) + " open, " +
                       std::to_string(counters.calls) + " calls served";
    if (!counters.callsPerApi.empty()) {
        const char* separator = " (";
        for (const auto& [name, calls] : counters.callsPerApi) {
            line += separator + name + " " + std::to_string(calls);
            separator = ", ";
        }
        line += ")";
    }
    return line;
}

void ServiceCore::Stop() {
    std::lock_guard<std::mutex> lock(_stopMutex);
    _stopping = true;
    _stopped.notify_all();
}

void ServiceCore::Wait(std::chrono::milliseconds delay) {
    if (delay.count() <= 0) {
        return;
    }
    std::unique_lock<std::mutex> lock(_stopMutex);
    _stopped.wait_for(lock, delay, [this] { return _stopping; });
}

}  // namespace tezad
