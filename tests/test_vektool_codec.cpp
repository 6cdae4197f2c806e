/*
 * vektool b64, qp, hex, bcd, sms, mime and csv through the real program:
 * byte-exact output, standard input, exit codes and messages; the answers
 * of the standard peers (coreutils base64, xxd, Python's quopri, csv and
 * email) where they are installed; constant memory on large input.
 */
#include <string>
#include <vector>
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

// Bytes that look random, the same on every run.
std::string noise(size_t n) {
    std::string s(n, '\0');
    vek_u32 x = 2463534242u;
    for (auto& c : s) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = (char)(x >> 24);
    }
    return s;
}

// Console lines, which end in CR LF on Windows, without the last line end.
std::string line(const std::string& out) {
    std::string s = out;
    std::erase(s, '\r');
    while (!s.empty() && s.back() == '\n') {
        s.pop_back();
    }
    return s;
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
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
    EXPECT_EQ(0, t.run_in("b64 enc -w 4", "foobar"));
    EXPECT_EQ("Zm9v\nYmFy", line(t.out()));
    EXPECT_EQ(0, t.run_in("qp enc", "a b"));
    EXPECT_EQ("a=20b=\r\n", t.out());
    EXPECT_EQ(0, t.run_in("qp dec", "a=\nb=3D=\r\nc="));  // soft breaks after LF and at the end
    EXPECT_EQ("ab=c", t.out());
    EXPECT_EQ(0, t.run_in("hex dec", "AB 01\n"));
    EXPECT_EQ("\xAB\x01", t.out());
    EXPECT_EQ(0, t.run_in("bcd enc", "12345"));
    EXPECT_EQ("\x21\x43\xF5", t.out());
    EXPECT_EQ(0, t.run_in("bcd dec", "\x21\x43\xF5"));
    EXPECT_EQ("12345", line(t.out()));
}

// Sizes around the codecs' units and the tool's 256 KiB pieces, against
// the peers; quoted-printable lines stay within 76 with their "=".
TEST_F(VektoolCodec, AnswersAsThePeersDo) {
    if (!Tool::has("base64") || !Tool::has("xxd") || !Tool::has("python3")) {
        GTEST_SKIP() << "base64, xxd or python3 missing";
    }
    Tool t;
    const size_t sizes[] = {0, 1, 2, 3, 4, 57, 262145, 600001};
    const char* const texts[] = {"a=\nb", "a=\r\nb", "a=", "a=A", "x=3D=3d\n=\n", "=ZZ=\n\n", "soft=\r", "tail=2"};
    for (size_t n : sizes) {
        vektest::write_file(t.path("d" + std::to_string(n)), noise(n));
        EXPECT_EQ(0, t.sh("d=d" + std::to_string(n) +
                          "; $T b64 enc $d > a && base64 $d | cmp a - && $T b64 enc -w 0 $d > a && base64 -w 0 $d | cmp a -"
                          " && $T b64 enc -w 7 $d > a && base64 -w 7 $d | cmp a - && base64 $d | $T b64 dec - | cmp $d -"
                          " && $T hex enc $d > a && (xxd -p $d | tr -d '\\n'; echo) | cmp a - && xxd -p $d | $T hex dec |"
                          " cmp $d - && $T qp enc $d > q$d && awk 'length($0) > 77 { exit 1 }' q$d"))
            << n << ": " << t.err();
    }
    for (size_t i = 0; i < sizeof texts / sizeof *texts; i++) {
        vektest::write_file(t.path("t" + std::to_string(i)), texts[i]);
    }
    // Python decodes the encoder's output and the texts; the tool decodes the texts.
    vektest::write_file(t.path("qp.py"), "import binascii, sys\n"
                                         "for name in sys.argv[1:]:\n"
                                         "    open('py' + name, 'wb').write(binascii.a2b_qp(open(name, 'rb').read()))\n");
    std::string names;
    for (size_t n : sizes) {
        names += " qd" + std::to_string(n);
    }
    for (size_t i = 0; i < sizeof texts / sizeof *texts; i++) {
        names += " t" + std::to_string(i);
    }
    ASSERT_EQ(0, t.sh("python3 qp.py" + names)) << t.err();
    for (size_t n : sizes) {
        EXPECT_TRUE(vektest::read_file(t.path("pyqd" + std::to_string(n))) == noise(n)) << n;
    }
    for (size_t i = 0; i < sizeof texts / sizeof *texts; i++) {
        EXPECT_EQ(0, t.run("qp dec " + t.q("t" + std::to_string(i))));
        EXPECT_EQ(vektest::read_file(t.path("pyt" + std::to_string(i))), t.out()) << texts[i];
    }
}

TEST_F(VektoolCodec, BadInputExitsWithTwo) {
    Tool t;
    EXPECT_EQ(2, t.run_in("b64 dec", "Zm9vYmF"));
    EXPECT_EQ("foo", t.out());
    EXPECT_TRUE(has(t.err(), "not valid Base64")) << t.err();
    EXPECT_EQ(2, t.run_in("b64 dec", "Zm9vQQ=QYmFy"));  // "=" inside a quartet
    EXPECT_EQ("foo", t.out());
    EXPECT_TRUE(has(t.err(), "byte 7")) << t.err();
    EXPECT_EQ(0, t.run_in("b64 dec", "Zm8=Zm8=\n"));  // padded pieces, as base64 -d takes them
    EXPECT_EQ("fofo", t.out());
    EXPECT_EQ(2, t.run_in("hex dec", "abc"));
    EXPECT_EQ(2, t.run_in("hex dec", "ag"));
    EXPECT_EQ(2, t.run_in("bcd enc", "12a"));
    EXPECT_EQ(2, t.run_in("bcd dec", "\x21\xA3"));  // a nibble above 9
    EXPECT_EQ(2, t.run_in("bcd dec", "\xF1\x23"));  // a filler before the end
    EXPECT_EQ(2, t.run_in("sms pack", "\x80"));
    EXPECT_EQ(2, t.run("b64 enc " + t.q("missing")));
    EXPECT_TRUE(has(t.err(), "missing"));
    EXPECT_EQ(2, t.run("b64 enc a b"));
    EXPECT_TRUE(has(t.err(), "usage: vektool b64 enc"));
    EXPECT_EQ(0, t.run("sms unpack --help"));
    EXPECT_TRUE(has(t.out(), "usage: vektool sms unpack"));
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
    EXPECT_EQ(0, t.run("sms scts 99309251619580"));
    EXPECT_EQ("1999-03-29 15:16:59 +02:00", line(t.out()));
    EXPECT_EQ(0, t.run("sms scts --enc \"1999-03-29 15:16:59\""));
    EXPECT_EQ("99309251619500", line(t.out()));

    // What the fields say, as TS 23.040 reads them.
    EXPECT_EQ(0, t.run("sms scts 99309251619500"));
    EXPECT_EQ("1999-03-29 15:16:59 +00:00", line(t.out()));
    EXPECT_EQ(0, t.run("sms scts 9930925161952A"));  // 22 quarters west
    EXPECT_EQ("1999-03-29 15:16:59 -05:30", line(t.out()));
    EXPECT_EQ(0, t.run("sms scts --enc \"2026-11-25 10:00:00 +05:45\""));
    EXPECT_EQ("62115201000032", line(t.out()));
    EXPECT_EQ(0, t.run("sms number 0B907283010010F5"));  // international, no numbering plan
    EXPECT_EQ("+27381000015", line(t.out()));
    EXPECT_EQ(0, t.run("sms number --enc ABCDEFG"));  // 13 semi-octets of 7 septets
    EXPECT_EQ("0dd041e19058341e01", line(t.out()));
    EXPECT_EQ(0, t.run("sms number 0DD041E19058341E01"));
    EXPECT_EQ("ABCDEFG", line(t.out()));
    EXPECT_EQ(0, t.run("sms number 06D0804D19"));  // "@" and the euro sign through the alphabet
    EXPECT_EQ("@\xE2\x82\xAC", line(t.out()));
    for (const char* bad : {"sms scts FFFFFFFFFFFFFF", "sms scts 99139251619500", "sms scts 99309251619597",
                            "sms scts --enc \"2026-13-01 00:00:00\"", "sms scts --enc \"2099-01-01 00:00:00\"",
                            "sms scts --enc \"2026-01-01 00:00:00 +05:10\"", "sms number 0B917283010A10F5",
                            "sms number 0B917283010010F5FF", "sms number 0B117283010010F5", "sms number 0B91",
                            "sms number --enc 123456789012345678901", "sms number --enc a@b", "sms number --enc +1x"}) {
        EXPECT_EQ(2, t.run(bad)) << bad;
        EXPECT_TRUE(has(t.err(), "vektool sms")) << bad;
    }

    // Packing runs in pieces: fill bits carried across them, as one call packs.
    std::string septets = noise(300001);
    for (auto& c : septets) {
        c &= 0x7F;
    }
    std::vector<vek_u8> packed(septets.size());
    vek_s32 n = GsmUtil_enc7BitStr(packed.data(), (vek_s32)packed.size(), (const vek_u8*)septets.data(),
                                   (vek_s32)septets.size(), 3);
    VekStr hex;
    VekStr_new(&hex);
    ira_enc_cstr_from_buf(&hex, packed.data(), n);
    vektest::write_file(t.path("s"), septets);
    EXPECT_EQ(0, t.run("sms pack --fill 3 " + t.q("s")));
    EXPECT_TRUE(line(t.out()) == VekStr_buf(&hex));
    vektest::write_file(t.path("p"), VekStr_buf(&hex));
    EXPECT_EQ(0, t.run("sms unpack --fill 3 " + t.q("p")));
    EXPECT_TRUE(t.out() == septets);
    VekStr_delete(&hex);
}

TEST_F(VektoolCodec, MimeAndCsv) {
    Tool t;
    vektest::write_file(t.path("m.eml"), "From: a\r\nContent: b\r\nSubject: one\r\n two\r\n\r\nX-Body: no\r\n");
    EXPECT_EQ(0, t.run("mime get " + t.q("m.eml") + " subject"));
    EXPECT_EQ("one two", line(t.out()));
    EXPECT_EQ(1, t.run("mime get " + t.q("m.eml") + " X-Body:"));
    EXPECT_EQ("", t.out());
    EXPECT_EQ(1, t.run("mime get " + t.q("m.eml") + " Content-Type"));  // no prefix matches
    EXPECT_EQ(0, t.run_in("mime get - from", "From:  me \r\n"));
    EXPECT_EQ("me", line(t.out()));
    EXPECT_EQ(0, t.run_in("mime get - subject", "Subject:Hello\n\tand more\n\n"));
    EXPECT_EQ("Hello\tand more", line(t.out()));
    EXPECT_EQ(0, t.run_in("csv -", "a,\"b\r\n\"\"c\"\"\",d\\e\r\ne,f,\r\n"));
    EXPECT_EQ("a\tb\\r\\n\"c\"\td\\\\e\ne\tf\t\n", t.out());
    EXPECT_EQ(0, t.run_in("csv --sep \";\" -", "a;b\nc;d"));
    EXPECT_EQ("a\tb\nc\td\n", t.out());
    EXPECT_EQ(2, t.run("csv " + t.q("none.csv")));
    for (const std::string& bad : {std::string("a,b\nc\0d\n", 8), std::string("a,\"open\nrest,of\nfile\n"),
                                   std::string("\"a\"x,b\n")}) {
        EXPECT_EQ(2, t.run_in("csv -", bad));
        EXPECT_TRUE(has(t.err(), "not CSV")) << t.err();
    }
}

// CSV with every kind of line end and MIME headers, as Python reads them.
TEST_F(VektoolCodec, CsvAndMimeAsPythonReadsThem) {
    if (!Tool::has("python3")) {
        GTEST_SKIP() << "python3 missing";
    }
    Tool t;
    std::string big;
    for (int i = 0; big.size() < 600000; i++) {  // records across the tool's pieces
        big += std::to_string(i) + ",\"q\"\"" + std::string((size_t)i % 97, 'x') + "\r\n\",plain" +
               (i % 3 ? "\n" : i % 2 ? "\r" : "\r\n");
    }
    vektest::write_file(t.path("c0"), "a,b\nc,d\r\ne,f\rg,\"h\ni\",\"j\"\"k\"\n\n,,\n\"\"\nlast");
    vektest::write_file(t.path("c1"), big);
    vektest::write_file(t.path("m"), "Received: x\r\nSubject:Hello\r\nX-Folded: one\r\n two\r\n\tthree\r\n"
                                     "Content: p\r\ncontent-type: text/plain\r\n\r\nSubject: body\r\n");
    const char* const names[] = {"Subject", "x-folded", "Content-Type", "Content", "Bcc"};
    vektest::write_file(t.path("peer.py"),
                        "import csv, email, email.policy, sys\n"
                        "esc = lambda f: f.replace('\\\\', '\\\\\\\\').replace('\\t', '\\\\t').replace('\\r', '\\\\r')"
                        ".replace('\\n', '\\\\n')\n"
                        "for name in ('c0', 'c1'):\n"
                        "    with open(name, newline='', encoding='latin-1') as f, open('py' + name, 'wb') as out:\n"
                        "        for row in csv.reader(f, strict=True):\n"
                        "            out.write(('\\t'.join(map(esc, row)) + '\\n').encode('latin-1'))\n"
                        "m = email.message_from_bytes(open('m', 'rb').read(), policy=email.policy.default)\n"
                        "for name in sys.argv[1:]:\n"
                        "    v = m[name]\n"
                        "    print(name + ':' + ('absent' if v is None else str(v)))\n");
    std::string want, got;
    for (const char* name : names) {
        want += std::string(" ") + name;
    }
    ASSERT_EQ(0, t.sh("python3 peer.py" + want)) << t.err();
    want = t.out();
    for (const char* c : {"c0", "c1"}) {
        EXPECT_EQ(0, t.run("csv " + t.q(c))) << t.err();
        EXPECT_TRUE(vektest::read_file(t.path(std::string("py") + c)) == t.out()) << c;
    }
    for (const char* name : names) {
        int rc = t.run("mime get " + t.q("m") + " " + name);
        got += std::string(name) + ":" + (rc == 1 ? "absent" : line(t.out())) + "\n";
    }
    EXPECT_EQ(want, got);
}

// Far more input than the memory allowed: every streaming codec and the
// CSV reader get through in pieces; 1.1 GB of hex (2.2 GB of text) once
// overflowed a 32-bit length.
TEST_F(VektoolCodec, LargeInputInConstantMemory) {
    if (!Tool::big_runs()) {
        GTEST_SKIP() << "needs a POSIX shell and a build without sanitizers";
    }
    Tool t;
    const std::string limit = "ulimit -v 32768; ";
    if (t.sh(limit + "$T --version > /dev/null") != 0) {
        GTEST_SKIP() << "vektool does not start in 32 MB of address space here (an emulator?): " << t.err();
    }
    EXPECT_EQ(0, t.sh(limit + "head -c 1100000000 /dev/zero | $T hex enc | wc -c"));
    EXPECT_EQ("2200000001", line(t.out()).substr(line(t.out()).find_first_not_of(' ')));
    ASSERT_EQ(0, t.sh("head -c 40000000 /dev/zero > z && yes 'ab,\"c d\",e' | head -c 40000004 > c"));
    for (const char* cmd : {"b64 enc z > e && $T b64 dec e", "hex enc z > e && $T hex dec e", "qp enc z > e && $T qp dec e",
                            "bcd dec z", "sms pack c", "csv c", "crc8 z", "md5 z"}) {
        EXPECT_EQ(0, t.sh(limit + "$T " + cmd + " > /dev/null")) << cmd << ": " << t.err();
    }
}
