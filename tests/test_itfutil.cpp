/*
 * Interface collections: the references a collection and its enumerators
 * hold (counted on real memory streams), the view an enumerator keeps
 * while the collection changes or goes, releases that call back into the
 * collection, and changes from several threads under enumeration.
 */
#include <atomic>
#include <string>
#include <thread>
#include <vector>
#include "StrmTest.h"

namespace {

vek_s32 refs(IStrm* s) {  // the count, read as addRef's result
    vek_s32 n = IStrm_addRef(s) - 1;
    IStrm_release(s);
    return n;
}

IStrm* new_strm() {
    return MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
}

std::vector<void*> drain(IVekEnum* e) {
    std::vector<void*> out;
    for (void* p; IVekEnum_next(e, &p);) {
        out.push_back(p);
    }
    return out;
}

// An object whose last release deletes another element from the
// collection that held it, as a listener that unregisters its partner.
struct Partner {
    const IVekItfVtbl* vtbl = &kVtbl;
    int ref = 1;
    ItfVol* vol = nullptr;
    void* partner = nullptr;
    bool* gone = nullptr;
    static vek_s32 add_ref(IVekItf* i) { return ++((Partner*)i)->ref; }
    static vek_s32 release(IVekItf* i) {
        Partner* p = (Partner*)i;
        if (--p->ref == 0) {
            *p->gone = true;
            if (p->partner) {
                ItfVol_del(p->vol, p->partner);
            }
        }
        return p->ref;
    }
    static constexpr IVekItfVtbl kVtbl = {
        [](IVekItf*, const VekGuid*, void**) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        add_ref, release};
};

} // namespace

using ItfCollection = VekTest;

TEST_F(ItfCollection, HoldsOneReferenceOnEach) {
    ItfVol vol;
    ItfVol_new(&vol);
    IStrm* a = new_strm();
    IStrm* b = new_strm();
    EXPECT_EQ(0, ItfVol_add(&vol, a));
    EXPECT_EQ(1, ItfVol_add(&vol, b));
    EXPECT_EQ(2, ItfVol_add(&vol, a));  // twice is allowed
    EXPECT_EQ(1, ItfVol_uadd(&vol, b));
    EXPECT_EQ(3, refs(a));
    EXPECT_EQ(2, refs(b));
    IStrm* got = (IStrm*)ItfVol_get(&vol, 1);
    EXPECT_EQ(b, got);
    EXPECT_EQ(3, refs(b));
    IStrm_release(got);
    EXPECT_EQ(nullptr, ItfVol_get(&vol, 3));
    EXPECT_EQ(0, ItfVol_del(&vol, a));  // the first occurrence
    EXPECT_EQ(b, ItfVol_get(&vol, 0));
    IStrm_release(b);
    EXPECT_EQ(1, ItfVol_find(&vol, a));
    EXPECT_EQ(2, refs(a));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, ItfVol_delAt(&vol, 2));
    EXPECT_EQ(0, ItfVol_delAt(&vol, 1));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, ItfVol_del(&vol, a));
    EXPECT_ASSERT("itf", EXPECT_EQ(VEK_ERR_BAD_ARG, ItfVol_add(&vol, nullptr)));
    ItfVol_add(&vol, a);
    ItfVol_clear(&vol);
    EXPECT_EQ(1, refs(a));
    EXPECT_EQ(1, refs(b));
    ItfVol_add(&vol, b);
    ItfVol_delete(&vol);
    EXPECT_EQ(1, refs(b));
    IStrm_release(a);
    IStrm_release(b);
}

TEST_F(ItfCollection, EnumeratorsKeepTheViewTheyStartedWith) {
    ItfVol* vol = ItfVol_new(nullptr);
    IStrm* s[4];
    for (IStrm*& x : s) {
        x = new_strm();
        ItfVol_add(vol, x);
        IStrm_release(x);  // the collection holds the only reference
    }
    IVekEnum* e = ItfEnum_xcreate__(nullptr, vol, __FILE__, __LINE__);
    void* first = nullptr;
    ASSERT_EQ(1, IVekEnum_next(e, &first));
    EXPECT_EQ(s[0], first);
    ItfVol_delAt(vol, 1);  // changes after the enumerator was made
    ItfVol_delAt(vol, 0);
    IStrm* late = new_strm();
    ItfVol_add(vol, late);
    EXPECT_EQ(1, refs(s[1]));  // alive through the enumerator's view only
    IVekEnum* c = nullptr;
    ASSERT_EQ(0, IVekEnum_clone(e, &c));
    EXPECT_EQ((std::vector<void*>{s[1], s[2], s[3]}), drain(e));
    void* end = s[0];
    EXPECT_EQ(0, IVekEnum_next(e, &end));
    EXPECT_EQ(nullptr, end);
    EXPECT_EQ((std::vector<void*>{s[1], s[2], s[3]}), drain(c));
    EXPECT_EQ(0, IVekEnum_reset(e));
    EXPECT_EQ(4u, drain(e).size());

    IVekEnum* now = ItfEnum_xcreate__(nullptr, vol, __FILE__, __LINE__);
    EXPECT_EQ((std::vector<void*>{s[2], s[3], late}), drain(now));
    IVekEnum_release(now);
    ItfVol_delete(vol);  // the views outlive the collection
    EXPECT_EQ(0, IVekEnum_reset(c));
    EXPECT_EQ(4u, drain(c).size());
    IVekEnum_release(c);
    IVekEnum_release(e);  // the last view goes: s[0..3] are freed (the leak check sees it)
    IStrm_release(late);
}

TEST_F(ItfCollection, AReleaseMayCallBackIntoTheCollection) {
    ItfVol vol;
    ItfVol_new(&vol);
    bool goneA = false, goneB = false;
    Partner a, b;
    a.gone = &goneA;
    b.gone = &goneB;
    a.vol = &vol;
    a.partner = &b;
    ItfVol_add(&vol, &a);
    ItfVol_add(&vol, &b);
    Partner::release((IVekItf*)&a);
    Partner::release((IVekItf*)&b);
    EXPECT_EQ(0, ItfVol_del(&vol, &a));  // a's last release removes b
    EXPECT_TRUE(goneA);
    EXPECT_TRUE(goneB);
    EXPECT_EQ(0, ItfVol_count(&vol));
    ItfVol_delete(&vol);
}

TEST_F(ItfCollection, ChangesFromSeveralThreadsUnderEnumeration) {
    ItfVol* vol = ItfVol_new(nullptr);
    IStrm* pool[8];
    for (IStrm*& x : pool) {
        x = new_strm();
    }
    std::atomic<bool> stop{false};
    std::atomic<int> dead{0};
    std::atomic<bool> reading{false};
    std::vector<std::thread> writers;
    for (int w = 0; w < 2; w++) {
        writers.emplace_back([&, w] {
            while (!reading) {
                std::this_thread::yield();
            }
            for (int i = 0; i < 1000; i++) {
                IStrm* x = pool[w * 4 + i % 4];  // each writer its own elements
                ItfVol_add(vol, x);
                ItfVol_add(vol, x);
                ItfVol_del(vol, x);
            }
        });
    }
    std::thread reader([&] {
        reading = true;
        while (!stop) {
            IVekEnum* e = ItfEnum_xcreate__(nullptr, vol, __FILE__, __LINE__);
            for (void* p; IVekEnum_next(e, &p);) {
                dead += std::string("MemStrm") != IStrm_className((IStrm*)p);  // alive while seen
            }
            IVekEnum_release(e);
        }
    });
    for (auto& t : writers) {
        t.join();
    }
    stop = true;
    reader.join();
    EXPECT_EQ(0, dead);
    EXPECT_EQ(2000, ItfVol_count(vol));
    vek_s32 held = 0;
    for (IStrm* x : pool) {
        held += refs(x) - 1;
    }
    EXPECT_EQ(2000, held);
    ItfVol_delete(vol);
    for (IStrm* x : pool) {
        EXPECT_EQ(1, refs(x));
        IStrm_release(x);
    }
}
