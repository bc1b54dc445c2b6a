// TezaLogger: short operational records appended to "/var/log/tezalog". Logging is on while
// that file exists; the library never creates it. Static members only; no lock: each record
// is appended by its own open, write and close.
#ifndef TEZA_LOGGER_H_
#define TEZA_LOGGER_H_

#include "TezaUtil.h"

class TEZA_API TezaLogger {
  public:
    TezaLogger() = delete;

    // printf-style. Writes "pid:<pid> time:<local time> message:<message>\n" when the log
    // file exists and can be opened for appending; otherwise does nothing. Messages longer
    // than 10239 characters are cut. Never fails visibly.
    static void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

#endif  // TEZA_LOGGER_H_
