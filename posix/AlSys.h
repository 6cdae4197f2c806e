/*
 * AlSys.h (POSIX) - the system calls of the transports, serial ports,
 * endpoints, device list and watch and the monitors, each of which a test
 * can make fail (vek_os_fail_at__ with VEK_OS_IO, AlOs.h).
 *
 * These files are mostly error paths: a full descriptor table, a device
 * pulled out between two ioctls, a kernel table of watches used up. The
 * system takes such a path on a bad day only, so a test could not reach
 * it. Every such call goes through a function below instead: disarmed it
 * is the system call behind one relaxed load; armed, the call the
 * countdown lands on is not made and fails with the errno the system gives
 * for that call when it fails for real (or the one a test chose with
 * vek_os_fail_errno__), so the caller's own handling is what runs.
 *
 * Calls whose failure nobody handles (close, and the undoing of a step
 * already failed) stay direct: injecting there would test nothing.
 */
#ifndef VEK_ALSYS_H
#define VEK_ALSYS_H

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>
#include "AlPlat.h"

namespace plat {

/* Whether this call is the one to fail; if so errno is set to err (or the
 * test's choice). */
inline bool sys_fails(int err) {
    if (!os_fails(VEK_OS_IO)) {
        return false;
    }
    int chosen = g_osFailErrno.exchange(0, std::memory_order_relaxed);
    errno = chosen ? chosen : err;
    return true;
}

/* Files and devices. */
inline int sys_open(const char* path, int flags, mode_t mode = 0) {
    return sys_fails(EMFILE) ? -1 : ::open(path, flags, mode);
}
template <class... A>
inline int sys_ioctl(int fd, unsigned long req, A... arg) {
    return sys_fails(EIO) ? -1 : ::ioctl(fd, req, arg...);
}
inline int sys_flock(int fd, int op) {
    return sys_fails(EWOULDBLOCK) ? -1 : ::flock(fd, op);
}
inline int sys_tcdrain(int fd) {
    return sys_fails(EIO) ? -1 : ::tcdrain(fd);
}
inline int sys_tcflush(int fd, int q) {
    return sys_fails(EIO) ? -1 : ::tcflush(fd, q);
}
inline int sys_fcntl(int fd, int cmd) {
    return sys_fails(EBADF) ? -1 : ::fcntl(fd, cmd);
}
inline ssize_t sys_read(int fd, void* buf, size_t n) {
    return sys_fails(EIO) ? -1 : ::read(fd, buf, n);
}
inline ssize_t sys_write(int fd, const void* buf, size_t n) {
    return sys_fails(EIO) ? -1 : ::write(fd, buf, n);
}
inline off_t sys_lseek(int fd, off_t off, int whence) {
    return sys_fails(EIO) ? -1 : ::lseek(fd, off, whence);
}
inline int sys_mkdir(const char* path, mode_t mode) {
    return sys_fails(EACCES) ? -1 : ::mkdir(path, mode);
}
inline int sys_lstat(const char* path, struct stat* st) {
    return sys_fails(EACCES) ? -1 : ::lstat(path, st);
}
inline int sys_stat(const char* path, struct stat* st) {
    return sys_fails(EACCES) ? -1 : ::stat(path, st);
}
inline int sys_chmod(const char* path, mode_t mode) {
    return sys_fails(EPERM) ? -1 : ::chmod(path, mode);
}
inline int sys_unlink(const char* path) {
    return sys_fails(EACCES) ? -1 : ::unlink(path);
}
inline DIR* sys_opendir(const char* path) {
    return sys_fails(EMFILE) ? nullptr : ::opendir(path);
}
inline std::FILE* sys_fopen(const char* path, const char* mode) {
    return sys_fails(EMFILE) ? nullptr : std::fopen(path, mode);
}

/* Sockets. */
inline int sys_socket(int family, int type, int proto) {
    return sys_fails(EMFILE) ? -1 : ::socket(family, type, proto);
}
inline int sys_bind(int fd, const struct sockaddr* a, socklen_t n) {
    return sys_fails(EADDRINUSE) ? -1 : ::bind(fd, a, n);
}
inline int sys_listen(int fd, int backlog) {
    return sys_fails(EADDRINUSE) ? -1 : ::listen(fd, backlog);
}
inline int sys_connect(int fd, const struct sockaddr* a, socklen_t n) {
    return sys_fails(ECONNREFUSED) ? -1 : ::connect(fd, a, n);
}
inline int sys_accept4(int fd, struct sockaddr* a, socklen_t* n, int flags) {
    return sys_fails(EMFILE) ? -1 : ::accept4(fd, a, n, flags);
}
inline int sys_getsockopt(int fd, int level, int name, void* v, socklen_t* n) {
    return sys_fails(ENOBUFS) ? -1 : ::getsockopt(fd, level, name, v, n);
}
inline int sys_setsockopt(int fd, int level, int name, const void* v, socklen_t n) {
    return sys_fails(ENOMEM) ? -1 : ::setsockopt(fd, level, name, v, n);
}
inline int sys_getsockname(int fd, struct sockaddr* a, socklen_t* n) {
    return sys_fails(ENOBUFS) ? -1 : ::getsockname(fd, a, n);
}
inline ssize_t sys_send(int fd, const void* buf, size_t n, int flags) {
    return sys_fails(ECONNRESET) ? -1 : ::send(fd, buf, n, flags);
}
inline ssize_t sys_recv(int fd, void* buf, size_t n, int flags) {
    return sys_fails(ENOBUFS) ? -1 : ::recv(fd, buf, n, flags);
}
inline ssize_t sys_recvmsg(int fd, struct msghdr* m, int flags) {
    return sys_fails(ENOBUFS) ? -1 : ::recvmsg(fd, m, flags);
}
/* Name lookup answers with its own codes: a failure is EAI_SYSTEM with
 * errno set. */
inline int sys_getaddrinfo(const char* host, const char* svc, const struct addrinfo* hints, struct addrinfo** res) {
    return sys_fails(ENOMEM) ? EAI_SYSTEM : ::getaddrinfo(host, svc, hints, res);
}

/* File watches. */
inline int sys_inotify_init1(int flags) {
    return sys_fails(EMFILE) ? -1 : ::inotify_init1(flags);
}
inline int sys_inotify_add_watch(int fd, const char* path, uint32_t mask) {
    return sys_fails(ENOSPC) ? -1 : ::inotify_add_watch(fd, path, mask);
}

} // namespace plat

#endif /* VEK_ALSYS_H */
