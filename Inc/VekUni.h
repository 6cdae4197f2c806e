/*
 * VekUni.h - Unicode conversions between UTF-8 (the library's 8-bit text),
 * UTF-16 in host byte order ("wcs"), UTF-16 in swapped byte order ("ucs2",
 * big-endian as devices send it), UTF-7 and the system's ANSI code page.
 *
 * Characters are handled one 16-bit unit at a time: there is no surrogate
 * pair handling, so the range is the Basic Multilingual Plane (a surrogate
 * unit is encoded on its own as three bytes).
 *
 * Names: <from>_<source kind>_to_<to>_<target kind>[x] where a kind is
 *   char  one character (decoding reports the bytes used)
 *   str   a terminated string (source) or a caller buffer and size (target)
 *   buf   a source of given length (negative: up to the terminator)
 *   strm  a stream, read as the source or written as the target
 *   cwcs / cstr  a VekWcs / VekStr target, appended to (VekWcs.h, VekStr.h)
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
 * A 0 result ends every conversion: a cut sequence ends the text.
 * The ucs2 forms swap the bytes of each unit after decoding and before
 * encoding; otherwise they equal the wcs forms.
 *
 * Buffer targets: a UTF-16 target of dstSize units takes at most
 * dstSize - 1 units and is always terminated; a UTF-8 target of dstSize
 * bytes takes characters while at least 4 bytes of room remain besides the
 * terminator (so it may stop up to 3 bytes early) and is always terminated.
 * Null text pointers and a dstSize below 1 are asserted.
 *
 * Streams (BaseItf.h): a source stream is read from its position to its
 * end; a 0 byte (a 0 unit in UTF-16 streams) ends the text there as the
 * terminator does in a string. UTF-16 streams hold units without a
 * terminator, two bytes each (host order for wcs, swapped for ucs2); a
 * last odd byte is ignored. A target stream is written at its position,
 * without a terminator. The stream forms return the units (UTF-16 targets)
 * or bytes (UTF-8 and UTF-7 targets) written, or the first negative error
 * of the target's write. Decoding a UTF-8 stream character by character
 * steps back over the one byte that ends a "!" run (ungetc).
 */
#ifndef VEK_UNI_H
#define VEK_UNI_H

#include "VekType.h"
#include "StrUtil.h"

VEK_BEGIN_DECLS

/* ---- one character ---- */
/* Decodes one character at s; *used (may be null) receives the bytes used. */
VEK_API vek_wchar utf8_str_to_wcs_char(const char* s, vek_s32* used);
VEK_API vek_wchar utf8_str_to_ucs2_char(const char* s, vek_s32* used);
/* Reads one character from the stream; *used (may be null) receives the
 * bytes taken (0 at the end of the stream, where the result is 0). */
VEK_API vek_wchar utf8_strm_to_wcs_char(IStrm* strm, vek_s32* used);
VEK_API vek_wchar utf8_strm_to_ucs2_char(IStrm* strm, vek_s32* used);
/* Encodes one unit as 1 to 3 UTF-8 bytes (no terminator); 0 writes nothing.
 * Returns the byte count. */
VEK_API vek_s32 wcs_char_to_utf8_char(vek_wchar c, char* out);
VEK_API vek_s32 ucs2_char_to_utf8_char(vek_wchar c, char* out);

/* ---- UTF-8 to UTF-16 ---- */
/* Decodes srcLen bytes (negative: dstSize is the byte budget and the
 * conversion ends at the terminator) into dst of dstSize units; stops at a
 * 0 result (end or cut sequence). *more (may be null) is set to 1 when
 * source bytes were left, else 0. Returns the units written. */
VEK_API vek_s32 utf8_buf_to_wcs_strx(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                     vek_s32 dstSize, vek_s32* more);
VEK_API vek_s32 utf8_buf_to_wcs_str(const char* src, vek_s32 srcLen, vek_wchar* dst,
                                    vek_s32 dstSize);
/* Decodes the terminated src into dst of dstSize units (no byte budget);
 * *more as above. Returns the units written. */
VEK_API vek_s32 utf8_str_to_wcs_strx(const char* src, vek_wchar* dst, vek_s32 dstSize,
                                     vek_s32* more);
VEK_API vek_s32 utf8_str_to_wcs_str(const char* src, vek_wchar* dst, vek_s32 dstSize);
VEK_API vek_s32 utf8_str_to_ucs2_str_x(const char* src, vek_wchar* dst, vek_s32 dstSize,
                                       vek_s32* more);
VEK_API vek_s32 utf8_str_to_ucs2_str(const char* src, vek_wchar* dst, vek_s32 dstSize);
/* Reads UTF-8 from the stream until its end, a 0 byte, or dst is full (no
 * byte beyond the last character stored is taken). Returns units written. */
VEK_API vek_s32 utf8_strm_to_wcs_str(IStrm* strm, vek_wchar* dst, vek_s32 dstSize);
VEK_API vek_s32 utf8_strm_to_ucs2_str(IStrm* strm, vek_wchar* dst, vek_s32 dstSize);
/* Write the UTF-16 of the terminated src, or of the whole source stream,
 * to the target stream. */
VEK_API vek_s32 utf8_str_to_wcs_strm(const char* src, IStrm* dst);
VEK_API vek_s32 utf8_str_to_ucs2_strm(const char* src, IStrm* dst);
VEK_API vek_s32 utf8_strm_to_wcs_strm(IStrm* src, IStrm* dst);
VEK_API vek_s32 utf8_strm_to_ucs2_strm(IStrm* src, IStrm* dst);
/* Hands the UTF-16 of the terminated src to sink(sinkObj, units, n) in
 * pieces of at most 256 units. Returns the units produced or the sink's
 * negative result, which stops the conversion. */
VEK_API vek_s32 utf8_str_to_wcs_out(const char* src, void* sinkObj, vek_wcs_sink sink);

/* ---- UTF-16 to UTF-8 ---- */
/* Encodes n units (negative: up to the terminator; a 0 unit always ends
 * the text) into dst of dstSize bytes. Returns the bytes written. */
VEK_API vek_s32 wcs_buf_to_utf8_str(const vek_wchar* src, vek_s32 n, char* dst, vek_s32 dstSize);
VEK_API vek_s32 ucs2_buf_to_utf8_str(const vek_wchar* src, vek_s32 n, char* dst, vek_s32 dstSize);
VEK_API vek_s32 wcs_str_to_utf8_str(const vek_wchar* src, char* dst, vek_s32 dstSize);
VEK_API vek_s32 ucs2_str_to_utf8_str(const vek_wchar* src, char* dst, vek_s32 dstSize);
/* Reads UTF-16 units from the stream until its end, a 0 unit, or dst is
 * full (no unit beyond the last one stored is taken). Returns bytes written. */
VEK_API vek_s32 wcs_strm_to_utf8_str(IStrm* strm, char* dst, vek_s32 dstSize);
VEK_API vek_s32 ucs2_strm_to_utf8_str(IStrm* strm, char* dst, vek_s32 dstSize);
/* Write the UTF-8 of the terminated src, or of the whole source stream, to
 * the target stream. */
VEK_API vek_s32 wcs_str_to_utf8_strm(const vek_wchar* src, IStrm* dst);
VEK_API vek_s32 ucs2_str_to_utf8_strm(const vek_wchar* src, IStrm* dst);
VEK_API vek_s32 wcs_strm_to_utf8_strm(IStrm* src, IStrm* dst);
VEK_API vek_s32 ucs2_strm_to_utf8_strm(IStrm* src, IStrm* dst);

/* ---- UTF-7 (RFC 2152) ----
 * Decoding: outside a shifted run every ASCII byte but "+" is copied as it
 * stands (a byte above 0x7F, never valid UTF-7, becomes "?"); "+-" is "+";
 * "+" followed by a base64 character opens a run, whose characters carry
 * 16-bit units, most significant bit first. A run ends at the first byte
 * that is not base64: a "-" there is absorbed, anything else is decoded as
 * a direct character. Bits left over at the end of a run are dropped, and
 * so are 0 units. A "+" followed by neither "-" nor a base64 character is
 * kept as a literal "+". Units become UTF-8 one by one, surrogates too.
 * Encoding: the characters of RFC 2152's sets D and O, space, tab, CR and
 * LF are written directly; "+" is written "+-"; every other character
 * ("\", "~", other controls, everything above 0x7F) goes into a base64 run,
 * the last character of a run padded with 0 bits. A run is closed with an
 * explicit "-" when the next character is a base64 character or "-", or
 * when the text ends; before any other direct character the "-" is left
 * out. So "A", U+2262, U+0391, "." becomes "A+ImIDkQ." and U+65E5 U+672C
 * U+8A9E becomes "+ZeVnLIqe-", as in the RFC's examples. */
/* Decodes the terminated src into dst of dstSize bytes. A direct character
 * is stored while it fits before the terminator, the characters of a run
 * by the 4-byte room rule above; the conversion stops at the first one
 * that does not fit. Returns the bytes written. */
VEK_API vek_s32 utf7_str_to_utf8_str(const char* src, char* dst, vek_s32 dstSize);
VEK_API vek_s32 utf7_strm_to_utf8_strm(IStrm* src, IStrm* dst);
VEK_API vek_s32 utf8_strm_to_utf7_strm(IStrm* src, IStrm* dst);

/* ---- the system's ANSI code page (al_ansi_to_wcs / al_wcs_to_ansi) ----
 * Terminated source, dst of dstSize cells (always terminated). Characters
 * the target cannot represent become "?". The UTF-8 forms pass through
 * UTF-16. Return the units (bytes) written. */
VEK_API vek_s32 ansi_str_to_wcs_str(const char* src, vek_wchar* dst, vek_s32 dstSize);
VEK_API vek_s32 wcs_str_to_ansi_str(const vek_wchar* src, char* dst, vek_s32 dstSize);
VEK_API vek_s32 ansi_str_to_utf8_str(const char* src, char* dst, vek_s32 dstSize);
VEK_API vek_s32 utf8_str_to_ansi_str(const char* src, char* dst, vek_s32 dstSize);

/* ---- helpers ---- */
/* The number of characters (UTF-16 units) the terminated UTF-8 text
 * decodes to; 0 for null. */
VEK_API vek_s32 utf8_str_len(const char* s);
/* Cuts s at its first byte that does not start a well-formed character,
 * writing a terminator there. Well-formed: 0x01-0x7F; C2-DF plus one
 * continuation byte (80-BF); E0-EF plus two, not overlong (E0 needs A0-BF
 * next); F0-F4 plus three, not overlong and not above U+10FFFF (F0 needs
 * 90-BF next, F4 80-8F). Encoded surrogates (ED A0-BF ..) are kept: the
 * library writes them for UTF-16 surrogate units. s is asserted. *len
 * receives the length kept, *removed the bytes cut off (both may be null).
 * Returns the length kept. */
VEK_API vek_s32 utf8_str_clean(char* s, vek_s32* len, vek_s32* removed);
/* Bounded copies that never cut a character: up to dstSize - 1 bytes of
 * whole UTF-8 characters (as the decoder delimits them; a "!" run counts as
 * one), or up to dstSize - 1 units without splitting a surrogate pair.
 * dst is always terminated (dstSize >= 1 asserted). Return the count. */
VEK_API vek_s32 utf8_str_copy(char* dst, const char* src, vek_s32 dstSize);
VEK_API vek_s32 wcs_str_copy(vek_wchar* dst, const vek_wchar* src, vek_s32 dstSize);
/* Equality of UTF-16 and UTF-8 text: the UTF-8 side is decoded character
 * by character and compared with the next unit; 1 when both end together
 * with all units equal, else 0 (not an ordering). A null text is the empty
 * one. The icmp forms fold ASCII letters. */
VEK_API vek_s32 wcs_cmp_utf8(const vek_wchar* w, const char* s);
VEK_API vek_s32 wcs_icmp_utf8(const vek_wchar* w, const char* s);
VEK_API vek_s32 utf8_cmp_wcs(const char* s, const vek_wchar* w);
VEK_API vek_s32 utf8_icmp_wcs(const char* s, const vek_wchar* w);

/* Swaps the two bytes of n units in place (n negative: up to the 0 unit);
 * returns the units swapped. */
VEK_API vek_s32 vek_u16s_turn(vek_wchar* w, vek_s32 n);

VEK_END_DECLS

#endif /* VEK_UNI_H */
