/*
 * VekCm.cpp - the loadable-library manager.
 *
 * One record per loaded library, found by the system's handle: whatever
 * name led to a library, the system gives the same handle for it, so a
 * second load under another name still shares the record (the system's
 * extra reference is given back at once). The records are the OS layer's
 * (al_malloc), like the library's own bookkeeping: a library still loaded
 * at BaseLib_exit is reported by name, not as anonymous leaked blocks.
 */
#include <cstring>
#include <mutex>
#include "AlPlat.h"
#include "VekCm.h"
#include "VekCore.h"

struct CmLib {
    CmLib* next;
    void* hnd;
    vek_s32 refs;  // under g_cmLock
    char* name;
};

namespace {

std::mutex g_cmLock;
CmLib* g_libs;
thread_local char t_cmErr[512];

void set_error(const char* a, const char* b) {
    vek_snprintf(t_cmErr, sizeof t_cmErr, "%s%s", a, b);
}

bool bare_name(const char* n) {
    return !std::strchr(n, '/') && !std::strchr(n, '\\');
}

/* Loads one candidate: from the library's own folder first when the name
 * is bare, then as given. On failure t_cmErr holds the system's reason for
 * the name as given (the one the caller wrote). */
void* load_one(const char* name, vek_s32 len) {
    char path[4096];
    if (len <= 0 || len >= 1024) {
        set_error("bad library name", "");
        return nullptr;
    }
    char given[1024];
    std::memcpy(given, name, (size_t)len);
    given[len] = 0;
    if (bare_name(given) && *vek_base_fld()) {
        vek_snprintf(path, sizeof path, "%s%c%s", vek_base_fld(), VEK_PATH_SEP, given);
        if (void* h = plat::lib_load(path, nullptr, 0)) {
            return h;
        }
    }
    char why[400] = "";
    if (void* h = plat::lib_load(given, why, sizeof why)) {
        return h;
    }
    vek_snprintf(t_cmErr, sizeof t_cmErr, "%s: %s", given, why[0] ? why : "cannot be loaded");
    return nullptr;
}

/* The record of hnd with one more reference, a new one when the library
 * was not loaded yet; null when no record can be made (the handle is then
 * given back). */
CmLib* adopt(void* hnd, const char* name, vek_s32 len) {
    std::lock_guard<std::mutex> lk(g_cmLock);
    for (CmLib* l = g_libs; l; l = l->next) {
        if (l->hnd == hnd) {
            l->refs++;
            plat::lib_unload(hnd);  // the record holds the system's reference already
            return l;
        }
    }
    CmLib* l = (CmLib*)al_malloc(sizeof(CmLib));
    char* n = (char*)al_malloc((size_t)len + 1);
    if (!l || !n) {
        al_free(l);
        al_free(n);
        plat::lib_unload(hnd);
        set_error("out of memory", "");
        return nullptr;
    }
    std::memcpy(n, name, (size_t)len);
    n[len] = 0;
    *l = CmLib{g_libs, hnd, 1, n};
    g_libs = l;
    return l;
}

/* Tries count candidates in order (lens null: measured; null names are
 * skipped). */
vek_s32 load_from(const char* const* names, const vek_s32* lens, vek_s32 count, CmLib** lib) {
    t_cmErr[0] = 0;
    for (vek_s32 i = 0; i < count; i++) {
        if (!names[i]) {
            continue;
        }
        vek_s32 len = lens ? lens[i] : (vek_s32)std::strlen(names[i]);
        if (void* h = load_one(names[i], len)) {
            *lib = adopt(h, names[i], len);
            return *lib ? 0 : VEK_ERR_FULL;
        }
    }
    if (!t_cmErr[0]) {
        set_error("no library name given", "");
    }
    return VEK_ERR_NO_LIBRARY;
}

bool live(const CmLib* lib) {
    for (CmLib* l = g_libs; l; l = l->next) {
        if (l == lib) {
            return true;
        }
    }
    return false;
}

} // namespace

namespace vek {

void cm_stop(void) {
    std::lock_guard<std::mutex> lk(g_cmLock);
    for (CmLib* l = g_libs; l; l = l->next) {
        vek_printf("cm: \"%s\" still loaded, %d refs\n", l->name, (int)l->refs);
    }
}

} // namespace vek

extern "C" {

VEK_API vek_s32 cm_load(const char* names, CmLib** lib) {
    if (!names || !lib) {
        VEK_ASSERT(names && lib);
        return VEK_ERR_BAD_ARG;
    }
    *lib = nullptr;
    const char* cand[32];
    vek_s32 lens[32];
    vek_s32 n = 0;
    for (const char* p = names; n < 32;) {
        const char* bar = std::strchr(p, '|');
        vek_s32 len = bar ? (vek_s32)(bar - p) : (vek_s32)std::strlen(p);
        if (len > 0) {
            cand[n] = p;
            lens[n++] = len;
        }
        if (!bar) {
            break;
        }
        p = bar + 1;
    }
    return load_from(cand, lens, n, lib);
}

VEK_API vek_s32 cm_loadv(const char* const* names, vek_s32 count, CmLib** lib) {
    if (!names || !lib || count < 0) {
        VEK_ASSERT(names && lib && count >= 0);
        return VEK_ERR_BAD_ARG;
    }
    *lib = nullptr;
    return load_from(names, nullptr, count, lib);
}

VEK_API void* cm_sym(CmLib* lib, const char* name) {
    if (!lib || !name) {
        VEK_ASSERT(lib && name);
        return nullptr;
    }
    return plat::lib_sym(lib->hnd, name);
}

VEK_API vek_s32 cm_syms(CmLib* lib, const char* const* names, void** syms, vek_s32 count) {
    if (!lib || !names || !syms || count < 0) {
        VEK_ASSERT(lib && names && syms && count >= 0);
        return VEK_ERR_BAD_ARG;
    }
    for (vek_s32 i = 0; i < count; i++) {
        syms[i] = names[i] ? plat::lib_sym(lib->hnd, names[i]) : nullptr;
        if (!syms[i]) {
            vek_snprintf(t_cmErr, sizeof t_cmErr, "%s: no entry point %s", lib->name,
                         names[i] ? names[i] : "(null)");
            std::memset(syms, 0, sizeof(void*) * (size_t)count);
            return VEK_ERR_LIB_SYMBOL;
        }
    }
    return 0;
}

VEK_API vek_s32 cm_addref(CmLib* lib) {
    if (!lib) {
        VEK_ASSERT(lib);
        return VEK_ERR_BAD_ARG;
    }
    std::lock_guard<std::mutex> lk(g_cmLock);
    return ++lib->refs;
}

VEK_API vek_s32 cm_unload(CmLib* lib) {
    if (!lib) {
        VEK_ASSERT(lib);
        return VEK_ERR_BAD_ARG;
    }
    void* hnd = nullptr;
    vek_s32 left;
    {
        std::lock_guard<std::mutex> lk(g_cmLock);
        if (!live(lib)) {
            vek_assert__("cm_unload of a library not loaded", __FILE__, __LINE__);
            return VEK_ERR_BAD_ARG;
        }
        left = --lib->refs;
        if (left == 0) {
            for (CmLib** pp = &g_libs; *pp; pp = &(*pp)->next) {
                if (*pp == lib) {
                    *pp = lib->next;
                    break;
                }
            }
            hnd = lib->hnd;
        }
    }
    if (hnd) {
        if (vek::g_core.holdDynDll) {
            win_free_dll_dbg__(hnd, __FILE__, __LINE__);
        } else {
            plat::lib_unload(hnd);
        }
        al_free(lib->name);
        al_free(lib);
    }
    return left;
}

VEK_API const char* cm_name(const CmLib* lib) {
    if (!lib) {
        VEK_ASSERT(lib);
        return "";
    }
    return lib->name;
}

VEK_API vek_s32 cm_path(const CmLib* lib, char* buf, vek_s32 cap) {
    if (!lib || !buf || cap < 1) {
        VEK_ASSERT(lib && buf && cap >= 1);
        return 0;
    }
    return plat::dll_path(lib->hnd, buf, cap);
}

VEK_API vek_s32 cm_error(char* buf, vek_s32 cap) {
    if (!buf || cap < 1) {
        VEK_ASSERT(buf && cap >= 1);
        return 0;
    }
    return vek_snprintf(buf, cap, "%s", t_cmErr);
}

VEK_API vek_s32 cm_count(void) {
    std::lock_guard<std::mutex> lk(g_cmLock);
    vek_s32 n = 0;
    for (CmLib* l = g_libs; l; l = l->next) {
        n++;
    }
    return n;
}

} // extern "C"
