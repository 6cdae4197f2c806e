/*
 * CstrStrm.cpp - the read-write stream over a caller's VekStr: how stream
 * writers (formatters, serialisers) produce a string directly.
 *
 * Writes go through the string's own direct-buffer use (useBufBeg /
 * useBufEnd), so a shared block is unshared and growth follows the
 * string's allocation rule.
 */
#include <cstring>
#include "ObjModel.h"
#include "VekStrm.h"
#include "VekVos.h"

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidIStrm = VEK_IID_ISTRM_INIT;
using CstrCls = vek::ObjClass<CstrStrm, IStrm, VEK_CLS_CSTRSTRM, CstrStrm_delete, &kIidIStrm, kSrc>;

bool live_str(const VekStr* str) {
    return (str->magic & 0xFFFFFFu) == VEKSTR_MARK;
}

// The position of an operation that reads or writes at it. A string that
// shrank behind the stream's back leaves the position beyond its end: that
// is reported, and the operation goes on from the end.
vek_s32 checked_pos(CstrStrm* _this) {
    vek_s32 len = VekStr_len(_this->str);
    if (_this->pos > len) {
        vek_assert__("_this->pos <= VekStr_len(_this->str)", kSrc, __LINE__);
        _this->pos = len;
    }
    return _this->pos;
}

// Writes n bytes at the position: grows when position + n reaches the
// block, extends the length past the old end, keeps the terminator.
void put_bytes(CstrStrm* _this, const void* data, vek_s32 n) {
    vek_s32 pos = checked_pos(_this);
    vek_s32 len = VekStr_len(_this->str);
    vek_s32 end = pos + n;
    char* buf = VekStr_useBufBeg(_this->str, end > len ? end : len);
    std::memcpy(buf + pos, data, (size_t)n);
    VekStr_useBufEnd(_this->str, end > len ? end : len);
    _this->pos = end;
}

vek_s32 cs_putc(IStrm* s, vek_s32 byte) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    char c = (char)byte;
    put_bytes(_this, &c, 1);
    return 0;
}

vek_s32 cs_getc(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_EOF;
    }
    vek_s32 pos = checked_pos(_this);
    if (pos >= VekStr_len(_this->str)) {
        return VEK_ERR_EOF;
    }
    _this->pos++;
    return (vek_u8)VekStr_buf(_this->str)[pos];
}

vek_s32 cs_ungetc(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    if (_this->pos <= 0) {
        return VEK_ERR_NOT_OPEN;
    }
    _this->pos--;
    return 0;
}

vek_s32 cs_read(IStrm* s, void* buf, vek_s32 bufLen) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return 0;
    }
    if (!buf || bufLen <= 0) {
        VEK_ASSERT(buf && bufLen > 0);
        return 0;
    }
    vek_s32 pos = checked_pos(_this);
    vek_s32 n = VekStr_len(_this->str) - pos;
    if (n > bufLen) {
        n = bufLen;
    }
    if (n > 0) {
        std::memcpy(buf, VekStr_buf(_this->str) + pos, (size_t)n);
        _this->pos += n;
    }
    return n > 0 ? n : 0;
}

vek_s32 cs_write(IStrm* s, const void* data, vek_s32 dataLen) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    if (dataLen < 1) {
        return 0;
    }
    if (!data) {
        VEK_ASSERT(data && dataLen > 0);
        return 0;
    }
    put_bytes(_this, data, dataLen);
    return dataLen;
}

vek_s32 cs_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return 0;  // the position stays 0
    }
    vek_s64 len = VekStr_len(_this->str);
    vek_s64 target = offset;
    switch (origin) {
    case 0: break;
    case 1: target += _this->pos; break;
    case 2: target += len; break;
    default: return VEK_ERR_BAD_ARG;
    }
    if (target < 0 || target > len) {
        return VEK_ERR_RANGE;
    }
    _this->pos = (vek_s32)target;
    return 0;
}

vek_s64 cs_tell(IStrm* s) {
    return CstrCls::self(s, __LINE__)->pos;
}

vek_s32 cs_flush(IStrm* s) {
    CstrCls::self(s, __LINE__);
    return 0;
}

vek_s64 cs_size(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    return _this->str ? VekStr_len(_this->str) : 0;
}

vek_s32 cs_clear(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    VekStr_clear(_this->str);
    _this->pos = 0;
    return 0;
}

vek_s32 cs_set_size(IStrm* s, vek_s64 newLen) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    if (newLen < 0) {
        return VEK_ERR_BAD_ARG;
    }
    if (newLen < VekStr_len(_this->str)) {
        VekStr_trunc(_this->str, (vek_s32)newLen);
    }
    _this->pos = 0;
    return 0;
}

const char* cs_class_name(IStrm* s) {
    CstrCls::self(s, __LINE__);
    return "CstrStrm";
}

const IStrmVtbl kCstrStrmVtbl = {
    CstrCls::queryItf, CstrCls::addRef, CstrCls::release, cs_putc,    cs_getc,
    cs_ungetc,         cs_read,         cs_write,         cs_seek,    cs_tell,
    cs_flush,          cs_size,         cs_clear,         cs_set_size, cs_class_name,
};

VekStr* accept_str(VekStr* str) {
    if (str && !live_str(str)) {
        vek_assert__("!str || (str->magic & 0xFFFFFF) == VEKSTR_MARK", kSrc, __LINE__);
        return nullptr;
    }
    return str;
}

} // namespace

extern "C" {

VEK_API CstrStrm* CstrStrm_new(CstrStrm* mem, VekStr* str) {
    CstrStrm* obj = (CstrStrm*)vek::obj_storage(mem, sizeof(CstrStrm), VEK_CLS_CSTRSTRM);
    if (obj) {
        obj->vtbl = &kCstrStrmVtbl;
        obj->str = accept_str(str);
        obj->pos = 0;
    }
    return obj;
}

VEK_API IStrm* CstrStrm_xcreate__(CstrStrm* mem, VekStr* str, const char*, vek_s32) {
    CstrStrm* obj = CstrStrm_new(mem, str);
    if (!obj) {
        return nullptr;
    }
    IStrm* s = CstrCls::itf(obj);
    vek::obj_add_ref(s);
    return s;
}

VEK_API vek_s32 CstrStrm_attach(IStrm* strm, VekStr* str) {
    CstrStrm* _this = CstrCls::self(strm, __LINE__);
    _this->str = accept_str(str);
    _this->pos = 0;
    return 0;
}

VEK_API VekStr* CstrStrm_detach(IStrm* strm) {
    CstrStrm* _this = CstrCls::self(strm, __LINE__);
    VekStr* str = _this->str;
    _this->str = nullptr;
    _this->pos = 0;
    return str;
}

VEK_API void CstrStrm_delete(CstrStrm* obj) {
    CstrCls::from_obj(obj, __LINE__);
    obj->str = nullptr;
    vek::obj_dispose(obj);
}

} // extern "C"
