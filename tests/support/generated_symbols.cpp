#include "generated_symbols.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "TezaNamespaceFactory.h"
#include "TezaTracer.h"
#include "test_records.h"

namespace {
std::atomic<int> gRegisterDefaultTypeFactoryCalls{0};

std::mutex gTrackersMutex;
// Never shrinks: the runtime may use a tracker pointer at any time.
std::map<std::pair<int, int>, std::unique_ptr<testsupport::TestTracker>> gTrackers;
}  // namespace

namespace testsupport {

int RegisterDefaultTypeFactoryCalls() {
    return gRegisterDefaultTypeFactoryCalls.load();
}

TestTracker& Tracker(int interfaceId, int api) {
    std::lock_guard<std::mutex> lock(gTrackersMutex);
    std::unique_ptr<TestTracker>& tracker = gTrackers[std::make_pair(interfaceId, api)];
    if (!tracker) {
        tracker = std::make_unique<TestTracker>("api-" + std::to_string(interfaceId) + "-" +
                                                std::to_string(api));
    }
    return *tracker;
}

}  // namespace testsupport

// What generated code does here: register the factory of every generated namespace. The
// "orphan" namespace of the test records is left out on purpose.
void TezaNamespaceFactory::registerDefaultTypeFactory() {
    ++gRegisterDefaultTypeFactoryCalls;
    TezaNamespaceFactory::registerTypeFactory(teza_store::kNamespace, &teza_store::typeFactory());
    TezaNamespaceFactory::registerTypeFactory(teza_net::kNamespace, &teza_net::typeFactory());
    TezaNamespaceFactory::registerTypeFactory(teza_tracked::kNamespace,
                                              &teza_tracked::typeFactory());
}

TezaTracer* TezaNS_depot::getTezaTracker(int interfaceId, int api) {
    return &testsupport::Tracker(interfaceId, api);
}
