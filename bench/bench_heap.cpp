/*
 * A tracked allocate/free pair against malloc/free, for 32 B and 1 KiB
 * blocks, while 100,000 other blocks are live (so a free that walked the
 * live list would show), at leak-check level 0 and 1.
 */
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr int kLive = 100000;

void BM_malloc_free(benchmark::State& state) {
    size_t size = (size_t)state.range(0);
    std::vector<void*> live(kLive);
    for (auto& p : live) {
        p = std::malloc(64);
    }
    for (auto _ : state) {
        void* p = std::malloc(size);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
    for (void* p : live) {
        std::free(p);
    }
}

// A monitor of its own, so the leak-check level can be chosen per run.
void BM_heapmon_pair(benchmark::State& state) {
    size_t size = (size_t)state.range(0);
    vek_s32 level = (vek_s32)state.range(1);
    IHeapMon* m = HeapMon_create("BenchHeap", al_malloc, al_free, al_fault_proc, level, 0, 0);
    std::vector<void*> live(kLive);
    for (auto& p : live) {
        p = m->vtbl->allocMem(m, 64);
    }
    for (auto _ : state) {
        void* p = m->vtbl->allocMem(m, size);
        benchmark::DoNotOptimize(p);
        m->vtbl->freeMem(m, p);
    }
    for (void* p : live) {
        m->vtbl->freeMem(m, p);
    }
    m->vtbl->release(m);
}

// The exported entry points over the process monitor.
void BM_vek_malloc_free(benchmark::State& state) {
    size_t size = (size_t)state.range(0);
    std::vector<void*> live(kLive);
    for (auto& p : live) {
        p = vek_malloc__(64);
    }
    for (auto _ : state) {
        void* p = vek_malloc__(size);
        benchmark::DoNotOptimize(p);
        vek_free__(p);
    }
    for (void* p : live) {
        vek_free__(p);
    }
}

} // namespace

BENCHMARK(BM_malloc_free)->Arg(32)->Arg(1024);
BENCHMARK(BM_heapmon_pair)->Args({32, 0})->Args({1024, 0})->Args({32, 1})->Args({1024, 1});
BENCHMARK(BM_vek_malloc_free)->Arg(32)->Arg(1024);

namespace {

// Two threads allocating and freeing at once through the process monitor
// (Google Benchmark runs the body on each thread), against malloc/free.
void BM_malloc_free_2thr(benchmark::State& state) {
    for (auto _ : state) {
        void* p = std::malloc(64);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}

void BM_vek_malloc_free_2thr(benchmark::State& state) {
    for (auto _ : state) {
        void* p = vek_malloc__(64);
        benchmark::DoNotOptimize(p);
        vek_free__(p);
    }
}

} // namespace

BENCHMARK(BM_malloc_free_2thr)->Threads(2)->UseRealTime();
BENCHMARK(BM_vek_malloc_free_2thr)->Threads(2)->UseRealTime();
