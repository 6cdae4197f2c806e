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
 * The debug manager decides which records pass: each record carries a
 * module, a field and a level (1 = most important); it passes when its level
 * does not exceed the limit configured for (module, field), else for the
 * module, else the default limit (3 until configured).
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
/* One record of data for a field and level of the library's own module. */
VEK_API vek_s32 base_log_data(const char* path, vek_s32 line, vek_s32 field, vek_s32 level,
                              const char* text, vek_s32 len);
/* Formatted text straight to the system's debug output (not a trace
 * record; works before the trace manager starts). On POSIX the output goes
 * to standard error only when the environment variable VEK_DEBUG_OUTPUT is
 * set to a value other than "0", since there is no debugger-only channel. */
VEK_API vek_s32 sys_printf(const char* fmt, ...) VEK_PRINTF(1, 2);

/* 1 when the trace manager started with a sink (the trace-enabled flag). */
VEK_API vek_s32 tout_enabled(void);

/* A listener that receives every written record (text without a line end).
 * Installing one makes records pass even when no sink is configured.
 * Null removes it. Returns the previous listener. */
typedef void (*vek_trc_sink)(void* ctx, const char* text, vek_s32 len);
VEK_API vek_trc_sink tout_set_sink(vek_trc_sink sink, void* ctx);

/* What the trace manager runs with. */
typedef struct VekTrcInfo {
    char type[16];        /* "SysTrc", "FileTrc" or "" */
    char fileName[1024];  /* trace file of "FileTrc", else "" */
    vek_s32 holdConn;     /* buffer records while no connection is up */
    vek_s32 bufQueSize;   /* that buffer's capacity in records (at most 10000) */
    vek_s32 holding;      /* trace holding started by BaseLib_init */
} VekTrcInfo;
VEK_API vek_s32 tout_info(VekTrcInfo* info);

/* ---- debug manager ---- */
VEK_API vek_s32 DbgMng_init(void);  /* counted; returns the count */
VEK_API vek_s32 DbgMng_exit(void);  /* counted; below zero asserts, -1 */
/* Reads the output limits from an INI file: section "DbgMng" key "Level"
 * (default limit), sections "Mod<N>" with key "Level" (limit of module N)
 * and keys "Fld<M>" (limit of field M of module N). Returns 0, or
 * VEK_ERR_FILE_OPEN when the file cannot be read (limits unchanged). */
VEK_API vek_s32 DbgMng_cfgByFile(const char* path);
/* Sets a limit: module negative = the default limit; field negative = the
 * module's limit. */
VEK_API void DbgMng_setLevel(vek_s32 module, vek_s32 field, vek_s32 level);
/* 1 when a record of (module, field, level) passes; ctx is reserved (null). */
VEK_API vek_s32 DbgMng_enabled__(const void* ctx, vek_s32 module, vek_s32 field, vek_s32 level);

/* Convenience: a formatted trace record with the caller's position. */
VEK_API vek_s32 tout_printf(const char* path, vek_s32 line, vek_s32 module, vek_s32 field,
                            vek_s32 level, const char* fmt, ...) VEK_PRINTF(6, 7);
#define VEK_TRACE(module, field, level, ...) \
    tout_printf(__FILE__, __LINE__, (module), (field), (level), __VA_ARGS__)

VEK_END_DECLS

#endif /* VEK_TRC_H */
