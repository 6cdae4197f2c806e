/*
 * VekList (both kinds, with the invariants walked after every operation),
 * the list enumerator and SmpList.
 */
#include <cstring>
#include <string>
#include "ObjModel.h"
#include "VekTest.h"

namespace {

struct Rec {
    VekListNode link;
    int id;
};

// Walks the list checking every invariant; the ids from the front.
std::string walk(VekList* l) {
    std::string ids;
    VekListNode* prev = nullptr;
    vek_s32 n = 0;
    for (VekListNode* p = l->hdr; p && n <= l->len; prev = p, p = p->next, n++) {
        EXPECT_EQ(l, p->list);
        if (l->type == LIST_TWO_WAY) {
            EXPECT_EQ(prev, p->prev);
        }
        ids += std::to_string(((Rec*)p)->id);
    }
    EXPECT_EQ(prev, l->tail);
    EXPECT_EQ(n, l->len);
    return ids;
}

bool unlinked(const Rec& r) {
    return !r.link.next && !r.link.prev && !r.link.list;
}

vek_s32 match_id(void* node, const void* key) {
    return ((Rec*)node)->id == *(const int*)key;
}

std::string g_visited;
int g_deleted;

ptrdiff_t count_delete(void* node) {
    g_visited += std::to_string(((Rec*)node)->id);
    g_deleted++;
    return 77;
}

vek_s32 visit(void* node) {
    int id = ((Rec*)node)->id;
    g_visited += std::to_string(id);
    return id == 2 ? -1 : id;
}

class ListTest : public VekTest, public ::testing::WithParamInterface<vek_u32> {
  protected:
    void SetUp() override {
        VekTest::SetUp();
        std::memset(recs_, 0xCD, sizeof recs_);  // links start as garbage, as in real records
        for (int i = 0; i < 10; i++) {
            recs_[i].id = i;
        }
        VekList_init(&list_, GetParam());
        g_visited.clear();
        g_deleted = 0;
    }
    void fill(const char* ids) {
        for (const char* p = ids; *p; p++) {
            VekList_addTail__(&list_, &recs_[*p - '0']);
        }
    }
    VekList list_;
    Rec recs_[10];
};

} // namespace

TEST_P(ListTest, InsertionsEverywhere) {
    VekList_addTail__(&list_, &recs_[1]);
    EXPECT_EQ("1", walk(&list_));
    EXPECT_EQ(&list_, VekList_addTail__(&list_, &recs_[2]));
    EXPECT_EQ(&list_, VekList_addHdr__(&list_, &recs_[0]));
    EXPECT_EQ("012", walk(&list_));
    EXPECT_EQ(1, VekList_addAnyNext__(&list_, &recs_[5], &recs_[1]));
    EXPECT_EQ("0152", walk(&list_));
    EXPECT_EQ(1, VekList_addAnyNext__(&list_, &recs_[6], &recs_[2]));  // behind the tail
    EXPECT_EQ("01526", walk(&list_));
    EXPECT_EQ(1, VekList_addAnyLast__(&list_, &recs_[7], &recs_[0]));  // in front of the head
    EXPECT_EQ("701526", walk(&list_));
    EXPECT_EQ(1, VekList_addAnyLast__(&list_, &recs_[8], &recs_[2]));
    EXPECT_EQ("7015826", walk(&list_));

    // A reference node of another list is refused and nothing changes.
    VekList other;
    VekList_init(&other, GetParam());
    VekList_addTail__(&other, &recs_[9]);
    recs_[3].link = VekListNode{};
    EXPECT_EQ(0, VekList_addAnyNext__(&list_, &recs_[3], &recs_[9]));
    EXPECT_EQ(0, VekList_addAnyLast__(&list_, &recs_[3], &recs_[9]));
    EXPECT_EQ("7015826", walk(&list_));
    EXPECT_EQ("9", walk(&other));
    EXPECT_TRUE(unlinked(recs_[3]));

    EXPECT_ASSERT("_this && node", VekList_addHdr__(&list_, nullptr));
    EXPECT_ASSERT("_this && node && ref_node", EXPECT_EQ(0, VekList_addAnyNext__(&list_, &recs_[3], nullptr)));
    EXPECT_EQ("7015826", walk(&list_));
}

TEST_P(ListTest, RemovalsResetTheNode) {
    fill("01234");
    EXPECT_EQ(&recs_[0], VekList_getHdr(&list_));
    EXPECT_TRUE(unlinked(recs_[0]));
    EXPECT_EQ("1234", walk(&list_));
    EXPECT_EQ(&recs_[4], VekList_getTail(&list_));
    EXPECT_TRUE(unlinked(recs_[4]));
    EXPECT_EQ("123", walk(&list_));
    EXPECT_EQ(&recs_[2], VekList_getAny__(&list_, &recs_[2]));
    EXPECT_EQ(nullptr, VekList_getAny__(&list_, &recs_[2]));
    EXPECT_EQ("13", walk(&list_));
    EXPECT_EQ((ptrdiff_t)&recs_[1], VekList_delHdr(&list_, nullptr));
    EXPECT_EQ(77, VekList_delTail(&list_, count_delete));  // the last node: the list empties
    EXPECT_EQ("", walk(&list_));
    EXPECT_EQ(nullptr, VekList_getHdr(&list_));
    EXPECT_EQ(nullptr, VekList_getTail(&list_));
    EXPECT_EQ(0, VekList_delTail(&list_, count_delete));
    int key = 3;
    EXPECT_EQ(nullptr, VekList_findOut(&list_, &key, match_id));
    fill("56789");
    EXPECT_EQ(77, VekList_delAny__(&list_, &recs_[7], count_delete));
    EXPECT_EQ(0, VekList_delAll(&list_, count_delete));
    EXPECT_EQ("", walk(&list_));
    EXPECT_EQ("375689", g_visited);
}

TEST_P(ListTest, FindAndLoop) {
    fill("012345");
    int key = 3;
    EXPECT_EQ(&recs_[3], VekList_findOnly(&list_, &key, match_id));
    EXPECT_EQ("012345", walk(&list_));
    EXPECT_EQ(&recs_[3], VekList_findOut(&list_, &key, match_id));
    EXPECT_TRUE(unlinked(recs_[3]));
    EXPECT_EQ("01245", walk(&list_));
    key = 5;
    EXPECT_EQ(1, VekList_findDel(&list_, &key, match_id, count_delete));
    EXPECT_EQ(0, VekList_findDel(&list_, &key, match_id, count_delete));
    EXPECT_EQ(1, g_deleted);
    EXPECT_EQ("0124", walk(&list_));
    EXPECT_ASSERT("matchFunc", EXPECT_EQ(nullptr, VekList_findOnly(&list_, &key, nullptr)));

    g_visited.clear();
    EXPECT_EQ(-1, VekList_loopProc(&list_, visit, 1));  // stops at the first negative result
    EXPECT_EQ("012", g_visited);
    g_visited.clear();
    EXPECT_EQ(0, VekList_loopProc(&list_, visit, 0));
    EXPECT_EQ("0124", g_visited);
    if (GetParam() == LIST_TWO_WAY) {
        g_visited.clear();
        EXPECT_EQ(-1, VekList_rloopProc(&list_, visit, 1));
        EXPECT_EQ("42", g_visited);
    }
    // A callback may take its own node out of the list.
    static VekList* s_list;
    s_list = &list_;
    EXPECT_EQ(0, VekList_loopProc(&list_, [](void* n) { return VekList_getAny__(s_list, n) ? 0 : -1; }, 1));
    EXPECT_EQ("", walk(&list_));
    EXPECT_ASSERT("procFunc", EXPECT_EQ(0, VekList_loopProc(&list_, nullptr, 1)));
}

INSTANTIATE_TEST_SUITE_P(BothKinds, ListTest, ::testing::Values(LIST_ONE_WAY, LIST_TWO_WAY),
                         [](const auto& info) { return info.param == LIST_ONE_WAY ? "OneWay" : "TwoWay"; });

using ListChecks = VekTest;

TEST_F(ListChecks, BrokenEndsRaiseTheInvariantAssertions) {
    VekList l;
    EXPECT_ASSERT("type == LIST_ONE_WAY || type == LIST_TWO_WAY", VekList_init(&l, 7));
    VekList_init(&l, LIST_ONE_WAY);
    l.len = 3;  // ends empty, count not
    EXPECT_ASSERT("!_this->tail && _this->len == 0", EXPECT_EQ(nullptr, VekList_getHdr(&l)));
    Rec a{}, b{};
    VekList_init(&l, LIST_TWO_WAY);
    VekList_addTail__(&l, &a);
    l.tail = nullptr;  // head set, tail lost
    EXPECT_ASSERT("_this->tail && _this->len > 0", VekList_getHdr(&l));
    VekList_init(&l, LIST_ONE_WAY);
    l.hdr = &a.link;
    EXPECT_ASSERT("!_this->hdr && _this->len == 0", VekList_addTail__(&l, &b));
}

TEST_F(ListChecks, EnumeratorWalksResetsClonesAndReleases) {
    Rec r[3] = {};
    VekList l;
    VekList_init(&l, LIST_ONE_WAY);
    for (Rec& x : r) {
        VekList_addTail__(&l, &x);
    }
    IVekEnum* en = VekList_enums(&l);
    ASSERT_NE(nullptr, en);
    vek::ObjHdr* h = vek::obj_hdr(en);
    EXPECT_EQ(0x15ED92B3u, h->cls & VEK_CLS_MASK);
    EXPECT_EQ(1, h->ref);
    void* node = nullptr;
    EXPECT_EQ(1, en->vtbl->next(en, &node));
    EXPECT_EQ(&r[0], node);
    IVekEnum* copy = nullptr;
    EXPECT_EQ(0, en->vtbl->clone(en, &copy));
    EXPECT_EQ(1, vek::obj_hdr(copy)->ref);
    EXPECT_EQ(1, en->vtbl->next(en, &node));
    EXPECT_EQ(1, en->vtbl->next(en, &node));
    EXPECT_EQ(&r[2], node);
    EXPECT_EQ(0, en->vtbl->next(en, &node));
    EXPECT_EQ(nullptr, node);
    EXPECT_EQ(1, copy->vtbl->next(copy, &node));  // its own cursor, where the original was
    EXPECT_EQ(&r[1], node);
    EXPECT_EQ(0, en->vtbl->reset(en));
    EXPECT_EQ(1, en->vtbl->next(en, &node));
    EXPECT_EQ(&r[0], node);

    const VekGuid iid = VEK_IID_IVEKENUM_INIT;
    void* same = nullptr;
    EXPECT_EQ(0, en->vtbl->queryItf(en, &iid, &same));
    EXPECT_EQ((void*)en, same);
    EXPECT_EQ(1, en->vtbl->release(en));
    {
        vektest::TraceCapture trc;
        EXPECT_EQ(0, copy->vtbl->release(copy));
        EXPECT_TRUE(trc.contains("ListEnum_delete() called"));
    }
    EXPECT_EQ(0, en->vtbl->release(en));
    EXPECT_ASSERT("__list", EXPECT_EQ(nullptr, VekList_enums(nullptr)));
    EXPECT_DEATH(
        {
            al_set_fault_hook(nullptr);
            IVekEnum* e = VekList_enums(&l);
            vek::obj_hdr(e)->cls ^= 1;
            e->vtbl->reset(e);
        },
        "obj crash");
}

namespace {

struct SRec {
    SmpListNode node;
    int id;
};

std::string chain_ids(void* first) {
    std::string ids;
    for (SmpListNode* p = (SmpListNode*)first; p; p = p->next) {
        ids += std::to_string(((SRec*)p)->id);
    }
    return ids;
}

} // namespace

TEST_F(ListChecks, SimpleChains) {
    SRec r[4] = {};
    for (int i = 0; i < 4; i++) {
        r[i].id = i;
    }
    SmpList l;
    std::memset(&l, 0xCD, sizeof l);
    EXPECT_EQ(&l, SmpList_init(&l));
    EXPECT_TRUE(!l.rsv && !l.hdr && !l.tail && !l.len);
    SmpList_addTail(&l, &r[1]);
    SmpList_addTail(&l, &r[2]);
    SmpList_addHdr(&l, &r[0]);
    EXPECT_EQ("012", chain_ids(l.hdr));
    EXPECT_EQ(&r[2].node, l.tail);
    EXPECT_EQ(3, l.len);
    EXPECT_EQ(3, SmpList_size(l.hdr));
    EXPECT_EQ(2, SmpList_exec(l.hdr, [](void* n) { return (vek_s32)((SRec*)n)->id; }));

    void* copy = SmpList_clone(l.hdr, [](void* n) -> void* {
        SRec* c = (SRec*)vek_malloc__(sizeof(SRec));
        *c = *(SRec*)n;
        return c;
    });
    EXPECT_EQ("012", chain_ids(copy));
    EXPECT_NE((void*)&r[0], copy);
    EXPECT_EQ(&r[2].node, SmpList_merge(l.hdr, &r[3]));  // the last node of the first chain
    EXPECT_EQ("0123", chain_ids(l.hdr));
    SmpList_delete(copy, [](void* n) { vek_free__(n); });
    SmpList_delete(l.hdr, nullptr);
    EXPECT_EQ(nullptr, r[0].node.next);
    EXPECT_EQ(nullptr, r[2].node.next);

    EXPECT_ASSERT("__clone", EXPECT_EQ(nullptr, SmpList_clone(&r[0], nullptr)));
    EXPECT_ASSERT("__exec", EXPECT_EQ(0, SmpList_exec(&r[0], nullptr)));
    EXPECT_ASSERT("__hdr && __list", EXPECT_EQ(nullptr, SmpList_merge(nullptr, &r[0])));
    EXPECT_ASSERT("list && node", SmpList_addHdr(&l, nullptr));
    SmpList_init(&l);
    l.hdr = &r[0].node;
    EXPECT_ASSERT("!list->hdr && list->len == 0", SmpList_addTail(&l, &r[1]));
}
