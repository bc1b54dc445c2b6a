// TestTracker: a tracker for tests, standing in for a generated one; its name and level are
// set by the test. Not locked, like a generated tracker.
#ifndef TEZA_TESTS_TEST_TRACKER_H_
#define TEZA_TESTS_TEST_TRACKER_H_

#include <string>
#include <utility>

#include "TezaTracer.h"

namespace testsupport {

class TestTracker : public TezaTracer {
  public:
    explicit TestTracker(std::string name = "test-api", int level = 0) : _name(std::move(name)) {
        setTraceLevel(level);
    }

    const std::string& getTraceName() const override { return _name; }
    void setTraceName(std::string name) { _name = std::move(name); }

  private:
    std::string _name;
};

}  // namespace testsupport

#endif  // TEZA_TESTS_TEST_TRACKER_H_
