/*
 * Unicode conversions: the character codecs and their replacement rules,
 * buffer, stream and sink forms in host and swapped byte order, UTF-7,
 * the ANSI code page and the comparison and cleaning helpers.
 */
#include <cstring>
#include <string>
#include <vector>
#include "StrmTest.h"

namespace {

std::u16string u16(const vek_wchar* s, size_t n = std::u16string::npos) {
    return n == std::u16string::npos ? std::u16string((const char16_t*)s)
                                     : std::u16string((const char16_t*)s, n);
}
const vek_wchar* wp(const std::u16string& s) {
    return (const vek_wchar*)s.c_str();
}
std::u16string swapped(std::u16string s) {
    for (auto& c : s) {
        c = (char16_t)((c << 8) | (c >> 8));
    }
    return s;
}

/* A test stream over bytes (StrmTest.h) with the views the checks want. */
struct Bytes {
    vektest::StrmPtr p;
    explicit Bytes(const std::string& d = "") : p(vektest::test_strm(d, TestStrmCfg{0, 0, -1, -1, -1, 0})) {}
    IStrm* s() const { return p.get(); }
    std::string data() const { return vektest::test_bytes(p.get()); }
    std::u16string units() const {
        std::string d = data();
        return std::u16string((const char16_t*)d.data(), d.size() / 2);
    }
    size_t pos() const { return (size_t)IStrm_tell(p.get()); }
    int reads() const { return vektest::reads_of(p.get()); }
    void fail_writes_after(vek_s64 n) {
        TestStrmCfg c{0, 0, -1, n, -1, VEK_ERR_READ_ONLY};
        TestStrm_setCfg(p.get(), &c);
    }
};

struct Decoded {
    vek_wchar c;
    vek_s32 used;
};
Decoded dec(const char* s) {
    Decoded d{};
    d.c = utf8_str_to_wcs_char(s, &d.used);
    return d;
}

std::string to_utf8(const std::u16string& s) {
    std::vector<char> buf(s.size() * 3 + 5);
    vek_s32 n = wcs_buf_to_utf8_str(wp(s), (vek_s32)s.size(), buf.data(), (vek_s32)buf.size());
    return std::string(buf.data(), (size_t)n);
}

std::string utf8_to_utf7(const std::string& s) {
    Bytes in(s), out;
    vek_s32 n = utf8_strm_to_utf7_strm(in.s(), out.s());
    EXPECT_EQ((vek_s32)out.data().size(), n);
    return out.data();
}
std::string utf7_to_utf8(const std::string& s) {
    std::vector<char> buf(s.size() * 3 + 8);
    vek_s32 n = utf7_str_to_utf8_str(s.c_str(), buf.data(), (vek_s32)buf.size());
    Bytes in(s), out;
    EXPECT_EQ(n, utf7_strm_to_utf8_strm(in.s(), out.s())) << s;  // both forms agree
    EXPECT_EQ(std::string(buf.data(), (size_t)n), out.data()) << s;
    return out.data();
}

} // namespace

using Utf8Codec = VekTest;

TEST_F(Utf8Codec, DecodingFollowsTheLeadByte) {
    struct Case {
        const char* in;
        vek_wchar c;
        vek_s32 used;
    } cases[] = {
        {"", 0, 0},
        {"A", 'A', 1},
        {"\xC3\xA9", 0xE9, 2},
        {"\xC3", 0, 1},                   // cut: ends the text
        {"\xC3" "A", (0x3 << 6) | 0x01, 2},  // the second byte is not checked
        {"\xE2\x82\xAC", 0x20AC, 3},
        {"\xE2", 0, 1},
        {"\xE2\x82", 0, 2},
        {"\xF0\x9F\x98\x80x", '?', 4},    // beyond the BMP
        {"\xF0\x9F\x98", 0, 3},
        {"\xFC\x80\x80\x80\x80\x80", '?', 6},
        {"\x80" "A", '!', 1},
        {"\x80\xBF\xBF" "A", '!', 3},     // the whole run is one "!"
        {"\x80\xC3\xA9", '!', 1},         // up to the next valid lead
        {"\xF8\x80" "b", '!', 2},         // five-byte leads are not valid
        {"\xFE\xFF" "c", '!', 2},
        {"\x80\x80", 0, 2},               // a run reaching the end is the end
    };
    for (const Case& c : cases) {
        Decoded d = dec(c.in);
        EXPECT_EQ(c.c, d.c) << testing::PrintToString(c.in);
        EXPECT_EQ(c.used, d.used) << testing::PrintToString(c.in);
    }
    EXPECT_EQ(0x4100, utf8_str_to_ucs2_char("A", nullptr));
    EXPECT_ASSERT("s", EXPECT_EQ(0, utf8_str_to_wcs_char(nullptr, nullptr)));
}

TEST_F(Utf8Codec, EncodingOneUnit) {
    struct Case {
        vek_wchar c;
        const char* out;
    } cases[] = {{0x41, "A"},
                 {0x7F, "\x7F"},
                 {0x80, "\xC2\x80"},
                 {0x7FF, "\xDF\xBF"},
                 {0x800, "\xE0\xA0\x80"},
                 {0x20AC, "\xE2\x82\xAC"},
                 {0xD83D, "\xED\xA0\xBD"},  // a surrogate on its own
                 {0xFFFF, "\xEF\xBF\xBF"}};
    for (const Case& c : cases) {
        char out[4] = {};
        EXPECT_EQ((vek_s32)std::strlen(c.out), wcs_char_to_utf8_char(c.c, out));
        EXPECT_STREQ(c.out, out);
        char rev[4] = {};
        ucs2_char_to_utf8_char((vek_wchar)((c.c << 8) | (c.c >> 8)), rev);
        EXPECT_STREQ(c.out, rev);
    }
    char out[4] = "xyz";
    EXPECT_EQ(0, wcs_char_to_utf8_char(0, out));
    EXPECT_STREQ("xyz", out);
    // Every unit survives the round trip through the decoder.
    for (unsigned u = 1; u <= 0xFFFF; u++) {
        char b[4] = {};
        wcs_char_to_utf8_char((vek_wchar)u, b);
        ASSERT_EQ(u, utf8_str_to_wcs_char(b, nullptr));
    }
}

using Utf8Buffers = VekTest;

TEST_F(Utf8Buffers, DecodingIntoUnits) {
    vek_wchar dst[8];
    vek_s32 more = -1;
    // A length cuts a sequence like a terminator does.
    EXPECT_EQ(1, utf8_buf_to_wcs_strx("a\xE2\x82\xAC", 3, dst, 8, &more));
    EXPECT_EQ(u"a", u16(dst));
    EXPECT_EQ(0, more);
    // A full target leaves source bytes over.
    EXPECT_EQ(3, utf8_buf_to_wcs_strx("abcdef", 6, dst, 4, &more));
    EXPECT_EQ(u"abc", u16(dst));
    EXPECT_EQ(1, more);
    // Long ASCII stretches stop at a 0 byte, at the length and at the target's end.
    const std::string ascii = std::string(20, 'a') + '\0' + "bbbb";
    std::vector<vek_wchar> big(64);
    EXPECT_EQ(20, utf8_buf_to_wcs_strx(ascii.data(), (vek_s32)ascii.size(), big.data(), 64, &more));
    EXPECT_EQ(1, more);
    EXPECT_EQ(17, utf8_buf_to_wcs_str("abcdefghijklmnopq\xE2\x82\xAC", 19, big.data(), 64));
    EXPECT_EQ(9, utf8_buf_to_wcs_str("abcdefghijklmnopq", 17, big.data(), 10));
    EXPECT_EQ(u"abcdefghi", u16(big.data()));
    // Malformed input inside a text: "?" and "!" stand in, decoding goes on.
    EXPECT_EQ(5, utf8_buf_to_wcs_str("\xF0\x9F\x98\x80-\x80\x80-x", 10, dst, 8));
    EXPECT_EQ(u"?-!-x", u16(dst));
    EXPECT_EQ(4, utf8_buf_to_wcs_str("\xF0\x9F\x98\x80-\x80\x80-x", -1, dst, 8));  // 8 bytes
    // A sequence that decodes to 0 (an overlong form of NUL) ends the text.
    EXPECT_EQ(1, utf8_buf_to_wcs_str("a\xC0\x80" "b", 4, dst, 8));
    EXPECT_EQ(1, utf8_buf_to_wcs_str("a\xC0\xC0" "b", 4, dst, 8));
    EXPECT_EQ(2, utf8_str_to_wcs_str("ab\xE0\x80\x80" "c", dst, 8));
    // Without a length dstSize is also the byte budget.
    EXPECT_EQ(2, utf8_buf_to_wcs_strx("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", -1, dst, 4, &more));
    EXPECT_EQ(1, more);
    // The terminated forms have no byte budget.
    EXPECT_EQ(3, utf8_str_to_wcs_strx("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", dst, 4, &more));
    EXPECT_EQ(u"\u65E5\u672C\u8A9E", u16(dst));
    EXPECT_EQ(0, more);
    EXPECT_EQ(2, utf8_str_to_ucs2_str_x("\xE2\x82\xAC!", dst, 8, &more));
    EXPECT_EQ(swapped(u"\u20AC!"), u16(dst));
    EXPECT_ASSERT("src && dst && dstSize >= 1", utf8_buf_to_wcs_strx("a", 1, dst, 0, &more));
    EXPECT_EQ(0, more);
    EXPECT_ASSERT("src && dst && dstSize >= 1", utf8_str_to_wcs_str(nullptr, dst, 8));
}

TEST_F(Utf8Buffers, EncodingIntoBytes) {
    const std::u16string text = u"a\u00E9\u20AC";  // 1, 2 and 3 bytes
    char dst[16];
    EXPECT_EQ(6, wcs_buf_to_utf8_str(wp(text), -1, dst, sizeof dst));
    EXPECT_STREQ("a\xC3\xA9\xE2\x82\xAC", dst);
    // At least 4 bytes of room besides the terminator, whatever comes next.
    EXPECT_EQ(1, wcs_buf_to_utf8_str(wp(text), -1, dst, 5));
    EXPECT_EQ(3, wcs_buf_to_utf8_str(wp(text) + 2, -1, dst, 5));
    EXPECT_EQ(3, wcs_buf_to_utf8_str(wp(text), -1, dst, 7));
    EXPECT_EQ(0, wcs_buf_to_utf8_str(wp(text), -1, dst, 4));
    EXPECT_STREQ("", dst);
    EXPECT_EQ(3, wcs_buf_to_utf8_str(wp(text), 2, dst, sizeof dst));
    const std::u16string zero(u"a\0b", 3);
    EXPECT_EQ(1, wcs_buf_to_utf8_str(wp(zero), 3, dst, sizeof dst));  // a 0 unit ends the text
    const std::u16string big = swapped(text);
    EXPECT_EQ(6, ucs2_buf_to_utf8_str(wp(big), -1, dst, sizeof dst));
    EXPECT_STREQ("a\xC3\xA9\xE2\x82\xAC", dst);
    EXPECT_EQ(1, ucs2_buf_to_utf8_str(wp(swapped(u"\u20AC\u20AC")), -1, dst, 5) / 3);
    EXPECT_EQ(6, wcs_str_to_utf8_str(wp(text), dst, sizeof dst));
    EXPECT_EQ(6, ucs2_str_to_utf8_str(wp(big), dst, sizeof dst));
    EXPECT_ASSERT("src && dst && dstSize >= 1", wcs_str_to_utf8_str(wp(text), dst, 0));
}

TEST_F(Utf8Buffers, SinkOutput) {
    struct Sink {
        std::u16string text;
        int pieces = 0;
        vek_s32 fail = 0;
        static vek_s32 put(void* obj, const vek_wchar* u, vek_s32 n) {
            Sink* s = (Sink*)obj;
            s->pieces++;
            s->text.append((const char16_t*)u, (size_t)n);
            return s->fail ? s->fail : n;
        }
    };
    std::string src;
    for (int i = 0; i < 200; i++) {
        src += "x\xE4\xB8\xAD";
    }
    Sink s;
    EXPECT_EQ(400, utf8_str_to_wcs_out(src.c_str(), &s, Sink::put));
    EXPECT_EQ(400u, s.text.size());
    EXPECT_EQ(u"x\u4E2D", s.text.substr(398));
    EXPECT_EQ(2, s.pieces);
    Sink f;
    f.fail = -94;
    EXPECT_EQ(-94, utf8_str_to_wcs_out(src.c_str(), &f, Sink::put));
    EXPECT_EQ(1, f.pieces);
}

// The bounded forms take ASCII runs and well-formed one- to three-byte
// characters (and, back to UTF-8, any units) in vector blocks; the
// terminated forms take every character through the scalar rules. Both
// must agree unit for unit (and with the one-character decoder), stop at
// the same byte, and leave the target past the terminator as it was.
namespace {

void decoders_agree(const std::string& text, vek_s32 cap) {
    std::vector<vek_wchar> fast(cap + 1, 0xBEEF), slow(cap + 1, 0xBEEF);
    vek_s32 moreF = 0, moreS = 0;
    vek_s32 nf = utf8_buf_to_wcs_strx(text.data(), (vek_s32)text.size(), fast.data(), cap, &moreF);
    vek_s32 ns = utf8_str_to_wcs_strx(text.c_str(), slow.data(), cap, &moreS);
    ASSERT_EQ(ns, nf);
    ASSERT_EQ(u16(slow.data(), (size_t)cap + 1), u16(fast.data(), (size_t)cap + 1));
    if (text.find('\0') == std::string::npos) {
        ASSERT_EQ(moreS, moreF);
    }
    std::u16string ref;
    vek_s32 used = 0;
    for (const char* q = text.c_str(); (vek_s32)ref.size() < cap - 1; q += used) {
        vek_wchar c = utf8_str_to_wcs_char(q, &used);
        if (!c) {
            break;
        }
        ref += (char16_t)c;
    }
    ASSERT_EQ(ref, u16(slow.data(), (size_t)ns));
}

void encoders_agree(const std::u16string& w, vek_s32 cap, bool swap) {
    std::u16string in = swap ? swapped(w) : w;
    vek_s32 n = (vek_s32)w.size();
    std::string bf(cap + 1, '#'), bs(cap + 1, '#');
    vek_s32 mf = swap ? ucs2_buf_to_utf8_str(wp(in), n, bf.data(), cap) : wcs_buf_to_utf8_str(wp(in), n, bf.data(), cap);
    vek_s32 ms = swap ? ucs2_str_to_utf8_str(wp(in), bs.data(), cap) : wcs_str_to_utf8_str(wp(in), bs.data(), cap);
    ASSERT_EQ(ms, mf);
    ASSERT_EQ(bs, bf);
}

} // namespace

// Texts mixing well-formed characters with every sequence the decoder has
// a rule of its own for, densely (the blocks stop and restart every few
// bytes) or in long runs, cut anywhere, into targets of any size.
TEST_F(Utf8Buffers, VectorRunsAgreeWithTheScalarRules) {
    const std::string pieces[] = {
        // well-formed: two bytes, CJK, the ends of each range, surrogates
        "\xC3\xA9", "\xE4\xB8\xAD", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xEF\xBF\xBF",
        "\xED\xA0\x80", "\xE2\x82\xAC",
        // what the blocks leave to the scalar rules
        "\xF0\x9F\x98\x80", "\x80", "\xBF\xBF", "\xC3", "\xE4\xB8", "\xFC\x80\x80\x80\x80\x80",
        "\xC0\x80", "\xE0\x80\x80", "\xC1\xBF", "\xE0\x81\x81", "\xC3\x41", "\xE4\x41\x42",
        "\xE4\xC3\xA9", "\xFE", "\xF8", std::string(1, '\0'), "\x7F", "\x01"};
    const unsigned kinds = sizeof pieces / sizeof *pieces;
    unsigned seed = 11;
    auto rnd = [&](unsigned n) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) % n;
    };
    for (int round = 0; round < 1500; round++) {
        // Odd rounds: mostly well-formed pieces between short ASCII runs.
        bool dense = round & 1;
        std::string text;
        while (text.size() < 40 + rnd(300)) {
            if (rnd(3) == 0) {
                for (unsigned i = 0, n = rnd(dense ? 4 : 70); i < n; i++) {
                    text += (char)(0x20 + rnd(0x5F));
                }
            } else {
                text += pieces[dense && rnd(16) ? rnd(8) : rnd(kinds)];
            }
        }
        text.resize(text.size() - rnd(3));  // a cut sequence at the end, sometimes
        SCOPED_TRACE(testing::Message() << "round " << round);
        vek_s32 cap = rnd(4) ? (vek_s32)text.size() + 1 : 1 + (vek_s32)rnd((unsigned)text.size() + 1);
        ASSERT_NO_FATAL_FAILURE(decoders_agree(text, cap));

        // Back to UTF-8, host order and swapped, into targets of any size.
        std::vector<vek_wchar> w(cap);
        vek_s32 ns = utf8_str_to_wcs_str(text.c_str(), w.data(), cap);
        for (int side = 0; side < 2; side++) {
            vek_s32 bcap = rnd(3) ? 3 * ns + 8 : 1 + (vek_s32)rnd(3u * (unsigned)ns + 8);
            ASSERT_NO_FATAL_FAILURE(encoders_agree(u16(w.data(), (size_t)ns), bcap, side != 0));
        }
    }
}

using Utf8Streams = VekTest;

TEST_F(Utf8Streams, CharactersFromAStream) {
    Bytes in("\xC3\xA9\x80\x80Z\xF0\x9F\x98\x80\xE2\x82");
    vek_s32 used = -1;
    EXPECT_EQ(0xE9, utf8_strm_to_wcs_char(in.s(), &used));
    EXPECT_EQ(2, used);
    EXPECT_EQ('!', utf8_strm_to_wcs_char(in.s(), &used));
    EXPECT_EQ(2, used);  // the "Z" that ended the run was given back
    EXPECT_EQ('Z' << 8, utf8_strm_to_ucs2_char(in.s(), &used));
    EXPECT_EQ('?', utf8_strm_to_wcs_char(in.s(), &used));
    EXPECT_EQ(4, used);
    EXPECT_EQ(0, utf8_strm_to_wcs_char(in.s(), &used));  // cut at the end
    EXPECT_EQ(2, used);
    EXPECT_EQ(0, utf8_strm_to_wcs_char(in.s(), &used));
    EXPECT_EQ(0, used);
    EXPECT_ASSERT("strm", utf8_strm_to_wcs_char(nullptr, &used));
}

TEST_F(Utf8Streams, StreamIntoBufferStopsWhereItIsFull) {
    Bytes in("ab\xE2\x82\xAC" "cd");
    vek_wchar dst[4];
    EXPECT_EQ(3, utf8_strm_to_wcs_str(in.s(), dst, 4));
    EXPECT_EQ(u"ab\u20AC", u16(dst));
    EXPECT_EQ(5u, in.pos());  // nothing behind the last character was taken
    EXPECT_EQ(2, utf8_strm_to_ucs2_str(in.s(), dst, 4));
    EXPECT_EQ(swapped(u"cd"), u16(dst));
    Bytes zero(std::string("x\0y", 3));
    EXPECT_EQ(1, utf8_strm_to_wcs_str(zero.s(), dst, 4));

    Bytes units(std::string("a\0\xAC\x20\0\0z\0", 8));
    char out[16];
    EXPECT_EQ(4, wcs_strm_to_utf8_str(units.s(), out, sizeof out));
    EXPECT_STREQ("a\xE2\x82\xAC", out);
    EXPECT_EQ(6u, units.pos());  // a 0 unit ends the text
    Bytes be(std::string("\0a\x20\xAC\0", 5));
    EXPECT_EQ(4, ucs2_strm_to_utf8_str(be.s(), out, sizeof out));  // the odd byte is ignored
    EXPECT_STREQ("a\xE2\x82\xAC", out);
    Bytes room(std::string("a\0b\0c\0", 6));
    EXPECT_EQ(1, wcs_strm_to_utf8_str(room.s(), out, 5));
    EXPECT_EQ(2u, room.pos());
}

TEST_F(Utf8Streams, WholeStreamsAcrossBlockBoundaries) {
    // 1023 ASCII bytes put the euro sign across the reader's 1024-byte
    // blocks; the text is long enough for several output blocks too.
    std::string text(1023, 'x');
    std::u16string wide(1023, u'x');
    for (int i = 0; i < 700; i++) {
        text += "\xE2\x82\xAC\xC3\xA9";
        wide += u"\u20AC\u00E9";
    }
    Bytes in(text), out;
    EXPECT_EQ((vek_s32)wide.size(), utf8_strm_to_wcs_strm(in.s(), out.s()));
    EXPECT_EQ(wide, out.units());
    Bytes in2(text), be;
    EXPECT_EQ((vek_s32)wide.size(), utf8_strm_to_ucs2_strm(in2.s(), be.s()));
    EXPECT_EQ(swapped(wide), be.units());

    Bytes back(out.data()), utf8;
    EXPECT_EQ((vek_s32)text.size(), wcs_strm_to_utf8_strm(back.s(), utf8.s()));
    EXPECT_EQ(text, utf8.data());
    Bytes back2(be.data()), utf8b;
    EXPECT_EQ((vek_s32)text.size(), ucs2_strm_to_utf8_strm(back2.s(), utf8b.s()));
    EXPECT_EQ(text, utf8b.data());

    Bytes s1, s2, s3, s4;
    EXPECT_EQ(2, utf8_str_to_wcs_strm("a\xC3\xA9\xE2", s1.s()));  // the cut sequence ends it
    EXPECT_EQ(u"a\u00E9", s1.units());
    EXPECT_EQ(1, utf8_str_to_ucs2_strm("\xC3\xA9", s2.s()));
    EXPECT_EQ(swapped(u"\u00E9"), s2.units());
    EXPECT_EQ(5, wcs_str_to_utf8_strm(wp(u"\u20ACab\u0000c"), s3.s()));
    EXPECT_EQ("\xE2\x82\xAC" "ab", s3.data());
    EXPECT_EQ(2, ucs2_str_to_utf8_strm(wp(swapped(u"\u00E9")), s4.s()));
    EXPECT_EQ("\xC3\xA9", s4.data());
}

TEST_F(Utf8Streams, TargetErrorsAreReturned) {
    std::string text(5000, 'q');
    Bytes in(text), out;
    out.fail_writes_after(3000);
    EXPECT_EQ(-94, utf8_strm_to_wcs_strm(in.s(), out.s()));
    EXPECT_LT(in.reads(), 5);  // conversion stopped soon after the failure
    Bytes in2(text), out2;
    out2.fail_writes_after(0);
    EXPECT_EQ(-94, utf8_strm_to_utf7_strm(in2.s(), out2.s()));
    Bytes out3;
    out3.fail_writes_after(0);
    EXPECT_EQ(-94, wcs_str_to_utf8_strm(wp(u"x"), out3.s()));
    EXPECT_ASSERT("src && dst", EXPECT_EQ(0, utf8_strm_to_wcs_strm(nullptr, out.s())));
}

using Utf7 = VekTest;

TEST_F(Utf7, RfcExamples) {
    struct Case {
        std::u16string text;
        const char* utf7;
    } cases[] = {{u"A\u2262\u0391.", "A+ImIDkQ."},
                 {u"Hi Mom -\u263A-!", "Hi Mom -+Jjo--!"},
                 {u"\u65E5\u672C\u8A9E", "+ZeVnLIqe-"},
                 {u"Item 3 is \u00A3" "1.", "Item 3 is +AKM-1."},
                 {u"1 + 1 = 2", "1 +- 1 = 2"}};
    for (const Case& c : cases) {
        std::string utf8 = to_utf8(c.text);
        EXPECT_EQ(c.utf7, utf8_to_utf7(utf8)) << c.utf7;
        EXPECT_EQ(utf8, utf7_to_utf8(c.utf7)) << c.utf7;
    }
    // The RFC's decoder notes: a run may end without "-" before a direct
    // character, and "~" and "\" are not direct.
    EXPECT_EQ(to_utf8(u"\u65E5\u672C\u8A9E."), utf7_to_utf8("+ZeVnLIqe."));
    EXPECT_EQ("+AH4AXA-", utf8_to_utf7("~\\"));
}

TEST_F(Utf7, RoundTripsEveryUnit) {
    // All of the BMP but 0, in slices of every length parity, so that runs
    // end on every bit offset; with ASCII in between to close them.
    std::u16string all;
    for (unsigned u = 1; u <= 0xFFFF; u++) {
        all += (char16_t)u;
        if (u % 7 == 0) {
            all += u"-a+ ";
        }
    }
    std::string utf8 = to_utf8(all);
    std::string utf7 = utf8_to_utf7(utf8);
    for (unsigned char b : utf7) {
        ASSERT_LT(b, 0x80);
        ASSERT_TRUE(b != '\\' && b != '~');
    }
    EXPECT_EQ(utf8, utf7_to_utf8(utf7));
}

TEST_F(Utf7, MalformedInput) {
    EXPECT_EQ("a+", utf7_to_utf8("a+"));             // "+" at the end
    EXPECT_EQ("+!x", utf7_to_utf8("+!x"));           // "+" before no base64
    EXPECT_EQ("a?b", utf7_to_utf8("a\xC3" "b"));     // never valid UTF-7
    EXPECT_EQ("\xE2\x98\xBA", utf7_to_utf8("+Jjp-"));  // spare bits dropped
    EXPECT_EQ("x", utf7_to_utf8("+AAA-x"));          // a 0 unit is dropped
    EXPECT_EQ("A", utf7_to_utf8("+AEE"));            // the text ends the run
    EXPECT_EQ("a", utf7_to_utf8("a\0b"));
    // Beyond the BMP on the way in, and malformed UTF-8, are written as the
    // decoder reads them ("?" and "!").
    EXPECT_EQ("?!x", utf8_to_utf7("\xF0\x9F\x98\x80\x80x"));
    // A bounded target: direct characters while they fit, decoded ones by
    // the 4-byte room rule; nothing after the first that does not fit.
    char dst[6];
    EXPECT_EQ(5, utf7_str_to_utf8_str("abcdefg", dst, sizeof dst));
    EXPECT_STREQ("abcde", dst);
    EXPECT_EQ(2, utf7_str_to_utf8_str("ab+AKM-c", dst, sizeof dst));
    EXPECT_STREQ("ab", dst);
    EXPECT_EQ(4, utf7_str_to_utf8_str("a+AKM-c", dst, sizeof dst));
    EXPECT_STREQ("a\xC2\xA3" "c", dst);
    EXPECT_ASSERT("src && dst && dstSize >= 1", utf7_str_to_utf8_str(nullptr, dst, 6));
}

using Unicode = VekTest;

TEST_F(Unicode, AnsiConversions) {
    vek_wchar w[16];
    char a[16];
    EXPECT_EQ(5, ansi_str_to_wcs_str("plain", w, 16));
    EXPECT_EQ(u"plain", u16(w));
    EXPECT_EQ(5, wcs_str_to_ansi_str(w, a, sizeof a));
    EXPECT_STREQ("plain", a);
    EXPECT_EQ(3, ansi_str_to_wcs_str("plain", w, 4));
    // é exists in the Windows code pages; a locale without it writes "?".
    utf8_str_to_ansi_str("caf\xC3\xA9", a, sizeof a);
    char back[16];
    ansi_str_to_utf8_str(a, back, sizeof back);
    EXPECT_TRUE(std::string(back) == "caf\xC3\xA9" || std::string(back) == "caf?") << back;
    EXPECT_EQ(0, ansi_str_to_utf8_str("", back, sizeof back));
    std::string longText(3000, 'L');  // longer than the stack scratch buffer
    std::vector<char> big(4000);
    EXPECT_EQ(3000, utf8_str_to_ansi_str(longText.c_str(), big.data(), 4000));
    EXPECT_EQ(3000, ansi_str_to_utf8_str(longText.c_str(), big.data(), 4000));
    EXPECT_ASSERT("src && dst && dstSize >= 1", ansi_str_to_wcs_str(nullptr, w, 16));
}

TEST_F(Unicode, LengthCopyAndClean) {
    EXPECT_EQ(4, utf8_str_len("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
    EXPECT_EQ(1, utf8_str_len("a\xE2\x82"));
    EXPECT_EQ(0, utf8_str_len(nullptr));

    char dst[5];
    EXPECT_EQ(2, utf8_str_copy(dst, "ab\xE2\x82\xAC", 5));  // the euro sign would not fit
    EXPECT_STREQ("ab", dst);
    EXPECT_EQ(4, utf8_str_copy(dst, "a\xE2\x82\xAC" "b", 5));
    EXPECT_STREQ("a\xE2\x82\xAC", dst);
    EXPECT_EQ(0, utf8_str_copy(dst, nullptr, 5));
    vek_wchar wdst[3];
    EXPECT_EQ(1, wcs_str_copy(wdst, wp(u"a\U0001F600"), 3));  // no half pair
    EXPECT_EQ(u"a", u16(wdst));
    EXPECT_EQ(2, wcs_str_copy(wdst, wp(u"\U0001F600"), 3));
    EXPECT_ASSERT("dst && dstSize >= 1", wcs_str_copy(wdst, wp(u"x"), 0));

    struct Case {
        const char* in;
        vek_s32 keep;
    } cases[] = {{"ok \xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 12},
                 {"ab\xE2\x82", 2},            // a cut sequence
                 {"ab\x80" "cd", 2},           // a stray continuation byte
                 {"a\xC0\x80", 1},             // overlong forms
                 {"a\xE0\x80\xAF", 1},
                 {"a\xF0\x80\x80\xAF", 1},
                 {"a\xF4\x90\x80\x80", 1},     // above U+10FFFF
                 {"a\xF8\x88\x80\x80\x80", 1},
                 {"a\xC3" "A", 1},             // not a continuation byte
                 {"a\xED\xA0\xBD", 4}};        // an encoded surrogate is kept
    for (const Case& c : cases) {
        std::string s = c.in;
        vek_s32 len = -1, removed = -1;
        EXPECT_EQ(c.keep, utf8_str_clean(s.data(), &len, &removed)) << testing::PrintToString(c.in);
        EXPECT_EQ(c.keep, len);
        EXPECT_EQ((vek_s32)s.size() - c.keep, removed);
        EXPECT_EQ((size_t)c.keep, std::strlen(s.c_str()));
    }
    EXPECT_ASSERT("s", utf8_str_clean(nullptr, nullptr, nullptr));
}

TEST_F(Unicode, EqualityOfUtf16AndUtf8) {
    EXPECT_EQ(1, wcs_cmp_utf8(wp(u"caf\u00E9"), "caf\xC3\xA9"));
    EXPECT_EQ(0, wcs_cmp_utf8(wp(u"caf\u00E9"), "caf\xC3\xA9!"));
    EXPECT_EQ(0, wcs_cmp_utf8(wp(u"Caf\u00E9!"), "caf\xC3\xA9"));
    EXPECT_EQ(1, wcs_icmp_utf8(wp(u"Caf\u00E9"), "cAF\xC3\xA9"));
    EXPECT_EQ(0, wcs_icmp_utf8(wp(u"\u00C9"), "\xC3\xA9"));  // only ASCII folds
    EXPECT_EQ(1, utf8_cmp_wcs("x\xE2\x82\xAC", wp(u"x\u20AC")));
    EXPECT_EQ(1, utf8_icmp_wcs("X", wp(u"x")));
    EXPECT_EQ(1, wcs_cmp_utf8(nullptr, nullptr));
    EXPECT_EQ(1, utf8_cmp_wcs("", nullptr));
    EXPECT_EQ(0, utf8_cmp_wcs("a", nullptr));
    EXPECT_EQ(1, utf8_cmp_wcs("\xF0\x9F\x98\x80", wp(u"?")));  // as the decoder reads it
}

TEST_F(Unicode, TurningUnits) {
    std::u16string s = u"\u1234AB";
    EXPECT_EQ(3, vek_u16s_turn((vek_wchar*)s.data(), -1));
    EXPECT_EQ(swapped(u"\u1234AB"), s);
    EXPECT_EQ(1, vek_u16s_turn((vek_wchar*)s.data(), 1));
    EXPECT_EQ(u'\u1234', s[0]);
}
