/*
 * IniUtil.cpp - one value in one call: the IniUtil readers (one pass over
 * the source with the document's own line rules), the writers (which load
 * the whole document, change it and write it back), and the section-less
 * name=value texts (Txt*).
 *
 * The readers differ from IniFile_get* on purpose: a source that cannot be
 * loaded returns the load's error and leaves the caller's buffer alone
 * instead of applying the default, so callers can tell "missing file"
 * from "missing value".
 */
#include <cstring>
#include "IniFile.h"
#include "IniScan.h"
#include "StrUtil.h"
#include "VekStrm.h"
#include "VekVos.h"

namespace {

/* A loaded document for the length of one call (kept in caller storage). */
class Doc {
  public:
    Doc() { IniFile_new(&doc_); }
    ~Doc() { IniFile_delete(&doc_); }
    Doc(const Doc&) = delete;
    Doc& operator=(const Doc&) = delete;
    IniFile* get() { return &doc_; }

  private:
    IniFile doc_;
};

bool args_ok(const void* src, const char* field, const char* expr, vek_s32 line) {
    if (!src || !field || !*field) {
        vek_assert__(expr, __FILE__, line);
        return false;
    }
    return true;
}

// The readers make one pass over the source that stops caring at the
// answer (see ini_find): no document is built. A source that cannot be
// read gives its error and the default is not applied.
template <class Source>
vek_s32 find(Source source, const char* sect, const char* field, vek::IniHit* hit) {
    struct Ctx {
        const char* sect;
        const char* field;
        vek::IniHit* hit;
    } c{sect, field, hit};
    return source(
        [](IStrm* strm, void* ctx) {
            Ctx* k = (Ctx*)ctx;
            return vek::ini_find(strm, k->sect, k->field, k->hit);
        },
        &c);
}

template <class Source>
vek_s32 get_str(Source source, const char* sect, const char* field, const char* def, char* buf, vek_s32 size) {
    vek::IniHit hit;
    vek_s32 r = find(source, sect, field, &hit);
    if (r < 0) {
        return r;
    }
    return buf && size >= 1 ? vek::ini_answer_str(hit.found ? hit.value : nullptr, def, buf, size) : 0;
}

template <class Source>
vek_s32 get_strx(Source source, const char* sect, const char* field, const char* def, VekStr* str) {
    vek::IniHit hit;
    vek_s32 r = find(source, sect, field, &hit);
    if (r < 0) {
        return r;
    }
    return str ? vek::ini_answer_strx(hit.found ? hit.value : nullptr, hit.len, def, str) : 0;
}

template <class Source>
vek_s32 get_int(Source source, const char* sect, const char* field, vek_s32 def) {
    vek::IniHit hit;
    vek_s32 r = find(source, sect, field, &hit);
    return r < 0 ? r : vek::ini_answer_int(hit.found ? hit.value : nullptr, def);
}

auto from_file(const char* path) {
    return [=](vek::IniStrmFn fn, void* ctx) { return vek::ini_with_file(path, fn, ctx); };
}
auto from_strm(IStrm* strm) {
    return [=](vek::IniStrmFn fn, void* ctx) { return fn(strm, ctx); };
}
auto from_data(VekData* data) {
    return [=](vek::IniStrmFn fn, void* ctx) { return vek::ini_with_data(data, fn, ctx); };
}
auto from_buf(const char* buf, vek_s32 len) {
    return [=](vek::IniStrmFn fn, void* ctx) { return vek::ini_with_buf(buf, len, fn, ctx); };
}
auto from_cstr(const VekStr* cstr) {
    return from_buf(VekStr_buf(cstr), VekStr_len(cstr) > 0 ? VekStr_len(cstr) : -1);
}

const char kFileArgs[] = "file && fieldName && *fieldName";
const char kStrmArgs[] = "strm && fieldName && *fieldName";
const char kDataArgs[] = "data && fieldName && *fieldName";
const char kCstrArgs[] = "cstr && fieldName && *fieldName";
const char kStrArgs[] = "str && fieldName && *fieldName";
const char kBufArgs[] = "buf && fieldName && *fieldName";

// The writers: an unloadable source gives an empty document, which then
// holds just the new value.
vek_s32 set_file(const char* path, const char* sect, const char* field, const char* value) {
    Doc doc;
    IniFile_loadFile(doc.get(), path);
    IniFile_setStr(doc.get(), sect, field, value);
    return IniFile_outFile(doc.get(), path);
}

vek_s32 set_strm(IStrm* strm, const char* sect, const char* field, const char* value) {
    Doc doc;
    IniFile_loadStrm(doc.get(), strm);
    IniFile_setStr(doc.get(), sect, field, value);
    vek_s32 r = IniFile_outStrm(doc.get(), strm);
    return r < 0 ? r : 0;
}

} // namespace

extern "C" {

// ---- readers ----

VEK_API vek_s32 IniUtil_getFileStr(const char* path, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size) {
    return args_ok(path, field, kFileArgs, __LINE__) ? get_str(from_file(path), sect, field, def, buf, size)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getFileStrx(const char* path, const char* sect, const char* field,
                                    const char* def, VekStr* str) {
    return args_ok(path, field, kFileArgs, __LINE__) ? get_strx(from_file(path), sect, field, def, str)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getFileInt(const char* path, const char* sect, const char* field, vek_s32 def) {
    return args_ok(path, field, kFileArgs, __LINE__) ? get_int(from_file(path), sect, field, def)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getStrmStr(IStrm* strm, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size) {
    return args_ok(strm, field, kStrmArgs, __LINE__) ? get_str(from_strm(strm), sect, field, def, buf, size)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getStrmStrx(IStrm* strm, const char* sect, const char* field,
                                    const char* def, VekStr* str) {
    return args_ok(strm, field, kStrmArgs, __LINE__) ? get_strx(from_strm(strm), sect, field, def, str)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getStrmInt(IStrm* strm, const char* sect, const char* field, vek_s32 def) {
    return args_ok(strm, field, kStrmArgs, __LINE__) ? get_int(from_strm(strm), sect, field, def)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getDataStr(VekData* data, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size) {
    return args_ok(data, field, kDataArgs, __LINE__) ? get_str(from_data(data), sect, field, def, buf, size)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getDataStrx(VekData* data, const char* sect, const char* field,
                                    const char* def, VekStr* str) {
    return args_ok(data, field, kDataArgs, __LINE__) ? get_strx(from_data(data), sect, field, def, str)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getDataInt(VekData* data, const char* sect, const char* field, vek_s32 def) {
    return args_ok(data, field, kDataArgs, __LINE__) ? get_int(from_data(data), sect, field, def)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getCstrStr(const VekStr* cstr, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size) {
    return args_ok(cstr, field, kCstrArgs, __LINE__) ? get_str(from_cstr(cstr), sect, field, def, buf, size)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getCstrStrx(const VekStr* cstr, const char* sect, const char* field,
                                    const char* def, VekStr* str) {
    return args_ok(cstr, field, kCstrArgs, __LINE__) ? get_strx(from_cstr(cstr), sect, field, def, str)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getCstrInt(const VekStr* cstr, const char* sect, const char* field, vek_s32 def) {
    return args_ok(cstr, field, kCstrArgs, __LINE__) ? get_int(from_cstr(cstr), sect, field, def)
                                                     : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getStrStr(const char* text, const char* sect, const char* field,
                                  const char* def, char* buf, vek_s32 size) {
    return args_ok(text, field, kStrArgs, __LINE__) ? get_str(from_buf(text, -1), sect, field, def, buf, size)
                                                    : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getStrStrx(const char* text, const char* sect, const char* field,
                                   const char* def, VekStr* str) {
    return args_ok(text, field, kStrArgs, __LINE__) ? get_strx(from_buf(text, -1), sect, field, def, str)
                                                    : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getStrInt(const char* text, const char* sect, const char* field, vek_s32 def) {
    return args_ok(text, field, kStrArgs, __LINE__) ? get_int(from_buf(text, -1), sect, field, def)
                                                    : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getBufStr(const char* text, vek_s32 len, const char* sect, const char* field,
                                  const char* def, char* buf, vek_s32 size) {
    return args_ok(text, field, kBufArgs, __LINE__) ? get_str(from_buf(text, len), sect, field, def, buf, size)
                                                    : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getBufStrx(const char* text, vek_s32 len, const char* sect, const char* field,
                                   const char* def, VekStr* str) {
    return args_ok(text, field, kBufArgs, __LINE__) ? get_strx(from_buf(text, len), sect, field, def, str)
                                                    : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_getBufInt(const char* text, vek_s32 len, const char* sect, const char* field,
                                  vek_s32 def) {
    return args_ok(text, field, kBufArgs, __LINE__) ? get_int(from_buf(text, len), sect, field, def)
                                                    : VEK_ERR_BAD_ARG;
}

// ---- writers ----

VEK_API vek_s32 IniUtil_setFileStr(const char* path, const char* sect, const char* field, const char* value) {
    return args_ok(path, field, kFileArgs, __LINE__) ? set_file(path, sect, field, value) : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_setFileInt(const char* path, const char* sect, const char* field, vek_s32 n) {
    char buf[16];
    vek_snprintf(buf, sizeof buf, "%d", (int)n);
    return IniUtil_setFileStr(path, sect, field, buf);
}

VEK_API vek_s32 IniUtil_setStrmStr(IStrm* strm, const char* sect, const char* field, const char* value) {
    return args_ok(strm, field, kStrmArgs, __LINE__) ? set_strm(strm, sect, field, value) : VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 IniUtil_setStrmInt(IStrm* strm, const char* sect, const char* field, vek_s32 n) {
    char buf[16];
    vek_snprintf(buf, sizeof buf, "%d", (int)n);
    return IniUtil_setStrmStr(strm, sect, field, buf);
}

// ---- name=value texts ----

VEK_API IStrm* TxtStrm_newv(IStrm* strm, va_list pairs) {
    if (!strm) {
        VEK_ASSERT(strm);
        return strm;
    }
    IStrm_clear(strm);
    for (;;) {
        const char* name = va_arg(pairs, const char*);
        if (!name) {
            break;
        }
        const char* value = va_arg(pairs, const char*);
        if (!*name) {
            VEK_ASSERT(*name);
            continue;
        }
        IStrm_write(strm, name, (vek_s32)std::strlen(name));
        IStrm_write(strm, "=", 1);
        if (value && *value) {
            IStrm_write(strm, value, (vek_s32)std::strlen(value));
        }
        IStrm_write(strm, "\r\n", 2);
    }
    return strm;
}

VEK_API IStrm* TxtStrm_new(IStrm* strm, ...) {
    va_list va;
    va_start(va, strm);
    TxtStrm_newv(strm, va);
    va_end(va);
    return strm;
}

VEK_API const char* TxtCstr_new(VekStr* cstr, ...) {
    if (!cstr) {
        VEK_ASSERT(cstr);
        return "";
    }
    CstrStrm mem;
    IStrm* s = CstrStrm_xcreate__(&mem, cstr, __FILE__, __LINE__);
    va_list va;
    va_start(va, cstr);
    TxtStrm_newv(s, va);
    va_end(va);
    IStrm_release(s);
    return VekStr_buf(cstr);
}

VEK_API VekData* TxtData_new(VekData** data, ...) {
    if (!data) {
        VEK_ASSERT(data);
        return nullptr;
    }
    MemStrm mem;
    IStrm* s = MemStrm_xcreatex__(&mem, 512, __FILE__, __LINE__);
    va_list va;
    va_start(va, data);
    TxtStrm_newv(s, va);
    va_end(va);
    *data = MemStrm_detach(s);
    IStrm_release(s);
    return *data;
}

VEK_API vek_s32 TxtCstr_getStr(const VekStr* cstr, const char* field, const char* def, char* buf, vek_s32 size) {
    return IniUtil_getCstrStr(cstr, nullptr, field, def, buf, size);
}

VEK_API vek_s32 TxtCstr_getStrx(const VekStr* cstr, const char* field, const char* def, VekStr* str) {
    return IniUtil_getCstrStrx(cstr, nullptr, field, def, str);
}

VEK_API vek_s32 TxtCstr_getInt(const VekStr* cstr, const char* field, vek_s32 def) {
    return IniUtil_getCstrInt(cstr, nullptr, field, def);
}

VEK_API vek_s32 TxtStr_getStr(const char* text, const char* field, const char* def, char* buf, vek_s32 size) {
    return IniUtil_getStrStr(text, nullptr, field, def, buf, size);
}

VEK_API vek_s32 TxtStr_getStrx(const char* text, const char* field, const char* def, VekStr* str) {
    return IniUtil_getStrStrx(text, nullptr, field, def, str);
}

VEK_API vek_s32 TxtStr_getInt(const char* text, const char* field, vek_s32 def) {
    return IniUtil_getStrInt(text, nullptr, field, def);
}

} // extern "C"
