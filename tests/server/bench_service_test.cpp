// tezad's benchmark service (tezad --bench): the answer of bench-call is computed from every
// field of its request, and bench-volumes answers with the volumes asked for.

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "bench_service.h"
#include "elements.h"
#include "service_core.h"

namespace tezad {
namespace {

class BenchServiceTest : public ::testing::Test {
  protected:
    BenchServiceTest() : _core(Options()) { BenchService::Install(&_core); }

    static CoreOptions Options() {
        CoreOptions options;
        options.major = 1;
        options.minor = 2;
        return options;
    }

    Reply Send(const std::string& xml) {
        CallInfo info;
        info.hasVersion = true;
        info.major = 1;
        info.minor = 2;
        info.hasServerType = true;
        info.serverType = RK_SERVER_TYPE_NODE;
        return _core.Handle(info, xml.data(), xml.size());
    }

    ServiceCore _core;
};

std::string Text(rk_elem_t* elem, const char* name) {
    const char* text = rk_child_get_string(elem, name);
    return text == nullptr ? "(absent)" : Decode(text);
}

const char kCall[] =
    "<bench-call><request-id>req-1</request-id><user-name>ann</user-name>"
    "<email>ann@example.org</email><age>41</age><account-id>1000000000007</account-id>"
    "<active>true</active><address><street>1 Main Street</street><city>Oslo</city>"
    "<zip>12345</zip></address><tags><string>a</string><string>b</string>"
    "<string>c</string></tags><priority>3</priority><note>x &amp; y &lt; z</note>"
    "</bench-call>";

TEST_F(BenchServiceTest, CallAnswersFromEveryField) {
    Reply reply = Send(kCall);
    rk_elem_t* r = reply.result.get();
    ASSERT_EQ(rk_results_status(r), 1) << rk_results_reason(r);
    EXPECT_EQ(Text(r, "request-id"), "req-1");
    EXPECT_EQ(Text(r, "status"), "accepted for ann");
    EXPECT_EQ(Text(r, "code"), "44");
    EXPECT_EQ(Text(r, "processed-at"), "1000000001007");
    EXPECT_EQ(Text(r, "accepted"), "true");
    rk_elem_t* summary = rk_elem_child(r, "summary");
    ASSERT_NE(summary, nullptr);
    EXPECT_EQ(Text(summary, "name"), "ann");
    EXPECT_EQ(Text(summary, "city"), "Oslo");
    EXPECT_EQ(Text(summary, "tag-count"), "3");
    rk_elem_t* labels = rk_elem_child(r, "labels");
    ASSERT_NE(labels, nullptr);
    ASSERT_EQ(rk_elem_child_count(labels), 3u);
    rk_iterator_t it = rk_child_iterator(labels);
    for (const char* expected : {"label-a", "label-b", "label-c"}) {
        rk_elem_t* label = rk_iterator_next(&it);
        EXPECT_STREQ(rk_elem_get_name(label), "string");
        EXPECT_EQ(Decode(rk_elem_get_content(label)), expected);
    }
    EXPECT_EQ(Text(r, "score"), "348");
    EXPECT_EQ(Text(r, "message"), "note: x & y < z");
}

TEST_F(BenchServiceTest, CallWithoutAddressFails) {
    std::string call = kCall;
    const size_t start = call.find("<address>");
    call.erase(start, call.find("</address>") + 10 - start);
    Reply reply = Send(call);
    EXPECT_EQ(rk_results_status(reply.result.get()), 0);
    EXPECT_EQ(rk_results_errno(reply.result.get()), 15201);
}

TEST_F(BenchServiceTest, VolumesAnswersTheCountAskedFor) {
    Reply reply = Send("<bench-volumes><count>4</count></bench-volumes>");
    rk_elem_t* r = reply.result.get();
    ASSERT_EQ(rk_results_status(r), 1) << rk_results_reason(r);
    rk_elem_t* volumes = rk_elem_child(r, "volumes");
    ASSERT_NE(volumes, nullptr);
    ASSERT_EQ(rk_elem_child_count(volumes), 4u);
    rk_iterator_t it = rk_child_iterator(volumes);
    rk_iterator_next(&it);
    rk_elem_t* second = rk_iterator_next(&it);
    EXPECT_EQ(Text(second, "name"), "volume-000001");
    EXPECT_EQ(Text(second, "size"), "2147483648");
    EXPECT_EQ(Text(second, "used"), "1048576");
    EXPECT_EQ(Text(second, "online"), "false");
    rk_elem_t* mounts = rk_elem_child(second, "mounts");
    ASSERT_NE(mounts, nullptr);
    ASSERT_EQ(rk_elem_child_count(mounts), 1u);
    rk_elem_t* mount = rk_elem_child(mounts, "mount");
    EXPECT_EQ(Text(mount, "node"), "node-01");
    EXPECT_EQ(Text(mount, "path"), "/srv/volume-000001");
    EXPECT_EQ(Text(mount, "read-only"), "false");
}

// Every text of every volume, against the formats the service documents, written here with
// printf's conversions.
TEST_F(BenchServiceTest, VolumesHoldTheDocumentedTexts) {
    const long count = 300;
    Reply reply = Send("<bench-volumes><count>300</count></bench-volumes>");
    rk_elem_t* volumes = rk_elem_child(reply.result.get(), "volumes");
    ASSERT_NE(volumes, nullptr);
    ASSERT_EQ(rk_elem_child_count(volumes), static_cast<size_t>(count));
    rk_iterator_t it = rk_child_iterator(volumes);
    char text[128];
    for (long long i = 0; i < count; ++i) {
        rk_elem_t* volume = rk_iterator_next(&it);
        snprintf(text, sizeof text, "volume-%06lld", i);
        const std::string name = text;
        EXPECT_EQ(Text(volume, "name"), name);
        snprintf(text, sizeof text, "%08llx-0000-4000-8000-%012llx", i, i * 7919);
        EXPECT_EQ(Text(volume, "uuid"), text);
        EXPECT_EQ(Text(volume, "size"), std::to_string((i + 1) << 30));
        EXPECT_EQ(Text(volume, "used"), std::to_string(i << 20));
        EXPECT_EQ(Text(volume, "online"), i % 2 == 0 ? "true" : "false");
        rk_elem_t* mount = rk_elem_child(rk_elem_child(volume, "mounts"), "mount");
        snprintf(text, sizeof text, "node-%02lld", i % 16);
        EXPECT_EQ(Text(mount, "node"), text);
        EXPECT_EQ(Text(mount, "path"), "/srv/" + name);
        EXPECT_EQ(Text(mount, "read-only"), i % 3 == 0 ? "true" : "false");
    }
}

TEST_F(BenchServiceTest, VolumesRefusesACountOutOfRange) {
    Reply reply = Send("<bench-volumes><count>-1</count></bench-volumes>");
    EXPECT_EQ(rk_results_status(reply.result.get()), 0);
    EXPECT_EQ(rk_results_errno(reply.result.get()), 15201);
}

}  // namespace
}  // namespace tezad
