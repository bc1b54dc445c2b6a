#include "generated_symbols.h"

#include <atomic>

#include "TezaNamespaceFactory.h"
#include "test_records.h"

namespace {
std::atomic<int> gRegisterDefaultTypeFactoryCalls{0};
}  // namespace

namespace testsupport {

int RegisterDefaultTypeFactoryCalls() {
    return gRegisterDefaultTypeFactoryCalls.load();
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
