/*
 * IoWait.cpp - waits, reads and writes on the system's own descriptors and
 * handles that a cancel ends (VekIoWait.h).
 *
 * A read or write on a descriptor waits for readiness through the
 * abortable descriptor wait first and then makes one system call that
 * cannot block, so nothing is read before the wait has decided, and a
 * cancel never leaves a byte half-taken. On Windows the system half runs
 * one overlapped operation against the abort event (IoWait.h).
 */
#include "IoWait.h"
#include "VekCall.h"
#include "VekCore.h"
#include "VekIoWait.h"

namespace {

/* The caller's call abort event, or null when flags forbid aborting. */
vek_handle io_abort_evt(vek_s32 flags) {
    return (flags & VEK_WAIT_FORBID_ABORT) ? nullptr : vek_call_abort_evt();
}

/* Milliseconds left of tmo since start (vek_msec); tmo itself when it is
 * negative (no limit). */
vek_s32 ms_left(vek_u32 start, vek_s32 tmo) {
    if (tmo <= 0) {
        return tmo;
    }
    vek_u32 spent = vek_msec() - start;
    return spent >= (vek_u32)tmo ? 0 : tmo - (vek_s32)spent;
}

/* A failed system wait is the caller's to know about: the assertion names
 * the call and the system's error. */
vek_s32 wait_failed(const char* name) {
    char msg[128];
    vek_snprintf(msg, sizeof msg, "%s FAIL for WaitFor FAIL, res=%d", name, (int)plat::last_error());
    vek_assert__(msg, __FILE__, __LINE__);
    return VEK_ERR_WAIT_FAILED;
}

/* The abortable wait on descriptors: the number ready (> 0, revents
 * filled in), -5, -12, -94, or -51 after the assertion. */
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
    return wait_failed(name);
}

bool bad_buf(const void* buf, vek_s32 size) {
    if (!buf || size < 0) {
        vek_assert__("buf && size >= 0", __FILE__, __LINE__);
        return true;
    }
    return false;
}

vek_s32 ovl_result(vek_s32 r, const char* name) {
    return r == VEK_ERR_WAIT_FAILED ? wait_failed(name) : r;
}

} // namespace

extern "C" {

VEK_API vek_s32 vek_fds_swait(VekPollFd* fds, vek_s32 n, vek_s32 tmo, vek_s32 flags) {
    if (!fds || n < 1 || n > plat::kMaxFds) {
        vek_assert__("fds && n >= 1 && n <= 64", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    static_assert(sizeof(VekPollFd) == sizeof(plat::PollFd), "one layout");
    return fd_wait((plat::PollFd*)fds, n, tmo, flags, "vek_fds_swait()");
}

VEK_API vek_s32 vek_fd_swait(vek_s32 fd, vek_s32 events, vek_s32 tmo, vek_s32 flags) {
    plat::PollFd p = {fd, (vek_s16)(events & (VEK_FD_IN | VEK_FD_PRI | VEK_FD_OUT)), 0};
    vek_s32 r = fd_wait(&p, 1, tmo, flags, "vek_fd_swait()");
    return r > 0 ? (vek_s32)(vek_u16)p.revents : r;
}

VEK_API vek_s32 vek_fd_sread(vek_s32 fd, void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (!plat::kFdIo) {
        return VEK_ERR_UNSUPPORTED;
    }
    if (bad_buf(buf, size)) {
        return VEK_ERR_BAD_ARG;
    }
    if (size == 0) {
        return 0;
    }
    vek_u32 start = vek_msec();
    for (;;) {
        plat::PollFd p = {fd, VEK_FD_IN, 0};
        vek_s32 w = fd_wait(&p, 1, ms_left(start, tmo), flags, "vek_fd_sread()");
        if (w < 0) {
            return w;
        }
        vek_s32 r = plat::fd_read_now(fd, buf, size, p.revents);
        if (r != 0) {
            return r;
        }
        // Another reader was faster: wait again.
    }
}

VEK_API vek_s32 vek_fd_swrite(vek_s32 fd, const void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (!plat::kFdIo) {
        return VEK_ERR_UNSUPPORTED;
    }
    if (bad_buf(buf, size)) {
        return VEK_ERR_BAD_ARG;
    }
    const char* p = (const char*)buf;
    vek_s32 done = 0;
    plat::FdWriter wr;
    vek_u32 start = vek_msec();
    while (done < size) {
        plat::PollFd pf = {fd, VEK_FD_OUT, 0};
        vek_s32 r = fd_wait(&pf, 1, ms_left(start, tmo), flags, "vek_fd_swrite()");
        if (r > 0) {
            r = plat::fd_write_now(&wr, fd, p + done, size - done);
        }
        if (r < 0) {
            return done > 0 ? done : r;  // what was written counts; the next call reports the rest
        }
        done += r;
    }
    return done;
}

VEK_API vek_s32 vek_hnd_sread(vek_handle hnd, void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (plat::kFdIo) {
        return VEK_ERR_UNSUPPORTED;
    }
    if (bad_buf(buf, size)) {
        return VEK_ERR_BAD_ARG;
    }
    if (size == 0) {
        return 0;
    }
    return ovl_result(plat::ovl_io(hnd, true, buf, size, tmo, io_abort_evt(flags), (flags & VEK_WAIT_ALERTABLE) != 0),
                      "vek_hnd_sread()");
}

VEK_API vek_s32 vek_hnd_swrite(vek_handle hnd, const void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (plat::kFdIo) {
        return VEK_ERR_UNSUPPORTED;
    }
    if (bad_buf(buf, size)) {
        return VEK_ERR_BAD_ARG;
    }
    const char* p = (const char*)buf;
    vek_s32 done = 0;
    vek_u32 start = vek_msec();
    while (done < size) {
        vek_s32 r = plat::ovl_io(hnd, false, (void*)(p + done), size - done, ms_left(start, tmo), io_abort_evt(flags),
                                 (flags & VEK_WAIT_ALERTABLE) != 0);
        if (r < 0) {
            return done > 0 ? done : ovl_result(r, "vek_hnd_swrite()");
        }
        done += r;
    }
    return done;
}

VEK_API vek_s32 vek_ovl_swait(vek_handle hnd, void* ovl, vek_u32* bytes, vek_s32 tmo, vek_s32 flags) {
    if (plat::kFdIo) {
        return VEK_ERR_UNSUPPORTED;
    }
    if (!hnd || !ovl) {
        vek_assert__("hnd && ovl", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    vek_u32 n = 0;
    vek_s32 r = plat::ovl_wait(hnd, ovl, &n, tmo, io_abort_evt(flags), (flags & VEK_WAIT_ALERTABLE) != 0);
    if (bytes) {
        *bytes = n;
    }
    return ovl_result(r, "vek_ovl_swait()");
}

} // extern "C"
