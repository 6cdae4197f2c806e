/*
 * VekStrm.h - the stream classes: MemStrm (growable, in memory), FileStrm
 * (one OS-layer file), StrStrm (read-only, over a caller's bytes),
 * CstrStrm (over a VekStr), EncpStrm (a window of another stream),
 * TestStrm (a memory stream that misbehaves on purpose, for tests) and
 * TrcStrm (write-only, into the trace).
 *
 * Every class follows the object model of BaseItf.h. The records are public
 * so that callers can build streams in their own storage:
 *     Cls_new(storage or NULL, ...)   builds the record (allocating it when
 *                                     storage is NULL) with count 0 and
 *                                     returns the record;
 *     Cls_xcreate...__(..., path, line)
 *                                     the same, then one reference; returns
 *                                     the IStrm interface. path and line
 *                                     name the caller for diagnostics;
 *     Cls_delete(record)              cleans up and frees the record only
 *                                     when _new allocated it.
 * VEK_OBJ_ITF(IStrm, &record) is the interface of a record. Functions that
 * take an IStrm* end the process (ObjUtil_crashExit) when it is not a live
 * object of their class.
 */
#ifndef VEK_STRM_H
#define VEK_STRM_H

#include "VekType.h"
#include "AlOs.h"
#include "BaseItf.h"
#include "VekStr.h"
#include "VekData.h"
#include "VekTrc.h"

VEK_BEGIN_DECLS

/* Class numbers (the class word without VEK_CLS_OWNED). */
#define VEK_CLS_MEMSTRM  0x3B72EAu
#define VEK_CLS_FILESTRM 0xD732EDu
#define VEK_CLS_STRSTRM  0xDA2063u
#define VEK_CLS_CSTRSTRM 0x209F1Bu
#define VEK_CLS_TRCSTRM  0x7C3A11u
#define VEK_CLS_ENCPSTRM 0x5E1C7Au
#define VEK_CLS_TESTSTRM 0x7E57A9u

/* ---- MemStrm ----
 * A chain of VekData blocks of blk bytes each, grown one block at a time as
 * bytes are written and never reallocated. Every block but the last is
 * full; len is the sum of the blocks' len; the position is off, which lies
 * curOff bytes into block cur. A stream with no blocks has hdr, tail and cur
 * null and len, off, curOff 0. seek: -81 for a bad origin or a target
 * outside 0..len. setSize: -81 for a negative length; a truncation leaves the
 * position at 0. className "MemStrm". */
typedef struct MemStrm {
    vek_u32 cls;            /* VEK_CLS_MEMSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    VekData* hdr;           /* first block or null */
    VekData* tail;          /* last block or null */
    VekData* cur;           /* block that holds the position, or null */
    vek_s64 len;            /* data bytes in the stream */
    vek_s64 off;            /* position */
    vek_s32 curOff;         /* offset of the position inside cur */
    vek_s32 blk;            /* size of new blocks; 1024 when created with <= 0 */
    vek_s32 rsv[2];         /* reserved, zero */
} MemStrm;

/* An empty stream whose blocks hold blkSize bytes (1024 when blkSize <= 0),
 * built in mem or allocated when mem is null; the _xcreatex__ form adds the
 * first reference and returns the interface, which the caller releases.
 * Null only when the record cannot be allocated. */
VEK_API MemStrm* MemStrm_new(MemStrm* mem, vek_s32 blkSize);
VEK_API IStrm* MemStrm_xcreatex__(MemStrm* mem, vek_s32 blkSize, const char* path, vek_s32 line);
/* Frees the whole chain, then the record as above. */
VEK_API void MemStrm_delete(MemStrm* obj);
/* Empties the stream, then takes over the chain starting at first (null
 * leaves it empty): position 0, length the sum of the blocks' len. The
 * stream owns and frees the blocks from then on. Returns 0. */
VEK_API vek_s32 MemStrm_attach(IStrm* strm, VekData* first);
/* Hands the chain back without freeing it (the caller frees it with
 * VekData_delete) and leaves the stream empty. Returns the first block or
 * null. */
VEK_API VekData* MemStrm_detach(IStrm* strm);

/* ---- FileStrm ----
 * Forwards every operation to the AlFile functions (AlOs.h) and adds no
 * buffering. Without a file every data operation returns -23. putc: -103
 * when nothing was written; getc: -202 at the end; ungetc seeks by -1 from
 * the current position; setSize and clear: -95 (files are not truncated
 * through a stream); className "FileStrm". OS errors pass through. */
typedef struct FileStrm {
    vek_u32 cls;            /* VEK_CLS_FILESTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    AlFile* file;           /* the open file, or null */
} FileStrm;

/* A stream without a file. */
VEK_API FileStrm* FileStrm_new(FileStrm* mem);
/* Checks path with vek_path_verify__. A null or empty path gives a stream
 * without a file. Otherwise mode must be a C mode text ("r", "rb", "wb",
 * ...; assertion "!str_noo(mode)") and the file is opened; when it cannot
 * be, or the path's form is bad, the result is null, *err (when err is not
 * null) is -64 and no object is made (-201 when the record cannot be
 * allocated). On success *err is 0. */
VEK_API IStrm* FileStrm_xcreatex__(FileStrm* mem, const char* path, const char* mode, vek_s32* err,
                                   const char* srcPath, vek_s32 line);
/* Closes the file if one is open, then frees the record as above. */
VEK_API void FileStrm_delete(FileStrm* obj);
/* Closes an open file, then opens path with mode; both must be non-empty
 * (assertion "!str_noo(fileName) && !str_noo(mode)", then -81 and nothing
 * changes). 0, or -64 when the file cannot be opened or the path's form is
 * bad (the stream is then without a file). */
VEK_API vek_s32 FileStrm_open(IStrm* strm, const char* fileName, const char* mode);
/* Closes the file: AlFile_close's result, 0 when none was open. */
VEK_API vek_s32 FileStrm_close(IStrm* strm);
/* Takes over an open file (assertion "file" and -81 for null), closing
 * the stream's current one first (assertion "ret == 0" when that close
 * fails). Returns 0. */
VEK_API vek_s32 FileStrm_attach(IStrm* strm, AlFile* file);
/* Gives the file back to the caller, who then closes it; the stream is left
 * without a file. Null when there was none. */
VEK_API AlFile* FileStrm_detach(IStrm* strm);

/* Checks the form of a UTF-8 path before it is opened: not longer than
 * 4095 bytes, valid UTF-8, no control characters (below 0x20) and none of
 * < > " | * ? (the '?' of a leading \\?\ prefix excepted). A null or
 * empty path has nothing to check. Returns 1 when the form is fine;
 * otherwise traces the path, raises the assertion "path form" at
 * srcPath:line and returns 0. */
VEK_API vek_s32 vek_path_verify__(const char* path, const char* srcPath, vek_s32 line);

/* ---- StrStrm ----
 * Read-only over a caller's bytes, which it never copies, changes or frees.
 * Positions and lengths are 32-bit; seek uses the low 32 bits of its offset
 * and answers -9 for a target outside 0..length (-81 for a bad origin).
 * putc, write, flush, clear and setSize raise the assertion "StrStrm is
 * read-only" and return -94. Every operation but the first three asserts
 * "_this->data" (after StrStrm_detach) and then acts as on an empty text.
 * className "StrStrm". */
typedef struct StrStrm {
    vek_u32 cls;            /* VEK_CLS_STRSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    const char* data;       /* the caller's bytes; a shared "" when none; null after detach */
    vek_s32 len;            /* bytes in data */
    vek_s32 pos;            /* read position, 0 to len */
    vek_s32 rsv[2];         /* reserved, zero */
} StrStrm;

/* A stream over the shared empty text. */
VEK_API StrStrm* StrStrm_new(StrStrm* mem);
/* StrStrm_new, then StrStrm_attach when buf is not null. */
VEK_API IStrm* StrStrm_xcreate__(StrStrm* mem, const char* buf, vek_s32 len, const char* path,
                                 vek_s32 line);
/* Reads buf from now on: len bytes, or up to its terminating zero when len
 * is negative; a null buf is the shared empty text. Position 0; returns 0. */
VEK_API vek_s32 StrStrm_attach(IStrm* strm, const char* buf, vek_s32 len);
/* Returns the bytes and leaves the stream with data null, length and
 * position 0. */
VEK_API const char* StrStrm_detach(IStrm* strm);
/* With a buffer the same as StrStrm_attach; with null the position goes
 * back to 0 over the same bytes. Returns 0. */
VEK_API vek_s32 StrStrm_reset(IStrm* strm, const char* buf, vek_s32 len);
/* Clears the class word and frees the record as above; the bytes stay. */
VEK_API void StrStrm_delete(StrStrm* obj);

/* ---- CstrStrm ----
 * Read-write over a VekStr the caller owns (borrowed, never freed): bytes
 * written land in the string, which grows as needed and stays terminated;
 * writing past its end makes the length the new position; when the string
 * cannot grow (memory ran out) putc and write return -201 and change
 * nothing. Without a
 * string: putc, write, ungetc, clear and setSize return -1, getc -202,
 * read 0, size 0, seek 0. A target outside 0..length is -9 for seek. A
 * position beyond the string's length (the string changed behind the
 * stream's back) is the assertion "_this->pos <= VekStr_len(_this->str)"
 * in getc, read and write, which then go on from the string's end.
 * setSize truncates and puts the position at 0. className "CstrStrm". */
typedef struct CstrStrm {
    vek_u32 cls;            /* VEK_CLS_CSTRSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    VekStr* str;            /* the string worked on, or null */
    vek_s32 pos;            /* byte offset in the string, 0 to its length */
} CstrStrm;

/* A stream on str (or none) at position 0; a str that is not a live VekStr
 * is the assertion "!str || (str->magic & 0xFFFFFF) == VEKSTR_MARK" and the
 * stream is left without a string. */
VEK_API CstrStrm* CstrStrm_new(CstrStrm* mem, VekStr* str);
/* CstrStrm_new, then one reference. */
VEK_API IStrm* CstrStrm_xcreate__(CstrStrm* mem, VekStr* str, const char* path, vek_s32 line);
/* Works on str from position 0; returns 0. */
VEK_API vek_s32 CstrStrm_attach(IStrm* strm, VekStr* str);
/* Returns the string and leaves the stream without one, at position 0. */
VEK_API VekStr* CstrStrm_detach(IStrm* strm);
/* Clears the class word and frees the record as above; the string stays. */
VEK_API void CstrStrm_delete(CstrStrm* obj);

/* ---- TrcStrm ----
 * Write-only into the trace: the bytes written are cut into lines and each
 * line (without its CR LF or LF) becomes one record of (module, field,
 * level), filtered like VEK_TRACE (the decision is cached per configuration
 * generation). A line still open is written by flush and when the stream is
 * destroyed; a line longer than 4096 bytes is written in pieces of that
 * size. Lines that do not pass cost no formatting. getc and read find the
 * end (-202, 0); ungetc -23; seek, clear and setSize -95; tell and size
 * count the bytes written. className "TrcStrm". */
typedef struct TrcStrm {
    vek_u32 cls;            /* VEK_CLS_TRCSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    vek_s32 module, field, level;
    VekTrcSite site;
    vek_s64 written;        /* bytes written so far */
    char* line;             /* the open line (OS-layer allocation), or null */
    vek_s32 lineLen;
    vek_s32 lineCap;
} TrcStrm;

/* Makes a trace stream whose lines become records of module, field and
 * level, in mem or (mem null) allocated; the stream, null when out of
 * memory. */
VEK_API TrcStrm* TrcStrm_new(TrcStrm* mem, vek_s32 module, vek_s32 field, vek_s32 level);
/* TrcStrm_new, then one reference. */
VEK_API IStrm* TrcStrm_xcreate__(TrcStrm* mem, vek_s32 module, vek_s32 field, vek_s32 level,
                                 const char* path, vek_s32 line);
/* Writes the open line, clears the class word and frees the record as
 * above. */
VEK_API void TrcStrm_delete(TrcStrm* obj);
/* ---- EncpStrm ----
 * A window of another stream (the inner one): the len bytes from offset off
 * of inner, seen as a stream of their own whose position 0 is inner's off.
 * Reads end at the window's end (or inner's, when that comes first) and
 * writes stay inside it: a write or putc that would pass the end returns
 * VEK_ERR_FULL and writes nothing. A window opened with len negative
 * reaches to inner's end wherever that is, so writes at its end extend
 * inner. The window keeps its own position and moves inner to it before
 * each read or write, so inner may be used (and moved) by others between
 * calls; inner's errors pass through. size is the part of the window that
 * inner holds; seek takes targets 0..size (origin 2 counts from size) and
 * answers VEK_ERR_BAD_ARG otherwise; ungetc moves the position back (-23
 * at 0). setSize and clear truncate inner at off + the new length in an
 * open window (position 0 afterwards) and return VEK_ERR_NOT_SUPPORTED in
 * a fixed one (unless nothing would be cut: 0). flush is inner's.
 * Without an inner stream every operation returns -23 (size and tell 0).
 * className "EncpStrm". */
typedef struct EncpStrm {
    vek_u32 cls;            /* VEK_CLS_ENCPSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    IStrm* inner;           /* the stream windowed (one reference held), or null */
    vek_s64 off;            /* where the window starts in inner */
    vek_s64 len;            /* the window's length; negative: to inner's end */
    vek_s64 pos;            /* the position inside the window */
} EncpStrm;

/* A window of inner from off, len bytes long (negative: open), holding one
 * reference on inner; built in mem or allocated when mem is null (null
 * when that fails). A null inner is the assertion "inner" (the stream is
 * then without one); a negative off the assertion "off >= 0" (0 is used).
 * The _xcreatex__ form adds the first reference and returns the interface. */
VEK_API EncpStrm* EncpStrm_new(EncpStrm* mem, IStrm* inner, vek_s64 off, vek_s64 len);
VEK_API IStrm* EncpStrm_xcreatex__(EncpStrm* mem, IStrm* inner, vek_s64 off, vek_s64 len,
                                   const char* path, vek_s32 line);
/* Releases inner, then frees the record as above. */
VEK_API void EncpStrm_delete(EncpStrm* obj);

/* ---- TestStrm ----
 * A memory stream for tests that misbehaves as told, so that a reader or
 * a writer can be shown to cope with streams as they really are: short
 * reads and writes, a failure part way through, an early end. Without a
 * configuration it behaves exactly as a MemStrm holding the same bytes.
 * className "TestStrm". */
typedef struct TestStrmCfg {
    vek_s32 readChunk;    /* most bytes one read returns; 0 or less: no limit */
    vek_s32 writeChunk;   /* most bytes one write takes (it returns fewer); 0 or less: no limit */
    vek_s64 readFailAt;   /* reads fail once this many bytes were read; negative: never */
    vek_s64 writeFailAt;  /* writes fail once this many bytes were written; negative: never */
    vek_s64 eofAt;        /* reads find the end (0, getc -202) at this position; negative: never */
    vek_s32 err;          /* what a failing call returns; 0: VEK_ERR_ABORTED (-5) */
} TestStrmCfg;

/* Counted since the configuration was last set. */
typedef struct TestStrmStat {
    vek_s32 reads;        /* read calls */
    vek_s32 writes;       /* write calls */
    vek_s64 bytesRead;    /* bytes handed out by read and getc */
    vek_s64 bytesWritten; /* bytes taken by write and putc */
} TestStrmStat;

typedef struct TestStrm {
    vek_u32 cls;            /* VEK_CLS_TESTSTRM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IStrmVtbl* vtbl;
    MemStrm mem;            /* the bytes and the position */
    TestStrmCfg cfg;
    TestStrmStat stat;
} TestStrm;

/* A stream holding a copy of len bytes of data (negative len: up to its
 * terminator; null data: none) at position 0, without faults; built in mem
 * or allocated when mem is null. Null when memory runs out. The
 * _xcreatex__ form adds the first reference and returns the interface. */
VEK_API TestStrm* TestStrm_new(TestStrm* mem, const void* data, vek_s32 len);
VEK_API IStrm* TestStrm_xcreatex__(TestStrm* mem, const void* data, vek_s32 len, const char* path,
                                   vek_s32 line);
/* Frees the bytes, then the record as above. */
VEK_API void TestStrm_delete(TestStrm* obj);
/* Sets the faults (null: none) and starts the counts again, so the
 * failure limits count from now. Returns 0.
 * read: fails with err once readFailAt bytes were read, returns at most
 *   readChunk bytes, stops at eofAt and at the read limit (a read that
 *   reaches a limit is short; the next one ends or fails).
 * write: fails with err once writeFailAt bytes were written; takes at most
 *   writeChunk bytes and returns how many; a write that would pass the
 *   limit stores the bytes up to it and fails with err.
 * getc and putc follow the same limits one byte at a time. */
VEK_API vek_s32 TestStrm_setCfg(IStrm* strm, const TestStrmCfg* cfg);
/* The counts so far: 0. */
VEK_API vek_s32 TestStrm_getStat(IStrm* strm, TestStrmStat* out);
/* Copies up to len bytes from offset off of the stream's bytes into buf,
 * whatever the faults, without moving the position or counting: the bytes
 * copied; VEK_ERR_BAD_ARG for a negative off. */
VEK_API vek_s32 TestStrm_peek(IStrm* strm, vek_s64 off, void* buf, vek_s32 len);

VEK_END_DECLS

#endif /* VEK_STRM_H */
