// The benchmark service of tezad (tezad --bench): the APIs that bench/ measures its clients
// against, the same service that the gRPC reference of the benchmarks implements.
//
//   bench-call     a request of ten fields (strings, numbers, a boolean, a nested address, a
//                  list of tags, a note with XML's special characters) answered with a response
//                  of the same size computed from it, so that a client can check every field.
//   bench-volumes  a list of `count` volumes, each with a nested list of one mount: the big
//                  answer (50,000 volumes make about 17 MB of XML).
//
// Stateless, hence thread-safe.
#ifndef TEZAD_CORE_BENCH_SERVICE_H_
#define TEZAD_CORE_BENCH_SERVICE_H_

#include "service_core.h"

namespace tezad {

// The most volumes bench-volumes answers with.
const int kBenchMaxVolumes = 1000000;

class BenchService {
  public:
    // Adds the benchmark APIs to `core`.
    static void Install(ServiceCore* core);

    static ElemPtr Call(const Args& args);
    static ElemPtr Volumes(const Args& args);
};

}  // namespace tezad

#endif  // TEZAD_CORE_BENCH_SERVICE_H_
