/*
 * VekStr.cpp - the growable UTF-8 string object. The shared core
 * (StrCore.h) does the work; this file adds what only the 8-bit side has:
 * UTF-16 input, the 64-bit renderings, and the functions that fill a VekStr
 * from other text (trimming, path folders, UTF-16 conversions).
 */
#include "StrCore.h"
#include "VekUni.h"

namespace {

using C = vek::StrCore<vek::StrSide>;

// Appends n UTF-16 units (byte-swapped ones for ucs2) as UTF-8, up to the
// first 0 unit. Room for three bytes a unit is made first and the units
// are encoded one by one: the buffer converter keeps a 4-byte margin and
// would drop the last character when the room is exactly three bytes a
// unit. Returns the bytes added.
vek_s32 append_utf16(VekStr* o, const vek_wchar* w, vek_s32 n, bool swap) {
    vek_s32 len = o->data->len;
    if (n < 1 || n > (C::kMaxLen - len) / 3) {
        return 0;
    }
    char* p = C::use_beg(o, len + 3 * n);
    if (!p) {
        return 0;
    }
    vek_s32 out = len;
    for (vek_s32 i = 0; i < n && w[i]; i++) {
        out += swap ? ucs2_char_to_utf8_char(w[i], p + out) : wcs_char_to_utf8_char(w[i], p + out);
    }
    C::use_end(o, out);
    return out - len;
}

// The conversions into a VekStr (wcs, or ucs2 with swap) from n units of a
// buffer (negative: up to the 0 unit).
vek_s32 utf16_buf_to_cstr(const vek_wchar* src, vek_s32 n, VekStr* str, bool swap) {
    if (!src || !str) {
        vek_assert__("src && str", __FILE__, __LINE__);
        return 0;
    }
    return append_utf16(C::check(str, __LINE__), src, n < 0 ? vek_wcslen(src) : n, swap);
}

// From the units of a stream, up to its end or a 0 unit; an odd last byte
// is dropped.
vek_s32 utf16_strm_to_cstr(IStrm* strm, VekStr* o, bool swap) {
    if (!strm || !o) {
        vek_assert__("strm && str", __FILE__, __LINE__);
        return 0;
    }
    C::check(o, __LINE__);
    vek_wchar units[256];
    vek_u8* bytes = (vek_u8*)units;
    vek_s32 have = 0;
    vek_s32 added = 0;
    for (;;) {
        vek_s32 r = IStrm_read(strm, bytes + have, (vek_s32)sizeof units - have);
        if (r <= 0) {
            break;
        }
        have += r;
        vek_s32 n = have / 2;
        vek_s32 k = 0;
        while (k < n && units[k]) {
            k++;
        }
        added += append_utf16(o, units, k, swap);
        if (k < n) {
            break;
        }
        if (have & 1) {
            bytes[0] = bytes[have - 1];
        }
        have &= 1;
    }
    return added;
}

} // namespace

extern "C" {

// ---- the constant empty block ----

VEK_API StrData* StrData_null(void) {
    return C::null_blk();
}

VEK_API vek_s32 StrData_chkNull(void) {
    const StrData* d = C::null_blk();
    return AlAtom_get(&d->ref) == -1 && d->size == 0 && d->len == 0 && C::chars(d)[0] == 0;
}

// ---- lifecycle and access ----

VEK_API VekStr* VekStr_new(VekStr* str) {
    return C::init(str, VEKSTR_MARK, __LINE__);
}

VEK_API VekStr* VekStr_newx(VekStr* str, vek_s32 capa, vek_s32 rsv) {
    return C::init_sized(str, capa, rsv, __LINE__);
}

VEK_API VekStr* StrExt_new__(VekStr* str, void* sbuf, vek_s32 ssize) {
    return C::init_ext(str, sbuf, ssize, __LINE__);
}

VEK_API void VekStr_delete(VekStr* str) {
    C::destroy(C::check(str, __LINE__));
}

VEK_API const char* VekStr_buf(const VekStr* str) {
    return C::chars(C::check(str, __LINE__)->data);
}

VEK_API vek_s32 VekStr_len(const VekStr* str) {
    return C::check(str, __LINE__)->data->len;
}

VEK_API vek_s32 VekStr_size(const VekStr* str) {
    return C::check(str, __LINE__)->data->size;
}

VEK_API vek_s32 VekStr_capa(const VekStr* str) {
    const StrData* d = C::check(str, __LINE__)->data;
    return d->size > 0 ? d->size - d->len - 1 : 0;
}

// ---- clearing, cutting, direct use, capacity ----

VEK_API void VekStr_clear(VekStr* str) {
    C::clear(C::check(str, __LINE__));
}

VEK_API void VekStr_clearx(VekStr* str) {
    C::clearx(C::check(str, __LINE__));
}

VEK_API void VekStr_trunc(VekStr* str, vek_s32 newLen) {
    C::trunc(C::check(str, __LINE__), newLen);
}

VEK_API char* VekStr_useBufBeg(VekStr* str, vek_s32 minLen) {
    return C::use_beg(C::check(str, __LINE__), minLen);
}

VEK_API vek_s32 VekStr_useBufEnd(VekStr* str, vek_s32 newLen) {
    return C::use_end(C::check(str, __LINE__), newLen);
}

VEK_API void VekStr_setCapa(VekStr* str, vek_s32 newCapa) {
    C::set_capa(C::check(str, __LINE__), newCapa);
}

VEK_API vek_s32 VekStr_setRsv(VekStr* str, vek_s32 rsv) {
    return C::set_rsv(C::check(str, __LINE__), rsv);
}

VEK_API vek_s32 VekStr_getRsv(const VekStr* str) {
    return C::get_rsv(C::check(str, __LINE__));
}

// ---- trimming and searching ----

VEK_API vek_s32 VekStr_trimHdr(VekStr* str, const char* chars) {
    return C::trim_hdr(C::check(str, __LINE__), chars);
}

VEK_API vek_s32 VekStr_trimTail(VekStr* str, const char* chars) {
    return C::trim_tail(C::check(str, __LINE__), chars);
}

VEK_API vek_s32 VekStr_concat(VekStr* str, const char* s1, vek_s32 n1, const char* s2, vek_s32 n2) {
    return C::concat(C::check(str, __LINE__), s1, n1, s2, n2);
}

VEK_API vek_s32 VekStr_findChar(const VekStr* str, char ch) {
    return C::find_char(C::check(str, __LINE__), ch, 0);
}

VEK_API vek_s32 VekStr_findCharPos(const VekStr* str, char ch, vek_s32 start) {
    return C::find_char(C::check(str, __LINE__), ch, start);
}

VEK_API vek_s32 VekStr_rfindChar(const VekStr* str, char ch) {
    return C::rfind_char(C::check(str, __LINE__), ch);
}

VEK_API vek_s32 VekStr_findSub(const VekStr* str, const char* sub) {
    return C::find_sub(C::check(str, __LINE__), sub, 0);
}

VEK_API vek_s32 VekStr_findSubPos(const VekStr* str, const char* sub, vek_s32 start) {
    return C::find_sub(C::check(str, __LINE__), sub, start);
}

// ---- setting ----

VEK_API VekStr* VekStr_setCstr(VekStr* str, const VekStr* other) {
    C::share(C::check(str, __LINE__), other ? C::check(other, __LINE__) : nullptr);
    return str;
}

VEK_API VekStr* VekStr_setStr(VekStr* str, const char* s) {
    C::set_text(C::check(str, __LINE__), s, -1);
    return str;
}

VEK_API VekStr* VekStr_setStrx(VekStr* str, const char* s, vek_s32 n) {
    C::set_text(C::check(str, __LINE__), s, n);
    return str;
}

VEK_API VekStr* VekStr_setChar(VekStr* str, char c) {
    C::set_fill(C::check(str, __LINE__), c, 1);
    return str;
}

VEK_API VekStr* VekStr_setCharx(VekStr* str, char c, vek_s32 n) {
    C::set_fill(C::check(str, __LINE__), c, n);
    return str;
}

VEK_API VekStr* VekStr_setStrm(VekStr* str, IStrm* strm, vek_s32 n) {
    C::clear(C::check(str, __LINE__));
    C::append_strm(str, strm, n);
    return str;
}

VEK_API VekStr* VekStr_setCwcs(VekStr* str, const VekWcs* wcs) {
    C::clear(C::check(str, __LINE__));
    if (wcs) {
        VekStr_appdCwcs(str, wcs);
    }
    return str;
}

VEK_API VekStr* VekStr_setWcs(VekStr* str, const vek_wchar* w) {
    C::clear(C::check(str, __LINE__));
    VekStr_appdWcsx(str, w, -1);
    return str;
}

VEK_API VekStr* VekStr_setWcsx(VekStr* str, const vek_wchar* w, vek_s32 n) {
    C::clear(C::check(str, __LINE__));
    VekStr_appdWcsx(str, w, n);
    return str;
}

VEK_API VekStr* VekStr_setWchar(VekStr* str, vek_wchar c) {
    C::check(str, __LINE__);
    char buf[4];
    vek_s32 len = wcs_char_to_utf8_char(c, buf);
    if (!(len < 4)) {
        vek_assert__("len < 4", __FILE__, __LINE__);
        len = 0;
    }
    C::set_text(str, buf, len);
    return str;
}

VEK_API VekStr* VekStr_setLong(VekStr* str, vek_s32 v) {
    C::clear(C::check(str, __LINE__));
    C::append_long(str, v, true);
    return str;
}

VEK_API VekStr* VekStr_setUlong(VekStr* str, vek_u32 v) {
    C::clear(C::check(str, __LINE__));
    C::append_long(str, v, false);
    return str;
}

VEK_API VekStr* VekStr_setU64(VekStr* str, vek_u64 v) {
    C::clear(C::check(str, __LINE__));
    VekStr_appdU64(str, v);
    return str;
}

VEK_API VekStr* VekStr_setS64(VekStr* str, vek_s64 v) {
    C::clear(C::check(str, __LINE__));
    VekStr_appdS64(str, v);
    return str;
}

VEK_API vek_s32 VekStr_setvf(VekStr* str, const char* fmt, va_list args) {
    C::clear(C::check(str, __LINE__));
    return C::append_fmt(str, fmt, args);
}

VEK_API vek_s32 VekStr_setf(VekStr* str, const char* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = VekStr_setvf(str, fmt, va);
    va_end(va);
    return n;
}

// ---- appending ----

VEK_API vek_s32 VekStr_appdCstr(VekStr* str, const VekStr* other) {
    return C::append_obj(C::check(str, __LINE__), other ? C::check(other, __LINE__) : nullptr);
}

VEK_API vek_s32 VekStr_appdStr(VekStr* str, const char* s) {
    return C::append_text(C::check(str, __LINE__), s, -1);
}

VEK_API vek_s32 VekStr_appdStrx(VekStr* str, const char* s, vek_s32 n) {
    // The formatter's sink and most builders come here with short pieces.
    return C::append_quick(str, s, n) ? n : C::append_text_at(str, s, n, __LINE__);
}

VEK_API vek_s32 VekStr_appdChar(VekStr* str, char c) {
    return C::append_fill(C::check(str, __LINE__), c, 1);
}

VEK_API vek_s32 VekStr_appdCharx(VekStr* str, char c, vek_s32 n) {
    return C::append_fill(C::check(str, __LINE__), c, n);
}

VEK_API vek_s32 VekStr_appdStrm(VekStr* str, IStrm* strm, vek_s32 n) {
    return C::append_strm(C::check(str, __LINE__), strm, n);
}

VEK_API vek_s32 VekStr_appdCwcs(VekStr* str, const VekWcs* wcs) {
    C::check(str, __LINE__);
    if (!wcs) {
        return 0;
    }
    return VekStr_appdWcsx(str, VekWcs_buf(wcs), VekWcs_len(wcs));
}

VEK_API vek_s32 VekStr_appdWcs(VekStr* str, const vek_wchar* w) {
    return VekStr_appdWcsx(str, w, -1);
}

VEK_API vek_s32 VekStr_appdWcsx(VekStr* str, const vek_wchar* w, vek_s32 n) {
    C::check(str, __LINE__);
    if (!w || n == 0) {
        return 0;
    }
    vek_s32 len = n < 0 ? vek_wcslen(w) : n;
    if (!(len > 0)) {
        vek_assert__("len > 0", __FILE__, __LINE__);
        return 0;
    }
    return append_utf16(str, w, len, false);
}

VEK_API vek_s32 VekStr_appdWchar(VekStr* str, vek_wchar c) {
    C::check(str, __LINE__);
    if (c == 0) {
        return 0;
    }
    // Room for the longest form (3 bytes) is made before the conversion, so
    // the block moves by the same rule whatever the character turns out to
    // need.
    if (str->data->len > C::kMaxLen - 3 || !C::grow(str, str->data->len + 3)) {
        return 0;
    }
    char buf[4];
    vek_s32 len = wcs_char_to_utf8_char(c, buf);
    if (!(len < 4)) {
        vek_assert__("len < 4", __FILE__, __LINE__);
        return 0;
    }
    return len ? C::append_units(str, buf, len) : 0;
}

VEK_API vek_s32 VekStr_appdLong(VekStr* str, vek_s32 v) {
    return C::append_long(C::check(str, __LINE__), v, true);
}

VEK_API vek_s32 VekStr_appdUlong(VekStr* str, vek_u32 v) {
    return C::append_long(C::check(str, __LINE__), v, false);
}

// The two-word rendering: the high word only when it is not 0, then the
// low word, each as a 32-bit decimal and without padding between them.
VEK_API vek_s32 VekStr_appdU64(VekStr* str, vek_u64 v) {
    C::check(str, __LINE__);
    vek_u32 hi = (vek_u32)(v >> 32);
    vek_s32 n = hi ? C::append_long(str, hi, false) : 0;
    return n + C::append_long(str, (vek_u32)v, false);
}

VEK_API vek_s32 VekStr_appdS64(VekStr* str, vek_s64 v) {
    C::check(str, __LINE__);
    vek_s32 hi = (vek_s32)(v >> 32);
    vek_s32 n = hi ? C::append_long(str, hi, true) : 0;
    return n + C::append_long(str, (vek_u32)v, false);
}

VEK_API vek_s32 VekStr_appdvf(VekStr* str, const char* fmt, va_list args) {
    return C::append_fmt(C::check(str, __LINE__), fmt, args);
}

VEK_API vek_s32 VekStr_appdf(VekStr* str, const char* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = VekStr_appdvf(str, fmt, va);
    va_end(va);
    return n;
}

VEK_API vek_s32 VekStr_vprintf(VekStr* str, const char* fmt, va_list args) {
    return VekStr_appdvf(str, fmt, args);
}

VEK_API vek_s32 VekStr_printf(VekStr* str, const char* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = VekStr_appdvf(str, fmt, va);
    va_end(va);
    return n;
}

// ---- filling a string from other text ----

VEK_API vek_s32 str_trim_space(const char* s, vek_s32 len, VekStr* out, const char* set) {
    return C::trim_space(s, len, out, set, true, false);
}

VEK_API vek_s32 str_rtrim_space(const char* s, vek_s32 len, VekStr* out, const char* set) {
    return C::trim_space(s, len, out, set, false, true);
}

VEK_API vek_s32 str_btrim_space(const char* s, vek_s32 len, VekStr* out, const char* set) {
    return C::trim_space(s, len, out, set, true, true);
}

VEK_API vek_s32 str_path_fld(const char* path, VekStr* out, vek_s32 withSep) {
    return C::path_fld(path, out, withSep);
}

VEK_API vek_s32 wcs_buf_to_utf8_cstr(const vek_wchar* src, vek_s32 n, VekStr* str) {
    return utf16_buf_to_cstr(src, n, str, false);
}

VEK_API vek_s32 wcs_str_to_utf8_cstr(const vek_wchar* src, VekStr* str) {
    return utf16_buf_to_cstr(src, -1, str, false);
}

VEK_API vek_s32 wcs_strm_to_utf8_cstr(IStrm* strm, VekStr* str) {
    return utf16_strm_to_cstr(strm, str, false);
}

VEK_API vek_s32 ucs2_buf_to_utf8_cstr(const vek_wchar* src, vek_s32 n, VekStr* str) {
    return utf16_buf_to_cstr(src, n, str, true);
}

VEK_API vek_s32 ucs2_str_to_utf8_cstr(const vek_wchar* src, VekStr* str) {
    return utf16_buf_to_cstr(src, -1, str, true);
}

VEK_API vek_s32 ucs2_strm_to_utf8_cstr(IStrm* strm, VekStr* str) {
    return utf16_strm_to_cstr(strm, str, true);
}

} // extern "C"
