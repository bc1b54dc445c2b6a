// A strftime that can be made to fail. Linking strftime_failure.cpp into a test executable
// defines strftime there; the executable exports it, so the dynamic linker binds the
// runtime's calls to it. Until FailStrftime is called it forwards to the C library's.
#ifndef TEZA_TESTS_STRFTIME_FAILURE_H_
#define TEZA_TESTS_STRFTIME_FAILURE_H_

namespace testsupport {

// From now on every strftime call returns 0, as for a text that does not fit the buffer.
// Meant for the child process of a death test; there is no way back.
void FailStrftime();

}  // namespace testsupport

#endif  // TEZA_TESTS_STRFTIME_FAILURE_H_
