// Test access to the log file "/var/log/tezalog". Tests that use it carry the CTest resource
// lock "tezalog" so that they never run at the same time.
#ifndef TEZA_TESTS_LOG_FILE_H_
#define TEZA_TESTS_LOG_FILE_H_

#include <string>
#include <vector>

// Saves whatever stands at the log path, lets the test create, empty or remove the log, and
// puts the saved state back when destroyed.
class ScopedLogFile {
  public:
    static const char* const kPath;

    ScopedLogFile();
    ~ScopedLogFile();
    ScopedLogFile(const ScopedLogFile&) = delete;
    ScopedLogFile& operator=(const ScopedLogFile&) = delete;

    // An empty log file: logging on.
    void Create();
    // No log file: logging off.
    void Remove();
    // A directory in place of the file: it exists but cannot be opened for appending (the
    // tests run as root, who may write to any file).
    void MakeUnwritable();
    bool Exists() const;
    std::string Contents() const;
    // The messages of the records written so far (the text after " message:" up to the
    // record's final line end).
    std::vector<std::string> Messages() const;

  private:
    bool _hadFile = false;
    std::string _savedContents;
};

#endif  // TEZA_TESTS_LOG_FILE_H_
