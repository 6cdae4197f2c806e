/*
 * TrcStrm.cpp - a write-only stream whose lines become trace records.
 *
 * The open line lives in an OS-layer block, not the tracked heap: a trace
 * stream may be used by the heap's own reports and must not show up in a
 * leak report as the reporter's block.
 */
#include <cstring>
#include "ObjModel.h"
#include "VekCore.h"
#include "VekStrm.h"

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidIStrm = VEK_IID_ISTRM_INIT;
constexpr vek_s32 kMaxLine = 4096;

using TrcCls = vek::ObjClass<TrcStrm, IStrm, VEK_CLS_TRCSTRM, TrcStrm_delete, &kIidIStrm, kSrc>;

void line_out(TrcStrm* t) {
    if (t->lineLen > 0 && VEK_TRC_ON(&t->site, t->module, t->field, t->level)) {
        tout_printfx(kSrc, __LINE__, t->module, t->field, t->level, "%.*s", (int)t->lineLen, t->line);
    }
    t->lineLen = 0;
}

/* Adds bytes to the open line, growing its block up to kMaxLine; a full
 * line is written as it stands. */
void line_add(TrcStrm* t, const char* p, vek_s32 n) {
    while (n > 0) {
        if (t->lineLen == t->lineCap) {
            if (t->lineCap == kMaxLine) {
                line_out(t);
                continue;
            }
            vek_s32 cap = t->lineCap ? t->lineCap * 2 : 128;
            char* b = (char*)al_malloc((size_t)cap);
            if (!b) {
                line_out(t);  // keep going with what the block holds
                if (!t->lineCap) {
                    return;
                }
                continue;
            }
            std::memcpy(b, t->line, (size_t)t->lineLen);
            al_free(t->line);
            t->line = b;
            t->lineCap = cap;
        }
        vek_s32 k = t->lineCap - t->lineLen < n ? t->lineCap - t->lineLen : n;
        std::memcpy(t->line + t->lineLen, p, (size_t)k);
        t->lineLen += k;
        p += k;
        n -= k;
    }
}

vek_s32 ts_write(IStrm* s, const void* data, vek_s32 len) {
    TrcStrm* t = TrcCls::self(s, __LINE__);
    if (!data || len <= 0) {
        VEK_ASSERT(data && len > 0);
        return 0;
    }
    t->written += len;
    // Nothing is kept for records that do not pass.
    bool on = VEK_TRC_ON(&t->site, t->module, t->field, t->level);
    const char* p = (const char*)data;
    const char* end = p + len;
    while (p < end) {
        const char* nl = (const char*)std::memchr(p, '\n', (size_t)(end - p));
        const char* stop = nl ? nl : end;
        if (on) {
            line_add(t, p, (vek_s32)(stop - p));
        }
        if (!nl) {
            break;
        }
        if (t->lineLen > 0 && t->line[t->lineLen - 1] == '\r') {
            t->lineLen--;
        }
        line_out(t);
        p = nl + 1;
    }
    return len;
}

vek_s32 ts_putc(IStrm* s, vek_s32 byte) {
    char c = (char)byte;
    return ts_write(s, &c, 1) == 1 ? 0 : VEK_ERR_BAD_ARG;
}

vek_s32 ts_getc(IStrm* s) {
    TrcCls::self(s, __LINE__);
    return VEK_ERR_EOF;
}

vek_s32 ts_ungetc(IStrm* s) {
    TrcCls::self(s, __LINE__);
    return VEK_ERR_NOT_OPEN;
}

vek_s32 ts_read(IStrm* s, void*, vek_s32) {
    TrcCls::self(s, __LINE__);
    return 0;
}

vek_s32 ts_seek(IStrm* s, vek_s64, vek_s32) {
    TrcCls::self(s, __LINE__);
    return VEK_ERR_NOT_SUPPORTED;
}

vek_s64 ts_tell(IStrm* s) {
    return TrcCls::self(s, __LINE__)->written;
}

vek_s32 ts_flush(IStrm* s) {
    line_out(TrcCls::self(s, __LINE__));
    return 0;
}

vek_s32 ts_clear(IStrm* s) {
    TrcCls::self(s, __LINE__);
    return VEK_ERR_NOT_SUPPORTED;
}

vek_s32 ts_set_size(IStrm* s, vek_s64) {
    TrcCls::self(s, __LINE__);
    return VEK_ERR_NOT_SUPPORTED;
}

const char* ts_class_name(IStrm* s) {
    TrcCls::self(s, __LINE__);
    return "TrcStrm";
}

const IStrmVtbl kTrcStrmVtbl = {
    TrcCls::queryItf, TrcCls::addRef, TrcCls::release, ts_putc,  ts_getc,
    ts_ungetc,        ts_read,        ts_write,        ts_seek,  ts_tell,
    ts_flush,         ts_tell,        ts_clear,        ts_set_size, ts_class_name,
};

} // namespace

extern "C" {

VEK_API TrcStrm* TrcStrm_new(TrcStrm* mem, vek_s32 module, vek_s32 field, vek_s32 level) {
    TrcStrm* t = (TrcStrm*)vek::obj_storage(mem, sizeof(TrcStrm), VEK_CLS_TRCSTRM);
    if (t) {
        t->vtbl = &kTrcStrmVtbl;
        t->module = module;
        t->field = field;
        t->level = level;
    }
    return t;
}

VEK_API IStrm* TrcStrm_xcreate__(TrcStrm* mem, vek_s32 module, vek_s32 field, vek_s32 level,
                                 const char*, vek_s32) {
    TrcStrm* t = TrcStrm_new(mem, module, field, level);
    if (!t) {
        return nullptr;
    }
    IStrm* s = TrcCls::itf(t);
    vek::obj_add_ref(s);
    return s;
}

VEK_API void TrcStrm_delete(TrcStrm* obj) {
    TrcStrm* t = TrcCls::from_obj(obj, __LINE__);
    line_out(t);
    al_free(t->line);
    t->line = nullptr;
    t->lineCap = 0;
    vek::obj_dispose(t);
}

} // extern "C"
