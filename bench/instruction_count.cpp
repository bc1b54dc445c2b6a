// Fixed-iteration runs of the mapping and in-process invocation benchmarks' bodies, for
// counting instructions with callgrind on a machine too busy for steady timings. The set-up
// and two warm-up iterations run first; then MeasuredLoop runs the body the given number of
// times, and only MeasuredLoop is counted:
//
//   valgrind --tool=callgrind --collect-atstart=no --toggle-collect='*MeasuredLoop*'
//            teza_bench_count mapping/record20_write/runtime 1000
//
// scripts/count-instructions runs every case that way and prints instructions per iteration.
// Each body is the one of its benchmark in mapping_benchmark.cpp or invocation_benchmark.cpp.

#include <stdlib.h>

#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TezaInterface.h"
#include "bench.h"
#include "bench_support.h"

namespace teza_bench {
namespace {

const int kItems = 10000;
const char kNode[] = "bench-count-node";

using Body = std::function<void()>;

__attribute__((noinline)) void MeasuredLoop(const Body& body, long iterations) {
    for (long i = 0; i < iterations; ++i) {
        body();
    }
}

ElemPtr NewElem(const char* name) {
    return ElemPtr(rk_elem_new(name));
}

void Fail(const TezaStatus& status) {
    Die("call failed: " + status.reason);
}

// One shape of the mapping benchmarks: its generated record and the plain data it holds, with
// the hand-written code that writes and reads that data. Built once by the case's set-up and
// kept alive for its body.
template <typename Record, typename Data>
struct MappingShape {
    const char* root;
    void (*writeByHand)(rk_elem_t*, const Data&);
    void (*readByHand)(rk_elem_t*, Data*);
    Data data;
    Record record;
    ElemPtr tree;  // what the reading cases read
};

template <typename Record, typename Data>
Body MappingCase(bool write, bool runtime, std::shared_ptr<MappingShape<Record, Data>> shape) {
    if (write && runtime) {
        return [shape] {
            ElemPtr elem = NewElem(shape->root);
            shape->record.constructRkChildElement(elem.get());
        };
    }
    if (write) {
        return [shape] {
            ElemPtr elem = NewElem(shape->root);
            shape->writeByHand(elem.get(), shape->data);
        };
    }
    shape->tree = NewElem(shape->root);
    shape->writeByHand(shape->tree.get(), shape->data);
    if (runtime) {
        return [shape] {
            Record record;
            record.parseRkChildElement(shape->tree.get());
        };
    }
    return [shape] {
        Data data;
        shape->readByHand(shape->tree.get(), &data);
    };
}

Body Record20Case(bool write, bool runtime) {
    auto shape = std::make_shared<MappingShape<bench::Record20, Record20Data>>();
    shape->root = "record20";
    shape->writeByHand = WriteRecord20;
    shape->readByHand = ReadRecord20;
    shape->data = MakeRecord20Data();
    shape->record = ToRecord(shape->data);
    return MappingCase(write, runtime, shape);
}

Body BatchCase(bool write, bool runtime) {
    auto shape = std::make_shared<MappingShape<bench::Batch, std::vector<ItemData>>>();
    shape->root = "batch";
    shape->writeByHand = WriteBatch;
    shape->readByHand = ReadBatch;
    shape->data = MakeItems(kItems);
    shape->record = ToBatch(shape->data);
    return MappingCase(write, runtime, shape);
}

void RegisterNode() {
    if (rk_inprocess_register(kNode, &EchoRequest, nullptr) == 0) {
        Die("cannot register the in-process server");
    }
}

// The generated interface over the in-process echo server, as the runtime's side calls it.
std::shared_ptr<bench::BenchInterface> InProcessInterface() {
    RegisterNode();
    return std::make_shared<bench::BenchInterface>(
        Descriptor(kNode, TezaServerConnection::TRANSPORT_IN_PROCESS, 0));
}

// A handle on the in-process echo server, opened and probed once, as the reference keeps it.
std::shared_ptr<rk_server_t> ProbedInProcessHandle() {
    RegisterNode();
    std::shared_ptr<rk_server_t> server(OpenHandle(kNode, RK_TRANSPORT_IN_PROCESS, 0).release(),
                                        ServerClose());
    if (!Probe(server.get())) {
        Die("probe failed");
    }
    return server;
}

Body PingRuntimeCase() {
    auto api = InProcessInterface();
    return [api] {
        TezaStatus status = api->benchPing();
        if (status.status != TezaStatus::Success) {
            Fail(status);
        }
    };
}

Body PingReferenceCase() {
    std::shared_ptr<rk_server_t> server = ProbedInProcessHandle();
    return [server] {
        ElemPtr result(rk_server_invoke(server.get(), "bench-ping", nullptr));
        if (rk_results_status(result.get()) != 1) {
            Die(rk_results_reason(result.get()));
        }
    };
}

Body EchoRuntimeCase() {
    auto api = InProcessInterface();
    auto input = std::make_shared<bench::Echo>();
    input->setText("hello <world>");
    input->setNumber(-42);
    return [api, input] {
        bench::Echo output;
        TezaStatus status = api->benchEcho(*input, output);
        if (status.status != TezaStatus::Success) {
            Fail(status);
        }
    };
}

Body EchoReferenceCase() {
    std::shared_ptr<rk_server_t> server = ProbedInProcessHandle();
    return [server] {
        ElemPtr request(rk_elem_new("bench-echo"));
        rk_child_add_string(request.get(), "text", "hello <world>");
        rk_child_add_string(request.get(), "number", "-42");
        ElemPtr result(rk_server_invoke_elem(server.get(), request.get()));
        if (rk_results_status(result.get()) != 1) {
            Die(rk_results_reason(result.get()));
        }
        std::string text = DecodeEntities(rk_child_get_string(result.get(), "text"));
        long number = strtol(rk_child_get_string(result.get(), "number"), nullptr, 10);
        if (text.empty() || number != -42) {
            Die("unexpected echo");
        }
    };
}

Body MakeCase(const std::string& name) {
    const std::map<std::string, std::function<Body()>> cases = {
        {"mapping/record20_write/runtime", [] { return Record20Case(true, true); }},
        {"mapping/record20_write/reference", [] { return Record20Case(true, false); }},
        {"mapping/record20_read/runtime", [] { return Record20Case(false, true); }},
        {"mapping/record20_read/reference", [] { return Record20Case(false, false); }},
        {"mapping/batch10000_write/runtime", [] { return BatchCase(true, true); }},
        {"mapping/batch10000_write/reference", [] { return BatchCase(true, false); }},
        {"mapping/batch10000_read/runtime", [] { return BatchCase(false, true); }},
        {"mapping/batch10000_read/reference", [] { return BatchCase(false, false); }},
        {"invocation/ping_inprocess/runtime", PingRuntimeCase},
        {"invocation/ping_inprocess/reference", PingReferenceCase},
        {"invocation/echo_inprocess/runtime", EchoRuntimeCase},
        {"invocation/echo_inprocess/reference", EchoReferenceCase},
    };
    auto found = cases.find(name);
    if (found == cases.end()) {
        std::cerr << "cases:";
        for (const auto& entry : cases) {
            std::cerr << ' ' << entry.first;
        }
        std::cerr << '\n';
        Die("unknown case '" + name + "'");
    }
    return found->second();
}

}  // namespace
}  // namespace teza_bench

int main(int argc, char** argv) {
    if (argc != 3 || atol(argv[2]) <= 0) {
        std::cerr << "usage: teza_bench_count CASE ITERATIONS\n";
        return 2;
    }
    teza_bench::StartRuntime();
    const teza_bench::Body body = teza_bench::MakeCase(argv[1]);
    body();
    body();
    teza_bench::MeasuredLoop(body, atol(argv[2]));
    return 0;
}
