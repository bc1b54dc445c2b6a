// teza-call: sends one API call to a TEZA server through librk and prints the result tree, or
// the failure with its reason and error number (exit status 1). Usage errors exit with 2.
//
//   teza-call --host H --port P [--tls [--ca FILE]] [credentials] API [name=value...]
//   teza-call --in-process API [name=value...]     (tezad's demo service inside this process)
//
// Credentials (credentials.h) come from files, the environment or a prompt; the secrets are
// never printed.
//
// A name may be a path: "address/city=London" adds <address><city>London</city></address>,
// reusing an <address> added before; "tags/tag=a tags/tag=b" gives a list. --secret
// NAME=VALUE adds an encrypted value.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "credentials.h"
#include "demo_service.h"
#include "inprocess_server.h"
#include "rk.h"
#include "service_core.h"

namespace {

const char kUsageHead[] =
    "usage: teza-call --host HOST --port PORT [--tls [--ca FILE]] [credentials]\n"
    "                 [--api-version M.N] [--type node|cluster|agent|depot] [--timeout S]\n"
    "                 API [NAME=VALUE | --secret NAME=VALUE]...\n"
    "       teza-call --in-process API [NAME=VALUE | --secret NAME=VALUE]...\n"
    "NAME may be a path (address/city=London); --in-process runs tezad's demo service in\n"
    "this process (user admin, password secret; token secret).\n";
const std::string kUsage = std::string(kUsageHead) + teza_tools::kCredentialUsage;

const char kInProcessName[] = "teza-call";

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
    std::string caFile;
    teza_tools::CredentialOptions credentialOptions;
    teza_tools::Credentials credentials;
    int major = 1;
    int minor = 21;
    int type = RK_SERVER_TYPE_NODE;
    int timeout = 60;
    std::string api;
    std::vector<Argument> arguments;
};

int Usage(const char* problem, const std::string& detail) {
    fprintf(stderr, "teza-call: %s%s\n%s", problem, detail.c_str(), kUsage.c_str());
    return 2;
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
        } else {
            return Usage("unknown option: ", arg);
        }
    }
    if (i >= argc) {
        return Usage("no API named", "");
    }
    options->api = argv[i++];
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
    if (options->inProcess) {
        if (!options->host.empty() || options->tls) {
            return Usage("--in-process excludes --host and --tls", "");
        }
    } else if (options->host.empty() || options->port == 0) {
        return Usage("--host and --port are needed (or --in-process)", "");
    }
    std::string error;
    if (!teza_tools::ResolveCredentials(
            options->credentialOptions, options->inProcess ? "admin" : nullptr,
            options->inProcess ? "secret" : nullptr, &options->credentials, &error)) {
        fprintf(stderr, "teza-call: %s\n", error.c_str());
        return 2;
    }
    return 0;
}

// Adds one argument under `request`: the path's inner names reuse the last child of that name.
bool AddArgument(rk_elem_t* request, const Argument& argument) {
    rk_elem_t* parent = request;
    std::string path = argument.name;
    size_t slash;
    while ((slash = path.find('/')) != std::string::npos) {
        const std::string name = path.substr(0, slash);
        path = path.substr(slash + 1);
        rk_elem_t* child = nullptr;
        rk_iterator_t it = rk_child_iterator(parent);
        while (rk_elem_t* c = rk_iterator_next(&it)) {
            if (name == rk_elem_get_name(c)) {
                child = c;
            }
        }
        if (child == nullptr) {
            child = rk_child_add(parent, rk_elem_new(name.c_str()));
        }
        if (child == nullptr) {
            return false;
        }
        parent = child;
    }
    rk_elem_t* added =
        argument.encrypted
            ? rk_child_add_string_encrypted(parent, path.c_str(), argument.value.c_str(), nullptr)
            : rk_child_add_string(parent, path.c_str(), argument.value.c_str());
    return added != nullptr;
}

// Reasons travel as XML text, entity references included; they are shown decoded.
std::string Decoded(const std::string& text) {
    static const struct {
        const char* entity;
        char c;
    } kEntities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
    std::string out;
    for (size_t i = 0; i < text.size();) {
        bool replaced = false;
        for (const auto& e : kEntities) {
            const size_t n = strlen(e.entity);
            if (text.compare(i, n, e.entity) == 0) {
                out += e.c;
                i += n;
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            out += text[i++];
        }
    }
    return out;
}

int Call(const Options& options) {
    const std::string host = options.inProcess ? kInProcessName : options.host;
    rk_server_t* server = rk_server_open(host.c_str(), options.major, options.minor);
    const teza_tools::Credentials& credentials = options.credentials;
    rk_server_set_style(server, credentials.style);
    rk_server_set_server_type(server, options.type);
    rk_server_set_transport_type(server,
                                 options.inProcess ? RK_TRANSPORT_IN_PROCESS
                                 : options.tls     ? RK_TRANSPORT_HTTPS
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

    rk_elem_t* request = rk_elem_new(options.api.c_str());
    bool built = request != nullptr;
    for (size_t i = 0; built && i < options.arguments.size(); ++i) {
        built = AddArgument(request, options.arguments[i]);
    }
    int status = 1;
    if (!built) {
        fprintf(stderr, "teza-call: cannot build the request (invalid element name?)\n");
        status = 2;
    } else {
        rk_elem_t* result = rk_server_invoke_elem(server, request);
        if (rk_results_status(result) == 1) {
            char* text = rk_elem_sprintf(result);
            fputs(text != nullptr ? text : "", stdout);
            if (text != nullptr && text[0] != '\0' && text[strlen(text) - 1] != '\n') {
                fputc('\n', stdout);
            }
            rk_free(text);
            status = 0;
        } else {
            const char* reason = rk_results_reason(result);
            fprintf(stderr, "teza-call: %s failed: error %d: %s\n", options.api.c_str(),
                    rk_results_errno(result), Decoded(reason != nullptr ? reason : "").c_str());
        }
        rk_elem_free(result);
    }
    rk_elem_free(request);
    rk_server_close(server);
    return status;
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
        return 1;
    }
    int status;
    {
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
        status = Call(options);
    }
    rk_shutdown();
    return status;
}
