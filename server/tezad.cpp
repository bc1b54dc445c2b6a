// tezad: the TEZA server for development, tests and demonstrations. See docs/tezad.md.

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "bench_service.h"
#include "demo_service.h"
#include "http_front_end.h"
#include "service_core.h"

namespace {

const char kUsage[] =
    "usage: tezad [options]\n"
    "  --listen ADDRESS        address to listen on (default 127.0.0.1)\n"
    "  --port N                port (default 0: a free port, printed at start)\n"
    "  --unix PATH             listen on a Unix socket instead of a port\n"
    "  --tls-cert FILE         serve HTTPS with this certificate (PEM) ...\n"
    "  --tls-key FILE          ... and this private key (PEM)\n"
    "  --client-ca FILE        require client certificates signed by these CAs (PEM)\n"
    "  --cert-user CN          accept a verified client certificate whose subject CN is this\n"
    "                          (repeatable; needs --client-ca)\n"
    "  --user LOGIN:PASSWORD   accept this user (repeatable); without users, tokens or\n"
    "                          certificate users, calls need no credentials\n"
    "  --users-file FILE       accept the users of FILE, one LOGIN:PASSWORD a line\n"
    "  --token TOKEN           accept this bearer token (repeatable)\n"
    "  --tokens-file FILE      accept the bearer tokens of FILE, one a line\n"
    "  --type TYPE             node, cluster, agent or depot, or 1 to 4 (default node)\n"
    "  --api-version M.N       serve API versions M.0 to M.N (default 1.30)\n"
    "  --key TEXT              key of encrypted values (default: the client library's)\n"
    "  --script FILE           scripted answers and faults (docs/tezad.md)\n"
    "  --describe FILE         publish the APIs of this description (teza-gen --describe-out)\n"
    "                          in system-api-list and system-api-describe (repeatable)\n"
    "  --no-demo               do not serve the demo APIs\n"
    "  --bench                 serve the benchmarks' APIs (bench-call, bench-volumes)\n"
    "  --threads N             connections served at once (default 8)\n"
    "  --keep-alive SECONDS    close idle connections after this long (default 30)\n"
    "  --gzip-above BYTES      gzip answers longer than this for clients that accept it\n"
    "                          (default 4096; 0: never)\n"
    "  --verbose               log every closed connection\n";

int Fail(const std::string& message) {
    fprintf(stderr, "tezad: %s\n", message.c_str());
    return 2;
}

bool ParseInt(const char* text, int min, int max, int* out) {
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value < min || value > max) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

bool AddUser(const std::string& pair, tezad::CoreOptions* core) {
    size_t colon = pair.find(':');
    if (colon == 0 || colon == std::string::npos) {
        return false;
    }
    core->users[pair.substr(0, colon)] = pair.substr(colon + 1);
    return true;
}

bool ParseType(const std::string& text, int* type) {
    const char* names[] = {"node", "cluster", "agent", "depot"};
    for (int i = 0; i < 4; ++i) {
        if (text == names[i]) {
            *type = i + 1;
            return true;
        }
    }
    return ParseInt(text.c_str(), 1, 4, type);
}

}  // namespace

int main(int argc, char** argv) {
    tezad::CoreOptions core;
    core.minor = 30;
    tezad::HttpOptions http;
    std::string scriptPath;
    std::vector<std::string> describePaths;
    bool demo = true;
    bool bench = false;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) {
                return nullptr;
            }
            return argv[++i];
        };
        const char* v = nullptr;
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--no-demo") {
            demo = false;
        } else if (arg == "--bench") {
            bench = true;
        } else if (arg == "--verbose") {
            http.verbose = true;
        } else if ((v = value()) == nullptr) {
            return Fail("unknown option or missing value: " + arg + "\n" + kUsage);
        } else if (arg == "--listen") {
            http.address = v;
        } else if (arg == "--port") {
            if (!ParseInt(v, 0, 65535, &http.port)) {
                return Fail(std::string("bad port: ") + v);
            }
        } else if (arg == "--unix") {
            http.unixPath = v;
        } else if (arg == "--tls-cert") {
            http.certFile = v;
        } else if (arg == "--tls-key") {
            http.keyFile = v;
        } else if (arg == "--client-ca") {
            http.clientCaFile = v;
        } else if (arg == "--user") {
            if (!AddUser(v, &core)) {
                return Fail("--user needs LOGIN:PASSWORD");
            }
        } else if (arg == "--users-file") {
            std::ifstream in(v);
            if (!in) {
                return Fail(std::string("cannot read ") + v);
            }
            std::string line;
            while (std::getline(in, line)) {
                if (!line.empty() && line[0] != '#' && !AddUser(line, &core)) {
                    return Fail(std::string(v) + ": a line is not LOGIN:PASSWORD");
                }
            }
        } else if (arg == "--cert-user") {
            if (*v == '\0') {
                return Fail("--cert-user needs a common name");
            }
            core.certUsers.insert(v);
        } else if (arg == "--token") {
            if (*v == '\0') {
                return Fail("--token needs a token");
            }
            core.tokens.insert(v);
        } else if (arg == "--tokens-file") {
            std::ifstream in(v);
            if (!in) {
                return Fail(std::string("cannot read ") + v);
            }
            std::string line;
            while (std::getline(in, line)) {
                while (!line.empty() &&
                       (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
                    line.pop_back();
                }
                if (!line.empty() && line[0] != '#') {
                    core.tokens.insert(line);
                }
            }
        } else if (arg == "--type") {
            if (!ParseType(v, &core.serverType)) {
                return Fail(std::string("bad server type: ") + v);
            }
        } else if (arg == "--api-version") {
            if (sscanf(v, "%d.%d", &core.major, &core.minor) != 2 || core.minor < 0) {
                return Fail(std::string("bad API version: ") + v);
            }
        } else if (arg == "--key") {
            rk_set_default_key(v);
        } else if (arg == "--script") {
            scriptPath = v;
        } else if (arg == "--describe") {
            describePaths.push_back(v);
        } else if (arg == "--threads") {
            if (!ParseInt(v, 1, 1024, &http.threads)) {
                return Fail(std::string("bad thread count: ") + v);
            }
        } else if (arg == "--gzip-above") {
            int bytes = 0;
            if (!ParseInt(v, 0, 1 << 30, &bytes)) {
                return Fail(std::string("bad gzip threshold: ") + v);
            }
            http.gzipAboveBytes = static_cast<size_t>(bytes);
        } else if (arg == "--keep-alive") {
            if (!ParseInt(v, 1, 86400, &http.keepAliveSeconds)) {
                return Fail(std::string("bad keep-alive: ") + v);
            }
        } else {
            return Fail("unknown option: " + arg + "\n" + kUsage);
        }
    }
    if (http.certFile.empty() != http.keyFile.empty()) {
        return Fail("--tls-cert and --tls-key go together");
    }
    if (!http.clientCaFile.empty() && http.certFile.empty()) {
        return Fail("--client-ca needs --tls-cert and --tls-key");
    }
    if (!core.certUsers.empty() && http.clientCaFile.empty()) {
        return Fail("--cert-user needs --client-ca: certificates are verified against it");
    }

    // Stop signals are taken by sigwait below; every thread started from here inherits the
    // blocked mask. A peer closing its end must never end the server.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    tezad::ServiceCore service(core);
    tezad::DemoService demoService;
    if (demo) {
        demoService.Install(&service);
    }
    if (bench) {
        tezad::BenchService::Install(&service);
    }
    for (const std::string& path : describePaths) {
        std::ifstream in(path, std::ios::binary);
        std::string xml((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!in.good() && !in.eof()) {
            return Fail("cannot read " + path);
        }
        if (!in.is_open()) {
            return Fail("cannot read " + path);
        }
        std::string error;
        if (!service.AddDescription(xml, path, &error)) {
            return Fail(error);
        }
    }
    if (!scriptPath.empty()) {
        std::string error;
        std::unique_ptr<tezad::Script> script = tezad::Script::Load(scriptPath, &error);
        if (script == nullptr) {
            return Fail(error);
        }
        service.SetScript(std::move(script));
    }
    if (!core.NeedsCredentials()) {
        fprintf(stderr, "tezad: no users configured: calls need no credentials\n");
    }

    tezad::HttpFrontEnd frontEnd(&service, http);
    std::string error;
    if (!frontEnd.Start(&error)) {
        return Fail(error);
    }
    printf("tezad: listening on %s\n", frontEnd.url().c_str());
    fflush(stdout);

    int received = 0;
    sigwait(&stopSignals, &received);
    fprintf(stderr, "tezad: stopping on %s\n", received == SIGINT ? "SIGINT" : "SIGTERM");
    frontEnd.Stop();
    fprintf(stderr, "tezad: %s\n", service.CountersLine().c_str());
    return 0;
}
