/*
 * PmConn.cpp - messages between processes (pm_* of VekPipe.h): frames
 * over any stream socket.
 *
 * The receive side reads the socket in blocks into rbuf and lets the
 * frame decoder take whole frames from it, so a busy connection costs one
 * read for many small frames, and a frame cut by a time-out simply goes
 * on at the next call. The send side puts head and payload into one write
 * when they are small (one system call, and the peer never sees half a
 * head), under a lock that a cancel reaches.
 *
 * Final codes: a bad frame, a closed peer or a broken stream is kept in
 * fin and returned by every later call, and the socket is closed, so the
 * peer learns it at once instead of waiting on a connection that will
 * never speak again.
 */
#include <atomic>
#include <cstring>
#include <new>
#include "IoWait.h"
#include "PmFrame.h"
#include "TagRec.h"
#include "VekCall.h"
#include "VekCore.h"
#include "VekPipe.h"
#include "VekVosx.h"

namespace {

const char kSrc[] = __FILE__;
constexpr vek_u32 kConnTag = 0x6E3C19u;
constexpr int kMaxParked = 64;
constexpr size_t kSmallFrame = 4096;

struct Parked {
    Parked* next;
    vek::PmFrame f;
};

struct PmConnRec {
    vek_u32 tag;
    ISock* sock;
    std::atomic<bool> sending{false};  // the send lock (send_lock)
    std::atomic<vek_s32> sendWaiters{0};
    vek_handle sendFreed;  // auto-reset: set by an unlock that found waiters
    vek_handle callLock;  // rpc_call's turn on the connection
    vek_s32 maxLen;
    std::atomic<vek_u32> nextId{0};
    std::atomic<vek_s32> fin{0};  // the final code once the connection ended, else 0
    vek::PmDec dec;
    Parked* parkHead = nullptr;
    Parked* parkTail = nullptr;
    int parked = 0;
    size_t rpos = 0;
    size_t rlen = 0;
    vek_u8 rbuf[16384];

    PmConnRec(ISock* s, vek_s32 max) : tag(kConnTag), sock(s), sendFreed(nullptr), callLock(nullptr), maxLen(max), dec((vek_u32)max) {}
};

PmConnRec* rec_of(PmConn* c, vek_s32 line) {
    return vek::tag_check((PmConnRec*)c, kConnTag, kSrc, line);
}

/* The send lock. An uncontended send, the common case, takes it with one
 * atomic exchange: no kernel object, no process-wide wait lock. A sender
 * that finds it taken waits on sendFreed, an abortable wait that a cancel
 * and the time-out end. */
bool send_trylock(PmConnRec* c) {
    return !c->sending.exchange(true, std::memory_order_acquire);
}

vek_s32 send_lock(PmConnRec* c, vek_u32 start, vek_s32 tmo) {
    if (send_trylock(c)) {
        return 0;
    }
    c->sendWaiters++;
    vek_s32 r = 0;
    while (!send_trylock(c)) {
        r = vek_evt_swait__(c->sendFreed, vek::ms_left(start, tmo), 0);
        if (r != 0) {
            break;
        }
    }
    c->sendWaiters--;
    return r;
}

void send_unlock(PmConnRec* c) {
    c->sending.store(false, std::memory_order_seq_cst);
    if (c->sendWaiters.load(std::memory_order_seq_cst) > 0) {
        vek_evt_set(c->sendFreed);
    }
}

/* Ends the connection with code (the first code stays) and returns the
 * code every later call gives. The receiving thread closes the socket too,
 * so the peer learns it at once, unless a sender is inside a write (a
 * socket is never closed under a call; pm_close does it then). A sender
 * never closes: the receiving thread may be inside a read. */
vek_s32 fail(PmConnRec* c, vek_s32 code, bool receiver) {
    vek_s32 none = 0;
    c->fin.compare_exchange_strong(none, code);
    if (receiver && send_trylock(c)) {
        ISock_close(c->sock);
        send_unlock(c);
    }
    return c->fin.load();
}

/* The next frame from the socket: 0, or -5 / -12 (the connection stays),
 * or the final code. */
vek_s32 read_frame(PmConnRec* c, vek::PmFrame* f, vek_u32 start, vek_s32 tmo) {
    for (;;) {
        vek_s32 g = c->fin.load();
        if (g != 0) {
            return g;
        }
        if (c->rpos < c->rlen) {
            size_t used = 0;
            vek_s32 r = c->dec.feed(c->rbuf + c->rpos, c->rlen - c->rpos, &used, f);
            c->rpos += used;
            if (r < 0) {
                return fail(c, r, true);
            }
            if (r == 1) {
                return 0;
            }
        }
        vek_s32 n = ISock_read(c->sock, c->rbuf, (vek_s32)sizeof c->rbuf, vek::ms_left(start, tmo));
        if (n < 0) {
            return n == VEK_ERR_ABORTED || n == VEK_ERR_TIMEOUT ? n : fail(c, n, true);
        }
        c->rpos = 0;
        c->rlen = (size_t)n;
    }
}

/* The message of a frame: 0, or -201 when its event could not be built
 * (the frame is dropped; the stream goes on). */
vek_s32 to_msg(vek::PmFrame& f, PmMsg* m) {
    m->kind = f.head.kind;
    m->type = f.head.type;
    m->id = f.head.id;
    m->data = nullptr;
    m->len = 0;
    m->evt = nullptr;
    if (f.head.flags & vek::kPmFlagEvt) {
        m->evt = GenEvt_dec(f.body, f.head.len);
        vek_free__(f.body);
    } else {
        m->data = f.body;
        m->len = (vek_s32)f.head.len;
    }
    f.body = nullptr;
    return (f.head.flags & vek::kPmFlagEvt) && !m->evt ? VEK_ERR_FULL : 0;
}

/* The code of a send that a cancel, the time-out or the peer cut after
 * part of the frame went out: the stream has lost its framing. */
vek_s32 cut_code(vek_u32 start, vek_s32 tmo) {
    if (tmo >= 0 && vek::ms_left(start, tmo) == 0) {
        return VEK_ERR_TIMEOUT;
    }
    return vek_call_aborted() ? VEK_ERR_ABORTED : VEK_ERR_PEER_CLOSED;
}

/* Writes n bytes of p, of which *sent already went: 0, or the code. */
vek_s32 write_part(PmConnRec* c, const void* p, vek_s32 n, size_t* sent, vek_u32 start, vek_s32 tmo) {
    vek_s32 w = n == 0 ? 0 : ISock_write(c->sock, p, n, vek::ms_left(start, tmo));
    if (w == n) {
        *sent += (size_t)n;
        return 0;
    }
    if (w >= 0 || *sent > 0) {
        vek_s32 code = cut_code(start, tmo);
        fail(c, VEK_ERR_NOT_OPEN, false);
        return code;
    }
    return w == VEK_ERR_ABORTED || w == VEK_ERR_TIMEOUT ? w : fail(c, w, false);
}

bool bad_payload(const void* data, vek_s32 len) {
    if (len < 0 || (len > 0 && !data)) {
        vek_assert__("len >= 0 && (data || len == 0)", __FILE__, __LINE__);
        return true;
    }
    return false;
}

/* Sends one frame: head, then len bytes of data or evt's packet. */
vek_s32 send_frame(PmConnRec* c, vek_u8 kind, vek_u32 type, vek_u32 id, const void* data, vek_s32 len,
                   const GenEvt* evt, vek_s32 tmo, vek_u8 flags = 0) {
    vek_u32 start = vek_msec();
    if (type > 0xFFFF || (!evt && bad_payload(data, len))) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 g = c->fin.load();
    if (g != 0) {
        return g;
    }
    vek::PmHead h = {0, kind, flags, (vek_u16)type, id};
    void* pkt = nullptr;
    if (evt) {
        vek_u32 plen = 0;
        pkt = GenEvt_enc(evt, &plen);
        if (!pkt) {
            return VEK_ERR_FULL;
        }
        data = pkt;
        len = (vek_s32)plen;
        h.flags = vek::kPmFlagEvt;
    }
    h.len = (vek_u32)len;
    vek_s32 r = len > c->maxLen ? VEK_ERR_FRAME_TOO_BIG : send_lock(c, start, tmo);
    if (r == 0 && (r = c->fin.load()) != 0) {
        send_unlock(c);  // the connection ended while this send waited
    } else if (r == 0) {
        size_t sent = 0;
        if ((size_t)len <= kSmallFrame) {
            vek_u8 buf[vek::kPmHead + kSmallFrame];
            vek::pm_head_put(buf, h);
            if (len > 0) {
                std::memcpy(buf + vek::kPmHead, data, (size_t)len);
            }
            r = write_part(c, buf, (vek_s32)vek::kPmHead + len, &sent, start, tmo);
        } else {
            vek_u8 head[vek::kPmHead];
            vek::pm_head_put(head, h);
            r = write_part(c, head, (vek_s32)vek::kPmHead, &sent, start, tmo);
            if (r == 0) {
                r = write_part(c, data, len, &sent, start, tmo);
            }
        }
        send_unlock(c);
    }
    if (pkt) {
        MIDL_user_free(pkt);
    }
    return r;
}

void drop(vek::PmFrame& f) {
    vek_free__(f.body);
    f.body = nullptr;
}

/* The code an error answer carries (a peer's non-negative one is a broken
 * frame: the caller must never take it for success). */
vek_s32 err_of(vek::PmFrame& f) {
    vek_s32 code = (vek_s32)((vek_u32)f.body[0] | (vek_u32)f.body[1] << 8 | (vek_u32)f.body[2] << 16 |
                             (vek_u32)f.body[3] << 24);
    drop(f);
    return code < 0 ? code : VEK_ERR_BAD_FRAME;
}

/* Tells the peer that the request id is given up, so that its handler can
 * stop. The caller's cancel is still signalled (that is why it gave up),
 * so the frame goes out inside a message block of its own, whose waits
 * only its short time-out ends. */
void send_cancel(PmConnRec* c, vek_u32 id) {
    vek_msg_blk_beg();
    send_frame(c, PM_KIND_CANCEL, 0, id, nullptr, 0, nullptr, 1000);
    vek_msg_blk_end();
}

bool payload_args_ok(PmConn* conn, const void* msgOut) {
    if (!conn || !msgOut) {
        vek_assert__("conn && msg", __FILE__, __LINE__);
        return false;
    }
    return true;
}

} // namespace

extern "C" {

VEK_API PmConn* pm_open(ISock* sock, vek_s32 maxLen, vek_s32* err) {
    vek_s32 sink;
    err = err ? err : &sink;
    if (!sock) {
        vek_assert__("sock", __FILE__, __LINE__);
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    void* mem = vek_malloc__(sizeof(PmConnRec));
    vek_handle lock = mem ? vek_evt_create__(0, 0) : nullptr;
    vek_handle callLock = lock ? vek_lock_create__(nullptr, 0) : nullptr;
    if (!callLock) {
        if (lock) {
            vek_evt_close(lock);
        }
        vek_free__(mem);
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    PmConnRec* c = new (mem) PmConnRec(sock, maxLen > 0 ? maxLen : PM_MAX_LEN_DEF);
    c->sendFreed = lock;
    c->callLock = callLock;
    ISock_addRef(sock);
    *err = 0;
    return (PmConn*)c;
}

VEK_API PmConn* pm_connect(const char* name, vek_s32 flags, vek_s32 tmo, vek_s32* err) {
    ISock* s = VekPipe_xconnect__(name, flags, tmo, err, __FILE__, __LINE__);
    if (!s) {
        return nullptr;
    }
    PmConn* c = pm_open(s, 0, err);
    ISock_release(s);
    return c;
}

VEK_API void pm_close(PmConn* conn) {
    if (!conn) {
        return;
    }
    PmConnRec* c = rec_of(conn, __LINE__);
    ISock_close(c->sock);
    ISock_release(c->sock);
    vek_evt_close(c->sendFreed);
    vek_lock_close(c->callLock);
    while (Parked* p = c->parkHead) {
        c->parkHead = p->next;
        drop(p->f);
        vek_free__(p);
    }
    c->tag = 0;
    c->~PmConnRec();
    vek_free__(c);
}

VEK_API ISock* pm_sock(PmConn* conn) {
    return rec_of(conn, __LINE__)->sock;
}

VEK_API vek_s32 pm_send(PmConn* conn, vek_u32 type, const void* data, vek_s32 len, vek_s32 tmo) {
    return send_frame(rec_of(conn, __LINE__), PM_KIND_MSG, type, 0, data, len, nullptr, tmo);
}

VEK_API vek_s32 pm_send_evt(PmConn* conn, vek_u32 type, const GenEvt* evt, vek_s32 tmo) {
    PmConnRec* c = rec_of(conn, __LINE__);
    if (!evt) {
        vek_assert__("evt", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    return send_frame(c, PM_KIND_MSG, type, 0, nullptr, 0, evt, tmo);
}

VEK_API void pm_msg_clean(PmMsg* msg) {
    if (msg) {
        vek_free__(msg->data);
        if (msg->evt) {
            Evt_delete(msg->evt);
        }
        std::memset(msg, 0, sizeof *msg);
    }
}

VEK_API vek_s32 pm_recv(PmConn* conn, PmMsg* msg, vek_s32 tmo) {
    if (!payload_args_ok(conn, msg)) {
        return VEK_ERR_BAD_ARG;
    }
    PmConnRec* c = rec_of(conn, __LINE__);
    std::memset(msg, 0, sizeof *msg);
    if (Parked* p = c->parkHead) {
        c->parkHead = p->next;
        c->parked--;
        vek_s32 r = to_msg(p->f, msg);
        vek_free__(p);
        return r;
    }
    vek_u32 start = vek_msec();
    for (;;) {
        vek::PmFrame f;
        vek_s32 r = read_frame(c, &f, start, tmo);
        if (r < 0) {
            return r;
        }
        if (f.head.kind == PM_KIND_RSP) {
            drop(f);  // its request gave up waiting
            continue;
        }
        return to_msg(f, msg);
    }
}

VEK_API vek_s32 pm_request(PmConn* conn, vek_u32 type, const void* data, vek_s32 len, const GenEvt* evt,
                           PmMsg* reply, vek_s32 tmo) {
    if (!payload_args_ok(conn, reply)) {
        return VEK_ERR_BAD_ARG;
    }
    PmConnRec* c = rec_of(conn, __LINE__);
    std::memset(reply, 0, sizeof *reply);
    vek_u32 start = vek_msec();
    vek_u32 id;
    while ((id = ++c->nextId) == 0) {
    }
    vek_s32 r = send_frame(c, PM_KIND_REQ, type, id, data, len, evt, tmo);
    while (r == 0) {
        vek::PmFrame f;
        r = read_frame(c, &f, start, tmo);
        if (r < 0) {
            break;
        }
        if (f.head.kind == PM_KIND_RSP) {
            if (f.head.id == id) {
                return (f.head.flags & vek::kPmFlagErr) ? err_of(f) : to_msg(f, reply);
            }
            drop(f);
            continue;
        }
        Parked* p = c->parked < kMaxParked ? (Parked*)vek_malloc__(sizeof(Parked)) : nullptr;
        if (!p) {
            drop(f);
            return fail(c, VEK_ERR_FULL, true);
        }
        p->next = nullptr;
        p->f = f;
        (c->parkHead ? c->parkTail->next : c->parkHead) = p;
        c->parkTail = p;
        c->parked++;
    }
    if (r == VEK_ERR_ABORTED || r == VEK_ERR_TIMEOUT) {
        send_cancel(c, id);
    }
    return r;
}

VEK_API vek_s32 pm_reply(PmConn* conn, const PmMsg* req, vek_u32 type, const void* data, vek_s32 len,
                         const GenEvt* evt, vek_s32 tmo) {
    if (!payload_args_ok(conn, req)) {
        return VEK_ERR_BAD_ARG;
    }
    PmConnRec* c = rec_of(conn, __LINE__);
    if (req->kind != PM_KIND_REQ || req->id == 0) {
        vek_assert__("req->kind == PM_KIND_REQ", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    return send_frame(c, PM_KIND_RSP, type, req->id, data, len, evt, tmo);
}

VEK_API vek_s32 pm_reply_err(PmConn* conn, const PmMsg* req, vek_s32 code, vek_s32 tmo) {
    if (!payload_args_ok(conn, req)) {
        return VEK_ERR_BAD_ARG;
    }
    PmConnRec* c = rec_of(conn, __LINE__);
    if (req->kind != PM_KIND_REQ || req->id == 0 || code >= 0) {
        vek_assert__("req->kind == PM_KIND_REQ && code < 0", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    vek_u32 u = (vek_u32)code;
    const vek_u8 le[4] = {(vek_u8)u, (vek_u8)(u >> 8), (vek_u8)(u >> 16), (vek_u8)(u >> 24)};
    return send_frame(c, PM_KIND_RSP, 0, req->id, le, 4, nullptr, tmo, vek::kPmFlagErr);
}

VEK_API vek_s32 rpc_call(PmConn* conn, vek_u32 type, const void* data, vek_s32 len, const GenEvt* evt, PmMsg* reply,
                         vek_s32 tmo) {
    if (!payload_args_ok(conn, reply)) {
        return VEK_ERR_BAD_ARG;
    }
    PmConnRec* c = rec_of(conn, __LINE__);
    std::memset(reply, 0, sizeof *reply);
    vek_u32 start = vek_msec();
    vek_s32 r = vek_lock_slock__(c->callLock, tmo, 0);
    if (r != 0) {
        return r;
    }
    r = pm_request(conn, type, data, len, evt, reply, vek::ms_left(start, tmo));
    vek_lock_unlock(c->callLock);
    return r;
}

} // extern "C"
