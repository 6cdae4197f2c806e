/*
 * PtrQue and ByteQue (wrap-around at every split, checked against a model),
 * packet buffers with their clones, and ProtBufList.
 */
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>
#include "VekTest.h"

static_assert(offsetof(PtrQue, buf) < offsetof(PtrQue, bufSize) && offsetof(PtrQue, head) < offsetof(PtrQue, tail),
              "field order");
static_assert(offsetof(ProtBuf, users) + 2 == offsetof(ProtBuf, cloned), "field order");
#if defined(__i386__)
static_assert(sizeof(PtrQue) == 20 && offsetof(PtrQue, tail) == 16, "32-bit layout");
static_assert(sizeof(ByteQue) == 28 && offsetof(ByteQue, own) == 8 && offsetof(ByteQue, capa) == 16 &&
                  offsetof(ByteQue, tail) == 24,
              "32-bit layout");
static_assert(sizeof(ProtBuf) == 44 && offsetof(ProtBuf, data) == 12 && offsetof(ProtBuf, len) == 16 &&
                  offsetof(ProtBuf, head) == 24 && offsetof(ProtBuf, end) == 32 && offsetof(ProtBuf, users) == 36,
              "32-bit layout");
static_assert(sizeof(ProtBufList) == 12, "32-bit layout");
#endif

using vektest::TraceCapture;

namespace {

std::vector<void*> g_deleted;

void note_delete(void* p) {
    g_deleted.push_back(p);
}

void* ptr(size_t i) {
    return (void*)(0x1000 + i * 8);
}

std::string pattern(size_t n, int seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) {
        s[i] = (char)(seed + i * 13);
    }
    return s;
}

vek_u32 storage_count(const ProtBuf* pb) {
    vek_u32 n;
    std::memcpy(&n, pb->end, 4);
    return n;
}

class QueTest : public VekTest {};

} // namespace

TEST_F(QueTest, PtrQueIsABoundedFifo) {
    PtrQue local;
    EXPECT_EQ(&local, PtrQue_new(&local, 3));
    EXPECT_EQ(PTRQUE_TAG, local.tag);  // caller storage: no ownership mark
    EXPECT_EQ(3, PtrQue_capa(&local));
    EXPECT_EQ(nullptr, PtrQue_get(&local));
    EXPECT_EQ(nullptr, PtrQue_peek(&local));
    // Order, fullness and the walk round the ring are the model test's.
    EXPECT_EQ(1, PtrQue_put(&local, ptr(1)));
    EXPECT_EQ(ptr(1), PtrQue_peek(&local));
    EXPECT_EQ(ptr(1), PtrQue_get(&local));
    PtrQue_put(&local, ptr(7));
    PtrQue_put(&local, ptr(8));
    g_deleted.clear();
    PtrQue_clear(&local, note_delete);
    EXPECT_EQ((std::vector<void*>{ptr(7), ptr(8)}), g_deleted);
    EXPECT_TRUE(local.head == 0 && local.tail == 0);
    PtrQue_delete(&local);
    EXPECT_EQ(0u, local.tag);

    PtrQue* q = PtrQue_new(nullptr, 0);
    EXPECT_EQ(PTRQUE_TAG | 0x80000000u, q->tag);
    EXPECT_EQ(0, PtrQue_put(q, ptr(1)));
    PtrQue_delete(q);
}

TEST_F(QueTest, PtrQueFollowsAModel) {
    std::mt19937 rng(7);
    PtrQue* q = PtrQue_new(nullptr, 13);
    std::deque<void*> model;
    for (int step = 0; step < 20000; step++) {
        if (rng() % 2) {
            bool room = model.size() < 13;
            EXPECT_EQ(room ? 1 : 0, PtrQue_put(q, ptr(step + 1)));
            if (room) {
                model.push_back(ptr(step + 1));
            }
        } else {
            EXPECT_EQ(model.empty() ? nullptr : model.front(), PtrQue_get(q));
            if (!model.empty()) {
                model.pop_front();
            }
        }
        ASSERT_EQ((vek_s32)model.size(), PtrQue_size(q));
    }
    PtrQue_delete(q);
}

TEST_F(QueTest, ByteQueQueueEmptyIsNotADataByte) {
    ByteQue* q = ByteQue_new(nullptr, 4);
    EXPECT_EQ(BYTEQUE_TAG | 0x80000000u, q->tag);
    EXPECT_EQ(1u, q->own);
    EXPECT_EQ(5, q->bufSize);
    EXPECT_EQ(VEK_ERR_QUEUE_EMPTY, ByteQue_get(q));
    EXPECT_EQ(VEK_ERR_QUEUE_EMPTY, ByteQue_peek(q));
    // 0x83 is -125 as a signed byte, 0xFF is -1: both come back positive.
    for (int b : {0x83, 0xFF, 0x00}) {
        EXPECT_EQ(1, ByteQue_put(q, (vek_u8)b));
        EXPECT_EQ(b, ByteQue_peek(q));
        EXPECT_EQ(b, ByteQue_get(q));
    }
    EXPECT_EQ(VEK_ERR_QUEUE_EMPTY, ByteQue_get(q));
    ByteQue_delete(q);
}

// Every block length at every start position, so each split of a block
// across the end of the ring is written and read back, both by the short
// byte-wise path and by the two-piece copy.
TEST_F(QueTest, ByteQueBlocksWrapAtEverySplit) {
    constexpr vek_s32 kSize = 41;
    std::vector<vek_u8> storage(kSize + 8, 0xEE);
    ByteQue q;
    ByteQue_newx(&q, storage.data(), kSize);
    EXPECT_TRUE(q.capa == kSize - 1 && q.own == 0 && ByteQue_capa(&q) == kSize - 1);
    for (vek_s32 start = 0; start < kSize; start++) {
        for (vek_s32 n = 1; n <= kSize - 1; n++) {
            ByteQue_clear(&q);
            std::string filler(start, 'f');
            ByteQue_puts(&q, filler.data(), start);  // move both indices to start
            ByteQue_skip(&q, start);
            ASSERT_EQ(start % kSize, q.head);
            const std::string in = pattern(n, start + n);
            ASSERT_EQ(n, ByteQue_putf(&q, in.data(), n));
            std::string peeked(n, '\0'), out(n, '\0');
            ASSERT_EQ(n, ByteQue_peeks(&q, peeked.data(), n));
            ASSERT_EQ(n, ByteQue_gets(&q, out.data(), n + 5));
            ASSERT_EQ(in, peeked) << "start " << start << " n " << n;
            ASSERT_EQ(in, out) << "start " << start << " n " << n;
            ASSERT_EQ(0, ByteQue_size(&q));
        }
    }
    EXPECT_TRUE(std::all_of(storage.begin() + kSize, storage.end(), [](vek_u8 b) { return b == 0xEE; }));
    ByteQue_delete(&q);
    EXPECT_EQ(0u, q.tag);
}

TEST_F(QueTest, ByteQueFollowsAModel) {
    std::mt19937 rng(11);
    ByteQue* q = ByteQue_new(nullptr, 97);
    std::deque<char> model;
    char buf[160];
    for (int step = 0; step < 40000; step++) {
        vek_s32 n = (vek_s32)(rng() % 130);
        vek_s32 room = 97 - (vek_s32)model.size();
        vek_s32 held = (vek_s32)model.size();
        const std::string in = pattern((size_t)n, step);
        switch (rng() % 7) {
        case 0:
            ASSERT_EQ(std::min(n, room), ByteQue_puts(q, in.data(), n));
            model.insert(model.end(), in.begin(), in.begin() + std::min(n, room));
            break;
        case 1:
            ASSERT_EQ(n <= room ? n : 0, ByteQue_putf(q, in.data(), n));
            if (n <= room) {
                model.insert(model.end(), in.begin(), in.end());
            }
            break;
        case 2:
            ASSERT_EQ(room > 0 ? 1 : 0, ByteQue_put(q, (vek_u8)step));
            if (room > 0) {
                model.push_back((char)step);
            }
            break;
        case 3:
        case 4: {
            bool remove = rng() % 2;
            vek_s32 got = remove ? ByteQue_gets(q, buf, n) : ByteQue_peeks(q, buf, n);
            ASSERT_EQ(std::min(n, held), got);
            ASSERT_TRUE(std::equal(buf, buf + got, model.begin()));
            if (remove) {
                model.erase(model.begin(), model.begin() + got);
            }
            break;
        }
        case 5:
            ASSERT_EQ(std::min(n, held), ByteQue_skip(q, n));
            model.erase(model.begin(), model.begin() + std::min(n, held));
            break;
        default:
            ASSERT_EQ(held ? (vek_s32)(vek_u8)model.front() : VEK_ERR_QUEUE_EMPTY, ByteQue_get(q));
            if (held) {
                model.pop_front();
            }
        }
        ASSERT_EQ((vek_s32)model.size(), ByteQue_size(q));
    }
    ByteQue_delete(q);
}

TEST_F(QueTest, BrokenIndicesAreTracedAndAsserted) {
    PtrQue pq;
    PtrQue_new(&pq, 4);
    ByteQue bq;
    ByteQue_new(&bq, 4);
    pq.tail = 9;
    pq.head = 2;
    bq.tail = -1;
    bq.head = 4;
    {
        TraceCapture trc;
        EXPECT_ASSERT("err > -_this->bufSize && err < _this->bufSize", EXPECT_EQ(7, PtrQue_size(&pq)));
        EXPECT_TRUE(trc.contains("fault err(7,t=9,h=2,bs=5,p=")) << trc.all();
        EXPECT_ASSERT("err > -_this->bufSize && err < _this->bufSize", EXPECT_EQ(0, PtrQue_put(&pq, ptr(1))));
        EXPECT_ASSERT("err > -_this->bufSize && err < _this->bufSize", EXPECT_EQ(0, ByteQue_size(&bq)));
        EXPECT_TRUE(trc.contains("fault err(-5,t=-1,h=4,bs=5,p=")) << trc.all();
        EXPECT_ASSERT("err > -_this->bufSize && err < _this->bufSize", EXPECT_EQ(0, ByteQue_put(&bq, 1)));
    }
    PtrQue_delete(&pq);
    ByteQue_delete(&bq);
}

TEST_F(QueTest, BadArgumentsLeaveUsableEmptyQueues) {
    PtrQue pq;
    EXPECT_ASSERT("capa >= 0", PtrQue_new(&pq, -1));
    EXPECT_TRUE(PtrQue_capa(&pq) == 0 && PtrQue_put(&pq, ptr(1)) == 0 && !PtrQue_get(&pq));
    PtrQue_delete(&pq);
    ByteQue bq;
    EXPECT_ASSERT("capa >= 0", ByteQue_new(&bq, -5));
    EXPECT_TRUE(ByteQue_capa(&bq) == 0 && ByteQue_put(&bq, 1) == 0);
    ByteQue_delete(&bq);
    EXPECT_ASSERT("buf && size >= 1", ByteQue_newx(&bq, nullptr, 8));
    EXPECT_TRUE(ByteQue_capa(&bq) == 0 && ByteQue_puts(&bq, "ab", 2) == 0 && ByteQue_get(&bq) == VEK_ERR_QUEUE_EMPTY);
    ByteQue_delete(&bq);
    ByteQue_new(&bq, 8);
    EXPECT_ASSERT("src", EXPECT_EQ(0, ByteQue_puts(&bq, nullptr, 2)));
    ByteQue_putf(&bq, "abc", 3);
    EXPECT_ASSERT("dst", EXPECT_EQ(0, ByteQue_gets(&bq, nullptr, 2)));
    EXPECT_EQ(0, ByteQue_gets(&bq, nullptr, -1));
    EXPECT_EQ(3, ByteQue_size(&bq));
    ByteQue_delete(&bq);
}

TEST_F(QueTest, ForeignRecordsEndTheProcess) {
    PtrQue pq;
    PtrQue_new(&pq, 1);
    ByteQue bq;
    ByteQue_new(&bq, 1);
    pq.tag ^= 1;
    bq.tag = PTRQUE_TAG;
    EXPECT_DEATH((al_set_fault_hook(nullptr), PtrQue_get(&pq)), "obj crash");
    EXPECT_DEATH((al_set_fault_hook(nullptr), ByteQue_size(&bq)), "obj crash");
    pq.tag ^= 1;
    bq.tag = BYTEQUE_TAG;
    PtrQue_delete(&pq);
    ByteQue_delete(&bq);
}

TEST_F(QueTest, ProtBufKeepsHeadRoomAndBounds) {
    ProtBuf* pb = ProtBuf_new(37);
    EXPECT_EQ((vek_u8*)pb + sizeof(ProtBuf), pb->head);
    EXPECT_EQ(pb->head + 16, pb->data);
    EXPECT_EQ(pb->data, pb->tail);
    EXPECT_EQ(pb->head + 37 + 16, pb->end);
    EXPECT_TRUE(pb->len == 0 && pb->size == 37 && pb->users == 1 && pb->cloned == 0 && !pb->next && !pb->list);
    EXPECT_EQ(1u, storage_count(pb));

    EXPECT_EQ(nullptr, ProtBuf_put(pb, 38));
    vek_u8* body = ProtBuf_put(pb, 30);
    EXPECT_EQ(pb->head + 16, body);
    std::memcpy(body, pattern(30, 3).data(), 30);
    EXPECT_EQ(pb->data + 30, ProtBuf_put(pb, 7));  // exactly to end
    EXPECT_EQ(nullptr, ProtBuf_put(pb, 1));
    EXPECT_EQ(37u, pb->len);
    EXPECT_EQ(pb->head, ProtBuf_push(pb, 16));  // the whole head room
    EXPECT_EQ(53u, pb->len);
    EXPECT_EQ(nullptr, ProtBuf_pull(pb, 54));
    EXPECT_EQ(body, ProtBuf_pull(pb, 16));
    ProtBuf_trim(pb, 40);
    EXPECT_EQ(37u, pb->len);
    ProtBuf_trim(pb, 30);
    EXPECT_TRUE(pb->len == 30 && pb->tail == pb->data + 30);
    EXPECT_EQ(pattern(30, 3), std::string((char*)pb->data, 30));
    EXPECT_EQ(pb, ProtBuf_clear(pb));
    EXPECT_TRUE(pb->len == 0 && pb->data == pb->head + 16 && pb->tail == pb->data);
    pb->users = 2;  // a second holder keeps the record
    ProtBuf_delete(pb);
    EXPECT_EQ(1, pb->users);
    ProtBuf_delete(pb);
}

// A buffer and two clones (one of them a clone of a clone) deleted in every
// order: the fixture's leak check and the sanitizer leg catch a record
// freed too early or never.
TEST_F(QueTest, ProtBufClonesDieInAnyOrder) {
    int order[3] = {0, 1, 2};
    do {
        ProtBuf* b[3];
        b[0] = ProtBuf_new(20);
        std::memcpy(ProtBuf_put(b[0], 20), pattern(20, 5).data(), 20);
        b[1] = ProtBuf_clone(b[0]);
        ProtBuf_pull(b[1], 4);
        b[2] = ProtBuf_clone(b[1]);
        ProtBuf_trim(b[2], 6);
        EXPECT_TRUE(b[0]->cloned && b[1]->cloned && b[2]->cloned && b[2]->users == 1 && !b[2]->list);
        EXPECT_EQ(3u, storage_count(b[0]));
        EXPECT_TRUE(b[1]->head == b[0]->head && b[2]->end == b[0]->end);
        for (int k = 0; k < 3; k++) {
            ProtBuf_delete(b[order[k]]);
            for (int j = k + 1; j < 3; j++) {  // the survivors still read the packet
                ProtBuf* s = b[order[j]];
                EXPECT_EQ(3u - k - 1, storage_count(s));
                const std::string want = pattern(20, 5).substr(order[j] ? 4 : 0, s->len);
                EXPECT_EQ(want, std::string((char*)s->data, s->len));
            }
        }
    } while (std::next_permutation(order, order + 3));
}

TEST_F(QueTest, ProtBufListIsItsOwnSentinel) {
    ProtBufList list;
    ProtBufList_init(&list);
    EXPECT_TRUE(list.next == (ProtBuf*)&list && list.prev == (ProtBuf*)&list && list.len == 0);
    EXPECT_TRUE(!ProtBufList_peek(&list) && !ProtBufList_peekTail(&list) && !ProtBufList_dequeue(&list) &&
                !ProtBufList_dequeueTail(&list));
    ProtBuf* b[4];
    for (auto& p : b) {
        p = ProtBuf_new(4);
    }
    ProtBufList_queueTail(&list, b[1]);
    ProtBufList_queueHead(&list, b[0]);
    ProtBufList_queueTail(&list, b[2]);
    ProtBufList_queueTail(&list, b[3]);
    EXPECT_EQ(4u, list.len);
    EXPECT_TRUE(b[2]->list == &list && b[2]->prev == b[1] && b[2]->next == b[3]);
    EXPECT_EQ(b[0], ProtBufList_peek(&list));
    EXPECT_EQ(b[3], ProtBufList_peekTail(&list));
    EXPECT_EQ(b[2], ProtBufList_unlink(b[2]));
    EXPECT_TRUE(!b[2]->next && !b[2]->prev && !b[2]->list && b[1]->next == b[3] && b[3]->prev == b[1]);
    EXPECT_EQ(b[2], ProtBufList_unlink(b[2]));  // in no list: left alone
    EXPECT_EQ(3u, list.len);
    EXPECT_EQ(b[3], ProtBufList_dequeueTail(&list));
    EXPECT_EQ(b[0], ProtBufList_dequeue(&list));
    EXPECT_EQ(b[1], ProtBufList_dequeue(&list));
    EXPECT_TRUE(!b[1]->next && !b[1]->prev && !b[1]->list);
    EXPECT_TRUE(list.next == (ProtBuf*)&list && list.prev == (ProtBuf*)&list && list.len == 0);

    ProtBufList zeroed = {};  // counts as empty
    EXPECT_TRUE(!ProtBufList_peek(&zeroed) && !ProtBufList_peekTail(&zeroed) && !ProtBufList_dequeue(&zeroed));
    ProtBufList_queueHead(&zeroed, b[3]);
    EXPECT_EQ(b[3], ProtBufList_dequeueTail(&zeroed));
    EXPECT_TRUE(zeroed.next == (ProtBuf*)&zeroed && zeroed.len == 0);
    for (auto& p : b) {
        ProtBuf_delete(p);
    }
}
