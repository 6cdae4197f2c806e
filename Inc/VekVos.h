/*
 * VekVos.h - library lifecycle, runtime configuration, assertions and the
 * process-wide utilities (handles, clock, random numbers, call stacks).
 *
 * Load level: the library starts the OS layer, the clock, the random seed,
 * the trace manager, the heap monitor and the debug manager when it is
 * loaded, and stops them when it is unloaded. Application level: call
 * BaseLib_init once on the primary thread (the one that loaded the library),
 * use any family from any thread, then call BaseLib_exit, which stops the
 * services in reverse order and writes the leak report.
 */
#ifndef VEK_VOS_H
#define VEK_VOS_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- lifecycle ---- */

/* Counted: only the first call starts the services; returns 0. Primary thread only. */
VEK_API vek_s32 BaseLib_init(void);
/* Counted the other way: only the call that brings the count to zero stops
 * the services. More exits than inits is the assertion "ret >= 0". */
VEK_API void BaseLib_exit(void);

/* The library's version text, e.g. "1.0.0". */
VEK_API const char* vek_version(void);
/* The folder that holds the library's own file, without a trailing
 * separator: UTF-8 and UTF-16 forms. Empty before load / after unload. */
VEK_API const char* vek_base_fld(void);
VEK_API const vek_wchar* vek_base_fldw(void);

/* ---- runtime configuration ----
 * Three sources: system ("VekSys.ini"), debug ("VekDbg.ini") and trace
 * ("VekTrc.ini"), beside the library. A source is a file path and/or an
 * in-memory INI text; the path wins when both are set. */
#define VEK_RTC_SYS 0
#define VEK_RTC_DBG 1
#define VEK_RTC_TRC 2
/* Replaces a source: path (UTF-8, null for none) and text (null for none;
 * txtLen negative means up to the terminator). The strings are copied.
 * Returns 0, VEK_ERR_BAD_ARG for an unknown source, or VEK_ERR_FULL (the
 * source unchanged) when memory runs out. */
VEK_API vek_s32 vek_rtc_set_src(vek_s32 source, const char* path, const char* txt, vek_s32 txtLen);

/* Reading a source, vek_<source>_rtc_<op> (the trace source has no value
 * operations; sect and key are INI section and key names):
 *   _file  the source's path or null
 *   _txt   the source's in-memory text or null
 *   _strm  a new read stream over the source, or null; the caller releases it.
 *          The debug source falls back to the system source when it has
 *          neither path nor text.
 *   _sval  copies the value (or def, "" for null, when the source cannot be
 *          opened) into buf of size bytes; returns buf
 *   _nval  atol of the value; def only when the source cannot be opened
 *   _bval  "true"/"false" (any case), else atoi != 0; def only when the
 *          source cannot be opened
 * The _file and _txt texts are the library's, valid until the source is
 * replaced. */
VEK_API const char* vek_sys_rtc_file(void);
VEK_API const char* vek_dbg_rtc_file(void);
VEK_API const char* vek_trc_rtc_file(void);
VEK_API const char* vek_sys_rtc_txt(void);
VEK_API const char* vek_dbg_rtc_txt(void);
VEK_API const char* vek_trc_rtc_txt(void);
VEK_API IStrm* vek_sys_rtc_strm(void);
VEK_API IStrm* vek_dbg_rtc_strm(void);
VEK_API IStrm* vek_trc_rtc_strm(void);
VEK_API char* vek_sys_rtc_sval(const char* sect, const char* key, const char* def, char* buf, vek_s32 size);
VEK_API char* vek_dbg_rtc_sval(const char* sect, const char* key, const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 vek_sys_rtc_nval(const char* sect, const char* key, vek_s32 def);
VEK_API vek_s32 vek_dbg_rtc_nval(const char* sect, const char* key, vek_s32 def);
VEK_API vek_bool vek_sys_rtc_bval(const char* sect, const char* key, vek_bool def);
VEK_API vek_bool vek_dbg_rtc_bval(const char* sect, const char* key, vek_bool def);

/* ---- assertions and faults ---- */

/* Full assertion failure: trace record with the call stack, then the fault
 * dialog. Returns when the dialog's answer is Retry or Ignore. */
VEK_API void vek_assert__(const char* expr, const char* path, vek_s32 line);
/* Bare assertion failure: the fault dialog only (no trace, no heap use). */
VEK_API void low_assert__(const char* expr, const char* path, vek_s32 line);
/* Fatal assertion of platform code: a box with OK only, then vek_exit(). */
VEK_API VEK_NORETURN void win_assert__(const char* expr, const char* path, vek_s32 line);

#define VEK_ASSERT(e) ((e) ? (void)0 : vek_assert__(#e, __FILE__, __LINE__))
#define LOW_ASSERT(e) ((e) ? (void)0 : low_assert__(#e, __FILE__, __LINE__))

/* Answers of the fault dialog. */
#define VEK_FAULT_ABORT  3  /* the process ends at once with exit code 3 */
#define VEK_FAULT_RETRY  4  /* break into an attached debugger, then return */
#define VEK_FAULT_IGNORE 5  /* return */

/* A process-wide fault hook: called by al_fault_proc with the dialog's
 * caption and text instead of showing the dialog; its result is the answer
 * (VEK_FAULT_*). al_set_fault_hook installs hook (null removes it) and
 * returns the previous one. Without a hook the environment variable
 * VEK_FAULT_ACTION ("abort", "retry", "ignore") decides; without both, the
 * answer is Ignore on POSIX and the message box on Windows. */
typedef vek_s32 (*vek_fault_hook)(const char* caption, const char* text);
VEK_API vek_fault_hook al_set_fault_hook(vek_fault_hook hook);

/* The fault dialog: caption "<exe> FAULT ERROR", text "<exe path>\n\n" then
 * the formatted message. Returns the answer (Retry or Ignore); Abort does
 * not return. */
VEK_API vek_s32 al_fault_proc(const char* fmt, ...) VEK_PRINTF(1, 2);

/* Object-model failures: "@@@ obj crash <file>[<line>]" then the assertion
 * "obj crash"; the filler of empty operation-table slots asserts
 * "NULL vfunc called". */
VEK_API void ObjUtil_crashExit(const char* path, vek_s32 line);
VEK_API vek_s32 ObjUtil_vfuncNull(void);

/* Crashes the process on purpose (endless read of address zero); should
 * that ever return, the process exits with status 51. */
VEK_API VEK_NORETURN void vek_exit(void);

/* ---- process utilities ---- */
VEK_API vek_u32 vek_glb_hnd(void);    /* new process-wide number, never 0 nor 0xFFFFFFFF */
VEK_API vek_u32 vek_main_tid(void);   /* main thread id; 0 outside the load level */
VEK_API vek_u32 vek_msec(void);       /* milliseconds of the OS clock */
VEK_API void vek_sleep(vek_u32 ms);   /* sleeps ms milliseconds (al_sleep) */
/* The process-wide pseudo-random generator, state = state x 1103515245 +
 * 12345 (mod 2^32), seeded with the time when the library loads: srand sets
 * the state, rand gives (state >> 16) & 0x7FFF (0 to 32767), rand_buf fills
 * n bytes of buf with the low bytes of successive rand results. Not for
 * secrets; threads drawing at once may get the same number. */
VEK_API void vek_srand(vek_u32 seed);
VEK_API vek_s32 vek_rand(void);
VEK_API void vek_rand_buf(void* buf, vek_s32 n);

/* ---- call stacks ----
 * vek_get_call_stack: stores up to capa return addresses of the calling
 *   thread, skipping skip frames above the caller; returns how many.
 * vek_fmt_call_stack: appends one line per address to out
 *   ("<prefix><file>[<line>]: <func>()" or "<prefix><addr> (file/line unkn): <func>()");
 *   returns the characters appended.
 * vek_out_call_stack: captures the current stack and appends it to out: a
 *   non-zero faultAddr first, frames of the function named skipFunc (and of
 *   vek_out_call_stack itself) left out but counted, at most maxFrames
 *   (less than 1: 128) followed by "(discard for limit, max=N)" when cut;
 *   returns the characters appended, 0 without symbol support. */
VEK_API vek_s32 vek_get_call_stack(void** addrs, vek_s32 capa, vek_s32 skip);
VEK_API vek_s32 vek_fmt_call_stack(TinyStr* out, void* const* addrs, vek_s32 n, const char* prefix);
VEK_API vek_s32 vek_out_call_stack(TinyStr* out, void* faultAddr, const char* skipFunc,
                                   const char* prefix, vek_s32 maxFrames);

/* ---- environment record ---- */
typedef struct VekEnvInfo {
    char osName[96];     /* OS version name, e.g. "Linux 6.1.0" or "Windows 10" */
    vek_s32 wordBits;    /* the system's word width: 32 or 64 */
    vek_u32 build;       /* OS build number */
    char osExtra[96];    /* the OS's additional version text */
    char language[64];   /* display name of the user's language */
    double memTotalMB;   /* physical memory in megabytes */
    double memFreeMB;
} VekEnvInfo;
/* Fills info; returns 0. */
VEK_API vek_s32 vek_env_info(VekEnvInfo* info);
/* Appends the environment record text that BaseLib_init traces; returns the
 * characters appended. */
VEK_API vek_s32 vek_env_text(TinyStr* out);

/* The event manager's counted start and stop (started by BaseLib_init). */
VEK_API vek_s32 EvtMng_init(void);
VEK_API vek_s32 EvtMng_exit(void);

VEK_END_DECLS

#endif /* VEK_VOS_H */
