// TezaFanOut over the real client library: test servers in this process on distinct loopback
// addresses (so that the connection cache, which matches by host and version, never hands one
// server's handle to another), a port that refuses connections, a quarantined server and a
// server that never answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TezaFanOut.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "elements.h"
#include "fleet.h"
#include "hostile_server.h"
#include "rk.h"
#include "runtime_session.h"
#include "test_server.h"

namespace {

using teza_test::kLogin;
using teza_test::kMajor;
using teza_test::kMinor;
using teza_test::kPassword;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What the servers of one test saw: calls in progress at once, and calls answered.
struct Load {
    std::atomic<int> inFlight{0};
    std::atomic<int> maxInFlight{0};
    std::atomic<int> calls{0};
};

// A test server on `address` whose "fleet-probe" answers with the node it was sent, after
// `delay`, counting the calls in progress in `load`.
std::unique_ptr<teza_test::TestServer> FleetServer(const std::string& address, Load* load,
                                                   milliseconds delay) {
    teza_test::ServerConfig config;
    config.http.address = address;
    config.http.threads = 64;  // the server is never the bound under test
    auto server = std::make_unique<teza_test::TestServer>(config);
    server->core().AddApi("fleet-probe", [load, delay](const tezad::Args& args) {
        const int now = load->inFlight.fetch_add(1) + 1;
        int seen = load->maxInFlight.load();
        while (now > seen && !load->maxInFlight.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::sleep_for(delay);
        std::string node = args.Required("node", 15002);
        load->calls.fetch_add(1);
        load->inFlight.fetch_sub(1);
        tezad::ElemPtr result = tezad::NewPassed();
        rk_child_add_string(result.get(), "node", node.c_str());
        return result;
    });
    return server;
}

TezaServerConnection Descriptor(const std::string& host, int port, int timeout = 10) {
    return TezaServerConnection(host, kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                                TezaServerConnection::TRANSPORT_HTTP, port,
                                TezaServerConnection::SERVER_TYPE_NODE, timeout,
                                static_cast<unsigned>(timeout), kLogin, kPassword, 10);
}

// Sends "fleet-probe" with node "n<index>" and keeps the node each server answered with.
struct Prober {
    explicit Prober(size_t count) : answers(count) {}

    TezaStatus operator()(fleet::FleetInterface& api, size_t index) {
        fleet::ProbeRequest request;
        request.setNode("n" + std::to_string(index));
        fleet::ProbeReply reply;
        TezaStatus status = api.fleetProbe(request, reply);
        if (status.status == TezaStatus::Success) {
            reply.getNode(answers[index]);  // one slot per index: no two workers share one
        }
        return status;
    }

    std::vector<std::string> answers;
};

std::vector<TezaStatus> Probe(const std::vector<TezaServerConnection>& servers, Prober& prober,
                              const TezaFanOut::Options& options) {
    return TezaFanOut::forEach<fleet::FleetInterface>(
        servers, [&prober](fleet::FleetInterface& api, size_t index) { return prober(api, index); },
        options);
}

class FanOutTest : public RuntimeSession {};

TEST_F(FanOutTest, ResultsFollowTheListWithRefusedServersAmongGoodOnes) {
    Load load;
    auto a = FleetServer("127.0.0.2", &load, milliseconds(0));
    auto b = FleetServer("127.0.0.3", &load, milliseconds(5));
    teza_test::RefusingPort refused;  // on 127.0.0.1
    std::vector<TezaServerConnection> servers;
    for (int i = 0; i < 30; ++i) {
        if (i % 3 == 0) {
            servers.push_back(Descriptor("127.0.0.2", a->port()));
        } else if (i % 3 == 1) {
            servers.push_back(Descriptor("127.0.0.3", b->port()));
        } else {
            servers.push_back(Descriptor("127.0.0.1", refused.port()));
        }
    }
    Prober prober(servers.size());
    TezaFanOut::Options options;
    options.parallel = 4;
    std::vector<TezaStatus> results = Probe(servers, prober, options);

    ASSERT_EQ(results.size(), servers.size());
    for (size_t i = 0; i < servers.size(); ++i) {
        if (i % 3 == 2) {
            EXPECT_EQ(results[i].status, TezaStatus::ConnectionFailed) << i;
            EXPECT_EQ(results[i].errnum, 13055) << i << ": " << results[i].reason;
            EXPECT_EQ(prober.answers[i], "") << i;
        } else {
            EXPECT_EQ(results[i].status, TezaStatus::Success) << i << ": " << results[i].reason;
            // The answer of server i carries the node sent to server i.
            EXPECT_EQ(prober.answers[i], "n" + std::to_string(i));
        }
    }
    EXPECT_EQ(load.calls.load(), 20);
}

TEST_F(FanOutTest, ServersNeverSeeMoreCallsAtOnceThanAllowed) {
    for (size_t parallel : {1u, 3u, 6u}) {
        Load load;
        auto a = FleetServer("127.0.0.2", &load, milliseconds(15));
        auto b = FleetServer("127.0.0.3", &load, milliseconds(15));
        std::vector<TezaServerConnection> servers;
        for (int i = 0; i < 24; ++i) {
            servers.push_back(i % 2 == 0 ? Descriptor("127.0.0.2", a->port())
                                         : Descriptor("127.0.0.3", b->port()));
        }
        Prober prober(servers.size());
        TezaFanOut::Options options;
        options.parallel = parallel;
        std::vector<TezaStatus> results = Probe(servers, prober, options);
        for (const TezaStatus& status : results) {
            EXPECT_EQ(status.status, TezaStatus::Success) << status.reason;
        }
        EXPECT_EQ(load.calls.load(), 24);
        EXPECT_LE(load.maxInFlight.load(), static_cast<int>(parallel)) << parallel;
        // With 15 ms per call the workers overlap: calls do run side by side.
        EXPECT_GE(load.maxInFlight.load(), static_cast<int>(std::min<size_t>(parallel, 2)))
            << parallel;
        ForgetCachedConnections();
    }
}

TEST_F(FanOutTest, CallsNotStartedByTheDeadlineAreReportedAsNotRun) {
    Load load;
    auto a = FleetServer("127.0.0.2", &load, milliseconds(100));
    std::vector<TezaServerConnection> servers(10, Descriptor("127.0.0.2", a->port()));
    Prober prober(servers.size());
    TezaFanOut::Options options;
    options.parallel = 2;
    options.deadline = milliseconds(250);
    const Clock::time_point start = Clock::now();
    std::vector<TezaStatus> results = Probe(servers, prober, options);
    const auto elapsed = Clock::now() - start;

    size_t run = 0;
    while (run < results.size() && results[run].status == TezaStatus::Success) {
        ++run;
    }
    // Workers take servers in list order, so those run come first and the rest were not run.
    EXPECT_GE(run, 2u);
    EXPECT_LT(run, results.size());
    for (size_t i = run; i < results.size(); ++i) {
        EXPECT_EQ(results[i].status, TezaStatus::ConnectionFailed) << i;
        EXPECT_EQ(results[i].errnum, TezaFanOut::ERRNUM_NOT_RUN) << i;
        EXPECT_EQ(results[i].reason, "not run: deadline passed");
        EXPECT_EQ(prober.answers[i], "");
    }
    EXPECT_EQ(load.calls.load(), static_cast<int>(run));
    // The calls started before the deadline finish; nothing waits for the ten calls' 500 ms.
    EXPECT_LT(elapsed, milliseconds(250 + 100 + 400));
}

TEST_F(FanOutTest, QuarantinedServerFailsFastAmongGoodOnes) {
    Load load;
    auto a = FleetServer("127.0.0.2", &load, milliseconds(0));
    teza_test::RefusingPort refused;
    TezaServerConnection sick = Descriptor("127.0.0.1", refused.port());
    sick.setUseHealthChecker(true);
    sick.quarantine();
    ASSERT_TRUE(sick.isQuarantined());
    const rk_stats_t before = [] {
        rk_stats_t stats = {};
        rk_get_stats(&stats);
        return stats;
    }();

    std::vector<TezaServerConnection> servers = {Descriptor("127.0.0.2", a->port()), sick,
                                                 Descriptor("127.0.0.2", a->port()), sick};
    Prober prober(servers.size());
    TezaFanOut::Options options;
    options.parallel = 4;
    std::vector<TezaStatus> results = Probe(servers, prober, options);

    EXPECT_EQ(results[0].status, TezaStatus::Success) << results[0].reason;
    EXPECT_EQ(results[2].status, TezaStatus::Success) << results[2].reason;
    for (size_t i : {1u, 3u}) {
        EXPECT_EQ(results[i].status, TezaStatus::ConnectionFailed);
        EXPECT_EQ(results[i].errnum, 14007);
        EXPECT_EQ(results[i].reason, "127.0.0.1 is not healthy");
    }
    rk_stats_t after = {};
    rk_get_stats(&after);
    // Only the good servers were connected to: at most one handle each.
    EXPECT_LE(after.handles_opened - before.handles_opened, 2u);
    sick.unquarantine();
}

TEST_F(FanOutTest, HangingServerTimesOutWhileTheOthersFinish) {
    Load load;
    auto a = FleetServer("127.0.0.2", &load, milliseconds(10));
    // Reads each request and never answers.
    teza_test::HostileServer hang([](teza_test::HostileServer::Peer& peer) {
        while (peer.ReadRequest()) {
        }
        peer.WaitForClose();
    });
    std::vector<TezaServerConnection> servers;
    servers.push_back(Descriptor("127.0.0.1", hang.port(), 1));
    for (int i = 0; i < 12; ++i) {
        servers.push_back(Descriptor("127.0.0.2", a->port()));
    }
    std::mutex mutex;
    std::vector<Clock::duration> finished;  // guarded by mutex
    const Clock::time_point start = Clock::now();
    Prober prober(servers.size());
    TezaFanOut::Options options;
    options.parallel = 3;
    std::vector<TezaStatus> results = TezaFanOut::forEach<fleet::FleetInterface>(
        servers,
        [&](fleet::FleetInterface& api, size_t index) {
            TezaStatus status = prober(api, index);
            std::lock_guard<std::mutex> lock(mutex);
            finished.push_back(Clock::now() - start);
            return status;
        },
        options);
    const auto elapsed = Clock::now() - start;

    EXPECT_EQ(results[0].status, TezaStatus::ConnectionFailed);
    EXPECT_GE(results[0].errnum, 13000);
    EXPECT_LT(results[0].errnum, 14000);
    for (size_t i = 1; i < results.size(); ++i) {
        EXPECT_EQ(results[i].status, TezaStatus::Success) << i << ": " << results[i].reason;
    }
    // The twelve good calls were done long before the hanging one's 1 s time-out.
    std::sort(finished.begin(), finished.end());
    ASSERT_EQ(finished.size(), results.size());
    EXPECT_LT(finished[finished.size() - 2], milliseconds(800));
    EXPECT_GE(elapsed, milliseconds(900));
    EXPECT_LT(elapsed, milliseconds(1000 + 1500));
}

TEST_F(FanOutTest, ProgressCountsEveryServerOnceWithItsFailures) {
    Load load;
    auto a = FleetServer("127.0.0.2", &load, milliseconds(0));
    teza_test::RefusingPort refused;
    std::vector<TezaServerConnection> servers;
    for (int i = 0; i < 9; ++i) {
        servers.push_back(i % 3 == 0 ? Descriptor("127.0.0.1", refused.port())
                                     : Descriptor("127.0.0.2", a->port()));
    }
    std::vector<std::vector<size_t>> reports;
    Prober prober(servers.size());
    TezaFanOut::Options options;
    options.parallel = 3;
    options.progress = [&reports](size_t done, size_t failed, size_t total) {
        reports.push_back({done, failed, total});  // never called concurrently
    };
    Probe(servers, prober, options);

    ASSERT_EQ(reports.size(), servers.size());
    size_t lastFailed = 0;
    for (size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i][0], i + 1);
        EXPECT_GE(reports[i][1], lastFailed);
        EXPECT_LE(reports[i][1], reports[i][0]);
        EXPECT_EQ(reports[i][2], servers.size());
        lastFailed = reports[i][1];
    }
    EXPECT_EQ(lastFailed, 3u);
}

TEST_F(FanOutTest, ExceptionsAndEmptyListsAreReportedNotThrown) {
    EXPECT_TRUE(TezaFanOut::run({}, nullptr, TezaFanOut::Options()).empty());

    std::vector<TezaServerConnection> servers(3, Descriptor("127.0.0.1", 1));
    TezaFanOut::Options options;
    options.parallel = 0;  // counts as one
    std::vector<TezaStatus> results = TezaFanOut::run(
        servers,
        [](const TezaServerConnection& server, size_t index) {
            EXPECT_EQ(server.getHost(), "127.0.0.1");
            EXPECT_EQ(server.getServer(), nullptr);  // a closed copy
            if (index == 1) {
                throw std::runtime_error("boom");
            }
            return TezaStatus();
        },
        options);
    EXPECT_EQ(results[0].status, TezaStatus::Success);
    EXPECT_EQ(results[1].status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(results[1].errnum, TezaFanOut::ERRNUM_EXCEPTION);
    EXPECT_EQ(results[1].reason, "call failed with an exception: boom");
    EXPECT_EQ(results[2].status, TezaStatus::Success);
}

}  // namespace
