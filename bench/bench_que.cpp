/*
 * The rings against the standard peers. ByteQue moves 4 KiB blocks through
 * a 64 KiB ring kept half full (so blocks keep splitting across the end),
 * against memcpy of the same blocks into and out of a plain 64 KiB buffer:
 * the floor for moving these bytes. PtrQue put/get pairs on a queue holding
 * a few entries, against push_back/pop_front on std::deque<void*>.
 */
#include <benchmark/benchmark.h>
#include <cstring>
#include <deque>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr size_t kBlock = 4096;
constexpr size_t kRing = 64 * 1024;
constexpr size_t kBlocksPerIter = 256;  // 1 MiB through the ring per iteration
constexpr int kPairsPerIter = 4096;
constexpr int kBacklog = 16;

void BM_ByteQue(benchmark::State& state) {
    std::vector<char> in(kBlock, 'a'), out(kBlock);
    ByteQue* q = ByteQue_new(nullptr, (vek_s32)kRing);
    std::vector<char> half(kRing / 2 + 123, 'h');  // odd offset: the split moves
    ByteQue_puts(q, half.data(), (vek_s32)half.size());
    for (auto _ : state) {
        for (size_t i = 0; i < kBlocksPerIter; i++) {
            ByteQue_puts(q, in.data(), (vek_s32)kBlock);
            ByteQue_gets(q, out.data(), (vek_s32)kBlock);
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)(kBlocksPerIter * kBlock));
    ByteQue_delete(q);
}

void BM_memcpy(benchmark::State& state) {
    std::vector<char> in(kBlock, 'a'), out(kBlock), ring(kRing);
    size_t w = kRing / 2, r = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kBlocksPerIter; i++) {
            // The same two moves per block, never split: each block goes
            // whole into the buffer and whole out of it.
            std::memcpy(ring.data() + (w % (kRing - kBlock)), in.data(), kBlock);
            std::memcpy(out.data(), ring.data() + (r % (kRing - kBlock)), kBlock);
            w += kBlock;
            r += kBlock;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)(kBlocksPerIter * kBlock));
}

void BM_PtrQue(benchmark::State& state) {
    PtrQue* q = PtrQue_new(nullptr, 64);
    int items[kBacklog + 1];
    for (int i = 0; i < kBacklog; i++) {
        PtrQue_put(q, &items[i]);
    }
    for (auto _ : state) {
        for (int i = 0; i < kPairsPerIter; i++) {
            PtrQue_put(q, &items[kBacklog]);
            benchmark::DoNotOptimize(PtrQue_get(q));
        }
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kPairsPerIter);
    PtrQue_delete(q);
}

void BM_deque(benchmark::State& state) {
    std::deque<void*> q;
    int items[kBacklog + 1];
    for (int i = 0; i < kBacklog; i++) {
        q.push_back(&items[i]);
    }
    for (auto _ : state) {
        for (int i = 0; i < kPairsPerIter; i++) {
            q.push_back(&items[kBacklog]);
            void* p = q.front();
            q.pop_front();
            benchmark::DoNotOptimize(p);
        }
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kPairsPerIter);
}

} // namespace

BENCHMARK(BM_ByteQue);
BENCHMARK(BM_memcpy);
BENCHMARK(BM_PtrQue);
BENCHMARK(BM_deque);
