/*
 * VekTime.cpp - the time family: records, zones, validation, calendar
 * arithmetic on the file-time scale (100 ns ticks since 1601), system and
 * file time, margins. The current zone and the local clock come from the
 * platform layer (AlPlat.h); everything else is computed here, so every
 * platform gives the same answers.
 */
#include <cstdint>
#include <cstring>
#include <ctime>
#include "AlPlat.h"
#include "TimeCore.h"
#include "VekTime.h"
#include "VekVos.h"

static_assert(sizeof(VekDt) == 32 && sizeof(VekTime) == 28 && sizeof(VekDur) == 28,
              "every field is a 32-bit integer");
static_assert(sizeof(VekSysTime) == 16 && sizeof(VekFileTime) == 8, "Win32 layouts");

namespace vektime {

bool is_leap(vek_s32 y) {
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

vek_s32 month_len(vek_s32 y, vek_s32 m) {
    static const vek_s8 kLen[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && is_leap(y) ? 29 : kLen[m - 1];
}

bool calendar_date(vek_s32 y, vek_s32 m, vek_s32 d) {
    return m >= 1 && m <= 12 && d >= 1 && d <= month_len(y, m);
}

// Days between 1601-01-01 and 1970-01-01.
constexpr vek_s64 kDays1601To1970 = 134774;

// Days since 1601-01-01 of a proleptic Gregorian date (valid dates only),
// counting years from March so that February's length ends the year.
vek_s64 day_number(vek_s32 y, vek_s32 m, vek_s32 d) {
    vek_s64 yy = (vek_s64)y - (m <= 2);
    vek_s64 era = (yy >= 0 ? yy : yy - 399) / 400;
    vek_s64 yoe = yy - era * 400;
    vek_s64 doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    vek_s64 doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468 + kDays1601To1970;
}

void civil_of_day(vek_s64 n, vek_s32* y, vek_s32* m, vek_s32* d) {
    n += 719468 - kDays1601To1970;
    vek_s64 era = (n >= 0 ? n : n - 146096) / 146097;
    vek_s64 doe = n - era * 146097;
    vek_s64 yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    vek_s64 doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    vek_s64 mp = (5 * doy + 2) / 153;
    *d = (vek_s32)(doy - (153 * mp + 2) / 5 + 1);
    *m = (vek_s32)(mp < 10 ? mp + 3 : mp - 9);
    *y = (vek_s32)(yoe + era * 400 + (*m <= 2));
}

bool ticks_of(const Fields& f, vek_s64* ticks) {
    if (!in_range(f.year) || !calendar_date(f.year, f.month, f.day)) {
        return false;
    }
    vek_s64 secs = day_number(f.year, f.month, f.day) * 86400 + (vek_s64)f.hour * 3600 +
                   (vek_s64)f.minute * 60 + f.second;
    *ticks = secs * kTicksPerSec + (vek_s64)f.msec * 10000;
    return true;
}

bool fields_of(vek_s64 ticks, Fields* f) {
    if (ticks < 0) {
        return false;
    }
    vek_s64 secs = ticks / kTicksPerSec;
    civil_of_day(secs / 86400, &f->year, &f->month, &f->day);
    if (!in_range(f->year)) {
        return false;
    }
    vek_s32 sod = (vek_s32)(secs % 86400);
    f->hour = sod / 3600;
    f->minute = sod / 60 % 60;
    f->second = sod % 60;
    f->msec = (vek_s32)(ticks % kTicksPerSec / 10000);
    return true;
}

bool systime_to_ticks(const VekSysTime* st, vek_s64* ticks) {
    // The strict checks of the system conversion: no 24:00, no leap second.
    if (st->hour > 23 || st->minute > 59 || st->second > 59 || st->milliseconds > 999) {
        return false;
    }
    Fields f = {st->year, st->month, st->day, st->hour, st->minute, st->second, st->milliseconds};
    return ticks_of(f, ticks);
}

bool ticks_to_systime(vek_s64 ticks, VekSysTime* st) {
    Fields f;
    std::memset(st, 0, sizeof *st);
    if (!fields_of(ticks, &f)) {
        return false;
    }
    st->year = (vek_u16)f.year;
    st->month = (vek_u16)f.month;
    st->dayOfWeek = (vek_u16)((ticks / kTicksPerDay + 1) % 7);  // 1601-01-01 was a Monday
    st->day = (vek_u16)f.day;
    st->hour = (vek_u16)f.hour;
    st->minute = (vek_u16)f.minute;
    st->second = (vek_u16)f.second;
    st->milliseconds = (vek_u16)f.msec;
    return true;
}

} // namespace vektime

using namespace vektime;

namespace {

Fields fields_of_dt(const VekDt* dt) {
    return Fields{dt->year, dt->month, dt->day, dt->hour, dt->minute, dt->second, dt->millisecond};
}

void dt_set_fields(VekDt* dt, const Fields& f, vek_s32 zone) {
    VekDt_set(dt, f.year, f.month, f.day, f.hour, f.minute, f.second, f.msec, zone);
}

bool dt_complete(const VekDt* dt) {
    return dt->year != VEK_DT_UNSET && dt->hour != VEK_DT_UNSET;
}

// A complete record moved by delta ticks, relabelled with zone; false (out
// as VekDt_init leaves it) when it leaves the convertible range.
bool dt_move(const VekDt* dt, vek_s64 delta, vek_s32 zone, VekDt* out) {
    vek_s64 t;
    Fields f;
    if (!ticks_of(fields_of_dt(dt), &t) || !fields_of(t + delta, &f)) {
        VekDt_init(out);
        return false;
    }
    dt_set_fields(out, f, zone);
    return true;
}

bool dt_movable(const VekDt* dt) {
    return dt_complete(dt) && dt->zone != 0 && dt->zone != VEK_ZONE_UNKNOWN;
}

// UTC = local + zone. keepMs keeps the milliseconds (ordering) where the
// public conversion drops them.
bool dt_to_utc(const VekDt* dt, VekDt* utc, bool keepMs) {
    if (!dt_movable(dt)) {
        *utc = *dt;
        return true;
    }
    VekDt src = *dt;
    if (!keepMs) {
        src.millisecond = 0;
    }
    return dt_move(&src, (vek_s64)dt->zone * 60 * kTicksPerSec, 0, utc);
}

// A UTC record moved into zone z: z minutes subtracted, labelled z. A
// record already in z, or with an unknown zone, is copied.
bool dt_utc_to_zone(const VekDt* utc, vek_s32 zone, VekDt* out) {
    if (utc->zone == zone || utc->zone == VEK_ZONE_UNKNOWN || zone == VEK_ZONE_UNKNOWN ||
        !dt_complete(utc)) {
        *out = *utc;
        return true;
    }
    return dt_move(utc, -(vek_s64)zone * 60 * kTicksPerSec, zone, out);
}

bool dt_ticks_utc(const VekDt* dt, vek_s64* ticks) {
    VekDt utc;
    if (!dt_to_utc(dt, &utc, false)) {
        return false;
    }
    Fields f = fields_of_dt(&utc);
    if (f.hour == VEK_DT_UNSET) {
        f.hour = 0;
    }
    return ticks_of(f, ticks);
}

// The ordering key of one part: unset sorts first.
vek_s32 cmp_s32(vek_s32 a, vek_s32 b) {
    return a < b ? -1 : a > b;
}

Fields fields_of_time(const VekTime* t) {
    return Fields{t->year, t->month, t->day, t->hour, t->minute, t->second, 0};
}

void time_set_fields(VekTime* t, const Fields& f, vek_s32 isdst) {
    t->year = f.year;
    t->month = f.month;
    t->day = f.day;
    t->hour = f.hour;
    t->minute = f.minute;
    t->second = f.second;
    t->isdst = isdst;
}

// The checks of the margin functions on a VekTime: the date parts must lie
// in 1601-2093, 0-12 and 0-31; out-of-range time fields are then set to 0
// in the caller's record, as the callers expect.
bool margin_range(VekTime* t) {
    if (!in_range(t->year) || t->month < 0 || t->month > 12 || t->day < 0 || t->day > 31) {
        return false;
    }
    if (t->hour < 0 || t->hour > 24) {
        t->hour = 0;
    }
    if (t->minute < 0 || t->minute > 60) {
        t->minute = 0;
    }
    if (t->second < 0 || t->second > 60) {
        t->second = 0;
    }
    return true;
}

// A VekTime moved by delta ticks; out cleared outside the range.
void time_move(const VekTime* in, vek_s64 delta, VekTime* out) {
    vek_s64 t;
    Fields f;
    vek_s32 isdst = in->isdst;
    VekTime_init(out);
    if (ticks_of(fields_of_time(in), &t) && fields_of(t + delta, &f)) {
        time_set_fields(out, f, isdst);
    }
}

void split_secs(vek_u64 secs, vek_s32* days, vek_s32* hours, vek_s32* minutes, vek_s32* seconds) {
    *days = (vek_s32)(secs / 86400);
    *hours = (vek_s32)(secs / 3600 % 24);
    *minutes = (vek_s32)(secs / 60 % 60);
    *seconds = (vek_s32)(secs % 60);
}

vek_s64 margin_secs(vek_s32 days, vek_s32 hours, vek_s32 minutes, vek_s32 seconds) {
    return (vek_s64)days * 86400 + (vek_s64)hours * 3600 + (vek_s64)minutes * 60 + seconds;
}

vek_s32 current_zone(void) {
    vek_s32 bias = 0, dbias = 0;
    vek_s32 est = plat::zone_info(&bias, &dbias);
    return est ? bias + dbias : bias;
}

} // namespace

extern "C" {

/* ---- zones ---- */

VEK_API vek_s32 VekZone_make(vek_s32 hour, vek_s32 minu, vek_s32 west) {
    VEK_ASSERT(hour < 25 && minu < 61);
    vek_s32 z = hour * 60 + minu;
    return west ? z : -z;
}

VEK_API vek_s32 VekZone_hour(vek_s32 zone) {
    return zone == VEK_ZONE_UNKNOWN ? -1 : (zone < 0 ? -zone : zone) / 60;
}

VEK_API vek_s32 VekZone_minu(vek_s32 zone) {
    return zone == VEK_ZONE_UNKNOWN ? -1 : (zone < 0 ? -zone : zone) % 60;
}

/* ---- date-times ---- */

VEK_API void VekDt_init(VekDt* dt) {
    if (!dt) {
        return;
    }
    dt->year = VEK_DT_UNSET;
    dt->month = 1;
    dt->day = 1;
    dt->hour = VEK_DT_UNSET;
    dt->minute = 0;
    dt->second = 0;
    dt->millisecond = 0;
    dt->zone = 0;
}

VEK_API void VekDt_set(VekDt* dt, vek_s32 year, vek_s32 month, vek_s32 day, vek_s32 hour,
                       vek_s32 minute, vek_s32 second, vek_s32 millisecond, vek_s32 zone) {
    VekDt_setDate(dt, year, month, day);
    VekDt_setTime(dt, hour, minute, second);
    dt->millisecond = millisecond;
    dt->zone = zone;
}

VEK_API void VekDt_setDate(VekDt* dt, vek_s32 year, vek_s32 month, vek_s32 day) {
    dt->year = year;
    dt->month = month;
    dt->day = day;
}

VEK_API void VekDt_setTime(VekDt* dt, vek_s32 hour, vek_s32 minute, vek_s32 second) {
    dt->hour = hour;
    dt->minute = minute;
    dt->second = second;
}

VEK_API vek_bool VekDt_chkx(const VekDt* dt, vek_s32 checkDays, vek_s32* errors) {
    vek_s32 err = 0;
    bool hasDate = dt->year != VEK_DT_UNSET, hasTime = dt->hour != VEK_DT_UNSET;
    // Each failing check replaces the code: the caller learns the last one.
    if (hasDate) {
        if (dt->month < 1 || dt->month > 12) {
            err = 0x02;
        }
        if (dt->day < 1 || dt->day > 31) {
            err = 0x04;
        }
    }
    if (hasTime) {
        if (dt->hour < 0 || dt->hour > 24) {
            err = 0x08;
        }
        if (dt->minute < 0 || dt->minute > 60) {
            err = 0x10;
        }
        if (dt->second < 0 || dt->second > 60) {
            err = 0x20;
        }
        if (dt->zone != VEK_ZONE_UNKNOWN && (dt->zone < -3600 || dt->zone > 3600)) {
            err = 0x80;
        }
    }
    if (checkDays && hasDate && hasTime) {
        vek_s32 m = dt->month, d = dt->day;
        // Every fourth year is a leap year here; the century rule is left out.
        if ((d == 31 && (m == 4 || m == 6 || m == 9 || m == 11)) || (m == 2 && d > 29) ||
            (m == 2 && d == 29 && dt->year % 4 != 0)) {
            err |= 0x04;
        }
    }
    if (errors) {
        *errors = err;
    }
    return err == 0;
}

VEK_API vek_bool VekDt_chk(const VekDt* dt, vek_s32 checkDays) {
    return VekDt_chkx(dt, checkDays, nullptr);
}

VEK_API vek_s32 VekDt_cmp(const VekDt* a, const VekDt* b) {
    VekDt ua, ub;
    dt_to_utc(a, &ua, true);
    dt_to_utc(b, &ub, true);
    const vek_s32* pa = &ua.year;
    const vek_s32* pb = &ub.year;
    for (int i = 0; i < 7; i++) {
        if (vek_s32 c = cmp_s32(pa[i], pb[i])) {
            return c;
        }
    }
    return 0;
}

VEK_API vek_s32 VekDt_isEst(vek_s32* bias, vek_s32* daylightBias) {
    vek_s32 b = 0, d = 0;
    vek_s32 est = plat::zone_info(&b, &d);
    if (bias) {
        *bias = b;
    }
    if (daylightBias) {
        *daylightBias = d;
    }
    return est;
}

VEK_API vek_s32 VekDt_getZone(void) {
    return current_zone();
}

VEK_API void VekDt_getLocalTime(VekDt* dt) {
    plat::LocalTime lt;
    plat::local_time(&lt);
    VekDt_set(dt, lt.year, lt.month, lt.day, lt.hour, lt.minute, lt.second, lt.msec,
              current_zone());
}

VEK_API void VekDt_getLoc(VekDt* dt) {
    VekDt_getLocalTime(dt);
}

VEK_API vek_s32 VekDt_decTimet(VekDt* dt, time_t t) {
    std::tm tm;
    VekDt_init(dt);
    if (plat::local_tm(t, &tm)) {
        VekDt_set(dt, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                  tm.tm_sec, 0, current_zone());
    }
    return dt->year == VEK_DT_UNSET && dt->hour == VEK_DT_UNSET ? 0 : 1;
}

VEK_API vek_s32 VekDt_encTimet(const VekDt* dt, time_t* t) {
    if (dt->year == VEK_DT_UNSET) {
        return 0;
    }
    vek_s32 hour = dt->hour == VEK_DT_UNSET ? 0 : dt->hour;
    if (dt->zone == VEK_ZONE_UNKNOWN) {
        std::tm tm = {};
        tm.tm_year = dt->year - 1900;
        tm.tm_mon = dt->month - 1;
        tm.tm_mday = dt->day;
        tm.tm_hour = hour;
        tm.tm_min = dt->minute;
        tm.tm_sec = dt->second;
        tm.tm_isdst = -1;
        time_t r = std::mktime(&tm);
        if (r == (time_t)-1) {
            return 0;
        }
        *t = r;
        return 1;
    }
    if (!calendar_date(dt->year, dt->month, dt->day)) {
        return 0;
    }
    // Seconds since 1970 of the fields, then UTC = local + zone.
    vek_s64 secs = (day_number(dt->year, dt->month, dt->day) - day_number(1970, 1, 1)) * 86400 +
                   (vek_s64)hour * 3600 + (vek_s64)dt->minute * 60 + dt->second +
                   (vek_s64)dt->zone * 60;
    if ((vek_s64)(time_t)secs != secs) {
        return 0;
    }
    *t = (time_t)secs;
    return 1;
}

VEK_API void VekDt_fromSystime(VekDt* dt, const VekSysTime* st) {
    VekDt_set(dt, st->year, st->month, st->day, st->hour, st->minute, st->second,
              st->milliseconds, -1);
}

VEK_API vek_s32 VekDt_decSystime(VekDt* dt, const VekSysTime* st) {
    vek_s64 t;
    if (!systime_to_ticks(st, &t)) {
        VekDt_init(dt);
        return 0;
    }
    VekDt_fromSystime(dt, st);
    dt->zone = 0;
    return 1;
}

VEK_API vek_s32 VekDt_encSystime(const VekDt* dt, VekSysTime* st) {
    vek_s64 t;
    if (dt->year == VEK_DT_UNSET || !dt_ticks_utc(dt, &t)) {
        std::memset(st, 0, sizeof *st);
        return 0;
    }
    return ticks_to_systime(t, st) ? 1 : 0;
}

VEK_API vek_s32 VekDt_fromFileTime(VekDt* dt, const VekFileTime* ft) {
    Fields f;
    vek_u64 t = ((vek_u64)ft->high << 32) | ft->low;
    if (t > (vek_u64)INT64_MAX || !fields_of((vek_s64)t, &f)) {
        VekDt_init(dt);
        return 0;
    }
    dt_set_fields(dt, f, 0);
    return 1;
}

VEK_API vek_s32 VekDt_encDate(const VekDt* dt, vek_s64* date) {
    Fields f = {dt->year, dt->month, dt->day, 0, 0, 0, 0};
    *date = 0;
    return dt->year != VEK_DT_UNSET && ticks_of(f, date) ? 1 : 0;
}

VEK_API vek_s32 VekDt_decDate(VekDt* dt, vek_s64 date) {
    Fields f;
    VekDt_init(dt);
    if (!fields_of(date, &f)) {
        return 0;
    }
    VekDt_setDate(dt, f.year, f.month, f.day);
    return 1;
}

VEK_API void VekDt_toUtc(const VekDt* dt, VekDt* utc) {
    dt_to_utc(dt, utc, false);
}

VEK_API void VekDt_toLoc(const VekDt* dt, VekDt* local) {
    VekDt utc;
    if (dt_to_utc(dt, &utc, false)) {
        dt_utc_to_zone(&utc, current_zone(), local);
    } else {
        *local = utc;
    }
}

VEK_API vek_s32 VekDt_toMarginx(const VekDt* start, const VekDt* end, vek_s64* ticks) {
    vek_s64 a, b;
    *ticks = 0;
    if (!dt_ticks_utc(start, &a) || !dt_ticks_utc(end, &b)) {
        return 0;
    }
    *ticks = b - a;
    return 1;
}

VEK_API vek_s32 VekDt_toMargin(const VekDt* start, const VekDt* end, VekDt* margin) {
    if (!start || !end || !margin) {
        vek_assert__("__start && __end && margin", __FILE__, __LINE__);
        return 0;
    }
    vek_s64 diff;
    std::memset(margin, 0, sizeof *margin);
    if (!VekDt_toMarginx(start, end, &diff)) {
        return 0;
    }
    vek_u64 mag = diff < 0 ? (vek_u64)-diff : (vek_u64)diff;
    split_secs(mag / kTicksPerSec, &margin->day, &margin->hour, &margin->minute, &margin->second);
    margin->millisecond = diff < 0 ? -1 : 0;
    return 1;
}

VEK_API vek_s32 VekDt_fromMarginx(const VekDt* dt, vek_s64 seconds, VekDt* out) {
    VekDt utc, moved;
    if (!dt_complete(dt)) {
        VekDt_init(out);
        return 0;
    }
    if (!dt_to_utc(dt, &utc, false) || !dt_move(&utc, seconds * kTicksPerSec, utc.zone, &moved)) {
        VekDt_init(out);
        return 0;
    }
    if (dt->zone == 0) {
        *out = moved;
        return 1;
    }
    return dt_utc_to_zone(&moved, dt->zone, out) ? 1 : 0;
}

VEK_API vek_s32 VekDt_fromMargin(const VekDt* dt, VekDt margin, VekDt* out) {
    vek_s64 secs = margin_secs(margin.day, margin.hour, margin.minute, margin.second);
    return VekDt_fromMarginx(dt, margin.millisecond < 0 ? -secs : secs, out);
}

/* ---- calendar times ---- */

VEK_API void VekTime_init(VekTime* time) {
    std::memset(time, 0, sizeof *time);
}

VEK_API vek_bool VekTime_noo(const VekTime* time) {
    return !time->year && !time->month && !time->day && !time->hour && !time->minute &&
           !time->second && !time->isdst;
}

VEK_API vek_s32 VekTime_isEstivalTime(vek_s32* bias, vek_s32* daylightBias) {
    return VekDt_isEst(bias, daylightBias);
}

VEK_API void VekTime_utcToLocal(const VekTime* utc, VekTime* local) {
    time_move(utc, -(vek_s64)current_zone() * 60 * kTicksPerSec, local);
}

VEK_API void VekTime_localToUtc(const VekTime* local, VekTime* utc) {
    time_move(local, (vek_s64)current_zone() * 60 * kTicksPerSec, utc);
}

VEK_API void VekTime_adjust(VekTime* time) {
    if (time->hour != 24) {
        return;
    }
    time->hour = 0;
    if (time->month < 1 || time->month > 12) {
        return;
    }
    if (++time->day > month_len(time->year, time->month)) {
        time->day = 1;
        if (++time->month > 12) {
            time->month = 1;
            time->year++;
        }
    }
}

VEK_API void VekTime_GetLocalTime(VekTime* time) {
    plat::LocalTime lt;
    plat::local_time(&lt);
    Fields f = {lt.year, lt.month, lt.day, lt.hour, lt.minute, lt.second, 0};
    time_set_fields(time, f, VekDt_isEst(nullptr, nullptr));
}

VEK_API vek_s32 VekTime_toTimet(const VekTime* time, time_t* t) {
    if (!time || !t) {
        VEK_ASSERT(time && t);
        return 0;
    }
    std::tm tm = {};
    tm.tm_year = time->year - 1900;
    tm.tm_mon = time->month - 1;
    tm.tm_mday = time->day;
    tm.tm_hour = time->hour;
    tm.tm_min = time->minute;
    tm.tm_sec = time->second;
    tm.tm_isdst = time->isdst;
    time_t r = std::mktime(&tm);
    if (r == (time_t)-1) {
        return 0;
    }
    *t = r;
    return 1;
}

VEK_API void VekTime_fromTimet(VekTime* time, time_t t) {
    std::tm tm;
    VekTime_init(time);
    if (plat::local_tm(t, &tm)) {
        Fields f = {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, 0};
        time_set_fields(time, f, -1);
    }
}

VEK_API vek_s64 DateTimeCmp(VekTime* a, VekTime* b) {
    vek_s64 ta, tb;
    if (!a || !b || !margin_range(a) || !margin_range(b)) {
        return 0;
    }
    if (!ticks_of(fields_of_time(a), &ta) || !ticks_of(fields_of_time(b), &tb)) {
        return 0;
    }
    return ta - tb;
}

VEK_API vek_s32 DayInWeek(vek_s32 year, vek_s32 month, vek_s32 day, vek_s32* dow) {
    if (year <= 1600 || !calendar_date(year, month, day)) {
        return 0;
    }
    *dow = (vek_s32)((day_number(year, month, day) + 1) % 7);
    return 1;
}

VEK_API vek_s32 DateVekTime2Margin(VekTime* a, VekTime* b, VekTime* margin) {
    if (margin) {
        VekTime_init(margin);
    }
    if (!a || !b || !margin) {
        return 0;
    }
    vek_s64 diff = DateTimeCmp(a, b);
    if (diff < 0) {
        return VEK_ERR_NEG_TIME_DIFF;
    }
    split_secs((vek_u64)diff / kTicksPerSec, &margin->day, &margin->hour, &margin->minute,
               &margin->second);
    return 1;
}

VEK_API vek_s32 DateMargin2VekTime(VekTime* time, VekTime margin, VekTime* out) {
    VekTime_init(out);
    if (!time || !margin_range(time)) {
        return 0;
    }
    vek_s64 secs = margin_secs(margin.day, margin.hour, margin.minute, margin.second);
    time_move(time, -secs * kTicksPerSec, out);
    return VekTime_noo(out) ? 0 : 1;
}

VEK_API vek_s32 DateVekTime2MarginExt(VekTime* a, VekTime* b, vek_s32* unit, vek_s64* count) {
    static const vek_s64 kUnits[] = {604800, 86400, 3600, 60, 1};
    if (!a || !b) {
        return 0;
    }
    vek_s64 diff = DateTimeCmp(a, b);
    if (diff < 0) {
        return VEK_ERR_NEG_TIME_DIFF;
    }
    vek_s64 secs = diff / kTicksPerSec;
    for (int i = 0; i < 5; i++) {
        if (secs % kUnits[i] == 0) {
            if (unit) {
                *unit = VEK_UNIT_WEEK - i;
            }
            if (count) {
                *count = secs / kUnits[i];
            }
            break;
        }
    }
    return 1;
}

/* ---- durations ---- */

VEK_API void VekDur_init(VekDur* dur) {
    std::memset(dur, 0, sizeof *dur);
}

VEK_API vek_bool VekDur_noo(const VekDur* dur) {
    // Weeks are not looked at: a duration of whole weeks alone is empty.
    return !dur->years && !dur->months && !dur->days && !dur->hours && !dur->minutes &&
           !dur->seconds;
}

VEK_API vek_bool VekDur_cmp(const VekDur* a, const VekDur* b) {
    return std::memcmp(a, b, sizeof *a) == 0;
}

} // extern "C"
