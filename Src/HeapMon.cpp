/*
 * HeapMon.cpp - the heap monitor: every tracked block carries a header and
 * guards (see MemUtil.h) and sits in a doubly linked list of live blocks, so
 * leaks can be counted and listed and corruption found.
 *
 * Two lists: blocks allocated before the application phase began ("pre",
 * the library's own load-level allocations and static objects) and those
 * allocated after ("app"). Only the second kind are leaks at BaseLib_exit;
 * the first are reported as ignored. A block does not record its list: a
 * free unlinks through its neighbours, and only at an end of a list does it
 * compare with the two heads or tails.
 *
 * A free proves ownership in constant time (head guard, check word, and both
 * neighbours pointing back at the block) instead of walking the list, so the
 * monitor stays fast with many live blocks.
 *
 * Every allocation in the library comes here, so the common pair is kept
 * short: headers and guards are written and checked outside the lock, the
 * lock is one atomic word (a single compare-exchange when nobody holds it),
 * and over the OS allocator small released blocks are kept in a few
 * per-size stacks for the next allocation of that size class.
 */
#include <atomic>
#include <cstring>
#include <initializer_list>
#include <thread>
#include "ObjModel.h"
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
constexpr vek_u32 kFreedGuard = 0xFEEDFA11u;  // written over a released header
constexpr vek_s32 kMaxStack = 256;
constexpr vek_u32 kHeapMonCls = 0x4E6D3Au;
constexpr size_t kMaxReq = 0x7FFFFF00u;  // the header's size fields are 32-bit

struct HeapList {
    HeapBlk* head;
    HeapBlk* tail;
};

// Released blocks kept for reuse, by raw size rounded up to kBinStep. Only
// over the OS allocator (whose blocks are interchangeable), and not under a
// sanitizer, which should see each release.
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
constexpr size_t kBinStep = 32;
constexpr size_t kBinCount = 64;  // raw sizes up to 2 KiB
constexpr vek_u32 kBinDepth = 16;

struct FreeBlk {
    FreeBlk* next;
};

// The monitor's lock. Uncontended it costs one compare-exchange and one
// store; a waiter spins briefly, then yields. It is not recursive on the
// common path: only a holder that calls out (to the fault hook, or to code
// that may allocate while a report is built) marks itself as the owner, and
// a nested lock from that thread then only counts.
struct HeapLock {
    std::atomic<vek_u32> word;
    std::atomic<const void*> owner;
    vek_s32 depth;
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
    vek_s32 useBins;
    HeapLock lock;
    HeapList pre;
    HeapList app;
    vek_s32 reported;  // the application phase's leak report was made
    VekHeapStat stat;
    FreeBlk* bin[kBinCount];
    vek_u32 binCnt[kBinCount];
};

thread_local char t_lockToken;  // its address tells threads apart

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

__attribute__((noinline)) void lock_wait(HeapLock& l) {
    if (l.owner.load(std::memory_order_relaxed) == &t_lockToken) {
        l.depth++;  // a call-out of this thread's own locked section
        return;
    }
    for (vek_u32 spin = 0;; spin++) {
        vek_u32 z = 0;
        if (l.word.load(std::memory_order_relaxed) == 0 &&
            l.word.compare_exchange_weak(z, 1, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return;
        }
        if (spin < 16) {
            cpu_relax();
        } else {
            std::this_thread::yield();
        }
    }
}

inline void mon_lock(HeapMon* m) {
    vek_u32 z = 0;
    if (!m->lock.word.compare_exchange_strong(z, 1, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
        lock_wait(m->lock);
    }
}

inline void mon_unlock(HeapMon* m) {
    if (m->lock.depth > 0) {
        m->lock.depth--;
        return;
    }
    m->lock.word.store(0, std::memory_order_release);
}

// For sections that call out while holding the lock: the calling thread
// may then take it again.
void mon_lock_owned(HeapMon* m) {
    mon_lock(m);
    m->lock.owner.store(&t_lockToken, std::memory_order_relaxed);
}

void mon_unlock_owned(HeapMon* m) {
    if (m->lock.depth == 0) {
        m->lock.owner.store(nullptr, std::memory_order_relaxed);
    }
    mon_unlock(m);
}

// The bin of a raw size, or kBinCount when such blocks are not kept.
inline size_t bin_of(size_t raw) {
    return raw <= kBinStep * kBinCount ? (raw - 1) / kBinStep : kBinCount;
}
// What the OS allocator is asked for: a binned size is rounded up to its
// class, so any block of the bin fits any request of the class.
inline size_t alloc_size(HeapMon* m, size_t raw) {
    return m->useBins && raw <= kBinStep * kBinCount ? (raw + kBinStep - 1) & ~(kBinStep - 1) : raw;
}

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

bool linked(HeapMon* m, HeapBlk* b) {
    bool prevOk = b->prev ? b->prev->next == b : (m->pre.head == b || m->app.head == b);
    bool nextOk = b->next ? b->next->prev == b : (m->pre.tail == b || m->app.tail == b);
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

void unlink(HeapMon* m, HeapBlk* b) {
    if (b->prev) {
        b->prev->next = b->next;
    } else if (m->pre.head == b) {
        m->pre.head = b->next;
    } else {
        m->app.head = b->next;
    }
    if (b->next) {
        b->next->prev = b->prev;
    } else if (m->pre.tail == b) {
        m->pre.tail = b->prev;
    } else {
        m->app.tail = b->prev;
    }
}

vek_s64 list_count(const HeapList& l) {
    vek_s64 n = 0;
    for (HeapBlk* b = l.head; b; b = b->next) {
        n++;
    }
    return n;
}

void raise_peak(vek_s64& peak, vek_s64 v) {
    if (v > peak) {
        peak = v;
    }
}

// Heap-monitor texts go to the trace; with tracing off they go to the
// system's debug output, so a leak report is never silently lost.
void heap_out(const char* text, vek_s32 len) {
    if (vek::trc_active()) {
        vek::trc_record(kSrc, __LINE__, vek::kModBase, vek::kFldHeap, 1, text, len);
    } else {
        sys_printf("%s", text);
    }
}

// Checks one block; returns a description of the damage or null.
const char* damage_of(HeapMon* m, HeapBlk* b, vek_s32 kind) {
    if (b->headGuard != kGuardHead) {
        return "head guard";
    }
    if (b->check != ((b->rawSize + b->reqSize) ^ kGuardHead)) {
        return "check word";
    }
    if (*tail_guard(b) != kGuardTail) {
        return "tail guard";
    }
    if (kind >= 2 && !linked(m, b)) {
        return "list link";
    }
    return nullptr;
}

vek_s32 verify_locked(HeapMon* m, vek_s32 kind) {
    vek_s32 bad = 0;
    for (HeapList* l : {&m->pre, &m->app}) {
        for (HeapBlk* b = l->head; b; b = b->next) {
            const char* what = damage_of(m, b, kind);
            if (what) {
                bad++;
                m->faultFn("HeapMon::verify FAIL in %s, %s broken, blk=%p, size=%u", m->name, what,
                           (void*)(b + 1), b->reqSize);
                if (b->headGuard != kGuardHead) {
                    break;  // the links of this block cannot be trusted
                }
            }
        }
    }
    return bad;
}

void* hm_alloc(IHeapMon* itf, size_t size) {
    HeapMon* m = Cls::self(itf, __LINE__);
    if (size > kMaxReq) {
        return nullptr;
    }
    void* frames[kMaxStack];
    vek_s32 n = 0;
    if (m->leakChkLev > 0) {
        n = vek_get_call_stack(frames, kMaxStack, 1);
    }
    size_t raw = round8(size) + sizeof(HeapBlk) + 2 * sizeof(vek_u32) + (size_t)n * sizeof(void*);
    // A kept block of the size class is taken and linked in one locked
    // section; otherwise the OS allocator is called outside the lock.
    // An armed failure injection must meet the allocator on every call.
    size_t bi = m->useBins && m->crashChkLev == 0 && !vek::alloc_fail_armed() ? bin_of(raw) : kBinCount;
    HeapBlk* b = nullptr;
    bool locked = false;
    if (bi < kBinCount) {
        mon_lock(m);
        if (FreeBlk* f = m->bin[bi]) {
            m->bin[bi] = f->next;
            m->binCnt[bi]--;
            b = (HeapBlk*)f;
            locked = true;
        } else {
            mon_unlock(m);
        }
    }
    if (!b) {
        b = (HeapBlk*)m->allocFn(alloc_size(m, raw));
    }
    if (!b) {
        low_assert__("blk", kSrc, __LINE__);
        return nullptr;
    }
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

    if (m->crashChkLev > 0) {
        mon_lock_owned(m);
        verify_locked(m, m->crashChkLev);
    } else if (!locked) {
        mon_lock(m);
    }
    link_tail(m->app, b);  // appBeg moves the load level's blocks to "pre"
    VekHeapStat& s = m->stat;
    s.liveBlocks++;
    if (m->recStatInfo) {
        s.allocCount++;
        s.liveBytes += (vek_s64)size;
        s.liveRaw += (vek_s64)raw;
        raise_peak(s.peakBlocks, s.liveBlocks);
        raise_peak(s.peakBytes, s.liveBytes);
        raise_peak(s.peakRaw, s.liveRaw);
    }
    if (m->crashChkLev > 0) {
        mon_unlock_owned(m);
    } else {
        mon_unlock(m);
    }
    return b + 1;
}

void hm_free(IHeapMon* itf, void* p) {
    HeapMon* m = Cls::self(itf, __LINE__);
    if (!p) {
        return;
    }
    HeapBlk* b = (HeapBlk*)p - 1;
    bool ok = header_ok(b);
    bool tailOk = ok && *tail_guard(b) == kGuardTail;
    vek_u32 req = ok ? b->reqSize : 0;
    size_t bi = m->useBins && tailOk ? bin_of(b->rawSize) : kBinCount;
    mon_lock(m);
    if (!ok || !linked(m, b)) {
        mon_unlock(m);
        static const char kNotHeld[] = "HeapMon::freeMem FAIL, for freeNode not in list";
        heap_out(kNotHeld, (vek_s32)sizeof kNotHeld - 1);
        m->faultFn("%s, %s, ptr=%p", kNotHeld, m->name, p);
        return;  // not ours (or already released): leave it alone
    }
    unlink(m, b);
    VekHeapStat& s = m->stat;
    s.liveBlocks--;
    if (m->recStatInfo) {
        s.liveBytes -= b->reqSize;
        s.liveRaw -= b->rawSize;
    }
    b->headGuard = kFreedGuard;  // a second release of this block is then refused
    b->check = 0;
    if (bi < kBinCount && m->binCnt[bi] < kBinDepth) {
        FreeBlk* f = (FreeBlk*)b;
        f->next = m->bin[bi];
        m->bin[bi] = f;
        m->binCnt[bi]++;
        mon_unlock(m);
        return;
    }
    mon_unlock(m);
    if (!tailOk) {
        m->faultFn("HeapMon::freeMem FAIL, for tail guard broken, %s, ptr=%p, size=%u", m->name, p,
                   req);
    }
    m->freeFn(b);
}

// Resizes a block with the underlying allocator's own resize, which can
// extend in place (so growing text is not copied whole each time); the
// block keeps its place in the live list and its recorded stack.
void* resize_block(HeapMon* m, HeapBlk* b, size_t size) {
    vek_u32 n = stack_count(b);
    size_t stackBytes = (size_t)n * sizeof(void*);
    size_t raw = round8(size) + sizeof(HeapBlk) + 2 * sizeof(vek_u32) + stackBytes;
    void* frames[kMaxStack];
    std::memcpy(frames, stack_entries(b), stackBytes);
    vek_u32 oldRaw = b->rawSize;
    vek_u32 oldReq = b->reqSize;
    HeapBlk* prev = b->prev;
    HeapBlk* next = b->next;
    bool preHead = m->pre.head == b, preTail = m->pre.tail == b;
    HeapBlk* nb = (HeapBlk*)m->reallocFn(b, alloc_size(m, raw));
    if (!nb) {
        return nullptr;  // the old block is untouched and still linked
    }
    if (prev) {
        prev->next = nb;
    } else if (preHead) {
        m->pre.head = nb;
    } else {
        m->app.head = nb;
    }
    if (next) {
        next->prev = nb;
    } else if (preTail) {
        m->pre.tail = nb;
    } else {
        m->app.tail = nb;
    }
    nb->rawSize = (vek_u32)raw;
    nb->reqSize = (vek_u32)size;
    nb->check = ((vek_u32)raw + (vek_u32)size) ^ kGuardHead;
    vek_u32* tg = tail_guard(nb);
    *tg = kGuardTail;
    std::memcpy(tg + 1, &n, sizeof n);
    std::memcpy(stack_entries(nb), frames, stackBytes);
    if (m->recStatInfo) {
        VekHeapStat& s = m->stat;
        s.liveBytes += (vek_s64)size - oldReq;
        s.liveRaw += (vek_s64)raw - oldRaw;
        raise_peak(s.peakBytes, s.liveBytes);
        raise_peak(s.peakRaw, s.liveRaw);
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
    mon_lock(m);
    bool ours = header_ok(b) && linked(m, b);
    size_t old = ours ? b->reqSize : 0;
    if (ours && *tail_guard(b) != kGuardTail) {
        ours = false;  // damaged: let the free below report it
    }
    if (ours && m->reallocFn) {
        void* q = resize_block(m, b, size);
        mon_unlock(m);
        return q;
    }
    mon_unlock(m);
    if (!ours) {
        hm_free(itf, p);  // reports the foreign or damaged block
        return nullptr;
    }
    void* q = hm_alloc(itf, size);
    if (q) {
        std::memcpy(q, p, old < size ? old : size);
        hm_free(itf, p);
    }
    return q;
}

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

vek_s32 hm_out_leak(IHeapMon* itf, vek_s32 maxDump) {
    HeapMon* m = Cls::self(itf, __LINE__);
    TinyStr t;
    TinyStr_newx(&t, 1024);
    mon_lock_owned(m);
    vek_s64 leaks = list_count(m->app);
    vek_s64 ignored = list_count(m->pre);
    if (leaks > 0 && m->leakChkLev >= 1) {
        TinyStr_appdf(&t, "detect %d mem leaks in %s\n", (int)leaks, m->name);
        vek_s32 i = 0;
        for (HeapBlk* b = m->app.head; b; b = b->next) {
            out_block(&t, b, i++, maxDump);
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
    mon_unlock_owned(m);
    if (TinyStr_len(&t) > 0) {
        heap_out(TinyStr_buf(&t), TinyStr_len(&t));
    }
    TinyStr_delete(&t);
    return (vek_s32)leaks;
}

vek_s32 hm_close(IHeapMon* itf, vek_s32 arg) {
    HeapMon* m = Cls::self(itf, __LINE__);
    mon_lock(m);
    bool pending = !m->reported && (m->app.head || m->pre.head);
    mon_unlock(m);
    // The application's report was made at BaseLib_exit; without one (the
    // application never ran BaseLib_init/exit) the final check reports.
    return pending ? hm_out_leak(itf, arg) : 0;
}

vek_s32 hm_verify(IHeapMon* itf, vek_s32 kind) {
    HeapMon* m = Cls::self(itf, __LINE__);
    mon_lock_owned(m);
    vek_s32 bad = verify_locked(m, kind);
    mon_unlock_owned(m);
    return bad;
}

void hm_app_beg(IHeapMon* itf) {
    HeapMon* m = Cls::self(itf, __LINE__);
    mon_lock(m);
    // Whatever lives now belongs to the load level: move it to "pre".
    if (m->app.head) {
        if (m->pre.tail) {
            m->pre.tail->next = m->app.head;
            m->app.head->prev = m->pre.tail;
        } else {
            m->pre.head = m->app.head;
        }
        m->pre.tail = m->app.tail;
        m->app.head = m->app.tail = nullptr;
    }
    m->reported = 0;
    mon_unlock(m);
}

vek_s32 hm_get_stat(IHeapMon* itf, VekHeapStat* out) {
    HeapMon* m = Cls::self(itf, __LINE__);
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    mon_lock(m);
    *out = m->stat;
    mon_unlock(m);
    return 0;
}

void heap_mon_delete(HeapMon* m) {
    vek_free_fn freeFn = m->freeFn;
    for (size_t i = 0; i < kBinCount; i++) {
        while (FreeBlk* f = m->bin[i]) {
            m->bin[i] = f->next;
            freeFn(f);
        }
    }
    m->cls = 0;
    // Live blocks stay with whoever holds them; the monitor only forgets them.
    freeFn(m);
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
    HeapMon* m = (HeapMon*)allocFn(sizeof(HeapMon));
    if (!m) {
        return nullptr;
    }
    std::memset((void*)m, 0, sizeof *m);
    m->cls = kHeapMonCls | VEK_CLS_OWNED;
    m->vtbl = &kHeapMonVtbl;
    vek_snprintf(m->name, sizeof m->name, "%s", name ? name : "HeapMon");
    m->allocFn = allocFn;
    m->freeFn = freeFn;
    // Only the OS layer's own pair is known to have a matching resize.
    m->reallocFn = allocFn == al_malloc && freeFn == al_free ? al_realloc : nullptr;
    m->useBins = VEK_HEAP_BINS && m->reallocFn;
    m->faultFn = faultFn ? faultFn : al_fault_proc;
    m->leakChkLev = leakChkLev;
    m->crashChkLev = crashChkLev;
    m->recStatInfo = recStatInfo;
    m->ref = 1;
    return Cls::itf(m);
}
