/*
 * IoWait.h - the system half of the descriptor and handle calls
 * (VekIoWait.h) (internal).
 *
 * The public calls are portable (IoWait.cpp): they check their arguments,
 * keep the time-out, wait through the abortable waits and report a failed
 * wait. The system half below only makes the system calls: one step of I/O
 * that never blocks on POSIX (posix/AlIo.cpp), one overlapped operation
 * waited for together with an abort event on Windows (win/AlIo.cpp). Each
 * system has the other's half too, answering -94, so that both link the
 * same portable code.
 */
#ifndef VEK_IOWAIT_INTERNAL_H
#define VEK_IOWAIT_INTERNAL_H

#include "AlSync.h"

namespace plat {

/* Whether the system's streams are descriptors (POSIX) or handles opened
 * for overlapped I/O (Windows). */
#ifdef _WIN32
constexpr bool kFdIo = false;
#else
constexpr bool kFdIo = true;
#endif

/* ---- POSIX: one step on a descriptor a wait found ready ----
 * fd_read_now reads up to n (> 0) bytes: the count, 0 when nothing was
 * there after all (another reader was faster: wait again), -202 at the
 * end of the stream (revents: what the wait found, which tells a
 * pseudo-terminal whose other side is gone), -851 the connection reset,
 * -850 another failure (errno). */
vek_s32 fd_read_now(vek_s32 fd, void* buf, vek_s32 n, vek_s16 revents);

/* How a descriptor is written, learnt on its first write and kept for the
 * rest of one call. */
struct FdWriter {
    vek_s32 kind = 0;
    bool blocking = false;
};
/* fd_write_now writes up to n (> 0) bytes without blocking and without
 * SIGPIPE: the count, 0 when there was no room after all, -851 the other
 * end closed, -850 another failure (errno). */
vek_s32 fd_write_now(FdWriter* w, vek_s32 fd, const void* buf, vek_s32 n);

/* ---- Windows: overlapped operations ended by an abort event ----
 * ovl_io starts one ReadFile or WriteFile of n bytes and waits for its end
 * together with abortEvt (null: not abortable), tmo ms (negative: no
 * limit): the bytes moved (a read's 0 is -202), or -5 / -12 once the
 * cancelled operation has ended without moving any, -202, -851, -850, and
 * -51 when the wait failed (last_error() is the wait's). */
vek_s32 ovl_io(vek_handle hnd, bool reading, void* buf, vek_s32 n, vek_s32 tmo, vek_handle abortEvt, bool alertable);
/* ovl_wait waits the same way for an operation the caller started (ovl:
 * its OVERLAPPED): 0 with *bytes, or a code as ovl_io's. */
vek_s32 ovl_wait(vek_handle hnd, void* ovl, vek_u32* bytes, vek_s32 tmo, vek_handle abortEvt, bool alertable);

} // namespace plat

#endif /* VEK_IOWAIT_INTERNAL_H */
