/*
 * SlotTab.h - records named by 64-bit ids that go stale (internal).
 *
 * The timers and the tasks hand their users ids, not pointers: a user may
 * keep an id after its record is gone, and must then get "no such record",
 * never a newer record that took the same place. A SlotTab keeps records
 * in chunks of the tracked heap, with a free list threaded by index:
 *
 *   dir_ -> chunk 0: [T 0][T 1] ... [T 1023] [C 0][C 1] ... [C 1023]
 *           chunk 1: [T 1024] ...            [C 1024] ...
 *
 *   id = generation << 32 | index
 *
 * A record is T, the part its owner's hot paths touch, and optionally C,
 * a cold companion in a parallel array, so that the hot parts pack densely
 * into cache lines (chunks start on a 64-byte boundary). A slot's
 * generation is odd while the record lives and even while it is free;
 * alloc and release each add one. Every id therefore has an odd, non-zero
 * generation (no id is 0), and an id kept after its record was freed names
 * nothing.
 *
 * Once no record lives, compact gives back every chunk but the first (a
 * burst of a million timers does not keep its memory); the chunks made
 * later start above every generation handed out before, so ids stay unique
 * across it. A table made with autoCompact does so whenever its last record
 * is freed; the others when their owner says (a pool of tasks that empties
 * and fills in bursts would otherwise make and free its chunks each time).
 *
 * T provides vek_u32 slotGen and vek_u32 slotNext (the free-list link; a
 * free record is on no other list, so T may share it with one of its own
 * links). Not thread-safe: the owner's lock guards the table, but for
 * release_async, which a thread that owns a live record may call without
 * that lock: its id goes stale at once, and the record waits on a list of
 * its own (pushed without a lock) until an alloc that finds no free record
 * takes the whole list back. A table whose records end on other threads
 * than they start on thereby keeps its lock to the threads that start them.
 */
#ifndef VEK_SLOTTAB_H
#define VEK_SLOTTAB_H

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include "VekType.h"
#include "MemUtil.h"

namespace vek {

struct SlotNoCold {};

template <class T, class C = SlotNoCold>
class SlotTab {
  public:
    static constexpr vek_u32 kChunkBits = 10;
    static constexpr vek_u32 kChunk = 1u << kChunkBits;
    static constexpr vek_u32 kNone = 0xFFFFFFFFu;

    explicit SlotTab(bool autoCompact) : autoCompact_(autoCompact) {}
    SlotTab(const SlotTab&) = delete;
    SlotTab& operator=(const SlotTab&) = delete;
    ~SlotTab() { clear(); }

    /* The index of a free record, now live (its fields as they were left),
     * or kNone when no memory is left. */
    vek_u32 alloc() {
        if (free_ == kNone && !adopt() && !grow()) {
            return kNone;
        }
        vek_u32 idx = free_;
        T* r = at(idx);
        free_ = r->slotNext;
        r->slotGen++;  // odd: live
        live_++;
        if (free_ != kNone) {
            __builtin_prefetch(at(free_), 1);  // for the next alloc of a burst
        }
        return idx;
    }

    /* Without the owner's lock, by the thread that owns live record idx
     * (see above). */
    void release_async(vek_u32 idx) {
        T* r = at(idx);
        __atomic_store_n(&r->slotGen, r->slotGen + 1, __ATOMIC_RELAXED);  // even: free
        vek_u64 head = retired_.load(std::memory_order_relaxed);
        vek_u64 next;
        do {  // the list's head index, and in the high half its length
            r->slotNext = (vek_u32)head;
            next = ((head >> 32) + 1) << 32 | idx;
        } while (!retired_.compare_exchange_weak(head, next, std::memory_order_release,
                                                 std::memory_order_relaxed));
    }

    void release(vek_u32 idx) {
        T* r = at(idx);
        r->slotGen++;  // even: free
        if (r->slotGen > maxGen_) {
            maxGen_ = r->slotGen;
        }
        r->slotNext = free_;
        free_ = idx;
        if (--live_ == 0 && autoCompact_) {
            compact();
        }
    }

    /* Makes the first chunk now (the owner's start, rather than its first
     * record, pays for it). */
    void prime() {
        if (nDir_ == 0) {
            grow();
        }
    }

    /* No record lives: keeps the first chunk only. */
    void compact() {
        adopt();
        if (live_ != 0 || nDir_ <= 1) {
            return;
        }
        for (vek_u32 c = 1; c < nDir_; c++) {
            for (vek_u32 i = 0; i < kChunk; i++) {
                if (dir_[c].hot[i].slotGen > maxGen_) {
                    maxGen_ = dir_[c].hot[i].slotGen;
                }
            }
            free_chunk(dir_[c]);
        }
        nDir_ = 1;
        free_ = kNone;
        for (vek_u32 i = kChunk; i-- > 0;) {
            dir_[0].hot[i].slotNext = free_;
            free_ = i;
        }
    }

    T* at(vek_u32 idx) const { return &dir_[idx >> kChunkBits].hot[idx & (kChunk - 1)]; }
    C* cold(vek_u32 idx) const { return &dir_[idx >> kChunkBits].cold[idx & (kChunk - 1)]; }

    /* The index of the live record of id, or kNone. */
    vek_u32 find(vek_u64 id) const {
        vek_u32 idx = (vek_u32)id;
        if ((idx >> kChunkBits) >= nDir_) {
            return kNone;
        }
        vek_u32 gen = __atomic_load_n(&at(idx)->slotGen, __ATOMIC_RELAXED);
        return (gen & 1) && gen == (vek_u32)(id >> 32) ? idx : kNone;
    }

    vek_u64 id(vek_u32 idx) const { return (vek_u64)gen(idx) << 32 | idx; }

    vek_u32 live() const { return live_; }

    /* Calls f(index) for every live record. */
    template <class F>
    void each(F f) const {
        for (vek_u32 idx = 0; idx < nDir_ << kChunkBits; idx++) {
            if (gen(idx) & 1) {
                f(idx);
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
        free_ = kNone;
        live_ = 0;
        retired_.store(kNone, std::memory_order_relaxed);  // empty: no length, no index
    }

  private:
    /* A slot's generation; release_async may change it meanwhile. */
    vek_u32 gen(vek_u32 idx) const { return __atomic_load_n(&at(idx)->slotGen, __ATOMIC_RELAXED); }

    /* Called when no record is free: the records of release_async become
     * the free list as they stand (their list ends as a free list does),
     * without a walk over records that other cores have just written.
     * Their generations need not reach maxGen_: it matters only for chunks
     * made again after compact, which reads every record it frees. False
     * when there were none. */
    bool adopt() {
        vek_u64 list = retired_.exchange(kNone, std::memory_order_acquire);
        if ((vek_u32)list == kNone) {
            return false;
        }
        live_ -= (vek_u32)(list >> 32);
        vek_u32 idx = (vek_u32)list;
        if (free_ != kNone) {  // compact's call, which may find free ones: join them
            vek_u32 last = idx;
            while (at(last)->slotNext != kNone) {
                last = at(last)->slotNext;
            }
            at(last)->slotNext = free_;
        }
        free_ = idx;
        return true;
    }

    struct Chunk {
        void* raw;  // as allocated; the arrays start on a 64-byte boundary
        T* hot;
        C* cold;
    };

    bool grow() {
        if (nDir_ == capDir_) {
            vek_u32 cap = capDir_ ? capDir_ * 2 : 8;
            if (cap > (1u << (32 - kChunkBits))) {
                return false;  // every 32-bit index is taken
            }
            Chunk* dir = (Chunk*)vek_malloc__(sizeof(Chunk) * cap);
            if (!dir) {
                return false;
            }
            if (nDir_) {
                std::memcpy((void*)dir, (void*)dir_, sizeof(Chunk) * nDir_);
            }
            vek_free__(dir_);
            dir_ = dir;
            capDir_ = cap;
        }
        size_t hotSize = (sizeof(T) * kChunk + 63) & ~(size_t)63;
        void* raw = vek_malloc__(hotSize + sizeof(C) * kChunk + 64);
        if (!raw) {
            return false;
        }
        char* base = (char*)(((uintptr_t)raw + 63) & ~(uintptr_t)63);
        Chunk& ch = dir_[nDir_];
        ch.raw = raw;
        ch.hot = (T*)base;
        ch.cold = (C*)(base + hotSize);
        vek_u32 gen = (maxGen_ + 2) & ~1u;  // even, above all given out
        for (vek_u32 i = kChunk; i-- > 0;) {  // low indices first on the free list
            new (&ch.cold[i]) C();
            T* r = new (&ch.hot[i]) T();
            r->slotGen = gen;
            r->slotNext = free_;
            free_ = nDir_ << kChunkBits | i;
        }
        nDir_++;
        return true;
    }

    static void free_chunk(Chunk& ch) {
        for (vek_u32 i = 0; i < kChunk; i++) {
            ch.hot[i].~T();
            ch.cold[i].~C();
        }
        vek_free__(ch.raw);
    }

    // Read by every call, changed only as chunks come and go.
    const bool autoCompact_;
    Chunk* dir_ = nullptr;
    vek_u32 nDir_ = 0;
    vek_u32 capDir_ = 0;
    char pad0_[64];
    vek_u32 free_ = kNone;
    vek_u32 live_ = 0;
    vek_u32 maxGen_ = 0;  // the highest generation a freed record had
    // release_async's list, away from the fields alloc changes
    char pad1_[64];
    std::atomic<vek_u64> retired_{kNone};
};

} // namespace vek

#endif /* VEK_SLOTTAB_H */
