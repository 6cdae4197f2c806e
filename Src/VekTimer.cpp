/*
 * VekTimer.cpp - the timer service: a hierarchical timing wheel with 1 ms
 * ticks, one service thread that sleeps until the next tick that matters,
 * and ids that go stale (SlotTab.h).
 *
 * The wheel has four levels of 256 buckets. Level L holds the timers due
 * 256^L to 256^(L+1) ticks after the wheel's clock (wheelNow_, the last
 * tick processed), in the bucket named by byte L of their due tick:
 *
 *   level 3  [ 256 buckets of 2^24 ticks ]   due within 2^32 ticks
 *   level 2  [ 256 buckets of 2^16 ticks ]   due within 2^24 ticks
 *   level 1  [ 256 buckets of 2^8 ticks  ]   due within 2^16 ticks
 *   level 0  [ 256 buckets of 1 tick     ]   due within 2^8 ticks
 *
 * Start and stop are O(1): a timer is linked into or unlinked from one
 * bucket's list. When the clock reaches the first tick of an occupied
 * higher bucket, its timers move down ("cascade"), each at most once per
 * level. One bit per bucket tells which are occupied, so the next tick
 * that matters (a level-0 expiry or a cascade) is a few bit scans away;
 * the service sleeps until then on one condition variable, jumps the clock
 * over the empty ticks, and is woken early only by a start that falls
 * before that tick. The lists link records by index, and what start and
 * stop touch of a record is 32 bytes (TimerRec; the callback and the
 * rest live apart, in TimerCold), so with a million timers pending a start
 * or a stop costs the record's cache miss and its two neighbours'.
 * bench/bench_timer.cpp measures this beside libuv's heap and a plain
 * binary heap.
 *
 * Expired timers are detached onto the due list before any callback runs,
 * so a callback that restarts its timer with 0 lands it on a later tick
 * (never a busy loop), and one that stops or deletes another timer of the
 * same tick just takes it off the due list. Every record carries a
 * sequence number that each start and stop bumps: an expiry sent to an
 * owner thread's queue carries the number it was sent with and is dropped
 * there when the timer was stopped or restarted meanwhile.
 *
 * One lock guards everything; no callback, wait or post runs under it.
 */
#include <bit>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>
#include "EvtWait.h"
#include "SlotTab.h"
#include "TimerSvc.h"
#include "VekCore.h"
#include "VekErp.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr vek_u32 kNil = 0xFFFFFFFFu;  // end of a list of record indices
constexpr vek_u16 kNowhere = 0xFFFF;   // in no list: idle, or handed to a callback
constexpr vek_u16 kOnDue = 0xFFFE;     // on the due list
constexpr vek_u64 kForever = ~(vek_u64)0;
// The service wakes at least this often, so the wheel's clock lags the real
// one by less than 2^22 ticks and a new timer's tick (at most 2^31 ahead)
// stays within the 2^32 ticks the wheel spans.
constexpr vek_u64 kMaxSleep = (vek_u64)1 << 22;

enum : vek_u8 {
    kIdle,     // not started
    kPending,  // in the wheel or on the due list
    kFiring,   // a one-shot that expired: its callback is running or on its way
};

enum : vek_u8 {
    kSvcThrd = 1,     // callbacks run on the service thread
    kAutoDelete = 2,  // made by vek_timer_start: a one-shot frees itself after firing
    kDeleted = 4,     // deleted while its callback runs: freed when it returns
    kQueued = 8,      // an expiry is on its way to the owner thread (seq queuedSeq)
    kCookie = 16,     // the callback takes the 64-bit cookie
    kRunning = 32,    // its callback runs now (on runTid)
    kAgain = 64,      // an expiry came while its callback ran on the owner thread
};

/* The part of a timer that start and stop touch: 32 bytes, two to a cache
 * line, so a million timers cost one miss each and their list neighbours
 * one more. */
struct TimerRec {
    vek_u32 slotGen;
    union {
        vek_u32 slotNext;  // free
        vek_u32 prev;      // in a list of the wheel or the due list
    };
    vek_u32 next;
    vek_u16 where;  // bucket (level * 256 + index), kOnDue or kNowhere
    vek_u8 state;
    vek_u8 flags;
    vek_u64 expires;  // due tick
    vek_u32 seq;      // bumped by every start and stop
    vek_u32 period;   // ms, 0 for a one-shot
};
static_assert(sizeof(TimerRec) == 32, "two hot records to a cache line");

/* The rest, read when a timer is made, fires or meets a running callback. */
struct TimerCold {
    union {
        VekTimerFn fn;
        vek::TimerCookieFn cookieFn;
    } cb;
    union {
        void* ctx;
        vek_u64 cookie;
    } arg;
    vek::EvtWaiter* waiters;  // stops waiting for the running callback
    vek_u32 runTid;           // thread running the callback (kRunning)
    vek_u32 queuedSeq;        // seq of the expiry on its way (kQueued)
    vek_s32 owner;            // event-receive processor of the callbacks, 0: the service thread
};

struct List {
    vek_u32 head = kNil;
    vek_u32 tail = kNil;
};

/* Ticks are the monotonic clock's milliseconds. */
vek_u64 now_ns() {
    return (vek_u64)std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

vek_u64 now_tick() {
    return now_ns() / 1000000u;
}

/* The first tick at or after now + ms: a timer never fires early. */
vek_u64 due_tick(vek_s32 ms) {
    return (now_ns() + (vek_u64)ms * 1000000u + 999999u) / 1000000u;
}

/* Distance from bit start to the first set bit of a 256-bit ring, or -1. */
int ring_scan(const vek_u64* bits, unsigned start) {
    unsigned w = start >> 6;
    vek_u64 m = bits[w] & (~(vek_u64)0 << (start & 63));
    for (unsigned i = 0; i < 5; i++) {
        if (m) {
            unsigned pos = ((w + i) & 3) * 64 + (unsigned)std::countr_zero(m);
            return (int)((pos - start) & 255);
        }
        m = bits[(w + i + 1) & 3];
        if (i == 3) {  // back at the first word: only the bits below start are left
            m &= (start & 63) ? ((vek_u64)1 << (start & 63)) - 1 : 0;
        }
    }
    return -1;
}

class TimerSvc {
  public:
    using Tab = vek::SlotTab<TimerRec, TimerCold>;

    TimerSvc() : tab(true) {}

    std::mutex lk;
    Tab tab;
    vek_u32 thrd = 0;     // the service thread, set by it under lk
    vek_u32 joinTid = 0;  // the same, for the stop (set by the starter)

    TimerRec* at(vek_u32 i) const { return tab.at(i); }
    TimerCold* cold(vek_u32 i) const { return tab.cold(i); }

    /* Under lk: the index of the live timer of id that is not deleted, or
     * kNil. */
    vek_u32 find(VekTimer id) const {
        vek_u32 i = tab.find(id);
        return i != kNil && !(at(i)->flags & kDeleted) ? i : kNil;
    }


    /* Under lk: (re)arms timer i for tick expires; true when that comes
     * before the tick the service sleeps until (wake it, after unlocking). */
    bool arm(vek_u32 i, vek_u64 expires) {
        TimerRec* r = at(i);
        unlink(i);
        if (wheelCount_ == 0) {
            // Nothing in the wheel: its clock may jump to now, which keeps
            // the ticks of new timers within its span after a long idle time.
            vek_u64 now = now_tick();
            if (now > wheelNow_ + 1) {
                wheelNow_ = now - 1;
            }
        }
        r->expires = expires;
        r->state = kPending;
        link(i);
        if (sleeping_ && r->expires < sleepUntil_) {
            sleepUntil_ = r->expires;
            return true;
        }
        return false;
    }

    /* Under lk: takes timer i out of the wheel or the due list. */
    void unlink(vek_u32 i) {
        TimerRec* r = at(i);
        if (r->where == kNowhere) {
            return;
        }
        List& l = r->where == kOnDue ? due_ : wheel_[r->where];
        (r->prev != kNil ? at(r->prev)->next : l.head) = r->next;
        (r->next != kNil ? at(r->next)->prev : l.tail) = r->prev;
        if (r->where != kOnDue) {
            if (l.head == kNil) {
                occ_[r->where >> 8][(r->where & 255) >> 6] &= ~((vek_u64)1 << (r->where & 63));
            }
            wheelCount_--;
        }
        r->where = kNowhere;
    }

    void wake() { cv_.notify_one(); }

    /* Waits until the service thread runs (registered with the thread
     * manager), so that BaseLib_init returns with it in place. */
    void waitStarted() {
        std::unique_lock<std::mutex> g(lk);
        cv_.wait(g, [this] { return started_; });
    }

    /* The service thread. */
    void main();

    /* Asks the service thread to end (it then returns from main). */
    void stop() {
        {
            std::lock_guard<std::mutex> g(lk);
            stopping_ = true;
        }
        cv_.notify_one();
    }

    /* Under lk: a callback of timer i returned (or its expiry was dropped):
     * wakes the stops waiting for it and finishes a one-shot. */
    void afterRun(vek_u32 i) {
        TimerRec* r = at(i);
        TimerCold* c = cold(i);
        r->flags &= (vek_u8)~kRunning;
        vek::wake_all(&c->waiters);
        if (r->flags & kAgain) {  // an expiry met the callback nested on its thread
            r->flags &= (vek_u8)~kAgain;
            if (!(r->flags & kDeleted) && c->queuedSeq == r->seq) {
                send(i);
                return;  // the one-shot ends when that expiry is run
            }
        }
        if (!(r->flags & kDeleted) && r->state == kFiring) {
            r->state = kIdle;
            if (r->flags & kAutoDelete) {
                r->flags |= kDeleted;
            }
        }
        if ((r->flags & kDeleted) && !(r->flags & kQueued)) {
            tab.release(i);
        }
    }

    /* Under lk: sends an expiry of timer i to its owner thread's queue,
     * unless one is on its way already (which then counts for this one
     * too: an owner that is slow to dispatch gets one call, not a
     * backlog). */
    void send(vek_u32 i);
    /* Under lk: an expiry of timer i cannot reach its owner thread (rc
     * from the post, or -25 for one the queue dropped): traced; when the
     * thread has ended the timer stops for good. */
    void undeliverable(vek_u32 i, vek_s32 rc);

  private:
    void push(List& l, vek_u32 i) {
        TimerRec* r = at(i);
        r->next = kNil;
        r->prev = l.tail;
        (l.tail != kNil ? at(l.tail)->next : l.head) = i;
        l.tail = i;
    }

    /* Under lk: links timer i into the wheel by its tick, after the
     * wheel's clock. */
    void link(vek_u32 i) {
        TimerRec* r = at(i);
        if (r->expires <= wheelNow_) {
            r->expires = wheelNow_ + 1;
        }
        vek_u64 d = r->expires - wheelNow_;
        unsigned level = d < (1u << 8) ? 0 : d < (1u << 16) ? 1 : d < (1u << 24) ? 2 : 3;
        unsigned idx = (unsigned)(r->expires >> (8 * level)) & 255;
        r->where = (vek_u16)(level * 256 + idx);
        push(wheel_[r->where], i);
        occ_[level][idx >> 6] |= (vek_u64)1 << (idx & 63);
        wheelCount_++;
    }

    /* Under lk: moves the timers of bucket (level, idx) down a level, or
     * onto the due list when their tick has come. */
    void cascade(unsigned level, unsigned idx) {
        List& b = wheel_[level * 256 + idx];
        vek_u32 i = b.head;
        b.head = b.tail = kNil;
        occ_[level][idx >> 6] &= ~((vek_u64)1 << (idx & 63));
        while (i != kNil) {
            TimerRec* r = at(i);
            vek_u32 next = r->next;
            wheelCount_--;
            if (r->expires <= wheelNow_) {
                r->where = kOnDue;
                push(due_, i);
            } else {
                link(i);
            }
            i = next;
        }
    }

    /* Under lk: the next tick at which an expiry or a cascade is due. */
    vek_u64 nextTick() const {
        vek_u64 best = kForever;
        int k = ring_scan(occ_[0], (unsigned)(wheelNow_ + 1) & 255);
        if (k >= 0) {
            best = wheelNow_ + 1 + (vek_u64)k;
        }
        for (unsigned level = 1; level < 4; level++) {
            vek_u64 block = wheelNow_ >> (8 * level);
            k = ring_scan(occ_[level], (unsigned)(block + 1) & 255);
            if (k >= 0) {
                vek_u64 t = (block + 1 + (vek_u64)k) << (8 * level);
                best = t < best ? t : best;
            }
        }
        return best;
    }

    /* Under lk: runs the wheel's clock up to target, moving what expires on
     * the way onto the due list in tick order. */
    void advance(vek_u64 target) {
        while (wheelNow_ < target) {
            vek_u64 t = nextTick();
            if (t > target) {
                wheelNow_ = target;
                return;
            }
            wheelNow_ = t;
            for (unsigned level = 3; level >= 1; level--) {
                if ((t & (((vek_u64)1 << (8 * level)) - 1)) == 0) {
                    cascade(level, (unsigned)(t >> (8 * level)) & 255);
                }
            }
            List& b = wheel_[t & 255];
            if (b.head == kNil) {
                continue;
            }
            for (vek_u32 i = b.head; i != kNil; i = at(i)->next) {
                at(i)->where = kOnDue;
                wheelCount_--;
            }
            (due_.tail != kNil ? at(due_.tail)->next : due_.head) = b.head;
            at(b.head)->prev = due_.tail;
            due_.tail = b.tail;
            b.head = b.tail = kNil;
            occ_[0][(t & 255) >> 6] &= ~((vek_u64)1 << (t & 63));
        }
    }

    void fire(vek_u32 i, std::unique_lock<std::mutex>& g);

    std::condition_variable cv_;
    List wheel_[4 * 256];
    vek_u64 occ_[4][4] = {};
    List due_;
    vek_u64 wheelNow_ = 0;
    vek_u64 sleepUntil_ = kForever;
    vek_u32 wheelCount_ = 0;
    bool sleeping_ = false;
    bool stopping_ = false;
    bool started_ = false;
};

TimerSvc* g_svc;

TimerSvc* svc() {
    TimerSvc* s = __atomic_load_n(&g_svc, __ATOMIC_ACQUIRE);
    if (!s) {
        vek_assert__("timerSvc", __FILE__, __LINE__);
    }
    return s;
}

/* On the owner thread, from its event-receive queue: runs the callback of
 * an expiry sent by TimerSvc::send, unless the timer was stopped,
 * restarted or deleted since. */
void deliver(void* p) {
    TimerSvc* s = __atomic_load_n(&g_svc, __ATOMIC_ACQUIRE);
    if (!s) {
        return;  // the library is stopping
    }
    vek_u32 i = (vek_u32)(uintptr_t)p;
    std::unique_lock<std::mutex> g(s->lk);
    TimerRec* r = s->at(i);
    TimerCold* c = s->cold(i);
    r->flags &= (vek_u8)~kQueued;
    if (r->flags & kRunning) {
        // Its callback runs further up this thread's stack (it dispatched
        // its queue): run this expiry once that callback has returned.
        r->flags |= kAgain;
        return;
    }
    if ((r->flags & kDeleted) || c->queuedSeq != r->seq) {
        if (r->flags & kDeleted) {
            s->tab.release(i);
        }
        return;
    }
    r->flags |= kRunning;
    c->runTid = al_thrd_id();
    VekTimer id = s->tab.id(i);
    VekTimerFn fn = c->cb.fn;
    void* ctx = c->arg.ctx;
    g.unlock();
    fn(id, ctx);
    g.lock();
    s->afterRun(i);
}

/* The queue dropped an expiry: its thread ended, or its processor. */
void dropped(void* p) {
    TimerSvc* s = __atomic_load_n(&g_svc, __ATOMIC_ACQUIRE);
    if (!s) {
        return;
    }
    std::lock_guard<std::mutex> g(s->lk);
    vek_u32 i = (vek_u32)(uintptr_t)p;
    s->at(i)->flags &= (vek_u8)~kQueued;
    s->undeliverable(i, VEK_ERR_NOT_FOUND);
}

void TimerSvc::send(vek_u32 i) {
    TimerRec* r = at(i);
    TimerCold* c = cold(i);
    c->queuedSeq = r->seq;
    if (r->flags & kQueued) {
        return;
    }
    // The post takes only the queue's own lock and calls nothing back.
    vek_s32 rc = vek_erp_postf(c->owner, deliver, (void*)(uintptr_t)i, dropped);
    if (rc < 0) {
        undeliverable(i, rc);
    } else {
        r->flags |= kQueued;
    }
}

void TimerSvc::undeliverable(vek_u32 i, vek_s32 rc) {
    TimerRec* r = at(i);
    if (r->flags & kDeleted) {
        if (!(r->flags & (kRunning | kQueued))) {
            tab.release(i);
        }
        return;
    }
    vek_printf("timer %llx: expiry dropped, its thread does not dispatch (%d)",
               (unsigned long long)tab.id(i), (int)rc);
    if (rc == VEK_ERR_NOT_FOUND) {  // the thread has ended: nobody will run it again
        unlink(i);
        r->seq++;
        r->state = kFiring;  // finished below as a one-shot that ran
    }
    if (!(r->flags & kRunning)) {
        afterRun(i);
    }
}

/* Under the lock, with timer i just taken off the due list: re-arms a
 * periodic timer and runs or sends the callback. */
void TimerSvc::fire(vek_u32 i, std::unique_lock<std::mutex>& g) {
    TimerRec* r = at(i);
    if (r->period) {
        // Keep the phase; skip the expiries a long callback made us miss.
        vek_u64 next = r->expires + r->period;
        vek_u64 now = now_tick();
        if (next <= now) {
            next += ((now - next) / r->period + 1) * r->period;
        }
        r->expires = next;
        link(i);
    } else {
        r->state = kFiring;
    }
    TimerCold* c = cold(i);
    if (!(r->flags & kSvcThrd)) {
        send(i);
        return;
    }
    r->flags |= kRunning;
    c->runTid = thrd;
    VekTimer id = tab.id(i);
    auto cb = c->cb;
    auto arg = c->arg;
    bool cookie = (r->flags & kCookie) != 0;
    g.unlock();
    if (cookie) {
        cb.cookieFn(arg.cookie);
    } else {
        cb.fn(id, arg.ctx);
    }
    g.lock();
    afterRun(i);  // i stays: a delete meanwhile only marked it
}

void TimerSvc::main() {
    std::unique_lock<std::mutex> g(lk);
    thrd = al_thrd_id();
    started_ = true;
    cv_.notify_all();
    while (!stopping_) {
        advance(now_tick());
        if (due_.head != kNil) {
            vek_u32 i = due_.head;
            unlink(i);
            fire(i, g);
            continue;
        }
        vek_u64 next = nextTick();
        vek_u64 until = next < wheelNow_ + kMaxSleep ? next : wheelNow_ + kMaxSleep;
        sleepUntil_ = next;
        sleeping_ = true;
        cv_.wait_until(g, Clock::time_point(std::chrono::milliseconds(until)));
        sleeping_ = false;
    }
}

vek_u32 svc_entry(void* p) {
    ((TimerSvc*)p)->main();
    return 0;
}

/* The service, locked, and the live timer of an id (i kNil when there is
 * none, or no service: then the lock is not taken). */
struct TimerRef {
    TimerSvc* s;
    std::unique_lock<std::mutex> g;
    vek_u32 i = kNil;

    explicit TimerRef(VekTimer id) : s(svc()) {
        if (s) {
            g = std::unique_lock<std::mutex>(s->lk);
            i = s->find(id);
        }
    }
    TimerRec* r() const { return s->at(i); }
};

/* What a new timer calls, and how. */
struct NewTimer {
    vek_u8 flags;
    vek_s32 owner;
    decltype(TimerCold::cb) cb;
    decltype(TimerCold::arg) arg;
};

/* Makes a timer, started when dueMs >= 0. Its id, 0 without memory. */
VekTimer make(TimerSvc* s, const NewTimer& n, vek_s32 dueMs, vek_s32 periodMs) {
    vek_u64 tick = dueMs >= 0 ? due_tick(dueMs) : 0;
    bool wake = false;
    VekTimer id;
    {
        std::lock_guard<std::mutex> g(s->lk);
        vek_u32 i = s->tab.alloc();
        if (i == kNil) {
            return 0;
        }
        TimerRec* r = s->at(i);
        TimerCold* c = s->cold(i);
        r->state = kIdle;
        r->flags = n.flags;
        r->where = kNowhere;
        r->seq = 0;
        r->period = dueMs >= 0 ? (vek_u32)periodMs : 0;
        c->cb = n.cb;
        c->arg = n.arg;
        c->waiters = nullptr;
        c->runTid = 0;
        c->queuedSeq = 0;
        c->owner = n.owner;
        if (dueMs >= 0) {
            wake = s->arm(i, tick);
        }
        id = s->tab.id(i);
    }
    if (wake) {
        s->wake();
    }
    return id;
}

/* The service, the callback and the owner of a public timer; false (with
 * the assertion) when the timer cannot be made. */
bool new_public(VekTimerFn fn, void* ctx, vek_s32 flags, TimerSvc** s, NewTimer* n) {
    *s = svc();
    if (!*s) {
        return false;
    }
    if (!fn) {
        VEK_ASSERT(fn);
        return false;
    }
    bool svcThrd = (flags & VEK_TIMER_SVC_THRD) != 0;
    n->flags = svcThrd ? kSvcThrd : 0;
    n->owner = svcThrd ? 0 : vek_erp_self();
    if (n->owner < 0) {
        return false;  // no queue for the calling thread (no memory)
    }
    n->cb.fn = fn;
    n->arg.ctx = ctx;
    return true;
}

vek_s32 start(VekTimer timer, vek_s32 dueMs, vek_s32 periodMs) {
    if (dueMs < 0 || periodMs < 0) {
        return VEK_ERR_BAD_ARG;
    }
    vek_u64 tick = due_tick(dueMs);
    TimerRef t(timer);
    if (t.i == kNil) {
        return VEK_ERR_NOT_FOUND;
    }
    t.r()->seq++;
    t.r()->period = (vek_u32)periodMs;
    if (t.s->arm(t.i, tick)) {
        t.g.unlock();
        t.s->wake();
    }
    return 0;
}

/* VekTimer_stop and VekTimer_delete. */
vek_s32 stop(VekTimer timer, vek_s32 tmo, bool del) {
    TimerRef t(timer);
    if (t.i == kNil) {
        return VEK_ERR_NOT_FOUND;
    }
    TimerSvc* s = t.s;
    TimerRec* r = t.r();
    bool running = (r->flags & kRunning) != 0;
    vek_s32 res = r->state == kPending || (r->state == kFiring && !running) ? 1 : 0;
    s->unlink(t.i);
    r->seq++;
    r->state = kIdle;
    if (del) {
        r->flags |= kDeleted;
    }
    if (running && s->cold(t.i)->runTid != al_thrd_id()) {
        // Its callback runs on another thread: wait for it, or say so. A
        // deleted record lives on until that callback returns.
        vek_s32 waited = tmo ? vek::wait_on(&s->cold(t.i)->waiters, t.g, tmo) : VEK_ERR_FULL;
        return waited == 0 ? res : waited == VEK_ERR_FULL ? VEK_ERR_TIMER_RUNNING : waited;
    }
    if (del && !running && !(r->flags & kQueued)) {
        s->tab.release(t.i);
    }
    return res;
}

} // namespace

namespace vek {

void timer_svc_start(void) {
    if (__atomic_load_n(&g_svc, __ATOMIC_ACQUIRE)) {
        vek_assert__("!timerSvc", __FILE__, __LINE__);
        return;
    }
    void* mem = vek_malloc__(sizeof(TimerSvc));
    if (!mem) {
        return;
    }
    TimerSvc* s = new (mem) TimerSvc();
    s->tab.prime();  // making a timer allocates nothing until a thousand are made
    s->joinTid = vek_thrd_create__(svc_entry, s, 0);
    if (!s->joinTid) {
        s->~TimerSvc();
        vek_free__(s);
        return;
    }
    s->waitStarted();
    __atomic_store_n(&g_svc, s, __ATOMIC_RELEASE);
}

void timer_svc_stop(void) {
    TimerSvc* s = __atomic_exchange_n(&g_svc, nullptr, __ATOMIC_ACQ_REL);
    if (!s) {
        return;
    }
    s->stop();
    vek_thrd_join(s->joinTid);
    if (vek_u32 n = s->tab.live()) {
        TinyStr t;
        TinyStr_new(&t);
        TinyStr_appdf(&t, "detect %u timer leak, the bug MUST be fixed", n);
        int k = 0;
        s->tab.each([&](vek_u32 i) {
            TimerRec* r = s->at(i);
            TinyStr_appdf(&t, "\n    timer[%d]: id=%llx, %s, period=%u", k++,
                          (unsigned long long)s->tab.id(i),
                          r->flags & kDeleted ? "deleted" : r->state == kIdle ? "idle" : "started",
                          r->period);
        });
        vek_printf("%s", TinyStr_buf(&t));
        TinyStr_delete(&t);
    }
    s->~TimerSvc();
    vek_free__(s);
}

VekTimer timer_start_cookie(vek_s32 dueMs, TimerCookieFn fn, vek_u64 cookie) {
    TimerSvc* s = svc();
    if (!s) {
        return 0;
    }
    NewTimer n;
    n.flags = kSvcThrd | kCookie | kAutoDelete;
    n.owner = 0;
    n.cb.cookieFn = fn;
    n.arg.cookie = cookie;
    return make(s, n, dueMs < 0 ? 0 : dueMs, 0);
}

} // namespace vek

extern "C" {

VEK_API VekTimer VekTimer_new(VekTimerFn fn, void* ctx, vek_s32 flags) {
    TimerSvc* s;
    NewTimer n;
    return new_public(fn, ctx, flags, &s, &n) ? make(s, n, -1, 0) : 0;
}

VEK_API vek_s32 VekTimer_start(VekTimer timer, vek_s32 dueMs, vek_s32 periodMs) {
    return start(timer, dueMs, periodMs);
}

VEK_API vek_s32 VekTimer_stop(VekTimer timer, vek_s32 tmo) {
    return stop(timer, tmo, false);
}

VEK_API vek_s32 VekTimer_delete(VekTimer timer, vek_s32 tmo) {
    return stop(timer, tmo, true);
}

VEK_API vek_s32 VekTimer_due(VekTimer timer) {
    TimerRef t(timer);
    if (t.i == kNil) {
        return VEK_ERR_NOT_FOUND;
    }
    TimerRec* r = t.r();
    if (r->state == kFiring && !(r->flags & kRunning)) {
        return 0;  // expired, on its way to the owner thread
    }
    if (r->state != kPending) {
        return VEK_ERR_NOT_OPEN;
    }
    vek_u64 now = now_ns();
    vek_u64 due = r->expires * 1000000u;
    return due <= now ? 0 : (vek_s32)((due - now) / 1000000u);
}

VEK_API VekTimer vek_timer_start(vek_s32 dueMs, vek_s32 periodMs, VekTimerFn fn, void* ctx,
                                 vek_s32 flags) {
    TimerSvc* s;
    NewTimer n;
    if (dueMs < 0 || periodMs < 0 || !new_public(fn, ctx, flags, &s, &n)) {
        return 0;
    }
    n.flags |= kAutoDelete;
    return make(s, n, dueMs, periodMs);
}

VEK_API vek_s32 vek_timer_stop(VekTimer timer, vek_s32 tmo) {
    return VekTimer_delete(timer, tmo);
}

} // extern "C"
