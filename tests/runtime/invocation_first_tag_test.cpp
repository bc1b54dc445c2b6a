// The tag counter of a freshly loaded library: the first call gets tag 0, the next 1, and a
// failing open takes one more tag for its failure trace. The only test of its executable, so
// that no other call has taken a tag before it.

#include <gtest/gtest.h>

#include <string>

#include "TezaStatus.h"
#include "invocation_support.h"
#include "test_interface.h"
#include "trace_support.h"

namespace {

using testsupport::CapturedStdout;
using testsupport::ConnectionLine;
using testsupport::Descriptor;
using testsupport::EmptyResponseLine;
using testsupport::FailedLine;
using testsupport::TrackerName;
using testsupport::VolumeTracker;
using teza_volume::VolumeInterface;

using FirstTagTest = testsupport::InvocationTest;

TEST_F(FirstTagTest, TagsStartAtZeroAndAFailedOpenTakesASecondOne) {
    VolumeTracker(VolumeInterface::kSystemPing).setTraceLevel(1);
    const std::string name = TrackerName(VolumeInterface::kSystemPing);

    VolumeInterface volumes(Descriptor());
    EXPECT_EQ(CapturedStdout([&] { volumes.systemPing(); }),
              ConnectionLine(0) + EmptyResponseLine(0, name));
    EXPECT_EQ(CapturedStdout([&] { volumes.systemPing(); }),
              ConnectionLine(1) + EmptyResponseLine(1, name));

    // A server that refuses (on another port, which the cache does not hold): the call takes
    // tag 2, its failure trace tag 3.
    FailProbes("connection refused", 13055);
    VolumeInterface refused(Descriptor("srv7", 444));
    std::string connection = ConnectionLine(3);
    connection.replace(connection.find("port: 443"), 9, "port: 444");
    EXPECT_EQ(CapturedStdout([&] { refused.systemPing(); }),
              connection + FailedLine(3, name, 13055, "connection refused"));

    // The cached handle of the first interface serves the next call, tag 4.
    EXPECT_EQ(CapturedStdout([&] { volumes.systemPing(); }),
              ConnectionLine(4) + EmptyResponseLine(4, name));
}

}  // namespace
