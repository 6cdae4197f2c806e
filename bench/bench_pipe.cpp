/*
 * Messages between processes against a raw Unix domain socket, the peer
 * in a child process in both cases: a 64-byte round trip, 1 KiB messages
 * one way, and a generic event sent, decoded in the child and answered.
 * The child is forked while the benchmark runs alone on its thread, and
 * speaks pm_* over its end of a socket pair (the kernel path of a
 * connected endpoint).
 */
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstring>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr int kMsgs = 10000;

/* Reads exactly n bytes from a blocking descriptor: false at its end. */
bool read_n(int fd, char* b, size_t n) {
    for (size_t got = 0; got < n;) {
        ssize_t r = read(fd, b + got, n - got);
        if (r <= 0) {
            return false;
        }
        got += (size_t)r;
    }
    return true;
}

/* Forks child(fd) on one end of a socket pair; the other end is ours. */
template <class Child>
pid_t fork_peer(int* mine, Child child) {
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    pid_t p = fork();
    if (p == 0) {
        close(sv[0]);
        child(sv[1]);
        _exit(0);
    }
    close(sv[1]);
    *mine = sv[0];
    return p;
}

void end_peer(int fd, pid_t p) {
    shutdown(fd, SHUT_RDWR);
    close(fd);
    waitpid(p, nullptr, 0);
}

/* The child's side over pm_*: answers every request with its payload,
 * or with 8 bytes for an event, and takes one-way messages silently. */
void pm_peer(int fd) {
    ISock* s = HndSock_xcreate__(fd, 1, __FILE__, __LINE__);
    PmConn* c = pm_open(s, 0, nullptr);
    PmMsg m;
    while (pm_recv(c, &m, -1) == 0) {
        if (m.kind == PM_KIND_REQ) {
            pm_reply(c, &m, m.type, m.evt ? "decoded!" : (const char*)m.data, m.evt ? 8 : m.len, nullptr, -1);
        } else if (m.kind == PM_KIND_MSG && m.type == 2) {
            pm_send(c, 2, nullptr, 0, -1);  // the end of a one-way run
        }
        pm_msg_clean(&m);
    }
    pm_close(c);
    ISock_release(s);
}

PmConn* pm_side(int fd, ISock** s) {
    *s = HndSock_xcreate__(fd, 0, __FILE__, __LINE__);
    return pm_open(*s, 0, nullptr);
}

void BM_uds_rtt_raw(benchmark::State& state) {
    int fd;
    pid_t p = fork_peer(&fd, [](int c) {
        char b[64];
        while (read_n(c, b, sizeof b) && write(c, b, sizeof b) == (ssize_t)sizeof b) {
        }
    });
    char req[64] = {1}, rsp[64];
    for (auto _ : state) {
        if (write(fd, req, sizeof req) != (ssize_t)sizeof req || !read_n(fd, rsp, sizeof rsp)) {
            state.SkipWithError("peer");
            break;
        }
    }
    end_peer(fd, p);
}

void BM_pm_rtt(benchmark::State& state) {
    int fd;
    pid_t p = fork_peer(&fd, pm_peer);
    ISock* s;
    PmConn* c = pm_side(fd, &s);
    char req[64] = {1};
    PmMsg rsp;
    for (auto _ : state) {
        if (pm_request(c, 1, req, sizeof req, nullptr, &rsp, 5000) != 0) {
            state.SkipWithError("pm_request");
            break;
        }
        pm_msg_clean(&rsp);
    }
    pm_close(c);
    ISock_release(s);
    end_peer(fd, p);
}

void BM_uds_1k_raw(benchmark::State& state) {
    int fd;
    pid_t p = fork_peer(&fd, [](int c) {
        // 1 KiB records; a record starting with 2 asks for a 1-byte answer.
        char b[1024];
        while (read_n(c, b, sizeof b)) {
            if (b[0] == 2 && write(c, b, 1) != 1) {
                break;
            }
        }
    });
    char msg[1024] = {1};
    for (auto _ : state) {
        for (int i = 0; i < kMsgs; i++) {
            if (write(fd, msg, sizeof msg) != (ssize_t)sizeof msg) {
                state.SkipWithError("write");
            }
        }
        char end[1024] = {2}, got;
        if (write(fd, end, sizeof end) != (ssize_t)sizeof end || read(fd, &got, 1) != 1) {
            state.SkipWithError("peer");
        }
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kMsgs);
    end_peer(fd, p);
}

void BM_pm_1k(benchmark::State& state) {
    int fd;
    pid_t p = fork_peer(&fd, pm_peer);
    ISock* s;
    PmConn* c = pm_side(fd, &s);
    char msg[1024] = {1};
    PmMsg m;
    for (auto _ : state) {
        for (int i = 0; i < kMsgs; i++) {
            pm_send(c, 1, msg, sizeof msg, 5000);
        }
        // Every message has been taken when the child answers the last.
        if (pm_send(c, 2, nullptr, 0, 5000) != 0 || pm_recv(c, &m, 5000) != 0) {
            state.SkipWithError("peer");
            break;
        }
        pm_msg_clean(&m);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kMsgs);
    pm_close(c);
    ISock_release(s);
    end_peer(fd, p);
}

void BM_pm_evt(benchmark::State& state) {
    int fd;
    pid_t p = fork_peer(&fd, pm_peer);
    ISock* s;
    PmConn* c = pm_side(fd, &s);
    GenEvt* e = GenEvt_newns(0x1234, 7, 1, 2, "an event's first string", "and its second");
    PmMsg rsp;
    for (auto _ : state) {
        if (pm_request(c, 3, nullptr, 0, e, &rsp, 5000) != 0) {
            state.SkipWithError("pm_request");
            break;
        }
        pm_msg_clean(&rsp);
    }
    Evt_delete(e);
    pm_close(c);
    ISock_release(s);
    end_peer(fd, p);
}

} // namespace

BENCHMARK(BM_uds_rtt_raw)->UseRealTime();
BENCHMARK(BM_pm_rtt)->UseRealTime();
BENCHMARK(BM_uds_1k_raw)->UseRealTime();
BENCHMARK(BM_pm_1k)->UseRealTime();
BENCHMARK(BM_pm_evt)->UseRealTime();
