/*
 * MonParse.cpp - what Linux tells the disc monitor, parsed portably (and
 * fuzzed): the lines of /proc/self/mountinfo and the kernel's device
 * announcements.
 */
#include <cstring>
#include "MonPlat.h"
#include "UEvent.h"

namespace vek {

namespace {

/* The next space-separated field of [p, end), or false at the end. */
bool next_field(const char*& p, const char* end, const char*& f, size_t& n) {
    while (p < end && *p == ' ') {
        p++;
    }
    if (p >= end) {
        return false;
    }
    f = p;
    while (p < end && *p != ' ') {
        p++;
    }
    n = (size_t)(p - f);
    return true;
}

/* The kernel writes space, tab, newline and backslash in paths as "\ooo". */
VString unescape(const char* f, size_t n) {
    VString s;
    s.reserve(n);
    for (size_t i = 0; i < n; i++) {
        if (f[i] == '\\' && i + 3 < n && f[i + 1] >= '0' && f[i + 1] <= '3' && f[i + 2] >= '0' &&
            f[i + 2] <= '7' && f[i + 3] >= '0' && f[i + 3] <= '7') {
            s += (char)((f[i + 1] - '0') * 64 + (f[i + 2] - '0') * 8 + (f[i + 3] - '0'));
            i += 3;
        } else {
            s += f[i];
        }
    }
    return s;
}

bool parse_line(const char* p, const char* end, MountEnt& m) {
    const char* f;
    size_t n;
    // id, parent id, major:minor, root, mount point
    if (!next_field(p, end, f, n) || n > 9) {
        return false;
    }
    vek_s32 id = 0;
    for (size_t i = 0; i < n; i++) {
        if (f[i] < '0' || f[i] > '9') {
            return false;
        }
        id = id * 10 + (f[i] - '0');
    }
    for (int k = 0; k < 3; k++) {
        if (!next_field(p, end, f, n)) {
            return false;
        }
    }
    if (!next_field(p, end, f, n)) {
        return false;
    }
    m.id = id;
    m.mountPoint = unescape(f, n);
    // options, optional fields up to "-", then type and source
    do {
        if (!next_field(p, end, f, n)) {
            return false;
        }
    } while (!(n == 1 && *f == '-'));
    if (!next_field(p, end, f, n)) {
        return false;
    }
    m.fsType = unescape(f, n);
    if (!next_field(p, end, f, n)) {
        return false;
    }
    m.source = unescape(f, n);
    return true;
}

} // namespace

void mountinfo_parse(const char* text, size_t len, MountList& out) {
    const char* p = text;
    const char* end = text + len;
    while (p < end) {
        const char* nl = (const char*)std::memchr(p, '\n', (size_t)(end - p));
        const char* lineEnd = nl ? nl : end;
        MountEnt m;
        if (parse_line(p, lineEnd, m)) {
            out.push_back(std::move(m));
        }
        p = lineEnd + 1;
    }
}

bool uevent_parse(const char* msg, size_t len, UEvent& out) {
    out = UEvent();
    auto is = [](const char* k, size_t kl, const char* key) {
        return kl == std::strlen(key) && !std::memcmp(k, key, kl);
    };
    bool ok = uevent_walk(msg, len, [&](const char* k, size_t kl, const char* v, size_t vl) {
        if (!v) {
            return true;  // a field the disc watch has no use for
        }
        if (is(k, kl, "ACTION")) {
            out.action = VString(v, v + vl);
        } else if (is(k, kl, "SUBSYSTEM")) {
            out.subsystem = VString(v, v + vl);
        } else if (is(k, kl, "DEVNAME")) {
            out.devName = VString(v, v + vl);
        } else if (is(k, kl, "DEVTYPE")) {
            out.devType = VString(v, v + vl);
        } else if (is(k, kl, "DISK_MEDIA_CHANGE")) {
            out.mediaChange = vl == 1 && *v == '1';
        }
        return true;
    });
    return ok && !out.action.empty();
}

} // namespace vek
