/*
 * UtfFull.cpp - UTF-8 <-> UTF-16 over the whole of Unicode (UtfFull.h).
 */
#include <cstring>
#include "UtfFull.h"

namespace vek {

vek_s32 utf8_to_utf16(const char* s, vek_s32 n, vek_wchar* out, vek_s32 cap) {
    const vek_u8* p = (const vek_u8*)s;
    const vek_u8* end = p + (n < 0 ? (s ? std::strlen(s) : 0) : (size_t)n);
    vek_s32 need = 0;
    vek_s32 room = cap > 0 ? cap - 1 : 0;
    while (p < end) {
        vek_u32 cp;
        vek_s32 k = utf8_decode(p, end, &cp);
        if (k == 0) {
            cp = 0xFFFD;
            k = 1;
        }
        p += k;
        vek_s32 units = cp >= 0x10000 ? 2 : 1;
        if (need + units <= room) {
            if (units == 2) {
                cp -= 0x10000;
                out[need] = (vek_wchar)(0xD800 | (cp >> 10));
                out[need + 1] = (vek_wchar)(0xDC00 | (cp & 0x3FF));
            } else {
                out[need] = (vek_wchar)cp;
            }
        } else {
            room = need;  // full: nothing more is written, not even a short one
        }
        need += units;
    }
    if (cap > 0) {
        out[need < room ? need : room] = 0;
    }
    return need;
}

vek_s32 utf16_to_utf8(const vek_wchar* w, vek_s32 n, char* out, vek_s32 cap) {
    if (n < 0) {
        n = 0;
        while (w && w[n]) {
            n++;
        }
    }
    vek_s32 need = 0;
    vek_s32 room = cap > 0 ? cap - 1 : 0;
    for (vek_s32 i = 0; i < n; i++) {
        vek_u32 cp = w[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && w[i + 1] >= 0xDC00 && w[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (w[i + 1] - 0xDC00u);
            i++;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        char buf[4];
        vek_s32 k = utf8_encode(cp, buf);
        if (need + k <= room) {
            std::memcpy(out + need, buf, (size_t)k);
        } else {
            room = need;
        }
        need += k;
    }
    if (cap > 0) {
        out[need < room ? need : room] = 0;
    }
    return need;
}

} // namespace vek
