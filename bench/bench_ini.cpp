/*
 * Loading a 1 MiB INI text (2,000 sections of 20 keys, comments between)
 * and looking up 10,000 keys: IniFile against inih (parsed into a hash map,
 * since inih keeps nothing) and GLib's GKeyFile.
 */
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>
#include "BaseLib.h"
#ifdef HAVE_INIH
#include <ini.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr int kSections = 2000;
constexpr int kKeys = 20;
constexpr int kLookups = 10000;

// GKeyFile knows only "#" comments; the same text with those is the same size.
std::string make_text(char comment) {
    std::string s;
    for (int i = 0; i < kSections; i++) {
        s += comment + std::string(" section ") + std::to_string(i) + " of the device table\r\n";
        s += "[Device" + std::to_string(i) + "]\r\n";
        for (int k = 0; k < kKeys; k++) {
            s += "Key" + std::to_string(k) + "=value " + std::to_string(i * kKeys + k) + " of the setting\r\n";
            if (k == 9) {
                s += comment + std::string(" a comment in the middle\r\n");
            }
        }
        s += "\r\n";
    }
    return s;
}

const std::string& text() {
    static std::string t = make_text(';');
    return t;
}

#ifdef HAVE_GLIB
const std::string& hash_text() {
    static std::string t = make_text('#');
    return t;
}
#endif

struct Probe {
    std::string sect, key;
};

const std::vector<Probe>& probes() {
    static std::vector<Probe> p = [] {
        std::vector<Probe> v;
        unsigned x = 12345;
        for (int i = 0; i < kLookups; i++) {
            x = x * 1103515245u + 12345u;
            v.push_back({"Device" + std::to_string((x >> 8) % kSections), "Key" + std::to_string((x >> 20) % kKeys)});
        }
        return v;
    }();
    return p;
}

void BM_IniFile_load(benchmark::State& state) {
    const std::string& t = text();
    for (auto _ : state) {
        vek_s32 err = 0;
        IniFile* d = IniFile_newBuf(t.data(), (vek_s32)t.size(), &err);
        benchmark::DoNotOptimize(d);
        IniFile_delete(d);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.size());
}

void BM_IniFile_lookup10k(benchmark::State& state) {
    vek_s32 err = 0;
    IniFile* d = IniFile_newBuf(text().data(), (vek_s32)text().size(), &err);
    char buf[64];
    for (auto _ : state) {
        for (const Probe& p : probes()) {
            IniFile_getStr(d, p.sect.c_str(), p.key.c_str(), "", buf, sizeof buf);
            benchmark::DoNotOptimize(buf);
        }
    }
    IniFile_delete(d);
}

#ifdef HAVE_INIH
using Map = std::unordered_map<std::string, std::string>;

int inih_store(void* user, const char* section, const char* name, const char* value) {
    (*(Map*)user)[std::string(section) + '\n' + name] = value;
    return 1;
}

void BM_inih_load(benchmark::State& state) {
    const std::string& t = text();
    for (auto _ : state) {
        Map m;
        ini_parse_string(t.c_str(), inih_store, &m);
        benchmark::DoNotOptimize(m);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.size());
}

void BM_inih_lookup10k(benchmark::State& state) {
    Map m;
    ini_parse_string(text().c_str(), inih_store, &m);
    for (auto _ : state) {
        for (const Probe& p : probes()) {
            auto it = m.find(p.sect + '\n' + p.key);
            benchmark::DoNotOptimize(it);
        }
    }
}
BENCHMARK(BM_inih_load)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_inih_lookup10k)->Unit(benchmark::kMillisecond);
#endif

#ifdef HAVE_GLIB
GKeyFile* gkey_load(const std::string& t) {
    GKeyFile* kf = g_key_file_new();
    GError* err = nullptr;
    if (!g_key_file_load_from_data(kf, t.data(), t.size(), G_KEY_FILE_KEEP_COMMENTS, &err)) {
        std::fprintf(stderr, "GKeyFile: %s\n", err->message);  // the comparison would be void
        std::abort();
    }
    return kf;
}

void BM_GKeyFile_load(benchmark::State& state) {
    const std::string& t = hash_text();
    for (auto _ : state) {
        g_key_file_free(gkey_load(t));
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.size());
}

void BM_GKeyFile_lookup10k(benchmark::State& state) {
    GKeyFile* kf = gkey_load(hash_text());
    for (auto _ : state) {
        for (const Probe& p : probes()) {
            gchar* v = g_key_file_get_string(kf, p.sect.c_str(), p.key.c_str(), nullptr);
            benchmark::DoNotOptimize(v);
            g_free(v);
        }
    }
    g_key_file_free(kf);
}
BENCHMARK(BM_GKeyFile_load)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GKeyFile_lookup10k)->Unit(benchmark::kMillisecond);
#endif

} // namespace

BENCHMARK(BM_IniFile_load)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniFile_lookup10k)->Unit(benchmark::kMillisecond);
