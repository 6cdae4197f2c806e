/*
 * String utilities: comparison without case, searching, skipping sets,
 * paths, and the printf engine.
 */
#include <cstring>
#include <string>
#include "VekTest.h"

namespace {

std::u16string w(const char* s) {
    std::u16string r;
    while (*s) {
        r += (char16_t)(unsigned char)*s++;
    }
    return r;
}
const vek_wchar* wp(const std::u16string& s) {
    return (const vek_wchar*)s.c_str();
}

struct Collect {
    std::string text;
    int calls = 0;
    int maxPiece = 0;
    static vek_s32 sink(void* obj, const char* bytes, vek_s32 n) {
        Collect* c = (Collect*)obj;
        c->text.append(bytes, (size_t)n);
        c->calls++;
        c->maxPiece = n > c->maxPiece ? n : c->maxPiece;
        return n;
    }
};

vek_s32 fmt(Collect& c, const char* f, ...) {
    va_list va;
    va_start(va, f);
    vek_s32 n = str_fmt_out(&c, Collect::sink, f, va);
    va_end(va);
    return n;
}

} // namespace

using StrCompare = VekTest;

TEST_F(StrCompare, CaseBlindComparisonFoldsAsciiOnly) {
    EXPECT_EQ(0, vek_stricmp("Hello", "hELLO"));
    EXPECT_LT(vek_stricmp("abc", "abd"), 0);
    EXPECT_EQ('_' - 'A', vek_stricmp("_", "a"));  // folded to upper case before comparing
    EXPECT_NE(0, vek_stricmp("\xC3\xA9", "\xC3\x89"));  // é and É differ: not ASCII
    EXPECT_EQ(0, vek_strincmp("abcX", "ABCy", 3));
    EXPECT_EQ(0, vek_strincmp("a", "b", 0));
}

TEST_F(StrCompare, SearchWithoutCase) {
    const char* s = "Hello World";
    EXPECT_EQ(s + 6, vek_stristr(s, "wORLD"));
    EXPECT_EQ(s, vek_stristr(s, ""));
    EXPECT_EQ(nullptr, vek_stristr(s, "worlds"));
    std::u16string ws = w("Hello World");
    EXPECT_EQ(wp(ws) + 4, vek_wcsistr(wp(ws), wp(w("O w"))));
}

TEST_F(StrCompare, SkippingSets) {
    const char* s = " \t\r\nabc \n";
    EXPECT_EQ(s + 4, str_skip_space(s, -1, nullptr));
    EXPECT_EQ(s, str_skip_space(s, 0, nullptr));
    EXPECT_EQ(s + 2, str_skip_space(s, 2, nullptr));  // stops after len characters
    EXPECT_EQ(s + 7, str_rskip_space(s, -1, ""));
    EXPECT_EQ(s + 1, str_skip_space(s, -1, " "));
    const char* all = "xxxx";
    EXPECT_EQ(all, str_rskip_space(all, -1, "x"));
    EXPECT_EQ(all + 4, str_skip_space(all, -1, "x"));
    std::u16string ws = w("--ab--");
    std::u16string dash = w("-");
    EXPECT_EQ(wp(ws) + 2, wcs_skip_space(wp(ws), -1, wp(dash)));
    EXPECT_EQ(wp(ws) + 4, wcs_rskip_space(wp(ws), -1, wp(dash)));
}

TEST_F(StrCompare, PathNames) {
    EXPECT_STREQ("file.txt", str_path_name("dir/sub\\file.txt"));
    EXPECT_STREQ("", str_path_name("C:"));
    EXPECT_STREQ("C:x", str_path_name("C:x"));
    EXPECT_STREQ("name", str_path_name("name"));
}

using Formatter = VekTest;

TEST_F(Formatter, ConversionsFollowTheCRuntime) {
    Collect c;
    EXPECT_EQ(54, fmt(c, "%d|%5s|%-4c|%08.3f|%x|%lld|%%|%.2s|%u", -7, "ab", 'z', 3.14159, 255,
                      -12345678901LL, "xyz", 4000000000u));
    EXPECT_EQ("-7|   ab|z   |0003.142|ff|-12345678901|%|xy|4000000000", c.text);
}

TEST_F(Formatter, StarWidthsUnknownConversionsAndNulls) {
    Collect c;
    fmt(c, "[%*d][%-*d][%.*s][%s][%y]", 4, 7, 3, 8, 1, "abc", (const char*)nullptr);
    EXPECT_EQ("[   7][8  ][a][(null)][%y]", c.text);
}

TEST_F(Formatter, WideArgumentsBecomeUtf8) {
    Collect c;
    const vek_wchar euro[] = {0x20AC, 'x', 0};
    fmt(c, "%ls|%S|%lc|%3ls", euro, euro, (int)0xE9, euro);
    EXPECT_EQ("\xE2\x82\xACx|\xE2\x82\xACx|\xC3\xA9|\xE2\x82\xACx", c.text);
}

TEST_F(Formatter, OutputIsStagedInPiecesOfAtMost255) {
    Collect c;
    std::string big(1000, 'q');
    EXPECT_EQ(1003, fmt(c, "<%s>%c", big.c_str(), '!'));
    EXPECT_EQ("<" + big + ">!", c.text);
    EXPECT_LE(c.maxPiece, 255);
    EXPECT_GE(c.calls, 4);
}

TEST_F(Formatter, SinkErrorsStopTheOutput) {
    struct Fail {
        static vek_s32 sink(void*, const char*, vek_s32) { return -94; }
    };
    va_list none{};
    (void)none;
    auto run = [](const char* f, ...) {
        va_list va;
        va_start(va, f);
        vek_s32 r = str_fmt_out(nullptr, Fail::sink, f, va);
        va_end(va);
        return r;
    };
    EXPECT_EQ(-94, run("%s", "data"));
}

TEST_F(Formatter, WideEngine) {
    struct WCollect {
        std::u16string text;
        static vek_s32 sink(void* obj, const vek_wchar* u, vek_s32 n) {
            ((WCollect*)obj)->text.append((const char16_t*)u, (size_t)n);
            return n;
        }
    };
    auto run = [](WCollect& c, const vek_wchar* f, ...) {
        va_list va;
        va_start(va, f);
        vek_s32 r = wcs_fmt_out(&c, WCollect::sink, f, va);
        va_end(va);
        return r;
    };
    WCollect c;
    std::u16string f = w("%s/%hs/%d/%c");
    const vek_wchar wide[] = {'W', 0x4E2D, 0};
    EXPECT_EQ(11, run(c, wp(f), wide, "\xC3\xA9t\xC3\xA9", 42, (int)0x4E2D));
    EXPECT_EQ(std::u16string(u"W\u4E2D/\u00E9t\u00E9/42/\u4E2D"), c.text);
}

TEST_F(Formatter, BoundedFormattingCutsSilently) {
    char buf[8];
    EXPECT_EQ(7, vek_snprintf(buf, sizeof buf, "%s", "abcdefghijklmnopqrst"));
    EXPECT_STREQ("abcdefg", buf);
    vek_s32 cut = -1;
    EXPECT_EQ(7, vek_sxprintf(buf, sizeof buf, &cut, "%d", 123456789));
    EXPECT_EQ(1, cut);
    EXPECT_EQ(3, vek_sxprintf(buf, sizeof buf, &cut, "%d", 123));
    EXPECT_EQ(0, cut);
    EXPECT_STREQ("123", buf);
}
