/*
 * vektool watch and get as a user runs them: a watcher in a process of its
 * own that reports a file made in its folder and ends when the folder goes,
 * and downloads from a loopback server that never replace a good file with
 * a failed one.
 */
#include <filesystem>
#include <thread>
#include "HttpServer.h"
#include "ToolRun.h"

TEST(VektoolWatch, ReportsAFileMadeInTheFolderAndEndsWithIt) {
#ifdef _WIN32
    // Wine removes a folder only once every handle to it is closed, so the
    // watcher, which holds one, would never see its folder go and end.
    GTEST_SKIP() << "the watcher's end is not seen under wine";
#endif
    ToolRun t;
    std::string dir = t.path("watched");
    std::filesystem::create_directory(std::filesystem::u8path(dir));
    int code = -1;
    // Bounded, so that a watcher that missed its folder's end fails the
    // test (timeout's 124) instead of holding the whole run.
    std::thread child([&] { code = t.sh("timeout 60 $T watch watched"); });
    // The watch starts some time after the process does: files are made
    // until one is reported.
    bool seen = false;
    for (int i = 0; i < 100 && !seen; i++) {
        vektest::write_file(dir + "/f" + std::to_string(i), "x");
        vek_sleep(100);
        seen = t.out().find("added\t") != std::string::npos;
    }
    std::filesystem::remove_all(std::filesystem::u8path(dir));  // the watcher's end
    child.join();
    EXPECT_TRUE(seen) << t.err();
    EXPECT_EQ(0, code) << t.err() << "\n(what it printed)\n" << t.out();
    std::string out = t.out();
    size_t at = out.find("added\t");
    ASSERT_NE(std::string::npos, at);
    // TYPE, tab, the path below the folder: "added\tf7".
    std::string line = out.substr(at, out.find('\n', at) - at);
    EXPECT_EQ(0u, line.find("added\tf")) << line;
    EXPECT_EQ(std::string::npos, line.find_first_not_of("0123456789", 7)) << line;
    EXPECT_EQ(2, t.run("watch " + t.q("no-such-folder")));
    EXPECT_NE(std::string::npos, t.err().find("no-such-folder")) << t.err();
}

TEST(VektoolGet, DownloadsAndNeverReplacesAFileWithAFailure) {
    ToolRun t;
    vektest::HttpServer srv;
    vektest::write_file(t.path("keep"), "good");
    bool curl = net_curl_load(nullptr) == 0;
    EXPECT_EQ(2, t.run("get \"" + srv.url("/status/404") + "\" " + t.q("keep")));
    EXPECT_EQ("good", vektest::read_file(t.path("keep")));
    if (!curl) {
        EXPECT_NE(std::string::npos, t.err().find("/status/404")) << t.err();
        GTEST_SKIP() << "no libcurl here: vektool get only fails";
    }
    EXPECT_NE(std::string::npos, t.err().find("404")) << t.err();
    ASSERT_EQ(0, t.run("get \"" + srv.url("/bytes/5000") + "\" " + t.q("keep"))) << t.err();
    std::string got = vektest::read_file(t.path("keep"));
    ASSERT_EQ(5000u, got.size());
    EXPECT_EQ(vektest::byte_at(4321), got[4321]);
    ASSERT_EQ(0, t.run("get \"" + srv.url("/bytes/300") + "\" -"));
    EXPECT_EQ(300u, t.out().size());
    EXPECT_EQ(2, t.run("get \"http://127.0.0.1:1/\" " + t.q("keep")));
    EXPECT_EQ(5000u, vektest::read_file(t.path("keep")).size());
    EXPECT_EQ(2, t.run("get \"" + srv.url("/bytes/1") + "\""));  // no FILE
}
