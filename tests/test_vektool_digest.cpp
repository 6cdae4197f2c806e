/*
 * vektool md5 / crc8 / crc16 / crc32 through the real program.
 */
#include <string>
#include "ToolRun.h"

using Tool = ToolRun;
using VektoolDigest = VekTest;

namespace {

// Standard output as console lines: CR LF on Windows, LF elsewhere.
std::string lines(const Tool& t) {
    std::string s = t.out();
    for (size_t i; (i = s.find("\r\n")) != std::string::npos;) {
        s.erase(i, 1);
    }
    return s;
}

} // namespace

// Files and standard input give the same lines; the bytes are taken as
// they are (CR LF, NUL and 0x1A included).
TEST_F(VektoolDigest, FilesAndStandardInput) {
    Tool t;
    vektest::write_file(t.path("check"), "123456789");
    EXPECT_EQ(0, t.run("crc32 " + t.q("check")));
    EXPECT_EQ("340bc6d9 cbf43926  " + t.path("check") + "\n", lines(t));
    EXPECT_EQ(0, t.run_in("crc16 -", "123456789"));
    EXPECT_EQ("6f91 906e  -\n", lines(t));
    EXPECT_EQ(0, t.run_in("crc8", "123456789"));
    EXPECT_EQ("a1 a1  -\n", lines(t));
    EXPECT_EQ(0, t.run_in("md5", ""));
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e  -\n", lines(t));
    std::string bin("a\r\nb\0c\x1a" "d\n", 8);
    vektest::write_file(t.path("bin"), bin);
    EXPECT_EQ(0, t.run("md5 " + t.q("bin")));
    std::string fromFile = t.out().substr(0, 32);
    EXPECT_EQ(0, t.run_in("md5 -", bin));
    EXPECT_EQ(fromFile + "  -\n", lines(t));
    // Longer than one read of the tool.
    std::string big(200000, 'a');
    vektest::write_file(t.path("big"), big);
    EXPECT_EQ(0, t.run("crc32 " + t.q("big")));
    std::string viaFile = t.out().substr(0, 17);
    EXPECT_EQ(0, t.run_in("crc32", big));
    EXPECT_EQ(viaFile + "  -\n", lines(t));
    EXPECT_EQ(0, t.run_in("crc8", big));
    vek_u8 c8 = Crc8_fcsBuf(big.data(), (vek_s32)big.size());
    char want[8];
    vek_snprintf(want, sizeof want, "%02x", c8);
    EXPECT_EQ(want, t.out().substr(0, 2));
}

TEST_F(VektoolDigest, ErrorsAndHelp) {
    Tool t;
    EXPECT_EQ(2, t.run("md5 " + t.q("missing")));
    EXPECT_NE(std::string::npos, t.err().find("vektool md5: " + t.path("missing") + ": "));
    EXPECT_EQ(2, t.run("crc8 " + t.q("missing")));
    EXPECT_EQ(2, t.run("crc16 a b"));
    EXPECT_NE(std::string::npos, t.err().find("usage: vektool crc16 [FILE|-]"));
    EXPECT_EQ(0, t.run("crc32 --help"));
    EXPECT_NE(std::string::npos, t.out().find("usage: vektool crc32 [FILE|-]"));
    EXPECT_EQ(0, t.run("--help"));
    EXPECT_NE(std::string::npos, t.out().find("md5 [FILE|-]"));
}
