// teza-call: sends one API call to a TEZA server through librk and prints the result, as a
// tree or as JSON; lists and describes the APIs of a server that describes itself, and then
// checks arguments before anything is sent. Exit statuses: 0 passed, 1 the server answered
// with a failure, 2 usage or local error, 3 the server could not be reached or the exchange
// broke. With --hosts FILE the same call goes to every host of the file (hosts.h): 0 when
// every host passed, 1 when one did not, 2 usage or local error.
//
// Credentials (credentials.h) come from files, the environment or a prompt; the secrets are
// never printed.
//
// A name may be a path: "address/city=London" adds <address><city>London</city></address>,
// reusing an <address> added before; "tags/tag=a tags/tag=b" gives a list, and "NAME[N]"
// picks the Nth element of that name (from 0; the next index adds one), so that
// "rules/rule[0]/match=a rules/rule[1]/match=b" sends two records. --secret NAME=VALUE adds
// an encrypted value.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "api_description.h"
#include "credentials.h"
#include "demo_service.h"
#include "hosts.h"
#include "inprocess_server.h"
#include "rk.h"
#include "service_core.h"

namespace {

using json = nlohmann::ordered_json;

// Exit statuses.
enum Status : int {
    kPassed = 0,
    kFailed = 1,       // the server answered with a failure
    kLocalError = 2,   // usage or local error
    kUnreachable = 3,  // the server could not be reached, or the exchange broke
};

const char kUsageHead[] =
    "usage: teza-call CONNECTION [options] API [NAME=VALUE | --secret NAME=VALUE]...\n"
    "       teza-call CONNECTION [options] --list\n"
    "       teza-call CONNECTION [options] --describe API [--format tree|teza]\n"
    "CONNECTION is one of\n"
    "  --host HOST --port PORT [--tls [--ca FILE]]   HTTP, or HTTPS with --tls\n"
    "  --unix PATH                                   HTTP over a Unix socket\n"
    "  --in-process       tezad's demo service in this process (user admin, password\n"
    "                     secret; token secret)\n"
    "  --hosts FILE|- [--port PORT] [--tls [--ca FILE]]   the same call to every host of\n"
    "                     FILE, a line each (below)\n"
    "Options:\n"
    "  --api-version M.N  --type node|cluster|agent|depot  --timeout S (default 60)\n"
    "  --list             the server's APIs, one a line: name, input type, output type\n"
    "  --describe API     the API's input and output as a tree of fields with their types and\n"
    "                     flags; --format teza prints them as schema text\n"
    "  --output json      print the result as one JSON document, typed by the server's\n"
    "                     description (numbers, booleans, arrays, objects), texts otherwise;\n"
    "                     a failure as {\"status\": \"failed\", \"errno\": N, \"reason\": "
    "\"...\"}\n"
    "  --input FILE|-     the arguments as a JSON object of the same shape (- reads standard\n"
    "                     input); NAME=VALUE arguments are added after them\n"
    "  --encryption-key-file FILE  key of encrypted values: the first line of FILE (default:\n"
    "                     the client library's, which is no secret)\n"
    "  --unchecked        send without asking the server for its description\n"
    "  --parallel N       with --hosts: calls at once, 1 to 1024 (default 32)\n"
    "  --deadline S       with --hosts: the hosts whose call has not started S seconds after\n"
    "                     the start are not called, and reported as not run (error 14101)\n"
    "When the server describes itself (system-api-describe), arguments are checked before\n"
    "anything is sent, and encrypted fields are sent encrypted without --secret.\n"
    "NAME is a path of elements: address/city=London; tags/tag=a tags/tag=b gives two items of\n"
    "a list; NAME[N] is the Nth element of that name (from 0), so that two records of an array\n"
    "are sent as\n"
    "  export-rules/export-rule[0]/client-match=a export-rules/export-rule[1]/client-match=b\n"
    "and in JSON as {\"export-rules\": [{\"client-match\": \"a\"}, {\"client-match\": \"b\"}]}.\n"
    "Exit status: 0 passed; 1 the server answered with a failure; 2 usage or local error;\n"
    "3 the server could not be reached or the exchange broke (connection, TLS, time-out,\n"
    "transport).\n"
    "--hosts FILE: one host a line: host, host:port, [IPv6 address]:port or a bare IPv6\n"
    "address; a host without a port takes --port. # starts a comment, blank lines are\n"
    "skipped; - reads standard input. Every host gets the call with the same credentials, TLS\n"
    "files and time-out, checked against its own description. Printed in the file's order, a\n"
    "line a host: the host, then ok and the result on one line, or failed (or not run), the\n"
    "error number and the reason; then a summary line. --output json prints one document:\n"
    "{\"hosts\": [{\"host\": \"h:1\", \"line\": 1, \"status\": \"passed\", \"result\": {...}}, "
    "...],\n"
    "\"summary\": {\"hosts\": N, \"passed\": N, \"failed\": N, \"not run\": N, \"seconds\": S}}.\n"
    "Exit status with --hosts: 0 every host passed; 1 a host failed or was not run; 2 usage\n"
    "or local error (nothing sent).\n";
const std::string kUsage = std::string(kUsageHead) + teza_tools::kCredentialUsage;

const char kInProcessName[] = "teza-call";
const char kListApi[] = "system-api-list";
const char kDescribeApi[] = "system-api-describe";
const int kErrUnknownApi = 15005;
const int kErrNotDescribed = 15007;

struct Argument {
    std::string name;
    std::string value;
    bool encrypted;
};

struct Options {
    std::string host;
    int port = 0;
    bool tls = false;
    bool inProcess = false;
    std::string unixPath;
    std::string caFile;
    teza_tools::CredentialOptions credentialOptions;
    teza_tools::Credentials credentials;
    int major = 1;
    int minor = 21;
    int type = RK_SERVER_TYPE_NODE;
    int timeout = 60;
    bool list = false;
    bool describe = false;
    bool schemaFormat = false;
    bool json = false;
    bool unchecked = false;
    std::string inputFile;
    std::string keyFile;
    std::string api;
    std::vector<Argument> arguments;
    std::string hostsFile;
    int parallel = 0;  // 0: not given
    int deadline = 0;  // 0: not given
};

// The document indented by two. A text that is not UTF-8 (a host name as given, a reason that
// quotes it) is written with replacement characters rather than ending the program.
std::string Dump(const json& document) {
    return document.dump(2, ' ', false, json::error_handler_t::replace);
}

int Usage(const char* problem, const std::string& detail) {
    fprintf(stderr, "teza-call: %s%s\n%s", problem, detail.c_str(), kUsage.c_str());
    return kLocalError;
}

bool ParseInt(const char* text, long low, long high, int* out) {
    char* end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < low || value > high) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

bool ParseArgument(const std::string& text, bool encrypted, Options* options) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0) {
        return false;
    }
    options->arguments.push_back({text.substr(0, eq), text.substr(eq + 1), encrypted});
    return true;
}

// Returns 0 when the options are complete, otherwise the exit status.
int ParseOptions(int argc, char** argv, Options* options) {
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && options->api.empty(); ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage.c_str(), stdout);
            exit(0);
        } else if (arg == "--tls") {
            options->tls = true;
            continue;
        } else if (arg == "--in-process") {
            options->inProcess = true;
            continue;
        } else if (arg == "--list") {
            options->list = true;
            continue;
        } else if (arg == "--unchecked") {
            options->unchecked = true;
            continue;
        }
        if (value == nullptr) {
            return Usage("missing value or unknown option: ", arg);
        }
        if (teza_tools::ParseCredentialOption(argc, argv, &i, &options->credentialOptions)) {
            continue;
        }
        ++i;
        if (arg == "--host") {
            options->host = value;
        } else if (arg == "--port") {
            if (!ParseInt(value, 1, 65535, &options->port)) {
                return Usage("invalid port: ", value);
            }
        } else if (arg == "--unix") {
            options->unixPath = value;
        } else if (arg == "--hosts") {
            options->hostsFile = value;
        } else if (arg == "--parallel") {
            if (!ParseInt(value, 1, 1024, &options->parallel)) {
                return Usage("--parallel is a number from 1 to 1024, not ", value);
            }
        } else if (arg == "--deadline") {
            if (!ParseInt(value, 1, 86400, &options->deadline)) {
                return Usage("--deadline is a number of seconds from 1 to 86400, not ", value);
            }
        } else if (arg == "--ca") {
            options->caFile = value;
        } else if (arg == "--timeout") {
            if (!ParseInt(value, 0, 86400, &options->timeout)) {
                return Usage("invalid time-out: ", value);
            }
        } else if (arg == "--api-version") {
            if (sscanf(value, "%d.%d", &options->major, &options->minor) != 2) {
                return Usage("invalid API version: ", value);
            }
        } else if (arg == "--type") {
            const std::string type = value;
            if (type == "node") {
                options->type = RK_SERVER_TYPE_NODE;
            } else if (type == "cluster") {
                options->type = RK_SERVER_TYPE_CLUSTER;
            } else if (type == "agent") {
                options->type = RK_SERVER_TYPE_AGENT;
            } else if (type == "depot") {
                options->type = RK_SERVER_TYPE_DEPOT;
            } else {
                return Usage("unknown server type: ", type);
            }
        } else if (arg == "--describe") {
            options->describe = true;
            options->api = value;
        } else if (arg == "--format") {
            if (strcmp(value, "teza") != 0 && strcmp(value, "tree") != 0) {
                return Usage("--format is tree or teza, not ", value);
            }
            options->schemaFormat = strcmp(value, "teza") == 0;
        } else if (arg == "--output") {
            if (strcmp(value, "json") != 0 && strcmp(value, "text") != 0) {
                return Usage("--output is text or json, not ", value);
            }
            options->json = strcmp(value, "json") == 0;
        } else if (arg == "--input") {
            options->inputFile = value;
        } else if (arg == "--encryption-key-file") {
            options->keyFile = value;
        } else {
            return Usage("unknown option: ", arg);
        }
    }
    // --format may follow --describe API.
    if (options->describe && i + 1 < argc && strcmp(argv[i], "--format") == 0) {
        if (strcmp(argv[i + 1], "teza") != 0 && strcmp(argv[i + 1], "tree") != 0) {
            return Usage("--format is tree or teza, not ", argv[i + 1]);
        }
        options->schemaFormat = strcmp(argv[i + 1], "teza") == 0;
        i += 2;
    }
    if (options->list || options->describe) {
        if (i < argc) {
            return Usage(options->list ? "--list takes no API or arguments: "
                                       : "--describe takes one API, not also: ",
                         argv[i]);
        }
        if (options->list && options->describe) {
            return Usage("--list and --describe exclude each other", "");
        }
    } else {
        if (i >= argc) {
            return Usage("no API named", "");
        }
        options->api = argv[i++];
    }
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--secret") {
            if (i + 1 >= argc || !ParseArgument(argv[i + 1], true, options)) {
                return Usage("--secret needs NAME=VALUE", "");
            }
            ++i;
        } else if (!ParseArgument(arg, false, options)) {
            return Usage("arguments are NAME=VALUE, not: ", arg);
        }
    }
    const bool hosts = !options->hostsFile.empty();
    // With --hosts, --port is the port of the hosts written without one.
    const int connections = (options->inProcess ? 1 : 0) + (options->unixPath.empty() ? 0 : 1) +
                            (options->host.empty() && (options->port == 0 || hosts) ? 0 : 1) +
                            (hosts ? 1 : 0);
    if (connections != 1) {
        return Usage(connections == 0 ? "no connection: " : "one connection only: ",
                     "--host and --port are needed, or --unix PATH, or --in-process, or "
                     "--hosts FILE");
    }
    if (!hosts && !options->inProcess && options->unixPath.empty() &&
        (options->host.empty() || options->port == 0)) {
        return Usage("--host and --port go together", "");
    }
    if (options->tls && (options->inProcess || !options->unixPath.empty())) {
        return Usage("--tls goes with --host and --port, or --hosts", "");
    }
    if (!hosts && (options->parallel != 0 || options->deadline != 0)) {
        return Usage("--parallel and --deadline go with --hosts", "");
    }
    if (hosts && (options->list || options->describe)) {
        return Usage("--hosts sends one call: --list and --describe ask one server", "");
    }
    if (hosts && options->hostsFile == "-" && options->inputFile == "-") {
        return Usage("--hosts - and --input - cannot both read standard input", "");
    }
    std::string error;
    if (!teza_tools::ResolveCredentials(
            options->credentialOptions, options->inProcess ? "admin" : nullptr,
            options->inProcess ? "secret" : nullptr, &options->credentials, &error)) {
        fprintf(stderr, "teza-call: %s\n", error.c_str());
        return kLocalError;
    }
    return 0;
}

// Splits "name[N]" into the name and the index; false when the brackets are malformed.
bool IndexOf(const std::string& segment, std::string* name, std::optional<size_t>* index) {
    const size_t open = segment.find('[');
    *name = segment.substr(0, open);
    index->reset();
    if (open == std::string::npos) {
        return !name->empty();
    }
    const std::string digits = segment.substr(open + 1, segment.size() - open - 2);
    if (segment.back() != ']' || digits.empty() || digits.size() > 9 ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *index = static_cast<size_t>(strtoul(digits.c_str(), nullptr, 10));
    return !name->empty();
}

// Adds one argument under `request`. An inner name reuses the last child of that name, or
// with "[N]" the Nth (N equal to their count adds one); the last name always adds an element.
bool AddArgument(rk_elem_t* request, const Argument& argument, std::string* error) {
    rk_elem_t* parent = request;
    std::string path = argument.name;
    size_t slash;
    while (true) {
        slash = path.find('/');
        const std::string segment = path.substr(0, slash);
        std::string name;
        std::optional<size_t> index;
        if (!IndexOf(segment, &name, &index)) {
            *error = argument.name + ": \"" + segment + "\" is not NAME or NAME[N]";
            return false;
        }
        std::vector<rk_elem_t*> same;
        rk_iterator_t it = rk_child_iterator(parent);
        while (rk_elem_t* c = rk_iterator_next(&it)) {
            if (name == rk_elem_get_name(c)) {
                same.push_back(c);
            }
        }
        if (index && *index > same.size()) {
            *error = argument.name + ": " + segment + " skips items: the next " + name + " is [" +
                     std::to_string(same.size()) + "]";
            return false;
        }
        if (slash == std::string::npos) {
            if (index && *index < same.size()) {
                *error = argument.name + ": " + segment + " is given already";
                return false;
            }
            rk_elem_t* added =
                argument.encrypted
                    ? rk_child_add_string_encrypted(parent, name.c_str(), argument.value.c_str(),
                                                    nullptr)
                    : rk_child_add_string(parent, name.c_str(), argument.value.c_str());
            if (added == nullptr) {
                *error = "cannot build the request: " + argument.name +
                         " is not a path of element "
                         "names";
                return false;
            }
            return true;
        }
        path = path.substr(slash + 1);
        rk_elem_t* child = nullptr;
        if (index) {
            child = *index < same.size() ? same[*index] : nullptr;
        } else if (!same.empty()) {
            child = same.back();
        }
        if (child == nullptr) {
            child = rk_elem_new(name.c_str());
            if (child == nullptr || rk_child_add(parent, child) == nullptr) {
                rk_elem_free(child);
                *error = "cannot build the request: " + argument.name +
                         " is not a path of element "
                         "names";
                return false;
            }
        }
        parent = child;
    }
}

// The exit status of a failed result: error numbers of the client library from 13050 on say
// that the server could not be reached or the exchange broke; below, and 13072 (TLS files that
// cannot be used), that the call could not be made as asked.
int StatusOf(int errnum) {
    // The CA file, client certificate or key cannot be used: a local error.
    if (errnum == 13072) {
        return kLocalError;
    }
    if (errnum >= 13050 && errnum <= 13999) {
        return kUnreachable;
    }
    if (errnum >= 13000 && errnum < 13050) {
        return kLocalError;
    }
    return kFailed;
}

// Reports a failed result on standard error, and as JSON on standard output when asked.
int ReportFailure(const Options& options, const std::string& what, rk_elem_t* result) {
    const char* reason = rk_results_reason(result);
    const std::string decoded = teza_call::Decoded(reason != nullptr ? reason : "");
    const int errnum = rk_results_errno(result);
    fprintf(stderr, "teza-call: %s failed: error %d: %s\n", what.c_str(), errnum, decoded.c_str());
    if (options.json) {
        json failure = {{"status", "failed"}, {"errno", errnum}, {"reason", decoded}};
        printf("%s\n", Dump(failure).c_str());
    }
    return StatusOf(errnum);
}

int LocalError(const Options& options, const std::string& message) {
    fprintf(stderr, "teza-call: %s\n", message.c_str());
    if (options.json) {
        json failure = {{"status", "failed"}, {"errno", 0}, {"reason", message}};
        printf("%s\n", Dump(failure).c_str());
    }
    return kLocalError;
}

struct ElemFree {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemFree>;

rk_server_t* Open(const Options& options) {
    const std::string host = options.inProcess           ? kInProcessName
                             : !options.unixPath.empty() ? options.unixPath
                                                         : options.host;
    rk_server_t* server = rk_server_open(host.c_str(), options.major, options.minor);
    const teza_tools::Credentials& credentials = options.credentials;
    rk_server_set_style(server, credentials.style);
    rk_server_set_server_type(server, options.type);
    rk_server_set_transport_type(server,
                                 options.inProcess           ? RK_TRANSPORT_IN_PROCESS
                                 : !options.unixPath.empty() ? RK_TRANSPORT_UNIX_SOCKET
                                 : options.tls               ? RK_TRANSPORT_HTTPS
                                                             : RK_TRANSPORT_HTTP,
                                 nullptr);
    rk_server_set_port(server, options.port);
    if (credentials.style == RK_STYLE_LOGIN_PASSWORD || credentials.style == RK_STYLE_TOKEN) {
        rk_server_set_admin_user(server, credentials.login.c_str(), credentials.password.c_str());
    }
    if (!credentials.certFile.empty()) {
        rk_server_set_client_cert(
            server, credentials.certFile.c_str(),
            credentials.keyFile.empty() ? nullptr : credentials.keyFile.c_str(),
            credentials.hasKeyPassphrase ? credentials.keyPassphrase.c_str() : nullptr);
    }
    if (!options.caFile.empty()) {
        rk_server_set_ca_file(server, options.caFile.c_str());
    }
    rk_server_set_timeout(server, options.timeout);
    return server;
}

int List(const Options& options, rk_server_t* server) {
    ElemPtr result(rk_server_invoke(server, kListApi, nullptr));
    if (rk_results_status(result.get()) != 1) {
        if (rk_results_errno(result.get()) == kErrUnknownApi) {
            return LocalError(options, "the server does not describe itself: it does not answer " +
                                           std::string(kListApi));
        }
        return ReportFailure(options, kListApi, result.get());
    }
    struct Row {
        std::string name, input, output;
    };
    std::vector<Row> rows;
    size_t nameWidth = 0;
    size_t inputWidth = 0;
    json apis = json::array();
    rk_iterator_t it = rk_child_iterator(rk_elem_child(result.get(), "apis"));
    while (rk_elem_t* api = rk_iterator_next(&it)) {
        auto text = [&](const char* name) {
            const char* value = rk_child_get_string(api, name);
            return value == nullptr ? std::string() : teza_call::Decoded(value);
        };
        Row row{text("name"), text("input"), text("output")};
        json entry = {
            {"name", row.name}, {"namespace", text("namespace")}, {"family", text("family")}};
        if (!row.input.empty()) {
            entry["input"] = row.input;
        }
        if (!row.output.empty()) {
            entry["output"] = row.output;
        }
        apis.push_back(entry);
        row.input = row.input.empty() ? "-" : row.input;
        row.output = row.output.empty() ? "-" : row.output;
        nameWidth = std::max(nameWidth, row.name.size());
        inputWidth = std::max(inputWidth, row.input.size());
        rows.push_back(row);
    }
    if (options.json) {
        printf("%s\n", Dump(json({{"status", "passed"}, {"apis", apis}})).c_str());
        return kPassed;
    }
    for (const Row& row : rows) {
        printf("%-*s  %-*s -> %s\n", static_cast<int>(nameWidth), row.name.c_str(),
               static_cast<int>(inputWidth), row.input.c_str(), row.output.c_str());
    }
    return kPassed;
}

// Asks the server for the API's description. Returns the exit status of a failure that ends
// teza-call, or -1 with `description` set when there is one, and left empty when the server
// does not describe itself or this API.
int FetchDescription(const Options& options, rk_server_t* server,
                     std::optional<teza_call::ApiDescription>* description) {
    ElemPtr result(rk_server_invoke(server, kDescribeApi, "api", options.api.c_str(), nullptr));
    if (rk_results_status(result.get()) != 1) {
        const int errnum = rk_results_errno(result.get());
        if (errnum == kErrUnknownApi || errnum == kErrNotDescribed) {
            if (options.describe) {
                return LocalError(options, errnum == kErrUnknownApi
                                               ? "the server does not describe itself: it does not "
                                                 "answer " +
                                                     std::string(kDescribeApi)
                                               : "the server does not describe " + options.api);
            }
            return -1;
        }
        // The call could not be made: it fails as the description's call did.
        return ReportFailure(options, options.describe ? kDescribeApi : options.api, result.get());
    }
    description->emplace();
    std::string error;
    if (!(*description)->Read(result.get(), options.api, &error)) {
        return LocalError(options, error);
    }
    return -1;
}

// Reads the JSON object of --input, when there is one. False with the message.
bool ReadInput(const Options& options, std::optional<json>* input, std::string* error) {
    if (options.inputFile.empty()) {
        return true;
    }
    std::string text;
    if (options.inputFile == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(options.inputFile, std::ios::binary);
        if (!in) {
            *error = "cannot read " + options.inputFile;
            return false;
        }
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    *input = json::parse(text, nullptr, false);
    if ((*input)->is_discarded() || !(*input)->is_object()) {
        *error = options.inputFile + " is not a JSON object";
        return false;
    }
    return true;
}

// Adds the --input object and then the arguments to `request`, checked by `description` when
// there is one. False with the message. Safe to call from several threads at once.
bool BuildRequest(const Options& options, const std::optional<json>& input,
                  const teza_call::ApiDescription* description, rk_elem_t* request,
                  std::string* error) {
    if (input) {
        const bool added = description != nullptr
                               ? description->AddJson(*input, request, error)
                               : teza_call::AddUntypedJson(*input, request, "", error);
        if (!added) {
            *error = "--input " + options.inputFile + ": " + *error;
            return false;
        }
    }
    for (const Argument& given : options.arguments) {
        Argument argument = given;
        if (description != nullptr) {
            bool encrypt = false;
            if (!description->CheckArgument(argument.name, argument.value, &encrypt, error)) {
                return false;
            }
            argument.encrypted = argument.encrypted || encrypt;
        }
        if (!AddArgument(request, argument, error)) {
            return false;
        }
    }
    return true;
}

// --hosts: reads the list and the input, sets the TLS files for every handle, then calls
// every host. Returns the exit status.
int CallHosts(const Options& options) {
    std::vector<teza_call::HostEntry> hosts;
    std::string error;
    bool read = false;
    if (options.hostsFile == "-") {
        read = teza_call::ReadHosts(std::cin, "standard input", options.port, &hosts, &error);
    } else {
        std::ifstream in(options.hostsFile);
        if (!in) {
            fprintf(stderr, "teza-call: cannot read %s: %s\n", options.hostsFile.c_str(),
                    strerror(errno));
            return kLocalError;
        }
        read = teza_call::ReadHosts(in, options.hostsFile, options.port, &hosts, &error);
    }
    if (!read) {
        fprintf(stderr, "teza-call: %s\n", error.c_str());
        return kLocalError;
    }
    std::optional<json> input;
    if (!ReadInput(options, &input, &error)) {
        fprintf(stderr, "teza-call: %s\n", error.c_str());
        return kLocalError;
    }
    ElemPtr probe(rk_elem_new(options.api.c_str()));
    if (probe == nullptr) {
        fprintf(stderr, "teza-call: \"%s\" is not an API name\n", options.api.c_str());
        return kLocalError;
    }
    // The runtime opens the handles itself: the TLS files are set for every handle opened.
    const teza_tools::Credentials& credentials = options.credentials;
    if (!options.caFile.empty() && rk_set_default_ca_file(options.caFile.c_str()) == 0) {
        fprintf(stderr, "teza-call: cannot read the CA file %s: %s\n", options.caFile.c_str(),
                strerror(errno));
        return kLocalError;
    }
    if (!credentials.certFile.empty() &&
        rk_set_default_client_cert(
            credentials.certFile.c_str(),
            credentials.keyFile.empty() ? nullptr : credentials.keyFile.c_str(),
            credentials.hasKeyPassphrase ? credentials.keyPassphrase.c_str() : nullptr) == 0) {
        fprintf(stderr, "teza-call: cannot use the client certificate %s\n",
                credentials.certFile.c_str());
        return kLocalError;
    }
    teza_call::HostsCall call;
    call.api = options.api;
    call.major = options.major;
    call.minor = options.minor;
    call.style = credentials.style;
    call.serverType = options.type;
    call.tls = options.tls;
    if (credentials.style == RK_STYLE_LOGIN_PASSWORD || credentials.style == RK_STYLE_TOKEN) {
        call.login = credentials.login;
        call.password = credentials.password;
    }
    call.timeout = options.timeout;
    call.parallel = options.parallel != 0 ? static_cast<size_t>(options.parallel) : 32;
    call.deadline = options.deadline;
    call.checked = !options.unchecked;
    call.json = options.json;
    call.build = [&options, &input](const teza_call::ApiDescription* description,
                                    rk_elem_t* request, std::string* message) {
        return BuildRequest(options, input, description, request, message);
    };
    return teza_call::CallHosts(hosts, call, stdout);
}

int Call(const Options& options, rk_server_t* server) {
    if (options.list) {
        return List(options, server);
    }
    std::optional<teza_call::ApiDescription> description;
    if (!options.unchecked || options.describe) {
        const int status = FetchDescription(options, server, &description);
        if (status >= 0) {
            return status;
        }
    }
    if (options.describe) {
        fputs((options.schemaFormat ? description->Schema() : description->Tree()).c_str(), stdout);
        return kPassed;
    }

    ElemPtr request(rk_elem_new(options.api.c_str()));
    if (request == nullptr) {
        return LocalError(options, "\"" + options.api + "\" is not an API name");
    }
    std::string error;
    std::optional<json> input;
    if (!ReadInput(options, &input, &error) ||
        !BuildRequest(options, input, description ? &*description : nullptr, request.get(),
                      &error)) {
        return LocalError(options, error);
    }

    ElemPtr result(rk_server_invoke_elem(server, request.get()));
    if (rk_results_status(result.get()) != 1) {
        return ReportFailure(options, options.api, result.get());
    }
    if (options.json) {
        json output = description ? description->ResultJson(result.get(), stderr)
                                  : teza_call::UntypedJson(result.get());
        printf("%s\n", Dump(json({{"status", "passed"}, {"result", output}})).c_str());
        return kPassed;
    }
    char* text = rk_elem_sprintf(result.get());
    fputs(text != nullptr ? text : "", stdout);
    if (text != nullptr && text[0] != '\0' && text[strlen(text) - 1] != '\n') {
        fputc('\n', stdout);
    }
    rk_free(text);
    return kPassed;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (int status = ParseOptions(argc, argv, &options)) {
        return status;
    }
    char error[256] = "";
    if (rk_startup(error, sizeof error) == 0) {
        fprintf(stderr, "teza-call: the client library did not start: %s\n", error);
        return kLocalError;
    }
    int status = kLocalError;
    std::string key;
    bool keyRead = true;
    if (!options.keyFile.empty()) {
        std::ifstream in(options.keyFile);
        keyRead = static_cast<bool>(std::getline(in, key)) && !key.empty();
        if (!key.empty() && key.back() == '\r') {
            key.pop_back();
        }
        keyRead = keyRead && !key.empty();
        if (!keyRead) {
            fprintf(stderr, "teza-call: cannot read a key from the first line of %s\n",
                    options.keyFile.c_str());
        } else {
            rk_set_default_key(key.c_str());
        }
    }
    if (keyRead) {
        // Declared in this order so that the server is unregistered before the core goes.
        std::unique_ptr<tezad::ServiceCore> core;
        tezad::DemoService service;
        std::unique_ptr<tezad::InProcessServer> inProcess;
        if (options.inProcess) {
            tezad::CoreOptions coreOptions;
            coreOptions.major = 1;
            coreOptions.minor = 30;
            coreOptions.users["admin"] = "secret";
            coreOptions.tokens.insert("secret");
            core.reset(new tezad::ServiceCore(coreOptions));
            service.Install(core.get());
            inProcess.reset(new tezad::InProcessServer(kInProcessName, core.get()));
        }
        if (!options.hostsFile.empty()) {
            status = CallHosts(options);
        } else {
            rk_server_t* server = Open(options);
            status = Call(options, server);
            rk_server_close(server);
        }
    }
    rk_shutdown();
    return status;
}
