/*
 * Threads and call cancellation: cancel reaching blocked waits, pre-armed
 * cancels, the abort event's life, associated threads and the additional
 * cancel callback, block stacks, VekAsync and vek_blk_call__, the thread
 * manager's lifecycle, and a bounded stress run of random cancels.
 */
#include <atomic>
#include <cstdio>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <thread>
#include <vector>
#include "VekTest.h"

using vektest::spawn;
using vektest::TraceCapture;

namespace {

vek_u32 ms_since(vek_u32 start) {
    return vek_msec() - start;
}

/* Lets a thread that was told to block get into its wait. A cancel that
 * comes earlier is not lost (the abort stays set), so this only makes the
 * tests exercise the blocked case most of the time. */
void settle() {
    vek_sleep(30);
}

} // namespace

/* Every test leaves the primary thread unaborted. */
using Thrd = VekTest;

TEST_F(Thrd, CancelEndsEachKindOfBlockedWait) {
    VekSem sem;
    VekSem_init(&sem, -1, 0);
    vek_handle evt = vek_evt_create__(1, 0);
    vek_handle held = vek_lock_create__(nullptr, 1);
    const std::vector<std::function<vek_s32()>> waits = {
        [&] { return vek_evt_swait__(evt, 10000, 0); },
        [&] { return vek_ssleep(10000); },
        [&] { return VekSem_swait(&sem, 10000, 0); },
        [&] { return vek_lock_slock__(held, 10000, 0); },
        [&] { return win_hnd_mwait__(evt, nullptr, 10000, 0); },
    };
    for (size_t i = 0; i < waits.size(); i++) {
        std::atomic<vek_s32> res{1};
        std::atomic<vek_u32> took{0};
        vek_u32 tid = spawn([&] {
            vek_u32 t0 = vek_msec();
            res = waits[i]();
            took = ms_since(t0);
            return 0u;
        });
        ASSERT_NE(0u, tid);
        settle();
        EXPECT_EQ(1, vek_thrd_cancel(tid));
        EXPECT_EQ(0, vek_thrd_join(tid));
        EXPECT_EQ(VEK_ERR_ABORTED, res.load()) << "wait " << i;
        EXPECT_LT(took.load(), 5000u) << "wait " << i;
        EXPECT_EQ(1, vek_thrd_exited(tid));
    }
    vek_lock_unlock(held);
    vek_lock_close(held);
    vek_evt_close(evt);
    VekSem_delete(&sem);
}

TEST_F(Thrd, CancelBeforeTheFirstLibraryCallIsKept) {
    std::atomic<bool> go{false};
    std::atomic<vek_u32> tid{0};
    std::atomic<vek_s32> aborted{-1}, later{-1};
    std::thread t([&] {
        tid = al_thrd_id();
        while (!go) {
            std::this_thread::yield();
        }
        aborted = vek_thrd_aborted();
        later = vek_evt_swait__(vek_thrd_abort_evt(), 0, VEK_WAIT_FORBID_ABORT);
        vek_thrd_end();
    });
    while (!tid) {
        std::this_thread::yield();
    }
    EXPECT_EQ(1, vek_thrd_cancel(tid));  // the thread has not touched the library
    go = true;
    t.join();
    EXPECT_EQ(1, aborted.load());
    EXPECT_EQ(0, later.load());  // its own event is signalled

    // An ended thread: 0, a trace, and no entry left behind. The system may
    // still list it for a moment after the join (long enough to see under
    // an emulator), so this waits until it is gone.
    while (!vek_thrd_exited(tid)) {
        std::this_thread::yield();
    }
    TraceCapture trc;
    EXPECT_EQ(0, vek_thrd_cancel(tid));
    EXPECT_TRUE(trc.contains("cancel FAIL, for thrd ended, err="));
    EXPECT_EQ(0, vek_thrd_join(tid));
    EXPECT_TRUE(trc.contains("vek_thrd_join(), but thrd already end, it's ok"));
    EXPECT_EQ(1, vek_thrd_exited(tid));
}

TEST_F(Thrd, AbortStaysUntilClearedAndForbidAbortIgnoresIt) {
    vek_handle evt = vek_evt_create__(0, 0);
    EXPECT_EQ(0, vek_thrd_aborted());
    EXPECT_EQ(1, vek_thrd_cancel(al_thrd_id()));  // a thread may cancel itself
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(VEK_ERR_ABORTED, vek_evt_swait__(evt, 1000, 0));
        EXPECT_EQ(VEK_ERR_ABORTED, vek_ssleep(1000));
    }
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_swait__(evt, 0, VEK_WAIT_FORBID_ABORT));
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_wait__(evt, 0, 0));  // never abortable
    vek_evt_set(evt);
    EXPECT_EQ(0, vek_evt_swait__(evt, 0, 0));  // the object wins over the abort
    EXPECT_EQ(1, vek_thrd_abortedx(0));
    EXPECT_EQ(1, vek_call_aborted());
    EXPECT_EQ(1, vek_thrd_abortedx(1));  // once, then reset
    EXPECT_EQ(0, vek_thrd_abortedx(1));
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_swait__(evt, 0, 0));
    vek_thrd_cancel(al_thrd_id());
    vek_call_abort_clear();
    EXPECT_EQ(0, vek_thrd_aborted());
    EXPECT_EQ(0, vek_ssleep(1));
    vek_evt_close(evt);
}

namespace {
std::atomic<int> g_addtCalls;
std::atomic<vek_u32> g_addtTid, g_addtArg;
std::atomic<bool> g_addtOutsideLock;
std::atomic<vek_u32> g_probeTid;

// Another thread takes the manager's lock while the callback runs: were
// the lock held here, that thread could not finish.
vek_s32 addt_cancel(vek_u32 tid, vek_u32 arg) {
    g_addtCalls++;
    g_addtTid = tid;
    g_addtArg = arg;
    auto other = std::async(std::launch::async, [] { return vek_thrd_cancel(g_probeTid); });
    g_addtOutsideLock = other.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    return 0;
}
} // namespace

TEST_F(Thrd, AssociatedThreadsAndTheAdditionalCallback) {
    // c <- b <- a: cancelling a cancels b and then c; a's callback runs once.
    std::atomic<vek_s32> res[3] = {{1}, {1}, {1}};
    std::atomic<int> ready{0};
    vek_u32 c = spawn([&] {
        ready++;
        res[2] = vek_ssleep(10000);
        return 0u;
    });
    vek_u32 b = spawn([&] {
        vek_set_asso_thrd(c);
        ready++;
        res[1] = vek_ssleep(10000);
        return 0u;
    });
    std::atomic<vek_bool> setRes{-1};
    vek_u32 a = spawn([&] {
        setRes = vek_set_addt_cancel(addt_cancel, 77);
        vek_set_asso_thrd(b);
        ready++;
        res[0] = vek_ssleep(10000);
        return 0u;
    });
    g_probeTid = c;
    while (ready < 3) {
        vek_sleep(1);
    }
    settle();
    TraceCapture trc;
    EXPECT_EQ(1, vek_thrd_cancel(a));
    for (vek_u32 t : {a, b, c}) {
        vek_thrd_join(t);
    }
    for (auto& r : res) {
        EXPECT_EQ(VEK_ERR_ABORTED, r.load());
    }
    EXPECT_EQ(0, setRes.load());
    EXPECT_EQ(1, g_addtCalls.load());
    EXPECT_EQ(a, g_addtTid.load());
    EXPECT_EQ(77u, g_addtArg.load());
    EXPECT_TRUE(g_addtOutsideLock.load());
    EXPECT_TRUE(trc.contains("issue addt cancel req, tmo=77"));
    EXPECT_TRUE(trc.contains("issue asso cancel req, thrdId=" + std::to_string(b)));
    EXPECT_TRUE(trc.contains("issue asso cancel req, thrdId=" + std::to_string(c)));
}

TEST_F(Thrd, AssociatingClearsThePendingAbortOfTheTarget) {
    std::atomic<int> step{0};
    std::atomic<vek_s32> seen{-1};
    vek_u32 t = spawn([&] {
        vek_thrd_abort_evt();
        step = 1;
        while (step != 2) {
            vek_sleep(1);
        }
        seen = vek_thrd_aborted();
        return 0u;
    });
    while (step != 1) {
        vek_sleep(1);
    }
    vek_thrd_cancel(t);
    EXPECT_EQ(0, vek_set_asso_thrd(t));
    step = 2;
    vek_thrd_join(t);
    EXPECT_EQ(0, seen.load());
    vek_set_asso_thrd(0);
    // Already aborted: both setters say so.
    vek_thrd_cancel(al_thrd_id());
    EXPECT_EQ(1, vek_set_asso_thrd(0));
    EXPECT_EQ(1, vek_set_addt_cancel(nullptr, 0));
}

TEST_F(Thrd, NestedMessageBlocksCancelOnlyTheInnermostCall) {
    vek_handle evt = vek_evt_create__(1, 0);
    TraceCapture trc;
    vek_msg_blk_beg();
    vek_handle outer = vek_call_abort_evt();
    EXPECT_NE(vek_thrd_abort_evt(), outer);
    vek_msg_blk_beg();
    EXPECT_TRUE(trc.contains("detect mulit-lev blks, lev=2, blks=\n    blk[2]: MSG-BLK mode\n"
                             "    blk[1]: MSG-BLK mode\n"));
    vek_call_cancel();
    EXPECT_EQ(VEK_ERR_ABORTED, vek_evt_swait__(evt, 1000, 0));
    EXPECT_EQ(VEK_ERR_ABORTED, vek_ssleep(1000));
    EXPECT_EQ(1, vek_call_aborted());
    EXPECT_EQ(0, vek_thrd_aborted());  // the thread itself is not aborted
    vek_msg_blk_end();
    EXPECT_EQ(outer, vek_call_abort_evt());
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_swait__(evt, 0, 0));
    vek_msg_blk_end();
    EXPECT_EQ(vek_thrd_abort_evt(), vek_call_abort_evt());
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_swait__(evt, 0, 0));

    // A thread cancel reaches the waits inside a block only through the
    // thread's event, which a message block does not wait on.
    vek_msg_blk_beg();
    vek_thrd_cancel(al_thrd_id());
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_swait__(evt, 0, 0));
    vek_msg_blk_end();
    EXPECT_EQ(VEK_ERR_ABORTED, vek_evt_swait__(evt, 0, 0));
    vek_evt_close(evt);
}

TEST_F(Thrd, BlockMisuseAssertsAndChangesNothing) {
    EXPECT_ASSERT("vek_msg_blk_end(), but not in blk", vek_msg_blk_end());
    EXPECT_ASSERT("vek_async_blk_end(), but not in blk", vek_async_blk_end());
    EXPECT_ASSERT("vek_call_cancel(), but not in blk", vek_call_cancel());
    EXPECT_ASSERT("vek_get_blk_async(), but not in blk", EXPECT_EQ(nullptr, vek_get_blk_async()));
    vek_msg_blk_beg();
    EXPECT_ASSERT("vek_async_blk_end(), but not in async blk", vek_async_blk_end());
    EXPECT_ASSERT("vek_get_blk_async(), but not in async blk", vek_get_blk_async());
    VekAsync* async = vek_async_blk_beg();
    EXPECT_EQ(async, vek_get_blk_async());
    EXPECT_ASSERT("vek_msg_blk_end(), but not in msg blk", vek_msg_blk_end());
    EXPECT_ASSERT("vek_call_abort_evt(), but not in msg blk", EXPECT_EQ(nullptr, vek_call_abort_evt()));
    vek_async_blk_end();
    vek_msg_blk_end();
    EXPECT_EQ(nullptr, vek_get_ablk_wait());
}

namespace {

/* An operation object: sleeps (abortably) for ms, then returns result. */
struct SleepOp {
    IVekFunc itf;
    std::atomic<int> refs{1};
    vek_s32 ms = 0;
    vek_s32 result = 0;
    std::atomic<vek_s32> slept{1};

    static SleepOp* of(IVekFunc* f) { return (SleepOp*)f; }
    static vek_s32 query(IVekFunc*, const VekGuid*, void** out) {
        *out = nullptr;
        return VEK_ERR_NOT_SUPPORTED;
    }
    static vek_s32 add_ref(IVekFunc* f) { return ++of(f)->refs; }
    static vek_s32 release(IVekFunc* f) { return --of(f)->refs; }
    static vek_s32 call(IVekFunc* f, vek_s32 arg) {
        SleepOp* op = of(f);
        op->slept = vek_ssleep(op->ms);
        return op->slept == 0 ? op->result + arg : op->slept.load();
    }
    SleepOp(vek_s32 ms_, vek_s32 result_) : ms(ms_), result(result_) {
        static const IVekFuncVtbl vtbl = {query, add_ref, release, call};
        itf.vtbl = &vtbl;
    }
};

/* A wait procedure whose nested handler cancels the call after 20 ms. */
vek_s32 cancelling_wait(VekAsync*, vek_handle endEvt) {
    if (vek_evt_wait__(endEvt, 20, 0) == VEK_ERR_TIMEOUT) {
        vek_call_cancelx(-77);
    }
    return vek_evt_wait__(endEvt, -1, 0);
}

} // namespace

TEST_F(Thrd, BlockingCallsRunAndCancelAsynchronousOperations) {
    SleepOp quick(1, 40);
    TraceCapture trc;
    EXPECT_EQ(40, vek_blk_call__(&quick.itf, nullptr));
    EXPECT_TRUE(trc.contains("vek_blk_call"));
    EXPECT_EQ(1, quick.refs.load());

    // A handler nested in the wait cancels the innermost call only.
    SleepOp slow(10000, 0);
    vek_u32 t0 = vek_msec();
    EXPECT_EQ(-77, vek_blk_call__(&slow.itf, cancelling_wait));
    EXPECT_LT(ms_since(t0), 5000u);
    EXPECT_EQ(VEK_ERR_ABORTED, slow.slept.load());
    EXPECT_EQ(0, vek_thrd_aborted());

    // The thread's wait procedure is used when the call names none.
    EXPECT_EQ(nullptr, vek_set_ablk_wait(cancelling_wait));
    EXPECT_EQ(cancelling_wait, vek_get_ablk_wait());
    EXPECT_EQ(-77, vek_blk_call__(&slow.itf, nullptr));
    EXPECT_EQ(cancelling_wait, vek_set_ablk_wait(nullptr));

    // A thread cancel ends the default wait and the operation with -5.
    std::atomic<vek_s32> res{1};
    vek_u32 tid = spawn([&] {
        res = vek_blk_call__(&slow.itf, nullptr);
        return 0u;
    });
    settle();
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, res.load());
    EXPECT_EQ(1, slow.refs.load());

    // The object on its own: idle, started twice, cancelled.
    VekAsync* a = VekAsync_new();
    EXPECT_EQ(0, VekAsync_cancel(a, 5));
    EXPECT_EQ(0, VekAsync_start(a, &quick.itf, 2));
    EXPECT_EQ(42, VekAsync_waitEndx(a, nullptr));
    EXPECT_EQ(0, VekAsync_start(a, &slow.itf, 0));
    EXPECT_ASSERT("!async->running", EXPECT_EQ(VEK_ERR_WAIT_FAILED, VekAsync_start(a, &quick.itf, 0)));
    EXPECT_EQ(1, VekAsync_cancel(a, 0));
    EXPECT_EQ(VEK_ERR_ABORTED, VekAsync_waitEndx(a, nullptr));
    EXPECT_EQ(0, VekAsync_start(a, &slow.itf, 0));
    VekAsync_delete(a);  // cancels and waits for the running operation
    EXPECT_EQ(1, slow.refs.load());
}

TEST_F(Thrd, ThreadsStartJoinAndReportExceptions) {
    EXPECT_ASSERT("thrdEntry", EXPECT_EQ(0u, vek_thrd_create__(nullptr, nullptr, 0)));
    EXPECT_ASSERT("thrdId", vek_thrd_cancel(0));
    EXPECT_ASSERT("thrdId", vek_thrd_join(0));
    EXPECT_ASSERT("thrdId", vek_thrd_exited(0));
    std::atomic<bool> release{false};
    vek_u32 tid = vek_thrd_create__(
        [](void* p) -> vek_u32 {
            while (!*(std::atomic<bool>*)p) {
                vek_sleep(1);
            }
            return 5;
        },
        &release, 64 * 1024);
    ASSERT_NE(0u, tid);
    EXPECT_NE(al_thrd_id(), tid);
    EXPECT_EQ(0, vek_thrd_exited(tid));
    release = true;
    vek_thrd_join(tid);
    EXPECT_EQ(1, vek_thrd_exited(tid));

    // vek_thrd_wait: cancel and join; the entry function sees the cancel.
    tid = spawn([] { return (vek_u32)vek_ssleep(-1); });
    EXPECT_EQ(0, vek_thrd_wait(tid));
    EXPECT_EQ(1, vek_thrd_exited(tid));

    TraceCapture trc;
    tid = spawn([]() -> vek_u32 { throw 1; });
    vek_thrd_join(tid);
    EXPECT_TRUE(trc.contains("thrd entry FAIL for exception, thrdId=" + std::to_string(tid)));
    EXPECT_TRUE(trc.contains("thrd detached"));
}

// A thread the library did not start is joined and tested by its id alone.
TEST_F(Thrd, ThreadsStartedElsewhereAreJoinedByTheirId) {
    std::atomic<vek_u32> id{0};
    std::atomic<bool> release{false};
    std::thread t([&] {
        id = al_thrd_id();
        while (!release) {
            al_sleep(1);
        }
    });
    while (!id) {
        al_sleep(1);
    }
    EXPECT_EQ(0, vek_thrd_exited(id));
    std::thread releaser([&] {
        al_sleep(30);
        release = true;
    });
    EXPECT_EQ(0, vek_thrd_join(id));
    EXPECT_EQ(1, vek_thrd_exited(id));
    releaser.join();
    t.join();
}

TEST_F(Thrd, ManagerLifecycleReportsLeakedThreads) {
    EXPECT_EXIT(
        {
            std::thread([] { vek_thrd_abort_evt(); }).join();  // never calls vek_thrd_end
            TraceCapture trc;
            BaseLib_exit();
            bool ok = trc.contains("detect 1 thrd leak, the bug MUST be fixed\n    thrd[0]: ThrdId=");
            vek_thrd_beg();
            ok = ok && trc.contains("win_thrd_beg(), but thrdCm not exist, skip");
            vek_thrd_cancel(1);
            ok = ok && vektest::take_assert("thrdCm");
            BaseLib_init();
            ok = ok && vek_thrd_abort_evt() != nullptr;
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(Thrd, StressOfRandomCancelsLosesNothing) {
    // Workers wait in every abortable way with random time-outs; the main
    // thread cancels random subsets and waits for each cancelled worker to
    // acknowledge (a -5, then a clear). A lost cancel shows as a missing
    // acknowledgement, a hang as the deadline passing.
    constexpr int kWorkers = 12;
    const vek_u32 kRunMs = 800;
    VekSem sem;
    VekSem_init(&sem, -1, 0);
    vek_handle autoEvt = vek_evt_create__(0, 0);
    vek_handle mutex = vek_lock_create__(nullptr, 0);
    std::atomic<bool> stop{false};
    std::atomic<int> acks[kWorkers] = {};
    std::atomic<int> others{0};
    std::vector<vek_u32> tids;
    for (int i = 0; i < kWorkers; i++) {
        tids.push_back(spawn([&, i] {
            std::minstd_rand rnd(i + 1);
            for (;;) {
                // A worker ends only through the final cancel: cancelling a
                // thread between its vek_thrd_end and its real end would
                // leave a pre-armed entry behind.
                if (stop) {
                    return (vek_u32)vek_ssleep(-1);
                }
                vek_s32 tmo = (vek_s32)(rnd() % 25) - 2;  // some without limit
                vek_s32 r;
                switch (rnd() % 5) {
                case 0: r = vek_evt_swait__(autoEvt, tmo, 0); break;
                case 1: r = vek_ssleep(tmo); break;
                case 2: r = VekSem_swait(&sem, tmo, 0); break;
                case 3:
                    r = vek_lock_slock__(mutex, tmo, 0);
                    if (r == 0) {
                        vek_lock_unlock(mutex);
                    }
                    break;
                default:
                    // Deaf to thread cancels: only a bounded wait here.
                    vek_msg_blk_beg();
                    r = vek_evt_swait__(autoEvt, (vek_s32)(rnd() % 10), 0);
                    vek_msg_blk_end();
                    break;
                }
                if (r == VEK_ERR_ABORTED && stop) {
                    return 0u;  // the final cancel (all others were acknowledged)
                }
                if (r == VEK_ERR_ABORTED) {
                    vek_thrd_abort_clear();
                    acks[i]++;
                } else {
                    others++;
                }
            }
        }));
    }
    std::minstd_rand rnd(99);
    int sent[kWorkers] = {};
    bool lost = false;
    vek_u32 t0 = vek_msec();
    while (ms_since(t0) < kRunMs && !lost) {
        std::vector<int> picked;
        for (int i = 0; i < kWorkers; i++) {
            if (rnd() % 3 == 0) {
                picked.push_back(i);
                sent[i]++;
                vek_thrd_cancel(tids[i]);
            }
        }
        if (rnd() % 2) {
            vek_evt_set(autoEvt);
            VekSem_add(&sem, 1);
        }
        vek_u32 deadline = vek_msec() + 10000;
        for (int i : picked) {
            while (acks[i] < sent[i] && vek_msec() < deadline) {
                vek_sleep(1);
            }
            lost = lost || acks[i] != sent[i];
        }
    }
    stop = true;
    for (vek_u32 tid : tids) {
        vek_thrd_wait(tid);
    }
    EXPECT_FALSE(lost) << "a cancel was not acknowledged within 10 s";
    EXPECT_GT(others.load(), 0);
    int total = 0;
    for (auto& a : acks) {
        total += a;
    }
    EXPECT_GT(total, 100);
    std::printf("stress: %d cancels acknowledged, %d other wait results\n", total, others.load());
    vek_lock_close(mutex);
    vek_evt_close(autoEvt);
    VekSem_delete(&sem);
}
