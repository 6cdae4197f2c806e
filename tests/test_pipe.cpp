/*
 * Endpoints and messages with real processes (vektool as the other
 * process): a live server that must not be taken over, a killed one whose
 * name must be, a client of another user, many clients at once; frames
 * cut anywhere, malformed or too long, requests whose answers cross.
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
#endif

namespace {

struct Rel {
    void operator()(ISock* s) const { ISock_release(s); }
    void operator()(VekPipe* p) const { VekPipe_delete(p); }
    void operator()(PmConn* c) const { pm_close(c); }
};
using SockRef = std::unique_ptr<ISock, Rel>;
using PipeRef = std::unique_ptr<VekPipe, Rel>;
using ConnRef = std::unique_ptr<PmConn, Rel>;

/* A name of this run's own: the pipe names of Windows are system-wide. */
std::string uniq(const std::string& base) {
    static std::atomic<int> n{0};
    return base + "-" + std::to_string(vek_main_tid()) + "-" + std::to_string(n++);
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

vek_s32 accept_one(VekPipe* srv, SockRef* out, VekSockPeer* peer) {
    ISock* raw = nullptr;
    vek_s32 r = VekPipe_accept(srv, &raw, peer, 10000);
    out->reset(raw);
    return r;
}

} // namespace

class Pipe : public VekTest {
  protected:
    static void SetUpTestSuite() {
#ifndef _WIN32
        // The run's endpoints live in a runtime folder of its own, which
        // the children inherit.
        runtime_ = vektest::temp_dir("pipe_rt");
        setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);
#endif
    }
    static void TearDownTestSuite() { vektest::remove_tree(runtime_); }
    void TearDown() override {
        vek_thrd_abort_clear();
        VekTest::TearDown();
    }
    /* A connected pair in this process: {client, server side}. */
    void pair(SockRef* cli, SockRef* srv) {
        std::string name = uniq("pair");
        vek_s32 err = 1;
        PipeRef lis(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
        ASSERT_TRUE(lis) << err;
        cli->reset(VekPipe_xconnect__(name.c_str(), 0, 5000, &err, __FILE__, __LINE__));
        ASSERT_TRUE(*cli) << err;
        ASSERT_EQ(0, accept_one(lis.get(), srv, nullptr));
    }
    static std::string runtime_;
};
std::string Pipe::runtime_;

TEST_F(Pipe, NamesLiveInAPrivateFolderThatIsCheckedBeforeUse) {
    char addr[512];
    const std::string tooLong(65, 'x');
    for (const char* bad : {"", ".hidden", "a b", tooLong.c_str()}) {
        EXPECT_EQ(VEK_ERR_BAD_ARG, VekPipe_addr(bad, addr, sizeof addr)) << bad;
    }
#ifndef _WIN32
    ASSERT_GT(VekPipe_addr("abc", addr, sizeof addr), 0);
    EXPECT_EQ(runtime_ + "/vek/abc.sock", addr);
    struct stat st;
    ASSERT_EQ(0, lstat((runtime_ + "/vek").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
    // A folder others may enter, or a link to one, is refused as found.
    std::string alt = vektest::temp_dir("pipe_alt");
    setenv("XDG_RUNTIME_DIR", alt.c_str(), 1);
    ASSERT_EQ(0, mkdir((alt + "/vek").c_str(), 0700));
    chmod((alt + "/vek").c_str(), 0755);
    vek_s32 err = 0;
    EXPECT_EQ(nullptr, VekPipe_xlisten__("abc", 0, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_UNSAFE_DIR, err);
    rmdir((alt + "/vek").c_str());
    ASSERT_EQ(0, symlink(runtime_.c_str(), (alt + "/vek").c_str()));
    EXPECT_EQ(VEK_ERR_UNSAFE_DIR, VekPipe_addr("abc", addr, sizeof addr));
    setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);
    vektest::remove_tree(alt);
#endif
}

TEST_F(Pipe, ALiveServerIsNeverTakenOverAndADeadOnesNameIs) {
    std::string name = uniq("live");
    vek_s32 err = 1;
    EXPECT_EQ(nullptr, pm_connect(name.c_str(), 0, 1000, &err));
    EXPECT_EQ(VEK_ERR_REFUSED, err);
    ChildProc child("vektool", {"pipe", "listen", name}, vektest::temp_dir("pipe_out") + "/listen");
    ConnRef c;
    ASSERT_TRUE(vektest::until([&] {
        c.reset(pm_connect(name.c_str(), 0, 1000, &err));
        return c != nullptr;
    })) << err;
    VekSockPeer peer;
    ASSERT_EQ(0, LocSock_peer(pm_sock(c.get()), &peer));
    EXPECT_EQ(child.pid(), peer.pid);
    // A second server (on Windows: a squatter that came first) is refused,
    // and the first goes on serving: an event it decodes comes back.
    EXPECT_EQ(nullptr, VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    EXPECT_EQ(VEK_ERR_ADDR_IN_USE, err);
    GenEvt* e = GenEvt_newns(0x1234, 9, -1, 42, "first", "zweite");
    PmMsg rsp;
    ASSERT_EQ(0, pm_request(c.get(), 17, nullptr, 0, e, &rsp, 10000));
    Evt_delete(e);
    ASSERT_TRUE(rsp.evt);
    EXPECT_TRUE(Evt_eid(rsp.evt) == 0x1234 && rsp.evt->num2 == 42 && rsp.type == 17);
    EXPECT_STREQ("zweite", VekStr_buf(&rsp.evt->str2));
    pm_msg_clean(&rsp);
    c.reset();
    // Killed, the child leaves its socket file behind; the next server
    // finds it dead, takes the name, and makes its socket 0600.
    child.kill();
    PipeRef srv(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv) << err;
#ifndef _WIN32
    char addr[512];
    VekPipe_addr(name.c_str(), addr, sizeof addr);
    struct stat st;
    ASSERT_EQ(0, lstat(addr, &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
#endif
    ChildProc cli("vektool", {"pipe", "send", name, "ping"}, vektest::temp_dir("pipe_out") + "/send");
    SockRef s;
    ASSERT_EQ(0, accept_one(srv.get(), &s, &peer));
    EXPECT_EQ(cli.pid(), peer.pid);
    ConnRef sc(pm_open(s.get(), 0, nullptr));
    ASSERT_EQ(0, pm_recv(sc.get(), &rsp, 5000));
    EXPECT_EQ("ping", bytes_of(rsp));
    pm_msg_clean(&rsp);
    EXPECT_EQ(0, cli.wait());
}

TEST_F(Pipe, SixtyFourClientsConnectAtOnce) {
    std::string name = uniq("many");
    vek_s32 err = 1;
    PipeRef srv(VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__));
    ASSERT_TRUE(srv) << err;
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer follows at most 64 locks held at once, and the leak
    // check holds one per thread's heap shard.
    constexpr int kClients = 32;
#else
    constexpr int kClients = 64;
#endif
    std::atomic<int> failed{0};
    std::vector<vek_u32> clients;
    for (int i = 0; i < kClients; i++) {
        clients.push_back(vektest::spawn([&, i] {
            ConnRef c(pm_connect(name.c_str(), 0, 20000, nullptr));
            PmMsg m;
            if (!c || pm_request(c.get(), (vek_u32)i, nullptr, 0, nullptr, &m, 20000) != 0 || m.type != (vek_u32)i) {
                failed++;
            }
            pm_msg_clean(&m);
            return 0u;
        }));
    }
    std::vector<int> seen(kClients, 0);
    for (int i = 0; i < kClients; i++) {
        SockRef s;
        ASSERT_EQ(0, accept_one(srv.get(), &s, nullptr)) << i;
        ConnRef c(pm_open(s.get(), 0, nullptr));
        PmMsg m;
        ASSERT_EQ(0, pm_recv(c.get(), &m, 20000));
        seen[m.type % kClients]++;
        EXPECT_EQ(0, pm_reply(c.get(), &m, m.type, nullptr, 0, nullptr, 5000));
        pm_msg_clean(&m);
    }
    for (vek_u32 t : clients) {
        vek_thrd_join(t);
    }
    EXPECT_EQ(0, failed.load());
    EXPECT_EQ(std::vector<int>(kClients, 1), seen);
}

#ifndef _WIN32
TEST_F(Pipe, AClientOfAnotherUserIsRefusedUnlessAllowed) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a child as user 65534";
    }
    // A folder user 65534 can enter and a socket it can open: only the
    // user checks stand between the two ends.
    std::string dir = vektest::temp_dir("pipe_other");
    chmod(dir.c_str(), 0755);
    for (vek_s32 flags : {0, VEK_PIPE_ANY_USER}) {
        std::string path = dir + "/s" + std::to_string(flags);
        vek_s32 err = 1;
        PipeRef srv(VekPipe_xlisten__(path.c_str(), flags, &err, __FILE__, __LINE__));
        ASSERT_TRUE(srv) << err;
        chmod(path.c_str(), 0666);
        ChildProc cli("vektool", {"pipe", "send", path, "hey"}, dir + "/out" + std::to_string(flags), 65534);
        SockRef s;
        VekSockPeer peer;
        EXPECT_EQ(flags ? 0 : VEK_ERR_PEER_REFUSED, accept_one(srv.get(), &s, &peer));
        EXPECT_EQ(65534, peer.uid);
        EXPECT_EQ(flags != 0, s != nullptr);
        // The child, in turn, refuses a server of another user.
        EXPECT_EQ(2, cli.wait());
        EXPECT_NE(std::string::npos, cli.out().find(vek_err_text(VEK_ERR_PEER_REFUSED))) << cli.out();
    }
    vektest::remove_tree(dir);
}
#endif

TEST_F(Pipe, FramesArriveWholeHoweverTheStreamIsCut) {
    SockRef cli, srv;
    pair(&cli, &srv);
    ASSERT_FALSE(HasFatalFailure());
    ConnRef rx(pm_open(srv.get(), 0, nullptr));
    // Two frames and the start of a third in one write: the receive that
    // times out in its middle keeps what arrived; a peer gone in mid-frame
    // is a closed peer.
    std::string all = head(3, PM_KIND_MSG, 0, 7, 0) + "abc" + head(0, PM_KIND_MSG, 0, 8, 0) +
                      head(3, PM_KIND_MSG, 0, 9, 0) + "x";
    ISock_write(cli.get(), all.data(), (vek_s32)all.size(), 1000);
    PmMsg m;
    std::string got;
    for (int i = 0; i < 3; i++) {
        if (i == 2) {
            EXPECT_EQ(VEK_ERR_TIMEOUT, pm_recv(rx.get(), &m, 30));
            ISock_write(cli.get(), "yz", 2, 1000);
        }
        ASSERT_EQ(0, pm_recv(rx.get(), &m, 5000)) << i;
        got += std::to_string(m.type) + ":" + bytes_of(m) + " ";
        pm_msg_clean(&m);
    }
    EXPECT_EQ("7:abc 8: 9:xyz ", got);
    ISock_write(cli.get(), all.data(), 10, 1000);
    cli.reset();
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, pm_recv(rx.get(), &m, 5000));
}

TEST_F(Pipe, ABadOrOverLongFrameEndsItsConnectionOnly) {
    GenEvt* e = GenEvt_newns(5, 0, 1, 2, "s", "t");
    vek_u32 plen = 0;
    vek_u8* pkt = (vek_u8*)GenEvt_enc(e, &plen);
    std::string broken((const char*)pkt, plen);
    broken[16 + 28 + 8 + 3] = 0x40;  // the first string's length now runs past the packet
    MIDL_user_free(pkt);
    Evt_delete(e);
    const std::pair<std::string, vek_s32> cases[] = {
        {head(64 * 1024 + 1, PM_KIND_MSG, 0, 1, 0), VEK_ERR_FRAME_TOO_BIG},
        {head(1, 9, 0, 1, 0) + "x", VEK_ERR_BAD_FRAME},
        {head(1, PM_KIND_MSG, 0x80, 1, 0) + "x", VEK_ERR_BAD_FRAME},
        {head(1, PM_KIND_REQ, 0, 1, 0) + "x", VEK_ERR_BAD_FRAME},  // a request without an id
        {head(12, PM_KIND_MSG, 1, 1, 0) + std::string(12, 'e'), VEK_ERR_BAD_FRAME},
        {head(plen, PM_KIND_MSG, 1, 1, 0) + broken, VEK_ERR_BAD_FRAME},
    };
    for (const auto& c : cases) {
        SockRef cli, srv;
        pair(&cli, &srv);
        ASSERT_FALSE(HasFatalFailure());
        ConnRef rx(pm_open(srv.get(), 64 * 1024, nullptr));
        ISock_write(cli.get(), c.first.data(), (vek_s32)c.first.size(), 1000);
        PmMsg m;
        EXPECT_EQ(c.second, pm_recv(rx.get(), &m, 5000));
        EXPECT_EQ(c.second, pm_send(rx.get(), 1, "x", 1, 0));
        // The sender finds the connection closed instead of waiting on it.
        char b[4];
        EXPECT_EQ(VEK_ERR_PEER_CLOSED, ISock_read(cli.get(), b, sizeof b, 5000));
    }
}

TEST_F(Pipe, RequestsMatchTheirOwnResponseAndKeepWhatElseArrives) {
    SockRef cli, srv;
    pair(&cli, &srv);
    ASSERT_FALSE(HasFatalFailure());
    ConnRef a(pm_open(cli.get(), 0, nullptr)), b(pm_open(srv.get(), 0, nullptr));
    std::atomic<bool> gaveUp{false};
    vek_u32 firstId = 0, cancelledId = 0;
    vek_u32 tid = vektest::spawn([&] {
        PmMsg req;
        for (int i = 0; i < 2 && pm_recv(b.get(), &req, 5000) == 0;) {
            if (req.kind == PM_KIND_CANCEL) {  // the requester gave up on that one
                cancelledId = req.id;
                pm_msg_clean(&req);
                continue;
            }
            if (i++ == 0) {
                firstId = req.id;
                vektest::until([&] { return gaveUp.load(); });  // answered too late
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
    gaveUp = true;
    ASSERT_EQ(0, pm_request(a.get(), 1, "two", 3, nullptr, &rsp, 5000));
    EXPECT_EQ("re:two", bytes_of(rsp));
    pm_msg_clean(&rsp);
    ASSERT_EQ(0, pm_recv(a.get(), &rsp, 5000));
    EXPECT_EQ("aside", bytes_of(rsp));
    pm_msg_clean(&rsp);
    vek_thrd_join(tid);
    EXPECT_EQ(firstId, cancelledId);
}

TEST_F(Pipe, AFullSocketTimesOutTheSenderWithoutLosingWholeFrames) {
    SockRef cli, srv;
    pair(&cli, &srv);
    ASSERT_FALSE(HasFatalFailure());
    ConnRef tx(pm_open(cli.get(), 0, nullptr)), rx(pm_open(srv.get(), 0, nullptr));
    std::string chunk(16 * 1024, 'c');
    int sent = 0;
    vek_s32 r;
    for (chunk[0] = 0; (r = pm_send(tx.get(), 1, chunk.data(), (vek_s32)chunk.size(), 100)) == 0;) {
        chunk[0] = (char)++sent;
        ASSERT_LT(sent, 10000) << "the socket never filled";
    }
    EXPECT_EQ(VEK_ERR_TIMEOUT, r);
    tx.reset();
    PmMsg m;
    for (int i = 0; i < sent; i++) {
        ASSERT_EQ(0, pm_recv(rx.get(), &m, 5000)) << i;
        EXPECT_TRUE(m.len == (vek_s32)chunk.size() && m.data[0] == (vek_u8)i) << i;
        pm_msg_clean(&m);
    }
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, pm_recv(rx.get(), &m, 5000));
}
