/*
 * Thread cancellation and events against a raw pthread condition variable:
 *  - cancel latency: from vek_thrd_cancel to the blocked vek_evt_swait__
 *    returning -5 (median and p99 over 10,000 trials), against signalling
 *    a condition variable a thread is blocked on;
 *  - the same for a thread blocked in vek_fd_sread on an empty pipe;
 *  - ping-pong: two threads handing a turn back and forth through two
 *    auto-reset events (vek_evt_set / vek_evt_swait__), against a mutex, a
 *    condition variable and a turn flag. One iteration is one round trip.
 */
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr int kTrials = 10000;

long long now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void wait_phase(const std::atomic<int>& phase, int want) {
    while (phase.load(std::memory_order_acquire) != want) {
        std::this_thread::yield();
    }
}

/* Runs kTrials: the waiter announces it is about to block (phase 1), the
 * main thread gives it time to block, stamps t0 and wakes it; the waiter
 * stamps t1 when its wait returns (phase 2). */
struct Trials {
    std::atomic<int> phase{0};
    std::atomic<long long> t1{0};
    std::vector<double> lat;

    template <class Wake>
    void run(Wake wake) {
        lat.clear();
        for (int i = 0; i < kTrials; i++) {
            wait_phase(phase, 1);
            std::this_thread::sleep_for(std::chrono::microseconds(30));
            long long t0 = now_ns();
            wake();
            wait_phase(phase, 2);
            lat.push_back((double)(t1.load() - t0) / 1000.0);
            phase.store(0, std::memory_order_release);
        }
    }
    void report(benchmark::State& state) {
        std::sort(lat.begin(), lat.end());
        state.counters["median_us"] = lat[lat.size() / 2];
        state.counters["p99_us"] = lat[lat.size() * 99 / 100];
    }
};

/* Trials of a library thread blocked in block(arg) (which must return
 * -5 once cancelled), cancelled by the main thread. */
void cancel_trials(benchmark::State& state, vek_s32 (*block)(void* arg), void* arg) {
    Trials tr;
    struct Ctx {
        Trials* tr;
        vek_s32 (*block)(void*);
        void* arg;
    } ctx{&tr, block, arg};
    vek_u32 tid = vek_thrd_create__(
        [](void* p) -> vek_u32 {
            Ctx* c = (Ctx*)p;
            for (int i = 0; i < kTrials; i++) {
                c->tr->phase.store(1, std::memory_order_release);
                vek_s32 r = c->block(c->arg);
                c->tr->t1 = now_ns();
                if (r != VEK_ERR_ABORTED) {
                    return 1;
                }
                vek_thrd_abort_clear();
                c->tr->phase.store(2, std::memory_order_release);
                wait_phase(c->tr->phase, 0);
            }
            return 0;
        },
        &ctx, 0);
    tr.run([&] { vek_thrd_cancel(tid); });
    vek_thrd_join(tid);
    tr.report(state);
}

void BM_cancel_latency_vek(benchmark::State& state) {
    for (auto _ : state) {
        vek_handle never = vek_evt_create__(1, 0);
        cancel_trials(state, [](void* evt) { return vek_evt_swait__((vek_handle)evt, -1, 0); }, never);
        vek_evt_close(never);
    }
}

/* The same for a thread blocked reading an empty pipe (vek_fd_sread):
 * the cancel reaches it through its wake descriptor. */
void BM_cancel_read_vek(benchmark::State& state) {
    for (auto _ : state) {
        int fd[2];
        if (pipe(fd) != 0) {
            state.SkipWithError("pipe");
            return;
        }
        cancel_trials(state, [](void* p) {
            char b[64];
            return vek_fd_sread(*(int*)p, b, sizeof b, -1, 0);
        }, fd);
        close(fd[0]);
        close(fd[1]);
    }
}

void BM_cancel_latency_condvar(benchmark::State& state) {
    for (auto _ : state) {
        Trials tr;
        pthread_mutex_t mtx = PTHREAD_MUTEX_INITIALIZER;
        pthread_cond_t cv = PTHREAD_COND_INITIALIZER;
        bool flag = false;
        std::thread waiter([&] {
            for (int i = 0; i < kTrials; i++) {
                pthread_mutex_lock(&mtx);
                tr.phase.store(1, std::memory_order_release);
                while (!flag) {
                    pthread_cond_wait(&cv, &mtx);
                }
                tr.t1 = now_ns();
                flag = false;
                pthread_mutex_unlock(&mtx);
                tr.phase.store(2, std::memory_order_release);
                wait_phase(tr.phase, 0);
            }
        });
        tr.run([&] {
            pthread_mutex_lock(&mtx);
            flag = true;
            pthread_cond_signal(&cv);
            pthread_mutex_unlock(&mtx);
        });
        waiter.join();
        tr.report(state);
    }
}

void BM_pingpong_vek(benchmark::State& state) {
    vek_handle ping = vek_evt_create__(0, 0);
    vek_handle pong = vek_evt_create__(0, 0);
    struct Ctx {
        vek_handle ping, pong;
    } ctx{ping, pong};
    vek_u32 tid = vek_thrd_create__(
        [](void* p) -> vek_u32 {
            Ctx* c = (Ctx*)p;
            while (vek_evt_swait__(c->ping, -1, 0) == 0) {
                vek_evt_set(c->pong);
            }
            return 0;
        },
        &ctx, 0);
    for (auto _ : state) {
        vek_evt_set(ping);
        vek_evt_swait__(pong, -1, 0);
    }
    vek_thrd_wait(tid);  // the cancel ends the partner's wait
    vek_evt_close(ping);
    vek_evt_close(pong);
}

void BM_pingpong_condvar(benchmark::State& state) {
    pthread_mutex_t mtx = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cv = PTHREAD_COND_INITIALIZER;
    int turn = 0;  // 0 main, 1 partner, 2 stop
    std::thread partner([&] {
        pthread_mutex_lock(&mtx);
        for (;;) {
            while (turn == 0) {
                pthread_cond_wait(&cv, &mtx);
            }
            if (turn == 2) {
                break;
            }
            turn = 0;
            pthread_cond_broadcast(&cv);
        }
        pthread_mutex_unlock(&mtx);
    });
    for (auto _ : state) {
        pthread_mutex_lock(&mtx);
        turn = 1;
        pthread_cond_broadcast(&cv);
        while (turn == 1) {
            pthread_cond_wait(&cv, &mtx);
        }
        pthread_mutex_unlock(&mtx);
    }
    pthread_mutex_lock(&mtx);
    turn = 2;
    pthread_cond_broadcast(&cv);
    pthread_mutex_unlock(&mtx);
    partner.join();
}

} // namespace

BENCHMARK(BM_cancel_latency_vek)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_cancel_read_vek)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_cancel_latency_condvar)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_pingpong_vek)->UseRealTime();
BENCHMARK(BM_pingpong_condvar)->UseRealTime();
