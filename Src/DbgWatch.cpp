/*
 * DbgWatch.cpp - the debug manager's configuration file, read again
 * whenever it changes while the library runs.
 *
 * A library thread watches the file's folder (an editor often saves by
 * writing a new file and renaming it over the old one, which a watch of
 * the file itself would lose) and loads the file once a burst of changes
 * has settled. It runs from BaseLib_init to BaseLib_exit and follows the
 * file DbgMng_cfgByFile was given last.
 */
#include <cstring>
#include <mutex>
#include "VekCore.h"
#include "VekMon.h"

namespace {

/* Changes of one save come within this time of each other. */
constexpr vek_s32 kSettleMs = 100;

std::mutex g_lock;
bool g_on;         // between BaseLib_init and BaseLib_exit
vek_u32 g_tid;     // the watching thread, 0 when none

struct WatchArg {
    FileMon* mon; // of the folder, made before DbgMng_cfgByFile returned
    char* path;   // the file (al_malloc)
    char* name;   // its name, in path
};

bool concerns(const VekMonEvt& e, const char* name) {
    return e.type == VEK_MON_RESCAN || !std::strcmp(e.path, name) ||
           (e.type == VEK_MON_RENAMED && !std::strcmp(e.oldPath, name));
}

vek_u32 watch_main(void* p) {
    WatchArg* a = (WatchArg*)p;
    FileMon* m = a->mon;
    // A change between the load and the watch would be lost: load once
    // more now that the watch is there.
    vek::dbg_cfg_load(a->path, false);
    VekMonEvt e;
    vek_s32 r;
    while ((r = FileMon_read(m, &e, -1, 0)) == 0) {
        if (!concerns(e, a->name)) {
            continue;
        }
        while ((r = FileMon_read(m, &e, kSettleMs, 0)) == 0) {
        }
        if (r != VEK_ERR_TIMEOUT) {
            break;
        }
        r = 0;
        if (vek::dbg_cfg_load(a->path, false) == 0) {
            VEK_TRACE(vek::kModBase, vek::kFldLife, 2, "DbgMng: %s loaded again", a->path);
        }
    }
    FileMon_delete(m);
    al_free(a->path);
    al_free(a);
    return 0;
}

/* Ends the watching thread; under g_lock. */
void stop_thread() {
    if (g_tid) {
        vek_thrd_cancel(g_tid);
        vek_thrd_join(g_tid);
        g_tid = 0;
    }
}

} // namespace

namespace vek {

void dbg_watch_restart(void) {
    std::lock_guard<std::mutex> lk(g_lock);
    if (!g_on) {
        return;
    }
    stop_thread();
    char path[4096];
    if (dbg_cfg_path(path, sizeof path) <= 0) {
        return;
    }
    vek_s32 cut = -1;
    for (vek_s32 i = 0; path[i]; i++) {
        if (path[i] == '/' || path[i] == '\\') {
            cut = i;
        }
    }
    // The folder keeps its separator where it is a root ("/", "C:\\").
    vek_s32 dirLen = cut == 0 || (cut == 2 && path[1] == ':') ? cut + 1 : cut;
    size_t len = std::strlen(path);
    WatchArg* a = (WatchArg*)al_malloc(sizeof(WatchArg));
    char* copy = (char*)al_malloc(len + 1);
    char* dir = (char*)al_malloc((size_t)dirLen + 1);
    if (cut < 0 || !a || !copy || !dir) {
        al_free(a);
        al_free(copy);
        al_free(dir);
        return;
    }
    std::memcpy(copy, path, len + 1);
    std::memcpy(dir, path, (size_t)dirLen);
    dir[dirLen] = 0;
    FileMon* mon = nullptr;
    FileMon_new(dir, 0, nullptr, nullptr, &mon);
    al_free(dir);
    *a = WatchArg{mon, copy, copy + cut + 1};
    g_tid = mon ? vek_thrd_create__(watch_main, a, 0) : 0;
    if (!g_tid) {
        FileMon_delete(mon);
        al_free(copy);
        al_free(a);
    }
}

void dbg_watch_start(void) {
    {
        std::lock_guard<std::mutex> lk(g_lock);
        g_on = true;
    }
    dbg_watch_restart();
}

void dbg_watch_stop(void) {
    std::lock_guard<std::mutex> lk(g_lock);
    g_on = false;
    stop_thread();
}

} // namespace vek
