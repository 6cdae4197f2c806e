/*
 * What Linux tells the disc monitor, damaged: mountinfo text and kernel
 * device announcements. The first byte picks the parser. A mount that is
 * parsed, written back as a line of its own (its fields escaped as the
 * kernel escapes them) and parsed again must come back the same; an
 * announcement that is accepted has an action.
 */
#include <cstdint>
#include <string>
#include "MonPlat.h"

namespace {

std::string escape(const vek::VString& s) {
    std::string out;
    for (char c : s) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
            char buf[5] = {'\\', (char)('0' + ((unsigned char)c >> 6)), (char)('0' + (((unsigned char)c >> 3) & 7)),
                           (char)('0' + ((unsigned char)c & 7)), 0};
            out += buf;
        } else {
            out += c;
        }
    }
    return out;
}

void check_mounts(const char* text, size_t len) {
    vek::MountList list;
    vek::mountinfo_parse(text, len, list);
    for (const auto& m : list) {
        if (m.mountPoint.empty() || m.fsType.empty() || m.source.empty()) {
            __builtin_trap();  // a field that came out empty was not there
        }
        std::string line = std::to_string(m.id) + " 1 0:1 / " + escape(m.mountPoint) + " rw - " + escape(m.fsType) +
                           " " + escape(m.source) + " rw\n";
        vek::MountList again;
        vek::mountinfo_parse(line.data(), line.size(), again);
        if (again.size() != 1 || again[0].id != m.id || again[0].mountPoint != m.mountPoint ||
            again[0].fsType != m.fsType || again[0].source != m.source) {
            __builtin_trap();
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const char* text = (const char*)data + 1;
    size_t len = size - 1;
    try {
        if (data[0] & 1) {
            vek::UEvent u;
            if (vek::uevent_parse(text, len, u) && u.action.empty()) {
                __builtin_trap();
            }
        } else {
            check_mounts(text, len);
        }
    } catch (const std::bad_alloc&) {
    }
    return 0;
}
