#include "test_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>

#include "bench_service.h"

namespace teza_test {

const char kLogin[] = "admin";
const char kPassword[] = "secret";

ServerConfig::ServerConfig() {
    core.major = kMajor;
    core.minor = kMinor;
    core.serverType = RK_SERVER_TYPE_NODE;
    core.users[kLogin] = kPassword;
    http.threads = 4;
}

TestServer::TestServer(ServerConfig config)
    : _core(std::make_unique<tezad::ServiceCore>(config.core)) {
    if (config.demo) {
        _demo.Install(_core.get());
    }
    if (config.bench) {
        tezad::BenchService::Install(_core.get());
    }
    if (!config.script.empty()) {
        std::string error;
        std::unique_ptr<tezad::Script> script = tezad::Script::Parse(config.script, "test", &error);
        EXPECT_NE(script, nullptr) << error;
        _core->SetScript(std::move(script));
    }
    _frontEnd = std::make_unique<tezad::HttpFrontEnd>(_core.get(), config.http);
    std::string error;
    _started = _frontEnd->Start(&error);
    EXPECT_TRUE(_started) << error;
}

TestServer::~TestServer() {
    _frontEnd.reset();
}

ServerPtr OpenHandle(const std::string& host, int port, int transport) {
    ServerPtr server(rk_server_open(host.c_str(), kMajor, kMinor));
    rk_server_set_style(server.get(), RK_STYLE_LOGIN_PASSWORD);
    rk_server_set_server_type(server.get(), RK_SERVER_TYPE_NODE);
    rk_server_set_transport_type(server.get(), transport, nullptr);
    rk_server_set_port(server.get(), port);
    rk_server_set_admin_user(server.get(), kLogin, kPassword);
    rk_server_set_timeout(server.get(), 10);
    return server;
}

Outcome Read(rk_elem_t* result) {
    Outcome outcome;
    if (result == nullptr) {
        outcome.reason = "(no result element)";
        return outcome;
    }
    outcome.status = rk_results_status(result);
    const char* reason = rk_results_reason(result);
    outcome.reason = reason == nullptr ? "(null)" : reason;
    outcome.errnum = rk_results_errno(result);
    return outcome;
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << "status " << outcome.status << ", errno " << outcome.errnum << ", reason '"
               << outcome.reason << "'";
}

Outcome Call(rk_server_t* server, const char* api) {
    ElemPtr result(rk_server_invoke(server, api, nullptr));
    return Read(result.get());
}

RefusingPort::RefusingPort() {
    _fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (_fd >= 0 && bind(_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        _port = ntohs(address.sin_port);
    }
    EXPECT_GT(_port, 0) << "cannot bind a port on 127.0.0.1";
}

RefusingPort::~RefusingPort() {
    if (_fd >= 0) {
        close(_fd);
    }
}

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/teza-test-XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr) {
        _path = pattern;
    }
    EXPECT_FALSE(_path.empty()) << "cannot make a temporary directory";
}

TempDir::~TempDir() {
    if (!_path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
}

std::string TempDir::Write(const std::string& name, const std::string& text) const {
    std::string path = File(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

int RunCommand(const std::string& command, std::string* output) {
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        text.append(buffer, n);
    }
    int status = pclose(pipe);
    if (output != nullptr) {
        *output = text;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool MakeCertificate(const TempDir& dir, const std::string& name, const std::string& altNames) {
    // A throw-away P-256 key: quick to make, and it never leaves the temporary directory.
    std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
        "-nodes -days 2 -subj '/CN=tezad test " +
        name + "' -addext 'subjectAltName=" + altNames + "' -keyout '" + dir.File(name + ".key") +
        "' -out '" + dir.File(name + ".pem") + "' 2>&1";
    std::string output;
    int status = RunCommand(command, &output);
    EXPECT_EQ(status, 0) << command << "\n" << output;
    return status == 0;
}

}  // namespace teza_test

namespace teza_test {

namespace {

bool RunOpenssl(const std::string& command) {
    std::string output;
    int status = RunCommand(command + " 2>&1", &output);
    EXPECT_EQ(status, 0) << command << "\n" << output;
    return status == 0;
}

}  // namespace

bool MakeCa(const TempDir& dir, const std::string& name) {
    return RunOpenssl(
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
        "-subj '/CN=tezad test CA " +
        name + "' -keyout '" + dir.File(name + ".key") + "' -out '" + dir.File(name + ".pem") +
        "'");
}

bool MakeSignedCertificate(const TempDir& dir, const std::string& ca, const std::string& name,
                           const std::string& commonName, const std::string& altNames, int days,
                           const std::string& passphrase) {
    const std::string key = dir.File(name + ".key");
    const std::string request = dir.File(name + ".csr");
    std::string extensions = "basicConstraints=CA:FALSE\n";
    if (!altNames.empty()) {
        extensions += "subjectAltName=" + altNames + "\n";
    }
    const std::string extFile = dir.Write(name + ".ext", extensions);
    bool made =
        RunOpenssl(
            "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
            "-subj '/CN=" +
            commonName + "' -keyout '" + key + "' -out '" + request + "'") &&
        // A negative number of days gives a certificate that ended before it began: expired.
        RunOpenssl("openssl x509 -req -in '" + request + "' -CA '" + dir.File(ca + ".pem") +
                   "' -CAkey '" + dir.File(ca + ".key") + "' -CAcreateserial -days " +
                   std::to_string(days) + " -extfile '" + extFile + "' -out '" +
                   dir.File(name + ".pem") + "'");
    if (made && !passphrase.empty()) {
        made = RunOpenssl("openssl pkey -in '" + key + "' -aes256 -passout 'pass:" + passphrase +
                          "' -out '" + key + ".enc' && mv '" + key + ".enc' '" + key + "'");
    }
    return made;
}

}  // namespace teza_test
