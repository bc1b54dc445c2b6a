// TezaFanOut: the workers take the servers in list order from one shared index, so a call
// never waits for a free worker while another is idle and the order of starting follows the
// list. Each result slot is written by the one worker that took its index; joining the
// workers publishes them to the caller.
#include "TezaFanOut.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <string>
#include <thread>

namespace {

// Shared by the workers of one run.
struct FanOutRun {
    FanOutRun(const std::vector<TezaServerConnection>& list, const TezaFanOut::Call& function,
              const TezaFanOut::Options& settings, std::vector<TezaStatus>& statuses)
        : servers(list),
          call(function),
          options(settings),
          results(statuses),
          start(std::chrono::steady_clock::now()) {}

    const std::vector<TezaServerConnection>& servers;
    const TezaFanOut::Call& call;
    const TezaFanOut::Options& options;
    std::vector<TezaStatus>& results;
    const std::chrono::steady_clock::time_point start;

    std::atomic<size_t> next{0};

    std::mutex progressMutex;
    size_t done = 0;    // guarded by progressMutex
    size_t failed = 0;  // guarded by progressMutex
};

bool __deadlinePassed(const FanOutRun& run) {
    return run.options.deadline.count() > 0 &&
           std::chrono::steady_clock::now() - run.start >= run.options.deadline;
}

TezaStatus __callOne(const FanOutRun& run, size_t index) {
    try {
        // A copy per call: the call's interface object copies it again, and a descriptor is
        // used by one thread at a time.
        TezaServerConnection server(run.servers[index]);
        return run.call(server, index);
    } catch (const std::exception& e) {
        return TezaStatus(TezaStatus::ConnectionFailed,
                          std::string("call failed with an exception: ") + e.what(),
                          TezaFanOut::ERRNUM_EXCEPTION);
    } catch (...) {
        return TezaStatus(TezaStatus::ConnectionFailed,
                          "call failed with an exception: unknown exception",
                          TezaFanOut::ERRNUM_EXCEPTION);
    }
}

void __work(FanOutRun* run) {
    const size_t total = run->servers.size();
    for (;;) {
        const size_t index = run->next.fetch_add(1, std::memory_order_relaxed);
        if (index >= total) {
            return;
        }
        TezaStatus status = __deadlinePassed(*run)
                                ? TezaStatus(TezaStatus::ConnectionFailed,
                                             "not run: deadline passed", TezaFanOut::ERRNUM_NOT_RUN)
                                : __callOne(*run, index);
        const bool failed = status.status != TezaStatus::Success;
        run->results[index] = std::move(status);

        std::lock_guard<std::mutex> lock(run->progressMutex);
        ++run->done;
        if (failed) {
            ++run->failed;
        }
        if (run->options.progress) {
            run->options.progress(run->done, run->failed, total);
        }
    }
}

}  // namespace

std::vector<TezaStatus> TezaFanOut::run(const std::vector<TezaServerConnection>& servers,
                                        const Call& call, const Options& options) {
    std::vector<TezaStatus> results(servers.size());
    if (servers.empty()) {
        return results;
    }
    FanOutRun state(servers, call, options, results);
    size_t workers = options.parallel == 0 ? 1 : options.parallel;
    if (workers > servers.size()) {
        workers = servers.size();
    }
    // The calling thread is one of the workers, so a run with one worker starts no thread.
    std::vector<std::thread> threads;
    threads.reserve(workers - 1);
    for (size_t i = 1; i < workers; ++i) {
        threads.emplace_back(__work, &state);
    }
    __work(&state);
    for (std::thread& thread : threads) {
        thread.join();
    }
    return results;
}
