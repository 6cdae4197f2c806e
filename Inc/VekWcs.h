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

/* ---- lifecycle ----
 * As VekStr_new, VekStr_newx, StrExt_new__ and VekStr_delete: an empty
 * string (reserve mode 0); reserve mode rsv and, when capa >= 1, a block for
 * capa units; a string over the fixed buffer sbuf (4-byte aligned: the
 * 16-byte header, then ssize units); delete releases the block and leaves
 * the object dead (magic 0, data null). The creators return wcs. */
VEK_API VekWcs* VekWcs_new(VekWcs* wcs);
VEK_API VekWcs* VekWcs_newx(VekWcs* wcs, vek_s32 capa, vek_s32 rsv);
VEK_API VekWcs* WcsExt_new__(VekWcs* wcs, void* sbuf, vek_s32 ssize);
VEK_API void VekWcs_delete(VekWcs* wcs);

/* ---- access ----
 * The units (never null; do not write), the units in use, the block's cells
 * including the terminator's (0 for the empty block), and the free room
 * size - len - 1 (0 when empty). */
VEK_API const vek_wchar* VekWcs_buf(const VekWcs* wcs);
VEK_API vek_s32 VekWcs_len(const VekWcs* wcs);
VEK_API vek_s32 VekWcs_size(const VekWcs* wcs);
VEK_API vek_s32 VekWcs_capa(const VekWcs* wcs);

/* ---- clearing, cutting, direct use, capacity ----
 * As their VekStr twins, counted in units: clear empties an unshared block
 * in place and lets a shared one go; clearx always lets the block go; trunc
 * cuts to newLen units (0 clears); useBufBeg makes the block writable with
 * room for max(len, minLen) units and returns the first (null when no block
 * could be allocated), useBufEnd then sets the length (negative: up to the
 * first 0 unit) and returns it; setCapa moves the text into a block for
 * newCapa units, never shrinking; setRsv sets the reserve mode 0 to 6 (1, or
 * 0 and unchanged above 6) and getRsv reads it. */
VEK_API void VekWcs_clear(VekWcs* wcs);
VEK_API void VekWcs_clearx(VekWcs* wcs);
VEK_API void VekWcs_trunc(VekWcs* wcs, vek_s32 newLen);
VEK_API vek_wchar* VekWcs_useBufBeg(VekWcs* wcs, vek_s32 minLen);
VEK_API vek_s32 VekWcs_useBufEnd(VekWcs* wcs, vek_s32 newLen);
VEK_API void VekWcs_setCapa(VekWcs* wcs, vek_s32 newCapa);
VEK_API vek_s32 VekWcs_setRsv(VekWcs* wcs, vek_s32 rsv);
VEK_API vek_s32 VekWcs_getRsv(const VekWcs* wcs);

/* ---- trimming and searching ----
 * As their VekStr twins, on units: trimHdr / trimTail remove the leading /
 * trailing run of units in chars (null or empty: space, tab, CR and LF) and
 * return the count removed; concat sets the string to s1 followed by s2 (n1,
 * n2 negative: up to the 0 unit) and returns the total length; findChar,
 * findCharPos (from start) and rfindChar give the index of the first / last
 * ch or -1 (ch 0 finds the terminator, len); findSub and findSubPos the
 * index of the first sub, ASCII case ignored, or -1. */
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
/* UTF-16 text: w up to its 0 unit, or n units of it (negative: up to the 0
 * unit; null, a first unit 0 or n 0 empty the string); one unit c, or n
 * copies of it (c 0 or n below 1 empty the string). */
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
/* "%ld" / "%lu" of a 32-bit value. */
VEK_API VekWcs* VekWcs_setLong(VekWcs* wcs, vek_s32 v);
VEK_API VekWcs* VekWcs_setUlong(VekWcs* wcs, vek_u32 v);
/* Formatted set with a UTF-16 format (StrUtil.h, wcs_fmt_out); returns the
 * new length. */
VEK_API vek_s32 VekWcs_setf(VekWcs* wcs, const vek_wchar* fmt, ...);
VEK_API vek_s32 VekWcs_setvf(VekWcs* wcs, const vek_wchar* fmt, va_list args);

/* ---- appending (returns the units added unless stated) ---- */
/* Another string's units, copied (null adds nothing), or a terminated
 * UTF-16 text (null or empty adds nothing). */
VEK_API vek_s32 VekWcs_appdCwcs(VekWcs* wcs, const VekWcs* other);
VEK_API vek_s32 VekWcs_appdWcs(VekWcs* wcs, const vek_wchar* w);
/* n units (negative: up to the 0 unit), added even when the first is 0. */
VEK_API vek_s32 VekWcs_appdWcsx(VekWcs* wcs, const vek_wchar* w, vek_s32 n);
VEK_API vek_s32 VekWcs_appdChar(VekWcs* wcs, vek_wchar c);              /* 0 adds nothing */
VEK_API vek_s32 VekWcs_appdCharx(VekWcs* wcs, vek_wchar c, vek_s32 n);  /* n copies */
/* UTF-8 n bytes (negative: strlen), decoded up to the first 0 result. */
VEK_API vek_s32 VekWcs_appdCstr(VekWcs* wcs, const VekStr* str);
VEK_API vek_s32 VekWcs_appdStr(VekWcs* wcs, const char* s);
VEK_API vek_s32 VekWcs_appdStrx(VekWcs* wcs, const char* s, vek_s32 n);
/* Reads up to 2 x n bytes, stopping at the first read that delivers fewer
 * than 2; returns the units added (bytes gathered / 2). */
VEK_API vek_s32 VekWcs_appdStrm(VekWcs* wcs, IStrm* strm, vek_s32 n);
/* "%ld" / "%lu" of a 32-bit value. */
VEK_API vek_s32 VekWcs_appdLong(VekWcs* wcs, vek_s32 v);
VEK_API vek_s32 VekWcs_appdUlong(VekWcs* wcs, vek_u32 v);
/* Formatted append; returns the total length afterwards. */
VEK_API vek_s32 VekWcs_appdf(VekWcs* wcs, const vek_wchar* fmt, ...);
VEK_API vek_s32 VekWcs_appdvf(VekWcs* wcs, const vek_wchar* fmt, va_list args);
VEK_API vek_s32 VekWcs_printf(VekWcs* wcs, const vek_wchar* fmt, ...);
VEK_API vek_s32 VekWcs_vprintf(VekWcs* wcs, const vek_wchar* fmt, va_list args);

/* Swaps the two bytes of every unit in place (little- <-> big-endian). */
VEK_API void VekWcs_turn(VekWcs* wcs);

/* ---- RPC user marshalling ----
 * VekStr_UserSize, VekStr_UserMarshal, VekStr_UserUnmarshal and
 * VekStr_UserFree for a VekWcs, with the same results: the wire form is
 * magic, size and len, followed by 2 x len bytes of units in host order
 * without the terminator; flags is not used. */
VEK_API vek_u32 VekWcs_UserSize(vek_u32* flags, vek_u32 offset, VekWcs* wcs);
VEK_API vek_u8* VekWcs_UserMarshal(vek_u32* flags, vek_u8* buffer, VekWcs* wcs);
VEK_API vek_u8* VekWcs_UserUnmarshal(vek_u32* flags, vek_u8* buffer, VekWcs* wcs);
VEK_API void VekWcs_UserFree(vek_u32* flags, VekWcs* wcs);

/* ---- filling a string from other text ----
 * The str_trim_space, str_rtrim_space, str_btrim_space and str_path_fld of
 * VekStr.h on UTF-16 text into a VekWcs: s of len units (negative: up to
 * the 0 unit) trimmed of a leading run, a trailing run or both of set
 * (null or empty: space, tab, CR and LF); the first two return
 * VekWcs_size(out), the block size and not the text length, btrim the length
 * set. path_fld empties out and, when path holds "/" or "\", sets out to
 * the part before the last one (with it when withSep is non-zero) and
 * returns 1, else 0. */
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
