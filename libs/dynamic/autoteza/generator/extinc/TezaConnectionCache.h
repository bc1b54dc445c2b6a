// TezaConnectionCache: the process-wide cache of open server handles, so that the next call to
// the same server with the same settings skips the connection set-up. A fixed pool of 100
// entries, a chained hash table of 203 buckets and a release-order list used for eviction and
// ageing; nothing is allocated after the library is loaded.
//
// Static members only; every member is guarded by `_mutex`. Client-library calls that may
// block run outside it, except the close of an evicted handle. Lock order: TezaWrapper's lock
// before `_mutex`; nothing called with `_mutex` held takes another lock of this library.
#ifndef TEZA_CONNECTION_CACHE_H_
#define TEZA_CONNECTION_CACHE_H_

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <string>

#include "TezaServerConnection.h"
#include "TezaUtil.h"
#include "rk.h"

class TEZA_API TezaConnectionCache {
  public:
    TezaConnectionCache() = delete;

    // Takes a cached handle for the key out of the cache, or returns null. A handle idle for
    // 2 seconds or more first gets `timeout` and the version probe; one that fails the probe
    // is closed and null returned. The caller owns the returned handle.
    static rk_server_t* getConnection(const std::string& host, int major, int minor,
                                      TezaServerConnection::Style style,
                                      TezaServerConnection::ServerType type,
                                      TezaServerConnection::Transport transport, int port,
                                      const std::string& login, const std::string& password,
                                      int timeout);
    // Takes over `server`: caches it, evicting (closing) the oldest handle when all 100 entries
    // are in use, or closes it when the cache is not running.
    static void releaseConnection(rk_server_t* server, const std::string& host, int major,
                                  int minor, TezaServerConnection::Style style,
                                  TezaServerConnection::ServerType type,
                                  TezaServerConnection::Transport transport, int port,
                                  const std::string& login, const std::string& password);

    // Sets the cache up; does nothing while it is set up. Called by TezaWrapper.
    static void init();
    // Closes every cached handle, oldest first; nothing enters the cache until the next init.
    static void cleanup();
    // Closes, oldest first, the handles idle for more than 60 seconds.
    static void age();
    // A thread body the host may start: probes quarantined servers on every pass and ages the
    // cache on every second pass, until cleanup. It has no sleep of its own. `arg` is ignored.
    static void* ageThread(void* arg);

  private:
    static const int kEntries = 100;
    static const int kBuckets = 203;

    struct Entry {
        // The bucket index, 0 to 202, of a key.
        static uint32_t hash(const std::string& host, int major, int minor,
                             TezaServerConnection::Style style,
                             TezaServerConnection::ServerType type,
                             TezaServerConnection::Transport transport, int port,
                             const std::string& login, const std::string& password);
        // Back to the unused state; strings are erased, keeping their storage.
        void reset();

        uint32_t hashIndex;   // the key's bucket, from hash()
        rk_server_t* server;  // owned by the cache while the entry is in use
        time_t time;          // wall-clock seconds at release
        std::string host;
        int major;
        int minor;
        TezaServerConnection::Style style;
        TezaServerConnection::ServerType type;
        TezaServerConnection::Transport transport;
        int port;
        std::string login;
        std::string password;
        Entry* hashNext;  // bucket chain; also the free list
        Entry* hashPrev;
        Entry* lruNext;  // release order, oldest first
        Entry* lruPrev;
    };

    // A scope guard over `_mutex` that can release and retake it within one scope. Unlike
    // TezaWrapperUtil::Monitor it ignores the results of lock and unlock.
    class MutexMonitor {
      public:
        explicit MutexMonitor(bool lock);
        ~MutexMonitor();
        void lock();
        void unlock();

        MutexMonitor(const MutexMonitor&) = delete;
        MutexMonitor& operator=(const MutexMonitor&) = delete;

      private:
        bool _locked;
    };

    // All REQUIRE `_mutex`.
    static rk_server_t* lookup(const std::string& host, int major, int minor,
                               TezaServerConnection::Style style,
                               TezaServerConnection::ServerType type,
                               TezaServerConnection::Transport transport, int port,
                               const std::string& login, const std::string& password, time_t& idle);
    static Entry* getAvail();
    static void insert(Entry* entry);
    static void remove(Entry* entry, bool toFreeList);

    // Guarded by `_mutex`.
    static Entry _entries[kEntries];
    static Entry* _hashTable[kBuckets];
    static Entry* _availHead;
    static Entry* _lruHead;
    static Entry* _lruTail;
    static bool _initialized;
    static bool _shutdown;
    static pthread_mutex_t _mutex;
};

#endif  // TEZA_CONNECTION_CACHE_H_
