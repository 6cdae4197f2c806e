/*
 * VekIso.cpp - ISO 8601 text of date-times, dates and durations, in the
 * basic ("20120822T101530") and extended ("2012-08-22T10:15:30") notations.
 *
 * The zone is kept in the ISO sign (east positive) exactly as written: the
 * codec neither converts it to nor from the bias sign of the VekDt record.
 * Encoders build the text in a local buffer and store it with one string
 * call; the longest text (every field at its widest) fits in 96 bytes.
 */
#include <cstring>
#include "TimeCore.h"
#include "VekStr.h"
#include "VekTime.h"
#include "VekVos.h"

namespace {

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Up to two digits: how many there are (0, 1 or 2) and their value.
inline int two_digits(const char* p, vek_s32* v) {
    if (!is_digit(p[0])) {
        return 0;
    }
    if (!is_digit(p[1])) {
        *v = p[0] - '0';
        return 1;
    }
    *v = (p[0] - '0') * 10 + (p[1] - '0');
    return 2;
}

// One two-digit field of the date or the time. Returns 1 to go on, 0 when
// the text stops here (success) and -1 on a single digit (failure).
inline int field2(const char*& p, vek_s32* out) {
    vek_s32 v;
    int n = two_digits(p, &v);
    if (n == 2) {
        *out = v;
        p += 2;
        return 1;
    }
    return n == 0 ? 0 : -1;
}

inline void opt_sep(const char*& p, const char* seps, vek_s32* ext) {
    if (*p && std::strchr(seps, *p)) {
        *ext = 1;
        p++;
    }
}

// The zone after the time: "Z", "+hh[[:]mm]", "-hh[[:]mm]" or nothing.
bool parse_zone(const char* p, VekDt* dt, vek_s32* mask, vek_s32* ext) {
    *mask |= VEK_ISO_ZONE;
    if (!*p) {
        dt->zone = VEK_ZONE_UNKNOWN;
        return true;
    }
    if (*p == 'Z' || *p == 'z') {
        return p[1] == 0;  // zone stays 0
    }
    if (*p != '+' && *p != '-') {
        return false;
    }
    vek_s32 sign = *p++ == '-' ? -1 : 1, hours, minutes = 0;
    int n = two_digits(p, &hours);
    if (n == 0) {
        return false;
    }
    p += n;
    if (*p) {
        opt_sep(p, ":", ext);
        p += two_digits(p, &minutes);  // whatever follows is not looked at
    }
    dt->zone = sign * (hours * 60 + minutes);
    return true;
}

// The one decoder of date-times and dates. dt, mask and ext are set on the
// way, so a failure leaves what was read before it.
bool parse_dt(const char* text, VekDt* dt, vek_s32* mask, vek_s32* ext, bool dateOnly) {
    VekDt_init(dt);
    *mask = 0;
    *ext = 0;
    if (!text) {
        return false;
    }
    const char* p = text;
    bool neg = *p == '-';
    p += neg;
    if (!is_digit(p[0]) || !is_digit(p[1]) || !is_digit(p[2]) || !is_digit(p[3])) {
        return false;
    }
    vek_s32 year = (p[0] - '0') * 1000 + (p[1] - '0') * 100 + (p[2] - '0') * 10 + (p[3] - '0');
    p += 4;
    dt->year = year == 0 ? VEK_DT_UNSET : neg ? -year : year;
    *mask |= VEK_ISO_YEAR;
    int r;
    opt_sep(p, "-/", ext);
    if ((r = field2(p, &dt->month)) <= 0) {
        return r == 0;
    }
    *mask |= VEK_ISO_MONTH;
    opt_sep(p, "-/", ext);
    if ((r = field2(p, &dt->day)) <= 0) {
        return r == 0;
    }
    *mask |= VEK_ISO_DAY;
    if (!*p || dateOnly) {
        return true;
    }
    if (*p != 'T' && *p != 't') {
        return false;
    }
    p++;
    if ((r = field2(p, &dt->hour)) <= 0) {
        return r == 0;
    }
    *mask |= VEK_ISO_HOUR;
    opt_sep(p, ":", ext);
    if ((r = field2(p, &dt->minute)) <= 0) {
        return r == 0;
    }
    *mask |= VEK_ISO_MINUTE;
    opt_sep(p, ":", ext);
    if ((r = field2(p, &dt->second)) <= 0) {
        return r == 0;
    }
    // The fraction bit comes with the seconds, whether digits follow or not.
    *mask |= VEK_ISO_SECOND | VEK_ISO_FRAC;
    if (*p == '.') {
        // The digits as a whole number, as written: ".5" is 5, ".123" 123.
        vek_s64 v = 0;
        p++;
        for (int i = 0; i < 15 && is_digit(*p); i++, p++) {
            v = v * 10 + (*p - '0');
        }
        while (is_digit(*p)) {
            p++;
        }
        dt->millisecond = (vek_s32)v;
    }
    return parse_zone(p, dt, mask, ext);
}

template <typename T>
inline void put(T* out, T v) {
    if (out) {
        *out = v;
    }
}

void copy_fields(const VekDt& dt, vek_s32* year, vek_s32* month, vek_s32* day, vek_s32* hour,
                 vek_s32* minute, vek_s32* second, vek_s32* fraction, vek_s32* zone) {
    put(year, dt.year);
    put(month, dt.month);
    put(day, dt.day);
    put(hour, dt.hour);
    put(minute, dt.minute);
    put(second, dt.second);
    put(fraction, dt.millisecond);
    put(zone, dt.zone);
}

// A decode into a record, with the optional mask and notation outputs.
vek_s32 dec_record(const char* text, VekDt* dt, vek_s32* mask, vek_s32* extended, bool dateOnly) {
    vek_s32 m, e;
    if (!dt) {
        return 0;
    }
    bool ok = parse_dt(text, dt, &m, &e, dateOnly);
    put(mask, m);
    put(extended, e);
    return ok ? 1 : 0;
}

// "%0<width>u" of v.
char* put_u(char* p, vek_u32 v, int width) {
    char tmp[10];
    int n = 0;
    do {
        tmp[n++] = (char)('0' + v % 10);
        v /= 10;
    } while (v);
    while (width > n) {
        *p++ = '0';
        width--;
    }
    while (n) {
        *p++ = tmp[--n];
    }
    return p;
}

// "%d" of v.
char* put_d(char* p, vek_s32 v) {
    if (v < 0) {
        *p++ = '-';
        return put_u(p, 0u - (vek_u32)v, 1);
    }
    return put_u(p, (vek_u32)v, 1);
}

inline char* put_2(char* p, char sep, vek_s32 v) {
    if (sep) {
        *p++ = sep;
    }
    return put_u(p, (vek_u32)v, 2);
}

char* put_zone(char* p, vek_s32 zone, bool ext) {
    if (zone == VEK_ZONE_UNKNOWN) {
        return p;
    }
    if (zone == 0) {
        *p++ = 'Z';
        return p;
    }
    vek_u32 mag = zone < 0 ? 0u - (vek_u32)zone : (vek_u32)zone;
    // Extended text marks a negative zone with '+' + 6 ("1"), as the
    // readers of this format expect; basic text with '-'.
    *p++ = zone >= 0 ? '+' : ext ? (char)('+' + 6) : '-';
    p = put_u(p, mag / 60, 2);
    if (ext) {
        *p++ = ':';
    }
    return put_u(p, mag % 60, 2);
}

// The fields of the encoder, in order while their mask bits are set: the
// date chain, then the time chain (the whole text when the year bit is
// absent), each stopping at its first missing bit, so the zone is printed
// only behind a set fraction bit (basic text skips a negative fraction's
// digits but goes on to the zone).
char* put_dt(char* p, const VekDt& f, vek_s32 mask, bool ext) {
    if (mask & VEK_ISO_YEAR) {
        p = put_u(p, (vek_u32)(f.year == VEK_DT_UNSET ? 0 : f.year), 4);
        if (!(mask & VEK_ISO_MONTH)) {
            return p;
        }
        p = put_2(p, ext ? '-' : 0, f.month);
        if (!(mask & VEK_ISO_DAY)) {
            return p;
        }
        p = put_2(p, ext ? '-' : 0, f.day);
    }
    if (!(mask & VEK_ISO_HOUR) || f.hour == VEK_DT_UNSET) {
        return p;
    }
    *p++ = 'T';
    p = put_u(p, (vek_u32)f.hour, 2);
    if (!(mask & VEK_ISO_MINUTE)) {
        return p;
    }
    p = put_2(p, ext ? ':' : 0, f.minute);
    if (!(mask & VEK_ISO_SECOND)) {
        return p;
    }
    p = put_2(p, ext ? ':' : 0, f.second);
    if (!(mask & VEK_ISO_FRAC)) {
        return p;
    }
    if (ext || f.millisecond >= 0) {
        *p++ = '.';
        p = put_d(p, f.millisecond);
    }
    return (mask & VEK_ISO_ZONE) ? put_zone(p, f.zone, ext) : p;
}

vek_s32 enc_dt(VekStr* str, const VekDt& f, vek_s32 mask, vek_s32 extended) {
    char buf[96];
    char* p = buf;
    if (extended != 0 && extended != 1) {
        VEK_ASSERT(extended == 0 || extended == 1);
        VekStr_clear(str);
        return 0;
    }
    if (mask == 0) {
        mask = -1;
    }
    if (extended ? (mask & VEK_ISO_YEAR) && f.year != VEK_DT_UNSET
                 : (mask & (VEK_ISO_YEAR | VEK_ISO_HOUR)) &&
                       (f.year != VEK_DT_UNSET || f.hour != VEK_DT_UNSET)) {
        p = put_dt(p, f, mask, extended == 1);
    }
    VekStr_setStrx(str, buf, (vek_s32)(p - buf));
    return VekStr_len(str);
}

VekDt make_dt(vek_s32 year, vek_s32 month, vek_s32 day, vek_s32 hour, vek_s32 minute,
              vek_s32 second, vek_s32 fraction, vek_s32 zone) {
    return VekDt{year, month, day, hour, minute, second, fraction, zone};
}

// The unsigned decimal number at p (0 when there is none), wrapping as a
// 32-bit count; end is left behind its digits.
vek_u32 dur_number(const char* p, const char** end) {
    vek_u32 v = 0;
    while (is_digit(*p)) {
        v = v * 10 + (vek_u32)(*p++ - '0');
    }
    *end = p;
    return v;
}

inline bool upper_is(char c, char u) {
    return c == u || c == u + ('a' - 'A');
}

} // namespace

extern "C" {

VEK_API vek_s32 iso_dt_decfx(const char* text, vek_s32* year, vek_s32* month, vek_s32* day,
                             vek_s32* hour, vek_s32* minute, vek_s32* second,
                             vek_s32* fraction, vek_s32* zone, vek_s32* mask, vek_s32* extended) {
    VekDt dt;
    vek_s32 ok = dec_record(text, &dt, mask, extended, false);
    copy_fields(dt, year, month, day, hour, minute, second, fraction, zone);
    return ok;
}

VEK_API vek_s32 iso_dt_decf(const char* text, vek_s32* year, vek_s32* month, vek_s32* day,
                            vek_s32* hour, vek_s32* minute, vek_s32* second,
                            vek_s32* fraction, vek_s32* zone) {
    return iso_dt_decfx(text, year, month, day, hour, minute, second, fraction, zone, nullptr,
                        nullptr);
}

VEK_API vek_s32 iso_dt_decx(const char* text, VekDt* dt, vek_s32* mask, vek_s32* extended) {
    return dec_record(text, dt, mask, extended, false);
}

VEK_API vek_s32 iso_dt_dec(const char* text, VekDt* dt) {
    return iso_dt_decx(text, dt, nullptr, nullptr);
}

VEK_API vek_s32 iso_date_decx(const char* text, VekDt* dt, vek_s32* mask, vek_s32* extended) {
    return dec_record(text, dt, mask, extended, true);
}

VEK_API vek_s32 iso_date_dec(const char* text, VekDt* dt) {
    return iso_date_decx(text, dt, nullptr, nullptr);
}

VEK_API vek_s32 iso_date_decfx(const char* text, vek_s32* year, vek_s32* month, vek_s32* day,
                               vek_s32* mask, vek_s32* extended) {
    VekDt dt;
    vek_s32 m, e;
    if (!parse_dt(text, &dt, &m, &e, true)) {
        return 0;
    }
    put(year, dt.year);
    put(month, dt.month);
    put(day, dt.day);
    put(mask, m);
    put(extended, e);
    return 1;
}

VEK_API vek_s32 iso_date_decf(const char* text, vek_s32* year, vek_s32* month, vek_s32* day) {
    return iso_date_decfx(text, year, month, day, nullptr, nullptr);
}

VEK_API vek_s32 iso_dt_encfx(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day,
                             vek_s32 hour, vek_s32 minute, vek_s32 second, vek_s32 fraction,
                             vek_s32 zone, vek_s32 mask, vek_s32 extended) {
    return enc_dt(str, make_dt(year, month, day, hour, minute, second, fraction, zone), mask,
                  extended);
}

VEK_API vek_s32 iso_dt_encf(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day,
                            vek_s32 hour, vek_s32 minute, vek_s32 second, vek_s32 fraction,
                            vek_s32 zone) {
    return iso_dt_encfx(str, year, month, day, hour, minute, second, fraction, zone, 0, 0);
}

VEK_API vek_s32 iso_dt_encx(VekStr* str, const VekDt* dt, vek_s32 mask, vek_s32 extended) {
    return enc_dt(str, *dt, mask, extended);
}

VEK_API vek_s32 iso_dt_enc(VekStr* str, const VekDt* dt) {
    return enc_dt(str, *dt, 0, 0);
}

VEK_API vek_s32 iso_date_enc(VekStr* str, const VekDt* dt) {
    return enc_dt(str, *dt, 7, 0);
}

VEK_API vek_s32 iso_date_encf(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day) {
    return iso_dt_encfx(str, year, month, day, VEK_DT_UNSET, 0, 0, 0, 0, 7, 0);
}

VEK_API vek_s32 iso_date_encx(VekStr* str, const VekDt* dt, vek_s32 mask, vek_s32 extended) {
    return enc_dt(str, *dt, mask & 7, extended);
}

VEK_API vek_s32 iso_date_encfx(VekStr* str, vek_s32 year, vek_s32 month, vek_s32 day,
                               vek_s32 mask, vek_s32 extended) {
    return iso_dt_encfx(str, year, month, day, VEK_DT_UNSET, 0, 0, 0, 0, mask & 7, extended);
}

VEK_API vek_s32 iso_dt_encx__(VekStr* str, const VekDt* dt, vek_s32 zoneMode) {
    VekDt f = *dt;
    if (zoneMode == VEK_ZONE_UNKNOWN) {
        VekDt_toLoc(dt, &f);
        f.zone = VEK_ZONE_UNKNOWN;
        f.millisecond = -1;
    } else if (zoneMode == 0) {
        VekDt_toUtc(dt, &f);
        f.zone = 0;
        f.millisecond = -1;
    } else if (zoneMode != VEK_DT_UNSET) {
        f.zone = zoneMode;
        f.millisecond = -1;  // basic text prints no negative fraction
    }
    return enc_dt(str, f, -1, 0);
}

VEK_API void iso_dt_cvt(const VekDt* dt, VekDt* out, vek_s32 zone) {
    if (dt->zone == VEK_ZONE_UNKNOWN) {
        *out = *dt;
    } else {
        vek_s64 minutes = (vek_s64)dt->zone - zone;
        vek_s64 mag = minutes < 0 ? -minutes : minutes;
        VekDt margin = {0, 0, (vek_s32)(mag / 1440), (vek_s32)(mag / 60 % 24), (vek_s32)(mag % 60),
                        0, minutes < 0 ? -1 : 0, 0};
        VekDt_fromMargin(dt, margin, out);
    }
    out->zone = zone;
}

VEK_API vek_s32 iso_dur_decf(const char* text, vek_s32* years, vek_s32* months, vek_s32* weeks,
                             vek_s32* days, vek_s32* hours, vek_s32* minutes, vek_s32* seconds) {
    if (!text) {
        return 0;
    }
    // Every unit the text lacks reads 0, as in the record form.
    vek_s32* const outs[] = {years, months, weeks, days, nullptr, hours, minutes, seconds};
    for (vek_s32* out : outs) {
        put(out, 0);
    }
    if (!upper_is(*text, 'P')) {
        return 0;
    }
    // Each number is tried against the designators in their fixed order;
    // one that matches takes the number and the next number is read.
    static const char kDesig[] = "YMWDTHMS";
    const char* end;
    vek_u32 n = dur_number(text + 1, &end);
    for (int i = 0; i < 8; i++) {
        if (!upper_is(*end, kDesig[i])) {
            continue;
        }
        if (outs[i]) {  // "T" takes no number: one standing before it is dropped
            *outs[i] = (vek_s32)n;
        }
        n = dur_number(end + 1, &end);
    }
    return 1;
}

VEK_API vek_s32 iso_dur_dec(const char* text, VekDur* dur) {
    if (!text) {
        VEK_ASSERT(text);
        return 0;
    }
    VekDur_init(dur);
    return iso_dur_decf(text, &dur->years, &dur->months, &dur->weeks, &dur->days, &dur->hours,
                        &dur->minutes, &dur->seconds);
}

VEK_API vek_s32 iso_dur_encf(VekStr* str, vek_s32 years, vek_s32 months, vek_s32 weeks,
                             vek_s32 days, vek_s32 hours, vek_s32 minutes, vek_s32 seconds) {
    const vek_s32 parts[] = {years, months, weeks, days, hours, minutes, seconds};
    static const char kDesig[] = "YMWDHMS";
    char buf[96];
    char* p = buf;
    *p++ = 'P';
    for (int i = 0; i < 7; i++) {
        if (i == 4 && (hours || minutes || seconds)) {
            *p++ = 'T';
        }
        if (parts[i]) {
            p = put_d(p, parts[i]);
            *p++ = kDesig[i];
        }
    }
    VekStr_setStrx(str, buf, (vek_s32)(p - buf));
    return VekStr_len(str);
}

VEK_API vek_s32 iso_dur_enc(VekStr* iso, const VekDur* dur) {
    if (!iso || !dur) {
        VEK_ASSERT(iso && dur);
        return 0;
    }
    return iso_dur_encf(iso, dur->years, dur->months, dur->weeks, dur->days, dur->hours,
                        dur->minutes, dur->seconds);
}

} // extern "C"
