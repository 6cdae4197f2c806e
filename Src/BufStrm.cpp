/*
 * BufStrm.cpp - the buffered stream over any IStrm and the socket stream
 * over an ISock (BufStrm.h).
 *
 * BufStrm keeps a read buffer and a write buffer apart because its inner
 * stream may be a connection, where what was read ahead and what waits to
 * be written belong to two independent directions; over a file they are
 * one position, and the read-ahead is given back (a seek) before a write.
 */
#include <cstring>
#include "BufStrm.h"
#include "ObjModel.h"
#include "VekCore.h"

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidIStrm = VEK_IID_ISTRM_INIT;
constexpr vek_s32 kDefBuf = 65536;

bool bad_buf(const void* p, vek_s32 n, const char* text) {
    if (!p || n <= 0) {
        vek_assert__(text, __FILE__, __LINE__);
        return true;
    }
    return false;
}

/* ---------------------------------------------------------------- BufStrm */

using BufCls = vek::ObjClass<BufStrm, IStrm, VEK_CLS_BUFSTRM, BufStrm_delete, &kIidIStrm, kSrc>;

vek_s32 unread(const BufStrm* b) {
    return b->rdLen - b->rdPos;
}

/* Writes the write buffer out: 0, or inner's error with the bytes that
 * did not go out kept at the buffer's start. */
vek_s32 buf_push(BufStrm* b) {
    vek_s32 done = 0;
    while (done < b->wrLen) {
        vek_s32 r = IStrm_write(b->inner, b->wr + done, b->wrLen - done);
        if (r <= 0) {
            std::memmove(b->wr, b->wr + done, (size_t)(b->wrLen - done));
            b->wrLen -= done;
            return r < 0 ? r : VEK_ERR_WRITE_NOTHING;
        }
        done += r;
    }
    b->wrLen = 0;
    return 0;
}

/* Makes inner's position the stream's: writes go out, read-ahead is given
 * back. */
vek_s32 buf_settle(BufStrm* b) {
    vek_s32 r = buf_push(b);
    if (r == 0 && unread(b) > 0) {
        r = IStrm_seek(b->inner, -(vek_s64)unread(b), 1);
    }
    b->rdPos = b->rdLen = 0;
    return r;
}

/* Refills the empty read buffer: the bytes read (0 at the end). */
vek_s32 buf_fill(BufStrm* b) {
    if (b->wrLen > 0 && buf_push(b) < 0) {
        return 0;
    }
    vek_s32 r = IStrm_read(b->inner, b->rd, b->cap);
    b->lastShort = r < b->cap;
    b->rdPos = 0;
    b->rdLen = r > 0 ? r : 0;
    return b->rdLen;
}

/* Reads more behind the bytes not taken yet (moved to the buffer's
 * start): the bytes added, 0 when there is no room or inner has none. */
vek_s32 buf_more(BufStrm* b) {
    vek_s32 keep = unread(b);
    if (keep >= b->cap || (b->wrLen > 0 && buf_push(b) < 0)) {
        return 0;
    }
    std::memmove(b->rd, b->rd + b->rdPos, (size_t)keep);
    vek_s32 r = IStrm_read(b->inner, b->rd + keep, b->cap - keep);
    b->lastShort = r < b->cap - keep;
    b->rdPos = 0;
    b->rdLen = keep + (r > 0 ? r : 0);
    return r > 0 ? r : 0;
}

vek_s32 b_read(IStrm* s, void* buf, vek_s32 len) {
    BufStrm* b = BufCls::self(s, __LINE__);
    if (bad_buf(buf, len, "buf && bufLen > 0")) {
        return 0;
    }
    char* out = (char*)buf;
    vek_s32 n = 0;
    while (n < len) {
        vek_s32 have = unread(b);
        if (have > 0) {
            vek_s32 k = have < len - n ? have : len - n;
            std::memcpy(out + n, b->rd + b->rdPos, (size_t)k);
            b->rdPos += k;
            n += k;
            continue;
        }
        if (n > 0 && b->lastShort) {
            break;  // the source gave what it had: do not wait for more
        }
        if (len - n >= b->cap) {
            if (b->wrLen > 0 && buf_push(b) < 0) {
                break;
            }
            vek_s32 r = IStrm_read(b->inner, out + n, len - n);
            b->lastShort = r < len - n;
            if (r <= 0) {
                break;
            }
            n += r;
        } else if (buf_fill(b) == 0) {
            break;
        }
    }
    return n;
}

vek_s32 b_getc(IStrm* s) {
    BufStrm* b = BufCls::self(s, __LINE__);
    if (b->rdPos < b->rdLen || buf_fill(b) > 0) {
        return (vek_u8)b->rd[b->rdPos++];
    }
    return VEK_ERR_EOF;
}

vek_s32 b_ungetc(IStrm* s) {
    BufStrm* b = BufCls::self(s, __LINE__);
    if (b->rdPos == 0) {
        return VEK_ERR_NOT_OPEN;
    }
    b->rdPos--;
    return 0;
}

/* Before a write: read-ahead goes back to a seekable inner. */
void buf_to_write(BufStrm* b) {
    if (unread(b) > 0 && IStrm_seek(b->inner, -(vek_s64)unread(b), 1) == 0) {
        b->rdPos = b->rdLen = 0;
    }
}

vek_s32 b_write(IStrm* s, const void* data, vek_s32 len) {
    BufStrm* b = BufCls::self(s, __LINE__);
    if (bad_buf(data, len, "data && dataLen > 0")) {
        return VEK_ERR_BAD_ARG;
    }
    buf_to_write(b);
    if (b->wrLen + len > b->cap) {
        vek_s32 r = buf_push(b);
        if (r < 0) {
            return r;
        }
    }
    if (len >= b->cap) {
        return IStrm_write(b->inner, data, len);
    }
    std::memcpy(b->wr + b->wrLen, data, (size_t)len);
    b->wrLen += len;
    return len;
}

vek_s32 b_putc(IStrm* s, vek_s32 byte) {
    BufStrm* b = BufCls::self(s, __LINE__);
    if (b->wrLen < b->cap && b->rdPos == b->rdLen) {
        b->wr[b->wrLen++] = (char)byte;
        return 0;
    }
    char c = (char)byte;
    vek_s32 r = b_write(s, &c, 1);
    return r == 1 ? 0 : r;
}

vek_s32 b_flush(IStrm* s) {
    BufStrm* b = BufCls::self(s, __LINE__);
    vek_s32 r = buf_push(b);
    return r < 0 ? r : IStrm_flush(b->inner);
}

vek_s32 b_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    BufStrm* b = BufCls::self(s, __LINE__);
    vek_s32 r = buf_push(b);
    if (r < 0) {
        return r;
    }
    if (origin == 1) {
        offset -= unread(b);  // relative to where the reader stands, not inner
    }
    b->rdPos = b->rdLen = 0;
    return IStrm_seek(b->inner, offset, origin);
}

vek_s64 b_tell(IStrm* s) {
    BufStrm* b = BufCls::self(s, __LINE__);
    vek_s64 t = IStrm_tell(b->inner);
    return t < 0 ? t : t - unread(b) + b->wrLen;
}

vek_s64 b_size(IStrm* s) {
    BufStrm* b = BufCls::self(s, __LINE__);
    vek_s32 r = buf_push(b);
    return r < 0 ? r : IStrm_size(b->inner);
}

vek_s32 b_clear(IStrm* s) {
    BufStrm* b = BufCls::self(s, __LINE__);
    b->wrLen = 0;
    b->rdPos = b->rdLen = 0;
    return IStrm_clear(b->inner);
}

vek_s32 b_set_size(IStrm* s, vek_s64 n) {
    BufStrm* b = BufCls::self(s, __LINE__);
    vek_s32 r = buf_settle(b);
    return r < 0 ? r : IStrm_setSize(b->inner, n);
}

const char* b_name(IStrm* s) {
    BufCls::self(s, __LINE__);
    return "BufStrm";
}

const IStrmVtbl kBufVtbl = {BufCls::queryItf, BufCls::addRef, BufCls::release, b_putc,  b_getc,
                            b_ungetc,         b_read,         b_write,         b_seek,  b_tell,
                            b_flush,          b_size,         b_clear,         b_set_size, b_name};

/* --------------------------------------------------------------- SockStrm */

using SockCls = vek::ObjClass<SockStrm, IStrm, VEK_CLS_SOCKSTRM, SockStrm_delete, &kIidIStrm, kSrc>;

vek_s32 k_read(IStrm* s, void* buf, vek_s32 len) {
    SockStrm* k = SockCls::self(s, __LINE__);
    if (bad_buf(buf, len, "buf && bufLen > 0")) {
        return 0;
    }
    vek_s32 n = 0;
    if (k->ungot) {
        *(char*)buf = (char)k->last;
        k->ungot = 0;
        k->pos++;
        if (len == 1) {
            return 1;
        }
        n = 1;
    }
    vek_s32 r = ISock_read(k->sock, (char*)buf + n, len - n, n > 0 ? 0 : k->rdTmo);
    if (r > 0) {
        n += r;
        k->pos += r;
        k->err = 0;
    } else if (n == 0 || r != VEK_ERR_TIMEOUT) {
        k->err = r;
    }
    k->last = n > 0 ? (vek_u8)((char*)buf)[n - 1] : -1;
    return n;
}

vek_s32 k_getc(IStrm* s) {
    SockStrm* k = SockCls::self(s, __LINE__);
    char c;
    return k_read(s, &c, 1) == 1 ? (vek_u8)c : k->err;
}

vek_s32 k_ungetc(IStrm* s) {
    SockStrm* k = SockCls::self(s, __LINE__);
    if (k->last < 0 || k->ungot) {
        return VEK_ERR_NOT_OPEN;
    }
    k->ungot = 1;
    k->pos--;
    return 0;
}

vek_s32 k_write(IStrm* s, const void* data, vek_s32 len) {
    SockStrm* k = SockCls::self(s, __LINE__);
    if (bad_buf(data, len, "data && dataLen > 0")) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 r = ISock_write(k->sock, data, len, k->wrTmo);
    k->err = r == len ? 0 : r;
    return r;
}

vek_s32 k_putc(IStrm* s, vek_s32 byte) {
    char c = (char)byte;
    vek_s32 r = k_write(s, &c, 1);
    return r == 1 ? 0 : r;
}

vek_s32 k_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    SockStrm* k = SockCls::self(s, __LINE__);
    bool here = (origin == 1 && offset == 0) || (origin == 0 && offset == k->pos);
    return here ? 0 : VEK_ERR_NOT_SUPPORTED;
}

vek_s64 k_tell(IStrm* s) {
    return SockCls::self(s, __LINE__)->pos;
}

vek_s32 k_flush(IStrm* s) {
    SockStrm* k = SockCls::self(s, __LINE__);
    return ISock_drain(k->sock, k->wrTmo);
}

vek_s32 k_no(IStrm* s) {
    SockCls::self(s, __LINE__);
    return VEK_ERR_NOT_SUPPORTED;
}

vek_s32 k_no_size(IStrm* s, vek_s64) {
    return k_no(s);
}

const char* k_name(IStrm* s) {
    SockCls::self(s, __LINE__);
    return "SockStrm";
}

const IStrmVtbl kSockVtbl = {SockCls::queryItf, SockCls::addRef, SockCls::release, k_putc, k_getc,
                             k_ungetc,          k_read,          k_write,          k_seek, k_tell,
                             k_flush,           k_tell,          k_no,             k_no_size, k_name};

} // namespace

extern "C" {

VEK_API BufStrm* BufStrm_new(BufStrm* mem, IStrm* inner, vek_s32 bufSize) {
    if (!inner) {
        vek_assert__("inner", __FILE__, __LINE__);
        return nullptr;
    }
    vek_s32 cap = bufSize > 0 ? bufSize : kDefBuf;
    char* bufs = (char*)vek_malloc__((size_t)cap * 2);
    if (!bufs) {
        return nullptr;
    }
    BufStrm* b = (BufStrm*)vek::obj_storage(mem, sizeof(BufStrm), VEK_CLS_BUFSTRM);
    if (!b) {
        vek_free__(bufs);
        return nullptr;
    }
    b->vtbl = &kBufVtbl;
    b->inner = inner;
    IStrm_addRef(inner);
    b->rd = bufs;
    b->wr = bufs + cap;
    b->cap = cap;
    return b;
}

VEK_API IStrm* BufStrm_xcreate__(BufStrm* mem, IStrm* inner, vek_s32 bufSize, const char*, vek_s32) {
    BufStrm* b = BufStrm_new(mem, inner, bufSize);
    if (!b) {
        return nullptr;
    }
    AlAtom_inc(&b->ref);
    return BufCls::itf(b);
}

VEK_API void BufStrm_delete(BufStrm* obj) {
    BufStrm* b = BufCls::from_obj(obj, __LINE__);
    buf_push(b);
    IStrm_release(b->inner);
    vek_free__(b->rd);
    vek::obj_dispose(b);
}

VEK_API vek_s32 BufStrm_readLine(IStrm* strm, char* line, vek_s32 cap) {
    BufStrm* b = BufCls::self(strm, __LINE__);
    if (!line || cap < 2) {
        vek_assert__("line && cap >= 2", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 n = 0;
    bool any = false;
    for (;;) {
        if (b->rdPos == b->rdLen && buf_fill(b) == 0) {
            break;
        }
        any = true;
        const char* p = b->rd + b->rdPos;
        vek_s32 have = b->rdLen - b->rdPos;
        const char* nl = (const char*)std::memchr(p, '\n', (size_t)have);
        vek_s32 take = nl ? (vek_s32)(nl - p) : have;
        vek_s32 room = cap - 1 - n;
        if (!nl && take == room + 1 && p[take - 1] == '\r') {
            // The room ends just before a CR that the next fill may show
            // to be a line end: take what fits and look behind the CR.
            std::memcpy(line + n, p, (size_t)room);
            n += room;
            b->rdPos += room;
            if (buf_more(b) > 0) {
                continue;
            }
            line[n] = 0;
            return VEK_ERR_LINE_LONG;
        }
        bool crDropped = take == room + 1 && nl && p[take - 1] == '\r';
        if (crDropped) {
            take--;  // the line fits once its CR is dropped
        }
        if (take > room) {
            std::memcpy(line + n, p, (size_t)room);
            b->rdPos += room;
            line[cap - 1] = 0;
            return VEK_ERR_LINE_LONG;
        }
        std::memcpy(line + n, p, (size_t)take);
        n += take;
        b->rdPos += take;
        if (nl) {
            b->rdPos = (vek_s32)(nl - b->rd) + 1;
            if (!crDropped && n > 0 && line[n - 1] == '\r') {
                n--;
            }
            line[n] = 0;
            return n;
        }
    }
    line[n] = 0;
    return any || n > 0 ? n : VEK_ERR_EOF;
}

VEK_API SockStrm* SockStrm_new(SockStrm* mem, ISock* sock, vek_s32 rdTmo, vek_s32 wrTmo) {
    if (!sock) {
        vek_assert__("sock", __FILE__, __LINE__);
        return nullptr;
    }
    SockStrm* k = (SockStrm*)vek::obj_storage(mem, sizeof(SockStrm), VEK_CLS_SOCKSTRM);
    if (!k) {
        return nullptr;
    }
    k->vtbl = &kSockVtbl;
    k->sock = sock;
    ISock_addRef(sock);
    k->rdTmo = rdTmo;
    k->wrTmo = wrTmo;
    k->last = -1;
    return k;
}

VEK_API IStrm* SockStrm_xcreate__(SockStrm* mem, ISock* sock, vek_s32 rdTmo, vek_s32 wrTmo, const char*,
                                  vek_s32) {
    SockStrm* k = SockStrm_new(mem, sock, rdTmo, wrTmo);
    if (!k) {
        return nullptr;
    }
    AlAtom_inc(&k->ref);
    return SockCls::itf(k);
}

VEK_API void SockStrm_delete(SockStrm* obj) {
    SockStrm* k = SockCls::from_obj(obj, __LINE__);
    ISock_release(k->sock);
    vek::obj_dispose(k);
}

VEK_API vek_s32 SockStrm_lastErr(IStrm* strm) {
    return SockCls::self(strm, __LINE__)->err;
}

VEK_API void SockStrm_setTmo(IStrm* strm, vek_s32 rdTmo, vek_s32 wrTmo) {
    SockStrm* k = SockCls::self(strm, __LINE__);
    k->rdTmo = rdTmo;
    k->wrTmo = wrTmo;
}

} // extern "C"
