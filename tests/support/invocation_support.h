// Shared pieces of the invocation tests: a fixture over the test double with a started library,
// a scripted server, the trace lines of the frozen clock, the tag the next call will get, and
// the call log reduced to the invocation frame's own client-library calls.
#ifndef TEZA_TESTS_INVOCATION_SUPPORT_H_
#define TEZA_TESTS_INVOCATION_SUPPORT_H_

#include <stdint.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TezaServerConnection.h"
#include "generated_symbols.h"
#include "rk.h"
#include "runtime_fixture.h"
#include "test_interface.h"

namespace testsupport {

// --- Trace lines at the fixture's time (14 November 2023, 22:13:20 UTC) -----------------------

std::string NonePrefix(unsigned int tag);
std::string RequestPrefix(unsigned int tag);
std::string ResponsePrefix(unsigned int tag);
// The connection line of Descriptor() (srv7, 1.21, style 1, type 2, transport 0, port 443,
// connect time-out 15, call time-out 60).
std::string ConnectionLine(unsigned int tag);
std::string EmptyRequestLine(unsigned int tag, const std::string& name);
std::string EmptyResponseLine(unsigned int tag, const std::string& name);
std::string FailedLine(unsigned int tag, const std::string& name, int errnum,
                       const std::string& reason);

// The tracker of an API of the volume family, and its name in trace lines ("api-41-<api>").
TestTracker& VolumeTracker(int api);
std::string TrackerName(int api);

// The tag that the next call will take. Found by a call of its own (through a remote
// descriptor of a separate family, at trace level 1), which uses up one tag and is forgotten
// from the call log.
unsigned int NextTag();

// The calls of the invocation frame itself, in order: server handles, results, and the creation
// and release of elements. The element calls made by the record mapping (children,
// iterators, names) are left out.
std::vector<std::string> FrameCalls();

// The client library's calls that open a fresh handle h<n> for Descriptor(): configuration,
// version probe, then the call time-out.
std::vector<std::string> OpenCalls(int handle = 1);

// The counts of an API's tracker: successes and failures.
struct Counts {
    uint64_t successes;
    uint64_t failures;
    bool operator==(const Counts& other) const {
        return successes == other.successes && failures == other.failures;
    }
};
Counts CountsOf(int api);
Counts operator+(const Counts& a, const Counts& b);
void PrintTo(const Counts& counts, std::ostream* out);

// The fixture: a started library (its calls and log lines are forgotten), an empty log file,
// every volume tracker at level 0, no transaction label, and a server that passes its version
// probe and answers every API with `Answer` (by default a passed result). Requests are kept
// as the client library writes them.
class InvocationTest : public RuntimeTest {
  protected:
    using Answer = std::function<rk_elem_t*(const std::string& api)>;

    void SetUp() override;
    void TearDown() override;

    // What the server answers to the APIs (the version probe excepted).
    void SetAnswer(Answer answer);
    // The version probe of fresh connections fails with this reason and error number.
    void FailProbes(const std::string& reason, int errnum);
    // The texts of the requests sent so far (API calls without input show as their name).
    // Rendering a request briefly turns the double's call log off; a test that keeps the log
    // off itself (many threads) turns the keeping of requests off first.
    std::vector<std::string> Requests();
    void KeepRequests(bool keep);

  private:
    std::mutex _mutex;
    Answer _answer;
    bool _keepRequests = true;
    bool _probeFails = false;
    std::string _probeReason;
    int _probeErrnum = 0;
    std::vector<std::string> _requests;
};

}  // namespace testsupport

#endif  // TEZA_TESTS_INVOCATION_SUPPORT_H_
