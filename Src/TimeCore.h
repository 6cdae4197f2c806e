/*
 * TimeCore.h - calendar arithmetic of the time family (internal), shared by
 * the date-time functions and the ISO 8601 codec.
 */
#ifndef VEK_TIMECORE_H
#define VEK_TIMECORE_H

#include "VekTime.h"

namespace vektime {

constexpr vek_s64 kTicksPerSec = 10000000;
constexpr vek_s64 kTicksPerDay = kTicksPerSec * 86400;

/* Broken-down fields of one instant. */
struct Fields {
    vek_s32 year, month, day, hour, minute, second, msec;
};

/* The years the conversions accept. */
inline bool in_range(vek_s32 year) {
    return year >= 1601 && year <= 2093;
}

bool is_leap(vek_s32 year);
vek_s32 month_len(vek_s32 year, vek_s32 month);
bool calendar_date(vek_s32 year, vek_s32 month, vek_s32 day);
vek_s64 day_number(vek_s32 year, vek_s32 month, vek_s32 day);
/* Fields to ticks: year in range, a calendar date, hours, minutes and
 * seconds counted linearly. */
bool ticks_of(const Fields& f, vek_s64* ticks);
/* Ticks to fields; false outside the range. */
bool fields_of(vek_s64 ticks, Fields* f);
/* The strict conversions of system time and file time. */
bool systime_to_ticks(const VekSysTime* st, vek_s64* ticks);
bool ticks_to_systime(vek_s64 ticks, VekSysTime* st);

} // namespace vektime

#endif /* VEK_TIMECORE_H */
