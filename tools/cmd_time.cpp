/*
 * vektool time: the clock, the zone, ISO 8601 date-times and durations,
 * and differences.
 *
 * The library's ISO decoders are lenient by design: they stop where the
 * text stops making sense and report what they read by then, and they do
 * not check ranges. A user who types a date wants to hear when it is not
 * one, so every text is first checked here against the ISO 8601 forms
 * (calendar dates, times, zones, durations) and refused with the reason
 * when it is not one of them; only then does the library read it.
 */
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include "VekTool.h"

using vektool::Args;
using vektool::kDone;
using vektool::kFailed;

namespace {

// The longest text read from standard input.
constexpr std::size_t kTextMax = 4096;

/* The argument, or the first line of standard input for "-". */
bool text_arg(const Args& a, std::size_t i, std::string& out) {
    if (std::strcmp(a[i], "-") != 0) {
        out = a[i];
        return true;
    }
    return vektool::read_line(a.cmd, "-", out, kTextMax);
}

int bad_text(const Args& a, const std::string& text, const std::string& why) {
    std::fprintf(stderr, "vektool %s: \"%s\": %s\n", a.cmd, text.c_str(), why.c_str());
    return kFailed;
}

inline bool digit(char c) {
    return c >= '0' && c <= '9';
}

// "TEXT" in quotes, then why: (GCC 12 misreads "..." + std::string&& as an
// overlapping copy in optimised builds.)
std::string quoted(const std::string& text, const char* why) {
    std::string r = "\"";
    r += text;
    r += "\" ";
    r += why;
    return r;
}

int days_in_month(long year, int month) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDays[month - 1];
}

/* What the check of a date-time text found. */
struct IsoText {
    int dateParts = 0;     // 1 year, 2 year and month, 3 the whole date
    int timeParts = 0;     // 0 none, 1 hour, 2 minute, 3 second
    bool zone = false;
    std::string fraction;  // the digits after the decimal sign
    std::string forLib;    // the text with "," as "." (the decoder knows only ".")
};

/*
 * Checks an ISO 8601 calendar date or date-time: YYYY, YYYY-MM,
 * YYYY-MM-DD or YYYYMMDD, then "T" and hh, hh:mm, hh:mm:ss or hhmm, hhmmss
 * (a fraction after the seconds), then "Z", +hh, +hh:mm or +hhmm; one
 * notation throughout; every field in its range (24:00:00 as the end of a
 * day, second 60 as a leap second). Returns why not, or "" when it is.
 */
std::string check_iso(const std::string& s, IsoText& t) {
    std::size_t i = 0, n = s.size();
    int notation = 0;  // 1 basic, 2 extended
    auto run = [&](std::size_t at) {
        std::size_t k = at;
        while (k < n && digit(s[k])) {
            k++;
        }
        return k - at;
    };
    auto num = [&](std::size_t at, std::size_t len) {
        long v = 0;
        for (std::size_t k = 0; k < len; k++) {
            v = v * 10 + (s[at + k] - '0');
        }
        return v;
    };
    auto notate = [&](int kind) {
        if (notation && notation != kind) {
            return false;
        }
        notation = kind;
        return true;
    };
    auto stray = [&]() { return quoted(s.substr(i), "is not part of an ISO 8601 date-time"); };
    const char* mixed = "mixes the basic and the extended notation";
    t.forLib = s;
    std::size_t comma = s.find(',');
    if (comma != std::string::npos) {
        t.forLib[comma] = '.';
    }

    bool negative = i < n && s[i] == '-';
    i += negative;
    std::size_t d = run(i);
    long year = 0, month = 1, day = 1;
    if (d == 4) {
        year = num(i, 4);
        i += 4;
        t.dateParts = 1;
        if (i < n && (s[i] == 'W' || s[i] == 'w' || (s[i] == '-' && i + 1 < n && (s[i + 1] == 'W' || s[i + 1] == 'w')))) {
            return "week dates (YYYY-Www-D) are not read; give the calendar date";
        }
        if (i < n && s[i] == '-') {
            notate(2);
            i++;
            d = run(i);
            if (d == 3) {
                return "ordinal dates (YYYY-DDD) are not read; give the calendar date";
            }
            if (d != 2) {
                return "the month needs two digits";
            }
            month = num(i, 2);
            i += 2;
            t.dateParts = 2;
            if (i < n && s[i] == '-') {
                i++;
                if (run(i) != 2) {
                    return "the day needs two digits";
                }
                day = num(i, 2);
                i += 2;
                t.dateParts = 3;
            }
        }
    } else if (d == 8) {
        notate(1);
        year = num(i, 4);
        month = num(i + 4, 2);
        day = num(i + 6, 2);
        i += 8;
        t.dateParts = 3;
    } else if (d == 7) {
        return "ordinal dates (YYYYDDD) are not read; give the calendar date";
    } else if (d == 6) {
        return "YYYYMM is not an ISO 8601 form; write YYYY-MM";
    } else {
        return "a date starts with a year of four digits";
    }
    year = negative ? -year : year;
    if (month < 1 || month > 12) {
        return "there is no month " + std::to_string(month);
    }
    if (day < 1 || day > days_in_month(year, (int)month)) {
        return "month " + std::to_string(month) + " of " + std::to_string(year) + " has no day " + std::to_string(day);
    }
    if (i == n) {
        return "";
    }
    if (s[i] != 'T' && s[i] != 't') {
        return stray();
    }
    if (t.dateParts < 3) {
        return "a time needs the whole date before it";
    }
    i++;
    long hour = 0, minute = 0, second = 0;
    d = run(i);
    if (d == 2 && i + 2 < n && s[i + 2] == ':') {
        if (!notate(2)) {
            return mixed;
        }
        hour = num(i, 2);
        i += 2;
        t.timeParts = 1;
        for (long* f : {&minute, &second}) {
            if (i < n && s[i] == ':') {
                if (run(i + 1) != 2) {
                    return "the minutes and seconds need two digits each";
                }
                *f = num(i + 1, 2);
                i += 3;
                t.timeParts++;
            }
        }
    } else if (d == 2 || d == 4 || d == 6) {
        if (d > 2 && !notate(1)) {
            return mixed;
        }
        hour = num(i, 2);
        minute = d > 2 ? num(i + 2, 2) : 0;
        second = d > 4 ? num(i + 4, 2) : 0;
        i += d;
        t.timeParts = (int)d / 2;
    } else {
        return "the time needs hh, hh:mm, hh:mm:ss, hhmm or hhmmss";
    }
    if (i < n && (s[i] == '.' || s[i] == ',')) {
        if (t.timeParts < 3) {
            return "a fraction is read only after the seconds";
        }
        std::size_t f = run(i + 1);
        if (!f) {
            return "the decimal sign needs digits after it";
        }
        t.fraction = s.substr(i + 1, f);
        i += 1 + f;
    }
    bool fractionZero = t.fraction.find_first_not_of('0') == std::string::npos;
    if (hour > 24 || (hour == 24 && (minute || second || !fractionZero))) {
        return "there is no hour " + std::to_string(hour) + (hour == 24 ? " past 24:00:00" : "");
    }
    if (minute > 59) {
        return "there is no minute " + std::to_string(minute);
    }
    if (second > 60) {
        return "there is no second " + std::to_string(second);
    }
    if (i < n && (s[i] == 'Z' || s[i] == 'z')) {
        i++;
        t.zone = true;
    } else if (i < n && (s[i] == '+' || s[i] == '-')) {
        if (run(i + 1) < 2) {
            return "the zone needs two digits of hours";
        }
        long zh = num(i + 1, 2), zm = 0;
        i += 3;
        if (i < n && s[i] == ':') {
            if (!notate(2)) {
                return mixed;
            }
            if (run(i + 1) != 2) {
                return "the zone's minutes need two digits";
            }
            zm = num(i + 1, 2);
            i += 3;
        } else if (run(i) == 2) {
            if (!notate(1)) {
                return mixed;
            }
            zm = num(i, 2);
            i += 2;
        }
        if (zh > 23 || zm > 59) {
            return "the zone lies outside -23:59..+23:59";
        }
        t.zone = true;
    }
    if (i != n) {
        return stray();
    }
    if (t.zone && t.timeParts < 3) {
        // iso_dt_decx stops after a time without seconds and never sees it.
        return "a zone is read only after the seconds (hh:mm:ss)";
    }
    return "";
}

// An offset in minutes, east positive, as ISO 8601 writes it: "+05:30".
std::string iso_offset(int minutes) {
    char buf[16];
    int m = minutes < 0 ? -minutes : minutes;
    std::snprintf(buf, sizeof buf, "%c%02d:%02d", minutes < 0 ? '-' : '+', m / 60, m % 60);
    return buf;
}

int time_now(const Args& a) {
    bool utc = a.flag("--utc");
    VekDt dt;
    VekDt_getLocalTime(&dt);
    if (utc) {
        VekDt_toUtc(&dt, &dt);
    }
    VekStr s;
    VekStr_new(&s);
    // Extended text to the second; the encoder reaches the zone only behind
    // the fraction, so the zone is written here. The record holds the bias
    // (UTC = local + zone): the offset is its negation.
    iso_dt_encx(&s, &dt, 0x3F, 1);
    std::printf("%s%s\n", VekStr_buf(&s), utc ? "Z" : iso_offset(-(int)dt.zone).c_str());
    VekStr_delete(&s);
    return kDone;
}

int time_parse(const Args& a) {
    std::string text;
    if (!text_arg(a, 0, text)) {
        return kFailed;
    }
    IsoText t;
    std::string why = check_iso(text, t);
    if (!why.empty()) {
        return bad_text(a, text, why);
    }
    VekDt dt;
    vek_s32 mask, ext;
    if (!iso_dt_decx(t.forLib.c_str(), &dt, &mask, &ext)) {
        return bad_text(a, text, "not read by iso_dt_decx");
    }
    const char* names[] = {"year", "month", "day", "hour", "minute", "second"};
    const vek_s32* f = &dt.year;
    for (int i = 0; i < 6; i++) {
        if (!(mask & (1 << i))) {
            std::printf("%s: unset\n", names[i]);
        } else {
            // Year 0000 is kept as "no year" in the record; it is year 0.
            std::printf("%s: %d\n", names[i], f[i] == VEK_DT_UNSET ? 0 : (int)f[i]);
        }
    }
    if (t.fraction.empty()) {
        std::printf("fraction: unset\n");
    } else {
        std::printf("fraction: 0.%s\n", t.fraction.c_str());
    }
    if (!(mask & 0x80) || dt.zone == VEK_ZONE_UNKNOWN) {
        std::printf("zone: unknown\n");
    } else {
        std::printf("zone: %d minutes\n", (int)dt.zone);
    }
    std::printf("mask: 0x%02X\nnotation: %s\n", (unsigned)mask, ext ? "extended" : "basic");
    return kDone;
}

/*
 * Checks an ISO 8601 duration: "P", then numbers with their designators in
 * the order Y M W D, "T", H M S (at least one, and one after a "T"), each
 * number whole and within 32 bits. Returns why not, or "".
 */
std::string check_dur(const std::string& s) {
    if (s.empty() || (s[0] != 'P' && s[0] != 'p')) {
        return "a duration starts with \"P\"";
    }
    const char* units = "YMWD";  // "HMS" after the "T"
    std::size_t next = 0, i = 1, parts = 0;
    bool inTime = false;
    while (i < s.size()) {
        if ((s[i] == 'T' || s[i] == 't') && !inTime) {
            inTime = true;
            units = "HMS";
            next = 0;
            parts = 0;
            i++;
            continue;
        }
        std::size_t k = i;
        while (k < s.size() && digit(s[k])) {
            k++;
        }
        if (k == i) {
            return quoted(s.substr(i), "is not a number and its unit");
        }
        if (k < s.size() && (s[k] == '.' || s[k] == ',')) {
            return "decimal fractions (such as PT1.5H) are not read; write whole units (PT1H30M)";
        }
        std::string digits = s.substr(i, k - i);
        if (digits.size() > 10 || std::stoll(digits) > 2147483647LL) {
            return digits + " is more than a duration field holds (2147483647)";
        }
        if (k == s.size()) {
            return "the number " + digits + " has no unit";
        }
        const char* at = std::strchr(units, s[k] & ~0x20);
        if (!at || !(s[k] & ~0x20) || (std::size_t)(at - units) < next) {
            return quoted(std::string(1, s[k]), "is out of place: the units go Y M W D, then T and H M S");
        }
        next = (std::size_t)(at - units) + 1;
        parts++;
        i = k + 1;
    }
    if (!parts) {
        return inTime ? "a \"T\" needs hours, minutes or seconds after it" : "a duration needs a number and its unit";
    }
    return "";
}

int time_dur(const Args& a) {
    std::string text;
    if (!text_arg(a, 0, text)) {
        return kFailed;
    }
    std::string why = check_dur(text);
    if (!why.empty()) {
        return bad_text(a, text, why);
    }
    VekDur d;
    if (!iso_dur_dec(text.c_str(), &d)) {
        return bad_text(a, text, "not read by iso_dur_dec");
    }
    std::printf("years: %d\nmonths: %d\nweeks: %d\ndays: %d\nhours: %d\nminutes: %d\nseconds: %d\n",
                (int)d.years, (int)d.months, (int)d.weeks, (int)d.days, (int)d.hours, (int)d.minutes,
                (int)d.seconds);
    return kDone;
}

/*
 * A date-time argument of time diff as a UTC record. A text with a zone is
 * moved to UTC by it (the ISO sign turned to the record's bias sign); one
 * without is local time of its own date, daylight saving included, as
 * date(1) reads it.
 */
bool utc_arg(const Args& a, const char* arg, VekDt* utc) {
    IsoText t;
    std::string why = check_iso(arg, t);
    if (why.empty() && t.dateParts < 3) {
        why = "a difference needs whole dates";
    }
    if (why.empty() && !t.fraction.empty()) {
        why = "the difference is counted in whole seconds; leave out the fraction";
    }
    VekDt dt;
    if (why.empty() && !iso_dt_dec(t.forLib.c_str(), &dt)) {
        why = "not read by iso_dt_dec";
    }
    if (why.empty() && dt.second == 60) {
        why = "a leap second cannot be counted";
    }
    if (!why.empty()) {
        bad_text(a, arg, why);
        return false;
    }
    if (dt.hour == VEK_DT_UNSET) {
        dt.hour = 0;
    }
    if (dt.hour == 24) {  // the end of the day: 00:00 of the next one
        VekTime end = {dt.year, dt.month, dt.day, dt.hour, dt.minute, dt.second, 0};
        VekTime_adjust(&end);
        VekDt_set(&dt, end.year, end.month, end.day, end.hour, end.minute, end.second, 0, dt.zone);
    }
    if (t.zone) {
        dt.zone = -dt.zone;
        VekDt_toUtc(&dt, utc);
        return true;
    }
    dt.zone = VEK_ZONE_UNKNOWN;
    time_t secs;
    std::tm* tm = VekDt_encTimet(&dt, &secs) ? std::gmtime(&secs) : nullptr;
    if (!tm) {
        bad_text(a, arg, "outside the local times this system converts");
        return false;
    }
    VekDt_set(utc, tm->tm_year + 1900, tm->tm_mon + 1, tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec, 0, 0);
    return true;
}

int time_diff(const Args& a) {
    VekDt x, y, m;
    if (!utc_arg(a, a[0], &x) || !utc_arg(a, a[1], &y)) {
        return kFailed;
    }
    if (!VekDt_toMargin(&x, &y, &m)) {
        std::fprintf(stderr, "vektool time diff: outside the years 1601-2093\n");
        return kFailed;
    }
    std::printf("margin: %s%d days %02d:%02d:%02d\n", m.millisecond < 0 ? "-" : "", (int)m.day, (int)m.hour,
                (int)m.minute, (int)m.second);
    VekTime hi = {x.year, x.month, x.day, x.hour, x.minute, x.second, 0};
    VekTime lo = {y.year, y.month, y.day, y.hour, y.minute, y.second, 0};
    if (m.millisecond >= 0) {
        std::swap(hi, lo);
    }
    static const char* const kUnits[] = {"", "seconds", "minutes", "hours", "days", "weeks"};
    vek_s32 unit = 0;
    vek_s64 count = 0;
    if (DateVekTime2MarginExt(&hi, &lo, &unit, &count) == 1 && unit >= 1 && unit <= 5) {
        std::printf("unit: %s\ncount: %lld\n", kUnits[unit], (long long)count);
    }
    return kDone;
}

int time_zone(const Args&) {
    vek_s32 bias, dbias, est = VekDt_isEst(&bias, &dbias);
    std::printf("bias: %d\ndaylight bias: %d\nsummer time: %s\nzone: %d\n", (int)bias, (int)dbias,
                est ? "yes" : "no", (int)VekDt_getZone());
    return kDone;
}

const vektool::Option kNowOptions[] = {
    {"--utc", nullptr, nullptr, "the time in UTC (\"Z\")"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::SubCommand kSubs[] = {
    {"now", "time now [--utc]", "the current time, ISO 8601 extended", time_now, 0, 0, kNowOptions,
     "the zone is written -hh:mm (iso_dt_encx writes \"1\" for the \"-\")\n"
     "iso_dt_encx writes the date and time; in the extended notation it gives a negative zone the\n"
     "sign character \"1\", so the zone is written here: \"+hh:mm\" or \"-hh:mm\", \"Z\" with --utc."},
    {"parse", "time parse TEXT|-", "the fields, mask, notation and zone of an ISO 8601 date-time", time_parse, 1, 1,
     nullptr,
     "only valid ISO 8601 dates and times are read (iso_dt_decx checks none)\n"
     "Only ISO 8601 calendar dates and times are taken: iso_dt_decx, which reads them, stops without\n"
     "a word at what it cannot read and checks no ranges, so trailing text, 2026-02-30, T25:00,\n"
     "+25:00, week and ordinal dates and mixed notations are refused here (exit 2), and so is a\n"
     "zone after a time without seconds, which it does not read. Fields the text does not give are\n"
     "\"unset\"; the fraction is shown as a decimal of a second (the record keeps its digits as a\n"
     "whole number, .5 and .05 both 5), the zone in minutes east of UTC; \",\" is a decimal sign too."},
    {"dur", "time dur TEXT|-", "the seven fields of an ISO 8601 duration", time_dur, 1, 1, nullptr,
     "fractions, overflow and disorder refused (iso_dur_dec drops or wraps them)\n"
     "Decimal fractions (PT1.5H), numbers above 2147483647, units out of order and a number without\n"
     "its unit are refused; iso_dur_dec reads the rest."},
    {"diff", "time diff A B", "B - A as a margin and in its largest exact unit", time_diff, 2, 2, nullptr,
     "no zone: local time of that date, as date(1) (VekDt_toUtc takes UTC)\n"
     "A time without a zone is local time of its own date, daylight saving included, through\n"
     "VekDt_encTimet; VekDt_toUtc would take it for UTC. Both texts are checked as for time parse."},
    {"zone", "time zone", "bias, daylight bias and summer time now", time_zone, 0, 0},
};

} // namespace

static const vektool::Command kTime = {"time", "time now|parse|dur|diff|zone ...",
                                       "clock, zone, ISO 8601 date-times and durations", kSubs,
                                       sizeof kSubs / sizeof *kSubs};
VEKTOOL_COMMAND(kTime);
