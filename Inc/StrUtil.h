/*
 * StrUtil.h - string utilities on terminated UTF-8 strings with UTF-16
 * twins, and the library's one printf engine.
 *
 * Letter case: only ASCII letters are folded; every other byte (UTF-8
 * sequences included) compares as it is. The default set of the skip and
 * trim helpers is space, tab, CR and LF; a null or empty set selects it.
 * A 16-bit twin (vek_wcs*, wcs_*) behaves as its 8-bit function on 16-bit
 * units. Functions whose null arguments are not marked as asserted treat a
 * null text as the empty one. Nothing allocates except vek_strdup,
 * vek_strdupx, vek_wcsdup and vek_wcsdupx (vek_malloc__; the caller frees
 * with vek_free__).
 */
#ifndef VEK_STRUTIL_H
#define VEK_STRUTIL_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- the printf engine ----
 * A sink receives the formatted bytes in pieces: sink(sinkObj, bytes, n)
 * returns n (or the count it took) or a negative error, which stops the
 * formatting and becomes the result. VekStr passes VekStr_appdStrx, streams
 * their write operation. The engine stages output in a 256-byte buffer and
 * hands it on whenever more than 254 bytes are pending.
 *
 * Directives: %[flags -+ #0][width|*][.precision|*][hh h l ll L z j t I64]
 * conversion, with d i o u x X e E f F g G a A p rendered by the C
 * runtime's sprintf, and c s (padded by the engine itself). In the 8-bit
 * engine %ls / %S / %lc take UTF-16 text and write UTF-8 (a precision
 * counts bytes and never cuts a character). In the 16-bit engine the format
 * is UTF-16, %s and %c take UTF-16 and %hs / %hc UTF-8. %% is a percent
 * sign; %n writes nothing; an unknown conversion is copied as it stands.
 * A precision of 480 or more on a number raises the assertion "precision <
 * (int)sizeof(byteBuf) - 32" and is cut. Returns the total number of bytes
 * (units) produced, or the sink's error. */
typedef vek_s32 (*vek_str_sink)(void* sinkObj, const char* bytes, vek_s32 n);
typedef vek_s32 (*vek_wcs_sink)(void* sinkObj, const vek_wchar* units, vek_s32 n);
VEK_API vek_s32 str_fmt_out(void* sinkObj, vek_str_sink sink, const char* fmt, va_list args);
VEK_API vek_s32 wcs_fmt_out(void* sinkObj, vek_wcs_sink sink, const vek_wchar* fmt, va_list args);

/* Formats into buf of size bytes (capacity size - 1, always terminated);
 * output that does not fit is cut silently. Returns the bytes stored. */
VEK_API vek_s32 vek_snprintf(char* buf, vek_s32 size, const char* fmt, ...) VEK_PRINTF(3, 4);
VEK_API vek_s32 vek_vsnprintf(char* buf, vek_s32 size, const char* fmt, va_list args);
/* The same; *cut (may be null) receives 1 when output was cut, else 0. */
VEK_API vek_s32 vek_sxprintf(char* buf, vek_s32 size, vek_s32* cut, const char* fmt, ...)
    VEK_PRINTF(4, 5);
VEK_API vek_s32 vek_vsxprintf(char* buf, vek_s32 size, vek_s32* cut, const char* fmt,
                              va_list args);

/* ---- comparison ---- */
/* Compares with ASCII letters folded to upper case; the difference of the
 * first differing folded characters (as unsigned bytes / units), 0 when
 * equal. Null arguments are asserted ("a && b"). */
VEK_API vek_s32 vek_stricmp(const char* a, const char* b);
VEK_API vek_s32 vek_wcsicmp(const vek_wchar* a, const vek_wchar* b);
/* The same for at most n characters; n 0 gives 0. */
VEK_API vek_s32 vek_strincmp(const char* a, const char* b, vek_s32 n);
VEK_API vek_s32 vek_wcsincmp(const vek_wchar* a, const vek_wchar* b, vek_s32 n);
/* Plain comparison of 16-bit strings, as vek_wcsicmp without folding. */
VEK_API vek_s32 vek_wcscmp(const vek_wchar* a, const vek_wchar* b);

/* First occurrence of sub in s ignoring ASCII case; an empty sub matches
 * at s. A pointer into s or null. */
VEK_API char* vek_stristr(const char* s, const char* sub);
VEK_API vek_wchar* vek_wcsistr(const vek_wchar* s, const vek_wchar* sub);
/* Like vek_wcsistr, except that the first unit of sub must match exactly
 * (only the rest is compared without case). */
VEK_API vek_wchar* vek_wcsstr(const vek_wchar* s, const vek_wchar* sub);

/* 0 when s ends with sfx, else 1; an empty sfx, or one longer than s,
 * gives 1. Both are asserted ("s && sfx"). The i form ignores ASCII case. */
VEK_API vek_s32 vek_sfxcmp(const char* s, const char* sfx);
VEK_API vek_s32 vek_sfxicmp(const char* s, const char* sfx);

VEK_API vek_s32 vek_str_all_ascii(const char* s); /* 1: no byte above 127 */
VEK_API vek_s32 vek_isdigits(const char* s);      /* 1: only '0'..'9' ("" too) */
VEK_API vek_s32 vek_wcslen(const vek_wchar* w);   /* units before the 0 unit */

/* ---- replacing and finding characters ---- */
/* Replace every from (every character of set) by to in place; return the
 * number replaced. A from of 0 replaces nothing. */
VEK_API vek_s32 vek_strrepc(char* s, char from, char to);
VEK_API vek_s32 vek_wcsrepc(vek_wchar* s, vek_wchar from, vek_wchar to);
VEK_API vek_s32 vek_strrepcs(char* s, const char* set, char to);
VEK_API vek_s32 vek_wcsrepcs(vek_wchar* s, const vek_wchar* set, vek_wchar to);
/* First / last unit c (c 0: the terminator), or null. */
VEK_API vek_wchar* vek_wcschr(const vek_wchar* w, vek_wchar c);
VEK_API vek_wchar* vek_wcsrchr(const vek_wchar* w, vek_wchar c);
/* Last character of s that occurs in set; null when either is empty. Both
 * are asserted ("s && set"). */
VEK_API char* vek_strrchrs(const char* s, const char* set);
VEK_API vek_wchar* vek_wcsrchrs(const vek_wchar* s, const vek_wchar* set);
/* Last character equal to c1 or c2 (the terminator never matches); s is
 * asserted. */
VEK_API char* vek_strrchrx(const char* s, char c1, char c2);
VEK_API vek_wchar* vek_wcsrchrx(const vek_wchar* s, vek_wchar c1, vek_wchar c2);
/* First character of s that occurs in set, or null. */
VEK_API char* vek_strpbrk(const char* s, const char* set);
/* Copies the leading decimal digits of src to dst, at most max of them
 * (negative: no bound; dst needs max + 1 bytes) and always terminates dst.
 * Returns the digits copied. */
VEK_API vek_s32 vek_get_digits(const char* src, char* dst, vek_s32 max);

/* ---- splitting (the state lives in the caller's pointer) ----
 * vek_strsep: returns *p; the next character of set is overwritten with 0
 * and *p moves behind it, or *p becomes null when none follows. A null *p
 * gives null. Successive separators give empty fields.
 * vek_strtok: skips leading characters of set; null (and *p null) when
 * nothing is left; else the token ends at the next character of set, which
 * is overwritten with 0 and *p set behind it (or onto the terminator).
 * Successive separators are merged. */
VEK_API char* vek_strsep(char** p, const char* set);
VEK_API char* vek_strtok(char** p, const char* set);

/* ---- copying and case ---- */
/* A copy in a vek_malloc__ block (null for a null s). */
VEK_API char* vek_strdup(const char* s);
VEK_API vek_wchar* vek_wcsdup(const vek_wchar* s);
/* s is asserted; n negative copies it whole, else n characters are taken
 * (zeros after the end of s) into n + 1 cells ending in a terminator. */
VEK_API char* vek_strdupx(const char* s, vek_s32 n);
VEK_API vek_wchar* vek_wcsdupx(const vek_wchar* s, vek_s32 n);
/* Bounded copy (no collation): up to size - 1 characters, stopping at the
 * terminator; dst always terminated when size >= 1. Returns the count. */
VEK_API vek_s32 vek_strxfrm(char* dst, const char* src, vek_s32 size);
VEK_API vek_s32 vek_wcsxfrm(vek_wchar* dst, const vek_wchar* src, vek_s32 size);
/* Fold the ASCII letters in place; return s. */
VEK_API char* vek_strupr(char* s);
VEK_API char* vek_strlwr(char* s);
VEK_API vek_wchar* vek_wcsupr(vek_wchar* s);
VEK_API vek_wchar* vek_wcslwr(vek_wchar* s);

/* ---- trimming in place ---- */
/* Remove the trailing, then the leading spaces and tabs (not line ends),
 * moving the rest to the front; return s. */
VEK_API char* vek_strtrim(char* s);
/* The same with the characters of set (null or empty: the default set). */
VEK_API char* vek_str_trim_ext(char* s, const char* set);
/* Leaves s alone: *beg receives the first character not in set, *end the
 * last one (or *beg when everything would be trimmed). Returns end, the
 * address argument. vek_str_trim_try uses spaces and tabs as the set. */
VEK_API const char** vek_str_trim_try_ext(const char* s, const char* set, const char** beg,
                                          const char** end);
VEK_API const char** vek_str_trim_try(const char* s, const char** beg, const char** end);
/* Remove every character of set anywhere in s, closing the gaps; return s. */
VEK_API char* vek_str_trim_chars(char* s, const char* set);
VEK_API vek_wchar* vek_wcs_trim_chars(vek_wchar* s, const vek_wchar* set);
/* When s begins with a double quote, remove it and then a closing one at
 * the end; a text without the opening quote is left alone. Return s. */
VEK_API char* vek_qstr_trim(char* s);
VEK_API vek_wchar* vek_qwcs_trim(vek_wchar* s);

/* ---- skipping sets of characters (they never write) ----
 * On a text of len characters (negative: up to the terminator); a null or
 * empty set means space, tab, CR and LF.
 * str_skip_space:  the first character not in set (len 0: s itself),
 *                  stopping at the terminator or after len characters
 * str_rskip_space: just behind the last character (of the first len) not
 *                  in set: the trimmed length is the result minus s
 * str_bskip_space: *beg by str_skip_space, *end by str_rskip_space from
 *                  *beg over the rest; returns *end - *beg. The pointers
 *                  are asserted ("s && beg && end"). */
VEK_API const char* str_skip_space(const char* s, vek_s32 len, const char* set);
VEK_API const char* str_rskip_space(const char* s, vek_s32 len, const char* set);
VEK_API vek_s32 str_bskip_space(const char* s, vek_s32 len, const char** beg, const char** end,
                                const char* set);
VEK_API const vek_wchar* wcs_skip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set);
VEK_API const vek_wchar* wcs_rskip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set);
VEK_API vek_s32 wcs_bskip_space(const vek_wchar* s, vek_s32 len, const vek_wchar** beg,
                                const vek_wchar** end, const vek_wchar* set);

/* ---- paths ---- */
/* Pointer behind the last "\" or "/"; without one, behind "X:" when the
 * path is exactly a drive of two characters, else the whole path. The path
 * is asserted. */
VEK_API const char* str_path_name(const char* path);
VEK_API const vek_wchar* wcs_path_name(const vek_wchar* path);

/* ---- text between two markers ----
 * Sets out to "" and then, with a non-empty head, to the text between the
 * first head and the next tail behind it (both found ignoring ASCII case),
 * without head to the text before the first tail; bounded by outSize as
 * vek_strxfrm. text is asserted. Returns a pointer into text at that tail,
 * or null when tail is null or empty, a marker is missing, or nothing was
 * copied (an empty match included). out may be text itself. */
VEK_API char* vek_str_between(char* out, vek_s32 outSize, const char* text, const char* head,
                              const char* tail);
VEK_API vek_wchar* vek_wcs_between(vek_wchar* out, vek_s32 outSize, const vek_wchar* text,
                                   const vek_wchar* head, const vek_wchar* tail);

VEK_END_DECLS

#endif /* VEK_STRUTIL_H */
