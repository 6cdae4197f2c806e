/*
 * VekMd5.cpp - the MD5 message digest (RFC 1321) and the frame-check CRCs.
 *
 * MD5 is written out step by step: the 64 steps of a block are one long
 * dependency chain, so what counts is the length of each step's critical
 * path, not the amount of code.
 *
 * The CRCs walk "slicing" tables: eight (or sixteen) 256-entry tables let
 * one step take eight (sixteen) bytes with independent look-ups, where the
 * classic byte table waits for each look-up before the next. Table k holds
 * the effect of a byte followed by k zero bytes; table 0 is the classic
 * one. The CRC-32
 * hands long runs to carry-less multiplication where the processor has it
 * (CrcFold.cpp); the tables take the rest and every other processor.
 */
#include <array>
#include <cstring>
#include "VekMd5.h"
#include "BaseItf.h"
#include "CrcFold.h"
#include "VekCore.h"
#include "VekStr.h"

namespace {

/* ---- MD5 ---- */

inline vek_u32 rotl(vek_u32 v, int s) {
    return (v << s) | (v >> (32 - s));
}

inline vek_u32 load_le32(const vek_u8* p) {
    return (vek_u32)p[0] | (vek_u32)p[1] << 8 | (vek_u32)p[2] << 16 | (vek_u32)p[3] << 24;
}

inline void store_le32(vek_u8* p, vek_u32 v) {
    p[0] = (vek_u8)v;
    p[1] = (vek_u8)(v >> 8);
    p[2] = (vek_u8)(v >> 16);
    p[3] = (vek_u8)(v >> 24);
}

// The round functions, arranged so that b (the word the previous step has
// just produced) enters as late as possible. G's two terms share no bits,
// so its OR is an addition that need not wait for b.
#define MD5_F(a, b, c, d, x, t, s) a = rotl(a + x + t + (((c ^ d) & b) ^ d), s) + b
#define MD5_G(a, b, c, d, x, t, s) a = rotl(a + x + t + (~d & c) + (d & b), s) + b
#define MD5_H(a, b, c, d, x, t, s) a = rotl(a + x + t + (b ^ c ^ d), s) + b
#define MD5_I(a, b, c, d, x, t, s) a = rotl(a + x + t + (c ^ (b | ~d)), s) + b

void md5_blocks(vek_u32* st, const vek_u8* p, size_t blocks) {
    vek_u32 a = st[0], b = st[1], c = st[2], d = st[3];
    for (; blocks; blocks--, p += 64) {
        vek_u32 x[16];
        for (int i = 0; i < 16; i++) {
            x[i] = load_le32(p + 4 * i);
        }
        const vek_u32 a0 = a, b0 = b, c0 = c, d0 = d;
        MD5_F(a, b, c, d, x[0], 0xd76aa478u, 7);
        MD5_F(d, a, b, c, x[1], 0xe8c7b756u, 12);
        MD5_F(c, d, a, b, x[2], 0x242070dbu, 17);
        MD5_F(b, c, d, a, x[3], 0xc1bdceeeu, 22);
        MD5_F(a, b, c, d, x[4], 0xf57c0fafu, 7);
        MD5_F(d, a, b, c, x[5], 0x4787c62au, 12);
        MD5_F(c, d, a, b, x[6], 0xa8304613u, 17);
        MD5_F(b, c, d, a, x[7], 0xfd469501u, 22);
        MD5_F(a, b, c, d, x[8], 0x698098d8u, 7);
        MD5_F(d, a, b, c, x[9], 0x8b44f7afu, 12);
        MD5_F(c, d, a, b, x[10], 0xffff5bb1u, 17);
        MD5_F(b, c, d, a, x[11], 0x895cd7beu, 22);
        MD5_F(a, b, c, d, x[12], 0x6b901122u, 7);
        MD5_F(d, a, b, c, x[13], 0xfd987193u, 12);
        MD5_F(c, d, a, b, x[14], 0xa679438eu, 17);
        MD5_F(b, c, d, a, x[15], 0x49b40821u, 22);

        MD5_G(a, b, c, d, x[1], 0xf61e2562u, 5);
        MD5_G(d, a, b, c, x[6], 0xc040b340u, 9);
        MD5_G(c, d, a, b, x[11], 0x265e5a51u, 14);
        MD5_G(b, c, d, a, x[0], 0xe9b6c7aau, 20);
        MD5_G(a, b, c, d, x[5], 0xd62f105du, 5);
        MD5_G(d, a, b, c, x[10], 0x02441453u, 9);
        MD5_G(c, d, a, b, x[15], 0xd8a1e681u, 14);
        MD5_G(b, c, d, a, x[4], 0xe7d3fbc8u, 20);
        MD5_G(a, b, c, d, x[9], 0x21e1cde6u, 5);
        MD5_G(d, a, b, c, x[14], 0xc33707d6u, 9);
        MD5_G(c, d, a, b, x[3], 0xf4d50d87u, 14);
        MD5_G(b, c, d, a, x[8], 0x455a14edu, 20);
        MD5_G(a, b, c, d, x[13], 0xa9e3e905u, 5);
        MD5_G(d, a, b, c, x[2], 0xfcefa3f8u, 9);
        MD5_G(c, d, a, b, x[7], 0x676f02d9u, 14);
        MD5_G(b, c, d, a, x[12], 0x8d2a4c8au, 20);

        MD5_H(a, b, c, d, x[5], 0xfffa3942u, 4);
        MD5_H(d, a, b, c, x[8], 0x8771f681u, 11);
        MD5_H(c, d, a, b, x[11], 0x6d9d6122u, 16);
        MD5_H(b, c, d, a, x[14], 0xfde5380cu, 23);
        MD5_H(a, b, c, d, x[1], 0xa4beea44u, 4);
        MD5_H(d, a, b, c, x[4], 0x4bdecfa9u, 11);
        MD5_H(c, d, a, b, x[7], 0xf6bb4b60u, 16);
        MD5_H(b, c, d, a, x[10], 0xbebfbc70u, 23);
        MD5_H(a, b, c, d, x[13], 0x289b7ec6u, 4);
        MD5_H(d, a, b, c, x[0], 0xeaa127fau, 11);
        MD5_H(c, d, a, b, x[3], 0xd4ef3085u, 16);
        MD5_H(b, c, d, a, x[6], 0x04881d05u, 23);
        MD5_H(a, b, c, d, x[9], 0xd9d4d039u, 4);
        MD5_H(d, a, b, c, x[12], 0xe6db99e5u, 11);
        MD5_H(c, d, a, b, x[15], 0x1fa27cf8u, 16);
        MD5_H(b, c, d, a, x[2], 0xc4ac5665u, 23);

        MD5_I(a, b, c, d, x[0], 0xf4292244u, 6);
        MD5_I(d, a, b, c, x[7], 0x432aff97u, 10);
        MD5_I(c, d, a, b, x[14], 0xab9423a7u, 15);
        MD5_I(b, c, d, a, x[5], 0xfc93a039u, 21);
        MD5_I(a, b, c, d, x[12], 0x655b59c3u, 6);
        MD5_I(d, a, b, c, x[3], 0x8f0ccc92u, 10);
        MD5_I(c, d, a, b, x[10], 0xffeff47du, 15);
        MD5_I(b, c, d, a, x[1], 0x85845dd1u, 21);
        MD5_I(a, b, c, d, x[8], 0x6fa87e4fu, 6);
        MD5_I(d, a, b, c, x[15], 0xfe2ce6e0u, 10);
        MD5_I(c, d, a, b, x[6], 0xa3014314u, 15);
        MD5_I(b, c, d, a, x[13], 0x4e0811a1u, 21);
        MD5_I(a, b, c, d, x[4], 0xf7537e82u, 6);
        MD5_I(d, a, b, c, x[11], 0xbd3af235u, 10);
        MD5_I(c, d, a, b, x[2], 0x2ad7d2bbu, 15);
        MD5_I(b, c, d, a, x[9], 0xeb86d391u, 21);

        a += a0;
        b += b0;
        c += c0;
        d += d0;
    }
    st[0] = a;
    st[1] = b;
    st[2] = c;
    st[3] = d;
}

#undef MD5_F
#undef MD5_G
#undef MD5_H
#undef MD5_I

const char kHexUpper[] = "0123456789ABCDEF";

void hex_digest(const vek_u8* dig, char* out) {
    for (int i = 0; i < 16; i++) {
        out[2 * i] = kHexUpper[dig[i] >> 4];
        out[2 * i + 1] = kHexUpper[dig[i] & 15];
    }
}

inline vek_u8 fold_lower(vek_u8 c) {
    return c >= 0x61 && c <= 0x7A ? (vek_u8)(c - 0x20) : c;
}

/* ---- CRC tables ---- */

template <class T, size_t N>
using SliceTables = std::array<std::array<T, 256>, N>;

template <class T, size_t N>
constexpr SliceTables<T, N> make_tables(T poly) {
    SliceTables<T, N> t{};
    for (unsigned i = 0; i < 256; i++) {
        T r = (T)i;
        for (int k = 0; k < 8; k++) {
            r = (T)((r & 1) ? (r >> 1) ^ poly : r >> 1);
        }
        t[0][i] = r;
    }
    for (size_t k = 1; k < N; k++) {
        for (unsigned i = 0; i < 256; i++) {
            t[k][i] = (T)((t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFF]);
        }
    }
    return t;
}

// Sixteen tables for the CRC-16: it has no faster path, and its register
// meets only the first two bytes of a step, so a longer step costs hardly
// more time than a short one.
constexpr auto kCrc16 = make_tables<vek_u16, 16>(0x8408);
constexpr auto kCrc32 = make_tables<vek_u32, 8>(0xEDB88320u);
// The CRC-8 register is one byte, which meets only the first byte of a
// step: sixteen bytes a step, as for the CRC-16.
constexpr auto kCrc8 = make_tables<vek_u8, 16>(0x8C);

static_assert(kCrc16[0][1] == 0x1189 && kCrc32[0][1] == 0x77073096u && kCrc8[0][1] == 0x5E,
              "the classic table entries");

// Four bytes (little-endian in v) that are followed by k*4 more bytes.
template <class T, size_t N>
inline vek_u32 slice4(const SliceTables<T, N>& t, int k, vek_u32 v) {
    return (vek_u32)t[4 * k + 3][v & 0xFF] ^ t[4 * k + 2][(v >> 8) & 0xFF] ^
           t[4 * k + 1][(v >> 16) & 0xFF] ^ t[4 * k][v >> 24];
}

// A reflected register of up to 32 bits sits in the low bits, so only the
// first four message bytes of a step meet it; the other look-ups start
// without waiting for the previous step.
template <class T, size_t N>
T crc_slice(const SliceTables<T, N>& t, T fcs, const vek_u8* p, size_t len) {
    static_assert(N == 8 || N == 16, "steps of 8 or 16 bytes");
    vek_u32 r = fcs;
    for (; len >= N; len -= N, p += N) {
        vek_u32 rest = slice4(t, 0, load_le32(p + N - 4));
        if constexpr (N == 16) {
            rest ^= slice4(t, 1, load_le32(p + 8)) ^ slice4(t, 2, load_le32(p + 4));
        }
        r = rest ^ slice4(t, N / 4 - 1, load_le32(p) ^ r);
    }
    for (; len; len--) {
        r = (r >> 8) ^ t[0][(r ^ *p++) & 0xFF];
    }
    return (T)r;
}

vek_u32 crc32_run(vek_u32 fcs, const vek_u8* p, size_t len) {
    if (len >= vek::kCrc32FoldMin && vek::crc32_fold_ok()) {
        size_t n = len & ~(size_t)15;
        fcs = vek::crc32_fold(fcs, p, n);
        p += n;
        len -= n;
    }
    return crc_slice(kCrc32, fcs, p, len);
}

vek_u8 crc8_run(vek_u8 fcs, const vek_u8* p, size_t len) {
    return crc_slice(kCrc8, fcs, p, len);
}

// Checks a buffer argument: true when it may be read.
bool buf_ok(const void* buf, vek_s32 len) {
    if (len < 0 || (!buf && len > 0)) {
        VEK_ASSERT(len >= 0 && (buf || len == 0));
        return false;
    }
    return len > 0;
}

// Runs step over the whole stream from its start and puts the position
// back where it was.
template <class T, class Step>
T crc_strm(IStrm* strm, T fcs, Step step) {
    if (!strm) {
        VEK_ASSERT(strm);
        return fcs;
    }
    vek_s64 pos = IStrm_tell(strm);
    if (IStrm_seek(strm, 0, 0) < 0) {
        return fcs;
    }
    vek_u8 buf[8192];
    for (vek_s32 n; (n = IStrm_read(strm, buf, (vek_s32)sizeof buf)) > 0;) {
        fcs = step(fcs, buf, (size_t)n);
    }
    IStrm_seek(strm, pos, 0);
    return fcs;
}

} // namespace

extern "C" {

VEK_API VekMd5* VekMd5_init(VekMd5* ctx) {
    if (!ctx) {
        VEK_ASSERT(ctx);
        return nullptr;
    }
    ctx->count[0] = ctx->count[1] = 0;
    ctx->state[0] = 0x67452301u;
    ctx->state[1] = 0xefcdab89u;
    ctx->state[2] = 0x98badcfeu;
    ctx->state[3] = 0x10325476u;
    return ctx;
}

VEK_API void VekMd5_update(VekMd5* ctx, const void* data, vek_s32 len) {
    if (!ctx) {
        VEK_ASSERT(ctx);
        return;
    }
    if (!buf_ok(data, len)) {
        return;
    }
    const vek_u8* p = (const vek_u8*)data;
    size_t n = (size_t)len;
    size_t have = (ctx->count[0] >> 3) & 63;
    vek_u32 lo = ctx->count[0] + ((vek_u32)len << 3);
    ctx->count[1] += ((vek_u32)len >> 29) + (lo < ctx->count[0] ? 1 : 0);
    ctx->count[0] = lo;
    if (have) {
        size_t take = 64 - have < n ? 64 - have : n;
        std::memcpy(ctx->buf + have, p, take);
        p += take;
        n -= take;
        if (have + take < 64) {
            return;
        }
        md5_blocks(ctx->state, ctx->buf, 1);
    }
    if (n >= 64) {
        md5_blocks(ctx->state, p, n / 64);
        p += n & ~(size_t)63;
        n &= 63;
    }
    std::memcpy(ctx->buf, p, n);
}

VEK_API vek_u8* VekMd5_finalx(VekMd5* ctx, VekStr* hex) {
    if (!ctx) {
        VEK_ASSERT(ctx);
        return nullptr;
    }
    vek_u8 bits[8];
    store_le32(bits, ctx->count[0]);
    store_le32(bits + 4, ctx->count[1]);
    static const vek_u8 kPad[64] = {0x80};
    size_t have = (ctx->count[0] >> 3) & 63;
    VekMd5_update(ctx, kPad, (vek_s32)(have < 56 ? 56 - have : 120 - have));
    VekMd5_update(ctx, bits, 8);
    for (int i = 0; i < 4; i++) {
        store_le32(ctx->digest + 4 * i, ctx->state[i]);
    }
    if (hex) {
        char text[32];
        hex_digest(ctx->digest, text);
        VekStr_appdStrx(hex, text, 32);
    }
    return ctx->digest;
}

VEK_API vek_s32 VekMd5_trcDig(const void* digest) {
    if (!digest) {
        VEK_ASSERT(digest);
        return 0;
    }
    if (!tout_beg(__FILE__, __LINE__, vek::kModBase, 0, 1)) {
        return 0;
    }
    char text[32];
    hex_digest((const vek_u8*)digest, text);
    tout_strx(text, 32);
    return tout_endx();
}

VEK_API vek_s32 VekMd5_cmpDig(const void* a, const void* b) {
    if (!a || !b) {
        VEK_ASSERT(a && b);
        return 0;
    }
    const vek_u8* x = (const vek_u8*)a;
    const vek_u8* y = (const vek_u8*)b;
    for (int i = 0; i < 16; i++) {
        if (fold_lower(x[i]) != fold_lower(y[i])) {
            return 0;
        }
    }
    return 1;
}

VEK_API vek_u8 Crc8_fcsBuf(const void* buf, vek_s32 len) {
    return buf_ok(buf, len) ? crc8_run(0, (const vek_u8*)buf, (size_t)len) : 0;
}

VEK_API vek_u16 Crc16_fcsU8(vek_u16 fcs, vek_u8 byte) {
    return (vek_u16)((fcs >> 8) ^ kCrc16[0][(fcs ^ byte) & 0xFF]);
}

VEK_API vek_u16 Crc16_fcsBuf(vek_u16 fcs, const void* buf, vek_s32 len) {
    return buf_ok(buf, len) ? crc_slice(kCrc16, fcs, (const vek_u8*)buf, (size_t)len) : fcs;
}

VEK_API vek_u32 Crc32_fcsU8(vek_u32 fcs, vek_u8 byte) {
    return (fcs >> 8) ^ kCrc32[0][(fcs ^ byte) & 0xFF];
}

VEK_API vek_u32 Crc32_fcsBuf(vek_u32 fcs, const void* buf, vek_s32 len) {
    return buf_ok(buf, len) ? crc32_run(fcs, (const vek_u8*)buf, (size_t)len) : fcs;
}

VEK_API vek_u8 Crc8_fcsStrm(IStrm* strm) {
    return crc_strm<vek_u8>(strm, 0, crc8_run);
}

VEK_API vek_u16 Crc16_fcsStrm(IStrm* strm) {
    return crc_strm<vek_u16>(strm, 0xFFFF, [](vek_u16 fcs, const vek_u8* p, size_t n) {
        return crc_slice(kCrc16, fcs, p, n);
    });
}

VEK_API vek_u32 Crc32_fcsStrm(IStrm* strm) {
    return crc_strm<vek_u32>(strm, 0xFFFFFFFFu, crc32_run);
}

} // extern "C"
