// The trackers registry filled by generated code, and the Prometheus text of its counters read
// back by prometheus_client's parser after a known sequence of calls.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "TezaMetricsWriter.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaTrackerRegistry.h"
#include "elements.h"
#include "fleet.h"
#include "rk.h"
#include "runtime_session.h"
#include "test_server.h"

namespace {

using teza_test::kLogin;
using teza_test::kMajor;
using teza_test::kMinor;
using teza_test::kPassword;

TezaServerConnection Descriptor(int port) {
    return TezaServerConnection(
        "127.0.0.1", kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
        TezaServerConnection::TRANSPORT_HTTP, port, TezaServerConnection::SERVER_TYPE_NODE, 10, 10,
        kLogin, kPassword, 10);
}

// What the parser understood: "FAMILY ..." lines, and the samples by name and labels.
struct Parsed {
    int exitStatus = -1;
    std::vector<std::string> families;
    std::map<std::string, std::string> samples;  // "<name> <labels JSON>" -> value
};

Parsed Parse(const std::string& text) {
    teza_test::TempDir dir;
    std::string file = dir.Write("metrics.txt", text);
    std::string output;
    Parsed parsed;
    parsed.exitStatus = teza_test::RunCommand(
        std::string(TEZA_METRICS_PYTHON) + " " + TEZA_METRICS_PARSER + " " + file, &output);
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("FAMILY ", 0) == 0) {
            parsed.families.push_back(line.substr(7));
        } else if (line.rfind("SAMPLE ", 0) == 0) {
            size_t value = line.rfind(' ');
            parsed.samples[line.substr(7, value - 7)] = line.substr(value + 1);
        }
    }
    return parsed;
}

std::string Key(const std::string& metric, const std::string& family, const std::string& api) {
    return metric + " {\"api\": \"" + api + "\", \"family\": \"" + family + "\"}";
}

std::string Float(uint64_t value) {
    return std::to_string(value) + ".0";
}

class MetricsTest : public RuntimeSession {};

TEST_F(MetricsTest, GeneratedCodeRegistersEveryTracker) {
    std::vector<TezaTrackerRegistry::Entry> entries = TezaTrackerRegistry::getTrackers();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_STREQ(entries[0].family, "fleet");
    EXPECT_STREQ(entries[0].api, "fleet-probe");
    EXPECT_EQ(entries[0].tracker,
              fleet::FleetFamily::getTracker(fleet::FleetFamily::API_FLEET_PROBE));
}

TEST_F(MetricsTest, RegistryOrdersByFamilyAndApiAndForgetsUnregistered) {
    struct Tracker : TezaTracer {
        const std::string& getTraceName() const override { return name; }
        std::string name = "x";
    };
    Tracker a, b;
    TezaTrackerRegistry::registerTracker("alpha", "b-api", &a);
    TezaTrackerRegistry::registerTracker("alpha", "a-api", &b);
    TezaTrackerRegistry::registerTracker("alpha", "a-api", &b);  // once only
    b.setTraceLevel(3);
    b.getCounter().success(true);
    std::vector<TezaTrackerRegistry::Reading> readings = TezaTrackerRegistry::read();
    ASSERT_EQ(readings.size(), 3u);
    EXPECT_EQ(readings[0].api, "a-api");
    EXPECT_EQ(readings[0].traceLevel, 3);
    EXPECT_EQ(readings[0].successes, 1u);
    EXPECT_EQ(readings[0].flaggedSuccesses, 1u);
    EXPECT_EQ(readings[1].api, "b-api");
    EXPECT_EQ(readings[2].family, "fleet");
    TezaTrackerRegistry::unregisterTracker(&a);
    TezaTrackerRegistry::unregisterTracker(&b);
    TezaTrackerRegistry::unregisterTracker(&b);
    EXPECT_EQ(TezaTrackerRegistry::getTrackers().size(), 1u);
}

TEST_F(MetricsTest, RegistryIgnoresARegistrationWithANullPointer) {
    struct Tracker : TezaTracer {
        const std::string& getTraceName() const override { return name; }
        std::string name = "x";
    } tracker;
    const size_t before = TezaTrackerRegistry::getTrackers().size();
    TezaTrackerRegistry::registerTracker(nullptr, "api", &tracker);
    TezaTrackerRegistry::registerTracker("family", nullptr, &tracker);
    TezaTrackerRegistry::registerTracker("family", "api", nullptr);
    EXPECT_EQ(TezaTrackerRegistry::getTrackers().size(), before);
}

TEST_F(MetricsTest, ParsedTextEqualsTheCountersAfterKnownCalls) {
    TezaTracer* tracker = fleet::FleetFamily::getTracker(fleet::FleetFamily::API_FLEET_PROBE);
    const uint64_t successes = tracker->getCounter().getSuccesses();
    const uint64_t failures = tracker->getCounter().getFailures();

    teza_test::TestServer server;
    server.core().AddApi("fleet-probe", [](const tezad::Args& args) -> tezad::ElemPtr {
        if (args.Required("node", 15002) == "bad") {
            return tezad::NewFailed("no such node", 15010);
        }
        return tezad::NewPassed();
    });
    teza_test::RefusingPort refused;
    fleet::FleetInterface good(Descriptor(server.port()));
    fleet::FleetInterface down(Descriptor(refused.port()));
    fleet::ProbeRequest ok, bad;
    ok.setNode("n1");
    bad.setNode("bad");
    fleet::ProbeReply reply;
    // Three successes; two failures on the server and one on the way to it.
    EXPECT_EQ(good.fleetProbe(ok, reply).status, TezaStatus::Success);
    EXPECT_EQ(good.fleetProbe(ok, reply).status, TezaStatus::Success);
    EXPECT_EQ(good.fleetProbe(bad, reply).status, TezaStatus::ApiFailed);
    EXPECT_EQ(good.fleetProbe(ok, reply).status, TezaStatus::Success);
    EXPECT_EQ(good.fleetProbe(bad, reply).status, TezaStatus::ApiFailed);
    ForgetCachedConnections();
    EXPECT_EQ(down.fleetProbe(ok, reply).status, TezaStatus::ConnectionFailed);
    down.getConnection().unquarantine();
    tracker->setTraceLevel(0);

    EXPECT_EQ(tracker->getCounter().getSuccesses() - successes, 3u);
    EXPECT_EQ(tracker->getCounter().getFailures() - failures, 3u);

    Parsed parsed = Parse(TezaMetricsWriter::prometheusText());
    ASSERT_EQ(parsed.exitStatus, 0);
    EXPECT_EQ(parsed.families.size(), 5u);
    EXPECT_EQ(parsed.families[0], "teza_api_successes counter API calls that succeeded.");
    EXPECT_EQ(parsed.families[4],
              "teza_api_trace_level gauge Trace level of the API's tracker (0 to 4).");
    EXPECT_EQ(parsed.samples.size(), 5u);
    TezaCounter& counter = tracker->getCounter();
    EXPECT_EQ(parsed.samples[Key("teza_api_successes_total", "fleet", "fleet-probe")],
              Float(counter.getSuccesses()));
    EXPECT_EQ(parsed.samples[Key("teza_api_failures_total", "fleet", "fleet-probe")],
              Float(counter.getFailures()));
    EXPECT_EQ(parsed.samples[Key("teza_api_flagged_successes_total", "fleet", "fleet-probe")],
              "0.0");
    EXPECT_EQ(parsed.samples[Key("teza_api_flagged_failures_total", "fleet", "fleet-probe")],
              "0.0");
    EXPECT_EQ(parsed.samples[Key("teza_api_trace_level", "fleet", "fleet-probe")], "0.0");
}

TEST_F(MetricsTest, LabelValuesSurviveTheParserWhateverTheirCharacters) {
    TezaTrackerRegistry::Reading reading{"fam\"ily\\", "api\nname", 2, 7, 1, 0, 0};
    std::string text = TezaMetricsWriter::prometheusText({reading});
    Parsed parsed = Parse(text);
    ASSERT_EQ(parsed.exitStatus, 0) << text;
    EXPECT_EQ(parsed.samples["teza_api_successes_total {\"api\": \"api\\nname\", \"family\": "
                             "\"fam\\\"ily\\\\\"}"],
              "7.0");
    EXPECT_EQ(parsed.samples.size(), 5u);
}

TEST_F(MetricsTest, TezadServesItsCountersAtMetrics) {
    teza_test::TestServer server;
    {
        teza_test::ServerPtr h = teza_test::OpenHandle("127.0.0.1", server.port());
        for (int i = 0; i < 3; ++i) {
            teza_test::ElemPtr result(rk_server_invoke(h.get(), "account-list", nullptr));
            EXPECT_EQ(teza_test::Read(result.get()).status, 1);
        }
        teza_test::ElemPtr version(rk_server_invoke(h.get(), "system-get-corvi-version", nullptr));
        EXPECT_EQ(teza_test::Read(version.get()).status, 1);
    }
    std::string text;
    ASSERT_EQ(teza_test::RunCommand("curl -s -f " + server.url() + "/metrics", &text), 0);
    Parsed parsed = Parse(text);
    ASSERT_EQ(parsed.exitStatus, 0) << text;
    tezad::Counters counters = server.core().GetCounters();
    EXPECT_EQ(counters.callsPerApi["account-list"], 3u);
    EXPECT_EQ(parsed.samples["tezad_calls_total {\"api\": \"account-list\"}"], "3.0");
    EXPECT_EQ(parsed.samples["tezad_calls_total {\"api\": \"system-get-corvi-version\"}"],
              Float(counters.callsPerApi["system-get-corvi-version"]));
    EXPECT_EQ(parsed.samples["tezad_connections_total {}"], Float(counters.connections));
    EXPECT_EQ(parsed.samples.count("tezad_open_connections {}"), 1u);
    EXPECT_EQ(parsed.samples["tezad_tls_sessions_resumed_total {}"], "0.0");
    // The scrape is no call.
    EXPECT_EQ(counters.calls, 3 + counters.callsPerApi["system-get-corvi-version"]);
}

TEST_F(MetricsTest, ParserRejectsBrokenText) {
    // The parser check itself can fail: an unescaped quote in a label value.
    Parsed parsed = Parse("# HELP a_total x\n# TYPE a_total counter\na_total{api=\"a\"b\"} 1\n");
    EXPECT_NE(parsed.exitStatus, 0);
}

}  // namespace
