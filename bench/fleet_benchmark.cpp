// Fleets and compressed answers, measured end to end on this machine; prints one JSON document
// that bench/fleet_report.py turns into rows of docs/performance.md.
//
// Fleet: N servers (tezad front ends, each on its own loopback address 127.1.x.y and a free
// port, all in one server process forked at the start), one call each through TezaFanOut and a
// generated interface, at 8, 32 and 64 workers. Each worker count runs in a client process of
// its own, so that its peak resident memory is its own: wall time of each round, calls per
// second, peak RSS and the client handles opened (each a connection and a version probe).
// The connection cache holds 100 handles, so every round over 1,000 servers reconnects.
//
// Compression: a list of 10,000 nested records from a front end in this process that gzips
// answers above 4096 bytes, and from one that never does: bytes of the body on the wire and
// time per call (request, answer, decoding, parsing into the generated records).
//
//   teza_bench_fleet [--servers N] [--rounds R] [--calls C]
#include <arpa/inet.h>
#include <curl/curl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "TezaFanOut.h"
#include "TezaWrapper.h"
#include "bench.h"
#include "bench_support.h"
#include "elements.h"
#include "http_front_end.h"
#include "service_core.h"

namespace {

using Clock = std::chrono::steady_clock;
using teza_bench::Die;

struct Endpoint {
    char host[32];
    int port;
};

tezad::CoreOptions CoreFor() {
    tezad::CoreOptions options;
    options.major = teza_bench::kMajor;
    options.minor = teza_bench::kMinor;
    options.users["admin"] = "secret";
    return options;
}

// The server process: `count` front ends sharing one core, their endpoints written to `out`;
// it stops when `in` reaches its end (the parent closed it or died).
[[noreturn]] void ServeFleet(int count, int out, int in) {
    tezad::ServiceCore core(CoreFor());
    core.AddApi("bench-ping", [](const tezad::Args&) { return tezad::NewPassed(); });
    std::vector<std::unique_ptr<tezad::HttpFrontEnd>> servers;
    for (int i = 0; i < count; ++i) {
        tezad::HttpOptions options;
        Endpoint endpoint = {};
        snprintf(endpoint.host, sizeof endpoint.host, "127.1.%d.%d", i / 250, i % 250 + 1);
        options.address = endpoint.host;
        options.threads = 1;
        auto server = std::make_unique<tezad::HttpFrontEnd>(&core, options);
        std::string error;
        if (!server->Start(&error)) {
            fprintf(stderr, "fleet server %d: %s\n", i, error.c_str());
            _exit(1);
        }
        endpoint.port = server->port();
        if (write(out, &endpoint, sizeof endpoint) != static_cast<ssize_t>(sizeof endpoint)) {
            _exit(1);
        }
        servers.push_back(std::move(server));
    }
    close(out);
    char byte;
    while (read(in, &byte, 1) > 0) {
    }
    for (auto& server : servers) {
        server->Stop();
    }
    _exit(0);
}

size_t StatusKb(const char* field) {
    FILE* f = fopen("/proc/self/status", "r");
    char line[256];
    size_t kb = 0;
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr) {
        if (strncmp(line, field, strlen(field)) == 0 && line[strlen(field)] == ':') {
            kb = strtoull(line + strlen(field) + 1, nullptr, 10);
        }
    }
    if (f != nullptr) {
        fclose(f);
    }
    return kb;
}

// What one client process measured.
struct FleetResult {
    int workers;
    int rounds;
    int failed;
    double seconds[16];
    unsigned long long handlesOpened[16];
    size_t peakRssKb;
    size_t startRssKb;
};

FleetResult RunClient(const std::vector<Endpoint>& endpoints, int workers, int rounds) {
    FleetResult result = {};
    result.workers = workers;
    result.rounds = std::min(rounds, 16);
    result.startRssKb = StatusKb("VmRSS");
    teza_bench::StartRuntime();
    std::vector<TezaServerConnection> fleet;
    for (const Endpoint& e : endpoints) {
        fleet.push_back(
            teza_bench::Descriptor(e.host, TezaServerConnection::TRANSPORT_HTTP, e.port));
    }
    TezaFanOut::Options options;
    options.parallel = static_cast<size_t>(workers);
    for (int r = 0; r < result.rounds; ++r) {
        rk_stats_t before = {}, after = {};
        rk_get_stats(&before);
        const Clock::time_point start = Clock::now();
        std::vector<TezaStatus> statuses = TezaFanOut::forEach<bench::BenchInterface>(
            fleet, [](bench::BenchInterface& api, size_t) { return api.benchPing(); }, options);
        result.seconds[r] = std::chrono::duration<double>(Clock::now() - start).count();
        rk_get_stats(&after);
        result.handlesOpened[r] = after.handles_opened - before.handles_opened;
        for (const TezaStatus& status : statuses) {
            if (status.status != TezaStatus::Success) {
                if (result.failed++ == 0) {
                    fprintf(stderr, "fleet call failed: %d %s\n", status.errnum,
                            status.reason.c_str());
                }
            }
        }
    }
    result.peakRssKb = StatusKb("VmHWM");
    return result;
}

FleetResult MeasureInChild(const std::vector<Endpoint>& endpoints, int workers, int rounds) {
    int fds[2];
    if (pipe(fds) != 0) {
        Die("pipe");
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        FleetResult result = RunClient(endpoints, workers, rounds);
        ssize_t written = write(fds[1], &result, sizeof result);
        _exit(written == static_cast<ssize_t>(sizeof result) ? 0 : 1);
    }
    close(fds[1]);
    FleetResult result = {};
    ssize_t got = read(fds[0], &result, sizeof result);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != static_cast<ssize_t>(sizeof result) || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        Die("the fleet client died");
    }
    return result;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0.0 : n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// ---- Compression ---------------------------------------------------------------------------

size_t BodyBytesOnTheWire(int port) {
    CURL* curl = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/teza";
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, "Accept-Encoding: gzip");
    headers = curl_slist_append(headers, "Content-Type: application/xml; charset=utf-8");
    headers = curl_slist_append(headers, "X-Teza-Api-Version: 1.21");
    headers = curl_slist_append(headers, "X-Teza-Server-Type: 1");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_USERPWD, "admin:secret");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "<batch-get/>");
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION,
                     static_cast<size_t (*)(char*, size_t, size_t, void*)>(
                         [](char*, size_t size, size_t count, void*) { return size * count; }));
    curl_off_t bytes = 0;
    if (curl_easy_perform(curl) != CURLE_OK ||
        curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &bytes) != CURLE_OK) {
        Die("raw batch-get failed");
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return static_cast<size_t>(bytes);
}

struct CompressionResult {
    size_t bodyBytes;
    double msPerCall;
};

CompressionResult MeasureCompression(size_t gzipAboveBytes, int calls) {
    tezad::ServiceCore core(CoreFor());
    const std::vector<teza_bench::ItemData> items = teza_bench::MakeItems(10000);
    core.AddApi("batch-get", [&items](const tezad::Args&) {
        tezad::ElemPtr result = tezad::NewPassed();
        teza_bench::WriteBatch(result.get(), items);
        return result;
    });
    tezad::HttpOptions options;
    options.threads = 2;
    options.gzipAboveBytes = gzipAboveBytes;
    tezad::HttpFrontEnd server(&core, options);
    std::string error;
    if (!server.Start(&error)) {
        Die(error);
    }
    CompressionResult result = {};
    result.bodyBytes = BodyBytesOnTheWire(server.port());
    teza_bench::ServerPtr handle =
        teza_bench::OpenHandle("127.0.0.1", RK_TRANSPORT_HTTP, server.port());
    std::vector<double> ms;
    for (int i = 0; i < calls + 1; ++i) {
        const Clock::time_point start = Clock::now();
        teza_bench::ElemPtr answer(rk_server_invoke(handle.get(), "batch-get", nullptr));
        if (rk_results_status(answer.get()) != 1) {
            Die(std::string("batch-get failed: ") + rk_results_reason(answer.get()));
        }
        bench::Batch batch;
        batch.parseRkChildElement(answer.get());
        if (i > 0) {  // the first call also connects
            ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
    }
    result.msPerCall = Median(ms);
    handle.reset();
    server.Stop();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    int servers = 1000;
    int rounds = 5;
    int calls = 15;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        const int value = atoi(argv[i + 1]);
        if (arg == "--servers") {
            servers = value;
        } else if (arg == "--rounds") {
            rounds = value;
        } else if (arg == "--calls") {
            calls = value;
        }
    }

    // The server process first, while this one has no thread yet.
    int endpointsPipe[2], stopPipe[2];
    if (pipe(endpointsPipe) != 0 || pipe(stopPipe) != 0) {
        Die("pipe");
    }
    pid_t serverPid = fork();
    if (serverPid == 0) {
        close(endpointsPipe[0]);
        close(stopPipe[1]);
        ServeFleet(servers, endpointsPipe[1], stopPipe[0]);
    }
    close(endpointsPipe[1]);
    close(stopPipe[0]);
    std::vector<Endpoint> endpoints(static_cast<size_t>(servers));
    for (Endpoint& endpoint : endpoints) {
        if (read(endpointsPipe[0], &endpoint, sizeof endpoint) !=
            static_cast<ssize_t>(sizeof endpoint)) {
            Die("the fleet server did not start");
        }
    }
    close(endpointsPipe[0]);

    std::vector<FleetResult> fleet;
    for (int workers : {8, 32, 64}) {
        fleet.push_back(MeasureInChild(endpoints, workers, rounds));
        fprintf(stderr, "fleet of %d at %d workers: median %.3f s\n", servers, workers,
                Median(std::vector<double>(fleet.back().seconds,
                                           fleet.back().seconds + fleet.back().rounds)));
    }
    close(stopPipe[1]);
    waitpid(serverPid, nullptr, 0);

    // Last, in this process, which may now start threads.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    teza_bench::StartRuntime();
    const CompressionResult plain = MeasureCompression(0, calls);
    const CompressionResult gzip = MeasureCompression(4096, calls);

    printf("{\n  \"servers\": %d,\n  \"fleet\": [\n", servers);
    for (size_t i = 0; i < fleet.size(); ++i) {
        const FleetResult& r = fleet[i];
        std::vector<double> seconds(r.seconds, r.seconds + r.rounds);
        std::string perRound, opened;
        for (int k = 0; k < r.rounds; ++k) {
            perRound += (k ? ", " : "") + std::to_string(r.seconds[k]);
            opened += (k ? ", " : "") + std::to_string(r.handlesOpened[k]);
        }
        printf(
            "    {\"workers\": %d, \"median_seconds\": %.4f, \"seconds\": [%s], "
            "\"handles_opened\": [%s], \"failed\": %d, \"peak_rss_kb\": %zu, "
            "\"start_rss_kb\": %zu}%s\n",
            r.workers, Median(seconds), perRound.c_str(), opened.c_str(), r.failed, r.peakRssKb,
            r.startRssKb, i + 1 < fleet.size() ? "," : "");
    }
    printf(
        "  ],\n  \"compression\": {\"records\": 10000, \"plain_body_bytes\": %zu, "
        "\"gzip_body_bytes\": %zu, \"plain_ms_per_call\": %.3f, \"gzip_ms_per_call\": %.3f}\n}\n",
        plain.bodyBytes, gzip.bodyBytes, plain.msPerCall, gzip.msPerCall);
    return 0;
}
