/*
 * AlOs.h - the OS abstraction layer ("Al"): the only system services the
 * portable layer uses. Implemented by the Windows and the POSIX layer alike.
 */
#ifndef VEK_ALOS_H
#define VEK_ALOS_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Start / stop the layer. Counted: only the first start and the matching
 * last stop act. Both return the counter after the change; a stop below
 * zero is an assertion failure that changes nothing and returns -1. */
VEK_API vek_s32 AlOs_init(void);
VEK_API vek_s32 AlOs_exit(void);

/* ---- atomic 32-bit counters in caller memory ---- */
typedef vek_s32 AlAtom;
VEK_API vek_s32 AlAtom_inc(AlAtom* p);               /* returns the new value */
VEK_API vek_s32 AlAtom_dec(AlAtom* p);               /* returns the new value */
VEK_API vek_s32 AlAtom_add(AlAtom* p, vek_s32 n);    /* returns the new value */
VEK_API vek_s32 AlAtom_sget(AlAtom* p, vek_s32 v);   /* stores v, returns the previous value */
VEK_API vek_s32 AlAtom_get(const AlAtom* p);         /* a plain (untorn) read */
VEK_API void AlAtom_set(AlAtom* p, vek_s32 v);       /* a plain (untorn) write */

/* ---- recursive in-process lock in caller memory ---- */
typedef struct AlMutex {
    void* opaque[8]; /* large enough for a CRITICAL_SECTION or a pthread mutex */
} AlMutex;
VEK_API AlMutex* AlMutex_new(AlMutex* mem);   /* initialises mem, returns it */
VEK_API void AlMutex_delete(AlMutex* mem);   /* destroys the lock; mem stays the caller's */
VEK_API void AlMutex_lock(AlMutex* mem);      /* recursive within one thread */
VEK_API vek_s32 AlMutex_unlock(AlMutex* mem); /* returns 0 */
VEK_API vek_s32 AlMutex_trylock(AlMutex* mem);/* non-zero when entered */

/* ---- files: UTF-8 paths, C mode texts ("r", "rb", "wb", "ab", "r+b") ---- */
typedef struct AlFile AlFile;
/* Opens a file; returns the handle or null. */
VEK_API AlFile* AlFile_open(const char* path, const char* mode);
/* Closes the file and frees the handle; 0 or a negative error. */
VEK_API vek_s32 AlFile_close(AlFile* file);
/* Reads up to len bytes; the count (0 at the end) or a negative error. */
VEK_API vek_s32 AlFile_read(AlFile* file, void* buf, vek_s32 len);
/* Writes len bytes; len, or a negative error (also when only a part could
 * be written). */
VEK_API vek_s32 AlFile_write(AlFile* file, const void* data, vek_s32 len);
/* origin 0 start, 1 current, 2 end; 0 or a negative error. */
VEK_API vek_s32 AlFile_seek(AlFile* file, vek_s64 offset, vek_s32 origin);
VEK_API vek_s64 AlFile_tell(AlFile* file);   /* position or a negative error */
VEK_API vek_s64 AlFile_size(AlFile* file);   /* length or a negative error */
VEK_API vek_s32 AlFile_flush(AlFile* file);  /* 0 or a negative error */
/* Fault injection for tests: from now, the file layer's writes (kind 0) or
 * reads (kind 1) fail once `bytes` more bytes have passed, as a full disc or
 * a failing device would: the call that crosses the point moves only the
 * bytes before it, that one and every later call of the kind return -28
 * (writes) or -5 (reads). Kind 2 counts the syncs to the disk of a safe
 * write (the new content, then its folder), `bytes` of them succeeding
 * before every later one returns -5. A negative `bytes` disarms the kind.
 * Returns 1 when the failure armed by the previous call of the kind has
 * happened. */
VEK_API vek_s32 vek_file_fail_at__(vek_s32 kind, vek_s64 bytes);
/* Fault injection for tests: from now, the k-th next call (1 = the next)
 * of the operating system for the service `call` fails once, as the system
 * would report it; k < 1 disarms. Returns 1 when the failure armed by the
 * previous call for that service has happened, else 0 (-81 for an unknown
 * service). The services: */
#define VEK_OS_THREAD    0  /* starting a thread */
#define VEK_OS_SHM       1  /* each step of opening a named lock (POSIX: the
                             * shared-memory object, its lock, size and map) */
#define VEK_OS_CODESET   2  /* opening a conversion to or from the ANSI code page */
#define VEK_OS_LOCALTIME 3  /* breaking a time down in the local zone */
#define VEK_OS_OWNER     4  /* giving a replacement file the original's owner
                             * and permissions */
#define VEK_OS_IO        5  /* each system call of the transports, serial
                             * ports, endpoints, device list and watch and
                             * file and disc monitors (POSIX) */
VEK_API vek_s32 vek_os_fail_at__(vek_s32 call, vek_s32 k);
/* Fault injection for tests: the system error (errno) that the next
 * injected failure of VEK_OS_IO reports instead of the one its call
 * usually fails with; used once, 0 forgets a choice not used yet. */
VEK_API void vek_os_fail_errno__(vek_s32 err);

/* ---- memory, threads, clock ---- */
VEK_API void* al_malloc(size_t size);  /* plain, untracked allocation */
VEK_API void al_free(void* block);     /* a block of al_malloc / al_realloc; null is ignored */
/* Resizes a block of al_malloc, in place where the system can; null (and
 * the block untouched) when out of memory. */
VEK_API void* al_realloc(void* block, size_t size);
VEK_API vek_u32 al_thrd_id(void);      /* the calling thread's system id */
VEK_API vek_u32 al_clock(void);        /* monotonic clock, 1000 ticks per second */
VEK_API void al_sleep(vek_u32 ticks);  /* sleeps that many clock ticks */

/* ---- ANSI code page <-> UTF-16 ----
 * Convert srcLen units (negative: up to the terminator) into dst of dstSize
 * units (always terminated when dstSize > 0). Characters the target cannot
 * represent become "?". Return the number of units written, terminator not
 * counted. On POSIX the "ANSI code page" is the current locale's codeset. */
VEK_API vek_s32 al_ansi_to_wcs(const char* src, vek_s32 srcLen, vek_wchar* dst, vek_s32 dstSize);
VEK_API vek_s32 al_wcs_to_ansi(const vek_wchar* src, vek_s32 srcLen, char* dst, vek_s32 dstSize);

VEK_END_DECLS

#endif /* VEK_ALOS_H */
