/*
 * Serial device discovery over a copy of a sysfs tree: a USB modem with an
 * ACM interface and a usb-serial interface, on-board 8250 ports with and
 * without a UART, a console, and a PCIe modem's wwan ports. The faults it
 * catches: ids read from the interface instead of the device, ports with
 * no hardware listed, virtual terminals listed, a wrong interface number.
 */
#include <string>
#include <vector>
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

} // namespace

TEST_F(Dev, AFakeSysfsTreeListsTheRealPortsWithTheirUsbDevice) {
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
    EXPECT_EQ(VEK_ERR_IO, vek_dev_list_serial((r + "/missing").c_str(), d.data(), 8));
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
