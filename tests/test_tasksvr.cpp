/*
 * Task server: FIFO order and clean-ups, tasks posted for later, a task
 * cancelled at every stage of its life, pools that do not starve each
 * other, waits that a cancel ends, deletion with work in every state, and
 * the leak report at exit.
 */
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>
#include "VekTest.h"

using vektest::TraceCapture;

namespace {

using vektest::until;

/* A task whose body and clean-up are std::functions; it records both. */
struct Job {
    std::function<vek_s32()> body;
    std::atomic<vek_s32> cleaned{1};  // the clean-up's res, 1 until it ran
    std::atomic<vek_u32> cleanTid{0};
    static vek_s32 run(void* p) { return ((Job*)p)->body(); }
    static void clean(void* p, vek_s32 res) {
        Job* j = (Job*)p;
        j->cleanTid = al_thrd_id();
        j->cleaned = res;
    }
};

VekTask post(TaskSvr* svr, Job& j) {
    return TaskSvr_post(svr, Job::run, Job::clean, &j);
}

/* A task that blocks (abortably) until its gate opens; returns the wait's
 * result. */
struct Gate {
    vek_handle evt = vek_evt_create__(1, 0);
    std::atomic<int> entered{0};
    Job job{[this] {
        entered++;
        return vek_evt_swait__(evt, -1, 0);
    }};
    ~Gate() { vek_evt_close(evt); }
};

} // namespace

using Task = VekTest;

TEST_F(Task, TasksRunInOrderLaterOnesOnTimeAndPoolsDoNotStarveEachOther) {
    TaskSvr* one = TaskSvr_new("one", 1, 1);
    ASSERT_NE(nullptr, one);
    EXPECT_STREQ("one", TaskSvr_name(one));
    std::mutex mu;
    std::vector<int> order;
    std::vector<std::unique_ptr<Job>> jobs;
    vek_u32 t0 = vek_msec();
    Gate first;  // holds the worker while the others queue up
    post(one, first.job);
    for (int i = 0; i < 20; i++) {
        jobs.push_back(std::make_unique<Job>());
        jobs.back()->body = [&, i] {
            std::lock_guard<std::mutex> g(mu);
            order.push_back(i);
            return i * 2;
        };
        ASSERT_NE(0u, post(one, *jobs.back()));
    }
    std::atomic<vek_u32> lateAt{0};
    Job later{[&] {
        lateAt = vek_msec() - t0;
        return 0;
    }};
    VekTask lt = TaskSvr_postAt(one, 40, Job::run, Job::clean, &later);
    ASSERT_NE(0u, lt);
    vek_evt_set(first.evt);
    EXPECT_EQ(0, TaskSvr_drain(one, -1));
    EXPECT_GE(lateAt.load(), 40u);
    EXPECT_EQ(0, TaskSvr_wait(lt, 0));  // ended: its id names nothing now
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(i, order[i]);
        EXPECT_EQ(i * 2, jobs[i]->cleaned.load());
    }
    TaskSvrStat st;
    EXPECT_EQ(0, TaskSvr_stat(one, &st));
    EXPECT_EQ(22u, st.done);
    EXPECT_EQ(1, st.thrds);
    EXPECT_GE(st.maxQueued, 20);
    EXPECT_EQ(0, st.queued + st.scheduled + st.running);

    // A pool blocked by slow work does not hold up another; the default
    // pool grows for work that blocks side by side.
    Gate slow;
    ASSERT_NE(0u, post(one, slow.job));
    Job quick{[] { return 7; }};
    VekTask q = post(TaskSvr_def(), quick);
    EXPECT_EQ(0, TaskSvr_wait(q, 5000));
    EXPECT_EQ(7, quick.cleaned.load());
    Gate g1, g2;
    post(TaskSvr_def(), g1.job);
    post(TaskSvr_def(), g2.job);
    EXPECT_TRUE(until([&] { return g1.entered && g2.entered; }));
    for (Gate* g : {&slow, &g1, &g2}) {
        vek_evt_set(g->evt);
    }
    EXPECT_EQ(0, TaskSvr_drain(one, -1));
    EXPECT_EQ(0, TaskSvr_drain(TaskSvr_def(), -1));
    EXPECT_EQ(0, slow.job.cleaned.load());
    TaskSvr_delete(one);

    // Short tasks run on one worker at a time, but one queued behind a
    // task that blocks is taken by another within a moment.
    TaskSvr* two = TaskSvr_new("two", 2, 2);
    for (int i = 0; i < 100; i++) {
        TaskSvr_post(two, [](void*) -> vek_s32 { return 0; }, nullptr, nullptr);
    }
    EXPECT_EQ(0, TaskSvr_drain(two, -1));
    Gate blocker;
    post(two, blocker.job);
    ASSERT_TRUE(until([&] { return blocker.entered == 1; }));
    Job behind[2];
    for (Job& j : behind) {
        j.body = [] { return 2; };
        post(two, j);
    }
    EXPECT_TRUE(until([&] { return behind[0].cleaned == 2 && behind[1].cleaned == 2; }));
    vek_evt_set(blocker.evt);
    EXPECT_EQ(0, TaskSvr_drain(two, -1));
    TaskSvr_delete(two);
    EXPECT_ASSERT("minThrds >= 0 && minThrds <= maxThrds && maxThrds > 0", TaskSvr_new("x", 2, 1));
    EXPECT_ASSERT("svr != TaskSvr_def()", TaskSvr_delete(TaskSvr_def()));
}

TEST_F(Task, ATaskIsCancelledAtEveryStage) {
    TaskSvr* svr = TaskSvr_new("cancel", 1, 1);
    Gate gate;
    VekTask g = post(svr, gate.job);
    ASSERT_NE(0u, g);
    ASSERT_TRUE(until([&] { return gate.entered == 1; }));

    // Scheduled and queued: removed, the clean-up runs here with -5.
    Job never{[] { return 0; }};
    Job queued{[] { return 0; }};
    VekTask s = TaskSvr_postAt(svr, 60000, Job::run, Job::clean, &never);
    VekTask q = post(svr, queued);
    EXPECT_EQ(1, TaskSvr_cancel(s, 0));
    EXPECT_EQ(1, TaskSvr_cancel(q, 1));
    for (Job* j : {&never, &queued}) {
        EXPECT_EQ(VEK_ERR_ABORTED, j->cleaned.load());
        EXPECT_EQ(al_thrd_id(), j->cleanTid.load());
    }
    EXPECT_EQ(0, TaskSvr_cancel(s, 1));  // gone

    // Running: left alone unless asked; cancelled, its wait returns -5 and
    // the same worker then runs the next task with its abort cleared.
    std::atomic<vek_s32> nextSleep{1};
    Job next{[&] { return nextSleep = vek_ssleep(1); }};
    VekTask n = post(svr, next);
    EXPECT_EQ(3, TaskSvr_cancel(g, 0));
    EXPECT_EQ(VEK_ERR_TIMEOUT, TaskSvr_wait(g, 20));
    EXPECT_EQ(2, TaskSvr_cancel(g, 1));
    EXPECT_EQ(0, TaskSvr_wait(g, 5000));
    EXPECT_EQ(VEK_ERR_ABORTED, gate.job.cleaned.load());
    EXPECT_EQ(0, TaskSvr_wait(n, 5000));
    EXPECT_EQ(0, nextSleep.load());
    TaskSvrStat st;
    TaskSvr_stat(svr, &st);
    EXPECT_GE(st.maxWaitUs, 19000u);  // next waited behind the gate
    EXPECT_LT(st.maxWaitUs, 10000000u);
    EXPECT_GE(st.waitUs, st.maxWaitUs);

    // In its clean-up a task can no longer be cancelled, nor wait for itself.
    std::atomic<vek_s32> selfCancel{-1}, selfWait{-1};
    struct Ctx {
        VekTask id;
        vek_handle ready;
        std::atomic<vek_s32>* cancel;
        std::atomic<vek_s32>* wait;
    } ctx{0, gate.evt, &selfCancel, &selfWait};
    ctx.id = TaskSvr_post(
        svr, [](void* p) -> vek_s32 { return vek_evt_wait__(((Ctx*)p)->ready, -1, 0); },
        [](void* p, vek_s32) {
            Ctx* c = (Ctx*)p;
            *c->cancel = TaskSvr_cancel(c->id, 1);
            *c->wait = TaskSvr_wait(c->id, 0);
        },
        &ctx);
    vek_evt_set(gate.evt);  // the id is known now
    EXPECT_EQ(0, TaskSvr_drain(svr, -1));
    EXPECT_EQ(0, selfCancel.load());
    EXPECT_EQ(VEK_ERR_BAD_ARG, selfWait.load());
    EXPECT_TRUE(vektest::take_assert("task waits for itself"));

    // A waiting thread that is cancelled stops waiting with -5.
    vek_evt_reset(gate.evt);
    g = post(svr, gate.job);
    vek_thrd_cancel(al_thrd_id());
    EXPECT_EQ(VEK_ERR_ABORTED, TaskSvr_wait(g, -1));
    EXPECT_EQ(VEK_ERR_ABORTED, TaskSvr_drain(svr, -1));
    vek_thrd_abort_clear();
    vek_evt_set(gate.evt);
    EXPECT_EQ(0, TaskSvr_wait(g, -1));
    TaskSvr_delete(svr);
}

TEST_F(Task, PostsFromManyThreadsRunOnceInEachThreadsOrderWhileOthersCancelAndWait) {
    constexpr int kPosters = 4, kEach = 3000;
    struct Rec {
        std::atomic<int>* last;  // its poster's latest sequence number run
        std::atomic<bool>* disorder;
        int seq;
        std::atomic<int> ran{0}, cleaned{0};
        std::atomic<vek_s32> res{1};
    };
    for (vek_s32 workers : {1, 3}) {
        TaskSvr* svr = TaskSvr_new("many", workers, workers);
        std::vector<Rec> recs(kPosters * kEach);
        std::vector<std::atomic<VekTask>> ids(recs.size());
        std::atomic<int> last[kPosters];
        std::atomic<bool> disorder{false};
        std::vector<std::thread> thrds;
        for (int p = 0; p < kPosters; p++) {
            last[p] = -1;
            thrds.emplace_back([&, p] {
                for (int i = 0; i < kEach; i++) {
                    Rec& r = recs[p * kEach + i];
                    r.last = &last[p];
                    r.disorder = &disorder;
                    r.seq = i;
                    ids[p * kEach + i] = TaskSvr_post(
                        svr,
                        [](void* c) -> vek_s32 {
                            Rec* r = (Rec*)c;
                            r->ran++;
                            if (r->last->exchange(r->seq) >= r->seq) {
                                *r->disorder = true;  // with one worker, runs follow posts
                            }
                            return 0;
                        },
                        [](void* c, vek_s32 res) {
                            ((Rec*)c)->cleaned++;
                            ((Rec*)c)->res = res;
                        },
                        &r);
                }
            });
        }
        auto each = [&](int step, auto fn) {  // every step-th task, as soon as it is posted
            for (size_t i = 0; i < ids.size(); i += step) {
                while (!ids[i]) {
                    std::this_thread::yield();
                }
                fn(ids[i].load());
            }
        };
        thrds.emplace_back([&] { each(7, [](VekTask t) { TaskSvr_cancel(t, 0); }); });
        thrds.emplace_back([&] {
            each(5, [](VekTask t) { EXPECT_EQ(0, TaskSvr_wait(t, -1)); });
            vek_thrd_end();  // it waited: its abort event goes
        });
        for (auto& t : thrds) {
            t.join();
        }
        EXPECT_EQ(0, TaskSvr_drain(svr, -1));
        for (Rec& r : recs) {
            ASSERT_EQ(1, r.cleaned.load());
            ASSERT_EQ(r.res == VEK_ERR_ABORTED ? 0 : 1, r.ran.load());
        }
        if (workers == 1) {
            EXPECT_FALSE(disorder.load());
        }
        TaskSvr_delete(svr);
    }

    // A pool that has no worker and cannot start one takes no task.
    TaskSvr* none = TaskSvr_new("none", 0, 1);
    vek_os_fail_at__(VEK_OS_THREAD, 1);
    EXPECT_ASSERT("thrdHnd", EXPECT_EQ(0u, TaskSvr_post(none, [](void*) -> vek_s32 { return 0; },
                                                          nullptr, nullptr)));
    TaskSvr_delete(none);
}

TEST_F(Task, DeletingAPoolEndsEveryTaskAndTrimLetsIdleWorkersGo) {
    TaskSvr* svr = TaskSvr_new("del", 0, 3);
    Gate a, b;
    Job queued{[] { return 0; }}, scheduled{[] { return 0; }};
    post(svr, a.job);
    post(svr, b.job);
    ASSERT_TRUE(until([&] { return a.entered && b.entered; }));
    TaskSvrStat st;
    TaskSvr_stat(svr, &st);
    EXPECT_EQ(2, st.thrds);  // grew on demand
    TaskSvr* other = TaskSvr_new("busy", 1, 1);
    post(other, queued);  // on another pool: untouched by the deletion
    Job q2{[] { return 0; }};
    TaskSvr_postAt(svr, 60000, Job::run, Job::clean, &scheduled);
    Gate c;
    post(svr, c.job);
    EXPECT_TRUE(until([&] { return c.entered == 1; }));
    post(svr, q2);
    TaskSvr_delete(svr);  // cancels a, b and c, removes q2 and the scheduled one
    for (Gate* g : {&a, &b, &c}) {
        EXPECT_EQ(VEK_ERR_ABORTED, g->job.cleaned.load());
    }
    EXPECT_EQ(VEK_ERR_ABORTED, q2.cleaned.load());
    EXPECT_EQ(VEK_ERR_ABORTED, scheduled.cleaned.load());
    EXPECT_EQ(0, TaskSvr_drain(other, -1));
    EXPECT_EQ(0, queued.cleaned.load());

    // Workers above the minimum leave at a trim; the minimum stays.
    TaskSvr* elastic = TaskSvr_new("trim", 1, 4);
    Gate d, e, f;
    for (Gate* g : {&d, &e, &f}) {
        post(elastic, g->job);
    }
    EXPECT_TRUE(until([&] { return d.entered && e.entered && f.entered; }));
    for (Gate* g : {&d, &e, &f}) {
        vek_evt_set(g->evt);
    }
    TaskSvr_drain(elastic, -1);
    TaskSvr_stat(elastic, &st);
    EXPECT_GE(st.thrds, 3);  // one for each gate, and at times one more started meanwhile
    EXPECT_EQ(st.thrds - 1, TaskSvr_trim(elastic));
    TaskSvr_stat(elastic, &st);
    EXPECT_EQ(1, st.thrds);
    TaskSvr_delete(elastic);
    TaskSvr_delete(other);
}

TEST_F(Task, ExitReportsPoolsTasksAndTimersLeftBehind) {
    EXPECT_EXIT(
        {
            TaskSvr* svr = TaskSvr_new("forgotten", 1, 1);
            static Gate gate;
            static Job never{[] { return 0; }};
            TaskSvr_post(svr, Job::run, Job::clean, &gate.job);
            TaskSvr_postAt(svr, 60000, Job::run, Job::clean, &never);
            VekTimer_start(VekTimer_new([](VekTimer, void*) {}, nullptr, VEK_TIMER_SVC_THRD), 60000, 0);
            while (!gate.entered) {
                vek_sleep(1);
            }
            TraceCapture trc;
            BaseLib_exit();
            bool ok = trc.contains("detect 1 task svr leak, the bug MUST be fixed\n    svr[0]: name=\"forgotten\"") &&
                      trc.contains("detect 2 task leak in task svr \"forgotten\"") &&
                      trc.contains("detect 1 timer leak, the bug MUST be fixed\n    timer[0]: id=") &&
                      gate.job.cleaned == VEK_ERR_ABORTED && never.cleaned == VEK_ERR_ABORTED;
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
