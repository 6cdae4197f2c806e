/*
 * VekSock.cpp - the socket classes of VekSock.h: one record for all four,
 * four operation tables that differ only where a class lacks an operation.
 *
 * What is portable lives here: the object, the argument and settings
 * checks that must refuse bad input before the system sees it, and the
 * final codes. A removed device or a closed peer is remembered in fin the
 * first time a read or a write meets it, so every later call reports the
 * same code instead of an unrelated error (or, worse, a time-out) from a
 * descriptor that will never deliver again.
 */
#include <cstring>
#include "AlSock.h"
#include "ObjModel.h"
#include "StrUtil.h"
#include "VekCore.h"

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidISock = VEK_IID_ISOCK_INIT;

struct SockRec {
    vek_u32 cls;
    AlAtom ref;
    const ISockVtbl* vtbl;
    plat::SockSys sys;
    AlAtom fin;       // -700 or -851 once seen, else 0
    bool listener;
    bool own;         // the system object is closed with the socket
    bool closed;
    char* name;       // a local listener's name (its file is removed at close)
};

bool is_sock_cls(vek_u32 cls) {
    cls &= VEK_CLS_MASK;
    return cls == VEK_CLS_TCPSOCK || cls == VEK_CLS_LOCSOCK || cls == VEK_CLS_HNDSOCK || cls == VEK_CLS_SERSOCK;
}

SockRec* self_of(ISock* s, vek_s32 line) {
    if (s && is_sock_cls(vek::obj_hdr(s)->cls)) {
        return (SockRec*)vek::obj_hdr(s);
    }
    return (SockRec*)vek::obj_check(s, VEK_CLS_TCPSOCK, kSrc, line);
}

vek_u32 cls_of(SockRec* r) {
    return r->cls & VEK_CLS_MASK;
}

void do_close(SockRec* r) {
    if (!r->closed) {
        r->closed = true;
        plat::sock_close(&r->sys, r->own, r->name);
    }
}

void destroy(void* itf) {
    SockRec* r = (SockRec*)vek::obj_hdr(itf);
    do_close(r);
    vek_free__(r->name);
    vek::obj_dispose(r);
}

/* The code every call gives before it reaches the system, or 0. */
vek_s32 gate(SockRec* r) {
    if (r->closed) {
        return VEK_ERR_NOT_OPEN;
    }
    return AlAtom_get(&r->fin);
}

/* Remembers a final code met by a read or a write. */
vek_s32 note(SockRec* r, vek_s32 res) {
    if (res == VEK_ERR_EOF) {
        res = r->sys.dev ? VEK_ERR_DEV_GONE : VEK_ERR_PEER_CLOSED;
    }
    if (res == VEK_ERR_DEV_GONE || res == VEK_ERR_PEER_CLOSED) {
        AlAtom_set(&r->fin, res);
    }
    return res;
}

vek_s32 s_query(ISock* s, const VekGuid* iid, void** out) {
    self_of(s, __LINE__);
    return vek::obj_query(s, iid, out, &kIidISock);
}
vek_s32 s_add_ref(ISock* s) {
    self_of(s, __LINE__);
    return vek::obj_add_ref(s);
}
vek_s32 s_release(ISock* s) {
    self_of(s, __LINE__);
    return vek::obj_release(s, &destroy);
}

bool bad_buf(const void* buf, vek_s32 len) {
    if (!buf || len <= 0) {
        vek_assert__("buf && len > 0", __FILE__, __LINE__);
        return true;
    }
    return false;
}

/* What a read or a write gives before it reaches the system, or 0. */
vek_s32 io_gate(SockRec* r, const void* buf, vek_s32 len) {
    if (bad_buf(buf, len)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 g = gate(r);
    return g != 0 ? g : r->listener ? VEK_ERR_UNSUPPORTED : 0;
}

vek_s32 s_read(ISock* s, void* buf, vek_s32 len, vek_s32 tmo) {
    SockRec* r = self_of(s, __LINE__);
    vek_s32 g = io_gate(r, buf, len);
    return g != 0 ? g : note(r, plat::sock_read(&r->sys, buf, len, tmo));
}

vek_s32 s_write(ISock* s, const void* data, vek_s32 len, vek_s32 tmo) {
    SockRec* r = self_of(s, __LINE__);
    vek_s32 g = io_gate(r, data, len);
    return g != 0 ? g : note(r, plat::sock_write(&r->sys, data, len, tmo));
}

ISock* make(vek_u32 cls, const plat::SockSys& sys, bool listener, vek_s32* err, bool own = true,
            char* name = nullptr);

vek_s32 s_accept(ISock* s, ISock** out, vek_s32 tmo) {
    SockRec* r = self_of(s, __LINE__);
    if (!out) {
        vek_assert__("out", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    *out = nullptr;
    vek_s32 g = gate(r);
    if (g != 0) {
        return g;
    }
    if (!r->listener) {
        return VEK_ERR_UNSUPPORTED;
    }
    plat::SockSys c;
    vek_s32 res = plat::sock_accept(&r->sys, tmo, &c);
    if (res < 0) {
        return res;
    }
    *out = make(cls_of(r), c, false, &res);
    return res;
}

vek_s32 s_close(ISock* s) {
    do_close(self_of(s, __LINE__));
    return 0;
}

vek_s64 s_native(ISock* s) {
    SockRec* r = self_of(s, __LINE__);
    return r->closed ? plat::kNoSock : r->sys.h;
}

/* Operations a connection has nothing to do for. */
vek_s32 s_drain_none(ISock* s, vek_s32) {
    return gate(self_of(s, __LINE__));
}
vek_s32 s_purge_none(ISock* s, vek_s32) {
    return gate(self_of(s, __LINE__));
}

/* Serial operations on a class without them. */
vek_s32 s_no_set_cfg(ISock* s, const VekSerCfg*) {
    self_of(s, __LINE__);
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 s_no_get_cfg(ISock* s, VekSerCfg*) {
    self_of(s, __LINE__);
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 s_no_set_lines(ISock* s, vek_s32, vek_s32) {
    self_of(s, __LINE__);
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 s_no_get_lines(ISock* s) {
    self_of(s, __LINE__);
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 s_no_break(ISock* s, vek_s32) {
    self_of(s, __LINE__);
    return VEK_ERR_UNSUPPORTED;
}

/* ---- serial ports ---- */

/* The check that keeps a bad setting from reaching the port. */
bool cfg_ok(const VekSerCfg* c) {
    return c && c->baud > 0 && c->dataBits >= 5 && c->dataBits <= 8 && c->parity >= VEK_PAR_NONE &&
           c->parity <= VEK_PAR_EVEN && (c->stopBits == 1 || c->stopBits == 2) && c->flow >= VEK_FLOW_NONE &&
           c->flow <= VEK_FLOW_XONXOFF;
}

vek_s32 s_set_cfg(ISock* s, const VekSerCfg* cfg) {
    SockRec* r = self_of(s, __LINE__);
    if (!cfg_ok(cfg)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 g = gate(r);
    return g != 0 ? g : note(r, plat::ser_set(&r->sys, cfg));
}
vek_s32 s_get_cfg(ISock* s, VekSerCfg* cfg) {
    SockRec* r = self_of(s, __LINE__);
    if (!cfg) {
        vek_assert__("cfg", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 g = gate(r);
    return g != 0 ? g : note(r, plat::ser_get(&r->sys, cfg));
}
vek_s32 s_drain(ISock* s, vek_s32 tmo) {
    SockRec* r = self_of(s, __LINE__);
    vek_s32 g = gate(r);
    return g != 0 ? g : note(r, plat::ser_drain(&r->sys, tmo));
}
vek_s32 s_purge(ISock* s, vek_s32 what) {
    SockRec* r = self_of(s, __LINE__);
    if (what & ~(VEK_PURGE_IN | VEK_PURGE_OUT)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 g = gate(r);
    return g != 0 ? g : note(r, plat::ser_purge(&r->sys, what));
}
vek_s32 s_set_lines(ISock* s, vek_s32 mask, vek_s32 values) {
    SockRec* r = self_of(s, __LINE__);
    if (mask & ~(VEK_LINE_DTR | VEK_LINE_RTS)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 g = gate(r);
    return g != 0 ? g : note(r, plat::ser_set_lines(&r->sys, mask, values));
}
vek_s32 s_get_lines(ISock* s) {
    SockRec* r = self_of(s, __LINE__);
    vek_s32 g = gate(r);
    return g != 0 ? g : note(r, plat::ser_get_lines(&r->sys));
}
vek_s32 s_break(ISock* s, vek_s32 ms) {
    SockRec* r = self_of(s, __LINE__);
    if (ms < 0) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 g = gate(r);
    return g != 0 ? g : note(r, plat::ser_break(&r->sys, ms));
}


const char* tcp_name(ISock*) {
    return "TcpSock";
}
const char* loc_name(ISock*) {
    return "LocSock";
}
const char* hnd_name(ISock*) {
    return "HndSock";
}
const char* ser_name(ISock*) {
    return "SerSock";
}

#define VEK_SOCK_CONN_VTBL(nameFn)                                                                          \
    {s_query,      s_add_ref,    s_release,      s_read,         s_write,    s_accept, s_drain_none, \
     s_purge_none, s_no_set_cfg, s_no_get_cfg, s_no_set_lines, s_no_get_lines, s_no_break, s_close,  \
     s_native,     nameFn}

const ISockVtbl kTcpVtbl = VEK_SOCK_CONN_VTBL(tcp_name);
const ISockVtbl kLocVtbl = VEK_SOCK_CONN_VTBL(loc_name);
const ISockVtbl kHndVtbl = VEK_SOCK_CONN_VTBL(hnd_name);
const ISockVtbl kSerVtbl = {s_query,     s_add_ref,   s_release,   s_read,        s_write,
                            s_accept,    s_drain,     s_purge,     s_set_cfg,     s_get_cfg,
                            s_set_lines, s_get_lines, s_break,     s_close,       s_native,
                            ser_name};

const ISockVtbl* vtbl_of(vek_u32 cls) {
    switch (cls) {
    case VEK_CLS_TCPSOCK:
        return &kTcpVtbl;
    case VEK_CLS_LOCSOCK:
        return &kLocVtbl;
    case VEK_CLS_SERSOCK:
        return &kSerVtbl;
    default:
        return &kHndVtbl;
    }
}

/* The record around a system object that is open: the socket, or null
 * with the system object closed (unless the caller keeps it) and name
 * freed when memory ran out. name is a local listener's (owned). */
ISock* make(vek_u32 cls, const plat::SockSys& sys, bool listener, vek_s32* err, bool own, char* name) {
    SockRec* r = (SockRec*)vek::obj_storage(nullptr, sizeof(SockRec), cls);
    if (!r) {
        plat::SockSys tmp = sys;
        plat::sock_close(&tmp, own, name);
        vek_free__(name);
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    r->vtbl = vtbl_of(cls);
    r->sys = sys;
    r->listener = listener;
    r->own = own;
    r->name = name;
    AlAtom_inc(&r->ref);
    *err = 0;
    return (ISock*)&r->vtbl;
}

vek_s32* err_out(vek_s32* err) {
    static thread_local vek_s32 sink;
    return err ? err : &sink;
}

bool name_ok(const char* s) {
    if (!s || !*s) {
        vek_assert__("name && *name", __FILE__, __LINE__);
        return false;
    }
    return true;
}

SockRec* conn_of(ISock* s, vek_u32 cls) {
    SockRec* r = self_of(s, __LINE__);
    return cls_of(r) == cls && !r->closed ? r : nullptr;
}

} // namespace

ISock* vek::loc_sock_wrap(const plat::SockSys& sys, bool listener, const char* name, vek_s32* err) {
    char* keep = nullptr;
    if (name && !(keep = vek_strdup(name))) {
        plat::SockSys tmp = sys;
        plat::sock_close(&tmp, true, name);
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    return make(VEK_CLS_LOCSOCK, sys, listener, err, true, keep);
}

extern "C" {

VEK_API ISock* TcpSock_xconnect__(const char* host, vek_s32 port, vek_s32 flags, vek_s32 tmo, vek_s32* err,
                                  const char*, vek_s32) {
    err = err_out(err);
    if (!name_ok(host) || port <= 0 || port > 65535) {
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    plat::SockSys sys;
    *err = plat::tcp_connect(host, port, flags, tmo, &sys);
    return *err < 0 ? nullptr : make(VEK_CLS_TCPSOCK, sys, false, err);
}

VEK_API ISock* TcpSock_xlisten__(const char* host, vek_s32 port, vek_s32 flags, vek_s32* err, const char*,
                                 vek_s32) {
    err = err_out(err);
    if (port < 0 || port > 65535) {
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    plat::SockSys sys;
    *err = plat::tcp_listen(host, port, flags, &sys);
    return *err < 0 ? nullptr : make(VEK_CLS_TCPSOCK, sys, true, err);
}

VEK_API vek_s32 TcpSock_port(ISock* sock) {
    SockRec* r = conn_of(sock, VEK_CLS_TCPSOCK);
    return r ? plat::tcp_port(&r->sys) : VEK_ERR_UNSUPPORTED;
}

VEK_API vek_s32 TcpSock_setNoDelay(ISock* sock, vek_s32 on) {
    SockRec* r = conn_of(sock, VEK_CLS_TCPSOCK);
    return r ? plat::tcp_nodelay(&r->sys, on != 0) : VEK_ERR_UNSUPPORTED;
}

VEK_API ISock* LocSock_xconnect__(const char* name, vek_s32 tmo, vek_s32* err, const char*, vek_s32) {
    err = err_out(err);
    if (!name_ok(name)) {
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    plat::SockSys sys;
    *err = plat::loc_connect(name, tmo, &sys);
    return *err < 0 ? nullptr : make(VEK_CLS_LOCSOCK, sys, false, err);
}

VEK_API ISock* LocSock_xlisten__(const char* name, vek_s32* err, const char*, vek_s32) {
    err = err_out(err);
    if (!name_ok(name)) {
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    char* keep = vek_strdup(name);
    if (!keep) {
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    plat::SockSys sys;
    *err = plat::loc_listen(name, &sys);
    if (*err < 0) {
        vek_free__(keep);
        return nullptr;
    }
    return make(VEK_CLS_LOCSOCK, sys, true, err, true, keep);
}

VEK_API vek_s32 LocSock_peer(ISock* sock, VekSockPeer* peer) {
    if (!peer) {
        vek_assert__("peer", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    SockRec* r = conn_of(sock, VEK_CLS_LOCSOCK);
    if (!r || r->listener) {
        return VEK_ERR_UNSUPPORTED;
    }
    std::memset(peer, 0, sizeof *peer);
    return plat::loc_peer(&r->sys, peer);
}

VEK_API ISock* HndSock_xcreate__(vek_s64 hnd, vek_s32 own, const char*, vek_s32) {
    plat::SockSys sys;
    if (plat::hnd_adopt(hnd, &sys) < 0) {
        return nullptr;
    }
    vek_s32 err;
    return make(VEK_CLS_HNDSOCK, sys, false, &err, own != 0);
}

VEK_API ISock* SerSock_xopen__(const char* port, const VekSerCfg* cfg, vek_s32* err, const char*, vek_s32) {
    err = err_out(err);
    if (!name_ok(port)) {
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    VekSerCfg def = VEK_SER_CFG_INIT;
    if (!cfg) {
        cfg = &def;
    }
    if (!cfg_ok(cfg)) {
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    plat::SockSys sys;
    *err = plat::ser_open(port, &sys);
    if (*err < 0) {
        return nullptr;
    }
    *err = plat::ser_set(&sys, cfg);
    if (*err < 0) {
        plat::sock_close(&sys, true, nullptr);
        return nullptr;
    }
    return make(VEK_CLS_SERSOCK, sys, false, err);
}

} // extern "C"
