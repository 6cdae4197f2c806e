/*
 * DevWatch.h - the device watch's table (internal; inline so that the
 * tests can feed it events of their own).
 *
 * The watch keeps a table of the devices it has seen, filled from the
 * list when it opens, grown by arrivals and shrunk by removals: by the
 * time a removal arrives the device's sysfs folder (or its registry keys)
 * is gone, and only the table can still say which modem left. When the
 * system dropped events the table is read again from the list.
 */
#ifndef VEK_DEVWATCH_H
#define VEK_DEVWATCH_H

#include <cstring>
#include <new>
#include <vector>
#include "AlDev.h"
#include "VekAlloc.h"

namespace vek {

using DevInfoVec = std::vector<VekDevInfo, HeapAllocator<VekDevInfo>>;

/* The whole list into *out: 0 or the list's error. The list may grow
 * between the count and the copy, so the copy is asked again until it
 * fits. */
inline vek_s32 dev_list_all(const char* root, DevInfoVec* out) {
    vek_s32 n = vek_dev_list_serial(root, nullptr, 0);
    while (n >= 0) {
        out->resize((size_t)n + 4);
        vek_s32 got = vek_dev_list_serial(root, out->data(), (vek_s32)out->size());
        if (got >= 0 && (size_t)got <= out->size()) {
            out->resize((size_t)got);
            return 0;
        }
        n = got;
    }
    return n;
}

} // namespace vek

struct VekDevWatch {
    plat::DevWatchSys* sys = nullptr;
    char root[512] = {};
    vek::DevInfoVec known;

    void reload() {
        vek::DevInfoVec fresh;
        if (vek::dev_list_all(root[0] ? root : nullptr, &fresh) == 0) {
            known.swap(fresh);
        }
    }
    VekDevInfo* find(const char* path) {
        for (VekDevInfo& d : known) {
            if (std::strcmp(d.path, path) == 0) {
                return &d;
            }
        }
        return nullptr;
    }
};

namespace vek {

/* What the watch makes of an event the system delivered: an arrival is
 * described from the list and remembered, a removal takes what was
 * remembered, a lost-events mark reads the list again. False when the
 * event is to be passed over. */
inline bool dev_watch_take(VekDevWatch* w, VekDevEvent* e) {
    try {
        if (e->action == VEK_DEV_RESYNC) {
            w->reload();
        } else if (e->action == VEK_DEV_ARRIVED) {
            VekDevInfo d;
            if (vek_dev_find_serial(w->root[0] ? w->root : nullptr, e->dev.path, &d) == 0) {
                e->dev = d;
            } else if (e->dev.kind == VEK_DEV_UART) {
                return false;  // a port the kernel reserved without a UART behind it
            }
            if (VekDevInfo* k = w->find(e->dev.path)) {
                *k = e->dev;
            } else {
                w->known.push_back(e->dev);
            }
        } else if (VekDevInfo* k = w->find(e->dev.path)) {
            e->dev = *k;
            *k = w->known.back();
            w->known.pop_back();
        }
    } catch (const std::bad_alloc&) {
        // The table is a courtesy for later removals; the event stands.
    }
    return true;
}

} // namespace vek

#endif /* VEK_DEVWATCH_H */
