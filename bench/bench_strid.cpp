/*
 * Text-to-identifier lookups among 100,000 names: StrId_find against
 * std::unordered_map<std::string, int>::find. The names are identifiers of
 * 6 to 24 characters; each round looks up 4096 of them in a random order
 * (hits), and a second benchmark the same number of absent names (misses).
 */
#include <benchmark/benchmark.h>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr int kNames = 100000;

std::vector<std::string> make_names(unsigned seed) {
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789_";
    std::mt19937 rng(seed);
    std::vector<std::string> out;
    for (int i = 0; i < kNames; i++) {
        std::string s;
        for (int n = 6 + (int)(rng() % 19); n; n--) {
            s += kChars[rng() % (sizeof kChars - 1)];
        }
        out.push_back(s + std::to_string(i));  // distinct
    }
    return out;
}

struct Data {
    std::vector<std::string> names = make_names(1);
    std::vector<std::string> hits, misses;
    Data() {
        std::mt19937 rng(7);
        std::vector<std::string> other = make_names(2);
        for (int i = 0; i < 4096; i++) {
            hits.push_back(names[rng() % kNames]);
            misses.push_back(other[rng() % kNames] + "~");
        }
    }
};

const Data& data() {
    static Data d;
    return d;
}

void BM_StrId_find(benchmark::State& state) {
    const Data& d = data();
    StrId t;
    StrId_new(&t, 0);
    for (const std::string& s : d.names) {
        StrId_add(&t, s.data(), (vek_s32)s.size());
    }
    const std::vector<std::string>& q = state.range(0) ? d.hits : d.misses;
    for (auto _ : state) {
        for (const std::string& s : q) {
            vek_s32 id = StrId_find(&t, s.data(), (vek_s32)s.size());
            benchmark::DoNotOptimize(id);
        }
    }
    state.SetItemsProcessed((int64_t)state.iterations() * (int64_t)q.size());
    StrId_delete(&t);
}

void BM_unordered_map_find(benchmark::State& state) {
    const Data& d = data();
    std::unordered_map<std::string, int> m;
    for (size_t i = 0; i < d.names.size(); i++) {
        m.emplace(d.names[i], (int)i + 1);
    }
    const std::vector<std::string>& q = state.range(0) ? d.hits : d.misses;
    for (auto _ : state) {
        for (const std::string& s : q) {
            auto it = m.find(s);
            int id = it == m.end() ? -25 : it->second;
            benchmark::DoNotOptimize(id);
        }
    }
    state.SetItemsProcessed((int64_t)state.iterations() * (int64_t)q.size());
}

// Argument 1: names that are held, 0: names that are not.
BENCHMARK(BM_StrId_find)->Arg(1)->Arg(0);
BENCHMARK(BM_unordered_map_find)->Arg(1)->Arg(0);

} // namespace
