/*
 * Loading a 1 MiB INI text (2,000 sections of 20 keys, comments between)
 * and looking up 10,000 keys: IniFile against inih (parsed into a hash map,
 * since inih keeps nothing) and GLib's GKeyFile; the lookups also with the
 * document's section index always stale (the scan), and against two
 * caller-built indexes. Also one key read from a 4 KiB settings file of 120
 * keys (IniUtil_getFileStr against loading, asking and freeing a GKeyFile,
 * and an inih pass over the file).
 */
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <strings.h>
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

// The settings file: 6 sections of 20 keys, about 4 KiB; the key asked for
// is the last one.
constexpr int kSetSections = 6;
const char kSetSect[] = "Group5";
const char kSetKey[] = "Option19";

const std::string& settings_path() {
    static std::string path = [] {
        std::string s;
        for (int i = 0; i < kSetSections; i++) {
            s += "# settings group " + std::to_string(i) + "\n[Group" + std::to_string(i) + "]\n";
            for (int k = 0; k < kKeys; k++) {
                s += "Option" + std::to_string(k) + "=some value " + std::to_string(i * kKeys + k) + "\n";
            }
            s += "\n";
        }
        while (s.size() < 4000) {
            s.insert(0, "# padding comment line of the settings file\n");
        }
        const char* dir = std::getenv("TMPDIR");
        std::string p = std::string(dir ? dir : "/tmp") + "/vek_bench_settings.ini";
        FILE* f = std::fopen(p.c_str(), "wb");
        if (!f) {
            std::abort();
        }
        std::fwrite(s.data(), 1, s.size(), f);
        std::fclose(f);
        return p;
    }();
    return path;
}

void BM_IniUtil_getFileStr(benchmark::State& state) {
    const char* path = settings_path().c_str();
    char buf[64];
    for (auto _ : state) {
        IniUtil_getFileStr(path, kSetSect, kSetKey, "", buf, sizeof buf);
        benchmark::DoNotOptimize(buf);
    }
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

// The same lookups with a call on one of the document's section names
// before each one: the document's index is never current, every lookup
// scans.
void BM_IniFile_lookup10k_scan(benchmark::State& state) {
    vek_s32 err = 0;
    IniFile* d = IniFile_newBuf(text().data(), (vek_s32)text().size(), &err);
    IniSect* first = (IniSect*)IniFile_sectList(d)->hdr;
    char buf[64];
    for (auto _ : state) {
        for (const Probe& p : probes()) {
            benchmark::DoNotOptimize(VekStr_len(&first->name));
            IniFile_getStr(d, p.sect.c_str(), p.key.c_str(), "", buf, sizeof buf);
            benchmark::DoNotOptimize(buf);
        }
    }
    IniFile_delete(d);
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

// Reference points for the document's own section index. "Unchecked" is a
// caller-built index over the public records that trusts itself blindly
// (std::unordered_map of the folded names, then the section's lines
// scanned): what an index can give at best. "Checked" is the same after a
// per-lookup proof that the lists still match a snapshot (each section
// node, its successor, its name's block and length): the obvious proof,
// which already costs a walk of every section, and is still short of a full
// one (a same-length rename in place slips past it).
struct SectIndex {
    std::unordered_map<std::string, IniSect*> first;
    struct Snap {
        const VekListNode* node;
        const VekListNode* next;
        const StrData* name;
        vek_s32 len;
    };
    std::vector<Snap> snap;
    std::string key;  // reused for the folded probe

    explicit SectIndex(IniFile* d) {
        for (VekListNode* n = IniFile_sectList(d)->hdr; n; n = n->next) {
            IniSect* s = (IniSect*)n;
            first.emplace(fold(VekStr_buf(&s->name)), s);
            snap.push_back({n, n->next, s->name.data, s->name.data->len});
        }
    }
    static std::string fold(const char* p) {
        std::string k(p);
        for (char& c : k) {
            c = (char)std::tolower((unsigned char)c);
        }
        return k;
    }
    bool still_matches(IniFile* d) const {
        const VekList* l = IniFile_sectList(d);
        if ((size_t)l->len != snap.size()) {
            return false;
        }
        const VekListNode* n = l->hdr;
        for (const Snap& e : snap) {
            const IniSect* s = (const IniSect*)n;
            if (n != e.node || n->next != e.next || s->name.data != e.name || e.name->len != e.len) {
                return false;
            }
            n = n->next;
        }
        return true;
    }
    const IniField* find(const char* sect, const char* field) {
        key.assign(sect);
        for (char& c : key) {
            c = (char)std::tolower((unsigned char)c);
        }
        auto it = first.find(key);
        if (it == first.end()) {
            return nullptr;
        }
        size_t len = std::strlen(field);
        for (VekListNode* n = it->second->fields.hdr; n; n = n->next) {
            const IniField* f = (const IniField*)n;
            if ((f->flags & INIFIELD_VALID) && (size_t)f->name.data->len == len &&
                !strncasecmp(f->name.data->buf, field, len)) {
                return f;
            }
        }
        return nullptr;
    }
};

void index_lookups(benchmark::State& state, bool checked) {
    vek_s32 err = 0;
    IniFile* d = IniFile_newBuf(text().data(), (vek_s32)text().size(), &err);
    SectIndex ix(d);
    char buf[64];
    for (auto _ : state) {
        for (const Probe& p : probes()) {
            if (checked && !ix.still_matches(d)) {
                std::abort();  // nothing changes the document here
            }
            const IniField* f = ix.find(p.sect.c_str(), p.key.c_str());
            vek_strxfrm(buf, f ? f->value.data->buf : "", sizeof buf);
            benchmark::DoNotOptimize(buf);
        }
    }
    IniFile_delete(d);
}

void BM_IniIndex_unchecked_lookup10k(benchmark::State& state) {
    index_lookups(state, false);
}
void BM_IniIndex_checked_lookup10k(benchmark::State& state) {
    index_lookups(state, true);
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
struct OneKey {
    std::string value;
    bool found;
};

int inih_one(void* user, const char* section, const char* name, const char* value) {
    OneKey* k = (OneKey*)user;
    if (!k->found && !strcasecmp(section, kSetSect) && !strcasecmp(name, kSetKey)) {
        k->value = value;
        k->found = true;
    }
    return 1;
}

void BM_inih_getFileStr(benchmark::State& state) {
    const char* path = settings_path().c_str();
    for (auto _ : state) {
        OneKey k{{}, false};
        ini_parse(path, inih_one, &k);
        benchmark::DoNotOptimize(k.value.data());
    }
}
BENCHMARK(BM_inih_getFileStr);
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
void BM_GKeyFile_getFileStr(benchmark::State& state) {
    const char* path = settings_path().c_str();
    for (auto _ : state) {
        GKeyFile* kf = g_key_file_new();
        g_key_file_load_from_file(kf, path, G_KEY_FILE_NONE, nullptr);
        gchar* v = g_key_file_get_string(kf, kSetSect, kSetKey, nullptr);
        benchmark::DoNotOptimize(v);
        g_free(v);
        g_key_file_free(kf);
    }
}
BENCHMARK(BM_GKeyFile_getFileStr);
BENCHMARK(BM_GKeyFile_load)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GKeyFile_lookup10k)->Unit(benchmark::kMillisecond);
#endif

} // namespace

BENCHMARK(BM_IniUtil_getFileStr);
BENCHMARK(BM_IniFile_load)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniFile_lookup10k)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniFile_lookup10k_scan)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniIndex_unchecked_lookup10k)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IniIndex_checked_lookup10k)->Unit(benchmark::kMillisecond);
