/*
 * A tracked allocate/free pair against malloc/free, for 32 B and 1 KiB
 * blocks, while 100,000 other blocks are live (so a free that walked the
 * live list would show): on one thread, at leak-check level 0 and 1; on 2
 * and 8 threads at once (per-pair time over all threads: on a machine with
 * fewer cores the 8 threads take turns, and the time must not collapse);
 * and blocks freed by another thread than the one that allocated them.
 */
#include <benchmark/benchmark.h>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr int kLive = 100000;

void* sys_alloc(size_t n) {
    return std::malloc(n);
}
void sys_free(void* p) {
    std::free(p);
}

// The pair loop over one allocator, with this thread's share of the live
// blocks held around it.
template <void* (*Alloc)(size_t), void (*Free)(void*)>
void pair_loop(benchmark::State& state) {
    size_t size = (size_t)state.range(0);
    std::vector<void*> live((size_t)(kLive / state.threads()));
    for (auto& p : live) {
        p = Alloc(64);
    }
    for (auto _ : state) {
        void* p = Alloc(size);
        benchmark::DoNotOptimize(p);
        Free(p);
    }
    for (void* p : live) {
        Free(p);
    }
}

void BM_malloc_free(benchmark::State& state) {
    pair_loop<sys_alloc, sys_free>(state);
}

// The exported entry points over the process monitor.
void BM_vek_malloc_free(benchmark::State& state) {
    pair_loop<vek_malloc__, vek_free__>(state);
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

// Producer and consumer: thread 0 allocates and hands the blocks in
// batches over a ring to thread 1, which frees them. Batches keep the
// figure the allocators' (a thread that waits for the other waits once a
// batch, also when the two take turns on one core). Both run the same
// number of iterations, so the ring is empty at the end of every run.
struct Handoff {
    static constexpr size_t kBatch = 256;
    static constexpr size_t kSlots = 64;
    struct Batch {
        void* p[kBatch];
        size_t n;
    };
    alignas(64) std::atomic<size_t> head{0};  // batches handed over
    alignas(64) std::atomic<size_t> tail{0};  // batches taken back
    Batch slot[kSlots];
};
Handoff g_handoff;

void wait_turn(unsigned& spins) {
    if (++spins > 64) {
        std::this_thread::yield();
    }
}

template <void* (*Alloc)(size_t), void (*Free)(void*)>
void handoff_loop(benchmark::State& state) {
    size_t size = (size_t)state.range(0);
    Handoff& r = g_handoff;
    Handoff::Batch* cur = nullptr;
    // Every batch is handed over and taken back inside the loop: its end
    // waits for both threads.
    if (state.thread_index() == 0) {
        size_t h = r.head.load(std::memory_order_relaxed);
        benchmark::IterationCount left = state.max_iterations;
        for (auto _ : state) {
            if (!cur) {
                for (unsigned spins = 0; h - r.tail.load(std::memory_order_acquire) == Handoff::kSlots;) {
                    wait_turn(spins);
                }
                cur = &r.slot[h % Handoff::kSlots];
                cur->n = 0;
            }
            void* p = Alloc(size);
            *(volatile char*)p = 1;
            cur->p[cur->n++] = p;
            bool last = --left == 0;
            if (cur->n == Handoff::kBatch || last) {
                r.head.store(++h, std::memory_order_release);
                cur = nullptr;
            }
        }
    } else {
        size_t t = r.tail.load(std::memory_order_relaxed);
        size_t i = 0;
        for (auto _ : state) {
            if (!cur) {
                for (unsigned spins = 0; r.head.load(std::memory_order_acquire) == t;) {
                    wait_turn(spins);
                }
                cur = &r.slot[t % Handoff::kSlots];
                i = 0;
            }
            Free(cur->p[i++]);
            if (i == cur->n) {
                r.tail.store(++t, std::memory_order_release);
                cur = nullptr;
            }
        }
    }
}

void BM_malloc_handoff(benchmark::State& state) {
    handoff_loop<sys_alloc, sys_free>(state);
}

void BM_vek_handoff(benchmark::State& state) {
    handoff_loop<vek_malloc__, vek_free__>(state);
}

} // namespace

BENCHMARK(BM_malloc_free)->Arg(32)->Arg(1024);
BENCHMARK(BM_vek_malloc_free)->Arg(32)->Arg(1024);
BENCHMARK(BM_heapmon_pair)->Args({32, 0})->Args({1024, 0})->Args({32, 1})->Args({1024, 1});
BENCHMARK(BM_malloc_free)->Arg(32)->Arg(1024)->Threads(2)->Threads(8)->UseRealTime();
BENCHMARK(BM_vek_malloc_free)->Arg(32)->Arg(1024)->Threads(2)->Threads(8)->UseRealTime();
BENCHMARK(BM_malloc_handoff)->Arg(32)->Arg(1024)->Threads(2)->UseRealTime();
BENCHMARK(BM_vek_handoff)->Arg(32)->Arg(1024)->Threads(2)->UseRealTime();
