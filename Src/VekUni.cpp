/*
 * VekUni.cpp - Unicode conversions between UTF-8, UTF-16 (host order and
 * swapped), UTF-7 and the ANSI code page.
 *
 * Everything is built from two codecs and a few adapters:
 *  - decode() reads one UTF-8 character from a byte source (a memory text,
 *    a stream byte by byte, or a stream in blocks) and encode() writes one
 *    16-bit unit as UTF-8;
 *  - the wcs and ucs2 forms are one template with a Swap parameter that
 *    turns each unit after decoding or before encoding;
 *  - stream targets go through StrmOut, which collects output in blocks.
 * The byte sources answer 0 at their end exactly as a terminator would, so
 * a sequence cut by a length or by the end of a stream decodes like one cut
 * by a 0 byte.
 */
#include <climits>
#include <cstring>
#include "VekUni.h"
#include "AlOs.h"
#include "BaseItf.h"
#include "MemUtil.h"
#include "UniSimd.h"
#include "VekVos.h"

namespace {

inline vek_wchar swap16(vek_wchar c) {
    return (vek_wchar)((c << 8) | (c >> 8));
}

template <bool Swap>
inline vek_wchar order(vek_wchar c) {
    return Swap ? swap16(c) : c;
}

// A byte that may start a character for the decoder (110xxxxx, 1110xxxx,
// 11110xxx, 1111110x).
inline bool is_lead(vek_u8 b) {
    return (b >= 0xC0 && b <= 0xF7) || b == 0xFC || b == 0xFD;
}

inline unsigned fold_upper(unsigned c) {
    return c >= 'a' && c <= 'z' ? c - 32 : c;
}

// ---- byte sources ----
// get() returns the next byte, or 0 at the end without passing it; unget()
// gives back the last (non-zero) byte that get() returned.

/* A memory text, ending at its 0 byte or at end. */
struct MemBytes {
    const vek_u8* s;
    vek_s32 pos;
    vek_s32 end;
    MemBytes(const char* text, vek_s32 limit = INT_MAX) : s((const vek_u8*)text), pos(0), end(limit) {}
    vek_u8 get() { return pos < end && s[pos] ? s[pos++] : 0; }
    void unget() { pos--; }
};

/* A stream read byte by byte, so that nothing behind the character is taken. */
struct StrmBytes {
    IStrm* strm;
    vek_s32 used = 0;
    bool ended = false;
    explicit StrmBytes(IStrm* s) : strm(s) {}
    vek_u8 get() {
        if (ended) {
            return 0;
        }
        vek_s32 c = IStrm_getc(strm);
        if (c <= 0) {
            ended = true;
            used += c == 0;
            return 0;
        }
        used++;
        return (vek_u8)c;
    }
    void unget() {
        IStrm_ungetc(strm);
        used--;
    }
};

constexpr vek_s32 kBlock = 1024;

/* A stream read in blocks, for the conversions that take it whole. */
struct BlockBytes {
    IStrm* strm;
    vek_u8 buf[kBlock];
    vek_s32 pos = 0;
    vek_s32 len = 0;
    bool ended = false;
    explicit BlockBytes(IStrm* s) : strm(s) {}
    bool fill() {
        if (ended) {
            return false;
        }
        vek_s32 n = IStrm_read(strm, buf, kBlock);
        ended = n < kBlock;  // a read delivers less only at the end
        pos = 0;
        len = n > 0 ? n : 0;
        return len > 0;
    }
    vek_u8 get() {
        if (pos == len && !fill()) {
            return 0;
        }
        return buf[pos] ? buf[pos++] : 0;
    }
    void unget() { pos--; }
};

// The two- and three-byte forms; the following bytes are taken as they
// are, continuation bytes or not.
inline vek_wchar two_bytes(vek_u8 lead, vek_u8 b1) {
    return (vek_wchar)(((lead & 0x1F) << 6) | (b1 & 0x3F));
}
inline vek_wchar three_bytes(vek_u8 lead, vek_u8 b1, vek_u8 b2) {
    return (vek_wchar)(((lead & 0x0F) << 12) | ((b1 & 0x3F) << 6) | (b2 & 0x3F));
}

/* Decodes one UTF-8 character; 0 for the end of the text or a cut sequence. */
template <class R>
vek_wchar decode(R& r) {
    vek_u8 lead = r.get();
    if (lead < 0x80) {
        return lead;
    }
    if ((lead & 0xE0) == 0xC0) {
        vek_u8 b1 = r.get();
        return b1 ? two_bytes(lead, b1) : 0;
    }
    if ((lead & 0xF0) == 0xE0) {
        vek_u8 b1 = r.get();
        vek_u8 b2 = b1 ? r.get() : 0;
        return b2 ? three_bytes(lead, b1, b2) : 0;
    }
    if ((lead & 0xF8) == 0xF0 || (lead & 0xFE) == 0xFC) {
        // Beyond the Basic Multilingual Plane: consumed whole, shown as "?".
        vek_s32 rest = (lead & 0xF8) == 0xF0 ? 3 : 5;
        while (rest > 0 && r.get()) {
            rest--;
        }
        return rest == 0 ? (vek_wchar)'?' : 0;
    }
    // A stray continuation byte or an impossible lead: the whole run up to
    // something that can start a character becomes one "!".
    vek_u8 b;
    while ((b = r.get()) >= 0x80 && !is_lead(b)) {
    }
    if (!b) {
        return 0;
    }
    r.unget();
    return '!';
}

inline vek_s32 encode(vek_wchar c, char* out) {
    if (c < 0x80) {
        if (c == 0) {
            return 0;
        }
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

/* Output to a stream in blocks; after the first failed write nothing more
 * is written and the error becomes the result. */
template <class Ch>
struct StrmOut {
    IStrm* strm;
    Ch buf[kBlock / sizeof(Ch)];
    vek_s32 n = 0;
    vek_s32 total = 0;
    vek_s32 err = 0;
    explicit StrmOut(IStrm* s) : strm(s) {}
    void flush() {
        if (n > 0 && err == 0) {
            vek_s32 r = IStrm_write(strm, buf, n * (vek_s32)sizeof(Ch));
            if (r < 0) {
                err = r;
            } else {
                total += n;
            }
        }
        n = 0;
    }
    void put(Ch c) {
        buf[n++] = c;
        if (n == (vek_s32)(sizeof buf / sizeof(Ch))) {
            flush();
        }
    }
    void put_utf8(vek_wchar c) {
        char tmp[3];
        vek_s32 k = encode(c, tmp);
        for (vek_s32 i = 0; i < k; i++) {
            put((Ch)tmp[i]);
        }
    }
    vek_s32 result() {
        flush();
        return err < 0 ? err : total;
    }
};

// ---- UTF-8 to UTF-16 ----

/* True when the eight bytes at p are ASCII and none is 0. */
inline bool ascii8(const vek_u8* p) {
    vek_u64 v;
    std::memcpy(&v, p, 8);
    const vek_u64 high = 0x8080808080808080ULL;
    return !(v & high) && !((v - 0x0101010101010101ULL) & ~v & high);
}

/* Decodes from r into dst while units fit and r.pos is below posLimit.
 * Where a given length makes reading ahead safe, text goes by in vector
 * blocks: runs of ASCII, then any mix of one- to three-byte characters. */
template <bool Swap>
vek_s32 utf8_to_units(MemBytes& r, vek_s32 posLimit, vek_wchar* dst, vek_s32 dstSize) {
    const vek_u8* s = r.s;
    vek_s32 units = 0;
    vek_s32 cap = dstSize - 1;
    vek_s32 stop = posLimit < r.end ? posLimit : r.end;
    bool blocks = r.end != INT_MAX;
    vek_s32 nextTry = 0;
    vek_s32 stretch = 16;
    while (units < cap && r.pos < posLimit) {
        // The blocks stop before anything they do not take; the scalar
        // code below decodes that one character and, after a take of a
        // block or more, the blocks try again at once. A shorter take
        // leaves a stretch to the scalar code that doubles with every short
        // take in a row, so text the blocks can seldom take pays little
        // for the tries.
        if (blocks && r.pos >= nextTry) {
            vek_s32 from = r.pos;
            if (cap - units >= 16 && stop - r.pos >= 16) {
                if (ascii8(s + r.pos) && ascii8(s + r.pos + 8)) {
                    vek_s32 room = cap - units < stop - r.pos ? cap - units : stop - r.pos;
                    vek_s32 k = vek::ascii_to_units(s + r.pos, room, dst + units, Swap);
                    units += k;
                    r.pos += k;
                }
                // Only the host order has a bounded form, hence no swapped kernel.
                if constexpr (!Swap) {
                    vek_s32 used = 0;
                    units += vek::utf8_to_units_run(s + r.pos, stop - r.pos, dst + units, cap - units, &used);
                    r.pos += used;
                }
            }
            if (r.pos - from >= 16) {
                stretch = 16;
                nextTry = r.pos + 1;
            } else {
                nextTry = r.pos + stretch;
                stretch = stretch < 1024 ? 2 * stretch : stretch;
            }
            if (units == cap || r.pos >= posLimit) {
                break;  // the blocks filled the target or used the text up
            }
        }
        // Whole one- to three-byte characters before stop are decoded in
        // place; anything else (cut, malformed, long forms) by decode().
        const vek_u8* p = s + r.pos;
        vek_s32 left = stop - r.pos;
        vek_wchar c;
        if (p[0] != 0 && p[0] < 0x80) {
            c = p[0];
            r.pos++;
        } else if ((p[0] & 0xF0) == 0xE0 && left >= 3 && p[1] && p[2]) {
            c = three_bytes(p[0], p[1], p[2]);
            r.pos += 3;
        } else if ((p[0] & 0xE0) == 0xC0 && left >= 2 && p[1]) {
            c = two_bytes(p[0], p[1]);
            r.pos += 2;
        } else if ((c = decode(r)) == 0) {
            break;
        }
        if (c == 0) {
            break;  // an overlong form of 0: a 0 result ends the text
        }
        dst[units++] = order<Swap>(c);
    }
    dst[units] = 0;
    return units;
}

template <bool Swap>
vek_s32 utf8_str_to_units(const char* src, vek_wchar* dst, vek_s32 dstSize, vek_s32* more) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        if (more) {
            *more = 0;
        }
        return 0;
    }
    MemBytes r(src);
    vek_s32 units = utf8_to_units<Swap>(r, INT_MAX, dst, dstSize);
    if (more) {
        *more = src[r.pos] != 0;
    }
    return units;
}

template <bool Swap>
vek_wchar utf8_strm_to_unit(IStrm* strm, vek_s32* used) {
    vek_wchar c = 0;
    vek_s32 n = 0;
    if (!strm) {
        VEK_ASSERT(strm);
    } else {
        StrmBytes r(strm);
        c = decode(r);
        n = r.used;
    }
    if (used) {
        *used = n;
    }
    return order<Swap>(c);
}

template <bool Swap>
vek_s32 utf8_strm_to_units(IStrm* strm, vek_wchar* dst, vek_s32 dstSize) {
    if (!strm || !dst || dstSize < 1) {
        VEK_ASSERT(strm && dst && dstSize >= 1);
        return 0;
    }
    StrmBytes r(strm);
    vek_s32 units = 0;
    vek_wchar c;
    while (units < dstSize - 1 && (c = decode(r)) != 0) {
        dst[units++] = order<Swap>(c);
    }
    dst[units] = 0;
    return units;
}

template <bool Swap, class R>
vek_s32 utf8_to_units_strm(R& r, IStrm* dst) {
    StrmOut<vek_wchar> out(dst);
    vek_wchar c;
    while (!out.err && (c = decode(r)) != 0) {
        out.put(order<Swap>(c));
    }
    return out.result();
}

template <bool Swap>
vek_s32 utf8_str_to_units_strm(const char* src, IStrm* dst) {
    if (!src || !dst) {
        VEK_ASSERT(src && dst);
        return 0;
    }
    MemBytes r(src);
    return utf8_to_units_strm<Swap>(r, dst);
}

template <bool Swap>
vek_s32 utf8_strm_to_units_strm(IStrm* src, IStrm* dst) {
    if (!src || !dst) {
        VEK_ASSERT(src && dst);
        return 0;
    }
    BlockBytes r(src);
    return utf8_to_units_strm<Swap>(r, dst);
}

// ---- UTF-16 to UTF-8 ----

/* True when the four units at p are ASCII and none is 0. */
template <bool Swap>
inline bool ascii4u(const vek_wchar* p) {
    vek_u64 v;
    std::memcpy(&v, p, 8);
    const vek_u64 notAscii = Swap ? 0x80FF80FF80FF80FFULL : 0xFF80FF80FF80FF80ULL;
    const vek_u64 high = 0x8000800080008000ULL;
    return !(v & notAscii) && !((v - 0x0001000100010001ULL) & ~v & high);
}

template <bool Swap>
vek_s32 units_to_utf8(const vek_wchar* src, vek_s32 n, char* dst, vek_s32 dstSize) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        return 0;
    }
    vek_s32 out = 0;
    vek_s32 cap = dstSize - 1;
    vek_s32 i = 0;
    for (;;) {
        // With a given length, units go by in vector blocks while every
        // unit would still find the four bytes of room the scalar loop asks
        // for: runs of ASCII, then any mix of units. The scalar loop then
        // takes what is left (a 0 unit, the last few units, the last bytes
        // of room), a stretch of at most kStretch units at a time.
        constexpr vek_s32 kStretch = 64;
        vek_s32 end = n;
        if (n >= 0) {
            if (n - i >= 16 && cap - out >= 19 && ascii4u<Swap>(src + i)) {
                vek_s32 room = n - i < cap - out - 3 ? n - i : cap - out - 3;
                vek_s32 k = vek::units_to_ascii(src + i, room, dst + out, Swap);
                i += k;
                out += k;
            }
            vek_s32 used = 0;
            out += vek::units_to_utf8_run(src + i, n - i, dst + out, cap - out, Swap, &used);
            i += used;
            end = n - i > kStretch ? i + kStretch : n;
        }
        vek_s32 from = i;
        for (; (end < 0 || i < end) && cap - out >= 4; i++) {
            vek_wchar c = order<Swap>(src[i]);
            if (c < 0x80) {
                if (!c) {
                    dst[out] = 0;
                    return out;
                }
                dst[out++] = (char)c;
            } else {
                out += encode(c, dst + out);
            }
        }
        if (n < 0 || i >= n || cap - out < 4 || (i == from && i != end)) {
            break;
        }
    }
    dst[out] = 0;
    return out;
}

/* Reads one unit of a UTF-16 stream: false at its end (or at a last odd byte). */
inline bool read_unit(IStrm* strm, vek_wchar* c) {
    return IStrm_read(strm, c, 2) == 2;
}

template <bool Swap>
vek_s32 units_strm_to_utf8(IStrm* strm, char* dst, vek_s32 dstSize) {
    if (!strm || !dst || dstSize < 1) {
        VEK_ASSERT(strm && dst && dstSize >= 1);
        return 0;
    }
    vek_s32 out = 0;
    vek_wchar c;
    while (dstSize - 1 - out >= 4 && read_unit(strm, &c) && (c = order<Swap>(c)) != 0) {
        out += encode(c, dst + out);
    }
    dst[out] = 0;
    return out;
}

template <bool Swap>
vek_s32 units_str_to_utf8_strm(const vek_wchar* src, IStrm* dst) {
    if (!src || !dst) {
        VEK_ASSERT(src && dst);
        return 0;
    }
    StrmOut<char> out(dst);
    for (; *src && !out.err; src++) {
        out.put_utf8(order<Swap>(*src));
    }
    return out.result();
}

template <bool Swap>
vek_s32 units_strm_to_utf8_strm(IStrm* src, IStrm* dst) {
    if (!src || !dst) {
        VEK_ASSERT(src && dst);
        return 0;
    }
    StrmOut<char> out(dst);
    vek_wchar block[kBlock / 2];
    bool more = true;
    while (more && !out.err) {
        vek_s32 got = IStrm_read(src, block, kBlock);
        more = got == kBlock;
        for (vek_s32 i = 0; i < got / 2; i++) {
            vek_wchar c = order<Swap>(block[i]);
            if (!c) {
                more = false;
                break;
            }
            out.put_utf8(c);
        }
    }
    return out.result();
}

// ---- UTF-7 ----

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline vek_s32 base64_value(unsigned c) {
    if (c >= 'A' && c <= 'Z') {
        return (vek_s32)(c - 'A');
    }
    if (c >= 'a' && c <= 'z') {
        return (vek_s32)(c - 'a' + 26);
    }
    if (c >= '0' && c <= '9') {
        return (vek_s32)(c - '0' + 52);
    }
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

/* RFC 2152's set D and set O, and the white space written directly. */
inline bool utf7_direct(vek_wchar c) {
    if (c >= 0x80) {
        return false;
    }
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
        return true;
    }
    return c != 0 && std::strchr("'(),-./:? \t\r\n!\"#$%&*;<=>@[]^_`{|}", (int)c) != nullptr;
}

/* Decodes UTF-7 from r; out.direct(byte) and out.unit(u) return false when
 * the output is full, which ends the conversion. */
template <class R, class Out>
void utf7_decode(R& r, Out& out) {
    bool shifted = false;
    bool opened = false;  // "+" seen, no base64 character yet
    vek_u32 bits = 0;
    vek_s32 nbits = 0;
    for (;;) {
        vek_u8 b = r.get();
        if (shifted) {
            vek_s32 v = base64_value(b);
            if (v >= 0) {
                opened = false;
                bits = (bits << 6) | (vek_u32)v;
                nbits += 6;
                if (nbits >= 16) {
                    nbits -= 16;
                    vek_wchar u = (vek_wchar)(bits >> nbits);
                    if (u && !out.unit(u)) {
                        return;
                    }
                }
                continue;
            }
            shifted = false;
            if (opened) {
                // "+-" is a plus sign; a "+" before anything else stays as it is.
                if (!out.direct('+')) {
                    return;
                }
                if (b == '-') {
                    continue;
                }
            } else if (b == '-') {
                continue;  // the explicit end of the run
            }
        }
        if (!b) {
            return;
        }
        if (b == '+') {
            shifted = opened = true;
            nbits = 0;
        } else if (!out.direct(b < 0x80 ? b : '?')) {
            return;
        }
    }
}

/* UTF-7 decoding into a caller buffer. */
struct Utf8BufOut {
    char* dst;
    vek_s32 cap;
    vek_s32 pos = 0;
    bool direct(vek_u8 b) {
        if (pos >= cap) {
            return false;
        }
        dst[pos++] = (char)b;
        return true;
    }
    bool unit(vek_wchar u) {
        if (cap - pos < 4) {
            return false;
        }
        pos += encode(u, dst + pos);
        return true;
    }
};

/* UTF-7 decoding into a stream. */
struct Utf8StrmOut : StrmOut<char> {
    using StrmOut<char>::StrmOut;
    bool direct(vek_u8 b) {
        put((char)b);
        return !err;
    }
    bool unit(vek_wchar u) {
        put_utf8(u);
        return !err;
    }
};

template <class R>
vek_s32 utf7_encode(R& r, IStrm* dst) {
    StrmOut<char> out(dst);
    bool shifted = false;
    vek_u32 bits = 0;
    vek_s32 nbits = 0;
    while (!out.err) {
        vek_wchar c = decode(r);
        bool direct = c == 0 || c == '+' || utf7_direct(c);
        if (shifted && direct) {
            if (nbits > 0) {
                out.put(kBase64[(bits << (6 - nbits)) & 63]);
            }
            // Only a character that would read as part of the run needs the "-".
            if (c == 0 || c == '-' || base64_value(c) >= 0) {
                out.put('-');
            }
            shifted = false;
        }
        if (c == 0) {
            break;
        }
        if (c == '+') {
            out.put('+');
            out.put('-');
        } else if (direct) {
            out.put((char)c);
        } else {
            if (!shifted) {
                out.put('+');
                shifted = true;
                nbits = 0;
            }
            bits = (bits << 16) | c;
            nbits += 16;
            while (nbits >= 6) {
                nbits -= 6;
                out.put(kBase64[(bits >> nbits) & 63]);
            }
        }
    }
    return out.result();
}

// ---- helpers ----

/* A UTF-16 scratch buffer: on the stack for short texts, else tracked. */
class TempUnits {
  public:
    explicit TempUnits(size_t n) : p_(n <= sizeof small_ / 2 ? small_ : (vek_wchar*)vek_malloc__(n * 2)) {}
    ~TempUnits() {
        if (p_ != small_) {
            vek_free__(p_);
        }
    }
    TempUnits(const TempUnits&) = delete;
    TempUnits& operator=(const TempUnits&) = delete;
    vek_wchar* get() { return p_; }

  private:
    vek_wchar small_[256];
    vek_wchar* p_;
};

/* Length of the well-formed UTF-8 character at p, 0 when it is not one. */
vek_s32 well_formed(const vek_u8* p) {
    vek_u8 b = p[0];
    if (b < 0x80) {
        return b ? 1 : 0;
    }
    vek_s32 n;
    vek_u8 lo = 0x80;
    vek_u8 hi = 0xBF;
    if (b >= 0xC2 && b <= 0xDF) {
        n = 2;
    } else if (b >= 0xE0 && b <= 0xEF) {
        n = 3;
        lo = b == 0xE0 ? 0xA0 : 0x80;
    } else if (b >= 0xF0 && b <= 0xF4) {
        n = 4;
        lo = b == 0xF0 ? 0x90 : 0x80;
        hi = b == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (p[1] < lo || p[1] > hi) {
        return 0;
    }
    for (vek_s32 i = 2; i < n; i++) {
        if (p[i] < 0x80 || p[i] > 0xBF) {
            return 0;
        }
    }
    return n;
}

template <bool Fold>
vek_s32 equal_wcs_utf8(const vek_wchar* w, const char* s) {
    static const vek_wchar kEmpty = 0;
    MemBytes r(s ? s : "");
    for (w = w ? w : &kEmpty;; w++) {
        unsigned c = decode(r);
        unsigned u = *w;
        if (Fold) {
            c = fold_upper(c);
            u = fold_upper(u);
        }
        if (c != u) {
            return 0;
        }
        if (!c) {
            return 1;
        }
    }
}

inline bool is_high_surrogate(vek_wchar c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
inline bool is_low_surrogate(vek_wchar c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

} // namespace

extern "C" {

// ---- one character ----

VEK_API vek_wchar utf8_str_to_wcs_char(const char* s, vek_s32* used) {
    vek_wchar c = 0;
    vek_s32 n = 0;
    if (!s) {
        VEK_ASSERT(s);
    } else {
        MemBytes r(s);
        c = decode(r);
        n = r.pos;
    }
    if (used) {
        *used = n;
    }
    return c;
}

VEK_API vek_wchar utf8_str_to_ucs2_char(const char* s, vek_s32* used) {
    return swap16(utf8_str_to_wcs_char(s, used));
}

VEK_API vek_wchar utf8_strm_to_wcs_char(IStrm* strm, vek_s32* used) {
    return utf8_strm_to_unit<false>(strm, used);
}

VEK_API vek_wchar utf8_strm_to_ucs2_char(IStrm* strm, vek_s32* used) {
    return utf8_strm_to_unit<true>(strm, used);
}

VEK_API vek_s32 wcs_char_to_utf8_char(vek_wchar c, char* out) {
    if (!out) {
        VEK_ASSERT(out);
        return 0;
    }
    return encode(c, out);
}

VEK_API vek_s32 ucs2_char_to_utf8_char(vek_wchar c, char* out) {
    return wcs_char_to_utf8_char(swap16(c), out);
}

// ---- UTF-8 to UTF-16 ----

VEK_API vek_s32 utf8_buf_to_wcs_strx(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                     vek_s32 dstSize, vek_s32* more) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        if (more) {
            *more = 0;
        }
        return 0;
    }
    // Without a length the source is terminated and dstSize bytes is the budget.
    bool bounded = srcLen >= 0;
    MemBytes r(src, bounded ? srcLen : INT_MAX);
    vek_s32 units = utf8_to_units<false>(r, bounded ? srcLen : dstSize, dst, dstSize);
    if (more) {
        *more = r.pos < r.end && (bounded || src[r.pos] != 0);
    }
    return units;
}

VEK_API vek_s32 utf8_buf_to_wcs_str(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                    vek_s32 dstSize) {
    return utf8_buf_to_wcs_strx(src, srcLen, dst, dstSize, nullptr);
}

VEK_API vek_s32 utf8_str_to_wcs_strx(const char* src, vek_wchar* dst, vek_s32 dstSize,
                                     vek_s32* more) {
    return utf8_str_to_units<false>(src, dst, dstSize, more);
}

VEK_API vek_s32 utf8_str_to_wcs_str(const char* src, vek_wchar* dst, vek_s32 dstSize) {
    return utf8_str_to_units<false>(src, dst, dstSize, nullptr);
}

VEK_API vek_s32 utf8_str_to_ucs2_str_x(const char* src, vek_wchar* dst, vek_s32 dstSize,
                                       vek_s32* more) {
    return utf8_str_to_units<true>(src, dst, dstSize, more);
}

VEK_API vek_s32 utf8_str_to_ucs2_str(const char* src, vek_wchar* dst, vek_s32 dstSize) {
    return utf8_str_to_units<true>(src, dst, dstSize, nullptr);
}

VEK_API vek_s32 utf8_strm_to_wcs_str(IStrm* strm, vek_wchar* dst, vek_s32 dstSize) {
    return utf8_strm_to_units<false>(strm, dst, dstSize);
}

VEK_API vek_s32 utf8_strm_to_ucs2_str(IStrm* strm, vek_wchar* dst, vek_s32 dstSize) {
    return utf8_strm_to_units<true>(strm, dst, dstSize);
}

VEK_API vek_s32 utf8_str_to_wcs_strm(const char* src, IStrm* dst) {
    return utf8_str_to_units_strm<false>(src, dst);
}

VEK_API vek_s32 utf8_str_to_ucs2_strm(const char* src, IStrm* dst) {
    return utf8_str_to_units_strm<true>(src, dst);
}

VEK_API vek_s32 utf8_strm_to_wcs_strm(IStrm* src, IStrm* dst) {
    return utf8_strm_to_units_strm<false>(src, dst);
}

VEK_API vek_s32 utf8_strm_to_ucs2_strm(IStrm* src, IStrm* dst) {
    return utf8_strm_to_units_strm<true>(src, dst);
}

VEK_API vek_s32 utf8_str_to_wcs_out(const char* src, void* sinkObj, vek_wcs_sink sink) {
    if (!src || !sink) {
        VEK_ASSERT(src && sink);
        return 0;
    }
    MemBytes r(src);
    vek_wchar piece[257];
    vek_s32 total = 0;
    for (;;) {
        vek_s32 n = utf8_to_units<false>(r, INT_MAX, piece, (vek_s32)(sizeof piece / 2));
        if (n == 0) {
            return total;
        }
        vek_s32 k = sink(sinkObj, piece, n);
        if (k < 0) {
            return k;
        }
        total += n;
    }
}

// ---- UTF-16 to UTF-8 ----

VEK_API vek_s32 wcs_buf_to_utf8_str(const vek_wchar* src, vek_s32 n, char* dst, vek_s32 dstSize) {
    return units_to_utf8<false>(src, n, dst, dstSize);
}

VEK_API vek_s32 ucs2_buf_to_utf8_str(const vek_wchar* src, vek_s32 n, char* dst, vek_s32 dstSize) {
    return units_to_utf8<true>(src, n, dst, dstSize);
}

VEK_API vek_s32 wcs_str_to_utf8_str(const vek_wchar* src, char* dst, vek_s32 dstSize) {
    return units_to_utf8<false>(src, -1, dst, dstSize);
}

VEK_API vek_s32 ucs2_str_to_utf8_str(const vek_wchar* src, char* dst, vek_s32 dstSize) {
    return units_to_utf8<true>(src, -1, dst, dstSize);
}

VEK_API vek_s32 wcs_strm_to_utf8_str(IStrm* strm, char* dst, vek_s32 dstSize) {
    return units_strm_to_utf8<false>(strm, dst, dstSize);
}

VEK_API vek_s32 ucs2_strm_to_utf8_str(IStrm* strm, char* dst, vek_s32 dstSize) {
    return units_strm_to_utf8<true>(strm, dst, dstSize);
}

VEK_API vek_s32 wcs_str_to_utf8_strm(const vek_wchar* src, IStrm* dst) {
    return units_str_to_utf8_strm<false>(src, dst);
}

VEK_API vek_s32 ucs2_str_to_utf8_strm(const vek_wchar* src, IStrm* dst) {
    return units_str_to_utf8_strm<true>(src, dst);
}

VEK_API vek_s32 wcs_strm_to_utf8_strm(IStrm* src, IStrm* dst) {
    return units_strm_to_utf8_strm<false>(src, dst);
}

VEK_API vek_s32 ucs2_strm_to_utf8_strm(IStrm* src, IStrm* dst) {
    return units_strm_to_utf8_strm<true>(src, dst);
}

// ---- UTF-7 ----

VEK_API vek_s32 utf7_str_to_utf8_str(const char* src, char* dst, vek_s32 dstSize) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        return 0;
    }
    MemBytes r(src);
    Utf8BufOut out{dst, dstSize - 1};
    utf7_decode(r, out);
    dst[out.pos] = 0;
    return out.pos;
}

VEK_API vek_s32 utf7_strm_to_utf8_strm(IStrm* src, IStrm* dst) {
    if (!src || !dst) {
        VEK_ASSERT(src && dst);
        return 0;
    }
    BlockBytes r(src);
    Utf8StrmOut out(dst);
    utf7_decode(r, out);
    return out.result();
}

VEK_API vek_s32 utf8_strm_to_utf7_strm(IStrm* src, IStrm* dst) {
    if (!src || !dst) {
        VEK_ASSERT(src && dst);
        return 0;
    }
    BlockBytes r(src);
    return utf7_encode(r, dst);
}

// ---- ANSI ----

VEK_API vek_s32 ansi_str_to_wcs_str(const char* src, vek_wchar* dst, vek_s32 dstSize) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        return 0;
    }
    return al_ansi_to_wcs(src, -1, dst, dstSize);
}

VEK_API vek_s32 wcs_str_to_ansi_str(const vek_wchar* src, char* dst, vek_s32 dstSize) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        return 0;
    }
    return al_wcs_to_ansi(src, -1, dst, dstSize);
}

/* Each ANSI byte gives at most one UTF-16 unit, and so does each UTF-8
 * byte: the scratch buffer needs the byte length plus the terminator. */
VEK_API vek_s32 ansi_str_to_utf8_str(const char* src, char* dst, vek_s32 dstSize) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        return 0;
    }
    vek_s32 n = (vek_s32)std::strlen(src);
    TempUnits tmp((size_t)n + 1);
    if (!tmp.get()) {
        dst[0] = 0;
        return 0;
    }
    vek_s32 units = al_ansi_to_wcs(src, n, tmp.get(), n + 1);
    return units_to_utf8<false>(tmp.get(), units, dst, dstSize);
}

VEK_API vek_s32 utf8_str_to_ansi_str(const char* src, char* dst, vek_s32 dstSize) {
    if (!src || !dst || dstSize < 1) {
        VEK_ASSERT(src && dst && dstSize >= 1);
        return 0;
    }
    vek_s32 n = (vek_s32)std::strlen(src);
    TempUnits tmp((size_t)n + 1);
    if (!tmp.get()) {
        dst[0] = 0;
        return 0;
    }
    MemBytes r(src);
    vek_s32 units = utf8_to_units<false>(r, INT_MAX, tmp.get(), n + 1);
    return al_wcs_to_ansi(tmp.get(), units, dst, dstSize);
}

// ---- helpers ----

VEK_API vek_s32 utf8_str_len(const char* s) {
    vek_s32 n = 0;
    if (s) {
        MemBytes r(s);
        while (decode(r)) {
            n++;
        }
    }
    return n;
}

VEK_API vek_s32 utf8_str_clean(char* s, vek_s32* len, vek_s32* removed) {
    vek_s32 keep = 0;
    vek_s32 cut = 0;
    if (!s) {
        VEK_ASSERT(s);
    } else {
        const vek_u8* p = (const vek_u8*)s;
        for (vek_s32 k; (k = well_formed(p + keep)) > 0;) {
            keep += k;
        }
        cut = (vek_s32)std::strlen(s + keep);
        s[keep] = 0;
    }
    if (len) {
        *len = keep;
    }
    if (removed) {
        *removed = cut;
    }
    return keep;
}

VEK_API vek_s32 utf8_str_copy(char* dst, const char* src, vek_s32 dstSize) {
    if (!dst || dstSize < 1) {
        VEK_ASSERT(dst && dstSize >= 1);
        return 0;
    }
    vek_s32 n = 0;
    if (src) {
        MemBytes r(src);
        while (decode(r) && r.pos <= dstSize - 1) {
            n = r.pos;
        }
        std::memmove(dst, src, (size_t)n);
    }
    dst[n] = 0;
    return n;
}

VEK_API vek_s32 wcs_str_copy(vek_wchar* dst, const vek_wchar* src, vek_s32 dstSize) {
    if (!dst || dstSize < 1) {
        VEK_ASSERT(dst && dstSize >= 1);
        return 0;
    }
    vek_s32 n = 0;
    if (src) {
        while (n < dstSize - 1 && src[n]) {
            n++;
        }
        // Never keep the first half of a surrogate pair without the second.
        if (n > 0 && src[n] && is_high_surrogate(src[n - 1]) && is_low_surrogate(src[n])) {
            n--;
        }
        std::memmove(dst, src, (size_t)n * 2);
    }
    dst[n] = 0;
    return n;
}

VEK_API vek_s32 wcs_cmp_utf8(const vek_wchar* w, const char* s) {
    return equal_wcs_utf8<false>(w, s);
}

VEK_API vek_s32 wcs_icmp_utf8(const vek_wchar* w, const char* s) {
    return equal_wcs_utf8<true>(w, s);
}

VEK_API vek_s32 utf8_cmp_wcs(const char* s, const vek_wchar* w) {
    return equal_wcs_utf8<false>(w, s);
}

VEK_API vek_s32 utf8_icmp_wcs(const char* s, const vek_wchar* w) {
    return equal_wcs_utf8<true>(w, s);
}

VEK_API vek_s32 vek_u16s_turn(vek_wchar* w, vek_s32 n) {
    if (!w) {
        return 0;
    }
    vek_s32 i = 0;
    for (; n < 0 ? w[i] != 0 : i < n; i++) {
        w[i] = swap16(w[i]);
    }
    return i;
}

} // extern "C"
