/*
 * VekEnc.cpp - Base64, quoted-printable, IRA hexadecimal and BCD.
 *
 * The buffer forms keep the odd room and end rules their callers rely on
 * (see VekEnc.h); the bulk of the work goes through table-driven fast
 * paths that handle the common case (whole, valid units with room to
 * spare) and hand every edge back to the exact one-unit rules.
 */
#include <cstdlib>
#include <cstring>
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <tmmintrin.h>
#define VEK_B64_SIMD 1
#endif
#include "BaseItf.h"
#include "VekEnc.h"
#include "VekStr.h"
#include "VekVos.h"

namespace {

constexpr vek_s32 kChunk = 4096;
constexpr char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kHexUp[] = "0123456789ABCDEF";
constexpr char kHexLow[] = "0123456789abcdef";

constexpr vek_u8 kBad = 0xFF;  // not in the alphabet
constexpr vek_u8 kPad = 0xFE;  // "="
constexpr vek_u32 kSlow = 0x01000000u;  // a quartet the fast path leaves alone

struct B64Tables {
    vek_u8 dec[256];        // 6-bit value, kBad or kPad
    vek_u32 quad[4][256];   // dec pre-shifted per position; kSlow for "=" and bad
    char enc12[4096][2];    // two characters for 12 bits
    vek_s8 hex[256];        // hexadecimal digit value or -1
    char ira[256][2];       // the two lower-case digits of a byte
    constexpr B64Tables() : dec(), quad(), enc12(), hex(), ira() {
        for (int c = 0; c < 256; c++) {
            dec[c] = kBad;
            hex[c] = -1;
        }
        for (int i = 0; i < 64; i++) {
            dec[(vek_u8)kB64[i]] = (vek_u8)i;
        }
        dec[(vek_u8)'='] = kPad;
        for (int pos = 0; pos < 4; pos++) {
            for (int c = 0; c < 256; c++) {
                quad[pos][c] = dec[c] < 64 ? (vek_u32)dec[c] << (18 - 6 * pos) : kSlow;
            }
        }
        for (int v = 0; v < 4096; v++) {
            enc12[v][0] = kB64[v >> 6];
            enc12[v][1] = kB64[v & 63];
        }
        for (int b = 0; b < 256; b++) {
            ira[b][0] = kHexLow[b >> 4];
            ira[b][1] = kHexLow[b & 15];
        }
        for (int i = 0; i < 16; i++) {
            hex[(vek_u8)kHexUp[i]] = (vek_s8)i;
            hex[(vek_u8)kHexLow[i]] = (vek_s8)i;
        }
    }
};
constexpr B64Tables T;

inline vek_u32 quad_bits(const char* s) {
    return T.quad[0][(vek_u8)s[0]] | T.quad[1][(vek_u8)s[1]] | T.quad[2][(vek_u8)s[2]] | T.quad[3][(vek_u8)s[3]];
}

inline void put3(vek_u8* out, vek_u32 v) {
    out[0] = (vek_u8)(v >> 16);
    out[1] = (vek_u8)(v >> 8);
    out[2] = (vek_u8)v;
}

// Three whole bytes into four characters.
inline void enc3(char* out, const vek_u8* in) {
    vek_u32 v = (vek_u32)in[0] << 16 | (vek_u32)in[1] << 8 | in[2];
    std::memcpy(out, T.enc12[v >> 12], 2);
    std::memcpy(out + 2, T.enc12[v & 0xFFF], 2);
}

void enc_tail(char* out4, const vek_u8* in, vek_s32 n) {
    vek_u8 b[3] = {in[0], n > 1 ? in[1] : (vek_u8)0, n > 2 ? in[2] : (vek_u8)0};
    enc3(out4, b);
    if (n < 3) {
        out4[3] = '=';
    }
    if (n < 2) {
        out4[2] = '=';
    }
}

/* ---- Base64 blocks with SSSE3 ----
 * The byte shuffles of the well-known SSSE3 Base64 method: 12 bytes to 16
 * characters and back, chosen at run time on processors that have the
 * instructions. A block of 16 characters with anything but the 64 letters
 * of the alphabet (an "=" included) is left to the one-quartet rules. */
#ifdef VEK_B64_SIMD
#define VEK_SSSE3 __attribute__((target("ssse3")))

bool have_ssse3() {
    static const bool yes = [] {
        __builtin_cpu_init();  // the library may run before the runtime's own constructors
        return __builtin_cpu_supports("ssse3") != 0;
    }();
    return yes;
}

// Encodes blocks of 12 bytes (reading 16 each) into 16 characters.
VEK_SSSE3 void enc_blocks(char* out, const vek_u8* in, size_t blocks) {
    const __m128i shuf = _mm_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1);
    const __m128i shiftLut = _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                           '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    for (size_t b = 0; b < blocks; b++, in += 12, out += 16) {
        __m128i v = _mm_shuffle_epi8(_mm_loadu_si128((const __m128i*)in), shuf);
        __m128i t0 = _mm_and_si128(v, _mm_set1_epi32(0x0fc0fc00));
        __m128i t1 = _mm_mulhi_epu16(t0, _mm_set1_epi32(0x04000040));
        __m128i t2 = _mm_and_si128(v, _mm_set1_epi32(0x003f03f0));
        __m128i t3 = _mm_mullo_epi16(t2, _mm_set1_epi32(0x01000010));
        __m128i idx = _mm_or_si128(t1, t3);
        __m128i r = _mm_subs_epu8(idx, _mm_set1_epi8(51));
        __m128i less = _mm_cmpgt_epi8(_mm_set1_epi8(26), idx);
        r = _mm_or_si128(r, _mm_and_si128(less, _mm_set1_epi8(13)));
        r = _mm_add_epi8(_mm_shuffle_epi8(shiftLut, r), idx);
        _mm_storeu_si128((__m128i*)out, r);
    }
}

// Decodes up to blocks blocks of 16 characters into 12 bytes each
// (writing 16); stops before the first block that holds a character
// outside the 64 letters. Returns the blocks decoded.
VEK_SSSE3 size_t dec_blocks(vek_u8* out, const char* in, size_t blocks) {
    const __m128i lutLo = _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B,
                                        0x1B, 0x1B, 0x1A);
    const __m128i lutHi = _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10,
                                        0x10, 0x10, 0x10);
    const __m128i lutRoll = _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
    const __m128i pack = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    size_t b = 0;
    for (; b < blocks; b++, in += 16, out += 12) {
        __m128i v = _mm_loadu_si128((const __m128i*)in);
        __m128i hi = _mm_and_si128(_mm_srli_epi32(v, 4), _mm_set1_epi8(0x0f));
        __m128i lo = _mm_and_si128(v, _mm_set1_epi8(0x0f));
        __m128i bad = _mm_and_si128(_mm_shuffle_epi8(lutLo, lo), _mm_shuffle_epi8(lutHi, hi));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(bad, _mm_setzero_si128())) != 0xFFFF) {
            break;
        }
        __m128i eq2F = _mm_cmpeq_epi8(v, _mm_set1_epi8(0x2F));
        __m128i vals = _mm_add_epi8(v, _mm_shuffle_epi8(lutRoll, _mm_add_epi8(eq2F, hi)));
        __m128i m = _mm_maddubs_epi16(vals, _mm_set1_epi32(0x01400140));
        m = _mm_madd_epi16(m, _mm_set1_epi32(0x00011000));
        _mm_storeu_si128((__m128i*)out, _mm_shuffle_epi8(m, pack));
    }
    return b;
}
#else
bool have_ssse3() {
    return false;
}
void enc_blocks(char*, const vek_u8*, size_t) {}
size_t dec_blocks(vek_u8*, const char*, size_t) {
    return 0;
}
#endif

// Whole blocks that fit when each needs need more units than it uses
// (room left after it) out of avail; 0 when not even one does.
inline size_t blocks_in(vek_s64 avail, vek_s32 need, vek_s32 step) {
    return avail >= need ? (size_t)((avail - need) / step + 1) : 0;
}

/* ---- buffered stream ends ---- */

// Collects output and writes it to a stream in chunks; count is what the
// stream accepted.
class StrmOut {
  public:
    explicit StrmOut(IStrm* s) : s_(s) {}
    ~StrmOut() { flush(); }
    void put(char c) {
        if (n_ == kChunk) {
            flush();
        }
        buf_[n_++] = c;
    }
    void put(const char* p, vek_s32 n) {
        if (n_ + n > kChunk) {
            flush();
        }
        std::memcpy(buf_ + n_, p, (size_t)n);
        n_ += n;
    }
    vek_s32 done() {
        flush();
        return count_;
    }

  private:
    void flush() {
        if (n_ > 0) {
            vek_s32 w = IStrm_write(s_, buf_, n_);
            if (w > 0) {
                count_ += w;
            }
            n_ = 0;
        }
    }
    IStrm* s_;
    vek_s32 n_ = 0;
    vek_s32 count_ = 0;
    char buf_[kChunk];
};

// Reads a stream from its position in chunks; get() is -1 at the end.
class StrmIn {
  public:
    explicit StrmIn(IStrm* s) : s_(s) {}
    vek_s32 get() {
        if (pos_ == len_ && !fill()) {
            return -1;
        }
        return (vek_u8)buf_[pos_++];
    }
    // The bytes read ahead and not taken yet (reading on when there are
    // none); *n is 0 at the end.
    const char* ahead(vek_s32* n) {
        if (pos_ == len_ && !fill()) {
            *n = 0;
        } else {
            *n = len_ - pos_;
        }
        return buf_ + pos_;
    }
    void take(vek_s32 n) { pos_ += n; }

  private:
    bool fill() {
        vek_s32 n = IStrm_read(s_, buf_, kChunk);
        pos_ = 0;
        len_ = n > 0 ? n : 0;
        return len_ > 0;
    }
    IStrm* s_;
    vek_s32 pos_ = 0;
    vek_s32 len_ = 0;
    char buf_[kChunk];
};

/* ---- quoted-printable ---- */

inline bool qp_literal(vek_u8 b) {
    return b >= 0x21 && b <= 0x7E && b != '=';
}

// Writes units with the soft-break rule; column as the callers define it.
class QpWriter {
  public:
    QpWriter(IStrm* s, vek_s32 lineLen, vek_s32 column)
        : out_(s), lineLen_(lineLen), col_(column < 0 ? lineLen : column) {}
    void byte(vek_u8 b) {
        if (qp_literal(b)) {
            unit(1);
            out_.put((char)b);
        } else {
            unit(3);
            char e[3] = {'=', kHexUp[b >> 4], kHexUp[b & 15]};
            out_.put(e, 3);
        }
    }
    vek_s32 done() { return out_.done(); }

  private:
    void unit(vek_s32 n) {
        if (lineLen_ > 0 && col_ + n > lineLen_) {
            out_.put("=\r\n", 3);
            col_ = 0;
        }
        col_ += n;
    }
    StrmOut out_;
    vek_s32 lineLen_;
    vek_s32 col_;
};

/* ---- IRA ---- */

// One pair through the standard base-16 conversion; two hexadecimal
// digits take the table, anything else strtoul itself (signs, blanks and
// "0x" included).
inline vek_u8 ira_pair(const char* p) {
    vek_s32 hi = T.hex[(vek_u8)p[0]], lo = T.hex[(vek_u8)p[1]];
    if ((hi | lo) >= 0) {
        return (vek_u8)(hi << 4 | lo);
    }
    char pair[3] = {p[0], p[1], 0};
    return (vek_u8)std::strtoul(pair, nullptr, 16);
}

inline void ira_byte(char* out, vek_u8 b) {
    std::memcpy(out, T.ira[b], 2);
}

// Digits of one BCD byte (low nibble first, nibbles above 9 skipped) into
// out; the count.
inline vek_s32 bcd_digits(vek_u8 b, char* out) {
    vek_s32 n = 0;
    if ((b & 15) < 10) {
        out[n++] = (char)('0' + (b & 15));
    }
    if ((b >> 4) < 10) {
        out[n++] = (char)('0' + (b >> 4));
    }
    return n;
}

} // namespace

extern "C" {

/* ---- Base64 ---- */

VEK_API vek_s32 b64_enc_atom(char* out4, const vek_u8* in, vek_s32 n) {
    if (!out4 || !in || n < 1 || n > 3) {
        VEK_ASSERT(out4 && in && n >= 1 && n <= 3);
        return 0;
    }
    enc_tail(out4, in, n);
    return 4;
}

VEK_API vek_s32 b64_dec_atom(const char* in4, vek_u8* out3) {
    if (!in4 || !out3) {
        VEK_ASSERT(in4 && out3);
        return 0;
    }
    vek_u32 v = 0;
    vek_s32 pads = 0;
    for (int i = 0; i < 4; i++) {
        vek_u8 d = T.dec[(vek_u8)in4[i]];
        if (d == kBad) {
            return 0;
        }
        if (d == kPad) {
            pads++;
            d = 0;
        }
        v = v << 6 | d;
    }
    if (pads > 2) {
        return 0;
    }
    vek_u8 b[3];
    put3(b, v);
    std::memcpy(out3, b, (size_t)(3 - pads));
    return 3 - pads;
}

VEK_API vek_s32 b64_dec_str_to_buf(const char* str, vek_u8* buf, vek_s32 size) {
    if (!str || !buf) {
        VEK_ASSERT(str && buf);
        return 0;
    }
    size_t len = std::strlen(str);
    size_t i = 0;
    vek_s32 n = 0;
    if (have_ssse3()) {
        // Four quartets at a time while the last of them keeps n + 3 < size
        // and the 16-byte store fits.
        size_t blocks = blocks_in((vek_s64)len, 16, 16);
        size_t room = blocks_in(size, 16, 12);
        size_t done = dec_blocks(buf, str, blocks < room ? blocks : room);
        i = 16 * done;
        n = (vek_s32)(12 * done);
    }
    while (len - i >= 4 && n + 3 < size) {
        vek_u32 v = quad_bits(str + i);
        if (v < kSlow) {
            put3(buf + n, v);
            n += 3;
        } else {
            n += b64_dec_atom(str + i, buf + n);
        }
        i += 4;
    }
    return n;
}

VEK_API vek_s32 b64_dec_str_to_bufx(const char* str, vek_s32* len, vek_u8* buf) {
    if (!str || !len || !buf) {
        VEK_ASSERT(str && len && buf);
        return 0;
    }
    vek_s32 total = *len;
    vek_s32 i = 0, n = 0, q = 0;
    char quad[4];
    while (i < total) {
        if (q == 0 && total - i >= 24 && have_ssse3()) {
            // 24 more characters keep a 16-byte store inside the 3 * (len / 4)
            // bytes the caller provides, whatever the rest holds.
            size_t done = dec_blocks(buf + n, str + i, blocks_in(total - i, 24, 16));
            i += 16 * (vek_s32)done;
            n += 12 * (vek_s32)done;
        }
        if (q == 0 && total - i >= 4) {
            vek_u32 v = quad_bits(str + i);
            if (v < kSlow) {  // no CR, LF or "=" among the four
                put3(buf + n, v);
                n += 3;
                i += 4;
                continue;
            }
        }
        char c = str[i++];
        if (c == '\r' || c == '\n') {
            continue;
        }
        quad[q++] = c;
        if (q == 4) {
            n += b64_dec_atom(quad, buf + n);
            q = 0;
        }
    }
    *len = total - q;
    return n;
}

VEK_API vek_s32 b64_enc_buf_from_buf(char* b64Buf, vek_s32 b64Len, const vek_u8* data, vek_s32 dataLen) {
    if (!b64Buf || (!data && dataLen > 0)) {
        VEK_ASSERT(b64Buf && (data || dataLen < 1));
        return 0;
    }
    vek_s32 i = 0, j = 0;
    if (have_ssse3()) {
        // Four quartets at a time while the last keeps j + 4 < b64Len;
        // each block reads 16 bytes.
        size_t blocks = blocks_in(dataLen, 16, 12);
        size_t room = blocks_in(b64Len, 17, 16);
        size_t done = blocks < room ? blocks : room;
        enc_blocks(b64Buf, data, done);
        i = 12 * (vek_s32)done;
        j = 16 * (vek_s32)done;
    }
    while (dataLen - i >= 3 && j + 4 < b64Len) {
        enc3(b64Buf + j, data + i);
        i += 3;
        j += 4;
    }
    if (i < dataLen && j + 4 < b64Len) {
        enc_tail(b64Buf + j, data + i, dataLen - i);
        j += 4;
    }
    if (!(j < b64Len)) {
        vek_assert__("j < b64Len", __FILE__, __LINE__);
        return j;
    }
    b64Buf[j] = 0;
    return j;
}

VEK_API vek_s32 b64_enc_cstr_from_buf(VekStr* cstr, const vek_u8* data, vek_s32 dataLen) {
    if (!cstr || (!data && dataLen > 0)) {
        VEK_ASSERT(cstr && (data || dataLen < 1));
        return 0;
    }
    if (dataLen < 1) {
        return 0;
    }
    vek_s32 old = VekStr_len(cstr);
    vek_s32 add = (dataLen + 2) / 3 * 4;
    char* p = VekStr_useBufBeg(cstr, old + add);
    if (!p) {
        return 0;
    }
    char* out = p + old;
    vek_s32 i = 0;
    if (have_ssse3()) {
        size_t done = blocks_in(dataLen, 16, 12);
        enc_blocks(out, data, done);
        i = 12 * (vek_s32)done;
        out += 16 * done;
    }
    for (; dataLen - i >= 3; i += 3, out += 4) {
        enc3(out, data + i);
    }
    if (i < dataLen) {
        enc_tail(out, data + i, dataLen - i);
    }
    VekStr_useBufEnd(cstr, old + add);
    return add;
}

VEK_API vek_s32 b64_enc_strm_from_strm(IStrm* base, IStrm* src, vek_s32 foldSize, vek_s32 column) {
    if (!(base && src && foldSize > 0)) {
        vek_assert__("base && src && foldSize > 0", __FILE__, __LINE__);
        return 0;
    }
    StrmOut out(base);
    vek_s32 col = column < 0 ? foldSize : column;
    vek_u8 in[3];
    vek_s32 n;
    while ((n = IStrm_read(src, in, 3)) > 0) {
        if (col + 4 > foldSize) {
            out.put("\r\n\t", 3);
            col = 0;
        }
        char q[4];
        enc_tail(q, in, n);
        out.put(q, 4);
        col += 4;
    }
    return out.done();
}

/* ---- quoted-printable ---- */

VEK_API vek_s32 qp_enc_strm_from_strm(IStrm* qp, IStrm* strm, vek_s32 lineLen, vek_s32 column) {
    if (!(qp && strm)) {
        vek_assert__("qp && strm", __FILE__, __LINE__);
        return 0;
    }
    QpWriter w(qp, lineLen, column);
    StrmIn in(strm);
    for (vek_s32 c; (c = in.get()) >= 0;) {
        w.byte((vek_u8)c);
    }
    return w.done();
}

VEK_API vek_s32 qp_enc_strm_from_buf(IStrm* qp, const vek_u8* data, vek_s32 dataLen, vek_s32 lineLen,
                                     vek_s32 column) {
    if (!qp || (!data && dataLen > 0)) {
        VEK_ASSERT(qp && (data || dataLen < 1));
        return 0;
    }
    QpWriter w(qp, lineLen, column);
    for (vek_s32 i = 0; i < dataLen; i++) {
        w.byte(data[i]);
    }
    return w.done();
}

VEK_API vek_s32 qp_enc_strm_from_str(IStrm* qp, const char* str, vek_s32 lineLen, vek_s32 column) {
    if (!(qp && str)) {
        vek_assert__("qp && str", __FILE__, __LINE__);
        return 0;
    }
    QpWriter w(qp, lineLen, column);
    for (; *str; str++) {
        w.byte((vek_u8)*str);
    }
    return w.done();
}

VEK_API vek_bool qp_dec_atom(const char* in, vek_u8* byte) {
    if (!in || !byte) {
        VEK_ASSERT(in && byte);
        return 0;
    }
    if (*in == '=') {
        in++;
    }
    vek_s32 hi = T.hex[(vek_u8)in[0]];
    if (hi < 0) {
        return 0;
    }
    vek_s32 lo = T.hex[(vek_u8)in[1]];
    if (lo < 0) {
        return 0;
    }
    *byte = (vek_u8)(hi << 4 | lo);
    return 1;
}

// Only the first byte of the text is tested for its end (see VekEnc.h):
// the loop runs on the output limit, and a terminator inside the text is
// copied like any other byte.
VEK_API vek_s32 qp_dec_str_to_buf(const char* str, char* buf, vek_s32 size) {
    if (!str || !buf) {
        VEK_ASSERT(str && buf);
        return 0;
    }
    if (size < 1) {
        return 0;
    }
    vek_s32 n = 0;
    const char* p = str;
    if (*str) {
        while (n < size - 1) {
            if (*p != '=') {
                buf[n++] = *p++;
                continue;
            }
            if (!p[1] || !p[2]) {
                break;
            }
            vek_u8 b;
            if (qp_dec_atom(p, &b)) {
                buf[n++] = (char)b;
            }  // a soft break and an invalid pair are both dropped
            p += 3;
        }
    }
    buf[n] = 0;
    return n;
}

VEK_API vek_s32 qp_dec_strm_to_strm(IStrm* src, IStrm* dst) {
    if (!(src && dst)) {
        vek_assert__("src && dst", __FILE__, __LINE__);
        return 0;
    }
    StrmIn in(src);
    StrmOut out(dst);
    // "=" and the two bytes after it: a soft break, a byte, or (invalid)
    // the three written back as they are.
    auto escape = [&out](vek_s32 c1, vek_s32 c2) {
        if (c1 == '\r' && c2 == '\n') {
            return;
        }
        char pair[3] = {'=', (char)c1, (char)c2};
        vek_u8 b;
        if (qp_dec_atom(pair, &b)) {
            out.put((char)b);
        } else {
            out.put(pair, 3);
        }
    };
    for (;;) {
        // Runs of plain bytes and whole escapes straight from what was
        // read ahead; an escape cut by its end goes byte by byte.
        vek_s32 n, i = 0;
        const char* p = in.ahead(&n);
        if (n == 0) {
            break;
        }
        while (i < n) {
            if (p[i] != '=') {
                // Escapes are dense in encoded binary: a plain loop beats
                // memchr's set-up on such short runs.
                vek_s32 j = i + 1;
                while (j < n && p[j] != '=') {
                    j++;
                }
                out.put(p + i, j - i);
                i = j;
            } else if (n - i >= 3) {
                escape((vek_u8)p[i + 1], (vek_u8)p[i + 2]);
                i += 3;
            } else {
                break;
            }
        }
        in.take(i);
        if (i == n) {
            continue;
        }
        in.get();  // the "="
        vek_s32 c1 = in.get();
        vek_s32 c2 = c1 >= 0 ? in.get() : -1;
        if (c2 < 0) {
            out.put('=');
            if (c1 >= 0) {
                out.put((char)c1);
            }
            break;
        }
        escape(c1, c2);
    }
    return out.done();
}

/* ---- IRA hexadecimal ---- */

VEK_API vek_s32 ira_enc_byte_to_buf(char* buf, vek_u8 byte) {
    if (!buf) {
        VEK_ASSERT(buf);
        return 0;
    }
    ira_byte(buf, byte);
    return 2;
}

VEK_API vek_s32 ira_enc_buf_from_buf(char* iraBuf, vek_s32 iraSize, const vek_u8* data, vek_s32 dataLen) {
    if (!(iraBuf && iraSize > 0 && data)) {
        vek_assert__("iraBuf && iraSize > 0 && data", __FILE__, __LINE__);
        return 0;
    }
    vek_s32 j = 0;
    if (dataLen > 0) {
        // Pairs while j + 2 < iraSize: at most (iraSize - 2 + 1) / 2 of them.
        vek_s32 pairs = (iraSize - 1) / 2;
        if (pairs > dataLen) {
            pairs = dataLen;
        }
        for (vek_s32 i = 0; i < pairs; i++, j += 2) {
            ira_byte(iraBuf + j, data[i]);
        }
    }
    if (!(j < iraSize)) {
        vek_assert__("j < iraSize", __FILE__, __LINE__);
        return j;
    }
    iraBuf[j] = 0;
    return j;
}

VEK_API vek_s32 ira_enc_buf_from_strm(char* iraBuf, vek_s32 iraSize, IStrm* strm) {
    if (!(iraBuf && iraSize > 0 && strm)) {
        vek_assert__("iraBuf && iraSize > 0 && strm", __FILE__, __LINE__);
        return 0;
    }
    vek_s64 entry = IStrm_tell(strm);
    char* p = iraBuf;
    vek_s32 room = (iraSize - 1) / 2;  // pairs that keep p - iraBuf + 2 < iraSize
    vek_u8 chunk[kChunk / 2];
    while (room > 0) {
        vek_s32 want = room < (vek_s32)sizeof chunk ? room : (vek_s32)sizeof chunk;
        vek_s32 n = IStrm_read(strm, chunk, want);
        if (n <= 0) {
            break;
        }
        for (vek_s32 i = 0; i < n; i++, p += 2) {
            ira_byte(p, chunk[i]);
        }
        room -= n;
    }
    *p = 0;
    if (!(p - iraBuf < iraSize)) {
        vek_assert__("p - iraBuf < iraSize", __FILE__, __LINE__);
    }
    IStrm_seek(strm, entry, 0);
    return (vek_s32)(p - iraBuf);
}

VEK_API vek_s32 ira_enc_cstr_from_buf(VekStr* ira, const vek_u8* data, vek_s32 dataLen) {
    if (!(ira && data)) {
        vek_assert__("ira && data", __FILE__, __LINE__);
        return 0;
    }
    if (dataLen < 1) {
        return 0;
    }
    vek_s32 old = VekStr_len(ira);
    char* p = VekStr_useBufBeg(ira, old + 2 * dataLen);
    if (!p) {
        return 0;
    }
    for (vek_s32 i = 0; i < dataLen; i++) {
        ira_byte(p + old + 2 * i, data[i]);
    }
    VekStr_useBufEnd(ira, old + 2 * dataLen);
    return 2 * dataLen;
}

VEK_API vek_s32 ira_dec_str_to_buf(const char* ira, vek_u8* dataBuf, vek_s32 dataSize) {
    if (!(ira && dataBuf && dataSize > 0)) {
        vek_assert__("ira && dataBuf && dataSize > 0", __FILE__, __LINE__);
        return 0;
    }
    vek_s32 n = 0;
    for (; n < dataSize - 1 && ira[0] && ira[1]; ira += 2) {
        dataBuf[n++] = ira_pair(ira);
    }
    return n;
}

VEK_API vek_s32 ira_dec_str_to_str(const char* ira, char* buf, vek_s32 size) {
    if (!(ira && buf)) {
        vek_assert__("ira && buf", __FILE__, __LINE__);
        return 0;
    }
    vek_s32 n = 0;
    for (; n < size - 1 && ira[0] && ira[1]; ira += 2) {
        buf[n++] = (char)ira_pair(ira);
    }
    if (size > 0) {
        buf[n] = 0;
    }
    return n;
}

VEK_API vek_s32 ira_dec_str_to_strm(const char* ira, IStrm* strm) {
    if (!(ira && strm)) {
        vek_assert__("ira && strm", __FILE__, __LINE__);
        return 0;
    }
    StrmOut out(strm);
    for (; ira[0] && ira[1]; ira += 2) {
        out.put((char)ira_pair(ira));
    }
    return out.done();
}

VEK_API vek_s32 ira_dec_strm_to_strm(IStrm* ira, IStrm* strm) {
    if (!(ira && strm)) {
        vek_assert__("ira && strm", __FILE__, __LINE__);
        return 0;
    }
    vek_s64 entry = IStrm_tell(ira);
    StrmOut out(strm);
    char pair[2];
    while (IStrm_read(ira, pair, 2) == 2) {
        out.put((char)ira_pair(pair));
    }
    vek_s32 n = out.done();
    IStrm_seek(ira, entry, 0);
    return n;
}

/* ---- BCD ---- */

VEK_API vek_s32 bcd_dec_byte_to_int(vek_u8 b) {
    return (b & 0x0F) * 10 + (b >> 4);
}

VEK_API vek_u8 bcd_enc_byte_from_int(vek_s32 n) {
    return (vek_u8)(((n % 10) << 4) | ((n / 10) & 0x0F));
}

VEK_API vek_s32 bcd_dec_buf_to_str(const vek_u8* bcd, vek_s32 bcdLen, char* str, vek_s32 size) {
    if (!bcd || !str) {
        VEK_ASSERT(bcd && str);
        return 0;
    }
    if (size < 1) {
        return 0;
    }
    vek_s32 n = 0;
    for (vek_s32 i = 0; i < bcdLen && n < size - 1; i++) {
        n += bcd_digits(bcd[i], str + n);
    }
    str[n] = 0;
    return n;
}

VEK_API vek_s32 bcd_dec_buf_to_cstr(VekStr* cstr, const vek_u8* bcd, vek_s32 bcdLen) {
    if (!(cstr && bcdLen >= 0)) {
        vek_assert__("cstr && bcdLen >= 0", __FILE__, __LINE__);
        return 0;
    }
    if (bcdLen > 0 && !bcd) {
        VEK_ASSERT(bcd);
        return 0;
    }
    vek_s32 last = 0;
    for (vek_s32 i = 0; i < bcdLen; i++) {
        char d[2];
        last = bcd_digits(bcd[i], d);
        VekStr_appdStrx(cstr, d, last);
    }
    return last;
}

VEK_API vek_s32 bcd_enc_buf_from_str(vek_u8* buf, vek_s32 size, const char* str, vek_bool fill) {
    if (!buf || !str) {
        VEK_ASSERT(buf && str);
        return 0;
    }
    vek_s32 n = 0;
    while (n < size && str[0]) {
        buf[n] = (vek_u8)(str[0] - 0x30);
        if (!str[1]) {
            buf[n++] |= fill ? 0xF0 : 0x00;
            break;
        }
        buf[n++] |= (vek_u8)((str[1] - 0x30) << 4);
        str += 2;
    }
    return n;
}

} // extern "C"
