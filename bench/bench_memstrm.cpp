/*
 * MemStrm against std::stringstream and plain memcpy: 16 MiB written and
 * then read back, one byte at a time (putc/getc, put/get) or in chunks of
 * 64 B and 4 KiB. The memcpy peer copies the same chunks into a buffer
 * allocated once and back out of it: the floor for moving these bytes.
 */
#include <benchmark/benchmark.h>
#include <cstring>
#include <sstream>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr size_t kTotal = 16u << 20;

std::vector<char> chunk_of(size_t n) {
    std::vector<char> c(n);
    for (size_t i = 0; i < n; i++) {
        c[i] = (char)(i * 7);
    }
    return c;
}

void report(benchmark::State& state) {
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)kTotal * 2);
}

void BM_MemStrm(benchmark::State& state) {
    const size_t chunk = (size_t)state.range(0);
    std::vector<char> in = chunk_of(chunk), out(chunk);
    for (auto _ : state) {
        IStrm* s = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
        unsigned sum = 0;
        if (chunk == 1) {
            for (size_t i = 0; i < kTotal; i++) {
                IStrm_putc(s, (vek_s32)(i & 0xFF));
            }
            IStrm_seek(s, 0, 0);
            for (size_t i = 0; i < kTotal; i++) {
                sum += (unsigned)IStrm_getc(s);
            }
        } else {
            for (size_t done = 0; done < kTotal; done += chunk) {
                IStrm_write(s, in.data(), (vek_s32)chunk);
            }
            IStrm_seek(s, 0, 0);
            for (size_t done = 0; done < kTotal; done += chunk) {
                sum += (unsigned)IStrm_read(s, out.data(), (vek_s32)chunk);
            }
        }
        benchmark::DoNotOptimize(sum);
        IStrm_release(s);
    }
    report(state);
}

void BM_stringstream(benchmark::State& state) {
    const size_t chunk = (size_t)state.range(0);
    std::vector<char> in = chunk_of(chunk), out(chunk);
    for (auto _ : state) {
        std::stringstream ss;
        unsigned sum = 0;
        if (chunk == 1) {
            for (size_t i = 0; i < kTotal; i++) {
                ss.put((char)(i & 0xFF));
            }
            ss.seekg(0);
            for (size_t i = 0; i < kTotal; i++) {
                sum += (unsigned)ss.get();
            }
        } else {
            for (size_t done = 0; done < kTotal; done += chunk) {
                ss.write(in.data(), (std::streamsize)chunk);
            }
            ss.seekg(0);
            for (size_t done = 0; done < kTotal; done += chunk) {
                ss.read(out.data(), (std::streamsize)chunk);
                sum += (unsigned)ss.gcount();
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    report(state);
}

void BM_memcpy(benchmark::State& state) {
    const size_t chunk = (size_t)state.range(0);
    std::vector<char> in = chunk_of(chunk), out(chunk), buf(kTotal);
    for (auto _ : state) {
        for (size_t done = 0; done < kTotal; done += chunk) {
            std::memcpy(buf.data() + done, in.data(), chunk);
        }
        benchmark::ClobberMemory();
        unsigned sum = 0;
        for (size_t done = 0; done < kTotal; done += chunk) {
            std::memcpy(out.data(), buf.data() + done, chunk);
            benchmark::ClobberMemory();
            sum += (unsigned char)out[0];
        }
        benchmark::DoNotOptimize(sum);
    }
    report(state);
}

} // namespace

BENCHMARK(BM_MemStrm)->Arg(1)->Arg(64)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_stringstream)->Arg(1)->Arg(64)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_memcpy)->Arg(1)->Arg(64)->Arg(4096)->Unit(benchmark::kMillisecond);
