// Records filled before TezaWrapper::init(): the generated setters of nested records register
// their namespace's factory themselves, so such a record holds, copies and sends its nested
// records as one filled after init() does. CTest runs every test in a process of its own, so
// each starts with an empty factory registry, as a program does before init().

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TezaNamespaceFactory.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaWrapper.h"
#include "demo.h"
#include "inprocess_server.h"
#include "test_server.h"

namespace {

using teza_test::kLogin;
using teza_test::kMajor;
using teza_test::kMinor;
using teza_test::kPassword;

const demo::DemoTypeFactory* GeneratedFactory() {
    return &demo::DemoTypeFactory::instance();
}

demo::Address Address(const std::string& street, const std::string& city) {
    demo::Address address;
    address.setStreet(street);
    address.setCity(city);
    return address;
}

std::string City(const demo::Address* address) {
    std::string city;
    if (address == nullptr || !address->getCity(city)) {
        return "<none>";
    }
    return city;
}

// The demo service of tezad served in this process under the name "node-early".
class InProcessDemo {
  public:
    InProcessDemo() : _core(teza_test::ServerConfig().core), _server("node-early", &_core) {
        _demo.Install(&_core);
    }
    bool registered() const { return _server.registered(); }
    TezaServerConnection Descriptor() const {
        return TezaServerConnection(
            "node-early", kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
            TezaServerConnection::TRANSPORT_IN_PROCESS, 0, TezaServerConnection::SERVER_TYPE_NODE,
            10, 10, kLogin, kPassword, 10);
    }

  private:
    tezad::ServiceCore _core;
    tezad::DemoService _demo;
    tezad::InProcessServer _server;
};

// Stands in for a factory that a program registers itself before it sets any record.
class CountingFactory : public TezaFieldTypeFactory {
  public:
    TezaFieldType* getInstance(const std::string& category,
                               const std::string& typeName) const override {
        return GeneratedFactory()->getInstance(category, typeName);
    }
    TezaFieldType* getInstances(int count, const std::string& category,
                                const std::string& typeName) const override {
        return GeneratedFactory()->getInstances(count, category, typeName);
    }
    TezaFieldType* copyInstance(const std::string& typeName,
                                const TezaFieldType& source) const override {
        ++copies;
        return GeneratedFactory()->copyInstance(typeName, source);
    }
    TezaFieldType* copyInstances(const std::string& typeName, int count,
                                 const TezaFieldType*& source) const override {
        ++copies;
        return GeneratedFactory()->copyInstances(typeName, count, source);
    }
    TezaFieldType* copyInstances(const std::string& typeName,
                                 std::vector<TezaFieldType*>& source) const override {
        ++copies;
        return GeneratedFactory()->copyInstances(typeName, source);
    }
    std::vector<std::string> getNestedTypedefHierarchy(const std::string& typeName) const override {
        return GeneratedFactory()->getNestedTypedefHierarchy(typeName);
    }

    mutable std::atomic<int> copies{0};
};

TEST(RecordsBeforeInit, NestedRecordSetBeforeInitIsHeldAndSent) {
    ASSERT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), nullptr)
        << "the test needs a process of its own";

    demo::AccountCreateRequest create;
    create.setName("early");
    create.setAddress(Address("1 Loop Road", "Earlyville"));
    EXPECT_EQ(City(create.getAddress()), "Earlyville");
    // A copy made before init() copies the nested record too.
    demo::AccountCreateRequest copy = create;
    EXPECT_EQ(City(copy.getAddress()), "Earlyville");

    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error)) << error;
    {
        InProcessDemo server;
        ASSERT_TRUE(server.registered());
        demo::AccountInterface api(server.Descriptor());
        demo::AccountCreateReply created;
        TezaStatus status = api.accountCreate(copy, created);
        ASSERT_EQ(status.status, TezaStatus::Success) << status.errnum << " " << status.reason;

        demo::AccountNameRequest which;
        which.setName("early");
        demo::AccountGetReply reply;
        status = api.accountGet(which, reply);
        ASSERT_EQ(status.status, TezaStatus::Success) << status.errnum << " " << status.reason;
        ASSERT_NE(reply.getAccountInfo(), nullptr);
        EXPECT_EQ(City(reply.getAccountInfo()->getAddress()), "Earlyville");
    }
    TezaServerConnection::cleanup();
    TezaWrapper::cleanup();
}

TEST(RecordsBeforeInit, ArrayOfRecordsSetBeforeInitIsHeld) {
    ASSERT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), nullptr)
        << "the test needs a process of its own";
    demo::ApiCall call;
    call.setApi("account-get");
    call.setCalls(3);
    demo::Counters counters;
    counters.setApiCalls({call, call});
    std::vector<demo::ApiCall> calls;
    ASSERT_TRUE(counters.getApiCalls(calls));
    ASSERT_EQ(calls.size(), 2u);
    uint64_t number = 0;
    EXPECT_TRUE(calls[1].getCalls(number));
    EXPECT_EQ(number, 3u);
}

TEST(RecordsBeforeInit, FirstSettersOnSeveralThreadsAtOnce) {
    ASSERT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), nullptr)
        << "the test needs a process of its own";
    const int kThreads = 4;
    std::vector<demo::AccountCreateRequest> requests(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&requests, i] {
            requests[static_cast<size_t>(i)].setAddress(
                Address("street", "city-" + std::to_string(i)));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), GeneratedFactory());
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(City(requests[static_cast<size_t>(i)].getAddress()), "city-" + std::to_string(i));
    }
}

TEST(RecordsBeforeInit, InitAndCleanupLeaveTheEarlyRegistrationAsInitMakesIt) {
    demo::AccountCreateRequest create;
    create.setAddress(Address("2 Loop Road", "Lateville"));
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), GeneratedFactory());

    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error)) << error;
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), GeneratedFactory());
    TezaWrapper::cleanup();
    // The registry keeps its entries after the last cleanup(), and a second start registers
    // the same factory again.
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), GeneratedFactory());
    ASSERT_TRUE(TezaWrapper::init(error)) << error;
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), GeneratedFactory());
    create.setAddress(Address("3 Loop Road", "Againville"));
    EXPECT_EQ(City(create.getAddress()), "Againville");
    TezaWrapper::cleanup();
}

TEST(RecordsBeforeInit, FactoryRegisteredByTheProgramStaysUntilInit) {
    static CountingFactory counting;
    TezaNamespaceFactory::registerTypeFactory("demo", &counting);

    demo::AccountCreateRequest create;
    create.setAddress(Address("4 Loop Road", "Ownville"));
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), &counting);
    EXPECT_EQ(counting.copies, 1);
    EXPECT_EQ(City(create.getAddress()), "Ownville");

    // init() registers the generated factories, as it always does, in place of the program's.
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error)) << error;
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("demo"), GeneratedFactory());
    TezaWrapper::cleanup();
}

}  // namespace
