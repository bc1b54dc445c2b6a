// Connection cache: calls to a tezad child process on loopback through a generated
// interface, whose descriptor hands its handle to the connection cache after each call and
// finds it there for the next, against the same calls made with a fresh handle each time:
// the cache is emptied after every call, so that the descriptor's next open connects, probes
// the new connection with the version call, and the handle is closed after its one call.
// Both sides take the runtime's own path. Over HTTPS the server has a self-signed
// certificate, which the handles trust through librk's process-wide default CA file. Last, a
// fresh HTTPS handle with TLS session resumption against the same with it turned off.

#include <benchmark/benchmark.h>

#include "TezaConnectionCache.h"
#include "bench.h"
#include "bench_support.h"

namespace teza_bench {
namespace {

const char kHost[] = "127.0.0.1";

// Takes the descriptor's handles out of the cache and closes them; returns how many.
int Drain(TezaServerConnection::Transport transport, int port) {
    int count = 0;
    while (rk_server_t* server = TezaConnectionCache::getConnection(
               kHost, kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
               TezaServerConnection::SERVER_TYPE_NODE, transport, port, kLogin, kPassword, 5)) {
        rk_server_close(server);
        ++count;
    }
    return count;
}

// Makes the handles opened from now on trust the HTTPS server's certificate.
void TrustTls(Tezad& tezad) {
    if (rk_set_default_ca_file(tezad.caFile().c_str()) == 0) {
        Die("rk_set_default_ca_file failed");
    }
}

bool Call(benchmark::State& state, bench::BenchInterface& api) {
    bench::VersionInfo version;
    TezaStatus status = api.systemGetCorviVersion(version);
    if (status.status != TezaStatus::Success) {
        state.SkipWithError(status.reason.c_str());
        return false;
    }
    benchmark::DoNotOptimize(&version);
    return true;
}

// Calls the server of `transport` over and over; with `fresh`, empties the cache after each
// call so that the next one opens and probes a new handle.
void CallRepeatedly(benchmark::State& state, TezaServerConnection::Transport transport,
                    bool fresh) {
    StartRuntime();
    const bool https = transport == TezaServerConnection::TRANSPORT_HTTPS;
    Tezad& tezad = https ? Tezad::Https() : Tezad::Http();
    if (https) {
        TrustTls(tezad);
    }
    Drain(transport, tezad.port());
    bench::BenchInterface api(Descriptor(kHost, transport, tezad.port()));
    for (auto _ : state) {
        if (!Call(state, api)) {
            break;
        }
        if (fresh && Drain(transport, tezad.port()) != 1) {
            state.SkipWithError("the call left no handle in the cache");
            break;
        }
    }
}

void HttpCached(benchmark::State& state) {
    CallRepeatedly(state, TezaServerConnection::TRANSPORT_HTTP, false);
}
void HttpFresh(benchmark::State& state) {
    CallRepeatedly(state, TezaServerConnection::TRANSPORT_HTTP, true);
}
void HttpsCached(benchmark::State& state) {
    CallRepeatedly(state, TezaServerConnection::TRANSPORT_HTTPS, false);
}
void HttpsFresh(benchmark::State& state) {
    CallRepeatedly(state, TezaServerConnection::TRANSPORT_HTTPS, true);
}

// A fresh HTTPS handle through the runtime for every call (connect, probe, call, close), with
// librk's TLS session resumption on and off: with it, every handshake after the first resumes
// the session of the handle before.
class Resumption {
  public:
    explicit Resumption(bool on) : _previous(rk_set_tls_session_resumption(on ? 1 : 0)) {}
    ~Resumption() { rk_set_tls_session_resumption(_previous); }
    Resumption(const Resumption&) = delete;
    Resumption& operator=(const Resumption&) = delete;

  private:
    const int _previous;
};

void HttpsFreshResumed(benchmark::State& state) {
    Resumption on(true);
    CallRepeatedly(state, TezaServerConnection::TRANSPORT_HTTPS, true);
}
void HttpsFreshFullHandshake(benchmark::State& state) {
    Resumption off(false);
    CallRepeatedly(state, TezaServerConnection::TRANSPORT_HTTPS, true);
}

// Wall-clock time: most of a call is spent waiting for the server.
BENCHMARK(HttpCached)->Name("cache/http/runtime")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(HttpFresh)->Name("cache/http/reference")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(HttpsCached)->Name("cache/https/runtime")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(HttpsFresh)->Name("cache/https/reference")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(HttpsFreshResumed)
    ->Name("resumption/https_fresh/resumed")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(HttpsFreshFullHandshake)
    ->Name("resumption/https_fresh/full")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace teza_bench
