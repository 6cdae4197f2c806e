/*
 * VekUni.h - Unicode conversions between UTF-8 (the library's 8-bit text),
 * UTF-16 in host byte order ("wcs"), UTF-16 in swapped byte order ("ucs2"),
 * UTF-7 and the system's ANSI code page.
 *
 * Characters are handled one 16-bit unit at a time: there is no surrogate
 * pair handling, so the range is the Basic Multilingual Plane.
 *
 * Names: <from>_<source kind>_to_<to>_<target kind>[x] where a kind is
 *   char  one character (decoding reports the bytes used)
 *   str   a terminated string (source) or a caller buffer and size (target)
 *   buf   a source of given length (negative: up to the terminator)
 *   strm  a stream, read as the source or written as the target
 *   cwcs / cstr  a VekWcs / VekStr target, appended to
 *   out   output through a caller's sink function
 *   x     the variant also reports whether source data was left over
 *
 * Decoding one UTF-8 character, by the lead byte:
 *   0            result 0, 0 bytes used (end of text)
 *   < 0x80       the byte
 *   110xxxxx     two bytes (the second is not checked); cut: 0, 1 used
 *   1110xxxx     three bytes; cut: 0 with 1 or 2 used
 *   11110xxx / 1111110x  the 4 / 6 byte sequence becomes "?" (0 when cut)
 *   other        the run of bytes up to the next 0, ASCII or valid lead
 *                becomes one "!" (0 when the run reaches the end)
 */
#ifndef VEK_UNI_H
#define VEK_UNI_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Decodes one character at s; *used (may be null) receives the bytes used. */
VEK_API vek_wchar utf8_str_to_wcs_char(const char* s, vek_s32* used);
/* Encodes one unit as 1 to 3 UTF-8 bytes (no terminator); 0 writes nothing.
 * Returns the byte count. */
VEK_API vek_s32 wcs_char_to_utf8_char(vek_wchar c, char* out);

/* Decodes srcLen bytes (negative: dstSize is the byte budget and the
 * conversion ends at the terminator) into dst of dstSize units (>= 1),
 * always terminated; stops at a 0 result (end or cut sequence). *more (may
 * be null) is set to 1 when source bytes were left. Returns units written. */
VEK_API vek_s32 utf8_buf_to_wcs_strx(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                     vek_s32 dstSize, vek_s32* more);
VEK_API vek_s32 utf8_buf_to_wcs_str(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                    vek_s32 dstSize);
/* Encodes n units (negative: up to the terminator) into dst of dstSize
 * bytes (>= 1) while at least 4 bytes of room remain besides the
 * terminator; always terminated. Returns bytes written. */
VEK_API vek_s32 wcs_buf_to_utf8_str(const vek_wchar* src, vek_s32 n, char* dst, vek_s32 dstSize);

/* Swaps the two bytes of n units in place (n negative: up to the 0 unit);
 * returns the units swapped. */
VEK_API vek_s32 vek_u16s_turn(vek_wchar* w, vek_s32 n);

VEK_END_DECLS

#endif /* VEK_UNI_H */
