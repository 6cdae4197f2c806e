/*
 * TaskSvr.cpp - the task server: pools of library threads that run tasks
 * in FIFO order, tasks posted for later through the timer service, and
 * cancellation before and while a task runs.
 *
 * One lock guards every pool; it is held only to move records between
 * lists, never while a task, a clean-up, a wait or a thread cancel runs.
 * The table of tasks (ids that go stale, SlotTab.h) has a spin lock of its
 * own, taken inside the pool lock or alone, for a few stores at a time.
 * Each pool keeps:
 *
 *   inbox  - tasks just posted, newest first, pushed without the pool lock
 *   sched  - tasks posted for later (each with a one-shot service timer)
 *   queue  - tasks waiting for a worker, oldest first
 *   idle   - a stack of idle workers; a post wakes the top one, whose
 *            cache is the warmest, through its own condition variable
 *
 * A post takes no pool lock while every worker is busy: in a burst the
 * workers would otherwise fight the posting thread for the lock on every
 * task, and each lost fight costs both a sleep and a wake-up in the
 * kernel. The inbox moves into the queue (oldest first again) whenever a
 * holder of the pool lock needs to see it: a worker out of work, a cancel
 * or wait naming a task still there, drain, stat, deletion. A post whose
 * task made the inbox non-empty takes the lock only when the pool has
 * spare capacity (an idle worker or room for a new one: the counter
 * spare), to wake or start a worker. A worker counts itself spare before
 * its last look at the inbox and a post pushes before it reads spare, so
 * one of the two always sees the other. A worker that takes a task and
 * leaves more queued than workers on their way wakes the next idle one
 * when the pool's tasks take a while; short ones stay with the worker
 * that runs them, while an idle one watches the queue (kShareUs). A post
 * that sees that watcher takes no lock either. A worker out of work
 * watches the inbox a little before it sleeps (kSpinUs).
 *
 * A running task is cancelled by cancelling its worker thread. That must
 * never hit the worker's next task: the canceller counts itself on the
 * worker (cancels) under the lock before it lets go and calls
 * vek_thrd_cancel, and a worker whose task has returned waits until that
 * count is 0 before it clears its abort state and takes the next task.
 *
 * Workers above a pool's minimum leave after kIdleLeave without work. A
 * worker that left stays on the pool's list until somebody joins its
 * thread (the next start of a worker, TaskSvr_trim, or the pool's
 * deletion), so no thread of a pool outlives it unseen.
 */
#include <atomic>
#include <chrono>
#include <thread>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include "EvtWait.h"
#include "SlotTab.h"
#include "SpinWait.h"
#include "TaskSvr.h"
#include "TimerSvc.h"
#include "VekCore.h"

namespace {

constexpr vek_u32 kSvrMark = 0x7A5C53;
constexpr auto kIdleLeave = std::chrono::seconds(30);
constexpr vek_s32 kDefMaxThrds = 128;
// How long a worker that ran out of work in a burst (it ran more than one
// task since it last slept) watches the inbox before it sleeps, one worker
// of a pool at a time. When the workers are faster than the thread that
// posts, each would otherwise sleep after every batch and be woken by the
// next post: a round trip through the kernel per batch, and posts that
// must take the lock to wake them. After a lone task it sleeps at once: a
// worker that has just spun is slower to win a core back when woken.
constexpr vek_u64 kSpinUs = 20;
// Short tasks run on one worker at a time. Two workers that share a queue
// of tasks shorter than this pass the pool's cache lines back and forth on
// every one of them, and run them several times slower than one worker
// alone. While the pool's tasks run at least this long (the shorter of the
// last two that ended), a task that waits is given an idle worker at once
// (help_for_queue). While they are shorter and a worker runs, that worker
// comes back for it soon: an idle worker is only sent to watch the queue
// (kWatchUs), and helps when the queue stops moving; and a worker that
// finds another starting tasks steps aside (step_aside).
constexpr vek_u64 kShareUs = 1;
// How long the queue may stand still, tasks waiting and none starting,
// before the worker watching it joins in.
constexpr auto kWatchUs = std::chrono::microseconds(50);

enum : vek_u8 { kScheduled, kInbox, kQueued, kRunning, kEnding };

struct Worker;

// On cache lines of its own (the table's chunks start on a line): in a
// burst the posting thread fills one record while a worker ends the one
// before it.
struct alignas(64) TaskRec {
    vek_u32 slotGen;
    vek_u32 slotNext;
    vek_u32 idx;  // its index in the table
    vek_u8 state;
    TaskRec* prev;  // links of the pool's sched or queue list
    TaskRec* next;  // and of its inbox
    TaskSvr* svr;
    TaskFn fn;
    TaskCleanFn clean;
    void* ctx;
    vek::EvtWaiter* waiters;  // TaskSvr_wait
    VekTimer timer;           // scheduled: the timer that queues it
    vek_u64 queuedAt;         // when it was posted (stamp), for the statistics
    Worker* worker;           // running: its worker
    vek_u32 runTid;           // the thread running fn or the clean-up
};

struct TaskList {
    TaskRec* head;
    TaskRec* tail;

    void push(TaskRec* t) {
        t->next = nullptr;
        t->prev = tail;
        (tail ? tail->next : head) = t;
        tail = t;
    }
    void remove(TaskRec* t) {
        (t->prev ? t->prev->next : head) = t->next;
        (t->next ? t->next->prev : tail) = t->prev;
        t->prev = t->next = nullptr;
    }
};

struct Worker {
    Worker* next;      // the pool's workers
    Worker* idleNext;  // the pool's idle stack
    TaskSvr* svr;
    std::condition_variable cv;
    TaskRec* task;     // the task whose fn it runs
    vek_u32 tid;       // set by the worker when it starts
    vek_s32 cancels;   // cancels of its task between the canceller's unlock and vek_thrd_cancel
    bool cancelled;    // its task was cancelled: clear its abort state after it
    bool wake;         // taken off the idle stack: work, or leave
    bool waking;       // woken for work, not yet back in its loop (counted in waking)
    bool leave;        // asked to leave (trim, idle time)
    bool left;         // out of the pool's loop; joinable
    bool trimmed;      // a TaskSvr_trim waits for it to leave and joins it
    bool watch;        // woken to watch the queue (the pool's watcher)
};

} // namespace

struct TaskSvr {
    // What a post reads, apart from what the workers change under the lock
    // (the paddings keep each group on cache lines of its own).
    vek_u32 hdr;  // kSvrMark
    std::atomic<bool> stopping;
    vek_s32 minThrds;
    vek_s32 maxThrds;
    char* name;
    TaskSvr* nextSvr;
    char pad0[64];
    std::atomic<TaskRec*> inbox;
    char pad1[64];
    // idle + (maxThrds - thrds), read by posts without the lock
    std::atomic<vek_s32> spare;
    std::atomic<bool> spinning;  // a worker watches the inbox (watch_inbox)
    std::atomic<Worker*> watcher;  // the worker watching the queue (watch_queue), or null
    char pad2[64];
    vek_s32 thrds;     // workers started and not left
    vek_s32 idle;      // on the idle stack
    vek_s32 starting;  // started, not yet in their loop
    vek_s32 waking;    // woken for work, not yet back in their loop
    vek_s32 ending;    // in a clean-up: idle as soon as it returns
    vek_s32 trimming;  // TaskSvr_trim calls waiting for ending to reach 0
    vek_s32 tasks;     // posted and not ended, but those in the inbox
    vek_s32 scheduled;
    vek_s32 queued;
    vek_s32 running;
    vek_s32 maxQueued;
    vek_u64 started;  // tasks that started: the watcher sees the queue move
    vek_u64 lastRan;    // how long the fn of the task that ended last ran (stamp's units)
    vek_u64 runTicks;   // the shorter of the last two such times
    vek_u64 lastStart;  // when a task last started (stamp), and on which worker
    Worker* lastStarter;
    vek_u64 done;
    vek_u64 cancelled;
    vek_u64 waitTicks;  // stamp's units
    vek_u64 maxWaitTicks;
    TaskList sched;
    TaskList queue;
    Worker* workers;
    Worker* idleTop;
    vek::EvtWaiter* drainers;
    std::condition_variable settle;  // a worker started, or its cancels reached 0
    // Wake-ups signalled after the lock was let go and not yet returned:
    // the woken worker may meanwhile run its task and leave, so no worker
    // record is freed before they have (see kick, join_left).
    std::atomic<vek_s32> notifying;
};

namespace {

vek_u64 now_ns() {
    return (vek_u64)std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/* The clock of the wait statistics, read twice per task: the processor's
 * time-stamp counter where there is one (a few cycles, where the system's
 * steady clock costs a call), else the steady clock in ns. TaskSvr_stat
 * turns it into us at the rate measured since the server started. */
vek_u64 stamp() {
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_ia32_rdtsc();
#else
    return now_ns();
#endif
}

struct TaskMgr {
    std::mutex lk;
    char pad0[64];
    std::atomic<bool> tabBusy{false};  // the table's spin lock
    char pad1[64];
    // Compacted when a pool calms down (a worker leaves for lack of work,
    // TaskSvr_trim), not whenever the last task ends: pools empty and fill
    // in bursts.
    vek::SlotTab<TaskRec> tab{false};
    TaskSvr* svrs = nullptr;
    TaskSvr* def = nullptr;
    vek_u64 stamp0 = stamp();  // the statistics' clock and the steady clock at the start
    vek_u64 ns0 = now_ns();
    vek_u64 shareTicks = 0;  // kShareUs and kWatchUs in stamp's units
    vek_u64 watchTicks = 0;
};

TaskMgr* g_mgr;
using Guard = std::unique_lock<std::mutex>;

TaskMgr* mgr() {
    TaskMgr* m = __atomic_load_n(&g_mgr, __ATOMIC_ACQUIRE);
    if (!m) {
        vek_assert__("taskSvr", __FILE__, __LINE__);
    }
    return m;
}

/* The table's lock: held for a few stores, so a waiter spins a little
 * before it lets the holder's core run. */
class TabGuard {
  public:
    explicit TabGuard(TaskMgr* m) : m_(m) {
        for (unsigned spin = 0; m_->tabBusy.exchange(true, std::memory_order_acquire);) {
            vek::spin_wait(spin);
        }
    }
    ~TabGuard() { m_->tabBusy.store(false, std::memory_order_release); }
    TabGuard(const TabGuard&) = delete;
    TabGuard& operator=(const TabGuard&) = delete;

  private:
    TaskMgr* m_;
};

void enqueue(TaskSvr* svr, TaskRec* t, vek_u64 now);

/* Under the lock: moves svr's inbox into its queue, oldest first. False
 * when the inbox was empty. */
bool take_inbox(TaskSvr* svr) {
    TaskRec* t = svr->inbox.exchange(nullptr, std::memory_order_seq_cst);
    if (!t) {
        return false;
    }
    TaskRec* oldest = nullptr;
    while (t) {
        TaskRec* next = t->next;
        t->next = oldest;
        oldest = t;
        t = next;
    }
    while (oldest) {
        TaskRec* next = oldest->next;
        svr->tasks++;
        enqueue(svr, oldest, oldest->queuedAt);
        oldest = next;
    }
    return true;
}

/* Under the lock: the live task of id, or null. A task still in its
 * pool's inbox is queued first, so that the caller finds it on a list. */
TaskRec* find(TaskMgr* m, VekTask id) {
    TaskRec* t;
    {
        TabGuard tg(m);
        vek_u32 idx = m->tab.find(id);
        t = idx == m->tab.kNone ? nullptr : m->tab.at(idx);
    }
    if (t && t->state == kInbox) {
        take_inbox(t->svr);
    }
    return t;
}

TaskSvr* self(TaskSvr* svr, vek_s32 line) {
    if (!svr || svr->hdr != kSvrMark) {
        ObjUtil_crashExit(__FILE__, line);
    }
    return svr;
}

/* Under the lock: true when the caller is one of svr's workers. */
bool own_worker(TaskSvr* svr) {
    vek_u32 me = al_thrd_id();
    for (Worker* w = svr->workers; w; w = w->next) {
        if (w->tid == me && !w->left) {
            return true;
        }
    }
    return false;
}

/* Under the lock: a task has ended; wake its waiters and free it. */
void finish(TaskMgr* m, TaskSvr* svr, TaskRec* t) {
    vek::wake_all(&t->waiters);
    m->tab.release_async(t->idx);  // the posting thread needs the table's lock
    if (--svr->tasks == 0) {
        vek::wake_all(&svr->drainers);
    }
}

void enqueue(TaskSvr* svr, TaskRec* t, vek_u64 now) {
    t->state = kQueued;
    t->queuedAt = now;
    svr->queue.push(t);
    if (++svr->queued > svr->maxQueued) {
        svr->maxQueued = svr->queued;
    }
}

/* Under the lock: a new worker record, counted as starting; null without
 * memory. */
Worker* add_worker(TaskSvr* svr) {
    void* mem = vek_malloc__(sizeof(Worker));
    if (!mem) {
        return nullptr;
    }
    Worker* w = new (mem) Worker();
    w->svr = svr;
    w->next = svr->workers;
    svr->workers = w;
    svr->thrds++;
    svr->spare.fetch_sub(1, std::memory_order_relaxed);
    svr->starting++;
    return w;
}

/* Under the lock: unlinks the records of the workers that left into a
 * list for join_left (those a trim waits for only when all is set). */
Worker* take_left(TaskSvr* svr, bool all) {
    Worker* out = nullptr;
    for (Worker** pp = &svr->workers; *pp;) {
        Worker* w = *pp;
        if (w->left && (all || !w->trimmed)) {
            *pp = w->next;
            w->next = out;
            out = w;
        } else {
            pp = &w->next;
        }
    }
    return out;
}

void unlink_worker(TaskSvr* svr, Worker* w) {
    Worker** pp = &svr->workers;
    while (*pp != w) {
        pp = &(*pp)->next;
    }
    *pp = w->next;
}

/* Without the lock: joins the threads of a take_left list and frees it. */
void join_left(TaskSvr* svr, Worker* w) {
    while (w && svr->notifying.load(std::memory_order_acquire)) {
        std::this_thread::yield();  // a kick is inside notify_one: a few instructions
    }
    while (w) {
        Worker* next = w->next;
        vek_thrd_join(w->tid);
        w->~Worker();
        vek_free__(w);
        w = next;
    }
}

vek_u32 worker_main(void* p);

/* Under the lock: takes the top idle worker off the stack for work, or
 * null; wake it with notify once the lock is let go. */
Worker* pop_idle(TaskSvr* svr) {
    Worker* w = svr->idleTop;
    if (w) {
        svr->idleTop = w->idleNext;
        svr->idle--;
        svr->spare.fetch_sub(1, std::memory_order_relaxed);
        svr->waking++;
        w->waking = true;
        w->wake = true;
        svr->notifying.fetch_add(1, std::memory_order_relaxed);
    }
    return w;
}

void notify(TaskSvr* svr, Worker* w) {
    w->cv.notify_one();
    svr->notifying.fetch_sub(1, std::memory_order_release);
}

/* Called with g locked, returns with it locked: starts the thread of a
 * record from add_worker and joins the workers that left meanwhile. False
 * when no thread could be started (the record is gone then). */
bool start_worker(TaskSvr* svr, Worker* w, Guard& g) {
    Worker* left = take_left(svr, false);
    g.unlock();
    join_left(svr, left);
    vek_u32 tid = vek_thrd_create__(worker_main, w, 0);
    g.lock();
    if (tid) {
        return true;
    }
    unlink_worker(svr, w);
    svr->thrds--;
    svr->spare.fetch_add(1, std::memory_order_relaxed);
    svr->starting--;
    svr->settle.notify_all();
    w->~Worker();
    vek_free__(w);
    return false;
}

/* Under the lock, with more tasks queued than workers on their way to
 * them: the idle worker to wake (notify) for them, or null when none is
 * needed or idle. See kShareUs: when the tasks are short and a worker
 * runs, the one woken becomes the queue's watcher, and only the first. */
Worker* help_for_queue(TaskSvr* svr) {
    if (!svr->running || svr->runTicks >= g_mgr->shareTicks) {
        return pop_idle(svr);
    }
    if (svr->watcher.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    Worker* w = pop_idle(svr);
    if (w) {
        w->watch = true;  // not on its way to a task: not counted as waking
        w->waking = false;
        svr->waking--;
        svr->watcher.store(w, std::memory_order_seq_cst);  // a post now need not wake another
    }
    return w;
}

/* Called with g locked, returns with it locked: starts a worker for the
 * queued tasks when none watches them and the pool may grow beyond those
 * starting. */
void grow(TaskSvr* svr, Guard& g) {
    if (!svr->watcher.load(std::memory_order_relaxed) && svr->thrds < svr->maxThrds &&
        svr->queued > svr->starting) {
        if (Worker* w = add_worker(svr)) {
            start_worker(svr, w, g);
        }
    }
}

/* Called with g locked, returns with it locked unless it says so: finds a
 * worker for a task just queued. No worker is woken while those woken
 * already are as many as the tasks queued (each runs tasks until the queue
 * is empty), so a burst of posts does not wake the pool once per task. An
 * idle worker is woken after the lock is let go (*unlocked set), so that
 * it does not wake only to wait for the lock; it cannot go away meanwhile,
 * since it is off the idle stack and only leaves from there. With none
 * idle and nobody watching, a worker starts when the pool may grow. False
 * when the pool has no worker at all and none could be started: nobody
 * would ever run the task. */
bool kick(TaskSvr* svr, Guard& g, bool* unlocked) {
    *unlocked = false;
    if (svr->waking >= svr->queued) {
        return true;  // the workers on their way take this task too
    }
    if (Worker* w = help_for_queue(svr)) {
        g.unlock();
        *unlocked = true;
        notify(svr, w);
        return true;
    }
    grow(svr, g);
    return svr->thrds > 0;
}

/* Under the lock: runs the task at the head of the queue on worker w. */
void run(TaskMgr* m, TaskSvr* svr, Worker* w, Guard& g) {
    TaskRec* t = svr->queue.head;
    svr->queue.remove(t);
    svr->queued--;
    svr->running++;
    t->state = kRunning;
    t->worker = w;
    t->runTid = w->tid;
    w->task = t;
    vek_u64 started = stamp();
    svr->started++;
    svr->lastStart = started;
    svr->lastStarter = w;
    Worker* next = nullptr;
    if (svr->queue.head && svr->waking < svr->queued) {
        // With nobody idle, nobody watching and room to grow: a post that
        // saw a watcher took no lock, so this may be the last look at the
        // queue before every worker is busy.
        if (!(next = help_for_queue(svr))) {
            grow(svr, g);
        }
    }
    g.unlock();
    if (next) {
        notify(svr, next);
    }
    vek_s32 res = t->fn(t->ctx);
    vek_u64 ran = stamp() - started;
    g.lock();
    svr->runTicks = ran < svr->lastRan ? ran : svr->lastRan;
    svr->lastRan = ran;
    // Another core's counter may lag a little behind the posting one's.
    vek_u64 waited = started > t->queuedAt ? started - t->queuedAt : 0;
    svr->waitTicks += waited;
    if (waited > svr->maxWaitTicks) {
        svr->maxWaitTicks = waited;
    }
    while (w->cancels) {  // a cancel of this task must land before the clear
        svr->settle.wait(g);
    }
    t->state = kEnding;
    t->worker = nullptr;
    w->task = nullptr;
    if (w->cancelled) {  // tested only then: the test costs a system call
        w->cancelled = false;
        vek_thrd_abortedx(1);
    }
    if (t->clean) {
        svr->ending++;
        g.unlock();
        t->clean(t->ctx, res);
        g.lock();
        if (--svr->ending == 0 && svr->trimming) {
            svr->settle.notify_all();
        }
    }
    svr->running--;
    svr->done++;
    finish(m, svr, t);
}

/* Without the lock: a worker out of work watches the inbox for a while
 * before it sleeps (see kSpinUs), yielding its core to any thread that
 * wants it. */
void watch_inbox(TaskSvr* svr) {
    vek_u64 until = now_ns() + kSpinUs * 1000;
    for (unsigned i = 1; !svr->inbox.load(std::memory_order_relaxed); i++) {
        if (i % 16 == 0 && now_ns() > until) {
            return;
        }
        std::this_thread::yield();
    }
}

/* Called with g locked, returns with it locked: the watcher of svr's queue
 * and inbox looks at them every kWatchUs while tasks wait. True when none
 * has started meanwhile: the caller is to run them. False when none
 * waits, or the pool stops. Posts that see a watcher take no lock, so it
 * stops watching before its last look at the inbox, as a worker that
 * sleeps counts itself spare before its own. */
bool watch_queue(TaskSvr* svr, Worker* w, Guard& g) {
    w->watch = true;
    svr->watcher.store(w, std::memory_order_seq_cst);
    vek_u64 seen = svr->started;
    bool stood = false;
    while (!svr->stopping.load(std::memory_order_relaxed)) {
        if (!svr->queue.head && !svr->inbox.load(std::memory_order_relaxed)) {
            svr->watcher.store(nullptr, std::memory_order_seq_cst);
            if (!svr->inbox.load(std::memory_order_seq_cst)) {
                break;
            }
            svr->watcher.store(w, std::memory_order_relaxed);
        }
        if (w->cv.wait_for(g, kWatchUs) == std::cv_status::no_timeout) {
            continue;  // woken early (TaskSvr_trim): look again
        }
        if (svr->started == seen) {
            stood = true;
            break;
        }
        seen = svr->started;
    }
    w->watch = false;
    svr->watcher.store(nullptr, std::memory_order_relaxed);
    if (svr->trimming) {
        svr->settle.notify_all();
    }
    return stood;
}

/* Under the lock, for worker w that finds a task queued: true when it is
 * to leave the task to another worker, which started one a moment ago
 * (see kShareUs). */
bool step_aside(TaskMgr* m, TaskSvr* svr, Worker* w) {
    return svr->running && svr->runTicks < m->shareTicks && svr->lastStarter != w &&
           stamp() - svr->lastStart < m->watchTicks &&
           !svr->stopping.load(std::memory_order_relaxed);
}

vek_u32 worker_main(void* p) {
    Worker* w = (Worker*)p;
    TaskSvr* svr = w->svr;
    TaskMgr* m = g_mgr;
    vek_thrd_abort_evt();  // its abort event now, not in the first task
    Guard g(m->lk);
    w->tid = al_thrd_id();
    svr->starting--;
    svr->settle.notify_all();
    vek_u32 streak = 0;  // tasks run since it last slept
    bool spun = false;
    bool help = false;  // it watched the queue stand still: runs the next task
    while (!w->leave) {
        bool aside = false;
        if (help) {
            take_inbox(svr);  // posts that saw it watching left their tasks there
        }
        if (svr->queue.head || take_inbox(svr)) {
            if (help || !step_aside(m, svr, w)) {
                run(m, svr, w, g);
                streak++;
                spun = false;
                help = false;
                continue;
            }
            if (!svr->watcher.load(std::memory_order_relaxed)) {
                help = watch_queue(svr, w, g);
                continue;
            }
            aside = true;  // to sleep, as the worker that runs comes back for the inbox
        }
        if (svr->stopping.load(std::memory_order_relaxed)) {
            break;
        }
        if (streak > 1 && !spun && !aside && !svr->spinning.load(std::memory_order_relaxed)) {
            spun = true;  // once, then to sleep
            svr->spinning.store(true, std::memory_order_relaxed);
            g.unlock();
            watch_inbox(svr);
            g.lock();
            // Before its next look at the inbox: a post that saw it
            // watching woke nobody.
            svr->spinning.store(false, std::memory_order_seq_cst);
            if (svr->trimming) {
                svr->settle.notify_all();
            }
            continue;  // the pool may have changed meanwhile: look again
        }
        spun = false;
        streak = 0;
        svr->spare.fetch_add(1, std::memory_order_seq_cst);
        if (!aside && svr->inbox.load(std::memory_order_seq_cst)) {  // a post that saw no spare worker
            svr->spare.fetch_sub(1, std::memory_order_relaxed);
            continue;
        }
        w->wake = false;
        w->idleNext = svr->idleTop;
        svr->idleTop = w;
        svr->idle++;
        while (!w->wake) {
            if (svr->thrds <= svr->minThrds) {
                w->cv.wait(g);
            } else if (w->cv.wait_for(g, kIdleLeave) == std::cv_status::timeout && !w->wake) {
                Worker** pp = &svr->idleTop;
                while (*pp != w) {
                    pp = &(*pp)->idleNext;
                }
                *pp = w->idleNext;
                svr->idle--;  // and thrds at the exit: spare stays
                w->leave = true;
                TabGuard tg(m);
                m->tab.compact();
                break;
            }
        }
        if (w->wake && w->waking) {
            w->waking = false;
            svr->waking--;
        }
        if (w->watch) {
            help = watch_queue(svr, w, g);
        }
    }
    w->left = true;
    svr->thrds--;
    svr->settle.notify_all();
    return 0;
}

/* Called with g locked, returns with it locked: cancels the thread of
 * worker w, which runs a task. The count of cancels on their way keeps the
 * worker from taking its next task (and w from going away) before the
 * cancel has landed; vek_thrd_cancel runs without the lock, since it calls
 * the thread's additional cancel callback. */
void cancel_worker(TaskSvr* svr, Worker* w, Guard& g) {
    w->cancels++;
    w->cancelled = true;
    vek_u32 tid = w->tid;
    g.unlock();
    vek_thrd_cancel(tid);
    g.lock();
    if (--w->cancels == 0) {
        svr->settle.notify_all();
    }
}

/* Removes a task that has not started (it must be scheduled or queued):
 * its timer stops, its clean-up runs with -5 without the lock, and it ends.
 * Called with g locked, returns with it locked. */
void remove_unstarted(TaskMgr* m, TaskRec* t, Guard& g) {
    TaskSvr* svr = t->svr;
    if (t->state == kScheduled) {
        svr->sched.remove(t);
        svr->scheduled--;
    } else {
        svr->queue.remove(t);
        svr->queued--;
    }
    t->state = kEnding;
    t->runTid = al_thrd_id();
    VekTimer timer = t->timer;
    g.unlock();
    if (timer) {
        VekTimer_delete(timer, 0);
    }
    if (t->clean) {
        t->clean(t->ctx, VEK_ERR_ABORTED);
    }
    g.lock();
    svr->cancelled++;
    finish(m, svr, t);
}

/* Timer callback of a scheduled task: queues it. */
void fire_scheduled(vek_u64 id) {
    TaskMgr* m = g_mgr;
    Guard g(m->lk);
    TaskRec* t = find(m, id);
    if (!t || t->state != kScheduled) {
        return;  // cancelled meanwhile
    }
    TaskSvr* svr = t->svr;
    t->timer = 0;
    svr->sched.remove(t);
    svr->scheduled--;
    take_inbox(svr);  // posted before it came due: queued before it
    enqueue(svr, t, stamp());
    bool unlocked;
    if (!kick(svr, g, &unlocked) && find(m, id) == t && t->state == kQueued) {
        vek_printf("task svr \"%s\": no worker for task %llx, removed", svr->name,
                   (unsigned long long)id);
        remove_unstarted(m, t, g);
    }
}

/* Stops svr's workers, removes its tasks (reporting them when asked),
 * and frees it. */
void destroy(TaskMgr* m, TaskSvr* svr, bool report) {
    Guard g(m->lk);
    svr->stopping.store(true, std::memory_order_seq_cst);
    take_inbox(svr);
    if (report && svr->tasks) {
        TinyStr t;
        TinyStr_new(&t);
        TinyStr_appdf(&t, "detect %d task leak in task svr \"%s\", the bug MUST be fixed", svr->tasks,
                      svr->name);
        TabGuard tg(m);
        m->tab.each([&](vek_u32 idx) {
            TaskRec* r = m->tab.at(idx);
            if (r->svr == svr) {
                static const char* const kStates[] = {"scheduled", "queued", "queued", "running",
                                                      "ending"};
                TinyStr_appdf(&t, "\n    task: id=%llx, %s", (unsigned long long)m->tab.id(idx),
                              kStates[r->state]);
            }
        });
        vek_printf("%s", TinyStr_buf(&t));
        TinyStr_delete(&t);
    }
    while (TaskRec* t = svr->sched.head ? svr->sched.head : svr->queue.head) {
        remove_unstarted(m, t, g);
    }
    // Cancel what runs, counted as TaskSvr_cancel counts. The list of
    // workers holds still meanwhile: nothing adds to a stopping pool, and
    // only this call takes records off it now (TaskSvr_trim leaves it be).
    for (Worker* w = svr->workers; w; w = w->next) {
        if (w->task) {
            cancel_worker(svr, w, g);
        }
    }
    while (Worker* w = svr->idleTop) {
        svr->idleTop = w->idleNext;
        w->wake = true;
        w->cv.notify_one();
    }
    svr->idle = 0;
    while (svr->starting || svr->thrds) {
        svr->settle.wait(g);
    }
    // A task of this pool may have posted to it before it saw it stopping.
    while (take_inbox(svr)) {
        while (TaskRec* t = svr->queue.head) {
            remove_unstarted(m, t, g);
        }
    }
    Worker* left = take_left(svr, true);
    for (TaskSvr** pp = &m->svrs; *pp; pp = &(*pp)->nextSvr) {
        if (*pp == svr) {
            *pp = svr->nextSvr;
            break;
        }
    }
    g.unlock();
    join_left(svr, left);
    while (svr->notifying.load(std::memory_order_acquire)) {
        std::this_thread::yield();  // nor the pool, which the kick still counts on
    }
    vek_free__(svr->name);
    svr->hdr = 0;
    svr->~TaskSvr();
    vek_free__(svr);
}

/* Under the lock, after a post found no worker for its task: removes
 * every queued task, since the pool has no worker and none could be
 * started. The caller's own task (mine) goes silently, as its post fails;
 * those posted at the same moment by others, whose posts succeeded, end as
 * cancelled with a trace. */
void remove_unrunnable(TaskMgr* m, TaskSvr* svr, TaskRec* mine, Guard& g) {
    while (TaskRec* t = svr->queue.head) {
        if (t == mine) {
            svr->queue.remove(t);
            svr->queued--;
            svr->tasks--;
            TabGuard tg(m);
            m->tab.release(t->idx);
            continue;
        }
        vek_u64 id;
        {
            TabGuard tg(m);
            id = m->tab.id(t->idx);
        }
        vek_printf("task svr \"%s\": no worker for task %llx, removed", svr->name,
                   (unsigned long long)id);
        remove_unstarted(m, t, g);
    }
}

/* A new live record in the table for a task of svr, its id in *id; null
 * without memory. */
TaskRec* new_task(TaskMgr* m, TaskSvr* svr, vek_u8 state, TaskFn fn, TaskCleanFn clean, void* ctx,
                  vek_u64 now, VekTask* id) {
    TabGuard tg(m);
    vek_u32 idx = m->tab.alloc();
    if (idx == m->tab.kNone) {
        return nullptr;
    }
    TaskRec* t = m->tab.at(idx);
    t->idx = idx;
    t->state = state;
    t->svr = svr;
    t->fn = fn;
    t->clean = clean;
    t->ctx = ctx;
    t->waiters = nullptr;
    t->timer = 0;
    t->queuedAt = now;
    t->worker = nullptr;
    t->runTid = 0;
    *id = m->tab.id(idx);
    return t;
}

/* TaskSvr_post and TaskSvr_postAt (dueMs >= 0). */
VekTask post(TaskSvr* svr, vek_s32 dueMs, TaskFn fn, TaskCleanFn clean, void* ctx) {
    TaskMgr* m = mgr();
    if (!m) {
        return 0;
    }
    self(svr, __LINE__);
    if (!fn) {
        VEK_ASSERT(fn);
        return 0;
    }
    vek_u64 now = stamp();
    VekTask id;
    if (dueMs >= 0) {
        Guard g(m->lk);
        if (svr->stopping.load(std::memory_order_relaxed)) {
            return 0;
        }
        TaskRec* t = new_task(m, svr, kScheduled, fn, clean, ctx, now, &id);
        if (!t) {
            return 0;
        }
        t->timer = vek::timer_start_cookie(dueMs, fire_scheduled, id);
        if (!t->timer) {
            TabGuard tg(m);
            m->tab.release(t->idx);
            return 0;
        }
        svr->tasks++;
        svr->sched.push(t);
        svr->scheduled++;
        return id;
    }
    if (svr->stopping.load(std::memory_order_acquire)) {
        return 0;
    }
    TaskRec* t = new_task(m, svr, kInbox, fn, clean, ctx, now, &id);
    if (!t) {
        return 0;
    }
    TaskRec* head = svr->inbox.load(std::memory_order_relaxed);
    do {
        t->next = head;
    } while (!svr->inbox.compare_exchange_weak(head, t, std::memory_order_seq_cst,
                                               std::memory_order_relaxed));
    if (head || svr->spare.load(std::memory_order_seq_cst) <= 0 ||
        svr->spinning.load(std::memory_order_seq_cst) ||
        svr->watcher.load(std::memory_order_seq_cst)) {
        return id;  // whoever made the inbox non-empty saw to it, every worker is busy, or one watches
    }
    Guard g(m->lk);
    take_inbox(svr);
    bool unlocked;
    if (!kick(svr, g, &unlocked)) {
        bool mine = t->state == kQueued;  // no worker could have ended it
        remove_unrunnable(m, svr, t, g);
        return mine ? 0 : id;
    }
    return id;
}

} // namespace

namespace vek {

void task_svr_start(void) {
    if (__atomic_load_n(&g_mgr, __ATOMIC_ACQUIRE)) {
        vek_assert__("!taskSvr", __FILE__, __LINE__);
        return;
    }
    void* mem = vek_malloc__(sizeof(TaskMgr));
    if (!mem) {
        return;
    }
    TaskMgr* m = new (mem) TaskMgr();
    // The rate of stamp's clock, over 20 us.
    vek_u64 n0 = now_ns();
    vek_u64 s0 = stamp();
    while (now_ns() - n0 < 20000) {
    }
    vek_u64 perUs = (stamp() - s0) / ((now_ns() - n0) / 1000);
    m->shareTicks = perUs * kShareUs;
    m->watchTicks = perUs * (vek_u64)kWatchUs.count();
    m->tab.prime();  // posting allocates nothing until a thousand tasks wait
    __atomic_store_n(&g_mgr, m, __ATOMIC_RELEASE);
    m->def = TaskSvr_new("default", 0, kDefMaxThrds);
}

void task_svr_stop(void) {
    TaskMgr* m = __atomic_load_n(&g_mgr, __ATOMIC_ACQUIRE);
    if (!m) {
        return;
    }
    Guard g(m->lk);
    vek_s32 n = 0;
    for (TaskSvr* s = m->svrs; s; s = s->nextSvr) {
        n += s != m->def;
    }
    if (n) {
        TinyStr t;
        TinyStr_new(&t);
        TinyStr_appdf(&t, "detect %d task svr leak, the bug MUST be fixed", n);
        vek_s32 i = 0;
        for (TaskSvr* s = m->svrs; s; s = s->nextSvr) {
            if (s != m->def) {
                TinyStr_appdf(&t, "\n    svr[%d]: name=\"%s\", thrds=%d", i++, s->name, s->thrds);
            }
        }
        vek_printf("%s", TinyStr_buf(&t));
        TinyStr_delete(&t);
    }
    while (TaskSvr* s = m->svrs) {
        g.unlock();
        destroy(m, s, true);
        g.lock();
    }
    g.unlock();
    __atomic_store_n(&g_mgr, nullptr, __ATOMIC_RELEASE);
    m->~TaskMgr();
    vek_free__(m);
}

} // namespace vek

extern "C" {

VEK_API TaskSvr* TaskSvr_new(const char* name, vek_s32 minThrds, vek_s32 maxThrds) {
    TaskMgr* m = mgr();
    if (!m) {
        return nullptr;
    }
    if (!(minThrds >= 0 && minThrds <= maxThrds && maxThrds > 0)) {
        vek_assert__("minThrds >= 0 && minThrds <= maxThrds && maxThrds > 0", __FILE__, __LINE__);
        return nullptr;
    }
    size_t len = name ? std::strlen(name) : 0;
    void* mem = vek_malloc__(sizeof(TaskSvr));
    char* copy = (char*)vek_malloc__(len + 1);
    if (!mem || !copy) {
        vek_free__(mem);
        vek_free__(copy);
        return nullptr;
    }
    std::memcpy(copy, name ? name : "", len + 1);
    TaskSvr* svr = new (mem) TaskSvr();
    svr->hdr = kSvrMark;
    svr->name = copy;
    svr->minThrds = minThrds;
    svr->maxThrds = maxThrds;
    svr->spare.store(maxThrds, std::memory_order_relaxed);
    Guard g(m->lk);
    svr->nextSvr = m->svrs;
    m->svrs = svr;
    bool ok = true;
    for (vek_s32 i = 0; ok && i < minThrds; i++) {
        Worker* w = add_worker(svr);
        ok = w && start_worker(svr, w, g);
    }
    while (svr->starting) {  // return with the workers registered and idle
        svr->settle.wait(g);
    }
    g.unlock();
    if (!ok) {
        destroy(m, svr, false);
        return nullptr;
    }
    return svr;
}

VEK_API void TaskSvr_delete(TaskSvr* svr) {
    TaskMgr* m = mgr();
    if (!m) {
        return;
    }
    self(svr, __LINE__);
    Guard g(m->lk);
    if (svr == m->def) {
        g.unlock();
        vek_assert__("svr != TaskSvr_def()", __FILE__, __LINE__);
        return;
    }
    if (own_worker(svr)) {
        g.unlock();
        vek_assert__("!own worker", __FILE__, __LINE__);
        return;
    }
    g.unlock();
    destroy(m, svr, false);
}

VEK_API TaskSvr* TaskSvr_def(void) {
    TaskMgr* m = mgr();
    return m ? m->def : nullptr;
}

VEK_API const char* TaskSvr_name(TaskSvr* svr) {
    return self(svr, __LINE__)->name;
}

VEK_API VekTask TaskSvr_post(TaskSvr* svr, TaskFn fn, TaskCleanFn clean, void* ctx) {
    return post(svr, -1, fn, clean, ctx);
}

VEK_API VekTask TaskSvr_postAt(TaskSvr* svr, vek_s32 dueMs, TaskFn fn, TaskCleanFn clean,
                               void* ctx) {
    return post(svr, dueMs < 0 ? 0 : dueMs, fn, clean, ctx);
}

VEK_API vek_s32 TaskSvr_cancel(VekTask task, vek_bool running) {
    TaskMgr* m = mgr();
    if (!m) {
        return 0;
    }
    Guard g(m->lk);
    TaskRec* t = find(m, task);
    if (!t || t->state == kEnding) {
        return 0;
    }
    if (t->state != kRunning) {
        remove_unstarted(m, t, g);
        return 1;
    }
    if (!running) {
        return 3;
    }
    cancel_worker(t->svr, t->worker, g);
    return 2;
}

VEK_API vek_s32 TaskSvr_wait(VekTask task, vek_s32 tmo) {
    TaskMgr* m = mgr();
    if (!m) {
        return 0;
    }
    Guard g(m->lk);
    TaskRec* t = find(m, task);
    if (!t) {
        return 0;
    }
    if (t->runTid == al_thrd_id()) {
        g.unlock();
        vek_assert__("task waits for itself", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    return vek::wait_on(&t->waiters, g, tmo);
}

VEK_API vek_s32 TaskSvr_drain(TaskSvr* svr, vek_s32 tmo) {
    TaskMgr* m = mgr();
    if (!m) {
        return 0;
    }
    self(svr, __LINE__);
    Guard g(m->lk);
    if (own_worker(svr)) {
        g.unlock();
        vek_assert__("!own worker", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    take_inbox(svr);
    return svr->tasks ? vek::wait_on(&svr->drainers, g, tmo) : 0;
}

VEK_API vek_s32 TaskSvr_trim(TaskSvr* svr) {
    TaskMgr* m = mgr();
    if (!m) {
        return 0;
    }
    self(svr, __LINE__);
    Guard g(m->lk);
    if (svr->stopping) {
        return 0;
    }
    // Workers on their way in, those in a clean-up and those watching the
    // inbox, or the queue once it is empty, count as idle: the end of a task
    // that somebody saw end must not leave its worker behind.
    svr->trimming++;
    for (;;) {
        Worker* watcher = svr->queue.head ? nullptr : svr->watcher.load(std::memory_order_relaxed);
        if (!svr->starting && !svr->ending && !svr->spinning.load(std::memory_order_relaxed) &&
            !watcher) {
            break;
        }
        if (watcher) {
            watcher->cv.notify_one();  // it need not wait out its look
        }
        svr->settle.wait(g);
    }
    svr->trimming--;
    Worker* mine = nullptr;
    vek_s32 n = 0;
    while (svr->idleTop && svr->thrds - n > svr->minThrds) {
        Worker* w = svr->idleTop;
        svr->idleTop = w->idleNext;
        svr->idle--;
        w->leave = w->wake = w->trimmed = true;
        w->cv.notify_one();
        w->idleNext = mine;
        mine = w;
        n++;
    }
    for (Worker* w = mine; w; w = w->idleNext) {
        while (!w->left) {
            svr->settle.wait(g);
        }
    }
    {
        TabGuard tg(m);
        m->tab.compact();
    }
    Worker* left = take_left(svr, false);
    while (Worker* w = mine) {  // another trim may wait for its own
        mine = w->idleNext;
        unlink_worker(svr, w);
        w->next = left;
        left = w;
    }
    g.unlock();
    join_left(svr, left);
    return n;
}

VEK_API vek_s32 TaskSvr_stat(TaskSvr* svr, TaskSvrStat* st) {
    TaskMgr* m = mgr();
    if (!m || !st) {
        VEK_ASSERT(st);
        return VEK_ERR_BAD_ARG;
    }
    self(svr, __LINE__);
    Guard g(m->lk);
    take_inbox(svr);
    st->thrds = svr->thrds;
    st->idle = svr->idle;
    st->scheduled = svr->scheduled;
    st->queued = svr->queued;
    st->running = svr->running;
    st->maxQueued = svr->maxQueued;
    st->done = svr->done;
    st->cancelled = svr->cancelled;
    // us per tick, from the ticks and the time since the server started
    vek_u64 ticks = stamp() - m->stamp0;
    double usPerTick = ticks ? (double)(now_ns() - m->ns0) / 1000.0 / (double)ticks : 0.001;
    double maxUs = (double)svr->maxWaitTicks * usPerTick;
    st->waitUs = (vek_u64)((double)svr->waitTicks * usPerTick);
    st->maxWaitUs = maxUs >= 4294967295.0 ? 0xFFFFFFFFu : (vek_u32)maxUs;
    return 0;
}

} // extern "C"
