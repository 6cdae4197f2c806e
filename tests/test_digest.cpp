/*
 * MD5 and the frame-check CRCs.
 *
 * Standard vectors: the RFC 1321 test suite for MD5, and for the CRCs the
 * catalogue's check values of "123456789" (CRC-8/MAXIM-DOW 0xA1,
 * CRC-16/X-25 0x906E, CRC-32/ISO-HDLC 0xCBF43926) and residues (0xF0B8,
 * 0xDEBB20E3, 0 for the uninverted CRC-8). The library's own departures:
 * the registers are raw (never inverted), so the stream forms return the
 * complement of those check values; the digest text is upper case; the
 * digest comparison folds lower-case letters.
 */
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>
#include "StrmTest.h"

using namespace vektest;

static_assert(offsetof(VekMd5, state) == 8 && offsetof(VekMd5, buf) == 24 &&
                  offsetof(VekMd5, digest) == 88 && sizeof(VekMd5) == 104,
              "context layout");

namespace {

std::string md5_hex(const std::string& data) {
    VekMd5 ctx;
    VekStr hex;
    VekStr_new(&hex);
    VekMd5_update(VekMd5_init(&ctx), data.data(), (vek_s32)data.size());
    VekMd5_finalx(&ctx, &hex);
    std::string out = VekStr_buf(&hex);
    VekStr_delete(&hex);
    return out;
}

// Bit-at-a-time reflected CRC: the definition the tables must agree with.
vek_u32 crc_bitwise(vek_u32 poly, vek_u32 fcs, const std::string& data) {
    for (unsigned char c : data) {
        fcs ^= c;
        for (int k = 0; k < 8; k++) {
            fcs = (fcs & 1) ? (fcs >> 1) ^ poly : fcs >> 1;
        }
    }
    return fcs;
}

// Bytes that do not repeat at any power-of-two period.
std::string noise(size_t n, vek_u32 seed) {
    std::string s(n, 0);
    for (size_t i = 0; i < n; i++) {
        seed = seed * 1103515245u + 12345u;
        s[i] = (char)(seed >> 23);
    }
    return s;
}

const std::string kCheck = "123456789";

} // namespace

using Md5 = VekTest;

TEST_F(Md5, Rfc1321SuiteInUpperCase) {
    EXPECT_EQ("D41D8CD98F00B204E9800998ECF8427E", md5_hex(""));
    EXPECT_EQ("0CC175B9C0F1B6A831C399E269772661", md5_hex("a"));
    EXPECT_EQ("900150983CD24FB0D6963F7D28E17F72", md5_hex("abc"));
    EXPECT_EQ("F96B697D7CB7938D525A2F31AAF161D0", md5_hex("message digest"));
    EXPECT_EQ("C3FCD3D76192E4007DFB496CCA67E13B", md5_hex("abcdefghijklmnopqrstuvwxyz"));
    EXPECT_EQ("D174AB98D277D9F5A5611C2C9F419D9F",
              md5_hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"));
    EXPECT_EQ("57EDF4A22BE3C955AC49DA2E2107B67A",
              md5_hex("1234567890123456789012345678901234567890"
                      "1234567890123456789012345678901234567890"));
    EXPECT_EQ("7707D6AE4E027C70EEA2A935C2296F21", md5_hex(std::string(1000000, 'a')));
}

// The padding spills into a second block from 56 bytes on.
TEST_F(Md5, PaddingBoundaries) {
    EXPECT_EQ("EF1772B6DFF9A122358552954AD0DF65", md5_hex(std::string(55, 'a')));
    EXPECT_EQ("3B0C8AC703F828B04C6C197006D17218", md5_hex(std::string(56, 'a')));
    EXPECT_EQ("B06521F39153D618550606BE297466D5", md5_hex(std::string(63, 'a')));
    EXPECT_EQ("014842D480B571495A4A0363793F7367", md5_hex(std::string(64, 'a')));
    EXPECT_EQ("C743A45E0D2E6A95CB859ADAE0248435", md5_hex(std::string(65, 'a')));
    EXPECT_EQ("8A7BD0732ED6A28CE75F6DABC90E1613", md5_hex(std::string(119, 'a')));
    EXPECT_EQ("5F61C0CCAD4CAC44C75FF505E1F1E537", md5_hex(std::string(120, 'a')));
}

// Feeding in pieces gives the one-shot digest wherever the cuts fall, and
// the digest bytes in the context match the text appended behind what the
// string held.
TEST_F(Md5, PiecesDigestBytesAndAppendedText) {
    std::string data = noise(300, 7);
    std::string whole = md5_hex(data);
    for (size_t cut1 = 0; cut1 <= data.size(); cut1 += 13) {
        for (size_t cut2 = cut1; cut2 <= data.size(); cut2 += 61) {
            VekMd5 ctx;
            VekMd5_init(&ctx);
            VekMd5_update(&ctx, data.data(), (vek_s32)cut1);
            VekMd5_update(&ctx, data.data() + cut1, (vek_s32)(cut2 - cut1));
            VekMd5_update(&ctx, data.data() + cut2, (vek_s32)(data.size() - cut2));
            VekStr hex;
            VekStr_new(&hex);
            VekStr_setStrx(&hex, "md5=", 4);
            const vek_u8* dig = VekMd5_finalx(&ctx, &hex);
            ASSERT_EQ(ctx.digest, dig);
            ASSERT_EQ("md5=" + whole, VekStr_buf(&hex)) << cut1 << " " << cut2;
            char text[33];
            for (int i = 0; i < 16; i++) {
                vek_snprintf(text + 2 * i, 3, "%02X", dig[i]);
            }
            ASSERT_EQ(whole, text);
            VekStr_delete(&hex);
        }
    }
    VekMd5 ctx;
    EXPECT_NE(nullptr, VekMd5_finalx(VekMd5_init(&ctx), nullptr));
    EXPECT_EQ(0xD4, ctx.digest[0]);
    EXPECT_EQ(0x7E, ctx.digest[15]);
}

// Lower-case letters fold to upper case, nothing else does: a digest equals
// its text in either case, and bytes that only differ by 0x20 outside
// a-z stay different.
TEST_F(Md5, DigestComparisonFoldsLowerCaseLetters) {
    const char* up = "D41D8CD98F00B204";
    const char* low = "d41d8cd98f00b204";
    EXPECT_EQ(1, VekMd5_cmpDig(up, low));
    EXPECT_EQ(1, VekMd5_cmpDig(low, low));
    EXPECT_EQ(0, VekMd5_cmpDig(up, "D41D8CD98F00B205"));
    vek_u8 a[16] = {0x7B, 0xE1, 0x61}, b[16] = {0x5B, 0xE1, 0x41};
    EXPECT_EQ(0, VekMd5_cmpDig(a, b));  // '{' is not '['
    a[0] = 0x5B;
    EXPECT_EQ(1, VekMd5_cmpDig(a, b));
    b[1] = 0xC1;
    EXPECT_EQ(0, VekMd5_cmpDig(a, b));  // only ASCII letters fold
    EXPECT_ASSERT("a && b", EXPECT_EQ(0, VekMd5_cmpDig(a, nullptr)));
}

TEST_F(Md5, TraceAndBadArguments) {
    TraceCapture trc;
    VekMd5 ctx;
    VekMd5_finalx(VekMd5_init(&ctx), nullptr);
    EXPECT_EQ(32, VekMd5_trcDig(ctx.digest));
    EXPECT_TRUE(trc.contains("D41D8CD98F00B204E9800998ECF8427E"));
    EXPECT_ASSERT("digest", EXPECT_EQ(0, VekMd5_trcDig(nullptr)));
    EXPECT_ASSERT("ctx", EXPECT_EQ(nullptr, VekMd5_init(nullptr)));
    EXPECT_ASSERT("ctx", VekMd5_update(nullptr, "a", 1));
    EXPECT_ASSERT("len >= 0 && (buf || len == 0)", VekMd5_update(&ctx, nullptr, 1));
    EXPECT_ASSERT("len >= 0 && (buf || len == 0)", VekMd5_update(&ctx, "a", -1));
    VekMd5_update(VekMd5_init(&ctx), nullptr, 0);
    VekMd5_finalx(&ctx, nullptr);
    EXPECT_EQ(0xD4, ctx.digest[0]);
}

using Crc = VekTest;

TEST_F(Crc, CheckValuesAndResidues) {
    const char* s = kCheck.data();
    EXPECT_EQ(0xA1, Crc8_fcsBuf(s, 9));
    EXPECT_EQ(0x906E, (vek_u16)~Crc16_fcsBuf(0xFFFF, s, 9));
    EXPECT_EQ(0xCBF43926u, ~Crc32_fcsBuf(0xFFFFFFFFu, s, 9));
    // A frame followed by its transmitted (complemented, low byte first)
    // check sequence leaves the catalogue's residue in the register.
    vek_u16 f16 = (vek_u16)~Crc16_fcsBuf(0xFFFF, s, 9);
    vek_u8 t16[2] = {(vek_u8)f16, (vek_u8)(f16 >> 8)};
    EXPECT_EQ(0xF0B8, Crc16_fcsBuf(Crc16_fcsBuf(0xFFFF, s, 9), t16, 2));
    vek_u32 f32 = ~Crc32_fcsBuf(0xFFFFFFFFu, s, 9);
    vek_u8 t32[4] = {(vek_u8)f32, (vek_u8)(f32 >> 8), (vek_u8)(f32 >> 16), (vek_u8)(f32 >> 24)};
    EXPECT_EQ(0xDEBB20E3u, Crc32_fcsBuf(Crc32_fcsBuf(0xFFFFFFFFu, s, 9), t32, 4));
    std::string framed = kCheck + '\xA1';
    EXPECT_EQ(0, Crc8_fcsBuf(framed.data(), 10));
    // Byte steps chain to the same register as a run.
    vek_u16 r16 = 0xFFFF;
    vek_u32 r32 = 0xFFFFFFFFu;
    for (char c : kCheck) {
        r16 = Crc16_fcsU8(r16, (vek_u8)c);
        r32 = Crc32_fcsU8(r32, (vek_u8)c);
    }
    EXPECT_EQ(0x6F91, r16);
    EXPECT_EQ(0x340BC6D9u, r32);
}

// Every length and alignment up to a few hundred bytes, then long runs cut
// anywhere, against the bit-at-a-time definition: covers the byte tails,
// the eight-byte steps and the processor's folding path where it has one.
TEST_F(Crc, AgreesWithTheBitwiseDefinition) {
    std::string data = noise(1 << 20, 3);
    for (size_t off = 0; off < 16; off++) {
        for (size_t len = 0; len <= 300; len++) {
            std::string part = data.substr(off, len);
            const char* p = data.data() + off;
            ASSERT_EQ(crc_bitwise(0x8C, 0, part), Crc8_fcsBuf(p, (vek_s32)len));
            ASSERT_EQ(crc_bitwise(0x8408, 0x1234, part), Crc16_fcsBuf(0x1234, p, (vek_s32)len));
            ASSERT_EQ(crc_bitwise(0xEDB88320u, 0x89ABCDEFu, part),
                      Crc32_fcsBuf(0x89ABCDEFu, p, (vek_s32)len))
                << off << " " << len;
        }
    }
    vek_u32 want = crc_bitwise(0xEDB88320u, 0xFFFFFFFFu, data);
    vek_u16 want16 = (vek_u16)crc_bitwise(0x8408, 0xFFFF, data);
    EXPECT_EQ(want, Crc32_fcsBuf(0xFFFFFFFFu, data.data(), (vek_s32)data.size()));
    EXPECT_EQ(want16, Crc16_fcsBuf(0xFFFF, data.data(), (vek_s32)data.size()));
    for (size_t cut : {1u, 63u, 64u, 65u, 4097u, 65536u, 999999u}) {
        vek_u32 r = Crc32_fcsBuf(0xFFFFFFFFu, data.data(), (vek_s32)cut);
        EXPECT_EQ(want, Crc32_fcsBuf(r, data.data() + cut, (vek_s32)(data.size() - cut))) << cut;
    }
}

TEST_F(Crc, StreamsFromTheStartKeepingThePosition) {
    StrmPtr s = mem_strm_with(kCheck);
    IStrm_seek(s.get(), 4, 0);
    EXPECT_EQ(0x340BC6D9u, Crc32_fcsStrm(s.get()));
    EXPECT_EQ(4, IStrm_tell(s.get()));
    EXPECT_EQ(0x6F91, Crc16_fcsStrm(s.get()));
    EXPECT_EQ(0xA1, Crc8_fcsStrm(s.get()));
    EXPECT_EQ(4, IStrm_tell(s.get()));
    // Longer than one read, over a small-block stream.
    std::string big = noise(70000, 5);
    StrmPtr b = mem_strm_with(big, 100);
    EXPECT_EQ(crc_bitwise(0xEDB88320u, 0xFFFFFFFFu, big), Crc32_fcsStrm(b.get()));
    EXPECT_EQ(70000, IStrm_tell(b.get()));
    StrmPtr e = mem_strm_with();
    EXPECT_EQ(0xFFFFFFFFu, Crc32_fcsStrm(e.get()));
    EXPECT_EQ(0xFFFF, Crc16_fcsStrm(e.get()));
    EXPECT_EQ(0, Crc8_fcsStrm(e.get()));
}

TEST_F(Crc, BadArgumentsLeaveTheRegister) {
    EXPECT_EQ(0x1234, Crc16_fcsBuf(0x1234, "", 0));
    EXPECT_EQ(0x1234, Crc16_fcsBuf(0x1234, nullptr, 0));
    EXPECT_ASSERT("len >= 0 && (buf || len == 0)", EXPECT_EQ(0x1234, Crc16_fcsBuf(0x1234, nullptr, 3)));
    EXPECT_ASSERT("len >= 0 && (buf || len == 0)", EXPECT_EQ(7u, Crc32_fcsBuf(7, "a", -1)));
    EXPECT_ASSERT("len >= 0 && (buf || len == 0)", EXPECT_EQ(0, Crc8_fcsBuf(nullptr, 1)));
    EXPECT_ASSERT("strm", EXPECT_EQ(0xFFFFFFFFu, Crc32_fcsStrm(nullptr)));
    EXPECT_ASSERT("strm", EXPECT_EQ(0xFFFF, Crc16_fcsStrm(nullptr)));
    EXPECT_ASSERT("strm", EXPECT_EQ(0, Crc8_fcsStrm(nullptr)));
}
