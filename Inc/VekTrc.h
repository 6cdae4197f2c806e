/*
 * VekTrc.h - the trace manager and the debug manager.
 *
 * Trace records go to the sink chosen by "TrcType" in section "VekTrc" of the
 * debug configuration ("VekDbg.ini"):
 *   "SysTrc"   the system's debug output (OutputDebugString on Windows,
 *              standard error on POSIX);
 *   "FileTrc"  a file ("FileName" of section "FileTrc", default
 *              "VekTrc.dlog" in the library's folder), one record per line
 *              with time and thread id, CR LF line ends.
 * Any other type leaves tracing disabled. A listener installed with
 * tout_set_sink receives every record as well, whatever the type.
 *
 * The trace file: before BaseLib_init and after BaseLib_exit every record
 * opens, appends and closes it. While BaseLib_init holds it open (trace
 * holding), records are buffered and reach the file when a record's level
 * is at most "FlushLev" (section "FileTrc", default 1), at most "FlushMs"
 * milliseconds after they were written (default 100), on tout_flush, at
 * BaseLib_exit and on the fault path (a failed assertion, the fault
 * dialog, vek_exit), before any dialog is shown or the process ends.
 *
 * Asynchronous sink: "AsyncQue" in section "VekTrc" (records, at most
 * 65536; 0 or absent: synchronous) makes BaseLib_init start a writer thread;
 * a trace call then only copies its record into a ring. "AsyncFull" says
 * what a call does when the ring is full: "Block" (waits for room),
 * "DropNew" (the default: the new record is dropped, so the first errors of
 * a burst survive) or "DropOld" (the oldest queued record is dropped). The
 * writer reports drops in the trace itself ("VekTrc: <n> records dropped,
 * ring full"); tout_write_info counts them. The ring is drained by tout_flush, at
 * BaseLib_exit and on the fault path. A listener is always called on the
 * thread that writes the record, before the call returns.
 *
 * Trace relay: "RelayPipe" in section "VekTrc" of "VekTrc.ini" (or of the
 * file given to DbgMng_cfgByFile, read again when it changes) names an
 * endpoint (VekPipe.h) that receives every record too, as one pm_*
 * message (type: the record's level; payload: its text), whatever
 * "TrcType" says; `vektool trace listen NAME` prints them. A trace call
 * never waits for the relay: it queues its record (up to 4096) for a
 * thread of the library that sends them. Records that find the queue full,
 * or nothing listening at the name, are dropped and counted (relaySent,
 * relayDropped of tout_write_info); the connection is tried again at the
 * next record, at most every 200 ms. BaseLib_exit gives what is queued a
 * second to go out.
 *
 * The debug manager decides which records pass: each record carries a
 * module, a field and a level (1 = most important); it passes when its level
 * does not exceed the limit configured for (module, field), else for the
 * module, else the default limit (3 until configured). BaseLib_init loads
 * the limits from "VekTrc.ini"; while the library runs, the file given last
 * to DbgMng_cfgByFile is watched and loaded again whenever it changes.
 *
 * Call sites: VEK_TRACE keeps one VekTrcSite per call site. The site
 * caches the decision for the current configuration generation
 * (vek_trc_gen), so a call that does not pass costs one load and one
 * compare and evaluates none of its arguments; any change of the limits,
 * the sink or the listener starts a new generation and every site decides
 * again at its next call.
 */
#ifndef VEK_TRC_H
#define VEK_TRC_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- trace records ----
 * A record is built per thread: tout_beg starts it (returns 1 when the
 * record will be written, 0 when tracing is off or the debug manager
 * filters it out; tout_strx/tout_endx are then harmless no-ops),
 * tout_strx appends text (len negative: up to the terminator) and returns
 * the characters appended, tout_endx writes the record and returns its
 * length. */
VEK_API vek_s32 tout_beg(const char* path, vek_s32 line, vek_s32 module, vek_s32 field, vek_s32 level);
VEK_API vek_s32 tout_strx(const char* text, vek_s32 len);
VEK_API vek_s32 tout_endx(void);

/* One formatted record through the trace (not filtered by module); returns
 * the length written, 0 when tracing is off. */
VEK_API vek_s32 vek_printf(const char* fmt, ...) VEK_PRINTF(1, 2);
/* Formatted text straight to the system's debug output (not a trace
 * record; works before the trace manager starts). On POSIX the output goes
 * to standard error only when the environment variable VEK_DEBUG_OUTPUT is
 * set to a value other than "0", since there is no debugger-only channel. */
VEK_API vek_s32 sys_printf(const char* fmt, ...) VEK_PRINTF(1, 2);

/* ---- records of the library's own module (10) ----
 * base_log_data writes bytes of device traffic as one record, with CR and
 * LF shown as "<CR>" and "<LF>" and other control bytes as "<xx>" (two hex
 * digits), so a response's line structure stays visible on one line.
 * base_log_dump writes a title and a hex dump (vek_dump_str) of len bytes.
 * base_log_printf writes a formatted record. Each returns the length
 * written, 0 when the record does not pass; a negative len means up to the
 * terminator. */
VEK_API vek_s32 base_log_data(const char* path, vek_s32 line, vek_s32 field, vek_s32 level,
                              const char* text, vek_s32 len);
VEK_API vek_s32 base_log_dump(const char* path, vek_s32 line, vek_s32 field, vek_s32 level,
                              const char* title, const void* data, vek_s32 len);
VEK_API vek_s32 base_log_printf(const char* path, vek_s32 line, vek_s32 field, vek_s32 level,
                                const char* fmt, ...) VEK_PRINTF(5, 6);

/* ---- byte dumps ----
 * vek_dump_data writes title (null: none) and a hex dump of len bytes as
 * one record, not filtered by module (like vek_printf); returns its length.
 * vek_dump_str appends the dump to out: lines of 16 bytes, "%04X  " offset,
 * the bytes in hex (a wider gap after the eighth), two spaces and the bytes
 * as text with "." for anything outside printable ASCII; lines end in LF.
 * vek_esc_str appends the escaped form of base_log_data. Both return the
 * characters appended, or -201 when out could not grow (out is then as it
 * was before the call). */
VEK_API vek_s32 vek_dump_data(const char* title, const void* data, vek_s32 len);
VEK_API vek_s32 vek_dump_str(VekStr* out, const void* data, vek_s32 len);
VEK_API vek_s32 vek_esc_str(VekStr* out, const void* data, vek_s32 len);

/* 1 when the trace manager started with a sink (the trace-enabled flag). */
VEK_API vek_s32 tout_enabled(void);

/* A listener that receives every written record (text without a line end).
 * Installing one makes records pass even when no sink is configured.
 * Null removes it. Returns the previous listener. Called on the thread
 * that writes the record, one call at a time. */
typedef void (*vek_trc_sink)(void* ctx, const char* text, vek_s32 len);
VEK_API vek_trc_sink tout_set_sink(vek_trc_sink sink, void* ctx);

/* Sends the trace to the file path (UTF-8; records are appended) from now
 * on, as "TrcType=FileTrc" with that "FileName" would, and holds the file
 * open (buffered, see above) until the next call, BaseLib_exit or the
 * unload; null sends records nowhere (the listener still receives them).
 * Returns 0, or VEK_ERR_FILE_OPEN when the file cannot be opened (the
 * trace then stays as it was). */
VEK_API vek_s32 tout_set_file(const char* path);

/* What a full asynchronous ring does (tout_set_async, "AsyncFull"). */
#define VEK_TRC_BLOCK    0  /* the caller waits for room */
#define VEK_TRC_DROP_NEW 1  /* the new record is dropped */
#define VEK_TRC_DROP_OLD 2  /* the oldest queued record is dropped */

/* Switches the asynchronous sink: capacity records (1 to 65536) with the
 * policy for a full ring, or capacity 0 for synchronous writing (what is
 * queued is written first). The writer thread runs until BaseLib_exit or
 * the next switch. Returns 0, or -81 for a capacity or policy out of range
 * (nothing changes). */
VEK_API vek_s32 tout_set_async(vek_s32 capacity, vek_s32 policy);
/* Writes what the asynchronous ring holds and flushes the trace file;
 * returns 0. */
VEK_API vek_s32 tout_flush(void);

/* What the trace manager runs with. The record's layout is part of the
 * ABI of 1.0 and never grows: what came later is in VekTrcWriteInfo. */
typedef struct VekTrcInfo {
    char type[16];        /* "SysTrc", "FileTrc" or "" */
    char fileName[1024];  /* trace file of "FileTrc", else "" */
    vek_s32 holdConn;     /* buffer records while no connection is up */
    vek_s32 bufQueSize;   /* that buffer's capacity in records (at most 10000) */
    vek_s32 holding;      /* trace holding started by BaseLib_init */
} VekTrcInfo;
VEK_API vek_s32 tout_info(VekTrcInfo* info);

/* How records are written: the asynchronous ring and the file's flushing.
 * The caller sets size to sizeof(VekTrcWriteInfo) before the call, so that
 * a later release may append fields and still fill what an older program
 * knows. */
typedef struct VekTrcWriteInfo {
    vek_u32 size;         /* in: sizeof the record the caller has */
    vek_s32 asyncQue;     /* capacity of the asynchronous ring, 0: synchronous */
    vek_s32 asyncFull;    /* its policy, VEK_TRC_BLOCK ... */
    vek_s32 flushLev;     /* records up to this level reach the file at once */
    vek_s32 flushMs;      /* buffered records are flushed at most this late */
    vek_s64 dropped;      /* records the asynchronous ring dropped so far */
    vek_s64 relaySent;    /* records the relay sent so far */
    vek_s64 relayDropped; /* records the relay dropped so far (queue full, nothing listening) */
} VekTrcWriteInfo;
/* Fills the first info->size bytes of info (the size field kept); 0, or
 * -81 when info is null or size is smaller than the size field. */
VEK_API vek_s32 tout_write_info(VekTrcWriteInfo* info);

/* ---- debug manager ---- */
VEK_API vek_s32 DbgMng_init(void);  /* counted; returns the count */
VEK_API vek_s32 DbgMng_exit(void);  /* counted; below zero asserts, -1 */
/* Reads the output limits from an INI file: section "DbgMng" key "Level"
 * (default limit), sections "Mod<N>" with key "Level" (limit of module N)
 * and keys "Fld<M>" (limit of field M of module N). The file's limits
 * replace every earlier one (a limit the file does not name falls back to
 * the module's, then the default; a file without "[DbgMng] Level" leaves
 * the default at 3). Returns 0, or VEK_ERR_FILE_OPEN when the file cannot
 * be read (limits unchanged). While BaseLib_init is in force, the file is
 * watched from then on and read again whenever it changes. */
VEK_API vek_s32 DbgMng_cfgByFile(const char* path);
/* Sets a limit: module negative = the default limit; field negative = the
 * module's limit. At most 1024 module and field limits are kept; beyond
 * that a limit is ignored (with a trace record). */
VEK_API void DbgMng_setLevel(vek_s32 module, vek_s32 field, vek_s32 level);
/* 1 when a record of (module, field, level) passes; ctx is reserved (null). */
VEK_API vek_s32 DbgMng_enabled__(const void* ctx, vek_s32 module, vek_s32 field, vek_s32 level);

/* A formatted trace record with the caller's position, filtered by the
 * debug manager (tout_printf) or not (tout_printfx, for a caller that has
 * decided already); the length written or 0. */
VEK_API vek_s32 tout_printf(const char* path, vek_s32 line, vek_s32 module, vek_s32 field,
                            vek_s32 level, const char* fmt, ...) VEK_PRINTF(6, 7);
VEK_API vek_s32 tout_printfx(const char* path, vek_s32 line, vek_s32 module, vek_s32 field,
                             vek_s32 level, const char* fmt, ...) VEK_PRINTF(6, 7);

/* ---- call sites ----
 * A site's state is the generation it decided in, with bit 0 set when its
 * records pass. vek_trc_gen is even and never 0, so a new site (state 0)
 * decides at its first call. tout_site decides (and caches) for the
 * current generation; it returns 1 when the site's records pass. */
typedef struct VekTrcSite {
    vek_u32 state;
} VekTrcSite;
extern VEK_API vek_u32 vek_trc_gen;
VEK_API vek_s32 tout_site(VekTrcSite* site, vek_s32 module, vek_s32 field, vek_s32 level);

#if defined(__GNUC__)
#define VEK_TRC_LOAD(p) __atomic_load_n((p), __ATOMIC_RELAXED)
#else
#define VEK_TRC_LOAD(p) (*(const volatile vek_u32*)(p))
#endif
/* 1 when site passes records of (module, field, level); when the site
 * decided in this generation and found "off", the arguments are not
 * evaluated. */
#define VEK_TRC_ON(site, module, field, level)                    \
    (VEK_TRC_LOAD(&(site)->state) != VEK_TRC_LOAD(&vek_trc_gen) && \
     tout_site((site), (module), (field), (level)))

/* A formatted record from this call site; nothing is evaluated when the
 * site's records do not pass. A statement. */
#define VEK_TRACE(module, field, level, ...)                                             \
    do {                                                                                 \
        static VekTrcSite vek_trc_site_;                                                 \
        if (VEK_TRC_ON(&vek_trc_site_, (module), (field), (level))) {                    \
            tout_printfx(__FILE__, __LINE__, (module), (field), (level), __VA_ARGS__);   \
        }                                                                                \
    } while (0)

VEK_END_DECLS

#endif /* VEK_TRC_H */
