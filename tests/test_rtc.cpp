/*
 * The runtime configuration: value readers over in-memory sources, the
 * debug manager's limits from a file, and whole processes that read
 * "VekDbg.ini" beside their own copy of the library.
 */
#include <cstring>
#include <filesystem>
#include <string>
#include "ChildRun.h"
#include "StrmTest.h"


namespace {

/* Replaces the system and debug sources for a test and puts the library's
 * own paths back afterwards. */
class Sources {
  public:
    Sources() {
        sys_ = vek_sys_rtc_file() ? vek_sys_rtc_file() : "";
        dbg_ = vek_dbg_rtc_file() ? vek_dbg_rtc_file() : "";
    }
    ~Sources() {
        vek_rtc_set_src(VEK_RTC_SYS, sys_.c_str(), nullptr, 0);
        vek_rtc_set_src(VEK_RTC_DBG, dbg_.c_str(), nullptr, 0);
    }

  private:
    std::string sys_, dbg_;
};

std::string sval(const char* sect, const char* key, const char* def) {
    char buf[64];
    return vek_sys_rtc_sval(sect, key, def, buf, sizeof buf);
}

} // namespace

class RtcValues : public VekTest {
  protected:
    static void SetUpTestSuite() { vektest::dbg_cfg_file(); }
};

TEST_F(RtcValues, ReadersOverAnInMemorySource) {
    Sources keep;
    const char* text = "[S]\r\nstr = \"quoted\" \r\nnum=12x\r\nb1=true\r\nb2=TRUE\r\nb3=False\r\nb4=2\r\nb5=abc\r\n";
    vek_rtc_set_src(VEK_RTC_SYS, nullptr, text, -1);
    vek_rtc_set_src(VEK_RTC_DBG, nullptr, nullptr, 0);
    EXPECT_STREQ(text, vek_sys_rtc_txt());
    EXPECT_EQ(nullptr, vek_sys_rtc_file());
    EXPECT_EQ("quoted", sval("s", "STR", "d"));  // quotes trimmed
    EXPECT_EQ("d", sval("S", "none", "d"));      // the lookup's own default
    EXPECT_EQ(12, vek_sys_rtc_nval("S", "num", 5));
    EXPECT_EQ(0, vek_sys_rtc_nval("S", "none", 5));  // the source opened: no default
    const char* keys[] = {"b1", "b2", "b3", "b4", "b5"};
    const vek_bool want[] = {1, 1, 0, 1, 0};
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(want[i], vek_sys_rtc_bval("S", keys[i], 1 - want[i])) << keys[i];
    }
    // Without a debug source, debug settings come from the system source.
    EXPECT_EQ(12, vek_dbg_rtc_nval("S", "num", 5));
    vektest::StrmPtr s(vek_dbg_rtc_strm());
    ASSERT_TRUE(s);
    EXPECT_EQ(text, vektest::bytes_of(s.get()));
    EXPECT_EQ(nullptr, vek_trc_rtc_txt());
}

TEST_F(RtcValues, DefaultsApplyOnlyWhenTheSourceCannotBeOpened) {
    Sources keep;
    vek_rtc_set_src(VEK_RTC_SYS, "/no/such/folder/VekSys.ini", nullptr, 0);
    vek_rtc_set_src(VEK_RTC_DBG, nullptr, nullptr, 0);
    EXPECT_EQ("d", sval("S", "k", "d"));
    EXPECT_EQ("", sval("S", "k", nullptr));
    EXPECT_EQ(5, vek_sys_rtc_nval("S", "k", 5));
    EXPECT_EQ(1, vek_dbg_rtc_bval("S", "k", 1));
    EXPECT_EQ(nullptr, vek_sys_rtc_strm());
    vek_rtc_set_src(VEK_RTC_SYS, nullptr, nullptr, 0);
    EXPECT_EQ(nullptr, vek_dbg_rtc_strm());
    EXPECT_EQ(VEK_ERR_BAD_ARG, vek_rtc_set_src(7, nullptr, nullptr, 0));
}

TEST_F(RtcValues, DebugManagerLimitsFromAFile) {
    std::string path = vektest::dbg_cfg_file();
    vektest::write_file(path, "[DbgMng]\r\nLevel=2\r\n[Mod777]\r\nLevel=1\r\nFld5=4\r\n[Modx]\r\nLevel=9\r\n");
    ASSERT_EQ(0, DbgMng_cfgByFile(path.c_str()));
    EXPECT_EQ(1, DbgMng_enabled__(nullptr, 777, 5, 4));  // the field's limit
    EXPECT_EQ(0, DbgMng_enabled__(nullptr, 777, 6, 2));  // the module's limit
    EXPECT_EQ(1, DbgMng_enabled__(nullptr, 777, 6, 1));
    EXPECT_EQ(1, DbgMng_enabled__(nullptr, 888, 1, 2));  // the default limit
    EXPECT_EQ(0, DbgMng_enabled__(nullptr, 888, 1, 3));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, DbgMng_cfgByFile((path + ".none").c_str()));
    vektest::dbg_cfg_settle();
}

using RtcProcess = VekTest;

TEST_F(RtcProcess, LeakReportGoesToTheTraceFile) {
    vektest::ChildFolder f("leakfile");
    f.config("VekDbg.ini", "[VekHeap]\r\nLeakChkLev=1\r\nMaxDumpSize=8\r\n[VekTrc]\r\nTrcType=FileTrc\r\n");
    ASSERT_EQ(0, f.run("leak"));
    std::string trc = f.file("VekTrc.dlog");
    EXPECT_NE(std::string::npos, trc.find("VekHeap cfg: LeakChkLev=1, CrashChkLev=0, RecStatInfo=0"));
    EXPECT_NE(std::string::npos, trc.find("detect 2 mem leaks in VekHeap"));
    EXPECT_NE(std::string::npos, trc.find(", size=24\r\n"));
    EXPECT_NE(std::string::npos, trc.find(", size=40\r\n"));
    EXPECT_NE(std::string::npos, trc.find("|first le|"));   // 8 bytes dumped
    EXPECT_NE(std::string::npos, trc.find("|second l|"));
    EXPECT_NE(std::string::npos, trc.find("main()"));       // the allocating call stacks
    EXPECT_NE(std::string::npos, trc.find("BaseLib.dll attached"));
    EXPECT_EQ(std::string::npos, trc.find("NOTICE"));
}

TEST_F(RtcProcess, LevelZeroWritesTheNotice) {
    vektest::ChildFolder f("leaknotice");
    f.config("VekDbg.ini", "[VekHeap]\r\nLeakChkLev=0\r\n[VekTrc]\r\nTrcType=FileTrc\r\n[FileTrc]\r\nFileName=leaks.log\r\n");
    ASSERT_EQ(0, f.run("leak"));
    std::string trc = f.file("leaks.log");
    EXPECT_NE(std::string::npos, trc.find("NOTICE, detect 2 mem leaks in VekHeap"));
    EXPECT_EQ(std::string::npos, trc.find("size=24"));
}

TEST_F(RtcProcess, TraceSettingsAreReadAtLoad) {
    vektest::ChildFolder f("trcinfo");
    f.config("VekDbg.ini",
             "[VekHeap]\r\nLeakChkLev=1\r\nHoldDynDll=1\r\n[VekTrc]\r\nTrcType=SysTrc\r\nHoldConn=true\r\nBufQueSize=20000\r\n");
    ASSERT_EQ(0, f.run("info"));
    EXPECT_EQ("type=SysTrc queue=10000 hold=1 leakchk=1 holddll=1 dllkept=1\n", f.file("info.txt"));
}
