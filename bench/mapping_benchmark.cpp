// Mapping: a record written into an element tree and read back from one by the runtime
// (constructRkChildElement, parseRkChildElement), against hand-written rk_ code that builds
// and reads the same tree from plain C++ values. Both sides start from ready values and end
// with ready values; each iteration makes and frees its tree or its record.
//
// Before anything is timed, the trees of both sides are compared as XML text (encrypted
// values decrypted, since their nonces differ), and what each side reads is written back and
// compared too: a difference ends the program.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench.h"
#include "bench_support.h"

namespace teza_bench {
namespace {

const int kItems = 10000;

ElemPtr NewElem(const char* name) {
    return ElemPtr(rk_elem_new(name));
}

void Require(bool condition, const std::string& what) {
    if (!condition) {
        Die("the runtime and the hand-written code differ: " + what);
    }
}

void CheckRecord20() {
    const Record20Data data = MakeRecord20Data();
    const bench::Record20 record = ToRecord(data);
    ElemPtr byRuntime = NewElem("record20");
    record.constructRkChildElement(byRuntime.get());
    ElemPtr byHand = NewElem("record20");
    WriteRecord20(byHand.get(), data);

    // What each side reads from the other's tree, written back by the same side.
    bench::Record20 readByRuntime;
    readByRuntime.parseRkChildElement(byHand.get());
    ElemPtr rewrittenByRuntime = NewElem("record20");
    readByRuntime.constructRkChildElement(rewrittenByRuntime.get());
    Record20Data readByHand;
    ReadRecord20(byRuntime.get(), &readByHand);
    ElemPtr rewrittenByHand = NewElem("record20");
    WriteRecord20(rewrittenByHand.get(), readByHand);

    const std::string expected = ComparableText(byHand.get());
    Require(ComparableText(byRuntime.get()) == expected, "record20 written");
    Require(ComparableText(rewrittenByRuntime.get()) == expected, "record20 read by the runtime");
    Require(ComparableText(rewrittenByHand.get()) == expected, "record20 read by hand");
}

void CheckBatch() {
    const std::vector<ItemData> items = MakeItems(kItems);
    const bench::Batch batch = ToBatch(items);
    ElemPtr byRuntime = NewElem("batch");
    batch.constructRkChildElement(byRuntime.get());
    ElemPtr byHand = NewElem("batch");
    WriteBatch(byHand.get(), items);

    bench::Batch readByRuntime;
    readByRuntime.parseRkChildElement(byHand.get());
    ElemPtr rewrittenByRuntime = NewElem("batch");
    readByRuntime.constructRkChildElement(rewrittenByRuntime.get());
    std::vector<ItemData> readByHand;
    ReadBatch(byRuntime.get(), &readByHand);
    ElemPtr rewrittenByHand = NewElem("batch");
    WriteBatch(rewrittenByHand.get(), readByHand);

    const std::string expected = ComparableText(byHand.get());
    Require(ComparableText(byRuntime.get()) == expected, "batch written");
    Require(ComparableText(rewrittenByRuntime.get()) == expected, "batch read by the runtime");
    Require(ComparableText(rewrittenByHand.get()) == expected, "batch read by hand");
}

void SetUp() {
    static const bool checked = [] {
        StartRuntime();
        CheckRecord20();
        CheckBatch();
        return true;
    }();
    (void)checked;
}

void Record20WriteRuntime(benchmark::State& state) {
    SetUp();
    const bench::Record20 record = ToRecord(MakeRecord20Data());
    for (auto _ : state) {
        ElemPtr elem = NewElem("record20");
        record.constructRkChildElement(elem.get());
        benchmark::DoNotOptimize(elem.get());
    }
}

void Record20WriteReference(benchmark::State& state) {
    SetUp();
    const Record20Data data = MakeRecord20Data();
    for (auto _ : state) {
        ElemPtr elem = NewElem("record20");
        WriteRecord20(elem.get(), data);
        benchmark::DoNotOptimize(elem.get());
    }
}

void Record20ReadRuntime(benchmark::State& state) {
    SetUp();
    ElemPtr tree = NewElem("record20");
    WriteRecord20(tree.get(), MakeRecord20Data());
    for (auto _ : state) {
        bench::Record20 record;
        record.parseRkChildElement(tree.get());
        benchmark::DoNotOptimize(&record);
    }
}

void Record20ReadReference(benchmark::State& state) {
    SetUp();
    ElemPtr tree = NewElem("record20");
    WriteRecord20(tree.get(), MakeRecord20Data());
    for (auto _ : state) {
        Record20Data data;
        ReadRecord20(tree.get(), &data);
        benchmark::DoNotOptimize(&data);
    }
}

void BatchWriteRuntime(benchmark::State& state) {
    SetUp();
    const bench::Batch batch = ToBatch(MakeItems(kItems));
    for (auto _ : state) {
        ElemPtr elem = NewElem("batch");
        batch.constructRkChildElement(elem.get());
        benchmark::DoNotOptimize(elem.get());
    }
}

void BatchWriteReference(benchmark::State& state) {
    SetUp();
    const std::vector<ItemData> items = MakeItems(kItems);
    for (auto _ : state) {
        ElemPtr elem = NewElem("batch");
        WriteBatch(elem.get(), items);
        benchmark::DoNotOptimize(elem.get());
    }
}

void BatchReadRuntime(benchmark::State& state) {
    SetUp();
    ElemPtr tree = NewElem("batch");
    WriteBatch(tree.get(), MakeItems(kItems));
    for (auto _ : state) {
        bench::Batch batch;
        batch.parseRkChildElement(tree.get());
        benchmark::DoNotOptimize(&batch);
    }
}

void BatchReadReference(benchmark::State& state) {
    SetUp();
    ElemPtr tree = NewElem("batch");
    WriteBatch(tree.get(), MakeItems(kItems));
    for (auto _ : state) {
        std::vector<ItemData> items;
        ReadBatch(tree.get(), &items);
        benchmark::DoNotOptimize(items.data());
    }
}

// Names: group/case/side; the report pairs each runtime side with its reference.
BENCHMARK(Record20WriteRuntime)->Name("mapping/record20_write/runtime");
BENCHMARK(Record20WriteReference)->Name("mapping/record20_write/reference");
BENCHMARK(Record20ReadRuntime)->Name("mapping/record20_read/runtime");
BENCHMARK(Record20ReadReference)->Name("mapping/record20_read/reference");
BENCHMARK(BatchWriteRuntime)
    ->Name("mapping/batch10000_write/runtime")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BatchWriteReference)
    ->Name("mapping/batch10000_write/reference")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BatchReadRuntime)->Name("mapping/batch10000_read/runtime")->Unit(benchmark::kMillisecond);
BENCHMARK(BatchReadReference)
    ->Name("mapping/batch10000_read/reference")
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace teza_bench
