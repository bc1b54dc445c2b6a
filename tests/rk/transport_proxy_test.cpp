// Proxies named in the environment: used for other hosts as libcurl uses them, skipped for the
// hosts that no_proxy names, and never used for loopback hosts or Unix sockets. The fake proxy
// is a server on 127.0.0.1 that records the requests it gets and answers a passed result.
// Each test sets the variables it needs and puts the environment back when it ends; nothing
// else in these tests reads the environment meanwhile.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "hostile_server.h"
#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

const char* const kProxyVariables[] = {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                                       "all_proxy",  "ALL_PROXY",  "no_proxy",    "NO_PROXY"};

// Clears every proxy variable for the test's lifetime, then restores what was there.
class ProxyEnvironment {
  public:
    ProxyEnvironment() {
        for (const char* name : kProxyVariables) {
            if (const char* value = getenv(name)) {
                _saved[name] = value;
            }
            unsetenv(name);
        }
    }
    ~ProxyEnvironment() {
        for (const char* name : kProxyVariables) {
            unsetenv(name);
        }
        for (const auto& [name, value] : _saved) {
            setenv(name.c_str(), value.c_str(), 1);
        }
    }
    void Set(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

  private:
    std::map<std::string, std::string> _saved;
};

// A forward proxy that answers every request itself.
class FakeProxy {
  public:
    FakeProxy()
        : _server([this](HostileServer::Peer& peer) {
              while (peer.ReadRequest()) {
                  {
                      std::lock_guard<std::mutex> lock(_mutex);
                      _requests.push_back(peer.request());
                  }
                  if (!peer.Write(PassedAnswer())) {
                      return;
                  }
              }
          }) {}

    std::string url() const { return "http://127.0.0.1:" + std::to_string(_server.port()); }
    int connections() const { return _server.connections(); }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _requests;
    }

  private:
    std::mutex _mutex;
    std::vector<std::string> _requests;
    HostileServer _server;  // last: it stops before what its behaviour uses goes
};

class Proxies : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_NE(rk_startup(nullptr, 0), 0); }

    ProxyEnvironment _environment;
    FakeProxy _proxy;
};

TEST_F(Proxies, HttpProxyCarriesCallsToOtherHostsWithTheirCredentials) {
    _environment.Set("http_proxy", _proxy.url());
    ServerPtr h = OpenHandle("teza-target.invalid", 8080);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.status, 1) << outcome;
    std::vector<std::string> requests = _proxy.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].rfind("POST http://teza-target.invalid:8080/teza HTTP/1.1\r\n", 0), 0u)
        << requests[0];
    // admin:secret
    EXPECT_NE(requests[0].find("Authorization: Basic YWRtaW46c2VjcmV0\r\n"), std::string::npos);
}

TEST_F(Proxies, AllProxyServesWhenNoProxyForTheSchemeIsSet) {
    _environment.Set("ALL_PROXY", _proxy.url());
    ServerPtr h = OpenHandle("teza-target.invalid", 8080);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(_proxy.requests().size(), 1u);
}

TEST_F(Proxies, UpperCaseHttpProxyIsIgnored) {
    _environment.Set("HTTP_PROXY", _proxy.url());
    ServerPtr h = OpenHandle("teza-target.invalid", 8080);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_RESOLVE);
    EXPECT_EQ(_proxy.connections(), 0);
}

TEST_F(Proxies, HttpsGoesThroughTheProxyInATunnel) {
    _environment.Set("https_proxy", _proxy.url());
    ServerPtr h = OpenHandle("teza-target.invalid", 8443, RK_TRANSPORT_HTTPS);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    // The fake proxy answers the tunnel's request with a result instead of opening the tunnel.
    EXPECT_EQ(outcome.status, 0) << outcome;
    std::vector<std::string> requests = _proxy.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].rfind("CONNECT teza-target.invalid:8443 HTTP/1.1\r\n", 0), 0u)
        << requests[0];
    // The credentials travel inside the tunnel only.
    EXPECT_EQ(requests[0].find("Authorization"), std::string::npos) << requests[0];
}

TEST_F(Proxies, NoProxyNamingTheHostGoesDirect) {
    _environment.Set("http_proxy", _proxy.url());
    for (const char* variable : {"NO_PROXY", "no_proxy"}) {
        for (const char* value : {"teza-target.invalid", "example.org,.invalid", "*"}) {
            ProxyEnvironment inner;
            inner.Set("http_proxy", _proxy.url());
            inner.Set(variable, value);
            ServerPtr h = OpenHandle("teza-target.invalid", 8080);
            EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_RESOLVE)
                << variable << "=" << value;
        }
    }
    EXPECT_EQ(_proxy.connections(), 0);
}

TEST_F(Proxies, LoopbackHostsNeverGoThroughTheProxy) {
    _environment.Set("http_proxy", _proxy.url());
    _environment.Set("all_proxy", _proxy.url());
    TestServer server;
    for (const char* host : {"127.0.0.1", "localhost", "LOCALHOST"}) {
        ServerPtr h = OpenHandle(host, server.port());
        Outcome outcome = Call(h.get(), "system-get-corvi-version");
        EXPECT_EQ(outcome.status, 1) << host << ": " << outcome;
    }
    // Nothing listens on ::1 or 127.0.0.2 at that port: a direct call is refused, where the
    // proxy would have answered.
    RefusingPort refusing;
    for (const char* host : {"::1", "[::1]", "127.0.0.2"}) {
        ServerPtr h = OpenHandle(host, refusing.port());
        EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_REFUSED) << host;
    }
    EXPECT_EQ(_proxy.connections(), 0);
}

TEST_F(Proxies, UnixSocketsNeverGoThroughTheProxy) {
    _environment.Set("http_proxy", _proxy.url());
    _environment.Set("all_proxy", _proxy.url());
    TempDir dir;
    ServerConfig config;
    config.http.unixPath = dir.File("tezad.sock");
    TestServer server(config);
    ServerPtr h = OpenHandle(config.http.unixPath, 0, RK_TRANSPORT_UNIX_SOCKET);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(_proxy.connections(), 0);
}

}  // namespace
}  // namespace teza_test
