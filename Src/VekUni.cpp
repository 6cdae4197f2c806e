/*
 * VekUni.cpp - Unicode conversions: the character codecs every other
 * conversion is built on.
 */
#include "VekUni.h"
#include "VekVos.h"

namespace {

inline bool is_lead(vek_u8 b) {
    return (b >= 0xC0 && b <= 0xF7) || b == 0xFC || b == 0xFD;
}

// Reads the byte at i, or 0 at and past end (end < 0: no bound).
inline vek_u8 byte_at(const char* s, vek_s32 i, vek_s32 end) {
    return (end >= 0 && i >= end) ? 0 : (vek_u8)s[i];
}

} // namespace

namespace vek {

/* The decoder with an optional bound: bytes at and past end read as the
 * terminator, so a sequence cut by the bound decodes like one cut by a 0. */
vek_wchar utf8_decode(const char* s, vek_s32 end, vek_s32* used) {
    vek_u8 lead = byte_at(s, 0, end);
    vek_s32 n;
    vek_wchar c;
    if (lead == 0) {
        n = 0;
        c = 0;
    } else if (lead < 0x80) {
        n = 1;
        c = lead;
    } else if ((lead & 0xE0) == 0xC0) {
        vek_u8 b1 = byte_at(s, 1, end);
        if (b1) {
            n = 2;
            c = (vek_wchar)(((lead & 0x1F) << 6) | (b1 & 0x3F));
        } else {
            n = 1;
            c = 0;
        }
    } else if ((lead & 0xF0) == 0xE0) {
        vek_u8 b1 = byte_at(s, 1, end);
        vek_u8 b2 = b1 ? byte_at(s, 2, end) : 0;
        if (b1 && b2) {
            n = 3;
            c = (vek_wchar)(((lead & 0x0F) << 12) | ((b1 & 0x3F) << 6) | (b2 & 0x3F));
        } else {
            n = b1 ? 2 : 1;
            c = 0;
        }
    } else if ((lead & 0xF8) == 0xF0 || (lead & 0xFE) == 0xFC) {
        // Beyond the Basic Multilingual Plane: consumed whole, shown as "?".
        vek_s32 want = (lead & 0xF8) == 0xF0 ? 4 : 6;
        n = 1;
        while (n < want && byte_at(s, n, end)) {
            n++;
        }
        c = n == want ? (vek_wchar)'?' : 0;
    } else {
        // A stray continuation byte or an impossible lead: the whole run up
        // to something that can start a character becomes one "!".
        n = 1;
        vek_u8 b;
        while ((b = byte_at(s, n, end)) != 0 && b >= 0x80 && !is_lead(b)) {
            n++;
        }
        c = b == 0 ? 0 : (vek_wchar)'!';
    }
    if (used) {
        *used = n;
    }
    return c;
}

} // namespace vek

extern "C" {

VEK_API vek_wchar utf8_str_to_wcs_char(const char* s, vek_s32* used) {
    if (!s) {
        VEK_ASSERT(s);
        if (used) {
            *used = 0;
        }
        return 0;
    }
    return vek::utf8_decode(s, -1, used);
}

VEK_API vek_s32 wcs_char_to_utf8_char(vek_wchar c, char* out) {
    if (c == 0) {
        return 0;
    }
    if (c < 0x80) {
        out[0] = (char)c;
        return 1;
    }
    if (c < 0x800) {
        out[0] = (char)(0xC0 | (c >> 6));
        out[1] = (char)(0x80 | (c & 0x3F));
        return 2;
    }
    out[0] = (char)(0xE0 | (c >> 12));
    out[1] = (char)(0x80 | ((c >> 6) & 0x3F));
    out[2] = (char)(0x80 | (c & 0x3F));
    return 3;
}

VEK_API vek_s32 utf8_buf_to_wcs_strx(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                     vek_s32 dstSize, vek_s32* more) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        if (more) {
            *more = 0;
        }
        return 0;
    }
    bool toTerm = srcLen < 0;
    if (toTerm) {
        srcLen = dstSize;
    }
    vek_s32 pos = 0;
    vek_s32 units = 0;
    while (units < dstSize - 1 && pos < srcLen) {
        vek_s32 used;
        vek_wchar c = vek::utf8_decode(src + pos, srcLen - pos, &used);
        if (c == 0) {
            pos += used;
            break;
        }
        dst[units++] = c;
        pos += used;
    }
    dst[units] = 0;
    if (more) {
        *more = pos < srcLen && !(toTerm && src[pos] == 0) ? 1 : 0;
    }
    return units;
}

VEK_API vek_s32 utf8_buf_to_wcs_str(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                    vek_s32 dstSize) {
    return utf8_buf_to_wcs_strx(src, srcLen, dst, dstSize, nullptr);
}

VEK_API vek_s32 wcs_buf_to_utf8_str(const vek_wchar* src, vek_s32 n, char* dst, vek_s32 dstSize) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        return 0;
    }
    vek_s32 out = 0;
    for (vek_s32 i = 0; (n < 0 || i < n) && src[i] != 0 && dstSize - 1 - out >= 4; i++) {
        out += wcs_char_to_utf8_char(src[i], dst + out);
    }
    dst[out] = 0;
    return out;
}

VEK_API vek_s32 vek_u16s_turn(vek_wchar* w, vek_s32 n) {
    if (!w) {
        return 0;
    }
    vek_s32 i = 0;
    for (; n < 0 ? w[i] != 0 : i < n; i++) {
        w[i] = (vek_wchar)((w[i] << 8) | (w[i] >> 8));
    }
    return i;
}

} // extern "C"
