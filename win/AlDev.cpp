/*
 * AlDev.cpp (Windows) - the serial devices from the system's serial map
 * (VekDev.h): HKLM\HARDWARE\DEVICEMAP\SERIALCOMM holds one value per
 * port, named by the driver's device ("\Device\Serial0", "\Device\
 * ProlificSerial0") with the port name ("COM3") as its data. Every port a
 * driver announced is there, virtual ones included.
 */
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>
#include "WinHelp.h"
#include "VekDev.h"

extern "C" {

VEK_API vek_s32 vek_dev_list_serial(const char*, VekDevInfo* devs, vek_s32 cap) {
    HKEY key;
    LONG r = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DEVICEMAP\\SERIALCOMM", 0, KEY_QUERY_VALUE, &key);
    if (r == ERROR_FILE_NOT_FOUND) {
        return 0;  // no port was ever announced
    }
    if (r != ERROR_SUCCESS) {
        SetLastError((DWORD)r);
        return VEK_ERR_IO;
    }
    std::vector<VekDevInfo> found;
    for (DWORD i = 0;; i++) {
        wchar_t name[256], data[128];
        DWORD nameLen = 256, dataLen = sizeof data - sizeof(wchar_t), type = 0;
        r = RegEnumValueW(key, i, name, &nameLen, nullptr, &type, (BYTE*)data, &dataLen);
        if (r == ERROR_NO_MORE_ITEMS) {
            break;
        }
        if (r != ERROR_SUCCESS || type != REG_SZ) {
            continue;
        }
        data[dataLen / sizeof(wchar_t)] = 0;
        VekDevInfo d = {};
        d.kind = VEK_DEV_OTHER;
        d.vid = d.pid = d.iface = -1;
        win::to_utf8(data, d.path, sizeof d.path);
        win::to_utf8(name, d.desc, sizeof d.desc);
        // The device's name without its number: "Serial", "ProlificSerial".
        const char* drv = std::strrchr(d.desc, '\\');
        std::snprintf(d.driver, sizeof d.driver, "%s", drv ? drv + 1 : d.desc);
        for (size_t n = std::strlen(d.driver); n > 0 && d.driver[n - 1] >= '0' && d.driver[n - 1] <= '9'; n--) {
            d.driver[n - 1] = 0;
        }
        found.push_back(d);
    }
    RegCloseKey(key);
    // COM2 before COM10: by length, then by text.
    std::sort(found.begin(), found.end(), [](const VekDevInfo& a, const VekDevInfo& b) {
        size_t la = std::strlen(a.path), lb = std::strlen(b.path);
        return la != lb ? la < lb : std::strcmp(a.path, b.path) < 0;
    });
    for (size_t i = 0; i < found.size() && (vek_s32)i < cap; i++) {
        devs[i] = found[i];
    }
    return (vek_s32)found.size();
}

} // extern "C"
