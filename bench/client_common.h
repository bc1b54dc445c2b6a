// What the client comparison's programs share (teza_bench_clients and the gRPC reference
// teza_bench_grpc): the workload, the checks of each answer, the timing of a client run and
// its one-line JSON report. Header-only, standard library and POSIX only.
#ifndef TEZA_BENCH_CLIENT_COMMON_H_
#define TEZA_BENCH_CLIENT_COMMON_H_

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace teza_bench {

// The values of call `i` of client thread `thread`: every call sends a new request.
struct CallValues {
    std::string requestId;
    std::string userName;
    std::string email;
    int32_t age;
    int64_t accountId;
    bool active;
    std::string street;
    std::string city;
    int32_t zip;
    std::string tags[5];
    int32_t priority;
    std::string note;

    CallValues(int thread, long i)
        : requestId("req-" + std::to_string(thread) + "-" + std::to_string(i)),
          userName("user-" + std::to_string(i % 1000)),
          email("user-" + std::to_string(i % 1000) + "@example.org"),
          age(static_cast<int32_t>(20 + i % 50)),
          accountId(1000000000000LL + i),
          active(i % 2 == 0),
          street(std::to_string(i % 300) + " Main Street"),
          city("City " + std::to_string(i % 7)),
          zip(static_cast<int32_t>(10000 + i % 90000)),
          priority(static_cast<int32_t>(i % 10)),
          note("a & b < c, call " + std::to_string(i)) {
        for (int k = 0; k < 5; ++k) {
            tags[k] = "tag-" + std::to_string(k) + "-" + std::to_string(i % 10);
        }
    }
};

// The answer every side's server computes from a request (tezad's bench-call, the gRPC
// reference's server), and against which every client checks what it received.
struct ExpectedAnswer {
    std::string requestId;
    std::string status;
    int32_t code;
    int64_t processedAt;
    bool accepted;
    std::string summaryName;
    std::string summaryCity;
    int32_t tagCount;
    std::string labels[5];
    int32_t score;
    std::string message;

    explicit ExpectedAnswer(const CallValues& v)
        : requestId(v.requestId),
          status("accepted for " + v.userName),
          code(v.age + v.priority),
          processedAt(v.accountId + 1000),
          accepted(v.active),
          summaryName(v.userName),
          summaryCity(v.city),
          tagCount(5),
          score(v.zip % 1000 + v.priority),
          message("note: " + v.note) {
        for (int k = 0; k < 5; ++k) {
            labels[k] = "label-" + v.tags[k];
        }
    }
};

[[noreturn]] inline void Fail(const std::string& message) {
    fprintf(stderr, "%s\n", message.c_str());
    exit(1);
}

inline double NowMicros() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

inline double CpuMicros() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
}

// A client thread: makes `calls` calls numbered from `first`; returns false (with a message on
// stderr) when one fails or its answer is wrong. `latencies` receives one entry per call.
using ClientLoop =
    std::function<bool(int thread, long first, long calls, std::vector<double>* latencies)>;

// Runs `threads` client threads (each set up by `makeLoop` in its own thread, which must not
// call yet), first `warmup` calls each untimed (in their threads), then `calls` calls each, timed;
// prints one JSON line: the side, threads, calls, p50 and p99 in µs, calls per second, the
// process's CPU time (user + system, every thread of the process) per call in µs and the extra
// fields given.
inline void RunClients(const std::string& side, int threads, long calls, long warmup,
                       const std::function<ClientLoop()>& makeLoop,
                       const std::string& extraJson = std::string()) {
    std::vector<std::vector<double>> latencies(threads);
    std::vector<ClientLoop> loops;
    for (int t = 0; t < threads; ++t) {
        loops.push_back(makeLoop());
    }
    // Every thread warms up (its connection made, its handle cached) before the clock starts.
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> running;
    std::vector<char> ok(threads, 0);
    for (int t = 0; t < threads; ++t) {
        latencies[t].reserve(calls);
        running.emplace_back([&, t] {
            std::vector<double> unused;
            const bool warm = loops[t](t, 0, warmup, &unused);
            ready.fetch_add(1);
            while (!go.load()) {
                std::this_thread::yield();
            }
            ok[t] = warm && loops[t](t, warmup, calls, &latencies[t]) ? 1 : 0;
        });
    }
    while (ready.load() < threads) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const double cpu0 = CpuMicros();
    const double wall0 = NowMicros();
    go.store(true);
    for (std::thread& thread : running) {
        thread.join();
    }
    const double wall = NowMicros() - wall0;
    const double cpu = CpuMicros() - cpu0;
    std::vector<double> all;
    for (int t = 0; t < threads; ++t) {
        if (!ok[t]) {
            Fail(side + ": a call failed");
        }
        all.insert(all.end(), latencies[t].begin(), latencies[t].end());
    }
    std::sort(all.begin(), all.end());
    const double total = static_cast<double>(all.size());
    auto percentile = [&](double p) {
        return all[std::min(all.size() - 1, static_cast<size_t>(p * total))];
    };
    printf(
        "{\"side\": \"%s\", \"threads\": %d, \"calls\": %ld, \"p50_us\": %.2f, "
        "\"p99_us\": %.2f, \"calls_per_s\": %.1f, \"cpu_us_per_call\": %.2f%s}\n",
        side.c_str(), threads, static_cast<long>(all.size()), percentile(0.5), percentile(0.99),
        total / (wall / 1e6), cpu / total, extraJson.c_str());
    fflush(stdout);
}

}  // namespace teza_bench

#endif  // TEZA_BENCH_CLIENT_COMMON_H_
