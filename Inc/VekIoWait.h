/*
 * VekIoWait.h - waits, reads and writes on the system's own descriptors
 * and handles that a cancel ends.
 *
 * For what a program opens itself (sockets, pipes, terminals and serial
 * ports, inotify and event descriptors on POSIX; pipes, sockets, COMM
 * ports and other handles opened for overlapped I/O on Windows). Each call
 * waits on its object and on the caller's call abort event together, as
 * every abortable wait of the library does (VekVosx.h, VekCall.h): -5 when
 * the thread or the call is cancelled (vek_thrd_cancel, vek_call_cancel),
 * also when the cancel came before the call, -12 at the time-out (ms;
 * negative: no limit), unless flags has VEK_WAIT_FORBID_ABORT.
 *
 * No byte is ever lost. A wait only reports readiness and reads nothing.
 * When data and a cancel are both there, the data wins (as the own object
 * wins over the abort event in every wait): the read returns it and the
 * next abortable call returns -5, so a reader that must stop under a
 * stream that never pauses asks vek_call_aborted() itself. On Windows a
 * cancelled read is ended with CancelIoEx; when it completed anyway, the
 * bytes it read are returned (not -5), so they are never dropped.
 *
 * Each form exists on both systems; the form a system has no use for
 * returns -94 (VEK_ERR_UNSUPPORTED) there: the descriptor calls on
 * Windows, the handle calls on POSIX.
 *
 * Results besides -5, -12 and -94: -202 end of stream (the writer closed;
 * for a pseudo-terminal's master, the slave side closed), -851 the other
 * end closed or reset the connection (a write into a pipe without reader,
 * a socket reset; SIGPIPE is never raised), -850 the system call failed
 * (errno / GetLastError() tells why), -81 a bad argument (an assertion),
 * -51 the system wait failed (an assertion naming the call).
 */
#ifndef VEK_IOWAIT_H
#define VEK_IOWAIT_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- POSIX descriptors ----
 * Readiness bits (the values of poll()). IN, PRI and OUT are asked for;
 * ERR, HUP and NVAL are reported whether asked or not. */
#define VEK_FD_IN   0x001  /* data to read, a connection to accept, end of stream */
#define VEK_FD_PRI  0x002  /* urgent data; a packet-mode pseudo-terminal's status */
#define VEK_FD_OUT  0x004  /* room to write */
#define VEK_FD_ERR  0x008  /* an error is pending */
#define VEK_FD_HUP  0x010  /* the other end hung up */
#define VEK_FD_NVAL 0x020  /* not an open descriptor */

/* One descriptor of vek_fds_swait (the layout of struct pollfd). */
typedef struct VekPollFd {
    vek_s32 fd;
    vek_s16 events;   /* asked for */
    vek_s16 revents;  /* found */
} VekPollFd;

/* Waits until fd is ready for events: the readiness found (> 0, the bits
 * above), -5, -12, -51, -94. */
VEK_API vek_s32 vek_fd_swait(vek_s32 fd, vek_s32 events, vek_s32 tmo, vek_s32 flags);
/* The same for n descriptors (1 <= n <= 64; -81 otherwise): the number
 * ready, each one's revents filled in (the others 0). */
VEK_API vek_s32 vek_fds_swait(VekPollFd* fds, vek_s32 n, vek_s32 tmo, vek_s32 flags);
/* Reads what has arrived, up to size bytes, waiting only for the first:
 * the count (> 0; 0 when size is 0), -202, -5, -12, -851, -850. Works on
 * blocking descriptors read by one thread (the read runs only once data is
 * there); a descriptor shared between readers should be non-blocking. */
VEK_API vek_s32 vek_fd_sread(vek_s32 fd, void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags);
/* Writes all size bytes within tmo: size, or the count written before a
 * cancel, the time-out or an error stopped it (the next call reports
 * that), or -5, -12, -851, -850 when nothing was written. On a blocking
 * pipe it writes at most PIPE_BUF bytes per readiness, which never
 * blocks; other blocking descriptors (terminals) should be non-blocking
 * for a write to stay cancellable throughout. */
VEK_API vek_s32 vek_fd_swrite(vek_s32 fd, const void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags);

/* ---- Windows handles ----
 * hnd is a HANDLE (or a SOCKET) opened for overlapped I/O
 * (FILE_FLAG_OVERLAPPED; sockets are by default): a stream such as a pipe,
 * a socket or a COMM port. A handle opened without it makes the system
 * read synchronously, beyond the reach of a cancel. For waits on other
 * kernel objects (processes, change notifications, events), see
 * win_hnd_swait__, which waits on any handle. */

/* Reads what has arrived, up to size bytes (one overlapped ReadFile): as
 * vek_fd_sread. A read that completed while it was being cancelled
 * returns its bytes. */
VEK_API vek_s32 vek_hnd_sread(vek_handle hnd, void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags);
/* Writes all size bytes within tmo: as vek_fd_swrite. */
VEK_API vek_s32 vek_hnd_swrite(vek_handle hnd, const void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags);
/* Waits for an overlapped operation the caller started on hnd (ovl: its
 * OVERLAPPED, whose hEvent is a manual-reset event, or null to wait on
 * hnd itself): 0 with the bytes transferred in *bytes (may be null), -202,
 * -851, -850, or -5 / -12 after cancelling the operation (CancelIoEx) and
 * waiting for it to end. An operation that completed anyway gives 0 and
 * its bytes. Every result but -94 leaves the operation ended, so ovl and
 * its buffer are free again. */
VEK_API vek_s32 vek_ovl_swait(vek_handle hnd, void* ovl, vek_u32* bytes, vek_s32 tmo, vek_s32 flags);

VEK_END_DECLS

#endif /* VEK_IOWAIT_H */
