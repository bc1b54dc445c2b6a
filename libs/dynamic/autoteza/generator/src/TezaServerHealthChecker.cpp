#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "TezaLogger.h"
#include "TezaServerHealthChecker.h"

namespace {
const char kLogPath[] = "/var/log/tezalog";
const size_t kLogBufferSize = 10240;
}  // namespace

// asctime's text of `tm`, line end included, into `out` (at least 26 bytes). asctime_r writes
// at most 26 bytes and refuses a year of five digits or more, which asctime prints; the text
// is then made in asctime's layout from that of a four-digit year, whose last four digits are
// replaced by the whole year, so that the day and month names are asctime's own.
static void __asctimeText(const struct tm& tm, char* out, size_t size) {
    if (asctime_r(&tm, out) != nullptr) {
        return;
    }
    struct tm shortYear = tm;
    shortYear.tm_year = 2000 - 1900;
    char text[26];
    if (asctime_r(&shortYear, text) == nullptr) {
        out[0] = '\0';
        return;
    }
    // "Www Mmm dd hh:mm:ss 2000\n": the year starts 5 characters before the end.
    text[strlen(text) - 5] = '\0';
    snprintf(out, size, "%s%lld\n", text, 1900LL + tm.tm_year);
}

void TezaLogger::Log(const char* format, ...) {
    // The file's existence is the switch: an administrator enables logging by creating it.
    if (access(kLogPath, F_OK) != 0) {
        return;
    }
    FILE* file = fopen(kLogPath, "a");
    if (file == nullptr) {
        return;
    }

    // The reentrant forms give the same text as localtime and asctime without their shared
    // static buffers, which concurrent callers would otherwise overwrite. localtime_r need not
    // look at TZ again once it has read it; tzset makes it, so that a change of TZ counts from
    // the next record on, as it does for localtime.
    time_t now = time(nullptr);
    tzset();
    struct tm local;
    char timeText[64] = "";
    if (localtime_r(&now, &local) != nullptr) {
        __asctimeText(local, timeText, sizeof(timeText));
    }
    char header[kLogBufferSize];
    snprintf(header, sizeof(header), "pid:%d time:%s", static_cast<int>(getpid()), timeText);
    // Drop the line end that asctime supplies.
    size_t headerLength = strlen(header);
    if (headerLength > 0) {
        header[headerLength - 1] = '\0';
    }

    char message[kLogBufferSize];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);

    fprintf(file, "%s message:%s\n", header, message);
    fclose(file);
}

// --- Node health checker registry ------------------------------------------------------------

namespace {

TezaServerHealthChecker* __healthChecker = NULL;  // not owned
// A single boolean read and written without the lock; atomic so that concurrent use is
// defined.
std::atomic<bool> __useHealtCheckerByDefault(false);
pthread_mutex_t __mutex = PTHREAD_MUTEX_INITIALIZER;

// Holds __mutex for its lifetime; a failing lock or unlock ends the process.
class __RegistryLock {
  public:
    __RegistryLock() {
        int ret = pthread_mutex_lock(&__mutex);
        TEZA_ASSERT(!ret);
    }
    ~__RegistryLock() {
        int ret = pthread_mutex_unlock(&__mutex);
        TEZA_ASSERT(!ret);
    }
    __RegistryLock(const __RegistryLock&) = delete;
    __RegistryLock& operator=(const __RegistryLock&) = delete;
};

}  // namespace

TezaServerHealthChecker::~TezaServerHealthChecker() {}

void TezaServerHealthCheckerRegistry::registerHealthChecker(TezaServerHealthChecker* checker) {
    __RegistryLock lock;
    __healthChecker = checker;
}

bool TezaServerHealthCheckerRegistry::isServerHealthy(const std::string& host) {
    // The lock is held across the check: checks are serialised and a checker cannot be
    // replaced while it runs.
    __RegistryLock lock;
    return __healthChecker == NULL || __healthChecker->isHealthy(host);
}

bool TezaServerHealthCheckerRegistry::useHealthCheckerByDefault() {
    return __useHealtCheckerByDefault.load(std::memory_order_relaxed);
}

void TezaServerHealthCheckerRegistry::setUseHealthCheckerByDefault(bool use) {
    TezaLogger::Log("setUseHealthCheckerByDefault: %d", use ? 1 : 0);
    __useHealtCheckerByDefault.store(use, std::memory_order_relaxed);
}
