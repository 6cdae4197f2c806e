/*
 * AlDev.cpp (POSIX) - the serial devices from sysfs (VekDev.h).
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
#include <string>
#include <vector>
#include <unistd.h>
#include "VekDev.h"

namespace {

/* The first line of a sysfs attribute, "" when there is none. */
std::string attr(const std::string& dir, const char* name) {
    std::FILE* f = std::fopen((dir + "/" + name).c_str(), "r");
    if (!f) {
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
    return starts(name, "ttyUSB") || starts(name, "ttyACM") || starts(name, "ttyS") || starts(name, "rfcomm");
}

/* The entries of a class folder; false when it cannot be read. */
bool entries(const std::string& dir, std::vector<std::string>* out) {
    DIR* d = opendir(dir.c_str());
    if (!d) {
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

extern "C" {

VEK_API vek_s32 vek_dev_list_serial(const char* root, VekDevInfo* devs, vek_s32 cap) {
    std::string sys = root && *root ? root : "/sys";
    std::vector<std::string> tty, wwan;
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
        if (n.find("at") != std::string::npos && describe(sys, sys + "/class/wwan/" + n, n, true, &d)) {
            found.push_back(d);
        }
    }
    std::sort(found.begin(), found.end(),
              [](const VekDevInfo& a, const VekDevInfo& b) { return std::strcmp(a.path, b.path) < 0; });
    for (size_t i = 0; i < found.size() && (vek_s32)i < cap; i++) {
        devs[i] = found[i];
    }
    return (vek_s32)found.size();
}

} // extern "C"
