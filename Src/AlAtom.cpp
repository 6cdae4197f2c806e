/*
 * AlAtom.cpp - atomic 32-bit counters. The compiler's atomic built-ins give
 * the same interlocked operations on every platform, so this part of the OS
 * layer is portable.
 */
#include "AlOs.h"

extern "C" {

VEK_API vek_s32 AlAtom_inc(AlAtom* p) {
    return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST);
}

VEK_API vek_s32 AlAtom_dec(AlAtom* p) {
    return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST);
}

VEK_API vek_s32 AlAtom_add(AlAtom* p, vek_s32 n) {
    return __atomic_add_fetch(p, n, __ATOMIC_SEQ_CST);
}

VEK_API vek_s32 AlAtom_sget(AlAtom* p, vek_s32 v) {
    return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST);
}

// get/set are plain reads and writes in cost, but they must not tear and
// must order with the counters above (a reader that sees a count of 1 may
// then write the data the count guards), hence acquire/release.
VEK_API vek_s32 AlAtom_get(const AlAtom* p) {
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

VEK_API void AlAtom_set(AlAtom* p, vek_s32 v) {
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}

} // extern "C"
