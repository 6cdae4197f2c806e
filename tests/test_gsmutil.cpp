/*
 * The GSM 7-bit alphabet, septet packing, SMS addresses and time stamps.
 * Standard vectors: the 3GPP TS 23.038 table and packing ("hellohello" of
 * the widely published PDU
 * 07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37,
 * with its service-centre address, sender and time stamp). The library's
 * own departures are marked where they are tested: 0x1B as U+00B9, form
 * feed at 0x0C, the address length rules and the dropped half hours.
 */
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include "VekTest.h"

using namespace vektest;

namespace {

// Big-endian UCS-2 units in memory, as a PDU holds them.
std::vector<vek_u16> ucs2(std::initializer_list<vek_u16> chars) {
    std::vector<vek_u16> out;
    for (vek_u16 c : chars) {
        vek_u16 u;
        vek_u8* b = (vek_u8*)&u;
        b[0] = (vek_u8)(c >> 8);
        b[1] = (vek_u8)c;
        out.push_back(u);
    }
    out.push_back(0);
    return out;
}

std::vector<vek_u8> hex(const char* s) {
    std::vector<vek_u8> out(std::strlen(s) / 2 + 1);
    out.resize((size_t)ira_dec_str_to_buf(s, out.data(), (vek_s32)out.size()));
    return out;
}

std::string septets(const std::string& packedHex, vek_s32 fill = 0) {
    std::vector<vek_u8> p = hex(packedHex.c_str());
    vek_u8 out[256];
    vek_s32 n = GsmUtil_dec7BitStr(out, sizeof out, p.data(), (vek_s32)p.size(), fill);
    return std::string((const char*)out, (size_t)n);
}

// The record's fields as one text, zone in minutes.
std::string dt_text(const VekDt& dt) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d %d", (int)dt.year, (int)dt.month, (int)dt.day,
                  (int)dt.hour, (int)dt.minute, (int)dt.second, (int)dt.zone);
    return buf;
}

const char kPdu[] = "07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37";

} // namespace

using SmsAlphabet = VekTest;

TEST_F(SmsAlphabet, TableAndDeviations) {
    // 3GPP TS 23.038 entries.
    EXPECT_EQ(0x0040, SmsAlph_toUcs2(0x00));
    EXPECT_EQ(0x00A3, SmsAlph_toUcs2(0x01));
    EXPECT_EQ(0x0394, SmsAlph_toUcs2(0x10));
    EXPECT_EQ(0x00A4, SmsAlph_toUcs2(0x24));
    EXPECT_EQ(0x00A1, SmsAlph_toUcs2(0x40));
    EXPECT_EQ(0x00E0, SmsAlph_toUcs2(0x7F));
    // Deliberate: the escape position reads as superscript one.
    EXPECT_EQ(0x00B9, SmsAlph_toUcs2(0x1B));
    EXPECT_ASSERT("gsm >= 0 && gsm <= 127", EXPECT_EQ(0, SmsAlph_toUcs2(128)));
    vek_s32 kind = 0;
    EXPECT_EQ(1, SmsAlph_is7BitChar(ucs2({0x20AC})[0], &kind));
    EXPECT_EQ(2, kind);
    EXPECT_EQ(1, SmsAlph_is7BitChar(ucs2({'@'})[0], &kind));
    EXPECT_EQ(1, kind);
    EXPECT_EQ(1, SmsAlph_is7BitChar(0x4000, nullptr));  // '@' loaded little-endian
    EXPECT_EQ(0, SmsAlph_is7BitChar(ucs2({0x4E2D})[0], &kind));
    vek_s32 n = 0;
    EXPECT_EQ(1, SmsAlph_is7BitStr(ucs2({'a', 0x20AC}).data(), -1, &n));
    EXPECT_EQ(3, n);
    EXPECT_EQ(0, SmsAlph_is7BitStr(ucs2({'a', 0x4E2D}).data(), 2, &n));
}

TEST_F(SmsAlphabet, ToAndFromSeptets) {
    vek_u8 out[16];
    auto text = ucs2({'@', 0x20AC, 0x00B9, 0x4E2D, 0x000C, '{'});
    EXPECT_EQ(9, SmsAlph_to7BitStr(text.data(), -1, out, sizeof out));
    EXPECT_EQ(0, std::memcmp(out, "\x00\x1B\x65\x1B?\x1B\x0C\x1B\x28", 10));
    {
        TraceCapture trc;
        EXPECT_EQ(1, SmsAlph_to7BitStr(text.data(), -1, out, 3));  // the pair would take the last cell
        EXPECT_TRUE(trc.contains("not all data proced"));
    }
    // Back: the pairs give their characters, a lone 0x1B U+00B9, the
    // 3GPP form-feed code 0x0A a line feed.
    const vek_u8 sep[] = {0x00, 0x1B, 0x65, 0x1B, 0x3F, 0x1B, 0x0C, 0x1B, 0x0A, 0x1B};
    vek_u16 back[16];
    EXPECT_EQ(8, SmsAlph_from7BitStr(sep, sizeof sep, back, 16));
    EXPECT_EQ(0, std::memcmp(back, ucs2({'@', 0x20AC, 0x00B9, '?', 0x000C, 0x00B9, 0x000A, 0x00B9}).data(), 18));
    {
        TraceCapture trc;
        EXPECT_EQ(2, SmsAlph_from7BitStr(sep, sizeof sep, back, 3));
        EXPECT_TRUE(trc.contains("not all data proced"));
    }
    const vek_u8 bad[] = {'a', 0x80, 'b'};
    EXPECT_ASSERT("(src[i] & 0x80) == 0", EXPECT_EQ(1, SmsAlph_from7BitStr(bad, 3, back, 16)));
}

using Septets = VekTest;

TEST_F(Septets, PackAndUnpack) {
    vek_u8 out[16];
    EXPECT_EQ(7, GsmUtil_enc7BitStr(out, sizeof out, (const vek_u8*)"hellohel", 8, 0));
    EXPECT_EQ(10, (vek_s32)std::string("hellohello").size());
    EXPECT_EQ(9, GsmUtil_enc7BitStr(out, sizeof out, (const vek_u8*)"hellohello", 10, 0));
    EXPECT_EQ(hex("E8329BFD4697D9EC37"), std::vector<vek_u8>(out, out + 9));
    EXPECT_EQ(5, GsmUtil_enc7BitStr(out, sizeof out, (const vek_u8*)"hello", 5, 0));
    EXPECT_EQ(hex("E8329BFD06"), std::vector<vek_u8>(out, out + 5));
    out[0] = 0xFF;
    EXPECT_EQ(1, GsmUtil_enc7BitStr(out, sizeof out, (const vek_u8*)"\x7F", 1, 1));
    EXPECT_EQ(0xFE, out[0]);  // bits 1 to 7; the fill bit cleared
    EXPECT_EQ(3, GsmUtil_enc7BitStr(out, 3, (const vek_u8*)"hellohello", 10, 0));
    // 7 bytes give 8 septets, the last 0 when the text had 7.
    EXPECT_EQ("hellohel", septets("E8329BFD4697D9"));
    EXPECT_EQ(7, GsmUtil_enc7BitStr(out, sizeof out, (const vek_u8*)"hellohe", 7, 0));
    char packed7[15];
    ira_enc_buf_from_buf(packed7, sizeof packed7, out, 7);
    EXPECT_EQ(std::string("hellohe\0", 8), septets(packed7));
    EXPECT_EQ("hellohello", septets("E8329BFD4697D9EC37").substr(0, 10));
    EXPECT_EQ("\x7F", septets("FE", 1));
    vek_u8 small[4];
    std::vector<vek_u8> p = hex("E8329BFD06");
    EXPECT_EQ(3, GsmUtil_dec7BitStr(small, 4, p.data(), (vek_s32)p.size(), 0));
    EXPECT_STREQ("hel", (const char*)small);
    VekStr s;
    VekStr_new(&s);
    VekStr_setStr(&s, ">");
    EXPECT_EQ(5, GsmUtil_dec7BitCstr(&s, p.data(), (vek_s32)p.size(), 0));
    EXPECT_STREQ(">hello", VekStr_buf(&s));
    EXPECT_EQ(0, GsmUtil_dec7BitCstr(nullptr, p.data(), 5, 0));
    VekStr_delete(&s);
}

using SmsAddress = VekTest;

TEST_F(SmsAddress, NumberFormAndEncoding) {
    EXPECT_EQ(0x81, GsmUtil_getNoFmt("0123"));
    EXPECT_EQ(0x91, GsmUtil_getNoFmt("+4912"));
    EXPECT_EQ(0xD0, GsmUtil_getNoFmt("+49A"));
    EXPECT_EQ(0xD0, GsmUtil_getNoFmt("12+3"));
    vek_u8 out[16];
    EXPECT_EQ(9, GsmUtil_encNo(out, sizeof out, "+8613912345678", 1));
    EXPECT_EQ(hex("0D91683119325476F8"), std::vector<vek_u8>(out, out + 9));
    EXPECT_EQ(9, GsmUtil_encNo(out, sizeof out, "+8613912345678", 0));
    EXPECT_EQ(8, out[0]);
    // The published PDU's service-centre address, octet-length style.
    EXPECT_EQ(8, GsmUtil_encNo(out, sizeof out, "+27381000015", 0));
    EXPECT_EQ(hex("07917283010010F5"), std::vector<vek_u8>(out, out + 8));
    EXPECT_EQ(3, GsmUtil_encNo(out, sizeof out, "12", 1));
    EXPECT_EQ(hex("028121"), std::vector<vek_u8>(out, out + 3));
    // Alphanumeric: the text packed as it stands; length twice the bytes.
    EXPECT_EQ(7, GsmUtil_encNo(out, sizeof out, "hello", 1));
    EXPECT_EQ(hex("0AD0E8329BFD06"), std::vector<vek_u8>(out, out + 7));
}

TEST_F(SmsAddress, DecodingKeepsBothLengthConventions) {
    std::vector<vek_u8> pdu = hex(kPdu);
    const vek_u8* smsc = pdu.data();
    const vek_u8* sender = pdu.data() + 9;
    char out[32];
    EXPECT_EQ(0, GsmUtil_decNo(out, sizeof out, smsc, 0));
    EXPECT_STREQ("+27381000015", out);
    EXPECT_EQ(1, GsmUtil_decNo(out, sizeof out, sender, 1));
    EXPECT_STREQ("27838890001", out);  // TOA 0xC8: the digits alone
    EXPECT_EQ(0, GsmUtil_decNo(out, 5, smsc, 0));
    EXPECT_STREQ("+273", out);
    VekStr s;
    VekStr_new(&s);
    EXPECT_EQ(8, GsmUtil_getNo(&s, sender, 0));
    EXPECT_STREQ("27838890001", VekStr_buf(&s));
    // Service-centre style: the field is length + 1 bytes, yet the digits
    // come from (length + 1) / 2 bytes, as callers expect.
    EXPECT_EQ(8, GsmUtil_getNo(&s, smsc, 1));
    EXPECT_STREQ("+27381000", VekStr_buf(&s));
    std::vector<vek_u8> alpha = hex("0AD0E8329BFD06");
    EXPECT_EQ(7, GsmUtil_getNo(&s, alpha.data(), 1));
    EXPECT_STREQ("hello", VekStr_buf(&s));
    alpha.resize(11);  // decNo reads length - 1 = 9 bytes for 0xD0, whatever digitLen says
    EXPECT_EQ(0, GsmUtil_decNo(out, sizeof out, alpha.data(), 1));
    EXPECT_EQ(std::string("hello\0\0", 7), std::string(out, 7));
    VekStr_delete(&s);
}

using SmsTime = VekTest;

TEST_F(SmsTime, TimeStamps) {
    std::vector<vek_u8> pdu = hex(kPdu);
    VekDt dt;
    EXPECT_EQ(7, GsmUtil_decObsTime(&dt, pdu.data() + 19));
    EXPECT_EQ("1999-03-29 15:16:59 -120", dt_text(dt));  // 8 quarters east: +2 h, bias sign
    struct {
        const char* hex;
        vek_s32 year, zone;
    } const vec[] = {
        {"08010100000023", 2080, -480},           {"18010100000000", 1981, VEK_ZONE_UNKNOWN},
        {"00010100000082", 2000, -420},           {"0001010000008A", 2000, 420},  // sign bit: west
        {"00010100000022", 2000, -300},           // +05:30 (22 quarters): the half hour is dropped
        {"00010100000030", 2000, VEK_ZONE_UNKNOWN},  // 3 quarters: 0 hours
    };
    for (auto& v : vec) {
        GsmUtil_decObsTime(&dt, hex(v.hex).data());
        EXPECT_EQ(v.year, dt.year) << v.hex;
        EXPECT_EQ(v.zone, dt.zone) << v.hex;
    }
    vek_u8 out[7];
    VekDt in = {2026, 11, 23, 13, 5, 9, 0, -60};
    EXPECT_EQ(7, GsmUtil_encObsTime(out, &in));
    EXPECT_EQ(hex("62113231509000"), std::vector<vek_u8>(out, out + 7));
    in.year = 1999;
    GsmUtil_encObsTime(out, &in);
    EXPECT_EQ(0x99, out[0]);
    in.year = 7;
    GsmUtil_encObsTime(out, &in);
    EXPECT_EQ(0x70, out[0]);
}

TEST_F(SmsTime, ModemTextAndNames) {
    VekDt dt;
    EXPECT_EQ(1, GsmUtil_decTxtTime(&dt, "26/11/23,13:05:09+32"));
    EXPECT_EQ("2026-11-23 13:05:09 0", dt_text(dt));  // the suffix is ignored; the initial zone stays
    GsmUtil_decTxtTime(&dt, "26x11x23x13x05x09");
    EXPECT_EQ(9, dt.second);
    EXPECT_EQ(0, GsmUtil_decTxtTime(&dt, "26/11/23,13:05:0"));
    EXPECT_EQ(VEK_DT_UNSET, dt.year);
    EXPECT_EQ(VEK_DT_UNSET, dt.hour);
    EXPECT_STREQ("UCS2", GsmUtil_csToStr(1));
    EXPECT_STREQ("UTF-8", GsmUtil_csToStr(2));
    EXPECT_STREQ("GSM", GsmUtil_csToStr(0));
    EXPECT_STREQ("GSM", GsmUtil_csToStr(7));
}
