/*
 * VekDev.cpp - the portable half of the serial device family (VekDev.h):
 * the kernel uevent reader, the lookup of one device, and the watch's
 * life around its system side and its table (DevWatch.h).
 */
#include <cstring>
#include <new>
#include "AlDev.h"
#include "DevWatch.h"
#include "IoWait.h"
#include "UEvent.h"
#include "VekCore.h"

namespace {

bool starts(const char* s, const char* p) {
    return std::strncmp(s, p, std::strlen(p)) == 0;
}

void put(char* dst, size_t cap, const char* s, size_t n) {
    n = n < cap - 1 ? n : cap - 1;
    std::memcpy(dst, s, n);
    dst[n] = 0;
}

} // namespace

namespace vek {

vek_s32 dev_kind_of(const char* name, bool wwanClass) {
    if (std::strchr(name, '/')) {
        return -1;
    }
    if (wwanClass) {
        return std::strstr(name, "at") ? VEK_DEV_WWAN : -1;
    }
    if (starts(name, "ttyUSB") || starts(name, "ttyACM")) {
        return VEK_DEV_USB;
    }
    if (starts(name, "ttyS")) {
        return VEK_DEV_UART;
    }
    return starts(name, "rfcomm") ? VEK_DEV_BT : -1;
}

} // namespace vek

extern "C" {

VEK_API vek_s32 vek_dev_uevent_parse(const void* msg, vek_s32 len, VekDevEvent* ev) {
    if (!msg || len < 0 || !ev) {
        vek_assert__("msg && len >= 0 && ev", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    const char *action = nullptr, *devpath = nullptr, *subsys = nullptr, *devname = nullptr;
    size_t actionLen = 0, devpathLen = 0, subsysLen = 0, devnameLen = 0;
    bool ok = vek::uevent_walk((const char*)msg, (size_t)len,
                               [&](const char* k, size_t kl, const char* v, size_t vl) {
        auto is = [&](const char* key) { return kl == std::strlen(key) && std::memcmp(k, key, kl) == 0; };
        if (!v) {
            return false;  // a field without '=' is no kernel message
        }
        if (is("ACTION")) {
            action = v, actionLen = vl;
        } else if (is("DEVPATH")) {
            devpath = v, devpathLen = vl;
        } else if (is("SUBSYSTEM")) {
            subsys = v, subsysLen = vl;
        } else if (is("DEVNAME")) {
            devname = v, devnameLen = vl;
        }
        return true;
    });
    if (!ok || !action || !devpath || !subsys) {
        return VEK_ERR_BAD_ARG;
    }
    auto same = [](const char* v, size_t n, const char* s) { return n == std::strlen(s) && std::memcmp(v, s, n) == 0; };
    vek_s32 what = same(action, actionLen, "add") ? VEK_DEV_ARRIVED : same(action, actionLen, "remove") ? VEK_DEV_REMOVED : 0;
    bool tty = same(subsys, subsysLen, "tty"), wwan = same(subsys, subsysLen, "wwan");
    if (!what || !(tty || wwan) || !devname || devnameLen == 0 || devnameLen >= 100) {
        return 0;
    }
    char name[100];
    put(name, sizeof name, devname, devnameLen);
    vek_s32 kind = vek::dev_kind_of(name, wwan);
    if (kind < 0) {
        return 0;
    }
    std::memset(ev, 0, sizeof *ev);
    ev->action = what;
    put(ev->syspath, sizeof ev->syspath, devpath, devpathLen);
    std::memcpy(ev->dev.path, "/dev/", 5);
    put(ev->dev.path + 5, sizeof ev->dev.path - 5, name, devnameLen);
    ev->dev.kind = kind;
    ev->dev.vid = ev->dev.pid = ev->dev.iface = -1;
    return 1;
}

VEK_API vek_s32 vek_dev_find_serial(const char* root, const char* path, VekDevInfo* dev) {
    if (!path || !dev) {
        vek_assert__("path && dev", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    try {
        vek::DevInfoVec all;
        vek_s32 rc = vek::dev_list_all(root, &all);
        if (rc < 0) {
            return rc;
        }
        for (const VekDevInfo& d : all) {
            if (std::strcmp(d.path, path) == 0) {
                *dev = d;
                return 0;
            }
        }
        return VEK_ERR_NOT_FOUND;
    } catch (const std::bad_alloc&) {
        return VEK_ERR_FULL;
    }
}

VEK_API vek_s32 vek_dev_watch_open(const char* root, VekDevWatch** out) {
    if (!out || (root && std::strlen(root) >= sizeof VekDevWatch::root)) {
        vek_assert__("out && root shorter than 512", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    *out = nullptr;
    void* mem = vek_malloc__(sizeof(VekDevWatch));
    if (!mem) {
        return VEK_ERR_FULL;
    }
    VekDevWatch* w = new (mem) VekDevWatch;
    if (root) {
        std::strcpy(w->root, root);
    }
    // Listening starts before the list is read, so that a device arriving
    // in between is reported rather than missed.
    vek_s32 rc = plat::devw_open(&w->sys);
    if (rc == 0) {
        try {
            w->reload();
        } catch (const std::bad_alloc&) {
            rc = VEK_ERR_FULL;
        }
    }
    if (rc < 0) {
        vek_dev_watch_close(w);
        return rc;
    }
    *out = w;
    return 0;
}

VEK_API vek_s32 vek_dev_watch_next(VekDevWatch* w, VekDevEvent* ev, vek_s32 tmo, vek_s32 flags) {
    if (!w || !ev) {
        vek_assert__("w && ev", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    vek_u32 start = vek_msec();
    for (;;) {
        VekDevEvent e;
        vek_s32 rc = plat::devw_next(w->sys, &e, vek::ms_left(start, tmo), flags);
        if (rc < 0) {
            return rc;
        }
        if (vek::dev_watch_take(w, &e)) {
            *ev = e;
            return 0;
        }
    }
}

VEK_API void vek_dev_watch_close(VekDevWatch* w) {
    if (!w) {
        return;
    }
    if (w->sys) {
        plat::devw_close(w->sys);
    }
    w->~VekDevWatch();
    vek_free__(w);
}

} // extern "C"
