/*
 * MimeHdr.h - mail-style header lines "name: value" (mhdr_*): splitting one
 * line, testing a line for a header name, and finding a header in a stream
 * of header lines that ends at the first empty line.
 *
 * White space is space, tab, CR and LF. The optional VekStr outputs are
 * cleared before anything else and set only on success. Results: 1 found
 * or split, 0 not.
 */
#ifndef VEK_MIMEHDR_H
#define VEK_MIMEHDR_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Splits line at its FIRST ":": name gets the part before it and value the
 * rest, both trimmed. 0 when there is no ":", when it is the first
 * character, or when the name is empty after trimming. Assertion "line"
 * for a null line. */
VEK_API vek_s32 mhdr_str_dec(const char* line, VekStr* name, VekStr* value);
/* The same for len bytes of text (negative: up to the terminator). */
VEK_API vek_s32 mhdr_strx_dec(const char* text, vek_s32 len, VekStr* name, VekStr* value);
/* Splits line as above and compares its trimmed name, of n characters,
 * without regard to case with the first n characters of hdrName: a line
 * named "Content" matches "Content-Type" (a prefix rule callers rely on).
 * On a match value gets the trimmed rest and the result is 1. A null or
 * empty hdrName is the assertion "!str_noo(name)" and 0. */
VEK_API vek_s32 mhdr_str_chk(const char* line, const char* hdrName, VekStr* value);
VEK_API vek_s32 mhdr_strx_chk(const char* text, vek_s32 len, const char* hdrName, VekStr* value);
/* Reads strm from its start one logical line at a time (a line end
 * followed by a space or tab continues the line; that line end and the one
 * blank are dropped) and stops at the first empty line or at the end (0).
 * A line whose first strlen(hdrName) characters equal hdrName without
 * regard to case is the match (pass the colon in hdrName; nothing after it
 * is examined): 1. With buf and size > 0 the value is copied from one
 * character after the name (the separator is skipped unseen), at most
 * size - 1 bytes, then trimmed at both ends and terminated. Assertion
 * "strm && !str_noo(hdrName)" (then 0). */
VEK_API vek_s32 mhdr_get_to_buf(IStrm* strm, const char* hdrName, char* buf, vek_s32 size);
/* mhdr_get_to_buf(strm, hdrName, NULL, 0). */
VEK_API vek_s32 mhdr_find_only(IStrm* strm, const char* hdrName);

VEK_END_DECLS

#endif /* VEK_MIMEHDR_H */
