// Transport: calls per second to a tezad child process on loopback through librk handles
// (rk_server_invoke_elem: the request written as XML, posted on the handle's persistent
// connection, the answer parsed into a tree), against a bare libcurl loop that posts the
// same bytes with the same headers on a reused easy handle and keeps the answer as bytes.
// One and two client threads, each with its own handle and connection.

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <stdlib.h>

#include <mutex>
#include <string>
#include <utility>

#include "bench_support.h"

namespace teza_bench {
namespace {

const char kHost[] = "127.0.0.1";

// The two requests: the version probe (small answer) and account-get (a nested answer).
ElemPtr Request(int which) {
    if (which == 0) {
        return ElemPtr(rk_elem_new("system-get-corvi-version"));
    }
    ElemPtr request(rk_elem_new("account-get"));
    rk_child_add_string(request.get(), "name", "bench");
    return request;
}

void SetUp() {
    static std::once_flag once;
    std::call_once(once, [] {
        StartRuntime();
        ServerPtr server = OpenHandle(kHost, RK_TRANSPORT_HTTP, Tezad::Http().port());
        ElemPtr request(rk_elem_new("account-create"));
        rk_child_add_string(request.get(), "name", "bench");
        rk_child_add_string(request.get(), "full-name", "Bench <Mark> & co");
        rk_child_add_string_encrypted(request.get(), "secret", "s3cr3t", nullptr);
        rk_elem_t* tags = rk_child_add(request.get(), rk_elem_new("tags"));
        for (int i = 0; i < 5; ++i) {
            rk_child_add_string(tags, "tag", ("tag" + std::to_string(i)).c_str());
        }
        ElemPtr result(rk_server_invoke_elem(server.get(), request.get()));
        if (rk_results_status(result.get()) != 1) {
            Die(std::string("account-create: ") + rk_results_reason(result.get()));
        }
    });
}

void Librk(benchmark::State& state) {
    SetUp();
    ServerPtr server = OpenHandle(kHost, RK_TRANSPORT_HTTP, Tezad::Http().port());
    ElemPtr request = Request(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        ElemPtr result(rk_server_invoke_elem(server.get(), request.get()));
        if (rk_results_status(result.get()) != 1) {
            state.SkipWithError(rk_results_reason(result.get()));
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void BareCurl(benchmark::State& state) {
    SetUp();
    ElemPtr request = Request(static_cast<int>(state.range(0)));
    char* xml = rk_elem_sprintf(request.get());
    const std::string body = std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n") + xml;
    rk_free(xml);
    std::string answer;
    curl_slist* headers = nullptr;
    CURL* easy = NewLibrkLikeHandle(Tezad::Http().port(), &answer, &headers);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    for (auto _ : state) {
        answer.clear();
        const CURLcode code = curl_easy_perform(easy);
        if (code != CURLE_OK || answer.find("status=\"passed\"") == std::string::npos) {
            state.SkipWithError(code != CURLE_OK ? curl_easy_strerror(code) : answer.c_str());
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
}

// Arg 0: the version probe; arg 1: account-get. Wall-clock time, summed over the threads.
// Each case runs beside its reference, so that both see the same load.
void Register() {
    for (int request = 0; request < 2; ++request) {
        for (int threads = 1; threads <= 2; ++threads) {
            for (const auto& side :
                 {std::make_pair("librk", &Librk), std::make_pair("reference", &BareCurl)}) {
                benchmark::RegisterBenchmark((std::string("transport/http/") + side.first).c_str(),
                                             side.second)
                    ->ArgName("account_get")
                    ->Arg(request)
                    ->Threads(threads)
                    ->UseRealTime()
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
}

const bool registered = (Register(), true);

}  // namespace
}  // namespace teza_bench
