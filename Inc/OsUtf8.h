/*
 * OsUtf8.h - the operating system's file, folder, library and environment
 * calls with UTF-8 names, the same on every platform.
 *
 * Every path, name and value is UTF-8. POSIX systems take the bytes as
 * they are. On Windows they are converted to UTF-16 by the library's own
 * converter (the whole of Unicode; a byte that is not UTF-8 becomes
 * U+FFFD) and the wide calls are used (_wfopen, GetFileAttributesExW,
 * MoveFileExW, FindFirstFileW, LoadLibraryW, _wgetenv), so a name never
 * passes through the ANSI code page. Names coming back (folder entries,
 * environment values) are UTF-8 the same way.
 *
 * Results: 0 (or a count) on success; VEK_ERR_NOT_FOUND (-25) when the
 * path, the variable or the symbol does not exist; VEK_ERR_NAME_EXISTS
 * (-111) when a folder to make is already there; VEK_ERR_BAD_ARG (-81)
 * with an assertion for a null or empty name; otherwise the system's own
 * error, negated (-errno on POSIX, -GetLastError() on Windows).
 *
 * Threads: every call may be made from any thread. The environment calls
 * take one lock of the library, which orders them among themselves (not
 * against a program's own getenv/setenv).
 */
#ifndef VEK_OSUTF8_H
#define VEK_OSUTF8_H

#include <stdio.h>
#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- files ---- */
/* fopen with a UTF-8 path and a C mode text ("rb", "wb", "a+", ...): the
 * stream, or null (errno set). On Windows the stream belongs to the C
 * runtime the library was built with: close it with vek_fclose when the
 * program uses another one. */
VEK_API FILE* vek_fopen_utf8(const char* path, const char* mode);
/* fclose through the library's C runtime; 0 or EOF. */
VEK_API vek_s32 vek_fclose(FILE* file);

/* What a path names (links followed). */
#define VEK_FS_FILE  1  /* a regular file */
#define VEK_FS_DIR   2  /* a folder */
#define VEK_FS_OTHER 3  /* a device, FIFO, socket or a link that leads nowhere */
typedef struct VekStat {
    vek_s64 size;      /* bytes of a file; 0 for the others */
    vek_s64 mtime;     /* last write, in 100 ns units since 1601-01-01 UTC (VekFileTime) */
    vek_s32 kind;      /* VEK_FS_FILE, VEK_FS_DIR or VEK_FS_OTHER */
    vek_s32 readOnly;  /* 1 when the process may not write it */
} VekStat;
/* Fills st; 0, -25 when the path does not exist, or the system's error. */
VEK_API vek_s32 vek_stat_utf8(const char* path, VekStat* st);
/* Renames a file or a folder; an existing file at `to` is replaced in one
 * step. 0, -25 when `from` does not exist, or the system's error (also for
 * a move to another volume). */
VEK_API vek_s32 vek_rename_utf8(const char* from, const char* to);
/* Removes a file or an empty folder: 0, -25, or the system's error. */
VEK_API vek_s32 vek_remove_utf8(const char* path);
/* Makes one folder (its parent must exist): 0, -111 when the path exists,
 * -25 when the parent does not, or the system's error. */
VEK_API vek_s32 vek_mkdir_utf8(const char* path);

/* ---- listing a folder ----
 * vek_dir_open starts a listing (null with *err set: -25, or the system's
 * error; err may be null). vek_dir_next gives the next entry: 1 with *ent
 * filled, 0 at the end, or a negative error. "." and ".." are left out;
 * the order is the system's. ent->name stays valid until the next
 * vek_dir_next or vek_dir_close of the listing. A listing is used by one
 * thread at a time. */
typedef struct VekDir VekDir;
typedef struct VekDirEnt {
    const char* name;  /* the entry's name, UTF-8 */
    vek_s32 kind;      /* VEK_FS_FILE, VEK_FS_DIR or VEK_FS_OTHER (links followed) */
} VekDirEnt;
VEK_API VekDir* vek_dir_open(const char* path, vek_s32* err);
VEK_API vek_s32 vek_dir_next(VekDir* dir, VekDirEnt* ent);
VEK_API void vek_dir_close(VekDir* dir);  /* null is ignored */

/* ---- loadable libraries ----
 * A plain load, symbol lookup and unload (dlopen / LoadLibraryW). A name
 * without a folder is searched where the system searches. vek_lib_load
 * returns the library's handle or null; why (may be null) then receives
 * the system's reason, UTF-8, cut to whySize bytes. Loads are counted by
 * the system: every successful load needs its unload. */
VEK_API void* vek_lib_load(const char* path, char* why, vek_s32 whySize);
/* The address of an exported symbol, or null. */
VEK_API void* vek_lib_sym(void* lib, const char* name);
/* 0, or the system's error (a null lib is -81). */
VEK_API vek_s32 vek_lib_unload(void* lib);

/* ---- environment ---- */
/* Copies the value of a variable into buf (at most size - 1 bytes, always
 * terminated when size > 0) and returns its whole length, so a result of
 * size or more says it was cut; -25 when the variable is not set. */
VEK_API vek_s32 vek_getenv_utf8(const char* name, char* buf, vek_s32 size);
/* The same into a VekStr (replaced); its length or -25 (value emptied). */
VEK_API vek_s32 vek_getenvx(const char* name, VekStr* value);
/* Sets a variable for this process and the programs it starts; a null
 * value removes it. 0 or the system's error. */
VEK_API vek_s32 vek_setenv_utf8(const char* name, const char* value);

VEK_END_DECLS

#endif /* VEK_OSUTF8_H */
