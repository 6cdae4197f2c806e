/*
 * vektool b64, qp, hex, bcd, sms, mime and csv through the real program:
 * byte-exact output, standard input, exit codes and messages.
 */
#include <string>
#include "ToolRun.h"

using Tool = ToolRun;
using VektoolCodec = VekTest;

namespace {

std::string all_bytes() {
    std::string s;
    for (int i = 0; i < 256; i++) {
        s += (char)i;
    }
    return s + "\r\n\n\x1a";
}

// A console line may end in CR LF on Windows.
std::string line(const std::string& out) {
    std::string s = out;
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) {
        s.pop_back();
    }
    return s;
}

} // namespace

TEST_F(VektoolCodec, CodecsRoundTripEveryByte) {
    Tool t;
    const std::string bytes = all_bytes();
    for (const char* codec : {"b64", "qp", "hex"}) {
        vektest::write_file(t.path("data"), bytes);
        ASSERT_EQ(0, t.run(std::string(codec) + " enc " + t.q("data"))) << codec;
        vektest::write_file(t.path("enc"), t.out());
        ASSERT_EQ(0, t.run(std::string(codec) + " dec " + t.q("enc"))) << codec << t.err();
        EXPECT_EQ(bytes, t.out()) << codec;
        EXPECT_EQ(0, t.run_in(std::string(codec) + " dec -", vektest::read_file(t.path("enc"))));
        EXPECT_EQ(bytes, t.out()) << codec;
    }
    EXPECT_EQ(0, t.run_in("b64 enc", "foobar"));
    EXPECT_EQ("Zm9vYmFy", line(t.out()));
    EXPECT_EQ(0, t.run_in("qp enc", "a b"));
    EXPECT_EQ("a=20b=\r\n", t.out());
    EXPECT_EQ(0, t.run_in("hex dec", "AB 01\n"));
    EXPECT_EQ("\xAB\x01", t.out());
    EXPECT_EQ(0, t.run_in("bcd enc", "12345"));
    EXPECT_EQ("\x21\x43\xF5", t.out());
    EXPECT_EQ(0, t.run_in("bcd dec", "\x21\x43\xF5"));
    EXPECT_EQ("12345", line(t.out()));
}

TEST_F(VektoolCodec, BadInputExitsWithTwo) {
    Tool t;
    EXPECT_EQ(2, t.run_in("b64 dec", "Zm9vYmF"));
    EXPECT_EQ("foo", t.out());
    EXPECT_NE(std::string::npos, t.err().find("not valid Base64"));
    EXPECT_EQ(2, t.run_in("hex dec", "abc"));
    EXPECT_EQ(2, t.run_in("bcd enc", "12a"));
    EXPECT_EQ(2, t.run_in("sms pack", "\x80"));
    EXPECT_EQ(2, t.run("b64 enc " + t.q("missing")));
    EXPECT_NE(std::string::npos, t.err().find("missing"));
    EXPECT_EQ(2, t.run("b64 enc a b"));
    EXPECT_NE(std::string::npos, t.err().find("usage: vektool b64 enc"));
    EXPECT_EQ(0, t.run("sms unpack --help"));
    EXPECT_NE(std::string::npos, t.out().find("usage: vektool sms unpack"));
    EXPECT_EQ(2, t.run("sms scts 0102"));
    EXPECT_EQ(2, t.run("sms number 0B91"));  // shorter than its length says
}

// The published PDU 07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37.
TEST_F(VektoolCodec, SmsFields) {
    Tool t;
    EXPECT_EQ(0, t.run_in("sms pack", "hellohello"));
    EXPECT_EQ("e8329bfd4697d9ec37", line(t.out()));
    EXPECT_EQ(0, t.run_in("sms unpack --count 10", "E8329BFD4697D9EC37"));
    EXPECT_EQ("hellohello", t.out());
    EXPECT_EQ(0, t.run_in("sms pack --fill 1", "\x7F"));
    EXPECT_EQ("fe", line(t.out()));
    EXPECT_EQ(0, t.run("sms number 0BC87238880900F1"));
    EXPECT_EQ("27838890001", line(t.out()));
    EXPECT_EQ(0, t.run("sms number --smsc 07917283010010F5"));
    EXPECT_EQ("+27381000015", line(t.out()));
    EXPECT_EQ(0, t.run("sms number --enc --smsc +27381000015"));
    EXPECT_EQ("07917283010010f5", line(t.out()));
    EXPECT_EQ(0, t.run("sms number --enc +27381000015"));
    EXPECT_EQ("0b917283010010f5", line(t.out()));
    EXPECT_EQ(0, t.run("sms scts 99309251619580"));
    EXPECT_EQ("1999-03-29 15:16:59 +02:00", line(t.out()));
    EXPECT_EQ(0, t.run("sms scts 99309251619500"));
    EXPECT_EQ("1999-03-29 15:16:59", line(t.out()));
    EXPECT_EQ(0, t.run("sms scts --enc \"1999-03-29 15:16:59\""));
    EXPECT_EQ("99309251619500", line(t.out()));
}

TEST_F(VektoolCodec, MimeAndCsv) {
    Tool t;
    vektest::write_file(t.path("m.eml"), "From: a\r\nSubject: one\r\n two\r\n\r\nX-Body: no\r\n");
    EXPECT_EQ(0, t.run("mime get " + t.q("m.eml") + " subject"));
    EXPECT_EQ("onetwo", line(t.out()));
    EXPECT_EQ(1, t.run("mime get " + t.q("m.eml") + " X-Body:"));
    EXPECT_EQ("", t.out());
    EXPECT_EQ(0, t.run_in("mime get - from", "From:  me \r\n"));
    EXPECT_EQ("me", line(t.out()));
    EXPECT_EQ(0, t.run_in("csv -", "a,\"b\r\n\"\"c\"\"\",d\\e\r\ne,f,\r\n"));
    EXPECT_EQ("a\tb\\r\\n\"c\"\td\\\\e\ne\tf\t\n", t.out());
    EXPECT_EQ(0, t.run_in("csv --sep \";\" -", "a;b\r\n"));
    EXPECT_EQ("a\tb\n", t.out());
    EXPECT_EQ(2, t.run("csv " + t.q("none.csv")));
}
