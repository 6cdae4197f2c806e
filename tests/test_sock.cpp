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
#include "VekTest.h"
#ifdef _WIN32
#include <windows.h>
#include <cstdlib>
#else
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

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

class Sock : public VekTest {
  protected:
    void TearDown() override {
        vek_thrd_abort_clear();
        VekTest::TearDown();
    }
};

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
    EXPECT_EQ(0, ISock_drain(s, 1000));
    EXPECT_EQ(0, ISock_purge(s, VEK_PURGE_IN | VEK_PURGE_OUT));
    EXPECT_EQ(0, ISock_sendBreak(s, 20));
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
