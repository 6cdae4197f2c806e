/*
 * vektool pipe and evt end to end: a real listener process, real senders,
 * and the exit codes a script tests.
 */
#include <string>
#include "ChildProc.h"
#include "ToolRun.h"
#ifndef _WIN32
#include <cstdlib>
#endif

using VektoolPipe = VekTest;

TEST_F(VektoolPipe, ListenPrintsWhatSendAndEvtSend) {
    ToolRun t;
#ifdef _WIN32
    std::string name = "vektool-" + std::to_string(GetCurrentProcessId());
#else
    setenv("XDG_RUNTIME_DIR", t.path("").c_str(), 1);
    std::string name = "vektool";
#endif
    EXPECT_EQ(1, t.run("pipe send " + name + " nobody-listens"));
    EXPECT_NE(std::string::npos, t.err().find(name)) << t.err();
    ChildProc lis("vektool", {"pipe", "listen", "-n", "3", name}, t.path("listen.out"));
    // The listener is up once a send gets through; until then nothing listens.
    ASSERT_TRUE(vektest::until([&] { return t.run("pipe send " + name + " \"hello there\"") == 0; }));
    EXPECT_EQ(0, t.run("evt send " + name + " 0x1234 -5 7"));
    EXPECT_EQ(0, t.run_in("pipe send " + name + " -", "from stdin"));
    EXPECT_EQ(0, lis.wait());
    std::string out;
    for (char c : lis.out()) {
        if (c != '\r') {
            out += c;
        }
    }
    EXPECT_EQ("hello there\nevt 4660 0 -5 7 \"\" \"\"\nfrom stdin\n", out);
    EXPECT_EQ(2, t.run("evt send " + name + " notanumber"));
    EXPECT_EQ(2, t.run("evt send " + name + " 1 2 3 4"));
    EXPECT_EQ(2, t.run("pipe send"));
#ifndef _WIN32
    unsetenv("XDG_RUNTIME_DIR");
#endif
}
