/*
 * IntDict with its enumerator, IntMap and StrMap: identifier hand-out and
 * reuse, duplicate keys, growth and the codes of every refusal.
 */
#include <cstddef>
#include <string>
#include "VekTest.h"

static_assert(offsetof(IntDictEntry, value) == 8 && sizeof(IntDictEntry) == 12, "12-byte entry");
#if defined(__i386__)
static_assert(sizeof(IntDict) == 16 && offsetof(IntDict, count) == 12, "32-bit layout");
static_assert(sizeof(IntDictEnum) == 12 && offsetof(IntDictEnum, cursor) == 8, "32-bit layout");
static_assert(sizeof(IntMap) == 12 && offsetof(IntMap, count) == 8, "32-bit layout");
static_assert(sizeof(StrMap) == 16 && offsetof(StrMap, width) == 4 && offsetof(StrMap, count) == 12,
              "32-bit layout");
#endif

namespace {

class IdTest : public VekTest {};

std::string enumerate(IntDictEnum* en) {
    std::string s;
    vek_u32 k, v;
    while (IntDictEnum_next(en, &k, &v) == 1) {
        s += std::to_string(k) + "=" + std::to_string(v) + " ";
    }
    return s;
}

} // namespace

TEST_F(IdTest, IntDictDuplicateKeysFirstSlotWins) {
    IntDict local;
    IntDict* d = IntDict_new(&local, 3);
    EXPECT_EQ(INTDICT_TAG, d->tag);
    EXPECT_EQ(0, IntDict_add(d, 5, 50));
    EXPECT_EQ(0, IntDict_add(d, 5, 51));
    EXPECT_EQ(0, IntDict_add(d, 6, 60));
    EXPECT_EQ(VEK_ERR_FULL, IntDict_add(d, 7, 70));
    EXPECT_EQ(3, d->count);
    EXPECT_EQ(50u, IntDict_find(d, 5));
    EXPECT_EQ(0u, IntDict_find(d, 7));
    EXPECT_EQ(50u, IntDict_del(d, 5));  // the earlier entry only
    EXPECT_EQ(51u, IntDict_find(d, 5));
    EXPECT_EQ(0, IntDict_add(d, 8, 80));  // reuses the freed first slot
    EXPECT_EQ(0u, IntDict_del(d, 9));

    IntDictEnum* en = IntDictEnum_new(nullptr, d);
    EXPECT_EQ(INTDICTENUM_TAG | 0x80000000u, en->tag);
    EXPECT_EQ("8=80 5=51 6=60 ", enumerate(en));
    EXPECT_EQ(0, IntDictEnum_next(en, nullptr, nullptr));
    IntDictEnum_reset(en);
    EXPECT_EQ(1, IntDictEnum_next(en, nullptr, nullptr));
    IntDict_clear(d);
    IntDictEnum_reset(en);
    EXPECT_EQ("", enumerate(en));
    EXPECT_EQ(0, d->count);
    IntDictEnum_delete(en);
    IntDict_delete(d);
    EXPECT_EQ(0u, local.tag);

    EXPECT_ASSERT("slotNum >= 1", d = IntDict_new(nullptr, 0));
    EXPECT_EQ(1, d->slotNum);
    d->tag ^= 2;
    EXPECT_DEATH((al_set_fault_hook(nullptr), IntDict_find(d, 1)), "obj crash");
    d->tag ^= 2;
    IntDictEnum e2;
    IntDictEnum_new(&e2, d);
    e2.tag = INTDICT_TAG;
    EXPECT_DEATH((al_set_fault_hook(nullptr), IntDictEnum_reset(&e2)), "obj crash");
    IntDict_delete(d);
}

TEST_F(IdTest, IntMapHandsOutIdentifiersFromOne) {
    IntMap* m = IntMap_new(4);
    EXPECT_EQ(1, m->count);
    vek_s32 id = -1;
    vek_u32 v[] = {0, 100, 200, 300, 400};
    for (vek_s32 i = 1; i <= 3; i++) {
        EXPECT_EQ(0, IntMap_add(m, &v[i], &id));
        EXPECT_EQ(i, id);
    }
    EXPECT_EQ(VEK_ERR_FULL, IntMap_add(m, &v[4], &id));
    EXPECT_EQ(4, m->count);
    EXPECT_EQ(200u, *IntMap_get(m, 2));
    EXPECT_TRUE(!IntMap_get(m, 0) && !IntMap_get(m, 4) && !IntMap_get(m, -1));

    EXPECT_EQ(0, IntMap_del(m, 2));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IntMap_del(m, 2));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IntMap_del(m, 9));
    EXPECT_EQ(nullptr, IntMap_get(m, 2));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IntMap_find(m, &v[2], &id));
    EXPECT_EQ(1, IntMap_find(m, &v[3], &id));
    EXPECT_EQ(3, id);
    EXPECT_EQ(0, IntMap_uadd(m, &v[3], &id));  // already there: same id
    EXPECT_EQ(3, id);
    EXPECT_EQ(0, IntMap_uadd(m, &v[4], &id));  // the freed identifier is reused
    EXPECT_EQ(2, id);
    EXPECT_EQ(VEK_ERR_FULL, IntMap_uadd(m, &v[2], &id));

    // set counts only changes between empty and non-empty.
    EXPECT_EQ(0, IntMap_set(m, 1, 0));
    EXPECT_EQ(3, m->count);
    EXPECT_EQ(0, IntMap_set(m, 1, 7));
    EXPECT_EQ(0, IntMap_set(m, 1, 8));
    EXPECT_EQ(4, m->count);
    EXPECT_EQ(VEK_ERR_FULL, IntMap_set(m, 4, 1));
    EXPECT_EQ(VEK_ERR_FULL, IntMap_set(m, 0, 1));

    IntMap_clear(m);
    EXPECT_TRUE(m->count == 1 && !IntMap_get(m, 1));
    EXPECT_EQ(0, IntMap_add(m, &v[0], &id));  // a zero value takes no slot
    EXPECT_EQ(1, m->count);
    EXPECT_EQ(0, IntMap_add(m, &v[1], &id));
    EXPECT_EQ(1, id);
    IntMap_reset(m);
    EXPECT_EQ(1, m->count);
    IntMap_delete(m);
}

TEST_F(IdTest, StrMapCutsFindsAndGrows) {
    StrMap* m = StrMap_new(4, 2);
    vek_s32 id = -1;
    EXPECT_EQ(0, StrMap_add(m, "abcdef", &id));  // cut to width - 1
    EXPECT_EQ(0, id);
    EXPECT_STREQ("abc", StrMap_get(m, 0));
    EXPECT_EQ(0, StrMap_add(m, "xy", &id));
    EXPECT_EQ(1, id);
    EXPECT_EQ(VEK_ERR_NO_EMPTY_SLOT, StrMap_findEmtpy(m));
    EXPECT_EQ(0, StrMap_add(m, "XY", &id));  // full: the storage doubles
    EXPECT_TRUE(id == 2 && m->slotNum == 4 && m->count == 3);
    EXPECT_STREQ("abc", StrMap_get(m, 0));
    EXPECT_EQ(3, StrMap_findEmtpy(m));
    EXPECT_EQ(1, StrMap_find(m, "XY", &id));
    EXPECT_EQ(2, id);
    EXPECT_EQ(VEK_ERR_NOT_FOUND, StrMap_find(m, "xY", &id));  // case counts
    EXPECT_EQ(0, StrMap_uadd(m, "xy", &id));
    EXPECT_EQ(1, id);

    EXPECT_EQ(0, StrMap_del(m, 0));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, StrMap_del(m, 0));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, StrMap_del(m, 99));
    EXPECT_EQ(nullptr, StrMap_get(m, 0));
    EXPECT_EQ(0, StrMap_uadd(m, "new", &id));  // the lowest free slot
    EXPECT_EQ(0, id);
    EXPECT_EQ(3, m->count);

    EXPECT_EQ(0, StrMap_set(m, 9, "far"));  // doubles twice to reach 9
    EXPECT_EQ(16, m->slotNum);
    EXPECT_STREQ("far", StrMap_get(m, 9));
    EXPECT_STREQ("XY", StrMap_get(m, 2));
    EXPECT_EQ(4, m->count);
    EXPECT_EQ(0, StrMap_set(m, 9, ""));  // an empty text frees the slot
    EXPECT_EQ(3, m->count);
    EXPECT_EQ(VEK_ERR_FULL, StrMap_set(m, -1, "x"));
    EXPECT_EQ(nullptr, StrMap_get(m, 16));

    StrMap_clear(m);
    EXPECT_TRUE(m->count == 0 && StrMap_findEmtpy(m) == 0);
    EXPECT_EQ(VEK_ERR_NOT_FOUND, StrMap_find(m, "", &id));
    StrMap_delete(m);
    EXPECT_ASSERT("width >= 1 && slotNum >= 1", m = StrMap_new(0, 1));
    StrMap_delete(m);
}
