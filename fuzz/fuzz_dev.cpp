/*
 * The kernel uevent reader on any bytes. Whatever it accepts names a node
 * directly below /dev, so a forged message can never point a program at
 * another file; and a message rebuilt from what it read reads the same.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

void check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 8192) {
        return 0;
    }
    VekDevEvent ev;
    vek_s32 rc = vek_dev_uevent_parse(data, (vek_s32)size, &ev);
    check(rc == 0 || rc == 1 || rc == VEK_ERR_BAD_ARG);
    if (rc != 1) {
        return 0;
    }
    check(ev.action == VEK_DEV_ARRIVED || ev.action == VEK_DEV_REMOVED);
    check(std::strncmp(ev.dev.path, "/dev/", 5) == 0 && ev.dev.path[5] && !std::strchr(ev.dev.path + 5, '/'));
    check(ev.dev.kind >= VEK_DEV_USB && ev.dev.kind <= VEK_DEV_WWAN);
    std::string m = std::string(ev.action == VEK_DEV_ARRIVED ? "add" : "remove") + "@" + ev.syspath + '\0';
    m += std::string("ACTION=") + (ev.action == VEK_DEV_ARRIVED ? "add" : "remove") + '\0';
    m += std::string("DEVPATH=") + ev.syspath + '\0';
    m += std::string("SUBSYSTEM=") + (ev.dev.kind == VEK_DEV_WWAN ? "wwan" : "tty") + '\0';
    m += std::string("DEVNAME=") + (ev.dev.path + 5) + '\0';
    VekDevEvent again;
    check(vek_dev_uevent_parse(m.data(), (vek_s32)m.size(), &again) == 1);
    check(std::memcmp(&ev, &again, sizeof ev) == 0);
    return 0;
}
