/*
 * The trace relay between real processes: a child traces with the relay
 * configured, `vektool trace listen` prints what arrives; with nothing
 * listening the child's trace calls never wait and the drops are counted.
 */
#include <cstdio>
#include <cstdlib>
#include <string>
#include "ChildProc.h"
#include "VekTest.h"

namespace {

/* ARGS: the configuration file, the records to write. Prints how long the
 * trace calls took and the relay's counts once every record is sent or
 * dropped. */
VEKTEST_CHILD(trace_relay) {
    if (argc < 2 || DbgMng_cfgByFile(argv[0]) != 0) {
        return 2;
    }
    int n = std::atoi(argv[1]);
    vek_u32 t0 = vek_msec();
    for (int i = 0; i < n; i++) {
        vek_printf("relay record %d", i);
    }
    vek_u32 took = vek_msec() - t0;
    VekTrcWriteInfo wi = {};
    for (int waited = 0; waited < 10000; waited += 10) {
        wi.size = sizeof wi;
        tout_write_info(&wi);
        if (wi.relaySent + wi.relayDropped >= n) {
            break;
        }
        vek_sleep(10);
    }
    std::printf("took=%u sent=%lld dropped=%lld\n", (unsigned)took, (long long)wi.relaySent,
                (long long)wi.relayDropped);
    return 0;
}

long long field(const std::string& out, const std::string& key) {
    size_t p = out.find(key + "=");
    return p == std::string::npos ? -1 : std::atoll(out.c_str() + p + key.size() + 1);
}

} // namespace

class TrcRelay : public VekTest {
  protected:
    void SetUp() override {
        VekTest::SetUp();
        dir_ = vektest::temp_dir("trc_relay");
#ifndef _WIN32
        setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
#endif
        name_ = "relay-" + std::to_string(vek_main_tid()) + "-" + std::to_string(vek_msec());
        ini_ = dir_ + "/VekTrc.ini";
        vektest::write_file(ini_, "[VekTrc]\nRelayPipe=" + name_ + "\n");
    }
    void TearDown() override {
        vektest::remove_tree(dir_);
        VekTest::TearDown();
    }
    std::string dir_, name_, ini_;
};

TEST_F(TrcRelay, AListenerPrintsEveryRecordInOrder) {
    ChildProc listener("vektool", {"trace", "listen", name_}, dir_ + "/listen");
    ASSERT_TRUE(vektest::until([&] {
        PmConn* c = pm_connect(name_.c_str(), 0, 1000, nullptr);
        pm_close(c);
        return c != nullptr;
    }));
    ChildProc tracer("test_trc_relay", {"--child", "trace_relay", ini_, "300"}, dir_ + "/trace");
    ASSERT_EQ(0, tracer.wait()) << tracer.out();
    EXPECT_GE(field(tracer.out(), "sent"), 300) << tracer.out();  // the library's own records too
    EXPECT_EQ(0, field(tracer.out(), "dropped"));
    std::string out;
    vektest::until([&] { return (out = listener.out()).find("relay record 299\n") != std::string::npos; });
    size_t at = 0;
    for (int i = 0; i < 300 && at != std::string::npos; i++) {
        at = out.find("relay record " + std::to_string(i) + "\n", at);
    }
    EXPECT_NE(std::string::npos, at) << out;
}

TEST_F(TrcRelay, WithNobodyListeningTracingNeverWaitsAndCountsDrops) {
    ChildProc tracer("test_trc_relay", {"--child", "trace_relay", ini_, "20000"}, dir_ + "/trace");
    ASSERT_EQ(0, tracer.wait()) << tracer.out();
    EXPECT_EQ(0, field(tracer.out(), "sent")) << tracer.out();
    EXPECT_GE(field(tracer.out(), "dropped"), 20000);
    // Far below one connect's time-out per record: the calls only queue.
    EXPECT_LT(field(tracer.out(), "took"), 5000);
}
