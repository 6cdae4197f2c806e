/*
 * VekVect.h - vectors: PtrVect (non-null pointers) and BlkVect (fixed-size
 * records copied by value).
 *
 * Both grow by exactly one element when full, copying the whole array, so
 * they suit short collections whose size is known roughly at creation
 * (give _new a generous size when many additions are expected). Removal
 * moves the last element into the freed slot: order is not kept.
 *
 * A vector lives in the caller's record (give its address to _new) or in
 * one _new allocates (give null; _delete frees it). Every operation checks
 * the tag word (low 31 bits); a foreign record ends the process through
 * ObjUtil_crashExit. No locking: the owner serialises access.
 */
#ifndef VEK_VECT_H
#define VEK_VECT_H

#include "VekType.h"

VEK_BEGIN_DECLS

#define PTRVECT_TAG 0x4B103EF2u  /* | 0x80000000 when PtrVect_new allocated it */
#define BLKVECT_TAG 0x3E90B28Du  /* | 0x80000000 when BlkVect_new allocated it */

typedef struct PtrVect {
    vek_u32 tag;
    void** tab;      /* the pointers */
    vek_s32 size;    /* slots allocated */
    vek_s32 count;   /* slots used */
} PtrVect;

typedef struct BlkVect {
    vek_u32 tag;
    vek_u8* tab;      /* the records, eleSize bytes each */
    vek_s32 eleSize;  /* bytes per record */
    vek_s32 size;     /* records allocated */
    vek_s32 count;    /* records used */
} BlkVect;

/* Disposes of one element (PtrVect_clear, PtrVect_del). */
typedef void (*PtrVectDelFunc)(void* ptr);

/* ---- PtrVect ---- */

/* A vector of size slots (assertion "size >= 1"; 1 is used then) in vec, or
 * in a new record when vec is null. Returns the vector; null when vec is
 * null and memory runs out (a vector whose slots could not be allocated
 * has none and grows on the first add). */
VEK_API PtrVect* PtrVect_new(PtrVect* vec, vek_s32 size);
/* Frees the slots and, when PtrVect_new allocated it, the record. The
 * elements are the caller's. */
VEK_API void PtrVect_delete(PtrVect* vec);
/* Passes every element to delFunc (when given), in index order, and
 * empties the vector. */
VEK_API void PtrVect_clear(PtrVect* vec, PtrVectDelFunc delFunc);
/* Appends ptr (assertion "ptr"), growing by one slot when full: 0, or
 * VEK_ERR_FULL when the growth failed; VEK_ERR_BAD_ARG for a null ptr. */
VEK_API vek_s32 PtrVect_add(PtrVect* vec, void* ptr);
/* Removes the first slot holding ptr (assertion "ptr"), moving the last
 * element into it: 0, or VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 PtrVect_dele(PtrVect* vec, void* ptr);
/* Removes the element at index (assertions
 * "index >= 0 && index < _this->count" and "_this->tab[index]"), passing it
 * to delFunc when given; the last element moves into its slot. 0, or
 * VEK_ERR_BAD_ARG (nothing removed) for an index out of range. */
VEK_API vek_s32 PtrVect_del(PtrVect* vec, vek_s32 index, PtrVectDelFunc delFunc);
/* The element at index (assertion "index >= 0 && index < _this->count");
 * null out of range. */
VEK_API void* PtrVect_ele(PtrVect* vec, vek_s32 index);

/* ---- BlkVect ---- */

/* A vector of size records of eleSize bytes (assertion
 * "size > 0 && eleSize > 0"; 1 is used for a smaller value), in vec or in
 * a new record when vec is null. */
VEK_API BlkVect* BlkVect_new(BlkVect* vec, vek_s32 size, vek_s32 eleSize);
VEK_API void BlkVect_delete(BlkVect* vec);
/* Empties the vector, keeping its storage. */
VEK_API void BlkVect_clear(BlkVect* vec);
/* Appends a copy of eleSize bytes from rec (assertion "rec"), growing by
 * one record when full: the new record's index, VEK_ERR_FULL when the
 * growth failed, VEK_ERR_BAD_ARG for a null rec. */
VEK_API vek_s32 BlkVect_add(BlkVect* vec, const void* rec);
/* Removes the record at index, moving the last record into its place:
 * 1, or 0 when there is no such record (an empty vector included). */
VEK_API vek_s32 BlkVect_del(BlkVect* vec, vek_s32 index);
/* The record at index, in the vector's storage (valid until the next add
 * or del; assertion "index >= 0 && index < _this->count"); null out of
 * range. */
VEK_API void* BlkVect_ele(BlkVect* vec, vek_s32 index);

VEK_END_DECLS

#endif /* VEK_VECT_H */
