// Memory: allocations per invoke, bytes per cached handle and bytes per record field.
//
// This program replaces malloc and its companions with versions that count each call and
// hand it to the C library's allocator, so every allocation of the process is counted:
// the runtime's, librk's, libcurl's and OpenSSL's as well as the benchmark's own (start-up
// checks that an allocation made inside librk is seen). Heap bytes in use come from
// mallinfo2.

#include <benchmark/benchmark.h>
#include <errno.h>
#include <malloc.h>
#include <stddef.h>
#include <string.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "bench.h"
#include "bench_support.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* p);
}

namespace {

std::atomic<uint64_t> allocations{0};

void Count() {
    allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
    Count();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    Count();
    return __libc_calloc(count, size);
}

void* realloc(void* p, size_t size) {
    Count();
    return __libc_realloc(p, size);
}

void free(void* p) {
    __libc_free(p);
}

void* memalign(size_t alignment, size_t size) {
    Count();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    Count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) {
        return EINVAL;
    }
    Count();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}

}  // extern "C"

namespace teza_bench {
namespace {

const char kNode[] = "bench-memory-node";
const char kHost[] = "127.0.0.1";

uint64_t Allocations() {
    return allocations.load(std::memory_order_relaxed);
}

// Heap bytes in use, small chunks and mapped ones.
size_t HeapBytes() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void SetUp() {
    static const bool ready = [] {
        StartRuntime();
        const uint64_t before = Allocations();
        ElemPtr elem(rk_elem_new("counted"));
        if (Allocations() == before) {
            Die("allocations inside librk are not counted");
        }
        if (rk_inprocess_register(kNode, &EchoRequest, nullptr) == 0) {
            Die("cannot register the in-process server");
        }
        return true;
    }();
    (void)ready;
}

// Runs `call` for every iteration and reports the allocations per call.
template <typename F>
void CountCalls(benchmark::State& state, F call) {
    call();  // warms up what a first call sets up once (handles, caches)
    const uint64_t before = Allocations();
    for (auto _ : state) {
        if (!call()) {
            state.SkipWithError("call failed");
            return;
        }
    }
    state.counters["allocs_per_call"] =
        static_cast<double>(Allocations() - before) / static_cast<double>(state.iterations());
}

bench::Echo EchoInput() {
    bench::Echo echo;
    echo.setText("hello <world>");
    echo.setNumber(-42);
    return echo;
}

void EchoRuntime(benchmark::State& state) {
    SetUp();
    bench::BenchInterface api(Descriptor(kNode, TezaServerConnection::TRANSPORT_IN_PROCESS, 0));
    const bench::Echo input = EchoInput();
    CountCalls(state, [&] {
        bench::Echo output;
        return api.benchEcho(input, output).status == TezaStatus::Success;
    });
}

void EchoReference(benchmark::State& state) {
    SetUp();
    ServerPtr server = OpenHandle(kNode, RK_TRANSPORT_IN_PROCESS, 0);
    CountCalls(state, [&] {
        ElemPtr request(rk_elem_new("bench-echo"));
        rk_child_add_string(request.get(), "text", "hello <world>");
        rk_child_add_string(request.get(), "number", "-42");
        ElemPtr result(rk_server_invoke_elem(server.get(), request.get()));
        std::string text = DecodeEntities(rk_child_get_string(result.get(), "text"));
        benchmark::DoNotOptimize(text.data());
        return rk_results_status(result.get()) == 1;
    });
}

void ProbeHttpRuntime(benchmark::State& state) {
    SetUp();
    bench::BenchInterface api(
        Descriptor(kHost, TezaServerConnection::TRANSPORT_HTTP, Tezad::Http().port()));
    CountCalls(state, [&] {
        bench::VersionInfo version;
        return api.systemGetCorviVersion(version).status == TezaStatus::Success;
    });
}

void ProbeHttpReference(benchmark::State& state) {
    SetUp();
    ServerPtr server = OpenHandle(kHost, RK_TRANSPORT_HTTP, Tezad::Http().port());
    CountCalls(state, [&] {
        ElemPtr result(rk_server_invoke(server.get(), "system-get-corvi-version", nullptr));
        return rk_results_status(result.get()) == 1;
    });
}

// Heap bytes and allocations per connected, probed handle held by the connection cache.
// Over HTTPS the handles trust the server through librk's default CA file.
void CachedHandles(benchmark::State& state, bool tls) {
    SetUp();
    Tezad& tezad = tls ? Tezad::Https() : Tezad::Http();
    const TezaServerConnection::Transport transport =
        tls ? TezaServerConnection::TRANSPORT_HTTPS : TezaServerConnection::TRANSPORT_HTTP;
    const int handles = 50;
    if (tls && rk_set_default_ca_file(tezad.caFile().c_str()) == 0) {
        Die("rk_set_default_ca_file failed");
    }
    // Opens and probes a handle through the runtime's descriptor and hands it to the cache.
    auto cacheOne = [&]() {
        TezaServerConnection connection = Descriptor(kHost, transport, tezad.port());
        TezaStatus status = connection.newConnection();
        if (status.status != TezaStatus::Success) {
            Die("cannot connect: " + status.reason);
        }
        connection.setCachable(true);
        connection.close();
    };
    auto drain = [&]() {
        while (rk_server_t* server = TezaConnectionCache::getConnection(
                   kHost, kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                   TezaServerConnection::SERVER_TYPE_NODE, transport, tezad.port(), kLogin,
                   kPassword, 5)) {
            rk_server_close(server);
        }
    };
    for (auto _ : state) {
        // One handle first, so that what libcurl and OpenSSL set up once per process (CA
        // store, TLS library state) is not counted against the handles.
        cacheOne();
        drain();
        malloc_trim(0);
        const size_t bytesBefore = HeapBytes();
        const uint64_t allocsBefore = Allocations();
        for (int i = 0; i < handles; ++i) {
            cacheOne();
        }
        const size_t bytesAfter = HeapBytes();
        const uint64_t allocsAfter = Allocations();
        drain();
        state.counters["bytes_per_handle"] =
            static_cast<double>(bytesAfter - bytesBefore) / handles;
        state.counters["allocs_per_handle"] =
            static_cast<double>(allocsAfter - allocsBefore) / handles;
    }
}

// Heap bytes per field of `count` values made by `make`, whose fields number `fields` each.
template <typename T, typename F>
void BytesPerField(benchmark::State& state, int count, int fields, F make) {
    SetUp();
    for (auto _ : state) {
        malloc_trim(0);
        std::vector<std::unique_ptr<T>> values;
        values.reserve(count);
        const size_t reserved = HeapBytes();
        for (int i = 0; i < count; ++i) {
            values.push_back(make());
        }
        const size_t after = HeapBytes();
        state.counters["bytes_per_field"] =
            static_cast<double>(after - reserved) / (static_cast<double>(count) * fields);
    }
}

struct Tree {
    ElemPtr elem;
};

void Record20Record(benchmark::State& state) {
    const Record20Data data = MakeRecord20Data();
    BytesPerField<bench::Record20>(
        state, 1000, 20, [&] { return std::make_unique<bench::Record20>(ToRecord(data)); });
}

void Record20Plain(benchmark::State& state) {
    const Record20Data data = MakeRecord20Data();
    BytesPerField<Record20Data>(state, 1000, 20,
                                [&] { return std::make_unique<Record20Data>(data); });
}

void Record20Tree(benchmark::State& state) {
    const Record20Data data = MakeRecord20Data();
    BytesPerField<Tree>(state, 1000, 20, [&] {
        auto tree = std::make_unique<Tree>();
        tree->elem.reset(rk_elem_new("record20"));
        WriteRecord20(tree->elem.get(), data);
        return tree;
    });
}

// Items of the large case: four fields each, 10,000 items in one record.
void ItemsRecord(benchmark::State& state) {
    const std::vector<ItemData> items = MakeItems(10000);
    BytesPerField<bench::Batch>(state, 1, 40000,
                                [&] { return std::make_unique<bench::Batch>(ToBatch(items)); });
}

void ItemsPlain(benchmark::State& state) {
    const std::vector<ItemData> items = MakeItems(10000);
    BytesPerField<std::vector<ItemData>>(
        state, 1, 40000, [&] { return std::make_unique<std::vector<ItemData>>(items); });
}

void ItemsTree(benchmark::State& state) {
    const std::vector<ItemData> items = MakeItems(10000);
    BytesPerField<Tree>(state, 1, 40000, [&] {
        auto tree = std::make_unique<Tree>();
        tree->elem.reset(rk_elem_new("batch"));
        WriteBatch(tree->elem.get(), items);
        return tree;
    });
}

BENCHMARK(EchoRuntime)->Name("memory/allocs_echo_inprocess/runtime");
BENCHMARK(EchoReference)->Name("memory/allocs_echo_inprocess/reference");
BENCHMARK(ProbeHttpRuntime)->Name("memory/allocs_probe_http/runtime")->Iterations(2000);
BENCHMARK(ProbeHttpReference)->Name("memory/allocs_probe_http/reference")->Iterations(2000);
BENCHMARK_CAPTURE(CachedHandles, http, false)->Name("memory/cached_handle/http")->Iterations(1);
BENCHMARK_CAPTURE(CachedHandles, https, true)->Name("memory/cached_handle/https")->Iterations(1);
BENCHMARK(Record20Record)->Name("memory/record20_field/runtime")->Iterations(1);
BENCHMARK(Record20Plain)->Name("memory/record20_field/plain")->Iterations(1);
BENCHMARK(Record20Tree)->Name("memory/record20_field/tree")->Iterations(1);
BENCHMARK(ItemsRecord)->Name("memory/item_field/runtime")->Iterations(1);
BENCHMARK(ItemsPlain)->Name("memory/item_field/plain")->Iterations(1);
BENCHMARK(ItemsTree)->Name("memory/item_field/tree")->Iterations(1);

}  // namespace
}  // namespace teza_bench
