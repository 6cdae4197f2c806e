/*
 * GsmUtil.h - short-message PDU fields: the GSM 7-bit default alphabet and
 * its extension table (SmsAlph_*), septet packing, address fields, the
 * 7-byte service-centre time stamp and the modem's text time (GsmUtil_*).
 * All functions are stateless.
 *
 * Alphabet: the 3GPP TS 23.038 default alphabet, except that code 0x1B
 * (the escape position) stands for U+00B9 (superscript one): a 0x1B that
 * does not start a known extension pair decodes as U+00B9, and U+00B9
 * encodes as the single septet 0x1B. Extension pairs (0x1B, code): 0x14 ^,
 * 0x28 {, 0x29 }, 0x2F \, 0x3C [, 0x3D ~, 0x3E ], 0x40 |, 0x0C form feed
 * (0x0C rather than 3GPP's 0x0A), 0x65 euro sign; no CR2 or single shifts.
 *
 * UCS-2 text of SmsAlph_* is an array of 16-bit units holding big-endian
 * (network order) data in memory, as in a UCS2-coded PDU. Septet strings
 * hold one 7-bit code per byte.
 *
 * Address field: byte 0 length, byte 1 type of address (TOA), then the
 * digits: BCD semi-octets, first digit in the low nibble, an odd count
 * filled with 0xF (VekEnc.h), or 7-bit text for TOA 0xD0.
 *
 * Time stamp: 7 bytes of swapped BCD (low nibble = tens): year, month,
 * day, hour, minute, second, zone. In the zone byte, bit 3 of the low
 * nibble is the sign (set = west of Greenwich); the other 3 bits (tens)
 * and the high nibble (units) count quarter hours.
 */
#ifndef VEK_GSMUTIL_H
#define VEK_GSMUTIL_H

#include "VekType.h"
#include "VekTime.h"

VEK_BEGIN_DECLS

#define GSM_TOA_NATIONAL 0x81  /* unknown numbering plan: the digits as they are */
#define GSM_TOA_INTL     0x91  /* international: "+" and the digits */
#define GSM_TOA_ALPHA    0xD0  /* alphanumeric, packed 7-bit */

/* ---- alphabet ---- */
/* 1 when the character can be sent in the 7-bit alphabet, with *kind (when
 * kind is not null) 2 for an extension character (two septets), 1 for a
 * basic one; 0 when it cannot. ch is one unit as loaded from big-endian
 * memory on a little-endian host: its first byte (the character's high
 * byte) in the low 8 bits. */
VEK_API vek_s32 SmsAlph_is7BitChar(vek_u16 ch, vek_s32* kind);
/* len units (negative: up to the 0 unit). 1 when every character is
 * representable, with *septets (when not null) the septets needed; 0 at
 * the first one that is not. */
VEK_API vek_s32 SmsAlph_is7BitStr(const vek_u16* ucs2, vek_s32 len, vek_s32* septets);
/* The character (host order) of a basic code; assertion
 * "gsm >= 0 && gsm <= 127" (then 0). */
VEK_API vek_u16 SmsAlph_toUcs2(vek_s32 gsm);
/* Converts len units (negative: up to the 0 unit) into septets: an
 * extension character becomes 0x1B and its code, a basic one its code,
 * any other "?". Stops before a character once size - 1 bytes are written
 * (and before an extension pair that would take the terminator's cell).
 * Terminates; returns the septets written. Input left over is traced
 * "not all data proced". */
VEK_API vek_s32 SmsAlph_to7BitStr(const vek_u16* ucs2, vek_s32 len, vek_u8* out, vek_s32 size);
/* Converts srcLen septets into UCS-2 (big-endian units): a 0x1B pair that
 * matches an extension entry becomes that character, any other byte its
 * basic character. Every byte must be below 0x80 (assertion
 * "(src[i] & 0x80) == 0"; such a byte then ends the text). Stops once
 * size - 1 units are written; terminates with a 0 unit; returns the units
 * written. Input left over is traced "not all data proced". */
VEK_API vek_s32 SmsAlph_from7BitStr(const vek_u8* src, vek_s32 srcLen, vek_u16* out, vek_s32 size);

/* ---- septet packing (septet i from bit 7 * i + fillBits on, least
 * significant bit first) ---- */
/* Packs count septets after fillBits (0 to 6) zero bits while fewer than
 * outSize bytes are used; returns the bytes used (8 septets take 7). */
VEK_API vek_s32 GsmUtil_enc7BitStr(vek_u8* out, vek_s32 outSize, const vek_u8* septets, vek_s32 count,
                                   vek_s32 fillBits);
/* Unpacks packedLen BYTES skipping fillBits bits: every 7 bytes give 8
 * septets, so a caller that knows the septet count cuts the result itself
 * (7 bytes padded with zero bits give a last 0x00). Stops once outSize - 1
 * septets are written; terminates; returns the septets written. */
VEK_API vek_s32 GsmUtil_dec7BitStr(vek_u8* out, vek_s32 outSize, const vek_u8* packed, vek_s32 packedLen,
                                   vek_s32 fillBits);
/* The same, appended to str (unbounded); the septets appended, 0 for a
 * null str. */
VEK_API vek_s32 GsmUtil_dec7BitCstr(VekStr* str, const vek_u8* packed, vek_s32 packedLen, vek_s32 fillBits);

/* ---- address fields ---- */
/* The TOA of a number text: 0x81; 0x91 when it starts with "+"; 0xD0 when
 * any other character is not a decimal digit (this wins over the "+"). */
VEK_API vek_s32 GsmUtil_getNoFmt(const char* number);
/* Writes a whole field: byte 1 the TOA (as GsmUtil_getNoFmt), then for
 * 0x91 the digits after the "+", for 0x81 all digits (BCD, F filler), for
 * 0xD0 the text's bytes packed as septets as they stand. Byte 0: with
 * digitLen 0 the bytes after byte 0 (TOA included, service-centre style);
 * otherwise the digit count (without "+"), or for 0xD0 twice the packed
 * bytes. Returns the field's length (digit bytes + 2); 0 when outSize is
 * below 2 (assertion "out && number && outSize >= 2"). */
VEK_API vek_s32 GsmUtil_encNo(vek_u8* out, vek_s32 outSize, const char* number, vek_s32 digitLen);
/* Decodes a field into out (terminated, at most outSize - 1 bytes). With
 * digitLen non-zero and a TOA other than 0xD0 the digit bytes are
 * (length + 1) / 2 and the result is 1; otherwise they are length - 1 and
 * the result is 0. TOA 0x91 gives "+" and the digits, 0xD0 the unpacked
 * septets, any other the digits (F fillers and nibbles above 9 dropped). */
VEK_API vek_s32 GsmUtil_decNo(char* out, vek_s32 outSize, const vek_u8* addr, vek_s32 digitLen);
/* Sets str (when not null) to the number and returns the bytes the field
 * occupies: (length + 1) / 2 + 2, or length + 1 when smscStyle is non-zero
 * and the TOA is not 0xD0. The digits are always read from
 * (length + 1) / 2 bytes, service-centre style too; this, and the flag's
 * sense opposite to GsmUtil_decNo's, are what callers rely on. */
VEK_API vek_s32 GsmUtil_getNo(VekStr* str, const vek_u8* addr, vek_s32 smscStyle);

/* ---- time ---- */
/* Writes the 7-byte time stamp of dt: a year below 1901 is taken as two
 * digits already, 1901-1999 less 1900, from 2000 less 2000; the zone byte
 * is always 0. Returns 7. */
VEK_API vek_s32 GsmUtil_encObsTime(vek_u8* out7, const VekDt* dt);
/* Reads a 7-byte time stamp into dt: a two-digit year below 81 is 20xx,
 * else 19xx; millisecond 0. Zone: whole hours of the quarter-hour count
 * (a +05:30 offset gives 5 hours); 0 hours stores VEK_ZONE_UNKNOWN, any
 * other -60 * hours (the bias sign: +8 h is -480). Returns 7. */
VEK_API vek_s32 GsmUtil_decObsTime(VekDt* dt, const vek_u8* in7);
/* VekDt_init(dt), then for a text longer than 16 characters
 * ("yy/MM/dd,hh:mm:ss" as modems write it) the two-digit fields at 0, 3,
 * 6, 9, 12 and 15 through atoi, year 2000 + yy. Separators are not checked
 * and a zone suffix is ignored. Returns 1 when the fields were read, else
 * 0. */
VEK_API vek_s32 GsmUtil_decTxtTime(VekDt* dt, const char* text);
/* The name of a message character set: 1 "UCS2", 2 "UTF-8", else "GSM". */
VEK_API const char* GsmUtil_csToStr(vek_s32 cs);

VEK_END_DECLS

#endif /* VEK_GSMUTIL_H */
