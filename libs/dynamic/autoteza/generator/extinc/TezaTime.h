// TezaTime: the wall-clock time at which it was made. TezaTiming holds the size limit of
// timing tables kept by generated code. Plain values; one thread uses a TezaTime at a time.
#ifndef TEZA_TIME_H_
#define TEZA_TIME_H_

#include <stdint.h>
#include <sys/time.h>

#include "TezaUtil.h"

class TEZA_API TezaTime {
  public:
    // Takes the time with gettimeofday; the value starts at 0.
    TezaTime();
    virtual ~TezaTime();

    const struct timeval& getTimeval() const { return _time; }
    int64_t getValue() const { return _value; }

  private:
    struct timeval _time;
    int64_t _value;
};

class TEZA_API TezaTiming {
  public:
    TezaTiming() = delete;

    // Exported for generated code; the runtime itself does not read it.
    static const int MAX_ENTRIES = 5000;
};

#endif  // TEZA_TIME_H_
