/*
 * CrcFold.cpp - CRC-32 by carry-less multiplication (x86 PCLMULQDQ).
 *
 * The message is kept as four 128-bit lanes; each step multiplies every
 * lane by x^512 mod P (split in two 64-bit halves) and adds the next 64
 * bytes, which keeps the remainder unchanged. The four lanes are then
 * folded into one (x^128 mod P), the 128 bits reduced to 64 and a Barrett
 * reduction gives the 32-bit register. Everything is bit-reflected, so the
 * constants are the reflected forms of
 *     k1 = x^(4*128+32) mod P, k2 = x^(4*128-32) mod P
 *     k3 = x^(128+32)   mod P, k4 = x^(128-32)   mod P
 *     k5 = x^64 mod P,  mu = x^64 / P,  and P itself (0x1DB710641).
 * Only SSE2 and PCLMULQDQ are used, so the same code serves 32- and 64-bit
 * builds; the functions carry the target attribute, so the file builds
 * with the project's usual flags.
 */
#include "CrcFold.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)

#include <immintrin.h>

#define VEK_FOLD_TARGET __attribute__((target("sse2,pclmul")))

namespace vek {
namespace {

VEK_FOLD_TARGET inline __m128i load(const vek_u8* p) {
    return _mm_loadu_si128((const __m128i*)(const void*)p);
}

// a * k (low halves and high halves separately) + b.
VEK_FOLD_TARGET inline __m128i fold(__m128i a, __m128i b, __m128i k) {
    __m128i lo = _mm_clmulepi64_si128(a, k, 0x00);
    __m128i hi = _mm_clmulepi64_si128(a, k, 0x11);
    return _mm_xor_si128(b, _mm_xor_si128(lo, hi));
}

bool detect() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("sse2") && __builtin_cpu_supports("pclmul");
}

const bool g_foldOk = detect();

} // namespace

bool crc32_fold_ok() {
    return g_foldOk;
}

VEK_FOLD_TARGET vek_u32 crc32_fold(vek_u32 fcs, const vek_u8* p, size_t len) {
    const __m128i k1k2 = _mm_set_epi64x(0x1C6E41596LL, 0x154442BD4LL);
    const __m128i k3k4 = _mm_set_epi64x(0x0CCAA009ELL, 0x1751997D0LL);
    const __m128i k5 = _mm_set_epi64x(0, 0x163CD6124LL);
    const __m128i pmu = _mm_set_epi64x(0x1F7011641LL, 0x1DB710641LL);
    const __m128i low32 = _mm_set_epi32(0, 0, 0, -1);

    // The register enters as the first 32 message bits, added in.
    __m128i x0 = _mm_xor_si128(load(p), _mm_cvtsi32_si128((int)fcs));
    __m128i x1 = load(p + 16);
    __m128i x2 = load(p + 32);
    __m128i x3 = load(p + 48);
    p += 64;
    len -= 64;
    for (; len >= 64; p += 64, len -= 64) {
        x0 = fold(x0, load(p), k1k2);
        x1 = fold(x1, load(p + 16), k1k2);
        x2 = fold(x2, load(p + 32), k1k2);
        x3 = fold(x3, load(p + 48), k1k2);
    }
    __m128i x = fold(x0, x1, k3k4);
    x = fold(x, x2, k3k4);
    x = fold(x, x3, k3k4);
    for (; len >= 16; p += 16, len -= 16) {
        x = fold(x, load(p), k3k4);
    }
    // 128 bits to 96, then to 64.
    x = _mm_xor_si128(_mm_clmulepi64_si128(x, k3k4, 0x10), _mm_srli_si128(x, 8));
    x = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x, low32), k5, 0x00), _mm_srli_si128(x, 4));
    // Barrett: t1 = (x mod x^32) * mu, t2 = (t1 mod x^32) * P; the
    // remainder is the upper half of x + t2 in the reflected order.
    __m128i t1 = _mm_clmulepi64_si128(_mm_and_si128(x, low32), pmu, 0x10);
    __m128i t2 = _mm_clmulepi64_si128(_mm_and_si128(t1, low32), pmu, 0x00);
    return (vek_u32)_mm_cvtsi128_si32(_mm_srli_si128(_mm_xor_si128(x, t2), 4));
}

} // namespace vek

#else // no x86 or no GNU-style intrinsics: the tables do all the work

namespace vek {

bool crc32_fold_ok() {
    return false;
}

vek_u32 crc32_fold(vek_u32 fcs, const vek_u8*, size_t) {
    return fcs;
}

} // namespace vek

#endif
