/*
 * TrcRelay.cpp - the trace relay: every record also goes, as one message
 * (its level as the message type, its text as the payload), to the
 * endpoint that "RelayPipe" of the trace configuration names.
 *
 * A traced program must never wait for whoever reads its trace, so a
 * record is only copied into a bounded queue; a thread of the relay's own
 * connects and sends. When the queue is full, or nothing listens at the
 * name, records are dropped and counted (relay_stats). Being absent is
 * cheap: after a failed connect the thread tries again only after a pause,
 * dropping what came meanwhile, so the queue never holds a stale backlog
 * that a listener would receive long after the fact.
 *
 * Like the rest of the trace manager, the queue lives on al_malloc, never
 * the tracked heap, whose reports are written through the trace. The
 * relay's own thread traces nothing to the relay (its failures would feed
 * themselves).
 */
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include "AlPlat.h"
#include "VekCore.h"
#include "VekPipe.h"
#include "VekVosx.h"

namespace {

constexpr vek_s32 kQueCap = 4096;
constexpr vek_s32 kBatch = 64;
constexpr vek_s32 kRetryMs = 200;   // the pause after a failed connect
constexpr vek_s32 kSendTmo = 2000;  // a listener this slow loses its records
constexpr vek_s32 kStopMs = 1000;   // what the queue's last records may take at the end

struct Rec {
    vek_s32 level;
    vek_s32 len;
    char* text;  // al_malloc
};

struct Relay {
    char name[256];
    Rec* ring;  // kQueCap
    vek_s32 head = 0;
    vek_s32 count = 0;
    bool stop = false;
    vek_u32 tid = 0;
    std::condition_variable cv;
};

std::mutex g_mu;  // g_relay and its queue
Relay* g_relay;
std::atomic<bool> g_on{false};
std::atomic<vek_s64> g_sent{0};
std::atomic<vek_s64> g_dropped{0};
thread_local bool t_isRelay;

void drop_recs(Rec* recs, vek_s32 n) {
    for (vek_s32 i = 0; i < n; i++) {
        al_free(recs[i].text);
    }
    g_dropped.fetch_add(n, std::memory_order_relaxed);
}

vek_u32 relay_main(void* arg) {
    Relay* r = (Relay*)arg;
    t_isRelay = true;
    PmConn* conn = nullptr;
    vek_u32 retryAt = vek_msec();
    for (;;) {
        Rec batch[kBatch];
        vek_s32 n = 0;
        bool stopping;  // then the queue is emptied: sent while a listener takes them, else dropped
        {
            std::unique_lock<std::mutex> lk(g_mu);
            r->cv.wait(lk, [r] { return r->stop || r->count > 0; });
            stopping = r->stop;
            while (n < kBatch && r->count > 0) {
                batch[n++] = r->ring[r->head];
                r->head = (r->head + 1) % kQueCap;
                r->count--;
            }
        }
        if (n == 0) {
            break;  // stopping with nothing left
        }
        if (!conn && (vek_s32)(vek_msec() - retryAt) >= 0) {
            conn = pm_connect(r->name, 0, 500, nullptr);
            retryAt = vek_msec() + kRetryMs;
        }
        vek_s32 i = 0;
        for (; conn && i < n; i++) {
            if (pm_send(conn, (vek_u32)batch[i].level & 0xFFFF, batch[i].text, batch[i].len, kSendTmo) != 0) {
                pm_close(conn);
                conn = nullptr;
                break;
            }
            al_free(batch[i].text);
            g_sent.fetch_add(1, std::memory_order_relaxed);
        }
        drop_recs(batch + i, n - i);
        (void)stopping;
    }
    pm_close(conn);
    return 0;
}

/* Ends r's thread (the queue's last records get kStopMs to go out) and
 * frees r. Not under g_mu. */
void relay_end(Relay* r) {
    {
        std::lock_guard<std::mutex> lk(g_mu);
        r->stop = true;
        r->cv.notify_one();
    }
    for (vek_s32 waited = 0; !vek_thrd_exited(r->tid) && waited < kStopMs; waited += 5) {
        al_sleep(5);
    }
    vek_thrd_cancel(r->tid);
    vek_thrd_join(r->tid);
    // The thread took every record before it left, unless it was cut off.
    while (r->count > 0) {
        drop_recs(&r->ring[r->head], 1);
        r->head = (r->head + 1) % kQueCap;
        r->count--;
    }
    al_free(r->ring);
    r->~Relay();
    al_free(r);
}

std::mutex g_cfgMu;  // one configuration change at a time

} // namespace

namespace vek {

bool relay_set(const char* name) {
    std::lock_guard<std::mutex> cfg(g_cfgMu);
    Relay* old;
    {
        std::lock_guard<std::mutex> lk(g_mu);
        old = g_relay;
        if (old && name && std::strcmp(old->name, name) == 0) {
            return false;
        }
        if (!old && (!name || !*name)) {
            return false;
        }
        g_relay = nullptr;
        g_on.store(false, std::memory_order_release);
    }
    if (old) {
        relay_end(old);
    }
    if (!name || !*name || std::strlen(name) >= sizeof(Relay::name)) {
        return true;
    }
    void* mem = al_malloc(sizeof(Relay));
    Rec* ring = mem ? (Rec*)al_malloc(sizeof(Rec) * kQueCap) : nullptr;
    if (!ring) {
        al_free(mem);
        return true;
    }
    Relay* r = new (mem) Relay();
    std::memcpy(r->name, name, std::strlen(name) + 1);
    r->ring = ring;
    if ((r->tid = vek_thrd_create__(relay_main, r, 0)) == 0) {
        al_free(ring);
        r->~Relay();
        al_free(r);
        return true;
    }
    std::lock_guard<std::mutex> lk(g_mu);
    g_relay = r;
    g_on.store(true, std::memory_order_release);
    return true;
}

bool relay_on(void) {
    return g_on.load(std::memory_order_acquire);
}

void relay_push(vek_s32 level, const char* text, vek_s32 len) {
    if (t_isRelay || !relay_on()) {
        return;
    }
    char* copy = (char*)al_malloc(len > 0 ? (size_t)len : 1);
    if (!copy) {
        g_dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    std::memcpy(copy, text, (size_t)len);
    {
        std::lock_guard<std::mutex> lk(g_mu);
        Relay* r = g_relay;
        if (r && r->count < kQueCap) {
            r->ring[(r->head + r->count) % kQueCap] = Rec{level, len, copy};
            if (r->count++ == 0) {
                r->cv.notify_one();
            }
            return;
        }
    }
    al_free(copy);
    g_dropped.fetch_add(1, std::memory_order_relaxed);
}

void relay_stats(vek_s64* sent, vek_s64* dropped) {
    *sent = g_sent.load(std::memory_order_relaxed);
    *dropped = g_dropped.load(std::memory_order_relaxed);
}

} // namespace vek
