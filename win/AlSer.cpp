/*
 * AlSer.cpp (Windows) - COMM ports for SerSock (AlSock.h), opened
 * exclusive and overlapped so that every read and write is cancellable
 * (vek_hnd_sread / vek_hnd_swrite end them with CancelIoEx).
 *
 * The time-outs make a read return as soon as any byte is there
 * (ReadIntervalTimeout and ReadTotalTimeoutMultiplier MAXDWORD) and never
 * end it empty by themselves (the total constant is as long as it can
 * be): the time-out the caller gave is the overlapped wait's. A DCB is
 * set, read back and compared, as drivers keep silently what they cannot
 * do. Waits the system would block in (FlushFileBuffers) are made of
 * short abortable waits on the output queue's count instead.
 */
#include "WinHelp.h"
#include <cstdio>
#include <cstring>
#include "AlSock.h"
#include "IoWait.h"
#include "VekCore.h"
#include "VekVosx.h"

namespace {

HANDLE hnd_of(const plat::SockSys* s) {
    return (HANDLE)(intptr_t)s->h;
}

/* What a failed COMM call reports: the device gone, no such function,
 * or the system's error. */
vek_s32 comm_error(DWORD e) {
    SetLastError(e);
    switch (e) {
    case ERROR_BAD_COMMAND:
    case ERROR_DEVICE_REMOVED:
    case ERROR_DEV_NOT_EXIST:
    case ERROR_GEN_FAILURE:
    case ERROR_OPERATION_ABORTED:
        return VEK_ERR_DEV_GONE;
    case ERROR_NOT_SUPPORTED:
    case ERROR_INVALID_FUNCTION:
        return VEK_ERR_UNSUPPORTED;
    default:
        return VEK_ERR_IO;
    }
}

/* An abortable pause of ms (the wait on an event nobody sets). */
vek_s32 pause_ms(vek_s32 ms) {
    HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    vek_s32 w = win_hnd_swait__(never, ms, 0);
    CloseHandle(never);
    return w == VEK_ERR_TIMEOUT ? 0 : w;
}

} // namespace

namespace plat {

vek_s32 ser_open(const char* path, SockSys* out) {
    // "COM3" and "\\.\COM3" both name the port; only the second form
    // reaches COM10 and above.
    char full[160];
    std::snprintf(full, sizeof full, "%s%s", std::strncmp(path, "\\\\.\\", 4) == 0 ? "" : "\\\\.\\", path);
    wchar_t w[160];
    win::to_wide(full, w, 160);
    HANDLE h = CreateFileW(w, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        DWORD e = GetLastError();
        SetLastError(e);
        return e == ERROR_ACCESS_DENIED || e == ERROR_SHARING_VIOLATION ? VEK_ERR_BUSY
               : e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND ? VEK_ERR_NOT_FOUND
                                                                          : VEK_ERR_IO;
    }
    COMMTIMEOUTS to = {MAXDWORD, MAXDWORD, MAXDWORD - 1, 0, 0};
    DCB dcb = {};
    dcb.DCBlength = sizeof dcb;
    if (!GetCommState(h, &dcb) || !SetCommTimeouts(h, &to)) {
        DWORD e = GetLastError();
        CloseHandle(h);
        SetLastError(e);
        return VEK_ERR_UNSUPPORTED;  // not a COMM port
    }
    out->h = (vek_s64)(intptr_t)h;
    out->dev = true;
    return 0;
}

vek_s32 ser_set(SockSys* s, const VekSerCfg* cfg) {
    HANDLE h = hnd_of(s);
    DCB old = {};
    old.DCBlength = sizeof old;
    if (!GetCommState(h, &old)) {
        return comm_error(GetLastError());
    }
    DCB d = old;
    d.BaudRate = (DWORD)cfg->baud;
    d.fBinary = TRUE;
    d.ByteSize = (BYTE)cfg->dataBits;
    d.fParity = cfg->parity != VEK_PAR_NONE;
    d.Parity = cfg->parity == VEK_PAR_ODD ? ODDPARITY : cfg->parity == VEK_PAR_EVEN ? EVENPARITY : NOPARITY;
    d.StopBits = cfg->stopBits == 2 ? TWOSTOPBITS : ONESTOPBIT;
    bool rtscts = cfg->flow == VEK_FLOW_RTSCTS, xon = cfg->flow == VEK_FLOW_XONXOFF;
    d.fOutxCtsFlow = rtscts;
    d.fRtsControl = rtscts ? RTS_CONTROL_HANDSHAKE : RTS_CONTROL_ENABLE;
    d.fOutxDsrFlow = FALSE;
    d.fDtrControl = DTR_CONTROL_ENABLE;
    d.fDsrSensitivity = FALSE;
    d.fOutX = d.fInX = xon;
    d.XonChar = 0x11;
    d.XoffChar = 0x13;
    d.fErrorChar = d.fNull = FALSE;
    d.fAbortOnError = FALSE;
    if (!SetCommState(h, &d)) {
        DWORD e = GetLastError();
        SetCommState(h, &old);
        return e == ERROR_INVALID_PARAMETER ? VEK_ERR_BAD_SETTING : comm_error(e);
    }
    DCB back = {};
    back.DCBlength = sizeof back;
    if (!GetCommState(h, &back)) {
        return comm_error(GetLastError());
    }
    if (back.BaudRate != d.BaudRate || back.ByteSize != d.ByteSize || back.Parity != d.Parity ||
        back.StopBits != d.StopBits || back.fOutxCtsFlow != d.fOutxCtsFlow || back.fOutX != d.fOutX) {
        SetCommState(h, &old);
        return VEK_ERR_BAD_SETTING;
    }
    return 0;
}

vek_s32 ser_get(SockSys* s, VekSerCfg* cfg) {
    DCB d = {};
    d.DCBlength = sizeof d;
    if (!GetCommState(hnd_of(s), &d)) {
        return comm_error(GetLastError());
    }
    cfg->baud = (vek_s32)d.BaudRate;
    cfg->dataBits = d.ByteSize;
    cfg->parity = d.Parity == ODDPARITY ? VEK_PAR_ODD : d.Parity == EVENPARITY ? VEK_PAR_EVEN : VEK_PAR_NONE;
    cfg->stopBits = d.StopBits == TWOSTOPBITS ? 2 : 1;
    cfg->flow = d.fOutxCtsFlow ? VEK_FLOW_RTSCTS : d.fOutX ? VEK_FLOW_XONXOFF : VEK_FLOW_NONE;
    return 0;
}

vek_s32 ser_drain(SockSys* s, vek_s32 tmo) {
    vek_u32 start = vek_msec();
    for (;;) {
        DWORD errs = 0;
        COMSTAT st = {};
        if (!ClearCommError(hnd_of(s), &errs, &st)) {
            return comm_error(GetLastError());
        }
        if (st.cbOutQue == 0) {
            return 0;
        }
        vek_s32 left = vek::ms_left(start, tmo);
        if (left == 0) {
            return VEK_ERR_TIMEOUT;
        }
        vek_s32 w = pause_ms(left < 0 || left > 10 ? 10 : left);
        if (w < 0) {
            return w;
        }
    }
}

vek_s32 ser_purge(SockSys* s, vek_s32 what) {
    DWORD f = ((what & VEK_PURGE_IN) ? PURGE_RXCLEAR : 0) | ((what & VEK_PURGE_OUT) ? PURGE_TXCLEAR : 0);
    return f == 0 || PurgeComm(hnd_of(s), f) ? 0 : comm_error(GetLastError());
}

vek_s32 ser_set_lines(SockSys* s, vek_s32 mask, vek_s32 values) {
    HANDLE h = hnd_of(s);
    if ((mask & VEK_LINE_DTR) && !EscapeCommFunction(h, (values & VEK_LINE_DTR) ? SETDTR : CLRDTR)) {
        return comm_error(GetLastError());
    }
    if ((mask & VEK_LINE_RTS) && !EscapeCommFunction(h, (values & VEK_LINE_RTS) ? SETRTS : CLRRTS)) {
        return comm_error(GetLastError());
    }
    return 0;
}

vek_s32 ser_get_lines(SockSys* s) {
    DWORD m = 0;
    if (!GetCommModemStatus(hnd_of(s), &m)) {
        return comm_error(GetLastError());
    }
    return ((m & MS_CTS_ON) ? VEK_LINE_CTS : 0) | ((m & MS_DSR_ON) ? VEK_LINE_DSR : 0) |
           ((m & MS_RLSD_ON) ? VEK_LINE_DCD : 0) | ((m & MS_RING_ON) ? VEK_LINE_RI : 0);
}

vek_s32 ser_break(SockSys* s, vek_s32 ms) {
    HANDLE h = hnd_of(s);
    if (!SetCommBreak(h)) {
        return comm_error(GetLastError());
    }
    vek_s32 w = pause_ms(ms == 0 ? 250 : ms);
    ClearCommBreak(h);  // the line is always given back, also after a cancel
    return w;
}

} // namespace plat
