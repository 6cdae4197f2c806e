/*
 * IoWait.h - what the descriptor and handle calls (VekIoWait.h) share
 * between the portable layer and each system's reads and writes
 * (internal).
 */
#ifndef VEK_IOWAIT_INTERNAL_H
#define VEK_IOWAIT_INTERNAL_H

#include "AlSync.h"

namespace vek {

/* The caller's call abort event for an abortable I/O wait, or null when
 * flags forbid aborting (or the caller is inside an asynchronous block,
 * where vek_call_abort_evt asserts). */
vek_handle io_abort_evt(vek_s32 flags);

/* Milliseconds left of tmo since start (vek_msec); tmo itself when it is
 * negative (no limit). */
vek_s32 ms_left(vek_u32 start, vek_s32 tmo);

/* The abortable wait on descriptors: the number ready (> 0, revents
 * filled in), -5, -12, -94, or -51 after the assertion
 * "<name> FAIL for WaitFor FAIL, res=<system error>". */
vek_s32 fd_wait(plat::PollFd* fds, vek_s32 n, vek_s32 tmo, vek_s32 flags, const char* name);

} // namespace vek

#endif /* VEK_IOWAIT_INTERNAL_H */
