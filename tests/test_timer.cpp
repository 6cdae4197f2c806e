/*
 * Timers: expiries in order and never early, periodic phase, callbacks that
 * restart, stop or delete their own timer, stops racing a running callback,
 * stale ids, and four threads starting and stopping timers while others
 * cancel those threads.
 */
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <mutex>
#include <random>
#include <thread>
#include <vector>
#include "VekTest.h"

namespace {

using vektest::until;

using Fn = std::function<void(VekTimer)>;

long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/* A timer that runs a std::function; owns it while it lives. */
struct Cb {
    Fn fn;
    static void call(VekTimer t, void* p) { ((Cb*)p)->fn(t); }
};

VekTimer svc_timer(Cb* cb) {
    return VekTimer_new(Cb::call, cb, VEK_TIMER_SVC_THRD);
}

} // namespace

using Timer = VekTest;

TEST_F(Timer, OneShotsFireInDueOrderNeverEarlyAndPeriodicKeepsItsPhase) {
    std::mutex mu;
    std::vector<std::pair<int, long long>> fired;  // (due, late by)
    std::vector<std::unique_ptr<Cb>> cbs;
    std::vector<VekTimer> ids;
    long long t0 = now_ms();
    for (int due : {40, 5, 25, 0, 60, 15}) {
        cbs.push_back(std::make_unique<Cb>(Cb{[&, due](VekTimer) {
            std::lock_guard<std::mutex> g(mu);
            fired.emplace_back(due, now_ms() - t0 - due);
        }}));
        ids.push_back(svc_timer(cbs.back().get()));
        ASSERT_EQ(0, VekTimer_start(ids.back(), due, 0));
    }
    EXPECT_LE(VekTimer_due(ids[4]), 60);
    std::atomic<int> ticks{0};
    std::atomic<long long> lastTick{0};
    Cb periodic{[&](VekTimer) {
        lastTick = now_ms() - t0;
        ticks++;
    }};
    VekTimer p = svc_timer(&periodic);
    ASSERT_EQ(0, VekTimer_start(p, 10, 20));
    ASSERT_TRUE(until([&] { return ticks >= 4; }));
    EXPECT_EQ(1, VekTimer_stop(p, -1));
    int n = ticks;
    EXPECT_GE(lastTick.load(), 10 + 20 * (n - 1));  // never ahead of its phase
    ASSERT_TRUE(until([&] {
        std::lock_guard<std::mutex> g(mu);
        return fired.size() == 6;
    }));
    for (size_t i = 0; i < fired.size(); i++) {
        EXPECT_GE(fired[i].second, 0) << "due " << fired[i].first << " fired early";
        if (i) {
            EXPECT_LT(fired[i - 1].first, fired[i].first) << "out of order";
        }
    }
    vek_sleep(30);
    EXPECT_EQ(n, ticks.load());  // stopped means stopped
    EXPECT_EQ(VEK_ERR_NOT_OPEN, VekTimer_due(p));
    EXPECT_EQ(0, VekTimer_stop(p, 0));

    // Restarting drops the old expiry; a restart of a fired one-shot arms it anew.
    EXPECT_EQ(0, VekTimer_start(ids[0], 10000, 0));
    EXPECT_EQ(0, VekTimer_start(ids[0], 20, 0));
    EXPECT_LE(VekTimer_due(ids[0]), 20);
    ASSERT_TRUE(until([&] {
        std::lock_guard<std::mutex> g(mu);
        return fired.size() == 7;
    }));
    EXPECT_EQ(VEK_ERR_BAD_ARG, VekTimer_start(p, -1, 0));
    EXPECT_EQ(VEK_ERR_BAD_ARG, VekTimer_start(p, 0, -1));
    for (VekTimer id : ids) {
        EXPECT_EQ(0, VekTimer_delete(id, -1));
        EXPECT_EQ(VEK_ERR_NOT_FOUND, VekTimer_start(id, 0, 0));  // stale ids name nothing
    }
    EXPECT_EQ(0, VekTimer_delete(p, 0));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, VekTimer_stop(p, 0));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, VekTimer_due(0));
    EXPECT_ASSERT("fn", EXPECT_EQ(0u, VekTimer_new(nullptr, nullptr, VEK_TIMER_SVC_THRD)));
}

TEST_F(Timer, CallbacksRestartStopAndDeleteTheirOwnTimer) {
    // A restart with 0 from the callback fires again on a later tick: it
    // neither spins nor starves a timer that falls due meanwhile.
    std::atomic<int> spins{0}, other{0};
    Cb spin{[&](VekTimer t) {
        if (++spins < 1000000) {
            VekTimer_start(t, 0, 0);
        }
    }};
    Cb once{[&](VekTimer) { other++; }};
    VekTimer s = svc_timer(&spin), o = svc_timer(&once);
    long long t0 = now_ms();
    VekTimer_start(s, 0, 0);
    VekTimer_start(o, 20, 0);
    ASSERT_TRUE(until([&] { return other == 1; }));
    EXPECT_GE(VekTimer_delete(s, -1), 0);
    EXPECT_LE(spins.load(), now_ms() - t0 + 2) << "more than one expiry per tick";

    // A periodic timer stops itself on its third expiry; another deletes
    // itself on its first; vek_timer_start's one-shot deletes itself.
    std::atomic<int> n3{0}, nDel{0}, nAuto{0};
    Cb stop3{[&](VekTimer t) {
        if (++n3 == 3) {
            EXPECT_EQ(1, VekTimer_stop(t, -1));  // its next expiry; never waits here
        }
    }};
    Cb del{[&](VekTimer t) {
        nDel++;
        EXPECT_EQ(1, VekTimer_delete(t, -1));
        EXPECT_EQ(VEK_ERR_NOT_FOUND, VekTimer_start(t, 0, 0));
    }};
    Cb autoDel{[&](VekTimer) { nAuto++; }};
    VekTimer a = svc_timer(&stop3), b = svc_timer(&del);
    VekTimer_start(a, 1, 2);
    VekTimer_start(b, 1, 2);
    VekTimer c = vek_timer_start(2, 0, Cb::call, &autoDel, VEK_TIMER_SVC_THRD);
    ASSERT_NE(0u, c);
    ASSERT_TRUE(until([&] { return n3 == 3 && nDel == 1 && nAuto == 1; }));
    vek_sleep(20);
    EXPECT_EQ(3, n3.load());
    EXPECT_EQ(1, nDel.load());
    EXPECT_TRUE(until([&] { return VekTimer_stop(c, 0) == VEK_ERR_NOT_FOUND; }));
    EXPECT_EQ(0, VekTimer_delete(a, 0));
    EXPECT_EQ(0u, vek_timer_start(-1, 0, Cb::call, &autoDel, VEK_TIMER_SVC_THRD));
}

TEST_F(Timer, AStopWaitsForACallbackRunningElsewhereOrSaysSo) {
    vek_handle release = vek_evt_create__(1, 0);
    std::atomic<int> entered{0};
    Cb block{[&](VekTimer) {
        entered++;
        vek_evt_wait__(release, -1, 0);
    }};
    VekTimer t = svc_timer(&block);
    VekTimer_start(t, 0, 5);
    ASSERT_TRUE(until([&] { return entered == 1; }));
    EXPECT_EQ(VEK_ERR_TIMER_RUNNING, VekTimer_stop(t, 0));
    EXPECT_EQ(VEK_ERR_TIMEOUT, VekTimer_stop(t, 20));
    vek_thrd_cancel(al_thrd_id());
    EXPECT_EQ(VEK_ERR_ABORTED, VekTimer_stop(t, -1));
    vek_thrd_abort_clear();
    // Released by another thread while this one waits without limit.
    vek_u32 tid = vektest::spawn([&] {
        vek_sleep(30);
        vek_evt_set(release);
        return 0u;
    });
    EXPECT_EQ(0, VekTimer_delete(t, -1));  // it was periodic, but stopped above
    vek_thrd_join(tid);
    vek_sleep(20);
    EXPECT_EQ(1, entered.load());
    vek_evt_close(release);
}

TEST_F(Timer, FourThreadsStartAndStopWhileOthersCancelThem) {
    // Each of 64 timers has an "armed" flag, true from before its start to
    // after its stop returned: a callback that finds it false fired after a
    // stop. Starters restart and stop at random, waiting for running
    // callbacks; two cancellers abort those waits, which are then retried.
    constexpr int kTimers = 64, kStarters = 4;
    struct Slot {
        Cb cb;
        std::atomic<bool> armed{false};
        std::mutex own;  // one starter at a time per timer
        VekTimer id = 0;
    };
    std::vector<std::unique_ptr<Slot>> slots;
    std::atomic<int> late{0}, fires{0}, aborted{0};
    for (int i = 0; i < kTimers; i++) {
        slots.push_back(std::make_unique<Slot>());
        Slot* s = slots.back().get();
        s->cb.fn = [&, s](VekTimer) {
            fires++;
            if (!s->armed) {
                late++;
            }
            // Long enough for stops to meet it running.
            for (long long end = now_ms() + 1; now_ms() < end;) {
            }
        };
        s->id = svc_timer(&s->cb);
    }
    std::atomic<bool> stop{false};
    std::vector<vek_u32> starters;
    for (int k = 0; k < kStarters; k++) {
        starters.push_back(vektest::spawn([&, k] {
            std::minstd_rand rnd(k + 1);
            while (!stop) {
                if (rnd() % 8 == 0) {
                    vek_sleep(1);  // let some expiries come
                }
                Slot* s = slots[rnd() % kTimers].get();
                std::lock_guard<std::mutex> g(s->own);
                if (rnd() % 2) {
                    s->armed = true;
                    VekTimer_start(s->id, (vek_s32)(rnd() % 3), (vek_s32)(rnd() % 2));
                } else {
                    vek_s32 r;
                    while ((r = VekTimer_stop(s->id, -1)) == VEK_ERR_ABORTED) {
                        vek_thrd_abort_clear();
                        aborted++;
                    }
                    EXPECT_GE(r, 0);
                    s->armed = false;
                }
            }
            vek_thrd_abort_clear();
            return 0u;
        }));
    }
    std::vector<vek_u32> cancellers;
    for (int k = 0; k < 2; k++) {
        cancellers.push_back(vektest::spawn([&, k] {
            std::minstd_rand rnd(k + 100);
            while (!stop) {
                vek_thrd_cancel(starters[rnd() % kStarters]);
                std::this_thread::yield();
            }
            return 0u;
        }));
    }
    vek_sleep(700);
    stop = true;
    for (vek_u32 t : cancellers) {
        vek_thrd_join(t);
    }
    for (vek_u32 t : starters) {
        vek_thrd_join(t);
    }
    for (auto& s : slots) {
        EXPECT_GE(VekTimer_delete(s->id, -1), 0);
    }
    EXPECT_EQ(0, late.load()) << "expiries after a stop";
    EXPECT_GT(fires.load(), 50);
    std::printf("timers: %d expiries, %d aborted stop waits\n", fires.load(), aborted.load());
}

TEST_F(Timer, CallbacksRunOnTheMakingThreadWhenItDispatches) {
    // The owner runs its callbacks in its dispatch only; a stop before the
    // dispatch discards an expiry on its way; a slow owner gets one call
    // for many expiries; a stop from elsewhere waits for a running one.
    std::atomic<int> calls{0}, wrongThread{0}, step{0};
    std::atomic<VekTimer> periodic{0};
    vek_handle hold = vek_evt_create__(1, 0);
    vektest::TraceCapture trc;  // set before the owner runs: its end traces too
    struct Ctx {
        std::atomic<int>* calls;
        std::atomic<int>* wrong;
        vek_u32 owner;
        vek_handle hold;
    };
    vek_u32 owner = vektest::spawn([&] {
        Ctx ctx{&calls, &wrongThread, al_thrd_id(), hold};
        auto cb = [](VekTimer, void* p) {
            Ctx* c = (Ctx*)p;
            *c->wrong += al_thrd_id() != c->owner;
            if (++*c->calls == 3) {
                vek_evt_wait__(c->hold, -1, 0);  // running while the main thread stops it
            }
        };
        VekTimer t = VekTimer_new(cb, &ctx, 0);
        VekTimer_start(t, 0, 0);
        vek_sleep(30);  // not dispatching: the expiry waits in the queue
        EXPECT_EQ(1, VekTimer_stop(t, 0));
        vek_erp_disp();  // runs the queued expiry, which finds its timer stopped
        EXPECT_EQ(0, calls.load());
        VekTimer_start(t, 1, 0);
        EXPECT_GT(vek_erp_run(5000, 0), 0);
        EXPECT_EQ(1, calls.load());
        VekTimer_start(t, 0, 2);
        vek_sleep(40);  // some twenty expiries: one call
        vek_erp_disp();
        EXPECT_EQ(2, calls.load());
        periodic = t;
        while (calls < 3) {
            vek_erp_run(5000, 0);
        }
        step = 1;  // back from the blocked call: the main thread's stop returned
        while (vek_erp_run(20, 0) > 0) {
        }
        EXPECT_EQ(3, calls.load());
        // A timer left to a thread that ends stops with it.
        VekTimer_start(t, 0, 1);
        return 0u;
    });
    ASSERT_TRUE(until([&] { return calls == 3; }));
    vek_u32 t0 = vek_msec();
    vek_u32 releaser = vektest::spawn([&] {
        vek_sleep(30);
        vek_evt_set(hold);
        return 0u;
    });
    EXPECT_EQ(1, VekTimer_stop(periodic, -1));  // waited for the callback on the owner
    EXPECT_GE(vek_msec() - t0, 20u);
    vek_thrd_join(releaser);
    vek_thrd_join(owner);
    EXPECT_EQ(0, wrongThread.load());
    EXPECT_TRUE(until([&] { return VekTimer_due(periodic) == VEK_ERR_NOT_OPEN; }));
    EXPECT_TRUE(trc.contains("expiry dropped, its thread does not dispatch (-25)"));
    EXPECT_EQ(0, VekTimer_delete(periodic, 0));
    vek_evt_close(hold);
}
