/*
 * CsvUtil.cpp - reading one CSV record into a simple list of field nodes,
 * and quoting one field.
 *
 * The reader passes over the character behind a field without looking at
 * it; with CR LF text that is exactly the separator or the CR, which is
 * what the record-end test after each field relies on.
 */
#include <cstring>
#include "CsvUtil.h"
#include "MemUtil.h"
#include "VekList.h"
#include "VekStr.h"
#include "VekVos.h"

namespace {

// A field node and its text in one tracked block.
CsvField* new_field(const char* text, vek_s32 len) {
    CsvField* f = (CsvField*)vek_malloc__(sizeof(CsvField) + (size_t)len + 1);
    if (!f) {
        return nullptr;
    }
    f->text = (char*)(f + 1);
    f->next = nullptr;
    f->len = len;
    std::memcpy(f->text, text, (size_t)len);
    f->text[len] = 0;
    return f;
}

bool add_field(SmpList* list, const char* text, vek_s32 len) {
    CsvField* f = new_field(text, len);
    if (f) {
        SmpList_addTail(list, f);
    }
    return f != nullptr;
}

// Appends n bytes to the field; false when the string could not grow (the
// string calls report that only through the heap's assertion).
bool appd(VekStr* field, const char* s, vek_s32 n) {
    vek_s32 want = VekStr_len(field) + n;
    VekStr_appdStrx(field, s, n);
    return VekStr_len(field) == want;
}

// A quoted field from just after its opening quote; the position behind
// the closing quote and the one character after it.
const char* read_quoted(const char* p, VekStr* field, bool& ok) {
    for (;;) {
        const char* q = std::strchr(p, '"');
        if (!q) {  // never closed: the field runs to the end of the text
            ok = appd(field, p, (vek_s32)std::strlen(p)) && ok;
            return p + std::strlen(p);
        }
        ok = appd(field, p, (vek_s32)(q - p)) && ok;
        if (q[1] == '"') {
            ok = appd(field, "\"", 1) && ok;
            p = q + 2;
            continue;
        }
        p = q + 1;
        return *p ? p + 1 : p;  // stop at the end of the text rather than pass it
    }
}

} // namespace

extern "C" {

VEK_API vek_s32 CsvUtil_read(const char* text, const char* start, const char** next, CsvField** fields,
                             char sep) {
    if (!text || !fields) {
        VEK_ASSERT(text && fields);
        return 0;
    }
    *fields = nullptr;
    const char* p = start ? start : text;
    if (p < text || p > text + std::strlen(text) || !*p) {
        return 0;
    }
    SmpList list;
    SmpList_init(&list);
    VekStr field;
    VekStr_new(&field);
    bool ok = true;
    for (;;) {
        if (*p == '"') {
            VekStr_clear(&field);
            p = read_quoted(p + 1, &field, ok);
            ok = add_field(&list, VekStr_buf(&field), VekStr_len(&field)) && ok;
        } else {
            const char* b = p;
            while (*p && *p != sep && *p != '\r' && *p != '\n') {
                p++;
            }
            ok = add_field(&list, b, (vek_s32)(p - b)) && ok;
            if (*p) {
                p++;
            }
        }
        bool crlf = p[0] == '\r' && p[1] == '\n';
        if (crlf || p[0] == '\n' || !p[0]) {
            if (p[-1] == sep) {
                ok = add_field(&list, "", 0) && ok;
            }
            p += crlf ? 2 : (p[0] ? 1 : 0);
            break;
        }
    }
    VekStr_delete(&field);
    if (!ok) {  // a record missing a field would read as a different record
        SmpList_delete(list.hdr, vek_free__);
        return VEK_ERR_FULL;
    }
    *fields = (CsvField*)list.hdr;
    if (next) {
        *next = p;
    }
    return 1;
}

VEK_API vek_s32 CsvUtil_encode(const char* src, VekStr* dst) {
    if (!(src && dst)) {
        vek_assert__("src && dst", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    if (!std::strpbrk(src, "\",\r\n")) {
        VekStr_setStr(dst, src);
        return 0;
    }
    VekStr out;  // src may be dst's own text
    VekStr_new(&out);
    VekStr_appdChar(&out, '"');
    for (const char* p = src; *p;) {
        const char* q = std::strchr(p, '"');
        vek_s32 n = q ? (vek_s32)(q - p) + 1 : (vek_s32)std::strlen(p);
        VekStr_appdStrx(&out, p, n);
        if (q) {
            VekStr_appdChar(&out, '"');
        }
        p += n;
    }
    VekStr_appdChar(&out, '"');
    VekStr_setCstr(dst, &out);
    VekStr_delete(&out);
    return 1;
}

} // extern "C"
