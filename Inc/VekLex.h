/*
 * VekLex.h - the line lexer for modem responses.
 *
 * A modem answers an AT command with lines: the echo of the command (when
 * echo is on), intermediate lines, and one final result; unsolicited
 * result codes (URCs: "+CMTI: ...", "RING", "^RSSI: ...") arrive between
 * and inside those lines' runs at any time. The lexer cuts the bytes into
 * tokens and names each one; it never decides which command a line
 * belongs to (the AT channel, AtChan.h, does that with what it sent).
 *
 * Input. Bytes in chunks of any size, down to one byte at a time. A line
 * ends at CR, at LF, or at both in any number (CR LF, CR CR LF, LF CR);
 * empty lines are dropped, NUL bytes are dropped wherever they stand. The
 * prompt "> " of +CMGS and +CMGW has no line end: it is a token as soon as
 * its two bytes arrived at the start of a line, while the lexer expects a
 * prompt (VEK_LEX_EXPECT_PROMPT); otherwise it is an ordinary line's start.
 *
 * Work and memory. Each byte is looked at once, with a fixed amount of
 * work (the prefix table is matched as the bytes arrive, narrowing a
 * sorted range, never rescanned); no regular expressions. A line keeps at
 * most maxLine bytes: a longer one is reported as VEK_LEX_LONG with its
 * first maxLine bytes and its real length, and the rest of it is dropped.
 *
 * Classification of a line, first match wins:
 *   1. the echo: exactly the command line given to VekLex_setEcho (once;
 *      the expectation ends with the echo or with the next final result);
 *   2. the prefix table: final results and URCs (below), matched as whole
 *      lines or as line starts, the longest entry that matches wins;
 *   3. with VEK_LEX_NUMERIC: the numeric result codes of ATV0 (a line of
 *      only "0".."8": 0 OK, 1 CONNECT, 2 RING as a URC, 3 NO CARRIER,
 *      4 ERROR, 6 NO DIALTONE, 7 BUSY, 8 NO ANSWER);
 *   4. anything else is an intermediate line (VEK_LEX_INFO).
 * The built-in table holds the finals OK, ERROR, "+CME ERROR: n|text",
 * "+CMS ERROR: n|text", NO CARRIER, BUSY, NO ANSWER, NO DIALTONE,
 * "CONNECT [rate]", the vendor finals "COMMAND NOT SUPPORT", "TOO MANY
 * PARAMETERS", "MODEM ERROR[: n]" and "+EXT ERROR: n", and the URCs of
 * 3GPP TS 27.005/27.007 and the common vendors (RING, +CRING, +CLIP,
 * +CMTI, +CMT, +CDS, +CDSI, +CBM, +CBMI, +CREG, +CGREG, +CEREG, +C5GREG,
 * +CUSD, +CIEV, +CGEV, +CUSATP, +PBREADY, ^RSSI, ^HCSQ, ^BOOT, ^MODE,
 * ^SRVST, ^SIMST, ^SYSSTART, ^DSFLOWRPT, +QIND, +STIN); +CMT, +CDS and
 * +CBM carry one data line (the PDU), reported as VEK_LEX_URC_DATA.
 * VekLex_addPrefix adds the caller's own.
 *
 * Ownership and threads: a lexer belongs to its caller and is used by one
 * thread at a time. A token's text lives in the lexer until the next call
 * on it. Allocation through the tracked heap.
 */
#ifndef VEK_LEX_H
#define VEK_LEX_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Token kinds. 1..15 are final results (VEK_LEX_IS_FINAL). */
#define VEK_LEX_NONE        0  /* no token yet: every byte given was taken */
#define VEK_LEX_OK          1
#define VEK_LEX_ERROR       2
#define VEK_LEX_CME         3  /* "+CME ERROR: ": code, or -1 with the text in arg */
#define VEK_LEX_CMS         4  /* "+CMS ERROR: ": the same */
#define VEK_LEX_CONNECT     5  /* code: the rate after "CONNECT ", 0 without one */
#define VEK_LEX_NO_CARRIER  6
#define VEK_LEX_BUSY        7
#define VEK_LEX_NO_ANSWER   8
#define VEK_LEX_NO_DIALTONE 9
#define VEK_LEX_VENDOR_ERR  10 /* a vendor's final error; code: its number, or -1 */
#define VEK_LEX_INFO        16 /* an intermediate line */
#define VEK_LEX_URC         17 /* an unsolicited result code (a line of the table) */
#define VEK_LEX_URC_DATA    18 /* the data line a two-line URC carries */
#define VEK_LEX_PROMPT      19 /* "> " */
#define VEK_LEX_ECHO        20 /* the echo of the command line */
#define VEK_LEX_LONG        21 /* a line over maxLine bytes: code is its length */
#define VEK_LEX_IS_FINAL(k) ((k) >= 1 && (k) <= 15)

/* Lexer flags (VekLex_new, VekLex_setFlags). */
#define VEK_LEX_NUMERIC       0x01 /* the modem answers in ATV0 form */
#define VEK_LEX_EXPECT_PROMPT 0x02 /* a "> " at a line start is the prompt */

/* Token flags. */
#define VEK_LEX_TOK_NUMERIC 0x01 /* a final or RING read from its numeric form */

typedef struct VekLexTok {
    vek_s32 kind;         /* VEK_LEX_* */
    vek_s32 code;         /* see the kinds; 0 when the kind has none */
    vek_s32 flags;        /* VEK_LEX_TOK_* */
    vek_s32 len;          /* bytes of text */
    const char* text;     /* the whole line, NUL-terminated (NULs dropped) */
    const char* arg;      /* the text after the matched prefix, spaces skipped */
    vek_s32 argLen;
    vek_s32 lines;        /* a URC: data lines that follow it */
} VekLexTok;

typedef struct VekLex VekLex;

/* A lexer keeping at most maxLine bytes of a line (0: 2048; 16 ..
 * 1048576, else an assertion and the nearest bound) with flags
 * (VEK_LEX_*); null when memory ran out. */
VEK_API VekLex* VekLex_new(vek_s32 maxLine, vek_s32 flags);
VEK_API void VekLex_delete(VekLex* lex);  /* null is ignored */
/* Forgets the partial line, a pending echo and data line; keeps the
 * flags and the prefix table. */
VEK_API void VekLex_reset(VekLex* lex);
/* Sets the flags (VEK_LEX_*); they apply from the next byte. */
VEK_API void VekLex_setFlags(VekLex* lex, vek_s32 flags);
/* The flags. */
VEK_API vek_s32 VekLex_getFlags(const VekLex* lex);
/* Adds a prefix to the table: kind VEK_LEX_URC (lines: the data lines
 * that follow it, 0..4) or VEK_LEX_VENDOR_ERR (a final error; lines 0).
 * whole != 0 matches only a line that is exactly the prefix. A prefix
 * already in the table takes the new kind. 0; -81 (empty, over 63 bytes,
 * another kind); -201 the table holds 128 entries or memory ran out. */
VEK_API vek_s32 VekLex_addPrefix(VekLex* lex, const char* prefix, vek_s32 kind, vek_s32 lines, vek_s32 whole);
/* The next line equal to cmd (as sent, without its CR; at most maxLine
 * bytes) is the echo. null forgets the expectation. */
VEK_API void VekLex_setEcho(VekLex* lex, const char* cmd);
/* Takes bytes from data until a token is complete or all len are taken:
 * returns the count taken, with *tok filled (kind VEK_LEX_NONE when none
 * completed). Call again with the rest. -81 for a negative len or null
 * pointers. */
VEK_API vek_s32 VekLex_feed(VekLex* lex, const void* data, vek_s32 len, VekLexTok* tok);
/* The name of a token kind ("OK", "+CME ERROR", "INFO", ...); "?" else. */
VEK_API const char* VekLex_kindName(vek_s32 kind);

VEK_END_DECLS

#endif /* VEK_LEX_H */
