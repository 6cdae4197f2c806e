/*
 * EncpStrm.cpp - a window of another stream.
 *
 * The window owns a position of its own and never trusts the inner
 * stream's: before every read or write it moves inner to off + pos when
 * inner stands elsewhere (a tell and a compare when it does not), so a
 * record inside a file can be read through a window while other code
 * moves the same file stream. Whatever inner answers is taken as it is;
 * the window only narrows what is asked of it.
 */
#include <cstdint>
#include "ObjModel.h"
#include "VekStrm.h"

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidIStrm = VEK_IID_ISTRM_INIT;

using EncpCls = vek::ObjClass<EncpStrm, IStrm, VEK_CLS_ENCPSTRM, EncpStrm_delete, &kIidIStrm, kSrc>;

bool fixed(const EncpStrm* e) {
    return e->len >= 0;
}

// The part of the window that inner holds.
vek_s64 window_size(EncpStrm* e) {
    vek_s64 have = IStrm_size(e->inner) - e->off;
    if (have < 0) {
        have = 0;
    }
    return fixed(e) && e->len < have ? e->len : have;
}

// Room left in a fixed window from the position (open windows: no end).
vek_s64 room(const EncpStrm* e) {
    return fixed(e) ? e->len - e->pos : INT64_MAX;
}

// Moves inner to the window's position: 0 or inner's error.
vek_s32 sync(EncpStrm* e) {
    vek_s64 want = e->off + e->pos;
    return IStrm_tell(e->inner) == want ? 0 : IStrm_seek(e->inner, want, 0);
}

vek_s32 ep_putc(IStrm* s, vek_s32 byte) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    if (!e->inner) {
        return VEK_ERR_NOT_OPEN;
    }
    if (room(e) < 1) {
        return VEK_ERR_FULL;
    }
    vek_s32 r = sync(e);
    if (r == 0) {
        r = IStrm_putc(e->inner, byte);
    }
    if (r == 0) {
        e->pos++;
    }
    return r;
}

vek_s32 ep_getc(IStrm* s) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    if (!e->inner) {
        return VEK_ERR_NOT_OPEN;
    }
    if (room(e) < 1) {
        return VEK_ERR_EOF;
    }
    vek_s32 r = sync(e);
    if (r == 0) {
        r = IStrm_getc(e->inner);
    }
    if (r >= 0) {
        e->pos++;
    }
    return r;
}

vek_s32 ep_ungetc(IStrm* s) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    if (!e->inner || e->pos <= 0) {
        return VEK_ERR_NOT_OPEN;
    }
    e->pos--;
    return 0;
}

vek_s32 ep_read(IStrm* s, void* buf, vek_s32 bufLen) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    if (!e->inner) {
        return VEK_ERR_NOT_OPEN;
    }
    if (!buf || bufLen <= 0) {
        VEK_ASSERT(buf && bufLen > 0);
        return 0;
    }
    vek_s64 n = room(e) < bufLen ? room(e) : bufLen;
    if (n <= 0) {
        return 0;
    }
    vek_s32 r = sync(e);
    if (r == 0) {
        r = IStrm_read(e->inner, buf, (vek_s32)n);
    }
    if (r > 0) {
        e->pos += r;
    }
    return r;
}

vek_s32 ep_write(IStrm* s, const void* data, vek_s32 dataLen) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    if (!e->inner) {
        return VEK_ERR_NOT_OPEN;
    }
    if (!data || dataLen <= 0) {
        VEK_ASSERT(data && dataLen > 0);
        return 0;
    }
    if (room(e) < dataLen) {
        return VEK_ERR_FULL;
    }
    vek_s32 r = sync(e);
    if (r == 0) {
        r = IStrm_write(e->inner, data, dataLen);
    }
    if (r > 0) {
        e->pos += r;
    }
    return r;
}

vek_s32 ep_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    if (!e->inner) {
        return VEK_ERR_NOT_OPEN;
    }
    vek_s64 size = window_size(e);
    vek_s64 base;
    switch (origin) {
    case 0: base = 0; break;
    case 1: base = e->pos; break;
    case 2: base = size; break;
    default: return VEK_ERR_BAD_ARG;
    }
    vek_s64 target;
    if (__builtin_add_overflow(base, offset, &target) || target < 0 || target > size) {
        return VEK_ERR_BAD_ARG;
    }
    e->pos = target;
    return 0;
}

vek_s64 ep_tell(IStrm* s) {
    return EncpCls::self(s, __LINE__)->pos;
}

vek_s32 ep_flush(IStrm* s) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    return e->inner ? IStrm_flush(e->inner) : VEK_ERR_NOT_OPEN;
}

vek_s64 ep_size(IStrm* s) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    return e->inner ? window_size(e) : 0;
}

vek_s32 ep_set_size(IStrm* s, vek_s64 newLen) {
    EncpStrm* e = EncpCls::self(s, __LINE__);
    if (!e->inner) {
        return VEK_ERR_NOT_OPEN;
    }
    if (newLen < 0) {
        return VEK_ERR_BAD_ARG;
    }
    if (newLen >= window_size(e)) {
        return 0;
    }
    if (fixed(e)) {
        return VEK_ERR_NOT_SUPPORTED;
    }
    vek_s32 r = IStrm_setSize(e->inner, e->off + newLen);
    if (r == 0) {
        e->pos = 0;
    }
    return r;
}

vek_s32 ep_clear(IStrm* s) {
    return ep_set_size(s, 0);
}

const char* ep_class_name(IStrm* s) {
    EncpCls::self(s, __LINE__);
    return "EncpStrm";
}

const IStrmVtbl kEncpStrmVtbl = {
    EncpCls::queryItf, EncpCls::addRef, EncpCls::release, ep_putc,  ep_getc,
    ep_ungetc,         ep_read,         ep_write,         ep_seek,  ep_tell,
    ep_flush,          ep_size,         ep_clear,         ep_set_size, ep_class_name,
};

} // namespace

extern "C" {

VEK_API EncpStrm* EncpStrm_new(EncpStrm* mem, IStrm* inner, vek_s64 off, vek_s64 len) {
    EncpStrm* e = (EncpStrm*)vek::obj_storage(mem, sizeof(EncpStrm), VEK_CLS_ENCPSTRM);
    if (!e) {
        return nullptr;
    }
    e->vtbl = &kEncpStrmVtbl;
    if (!inner) {
        vek_assert__("inner", kSrc, __LINE__);
    } else {
        IStrm_addRef(inner);
        e->inner = inner;
    }
    if (off < 0) {
        vek_assert__("off >= 0", kSrc, __LINE__);
        off = 0;
    }
    e->off = off;
    e->len = len < 0 ? -1 : len;
    return e;
}

VEK_API IStrm* EncpStrm_xcreatex__(EncpStrm* mem, IStrm* inner, vek_s64 off, vek_s64 len,
                                   const char*, vek_s32) {
    EncpStrm* e = EncpStrm_new(mem, inner, off, len);
    if (!e) {
        return nullptr;
    }
    IStrm* s = EncpCls::itf(e);
    vek::obj_add_ref(s);
    return s;
}

VEK_API void EncpStrm_delete(EncpStrm* obj) {
    EncpStrm* e = EncpCls::from_obj(obj, __LINE__);
    IStrm* inner = e->inner;
    e->inner = nullptr;
    if (inner) {
        IStrm_release(inner);
    }
    vek::obj_dispose(e);
}

} // extern "C"
