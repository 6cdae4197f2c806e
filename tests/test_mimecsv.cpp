/*
 * Mail header lines and CSV records. The CSV cases start from RFC 4180's
 * own examples (quoted fields, doubled quotes, CR LF records); the bare-LF
 * behaviour and the character passed over after a closing quote are the
 * library's own rules. The header cases follow RFC 5322 folding; the
 * prefix match of mhdr_str_chk is the library's own.
 */
#include <string>
#include <vector>
#include "StrmTest.h"

using namespace vektest;

namespace {

struct Record {
    vek_s32 ret = 0;
    std::vector<std::string> fields;
    const char* next = nullptr;
};

Record read_csv(const char* text, const char* start = nullptr, char sep = ',') {
    Record r;
    CsvField* f = nullptr;
    r.ret = CsvUtil_read(text, start, &r.next, &f, sep);
    EXPECT_EQ(SmpList_size(f), r.ret ? SmpList_size(f) : 0);
    for (CsvField* p = f; p; p = p->next) {
        r.fields.emplace_back(p->text, (size_t)p->len);
    }
    SmpList_delete(f, vek_free__);
    return r;
}

using Fields = std::vector<std::string>;

std::string str_of(VekStr* s) {
    return VekStr_buf(s);
}

} // namespace

using MimeHeader = VekTest;

TEST_F(MimeHeader, SplitAndCheckLines) {
    VekStr name, value;
    VekStr_new(&name);
    VekStr_new(&value);
    EXPECT_EQ(1, mhdr_str_dec("Subject:  hello  ", &name, &value));
    EXPECT_EQ("Subject", str_of(&name));
    EXPECT_EQ("hello", str_of(&value));
    EXPECT_EQ(1, mhdr_str_dec(" To : a:b ", &name, &value));  // the first colon splits
    EXPECT_EQ("To", str_of(&name));
    EXPECT_EQ("a:b", str_of(&value));
    EXPECT_EQ(0, mhdr_str_dec(":x", &name, &value));
    EXPECT_EQ("", str_of(&name));
    EXPECT_EQ(0, mhdr_str_dec("no colon", &name, &value));
    EXPECT_EQ(0, mhdr_str_dec("  :x", nullptr, nullptr));
    EXPECT_EQ(1, mhdr_strx_dec("A: 1\r\nB: 2", 4, &name, &value));
    EXPECT_EQ("1", str_of(&value));
    EXPECT_ASSERT("line", mhdr_str_dec(nullptr, &name, &value));
    // The line's name may be a prefix of the one asked for.
    EXPECT_EQ(1, mhdr_str_chk("content-type: text/plain", "Content-Type", &value));
    EXPECT_EQ("text/plain", str_of(&value));
    EXPECT_EQ(1, mhdr_str_chk("Content: x", "Content-Type", &value));
    EXPECT_EQ(0, mhdr_str_chk("Content-Type-X: x", "Content-Type", &value));
    EXPECT_EQ("", str_of(&value));
    EXPECT_EQ(0, mhdr_strx_chk("To: x", 2, "To", &value));
    EXPECT_ASSERT("!str_noo(name)", mhdr_str_chk("To: x", "", &value));
    VekStr_delete(&name);
    VekStr_delete(&value);
}

TEST_F(MimeHeader, FindInHeaderBlock) {
    StrmPtr s = mem_strm_with(
        "From: a@example.com\r\n"
        "Subject: one\r\n"
        "\ttwo  \r\n"
        "X-Long: a\r\n b\r\n"
        "\r\n"
        "Hidden: body\r\n");
    char buf[32];
    EXPECT_EQ(1, mhdr_get_to_buf(s.get(), "subject:", buf, sizeof buf));
    EXPECT_STREQ("onetwo", buf);  // the line end and one blank are dropped
    EXPECT_EQ(1, mhdr_get_to_buf(s.get(), "X-Long:", buf, sizeof buf));
    EXPECT_STREQ("ab", buf);
    EXPECT_EQ(1, mhdr_get_to_buf(s.get(), "From:", buf, 5));
    EXPECT_STREQ("a@ex", buf);
    EXPECT_EQ(1, mhdr_get_to_buf(s.get(), "Fr", buf, sizeof buf));  // the separator is skipped unseen
    EXPECT_STREQ("m: a@example.com", buf);
    EXPECT_EQ(0, mhdr_find_only(s.get(), "Hidden:"));
    EXPECT_EQ(1, mhdr_find_only(s.get(), "from:"));
    StrmPtr noBlank = mem_strm_with("A: 1\nB: 2");
    EXPECT_EQ(1, mhdr_get_to_buf(noBlank.get(), "B:", buf, sizeof buf));
    EXPECT_STREQ("2", buf);
    EXPECT_ASSERT("strm && !str_noo(hdrName)", mhdr_find_only(s.get(), nullptr));
}

using Csv = VekTest;

TEST_F(Csv, Rfc4180Records) {
    const char* text = "aaa,bbb,ccc\r\nzzz,yyy,xxx\r\n";
    Record r = read_csv(text);
    EXPECT_EQ(1, r.ret);
    EXPECT_EQ((Fields{"aaa", "bbb", "ccc"}), r.fields);
    EXPECT_EQ(text + 13, r.next);
    r = read_csv(text, r.next);
    EXPECT_EQ((Fields{"zzz", "yyy", "xxx"}), r.fields);
    EXPECT_EQ(0, read_csv(text, r.next).ret);
    EXPECT_EQ((Fields{"aaa", "b\r\nbb", "ccc"}), read_csv("\"aaa\",\"b\r\nbb\",\"ccc\"\r\n").fields);
    EXPECT_EQ((Fields{"aaa", "b\"bb", "ccc"}), read_csv("\"aaa\",\"b\"\"bb\",\"ccc\"\r\n").fields);
    EXPECT_EQ((Fields{"x \"y\" z", "1"}), read_csv("\"x \"\"y\"\" z\",1\r\n").fields);
    EXPECT_EQ((Fields{"a", "", "c"}), read_csv("a,,c\r\n").fields);
    EXPECT_EQ((Fields{"a", "b", ""}), read_csv("a,b,\r\n").fields);
    EXPECT_EQ((Fields{"a", ""}), read_csv("a,").fields);
    EXPECT_EQ((Fields{"a", "b"}), read_csv("a;b", nullptr, ';').fields);
    EXPECT_EQ((Fields{""}), read_csv("\r\nx").fields);
    EXPECT_EQ((Fields{"open"}), read_csv("\"open").fields);
    EXPECT_EQ((Fields{"q"}), read_csv("\"q\"").fields);
    EXPECT_EQ(0, read_csv("").ret);
    EXPECT_EQ(0, read_csv(text + 1, text).ret);  // start before text
}

// The character behind a closing quote and an unquoted field's stopping
// character are passed over unexamined: bare LF lines run together.
TEST_F(Csv, PassOverRules) {
    EXPECT_EQ((Fields{"a", "b", "c", "d"}), read_csv("a,b\nc,d\n").fields);
    Record r = read_csv("a\n\nb\n");
    EXPECT_EQ((Fields{"a"}), r.fields);
    EXPECT_EQ('b', *r.next);
    EXPECT_EQ((Fields{"x", "y"}), read_csv("\"x\"zy\r\n").fields);
    EXPECT_EQ((Fields{"x", "b"}), read_csv("\"x\"\nb").fields);
}

TEST_F(Csv, Encode) {
    VekStr s;
    VekStr_new(&s);
    EXPECT_EQ(0, CsvUtil_encode("plain", &s));
    EXPECT_EQ("plain", str_of(&s));
    EXPECT_EQ(1, CsvUtil_encode("a,b", &s));
    EXPECT_EQ("\"a,b\"", str_of(&s));
    EXPECT_EQ(1, CsvUtil_encode("say \"hi\"", &s));
    EXPECT_EQ("\"say \"\"hi\"\"\"", str_of(&s));
    EXPECT_EQ(1, CsvUtil_encode("l1\r\nl2", &s));
    EXPECT_EQ(0, CsvUtil_encode("a;b", &s));  // only the comma counts
    VekStr_setStr(&s, "x,\"");
    EXPECT_EQ(1, CsvUtil_encode(VekStr_buf(&s), &s));
    EXPECT_EQ("\"x,\"\"\"", str_of(&s));
    EXPECT_ASSERT("src && dst", CsvUtil_encode(nullptr, &s));
    VekStr_delete(&s);
}
