/*
 * AlPlat.h - the platform contract of the portable layer (internal).
 *
 * win/ and posix/ implement every function declared here, file for file;
 * the portable layer (Src/) reaches the operating system only through these
 * functions and the public Al* layer. Nothing here is exported.
 */
#ifndef VEK_ALPLAT_H
#define VEK_ALPLAT_H

#include <cstdio>
#include <ctime>
#include "VekType.h"
#include "VekVos.h"

/* The separator the library puts between folder and file names. */
#ifdef _WIN32
#define VEK_PATH_SEP '\\'
#else
#define VEK_PATH_SEP '/'
#endif

namespace plat {

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
 * this fails); 0 or a negative error. */
vek_s32 file_replace(const char* from, const char* target);
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
/* Symbol support, counted: 1 when symbols can be resolved. */
vek_s32 sym_init(void);
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
/* The address of an exported symbol of a loaded module, or null. */
void* dll_sym(void* module, const char* name);
/* The system's reason (UTF-8) for the calling thread's last failed
 * dll_load; its length. */
vek_s32 dll_error(char* buf, vek_s32 cap);

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

} // namespace plat

#endif /* VEK_ALPLAT_H */
