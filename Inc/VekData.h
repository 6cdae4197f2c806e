/*
 * VekData.h - counted byte blocks: one heap block holding a small header and
 * the data bytes behind it. Blocks link through next into chains; the memory
 * stream (VekStrm.h) grows by such blocks and hands whole chains over with
 * MemStrm_attach / MemStrm_detach.
 *
 *     +------+------+-----+-----+-------------------------+
 *     | next | size | len | buf | size bytes of data ...  |
 *     +------+------+-----+-----+-------------------------+
 *                             \___/ buf points here
 *
 * size is the capacity, len the bytes in use (0 to size). A caller that
 * builds a chain for MemStrm_attach fills buf, sets len and links next
 * itself; every block but the last of a chain must be full (len == size).
 * Blocks come from the tracked heap (vek_malloc__).
 */
#ifndef VEK_DATA_H
#define VEK_DATA_H

#include "VekType.h"

VEK_BEGIN_DECLS

typedef struct VekData {
    struct VekData* next;  /* following block of a chain, or null */
    vek_u32 size;          /* capacity of buf in bytes */
    vek_u32 len;           /* bytes in use */
    vek_u8* buf;           /* the data, right behind this header */
} VekData;

/* A full block of len bytes (size and len both len) holding a copy of data,
 * or zeroes when data is null. Returns null for a negative length
 * (assertion "len >= 0") or when memory runs out. */
VEK_API VekData* VekData_new(const void* data, vek_s32 len);
/* An empty block (len 0) of capacity size bytes; null for a negative size
 * (assertion "size >= 0") or when memory runs out. */
VEK_API VekData* VekData_newSize(vek_s32 size);
/* Frees one block and returns its next, so a whole chain goes with
 *     while (blk) blk = VekData_delete(blk);
 * null is ignored (and returns null). */
VEK_API VekData* VekData_delete(VekData* blk);
/* Capacity, bytes in use and the data of a block; 0 / null for null. */
VEK_API vek_s32 VekData_size(const VekData* blk);
VEK_API vek_s32 VekData_len(const VekData* blk);
VEK_API vek_u8* VekData_buf(const VekData* blk);

VEK_END_DECLS

#endif /* VEK_DATA_H */
