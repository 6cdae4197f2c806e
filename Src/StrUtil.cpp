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

const char kDefaultSet[] = " \t\r\n";
const vek_wchar kDefaultSetW[] = {' ', '\t', '\r', '\n', 0};

template <class Ch>
vek_s32 text_len(const Ch* s) {
    vek_s32 n = 0;
    while (s[n]) {
        n++;
    }
    return n;
}

template <class Ch>
bool in_set(Ch c, const Ch* set) {
    for (; *set; set++) {
        if (*set == c) {
            return true;
        }
    }
    return false;
}

template <class Ch>
const Ch* skip_set(const Ch* s, vek_s32 len, const Ch* set, const Ch* defaultSet) {
    if (!s) {
        return s;
    }
    if (!set || !*set) {
        set = defaultSet;
    }
    for (vek_s32 i = 0; len < 0 || i < len; i++) {
        if (!s[i] || !in_set(s[i], set)) {
            return s + i;
        }
    }
    return s + len;
}

template <class Ch>
const Ch* rskip_set(const Ch* s, vek_s32 len, const Ch* set, const Ch* defaultSet) {
    if (!s) {
        return s;
    }
    if (!set || !*set) {
        set = defaultSet;
    }
    if (len < 0) {
        len = text_len(s);
    }
    while (len > 0 && in_set(s[len - 1], set)) {
        len--;
    }
    return s + len;
}

template <class Ch>
Ch* find_nocase(const Ch* s, const Ch* sub) {
    if (!s || !sub) {
        return nullptr;
    }
    if (!*sub) {
        return const_cast<Ch*>(s);
    }
    for (; *s; s++) {
        vek_s32 i = 0;
        while (sub[i] && s[i] && fold_upper((unsigned)s[i]) == fold_upper((unsigned)sub[i])) {
            i++;
        }
        if (!sub[i]) {
            return const_cast<Ch*>(s);
        }
    }
    return nullptr;
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

VEK_API char* vek_stristr(const char* s, const char* sub) {
    return find_nocase(s, sub);
}

VEK_API vek_wchar* vek_wcsistr(const vek_wchar* s, const vek_wchar* sub) {
    return find_nocase(s, sub);
}

VEK_API const char* str_skip_space(const char* s, vek_s32 len, const char* set) {
    return skip_set(s, len, set, kDefaultSet);
}

VEK_API const char* str_rskip_space(const char* s, vek_s32 len, const char* set) {
    return rskip_set(s, len, set, kDefaultSet);
}

VEK_API const vek_wchar* wcs_skip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set) {
    return skip_set(s, len, set, kDefaultSetW);
}

VEK_API const vek_wchar* wcs_rskip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set) {
    return rskip_set(s, len, set, kDefaultSetW);
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
