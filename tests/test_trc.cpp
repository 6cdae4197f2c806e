/*
 * The trace and debug managers in this process: call sites that cost
 * nothing when off and follow every configuration change, limits replaced
 * by a file, device traffic and dumps, and the trace stream.
 */
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>
#include "ChildRun.h"

namespace {

int g_evaluated;
int count_eval() {
    return ++g_evaluated;
}

// One site, called again and again as the configuration changes.
vek_s32 site_call(int v) {
    vek_s32 before = g_evaluated;
    VEK_TRACE(700, 1, 2, "site %d %d", v, count_eval());
    return g_evaluated - before;
}

class Trace : public VekTest {
  protected:
    static void SetUpTestSuite() { vektest::dbg_cfg_file(); }
    void TearDown() override {
        DbgMng_setLevel(-1, -1, 3);
        DbgMng_setLevel(700, -1, 3);
        DbgMng_setLevel(700, 1, 3);
        VekTest::TearDown();
    }
};

bool wait_for_limit(vek_s32 module, vek_s32 field, vek_s32 level, vek_s32 passes) {
    for (int i = 0; i < 500; i++) {
        if (DbgMng_enabled__(nullptr, module, field, level) == passes) {
            return true;
        }
        vek_sleep(10);
    }
    return false;
}

} // namespace

TEST_F(Trace, SitesFollowEveryChangeAndEvaluateNothingWhenOff) {
    g_evaluated = 0;
    DbgMng_setLevel(700, 1, 5);
    EXPECT_EQ(0, site_call(1)) << "no sink and no listener: nothing passes";
    {
        vektest::TraceCapture cap;  // a listener is a new generation too
        EXPECT_EQ(1, site_call(2));
        DbgMng_setLevel(700, 1, 1);
        EXPECT_EQ(0, site_call(3)) << "an already-hit site sees the lower limit";
        ASSERT_EQ(1u, cap.records.size());
        EXPECT_EQ("site 2 1", cap.records[0]);
        // A change made by another thread reaches this thread's site.
        std::thread([] { DbgMng_setLevel(700, 1, 5); }).join();
        EXPECT_EQ(1, site_call(5));
        ASSERT_EQ(2u, cap.records.size());
        EXPECT_EQ("site 5 2", cap.records[1]);
    }
    EXPECT_EQ(0, site_call(6)) << "the listener went away";
}

// Threads trace through one site while another flips the limits: every
// record that passes was allowed when it passed (TSan watches the rest).
TEST_F(Trace, ConcurrentCallsAndChanges) {
    vektest::TraceCapture cap;
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    for (int t = 0; t < 3; t++) {
        ts.emplace_back([&stop] {
            while (!stop.load()) {
                VEK_TRACE(701, 1, 2, "x");
            }
        });
    }
    for (int i = 0; i < 2000; i++) {
        DbgMng_setLevel(701, 1, i % 2 ? 2 : 1);
    }
    stop = true;
    for (auto& t : ts) {
        t.join();
    }
    // Only this site's records count: the library's own (a limit file read
    // again by its watcher) may pass meanwhile.
    auto sites = [&cap] { return std::count(cap.records.begin(), cap.records.end(), std::string("x")); };
    DbgMng_setLevel(701, 1, 1);
    auto n = sites();
    VEK_TRACE(701, 1, 2, "x");
    EXPECT_EQ(n, sites());
}

TEST_F(Trace, FileLimitsReplaceTheEarlierOnes) {
    std::string path = vektest::dbg_cfg_file();
    vektest::write_file(path, "[DbgMng]\r\nLevel=4\r\n[Mod700]\r\nFld1=1\r\nFld2=5\r\n");
    ASSERT_EQ(0, DbgMng_cfgByFile(path.c_str()));
    EXPECT_EQ(0, DbgMng_enabled__(nullptr, 700, 1, 2));
    EXPECT_EQ(1, DbgMng_enabled__(nullptr, 700, 2, 5));
    EXPECT_EQ(1, DbgMng_enabled__(nullptr, 999, 0, 4));
    vektest::write_file(path, "[Mod700]\r\nFld2=2\r\n");
    ASSERT_EQ(0, DbgMng_cfgByFile(path.c_str()));
    EXPECT_EQ(1, DbgMng_enabled__(nullptr, 700, 1, 3)) << "Fld1 is gone: the default again";
    EXPECT_EQ(0, DbgMng_enabled__(nullptr, 700, 2, 3));
    EXPECT_EQ(0, DbgMng_enabled__(nullptr, 999, 0, 4)) << "no [DbgMng] Level: the default is 3";
    EXPECT_EQ(VEK_ERR_FILE_OPEN, DbgMng_cfgByFile((path + ".none").c_str()));
    EXPECT_EQ(0, DbgMng_enabled__(nullptr, 700, 2, 3)) << "a missing file changes nothing";
    vektest::dbg_cfg_settle();
}

TEST_F(Trace, ALimitFileIsReadAgainWhenItChanges) {
    std::string path = vektest::dbg_cfg_file();
    vektest::write_file(path, "[Mod703]\r\nFld1=1\r\n");
    ASSERT_EQ(0, DbgMng_cfgByFile(path.c_str()));
    EXPECT_EQ(0, DbgMng_enabled__(nullptr, 703, 1, 2));
    vektest::write_file(path, "[Mod703]\r\nFld1=3\r\n");  // written in place
    EXPECT_TRUE(wait_for_limit(703, 1, 2, 1));
    if (vektest::under_wine()) {
        std::printf("[ skipped  ] wine reports no rename over an existing file: a save by rename is not seen\n");
    } else {
        // Saved the way editors save: a new file renamed over the old one.
        vektest::write_file(path + ".new", "[Mod703]\r\nFld1=1\r\n");
        std::filesystem::rename(path + ".new", path);
        EXPECT_TRUE(wait_for_limit(703, 1, 2, 0));
    }
    vektest::dbg_cfg_settle();
}

TEST_F(Trace, DeviceTrafficAndDumps) {
    vektest::TraceCapture cap;
    DbgMng_setLevel(10, 7, 2);
    const char at[] = "AT+CMGS=\"+4917\"\r\r\n> hi\x1A\x7F";
    EXPECT_GT(base_log_data(__FILE__, __LINE__, 7, 2, at, sizeof at - 1), 0);
    EXPECT_EQ(0, base_log_data(__FILE__, __LINE__, 7, 3, at, -1));
    EXPECT_GT(base_log_printf(__FILE__, __LINE__, 7, 1, "n=%d", 5), 0);
    const unsigned char bin[18] = {'A', 'T', 0x0D, 0x0A, 0, 1, 2, 3, 0xFF, 'x', 'y', 'z', 'a', 'b', 'c', 'd', 'Q', 0x80};
    EXPECT_GT(base_log_dump(__FILE__, __LINE__, 7, 2, "rx", bin, sizeof bin), 0);
    ASSERT_EQ(3u, cap.records.size());
    EXPECT_EQ("AT+CMGS=\"+4917\"<CR><CR><LF>> hi<1A><7F>", cap.records[0]);
    EXPECT_EQ("n=5", cap.records[1]);
    EXPECT_EQ("rx\n"
              "0000  41 54 0D 0A 00 01 02 03  FF 78 79 7A 61 62 63 64  AT.......xyzabcd\n"
              "0010  51 80                                             Q.\n",
              cap.records[2] + "\n");

    VekStr s;
    VekStr_new(&s);
    VekStr_setStr(&s, ">");
    EXPECT_EQ(14, vek_esc_str(&s, "a\rb\n\t", 5));
    EXPECT_STREQ(">a<CR>b<LF><09>", VekStr_buf(&s));
    std::vector<unsigned char> big(0x10001, 'k');
    VekStr_clear(&s);
    ASSERT_GT(vek_dump_str(&s, big.data(), (vek_s32)big.size()), 0);
    std::string d = VekStr_buf(&s);
    EXPECT_EQ(0u, d.find("00000000  6B")) << "8 offset digits beyond 64 KB";
    EXPECT_NE(std::string::npos, d.find("\n00010000  6B  "));
    EXPECT_EQ(0, vek_dump_str(&s, nullptr, 0));
    VekStr_delete(&s);
    EXPECT_ASSERT("out && (data || len <= 0)", EXPECT_EQ(VEK_ERR_BAD_ARG, vek_dump_str(nullptr, "a", 1)));
}

TEST_F(Trace, StreamLinesBecomeRecords) {
    vektest::TraceCapture cap;
    DbgMng_setLevel(702, 3, 2);
    IStrm* s = TrcStrm_xcreate__(nullptr, 702, 3, 2, __FILE__, __LINE__);
    ASSERT_TRUE(s);
    EXPECT_STREQ("TrcStrm", IStrm_className(s));
    EXPECT_EQ(10, IStrm_printf(s, "one\r\ntwo\nt"));
    EXPECT_EQ(2u, cap.records.size());
    IStrm_write(s, "hree", 4);
    EXPECT_EQ(0, IStrm_flush(s));
    std::string longLine(5000, 'L');
    IStrm_write(s, longLine.data(), (vek_s32)longLine.size());
    IStrm_putc(s, '\n');
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s));
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, IStrm_seek(s, 0, 0));
    EXPECT_EQ(5015, IStrm_tell(s));
    DbgMng_setLevel(702, 3, 1);  // off: the next lines are not kept
    IStrm_printf(s, "hidden\nopen");
    DbgMng_setLevel(702, 3, 2);
    IStrm_release(s);  // nothing left open to write
    ASSERT_EQ(5u, cap.records.size());
    EXPECT_EQ("one", cap.records[0]);
    EXPECT_EQ("two", cap.records[1]);
    EXPECT_EQ("three", cap.records[2]);
    EXPECT_EQ(std::string(4096, 'L'), cap.records[3]);
    EXPECT_EQ(std::string(904, 'L'), cap.records[4]);

    TrcStrm own;
    TrcStrm_new(&own, 702, 3, 2);
    IStrm_printf(VEK_OBJ_ITF(IStrm, &own), "tail");
    TrcStrm_delete(&own);
    ASSERT_EQ(6u, cap.records.size());
    EXPECT_EQ("tail", cap.records[5]);
}

// ---- whole processes writing a trace file ----

namespace {

/* Sets an environment variable for the children started while alive. */
class EnvVar {
  public:
    EnvVar(const char* name, const char* value) : name_(name) {
        const char* old = std::getenv(name);
        had_ = old != nullptr;
        old_ = old ? old : "";
        set(value);
    }
    ~EnvVar() { set(had_ ? old_.c_str() : ""); }

  private:
    void set(const char* v) {
#ifdef _WIN32
        _putenv_s(name_.c_str(), v);
#else
        setenv(name_.c_str(), v, 1);
#endif
    }
    std::string name_, old_;
    bool had_;
};

bool has_records(const std::string& trc, int n) {
    for (int i = 0; i < n; i++) {
        if (trc.find("rec " + std::to_string(i) + "\r\n") == std::string::npos) {
            return false;
        }
    }
    return true;
}

} // namespace

using TraceFile = VekTest;

TEST_F(TraceFile, BufferedRecordsReachTheFileInTime) {
    vektest::ChildFolder f("trcflush");
    f.config("VekDbg.ini", "[VekTrc]\r\nTrcType=FileTrc\r\n[FileTrc]\r\nFlushLev=1\r\nFlushMs=200\r\n");
    ASSERT_EQ(0, f.run("flush"));
    EXPECT_EQ("urgent=1 later=1 asked=1\n", f.file("info.txt")) << f.file("out.txt");
}

// Nothing would flush these records before the process ends but the fault
// path itself (spdlog #1502: async logs lost at a crash).
TEST_F(TraceFile, TheFaultPathWritesWhatIsBuffered) {
    vektest::ChildFolder f("trcfault");
    f.config("VekDbg.ini", "[VekTrc]\r\nTrcType=FileTrc\r\n[FileTrc]\r\nFlushLev=0\r\nFlushMs=600000\r\n");
    {
        EnvVar abort("VEK_FAULT_ACTION", "abort");
        EXPECT_EQ(3, f.run("fault"));
    }
    std::string trc = f.file("VekTrc.dlog");
    EXPECT_TRUE(has_records(trc, 3)) << trc;
    EXPECT_NE(std::string::npos, trc.find("Exp: boom"));
    f.config("VekTrc.dlog", "");
    EXPECT_NE(0, f.run("crash"));
    trc = f.file("VekTrc.dlog");
    EXPECT_TRUE(has_records(trc, 3)) << trc;
}

#ifndef _WIN32
TEST_F(TraceFile, AFullRingDropsByItsPolicyAndSaysSo) {
    struct Case {
        const char* policy;
        int n;
    };
    for (Case c : {Case{"DropNew", 2000}, Case{"DropOld", 2000}, Case{"Block", 400}}) {
        SCOPED_TRACE(c.policy);
        vektest::ChildFolder f("trcring");
        f.config("VekDbg.ini", std::string("[VekTrc]\r\nTrcType=FileTrc\r\nAsyncQue=16\r\nAsyncFull=") +
                                   c.policy + "\r\n[FileTrc]\r\nFileName=trace.fifo\r\n");
        ASSERT_EQ(0, f.run("ring " + std::to_string(c.n))) << f.file("out.txt");
        long received = -1, dropped = -1, first = -1, last = -1, info = -1;
        int ordered = 0;
        ASSERT_EQ(6, std::sscanf(f.file("info.txt").c_str(),
                                 "received=%ld dropped=%ld first=%ld last=%ld ordered=%d info=%ld",
                                 &received, &dropped, &first, &last, &ordered, &info));
        EXPECT_EQ(c.n, received + dropped) << "every record arrived or was reported dropped\n"
                                           << f.file("info.txt") << f.file("got.txt");
        EXPECT_EQ(dropped, info);
        EXPECT_EQ(1, ordered);
        if (std::string(c.policy) == "Block") {
            EXPECT_EQ(0, dropped);
        } else {
            EXPECT_GT(dropped, 0);
        }
        if (std::string(c.policy) == "DropOld") {
            EXPECT_EQ(c.n - 1, last) << "the newest record survives";
        } else {
            EXPECT_EQ(0, first) << "the first record survives";
        }
    }
}
#endif
