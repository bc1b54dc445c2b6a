// A recording trace hook. Linking hook_recorder.cpp into a test executable defines that
// executable's own TRACE_PRINTRLC_U, which the runtime's calls then reach through the dynamic
// linker; every call is kept until the test takes it.
#ifndef TEZA_TESTS_HOOK_RECORDER_H_
#define TEZA_TESTS_HOOK_RECORDER_H_

#include <ostream>
#include <string>
#include <vector>

namespace testsupport {

struct HookCall {
    void* handle;
    int kind;
    std::string label;  // "(null)" for a null label
    std::string text;   // "(null)" for a null text

    bool operator==(const HookCall& other) const {
        return handle == other.handle && kind == other.kind && label == other.label &&
               text == other.text;
    }
};

void PrintTo(const HookCall& call, std::ostream* out);

// The calls recorded since the last take, in order; forgets them.
std::vector<HookCall> TakeHookCalls();

}  // namespace testsupport

#endif  // TEZA_TESTS_HOOK_RECORDER_H_
