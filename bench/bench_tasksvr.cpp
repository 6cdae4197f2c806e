/*
 * The task server against libuv's thread pool (uv_queue_work) and a
 * std::thread pool with one mutex-guarded queue and a condition variable,
 * 4 workers each:
 *  - latency: one task posted to idle workers, from the post until the
 *    task runs (manual time, one post per iteration);
 *  - throughput: 10,000 trivial tasks posted in a burst and waited for; the
 *    time per burst (tasks per second = 10,000 / time). libuv's bursts end
 *    when its loop has run every completion callback, as its users wait.
 *    post_ms is the part of a burst the posting thread spent posting.
 * libuv runs its default pool of 4 threads (UV_THREADPOOL_SIZE unset).
 */
#include <benchmark/benchmark.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>
#include "BaseLib.h"
#ifdef HAVE_LIBUV
#include <uv.h>
#endif

namespace {

constexpr int kWorkers = 4;
constexpr int kBurst = 10000;

long long now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/* What a latency task records: when it ran. */
struct Stamp {
    std::atomic<long long> ran{0};
};

vek_s32 stamp_task(void* p) {
    ((Stamp*)p)->ran.store(now_ns(), std::memory_order_release);
    return 0;
}

vek_s32 count_task(void* p) {
    ((std::atomic<int>*)p)->fetch_add(1, std::memory_order_relaxed);
    return 0;
}

/* Lets the workers fall idle between latency samples. */
void let_idle() {
    std::this_thread::sleep_for(std::chrono::microseconds(50));
}

void BM_task_latency_vek(benchmark::State& state) {
    TaskSvr* svr = TaskSvr_new("bench", kWorkers, kWorkers);
    for (auto _ : state) {
        Stamp s;
        let_idle();
        long long t0 = now_ns();
        TaskSvr_post(svr, stamp_task, nullptr, &s);
        while (!s.ran.load(std::memory_order_acquire)) {
        }
        state.SetIterationTime((double)(s.ran - t0) * 1e-9);
    }
    TaskSvr_drain(svr, -1);
    TaskSvr_delete(svr);
}
BENCHMARK(BM_task_latency_vek)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_task_burst_vek(benchmark::State& state) {
    TaskSvr* svr = TaskSvr_new("bench", kWorkers, kWorkers);
    std::atomic<int> n{0};
    double postNs = 0;
    for (auto _ : state) {
        long long t0 = now_ns();
        for (int i = 0; i < kBurst; i++) {
            TaskSvr_post(svr, count_task, nullptr, &n);
        }
        postNs += now_ns() - t0;
        TaskSvr_drain(svr, -1);
    }
    state.counters["post_ms"] = postNs / 1e6 / state.iterations();
    TaskSvr_delete(svr);
    state.counters["tasks_per_s"] = benchmark::Counter((double)n, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_task_burst_vek)->UseRealTime()->Unit(benchmark::kMillisecond);

/* The plain pool: one queue under one mutex, workers on one condition
 * variable, a counter for the waiter. */
class StdPool {
  public:
    StdPool() {
        for (int i = 0; i < kWorkers; i++) {
            thrds_.emplace_back([this] { loop(); });
        }
    }
    ~StdPool() {
        {
            std::lock_guard<std::mutex> g(mu_);
            stop_ = true;
        }
        cv_.notify_all();
        for (auto& t : thrds_) {
            t.join();
        }
    }
    void post(std::function<void()> f) {
        {
            std::lock_guard<std::mutex> g(mu_);
            q_.push_back(std::move(f));
            pending_++;
        }
        cv_.notify_one();
    }
    void drain() {
        std::unique_lock<std::mutex> g(mu_);
        idle_.wait(g, [this] { return pending_ == 0; });
    }

  private:
    void loop() {
        std::unique_lock<std::mutex> g(mu_);
        for (;;) {
            cv_.wait(g, [this] { return stop_ || !q_.empty(); });
            if (q_.empty()) {
                return;
            }
            std::function<void()> f = std::move(q_.front());
            q_.pop_front();
            g.unlock();
            f();
            g.lock();
            if (--pending_ == 0) {
                idle_.notify_all();
            }
        }
    }
    std::mutex mu_;
    std::condition_variable cv_, idle_;
    std::deque<std::function<void()>> q_;
    std::vector<std::thread> thrds_;
    int pending_ = 0;
    bool stop_ = false;
};

void BM_task_latency_std(benchmark::State& state) {
    StdPool pool;
    for (auto _ : state) {
        Stamp s;
        let_idle();
        long long t0 = now_ns();
        pool.post([&s] { stamp_task(&s); });
        while (!s.ran.load(std::memory_order_acquire)) {
        }
        state.SetIterationTime((double)(s.ran - t0) * 1e-9);
    }
    pool.drain();
}
BENCHMARK(BM_task_latency_std)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_task_burst_std(benchmark::State& state) {
    StdPool pool;
    std::atomic<int> n{0};
    for (auto _ : state) {
        for (int i = 0; i < kBurst; i++) {
            pool.post([&n] { count_task(&n); });
        }
        pool.drain();
    }
    state.counters["tasks_per_s"] = benchmark::Counter((double)n, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_task_burst_std)->UseRealTime()->Unit(benchmark::kMillisecond);

#ifdef HAVE_LIBUV
struct UvStamp {
    uv_work_t req;
    Stamp s;
};

void BM_task_latency_uv(benchmark::State& state) {
    uv_loop_t* loop = uv_default_loop();
    for (auto _ : state) {
        UvStamp w;
        w.req.data = &w;
        let_idle();
        long long t0 = now_ns();
        uv_queue_work(
            loop, &w.req, [](uv_work_t* r) { stamp_task(&((UvStamp*)r->data)->s); },
            [](uv_work_t*, int) {});
        while (!w.s.ran.load(std::memory_order_acquire)) {
        }
        state.SetIterationTime((double)(w.s.ran - t0) * 1e-9);
        uv_run(loop, UV_RUN_DEFAULT);  // its completion, outside the timing
    }
}
BENCHMARK(BM_task_latency_uv)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_task_burst_uv(benchmark::State& state) {
    uv_loop_t* loop = uv_default_loop();
    static std::atomic<int> n{0};
    std::vector<uv_work_t> reqs(kBurst);
    double postNs = 0;
    for (auto _ : state) {
        long long t0 = now_ns();
        for (auto& r : reqs) {
            uv_queue_work(
                loop, &r, [](uv_work_t*) { count_task(&n); }, [](uv_work_t*, int) {});
        }
        postNs += now_ns() - t0;
        uv_run(loop, UV_RUN_DEFAULT);
    }
    state.counters["post_ms"] = postNs / 1e6 / state.iterations();
    state.counters["tasks_per_s"] = benchmark::Counter((double)n, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_task_burst_uv)->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

} // namespace
