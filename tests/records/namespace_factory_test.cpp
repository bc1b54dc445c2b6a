// TezaNamespaceFactory: the process-wide registry from namespace name to generated factory.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "test_records.h"

namespace {

// A factory that records what it is asked and answers with records it made itself, so that a
// test can tell that the registry passes arguments and results through unchanged.
class SpyFactory : public TezaFieldTypeFactory {
  public:
    mutable std::atomic<int> calls{0};

    struct Call {
        std::string op, category, typeName;
        int count = -1;
        const TezaFieldType* source = nullptr;
        size_t vectorSize = 0;
    };

    Call last() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _last;
    }

    TezaFieldType* getInstance(const std::string& category,
                               const std::string& typeName) const override {
        note("getInstance", category, typeName, -1, nullptr, 0);
        return new teza_store::OwnerInfo;
    }
    TezaFieldType* getInstances(int count, const std::string& category,
                                const std::string& typeName) const override {
        note("getInstances", category, typeName, count, nullptr, 0);
        return new teza_store::OwnerInfo[count];
    }
    TezaFieldType* copyInstance(const std::string& typeName,
                                const TezaFieldType& source) const override {
        note("copyInstance", "", typeName, -1, &source, 0);
        return new teza_store::OwnerInfo;
    }
    TezaFieldType* copyInstances(const std::string& typeName, int count,
                                 const TezaFieldType*& source) const override {
        note("copyInstances", "", typeName, count, source, 0);
        return new teza_store::OwnerInfo[count];
    }
    TezaFieldType* copyInstances(const std::string& typeName,
                                 std::vector<TezaFieldType*>& source) const override {
        note("copyVector", "", typeName, -1, nullptr, source.size());
        return new teza_store::OwnerInfo[source.size()];
    }
    std::vector<std::string> getNestedTypedefHierarchy(const std::string& typeName) const override {
        note("hierarchy", "", typeName, -1, nullptr, 0);
        return {"spy-" + typeName, typeName};
    }

  private:
    void note(const char* op, const std::string& category, const std::string& typeName, int count,
              const TezaFieldType* source, size_t vectorSize) const {
        ++calls;
        std::lock_guard<std::mutex> lock(_mutex);
        _last.op = op;
        _last.category = category;
        _last.typeName = typeName;
        _last.count = count;
        _last.source = source;
        _last.vectorSize = vectorSize;
    }

    mutable std::mutex _mutex;
    mutable Call _last;
};

// Factories registered here stay registered for the life of the process, as generated ones do.
SpyFactory* NewSpy() {
    static std::vector<std::unique_ptr<SpyFactory>>* spies =
        new std::vector<std::unique_ptr<SpyFactory>>;
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    spies->emplace_back(new SpyFactory);
    return spies->back().get();
}

TEST(NamespaceFactory, DefaultRegistrationFindsTheGeneratedFactories) {
    TezaNamespaceFactory::registerDefaultTypeFactory();
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("store"), &teza_store::typeFactory());
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("net"), &teza_net::typeFactory());
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("orphan"), nullptr);

    std::unique_ptr<TezaFieldType> owner(
        TezaNamespaceFactory::getInstance("store", "typedef", "owner-info"));
    ASSERT_NE(owner, nullptr);
    EXPECT_STREQ(owner->getMetaData().getName(), "owner-info");
    EXPECT_EQ(TezaNamespaceFactory::getInstance("store", "typedef", "no-such-type"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("store", "owner-ref"),
              (std::vector<std::string>{"owner-handle", "owner-key", "owner-info"}));
}

TEST(NamespaceFactory, ForwardingPassesArgumentsAndResultsThrough) {
    SpyFactory* spy = NewSpy();
    TezaNamespaceFactory::registerTypeFactory("spy-forward", spy);

    std::unique_ptr<TezaFieldType> one(
        TezaNamespaceFactory::getInstance("spy-forward", "typedef", "t1"));
    EXPECT_EQ(spy->calls.load(), 1);
    EXPECT_EQ(spy->last().op, "getInstance");
    EXPECT_EQ(spy->last().category, "typedef");
    EXPECT_EQ(spy->last().typeName, "t1");
    EXPECT_NE(one, nullptr);

    TezaFieldType* many = TezaNamespaceFactory::getInstances("spy-forward", 3, "cat", "t2");
    EXPECT_EQ(spy->calls.load(), 2);
    EXPECT_EQ(spy->last().op, "getInstances");
    EXPECT_EQ(spy->last().count, 3);
    EXPECT_EQ(spy->last().category, "cat");
    EXPECT_EQ(spy->last().typeName, "t2");
    delete[] many;

    teza_store::OwnerInfo source;
    std::unique_ptr<TezaFieldType> copy(
        TezaNamespaceFactory::copyInstance("spy-forward", "t3", source));
    EXPECT_EQ(spy->last().op, "copyInstance");
    EXPECT_EQ(spy->last().typeName, "t3");
    EXPECT_EQ(spy->last().source, &source);

    teza_store::OwnerInfo sources[2];
    const TezaFieldType* first = sources;
    TezaFieldType* copies = TezaNamespaceFactory::copyInstances("spy-forward", "t4", 2, first);
    EXPECT_EQ(spy->last().op, "copyInstances");
    EXPECT_EQ(spy->last().count, 2);
    EXPECT_EQ(spy->last().source, first);
    delete[] copies;

    std::vector<TezaFieldType*> vec{&sources[0], &sources[1], &source};
    copies = TezaNamespaceFactory::copyInstances("spy-forward", "t5", vec);
    EXPECT_EQ(spy->last().op, "copyVector");
    EXPECT_EQ(spy->last().typeName, "t5");
    EXPECT_EQ(spy->last().vectorSize, 3u);
    delete[] copies;

    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("spy-forward", "t6"),
              (std::vector<std::string>{"spy-t6", "t6"}));
    EXPECT_EQ(spy->calls.load(), 6);
}

TEST(NamespaceFactory, UnregisteredNamespaceReturnsNullAndCallsNothing) {
    SpyFactory* spy = NewSpy();
    TezaNamespaceFactory::registerTypeFactory("spy-known", spy);

    teza_store::OwnerInfo source;
    const TezaFieldType* first = &source;
    std::vector<TezaFieldType*> vec{&source};
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("never-registered"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getInstance("never-registered", "typedef", "t"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getInstances("never-registered", 2, "typedef", "t"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::copyInstance("never-registered", "t", source), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::copyInstances("never-registered", "t", 1, first), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::copyInstances("never-registered", "t", vec), nullptr);
    EXPECT_TRUE(TezaNamespaceFactory::getNestedTypedefHierarchy("never-registered", "t").empty());
    EXPECT_EQ(spy->calls.load(), 0);
}

TEST(NamespaceFactory, LookupIsExactAndCaseSensitive) {
    SpyFactory* spy = NewSpy();
    TezaNamespaceFactory::registerTypeFactory("CaseNs", spy);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("CaseNs"), spy);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("casens"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("CASENS"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("CaseNs "), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("Case"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getInstance("casens", "typedef", "t"), nullptr);
    EXPECT_TRUE(TezaNamespaceFactory::getNestedTypedefHierarchy("casens", "t").empty());
    EXPECT_EQ(spy->calls.load(), 0);
}

TEST(NamespaceFactory, SecondRegistrationReplacesTheFirst) {
    SpyFactory* first = NewSpy();
    SpyFactory* second = NewSpy();
    TezaNamespaceFactory::registerTypeFactory("spy-replaced", first);
    TezaNamespaceFactory::registerTypeFactory("spy-replaced", second);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("spy-replaced"), second);
    std::unique_ptr<TezaFieldType> record(
        TezaNamespaceFactory::getInstance("spy-replaced", "typedef", "t"));
    EXPECT_EQ(first->calls.load(), 0);
    EXPECT_EQ(second->calls.load(), 1);
}

TEST(NamespaceFactory, NullFactoryBehavesLikeNone) {
    SpyFactory* spy = NewSpy();
    TezaNamespaceFactory::registerTypeFactory("spy-nulled", spy);
    TezaNamespaceFactory::registerTypeFactory("spy-nulled", nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("spy-nulled"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getInstance("spy-nulled", "typedef", "t"), nullptr);
    EXPECT_TRUE(TezaNamespaceFactory::getNestedTypedefHierarchy("spy-nulled", "t").empty());
    EXPECT_EQ(spy->calls.load(), 0);
}

TEST(NamespaceFactory, EmptyNamespaceNameIsAKeyLikeAnyOther) {
    SpyFactory* spy = NewSpy();
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory(""), nullptr);
    TezaNamespaceFactory::registerTypeFactory("", spy);
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory(""), spy);
}

// Many threads register, replace and look up at once; every registration ends up visible and
// every lookup sees a factory that was registered for that name.
TEST(NamespaceFactory, ConcurrentRegistrationAndLookup) {
    const int kThreads = 8;
    const int kPerThread = 200;
    SpyFactory* a = NewSpy();
    SpyFactory* b = NewSpy();
    TezaNamespaceFactory::registerTypeFactory("conc-shared", a);

    std::atomic<int> wrongLookups{0};
    std::vector<SpyFactory*> own(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        own[t] = NewSpy();
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int k = 0; k < kPerThread; ++k) {
                std::string ns = "conc-" + std::to_string(t) + "-" + std::to_string(k);
                TezaNamespaceFactory::registerTypeFactory(ns, own[t]);
                if (TezaNamespaceFactory::getTypeFactory(ns) != own[t]) {
                    ++wrongLookups;
                }
                TezaNamespaceFactory::registerTypeFactory("conc-shared", (k % 2) ? a : b);
                const TezaFieldTypeFactory* shared =
                    TezaNamespaceFactory::getTypeFactory("conc-shared");
                if (shared != a && shared != b) {
                    ++wrongLookups;
                }
                // Factory calls run outside the registry lock, concurrently.
                std::unique_ptr<TezaFieldType> record(
                    TezaNamespaceFactory::getInstance("conc-shared", "typedef", "t"));
                if (record == nullptr) {
                    ++wrongLookups;
                }
                std::unique_ptr<TezaFieldType> owner(
                    TezaNamespaceFactory::getInstance("store", "typedef", "owner-info"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrongLookups.load(), 0);
    for (int t = 0; t < kThreads; ++t) {
        for (int k = 0; k < kPerThread; ++k) {
            std::string ns = "conc-" + std::to_string(t) + "-" + std::to_string(k);
            EXPECT_EQ(TezaNamespaceFactory::getTypeFactory(ns), own[t]) << ns;
        }
    }
    EXPECT_EQ(a->calls.load() + b->calls.load(), kThreads * kPerThread);
}

}  // namespace
