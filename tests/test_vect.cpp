/*
 * PtrVect and BlkVect (growth by one, removal order), PtrStack and BlkStack
 * (bounds, traces and assertions).
 */
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>
#include "VekTest.h"

#if defined(__i386__)
static_assert(sizeof(PtrVect) == 16 && offsetof(PtrVect, count) == 12, "32-bit layout");
static_assert(sizeof(BlkVect) == 20 && offsetof(BlkVect, eleSize) == 8 && offsetof(BlkVect, count) == 16,
              "32-bit layout");
static_assert(sizeof(PtrStack) == 20 && offsetof(PtrStack, tab) == 8 && offsetof(PtrStack, top) == 16,
              "32-bit layout");
static_assert(sizeof(BlkStack) == 24 && offsetof(BlkStack, buf) == 8 && offsetof(BlkStack, eleSize) == 12 &&
                  offsetof(BlkStack, top) == 20,
              "32-bit layout");
#endif

using vektest::TraceCapture;

namespace {

class VectTest : public VekTest {};

int g_items[8];
std::string g_deleted;

void note_delete(void* p) {
    g_deleted += std::to_string((int*)p - g_items);
}

std::string items(PtrVect* v) {
    std::string s;
    for (vek_s32 i = 0; i < v->count; i++) {
        s += std::to_string((int*)PtrVect_ele(v, i) - g_items);
    }
    return s;
}

struct Rec {
    int a;
    char name[6];
};

} // namespace

TEST_F(VectTest, PtrVectGrowsByOneAndFillsHolesFromTheEnd) {
    PtrVect local;
    PtrVect* v = PtrVect_new(&local, 2);
    EXPECT_EQ(PTRVECT_TAG, v->tag);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(0, PtrVect_add(v, &g_items[i]));
    }
    EXPECT_EQ(3, v->size);  // exactly one more slot
    EXPECT_EQ(0, PtrVect_add(v, &g_items[3]));
    EXPECT_EQ(4, v->size);
    EXPECT_EQ(0, PtrVect_dele(v, &g_items[0]));
    EXPECT_EQ("312", items(v));  // the former last element sits at index 0
    EXPECT_EQ(VEK_ERR_NOT_FOUND, PtrVect_dele(v, &g_items[0]));
    g_deleted.clear();
    EXPECT_EQ(0, PtrVect_del(v, 1, note_delete));
    EXPECT_EQ("1", g_deleted);
    EXPECT_EQ("32", items(v));
    EXPECT_EQ(0, PtrVect_del(v, 1, nullptr));  // the last one: nothing moves
    EXPECT_EQ("3", items(v));

    EXPECT_ASSERT("ptr", EXPECT_EQ(VEK_ERR_BAD_ARG, PtrVect_add(v, nullptr)));
    EXPECT_ASSERT("ptr", EXPECT_EQ(VEK_ERR_NOT_FOUND, PtrVect_dele(v, nullptr)));
    EXPECT_ASSERT("index >= 0 && index < _this->count", EXPECT_EQ(nullptr, PtrVect_ele(v, 1)));
    EXPECT_ASSERT("index >= 0 && index < _this->count", EXPECT_EQ(VEK_ERR_BAD_ARG, PtrVect_del(v, -1, nullptr)));
    v->tab[0] = nullptr;
    EXPECT_ASSERT("_this->tab[index]", PtrVect_del(v, 0, note_delete));
    EXPECT_EQ(0, v->count);

    PtrVect_add(v, &g_items[5]);
    PtrVect_add(v, &g_items[6]);
    g_deleted.clear();
    PtrVect_clear(v, note_delete);
    EXPECT_TRUE(g_deleted == "56" && v->count == 0);
    PtrVect_delete(v);
    EXPECT_EQ(0u, local.tag);

    EXPECT_ASSERT("size >= 1", v = PtrVect_new(nullptr, 0));
    EXPECT_EQ(PTRVECT_TAG | 0x80000000u, v->tag);
    v->tag = BLKVECT_TAG;
    EXPECT_DEATH((al_set_fault_hook(nullptr), PtrVect_add(v, g_items)), "obj crash");
    v->tag = PTRVECT_TAG | 0x80000000u;
    PtrVect_delete(v);
}

TEST_F(VectTest, BlkVectCopiesRecords) {
    BlkVect* v = BlkVect_new(nullptr, 1, sizeof(Rec));
    Rec r = {1, "one"};
    EXPECT_EQ(0, BlkVect_add(v, &r));
    r = {2, "two"};
    EXPECT_EQ(1, BlkVect_add(v, &r));
    r = {3, "three"};
    EXPECT_EQ(2, BlkVect_add(v, &r));
    r.a = 99;  // the vector holds copies
    EXPECT_EQ(3, v->size);
    EXPECT_EQ(3, ((Rec*)BlkVect_ele(v, 2))->a);
    EXPECT_EQ(1, BlkVect_del(v, 0));
    EXPECT_STREQ("three", ((Rec*)BlkVect_ele(v, 0))->name);
    EXPECT_STREQ("two", ((Rec*)BlkVect_ele(v, 1))->name);
    EXPECT_EQ(0, BlkVect_del(v, 2));
    EXPECT_EQ(1, BlkVect_del(v, 1));
    EXPECT_EQ(1, BlkVect_del(v, 0));
    EXPECT_EQ(0, BlkVect_del(v, 0));  // empty
    EXPECT_ASSERT("index >= 0 && index < _this->count", EXPECT_EQ(nullptr, BlkVect_ele(v, 0)));
    EXPECT_ASSERT("rec", EXPECT_EQ(VEK_ERR_BAD_ARG, BlkVect_add(v, nullptr)));
    BlkVect_add(v, &r);
    BlkVect_clear(v);
    EXPECT_EQ(0, v->count);
    BlkVect_delete(v);
    BlkVect local;
    EXPECT_ASSERT("size > 0 && eleSize > 0", BlkVect_new(&local, 0, 4));
    EXPECT_EQ(BLKVECT_TAG, local.tag);
    BlkVect_delete(&local);
}

TEST_F(VectTest, PtrStackIsBounded) {
    PtrStack* s = PtrStack_new(nullptr, 2);
    EXPECT_EQ(0u, s->rsv);
    EXPECT_TRUE(!PtrStack_pop(s) && !PtrStack_top(s));
    EXPECT_EQ(1, PtrStack_push(s, &g_items[0]));
    EXPECT_EQ(1, PtrStack_push(s, &g_items[1]));
    EXPECT_EQ(0, PtrStack_push(s, &g_items[2]));
    EXPECT_EQ(2, s->top);
    EXPECT_EQ(&g_items[1], PtrStack_top(s));
    EXPECT_EQ(&g_items[1], PtrStack_pop(s));
    EXPECT_EQ(&g_items[0], PtrStack_pop(s));
    EXPECT_EQ(nullptr, PtrStack_pop(s));
    PtrStack_push(s, &g_items[3]);
    PtrStack_clear(s);
    EXPECT_EQ(nullptr, PtrStack_top(s));
    s->tag ^= 0x100;
    EXPECT_DEATH((al_set_fault_hook(nullptr), PtrStack_push(s, nullptr)), "obj crash");
    s->tag ^= 0x100;
    PtrStack_delete(s);
    PtrStack local;
    EXPECT_ASSERT("size >= 1", PtrStack_new(&local, -3));
    EXPECT_EQ(1, local.size);
    PtrStack_delete(&local);
}

TEST_F(VectTest, BlkStackOverACallersBuffer) {
    Rec buf[2];
    std::memset(buf, 0xAB, sizeof buf);
    BlkStack local;
    BlkStack* s = BlkStack_new(&local, sizeof(Rec), buf, sizeof buf + sizeof(Rec) - 1);
    EXPECT_TRUE(s == &local && s->size == 2 && s->tag == BLKSTACK_TAG && s->rsv == 0);
    Rec r = {7, "seven"}, out = {};
    EXPECT_EQ(1, BlkStack_push(s, nullptr));  // a zeroed record
    EXPECT_EQ(1, BlkStack_push(s, &r));
    EXPECT_EQ(std::vector<char>(sizeof(Rec), 0), std::vector<char>((char*)&buf[0], (char*)&buf[1]));
    {
        TraceCapture trc;
        EXPECT_EQ(0, BlkStack_push(s, &r));
        EXPECT_TRUE(trc.contains("no room for push, size=2")) << trc.all();
    }
    EXPECT_EQ(&buf[1], BlkStack_top(s));
    EXPECT_EQ(&buf[1], BlkStack_pop(s, &out));
    EXPECT_STREQ("seven", out.name);
    EXPECT_EQ(&buf[0], BlkStack_pop(s, nullptr));
    {
        TraceCapture trc;
        EXPECT_ASSERT("_this->top > 0", EXPECT_EQ(nullptr, BlkStack_pop(s, &out)));
        EXPECT_TRUE(trc.contains("pop without item")) << trc.all();
    }
    EXPECT_EQ(nullptr, BlkStack_top(s));
    BlkStack_push(s, &r);
    BlkStack_clear(s);
    EXPECT_EQ(0, s->top);
    BlkStack_delete(s);
    EXPECT_EQ(0u, local.tag);

    EXPECT_ASSERT("bufSize >= eleSize", s = BlkStack_new(nullptr, 8, buf, 7));
    EXPECT_EQ(0, s->size);
    {
        TraceCapture trc;
        EXPECT_EQ(0, BlkStack_push(s, &r));
    }
    BlkStack_delete(s);
    EXPECT_ASSERT("eleSize >= 1", BlkStack_delete(BlkStack_new(nullptr, 0, buf, 8)));
    EXPECT_ASSERT("buf", BlkStack_delete(BlkStack_new(nullptr, 4, nullptr, 8)));
    local.tag = PTRSTACK_TAG;
    EXPECT_DEATH((al_set_fault_hook(nullptr), BlkStack_top(&local)), "obj crash");
}
