/*
 * UtfFull.h - UTF-8 <-> UTF-16 over the whole of Unicode (internal).
 *
 * The public conversions (VekUni.h) work one 16-bit unit at a time, as the
 * rest of the library's text does. File names, XML documents and message
 * catalogues may hold any character, so the layers that meet them (the
 * Windows calls, the XML decoder) use these instead: characters beyond the
 * Basic Multilingual Plane travel as surrogate pairs, and whatever is not
 * well-formed (a stray or cut UTF-8 sequence, an overlong form, an encoded
 * surrogate, a lone surrogate unit) becomes U+FFFD, one per bad unit, so a
 * conversion never fails and never swallows the text after a bad spot.
 */
#ifndef VEK_UTFFULL_H
#define VEK_UTFFULL_H

#include "VekType.h"

namespace vek {

/* Decodes one well-formed UTF-8 sequence at p (before end) into *cp.
 * Returns its length (1 to 4), or 0 when the bytes there are not UTF-8
 * (overlong, surrogate, above U+10FFFF, bad or missing continuation). */
inline vek_s32 utf8_decode(const vek_u8* p, const vek_u8* end, vek_u32* cp) {
    vek_u32 b = p[0];
    if (b < 0x80) {
        *cp = b;
        return 1;
    }
    vek_s32 n;
    vek_u32 c;
    vek_u32 lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (b >= 0xC2 && b <= 0xDF) {
        n = 2;
        c = b & 0x1F;
    } else if (b >= 0xE0 && b <= 0xEF) {
        n = 3;
        c = b & 0x0F;
        if (b == 0xE0) {
            lo = 0xA0;  // no overlong forms
        } else if (b == 0xED) {
            hi = 0x9F;  // no surrogates
        }
    } else if (b >= 0xF0 && b <= 0xF4) {
        n = 4;
        c = b & 0x07;
        if (b == 0xF0) {
            lo = 0x90;
        } else if (b == 0xF4) {
            hi = 0x8F;  // nothing above U+10FFFF
        }
    } else {
        return 0;
    }
    if (end - p < n || p[1] < lo || p[1] > hi) {
        return 0;
    }
    c = (c << 6) | (p[1] & 0x3F);
    for (vek_s32 i = 2; i < n; i++) {
        if ((p[i] & 0xC0) != 0x80) {
            return 0;
        }
        c = (c << 6) | (p[i] & 0x3F);
    }
    *cp = c;
    return n;
}

/* Encodes a code point (at most U+10FFFF, no surrogate) into out, which
 * has room for 4 bytes; returns the byte count. */
inline vek_s32 utf8_encode(vek_u32 cp, char* out) {
    if (cp < 0x80) {
        out[0] = (char)cp;
        return 1;
    }
    if (cp < 0x800) {
        out[0] = (char)(0xC0 | (cp >> 6));
        out[1] = (char)(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = (char)(0xE0 | (cp >> 12));
        out[1] = (char)(0x80 | ((cp >> 6) & 0x3F));
        out[2] = (char)(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = (char)(0xF0 | (cp >> 18));
    out[1] = (char)(0x80 | ((cp >> 12) & 0x3F));
    out[2] = (char)(0x80 | ((cp >> 6) & 0x3F));
    out[3] = (char)(0x80 | (cp & 0x3F));
    return 4;
}

/* UTF-8 (n bytes; negative: up to the terminator) to UTF-16. Writes at most
 * cap - 1 units and a terminator (nothing when cap < 1), never splitting a
 * surrogate pair; returns the units the whole text needs, terminator not
 * counted, so a result >= cap says the buffer was too small. */
vek_s32 utf8_to_utf16(const char* s, vek_s32 n, vek_wchar* out, vek_s32 cap);
/* UTF-16 (n units; negative: up to the terminator) to UTF-8, the same way:
 * at most cap - 1 bytes and a terminator, never a cut character; returns
 * the bytes the whole text needs. */
vek_s32 utf16_to_utf8(const vek_wchar* w, vek_s32 n, char* out, vek_s32 cap);

} // namespace vek

#endif /* VEK_UTFFULL_H */
