/*
 * TinyStr.h - a minimal append-only UTF-8 string builder.
 *
 * Unlike VekStr it has no sharing, allocates with the OS layer's plain
 * al_malloc/al_free (so the heap monitor and the trace can use it
 * themselves), and reports a wrong object through low_assert__ instead of
 * ending the process. It can be switched into a fixed-size mode in which
 * appends are cut to the room left.
 *
 * Object: two words, owned by the caller. Block: len, size (bytes for the
 * characters including the terminator), characters. An empty string points
 * at a shared read-only block with len and size 0.
 */
#ifndef VEK_TINYSTR_H
#define VEK_TINYSTR_H

#include "VekType.h"

VEK_BEGIN_DECLS

typedef struct TinyData {
    vek_s32 len;   /* characters in use */
    vek_s32 size;  /* bytes for characters including the terminator */
    char buf[8];   /* really size bytes */
} TinyData;

struct TinyStr {
    TinyData* data;
    vek_u32 tag;   /* 0xA49C27 in bits 0-23; bit 30 set: the block must not grow */
};

#define TINYSTR_MARK 0xA49C27u
#define TINYSTR_FIXED 0x40000000u

/* Makes ts an empty string on the shared empty block (nothing allocated);
 * returns ts. A null ts is the low-level assertion "ts". */
VEK_API TinyStr* TinyStr_new(TinyStr* ts);
/* The same, and with size >= 1 a block of size bytes (rounded up to 8). */
VEK_API TinyStr* TinyStr_newx(TinyStr* ts, vek_s32 size);
/* Frees the block; the object is then dead (tag 0, data null). */
VEK_API void TinyStr_delete(TinyStr* ts);
VEK_API void TinyStr_clear(TinyStr* ts);   /* empties the text, keeps the block */
VEK_API void TinyStr_clearx(TinyStr* ts);  /* frees the block */
VEK_API vek_s32 TinyStr_capa(const TinyStr* ts);  /* size - 1, 0 for the empty block */
VEK_API vek_s32 TinyStr_size(const TinyStr* ts);  /* block bytes, 0 for the empty block */
VEK_API vek_s32 TinyStr_len(const TinyStr* ts);   /* characters in use */
VEK_API const char* TinyStr_buf(const TinyStr* ts);  /* the text, never null; do not write */
/* Cuts to len when shorter than the text; 0 empties it. */
VEK_API void TinyStr_trunc(TinyStr* ts, vek_s32 len);
/* Moves the text into a block of exactly size bytes (rounded up to 8) when
 * size exceeds the current size. */
VEK_API void TinyStr_rsvSize(TinyStr* ts, vek_s32 size);
/* expand 0 forbids enlarging the block; non-zero allows it again. */
VEK_API void TinyStr_setExpd(TinyStr* ts, vek_s32 expand);

/* Appends; each returns the number of bytes added. With growth forbidden
 * (TinyStr_setExpd) text is cut to the room left, and a single character
 * that does not fit adds nothing.
 *   Tstr     another TinyStr's text
 *   Str      a C string (null or "" adds nothing)
 *   Strx     n bytes (negative: strlen); null, a first byte 0 or n 0 add nothing
 *   Char     one byte (0 adds nothing)
 *   Wcs, Wcsx, Wchar
 *            UTF-16 as UTF-8, one unit at a time (no surrogate pairs); Wcsx
 *            takes n units (negative: up to the 0 unit) and stops at a 0
 *            unit; cut only between characters
 *   Long, Ulong
 *            "%ld" / "%lu" of a 32-bit value
 *   f, vf    formatted through str_fmt_out (StrUtil.h); they too return the
 *            bytes added, not the total length */
VEK_API vek_s32 TinyStr_appdTstr(TinyStr* ts, const TinyStr* other);
VEK_API vek_s32 TinyStr_appdStr(TinyStr* ts, const char* s);
VEK_API vek_s32 TinyStr_appdStrx(TinyStr* ts, const char* s, vek_s32 n);
VEK_API vek_s32 TinyStr_appdChar(TinyStr* ts, char c);
VEK_API vek_s32 TinyStr_appdWcs(TinyStr* ts, const vek_wchar* w);
VEK_API vek_s32 TinyStr_appdWcsx(TinyStr* ts, const vek_wchar* w, vek_s32 n);
VEK_API vek_s32 TinyStr_appdWchar(TinyStr* ts, vek_wchar c);
VEK_API vek_s32 TinyStr_appdLong(TinyStr* ts, vek_s32 v);
VEK_API vek_s32 TinyStr_appdUlong(TinyStr* ts, vek_u32 v);
VEK_API vek_s32 TinyStr_appdf(TinyStr* ts, const char* fmt, ...) VEK_PRINTF(2, 3);
VEK_API vek_s32 TinyStr_appdvf(TinyStr* ts, const char* fmt, va_list args);
/* Removes trailing spaces and tabs; returns the number removed. */
VEK_API vek_s32 TinyStr_delTailSpace(TinyStr* ts);

VEK_END_DECLS

#endif /* VEK_TINYSTR_H */
