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

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
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
    // Local time with its offset, "+hh:mm" or "-hh:mm" whichever the zone.
    EXPECT_EQ(0, t.run("time now"));
    now = lines(t);
    ASSERT_EQ(26u, now.size()) << now;
    EXPECT_TRUE((now[19] == '+' || now[19] == '-') && now[22] == ':') << now;

    EXPECT_EQ(0, t.run("time parse 20120822T101530.05-0530"));
    EXPECT_TRUE(has(lines(t), "second: 30\nfraction: 0.05\nzone: -330 minutes\nmask: 0xFF\nnotation: basic\n"))
        << lines(t);
    EXPECT_EQ(0, t.run_in("time parse -", "2012\n"));
    EXPECT_TRUE(has(lines(t), "year: 2012\nmonth: unset\nday: unset\n")) << lines(t);
    EXPECT_EQ(0, t.run("time parse -- -0044-03-15"));
    EXPECT_TRUE(has(lines(t), "year: -44\nmonth: 3\nday: 15\n")) << lines(t);

    EXPECT_EQ(0, t.run("time dur P1Y2M3DT4H5M6S"));
    EXPECT_EQ(lines(t), "years: 1\nmonths: 2\nweeks: 0\ndays: 3\nhours: 4\nminutes: 5\nseconds: 6\n");

    EXPECT_EQ(0, t.run("time diff 2012-03-01T00:00:00Z 2012-03-15T00:00:00Z"));
    EXPECT_EQ(lines(t), "margin: 14 days 00:00:00\nunit: weeks\ncount: 2\n");
    EXPECT_EQ(0, t.run("time diff 2012-03-01T02:00:00+02:00 2012-02-29T23:58:30Z"));
    EXPECT_EQ(lines(t), "margin: -0 days 00:01:30\nunit: seconds\ncount: 90\n");
    EXPECT_EQ(0, t.run("time diff 2012-03-01T23:00:00 2012-03-01T24:00:00"));  // both local
    EXPECT_EQ(lines(t), "margin: 0 days 01:00:00\nunit: hours\ncount: 1\n");

    EXPECT_EQ(0, t.run("time zone"));
    EXPECT_TRUE(has(lines(t), "summer time: "));
    EXPECT_EQ(2, t.run("time now --local"));
    EXPECT_EQ(0, t.run("time parse --help"));
}

// What is not ISO 8601, or what the library would read as something else,
// is refused with the reason and exit 2, in every time command alike.
TEST_F(VektoolTime, WhatIsNotIsoIsRefused) {
    ToolRun t;
    for (const char* text : {"2026-02-30", "2100-02-29", "2026-13-01", "2026-01-01T25:00", "2026-01-01T24:00:01",
                             "2026-01-01T10:60", "2026-01-01T10:00:00+25:00", "2026-01-01T10:00:00+05:60",
                             "2026-01-01x", "2026-01-01T10:00:00Zx", "2026-W48-3", "2026-332", "202611",
                             "2012-8", "2012/08/22", "2012-08T10", "20120822T10:15:30", "2012-08-22T1015",
                             "2012-08-22T10:15+05:00", "2012-08-22T10:15:30.", "12-08-22", ""}) {
        EXPECT_EQ(2, t.run(std::string("time parse \"") + text + "\"")) << text;
        EXPECT_TRUE(has(t.err(), "vektool time parse: \"")) << text << ": " << t.err();
        EXPECT_EQ("", t.out()) << text;
    }
    for (const char* text : {"PT1.5H", "P2147483648D", "P1D2Y", "P3H", "PT", "P", "P1Y2", "1Y", "P1DT"}) {
        EXPECT_EQ(2, t.run(std::string("time dur ") + text)) << text;
        EXPECT_EQ("", t.out()) << text;
    }
    EXPECT_EQ(0, t.run("time dur P2147483647D"));
    EXPECT_TRUE(has(lines(t), "days: 2147483647\n"));
    for (const char* args : {"2012-03-01 x", "2012-03 2012-04-01", "2012-03-01T10:00:00.5 2012-03-02",
                             "2016-12-31T23:59:60Z 2017-01-01T00:00:00Z"}) {
        EXPECT_EQ(2, t.run(std::string("time diff ") + args)) << args;
    }
}

#ifndef _WIN32
// A time without a zone is local time of its own date, as date(1) reads it:
// across the spring change of New York a calendar day has 23 hours.
TEST_F(VektoolTime, LocalTimeAsDateReadsIt) {
    ToolRun t;
    if (t.sh("TZ=America/New_York date -d 2026-03-08T00:00:00 +%s > /dev/null") != 0) {
        GTEST_SKIP() << "no time-zone data for America/New_York";
    }
    EXPECT_EQ(0, t.sh("TZ=America/New_York $T time diff 2026-03-08 2026-03-09T00:00:00"));
    EXPECT_EQ("margin: 0 days 23:00:00\nunit: hours\ncount: 23\n", t.out());
    EXPECT_EQ(0, t.sh("TZ=America/New_York $T time diff 2026-03-08T12:00:00Z 2026-03-08T12:00:00"));
    EXPECT_EQ("margin: 0 days 04:00:00\nunit: hours\ncount: 4\n", t.out());
    EXPECT_EQ(0, t.sh("export TZ=America/New_York; echo $(( $(date -d 2026-11-01T12:00:00 +%s) - "
                      "$(date -d 2026-10-31T12:00:00 +%s) ))"));
    EXPECT_EQ("90000\n", t.out());  // date's answer: 25 hours
    EXPECT_EQ(0, t.sh("TZ=America/New_York $T time diff 2026-10-31T12:00:00 2026-11-01T12:00:00"));
    EXPECT_EQ("margin: 1 days 01:00:00\nunit: hours\ncount: 25\n", t.out());
    EXPECT_EQ(0, t.sh("TZ=America/New_York $T time now"));
    EXPECT_TRUE(has(t.out(), "-05:00\n") || has(t.out(), "-04:00\n")) << t.out();
}
#endif
