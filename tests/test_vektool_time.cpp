/*
 * vektool time: the commands end to end through the real program.
 */
#include <string>
#include "ToolRun.h"

using VektoolTime = VekTest;

namespace {

// The output with the line ends of standard output in text mode taken out.
std::string lines(const ToolRun& t) {
    std::string s = t.out();
    std::string r;
    for (char c : s) {
        if (c != '\r') {
            r += c;
        }
    }
    return r;
}

} // namespace

TEST_F(VektoolTime, Commands) {
    ToolRun t;
    EXPECT_EQ(0, t.run("time now --utc"));
    VekDt dt;
    vek_s32 mask, ext;
    std::string now = lines(t);
    ASSERT_EQ(now.back(), '\n');
    now.pop_back();
    EXPECT_TRUE(iso_dt_decx(now.c_str(), &dt, &mask, &ext) && dt.zone == 0);
    EXPECT_TRUE(mask == 0xFF && ext == 1 && dt.year >= 2024 && now.size() == 20);
    EXPECT_EQ(0, t.run("time now"));

    EXPECT_EQ(0, t.run("time parse 20120822T101530.5-0530"));
    EXPECT_NE(lines(t).find("fraction: 5\n"), std::string::npos);
    EXPECT_NE(lines(t).find("zone: -330 minutes\nmask: 0xFF\nnotation: basic\n"), std::string::npos);
    EXPECT_EQ(0, t.run_in("time parse -", "2012\n"));
    EXPECT_NE(lines(t).find("month: 1\nday: 1\nhour: unset\n"), std::string::npos);
    EXPECT_EQ(1, t.run("time parse 2012-8"));
    EXPECT_NE(t.err().find("2012-8"), std::string::npos);

    EXPECT_EQ(0, t.run("time dur P1Y2M3DT4H5M6S"));
    EXPECT_EQ(lines(t), "years: 1\nmonths: 2\nweeks: 0\ndays: 3\nhours: 4\nminutes: 5\nseconds: 6\n");
    EXPECT_EQ(1, t.run("time dur 1Y"));

    EXPECT_EQ(0, t.run("time diff 2012-03-01T00:00:00Z 2012-03-15T00:00:00Z"));
    EXPECT_EQ(lines(t), "margin: 14 days 00:00:00\nunit: weeks\ncount: 2\n");
    EXPECT_EQ(0, t.run("time diff 2012-03-01T02:00:00+02:00 2012-02-29T23:58:30Z"));
    EXPECT_EQ(lines(t), "margin: -0 days 00:01:30\nunit: seconds\ncount: 90\n");
    EXPECT_EQ(2, t.run("time diff 2012-03-01 x"));

    EXPECT_EQ(0, t.run("time zone"));
    EXPECT_NE(lines(t).find("summer time: "), std::string::npos);
    EXPECT_EQ(2, t.run("time now --local"));
    EXPECT_EQ(0, t.run("time parse --help"));
}
