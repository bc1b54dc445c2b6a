#include "hook_recorder.h"

#include <mutex>

// The declaration gives the hook default visibility, so that the runtime reaches this definition.
#include "TezaTracer.h"

namespace testsupport {

namespace {
std::mutex gHookMutex;
std::vector<HookCall> gHookCalls;
}  // namespace

void PrintTo(const HookCall& call, std::ostream* out) {
    *out << "{" << call.handle << ", " << call.kind << ", \"" << call.label << "\", \"" << call.text
         << "\"}";
}

std::vector<HookCall> TakeHookCalls() {
    std::lock_guard<std::mutex> lock(gHookMutex);
    std::vector<HookCall> calls;
    calls.swap(gHookCalls);
    return calls;
}

}  // namespace testsupport

extern "C" void TRACE_PRINTRLC_U(void* handle, int kind, const char* label, const char* text) {
    std::lock_guard<std::mutex> lock(testsupport::gHookMutex);
    testsupport::gHookCalls.push_back(
        {handle, kind, label == nullptr ? "(null)" : label, text == nullptr ? "(null)" : text});
}
