/*
 * HeapMon.cpp - the heap monitor: every tracked block carries a header and
 * guards (see MemUtil.h) and sits in a doubly linked list of live blocks, so
 * leaks can be counted and listed and corruption found.
 *
 * Two lists: blocks allocated before the application phase began ("pre",
 * the library's own load-level allocations and static objects) and those
 * allocated after ("app"). Only the second kind are leaks at BaseLib_exit;
 * the first are reported as ignored.
 *
 * A free proves ownership in constant time (head guard, check word, and both
 * neighbours pointing back at the block, or the block being an end of its
 * list) instead of walking the list, so the monitor stays fast with many
 * live blocks.
 *
 * Threads. Every allocation of the library comes here from every thread, so
 * one lock for the lists would make all threads take turns. Instead each
 * thread that allocates from a monitor owns a shard of it: its own pair of
 * lists, its live count and a few released blocks kept for reuse. A block
 * records its shard and its monitor in one word behind its recorded stack
 * (the OS allocator is asked for that word beyond the raw size), so a block
 * of another monitor is refused too.
 *
 *   - The owner changes its shard on the common path with no atomic
 *     read-modify-write: it raises the shard's busy flag, reads the hold
 *     count, makes its change and lowers the flag.
 *   - A walker (leak report, verification, statistics, start of the
 *     application phase) takes each shard's mutex and raises its hold count,
 *     then makes every thread of the process pass a memory barrier
 *     (plat::process_barrier) and waits until no owner is busy. An owner
 *     that finds its shard held waits for the mutex instead. So the rare
 *     walker pays for the ordering the owner would otherwise pay on every
 *     call. Where the system has no such barrier (and under
 *     ThreadSanitizer, which cannot see one) the owner fences itself.
 *   - A block freed by another thread is not unlinked by that thread: it is
 *     queued on its shard (one compare-exchange, after another that claims
 *     the block against a second free) and unlinked by the owner at its next
 *     call, or by the next walker. The ownership proof of a queued block is
 *     made there, where the neighbours cannot move.
 *   - When a thread ends its shards become orphans: their blocks stay listed
 *     and are freed under the shard's mutex; a new thread adopts an orphan
 *     before it makes a shard of its own.
 *   - Shard 0 never has an owner. Monitors over a foreign allocator (whose
 *     blocks must be exactly the raw size) and monitors that verify the heap
 *     on every allocation keep all blocks there, under its mutex; so does a
 *     thread past its exit hook.
 *
 * Statistics: the live block count is kept per shard and summed by a
 * walker. With RecStatInfo the byte totals and the peaks are shared atomic
 * counters, updated when the caller allocates or frees (also when the block
 * waits in a queue), so a peak is the true high-water mark of the process.
 */
#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <thread>
#include "AlPlat.h"
#include "AlSync.h"
#include "ObjModel.h"
#include "SpinWait.h"
#include "VekCore.h"

namespace {

struct HeapBlk {
    HeapBlk* prev;
    HeapBlk* next;
    vek_u32 rawSize;
    vek_u32 reqSize;
    vek_u32 check;
    vek_u32 headGuard;
};
static_assert(sizeof(void*) != 4 || sizeof(HeapBlk) == 24, "24-byte block header on 32-bit");
static_assert(sizeof(HeapBlk) % 8 == 0, "caller bytes stay 8-byte aligned");

constexpr vek_u32 kGuardHead = VEK_HEAP_GUARD_HEAD;
constexpr vek_u32 kGuardTail = VEK_HEAP_GUARD_TAIL;
constexpr vek_u32 kFreedGuard = 0xFEEDFA11u;   // written over a released header
constexpr vek_u32 kQueuedGuard = 0xFEEDC0DEu;  // freed by another thread, not yet unlinked
constexpr vek_s32 kMaxStack = 256;
constexpr vek_u32 kHeapMonCls = 0x4E6D3Au;
constexpr size_t kMaxReq = 0x7FFFFF00u;  // the header's size fields are 32-bit
constexpr size_t kLine = 64;
constexpr unsigned kShardBits = 10;
constexpr vek_u32 kMaxShards = 1u << kShardBits;  // beyond it threads share shard 0
constexpr int kBindings = 8;  // monitors a thread owns a shard of at once

// Released blocks kept for reuse, by allocation size rounded up to
// kBinStep. Only over the OS allocator (whose blocks are interchangeable),
// and not under a sanitizer, which should see each release.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VEK_HEAP_BINS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VEK_HEAP_BINS 0
#endif
#endif
#ifndef VEK_HEAP_BINS
#define VEK_HEAP_BINS 1
#endif
#if defined(__SANITIZE_THREAD__)
#define VEK_HEAP_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEK_HEAP_TSAN 1
#endif
#endif
constexpr size_t kBinStep = 32;
constexpr size_t kBinCount = 64;  // sizes up to 2 KiB
// Blocks a shard keeps of each size class: about 16 KiB of each, 4 to
// 256 (a thread that takes back what others freed for it reuses them
// instead of going through the allocator twice).
struct BinCaps {
    vek_u16 cap[kBinCount];
    constexpr BinCaps() : cap() {
        for (size_t i = 0; i < kBinCount; i++) {
            size_t n = 16384 / ((i + 1) * kBinStep);
            cap[i] = (vek_u16)(n < 4 ? 4 : n > 256 ? 256 : n);
        }
    }
};
constexpr BinCaps kBinCaps;

// The common path reads the thread's bindings on every call: keep them in
// the static TLS block where the platform has one.
#if defined(__ELF__)
#define VEK_TLS_FAST __attribute__((tls_model("initial-exec")))
#else
#define VEK_TLS_FAST
#endif

struct FreeBlk {
    FreeBlk* next;
};

struct HeapList {
    HeapBlk* head;
    HeapBlk* tail;
};

// Blocks of a shard's queue after its drain: given back outside the change.
struct Drained {
    HeapBlk* done;  // unlinked, linked through next
    HeapBlk* bad;   // not in the lists, linked through the shard word
};

struct Shard {
    vek_u32 idx;
    char pad0[kLine];
    // The owner's, changed on the common path; others only while holding.
    std::atomic<vek_u32> busy;  // the owner is inside a change
    std::atomic<vek_u32> held;  // walkers holding the shard (changed under mtx)
    vek_u32 gen;                // raised when the owner lets the shard go
    vek_u32 tick;               // short-path calls that left the queue for later
    HeapList pre;
    HeapList app;
    vek_s64 liveBlocks;  // may go below zero: only the sum over shards counts
    Drained pend;        // drained by the owner, given back after its change
    FreeBlk* bin[kBinCount];  // the kept blocks (the owner's alone)
    vek_u16 binCnt[kBinCount];
    char pad1[kLine];
    // Other threads'.
    std::atomic<HeapBlk*> remote;  // frees queued by other threads
    std::atomic<vek_u32> orphan;   // no owner: changes are made under mtx
    AlMutex mtx;
};

// Totals shared by all threads, kept with RecStatInfo.
struct StatTotals {
    std::atomic<vek_u64> allocs;
    std::atomic<vek_s64> blocks, bytes, raw;
    std::atomic<vek_s64> peakBlocks, peakBytes, peakRaw;
};

struct HeapMon {
    vek_u32 cls;
    AlAtom ref;
    const IHeapMonVtbl* vtbl;
    char name[32];
    vek_malloc_fn allocFn;
    vek_free_fn freeFn;
    void* (*reallocFn)(void*, size_t);  // resizes in place where it can; null: copy
    vek_fault_fn faultFn;
    vek_s32 leakChkLev;
    vek_s32 crashChkLev;
    vek_s32 recStatInfo;
    bool useBins;
    bool sharded;  // blocks carry their shard; else all live in shard 0
    bool plain;    // sharded, no recorded stacks, no statistics: the short path
    bool asym;     // owners enter without a fence: walkers use the process barrier
    vek_u64 id;    // never reused, unlike the address
    uintptr_t tag;  // the monitor's part of its blocks' shard words
    HeapMon* nextLive;
    vek_s32 reported;  // the application phase's leak report was made (changed holding all)
    std::atomic<vek_u32> shardCnt;
    char pad0[kLine];
    StatTotals tot;
    char pad1[kLine];
    std::atomic<Shard*> shard[kMaxShards];
};

// ---- the monitors alive, and each thread's shards ----

// Guards the list of live monitors, their shard tables and adoption; held
// briefly and never while waiting for a shard.
struct Registry {
    std::atomic<vek_u32> lock;
    HeapMon* first;
    vek_u64 lastId;
};
Registry g_reg;

using vek::spin_wait;

void reg_lock() {
    for (unsigned spin = 0; g_reg.lock.exchange(1, std::memory_order_acquire);) {
        spin_wait(spin);
    }
}

void reg_unlock() {
    g_reg.lock.store(0, std::memory_order_release);
}

HeapMon* reg_find(vek_u64 id) {
    for (HeapMon* m = g_reg.first; m; m = m->nextLive) {
        if (m->id == id) {
            return m;
        }
    }
    return nullptr;
}

// A thread owns a shard while its binding's generation is the shard's:
// once the thread has let it go (at its end) a binding left behind is
// stale, however the thread-local variables fare.
struct Binding {
    vek_u64 monId;   // 0: free
    Shard* shard;
    uintptr_t word;  // the shard word of the shard's blocks
    vek_u32 gen;
};
VEK_TLS_FAST thread_local Binding t_bind[kBindings];

// The bindings again, in memory of the heap's own, for the thread's end:
// found through the platform's thread-end value, since the thread-local
// copy may be gone by then.
struct ThreadRec {
    Binding bind[kBindings];
    // Every thread's record is on one list (under the registry lock): a
    // thread that ends after the hook is gone (a detached thread running
    // past the process's exit) leaves its record reachable, not lost.
    ThreadRec* prev;
    ThreadRec* next;
};
ThreadRec* g_recs;
std::atomic<bool> g_unloading;  // the end hook only frees records then

__attribute__((noinline)) Binding* find_binding(vek_u64 id) {
    for (int i = 1; i < kBindings; i++) {
        if (t_bind[i].monId == id) {
            return &t_bind[i];
        }
    }
    return nullptr;
}

// The calling thread's binding to m, or null. A thread's first monitor is
// nearly always the process heap: it is looked at first.
inline Binding* my_binding(HeapMon* m) {
    Binding* b = t_bind[0].monId == m->id ? &t_bind[0] : find_binding(m->id);
    return b && b->shard->gen == b->gen ? b : nullptr;
}

// ---- block layout ----

size_t round8(size_t n) {
    return (n + 7) & ~(size_t)7;
}
vek_u32* tail_guard(HeapBlk* b) {
    return (vek_u32*)((char*)(b + 1) + round8(b->reqSize));
}
vek_u32 stack_count(HeapBlk* b) {
    vek_u32 n;
    std::memcpy(&n, tail_guard(b) + 1, sizeof n);
    return n;
}
void** stack_entries(HeapBlk* b) {
    return (void**)(tail_guard(b) + 2);
}
size_t raw_size(size_t req, vek_s32 entries) {
    return round8(req) + sizeof(HeapBlk) + 2 * sizeof(vek_u32) + (size_t)entries * sizeof(void*);
}

// The word behind the recorded stack, at the raw size: the block's shard
// (the monitor's tag and the shard's index) while it is live, the link of
// its shard's queue once another thread freed it. Others may read it while
// the owner writes it only when a block is freed twice at once, but even
// then it must not tear. A block of a monitor over a foreign allocator
// handed to this one has no such word: the read then passes the end of its
// allocation, like header_ok's reads, and finds no matching tag.
uintptr_t* trailer(HeapBlk* b) {
    return (uintptr_t*)((char*)b + b->rawSize);
}
__attribute__((no_sanitize("address"))) uintptr_t trailer_get(HeapBlk* b) {
    return __atomic_load_n(trailer(b), __ATOMIC_RELAXED);
}
void trailer_set(HeapBlk* b, uintptr_t v) {
    __atomic_store_n(trailer(b), v, __ATOMIC_RELAXED);
}

vek_u32 guard_of(HeapBlk* b) {
    return __atomic_load_n(&b->headGuard, __ATOMIC_RELAXED);
}

// What the underlying allocator is asked for: the raw size, the shard word,
// and, where released blocks are kept, rounded up to the size class so any
// block of a class fits any request of it.
inline size_t block_size(bool sharded, bool bins, size_t raw) {
    size_t n = raw + (sharded ? sizeof(uintptr_t) : 0);
    return bins && n <= kBinStep * kBinCount ? (n + kBinStep - 1) & ~(kBinStep - 1) : n;
}

void fill_block(HeapBlk* b, size_t raw, size_t size, void* const* frames, vek_s32 n) {
    b->rawSize = (vek_u32)raw;
    b->reqSize = (vek_u32)size;
    b->check = ((vek_u32)raw + (vek_u32)size) ^ kGuardHead;
    b->headGuard = kGuardHead;
    vek_u32* tg = tail_guard(b);
    *tg = kGuardTail;
    vek_u32 cnt = (vek_u32)n;
    std::memcpy(tg + 1, &cnt, sizeof cnt);
    if (n > 0) {
        std::memcpy(stack_entries(b), frames, (size_t)n * sizeof(void*));
    }
}

void mark_freed(HeapBlk* b) {
    __atomic_store_n(&b->headGuard, kFreedGuard, __ATOMIC_RELAXED);  // a second release is refused
}

const char kSrc[] = __FILE__;
const VekGuid kIidHeapMon = VEK_IID_IHEAPMON_INIT;
void heap_mon_delete(HeapMon* m);
using Cls = vek::ObjClass<HeapMon, IHeapMon, kHeapMonCls, heap_mon_delete, &kIidHeapMon, kSrc>;

// The header of a block the caller claims; the head guard and check word
// are tested before anything else is read through it. For a pointer the
// monitor never handed out this reads memory in front of someone else's
// block on purpose, which a sanitizer would call an overflow (or, where the
// bytes in front belong to a released block, a use after free).
__attribute__((no_sanitize("address", "thread"))) bool header_ok(const HeapBlk* b) {
    return b->headGuard == kGuardHead && b->check == ((b->rawSize + b->reqSize) ^ kGuardHead);
}

// ---- lists of one shard ----

bool linked_in(Shard* s, HeapBlk* b) {
    bool prevOk = b->prev ? b->prev->next == b : (s->pre.head == b || s->app.head == b);
    bool nextOk = b->next ? b->next->prev == b : (s->pre.tail == b || s->app.tail == b);
    return prevOk && nextOk;
}

void link_tail(HeapList& l, HeapBlk* b) {
    b->next = nullptr;
    b->prev = l.tail;
    if (l.tail) {
        l.tail->next = b;
    } else {
        l.head = b;
    }
    l.tail = b;
}

// Points whatever pointed at b (a neighbour or an end of s's lists) at nb
// instead: nb null unlinks b, otherwise nb takes b's place.
void relink(Shard* s, HeapBlk* prev, HeapBlk* next, bool preHead, bool preTail, HeapBlk* nb) {
    if (prev) {
        prev->next = nb ? nb : next;
    } else if (preHead) {
        s->pre.head = nb ? nb : next;
    } else {
        s->app.head = nb ? nb : next;
    }
    if (next) {
        next->prev = nb ? nb : prev;
    } else if (preTail) {
        s->pre.tail = nb ? nb : prev;
    } else {
        s->app.tail = nb ? nb : prev;
    }
}

void unlink_in(Shard* s, HeapBlk* b) {
    relink(s, b->prev, b->next, s->pre.head == b, s->pre.tail == b, nullptr);
    s->liveBlocks--;
}

// Unlinks b from s when both its neighbours (or the ends of s's lists)
// point at it: the constant-time proof that s holds the block. False, and
// nothing changed, when it does not.
inline bool unlink_held(Shard* s, HeapBlk* b) {
    HeapBlk* prev = b->prev;
    HeapBlk* next = b->next;
    HeapBlk** toMe = prev ? &prev->next : s->pre.head == b ? &s->pre.head : &s->app.head;
    HeapBlk** fromMe = next ? &next->prev : s->pre.tail == b ? &s->pre.tail : &s->app.tail;
    if (*toMe != b || *fromMe != b) {
        return false;
    }
    *toMe = next;
    *fromMe = prev;
    s->liveBlocks--;
    return true;
}

// ---- statistics ----

void raise_peak(std::atomic<vek_s64>& peak, vek_s64 v) {
    vek_s64 cur = peak.load(std::memory_order_relaxed);
    while (v > cur && !peak.compare_exchange_weak(cur, v, std::memory_order_relaxed)) {
    }
}

void stat_change(HeapMon* m, vek_s64 blocks, vek_s64 bytes, vek_s64 raw) {
    StatTotals& t = m->tot;
    if (blocks > 0) {
        t.allocs.fetch_add(1, std::memory_order_relaxed);
    }
    vek_s64 nb = t.blocks.fetch_add(blocks, std::memory_order_relaxed) + blocks;
    vek_s64 nbytes = t.bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    vek_s64 nraw = t.raw.fetch_add(raw, std::memory_order_relaxed) + raw;
    raise_peak(t.peakBlocks, nb);
    raise_peak(t.peakBytes, nbytes);
    raise_peak(t.peakRaw, nraw);
}

// ---- reports ----

// Heap-monitor texts go to the trace; with tracing off they go to the
// system's debug output, so a leak report is never silently lost.
void heap_out(const char* text, vek_s32 len) {
    if (vek::trc_active()) {
        vek::trc_record(kSrc, __LINE__, vek::kModBase, vek::kFldHeap, 1, text, len);
    } else {
        sys_printf("%s", text);
    }
}

void not_held(HeapMon* m, void* p) {
    static const char kNotHeld[] = "HeapMon::freeMem FAIL, for freeNode not in list";
    heap_out(kNotHeld, (vek_s32)sizeof kNotHeld - 1);
    m->faultFn("%s, %s, ptr=%p", kNotHeld, m->name, p);
}

void tail_broken(HeapMon* m, void* p, vek_u32 req) {
    m->faultFn("HeapMon::freeMem FAIL, for tail guard broken, %s, ptr=%p, size=%u", m->name, p, req);
}

// ---- kept blocks (the owner's alone) ----

inline size_t bin_of(size_t raw) {
    return (raw + sizeof(uintptr_t) - 1) / kBinStep;  // kBinCount and above: not kept
}

inline HeapBlk* bin_pop(Shard* s, size_t raw) {
    size_t bi = bin_of(raw);
    FreeBlk* f = bi < kBinCount ? s->bin[bi] : nullptr;
    if (f) {
        s->bin[bi] = f->next;
        s->binCnt[bi]--;
    }
    return (HeapBlk*)f;
}

inline void bin_put(Shard* s, HeapBlk* b, size_t bi) {
    FreeBlk* f = (FreeBlk*)b;
    f->next = s->bin[bi];
    s->bin[bi] = f;
    s->binCnt[bi]++;
}

inline bool bin_push(Shard* s, HeapBlk* b) {
    size_t bi = bin_of(b->rawSize);
    if (bi >= kBinCount || s->binCnt[bi] >= kBinCaps.cap[bi]) {
        return false;
    }
    bin_put(s, b, bi);
    return true;
}

void bins_free(HeapMon* m, Shard* s) {
    for (size_t i = 0; i < kBinCount; i++) {
        while (FreeBlk* f = s->bin[i]) {
            s->bin[i] = f->next;
            m->freeFn(f);
        }
        s->binCnt[i] = 0;
    }
}

// Gives an unlinked block back: to the owner's kept blocks (s non-null)
// or to the allocator. A block whose tail guard is broken is never kept.
void release_block(HeapMon* m, Shard* s, HeapBlk* b) {
    if (*tail_guard(b) != kGuardTail || !s || !m->useBins || !bin_push(s, b)) {
        m->freeFn(b);
    }
}

// ---- the queue of frees from other threads ----

// Unlinks the blocks other threads queued on s into d; the caller has the
// shard to itself (its owner inside a change, or holding it). They are
// given back afterwards with after_drain, outside the change.
__attribute__((noinline)) void drain(Shard* s, Drained& d) {
    HeapBlk* q = s->remote.exchange(nullptr, std::memory_order_acquire);
    while (q) {
        HeapBlk* next = (HeapBlk*)trailer_get(q);
        if (unlink_held(s, q)) {
            mark_freed(q);
            q->next = d.done;
            d.done = q;
        } else {
            trailer_set(q, (uintptr_t)d.bad);
            d.bad = q;
        }
        q = next;
    }
}

__attribute__((noinline)) void after_drain(HeapMon* m, Shard* owned, Drained& d) {
    for (HeapBlk* b = d.done; b;) {
        HeapBlk* next = b->next;
        release_block(m, owned, b);
        b = next;
    }
    for (HeapBlk* b = d.bad; b;) {
        HeapBlk* next = (HeapBlk*)trailer_get(b);
        not_held(m, b + 1);
        b = next;
    }
    d = Drained{nullptr, nullptr};
}

void push_remote(Shard* s, HeapBlk* b) {
    HeapBlk* head = s->remote.load(std::memory_order_relaxed);
    do {
        trailer_set(b, (uintptr_t)head);
    } while (!s->remote.compare_exchange_weak(head, b, std::memory_order_seq_cst,
                                              std::memory_order_relaxed));
}

// ---- owners and walkers ----

// The owner's entry into a change of its shard. Without the process
// barrier the flag and the hold count are a Dekker pair and need the full
// fence; with it a compiler barrier is enough, the walker's barrier
// providing the other half. False (and nothing entered) when a walker
// holds the shard.
__attribute__((always_inline)) inline bool owner_enter_fast(HeapMon* m, Shard* s) {
    if (m->asym) {
        s->busy.store(1, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    } else {
        s->busy.store(1, std::memory_order_seq_cst);
    }
    if (s->held.load(std::memory_order_seq_cst) == 0) {
        return true;
    }
    s->busy.store(0, std::memory_order_release);
    return false;
}

// The same, waiting: false when a walker held the shard and the owner now
// has the shard's mutex instead of the flag.
inline bool owner_enter(HeapMon* m, Shard* s) {
    if (owner_enter_fast(m, s)) {
        return true;
    }
    AlMutex_lock(&s->mtx);
    return false;
}

__attribute__((always_inline)) inline void owner_leave(Shard* s, bool fast) {
    if (fast) {
        s->busy.store(0, std::memory_order_release);
    } else {
        AlMutex_unlock(&s->mtx);
    }
}

// Takes every shard for a walk: no owner is inside a change when it
// returns, and none starts one until release_all. The mutexes are
// recursive, so a call-out of the walk (a fault procedure that allocates)
// may use the monitor on this thread. Queued frees are completed first.
vek_u32 hold_all(HeapMon* m) {
    vek_u32 n = m->shardCnt.load(std::memory_order_acquire);
    for (vek_u32 i = 0; i < n; i++) {
        Shard* s = m->shard[i].load(std::memory_order_acquire);
        AlMutex_lock(&s->mtx);
        s->held.store(s->held.load(std::memory_order_relaxed) + 1, std::memory_order_seq_cst);
    }
    if (m->asym) {
        plat::process_barrier();
    }
    for (vek_u32 i = 0; i < n; i++) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        for (unsigned spin = 0; s->busy.load(std::memory_order_seq_cst);) {
            spin_wait(spin);
        }
    }
    Drained d{nullptr, nullptr};
    for (vek_u32 i = 0; i < n; i++) {
        drain(m->shard[i].load(std::memory_order_relaxed), d);
    }
    after_drain(m, nullptr, d);
    return n;
}

void release_all(HeapMon* m, vek_u32 n) {
    for (vek_u32 i = n; i-- > 0;) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        s->held.store(s->held.load(std::memory_order_relaxed) - 1, std::memory_order_release);
        AlMutex_unlock(&s->mtx);
    }
}

// ---- shards: creation, adoption, orphans ----

Shard* new_shard(HeapMon* m, vek_u32 idx) {
    void* mem = m->allocFn(sizeof(Shard));
    if (!mem) {
        return nullptr;
    }
    std::memset(mem, 0, sizeof(Shard));
    Shard* s = new (mem) Shard();
    s->idx = idx;
    AlMutex_new(&s->mtx);
    return s;
}

// A shard for the calling thread (under the registry lock): an orphan it
// can take at once, else a new one; null when the table is full or memory
// is out (the thread then uses shard 0).
Shard* adopt_or_create(HeapMon* m) {
    vek_u32 n = m->shardCnt.load(std::memory_order_relaxed);
    for (vek_u32 i = 1; i < n; i++) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        if (s->orphan.load(std::memory_order_relaxed) && AlMutex_trylock(&s->mtx)) {
            bool free = s->orphan.load(std::memory_order_acquire) != 0;  // and the shard's gen
            if (free) {
                s->orphan.store(0, std::memory_order_seq_cst);
            }
            AlMutex_unlock(&s->mtx);
            if (free) {
                return s;
            }
        }
    }
    Shard* s = n < kMaxShards ? new_shard(m, n) : nullptr;
    if (s) {
        m->shard[n].store(s, std::memory_order_release);
        m->shardCnt.store(n + 1, std::memory_order_release);
    }
    return s;
}

// The first allocation of a thread from m: binds it to a shard. A thread
// keeps shards of kBindings monitors; a binding to a monitor that is gone,
// or a stale one to m, is reused. Null: the thread uses shard 0.
__attribute__((noinline)) Binding* bind_shard(HeapMon* m) {
    ThreadRec* rec = (ThreadRec*)plat::thread_end_get();
    if (!rec) {
        rec = (ThreadRec*)al_malloc(sizeof(ThreadRec));
        if (!rec) {
            return nullptr;
        }
        std::memset((void*)rec, 0, sizeof *rec);
        if (!plat::thread_end_set(rec)) {
            al_free(rec);
            return nullptr;
        }
    }
    reg_lock();
    if (!rec->prev && g_recs != rec) {  // new: onto the list
        rec->next = g_recs;
        if (g_recs) {
            g_recs->prev = rec;
        }
        g_recs = rec;
    }
    Binding* slot = nullptr;
    for (Binding& b : t_bind) {
        if (b.monId == 0 || b.monId == m->id || !reg_find(b.monId)) {
            slot = &b;
            break;
        }
    }
    Shard* s = slot ? adopt_or_create(m) : nullptr;
    if (s) {
        *slot = Binding{m->id, s, m->tag | s->idx, s->gen};
        rec->bind[slot - t_bind] = *slot;
    }
    reg_unlock();
    return s ? slot : nullptr;
}

// The owner lets its shard go: its kept blocks back to the allocator, its
// live blocks to whoever frees them under the mutex, and the queue to the
// next holder if a walker has the mutex now (the owner must not wait here).
void orphan_shard(HeapMon* m, Shard* s) {
    bins_free(m, s);
    s->gen++;
    s->orphan.store(1, std::memory_order_seq_cst);
    if (AlMutex_trylock(&s->mtx)) {
        Drained d{nullptr, nullptr};
        drain(s, d);
        AlMutex_unlock(&s->mtx);
        after_drain(m, nullptr, d);
    }
}

// The platform's thread-end hook: the shards of the monitors still alive
// become orphans.
void thread_ends(void* value) {
    ThreadRec* rec = (ThreadRec*)value;
    reg_lock();
    if (!g_unloading.load(std::memory_order_relaxed)) {
        for (const Binding& b : rec->bind) {
            HeapMon* m = b.monId ? reg_find(b.monId) : nullptr;
            if (m && b.shard->gen == b.gen) {
                orphan_shard(m, b.shard);
            }
        }
    }
    if (rec->prev) {
        rec->prev->next = rec->next;
    } else if (g_recs == rec) {
        g_recs = rec->next;
    }
    if (rec->next) {
        rec->next->prev = rec->prev;
    }
    reg_unlock();
    al_free(rec);
}

// The hook is installed with the first monitor and removed when the
// library goes (a thread that ends later must not call into it).
bool end_hook_ready() {
    static const bool ok = plat::thread_end_hook(thread_ends) != 0;
    return ok;
}
struct EndHookRemover {
    ~EndHookRemover() {
        g_unloading.store(true, std::memory_order_relaxed);
        plat::thread_end_hook(nullptr);
    }
} g_endHookRemover;

// The shard a block records, or null when the record is not a shard.
Shard* shard_of(HeapMon* m, HeapBlk* b) {
    if (!m->sharded) {
        return m->shard[0].load(std::memory_order_relaxed);
    }
    uintptr_t word = trailer_get(b);
    uintptr_t idx = word & (kMaxShards - 1);
    if ((word & ~(uintptr_t)(kMaxShards - 1)) != m->tag ||
        idx >= m->shardCnt.load(std::memory_order_acquire)) {
        return nullptr;
    }
    return m->shard[idx].load(std::memory_order_acquire);
}

// ---- allocate ----

// Into the caller's own shard.
void* alloc_own(HeapMon* m, const Binding* bd, size_t size, void* const* frames, vek_s32 n) {
    Shard* own = bd->shard;
    if (own->remote.load(std::memory_order_relaxed)) {
        // Frees of other threads first: they refill the kept blocks this
        // allocation may take.
        bool fast = owner_enter(m, own);
        drain(own, own->pend);
        owner_leave(own, fast);
        after_drain(m, own, own->pend);
    }
    size_t raw = raw_size(size, n);
    // An armed failure injection must meet the allocator on every call.
    HeapBlk* b = m->useBins && !vek::alloc_fail_armed() ? bin_pop(own, raw) : nullptr;
    if (!b) {
        b = (HeapBlk*)m->allocFn(block_size(true, m->useBins, raw));
        if (!b) {
            low_assert__("blk", kSrc, __LINE__);
            return nullptr;
        }
    }
    fill_block(b, raw, size, frames, n);
    trailer_set(b, bd->word);
    bool fast = owner_enter(m, own);
    link_tail(own->app, b);  // appBeg moves the load level's blocks to "pre"
    own->liveBlocks++;
    owner_leave(own, fast);
    if (m->recStatInfo) {
        stat_change(m, 1, (vek_s64)size, (vek_s64)raw);
    }
    return b + 1;
}

// Into shard 0, under its mutex.
void* alloc_locked(HeapMon* m, size_t size, void* const* frames, vek_s32 n) {
    size_t raw = raw_size(size, n);
    HeapBlk* b = (HeapBlk*)m->allocFn(block_size(m->sharded, m->useBins, raw));
    if (!b) {
        low_assert__("blk", kSrc, __LINE__);
        return nullptr;
    }
    fill_block(b, raw, size, frames, n);
    if (m->sharded) {
        trailer_set(b, m->tag);
    }
    Shard* s = m->shard[0].load(std::memory_order_relaxed);
    AlMutex_lock(&s->mtx);
    if (m->crashChkLev > 0) {
        m->vtbl->verify(Cls::itf(m), m->crashChkLev);
    }
    link_tail(s->app, b);
    s->liveBlocks++;
    AlMutex_unlock(&s->mtx);
    if (m->recStatInfo) {
        stat_change(m, 1, (vek_s64)size, (vek_s64)raw);
    }
    return b + 1;
}

// Everything but the short path: recorded stacks, statistics, a thread's
// first allocation, shard 0.
__attribute__((noinline)) void* alloc_general(HeapMon* m, size_t size) {
    if (size > kMaxReq) {
        return nullptr;
    }
    void* frames[kMaxStack];
    vek_s32 n = 0;
    if (m->leakChkLev > 0) {
        n = vek_get_call_stack(frames, kMaxStack, 2);  // from hm_alloc's caller on
    }
    if (m->sharded) {
        const Binding* bd = my_binding(m);
        if (!bd) {
            bd = bind_shard(m);
        }
        if (bd) {
            return alloc_own(m, bd, size, frames, n);
        }
    }
    return alloc_locked(m, size, frames, n);
}

// Frees queued by other threads are looked for on every 32nd short call
// (and on every general one): one exchange takes a batch, and the line of
// the queue stays with the freeing threads meanwhile.
inline bool drain_due(Shard* s) {
    return (++s->tick & 31) == 0 && s->remote.load(std::memory_order_relaxed);
}

// The short path calls nothing, so it needs no stack frame: a kept block
// of the size, the calling thread's first binding, no queued frees, no
// walker. Anything else goes the general way before changing anything.
void* hm_alloc(IHeapMon* itf, size_t size) {
    HeapMon* m = Cls::self(itf, __LINE__);
    if (m->leakChkLev > 0) {
        void* p = alloc_general(m, size);
        __asm__ __volatile__("" : "+r"(p));  // a call, not a jump: the stack skips this frame
        return p;
    }
    const Binding& bd = t_bind[0];
    size_t raw = raw_size(size, 0);
    size_t bi = bin_of(raw);
    Shard* s = bd.shard;
    FreeBlk* f;
    if (!m->plain || size >= kBinStep * kBinCount || bd.monId != m->id || s->gen != bd.gen ||
        bi >= kBinCount || !(f = s->bin[bi]) || vek::alloc_fail_armed() || drain_due(s) ||
        !owner_enter_fast(m, s)) {
        return alloc_general(m, size);
    }
    s->bin[bi] = f->next;  // kept blocks are the owner's: no walker reads them
    s->binCnt[bi]--;
    HeapBlk* b = (HeapBlk*)f;
    fill_block(b, raw, size, nullptr, 0);
    trailer_set(b, bd.word);
    link_tail(s->app, b);
    s->liveBlocks++;
    owner_leave(s, true);
    return b + 1;
}

// ---- free ----

// A block of the calling thread's own shard.
void free_own(HeapMon* m, Shard* s, HeapBlk* b) {
    bool fast = owner_enter(m, s);
    bool queued = s->remote.load(std::memory_order_relaxed) != nullptr;
    if (queued) {
        drain(s, s->pend);
    }
    bool ok = unlink_held(s, b);
    if (ok) {
        mark_freed(b);
    }
    owner_leave(s, fast);
    if (queued) {
        after_drain(m, s, s->pend);
    }
    if (!ok) {
        not_held(m, b + 1);
        return;
    }
    if (m->recStatInfo) {
        stat_change(m, -1, -(vek_s64)b->reqSize, -(vek_s64)b->rawSize);
    }
    if (!m->useBins || !bin_push(s, b)) {
        m->freeFn(b);
    }
}

// A block of another shard. Claiming it first turns a second free of the
// same block, also from yet another thread, into a refusal.
void free_foreign(HeapMon* m, Shard* s, HeapBlk* b) {
    vek_u32 expect = kGuardHead;
    if (!__atomic_compare_exchange_n(&b->headGuard, &expect, kQueuedGuard, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED)) {
        not_held(m, b + 1);
        return;
    }
    vek_u32 req = b->reqSize;
    vek_u32 raw = b->rawSize;
    if (s->orphan.load(std::memory_order_seq_cst)) {
        AlMutex_lock(&s->mtx);
        if (s->orphan.load(std::memory_order_relaxed)) {
            Drained d{nullptr, nullptr};
            drain(s, d);
            bool ok = unlink_held(s, b);
            if (ok) {
                mark_freed(b);
            }
            AlMutex_unlock(&s->mtx);
            after_drain(m, nullptr, d);
            if (!ok) {
                __atomic_store_n(&b->headGuard, kGuardHead, __ATOMIC_RELAXED);
                not_held(m, b + 1);
                return;
            }
            if (m->recStatInfo) {
                stat_change(m, -1, -(vek_s64)req, -(vek_s64)raw);
            }
            release_block(m, nullptr, b);
            return;
        }
        AlMutex_unlock(&s->mtx);  // adopted meanwhile: its new owner unlinks
    }
    push_remote(s, b);
    // An owner that ended between the test above and the push may have
    // missed the block: finish its queue here.
    if (s->orphan.load(std::memory_order_seq_cst)) {
        AlMutex_lock(&s->mtx);
        Drained d{nullptr, nullptr};
        if (s->orphan.load(std::memory_order_relaxed)) {
            drain(s, d);
        }
        AlMutex_unlock(&s->mtx);
        after_drain(m, nullptr, d);
    }
    if (m->recStatInfo) {
        stat_change(m, -1, -(vek_s64)req, -(vek_s64)raw);
    }
}

// A block whose tail guard is broken: the shard word behind it may be
// broken too, so the block is found with every shard held. An inner block
// is proven by its neighbours wherever it lives (the count of the shard it
// names, or of shard 0, takes the change: only the sum counts); an end of a
// list is looked up among the shards' ends.
void free_damaged(HeapMon* m, HeapBlk* b) {
    vek_u32 n = hold_all(m);
    Shard* home = nullptr;
    if (b->prev && b->next) {
        if (b->prev->next == b && b->next->prev == b) {
            home = shard_of(m, b);
            home = home ? home : m->shard[0].load(std::memory_order_relaxed);
        }
    } else {
        for (vek_u32 i = 0; i < n && !home; i++) {
            Shard* s = m->shard[i].load(std::memory_order_relaxed);
            home = linked_in(s, b) ? s : nullptr;
        }
    }
    if (home) {
        unlink_in(home, b);
        mark_freed(b);
    }
    release_all(m, n);
    if (!home) {
        not_held(m, b + 1);
        return;
    }
    if (m->recStatInfo) {
        stat_change(m, -1, -(vek_s64)b->reqSize, -(vek_s64)b->rawSize);
    }
    tail_broken(m, b + 1, b->reqSize);
    m->freeFn(b);
}

__attribute__((noinline)) void free_general(HeapMon* m, void* p) {
    if (!p) {
        return;
    }
    HeapBlk* b = (HeapBlk*)p - 1;
    if (!header_ok(b)) {
        not_held(m, p);  // not ours (or already released): leave it alone
        return;
    }
    if (*tail_guard(b) != kGuardTail) {
        free_damaged(m, b);
        return;
    }
    if (m->sharded) {
        const Binding* bd = my_binding(m);
        if (bd && trailer_get(b) == bd->word) {
            free_own(m, bd->shard, b);
            return;
        }
    }
    Shard* s = shard_of(m, b);
    if (s) {
        free_foreign(m, s, b);
    } else {
        not_held(m, p);
    }
}

// The short path, as for allocation: a block of the calling thread's
// first binding that its kept blocks have room for.
void hm_free(IHeapMon* itf, void* p) {
    HeapMon* m = Cls::self(itf, __LINE__);
    HeapBlk* b = (HeapBlk*)p - 1;
    const Binding& bd = t_bind[0];
    if (!m->plain || !p || !header_ok(b) || *tail_guard(b) != kGuardTail || bd.monId != m->id ||
        trailer_get(b) != bd.word || bd.shard->gen != bd.gen) {
        return free_general(m, p);
    }
    Shard* s = bd.shard;
    size_t bi = bin_of(b->rawSize);
    if (!VEK_HEAP_BINS || bi >= kBinCount || s->binCnt[bi] >= kBinCaps.cap[bi] || drain_due(s) ||
        !owner_enter_fast(m, s)) {
        return free_general(m, p);
    }
    if (!unlink_held(s, b)) {
        owner_leave(s, true);
        return free_general(m, p);  // reports it
    }
    mark_freed(b);
    owner_leave(s, true);
    bin_put(s, b, bi);
}

// ---- resize ----

// Resizes a block of the caller's own shard with the underlying
// allocator's own resize, which can extend in place (so growing text is not
// copied whole each time); the block keeps its place in the live list and
// its recorded stack. The caller is inside a change of s.
void* resize_block(HeapMon* m, Shard* s, HeapBlk* b, size_t size) {
    vek_u32 n = stack_count(b);
    size_t stackBytes = (size_t)n * sizeof(void*);
    size_t raw = raw_size(size, (vek_s32)n);
    void* frames[kMaxStack];
    std::memcpy(frames, stack_entries(b), stackBytes);
    vek_u32 oldRaw = b->rawSize;
    vek_u32 oldReq = b->reqSize;
    HeapBlk* prev = b->prev;
    HeapBlk* next = b->next;
    bool preHead = s->pre.head == b, preTail = s->pre.tail == b;
    HeapBlk* nb = (HeapBlk*)m->reallocFn(b, block_size(true, m->useBins, raw));
    if (!nb) {
        return nullptr;  // the old block is untouched and still linked
    }
    relink(s, prev, next, preHead, preTail, nb);
    fill_block(nb, raw, size, frames, (vek_s32)n);
    trailer_set(nb, m->tag | s->idx);
    if (m->recStatInfo) {
        stat_change(m, 0, (vek_s64)size - oldReq, (vek_s64)raw - oldRaw);
    }
    return nb + 1;
}

void* hm_realloc(IHeapMon* itf, void* p, size_t size) {
    HeapMon* m = Cls::self(itf, __LINE__);
    if (!p) {
        return hm_alloc(itf, size);
    }
    if (size == 0) {
        hm_free(itf, p);
        return nullptr;
    }
    if (size > kMaxReq) {
        return nullptr;
    }
    HeapBlk* b = (HeapBlk*)p - 1;
    if (!header_ok(b) || *tail_guard(b) != kGuardTail) {
        hm_free(itf, p);  // reports the foreign or damaged block
        return nullptr;
    }
    const Binding* bd = m->sharded ? my_binding(m) : nullptr;
    if (bd && trailer_get(b) == bd->word) {
        // The resize runs inside the owner's change: a walker waits for it,
        // no other thread does.
        Shard* s = bd->shard;
        bool fast = owner_enter(m, s);
        bool ok = linked_in(s, b);
        void* q = ok ? resize_block(m, s, b, size) : nullptr;
        owner_leave(s, fast);
        if (!ok) {
            not_held(m, p);
        }
        return q;
    }
    // Another thread's block (or no resize): a new block of ours and a copy.
    size_t old = b->reqSize;
    void* q = hm_alloc(itf, size);
    if (q) {
        std::memcpy(q, p, old < size ? old : size);
        hm_free(itf, p);
    }
    return q;
}

// ---- walks ----

// Appends one leaked block: address, size, call stack and a dump of up to
// maxDump bytes (16 a line, hex then printable characters).
void out_block(TinyStr* t, HeapBlk* b, vek_s32 idx, vek_s32 maxDump) {
    TinyStr_appdf(t, "    leak[%d]: %p, size=%u\n", (int)idx, (void*)(b + 1), b->reqSize);
    vek_u32 n = stack_count(b);
    if (n > 0) {
        vek_fmt_call_stack(t, stack_entries(b), (vek_s32)n, "        ");
    }
    vek_u32 dump = maxDump > 0 ? (vek_u32)maxDump : 0;
    if (dump > b->reqSize) {
        dump = b->reqSize;
    }
    const vek_u8* d = (const vek_u8*)(b + 1);
    for (vek_u32 off = 0; off < dump; off += 16) {
        char hex[16 * 3 + 1];
        char asc[17];
        vek_u32 k = 0;
        for (; k < 16 && off + k < dump; k++) {
            vek_snprintf(hex + 3 * k, 4, "%02X ", d[off + k]);
            asc[k] = d[off + k] >= 0x20 && d[off + k] < 0x7F ? (char)d[off + k] : '.';
        }
        hex[3 * k] = 0;
        asc[k] = 0;
        TinyStr_appdf(t, "        %04X: %-48s|%s|\n", off, hex, asc);
    }
}

// Live blocks of one list: a block another thread is freeing right now
// (queued after the walk began) no longer counts.
vek_s64 list_count(const HeapList& l) {
    vek_s64 n = 0;
    for (HeapBlk* b = l.head; b; b = b->next) {
        n += guard_of(b) != kQueuedGuard;
    }
    return n;
}

vek_s32 hm_out_leak(IHeapMon* itf, vek_s32 maxDump) {
    HeapMon* m = Cls::self(itf, __LINE__);
    TinyStr t;
    TinyStr_newx(&t, 1024);
    vek_u32 n = hold_all(m);
    vek_s64 leaks = 0;
    vek_s64 ignored = 0;
    for (vek_u32 i = 0; i < n; i++) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        leaks += list_count(s->app);
        ignored += list_count(s->pre);
    }
    if (leaks > 0 && m->leakChkLev >= 1) {
        TinyStr_appdf(&t, "detect %d mem leaks in %s\n", (int)leaks, m->name);
        vek_s32 k = 0;
        for (vek_u32 i = 0; i < n; i++) {
            for (HeapBlk* b = m->shard[i].load(std::memory_order_relaxed)->app.head; b; b = b->next) {
                if (guard_of(b) != kQueuedGuard) {
                    out_block(&t, b, k++, maxDump);
                }
            }
        }
    } else if (leaks > 0) {
        TinyStr_appdf(&t,
                      "\n NOTICE, detect %d mem leaks in %s\n but LeakChkLev cfg in \"%s.ini\" is 0\n"
                      " please set LeakChkLev>0 to dump leak info next time\n",
                      (int)leaks, m->name, "VekDbg");
    }
    if (ignored > 0) {
        TinyStr_appdf(&t, "detect %d ignored mem leaks in %s, it's OK\n", (int)ignored, m->name);
    }
    m->reported = 1;
    release_all(m, n);
    if (TinyStr_len(&t) > 0) {
        heap_out(TinyStr_buf(&t), TinyStr_len(&t));
    }
    TinyStr_delete(&t);
    return (vek_s32)leaks;
}

vek_s32 hm_close(IHeapMon* itf, vek_s32 arg) {
    HeapMon* m = Cls::self(itf, __LINE__);
    vek_u32 n = hold_all(m);
    bool pending = false;
    for (vek_u32 i = 0; i < n && !m->reported; i++) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        pending = pending || s->app.head || s->pre.head;
    }
    release_all(m, n);
    // The application's report was made at BaseLib_exit; without one (the
    // application never ran BaseLib_init/exit) the final check reports.
    return pending ? hm_out_leak(itf, arg) : 0;
}

// Checks one block; returns a description of the damage or null.
const char* damage_of(Shard* s, HeapBlk* b, vek_s32 kind) {
    vek_u32 g = guard_of(b);
    if (g == kQueuedGuard) {
        return nullptr;  // being freed by another thread right now
    }
    if (g != kGuardHead) {
        return "head guard";
    }
    if (b->check != ((b->rawSize + b->reqSize) ^ kGuardHead)) {
        return "check word";
    }
    if (*tail_guard(b) != kGuardTail) {
        return "tail guard";
    }
    if (kind >= 2 && !linked_in(s, b)) {
        return "list link";
    }
    return nullptr;
}

vek_s32 hm_verify(IHeapMon* itf, vek_s32 kind) {
    HeapMon* m = Cls::self(itf, __LINE__);
    vek_u32 n = hold_all(m);
    vek_s32 bad = 0;
    for (vek_u32 i = 0; i < n; i++) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        for (HeapList* l : {&s->pre, &s->app}) {
            for (HeapBlk* b = l->head; b; b = b->next) {
                const char* what = damage_of(s, b, kind);
                if (what) {
                    bad++;
                    m->faultFn("HeapMon::verify FAIL in %s, %s broken, blk=%p, size=%u", m->name, what,
                               (void*)(b + 1), b->reqSize);
                    if (guard_of(b) != kGuardHead) {
                        break;  // the links of this block cannot be trusted
                    }
                }
            }
        }
    }
    release_all(m, n);
    return bad;
}

void hm_app_beg(IHeapMon* itf) {
    HeapMon* m = Cls::self(itf, __LINE__);
    vek_u32 n = hold_all(m);
    // Whatever lives now belongs to the load level: move it to "pre".
    for (vek_u32 i = 0; i < n; i++) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        if (s->app.head) {
            if (s->pre.tail) {
                s->pre.tail->next = s->app.head;
                s->app.head->prev = s->pre.tail;
            } else {
                s->pre.head = s->app.head;
            }
            s->pre.tail = s->app.tail;
            s->app.head = s->app.tail = nullptr;
        }
    }
    m->reported = 0;
    release_all(m, n);
}

vek_s32 hm_get_stat(IHeapMon* itf, VekHeapStat* out) {
    HeapMon* m = Cls::self(itf, __LINE__);
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    std::memset(out, 0, sizeof *out);
    vek_u32 n = hold_all(m);
    for (vek_u32 i = 0; i < n; i++) {
        out->liveBlocks += m->shard[i].load(std::memory_order_relaxed)->liveBlocks;
    }
    release_all(m, n);
    if (m->recStatInfo) {
        const StatTotals& t = m->tot;
        out->allocCount = t.allocs.load(std::memory_order_relaxed);
        out->liveBytes = t.bytes.load(std::memory_order_relaxed);
        out->liveRaw = t.raw.load(std::memory_order_relaxed);
        out->peakBlocks = t.peakBlocks.load(std::memory_order_relaxed);
        out->peakBytes = t.peakBytes.load(std::memory_order_relaxed);
        out->peakRaw = t.peakRaw.load(std::memory_order_relaxed);
    }
    return 0;
}

void heap_mon_delete(HeapMon* m) {
    reg_lock();
    for (HeapMon** pp = &g_reg.first; *pp; pp = &(*pp)->nextLive) {
        if (*pp == m) {
            *pp = m->nextLive;
            break;
        }
    }
    reg_unlock();
    // Live blocks stay with whoever holds them; the monitor only forgets
    // them. Threads still bound to it never find it again (ids are unique).
    vek_u32 n = m->shardCnt.load(std::memory_order_acquire);
    for (vek_u32 i = 0; i < n; i++) {
        Shard* s = m->shard[i].load(std::memory_order_relaxed);
        bins_free(m, s);
        AlMutex_delete(&s->mtx);
        s->~Shard();
        m->freeFn(s);
    }
    m->cls = 0;
    vek_free_fn freeFn = m->freeFn;
    m->~HeapMon();
    freeFn(m);
}

// Owners may enter without a fence when the process barrier exists; under
// ThreadSanitizer they always fence, so it sees every ordering it checks.
bool owners_unfenced() {
#ifdef VEK_HEAP_TSAN
    return false;
#else
    static const bool ok = plat::process_barrier_init() != 0;
    return ok;
#endif
}

const IHeapMonVtbl kHeapMonVtbl = {
    Cls::queryItf, Cls::addRef, Cls::release, hm_alloc,   hm_realloc,  hm_free,
    hm_out_leak,   hm_close,    hm_verify,    hm_app_beg, hm_get_stat,
};

} // namespace

extern "C" VEK_API IHeapMon* HeapMon_create(const char* name, vek_malloc_fn allocFn,
                                            vek_free_fn freeFn, vek_fault_fn faultFn,
                                            vek_s32 leakChkLev, vek_s32 crashChkLev,
                                            vek_s32 recStatInfo) {
    if (!allocFn || !freeFn) {
        VEK_ASSERT(allocFn && freeFn);
        return nullptr;
    }
    void* mem = allocFn(sizeof(HeapMon));
    if (!mem) {
        return nullptr;
    }
    std::memset(mem, 0, sizeof(HeapMon));
    HeapMon* m = new (mem) HeapMon();
    m->cls = kHeapMonCls | VEK_CLS_OWNED;
    m->vtbl = &kHeapMonVtbl;
    vek_snprintf(m->name, sizeof m->name, "%s", name ? name : "HeapMon");
    m->allocFn = allocFn;
    m->freeFn = freeFn;
    // Only the OS layer's own pair is known to have a matching resize, and
    // only its blocks may be larger than their raw size (by the shard word
    // and the size class).
    m->reallocFn = allocFn == al_malloc && freeFn == al_free ? al_realloc : nullptr;
    m->sharded = m->reallocFn && crashChkLev <= 0 && end_hook_ready();
    m->useBins = VEK_HEAP_BINS && m->sharded;
    m->plain = m->sharded && leakChkLev <= 0 && !recStatInfo;
    m->asym = owners_unfenced();
    m->faultFn = faultFn ? faultFn : al_fault_proc;
    m->leakChkLev = leakChkLev;
    m->crashChkLev = crashChkLev;
    m->recStatInfo = recStatInfo;
    Shard* s0 = new_shard(m, 0);
    if (!s0) {
        m->~HeapMon();
        freeFn(mem);
        return nullptr;
    }
    s0->orphan.store(1, std::memory_order_relaxed);  // never owned
    m->shard[0].store(s0, std::memory_order_relaxed);
    m->shardCnt.store(1, std::memory_order_release);
    m->ref = 1;
    reg_lock();
    m->id = ++g_reg.lastId;
    m->tag = (uintptr_t)(m->id << kShardBits);
    m->nextLive = g_reg.first;
    g_reg.first = m;
    reg_unlock();
    return Cls::itf(m);
}
