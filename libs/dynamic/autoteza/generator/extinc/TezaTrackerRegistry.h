// TezaTrackerRegistry: every API tracker of the program, by family and API name, so that a
// program can enumerate all APIs' trace levels and counters at run time (for monitoring, see
// TezaMetricsWriter). Generated code registers each tracker it defines when its module is
// loaded and unregisters it when the module is unloaded; hand-written trackers may be
// registered the same way.
//
// Static members only; the list is guarded by `_mutex`. Any thread may register, unregister
// or read at any time.
#ifndef TEZA_TRACKER_REGISTRY_H_
#define TEZA_TRACKER_REGISTRY_H_

#include <pthread.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "TezaTracer.h"
#include "TezaUtil.h"

class TEZA_API TezaTrackerRegistry {
  public:
    // One registered tracker. The names and the tracker belong to the code that registered
    // them and stay valid until it unregisters the tracker.
    struct Entry {
        const char* family;
        const char* api;
        TezaTracer* tracker;
    };

    // The state of one tracker at the time it was read.
    struct Reading {
        std::string family;
        std::string api;
        int traceLevel;
        uint64_t successes;
        uint64_t failures;
        uint64_t flaggedSuccesses;
        uint64_t flaggedFailures;
    };

    // Adds `tracker` under `family` and `api`. A tracker already registered is left as it
    // is, and a null pointer among the three registers nothing. The three must stay valid
    // until unregisterTracker.
    static void registerTracker(const char* family, const char* api, TezaTracer* tracker);
    // Removes `tracker`; nothing happens when it is not registered.
    static void unregisterTracker(TezaTracer* tracker);

    // The registered trackers, ordered by family, then API name (byte order).
    static std::vector<Entry> getTrackers();
    // Every registered tracker's names, trace level and counts, in the order of getTrackers.
    // The trackers are read after the registry's lock is released: a tracker unregistered
    // meanwhile must stay alive until read() returns (generated trackers live until their
    // module is unloaded, after it has unregistered them).
    static std::vector<Reading> read();

    TezaTrackerRegistry() = delete;

  private:
    static pthread_mutex_t _mutex;
    // Guarded by `_mutex`; made by the first registration, freed when the last tracker is
    // unregistered, so that nothing of it outlives the modules that registered.
    static std::vector<Entry>* _entries;
};

#endif  // TEZA_TRACKER_REGISTRY_H_
