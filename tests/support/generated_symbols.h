// Test definitions of the symbols that generated code supplies to the runtime. They live in
// the test main library, so an executable that defines its own takes precedence and one that
// does not still links.
#ifndef TEZA_TESTS_GENERATED_SYMBOLS_H_
#define TEZA_TESTS_GENERATED_SYMBOLS_H_

#include "test_tracker.h"

namespace testsupport {

// How many times the runtime has called TezaNamespaceFactory::registerDefaultTypeFactory().
// Each call also registers the "store", "net" and "tracked" factories of test_records.h.
int RegisterDefaultTypeFactoryCalls();

// The tracker that TezaNS_depot::getTezaTracker(interfaceId, api) returns: made on first use
// at level 0 and named "api-<interfaceId>-<api>", then kept for the life of the process, so
// that the runtime may hold the pointer. Tests set its name and level and read its counter;
// counts accumulate, so a test compares them before and after, or uses its own api number.
TestTracker& Tracker(int interfaceId, int api);

}  // namespace testsupport

#endif  // TEZA_TESTS_GENERATED_SYMBOLS_H_
