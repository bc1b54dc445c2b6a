// One interface object through a small session with a server emulated over the test double:
// APIs with and without input and output records, the server reading the requests and
// answering from what it stored, the handle opened once and reused from the cache, and closed
// when a call fails.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TezaFieldType.h"
#include "TezaInterface.h"
#include "TezaStatus.h"
#include "invocation_support.h"
#include "rk_double.h"
#include "test_interface.h"
#include "test_records.h"

namespace {

using Lines = std::vector<std::string>;
using testsupport::Counts;
using testsupport::CountsOf;
using testsupport::Descriptor;
using teza_store::OwnerInfo;
using teza_store::VolumeInfo;
using teza_volume::VolumeInterface;

// The client-library server calls of opening a fresh handle h<n>.
Lines OpenServerCalls(int handle) {
    const std::string h = "h" + std::to_string(handle);
    return {"rk_server_open(srv7, 1, 21)",
            "rk_server_set_style(" + h + ", 1)",
            "rk_server_set_server_type(" + h + ", 2)",
            "rk_server_set_transport_type(" + h + ", 0, (null))",
            "rk_server_set_port(" + h + ", 443)",
            "rk_server_set_admin_user(" + h + ", admin, secret)",
            "rk_server_set_timeout(" + h + ", 15)",
            "rk_server_invoke(" + h + ", system-get-corvi-version)",
            "rk_server_set_timeout(" + h + ", 60)"};
}

// A volume server: volume-create stores the volume it reads from the request (a second one of
// the same name is refused), volume-get-info answers with the stored volume, volume-set-owner
// gives the named volume a new owner and answers with it. The server reads and writes its
// elements with the same record mapping as the client.
class VolumeServer {
  public:
    rk_elem_t* Answer(const std::string& api, rk_elem_t* request) {
        if (api == "system-ping") {
            return rkdouble::Passed();
        }
        if (api == "volume-create") {
            VolumeInfo volume;
            volume.parseRkChildElement(request);
            std::string name;
            volume.getName(name);
            if (_volumes.count(name) != 0) {
                return rkdouble::Failed("volume &apos;" + name + "&apos; exists", 13010);
            }
            _volumes[name] = std::make_unique<VolumeInfo>();
            *_volumes[name] = volume;
            _lastCreated = name;
            return rkdouble::Passed();
        }
        if (api == "volume-get-info") {
            rk_elem_t* result = rkdouble::Passed();
            _volumes.at(_lastCreated)->constructRkChildElement(result);
            return result;
        }
        if (api == "volume-set-owner") {
            VolumeInfo named;
            named.parseRkChildElement(request);
            std::string name;
            named.getName(name);
            OwnerInfo owner;
            owner.setId(++_nextOwner);
            _volumes.at(name)->setOwner(owner);
            rk_elem_t* result = rkdouble::Passed();
            owner.constructRkChildElement(result);
            return result;
        }
        return rkdouble::Failed("unknown API " + api, 13003);
    }

  private:
    std::map<std::string, std::unique_ptr<VolumeInfo>> _volumes;
    std::string _lastCreated;
    int32_t _nextOwner = 100;
};

class InvocationEndToEndTest : public testsupport::InvocationTest {
  protected:
    void SetUp() override {
        testsupport::InvocationTest::SetUp();
        KeepRequests(false);
        rkdouble::SetResponder(
            [this](const std::string&, const std::string& api, rk_elem_t* request) {
                if (api == "system-get-corvi-version") {
                    return rkdouble::Passed();
                }
                return _server.Answer(api, request);
            });
    }

    VolumeServer _server;
};

TEST_F(InvocationEndToEndTest, OneInterfaceThroughASession) {
    VolumeInterface volumes(Descriptor());
    Counts before[VolumeInterface::kNumApis];
    for (int api = 0; api < VolumeInterface::kNumApis; ++api) {
        before[api] = CountsOf(api);
    }

    // Without records.
    ASSERT_EQ(volumes.systemPing().status, TezaStatus::Success);

    // Input only: a volume with a text array and a nested owner.
    VolumeInfo created;
    created.setName("vol1");
    created.setSize(int64_t{1} << 40);
    const std::string aliases[] = {"first", "second & last"};
    created.setAlias(2, aliases);
    OwnerInfo firstOwner;
    firstOwner.setId(3);
    created.setOwner(firstOwner);
    ASSERT_EQ(volumes.volumeCreate(created).status, TezaStatus::Success);

    // Output only: the server's copy comes back whole.
    VolumeInfo fetched;
    ASSERT_EQ(volumes.volumeGetInfo(fetched).status, TezaStatus::Success);
    EXPECT_EQ(testsupport::DescribeRecord(fetched), testsupport::DescribeRecord(created));

    // Input and output.
    VolumeInfo named;
    named.setName("vol1");
    OwnerInfo newOwner;
    ASSERT_EQ(volumes.volumeSetOwner(named, newOwner).status, TezaStatus::Success);
    int32_t id = 0;
    EXPECT_TRUE(newOwner.getId(id));
    EXPECT_EQ(id, 101);

    // One handle served all four calls, taken back from the cache each time.
    EXPECT_EQ(rkdouble::HandlesOpened(), 1);
    EXPECT_EQ(rkdouble::HandlesOpen(), 1);

    // A refused call closes the handle.
    TezaStatus failed = volumes.volumeCreate(created);
    EXPECT_EQ(failed.status, TezaStatus::ApiFailed);
    EXPECT_EQ(failed.reason, "volume 'vol1' exists");
    EXPECT_EQ(failed.errnum, 13010);
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);

    // The next call opens a fresh one.
    ASSERT_EQ(volumes.systemPing().status, TezaStatus::Success);
    EXPECT_EQ(rkdouble::HandlesOpened(), 2);

    Lines expected = OpenServerCalls(1);
    expected.insert(expected.end(), {
                                        "rk_server_invoke(h1, system-ping)",
                                        "rk_server_set_timeout(h1, 60)",
                                        "rk_server_invoke_elem(h1, volume-create)",
                                        "rk_server_set_timeout(h1, 60)",
                                        "rk_server_invoke(h1, volume-get-info)",
                                        "rk_server_set_timeout(h1, 60)",
                                        "rk_server_invoke_elem(h1, volume-set-owner)",
                                        "rk_server_set_timeout(h1, 60)",
                                        "rk_server_invoke_elem(h1, volume-create)",
                                        "rk_server_close(h1)",
                                    });
    const Lines reopen = OpenServerCalls(2);
    expected.insert(expected.end(), reopen.begin(), reopen.end());
    expected.push_back("rk_server_invoke(h2, system-ping)");
    EXPECT_EQ(rkdouble::Calls("rk_server_"), expected);

    EXPECT_EQ(CountsOf(VolumeInterface::kSystemPing),
              (before[VolumeInterface::kSystemPing] + Counts{2, 0}));
    EXPECT_EQ(CountsOf(VolumeInterface::kVolumeCreate),
              (before[VolumeInterface::kVolumeCreate] + Counts{1, 1}));
    EXPECT_EQ(CountsOf(VolumeInterface::kVolumeGetInfo),
              (before[VolumeInterface::kVolumeGetInfo] + Counts{1, 0}));
    EXPECT_EQ(CountsOf(VolumeInterface::kVolumeSetOwner),
              (before[VolumeInterface::kVolumeSetOwner] + Counts{1, 0}));
}

}  // namespace
