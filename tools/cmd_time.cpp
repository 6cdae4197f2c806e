/*
 * vektool time: the clock, the zone, ISO 8601 date-times and durations,
 * and differences.
 */
#include <cstdio>
#include <cstring>
#include <string>
#include "VekTool.h"

namespace {

// The one TEXT argument, or the first line of standard input for "-".
// Returns -2 when it is there, else the exit code.
int text_arg(int argc, char** argv, std::string& out) {
    if (argc != 1) {
        return vektool::kUsage;
    }
    if (std::strcmp(argv[0], "-") != 0) {
        out = argv[0];
        return -2;
    }
    if (!vektool::read_input("time", "-", out)) {
        return vektool::kFailed;
    }
    out = out.substr(0, out.find_first_of("\r\n"));
    return -2;
}

void print_str(VekStr* s) {
    std::printf("%s\n", VekStr_buf(s));
}

int time_now(int argc, char** argv) {
    bool utc = argc == 1 && std::strcmp(argv[0], "--utc") == 0;
    if (argc > 1 || (argc == 1 && !utc)) {
        return vektool::kUsage;
    }
    VekDt dt;
    VekDt_getLocalTime(&dt);
    if (utc) {
        VekDt_toUtc(&dt, &dt);
    }
    // Extended text to the second; the zone is written here in plain ISO
    // form (the record holds the bias sign, ISO text the opposite one),
    // since the encoder reaches the zone only behind the fraction.
    VekStr s;
    VekStr_new(&s);
    iso_dt_encx(&s, &dt, 0x3F, 1);
    vek_s32 east = -dt.zone;
    if (east == 0) {
        VekStr_appdChar(&s, 'Z');
    } else {
        char zone[16];
        vek_s32 mag = east < 0 ? -east : east;
        std::snprintf(zone, sizeof zone, "%c%02d:%02d", east < 0 ? '-' : '+', (int)(mag / 60),
                      (int)(mag % 60));
        VekStr_appdStr(&s, zone);
    }
    print_str(&s);
    VekStr_delete(&s);
    return 0;
}

int time_parse(int argc, char** argv) {
    std::string text;
    if (int rc = text_arg(argc, argv, text); rc != -2) {
        return rc;
    }
    VekDt dt;
    vek_s32 mask, ext;
    if (!iso_dt_decx(text.c_str(), &dt, &mask, &ext)) {
        std::fprintf(stderr, "vektool time parse: not an ISO 8601 date-time: %s\n", text.c_str());
        return vektool::kNotFound;
    }
    const char* names[] = {"year", "month", "day", "hour", "minute", "second", "fraction"};
    const vek_s32* f = &dt.year;
    for (int i = 0; i < 7; i++) {
        if (f[i] == VEK_DT_UNSET) {
            std::printf("%s: unset\n", names[i]);
        } else {
            std::printf("%s: %d\n", names[i], (int)f[i]);
        }
    }
    if (dt.zone == VEK_ZONE_UNKNOWN) {
        std::printf("zone: unknown\n");
    } else {
        std::printf("zone: %d minutes\n", (int)dt.zone);
    }
    std::printf("mask: 0x%02X\nnotation: %s\n", (unsigned)mask, ext ? "extended" : "basic");
    return 0;
}

int time_dur(int argc, char** argv) {
    std::string text;
    if (int rc = text_arg(argc, argv, text); rc != -2) {
        return rc;
    }
    VekDur d;
    if (!iso_dur_dec(text.c_str(), &d)) {
        std::fprintf(stderr, "vektool time dur: not an ISO 8601 duration: %s\n", text.c_str());
        return vektool::kNotFound;
    }
    std::printf("years: %d\nmonths: %d\nweeks: %d\ndays: %d\nhours: %d\nminutes: %d\nseconds: %d\n",
                (int)d.years, (int)d.months, (int)d.weeks, (int)d.days, (int)d.hours, (int)d.minutes,
                (int)d.seconds);
    return 0;
}

// An ISO text as a UTC record; the ISO zone sign is turned to the bias sign.
bool utc_arg(const char* arg, VekDt* utc) {
    VekDt dt;
    if (!iso_dt_dec(arg, &dt) || dt.year == VEK_DT_UNSET) {
        std::fprintf(stderr, "vektool time diff: not an ISO 8601 date-time: %s\n", arg);
        return false;
    }
    if (dt.hour == VEK_DT_UNSET) {
        dt.hour = 0;
    }
    if (dt.zone != VEK_ZONE_UNKNOWN) {
        dt.zone = -dt.zone;
    }
    VekDt_toUtc(&dt, utc);
    return true;
}

int time_diff(int argc, char** argv) {
    if (argc != 2) {
        return vektool::kUsage;
    }
    VekDt a, b, m;
    if (!utc_arg(argv[0], &a) || !utc_arg(argv[1], &b)) {
        return vektool::kFailed;
    }
    if (!VekDt_toMargin(&a, &b, &m)) {
        std::fprintf(stderr, "vektool time diff: outside the years 1601-2093\n");
        return vektool::kFailed;
    }
    std::printf("margin: %s%d days %02d:%02d:%02d\n", m.millisecond < 0 ? "-" : "", (int)m.day, (int)m.hour,
                (int)m.minute, (int)m.second);
    VekTime hi = {a.year, a.month, a.day, a.hour, a.minute, a.second, 0};
    VekTime lo = {b.year, b.month, b.day, b.hour, b.minute, b.second, 0};
    if (m.millisecond >= 0) {
        std::swap(hi, lo);
    }
    static const char* const kUnits[] = {"", "seconds", "minutes", "hours", "days", "weeks"};
    vek_s32 unit = 0;
    vek_s64 count = 0;
    if (DateVekTime2MarginExt(&hi, &lo, &unit, &count) == 1 && unit >= 1 && unit <= 5) {
        std::printf("unit: %s\ncount: %lld\n", kUnits[unit], (long long)count);
    }
    return 0;
}

int time_zone(int argc, char**) {
    if (argc != 0) {
        return vektool::kUsage;
    }
    vek_s32 bias, dbias, est = VekDt_isEst(&bias, &dbias);
    std::printf("bias: %d\ndaylight bias: %d\nsummer time: %s\nzone: %d\n", (int)bias, (int)dbias,
                est ? "yes" : "no", (int)VekDt_getZone());
    return 0;
}

const vektool::SubCommand kSubs[] = {
    {"now", "time now [--utc]", "the current time, ISO 8601 extended", time_now},
    {"parse", "time parse TEXT", "the fields, mask, notation and zone of an ISO 8601 date-time", time_parse},
    {"dur", "time dur TEXT", "the seven fields of an ISO 8601 duration", time_dur},
    {"diff", "time diff A B", "B - A as a margin and in its largest exact unit", time_diff},
    {"zone", "time zone", "bias, daylight bias and summer time now", time_zone},
};

} // namespace

static const vektool::Command kTime = {"time", "time <now|parse|dur|diff|zone> ...",
                                       "clock, zone, ISO 8601 date-times and durations",
                                       nullptr, kSubs, sizeof kSubs / sizeof *kSubs};
VEKTOOL_COMMAND(kTime);
