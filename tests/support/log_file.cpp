#include "log_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

const char* const ScopedLogFile::kPath = "/var/log/tezalog";

namespace {

bool IsDirectory(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

void RemovePath(const char* path) {
    if (IsDirectory(path)) {
        rmdir(path);
    } else {
        unlink(path);
    }
}

}  // namespace

ScopedLogFile::ScopedLogFile() {
    if (access(kPath, F_OK) == 0 && !IsDirectory(kPath)) {
        _hadFile = true;
        _savedContents = Contents();
    }
    Remove();
}

ScopedLogFile::~ScopedLogFile() {
    RemovePath(kPath);
    if (_hadFile) {
        std::ofstream(kPath, std::ios::binary) << _savedContents;
    }
}

void ScopedLogFile::Create() {
    RemovePath(kPath);
    std::ofstream(kPath, std::ios::binary | std::ios::trunc);
}

void ScopedLogFile::Remove() {
    RemovePath(kPath);
}

void ScopedLogFile::MakeUnwritable() {
    RemovePath(kPath);
    mkdir(kPath, 0755);
}

bool ScopedLogFile::Exists() const {
    return access(kPath, F_OK) == 0;
}

std::string ScopedLogFile::Contents() const {
    std::ifstream in(kPath, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::vector<std::string> ScopedLogFile::Messages() const {
    // Records are "pid:<n> time:<asctime without its line end> message:<message>\n"; the
    // message may itself hold line ends, so records are found by their headers.
    const std::string text = Contents();
    const std::string marker = " message:";
    std::vector<std::string> messages;
    size_t pos = 0;
    while ((pos = text.find("pid:", pos)) != std::string::npos) {
        size_t start = text.find(marker, pos);
        if (start == std::string::npos) {
            break;
        }
        start += marker.size();
        size_t next = text.find("\npid:", start);
        size_t end = next == std::string::npos ? text.size() : next + 1;
        // Drop the line end that closes the record.
        messages.push_back(text.substr(start, end - start - 1));
        pos = end;
    }
    return messages;
}
