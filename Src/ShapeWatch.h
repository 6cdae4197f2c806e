/*
 * ShapeWatch.h - one process-wide count of changes to list links and to
 * watched strings (internal).
 *
 * A reader that keeps a derived view of lists and names it does not own
 * outright (the INI document's section index: callers may relink the
 * sections and rename them) records the count when it builds the view and
 * trusts the view only while the count still reads the same. Every link
 * change of any list moves the count while at least one view is alive, so a
 * process without one pays a plain load per change; every call on a string
 * marked as watched moves it always.
 *
 * The count is atomic: a view is used by one thread at a time, but the lists
 * and names it covers may have been changed by another thread that handed
 * them over under a lock, and that change must not be lost to a racing one.
 */
#ifndef VEK_SHAPEWATCH_H
#define VEK_SHAPEWATCH_H

#include "VekType.h"

namespace vek {

extern vek_u32 g_shapeCount;
extern vek_s32 g_shapeViews;

/* Bit of a string object's magic word: calls on it move the count. Masked
 * out wherever the word leaves the process. */
constexpr vek_u32 kStrWatched = 0x10000000u;

inline vek_u32 shape_count() {
    return __atomic_load_n(&g_shapeCount, __ATOMIC_ACQUIRE);
}
inline void shape_changed() {
    __atomic_fetch_add(&g_shapeCount, 1u, __ATOMIC_ACQ_REL);
}
inline void list_shape_changed() {
    if (__atomic_load_n(&g_shapeViews, __ATOMIC_RELAXED) > 0) {
        shape_changed();
    }
}
/* A view comes (+1) or goes (-1). */
inline void shape_views_add(vek_s32 d) {
    __atomic_fetch_add(&g_shapeViews, d, __ATOMIC_ACQ_REL);
}

} // namespace vek

#endif /* VEK_SHAPEWATCH_H */
