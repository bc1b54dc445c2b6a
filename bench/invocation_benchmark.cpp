// Invocation overhead: a call through a generated interface (TezaInterface::invoke: tag,
// tracker, tracing at level 0, counters, the connection cache and the record mapping) to an
// in-process server, against the same call made with bare rk_ calls on a handle that stays
// open. The server is a minimal in-process handler that echoes the request's children, so
// that the client's share of the time is as large as it can be.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "TezaInterface.h"
#include "bench.h"
#include "bench_support.h"

namespace teza_bench {
namespace {

const char kNode[] = "bench-echo-node";

void SetUp() {
    static const bool registered = [] {
        StartRuntime();
        if (rk_inprocess_register(kNode, &EchoRequest, nullptr) == 0) {
            Die("cannot register the in-process server");
        }
        return true;
    }();
    (void)registered;
}

bench::Echo Request() {
    bench::Echo echo;
    echo.setText("hello <world>");
    echo.setNumber(-42);
    return echo;
}

void EchoRuntime(benchmark::State& state) {
    SetUp();
    bench::BenchInterface api(Descriptor(kNode, TezaServerConnection::TRANSPORT_IN_PROCESS, 0));
    const bench::Echo input = Request();
    for (auto _ : state) {
        bench::Echo output;
        TezaStatus status = api.benchEcho(input, output);
        if (status.status != TezaStatus::Success) {
            state.SkipWithError(status.reason.c_str());
            break;
        }
        benchmark::DoNotOptimize(&output);
    }
}

// The same exchange by hand: the request built with rk_ calls, sent on a handle opened (and
// probed) once, and the answer read into plain values.
void EchoReference(benchmark::State& state) {
    SetUp();
    ServerPtr server = OpenHandle(kNode, RK_TRANSPORT_IN_PROCESS, 0);
    if (!Probe(server.get())) {
        state.SkipWithError("probe failed");
        return;
    }
    for (auto _ : state) {
        ElemPtr request(rk_elem_new("bench-echo"));
        rk_child_add_string(request.get(), "text", "hello <world>");
        rk_child_add_string(request.get(), "number", "-42");
        ElemPtr result(rk_server_invoke_elem(server.get(), request.get()));
        if (rk_results_status(result.get()) != 1) {
            state.SkipWithError(rk_results_reason(result.get()));
            break;
        }
        std::string text = DecodeEntities(rk_child_get_string(result.get(), "text"));
        int number =
            static_cast<int>(strtol(rk_child_get_string(result.get(), "number"), nullptr, 10));
        benchmark::DoNotOptimize(text.data());
        benchmark::DoNotOptimize(number);
    }
}

// No input, no output: the frame alone around rk_server_invoke.
void PingRuntime(benchmark::State& state) {
    SetUp();
    bench::BenchInterface api(Descriptor(kNode, TezaServerConnection::TRANSPORT_IN_PROCESS, 0));
    for (auto _ : state) {
        TezaStatus status = api.benchPing();
        if (status.status != TezaStatus::Success) {
            state.SkipWithError(status.reason.c_str());
            break;
        }
    }
}

void PingReference(benchmark::State& state) {
    SetUp();
    ServerPtr server = OpenHandle(kNode, RK_TRANSPORT_IN_PROCESS, 0);
    if (!Probe(server.get())) {
        state.SkipWithError("probe failed");
        return;
    }
    for (auto _ : state) {
        ElemPtr result(rk_server_invoke(server.get(), "bench-ping", nullptr));
        if (rk_results_status(result.get()) != 1) {
            state.SkipWithError(rk_results_reason(result.get()));
            break;
        }
    }
}

// What the frame's log messages cost while logging is off: each checks that the log file
// exists, and a call through the cache writes six of them.
void LogChecks(benchmark::State& state) {
    for (auto _ : state) {
        for (int i = 0; i < 6; ++i) {
            benchmark::DoNotOptimize(access("/var/log/tezalog", F_OK));
        }
    }
}

BENCHMARK(EchoRuntime)->Name("invocation/echo_inprocess/runtime");
BENCHMARK(EchoReference)->Name("invocation/echo_inprocess/reference");
BENCHMARK(PingRuntime)->Name("invocation/ping_inprocess/runtime");
BENCHMARK(PingReference)->Name("invocation/ping_inprocess/reference");
BENCHMARK(LogChecks)->Name("invocation/log_checks/six");

}  // namespace
}  // namespace teza_bench
