/*
 * AlIo.cpp (POSIX) - one step of I/O on a descriptor that a wait found
 * ready (IoWait.h): a read or a write that never blocks.
 *
 * Writes never raise SIGPIPE: sockets are written with MSG_NOSIGNAL, and a
 * write into a pipe blocks SIGPIPE for the call and takes back the signal
 * that the write itself raised (one that was pending before stays).
 */
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include "IoWait.h"
#include "VekIoWait.h"

namespace {

bool again(int e) {
    return e == EAGAIN || e == EWOULDBLOCK || e == EINTR;
}

vek_s32 io_error(int e) {
    errno = e;
    return e == EPIPE || e == ECONNRESET ? VEK_ERR_PEER_CLOSED : VEK_ERR_IO;
}

/* A write into a pipe with SIGPIPE held off. */
ssize_t pipe_write(int fd, const void* p, size_t n) {
    sigset_t pipeSig, old, pending;
    sigemptyset(&pipeSig);
    sigaddset(&pipeSig, SIGPIPE);
    sigpending(&pending);
    bool wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipeSig, &old);
    ssize_t r = write(fd, p, n);
    int e = errno;
    if (r < 0 && e == EPIPE && !wasPending) {
        struct timespec zero = {0, 0};
        while (sigtimedwait(&pipeSig, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = e;
    return r;
}

enum WriterKind { kUnknown, kSocket, kPipe, kOther };

} // namespace

namespace plat {

vek_s32 fd_read_now(vek_s32 fd, void* buf, vek_s32 n, vek_s16 revents) {
    ssize_t r = read(fd, buf, (size_t)n);
    if (r >= 0) {
        return r > 0 ? (vek_s32)r : VEK_ERR_EOF;
    }
    int e = errno;
    if (e == EIO && (revents & VEK_FD_HUP)) {
        return VEK_ERR_EOF;  // a pseudo-terminal whose other side is gone
    }
    return again(e) ? 0 : io_error(e);
}

/* Sockets go through send(); pipes in pieces that fit (a blocking pipe
 * takes up to PIPE_BUF bytes without blocking once it is writable) and
 * without SIGPIPE; the rest plainly. */
vek_s32 fd_write_now(FdWriter* w, vek_s32 fd, const void* buf, vek_s32 n) {
    const char* p = (const char*)buf;
    size_t len = (size_t)n;
    ssize_t r = -1;
    if (w->kind == kUnknown || w->kind == kSocket) {
        r = send(fd, p, len, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (r >= 0 || errno != ENOTSOCK) {
            w->kind = kSocket;
        } else {
            struct stat st;
            w->kind = fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) ? kPipe : kOther;
            int fl = fcntl(fd, F_GETFL);
            w->blocking = fl >= 0 && !(fl & O_NONBLOCK);
        }
    }
    if (w->kind != kSocket) {
        if (w->blocking && w->kind == kPipe && len > PIPE_BUF) {
            len = PIPE_BUF;
        }
        r = w->kind == kPipe ? pipe_write(fd, p, len) : write(fd, p, len);
    }
    if (r >= 0) {
        return (vek_s32)r;
    }
    return again(errno) ? 0 : io_error(errno);
}

/* Overlapped I/O is Windows' own. */
vek_s32 ovl_io(vek_handle, bool, void*, vek_s32, vek_s32, vek_handle, bool) {
    return VEK_ERR_UNSUPPORTED;
}

vek_s32 ovl_wait(vek_handle, void*, vek_u32*, vek_s32, vek_handle, bool) {
    return VEK_ERR_UNSUPPORTED;
}

} // namespace plat
