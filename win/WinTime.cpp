/*
 * WinTime.cpp - the time zone on Windows (the counterpart of
 * posix/AlTime.cpp): the system's time-zone information and, for zones with
 * summer time, the bias in force now from the registry.
 */
#include <windows.h>
#include <cstring>
#include <ctime>
#include "AlPlat.h"

namespace plat {

vek_s32 zone_info(vek_s32* bias, vek_s32* daylightBias) {
    TIME_ZONE_INFORMATION tzi;
    *bias = 0;
    *daylightBias = 0;
    if (os_fails(VEK_OS_LOCALTIME) || GetTimeZoneInformation(&tzi) == TIME_ZONE_ID_INVALID) {
        return 0;
    }
    *bias = tzi.Bias;
    *daylightBias = tzi.DaylightBias;
    if (tzi.DaylightBias == 0) {
        return 0;
    }
    // The active bias differs from the standard one exactly in summer time.
    HKEY key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\TimeZoneInformation",
                      0, KEY_READ, &key) != ERROR_SUCCESS) {
        return 0;
    }
    BYTE buf[120] = {};
    DWORD size = sizeof buf;
    RegQueryValueExW(key, L"ActiveTimeBias", nullptr, nullptr, buf, &size);
    RegCloseKey(key);
    LONG active;
    std::memcpy(&active, buf, sizeof active);
    return active != tzi.Bias ? 1 : 0;
}

bool local_tm(time_t t, std::tm* out) {
    return !os_fails(VEK_OS_LOCALTIME) && localtime_s(out, &t) == 0;
}

} // namespace plat
