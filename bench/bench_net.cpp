/*
 * IPv4 and IPv6 texts read by vek_inet_pton against glibc's inet_pton:
 * 1024 addresses of every length (IPv6 as canonical texts of addresses
 * with and without zero runs, some with a dotted tail), all read once a
 * round. Both sides measure the length of the terminated text themselves.
 */
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstring>
#include <random>
#include <string>
#include <vector>
#include "BaseLib.h"

namespace {

std::vector<std::string> make_texts(int ver) {
    std::mt19937 rng(42);
    std::vector<std::string> out;
    char buf[VEK_INET6_ADDRSTRLEN];
    while (out.size() < 1024) {
        vek_u8 a[16] = {};
        for (int i = 0; i < 16; i += 2) {
            if (ver == 4 || rng() % 3) {
                a[i] = (vek_u8)(rng() % (ver == 4 ? 256 : 64));  // groups of one to four digits
                a[i + 1] = (vek_u8)rng();
            }
        }
        if (ver == 6 && rng() % 8 == 0) {
            std::memset(a, 0, 10);
            a[10] = a[11] = 0xFF;  // ::ffff:a.b.c.d
        }
        if (ver == 4) {
            for (int i = 0; i < 4; i++) {
                a[i] = (vek_u8)(rng() % 3 ? rng() % 256 : rng() % 10);
            }
        }
        vek_inet_ntop(ver, a, buf, sizeof buf);
        out.push_back(buf);
    }
    return out;
}

void BM_vek_inet_pton(benchmark::State& state) {
    int ver = (int)state.range(0);
    std::vector<std::string> texts = make_texts(ver);
    vek_u8 a[16];
    for (auto _ : state) {
        for (const std::string& t : texts) {
            vek_s32 r = vek_inet_pton(ver, t.c_str(), -1, a);
            benchmark::DoNotOptimize(r);
            benchmark::DoNotOptimize(a);
        }
    }
    state.SetItemsProcessed((int64_t)state.iterations() * (int64_t)texts.size());
}

void BM_inet_pton(benchmark::State& state) {
    int ver = (int)state.range(0);
    std::vector<std::string> texts = make_texts(ver);
    vek_u8 a[16];
    for (auto _ : state) {
        for (const std::string& t : texts) {
            int r = inet_pton(ver == 4 ? AF_INET : AF_INET6, t.c_str(), a);
            benchmark::DoNotOptimize(r);
            benchmark::DoNotOptimize(a);
        }
    }
    state.SetItemsProcessed((int64_t)state.iterations() * (int64_t)texts.size());
}

BENCHMARK(BM_vek_inet_pton)->Arg(4)->Arg(6);
BENCHMARK(BM_inet_pton)->Arg(4)->Arg(6);

} // namespace
