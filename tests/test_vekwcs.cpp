/*
 * VekWcs: what the 16-bit side does differently from VekStr (units, UTF-8
 * input, the stream unit, wide formatting, byte-order turning, the wire
 * form with 2-byte characters) and the functions that fill a VekWcs.
 */
#include <cstring>
#include <string>
#include "StrmTest.h"

namespace {

const vek_wchar* W(const char16_t* s) {
    return reinterpret_cast<const vek_wchar*>(s);
}

struct Wcs {
    VekWcs w;
    Wcs() { VekWcs_new(&w); }
    explicit Wcs(const char16_t* t) { VekWcs_setWcs(VekWcs_new(&w), W(t)); }
    ~Wcs() { VekWcs_delete(&w); }
    std::u16string text() const {
        return std::u16string(reinterpret_cast<const char16_t*>(VekWcs_buf(&w)), (size_t)VekWcs_len(&w));
    }
};

struct InlineWcs {
    VekWcs w;
    alignas(4) vek_wchar buf[WCSDATA_HDR / 2 + 16];
    InlineWcs() { WcsExt_new__(&w, buf, 16); }
    ~InlineWcs() { VekWcs_delete(&w); }
};

} // namespace

using VekWcsTest = VekTest;

TEST_F(VekWcsTest, UnitsSizeTheBlock) {
    Wcs a;
    EXPECT_EQ(WDATA_NULL, a.w.data);
    EXPECT_EQ(0, VekWcs_size(&a.w));
    VekWcs b;
    VekWcs_newx(&b, 100, 0);
    EXPECT_EQ(192, VekWcs_size(&b));
    // Every cell of the block is writable: a block of bytes instead of
    // units would be overrun here (the sanitizer leg sees it).
    vek_wchar* p = VekWcs_useBufBeg(&b, 191);
    for (vek_s32 i = 0; i < 191; i++) {
        p[i] = (vek_wchar)(0x4E00 + i);
    }
    EXPECT_EQ(191, VekWcs_useBufEnd(&b, 191));
    EXPECT_EQ(0, VekWcs_capa(&b));
    EXPECT_EQ(0x4E00 + 190, VekWcs_buf(&b)[190]);
    VekWcs_delete(&b);

    InlineWcs in;
    EXPECT_EQ(0x40A271BEu, in.w.magic);
    VekWcs_appdWcs(&in.w, W(u"0123456789abcdefghij"));  // 20 units: to the heap
    EXPECT_EQ(80, VekWcs_size(&in.w));
    VekWcs_clearx(&in.w);
    EXPECT_EQ(in.buf + WCSDATA_HDR / 2, VekWcs_buf(&in.w));
}

TEST_F(VekWcsTest, NativeTextAndSharing) {
    Wcs a(u"Grüße"), b;
    VekWcs_setCwcs(&b.w, &a.w);
    EXPECT_EQ(VekWcs_buf(&a.w), VekWcs_buf(&b.w));
    VekWcs_appdChar(&b.w, u'!');
    VekWcs_turn(&a.w);  // unshared by now; a second sharer must not see it
    VekWcs_setCwcs(&b.w, &a.w);
    VekWcs_turn(&b.w);
    EXPECT_EQ(u"Grüße", b.text());
    EXPECT_EQ(0x4700, VekWcs_buf(&a.w)[0]);

    const char16_t four[] = {0, u'a', u'b', u'c'};
    VekWcs_setWcsx(&b.w, W(four), 4);  // first unit 0: empties
    EXPECT_EQ(0, VekWcs_len(&b.w));
    EXPECT_EQ(4, VekWcs_appdWcsx(&b.w, W(four), 4));
    EXPECT_EQ(std::u16string(four, 4), b.text());
    EXPECT_EQ(0, VekWcs_appdWcs(&b.w, nullptr) + VekWcs_appdWcs(&b.w, W(u"")));
    VekWcs_setCharx(&b.w, u'é', 2);
    EXPECT_EQ(3, VekWcs_appdCharx(&b.w, u'z', 3));
    EXPECT_EQ(u"éézzz", b.text());

    Wcs s(u"Hello, Wörld");
    EXPECT_EQ(8, VekWcs_rfindChar(&s.w, u'ö'));
    EXPECT_EQ(-1, VekWcs_findSub(&s.w, W(u"wÖ")));  // only ASCII letters fold
    EXPECT_EQ(7, VekWcs_findSubPos(&s.w, W(u"WöRLD"), 3));
    EXPECT_EQ(9, VekWcs_concat(&s.w, W(u"ab"), -1, VekWcs_buf(&s.w), 7));
    EXPECT_EQ(u"abHello, ", s.text());
    EXPECT_EQ(2, VekWcs_trimTail(&s.w, W(u", ")));
    EXPECT_EQ(2, VekWcs_trimHdr(&s.w, W(u"ba")));
    EXPECT_EQ(u"Hello", s.text());
}

TEST_F(VekWcsTest, Utf8InputIsConverted) {
    Wcs w;
    VekWcs_setStr(&w.w, "A\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(u"Aé€", w.text());
    EXPECT_EQ(2, VekWcs_appdStrx(&w.w, "xy\xC3\xA9", 2));
    EXPECT_EQ(1, VekWcs_appdStrx(&w.w, "\xF0\x9F\x98\x80", -1));  // beyond the BMP: "?"
    EXPECT_EQ(u"Aé€xy?", w.text());
    EXPECT_EQ(0, VekWcs_appdStrx(&w.w, "\0abc", 4));  // an empty text adds nothing
    EXPECT_EQ(1, VekWcs_appdStrx(&w.w, "z\xC3", 2));  // stops at the cut sequence
    EXPECT_EQ(u"Aé€xy?z", w.text());

    VekStr s;
    VekStr_setStr(VekStr_new(&s), "\xE4\xB8\xAD-x");
    VekWcs_setCstr(&w.w, &s);
    EXPECT_EQ(u"中-x", w.text());
    EXPECT_EQ(3, VekWcs_appdCstr(&w.w, &s));
    VekWcs_setCstr(&w.w, nullptr);
    EXPECT_EQ(0, VekWcs_len(&w.w));

    // And back: the 8-bit side's conversions of a VekWcs.
    VekWcs_setWcs(&w.w, W(u"é中"));
    VekStr_setCwcs(&s, &w.w);
    EXPECT_STREQ("\xC3\xA9\xE4\xB8\xAD", VekStr_buf(&s));
    EXPECT_EQ(5, VekStr_appdCwcs(&s, &w.w));
    VekStr_delete(&s);
}

TEST_F(VekWcsTest, NumbersAndWideFormatting) {
    Wcs w(u"#");
    EXPECT_EQ(3, VekWcs_appdLong(&w.w, -12));
    EXPECT_EQ(10, VekWcs_appdUlong(&w.w, 4000000000u));
    EXPECT_EQ(u"#-124000000000", w.text());
    VekWcs_setUlong(VekWcs_setLong(&w.w, 5), 77);
    EXPECT_EQ(u"77", w.text());

    EXPECT_EQ(7, VekWcs_printf(&w.w, W(u"%d|%s|%hs"), 3, W(u"中"), "\xC3\xA9"));
    EXPECT_EQ(u"773|中|é", w.text());
    std::u16string longArg(600, u'ж');
    EXPECT_EQ(604, VekWcs_setf(&w.w, W(u"[%s]%02d"), W(longArg.c_str()), 7));
    EXPECT_EQ(u"[" + longArg + u"]07", w.text());
}

TEST_F(VekWcsTest, StreamReadsTwoBytesAUnit) {
    std::string bytes((const char*)u"abcdefg", 14);
    Wcs w;
    vektest::StrmPtr st = vektest::chunk_strm(bytes, 3);
    EXPECT_EQ(4, VekWcs_appdStrm(&w.w, st.get(), 4));  // 8 bytes: 3 + 3 + 2
    EXPECT_EQ(u"abcd", w.text());
    vektest::StrmPtr odd = vektest::chunk_strm(bytes.substr(0, 5), 2);
    VekWcs_setStrm(&w.w, odd.get(), 10);  // 2 + 2 + 1: the short read ends it
    EXPECT_EQ(u"ab", w.text());
    vektest::StrmPtr trickle = vektest::chunk_strm(bytes, 1);
    EXPECT_EQ(0, VekWcs_appdStrm(&w.w, trickle.get(), 3));
    EXPECT_EQ(1, vektest::reads_of(trickle.get()));
}

TEST_F(VekWcsTest, FillingFromOtherText) {
    Wcs out;
    EXPECT_EQ(64, wcs_trim_space(W(u" \tkey = v\n"), -1, &out.w, nullptr));
    EXPECT_EQ(u"key = v\n", out.text());
    EXPECT_EQ(64, wcs_rtrim_space(W(u" \tkey = v\n"), -1, &out.w, nullptr));
    EXPECT_EQ(u" \tkey = v", out.text());
    EXPECT_EQ(3, wcs_btrim_space(W(u"--abc-"), -1, &out.w, W(u"-")));
    EXPECT_EQ(u"abc", out.text());
    EXPECT_EQ(1, wcs_path_fld(W(u"C:\\dir\\name"), &out.w, 1));
    EXPECT_EQ(u"C:\\dir\\", out.text());
    EXPECT_EQ(0, wcs_path_fld(W(u"name"), &out.w, 0));

    VekWcs_clear(&out.w);
    EXPECT_EQ(2, utf8_str_to_wcs_cwcs("A\xE2\x82\xAC", &out.w));
    EXPECT_EQ(2, utf8_str_to_ucs2_cwcs("A\xE2\x82\xAC", &out.w));
    const char16_t want[] = {u'A', 0x20AC, 0x4100, 0xAC20};
    EXPECT_EQ(std::u16string(want, 4), out.text());
    EXPECT_ASSERT("src && wcs", EXPECT_EQ(0, utf8_str_to_wcs_cwcs(nullptr, &out.w)));
}

TEST_F(VekWcsTest, WireFormCarriesUnits) {
    Wcs src(u"wé中");
    vek_u32 flags = 0;
    EXPECT_EQ(12u + 6u, VekWcs_UserSize(&flags, 0, &src.w));
    vek_u8 buf[40];
    vek_u8* end = VekWcs_UserMarshal(&flags, buf + 3, &src.w);  // an odd address
    ASSERT_EQ(buf + 3 + 18, end);
    vek_u32 words[3];
    std::memcpy(words, buf + 3, sizeof words);
    EXPECT_EQ(VEKWCS_MARK, words[0]);
    EXPECT_EQ(3u, words[2]);
    EXPECT_EQ(0, std::memcmp(buf + 15, u"wé中", 6));

    Wcs live(u"old");
    EXPECT_EQ(end, VekWcs_UserUnmarshal(&flags, buf + 3, &live.w));
    EXPECT_EQ(u"wé中", live.text());
}

using VekWcsDeathTest = VekTest;

TEST_F(VekWcsDeathTest, WrongTypeMarkEndsTheProcess) {
    VekStr s;
    VekStr_new(&s);
    EXPECT_DEATH((al_set_fault_hook(nullptr), VekWcs_appdChar((VekWcs*)&s, u'x')), "obj crash");
    VekStr_delete(&s);
}
