/*
 * Waits, reads and writes on the system's own descriptors and handles that
 * a cancel ends, on real parts: pipes, socket pairs and pseudo-terminals
 * on POSIX, an overlapped named pipe on Windows. A cancel during a blocked
 * read and during a write into a full buffer, before the wait starts, and
 * racing the data's arrival; no byte lost or doubled in any of them.
 */
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include "VekTest.h"
#ifdef _WIN32
#include <windows.h>
#else
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#endif

using vektest::spawn;

namespace {

/* One end driven through the library (abortable) and the other end
 * driven plainly by the test. */
struct Link {
    std::string what;
    std::function<vek_s32(void*, vek_s32, vek_s32, vek_s32)> read;          // ours
    std::function<vek_s32(const void*, vek_s32, vek_s32, vek_s32)> write;   // ours
    std::function<void(const void*, size_t)> peerWrite;                     // blocking
    std::function<size_t(void*, size_t)> peerRead;                          // blocking, > 0
    std::function<size_t()> peerAvail;                                      // bytes waiting there
    std::function<void()> close;
};

#ifdef _WIN32
std::vector<Link> links() {
    static int seq;
    std::wstring name = L"\\\\.\\pipe\\vektest-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++seq);
    HANDLE srv = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                  PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 4096, 4096, 0, nullptr);
    HANDLE cli = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    Link l;
    l.what = "named pipe";
    l.read = [srv](void* b, vek_s32 n, vek_s32 tmo, vek_s32 fl) { return vek_hnd_sread(srv, b, n, tmo, fl); };
    l.write = [srv](const void* b, vek_s32 n, vek_s32 tmo, vek_s32 fl) { return vek_hnd_swrite(srv, b, n, tmo, fl); };
    l.peerWrite = [cli](const void* b, size_t n) {
        DWORD w = 0;
        WriteFile(cli, b, (DWORD)n, &w, nullptr);
    };
    l.peerRead = [cli](void* b, size_t n) -> size_t {
        DWORD r = 0;
        return ReadFile(cli, b, (DWORD)n, &r, nullptr) ? r : 0;
    };
    l.peerAvail = [cli]() -> size_t {
        DWORD avail = 0;
        PeekNamedPipe(cli, nullptr, 0, nullptr, &avail, nullptr);
        return avail;
    };
    l.close = [srv, cli] {
        CloseHandle(cli);
        CloseHandle(srv);
    };
    return {l};
}
#else
Link fd_link(const char* what, int ours, int oursW, int peer, int peerW) {
    Link l;
    l.what = what;
    l.read = [ours](void* b, vek_s32 n, vek_s32 tmo, vek_s32 fl) { return vek_fd_sread(ours, b, n, tmo, fl); };
    l.write = [oursW](const void* b, vek_s32 n, vek_s32 tmo, vek_s32 fl) { return vek_fd_swrite(oursW, b, n, tmo, fl); };
    l.peerWrite = [peerW](const void* b, size_t n) { EXPECT_EQ((ssize_t)n, write(peerW, b, n)); };
    l.peerRead = [peer](void* b, size_t n) -> size_t {
        ssize_t r = read(peer, b, n);
        return r > 0 ? (size_t)r : 0;
    };
    l.peerAvail = [peer]() -> size_t {
        int n = 0;
        ioctl(peer, FIONREAD, &n);
        return (size_t)n;
    };
    l.close = [=] {
        for (int fd : {ours, oursW, peer, peerW}) {
            close(fd);
        }
    };
    return l;
}

std::vector<Link> links() {
    std::vector<Link> out;
    int in[2], back[2];
    EXPECT_EQ(0, pipe(in));
    EXPECT_EQ(0, pipe(back));
    // Pipes go one way: we read from one and write into the other.
    out.push_back(fd_link("pipe", in[0], back[1], back[0], in[1]));
    int sp[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sp));
    out.push_back(fd_link("socketpair", sp[0], dup(sp[0]), sp[1], dup(sp[1])));
    // A pseudo-terminal as a serial line is used: the master ours,
    // non-blocking, the slave raw.
    int m = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_GE(m, 0);
    grantpt(m);
    unlockpt(m);
    int s = open(ptsname(m), O_RDWR | O_NOCTTY);
    EXPECT_GE(s, 0);
    struct termios t;
    tcgetattr(s, &t);
    cfmakeraw(&t);
    tcsetattr(s, TCSANOW, &t);
    fcntl(m, F_SETFL, fcntl(m, F_GETFL) | O_NONBLOCK);
    out.push_back(fd_link("pty", m, dup(m), s, dup(s)));
    return out;
}
#endif

} // namespace

class IoWait : public VekTest {
  protected:
    void SetUp() override {
        VekTest::SetUp();
        links_ = links();
    }
    void TearDown() override {
        for (auto& l : links_) {
            l.close();
        }
        vek_thrd_abort_clear();
        VekTest::TearDown();
    }
    std::vector<Link> links_;
};

TEST_F(IoWait, ACancelEndsABlockedReadAndTheDataStays) {
    for (Link& l : links_) {
        std::atomic<vek_s32> res{1};
        std::atomic<vek_u32> t1{0};
        vek_u32 tid = spawn([&] {
            char b[16];
            res = l.read(b, sizeof b, 10000, 0);
            t1 = vek_msec();
            return 0u;
        });
        vek_sleep(50);
        vek_u32 t0 = vek_msec();
        EXPECT_EQ(1, vek_thrd_cancel(tid));
        vek_thrd_join(tid);
        EXPECT_EQ(VEK_ERR_ABORTED, res.load()) << l.what;
        EXPECT_LT(t1 - t0, 2000u) << l.what;
        l.peerWrite("ab", 2);
        char b[16] = {};
        EXPECT_EQ(2, l.read(b, sizeof b, 5000, 0)) << l.what;
        EXPECT_STREQ("ab", b);
        EXPECT_EQ(VEK_ERR_TIMEOUT, l.read(b, sizeof b, 20, 0)) << l.what;
    }
}

TEST_F(IoWait, ACancelEndsAWriteIntoAFullBufferAndCountsWhatWentOut) {
    constexpr vek_s32 kBig = 8 << 20;
    std::vector<char> data(kBig);
    for (vek_s32 i = 0; i < kBig; i++) {
        data[(size_t)i] = (char)(i * 7 + i / 251);
    }
    for (Link& l : links_) {
        std::atomic<vek_s32> res{1};
        vek_u32 tid = spawn([&] {
            res = l.write(data.data(), kBig, 10000, 0);
            return 0u;
        });
        vek_sleep(100);
        vek_thrd_cancel(tid);
        vek_thrd_join(tid);
#ifdef _WIN32
        // A pipe write that no reader took part of ends whole: nothing went out.
        if (res == VEK_ERR_ABORTED) {
            EXPECT_EQ(0u, l.peerAvail());
            continue;
        }
#endif
        ASSERT_GT(res.load(), 0) << l.what;
        EXPECT_LT(res.load(), kBig) << l.what;
        // Exactly the bytes reported went out, in order.
        std::vector<char> got;
        char b[65536];
        while ((vek_s32)got.size() < res.load()) {
            size_t n = l.peerRead(b, std::min(sizeof b, (size_t)(res.load() - (vek_s32)got.size())));
            ASSERT_GT(n, 0u) << l.what;
            got.insert(got.end(), b, b + n);
        }
        EXPECT_EQ(0u, l.peerAvail()) << l.what;
        EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin())) << l.what;
    }
}

TEST_F(IoWait, ACancelBeforeTheWaitEndsItAtOnceUnlessDataIsThere) {
    for (Link& l : links_) {
        char b[8] = {};
        vek_thrd_cancel(al_thrd_id());
        vek_u32 t0 = vek_msec();
        EXPECT_EQ(VEK_ERR_ABORTED, l.read(b, sizeof b, 10000, 0)) << l.what;
        EXPECT_LT(vek_msec() - t0, 1000u);
        EXPECT_EQ(VEK_ERR_TIMEOUT, l.read(b, sizeof b, 20, VEK_WAIT_FORBID_ABORT)) << l.what;
        // Data wins over a pending cancel, as the own object wins in every
        // wait; the next call then meets the cancel.
        l.peerWrite("z", 1);
        EXPECT_EQ(1, l.read(b, sizeof b, 10000, 0)) << l.what;
        EXPECT_EQ('z', b[0]);
        EXPECT_EQ(VEK_ERR_ABORTED, l.read(b, sizeof b, 10000, 0)) << l.what;
        vek_thrd_abort_clear();
        // Inside a message block only the block's own cancel counts.
        vek_msg_blk_beg();
        vek_call_cancel();
        EXPECT_EQ(VEK_ERR_ABORTED, l.read(b, sizeof b, 10000, 0)) << l.what;
        vek_msg_blk_end();
        EXPECT_EQ(VEK_ERR_TIMEOUT, l.read(b, sizeof b, 0, 0)) << l.what;
    }
}

TEST_F(IoWait, ACancelRacingTheDataLosesNoByte) {
#ifdef _WIN32
    constexpr int kRounds = 200;
#else
    constexpr int kRounds = 2000;  // a wake-up lost once in a thousand shows
#endif
    for (Link& l : links_) {
        std::atomic<int> cancels{0}, errors{0};
        std::atomic<bool> stop{false};
        std::string got;
        vek_u32 tid = spawn([&] {
            int seen = 0;
            while (!stop && ((int)got.size() < kRounds || seen < kRounds)) {
                char b[64];
                vek_s32 r = l.read(b, sizeof b, 5000, 0);
                if (r > 0) {
                    got.append(b, (size_t)r);  // also when the data won over a cancel already there
                } else if (r == VEK_ERR_ABORTED) {
                    vek_thrd_abort_clear();
                    cancels = ++seen;
                } else {
                    errors++;
                }
            }
            return 0u;
        });
        bool lost = false;
        for (int i = 0; i < kRounds && !lost && errors == 0; i++) {
            char c = (char)('A' + i % 26);
            l.peerWrite(&c, 1);
            vek_thrd_cancel(tid);
            vek_u32 t0 = vek_msec();
            while (cancels <= i && !(lost = vek_msec() - t0 > 2000)) {
                std::this_thread::yield();
            }
        }
        stop = true;
        vek_thrd_cancel(tid);
        vek_thrd_join(tid);
        ASSERT_FALSE(lost) << l.what << ": a cancel took more than 2 s to arrive (a lost wake-up)";
        EXPECT_EQ(0, errors.load()) << l.what;
        ASSERT_EQ((size_t)kRounds, got.size()) << l.what;
        for (int i = 0; i < kRounds; i++) {
            ASSERT_EQ((char)('A' + i % 26), got[(size_t)i]) << l.what << " byte " << i;
        }
    }
}

#ifdef _WIN32
TEST_F(IoWait, HandlesEndAndOverlappedOperationsOfTheCallerAreCancelled) {
    char b[4];
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, vek_fd_sread(0, b, 1, 0, 0));
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, vek_fd_swrite(1, b, 1, 0, 0));
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, vek_fd_swait(0, VEK_FD_IN, 0, 0));

    // A server waiting for a client, through the caller's own OVERLAPPED.
    std::wstring name = L"\\\\.\\pipe\\vektest-srv-" + std::to_wstring(GetCurrentProcessId());
    HANDLE srv = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                  PIPE_TYPE_BYTE | PIPE_WAIT, 1, 4096, 4096, 0, nullptr);
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(ConnectNamedPipe(srv, &ov));
    EXPECT_EQ((DWORD)ERROR_IO_PENDING, GetLastError());
    vek_u32 n = 7;
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_ovl_swait(srv, &ov, &n, 30, 0));
    EXPECT_EQ(0u, n);
    ResetEvent(ov.hEvent);
    EXPECT_FALSE(ConnectNamedPipe(srv, &ov));
    vek_thrd_cancel(al_thrd_id());
    EXPECT_EQ(VEK_ERR_ABORTED, vek_ovl_swait(srv, &ov, nullptr, -1, 0));
    vek_thrd_abort_clear();
    ResetEvent(ov.hEvent);
    ConnectNamedPipe(srv, &ov);
    HANDLE cli = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(0, vek_ovl_swait(srv, &ov, &n, 5000, 0));  // the client came: done
    CloseHandle(cli);  // the writer left: end of stream
    EXPECT_EQ(VEK_ERR_EOF, vek_hnd_sread(srv, b, sizeof b, 5000, 0));
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, vek_hnd_swrite(srv, "x", 1, 5000, 0));
    CloseHandle(ov.hEvent);
    CloseHandle(srv);
}
#else
TEST_F(IoWait, ReadinessTimeoutsAndEnds) {
    int p[2], q[2];
    ASSERT_EQ(0, pipe(p));
    ASSERT_EQ(0, pipe(q));
    EXPECT_EQ(VEK_FD_OUT, vek_fd_swait(p[1], VEK_FD_OUT | VEK_FD_IN, 0, 0));
    vek_u32 t0 = vek_msec();
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_fd_swait(p[0], VEK_FD_IN, 50, 0));
    EXPECT_GE(vek_msec() - t0, 45u);
    ASSERT_EQ(1, write(q[1], "q", 1));
    VekPollFd fds[3] = {{p[0], VEK_FD_IN, 9}, {q[0], VEK_FD_IN, 9}, {p[1], VEK_FD_OUT, 9}};
    EXPECT_EQ(2, vek_fds_swait(fds, 3, 1000, 0));
    EXPECT_EQ(0, fds[0].revents);
    EXPECT_EQ(VEK_FD_IN, fds[1].revents);
    EXPECT_EQ(VEK_FD_OUT, fds[2].revents);
    // The writer leaves: what it wrote is still read, then the end.
    close(q[1]);
    EXPECT_EQ(VEK_FD_IN | VEK_FD_HUP, vek_fd_swait(q[0], VEK_FD_IN, 1000, 0));
    char b[4];
    EXPECT_EQ(1, vek_fd_sread(q[0], b, sizeof b, 1000, 0));
    EXPECT_EQ(VEK_ERR_EOF, vek_fd_sread(q[0], b, sizeof b, 1000, 0));
    // The reader leaves: a write says so, and the process lives on.
    close(p[0]);
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, vek_fd_swrite(p[1], "x", 1, 1000, 0));
    EXPECT_EQ(EPIPE, errno);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
    close(p[1]);
    close(q[0]);
    EXPECT_EQ(VEK_FD_NVAL, vek_fd_swait(p[1], VEK_FD_IN, 1000, 0));
    EXPECT_EQ(VEK_ERR_IO, vek_fd_sread(p[1], b, sizeof b, 1000, 0));
    EXPECT_EQ(EBADF, errno);

    EXPECT_EQ(VEK_ERR_UNSUPPORTED, vek_hnd_sread(nullptr, b, 1, 0, 0));
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, vek_hnd_swrite(nullptr, b, 1, 0, 0));
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, vek_ovl_swait(nullptr, nullptr, nullptr, 0, 0));
}
#endif
