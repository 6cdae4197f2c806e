/*
 * vektool md5 / crc8 / crc16 / crc32 through the real program, md5 against
 * md5sum where it is installed.
 */
#include <algorithm>
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
    // Longer than one read of the tool: CRC-8 goes on across its pieces.
    std::string big(600000, 'a');
    big[300000] = 'b';
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

// Several inputs, one line each as md5sum prints them (names with a
// backslash or a line end escaped); one that cannot be read is reported,
// the others still done, and the exit code is 2.
TEST_F(VektoolDigest, SeveralFilesLikeMd5sum) {
    Tool t;
    vektest::write_file(t.path("a"), "alpha");
    vektest::write_file(t.path("b"), std::string(300000, 'b'));
    EXPECT_EQ(2, t.run_in("md5 " + t.q("a") + " " + t.q("missing") + " - " + t.q("b"), "in"));
    EXPECT_EQ("2c1743a391305fbf367df8e4f069f9f9  " + t.path("a") + "\n" + "13b5bfe96f3e2fe411c9f66f4a582adf  -\n" +
                  "76604aa9a34947ad8aa643d66aa7dc16  " + t.path("b") + "\n",
              lines(t));
    EXPECT_NE(std::string::npos, t.err().find("missing"));
    EXPECT_EQ(0, t.run("crc16 " + t.q("a") + " " + t.q("a")));
    std::string two = t.out();
    EXPECT_EQ(2, std::count(two.begin(), two.end(), '\n'));
#ifndef _WIN32
    if (Tool::has("md5sum")) {
        vektest::write_file(t.path("back\\slash"), "x");
        vektest::write_file(t.path("new\nline"), "y");
        EXPECT_EQ(0, t.sh("$T md5 a 'back\\slash' 'new\nline' b - < a > o && md5sum a 'back\\slash' 'new\nline' b - < a | cmp o -"))
            << t.err();
    }
#endif
}

TEST_F(VektoolDigest, ErrorsAndHelp) {
    Tool t;
    EXPECT_EQ(2, t.run("md5 " + t.q("missing")));
    EXPECT_NE(std::string::npos, t.err().find("vektool md5: " + t.path("missing") + ": "));
    EXPECT_EQ(2, t.run("crc8 " + t.q("missing")));
    EXPECT_EQ(2, t.run("crc16 --check"));
    EXPECT_NE(std::string::npos, t.err().find("usage: vektool crc16 [FILE|-]..."));
    EXPECT_EQ(0, t.run("crc32 --help"));
    EXPECT_NE(std::string::npos, t.out().find("usage: vektool crc32 [FILE|-]..."));
    EXPECT_EQ(0, t.run("--help"));
    EXPECT_NE(std::string::npos, t.out().find("md5 [FILE|-]..."));
}
