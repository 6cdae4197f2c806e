/*
 * VekThrd.cpp - thread registration with the thread manager.
 */
#include "VekCore.h"
#include "VekVosx.h"

extern "C" {

VEK_API void vek_thrd_beg(void) {
    VEK_LIFE_TRACE("thrd attaching ...");
    VEK_LIFE_TRACE("thrd attached");
}

VEK_API void vek_thrd_end(void) {
    VEK_LIFE_TRACE("thrd detaching...");
    VEK_LIFE_TRACE("thrd detached");
}

} // extern "C"
