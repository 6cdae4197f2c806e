/*
 * StrCore.h - the one implementation of the growable string objects,
 * instantiated for VekStr (char) and VekWcs (vek_wchar). Internal.
 *
 * Both sides share the object (data pointer, tag word), the 16-byte block
 * header, the allocation rule, copy-on-write sharing and every operation on
 * their native characters; VekStr.cpp and VekWcs.cpp keep only what really
 * differs (conversions between the two widths, numbers, the stream unit).
 *
 * Kinds of block an object can point at:
 *   the side's constant empty block   ref -1, size 0: never written
 *   a heap block                      ref >= 1 sharers, written only at 1
 *   a fixed caller buffer             ref -1, flags bit 30: never shared
 * Every writer first makes the block its own (grow / prepare below), so a
 * block with two or more sharers is never written in place.
 *
 * Failures report the side's source name (VekStr.cpp / VekWcs.cpp) so a
 * reader knows which side failed; object checks carry the line of the
 * exported function that made them.
 */
#ifndef VEK_STRCORE_H
#define VEK_STRCORE_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include "ShapeWatch.h"
#include "VekCore.h"
#include "VekStr.h"
#include "VekWcs.h"

namespace vek {

static_assert(offsetof(StrData, buf) == STRDATA_HDR && offsetof(WcsData, buf) == WCSDATA_HDR,
              "16-byte block header on every platform");

struct StrSide {
    using Ch = char;
    using Obj = VekStr;
    using Data = StrData;
    static constexpr vek_u32 kMark = VEKSTR_MARK;
    static constexpr const char* kSrc = "VekStr.cpp";
    static constexpr const char* kLenAssert = "ret == VekStr_len(_this)";
    static constexpr StrData kNull = {0u, -1, 0, 0, {0}};
    // The formatter's sink is the side's exported raw append.
    static vek_s32 appd(VekStr* o, const char* p, vek_s32 n) { return VekStr_appdStrx(o, p, n); }
};

struct WcsSide {
    using Ch = vek_wchar;
    using Obj = VekWcs;
    using Data = WcsData;
    static constexpr vek_u32 kMark = VEKWCS_MARK;
    static constexpr const char* kSrc = "VekWcs.cpp";
    static constexpr const char* kLenAssert = "ret == VekWcs_len(_this)";
    static constexpr WcsData kNull = {0u, -1, 0, 0, {0}};
    static vek_s32 appd(VekWcs* o, const vek_wchar* p, vek_s32 n) { return VekWcs_appdWcsx(o, p, n); }
};

// The per-width helpers of the string utilities and the formatter.
inline vek_s32 text_len(const char* s) {
    return (vek_s32)std::strlen(s);
}
inline vek_s32 text_len(const vek_wchar* s) {
    return vek_wcslen(s);
}
inline const char* skip_set(const char* s, vek_s32 n, const char* set) {
    return str_skip_space(s, n, set);
}
inline const vek_wchar* skip_set(const vek_wchar* s, vek_s32 n, const vek_wchar* set) {
    return wcs_skip_space(s, n, set);
}
inline const char* rskip_set(const char* s, vek_s32 n, const char* set) {
    return str_rskip_space(s, n, set);
}
inline const vek_wchar* rskip_set(const vek_wchar* s, vek_s32 n, const vek_wchar* set) {
    return wcs_rskip_space(s, n, set);
}
inline const char* find_nocase(const char* s, const char* sub) {
    return vek_stristr(s, sub);
}
inline const vek_wchar* find_nocase(const vek_wchar* s, const vek_wchar* sub) {
    return vek_wcsistr(s, sub);
}
inline const char* path_name(const char* path) {
    return str_path_name(path);
}
inline const vek_wchar* path_name(const vek_wchar* path) {
    return wcs_path_name(path);
}
inline vek_s32 fmt_out(void* o, vek_str_sink sink, const char* fmt, va_list va) {
    return str_fmt_out(o, sink, fmt, va);
}
inline vek_s32 fmt_out(void* o, vek_wcs_sink sink, const vek_wchar* fmt, va_list va) {
    return wcs_fmt_out(o, sink, fmt, va);
}

template <class S>
struct StrCore {
    using Ch = typename S::Ch;
    using Obj = typename S::Obj;
    using Data = typename S::Data;

    static constexpr vek_u32 kTypeMask = 0xFFFFFFu;
    static constexpr vek_u32 kInline = 0x40000000u;  // magic: fixed buffer behind the object
    static constexpr vek_u32 kFixed = 0x40000000u;   // flags: fixed caller buffer
    static constexpr vek_u32 kRsvMask = 0x0F000000u;
    static constexpr vek_s32 kRsvShift = 24;
    static constexpr vek_s64 kMaxBlock = 0x7FFF0000;  // the heap's size fields are 32-bit
    static constexpr vek_s32 kMaxLen = 0x7FFFFFFF - 2048;

    // ---- blocks ----
    static Data* null_blk() { return const_cast<Data*>(&S::kNull); }
    static bool is_null(const Data* d) { return d == &S::kNull; }
    static bool fixed(const Data* d) { return (d->flags & kFixed) != 0; }
    // Read on every write (the unshared test), so inline rather than a call
    // into the counter functions; acquire like AlAtom_get.
    static vek_s32 refs(const Data* d) { return __atomic_load_n(&d->ref, __ATOMIC_ACQUIRE); }
    static Ch* chars(Data* d) { return (Ch*)((char*)d + STRDATA_HDR); }
    static const Ch* chars(const Data* d) { return (const Ch*)((const char*)d + STRDATA_HDR); }
    static size_t block_bytes(vek_s32 size) { return STRDATA_HDR + sizeof(Ch) * (size_t)size; }
    static Data* inline_blk(const Obj* o) { return (Data*)((char*)const_cast<Obj*>(o) + sizeof(Obj)); }
    static void empty(Data* d) {
        d->len = 0;
        chars(d)[0] = 0;
    }
    static void format_block(Data* d, vek_u32 flags, vek_s32 ref, vek_s32 size) {
        d->flags = flags;
        AlAtom_set(&d->ref, ref);
        d->size = size;
        empty(d);
    }
    // True when p points into d's cells (a source that a write may move).
    static bool within(const Data* d, const Ch* p) {
        uintptr_t b = (uintptr_t)chars(d), q = (uintptr_t)p;
        return p && q >= b && q < b + sizeof(Ch) * (size_t)d->size;
    }

    // The check every operation starts with: a foreign or dead object ends
    // the process, it cannot be handled safely.
    // A watched object (a name some view was built from) reports every
    // call, reads included: telling writers apart would take a hook in each
    // of them, and a spurious report only costs the view a rebuild.
    static Obj* check(const Obj* o, vek_s32 line) {
        if (!o || (o->magic & kTypeMask) != S::kMark || !o->data) {
            ObjUtil_crashExit(S::kSrc, line);
        }
        if (o->magic & kStrWatched) {
            watch_touched(o);
        }
        return const_cast<Obj*>(o);
    }
    static void fail(const char* expr, vek_s32 line) { vek_assert__(expr, S::kSrc, line); }

    // ---- allocation rule ----
    // Cells of a fresh block for need characters under the object's reserve
    // mode; 0 when that is beyond what one heap block can hold.
    static vek_s32 block_size(const Obj* o, vek_s32 need) {
        vek_s32 mode = (vek_s32)((o->magic & kRsvMask) >> kRsvShift);
        vek_s64 extra;
        if (mode >= 1 && mode <= 6) {
            extra = (vek_s64)32 << (mode - 1);
        } else {
            if (mode != 0) {
                fail("rsv <= 6", __LINE__);
            }
            // Small strings get 64 spare cells, middle ones double, large
            // ones grow by 512.
            extra = need <= 64 ? 64 : need <= 512 ? need : 512;
        }
        vek_s64 size = ((vek_s64)need + extra + 1) & ~(vek_s64)15;
        if (need < 0 || STRDATA_HDR + (vek_s64)sizeof(Ch) * size > kMaxBlock) {
            return 0;
        }
        return (vek_s32)size;
    }
    static bool fits_inline(const Obj* o, vek_s32 need) {
        return (o->magic & kInline) && need < inline_blk(o)->size;
    }
    // A fresh empty block for need characters: the fixed buffer behind the
    // object when it is large enough, else a heap block. The object's
    // current block is not touched. Null when memory ran out.
    static Data* alloc(Obj* o, vek_s32 need) {
        if (fits_inline(o, need)) {
            Data* ib = inline_blk(o);
            if (ib->len) {
                fail("!_this->data->len", __LINE__);
                empty(ib);
            }
            return ib;
        }
        vek_s32 size = block_size(o, need);
        Data* d = size > 0 ? (Data*)vek_malloc__(block_bytes(size)) : nullptr;
        if (d) {
            format_block(d, 0, 1, size);
        }
        return d;
    }
    // Lets go of one reference (never called for the constant block): a
    // fixed buffer is only emptied, a heap block freed with its last sharer.
    static void release(Data* d) {
        if (fixed(d)) {
            if (refs(d) != -1) {
                fail("AlAtom_get(&_this->ref) == -1", __LINE__);
            }
            empty(d);
        } else if (AlAtom_dec(&d->ref) < 1) {
            vek_free__(d);
        }
    }
    static void let_go(Obj* o) {
        if (!is_null(o->data)) {
            release(o->data);
        }
    }

    // Moves the text into a fresh block for need characters. An unshared
    // heap block is resized instead: the heap extends it in place where it
    // can, so a long string growing by 512 cells at a time is not copied
    // whole on every step.
    static bool move_to(Obj* o, vek_s32 need) {
        Data* old = o->data;
        if (!is_null(old) && !fixed(old) && refs(old) == 1 && need >= old->len &&
            !fits_inline(o, need)) {
            vek_s32 size = block_size(o, need);
            Data* d = size > 0 ? (Data*)heap_realloc(old, block_bytes(size)) : nullptr;
            if (!d) {
                return false;
            }
            d->size = size;
            o->data = d;
            return true;
        }
        Data* d = alloc(o, need);
        if (!d) {
            return false;
        }
        if (d != old) {
            vek_s32 n = old->len;
            if (need < n) {
                fail("newCapa >= oldData->len", __LINE__);
                n = n < d->size - 1 ? n : d->size - 1;
            }
            std::memcpy(chars(d), chars(old), sizeof(Ch) * (size_t)n);
            d->len = n;
            chars(d)[n] = 0;
            o->data = d;
            if (!is_null(old)) {
                release(old);
            }
        }
        return true;
    }
    // Makes the block the object's own with room for newCapa characters,
    // keeping the text.
    static bool grow(Obj* o, vek_s32 newCapa) {
        if (newCapa < 0) {
            fail("newCapa >= 0", __LINE__);
            return false;
        }
        Data* d = o->data;
        if (refs(d) < 2 && newCapa < d->size) {
            return true;
        }
        return move_to(o, newCapa);
    }
    // Makes the block the object's own with room for newLen characters,
    // discarding the text; the caller writes the characters, len and the
    // terminator. Null when memory ran out (the string is then unchanged).
    static Data* prepare(Obj* o, vek_s32 newLen) {
        if (newLen < 0) {
            fail("len >= 0", __LINE__);
            return nullptr;
        }
        Data* d = o->data;
        if (refs(d) < 2 && newLen < d->size) {
            return d;
        }
        Data* nd = alloc(o, newLen);
        if (nd) {
            if (nd != d && !is_null(d)) {
                release(d);
            }
            o->data = nd;
        }
        return nd;
    }

    // ---- lifecycle ----
    static Obj* init(Obj* o, vek_u32 magic, vek_s32 line) {
        if (!o) {
            ObjUtil_crashExit(S::kSrc, line);
            return o;
        }
        o->magic = magic;
        o->data = null_blk();
        return o;
    }
    static Obj* init_sized(Obj* o, vek_s32 capa, vek_s32 rsv, vek_s32 line) {
        init(o, S::kMark | (((vek_u32)rsv & 0xFu) << kRsvShift), line);
        if (capa >= 1) {
            if (Data* d = alloc(o, capa)) {
                o->data = d;
            }
        }
        return o;
    }
    static Obj* init_ext(Obj* o, void* sbuf, vek_s32 ssize, vek_s32 line) {
        init(o, S::kMark, line);
        bool ok = true;
        if (((uintptr_t)sbuf & (sizeof(vek_u32) - 1)) != 0) {
            fail("((vek_u32)sbuf & (sizeof(vek_u32) - 1)) == 0", __LINE__);
            ok = false;
        }
        if (ssize <= 0) {
            fail("ssize > 0", __LINE__);
            ok = false;
        }
        if (!sbuf) {
            fail("sbuf", __LINE__);
            ok = false;
        }
        if (ok) {
            Data* d = (Data*)sbuf;
            format_block(d, kFixed, -1, ssize);
            o->data = d;
            if (d == inline_blk(o)) {
                o->magic |= kInline;
            }
        }
        return o;
    }
    static void destroy(Obj* o) {
        let_go(o);
        o->data = nullptr;
        o->magic = 0;
    }

    // ---- clearing and cutting ----
    static void clear(Obj* o) {
        Data* d = o->data;
        if (refs(d) >= 2) {
            release(d);
            o->data = null_blk();
        } else if (!is_null(d)) {
            empty(d);
        }
    }
    static void clearx(Obj* o) {
        let_go(o);
        if (o->magic & kInline) {
            Data* ib = inline_blk(o);
            o->data = ib;
            if (ib->len) {
                fail("!_this->data->len", __LINE__);
                empty(ib);
            }
        } else {
            o->data = null_blk();
        }
    }
    static void trunc(Obj* o, vek_s32 newLen) {
        if (newLen < 0) {
            fail("newLen >= 0", __LINE__);
            return;
        }
        Data* d = o->data;
        if (newLen >= d->len) {
            return;
        }
        if (newLen == 0) {
            clear(o);
        } else if (refs(d) < 2) {
            d->len = newLen;
            chars(d)[newLen] = 0;
        } else if (Data* nd = alloc(o, newLen)) {
            std::memcpy(chars(nd), chars(d), sizeof(Ch) * (size_t)newLen);
            nd->len = newLen;
            chars(nd)[newLen] = 0;
            o->data = nd;
            release(d);
        }
    }

    // ---- direct buffer use and capacity ----
    // Null only when memory ran out.
    static Ch* use_beg(Obj* o, vek_s32 minLen) {
        vek_s32 len = o->data->len;
        if (!grow(o, minLen > len ? minLen : len)) {
            return nullptr;
        }
        return chars(o->data);
    }
    static vek_s32 use_end(Obj* o, vek_s32 newLen) {
        Data* d = o->data;
        if (refs(d) >= 2) {
            fail("AlAtom_get(&_this->data->ref) < 2", __LINE__);
            return d->len;
        }
        if (newLen < 0) {
            // Measured within the block: a text the caller left without a
            // terminator must not send the scan past it.
            const Ch* p = chars(d);
            for (newLen = 0; newLen < d->size && p[newLen]; newLen++) {
            }
        }
        if (newLen >= d->size) {
            fail("newLen < _this->data->size", __LINE__);
            return d->len;
        }
        d->len = newLen;
        chars(d)[newLen] = 0;
        return newLen;
    }
    static void set_capa(Obj* o, vek_s32 newCapa) {
        if (newCapa < 0) {
            fail("newCapa >= 0", __LINE__);
        } else if (newCapa >= o->data->size) {
            move_to(o, newCapa);
        }
    }
    static vek_s32 set_rsv(Obj* o, vek_s32 rsv) {
        if ((vek_u32)rsv > 6u) {
            return 0;
        }
        o->magic = (o->magic & ~kRsvMask) | ((vek_u32)rsv << kRsvShift);
        return 1;
    }
    static vek_s32 get_rsv(const Obj* o) { return (vek_s32)((o->magic & kRsvMask) >> kRsvShift); }

    // ---- setting ----
    // Sets n characters (n >= 1) as they are; src may lie in the string's
    // own block (a reused block is written front to back with memmove; a
    // replaced one stays alive through its other sharers).
    static void set_units(Obj* o, const void* src, vek_s32 n) {
        if (Data* d = prepare(o, n)) {
            std::memmove(chars(d), src, sizeof(Ch) * (size_t)n);
            d->len = n;
            chars(d)[n] = 0;
        }
    }
    // The raw-text set: null text, a first character 0 or a count of 0
    // clear; a negative count means up to the terminator.
    static void set_text(Obj* o, const Ch* s, vek_s32 n) {
        if (!s || n == 0 || !s[0]) {
            clear(o);
            return;
        }
        set_units(o, s, n < 0 ? text_len(s) : n);
    }
    static void set_fill(Obj* o, Ch c, vek_s32 n) {
        if (!c || n < 1) {
            clear(o);
        } else if (Data* d = prepare(o, n)) {
            std::fill(chars(d), chars(d) + n, c);
            d->len = n;
            chars(d)[n] = 0;
        }
    }
    // Assignment from another object of the same side: shares its block
    // unless one of the two lives in storage that is never shared.
    static void share(Obj* o, const Obj* other) {
        if (!other || other->data->len == 0) {
            clear(o);
            return;
        }
        Data* od = other->data;
        Data* d = o->data;
        if (od == d) {
            return;
        }
        if ((refs(d) < 0 && !is_null(d) && !fixed(d)) || (refs(od) < 0 && !is_null(od))) {
            set_units(o, chars(od), od->len);
            return;
        }
        if (!(is_null(od) || refs(od) > 0)) {
            fail("cstr->data == SDATA_NULL || AlAtom_get(&cstr->data->ref) > 0", __LINE__);
        }
        let_go(o);
        o->data = od;
        if (!is_null(od)) {
            AlAtom_inc(&od->ref);
        }
    }
    static vek_s32 concat(Obj* o, const Ch* s1, vek_s32 n1, const Ch* s2, vek_s32 n2) {
        n1 = s1 ? (n1 < 0 ? text_len(s1) : n1) : 0;
        n2 = s2 ? (n2 < 0 ? text_len(s2) : n2) : 0;
        vek_s64 total = (vek_s64)n1 + n2;
        if (total < 1 || total > kMaxLen) {
            clear(o);
            return 0;
        }
        // A part taken from the string itself would be overwritten (or
        // freed) while the other is copied: stage both first.
        if (within(o->data, s1) || within(o->data, s2)) {
            Ch* tmp = (Ch*)vek_malloc__(sizeof(Ch) * (size_t)total);
            if (!tmp) {
                return o->data->len;
            }
            std::memcpy(tmp, s1, sizeof(Ch) * (size_t)n1);
            std::memcpy(tmp + n1, s2, sizeof(Ch) * (size_t)n2);
            set_units(o, tmp, (vek_s32)total);
            vek_free__(tmp);
        } else if (Data* d = prepare(o, (vek_s32)total)) {
            std::memcpy(chars(d), s1, sizeof(Ch) * (size_t)n1);
            std::memcpy(chars(d) + n1, s2, sizeof(Ch) * (size_t)n2);
            d->len = (vek_s32)total;
            chars(d)[total] = 0;
        }
        return o->data->len;
    }

    // ---- appending ----
    // Appends n characters (n >= 1) as they are; src may lie in the
    // string's own block, it is found again after the block moved.
    // The common case (an unshared block with room) stays small enough to
    // inline; everything else goes through append_grown.
    static vek_s32 append_units(Obj* o, const Ch* src, vek_s32 n) {
        Data* d = o->data;
        vek_s32 len = d->len;
        if (n >= d->size - len || refs(d) >= 2) {
            return append_grown(o, src, n);
        }
        size_t bytes = sizeof(Ch) * (size_t)n;
        if (n == 1) {
            chars(d)[len] = *src;
        } else if (bytes <= 32) {
            small_move(chars(d) + len, src, bytes);
        } else {
            big_move(chars(d) + len, src, bytes);
        }
        d->len = len + n;
        chars(d)[len + n] = 0;
        return n;
    }
    [[gnu::noinline]] static void big_move(void* dst, const void* src, size_t n) {
        std::memmove(dst, src, n);
    }
    // Copies 1 to 32 bytes without a call: every byte is loaded before the
    // first store, so the source may overlap the target as with memmove.
    static void small_move(void* dst, const void* src, size_t n) {
        char* d = (char*)dst;
        const char* s = (const char*)src;
        if (n >= 16) {
            vek_u64 a, b, c, e;
            std::memcpy(&a, s, 8);
            std::memcpy(&b, s + 8, 8);
            std::memcpy(&c, s + n - 16, 8);
            std::memcpy(&e, s + n - 8, 8);
            std::memcpy(d, &a, 8);
            std::memcpy(d + 8, &b, 8);
            std::memcpy(d + n - 16, &c, 8);
            std::memcpy(d + n - 8, &e, 8);
        } else if (n >= 8) {
            vek_u64 a, b;
            std::memcpy(&a, s, 8);
            std::memcpy(&b, s + n - 8, 8);
            std::memcpy(d, &a, 8);
            std::memcpy(d + n - 8, &b, 8);
        } else if (n >= 4) {
            vek_u32 a, b;
            std::memcpy(&a, s, 4);
            std::memcpy(&b, s + n - 4, 4);
            std::memcpy(d, &a, 4);
            std::memcpy(d + n - 4, &b, 4);
        } else {
            char a = s[0], b = s[n / 2], c = s[n - 1];
            d[0] = a;
            d[n / 2] = b;
            d[n - 1] = c;
        }
    }
    // The exported raw append's first try: a valid object, an unshared
    // block with room and a short piece, done without any call so that the
    // caller needs no frame. False sends the caller down the full path.
    static bool append_quick(Obj* o, const Ch* src, vek_s32 n) {
        if (!o || (o->magic & (kTypeMask | kStrWatched)) != S::kMark || !o->data || !src || n < 1 ||
            sizeof(Ch) * (size_t)n > 32) {
            return false;
        }
        Data* d = o->data;
        vek_s32 len = d->len;
        if (n >= d->size - len || refs(d) >= 2) {
            return false;
        }
        if (n == 1) {
            chars(d)[len] = *src;
        } else {
            small_move(chars(d) + len, src, sizeof(Ch) * (size_t)n);
        }
        d->len = len + n;
        chars(d)[len + n] = 0;
        return true;
    }
    [[gnu::noinline]] static vek_s32 append_text_at(Obj* o, const Ch* s, vek_s32 n, vek_s32 line) {
        return append_text(check(o, line), s, n);
    }
    [[gnu::noinline]] static vek_s32 append_grown(Obj* o, const Ch* src, vek_s32 n) {
        vek_s32 len = o->data->len;
        if (n > kMaxLen - len) {
            return 0;
        }
        ptrdiff_t off = within(o->data, src) ? src - chars(o->data) : -1;
        if (!grow(o, len + n)) {
            return 0;
        }
        Data* d = o->data;
        if (off >= 0) {
            src = chars(d) + off;
        }
        std::memmove(chars(d) + len, src, sizeof(Ch) * (size_t)n);
        d->len = len + n;
        chars(d)[len + n] = 0;
        return n;
    }
    // The raw-text append: null text or a count of 0 add nothing; a
    // negative count means up to the terminator.
    static vek_s32 append_text(Obj* o, const Ch* s, vek_s32 n) {
        if (!s || n == 0) {
            return 0;
        }
        if (n < 0 && (n = text_len(s)) == 0) {
            return 0;
        }
        return append_units(o, s, n);
    }
    static vek_s32 append_fill(Obj* o, Ch c, vek_s32 n) {
        if (!c || n < 1 || n > kMaxLen - o->data->len || !grow(o, o->data->len + n)) {
            return 0;
        }
        Data* d = o->data;
        std::fill(chars(d) + d->len, chars(d) + d->len + n, c);
        d->len += n;
        chars(d)[d->len] = 0;
        return n;
    }
    static vek_s32 append_obj(Obj* o, const Obj* other) {
        if (!other || is_null(other->data) || other->data->len == 0) {
            return 0;
        }
        return append_units(o, chars(other->data), other->data->len);
    }
    // ASCII text (numbers), widened on the 16-bit side.
    static vek_s32 append_ascii(Obj* o, const char* s, vek_s32 n) {
        if (n < 1 || !grow(o, o->data->len + n)) {
            return 0;
        }
        Data* d = o->data;
        for (vek_s32 i = 0; i < n; i++) {
            chars(d)[d->len + i] = (Ch)(vek_u8)s[i];
        }
        d->len += n;
        chars(d)[d->len] = 0;
        return n;
    }
    // "%ld" / "%lu" of a 32-bit value.
    static vek_s32 append_long(Obj* o, vek_s64 v, bool isSigned) {
        char buf[64];
        int len = isSigned ? std::snprintf(buf, sizeof buf, "%ld", (long)(vek_s32)v)
                           : std::snprintf(buf, sizeof buf, "%lu", (unsigned long)(vek_u32)v);
        if (!(len >= 0 && len < (int)sizeof(buf))) {
            fail("len < sizeof(buf)", __LINE__);
            return 0;
        }
        return append_ascii(o, buf, len);
    }
    // Reads up to n characters through the stream's read operation into
    // the end of the text, until the count is exhausted or a read delivers
    // less than one character. Returns the bytes (8-bit side) or units read.
    static vek_s32 append_strm(Obj* o, IStrm* strm, vek_s32 n) {
        if (!strm || n < 1 || n > (kMaxLen - o->data->len) / (vek_s32)sizeof(Ch) ||
            !grow(o, o->data->len + n)) {
            return 0;
        }
        Data* d = o->data;
        char* dst = (char*)(chars(d) + d->len);
        vek_s32 want = n * (vek_s32)sizeof(Ch);
        vek_s32 got = 0;
        while (got < want) {
            vek_s32 r = IStrm_read(strm, dst + got, want - got);
            if (r <= 0) {
                break;
            }
            got += r < want - got ? r : want - got;
            if (r < (vek_s32)sizeof(Ch)) {
                break;
            }
        }
        d->len += got / (vek_s32)sizeof(Ch);
        if (!(d->len < d->size)) {
            fail("_this->data->len < _this->data->size", __LINE__);
            d->len = d->size - 1;
        }
        chars(d)[d->len] = 0;
        return got / (vek_s32)sizeof(Ch);
    }
    // Formatted append through the library's engine, with the side's raw
    // append as the sink. Returns the total length afterwards.
    static vek_s32 sink(void* o, const Ch* p, vek_s32 n) { return S::appd((Obj*)o, p, n); }
    static vek_s32 append_fmt(Obj* o, const Ch* fmt, va_list va) {
        vek_s32 oldLen = o->data->len;
        vek_s32 ret = fmt_out(o, &sink, fmt, va);
        ret = (ret > 0 ? ret : 0) + oldLen;
        if (ret != o->data->len) {
            fail(S::kLenAssert, __LINE__);
        }
        return o->data->len;
    }

    // ---- filling from other text (the string utilities' trim and path
    // helpers; their failures carry that family's source name) ----
    static constexpr const char* kUtilSrc = "StrUtil.cpp";
    // Sets out to s (len characters, negative: up to the terminator)
    // without the leading run of set (lead), the trailing run (tail) or both.
    static void trim_into(const Ch* s, vek_s32 len, Obj* out, const Ch* set, bool lead, bool tail) {
        if (!s) {
            clear(out);
            return;
        }
        const Ch* b = lead ? skip_set(s, len, set) : s;
        vek_s32 n = len < 0 ? text_len(b) : len - (vek_s32)(b - s);
        if (tail) {
            n = (vek_s32)(rskip_set(b, n, set) - b);
        }
        set_text(out, b, n);
    }
    // The trim helpers: the leading and trailing forms return out's block
    // size (not the text length, a convention their callers rely on), the
    // form that trims both ends the length set.
    static vek_s32 trim_space(const Ch* s, vek_s32 len, Obj* out, const Ch* set, bool lead, bool tail) {
        if (!out) {
            vek_assert__("out", kUtilSrc, __LINE__);
            return 0;
        }
        trim_into(s, len, check(out, __LINE__), set, lead, tail);
        return lead && tail ? out->data->len : out->data->size;
    }
    static vek_s32 path_fld(const Ch* path, Obj* out, vek_s32 withSep) {
        if (!path || !out) {
            vek_assert__("path && out", kUtilSrc, __LINE__);
            if (out) {
                clear(check(out, __LINE__));
            }
            return 0;
        }
        clear(check(out, __LINE__));
        const Ch* name = path_name(path);  // behind the last separator, if any
        if (name == path || (name[-1] != '/' && name[-1] != '\\')) {
            return 0;
        }
        set_text(out, path, (vek_s32)(name - path) - (withSep ? 0 : 1));
        return 1;
    }

    // ---- trimming and searching ----
    static vek_s32 trim_hdr(Obj* o, const Ch* set) {
        Data* d = o->data;
        vek_s32 len = d->len;
        if (len == 0) {
            return 0;
        }
        vek_s32 n = (vek_s32)(skip_set(chars(d), len, set) - chars(d));
        if (n <= 0 || !grow(o, len)) {
            return 0;
        }
        d = o->data;
        std::memmove(chars(d), chars(d) + n, sizeof(Ch) * (size_t)(len - n + 1));
        d->len = len - n;
        return n;
    }
    static vek_s32 trim_tail(Obj* o, const Ch* set) {
        Data* d = o->data;
        vek_s32 num = d->len - (vek_s32)(rskip_set(chars(d), d->len, set) - chars(d));
        if (num < 0) {
            fail("num >= 0", __LINE__);
            return 0;
        }
        if (num > 0) {
            trunc(o, d->len - num);
        }
        return num;
    }
    static vek_s32 find_char(const Obj* o, Ch ch, vek_s32 start) {
        const Data* d = o->data;
        if (start < 0) {
            fail("start >= 0", __LINE__);
            return -1;
        }
        if (ch == 0) {
            return start <= d->len ? d->len : -1;
        }
        for (vek_s32 i = start; i < d->len; i++) {
            if (chars(d)[i] == ch) {
                return i;
            }
        }
        return -1;
    }
    static vek_s32 rfind_char(const Obj* o, Ch ch) {
        const Data* d = o->data;
        if (ch == 0) {
            return d->len;
        }
        for (vek_s32 i = d->len - 1; i >= 0; i--) {
            if (chars(d)[i] == ch) {
                return i;
            }
        }
        return -1;
    }
    static vek_s32 find_sub(const Obj* o, const Ch* sub, vek_s32 start) {
        const Data* d = o->data;
        if (start < 0) {
            fail("start >= 0", __LINE__);
            return -1;
        }
        if (!sub || start > d->len) {
            return -1;
        }
        const Ch* p = find_nocase(chars(d) + start, sub);
        return p ? (vek_s32)(p - chars(d)) : -1;
    }
};

} // namespace vek

#endif /* VEK_STRCORE_H */
