/*
 * VekData.cpp - counted byte blocks: header and data in one tracked heap
 * block, so a block is created and freed as a whole; and the chains of
 * such blocks (VekDatas).
 *
 * Every chain the calls make grows through one builder that fills the last
 * block before it adds the next, which is what keeps them packed, and that
 * can take back whatever it added when an allocation fails half way.
 */
#include <algorithm>
#include <cstring>
#include "VekData.h"
#include "BaseItf.h"
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

constexpr vek_s32 kDefBlk = 1024;

vek_s32 blk_size(vek_s32 blkSize) {
    return blkSize > 0 ? blkSize : kDefBlk;
}

// Appends bytes behind the last block of a chain. Blocks it adds are
// remembered from mark on, so that undo() restores the chain as it was.
struct Builder {
    VekData* first;
    VekData* tail;
    vek_s32 blk;
    VekData* mark;       // the tail when building began (null: empty chain)
    vek_u32 markLen;

    Builder(VekData* chain, vek_s32 blkSize)
        : first(chain), tail(VekDatas_tail(chain)), blk(blk_size(blkSize)), mark(tail),
          markLen(tail ? tail->len : 0) {}

    // Room for at least one byte at the end, or false.
    bool room() {
        if (tail && tail->len < tail->size) {
            return true;
        }
        VekData* b = data_alloc(blk);
        if (!b) {
            return false;
        }
        (tail ? tail->next : first) = b;
        tail = b;
        return true;
    }

    bool put(const void* data, size_t n) {
        const vek_u8* p = (const vek_u8*)data;
        while (n) {
            if (!room()) {
                return false;
            }
            size_t k = std::min(n, (size_t)(tail->size - tail->len));
            std::memcpy(tail->buf + tail->len, p, k);
            tail->len += (vek_u32)k;
            p += k;
            n -= k;
        }
        return true;
    }

    void undo() {
        if (mark) {
            VekDatas_delete(mark->next);
            mark->next = nullptr;
            mark->len = markLen;
        } else {
            VekDatas_delete(first);
            first = nullptr;
        }
        tail = mark;
    }
};

// Calls fn(bytes, n) for the chain's bytes from offset off, at most len
// of them (negative: all); stops when fn returns false.
template <class Fn>
bool each_run(const VekData* blk, vek_s64 off, vek_s64 len, Fn fn) {
    for (; blk && len != 0; blk = blk->next) {
        if (off >= blk->len) {
            off -= blk->len;
            continue;
        }
        vek_s64 n = (vek_s64)blk->len - off;
        if (len >= 0 && n > len) {
            n = len;
        }
        if (!fn(blk->buf + off, (size_t)n)) {
            return false;
        }
        off = 0;
        if (len > 0) {
            len -= n;
        }
    }
    return true;
}

bool bytes_arg_ok(const void* data, vek_s32 len) {
    if (len < 0 || (!data && len > 0)) {
        VEK_ASSERT(data || len == 0);
        return false;
    }
    return true;
}

vek_s32 make_slice(VekData** out, const VekData* first, vek_s64 off, vek_s64 len, vek_s32 blkSize) {
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    *out = nullptr;
    if (off < 0) {
        return VEK_ERR_BAD_ARG;
    }
    Builder b(nullptr, blkSize);
    if (!each_run(first, off, len, [&](const vek_u8* p, size_t n) { return b.put(p, n); })) {
        b.undo();
        return VEK_ERR_FULL;
    }
    *out = b.first;
    return 0;
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

/* ---- VekDatas ---- */

VEK_API void VekDatas_delete(VekData* first) {
    while (first) {
        first = VekData_delete(first);
    }
}

VEK_API vek_s64 VekDatas_len(const VekData* first) {
    vek_s64 n = 0;
    for (; first; first = first->next) {
        n += first->len;
    }
    return n;
}

VEK_API vek_s32 VekDatas_count(const VekData* first) {
    vek_s32 n = 0;
    for (; first; first = first->next) {
        n++;
    }
    return n;
}

VEK_API VekData* VekDatas_tail(VekData* first) {
    while (first && first->next) {
        first = first->next;
    }
    return first;
}

VEK_API vek_s32 VekDatas_fromBuf(VekData** out, const void* data, vek_s32 len, vek_s32 blkSize) {
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    *out = nullptr;
    return VekDatas_appd(out, data, len, blkSize);
}

VEK_API vek_s32 VekDatas_appd(VekData** first, const void* data, vek_s32 len, vek_s32 blkSize) {
    if (!first) {
        VEK_ASSERT(first);
        return VEK_ERR_BAD_ARG;
    }
    if (!bytes_arg_ok(data, len)) {
        return VEK_ERR_BAD_ARG;
    }
    Builder b(*first, blkSize);
    if (!b.put(data, (size_t)len)) {
        b.undo();
        return VEK_ERR_FULL;
    }
    *first = b.first;
    return 0;
}

VEK_API vek_s32 VekDatas_read(const VekData* first, vek_s64 off, void* buf, vek_s32 len) {
    if (off < 0 || !bytes_arg_ok(buf, len)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_u8* o = (vek_u8*)buf;
    each_run(first, off, len, [&](const vek_u8* p, size_t n) {
        std::memcpy(o, p, n);
        o += n;
        return true;
    });
    return (vek_s32)(o - (vek_u8*)buf);
}

VEK_API vek_s32 VekDatas_copy(VekData** out, const VekData* first, vek_s32 blkSize) {
    return make_slice(out, first, 0, -1, blkSize);
}

VEK_API vek_s32 VekDatas_slice(VekData** out, const VekData* first, vek_s64 off, vek_s64 len,
                               vek_s32 blkSize) {
    return make_slice(out, first, off, len, blkSize);
}

VEK_API vek_s32 VekDatas_cmp(const VekData* a, const VekData* b) {
    vek_u32 ia = 0, ib = 0;
    for (;;) {
        while (a && ia >= a->len) {
            a = a->next;
            ia = 0;
        }
        while (b && ib >= b->len) {
            b = b->next;
            ib = 0;
        }
        if (!a || !b) {
            return a ? 1 : b ? -1 : 0;
        }
        vek_u32 n = std::min(a->len - ia, b->len - ib);
        int d = std::memcmp(a->buf + ia, b->buf + ib, n);
        if (d) {
            for (vek_u32 i = 0;; i++) {
                if (a->buf[ia + i] != b->buf[ib + i]) {
                    return (vek_s32)a->buf[ia + i] - (vek_s32)b->buf[ib + i];
                }
            }
        }
        ia += n;
        ib += n;
    }
}

VEK_API vek_s32 VekDatas_toStrm(const VekData* first, IStrm* dst) {
    if (!dst) {
        VEK_ASSERT(dst);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 err = 0;
    each_run(first, 0, -1, [&](const vek_u8* p, size_t n) {
        while (n) {
            vek_s32 w = IStrm_write(dst, p, (vek_s32)n);
            if (w <= 0) {
                err = w < 0 ? w : VEK_ERR_WRITE_NOTHING;
                return false;
            }
            p += w;
            n -= (size_t)w;
        }
        return true;
    });
    return err;
}

VEK_API vek_s32 VekDatas_fromStrm(VekData** out, IStrm* src, vek_s64 maxLen, vek_s32 blkSize) {
    if (!out || !src) {
        VEK_ASSERT(out && src);
        return VEK_ERR_BAD_ARG;
    }
    *out = nullptr;
    Builder b(nullptr, blkSize);
    vek_s64 got = 0;
    while (maxLen < 0 || got < maxLen) {
        if (!b.room()) {
            b.undo();
            return VEK_ERR_FULL;
        }
        vek_s64 want = (vek_s64)(b.tail->size - b.tail->len);
        if (maxLen >= 0 && want > maxLen - got) {
            want = maxLen - got;
        }
        vek_s32 r = IStrm_read(src, b.tail->buf + b.tail->len, (vek_s32)want);
        if (r < 0) {
            b.undo();
            return r;
        }
        if (r == 0) {
            break;
        }
        b.tail->len += (vek_u32)r;
        got += r;
    }
    // A block made for a read that found the end stays out of the chain.
    if (b.tail && b.tail->len == 0) {
        VekData* last = b.tail;
        VekData* prev = nullptr;
        for (VekData* p = b.first; p != last; p = p->next) {
            prev = p;
        }
        (prev ? prev->next : b.first) = nullptr;
        VekData_delete(last);
    }
    *out = b.first;
    return 0;
}

} // extern "C"
