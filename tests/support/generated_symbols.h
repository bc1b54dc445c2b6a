// Test definitions of the symbols that generated code supplies to the runtime. They live in
// the test main library, so an executable that defines its own takes precedence and one that
// does not still links.
#ifndef TEZA_TESTS_GENERATED_SYMBOLS_H_
#define TEZA_TESTS_GENERATED_SYMBOLS_H_

namespace testsupport {

// How many times the runtime has called TezaNamespaceFactory::registerDefaultTypeFactory().
// Each call also registers the "store", "net" and "tracked" factories of test_records.h.
int RegisterDefaultTypeFactoryCalls();

}  // namespace testsupport

#endif  // TEZA_TESTS_GENERATED_SYMBOLS_H_
