/*
 * Base64, quoted-printable, IRA hex and BCD. Each group starts from the
 * standards' own vectors (RFC 4648 section 10 for Base64, RFC 2045 for the
 * "=XX" form) and then pins the library's own rules where they depart:
 * room and end rules, "=" inside a quartet, always-encoded blanks, the
 * strtoul pairs and the swapped BCD digits.
 */
#include <cstring>
#include <string>
#include <vector>
#include "StrmTest.h"

using namespace vektest;

namespace {

std::string b64(const std::string& in) {
    char out[128];
    vek_s32 n = b64_enc_buf_from_buf(out, sizeof out, (const vek_u8*)in.data(), (vek_s32)in.size());
    return std::string(out, (size_t)n);
}

std::string unb64(const std::string& in, vek_s32 size = 128) {
    vek_u8 out[128];
    vek_s32 n = b64_dec_str_to_buf(in.c_str(), out, size);
    return std::string((const char*)out, (size_t)n);
}

std::string qp_of(const std::string& in, vek_s32 lineLen = 0, vek_s32 column = 0) {
    StrmPtr s = mem_strm_with();
    vek_s32 n = qp_enc_strm_from_buf(s.get(), (const vek_u8*)in.data(), (vek_s32)in.size(), lineLen, column);
    std::string out = bytes_of(s.get());
    EXPECT_EQ((vek_s32)out.size(), n);
    return out;
}

// A stream to read from: the bytes, position 0.
StrmPtr src_of(const std::string& bytes) {
    StrmPtr s = mem_strm_with(bytes);
    IStrm_seek(s.get(), 0, 0);
    return s;
}

} // namespace

using Base64 = VekTest;

// RFC 4648 section 10, both ways and through every entry point.
TEST_F(Base64, StandardVectors) {
    const char* const vec[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},        {"foo", "Zm9v"},
                                  {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
    for (auto& v : vec) {
        EXPECT_EQ(v[1], b64(v[0]));
        EXPECT_EQ(v[0], unb64(v[1]));
        VekStr s;
        VekStr_new(&s);
        VekStr_setStr(&s, ">");
        EXPECT_EQ((vek_s32)std::strlen(v[1]), b64_enc_cstr_from_buf(&s, (const vek_u8*)v[0], (vek_s32)std::strlen(v[0])));
        EXPECT_EQ(std::string(">") + v[1], VekStr_buf(&s));
        VekStr_delete(&s);
    }
    char q[5] = {};
    EXPECT_EQ(4, b64_enc_atom(q, (const vek_u8*)"\x4D", 1));
    EXPECT_STREQ("TQ==", q);
    b64_enc_atom(q, (const vek_u8*)"\x4D\x61", 2);
    EXPECT_STREQ("TWE=", q);
    // All 256 byte values survive a round trip.
    std::string all;
    for (int i = 0; i < 256; i++) {
        all += (char)i;
    }
    VekStr s;
    VekStr_new(&s);
    b64_enc_cstr_from_buf(&s, (const vek_u8*)all.data(), 256);
    vek_u8 back[260];
    EXPECT_EQ(256, b64_dec_str_to_buf(VekStr_buf(&s), back, sizeof back));
    EXPECT_EQ(0, std::memcmp(back, all.data(), 256));
    VekStr_delete(&s);
}

// "=" counts wherever it stands and adds zero bits; characters outside the
// alphabet spoil the quartet.
TEST_F(Base64, AtomPadRule) {
    vek_u8 out[3] = {0xEE, 0xEE, 0xEE};
    EXPECT_EQ(2, b64_dec_atom("QQ=Q", out));
    EXPECT_EQ(0x41, out[0]);
    EXPECT_EQ(0x00, out[1]);
    EXPECT_EQ(0xEE, out[2]);
    EXPECT_EQ(2, b64_dec_atom("TQ=x", out));
    EXPECT_EQ(1, b64_dec_atom("Q=Q=", out));
    EXPECT_EQ(0, b64_dec_atom("T===", out));
    EXPECT_EQ(0, b64_dec_atom("TQ-=", out));
    EXPECT_EQ(0, b64_dec_atom("TQ\r\n", out));
}

// Room: produced + 3 < size before each quartet; bad quartets are skipped,
// a short tail ignored, blanks not skipped.
TEST_F(Base64, BufferDecodeRoomAndSkips) {
    EXPECT_EQ("foo", unb64("Zm9vYmFy", 6));
    EXPECT_EQ("foobar", unb64("Zm9vYmFy", 7));
    EXPECT_EQ("", unb64("Zm9v", 3));
    EXPECT_EQ("foobar", unb64("Zm9v!!!!YmFy"));
    EXPECT_EQ("foo", unb64("Zm9vYmF"));
    EXPECT_EQ("foo", unb64("Zm9 Zm9v"));
}

// CR and LF are skipped anywhere; the leftover of an incomplete quartet is
// taken off len so the caller can carry it into the next chunk.
TEST_F(Base64, ChunkedDecodeCarriesLeftover) {
    const std::string text = "Zm9v\r\nYm\r\nFy";
    vek_u8 out[16];
    vek_s32 len = 8;  // "Zm9v\r\nYm"
    EXPECT_EQ(3, b64_dec_str_to_bufx(text.c_str(), &len, out));
    EXPECT_EQ(6, len);
    std::string rest = text.substr((size_t)len);
    len = (vek_s32)rest.size();
    EXPECT_EQ(3, b64_dec_str_to_bufx(rest.c_str(), &len, out + 3));
    EXPECT_EQ((vek_s32)rest.size(), len);
    EXPECT_EQ("foobar", std::string((const char*)out, 6));
    len = 6;
    EXPECT_EQ(3, b64_dec_str_to_bufx("Z\nm9\rv", &len, out));
    EXPECT_EQ(6, len);
}

// Output position + 4 < b64Len before each quartet, then the terminator.
TEST_F(Base64, BufferEncodeRoom) {
    char out[16];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(4, b64_enc_buf_from_buf(out, 8, (const vek_u8*)"foobar", 6));
    EXPECT_STREQ("Zm9v", out);
    EXPECT_EQ(8, b64_enc_buf_from_buf(out, 9, (const vek_u8*)"foobar", 6));
    EXPECT_EQ(0, b64_enc_buf_from_buf(out, 4, (const vek_u8*)"f", 1));
    EXPECT_STREQ("", out);
    EXPECT_ASSERT("j < b64Len", b64_enc_buf_from_buf(out, 0, (const vek_u8*)"f", 1));
}

// Fold CR LF TAB once column + 4 would pass foldSize; a negative column
// folds first; short reads give padded quartets.
TEST_F(Base64, StreamFold) {
    StrmPtr src = src_of(std::string(60, 'a'));
    StrmPtr dst = mem_strm_with();
    EXPECT_EQ(83, b64_enc_strm_from_strm(dst.get(), src.get(), 76, 0));
    std::string out = bytes_of(dst.get());
    EXPECT_EQ("\r\n\t", out.substr(76, 3));
    EXPECT_EQ(83u, out.size());
    src = src_of("foobar");
    dst = mem_strm_with();
    EXPECT_EQ(14, b64_enc_strm_from_strm(dst.get(), src.get(), 5, -1));
    EXPECT_EQ("\r\n\tZm9v\r\n\tYmFy", bytes_of(dst.get()));
    src = src_of("foobar");
    dst = mem_strm_with();
    EXPECT_EQ(11, b64_enc_strm_from_strm(dst.get(), src.get(), 8, 2));
    EXPECT_EQ("Zm9v\r\n\tYmFy", bytes_of(dst.get()));
    EXPECT_ASSERT("base && src && foldSize > 0", b64_enc_strm_from_strm(dst.get(), src.get(), 0, 0));
}

using QuotedPrintable = VekTest;

// RFC 2045 "=XX" upper case for "=" and 8-bit bytes; unlike mail's usual
// form, space, tab, CR and LF are always encoded.
TEST_F(QuotedPrintable, EncodeEveryUnit) {
    EXPECT_EQ("a=20b", qp_of("a b"));
    EXPECT_EQ("=3D", qp_of("="));
    EXPECT_EQ("=09=0D=0A=7F=FF=00!~<>", qp_of(std::string("\t\r\n\x7F\xFF", 5) + std::string(1, '\0') + "!~<>"));
    EXPECT_EQ("abc=\r\ndef", qp_of("abcdef", 3));
    EXPECT_EQ("ab=\r\n=20c", qp_of("ab c", 4));
    EXPECT_EQ("=\r\nab", qp_of("ab", 4, -1));
    EXPECT_EQ("a=\r\nb", qp_of("ab", 4, 3));
    StrmPtr s = mem_strm_with();
    EXPECT_EQ(5, qp_enc_strm_from_str(s.get(), "a b", 0, 0));
    StrmPtr src = src_of("x=y");
    EXPECT_EQ(5, qp_enc_strm_from_strm(s.get(), src.get(), 0, 0));
    EXPECT_EQ("a=20bx=3Dy", bytes_of(s.get()));
    EXPECT_ASSERT("qp && str", qp_enc_strm_from_str(s.get(), nullptr, 0, 0));
}

TEST_F(QuotedPrintable, BufferDecode) {
    vek_u8 b = 0;
    EXPECT_TRUE(qp_dec_atom("=3d", &b));
    EXPECT_EQ('=', b);
    EXPECT_TRUE(qp_dec_atom("Fa", &b));
    EXPECT_EQ(0xFA, b);
    EXPECT_FALSE(qp_dec_atom("=3g", &b));
    char out[32];
    // Exact decoded size + 1, as callers pass it.
    EXPECT_EQ(3, qp_dec_str_to_buf("a=20b", out, 4));
    EXPECT_STREQ("a b", out);
    EXPECT_EQ(2, qp_dec_str_to_buf("ab=\r\n", out, 3));
    EXPECT_EQ(4, qp_dec_str_to_buf("ab=\r\ncd", out, 5));
    EXPECT_STREQ("abcd", out);
    EXPECT_EQ(2, qp_dec_str_to_buf("a=zzb", out, 3));  // invalid pair dropped
    EXPECT_STREQ("ab", out);
    EXPECT_EQ(1, qp_dec_str_to_buf("a=2", out, 8));  // "=" near the end stops
    EXPECT_EQ(0, qp_dec_str_to_buf("", out, 8));
    // Only the first byte is tested for the end: a terminator inside the
    // text is copied and decoding runs on to the output limit.
    const char text[] = "a\0b";
    EXPECT_EQ(3, qp_dec_str_to_buf(text, out, 4));
    EXPECT_EQ(0, std::memcmp(out, "a\0b\0", 4));
}

// The stream form writes an invalid pair back and a short tail as read.
TEST_F(QuotedPrintable, StreamDecode) {
    const char* const vec[][2] = {{"a=20b=\r\nc", "a bc"}, {"x=zzy", "x=zzy"}, {"end=4", "end=4"}, {"end=", "end="}};
    for (auto& v : vec) {
        StrmPtr src = src_of(v[0]);
        StrmPtr dst = mem_strm_with();
        EXPECT_EQ((vek_s32)std::strlen(v[1]), qp_dec_strm_to_strm(src.get(), dst.get()));
        EXPECT_EQ(v[1], bytes_of(dst.get()));
    }
    // Escapes, soft breaks and invalid pairs across the decoder's 4 KiB reads.
    for (size_t at = 4090; at < 4098; at++) {
        StrmPtr src = src_of(std::string(at, 'a') + "=41=\r\nb=zz=3d");
        StrmPtr dst = mem_strm_with();
        qp_dec_strm_to_strm(src.get(), dst.get());
        EXPECT_EQ(std::string(at, 'a') + "Ab=zz=", bytes_of(dst.get())) << at;
    }
}

using IraHex = VekTest;

TEST_F(IraHex, EncodeLowerCaseWithRoomForTerminator) {
    const vek_u8 data[] = {0xAB, 0x01, 0xFF};
    char out[16];
    EXPECT_EQ(2, ira_enc_byte_to_buf(out, 0xAB));
    EXPECT_EQ(6, ira_enc_buf_from_buf(out, 7, data, 3));
    EXPECT_STREQ("ab01ff", out);
    EXPECT_EQ(4, ira_enc_buf_from_buf(out, 6, data, 3));
    EXPECT_STREQ("ab01", out);
    EXPECT_EQ(0, ira_enc_buf_from_buf(out, 6, data, 0));
    EXPECT_STREQ("", out);
    EXPECT_ASSERT("iraBuf && iraSize > 0 && data", ira_enc_buf_from_buf(out, 0, data, 3));
    VekStr s;
    VekStr_new(&s);
    EXPECT_EQ(6, ira_enc_cstr_from_buf(&s, data, 3));
    EXPECT_STREQ("ab01ff", VekStr_buf(&s));
    VekStr_delete(&s);
    // From the stream's position; the position is given back.
    StrmPtr src = mem_strm_with(std::string((const char*)data, 3));
    IStrm_seek(src.get(), 1, 0);
    EXPECT_EQ(4, ira_enc_buf_from_strm(out, 5, src.get()));
    EXPECT_STREQ("01ff", out);
    EXPECT_EQ(1, IStrm_tell(src.get()));
    EXPECT_EQ(2, ira_enc_buf_from_strm(out, 4, src.get()));
}

// strtoul pairs: either case, an invalid pair keeps its valid leading part;
// the buffer form never uses its last byte.
TEST_F(IraHex, DecodePairs) {
    vek_u8 out[8];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(2, ira_dec_str_to_buf("AB01", out, 3));
    EXPECT_EQ(0xAB, out[0]);
    EXPECT_EQ(0x01, out[1]);
    EXPECT_EQ(0xEE, out[2]);
    EXPECT_EQ(2, ira_dec_str_to_buf("ab01f", out, 8));  // a single last character is ignored
    EXPECT_EQ(4, ira_dec_str_to_buf("7zzz 5-1", out, 8));
    EXPECT_EQ(0x07, out[0]);
    EXPECT_EQ(0x00, out[1]);
    EXPECT_EQ(0x05, out[2]);
    EXPECT_EQ(0xFF, out[3]);  // "-1" is negative one, cut to a byte
    char str[4];
    EXPECT_EQ(3, ira_dec_str_to_str("414243", str, 4));
    EXPECT_STREQ("ABC", str);
    EXPECT_EQ(2, ira_dec_str_to_str("414243", str, 3));
    EXPECT_STREQ("AB", str);
    StrmPtr dst = mem_strm_with();
    EXPECT_EQ(3, ira_dec_str_to_strm("414243", dst.get()));
    StrmPtr src = mem_strm_with("x4445464");
    IStrm_seek(src.get(), 1, 0);
    EXPECT_EQ(3, ira_dec_strm_to_strm(src.get(), dst.get()));
    EXPECT_EQ(1, IStrm_tell(src.get()));
    EXPECT_EQ("ABCDEF", bytes_of(dst.get()));
}

using Bcd = VekTest;

TEST_F(Bcd, SwappedDigits) {
    EXPECT_EQ(0x95, bcd_enc_byte_from_int(59));
    EXPECT_EQ(59, bcd_dec_byte_to_int(0x95));
    EXPECT_EQ(21, bcd_dec_byte_to_int(0x12));  // the tens digit is the low nibble
    vek_u8 buf[4] = {};
    EXPECT_EQ(3, bcd_enc_buf_from_str(buf, 4, "12345", 1));
    EXPECT_EQ(0x21, buf[0]);
    EXPECT_EQ(0x43, buf[1]);
    EXPECT_EQ(0xF5, buf[2]);
    EXPECT_EQ(3, bcd_enc_buf_from_str(buf, 4, "12345", 0));
    EXPECT_EQ(0x05, buf[2]);
    EXPECT_EQ(2, bcd_enc_buf_from_str(buf, 2, "12345", 1));
    char str[16];
    const vek_u8 digits[] = {0x21, 0x43, 0xF5};
    EXPECT_EQ(5, bcd_dec_buf_to_str(digits, 3, str, sizeof str));
    EXPECT_STREQ("12345", str);
    // The limit is tested per byte: size 4 still takes two whole bytes.
    EXPECT_EQ(4, bcd_dec_buf_to_str(digits, 3, str, 4));
    EXPECT_STREQ("1234", str);
    const vek_u8 odd[] = {0xAB, 0x1C};
    EXPECT_EQ(1, bcd_dec_buf_to_str(odd, 2, str, sizeof str));
    VekStr s;
    VekStr_new(&s);
    EXPECT_EQ(1, bcd_dec_buf_to_cstr(&s, digits, 3));  // the last byte's digits, not the total
    EXPECT_EQ(2, bcd_dec_buf_to_cstr(&s, digits, 2));
    EXPECT_STREQ("123451234", VekStr_buf(&s));
    EXPECT_ASSERT("cstr && bcdLen >= 0", bcd_dec_buf_to_cstr(&s, digits, -1));
    VekStr_delete(&s);
}

// Long texts go through the block path; every rule above still holds at
// any offset: room limits, a bad or padded quartet among good ones, CR LF
// in the chunked form.
TEST_F(Base64, LongTextsKeepTheRules) {
    std::string data = pattern(3000);
    VekStr s;
    VekStr_new(&s);
    b64_enc_cstr_from_buf(&s, (const vek_u8*)data.data(), 3000);
    const std::string text = VekStr_buf(&s);
    VekStr_delete(&s);
    ASSERT_EQ(4000u, text.size());
    std::vector<char> enc(4001);
    for (vek_s32 room : {4001, 4000, 3999, 100, 33, 17, 16}) {
        vek_s32 n = b64_enc_buf_from_buf(enc.data(), room, (const vek_u8*)data.data(), 3000);
        EXPECT_EQ((room - 1) / 4 * 4 < 4000 ? (room - 1) / 4 * 4 : 4000, n) << room;
        EXPECT_EQ(text.substr(0, (size_t)n), std::string(enc.data())) << room;
    }
    std::vector<vek_u8> out(3010);
    for (vek_s32 size : {3004, 3003, 3001, 100, 16, 13, 12}) {
        vek_s32 n = b64_dec_str_to_buf(text.c_str(), out.data(), size);
        EXPECT_EQ(size > 3003 ? 3000 : (size - 1) / 3 * 3, n) << size;
        EXPECT_EQ(0, std::memcmp(out.data(), data.data(), (size_t)n));
    }
    for (size_t at : {0u, 5u, 17u, 999u, 2048u, 3996u}) {
        std::string bad = text;
        bad[at] = '!';
        size_t q = at / 4 * 4;
        std::string want = data.substr(0, q / 4 * 3) + data.substr(q / 4 * 3 + 3);
        vek_s32 n = b64_dec_str_to_buf(bad.c_str(), out.data(), 3010);
        EXPECT_EQ(want, std::string((const char*)out.data(), (size_t)n)) << at;
        std::string pad = text;
        pad[q + 3] = '=';  // the quartet gives 2 bytes, the rest goes on
        std::vector<vek_u8> o(3010);
        vek_s32 len = (vek_s32)pad.size();
        EXPECT_EQ(2999, b64_dec_str_to_bufx(pad.c_str(), &len, o.data())) << at;
        EXPECT_EQ(data.substr(q / 4 * 3 + 3), std::string((const char*)o.data() + q / 4 * 3 + 2, 3000 - q / 4 * 3 - 3));
    }
    std::string folded;
    for (size_t i = 0; i < text.size(); i += 76) {
        folded += text.substr(i, 76) + "\r\n";
    }
    vek_s32 len = (vek_s32)folded.size() - 3;  // cuts the last quartet short
    EXPECT_EQ(2997, b64_dec_str_to_bufx(folded.c_str(), &len, out.data()));
    EXPECT_EQ((vek_s32)folded.size() - 3 - 3, len);
    EXPECT_EQ(0, std::memcmp(out.data(), data.data(), 2997));
}
