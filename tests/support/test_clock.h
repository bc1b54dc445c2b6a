// A controllable wall clock for the runtime under test. Linking test_clock.cpp into a test
// executable defines gettimeofday and time there; the executable exports them, so the dynamic
// linker binds the runtime's calls to these definitions. Until a test freezes it, the clock
// reads the real time. Thread-safe.
#ifndef TEZA_TESTS_TEST_CLOCK_H_
#define TEZA_TESTS_TEST_CLOCK_H_

#include <time.h>

namespace testclock {

// From now on gettimeofday gives {seconds, 0} and time gives `seconds`.
void Freeze(time_t seconds);
// Moves a frozen clock forward (or back, for a negative count).
void Advance(time_t seconds);
// Back to the real clock; also forgets scripted failures.
void UseRealClock();
// The next `times` calls of gettimeofday fail: they return -1 with errno EFAULT.
void FailGettimeofday(int times = 1);
// What time() gives now.
time_t Now();

}  // namespace testclock

#endif  // TEZA_TESTS_TEST_CLOCK_H_
