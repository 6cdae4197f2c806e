/*
 * The socket classes on real parts: loopback TCP over IPv4 and IPv6, Unix
 * domain sockets, a pipe handed over as a descriptor, and a
 * pseudo-terminal standing in for a serial port. Each case is a fault a
 * transport user has met: a read that waits for a full buffer, a closed
 * peer or unplugged device reported as a time-out, a partial write whose
 * count is wrong, a wait no cancel reaches, a setting the driver ignored.
 */
#include <algorithm>
#include <atomic>
#include <functional>
#include <cstring>
#include <string>
#include <vector>
#include "OsFault.h"
#ifdef _WIN32
#include <windows.h>
#include <cstdlib>
#else
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <asm/termbits.h>  // struct termios2, for the probe below
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#endif

using vektest::one_of;
using vektest::os_io_sweep;
using vektest::spawn;

namespace {

struct SockPtr {
    ISock* s = nullptr;
    SockPtr() = default;
    explicit SockPtr(ISock* p) : s(p) {}
    SockPtr(const SockPtr&) = delete;
    SockPtr& operator=(const SockPtr&) = delete;
    ~SockPtr() {
        if (s) {
            ISock_release(s);
        }
    }
    ISock* operator->() const { return s; }
    operator ISock*() const { return s; }
};

/* Runs f on a library thread, cancels it after ms and returns f's result
 * and how long the cancel took to end it. */
vek_s32 cancelled_after(vek_u32 ms, std::function<vek_s32()> f, vek_u32* took) {
    std::atomic<vek_s32> res{1};
    std::atomic<vek_u32> end{0};
    vek_u32 tid = spawn([&] {
        res = f();
        end = vek_msec();
        return 0u;
    });
    vek_sleep(ms);
    vek_u32 t0 = vek_msec();
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    *took = end - t0;
    return res;
}

#ifndef _WIN32
/* A private runtime folder for the endpoints of one test. */
struct RuntimeDir {
    std::string dir = vektest::temp_dir("sock_rt");
    const char* had = std::getenv("XDG_RUNTIME_DIR");
    std::string old = had ? had : "";
    RuntimeDir() { setenv("XDG_RUNTIME_DIR", dir.c_str(), 1); }
    ~RuntimeDir() {
        if (had) {
            setenv("XDG_RUNTIME_DIR", old.c_str(), 1);
        } else {
            unsetenv("XDG_RUNTIME_DIR");
        }
        vektest::remove_tree(dir);
    }
};
#endif

/* A connected pair through a listener: {client, server side}. */
void tcp_pair(const char* host, SockPtr* cli, SockPtr* srv) {
    vek_s32 err = 1;
    SockPtr lis(TcpSock_xlisten__(host, 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__));
    ASSERT_TRUE(lis.s) << host << " " << err;
    vek_s32 port = TcpSock_port(lis);
    ASSERT_GT(port, 0);
    cli->s = TcpSock_xconnect__(host, port, VEK_TCP_NUMERIC | VEK_TCP_NODELAY, 5000, &err, __FILE__, __LINE__);
    ASSERT_TRUE(cli->s) << err;
    ASSERT_EQ(0, ISock_accept(lis, &srv->s, 5000));
}

std::string read_n(ISock* s, size_t n) {
    std::string got;
    char b[65536];
    while (got.size() < n) {
        vek_s32 r = ISock_read(s, b, (vek_s32)std::min(sizeof b, n - got.size()), 5000);
        if (r <= 0) {
            ADD_FAILURE() << "read " << r;
            break;
        }
        got.append(b, (size_t)r);
    }
    return got;
}

} // namespace

using Sock = VekTest;

TEST_F(Sock, TcpOverBothFamiliesReadsWhatArrivedAndReportsTheClosedPeer) {
    for (const char* host : {"127.0.0.1", "::1"}) {
        SockPtr cli, srv;
        tcp_pair(host, &cli, &srv);
        if (HasFatalFailure()) {
            return;
        }
        EXPECT_STREQ("TcpSock", ISock_className(cli));
        // A read returns the 3 bytes there without waiting for 100.
        EXPECT_EQ(3, ISock_write(cli, "abc", 3, 1000));
        char b[100];
        vek_u32 t0 = vek_msec();
        EXPECT_EQ(3, ISock_read(srv, b, sizeof b, 5000)) << host;
        EXPECT_LT(vek_msec() - t0, 1000u);
        EXPECT_EQ(VEK_ERR_TIMEOUT, ISock_read(srv, b, sizeof b, 30));
        // Data sent before the close is read first, then the end, which stays.
        EXPECT_EQ(2, ISock_write(srv, "xy", 2, 1000));
        ISock_close(srv);
        EXPECT_EQ(VEK_ERR_NOT_OPEN, ISock_read(srv, b, 1, 0));
        EXPECT_EQ(2, ISock_read(cli, b, sizeof b, 5000));
        EXPECT_EQ(VEK_ERR_PEER_CLOSED, ISock_read(cli, b, sizeof b, 5000)) << host;
        EXPECT_EQ(VEK_ERR_PEER_CLOSED, ISock_write(cli, "z", 1, 1000));
        EXPECT_EQ(VEK_ERR_PEER_CLOSED, ISock_read(cli, b, sizeof b, 5000));
        // Serial operations are not a connection's.
        VekSerCfg cfg;
        EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_getCfg(srv, &cfg));
        EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_getLines(cli));
    }
}

TEST_F(Sock, TcpErrorsNameTheirCause) {
    vek_s32 err = 1;
    SockPtr lis(TcpSock_xlisten__("127.0.0.1", 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__));
    ASSERT_TRUE(lis.s);
    vek_s32 port = TcpSock_port(lis);
    EXPECT_EQ(nullptr, TcpSock_xlisten__("127.0.0.1", port, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_ADDR_IN_USE, err);
    ISock* s;
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_read(lis, &s, 1, 0));
    ISock_release(lis.s);
    lis.s = nullptr;
    EXPECT_EQ(nullptr, TcpSock_xconnect__("127.0.0.1", port, VEK_TCP_NUMERIC, 5000, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_REFUSED, err);
    EXPECT_EQ(nullptr, TcpSock_xconnect__("localhost.invalid", 80, VEK_TCP_NUMERIC, 5000, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_NO_HOST, err);
}

TEST_F(Sock, CancelsEndAcceptReadAndConnect) {
    vek_s32 err;
    SockPtr lis(TcpSock_xlisten__("::1", 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__));
    ASSERT_TRUE(lis.s);
    vek_u32 took;
    EXPECT_EQ(VEK_ERR_ABORTED, cancelled_after(50, [&] {
                  ISock* c;
                  return ISock_accept(lis, &c, 20000);
              }, &took));
    EXPECT_LT(took, 2000u);
    SockPtr cli, srv;
    tcp_pair("127.0.0.1", &cli, &srv);
    EXPECT_EQ(VEK_ERR_ABORTED, cancelled_after(50, [&] {
                  char b[8];
                  return ISock_read(srv, b, sizeof b, 20000);
              }, &took));
    EXPECT_LT(took, 2000u);
#ifndef _WIN32
    // A listener whose queue is full drops the handshake, so the connect
    // stays in progress until the cancel.
    int raw = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    ASSERT_EQ(0, bind(raw, (struct sockaddr*)&a, sizeof a));
    ASSERT_EQ(0, listen(raw, 0));
    getsockname(raw, (struct sockaddr*)&a, &n);
    std::vector<ISock*> fill;
    for (int i = 0; i < 4; i++) {
        ISock* c = TcpSock_xconnect__("127.0.0.1", ntohs(a.sin_port), VEK_TCP_NUMERIC, 300, &err, __FILE__, __LINE__);
        if (!c) {
            EXPECT_EQ(VEK_ERR_TIMEOUT, err);
            break;
        }
        fill.push_back(c);
    }
    EXPECT_EQ(VEK_ERR_ABORTED, cancelled_after(50, [&] {
                  ISock* c = TcpSock_xconnect__("127.0.0.1", ntohs(a.sin_port), VEK_TCP_NUMERIC, 20000, &err,
                                                __FILE__, __LINE__);
                  return c ? (ISock_release(c), 0) : err;
              }, &took));
    EXPECT_LT(took, 2000u);
    for (ISock* c : fill) {
        ISock_release(c);
    }
    close(raw);
#endif
}

TEST_F(Sock, AWriteIntoAFullBufferReportsExactlyWhatWentOut) {
    SockPtr cli, srv;
    tcp_pair("127.0.0.1", &cli, &srv);
    constexpr vek_s32 kBig = 16 << 20;
    std::string data((size_t)kBig, 0);
    for (vek_s32 i = 0; i < kBig; i++) {
        data[(size_t)i] = (char)(i * 13 + i / 509);
    }
    vek_s32 sent = ISock_write(cli, data.data(), kBig, 200);
    ASSERT_GT(sent, 0);
    ASSERT_LT(sent, kBig);
    EXPECT_EQ(data.substr(0, (size_t)sent), read_n(srv, (size_t)sent));
    char b[4];
    EXPECT_EQ(VEK_ERR_TIMEOUT, ISock_read(srv, b, sizeof b, 50));
}

TEST_F(Sock, LocalSocketsCarryBytesAndTellThePeer) {
#ifdef _WIN32
    std::string name = "vektest-" + std::to_string(GetCurrentProcessId());
    const vek_s64 myPid = GetCurrentProcessId(), myUid = -1;
#else
    std::string dir = vektest::temp_dir("sock_loc");
    std::string name = dir + "/s";
    const vek_s64 myPid = getpid(), myUid = getuid();
#endif
    vek_s32 err;
    EXPECT_EQ(nullptr, LocSock_xconnect__(name.c_str(), 1000, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_REFUSED, err);
    {
        SockPtr lis(LocSock_xlisten__(name.c_str(), &err, __FILE__, __LINE__));
        ASSERT_TRUE(lis.s) << err;
        EXPECT_EQ(nullptr, LocSock_xlisten__(name.c_str(), &err, __FILE__, __LINE__));
        EXPECT_EQ(VEK_ERR_ADDR_IN_USE, err);
        // Two clients at once: the listener is ready for the second while
        // the first is served.
        SockPtr cli(LocSock_xconnect__(name.c_str(), 1000, &err, __FILE__, __LINE__));
        ASSERT_TRUE(cli.s) << err;
        SockPtr srv;
        ASSERT_EQ(0, ISock_accept(lis, &srv.s, 5000));
        SockPtr cli2(LocSock_xconnect__(name.c_str(), 1000, &err, __FILE__, __LINE__));
        ASSERT_TRUE(cli2.s) << err;
        SockPtr srv2;
        ASSERT_EQ(0, ISock_accept(lis, &srv2.s, 5000));
        VekSockPeer peer;
        ASSERT_EQ(0, LocSock_peer(srv, &peer));
        EXPECT_EQ(myPid, peer.pid);
        EXPECT_EQ(myUid, peer.uid);
#ifdef _WIN32
        EXPECT_EQ(0, std::strncmp(peer.sid, "S-1-", 4)) << peer.sid;
#endif
        ASSERT_EQ(0, LocSock_peer(cli2, &peer));
        EXPECT_EQ(myPid, peer.pid);
        EXPECT_EQ(VEK_ERR_UNSUPPORTED, LocSock_peer(lis, &peer));
        EXPECT_EQ(5, ISock_write(cli, "hello", 5, 1000));
        EXPECT_EQ(2, ISock_write(srv2, "hi", 2, 1000));
        EXPECT_EQ("hello", read_n(srv, 5));
        EXPECT_EQ("hi", read_n(cli2, 2));
        ISock_release(cli.s);
        cli.s = nullptr;
        char b[4];
        EXPECT_EQ(VEK_ERR_PEER_CLOSED, ISock_read(srv, b, sizeof b, 5000));
    }
#ifndef _WIN32
    // The listener took its file with it: the name is free again.
    EXPECT_NE(0, access(name.c_str(), F_OK));
    vektest::remove_tree(dir);
#endif
}

#ifndef _WIN32

TEST_F(Sock, ADescriptorOfThePipeKindIsASocketToo) {
    int p[2];
    ASSERT_EQ(0, pipe(p));
    SockPtr rd(HndSock_xcreate__(p[0], 1, __FILE__, __LINE__));
    ASSERT_TRUE(rd.s);
    EXPECT_EQ((vek_s64)p[0], ISock_native(rd));
    EXPECT_EQ(3, write(p[1], "abc", 3));
    close(p[1]);
    char b[8];
    EXPECT_EQ(3, ISock_read(rd, b, sizeof b, 1000));
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, ISock_read(rd, b, sizeof b, 1000));
    EXPECT_EQ(nullptr, HndSock_xcreate__(-1, 1, __FILE__, __LINE__));
}

// Every system call of a TCP session failing in turn (listening on one
// family, on both through "::" with IPv4 as the fallback, connecting,
// accepting, a byte each way): a documented code each time, no descriptor
// or port kept (the run after the last failure works), nothing leaked.
TEST_F(Sock, EverySystemCallOfATcpSessionFailingInTurn) {
    vektest::OsIoDisarm disarm;
    for (const char* host : {"127.0.0.1", "::1", ""}) {
        const char* to = *host ? host : "127.0.0.1";
        int runs = os_io_sweep([&](int k) -> vek_s32 {
            vek_s32 err = 0;
            SockPtr lis(TcpSock_xlisten__(host, 0, VEK_TCP_NUMERIC | VEK_TCP_NODELAY, &err, __FILE__, __LINE__));
            if (!lis.s) {
                EXPECT_TRUE(one_of(err, {VEK_ERR_IO, VEK_ERR_ADDR_IN_USE})) << host << k << " " << err;
                return err;
            }
            vek_s32 port = TcpSock_port(lis);
            if (port <= 0) {
                EXPECT_EQ(VEK_ERR_IO, port) << host << k;
                return port;
            }
            SockPtr cli(TcpSock_xconnect__(to, port, VEK_TCP_NUMERIC | VEK_TCP_NODELAY, 5000, &err, __FILE__, __LINE__));
            if (!cli.s) {
                EXPECT_TRUE(one_of(err, {VEK_ERR_IO, VEK_ERR_REFUSED})) << host << k << " " << err;
                return err;
            }
            SockPtr srv;
            vek_s32 r = ISock_accept(lis, &srv.s, 5000);
            if (r < 0) {
                EXPECT_EQ(VEK_ERR_IO, r) << host << k;
                return r;
            }
            r = TcpSock_setNoDelay(srv, 0);
            if (r < 0) {
                EXPECT_EQ(VEK_ERR_IO, r) << host << k;
                return r;
            }
            r = ISock_write(cli, "ping", 4, 5000);
            if (r != 4) {
                EXPECT_EQ(VEK_ERR_PEER_CLOSED, r) << host << k;
                return r;
            }
            return read_n(srv, 4) == "ping" ? 0 : -1;
        });
        EXPECT_GE(runs, 8) << host;
    }
    // Name lookup failing outright is the host not found, never a crash.
    vek_os_fail_at__(VEK_OS_IO, 1);
    vek_os_fail_errno__(ENOMEM);
    vek_s32 err = 0;
    EXPECT_EQ(nullptr, TcpSock_xconnect__("localhost", 1, 0, 1000, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_IO, err);
}

// The same for local sockets, by path and through endpoints by name (the
// private folder, its lock, a stale socket a dead server left behind):
// a failure never removes a live server's socket nor leaves one behind.
TEST_F(Sock, EverySystemCallOfALocalSessionFailingInTurn) {
    vektest::OsIoDisarm disarm;
    RuntimeDir rt;
    const std::string& dir = rt.dir;
    std::string path = dir + "/s";
    std::string stale;
    {
        char addr[512];
        ASSERT_GT(VekPipe_addr("stale", addr, sizeof addr), 0);
        stale = addr;
    }
    for (bool byName : {false, true}) {
        int runs = os_io_sweep([&](int k) -> vek_s32 {
            vek_s32 err = 0;
            if (byName) {
                // A socket file nobody listens on, as a killed server leaves it.
                int fd = socket(AF_UNIX, SOCK_STREAM, 0);
                struct sockaddr_un a = {};
                a.sun_family = AF_UNIX;
                std::snprintf(a.sun_path, sizeof a.sun_path, "%s", stale.c_str());
                unlink(stale.c_str());
                EXPECT_EQ(0, bind(fd, (struct sockaddr*)&a, sizeof a));
                close(fd);
            }
            VekPipe* ep = nullptr;
            SockPtr lis;
            if (byName) {
                ep = VekPipe_xlisten__("stale", 0, &err, __FILE__, __LINE__);
            } else {
                lis.s = LocSock_xlisten__(path.c_str(), &err, __FILE__, __LINE__);
            }
            if (!ep && !lis.s) {
                EXPECT_TRUE(one_of(err, {VEK_ERR_IO, VEK_ERR_ADDR_IN_USE, VEK_ERR_UNSAFE_DIR})) << k << " " << err;
                return err;
            }
            SockPtr cli(byName ? VekPipe_xconnect__("stale", 0, 5000, &err, __FILE__, __LINE__)
                               : LocSock_xconnect__(path.c_str(), 5000, &err, __FILE__, __LINE__));
            SockPtr srv;
            vek_s32 r = cli.s ? 0 : err;
            if (r == 0) {
                VekSockPeer peer;
                r = byName ? VekPipe_accept(ep, &srv.s, &peer, 5000) : ISock_accept(lis, &srv.s, 5000);
                if (r == 0 && !byName) {
                    r = LocSock_peer(srv, &peer);
                }
            }
            if (r == 0) {
                r = ISock_write(srv, "pong", 4, 5000);
                r = r == 4 ? (read_n(cli, 4) == "pong" ? 0 : -1) : r;
            }
            EXPECT_TRUE(one_of(r, {0, VEK_ERR_IO, VEK_ERR_REFUSED, VEK_ERR_UNSAFE_DIR, VEK_ERR_PEER_REFUSED,
                                   VEK_ERR_PEER_CLOSED}))
                << byName << k << " " << r;
            if (ep) {
                VekPipe_delete(ep);
            }
            return r;
        });
        EXPECT_GE(runs, 8) << byName;
        EXPECT_NE(0, access(path.c_str(), F_OK));
    }
}

// What a connect or an accept meets, named so the caller can act on it:
// a time-out, another failure; a client that gave up before it was taken, or a
// local listener's full backlog, is waited past.
TEST_F(Sock, SystemErrorsOfConnectAndAcceptAreNamedOrWaitedPast) {
    vektest::OsIoDisarm disarm;
    vek_s32 err;
    SockPtr lis(TcpSock_xlisten__("127.0.0.1", 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__));
    ASSERT_TRUE(lis.s) << err;
    vek_s32 port = TcpSock_port(lis);
    // A numeric connect: the lookup, the socket, the connect.
    const struct {
        int err;
        vek_s32 code;
    } kConnect[] = {{ETIMEDOUT, VEK_ERR_TIMEOUT}, {ENETUNREACH, VEK_ERR_IO}};
    for (const auto& c : kConnect) {
        vek_os_fail_at__(VEK_OS_IO, 3);
        vek_os_fail_errno__(c.err);
        EXPECT_EQ(nullptr, TcpSock_xconnect__("127.0.0.1", port, VEK_TCP_NUMERIC, 5000, &err, __FILE__, __LINE__));
        EXPECT_EQ(c.code, err) << c.err;
        EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_IO, 0));
    }
    SockPtr cli(TcpSock_xconnect__("127.0.0.1", port, VEK_TCP_NUMERIC, 5000, &err, __FILE__, __LINE__));
    ASSERT_TRUE(cli.s) << err;
    SockPtr srv;
    vek_os_fail_at__(VEK_OS_IO, 1);
    vek_os_fail_errno__(ECONNABORTED);
    EXPECT_EQ(0, ISock_accept(lis, &srv.s, 5000));
    EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_IO, 0));

    RuntimeDir rt;
    std::string path = rt.dir + "/s";
    SockPtr loc(LocSock_xlisten__(path.c_str(), &err, __FILE__, __LINE__));
    ASSERT_TRUE(loc.s) << err;
    // The socket, then the connect the full backlog refuses for now.
    vek_os_fail_at__(VEK_OS_IO, 2);
    vek_os_fail_errno__(EAGAIN);
    SockPtr c1(LocSock_xconnect__(path.c_str(), 5000, &err, __FILE__, __LINE__));
    EXPECT_TRUE(c1.s) << err;
    vek_os_fail_at__(VEK_OS_IO, 2);
    vek_os_fail_errno__(EAGAIN);
    EXPECT_EQ(nullptr, LocSock_xconnect__(path.c_str(), 0, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_TIMEOUT, err);
    std::string tooLong = rt.dir + "/" + std::string(200, 'n');
    EXPECT_EQ(nullptr, LocSock_xconnect__(tooLong.c_str(), 0, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_BAD_ARG, err);
    EXPECT_EQ(nullptr, LocSock_xlisten__(tooLong.c_str(), &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_BAD_ARG, err);
}

// A server starting while another one takes its name waits for the
// folder's lock, and a cancel ends that wait; a folder that cannot be
// locked at all does not keep a server from starting.
TEST_F(Sock, AnEndpointWaitsForTheFoldersLockUntilCancelled) {
    vektest::OsIoDisarm disarm;
    RuntimeDir rt;
    char addr[512];
    ASSERT_GT(VekPipe_addr("locked", addr, sizeof addr), 0);
    int held = open((rt.dir + "/vek").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(0, flock(held, LOCK_EX));
    vek_u32 took;
    vek_s32 r = cancelled_after(50, [&] {
        vek_s32 err = 0;
        VekPipe* ep = VekPipe_xlisten__("locked", 0, &err, __FILE__, __LINE__);
        if (ep) {
            VekPipe_delete(ep);
        }
        return err;
    }, &took);
    EXPECT_EQ(VEK_ERR_ABORTED, r);
    EXPECT_LT(took, 2000u);
    // The folder's checks (made, looked at), its opening, its lock.
    vek_os_fail_at__(VEK_OS_IO, 4);
    vek_os_fail_errno__(ENOLCK);
    vek_s32 err = 0;
    VekPipe* ep = VekPipe_xlisten__("locked", 0, &err, __FILE__, __LINE__);
    EXPECT_TRUE(ep) << err;
    EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_IO, 0));
    VekPipe_delete(ep);
    close(held);
}

/* ---- serial ports over a pseudo-terminal: the master plays the device ---- */

class Serial : public Sock {
  protected:
    void SetUp() override {
        Sock::SetUp();
        master_ = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_GE(master_, 0);
        grantpt(master_);
        unlockpt(master_);
        path_ = ptsname(master_);
        // User-mode emulators (qemu-user) have neither termios2 nor breaks:
        // the port then keeps to standard rates, which the modem tests use.
        int fd = open(path_.c_str(), O_RDWR | O_NOCTTY);
        struct termios2 t2;
        bool emulated = fd >= 0 && ioctl(fd, TCGETS2, &t2) != 0 && errno == ENOSYS;
        if (fd >= 0) {
            close(fd);
        }
        if (emulated) {
            GTEST_SKIP() << "no termios2 on this system (a user-mode emulator)";
        }
    }
    void TearDown() override {
        if (master_ >= 0) {
            close(master_);
        }
        Sock::TearDown();
    }
    void hang_up() {
        close(master_);
        master_ = -1;
    }
    int master_ = -1;
    std::string path_;
};

TEST_F(Serial, SettingsAreReadBackAndABadOneChangesNothing) {
    VekSerCfg cfg = VEK_SER_CFG_INIT;
    cfg.dataBits = 9;
    vek_s32 err;
    EXPECT_EQ(nullptr, SerSock_xopen__(path_.c_str(), &cfg, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_BAD_ARG, err);
    EXPECT_EQ(nullptr, SerSock_xopen__("/dev/no-such-tty", nullptr, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, err);
    SockPtr s(SerSock_xopen__(path_.c_str(), nullptr, &err, __FILE__, __LINE__));
    ASSERT_TRUE(s.s) << err;
    // A rate off the standard list, with hardware flow control.
    cfg = VekSerCfg{250000, 8, VEK_PAR_NONE, 2, VEK_FLOW_RTSCTS};
    ASSERT_EQ(0, ISock_setCfg(s, &cfg));
    VekSerCfg got = {};
    ASSERT_EQ(0, ISock_getCfg(s, &got));
    EXPECT_EQ(0, std::memcmp(&cfg, &got, sizeof cfg));
    // A pseudo-terminal keeps 8 bits without parity whatever it is told:
    // the read-back catches it and the previous settings stay.
    VekSerCfg sevenE1 = {9600, 7, VEK_PAR_EVEN, 1, VEK_FLOW_XONXOFF};
    EXPECT_EQ(VEK_ERR_BAD_SETTING, ISock_setCfg(s, &sevenE1));
    ASSERT_EQ(0, ISock_getCfg(s, &got));
    EXPECT_EQ(0, std::memcmp(&cfg, &got, sizeof cfg));
    sevenE1.stopBits = 3;
    EXPECT_EQ(VEK_ERR_BAD_ARG, ISock_setCfg(s, &sevenE1));
    // Held: a second open is refused as busy (root included).
    EXPECT_EQ(nullptr, SerSock_xopen__(path_.c_str(), nullptr, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_BUSY, err);
    // No modem lines on a pseudo-terminal: those calls say so, the rest work.
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_getLines(s));
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_setLines(s, VEK_LINE_DTR, VEK_LINE_DTR));
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_setLines(s, VEK_LINE_RTS, 0));
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_setLines(s, 0, 0));  // changes nothing, still tells
    EXPECT_EQ(0, ISock_drain(s, 1000));
    EXPECT_EQ(0, ISock_purge(s, VEK_PURGE_IN | VEK_PURGE_OUT));
    EXPECT_EQ(0, ISock_purge(s, VEK_PURGE_OUT));
    EXPECT_EQ(0, ISock_purge(s, 0));
    EXPECT_EQ(0, ISock_sendBreak(s, 20));
    VekSerCfg odd = {9600, 8, VEK_PAR_ODD, 1, VEK_FLOW_NONE};
    EXPECT_EQ(VEK_ERR_BAD_SETTING, ISock_setCfg(s, &odd));
}

TEST_F(Serial, ReadsTakeChunksAsTheyComeAndAHangUpIsFinal) {
    vek_s32 err;
    SockPtr s(SerSock_xopen__(path_.c_str(), nullptr, &err, __FILE__, __LINE__));
    ASSERT_TRUE(s.s) << err;
    EXPECT_EQ(4, ISock_write(s, "AT\r\n", 4, 1000));
    char b[64];
    ASSERT_EQ(4, read(master_, b, sizeof b));
    EXPECT_EQ(0, std::memcmp(b, "AT\r\n", 4));  // raw: no CR/LF translation
    EXPECT_EQ(2, write(master_, "\r\n", 2));
    EXPECT_EQ(2, ISock_read(s, b, sizeof b, 1000));
    vek_u32 took;
    EXPECT_EQ(VEK_ERR_ABORTED, cancelled_after(50, [&] { return ISock_read(s, b, sizeof b, 20000); }, &took));
    EXPECT_LT(took, 2000u);
    // A long break ends at a cancel, and the port goes on working.
    EXPECT_EQ(VEK_ERR_ABORTED, cancelled_after(50, [&] { return ISock_sendBreak(s, 20000); }, &took));
    EXPECT_LT(took, 2000u);
    EXPECT_EQ(4, write(master_, "OK\r\n", 4));
    EXPECT_EQ(4, ISock_read(s, b, sizeof b, 1000));
    // The hang-up is final: no call mistakes it for a time-out again.
    hang_up();
    EXPECT_EQ(VEK_ERR_DEV_GONE, ISock_read(s, b, sizeof b, 1000));
    EXPECT_EQ(VEK_ERR_DEV_GONE, ISock_write(s, "AT", 2, 1000));
    EXPECT_EQ(VEK_ERR_DEV_GONE, ISock_drain(s, 1000));
    EXPECT_EQ(0, ISock_close(s));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, ISock_read(s, b, sizeof b, 0));
    EXPECT_EQ(-1, ISock_native(s));
}

// What the system says when a port cannot be had is what the caller can
// act on: not there, held by someone else, not a terminal, a setting the
// driver refused, gone. The open makes its calls in this order: open, the
// terminal check, the lock, then the settings (read, write, read back).
TEST_F(Serial, EachRefusalOfThePortGivesItsOwnCode) {
    vektest::OsIoDisarm disarm;
    const struct {
        int call, err;
        vek_s32 code;
    } kCases[] = {
        {1, ENXIO, VEK_ERR_NOT_FOUND},     {1, EBUSY, VEK_ERR_BUSY},       {1, EACCES, VEK_ERR_IO},
        {2, ENOTTY, VEK_ERR_UNSUPPORTED},  {3, EWOULDBLOCK, VEK_ERR_BUSY}, {3, ENOLCK, VEK_ERR_IO},
        {4, EIO, VEK_ERR_DEV_GONE},        {5, EINVAL, VEK_ERR_BAD_SETTING}, {5, ENOTTY, VEK_ERR_UNSUPPORTED},
        {5, EPERM, VEK_ERR_IO},            {6, ENODEV, VEK_ERR_DEV_GONE},
    };
    vek_s32 err;
    for (const auto& c : kCases) {
        vek_os_fail_at__(VEK_OS_IO, c.call);
        vek_os_fail_errno__(c.err);
        EXPECT_EQ(nullptr, SerSock_xopen__(path_.c_str(), nullptr, &err, __FILE__, __LINE__)) << c.call;
        EXPECT_EQ(c.code, err) << "call " << c.call << " errno " << c.err;
        EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_IO, 0)) << c.call;
    }
    // None of them kept the port: it opens, and a failing line or queue
    // call on it is "not supported" or "gone" as the errno says.
    SockPtr s(SerSock_xopen__(path_.c_str(), nullptr, &err, __FILE__, __LINE__));
    ASSERT_TRUE(s.s) << err;
    vek_os_fail_at__(VEK_OS_IO, 1);
    vek_os_fail_errno__(EINVAL);
    EXPECT_EQ(VEK_ERR_UNSUPPORTED, ISock_purge(s, VEK_PURGE_IN));
    VekSerCfg got;
    vek_os_fail_at__(VEK_OS_IO, 1);
    EXPECT_EQ(VEK_ERR_DEV_GONE, ISock_getCfg(s, &got));
    EXPECT_EQ(VEK_ERR_DEV_GONE, ISock_drain(s, 0));  // final: no system call decides it again
}

// Every system call of a serial session failing in turn: each failure is
// a code its call documents, a removal stays final until the close,
// nothing leaks, and the port is free for the next open.
TEST_F(Serial, EverySystemCallFailingInTurnLeavesThePortUsable) {
    vektest::OsIoDisarm disarm;
    const VekSerCfg cfg = {57600, 8, VEK_PAR_NONE, 1, VEK_FLOW_NONE};
    int runs = os_io_sweep([&](int k) -> vek_s32 {
        vek_s32 err = 0;
        SockPtr s(SerSock_xopen__(path_.c_str(), &cfg, &err, __FILE__, __LINE__));
        if (!s.s) {
            EXPECT_TRUE(one_of(err, {VEK_ERR_BUSY, VEK_ERR_IO, VEK_ERR_UNSUPPORTED, VEK_ERR_DEV_GONE})) << k << " " << err;
            return err;
        }
        vek_s32 bad = 0;
        auto check = [&](vek_s32 r, std::initializer_list<vek_s32> ok) {
            if (bad == VEK_ERR_DEV_GONE) {
                EXPECT_EQ(VEK_ERR_DEV_GONE, r) << k;  // final until the close
            } else if (r < 0 && !one_of(r, ok)) {
                bad = r;
                EXPECT_TRUE(one_of(r, {VEK_ERR_DEV_GONE, VEK_ERR_IO})) << k << " " << r;
            }
        };
        VekSerCfg got;
        char b[8];
        check(ISock_setCfg(s, &cfg), {VEK_ERR_UNSUPPORTED});
        check(ISock_getCfg(s, &got), {VEK_ERR_UNSUPPORTED});
        check(ISock_setLines(s, VEK_LINE_DTR | VEK_LINE_RTS, VEK_LINE_DTR), {VEK_ERR_UNSUPPORTED});
        check(ISock_getLines(s), {VEK_ERR_UNSUPPORTED});
        check(ISock_write(s, "AT\r", 3, 1000), {});
        check(ISock_drain(s, 1000), {VEK_ERR_UNSUPPORTED});
        check(ISock_purge(s, VEK_PURGE_IN | VEK_PURGE_OUT), {VEK_ERR_UNSUPPORTED});
        check(ISock_sendBreak(s, 1), {VEK_ERR_UNSUPPORTED});
        EXPECT_EQ(2, write(master_, "OK", 2));
        vek_s32 r = ISock_read(s, b, sizeof b, 1000);
        check(r, {});
        EXPECT_EQ(0, ISock_close(s));
        char drop[64];
        while (vek_fd_swait(master_, VEK_FD_IN, 0, 0) > 0 && read(master_, drop, sizeof drop) > 0) {
        }
        return bad ? bad : r == 2 ? 0 : -1;
    });
    EXPECT_GE(runs, 10);
}

#else

// A COM port that tests/wine_pty.py maps to a pseudo-terminal and whose
// device side it plays ("AT" -> "OK" in two pieces, "HUP" hangs up).
TEST_F(Sock, WineComPortOverAPseudoTerminal) {
    const char* com = std::getenv("VEK_TEST_COM");
    if (!com) {
        GTEST_SKIP() << "no COM port mapped (run through tests/wine_pty.py)";
    }
    vek_s32 err;
    SockPtr s(SerSock_xopen__(com, nullptr, &err, __FILE__, __LINE__));
    ASSERT_TRUE(s.s) << err;
    VekSerCfg cfg = {9600, 8, VEK_PAR_NONE, 1, VEK_FLOW_NONE}, got = {};
    EXPECT_EQ(0, ISock_setCfg(s, &cfg));
    EXPECT_EQ(0, ISock_getCfg(s, &got));
    EXPECT_EQ(9600, got.baud);
    EXPECT_EQ(4, ISock_write(s, "AT\r\n", 4, 1000));
    std::string reply;
    char b[64];
    while (reply.find("OK\r\n") == std::string::npos) {
        vek_s32 r = ISock_read(s, b, sizeof b, 3000);
        ASSERT_GT(r, 0);
        reply.append(b, (size_t)r);
    }
    EXPECT_EQ("\r\nOK\r\n", reply);
    vek_u32 took;
    EXPECT_EQ(VEK_ERR_ABORTED, cancelled_after(50, [&] { return ISock_read(s, b, sizeof b, 20000); }, &took));
    EXPECT_LT(took, 2000u);
    EXPECT_EQ(5, ISock_write(s, "HUP\r\n", 5, 1000));
    vek_u32 t0 = vek_msec();
    vek_s32 r = ISock_read(s, b, sizeof b, 10000);
    EXPECT_EQ(VEK_ERR_DEV_GONE, r);
    EXPECT_LT(vek_msec() - t0, 5000u) << "the hang-up was seen only at the time-out";
    EXPECT_EQ(VEK_ERR_DEV_GONE, ISock_write(s, "AT", 2, 1000));
}
#endif
