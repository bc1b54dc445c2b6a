#include "invocation_support.h"

#include <stdlib.h>

#include <ostream>
#include <regex>
#include <utility>

#include "TezaInterface.h"
#include "server_connection_peer.h"
#include "trace_support.h"

namespace testsupport {

namespace {

const char kTime[] = "Nov 14 22:13:20";

// A family of one API, used only to find the next tag.
class TagProbe : public TezaInterface {
  public:
    static const int kInterfaceId = 99;

    explicit TagProbe(const TezaServerConnection& connection)
        : TezaInterface(connection, kNoForce, nullptr, nullptr) {}

    int getInterfaceId() const override { return kInterfaceId; }
    const char* getInterfaceName() const override { return "tag-probe"; }
    const std::string& getApiName(int) const override { return _name; }

  private:
    static constexpr bool kNoForce = false;
    const std::string _name = "tag-probe";
};

bool IsFrameCall(const std::string& call) {
    static const char* const kPrefixes[] = {"rk_server_", "rk_results_", "rk_elem_new(",
                                            "rk_elem_free("};
    for (const char* prefix : kPrefixes) {
        if (call.compare(0, std::string(prefix).size(), prefix) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string NonePrefix(unsigned int tag) {
    return std::string(kTime) + " TezaInterface: Tag: " + std::to_string(tag) + " ";
}

std::string RequestPrefix(unsigned int tag) {
    return std::string(kTime) + " TezaInterface: Tag: " + std::to_string(tag) + " Request: ";
}

std::string ResponsePrefix(unsigned int tag) {
    return std::string(kTime) + " TezaInterface: Tag: " + std::to_string(tag) + " Response: ";
}

std::string ConnectionLine(unsigned int tag) {
    return NonePrefix(tag) +
           "TezaServerConnection:  host: srv7 major: 1 minor: 21 style: 1 type: 2 transport: 0 "
           "port: 443 connect timeout: 15 call timeout: 60\n";
}

std::string EmptyRequestLine(unsigned int tag, const std::string& name) {
    return NonePrefix(tag) + "<" + name + ">\n";
}

std::string EmptyResponseLine(unsigned int tag, const std::string& name) {
    return ResponsePrefix(tag) + " Received response for: <" + name + ">\n";
}

std::string FailedLine(unsigned int tag, const std::string& name, int errnum,
                       const std::string& reason) {
    return NonePrefix(tag) + "Host: srv7 Teza failed. Request: <" + name +
           "> Error: " + std::to_string(errnum) + " Reason: " + reason + "\n";
}

TestTracker& VolumeTracker(int api) {
    return Tracker(teza_volume::VolumeInterface::kInterfaceId, api);
}

std::string TrackerName(int api) {
    return "api-" + std::to_string(teza_volume::VolumeInterface::kInterfaceId) + "-" +
           std::to_string(api);
}

unsigned int NextTag() {
    Tracker(TagProbe::kInterfaceId, 0).setTraceLevel(1);
    TezaServerConnection remote = Descriptor();
    TezaServerConnectionTestPeer::SetRemote(remote, "probe");
    TagProbe probe(remote);
    const std::string out = CapturedStdout([&] { probe.invoke(0); });
    rkdouble::ClearCalls();
    std::smatch match;
    if (!std::regex_search(out, match, std::regex("Tag: ([0-9]+) "))) {
        ADD_FAILURE() << "no tag in the probe's trace: " << out;
        return 0;
    }
    return static_cast<unsigned int>(std::stoul(match[1].str())) + 1;
}

std::vector<std::string> FrameCalls() {
    std::vector<std::string> calls;
    for (const std::string& call : rkdouble::Calls()) {
        if (IsFrameCall(call)) {
            calls.push_back(call);
        }
    }
    return calls;
}

std::vector<std::string> OpenCalls(int handle) {
    const std::string h = "h" + std::to_string(handle);
    return {
        "rk_server_open(srv7, 1, 21)",
        "rk_server_set_style(" + h + ", 1)",
        "rk_server_set_server_type(" + h + ", 2)",
        "rk_server_set_transport_type(" + h + ", 0, (null))",
        "rk_server_set_port(" + h + ", 443)",
        "rk_server_set_admin_user(" + h + ", admin, secret)",
        "rk_server_set_timeout(" + h + ", 15)",
        "rk_server_invoke(" + h + ", system-get-corvi-version)",
        "rk_results_status(results)",
        "rk_elem_free(results)",
        "rk_server_set_timeout(" + h + ", 60)",
    };
}

Counts CountsOf(int api) {
    TezaCounter& counter = VolumeTracker(api).getCounter();
    return Counts{counter.getSuccesses(), counter.getFailures()};
}

Counts operator+(const Counts& a, const Counts& b) {
    return Counts{a.successes + b.successes, a.failures + b.failures};
}

void PrintTo(const Counts& counts, std::ostream* out) {
    *out << "{successes " << counts.successes << ", failures " << counts.failures << "}";
}

void InvocationTest::SetUp() {
    RuntimeTest::SetUp();
    TezaServerConnection::init();
    _log.Create();
    rkdouble::ClearCalls();
    for (int api = 0; api < teza_volume::VolumeInterface::kNumApis; ++api) {
        VolumeTracker(api).setTraceLevel(0);
    }
    TezaInterface::get_trans_label = nullptr;
    rkdouble::SetResponder([this](const std::string&, const std::string& api, rk_elem_t* request) {
        std::unique_lock<std::mutex> lock(_mutex);
        if (api == "system-get-corvi-version") {
            return _probeFails ? rkdouble::Failed(_probeReason, _probeErrnum) : rkdouble::Passed();
        }
        if (_keepRequests) {
            std::string text = api;
            if (request != nullptr) {
                rkdouble::SetRecording(false);
                char* written = rk_elem_sprintf(request);
                rkdouble::SetRecording(true);
                text = written == nullptr ? "(unprintable)" : written;
                free(written);
            }
            _requests.push_back(text);
        }
        Answer answer = _answer;
        lock.unlock();
        return answer ? answer(api) : rkdouble::Passed();
    });
}

void InvocationTest::TearDown() {
    TezaInterface::get_trans_label = nullptr;
    RuntimeTest::TearDown();
}

void InvocationTest::SetAnswer(Answer answer) {
    std::lock_guard<std::mutex> lock(_mutex);
    _answer = std::move(answer);
}

void InvocationTest::FailProbes(const std::string& reason, int errnum) {
    std::lock_guard<std::mutex> lock(_mutex);
    _probeFails = true;
    _probeReason = reason;
    _probeErrnum = errnum;
}

std::vector<std::string> InvocationTest::Requests() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _requests;
}

void InvocationTest::KeepRequests(bool keep) {
    std::lock_guard<std::mutex> lock(_mutex);
    _keepRequests = keep;
}

}  // namespace testsupport
