/*
 * AlPlat.h - the platform contract of the portable layer (internal).
 *
 * win/ and posix/ implement every function declared here, file for file;
 * the portable layer (Src/) reaches the operating system only through these
 * functions and the public Al* layer. Nothing here is exported.
 *
 * The platform layer is the bottom of the library. It calls up into the
 * portable layer only for what is listed below: the entry points it exists
 * to call, and leaf services that never call back into the platform
 * function calling them. The trace, the assertion facility, the formatter,
 * strings and streams are not on the list: where the platform has a text
 * to report it hands it to a sink its caller passes down (sym_init), and
 * it formats with the C library. scripts/check-layers.sh holds the object
 * files of posix/ and win/ to the list.
 *
 * Calls up:
 *   vek::load_attach vek::load_detach  load and unload (BaseMain)
 *   vek::thrd_start vek::erp_wnd_disp  thread bodies; the erp wake window procedure
 *   al_malloc al_free                  the plain allocation of its own records
 *   vek_malloc__ vek_free__            the POSIX waitable objects, which stand
 *                                      in for kernel handles: a handle never
 *                                      closed shows in the leak report
 *   utf8_buf_to_wcs_str wcs_buf_to_utf8_str  UTF-8 / UTF-16 of buffers
 *   vek::utf8_to_utf16 vek::utf16_to_utf8  UTF-8 / UTF-16 of the wide system
 *                                      calls' arguments and results (UtfFull)
 *   win_kobj_fmtw                      the normalised kernel-object name
 *   plat::lang_name_by_id plat::lang_name_by_tag  this contract's portable
 *                                      table (LangName.cpp)
 *   VekStr_UserSize VekStr_UserMarshal VekStr_UserUnmarshal VekStr_UserFree
 *   PIStrm_UserSize PIStrm_UserMarshal PIStrm_UserUnmarshal PIStrm_UserFree
 *   MIDL_user_allocate MIDL_user_free  named in the generic event's type
 *                                      description (win/RpcEvt), which the
 *                                      RPC runtime calls
 *   vek_fd_swait vek_fd_sread vek_fd_swrite vek_hnd_sread vek_hnd_swrite
 *   vek_ovl_swait win_hnd_swait__ vek_msec  the abortable waits and the
 *                                      clock, through which the socket
 *                                      classes' system side (AlSock, AlSer)
 *                                      waits; they reach the platform's own
 *                                      waits, never the socket functions
 *   vek_dev_uevent_parse vek::dev_kind_of  the kernel uevent reader and the
 *                                      serial device names (VekDev), which
 *                                      the device list and watch share
 *   vek_msec vek::ms_left vek::fd_wait vek_fd_swait vek_fds_swait
 *   vek_ovl_swait vek_sleep vek_ssleep
 *                                      the clock and the waits a cancel ends
 *                                      (IoWait): the reads, writes and
 *                                      watches on the system's own
 *                                      descriptors block only through them
 *   vek_assert__                       only the exported reads and writes
 *                                      on descriptors and handles (AlIo),
 *                                      on bad arguments, before they hold
 *                                      anything of the platform's
 *   vek::mountinfo_parse vek::uevent_parse  this contract's portable
 *                                      parsers of the disc watch (MonParse)
 *   vek::ListedPaths::next_read vek::ListedPaths::found
 *   vek::ListedPaths::repeats          the file watches' record of what
 *                                      their own listings reported (VekMon)
 */
#ifndef VEK_ALPLAT_H
#define VEK_ALPLAT_H

#include <atomic>
#include <cstdio>
#include <ctime>
#include "AlOs.h"
#include "VekType.h"
#include "VekVos.h"
#include "OsUtf8.h"

/* The separator the library puts between folder and file names. */
#ifdef _WIN32
#define VEK_PATH_SEP '\\'
#else
#define VEK_PATH_SEP '/'
#endif

namespace plat {

/* Failures of the operating system that a test injects (vek_os_fail_at__,
 * AlOs.h): one countdown per service (VEK_OS_*), shared by both layers and
 * armed from the portable one. Each implementation asks os_fails(service)
 * right where it calls the system, and on true reports the failure as the
 * system would have (errno / the last error set, the same result). */
constexpr vek_s32 kOsServices = 6;
inline std::atomic<vek_s32> g_osFailLeft[kOsServices];
inline std::atomic<vek_s32> g_osFailFired[kOsServices];
/* The system error the next injected failure of VEK_OS_IO reports instead
 * of its call's own (vek_os_fail_errno__; 0: the call's own). */
inline std::atomic<vek_s32> g_osFailErrno{0};
inline bool os_fails(vek_s32 service) {
    std::atomic<vek_s32>& left = g_osFailLeft[service];
    if (left.load(std::memory_order_relaxed) <= 0) {
        return false;  // disarmed: one relaxed load
    }
    if (left.fetch_sub(1, std::memory_order_relaxed) != 1) {
        return false;
    }
    g_osFailFired[service].store(1, std::memory_order_relaxed);
    return true;
}

/* Copies the text s (null: empty) into buf of cap bytes, cut to fit and
 * always terminated; returns the bytes copied. For both layers' answers. */
inline vek_s32 copy_out(char* buf, vek_s32 cap, const char* s) {
    if (!buf || cap < 1) {
        return 0;
    }
    vek_s32 n = 0;
    while (s && s[n] && n < cap - 1) {
        buf[n] = s[n];
        n++;
    }
    buf[n] = 0;
    return n;
}

/* Files for AlFile: open with a UTF-8 path and a C mode text, 64-bit seek
 * and tell (0 / the position, or a negative error), the length. */
std::FILE* file_open(const char* path, const char* mode);
vek_s32 file_seek(std::FILE* f, vek_s64 offset, vek_s32 origin);
vek_s64 file_tell(std::FILE* f);
vek_s64 file_size(std::FILE* f);
/* Flushes a file's data to the disk (not only the C runtime's buffer). */
vek_s32 file_sync(std::FILE* f);
/* The path a write should go to: a symbolic link is followed to its
 * target; otherwise (or when the path does not exist yet) the path itself.
 * Returns the length written to out, 0 when it does not fit. */
vek_s32 file_resolve(const char* path, char* out, vek_s32 cap);
/* Replaces target by from in one step (the old target stays intact when
 * this fails); 0 or a negative error. Windows writes the move through to
 * the disk. */
vek_s32 file_replace(const char* from, const char* target);
/* After a replacement: makes the entry of path in its folder durable, so
 * that a power loss cannot undo the rename. POSIX syncs the folder (a file
 * system that cannot sync a folder counts as done); Windows has nothing
 * left to do after its written-through move. 0 or a negative error. */
vek_s32 folder_sync(const char* path);
/* Gives to the permissions and the owner of from, where the platform has
 * such; 0, or a negative error when either cannot be given (a file owned by
 * another user, which this process may not give away). */
vek_s32 file_copy_mode(const char* from, const char* to);
/* What a path names, as a writer that must never turn it into something
 * else needs to know it. */
enum class FileKind { missing, regular, directory, special, unknown };
/* The kind of path; links are not followed (resolve first), so a link that
 * could not be resolved is special too. For a regular file, *links
 * receives its number of hard links. */
FileKind file_kind(const char* path, vek_s32* links);
/* 0 when path does not exist or may be written; else a negative error. */
vek_s32 file_check_writable(const char* path);
/* Removes a file; 0 or a negative error. */
vek_s32 file_remove(const char* path);

/* Full path of the library's own file (the executable in a static build),
 * UTF-8, terminated; returns its length or 0 on failure. */
vek_s32 module_path(char* buf, vek_s32 cap);
/* Full path of the process's executable, UTF-8; its length or 0. */
vek_s32 exe_path(char* buf, vek_s32 cap);

/* Writes text to the system's debug output: OutputDebugString on Windows;
 * on POSIX standard error, only when the environment variable
 * VEK_DEBUG_OUTPUT is set (the debugger channel is silent by default). */
void debug_output(const char* text);
/* Writes text to the process's standard error, unbuffered. */
void stderr_write(const char* text);

/* The message box of the fault dialog: style 0x12012 (Abort/Retry/Ignore)
 * or 0x1010 (OK only). Returns the button (3 abort, 4 retry, 5 ignore, 1 ok);
 * 0 where no box can be shown. */
vek_s32 message_box(const char* caption, const char* text, vek_u32 style);
/* 1 when a debugger is attached to the process. */
vek_s32 debugger_present(void);
/* Breaks into the attached debugger. */
void debug_break(void);

/* Return addresses of the calling thread's stack, skip frames above the
 * caller left out; returns how many were stored. */
vek_s32 call_stack(void** addrs, vek_s32 cap, vek_s32 skip);
/* Symbol support, counted: 1 when symbols can be resolved. Windows loads
 * the debug-help library from baseFolder first; the texts of that loading
 * go to note, on the calling thread. */
using SymNote = void (*)(const char* text);
vek_s32 sym_init(const char* baseFolder, SymNote note);
void sym_exit(void);
/* Resolves one address: function name (empty when unknown), source file and
 * line (empty / 0 when unknown). Returns 1 when the function is known. */
vek_s32 sym_resolve(void* addr, char* func, vek_s32 funcCap, char* file, vek_s32 fileCap,
                    vek_s32* line);

/* Fills the environment record. */
void env_info(VekEnvInfo* info);

/* Local wall-clock time, for trace records. */
struct LocalTime {
    vek_s32 year, month, day, hour, minute, second, msec;
};
void local_time(LocalTime* out);
/* Wall-clock time: milliseconds since 1970-01-01 UTC. */
vek_s64 wall_msec(void);

/* The current time zone (AlTime / WinTime): bias and daylight bias in
 * minutes with UTC = local + bias; returns 1 when summer time is in force
 * now, else 0. Windows: the system's time-zone information and the
 * "ActiveTimeBias" registry value; POSIX: localtime_r, see VekTime.h. */
vek_s32 zone_info(vek_s32* bias, vek_s32* daylightBias);
/* t broken down as local time (thread-safe localtime); false on failure. */
bool local_tm(time_t t, std::tm* out);

/* 1 when the calling thread owns windows or a message queue (a UI thread). */
vek_s32 is_ui_thread(void);

/* Dynamic libraries for the debug unloader: the module's full path (UTF-8;
 * its length or 0), load by path (a handle or null), unload (non-zero on
 * success). */
vek_s32 dll_path(void* module, char* buf, vek_s32 cap);
void* dll_load(const char* path);
vek_s32 dll_unload(void* module);

/* The UTF-8 forms of the system calls (OsUtf8.h; OsUtf8.cpp on each side):
 * the results the header gives, the arguments already checked. */
vek_s32 fs_stat(const char* path, VekStat* st);
vek_s32 fs_rename(const char* from, const char* to);
vek_s32 fs_remove(const char* path);
vek_s32 fs_mkdir(const char* path);
/* A folder listing: open (null with *err set), the next entry's name and
 * kind (1, 0 at the end, or a negative error; the name lives in the
 * listing until the next call), close. */
struct DirList;
DirList* dir_open(const char* path, vek_s32* err);
vek_s32 dir_next(DirList* dir, const char** name, vek_s32* kind);
void dir_close(DirList* dir);
/* Loads a library (null with the system's reason in why); a symbol; the
 * unload (0 or the system's error). */
void* lib_load(const char* path, char* why, vek_s32 whySize);
void* lib_sym(void* lib, const char* name);
vek_s32 lib_unload(void* lib);
/* A variable's value: its whole length with at most size - 1 bytes and a
 * terminator in buf, or -25 when it is not set. */
vek_s32 env_get(const char* name, char* buf, vek_s32 size);
/* Sets (value non-null) or removes a variable; 0 or the system's error. */
vek_s32 env_set(const char* name, const char* value);
/* The user's languages for messages, most wanted first, as tags such as
 * "pt_BR" separated by ":" (the form is normalised by the caller): POSIX
 * from LANGUAGE, LC_ALL, LC_MESSAGES and LANG; Windows the user's
 * preferred UI languages. Returns the length written to buf (terminated),
 * 0 when nothing is known. */
vek_s32 user_langs(char* buf, vek_s32 size);

/* Display names of user languages (portable table, LangName.cpp): by
 * Windows language identifier or POSIX locale tag; null when unknown. */
const char* lang_name_by_id(vek_u16 id);
const char* lang_name_by_tag(const char* tag);

/* Type pickling of a generic event (VekEvt.h) through a handle that is not
 * the library's own: on Windows a handle of the RPC runtime (MesEncodeDyn
 * BufferHandleCreate and its kin), driven by the runtime with the library's
 * type description of the generic event. op 0 sizes (*size), 1 encodes, 2
 * decodes into evt. False where there is no such runtime. */
bool evt_pickle(vek_s32 op, void* handle, void* evt, vek_u32* size);

/* A process-wide memory barrier, for a lock whose frequent side (a thread
 * entering its own data) must not pay for a fence: when process_barrier
 * returns, every other thread of the process has passed a full memory
 * barrier, so a store it made before that point is visible to the caller
 * and a load it makes after sees the caller's earlier stores. Linux:
 * membarrier (private expedited); Windows: FlushProcessWriteBuffers.
 * process_barrier_init prepares it once, before the first use, and returns
 * 1 when the system offers one, else 0 (also under Wine, whose
 * FlushProcessWriteBuffers does nothing): the frequent side must then
 * fence itself. */
vek_s32 process_barrier_init(void);
void process_barrier(void);

} // namespace plat

#endif /* VEK_ALPLAT_H */
