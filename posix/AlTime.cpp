/*
 * AlTime.cpp - the time zone on POSIX (the counterpart of win/WinTime.cpp).
 *
 * Windows reports a zone as a standard bias and a daylight bias (minutes,
 * UTC = local + bias) and says whether summer time is in force. Here the C
 * library's zone (TZ or /etc/localtime) gives the same through localtime_r:
 * tm_gmtoff is local - UTC in seconds, tm_isdst tells summer time. The
 * standard offset is the one of an instant with tm_isdst 0 within a year
 * around now, the daylight offset one with tm_isdst > 0.
 */
#include <cerrno>
#include <ctime>
#include "AlPlat.h"

namespace {

bool local_r(time_t t, struct tm* out) {
    if (plat::os_fails(VEK_OS_LOCALTIME)) {
        errno = EOVERFLOW;
        return false;
    }
    return localtime_r(&t, out) != nullptr;
}

} // namespace

namespace plat {

vek_s32 zone_info(vek_s32* bias, vek_s32* daylightBias) {
    tzset();
    time_t now = time(nullptr);
    struct tm tm;
    *bias = 0;
    *daylightBias = 0;
    if (!local_r(now, &tm)) {
        return 0;
    }
    long cur = tm.tm_gmtoff, stdOff = cur, dstOff = cur;
    bool haveStd = tm.tm_isdst == 0, haveDst = tm.tm_isdst > 0;
    // Two-month steps both ways reach the other season of any zone.
    for (int k = 1; k <= 6 && !(haveStd && haveDst); k++) {
        for (int dir = -1; dir <= 1; dir += 2) {
            time_t t = now + (time_t)dir * k * 61 * 86400;
            if (!local_r(t, &tm)) {
                continue;
            }
            if (!haveStd && tm.tm_isdst == 0) {
                haveStd = true;
                stdOff = tm.tm_gmtoff;
            } else if (!haveDst && tm.tm_isdst > 0) {
                haveDst = true;
                dstOff = tm.tm_gmtoff;
            }
        }
    }
    if (!haveStd) {
        stdOff = cur;  // summer time all year round: that is the standard
    }
    *bias = (vek_s32)(-stdOff / 60);
    *daylightBias = haveDst ? (vek_s32)(-(dstOff - stdOff) / 60) : 0;
    return cur != stdOff ? 1 : 0;
}

bool local_tm(time_t t, std::tm* out) {
    return local_r(t, out);
}

} // namespace plat
