/*
 * VekStr.h - the growable UTF-8 string object, and the functions that fill
 * one (trimming, path folders, conversions from UTF-16).
 *
 * The object is two words that the caller embeds in its own records or on
 * the stack; the characters live in a reference-counted data block that
 * assignments share and that is copied only when a sharer writes (copy on
 * write). Every empty string points at one shared read-only block
 * (SDATA_NULL), so an empty string allocates nothing.
 *
 *   VekStr:  data   -> StrData (never null while alive)
 *            magic  bits 0-23 VEKSTR_MARK, bits 24-27 reserve mode,
 *                   bit 28 watched (VEKSTR_WATCHED): the string is a name
 *                   an INI document's section index was built from, and
 *                   every call on it tells that index (IniFile.h) that
 *                   the name may have changed; never written to the wire,
 *                   bit 30 a fixed buffer lies directly behind the object
 *   StrData: flags  bit 30: a fixed caller buffer (never freed or shared)
 *            ref    sharers (>= 1) of a heap block; -1 for a fixed buffer
 *                   and for SDATA_NULL; changed only through AlAtom_*
 *            len    characters in use (the terminator not counted)
 *            size   character cells including the terminator's
 *            then size characters, 0 at index len
 *
 * Growth: a fresh block for need characters gets size = (need + extra + 1)
 * rounded down to a multiple of 16, where extra depends on the reserve
 * mode: mode 0 gives 64 up to need 64, need itself up to 512, then 512;
 * modes 1 to 6 give 32, 64, 128, 256, 512, 1024. A heap block is one
 * vek_malloc__ block of 16 + size bytes.
 *
 * Rules shared by every function: the object comes first and its type mark
 * is checked (a wrong mark ends the process through ObjUtil_crashExit);
 * null text means empty text; a negative count where text is given means
 * up to the terminator; set functions return the object, append functions
 * the number of characters added. A string object is used by one thread at
 * a time; blocks may be shared across threads. A string's own text may be
 * passed to its set, append and concat functions; format arguments must
 * not point into the string being formatted into.
 */
#ifndef VEK_VEKSTR_H
#define VEK_VEKSTR_H

#include "VekType.h"
#include "AlOs.h"

VEK_BEGIN_DECLS

#define VEKSTR_MARK    0xF6E4A9u     /* type mark of VekStr (bits 0-23) */
#define VEKSTR_WATCHED 0x10000000u   /* magic: a name an index watches */
#define VEKSTR_INLINE  0x40000000u   /* magic: fixed buffer behind the object */
#define STRDATA_FIXED  0x40000000u   /* flags: a caller-supplied fixed buffer */
#define STRDATA_HDR    16            /* bytes of the block header */

typedef struct StrData {
    vek_u32 flags;
    AlAtom ref;
    vek_s32 len;
    vek_s32 size;
    char buf[4];   /* really size cells */
} StrData;

struct VekStr {
    StrData* data;
    vek_u32 magic;
};

/* The shared read-only empty block, and its integrity check (1 while it
 * still reads ref -1, size 0, len 0 and an empty text). */
VEK_API StrData* StrData_null(void);
VEK_API vek_s32 StrData_chkNull(void);
#define SDATA_NULL (StrData_null())

/* ---- lifecycle ---- */
/* An empty string, reserve mode 0. Returns str. */
VEK_API VekStr* VekStr_new(VekStr* str);
/* Reserve mode rsv (4 bits) and, when capa >= 1, a block for capa
 * characters by the growth rule. */
VEK_API VekStr* VekStr_newx(VekStr* str, vek_s32 capa, vek_s32 rsv);
/* Builds the string over a fixed buffer: sbuf (4-byte aligned) holds the
 * 16-byte header followed by ssize cells. The text moves to the heap when
 * it outgrows the buffer. When sbuf lies directly behind the object (both
 * declared in one record), the string falls back to it after clearx and
 * whenever a fresh block would fit in it. */
VEK_API VekStr* StrExt_new__(VekStr* str, void* sbuf, vek_s32 ssize);
/* Releases the block; the object is then dead (magic 0, data null). */
VEK_API void VekStr_delete(VekStr* str);

/* ---- access ---- */
VEK_API const char* VekStr_buf(const VekStr* str);   /* never null; do not write */
VEK_API vek_s32 VekStr_len(const VekStr* str);      /* characters in use */
VEK_API vek_s32 VekStr_size(const VekStr* str);      /* 0 for the empty block */
VEK_API vek_s32 VekStr_capa(const VekStr* str);      /* size - len - 1, 0 when empty */

/* ---- clearing and cutting ---- */
/* Empties an unshared block in place; a shared one is let go. */
VEK_API void VekStr_clear(VekStr* str);
/* Always lets the block go (gives memory back); back on the fixed buffer
 * behind the object when there is one, else on SDATA_NULL. */
VEK_API void VekStr_clearx(VekStr* str);
/* Cuts to newLen characters (0 clears); a shared block is copied first. */
VEK_API void VekStr_trunc(VekStr* str, vek_s32 newLen);

/* ---- direct buffer use ----
 * useBufBeg makes the block writable in place with room for at least
 * max(len, minLen) characters (len when minLen is negative) and returns the
 * first character (null only when no block could be allocated);
 * useBufEnd(newLen) then sets the length (negative: measured with strlen)
 * and the terminator and returns it. */
VEK_API char* VekStr_useBufBeg(VekStr* str, vek_s32 minLen);
VEK_API vek_s32 VekStr_useBufEnd(VekStr* str, vek_s32 newLen);

/* ---- capacity and reserve ---- */
/* Moves the text into a block for newCapa characters when newCapa is not
 * below the current size; never shrinks. */
VEK_API void VekStr_setCapa(VekStr* str, vek_s32 newCapa);
/* Reserve mode 0 to 6 for later growth: 1, or 0 (unchanged) above 6. */
VEK_API vek_s32 VekStr_setRsv(VekStr* str, vek_s32 rsv);
VEK_API vek_s32 VekStr_getRsv(const VekStr* str);

/* ---- trimming and searching (chars: the set; null or "" is space, tab,
 * CR and LF) ---- */
VEK_API vek_s32 VekStr_trimHdr(VekStr* str, const char* chars);   /* count removed */
VEK_API vek_s32 VekStr_trimTail(VekStr* str, const char* chars);  /* count removed */
/* Sets the string to s1 followed by s2; returns the total length. */
VEK_API vek_s32 VekStr_concat(VekStr* str, const char* s1, vek_s32 n1, const char* s2, vek_s32 n2);
/* Index of the first / last ch, or -1; ch 0 finds the terminator (len). */
VEK_API vek_s32 VekStr_findChar(const VekStr* str, char ch);
VEK_API vek_s32 VekStr_findCharPos(const VekStr* str, char ch, vek_s32 start);
VEK_API vek_s32 VekStr_rfindChar(const VekStr* str, char ch);
/* Index of the first sub, ASCII case ignored, or -1. */
VEK_API vek_s32 VekStr_findSub(const VekStr* str, const char* sub);
VEK_API vek_s32 VekStr_findSubPos(const VekStr* str, const char* sub, vek_s32 start);

/* ---- setting (each empties the string first; returns str) ---- */
/* Shares other's block (a fixed-buffer source is copied instead). */
VEK_API VekStr* VekStr_setCstr(VekStr* str, const VekStr* other);
/* A C string (null or "" empties the string). */
VEK_API VekStr* VekStr_setStr(VekStr* str, const char* s);
/* n bytes as they are; null text, a first byte 0 or n 0 empty the string. */
VEK_API VekStr* VekStr_setStrx(VekStr* str, const char* s, vek_s32 n);
VEK_API VekStr* VekStr_setChar(VekStr* str, char c);                 /* 0 empties */
VEK_API VekStr* VekStr_setCharx(VekStr* str, char c, vek_s32 n);     /* n copies */
/* At most n bytes read from strm, as VekStr_appdStrm. */
VEK_API VekStr* VekStr_setStrm(VekStr* str, IStrm* strm, vek_s32 n);
VEK_API VekStr* VekStr_setCwcs(VekStr* str, const VekWcs* wcs);      /* as UTF-8 */
/* UTF-16 text as UTF-8: the string emptied, then as VekStr_appdWcs and
 * VekStr_appdWcsx below (with their assertion "len > 0"); setWchar: one
 * unit, 0 empties. */
VEK_API VekStr* VekStr_setWcs(VekStr* str, const vek_wchar* w);
VEK_API VekStr* VekStr_setWcsx(VekStr* str, const vek_wchar* w, vek_s32 n);
VEK_API VekStr* VekStr_setWchar(VekStr* str, vek_wchar c);
/* Numbers as the appdLong, appdUlong, appdU64 and appdS64 forms below write
 * them: "%ld" / "%lu" of a 32-bit value, and the two-word rendering of a
 * 64-bit value (the decimal value only below 2^32). */
VEK_API VekStr* VekStr_setLong(VekStr* str, vek_s32 v);
VEK_API VekStr* VekStr_setUlong(VekStr* str, vek_u32 v);
VEK_API VekStr* VekStr_setU64(VekStr* str, vek_u64 v);
VEK_API VekStr* VekStr_setS64(VekStr* str, vek_s64 v);
/* Formatted set; returns the new length. */
VEK_API vek_s32 VekStr_setf(VekStr* str, const char* fmt, ...) VEK_PRINTF(2, 3);
VEK_API vek_s32 VekStr_setvf(VekStr* str, const char* fmt, va_list args);

/* ---- appending (returns the count added unless stated) ---- */
/* Another string's text, copied (null adds nothing), or a C string (null
 * or "" adds nothing). */
VEK_API vek_s32 VekStr_appdCstr(VekStr* str, const VekStr* other);
VEK_API vek_s32 VekStr_appdStr(VekStr* str, const char* s);
/* n bytes (negative: strlen), added even when the first is 0. */
VEK_API vek_s32 VekStr_appdStrx(VekStr* str, const char* s, vek_s32 n);
VEK_API vek_s32 VekStr_appdChar(VekStr* str, char c);              /* 0 adds nothing */
VEK_API vek_s32 VekStr_appdCharx(VekStr* str, char c, vek_s32 n);  /* n copies */
/* Reads at most n bytes through the stream's read operation, stopping at
 * the first read that delivers nothing; returns the bytes read. */
VEK_API vek_s32 VekStr_appdStrm(VekStr* str, IStrm* strm, vek_s32 n);
/* UTF-16 appended as UTF-8 (one unit at a time, no surrogate pairs): the
 * bytes added. appdWcsx stops at a 0 unit; an empty text given with a
 * negative count is the assertion "len > 0". */
VEK_API vek_s32 VekStr_appdCwcs(VekStr* str, const VekWcs* wcs);
VEK_API vek_s32 VekStr_appdWcs(VekStr* str, const vek_wchar* w);
VEK_API vek_s32 VekStr_appdWcsx(VekStr* str, const vek_wchar* w, vek_s32 n);
VEK_API vek_s32 VekStr_appdWchar(VekStr* str, vek_wchar c);
/* "%ld" / "%lu" of a 32-bit value. */
VEK_API vek_s32 VekStr_appdLong(VekStr* str, vek_s32 v);
VEK_API vek_s32 VekStr_appdUlong(VekStr* str, vek_u32 v);
/* The library's two-word rendering of 64-bit values: the high word ("%lu",
 * or arithmetically shifted "%ld" for the signed form) only when it is not
 * 0, then always the low word "%lu", without padding between them. It is
 * the decimal value only below 2^32 (2^32 reads "10"). */
VEK_API vek_s32 VekStr_appdU64(VekStr* str, vek_u64 v);
VEK_API vek_s32 VekStr_appdS64(VekStr* str, vek_s64 v);
/* Formatted append through the library's engine (StrUtil.h); these return
 * the string's total length afterwards. printf/vprintf append as well. */
VEK_API vek_s32 VekStr_appdf(VekStr* str, const char* fmt, ...) VEK_PRINTF(2, 3);
VEK_API vek_s32 VekStr_appdvf(VekStr* str, const char* fmt, va_list args);
VEK_API vek_s32 VekStr_printf(VekStr* str, const char* fmt, ...) VEK_PRINTF(2, 3);
VEK_API vek_s32 VekStr_vprintf(VekStr* str, const char* fmt, va_list args);

/* ---- RPC user marshalling ----
 * Wire form (32-bit words in host order, no padding): magic, size (0 when
 * empty), len, then len bytes without terminator. UserSize returns offset
 * plus the bytes of that form; UserMarshal writes it and returns the byte
 * behind it; UserUnmarshal rebuilds the string (reserve mode from bits
 * 24-27, capacity size - 1; an uninitialised target must have magic 0) and
 * returns the byte behind the form; UserFree deletes the string. flags is
 * the RPC runtime's flag word and is not used. */
VEK_API vek_u32 VekStr_UserSize(vek_u32* flags, vek_u32 offset, VekStr* str);
VEK_API vek_u8* VekStr_UserMarshal(vek_u32* flags, vek_u8* buffer, VekStr* str);
VEK_API vek_u8* VekStr_UserUnmarshal(vek_u32* flags, vek_u8* buffer, VekStr* str);
VEK_API void VekStr_UserFree(vek_u32* flags, VekStr* str);

/* ---- filling a string from other text ----
 * Trim into out (s of len bytes, negative: up to the terminator; set as
 * above): leading run, trailing run, both. The first two return
 * VekStr_size(out), the block size and not the text length (a convention
 * kept from the library's first users); btrim returns the length set. */
VEK_API vek_s32 str_trim_space(const char* s, vek_s32 len, VekStr* out, const char* set);
VEK_API vek_s32 str_rtrim_space(const char* s, vek_s32 len, VekStr* out, const char* set);
VEK_API vek_s32 str_btrim_space(const char* s, vek_s32 len, VekStr* out, const char* set);
/* Empties out; when path holds "/" or "\", sets out to the part before the
 * last one (with it when withSep is non-zero) and returns 1, else 0. */
VEK_API vek_s32 str_path_fld(const char* path, VekStr* out, vek_s32 withSep);

/* UTF-16 (wcs: host order; ucs2: each unit's bytes swapped) appended to str
 * as UTF-8; each returns the bytes appended. A 0 unit always ends the text.
 * buf: n units (negative: up to the 0 unit); str: up to the 0 unit; strm:
 * the stream's units up to its end (an odd last byte is dropped). */
VEK_API vek_s32 wcs_buf_to_utf8_cstr(const vek_wchar* src, vek_s32 n, VekStr* str);
VEK_API vek_s32 wcs_str_to_utf8_cstr(const vek_wchar* src, VekStr* str);
VEK_API vek_s32 wcs_strm_to_utf8_cstr(IStrm* strm, VekStr* str);
VEK_API vek_s32 ucs2_buf_to_utf8_cstr(const vek_wchar* src, vek_s32 n, VekStr* str);
VEK_API vek_s32 ucs2_str_to_utf8_cstr(const vek_wchar* src, VekStr* str);
VEK_API vek_s32 ucs2_strm_to_utf8_cstr(IStrm* strm, VekStr* str);

VEK_END_DECLS

#endif /* VEK_VEKSTR_H */
