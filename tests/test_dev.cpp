/*
 * Serial device discovery over a copy of a sysfs tree: a USB modem with an
 * ACM interface and a usb-serial interface, on-board 8250 ports with and
 * without a UART, a console, and a PCIe modem's wwan ports. The faults it
 * catches: ids read from the interface instead of the device, ports with
 * no hardware listed, virtual terminals listed, a wrong interface number.
 */
#include <atomic>
#include <cstring>
#include <string>
#include <vector>
#include "DevWatch.h"
#include "OsFault.h"
#include "ToolRun.h"

class Dev : public VekTest {};

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>

namespace {

void mkdirs(const std::string& p) {
    for (size_t i = 1; i <= p.size(); i++) {
        if (i == p.size() || p[i] == '/') {
            mkdir(p.substr(0, i).c_str(), 0755);
        }
    }
}

void file(const std::string& dir, const char* name, const char* text) {
    mkdirs(dir);
    vektest::write_file(dir + "/" + name, std::string(text) + "\n");
}

void link(const std::string& target, const std::string& at) {
    mkdirs(at.substr(0, at.rfind('/')));
    ASSERT_EQ(0, symlink(target.c_str(), at.c_str())) << at;
}

/* A sysfs tree with a USB modem (an ACM and a usb-serial interface), an
 * on-board UART and a reserved 8250 port, a console and a PCIe modem's
 * wwan ports: four serial devices. */
std::string fake_tree() {
    std::string r = vektest::temp_dir("dev_sysfs");
    std::string usb = r + "/devices/pci0000:00/0000:00:14.0/usb1/1-1";
    file(usb, "idVendor", "2c7c");
    file(usb, "idProduct", "0125");
    file(usb, "serial", "SN0042");
    file(usb, "manufacturer", "Quectel");
    file(usb, "product", "EG25-G");
    file(usb + "/1-1:1.0", "bInterfaceNumber", "00");
    file(usb + "/1-1:1.0", "interface", "CDC Abstract Control Model");
    link(r + "/bus/usb/drivers/cdc_acm", usb + "/1-1:1.0/driver");
    link(usb + "/1-1:1.0", r + "/class/tty/ttyACM0/device");
    file(usb + "/1-1:1.10", "bInterfaceNumber", "0a");
    link(r + "/bus/usb-serial/drivers/option1", usb + "/1-1:1.10/ttyUSB2/driver");
    link(usb + "/1-1:1.10/ttyUSB2", r + "/class/tty/ttyUSB2/device");
    std::string uart = r + "/devices/platform/serial8250";
    link(r + "/bus/platform/drivers/serial8250", uart + "/driver");
    link(uart, r + "/class/tty/ttyS0/device");
    file(r + "/class/tty/ttyS0", "type", "4");
    link(uart, r + "/class/tty/ttyS1/device");
    file(r + "/class/tty/ttyS1", "type", "0");  // reserved, no UART
    file(r + "/class/tty/tty0", "dev", "4:0");   // a console: no device
    std::string mhi = r + "/devices/pci0000:00/0000:01:00.0/mhi0";
    link(mhi, r + "/class/wwan/wwan0at0/device");
    link(mhi, r + "/class/wwan/wwan0mbim0/device");
    for (const std::string& d : {r + "/bus/usb/drivers/cdc_acm", r + "/bus/usb-serial/drivers/option1",
                                 r + "/bus/platform/drivers/serial8250", mhi}) {
        mkdirs(d);
    }
    return r;
}

} // namespace

TEST_F(Dev, AFakeSysfsTreeListsTheRealPortsAndTheWatchNamesThemOnRemoval) {
    std::string r = fake_tree();
    EXPECT_EQ(4, vek_dev_list_serial(r.c_str(), nullptr, 0));
    std::vector<VekDevInfo> d(8);
    ASSERT_EQ(4, vek_dev_list_serial(r.c_str(), d.data(), 8));
    EXPECT_STREQ("/dev/ttyACM0", d[0].path);
    EXPECT_EQ(VEK_DEV_USB, d[0].kind);
    EXPECT_EQ(0x2c7c, d[0].vid);
    EXPECT_EQ(0x0125, d[0].pid);
    EXPECT_EQ(0, d[0].iface);
    EXPECT_STREQ("SN0042", d[0].serial);
    EXPECT_STREQ("cdc_acm", d[0].driver);
    EXPECT_STREQ("Quectel EG25-G (CDC Abstract Control Model)", d[0].desc);
    EXPECT_STREQ("/dev/ttyS0", d[1].path);
    EXPECT_EQ(VEK_DEV_UART, d[1].kind);
    EXPECT_EQ(-1, d[1].vid);
    EXPECT_STREQ("serial8250", d[1].driver);
    EXPECT_STREQ("/dev/ttyUSB2", d[2].path);
    EXPECT_EQ(10, d[2].iface);  // bInterfaceNumber is hexadecimal
    EXPECT_EQ(0x2c7c, d[2].vid);
    EXPECT_STREQ("option1", d[2].driver);
    EXPECT_STREQ("Quectel EG25-G", d[2].desc);
    EXPECT_STREQ("/dev/wwan0at0", d[3].path);
    EXPECT_EQ(VEK_DEV_WWAN, d[3].kind);
    VekDevInfo one;
    ASSERT_EQ(0, vek_dev_find_serial(r.c_str(), "/dev/ttyUSB2", &one));
    EXPECT_EQ(10, one.iface);
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_dev_find_serial(r.c_str(), "/dev/ttyS1", &one));
    EXPECT_EQ(VEK_ERR_IO, vek_dev_list_serial((r + "/missing").c_str(), d.data(), 8));

    // The watch over the same tree: what it makes of the kernel's events.
    VekDevWatch* w = nullptr;
    if (vek_dev_watch_open(r.c_str(), &w) == 0) {
        auto take = [&](const char* action, const char* name, VekDevEvent* ev) {
            std::string m = std::string(action) + "@/devices/x" + '\0' + "ACTION=" + action + '\0' +
                            "DEVPATH=/devices/x" + '\0' + "SUBSYSTEM=tty" + '\0' + "DEVNAME=" + name;
            EXPECT_EQ(1, vek_dev_uevent_parse(m.data(), (vek_s32)m.size(), ev));
            return vek::dev_watch_take(w, ev);
        };
        VekDevEvent ev;
        // A removal names the modem from what the watch saw at its start;
        // once gone, it is forgotten.
        ASSERT_TRUE(take("remove", "ttyACM0", &ev));
        EXPECT_EQ(0x2c7c, ev.dev.vid);
        EXPECT_STREQ("SN0042", ev.dev.serial);
        ASSERT_TRUE(take("remove", "ttyACM0", &ev));
        EXPECT_EQ(-1, ev.dev.vid);
        // An arrival is described by the list and remembered for its removal.
        ASSERT_TRUE(take("add", "ttyACM0", &ev));
        EXPECT_EQ(0, ev.dev.iface);
        EXPECT_STREQ("cdc_acm", ev.dev.driver);
        ASSERT_TRUE(take("remove", "ttyACM0", &ev));
        EXPECT_STREQ("cdc_acm", ev.dev.driver);
        // A UART the kernel reserved without hardware is no arrival.
        EXPECT_FALSE(take("add", "ttyS1", &ev));
        // After lost events the table is the list again.
        ASSERT_TRUE(take("remove", "ttyUSB2", &ev));
        ev.action = VEK_DEV_RESYNC;
        ASSERT_TRUE(vek::dev_watch_take(w, &ev));
        ASSERT_TRUE(take("remove", "ttyUSB2", &ev));
        EXPECT_EQ(10, ev.dev.iface);
        vek_dev_watch_close(w);
    }
    vektest::remove_tree(r);
}

// Every read of the tree failing in turn: the list is the whole list or
// -850, never one with a port or a modem's ids missing; the watch opens or
// says why not.
TEST_F(Dev, EachFailingReadOfTheTreeFailsTheListNotItsContent) {
    vektest::OsIoDisarm disarm;
    std::string r = fake_tree();
    std::vector<VekDevInfo> want(8), got(8);
    ASSERT_EQ(4, vek_dev_list_serial(r.c_str(), want.data(), 8));
    int runs = vektest::os_io_sweep([&](int k) -> vek_s32 {
        vek_s32 n = vek_dev_list_serial(r.c_str(), got.data(), 8);
        if (n < 0) {
            EXPECT_EQ(VEK_ERR_IO, n) << k;
            return n;
        }
        EXPECT_EQ(4, n) << k;
        EXPECT_EQ(0, std::memcmp(want.data(), got.data(), 4 * sizeof(VekDevInfo))) << k;
        return n == 4 ? 0 : -1;
    });
    EXPECT_GE(runs, 20);
    // The watch: the kernel's socket refused (no notifications here, or a
    // plain failure), its larger buffer refused (it goes on), the list.
    VekDevWatch* w = nullptr;
    if (vek_dev_watch_open(r.c_str(), &w) != 0) {
        vektest::remove_tree(r);
        GTEST_SKIP() << "no kernel uevents here: the watch's failures are not swept";
    }
    vek_dev_watch_close(w);
    runs = vektest::os_io_sweep([&](int k) -> vek_s32 {
        VekDevWatch* w = nullptr;
        vek_s32 rc = vek_dev_watch_open(r.c_str(), &w);
        if (rc < 0) {
            EXPECT_TRUE(vektest::one_of(rc, {VEK_ERR_IO, VEK_ERR_NO_WATCH})) << k << " " << rc;
            return rc;
        }
        VekDevEvent ev;
        rc = vek_dev_watch_next(w, &ev, 0, 0);
        vek_dev_watch_close(w);
        return rc == VEK_ERR_TIMEOUT || rc == 0 ? 0 : rc;  // 0: a real device came or went just now
    });
    EXPECT_GE(runs, 2);
    vek_os_fail_at__(VEK_OS_IO, 1);
    vek_os_fail_errno__(EAFNOSUPPORT);
    EXPECT_EQ(VEK_ERR_NO_WATCH, vek_dev_watch_open(r.c_str(), &w));
    vektest::remove_tree(r);
}
#endif

// The machine's own list through vektool: its form, whatever it holds.
TEST_F(Dev, VektoolModemListPrintsTheDevicesAsLinesOrJson) {
    ToolRun t;
    int rc = t.run("modem list --json");
    ASSERT_TRUE(rc == 0 || rc == 1) << rc;
    std::string json = t.out();
    EXPECT_EQ('[', json[0]);
    EXPECT_EQ(rc == 0, json.find("\"path\":") != std::string::npos);
    EXPECT_EQ(rc, t.run("modem list"));
    EXPECT_EQ(rc == 1, t.out().empty());
    EXPECT_EQ(2, t.run("modem list --bogus"));
}

// Kernel uevents as a USB modem's plug-in and removal send them (recorded
// with "udevadm monitor --kernel --property" and joined the way the
// netlink socket delivers them), and messages the watch must pass over.
TEST_F(Dev, UeventsOfSerialPortsAreReadAndAllOthersPassedOver) {
    auto msg = [](const std::string& header, std::initializer_list<const char*> fields) {
        std::string m = header + '\0';
        for (const char* f : fields) {
            m += std::string(f) + '\0';
        }
        return m;
    };
    const char* acm = "/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/tty/ttyACM0";
    std::string add = msg(std::string("add@") + acm, {"ACTION=add", (std::string("DEVPATH=") + acm).c_str(),
                                                    "SUBSYSTEM=tty", "MAJOR=166", "MINOR=0", "DEVNAME=ttyACM0",
                                                    "SEQNUM=4021"});
    VekDevEvent ev;
    ASSERT_EQ(1, vek_dev_uevent_parse(add.data(), (vek_s32)add.size(), &ev));
    EXPECT_EQ(VEK_DEV_ARRIVED, ev.action);
    EXPECT_STREQ(acm, ev.syspath);
    EXPECT_STREQ("/dev/ttyACM0", ev.dev.path);
    EXPECT_EQ(VEK_DEV_USB, ev.dev.kind);
    EXPECT_EQ(-1, ev.dev.vid);
    // The last field without its NUL (a message cut at its length) still counts.
    std::string rm = msg("remove@/devices/x/ttyUSB3", {"ACTION=remove", "DEVPATH=/devices/x/ttyUSB3", "SUBSYSTEM=tty",
                                                      "DEVNAME=ttyUSB3"});
    ASSERT_EQ(1, vek_dev_uevent_parse(rm.data(), (vek_s32)rm.size() - 1, &ev));
    EXPECT_EQ(VEK_DEV_REMOVED, ev.action);
    EXPECT_STREQ("/dev/ttyUSB3", ev.dev.path);
    std::string wwan = msg("add@/devices/pci0000:00/0000:01:00.0/mhi0/wwan/wwan0/wwan0at0",
                           {"ACTION=add", "DEVPATH=/devices/pci0000:00/0000:01:00.0/mhi0/wwan/wwan0/wwan0at0",
                            "SUBSYSTEM=wwan", "DEVNAME=wwan0at0"});
    ASSERT_EQ(1, vek_dev_uevent_parse(wwan.data(), (vek_s32)wwan.size(), &ev));
    EXPECT_EQ(VEK_DEV_WWAN, ev.dev.kind);
    EXPECT_STREQ("/dev/wwan0at0", ev.dev.path);

    // Not ours: the USB device itself, a bind, a console, the MBIM port of
    // the same modem, a name that would leave /dev.
    for (const std::string& m : {
             msg("add@/devices/usb1/1-1", {"ACTION=add", "DEVPATH=/devices/usb1/1-1", "SUBSYSTEM=usb",
                                          "DEVNAME=bus/usb/001/005", "DEVTYPE=usb_device"}),
             msg("bind@/devices/x/ttyACM0", {"ACTION=bind", "DEVPATH=/devices/x/ttyACM0", "SUBSYSTEM=tty",
                                            "DEVNAME=ttyACM0"}),
             msg("add@/devices/virtual/tty/tty7", {"ACTION=add", "DEVPATH=/devices/virtual/tty/tty7", "SUBSYSTEM=tty",
                                                  "DEVNAME=tty7"}),
             msg("add@/devices/x/wwan0mbim0", {"ACTION=add", "DEVPATH=/devices/x/wwan0mbim0", "SUBSYSTEM=wwan",
                                              "DEVNAME=wwan0mbim0"}),
             msg("add@/devices/x/ttyUSB0", {"ACTION=add", "DEVPATH=/devices/x", "SUBSYSTEM=tty",
                                           "DEVNAME=../ttyUSB0"}),
             msg("add@/devices/x/ttyUSB0", {"ACTION=add", "DEVPATH=/devices/x", "SUBSYSTEM=tty"}),
         }) {
        EXPECT_EQ(0, vek_dev_uevent_parse(m.data(), (vek_s32)m.size(), &ev)) << m;
    }
    // Not uevents: udev's own messages, a field without '=', a required
    // field missing, nothing at all.
    for (const std::string& m : {
             std::string("libudev\0\xfe\xed\xca\xfe", 12),
             msg("add@/devices/x/ttyUSB0", {"ACTION=add", "DEVPATH=/devices/x", "SUBSYSTEM=tty", "DEVNAME"}),
             msg("add@/devices/x/ttyUSB0", {"ACTION=add", "SUBSYSTEM=tty", "DEVNAME=ttyUSB0"}),
             std::string(),
         }) {
        EXPECT_EQ(VEK_ERR_BAD_ARG, vek_dev_uevent_parse(m.data(), (vek_s32)m.size(), &ev)) << m;
    }
}

// The watch on this machine: where the system gives notifications, a wait
// ends at its time-out and at once when the thread is cancelled.
TEST_F(Dev, TheWatchWaitEndsAtItsTimeOutAndWhenCancelled) {
    VekDevWatch* w = nullptr;
    vek_s32 rc = vek_dev_watch_open(nullptr, &w);
    if (rc == VEK_ERR_NO_WATCH) {
        EXPECT_EQ(nullptr, w);
#ifdef _WIN32
        GTEST_SKIP() << "no CM_Register_Notification here (wine has none)";
#else
        GTEST_SKIP() << "no kernel uevent socket here (a sandbox refused it)";
#endif
    }
    ASSERT_EQ(0, rc);
    VekDevEvent ev;
    // A machine may gain or lose a port meanwhile; any event must be whole.
    rc = vek_dev_watch_next(w, &ev, 50, 0);
    EXPECT_TRUE(rc == VEK_ERR_TIMEOUT || (rc == 0 && (ev.action == VEK_DEV_RESYNC || ev.dev.path[0]))) << rc;
    std::atomic<vek_s32> res{1};
    std::atomic<vek_u32> t1{0};
    vek_u32 tid = vektest::spawn([&] {
        VekDevEvent e;
        vek_s32 r;
        while ((r = vek_dev_watch_next(w, &e, 20000, 0)) == 0) {
        }
        res = r;
        t1 = vek_msec();
        return 0u;
    });
    vek_sleep(100);
    vek_u32 t0 = vek_msec();
    EXPECT_EQ(1, vek_thrd_cancel(tid));
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, res.load());
    EXPECT_LT(t1 - t0, 2000u);
    vek_dev_watch_close(w);
}

#ifdef __linux__
// A real arrival through the kernel: writing "add" to a port's uevent file
// (as "udevadm trigger --action=add" does; root only) makes the kernel send
// the port's uevent again. The watch must take it from the kernel, and
// describe it as the list does.
TEST_F(Dev, ASyntheticArrivalOfARealPortComesWithItsListEntry) {
    std::vector<VekDevInfo> d(64);
    vek_s32 n = vek_dev_list_serial(nullptr, d.data(), 64);
    std::string uevent;
    VekDevInfo port = {};
    for (vek_s32 i = 0; i < n && i < 64 && uevent.empty(); i++) {
        std::string name = std::string(d[i].path).substr(5);
        std::string f = std::string(d[i].kind == VEK_DEV_WWAN ? "/sys/class/wwan/" : "/sys/class/tty/") + name + "/uevent";
        if (geteuid() == 0 && access(f.c_str(), W_OK) == 0) {
            uevent = f, port = d[i];
        }
    }
    VekDevWatch* w = nullptr;
    if (uevent.empty() || vek_dev_watch_open(nullptr, &w) != 0) {
        GTEST_SKIP() << "needs root, a serial port and the kernel's uevents";
    }
    vektest::write_file(uevent, "add");
    VekDevEvent ev = {};
    vek_s32 rc;
    while ((rc = vek_dev_watch_next(w, &ev, 5000, 0)) == 0 && std::string(ev.dev.path) != port.path) {
    }
    vek_dev_watch_close(w);
    if (rc == VEK_ERR_TIMEOUT) {
        GTEST_SKIP() << "the kernel's uevents do not reach this network namespace";
    }
    ASSERT_EQ(0, rc);
    EXPECT_EQ(VEK_DEV_ARRIVED, ev.action);
    EXPECT_NE('\0', ev.syspath[0]);
    EXPECT_EQ(0, std::memcmp(&port, &ev.dev, sizeof port)) << ev.dev.desc;
}
#endif
