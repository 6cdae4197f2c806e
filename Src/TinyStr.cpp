/*
 * TinyStr.cpp - the minimal string builder of the core. It allocates with
 * al_malloc only, so the heap monitor and the trace can build their texts
 * without recursing into themselves.
 */
#include <cstdio>
#include <cstring>
#include "TinyStr.h"
#include "AlOs.h"
#include "VekUni.h"
#include "VekVos.h"
#include "StrUtil.h"

namespace {

const TinyData kEmpty = {0, 0, {0}};
TinyData* const kEmptyBlk = const_cast<TinyData*>(&kEmpty);
constexpr size_t kHdr = offsetof(TinyData, buf);

// The characters of a block. The block holds size bytes past the header, more
// than buf's declared eight, so they are reached by their byte offset from the
// block's start, never through the array itself (whose bounds the sanitizer
// rightly holds it to).
char* text(TinyData* d) {
    return (char*)d + kHdr;
}

// A wrong object goes through the low-level assertion and the caller then
// does nothing: this string is used where the full machinery may be down.
bool ts_ok(const TinyStr* ts, vek_s32 line) {
    if (ts && (ts->tag & 0xFFFFFFu) == TINYSTR_MARK && ts->data) {
        return true;
    }
    low_assert__("ts && (ts->tag & 0xFFFFFF) == TINYSTR_MARK", __FILE__, line);
    return false;
}

vek_s32 round8(vek_s32 n) {
    return (n + 7) & ~7;
}

// Moves the text into a new block of newSize bytes; false when out of memory.
bool move_to(TinyStr* ts, vek_s32 newSize) {
    TinyData* blk = (TinyData*)al_malloc(kHdr + (size_t)newSize);
    if (!blk) {
        return false;
    }
    TinyData* old = ts->data;
    blk->len = old->len;
    blk->size = newSize;
    std::memcpy(text(blk), text(old), (size_t)old->len);
    text(blk)[old->len] = 0;
    if (old != kEmptyBlk) {
        al_free(old);
    }
    ts->data = blk;
    return true;
}

// Makes room for need bytes (text, new characters and terminator). False
// when the block may not grow (fixed mode) or memory ran out.
bool make_room(TinyStr* ts, vek_s32 need) {
    TinyData* d = ts->data;
    if (need <= d->size) {
        return true;
    }
    if (ts->tag & TINYSTR_FIXED) {
        return false;
    }
    if (need <= d->len) {
        low_assert__("need > ts->data->len", __FILE__, __LINE__);
        return false;
    }
    vek_s32 newSize = d->size ? 2 * d->size : 2 * need;
    while (newSize < need) {
        newSize *= 2;
    }
    return move_to(ts, round8(newSize));
}

// Appends n bytes, cut to the room left when the block cannot grow.
vek_s32 append_bytes(TinyStr* ts, const char* s, vek_s32 n) {
    if (!make_room(ts, ts->data->len + n + 1)) {
        vek_s32 room = ts->data->size - ts->data->len - 1;
        n = room > 0 ? (n < room ? n : room) : 0;
        if (n == 0) {
            return 0;
        }
    }
    TinyData* d = ts->data;
    std::memmove(text(d) + d->len, s, (size_t)n);
    d->len += n;
    text(d)[d->len] = 0;
    return n;
}

vek_s32 tiny_sink(void* obj, const char* bytes, vek_s32 n) {
    return append_bytes((TinyStr*)obj, bytes, n);
}

} // namespace

extern "C" {

VEK_API TinyStr* TinyStr_new(TinyStr* ts) {
    if (!ts) {
        low_assert__("ts", __FILE__, __LINE__);
        return ts;
    }
    ts->tag = TINYSTR_MARK;
    ts->data = kEmptyBlk;
    return ts;
}

VEK_API TinyStr* TinyStr_newx(TinyStr* ts, vek_s32 size) {
    if (!TinyStr_new(ts)) {
        return ts;
    }
    if (size >= 1) {
        move_to(ts, round8(size));
    }
    return ts;
}

VEK_API void TinyStr_delete(TinyStr* ts) {
    if (!ts_ok(ts, __LINE__)) {
        return;
    }
    if (ts->data != kEmptyBlk) {
        al_free(ts->data);
    }
    ts->data = nullptr;
    ts->tag = 0;
}

VEK_API void TinyStr_clear(TinyStr* ts) {
    if (ts_ok(ts, __LINE__) && ts->data != kEmptyBlk) {
        ts->data->len = 0;
        text(ts->data)[0] = 0;
    }
}

VEK_API void TinyStr_clearx(TinyStr* ts) {
    if (ts_ok(ts, __LINE__) && ts->data != kEmptyBlk) {
        al_free(ts->data);
        ts->data = kEmptyBlk;
    }
}

VEK_API vek_s32 TinyStr_capa(const TinyStr* ts) {
    return ts_ok(ts, __LINE__) && ts->data->size > 0 ? ts->data->size - 1 : 0;
}

VEK_API vek_s32 TinyStr_size(const TinyStr* ts) {
    return ts_ok(ts, __LINE__) ? ts->data->size : 0;
}

VEK_API vek_s32 TinyStr_len(const TinyStr* ts) {
    return ts_ok(ts, __LINE__) ? ts->data->len : 0;
}

VEK_API const char* TinyStr_buf(const TinyStr* ts) {
    return ts_ok(ts, __LINE__) ? text(ts->data) : kEmpty.buf;
}

VEK_API void TinyStr_trunc(TinyStr* ts, vek_s32 len) {
    if (!ts_ok(ts, __LINE__)) {
        return;
    }
    if (len < 0) {
        low_assert__("len >= 0", __FILE__, __LINE__);
        return;
    }
    if (len < ts->data->len) {
        ts->data->len = len;
        text(ts->data)[len] = 0;
    }
}

VEK_API void TinyStr_rsvSize(TinyStr* ts, vek_s32 size) {
    if (!ts_ok(ts, __LINE__)) {
        return;
    }
    if (size < 1) {
        low_assert__("size >= 1", __FILE__, __LINE__);
        return;
    }
    if (size > ts->data->size) {
        move_to(ts, round8(size));
    }
}

VEK_API void TinyStr_setExpd(TinyStr* ts, vek_s32 expand) {
    if (ts_ok(ts, __LINE__)) {
        ts->tag = expand ? (ts->tag & ~TINYSTR_FIXED) : (ts->tag | TINYSTR_FIXED);
    }
}

VEK_API vek_s32 TinyStr_appdTstr(TinyStr* ts, const TinyStr* other) {
    if (!ts_ok(ts, __LINE__) || !ts_ok(other, __LINE__) || other->data->len == 0) {
        return 0;
    }
    return append_bytes(ts, text(other->data), other->data->len);
}

VEK_API vek_s32 TinyStr_appdStr(TinyStr* ts, const char* s) {
    return TinyStr_appdStrx(ts, s, -1);
}

VEK_API vek_s32 TinyStr_appdStrx(TinyStr* ts, const char* s, vek_s32 n) {
    if (!ts_ok(ts, __LINE__) || !s || !*s || n == 0) {
        return 0;
    }
    if (n < 0) {
        n = (vek_s32)std::strlen(s);
    }
    return append_bytes(ts, s, n);
}

VEK_API vek_s32 TinyStr_appdChar(TinyStr* ts, char c) {
    if (!ts_ok(ts, __LINE__) || c == 0 || !make_room(ts, ts->data->len + 2)) {
        return 0;
    }
    TinyData* d = ts->data;
    text(d)[d->len++] = c;
    text(d)[d->len] = 0;
    return 1;
}

VEK_API vek_s32 TinyStr_appdWcs(TinyStr* ts, const vek_wchar* w) {
    return TinyStr_appdWcsx(ts, w, -1);
}

VEK_API vek_s32 TinyStr_appdWcsx(TinyStr* ts, const vek_wchar* w, vek_s32 n) {
    if (!ts_ok(ts, __LINE__) || !w || n == 0) {
        return 0;
    }
    if (n < 0) {
        for (n = 0; w[n]; n++) {
        }
    }
    make_room(ts, ts->data->len + 3 * n + 1);
    vek_s32 added = 0;
    for (vek_s32 i = 0; i < n && w[i]; i++) {
        char tmp[4];
        vek_s32 k = wcs_char_to_utf8_char(w[i], tmp);
        TinyData* d = ts->data;
        if (d->len + k + 1 > d->size) {
            break;  // fixed block full: stop before a character that does not fit
        }
        std::memcpy(text(d) + d->len, tmp, (size_t)k);
        d->len += k;
        text(d)[d->len] = 0;
        added += k;
    }
    return added;
}

VEK_API vek_s32 TinyStr_appdWchar(TinyStr* ts, vek_wchar c) {
    if (!ts_ok(ts, __LINE__) || c == 0 || !make_room(ts, ts->data->len + 4)) {
        return 0;
    }
    char tmp[4];
    vek_s32 len = wcs_char_to_utf8_char(c, tmp);
    if (len >= 4) {
        low_assert__("len < 4", __FILE__, __LINE__);
        return 0;
    }
    return append_bytes(ts, tmp, len);
}

VEK_API vek_s32 TinyStr_appdLong(TinyStr* ts, vek_s32 v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%ld", (long)v);
    return TinyStr_appdStrx(ts, buf, -1);
}

VEK_API vek_s32 TinyStr_appdUlong(TinyStr* ts, vek_u32 v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%lu", (unsigned long)v);
    return TinyStr_appdStrx(ts, buf, -1);
}

VEK_API vek_s32 TinyStr_appdf(TinyStr* ts, const char* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = TinyStr_appdvf(ts, fmt, va);
    va_end(va);
    return n;
}

VEK_API vek_s32 TinyStr_appdvf(TinyStr* ts, const char* fmt, va_list args) {
    if (!ts_ok(ts, __LINE__) || !fmt) {
        return 0;
    }
    vek_s32 before = ts->data->len;
    str_fmt_out(ts, tiny_sink, fmt, args);
    return ts->data->len - before;
}

VEK_API vek_s32 TinyStr_delTailSpace(TinyStr* ts) {
    if (!ts_ok(ts, __LINE__) || ts->data == kEmptyBlk) {
        return 0;
    }
    TinyData* d = ts->data;
    vek_s32 len = d->len;
    while (len > 0 && (text(d)[len - 1] == ' ' || text(d)[len - 1] == '\t')) {
        len--;
    }
    vek_s32 removed = d->len - len;
    d->len = len;
    text(d)[len] = 0;
    return removed;
}

} // extern "C"
