/*
 * Event-receive processors: order of events and callbacks posted from many
 * threads through pause and resume, the pumping waits running the queue,
 * what never runs being dropped exactly once (deletion, thread end), the
 * leak report, and calls run on another thread (synchronous, asynchronous,
 * withdrawn, cancelled).
 */
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include "VekTest.h"
#ifdef _WIN32
#include <windows.h>
#endif

using vektest::spawn;
using vektest::TraceCapture;

namespace {

void wait_until(const std::function<bool()>& cond, vek_u32 ms = 10000) {
    vek_u32 t0 = vek_msec();
    while (!cond() && vek_msec() - t0 < ms) {
        vek_sleep(1);
    }
}

/* What a handler saw: (num1, num2) of each event; callbacks log num1 -1. */
struct Log {
    std::vector<std::pair<int, int>> seen;
    static vek_s32 handler(void* ctx, void* evt) {
        GenEvt* e = (GenEvt*)evt;
        ((Log*)ctx)->seen.emplace_back(e->num1, e->num2);
        return 0;
    }
};

struct Counter {
    std::atomic<int> ran{0}, dropped{0};
    static void run(void* p) { ((Counter*)p)->ran++; }
    static void drop(void* p) { ((Counter*)p)->dropped++; }
    static vek_s32 call(void* p) { return ++((Counter*)p)->ran; }
};

} // namespace

/* Queues of the primary thread end with each test, so the leak check sees
 * only what a test left behind. */
class Erp : public VekTest {
  protected:
    void TearDown() override {
        vek_thrd_abort_clear();
        vek_thrd_end();
        vek_thrd_beg();
        VekTest::TearDown();
    }
};

TEST_F(Erp, PostsFromManyThreadsRunInOrderThroughPauseAndResume) {
    constexpr int kPosters = 4, kEach = 400;
    Log a, b;
    vek_s32 ida = vek_erp_create(Log::handler, &a);
    vek_s32 idb = vek_erp_create(Log::handler, &b);
    ASSERT_GT(ida, 0);
    ASSERT_GT(idb, 0);
    std::atomic<int> posted{0};
    std::vector<vek_u32> posters;
    for (int p = 0; p < kPosters; p++) {
        posters.push_back(spawn([&, p] {
            for (int i = 0; i < kEach; i++) {
                // Every tenth item a callback, in line with the events.
                if (i % 10 == 9) {
                    auto* rec = new std::pair<Log*, std::pair<int, int>>(&a, {p, i});
                    EXPECT_EQ(0, vek_erp_postf(ida, [](void* r) {
                        std::unique_ptr<std::pair<Log*, std::pair<int, int>>> x((std::pair<Log*, std::pair<int, int>>*)r);
                        x->first->seen.push_back(x->second);
                    }, rec, nullptr));
                } else {
                    EXPECT_EQ(0, vek_erp_post(ida, GenEvt_newn(1, 0, p, i)));
                }
                if (i % 50 == 0) {
                    vek_sleep(1);
                }
                posted++;
            }
            return 0u;
        }));
    }
    // Pause a while posts pour in: nothing of a runs, b goes on.
    while (a.seen.size() < 100 && vek_erp_run(5000, 0) > 0) {
    }
    EXPECT_EQ(1, vek_erp_pause(ida));
    EXPECT_EQ(2, vek_erp_pause(ida));
    size_t atPause = a.seen.size();
    EXPECT_EQ(0, vek_erp_post(idb, GenEvt_newn(2, 0, 7, 7)));
    EXPECT_EQ(1, vek_erp_run(1000, 0));
    EXPECT_EQ(1u, b.seen.size());
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_erp_run(30, 0));
    EXPECT_EQ(atPause, a.seen.size());
    EXPECT_GT(vek_erp_pending(ida), 0);
    EXPECT_EQ(1, vek_erp_resume(ida));
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_erp_run(0, 0));  // still paused once
    EXPECT_EQ(0, vek_erp_resume(ida));
    wait_until([&] {
        vek_erp_run(50, 0);
        return (int)a.seen.size() == kPosters * kEach;
    });
    for (vek_u32 t : posters) {
        vek_thrd_join(t);
    }
    ASSERT_EQ(kPosters * kEach, (int)a.seen.size());
    std::vector<int> next(kPosters, 0);
    for (auto& s : a.seen) {
        ASSERT_EQ(next[s.first], s.second) << "poster " << s.first;
        next[s.first]++;
    }
    EXPECT_EQ(0, vek_erp_pending(ida));
    EXPECT_EQ(0, vek_erp_delete(ida));
    EXPECT_EQ(0, vek_erp_delete(idb));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_erp_pending(ida));
}

TEST_F(Erp, PumpingWaitsRunTheQueueAndPlainWaitsDoNot) {
    struct Ctx {
        vek_handle evt = vek_evt_create__(0, 0);
        vek_handle lock = vek_lock_create__(nullptr, 0);
        VekSem sem;
        std::atomic<vek_s32> id{0};
        std::atomic<int> handled{0}, customDisp{0}, step{0};
        std::vector<vek_s32> res;
    } c;
    VekSem_init(&c.sem, 10, 0);
    static Ctx* g;
    g = &c;
    vek_erp_handler h = [](void*, void* evt) -> vek_s32 {
        g->handled++;
        if (Evt_eid(evt) == 1) {
            vek_evt_set(g->evt);
        } else if (Evt_eid(evt) == 2) {
            VekSem_add(&g->sem, 1);
        }
        return 0;
    };
    ASSERT_EQ(0, vek_lock_lock__(c.lock, 0, 0));  // held here: the worker waits for it
    vek_u32 t = spawn([&] {
        c.id = vek_erp_create(h, nullptr);
        c.res.push_back(vek_evt_swait__(c.evt, 100, 0));  // not pumping: the posted event waits
        c.step = 1;
        c.res.push_back(vek_evt_mwait__(c.evt, nullptr, 10000, 0));
        c.res.push_back(VekSem_mwait(&c.sem, nullptr, 10000, 0));
        c.step = 2;
        c.res.push_back(win_hnd_mwait__(c.evt, [] { g->customDisp++; }, 10000, 0));
        c.step = 3;
        c.res.push_back(vek_lock_mlock__(c.lock, nullptr, 10000, 0));
        vek_lock_unlock(c.lock);
        vek_erp_delete(c.id);
        return 0u;
    });
    wait_until([&] { return c.id != 0; });
    EXPECT_EQ(0, vek_erp_post(c.id, GenEvt_new(1)));
    wait_until([&] { return c.step == 1; });
    EXPECT_EQ(0, vek_erp_post(c.id, GenEvt_new(2)));
    wait_until([&] { return c.step == 2; });
    EXPECT_EQ(0, vek_erp_post(c.id, GenEvt_new(1)));  // a custom dispatcher: the queue runs after it
    wait_until([&] { return c.step == 3; });
    EXPECT_EQ(0, vek_erp_post(c.id, GenEvt_new(3)));  // while the worker waits for the lock
    wait_until([&] { return c.handled == 4; });
    EXPECT_EQ(4, c.handled.load());
    vek_lock_unlock(c.lock);
    vek_thrd_join(t);
    EXPECT_EQ((std::vector<vek_s32>{VEK_ERR_TIMEOUT, 0, 0, 0, 0}), c.res);
    EXPECT_GE(c.customDisp.load(), 1);
    VekSem_delete(&c.sem);
    vek_lock_close(c.lock);
    vek_evt_close(c.evt);
}

TEST_F(Erp, WhatNeverRunsIsDroppedOnceAndLeftProcessorsAreReported) {
    Counter cnt;
    std::atomic<vek_s32> p{0}, self{0}, left{0};
    vek_handle go = vek_evt_create__(1, 0);
    vek_u32 t = spawn([&] {
        p = vek_erp_create([](void*, void*) -> vek_s32 { return 0; }, nullptr);
        left = vek_erp_create([](void*, void*) -> vek_s32 { return 0; }, nullptr);
        self = vek_erp_self();
        EXPECT_EQ(self.load(), vek_erp_self());
        vek_evt_wait__(go, -1, 0);  // never dispatches
        return 0u;
    });
    wait_until([&] { return self != 0; });
    GenEvt* evt = GenEvt_new(5);
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, vek_erp_post(self, evt));  // callbacks only
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(0, vek_erp_post(p, GenEvt_newns(1, 0, 0, 0, "kept", "until dropped")));
        EXPECT_EQ(0, vek_erp_postf(p, Counter::run, &cnt, Counter::drop));
        EXPECT_EQ(0, vek_erp_postf(left, Counter::run, &cnt, Counter::drop));
        EXPECT_EQ(0, vek_erp_postf(self, Counter::run, &cnt, Counter::drop));
    }
    EXPECT_EQ(1, vek_erp_pause(p));
    EXPECT_EQ(6, vek_erp_pending(p));
    EXPECT_EQ(0, vek_erp_delete(p));  // from another thread: dropped here
    EXPECT_EQ(3, cnt.dropped.load());
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_erp_delete(p));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_erp_post(p, evt));  // the event stays the caller's
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_erp_pause(p));
    EXPECT_EQ(1, vek_erp_leak(t));

    // A caller waiting for a call the thread never runs hears -25 at its end.
    std::atomic<vek_s32> late{1};
    vek_u32 caller = spawn([&] {
        late = vek_thrd_scall__(t, Counter::call, &cnt, -1, 0);
        return 0u;
    });
    vek_sleep(30);
    TraceCapture trc;
    vek_evt_set(go);
    vek_thrd_join(t);  // its end drops the rest and reports what it left
    vek_thrd_join(caller);
    EXPECT_EQ(VEK_ERR_NOT_FOUND, late.load());
    EXPECT_EQ(9, cnt.dropped.load());
    EXPECT_EQ(0, cnt.ran.load());
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_thrd_acall__(t, Counter::call, &cnt, nullptr));
    EXPECT_TRUE(trc.contains("detect 1 erp leak, the bug MUST be fixed\n    erp[0]: ErpId=" +
                             std::to_string(left.load()) + ", evts=3"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_erp_postf(self, Counter::run, &cnt, nullptr));
    Evt_delete(evt);
    vek_evt_close(go);
}

namespace {
struct Repost {
    vek_s32 id;
    int runs = 0;
    static void run(void* p) {
        Repost* x = (Repost*)p;
        if (++x->runs % 3 != 0) {
            vek_erp_postf(x->id, run, p, nullptr);
        }
    }
};
} // namespace

TEST_F(Erp, AHandlerThatPostsToItselfDoesNotStarveTheThread) {
    Repost c;
    c.id = vek_erp_self();
    ASSERT_EQ(0, vek_erp_postf(c.id, Repost::run, &c, nullptr));
    EXPECT_EQ(1, vek_erp_disp());  // what the callback posts waits for the next round
    EXPECT_EQ(1, vek_erp_disp());
    EXPECT_EQ(1, vek_erp_run(0, 0));
    EXPECT_EQ(0, vek_erp_disp());
    EXPECT_EQ(3, c.runs);
    // A cancel ends the thread's loop once its queue is empty.
    vek_erp_postf(c.id, Repost::run, &c, nullptr);
    vek_thrd_cancel(al_thrd_id());
    int loops = 0;
    while (vek_erp_run(-1, 0) > 0) {
        loops++;
    }
    EXPECT_EQ(3, loops);
    EXPECT_EQ(VEK_ERR_ABORTED, vek_erp_run(-1, 0));
}

TEST_F(Erp, CallsRunOnAnotherThreadAndAreWithdrawnUntilTheyBegin) {
    Counter cnt;
    vek_handle release = vek_evt_create__(1, 0);
    std::atomic<bool> ready{false}, stop{false};
    vek_u32 worker = spawn([&] {
        vek_erp_self();
        ready = true;
        while (!stop && vek_erp_run(-1, 0) > 0) {
        }
        return 0u;
    });
    wait_until([&] { return ready.load(); });
    struct Arg {
        vek_handle release;
        vek_u32 caller;
    } arg{release, al_thrd_id()};

    EXPECT_EQ(1, vek_thrd_scall__(worker, Counter::call, &cnt, -1, 0));
    EXPECT_EQ(2, vek_thrd_scall__(al_thrd_id(), Counter::call, &cnt, 0, 0));  // at once, here
    // Two threads calling each other: the waiting caller serves the call back.
    vek_erp_self();
    EXPECT_EQ(al_thrd_id() + 1u, (vek_u32)vek_thrd_scall__(worker, [](void* p) -> vek_s32 {
        return vek_thrd_scall__(((Arg*)p)->caller, [](void*) -> vek_s32 { return (vek_s32)al_thrd_id() + 1; },
                                nullptr, -1, 0);
    }, &arg, 5000, 0));

    // The worker is kept busy: calls queued behind it can be withdrawn.
    EXPECT_GT(vek_thrd_acall__(worker, [](void* p) -> vek_s32 {
        return vek_evt_wait__((vek_handle)p, -1, 0);
    }, release, nullptr), 0);
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_thrd_scall__(worker, Counter::call, &cnt, 30, 0));
    std::atomic<vek_s32> cancelled{1};
    vek_u32 caller = spawn([&] {
        cancelled = vek_thrd_scall__(worker, Counter::call, &cnt, 10000, 0);
        return 0u;
    });
    vek_sleep(30);
    vek_thrd_cancel(caller);
    vek_thrd_join(caller);
    EXPECT_EQ(VEK_ERR_ABORTED, cancelled.load());
    vek_s32 gone = vek_thrd_acall__(worker, Counter::call, &cnt, Counter::drop);
    vek_s32 kept = vek_thrd_acall__(worker, Counter::call, &cnt, Counter::drop);
    EXPECT_EQ(1, vek_del_acall(gone));
    EXPECT_EQ(0, vek_del_acall(gone));
    EXPECT_EQ(1, cnt.dropped.load());
    vek_evt_set(release);
    EXPECT_EQ(4, vek_thrd_scall__(worker, Counter::call, &cnt, -1, 0));  // after kept: in order
    EXPECT_EQ(0, vek_del_acall(kept));

    stop = true;
    vek_thrd_acall__(worker, [](void*) -> vek_s32 { return 0; }, nullptr, nullptr);  // wakes it to see stop
    vek_thrd_join(worker);
    vek_evt_close(release);
}

#ifdef _WIN32
TEST_F(Erp, AnyMessageLoopOfTheThreadRunsItsQueue) {
    Counter cnt;
    vek_s32 id = vek_erp_self();
    ASSERT_EQ(0, vek_erp_postf(id, Counter::run, &cnt, nullptr));
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        DispatchMessageW(&msg);
    }
    EXPECT_EQ(1, cnt.ran.load());
}
#endif
