/*
 * AlMon.cpp (POSIX) - the monitors' watches on Linux: inotify for folders,
 * /proc/self/mountinfo and the kernel's device announcements for discs.
 *
 * inotify watches one folder per watch. A recursive watch adds a watch for
 * every folder of the tree, and for every folder that appears later as
 * soon as it is reported - and then lists it, since whatever was made in
 * it before its watch existed is reported by nobody else (mkdir -p, a tree
 * moved in). What the listing finds may also come as an event of its own
 * a moment later; such a duplicate is dropped.
 */
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <unordered_map>
#include <string_view>
#include <unordered_set>
#include "AlPlat.h"
#include "AlSys.h"
#include "MonPlat.h"
#include "VekIoWait.h"

using vek::MonEvt;
using vek::MonQue;
using vek::VString;
using vek::ListedPaths;
using vek::mon_push;

namespace {

constexpr uint32_t kMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO |
                           IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
/* How long an unpaired "moved from" waits for its "moved to". */
constexpr vek_s32 kPairMs = 10;
/* How often an idle watch checks that its folder is still there. The
 * kernel reports the folder's removal only once the last reference to it
 * goes (an open handle in any process delays it), and some sandboxed file
 * systems never report it; a watcher that waited for that report alone
 * could wait for ever on a folder that is gone. */
constexpr vek_s32 kAliveMs = 1000;

vek_s64 mono_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (vek_s64)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

template <class K, class V>
using Map = std::unordered_map<K, V, std::hash<K>, std::equal_to<K>, vek::HeapAllocator<std::pair<const K, V>>>;

VString join(const VString& dir, const char* name) {
    if (dir.empty()) {
        return VString(name);
    }
    VString p = dir;
    p += '/';
    p += name;
    return p;
}

} // namespace

namespace plat {

struct FileWatch {
    int fd = -1;
    bool recursive = false;
    bool gone = false;
    VString root;
    Map<int, VString> dirs;   // watch -> folder, relative to the root
    int rootWd = -1;
    dev_t rootDev = 0;  // the folder watched: a new one of the same name
    ino_t rootIno = 0;  // is another folder
    ListedPaths listed;
    // A "moved from" still waiting for its "moved to".
    bool fromHeld = false;
    uint32_t fromCookie = 0;
    VString fromPath;
    bool fromDir = false;

    VString abs(const VString& rel) const { return rel.empty() ? root : root + "/" + rel; }

    /* Watches the folder rel (and, recursive, its tree); with list, reports
     * what it holds as found by listing. A folder that is gone again, no
     * folder any more or closed to the user is not ours to watch; one that
     * cannot be watched or listed for any other reason leaves a hole in
     * what the watch sees, which a RESCAN of it says (-797 when the
     * kernel's watches ran out, else -850). */
    void add_tree(const VString& rel, bool list, MonQue& q) {
        auto hole = [&](int e) {
            if (e != ENOENT && e != ENOTDIR && e != EACCES) {
                vek::mon_rescan(q, rel, e == ENOSPC ? VEK_ERR_WATCH_LIMIT : VEK_ERR_IO);
            }
        };
        int wd = sys_inotify_add_watch(fd, abs(rel).c_str(), kMask);
        if (wd < 0) {
            hole(errno);
            return;
        }
        dirs[wd] = rel;
        if (!recursive) {
            return;
        }
        DIR* d = sys_opendir(abs(rel).c_str());
        if (!d) {
            hole(errno);
            return;
        }
        struct Closer {  // also when running out of memory part way
            DIR* d;
            ~Closer() { closedir(d); }
        } closer{d};
        while (struct dirent* de = readdir(d)) {
            if (!std::strcmp(de->d_name, ".") || !std::strcmp(de->d_name, "..")) {
                continue;
            }
            VString path = join(rel, de->d_name);
            bool isDir = de->d_type == DT_DIR;
            if (de->d_type == DT_UNKNOWN) {
                struct stat st;
                isDir = lstat(abs(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
            }
            if (list) {
                listed.found(q, path, isDir);
            }
            if (isDir) {
                add_tree(path, list, q);
            }
        }
    }

    /* Forgets the watches of the folder rel and everything under it. */
    void drop_tree(const VString& rel) {
        for (auto it = dirs.begin(); it != dirs.end();) {
            const VString& p = it->second;
            if (p == rel || (p.size() > rel.size() && p.compare(0, rel.size(), rel) == 0 && p[rel.size()] == '/')) {
                inotify_rm_watch(fd, it->first);
                it = dirs.erase(it);
            } else {
                ++it;
            }
        }
    }

    /* The folders of the tree were renamed from old to now. */
    void move_tree(const VString& old, const VString& now) {
        for (auto& kv : dirs) {
            VString& p = kv.second;
            if (p == old) {
                p = now;
            } else if (p.size() > old.size() && p.compare(0, old.size(), old) == 0 && p[old.size()] == '/') {
                p = now + p.substr(old.size());
            }
        }
    }

    /* A held "moved from" that found no partner left the tree. */
    void flush_from(MonQue& q) {
        if (!fromHeld) {
            return;
        }
        fromHeld = false;
        mon_push(q, VEK_MON_REMOVED, fromDir ? VEK_MON_DIR : 0, fromPath);
        if (fromDir && recursive) {
            drop_tree(fromPath);
        }
    }

    void appeared(const VString& path, bool isDir, MonQue& q) {
        if (listed.repeats(path)) {
            return;
        }
        mon_push(q, VEK_MON_ADDED, isDir ? VEK_MON_DIR : 0, path);
        if (isDir && recursive) {
            add_tree(path, true, q);
        }
    }

    void event(const struct inotify_event* e, MonQue& q) {
        if (e->mask & IN_Q_OVERFLOW) {
            flush_from(q);
            vek::mon_rescan(q);
            if (recursive) {
                add_tree(VString(), false, q);  // folders made meanwhile get their watches
            }
            return;
        }
        auto it = dirs.find(e->wd);
        if (it == dirs.end()) {
            return;
        }
        if (e->mask & IN_IGNORED) {
            dirs.erase(it);
            if (e->wd == rootWd) {
                root_gone(q);  // unmounted, or removed without its own report
            }
            return;
        }
        const VString dir = it->second;
        bool isDir = (e->mask & IN_ISDIR) != 0;
        VString path = e->len ? join(dir, e->name) : dir;
        if ((e->mask & IN_MOVED_TO) && fromHeld && fromCookie == e->cookie) {
            fromHeld = false;
            if (isDir && recursive) {
                move_tree(fromPath, path);
            }
            mon_push(q, VEK_MON_RENAMED, isDir ? VEK_MON_DIR : 0, path, fromPath);
            return;
        }
        flush_from(q);
        if (e->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
            if (e->wd == rootWd) {
                root_gone(q);
            }
            return;  // a folder inside: its parent reports it
        }
        if (e->mask & (IN_CREATE | IN_MOVED_TO)) {
            appeared(path, isDir, q);
        } else if (e->mask & IN_DELETE) {
            mon_push(q, VEK_MON_REMOVED, isDir ? VEK_MON_DIR : 0, path);
        } else if (e->mask & IN_MOVED_FROM) {
            fromHeld = true;
            fromCookie = e->cookie;
            fromPath = path;
            fromDir = isDir;
        } else if (e->mask & (IN_MODIFY | IN_ATTRIB)) {
            mon_push(q, VEK_MON_CHANGED, isDir ? VEK_MON_DIR : 0, path);
        }
    }

    void root_gone(MonQue& q) {
        if (!gone) {
            gone = true;
            mon_push(q, VEK_MON_REMOVED, VEK_MON_DIR, VString());
        }
    }

    /* Whether the folder watched is still where it was. A look that fails
     * for another reason than the folder missing (out of memory, an
     * interrupted network file system) proves nothing, and a removal is
     * final: the watch goes on. */
    bool root_there() const {
        struct stat st;
        if (sys_stat(root.c_str(), &st) != 0) {
            return errno != ENOENT && errno != ENOTDIR;
        }
        return st.st_dev == rootDev && st.st_ino == rootIno;
    }

    /* Reads what the kernel holds now; false when nothing was there. */
    bool drain(MonQue& q) {
        alignas(struct inotify_event) char buf[64 * 1024];
        bool any = false;
        for (;;) {
            ssize_t n = sys_read(fd, buf, sizeof buf);
            if (n <= 0) {
                return any;
            }
            any = true;
            for (char* p = buf; p < buf + n;) {
                auto* e = (struct inotify_event*)p;
                event(e, q);
                p += sizeof(struct inotify_event) + e->len;
            }
        }
    }
};

vek_s32 filewatch_open(const char* dir, bool recursive, FileWatch** out) {
    struct stat st;
    if (sys_stat(dir, &st) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? VEK_ERR_NOT_FOUND : VEK_ERR_FILE_OPEN;
    }
    if (!S_ISDIR(st.st_mode)) {
        return VEK_ERR_FILE_OPEN;
    }
    FileWatch* w = nullptr;
    try {
        void* mem = vek_malloc__(sizeof(FileWatch));
        if (!mem) {
            return VEK_ERR_FULL;
        }
        w = new (mem) FileWatch();
        w->recursive = recursive;
        w->root = dir;
        while (w->root.size() > 1 && w->root.back() == '/') {
            w->root.pop_back();
        }
        w->fd = sys_inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (w->fd < 0) {
            vek_s32 r = errno == EMFILE ? VEK_ERR_WATCH_LIMIT : VEK_ERR_FILE_OPEN;
            filewatch_close(w);
            return r;
        }
        w->rootDev = st.st_dev;
        w->rootIno = st.st_ino;
        w->rootWd = sys_inotify_add_watch(w->fd, w->root.c_str(), kMask);
        if (w->rootWd < 0) {
            vek_s32 r = errno == ENOSPC ? VEK_ERR_WATCH_LIMIT : VEK_ERR_FILE_OPEN;
            filewatch_close(w);
            return r;
        }
        MonQue none;
        w->add_tree(VString(), false, none);  // the tree as it is now: nothing to report
        if (!none.empty()) {  // only holes are reported here
            vek_s32 r = none.front().err == VEK_ERR_WATCH_LIMIT ? VEK_ERR_WATCH_LIMIT : VEK_ERR_FILE_OPEN;
            filewatch_close(w);
            return r;
        }
    } catch (const std::bad_alloc&) {
        filewatch_close(w);
        return VEK_ERR_FULL;
    }
    *out = w;
    return 0;
}

vek_s32 filewatch_read(FileWatch* w, MonQue& q, vek_s32 tmo, vek_s32 flags) {
    if (w->gone) {
        return VEK_ERR_EOF;
    }
    size_t before = q.size();
    try {
        w->listed.next_read();
        vek_s64 deadline = tmo < 0 ? 0 : mono_ms() + tmo;
        while (q.size() == before && !w->gone) {
            if (!w->drain(q)) {
                vek_s32 left = tmo < 0 ? kAliveMs : (vek_s32)std::max<vek_s64>(0, deadline - mono_ms());
                vek_s32 slice = w->fromHeld ? kPairMs : std::min(left, kAliveMs);
                vek_s32 r = vek_fd_swait(w->fd, VEK_FD_IN, slice, flags);
                if (r == VEK_ERR_TIMEOUT && w->fromHeld) {
                    w->flush_from(q);
                    continue;
                }
                if (r == VEK_ERR_TIMEOUT && slice == kAliveMs) {
                    if (!w->root_there()) {
                        w->drain(q);  // what came before the end, then the end
                        w->root_gone(q);
                    } else if (tmo >= 0 && mono_ms() >= deadline) {
                        return r;
                    }
                    continue;
                }
                if (r < 0) {
                    return r;
                }
                continue;
            }
            if (w->fromHeld && vek_fd_swait(w->fd, VEK_FD_IN, kPairMs, flags) < 0) {
                w->flush_from(q);  // its partner did not follow at once: it left
            }
        }
    } catch (const std::bad_alloc&) {
        return q.size() > before ? (vek_s32)(q.size() - before) : VEK_ERR_FULL;
    }
    return (vek_s32)(q.size() - before);
}

void filewatch_close(FileWatch* w) {
    if (!w) {
        return;
    }
    if (w->fd >= 0) {
        close(w->fd);
    }
    w->~FileWatch();
    vek_free__(w);
}

// ---- discs ----

struct DiscWatch {
    int mountFd = -1;
    int ueventFd = -1;
    vek::MountList mounts;

    bool read_mounts(vek::MountList& out) {
        VString text;
        char buf[16 * 1024];
        if (sys_lseek(mountFd, 0, SEEK_SET) != 0) {
            return false;
        }
        ssize_t n;
        while ((n = sys_read(mountFd, buf, sizeof buf)) > 0) {
            text.append(buf, (size_t)n);
        }
        if (n < 0) {
            return false;  // a part of the table would read as mounts gone
        }
        vek::mountinfo_parse(text.data(), text.size(), out);
        return true;
    }

    /* Whether source is a device whose disc the kernel calls removable;
     * a partition's disc is the folder above it in sysfs. */
    static bool removable(const VString& source) {
        if (source.compare(0, 5, "/dev/") != 0 || source.find('/', 5) != VString::npos) {
            return false;
        }
        VString dev = VString("/sys/class/block/") + source.substr(5);
        struct stat st;
        if (stat((dev + "/partition").c_str(), &st) == 0) {
            dev += "/..";
        }
        int fd = open((dev + "/removable").c_str(), O_RDONLY | O_CLOEXEC);
        char c = 0;
        bool yes = fd >= 0 && ::read(fd, &c, 1) == 1 && c == '1';
        if (fd >= 0) {
            close(fd);
        }
        return yes;
    }

    static bool same(const vek::MountEnt& a, const vek::MountEnt& b) {
        return a.id == b.id && a.mountPoint == b.mountPoint;
    }

    void mount_changes(MonQue& q) {
        vek::MountList now;
        if (!read_mounts(now)) {
            return;
        }
        for (const auto& old : mounts) {
            bool still = false;
            for (const auto& m : now) {
                still = still || same(old, m);
            }
            if (!still) {
                mon_push(q, VEK_MON_UNMOUNTED, removable(old.source) ? VEK_MON_REMOVABLE : 0, old.mountPoint, old.source);
                q.back().fsType = old.fsType;
            }
        }
        for (const auto& m : now) {
            bool before = false;
            for (const auto& old : mounts) {
                before = before || same(old, m);
            }
            if (!before) {
                mon_push(q, VEK_MON_MOUNTED, removable(m.source) ? VEK_MON_REMOVABLE : 0, m.mountPoint, m.source);
                q.back().fsType = m.fsType;
            }
        }
        mounts.swap(now);
    }

    static bool has_medium(const VString& name) {
        VString attr = VString("/sys/class/block/") + name + "/size";
        int fd = open(attr.c_str(), O_RDONLY | O_CLOEXEC);
        char buf[32] = {0};
        bool yes = fd >= 0 && ::read(fd, buf, sizeof buf - 1) > 0 && buf[0] != '0';
        if (fd >= 0) {
            close(fd);
        }
        return yes;
    }

    void device_changes(MonQue& q) {
        char buf[8192];
        ssize_t n;
        while ((n = sys_recv(ueventFd, buf, sizeof buf, MSG_DONTWAIT)) > 0) {
            vek::UEvent u;
            if (!vek::uevent_parse(buf, (size_t)n, u) || u.subsystem != "block" || u.devName.empty()) {
                continue;
            }
            VString dev = VString("/dev/") + u.devName;
            if (u.action == "add") {
                mon_push(q, VEK_MON_MEDIA_ADDED, VEK_MON_REMOVABLE, dev);
            } else if (u.action == "remove") {
                mon_push(q, VEK_MON_MEDIA_REMOVED, VEK_MON_REMOVABLE, dev);
            } else if (u.action == "change" && u.mediaChange) {
                mon_push(q, has_medium(u.devName) ? VEK_MON_MEDIA_ADDED : VEK_MON_MEDIA_REMOVED, VEK_MON_REMOVABLE, dev);
            } else {
                continue;
            }
            q.back().fsType = u.devType;
        }
    }
};

vek_s32 discwatch_open(DiscWatch** out) {
    void* mem = vek_malloc__(sizeof(DiscWatch));
    if (!mem) {
        return VEK_ERR_FULL;
    }
    DiscWatch* w = new (mem) DiscWatch();
    try {
        w->mountFd = sys_open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
        if (w->mountFd < 0 || !w->read_mounts(w->mounts)) {
            discwatch_close(w);
            return VEK_ERR_UNSUPPORTED;
        }
    } catch (const std::bad_alloc&) {
        discwatch_close(w);
        return VEK_ERR_FULL;
    }
    // Media: the kernel's announcements; without them (a sandbox may
    // refuse the socket) mounts are still watched.
    w->ueventFd = sys_socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
    if (w->ueventFd >= 0) {
        struct sockaddr_nl a {};
        a.nl_family = AF_NETLINK;
        a.nl_groups = 1;
        if (sys_bind(w->ueventFd, (struct sockaddr*)&a, sizeof a) != 0) {
            close(w->ueventFd);
            w->ueventFd = -1;
        }
    }
    *out = w;
    return 0;
}

vek_s32 discwatch_read(DiscWatch* w, MonQue& q, vek_s32 tmo, vek_s32 flags) {
    size_t before = q.size();
    try {
        while (q.size() == before) {
            VekPollFd fds[2] = {{w->mountFd, VEK_FD_PRI, 0}, {w->ueventFd, VEK_FD_IN, 0}};
            vek_s32 r = vek_fds_swait(fds, w->ueventFd >= 0 ? 2 : 1, tmo, flags);
            if (r < 0) {
                return r;
            }
            if (fds[0].revents) {
                w->mount_changes(q);
            }
            if (fds[1].revents) {
                w->device_changes(q);
            }
        }
    } catch (const std::bad_alloc&) {
        return q.size() > before ? (vek_s32)(q.size() - before) : VEK_ERR_FULL;
    }
    return (vek_s32)(q.size() - before);
}

void discwatch_close(DiscWatch* w) {
    if (!w) {
        return;
    }
    if (w->mountFd >= 0) {
        close(w->mountFd);
    }
    if (w->ueventFd >= 0) {
        close(w->ueventFd);
    }
    w->~DiscWatch();
    vek_free__(w);
}

} // namespace plat
