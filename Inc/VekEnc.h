/*
 * VekEnc.h - four small byte codecs of the messaging and modem code:
 * Base64, quoted-printable, IRA hexadecimal (each byte as two hexadecimal
 * characters, the form in which modems exchange binary PDUs as text) and
 * packed BCD (two decimal digits per byte, first digit in the low nibble).
 *
 * Each codec has an atom (one unit), buffer-to-buffer forms and forms that
 * read or write an IStrm or append to a VekStr. All are stateless and
 * thread-safe. Argument checks are assertions with the texts given; the
 * function then carries on safely (usually returning 0). Several room and
 * end rules below look odd; they are the contract the callers were written
 * against and are kept exactly.
 */
#ifndef VEK_ENC_H
#define VEK_ENC_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- Base64: alphabet A-Z a-z 0-9 + /, pad "=" ---- */

/* Encodes n (1 to 3) bytes into exactly 4 characters (missing bytes count
 * as zero; n 1 pads positions 3 and 4 with "=", n 2 position 4). No
 * terminator. Returns 4 (0 for n outside 1..3, nothing written). */
VEK_API vek_s32 b64_enc_atom(char* out4, const vek_u8* in, vek_s32 n);
/* Decodes 4 characters into out3: 3 bytes without "=", 2 with one, 1 with
 * two, 0 with three or more or with a character outside the alphabet and
 * "=". An "=" counts wherever it stands and contributes zero bits, so
 * "QQ=Q" and "TQ=x" each give 2 bytes. Returns the byte count; only that
 * many bytes are written. */
VEK_API vek_s32 b64_dec_atom(const char* in4, vek_u8* out3);
/* Decodes a terminated text quartet by quartet while 4 more characters
 * remain and the bytes produced + 3 < size. An invalid quartet produces
 * nothing and decoding goes on; a last incomplete quartet is ignored; no
 * white space is skipped. Returns the bytes produced. */
VEK_API vek_s32 b64_dec_str_to_buf(const char* str, vek_u8* buf, vek_s32 size);
/* Decodes *len characters of str, skipping CR and LF wherever they stand,
 * each quartet as it completes. The output is not bounded: buf needs
 * 3 * (*len / 4) bytes. *len is reduced by the characters left over in an
 * incomplete last quartet, so a caller can keep them for the next chunk.
 * Returns the bytes produced. */
VEK_API vek_s32 b64_dec_str_to_bufx(const char* str, vek_s32* len, vek_u8* buf);
/* Encodes without line breaks while input remains and the output position
 * + 4 < b64Len, then terminates (assertion "j < b64Len": a b64Len below 1
 * writes nothing). Returns the characters written. */
VEK_API vek_s32 b64_enc_buf_from_buf(char* b64Buf, vek_s32 b64Len, const vek_u8* data, vek_s32 dataLen);
/* Appends the Base64 form of data (4 characters per 3 bytes, the last
 * group padded) to cstr; returns the characters appended. Assertion
 * "cstr && (data || dataLen < 1)". */
VEK_API vek_s32 b64_enc_cstr_from_buf(VekStr* cstr, const vek_u8* data, vek_s32 dataLen);
/* Encodes src from its position, reading 3 bytes at a time until a read
 * delivers nothing (a short read gives a padded quartet). Before each
 * quartet, when column + 4 > foldSize, the fold CR LF TAB is written and
 * the column restarts at 0. column is where the output starts; negative
 * means foldSize (a fold comes first). Assertion
 * "base && src && foldSize > 0". Returns the bytes written to base. */
VEK_API vek_s32 b64_enc_strm_from_strm(IStrm* base, IStrm* src, vek_s32 foldSize, vek_s32 column);

/* ---- quoted-printable ----
 * Bytes 0x21-0x3C and 0x3E-0x7E are written as they are; every other byte
 * (space, tab, CR, LF, "=", 0x7F and up, control bytes) as "=XX" in upper
 * case: unlike mail's usual form, blanks and line breaks are always
 * encoded. Before each unit (1 or 3 characters), when lineLen > 0 and
 * column + the unit's length > lineLen, the soft break "=" CR LF is written
 * and the column restarts at 0. column is the starting column; negative
 * means lineLen (a soft break comes first). The encoders return the
 * characters written. */
/* From strm's position to its end; assertion "qp && strm". */
VEK_API vek_s32 qp_enc_strm_from_strm(IStrm* qp, IStrm* strm, vek_s32 lineLen, vek_s32 column);
/* dataLen bytes; assertion "qp && (data || dataLen < 1)". */
VEK_API vek_s32 qp_enc_strm_from_buf(IStrm* qp, const vek_u8* data, vek_s32 dataLen, vek_s32 lineLen,
                                     vek_s32 column);
/* Up to the terminator; assertion "qp && str". */
VEK_API vek_s32 qp_enc_strm_from_str(IStrm* qp, const char* str, vek_s32 lineLen, vek_s32 column);
/* Skips one leading "=", converts the next two characters as hexadecimal
 * (either case) into *byte; true only when both were hexadecimal digits
 * (*byte is then written, else left alone). */
VEK_API vek_bool qp_dec_atom(const char* in, vek_u8* byte);
/* Decodes into buf: "=" CR LF is dropped, "=" and two hexadecimal digits
 * give one byte, "=" and two other characters are dropped all three, an
 * "=" with the end of the text within two characters ends decoding; every
 * other byte is copied. At most size - 1 bytes, terminated; returns the
 * count. The end of the text is tested on its FIRST byte only: a
 * non-empty text is decoded until the output limit (reading on past its
 * terminator) or a trailing "=", so callers pass the exact decoded size
 * + 1. */
VEK_API vek_s32 qp_dec_str_to_buf(const char* str, char* buf, vek_s32 size);
/* The same rules from src's position to its end, except that an invalid
 * pair is written back as "=" and the two bytes unchanged, and an "="
 * with fewer than two bytes behind it ends decoding after writing "=" and
 * the byte read. Assertion "src && dst". Returns the bytes written. */
VEK_API vek_s32 qp_dec_strm_to_strm(IStrm* src, IStrm* dst);

/* ---- IRA hexadecimal ----
 * Encoding writes lower-case digits, high nibble first. Decoding converts
 * each pair of characters with strtoul(pair, base 16): either case, and an
 * invalid pair gives the value of its valid leading part (or 0). */
/* Two characters, no terminator; returns 2. */
VEK_API vek_s32 ira_enc_byte_to_buf(char* buf, vek_u8 byte);
/* Writes pairs while the length written + 2 < iraSize (room is always left
 * for the terminator), then terminates. dataLen < 1 gives "" and 0.
 * Assertion "iraBuf && iraSize > 0 && data". Returns the characters. */
VEK_API vek_s32 ira_enc_buf_from_buf(char* iraBuf, vek_s32 iraSize, const vek_u8* data, vek_s32 dataLen);
/* The same for the bytes from strm's position to its end; strm is moved
 * back to where it was. Assertion "iraBuf && iraSize > 0 && strm". */
VEK_API vek_s32 ira_enc_buf_from_strm(char* iraBuf, vek_s32 iraSize, IStrm* strm);
/* Appends to ira; 0 when dataLen < 1. Assertion "ira && data". */
VEK_API vek_s32 ira_enc_cstr_from_buf(VekStr* ira, const vek_u8* data, vek_s32 dataLen);
/* Decodes pairs up to the terminator (a single last character is ignored)
 * while fewer than dataSize - 1 bytes are stored: the last byte of the
 * buffer is never used. No terminator. Assertion
 * "ira && dataBuf && dataSize > 0". Returns the bytes stored. */
VEK_API vek_s32 ira_dec_str_to_buf(const char* ira, vek_u8* dataBuf, vek_s32 dataSize);
/* The same (at most size - 1 bytes), then a terminator when size > 0.
 * Assertion "ira && buf". */
VEK_API vek_s32 ira_dec_str_to_str(const char* ira, char* buf, vek_s32 size);
/* Decodes every pair into strm at its position; assertion "ira && strm".
 * Returns the bytes written. */
VEK_API vek_s32 ira_dec_str_to_strm(const char* ira, IStrm* strm);
/* Reads ira two characters at a time from its position until fewer than
 * two are delivered, writes the bytes to strm, then moves ira back to its
 * position on entry. Assertion "ira && strm". Returns the bytes written. */
VEK_API vek_s32 ira_dec_strm_to_strm(IStrm* ira, IStrm* strm);

/* ---- BCD (semi-octets: low nibble = first digit) ---- */
/* (b & 0x0F) * 10 + (b >> 4): the low nibble is the tens digit. */
VEK_API vek_s32 bcd_dec_byte_to_int(vek_u8 b);
/* ((n % 10) << 4) | ((n / 10) & 0x0F). */
VEK_API vek_u8 bcd_enc_byte_from_int(vek_s32 n);
/* Writes each byte's low then high nibble as a digit when below 10 (A-F,
 * the filler F included, are skipped). The limit size - 1 is tested
 * before each BYTE, not each digit: size the buffer 2 * bcdLen + 1.
 * Terminates; returns the digits written. */
VEK_API vek_s32 bcd_dec_buf_to_str(const vek_u8* bcd, vek_s32 bcdLen, char* str, vek_s32 size);
/* Appends the digits to cstr by the same rules. Returns the number of
 * digits the LAST byte gave (0, 1 or 2), not the total. Assertion
 * "cstr && bcdLen >= 0". */
VEK_API vek_s32 bcd_dec_buf_to_cstr(VekStr* cstr, const vek_u8* bcd, vek_s32 bcdLen);
/* Packs digit characters two per byte, the first in the low nibble, until
 * the terminator or until size bytes are complete. An odd count leaves the
 * last high nibble 0xF when fill is non-zero, else 0. The characters are
 * not checked. Returns the bytes used (a half-filled last byte counts). */
VEK_API vek_s32 bcd_enc_buf_from_str(vek_u8* buf, vek_s32 size, const char* str, vek_bool fill);

VEK_END_DECLS

#endif /* VEK_ENC_H */
