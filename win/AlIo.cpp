/*
 * AlIo.cpp (Windows) - reads and writes on handles opened for overlapped
 * I/O that a cancel ends: the operation is started, then its completion
 * and the caller's call abort event are waited for together. When the
 * abort or the time-out wins, the operation is cancelled (CancelIoEx) and
 * waited for to its end: one that completed anyway keeps its result, so
 * the bytes a cancelled read took are returned rather than dropped.
 */
#include "WinHelp.h"
#include "IoWait.h"
#include "VekCore.h"
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
 * cancelled operation has ended without completing, or its error. */
vek_s32 ovl_end(HANDLE hnd, OVERLAPPED* ov, DWORD* bytes, vek_s32 tmo, vek_s32 flags, bool reading,
                const char* name) {
    vek_handle hnds[2] = {ov->hEvent ? ov->hEvent : hnd, vek::io_abort_evt(flags)};
    DWORD n = hnds[1] ? 2 : 1;
    BOOL alertable = (flags & VEK_WAIT_ALERTABLE) != 0;
    vek_u32 start = vek_msec();
    DWORD r;
    while ((r = WaitForMultipleObjectsEx(n, (const HANDLE*)hnds, FALSE,
                                         tmo < 0 ? INFINITE : (DWORD)vek::ms_left(start, tmo), alertable)) ==
           WAIT_IO_COMPLETION) {
    }
    if (r == WAIT_OBJECT_0) {
        return GetOverlappedResult(hnd, ov, bytes, FALSE) ? 0 : io_error(GetLastError(), reading);
    }
    vek_s32 why = VEK_ERR_TIMEOUT;
    if (r == WAIT_OBJECT_0 + 1 && n == 2) {
        why = VEK_ERR_ABORTED;
    } else if (r != WAIT_TIMEOUT) {
        char msg[128];
        vek_snprintf(msg, sizeof msg, "%s FAIL for WaitFor FAIL, res=%d", name, (int)GetLastError());
        vek_assert__(msg, __FILE__, __LINE__);
        why = VEK_ERR_WAIT_FAILED;
    }
    CancelIoEx(hnd, ov);
    if (GetOverlappedResult(hnd, ov, bytes, TRUE)) {
        return 0;  // completed while it was being cancelled: its result stands
    }
    DWORD e = GetLastError();
    return e == ERROR_OPERATION_ABORTED ? why : io_error(e, reading);
}

/* One overlapped read or write of up to n bytes: the count, or a code. */
vek_s32 ovl_io(HANDLE hnd, bool reading, void* buf, DWORD n, vek_s32 tmo, vek_s32 flags, const char* name) {
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!ov.hEvent) {
        return VEK_ERR_IO;
    }
    BOOL ok = reading ? ReadFile(hnd, buf, n, nullptr, &ov) : WriteFile(hnd, buf, n, nullptr, &ov);
    DWORD e = ok ? 0 : GetLastError();
    vek_s32 ret;
    DWORD bytes = 0;
    if (!ok && e != ERROR_IO_PENDING) {
        ret = io_error(e, reading);
    } else {
        ret = ovl_end(hnd, &ov, &bytes, tmo, flags, reading, name);
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

bool bad_args(const void* buf, vek_s32 size) {
    if (!buf || size < 0) {
        vek_assert__("buf && size >= 0", __FILE__, __LINE__);
        return true;
    }
    return false;
}

} // namespace

extern "C" {

VEK_API vek_s32 vek_fd_sread(vek_s32, void*, vek_s32, vek_s32, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}

VEK_API vek_s32 vek_fd_swrite(vek_s32, const void*, vek_s32, vek_s32, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}

VEK_API vek_s32 vek_hnd_sread(vek_handle hnd, void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (bad_args(buf, size)) {
        return VEK_ERR_BAD_ARG;
    }
    if (size == 0) {
        return 0;
    }
    return ovl_io((HANDLE)hnd, true, buf, (DWORD)size, tmo, flags, "vek_hnd_sread()");
}

VEK_API vek_s32 vek_hnd_swrite(vek_handle hnd, const void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (bad_args(buf, size)) {
        return VEK_ERR_BAD_ARG;
    }
    const char* p = (const char*)buf;
    vek_s32 done = 0;
    vek_u32 start = vek_msec();
    while (done < size) {
        vek_s32 r = ovl_io((HANDLE)hnd, false, (void*)(p + done), (DWORD)(size - done), vek::ms_left(start, tmo),
                           flags, "vek_hnd_swrite()");
        if (r < 0) {
            return done > 0 ? done : r;
        }
        done += r;
    }
    return done;
}

VEK_API vek_s32 vek_ovl_swait(vek_handle hnd, void* ovl, vek_u32* bytes, vek_s32 tmo, vek_s32 flags) {
    if (!hnd || !ovl) {
        vek_assert__("hnd && ovl", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    DWORD n = 0;
    vek_s32 r = ovl_end((HANDLE)hnd, (OVERLAPPED*)ovl, &n, tmo, flags, true, "vek_ovl_swait()");
    if (bytes) {
        *bytes = n;
    }
    return r;
}

} // extern "C"
