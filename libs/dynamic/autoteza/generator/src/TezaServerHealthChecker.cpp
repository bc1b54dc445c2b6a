#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "TezaLogger.h"

namespace {
const char kLogPath[] = "/var/log/tezalog";
const size_t kLogBufferSize = 10240;
}  // namespace

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
    // static buffers, which concurrent callers would otherwise overwrite.
    time_t now = time(nullptr);
    struct tm local;
    char timeText[64] = "";
    if (localtime_r(&now, &local) != nullptr) {
        asctime_r(&local, timeText);
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
