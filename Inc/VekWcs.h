/*
 * VekWcs.h - the growable UTF-16 string object (host byte order), the
 * 16-bit twin of VekStr (VekStr.h), and the functions that fill one.
 *
 * Object, data block, sharing, growth, fixed buffers and the rules shared
 * by every function are those of VekStr, counted in 16-bit units: len and
 * size count units, a heap block is 16 + 2 x size bytes, the terminator is
 * a 16-bit 0, and the type mark is VEKWCS_MARK. UTF-8 input (the Str and
 * Cstr forms) is converted one character at a time (no surrogate pairs).
 */
#ifndef VEK_VEKWCS_H
#define VEK_VEKWCS_H

#include "VekType.h"
#include "AlOs.h"

VEK_BEGIN_DECLS

#define VEKWCS_MARK    0xA271BEu     /* type mark of VekWcs (bits 0-23) */
#define VEKWCS_INLINE  0x40000000u   /* magic: fixed buffer behind the object */
#define WCSDATA_FIXED  0x40000000u   /* flags: a caller-supplied fixed buffer */
#define WCSDATA_HDR    16            /* bytes of the block header */

typedef struct WcsData {
    vek_u32 flags;
    AlAtom ref;
    vek_s32 len;
    vek_s32 size;
    vek_wchar buf[2];   /* really size units */
} WcsData;

struct VekWcs {
    WcsData* data;
    vek_u32 magic;
};

/* The shared read-only empty block of the 16-bit side, and its check. */
VEK_API WcsData* WcsData_null(void);
VEK_API vek_s32 WcsData_chkNull(void);
#define WDATA_NULL (WcsData_null())

/* ---- lifecycle (as VekStr; ssize counts units behind the header) ---- */
VEK_API VekWcs* VekWcs_new(VekWcs* wcs);
VEK_API VekWcs* VekWcs_newx(VekWcs* wcs, vek_s32 capa, vek_s32 rsv);
VEK_API VekWcs* WcsExt_new__(VekWcs* wcs, void* sbuf, vek_s32 ssize);
VEK_API void VekWcs_delete(VekWcs* wcs);

/* ---- access ---- */
VEK_API const vek_wchar* VekWcs_buf(const VekWcs* wcs);
VEK_API vek_s32 VekWcs_len(const VekWcs* wcs);
VEK_API vek_s32 VekWcs_size(const VekWcs* wcs);
VEK_API vek_s32 VekWcs_capa(const VekWcs* wcs);

/* ---- clearing, cutting, direct use, capacity ---- */
VEK_API void VekWcs_clear(VekWcs* wcs);
VEK_API void VekWcs_clearx(VekWcs* wcs);
VEK_API void VekWcs_trunc(VekWcs* wcs, vek_s32 newLen);
VEK_API vek_wchar* VekWcs_useBufBeg(VekWcs* wcs, vek_s32 minLen);
VEK_API vek_s32 VekWcs_useBufEnd(VekWcs* wcs, vek_s32 newLen);
VEK_API void VekWcs_setCapa(VekWcs* wcs, vek_s32 newCapa);
VEK_API vek_s32 VekWcs_setRsv(VekWcs* wcs, vek_s32 rsv);
VEK_API vek_s32 VekWcs_getRsv(const VekWcs* wcs);

/* ---- trimming and searching ---- */
VEK_API vek_s32 VekWcs_trimHdr(VekWcs* wcs, const vek_wchar* chars);
VEK_API vek_s32 VekWcs_trimTail(VekWcs* wcs, const vek_wchar* chars);
VEK_API vek_s32 VekWcs_concat(VekWcs* wcs, const vek_wchar* s1, vek_s32 n1, const vek_wchar* s2,
                              vek_s32 n2);
VEK_API vek_s32 VekWcs_findChar(const VekWcs* wcs, vek_wchar ch);
VEK_API vek_s32 VekWcs_findCharPos(const VekWcs* wcs, vek_wchar ch, vek_s32 start);
VEK_API vek_s32 VekWcs_rfindChar(const VekWcs* wcs, vek_wchar ch);
VEK_API vek_s32 VekWcs_findSub(const VekWcs* wcs, const vek_wchar* sub);
VEK_API vek_s32 VekWcs_findSubPos(const VekWcs* wcs, const vek_wchar* sub, vek_s32 start);

/* ---- setting (returns wcs) ---- */
/* Shares other's block (a fixed-buffer source is copied instead). */
VEK_API VekWcs* VekWcs_setCwcs(VekWcs* wcs, const VekWcs* other);
VEK_API VekWcs* VekWcs_setWcs(VekWcs* wcs, const vek_wchar* w);
VEK_API VekWcs* VekWcs_setWcsx(VekWcs* wcs, const vek_wchar* w, vek_s32 n);
VEK_API VekWcs* VekWcs_setChar(VekWcs* wcs, vek_wchar c);
VEK_API VekWcs* VekWcs_setCharx(VekWcs* wcs, vek_wchar c, vek_s32 n);
/* UTF-8 sources, converted. */
VEK_API VekWcs* VekWcs_setCstr(VekWcs* wcs, const VekStr* str);
VEK_API VekWcs* VekWcs_setStr(VekWcs* wcs, const char* s);
VEK_API VekWcs* VekWcs_setStrx(VekWcs* wcs, const char* s, vek_s32 n);
/* Reads 2 x n bytes of UTF-16. */
VEK_API VekWcs* VekWcs_setStrm(VekWcs* wcs, IStrm* strm, vek_s32 n);
VEK_API VekWcs* VekWcs_setLong(VekWcs* wcs, vek_s32 v);
VEK_API VekWcs* VekWcs_setUlong(VekWcs* wcs, vek_u32 v);
/* Formatted set with a UTF-16 format (StrUtil.h, wcs_fmt_out); returns the
 * new length. */
VEK_API vek_s32 VekWcs_setf(VekWcs* wcs, const vek_wchar* fmt, ...);
VEK_API vek_s32 VekWcs_setvf(VekWcs* wcs, const vek_wchar* fmt, va_list args);

/* ---- appending (returns the units added unless stated) ---- */
VEK_API vek_s32 VekWcs_appdCwcs(VekWcs* wcs, const VekWcs* other);
VEK_API vek_s32 VekWcs_appdWcs(VekWcs* wcs, const vek_wchar* w);
/* n units (negative: up to the 0 unit), added even when the first is 0. */
VEK_API vek_s32 VekWcs_appdWcsx(VekWcs* wcs, const vek_wchar* w, vek_s32 n);
VEK_API vek_s32 VekWcs_appdChar(VekWcs* wcs, vek_wchar c);
VEK_API vek_s32 VekWcs_appdCharx(VekWcs* wcs, vek_wchar c, vek_s32 n);
/* UTF-8 n bytes (negative: strlen), decoded up to the first 0 result. */
VEK_API vek_s32 VekWcs_appdCstr(VekWcs* wcs, const VekStr* str);
VEK_API vek_s32 VekWcs_appdStr(VekWcs* wcs, const char* s);
VEK_API vek_s32 VekWcs_appdStrx(VekWcs* wcs, const char* s, vek_s32 n);
/* Reads up to 2 x n bytes, stopping at the first read that delivers fewer
 * than 2; returns the units added (bytes gathered / 2). */
VEK_API vek_s32 VekWcs_appdStrm(VekWcs* wcs, IStrm* strm, vek_s32 n);
VEK_API vek_s32 VekWcs_appdLong(VekWcs* wcs, vek_s32 v);
VEK_API vek_s32 VekWcs_appdUlong(VekWcs* wcs, vek_u32 v);
/* Formatted append; returns the total length afterwards. */
VEK_API vek_s32 VekWcs_appdf(VekWcs* wcs, const vek_wchar* fmt, ...);
VEK_API vek_s32 VekWcs_appdvf(VekWcs* wcs, const vek_wchar* fmt, va_list args);
VEK_API vek_s32 VekWcs_printf(VekWcs* wcs, const vek_wchar* fmt, ...);
VEK_API vek_s32 VekWcs_vprintf(VekWcs* wcs, const vek_wchar* fmt, va_list args);

/* Swaps the two bytes of every unit in place (little- <-> big-endian). */
VEK_API void VekWcs_turn(VekWcs* wcs);

/* ---- RPC user marshalling: as VekStr, with 2 x len bytes of units ---- */
VEK_API vek_u32 VekWcs_UserSize(vek_u32* flags, vek_u32 offset, VekWcs* wcs);
VEK_API vek_u8* VekWcs_UserMarshal(vek_u32* flags, vek_u8* buffer, VekWcs* wcs);
VEK_API vek_u8* VekWcs_UserUnmarshal(vek_u32* flags, vek_u8* buffer, VekWcs* wcs);
VEK_API void VekWcs_UserFree(vek_u32* flags, VekWcs* wcs);

/* ---- filling a string from other text (as the str_ forms of VekStr.h) ---- */
VEK_API vek_s32 wcs_trim_space(const vek_wchar* s, vek_s32 len, VekWcs* out, const vek_wchar* set);
VEK_API vek_s32 wcs_rtrim_space(const vek_wchar* s, vek_s32 len, VekWcs* out, const vek_wchar* set);
VEK_API vek_s32 wcs_btrim_space(const vek_wchar* s, vek_s32 len, VekWcs* out, const vek_wchar* set);
VEK_API vek_s32 wcs_path_fld(const vek_wchar* path, VekWcs* out, vek_s32 withSep);

/* UTF-8 text decoded and appended to wcs (utf8_str_to_wcs_char rules); the
 * ucs2 form swaps each appended unit's bytes. Returns the units appended. */
VEK_API vek_s32 utf8_str_to_wcs_cwcs(const char* src, VekWcs* wcs);
VEK_API vek_s32 utf8_str_to_ucs2_cwcs(const char* src, VekWcs* wcs);

VEK_END_DECLS

#endif /* VEK_VEKWCS_H */
