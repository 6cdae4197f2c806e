/*
 * String-identifier tables: both directions against a model under random
 * adds and deletes (so the probe runs are shifted back correctly), stable
 * and reused identifiers, case-blind tables on 8- and 16-bit text,
 * explicit identifiers.
 */
#include <map>
#include <string>
#include <vector>
#include "VekTest.h"

namespace {

std::string lower(std::string s) {
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z') {
            c = (char)(c + 32);
        }
    }
    return s;
}

} // namespace

using StrIdTab = VekTest;

TEST_F(StrIdTab, AgreesWithAModelUnderAddsAndDeletes) {
    for (vek_s32 flags : {0, STRID_NO_CASE}) {
        StrId* t = StrId_new(nullptr, flags);
        std::map<std::string, vek_s32> byText;  // folded text -> id
        std::map<vek_s32, std::string> byId;    // id -> text as first added
        vek_u32 seed = 7;
        auto rnd = [&](vek_u32 n) {
            seed = seed * 1103515245u + 12345u;
            return (seed >> 16) % n;
        };
        for (int step = 0; step < 20000; step++) {
            // Few distinct texts of every length around the word size, so
            // that hits, misses, collisions and case twins all happen.
            std::string s;
            for (vek_u32 n = rnd(20); n; n--) {
                s += "aAbB\xC3\x89\xC3\xA9"[rnd(8)];
            }
            std::string key = flags ? lower(s) : s;
            if (rnd(3)) {
                vek_s32 id = StrId_add(t, s.data(), (vek_s32)s.size());
                auto it = byText.find(key);
                if (it != byText.end()) {
                    ASSERT_EQ(it->second, id) << s;
                } else {
                    ASSERT_GT(id, 0);
                    ASSERT_EQ(0u, byId.count(id)) << "identifier handed out twice";
                    byText[key] = id;
                    byId[id] = s;
                }
            } else if (!byId.empty()) {
                auto it = byId.begin();
                std::advance(it, rnd((vek_u32)byId.size()));
                ASSERT_EQ(0, StrId_del(t, it->first));
                byText.erase(flags ? lower(it->second) : it->second);
                byId.erase(it);
            }
            vek_s32 found = StrId_find(t, s.data(), (vek_s32)s.size());
            auto it = byText.find(key);
            ASSERT_EQ(it == byText.end() ? VEK_ERR_NOT_FOUND : it->second, found) << s;
        }
        ASSERT_EQ((vek_s32)byId.size(), StrId_count(t));
        std::vector<vek_s32> seen;
        for (vek_s32 id = StrId_next(t, 0); id; id = StrId_next(t, id)) {
            seen.push_back(id);
            const PstrNode* n = StrId_node(t, id);
            ASSERT_TRUE(n);
            EXPECT_EQ(byId[id], std::string(n->str, (size_t)n->len));  // the first spelling
            EXPECT_EQ(0, n->str[n->len]);
            EXPECT_EQ(n, StrId_findNode(t, n->str, n->len));
        }
        EXPECT_EQ(byId.size(), seen.size());
        StrId_delete(t);
    }
}

TEST_F(StrIdTab, IdentifiersStayAndFreedOnesComeBack) {
    StrId t;
    StrId_new(&t, 0);
    std::vector<std::string> names;
    for (int i = 0; i < 3000; i++) {  // grows the slots several times
        names.push_back("name" + std::to_string(i));
        ASSERT_EQ(i + 1, StrId_add(&t, names[i].c_str(), -1));
    }
    ASSERT_STREQ("name2999", StrId_str(&t, 3000));
    EXPECT_EQ(0, StrId_del(&t, 10));
    EXPECT_EQ(0, StrId_del(&t, 20));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, StrId_del(&t, 20));
    EXPECT_EQ(nullptr, StrId_str(&t, 20));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, StrId_find(&t, "name9", -1));
    EXPECT_EQ(20, StrId_add(&t, "new one", -1));  // the last freed first
    EXPECT_EQ(10, StrId_add(&t, "another", -1));
    EXPECT_EQ(3001, StrId_add(&t, "third", -1));
    EXPECT_EQ(11, StrId_find(&t, "name10", -1));

    // Any bytes: an empty text and one with a zero inside are texts too.
    vek_s32 empty = StrId_add(&t, "", 0);
    vek_s32 withNul = StrId_add(&t, "a\0b", 3);
    EXPECT_EQ(empty, StrId_find(&t, nullptr, 0));
    EXPECT_EQ(withNul, StrId_find(&t, "a\0b", 3));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, StrId_find(&t, "a", -1));
    EXPECT_ASSERT("str || len == 0", EXPECT_EQ(VEK_ERR_BAD_ARG, StrId_add(&t, nullptr, 2)));

    StrId_clear(&t);
    EXPECT_EQ(0, StrId_count(&t));
    EXPECT_EQ(1, StrId_add(&t, "name5", -1));
    StrId_delete(&t);
}

TEST_F(StrIdTab, ExplicitIdentifiers) {
    StrId* t = StrId_new(nullptr, STRID_NO_CASE);
    EXPECT_EQ(5, StrId_addx(t, "AT", -1, 5));
    EXPECT_EQ(5, StrId_addx(t, "at", -1, 5));  // the same binding
    EXPECT_EQ(VEK_ERR_NAME_EXISTS, StrId_addx(t, "At", -1, 6));
    EXPECT_EQ(VEK_ERR_NAME_EXISTS, StrId_addx(t, "ATZ", -1, 5));
    EXPECT_EQ(VEK_ERR_BAD_ARG, StrId_addx(t, "ATZ", -1, 0));
    EXPECT_EQ(2, StrId_addx(t, "ATI", -1, 2));  // taken from the free ones
    std::vector<vek_s32> fresh;
    for (const char* s : {"a", "b", "c", "d"}) {
        fresh.push_back(StrId_add(t, s, -1));
    }
    EXPECT_EQ((std::vector<vek_s32>{4, 3, 1, 6}), fresh);  // 1..4 skipped, less 2; then new
    EXPECT_STREQ("AT", StrId_str(t, StrId_find(t, "aT", -1)));
    StrId_delete(t);
}

TEST_F(StrIdTab, WideTextsAndTheirCase) {
    WcsId* t = WcsId_new(nullptr, STRID_NO_CASE);
    const vek_wchar host[] = {'H', 'o', 's', 't', 0};
    const vek_wchar lowerHost[] = {'h', 'O', 'S', 'T', 0};
    const vek_wchar notLetters[] = {0x0148, 0x0173, 0x015A, 0x0154, 0};  // 'H'+0x100 ... stays itself
    const vek_wchar polish[] = {0x0141, 'o', 'd', 'z', 0x0179, 0};
    const vek_wchar polishLow[] = {0x0142, 'o', 'd', 'z', 0x017A, 0};
    vek_s32 id = WcsId_add(t, host, -1);
    EXPECT_EQ(id, WcsId_find(t, lowerHost, -1));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, WcsId_find(t, notLetters, -1));
    vek_s32 pl = WcsId_add(t, polish, -1);
    EXPECT_NE(pl, WcsId_add(t, polishLow, -1));  // only ASCII letters fold
    EXPECT_EQ(4, WcsId_node(t, id)->len);
    EXPECT_EQ(0, vek_wcscmp(host, WcsId_str(t, id)));
    EXPECT_EQ(WcsId_findNode(t, lowerHost, 4), WcsId_node(t, id));
    EXPECT_EQ(3, WcsId_count(t));
    EXPECT_EQ(0, WcsId_del(t, pl));
    EXPECT_EQ(id, WcsId_next(t, 0));
    EXPECT_EQ(pl, WcsId_addx(t, polish, -1, pl));
    WcsId_clear(t);
    EXPECT_EQ(0, WcsId_next(t, 0));
    WcsId_delete(t);
}
