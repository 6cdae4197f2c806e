/*
 * OsUtf8.cpp (POSIX) - the UTF-8 forms of the system calls: names are
 * bytes, so they go to the system as they are.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <initializer_list>
#include <unistd.h>
#include "AlOs.h"
#include "AlPlat.h"
#include "StrUtil.h"

namespace {

vek_s32 os_error(void) {
    if (errno == ENOENT || errno == ENOTDIR) {
        return VEK_ERR_NOT_FOUND;
    }
    return errno > 0 ? -errno : -5;
}

vek_s32 kind_of(mode_t m) {
    return S_ISREG(m) ? VEK_FS_FILE : S_ISDIR(m) ? VEK_FS_DIR : VEK_FS_OTHER;
}

// Copies what fits and returns the whole length, so that a caller sees a
// buffer too small as a result >= its size (unlike plat::copy_out).
vek_s32 copy_whole(char* buf, vek_s32 size, const char* s) {
    size_t n = std::strlen(s);
    if (size > 0) {
        size_t k = n < (size_t)size ? n : (size_t)size - 1;
        std::memcpy(buf, s, k);
        buf[k] = 0;
    }
    return n > 0x7FFFFFFF ? 0x7FFFFFFF : (vek_s32)n;
}

} // namespace

namespace plat {

vek_s32 fs_stat(const char* path, VekStat* st) {
    struct stat s;
    if (stat(path, &s) != 0) {
        return os_error();
    }
    st->kind = kind_of(s.st_mode);
    st->size = st->kind == VEK_FS_FILE ? (vek_s64)s.st_size : 0;
    // 1970 is 11644473600 s after 1601.
    st->mtime = ((vek_s64)s.st_mtim.tv_sec + 11644473600LL) * 10000000LL + s.st_mtim.tv_nsec / 100;
    st->readOnly = faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) != 0 ? 1 : 0;
    return 0;
}

vek_s32 fs_rename(const char* from, const char* to) {
    return std::rename(from, to) == 0 ? 0 : os_error();
}

vek_s32 fs_remove(const char* path) {
    return std::remove(path) == 0 ? 0 : os_error();
}

vek_s32 fs_mkdir(const char* path) {
    if (mkdir(path, 0777) == 0) {
        return 0;
    }
    return errno == EEXIST ? VEK_ERR_NAME_EXISTS : os_error();
}

struct DirList {
    DIR* dir;
};

DirList* dir_open(const char* path, vek_s32* err) {
    DIR* d = opendir(path);
    if (!d) {
        *err = os_error();
        return nullptr;
    }
    DirList* l = (DirList*)al_malloc(sizeof(DirList));
    if (!l) {
        closedir(d);
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    l->dir = d;
    *err = 0;
    return l;
}

vek_s32 dir_next(DirList* l, const char** name, vek_s32* kind) {
    for (;;) {
        errno = 0;
        struct dirent* e = readdir(l->dir);
        if (!e) {
            return errno ? -errno : 0;
        }
        const char* n = e->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) {
            continue;
        }
        *name = n;
        if (e->d_type == DT_REG) {
            *kind = VEK_FS_FILE;
        } else if (e->d_type == DT_DIR) {
            *kind = VEK_FS_DIR;
        } else if (e->d_type == DT_LNK || e->d_type == DT_UNKNOWN) {
            // Links are followed, as stat follows them; some file systems
            // leave the type to a stat as well.
            struct stat s;
            *kind = fstatat(dirfd(l->dir), n, &s, 0) == 0 ? kind_of(s.st_mode) : VEK_FS_OTHER;
        } else {
            *kind = VEK_FS_OTHER;
        }
        return 1;
    }
}

void dir_close(DirList* l) {
    closedir(l->dir);
    al_free(l);
}

void* lib_load(const char* path, char* why, vek_s32 whySize) {
    void* h = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!h && why) {
        const char* e = dlerror();
        copy_whole(why, whySize, e ? e : "cannot be loaded");
    }
    return h;
}

void* lib_sym(void* lib, const char* name) {
    return dlsym(lib, name);
}

vek_s32 lib_unload(void* lib) {
    return dlclose(lib) == 0 ? 0 : -5;
}

vek_s32 env_get(const char* name, char* buf, vek_s32 size) {
    const char* v = std::getenv(name);
    return v ? copy_whole(buf, size, v) : VEK_ERR_NOT_FOUND;
}

vek_s32 env_set(const char* name, const char* value) {
    int r = value ? setenv(name, value, 1) : unsetenv(name);
    return r == 0 ? 0 : (errno > 0 ? -errno : -5);
}

// As gettext chooses: the list in LANGUAGE leads, except when the locale
// itself is C (then messages stay untranslated, whatever LANGUAGE says);
// then the locale of messages, the first of LC_ALL, LC_MESSAGES, LANG set.
vek_s32 user_langs(char* buf, vek_s32 size) {
    const char* loc = nullptr;
    for (const char* v : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* s = std::getenv(v);
        if (s && *s) {
            loc = s;
            break;
        }
    }
    bool c = !loc || !std::strcmp(loc, "C") || !std::strncmp(loc, "C.", 2) || !std::strcmp(loc, "POSIX");
    const char* list = std::getenv("LANGUAGE");
    if (c) {
        return copy_whole(buf, size, "");
    }
    if (size < 1) {
        return 0;
    }
    vek_s32 n = 0;
    if (list && *list) {
        std::snprintf(buf, (size_t)size, "%s:%s", list, loc);
    } else {
        std::snprintf(buf, (size_t)size, "%s", loc);
    }
    n = (vek_s32)std::strlen(buf);
    return n;
}

} // namespace plat
