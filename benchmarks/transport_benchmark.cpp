// The cost of one call through librk: in process (no network), and over HTTP on loopback
// with a persistent connection. A loopback call takes tens of microseconds; a Nagle delay
// would show as 40 milliseconds.

#include <benchmark/benchmark.h>

#include <stdio.h>

#include <memory>
#include <string>

#include "demo_service.h"
#include "http_front_end.h"
#include "inprocess_server.h"
#include "rk.h"
#include "service_core.h"

namespace {

tezad::CoreOptions Options() {
    tezad::CoreOptions options;
    options.minor = 21;
    options.users["admin"] = "secret";
    return options;
}

rk_server_t* Open(const char* host, int port, int transport) {
    rk_server_t* server = rk_server_open(host, 1, 21);
    rk_server_set_transport_type(server, transport, nullptr);
    rk_server_set_port(server, port);
    rk_server_set_admin_user(server, "admin", "secret");
    rk_server_set_server_type(server, RK_SERVER_TYPE_NODE);
    rk_server_set_timeout(server, 10);
    return server;
}

// Sends the version probe, or an account-get with a nested answer, until the benchmark ends.
void Run(benchmark::State& state, rk_server_t* server, bool withRecord) {
    for (auto _ : state) {
        rk_elem_t* result = withRecord
                                ? rk_server_invoke(server, "account-get", "name", "bench", nullptr)
                                : rk_server_invoke(server, "system-get-corvi-version", nullptr);
        if (rk_results_status(result) != 1) {
            state.SkipWithError(rk_results_reason(result));
        }
        rk_elem_free(result);
    }
}

void CreateAccount(rk_server_t* server) {
    rk_elem_t* request = rk_elem_new("account-create");
    rk_child_add_string(request, "name", "bench");
    rk_child_add_string(request, "full-name", "Bench <Mark> & co");
    rk_child_add_string_encrypted(request, "secret", "s3cr3t", nullptr);
    rk_elem_t* tags = rk_elem_new("tags");
    for (int i = 0; i < 5; ++i) {
        rk_child_add_string(tags, "tag", ("tag" + std::to_string(i)).c_str());
    }
    rk_child_add(request, tags);
    rk_elem_free(rk_server_invoke_elem(server, request));
    rk_elem_free(request);
}

void BM_InProcessCall(benchmark::State& state) {
    tezad::ServiceCore core(Options());
    tezad::DemoService demo;
    demo.Install(&core);
    tezad::InProcessServer registration("bench-node", &core);
    rk_server_t* server = Open("bench-node", 0, RK_TRANSPORT_IN_PROCESS);
    CreateAccount(server);
    Run(state, server, state.range(0) != 0);
    rk_server_close(server);
}
BENCHMARK(BM_InProcessCall)->Arg(0)->Arg(1);

void BM_HttpLoopbackCall(benchmark::State& state) {
    tezad::ServiceCore core(Options());
    tezad::DemoService demo;
    demo.Install(&core);
    tezad::HttpFrontEnd frontEnd(&core, tezad::HttpOptions());
    std::string error;
    if (!frontEnd.Start(&error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    rk_server_t* server = Open("127.0.0.1", frontEnd.port(), RK_TRANSPORT_HTTP);
    CreateAccount(server);
    Run(state, server, state.range(0) != 0);
    rk_server_close(server);
    state.counters["connections"] = static_cast<double>(core.GetCounters().connections);
}
BENCHMARK(BM_HttpLoopbackCall)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    char error[256];
    if (rk_startup(error, sizeof error) == 0) {
        fprintf(stderr, "rk_startup: %s\n", error);
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    rk_shutdown();
    return 0;
}
