/*
 * UTF-8 to UTF-16 (utf8_buf_to_wcs_str) and back (wcs_buf_to_utf8_str)
 * against glibc's iconv, on 64 KiB of ASCII and of mixed Chinese and
 * European text. The iconv descriptors are opened once; each round only
 * resets their state, so both sides measure the conversion itself.
 */
#include <benchmark/benchmark.h>
#include <iconv.h>
#include <string>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr size_t kText = 64 * 1024;

std::string make_text(bool mixed) {
    const char* ascii = "The quick brown fox jumps over the lazy dog, 0123456789. ";
    const char* pieces = "Gr\xC3\xBC\xC3\x9F" "e aus K\xC3\xB6ln, "
                         "\xE4\xB8\xAD\xE6\x96\x87\xE7\x9F\xAD\xE4\xBF\xA1 "  // 中文短信
                         "caf\xC3\xA9 cr\xC3\xA8me \xE2\x82\xAC" "5, "
                         "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xA7\xE3\x81\x99. ";
    std::string s;
    while (s.size() < kText) {
        s += mixed ? pieces : ascii;
    }
    return s;
}

std::u16string to_wide(const std::string& s) {
    std::u16string w(s.size() + 1, u'\0');
    vek_s32 n = utf8_buf_to_wcs_str(s.data(), (vek_s32)s.size(), (vek_wchar*)w.data(),
                                    (vek_s32)w.size());
    w.resize((size_t)n);
    return w;
}

void BM_vek_utf8_to_wcs(benchmark::State& state) {
    std::string src = make_text(state.range(0) != 0);
    std::vector<vek_wchar> dst(src.size() + 1);
    for (auto _ : state) {
        vek_s32 n = utf8_buf_to_wcs_str(src.data(), (vek_s32)src.size(), dst.data(),
                                        (vek_s32)dst.size());
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)src.size());
}

void BM_iconv_utf8_to_utf16(benchmark::State& state) {
    std::string src = make_text(state.range(0) != 0);
    std::vector<char> dst(src.size() * 2 + 2);
    iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
    for (auto _ : state) {
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        char* in = src.data();
        size_t inLeft = src.size();
        char* out = dst.data();
        size_t outLeft = dst.size();
        size_t r = iconv(cd, &in, &inLeft, &out, &outLeft);
        benchmark::DoNotOptimize(r);
    }
    iconv_close(cd);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)src.size());
}

void BM_vek_wcs_to_utf8(benchmark::State& state) {
    std::string text = make_text(state.range(0) != 0);
    std::u16string src = to_wide(text);
    std::vector<char> dst(src.size() * 3 + 5);
    for (auto _ : state) {
        vek_s32 n = wcs_buf_to_utf8_str((const vek_wchar*)src.data(), (vek_s32)src.size(),
                                        dst.data(), (vek_s32)dst.size());
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
}

void BM_iconv_utf16_to_utf8(benchmark::State& state) {
    std::string text = make_text(state.range(0) != 0);
    std::u16string src = to_wide(text);
    std::vector<char> dst(src.size() * 3 + 5);
    iconv_t cd = iconv_open("UTF-8", "UTF-16LE");
    for (auto _ : state) {
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        char* in = (char*)src.data();
        size_t inLeft = src.size() * 2;
        char* out = dst.data();
        size_t outLeft = dst.size();
        size_t r = iconv(cd, &in, &inLeft, &out, &outLeft);
        benchmark::DoNotOptimize(r);
    }
    iconv_close(cd);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
}

// Argument 0: ASCII, 1: mixed Chinese and European text. Bytes processed
// count the UTF-8 side in both directions.
BENCHMARK(BM_vek_utf8_to_wcs)->Arg(0)->Arg(1);
BENCHMARK(BM_iconv_utf8_to_utf16)->Arg(0)->Arg(1);
BENCHMARK(BM_vek_wcs_to_utf8)->Arg(0)->Arg(1);
BENCHMARK(BM_iconv_utf16_to_utf8)->Arg(0)->Arg(1);

} // namespace
