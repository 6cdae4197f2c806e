/*
 * VekTime.h - calendar times, date-times with a zone, durations, time
 * differences ("margins") and ISO 8601 text.
 *
 * All fields are signed 32-bit integers, so every record has the same
 * layout on every platform (VekDt 32 bytes, VekTime and VekDur 28):
 *
 *   VekDt   year month day hour minute second millisecond zone
 *   VekTime year month day hour minute second isdst
 *   VekDur  years months weeks days hours minutes seconds
 *
 * Zones. A VekDt zone is in minutes with the sign of the platform's bias:
 * UTC = local time + zone, so UTC+08:00 is -480. The ISO 8601 codec is the
 * one exception: it stores and prints the ISO sign (east positive, "+08:00"
 * is +480) as it stands, without converting it.
 *
 * Ticks. Differences and moves are computed on the file-time scale: signed
 * 64-bit counts of 100 ns since 1601-01-01 00:00. Only years 1601-2093 are
 * converted; outside them the conversions leave their outputs cleared (a
 * VekTime all zero, a VekDt as VekDt_init leaves it, a margin all zero)
 * rather than fail loudly. A date converts when it is a real calendar date
 * (proleptic Gregorian); hour, minute and second count linearly, so 24:00
 * is 00:00 of the next day.
 *
 * Margins. A time difference held in a time record: years and months 0,
 * whole days in the day field, then hours 0-23, minutes and seconds 0-59.
 * In a VekTime margin the last field is 0; in a VekDt margin the
 * millisecond field is the sign (-1 negative, 0 positive), the zone 0.
 *
 * Platform. The current zone comes from the system: on Windows the
 * time-zone information (GetTimeZoneInformation) and the "ActiveTimeBias"
 * value under HKLM "SYSTEM\CurrentControlSet\Control\TimeZoneInformation";
 * on POSIX localtime_r for the current instant: bias = -tm_gmtoff / 60 of
 * the zone's standard offset (found at an instant of the year with tm_isdst
 * 0), daylight bias = daylight offset - standard offset in the bias sign
 * (-60 for one hour of summer time; 0 in a zone without summer time).
 * Summer time is in force exactly when the current offset differs from the
 * standard one. Both follow the TZ variable as the C library does.
 *
 * Choices of this library where callers might expect otherwise:
 * VekDt_cmp returns negative, 0 or positive; VekDt_toMargin(start, end)
 * measures end - start; VekDt_toMarginx gives that difference in ticks;
 * the date-only form of VekDt_encDate / VekDt_decDate is the tick count of
 * the date's midnight; a cleared VekDt output is the VekDt_init state.
 *
 * System time and file time are the portable records VekSysTime (the
 * 16-byte layout of a Win32 SYSTEMTIME) and VekFileTime (a FILETIME: the
 * 100 ns count since 1601 in two 32-bit halves), converted by portable
 * calendar arithmetic with the same answers on every platform.
 */
#ifndef VEK_TIME_H
#define VEK_TIME_H

#include <time.h>
#include "VekType.h"

VEK_BEGIN_DECLS

/* Sentinel of an absent date part (year) or time part (hour) of a VekDt. */
#define VEK_DT_UNSET ((vek_s32)0x80000000)
/* Zone value of a VekDt whose zone is not known. */
#define VEK_ZONE_UNKNOWN ((vek_s32)0x7FFFFFFF)

/* A date-time with a zone. year VEK_DT_UNSET = no date part, hour
 * VEK_DT_UNSET = no time part. zone is in minutes with the sign of the
 * platform's bias: UTC = local time + zone (UTC+08:00 is -480);
 * VEK_ZONE_UNKNOWN when the zone is not known. Valid zones: -3600..3600. */
typedef struct VekDt {
    vek_s32 year;
    vek_s32 month;        /* 1-12 */
    vek_s32 day;          /* 1-31 */
    vek_s32 hour;         /* 0-24 */
    vek_s32 minute;       /* 0-60 */
    vek_s32 second;       /* 0-60 */
    vek_s32 millisecond;  /* in a margin: the sign, -1 negative, 0 positive */
    vek_s32 zone;
} VekDt;

/* A calendar time; all seven fields zero is the empty time. isdst is the
 * daylight flag of the standard broken-down time (-1 unknown). */
typedef struct VekTime {
    vek_s32 year;   /* four digits */
    vek_s32 month;  /* 1-12 */
    vek_s32 day;    /* 1-31 */
    vek_s32 hour;
    vek_s32 minute;
    vek_s32 second;
    vek_s32 isdst;
} VekTime;

/* The parts of an ISO 8601 duration. */
typedef struct VekDur {
    vek_s32 years;
    vek_s32 months;
    vek_s32 weeks;
    vek_s32 days;
    vek_s32 hours;
    vek_s32 minutes;
    vek_s32 seconds;
} VekDur;

/* Win32 SYSTEMTIME layout; dayOfWeek 0 = Sunday. */
typedef struct VekSysTime {
    vek_u16 year;
    vek_u16 month;
    vek_u16 dayOfWeek;
    vek_u16 day;
    vek_u16 hour;
    vek_u16 minute;
    vek_u16 second;
    vek_u16 milliseconds;
} VekSysTime;

/* Win32 FILETIME layout: 100 ns since 1601-01-01 00:00 UTC. */
typedef struct VekFileTime {
    vek_u32 low;
    vek_u32 high;
} VekFileTime;

/* Units of DateVekTime2MarginExt. */
#define VEK_UNIT_SECOND 1
#define VEK_UNIT_MINUTE 2
#define VEK_UNIT_HOUR   3
#define VEK_UNIT_DAY    4
#define VEK_UNIT_WEEK   5

/* ISO 8601 field mask bits (decoder output, encoder input; encoder mask 0
 * = all fields). */
#define VEK_ISO_YEAR   0x01
#define VEK_ISO_MONTH  0x02
#define VEK_ISO_DAY    0x04
#define VEK_ISO_HOUR   0x08
#define VEK_ISO_MINUTE 0x10
#define VEK_ISO_SECOND 0x20
#define VEK_ISO_FRAC   0x40
#define VEK_ISO_ZONE   0x80

/* ---- zones ---- */
/* hour * 60 + minu when west is non-zero, its negation otherwise (the bias
 * sign). Assertion "hour < 25 && minu < 61". */
VEK_API vek_s32 VekZone_make(vek_s32 hour, vek_s32 minu, vek_s32 west);
/* |zone| / 60 and the remaining minutes of |zone|; -1 for an unknown zone. */
VEK_API vek_s32 VekZone_hour(vek_s32 zone);
VEK_API vek_s32 VekZone_minu(vek_s32 zone);

/* ---- date-times ---- */
/* year and hour VEK_DT_UNSET, month and day 1, minute, second,
 * millisecond and zone 0. */
VEK_API void VekDt_init(VekDt* dt);
VEK_API void VekDt_set(VekDt* dt, vek_s32 year, vek_s32 month, vek_s32 day, vek_s32 hour,
                       vek_s32 minute, vek_s32 second, vek_s32 millisecond, vek_s32 zone);
VEK_API void VekDt_setDate(VekDt* dt, vek_s32 year, vek_s32 month, vek_s32 day);
VEK_API void VekDt_setTime(VekDt* dt, vek_s32 hour, vek_s32 minute, vek_s32 second);
/* Validates: a present date part needs month 1-12 and day 1-31; a present
 * time part hour 0-24, minute 0-60, second 0-60 and a zone that is unknown
 * or within -3600..3600. With checkDays and both parts present, also the
 * month lengths (February 29 in years divisible by 4; there is no century
 * rule). Without errors: non-zero when valid. With errors: *errors is the
 * code of the LAST failing check (2 month, 4 day, 8 hour, 0x10 minute,
 * 0x20 second, 0x80 zone; a month-length failure ORs in 4), and the result
 * is non-zero when it stays 0. */
VEK_API vek_bool VekDt_chkx(const VekDt* dt, vek_s32 checkDays, vek_s32* errors);
VEK_API vek_bool VekDt_chk(const VekDt* dt, vek_s32 checkDays);
/* Orders two date-times: negative when a is earlier, 0 when equal, positive
 * when later. Both are first taken to UTC where they can be (as
 * VekDt_toUtc, milliseconds kept), then compared year, month, day, hour,
 * minute, second, millisecond; an absent part sorts first. */
VEK_API vek_s32 VekDt_cmp(const VekDt* a, const VekDt* b);

/* 1 when summer time is in force now, else 0; the zone's bias and daylight
 * bias (minutes, UTC = local + bias) through the optional pointers. */
VEK_API vek_s32 VekDt_isEst(vek_s32* bias, vek_s32* daylightBias);
/* The current zone: bias + daylight bias in summer time, bias otherwise. */
VEK_API vek_s32 VekDt_getZone(void);
/* The current local time with milliseconds, zone = VekDt_getZone().
 * VekDt_getLoc is the same call. */
VEK_API void VekDt_getLocalTime(VekDt* dt);
VEK_API void VekDt_getLoc(VekDt* dt);
/* t as local time: millisecond 0, zone VekDt_getZone(). Returns 0 when the
 * time cannot be broken down (dt stays as VekDt_init leaves it), else 1. */
VEK_API vek_s32 VekDt_decTimet(VekDt* dt, time_t t);
/* The other way: a known zone is honoured (UTC = fields + zone), an unknown
 * one taken as local time (mktime). Returns 1, or 0 without a date part or
 * when the time does not convert (*t untouched). */
VEK_API vek_s32 VekDt_encTimet(const VekDt* dt, time_t* t);
/* The fields of a system time (day of week skipped), zone -1. */
VEK_API void VekDt_fromSystime(VekDt* dt, const VekSysTime* st);
/* A system time as a UTC record (zone 0), checked as the conversion to file
 * time checks it; returns 1, or 0 with dt as VekDt_init leaves it. */
VEK_API vek_s32 VekDt_decSystime(VekDt* dt, const VekSysTime* st);
/* dt taken to UTC, as a system time with its day of week; returns 1, or 0
 * with *st cleared when dt has no date or does not convert. An absent time
 * part is midnight. */
VEK_API vek_s32 VekDt_encSystime(const VekDt* dt, VekSysTime* st);
/* A file time as a UTC record (zone 0) with milliseconds; returns 1, or 0
 * with dt as VekDt_init leaves it outside 1601-2093. */
VEK_API vek_s32 VekDt_fromFileTime(VekDt* dt, const VekFileTime* ft);
/* The date-only form: the ticks of the date's midnight on the file-time
 * scale (the time part and the zone are not looked at). Returns 1, or 0
 * with *date 0 when dt has no date or does not convert. */
VEK_API vek_s32 VekDt_encDate(const VekDt* dt, vek_s64* date);
/* The date of a date-only form (ticks; a time of day in it is dropped):
 * the date part only, hour VEK_DT_UNSET, zone 0. Returns 1, or 0 with dt
 * as VekDt_init leaves it. */
VEK_API vek_s32 VekDt_decDate(VekDt* dt, vek_s64 date);
/* dt moved to UTC: a zone of 0 copies; otherwise moved by zone minutes,
 * millisecond 0, zone 0. A record with an unknown zone or without a date or
 * time part is copied unchanged. */
VEK_API void VekDt_toUtc(const VekDt* dt, VekDt* utc);
/* dt moved to the current local zone (VekDt_getZone()), labelled with it;
 * an unknown zone or a missing part copies. */
VEK_API void VekDt_toLoc(const VekDt* dt, VekDt* local);
/* The margin end - start (both taken to UTC): sign in the millisecond
 * field. Assertion "__start && __end && margin". Returns 1, or 0 with the
 * margin cleared when a record does not convert. */
VEK_API vek_s32 VekDt_toMargin(const VekDt* start, const VekDt* end, VekDt* margin);
/* end - start (both taken to UTC) in ticks of 100 ns; returns 1, or 0 with
 * *ticks 0 when a record does not convert. */
VEK_API vek_s32 VekDt_toMarginx(const VekDt* start, const VekDt* end, vek_s64* ticks);
/* dt moved by a margin (negative when its sign field is): see
 * VekDt_fromMarginx. */
VEK_API vek_s32 VekDt_fromMargin(const VekDt* dt, VekDt margin, VekDt* out);
/* dt taken to UTC, seconds added, and moved back into dt's zone when that
 * zone is not 0. Returns 1, or 0 with out as VekDt_init leaves it. */
VEK_API vek_s32 VekDt_fromMarginx(const VekDt* dt, vek_s64 seconds, VekDt* out);

/* ---- calendar times ---- */
VEK_API void VekTime_init(VekTime* time);         /* all seven fields 0 */
VEK_API vek_bool VekTime_noo(const VekTime* time); /* 1 when all seven are 0 */
/* Same as VekDt_isEst. */
VEK_API vek_s32 VekTime_isEstivalTime(vek_s32* bias, vek_s32* daylightBias);
/* Move by the current zone (bias, plus the daylight bias in summer time):
 * local = utc - zone, utc = local + zone. The daylight flag is copied (a
 * VekTime has no millisecond field to clear).
 * Outside 1601-2093 the output is cleared. */
VEK_API void VekTime_utcToLocal(const VekTime* utc, VekTime* local);
VEK_API void VekTime_localToUtc(const VekTime* local, VekTime* utc);
/* Hour 24 becomes 0 of the next day. */
VEK_API void VekTime_adjust(VekTime* time);
/* The current local time; the daylight flag is 1 in summer time, else 0. */
VEK_API void VekTime_GetLocalTime(VekTime* time);
/* The fields as local time (mktime); returns 1, or 0 when mktime fails.
 * Assertion on null arguments. */
VEK_API vek_s32 VekTime_toTimet(const VekTime* time, time_t* t);
/* localtime fields, daylight flag -1. */
VEK_API void VekTime_fromTimet(VekTime* time, time_t t);

/* a - b in ticks. Both need a year in 1601-2093, month 0-12 and day 0-31,
 * else 0 (nothing computed); then out-of-range hours (outside 0-24),
 * minutes and seconds (outside 0-60) are set to 0 IN THE CALLER'S RECORDS.
 * A date that is not a calendar date (month or day 0, February 30) also
 * gives 0. */
VEK_API vek_s64 DateTimeCmp(VekTime* a, VekTime* b);
/* Day of the week, 0 = Sunday, for a calendar date after 1600; otherwise
 * *dow is untouched. Returns 1 when *dow was set. */
VEK_API vek_s32 DayInWeek(vek_s32 year, vek_s32 month, vek_s32 day, vek_s32* dow);
/* margin = a - b (through DateTimeCmp, which may change a and b); -602
 * when a < b; 1; 0 for null records. */
VEK_API vek_s32 DateVekTime2Margin(VekTime* a, VekTime* b, VekTime* margin);
/* out = time - margin (days, hours, minutes, seconds; a negative day count
 * moves forward). time needs a year in 1601-2093, month 0-12 and day 0-31,
 * else out stays cleared; its out-of-range hour, minute and second fields
 * are set to 0 first. Returns 1, or 0 when out stays cleared. */
VEK_API vek_s32 DateMargin2VekTime(VekTime* time, VekTime margin, VekTime* out);
/* a - b in the largest unit that divides it exactly (VEK_UNIT_*; a zero
 * difference is 0 weeks) and the number of units. -602 when a < b; 1; 0
 * for null records. */
VEK_API vek_s32 DateVekTime2MarginExt(VekTime* a, VekTime* b, vek_s32* unit, vek_s64* count);

/* ---- durations ---- */
VEK_API void VekDur_init(VekDur* dur); /* clears every field (all 0) */
/* 1 when years, months, days, hours, minutes and seconds are 0: weeks are
 * not looked at. */
VEK_API vek_bool VekDur_noo(const VekDur* dur);
/* 1 when all seven fields are equal, else 0. */
VEK_API vek_bool VekDur_cmp(const VekDur* a, const VekDur* b);

/* ---- ISO 8601 ----
 * Decoders return 1 on success, 0 on failure; the record is set with
 * VekDt_init first and on failure holds what was read before the fault.
 * mask reports the fields met (VEK_ISO_*; the fraction bit comes with the
 * seconds, and the zone bit too when the text ends there, zone unknown),
 * extended 1 when a separator
 * ("-", "/" or ":") was met. The fraction is the digits after "." as a
 * whole number (".5" is 5); the zone is in the ISO sign ("+08:00" is 480,
 * "Z" 0, none VEK_ZONE_UNKNOWN); year 0000 is VEK_DT_UNSET. Output
 * pointers of the f forms may be null. */
VEK_API vek_s32 iso_dt_dec(const char* text, VekDt* dt);
VEK_API vek_s32 iso_dt_decx(const char* text, VekDt* dt, vek_s32* mask, vek_s32* extended);
VEK_API vek_s32 iso_dt_decf(const char* text, vek_s32* year, vek_s32* month, vek_s32* day,
                            vek_s32* hour, vek_s32* minute, vek_s32* second,
                            vek_s32* fraction, vek_s32* zone);
VEK_API vek_s32 iso_dt_decfx(const char* text, vek_s32* year, vek_s32* month, vek_s32* day,
                             vek_s32* hour, vek_s32* minute, vek_s32* second,
                             vek_s32* fraction, vek_s32* zone, vek_s32* mask, vek_s32* extended);
/* Dates only: the parse stops after the day. The f forms copy the fields
 * only on success. */
VEK_API vek_s32 iso_date_dec(const char* text, VekDt* dt);
VEK_API vek_s32 iso_date_decx(const char* text, VekDt* dt, vek_s32* mask, vek_s32* extended);
VEK_API vek_s32 iso_date_decf(const char* text, vek_s32* year, vek_s32* month, vek_s32* day);
VEK_API vek_s32 iso_date_decfx(const char* text, vek_s32* year, vek_s32* month, vek_s32* day,
                               vek_s32* mask, vek_s32* extended);

/* Encoders clear str, write the text and return its length. Fields are
 * written in order while their mask bits are set: year, month, day, then,
 * when the hour is set, hour, minute, second, stopping at the first missing
 * bit; the fraction (bit 0x40) follows only the seconds, the zone (bit
 * 0x80) only a time.
 * Basic (extended 0), when the mask has the year or hour bit and the year
 * or the hour is set: "%04u%02u%02uT%02u%02u%02u" (an unset year prints
 * "0000"), ".%d" only for a fraction >= 0, zone "Z" for 0, nothing when
 * unknown, else "+hhmm" / "-hhmm".
 * Extended (extended 1), when the mask has the year bit and the year is
 * set: "%04u-%02u-%02uT%02u:%02u:%02u", ".%d" whatever its value, zone
 * "Z", nothing, "+hh:mm", or for a negative zone "1hh:mm" (the sign
 * character is '+' + 6, as the format requires).
 * Any other notation value is an assertion failure (str stays empty). */
VEK_API vek_s32 iso_dt_encfx(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day,
                             vek_s32 hour, vek_s32 minute, vek_s32 second, vek_s32 fraction,
                             vek_s32 zone, vek_s32 mask, vek_s32 extended);
VEK_API vek_s32 iso_dt_encf(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day,
                            vek_s32 hour, vek_s32 minute, vek_s32 second, vek_s32 fraction,
                            vek_s32 zone);
VEK_API vek_s32 iso_dt_encx(VekStr* str, const VekDt* dt, vek_s32 mask, vek_s32 extended);
VEK_API vek_s32 iso_dt_enc(VekStr* str, const VekDt* dt);
/* The same with mask 7 (iso_date_encx and iso_date_encfx: mask AND 7). */
VEK_API vek_s32 iso_date_enc(VekStr* str, const VekDt* dt);
VEK_API vek_s32 iso_date_encf(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day);
VEK_API vek_s32 iso_date_encx(VekStr* str, const VekDt* dt, vek_s32 mask, vek_s32 extended);
VEK_API vek_s32 iso_date_encfx(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day,
                               vek_s32 mask, vek_s32 extended);
/* Basic notation, all fields, by zoneMode: VEK_ZONE_UNKNOWN = moved to
 * local time (VekDt_toLoc), no zone, no fraction; 0 = moved to UTC
 * (VekDt_toUtc), "Z"; VEK_DT_UNSET = as stored with its own fraction and
 * zone; any other value = the stored fields with that zone, no fraction. */
VEK_API vek_s32 iso_dt_encx__(VekStr* str, const VekDt* dt, vek_s32 zoneMode);
/* out = dt relabelled with zone: a copy when dt's zone is unknown, else dt
 * moved by (dt's zone - zone) minutes through VekDt_fromMargin. */
VEK_API void iso_dt_cvt(const VekDt* dt, VekDt* out, vek_s32 zone);

/* Durations "PnYnMnWnDTnHnMnS": "P" (either case) is required; each
 * number is unsigned decimal followed by its designator, units in that
 * order (the first M months, an M after the days or T minutes); a number
 * without its designator is dropped. Returns 1, or 0 without "P".
 * iso_dur_dec asserts a text. */
VEK_API vek_s32 iso_dur_dec(const char* text, VekDur* dur);
VEK_API vek_s32 iso_dur_decf(const char* text, vek_s32* years, vek_s32* months, vek_s32* weeks,
                             vek_s32* days, vek_s32* hours, vek_s32* minutes, vek_s32* seconds);
/* "P" then each non-zero part; "T" before the first of hours, minutes,
 * seconds. Assertion "iso && dur". Returns the length. */
VEK_API vek_s32 iso_dur_enc(VekStr* iso, const VekDur* dur);
VEK_API vek_s32 iso_dur_encf(VekStr* str, vek_s32 years, vek_s32 months, vek_s32 weeks,
                             vek_s32 days, vek_s32 hours, vek_s32 minutes, vek_s32 seconds);

VEK_END_DECLS

#endif /* VEK_TIME_H */
