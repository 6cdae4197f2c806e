/*
 * AlPipe.cpp (POSIX) - endpoints by logical name (VekPipe.h): the private
 * runtime folder, and taking a name over from a dead server.
 *
 * The folder is the security boundary: a socket in a folder only its user
 * can enter cannot be reached, replaced or raced by anyone else. So the
 * folder is checked with lstat before every use (a folder, not a link to
 * one, the user's, nothing for group or others) and refused otherwise;
 * the library never chmods or chowns what it finds, since a folder in that
 * state was made by someone else or on purpose.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include "AlSock.h"
#include "AlSys.h"
#include "IoWait.h"
#include "VekCore.h"
#include "VekIoWait.h"

namespace {

/* Creates dir (0700) when missing, then checks it is private: 0, -761,
 * -850. */
vek_s32 private_dir(const char* dir) {
    if (plat::sys_mkdir(dir, 0700) != 0 && errno != EEXIST) {
        return VEK_ERR_IO;
    }
    struct stat st;
    if (plat::sys_lstat(dir, &st) != 0) {
        return VEK_ERR_IO;
    }
    if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 077) != 0) {
        return VEK_ERR_UNSAFE_DIR;
    }
    return 0;
}

bool absolute(const char* s) {
    return s && s[0] == '/';
}

/* The folder part of a socket path ("." when it has none). */
void dir_of(const char* path, char* out, size_t cap) {
    const char* slash = std::strrchr(path, '/');
    size_t n = slash ? (size_t)(slash - path) : 0;
    if (slash && n == 0) {
        n = 1;  // "/name"
    }
    if (!slash || n >= cap) {
        std::snprintf(out, cap, ".");
        return;
    }
    std::memcpy(out, path, n);
    out[n] = 0;
}

/* Holds an exclusive lock on the socket's folder while a server takes its
 * name, so that of two servers starting together the second sees the
 * first one's live socket instead of removing it as stale. The wait for
 * the lock is short and cancellable. -1 when the folder cannot be locked
 * (the caller goes on without). */
int lock_dir(const char* path, vek_s32* err) {
    char dir[4096];
    dir_of(path, dir, sizeof dir);
    int fd = plat::sys_open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    *err = 0;
    if (fd < 0) {
        return -1;
    }
    while (plat::sys_flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            close(fd);
            return -1;
        }
        vek_s32 w = vek_fd_swait(-1, 0, 2, 0);
        if (w == VEK_ERR_ABORTED) {
            close(fd);
            *err = w;
            return -1;
        }
    }
    return fd;
}

} // namespace

namespace plat {

vek_s32 pipe_addr(const char* name, char* out, size_t cap) {
    char dir[4096];
    const char* xdg = std::getenv("XDG_RUNTIME_DIR");
    int n;
    if (absolute(xdg)) {
        n = std::snprintf(dir, sizeof dir, "%s/vek", xdg);
    } else {
        const char* tmp = std::getenv("TMPDIR");
        n = std::snprintf(dir, sizeof dir, "%s/vek-%u", absolute(tmp) ? tmp : "/tmp", (unsigned)geteuid());
    }
    if (n < 0 || (size_t)n >= sizeof dir) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 r = private_dir(dir);
    if (r < 0) {
        return r;
    }
    n = std::snprintf(out, cap, "%s/%s.sock", dir, name);
    return n < 0 || (size_t)n >= cap ? VEK_ERR_BAD_ARG : 0;
}

vek_s32 pipe_listen(const char* addr, bool anyUser, SockSys* out) {
    vek_s32 err;
    int lock = lock_dir(addr, &err);
    if (err < 0) {
        return err;
    }
    LocAccess access = anyUser ? LocAccess::kAnyUser : LocAccess::kUser;
    vek_s32 r = loc_listen(addr, out, access);
    if (r == VEK_ERR_ADDR_IN_USE) {
        // A live server answers (or its backlog is full, which is -12
        // here); a dead one's socket file refuses. Only a socket is ever
        // removed: a path that names any other file is left alone.
        SockSys probe;
        vek_s32 c = loc_connect(addr, 0, &probe);
        struct stat st;
        if (c == 0) {
            sock_close(&probe, true, nullptr);
        } else if (c == VEK_ERR_REFUSED && sys_lstat(addr, &st) == 0 && S_ISSOCK(st.st_mode) && sys_unlink(addr) == 0) {
            r = loc_listen(addr, out, access);
        }
    }
    if (lock >= 0) {
        close(lock);
    }
    return r;
}

bool pipe_same_user(const VekSockPeer* peer) {
    return peer->uid == (vek_s64)geteuid();
}

} // namespace plat
