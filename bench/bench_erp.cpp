/*
 * Event-receive processors against the classic hand-made queue, an
 * eventfd and a mutex-guarded deque per thread: a round trip is a callback
 * posted to a worker thread that waits for work, which posts a callback
 * back to the poster, which waits for it. One iteration is one round trip.
 */
#include <benchmark/benchmark.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include "BaseLib.h"

namespace {

struct VekSide {
    std::atomic<vek_s32> worker{0};
    vek_s32 home = 0;
};

void BM_erp_roundtrip_vek(benchmark::State& state) {
    VekSide s;
    s.home = vek_erp_self();
    vek_u32 tid = vek_thrd_create__(
        [](void* p) -> vek_u32 {
            VekSide* s = (VekSide*)p;
            s->worker = vek_erp_self();
            while (vek_erp_run(-1, 0) > 0) {
            }
            return 0;
        },
        &s, 0);
    while (!s.worker) {
        std::this_thread::yield();
    }
    vek_erp_fn there = [](void* p) {
        VekSide* s = (VekSide*)p;
        vek_erp_postf(s->home, [](void*) {}, nullptr, nullptr);
    };
    for (auto _ : state) {
        vek_erp_postf(s.worker, there, &s, nullptr);
        vek_erp_run(-1, 0);
    }
    vek_thrd_wait(tid);  // the cancel ends its loop
}

/* The peer: what a program writes by hand. */
struct PeerQue {
    int efd = eventfd(0, EFD_CLOEXEC);
    std::mutex m;
    std::deque<std::pair<void (*)(void*), void*>> q;

    ~PeerQue() { close(efd); }
    void post(void (*fn)(void*), void* arg) {
        {
            std::lock_guard<std::mutex> g(m);
            q.emplace_back(fn, arg);
        }
        uint64_t one = 1;
        ssize_t r = write(efd, &one, sizeof one);
        (void)r;
    }
    /* Waits for work and runs it; false once told to stop (a null fn). */
    bool run() {
        uint64_t n;
        ssize_t r = read(efd, &n, sizeof n);
        (void)r;
        std::deque<std::pair<void (*)(void*), void*>> batch;
        {
            std::lock_guard<std::mutex> g(m);
            batch.swap(q);
        }
        for (auto& it : batch) {
            if (!it.first) {
                return false;
            }
            it.first(it.second);
        }
        return true;
    }
};

struct PeerSide {
    PeerQue home, worker;
};

void BM_erp_roundtrip_eventfd(benchmark::State& state) {
    PeerSide s;
    std::thread worker([&] {
        while (s.worker.run()) {
        }
    });
    auto there = [](void* p) {
        PeerSide* s = (PeerSide*)p;
        s->home.post([](void*) {}, nullptr);
    };
    for (auto _ : state) {
        s.worker.post(there, &s);
        s.home.run();
    }
    s.worker.post(nullptr, nullptr);
    worker.join();
}

} // namespace

BENCHMARK(BM_erp_roundtrip_vek)->UseRealTime();
BENCHMARK(BM_erp_roundtrip_eventfd)->UseRealTime();
