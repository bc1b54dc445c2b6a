#include "TezaConnectionCache.h"

#include <sys/time.h>

#include "TezaLogger.h"

namespace {

const char kVersionProbe[] = "system-get-corvi-version";

// A handle idle for this long or longer is probed before it is handed out.
const time_t kProbeAfterIdle = 2;
// A handle idle for longer than this is closed by age().
const time_t kMaxIdle = 60;

// What an unused entry's time reads: a 32-bit -1 widened without sign.
const time_t kResetTime = static_cast<time_t>(static_cast<uint32_t>(-1));

time_t __now() {
    struct timeval now;
    int ret = gettimeofday(&now, NULL);
    TEZA_ASSERT(!ret);
    return now.tv_sec;
}

void __closeServer(rk_server_t* server) {
    int ret = rk_server_close(server);
    TEZA_ASSERT(ret);
}

// h = h * 31 + byte over the bytes, taken as unsigned. Four bytes go in one step,
// h * 31^4 + b0 * 31^3 + b1 * 31^2 + b2 * 31 + b3, the same value modulo 2^32 in fewer
// instructions; the bytes left over go one at a time.
uint32_t __hashBytes(uint32_t h, const std::string& bytes) {
    const unsigned char* byte = reinterpret_cast<const unsigned char*>(bytes.data());
    size_t left = bytes.size();
    for (; left >= 4; left -= 4, byte += 4) {
        h = h * 923521u + byte[0] * 29791u + byte[1] * 961u + byte[2] * 31u + byte[3];
    }
    for (; left > 0; --left, ++byte) {
        h = h * 31u + *byte;
    }
    return h;
}

}  // namespace

TezaConnectionCache::Entry TezaConnectionCache::_entries[TezaConnectionCache::kEntries];
TezaConnectionCache::Entry* TezaConnectionCache::_hashTable[TezaConnectionCache::kBuckets];
TezaConnectionCache::Entry* TezaConnectionCache::_availHead = NULL;
TezaConnectionCache::Entry* TezaConnectionCache::_lruHead = NULL;
TezaConnectionCache::Entry* TezaConnectionCache::_lruTail = NULL;
bool TezaConnectionCache::_initialized = false;
bool TezaConnectionCache::_shutdown = false;
pthread_mutex_t TezaConnectionCache::_mutex = PTHREAD_MUTEX_INITIALIZER;

// --- Entry ------------------------------------------------------------------------------------

uint32_t TezaConnectionCache::Entry::hash(const std::string& host, int major, int minor,
                                          TezaServerConnection::Style style,
                                          TezaServerConnection::ServerType type,
                                          TezaServerConnection::Transport transport, int port,
                                          const std::string& login, const std::string& password) {
    // Unsigned arithmetic wraps modulo 2^32.
    uint32_t h = __hashBytes(0, host);
    const int32_t numbers[] = {major, minor, style, type, transport, port};
    for (int32_t number : numbers) {
        h = h * 31 + static_cast<uint32_t>(number);
    }
    h = __hashBytes(h, login);
    h = __hashBytes(h, password);
    return h % static_cast<uint32_t>(kBuckets);
}

void TezaConnectionCache::Entry::reset() {
    // style, type and transport are left as they were.
    hashIndex = UINT32_MAX;
    server = NULL;
    time = kResetTime;
    host.clear();
    major = -1;
    minor = -1;
    port = -1;
    login.clear();
    password.clear();
    hashNext = NULL;
    hashPrev = NULL;
    lruNext = NULL;
    lruPrev = NULL;
}

// --- MutexMonitor -----------------------------------------------------------------------------

TezaConnectionCache::MutexMonitor::MutexMonitor(bool lock) : _locked(false) {
    if (lock) {
        this->lock();
    }
}

TezaConnectionCache::MutexMonitor::~MutexMonitor() {
    unlock();
}

void TezaConnectionCache::MutexMonitor::lock() {
    if (!_locked) {
        pthread_mutex_lock(&_mutex);
        _locked = true;
    }
}

void TezaConnectionCache::MutexMonitor::unlock() {
    if (_locked) {
        pthread_mutex_unlock(&_mutex);
        _locked = false;
    }
}

// --- Lists ------------------------------------------------------------------------------------

void TezaConnectionCache::insert(Entry* entry) {
    entry->lruPrev = _lruTail;
    entry->lruNext = NULL;
    if (_lruTail != NULL) {
        _lruTail->lruNext = entry;
    } else {
        _lruHead = entry;
    }
    _lruTail = entry;

    Entry*& bucket = _hashTable[entry->hashIndex];
    entry->hashPrev = NULL;
    entry->hashNext = bucket;
    if (bucket != NULL) {
        bucket->hashPrev = entry;
    }
    bucket = entry;
}

void TezaConnectionCache::remove(Entry* entry, bool toFreeList) {
    if (entry->lruPrev != NULL) {
        entry->lruPrev->lruNext = entry->lruNext;
    } else {
        _lruHead = entry->lruNext;
    }
    if (entry->lruNext != NULL) {
        entry->lruNext->lruPrev = entry->lruPrev;
    } else {
        _lruTail = entry->lruPrev;
    }

    if (entry->hashPrev != NULL) {
        entry->hashPrev->hashNext = entry->hashNext;
    } else {
        _hashTable[entry->hashIndex] = entry->hashNext;
    }
    if (entry->hashNext != NULL) {
        entry->hashNext->hashPrev = entry->hashPrev;
    }

    entry->reset();
    if (toFreeList) {
        entry->hashNext = _availHead;
        _availHead = entry;
    }
}

TezaConnectionCache::Entry* TezaConnectionCache::getAvail() {
    if (_availHead != NULL) {
        Entry* entry = _availHead;
        _availHead = entry->hashNext;
        entry->hashNext = NULL;
        return entry;
    }
    // All entries are in use: evict the oldest. Its handle is closed with the lock held.
    Entry* entry = _lruHead;
    if (entry == NULL) {
        return NULL;
    }
    rk_server_t* server = entry->server;
    remove(entry, false);
    if (server != NULL) {
        __closeServer(server);
    }
    return entry;
}

rk_server_t* TezaConnectionCache::lookup(const std::string& host, int major, int minor,
                                         TezaServerConnection::Style style,
                                         TezaServerConnection::ServerType type,
                                         TezaServerConnection::Transport transport, int port,
                                         const std::string& login, const std::string& password,
                                         time_t& idle) {
    uint32_t bucket =
        Entry::hash(host, major, minor, style, type, transport, port, login, password);
    // Only host and version are compared: within one bucket a handle opened with other
    // settings for the same host and version can match. The newest release comes first.
    for (Entry* entry = _hashTable[bucket]; entry != NULL; entry = entry->hashNext) {
        if (entry->host == host && entry->major == major && entry->minor == minor) {
            idle = __now() - entry->time;
            rk_server_t* server = entry->server;
            remove(entry, true);
            return server;
        }
    }
    return NULL;
}

// --- Operations -------------------------------------------------------------------------------

rk_server_t* TezaConnectionCache::getConnection(const std::string& host, int major, int minor,
                                                TezaServerConnection::Style style,
                                                TezaServerConnection::ServerType type,
                                                TezaServerConnection::Transport transport, int port,
                                                const std::string& login,
                                                const std::string& password, int timeout) {
    rk_server_t* server = NULL;
    time_t idle = 0;
    {
        MutexMonitor monitor(true);
        if (_initialized && !_shutdown) {
            server =
                lookup(host, major, minor, style, type, transport, port, login, password, idle);
        }
    }
    if (server == NULL || idle < kProbeAfterIdle) {
        return server;
    }

    // The probe runs outside the lock; the time-out it sets stays on the handle.
    int ret = rk_server_set_timeout(server, timeout);
    TEZA_ASSERT(ret);
    rk_elem_t* out = rk_server_invoke(server, kVersionProbe, static_cast<const char*>(NULL));
    bool passed = rk_results_status(out) == 1;
    rk_elem_free(out);
    if (!passed) {
        __closeServer(server);
        return NULL;
    }
    return server;
}

void TezaConnectionCache::releaseConnection(rk_server_t* server, const std::string& host, int major,
                                            int minor, TezaServerConnection::Style style,
                                            TezaServerConnection::ServerType type,
                                            TezaServerConnection::Transport transport, int port,
                                            const std::string& login, const std::string& password) {
    // The key's bucket needs no lock.
    const uint32_t hashIndex =
        Entry::hash(host, major, minor, style, type, transport, port, login, password);
    MutexMonitor monitor(true);
    if (_initialized && !_shutdown) {
        Entry* entry = getAvail();
        if (entry != NULL) {
            // Handles for one key are not deduplicated: several may be cached at once.
            entry->hashIndex = hashIndex;
            entry->server = server;
            entry->time = __now();
            entry->host = host;
            entry->major = major;
            entry->minor = minor;
            entry->style = style;
            entry->type = type;
            entry->transport = transport;
            entry->port = port;
            entry->login = login;
            entry->password = password;
            insert(entry);
            return;
        }
    }
    monitor.unlock();
    __closeServer(server);
}

void TezaConnectionCache::age() {
    for (;;) {
        time_t now = __now();
        rk_server_t* server = NULL;
        {
            MutexMonitor monitor(true);
            if (_initialized && !_shutdown && _lruHead != NULL && _lruHead->time < now - kMaxIdle) {
                server = _lruHead->server;
                remove(_lruHead, true);
            }
        }
        if (server == NULL) {
            return;
        }
        __closeServer(server);
    }
}

void* TezaConnectionCache::ageThread(void*) {
    // The loop has no sleep of its own: it runs at the pace of probeQuarantinedServers.
    MutexMonitor monitor(true);
    unsigned long pass = 0;
    while (!_shutdown) {
        monitor.unlock();
        TezaServerConnection::probeQuarantinedServers();
        if (pass % 2 == 0) {
            age();
        }
        ++pass;
        monitor.lock();
    }
    monitor.unlock();
    return NULL;
}

void TezaConnectionCache::init() {
    MutexMonitor monitor(true);
    if (_initialized) {
        return;
    }
    TezaLogger::Log("Initializing TezaConnectionCache\n");
    _shutdown = false;
    _lruHead = NULL;
    _lruTail = NULL;
    // Entry 0 ends the free list and entry 99 heads it.
    _entries[0].reset();
    _availHead = &_entries[0];
    for (int i = 1; i < kEntries; ++i) {
        _entries[i].reset();
        _entries[i].hashNext = _availHead;
        _availHead = &_entries[i];
    }
    for (int i = 0; i < kBuckets; ++i) {
        _hashTable[i] = NULL;
    }
    _initialized = true;
}

void TezaConnectionCache::cleanup() {
    MutexMonitor monitor(true);
    if (!_initialized || _shutdown) {
        return;
    }
    TezaLogger::Log("Shutting down TezaConnectionCache\n");
    _shutdown = true;
    // Let threads waiting for the lock see the flag.
    monitor.unlock();
    monitor.lock();
    while (_lruHead != NULL) {
        rk_server_t* server = _lruHead->server;
        remove(_lruHead, false);
        monitor.unlock();
        __closeServer(server);
        monitor.lock();
    }
    _initialized = false;
}
