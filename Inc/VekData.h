/*
 * VekData.h - counted byte blocks: one heap block holding a small header and
 * the data bytes behind it. Blocks link through next into chains (the
 * VekDatas functions); the memory stream (VekStrm.h) grows by such blocks
 * and hands whole chains over with MemStrm_attach / MemStrm_detach.
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

/* ---- VekDatas: chains of blocks ----
 * A chain is given by its first block and linked through next; null is the
 * empty chain. The calls that make a chain make a packed one - every block
 * but the last full - which MemStrm_attach takes as it is; the calls that
 * read a chain take any chain (a block may hold fewer bytes than its size
 * anywhere). A block size blkSize of 0 or less means 1024, as in MemStrm.
 * A call that makes or extends a chain does it whole or not at all: when
 * memory runs out it returns VEK_ERR_FULL (-201) and leaves *out null (and
 * an extended chain as it was). Streams are borrowed; their errors pass
 * through. */

/* Frees every block of the chain (null is ignored). */
VEK_API void VekDatas_delete(VekData* first);
/* The bytes held (the sum of the blocks' len) and the number of blocks. */
VEK_API vek_s64 VekDatas_len(const VekData* first);
VEK_API vek_s32 VekDatas_count(const VekData* first);
/* The last block, or null for the empty chain. */
VEK_API VekData* VekDatas_tail(VekData* first);
/* A new chain in *out holding a copy of len bytes of data (none for len
 * 0: *out null). 0, VEK_ERR_FULL, or VEK_ERR_BAD_ARG for a negative len
 * or null data with a len (assertion "data || len == 0"). */
VEK_API vek_s32 VekDatas_fromBuf(VekData** out, const void* data, vek_s32 len, vek_s32 blkSize);
/* Appends len bytes at the end of the chain *first (which may be empty):
 * into the free room of its last block first, then into new blocks. 0,
 * VEK_ERR_FULL, or VEK_ERR_BAD_ARG as above. */
VEK_API vek_s32 VekDatas_appd(VekData** first, const void* data, vek_s32 len, vek_s32 blkSize);
/* Copies up to len bytes from byte offset off of the chain into buf: the
 * bytes copied (0 at or past the end); VEK_ERR_BAD_ARG for a negative off
 * or len, or a null buf with a len. */
VEK_API vek_s32 VekDatas_read(const VekData* first, vek_s64 off, void* buf, vek_s32 len);
/* A packed copy of the chain's bytes in *out: 0 or VEK_ERR_FULL. */
VEK_API vek_s32 VekDatas_copy(VekData** out, const VekData* first, vek_s32 blkSize);
/* A packed copy of len bytes from offset off (cut at the chain's end;
 * len negative: to the end) in *out: 0, VEK_ERR_FULL, or VEK_ERR_BAD_ARG
 * for a negative off. */
VEK_API vek_s32 VekDatas_slice(VekData** out, const VekData* first, vek_s64 off, vek_s64 len,
                               vek_s32 blkSize);
/* Compares the bytes of two chains, whatever their blocks: 0 when equal,
 * else the difference of the first differing bytes (unsigned), or -1 / 1
 * when one is a beginning of the other (the shorter first). */
VEK_API vek_s32 VekDatas_cmp(const VekData* a, const VekData* b);
/* Writes the chain's bytes to dst at its position, going on after short
 * writes: 0, the stream's error, or VEK_ERR_WRITE_NOTHING (-103) when a
 * write takes nothing. */
VEK_API vek_s32 VekDatas_toStrm(const VekData* first, IStrm* dst);
/* Reads src from its position to its end, or at most maxLen bytes when
 * maxLen is 0 or more, into a new packed chain in *out (null when nothing
 * was read): 0, VEK_ERR_FULL, or a read error (nothing is kept then). */
VEK_API vek_s32 VekDatas_fromStrm(VekData** out, IStrm* src, vek_s64 maxLen, vek_s32 blkSize);

VEK_END_DECLS

#endif /* VEK_DATA_H */
