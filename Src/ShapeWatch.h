/*
 * ShapeWatch.h - watch marks on the strings and lists that a derived view
 * was built from (internal).
 *
 * A reader that keeps a derived view of lists and names it does not own
 * outright (the INI document's section index: callers may relink the
 * sections and rename them) marks every list and string object the view
 * was built from and registers it with the view. Every call on a marked
 * string and every link change of a marked list reports the object to
 * watch_touched(), which moves the change count of the views that
 * registered it; a view is trusted only while its own count reads what it
 * read when the view was built. Objects without the mark pay one test of a
 * word the call reads anyway, so the cost stays with the documents that
 * have a view, and one document's changes never stale another's view.
 *
 * A mark outlives the view that set it (the object may not be writable any
 * more when the view goes): the report then finds no view and does nothing.
 */
#ifndef VEK_SHAPEWATCH_H
#define VEK_SHAPEWATCH_H

#include "VekList.h"
#include "VekStr.h"
#include "VekType.h"

namespace vek {

/* Bit of a string object's magic word (VekStr, VekWcs). Masked out wherever
 * the word leaves the process. */
constexpr vek_u32 kStrWatched = VEKSTR_WATCHED;

/* Bit of a list head's type word; the low bit keeps the list's kind. */
constexpr vek_u32 kListWatched = VEKLIST_WATCHED;

inline vek_u32 list_kind(const VekList* l) {
    return l->type & ~kListWatched;
}

/* Reports a call on a marked object (IniFile.cpp keeps the views). */
void watch_touched(const void* obj);

} // namespace vek

#endif /* VEK_SHAPEWATCH_H */
