/*
 * The Unicode decoders and encoders on any bytes: bounds are kept, output
 * is always terminated, and text that survives a trip through UTF-16 comes
 * back to the same UTF-16. The bounded forms (vector blocks of ASCII and
 * of one- to three-byte characters) agree with the terminated ones (scalar
 * rules throughout), into targets of any size.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "BaseLib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string in((const char*)data, size);
    const char* s = in.c_str();  // terminated at the first NUL or the end
    vek_s32 len = (vek_s32)size;

    // Decoding into a small target never writes past it and terminates.
    vek_wchar small[9];
    small[8] = 0xBEEF;
    vek_s32 more = 0;
    vek_s32 n = utf8_buf_to_wcs_strx(s, len, small, 8, &more);
    if (n > 7 || small[n] != 0 || small[8] != 0xBEEF) {
        std::abort();
    }
    // UTF-8 -> UTF-16 -> UTF-8 -> UTF-16 is stable after the first step.
    std::vector<vek_wchar> w(size + 1);
    vek_s32 units = utf8_buf_to_wcs_str(s, len, w.data(), (vek_s32)w.size());
    std::vector<char> u(3 * size + 8);
    vek_s32 bytes = wcs_buf_to_utf8_str(w.data(), units, u.data(), (vek_s32)u.size());
    std::vector<vek_wchar> w2(size + 1);
    vek_s32 units2 = utf8_buf_to_wcs_str(u.data(), bytes, w2.data(), (vek_s32)w2.size());
    if (units2 != units || std::memcmp(w.data(), w2.data(), sizeof(vek_wchar) * (size_t)units) != 0) {
        std::abort();
    }
    // Bounded and terminated forms agree, into a target of any size.
    vek_s32 tlen = (vek_s32)std::strlen(s);
    for (vek_s32 cap : {1 + (vek_s32)(size % 97), tlen + 1}) {
        std::vector<vek_wchar> wf(size + 2, 0xBEEF), ws(size + 2, 0xBEEF);
        if (utf8_buf_to_wcs_str(s, len, wf.data(), cap) != utf8_str_to_wcs_str(s, ws.data(), cap) ||
            wf != ws) {
            std::abort();
        }
    }
    std::vector<vek_wchar> wz(w.begin(), w.begin() + units);
    wz.push_back(0);
    std::vector<char> bf(3 * size + 8), bs(3 * size + 8);
    vek_s32 bcap = 1 + (vek_s32)(size % 131);
    if (wcs_buf_to_utf8_str(wz.data(), units, bf.data(), bcap) != wcs_str_to_utf8_str(wz.data(), bs.data(), bcap) ||
        std::memcmp(bf.data(), bs.data(), (size_t)bcap) != 0) {
        std::abort();
    }
    // The same units swapped, and UTF-7 in both directions.
    std::vector<char> u2(3 * size + 8);
    ucs2_buf_to_utf8_str(w.data(), units, u2.data(), (vek_s32)u2.size());
    std::vector<char> d7(4 * size + 8);
    utf7_str_to_utf8_str(s, d7.data(), (vek_s32)d7.size());
    utf8_str_len(s);
    utf8_cmp_wcs(s, w.data());
    std::string clean = in;
    vek_s32 cleanLen = 0, removed = 0;
    utf8_str_clean(&clean[0], &cleanLen, &removed);
    // Formatting the text as an argument (never as a format).
    VekStr str;
    VekStr_new(&str);
    VekStr_appdf(&str, "<%s|%.5s|%20s>", s, s, s);
    VekWcs wcs;
    VekWcs_new(&wcs);
    VekWcs_appdStrx(&wcs, s, len);
    VekStr_setCwcs(&str, &wcs);
    VekWcs_delete(&wcs);
    VekStr_delete(&str);
    return 0;
}
