// The gRPC reference of the client comparison (bench/client_comparison.cpp): the service of
// bench-call as a gRPC C++ synchronous unary call, server and client in one program.
//
//   teza_bench_grpc server                        serves on 127.0.0.1, a free port, printed
//                                                 on the first line; stops on SIGTERM
//   teza_bench_grpc client grpc PORT THREADS CALLS
//
// Each client thread has a channel (and connection) of its own. The server computes the
// answer as tezad's bench-call does, and the client checks every field of it.

#include <grpcpp/grpcpp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench.grpc.pb.h"
#include "client_common.h"

namespace teza_bench {
namespace {

using teza_bench_grpc::Bench;
using teza_bench_grpc::CallRequest;
using teza_bench_grpc::CallResponse;

class BenchService final : public Bench::Service {
    grpc::Status Call(grpc::ServerContext*, const CallRequest* in, CallResponse* out) override {
        out->set_request_id(in->request_id());
        out->set_status("accepted for " + in->user_name());
        out->set_code(in->age() + in->priority());
        out->set_processed_at(in->account_id() + 1000);
        out->set_accepted(in->active());
        out->mutable_summary()->set_name(in->user_name());
        out->mutable_summary()->set_city(in->address().city());
        out->mutable_summary()->set_tag_count(in->tags_size());
        for (const std::string& tag : in->tags()) {
            out->add_labels("label-" + tag);
        }
        out->set_score(in->address().zip() % 1000 + in->priority());
        out->set_message("note: " + in->note());
        return grpc::Status::OK;
    }
};

int ServerMain() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    BenchService service;
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(&service);
    std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (server == nullptr || port == 0) {
        Fail("teza_bench_grpc: cannot start the server");
    }
    printf("%d\n", port);
    fflush(stdout);
    int received = 0;
    sigwait(&stop, &received);
    server->Shutdown();
    return 0;
}

bool Check(const CallResponse& out, const ExpectedAnswer& e) {
    if (out.request_id() != e.requestId || out.status() != e.status || out.code() != e.code ||
        out.processed_at() != e.processedAt || out.accepted() != e.accepted ||
        out.summary().name() != e.summaryName || out.summary().city() != e.summaryCity ||
        out.summary().tag_count() != e.tagCount || out.labels_size() != 5 ||
        out.score() != e.score || out.message() != e.message) {
        return false;
    }
    for (int k = 0; k < 5; ++k) {
        if (out.labels(k) != e.labels[k]) {
            return false;
        }
    }
    return true;
}

ClientLoop GrpcLoop(int port) {
    grpc::ChannelArguments args;
    args.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection per thread
    std::shared_ptr<Bench::Stub> stub = Bench::NewStub(grpc::CreateCustomChannel(
        "127.0.0.1:" + std::to_string(port), grpc::InsecureChannelCredentials(), args));
    return [stub](int thread, long first, long calls, std::vector<double>* latencies) {
        for (long i = first; i < first + calls; ++i) {
            const double start = NowMicros();
            const CallValues v(thread, i);
            CallRequest in;
            in.set_request_id(v.requestId);
            in.set_user_name(v.userName);
            in.set_email(v.email);
            in.set_age(v.age);
            in.set_account_id(v.accountId);
            in.set_active(v.active);
            in.mutable_address()->set_street(v.street);
            in.mutable_address()->set_city(v.city);
            in.mutable_address()->set_zip(v.zip);
            for (const std::string& tag : v.tags) {
                in.add_tags(tag);
            }
            in.set_priority(v.priority);
            in.set_note(v.note);
            CallResponse out;
            grpc::ClientContext context;
            const grpc::Status status = stub->Call(&context, in, &out);
            if (!status.ok() || !Check(out, ExpectedAnswer(v))) {
                fprintf(stderr, "grpc: call %ld failed: %s\n", i, status.error_message().c_str());
                return false;
            }
            latencies->push_back(NowMicros() - start);
        }
        return true;
    };
}

}  // namespace
}  // namespace teza_bench

int main(int argc, char** argv) {
    using namespace teza_bench;
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "server") {
        return ServerMain();
    }
    if (mode == "client" && argc == 6) {
        const int port = atoi(argv[3]);
        RunClients("grpc", atoi(argv[4]), atol(argv[5]), 200, [port] { return GrpcLoop(port); });
        return 0;
    }
    fprintf(stderr, "usage: teza_bench_grpc server | client grpc PORT THREADS CALLS\n");
    return 2;
}
