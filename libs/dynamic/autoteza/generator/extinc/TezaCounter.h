// TezaCounter: the success and failure counts of one API, held by its tracker. Any thread may
// count or read; the four counts are guarded by `_mutex`.
#ifndef TEZA_COUNTER_H_
#define TEZA_COUNTER_H_

#include <pthread.h>
#include <stdint.h>

#include "TezaUtil.h"

class TEZA_API TezaCounter {
  public:
    TezaCounter();
    ~TezaCounter();

    TezaCounter(const TezaCounter&) = delete;
    TezaCounter& operator=(const TezaCounter&) = delete;

    // Counts one success (or failure); a true flag also counts it among the flagged ones. The
    // runtime itself always passes false.
    void success(bool flag);
    void failure(bool flag);

    uint64_t getSuccesses() const;
    uint64_t getFailures() const;
    uint64_t getFlaggedSuccesses() const;
    uint64_t getFlaggedFailures() const;

  private:
    // Guarded by `_mutex`.
    uint64_t _successes;
    uint64_t _failures;
    uint64_t _flaggedSuccesses;
    uint64_t _flaggedFailures;

    mutable pthread_mutex_t _mutex;
};

#endif  // TEZA_COUNTER_H_
