/*
 * Calls to a server in a child process (this program run again): answers
 * matched to their own call, a cancel or a time-out that reaches the
 * handler blocked in a library wait, a server that dies in mid-call.
 */
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>
#include "ChildProc.h"
#include "VekTest.h"

namespace {

enum : vek_u32 { kEcho = 1, kBlock, kSlow, kStats, kDie, kFail, kQuit };

std::atomic<int> g_started{0};
std::atomic<int> g_cancelled{0};
vek_handle g_quit;

vek_s32 serve(void*, const PmMsg* req, PmMsg* rsp) {
    std::string out;
    switch (req->type) {
    case kEcho:
        out.assign((const char*)req->data, (size_t)req->len);
        break;
    case kBlock:
        g_started++;
        if (vek_ssleep(60000) == VEK_ERR_ABORTED) {
            g_cancelled++;
            return VEK_ERR_ABORTED;
        }
        break;
    case kSlow:  // deaf to its cancel: its answer comes after the caller gave up
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        out = "late";
        break;
    case kStats:
        out = std::to_string(g_started.load()) + "/" + std::to_string(g_cancelled.load());
        break;
    case kDie:
        std::_Exit(3);
    case kFail:
        return VEK_ERR_NOT_FOUND;
    case kQuit:
        vek_evt_set(g_quit);
        break;
    }
    rsp->type = req->type;
    rsp->len = (vek_s32)out.size();
    rsp->data = (vek_u8*)vek_malloc__(out.size() + 1);
    std::memcpy(rsp->data, out.c_str(), out.size());
    return 0;
}

VEKTEST_CHILD(rpc_server) {
    if (argc < 1) {
        return 2;
    }
    g_quit = vek_evt_create__(1, 0);
    vek_s32 err = 0;
    RpcSvr* svr = rpc_svr_new(argv[0], 0, nullptr, serve, nullptr, &err);
    if (!svr) {
        return 1;
    }
    vek_evt_wait__(g_quit, -1, 0);
    rpc_svr_delete(svr);
    vek_evt_close(g_quit);
    return 0;
}

struct Rel {
    void operator()(PmConn* c) const { pm_close(c); }
};
using ConnRef = std::unique_ptr<PmConn, Rel>;

/* One call; its answer's text, or "#code". */
std::string call(PmConn* c, vek_u32 type, const std::string& arg = "", vek_s32 tmo = 10000) {
    PmMsg m;
    vek_s32 r = rpc_call(c, type, arg.data(), (vek_s32)arg.size(), nullptr, &m, tmo);
    std::string out = r < 0 ? "#" + std::to_string(r) : std::string((const char*)m.data, (size_t)m.len);
    pm_msg_clean(&m);
    return out;
}

/* Waits until the "started/cancelled" counters of the server at name
 * read want. */
bool stats_of(const std::string& name, const std::string& want) {
    ConnRef c(pm_connect(name.c_str(), 0, 1000, nullptr));
    return c && vektest::until([&] { return call(c.get(), kStats) == want; });
}

} // namespace

class Rpc : public VekTest {
  protected:
    void SetUp() override {
        VekTest::SetUp();
#ifndef _WIN32
        runtime_ = vektest::temp_dir("rpc_rt");
        setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);
#endif
        name_ = "rpc-" + std::to_string(vek_main_tid()) + "-" + std::to_string(vek_msec());
        child_ = std::make_unique<ChildProc>("test_rpc", std::vector<std::string>{"--child", "rpc_server", name_},
                                             vektest::temp_dir("rpc_out") + "/server");
        ASSERT_TRUE(vektest::until([&] { return (conn_ = connect()) != nullptr; })) << child_->out();
    }
    void TearDown() override {
        conn_.reset();
        child_.reset();
        vek_thrd_abort_clear();
#ifndef _WIN32
        vektest::remove_tree(runtime_);
#endif
        VekTest::TearDown();
    }
    ConnRef connect() { return ConnRef(pm_connect(name_.c_str(), 0, 1000, nullptr)); }
    bool stats_are(const std::string& want) { return stats_of(name_, want); }
    std::string name_, runtime_;
    std::unique_ptr<ChildProc> child_;
    ConnRef conn_;
};

TEST_F(Rpc, EachCallGetsItsOwnAnswer) {
    EXPECT_EQ("hello", call(conn_.get(), kEcho, "hello"));
    EXPECT_EQ("#" + std::to_string(VEK_ERR_NOT_FOUND), call(conn_.get(), kFail));
    // The answer that comes after its caller gave up is never the next
    // call's.
    EXPECT_EQ("#" + std::to_string(VEK_ERR_TIMEOUT), call(conn_.get(), kSlow, "", 50));
    EXPECT_EQ("next", call(conn_.get(), kEcho, "next"));
    // Threads calling on one connection take turns and each gets its own.
    std::vector<vek_u32> ts;
    std::atomic<int> ok{0};
    for (int i = 0; i < 4; i++) {
        ts.push_back(vektest::spawn([&, i] {
            for (int k = 0; k < 20; k++) {
                std::string arg = std::to_string(i * 100 + k);
                ok += call(conn_.get(), kEcho, arg) == arg;
            }
            return 0u;
        }));
    }
    for (vek_u32 t : ts) {
        vek_thrd_join(t);
    }
    EXPECT_EQ(80, ok.load());
    EXPECT_EQ("", call(conn_.get(), kQuit));
    EXPECT_EQ(0, child_->wait()) << child_->out();
}

TEST_F(Rpc, ACancelOrTimeOutReachesTheHandlerInItsWait) {
    // The caller's thread cancelled from another thread.
    std::string res;
    vek_u32 tid = vektest::spawn([&] {
        res = call(conn_.get(), kBlock, "", -1);
        return 0u;
    });
    ASSERT_TRUE(stats_are("1/0"));
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ("#" + std::to_string(VEK_ERR_ABORTED), res);
    EXPECT_TRUE(stats_are("1/1"));

    // The call's own cancel, from the wait procedure of an asynchronous
    // block (as a user's "cancel" button would).
    struct Op {
        IVekFunc itf;
        PmConn* conn;
        static vek_s32 none(IVekFunc*, const VekGuid*, void** out) {
            *out = nullptr;
            return VEK_ERR_NOT_SUPPORTED;
        }
        static vek_s32 ref(IVekFunc*) { return 1; }
        static vek_s32 run(IVekFunc* self, vek_s32) {
            PmMsg m;
            return rpc_call(((Op*)self)->conn, kBlock, nullptr, 0, nullptr, &m, -1);
        }
    } op;
    static const IVekFuncVtbl vtbl = {Op::none, Op::ref, Op::ref, Op::run};
    op.itf.vtbl = &vtbl;
    op.conn = conn_.get();
    static std::string name;
    name = name_;
    vek_s32 r = vek_blk_call__(&op.itf, [](VekAsync*, vek_handle end) -> vek_s32 {
        vek_msg_blk_beg();  // the wait procedure's own waits
        bool started = stats_of(name, "2/1");
        vek_msg_blk_end();
        if (started) {
            vek_call_cancel();
        }
        return vek_evt_wait__(end, -1, VEK_WAIT_FORBID_ABORT);
    });
    EXPECT_EQ(VEK_ERR_ABORTED, r);
    EXPECT_TRUE(stats_are("2/2"));

    // The time-out cancels the handler in the same way.
    EXPECT_EQ("#" + std::to_string(VEK_ERR_TIMEOUT), call(conn_.get(), kBlock, "", 300));
    EXPECT_TRUE(stats_are("3/3"));
}

TEST_F(Rpc, AServerThatDiesInMidCallEndsTheCall) {
    EXPECT_EQ("#" + std::to_string(VEK_ERR_PEER_CLOSED), call(conn_.get(), kDie));
    EXPECT_EQ(3, child_->wait());
}
