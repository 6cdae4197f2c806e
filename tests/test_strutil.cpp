/*
 * String utilities: comparison without case, searching, skipping sets,
 * paths, and the printf engine.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "VekTest.h"

namespace {

// Widens Latin-1 text (the tests' 8-bit literals are ASCII or Latin-1).
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
const vek_wchar* wp(const char16_t* s) {
    return (const vek_wchar*)s;
}
vek_wchar* mp(std::u16string& s) {
    return (vek_wchar*)s.data();
}
std::u16string u16(const vek_wchar* s) {
    return std::u16string((const char16_t*)s);
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

TEST_F(StrCompare, WideComparisonAndSearch) {
    EXPECT_EQ(0, vek_wcsicmp(wp(w("Straße")), wp(w("STRAßE"))));
    EXPECT_GT(vek_wcscmp(wp(w("b")), wp(w("B"))), 0);
    EXPECT_EQ(0x4E2D - 'A', vek_wcscmp(wp(u"\u4E2D"), wp(w("A"))));  // units compare unsigned
    EXPECT_EQ(0, vek_wcsincmp(wp(w("abX")), wp(w("ABy")), 2));
    std::u16string s = w("xAbc abc");
    // The first unit must match exactly, only the rest is case-blind.
    EXPECT_EQ(wp(s) + 5, vek_wcsstr(wp(s), wp(w("aBC"))));
    EXPECT_EQ(wp(s) + 1, vek_wcsistr(wp(s), wp(w("aBC"))));
    EXPECT_EQ(wp(s), vek_wcsstr(wp(s), wp(w(""))));
    EXPECT_EQ(nullptr, vek_wcsstr(wp(s), wp(w("XAB"))));
    EXPECT_EQ(wp(s), vek_wcsistr(wp(s), wp(w("XAB"))));
    EXPECT_EQ(8, vek_wcslen(wp(s)));
    EXPECT_EQ(0, vek_wcslen(nullptr));
}

TEST_F(StrCompare, SuffixesAndCharacterClasses) {
    EXPECT_EQ(0, vek_sfxcmp("file.txt", ".txt"));
    EXPECT_EQ(1, vek_sfxcmp("file.txt", ".TXT"));
    EXPECT_EQ(0, vek_sfxicmp("file.txt", ".TXT"));
    EXPECT_EQ(0, vek_sfxcmp("abc", "abc"));
    EXPECT_EQ(1, vek_sfxcmp("abc", ""));
    EXPECT_EQ(1, vek_sfxcmp("bc", "abc"));
    EXPECT_ASSERT("s && sfx", EXPECT_EQ(1, vek_sfxcmp(nullptr, "a")));
    EXPECT_EQ(1, vek_str_all_ascii("plain \x7F"));
    EXPECT_EQ(0, vek_str_all_ascii("caf\xC3\xA9"));
    EXPECT_EQ(1, vek_isdigits(""));
    EXPECT_EQ(1, vek_isdigits("0123456789"));
    EXPECT_EQ(0, vek_isdigits("12a"));
}

TEST_F(StrCompare, ReplacingAndFindingCharacters) {
    char s[] = "a-b_c-d";
    EXPECT_EQ(2, vek_strrepc(s, '-', '+'));
    EXPECT_STREQ("a+b_c+d", s);
    EXPECT_EQ(0, vek_strrepc(s, 0, 'x'));
    EXPECT_EQ(3, vek_strrepcs(s, "+_", ' '));
    EXPECT_STREQ("a b c d", s);
    std::u16string ws = w("a/b\\c");
    EXPECT_EQ(1, vek_wcsrepc(mp(ws), '\\', '/'));
    EXPECT_EQ(2, vek_wcsrepcs(mp(ws), wp(w("/")), '.'));
    EXPECT_EQ(u"a.b.c", ws);
    EXPECT_EQ(wp(ws) + 1, vek_wcschr(wp(ws), '.'));
    EXPECT_EQ(wp(ws) + 3, vek_wcsrchr(wp(ws), '.'));
    EXPECT_EQ(wp(ws) + 5, vek_wcsrchr(wp(ws), 0));
    EXPECT_EQ(nullptr, vek_wcschr(wp(ws), 'x'));

    const char* path = "dir/sub\\name.ext";
    EXPECT_EQ(path + 7, vek_strrchrs(path, "/\\"));
    EXPECT_EQ(path + 7, vek_strrchrx(path, '/', '\\'));
    EXPECT_EQ(nullptr, vek_strrchrs(path, ""));
    EXPECT_EQ(nullptr, vek_strrchrs("", "/"));
    EXPECT_EQ(nullptr, vek_strrchrx(path, 'q', 0));
    EXPECT_ASSERT("s && set", EXPECT_EQ(nullptr, vek_strrchrs(nullptr, "/")));
    EXPECT_ASSERT("s", EXPECT_EQ(nullptr, vek_strrchrx(nullptr, '/', '\\')));
    EXPECT_EQ(path + 3, vek_strpbrk(path, "\\/"));
    EXPECT_EQ(nullptr, vek_strpbrk(path, "#"));

    char digits[8];
    EXPECT_EQ(4, vek_get_digits("2024-01", digits, -1));
    EXPECT_STREQ("2024", digits);
    EXPECT_EQ(2, vek_get_digits("2024", digits, 2));
    EXPECT_STREQ("20", digits);
}

TEST_F(StrCompare, SplittingKeepsOrMergesEmptyFields) {
    char a[] = "a,,b;c";
    char* p = a;
    std::vector<std::string> fields;
    while (char* f = vek_strsep(&p, ",;")) {
        fields.push_back(f);
    }
    EXPECT_EQ((std::vector<std::string>{"a", "", "b", "c"}), fields);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(nullptr, vek_strsep(&p, ","));

    char b[] = "  one  two ";
    p = b;
    fields.clear();
    while (char* t = vek_strtok(&p, " ")) {
        fields.push_back(t);
    }
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), fields);
    EXPECT_EQ(nullptr, p);
    char c[] = "last";
    p = c;
    EXPECT_STREQ("last", vek_strtok(&p, ","));
    EXPECT_EQ(c + 4, p);  // left on the terminator, so the next call ends
    EXPECT_EQ(nullptr, vek_strtok(&p, ","));
}

TEST_F(StrCompare, CopiesAndCase) {
    char* d = vek_strdup("text");
    EXPECT_STREQ("text", d);
    vek_free__(d);
    EXPECT_EQ(nullptr, vek_strdup(nullptr));
    d = vek_strdupx("abcdef", 3);
    EXPECT_STREQ("abc", d);
    vek_free__(d);
    d = vek_strdupx("ab", 5);  // never reads past the terminator
    EXPECT_STREQ("ab", d);
    vek_free__(d);
    EXPECT_ASSERT("s", EXPECT_EQ(nullptr, vek_strdupx(nullptr, 2)));
    vek_wchar* wd = vek_wcsdupx(wp(w("wide")), 2);
    EXPECT_EQ(u"wi", u16(wd));
    vek_free__(wd);

    char buf[4];
    EXPECT_EQ(3, vek_strxfrm(buf, "abcdef", sizeof buf));
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ(0, vek_strxfrm(buf, "z", 0));

    char mixed[] = "Caf\xC3\xA9 Ok";
    EXPECT_STREQ("CAF\xC3\xA9 OK", vek_strupr(mixed));
    EXPECT_STREQ("caf\xC3\xA9 ok", vek_strlwr(mixed));
    std::u16string wm = u"\u00C9a";
    EXPECT_EQ(u"\u00C9A", u16(vek_wcsupr(mp(wm))));
    EXPECT_EQ(u"\u00C9a", u16(vek_wcslwr(mp(wm))));
}

TEST_F(StrCompare, TrimmingInPlace) {
    char a[] = " \t text \t\n";
    EXPECT_STREQ("text \t\n", vek_strtrim(a));  // line ends stay
    char b[] = "\r\n text \n";
    EXPECT_STREQ("text", vek_str_trim_ext(b, nullptr));
    char c[] = "xxabcxx";
    EXPECT_STREQ("abc", vek_str_trim_ext(c, "x"));
    char d[] = " \t ";
    EXPECT_STREQ("", vek_strtrim(d));

    const char* s = "  word  ";
    const char* beg = nullptr;
    const char* end = nullptr;
    EXPECT_EQ(&end, vek_str_trim_try_ext(s, " ", &beg, &end));
    EXPECT_EQ(s + 2, beg);
    EXPECT_EQ(s + 5, end);  // the last kept character, not one past it
    vek_str_trim_try("   ", &beg, &end);
    EXPECT_EQ(beg, end);
    vek_str_trim_try(" x\n", &beg, &end);
    EXPECT_EQ('\n', *end);  // only spaces and tabs by default

    char e[] = "a b\tc d";
    EXPECT_STREQ("abcd", vek_str_trim_chars(e, nullptr));
    std::u16string we = w("-a-b-");
    EXPECT_EQ(u"ab", u16(vek_wcs_trim_chars(mp(we), wp(w("-")))));

    char q1[] = "\"\"";
    EXPECT_STREQ("", vek_qstr_trim(q1));
    char q2[] = "\"word\"";
    EXPECT_STREQ("word", vek_qstr_trim(q2));
    char q3[] = "\"open";
    EXPECT_STREQ("open", vek_qstr_trim(q3));
    char q4[] = "word\"";
    EXPECT_STREQ("word\"", vek_qstr_trim(q4));
    std::u16string wq = w("\"w\"");
    EXPECT_EQ(u"w", u16(vek_qwcs_trim(mp(wq))));
}

TEST_F(StrCompare, SkippingBothEnds) {
    const char* s = "  ab c \n tail";
    const char* beg;
    const char* end;
    EXPECT_EQ(4, str_bskip_space(s, 9, &beg, &end, nullptr));
    EXPECT_EQ(s + 2, beg);
    EXPECT_EQ(s + 6, end);
    EXPECT_EQ(0, str_bskip_space(" \t ", -1, &beg, &end, nullptr));
    EXPECT_EQ(beg, end);
    EXPECT_ASSERT("s && beg && end", EXPECT_EQ(0, str_bskip_space(s, -1, nullptr, &end, nullptr)));
    std::u16string ws = w("..x.y..");
    const vek_wchar* wb;
    const vek_wchar* we;
    EXPECT_EQ(3, wcs_bskip_space(wp(ws), -1, &wb, &we, wp(w("."))));
    EXPECT_EQ(wp(ws) + 2, wb);
}

TEST_F(StrCompare, PathNames) {
    EXPECT_STREQ("file.txt", str_path_name("dir/sub\\file.txt"));
    EXPECT_STREQ("", str_path_name("C:"));
    EXPECT_STREQ("C:x", str_path_name("C:x"));
    EXPECT_STREQ("name", str_path_name("name"));
    EXPECT_STREQ("", str_path_name("dir/"));
    EXPECT_EQ(u"f", u16(wcs_path_name(wp(w("a\\b/f")))));
    EXPECT_EQ(u"", u16(wcs_path_name(wp(w("D:")))));
    EXPECT_ASSERT("path", EXPECT_STREQ("", str_path_name(nullptr)));
}

TEST_F(StrCompare, TextBetweenMarkers) {
    const char* text = "<B>bold</b> and <B></B> x";
    char out[16] = "junk";
    EXPECT_EQ(text + 7, vek_str_between(out, sizeof out, text, "<b>", "</B>"));
    EXPECT_STREQ("bold", out);
    EXPECT_EQ(text + 2, vek_str_between(out, sizeof out, text, nullptr, ">"));
    EXPECT_STREQ("<B", out);
    // An empty match, a missing marker or an empty tail copy nothing.
    EXPECT_EQ(nullptr, vek_str_between(out, sizeof out, text + 11, "<B>", "</B>"));
    EXPECT_STREQ("", out);
    EXPECT_EQ(nullptr, vek_str_between(out, sizeof out, text, "<i>", "</i>"));
    EXPECT_EQ(nullptr, vek_str_between(out, sizeof out, text, "<b>", ""));
    EXPECT_EQ(nullptr, vek_str_between(out, sizeof out, text, "<b>", nullptr));
    EXPECT_EQ(nullptr, vek_str_between(out, sizeof out, text, "<b>", "<q>"));
    // Bounded like vek_strxfrm; the result still points at the tail.
    char small[3];
    EXPECT_EQ(text + 7, vek_str_between(small, sizeof small, text, "<b>", "</b>"));
    EXPECT_STREQ("bo", small);
    // The output may be the text itself.
    char self[] = "key=[value];";
    EXPECT_EQ(self + 10, vek_str_between(self, sizeof self, self, "[", "]"));
    EXPECT_STREQ("value", self);
    EXPECT_ASSERT("text", EXPECT_EQ(nullptr, vek_str_between(out, sizeof out, nullptr, "a", "b")));

    std::u16string wt = w("x(Y)z");
    vek_wchar wout[8];
    EXPECT_EQ(wp(wt) + 3, vek_wcs_between(wout, 8, wp(wt), wp(w("(")), wp(w(")"))));
    EXPECT_EQ(u"Y", u16(wout));
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

// Every numeric directive must read exactly as the C runtime prints it, also
// with widths too large for the engine's byte buffer (padded by the engine).
TEST_F(Formatter, NumbersMatchSnprintf) {
    struct Case {
        const char* fmt;
        long long v;
    };
    const Case ints[] = {{"%+d", 5},     {"% d", 5},     {"%#o", 8},       {"%#X", 255},
                         {"%hhd", 300},  {"%hd", 70000}, {"%-6d|", -3},    {"%06d", -42},
                         {"%.4x", 10},   {"%08.3d", 7},  {"%600d", -12},   {"%-600d|", 12},
                         {"%0600d", -12}, {"%#0600x", 255}, {"%0600.3d", 7}, {"%+0600i", 9}};
    for (const Case& c : ints) {
        Collect out;
        char want[1024];
        int n = std::snprintf(want, sizeof want, c.fmt, (int)c.v);
        EXPECT_EQ(n, fmt(out, c.fmt, (int)c.v)) << c.fmt;
        EXPECT_EQ(want, out.text) << c.fmt;
    }
    const char* floats[] = {"%e", "%.3E", "%g", "%G", "%10.2f", "%-10.1f|", "%0700.2f", "%a"};
    for (const char* f : floats) {
        Collect out;
        char want[1024];
        std::snprintf(want, sizeof want, f, -1234.5678);
        fmt(out, f, -1234.5678);
        EXPECT_EQ(want, out.text) << f;
    }
    Collect out;
    char want[256];
    std::snprintf(want, sizeof want, "%lu %zu %jd %td %llx ", 1UL << 31, sizeof(Case),
                  (intmax_t)-5, (ptrdiff_t)-6, 0xABCDEF0123ULL);
    fmt(out, "%lu %zu %jd %td %I64x %p", 1UL << 31, sizeof(Case), (intmax_t)-5, (ptrdiff_t)-6,
        0xABCDEF0123ULL, (void*)&out);
    EXPECT_EQ(want, out.text.substr(0, std::strlen(want)));
    // Runtimes differ in how %p looks (prefix, padding), not in its value.
    EXPECT_EQ((unsigned long long)(uintptr_t)&out,
              std::strtoull(out.text.c_str() + std::strlen(want), nullptr, 16));
    // The common integer directives are rendered without the runtime; over
    // random values, flags, widths and sizes they must read as its own.
    const char* flags[] = {"", "-", "0", "-0"};
    const char* convs = "diuxX";
    unsigned long long seed = 88172645463325252ull;
    for (int i = 0; i < 4000; i++) {
        seed ^= seed << 13, seed ^= seed >> 7, seed ^= seed << 17;
        long long v = (long long)(seed >> (seed % 64));
        if (seed & 1) {
            v = -v;
        }
        char dir[24], want[64];
        char c = convs[seed % 5];
        int w = (int)(seed >> 8) % 24;
        const char* f = flags[(seed >> 16) % 4];
        Collect got;
        switch ((seed >> 20) % 3) {
        case 0:
            std::snprintf(dir, sizeof dir, "%%%s%d%c|", f, w, c);
            std::snprintf(want, sizeof want, dir, (int)v);
            fmt(got, dir, (int)v);
            break;
        case 1:
            std::snprintf(dir, sizeof dir, "%%%s%dl%c|", f, w, c);
            std::snprintf(want, sizeof want, dir, (long)v);
            fmt(got, dir, (long)v);
            break;
        default:
            std::snprintf(dir, sizeof dir, "%%%s%dll%c|", f, w, c);
            std::snprintf(want, sizeof want, dir, v);
            fmt(got, dir, v);
        }
        ASSERT_EQ(want, got.text) << dir << " " << v;
    }
}

// A negative "*" width is the "-" flag with the positive width, for numbers
// as for text, in the 8-bit and the 16-bit engines alike.
TEST_F(Formatter, NegativeStarWidthAlignsLeft) {
    char buf[64];
    char want[64];
    vek_snprintf(buf, sizeof buf, "[%*d][%*x][%*.2f][%*.*d][%0*d][%*s][%*c]", -5, 42, -4, 255, -7,
                 1.5, -6, 3, 7, -5, 42, -4, "ab", -3, 'z');
    std::snprintf(want, sizeof want, "[%*d][%*x][%*.2f][%*.*d][%0*d][%*s][%*c]", -5, 42, -4, 255, -7,
                  1.5, -6, 3, 7, -5, 42, -4, "ab", -3, 'z');
    EXPECT_STREQ(want, buf);
    VekWcs w;
    VekWcs_new(&w);
    VekWcs_printf(&w, (const vek_wchar*)u"[%*d][%0*x][%*.1f]", -4, 7, -3, 10, 5, 2.3);
    EXPECT_EQ(std::u16string(u"[7   ][a  ][  2.3]"), std::u16string((const char16_t*)VekWcs_buf(&w)));
    VekWcs_delete(&w);
}

TEST_F(Formatter, OverlongPrecisionIsAssertedAndCut) {
    Collect c;
    EXPECT_ASSERT("precision < (int)sizeof(byteBuf) - 32", fmt(c, "%.600d", 1));
    EXPECT_EQ(479u, c.text.size());
    Collect d;
    EXPECT_EQ(3, fmt(d, "%.600s", "abc"));  // strings have no such limit
}

TEST_F(Formatter, StagingBoundary) {
    // 254 pending bytes stay staged, the 255th hands them on; a sink never
    // sees a piece larger than the stage, whatever the mix of parts.
    for (int lit : {253, 254, 255, 256}) {
        Collect c;
        std::string f(lit, 'a');
        f += "%s%d";
        EXPECT_EQ(lit + 4, fmt(c, f.c_str(), "xyz", 7));
        EXPECT_EQ(std::string(lit, 'a') + "xyz7", c.text);
        EXPECT_LE(c.maxPiece, 255);
        EXPECT_EQ(lit + 4 > 255 ? 2 : 1, c.calls) << lit;
    }
}
