/*
 * StrUtil.h - string utilities on terminated UTF-8 strings with UTF-16
 * twins, and the library's one printf engine.
 *
 * Letter case: only ASCII letters are folded; every other byte (UTF-8
 * sequences included) compares as it is. The default set of the skip and
 * trim helpers is space, tab, CR and LF; a null or empty set selects it.
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
 * engine %ls / %S / %lc take UTF-16 text and write UTF-8. In the 16-bit
 * engine the format is UTF-16, %s and %c take UTF-16 and %hs / %hc UTF-8.
 * %% is a percent sign; %n writes nothing; an unknown conversion is copied
 * as it stands. Returns the total number of bytes (units) produced. */
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
 * first differing folded characters (as unsigned bytes), 0 when equal. */
VEK_API vek_s32 vek_stricmp(const char* a, const char* b);
/* The same for at most n characters; n 0 gives 0. */
VEK_API vek_s32 vek_strincmp(const char* a, const char* b, vek_s32 n);

/* First occurrence of sub in s ignoring ASCII case; an empty sub matches
 * at s. A pointer into s or null. */
VEK_API char* vek_stristr(const char* s, const char* sub);
VEK_API vek_wchar* vek_wcsistr(const vek_wchar* s, const vek_wchar* sub);

/* ---- skipping sets of characters (they never write) ----
 * On a text of len characters (negative: up to the terminator); a null or
 * empty set means space, tab, CR and LF.
 * str_skip_space:  the first character not in set (len 0: s itself),
 *                  stopping at the terminator or after len characters
 * str_rskip_space: just behind the last character (of the first len) not
 *                  in set: the trimmed length is the result minus s */
VEK_API const char* str_skip_space(const char* s, vek_s32 len, const char* set);
VEK_API const char* str_rskip_space(const char* s, vek_s32 len, const char* set);
VEK_API const vek_wchar* wcs_skip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set);
VEK_API const vek_wchar* wcs_rskip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set);

/* ---- paths ---- */
/* Pointer behind the last "\" or "/"; without one, behind "X:" when the
 * path is exactly a drive of two characters, else the whole path. */
VEK_API const char* str_path_name(const char* path);

VEK_END_DECLS

#endif /* VEK_STRUTIL_H */
