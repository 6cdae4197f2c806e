/*
 * The ISO 8601 date-time, date and duration decoders on any text: they
 * never read past the end, and what they accept comes back unchanged
 * through the basic encoder and a second decode.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

// Half of the inputs are spelled in the characters of the format, so that
// random bytes reach the deeper branches.
std::string spell(const uint8_t* data, size_t size) {
    static const char kAlpha[] = "0123456789-/:.TtZz+PpYMWDHS";
    std::string s((const char*)data, size);
    if (size && (data[0] & 1)) {
        for (char& c : s) {
            c = kAlpha[(uint8_t)c % (sizeof kAlpha - 1)];
        }
    }
    return s;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string in = spell(data, size);
    const char* s = in.c_str();
    VekStr str;
    VekStr_new(&str);

    VekDt dt, again;
    vek_s32 mask, ext, mask2, ext2;
    if (iso_dt_decx(s, &dt, &mask, &ext) && dt.year > 0 && dt.hour != VEK_DT_UNSET && dt.millisecond >= 0 &&
        (mask & 0x3F) == 0x3F && (dt.zone == VEK_ZONE_UNKNOWN || (dt.zone > -6000 && dt.zone < 6000))) {
        iso_dt_encx(&str, &dt, mask, 0);
        if (!iso_dt_decx(VekStr_buf(&str), &again, &mask2, &ext2) || std::memcmp(&dt, &again, sizeof dt) != 0 ||
            mask2 != mask || ext2 != 0) {
            std::abort();
        }
    }
    iso_date_decx(s, &dt, &mask, &ext);
    if (mask & ~7) {
        std::abort();
    }

    VekDur dur, dur2;
    if (iso_dur_dec(s, &dur) && dur.years >= 0 && dur.months >= 0 && dur.weeks >= 0 && dur.days >= 0 &&
        dur.hours >= 0 && dur.minutes >= 0 && dur.seconds >= 0) {
        iso_dur_enc(&str, &dur);
        if (!iso_dur_dec(VekStr_buf(&str), &dur2) || !VekDur_cmp(&dur, &dur2)) {
            std::abort();
        }
    }
    VekStr_delete(&str);
    return 0;
}
