/*
 * VekTest.cpp - the test programs' main and the shared fixture.
 */
#include "VekTest.h"
#include <cstdio>
#include <cstring>
#include <vector>
#include <cstdlib>
#ifndef _WIN32
#include <sys/wait.h>
#endif
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <filesystem>
#ifdef _WIN32
#include <windows.h>
#endif

namespace {

std::mutex g_faultLock;
std::vector<std::string> g_faults;

vek_s32 record_fault(const char*, const char* text) {
    std::lock_guard<std::mutex> lock(g_faultLock);
    g_faults.emplace_back(text ? text : "");
    return VEK_FAULT_IGNORE;
}

vek_s64 live_blocks() {
    VekHeapStat st;
    return vek_heap_stat(&st) == 0 ? st.liveBlocks : -1;
}

} // namespace

namespace vektest {

std::vector<std::string> faults() {
    std::lock_guard<std::mutex> lock(g_faultLock);
    return g_faults;
}

std::vector<std::string> take_faults() {
    std::lock_guard<std::mutex> lock(g_faultLock);
    std::vector<std::string> out;
    out.swap(g_faults);
    return out;
}

bool take_assert(const std::string& expr) {
    std::lock_guard<std::mutex> lock(g_faultLock);
    std::string needle = "\nExp: " + expr;
    for (auto it = g_faults.begin(); it != g_faults.end(); ++it) {
        size_t pos = it->find(needle);
        if (pos != std::string::npos && pos + needle.size() == it->size()) {
            g_faults.erase(it);
            return true;
        }
    }
    return false;
}

TraceCapture::TraceCapture() {
    prevSink_ = tout_set_sink(&TraceCapture::sink, this);
}

TraceCapture::~TraceCapture() {
    tout_set_sink(prevSink_, nullptr);
}

void TraceCapture::sink(void* ctx, const char* text, vek_s32 len) {
    static_cast<TraceCapture*>(ctx)->records.emplace_back(text, (size_t)len);
}

std::string TraceCapture::all() const {
    std::string s;
    for (const auto& r : records) {
        s += r;
        s += '\n';
    }
    return s;
}

std::string temp_dir(const std::string& name) {
    namespace fs = std::filesystem;
    fs::path p = fs::temp_directory_path() / ("vektest-" + name + "-" + std::to_string(al_thrd_id()));
    fs::remove_all(p);
    fs::create_directories(p);
    return p.string();
}

void remove_tree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

std::string read_file(const std::string& path) {
    std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

namespace {
struct ChildEntry {
    const char* name;
    ChildMain fn;
};
std::vector<ChildEntry>& children() {
    static std::vector<ChildEntry> v;
    return v;
}
} // namespace

bool add_child(const char* name, ChildMain fn) {
    children().push_back({name, fn});
    return true;
}

int run_child(int argc, char** argv) {
    for (const ChildEntry& c : children()) {
        if (std::strcmp(c.name, argv[2]) == 0) {
            BaseLib_init();
            int rc = c.fn(argc - 3, argv + 3);
            BaseLib_exit();
            return rc;
        }
    }
    return 125;
}

std::string self_dir() {
#ifdef _WIN32
    wchar_t buf[1024];
    DWORD n = GetModuleFileNameW(nullptr, buf, 1024);
    std::u8string u = std::filesystem::path(std::wstring(buf, n)).parent_path().u8string();
    return std::string(u.begin(), u.end());
#else
    return std::filesystem::canonical("/proc/self/exe").parent_path().string();
#endif
}

int run_command(const std::string& cmd) {
    std::fflush(nullptr);
#ifdef _WIN32
    // cmd.exe drops the first and last quote of a line that starts with one.
    return std::system(("\"" + cmd + "\"").c_str());
#else
    int st = std::system(cmd.c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
#endif
}

void write_file(const std::string& path, const std::string& data) {
    std::ofstream out(std::filesystem::u8path(path), std::ios::binary);
    out << data;
}

bool under_wine() {
#ifdef _WIN32
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
    return false;
#endif
}

std::string dbg_cfg_file() {
    static std::string path;
    if (path.empty()) {
        path = temp_dir("dbgcfg") + "/VekTrc.ini";
        write_file(path, "");
        DbgMng_cfgByFile(path.c_str());
        // Once it has read a change, its thread is up: it cannot start (and
        // trace its start) in the middle of a later test.
        dbg_cfg_settle();
    }
    return path;
}

void dbg_cfg_settle() {
    write_file(dbg_cfg_file(), "[Mod999]\r\nFld9=9\r\n");
    for (int i = 0; i < 500 && !DbgMng_enabled__(nullptr, 999, 9, 9); i++) {
        vek_sleep(10);
    }
    EXPECT_TRUE(DbgMng_enabled__(nullptr, 999, 9, 9)) << "the limit file's watcher did not read it again";
}

vek_u32 spawn(std::function<vek_u32()> f) {
    using Fn = std::function<vek_u32()>;
    return vek_thrd_create__(
        [](void* p) -> vek_u32 {
            std::unique_ptr<Fn> fn((Fn*)p);
            return (*fn)();
        },
        new Fn(std::move(f)), 0);
}

bool until(const std::function<bool()>& cond) {
    for (vek_u32 end = vek_msec() + 10000; vek_msec() < end; vek_sleep(1)) {
        if (cond()) {
            return true;
        }
    }
    return cond();
}

} // namespace vektest

// The default pool's workers come and go with demand (VekAsync runs
// there); each test starts and ends with none idle, so that the threads it
// made do not count as leaked blocks.
void VekTest::SetUp() {
    vektest::take_faults();
    TaskSvr_trim(TaskSvr_def());
    liveAtStart_ = live_blocks();
}

void VekTest::TearDown() {
    // A test that cancelled the main thread must not leave the abort pending
    // for the waits of the next one.
    vek_thrd_abort_clear();
    // An asynchronous operation the test cancelled may still be on its way
    // out of a worker (the cancel does not wait for it): let it end first.
    EXPECT_EQ(0, TaskSvr_drain(TaskSvr_def(), 10000)) << "a task of the test never ended";
    TaskSvr_trim(TaskSvr_def());
    for (const auto& f : vektest::take_faults()) {
        ADD_FAILURE() << "unexpected assertion:\n" << f;
    }
    // A worker whose task was cancelled joins the idle ones only after the
    // task's end was reported, so a trim may come too early for it; the
    // library's own threads may also let go of a block just after the call
    // that ended their part returned.
    vektest::until([&] {
        TaskSvr_trim(TaskSvr_def());
        return live_blocks() == liveAtStart_;
    });
    EXPECT_EQ(liveAtStart_, live_blocks()) << "tracked blocks leaked by the test";
}

void VekTest::expect_assert(const std::string& expr) {
    EXPECT_TRUE(vektest::take_assert(expr)) << "expected the assertion \"" << expr << "\"";
}

int main(int argc, char** argv) {
    if (argc > 2 && std::strcmp(argv[1], "--child") == 0) {
        return vektest::run_child(argc, argv);
    }
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    al_set_fault_hook(record_fault);
    BaseLib_init();
    int rc = RUN_ALL_TESTS();
    BaseLib_exit();
    return rc;
}
