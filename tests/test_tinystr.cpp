/*
 * TinyStr: growth, the fixed-size mode, appends of every kind.
 */
#include <cstring>
#include "VekTest.h"

namespace {

struct Tiny {
    TinyStr ts;
    Tiny() { TinyStr_new(&ts); }
    explicit Tiny(vek_s32 size) { TinyStr_newx(&ts, size); }
    ~Tiny() { TinyStr_delete(&ts); }
    std::string str() const { return std::string(TinyStr_buf(&ts), (size_t)TinyStr_len(&ts)); }
};

} // namespace

using TinyString = VekTest;

TEST_F(TinyString, EmptyStringUsesTheSharedBlock) {
    Tiny t;
    EXPECT_EQ(0, TinyStr_len(&t.ts));
    EXPECT_EQ(0, TinyStr_size(&t.ts));
    EXPECT_EQ(0, TinyStr_capa(&t.ts));
    EXPECT_STREQ("", TinyStr_buf(&t.ts));
    TinyStr_clear(&t.ts);  // nothing to clear
    EXPECT_EQ(0, TinyStr_delTailSpace(&t.ts));
}

TEST_F(TinyString, GrowthDoublesAndRoundsToEight) {
    Tiny t;
    EXPECT_EQ(3, TinyStr_appdStr(&t.ts, "abc"));  // need 4: twice need is 8
    EXPECT_EQ(8, TinyStr_size(&t.ts));
    EXPECT_EQ(6, TinyStr_appdStr(&t.ts, "defghi"));  // need 10: 16
    EXPECT_EQ(16, TinyStr_size(&t.ts));
    EXPECT_EQ(20, TinyStr_appdStr(&t.ts, "jklmnopqrstuvwxyz012"));  // need 30: 32
    EXPECT_EQ(32, TinyStr_size(&t.ts));
    EXPECT_EQ("abcdefghijklmnopqrstuvwxyz012", t.str());
    Tiny sized(13);
    EXPECT_EQ(16, TinyStr_size(&sized.ts));
    EXPECT_EQ(15, TinyStr_capa(&sized.ts));
}

TEST_F(TinyString, FixedModeCutsAppends) {
    Tiny t(16);
    TinyStr_appdStr(&t.ts, "0123456789");  // size 16, len 10: 5 bytes of room
    TinyStr_setExpd(&t.ts, 0);
    EXPECT_EQ(5, TinyStr_appdStr(&t.ts, "ABCDEFGHIJ"));
    EXPECT_EQ("0123456789ABCDE", t.str());
    EXPECT_EQ(16, TinyStr_size(&t.ts));
    EXPECT_EQ(0, TinyStr_appdChar(&t.ts, 'x'));  // a single character needs two bytes
    EXPECT_EQ(0, TinyStr_appdStr(&t.ts, "more"));
    TinyStr_setExpd(&t.ts, 1);
    EXPECT_EQ(1, TinyStr_appdChar(&t.ts, 'x'));
    EXPECT_EQ("0123456789ABCDEx", t.str());
}

TEST_F(TinyString, AppendKinds) {
    Tiny t, other;
    TinyStr_appdStr(&other.ts, "[o]");
    EXPECT_EQ(0, TinyStr_appdStr(&t.ts, nullptr));
    EXPECT_EQ(0, TinyStr_appdStrx(&t.ts, "\0ab", 3));  // an empty first byte adds nothing
    EXPECT_EQ(2, TinyStr_appdStrx(&t.ts, "abc", 2));
    EXPECT_EQ(3, TinyStr_appdTstr(&t.ts, &other.ts));
    EXPECT_EQ(3, TinyStr_appdLong(&t.ts, -42));
    EXPECT_EQ(10, TinyStr_appdUlong(&t.ts, 4294967295u));
    const vek_wchar euro[] = {0x20AC, 'x', 0};
    EXPECT_EQ(4, TinyStr_appdWcs(&t.ts, euro));
    EXPECT_EQ(2, TinyStr_appdWchar(&t.ts, 0x00E9));
    EXPECT_EQ(1, TinyStr_appdWcsx(&t.ts, euro + 1, 1));
    EXPECT_EQ("ab[o]-424294967295\xE2\x82\xACx\xC3\xA9x", t.str());
}

TEST_F(TinyString, FormattedAppendReturnsTheCountAppended) {
    Tiny t;
    TinyStr_appdStr(&t.ts, "abc");
    EXPECT_EQ(5, TinyStr_appdf(&t.ts, "%d-%s", 12, "xy"));
    EXPECT_EQ("abc12-xy", t.str());
}

TEST_F(TinyString, TrimTruncateReserve) {
    Tiny t;
    TinyStr_appdStr(&t.ts, "line \t\n");
    EXPECT_EQ(0, TinyStr_delTailSpace(&t.ts));  // a trailing line feed stays
    TinyStr_trunc(&t.ts, 6);
    EXPECT_EQ(2, TinyStr_delTailSpace(&t.ts));
    EXPECT_EQ("line", t.str());
    TinyStr_trunc(&t.ts, 10);  // longer than the text: nothing
    EXPECT_EQ("line", t.str());
    TinyStr_rsvSize(&t.ts, 100);
    EXPECT_EQ(104, TinyStr_size(&t.ts));
    EXPECT_EQ("line", t.str());
    TinyStr_rsvSize(&t.ts, 10);  // never shrinks
    EXPECT_EQ(104, TinyStr_size(&t.ts));
    TinyStr_trunc(&t.ts, 0);
    EXPECT_EQ("", t.str());
    TinyStr_appdStr(&t.ts, "x");
    TinyStr_clearx(&t.ts);
    EXPECT_EQ(0, TinyStr_size(&t.ts));
}

TEST_F(TinyString, WrongObjectAndBadArgumentsAssertAndGoOn) {
    TinyStr bad = {nullptr, 0x123456};
    EXPECT_EQ(0, TinyStr_appdStr(&bad, "x"));
    expect_assert("ts && (ts->tag & 0xFFFFFF) == TINYSTR_MARK");
    Tiny t;
    TinyStr_trunc(&t.ts, -1);
    expect_assert("len >= 0");
    TinyStr_rsvSize(&t.ts, 0);
    expect_assert("size >= 1");
}
