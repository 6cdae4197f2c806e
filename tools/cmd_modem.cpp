/*
 * vektool modem: the serial devices a modem or phone may sit behind.
 */
#include <cstring>
#include <string>
#include <vector>
#include "AtSmsTool.h"

namespace {

int modem_list(const vektool::Args& a) {
    bool json = a.flag("--json");
    std::vector<VekDevInfo> devs(16);
    vek_s32 n;
    while ((n = vek_dev_list_serial(nullptr, devs.data(), (vek_s32)devs.size())) > (vek_s32)devs.size()) {
        devs.resize((size_t)n);
    }
    if (n < 0) {
        return vektool::fail("modem list", "serial devices", vektool::os_reason());
    }
    std::string out = json ? "[" : "";
    for (vek_s32 i = 0; i < n; i++) {
        const VekDevInfo& d = devs[(size_t)i];
        char ids[16] = "-";
        if (d.vid >= 0) {
            std::snprintf(ids, sizeof ids, "%04x:%04x", (unsigned)d.vid, (unsigned)d.pid);
        }
        if (json) {
            char nums[96];
            std::snprintf(nums, sizeof nums, "\"vid\":%d,\"pid\":%d,\"interface\":%d", (int)d.vid, (int)d.pid,
                          (int)d.iface);
            out += std::string(i ? "," : "") + "\n  {\"path\":" + atsms::json_text(d.path) + "," + nums +
                   ",\"serial\":" + atsms::json_text(d.serial) + ",\"driver\":" + atsms::json_text(d.driver) +
                   ",\"description\":" + atsms::json_text(d.desc) + "}";
        } else {
            out += std::string(d.path) + "\t" + ids + "\t" + d.desc + "\n";
        }
    }
    if (json) {
        out += n > 0 ? "\n]\n" : "]\n";
    }
    vektool::write_out(out.data(), out.size());
    return n > 0 ? vektool::kDone : vektool::kNotFound;
}

const vektool::Option kListOptions[] = {
    {"--json", nullptr, nullptr, "an array of objects: path, vid, pid, interface, serial, driver, description"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::Option kAtOptions[] = {
    ATSMS_PORT_OPTIONS,
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::SubCommand kSubs[] = {
    {"list", "modem list [--json]",
     "the serial devices: path, USB vid:pid and description (exit 1 when there are none)", modem_list, 0, 0,
     kListOptions, nullptr},
    {"at", "modem at [--baud N] [--timeout MS] PORT COMMAND...",
     "send each AT command in turn; print each reply's lines but the final OK", atsms::modem_at, 2, -1, kAtOptions,
     "PORT is a device path (/dev/ttyUSB0, COM3) or tcp:HOST:PORT.\n"
     "Exit 0 when every command ended in OK; 1 when one ended in ERROR, +CME ERROR or +CMS ERROR\n"
     "(that line on stderr; the other commands still run); 2 on a time-out, a port or a usage error.\n"
     "URCs that arrive meanwhile are not printed."},
};

} // namespace

static const vektool::Command kModem = {"modem", "modem list|at ...", "serial devices of modems and phones", kSubs,
                                        sizeof kSubs / sizeof *kSubs};
VEKTOOL_COMMAND(kModem);
