/*
 * BufStrm.h - the buffered stream (BufStrm, over any IStrm) and the socket
 * stream (SockStrm, an IStrm over an ISock), so the library's codecs and
 * parsers read and write devices and connections.
 *
 * Both follow the object model of VekStrm.h: Cls_new(storage or NULL, ...)
 * builds the record with count 0, Cls_xcreate__(..., path, line) adds the
 * first reference and returns the interface, release at zero calls
 * Cls_delete, which frees the record only when _new allocated it. Each
 * holds one reference to the object it wraps, given back by _delete.
 */
#ifndef VEK_BUFSTRM_H
#define VEK_BUFSTRM_H

#include "BaseItf.h"
#include "VekSock.h"

VEK_BEGIN_DECLS

#define VEK_CLS_BUFSTRM  0x38D4A9u
#define VEK_CLS_SOCKSTRM 0x61F0C5u

/* ---- BufStrm ----
 * Read-ahead and write-behind over inner, with a read buffer and a write
 * buffer of bufSize bytes each (65536 when bufSize <= 0).
 * read: fills the request from the read buffer and from inner; it returns
 * fewer bytes than asked only when inner did (its end, or a socket
 * stream's "what has arrived"), and once it holds bytes it asks inner
 * again only while inner's previous read came back full, so a reader of a
 * connection never waits for more than arrived. Before inner is read, the
 * write buffer is flushed (a request goes out before its reply is
 * awaited).
 * write/putc: collect in the write buffer; a block of bufSize or more
 * goes to inner directly. Bytes read ahead and not yet taken are given back
 * to a seekable inner before a write (so a file is written where the
 * reader stood); a stream that cannot seek back (a socket) reads and
 * writes independently and keeps them.
 * flush: writes the buffer to inner and flushes inner: 0, or inner's error
 * (the bytes that did not go out stay buffered).
 * seek, tell, size, clear, setSize: flush first, then act on inner with the
 * read-ahead accounted for; ungetc steps back inside the read buffer
 * (-23 when the last byte taken is no longer there).
 * Release flushes, but cannot report an error: flush first where it
 * matters. className "BufStrm". */
typedef struct BufStrm {
    vek_u32 cls;            /* VEK_CLS_BUFSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    IStrm* inner;           /* one reference held */
    char* rd;               /* read buffer: bytes rdPos..rdLen not taken yet */
    char* wr;               /* write buffer: wrLen bytes not written yet */
    vek_s32 cap;            /* size of each buffer */
    vek_s32 rdPos;
    vek_s32 rdLen;
    vek_s32 wrLen;
    vek_s32 lastShort;      /* inner's last read returned fewer bytes than asked */
    vek_s32 rsv;            /* reserved, zero */
} BufStrm;

/* Null (and no reference taken) when inner is null (assertion "inner")
 * or memory ran out. */
VEK_API BufStrm* BufStrm_new(BufStrm* mem, IStrm* inner, vek_s32 bufSize);
VEK_API IStrm* BufStrm_xcreate__(BufStrm* mem, IStrm* inner, vek_s32 bufSize, const char* path, vek_s32 line);
/* Flushes, releases inner and the buffers, then the record as above. */
VEK_API void BufStrm_delete(BufStrm* obj);
/* Reads one line: its bytes without the line end (LF, or CR LF) into line,
 * terminated; at most cap - 1 bytes. Returns the line's length (>= 0;
 * a last line without a line end counts), -202 at the end of the stream
 * with nothing read, or -706 (VEK_ERR_LINE_LONG) when the line holds
 * more than cap - 1 bytes: those are stored and the rest of the line is
 * what the next call reads. cap must be at least 2 (-81). */
VEK_API vek_s32 BufStrm_readLine(IStrm* strm, char* line, vek_s32 cap);

/* ---- SockStrm ----
 * read: what has arrived (1..len bytes), waiting up to rdTmo ms for the
 * first; 0 when the socket ended, timed out or the wait was cancelled,
 * and SockStrm_lastErr tells which (-202 is never a socket's: a closed
 * peer is -851, a removed device -700). getc: the byte, or that code.
 * write/putc: everything within wrTmo ms: len, the count written before
 * the socket stopped, or the code when nothing was. flush: the socket's
 * drain (a serial port's transmitter empties). tell: the bytes read so far;
 * seek: -95 except to where the stream stands; ungetc: the last byte read
 * once; size: the bytes read so far; clear, setSize: -95.
 * className "SockStrm". */
typedef struct SockStrm {
    vek_u32 cls;            /* VEK_CLS_SOCKSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    ISock* sock;            /* one reference held */
    vek_s32 rdTmo;          /* ms a read waits (negative: no limit) */
    vek_s32 wrTmo;          /* ms a write may take */
    vek_s32 err;            /* what ended the last read or write, 0 if nothing */
    vek_s32 last;           /* the last byte read, -1 if none or given back */
    vek_s32 ungot;          /* 1 when last is to be read again */
    vek_s32 rsv;            /* reserved, zero */
    vek_s64 pos;            /* bytes read */
} SockStrm;

/* Null when sock is null (assertion "sock") or memory ran out. */
VEK_API SockStrm* SockStrm_new(SockStrm* mem, ISock* sock, vek_s32 rdTmo, vek_s32 wrTmo);
VEK_API IStrm* SockStrm_xcreate__(SockStrm* mem, ISock* sock, vek_s32 rdTmo, vek_s32 wrTmo, const char* path,
                                  vek_s32 line);
/* Releases the socket, then the record as above. */
VEK_API void SockStrm_delete(SockStrm* obj);
/* The code that ended the last read or write (0 if none). */
VEK_API vek_s32 SockStrm_lastErr(IStrm* strm);
/* Changes the time-outs. */
VEK_API void SockStrm_setTmo(IStrm* strm, vek_s32 rdTmo, vek_s32 wrTmo);

VEK_END_DECLS

#endif /* VEK_BUFSTRM_H */
