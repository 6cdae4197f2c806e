/*
 * TagRec.h - the tag word of the plain containers (internal).
 *
 * A container record starts with a 32-bit tag: its type mark in the low 31
 * bits and, in bit 31, the mark that _new allocated the record itself. The
 * storage and disposal helpers of the object model serve these records as
 * they are (the class word sits in the same first word).
 */
#ifndef VEK_TAGREC_H
#define VEK_TAGREC_H

#include "MemUtil.h"
#include "ObjModel.h"

namespace vek {

/* The failure path of tag_check, kept out of line so that the callers'
 * fast paths need no stack frame. The crash exit ends the process whatever
 * the fault dialog answers, so nothing follows it. */
[[noreturn, gnu::cold, gnu::noinline]] inline void tag_fail(const char* file, vek_s32 line) {
    ObjUtil_crashExit(file, line);
    __builtin_unreachable();
}

/* rec when its tag carries mark; otherwise the process ends through
 * ObjUtil_crashExit(file, line). Inline: every container call runs it. */
template <class T>
inline T* tag_check(T* rec, vek_u32 mark, const char* file, vek_s32 line) {
    if (__builtin_expect(!rec || (rec->tag & VEK_CLS_MASK) != mark, 0)) {
        tag_fail(file, line);
    }
    return rec;
}

/* Storage for a container's _new (see obj_storage): the caller's record,
 * or a zeroed one of the tracked heap marked as owned. */
template <class T>
inline T* tag_storage(T* mem, vek_u32 mark) {
    return (T*)obj_storage(mem, sizeof(T), mark);
}

} // namespace vek

#endif /* VEK_TAGREC_H */
