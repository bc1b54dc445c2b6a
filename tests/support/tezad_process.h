// A tezad executable started by a test: its output goes to files, it is stopped by a signal,
// and killed at destruction if still running.
#ifndef TEZA_TESTS_TEZAD_PROCESS_H_
#define TEZA_TESTS_TEZAD_PROCESS_H_

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "test_server.h"

extern char** environ;

namespace teza_test {

// A tezad process whose output goes to files in `dir`. Killed at destruction if still
// running.
class TezadProcess {
  public:
    TezadProcess(const std::string& path, const TempDir& dir, std::vector<std::string> args)
        : _path(path), _out(dir.File("tezad.out")), _err(dir.File("tezad.err")) {
        args.insert(args.begin(), _path);
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(&arg[0]);
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, _out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_addopen(&actions, 2, _err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        if (posix_spawn(&_pid, _path.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
            _pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~TezadProcess() {
        if (_pid > 0) {
            kill(_pid, SIGKILL);
            waitpid(_pid, nullptr, 0);
        }
    }
    TezadProcess(const TezadProcess&) = delete;
    TezadProcess& operator=(const TezadProcess&) = delete;

    // The URL tezad printed, waiting up to ten seconds for it; empty if it printed none.
    std::string Url() {
        const std::string prefix = "tezad: listening on ";
        for (int i = 0; i < 1000 && _pid > 0; ++i) {
            std::string out = ReadFile(_out);
            size_t start = out.find(prefix);
            size_t end = out.find('\n', start);
            if (start != std::string::npos && end != std::string::npos) {
                return out.substr(start + prefix.size(), end - start - prefix.size());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return "";
    }
    int Port() {
        std::string url = Url();
        size_t colon = url.rfind(':');
        return colon == std::string::npos ? 0 : atoi(url.c_str() + colon + 1);
    }

    // Sends `signal` and returns the exit status, or -1 if tezad did not exit normally
    // within ten seconds.
    int Stop(int signal = SIGTERM) {
        kill(_pid, signal);
        return Wait();
    }
    int Wait() {
        for (int i = 0; i < 1000; ++i) {
            int status = 0;
            if (waitpid(_pid, &status, WNOHANG) == _pid) {
                _pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    std::string Err() const { return ReadFile(_err); }

  private:
    std::string _path;
    std::string _out;
    std::string _err;
    pid_t _pid = -1;
};

}  // namespace teza_test

#endif  // TEZA_TESTS_TEZAD_PROCESS_H_
