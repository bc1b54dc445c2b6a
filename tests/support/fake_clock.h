// A controllable wall clock for tests of time-stamped output. fake_clock.cpp defines the C
// library's `time` and `strftime` in the test executable; executables export their symbols,
// so the runtime's calls bind to these definitions. Without a fixed time, `time` reads the
// real clock and `strftime` forwards to the C library.
//
// Link fake_clock.cpp into the executable itself (the teza_fake_clock object library), never
// through a static library, whose object would not be pulled in for `time`.
#ifndef TEZA_TESTS_FAKE_CLOCK_H_
#define TEZA_TESTS_FAKE_CLOCK_H_

#include <time.h>

namespace testsupport {

// Seconds since the epoch of the given UTC date and time.
time_t UtcTime(int year, int month, int day, int hour, int minute, int second);

// While it lives, `time` returns `now` in every thread; its end brings back the clock that
// was in force before it.
class ScopedFixedTime {
  public:
    explicit ScopedFixedTime(time_t now);
    ~ScopedFixedTime();

    ScopedFixedTime(const ScopedFixedTime&) = delete;
    ScopedFixedTime& operator=(const ScopedFixedTime&) = delete;

  private:
    bool _wasFixed;
    time_t _previous;
};

// From now on every `strftime` call returns 0 (a result that does not fit the buffer). Meant
// for the child process of a death test; there is no way back.
void FailStrftime();

}  // namespace testsupport

#endif  // TEZA_TESTS_FAKE_CLOCK_H_
