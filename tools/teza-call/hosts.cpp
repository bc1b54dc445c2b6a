// teza-call --hosts. Each host's call runs through the runtime, as any generated interface's
// call does: one interface object per host, the connection opened with the version probe,
// then the description (unless unchecked) and the call on the same connection.
//
// No handle is handed to the connection cache: the cache finds a handle by host and API
// version (its other settings only choose the hash bucket), so a handle cached for one port
// could serve a call to another port of the same host, and a list of servers on one machine
// differs only by port. Each host's connection is closed after its call instead; a list names
// each host once, so the cache would save nothing in a run anyway.
//
// The results stay in memory until every host is done, and are printed afterwards from the
// calling thread, in the order of the list.
#include "hosts.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "TezaFanOut.h"
#include "TezaInterface.h"
#include "TezaNamespaceFactory.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaTracer.h"

namespace teza_call {
namespace {

using json = nlohmann::ordered_json;

const char kDescribeApi[] = "system-api-describe";
const int kErrUnknownApi = 15005;
const int kErrNotDescribed = 15007;

// The interface's two APIs: the call itself and the description asked before it.
enum HostApi : int { kCallApi = 0, kDescribeApiIndex = 1, kHostApis = 2 };

// teza-call's API names, set once before the run and only read during it.
std::string gApiNames[kHostApis];

// A tracker of teza-call's own: level 0 (silent), counting what the runtime counts.
class HostTracker : public TezaTracer {
  public:
    explicit HostTracker(int api) : _api(api) {}
    const std::string& getTraceName() const override { return gApiNames[_api]; }

  private:
    int _api;
};

HostTracker gTrackers[kHostApis] = {HostTracker(kCallApi), HostTracker(kDescribeApiIndex)};

const bool kNoForcedTrace = false;

// The interface of one host's call, made by TezaFanOut::forEach for each host.
class HostInterface : public TezaInterface {
  public:
    explicit HostInterface(const TezaServerConnection& server)
        : TezaInterface(server, kNoForcedTrace, nullptr, nullptr) {}
    int getInterfaceId() const override { return 0; }
    const char* getInterfaceName() const override { return "teza-call"; }
    const std::string& getApiName(int api) const override {
        return gApiNames[api == kDescribeApiIndex ? kDescribeApiIndex : kCallApi];
    }
};

struct ElemFree {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemFree>;

// What one host's call left behind; written by the one worker that ran it.
struct Outcome {
    bool started = false;
    ElemPtr result;  // the passed result
    std::optional<ApiDescription> description;
};

TezaStatus FailureOf(rk_elem_t* result) {
    const char* reason = rk_results_reason(result);
    return TezaStatus(TezaStatus::ApiFailed, Decoded(reason != nullptr ? reason : ""),
                      rk_results_errno(result));
}

// A failure of teza-call's own (an argument that does not fit, a description it cannot read):
// error number 0, as teza-call reports local errors in JSON.
TezaStatus LocalFailure(const std::string& reason) {
    return TezaStatus(TezaStatus::ApiFailed, reason, 0);
}

// The description (unless unchecked) and the call, on the open connection.
TezaStatus CallOnConnection(HostInterface& api, const HostsCall& call, Outcome* outcome) {
    if (call.checked) {
        ElemPtr request(rk_elem_new(kDescribeApi));
        rk_child_add_string(request.get(), "api", call.api.c_str());
        rk_elem_t* answer = nullptr;
        api.perform_invocation(request.get(), answer, kDescribeApiIndex, nullptr);
        ElemPtr response(answer);
        if (rk_results_status(response.get()) != 1) {
            const int errnum = rk_results_errno(response.get());
            // A server that does not describe itself, or this API, takes the call unchecked.
            if (errnum != kErrUnknownApi && errnum != kErrNotDescribed) {
                return FailureOf(response.get());
            }
        } else {
            outcome->description.emplace();
            std::string error;
            if (!outcome->description->Read(response.get(), call.api, &error)) {
                return LocalFailure(error);
            }
        }
    }
    ElemPtr request(rk_elem_new(call.api.c_str()));
    if (request == nullptr) {
        return LocalFailure("\"" + call.api + "\" is not an API name");
    }
    std::string error;
    if (!call.build(outcome->description ? &*outcome->description : nullptr, request.get(),
                    &error)) {
        return LocalFailure(error);
    }
    rk_elem_t* answer = nullptr;
    api.perform_invocation(request.get(), answer, kCallApi, nullptr);
    ElemPtr response(answer);
    if (rk_results_status(response.get()) != 1) {
        return FailureOf(response.get());
    }
    outcome->result = std::move(response);
    return TezaStatus();
}

// One host's call, on a worker thread: open (with the version probe), call, close.
TezaStatus CallOne(HostInterface& api, const HostsCall& call, Outcome* outcome) {
    outcome->started = true;
    TezaStatus status = api.openConnection(kCallApi);
    if (status.status != TezaStatus::Success) {
        status.reason = Decoded(status.reason);
        return status;
    }
    status = CallOnConnection(api, call, outcome);
    api.closeConnection();
    return status;
}

// The element's text as it came from the wire, its line ends and tabs written as character
// references so that the text stays on one line.
void AppendText(const char* text, std::string* out) {
    for (const char* c = text; *c != '\0'; ++c) {
        switch (*c) {
            case '\n':
                *out += "&#10;";
                break;
            case '\r':
                *out += "&#13;";
                break;
            case '\t':
                *out += "&#9;";
                break;
            default:
                *out += *c;
        }
    }
}

// The children of `elem` as XML on one line: <name>text</name>, <name/> when empty.
void AppendChildren(rk_elem_t* elem, std::string* out) {
    rk_iterator_t it = rk_child_iterator(elem);
    while (rk_elem_t* child = rk_iterator_next(&it)) {
        const char* name = rk_elem_get_name(child);
        const char* text = rk_elem_get_content(child);
        rk_iterator_t inner = rk_child_iterator(child);
        const bool hasChildren = rk_iterator_next(&inner) != nullptr;
        if (!hasChildren && (text == nullptr || text[0] == '\0')) {
            *out += std::string("<") + name + "/>";
            continue;
        }
        *out += std::string("<") + name + ">";
        if (text != nullptr) {
            AppendText(text, out);
        }
        AppendChildren(child, out);
        *out += std::string("</") + name + ">";
    }
}

enum class Kind { kPassed, kFailed, kNotRun };

}  // namespace

std::string HostEntry::Label() const {
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool ReadHosts(std::istream& in, const std::string& name, int defaultPort,
               std::vector<HostEntry>* hosts, std::string* error) {
    std::string text;
    int number = 0;
    while (std::getline(in, text)) {
        ++number;
        auto fail = [&](const std::string& what) {
            *error = name + ":" + std::to_string(number) + ": " + what;
            return false;
        };
        const size_t hash = text.find('#');
        if (hash != std::string::npos) {
            text.erase(hash);
        }
        const char* blanks = " \t\r\f\v";
        const size_t first = text.find_first_not_of(blanks);
        if (first == std::string::npos) {
            continue;
        }
        const std::string entry = text.substr(first, text.find_last_not_of(blanks) - first + 1);
        if (entry.find_first_of(blanks) != std::string::npos) {
            return fail("one host a line, not \"" + entry + "\"");
        }
        HostEntry host;
        host.line = number;
        std::string port;
        bool hasPort = false;
        if (entry[0] == '[') {
            const size_t close = entry.find(']');
            if (close == std::string::npos || close == 1) {
                return fail("\"" + entry + "\" is not [IPv6 address] or [IPv6 address]:port");
            }
            host.host = entry.substr(1, close - 1);
            if (close + 1 < entry.size()) {
                if (entry[close + 1] != ':') {
                    return fail("\"" + entry + "\": after ] comes :port");
                }
                port = entry.substr(close + 2);
                hasPort = true;
            }
        } else {
            const size_t colon = entry.find(':');
            if (colon != std::string::npos && entry.find(':', colon + 1) == std::string::npos) {
                host.host = entry.substr(0, colon);
                port = entry.substr(colon + 1);
                hasPort = true;
            } else {
                // No colon: a name or an IPv4 address; several: a bare IPv6 address.
                host.host = entry;
            }
        }
        if (host.host.empty()) {
            return fail("\"" + entry + "\" names no host");
        }
        if (hasPort) {
            char* end = nullptr;
            errno = 0;
            const long value = strtol(port.c_str(), &end, 10);
            if (port.empty() || port.find_first_not_of("0123456789") != std::string::npos ||
                errno != 0 || *end != '\0' || value < 1 || value > 65535) {
                return fail("\"" + entry + "\": the port is not a number from 1 to 65535");
            }
            host.port = static_cast<int>(value);
        } else if (defaultPort == 0) {
            return fail("\"" + entry + "\" has no port, and there is no --port for it");
        } else {
            host.port = defaultPort;
        }
        hosts->push_back(host);
    }
    if (in.bad()) {
        *error = name + ": " + strerror(errno);
        return false;
    }
    if (hosts->empty()) {
        *error = name + " names no host";
        return false;
    }
    return true;
}

int CallHosts(const std::vector<HostEntry>& hosts, const HostsCall& call, FILE* out) {
    gApiNames[kCallApi] = call.api;
    gApiNames[kDescribeApiIndex] = kDescribeApi;

    const TezaServerConnection::Transport transport =
        call.tls ? TezaServerConnection::TRANSPORT_HTTPS : TezaServerConnection::TRANSPORT_HTTP;
    std::vector<TezaServerConnection> servers;
    servers.reserve(hosts.size());
    for (const HostEntry& host : hosts) {
        const unsigned timeout = static_cast<unsigned>(call.timeout);
        servers.emplace_back(
            host.host, call.major, call.minor, static_cast<TezaServerConnection::Style>(call.style),
            transport, host.port, static_cast<TezaServerConnection::ServerType>(call.serverType),
            call.timeout, timeout, call.login, call.password, timeout);
    }

    std::vector<Outcome> outcomes(hosts.size());
    TezaFanOut::Options options;
    options.parallel = call.parallel;
    options.deadline = std::chrono::seconds(call.deadline);
    const auto start = std::chrono::steady_clock::now();
    const std::vector<TezaStatus> statuses = TezaFanOut::forEach<HostInterface>(
        servers,
        [&call, &outcomes](HostInterface& api, size_t index) {
            return CallOne(api, call, &outcomes[index]);
        },
        options);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Stops what the runtime started for the connections.
    TezaServerConnection::cleanup();

    size_t counts[3] = {0, 0, 0};
    size_t width = 0;
    for (const HostEntry& host : hosts) {
        width = std::max(width, host.Label().size());
    }
    json list = json::array();
    for (size_t i = 0; i < hosts.size(); ++i) {
        const TezaStatus& status = statuses[i];
        const Outcome& outcome = outcomes[i];
        const Kind kind = !outcome.started                       ? Kind::kNotRun
                          : status.status == TezaStatus::Success ? Kind::kPassed
                                                                 : Kind::kFailed;
        ++counts[static_cast<int>(kind)];
        const std::string label = hosts[i].Label();
        const char* word = kind == Kind::kPassed   ? "ok"
                           : kind == Kind::kFailed ? "failed"
                                                   : "not run";
        if (call.json) {
            json entry = {{"host", label}, {"line", hosts[i].line}};
            if (kind == Kind::kPassed) {
                entry["status"] = "passed";
                entry["result"] = outcome.description ? outcome.description->ResultJson(
                                                            outcome.result.get(), stderr)
                                                      : UntypedJson(outcome.result.get());
            } else {
                entry["status"] = kind == Kind::kFailed ? "failed" : "not run";
                entry["errno"] = status.errnum;
                entry["reason"] = status.reason;
            }
            list.push_back(entry);
            continue;
        }
        std::string detail;
        if (kind == Kind::kPassed) {
            AppendChildren(outcome.result.get(), &detail);
        } else {
            detail = "error " + std::to_string(status.errnum) + ": " + status.reason;
        }
        fprintf(out, "%-*s  %-7s%s%s\n", static_cast<int>(width), label.c_str(), word,
                detail.empty() ? "" : "  ", detail.c_str());
    }
    const size_t passed = counts[static_cast<int>(Kind::kPassed)];
    const size_t failed = counts[static_cast<int>(Kind::kFailed)];
    const size_t notRun = counts[static_cast<int>(Kind::kNotRun)];
    if (call.json) {
        json summary = {{"hosts", hosts.size()},
                        {"passed", passed},
                        {"failed", failed},
                        {"not run", notRun},
                        {"seconds", seconds}};
        // A host name from the file, or a text from a server, that is not UTF-8 is written
        // with replacement characters rather than ending the program.
        const std::string text = json({{"hosts", list}, {"summary", summary}})
                                     .dump(2, ' ', false, json::error_handler_t::replace);
        fprintf(out, "%s\n", text.c_str());
    } else {
        fprintf(out, "%zu hosts: %zu ok, %zu failed, %zu not run in %.3f s\n", hosts.size(), passed,
                failed, notRun, seconds);
    }
    return passed == hosts.size() ? 0 : 1;
}

}  // namespace teza_call

// teza-call has no generated code: it defines the two functions that generated code gives the
// runtime, with no record types and its own two trackers.
void TezaNamespaceFactory::registerDefaultTypeFactory() {}

TezaTracer* TezaNS_depot::getTezaTracker(int, int api) {
    return &teza_call::gTrackers[api == teza_call::kDescribeApiIndex ? teza_call::kDescribeApiIndex
                                                                     : teza_call::kCallApi];
}
