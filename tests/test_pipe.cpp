/*
 * Endpoints by logical name with real processes: a server or a client in a
 * child, a server killed so its socket file stays behind, a live server
 * another one must not take over, many clients at once, a client of
 * another user, a cancelled accept.
 */
#include <atomic>
#include <memory>
#include <string>
#include <vector>
#include "ChildProc.h"
#include "VekTest.h"
#ifndef _WIN32
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

struct SockRelease {
    void operator()(ISock* s) const { ISock_release(s); }
};
using SockRef = std::unique_ptr<ISock, SockRelease>;
struct PipeDelete {
    void operator()(VekPipe* p) const { VekPipe_delete(p); }
};
using PipeRef = std::unique_ptr<VekPipe, PipeDelete>;

long own_pid() {
#ifdef _WIN32
    return (long)GetCurrentProcessId();
#else
    return (long)getpid();
#endif
}

/* A name of this test run's own, so that runs side by side (and the
 * system-wide pipe names of Windows) never meet. */
std::string uniq(const std::string& base) {
    static std::atomic<int> n{0};
    return base + "-" + std::to_string(own_pid()) + "-" + std::to_string(n++);
}

std::string read_all(ISock* s) {
    std::string got;
    char b[256];
    vek_s32 n;
    while ((n = ISock_read(s, b, sizeof b, 5000)) > 0) {
        got.append(b, (size_t)n);
    }
    return got;
}

} // namespace

class Pipe : public VekTest {
  protected:
    static void SetUpTestSuite() {
#ifndef _WIN32
        // Every endpoint of the run lives in a runtime folder of its own,
        // which the children inherit.
        runtime_ = vektest::temp_dir("pipe_rt");
        setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);
#endif
    }
    static void TearDownTestSuite() {
#ifndef _WIN32
        vektest::remove_tree(runtime_);
#endif
    }
    void TearDown() override {
        vek_thrd_abort_clear();
        VekTest::TearDown();
    }
    std::string outFile(const std::string& tag) { return vektest::temp_dir("pipe_out") + "/" + tag; }
    static std::string runtime_;
};
std::string Pipe::runtime_;

TEST_F(Pipe, LogicalNamesLiveInAPrivateFolderAndOthersAreRefused) {
    char addr[512];
    for (const char* bad : {"", ".hidden", "a b", "semi;colon",
                            "0123456789012345678901234567890123456789012345678901234567890123x"}) {
        EXPECT_EQ(VEK_ERR_BAD_ARG, VekPipe_addr(bad, addr, sizeof addr)) << bad;
    }
    EXPECT_EQ(VEK_ERR_BAD_ARG, VekPipe_addr("ok", addr, 4));
#ifdef _WIN32
    EXPECT_EQ(7, VekPipe_addr("abc", addr, sizeof addr));
    EXPECT_STREQ("vek-abc", addr);
    EXPECT_EQ(3, VekPipe_addr("\\\\.\\pipe\\xyz", addr, sizeof addr));
#else
    std::string dir = runtime_ + "/vek";
    ASSERT_GT(VekPipe_addr("abc", addr, sizeof addr), 0);
    EXPECT_EQ(dir + "/abc.sock", addr);
    struct stat st;
    ASSERT_EQ(0, lstat(dir.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
    // A folder others may enter, or a link to a folder, is refused and
    // left as it is.
    std::string alt = vektest::temp_dir("pipe_alt");
    setenv("XDG_RUNTIME_DIR", alt.c_str(), 1);
    ASSERT_EQ(0, mkdir((alt + "/vek").c_str(), 0755));
    chmod((alt + "/vek").c_str(), 0755);
    vek_s32 err = 0;
    EXPECT_EQ(nullptr, VekPipe_xlisten__("abc", 0, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_UNSAFE_DIR, err);
    ASSERT_EQ(0, lstat((alt + "/vek").c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 0777);
    rmdir((alt + "/vek").c_str());
    ASSERT_EQ(0, mkdir((alt + "/real").c_str(), 0700));
    ASSERT_EQ(0, symlink((alt + "/real").c_str(), (alt + "/vek").c_str()));
    EXPECT_EQ(VEK_ERR_UNSAFE_DIR, VekPipe_addr("abc", addr, sizeof addr));
    // Without the variable the folder is made under TMPDIR.
    unsetenv("XDG_RUNTIME_DIR");
    setenv("TMPDIR", alt.c_str(), 1);
    ASSERT_GT(VekPipe_addr("abc", addr, sizeof addr), 0);
    EXPECT_EQ(alt + "/vek-" + std::to_string(geteuid()) + "/abc.sock", addr);
    unsetenv("TMPDIR");
    setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);
    vektest::remove_tree(alt);
#endif
}

TEST_F(Pipe, ServesItsOwnUserAndTellsWhoConnected) {
    std::string name = uniq("own");
    vek_s32 err = 1;
    EXPECT_EQ(nullptr, VekPipe_xconnect__(name.c_str(), 0, 1000, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_REFUSED, err);
    PipeRef srv(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv) << err;
#ifndef _WIN32
    char addr[512];
    VekPipe_addr(name.c_str(), addr, sizeof addr);
    struct stat st;
    ASSERT_EQ(0, lstat(addr, &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
#endif
    SockRef cli(VekPipe_xconnect__(name.c_str(), 0, 5000, &err, __FILE__, __LINE__));
    ASSERT_TRUE(cli) << err;
    ISock* raw = nullptr;
    VekSockPeer peer;
    ASSERT_EQ(0, VekPipe_accept(srv.get(), &raw, &peer, 5000));
    SockRef conn(raw);
    EXPECT_EQ(own_pid(), peer.pid);
    EXPECT_EQ(5, ISock_write(cli.get(), "hello", 5, 1000));
    cli.reset();
    EXPECT_EQ("hello", read_all(conn.get()));
    EXPECT_EQ(VEK_ERR_TIMEOUT, VekPipe_accept(srv.get(), &raw, nullptr, 20));
    EXPECT_EQ(nullptr, raw);
}

TEST_F(Pipe, ALiveServerIsNeverTakenOverAndADeadOnesNameIs) {
    std::string name = uniq("live");
    ChildProc child("pipe_child", {"hold", name}, outFile("hold"));
    ASSERT_TRUE(child.printed("ready")) << child.out();
    // The child serves: its answer comes back, and it is the peer.
    vek_s32 err = 1;
    {
        SockRef cli(VekPipe_xconnect__(name.c_str(), 0, 5000, &err, __FILE__, __LINE__));
        ASSERT_TRUE(cli) << err;
        VekSockPeer peer;
        ASSERT_EQ(0, LocSock_peer(cli.get(), &peer));
        EXPECT_EQ(child.pid(), peer.pid);
        EXPECT_EQ(2, ISock_write(cli.get(), "hi", 2, 1000));
        EXPECT_EQ("got:hi", read_all(cli.get()));
    }
    // A second server (here a squatter of the name for Windows' sake) is
    // refused, and the first one goes on serving.
    EXPECT_EQ(nullptr, VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_ADDR_IN_USE, err);
    {
        SockRef cli(VekPipe_xconnect__(name.c_str(), 0, 5000, &err, __FILE__, __LINE__));
        ASSERT_TRUE(cli) << err;
        EXPECT_EQ(1, ISock_write(cli.get(), "x", 1, 1000));
        EXPECT_EQ("got:x", read_all(cli.get()));
    }
    // Killed, the child leaves its socket file behind; the next server
    // finds it dead and takes the name.
    child.kill();
#ifndef _WIN32
    char addr[512];
    VekPipe_addr(name.c_str(), addr, sizeof addr);
    EXPECT_EQ(0, access(addr, F_OK));
#endif
    PipeRef srv(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv) << err;
    ChildProc cli("pipe_child", {"send", name, "ping"}, outFile("send"));
    ISock* raw = nullptr;
    VekSockPeer peer;
    ASSERT_EQ(0, VekPipe_accept(srv.get(), &raw, &peer, 10000));
    SockRef conn(raw);
    EXPECT_EQ(cli.pid(), peer.pid);
    char b[16];
    EXPECT_EQ(4, ISock_read(conn.get(), b, sizeof b, 5000));
    EXPECT_EQ(6, ISock_write(conn.get(), "pong!!", 6, 1000));
    EXPECT_EQ(0, cli.wait());
    EXPECT_EQ(0u, cli.out().find("pong!!"));
}

TEST_F(Pipe, SixtyFourClientsConnectAtOnce) {
    std::string name = uniq("many");
    vek_s32 err = 1;
    PipeRef srv(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv) << err;
    constexpr int kClients = 64;
    std::atomic<int> failed{0};
    std::vector<vek_u32> clients;
    for (int i = 0; i < kClients; i++) {
        clients.push_back(vektest::spawn([&, i] {
            vek_s32 e = 0;
            ISock* s = VekPipe_xconnect__(name.c_str(), 0, 20000, &e, __FILE__, __LINE__);
            if (!s) {
                failed++;
                return 0u;
            }
            char c = (char)i;
            if (ISock_write(s, &c, 1, 5000) != 1 || ISock_read(s, &c, 1, 20000) != 1) {
                failed++;
            }
            ISock_release(s);
            return 0u;
        }));
    }
    std::vector<int> seen(kClients, 0);
    for (int i = 0; i < kClients; i++) {
        ISock* raw = nullptr;
        ASSERT_EQ(0, VekPipe_accept(srv.get(), &raw, nullptr, 20000)) << i;
        SockRef conn(raw);
        char c = 0;
        ASSERT_EQ(1, ISock_read(conn.get(), &c, 1, 20000));
        seen[(unsigned char)c]++;
        EXPECT_EQ(1, ISock_write(conn.get(), &c, 1, 5000));
    }
    for (vek_u32 t : clients) {
        vek_thrd_join(t);
    }
    EXPECT_EQ(0, failed.load());
    EXPECT_EQ(std::vector<int>(kClients, 1), seen);
}

TEST_F(Pipe, CancelEndsABlockedAccept) {
    std::string name = uniq("cancel");
    vek_s32 err = 1;
    PipeRef srv(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv) << err;
    std::atomic<vek_s32> res{1};
    vek_u32 tid = vektest::spawn([&] {
        ISock* raw = nullptr;
        res = VekPipe_accept(srv.get(), &raw, nullptr, 30000);
        return 0u;
    });
    vek_sleep(50);
    vek_u32 t0 = vek_msec();
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, res.load());
    EXPECT_LT(vek_msec() - t0, 5000u);
}

#ifndef _WIN32
TEST_F(Pipe, AClientOfAnotherUserIsRefusedUnlessAllowed) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a child as user 65534";
    }
    // A folder user 65534 can enter, with sockets it can open: only the
    // user check stands between it and the server.
    std::string dir = vektest::temp_dir("pipe_other");
    chmod(dir.c_str(), 0755);
    for (vek_s32 flags : {0, VEK_PIPE_ANY_USER}) {
        std::string path = dir + "/s" + std::to_string(flags);
        vek_s32 err = 1;
        PipeRef srv(VekPipe_xlisten__(path.c_str(), flags, &err, __FILE__, __LINE__));
        ASSERT_TRUE(srv) << err;
        chmod(path.c_str(), 0666);
        ChildProc cli("pipe_child", {"send-any", path, "hey"}, dir + "/out" + std::to_string(flags), 65534);
        ISock* raw = nullptr;
        VekSockPeer peer;
        vek_s32 r = VekPipe_accept(srv.get(), &raw, &peer, 10000);
        EXPECT_EQ(65534, peer.uid);
        EXPECT_EQ(cli.pid(), peer.pid);
        if (flags == 0) {
            EXPECT_EQ(VEK_ERR_PEER_REFUSED, r);
            EXPECT_EQ(nullptr, raw);
            EXPECT_EQ(1, cli.wait());
        } else {
            ASSERT_EQ(0, r);
            SockRef conn(raw);
            char b[8];
            EXPECT_EQ(3, ISock_read(conn.get(), b, sizeof b, 5000));
            EXPECT_EQ(2, ISock_write(conn.get(), "ok", 2, 1000));
            EXPECT_EQ(0, cli.wait());
        }
    }
    // Without the flag the child, too, refuses a server of another user.
    std::string path = dir + "/s2";
    vek_s32 err = 1;
    PipeRef srv(VekPipe_xlisten__(path.c_str(), VEK_PIPE_ANY_USER, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv);
    ChildProc cli("pipe_child", {"send", path, "hey"}, dir + "/out2", 65534);
    ISock* raw = nullptr;
    EXPECT_EQ(0, VekPipe_accept(srv.get(), &raw, nullptr, 10000));
    SockRef conn(raw);
    EXPECT_EQ(1, cli.wait());
    EXPECT_NE(std::string::npos, cli.out().find("err -760")) << cli.out();
    vektest::remove_tree(dir);
}
#endif

/* ---- messages ---- */

namespace {

struct ConnClose {
    void operator()(PmConn* c) const { pm_close(c); }
};
using ConnRef = std::unique_ptr<PmConn, ConnClose>;

/* A connected pair of sockets in this process: {client, server side}. */
void sock_pair(SockRef* cli, SockRef* srv) {
    std::string name = uniq("pair");
    vek_s32 err = 1;
    PipeRef lis(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(lis) << err;
    cli->reset(VekPipe_xconnect__(name.c_str(), 0, 5000, &err, __FILE__, __LINE__));
    ASSERT_TRUE(*cli) << err;
    ISock* raw = nullptr;
    ASSERT_EQ(0, VekPipe_accept(lis.get(), &raw, nullptr, 5000));
    srv->reset(raw);
}

std::string head(vek_u32 len, vek_u8 kind, vek_u8 flags, vek_u16 type, vek_u32 id) {
    const vek_u8 h[12] = {(vek_u8)len, (vek_u8)(len >> 8), (vek_u8)(len >> 16), (vek_u8)(len >> 24),
                          kind, flags, (vek_u8)type, (vek_u8)(type >> 8),
                          (vek_u8)id, (vek_u8)(id >> 8), (vek_u8)(id >> 16), (vek_u8)(id >> 24)};
    return std::string((const char*)h, sizeof h);
}

std::string bytes_of(const PmMsg& m) {
    return m.data ? std::string((const char*)m.data, (size_t)m.len) : std::string();
}

} // namespace

TEST_F(Pipe, FramesArriveWholeHoweverTheStreamIsCut) {
    SockRef cli, srv;
    sock_pair(&cli, &srv);
    ASSERT_FALSE(HasFatalFailure());
    ConnRef rx(pm_open(srv.get(), 0, nullptr));
    // Two frames in one write, then one a byte at a time, then an empty one.
    std::string two = head(3, PM_KIND_MSG, 0, 7, 0) + "abc" + head(2, PM_KIND_MSG, 0, 8, 0) + "de";
    ASSERT_EQ((vek_s32)two.size(), ISock_write(cli.get(), two.data(), (vek_s32)two.size(), 1000));
    std::string slow = head(4, PM_KIND_MSG, 0, 9, 0) + "wxyz" + head(0, PM_KIND_MSG, 0, 10, 0);
    vek_u32 tid = vektest::spawn([&] {
        for (char ch : slow) {
            ISock_write(cli.get(), &ch, 1, 1000);
            vek_sleep(1);
        }
        return 0u;
    });
    PmMsg m;
    std::vector<std::string> got;
    for (int i = 0; i < 4; i++) {
        ASSERT_EQ(0, pm_recv(rx.get(), &m, 5000)) << i;
        EXPECT_EQ(PM_KIND_MSG, m.kind);
        got.push_back(std::to_string(m.type) + ":" + bytes_of(m));
        pm_msg_clean(&m);
    }
    vek_thrd_join(tid);
    EXPECT_EQ((std::vector<std::string>{"7:abc", "8:de", "9:wxyz", "10:"}), got);
    // A receive that times out in mid-frame keeps what arrived.
    std::string part = head(2, PM_KIND_MSG, 0, 1, 0) + "q";
    ISock_write(cli.get(), part.data(), (vek_s32)part.size(), 1000);
    EXPECT_EQ(VEK_ERR_TIMEOUT, pm_recv(rx.get(), &m, 30));
    ISock_write(cli.get(), "r", 1, 1000);
    ASSERT_EQ(0, pm_recv(rx.get(), &m, 5000));
    EXPECT_EQ("qr", bytes_of(m));
    pm_msg_clean(&m);
}

TEST_F(Pipe, ABadOrOverLongFrameEndsItsConnectionOnly) {
    struct Case {
        std::string bytes;
        vek_s32 code;
    };
    GenEvt* e = GenEvt_newns(5, 0, 1, 2, "s", "t");
    vek_u32 plen = 0;
    vek_u8* pkt = (vek_u8*)GenEvt_enc(e, &plen);
    std::string broken((const char*)pkt, plen);
    broken[16 + 28 + 8 + 3] = 0x40;  // the first string's length now runs past the packet
    MIDL_user_free(pkt);
    Evt_delete(e);
    const Case cases[] = {
        {head(64 * 1024 + 1, PM_KIND_MSG, 0, 1, 0), VEK_ERR_FRAME_TOO_BIG},
        {head(0xFFFFFFFFu, PM_KIND_MSG, 0, 1, 0), VEK_ERR_FRAME_TOO_BIG},
        {head(1, 9, 0, 1, 0) + "x", VEK_ERR_BAD_FRAME},
        {head(1, PM_KIND_MSG, 0x80, 1, 0) + "x", VEK_ERR_BAD_FRAME},
        {head(1, PM_KIND_REQ, 0, 1, 0) + "x", VEK_ERR_BAD_FRAME},  // a request without an id
        {head(12, PM_KIND_MSG, 1, 1, 0) + std::string(12, 'e'), VEK_ERR_BAD_FRAME},
        {head(plen, PM_KIND_MSG, 1, 1, 0) + broken, VEK_ERR_BAD_FRAME},
    };
    for (const Case& c : cases) {
        SockRef cli, srv;
        sock_pair(&cli, &srv);
        ASSERT_FALSE(HasFatalFailure());
        ConnRef rx(pm_open(srv.get(), 64 * 1024, nullptr));
        ISock_write(cli.get(), c.bytes.data(), (vek_s32)c.bytes.size(), 1000);
        PmMsg m;
        EXPECT_EQ(c.code, pm_recv(rx.get(), &m, 5000));
        EXPECT_EQ(c.code, pm_recv(rx.get(), &m, 0));
        EXPECT_EQ(c.code, pm_send(rx.get(), 1, "x", 1, 0));
        // The sender finds the connection closed instead of waiting on it.
        char b[4];
        EXPECT_EQ(VEK_ERR_PEER_CLOSED, ISock_read(cli.get(), b, sizeof b, 5000));
    }
}

TEST_F(Pipe, RequestsMatchTheirOwnResponseAndKeepWhatElseArrives) {
    SockRef cli, srv;
    sock_pair(&cli, &srv);
    ASSERT_FALSE(HasFatalFailure());
    ConnRef a(pm_open(cli.get(), 0, nullptr)), b(pm_open(srv.get(), 0, nullptr));
    std::atomic<int> step{0};
    vek_u32 tid = vektest::spawn([&] {
        PmMsg req;
        for (int i = 0; i < 2; i++) {
            if (pm_recv(b.get(), &req, 5000) != 0) {
                return 1u;
            }
            if (i == 0) {
                // Too late: the caller has given up on this one.
                while (step.load() == 0) {
                    vek_sleep(1);
                }
            } else {
                pm_send(b.get(), 3, "aside", 5, 1000);
                PmMsg other = req;
                other.id += 1000;
                pm_reply(b.get(), &other, 2, "wrong", 5, nullptr, 1000);
            }
            std::string echo = "re:" + bytes_of(req);
            pm_reply(b.get(), &req, 2, echo.data(), (vek_s32)echo.size(), nullptr, 1000);
            pm_msg_clean(&req);
        }
        return 0u;
    });
    PmMsg rsp;
    EXPECT_EQ(VEK_ERR_TIMEOUT, pm_request(a.get(), 1, "one", 3, nullptr, &rsp, 50));
    step = 1;
    ASSERT_EQ(0, pm_request(a.get(), 1, "two", 3, nullptr, &rsp, 5000));
    EXPECT_EQ(PM_KIND_RSP, rsp.kind);
    EXPECT_EQ("re:two", bytes_of(rsp));
    pm_msg_clean(&rsp);
    ASSERT_EQ(0, pm_recv(a.get(), &rsp, 5000));
    EXPECT_EQ(3u, rsp.type);
    EXPECT_EQ("aside", bytes_of(rsp));
    pm_msg_clean(&rsp);
    vek_thrd_join(tid);
}

TEST_F(Pipe, AnEventIsDecodedInTheOtherProcessAndComesBack) {
    std::string name = uniq("evt");
    ChildProc child("pipe_child", {"pm-echo", name}, outFile("echo"));
    ASSERT_TRUE(child.printed("ready")) << child.out();
    vek_s32 err = 1;
    ConnRef c(pm_connect(name.c_str(), 0, 5000, &err));
    ASSERT_TRUE(c) << err;
    IStrm* data = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    IStrm_write(data, "\x01\x02\x03", 3);
    GenEvt* e = GenEvt_newnsd(0x1234, 9, -1, 42, "first", "zweite", data, 0);
    PmMsg rsp;
    ASSERT_EQ(0, pm_request(c.get(), 17, nullptr, 0, e, &rsp, 10000));
    Evt_delete(e);
    ASSERT_TRUE(rsp.evt);
    EXPECT_EQ(17u, rsp.type);
    EXPECT_EQ(0x1234u, Evt_eid(rsp.evt));
    EXPECT_EQ(42, rsp.evt->num2);
    EXPECT_STREQ("zweite", VekStr_buf(&rsp.evt->str2));
    ASSERT_TRUE(rsp.evt->strm);
    char b[8];
    IStrm_seek(rsp.evt->strm, 0, 0);
    EXPECT_EQ(3, IStrm_read(rsp.evt->strm, b, sizeof b));
    pm_msg_clean(&rsp);
    // Large and empty payloads go through the same way.
    std::string big(300 * 1024, 'b');
    for (const std::string& p : {big, std::string()}) {
        ASSERT_EQ(0, pm_request(c.get(), 2, p.data(), (vek_s32)p.size(), nullptr, &rsp, 10000));
        EXPECT_TRUE(bytes_of(rsp) == p);
        pm_msg_clean(&rsp);
    }
    EXPECT_EQ(0, pm_send(c.get(), 0xFFFF, nullptr, 0, 1000));
    EXPECT_EQ(0, child.wait()) << child.out();
}

TEST_F(Pipe, APeerKilledInMidFrameIsAClosedPeer) {
    std::string name = uniq("half");
    vek_s32 err = 1;
    PipeRef srv(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv) << err;
    ChildProc child("pipe_child", {"pm-half", name}, outFile("half"));
    ISock* raw = nullptr;
    ASSERT_EQ(0, VekPipe_accept(srv.get(), &raw, nullptr, 10000));
    SockRef s(raw);
    ConnRef c(pm_open(s.get(), 0, nullptr));
    ASSERT_TRUE(child.printed("sent"));
    PmMsg m;
    EXPECT_EQ(VEK_ERR_TIMEOUT, pm_recv(c.get(), &m, 50));
    child.kill();
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, pm_recv(c.get(), &m, 5000));
}

TEST_F(Pipe, AFullSocketTimesOutTheSenderWithoutLosingWholeFrames) {
    SockRef cli, srv;
    sock_pair(&cli, &srv);
    ASSERT_FALSE(HasFatalFailure());
    ConnRef tx(pm_open(cli.get(), 0, nullptr)), rx(pm_open(srv.get(), 0, nullptr));
    std::string chunk(16 * 1024, 'c');
    int sent = 0;
    chunk[0] = 0;
    vek_s32 r;
    while ((r = pm_send(tx.get(), 1, chunk.data(), (vek_s32)chunk.size(), 100)) == 0) {
        chunk[0] = (char)++sent;
        ASSERT_LT(sent, 10000) << "the socket never filled";
    }
    EXPECT_EQ(VEK_ERR_TIMEOUT, r);
    // A send cut in mid-frame has broken the stream for good; one that
    // sent nothing has not, and the reader drains the whole frames either way.
    vek_s32 after = pm_send(tx.get(), 1, "x", 1, 0);
    EXPECT_TRUE(after == VEK_ERR_NOT_OPEN || after == VEK_ERR_TIMEOUT) << after;
    tx.reset();
    PmMsg m;
    for (int i = 0; i < sent; i++) {
        ASSERT_EQ(0, pm_recv(rx.get(), &m, 5000)) << i;
        EXPECT_EQ(chunk.size(), (size_t)m.len);
        EXPECT_EQ((char)i, (char)m.data[0]);
        pm_msg_clean(&m);
    }
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, pm_recv(rx.get(), &m, 5000));
}

TEST_F(Pipe, ACancelledReceiveLeavesTheConnectionUsable) {
    SockRef cli, srv;
    sock_pair(&cli, &srv);
    ASSERT_FALSE(HasFatalFailure());
    ConnRef a(pm_open(cli.get(), 0, nullptr)), b(pm_open(srv.get(), 0, nullptr));
    std::atomic<vek_s32> res{1};
    vek_u32 tid = vektest::spawn([&] {
        PmMsg m;
        res = pm_recv(b.get(), &m, 30000);
        return 0u;
    });
    vek_sleep(50);
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, res.load());
    EXPECT_EQ(0, pm_send(a.get(), 4, "ok", 2, 1000));
    PmMsg m;
    ASSERT_EQ(0, pm_recv(b.get(), &m, 5000));
    EXPECT_EQ("ok", bytes_of(m));
    pm_msg_clean(&m);
}
