/*
 * UniSimd.cpp - the vector runs of the UTF converters. The kernels are
 * chosen once, from what the processor reports.
 */
#include <cstring>
#include "UniSimd.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define VEK_UNI_X86 1
#endif

namespace {

using ToUnits = vek_s32 (*)(const vek_u8*, vek_s32, vek_wchar*, bool);
using ToBytes = vek_s32 (*)(const vek_wchar*, vek_s32, char*, bool);
using Utf8ToUnits = vek_s32 (*)(const vek_u8*, vek_s32, vek_wchar*, vek_s32, vek_s32*);
using UnitsToUtf8 = vek_s32 (*)(const vek_wchar*, vek_s32, char*, vek_s32, bool, vek_s32*);

vek_s32 to_units_none(const vek_u8*, vek_s32, vek_wchar*, bool) {
    return 0;
}
vek_s32 to_bytes_none(const vek_wchar*, vek_s32, char*, bool) {
    return 0;
}
vek_s32 utf8_none(const vek_u8*, vek_s32, vek_wchar*, vek_s32, vek_s32* used) {
    *used = 0;
    return 0;
}
vek_s32 from_units_none(const vek_wchar*, vek_s32, char*, vek_s32, bool, vek_s32* used) {
    *used = 0;
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

// ---- UTF-8 blocks ----
//
// The text goes by in blocks of 16 bytes on a fixed grid, so that no block
// waits for the one before it. Every byte is decoded as if it ended a
// character, from itself and the two bytes before it (in the block before,
// for the first two), into a 16-bit lane; only the lanes that really end
// one are kept, so a character across two blocks comes out of the second.
// Per byte, masks tell what it is (lead of two or three bytes,
// continuation, 0, 0xF0 and above); the continuation bytes the leads ask
// for must be exactly the ones present. At the first byte that breaks the
// pattern, or the first character that decodes to 0 (an overlong form of
// it), the run ends before the character that holds it, and the caller's
// scalar rules decide everything from there. Other overlong forms and
// surrogates decode by the same arithmetic as in the scalar code, so they
// need no case of their own.

struct Block {
    __m128i lo;      // the lanes of bytes 0-7
    __m128i hi;      // the lanes of bytes 8-15
    unsigned ends;   // the lanes that end a character
    unsigned want;   // bit i: byte i must be a continuation byte (16, 17: past the block)
    unsigned stop;   // the first byte that breaks the pattern, 16 for none
};

inline bool is_cont(vek_u8 b) {
    return (b & 0xC0) == 0x80;
}

/* The block at s + i. carry: its want bits 0 and 1, from the block
 * before; the first block has no bytes before it. */
__attribute__((target("sse2"))) inline Block utf8_block(const vek_u8* s, vek_s32 i, unsigned carry) {
    const __m128i z = _mm_setzero_si128();
    const __m128i b = _mm_loadu_si128((const __m128i*)(s + i));
    const __m128i prev1 = i ? _mm_loadu_si128((const __m128i*)(s + i - 1)) : _mm_slli_si128(b, 1);
    const __m128i prev2 = i ? _mm_loadu_si128((const __m128i*)(s + i - 2)) : _mm_slli_si128(b, 2);
    Block k;
    // Signed compares: with the top bit set, 0xC0.. 0xE0.. 0xF0.. are the
    // bytes above -65, -33 and -17.
    unsigned high = (unsigned)_mm_movemask_epi8(b);
    unsigned lead = (unsigned)_mm_movemask_epi8(_mm_cmpgt_epi8(b, _mm_set1_epi8(-65))) & high;
    unsigned lead3 = (unsigned)_mm_movemask_epi8(_mm_cmpgt_epi8(b, _mm_set1_epi8(-33))) & high;
    unsigned odd = (unsigned)_mm_movemask_epi8(_mm_cmpgt_epi8(b, _mm_set1_epi8(-17))) & high;
    odd |= (unsigned)_mm_movemask_epi8(_mm_cmpeq_epi8(b, z));
    unsigned cont = high & ~lead;
    k.want = (lead << 1) | (lead3 << 2) | carry;
    unsigned bad = ((k.want ^ cont) | odd) & 0xFFFF;
    // A character ends where the next byte is not wanted as a continuation.
    k.ends = ~(k.want >> 1) & 0xFFFF;

    // The lanes: a byte without its top bit is itself; otherwise its low
    // six bits, the low six bits of the byte before (a two-byte lead has
    // its own five there), and, when that one is a continuation byte, the
    // low four bits of the byte before it, which a shift left by 12 in a
    // 16-bit lane picks out.
    const __m128i neg = _mm_cmplt_epi8(b, z);
    const __m128i cont1 =
        _mm_cmpeq_epi8(_mm_and_si128(prev1, _mm_set1_epi8((char)0xC0)), _mm_set1_epi8((char)0x80));
    __m128i c0 = _mm_andnot_si128(_mm_and_si128(neg, _mm_set1_epi8((char)0xC0)), b);
    __m128i c1 = _mm_and_si128(prev1, _mm_and_si128(neg, _mm_set1_epi8(0x3F)));
    __m128i c2 = _mm_and_si128(prev2, _mm_and_si128(neg, cont1));
    c2 = _mm_and_si128(_mm_slli_epi16(c2, 4), _mm_set1_epi8((char)0xF0));
    k.lo = _mm_or_si128(_mm_unpacklo_epi8(c0, c2), _mm_slli_epi16(_mm_unpacklo_epi8(c1, z), 6));
    k.hi = _mm_or_si128(_mm_unpackhi_epi8(c0, c2), _mm_slli_epi16(_mm_unpackhi_epi8(c1, z), 6));
    unsigned zero = (unsigned)_mm_movemask_epi8(
        _mm_packs_epi16(_mm_cmpeq_epi16(k.lo, z), _mm_cmpeq_epi16(k.hi, z)));
    bad |= zero & k.ends;
    k.stop = (unsigned)__builtin_ctz(bad | 0x10000);
    return k;
}

/* Where the run ends in a block that stops at byte x (relative to s + i):
 * at x itself when a character starts there, else at the lead of the
 * character x belongs to, which may lie in the block before. */
inline vek_s32 run_end(const vek_u8* s, vek_s32 i, const Block& k) {
    vek_s32 x = (vek_s32)k.stop;
    if (!(k.want >> x & 1)) {
        return x;
    }
    return is_cont(s[i + x - 1]) ? x - 2 : x - 1;
}

/* After the last whole block: back to the lead of a character it left open. */
inline vek_s32 open_lead(const vek_u8* s, vek_s32 i, unsigned carry) {
    return carry == 0 ? i : is_cont(s[i - 1]) ? i - 2 : i - 1;
}

// Which lanes to keep, by the eight bits of half a block: the shuffle
// that packs them to the front, and how many they are.
struct Packs {
    alignas(16) vek_u8 shuffle[256][16] = {};
    vek_u8 count[256] = {};
    constexpr Packs() {
        for (unsigned m = 0; m < 256; m++) {
            unsigned k = 0;
            for (unsigned i = 0; i < 8; i++) {
                if (m & (1u << i)) {
                    shuffle[m][2 * k] = (vek_u8)(2 * i);
                    shuffle[m][2 * k + 1] = (vek_u8)(2 * i + 1);
                    k++;
                }
            }
            count[m] = (vek_u8)k;
            for (unsigned j = 2 * k; j < 16; j++) {
                shuffle[m][j] = 0x80;
            }
        }
    }
};
constexpr Packs kPacks;

/* Output is gathered here and copied out in pieces, so that the whole-lane
 * stores never touch the target past what was written. Block: the most
 * one block can put, which is also the slack behind the buffer. */
template <class T, vek_s32 Block>
struct Stage {
    static constexpr vek_s32 kSize = 512 / sizeof(T);
    alignas(16) T buf[kSize + Block];
    T* d;
    vek_s32 room;
    vek_s32 out = 0;
    vek_s32 n = 0;
    Stage(T* dst, vek_s32 r) : d(dst), room(r) {}
    bool fits(vek_s32 need = Block) const { return room - out - n >= need; }
    T* at() { return buf + n; }
    void put(vek_s32 k) {
        n += k;
        if (n >= kSize) {
            flush();
        }
    }
    void flush() {
        std::memcpy(d + out, buf, (size_t)n * sizeof *d);
        out += n;
        n = 0;
    }
};

__attribute__((target("sse2"))) inline bool keep_all(const Block& k, unsigned ends, vek_wchar* d) {
    if (ends != 0xFFFF) {
        return false;
    }
    _mm_storeu_si128((__m128i*)d, k.lo);
    _mm_storeu_si128((__m128i*)(d + 8), k.hi);
    return true;
}

// Without SSSE3 the kept lanes are picked one by one from memory.
__attribute__((target("sse2"))) inline vek_s32 keep_sse2(const Block& k, unsigned ends, vek_wchar* d) {
    if (keep_all(k, ends, d)) {
        return 16;
    }
    alignas(16) vek_wchar lanes[16];
    _mm_store_si128((__m128i*)lanes, k.lo);
    _mm_store_si128((__m128i*)(lanes + 8), k.hi);
    vek_s32 n = 0;
    for (unsigned e = ends; e; e &= e - 1) {
        d[n++] = lanes[__builtin_ctz(e)];
    }
    return n;
}

__attribute__((target("ssse3"))) inline vek_s32 keep_ssse3(const Block& k, unsigned ends, vek_wchar* d) {
    if (keep_all(k, ends, d)) {
        return 16;
    }
    unsigned m0 = ends & 0xFF;
    unsigned m1 = ends >> 8;
    _mm_storeu_si128((__m128i*)d, _mm_shuffle_epi8(k.lo, _mm_load_si128((const __m128i*)kPacks.shuffle[m0])));
    vek_s32 n = kPacks.count[m0];
    _mm_storeu_si128((__m128i*)(d + n),
                     _mm_shuffle_epi8(k.hi, _mm_load_si128((const __m128i*)kPacks.shuffle[m1])));
    return n + kPacks.count[m1];
}

// The two loops differ only in how they keep lanes.
#define VEK_UTF8_BLOCKS(keep)                                             \
    Stage<vek_wchar, 16> st(d, room);                                     \
    vek_s32 i = 0;                                                        \
    unsigned carry = 0;                                                   \
    while (len - i >= 16 && st.fits()) {                                  \
        Block k = utf8_block(s, i, carry);                                \
        if (k.stop < 16) {                                                \
            vek_s32 end = run_end(s, i, k);                               \
            if (end > 0) {                                                \
                st.put(keep(k, k.ends & ((1u << end) - 1), st.at()));     \
            }                                                             \
            st.flush();                                                   \
            *used = i + end;                                              \
            return st.out;                                                \
        }                                                                 \
        st.put(keep(k, k.ends, st.at()));                                 \
        carry = k.want >> 16;                                             \
        i += 16;                                                          \
    }                                                                     \
    st.flush();                                                           \
    *used = open_lead(s, i, carry);                                       \
    return st.out

__attribute__((target("sse2"))) vek_s32 utf8_sse2(const vek_u8* s, vek_s32 len, vek_wchar* d,
                                                  vek_s32 room, vek_s32* used) {
    VEK_UTF8_BLOCKS(keep_sse2);
}

__attribute__((target("ssse3"))) vek_s32 utf8_ssse3(const vek_u8* s, vek_s32 len, vek_wchar* d,
                                                    vek_s32 room, vek_s32* used) {
    VEK_UTF8_BLOCKS(keep_ssse3);
}

#undef VEK_UTF8_BLOCKS

// ---- UTF-16 to UTF-8 ----
//
// Eight units at a time: each becomes up to three bytes in a 32-bit lane
// (lead, middle, last, by its length), and a shuffle per four lanes packs
// the bytes that count to the front. A 0 unit ends the text; its block is
// left to the caller.

// By the four bits "below 0x80" (low nibble) and the four "below 0x800"
// (high nibble) of four units: the shuffle packing their bytes, and how
// many there are.
struct Spreads {
    alignas(16) vek_u8 shuffle[256][16] = {};
    vek_u8 count[256] = {};
    constexpr Spreads() {
        for (unsigned m = 0; m < 256; m++) {
            unsigned k = 0;
            for (unsigned u = 0; u < 4; u++) {
                unsigned len = (m >> u & 1) ? 1 : (m >> (u + 4) & 1) ? 2 : 3;
                for (unsigned j = 0; j < len; j++) {
                    shuffle[m][k++] = (vek_u8)(4 * u + j);
                }
            }
            count[m] = (vek_u8)k;
            for (; k < 16; k++) {
                shuffle[m][k] = 0x80;
            }
        }
    }
};
constexpr Spreads kSpreads;

// Room a block needs: 24 bytes at most, and every unit of it must still
// find the 4 bytes of room the scalar loop asks for.
constexpr vek_s32 kUtf8Block = 28;

__attribute__((target("ssse3"))) vek_s32 utf8_from_units_ssse3(const vek_wchar* s, vek_s32 n, char* d,
                                                               vek_s32 room, bool swap, vek_s32* used) {
    const __m128i z = _mm_setzero_si128();
    Stage<char, kUtf8Block> st(d, room);
    vek_s32 i = 0;
    for (; n - i >= 8 && st.fits(); i += 8) {
        __m128i u = _mm_loadu_si128((const __m128i*)(s + i));
        if (swap) {
            u = _mm_or_si128(_mm_slli_epi16(u, 8), _mm_srli_epi16(u, 8));
        }
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(u, z))) {
            break;
        }
        const __m128i one = _mm_cmpeq_epi16(_mm_and_si128(u, _mm_set1_epi16((short)0xFF80)), z);
        const __m128i two = _mm_cmpeq_epi16(_mm_and_si128(u, _mm_set1_epi16((short)0xF800)), z);
        unsigned m1 = (unsigned)_mm_movemask_epi8(_mm_packs_epi16(one, z));
        unsigned m2 = (unsigned)_mm_movemask_epi8(_mm_packs_epi16(two, z));
        if (m1 == 0xFF) {
            _mm_storel_epi64((__m128i*)st.at(), _mm_packus_epi16(u, z));
            st.put(8);
            continue;
        }
        const __m128i x3f = _mm_set1_epi16(0x3F);
        const __m128i x80 = _mm_set1_epi16(0x80);
        const __m128i u6 = _mm_srli_epi16(u, 6);
        __m128i lead2 = _mm_or_si128(u6, _mm_set1_epi16(0xC0));
        __m128i lead3 = _mm_or_si128(_mm_srli_epi16(u, 12), _mm_set1_epi16(0xE0));
        __m128i lead = _mm_or_si128(_mm_and_si128(two, lead2), _mm_andnot_si128(two, lead3));
        lead = _mm_or_si128(_mm_and_si128(one, u), _mm_andnot_si128(one, lead));
        __m128i mid = _mm_or_si128(_mm_and_si128(two, u), _mm_andnot_si128(two, u6));
        mid = _mm_or_si128(_mm_and_si128(mid, x3f), x80);
        __m128i last = _mm_or_si128(_mm_and_si128(u, x3f), x80);
        __m128i pair = _mm_unpacklo_epi8(_mm_packus_epi16(lead, z), _mm_packus_epi16(mid, z));
        __m128i third = _mm_unpacklo_epi8(_mm_packus_epi16(last, z), z);
        unsigned k0 = (m1 & 0xF) | (m2 & 0xF) << 4;
        unsigned k1 = (m1 >> 4) | (m2 & 0xF0);
        _mm_storeu_si128((__m128i*)st.at(), _mm_shuffle_epi8(_mm_unpacklo_epi16(pair, third),
                                                             _mm_load_si128((const __m128i*)kSpreads.shuffle[k0])));
        st.put(kSpreads.count[k0]);
        _mm_storeu_si128((__m128i*)st.at(), _mm_shuffle_epi8(_mm_unpackhi_epi16(pair, third),
                                                             _mm_load_si128((const __m128i*)kSpreads.shuffle[k1])));
        st.put(kSpreads.count[k1]);
    }
    st.flush();
    *used = i;
    return st.out;
}

struct Kernels {
    ToUnits toUnits = to_units_none;
    ToBytes toBytes = to_bytes_none;
    Utf8ToUnits utf8 = utf8_none;
    UnitsToUtf8 fromUnits = from_units_none;
    Kernels() {
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx2")) {
            toUnits = to_units_avx2;
            toBytes = to_bytes_avx2;
        } else if (__builtin_cpu_supports("sse2")) {
            toUnits = to_units_sse2;
            toBytes = to_bytes_sse2;
        }
        if (__builtin_cpu_supports("ssse3")) {
            utf8 = utf8_ssse3;
            fromUnits = utf8_from_units_ssse3;
        } else if (__builtin_cpu_supports("sse2")) {
            utf8 = utf8_sse2;
        }
    }
};

#else

struct Kernels {
    ToUnits toUnits = to_units_none;
    ToBytes toBytes = to_bytes_none;
    Utf8ToUnits utf8 = utf8_none;
    UnitsToUtf8 fromUnits = from_units_none;
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

vek_s32 utf8_to_units_run(const vek_u8* s, vek_s32 len, vek_wchar* d, vek_s32 room, vek_s32* used) {
    return kernels().utf8(s, len, d, room, used);
}

vek_s32 units_to_utf8_run(const vek_wchar* s, vek_s32 n, char* d, vek_s32 room, bool swap, vek_s32* used) {
    return kernels().fromUnits(s, n, d, room, swap, used);
}

} // namespace vek
