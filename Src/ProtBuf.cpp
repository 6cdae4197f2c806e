/*
 * ProtBuf.cpp - packet buffers and their lists.
 *
 * The storage count sits right behind the payload, at end, which has no
 * particular alignment (size is the caller's); it is read and written
 * through memcpy.
 */
#include <cstring>
#include "ProtBuf.h"
#include "VekVos.h"
#include "MemUtil.h"

#if defined(__i386__) || defined(_M_IX86)
static_assert(sizeof(ProtBuf) == 44, "the packet-buffer record is 44 bytes");
static_assert(sizeof(ProtBufList) == 12, "the list head is three words");
#endif
static_assert(offsetof(ProtBuf, next) == offsetof(ProtBufList, next) &&
                  offsetof(ProtBuf, prev) == offsetof(ProtBufList, prev),
              "a list head links like a buffer");

namespace {

vek_u32 storage_count(const ProtBuf* pb) {
    vek_u32 n;
    std::memcpy(&n, pb->end, sizeof n);
    return n;
}

void set_storage_count(ProtBuf* pb, vek_u32 n) {
    std::memcpy(pb->end, &n, sizeof n);
}

// The record whose allocation holds pb's storage.
ProtBuf* carrier(const ProtBuf* pb) {
    return (ProtBuf*)(pb->head - sizeof(ProtBuf));
}

// Fresh state over the storage at head.
void reset(ProtBuf* pb) {
    pb->next = pb->prev = nullptr;
    pb->list = nullptr;
    pb->data = pb->tail = pb->head + PROTBUF_HEAD_ROOM;
    pb->len = 0;
    pb->end = pb->head + pb->size + PROTBUF_HEAD_ROOM;
    set_storage_count(pb, 1);
    pb->users = 1;
    pb->cloned = 0;
    pb->rsv = 0;
}

// The list head seen as the node it links like (its next and prev sit where
// a buffer keeps them); only those two fields are ever touched through it.
ProtBuf* sentinel(ProtBufList* list) {
    return reinterpret_cast<ProtBuf*>(list);
}

// The links of a node that may be the list head: reached by offset, so a
// head (which is no ProtBuf) is only ever read and written as the two
// pointers it really has.
ProtBuf*& next_of(ProtBuf* node) {
    return *reinterpret_cast<ProtBuf**>(reinterpret_cast<char*>(node) + offsetof(ProtBuf, next));
}

ProtBuf*& prev_of(ProtBuf* node) {
    return *reinterpret_cast<ProtBuf**>(reinterpret_cast<char*>(node) + offsetof(ProtBuf, prev));
}

// A zeroed head is taken as an empty list: it is made to point to itself
// before the first link.
ProtBufList* ready(ProtBufList* list) {
    if (!list->next) {
        ProtBufList_init(list);
    }
    return list;
}

void link_between(ProtBufList* list, ProtBuf* pb, ProtBuf* before, ProtBuf* after) {
    pb->list = list;
    pb->prev = before;
    pb->next = after;
    next_of(before) = pb;
    prev_of(after) = pb;
    list->len++;
}

} // namespace

extern "C" {

VEK_API ProtBuf* ProtBuf_new(vek_u32 size) {
    // Head room and the trailing count fit in the rounding slack: the
    // payload is rounded up to 16 with at least 16 to spare.
    size_t bytes = (((size_t)size + 31) & ~(size_t)15) + sizeof(ProtBuf) + 4;
    ProtBuf* pb = bytes > (size_t)size ? (ProtBuf*)vek_malloc__(bytes) : nullptr;
    VEK_ASSERT(pb);
    if (!pb) {
        return nullptr;
    }
    pb->size = size;
    pb->head = (vek_u8*)(pb + 1);
    reset(pb);
    return pb;
}

VEK_API ProtBuf* ProtBuf_clear(ProtBuf* pb) {
    reset(pb);
    return pb;
}

VEK_API vek_u8* ProtBuf_put(ProtBuf* pb, vek_u32 n) {
    if ((size_t)(pb->end - pb->tail) < n) {
        return nullptr;
    }
    vek_u8* at = pb->tail;
    pb->tail += n;
    pb->len += n;
    return at;
}

VEK_API vek_u8* ProtBuf_push(ProtBuf* pb, vek_u32 n) {
    pb->data -= n;
    pb->len += n;
    return pb->data;
}

VEK_API vek_u8* ProtBuf_pull(ProtBuf* pb, vek_u32 n) {
    if (n > pb->len) {
        return nullptr;
    }
    pb->data += n;
    pb->len -= n;
    return pb->data;
}

VEK_API void ProtBuf_trim(ProtBuf* pb, vek_u32 n) {
    if (pb->len > n) {
        pb->len = n;
        pb->tail = pb->data + n;
    }
}

VEK_API ProtBuf* ProtBuf_clone(ProtBuf* pb) {
    ProtBuf* c = (ProtBuf*)vek_malloc__(sizeof(ProtBuf));
    if (!c) {
        return nullptr;
    }
    *c = *pb;
    c->next = c->prev = nullptr;
    c->list = nullptr;
    c->users = 1;
    set_storage_count(pb, storage_count(pb) + 1);
    c->cloned = pb->cloned = 1;
    return c;
}

VEK_API void ProtBuf_delete(ProtBuf* pb) {
    if (--pb->users > 0) {
        return;
    }
    if (!pb->cloned) {
        vek_free__(pb);
        return;
    }
    ProtBuf* owner = carrier(pb);
    vek_u32 left = storage_count(pb) - 1;
    set_storage_count(pb, left);
    if (left == 0 && owner != pb) {
        vek_free__(owner);  // the carrier outlived its own delete
    }
    // The carrier stays while another record still reads its storage.
    if (left == 0 || owner != pb) {
        vek_free__(pb);
    }
}

/* ---- ProtBufList ---- */

VEK_API ProtBufList* ProtBufList_init(ProtBufList* list) {
    list->next = list->prev = sentinel(list);
    list->len = 0;
    return list;
}

VEK_API void ProtBufList_queueTail(ProtBufList* list, ProtBuf* pb) {
    ready(list);
    link_between(list, pb, list->prev, sentinel(list));
}

VEK_API void ProtBufList_queueHead(ProtBufList* list, ProtBuf* pb) {
    ready(list);
    link_between(list, pb, sentinel(list), list->next);
}

VEK_API ProtBuf* ProtBufList_unlink(ProtBuf* pb) {
    ProtBufList* list = pb->list;
    if (!list) {
        return pb;
    }
    next_of(pb->prev) = pb->next;
    prev_of(pb->next) = pb->prev;
    list->len--;
    pb->next = pb->prev = nullptr;
    pb->list = nullptr;
    return pb;
}

VEK_API ProtBuf* ProtBufList_dequeue(ProtBufList* list) {
    ProtBuf* pb = ProtBufList_peek(list);
    return pb ? ProtBufList_unlink(pb) : nullptr;
}

VEK_API ProtBuf* ProtBufList_dequeueTail(ProtBufList* list) {
    ProtBuf* pb = ProtBufList_peekTail(list);
    return pb ? ProtBufList_unlink(pb) : nullptr;
}

VEK_API ProtBuf* ProtBufList_peek(ProtBufList* list) {
    return list->next == sentinel(list) ? nullptr : list->next;  // null for a zeroed head too
}

VEK_API ProtBuf* ProtBufList_peekTail(ProtBufList* list) {
    return list->prev == sentinel(list) ? nullptr : list->prev;
}

} // extern "C"
