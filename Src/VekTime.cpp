/*
 * VekTime.cpp - the portable half of the time family: records, zones,
 * validation and calendar arithmetic.
 */
#include "VekTime.h"
#include "VekVos.h"

static_assert(sizeof(VekDt) == 32 && sizeof(VekTime) == 28 && sizeof(VekDur) == 28,
              "every field is a 32-bit integer");

extern "C" {

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

} // extern "C"
