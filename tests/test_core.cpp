/*
 * Lifecycle, assertions and faults, process utilities, call stacks.
 */
#include <cstdlib>
#include <regex>
#include <set>
#include <thread>
#include "AlPlat.h"
#include "VekCore.h"
#include "VekTest.h"

using vektest::TraceCapture;

namespace {

void set_env(const char* name, const char* value) {
#ifdef _WIN32
    _putenv_s(name, value);
#else
    setenv(name, value, 1);
#endif
}

// Hands the fault dialog back to VEK_FAULT_ACTION (death-test children).
void use_fault_action(const char* action) {
    al_set_fault_hook(nullptr);
    set_env("VEK_FAULT_ACTION", action);
}

} // namespace

VEK_TEST_EXPORT vek_s32 stack_probe(TinyStr* out, const char* skip, vek_s32 maxFrames) {
    return vek_out_call_stack(out, nullptr, skip, "  > ", maxFrames);
}

using Lifecycle = VekTest;

TEST_F(Lifecycle, InitAndExitAreCounted) {
    TraceCapture trc;
    EXPECT_EQ(0, BaseLib_init());  // nested: starts nothing
    BaseLib_exit();                // the matching exit stops nothing
    EXPECT_FALSE(trc.contains("BaseLib_init() beg"));
    EXPECT_FALSE(trc.contains("BaseLib_exit() beg"));
    EXPECT_NE(0u, vek_main_tid());
}

TEST_F(Lifecycle, LastExitStopsServicesAndReportsLeaks) {
    EXPECT_EXIT(
        {
            TraceCapture trc;
            void* leak = vek_malloc__(40);
            (void)leak;
            BaseLib_exit();
            bool ok = trc.contains("BaseLib_exit() beg") && trc.contains("BaseLib_exit() end") &&
                      trc.contains("NOTICE, detect 1 mem leaks in VekHeap") &&
                      trc.contains("LeakChkLev cfg in \"VekDbg.ini\" is 0");
            BaseLib_init();
            ok = ok && trc.contains("BaseLib_init() beg") && trc.contains("[Environment]") &&
                 trc.contains("BaseLib_init() end");
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(Lifecycle, ExtraExitAssertsAndChangesNothing) {
    EXPECT_EXIT(
        {
            BaseLib_exit();
            BaseLib_exit();  // one too many
            bool asserted = vektest::take_assert("ret >= 0");
            EXPECT_EQ(0, BaseLib_init());
            std::_Exit(asserted ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(Lifecycle, InitOffThePrimaryThreadAsserts) {
    EXPECT_EXIT(
        {
            BaseLib_exit();
            std::thread([] { BaseLib_init(); }).join();
            std::_Exit(vektest::take_assert("al_thrd_id() == vek_prim_thrd") ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(Lifecycle, CountersOfTheOsLayerAndManagers) {
    EXPECT_EQ(2, AlOs_init());
    EXPECT_EQ(1, AlOs_exit());
    EXPECT_EQ(2, DbgMng_init());
    EXPECT_EQ(1, DbgMng_exit());
    EXPECT_EQ(2, EvtMng_init());
    EXPECT_EQ(1, EvtMng_exit());
}

TEST_F(Lifecycle, BaseFolderAndConfigurationPaths) {
    std::string fld = vek_base_fld();
    ASSERT_FALSE(fld.empty());
    char sep = VEK_PATH_SEP;
    EXPECT_EQ(fld + sep + "VekSys.ini", vek_sys_rtc_file());
    EXPECT_EQ(fld + sep + "VekDbg.ini", vek_dbg_rtc_file());
    EXPECT_EQ(fld + sep + "VekTrc.ini", vek_trc_rtc_file());
    // The wide form is the same folder.
    char back[4096];
    wcs_buf_to_utf8_str(vek_base_fldw(), -1, back, sizeof back);
    EXPECT_EQ(fld, back);
}

using Assertions = VekTest;

TEST_F(Assertions, TextCarriesFileLineAndExpressionThenGoesOn) {
    TraceCapture trc;
    vek_assert__("a == b", "/some/dir/Widget.cpp", 42);
    auto f = vektest::take_faults();
    ASSERT_EQ(1u, f.size());
    EXPECT_NE(std::string::npos, f[0].find("\n\nAssert FAIL\nSrc: Widget.cpp[42]\nExp: a == b"));
    // The trace record has the indented form with the call stack.
    EXPECT_TRUE(trc.contains("\n    Assert FAIL\n    Src: Widget.cpp[42]\n    Exp: a == b\n    Stack:\n"));
}

TEST_F(Assertions, BackslashPathsAndTheBareForm) {
    TraceCapture trc;
    low_assert__("p != 0", "C:\\src\\Lib\\Thing.cpp", 7);
    auto f = vektest::take_faults();
    ASSERT_EQ(1u, f.size());
    EXPECT_NE(std::string::npos, f[0].find("Src: Thing.cpp[7]\nExp: p != 0"));
    EXPECT_FALSE(trc.contains("Stack:"));  // the bare form writes no trace record
}

TEST_F(Assertions, FaultProcCaptionAndAnswers) {
    static std::string caption;
    vek_fault_hook prev = al_set_fault_hook([](const char* cap, const char*) -> vek_s32 {
        caption = cap;
        return VEK_FAULT_RETRY;
    });
    EXPECT_EQ(VEK_FAULT_RETRY, al_fault_proc("value %d", 5));  // no debugger: just returns
    EXPECT_NE(std::string::npos, caption.find(" FAULT ERROR"));
    al_set_fault_hook(prev);
}

TEST_F(Assertions, AbortEndsTheProcessWithCode3) {
    EXPECT_EXIT(
        {
            use_fault_action("abort");
            vek_assert__("fatal", "x.cpp", 1);
        },
        ::testing::ExitedWithCode(3), "Assert FAIL");
}

TEST_F(Assertions, IgnoreFromTheEnvironmentGoesOn) {
    EXPECT_EXIT(
        {
            use_fault_action("ignore");
            vek_assert__("soft", "x.cpp", 2);
            std::_Exit(7);
        },
        ::testing::ExitedWithCode(7), "Exp: soft");
}

TEST_F(Assertions, CrashExitsEndTheProcess) {
    EXPECT_DEATH(vek_exit(), "");
    EXPECT_DEATH(
        {
            use_fault_action("ignore");
            ObjUtil_crashExit("/a/b/Owner.cpp", 12);
        },
        "obj crash");
    EXPECT_DEATH(
        {
            use_fault_action("ignore");
            win_assert__("hwnd", "/w/Win.cpp", 3);
        },
        "Assert fail \\(win_assert\\)");
}

TEST_F(Assertions, NullVirtualFunctionAssertsAndReturns) {
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, ObjUtil_vfuncNull());
    expect_assert("NULL vfunc called");
}

TEST_F(Assertions, NestedAssertionFallsBackToTheBareForm) {
    // An assertion raised by a trace listener while an assertion is traced.
    struct Ctx {
        static void sink(void*, const char* text, vek_s32) {
            if (std::string(text).find("outer") != std::string::npos) {
                vek_assert__("inner", "n.cpp", 2);
            }
        }
    };
    vek_trc_sink prev = tout_set_sink(Ctx::sink, nullptr);
    vek_assert__("outer", "n.cpp", 1);
    tout_set_sink(prev, nullptr);
    expect_assert("inner");
    expect_assert("outer");
}

#ifndef _WIN32
// Without a hook the environment answers the fault dialog, and without
// either the platform's box (none on POSIX: Ignore). Retry with no debugger
// attached just returns. The text goes to standard error either way.
TEST_F(Assertions, WithoutAHookTheEnvironmentThenIgnoreAnswers) {
    vek_fault_hook prev = al_set_fault_hook(nullptr);
    const char* before = std::getenv("VEK_FAULT_ACTION");
    std::string saved = before ? before : "";
    ::testing::internal::CaptureStderr();
    set_env("VEK_FAULT_ACTION", "retry");
    EXPECT_EQ(VEK_FAULT_RETRY, al_fault_proc("first %d", 1));
    unsetenv("VEK_FAULT_ACTION");
    EXPECT_EQ(VEK_FAULT_IGNORE, al_fault_proc("second %d", 2));
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("first 1"));
    EXPECT_NE(std::string::npos, err.find("second 2"));
    if (before) {
        set_env("VEK_FAULT_ACTION", saved.c_str());
    }
    al_set_fault_hook(prev);
}

#endif

using Utilities = VekTest;

#ifndef _WIN32
// The system debug channel is silent unless VEK_DEBUG_OUTPUT asks for it.
TEST_F(Utilities, DebugOutputOnlyWhenAskedFor) {
    ::testing::internal::CaptureStderr();
    sys_printf("quiet %d\n", 1);
    set_env("VEK_DEBUG_OUTPUT", "1");
    sys_printf("heard %d\n", 2);
    unsetenv("VEK_DEBUG_OUTPUT");
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string::npos, err.find("quiet 1"));
    EXPECT_NE(std::string::npos, err.find("heard 2"));
}
#endif

TEST_F(Utilities, RandomSequenceIsTheClassicRule) {
    vek_srand(1);
    const vek_s32 expected[] = {16838, 5758, 10113, 17515, 31051, 5627, 23010, 7419};
    for (vek_s32 v : expected) {
        EXPECT_EQ(v, vek_rand());
    }
    vek_srand(12345);
    for (int i = 0; i < 1000; i++) {
        vek_s32 r = vek_rand();
        ASSERT_TRUE(r >= 0 && r <= 32767);
    }
    vek_srand(1);
    vek_u8 buf[3];
    vek_rand_buf(buf, 3);
    EXPECT_EQ((vek_u8)16838, buf[0]);
    EXPECT_EQ((vek_u8)5758, buf[1]);
    EXPECT_EQ((vek_u8)10113, buf[2]);
}

TEST_F(Utilities, GlobalHandlesSkipZeroAndAllOnes) {
    AlAtom counter = (AlAtom)0xFFFFFFFDu;
    EXPECT_EQ(0xFFFFFFFEu, vek::glb_hnd_next(&counter));
    EXPECT_EQ(1u, vek::glb_hnd_next(&counter));  // skips all ones and zero
    EXPECT_EQ(2u, vek::glb_hnd_next(&counter));
    std::set<vek_u32> seen;
    for (int i = 0; i < 1000; i++) {
        vek_u32 h = vek_glb_hnd();
        ASSERT_NE(0u, h);
        ASSERT_NE(0xFFFFFFFFu, h);
        ASSERT_TRUE(seen.insert(h).second);
    }
}

TEST_F(Utilities, ClockAndSleep) {
    vek_u32 t0 = vek_msec();
    vek_sleep(30);
    vek_u32 dt = vek_msec() - t0;
    EXPECT_GE(dt, 25u);
    EXPECT_LT(dt, 5000u);
    EXPECT_EQ(al_thrd_id(), vek_main_tid());  // the tests run on the primary thread
}

// The OS layer's plain helpers at their edges, alike on every platform.
TEST_F(Utilities, OsLayerEdges) {
    EXPECT_EQ(nullptr, AlMutex_new(nullptr));
    AlMutex mx;
    AlMutex_new(&mx);
    EXPECT_NE(0, AlMutex_trylock(&mx));
    EXPECT_NE(0, AlMutex_trylock(&mx));  // recursive
    AlMutex_unlock(&mx);
    AlMutex_unlock(&mx);
    AlMutex_delete(&mx);
    al_sleep(0);  // a yield
    vek_wchar w[4] = {'x', 'x', 'x', 'x'};
    char a[4] = "xx";
    EXPECT_EQ(0, al_ansi_to_wcs("abc", -1, nullptr, 4));
    EXPECT_EQ(0, al_ansi_to_wcs(nullptr, -1, w, 4));
    EXPECT_EQ(0, w[0]);
    EXPECT_EQ(3, al_ansi_to_wcs("abcdef", 3, w, 4));
    EXPECT_EQ(0, w[3]);
    EXPECT_EQ(0, al_wcs_to_ansi(w, -1, nullptr, 4));
    EXPECT_EQ(0, al_wcs_to_ansi(nullptr, -1, a, 4));
    EXPECT_EQ(0, a[0]);
    EXPECT_EQ(2, al_wcs_to_ansi(w, 2, a, 4));
    EXPECT_STREQ("ab", a);
}

// Every code of the library reads as its own short text; -51 names both
// of its families; codes nobody defines read as unknown.
TEST_F(Utilities, ErrorTexts) {
    const vek_s32 codes[] = {-1, -5, -9, -12, -23, -25, -36, -51, -64, -81, -94, -95,
                             -103, -111, -112, -125, -201, -202, -251, -602};
    const std::string unknown = vek_err_text(-7);
    std::set<std::string> seen;
    for (vek_s32 c : codes) {
        std::string t = vek_err_text(c);
        EXPECT_TRUE(!t.empty() && t != unknown && seen.insert(t).second) << c << ": " << t;
    }
    EXPECT_EQ("timed out", std::string(vek_err_text(VEK_ERR_TIMEOUT)));
    EXPECT_EQ("not found", std::string(vek_err_text(VEK_ERR_NOT_FOUND)));
    std::string both = vek_err_text(-51);
    EXPECT_TRUE(both.find("no free slot") != std::string::npos && both.find("wait failed") != std::string::npos)
        << both;
    EXPECT_EQ("success", std::string(vek_err_text(0)));
    EXPECT_EQ("success", std::string(vek_err_text(3)));
    EXPECT_EQ(unknown, std::string(vek_err_text(-100000)));
    EXPECT_NE(std::string::npos, unknown.find("unknown"));
}

TEST_F(Utilities, EnvironmentRecord) {
    VekEnvInfo e;
    ASSERT_EQ(0, vek_env_info(&e));
    EXPECT_TRUE(e.wordBits == 32 || e.wordBits == 64);
    EXPECT_GT(e.memTotalMB, 0.0);
    EXPECT_STRNE("", e.osName);
    EXPECT_STRNE("", e.language);
    TinyStr t;
    TinyStr_new(&t);
    EXPECT_GT(vek_env_text(&t), 0);
    std::regex shape("\n    \\[Environment\\]\n    System: .* \\(Type=(32|64)bit, Build=[0-9]+ .*\\)\n"
                     "    Language: .+\n    Memory: Total=[0-9]+M, Free=[0-9]+M\n");
    EXPECT_TRUE(std::regex_match(std::string(TinyStr_buf(&t)), shape)) << TinyStr_buf(&t);
    TinyStr_delete(&t);
}

using CallStack = VekTest;

TEST_F(CallStack, LinesHaveTheDocumentedShape) {
    TinyStr t;
    TinyStr_new(&t);
    vek_s32 n = stack_probe(&t, nullptr, 0);
    ASSERT_GT(n, 0);
    EXPECT_EQ(n, TinyStr_len(&t));
    std::regex line("  > (.+\\[[0-9]+\\]: .+\\(\\)|(0x)?[0-9a-fA-F]+ \\(file/line unkn\\): .+\\(\\))");
    std::string text = TinyStr_buf(&t);
    size_t start = 0;
    int lines = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        ASSERT_NE(std::string::npos, end);
        std::string l = text.substr(start, end - start);
        EXPECT_TRUE(std::regex_match(l, line)) << l;
        EXPECT_EQ(std::string::npos, l.find("vek_out_call_stack"));
        start = end + 1;
        lines++;
    }
    EXPECT_GE(lines, 2);
    TinyStr_delete(&t);
}

TEST_F(CallStack, NamedFunctionIsLeftOutAndTheLimitEndsTheList) {
    TinyStr all, skipped, cut;
    TinyStr_new(&all);
    TinyStr_new(&skipped);
    TinyStr_new(&cut);
    stack_probe(&all, nullptr, 0);
    stack_probe(&skipped, "stack_probe", 0);
    bool named = std::string(TinyStr_buf(&all)).find("stack_probe()") != std::string::npos;
    if (named) {  // where symbols are available, the probe is named and can be skipped
        EXPECT_EQ(std::string::npos, std::string(TinyStr_buf(&skipped)).find("stack_probe()"));
    }
    stack_probe(&cut, nullptr, 1);
    std::string c = TinyStr_buf(&cut);
    EXPECT_NE(std::string::npos, c.find("(discard for limit, max=1)\n"));
    EXPECT_EQ(c.size() - 1, c.find('\n', c.find("max=1")));  // the last line
    TinyStr_delete(&all);
    TinyStr_delete(&skipped);
    TinyStr_delete(&cut);
}

TEST_F(CallStack, CaptureAndFormat) {
    void* addrs[16];
    vek_s32 n = vek_get_call_stack(addrs, 16, 0);
    ASSERT_GT(n, 0);
    TinyStr t;
    TinyStr_new(&t);
    EXPECT_GT(vek_fmt_call_stack(&t, addrs, n, "# "), 0);
    EXPECT_EQ(0, std::string(TinyStr_buf(&t)).rfind("# ", 0));
    TinyStr_delete(&t);
}
