// Test support for the client transport and tezad: a tezad front end served from the test's
// own process (service core, demo service, optional script) on a free loopback port, handles
// configured for it, temporary directories and external commands.
#ifndef TEZA_TESTS_TEST_SERVER_H_
#define TEZA_TESTS_TEST_SERVER_H_

#include <memory>
#include <string>

#include "demo_service.h"
#include "http_front_end.h"
#include "rk.h"
#include "service_core.h"

namespace teza_test {

// The credentials and API version the test server expects.
extern const char kLogin[];     // "admin"
extern const char kPassword[];  // "secret"
const int kMajor = 1;
const int kMinor = 21;

struct ServerConfig {
    ServerConfig();
    tezad::CoreOptions core;  // users admin:secret, version 1.0 to 1.21, a node
    tezad::HttpOptions http;  // 127.0.0.1, a free port
    std::string script;       // script text, when not empty
    bool demo = true;
    bool bench = false;  // the benchmarks' APIs (bench-call, bench-volumes)
};

// Starts at construction (a failure fails the test), stops at destruction.
class TestServer {
  public:
    explicit TestServer(ServerConfig config = ServerConfig());
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    bool started() const { return _started; }
    int port() const { return _frontEnd->port(); }
    std::string url() const { return _frontEnd->url(); }
    tezad::ServiceCore& core() { return *_core; }
    void Stop() { _frontEnd->Stop(); }

  private:
    std::unique_ptr<tezad::ServiceCore> _core;
    tezad::DemoService _demo;
    std::unique_ptr<tezad::HttpFrontEnd> _frontEnd;
    bool _started = false;
};

struct ServerCloser {
    void operator()(rk_server_t* server) const { rk_server_close(server); }
};
using ServerPtr = std::unique_ptr<rk_server_t, ServerCloser>;

struct ElemCloser {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemCloser>;

// A handle for the test server's API version and credentials, with a 10 s time-out.
ServerPtr OpenHandle(const std::string& host, int port, int transport = RK_TRANSPORT_HTTP);

// What a result says.
struct Outcome {
    int status = -1;
    std::string reason;  // as rk_results_reason gives it; "(null)" when absent
    int errnum = 0;
};
Outcome Read(rk_elem_t* result);
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

// Calls without arguments and reads the result.
Outcome Call(rk_server_t* server, const char* api);

// A TCP port on 127.0.0.1 that refuses every connection while the object lives: a socket is
// bound to it, so no other program can take it, and never listens.
class RefusingPort {
  public:
    RefusingPort();
    ~RefusingPort();
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    int port() const { return _port; }

  private:
    int _fd = -1;
    int _port = 0;
};

// A directory removed with its contents at destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return _path; }
    std::string File(const std::string& name) const { return _path + "/" + name; }
    // Writes `text` into the file `name` and returns its path.
    std::string Write(const std::string& name, const std::string& text) const;

  private:
    std::string _path;
};

// Runs `command` with /bin/sh; returns its exit status (-1 if it did not exit) and, when
// `output` is not null, what it wrote on standard output.
int RunCommand(const std::string& command, std::string* output = nullptr);

// Reads a whole file.
std::string ReadFile(const std::string& path);

// A self-signed certificate and its key, made with the openssl command: `dir`/<name>.pem and
// `dir`/<name>.key, valid for the given subjectAltName (e.g. "IP:127.0.0.1,DNS:localhost").
bool MakeCertificate(const TempDir& dir, const std::string& name, const std::string& altNames);

// A certificate authority, made with the openssl command: `dir`/<name>.pem and <name>.key.
bool MakeCa(const TempDir& dir, const std::string& name);

// A certificate for the subject CN `commonName`, signed by the CA `ca` of MakeCa:
// `dir`/<name>.pem and <name>.key. `altNames` (e.g. "IP:127.0.0.1") may be empty. It is valid
// for `days`; -1 makes one that has already expired. A non-empty `passphrase` encrypts the key.
bool MakeSignedCertificate(const TempDir& dir, const std::string& ca, const std::string& name,
                           const std::string& commonName, const std::string& altNames, int days = 2,
                           const std::string& passphrase = "");

}  // namespace teza_test

#endif  // TEZA_TESTS_TEST_SERVER_H_
