/*
 * IoWait.cpp - the abortable waits on the system's descriptors (the
 * portable part of VekIoWait.h; the reads and writes are each system's,
 * posix/AlIo.cpp and win/AlIo.cpp).
 */
#include "IoWait.h"
#include "VekCall.h"
#include "VekCore.h"
#include "VekIoWait.h"

namespace vek {

vek_handle io_abort_evt(vek_s32 flags) {
    return (flags & VEK_WAIT_FORBID_ABORT) ? nullptr : vek_call_abort_evt();
}

vek_s32 ms_left(vek_u32 start, vek_s32 tmo) {
    if (tmo <= 0) {
        return tmo;
    }
    vek_u32 spent = vek_msec() - start;
    return spent >= (vek_u32)tmo ? 0 : tmo - (vek_s32)spent;
}

vek_s32 fd_wait(plat::PollFd* fds, vek_s32 n, vek_s32 tmo, vek_s32 flags, const char* name) {
    vek_handle abortEvt = io_abort_evt(flags);
    vek_s32 nReady = 0;
    vek_u32 r = plat::wait_fds(fds, n, &abortEvt, abortEvt ? 1 : 0, tmo, &nReady);
    vek_u32 fdsReady = plat::kWaitObject0 + (abortEvt ? 1u : 0u);
    if (r == fdsReady) {
        return nReady;
    }
    if (abortEvt && r == plat::kWaitObject0) {
        return VEK_ERR_ABORTED;
    }
    if (r == plat::kWaitTimeout) {
        return VEK_ERR_TIMEOUT;
    }
    if (r == plat::kWaitUnsupported) {
        return VEK_ERR_UNSUPPORTED;
    }
    vek_u32 err = plat::last_error();
    char msg[128];
    vek_snprintf(msg, sizeof msg, "%s FAIL for WaitFor FAIL, res=%d", name, (int)err);
    vek_assert__(msg, __FILE__, __LINE__);
    return VEK_ERR_WAIT_FAILED;
}

} // namespace vek

extern "C" {

VEK_API vek_s32 vek_fds_swait(VekPollFd* fds, vek_s32 n, vek_s32 tmo, vek_s32 flags) {
    if (!fds || n < 1 || n > plat::kMaxFds) {
        vek_assert__("fds && n >= 1 && n <= 64", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    static_assert(sizeof(VekPollFd) == sizeof(plat::PollFd), "one layout");
    return vek::fd_wait((plat::PollFd*)fds, n, tmo, flags, "vek_fds_swait()");
}

VEK_API vek_s32 vek_fd_swait(vek_s32 fd, vek_s32 events, vek_s32 tmo, vek_s32 flags) {
    plat::PollFd p = {fd, (vek_s16)(events & (VEK_FD_IN | VEK_FD_PRI | VEK_FD_OUT)), 0};
    vek_s32 r = vek::fd_wait(&p, 1, tmo, flags, "vek_fd_swait()");
    return r > 0 ? (vek_s32)(vek_u16)p.revents : r;
}

} // extern "C"
