/*
 * The heap monitor: block layout, leak counting and reports, corruption
 * reports, statistics; the leak monitor; the process and UI heaps.
 */
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>
#include "VekTest.h"

using vektest::TraceCapture;

namespace {

constexpr size_t kHdr = 2 * sizeof(void*) + 16;  // 24 bytes on 32-bit builds

vek_u32 word_at(const void* p, ptrdiff_t off) {
    vek_u32 v;
    std::memcpy(&v, (const char*)p + off, sizeof v);
    return v;
}

// Released blocks are parked instead of freed, so a second release reads
// memory that is still there (and sanitizers see no use after free).
std::vector<void*> g_parked;
void park_free(void* p) {
    g_parked.push_back(p);
}
void release_parked() {
    for (void* p : g_parked) {
        al_free(p);
    }
    g_parked.clear();
}

struct Monitor {
    IHeapMon* m;
    Monitor(vek_s32 leakLev, vek_s32 crashLev = 0, vek_s32 stat = 0, vek_free_fn freeFn = al_free)
        : m(HeapMon_create("TestHeap", al_malloc, freeFn, al_fault_proc, leakLev, crashLev, stat)) {}
    ~Monitor() { m->vtbl->release(m); }
    void* alloc(size_t n) { return m->vtbl->allocMem(m, n); }
    void free(void* p) { m->vtbl->freeMem(m, p); }
};

bool fault_contains(const std::string& s) {
    for (const auto& f : vektest::take_faults()) {
        if (f.find(s) != std::string::npos) {
            return true;
        }
    }
    return false;
}

} // namespace

using HeapLayout = VekTest;

TEST_F(HeapLayout, HeaderGuardsAndRecordedStack) {
    Monitor mon(1);
    char* p = (char*)mon.alloc(10);
    ASSERT_TRUE(p);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(24u, kHdr);
    }
    vek_u32 raw = word_at(p, -(ptrdiff_t)kHdr + 2 * sizeof(void*));
    vek_u32 req = word_at(p, -(ptrdiff_t)kHdr + 2 * sizeof(void*) + 4);
    EXPECT_EQ(10u, req);
    EXPECT_EQ((raw + req) ^ 0x4B27A696u, word_at(p, -8));
    EXPECT_EQ(0x4B27A696u, word_at(p, -4));
    EXPECT_EQ(0xD3A841BEu, word_at(p, 16));  // behind the caller's 10 bytes rounded to 16
    vek_u32 entries = word_at(p, 20);
    EXPECT_GT(entries, 0u);  // LeakChkLev 1 records the allocating stack
    EXPECT_EQ(16 + kHdr + 8 + entries * sizeof(void*), raw);
    mon.free(p);
}

TEST_F(HeapLayout, NoStackAtLevelZeroAndTheRawSizeRule) {
    Monitor mon(0);
    for (size_t n : {0u, 1u, 8u, 9u, 100u}) {
        char* p = (char*)mon.alloc(n);
        ASSERT_TRUE(p);
        size_t r8 = (n + 7) & ~(size_t)7;
        EXPECT_EQ(0u, word_at(p, (ptrdiff_t)r8 + 4));
        EXPECT_EQ(r8 + kHdr + 8, word_at(p, -(ptrdiff_t)kHdr + 2 * sizeof(void*)));
        EXPECT_EQ(0u, (uintptr_t)p % 8);
        mon.free(p);
    }
}

TEST_F(HeapLayout, LiveBlocksAreLinkedInAllocationOrder) {
    Monitor mon(0);
    char* a = (char*)mon.alloc(4);
    char* b = (char*)mon.alloc(4);
    char* c = (char*)mon.alloc(4);
    auto link = [](char* p, int which) {
        void* v;
        std::memcpy(&v, p - kHdr + which * sizeof(void*), sizeof v);
        return (char*)v;
    };
    EXPECT_EQ(a - kHdr, link(b, 0));  // prev
    EXPECT_EQ(c - kHdr, link(b, 1));  // next
    mon.free(b);                      // unlinked from the middle
    EXPECT_EQ(c - kHdr, link(a, 1));
    EXPECT_EQ(a - kHdr, link(c, 0));
    mon.free(a);
    mon.free(c);
}

using LeakReport = VekTest;

TEST_F(LeakReport, ListsEachLeakWithAddressSizeAndDump) {
    Monitor mon(1);
    char* a = (char*)mon.alloc(10);
    char* b = (char*)mon.alloc(3);
    std::memcpy(a, "ABCDEFGHIJ", 10);
    TraceCapture trc;
    EXPECT_EQ(2, mon.m->vtbl->outLeak(mon.m, 4));
    std::string r = trc.all();
    EXPECT_NE(std::string::npos, r.find("detect 2 mem leaks in TestHeap\n"));
    char line[64];
    vek_snprintf(line, sizeof line, "leak[0]: %p, size=10", (void*)a);
    EXPECT_NE(std::string::npos, r.find(line));
    vek_snprintf(line, sizeof line, "leak[1]: %p, size=3", (void*)b);
    EXPECT_NE(std::string::npos, r.find(line));
    EXPECT_NE(std::string::npos, r.find("41 42 43 44"));   // four bytes dumped
    EXPECT_EQ(std::string::npos, r.find("41 42 43 44 45"));
    EXPECT_NE(std::string::npos, r.find("|ABCD|"));
    mon.free(a);
    mon.free(b);
}

TEST_F(LeakReport, LevelZeroCountsAndPrintsTheNotice) {
    Monitor mon(0);
    void* p = mon.alloc(8);
    TraceCapture trc;
    EXPECT_EQ(1, mon.m->vtbl->outLeak(mon.m, 0));
    EXPECT_TRUE(trc.contains("\n NOTICE, detect 1 mem leaks in TestHeap\n but LeakChkLev cfg in "
                             "\"VekDbg.ini\" is 0\n please set LeakChkLev>0 to dump leak info next time"));
    mon.free(p);
}

TEST_F(LeakReport, BlocksFromBeforeTheApplicationPhaseAreIgnored) {
    Monitor mon(1);
    void* early = mon.alloc(8);
    mon.m->vtbl->appBeg(mon.m);
    void* late = mon.alloc(8);
    TraceCapture trc;
    EXPECT_EQ(1, mon.m->vtbl->outLeak(mon.m, 0));
    EXPECT_TRUE(trc.contains("detect 1 mem leaks in TestHeap"));
    EXPECT_TRUE(trc.contains("detect 1 ignored mem leaks in TestHeap, it's OK"));
    mon.free(early);  // either list gives its blocks back
    mon.free(late);
    TraceCapture none;
    EXPECT_EQ(0, mon.m->vtbl->outLeak(mon.m, 0));
    EXPECT_TRUE(none.records.empty());
}

TEST_F(LeakReport, CloseReportsOnlyWhatWasNotReported) {
    Monitor mon(0);
    void* p = mon.alloc(8);
    TraceCapture trc;
    EXPECT_EQ(1, mon.m->vtbl->close(mon.m, 0));  // no report yet: the final check makes one
    EXPECT_TRUE(trc.contains("detect 1 mem leaks"));
    trc.records.clear();
    EXPECT_EQ(0, mon.m->vtbl->close(mon.m, 0));
    EXPECT_TRUE(trc.records.empty());
    mon.free(p);
}

using HeapFaults = VekTest;

TEST_F(HeapFaults, TailGuardOverrunIsReportedAndTheBlockStillFreed) {
    Monitor mon(0);
    char* p = (char*)mon.alloc(16);
    p[16] = 'X';  // one past the caller's bytes: the tail guard
    EXPECT_EQ(1, mon.m->vtbl->verify(mon.m, 1));
    EXPECT_TRUE(fault_contains("tail guard broken"));
    mon.free(p);
    EXPECT_TRUE(fault_contains("HeapMon::freeMem FAIL, for tail guard broken"));
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(0, st.liveBlocks);
}

TEST_F(HeapFaults, DoubleFreeIsRefused) {
    {
        Monitor mon(0, 0, 0, park_free);
        void* p = mon.alloc(24);
        mon.free(p);
        TraceCapture trc;
        mon.free(p);
        EXPECT_TRUE(trc.contains("HeapMon::freeMem FAIL, for freeNode not in list"));
        EXPECT_TRUE(fault_contains("freeNode not in list"));
        EXPECT_EQ(1u, g_parked.size());  // the second release never reached the allocator
    }
    release_parked();
}

TEST_F(HeapFaults, ForeignPointerIsRefused) {
    Monitor mon(0);
    alignas(8) char stackBuf[64] = {0};
    void* keep = mon.alloc(8);
    mon.free(stackBuf + 32);
    EXPECT_TRUE(fault_contains("freeNode not in list"));
    void* viaMalloc = al_malloc(32);
    mon.free(viaMalloc);
    EXPECT_TRUE(fault_contains("freeNode not in list"));
    EXPECT_EQ(nullptr, mon.m->vtbl->reallocMem(mon.m, stackBuf + 32, 64));  // refused, not copied
    EXPECT_TRUE(fault_contains("freeNode not in list"));
    al_free(viaMalloc);
    mon.free(keep);
    mon.free(nullptr);  // ignored
}

TEST_F(HeapFaults, CrashCheckLevelVerifiesOnEveryAllocation) {
    Monitor mon(0, 1);
    char* p = (char*)mon.alloc(8);
    p[-4] ^= 1;  // head guard
    void* q = mon.alloc(8);
    EXPECT_TRUE(fault_contains("head guard broken"));
    p[-4] ^= 1;
    mon.free(q);
    mon.free(p);
}

// Over the OS allocator released blocks are kept for reuse: a kept block
// must still be refused as a second release, come back with fresh guards
// and a size of its own. Four threads allocating, resizing and freeing at
// once (for a bounded time) must leave the list whole and nothing live.
TEST_F(HeapFaults, KeptBlocksAndFourThreads) {
    Monitor mon(1, 0, 1);
    char* p = (char*)mon.alloc(40);
    mon.free(p);
    mon.free(p);
    EXPECT_TRUE(fault_contains("freeNode not in list"));
    char* q = (char*)mon.alloc(33);  // the same size class
    EXPECT_EQ(33u, word_at(q, -(ptrdiff_t)kHdr + 2 * sizeof(void*) + 4));
    EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 4));
    mon.free(q);
    auto work = [&](unsigned t) {
        unsigned seed = t * 2654435761u + 1;
        std::vector<void*> mine;
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        for (int i = 0; i < 20000 && (i % 256 || std::chrono::steady_clock::now() < until); i++) {
            seed = seed * 1103515245u + 12345u;
            size_t n = 1 + (seed >> 16) % 3000;
            if (mine.size() < 50 && (seed & 0x100)) {
                mine.push_back(mon.alloc(n));
                std::memset(mine.back(), 0x5A, n);
            } else if (!mine.empty() && (seed & 0x200)) {
                void*& r = mine[(seed >> 10) % mine.size()];
                r = mon.m->vtbl->reallocMem(mon.m, r, n);
            } else if (!mine.empty()) {
                mon.free(mine.back());
                mine.pop_back();
            }
        }
        for (void* b : mine) {
            mon.free(b);
        }
    };
    std::vector<std::thread> ts;
    for (unsigned t = 0; t < 4; t++) {
        ts.emplace_back(work, t);
    }
    for (auto& t : ts) {
        t.join();
    }
    EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 4));
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(0, st.liveBlocks);
    EXPECT_EQ(0, st.liveBytes);
    EXPECT_EQ(0, st.liveRaw);
}

using HeapThreads = VekTest;

// Producers allocate and hand their blocks to consumers on other threads,
// while the main thread verifies the heap and reads the statistics; each
// producer keeps three blocks and ends. The report must count exactly the
// kept blocks, and the main thread must then free them (their threads are
// gone) down to nothing.
TEST_F(HeapThreads, CrossThreadFreesWalkersAndEndedThreads) {
    Monitor mon(1, 0, 1);
    constexpr int kProducers = 3, kEach = 3000;
    std::mutex lock;
    std::vector<char*> handed;
    std::atomic<int> running{kProducers};
    std::vector<std::vector<char*>> kept(kProducers);
    std::vector<std::thread> ts;
    for (int t = 0; t < kProducers; t++) {
        ts.emplace_back([&, t] {
            for (int i = 0; i < kEach; i++) {
                size_t n = 1 + (size_t)(i * 37 + t) % 1500;
                char* p = (char*)mon.alloc(n);
                std::memset(p, 'a' + t, n);
                if (i % 1000 == 0) {
                    kept[t].push_back(p);
                } else {
                    std::lock_guard<std::mutex> g(lock);
                    handed.push_back(p);
                }
            }
            running--;
        });
    }
    for (int c = 0; c < 2; c++) {
        ts.emplace_back([&] {
            for (;;) {
                char* p = nullptr;
                {
                    std::lock_guard<std::mutex> g(lock);
                    if (!handed.empty()) {
                        p = handed.back();
                        handed.pop_back();
                    }
                }
                if (p) {
                    mon.free(p);
                } else if (running == 0) {
                    return;
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    VekHeapStat st;
    while (running > 0) {
        EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 4));
        ASSERT_EQ(0, mon.m->vtbl->getStat(mon.m, &st));
        EXPECT_GE(st.liveBlocks, 0);
    }
    for (auto& t : ts) {
        t.join();
    }
    ASSERT_EQ(0, mon.m->vtbl->getStat(mon.m, &st));
    EXPECT_EQ(3 * kProducers, st.liveBlocks);
    EXPECT_EQ((vek_u64)(kProducers * kEach), st.allocCount);
    {
        TraceCapture trc;
        EXPECT_EQ(3 * kProducers, mon.m->vtbl->outLeak(mon.m, 0));
        EXPECT_TRUE(trc.contains("detect 9 mem leaks in TestHeap\n"));
        for (auto& k : kept) {
            char line[40];
            vek_snprintf(line, sizeof line, ": %p, size=", (void*)k[1]);
            EXPECT_TRUE(trc.contains(line)) << line;
        }
    }
    for (auto& k : kept) {
        for (char* p : k) {
            mon.free(p);
        }
    }
    ASSERT_EQ(0, mon.m->vtbl->getStat(mon.m, &st));
    EXPECT_EQ(0, st.liveBlocks);
    EXPECT_EQ(0, st.liveBytes);
    EXPECT_EQ(0, st.liveRaw);
    EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 4));
}

// A thread that ends leaves its shard to the next thread, which goes on
// linking after the blocks it finds there.
TEST_F(HeapThreads, AnEndedThreadsShardIsAdopted) {
    Monitor mon(0);
    char* a = nullptr;
    char* b = nullptr;
    std::thread([&] {
        a = (char*)mon.alloc(8);
        b = (char*)mon.alloc(8);
        mon.free(mon.alloc(8));
    }).join();
    char* c = nullptr;
    std::thread([&] {
        c = (char*)mon.alloc(8);
        mon.free(a);  // the head of the adopted list, now its own
    }).join();
    void* prev;
    std::memcpy(&prev, c - kHdr, sizeof prev);
    EXPECT_EQ((void*)(b - kHdr), prev);
    mon.free(b);
    mon.free(c);
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(0, st.liveBlocks);
}

// The proof of ownership holds across threads and monitors: a block of
// another monitor, a second free from yet another thread, a damaged block
// freed by a thread that does not own it.
TEST_F(HeapThreads, ForeignRepeatedAndDamagedFreesAcrossThreads) {
    Monitor mon(0, 0, 1);
    Monitor other(0);
    void* own = mon.alloc(16);  // both monitors now have a shard of this thread
    void* p = other.alloc(16);
    mon.free(p);
    EXPECT_TRUE(fault_contains("freeNode not in list"));
    other.free(p);
    mon.free(own);

    char* q = (char*)mon.alloc(40);
    std::memcpy(q, "kept", 5);
    std::thread([&] {
        char* r = (char*)mon.m->vtbl->reallocMem(mon.m, q, 4000);  // not this thread's block
        EXPECT_STREQ("kept", r);
        q = r;
    }).join();
    std::thread([&] { mon.free(q); }).join();
    std::thread([&] { mon.free(q); }).join();
    EXPECT_TRUE(fault_contains("freeNode not in list"));

    char* before = (char*)mon.alloc(8);
    char* d = (char*)mon.alloc(24);
    char* after = (char*)mon.alloc(8);
    d[24] = 'X';
    std::thread([&] { mon.free(d); }).join();  // found through its neighbours
    EXPECT_TRUE(fault_contains("tail guard broken"));
    EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 2));
    mon.free(before);
    mon.free(after);
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(0, st.liveBlocks);
    EXPECT_EQ(0, st.liveBytes);
}

// A peak is the most the threads held together: neither the largest
// shard's peak nor the sum of the shards' peaks.
TEST_F(HeapThreads, PeaksAddUpAllThreadsAtOnce) {
    Monitor mon(0, 0, 1);
    std::vector<void*> mine, theirs;
    for (int i = 0; i < 10; i++) {
        mine.push_back(mon.alloc(100));
    }
    std::thread([&] {
        for (int i = 0; i < 5; i++) {
            theirs.push_back(mon.alloc(50));
        }
    }).join();
    for (void* p : mine) {
        mon.free(p);
    }
    for (void* p : theirs) {
        mon.free(p);
    }
    mine.clear();
    for (int i = 0; i < 12; i++) {
        mine.push_back(mon.alloc(100));
    }
    for (void* p : mine) {
        mon.free(p);
    }
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(27u, st.allocCount);
    EXPECT_EQ(15, st.peakBlocks);
    EXPECT_EQ(1250, st.peakBytes);
    EXPECT_EQ(0, st.liveBlocks);
}

// A thread whose shard cannot be made (the injected failure meets it)
// still allocates, from the shared list, and its blocks free from any
// thread.
TEST_F(HeapThreads, ANewThreadWithoutMemoryForItsShard) {
    Monitor mon(0);
    void* a = nullptr;
    void* b = nullptr;
    std::thread([&] {
        vek_heap_fail_at__(1);
        a = mon.alloc(32);
        EXPECT_EQ(1, vek_heap_fail_at__(0));
        b = mon.alloc(32);
        mon.free(a);
    }).join();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 4));
    mon.free(b);
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(0, st.liveBlocks);
}

using HeapStats = VekTest;

TEST_F(HeapStats, CountsBytesAndPeaks) {
    Monitor mon(0, 0, 1);
    void* a = mon.alloc(100);
    void* b = mon.alloc(50);
    mon.free(a);
    VekHeapStat st;
    ASSERT_EQ(0, mon.m->vtbl->getStat(mon.m, &st));
    EXPECT_EQ(2u, st.allocCount);
    EXPECT_EQ(1, st.liveBlocks);
    EXPECT_EQ(50, st.liveBytes);
    EXPECT_EQ(2, st.peakBlocks);
    EXPECT_EQ(150, st.peakBytes);
    EXPECT_GT(st.peakRaw, st.peakBytes);
    mon.free(b);
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(0, st.liveBytes);
    EXPECT_EQ(0, st.liveRaw);
}

TEST_F(HeapStats, ReallocKeepsTheBytes) {
    Monitor mon(0);
    char* p = (char*)mon.m->vtbl->reallocMem(mon.m, nullptr, 4);
    std::memcpy(p, "abc", 4);
    p = (char*)mon.m->vtbl->reallocMem(mon.m, p, 1000);
    EXPECT_STREQ("abc", p);
    EXPECT_EQ(nullptr, mon.m->vtbl->reallocMem(mon.m, p, 0));
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(0, st.liveBlocks);
}

TEST_F(HeapStats, ResizeInPlaceKeepsLinksStackAndGuards) {
    Monitor mon(1, 0, 1);  // over al_malloc/al_free: resized with al_realloc
    char* a = (char*)mon.alloc(8);
    char* b = (char*)mon.alloc(8);
    char* c = (char*)mon.alloc(8);
    std::memcpy(b, "12345678", 8);
    vek_u32 entries = word_at(b, 12);
    for (size_t n : {100u, 5000u, 300000u, 40u}) {
        b = (char*)mon.m->vtbl->reallocMem(mon.m, b, n);
        ASSERT_TRUE(b);
        EXPECT_EQ(0, std::memcmp(b, "12345678", 8));
        size_t r8 = (n + 7) & ~(size_t)7;
        EXPECT_EQ(0xD3A841BEu, word_at(b, (ptrdiff_t)r8));
        EXPECT_EQ(entries, word_at(b, (ptrdiff_t)r8 + 4));
        EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 2));  // neighbours point at the moved block
    }
    VekHeapStat st;
    mon.m->vtbl->getStat(mon.m, &st);
    EXPECT_EQ(56, st.liveBytes);
    mon.free(a);
    mon.free(b);
    mon.free(c);
    EXPECT_EQ(0, mon.m->vtbl->verify(mon.m, 2));
}

TEST_F(HeapStats, InterfaceIdentity) {
    Monitor mon(0);
    const VekGuid iid = VEK_IID_IHEAPMON_INIT;
    const VekGuid unk = VEK_IID_IUNKNOWN_INIT;
    const VekGuid other = VEK_IID_ISTRM_INIT;
    void* out = nullptr;
    EXPECT_EQ(0, mon.m->vtbl->queryItf(mon.m, &iid, &out));
    EXPECT_EQ((void*)mon.m, out);
    EXPECT_EQ(0, mon.m->vtbl->queryItf(mon.m, &unk, &out));
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, mon.m->vtbl->queryItf(mon.m, &other, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(2, mon.m->vtbl->release(mon.m));
    EXPECT_EQ(1, mon.m->vtbl->release(mon.m));
}

using LeakMonitor = VekTest;

TEST_F(LeakMonitor, RecordsListsAndIgnoresOlderIds) {
    ILeakMon* lm = LeakMon_create("Comp", 1);
    int x, y, z;
    EXPECT_EQ(1, lm->vtbl->addMem(lm, &x, 4));
    EXPECT_EQ(2, lm->vtbl->addMem(lm, &y, 8));
    EXPECT_EQ(3, lm->vtbl->addMem(lm, &z, 12));
    EXPECT_EQ(0, lm->vtbl->delMem(lm, &y));
    TraceCapture trc;
    EXPECT_EQ(VEK_ERR_NOT_FOUND, lm->vtbl->delMem(lm, &y));
    EXPECT_TRUE(trc.contains("LeakMon::delMem(0x"));
    EXPECT_TRUE(trc.contains("), but not found"));
    EXPECT_EQ(2, lm->vtbl->count(lm));
    trc.records.clear();
    EXPECT_EQ(1, lm->vtbl->outLeak(lm, 2));  // id 1 is older than minId: ignored
    EXPECT_TRUE(trc.contains("outLeak, minId=2, validIdMin=1\n"));
    EXPECT_TRUE(trc.contains("LeakMon detect 1 mem leaks\n"));
    EXPECT_TRUE(trc.contains("size=12, id=3"));
    EXPECT_TRUE(trc.contains("detect 1 ignored mem leaks, it's OK\n"));
    EXPECT_EQ(0, lm->vtbl->release(lm));
}

TEST_F(LeakMonitor, LevelZeroOnlyCounts) {
    ILeakMon* lm = LeakMon_create("Comp", 0);
    int x;
    lm->vtbl->addMem(lm, &x, 4);
    lm->vtbl->addMem(lm, &x, 4);
    EXPECT_EQ(0, lm->vtbl->delMem(lm, &x));
    TraceCapture trc;
    EXPECT_EQ(1, lm->vtbl->outLeak(lm, 0));
    EXPECT_TRUE(trc.contains("\n\t NOTE: LeakMon detect 1 mem leaks\n\t but LeakChkLev cfg in \"VekDbg.ini\" is 0"));
    lm->vtbl->release(lm);
}

using ProcessHeap = VekTest;

TEST_F(ProcessHeap, EntryPointsForwardToTheMonitor) {
    VekHeapStat before, during;
    ASSERT_EQ(0, vek_heap_stat(&before));
    void* p = vek_malloc__(64);
    ASSERT_TRUE(p);
    vek_heap_stat(&during);
    EXPECT_EQ(before.liveBlocks + 1, during.liveBlocks);
    EXPECT_EQ(p, vek_set_mpos__(p));
    EXPECT_EQ(0, vek_heap_chk__());
    EXPECT_EQ(0, vek_leak_chking());  // no "VekDbg.ini" beside the test
    vek_free_func()(p);
    EXPECT_EQ((void*)vek_malloc__, (void*)vek_malloc_func());
    vek_free__(nullptr);
    std::thread([] {  // a thread's first heap: its short path, with a kept block at hand
        vek_free__(vek_malloc__(8));
        EXPECT_EQ(nullptr, vek_malloc__((size_t)-1));
    }).join();
}

TEST_F(ProcessHeap, UiHeapIsSeparate) {
    VekHeapStat before, after;
    vek_heap_stat(&before);
    char* p = (char*)ui_malloc(10);
    std::memcpy(p, "0123456789", 10);
    p = (char*)ui_realloc(p, 20);
    EXPECT_EQ(0, std::memcmp(p, "0123456789", 10));
    vek_heap_stat(&after);
    EXPECT_EQ(before.liveBlocks, after.liveBlocks);
    EXPECT_EQ(0, ui_heap_chk__());
    ui_free(p);
    EXPECT_EQ(vek_leak_chking(), ui_leak_chking());
}

TEST_F(ProcessHeap, SynchronousBlockingIsAllowedOffUiThreads) {
    EXPECT_EQ(1, vek_sblk_verify__(__FILE__, __LINE__));
}
