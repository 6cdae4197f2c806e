/*
 * ISO 8601 text: every decoder branch, both notations and every zone form
 * on output, the zone modes, and durations both ways.
 */
#include <cstring>
#include <string>
#include <vector>
#include "VekStr.h"
#include "VekTest.h"
#include "VekTime.h"

namespace {

class Iso : public VekTest {
  protected:
    void SetUp() override {
        VekTest::SetUp();
        VekStr_new(&str_);
    }
    void TearDown() override {
        VekStr_delete(&str_);
        VekTest::TearDown();
    }
    std::string text() const {
        return VekStr_buf(&str_);
    }
    VekStr str_;
};

struct DecCase {
    const char* text;
    int ok, mask, ext;
    VekDt dt;
};

const vek_s32 U = VEK_DT_UNSET, Z = VEK_ZONE_UNKNOWN;

} // namespace

TEST_F(Iso, DecodeDateTimes) {
    const DecCase cases[] = {
        {"2012-08-22T10:15:30+08:00", 1, 0xFF, 1, {2012, 8, 22, 10, 15, 30, 0, 480}},
        {"20120822T101530Z", 1, 0xFF, 0, {2012, 8, 22, 10, 15, 30, 0, 0}},
        {"20120822t101530z", 1, 0xFF, 0, {2012, 8, 22, 10, 15, 30, 0, 0}},
        {"2012-08-22T10:15:30.5", 1, 0xFF, 1, {2012, 8, 22, 10, 15, 30, 5, Z}},
        {"2012-08-22T10:15:30.1234567890123456-0530", 1, 0xFF, 1,
         {2012, 8, 22, 10, 15, 30, (vek_s32)123456789012345LL, -330}},
        {"20120822T101530+8", 1, 0xFF, 0, {2012, 8, 22, 10, 15, 30, 0, 480}},
        {"20120822T101530-01:3x", 1, 0xFF, 1, {2012, 8, 22, 10, 15, 30, 0, -63}},
        {"20120822T101530+05:", 1, 0xFF, 1, {2012, 8, 22, 10, 15, 30, 0, 300}},
        {"2012", 1, 0x01, 0, {2012, 1, 1, U, 0, 0, 0, 0}},
        {"2012/08", 1, 0x03, 1, {2012, 8, 1, U, 0, 0, 0, 0}},
        {"-2012-08-22", 1, 0x07, 1, {-2012, 8, 22, U, 0, 0, 0, 0}},
        {"0000-01-01", 1, 0x07, 1, {U, 1, 1, U, 0, 0, 0, 0}},
        {"2012-08-22T", 1, 0x07, 1, {2012, 8, 22, U, 0, 0, 0, 0}},
        {"2012-08-22T10", 1, 0x0F, 1, {2012, 8, 22, 10, 0, 0, 0, 0}},
        {"2012-08-22T10:15", 1, 0x1F, 1, {2012, 8, 22, 10, 15, 0, 0, 0}},
        {"2012-8", 0, 0x01, 1, {2012, 1, 1, U, 0, 0, 0, 0}},
        {"201", 0, 0, 0, {U, 1, 1, U, 0, 0, 0, 0}},
        {"2012-08-2", 0, 0x03, 1, {2012, 8, 1, U, 0, 0, 0, 0}},
        {"2012-08-22 10", 0, 0x07, 1, {2012, 8, 22, U, 0, 0, 0, 0}},
        {"2012-08-22T1", 0, 0x07, 1, {2012, 8, 22, U, 0, 0, 0, 0}},
        {"2012-08-22T10:1", 0, 0x0F, 1, {2012, 8, 22, 10, 0, 0, 0, 0}},
        {"2012-08-22T10:15:3", 0, 0x1F, 1, {2012, 8, 22, 10, 15, 0, 0, 0}},
        {"20120822T101530Zx", 0, 0xFF, 0, {2012, 8, 22, 10, 15, 30, 0, 0}},
        {"20120822T101530+", 0, 0xFF, 0, {2012, 8, 22, 10, 15, 30, 0, 0}},
        {"20120822T101530 ", 0, 0xFF, 0, {2012, 8, 22, 10, 15, 30, 0, 0}},
    };
    for (const DecCase& c : cases) {
        SCOPED_TRACE(c.text);
        VekDt dt;
        vek_s32 mask = -1, ext = -1;
        EXPECT_EQ(iso_dt_decx(c.text, &dt, &mask, &ext), c.ok);
        EXPECT_EQ(mask, c.mask);
        EXPECT_EQ(ext, c.ext);
        EXPECT_EQ(std::memcmp(&dt, &c.dt, sizeof dt), 0)
            << dt.year << " " << dt.month << " " << dt.day << " " << dt.hour << " " << dt.minute << " "
            << dt.second << " " << dt.millisecond << " " << dt.zone;
        vek_s32 f[10];
        EXPECT_EQ(iso_dt_decfx(c.text, &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &f[6], &f[7], &f[8], &f[9]),
                  c.ok);
        EXPECT_TRUE(std::memcmp(f, &c.dt, sizeof dt) == 0 && f[8] == c.mask && f[9] == c.ext);
        EXPECT_EQ(iso_dt_dec(c.text, &dt), c.ok);
        EXPECT_EQ(iso_dt_decf(c.text, &f[0], nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &f[7]), c.ok);
    }
    VekDt dt;
    EXPECT_EQ(iso_dt_dec(nullptr, &dt), 0);
}

TEST_F(Iso, DecodeDates) {
    VekDt dt;
    vek_s32 mask, ext, y = 0, m = 0, d = 0;
    EXPECT_TRUE(iso_date_decx("2012-08-22T10:15", &dt, &mask, &ext) && mask == 7 && ext == 1);
    EXPECT_TRUE(dt.day == 22 && dt.hour == U);
    EXPECT_TRUE(iso_date_dec("20120822junk", &dt) && dt.month == 8);
    EXPECT_TRUE(iso_date_decf("2012", &y, &m, &d) && y == 2012 && m == 1 && d == 1);
    EXPECT_TRUE(iso_date_decfx("2012/08/22", &y, &m, &d, &mask, &ext) && d == 22 && mask == 7 && ext == 1);
    y = m = d = mask = 0;
    EXPECT_FALSE(iso_date_decfx("2012-08-2", &y, &m, &d, &mask, &ext));  // copies only on success
    EXPECT_TRUE(y == 0 && m == 0 && d == 0 && mask == 0);
    EXPECT_FALSE(iso_date_decf("x", &y, &m, &d));
}

TEST_F(Iso, EncodeDateTimes) {
    VekDt dt;
    VekDt_set(&dt, 2012, 8, 22, 10, 15, 30, 5, -60);
    const struct {
        vek_s32 mask, ext;
        const char* text;
    } cases[] = {
        {0, 0, "20120822T101530.5-0100"},
        {0, 1, "2012-08-22T10:15:30.5101:00"},
        {0xBF, 0, "20120822T101530"},  // no fraction bit: the zone after it is not reached
        {0xBF, 1, "2012-08-22T10:15:30"},
        {0x7F, 0, "20120822T101530.5"},
        {0x9F, 1, "2012-08-22T10:15"},
        {0x07, 0, "20120822"},
        {0x03, 1, "2012-08"},
        {0xFB, 0, "201208"},  // stops at the missing day
        {0x38, 0, "T101530"},
        {0x38, 1, ""},        // extended text needs the year bit
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(iso_dt_encx(&str_, &dt, c.mask, c.ext), (vek_s32)std::strlen(c.text));
        EXPECT_EQ(text(), c.text);
    }
    iso_dt_encfx(&str_, 2012, 8, 22, 10, 15, 30, -1, 480, 0, 0);
    EXPECT_EQ(text(), "20120822T101530+0800");
    iso_dt_encfx(&str_, 2012, 8, 22, 10, 15, 30, -1, 480, 0, 1);
    EXPECT_EQ(text(), "2012-08-22T10:15:30.-1+08:00");
    iso_dt_encfx(&str_, 2012, 8, 22, 10, 15, 30, 5, 480, 0xBF, 0);
    EXPECT_EQ(text(), "20120822T101530");
    iso_dt_encf(&str_, U, 1, 1, 9, 5, 0, -1, Z);
    EXPECT_EQ(text(), "00000101T090500");
    iso_dt_encf(&str_, U, 1, 1, U, 0, 0, 0, 0);
    EXPECT_EQ(text(), "");
    iso_dt_encx(&str_, &dt, 0, 1);
    dt.zone = 0;
    iso_dt_enc(&str_, &dt);
    EXPECT_EQ(text(), "20120822T101530.5Z");
    EXPECT_TRUE(iso_date_enc(&str_, &dt) == 8 && text() == "20120822");
    EXPECT_TRUE(iso_date_encx(&str_, &dt, 0xFF, 1) == 10 && text() == "2012-08-22");
    EXPECT_TRUE(iso_date_encf(&str_, 2012, 2, 29) == 8 && text() == "20120229");
    EXPECT_TRUE(iso_date_encfx(&str_, 2012, 2, 29, 3, 1) == 7 && text() == "2012-02");
    EXPECT_ASSERT("extended == 0 || extended == 1", EXPECT_EQ(iso_dt_encx(&str_, &dt, 0, 2), 0));
    EXPECT_EQ(text(), "");

    // Round trips through both notations.
    for (const char* t : {"2012-08-22T10:15:30.5+05:30", "20120229T235960.0Z", "2012-12-31T24:00:00.0"}) {
        VekDt back;
        vek_s32 mask, ext;
        ASSERT_TRUE(iso_dt_decx(t, &back, &mask, &ext));
        iso_dt_encx(&str_, &back, mask, ext);
        EXPECT_EQ(text(), t);
    }
}

TEST_F(Iso, ZoneModesAndConversion) {
    VekDt dt, out;
    VekDt_set(&dt, 2012, 12, 31, 20, 0, 0, 7, -330);  // bias sign: UTC+05:30
    iso_dt_encx__(&str_, &dt, 0);
    EXPECT_EQ(text(), "20121231T143000Z");
    iso_dt_encx__(&str_, &dt, VEK_DT_UNSET);
    EXPECT_EQ(text(), "20121231T200000.7-0530");
    iso_dt_encx__(&str_, &dt, 60);
    EXPECT_EQ(text(), "20121231T200000+0100");
    iso_dt_encx__(&str_, &dt, Z);
    VekDt loc;
    VekDt_toLoc(&dt, &loc);
    iso_dt_encfx(&str_, loc.year, loc.month, loc.day, loc.hour, loc.minute, loc.second, -1, Z, 0, 0);
    std::string expect = text();
    iso_dt_encx__(&str_, &dt, Z);
    EXPECT_EQ(text(), expect);

    iso_dt_cvt(&dt, &out, 0);
    EXPECT_TRUE(out.hour == 14 && out.minute == 30 && out.zone == 0);
    iso_dt_cvt(&dt, &out, 300);
    EXPECT_TRUE(out.day == 31 && out.hour == 9 && out.minute == 30 && out.zone == 300);
    dt.zone = Z;
    iso_dt_cvt(&dt, &out, 120);
    EXPECT_TRUE(out.hour == 20 && out.zone == 120);
}

TEST_F(Iso, Durations) {
    VekDur dur;
    const struct {
        const char* text;
        VekDur dur;
        const char* back;
    } cases[] = {
        {"P1Y2M3DT4H5M6S", {1, 2, 0, 3, 4, 5, 6}, "P1Y2M3DT4H5M6S"},
        {"PT5M", {0, 0, 0, 0, 0, 5, 0}, "PT5M"},
        {"P5M", {0, 5, 0, 0, 0, 0, 0}, "P5M"},
        {"p2w1dt1h", {0, 0, 2, 1, 1, 0, 0}, "P2W1DT1H"},
        {"P3H", {0, 0, 0, 0, 3, 0, 0}, "PT3H"},
        {"P7T1S", {0, 0, 0, 0, 0, 0, 1}, "PT1S"},    // a number without its designator is dropped
        {"P1D2Y", {0, 0, 0, 1, 0, 0, 0}, "P1D"},     // out of order: ignored
        {"P", {0, 0, 0, 0, 0, 0, 0}, "P"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(iso_dur_dec(c.text, &dur), 1);
        EXPECT_TRUE(VekDur_cmp(&dur, &c.dur));
        EXPECT_EQ(iso_dur_enc(&str_, &dur), (vek_s32)std::strlen(c.back));
        EXPECT_EQ(text(), c.back);
    }
    // The field form writes 0 for every unit the text lacks, as the record form does.
    vek_s32 u[7] = {-7, -7, -7, -7, -7, -7, -7};
    EXPECT_EQ(iso_dur_decf("P5M", &u[0], &u[1], &u[2], &u[3], &u[4], &u[5], &u[6]), 1);
    EXPECT_EQ(std::vector<vek_s32>(u, u + 7), (std::vector<vek_s32>{0, 5, 0, 0, 0, 0, 0}));
    vek_s32 y = -1, s = -1;
    EXPECT_EQ(iso_dur_decf("1Y", &y, nullptr, nullptr, nullptr, nullptr, nullptr, &s), 0);
    EXPECT_TRUE(iso_dur_decf("P4294967297YT9S", &y, nullptr, nullptr, nullptr, nullptr, nullptr, &s) && y == 1 &&
                s == 9);
    iso_dur_encf(&str_, 0, 0, 0, 0, 0, 0, -2);
    EXPECT_EQ(text(), "PT-2S");
    EXPECT_ASSERT("text", EXPECT_EQ(iso_dur_dec(nullptr, &dur), 0));
    EXPECT_ASSERT("iso && dur", EXPECT_EQ(iso_dur_enc(&str_, nullptr), 0));
}
