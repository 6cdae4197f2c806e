/*
 * VekPipe.cpp - endpoints by logical name (VekPipe.h) over the local
 * stream sockets of VekSock.h.
 *
 * The system keeps other users out (the folder's and the socket's modes,
 * the pipe's DACL); the user check on each connection stands behind it,
 * for the endpoints a caller opened to every user and for a file system
 * that ignores modes. Both ends check, since a client that talks to a
 * server of another user may hand it what it should not.
 */
#include <cstring>
#include "AlSock.h"
#include "TagRec.h"
#include "VekCore.h"
#include "VekPipe.h"

namespace {

const char kSrc[] = __FILE__;
constexpr vek_u32 kPipeTag = 0x51F3A7u;

struct VekPipeRec {
    vek_u32 tag;
    ISock* lis;
    vek_s32 flags;
};

VekPipeRec* rec_of(VekPipe* p, vek_s32 line) {
    return vek::tag_check((VekPipeRec*)p, kPipeTag, kSrc, line);
}

vek_s32* err_out(vek_s32* err) {
    static thread_local vek_s32 sink;
    return err ? err : &sink;
}

bool logical_name_ok(const char* name) {
    size_t n = std::strlen(name);
    if (n == 0 || n > 64 || name[0] == '.') {
        return false;
    }
    for (const char* p = name; *p; p++) {
        char c = *p;
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                  c == '_' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

/* name's system address into out: 0, -81, -761, -850. A name with a
 * path separator is an address already (a pipe's without \\.\pipe\). */
vek_s32 addr_of(const char* name, char* out, size_t cap) {
    if (!name) {
        vek_assert__("name", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    if (std::strchr(name, '/') || std::strchr(name, '\\')) {
        const char kPipePrefix[] = "\\\\.\\pipe\\";
        if (std::strncmp(name, kPipePrefix, sizeof kPipePrefix - 1) == 0) {
            name += sizeof kPipePrefix - 1;
        }
        size_t n = std::strlen(name);
        if (n == 0 || n >= cap) {
            return VEK_ERR_BAD_ARG;
        }
        std::memcpy(out, name, n + 1);
        return 0;
    }
    return logical_name_ok(name) ? plat::pipe_addr(name, out, cap) : VEK_ERR_BAD_ARG;
}

/* Who is at the other end of conn, and whether the rules let it in. */
vek_s32 check_peer(ISock* conn, vek_s32 flags, VekSockPeer* peer) {
    vek_s32 r = LocSock_peer(conn, peer);
    if (r < 0) {
        return r;
    }
    return (flags & VEK_PIPE_ANY_USER) || plat::pipe_same_user(peer) ? 0 : VEK_ERR_PEER_REFUSED;
}

} // namespace

extern "C" {

VEK_API VekPipe* VekPipe_xlisten__(const char* name, vek_s32 flags, vek_s32* err, const char*, vek_s32) {
    err = err_out(err);
    char addr[512];
    *err = (flags & ~VEK_PIPE_ANY_USER) ? VEK_ERR_BAD_ARG : addr_of(name, addr, sizeof addr);
    if (*err < 0) {
        return nullptr;
    }
    VekPipeRec* p = vek::tag_storage((VekPipeRec*)nullptr, kPipeTag);
    if (!p) {
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    plat::SockSys sys;
    *err = plat::pipe_listen(addr, (flags & VEK_PIPE_ANY_USER) != 0, &sys);
    p->lis = *err < 0 ? nullptr : vek::loc_sock_wrap(sys, true, addr, err);
    if (!p->lis) {
        vek::obj_dispose(p);
        return nullptr;
    }
    p->flags = flags;
    return (VekPipe*)p;
}

VEK_API void VekPipe_delete(VekPipe* srv) {
    if (srv) {
        VekPipeRec* p = rec_of(srv, __LINE__);
        ISock_release(p->lis);
        vek::obj_dispose(p);
    }
}

VEK_API vek_s32 VekPipe_accept(VekPipe* srv, ISock** out, VekSockPeer* peer, vek_s32 tmo) {
    VekPipeRec* p = rec_of(srv, __LINE__);
    if (!out) {
        vek_assert__("out", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    VekSockPeer who;
    vek_s32 r = ISock_accept(p->lis, out, tmo);
    if (r < 0) {
        return r;
    }
    r = check_peer(*out, p->flags, &who);
    if (peer) {
        *peer = who;
    }
    if (r < 0) {
        ISock_release(*out);
        *out = nullptr;
    }
    return r;
}

VEK_API ISock* VekPipe_xconnect__(const char* name, vek_s32 flags, vek_s32 tmo, vek_s32* err, const char* path,
                                  vek_s32 line) {
    err = err_out(err);
    char addr[512];
    *err = (flags & ~VEK_PIPE_ANY_USER) ? VEK_ERR_BAD_ARG : addr_of(name, addr, sizeof addr);
    if (*err < 0) {
        return nullptr;
    }
    ISock* s = LocSock_xconnect__(addr, tmo, err, path, line);
    if (!s) {
        return nullptr;
    }
    VekSockPeer who;
    *err = check_peer(s, flags, &who);
    if (*err < 0) {
        ISock_release(s);
        return nullptr;
    }
    return s;
}

VEK_API vek_s32 VekPipe_addr(const char* name, char* buf, vek_s32 size) {
    if (!buf || size <= 0) {
        vek_assert__("buf && size > 0", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 r = addr_of(name, buf, (size_t)size);
    return r < 0 ? r : (vek_s32)std::strlen(buf);
}

} // extern "C"
