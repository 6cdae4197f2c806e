/*
 * Timers against libuv's (a binary heap of uv_timer_t):
 *  - start + stop with 1,000,000 timers pending: each iteration stops a
 *    pending timer picked at random and starts it again with a new time,
 *    so a million stay pending and every access lands somewhere new;
 *  - expiry: 100,000 one-shots made, armed for 1 ms, run and freed (the
 *    service thread against a libuv loop run on the benchmark's thread,
 *    which is libuv's best case: no hand-over to another thread);
 *  - lateness: 10,000 one-shots of 1 to 100 ms on an idle machine, the
 *    time each callback ran after its due time (p50, p99, max in us), for
 *    both.
 * Also, as a reference for the design note in Src/VekTimer.cpp: a plain
 * binary min-heap (std::push_heap and a lazy-deletion flag is not a stop, so
 * the heap here removes by index, as libuv does).
 */
#include <benchmark/benchmark.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>
#include "BaseLib.h"
#ifdef HAVE_LIBUV
#include <uv.h>
#endif

namespace {

constexpr int kPending = 1000000;
constexpr int kPicks = 1 << 16;

/* The timers to touch and their new times, the same for every peer. */
struct Picks {
    std::vector<int> idx;
    std::vector<vek_s32> due;
    Picks() {
        std::mt19937 rnd(7);
        for (int i = 0; i < kPicks; i++) {
            idx.push_back((int)(rnd() % kPending));
            due.push_back((vek_s32)(100000 + rnd() % 10000000));
        }
    }
};
const Picks& picks() {
    static Picks p;
    return p;
}

void BM_vek_timer_start_stop(benchmark::State& state) {
    std::vector<VekTimer> t(kPending);
    const Picks& p = picks();
    for (int i = 0; i < kPending; i++) {
        t[i] = VekTimer_new([](VekTimer, void*) {}, nullptr, VEK_TIMER_SVC_THRD);
        VekTimer_start(t[i], p.due[i % kPicks], 0);
    }
    int k = 0;
    for (auto _ : state) {
        VekTimer id = t[p.idx[k]];
        VekTimer_stop(id, 0);
        VekTimer_start(id, p.due[k], 0);
        k = (k + 1) & (kPicks - 1);
    }
    for (VekTimer id : t) {
        VekTimer_delete(id, 0);
    }
}
BENCHMARK(BM_vek_timer_start_stop);

#ifdef HAVE_LIBUV
void BM_uv_timer_start_stop(benchmark::State& state) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<uv_timer_t> t(kPending);
    const Picks& p = picks();
    auto cb = [](uv_timer_t*) {};
    for (int i = 0; i < kPending; i++) {
        uv_timer_init(&loop, &t[i]);
        uv_timer_start(&t[i], cb, (uint64_t)p.due[i % kPicks], 0);
    }
    int k = 0;
    for (auto _ : state) {
        uv_timer_t* h = &t[p.idx[k]];
        uv_timer_stop(h);
        uv_timer_start(h, cb, (uint64_t)p.due[k], 0);
        k = (k + 1) & (kPicks - 1);
    }
    for (auto& h : t) {
        uv_close((uv_handle_t*)&h, nullptr);
    }
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}
BENCHMARK(BM_uv_timer_start_stop);
#endif

/* An array-backed binary min-heap whose entries know their position, so a
 * stop removes in O(log n): the textbook alternative to the wheel. */
struct IdxHeap {
    struct Ent {
        vek_u64 due;
        int id;
    };
    std::vector<Ent> h;
    std::vector<int> pos;  // by id, -1 when not in the heap
    explicit IdxHeap(int n) : pos(n, -1) { h.reserve(n); }
    void put(int i, Ent e) {
        h[i] = e;
        pos[e.id] = i;
    }
    void up(int i) {
        Ent e = h[i];
        while (i > 0 && h[(i - 1) / 2].due > e.due) {
            put(i, h[(i - 1) / 2]);
            i = (i - 1) / 2;
        }
        put(i, e);
    }
    void down(int i) {
        Ent e = h[i];
        int n = (int)h.size();
        for (;;) {
            int c = 2 * i + 1;
            if (c >= n) {
                break;
            }
            if (c + 1 < n && h[c + 1].due < h[c].due) {
                c++;
            }
            if (h[c].due >= e.due) {
                break;
            }
            put(i, h[c]);
            i = c;
        }
        put(i, e);
    }
    void start(int id, vek_u64 due) {
        h.push_back({due, id});
        up((int)h.size() - 1);
    }
    void stop(int id) {
        int i = pos[id];
        pos[id] = -1;
        Ent last = h.back();
        h.pop_back();
        if (i < (int)h.size()) {
            h[i] = last;
            pos[last.id] = i;
            up(i);
            down(pos[last.id]);
        }
    }
};

void BM_heap_timer_start_stop(benchmark::State& state) {
    const Picks& p = picks();
    IdxHeap heap(kPending);
    for (int i = 0; i < kPending; i++) {
        heap.start(i, (vek_u64)p.due[i % kPicks]);
    }
    int k = 0;
    for (auto _ : state) {
        heap.stop(p.idx[k]);
        heap.start(p.idx[k], (vek_u64)p.due[k]);
        k = (k + 1) & (kPicks - 1);
    }
}
BENCHMARK(BM_heap_timer_start_stop);

long long now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/* The lateness of each shot (us after its due time) into the counters. */
struct Shot {
    long long dueUs = 0;
    std::atomic<long long> firedUs{0};
};
void report_lateness(benchmark::State& state, const std::vector<Shot>& shots) {
    std::vector<double> late;
    for (auto& s : shots) {
        late.push_back((double)(s.firedUs - s.dueUs));
    }
    std::sort(late.begin(), late.end());
    state.counters["early_us"] = late.front() < 0 ? -late.front() : 0;
    state.counters["p50_us"] = late[late.size() / 2];
    state.counters["p99_us"] = late[late.size() * 99 / 100];
    state.counters["max_us"] = late.back();
}

/* Arms n one-shots with start(i, ms): due in 1..maxMs, or all in 1 ms
 * when maxMs is 1; callbacks record their time and count down `left`. */
struct Shots {
    std::vector<Shot> shot;
    std::atomic<int> left;
    explicit Shots(int n) : shot(n), left(n) {}
    void fired(int i) {
        shot[i].firedUs = now_us();
        left.fetch_sub(1);
    }
};

struct VekCtx {
    Shots* s;
    int i;
};
/* 10,000 timers of 1..100 ms (lateness) or n due in 1 ms (expiry cost). */
void run_vek(benchmark::State& state, int n, int maxMs) {
    Shots shots(n);
    std::vector<VekCtx> ctx(n);
    std::vector<VekTimer> ids(n);
    for (int i = 0; i < n; i++) {
        ctx[i] = {&shots, i};
        ids[i] = VekTimer_new([](VekTimer, void* p) { ((VekCtx*)p)->s->fired(((VekCtx*)p)->i); }, &ctx[i],
                              VEK_TIMER_SVC_THRD);
    }
    std::mt19937 rnd(11);
    for (int i = 0; i < n; i++) {
        vek_s32 ms = (vek_s32)(1 + rnd() % maxMs);
        shots.shot[i].dueUs = now_us() + ms * 1000LL;
        VekTimer_start(ids[i], ms, 0);
    }
    while (shots.left.load() > 0) {
        maxMs > 1 ? vek_sleep(5) : std::this_thread::yield();
    }
    if (maxMs > 1) {
        report_lateness(state, shots.shot);
    }
    for (VekTimer id : ids) {
        VekTimer_delete(id, 0);
    }
}

#ifdef HAVE_LIBUV
struct UvShot {
    uv_timer_t h;
    Shots* s;
    int i;
};
void run_uv(benchmark::State& state, int n, int maxMs) {
    Shots shots(n);
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<UvShot> t(n);
    std::mt19937 rnd(11);
    for (int i = 0; i < n; i++) {
        t[i].s = &shots;
        t[i].i = i;
        uv_timer_init(&loop, &t[i].h);
        vek_s32 ms = (vek_s32)(1 + rnd() % maxMs);
        uv_update_time(&loop);  // libuv counts from its cached loop time
        shots.shot[i].dueUs = now_us() + ms * 1000LL;
        uv_timer_start(&t[i].h, [](uv_timer_t* h) {
            UvShot* u = (UvShot*)h;
            u->s->fired(u->i);
        }, (uint64_t)ms, 0);
    }
    uv_run(&loop, UV_RUN_DEFAULT);
    if (maxMs > 1) {
        report_lateness(state, shots.shot);
    }
    for (auto& u : t) {
        uv_close((uv_handle_t*)&u.h, nullptr);
    }
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}
#endif

constexpr int kExpiries = 100000;

void BM_vek_timer_expiry(benchmark::State& state) {
    for (auto _ : state) {
        run_vek(state, kExpiries, 1);
    }
    state.SetItemsProcessed(state.iterations() * kExpiries);
}
BENCHMARK(BM_vek_timer_expiry)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_vek_timer_lateness(benchmark::State& state) {
    for (auto _ : state) {
        run_vek(state, 10000, 100);
    }
}
BENCHMARK(BM_vek_timer_lateness)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef HAVE_LIBUV
void BM_uv_timer_expiry(benchmark::State& state) {
    for (auto _ : state) {
        run_uv(state, kExpiries, 1);
    }
    state.SetItemsProcessed(state.iterations() * kExpiries);
}
BENCHMARK(BM_uv_timer_expiry)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_uv_timer_lateness(benchmark::State& state) {
    for (auto _ : state) {
        run_uv(state, 10000, 100);
    }
}
BENCHMARK(BM_uv_timer_lateness)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

} // namespace
