/*
 * ProtBuf.h - protocol packet buffers: a payload with head room for headers
 * pushed in front later, cheap clones that share the payload, and
 * ProtBufList, a circular queue of buffers.
 *
 * One allocation holds the record and its storage:
 *
 *     +--------+---------+---------------------+-------+
 *     | record | 16 head | size payload bytes  | count |
 *     +--------+---------+---------------------+-------+
 *              ^head     ^data, tail (when new)^end
 *
 * data..tail is the packet; put grows it at the tail (up to end), push at
 * the front (into the head room, unchecked), pull and trim shrink it. The
 * 32-bit count at end is the number of records that share the storage. A
 * clone is a record of its own over the same storage, with its own data,
 * len and tail; the record that carries the storage (the one directly in
 * front of head) lives on until the last record of the storage is deleted.
 * Buffers hold no lock.
 *
 * The record is 44 bytes on 32-bit builds (the reserved last word keeps it
 * so); head lies sizeof(ProtBuf) bytes behind the carrier's address.
 */
#ifndef VEK_PROTBUF_H
#define VEK_PROTBUF_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Head room in front of the packet of a new buffer. */
#define PROTBUF_HEAD_ROOM 16

typedef struct ProtBufList ProtBufList;

typedef struct ProtBuf {
    struct ProtBuf* next;  /* links of ProtBufList; zero while in no list */
    struct ProtBuf* prev;
    ProtBufList* list;
    vek_u8* data;          /* start of the packet */
    vek_u32 len;           /* bytes of the packet */
    vek_u32 size;          /* payload size asked for at creation */
    vek_u8* head;          /* start of the storage */
    vek_u8* tail;          /* end of the packet, data + len */
    vek_u8* end;           /* head + size + 16; the storage count is kept here */
    vek_u16 users;         /* holders of this record, 1 when made */
    vek_u16 cloned;        /* 1 once the storage is shared with a clone */
    vek_u32 rsv;           /* reserved, zero */
} ProtBuf;

/* A list head is its own sentinel: next and prev sit where a buffer keeps
 * them, so an empty list points to itself (ProtBufList_init). An all-zero
 * head counts as empty as well. */
struct ProtBufList {
    ProtBuf* next;  /* first buffer, or the list itself when empty */
    ProtBuf* prev;  /* last buffer, or the list itself when empty */
    vek_u32 len;    /* buffers in the list */
};

/* A buffer for a payload of size bytes, with 16 bytes of head room and an
 * empty packet, in one allocation of ((size + 31) rounded down to 16) +
 * sizeof(ProtBuf) + 4 bytes. The allocation is asserted ("pb"); null when
 * memory runs out. */
VEK_API ProtBuf* ProtBuf_new(vek_u32 size);
/* Back to the state just after ProtBuf_new (links, pointers, len, counts),
 * keeping the storage. Meant for a buffer that shares its storage with no
 * clone. Returns pb. */
VEK_API ProtBuf* ProtBuf_clear(ProtBuf* pb);
/* Reserves n bytes at the tail: the old tail (where the caller writes
 * them), or null when fewer than n bytes are left before end. */
VEK_API vek_u8* ProtBuf_put(ProtBuf* pb, vek_u32 n);
/* Prepends n bytes: returns the new data. Unchecked: push at most the head
 * room (16) plus what was pulled before. */
VEK_API vek_u8* ProtBuf_push(ProtBuf* pb, vek_u32 n);
/* Strips n bytes from the front: the new data, or null (nothing changed)
 * when n exceeds len. */
VEK_API vek_u8* ProtBuf_pull(ProtBuf* pb, vek_u32 n);
/* Cuts the packet to n bytes when it is longer; otherwise nothing. */
VEK_API void ProtBuf_trim(ProtBuf* pb, vek_u32 n);
/* A new record over the same storage and packet (links zero, users 1);
 * both records are marked cloned. Null when memory runs out. */
VEK_API ProtBuf* ProtBuf_clone(ProtBuf* pb);
/* Drops one holder of pb; at none the record goes, and the storage with
 * the last record that shares it. */
VEK_API void ProtBuf_delete(ProtBuf* pb);

/* Makes list empty (pointing to itself). Returns list. */
VEK_API ProtBufList* ProtBufList_init(ProtBufList* list);
/* Link pb at the end / the front of list (pb must be in no list). */
VEK_API void ProtBufList_queueTail(ProtBufList* list, ProtBuf* pb);
VEK_API void ProtBufList_queueHead(ProtBufList* list, ProtBuf* pb);
/* Unlink and return the first / the last buffer (links zeroed); null when
 * the list is empty. */
VEK_API ProtBuf* ProtBufList_dequeue(ProtBufList* list);
VEK_API ProtBuf* ProtBufList_dequeueTail(ProtBufList* list);
/* The first / the last buffer, left in the list; null when empty. */
VEK_API ProtBuf* ProtBufList_peek(ProtBufList* list);
VEK_API ProtBuf* ProtBufList_peekTail(ProtBufList* list);
/* Unlinks pb from the list that holds it (its neighbours joined, the list's
 * len decremented, pb's links zeroed). Returns pb; a buffer in no list is
 * left alone. */
VEK_API ProtBuf* ProtBufList_unlink(ProtBuf* pb);

VEK_END_DECLS

#endif /* VEK_PROTBUF_H */
