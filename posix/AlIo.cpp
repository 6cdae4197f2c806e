/*
 * AlIo.cpp (POSIX) - reads and writes on descriptors that a cancel ends:
 * each waits for readiness through the abortable descriptor wait first and
 * then makes one system call that cannot block, so nothing is read before
 * the wait has decided, and a cancel never leaves a byte half-taken.
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
#include "VekCore.h"
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

/* How a descriptor is written: sockets through send(); pipes in pieces
 * that fit (a blocking pipe takes up to PIPE_BUF bytes without blocking
 * once it is writable) and without SIGPIPE; the rest plainly. */
struct Writer {
    enum Kind { kUnknown, kSocket, kPipe, kOther } kind = kUnknown;
    bool blocking = false;

    ssize_t write_some(int fd, const char* p, size_t n) {
        if (kind == kUnknown || kind == kSocket) {
            ssize_t r = send(fd, p, n, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (r >= 0 || errno != ENOTSOCK) {
                kind = kSocket;
                return r;
            }
            struct stat st;
            kind = fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) ? kPipe : kOther;
            int fl = fcntl(fd, F_GETFL);
            blocking = fl >= 0 && !(fl & O_NONBLOCK);
        }
        if (blocking && kind == kPipe && n > PIPE_BUF) {
            n = PIPE_BUF;
        }
        return kind == kPipe ? pipe_write(fd, p, n) : write(fd, p, n);
    }
};

} // namespace

extern "C" {

VEK_API vek_s32 vek_fd_sread(vek_s32 fd, void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (!buf || size < 0) {
        vek_assert__("buf && size >= 0", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    if (size == 0) {
        return 0;
    }
    vek_u32 start = vek_msec();
    for (;;) {
        plat::PollFd p = {fd, VEK_FD_IN, 0};
        vek_s32 w = vek::fd_wait(&p, 1, vek::ms_left(start, tmo), flags, "vek_fd_sread()");
        if (w < 0) {
            return w;
        }
        ssize_t r = read(fd, buf, (size_t)size);
        if (r > 0) {
            return (vek_s32)r;
        }
        if (r == 0) {
            return VEK_ERR_EOF;
        }
        int e = errno;
        if (e == EIO && (p.revents & VEK_FD_HUP)) {
            return VEK_ERR_EOF;  // a pseudo-terminal whose other side is gone
        }
        if (!again(e)) {
            return io_error(e);
        }
        // Another reader was faster: wait again.
    }
}

VEK_API vek_s32 vek_fd_swrite(vek_s32 fd, const void* buf, vek_s32 size, vek_s32 tmo, vek_s32 flags) {
    if (!buf || size < 0) {
        vek_assert__("buf && size >= 0", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    const char* p = (const char*)buf;
    vek_s32 done = 0;
    Writer wr;
    vek_u32 start = vek_msec();
    while (done < size) {
        plat::PollFd pf = {fd, VEK_FD_OUT, 0};
        vek_s32 w = vek::fd_wait(&pf, 1, vek::ms_left(start, tmo), flags, "vek_fd_swrite()");
        if (w < 0) {
            return done > 0 ? done : w;
        }
        ssize_t r = wr.write_some(fd, p + done, (size_t)(size - done));
        if (r > 0) {
            done += (vek_s32)r;
        } else if (r < 0 && !again(errno)) {
            vek_s32 err = io_error(errno);
            return done > 0 ? done : err;
        }
    }
    return done;
}

VEK_API vek_s32 vek_hnd_sread(vek_handle, void*, vek_s32, vek_s32, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}

VEK_API vek_s32 vek_hnd_swrite(vek_handle, const void*, vek_s32, vek_s32, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}

VEK_API vek_s32 vek_ovl_swait(vek_handle, void*, vek_u32*, vek_s32, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}

} // extern "C"
