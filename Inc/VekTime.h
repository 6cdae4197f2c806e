/*
 * VekTime.h - calendar times, date-times with a zone, durations, time
 * differences ("margins") and ISO 8601 text.
 *
 * All fields are signed 32-bit integers, so every record has the same
 * layout on every platform (VekDt 32 bytes, VekTime and VekDur 28).
 *
 *   VekDt   year month day hour minute second millisecond zone
 *   VekTime year month day hour minute second isdst
 *   VekDur  years months weeks days hours minutes seconds
 */
#ifndef VEK_TIME_H
#define VEK_TIME_H

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

/* year and hour VEK_DT_UNSET, month and day 1, minute, second,
 * millisecond and zone 0. */
VEK_API void VekDt_init(VekDt* dt);

VEK_END_DECLS

#endif /* VEK_TIME_H */
