/*
 * BaseItf.h - the object model shared by every interface object of the
 * library, and IStrm, the one byte-stream interface.
 *
 * An interface object is a record that starts with
 *     vek_u32 cls;   class word: 31-bit class number; top bit set when the
 *                    object's own _new allocated it
 *     AlAtom  ref;   reference count (atomic)
 *     vtbl;          pointer to the class's operation table
 * and callers hold the address of the table pointer (the interface
 * pointer). _new builds in caller storage, or allocates when given null;
 * _xcreate__ builds and returns the interface with one reference; release
 * at zero calls _delete, which frees the storage only when the class word's
 * top bit is set. Empty slots hold ObjUtil_vfuncNull.
 */
#ifndef VEK_BASEITF_H
#define VEK_BASEITF_H

#include "VekType.h"
#include "AlOs.h"

VEK_BEGIN_DECLS

/* An interface identifier, compared as 16 bytes (four 32-bit words). */
typedef struct VekGuid {
    vek_u32 data1;
    vek_u16 data2;
    vek_u16 data3;
    vek_u8 data4[8];
} VekGuid;

/* 00000000-0000-0000-c000-000000000046: the generic base interface. */
#define VEK_IID_IUNKNOWN_INIT {0x00000000u, 0x0000, 0x0000, {0xc0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}}
/* 27d01e74-f31b-4276-bfcb-09d9b048faeb: IStrm. */
#define VEK_IID_ISTRM_INIT {0x27d01e74u, 0xf31b, 0x4276, {0xbf, 0xcb, 0x09, 0xd9, 0xb0, 0x48, 0xfa, 0xeb}}

#define VEK_CLS_OWNED 0x80000000u  /* class-word bit: allocated by its own _new */
#define VEK_CLS_MASK  0x7FFFFFFFu
/* The interface pointer of an object record built by a _new: the address
 * of its table pointer, e.g. VEK_OBJ_ITF(IStrm, &memStrm). */
#define VEK_OBJ_ITF(Itf, obj) ((Itf*)(void*)&(obj)->vtbl)

/* The three operations every interface starts with. queryItf returns 0 and
 * the interface with one more reference for a known identifier, -95 and a
 * null result otherwise; addRef returns the new count; release returns the
 * remaining count and destroys the object at zero. */
typedef struct IVekItf IVekItf;
typedef struct IVekItfVtbl {
    vek_s32 (*queryItf)(IVekItf* self, const VekGuid* iid, void** out);
    vek_s32 (*addRef)(IVekItf* self);
    vek_s32 (*release)(IVekItf* self);
} IVekItfVtbl;
struct IVekItf {
    const IVekItfVtbl* vtbl;
};

/* ---- IStrm ----
 * Slot order is binding. Positions and lengths are 64-bit; single block
 * lengths are 32-bit. read/write with a null buffer or a length of 0 or less
 * are assertion failures. Errors: -23 nothing open / nothing to step back
 * over, -81 bad argument, -9 out of range (string streams), -94 read-only,
 * -95 not supported, -202 end of stream. */
typedef struct IStrmVtbl {
    vek_s32 (*queryItf)(IStrm* self, const VekGuid* iid, void** out); /* 0 */
    vek_s32 (*addRef)(IStrm* self);                                   /* 1 */
    vek_s32 (*release)(IStrm* self);                                  /* 2 */
    vek_s32 (*putc)(IStrm* self, vek_s32 byte);                       /* 3: 0 or error */
    vek_s32 (*getc)(IStrm* self);                                     /* 4: 0..255 or -202 */
    vek_s32 (*ungetc)(IStrm* self);                                   /* 5: 0 or -23 */
    vek_s32 (*read)(IStrm* self, void* buf, vek_s32 len);             /* 6: bytes read */
    vek_s32 (*write)(IStrm* self, const void* data, vek_s32 len);     /* 7: len or error */
    vek_s32 (*seek)(IStrm* self, vek_s64 offset, vek_s32 origin);     /* 8: origin 0/1/2 */
    vek_s64 (*tell)(IStrm* self);                                     /* 9 */
    vek_s32 (*flush)(IStrm* self);                                    /* 10 */
    vek_s64 (*size)(IStrm* self);                                     /* 11 */
    vek_s32 (*clear)(IStrm* self);                                    /* 12 */
    vek_s32 (*setSize)(IStrm* self, vek_s64 newLen);                  /* 13 */
    const char* (*className)(IStrm* self);                            /* 14 */
} IStrmVtbl;
struct IStrm {
    const IStrmVtbl* vtbl;
};

/* Call helpers (the parentheses keep stdio's getc/putc macros away). */
#define IStrm_vcall(s, op) ((s)->vtbl->op)
static inline vek_s32 IStrm_addRef(IStrm* s) { return (s->vtbl->addRef)(s); }
static inline vek_s32 IStrm_release(IStrm* s) { return (s->vtbl->release)(s); }
static inline vek_s32 IStrm_putc(IStrm* s, vek_s32 b) { return (s->vtbl->putc)(s, b); }
static inline vek_s32 IStrm_getc(IStrm* s) { return (s->vtbl->getc)(s); }
static inline vek_s32 IStrm_ungetc(IStrm* s) { return (s->vtbl->ungetc)(s); }
static inline vek_s32 IStrm_read(IStrm* s, void* b, vek_s32 n) { return (s->vtbl->read)(s, b, n); }
static inline vek_s32 IStrm_write(IStrm* s, const void* d, vek_s32 n) { return (s->vtbl->write)(s, d, n); }
static inline vek_s32 IStrm_seek(IStrm* s, vek_s64 o, vek_s32 org) { return (s->vtbl->seek)(s, o, org); }
static inline vek_s64 IStrm_tell(IStrm* s) { return (s->vtbl->tell)(s); }
static inline vek_s32 IStrm_flush(IStrm* s) { return (s->vtbl->flush)(s); }
static inline vek_s64 IStrm_size(IStrm* s) { return (s->vtbl->size)(s); }
static inline vek_s32 IStrm_clear(IStrm* s) { return (s->vtbl->clear)(s); }
static inline vek_s32 IStrm_setSize(IStrm* s, vek_s64 n) { return (s->vtbl->setSize)(s, n); }
static inline const char* IStrm_className(IStrm* s) { return (s->vtbl->className)(s); }

/* ---- IVekEnum: the enumerator interface ----
 * Walks a collection without changing it; the collection must not change
 * while an enumerator is in use, unless its enumerator says otherwise
 * (ItfEnum, ItfUtil.h, sees a fixed view of a changing collection). next stores the current element in *out
 * and advances: 1, or 0 (and *out null) at the end; reset starts again;
 * clone makes an independent enumerator at the same place with one
 * reference (0, or a negative error and *out null). */
/* 8c5d3a6e-4b1f-4f0a-a2d7-6e93c01b5f48: IVekEnum. */
#define VEK_IID_IVEKENUM_INIT {0x8c5d3a6eu, 0x4b1f, 0x4f0a, {0xa2, 0xd7, 0x6e, 0x93, 0xc0, 0x1b, 0x5f, 0x48}}
typedef struct IVekEnum IVekEnum;
typedef struct IVekEnumVtbl {
    vek_s32 (*queryItf)(IVekEnum* self, const VekGuid* iid, void** out); /* 0 */
    vek_s32 (*addRef)(IVekEnum* self);                                   /* 1 */
    vek_s32 (*release)(IVekEnum* self);                                  /* 2 */
    vek_s32 (*next)(IVekEnum* self, void** out);                         /* 3 */
    vek_s32 (*reset)(IVekEnum* self);                                    /* 4 */
    vek_s32 (*clone)(IVekEnum* self, IVekEnum** out);                    /* 5 */
} IVekEnumVtbl;
struct IVekEnum {
    const IVekEnumVtbl* vtbl;
};
static inline vek_s32 IVekEnum_addRef(IVekEnum* e) { return (e->vtbl->addRef)(e); }
static inline vek_s32 IVekEnum_release(IVekEnum* e) { return (e->vtbl->release)(e); }
static inline vek_s32 IVekEnum_next(IVekEnum* e, void** out) { return (e->vtbl->next)(e, out); }
static inline vek_s32 IVekEnum_reset(IVekEnum* e) { return (e->vtbl->reset)(e); }
static inline vek_s32 IVekEnum_clone(IVekEnum* e, IVekEnum** out) { return (e->vtbl->clone)(e, out); }

/* Free functions: the destination is written, the source is read; both are
 * borrowed. Null streams or paths are assertion failures. */

/* Formats like printf and writes to the stream; the characters written or a
 * negative error. */
VEK_API vek_s32 IStrm_printf(IStrm* strm, const char* fmt, ...) VEK_PRINTF(2, 3);
VEK_API vek_s32 IStrm_vprintf(IStrm* strm, const char* fmt, va_list args);
/* A new memory stream holding a copy of the whole source (one reference);
 * null when the copy could not be made whole (memory ran out). */
VEK_API IStrm* IStrm_clone(IStrm* src);
/* Replaces dst's content with src's bytes (from src's start when fromStart
 * is non-zero, else from its position); dst ends at position 0, src's
 * position is unchanged. 0 or the first negative error. */
VEK_API vek_s32 IStrm_copy(IStrm* dst, IStrm* src);
VEK_API vek_s32 IStrm_copyx(IStrm* dst, IStrm* src, vek_s32 fromStart);
/* Like copy, but writes at dst's end and leaves dst there. */
VEK_API vek_s32 IStrm_appd(IStrm* dst, IStrm* src);
VEK_API vek_s32 IStrm_appdx(IStrm* dst, IStrm* src, vek_s32 fromStart);
/* Writes src to a file created with mode "wb"; 0 or a negative error. */
VEK_API vek_s32 IStrm_toFile(IStrm* src, const char* path);
VEK_API vek_s32 IStrm_toFilex(IStrm* src, const char* path, vek_s32 fromStart);
/* Replaces dst's content with the file's bytes; -64 when it cannot be opened. */
VEK_API vek_s32 IStrm_fromFile(IStrm* dst, const char* path);

VEK_END_DECLS

#endif /* VEK_BASEITF_H */
