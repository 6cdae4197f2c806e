/*
 * VekStr against std::string and snprintf:
 *  - building a string of 1, 4 and 16 MiB from 1-byte and 16-byte pieces
 *    (the growth rule adds only 512 cells to large blocks, so the time per
 *    byte staying flat across the three totals shows that growth is not
 *    quadratic);
 *  - one formatted append of "%d %s %08x" against snprintf into a buffer.
 */
#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>
#include "BaseLib.h"

namespace {

const char kPiece[] = "0123456789abcdef";

void BM_vekstr_append(benchmark::State& state) {
    vek_s32 piece = (vek_s32)state.range(0);
    vek_s64 total = state.range(1);
    for (auto _ : state) {
        VekStr s;
        VekStr_new(&s);
        for (vek_s64 n = 0; n < total; n += piece) {
            VekStr_appdStrx(&s, kPiece, piece);
        }
        benchmark::DoNotOptimize(VekStr_buf(&s));
        VekStr_delete(&s);
    }
    state.SetBytesProcessed(state.iterations() * total);
}

void BM_stdstring_append(benchmark::State& state) {
    size_t piece = (size_t)state.range(0);
    size_t total = (size_t)state.range(1);
    for (auto _ : state) {
        std::string s;
        for (size_t n = 0; n < total; n += piece) {
            s.append(kPiece, piece);
        }
        benchmark::DoNotOptimize(s.data());
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)total);
}

void BM_vekstr_appdf(benchmark::State& state) {
    VekStr s;
    VekStr_new(&s);
    int i = 0;
    for (auto _ : state) {
        VekStr_clear(&s);
        VekStr_appdf(&s, "%d %s %08x", i, "name", (unsigned)i * 2654435761u);
        benchmark::DoNotOptimize(VekStr_buf(&s));
        i++;
    }
    VekStr_delete(&s);
}

void BM_snprintf(benchmark::State& state) {
    char buf[64];
    int i = 0;
    for (auto _ : state) {
        std::snprintf(buf, sizeof buf, "%d %s %08x", i, "name", (unsigned)i * 2654435761u);
        benchmark::DoNotOptimize(buf);
        i++;
    }
}

constexpr int64_t kMiB = 1 << 20;

} // namespace

BENCHMARK(BM_vekstr_append)
    ->ArgsProduct({{1, 16}, {kMiB, 4 * kMiB, 16 * kMiB}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_stdstring_append)
    ->ArgsProduct({{1, 16}, {kMiB, 4 * kMiB, 16 * kMiB}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_vekstr_appdf);
BENCHMARK(BM_snprintf);
