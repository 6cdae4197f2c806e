/*
 * vektool ini, through the real program: results, exit codes and messages.
 */
#include <string>
#include "ToolRun.h"

using Tool = ToolRun;

using Vektool = VekTest;

TEST_F(Vektool, IniCommands) {
    Tool t;
    vektest::write_file(t.path("a.ini"), "; top\r\nname=x\r\n[Net]\r\nHost=a\r\n; end\r\n");
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " net HOST"));
    EXPECT_TRUE(t.out() == "a\n" || t.out() == "a\r\n") << t.out();  // a console line
    EXPECT_EQ(1, t.run("ini get " + t.q("a.ini") + " Net Port"));
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " - name"));
    EXPECT_EQ(0, t.run("ini set " + t.q("a.ini") + " Net Port 80"));
    EXPECT_EQ("; top\r\nname=x\r\n[Net]\r\nHost=a\r\nPort=80\r\n; end\r\n", vektest::read_file(t.path("a.ini")));
    EXPECT_EQ(0, t.run("ini fmt " + t.q("a.ini")));
    EXPECT_EQ(vektest::read_file(t.path("a.ini")), t.out());
    EXPECT_EQ(0, t.run("ini sections " + t.q("a.ini")));
    EXPECT_NE(std::string::npos, t.out().find("-"));
    EXPECT_NE(std::string::npos, t.out().find("Net"));
    vektest::write_file(t.path("b.ini"), "name=y\r\n[Net]\r\nHost=a\r\n[New]\r\nk=v\r\n");
    EXPECT_EQ(0, t.run("ini diff " + t.q("a.ini") + " " + t.q("b.ini")));
    EXPECT_EQ("; added\r\n[New]\r\nk=v\r\n; changed\r\nname=y\r\n; removed\r\n[Net]\r\nPort=80\r\n", t.out());
    EXPECT_EQ(1, t.run("ini del " + t.q("a.ini") + " Net None"));
    EXPECT_EQ(0, t.run("ini del " + t.q("a.ini") + " Net"));
    EXPECT_EQ("; top\r\nname=x\r\n", vektest::read_file(t.path("a.ini")));
}

TEST_F(Vektool, ErrorsExitWithTwoAndAMessage) {
    Tool t;
    EXPECT_EQ(2, t.run("ini get " + t.q("missing.ini") + " s k"));
    EXPECT_NE(std::string::npos, t.err().find("cannot be opened"));
    EXPECT_EQ(2, t.run("ini get onlyone"));
    EXPECT_NE(std::string::npos, t.err().find("usage: vektool ini get FILE SECT KEY"));
    EXPECT_EQ(2, t.run("ini frob"));
    EXPECT_EQ(2, t.run("nosuchcommand"));
    vektest::write_file(t.path("long.ini"), "k=" + std::string(2000, 'v') + "\r\n");
    EXPECT_EQ(2, t.run("ini set " + t.q("long.ini") + " s k v"));
    EXPECT_NE(std::string::npos, t.err().find("longer than 1024"));
    EXPECT_EQ(2004u, vektest::read_file(t.path("long.ini")).size());  // never overwritten
    EXPECT_EQ(0, t.run("--help"));
    EXPECT_NE(std::string::npos, t.out().find("ini diff OLD NEW"));
}
