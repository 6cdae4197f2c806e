/*
 * VekStr: block sizes, copy-on-write sharing, fixed buffers, the set and
 * append rules, numbers, formatting, searching, streams, the functions
 * that fill a string, and the RPC wire form. The mechanics shared with
 * VekWcs are tested here once; test_vekwcs.cpp covers what differs.
 */
#include <cstring>
#include <string>
#include <thread>
#include <vector>
#include "StrmTest.h"

namespace {

struct Str {
    VekStr s;
    Str() { VekStr_new(&s); }
    explicit Str(const char* t) { VekStr_setStr(VekStr_new(&s), t); }
    ~Str() {
        if (s.magic) {
            VekStr_delete(&s);
        }
    }
    std::string text() const { return std::string(VekStr_buf(&s), (size_t)VekStr_len(&s)); }
};

// A string and its fixed buffer declared as one record: the buffer lies
// directly behind the object.
struct InlineStr {
    VekStr s;
    alignas(4) char buf[STRDATA_HDR + 32];
    InlineStr() { StrExt_new__(&s, buf, 32); }
    ~InlineStr() { VekStr_delete(&s); }
};

vek_s64 live_blocks() {
    VekHeapStat st;
    vek_heap_stat(&st);
    return st.liveBlocks;
}

vek_s32 size_for(vek_s32 capa, vek_s32 rsv) {
    VekStr s;
    VekStr_newx(&s, capa, rsv);
    vek_s32 size = VekStr_size(&s);
    VekStr_delete(&s);
    return size;
}

} // namespace

using VekStrTest = VekTest;

static_assert(offsetof(StrData, buf) == 16 && offsetof(WcsData, buf) == 16, "block header");
static_assert(offsetof(VekStr, magic) == sizeof(void*), "data pointer, then magic");
static_assert(sizeof(void*) != 4 || (sizeof(VekStr) == 8 && sizeof(VekWcs) == 8),
              "two 32-bit words on 32-bit builds");

TEST_F(VekStrTest, EmptyStringAllocatesNothing) {
    vek_s64 before = live_blocks();
    Str a, b;
    EXPECT_EQ(SDATA_NULL, a.s.data);
    EXPECT_EQ(VEKSTR_MARK, a.s.magic);
    EXPECT_EQ(0, VekStr_len(&a.s) + VekStr_size(&a.s) + VekStr_capa(&a.s));
    EXPECT_STREQ("", VekStr_buf(&a.s));
    VekStr_clear(&a.s);
    VekStr_trunc(&a.s, 0);
    VekStr_setCstr(&b.s, &a.s);
    EXPECT_EQ(before, live_blocks());
    EXPECT_EQ(1, StrData_chkNull());
    EXPECT_EQ(1, WcsData_chkNull());
}

TEST_F(VekStrTest, BlockSizesFollowTheReserveRule) {
    const vek_s32 cases[][3] = {{10, 0, 64},  {64, 0, 128},  {100, 0, 192},  {600, 0, 1104},
                                {10, 1, 32},  {10, 2, 64},   {10, 3, 128},   {10, 4, 256},
                                {10, 5, 512}, {10, 6, 1024}, {0, 0, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(c[2], size_for(c[0], c[1])) << "need " << c[0] << ", mode " << c[1];
    }
    EXPECT_ASSERT("rsv <= 6", EXPECT_EQ(64, size_for(10, 7)));

    // Appending: 64 spare cells, then doubling, then 512 more at a time.
    // Unshared blocks are resized in place rather than copied; the text
    // must survive every resize, whatever the piece sizes.
    Str s;
    std::vector<vek_s32> sizes{0};
    std::string want;
    for (int i = 0; want.size() < 3000000; i++) {
        char piece[40];
        piece[0] = (char)('a' + i % 26);
        int n = i < 2100 ? 1 : std::snprintf(piece, sizeof piece, "<%d:%.*s>", i, i % 23, "abcdefghijklmnopqrstuvw");
        VekStr_appdStrx(&s.s, piece, n);
        want.append(piece, (size_t)n);
        if (sizes.back() != VekStr_size(&s.s)) {
            sizes.push_back(VekStr_size(&s.s));
        }
    }
    EXPECT_EQ((std::vector<vek_s32>{0, 64, 128, 256, 512, 1024, 1536, 2048, 2560}),
              std::vector<vek_s32>(sizes.begin(), sizes.begin() + 9));
    for (size_t k = 9; k < sizes.size(); k++) {
        ASSERT_TRUE(sizes[k] - sizes[k - 1] >= 512 && sizes[k] - sizes[k - 1] < 560) << k;
    }
    EXPECT_TRUE(want == s.text());

    EXPECT_EQ(0, VekStr_setRsv(&s.s, 7));
    EXPECT_EQ(1, VekStr_setRsv(&s.s, 3));
    EXPECT_EQ(3, VekStr_getRsv(&s.s));
    vek_s32 size = VekStr_size(&s.s);
    VekStr_setCapa(&s.s, 100);  // below the size: nothing
    EXPECT_EQ(size, VekStr_size(&s.s));
    VekStr_setCapa(&s.s, 3100000);
    EXPECT_EQ(3100128, VekStr_size(&s.s));  // 3100000 + 128 + 1, rounded down
    EXPECT_TRUE(want == s.text());
    EXPECT_ASSERT("newCapa >= 0", VekStr_setCapa(&s.s, -1));
}

TEST_F(VekStrTest, WritesNeverShowThroughASharer) {
    Str a("shared text"), b, c;
    VekStr_setCstr(&b.s, &a.s);
    VekStr_setCstr(&c.s, &b.s);
    EXPECT_EQ(VekStr_buf(&a.s), VekStr_buf(&c.s));  // assignment shares the block
    EXPECT_EQ(3, AlAtom_get(&a.s.data->ref));

    VekStr_appdStr(&b.s, "!");
    VekStr_trunc(&c.s, 6);
    EXPECT_EQ("shared text|shared text!|shared", a.text() + "|" + b.text() + "|" + c.text());

    VekStr_setCstr(&b.s, &a.s);
    VekStr_setCstr(&c.s, &a.s);
    VekStr_trimHdr(&b.s, "sh");
    VekStr_trimTail(&c.s, "tx");
    std::strcpy(VekStr_useBufBeg(&a.s, -1), "SHARED");
    VekStr_useBufEnd(&a.s, -1);
    EXPECT_EQ("SHARED|ared text|shared te", a.text() + "|" + b.text() + "|" + c.text());

    VekStr_setCstr(&b.s, &a.s);
    VekStr_setCstr(&c.s, &a.s);
    VekStr_setStr(&b.s, "x");
    VekStr_concat(&c.s, "y", -1, "z", -1);
    VekStr_setCapa(&a.s, 500);
    EXPECT_EQ("SHARED|x|yz", a.text() + "|" + b.text() + "|" + c.text());

    // clear drops a shared block, keeps an unshared one.
    VekStr_setCstr(&b.s, &a.s);
    VekStr_clear(&b.s);
    EXPECT_EQ(SDATA_NULL, b.s.data);
    EXPECT_EQ("SHARED", a.text());
    vek_s32 size = VekStr_size(&a.s);
    VekStr_clear(&a.s);
    EXPECT_EQ(size, VekStr_size(&a.s));
    EXPECT_EQ(0, VekStr_len(&a.s));

    // Assigning nothing empties; assigning itself changes nothing.
    VekStr_setCstr(&c.s, nullptr);
    EXPECT_EQ(0, VekStr_len(&c.s));
    VekStr_setStr(&a.s, "self");
    VekStr_setCstr(&a.s, &a.s);
    EXPECT_EQ("self", a.text());
}

TEST_F(VekStrTest, SharersOnManyThreadsCountCorrectly) {
    Str src("a block that every thread shares and lets go of again");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&src] {
            for (int i = 0; i < 20000; i++) {
                VekStr mine;
                VekStr_new(&mine);
                VekStr_setCstr(&mine, &src.s);
                if (i % 7 == 0) {
                    VekStr_appdChar(&mine, '!');  // unshares this copy only
                }
                VekStr_delete(&mine);
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(1, AlAtom_get(&src.s.data->ref));
    EXPECT_EQ("a block that every thread shares and lets go of again", src.text());
}

TEST_F(VekStrTest, FixedBufferMovesToTheHeapAndBack) {
    InlineStr in;
    EXPECT_EQ(VEKSTR_MARK | VEKSTR_INLINE, in.s.magic);
    EXPECT_EQ(-1, AlAtom_get(&in.s.data->ref));
    vek_s64 before = live_blocks();
    VekStr_setStr(&in.s, "0123456789");
    EXPECT_EQ(in.buf + STRDATA_HDR, VekStr_buf(&in.s));
    EXPECT_EQ(before, live_blocks());

    VekStr_appdCharx(&in.s, 'x', 30);  // 40 characters: too many for 32 cells
    EXPECT_NE(in.buf + STRDATA_HDR, VekStr_buf(&in.s));
    EXPECT_EQ(96, VekStr_size(&in.s));
    EXPECT_EQ("0123456789" + std::string(30, 'x'), std::string(VekStr_buf(&in.s)));
    EXPECT_EQ(0, ((StrData*)in.buf)->len);  // the buffer was emptied on leaving

    VekStr_clearx(&in.s);
    EXPECT_EQ(in.buf + STRDATA_HDR, VekStr_buf(&in.s));
    EXPECT_EQ(32 * 1000 + 0, VekStr_size(&in.s) * 1000 + VekStr_len(&in.s));
    EXPECT_EQ(before, live_blocks());

    // A fresh block that fits goes back to the buffer as well.
    VekStr_appdCharx(&in.s, 'y', 40);
    VekStr_trunc(&in.s, 5);  // unshared: cut in place, stays on the heap
    Str other;
    VekStr_setCstr(&other.s, &in.s);
    VekStr_trunc(&in.s, 3);  // shared: a fresh block for 3, which fits
    EXPECT_EQ(in.buf + STRDATA_HDR, VekStr_buf(&in.s));
    EXPECT_EQ("yyyyy", other.text());

    // A fixed source is copied, never shared; a fixed target assigned a
    // heap string empties its buffer and shares.
    VekStr_setCstr(&other.s, &in.s);
    EXPECT_NE(VekStr_buf(&other.s), VekStr_buf(&in.s));
    Str heap("heap text");
    VekStr_setCstr(&in.s, &heap.s);
    EXPECT_EQ(VekStr_buf(&heap.s), VekStr_buf(&in.s));
    EXPECT_EQ(0, ((StrData*)in.buf)->len);
}

TEST_F(VekStrTest, DetachedFixedBufferAndBadBuffers) {
    struct {
        alignas(8) char buf[STRDATA_HDR + 16];  // before the object, not behind it
        VekStr s;
    } rec;
    char* buf = rec.buf;
    VekStr& s = rec.s;
    StrExt_new__(&s, buf, 16);
    EXPECT_EQ(VEKSTR_MARK, s.magic);  // not behind the object
    VekStr_setStr(&s, "0123456789abcdefghij");
    EXPECT_EQ(80, VekStr_size(&s));
    VekStr_clearx(&s);
    EXPECT_EQ(SDATA_NULL, s.data);
    VekStr_delete(&s);
    EXPECT_TRUE(s.magic == 0 && s.data == nullptr);

    EXPECT_ASSERT("((vek_u32)sbuf & (sizeof(vek_u32) - 1)) == 0", StrExt_new__(&s, buf + 1, 8));
    EXPECT_EQ(SDATA_NULL, s.data);
    EXPECT_ASSERT("ssize > 0", StrExt_new__(&s, buf, 0));
    EXPECT_EQ(SDATA_NULL, s.data);
    VekStr_delete(&s);
}

TEST_F(VekStrTest, NullAndEmptyRules) {
    Str s("seed");
    auto emptied = [&s](VekStr*) { return VekStr_len(&s.s) == 0; };
    EXPECT_TRUE(emptied(VekStr_setStr(&s.s, nullptr)));
    const char four[] = {0, 'a', 'b', 'c'};
    VekStr_setStr(&s.s, "x");
    EXPECT_TRUE(emptied(VekStr_setStrx(&s.s, four, 4)));  // first byte 0
    EXPECT_EQ(4, VekStr_appdStrx(&s.s, four, 4));  // added as they are
    EXPECT_EQ(std::string(four, 4), s.text());
    EXPECT_TRUE(emptied(VekStr_setStrx(&s.s, "abc", 0)));
    VekStr_setStrx(&s.s, "abcdef", -1);
    EXPECT_EQ("abcdef", s.text());
    EXPECT_TRUE(emptied(VekStr_setChar(&s.s, 0)));
    VekStr_setCharx(&s.s, 'z', 3);
    EXPECT_EQ("zzz", s.text());
    EXPECT_TRUE(emptied(VekStr_setCharx(&s.s, 'z', 0)));

    EXPECT_EQ(0, VekStr_appdStr(&s.s, nullptr) + VekStr_appdStr(&s.s, "") +
                     VekStr_appdStrx(&s.s, nullptr, 5) + VekStr_appdChar(&s.s, 0) +
                     VekStr_appdCharx(&s.s, 'q', -2) + VekStr_appdCstr(&s.s, nullptr) +
                     VekStr_appdStrm(&s.s, nullptr, 10) + VekStr_appdWcsx(&s.s, nullptr, 3) +
                     VekStr_appdCwcs(&s.s, nullptr));
    const vek_wchar none[] = {0};
    EXPECT_ASSERT("len > 0", EXPECT_EQ(0, VekStr_appdWcs(&s.s, none)));
    VekStr_setCwcs(&s.s, nullptr);
    EXPECT_EQ(0, VekStr_concat(&s.s, nullptr, -1, nullptr, 4));
    EXPECT_EQ(0, VekStr_len(&s.s));
    EXPECT_EQ(4, VekStr_concat(&s.s, nullptr, 3, "abcd", -1));
    EXPECT_EQ("abcd", s.text());
}

TEST_F(VekStrTest, NumbersAndTheTwoWordRendering) {
    Str s;
    EXPECT_EQ(3, VekStr_appdLong(&s.s, -42));
    EXPECT_EQ(10, VekStr_appdUlong(&s.s, 4294967295u));
    EXPECT_EQ("-424294967295", s.text());
    EXPECT_STREQ("7", VekStr_buf(VekStr_setLong(&s.s, 7)));
    EXPECT_STREQ("3000000000", VekStr_buf(VekStr_setUlong(&s.s, 3000000000u)));

    VekStr_clear(&s.s);
    EXPECT_EQ(2, VekStr_appdU64(&s.s, 1ull << 32));
    EXPECT_EQ("10", s.text());
    EXPECT_STREQ("4294967295", VekStr_buf(VekStr_setU64(&s.s, (1ull << 32) - 1)));
    EXPECT_STREQ("35", VekStr_buf(VekStr_setU64(&s.s, (3ull << 32) + 5)));
    EXPECT_STREQ("-14294967295", VekStr_buf(VekStr_setS64(&s.s, -1)));
    EXPECT_STREQ("2147483647", VekStr_buf(VekStr_setS64(&s.s, 2147483647)));
}

TEST_F(VekStrTest, FormattingAppendsAndCrossesTheStagingBuffer) {
    Str s("n=");
    EXPECT_EQ(7, VekStr_printf(&s.s, "%d-%s", 12, "xy"));  // total length
    EXPECT_EQ("n=12-xy", s.text());
    EXPECT_EQ(4, VekStr_setf(&s.s, "%04x", 0xab));
    EXPECT_EQ("00ab", s.text());
    const vek_wchar euro[] = {0x20AC, 0};
    const char* wideFmt = "%ls";  // vek_wchar is not the compiler's wchar_t
    VekStr_appdf(&s.s, wideFmt, euro);
    EXPECT_EQ("00ab\xE2\x82\xAC", s.text());

    // More than 254 bytes: the engine hands the text on in pieces.
    std::string longArg(700, 'q');
    longArg[253] = 'A';
    longArg[254] = 'B';
    VekStr_setStr(&s.s, "<");
    char want[1024];
    std::snprintf(want, sizeof want, "<[%s]%5d|%-3s|", longArg.c_str(), 42, "z");
    EXPECT_EQ((vek_s32)std::strlen(want), VekStr_appdf(&s.s, "[%s]%5d|%-3s|", longArg.c_str(), 42, "z"));
    EXPECT_EQ(want, s.text());
}

TEST_F(VekStrTest, SearchTrimAndConcat) {
    Str s("Hello, World");
    const vek_s32 found[] = {VekStr_findChar(&s.s, 0),        VekStr_findChar(&s.s, 'o'),
                             VekStr_findCharPos(&s.s, 'o', 5), VekStr_rfindChar(&s.s, 'o'),
                             VekStr_findChar(&s.s, 'z'),       VekStr_findSub(&s.s, "world"),
                             VekStr_findSubPos(&s.s, "hello", 1), VekStr_findSub(&s.s, "")};
    EXPECT_EQ((std::vector<vek_s32>{12, 4, 8, 8, -1, 7, -1, 0}), std::vector<vek_s32>(found, found + 8));
    EXPECT_ASSERT("start >= 0", EXPECT_EQ(-1, VekStr_findCharPos(&s.s, 'o', -1)));
    EXPECT_ASSERT("start >= 0", EXPECT_EQ(-1, VekStr_findSubPos(&s.s, "o", -1)));

    VekStr_setStr(&s.s, " \t\r\nbody\n \t");
    EXPECT_EQ(4, VekStr_trimHdr(&s.s, nullptr));
    EXPECT_EQ(3, VekStr_trimTail(&s.s, ""));
    EXPECT_EQ("body", s.text());
    EXPECT_EQ(1, VekStr_trimHdr(&s.s, "b"));
    EXPECT_EQ(2, VekStr_trimTail(&s.s, "yd"));
    EXPECT_EQ("o", s.text());

    // Parts taken from the string itself survive the rebuild.
    VekStr_setStr(&s.s, "abc");
    EXPECT_EQ(4, VekStr_concat(&s.s, "<", 1, VekStr_buf(&s.s), -1));
    EXPECT_EQ("<abc", s.text());
    EXPECT_EQ(8, VekStr_concat(&s.s, VekStr_buf(&s.s), -1, VekStr_buf(&s.s), -1));
    EXPECT_EQ("<abc<abc", s.text());
    VekStr_appdStrx(&s.s, VekStr_buf(&s.s) + 1, 3);
    VekStr_appdCstr(&s.s, &s.s);
    EXPECT_EQ("<abc<abcabc<abc<abcabc", s.text());
    VekStr_setStrx(&s.s, VekStr_buf(&s.s) + 4, 4);
    EXPECT_EQ("<abc", s.text());
    EXPECT_ASSERT("newLen >= 0", VekStr_trunc(&s.s, -1));
}

TEST_F(VekStrTest, DirectBufferUse) {
    Str s;
    std::strcpy(VekStr_useBufBeg(&s.s, 20), "written");
    EXPECT_EQ(80, VekStr_size(&s.s));
    EXPECT_EQ(7, VekStr_useBufEnd(&s.s, -1));
    EXPECT_EQ(3, VekStr_useBufEnd(&s.s, 3));
    EXPECT_EQ("wri", s.text());
    EXPECT_ASSERT("newLen < _this->data->size", VekStr_useBufEnd(&s.s, VekStr_size(&s.s)));
    Str other;
    VekStr_setCstr(&other.s, &s.s);
    EXPECT_ASSERT("AlAtom_get(&_this->data->ref) < 2", VekStr_useBufEnd(&s.s, 1));
    EXPECT_EQ("wri", other.text());
}

TEST_F(VekStrTest, StreamAppendLoopsUntilCountOrEnd) {
    Str s("<");
    vektest::StrmPtr st = vektest::chunk_strm("0123456789", 3);
    EXPECT_EQ(7, VekStr_appdStrm(&s.s, st.get(), 7));
    EXPECT_EQ(3, vektest::reads_of(st.get()));
    EXPECT_EQ(3, VekStr_appdStrm(&s.s, st.get(), 100));  // the stream ends first
    EXPECT_EQ("<0123456789", s.text());
    vektest::StrmPtr again = vektest::chunk_strm("abc", 2);
    EXPECT_STREQ("ab", VekStr_buf(VekStr_setStrm(&s.s, again.get(), 2)));
}

TEST_F(VekStrTest, TrimAndPathIntoAString) {
    Str out;
    const char* text = "  \tvalue \r\n";
    EXPECT_EQ(64, str_trim_space(text, -1, &out.s, nullptr));  // the block size
    EXPECT_EQ("value \r\n", out.text());
    EXPECT_EQ(64, str_rtrim_space(text, -1, &out.s, nullptr));
    EXPECT_EQ("  \tvalue", out.text());
    EXPECT_EQ(5, str_btrim_space(text, -1, &out.s, nullptr));  // the length
    EXPECT_EQ("value", out.text());
    EXPECT_EQ(3, str_btrim_space("xxabcxyz", 6, &out.s, "x"));
    EXPECT_EQ("abc", out.text());
    EXPECT_EQ(0, str_btrim_space("   ", -1, &out.s, nullptr));
    EXPECT_ASSERT("out", EXPECT_EQ(0, str_trim_space(text, -1, nullptr, nullptr)));

    EXPECT_EQ(1, str_path_fld("C:\\data/sub\\file.ini", &out.s, 0));
    EXPECT_EQ("C:\\data/sub", out.text());
    EXPECT_EQ(1, str_path_fld("/file.ini", &out.s, 1));
    EXPECT_EQ("/", out.text());
    EXPECT_EQ(0, str_path_fld("file.ini", &out.s, 1) + VekStr_len(&out.s));
    EXPECT_ASSERT("path && out", EXPECT_EQ(0, str_path_fld(nullptr, &out.s, 0)));
}

TEST_F(VekStrTest, Utf16IntoAString) {
    Str s;
    const vek_wchar text[] = {'A', 0xE9, 0x20AC, 0};
    const vek_wchar swapped[] = {0x4100, 0xE900, 0xAC20, 0};
    EXPECT_EQ(6, wcs_str_to_utf8_cstr(text, &s.s));
    EXPECT_EQ(6, ucs2_str_to_utf8_cstr(swapped, &s.s));
    EXPECT_EQ(1, wcs_buf_to_utf8_cstr(text, 1, &s.s));
    EXPECT_EQ(0, wcs_buf_to_utf8_cstr(text + 3, 2, &s.s));  // a 0 unit ends the text
    EXPECT_EQ(3, ucs2_buf_to_utf8_cstr(swapped + 2, 1, &s.s));
    EXPECT_EQ("A\xC3\xA9\xE2\x82\xAC" "A\xC3\xA9\xE2\x82\xAC" "A\xE2\x82\xAC", s.text());

    // Three bytes a unit exactly fill the room made for them.
    VekStr_setWcsx(&s.s, text + 2, 1);
    VekStr_setCharx(&s.s, 'x', 51);  // 12 bytes of room left in 64 cells
    const vek_wchar euros[] = {0x20AC, 0x20AC, 0x20AC, 0x20AC, 0};
    EXPECT_EQ(12, VekStr_appdWcs(&s.s, euros));
    EXPECT_EQ(64, VekStr_size(&s.s));
    EXPECT_EQ(std::string(51, 'x') + "\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC", s.text());
    EXPECT_EQ(2, VekStr_appdWchar(&s.s, 0xE9));
    // A single unit always asks for 3 bytes first: with 61 characters in 64
    // cells even "A" grows the block by the growth rule.
    Str y;
    VekStr_setCharx(&y.s, 'y', 10);
    VekStr_appdCharx(&y.s, 'y', 51);
    ASSERT_EQ(64, VekStr_size(&y.s));
    EXPECT_EQ(1, VekStr_appdWchar(&y.s, 'A'));
    EXPECT_EQ(128, VekStr_size(&y.s));  // a fresh block (it may be resized in place)
    EXPECT_EQ(std::string(61, 'y') + "A", y.text());
    EXPECT_EQ(0, VekStr_appdWchar(&y.s, 0));
    VekStr_setWchar(&s.s, 0x20AC);
    EXPECT_EQ("\xE2\x82\xAC", s.text());

    vektest::StrmPtr st = vektest::chunk_strm(std::string((const char*)text, 6) + "\x01", 3);  // an odd last byte
    VekStr_clear(&s.s);
    EXPECT_EQ(6, wcs_strm_to_utf8_cstr(st.get(), &s.s));
    EXPECT_EQ("A\xC3\xA9\xE2\x82\xAC", s.text());
    vektest::StrmPtr sw = vektest::chunk_strm(std::string((const char*)swapped, 6), 4);
    EXPECT_EQ(6, ucs2_strm_to_utf8_cstr(sw.get(), &s.s));
    EXPECT_ASSERT("src && str", EXPECT_EQ(0, wcs_buf_to_utf8_cstr(nullptr, 3, &s.s)));
}

TEST_F(VekStrTest, WireFormRoundTrip) {
    Str src;
    VekStr_setRsv(&src.s, 2);
    VekStr_setStr(&src.s, "wire text");
    vek_u32 flags = 0;
    EXPECT_EQ(100u + 12u + 9u, VekStr_UserSize(&flags, 100, &src.s));
    vek_u8 buf[64];
    vek_u8* end = VekStr_UserMarshal(&flags, buf + 1, &src.s);  // no alignment needed
    ASSERT_EQ(buf + 1 + 21, end);
    vek_u32 words[3];
    std::memcpy(words, buf + 1, sizeof words);
    EXPECT_TRUE(words[0] == (VEKSTR_MARK | (2u << 24)) && words[1] == 64u && words[2] == 9u);
    EXPECT_EQ(0, std::memcmp(buf + 13, "wire text", 9));

    VekStr fresh = {nullptr, 0};
    EXPECT_EQ(end, VekStr_UserUnmarshal(&flags, buf + 1, &fresh));
    EXPECT_STREQ("wire text", VekStr_buf(&fresh));
    EXPECT_EQ(2, VekStr_getRsv(&fresh));
    EXPECT_EQ(128, VekStr_size(&fresh));  // created for size 64 under mode 2
    VekStr_UserFree(&flags, &fresh);
    EXPECT_EQ(0u, fresh.magic);

    Str live("old");
    VekStr_UserUnmarshal(&flags, buf + 1, &live.s);
    EXPECT_EQ("wire text", live.text());
    EXPECT_EQ(2, VekStr_getRsv(&live.s));

    Str empty;
    EXPECT_EQ(buf + 12, VekStr_UserMarshal(&flags, buf, &empty.s));
    EXPECT_EQ(buf + 12, VekStr_UserUnmarshal(&flags, buf, &live.s));
    EXPECT_EQ(0, VekStr_len(&live.s));
}

TEST_F(VekStrTest, UnmarshalChecksTheRecord) {
    vek_u32 flags = 0;
    vek_u8 buf[32];
    vek_u32 words[3] = {VEKSTR_MARK, 5, 5};
    std::memcpy(buf, words, sizeof words);
    std::memcpy(buf + 12, "abcde", 5);
    Str s;
    EXPECT_ASSERT("size == 0 || size > len", VekStr_UserUnmarshal(&flags, buf, &s.s));
    EXPECT_EQ("abcde", s.text());
    VekStr junk = {nullptr, 0x1234};  // not zeroed as the runtime hands it over
    VekStr_UserUnmarshal(&flags, buf, &junk);
    expect_assert("size == 0 || size > len");
    expect_assert("!obj->magic");
    EXPECT_EQ("abcde", std::string(VekStr_buf(&junk)));
    VekStr_delete(&junk);
    EXPECT_ASSERT("obj", VekStr_UserFree(&flags, nullptr));
}

using VekStrDeathTest = VekTest;

TEST_F(VekStrDeathTest, WrongTypeMarkEndsTheProcess) {
    VekWcs w;
    VekWcs_new(&w);
    EXPECT_DEATH((al_set_fault_hook(nullptr), VekStr_len((const VekStr*)&w)), "obj crash");
    VekStr dead;
    VekStr_delete(VekStr_new(&dead));
    EXPECT_DEATH((al_set_fault_hook(nullptr), VekStr_appdStr(&dead, "x")), "obj crash");
    VekWcs_delete(&w);
}
