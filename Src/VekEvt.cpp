/*
 * VekEvt.cpp - events behind a marked prefix, the generic event, its
 * packets (Type Serialization Version 1 around an NDR body) and the event
 * manager.
 *
 * One portable encoder and decoder of the packet form serve every platform,
 * so that a packet made anywhere decodes anywhere. The decoder reads
 * packets from other processes: it first walks the whole packet checking
 * every count against the bytes that remain, and only then changes the
 * event, so a damaged packet never reads past its end, never allocates by
 * a number it carries, and leaves the event as it was.
 */
#include <cstring>
#include "AlPlat.h"
#include "PmFrame.h"
#include "VekCore.h"
#include "VekEvt.h"
#include "VekStrm.h"

namespace {

const char kSrc[] = __FILE__;

/* ------------------------------------------------------------ the prefix */

struct EvtPrefix {
    vek_u32 mark;          // VEK_EVT_MARK while the event lives
    EvtCleanFn clean;      // releases the contents, or null
};

EvtPrefix* prefix_of(const void* evt, int line) {
    if (!evt) {
        ObjUtil_crashExit(kSrc, line);
    }
    EvtPrefix* pre = (EvtPrefix*)((char*)const_cast<void*>(evt) - sizeof(EvtPrefix));
    if (pre->mark != VEK_EVT_MARK) {
        ObjUtil_crashExit(kSrc, line);
    }
    return pre;
}

/* ------------------------------------------------------- little-endian words */

void put32(vek_u8* p, vek_u32 v) {
    p[0] = (vek_u8)v;
    p[1] = (vek_u8)(v >> 8);
    p[2] = (vek_u8)(v >> 16);
    p[3] = (vek_u8)(v >> 24);
}

vek_u32 get32(const vek_u8* p) {
    return (vek_u32)p[0] | (vek_u32)p[1] << 8 | (vek_u32)p[2] << 16 | (vek_u32)p[3] << 24;
}

constexpr vek_u32 align4(vek_u32 n) {
    return (n + 3u) & ~3u;
}

constexpr vek_u32 align8(vek_u32 n) {
    return (n + 7u) & ~7u;
}

/* ------------------------------------------------------------ the packet */

constexpr vek_u32 kHdrLen = 16;             // common and private header
constexpr vek_u32 kUserMarker = 0x72657355; // "User": the referent of a user-marshalled member
constexpr vek_u32 kFixedLen = 16 + 3 * 4;   // four numbers, three markers
constexpr vek_u32 kStrForm = 12;            // magic, size, len
constexpr vek_u32 kStrmForm = 8;            // null word, count
constexpr vek_u32 kMaxSpare = 65536;        // capacity beyond the packet a string may ask for
// Capacity beyond its text that a decoded string gets at most. It lies
// far enough under kMaxSpare that the string's own growth rounding cannot
// carry a decoded string past kMaxSpare when it is sent on.
constexpr vek_u32 kKeepSpare = 32768;
// Larger packets than this are refused: lengths must stay 32-bit with room
// for the headers and the filler.
constexpr vek_u64 kMaxPacket = 0x7FFFFF00u;

// Where each user form starts, as offsets into the body, and its length.
struct Layout {
    vek_u32 str1, str2, strm, end;
};

// The body layout of an event; false when it would not fit a packet.
bool layout_of(const GenEvt* evt, Layout* l) {
    vek_u32 flags = 0;
    vek_u64 off = kFixedLen;
    l->str1 = (vek_u32)off;
    off = VekStr_UserSize(&flags, (vek_u32)off, const_cast<VekStr*>(&evt->str1));
    l->str2 = align4((vek_u32)off);
    off = VekStr_UserSize(&flags, l->str2, const_cast<VekStr*>(&evt->str2));
    l->strm = align4((vek_u32)off);
    vek_s64 strmLen = evt->strm ? IStrm_size(evt->strm) : 0;
    if (strmLen < 0 || (vek_u64)strmLen + l->strm + kStrmForm + kHdrLen > kMaxPacket) {
        return false;
    }
    off = l->strm + kStrmForm + (vek_u64)strmLen;
    l->end = (vek_u32)off;
    return true;
}

// Writes the whole packet (length kHdrLen + align8(l.end)) to out.
void write_packet(const GenEvt* evt, const Layout& l, vek_u8* out) {
    vek_u32 body = align8(l.end);
    std::memset(out, 0, kHdrLen + body);
    out[0] = 1;      // version
    out[1] = 0x10;   // little-endian, ASCII
    out[2] = 8;      // common header length
    std::memset(out + 4, 0xCC, 4);
    put32(out + 8, body);
    vek_u8* b = out + kHdrLen;
    put32(b, evt->eid);
    put32(b + 4, evt->rid);
    put32(b + 8, (vek_u32)evt->num1);
    put32(b + 12, (vek_u32)evt->num2);
    for (int i = 0; i < 3; i++) {
        put32(b + 16 + 4 * i, kUserMarker);
    }
    vek_u32 flags = 0;
    VekStr_UserMarshal(&flags, b + l.str1, const_cast<VekStr*>(&evt->str1));
    VekStr_UserMarshal(&flags, b + l.str2, const_cast<VekStr*>(&evt->str2));
    IStrm* strm = evt->strm;
    PIStrm_UserMarshal(&flags, b + l.strm, &strm);
}

// Walks a packet without touching anything: the offsets of the user forms
// into the body, and the packet's whole length. False for any damage.
bool check_packet(const vek_u8* pkt, vek_u32 len, Layout* l, vek_u32* used) {
    if (len < kHdrLen || pkt[0] != 1 || pkt[1] != 0x10 || pkt[2] != 8 || pkt[3] != 0) {
        return false;
    }
    vek_u32 body = get32(pkt + 8);
    if (body % 8 != 0 || body > len - kHdrLen || body < kFixedLen) {
        return false;
    }
    const vek_u8* b = pkt + kHdrLen;
    for (int i = 0; i < 3; i++) {
        if (get32(b + 16 + 4 * i) != kUserMarker) {
            return false;
        }
    }
    vek_u32 off = kFixedLen;
    vek_u32* strs[2] = {&l->str1, &l->str2};
    for (vek_u32* at : strs) {
        off = align4(off);
        if (body - off < kStrForm) {
            return false;
        }
        vek_s32 size = (vek_s32)get32(b + off + 4);
        vek_s32 n = (vek_s32)get32(b + off + 8);
        if (n < 0 || size < 0 || (vek_u32)n > body - off - kStrForm ||
            (vek_u64)size > (vek_u64)n + 1 + len + kMaxSpare) {
            return false;
        }
        *at = off;
        off += kStrForm + (vek_u32)n;
    }
    off = align4(off);
    if (body < off || body - off < kStrmForm) {
        return false;
    }
    vek_u32 isNull = get32(b + off);
    vek_u32 count = get32(b + off + 4);
    if (isNull > 1 || (isNull && count) || count > body - off - kStrmForm) {
        return false;
    }
    l->strm = off;
    l->end = off + kStrmForm + count;
    *used = kHdrLen + body;
    return true;
}

// Rebuilds a string from its form (already checked), its capacity kept to
// kKeepSpare beyond the text.
void unmarshal_str(vek_u8* form, VekStr* str) {
    vek_u32 flags = 0;
    vek_u32 n = get32(form + 8);
    if (get32(form + 4) > n + 1 + kKeepSpare) {
        vek_u8* copy = (vek_u8*)vek_malloc__(kStrForm + n);
        if (copy) {
            std::memcpy(copy, form, kStrForm + n);
            put32(copy + 4, n + 1 + kKeepSpare);
            VekStr_UserUnmarshal(&flags, copy, str);
            vek_free__(copy);
            return;
        }
    }
    VekStr_UserUnmarshal(&flags, form, str);
}

/* ---------------------------------------------------------- the handles */

constexpr vek_u32 kMesTag = 0x4D45A5E5;
enum MesOp : vek_u32 { kMesEnc = 1, kMesDec = 2 };

} // namespace

struct VekMes {
    vek_u32 tag;            // kMesTag while the handle lives
    vek_u32 op;             // kMesEnc or kMesDec
    char** pBuf;            // encoding: where each packet goes
    vek_u32* pLen;
    const vek_u8* buf;      // decoding: the caller's bytes
    vek_u32 len;
    vek_u32 pos;            // decoding: the next packet
};

namespace {

VekMes* mes_check(void* handle, int line) {
    VekMes* h = (VekMes*)handle;
    if (!h || h->tag != kMesTag) {
        ObjUtil_crashExit(kSrc, line);
    }
    return h;
}

// The library's own handle, or null for a handle of the platform's RPC
// runtime, which then does the work (plat::evt_pickle). Anything else ends
// the process.
VekMes* mes_or_runtime(void* handle, vek_s32 op, const GenEvt* evt, vek_u32* size, int line) {
    VekMes* h = (VekMes*)handle;
    if (h && h->tag == kMesTag) {
        return h;
    }
    if (!h || !plat::evt_pickle(op, handle, const_cast<GenEvt*>(evt), size)) {
        ObjUtil_crashExit(kSrc, line);
    }
    return nullptr;
}

VekMes* mes_new(vek_u32 op) {
    VekMes* h = (VekMes*)vek_malloc__(sizeof(VekMes));
    if (h) {
        std::memset(h, 0, sizeof *h);
        h->tag = kMesTag;
        h->op = op;
    }
    return h;
}

// The generic event's clean function as the prefix stores it. A reader of
// the prefix finds &GenEvt_clean itself there; Evt_delete recognises that
// pointer and calls it through its own type, since a call through a
// function pointer cast to another type is undefined.
EvtCleanFn gen_clean_fn(void) {
    return reinterpret_cast<EvtCleanFn>(&GenEvt_clean);
}

GenEvt* gen_alloc(void) {
    GenEvt* evt = (GenEvt*)Evt_alloc(sizeof(GenEvt), gen_clean_fn());
    if (evt) {
        GenEvt_init(evt);
    }
    return evt;
}

} // namespace

extern "C" {

/* ------------------------------------------------------------ any event */

VEK_API void* Evt_alloc(vek_u32 size, EvtCleanFn cleanFn) {
    EvtPrefix* pre = (EvtPrefix*)vek_malloc__(sizeof(EvtPrefix) + size);
    if (!pre) {
        return nullptr;
    }
    pre->mark = VEK_EVT_MARK;
    pre->clean = cleanFn;
    return pre + 1;
}

VEK_API void Evt_delete(void* evt) {
    EvtPrefix* pre = prefix_of(evt, __LINE__);
    if (pre->clean == gen_clean_fn()) {
        GenEvt_clean((GenEvt*)evt);
    } else if (pre->clean) {
        pre->clean(evt);
    } else {
        EvtHdr_clean((EvtHdr*)evt);
    }
    pre->mark = 0;   // a second delete of the same pointer is then caught
    vek_free__(pre);
}

VEK_API void Evt_free(void* evt) {
    EvtPrefix* pre = prefix_of(evt, __LINE__);
    pre->mark = 0;
    vek_free__(pre);
}

VEK_API vek_u32 Evt_eid(const void* evt) {
    return ((const EvtHdr*)evt)->eid;
}

VEK_API vek_u32 Evt_rid(const void* evt) {
    return ((const EvtHdr*)evt)->rid;
}

VEK_API void EvtHdr_init(EvtHdr* evt) {
    evt->eid = evt->rid = 0;
    evt->num1 = evt->num2 = 0;
    evt->strm = nullptr;
    VekStr_new(&evt->str1);
    VekStr_new(&evt->str2);
}

VEK_API void EvtHdr_clean(EvtHdr* evt) {
    VekStr_delete(&evt->str1);
    VekStr_delete(&evt->str2);
    if (evt->strm) {
        IStrm* s = evt->strm;
        evt->strm = nullptr;
        IStrm_release(s);
    }
}

VEK_API void GenEvt_init(GenEvt* evt) {
    EvtHdr_init(evt);
}

VEK_API void GenEvt_clean(GenEvt* evt) {
    EvtHdr_clean(evt);
}

/* -------------------------------------------------------- constructors */

VEK_API GenEvt* GenEvt_newnsd(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2, const char* s1, const char* s2,
                              IStrm* strm, vek_s32 cloneStrm) {
    GenEvt* evt = gen_alloc();
    if (!evt) {
        return nullptr;
    }
    evt->eid = eid;
    evt->rid = rid;
    evt->num1 = num1;
    evt->num2 = num2;
    // An event missing a text or its stream would travel as a different
    // event: running out of memory gives none at all.
    bool ok = true;
    if (s1) {
        VekStr_appdStr(&evt->str1, s1);
        ok = VekStr_len(&evt->str1) == (vek_s32)std::strlen(s1);
    }
    if (s2 && ok) {
        VekStr_appdStr(&evt->str2, s2);
        ok = VekStr_len(&evt->str2) == (vek_s32)std::strlen(s2);
    }
    if (strm && ok) {
        evt->strm = cloneStrm ? IStrm_clone(strm) : strm;
        ok = evt->strm != nullptr;
    }
    if (!ok) {
        Evt_delete(evt);
        return nullptr;
    }
    return evt;
}

VEK_API GenEvt* GenEvt_new(vek_u32 eid) {
    return GenEvt_newnsd(eid, 0, 0, 0, nullptr, nullptr, nullptr, 0);
}

VEK_API GenEvt* GenEvt_newn(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2) {
    return GenEvt_newnsd(eid, rid, num1, num2, nullptr, nullptr, nullptr, 0);
}

VEK_API GenEvt* GenEvt_newns(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2, const char* s1, const char* s2) {
    return GenEvt_newnsd(eid, rid, num1, num2, s1, s2, nullptr, 0);
}

VEK_API GenEvt* GenEvt_newnd(vek_u32 eid, vek_u32 rid, vek_s32 num1, vek_s32 num2, IStrm* strm, vek_s32 cloneStrm) {
    return GenEvt_newnsd(eid, rid, num1, num2, nullptr, nullptr, strm, cloneStrm);
}

VEK_API GenEvt* GenEvt_newsd(vek_u32 eid, const char* s1, const char* s2, IStrm* strm, vek_s32 cloneStrm) {
    return GenEvt_newnsd(eid, 0, 0, 0, s1, s2, strm, cloneStrm);
}

/* ------------------------------------------------- stream user marshal */

VEK_API vek_u32 PIStrm_UserSize(vek_u32* flags, vek_u32 offset, IStrm** pstrm) {
    (void)flags;
    if (!pstrm) {
        vek_assert__("pstrm", kSrc, __LINE__);
        return offset;
    }
    vek_s64 n = *pstrm ? IStrm_size(*pstrm) : 0;
    return offset + kStrmForm + (vek_u32)(n > 0 ? n : 0);
}

// Reads the stream whole from its start into the form, leaving its
// position where it was.
VEK_API vek_u8* PIStrm_UserMarshal(vek_u32* flags, vek_u8* buffer, IStrm** pstrm) {
    (void)flags;
    if (!pstrm) {
        vek_assert__("pstrm", kSrc, __LINE__);
        return buffer;
    }
    IStrm* s = *pstrm;
    put32(buffer, s ? 0 : 1);
    if (!s) {
        put32(buffer + 4, 0);
        return buffer + kStrmForm;
    }
    vek_s64 total = IStrm_size(s);
    vek_u32 size = (vek_u32)(total > 0 ? total : 0);
    put32(buffer + 4, size);
    vek_u8* p = buffer + kStrmForm;
    vek_s64 pos = IStrm_tell(s);
    IStrm_seek(s, 0, 0);
    while (size > 0) {
        vek_s32 len = IStrm_read(s, p, (vek_s32)size);
        if (!(len > 0)) {
            vek_assert__("len > 0", kSrc, __LINE__);
            break;
        }
        p += len;
        size -= (vek_u32)len;
    }
    if (!(size == 0)) {
        vek_assert__("size == 0", kSrc, __LINE__);
        std::memset(p, 0, size);   // the count was sent: keep the form whole
        p += size;
    }
    IStrm_seek(s, pos, 0);
    return p;
}

VEK_API vek_u8* PIStrm_UserUnmarshal(vek_u32* flags, vek_u8* buffer, IStrm** pstrm) {
    (void)flags;
    if (!pstrm) {
        vek_assert__("pstrm", kSrc, __LINE__);
        return buffer;
    }
    vek_u32 isNull = get32(buffer);
    vek_u32 count = get32(buffer + 4);
    if (isNull) {
        if (*pstrm) {
            IStrm_release(*pstrm);
            *pstrm = nullptr;
        }
        return buffer + kStrmForm;
    }
    if (*pstrm) {
        IStrm_clear(*pstrm);
    } else {
        *pstrm = MemStrm_xcreatex__(nullptr, 0, kSrc, __LINE__);
    }
    if (*pstrm && count > 0) {
        IStrm_write(*pstrm, buffer + kStrmForm, (vek_s32)count);
        IStrm_seek(*pstrm, 0, 0);
    }
    return buffer + kStrmForm + count;
}

VEK_API void PIStrm_UserFree(vek_u32* flags, IStrm** pstrm) {
    (void)flags;
    if (!pstrm) {
        vek_assert__("pstrm", kSrc, __LINE__);
        return;
    }
    if (*pstrm) {
        IStrm_release(*pstrm);
        *pstrm = nullptr;
    }
}

/* ------------------------------------------------------ packet memory */

VEK_API void* VEK_RPC_USER MIDL_user_allocate(size_t size) {
    return vek_malloc__(size);
}

VEK_API void VEK_RPC_USER MIDL_user_free(void* block) {
    vek_free__(block);
}

/* ----------------------------------------------------------- handles */

VEK_API vek_s32 VekMes_encDynCreate(char** buf, vek_u32* len, VekMes** hnd) {
    if (!hnd) {
        return -9;
    }
    *hnd = nullptr;
    if (!buf || !len) {
        return -9;
    }
    VekMes* h = mes_new(kMesEnc);
    if (!h) {
        return -201;
    }
    h->pBuf = buf;
    h->pLen = len;
    *buf = nullptr;
    *len = 0;
    *hnd = h;
    return 0;
}

VEK_API vek_s32 VekMes_decBufCreate(const char* buf, vek_u32 len, VekMes** hnd) {
    if (!hnd) {
        return -9;
    }
    *hnd = nullptr;
    if (!buf) {
        return -9;
    }
    VekMes* h = mes_new(kMesDec);
    if (!h) {
        return -201;
    }
    h->buf = (const vek_u8*)buf;
    h->len = len;
    *hnd = h;
    return 0;
}

VEK_API void VekMes_free(VekMes* hnd) {
    if (hnd) {
        mes_check(hnd, __LINE__)->tag = 0;
        vek_free__(hnd);
    }
}

/* ---------------------------------------------------- type pickling */

VEK_API vek_u32 GenEvt_AlignSize(void* handle, const GenEvt* evt) {
    vek_u32 size = 0;
    if (!mes_or_runtime(handle, 0, evt, &size, __LINE__)) {
        return size;
    }
    Layout l;
    if (!evt || !layout_of(evt, &l)) {
        vek_assert__("0", kSrc, __LINE__);
        return 0;
    }
    return kHdrLen + align8(l.end);
}

VEK_API void GenEvt_Encode(void* handle, const GenEvt* evt) {
    VekMes* h = mes_or_runtime(handle, 1, evt, nullptr, __LINE__);
    Layout l;
    if (!h) {
        return;
    }
    if (h->op != kMesEnc || !evt || !layout_of(evt, &l)) {
        vek_assert__("0", kSrc, __LINE__);
        return;
    }
    vek_u32 total = kHdrLen + align8(l.end);
    vek_u8* out = (vek_u8*)MIDL_user_allocate(total);
    if (!out) {
        vek_assert__("0", kSrc, __LINE__);
        return;
    }
    write_packet(evt, l, out);
    *h->pBuf = (char*)out;
    *h->pLen = total;
}

VEK_API void GenEvt_Decode(void* handle, GenEvt* evt) {
    VekMes* h = mes_or_runtime(handle, 2, evt, nullptr, __LINE__);
    Layout l;
    vek_u32 used = 0;
    if (!h) {
        return;
    }
    if (h->op != kMesDec || !evt || !check_packet(h->buf + h->pos, h->len - h->pos, &l, &used)) {
        vek_assert__("0", kSrc, __LINE__);
        return;
    }
    const vek_u8* b = h->buf + h->pos + kHdrLen;
    h->pos += used;
    evt->eid = get32(b);
    evt->rid = get32(b + 4);
    evt->num1 = (vek_s32)get32(b + 8);
    evt->num2 = (vek_s32)get32(b + 12);
    vek_u32 flags = 0;
    vek_u8* body = const_cast<vek_u8*>(b);
    unmarshal_str(body + l.str1, &evt->str1);
    unmarshal_str(body + l.str2, &evt->str2);
    PIStrm_UserUnmarshal(&flags, body + l.strm, &evt->strm);
}

VEK_API void* GenEvt_enc(const GenEvt* evt, vek_u32* len) {
    char* buf = nullptr;
    vek_u32 n = 0;
    // The handle lives on the stack: a packet costs one allocation.
    VekMes h = {kMesTag, kMesEnc, &buf, &n, nullptr, 0, 0};
    GenEvt_Encode(&h, evt);
    if (!((n % 8) == 0)) {
        vek_assert__("(len % 8) == 0", kSrc, __LINE__);
    }
    if (len) {
        *len = n;
    }
    return buf;
}

VEK_API GenEvt* GenEvt_dec(const void* pkt, vek_u32 len) {
    GenEvt* evt = gen_alloc();
    if (!pkt) {
        vek_assert__("pkt", kSrc, __LINE__);
        return evt;
    }
    if (!(len > 0 && (len % 8) == 0)) {
        vek_assert__("len > 0 && (len % 8) == 0", kSrc, __LINE__);
        return evt;
    }
    VekMes h = {kMesTag, kMesDec, nullptr, nullptr, (const vek_u8*)pkt, len, 0};
    if (evt) {
        GenEvt_Decode(&h, evt);
    }
    return evt;
}

} // extern "C"

bool vek::gen_evt_ok(const void* pkt, vek_u32 len) {
    Layout l;
    vek_u32 used = 0;
    const vek_u8* p = (const vek_u8*)pkt;
    if (len == 0 || len % 8 != 0 || !check_packet(p, len, &l, &used)) {
        return false;
    }
    for (vek_u32 off : {l.str1, l.str2}) {
        vek_u32 size = get32(p + kHdrLen + off + 4);
        if (size != 0 && size <= get32(p + kHdrLen + off + 8)) {
            return false;
        }
    }
    return true;
}

/* ---------------------------------------------------- the event manager */

namespace {

// One entry of the table, its name stored behind it. The table is a short
// singly linked list: events are few, and an empty table holds no memory.
struct MngEntry {
    MngEntry* next;
    vek_u32 eid;
    EvtEncFn enc;
    EvtDecFn dec;
    char name[1];
};

AlAtom g_mngCnt;
MngEntry* g_mngHead;

AlMutex* mng_lock() {
    static AlMutex lock;
    static bool made = (AlMutex_new(&lock), true);
    (void)made;
    return &lock;
}

struct MngGuard {
    MngGuard() { AlMutex_lock(mng_lock()); }
    ~MngGuard() { AlMutex_unlock(mng_lock()); }
};

MngEntry* mng_find_eid(vek_u32 eid) {
    for (MngEntry* e = g_mngHead; e; e = e->next) {
        if (e->eid == eid) {
            return e;
        }
    }
    return nullptr;
}

void mng_coders(vek_u32 eid, EvtEncFn* enc, EvtDecFn* dec) {
    MngGuard g;
    MngEntry* e = mng_find_eid(eid);
    *enc = e ? e->enc : nullptr;
    *dec = e ? e->dec : nullptr;
}

void* gen_enc(const void* evt, vek_u32* len) {
    return GenEvt_enc((const GenEvt*)evt, len);
}

void* gen_dec(const void* pkt, vek_u32 len) {
    return GenEvt_dec(pkt, len);
}

} // namespace

extern "C" {

VEK_API vek_s32 EvtMng_init(void) {
    mng_lock();
    return AlAtom_inc(&g_mngCnt);
}

VEK_API vek_s32 EvtMng_exit(void) {
    vek_s32 ret = vek::count_down(&g_mngCnt, false);
    if (ret == 0) {
        MngGuard g;
        while (g_mngHead) {
            MngEntry* e = g_mngHead;
            g_mngHead = e->next;
            vek_free__(e);
        }
    }
    return ret;
}

VEK_API vek_s32 EvtMng_add(vek_u32 eid, const char* name, EvtEncFn enc, EvtDecFn dec) {
    if (!name || !*name) {
        vek_assert__("name", kSrc, __LINE__);
        return -9;
    }
    size_t n = std::strlen(name);
    MngGuard g;
    for (MngEntry* e = g_mngHead; e; e = e->next) {
        if (e->eid == eid || std::strcmp(e->name, name) == 0) {
            return -111;
        }
    }
    MngEntry* e = (MngEntry*)vek_malloc__(sizeof(MngEntry) + n);
    if (!e) {
        return -201;
    }
    e->eid = eid;
    e->enc = enc ? enc : gen_enc;
    e->dec = dec ? dec : gen_dec;
    std::memcpy(e->name, name, n + 1);
    e->next = g_mngHead;
    g_mngHead = e;
    return 0;
}

VEK_API vek_s32 EvtMng_del(const char* name) {
    if (!name) {
        return -112;
    }
    MngGuard g;
    for (MngEntry** at = &g_mngHead; *at; at = &(*at)->next) {
        if (std::strcmp((*at)->name, name) == 0) {
            MngEntry* e = *at;
            *at = e->next;
            vek_free__(e);
            return 0;
        }
    }
    return -112;
}

VEK_API const char* EvtMng_name(vek_u32 eid) {
    MngGuard g;
    MngEntry* e = mng_find_eid(eid);
    return e ? e->name : "EID_UNKN";
}

VEK_API void* EvtMng_encx(vek_u32 eid, const void* evt, vek_u32* len) {
    EvtEncFn enc;
    EvtDecFn dec;
    mng_coders(eid, &enc, &dec);
    return (enc ? enc : gen_enc)(evt, len);
}

VEK_API void* EvtMng_enc(const void* evt, vek_u32* len) {
    return EvtMng_encx(Evt_eid(evt), evt, len);
}

VEK_API void* EvtMng_dec(vek_u32 eid, const void* pkt, vek_u32 len) {
    EvtEncFn enc;
    EvtDecFn dec;
    mng_coders(eid, &enc, &dec);
    return (dec ? dec : gen_dec)(pkt, len);
}

} // extern "C"
