/*
 * VekStack.h - bounded stacks: PtrStack (pointers, array of its own) and
 * BlkStack (fixed-size records in a caller's buffer). Neither grows: a full
 * stack refuses a push.
 *
 * A stack lives in the caller's record (give its address to _new) or in one
 * _new allocates (give null; _delete frees it). Every operation checks the
 * tag word (low 31 bits); a foreign record ends the process through
 * ObjUtil_crashExit. No locking: the owner serialises access.
 */
#ifndef VEK_STACK_H
#define VEK_STACK_H

#include "VekType.h"

VEK_BEGIN_DECLS

#define PTRSTACK_TAG 0x1B9A918Eu  /* | 0x80000000 when PtrStack_new allocated it */
#define BLKSTACK_TAG 0x27AC1908u  /* | 0x80000000 when BlkStack_new allocated it */

typedef struct PtrStack {
    vek_u32 tag;
    vek_u32 rsv;     /* reserved, 0 */
    void** tab;      /* the pointers */
    vek_s32 size;    /* pointers that fit */
    vek_s32 top;     /* pointers held */
} PtrStack;

typedef struct BlkStack {
    vek_u32 tag;
    vek_u32 rsv;      /* reserved, 0 */
    vek_u8* buf;      /* the caller's buffer */
    vek_s32 eleSize;  /* bytes per record */
    vek_s32 size;     /* records that fit */
    vek_s32 top;      /* records held */
} BlkStack;

/* ---- PtrStack ---- */

/* A stack of size pointers (assertion "size >= 1"; 1 is used then) in stk,
 * or in a new record when stk is null. Returns the stack; null when stk is
 * null and memory runs out (a stack whose array could not be allocated
 * holds nothing). */
VEK_API PtrStack* PtrStack_new(PtrStack* stk, vek_s32 size);
/* Frees the array and, when PtrStack_new allocated it, the record. */
VEK_API void PtrStack_delete(PtrStack* stk);
/* Empties the stack. */
VEK_API void PtrStack_clear(PtrStack* stk);
/* 1, or 0 (nothing changed) when the stack is full. */
VEK_API vek_s32 PtrStack_push(PtrStack* stk, void* ptr);
/* The top pointer, removed / left in place; null when empty. */
VEK_API void* PtrStack_pop(PtrStack* stk);
VEK_API void* PtrStack_top(PtrStack* stk);

/* ---- BlkStack ---- */

/* A stack of records of eleSize bytes over the caller's buffer of bufSize
 * bytes (size = bufSize / eleSize), in stk or in a new record when stk is
 * null. Assertions "eleSize >= 1", "buf" and "bufSize >= eleSize"; the
 * stack then holds nothing. The buffer stays the caller's. */
VEK_API BlkStack* BlkStack_new(BlkStack* stk, vek_s32 eleSize, void* buf, vek_s32 bufSize);
/* Cleans the stack and frees the record when BlkStack_new allocated it. */
VEK_API void BlkStack_delete(BlkStack* stk);
VEK_API void BlkStack_clear(BlkStack* stk);
/* Copies eleSize bytes from rec (zeroes when rec is null) on top: 1, or 0
 * when full, after the trace "no room for push, size=%d" (with top). */
VEK_API vek_s32 BlkStack_push(BlkStack* stk, const void* rec);
/* Removes the top record, copies it to out when non-null and returns it in
 * the stack's buffer (valid until the next push). When empty: the trace
 * "pop without item", the assertion "_this->top > 0", and null. */
VEK_API void* BlkStack_pop(BlkStack* stk, void* out);
/* The top record in the buffer, or null when empty. */
VEK_API void* BlkStack_top(BlkStack* stk);

VEK_END_DECLS

#endif /* VEK_STACK_H */
