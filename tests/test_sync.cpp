/*
 * Synchronisation primitives: events, the three waits and their results,
 * unnamed and named locks (abandoned by a thread and by a process), the
 * kernel-object name rules, semaphores, and handles not leaking.
 */
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include "VekTest.h"
#ifdef _WIN32
#include <windows.h>
#else
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

using vektest::TraceCapture;

namespace {

const char kChildVar[] = "VEK_TEST_HOLD_LOCK";

/* Whether the kernel frees a named lock whose owning thread ends (robust
 * futexes; qemu-user has none and answers ENOSYS). */
bool dead_owners_reported() {
#ifdef _WIN32
    return true;
#else
    void* head = nullptr;
    size_t len = 0;
    return syscall(SYS_get_robust_list, 0, &head, &len) == 0;
#endif
}

std::u16string wide(const std::string& s) {
    std::u16string w(s.size() + 1, u'\0');
    w.resize((size_t)utf8_buf_to_wcs_str(s.c_str(), (vek_s32)s.size(), (vek_wchar*)&w[0], (vek_s32)w.size()));
    return w;
}

const vek_wchar* wp(const std::u16string& w) {
    return (const vek_wchar*)w.c_str();
}

/* This program started again as a child process (before main): it sees the
 * parent's named lock, takes it and ends without releasing it. */
const int g_child = [] {
    const char* name = std::getenv(kChildVar);
    if (!name || !*name) {
        return 0;
    }
    vek_handle m = vek_lock_create__(name, 0);
    bool ok = m && win_mutex_exist__(wp(wide(name))) == 1 && vek_lock_lock__(m, 10000, 0) == 0;
    std::_Exit(ok ? 7 : 8);
}();

/* Runs this program as a child with the lock name; its exit code. */
int run_child(const std::string& name) {
#ifdef _WIN32
    SetEnvironmentVariableA(kChildVar, name.c_str());
    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi{};
    BOOL started = CreateProcessW(exe, nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
    SetEnvironmentVariableA(kChildVar, nullptr);
    if (!started) {
        return -1;
    }
    WaitForSingleObject(pi.hProcess, 60000);
    DWORD code = 0;
    GetExitCodeProcess(pi.hProcess, &code);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return (int)code;
#else
    std::string var = std::string(kChildVar) + "=" + name;
    std::vector<char*> env;
    for (char** e = environ; *e; e++) {
        env.push_back(*e);
    }
    env.push_back(&var[0]);
    env.push_back(nullptr);
    char exe[4096];
    if (vek_proc_path__(exe, sizeof exe) <= 0) {
        return -1;
    }
    char* argv[] = {exe, nullptr};
    pid_t pid;
    if (posix_spawn(&pid, exe, nullptr, nullptr, argv, env.data()) != 0) {
        return -1;
    }
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
#endif
}

/* Handles the process holds: the system's count on Windows; on POSIX every
 * handle is a block of the tracked heap. */
long live_handles() {
#ifdef _WIN32
    DWORD n = 0;
    GetProcessHandleCount(GetCurrentProcess(), &n);
    return (long)n;
#else
    VekHeapStat st;
    vek_heap_stat(&st);
    return (long)st.liveBlocks;
#endif
}

std::string unique_name(const char* what) {
    return std::string("Global\\vektest-") + what + "-" + std::to_string(al_thrd_id()) + "-" +
           std::to_string(vek_msec());
}

/* Runs f on a thread of its own and waits for it. */
void on_thread(const std::function<void()>& f) {
    std::thread([&] {
        f();
        vek_thrd_end();
    }).join();
}

} // namespace

using Sync = VekTest;

TEST_F(Sync, EventsManualAndAutomatic) {
    vek_handle manual = vek_evt_create__(1, 1);
    vek_handle autoEvt = vek_evt_create__(0, 1);
    EXPECT_EQ(1, vek_evt_test(manual));
    EXPECT_EQ(1, vek_evt_test(manual));   // stays signalled
    EXPECT_EQ(1, vek_evt_test(autoEvt));
    EXPECT_EQ(0, vek_evt_test(autoEvt));  // the test consumed it
    vek_evt_set(autoEvt);
    EXPECT_EQ(0, vek_evt_wait__(autoEvt, 0, 0));
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_wait__(autoEvt, 0, 0));
    vek_evt_reset(manual);
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_swait__(manual, 0, 0));
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_mwait__(manual, nullptr, 0, 0));
    vek_evt_set(manual);
    EXPECT_EQ(0, vek_evt_mwait__(manual, nullptr, 0, 0));
    vek_evt_close(manual);
    vek_evt_close(autoEvt);

    EXPECT_ASSERT("evt", vek_evt_set(nullptr));
    EXPECT_ASSERT("evt", vek_evt_reset(nullptr));
    EXPECT_ASSERT("evt", vek_evt_close(nullptr));
    EXPECT_ASSERT("evt", EXPECT_EQ(0, vek_evt_test(nullptr)));
    EXPECT_ASSERT("hnd", EXPECT_EQ(VEK_ERR_WAIT_FAILED, vek_evt_wait__(nullptr, 0, 0)));
    EXPECT_ASSERT("hnd", EXPECT_EQ(VEK_ERR_WAIT_FAILED, win_hnd_swait__(nullptr, 0, 0)));
    EXPECT_ASSERT("hnd", EXPECT_EQ(VEK_ERR_WAIT_FAILED, win_hnd_mwait__(nullptr, nullptr, 0, 0)));
}

TEST_F(Sync, AnAutoResetEventReleasesExactlyOneWaiter) {
    struct Ctx {
        vek_handle evt;
        std::atomic<int> released{0};
        std::atomic<int> other{0};
    } ctx;
    ctx.evt = vek_evt_create__(0, 0);
    vek_thrd_entry waiter = [](void* p) -> vek_u32 {
        Ctx* c = (Ctx*)p;
        (vek_evt_swait__(c->evt, 10000, 0) == 0 ? c->released : c->other)++;
        return 0;
    };
    vek_u32 tids[2] = {vek_thrd_create__(waiter, &ctx, 0), vek_thrd_create__(waiter, &ctx, 0)};
    vek_sleep(30);
    vek_evt_set(ctx.evt);
    for (int i = 0; i < 5000 && ctx.released == 0; i++) {
        vek_sleep(1);
    }
    vek_sleep(100);  // had the signal released both, the second would be in by now
    EXPECT_EQ(1, ctx.released.load());
    EXPECT_EQ(0, vek_evt_test(ctx.evt));  // consumed by the one it released
    vek_evt_set(ctx.evt);
    for (vek_u32 tid : tids) {
        vek_thrd_join(tid);
    }
    EXPECT_EQ(2, ctx.released.load());
    EXPECT_EQ(0, ctx.other.load());
    vek_evt_close(ctx.evt);
}

TEST_F(Sync, TimeoutsKeepTheirTime) {
    vek_handle evt = vek_evt_create__(1, 0);
    vek_handle held = vek_lock_create__(nullptr, 0);
    VekSem sem;
    VekSem_init(&sem, 10, 0);
    std::atomic<bool> release{false};
    std::thread owner([&] {
        vek_lock_lock__(held, -1, 0);
        while (!release) {
            vek_sleep(1);
        }
        vek_lock_unlock(held);
        vek_thrd_end();
    });
    while (vek_lock_trylock__(held, 0) == 0) {  // until the owner has it
        vek_lock_unlock(held);
        vek_sleep(1);
    }
    const std::vector<std::pair<vek_s32, std::function<vek_s32()>>> waits = {
        {VEK_ERR_TIMEOUT, [&] { return vek_evt_swait__(evt, 100, 0); }},
        {VEK_ERR_TIMEOUT, [&] { return vek_evt_wait__(evt, 100, 0); }},
        {VEK_ERR_TIMEOUT, [&] { return vek_evt_mwait__(evt, nullptr, 100, 0); }},
        {VEK_ERR_TIMEOUT, [&] { return vek_lock_slock__(held, 100, 0); }},
        {VEK_ERR_TIMEOUT, [&] { return VekSem_swait(&sem, 100, 0); }},
        {VEK_ERR_TIMEOUT, [&] { return VekSem_wait(&sem, 100, 0); }},
        {0, [&] { return vek_ssleep(100); }},
    };
    for (size_t i = 0; i < waits.size(); i++) {
        vek_u32 t0 = vek_msec();
        EXPECT_EQ(waits[i].first, waits[i].second()) << "wait " << i;
        vek_u32 took = vek_msec() - t0;
        EXPECT_GE(took, 90u) << "wait " << i;
        EXPECT_LT(took, 2000u) << "wait " << i;
    }
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_lock_trylock__(held, 0));
    release = true;
    owner.join();
    vek_lock_close(held);
    vek_evt_close(evt);
    VekSem_delete(&sem);
}

TEST_F(Sync, WaitingOnTheOwnAbortEventAsserts) {
    vek_handle abortEvt = vek_thrd_abort_evt();
    vek_s32 r = vek_evt_swait__(abortEvt, 0, 0);
    expect_assert("forbidAbort || hnd != hnds[1]");
    // Windows refuses a handle given twice; whatever the system did, the
    // result is one of the wait's own.
    if (r == VEK_ERR_WAIT_FAILED) {
        vektest::take_faults();
    } else {
        EXPECT_EQ(VEK_ERR_TIMEOUT, r);
    }
    EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_swait__(abortEvt, 0, VEK_WAIT_FORBID_ABORT));
}

#ifdef _WIN32
namespace {
std::atomic<int> g_dispatched;
vek_handle g_dispEvt;
void disp_and_set() {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        g_dispatched++;
    }
    vek_evt_set(g_dispEvt);
}
} // namespace

TEST_F(Sync, MessageWaitsDispatchAndSeeWhatTheDispatchDid) {
    g_dispEvt = vek_evt_create__(1, 0);
    PostThreadMessageW(GetCurrentThreadId(), WM_USER, 0, 0);
    EXPECT_EQ(0, win_hnd_mwait__(g_dispEvt, disp_and_set, 2000, 0));
    EXPECT_EQ(1, g_dispatched.load());
    vek_evt_close(g_dispEvt);
}
#endif

TEST_F(Sync, LocksAreRecursiveOwnedAndAbandonedByTheirThread) {
    vek_handle m = vek_lock_create__(nullptr, 1);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(0, vek_lock_lock__(m, 0, 0));  // recursive
    on_thread([&] { EXPECT_EQ(VEK_ERR_TIMEOUT, vek_lock_trylock__(m, 0)); });
    vek_lock_unlock(m);
    on_thread([&] {
        EXPECT_EQ(VEK_ERR_TIMEOUT, vek_lock_trylock__(m, 0));
        EXPECT_ASSERT("0", vek_lock_unlock(m));  // not the owner
    });
    vek_lock_unlock(m);
    EXPECT_ASSERT("0", vek_lock_unlock(m));  // released already

    // A thread that ends holding the lock abandons it: the next owner
    // acquires it after a trace, and only the next one.
    on_thread([&] { EXPECT_EQ(0, vek_lock_slock__(m, 1000, 0)); });
    TraceCapture trc;
    EXPECT_EQ(0, vek_lock_slock__(m, 1000, 0));
    EXPECT_TRUE(trc.contains("win_hnd_swait() detect ABANDONED"));
    vek_lock_unlock(m);
    on_thread([&] { EXPECT_EQ(0, vek_lock_trylock__(m, 0)); });
    EXPECT_EQ(0, vek_lock_trylock__(m, 0));
    EXPECT_TRUE(trc.contains("vek_lock_trylock() detect ABANDONED"));
    vek_lock_unlock(m);
    on_thread([&] { EXPECT_EQ(0, vek_lock_lock__(m, 0, 0)); });
    EXPECT_EQ(0, vek_lock_lock__(m, 1000, 0));
    EXPECT_TRUE(trc.contains("win_hnd_wait() detect ABANDONED"));
    vek_lock_unlock(m);
    vek_lock_close(m);

    EXPECT_ASSERT("mutex", vek_lock_unlock(nullptr));
    EXPECT_ASSERT("CloseHandle(mutex)", vek_lock_close(nullptr));
    EXPECT_ASSERT("mutex", EXPECT_EQ(VEK_ERR_WAIT_FAILED, vek_lock_trylock__(nullptr, 0)));
}

TEST_F(Sync, NamedLocksExistWhileAHandleIsOpen) {
    std::string name = unique_name("named") + "\xc3\x84";  // ends in a non-ASCII letter
    std::u16string wname = wide(name);
    EXPECT_EQ(0, win_mutex_exist__(wp(wname)));
    vek_handle a = vek_lock_create__(name.c_str(), 1);
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(1, win_mutex_exist__(wp(wname)));
    vek_handle b = vek_lock_createw__(wp(wname), 1);  // opens it: no ownership
    on_thread([&] {
        vek_handle c = vek_lock_create__(name.c_str(), 0);
        EXPECT_EQ(VEK_ERR_TIMEOUT, vek_lock_slock__(c, 50, 0));
        vek_lock_close(c);
    });
    EXPECT_EQ(0, vek_lock_trylock__(b, 0));  // the owner enters again
    vek_lock_unlock(b);
    vek_lock_unlock(a);
    on_thread([&] {
        EXPECT_EQ(0, vek_lock_trylock__(b, 0));
        vek_lock_unlock(b);
    });
    vek_lock_close(a);
    EXPECT_EQ(1, win_mutex_exist__(wp(wname)));
    vek_lock_close(b);
    EXPECT_EQ(0, win_mutex_exist__(wp(wname)));

    EXPECT_ASSERT("!wcs_noo(mutexName)", EXPECT_EQ(0, win_mutex_exist__(nullptr)));
    const vek_wchar empty[1] = {0};
    EXPECT_ASSERT("!wcs_noo(mutexName)", win_mutex_exist__(empty));
}

// The owner of a named lock and its recursion are kept per process: an
// inner release leaves it owned, a thread that ends holding it abandons it,
// and a thread may close the last handle while it holds the lock.
TEST_F(Sync, ANamedLockKeepsItsOwnerAcrossReleasesAndHandles) {
    std::string name = unique_name("owner");
    vek_handle a = vek_lock_create__(name.c_str(), 1);
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(0, vek_lock_lock__(a, 0, 0));
    vek_lock_unlock(a);
    auto busy = [&] {
        vek_handle c = vek_lock_create__(name.c_str(), 0);
        EXPECT_EQ(VEK_ERR_TIMEOUT, vek_lock_trylock__(c, 0));
        vek_lock_close(c);
    };
    on_thread(busy);
    vek_lock_unlock(a);
    EXPECT_ASSERT("0", vek_lock_unlock(a));  // not held any more
    if (!dead_owners_reported()) {
        vek_lock_close(a);
        GTEST_SKIP() << "no robust futexes here (a user-mode emulator): a thread's death leaves its named lock held";
    }
    on_thread([&] { EXPECT_EQ(0, vek_lock_trylock__(a, 0)); });
    TraceCapture trc;
    EXPECT_EQ(0, vek_lock_trylock__(a, 0));
    EXPECT_TRUE(trc.contains("ABANDONED"));
    on_thread(busy);
    vek_lock_unlock(a);
    on_thread([&] {
        vek_handle c = vek_lock_create__(name.c_str(), 0);
        EXPECT_EQ(0, vek_lock_lock__(c, 0, 0));
        vek_lock_close(a);
        vek_lock_close(c);  // the last handle, still held
    });
    EXPECT_EQ(0, win_mutex_exist__(wp(wide(name))));
    trc.records.clear();
    vek_handle again = vek_lock_create__(name.c_str(), 0);
    EXPECT_EQ(0, vek_lock_trylock__(again, 0));
    EXPECT_FALSE(trc.contains("ABANDONED"));
    vek_lock_unlock(again);
    vek_lock_close(again);
}

// A process that ends holding the only handle leaves no lock behind: the
// next look finds the name free (and clears what the dead process left).
TEST_F(Sync, ANamedLockDiesWithItsLastProcess) {
    std::string name = unique_name("orphan");
    ASSERT_EQ(7, run_child(name));
    EXPECT_EQ(0, win_mutex_exist__(wp(wide(name))));
    TraceCapture trc;
    vek_handle m = vek_lock_create__(name.c_str(), 0);
    EXPECT_EQ(0, vek_lock_trylock__(m, 0));
    EXPECT_FALSE(trc.contains("ABANDONED"));
    vek_lock_unlock(m);
    vek_lock_close(m);
    // A name longer than the system allows for the object keeps its head
    // and a hash of the whole, so two such names stay apart.
    std::string head = unique_name("long");
    head += std::string(254 - head.size(), 'a');  // 255 in all: Windows takes up to 260
    std::string longA = head + "a", longB = head + "b";
    vek_handle a = vek_lock_create__(longA.c_str(), 1);
    vek_handle b = vek_lock_create__(longB.c_str(), 0);
    ASSERT_TRUE(a && b);
    on_thread([&] { EXPECT_EQ(0, vek_lock_trylock__(b, 0)); vek_lock_unlock(b); });
    vek_lock_close(b);
    EXPECT_EQ(0, win_mutex_exist__(wp(wide(longB))));
    EXPECT_EQ(1, win_mutex_exist__(wp(wide(longA))));
    vek_lock_unlock(a);
    vek_lock_close(a);
}

// Waiters in this process: a named lock released here wakes the one
// waiting for it at once; an unnamed lock goes to the first of two waiters
// and the second waits for it in turn; a thread may hold several locks and
// close one it holds.
TEST_F(Sync, LocksHandedOverToWaitersInTurn) {
    std::string name = unique_name("handover");
    vek_handle n = vek_lock_create__(name.c_str(), 1);
    vek_handle u = vek_lock_create__(nullptr, 1);
    vek_handle extra = vek_lock_create__(nullptr, 1);
    std::atomic<int> got{0};
    std::thread t1([&] {
        EXPECT_EQ(0, vek_lock_lock__(n, 10000, 0));
        vek_lock_unlock(n);
        EXPECT_EQ(0, vek_lock_lock__(u, 10000, 0));
        got++;
        vek_lock_unlock(u);
        vek_thrd_end();
    });
    std::thread t2([&] {
        EXPECT_EQ(0, vek_lock_lock__(u, 10000, 0));
        got++;
        vek_lock_unlock(u);
        vek_thrd_end();
    });
    al_sleep(50);
    vek_lock_unlock(n);
    al_sleep(50);
    vek_lock_unlock(u);
    t1.join();
    t2.join();
    EXPECT_EQ(2, got.load());
    vek_lock_close(extra);  // still held: closing it lets it go
    vek_lock_close(u);
    vek_lock_close(n);
    // The wrong kind of handle for the call fails as on Windows.
    vek_handle e = vek_evt_create__(1, 0);
    vek_handle l = vek_lock_create__(nullptr, 0);
    EXPECT_ASSERT("SetEvent(evt)", vek_evt_set(l));
    EXPECT_ASSERT("0", vek_lock_unlock(e));
    vek_lock_close(l);
    vek_evt_close(e);
}

#ifndef _WIN32
// The library's own objects outlive a close that meets a wait: the waiter
// sees its time run out, and the last of them frees the object.
TEST_F(Sync, AHandleClosedDuringAWaitEndsIt) {
    vek_handle e = vek_evt_create__(1, 0);
    std::thread t([&] {
        EXPECT_EQ(VEK_ERR_TIMEOUT, vek_evt_wait__(e, 300, 0));
        vek_thrd_end();
    });
    al_sleep(50);
    vek_evt_close(e);
    t.join();
}
#endif

TEST_F(Sync, ANamedLockHeldByADeadProcessIsAbandoned) {
    if (!dead_owners_reported()) {
        GTEST_SKIP() << "no robust futexes here (a user-mode emulator): a dead process leaves its named lock held";
    }
    std::string name = unique_name("abandon");
    vek_handle m = vek_lock_create__(name.c_str(), 0);
    ASSERT_NE(nullptr, m);
    ASSERT_EQ(7, run_child(name)) << "the child could not take the lock";
    TraceCapture trc;
    EXPECT_EQ(0, vek_lock_slock__(m, 5000, 0));
    EXPECT_TRUE(trc.contains("win_hnd_swait() detect ABANDONED"));
    vek_lock_unlock(m);
    trc.records.clear();
    EXPECT_EQ(0, vek_lock_trylock__(m, 0));
    EXPECT_FALSE(trc.contains("ABANDONED"));
    vek_lock_unlock(m);
    vek_lock_close(m);
    EXPECT_EQ(0, win_mutex_exist__(wp(wide(name))));
}

TEST_F(Sync, KernelObjectNames) {
    struct Case {
        const char* in;
        const char* out;
    };
    const Case cases[] = {
        {"Global\\A:B/C\\D", "Global\\a$b$c$d"},
        {"Local\\X", "Local\\x"},
        {"Global\\", "Global\\"},
        {"C:\\Data\\X.ini", "c$$data$x.ini"},
        {"global\\Y", "global$y"},  // only the exact prefix is kept
        {"Local\\\xc3\x84\xc3\x96-\xd0\x96", "Local\\\xc3\xa4\xc3\xb6-\xd0\xb6"},
        {"", ""},
    };
    for (const Case& c : cases) {
        std::string s = c.in;
        EXPECT_EQ(&s[0], win_kobj_fmt(&s[0]));
        EXPECT_EQ(c.out, s) << c.in;
        std::string m = c.in;
        EXPECT_EQ(c.out, std::string(vek_mutex_fmt(&m[0])));
        std::u16string w = wide(c.in);
        win_kobj_fmtw((vek_wchar*)&w[0]);
        EXPECT_EQ(wide(c.out), w) << c.in;
        std::u16string v = wide(c.in);
        EXPECT_EQ(wide(c.out), std::u16string((char16_t*)vek_mutex_fmtw((vek_wchar*)&v[0])));
    }
    EXPECT_EQ(nullptr, win_kobj_fmt(nullptr));
    char path[4096];
    vek_s32 n = vek_proc_path__(path, sizeof path);
    EXPECT_GT(n, 0);
    EXPECT_NE(nullptr, std::strstr(path, "test_sync"));

    VekStr name;
    VekStr_new(&name);
    EXPECT_STREQ("Global\\filemutex$c$$data$x.ini", vek_file_mutex__(&name, "C:\\Data\\X.ini"));
    EXPECT_STREQ("Global\\procmutex$modem.exe", vek_proc_mutex__(&name, "Modem.EXE"));
    std::string own = std::string("Global\\procmutex$") + path;
    vek_mutex_fmt(&own[0] + 7);  // the executable's own path, formatted
    EXPECT_EQ(own, vek_proc_mutex__(&name, nullptr));
    EXPECT_STREQ("", vek_file_mutex__(&name, ""));
    expect_assert("!str_noo(filePath)");
    EXPECT_STREQ("", vek_file_mutex__(nullptr, "x"));
    expect_assert("mutexName");
    VekStr_delete(&name);
}

// The record's fields in their order; the 32-bit leg has no padding.
static_assert(offsetof(VekSem, lock) == alignof(AlMutex), "header first");
static_assert(offsetof(VekSem, evt) == offsetof(VekSem, lock) + sizeof(AlMutex), "then the lock");
static_assert(offsetof(VekSem, val) > offsetof(VekSem, evt), "then the event");
static_assert(offsetof(VekSem, maxVal) == offsetof(VekSem, val) + 4, "the count, then its bound");
static_assert(sizeof(void*) != 4 || sizeof(VekSem) == 4 + sizeof(AlMutex) + 12, "packed on 32 bits");

TEST_F(Sync, SemaphoresCountWithinTheirBounds) {
    VekSem* s = VekSem_new(nullptr, -1, 0);
    EXPECT_EQ(0x7FFFFFFF, s->maxVal);
    EXPECT_EQ(VEK_SEM_MARK | 0x80000000u, s->hdr);
    EXPECT_EQ(0, VekSem_add(s, 0x7FFFFFFF));
    EXPECT_EQ(VEK_ERR_FULL, VekSem_add(s, 1));  // would pass the bound
    EXPECT_EQ(0x7FFFFFFF, s->val);
    EXPECT_EQ(0x7FFFFFFF, VekSem_reset(s));
    EXPECT_EQ(0, VekSem_test(s));
    EXPECT_ASSERT("count > 0", EXPECT_EQ(VEK_ERR_FULL, VekSem_add(s, 0)));
    VekSem_delete(s);

    VekSem sem;
    EXPECT_EQ(&sem, VekSem_new(&sem, 3, 2));
    EXPECT_EQ(VEK_SEM_MARK, sem.hdr);
    // Units given at creation: a test takes them, a waiting take does not
    // see them before the first add.
    EXPECT_EQ(1, VekSem_test(&sem));
    EXPECT_EQ(VEK_ERR_TIMEOUT, VekSem_swait(&sem, 0, 0));
    EXPECT_EQ(1, VekSem_add(&sem, 2));
    EXPECT_EQ(VEK_ERR_FULL, VekSem_add(&sem, 1));
    EXPECT_EQ(0, VekSem_swait(&sem, 0, 0));
    EXPECT_EQ(0, VekSem_wait(&sem, 0, 0));
    EXPECT_EQ(0, VekSem_mwait(&sem, nullptr, 0, 0));
    EXPECT_EQ(VEK_ERR_TIMEOUT, VekSem_swait(&sem, 0, 0));
    // A pending abort wins over an available unit, unless forbidden.
    VekSem_add(&sem, 1);
    vek_thrd_cancel(al_thrd_id());
    EXPECT_EQ(VEK_ERR_ABORTED, VekSem_swait(&sem, 0, 0));
    EXPECT_EQ(VEK_ERR_ABORTED, VekSem_wait(&sem, 0, 0));
    EXPECT_EQ(0, VekSem_wait(&sem, 0, VEK_WAIT_FORBID_ABORT));
    vek_thrd_abort_clear();
    VekSem_delete(&sem);
    EXPECT_EQ(0u, sem.hdr);

    EXPECT_ASSERT("initVal >= 0 && maxVal != 0", VekSem_init(&sem, 0, 0));
    VekSem_delete(&sem);
    EXPECT_ASSERT("initVal >= 0 && maxVal != 0", VekSem_init(&sem, 5, -2));
    EXPECT_ASSERT("_this->val == 0", EXPECT_EQ(0, VekSem_test(&sem)));
    VekSem_delete(&sem);

    EXPECT_DEATH(
        {
            al_set_fault_hook(nullptr);
            VekSem foreign{};
            VekSem_add(&foreign, 1);
        },
        "");
}

TEST_F(Sync, WaitersShareASemaphoreFairlyEnough) {
    // Four takers, forty units: every unit is taken once, no taker hangs.
    VekSem sem;
    VekSem_init(&sem, 100, 0);
    std::atomic<int> taken{0};
    std::vector<std::thread> takers;
    for (int i = 0; i < 4; i++) {
        takers.emplace_back([&] {
            while (VekSem_swait(&sem, 300, 0) == 0) {
                taken++;
            }
            vek_thrd_end();
        });
    }
    for (int i = 0; i < 40; i++) {
        VekSem_add(&sem, 1);
        if (i % 8 == 0) {
            vek_sleep(2);
        }
    }
    for (auto& t : takers) {
        t.join();
    }
    EXPECT_EQ(40, taken.load());
    EXPECT_EQ(0, sem.val);
    VekSem_delete(&sem);
}

TEST_F(Sync, CyclesOfEveryObjectLeaveNoHandles) {
    auto cycle = [] {
        vek_handle e = vek_evt_create__(0, 0);
        vek_handle m = vek_lock_create__(nullptr, 1);
        vek_handle n = vek_lock_create__(unique_name("cycle").c_str(), 1);
        VekSem* s = VekSem_new(nullptr, 5, 0);
        vek_u32 tid = vek_thrd_create__([](void*) -> vek_u32 { return (vek_u32)vek_ssleep(-1); }, nullptr, 0);
        vek_msg_blk_beg();
        vek_msg_blk_beg();
        vek_msg_blk_end();
        vek_msg_blk_end();
        vek_thrd_wait(tid);
        VekSem_delete(s);
        vek_lock_unlock(n);
        vek_lock_close(n);
        vek_lock_unlock(m);
        vek_lock_close(m);
        vek_evt_close(e);
    };
    cycle();  // first uses may allocate what stays (slots, caches)
    long before = live_handles();
    for (int i = 0; i < 5; i++) {
        cycle();
    }
    EXPECT_EQ(before, live_handles());
}
