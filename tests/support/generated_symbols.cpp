#include "generated_symbols.h"

#include <atomic>

#include "TezaNamespaceFactory.h"

namespace {
std::atomic<int> gRegisterDefaultTypeFactoryCalls{0};
}  // namespace

namespace testsupport {

int RegisterDefaultTypeFactoryCalls() {
    return gRegisterDefaultTypeFactoryCalls.load();
}

}  // namespace testsupport

void TezaNamespaceFactory::registerDefaultTypeFactory() {
    ++gRegisterDefaultTypeFactoryCalls;
}
