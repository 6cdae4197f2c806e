/*
 * vektool pipe and evt through the real program: what the listener
 * prints, and the exit codes a script tests.
 */
#include <algorithm>
#include <string>
#include "ChildProc.h"
#include "ToolRun.h"

using VektoolPipe = VekTest;

TEST_F(VektoolPipe, ListenPrintsWhatSendAndEvtSend) {
    ToolRun t;
    std::string name = "vektool-" + std::to_string(vek_main_tid());
    EXPECT_EQ(1, t.run("pipe send " + name + " nobody-listens"));
    ChildProc lis("vektool", {"pipe", "listen", "-n", "3", name}, t.path("listen.out"));
    ASSERT_TRUE(vektest::until([&] { return t.run("pipe send " + name + " \"hello there\"") == 0; }));
    EXPECT_EQ(0, t.run("evt send " + name + " 0x1234 -5 7"));
    EXPECT_EQ(0, t.run_in("pipe send " + name + " -", "from stdin"));
    EXPECT_EQ(0, lis.wait());
    std::string out = lis.out();
    out.erase(std::remove(out.begin(), out.end(), '\r'), out.end());
    EXPECT_EQ("hello there\nevt 4660 0 -5 7 \"\" \"\"\nfrom stdin\n", out);
    EXPECT_EQ(2, t.run("evt send " + name + " notanumber"));
    EXPECT_EQ(2, t.run("evt send " + name + " 1 2 3 4"));
}
