/*
 * VekWcs.cpp - the growable UTF-16 string object, the 16-bit twin of
 * VekStr. The shared core (StrCore.h) does the work; this file adds what
 * only the 16-bit side has: UTF-8 input, byte-order turning, and the
 * functions that fill a VekWcs from other text.
 */
#include "StrCore.h"
#include "VekUni.h"

namespace {

using C = vek::StrCore<vek::WcsSide>;

// Appends n bytes of UTF-8 (negative: strlen), decoded up to the first 0
// result. One unit per byte is always enough room. Returns the units added.
vek_s32 append_utf8(VekWcs* o, const char* s, vek_s32 n) {
    if (!s || n == 0) {
        return 0;
    }
    if (n < 0) {
        n = vek::text_len(s);
    }
    vek_s32 len = o->data->len;
    if (n == 0 || !s[0] || n > C::kMaxLen - len) {
        return 0;
    }
    vek_wchar* p = C::use_beg(o, len + n);
    if (!p) {
        return 0;
    }
    vek_s32 k = utf8_buf_to_wcs_str(s, n, p + len, o->data->size - len);
    C::use_end(o, len + k);
    return k;
}

} // namespace

extern "C" {

// ---- the constant empty block ----

VEK_API WcsData* WcsData_null(void) {
    return C::null_blk();
}

VEK_API vek_s32 WcsData_chkNull(void) {
    const WcsData* d = C::null_blk();
    return AlAtom_get(&d->ref) == -1 && d->size == 0 && d->len == 0 && C::chars(d)[0] == 0;
}

// ---- lifecycle and access ----

VEK_API VekWcs* VekWcs_new(VekWcs* wcs) {
    return C::init(wcs, VEKWCS_MARK, __LINE__);
}

VEK_API VekWcs* VekWcs_newx(VekWcs* wcs, vek_s32 capa, vek_s32 rsv) {
    return C::init_sized(wcs, capa, rsv, __LINE__);
}

VEK_API VekWcs* WcsExt_new__(VekWcs* wcs, void* sbuf, vek_s32 ssize) {
    return C::init_ext(wcs, sbuf, ssize, __LINE__);
}

VEK_API void VekWcs_delete(VekWcs* wcs) {
    C::destroy(C::check(wcs, __LINE__));
}

VEK_API const vek_wchar* VekWcs_buf(const VekWcs* wcs) {
    return C::chars(C::check(wcs, __LINE__)->data);
}

VEK_API vek_s32 VekWcs_len(const VekWcs* wcs) {
    return C::check(wcs, __LINE__)->data->len;
}

VEK_API vek_s32 VekWcs_size(const VekWcs* wcs) {
    return C::check(wcs, __LINE__)->data->size;
}

VEK_API vek_s32 VekWcs_capa(const VekWcs* wcs) {
    const WcsData* d = C::check(wcs, __LINE__)->data;
    return d->size > 0 ? d->size - d->len - 1 : 0;
}

// ---- clearing, cutting, direct use, capacity ----

VEK_API void VekWcs_clear(VekWcs* wcs) {
    C::clear(C::check(wcs, __LINE__));
}

VEK_API void VekWcs_clearx(VekWcs* wcs) {
    C::clearx(C::check(wcs, __LINE__));
}

VEK_API void VekWcs_trunc(VekWcs* wcs, vek_s32 newLen) {
    C::trunc(C::check(wcs, __LINE__), newLen);
}

VEK_API vek_wchar* VekWcs_useBufBeg(VekWcs* wcs, vek_s32 minLen) {
    return C::use_beg(C::check(wcs, __LINE__), minLen);
}

VEK_API vek_s32 VekWcs_useBufEnd(VekWcs* wcs, vek_s32 newLen) {
    return C::use_end(C::check(wcs, __LINE__), newLen);
}

VEK_API void VekWcs_setCapa(VekWcs* wcs, vek_s32 newCapa) {
    C::set_capa(C::check(wcs, __LINE__), newCapa);
}

VEK_API vek_s32 VekWcs_setRsv(VekWcs* wcs, vek_s32 rsv) {
    return C::set_rsv(C::check(wcs, __LINE__), rsv);
}

VEK_API vek_s32 VekWcs_getRsv(const VekWcs* wcs) {
    return C::get_rsv(C::check(wcs, __LINE__));
}

// ---- trimming and searching ----

VEK_API vek_s32 VekWcs_trimHdr(VekWcs* wcs, const vek_wchar* chars) {
    return C::trim_hdr(C::check(wcs, __LINE__), chars);
}

VEK_API vek_s32 VekWcs_trimTail(VekWcs* wcs, const vek_wchar* chars) {
    return C::trim_tail(C::check(wcs, __LINE__), chars);
}

VEK_API vek_s32 VekWcs_concat(VekWcs* wcs, const vek_wchar* s1, vek_s32 n1, const vek_wchar* s2,
                              vek_s32 n2) {
    return C::concat(C::check(wcs, __LINE__), s1, n1, s2, n2);
}

VEK_API vek_s32 VekWcs_findChar(const VekWcs* wcs, vek_wchar ch) {
    return C::find_char(C::check(wcs, __LINE__), ch, 0);
}

VEK_API vek_s32 VekWcs_findCharPos(const VekWcs* wcs, vek_wchar ch, vek_s32 start) {
    return C::find_char(C::check(wcs, __LINE__), ch, start);
}

VEK_API vek_s32 VekWcs_rfindChar(const VekWcs* wcs, vek_wchar ch) {
    return C::rfind_char(C::check(wcs, __LINE__), ch);
}

VEK_API vek_s32 VekWcs_findSub(const VekWcs* wcs, const vek_wchar* sub) {
    return C::find_sub(C::check(wcs, __LINE__), sub, 0);
}

VEK_API vek_s32 VekWcs_findSubPos(const VekWcs* wcs, const vek_wchar* sub, vek_s32 start) {
    return C::find_sub(C::check(wcs, __LINE__), sub, start);
}

// ---- setting ----

VEK_API VekWcs* VekWcs_setCwcs(VekWcs* wcs, const VekWcs* other) {
    C::share(C::check(wcs, __LINE__), other ? C::check(other, __LINE__) : nullptr);
    return wcs;
}

VEK_API VekWcs* VekWcs_setWcs(VekWcs* wcs, const vek_wchar* w) {
    C::set_text(C::check(wcs, __LINE__), w, -1);
    return wcs;
}

VEK_API VekWcs* VekWcs_setWcsx(VekWcs* wcs, const vek_wchar* w, vek_s32 n) {
    C::set_text(C::check(wcs, __LINE__), w, n);
    return wcs;
}

VEK_API VekWcs* VekWcs_setChar(VekWcs* wcs, vek_wchar c) {
    C::set_fill(C::check(wcs, __LINE__), c, 1);
    return wcs;
}

VEK_API VekWcs* VekWcs_setCharx(VekWcs* wcs, vek_wchar c, vek_s32 n) {
    C::set_fill(C::check(wcs, __LINE__), c, n);
    return wcs;
}

VEK_API VekWcs* VekWcs_setCstr(VekWcs* wcs, const VekStr* str) {
    C::clear(C::check(wcs, __LINE__));
    if (str) {
        VekWcs_appdCstr(wcs, str);
    }
    return wcs;
}

VEK_API VekWcs* VekWcs_setStr(VekWcs* wcs, const char* s) {
    C::clear(C::check(wcs, __LINE__));
    append_utf8(wcs, s, -1);
    return wcs;
}

VEK_API VekWcs* VekWcs_setStrx(VekWcs* wcs, const char* s, vek_s32 n) {
    C::clear(C::check(wcs, __LINE__));
    append_utf8(wcs, s, n);
    return wcs;
}

VEK_API VekWcs* VekWcs_setStrm(VekWcs* wcs, IStrm* strm, vek_s32 n) {
    C::clear(C::check(wcs, __LINE__));
    C::append_strm(wcs, strm, n);
    return wcs;
}

VEK_API VekWcs* VekWcs_setLong(VekWcs* wcs, vek_s32 v) {
    C::clear(C::check(wcs, __LINE__));
    C::append_long(wcs, v, true);
    return wcs;
}

VEK_API VekWcs* VekWcs_setUlong(VekWcs* wcs, vek_u32 v) {
    C::clear(C::check(wcs, __LINE__));
    C::append_long(wcs, v, false);
    return wcs;
}

VEK_API vek_s32 VekWcs_setvf(VekWcs* wcs, const vek_wchar* fmt, va_list args) {
    C::clear(C::check(wcs, __LINE__));
    return C::append_fmt(wcs, fmt, args);
}

VEK_API vek_s32 VekWcs_setf(VekWcs* wcs, const vek_wchar* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = VekWcs_setvf(wcs, fmt, va);
    va_end(va);
    return n;
}

// ---- appending ----

VEK_API vek_s32 VekWcs_appdCwcs(VekWcs* wcs, const VekWcs* other) {
    return C::append_obj(C::check(wcs, __LINE__), other ? C::check(other, __LINE__) : nullptr);
}

VEK_API vek_s32 VekWcs_appdWcs(VekWcs* wcs, const vek_wchar* w) {
    return C::append_text(C::check(wcs, __LINE__), w, -1);
}

VEK_API vek_s32 VekWcs_appdWcsx(VekWcs* wcs, const vek_wchar* w, vek_s32 n) {
    return C::append_text(C::check(wcs, __LINE__), w, n);
}

VEK_API vek_s32 VekWcs_appdChar(VekWcs* wcs, vek_wchar c) {
    return C::append_fill(C::check(wcs, __LINE__), c, 1);
}

VEK_API vek_s32 VekWcs_appdCharx(VekWcs* wcs, vek_wchar c, vek_s32 n) {
    return C::append_fill(C::check(wcs, __LINE__), c, n);
}

VEK_API vek_s32 VekWcs_appdCstr(VekWcs* wcs, const VekStr* str) {
    C::check(wcs, __LINE__);
    if (!str) {
        return 0;
    }
    return append_utf8(wcs, VekStr_buf(str), VekStr_len(str));
}

VEK_API vek_s32 VekWcs_appdStr(VekWcs* wcs, const char* s) {
    return append_utf8(C::check(wcs, __LINE__), s, -1);
}

VEK_API vek_s32 VekWcs_appdStrx(VekWcs* wcs, const char* s, vek_s32 n) {
    return append_utf8(C::check(wcs, __LINE__), s, n);
}

VEK_API vek_s32 VekWcs_appdStrm(VekWcs* wcs, IStrm* strm, vek_s32 n) {
    return C::append_strm(C::check(wcs, __LINE__), strm, n);
}

VEK_API vek_s32 VekWcs_appdLong(VekWcs* wcs, vek_s32 v) {
    return C::append_long(C::check(wcs, __LINE__), v, true);
}

VEK_API vek_s32 VekWcs_appdUlong(VekWcs* wcs, vek_u32 v) {
    return C::append_long(C::check(wcs, __LINE__), v, false);
}

VEK_API vek_s32 VekWcs_appdvf(VekWcs* wcs, const vek_wchar* fmt, va_list args) {
    return C::append_fmt(C::check(wcs, __LINE__), fmt, args);
}

VEK_API vek_s32 VekWcs_appdf(VekWcs* wcs, const vek_wchar* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = VekWcs_appdvf(wcs, fmt, va);
    va_end(va);
    return n;
}

VEK_API vek_s32 VekWcs_vprintf(VekWcs* wcs, const vek_wchar* fmt, va_list args) {
    return VekWcs_appdvf(wcs, fmt, args);
}

VEK_API vek_s32 VekWcs_printf(VekWcs* wcs, const vek_wchar* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = VekWcs_appdvf(wcs, fmt, va);
    va_end(va);
    return n;
}

// Turning writes every unit, so a shared block is made this string's own
// first.
VEK_API void VekWcs_turn(VekWcs* wcs) {
    C::check(wcs, __LINE__);
    vek_s32 len = wcs->data->len;
    if (len > 0 && C::grow(wcs, len)) {
        vek_u16s_turn(C::chars(wcs->data), len);
    }
}

// ---- filling a string from other text ----

VEK_API vek_s32 wcs_trim_space(const vek_wchar* s, vek_s32 len, VekWcs* out, const vek_wchar* set) {
    return C::trim_space(s, len, out, set, true, false);
}

VEK_API vek_s32 wcs_rtrim_space(const vek_wchar* s, vek_s32 len, VekWcs* out, const vek_wchar* set) {
    return C::trim_space(s, len, out, set, false, true);
}

VEK_API vek_s32 wcs_btrim_space(const vek_wchar* s, vek_s32 len, VekWcs* out, const vek_wchar* set) {
    return C::trim_space(s, len, out, set, true, true);
}

VEK_API vek_s32 wcs_path_fld(const vek_wchar* path, VekWcs* out, vek_s32 withSep) {
    return C::path_fld(path, out, withSep);
}

VEK_API vek_s32 utf8_str_to_wcs_cwcs(const char* src, VekWcs* wcs) {
    if (!src || !wcs) {
        vek_assert__("src && wcs", __FILE__, __LINE__);
        return 0;
    }
    return append_utf8(C::check(wcs, __LINE__), src, -1);
}

VEK_API vek_s32 utf8_str_to_ucs2_cwcs(const char* src, VekWcs* wcs) {
    if (!src || !wcs) {
        vek_assert__("src && wcs", __FILE__, __LINE__);
        return 0;
    }
    vek_s32 len = C::check(wcs, __LINE__)->data->len;
    vek_s32 n = append_utf8(wcs, src, -1);
    vek_u16s_turn(C::chars(wcs->data) + len, n);
    return n;
}

} // extern "C"
