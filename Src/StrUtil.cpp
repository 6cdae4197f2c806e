/*
 * StrUtil.cpp - string utilities on terminated 8-bit strings and their
 * 16-bit twins.
 */
#include <cstring>
#include "StrUtil.h"
#include "VekVos.h"

namespace {

inline unsigned fold_upper(unsigned c) {
    return c >= 'a' && c <= 'z' ? c - 32 : c;
}

} // namespace

extern "C" {

VEK_API vek_s32 vek_stricmp(const char* a, const char* b) {
    return vek_strincmp(a, b, -1);
}

VEK_API vek_s32 vek_strincmp(const char* a, const char* b, vek_s32 n) {
    if (!a || !b) {
        VEK_ASSERT(a && b);
        return a == b ? 0 : (a ? 1 : -1);
    }
    for (vek_s32 i = 0; n < 0 || i < n; i++) {
        unsigned ca = fold_upper((vek_u8)a[i]);
        unsigned cb = fold_upper((vek_u8)b[i]);
        if (ca != cb || ca == 0) {
            return (vek_s32)ca - (vek_s32)cb;
        }
    }
    return 0;
}

VEK_API const char* str_path_name(const char* path) {
    if (!path) {
        VEK_ASSERT(path);
        return "";
    }
    const char* name = path;
    for (const char* p = path; *p; p++) {
        if (*p == '\\' || *p == '/') {
            name = p + 1;
        }
    }
    // A bare drive ("C:") has no name part.
    if (name == path && path[0] && path[1] == ':' && path[2] == 0) {
        return path + 2;
    }
    return name;
}

} // extern "C"
