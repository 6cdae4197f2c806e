/*
 * VekMon.cpp - the file and disc monitors: one portable core over the
 * platform's watches (MonPlat.h).
 *
 * A pulled monitor reads its watch on the caller's thread. A pushed one
 * has a library thread that reads the watch and posts every event to the
 * owner's event-receive queue; the posted records share a gate with the
 * monitor, which the delete closes, so an event already queued when the
 * monitor goes is dropped instead of reaching a callback whose context may
 * be gone.
 */
#include <atomic>
#include <new>
#include "MonPlat.h"
#include "VekCore.h"
#include "VekErp.h"

namespace vek {

void ListedPaths::next_read() {
    before_.swap(now_);
    now_.clear();
}

void ListedPaths::found(MonQue& q, const VString& path, bool isDir) {
    mon_push(q, VEK_MON_ADDED, VEK_MON_SCANNED | (isDir ? VEK_MON_DIR : 0), path);
    now_.insert(path);
}

bool ListedPaths::repeats(const VString& path) {
    return now_.erase(path) || before_.erase(path);
}

} // namespace vek

namespace {

enum class Kind { file = 0x464D4F4E, disc = 0x444D4F4E };  // "FMON", "DMON"

struct Gate {
    std::atomic<vek_s32> refs{1};
    std::atomic<bool> open{true};
    vek_mon_cb cb = nullptr;
    void* ctx = nullptr;
};

void gate_release(Gate* g) {
    if (g->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        g->~Gate();
        vek_free__(g);
    }
}

struct Posted {
    Gate* gate;
    vek::MonEvt evt;
};

} // namespace

/* FileMon and DiscMon are the same record; kind tells them apart. */
struct VekMonObj {
    Kind kind;
    plat::FileWatch* file = nullptr;
    plat::DiscWatch* disc = nullptr;
    vek::MonQue queue;
    vek::MonEvt current;   // the event a pulled read handed out last
    bool ended = false;    // the watch said -202
    Gate* gate = nullptr;  // pushed: shared with the posted events
    vek_u32 pusher = 0;    // pushed: the thread that reads the watch
    vek_s32 ownerErp = 0;
};
struct FileMon : VekMonObj {};
struct DiscMon : VekMonObj {};

namespace {

vek_s32 watch_read(VekMonObj* m, vek_s32 tmo, vek_s32 flags) {
    size_t before = m->queue.size();
    vek_s32 r = m->kind == Kind::file ? plat::filewatch_read(m->file, m->queue, tmo, flags)
                                      : plat::discwatch_read(m->disc, m->queue, tmo, flags);
    // A burst of writes to one file is one change.
    for (size_t i = before > 0 ? before : 1; i < m->queue.size();) {
        const vek::MonEvt& a = m->queue[i - 1];
        const vek::MonEvt& b = m->queue[i];
        if (a.type == VEK_MON_CHANGED && b.type == VEK_MON_CHANGED && a.path == b.path) {
            m->queue.erase(m->queue.begin() + (ptrdiff_t)i);
        } else {
            i++;
        }
    }
    return r;
}

void fill(VekMonEvt* out, const vek::MonEvt& e) {
    out->type = e.type;
    out->flags = e.flags;
    out->err = e.err;
    out->path = e.path.c_str();
    out->oldPath = e.oldPath.c_str();
    out->fsType = e.fsType.c_str();
}

vek_s32 mon_read(VekMonObj* m, VekMonEvt* evt, vek_s32 tmo, vek_s32 flags) {
    if (m->gate) {
        return VEK_ERR_NOT_SUPPORTED;
    }
    try {
        while (m->queue.empty()) {
            if (m->ended) {
                return VEK_ERR_EOF;
            }
            vek_s32 r = watch_read(m, tmo, flags);
            if (r == VEK_ERR_EOF) {
                m->ended = true;
            } else if (r < 0) {
                return r;
            }
        }
        m->current = std::move(m->queue.front());
        m->queue.pop_front();
    } catch (const std::bad_alloc&) {
        return VEK_ERR_FULL;
    }
    fill(evt, m->current);
    return 0;
}

void run_posted(void* arg) {
    Posted* p = (Posted*)arg;
    if (p->gate->open.load(std::memory_order_acquire)) {
        VekMonEvt e;
        fill(&e, p->evt);
        p->gate->cb(p->gate->ctx, &e);
    }
    gate_release(p->gate);
    p->~Posted();
    vek_free__(p);
}

void drop_posted(void* arg) {
    Posted* p = (Posted*)arg;
    gate_release(p->gate);
    p->~Posted();
    vek_free__(p);
}

/* The pushed monitor's thread: reads until the delete cancels it or the
 * watch ends. */
vek_u32 pusher_main(void* arg) {
    VekMonObj* m = (VekMonObj*)arg;
    for (;;) {
        vek_s32 r;
        try {
            r = watch_read(m, -1, 0);
        } catch (const std::bad_alloc&) {
            r = VEK_ERR_FULL;
        }
        while (!m->queue.empty()) {
            void* mem = vek_malloc__(sizeof(Posted));
            if (!mem) {
                break;
            }
            m->gate->refs.fetch_add(1, std::memory_order_acq_rel);
            Posted* p = new (mem) Posted{m->gate, std::move(m->queue.front())};
            m->queue.pop_front();
            vek_erp_postf(m->ownerErp, run_posted, p, drop_posted);
        }
        if (r == VEK_ERR_ABORTED || r == VEK_ERR_EOF) {
            return 0;
        }
        if (r < 0 && r != VEK_ERR_TIMEOUT) {
            // Out of memory, or a failing system wait: the watch keeps its
            // events meanwhile (or reports their loss).
            vek_ssleep(100);
        }
    }
}

void mon_free(VekMonObj* m) {
    if (m->file) {
        plat::filewatch_close(m->file);
    }
    if (m->disc) {
        plat::discwatch_close(m->disc);
    }
    bool disc = m->kind == Kind::disc;
    if (disc) {
        ((DiscMon*)m)->~DiscMon();
    } else {
        ((FileMon*)m)->~FileMon();
    }
    vek_free__(m);
}

/* Makes the monitor pushed: its thread and the owner's queue. */
vek_s32 start_push(VekMonObj* m, vek_mon_cb cb, void* ctx) {
    vek_s32 erp = vek_erp_self();
    if (erp < 0) {
        return erp;
    }
    void* g = vek_malloc__(sizeof(Gate));
    if (!g) {
        return VEK_ERR_FULL;
    }
    m->gate = new (g) Gate();
    m->gate->cb = cb;
    m->gate->ctx = ctx;
    m->ownerErp = erp;
    m->pusher = vek_thrd_create__(pusher_main, m, 0);
    if (!m->pusher) {
        gate_release(m->gate);
        m->gate = nullptr;
        return VEK_ERR_FULL;
    }
    return 0;
}

void mon_delete(VekMonObj* m) {
    if (m->gate) {
        m->gate->open.store(false, std::memory_order_release);
        vek_thrd_cancel(m->pusher);
        vek_thrd_join(m->pusher);
        gate_release(m->gate);
    }
    mon_free(m);
}

template <class T>
T* checked(T* m, Kind kind) {
    if (!m || m->kind != kind) {
        vek_assert__("monitor of its kind", __FILE__, __LINE__);
        return nullptr;
    }
    return m;
}

/* Makes a monitor of type T whose watch open() starts, pushing to cb's
 * owner when cb is given. */
template <class T, class Open>
vek_s32 mon_new(Kind kind, Open open, vek_mon_cb cb, void* ctx, T** mon) {
    void* mem = vek_malloc__(sizeof(T));
    if (!mem) {
        return VEK_ERR_FULL;
    }
    T* m;
    try {
        m = new (mem) T();  // the event queue allocates its first block here
    } catch (const std::bad_alloc&) {
        vek_free__(mem);
        return VEK_ERR_FULL;
    }
    m->kind = kind;
    vek_s32 r = open(m);
    if (r == 0 && cb) {
        r = start_push(m, cb, ctx);
    }
    if (r != 0) {
        mon_free(m);
        return r;
    }
    *mon = m;
    return 0;
}

} // namespace

extern "C" {

VEK_API vek_s32 FileMon_new(const char* dir, vek_s32 flags, vek_mon_cb cb, void* ctx, FileMon** mon) {
    if (!dir || !mon) {
        VEK_ASSERT(dir && mon);
        return VEK_ERR_BAD_ARG;
    }
    *mon = nullptr;
    if (!*dir || (flags & ~VEK_FILEMON_RECURSIVE) != 0) {
        return VEK_ERR_BAD_ARG;
    }
    bool recursive = (flags & VEK_FILEMON_RECURSIVE) != 0;
    return mon_new(Kind::file, [dir, recursive](FileMon* m) { return plat::filewatch_open(dir, recursive, &m->file); },
                   cb, ctx, mon);
}

VEK_API vek_s32 FileMon_read(FileMon* mon, VekMonEvt* evt, vek_s32 tmo, vek_s32 flags) {
    if (!checked(mon, Kind::file) || !evt) {
        VEK_ASSERT(evt);
        return VEK_ERR_BAD_ARG;
    }
    return mon_read(mon, evt, tmo, flags);
}

VEK_API void FileMon_delete(FileMon* mon) {
    if (mon && checked(mon, Kind::file)) {
        mon_delete(mon);
    }
}

VEK_API vek_s32 DiscMon_new(vek_mon_cb cb, void* ctx, DiscMon** mon) {
    if (!mon) {
        VEK_ASSERT(mon);
        return VEK_ERR_BAD_ARG;
    }
    *mon = nullptr;
    return mon_new(Kind::disc, [](DiscMon* m) { return plat::discwatch_open(&m->disc); }, cb, ctx, mon);
}

VEK_API vek_s32 DiscMon_read(DiscMon* mon, VekMonEvt* evt, vek_s32 tmo, vek_s32 flags) {
    if (!checked(mon, Kind::disc) || !evt) {
        VEK_ASSERT(evt);
        return VEK_ERR_BAD_ARG;
    }
    return mon_read(mon, evt, tmo, flags);
}

VEK_API void DiscMon_delete(DiscMon* mon) {
    if (mon && checked(mon, Kind::disc)) {
        mon_delete(mon);
    }
}

VEK_API const char* vek_mon_type_name(vek_s32 type) {
    static const char* const kNames[] = {"?",       "added",    "removed",   "changed",     "renamed",
                                         "rescan",  "mounted",  "unmounted", "media-added", "media-removed"};
    return type >= 1 && type <= 9 ? kNames[type] : kNames[0];
}

} // extern "C"
