/*
 * AlSock.cpp (Windows) - TCP through Winsock and local stream sockets as
 * named pipes, for the socket classes (AlSock.h).
 *
 * Data moves by overlapped ReadFile/WriteFile on the SOCKET or pipe handle
 * (vek_hnd_sread / vek_hnd_swrite), which a cancel ends with CancelIoEx.
 * Connecting and accepting on a socket wait for FD_CONNECT / FD_ACCEPT on
 * an event (WSAEventSelect) together with the caller's abort event.
 * Sockets stay non-blocking, which overlapped reads ignore: a write is
 * sent with send() as far as the buffer takes it and waits for FD_WRITE
 * for the rest, because a cancelled overlapped send leaves unknown how
 * much of it went out, and a write-all must say exactly that. Each socket holds one
 * WSAStartup reference for its life: Winsock counts them, so it is ready
 * while a socket exists and released with the last one.
 *
 * A local listener is the pipe instance waiting for the next client; when
 * a client connects, that instance becomes the client's socket and a new
 * instance is created first, so a client never finds no instance to open.
 */
#include <winsock2.h>
#include <ws2tcpip.h>
#include <sddl.h>
#include <cstdio>
#include <cwchar>
#include "WinHelp.h"
#include "AlSock.h"
#include "IoWait.h"
#include "VekCore.h"
#include "VekIoWait.h"
#include "VekVosx.h"

namespace {

constexpr DWORD kPipeBuf = 65536;

struct PipeName {
    wchar_t w[300];
};

bool wsa_up() {
    WSADATA d;
    return WSAStartup(MAKEWORD(2, 2), &d) == 0;
}

vek_s32 wsa_error(int e) {
    WSASetLastError(e);
    SetLastError((DWORD)e);
    switch (e) {
    case WSAECONNREFUSED:
        return VEK_ERR_REFUSED;
    case WSAEADDRINUSE:
        return VEK_ERR_ADDR_IN_USE;
    case WSAETIMEDOUT:
        return VEK_ERR_TIMEOUT;
    case WSAECONNRESET:
    case WSAECONNABORTED:
        return VEK_ERR_PEER_CLOSED;
    default:
        return VEK_ERR_IO;
    }
}

/* Waits for one of the network events in mask: 0, -5, -12 or the
 * event's error. */
vek_s32 net_wait(SOCKET s, long mask, int bit, vek_s32 tmo) {
    HANDLE ev = WSACreateEvent();
    if (ev == WSA_INVALID_EVENT) {
        return wsa_error(WSAGetLastError());
    }
    vek_s32 res = WSAEventSelect(s, ev, mask) == 0 ? 0 : wsa_error(WSAGetLastError());
    vek_u32 start = vek_msec();
    while (res == 0) {
        WSANETWORKEVENTS ne = {};
        if (WSAEnumNetworkEvents(s, ev, &ne) != 0) {
            res = wsa_error(WSAGetLastError());
        } else if (ne.lNetworkEvents & mask) {
            res = ne.iErrorCode[bit] == 0 ? 1 : wsa_error(ne.iErrorCode[bit]);
        } else {
            vek_s32 w = win_hnd_swait__(ev, vek::ms_left(start, tmo), 0);
            res = w < 0 ? w : 0;
        }
    }
    WSAEventSelect(s, nullptr, 0);
    WSACloseEvent(ev);
    return res == 1 ? 0 : res;
}

SOCKET new_socket(int family) {
    return WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
}

void set_nodelay(SOCKET s, bool on) {
    BOOL v = on ? TRUE : FALSE;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, (const char*)&v, sizeof v);
}

vek_s32 lookup(const char* host, vek_s32 port, vek_s32 flags, bool passive, ADDRINFOA** res) {
    ADDRINFOA hints = {};
    hints.ai_family = (flags & VEK_TCP_IPV4) ? AF_INET : (flags & VEK_TCP_IPV6) ? AF_INET6 : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0) | ((flags & VEK_TCP_NUMERIC) ? AI_NUMERICHOST : 0);
    char svc[16];
    std::snprintf(svc, sizeof svc, "%d", (int)port);
    int r = getaddrinfo(host, svc, &hints, res);
    return r == 0 ? 0 : r == WSA_NOT_ENOUGH_MEMORY ? VEK_ERR_FULL : VEK_ERR_NO_HOST;
}

bool pipe_name(const char* name, PipeName* out) {
    wchar_t w[256];
    if (win::to_wide(name, w, 256) >= 255) {
        return false;
    }
    std::swprintf(out->w, 300, L"\\\\.\\pipe\\%ls", w);
    return true;
}

/* A listener's state beside its waiting instance: the name, and the
 * security every instance is created with (sa null: the default DACL). */
struct PipeLis {
    PipeName name;
    SECURITY_ATTRIBUTES* sa;
    SECURITY_ATTRIBUTES saRec;
    SECURITY_DESCRIPTOR sd;
    union {
        ACL acl;
        char raw[256];
    } dacl;
};

/* A DACL for the current user (full access) and, for kAnyUser, the
 * users authenticated on this machine, who may read and write but not
 * create instances of their own beside the server's. */
bool pipe_security(PipeLis* lis, plat::LocAccess access) {
    HANDLE tok = nullptr;
    union {
        TOKEN_USER tu;
        char raw[256];
    } user;
    DWORD n = 0;
    bool ok = OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &tok) &&
              GetTokenInformation(tok, TokenUser, &user, sizeof user, &n);
    if (tok) {
        CloseHandle(tok);
    }
    ok = ok && InitializeAcl(&lis->dacl.acl, sizeof lis->dacl, ACL_REVISION) &&
         AddAccessAllowedAce(&lis->dacl.acl, ACL_REVISION, GENERIC_ALL, user.tu.User.Sid);
    if (ok && access == plat::LocAccess::kAnyUser) {
        union {
            SID sid;
            char raw[SECURITY_MAX_SID_SIZE];
        } au;
        DWORD size = sizeof au;
        ok = CreateWellKnownSid(WinAuthenticatedUserSid, nullptr, &au, &size) &&
             AddAccessAllowedAce(&lis->dacl.acl, ACL_REVISION,
                                 (FILE_GENERIC_READ | FILE_GENERIC_WRITE) & ~FILE_CREATE_PIPE_INSTANCE, &au);
    }
    ok = ok && InitializeSecurityDescriptor(&lis->sd, SECURITY_DESCRIPTOR_REVISION) &&
         SetSecurityDescriptorDacl(&lis->sd, TRUE, &lis->dacl.acl, FALSE);
    lis->saRec.nLength = sizeof lis->saRec;
    lis->saRec.lpSecurityDescriptor = &lis->sd;
    lis->saRec.bInheritHandle = FALSE;
    lis->sa = &lis->saRec;
    return ok;
}

HANDLE new_instance(PipeLis* lis, bool first) {
    return CreateNamedPipeW(lis->name.w,
                            PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0),
                            PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                            PIPE_UNLIMITED_INSTANCES, kPipeBuf, kPipeBuf, 0, lis->sa);
}

} // namespace

/* The user SID text of a process, "" when it cannot be read. */
void plat::process_sid(DWORD pid, char* out, size_t cap) {
    out[0] = 0;
    HANDLE proc = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
    HANDLE tok = nullptr;
    if (proc && OpenProcessToken(proc, TOKEN_QUERY, &tok)) {
        union {
            TOKEN_USER tu;
            char raw[256];
        } info;
        DWORD n = 0;
        LPSTR text = nullptr;
        if (GetTokenInformation(tok, TokenUser, &info, sizeof info, &n) &&
            ConvertSidToStringSidA(info.tu.User.Sid, &text)) {
            std::snprintf(out, cap, "%s", text);
            LocalFree(text);
        }
        CloseHandle(tok);
    }
    if (proc) {
        CloseHandle(proc);
    }
}


namespace plat {

/* Opens a socket for each address in turn and hands it to use, until one
 * is used (0, the socket in *out) or a time-out or cancel ends the
 * search; otherwise the last address's error, and the WSAStartup
 * reference is given back. Frees res. */
template <class Use>
vek_s32 each_addr(ADDRINFOA* res, Use use, SockSys* out) {
    vek_s32 err = VEK_ERR_NO_HOST;
    for (ADDRINFOA* ai = res; ai; ai = ai->ai_next) {
        SOCKET s = new_socket(ai->ai_family);
        err = s == INVALID_SOCKET ? wsa_error(WSAGetLastError()) : use(s, ai);
        if (err == 0) {
            out->h = (vek_s64)s;
            out->wsa = true;
            break;
        }
        if (s != INVALID_SOCKET) {
            closesocket(s);
        }
        if (err == VEK_ERR_TIMEOUT || err == VEK_ERR_ABORTED) {
            break;
        }
    }
    freeaddrinfo(res);
    return err;
}

vek_s32 tcp_connect(const char* host, vek_s32 port, vek_s32 flags, vek_s32 tmo, SockSys* out) {
    if (!wsa_up()) {
        return VEK_ERR_IO;
    }
    vek_u32 start = vek_msec();
    ADDRINFOA* res = nullptr;
    vek_s32 err = lookup(host, port, flags, false, &res);
    if (err == 0) {
        err = each_addr(res, [&](SOCKET s, ADDRINFOA* ai) {
            u_long nb = 1;
            ioctlsocket(s, FIONBIO, &nb);
            vek_s32 e = 0;
            if (connect(s, ai->ai_addr, (int)ai->ai_addrlen) != 0) {
                int we = WSAGetLastError();
                e = we == WSAEWOULDBLOCK ? net_wait(s, FD_CONNECT, FD_CONNECT_BIT, vek::ms_left(start, tmo))
                                         : wsa_error(we);
            }
            if (e == 0 && (flags & VEK_TCP_NODELAY)) {
                set_nodelay(s, true);
            }
            return e;
        }, out);
    }
    if (err != 0) {
        WSACleanup();
    }
    return err;
}

vek_s32 tcp_listen(const char* host, vek_s32 port, vek_s32 flags, SockSys* out) {
    if (!wsa_up()) {
        return VEK_ERR_IO;
    }
    bool anyHost = !host || !*host;
    if (anyHost && !(flags & VEK_TCP_IPV4)) {
        host = "::";  // both families on one socket
        flags |= VEK_TCP_NUMERIC;
    }
    ADDRINFOA* res = nullptr;
    vek_s32 err = lookup(host, port, flags, true, &res);
    if (err < 0 && anyHost && !(flags & VEK_TCP_IPV6)) {
        err = lookup("0.0.0.0", port, flags | VEK_TCP_IPV4 | VEK_TCP_NUMERIC, true, &res);
    }
    if (err == 0) {
        err = each_addr(res, [&](SOCKET s, ADDRINFOA* ai) {
            // Exclusive: on Windows SO_REUSEADDR would let another program
            // take the port from under a live listener.
            BOOL one = TRUE, zero = FALSE;
            setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, (const char*)&one, sizeof one);
            if (ai->ai_family == AF_INET6 && anyHost) {
                setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, (const char*)&zero, sizeof zero);
            }
            if (bind(s, ai->ai_addr, (int)ai->ai_addrlen) != 0 || listen(s, SOMAXCONN) != 0) {
                return wsa_error(WSAGetLastError());
            }
            if (flags & VEK_TCP_NODELAY) {
                set_nodelay(s, true);
            }
            return (vek_s32)0;
        }, out);
    }
    if (err != 0) {
        WSACleanup();
    }
    return err;
}

vek_s32 tcp_port(const SockSys* s) {
    sockaddr_storage a;
    int n = sizeof a;
    if (getsockname((SOCKET)s->h, (sockaddr*)&a, &n) != 0) {
        return wsa_error(WSAGetLastError());
    }
    return a.ss_family == AF_INET6 ? ntohs(((sockaddr_in6*)&a)->sin6_port) : ntohs(((sockaddr_in*)&a)->sin_port);
}

vek_s32 tcp_nodelay(SockSys* s, bool on) {
    BOOL v = on ? TRUE : FALSE;
    return setsockopt((SOCKET)s->h, IPPROTO_TCP, TCP_NODELAY, (const char*)&v, sizeof v) == 0
               ? 0
               : wsa_error(WSAGetLastError());
}

vek_s32 loc_connect(const char* name, vek_s32 tmo, SockSys* out) {
    PipeName pn;
    if (!pipe_name(name, &pn)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_u32 start = vek_msec();
    for (;;) {
        // Write data only: a pipe open to other users never grants them
        // the right to create instances, which GENERIC_WRITE would ask for.
        HANDLE h = CreateFileW(pn.w, GENERIC_READ | FILE_WRITE_DATA, 0, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            out->h = (vek_s64)(intptr_t)h;
            out->local = true;
            return 0;
        }
        DWORD e = GetLastError();
        if (e != ERROR_PIPE_BUSY) {
            return e == ERROR_FILE_NOT_FOUND ? VEK_ERR_REFUSED : VEK_ERR_IO;
        }
        // Every instance is taken until the server makes the next one:
        // WaitNamedPipe cannot be cancelled, so look again shortly.
        vek_s32 left = vek::ms_left(start, tmo);
        if (left == 0) {
            return VEK_ERR_TIMEOUT;
        }
        HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        vek_s32 w = win_hnd_swait__(never, left < 0 || left > 5 ? 5 : left, 0);
        CloseHandle(never);
        if (w == VEK_ERR_ABORTED) {
            return w;
        }
    }
}

vek_s32 loc_listen(const char* name, SockSys* out, LocAccess access) {
    PipeLis* lis = (PipeLis*)vek_malloc__(sizeof(PipeLis));
    if (!lis) {
        return VEK_ERR_FULL;
    }
    lis->sa = nullptr;
    if (!pipe_name(name, &lis->name)) {
        vek_free__(lis);
        return VEK_ERR_BAD_ARG;
    }
    if (access != LocAccess::kDefault && !pipe_security(lis, access)) {
        DWORD e = GetLastError();
        vek_free__(lis);
        SetLastError(e);
        return VEK_ERR_IO;
    }
    // The first-instance flag refuses a name another server holds; a
    // system that does not enforce it (wine) is asked whether the name
    // answers first.
    HANDLE h = INVALID_HANDLE_VALUE;
    if (!WaitNamedPipeW(lis->name.w, 1) && GetLastError() == ERROR_FILE_NOT_FOUND) {
        h = new_instance(lis, true);
    } else {
        SetLastError(ERROR_ACCESS_DENIED);
    }
    if (h == INVALID_HANDLE_VALUE) {
        DWORD e = GetLastError();
        vek_free__(lis);
        SetLastError(e);
        return e == ERROR_ACCESS_DENIED || e == ERROR_PIPE_BUSY ? VEK_ERR_ADDR_IN_USE : VEK_ERR_IO;
    }
    out->h = (vek_s64)(intptr_t)h;
    out->local = true;
    out->ext = lis;
    return 0;
}

vek_s32 loc_peer(const SockSys* s, VekSockPeer* peer) {
    ULONG pid = 0;
    HANDLE h = (HANDLE)(intptr_t)s->h;
    if (!(s->server ? GetNamedPipeClientProcessId(h, &pid) : GetNamedPipeServerProcessId(h, &pid))) {
        return VEK_ERR_IO;
    }
    peer->pid = pid;
    peer->uid = -1;
    process_sid(pid, peer->sid, sizeof peer->sid);
    return 0;
}

vek_s32 sock_accept(SockSys* l, vek_s32 tmo, SockSys* out) {
    if (!l->local) {
        SOCKET ls = (SOCKET)l->h;
        vek_u32 start = vek_msec();
        for (;;) {
            u_long nb = 1;
            ioctlsocket(ls, FIONBIO, &nb);  // accept must not block: another may have taken the client
            SOCKET c = accept(ls, nullptr, nullptr);
            if (c != INVALID_SOCKET) {
                WSAEventSelect(c, nullptr, 0);  // it inherits the listener's selection (and mode)
                ioctlsocket(c, FIONBIO, &nb);
                wsa_up();
                out->h = (vek_s64)c;
                out->wsa = true;
                return 0;
            }
            int e = WSAGetLastError();
            if (e != WSAEWOULDBLOCK) {
                return wsa_error(e);
            }
            vek_s32 w = net_wait(ls, FD_ACCEPT, FD_ACCEPT_BIT, vek::ms_left(start, tmo));
            if (w < 0) {
                return w;
            }
        }
    }
    PipeLis* lis = (PipeLis*)l->ext;
    HANDLE h = (HANDLE)(intptr_t)l->h;
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!ov.hEvent) {
        return VEK_ERR_IO;
    }
    vek_s32 r = 0;
    if (!ConnectNamedPipe(h, &ov)) {
        DWORD e = GetLastError();
        if (e == ERROR_IO_PENDING) {
            r = vek_ovl_swait(h, &ov, nullptr, tmo, 0);
        } else if (e != ERROR_PIPE_CONNECTED) {
            r = VEK_ERR_IO;
        }
    }
    CloseHandle(ov.hEvent);
    if (r < 0) {
        return r;
    }
    HANDLE next = new_instance(lis, false);
    if (next == INVALID_HANDLE_VALUE) {
        DisconnectNamedPipe(h);
        return VEK_ERR_IO;
    }
    l->h = (vek_s64)(intptr_t)next;
    out->h = (vek_s64)(intptr_t)h;
    out->local = true;
    out->server = true;
    return 0;
}

vek_s32 hnd_adopt(vek_s64 h, SockSys* out) {
    HANDLE hd = (HANDLE)(intptr_t)h;
    if (!hd || hd == INVALID_HANDLE_VALUE || GetFileType(hd) == FILE_TYPE_UNKNOWN) {
        return VEK_ERR_BAD_ARG;
    }
    out->h = h;
    return 0;
}

/* A COMM port's errors that mean the device went away (an unplugged USB
 * adapter fails its I/O with one of these). */
vek_s32 dev_result(const SockSys* s, vek_s32 r) {
    if (!s->dev) {
        return r;
    }
    DWORD e = GetLastError();
    bool gone = r == VEK_ERR_PEER_CLOSED ||
                (r == VEK_ERR_IO && (e == ERROR_BAD_COMMAND || e == ERROR_DEVICE_REMOVED || e == ERROR_DEV_NOT_EXIST ||
                                     e == ERROR_GEN_FAILURE || e == ERROR_ACCESS_DENIED));
    return gone ? VEK_ERR_DEV_GONE : r;
}

vek_s32 sock_read(SockSys* s, void* buf, vek_s32 len, vek_s32 tmo) {
    return dev_result(s, vek_hnd_sread((vek_handle)(intptr_t)s->h, buf, len, tmo, 0));
}

vek_s32 sock_write(SockSys* s, const void* data, vek_s32 len, vek_s32 tmo) {
    if (s->wsa) {
        SOCKET so = (SOCKET)s->h;
        const char* p = (const char*)data;
        vek_s32 done = 0;
        vek_u32 start = vek_msec();
        while (done < len) {
            int r = send(so, p + done, len - done, 0);
            if (r > 0) {
                done += r;
                continue;
            }
            int e = WSAGetLastError();
            vek_s32 w = e == WSAEWOULDBLOCK
                            ? net_wait(so, FD_WRITE | FD_CLOSE, FD_WRITE_BIT, vek::ms_left(start, tmo))
                            : wsa_error(e);
            if (w < 0) {
                return done > 0 ? done : w;
            }
        }
        return done;
    }
    return dev_result(s, vek_hnd_swrite((vek_handle)(intptr_t)s->h, data, len, tmo, 0));
}

void sock_close(SockSys* s, bool own, const char*) {
    if (own && s->h != kNoSock) {
        if (s->wsa) {
            closesocket((SOCKET)s->h);
            WSACleanup();
        } else {
            CloseHandle((HANDLE)(intptr_t)s->h);
        }
    }
    vek_free__(s->ext);
    s->ext = nullptr;
    s->h = kNoSock;
}

} // namespace plat
