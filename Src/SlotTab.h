/*
 * SlotTab.h - records named by 64-bit ids that go stale (internal).
 *
 * The timers and the tasks hand their users ids, not pointers: a user may
 * keep an id after its record is gone, and must then get "no such record",
 * never a newer record that took the same place. A SlotTab keeps records
 * of one type in chunks of the tracked heap, with a free list:
 *
 *   dir_ -> chunk 0: [rec 0][rec 1] ... [rec 1023]
 *           chunk 1: [rec 1024] ...
 *
 *   id = generation << 32 | index     (generation never 0, so no id is 0)
 *
 * Freeing a record bumps its slot's generation, so every id of the old
 * record goes stale. When the last record is freed the table gives back
 * every chunk but the first (a burst of a million timers does not keep its
 * memory), and the generations of chunks made later start above every
 * generation handed out before, so ids stay unique across the shrink.
 *
 * T provides: vek_u32 slotGen, slotIdx; bool slotLive; T* slotNext (the
 * free-list link; a free record is on no other list, so T may share it).
 * Not thread-safe: the owner's lock guards the table.
 */
#ifndef VEK_SLOTTAB_H
#define VEK_SLOTTAB_H

#include <cstring>
#include <new>
#include "VekType.h"
#include "MemUtil.h"

namespace vek {

template <class T>
class SlotTab {
  public:
    static constexpr vek_u32 kChunkBits = 10;
    static constexpr vek_u32 kChunk = 1u << kChunkBits;

    SlotTab() = default;
    SlotTab(const SlotTab&) = delete;
    SlotTab& operator=(const SlotTab&) = delete;
    ~SlotTab() { clear(); }

    /* A free record (slotLive set, everything else as it was left), or
     * null when no memory is left. */
    T* alloc() {
        if (!free_ && !grow()) {
            return nullptr;
        }
        T* r = free_;
        free_ = r->slotNext;
        r->slotNext = nullptr;
        r->slotLive = true;
        live_++;
        return r;
    }

    void release(T* r) {
        r->slotLive = false;
        if (r->slotGen > maxGen_) {
            maxGen_ = r->slotGen;
        }
        r->slotGen = r->slotGen == 0xFFFFFFFFu ? 1 : r->slotGen + 1;
        r->slotNext = free_;
        free_ = r;
        if (--live_ == 0 && nDir_ > 1) {
            shrink();
        }
    }

    /* The live record of id, or null. */
    T* find(vek_u64 id) const {
        vek_u32 idx = (vek_u32)id;
        vek_u32 c = idx >> kChunkBits;
        if (c >= nDir_) {
            return nullptr;
        }
        T* r = &dir_[c][idx & (kChunk - 1)];
        return r->slotLive && r->slotGen == (vek_u32)(id >> 32) ? r : nullptr;
    }

    static vek_u64 id(const T* r) { return (vek_u64)r->slotGen << 32 | r->slotIdx; }

    vek_u32 live() const { return live_; }

    /* Calls f(record) for every live record. */
    template <class F>
    void each(F f) {
        for (vek_u32 c = 0; c < nDir_; c++) {
            for (vek_u32 i = 0; i < kChunk; i++) {
                if (dir_[c][i].slotLive) {
                    f(&dir_[c][i]);
                }
            }
        }
    }

    /* Frees every chunk; records still live are dropped with them. */
    void clear() {
        for (vek_u32 c = 0; c < nDir_; c++) {
            free_chunk(dir_[c]);
        }
        vek_free__(dir_);
        dir_ = nullptr;
        nDir_ = capDir_ = 0;
        free_ = nullptr;
        live_ = 0;
    }

  private:
    bool grow() {
        if (nDir_ == capDir_) {
            vek_u32 cap = capDir_ ? capDir_ * 2 : 8;
            if (cap > (1u << (32 - kChunkBits))) {
                return false;  // every 32-bit index is taken
            }
            T** dir = (T**)vek_malloc__(sizeof(T*) * cap);
            if (!dir) {
                return false;
            }
            if (nDir_) {
                std::memcpy(dir, dir_, sizeof(T*) * nDir_);
            }
            vek_free__(dir_);
            dir_ = dir;
            capDir_ = cap;
        }
        T* chunk = (T*)vek_malloc__(sizeof(T) * kChunk);
        if (!chunk) {
            return false;
        }
        vek_u32 gen = maxGen_ == 0xFFFFFFFFu ? 1 : maxGen_ + 1;
        for (vek_u32 i = kChunk; i-- > 0;) {  // low indices first on the free list
            T* r = new (&chunk[i]) T();
            r->slotGen = gen;
            r->slotIdx = nDir_ << kChunkBits | i;
            r->slotLive = false;
            r->slotNext = free_;
            free_ = r;
        }
        dir_[nDir_++] = chunk;
        return true;
    }

    /* No record is live: keep the first chunk only. */
    void shrink() {
        for (vek_u32 c = 1; c < nDir_; c++) {
            for (vek_u32 i = 0; i < kChunk; i++) {
                if (dir_[c][i].slotGen > maxGen_) {
                    maxGen_ = dir_[c][i].slotGen;
                }
            }
            free_chunk(dir_[c]);
        }
        nDir_ = 1;
        free_ = nullptr;
        for (vek_u32 i = kChunk; i-- > 0;) {
            dir_[0][i].slotNext = free_;
            free_ = &dir_[0][i];
        }
    }

    static void free_chunk(T* chunk) {
        for (vek_u32 i = 0; i < kChunk; i++) {
            chunk[i].~T();
        }
        vek_free__(chunk);
    }

    T** dir_ = nullptr;
    vek_u32 nDir_ = 0;
    vek_u32 capDir_ = 0;
    T* free_ = nullptr;
    vek_u32 live_ = 0;
    vek_u32 maxGen_ = 0;  // the highest generation a freed record had
};

} // namespace vek

#endif /* VEK_SLOTTAB_H */
