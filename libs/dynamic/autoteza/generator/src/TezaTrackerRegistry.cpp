// TezaTrackerRegistry: a plain list under one mutex. Registration happens while modules are
// loaded, before main() for most programs, so the mutex is statically initialised and the
// list is made on first use rather than by a constructor that might not have run yet.
#include "TezaTrackerRegistry.h"

#include <string.h>

#include <algorithm>

pthread_mutex_t TezaTrackerRegistry::_mutex = PTHREAD_MUTEX_INITIALIZER;
std::vector<TezaTrackerRegistry::Entry>* TezaTrackerRegistry::_entries = nullptr;

void TezaTrackerRegistry::registerTracker(const char* family, const char* api,
                                          TezaTracer* tracker) {
    // Generated code always names all three; a caller that does not has nothing to list.
    if (family == nullptr || api == nullptr || tracker == nullptr) {
        return;
    }
    TezaWrapperUtil::Monitor monitor(_mutex);
    if (_entries == nullptr) {
        _entries = new std::vector<Entry>();
    }
    for (const Entry& entry : *_entries) {
        if (entry.tracker == tracker) {
            return;
        }
    }
    _entries->push_back(Entry{family, api, tracker});
}

void TezaTrackerRegistry::unregisterTracker(TezaTracer* tracker) {
    TezaWrapperUtil::Monitor monitor(_mutex);
    if (_entries == nullptr) {
        return;
    }
    _entries->erase(
        std::remove_if(_entries->begin(), _entries->end(),
                       [tracker](const Entry& entry) { return entry.tracker == tracker; }),
        _entries->end());
    if (_entries->empty()) {
        delete _entries;
        _entries = nullptr;
    }
}

std::vector<TezaTrackerRegistry::Entry> TezaTrackerRegistry::getTrackers() {
    std::vector<Entry> entries;
    {
        TezaWrapperUtil::Monitor monitor(_mutex);
        if (_entries != nullptr) {
            entries = *_entries;
        }
    }
    std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        int family = strcmp(a.family, b.family);
        return family != 0 ? family < 0 : strcmp(a.api, b.api) < 0;
    });
    return entries;
}

std::vector<TezaTrackerRegistry::Reading> TezaTrackerRegistry::read() {
    std::vector<Reading> readings;
    // The trackers stay valid while registered; the list is copied first so that no counter's
    // mutex is taken under the registry's.
    for (const Entry& entry : getTrackers()) {
        TezaCounter& counter = entry.tracker->getCounter();
        readings.push_back(Reading{entry.family, entry.api, entry.tracker->getTraceLevel(),
                                   counter.getSuccesses(), counter.getFailures(),
                                   counter.getFlaggedSuccesses(), counter.getFlaggedFailures()});
    }
    return readings;
}
