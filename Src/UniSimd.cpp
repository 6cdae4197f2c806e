/*
 * UniSimd.cpp - the vector ASCII runs of the UTF converters. The kernel is
 * chosen once, from what the processor reports.
 */
#include "UniSimd.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define VEK_UNI_X86 1
#endif

namespace {

using ToUnits = vek_s32 (*)(const vek_u8*, vek_s32, vek_wchar*, bool);
using ToBytes = vek_s32 (*)(const vek_wchar*, vek_s32, char*, bool);

vek_s32 to_units_none(const vek_u8*, vek_s32, vek_wchar*, bool) {
    return 0;
}
vek_s32 to_bytes_none(const vek_wchar*, vek_s32, char*, bool) {
    return 0;
}

#ifdef VEK_UNI_X86

// A byte with its top bit set, or a 0 byte, ends the run.
__attribute__((target("sse2"))) vek_s32 to_units_sse2(const vek_u8* s, vek_s32 max, vek_wchar* d,
                                                      bool swap) {
    const __m128i z = _mm_setzero_si128();
    vek_s32 i = 0;
    for (; max - i >= 16; i += 16) {
        __m128i v = _mm_loadu_si128((const __m128i*)(s + i));
        if (_mm_movemask_epi8(_mm_or_si128(v, _mm_cmpeq_epi8(v, z))) != 0) {
            break;
        }
        __m128i lo = swap ? _mm_unpacklo_epi8(z, v) : _mm_unpacklo_epi8(v, z);
        __m128i hi = swap ? _mm_unpackhi_epi8(z, v) : _mm_unpackhi_epi8(v, z);
        _mm_storeu_si128((__m128i*)(d + i), lo);
        _mm_storeu_si128((__m128i*)(d + i + 8), hi);
    }
    return i;
}

// Units are packed with unsigned saturation: 0x80..0x7FFF become bytes
// with the top bit set, 0x8000 and above (negative as signed) become 0, so
// the byte test finds every unit that is not ASCII.
__attribute__((target("sse2"))) vek_s32 to_bytes_sse2(const vek_wchar* s, vek_s32 max, char* d,
                                                      bool swap) {
    const __m128i z = _mm_setzero_si128();
    vek_s32 i = 0;
    for (; max - i >= 16; i += 16) {
        __m128i a = _mm_loadu_si128((const __m128i*)(s + i));
        __m128i b = _mm_loadu_si128((const __m128i*)(s + i + 8));
        if (swap) {
            a = _mm_or_si128(_mm_slli_epi16(a, 8), _mm_srli_epi16(a, 8));
            b = _mm_or_si128(_mm_slli_epi16(b, 8), _mm_srli_epi16(b, 8));
        }
        __m128i t = _mm_packus_epi16(a, b);
        if (_mm_movemask_epi8(_mm_or_si128(t, _mm_cmpeq_epi8(t, z))) != 0) {
            break;
        }
        _mm_storeu_si128((__m128i*)(d + i), t);
    }
    return i;
}

__attribute__((target("avx2"))) vek_s32 to_units_avx2(const vek_u8* s, vek_s32 max, vek_wchar* d,
                                                      bool swap) {
    const __m256i z = _mm256_setzero_si256();
    vek_s32 i = 0;
    for (; max - i >= 32; i += 32) {
        __m256i v = _mm256_loadu_si256((const __m256i*)(s + i));
        if (_mm256_movemask_epi8(_mm256_or_si256(v, _mm256_cmpeq_epi8(v, z))) != 0) {
            break;
        }
        __m256i lo = _mm256_cvtepu8_epi16(_mm256_castsi256_si128(v));
        __m256i hi = _mm256_cvtepu8_epi16(_mm256_extracti128_si256(v, 1));
        if (swap) {
            lo = _mm256_slli_epi16(lo, 8);
            hi = _mm256_slli_epi16(hi, 8);
        }
        _mm256_storeu_si256((__m256i*)(d + i), lo);
        _mm256_storeu_si256((__m256i*)(d + i + 16), hi);
    }
    return i + to_units_sse2(s + i, max - i, d + i, swap);
}

__attribute__((target("avx2"))) vek_s32 to_bytes_avx2(const vek_wchar* s, vek_s32 max, char* d,
                                                      bool swap) {
    const __m256i z = _mm256_setzero_si256();
    vek_s32 i = 0;
    for (; max - i >= 32; i += 32) {
        __m256i a = _mm256_loadu_si256((const __m256i*)(s + i));
        __m256i b = _mm256_loadu_si256((const __m256i*)(s + i + 16));
        if (swap) {
            a = _mm256_or_si256(_mm256_slli_epi16(a, 8), _mm256_srli_epi16(a, 8));
            b = _mm256_or_si256(_mm256_slli_epi16(b, 8), _mm256_srli_epi16(b, 8));
        }
        // The pack works within each 128-bit lane; the permute restores order.
        __m256i t = _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8);
        if (_mm256_movemask_epi8(_mm256_or_si256(t, _mm256_cmpeq_epi8(t, z))) != 0) {
            break;
        }
        _mm256_storeu_si256((__m256i*)(d + i), t);
    }
    return i + to_bytes_sse2(s + i, max - i, d + i, swap);
}

struct Kernels {
    ToUnits toUnits = to_units_none;
    ToBytes toBytes = to_bytes_none;
    Kernels() {
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx2")) {
            toUnits = to_units_avx2;
            toBytes = to_bytes_avx2;
        } else if (__builtin_cpu_supports("sse2")) {
            toUnits = to_units_sse2;
            toBytes = to_bytes_sse2;
        }
    }
};

#else

struct Kernels {
    ToUnits toUnits = to_units_none;
    ToBytes toBytes = to_bytes_none;
};

#endif

const Kernels& kernels() {
    static const Kernels k;
    return k;
}

} // namespace

namespace vek {

vek_s32 ascii_to_units(const vek_u8* s, vek_s32 max, vek_wchar* d, bool swap) {
    return kernels().toUnits(s, max, d, swap);
}

vek_s32 units_to_ascii(const vek_wchar* s, vek_s32 max, char* d, bool swap) {
    return kernels().toBytes(s, max, d, swap);
}

} // namespace vek
