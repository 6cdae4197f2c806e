/*
 * VekData.cpp - counted byte blocks: header and data in one tracked heap
 * block, so a block is created and freed as a whole.
 */
#include <cstring>
#include "VekData.h"
#include "MemUtil.h"
#include "VekVos.h"

namespace {

// The data starts at the next 8-byte boundary behind the header, so blocks
// may hold any kind of record.
constexpr size_t kHdrSize = (sizeof(VekData) + 7) & ~(size_t)7;

VekData* data_alloc(vek_s32 size) {
    VekData* blk = (VekData*)vek_malloc__(kHdrSize + (size_t)size);
    if (!blk) {
        return nullptr;
    }
    blk->next = nullptr;
    blk->size = (vek_u32)size;
    blk->len = 0;
    blk->buf = (vek_u8*)blk + kHdrSize;
    return blk;
}

} // namespace

extern "C" {

VEK_API VekData* VekData_new(const void* data, vek_s32 len) {
    if (len < 0) {
        VEK_ASSERT(len >= 0);
        return nullptr;
    }
    VekData* blk = data_alloc(len);
    if (blk) {
        if (data) {
            std::memcpy(blk->buf, data, (size_t)len);
        } else {
            std::memset(blk->buf, 0, (size_t)len);
        }
        blk->len = (vek_u32)len;
    }
    return blk;
}

VEK_API VekData* VekData_newSize(vek_s32 size) {
    if (size < 0) {
        VEK_ASSERT(size >= 0);
        return nullptr;
    }
    return data_alloc(size);
}

VEK_API VekData* VekData_delete(VekData* blk) {
    if (!blk) {
        return nullptr;
    }
    VekData* next = blk->next;
    vek_free__(blk);
    return next;
}

VEK_API vek_s32 VekData_size(const VekData* blk) {
    return blk ? (vek_s32)blk->size : 0;
}

VEK_API vek_s32 VekData_len(const VekData* blk) {
    return blk ? (vek_s32)blk->len : 0;
}

VEK_API vek_u8* VekData_buf(const VekData* blk) {
    return blk ? blk->buf : nullptr;
}

} // extern "C"
