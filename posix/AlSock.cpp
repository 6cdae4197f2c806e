/*
 * AlSock.cpp (POSIX) - TCP and Unix domain sockets for the socket classes
 * (AlSock.h). Every descriptor is non-blocking and close-on-exec from its
 * creation, so a wait through VekIoWait.h is the only place a call can
 * block, and a cancel ends it.
 *
 * Connecting is non-blocking too: connect() starts, the abortable wait
 * watches for the descriptor to become writable, SO_ERROR tells the
 * outcome. A name with several addresses is tried address by address
 * within the one time-out. Name lookup itself (getaddrinfo) is the
 * system's and cannot be cancelled; VEK_TCP_NUMERIC keeps it local.
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include "AlSock.h"
#include "AlSys.h"
#include "IoWait.h"
#include "VekCore.h"
#include "VekIoWait.h"

namespace {

vek_s32 sys_error(int e) {
    errno = e;
    switch (e) {
    case ECONNREFUSED:
    case ENOENT:  // a local socket's file is missing: nothing listens
        return VEK_ERR_REFUSED;
    case EADDRINUSE:
    case EEXIST:
        return VEK_ERR_ADDR_IN_USE;
    case ETIMEDOUT:
        return VEK_ERR_TIMEOUT;
    case ECONNRESET:
    case EPIPE:
        return VEK_ERR_PEER_CLOSED;
    default:
        return VEK_ERR_IO;
    }
}

/* Waits for a connect() in progress to end: 0 or its error. */
vek_s32 connect_end(int fd, vek_s32 tmo) {
    vek_s32 w = vek_fd_swait(fd, VEK_FD_OUT, tmo, 0);
    if (w < 0) {
        return w;
    }
    int e = 0;
    socklen_t n = sizeof e;
    if (plat::sys_getsockopt(fd, SOL_SOCKET, SO_ERROR, &e, &n) != 0) {
        e = errno;
    }
    return e == 0 ? 0 : sys_error(e);
}

void set_nodelay(int fd, bool on) {
    int v = on ? 1 : 0;
    plat::sys_setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &v, sizeof v);
}

vek_s32 lookup(const char* host, vek_s32 port, vek_s32 flags, bool passive, struct addrinfo** res) {
    struct addrinfo hints = {};
    hints.ai_family = (flags & VEK_TCP_IPV4) ? AF_INET : (flags & VEK_TCP_IPV6) ? AF_INET6 : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0) | ((flags & VEK_TCP_NUMERIC) ? AI_NUMERICHOST : 0);
    char svc[16];
    std::snprintf(svc, sizeof svc, "%d", (int)port);
    int r = plat::sys_getaddrinfo(host, svc, &hints, res);
    if (r == 0) {
        return 0;
    }
    return r == EAI_SYSTEM ? sys_error(errno) : r == EAI_MEMORY ? VEK_ERR_FULL : VEK_ERR_NO_HOST;
}

bool set_local_name(struct sockaddr_un* a, const char* name) {
    std::memset(a, 0, sizeof *a);
    a->sun_family = AF_UNIX;
    size_t n = std::strlen(name);
    if (n >= sizeof a->sun_path) {
        return false;
    }
    std::memcpy(a->sun_path, name, n);
    return true;
}

} // namespace

namespace plat {

/* Opens a socket for each address in turn and hands it to use, until one
 * is used (0, the descriptor in *out) or a time-out or cancel ends the
 * search; otherwise the last address's error. Frees res. */
template <class Use>
vek_s32 each_addr(struct addrinfo* res, Use use, SockSys* out) {
    vek_s32 err = VEK_ERR_NO_HOST;
    for (struct addrinfo* ai = res; ai; ai = ai->ai_next) {
        int fd = sys_socket(ai->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        err = fd < 0 ? sys_error(errno) : use(fd, ai);
        if (err == 0) {
            out->h = fd;
            break;
        }
        if (fd >= 0) {
            close(fd);
        }
        if (err == VEK_ERR_TIMEOUT || err == VEK_ERR_ABORTED) {
            break;
        }
    }
    freeaddrinfo(res);
    return err;
}

vek_s32 tcp_connect(const char* host, vek_s32 port, vek_s32 flags, vek_s32 tmo, SockSys* out) {
    vek_u32 start = vek_msec();
    struct addrinfo* res = nullptr;
    vek_s32 err = lookup(host, port, flags, false, &res);
    if (err < 0) {
        return err;
    }
    return each_addr(res, [&](int fd, struct addrinfo* ai) {
        vek_s32 e = 0;
        if (sys_connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
            e = errno == EINPROGRESS ? connect_end(fd, vek::ms_left(start, tmo)) : sys_error(errno);
        }
        if (e == 0 && (flags & VEK_TCP_NODELAY)) {
            set_nodelay(fd, true);
        }
        return e;
    }, out);
}

vek_s32 tcp_listen(const char* host, vek_s32 port, vek_s32 flags, SockSys* out) {
    struct addrinfo* res = nullptr;
    bool anyHost = !host || !*host;
    if (anyHost && !(flags & VEK_TCP_IPV4)) {
        host = "::";  // both families on one socket, where the system lets IPv6 take IPv4
        flags |= VEK_TCP_NUMERIC;
    }
    vek_s32 err = lookup(host, port, flags, true, &res);
    if (err < 0 && anyHost && !(flags & VEK_TCP_IPV6)) {
        err = lookup("0.0.0.0", port, flags | VEK_TCP_IPV4 | VEK_TCP_NUMERIC, true, &res);  // no IPv6 here
    }
    if (err < 0) {
        return err;
    }
    return each_addr(res, [&](int fd, struct addrinfo* ai) {
        int one = 1, zero = 0;
        sys_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (ai->ai_family == AF_INET6 && anyHost) {
            sys_setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
        }
        if (sys_bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || sys_listen(fd, SOMAXCONN) != 0) {
            return sys_error(errno);
        }
        if (flags & VEK_TCP_NODELAY) {
            set_nodelay(fd, true);  // accepted sockets inherit it
        }
        return 0;
    }, out);
}

vek_s32 tcp_port(const SockSys* s) {
    struct sockaddr_storage a;
    socklen_t n = sizeof a;
    if (sys_getsockname((int)s->h, (struct sockaddr*)&a, &n) != 0) {
        return sys_error(errno);
    }
    return a.ss_family == AF_INET6 ? ntohs(((struct sockaddr_in6*)&a)->sin6_port)
                                   : ntohs(((struct sockaddr_in*)&a)->sin_port);
}

vek_s32 tcp_nodelay(SockSys* s, bool on) {
    int v = on ? 1 : 0;
    return sys_setsockopt((int)s->h, IPPROTO_TCP, TCP_NODELAY, &v, sizeof v) == 0 ? 0 : sys_error(errno);
}

vek_s32 loc_connect(const char* name, vek_s32 tmo, SockSys* out) {
    struct sockaddr_un a;
    if (!set_local_name(&a, name)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_u32 start = vek_msec();
    for (;;) {
        int fd = sys_socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return sys_error(errno);
        }
        if (sys_connect(fd, (struct sockaddr*)&a, sizeof a) == 0) {
            out->h = fd;
            out->local = true;
            return 0;
        }
        int e = errno;
        close(fd);
        if (e != EAGAIN) {
            return sys_error(e);
        }
        // The listener's backlog is full: a Unix socket says so at once
        // rather than queueing the connect, so try again a little later.
        vek_s32 w = vek_fd_swait(-1, 0, tmo < 0 ? 5 : std::min<vek_s32>(5, vek::ms_left(start, tmo)), 0);
        if (w == VEK_ERR_ABORTED) {
            return w;
        }
        if (tmo >= 0 && vek::ms_left(start, tmo) == 0) {
            return VEK_ERR_TIMEOUT;
        }
    }
}

vek_s32 loc_listen(const char* name, SockSys* out, LocAccess access) {
    struct sockaddr_un a;
    if (!set_local_name(&a, name)) {
        return VEK_ERR_BAD_ARG;
    }
    int fd = sys_socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return sys_error(errno);
    }
    if (sys_bind(fd, (struct sockaddr*)&a, sizeof a) != 0) {
        int e = errno;
        close(fd);
        return sys_error(e);
    }
    // The mode is set before listen(): until then every connect is
    // refused, so nobody gets in through the umask's mode.
    bool mode_ok = access == LocAccess::kDefault || sys_chmod(name, access == LocAccess::kUser ? 0600 : 0666) == 0;
    if (!mode_ok || sys_listen(fd, SOMAXCONN) != 0) {
        int e = errno;
        close(fd);
        unlink(name);
        return sys_error(e);
    }
    out->h = fd;
    out->local = true;
    return 0;
}

vek_s32 loc_peer(const SockSys* s, VekSockPeer* peer) {
#ifdef SO_PEERCRED
    struct ucred cr;
    socklen_t n = sizeof cr;
    if (sys_getsockopt((int)s->h, SOL_SOCKET, SO_PEERCRED, &cr, &n) != 0) {
        return sys_error(errno);
    }
    peer->pid = cr.pid;
    peer->uid = cr.uid;
    return 0;
#else
    (void)s;
    (void)peer;
    return VEK_ERR_UNSUPPORTED;
#endif
}

vek_s32 sock_accept(SockSys* l, vek_s32 tmo, SockSys* out) {
    vek_u32 start = vek_msec();
    for (;;) {
        vek_s32 w = vek_fd_swait((int)l->h, VEK_FD_IN, vek::ms_left(start, tmo), 0);
        if (w < 0) {
            return w;
        }
        int fd = sys_accept4((int)l->h, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            out->h = fd;
            out->local = l->local;
            return 0;
        }
        int e = errno;
        // A client that gave up before it was taken, or another acceptor
        // that was faster: wait for the next one.
        if (e != EAGAIN && e != EWOULDBLOCK && e != EINTR && e != ECONNABORTED && e != EPROTO) {
            return sys_error(e);
        }
    }
}

vek_s32 hnd_adopt(vek_s64 h, SockSys* out) {
    int fd = h >= 0 && h <= INT32_MAX ? (int)h : -1;
    int fl = fd >= 0 ? sys_fcntl(fd, F_GETFL) : -1;
    if (fl < 0) {
        return VEK_ERR_BAD_ARG;
    }
    if (!(fl & O_NONBLOCK)) {
        fcntl(fd, F_SETFL, fl | O_NONBLOCK);
    }
    out->h = fd;
    return 0;
}

/* The device codes of a serial port's errors. */
bool dev_gone(const SockSys* s, vek_s32 r) {
    return s->dev && (r == VEK_ERR_PEER_CLOSED || (r == VEK_ERR_IO && (errno == EIO || errno == ENXIO || errno == ENODEV)));
}

/* Reads and writes try the descriptor (non-blocking) once before they
 * wait: data already there, or room already free, is the common case of
 * a busy link, and it then costs one system call instead of a wait. When
 * it is not, the abortable wait decides (and a cancel is seen there). */
vek_s32 sock_read(SockSys* s, void* buf, vek_s32 len, vek_s32 tmo) {
    ssize_t n = sys_read((int)s->h, buf, (size_t)len);
    vek_s32 r;
    if (n > 0) {
        return (vek_s32)n;
    } else if (n == 0 && !s->dev) {
        r = VEK_ERR_EOF;
    } else {
        r = vek_fd_sread((int)s->h, buf, len, tmo, 0);
    }
    return dev_gone(s, r) ? VEK_ERR_DEV_GONE : r;
}

vek_s32 sock_write(SockSys* s, const void* data, vek_s32 len, vek_s32 tmo) {
    int fd = (int)s->h;
    ssize_t n = s->dev ? sys_write(fd, data, (size_t)len) : sys_send(fd, data, (size_t)len, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n == len) {
        return len;
    }
    if (n < 0 && errno == ENOTSOCK) {
        n = 0;  // an adopted descriptor that is no socket: the general writer knows its kind
    }
    vek_s32 done = n > 0 ? (vek_s32)n : 0;
    vek_s32 r;
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        r = errno == EPIPE || errno == ECONNRESET ? VEK_ERR_PEER_CLOSED : VEK_ERR_IO;
    } else {
        r = vek_fd_swrite(fd, (const char*)data + done, len - done, tmo, 0);
    }
    if (r >= 0) {
        return done + r;
    }
    if (dev_gone(s, r)) {
        r = VEK_ERR_DEV_GONE;
    }
    return done > 0 ? done : r;
}

void sock_close(SockSys* s, bool own, const char* name) {
    if (own && s->h >= 0) {
        if (s->dev) {
            ioctl((int)s->h, TIOCNXCL);  // a terminal keeps the flag past our close otherwise
        }
        close((int)s->h);
    }
    if (name && s->local) {
        unlink(name);
    }
    s->h = kNoSock;
}

} // namespace plat
