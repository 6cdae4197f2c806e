/*
 * OsUtf8.cpp - the UTF-8 forms of the system calls: argument checks and
 * the one environment lock here, the calls themselves in the platform
 * layer (AlPlat.h).
 */
#include <cstring>
#include "AlPlat.h"
#include "OsUtf8.h"
#include "VekStr.h"
#include "VekCore.h"

struct VekDir {
    plat::DirList* list;
};

namespace {

// getenv and setenv race on POSIX; the library's own calls at least take
// turns.
AlMutex* env_lock() {
    static AlMutex lock;
    static AlMutex* made = AlMutex_new(&lock);  // once, on first use, by any thread
    return made;
}

struct EnvGuard {
    EnvGuard() { AlMutex_lock(env_lock()); }
    ~EnvGuard() { AlMutex_unlock(env_lock()); }
    EnvGuard(const EnvGuard&) = delete;
    EnvGuard& operator=(const EnvGuard&) = delete;
};

bool name_ok(const char* s, const char* expr, vek_s32 line) {
    if (!s || !*s) {
        vek_assert__(expr, __FILE__, line);
        return false;
    }
    return true;
}

} // namespace

extern "C" {

VEK_API FILE* vek_fopen_utf8(const char* path, const char* mode) {
    if (!name_ok(path, "path && *path", __LINE__) || !name_ok(mode, "mode && *mode", __LINE__)) {
        return nullptr;
    }
    return plat::file_open(path, mode);
}

VEK_API vek_s32 vek_fclose(FILE* file) {
    return file ? std::fclose(file) : EOF;
}

VEK_API vek_s32 vek_stat_utf8(const char* path, VekStat* st) {
    if (!name_ok(path, "path && *path", __LINE__) || !st) {
        VEK_ASSERT(st);
        return VEK_ERR_BAD_ARG;
    }
    std::memset(st, 0, sizeof *st);
    return plat::fs_stat(path, st);
}

VEK_API vek_s32 vek_rename_utf8(const char* from, const char* to) {
    if (!name_ok(from, "from && *from", __LINE__) || !name_ok(to, "to && *to", __LINE__)) {
        return VEK_ERR_BAD_ARG;
    }
    return plat::fs_rename(from, to);
}

VEK_API vek_s32 vek_remove_utf8(const char* path) {
    return name_ok(path, "path && *path", __LINE__) ? plat::fs_remove(path) : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 vek_mkdir_utf8(const char* path) {
    return name_ok(path, "path && *path", __LINE__) ? plat::fs_mkdir(path) : VEK_ERR_BAD_ARG;
}

VEK_API VekDir* vek_dir_open(const char* path, vek_s32* err) {
    vek_s32 e = VEK_ERR_BAD_ARG;
    VekDir* d = nullptr;
    if (name_ok(path, "path && *path", __LINE__)) {
        d = (VekDir*)vek_malloc__(sizeof(VekDir));
        e = VEK_ERR_FULL;
        if (d && !(d->list = plat::dir_open(path, &e))) {
            vek_free__(d);
            d = nullptr;
        }
    }
    if (err) {
        *err = d ? 0 : e;
    }
    return d;
}

VEK_API vek_s32 vek_dir_next(VekDir* dir, VekDirEnt* ent) {
    if (!dir || !ent) {
        VEK_ASSERT(dir && ent);
        return VEK_ERR_BAD_ARG;
    }
    return plat::dir_next(dir->list, &ent->name, &ent->kind);
}

VEK_API void vek_dir_close(VekDir* dir) {
    if (dir) {
        plat::dir_close(dir->list);
        vek_free__(dir);
    }
}

VEK_API void* vek_lib_load(const char* path, char* why, vek_s32 whySize) {
    if (why && whySize > 0) {
        why[0] = 0;
    }
    if (!name_ok(path, "path && *path", __LINE__)) {
        return nullptr;
    }
    return plat::lib_load(path, why && whySize > 0 ? why : nullptr, whySize);
}

VEK_API void* vek_lib_sym(void* lib, const char* name) {
    if (!lib || !name_ok(name, "lib && name && *name", __LINE__)) {
        VEK_ASSERT(lib);
        return nullptr;
    }
    return plat::lib_sym(lib, name);
}

VEK_API vek_s32 vek_lib_unload(void* lib) {
    if (!lib) {
        VEK_ASSERT(lib);
        return VEK_ERR_BAD_ARG;
    }
    return plat::lib_unload(lib);
}

VEK_API vek_s32 vek_getenv_utf8(const char* name, char* buf, vek_s32 size) {
    if (!name_ok(name, "name && *name", __LINE__) || (!buf && size > 0)) {
        VEK_ASSERT(buf || size <= 0);
        return VEK_ERR_BAD_ARG;
    }
    EnvGuard g;
    return plat::env_get(name, buf, size);
}

VEK_API vek_s32 vek_getenvx(const char* name, VekStr* value) {
    if (!value || !name_ok(name, "name && *name", __LINE__)) {
        VEK_ASSERT(value);
        return VEK_ERR_BAD_ARG;
    }
    VekStr_clear(value);
    char small[256];
    EnvGuard g;
    vek_s32 n = plat::env_get(name, small, sizeof small);
    if (n < (vek_s32)sizeof small) {
        if (n > 0) {
            VekStr_setStrx(value, small, n);
        }
        return n;
    }
    char* big = (char*)vek_malloc__((size_t)n + 1);
    if (!big) {
        return VEK_ERR_FULL;
    }
    n = plat::env_get(name, big, n + 1);
    if (n >= 0) {
        VekStr_setStrx(value, big, n);
        if (VekStr_len(value) != n) {
            n = VEK_ERR_FULL;
        }
    }
    vek_free__(big);
    return n;
}

VEK_API vek_s32 vek_setenv_utf8(const char* name, const char* value) {
    if (!name_ok(name, "name && *name", __LINE__) || std::strchr(name, '=')) {
        VEK_ASSERT(!std::strchr(name ? name : "", '='));
        return VEK_ERR_BAD_ARG;
    }
    EnvGuard g;
    return plat::env_set(name, value);
}

} // extern "C"
