/*
 * MD5 and the CRCs over 64 KiB: CRC-32 against zlib's crc32, MD5 against
 * OpenSSL's MD5 (where they are installed), and CRC-16 against the classic
 * one-table byte loop, which is what the slice tables replace.
 */
#include <benchmark/benchmark.h>
#include <array>
#include <string>
#include "BaseLib.h"
#ifdef HAVE_ZLIB
#include <zlib.h>
#endif
#ifdef HAVE_OPENSSL
#define OPENSSL_SUPPRESS_DEPRECATED  // MD5() is the one-call form we compare with
#include <openssl/md5.h>
#endif

namespace {

constexpr size_t kData = 64 * 1024;

const std::string& data() {
    static const std::string s = [] {
        std::string d(kData, 0);
        vek_u32 seed = 1;
        for (char& c : d) {
            seed = seed * 1103515245u + 12345u;
            c = (char)(seed >> 23);
        }
        return d;
    }();
    return s;
}

void bytes(benchmark::State& state) {
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)kData);
}

void BM_vek_crc32(benchmark::State& state) {
    const std::string& d = data();
    for (auto _ : state) {
        benchmark::DoNotOptimize(Crc32_fcsBuf(0xFFFFFFFFu, d.data(), (vek_s32)d.size()));
    }
    bytes(state);
}
BENCHMARK(BM_vek_crc32);

#ifdef HAVE_ZLIB
void BM_zlib_crc32(benchmark::State& state) {
    const std::string& d = data();
    for (auto _ : state) {
        benchmark::DoNotOptimize(crc32(0, (const Bytef*)d.data(), (uInt)d.size()));
    }
    bytes(state);
}
BENCHMARK(BM_zlib_crc32);
#endif

void BM_vek_crc16(benchmark::State& state) {
    const std::string& d = data();
    for (auto _ : state) {
        benchmark::DoNotOptimize(Crc16_fcsBuf(0xFFFF, d.data(), (vek_s32)d.size()));
    }
    bytes(state);
}
BENCHMARK(BM_vek_crc16);

// The textbook loop: one table, one byte per step.
void BM_bytewise_crc16(benchmark::State& state) {
    static const std::array<vek_u16, 256> table = [] {
        std::array<vek_u16, 256> t{};
        for (unsigned i = 0; i < 256; i++) {
            unsigned r = i;
            for (int k = 0; k < 8; k++) {
                r = (r & 1) ? (r >> 1) ^ 0x8408 : r >> 1;
            }
            t[i] = (vek_u16)r;
        }
        return t;
    }();
    const std::string& d = data();
    for (auto _ : state) {
        unsigned fcs = 0xFFFF;
        for (unsigned char c : d) {
            fcs = (fcs >> 8) ^ table[(fcs ^ c) & 0xFF];
        }
        benchmark::DoNotOptimize(fcs);
    }
    bytes(state);
}
BENCHMARK(BM_bytewise_crc16);

void BM_vek_md5(benchmark::State& state) {
    const std::string& d = data();
    VekMd5 ctx;
    for (auto _ : state) {
        VekMd5_update(VekMd5_init(&ctx), d.data(), (vek_s32)d.size());
        benchmark::DoNotOptimize(VekMd5_finalx(&ctx, nullptr));
    }
    bytes(state);
}
BENCHMARK(BM_vek_md5);

#ifdef HAVE_OPENSSL
void BM_openssl_md5(benchmark::State& state) {
    const std::string& d = data();
    unsigned char dig[MD5_DIGEST_LENGTH];
    for (auto _ : state) {
        benchmark::DoNotOptimize(MD5((const unsigned char*)d.data(), d.size(), dig));
    }
    bytes(state);
}
BENCHMARK(BM_openssl_md5);
#endif

} // namespace
