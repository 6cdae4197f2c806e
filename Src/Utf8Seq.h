/*
 * Utf8Seq.h - the length of one well-formed UTF-8 sequence (internal), for
 * the checks that take text only when it is valid UTF-8: paths, URLs.
 */
#ifndef VEK_UTF8SEQ_H
#define VEK_UTF8SEQ_H

#include <cstddef>
#include "VekType.h"

namespace vek {

/* The length (2 to 4) of the multi-byte sequence at s when it is well
 * formed - no overlong forms, no surrogates, nothing above U+10FFFF - and
 * lies within avail bytes, else 0. The continuation bytes are read one by
 * one and the first that is not one ends the check, so a terminated text
 * may pass a huge avail. ASCII bytes are not sequences here (0). */
inline int utf8_seq_len(const vek_u8* s, size_t avail) {
    vek_u8 c = s[0];
    int n;
    vek_u32 cp;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
        cp = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        cp = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        cp = c & 0x07u;
    } else {
        return 0;
    }
    for (int i = 1; i < n; i++) {
        if ((size_t)i >= avail || (s[i] & 0xC0) != 0x80) {
            return 0;
        }
        cp = (cp << 6) | (s[i] & 0x3Fu);
    }
    static constexpr vek_u32 kMin[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        return 0;
    }
    return n;
}

} // namespace vek

#endif /* VEK_UTF8SEQ_H */
