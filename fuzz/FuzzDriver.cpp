/*
 * The driver that runs a fuzz target without libFuzzer: deterministic
 * pseudo-random inputs drawn from the bytes parsers care about (brackets,
 * "=", ";", quotes, line ends, UTF-8 and UTF-7 pieces), so every CI leg
 * (and its sanitizers) exercises the targets. Built with clang and
 * -fsanitize=fuzzer instead, the same target runs under libFuzzer.
 *
 *   fuzz_x [iterations [seed]]   random inputs (default 3000, seed 1)
 *   fuzz_x FILE|FOLDER...        replays the given inputs (every file of
 *                                a folder, such as a seed corpus)
 *
 * The library runs initialised; assertions are answered Ignore (a target
 * may provoke them on purpose), and any tracked block still held after an
 * input is a failure. An input that makes the target abort is saved as
 * "fuzz-crash.bin" in the current folder, to be replayed.
 */
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <algorithm>
#include <vector>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include "BaseLib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

vek_s32 ignore_fault(const char*, const char*) {
    return VEK_FAULT_IGNORE;
}

vek_s64 live_blocks() {
    VekHeapStat st;
    return vek_heap_stat(&st) == 0 ? st.liveBlocks : 0;
}

struct Rng {
    uint32_t s;
    uint32_t next() {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return s;
    }
    uint32_t below(uint32_t n) { return n ? next() % n : 0; }
};

// string_view, so that the NUL byte piece is one byte long.
const std::string_view kPieces[] = {
    "[", "]", "=", ";", "\"", "\r", "\n", "\r\n", " ", "\t", "[sect]", "key=value", "\xEF\xBB\xBF",
    "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xC3", "\x80", "\xFF", "+", "-", "+AGE-", "+ZeVnLIqe-",
    "a", "Z", "0", "9", "%", "\\", "/", ":", "Global\\", std::string_view("\0", 1),
};

std::string make_input(Rng& r) {
    std::string s;
    uint32_t parts = r.below(64);
    for (uint32_t i = 0; i < parts; i++) {
        if (r.below(4) == 0) {
            s += (char)r.below(256);
        } else {
            s += kPieces[r.below(sizeof kPieces / sizeof kPieces[0])];
        }
    }
    if (r.below(50) == 0) {
        s += std::string(900 + r.below(300), 'x');  // near the INI line limit
    }
    return s;
}

const std::string* g_current;

void save_crash(int) {
    if (g_current) {
        if (std::FILE* f = std::fopen("fuzz-crash.bin", "wb")) {
            std::fwrite(g_current->data(), 1, g_current->size(), f);
            std::fclose(f);
        }
        std::fprintf(stderr, "input of %zu bytes saved as fuzz-crash.bin\n", g_current->size());
    }
    std::_Exit(134);
}

bool run_one(const std::string& in) {
    g_current = &in;
    vek_s64 before = live_blocks();
    LLVMFuzzerTestOneInput((const uint8_t*)in.data(), in.size());
    if (live_blocks() != before) {
        std::fprintf(stderr, "tracked blocks leaked for an input of %zu bytes\n", in.size());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    al_set_fault_hook(ignore_fault);
    std::signal(SIGABRT, save_crash);
    BaseLib_init();
    bool ok = true;
    if (argc > 1 && std::strtol(argv[1], nullptr, 10) <= 0) {
        std::vector<std::filesystem::path> files;
        for (int i = 1; i < argc; i++) {
            std::error_code ec;
            if (std::filesystem::is_directory(argv[i], ec)) {
                for (const auto& e : std::filesystem::directory_iterator(argv[i], ec)) {
                    if (e.is_regular_file(ec)) {
                        files.push_back(e.path());
                    }
                }
            } else {
                files.emplace_back(argv[i]);
            }
        }
        // A fixed order, so that a failure names the same input on every run.
        std::sort(files.begin(), files.end());
        for (size_t i = 0; i < files.size() && ok; i++) {
            std::ifstream f(files[i], std::ios::binary);
            if (!f) {
                std::fprintf(stderr, "cannot read %s\n", files[i].string().c_str());
                ok = false;
                break;
            }
            std::stringstream ss;
            ss << f.rdbuf();
            ok = run_one(ss.str());
            if (!ok) {
                std::fprintf(stderr, "failing input: %s\n", files[i].string().c_str());
            }
        }
        std::printf("%zu inputs replayed\n", files.size());
    } else {
        long n = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 3000;
        Rng r{argc > 2 ? (uint32_t)std::strtoul(argv[2], nullptr, 10) : 1u};
        for (long i = 0; i < n && ok; i++) {
            ok = run_one(make_input(r));
        }
    }
    BaseLib_exit();
    return ok ? 0 : 1;
}
