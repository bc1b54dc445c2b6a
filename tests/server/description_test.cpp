// The introspection APIs of tezad's service core (system-api-list, system-api-describe): every
// served API is listed and described with the whole type graph it needs, and descriptions that
// cannot be trusted are refused when they are added.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "demo_service.h"
#include "description.h"
#include "elements.h"
#include "service_core.h"

namespace tezad {
namespace {

CallInfo GoodCall() {
    CallInfo info;
    info.hasVersion = true;
    info.major = 1;
    info.minor = 0;
    info.hasServerType = true;
    info.serverType = RK_SERVER_TYPE_ANY;
    return info;
}

CoreOptions Options() {
    CoreOptions options;
    options.major = 1;
    options.minor = 0;
    return options;
}

Reply Send(ServiceCore& core, const std::string& xml) {
    return core.Handle(GoodCall(), xml.data(), xml.size());
}

std::string ChildText(rk_elem_t* elem, const char* name) {
    const char* text = rk_child_get_string(elem, name);
    return text == nullptr ? "" : Decode(text);
}

std::vector<rk_elem_t*> Children(rk_elem_t* elem) {
    std::vector<rk_elem_t*> children;
    rk_iterator_t it = rk_child_iterator(elem);
    while (rk_elem_t* child = rk_iterator_next(&it)) {
        children.push_back(child);
    }
    return children;
}

// The APIs of a system-api-list answer: name to "namespace/family input output".
std::map<std::string, std::string> Listed(ServiceCore& core) {
    Reply reply = Send(core, "<system-api-list/>");
    EXPECT_EQ(rk_results_status(reply.result.get()), 1);
    EXPECT_EQ(ChildText(reply.result.get(), "description-version"), "1");
    std::map<std::string, std::string> apis;
    for (rk_elem_t* api : Children(rk_elem_child(reply.result.get(), "apis"))) {
        apis[ChildText(api, "name")] = ChildText(api, "namespace") + "/" +
                                       ChildText(api, "family") + " " + ChildText(api, "input") +
                                       " " + ChildText(api, "output");
    }
    return apis;
}

struct Demo {
    Demo() : core(Options()) { demo.Install(&core); }
    ServiceCore core;
    DemoService demo;
};

TEST(Introspection, ListsTheBuiltinAndTheDemoApis) {
    Demo server;
    const std::map<std::string, std::string> apis = Listed(server.core);
    EXPECT_EQ(apis.size(), 4u + 9u);
    EXPECT_EQ(apis.at("system-get-corvi-version"), "teza-system/system  version-info");
    EXPECT_EQ(apis.at("system-api-describe"), "teza-system/system describe-request description");
    EXPECT_EQ(apis.at("account-create"),
              "demo/account account-create-request account-create-reply");
    EXPECT_EQ(apis.at("account-list"), "demo/account  account-list-reply");
    EXPECT_EQ(apis.at("job-cancel"), "demo/job job-id ");
    // Every listed API is served: none is unknown to the core.
    for (const auto& api : apis) {
        Reply reply = Send(server.core, "<" + api.first + "/>");
        EXPECT_NE(rk_results_errno(reply.result.get()), kErrUnknownApi) << api.first;
    }
}

TEST(Introspection, WithoutTheDemoOnlyTheBuiltinApisAreListed) {
    ServiceCore core(Options());
    const std::map<std::string, std::string> apis = Listed(core);
    EXPECT_EQ(apis.size(), 4u);
    EXPECT_EQ(apis.count("system-get-counters"), 1u);
    EXPECT_EQ(apis.count("account-create"), 0u);
}

// Checks that a described namespace holds every type and typedef its fields and APIs name.
void ExpectClosed(rk_elem_t* ns) {
    std::set<std::string> types;
    std::set<std::string> typedefs;
    for (rk_elem_t* t : Children(rk_elem_child(ns, "types"))) {
        types.insert(ChildText(t, "name"));
    }
    for (rk_elem_t* t : Children(rk_elem_child(ns, "typedefs"))) {
        typedefs.insert(ChildText(t, "name"));
    }
    const std::set<std::string> basic = {"string", "int32", "uint32", "int64", "uint64", "bool"};
    for (rk_elem_t* t : Children(rk_elem_child(ns, "types"))) {
        for (rk_elem_t* f : Children(rk_elem_child(t, "fields"))) {
            const std::string type = ChildText(f, "type");
            EXPECT_TRUE(basic.count(type) + types.count(type) + typedefs.count(type) == 1)
                << ChildText(t, "name") << "/" << ChildText(f, "name") << " : " << type;
            if (!ChildText(f, "record").empty()) {
                EXPECT_EQ(types.count(ChildText(f, "record")), 1u);
            }
        }
    }
    for (rk_elem_t* family : Children(rk_elem_child(ns, "families"))) {
        for (rk_elem_t* api : Children(rk_elem_child(family, "apis"))) {
            for (const char* end : {"input", "output"}) {
                if (!ChildText(api, end).empty()) {
                    EXPECT_EQ(types.count(ChildText(api, end)), 1u) << ChildText(api, "name");
                }
            }
        }
    }
}

TEST(Introspection, DescribesEveryApiWithTheTypesItNeeds) {
    Demo server;
    for (const auto& api : Listed(server.core)) {
        Reply reply = Send(
            server.core, "<system-api-describe><api>" + api.first + "</api></system-api-describe>");
        ASSERT_EQ(rk_results_status(reply.result.get()), 1) << api.first;
        EXPECT_EQ(ChildText(reply.result.get(), "description-version"), "1");
        std::vector<rk_elem_t*> namespaces =
            Children(rk_elem_child(reply.result.get(), "namespaces"));
        ASSERT_EQ(namespaces.size(), 1u);
        std::vector<rk_elem_t*> families = Children(rk_elem_child(namespaces[0], "families"));
        ASSERT_EQ(families.size(), 1u);
        std::vector<rk_elem_t*> apis = Children(rk_elem_child(families[0], "apis"));
        ASSERT_EQ(apis.size(), 1u);
        EXPECT_EQ(ChildText(apis[0], "name"), api.first);
        ExpectClosed(namespaces[0]);
    }
}

TEST(Introspection, DescribesFieldsWithTheirFlagsInOrder) {
    Demo server;
    Reply reply = Send(server.core,
                       "<system-api-describe><type>account-create-request</type>"
                       "<namespace>demo</namespace></system-api-describe>");
    ASSERT_EQ(rk_results_status(reply.result.get()), 1);
    rk_elem_t* ns = Children(rk_elem_child(reply.result.get(), "namespaces")).at(0);
    std::vector<rk_elem_t*> types = Children(rk_elem_child(ns, "types"));
    // The request and the address it holds, in the schema's order; the tag typedef.
    ASSERT_EQ(types.size(), 2u);
    EXPECT_EQ(ChildText(types[0], "name"), "address");
    EXPECT_EQ(ChildText(types[1], "name"), "account-create-request");
    std::vector<rk_elem_t*> typedefs = Children(rk_elem_child(ns, "typedefs"));
    ASSERT_EQ(typedefs.size(), 1u);
    EXPECT_EQ(ChildText(typedefs[0], "name"), "tag");
    EXPECT_EQ(Children(rk_elem_child(ns, "families")).size(), 0u);

    std::vector<std::string> fields;
    for (rk_elem_t* f : Children(rk_elem_child(types[1], "fields"))) {
        std::string line = ChildText(f, "name") + ":" + ChildText(f, "type") + ":" +
                           ChildText(f, "basic") + ChildText(f, "record");
        for (const char* flag :
             {"array", "optional", "encrypted", "non-empty", "validate", "nested-typedef"}) {
            if (ChildText(f, flag) == "true") {
                line += std::string(" ") + flag;
            }
        }
        fields.push_back(line);
    }
    const std::vector<std::string> expected = {
        "name:string:string non-empty validate",
        "full-name:string:string optional",
        "quota:int64:int64 optional",
        "enabled:bool:bool optional",
        "secret:string:string optional encrypted",
        "address:address:address optional",
        "tags:tag:string array optional nested-typedef",
    };
    EXPECT_EQ(fields, expected);
}

TEST(Introspection, DescribesANamespaceOrEverything) {
    Demo server;
    Reply all = Send(server.core, "<system-api-describe/>");
    std::vector<rk_elem_t*> namespaces = Children(rk_elem_child(all.result.get(), "namespaces"));
    ASSERT_EQ(namespaces.size(), 2u);
    EXPECT_EQ(ChildText(namespaces[0], "name"), "teza-system");
    EXPECT_EQ(ChildText(namespaces[1], "name"), "demo");
    Reply demo =
        Send(server.core, "<system-api-describe><namespace>demo</namespace></system-api-describe>");
    namespaces = Children(rk_elem_child(demo.result.get(), "namespaces"));
    ASSERT_EQ(namespaces.size(), 1u);
    EXPECT_EQ(Children(rk_elem_child(namespaces[0], "types")).size(), 16u);
    EXPECT_EQ(Children(rk_elem_child(namespaces[0], "families")).size(), 2u);
    ExpectClosed(namespaces[0]);
}

TEST(Introspection, UnknownNamesFailWithTheirName) {
    Demo server;
    auto reason = [&](const std::string& xml, int* errnum) {
        Reply reply = Send(server.core, xml);
        *errnum = rk_results_errno(reply.result.get());
        return Decode(rk_results_reason(reply.result.get()));
    };
    int errnum = 0;
    EXPECT_EQ(reason("<system-api-describe><api>nope</api></system-api-describe>", &errnum),
              "no API \"nope\" is described");
    EXPECT_EQ(errnum, kErrNotDescribed);
    EXPECT_EQ(reason("<system-api-describe><type>job-id</type><namespace>teza-system</namespace>"
                     "</system-api-describe>",
                     &errnum),
              "no type \"job-id\" is described in namespace \"teza-system\"");
    EXPECT_EQ(
        reason("<system-api-describe><namespace>x</namespace></system-api-describe>", &errnum),
        "no namespace \"x\" is described");
    EXPECT_EQ(
        reason("<system-api-describe><api>a</api><type>b</type></system-api-describe>", &errnum),
        "name an <api> or a <type>, not both");
    EXPECT_EQ(errnum, kErrNotDescribed);
}

const char kSmall[] =
    "<teza-description><description-version>1</description-version><namespaces><namespace>"
    "<name>small</name><typedefs/><types><type><name>t</name><fields><field><name>f</name>"
    "<type>string</type><basic>string</basic><array>false</array><optional>false</optional>"
    "<encrypted>false</encrypted><non-empty>false</non-empty><validate>false</validate>"
    "<nested-typedef>false</nested-typedef></field></fields></type></types><families><family>"
    "<name>s</name><id>3</id><apis><api><name>small-get</name><output>t</output></api></apis>"
    "</family></families></namespace></namespaces></teza-description>";

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

TEST(Introspection, AddRefusesDescriptionsThatCannotBeTrusted) {
    ServiceCore core(Options());
    std::string error;
    ASSERT_TRUE(core.AddDescription(kSmall, "small.xml", &error)) << error;
    EXPECT_EQ(Listed(core).count("small-get"), 1u);

    EXPECT_FALSE(core.AddDescription(kSmall, "again.xml", &error));
    EXPECT_EQ(error, "again.xml: namespace \"small\" is described already");
    EXPECT_FALSE(core.AddDescription(Replaced(kSmall, "<name>small</name>", "<name>other</name>"),
                                     "api.xml", &error));
    EXPECT_EQ(error, "api.xml: API \"small-get\" is described already");

    Description description;
    EXPECT_FALSE(description.Add("<teza-description>", "cut.xml", &error));
    EXPECT_EQ(error.rfind("cut.xml: not a well-formed XML description: ", 0), 0u) << error;
    EXPECT_FALSE(description.Add(
        Replaced(kSmall, ">1</description-version>", ">2</description-version>"), "v.xml", &error));
    EXPECT_EQ(error, "v.xml: the description has version \"2\"; this server reads version 1");
    EXPECT_FALSE(description.Add(Replaced(kSmall, "<output>t</output>", "<output>u</output>"),
                                 "o.xml", &error));
    EXPECT_EQ(error,
              "o.xml: namespace \"small\": API \"small-get\" names the type \"u\", which is not "
              "described");
    EXPECT_FALSE(description.Add(Replaced(kSmall, "<type>string</type>", "<type>str</type>"),
                                 "f.xml", &error));
    EXPECT_EQ(error,
              "f.xml: namespace \"small\": field \"f\" of type \"t\" has a type that is not "
              "described");
    EXPECT_FALSE(description.Add(Replaced(kSmall, "<array>false</array>", "<array>no</array>"),
                                 "b.xml", &error));
    EXPECT_EQ(error,
              "b.xml: namespace \"small\", type \"t\": <array> is \"no\", not true or false");
    EXPECT_FALSE(description.Add(
        Replaced(kSmall, "<description-version>1</description-version>", ""), "m.xml", &error));
    EXPECT_EQ(error, "m.xml: the description: <description-version> is missing");
    EXPECT_TRUE(description.Empty());
}

}  // namespace
}  // namespace tezad
