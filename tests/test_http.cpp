/*
 * Downloads through the libcurl of the system against a loopback server
 * started by the test: bodies to memory and to files, posts, redirects and
 * error statuses, a file never replaced by a partial body, time-outs, a
 * server that stalls, cancellation in mid-transfer, and no libcurl at all.
 */
#include <atomic>
#include <chrono>
#include "HttpServer.h"
#include "VekTest.h"

namespace {

using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point t) {
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

std::string str_of(const VekStr& s) {
    return std::string(VekStr_buf(&s), (size_t)VekStr_len(&s));
}

class Http : public VekTest {
  protected:
    void SetUp() override {
        VekTest::SetUp();
        VekStr_new(&out_);  // TearDown runs after a skip as well
        if (net_curl_load(nullptr) != 0) {
            GTEST_SKIP() << "no libcurl on this system (libcurl4 / libcurl.dll): downloads answer -94";
        }
    }
    void TearDown() override {
        VekStr_delete(&out_);
        VekTest::TearDown();
    }
    vektest::HttpServer srv_;
    VekStr out_;
};

} // namespace

TEST_F(Http, BodiesToMemoryAndFilesPostsAndStatuses) {
    vek_s32 status = 0;
    ASSERT_EQ(0, net_http_get(srv_.url("/bytes/100000").c_str(), &out_, nullptr, &status));
    EXPECT_EQ(200, status);
    std::string body = str_of(out_);
    ASSERT_EQ(100000u, body.size());
    EXPECT_EQ(vektest::byte_at(99999), body[99999]);

    VekStr_clear(&out_);
    NetReqOpt post = {};
    post.contentType = "text/plain";
    ASSERT_EQ(0, net_http_post(srv_.url("/echo").c_str(), "hello", -1, &out_, &post, &status));
    EXPECT_EQ("text/plain\nhello", str_of(out_));

    VekStr_clear(&out_);
    EXPECT_EQ(0, net_http_get(srv_.url("/redirect").c_str(), &out_, nullptr, &status));
    EXPECT_EQ(10, VekStr_len(&out_));
    NetReqOpt noRedirect = {};
    noRedirect.maxRedirs = -1;
    EXPECT_EQ(0, net_http_get(srv_.url("/redirect").c_str(), &out_, &noRedirect, &status));
    EXPECT_EQ(302, status);

    VekStr_clear(&out_);
    EXPECT_EQ(VEK_ERR_HTTP_STATUS, net_http_get(srv_.url("/status/404").c_str(), &out_, nullptr, &status));
    EXPECT_EQ(404, status);
    EXPECT_EQ("status 404", str_of(out_));

    NetReqOpt small = {};
    small.maxBytes = 1000;
    VekStr_clear(&out_);
    EXPECT_EQ(VEK_ERR_FULL, net_http_get(srv_.url("/bytes/5000").c_str(), &out_, &small, &status));
    EXPECT_EQ(VEK_ERR_CONNECT, net_http_get("http://127.0.0.1:1/", &out_, nullptr, &status));
    EXPECT_EQ(VEK_ERR_BAD_ARG, net_http_get("gopher://127.0.0.1/", &out_, nullptr, &status));
}

TEST_F(Http, AFileIsReplacedOnlyByACompleteBody) {
    std::string dir = vektest::temp_dir("httpfile");
    std::string path = dir + "/got.bin";
    vektest::write_file(path, "good old content");
    vek_s32 status = 0;
    EXPECT_EQ(VEK_ERR_HTTP_STATUS, net_http_get_file(srv_.url("/status/500").c_str(), path.c_str(), nullptr, &status));
    NetReqOpt quick = {};
    quick.timeoutMs = 300;
    EXPECT_EQ(VEK_ERR_TIMEOUT, net_http_get_file(srv_.url("/stall").c_str(), path.c_str(), &quick, &status));
    EXPECT_EQ("good old content", vektest::read_file(path));
    ASSERT_EQ(0, net_http_get_file(srv_.url("/bytes/70000").c_str(), path.c_str(), nullptr, &status));
    std::string got = vektest::read_file(path);
    ASSERT_EQ(70000u, got.size());
    EXPECT_EQ(vektest::byte_at(12345), got[12345]);
    EXPECT_EQ(VEK_ERR_FILE_OPEN,
              net_http_get_file(srv_.url("/bytes/1").c_str(), (dir + "/no/such/dir/f").c_str(), nullptr, &status));
    vektest::remove_tree(dir);
}

namespace {

struct Job {
    std::string url;
    NetReqOpt opt{};
    vek_s32 result = 1;
    std::atomic<long> endedAt{-1};
    Clock::time_point t0 = Clock::now();
};

vek_u32 run_job(void* arg) {
    Job* j = (Job*)arg;
    VekStr s;
    VekStr_new(&s);
    j->result = net_http_get(j->url.c_str(), &s, &j->opt, nullptr);
    VekStr_delete(&s);
    j->endedAt = ms_since(j->t0);
    return 0;
}

vek_s32 count_progress(void* ctx, vek_s64 dlNow, vek_s64, vek_s64, vek_s64) {
    auto* seen = (std::atomic<vek_s64>*)ctx;
    *seen = dlNow;
    return 0;
}

} // namespace

TEST_F(Http, StallsTimeOutAndCancelsEndTransfersAtOnce) {
    NetReqOpt stall = {};
    stall.stallMs = 200;
    auto t0 = Clock::now();
    EXPECT_EQ(VEK_ERR_TIMEOUT, net_http_get(srv_.url("/stall").c_str(), &out_, &stall, nullptr));
    EXPECT_LT(ms_since(t0), 3000);

    // Cancelled in mid-transfer: the body flows, then the thread is cancelled.
    std::atomic<vek_s64> seen{0};
    Job j;
    j.url = srv_.url("/slow/10000000");
    j.opt.progress = count_progress;
    j.opt.progressCtx = &seen;
    vek_u32 tid = vek_thrd_create__(run_job, &j, 0);
    ASSERT_NE(0u, tid);
    while (seen.load() < 3000 && ms_since(j.t0) < 5000) {
        vek_sleep(5);
    }
    EXPECT_GE(seen.load(), 3000) << "the body was flowing";
    long cancelAt = ms_since(j.t0);
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, j.result);
    long latency = j.endedAt - cancelAt;
    std::printf("[ http     ] cancel in mid-transfer ended it after %ld ms\n", latency);
    EXPECT_LT(latency, 1000);

    // Cancelled while the server sends nothing at all.
    Job idle;
    idle.url = srv_.url("/stall");
    tid = vek_thrd_create__(run_job, &idle, 0);
    vek_sleep(150);
    cancelAt = ms_since(idle.t0);
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, idle.result);
    EXPECT_LT(idle.endedAt - cancelAt, 1000);
}

TEST_F(Http, ABatchRunsAtOnceWithinItsLimitAndReportsEachTransfer) {
    std::string dir = vektest::temp_dir("httpmulti");
    std::string path = dir + "/a.bin";
    vektest::write_file(path, "old");
    VekStr posted;
    VekStr_new(&posted);
    std::string slow = srv_.url("/slow/16000"), missing = srv_.url("/status/404");
    std::string echo = srv_.url("/echo"), bytes = srv_.url("/bytes/3000");
    NetDown downs[6] = {};
    downs[0].url = slow.c_str();
    downs[0].body = &out_;
    downs[1].url = bytes.c_str();
    downs[1].path = path.c_str();
    downs[2].url = echo.c_str();
    downs[2].post = "ping";
    downs[2].postLen = -1;
    downs[2].body = &posted;
    downs[3].url = missing.c_str();
    downs[4].url = slow.c_str();
    downs[4].path = path.c_str();  // bad: a POST or a GET, not both
    downs[4].post = "x";
    downs[5].url = slow.c_str();
    // The first failure in array order is the call's result; the others ran.
    EXPECT_EQ(VEK_ERR_HTTP_STATUS, net_multi_down(downs, 6, 0, nullptr));
    EXPECT_EQ(0, downs[0].result);
    EXPECT_EQ(16000, VekStr_len(&out_));
    EXPECT_EQ(0, downs[1].result);
    EXPECT_EQ(3000u, vektest::read_file(path).size());
    EXPECT_EQ("application/octet-stream\nping", str_of(posted));
    EXPECT_EQ(404, downs[3].status);
    EXPECT_EQ(VEK_ERR_BAD_ARG, downs[4].result);
    EXPECT_EQ(0, downs[5].result);
    EXPECT_EQ(200, downs[5].status);
    EXPECT_GE(srv_.peak(), 2) << "the slow transfers overlapped";

    // A limit of two is kept while five slow transfers run.
    vektest::HttpServer own;
    std::string url = own.url("/slow/6000");
    NetDown five[5] = {};
    for (NetDown& d : five) {
        d.url = url.c_str();
    }
    EXPECT_EQ(0, net_multi_down(five, 5, 2, nullptr));
    EXPECT_EQ(2, own.peak());
    VekStr_delete(&posted);
    vektest::remove_tree(dir);
}

namespace {

struct Batch {
    NetDown downs[3] = {};
    vek_s32 result = 1;
    std::atomic<long> endedAt{-1};
    Clock::time_point t0 = Clock::now();
};

vek_u32 run_batch(void* arg) {
    Batch* b = (Batch*)arg;
    b->result = net_multi_down(b->downs, 3, 2, nullptr);
    b->endedAt = ms_since(b->t0);
    return 0;
}

vek_s32 get_task(void* arg) {
    VekStr s;
    VekStr_new(&s);
    vek_s32 r = net_http_get(((Job*)arg)->url.c_str(), &s, nullptr, nullptr);
    VekStr_delete(&s);
    return r;
}

void get_task_end(void* arg, vek_s32 res) {
    ((Job*)arg)->result = res;
}

} // namespace

TEST_F(Http, CancellingABatchOrATaskEndsItsTransfers) {
    std::atomic<vek_s64> seen{0};
    NetReqOpt opt = {};
    opt.progress = count_progress;
    opt.progressCtx = &seen;
    std::string url = srv_.url("/slow/10000000");
    Batch b;
    for (NetDown& d : b.downs) {
        d.url = url.c_str();
        d.opt = &opt;
    }
    vek_u32 tid = vek_thrd_create__(run_batch, &b, 0);
    ASSERT_NE(0u, tid);
    EXPECT_TRUE(vektest::until([&] { return seen.load() >= 3000; })) << "the bodies were flowing";
    long cancelAt = ms_since(b.t0);
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, b.result);
    for (const NetDown& d : b.downs) {
        EXPECT_EQ(VEK_ERR_ABORTED, d.result);  // two cancelled, one never started
    }
    long latency = b.endedAt - cancelAt;
    std::printf("[ http     ] cancel of a batch ended it after %ld ms\n", latency);
    EXPECT_LT(latency, 1000);

    // A transfer a task makes ends when the task is cancelled.
    Job j;
    j.url = srv_.url("/stall");
    int before = srv_.finished();
    VekTask task = TaskSvr_post(TaskSvr_def(), get_task, get_task_end, &j);
    ASSERT_NE(0u, task);
    vek_sleep(150);  // connected and waiting for a body that never comes
    EXPECT_EQ(2, TaskSvr_cancel(task, 1));
    EXPECT_EQ(0, TaskSvr_wait(task, 5000));
    EXPECT_EQ(VEK_ERR_ABORTED, j.result);
    EXPECT_TRUE(vektest::until([&] { return srv_.finished() > before; })) << "the connection was closed";
}

using NoCurl = VekTest;

TEST_F(NoCurl, WithoutLibcurlTransfersAnswer94) {
    EXPECT_EQ(VEK_ERR_NO_LIBRARY, net_curl_load("no-such-curl-library"));
    VekStr s;
    VekStr_new(&s);
    vek_s32 status = 7;
    EXPECT_EQ(VEK_ERR_NO_LIBRARY, net_http_get("http://127.0.0.1:1/", &s, nullptr, &status));
    EXPECT_EQ(0, status);
    NetDown d = {};
    d.url = "http://127.0.0.1:1/";
    EXPECT_EQ(VEK_ERR_NO_LIBRARY, net_multi_down(&d, 1, 0, nullptr));
    EXPECT_EQ(VEK_ERR_NO_LIBRARY, d.result);
    VekStr_delete(&s);
    char v[32];
    EXPECT_EQ(0, net_curl_version(v, sizeof v));
    net_curl_load(nullptr);  // the system's again, where there is one
}
