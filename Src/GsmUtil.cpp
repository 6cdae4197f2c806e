/*
 * GsmUtil.cpp - the GSM 7-bit alphabet, septet packing and the address and
 * time-stamp fields of short-message PDUs.
 *
 * The alphabet tables are kept as the PDU holds characters, big-endian
 * bytes, so UCS-2 text taken from a PDU is compared without swapping.
 */
#include <cstdlib>
#include <cstring>
#include "GsmUtil.h"
#include "VekEnc.h"
#include "VekStr.h"
#include "VekTrc.h"
#include "VekVos.h"

namespace {

constexpr vek_s32 kModBase = 10;  // trace module of the library itself
constexpr vek_s32 kEsc = 0x1B;

// Index = GSM code; the 129th entry ends the table and is what a byte
// above 0x7F looks up (it ends the text).
const vek_u16 kBasic[129] = {
    0x0040, 0x00A3, 0x0024, 0x00A5, 0x00E8, 0x00E9, 0x00F9, 0x00EC,  // 0x00
    0x00F2, 0x00C7, 0x000A, 0x00D8, 0x00F8, 0x000D, 0x00C5, 0x00E5,
    0x0394, 0x005F, 0x03A6, 0x0393, 0x039B, 0x03A9, 0x03A0, 0x03A8,  // 0x10
    0x03A3, 0x0398, 0x039E, 0x00B9, 0x00C6, 0x00E6, 0x00DF, 0x00C9,  // 0x1B: U+00B9, not the escape
    0x0020, 0x0021, 0x0022, 0x0023, 0x00A4, 0x0025, 0x0026, 0x0027,  // 0x20
    0x0028, 0x0029, 0x002A, 0x002B, 0x002C, 0x002D, 0x002E, 0x002F,
    0x0030, 0x0031, 0x0032, 0x0033, 0x0034, 0x0035, 0x0036, 0x0037,  // 0x30
    0x0038, 0x0039, 0x003A, 0x003B, 0x003C, 0x003D, 0x003E, 0x003F,
    0x00A1, 0x0041, 0x0042, 0x0043, 0x0044, 0x0045, 0x0046, 0x0047,  // 0x40
    0x0048, 0x0049, 0x004A, 0x004B, 0x004C, 0x004D, 0x004E, 0x004F,
    0x0050, 0x0051, 0x0052, 0x0053, 0x0054, 0x0055, 0x0056, 0x0057,  // 0x50
    0x0058, 0x0059, 0x005A, 0x00C4, 0x00D6, 0x00D1, 0x00DC, 0x00A7,
    0x00BF, 0x0061, 0x0062, 0x0063, 0x0064, 0x0065, 0x0066, 0x0067,  // 0x60
    0x0068, 0x0069, 0x006A, 0x006B, 0x006C, 0x006D, 0x006E, 0x006F,
    0x0070, 0x0071, 0x0072, 0x0073, 0x0074, 0x0075, 0x0076, 0x0077,  // 0x70
    0x0078, 0x0079, 0x007A, 0x00E4, 0x00F6, 0x00F1, 0x00FC, 0x00E0,
    0x0000,
};

// Extension pairs in table order: escape, code, character. Form feed takes
// code 0x0C here (3GPP has 0x0A).
struct ExtEntry {
    vek_u8 esc;
    vek_u8 code;
    vek_u16 ch;
};
const ExtEntry kExt[] = {
    {kEsc, 0x14, 0x005E}, {kEsc, 0x28, 0x007B}, {kEsc, 0x29, 0x007D}, {kEsc, 0x2F, 0x005C},
    {kEsc, 0x3C, 0x005B}, {kEsc, 0x3D, 0x007E}, {kEsc, 0x3E, 0x005D}, {kEsc, 0x40, 0x007C},
    {kEsc, 0x0C, 0x000C}, {kEsc, 0x65, 0x20AC}, {0, 0, 0},
};

// The character of a big-endian unit in memory.
inline vek_u16 load_be(const vek_u16* p) {
    const vek_u8* b = (const vek_u8*)p;
    return (vek_u16)(b[0] << 8 | b[1]);
}

inline void store_be(vek_u16* p, vek_u16 ch) {
    vek_u8* b = (vek_u8*)p;
    b[0] = (vek_u8)(ch >> 8);
    b[1] = (vek_u8)ch;
}

// The septets of a character: 2 with *code the extension code, 1 with
// *code the basic code, 0 when it has none.
vek_s32 lookup(vek_u16 ch, vek_u8* code) {
    for (const ExtEntry* e = kExt; e->esc; e++) {
        if (e->ch == ch) {
            *code = e->code;
            return 2;
        }
    }
    for (vek_s32 i = 0; i < 128; i++) {
        if (kBasic[i] == ch) {
            *code = (vek_u8)i;
            return 1;
        }
    }
    return 0;
}

void trace_left_over() {
    VEK_TRACE(kModBase, 0, 2, "not all data proced");
}

inline vek_s32 text_len(const vek_u16* s, vek_s32 len) {
    if (len >= 0) {
        return len;
    }
    vek_s32 n = 0;
    while (s[n]) {
        n++;
    }
    return n;
}

/* ---- septets ---- */

// Packs septets from a bit accumulator that already holds fillBits zero
// bits; the fast path stores 8 septets as 7 bytes at once.
vek_s32 pack(vek_u8* out, vek_s32 outSize, const vek_u8* sep, vek_s32 count, vek_s32 fillBits) {
    vek_s32 used = 0, i = 0;
    if (fillBits == 0) {
        for (; count - i >= 8 && outSize - used >= 7; i += 8, used += 7) {
            vek_u64 v = 0;
            for (int k = 0; k < 8; k++) {
                v |= (vek_u64)(sep[i + k] & 0x7F) << (7 * k);
            }
            for (int k = 0; k < 7; k++) {
                out[used + k] = (vek_u8)(v >> (8 * k));
            }
        }
    }
    vek_u32 acc = 0;
    vek_s32 bits = fillBits;
    for (; i < count && used < outSize; i++) {
        acc |= (vek_u32)(sep[i] & 0x7F) << bits;
        bits += 7;
        while (bits >= 8 && used < outSize) {
            out[used++] = (vek_u8)acc;
            acc >>= 8;
            bits -= 8;
        }
    }
    if (bits > 0 && used < outSize && i > 0) {
        out[used++] = (vek_u8)acc;
    }
    return used;
}

// Unpacks into out (no terminator) at most max septets; the count.
vek_s32 unpack(vek_u8* out, vek_s32 max, const vek_u8* packed, vek_s32 len, vek_s32 fillBits) {
    if (len <= 0 || max <= 0) {
        return 0;
    }
    vek_s32 n = 0, i = 0;
    if (fillBits <= 0) {
        for (; len - i >= 7 && max - n >= 8; i += 7, n += 8) {
            vek_u64 v = 0;
            for (int k = 0; k < 7; k++) {
                v |= (vek_u64)packed[i + k] << (8 * k);
            }
            for (int k = 0; k < 8; k++) {
                out[n + k] = (vek_u8)((v >> (7 * k)) & 0x7F);
            }
        }
    }
    vek_u32 acc = 0;
    vek_s32 bits = 0;
    if (i == 0 && fillBits > 0) {
        acc = (vek_u32)packed[0] >> fillBits;
        bits = 8 - fillBits;
        i = 1;
    }
    for (;;) {
        while (bits >= 7 && n < max) {
            out[n++] = (vek_u8)(acc & 0x7F);
            acc >>= 7;
            bits -= 7;
        }
        if (i >= len || n >= max) {
            break;
        }
        acc |= (vek_u32)packed[i++] << bits;
        bits += 8;
    }
    return n;
}

vek_s32 septet_count(vek_s32 len, vek_s32 fillBits) {
    vek_s32 bits = 8 * len - (fillBits > 0 ? fillBits : 0);
    return bits > 0 ? bits / 7 : 0;
}

/* ---- addresses ---- */

// Digits of BCD bytes into out (at most room characters); the count.
vek_s32 put_digits(char* out, vek_s32 room, const vek_u8* bcd, vek_s32 n) {
    vek_s32 k = 0;
    for (vek_s32 i = 0; i < n; i++) {
        vek_u8 nib[2] = {(vek_u8)(bcd[i] & 15), (vek_u8)(bcd[i] >> 4)};
        for (vek_u8 d : nib) {
            if (d < 10 && k < room) {
                out[k++] = (char)('0' + d);
            }
        }
    }
    return k;
}

// The number of a field whose digits take n bytes, into out of outSize.
void dec_number(char* out, vek_s32 outSize, const vek_u8* addr, vek_s32 n) {
    if (outSize < 1) {
        return;
    }
    vek_s32 k = 0;
    if (n < 0) {
        n = 0;
    }
    if (addr[1] == GSM_TOA_ALPHA) {
        k = unpack((vek_u8*)out, outSize - 1, addr + 2, n, 0);
    } else {
        if (addr[1] == GSM_TOA_INTL && outSize > 1) {
            out[k++] = '+';
        }
        k += put_digits(out + k, outSize - 1 - k, addr + 2, n);
    }
    out[k] = 0;
}

/* ---- time ---- */

// A 0-99 value of a time field, as one swapped-BCD byte.
inline vek_u8 bcd2(vek_s32 v) {
    return bcd_enc_byte_from_int(v);
}

} // namespace

extern "C" {

/* ---- alphabet ---- */

VEK_API vek_s32 SmsAlph_is7BitChar(vek_u16 ch, vek_s32* kind) {
    vek_u8 code;
    vek_s32 n = lookup((vek_u16)((ch & 0xFF) << 8 | ch >> 8), &code);
    if (n && kind) {
        *kind = n;
    }
    return n ? 1 : 0;
}

VEK_API vek_s32 SmsAlph_is7BitStr(const vek_u16* ucs2, vek_s32 len, vek_s32* septets) {
    if (!ucs2) {
        VEK_ASSERT(ucs2);
        return 0;
    }
    len = text_len(ucs2, len);
    vek_s32 total = 0;
    for (vek_s32 i = 0; i < len; i++) {
        vek_u8 code;
        vek_s32 n = lookup(load_be(ucs2 + i), &code);
        if (!n) {
            return 0;
        }
        total += n;
    }
    if (septets) {
        *septets = total;
    }
    return 1;
}

VEK_API vek_u16 SmsAlph_toUcs2(vek_s32 gsm) {
    if (!(gsm >= 0 && gsm <= 127)) {
        vek_assert__("gsm >= 0 && gsm <= 127", __FILE__, __LINE__);
        return 0;
    }
    return kBasic[gsm];
}

VEK_API vek_s32 SmsAlph_to7BitStr(const vek_u16* ucs2, vek_s32 len, vek_u8* out, vek_s32 size) {
    if (!ucs2 || !out || size < 1) {
        VEK_ASSERT(ucs2 && out && size > 0);
        return 0;
    }
    len = text_len(ucs2, len);
    vek_s32 n = 0, i = 0;
    for (; i < len && n < size - 1; i++) {
        vek_u8 code;
        vek_s32 k = lookup(load_be(ucs2 + i), &code);
        if (k == 2) {
            if (n + 2 > size - 1) {
                break;  // the pair would take the terminator's cell
            }
            out[n++] = kEsc;
            out[n++] = code;
        } else {
            out[n++] = k ? code : (vek_u8)'?';
        }
    }
    out[n] = 0;
    if (i < len) {
        trace_left_over();
    }
    return n;
}

VEK_API vek_s32 SmsAlph_from7BitStr(const vek_u8* src, vek_s32 srcLen, vek_u16* out, vek_s32 size) {
    if (!src || !out || size < 1) {
        VEK_ASSERT(src && out && size > 0);
        return 0;
    }
    vek_s32 n = 0, i = 0;
    while (i < srcLen && n < size - 1) {
        if ((src[i] & 0x80) != 0) {
            vek_assert__("(src[i] & 0x80) == 0", __FILE__, __LINE__);
        }
        vek_u16 ch = 0;
        vek_s32 step = 1;
        if (srcLen - i >= 2) {
            for (const ExtEntry* e = kExt; e->esc; e++) {
                if (e->esc == src[i] && e->code == src[i + 1]) {
                    ch = e->ch;
                    step = 2;
                    break;
                }
            }
        }
        if (step == 1) {
            ch = kBasic[src[i] < 128 ? src[i] : 128];
        }
        if (!ch) {
            break;  // the end entry: a byte outside the alphabet ends the text
        }
        store_be(out + n++, ch);
        i += step;
    }
    store_be(out + n, 0);
    if (i < srcLen) {
        trace_left_over();
    }
    return n;
}

/* ---- septet packing ---- */

VEK_API vek_s32 GsmUtil_enc7BitStr(vek_u8* out, vek_s32 outSize, const vek_u8* septets, vek_s32 count,
                                   vek_s32 fillBits) {
    if (!out || !septets || fillBits < 0 || fillBits > 6) {
        VEK_ASSERT(out && septets && fillBits >= 0 && fillBits <= 6);
        return 0;
    }
    if (fillBits && outSize > 0) {
        out[0] = 0;
    }
    return pack(out, outSize, septets, count, fillBits);
}

VEK_API vek_s32 GsmUtil_dec7BitStr(vek_u8* out, vek_s32 outSize, const vek_u8* packed, vek_s32 packedLen,
                                   vek_s32 fillBits) {
    if (!out || !packed || fillBits > 7) {
        VEK_ASSERT(out && packed && fillBits <= 7);
        return 0;
    }
    if (outSize < 1) {
        return 0;
    }
    vek_s32 n = unpack(out, outSize - 1, packed, packedLen, fillBits);
    out[n] = 0;
    return n;
}

VEK_API vek_s32 GsmUtil_dec7BitCstr(VekStr* str, const vek_u8* packed, vek_s32 packedLen, vek_s32 fillBits) {
    if (!str) {
        return 0;
    }
    if (!packed || fillBits > 7) {
        VEK_ASSERT(packed && fillBits <= 7);
        return 0;
    }
    vek_s32 want = septet_count(packedLen, fillBits);
    if (want <= 0) {
        return 0;
    }
    vek_s32 old = VekStr_len(str);
    char* p = VekStr_useBufBeg(str, old + want);
    if (!p) {
        return 0;
    }
    vek_s32 n = unpack((vek_u8*)p + old, want, packed, packedLen, fillBits);
    VekStr_useBufEnd(str, old + n);
    return n;
}

/* ---- addresses ---- */

VEK_API vek_s32 GsmUtil_getNoFmt(const char* number) {
    if (!number) {
        VEK_ASSERT(number);
        return GSM_TOA_NATIONAL;
    }
    vek_s32 toa = number[0] == '+' ? GSM_TOA_INTL : GSM_TOA_NATIONAL;
    for (const char* p = number + (toa == GSM_TOA_INTL); *p; p++) {
        if (*p < '0' || *p > '9') {
            return GSM_TOA_ALPHA;
        }
    }
    return toa;
}

VEK_API vek_s32 GsmUtil_encNo(vek_u8* out, vek_s32 outSize, const char* number, vek_s32 digitLen) {
    if (!(out && number && outSize >= 2)) {
        vek_assert__("out && number && outSize >= 2", __FILE__, __LINE__);
        return 0;
    }
    vek_s32 toa = GsmUtil_getNoFmt(number);
    out[1] = (vek_u8)toa;
    vek_s32 bytes, count;
    if (toa == GSM_TOA_ALPHA) {
        count = (vek_s32)std::strlen(number);
        bytes = pack(out + 2, outSize - 2, (const vek_u8*)number, count, 0);
        count = 2 * bytes;
    } else {
        const char* digits = number + (toa == GSM_TOA_INTL);
        count = (vek_s32)std::strlen(digits);
        bytes = bcd_enc_buf_from_str(out + 2, outSize - 2, digits, 1);
    }
    out[0] = (vek_u8)(digitLen ? count : bytes + 1);
    return bytes + 2;
}

VEK_API vek_s32 GsmUtil_decNo(char* out, vek_s32 outSize, const vek_u8* addr, vek_s32 digitLen) {
    if (!out || !addr) {
        VEK_ASSERT(out && addr);
        return 0;
    }
    vek_s32 semi = digitLen && addr[1] != GSM_TOA_ALPHA;
    dec_number(out, outSize, addr, semi ? (addr[0] + 1) / 2 : addr[0] - 1);
    return semi;
}

VEK_API vek_s32 GsmUtil_getNo(VekStr* str, const vek_u8* addr, vek_s32 smscStyle) {
    if (!addr) {
        VEK_ASSERT(addr);
        return 0;
    }
    vek_s32 n = (addr[0] + 1) / 2;
    if (str) {
        char num[2 * 128 + 2];  // at most 147 septets or 255 digits and "+"
        dec_number(num, (vek_s32)sizeof num, addr, n);
        VekStr_setStr(str, num);
    }
    return smscStyle && addr[1] != GSM_TOA_ALPHA ? addr[0] + 1 : n + 2;
}

/* ---- time ---- */

VEK_API vek_s32 GsmUtil_encObsTime(vek_u8* out7, const VekDt* dt) {
    if (!out7 || !dt) {
        VEK_ASSERT(out7 && dt);
        return 0;
    }
    vek_s32 year = dt->year;
    if (year >= 2000) {
        year -= 2000;
    } else if (year >= 1901) {
        year -= 1900;
    }
    out7[0] = bcd2(year);
    out7[1] = bcd2(dt->month);
    out7[2] = bcd2(dt->day);
    out7[3] = bcd2(dt->hour);
    out7[4] = bcd2(dt->minute);
    out7[5] = bcd2(dt->second);
    out7[6] = 0;
    return 7;
}

VEK_API vek_s32 GsmUtil_decObsTime(VekDt* dt, const vek_u8* in7) {
    if (!dt || !in7) {
        VEK_ASSERT(dt && in7);
        return 0;
    }
    vek_s32 yy = bcd_dec_byte_to_int(in7[0]);
    dt->year = yy < 81 ? 2000 + yy : 1900 + yy;
    dt->month = bcd_dec_byte_to_int(in7[1]);
    dt->day = bcd_dec_byte_to_int(in7[2]);
    dt->hour = bcd_dec_byte_to_int(in7[3]);
    dt->minute = bcd_dec_byte_to_int(in7[4]);
    dt->second = bcd_dec_byte_to_int(in7[5]);
    dt->millisecond = 0;
    vek_u8 z = in7[6];
    vek_s32 quarters = (z & 7) * 10 + (z >> 4);
    vek_s32 hours = quarters / 4;  // a half or quarter hour is dropped
    if (z & 8) {
        hours = -hours;
    }
    dt->zone = hours == 0 ? VEK_ZONE_UNKNOWN : -60 * hours;
    return 7;
}

VEK_API vek_s32 GsmUtil_decTxtTime(VekDt* dt, const char* text) {
    if (!dt || !text) {
        VEK_ASSERT(dt && text);
        return 0;
    }
    VekDt_init(dt);
    if (std::strlen(text) <= 16) {
        return 0;
    }
    vek_s32 v[6];
    for (int k = 0; k < 6; k++) {
        char two[3] = {text[3 * k], text[3 * k + 1], 0};
        v[k] = std::atoi(two);
    }
    dt->year = 2000 + v[0];
    dt->month = v[1];
    dt->day = v[2];
    dt->hour = v[3];
    dt->minute = v[4];
    dt->second = v[5];
    return 1;
}

VEK_API const char* GsmUtil_csToStr(vek_s32 cs) {
    return cs == 1 ? "UCS2" : cs == 2 ? "UTF-8" : "GSM";
}

} // extern "C"
