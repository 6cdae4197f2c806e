/*
 * AlDev.cpp (POSIX) - the serial devices from sysfs (VekDev.h), and their
 * arrivals and removals from the kernel's uevents.
 *
 * A tty's "device" link leads to what the kernel bound the port to: the
 * USB interface for ttyACM, the usb-serial port below the interface for
 * ttyUSB, the UART for ttyS, nothing for virtual terminals. Walking up from
 * there, the first folder with bInterfaceNumber is the interface and the
 * first with idVendor the USB device, whatever the depth of the driver's
 * own folders in between.
 */
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <new>
#include <string>
#include <vector>
#include <unistd.h>
#ifdef __linux__
#include <linux/netlink.h>
#include <sys/socket.h>
#endif
#include "AlDev.h"
#include "AlSys.h"
#include "IoWait.h"
#include "VekCore.h"
#include "VekIoWait.h"

namespace {

/* Whether a read of the tree failed for another reason than what it
 * looked for being absent (or closed to the user, as some attributes
 * are): the list then fails as a whole (-850), since one with a port or
 * a modem's ids missing would be taken as true. */
thread_local bool t_readFailed = false;

void note_failure() {
    if (errno != ENOENT && errno != ENOTDIR && errno != EACCES && errno != EPERM) {
        t_readFailed = true;
    }
}

/* The first line of a sysfs attribute, "" when there is none. */
std::string attr(const std::string& dir, const char* name) {
    std::FILE* f = plat::sys_fopen((dir + "/" + name).c_str(), "r");
    if (!f) {
        note_failure();
        return "";
    }
    char buf[256] = {};
    bool ok = std::fgets(buf, sizeof buf, f) != nullptr;
    std::fclose(f);
    if (!ok) {
        return "";
    }
    buf[std::strcspn(buf, "\r\n")] = 0;
    return buf;
}

std::string real(const std::string& p) {
    char buf[PATH_MAX];
    return realpath(p.c_str(), buf) ? std::string(buf) : std::string();
}

std::string base(const std::string& p) {
    size_t i = p.rfind('/');
    return i == std::string::npos ? p : p.substr(i + 1);
}

void put(char* dst, size_t cap, const std::string& s) {
    std::snprintf(dst, cap, "%s", s.c_str());
}

vek_s32 hex(const std::string& s) {
    return s.empty() ? -1 : (vek_s32)std::strtol(s.c_str(), nullptr, 16);
}

bool starts(const std::string& s, const char* p) {
    return s.compare(0, std::strlen(p), p) == 0;
}

/* The device behind a tty or wwan entry; false when it is none of ours. */
bool describe(const std::string& sys, const std::string& entry, const std::string& name, bool wwan, VekDevInfo* d) {
    std::string dev = real(entry + "/device");
    std::string top = real(sys);
    if (dev.empty()) {
        return false;  // virtual: consoles, ptys
    }
    std::memset(d, 0, sizeof *d);
    put(d->path, sizeof d->path, "/dev/" + name);
    d->vid = d->pid = d->iface = -1;
    std::string driver = base(real(dev + "/driver"));
    std::string iface, usb;
    for (std::string up = dev; up.size() > top.size() && (iface.empty() || usb.empty()); up = up.substr(0, up.rfind('/'))) {
        if (iface.empty() && !attr(up, "bInterfaceNumber").empty()) {
            iface = up;
        }
        if (!attr(up, "idVendor").empty()) {
            usb = up;
            break;
        }
    }
    if (wwan) {
        d->kind = VEK_DEV_WWAN;
    } else if (starts(name, "rfcomm")) {
        d->kind = VEK_DEV_BT;
    } else if (!usb.empty()) {
        d->kind = VEK_DEV_USB;
    } else if (starts(name, "ttyS")) {
        // An 8250 port the kernel reserved without finding a UART.
        std::string type = attr(entry, "type");
        if (type.empty() || type == "0") {
            return false;
        }
        d->kind = VEK_DEV_UART;
    } else {
        d->kind = VEK_DEV_OTHER;
    }
    if (driver.empty() && !iface.empty()) {
        driver = base(real(iface + "/driver"));
    }
    put(d->driver, sizeof d->driver, driver);
    std::string desc;
    if (!usb.empty()) {
        d->vid = hex(attr(usb, "idVendor"));
        d->pid = hex(attr(usb, "idProduct"));
        put(d->serial, sizeof d->serial, attr(usb, "serial"));
        std::string maker = attr(usb, "manufacturer"), product = attr(usb, "product");
        desc = maker.empty() ? product : product.empty() ? maker : maker + " " + product;
    }
    if (!iface.empty()) {
        d->iface = (vek_s32)std::strtol(attr(iface, "bInterfaceNumber").c_str(), nullptr, 16);
        std::string ifName = attr(iface, "interface");
        if (!ifName.empty()) {
            desc = desc.empty() ? ifName : desc + " (" + ifName + ")";
        }
    }
    if (desc.empty()) {
        desc = d->kind == VEK_DEV_BT     ? "Bluetooth RFCOMM"
               : d->kind == VEK_DEV_WWAN ? "WWAN AT port"
               : !driver.empty()         ? driver
                                         : name;
    }
    put(d->desc, sizeof d->desc, desc);
    return true;
}

bool ours(const std::string& name) {
    return vek::dev_kind_of(name.c_str(), false) >= 0;
}

/* The entries of a class folder; false when it cannot be read. */
bool entries(const std::string& dir, std::vector<std::string>* out) {
    DIR* d = plat::sys_opendir(dir.c_str());
    if (!d) {
        note_failure();
        return false;
    }
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            out->push_back(e->d_name);
        }
    }
    closedir(d);
    return true;
}

} // namespace

/* ---- The watch: the kernel's uevents ----
 * The socket joins the kernel's multicast group (1), not udev's (2): the
 * kernel's messages come without udev running (containers, initramfs) and
 * carry everything the watch reads. Messages from any other sender are
 * dropped, so a local program cannot forge an arrival. */
namespace plat {

struct DevWatchSys {
    int fd = -1;
};

#ifdef __linux__

vek_s32 devw_open(DevWatchSys** out) {
    int fd = sys_socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
    struct sockaddr_nl sa = {};
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = 1;
    if (fd < 0 || sys_bind(fd, (struct sockaddr*)&sa, sizeof sa) != 0) {
        int e = errno;
        if (fd >= 0) {
            close(fd);
        }
        errno = e;
        // Sandboxes and some containers refuse the netlink family outright.
        bool none = e == EAFNOSUPPORT || e == EPROTONOSUPPORT || e == EPERM || e == EACCES;
        return none ? VEK_ERR_NO_WATCH : VEK_ERR_IO;
    }
    // A hub with a dozen modems announces hundreds of uevents at once; a
    // larger buffer keeps them (the forced size needs privileges).
    int size = 1 << 20;
    if (sys_setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    void* mem = vek_malloc__(sizeof(DevWatchSys));
    if (!mem) {
        close(fd);
        return VEK_ERR_FULL;
    }
    *out = new (mem) DevWatchSys;
    (*out)->fd = fd;
    return 0;
}

vek_s32 devw_next(DevWatchSys* s, VekDevEvent* ev, vek_s32 tmo, vek_s32 flags) {
    vek_u32 start = vek_msec();
    char buf[8192];
    for (;;) {
        vek_s32 rc = vek_fd_swait(s->fd, VEK_FD_IN, vek::ms_left(start, tmo), flags);
        if (rc < 0) {
            return rc;
        }
        struct sockaddr_nl from = {};
        struct iovec iov = {buf, sizeof buf};
        struct msghdr mh = {};
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        ssize_t n = sys_recvmsg(s->fd, &mh, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == ENOBUFS) {
                // The kernel dropped messages that did not fit: the caller
                // has to look at the list again.
                std::memset(ev, 0, sizeof *ev);
                ev->action = VEK_DEV_RESYNC;
                ev->dev.vid = ev->dev.pid = ev->dev.iface = -1;
                return 0;
            }
            if (errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return VEK_ERR_IO;
        }
        if (from.nl_pid == 0 && vek_dev_uevent_parse(buf, (vek_s32)n, ev) == 1) {
            return 0;
        }
    }
}

void devw_close(DevWatchSys* s) {
    close(s->fd);
    s->~DevWatchSys();
    vek_free__(s);
}

#else

vek_s32 devw_open(DevWatchSys**) {
    return VEK_ERR_NO_WATCH;
}
vek_s32 devw_next(DevWatchSys*, VekDevEvent*, vek_s32, vek_s32) {
    return VEK_ERR_NO_WATCH;
}
void devw_close(DevWatchSys*) {}

#endif

} // namespace plat

extern "C" {

VEK_API vek_s32 vek_dev_list_serial(const char* root, VekDevInfo* devs, vek_s32 cap) {
    std::string sys = root && *root ? root : "/sys";
    std::vector<std::string> tty, wwan;
    t_readFailed = false;
    if (!entries(sys + "/class/tty", &tty)) {
        return VEK_ERR_IO;
    }
    entries(sys + "/class/wwan", &wwan);  // only on kernels and machines with such modems
    std::vector<VekDevInfo> found;
    VekDevInfo d;
    for (const std::string& n : tty) {
        if (ours(n) && describe(sys, sys + "/class/tty/" + n, n, false, &d)) {
            found.push_back(d);
        }
    }
    for (const std::string& n : wwan) {
        if (vek::dev_kind_of(n.c_str(), true) >= 0 && describe(sys, sys + "/class/wwan/" + n, n, true, &d)) {
            found.push_back(d);
        }
    }
    if (t_readFailed) {
        return VEK_ERR_IO;
    }
    std::sort(found.begin(), found.end(),
              [](const VekDevInfo& a, const VekDevInfo& b) { return std::strcmp(a.path, b.path) < 0; });
    for (size_t i = 0; i < found.size() && (vek_s32)i < cap; i++) {
        devs[i] = found[i];
    }
    return (vek_s32)found.size();
}

} // extern "C"
