/*
 * AlFile.cpp (POSIX) - files: paths are bytes (UTF-8 as given), 64-bit
 * positions, and what a safe replacement of a file needs.
 */
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include "AlPlat.h"

namespace {

vek_s32 os_error(void) {
    return errno > 0 ? -errno : -5;
}

} // namespace

namespace plat {

std::FILE* file_open(const char* path, const char* mode) {
    return std::fopen(path, mode);
}

vek_s32 file_seek(std::FILE* f, vek_s64 offset, vek_s32 origin) {
    return fseeko(f, (off_t)offset, origin) == 0 ? 0 : os_error();
}

vek_s64 file_tell(std::FILE* f) {
    off_t pos = ftello(f);
    return pos >= 0 ? (vek_s64)pos : os_error();
}

vek_s64 file_size(std::FILE* f) {
    struct stat st;
    return fstat(fileno(f), &st) == 0 ? (vek_s64)st.st_size : os_error();
}

vek_s32 file_sync(std::FILE* f) {
    return fsync(fileno(f)) == 0 ? 0 : os_error();
}

vek_s32 file_resolve(const char* path, char* out, vek_s32 cap) {
    const char* target = path;
    char* real = nullptr;
    struct stat st;
    if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
        real = realpath(path, nullptr);  // a dangling link keeps its own name
        if (real) {
            target = real;
        }
    }
    size_t n = std::strlen(target);
    vek_s32 r = 0;
    if (n < (size_t)cap) {
        std::memcpy(out, target, n + 1);
        r = (vek_s32)n;
    }
    std::free(real);
    return r;
}

vek_s32 file_replace(const char* from, const char* target) {
    return std::rename(from, target) == 0 ? 0 : os_error();
}

vek_s32 folder_sync(const char* path) {
    const char* slash = std::strrchr(path, '/');
    std::string dir = !slash ? std::string(".") : slash == path ? std::string("/") : std::string(path, slash);
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return os_error();
    }
    vek_s32 r = fsync(fd) == 0 || errno == EINVAL ? 0 : os_error();
    ::close(fd);
    return r;
}

vek_s32 file_copy_mode(const char* from, const char* to) {
    struct stat st;
    struct stat now;
    if (os_fails(VEK_OS_OWNER)) {
        errno = EPERM;
        return os_error();
    }
    if (stat(from, &st) != 0 || stat(to, &now) != 0) {
        return os_error();
    }
    // A replacement owned by someone else than the original would hand the
    // file to this user: only where the owner can be kept is it the same
    // file. The owner goes first, since giving a file away clears its
    // set-id bits.
    if ((now.st_uid != st.st_uid || now.st_gid != st.st_gid) && chown(to, st.st_uid, st.st_gid) != 0) {
        return os_error();
    }
    return chmod(to, st.st_mode & 07777) == 0 ? 0 : os_error();
}

FileKind file_kind(const char* path, vek_s32* links) {
    struct stat st;
    *links = 0;
    if (lstat(path, &st) != 0) {
        return errno == ENOENT ? FileKind::missing : FileKind::unknown;
    }
    if (S_ISDIR(st.st_mode)) {
        return FileKind::directory;
    }
    if (!S_ISREG(st.st_mode)) {
        return FileKind::special;
    }
    *links = st.st_nlink > 0x7FFFFFFF ? 0x7FFFFFFF : (vek_s32)st.st_nlink;
    return FileKind::regular;
}

vek_s32 file_check_writable(const char* path) {
    if (access(path, F_OK) != 0) {
        return 0;
    }
    // The effective user is the one that opens the file.
    return faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) == 0 ? 0 : os_error();
}

vek_s32 file_remove(const char* path) {
    return std::remove(path) == 0 ? 0 : os_error();
}

} // namespace plat
