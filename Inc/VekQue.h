/*
 * VekQue.h - fixed-capacity rings: PtrQue, a first-in first-out queue of
 * pointers, and ByteQue, a byte ring with single-byte and block operations.
 *
 * Neither grows: a full queue refuses new entries and the caller decides
 * what to do. Both can live inside the caller's record (give its address to
 * _new) or be allocated by _new (give null; _delete then frees the record).
 * They hold no lock: the owner serialises access.
 *
 *      buf: [ . . h x x x x t . . ]     entries from head up to tail,
 *      buf: [ x x t . . . . h x x ]     wrapping at bufSize
 *
 * One slot (one byte) always stays free, so head == tail means empty and
 * tail + 1 == head (modulo bufSize) means full; the entries are
 * tail - head, plus bufSize when that is negative. size and put check the
 * indices: when tail - head is not strictly between -bufSize and bufSize
 * they trace "fault err(%d,t=%d,h=%d,bs=%d,p=%p)" (difference, tail, head,
 * bufSize, queue) and raise the assertion
 * "err > -_this->bufSize && err < _this->bufSize", then carry on.
 *
 * Every operation checks the tag word (low 31 bits); a foreign record ends
 * the process through ObjUtil_crashExit.
 */
#ifndef VEK_QUE_H
#define VEK_QUE_H

#include "VekType.h"

VEK_BEGIN_DECLS

#define PTRQUE_TAG  0x5D0E12C8u  /* | 0x80000000 when PtrQue_new allocated it */
#define BYTEQUE_TAG 0x237AB953u  /* | 0x80000000 when ByteQue_new allocated it */

typedef struct PtrQue {
    vek_u32 tag;
    void** buf;       /* the slots (tracked heap) */
    vek_s32 bufSize;  /* slots: capacity + 1 */
    vek_s32 head;     /* next slot to read */
    vek_s32 tail;     /* next slot to write */
} PtrQue;

typedef struct ByteQue {
    vek_u32 tag;
    vek_u8* buf;      /* the ring storage */
    vek_u32 own;      /* 1 when the queue allocated buf and frees it */
    vek_s32 bufSize;  /* ring length in bytes */
    vek_s32 capa;     /* usable capacity, bufSize - 1 */
    vek_s32 head;     /* read index */
    vek_s32 tail;     /* write index */
} ByteQue;

/* Disposes of one queued pointer (PtrQue_clear). */
typedef void (*PtrQueDelFunc)(void* ptr);

/* ---- PtrQue ----
 * Null pointers should not be queued: get and peek answer null for empty. */

/* Builds a queue of capa pointers in que, or in a new record when que is
 * null (assertion "capa >= 0"; 0 is used then). Returns the queue; null when que is null and memory runs out (a
 * queue whose slots could not be allocated has capacity 0). */
VEK_API PtrQue* PtrQue_new(PtrQue* que, vek_s32 capa);
/* Frees the slots and, when PtrQue_new allocated it, the record. */
VEK_API void PtrQue_delete(PtrQue* que);
/* Number of queued pointers / capacity (bufSize - 1). */
VEK_API vek_s32 PtrQue_size(PtrQue* que);
VEK_API vek_s32 PtrQue_capa(PtrQue* que);
/* Removes every entry, oldest first, passing each to delFunc when given. */
VEK_API void PtrQue_clear(PtrQue* que, PtrQueDelFunc delFunc);
/* Removes / reads the oldest pointer; null when empty. */
VEK_API void* PtrQue_get(PtrQue* que);
VEK_API void* PtrQue_peek(PtrQue* que);
/* Appends ptr: 1, or 0 when the queue is full (nothing stored). */
VEK_API vek_s32 PtrQue_put(PtrQue* que, void* ptr);

/* ---- ByteQue ---- */

/* A ring of capa bytes of its own (storage of capa + 4 bytes, own 1) in que,
 * or in a new record when que is null (assertion "capa >= 0"; 0 is used
 * then). Returns the queue; null when que is
 * null and memory runs out (a ring whose storage could not be allocated has
 * capacity 0). */
VEK_API ByteQue* ByteQue_new(ByteQue* que, vek_s32 capa);
/* A ring over the caller's buffer of size bytes (capacity size - 1, own 0);
 * the buffer stays the caller's. A null buffer or a size below 1 is the
 * assertion "buf && size >= 1" and gives a ring of capacity 0. */
VEK_API ByteQue* ByteQue_newx(ByteQue* que, void* buf, vek_s32 size);
/* Frees the storage when the queue owns it, and the record when
 * ByteQue_new / ByteQue_newx allocated it. */
VEK_API void ByteQue_delete(ByteQue* que);
/* Queued bytes / capacity. */
VEK_API vek_s32 ByteQue_size(ByteQue* que);
VEK_API vek_s32 ByteQue_capa(ByteQue* que);
/* Empties the ring (both indices to 0). */
VEK_API void ByteQue_clear(ByteQue* que);
/* Removes / reads the next byte: 0 to 255, or VEK_ERR_QUEUE_EMPTY (-125). */
VEK_API vek_s32 ByteQue_get(ByteQue* que);
VEK_API vek_s32 ByteQue_peek(ByteQue* que);
/* Copy up to n bytes (as many as are queued) to dst, removing them (gets)
 * or not (peeks). Return the count, 0 when empty or n <= 0 (a null dst
 * with bytes to copy is the assertion "dst", and 0). */
VEK_API vek_s32 ByteQue_gets(ByteQue* que, void* dst, vek_s32 n);
VEK_API vek_s32 ByteQue_peeks(ByteQue* que, void* dst, vek_s32 n);
/* Discards up to n bytes; returns the count discarded. */
VEK_API vek_s32 ByteQue_skip(ByteQue* que, vek_s32 n);
/* Appends one byte: 1, or 0 when full. */
VEK_API vek_s32 ByteQue_put(ByteQue* que, vek_u8 byte);
/* Appends as many of the n bytes as fit: the count stored, 0 when full or
 * n <= 0 (a null src with room to write is the assertion "src", and 0). */
VEK_API vek_s32 ByteQue_puts(ByteQue* que, const void* src, vek_s32 n);
/* Appends all n bytes or none: n, or 0 (nothing stored) when fewer than n
 * bytes are free. */
VEK_API vek_s32 ByteQue_putf(ByteQue* que, const void* src, vek_s32 n);

VEK_END_DECLS

#endif /* VEK_QUE_H */
