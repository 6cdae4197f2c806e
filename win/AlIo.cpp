/*
 * AlIo.cpp (Windows) - overlapped operations that an abort event ends
 * (IoWait.h): the operation is started, then its completion and the abort
 * event are waited for together. When the abort or the time-out wins, the
 * operation is cancelled (CancelIoEx) and waited for to its end: one that
 * completed anyway keeps its result, so the bytes a cancelled read took
 * are returned rather than dropped.
 */
#include "WinHelp.h"
#include "IoWait.h"
#include "VekIoWait.h"

namespace {

/* What a failed operation reports: end of stream, the other end gone, or
 * the system's error (kept in GetLastError). */
vek_s32 io_error(DWORD e, bool reading) {
    SetLastError(e);
    if (e == ERROR_HANDLE_EOF || (reading && e == ERROR_BROKEN_PIPE)) {
        return VEK_ERR_EOF;
    }
    if (e == ERROR_BROKEN_PIPE || e == ERROR_NO_DATA || e == ERROR_PIPE_NOT_CONNECTED || e == ERROR_NETNAME_DELETED ||
        e == WSAECONNRESET) {
        return VEK_ERR_PEER_CLOSED;
    }
    return VEK_ERR_IO;
}

/* Waits for the operation on ov to end: 0 with *bytes, -5 / -12 once a
 * cancelled operation has ended without completing, -51 (the wait's error
 * kept in GetLastError), or the operation's error. */
vek_s32 ovl_end(HANDLE hnd, OVERLAPPED* ov, DWORD* bytes, vek_s32 tmo, vek_handle abortEvt, bool alertable,
                bool reading) {
    HANDLE hnds[2] = {ov->hEvent ? ov->hEvent : hnd, (HANDLE)abortEvt};
    DWORD n = abortEvt ? 2 : 1;
    DWORD start = GetTickCount();
    DWORD r;
    for (;;) {
        DWORD wait = INFINITE;
        if (tmo >= 0) {
            DWORD spent = GetTickCount() - start;
            wait = spent >= (DWORD)tmo ? 0 : (DWORD)tmo - spent;
        }
        // An APC that ran ends an alertable wait: wait on for what is left.
        r = WaitForMultipleObjectsEx(n, hnds, FALSE, wait, alertable ? TRUE : FALSE);
        if (r != WAIT_IO_COMPLETION) {
            break;
        }
    }
    if (r == WAIT_OBJECT_0) {
        return GetOverlappedResult(hnd, ov, bytes, FALSE) ? 0 : io_error(GetLastError(), reading);
    }
    vek_s32 why = VEK_ERR_TIMEOUT;
    DWORD waitErr = 0;
    if (r == WAIT_OBJECT_0 + 1 && n == 2) {
        why = VEK_ERR_ABORTED;
    } else if (r != WAIT_TIMEOUT) {
        waitErr = GetLastError();
        why = VEK_ERR_WAIT_FAILED;
    }
    CancelIoEx(hnd, ov);
    if (GetOverlappedResult(hnd, ov, bytes, TRUE)) {
        return 0;  // completed while it was being cancelled: its result stands
    }
    DWORD e = GetLastError();
    if (e == ERROR_OPERATION_ABORTED) {
        SetLastError(waitErr);
        return why;
    }
    return io_error(e, reading);
}

} // namespace

namespace plat {

vek_s32 ovl_io(vek_handle hnd, bool reading, void* buf, vek_s32 n, vek_s32 tmo, vek_handle abortEvt, bool alertable) {
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!ov.hEvent) {
        return VEK_ERR_IO;
    }
    BOOL ok = reading ? ReadFile((HANDLE)hnd, buf, (DWORD)n, nullptr, &ov)
                      : WriteFile((HANDLE)hnd, buf, (DWORD)n, nullptr, &ov);
    DWORD e = ok ? 0 : GetLastError();
    vek_s32 ret;
    DWORD bytes = 0;
    if (!ok && e != ERROR_IO_PENDING) {
        ret = io_error(e, reading);
    } else {
        ret = ovl_end((HANDLE)hnd, &ov, &bytes, tmo, abortEvt, alertable, reading);
    }
    e = GetLastError();
    CloseHandle(ov.hEvent);
    SetLastError(e);
    if (ret < 0 && bytes > 0) {
        ret = 0;  // it ended early but moved bytes (a cancelled write, a partial message): they count
    }
    if (ret == 0) {
        ret = bytes > 0 || !reading ? (vek_s32)bytes : VEK_ERR_EOF;
    }
    return ret;
}

vek_s32 ovl_wait(vek_handle hnd, void* ovl, vek_u32* bytes, vek_s32 tmo, vek_handle abortEvt, bool alertable) {
    DWORD n = 0;
    vek_s32 r = ovl_end((HANDLE)hnd, (OVERLAPPED*)ovl, &n, tmo, abortEvt, alertable, true);
    *bytes = n;
    return r;
}

/* Descriptors are POSIX's own. */
vek_s32 fd_read_now(vek_s32, void*, vek_s32, vek_s16) {
    return VEK_ERR_UNSUPPORTED;
}

vek_s32 fd_write_now(FdWriter*, vek_s32, const void*, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}

} // namespace plat
