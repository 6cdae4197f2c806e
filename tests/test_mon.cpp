/*
 * File and disc monitors on real folders: what a sequence of changes
 * reports, deep trees made at once under a recursive watch, a tree moved
 * in, a forced overflow of the system's queue (a RESCAN, never silence),
 * callbacks on the owner's thread, cancellation, and mounts (as root).
 */
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include "OsFault.h"
#ifndef _WIN32
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>
#endif

namespace fs = std::filesystem;

namespace {

struct Ev {
    int type;
    int flags;
    std::string path, old;
};

std::string native(std::string p) {
#ifdef _WIN32
    for (char& c : p) {
        if (c == '/') {
            c = '\\';
        }
    }
#endif
    return p;
}

/* Reads events until none comes for quietMs (or maxMs passed). */
std::vector<Ev> collect(FileMon* m, int quietMs = 300, int maxMs = 5000) {
    std::vector<Ev> out;
    vek_u32 start = vek_msec();
    VekMonEvt e;
    while ((int)(vek_msec() - start) < maxMs && FileMon_read(m, &e, quietMs, 0) == 0) {
        out.push_back({e.type, e.flags, e.path, e.oldPath});
    }
    return out;
}

bool has(const std::vector<Ev>& evs, int type, const std::string& path, const std::string& old = "") {
    for (const auto& e : evs) {
        if (e.type == type && e.path == native(path) && (old.empty() || e.old == native(old))) {
            return true;
        }
    }
    return false;
}

std::string dump(const std::vector<Ev>& evs) {
    std::string s;
    for (const auto& e : evs) {
        s += std::string(vek_mon_type_name(e.type)) + " " + e.path + (e.old.empty() ? "" : " <- " + e.old) + "\n";
    }
    return s;
}

class Mon : public VekTest {
  protected:
    void SetUp() override {
        vek_erp_self();  // the thread's queue lives on after the test: made before the count
        VekTest::SetUp();
        dir_ = vektest::temp_dir("mon");
    }
    void TearDown() override {
        vektest::remove_tree(dir_);
        VekTest::TearDown();
    }
    std::string at(const std::string& rel) const { return dir_ + "/" + rel; }
    std::string dir_;
};

} // namespace

TEST_F(Mon, ChangesOfOneFolderInOrder) {
    fs::create_directories(at("sub"));
    FileMon* m = nullptr;
    ASSERT_EQ(0, FileMon_new(dir_.c_str(), 0, nullptr, nullptr, &m));
    vektest::write_file(at("a.txt"), "1");
    vektest::write_file(at("a.txt"), "22");
    fs::rename(at("a.txt"), at("b.txt"));
    vektest::write_file(at("sub/inner.txt"), "not watched");
    fs::create_directory(at("newdir"));
    fs::remove(at("b.txt"));
    auto evs = collect(m);
    EXPECT_TRUE(has(evs, VEK_MON_ADDED, "a.txt")) << dump(evs);
    EXPECT_TRUE(has(evs, VEK_MON_CHANGED, "a.txt")) << dump(evs);
    EXPECT_TRUE(has(evs, VEK_MON_RENAMED, "b.txt", "a.txt")) << dump(evs);
    EXPECT_TRUE(has(evs, VEK_MON_ADDED, "newdir")) << dump(evs);
    EXPECT_TRUE(has(evs, VEK_MON_REMOVED, "b.txt")) << dump(evs);
    EXPECT_FALSE(has(evs, VEK_MON_ADDED, "sub/inner.txt")) << "not recursive";
    for (const auto& e : evs) {
        EXPECT_NE(VEK_MON_RESCAN, e.type);
        if (e.path == native("newdir") && e.type == VEK_MON_ADDED) {
            EXPECT_TRUE(e.flags & VEK_MON_DIR);
        }
    }
    VekMonEvt e;
    EXPECT_EQ(VEK_ERR_TIMEOUT, FileMon_read(m, &e, 50, 0));
    FileMon_delete(m);

    FileMon* bad = nullptr;
    EXPECT_EQ(VEK_ERR_NOT_FOUND, FileMon_new(at("none").c_str(), 0, nullptr, nullptr, &bad));
    vektest::write_file(at("plain"), "x");
    EXPECT_EQ(VEK_ERR_FILE_OPEN, FileMon_new(at("plain").c_str(), 0, nullptr, nullptr, &bad));
    EXPECT_EQ(nullptr, bad);
}

// mkdir -p of a deep tree and a file in its deepest folder, and a tree
// moved in whole: every entry is reported although most of them were made
// before their folder had a watch.
TEST_F(Mon, RecursiveWatchesSeeDeepTreesMadeAtOnce) {
    FileMon* m = nullptr;
    ASSERT_EQ(0, FileMon_new((dir_ + "/").c_str(), VEK_FILEMON_RECURSIVE, nullptr, nullptr, &m));
    fs::create_directories(at("a/b/c/d/e"));
    vektest::write_file(at("a/b/c/d/e/deep.txt"), "x");
    std::string outside = dir_ + "-outside";
    fs::create_directories(outside + "/tree/inner");
    vektest::write_file(outside + "/tree/inner/f.txt", "y");
    fs::rename(outside + "/tree", at("moved"));
    vektest::remove_tree(outside);
    auto evs = collect(m);
    for (const char* p : {"a", "a/b", "a/b/c", "a/b/c/d", "a/b/c/d/e", "a/b/c/d/e/deep.txt", "moved",
                          "moved/inner", "moved/inner/f.txt"}) {
        EXPECT_TRUE(has(evs, VEK_MON_ADDED, p)) << p << "\n" << dump(evs);
    }
    std::map<std::string, int> added;
    for (const auto& e : evs) {
        added[e.path] += e.type == VEK_MON_ADDED;
    }
    for (const auto& kv : added) {
        EXPECT_LE(kv.second, 1) << "reported twice: " << kv.first;
    }
    // The new folders are watched now: a rename deep down is seen.
    fs::rename(at("a/b/c/d/e/deep.txt"), at("a/b/c/d/e/deeper.txt"));
    evs = collect(m);
    EXPECT_TRUE(has(evs, VEK_MON_RENAMED, "a/b/c/d/e/deeper.txt", "a/b/c/d/e/deep.txt")) << dump(evs);
    // A folder renamed inside the tree keeps its watches under its new
    // name; one moved out of the tree takes them along.
    if (vektest::under_wine()) {
        std::printf("[ skipped  ] wine names entries of a renamed folder by its old name: not tested\n");
    } else {
        fs::rename(at("a/b"), at("a/x"));
        vektest::write_file(at("a/x/c/new.txt"), "z");
        evs = collect(m);
        EXPECT_TRUE(has(evs, VEK_MON_RENAMED, "a/x", "a/b")) << dump(evs);
        EXPECT_TRUE(has(evs, VEK_MON_ADDED, "a/x/c/new.txt")) << dump(evs);
        fs::create_directories(outside);
        fs::rename(at("a/x"), outside + "/x");
        evs = collect(m);
        EXPECT_TRUE(has(evs, VEK_MON_REMOVED, "a/x")) << dump(evs);
        vektest::write_file(outside + "/x/c/later.txt", "z");
        evs = collect(m);
        EXPECT_TRUE(evs.empty()) << dump(evs);
        vektest::remove_tree(outside);
    }
    // Removing the watched folder itself ends the monitor (where the system
    // does not say so, a waiting read notices within a second). An open
    // handle to the folder holds back Linux's own report until it closes.
#ifndef _WIN32
    int hold = open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
#endif
    vektest::remove_tree(dir_);
    evs = collect(m, 2500);
#ifndef _WIN32
    close(hold);
#endif
    if (fs::exists(dir_) && vektest::under_wine()) {
        std::printf("[ skipped  ] wine keeps a watched folder: its removal is not tested\n");
    } else {
        ASSERT_FALSE(evs.empty());
        EXPECT_EQ(VEK_MON_REMOVED, evs.back().type);
        EXPECT_EQ("", evs.back().path);
        VekMonEvt e;
        EXPECT_EQ(VEK_ERR_EOF, FileMon_read(m, &e, 10, 0));
    }
    FileMon_delete(m);
}

#ifndef _WIN32
// More events than the kernel's queue holds while nobody reads: the
// monitor must say that some were lost.
TEST_F(Mon, AnOverflowedQueueIsARescanNotSilence) {
    long limit = 16384;
    if (FILE* f = std::fopen("/proc/sys/fs/inotify/max_queued_events", "r")) {
        if (std::fscanf(f, "%ld", &limit) != 1) {
            limit = 16384;
        }
        std::fclose(f);
    }
    if (limit > 200000) {
        GTEST_SKIP() << "max_queued_events is " << limit << ": too many events to force an overflow here";
    }
    FileMon* m = nullptr;
    fs::create_directories(at("sub"));
    ASSERT_EQ(0, FileMon_new(dir_.c_str(), VEK_FILEMON_RECURSIVE, nullptr, nullptr, &m));
    vektest::write_file(at("x"), "");
    // Each rename is two events that the kernel cannot merge.
    for (long i = 0; i <= limit / 2 + 16; i++) {
        fs::rename(at(i % 2 ? "y" : "x"), at(i % 2 ? "x" : "y"));
    }
    fs::create_directories(at("late"));  // its creation is lost with the rest
    bool rescan = false;
    VekMonEvt e;
    while (!rescan && FileMon_read(m, &e, 200, 0) == 0) {
        rescan = e.type == VEK_MON_RESCAN && e.err == 0 && std::string(e.path).empty();
    }
    EXPECT_TRUE(rescan);
    // ...but the folder is watched from the rescan on.
    vektest::write_file(at("late/f"), "");
    bool seen = false;
    while (!seen && FileMon_read(m, &e, 2000, 0) == 0) {
        seen = e.type == VEK_MON_ADDED && std::string(e.path) == "late/f";
    }
    EXPECT_TRUE(seen);
    FileMon_delete(m);
}

// Every system call of a recursive watch failing in turn, from its open
// over a tree to a deep tree made under it: the open fails with its code,
// or each new file and folder is reported, or a RESCAN says where the
// watch has a hole - never a silent loss.
TEST_F(Mon, EverySystemCallFailingInTurnIsACodeOrARescan) {
    vektest::OsIoDisarm disarm;
    fs::create_directories(at("a/b"));
    int run = 0;
    int runs = vektest::os_io_sweep([&](int k) -> vek_s32 {
        FileMon* m = nullptr;
        vek_s32 r = FileMon_new(dir_.c_str(), VEK_FILEMON_RECURSIVE, nullptr, nullptr, &m);
        if (r < 0) {
            EXPECT_TRUE(vektest::one_of(r, {VEK_ERR_FILE_OPEN, VEK_ERR_WATCH_LIMIT})) << k << " " << r;
            return r;
        }
        std::string top = "n" + std::to_string(run++);
        fs::create_directories(at(top + "/x/y"));
        vektest::write_file(at(top + "/x/y/f"), "");
        vektest::write_file(at("a/b/g" + top), "");
        std::set<std::string> want = {native(top), native(top + "/x"), native(top + "/x/y"), native(top + "/x/y/f"),
                                      native("a/b/g" + top)};
        bool rescan = false;
        VekMonEvt e;
        while (!want.empty() && !rescan && FileMon_read(m, &e, 2000, 0) == 0) {
            want.erase(e.path);
            rescan = e.type == VEK_MON_RESCAN;
            EXPECT_TRUE(!rescan || vektest::one_of(e.err, {VEK_ERR_IO, VEK_ERR_WATCH_LIMIT})) << k << " " << e.err;
        }
        EXPECT_TRUE(want.empty() || rescan) << k << ": " << *want.begin() << " never reported";
        FileMon_delete(m);
        fs::remove_all(at(top));
        fs::remove(at("a/b/g" + top));
        return want.empty() ? 0 : -1;
    });
    EXPECT_GE(runs, 6);
    // An idle read looks each second whether the folder is still there; a
    // look that fails for want of memory is no removal.
    FileMon* m = nullptr;
    ASSERT_EQ(0, FileMon_new(dir_.c_str(), 0, nullptr, nullptr, &m));
    vek_os_fail_at__(VEK_OS_IO, 2);  // the read that finds nothing, then the look
    vek_os_fail_errno__(ENOMEM);
    VekMonEvt e;
    EXPECT_EQ(VEK_ERR_TIMEOUT, FileMon_read(m, &e, 1100, 0));
    EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_IO, 0));
    vektest::write_file(at("still"), "");
    EXPECT_EQ(0, FileMon_read(m, &e, 2000, 0));
    FileMon_delete(m);
}

// A disc watch without the kernel's announcements still watches mounts;
// without the whole mount table it cannot start.
TEST_F(Mon, ADiscWatchStartsWithWhatTheSystemGives) {
    vektest::OsIoDisarm disarm;
    int runs = vektest::os_io_sweep([&](int k) -> vek_s32 {
        DiscMon* d = nullptr;
        vek_s32 r = DiscMon_new(nullptr, nullptr, &d);
        if (r < 0) {
            EXPECT_EQ(VEK_ERR_UNSUPPORTED, r) << k;
            return r;
        }
        VekMonEvt e;
        r = DiscMon_read(d, &e, 20, 0);
        EXPECT_EQ(VEK_ERR_TIMEOUT, r) << k << " " << vek_mon_type_name(e.type) << " " << e.path;
        DiscMon_delete(d);
        return r == VEK_ERR_TIMEOUT ? 0 : r;
    });
    EXPECT_GE(runs, 4);
}
#endif

namespace {

struct Pushed {
    std::vector<Ev> evs;
    std::set<vek_u32> threads;
};

void on_event(void* ctx, const VekMonEvt* e) {
    auto* p = (Pushed*)ctx;
    p->evs.push_back({e->type, e->flags, e->path, e->oldPath});
    p->threads.insert(al_thrd_id());
}

} // namespace

TEST_F(Mon, PushedEventsRunOnTheOwnerAndReadsAreCancellable) {
    Pushed got;
    FileMon* m = nullptr;
    ASSERT_EQ(0, FileMon_new(dir_.c_str(), 0, on_event, &got, &m));
    VekMonEvt e;
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, FileMon_read(m, &e, 0, 0));
    vektest::write_file(at("p.txt"), "x");
    vek_u32 start = vek_msec();
    while (got.evs.empty() && vek_msec() - start < 5000) {
        vek_erp_run(100, 0);
    }
    ASSERT_FALSE(got.evs.empty());
    EXPECT_TRUE(has(got.evs, VEK_MON_ADDED, "p.txt"));
    EXPECT_EQ(std::set<vek_u32>{al_thrd_id()}, got.threads);
    vektest::write_file(at("q.txt"), "x");
    vek_sleep(100);
    FileMon_delete(m);  // what is still queued is dropped, never delivered
    size_t n = got.evs.size();
    vek_erp_disp();
    EXPECT_EQ(n, got.evs.size());

    // A pulled read blocked in another thread ends with -5 on a cancel.
    ASSERT_EQ(0, FileMon_new(dir_.c_str(), 0, nullptr, nullptr, &m));
    struct Arg {
        FileMon* m;
        std::atomic<vek_s32> r{1};
    } arg{m};
    vek_u32 tid = vek_thrd_create__(
        [](void* a) -> vek_u32 {
            VekMonEvt ev;
            ((Arg*)a)->r = FileMon_read(((Arg*)a)->m, &ev, -1, 0);
            return 0;
        },
        &arg, 0);
    vek_sleep(50);
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(VEK_ERR_ABORTED, arg.r.load());
    FileMon_delete(m);
}

TEST_F(Mon, DiscMonitorSeesAMount) {
    DiscMon* d = nullptr;
    vek_s32 r = DiscMon_new(nullptr, nullptr, &d);
    ASSERT_EQ(0, r);
    VekMonEvt e;
    EXPECT_EQ(VEK_ERR_TIMEOUT, DiscMon_read(d, &e, 50, 0));
#ifdef _WIN32
    DiscMon_delete(d);
    GTEST_SKIP() << "no drive can be made to come and go here: only the start and the time-out are tested";
#else
    fs::create_directories(at("src"));
    fs::create_directories(at("dst"));
    if (mount(at("src").c_str(), at("dst").c_str(), nullptr, MS_BIND, nullptr) != 0) {
        DiscMon_delete(d);
        GTEST_SKIP() << "a bind mount needs root (CAP_SYS_ADMIN): mount events not tested";
    }
    bool mounted = false, unmounted = false;
    while (!mounted && DiscMon_read(d, &e, 2000, 0) == 0) {
        mounted = e.type == VEK_MON_MOUNTED && std::string(e.path) == at("dst");
    }
    umount(at("dst").c_str());
    while (!unmounted && DiscMon_read(d, &e, 2000, 0) == 0) {
        unmounted = e.type == VEK_MON_UNMOUNTED && std::string(e.path) == at("dst");
    }
    EXPECT_TRUE(mounted);
    EXPECT_TRUE(unmounted);
    DiscMon_delete(d);
#endif
}
