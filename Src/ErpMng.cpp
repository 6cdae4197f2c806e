/*
 * ErpMng.cpp - the event-receive processor manager: one queue per thread
 * that receives work, the processors (endpoints) on it, their pause and
 * resume, dispatch on the owner thread, and calls run on another thread.
 *
 *   erps_   id  -> Erp            ques_  thread id -> Que
 *   acalls_ id  -> Item (a queued asynchronous call)
 *
 *   Que (one per thread)   items: Item <-> Item <-> Item   (post order)
 *    \-- Erp <-> Erp (its processors)
 *          \-- held: Item <-> Item   (taken aside while the processor is paused)
 *
 * One lock guards the tables, every queue and every processor; it is held
 * only to link and unlink (O(1) per post), never while a handler, a drop
 * function, a trace or a wait runs. Items of a paused processor are taken
 * aside when the dispatch meets them at the head of the queue, so the held
 * items of a processor are always older than everything still queued:
 * a resume puts them back at the head and the post order holds.
 *
 * Wake-ups: a post signals the owner's wake (plat::ErpWake) only when the
 * queue's "woken" flag was clear; the owner clears the flag before it looks
 * at the queue. So a wake is never lost, and a burst of posts costs the
 * kernel one signal. The signal is given after the lock is released (the
 * woken owner's first step is to take it); the waker holds a reference to
 * the queue meanwhile, so a queue whose thread ends at that moment is
 * freed by whoever lets go of it last.
 */
#include <climits>
#include <map>
#include <new>
#include <unordered_map>
#include "AlSync.h"
#include "AlWake.h"
#include "VekAlloc.h"
#include "VekCall.h"
#include "VekCore.h"
#include "VekErp.h"
#include "VekEvt.h"

namespace {

enum ItemKind : vek_s32 { kEvt, kFn, kACall, kSCall };
enum CallState : vek_s32 { kQueued, kRunning, kDone };

struct Erp;
struct Que;

struct Item {
    Item* prev;
    Item* next;
    Que* que;                // where it is queued
    Erp* erp;                // its processor; null for a call on the thread
    vek_u32 seq;             // post order within the queue
    vek_s32 kind;
    vek_s32 id;              // an asynchronous call's id
    void* p;                 // the event, or the argument
    vek_erp_fn fn;           // kFn
    vek_thrd_call_fn call;   // kACall, kSCall
    vek_erp_fn drop;         // kFn, kACall
    vek_handle done;         // kSCall: signalled when state becomes kDone
    vek_s32 state;           // kSCall, under the lock
    vek_s32 result;          // kSCall
};

struct List {
    Item* head = nullptr;
    Item* tail = nullptr;
    vek_s32 n = 0;

    bool empty() const { return head == nullptr; }
    void push_back(Item* it) {
        it->next = nullptr;
        it->prev = tail;
        (tail ? tail->next : head) = it;
        tail = it;
        n++;
    }
    void unlink(Item* it) {
        (it->prev ? it->prev->next : head) = it->next;
        (it->next ? it->next->prev : tail) = it->prev;
        it->prev = it->next = nullptr;
        n--;
    }
    /* Moves all of other to the front or the back of this list. */
    void splice(List& other, bool front) {
        if (other.empty()) {
            return;
        }
        Item*& near = front ? head : tail;  // the end it joins
        Item* join = front ? other.tail : other.head;
        (front ? join->next : join->prev) = near;
        if (near) {
            (front ? near->prev : near->next) = join;
        } else {
            (front ? tail : head) = front ? other.tail : other.head;
        }
        near = front ? other.head : other.tail;
        n += other.n;
        other.head = other.tail = nullptr;
        other.n = 0;
    }
};

struct Erp {
    vek_s32 id;
    Que* que;
    vek_erp_handler handler;  // null: the thread's own processor
    void* ctx;
    vek_s32 pauses;
    vek_s32 pending;          // its items, queued and held
    List held;
    Erp* prev;
    Erp* next;
};

struct Que {
    vek_u32 tid;
    std::atomic<vek_s32> refs{1};   // its owner's, and each waker's on its way
    List items;
    std::atomic<vek_s32> queued{0}; // items.n, for a look without the lock (see disp)
    vek_u32 nextSeq = 0;
    std::atomic<vek_s32> woken{0};  // a wake-up is on its way
    plat::ErpWake wake{};
    Erp* erps = nullptr;
    Erp* self = nullptr;
    vek_u32 ran = 0;                // items run, counted by the owner
    Que* prev = nullptr;            // every queue, for the manager's end
    Que* next = nullptr;
};

using ErpMap = std::unordered_map<vek_s32, Erp*, std::hash<vek_s32>, std::equal_to<vek_s32>,
                                  vek::HeapAllocator<std::pair<const vek_s32, Erp*>>>;
using CallMap = std::unordered_map<vek_s32, Item*, std::hash<vek_s32>, std::equal_to<vek_s32>,
                                   vek::HeapAllocator<std::pair<const vek_s32, Item*>>>;
using QueMap = std::map<vek_u32, Que*, std::less<vek_u32>, vek::HeapAllocator<std::pair<const vek_u32, Que*>>>;

/* Erases a key; an emptied table gives its buckets back, so a table keeps
 * no memory while nothing is in it. */
template <class Map>
void forget(Map& m, vek_s32 key) {
    m.erase(key);
    if (m.empty()) {
        Map().swap(m);
    }
}

Item* new_item(vek_s32 kind, void* p) {
    Item* it = (Item*)vek_malloc__(sizeof(Item));
    if (it) {
        *it = Item{};
        it->kind = kind;
        it->p = p;
    }
    return it;
}

/* Runs an item whose handler (for an event) was taken under the lock. */
void run_item(Item* it, vek_erp_handler handler, void* ctx) {
    try {
        switch (it->kind) {
        case kEvt:
            if (handler(ctx, it->p) != VEK_ERP_KEEP) {
                Evt_delete(it->p);
            }
            break;
        case kFn:
            it->fn(it->p);
            break;
        default:
            it->result = it->call(it->p);
            break;
        }
    } catch (...) {
        // Handlers are C: whatever one lets escape is reported and the
        // dispatch goes on.
        vek_printf("erp item FAIL for exception, kind=%d", (int)it->kind);
    }
}

class ErpMng {
  public:
    ErpMng();
    ~ErpMng();
    ErpMng(const ErpMng&) = delete;
    ErpMng& operator=(const ErpMng&) = delete;

    Que* que(bool create);
    vek_s32 create(vek_erp_handler handler, void* ctx, bool self);
    vek_s32 del(vek_s32 id);
    vek_s32 self();
    vek_s32 post(vek_s32 id, Item* it);
    vek_s32 pause(vek_s32 id, bool resume);
    vek_s32 pending(vek_s32 id);
    vek_s32 disp(Que* q);
    vek_s32 leak(vek_u32 tid);
    vek_s32 leakQue(Que* q, vek_u32 tid);
    void thrdEnd();
    vek_s32 scall(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_s32 tmo, vek_s32 flags);
    vek_s32 acall(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_erp_fn drop);
    vek_s32 delACall(vek_s32 id);

  private:
    vek_s32 newId();
    Que* enqueue(Que* q, Item* it);
    static Que* wakeLater(Que* q);
    static void wakeNow(Que* q);
    static void unref(Que* q);
    Item* nextReady(Que* q);
    Erp* find(vek_s32 id);
    vek_s32 leakLocked(Que* q, TinyStr* t);
    void endQue(Que* q, bool onOwner);
    void detach(List& gone);
    void drop(List& items);

    AlMutex lock_;
    vek_u32 tsl_;         // the caller's Que
    ErpMap erps_;
    CallMap acalls_;
    QueMap ques_;
    Que* all_ = nullptr;  // every queue
    vek_s32 lastId_ = 0;
};

std::atomic<ErpMng*> g_erpMng{nullptr};

ErpMng::ErpMng() : tsl_(plat::tls_alloc()) {
    AlMutex_new(&lock_);
    plat::erp_wake_init();
}

ErpMng::~ErpMng() {
    // Queues of threads that never ended through vek_thrd_end: reported
    // like any leak, then ended here.
    while (Que* q = all_) {
        leakQue(q, q->tid);
        endQue(q, q->tid == al_thrd_id());
    }
    if (tsl_ != plat::kTlsNone) {
        plat::tls_free(tsl_);
    }
    plat::erp_wake_exit();
    AlMutex_delete(&lock_);
}

/* Under the lock: the next id, positive, not in use. */
vek_s32 ErpMng::newId() {
    do {
        lastId_ = lastId_ == INT_MAX ? 1 : lastId_ + 1;
    } while (erps_.count(lastId_) || acalls_.count(lastId_));
    return lastId_;
}

Erp* ErpMng::find(vek_s32 id) {
    auto f = erps_.find(id);
    return f == erps_.end() ? nullptr : f->second;
}

/* The caller's queue; made (with its wake-up) when asked and absent. */
Que* ErpMng::que(bool create) {
    Que* q = tsl_ == plat::kTlsNone ? nullptr : (Que*)plat::tls_get(tsl_);
    if (q || !create || tsl_ == plat::kTlsNone) {
        return q;
    }
    void* mem = vek_malloc__(sizeof(Que));
    if (!mem) {
        return nullptr;
    }
    q = new (mem) Que();
    q->tid = al_thrd_id();
    if (!plat::erp_wake_create(&q->wake)) {
        q->~Que();
        vek_free__(mem);
        return nullptr;
    }
    AlMutex_lock(&lock_);
    try {
        ques_[q->tid] = q;  // replaces a queue its thread left behind
    } catch (const std::bad_alloc&) {
        AlMutex_unlock(&lock_);
        plat::erp_wake_retire(&q->wake);
        unref(q);
        return nullptr;
    }
    q->next = all_;
    if (all_) {
        all_->prev = q;
    }
    all_ = q;
    AlMutex_unlock(&lock_);
    plat::tls_set(tsl_, q);
    return q;
}

vek_s32 ErpMng::create(vek_erp_handler handler, void* ctx, bool self) {
    Que* q = que(true);
    Erp* e = q ? (Erp*)vek_malloc__(sizeof(Erp)) : nullptr;
    if (!e) {
        return VEK_ERR_FULL;
    }
    *e = Erp{};
    e->que = q;
    e->handler = handler;
    e->ctx = ctx;
    AlMutex_lock(&lock_);
    if (self && q->self) {  // made meanwhile by a nested call
        vek_s32 id = q->self->id;
        AlMutex_unlock(&lock_);
        vek_free__(e);
        return id;
    }
    e->id = newId();
    try {
        erps_.emplace(e->id, e);
    } catch (const std::bad_alloc&) {
        AlMutex_unlock(&lock_);
        vek_free__(e);
        return VEK_ERR_FULL;
    }
    e->next = q->erps;
    if (q->erps) {
        q->erps->prev = e;
    }
    q->erps = e;
    if (self) {
        q->self = e;
    }
    vek_s32 id = e->id;
    AlMutex_unlock(&lock_);
    return id;
}

vek_s32 ErpMng::self() {
    Que* q = que(true);
    if (!q) {
        return VEK_ERR_FULL;
    }
    AlMutex_lock(&lock_);
    vek_s32 id = q->self ? q->self->id : 0;
    AlMutex_unlock(&lock_);
    return id ? id : create(nullptr, nullptr, true);
}

vek_s32 ErpMng::del(vek_s32 id) {
    AlMutex_lock(&lock_);
    Erp* e = find(id);
    if (!e) {
        AlMutex_unlock(&lock_);
        return VEK_ERR_NOT_FOUND;
    }
    forget(erps_, id);
    Que* q = e->que;
    (e->prev ? e->prev->next : q->erps) = e->next;
    if (e->next) {
        e->next->prev = e->prev;
    }
    if (q->self == e) {
        q->self = nullptr;
    }
    List gone;
    vek_s32 queued = e->pending;
    for (Item* it = e->held.head; it; it = it->next) {
        queued--;
    }
    gone.splice(e->held, false);
    for (Item* it = q->items.head; it && queued > 0;) {
        Item* next = it->next;
        if (it->erp == e) {
            q->items.unlink(it);
            gone.push_back(it);
            queued--;
        }
        it = next;
    }
    q->queued.store(q->items.n);
    detach(gone);
    AlMutex_unlock(&lock_);
    drop(gone);
    vek_free__(e);
    return 0;
}

/* Under the lock: q when its owner needs a wake-up (none is on its way
 * yet), with a reference for the waker; null otherwise. */
Que* ErpMng::wakeLater(Que* q) {
    if (q->woken.exchange(1)) {
        return nullptr;
    }
    q->refs++;
    return q;
}

/* After the lock: gives the wake-up that wakeLater promised. */
void ErpMng::wakeNow(Que* q) {
    if (q) {
        plat::erp_wake_signal(&q->wake);
        unref(q);
    }
}

void ErpMng::unref(Que* q) {
    if (--q->refs == 0) {
        plat::erp_wake_destroy(&q->wake);
        q->~Que();
        vek_free__(q);
    }
}

/* Under the lock: queues it; the queue to wake after the lock, or null. */
Que* ErpMng::enqueue(Que* q, Item* it) {
    it->que = q;
    it->seq = q->nextSeq++;
    q->items.push_back(it);
    q->queued.store(q->items.n);
    return wakeLater(q);
}

vek_s32 ErpMng::post(vek_s32 id, Item* it) {
    AlMutex_lock(&lock_);
    Erp* e = find(id);
    vek_s32 ret = !e ? VEK_ERR_NOT_FOUND : it->kind == kEvt && !e->handler ? VEK_ERR_NOT_SUPPORTED : 0;
    Que* wake = nullptr;
    if (ret == 0) {
        it->erp = e;
        e->pending++;
        wake = enqueue(e->que, it);
    }
    AlMutex_unlock(&lock_);
    wakeNow(wake);
    return ret;
}

vek_s32 ErpMng::pause(vek_s32 id, bool resume) {
    AlMutex_lock(&lock_);
    Erp* e = find(id);
    if (!e) {
        AlMutex_unlock(&lock_);
        return VEK_ERR_NOT_FOUND;
    }
    bool misuse = resume && e->pauses == 0;
    Que* wake = nullptr;
    if (!resume) {
        e->pauses++;
    } else if (!misuse && --e->pauses == 0 && !e->held.empty()) {
        e->que->items.splice(e->held, true);
        e->que->queued.store(e->que->items.n);
        wake = wakeLater(e->que);
    }
    vek_s32 n = e->pauses;
    AlMutex_unlock(&lock_);
    wakeNow(wake);
    if (misuse) {
        vek_assert__("erp->pauses > 0", __FILE__, __LINE__);
    }
    return n;
}

vek_s32 ErpMng::pending(vek_s32 id) {
    AlMutex_lock(&lock_);
    Erp* e = find(id);
    vek_s32 n = e ? e->pending : VEK_ERR_NOT_FOUND;
    AlMutex_unlock(&lock_);
    return n;
}

/* Under the lock: the head of the queue once the items of paused
 * processors in front of it are taken aside. */
Item* ErpMng::nextReady(Que* q) {
    Item* it;
    while ((it = q->items.head) != nullptr && it->erp && it->erp->pauses > 0) {
        q->items.unlink(it);
        it->erp->held.push_back(it);
    }
    q->queued.store(q->items.n);
    return it;
}

vek_s32 ErpMng::disp(Que* q) {
    // The flag is cleared before the queue is looked at: a post from now on
    // wakes the owner again. With nothing queued the lock is not taken (a
    // post that comes later sees the flag clear and signals).
    q->woken.store(0);
    if (q->queued.load() == 0) {
        return 0;
    }
    vek_s32 n = 0;
    bool first = true;
    vek_u32 bound = 0;  // what is posted from now on waits for the next dispatch
    for (;;) {
        AlMutex_lock(&lock_);
        if (first) {
            bound = q->nextSeq;
            first = false;
        }
        Item* it = nextReady(q);
        if (!it || (vek_s32)(it->seq - bound) >= 0) {
            AlMutex_unlock(&lock_);
            break;
        }
        q->items.unlink(it);
        q->queued.store(q->items.n);
        vek_erp_handler handler = nullptr;
        void* ctx = nullptr;
        if (Erp* e = it->erp) {
            e->pending--;
            handler = e->handler;
            ctx = e->ctx;
        }
        if (it->kind == kACall) {
            forget(acalls_, it->id);
        } else if (it->kind == kSCall) {
            it->state = kRunning;
        }
        AlMutex_unlock(&lock_);
        run_item(it, handler, ctx);
        n++;
        if (it->kind == kSCall) {
            vek_handle done = it->done;  // the caller may free it once signalled
            AlMutex_lock(&lock_);
            it->state = kDone;
            AlMutex_unlock(&lock_);
            vek_evt_set(done);
        } else {
            vek_free__(it);
        }
        if (q->queued.load() == 0) {
            break;
        }
    }
    q->ran += (vek_u32)n;
    return n;
}

/* Under the lock: items taken off their queue for good leave the tables;
 * a waiting synchronous call is told -25 (its caller then only waits for
 * the signal that drop gives). */
void ErpMng::detach(List& gone) {
    for (Item* it = gone.head; it; it = it->next) {
        if (it->kind == kACall) {
            forget(acalls_, it->id);
        } else if (it->kind == kSCall) {
            it->result = VEK_ERR_NOT_FOUND;
            it->state = kDone;
        }
    }
}

/* Items that will never run (detached): events deleted, drop functions
 * called, waiting callers released. */
void ErpMng::drop(List& items) {
    while (Item* it = items.head) {
        items.unlink(it);
        if (it->kind == kSCall) {
            vek_evt_set(it->done);  // the last touch: the caller owns the item
            continue;
        }
        if (it->kind == kEvt) {
            Evt_delete(it->p);
        } else if (it->drop) {
            it->drop(it->p);
        }
        vek_free__(it);
    }
}

/* Under the lock: the processors of q that were made and not deleted
 * (its own processor is not one), listed into t. */
vek_s32 ErpMng::leakLocked(Que* q, TinyStr* t) {
    vek_s32 n = 0;
    for (Erp* e = q->erps; e; e = e->next) {
        n += e->handler ? 1 : 0;
    }
    if (n == 0) {
        return 0;
    }
    TinyStr_appdf(t, "detect %d erp leak, the bug MUST be fixed", (int)n);
    vek_s32 i = 0;
    for (Erp* e = q->erps; e; e = e->next) {
        if (e->handler) {
            TinyStr_appdf(t, "\n    erp[%d]: ErpId=%d, evts=%d", (int)i++, (int)e->id, (int)e->pending);
        }
    }
    return n;
}

vek_s32 ErpMng::leak(vek_u32 tid) {
    if (tid == 0 || tid == al_thrd_id()) {
        Que* q = que(false);
        return q ? leakQue(q, 0) : 0;
    }
    return leakQue(nullptr, tid);
}

/* Traces the processors that q (null: the queue of thread tid) still
 * holds; the lookup and the listing are one step under the lock, so the
 * queue cannot end in between. */
vek_s32 ErpMng::leakQue(Que* q, vek_u32 tid) {
    TinyStr t;
    TinyStr_new(&t);
    AlMutex_lock(&lock_);
    if (!q) {
        auto f = ques_.find(tid);
        q = f == ques_.end() ? nullptr : f->second;
    }
    vek_s32 n = q ? leakLocked(q, &t) : 0;
    AlMutex_unlock(&lock_);
    if (n > 0) {
        vek_printf("%s", TinyStr_buf(&t));
    }
    TinyStr_delete(&t);
    return n;
}

/* Ends a queue: it leaves the tables, everything on it is dropped, its
 * processors end and its wake-up goes. */
void ErpMng::endQue(Que* q, bool onOwner) {
    List gone;
    AlMutex_lock(&lock_);
    auto f = ques_.find(q->tid);
    if (f != ques_.end() && f->second == q) {
        ques_.erase(f);
    }
    (q->prev ? q->prev->next : all_) = q->next;
    if (q->next) {
        q->next->prev = q->prev;
    }
    for (Erp* e = q->erps; e; e = e->next) {
        forget(erps_, e->id);
        gone.splice(e->held, false);
    }
    gone.splice(q->items, false);
    detach(gone);
    AlMutex_unlock(&lock_);
    drop(gone);
    while (Erp* e = q->erps) {
        q->erps = e->next;
        vek_free__(e);
    }
    if (onOwner) {
        plat::erp_wake_retire(&q->wake);
    }
    unref(q);
}

void ErpMng::thrdEnd() {
    Que* q = que(false);
    if (!q) {
        return;
    }
    leak(0);
    plat::tls_set(tsl_, nullptr);
    endQue(q, true);
}

vek_s32 ErpMng::scall(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_s32 tmo, vek_s32 flags) {
    if (tid == al_thrd_id()) {
        return fn(arg);
    }
    Item it{};
    it.kind = kSCall;
    it.call = fn;
    it.p = arg;
    it.state = kQueued;
    it.done = plat::event_create(1, 0);
    if (!it.done) {
        return VEK_ERR_FULL;
    }
    AlMutex_lock(&lock_);
    auto f = ques_.find(tid);
    if (f == ques_.end()) {
        AlMutex_unlock(&lock_);
        plat::handle_close(it.done);
        return VEK_ERR_NOT_FOUND;
    }
    Que* wake = enqueue(f->second, &it);
    AlMutex_unlock(&lock_);
    wakeNow(wake);
    // Pumping: a target that calls back into this thread meanwhile is
    // served, so two threads may call each other.
    vek_s32 r = vek_evt_mwait__(it.done, nullptr, tmo, flags);
    if (r != 0) {
        AlMutex_lock(&lock_);
        bool withdrawn = it.state == kQueued;
        if (withdrawn) {
            it.que->items.unlink(&it);
            it.que->queued.store(it.que->items.n);
        }
        AlMutex_unlock(&lock_);
        if (!withdrawn) {  // begun: it uses arg until its end
            vek_evt_mwait__(it.done, nullptr, VEK_WAIT_INFINITE, VEK_WAIT_FORBID_ABORT);
            r = 0;
        }
    }
    plat::handle_close(it.done);
    return r == 0 ? it.result : r;
}

vek_s32 ErpMng::acall(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_erp_fn drop) {
    Item* it = new_item(kACall, arg);
    if (!it) {
        return VEK_ERR_FULL;
    }
    it->call = fn;
    it->drop = drop;
    AlMutex_lock(&lock_);
    auto f = ques_.find(tid);
    vek_s32 id = f == ques_.end() ? VEK_ERR_NOT_FOUND : newId();
    if (id > 0) {
        try {
            acalls_.emplace(id, it);
        } catch (const std::bad_alloc&) {
            id = VEK_ERR_FULL;
        }
    }
    Que* wake = nullptr;
    if (id > 0) {
        it->id = id;
        wake = enqueue(f->second, it);
    }
    AlMutex_unlock(&lock_);
    wakeNow(wake);
    if (id < 0) {
        vek_free__(it);
    }
    return id;
}

vek_s32 ErpMng::delACall(vek_s32 id) {
    AlMutex_lock(&lock_);
    auto f = acalls_.find(id);
    if (f == acalls_.end()) {
        AlMutex_unlock(&lock_);
        return 0;
    }
    Item* it = f->second;
    forget(acalls_, id);
    it->que->items.unlink(it);
    it->que->queued.store(it->que->items.n);
    AlMutex_unlock(&lock_);
    List gone;
    gone.push_back(it);
    drop(gone);
    return 1;
}

/* The manager, or null after the assertion "erpMng". */
ErpMng* erp_mng() {
    ErpMng* m = g_erpMng.load(std::memory_order_acquire);
    if (!m) {
        vek_assert__("erpMng", __FILE__, __LINE__);
    }
    return m;
}

/* Null arguments: the assertion, and -81. */
bool arg_missing(const void* p, const char* text) {
    if (!p) {
        vek_assert__(text, __FILE__, __LINE__);
    }
    return !p;
}

} // namespace

namespace vek {

void erpmng_create(void) {
    if (g_erpMng.load(std::memory_order_acquire)) {
        vek_assert__("!erpMng", __FILE__, __LINE__);
        return;
    }
    void* mem = vek_malloc__(sizeof(ErpMng));
    if (mem) {
        g_erpMng.store(new (mem) ErpMng(), std::memory_order_release);
    }
}

void erpmng_destroy(void) {
    ErpMng* m = g_erpMng.load(std::memory_order_acquire);
    if (!m) {
        return;
    }
    m->~ErpMng();  // still published while it ends its queues (drop needs it)
    g_erpMng.store(nullptr, std::memory_order_release);
    vek_free__(m);
}

void erp_thrd_end(void) {
    if (ErpMng* m = g_erpMng.load(std::memory_order_acquire)) {
        m->thrdEnd();
    }
}

vek_handle erp_wait_hnd(void) {
    ErpMng* m = g_erpMng.load(std::memory_order_acquire);
    Que* q = m ? m->que(false) : nullptr;
    return q ? q->wake.evt : nullptr;
}

void erp_wnd_disp(void) {
    vek_erp_disp();
}

} // namespace vek

extern "C" {

VEK_API vek_s32 vek_erp_create(vek_erp_handler handler, void* ctx) {
    ErpMng* m = erp_mng();
    if (!m) {
        return VEK_ERR_NOT_OPEN;
    }
    return arg_missing((const void*)handler, "handler") ? VEK_ERR_BAD_ARG : m->create(handler, ctx, false);
}

VEK_API vek_s32 vek_erp_delete(vek_s32 id) {
    ErpMng* m = erp_mng();
    return m ? m->del(id) : VEK_ERR_NOT_OPEN;
}

VEK_API vek_s32 vek_erp_self(void) {
    ErpMng* m = erp_mng();
    return m ? m->self() : VEK_ERR_NOT_OPEN;
}

VEK_API vek_s32 vek_erp_post(vek_s32 id, void* evt) {
    ErpMng* m = erp_mng();
    if (!m) {
        return VEK_ERR_NOT_OPEN;
    }
    if (arg_missing(evt, "evt")) {
        return VEK_ERR_BAD_ARG;
    }
    Item* it = new_item(kEvt, evt);
    if (!it) {
        return VEK_ERR_FULL;
    }
    vek_s32 r = m->post(id, it);
    if (r != 0) {
        vek_free__(it);
    }
    return r;
}

VEK_API vek_s32 vek_erp_postf(vek_s32 id, vek_erp_fn fn, void* arg, vek_erp_fn drop) {
    ErpMng* m = erp_mng();
    if (!m) {
        return VEK_ERR_NOT_OPEN;
    }
    if (arg_missing((const void*)fn, "fn")) {
        return VEK_ERR_BAD_ARG;
    }
    Item* it = new_item(kFn, arg);
    if (!it) {
        return VEK_ERR_FULL;
    }
    it->fn = fn;
    it->drop = drop;
    vek_s32 r = m->post(id, it);
    if (r != 0) {
        vek_free__(it);
    }
    return r;
}

VEK_API vek_s32 vek_erp_pause(vek_s32 id) {
    ErpMng* m = erp_mng();
    return m ? m->pause(id, false) : VEK_ERR_NOT_OPEN;
}

VEK_API vek_s32 vek_erp_resume(vek_s32 id) {
    ErpMng* m = erp_mng();
    return m ? m->pause(id, true) : VEK_ERR_NOT_OPEN;
}

VEK_API vek_s32 vek_erp_pending(vek_s32 id) {
    ErpMng* m = erp_mng();
    return m ? m->pending(id) : VEK_ERR_NOT_OPEN;
}

VEK_API vek_s32 vek_erp_disp(void) {
    // Quiet without the manager: it is every pumping wait's dispatcher.
    ErpMng* m = g_erpMng.load(std::memory_order_acquire);
    Que* q = m ? m->que(false) : nullptr;
    return q ? m->disp(q) : 0;
}

VEK_API vek_s32 vek_erp_run(vek_s32 tmo, vek_s32 flags) {
    ErpMng* m = erp_mng();
    if (!m) {
        return VEK_ERR_NOT_OPEN;
    }
    Que* q = m->que(true);
    if (!q) {
        return VEK_ERR_FULL;
    }
    vek_handle hnds[2];
    vek_s32 n = 0;
    vek_s32 abortIdx = -1;
    if (!(flags & VEK_WAIT_FORBID_ABORT)) {
        if ((hnds[n] = vek_call_abort_evt()) != nullptr) {
            abortIdx = n++;
        }
    }
    if (q->wake.evt) {
        hnds[n++] = q->wake.evt;
    }
    vek_s32 alertable = (flags & VEK_WAIT_ALERTABLE) != 0;
    vek_u32 before = q->ran;
    vek_u32 start = vek_msec();
    for (;;) {
        m->disp(q);
        if (q->ran != before) {
            return (vek_s32)(q->ran - before);
        }
        vek_s32 left = tmo;
        if (tmo > 0) {
            vek_u32 spent = vek_msec() - start;
            left = spent >= (vek_u32)tmo ? 0 : tmo - (vek_s32)spent;
        }
        vek_u32 r = plat::msg_wait_any(hnds, n, left, alertable);
        if (abortIdx >= 0 && r == plat::kWaitObject0 + (vek_u32)abortIdx) {
            return VEK_ERR_ABORTED;
        }
        if (r == plat::kWaitObject0 + (vek_u32)n) {  // window messages
            plat::disp_msg();
        } else if (r == plat::kWaitTimeout) {
            return VEK_ERR_TIMEOUT;
        } else if (r == plat::kWaitIoCompletion) {
            if (!alertable) {
                VEK_ASSERT(alertable);
            }
        } else if (r >= plat::kWaitObject0 + (vek_u32)n) {
            char msg[128];
            vek_snprintf(msg, sizeof msg, "vek_erp_run() FAIL for WaitFor FAIL, res=%d", (int)r);
            vek_assert__(msg, __FILE__, __LINE__);
            return VEK_ERR_WAIT_FAILED;
        }
    }
}

VEK_API void vek_disp_msg(void) {
    plat::disp_msg();
    vek_erp_disp();
}

VEK_API vek_s32 vek_erp_leak(vek_u32 tid) {
    ErpMng* m = erp_mng();
    return m ? m->leak(tid) : 0;
}

VEK_API vek_s32 vek_thrd_scall__(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_s32 tmo, vek_s32 flags) {
    ErpMng* m = erp_mng();
    if (!m) {
        return VEK_ERR_NOT_OPEN;
    }
    return arg_missing((const void*)fn, "fn") ? VEK_ERR_BAD_ARG : m->scall(tid, fn, arg, tmo, flags);
}

VEK_API vek_s32 vek_thrd_acall__(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_erp_fn drop) {
    ErpMng* m = erp_mng();
    if (!m) {
        return VEK_ERR_NOT_OPEN;
    }
    return arg_missing((const void*)fn, "fn") ? VEK_ERR_BAD_ARG : m->acall(tid, fn, arg, drop);
}

VEK_API vek_s32 vek_del_acall(vek_s32 id) {
    ErpMng* m = erp_mng();
    return m ? m->delACall(id) : 0;
}

} // extern "C"
