/*
 * VekEvt.h - events, the generic event, its packets and the event manager.
 *
 * An event is a heap record behind a hidden prefix; every event starts with
 * the header EvtHdr, and the generic event (GenEvt) is that header alone:
 * two identifiers, two numbers, two strings and one byte stream.
 *
 *   block:  [ mark 0x3D10EA42 | cleanFn ]  [ the event ... ]
 *                  prefix                   ^ the caller's pointer
 *
 * Packets: a generic event travels as a Type Serialization Version 1
 * stream (little-endian, 8-byte aligned):
 *   +0   01 10 08 00 CC CC CC CC     common header (version 1, little-endian,
 *                                    header length 8, filler)
 *   +8   body length (u32), 0 (u32)  private header; the length counts the
 *                                    body with its filler to 8
 *   +16  body: eid, rid, num1, num2 (u32 each); three "User" markers
 *        (0x72657355), one per user-marshalled member; then, each 4-byte
 *        aligned, the user forms of str1 and str2 (VekStr_UserMarshal) and
 *        of strm (PIStrm_UserMarshal); zero filler to a multiple of 8.
 * One portable encoder and decoder of this form serve every platform.
 */
#ifndef VEK_EVT_H
#define VEK_EVT_H

#include <stddef.h>
#include "VekType.h"
#include "VekStr.h"

VEK_BEGIN_DECLS

#define VEK_EVT_MARK 0x3D10EA42u   /* class mark of the event prefix */

/* Releases an event's contents (not the block). */
typedef void (*EvtCleanFn)(void* evt);

/* ---- any event ----
 * Evt_alloc: one tracked heap block of the prefix plus size bytes, the
 * prefix holding the mark and cleanFn (null: EvtHdr_clean at delete). The
 * event's bytes are not initialised. Null when the heap is exhausted.
 * Evt_delete: checks the mark (a pointer without it, null included, ends
 * the process through ObjUtil_crashExit), calls cleanFn or EvtHdr_clean,
 * then frees the block. Evt_free: the mark check, then frees the block
 * without cleaning. Evt_eid / Evt_rid read the header's identifiers. */
VEK_API void* Evt_alloc(vek_u32 size, EvtCleanFn cleanFn);
VEK_API void Evt_delete(void* evt);
VEK_API void Evt_free(void* evt);
VEK_API vek_u32 Evt_eid(const void* evt);
VEK_API vek_u32 Evt_rid(const void* evt);

/* The header every event starts with; a generic event is exactly this. */
typedef struct EvtHdr {
    vek_u32 eid;       /* event identifier */
    vek_u32 rid;       /* second identifier carried with every event */
    vek_s32 num1;
    vek_s32 num2;
    VekStr str1;       /* owned */
    VekStr str2;       /* owned */
    IStrm* strm;       /* the event's binary data, or null; owned (one reference) */
} EvtHdr;
typedef EvtHdr GenEvt;

/* init: numbers and strm 0, both strings empty. clean: deletes both strings
 * and releases strm when set (strm is then null). The GenEvt forms are the
 * same operations. */
VEK_API void EvtHdr_init(EvtHdr* evt);
VEK_API void EvtHdr_clean(EvtHdr* evt);
VEK_API void GenEvt_init(GenEvt* evt);
VEK_API void GenEvt_clean(GenEvt* evt);

/* ---- generic event constructors ----
 * Each allocates with Evt_alloc(sizeof(GenEvt), GenEvt_clean), initialises
 * and fills. s1, s2: zero-terminated UTF-8 appended to str1, str2 (null:
 * nothing). strm: null for none; otherwise the event takes a clone
 * (IStrm_clone, a MemStrm; the caller keeps its stream) when cloneStrm is
 * not 0, and the caller's reference itself when it is 0 (the stream then
 * belongs to the event and is released with it). Delete with Evt_delete.
 * Null when memory runs out, for the event or any part of it (a stream
 * given with cloneStrm 0 then stays the caller's). */
VEK_API GenEvt* GenEvt_newnsd(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2, const char* s1, const char* s2,
                              IStrm* strm, vek_s32 cloneStrm);
VEK_API GenEvt* GenEvt_new(vek_u32 eid);
VEK_API GenEvt* GenEvt_newn(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2);
VEK_API GenEvt* GenEvt_newns(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2, const char* s1, const char* s2);
VEK_API GenEvt* GenEvt_newnd(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2, IStrm* strm, vek_s32 cloneStrm);
VEK_API GenEvt* GenEvt_newsd(vek_u32 eid, const char* s1, const char* s2, IStrm* strm, vek_s32 cloneStrm);

/* ---- RPC user marshalling of a stream pointer ----
 * Wire form (32-bit words in host order, no alignment required): 1 when
 * the pointer is null and 0 otherwise, the byte count (0 for null), then
 * the stream's whole content read from its start. UserSize returns offset
 * + 8 + the stream's size. UserMarshal rewinds the stream and reads it all
 * (a read that delivers nothing: "len > 0"; the count not used up exactly:
 * "size == 0") and returns the byte behind the form. UserUnmarshal makes
 * *pstrm null for the null form; otherwise it empties the stream already
 * there or creates a MemStrm, writes the bytes, rewinds, and returns the
 * byte behind the form. UserFree releases *pstrm and nulls it. flags is the
 * runtime's flag word and is not used; a null pstrm is the assertion
 * "pstrm". */
VEK_API vek_u32 PIStrm_UserSize(vek_u32* flags, vek_u32 offset, IStrm** pstrm);
VEK_API vek_u8* PIStrm_UserMarshal(vek_u32* flags, vek_u8* buffer, IStrm** pstrm);
VEK_API vek_u8* PIStrm_UserUnmarshal(vek_u32* flags, vek_u8* buffer, IStrm** pstrm);
VEK_API void PIStrm_UserFree(vek_u32* flags, IStrm** pstrm);

/* ---- packet memory ----
 * Packets come from MIDL_user_allocate (a tracked heap block) and go back
 * with MIDL_user_free (null is ignored). */
#if defined(_WIN32) && !defined(_WIN64)
#define VEK_RPC_USER __stdcall
#else
#define VEK_RPC_USER
#endif
VEK_API void* VEK_RPC_USER MIDL_user_allocate(size_t size);
VEK_API void VEK_RPC_USER MIDL_user_free(void* block);

/* ---- pickling handles ----
 * The library's own pickling handle, the same on every platform: an
 * encoding handle over a buffer it allocates (VekMes_encDynCreate: after an
 * encode *buf holds the packet from MIDL_user_allocate, which the caller
 * frees with MIDL_user_free, and *len its length; each encode replaces the
 * previous packet, which the caller then owns as well), or a decoding
 * handle over the caller's bytes (VekMes_decBufCreate: the bytes are read,
 * never copied or freed, and must outlive the handle). Both return 0 and
 * the handle in *hnd, or -9 for a null argument and -201 when the handle
 * cannot be allocated (*hnd null). VekMes_free releases a handle (null is
 * ignored); the packet stays with the caller. */
typedef struct VekMes VekMes;
VEK_API vek_s32 VekMes_encDynCreate(char** buf, vek_u32* len, VekMes** hnd);
VEK_API vek_s32 VekMes_decBufCreate(const char* buf, vek_u32 len, VekMes** hnd);
VEK_API void VekMes_free(VekMes* hnd);

/* GenEvt_AlignSize: the packet length that GenEvt_Encode would produce
 * (headers included, a multiple of 8). GenEvt_Encode: encodes evt through
 * an encoding handle. GenEvt_Decode: decodes one packet through a decoding
 * handle into an initialised event (GenEvt_init), replacing its contents.
 * handle is a VekMes, the same portable encoder on every platform; a handle
 * of the wrong direction is the assertion "0". On Windows a handle of the
 * RPC runtime (MesEncodeDynBufferHandleCreate, MesDecodeBufferHandleCreate
 * and their kin) is accepted too: the runtime then pickles the event with
 * the library's type description of it (NdrMesTypeAlignSize2/Encode2/
 * Decode2) and raises its own exceptions on bad data. Any other handle ends
 * the process (ObjUtil_crashExit).
 *
 * The decoder trusts nothing: every count is checked against the bytes
 * that remain before anything is read or allocated, the headers must say
 * version 1, little-endian, header length 8 and a body length that is a
 * multiple of 8 and fits the packet, each member marker must be "User",
 * and a string's capacity may exceed its text by at most the packet length
 * plus 64 KiB (a decoded string keeps at most 32 KiB of spare room). A
 * damaged packet raises the assertion "0" and leaves the event as it was;
 * the whole packet is checked before the event changes.
 * A string form with a non-zero size not above its length still decodes,
 * after the assertion "size == 0 || size > len". */
VEK_API vek_u32 GenEvt_AlignSize(void* handle, const GenEvt* evt);
VEK_API void GenEvt_Encode(void* handle, const GenEvt* evt);
VEK_API void GenEvt_Decode(void* handle, GenEvt* evt);

/* The packet encoder: the packet (MIDL_user_allocate; the caller frees it
 * with MIDL_user_free) and its length in *len, or null and *len 0. It
 * encodes through a VekMes of its own. Assertions: "0" when the packet
 * cannot be made, "(len % 8) == 0" on the result. The packet decoder: always a new generic event (Evt_delete); after
 * a bad packet it is the empty event. Assertions: "pkt" for a null packet,
 * "len > 0 && (len % 8) == 0" for a bad length, and those of GenEvt_Decode. */
VEK_API void* GenEvt_enc(const GenEvt* evt, vek_u32* len);
VEK_API GenEvt* GenEvt_dec(const void* pkt, vek_u32 len);

/* ---- event manager ----
 * A process-wide table of event identifiers, each with a name and a packet
 * encoder and decoder. EvtMng_init / EvtMng_exit are counted (BaseLib_init
 * and BaseLib_exit call them); the last exit empties the table. The table
 * is locked: any thread may use it.
 *   EvtMng_add: enters eid under name (copied) with enc and dec (null: the
 *     generic event's); 0, -111 when the name or the identifier is already
 *     entered, -9 for a null or empty name (assertion "name").
 *   EvtMng_del: removes the entry of name: 0, or -112 when there is none.
 *   EvtMng_name: the name entered for eid, or "EID_UNKN"; valid until the
 *     entry is removed.
 *   EvtMng_enc: the packet of evt through the encoder of its own eid;
 *   EvtMng_encx: through the encoder of eid (an event sent under another
 *     identifier); EvtMng_dec: the event decoded by the decoder of eid.
 *   Identifiers without an entry use GenEvt_enc and GenEvt_dec. */
typedef void* (*EvtEncFn)(const void* evt, vek_u32* len);
typedef void* (*EvtDecFn)(const void* pkt, vek_u32 len);
VEK_API vek_s32 EvtMng_add(vek_u32 eid, const char* name, EvtEncFn enc, EvtDecFn dec);
VEK_API vek_s32 EvtMng_del(const char* name);
VEK_API const char* EvtMng_name(vek_u32 eid);
VEK_API void* EvtMng_enc(const void* evt, vek_u32* len);
VEK_API void* EvtMng_encx(vek_u32 eid, const void* evt, vek_u32* len);
VEK_API void* EvtMng_dec(vek_u32 eid, const void* pkt, vek_u32 len);

VEK_END_DECLS

#endif /* VEK_EVT_H */
