/*
 * StrUtil.cpp - string utilities on terminated 8-bit strings and their
 * 16-bit twins.
 *
 * Every twin pair is one template over the character type: the exported
 * functions below only pick the instance (and the default set of the
 * width), so the 8-bit and the 16-bit side cannot drift apart.
 */
#include <cstring>
#include "StrUtil.h"
#include "MemUtil.h"
#include "VekVos.h"

namespace {

// Character codes as unsigned numbers: bytes above 127 must not sign-extend.
inline unsigned code(char c) {
    return (vek_u8)c;
}
inline unsigned code(vek_wchar c) {
    return c;
}

inline unsigned fold_upper(unsigned c) {
    return c >= 'a' && c <= 'z' ? c - 32 : c;
}
inline unsigned fold_lower(unsigned c) {
    return c >= 'A' && c <= 'Z' ? c + 32 : c;
}

template <class Ch>
struct Sets;
template <>
struct Sets<char> {
    static constexpr const char* space = " \t\r\n";
    static constexpr const char* blank = " \t";
};
constexpr vek_wchar kSpaceW[] = {' ', '\t', '\r', '\n', 0};
template <>
struct Sets<vek_wchar> {
    static constexpr const vek_wchar* space = kSpaceW;
};

// The set of the skip and trim helpers: a null or empty one means the default.
template <class Ch>
const Ch* space_set(const Ch* set) {
    return set && *set ? set : Sets<Ch>::space;
}

template <class Ch>
vek_s32 text_len(const Ch* s) {
    vek_s32 n = 0;
    if (s) {
        while (s[n]) {
            n++;
        }
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
vek_s32 compare(const Ch* a, const Ch* b, vek_s32 n, bool fold) {
    if (!a || !b) {
        VEK_ASSERT(a && b);
        return a == b ? 0 : (a ? 1 : -1);
    }
    for (vek_s32 i = 0; n < 0 || i < n; i++) {
        unsigned ca = code(a[i]);
        unsigned cb = code(b[i]);
        if (fold) {
            ca = fold_upper(ca);
            cb = fold_upper(cb);
        }
        if (ca != cb || ca == 0) {
            return (vek_s32)ca - (vek_s32)cb;
        }
    }
    return 0;
}

/* Case-blind search; with exactFirst the first unit of sub must match as it
 * is (the 16-bit search of the library has always worked so). */
template <class Ch>
Ch* find_nocase(const Ch* s, const Ch* sub, bool exactFirst = false) {
    if (!s || !sub) {
        return nullptr;
    }
    if (!*sub) {
        return const_cast<Ch*>(s);
    }
    for (; *s; s++) {
        if (exactFirst && *s != *sub) {
            continue;
        }
        vek_s32 i = 0;
        while (sub[i] && s[i] && fold_upper(code(s[i])) == fold_upper(code(sub[i]))) {
            i++;
        }
        if (!sub[i]) {
            return const_cast<Ch*>(s);
        }
    }
    return nullptr;
}

template <class Ch>
const Ch* skip_set(const Ch* s, vek_s32 len, const Ch* set) {
    if (!s) {
        return s;
    }
    set = space_set(set);
    for (vek_s32 i = 0; len < 0 || i < len; i++) {
        if (!s[i] || !in_set(s[i], set)) {
            return s + i;
        }
    }
    return s + len;
}

template <class Ch>
const Ch* rskip_set(const Ch* s, vek_s32 len, const Ch* set) {
    if (!s) {
        return s;
    }
    set = space_set(set);
    if (len < 0) {
        len = text_len(s);
    }
    while (len > 0 && in_set(s[len - 1], set)) {
        len--;
    }
    return s + len;
}

template <class Ch>
vek_s32 bskip_set(const Ch* s, vek_s32 len, const Ch** beg, const Ch** end, const Ch* set) {
    if (!s || !beg || !end) {
        VEK_ASSERT(s && beg && end);
        return 0;
    }
    if (len < 0) {
        len = text_len(s);
    }
    *beg = skip_set(s, len, set);
    vek_s32 rest = len - (vek_s32)(*beg - s);
    VEK_ASSERT(rest >= 0);
    *end = rskip_set(*beg, rest > 0 ? rest : 0, set);
    VEK_ASSERT(*end >= *beg);
    return (vek_s32)(*end - *beg);
}

template <class Ch>
vek_s32 replace(Ch* s, const Ch* set, Ch from, Ch to) {
    vek_s32 n = 0;
    if (!s || (!set && !from)) {
        return 0;
    }
    for (; *s; s++) {
        if (set ? in_set(*s, set) : *s == from) {
            *s = to;
            n++;
        }
    }
    return n;
}

/* The last character of s equal to c1 or c2, or in set when set is given. */
template <class Ch>
Ch* find_last(const Ch* s, const Ch* set, Ch c1, Ch c2) {
    const Ch* hit = nullptr;
    for (; *s; s++) {
        if (set ? in_set(*s, set) : (*s == c1 || *s == c2)) {
            hit = s;
        }
    }
    return const_cast<Ch*>(hit);
}

template <class Ch>
Ch* dup(const Ch* s, vek_s32 n) {
    vek_s32 have = 0;
    while ((n < 0 || have < n) && s[have]) {
        have++;
    }
    if (n < 0) {
        n = have;
    }
    Ch* d = (Ch*)vek_malloc__(sizeof(Ch) * ((size_t)n + 1));
    if (d) {
        std::memcpy(d, s, sizeof(Ch) * (size_t)have);
        std::memset(d + have, 0, sizeof(Ch) * ((size_t)(n - have) + 1));
    }
    return d;
}

template <class Ch>
vek_s32 bounded_copy(Ch* dst, const Ch* src, vek_s32 size) {
    if (!dst || size < 1) {
        return 0;
    }
    vek_s32 n = 0;
    if (src) {
        while (n < size - 1 && src[n]) {
            n++;
        }
        std::memmove(dst, src, sizeof(Ch) * (size_t)n);
    }
    dst[n] = 0;
    return n;
}

template <class Ch>
Ch* fold_case(Ch* s, bool upper) {
    if (s) {
        for (Ch* p = s; *p; p++) {
            *p = (Ch)(upper ? fold_upper(code(*p)) : fold_lower(code(*p)));
        }
    }
    return s;
}

/* Trims both ends of s in place: the kept part moves to the front. */
template <class Ch>
Ch* trim_both(Ch* s, const Ch* set) {
    if (!s) {
        return s;
    }
    vek_s32 end = (vek_s32)(rskip_set(s, -1, set) - s);
    vek_s32 beg = (vek_s32)(skip_set(s, end, set) - s);
    std::memmove(s, s + beg, sizeof(Ch) * (size_t)(end - beg));
    s[end - beg] = 0;
    return s;
}

template <class Ch>
Ch* remove_chars(Ch* s, const Ch* set) {
    if (!s) {
        return s;
    }
    set = space_set(set);
    Ch* out = s;
    for (const Ch* p = s; *p; p++) {
        if (!in_set(*p, set)) {
            *out++ = *p;
        }
    }
    *out = 0;
    return s;
}

template <class Ch>
Ch* unquote(Ch* s) {
    if (!s || *s != '"') {
        return s;
    }
    vek_s32 n = text_len(s + 1);
    std::memmove(s, s + 1, sizeof(Ch) * (size_t)n);
    if (n > 0 && s[n - 1] == '"') {
        n--;
    }
    s[n] = 0;
    return s;
}

template <class Ch>
const Ch* path_name(const Ch* path) {
    static const Ch kEmpty[1] = {0};
    if (!path) {
        VEK_ASSERT(path);
        return kEmpty;
    }
    const Ch* name = path;
    for (const Ch* p = path; *p; p++) {
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

/* Finds the markers first and writes out afterwards, so that out may be the
 * text itself. */
template <class Ch>
Ch* between(Ch* out, vek_s32 outSize, const Ch* text, const Ch* head, const Ch* tail) {
    if (!text) {
        VEK_ASSERT(text);
        bounded_copy<Ch>(out, nullptr, outSize);
        return nullptr;
    }
    const Ch* from = text;
    const Ch* at = nullptr;
    if (tail && *tail) {
        if (head && *head) {
            const Ch* h = find_nocase(text, head);
            from = h ? h + text_len(head) : nullptr;
        }
        at = from ? find_nocase(from, tail) : nullptr;
    }
    vek_s32 n = 0;
    if (out && outSize >= 1) {
        vek_s32 want = at ? (vek_s32)(at - from) : 0;
        n = want < outSize - 1 ? want : outSize - 1;
        if (n > 0) {
            std::memmove(out, from, sizeof(Ch) * (size_t)n);
        }
        out[n] = 0;
    }
    return n > 0 ? const_cast<Ch*>(at) : nullptr;
}

vek_s32 suffix_cmp(const char* s, const char* sfx, bool fold) {
    if (!s || !sfx) {
        VEK_ASSERT(s && sfx);
        return 1;
    }
    vek_s32 ls = text_len(s);
    vek_s32 lx = text_len(sfx);
    if (lx == 0 || lx > ls) {
        return 1;
    }
    return compare(s + ls - lx, sfx, lx, fold) == 0 ? 0 : 1;
}

} // namespace

extern "C" {

// ---- comparison and search ----

VEK_API vek_s32 vek_stricmp(const char* a, const char* b) {
    return compare(a, b, -1, true);
}

VEK_API vek_s32 vek_strincmp(const char* a, const char* b, vek_s32 n) {
    return compare(a, b, n, true);
}

VEK_API vek_s32 vek_wcsicmp(const vek_wchar* a, const vek_wchar* b) {
    return compare(a, b, -1, true);
}

VEK_API vek_s32 vek_wcsincmp(const vek_wchar* a, const vek_wchar* b, vek_s32 n) {
    return compare(a, b, n, true);
}

VEK_API vek_s32 vek_wcscmp(const vek_wchar* a, const vek_wchar* b) {
    return compare(a, b, -1, false);
}

VEK_API char* vek_stristr(const char* s, const char* sub) {
    return find_nocase(s, sub);
}

VEK_API vek_wchar* vek_wcsistr(const vek_wchar* s, const vek_wchar* sub) {
    return find_nocase(s, sub);
}

VEK_API vek_wchar* vek_wcsstr(const vek_wchar* s, const vek_wchar* sub) {
    return find_nocase(s, sub, true);
}

VEK_API vek_s32 vek_sfxcmp(const char* s, const char* sfx) {
    return suffix_cmp(s, sfx, false);
}

VEK_API vek_s32 vek_sfxicmp(const char* s, const char* sfx) {
    return suffix_cmp(s, sfx, true);
}

VEK_API vek_s32 vek_str_all_ascii(const char* s) {
    for (; s && *s; s++) {
        if (code(*s) > 127) {
            return 0;
        }
    }
    return 1;
}

VEK_API vek_s32 vek_isdigits(const char* s) {
    for (; s && *s; s++) {
        if (*s < '0' || *s > '9') {
            return 0;
        }
    }
    return 1;
}

VEK_API vek_s32 vek_wcslen(const vek_wchar* w) {
    return text_len(w);
}

// ---- replacing and finding characters ----

VEK_API vek_s32 vek_strrepc(char* s, char from, char to) {
    return replace<char>(s, nullptr, from, to);
}

VEK_API vek_s32 vek_wcsrepc(vek_wchar* s, vek_wchar from, vek_wchar to) {
    return replace<vek_wchar>(s, nullptr, from, to);
}

VEK_API vek_s32 vek_strrepcs(char* s, const char* set, char to) {
    return set ? replace<char>(s, set, 0, to) : 0;
}

VEK_API vek_s32 vek_wcsrepcs(vek_wchar* s, const vek_wchar* set, vek_wchar to) {
    return set ? replace<vek_wchar>(s, set, 0, to) : 0;
}

VEK_API vek_wchar* vek_wcschr(const vek_wchar* w, vek_wchar c) {
    if (!w) {
        return nullptr;
    }
    while (*w != c && *w) {
        w++;
    }
    return *w == c ? const_cast<vek_wchar*>(w) : nullptr;
}

VEK_API vek_wchar* vek_wcsrchr(const vek_wchar* w, vek_wchar c) {
    if (!w) {
        return nullptr;
    }
    return c ? find_last<vek_wchar>(w, nullptr, c, c) : const_cast<vek_wchar*>(w + text_len(w));
}

VEK_API char* vek_strrchrs(const char* s, const char* set) {
    if (!s || !set) {
        VEK_ASSERT(s && set);
        return nullptr;
    }
    return find_last<char>(s, set, 0, 0);
}

VEK_API vek_wchar* vek_wcsrchrs(const vek_wchar* s, const vek_wchar* set) {
    if (!s || !set) {
        VEK_ASSERT(s && set);
        return nullptr;
    }
    return find_last<vek_wchar>(s, set, 0, 0);
}

VEK_API char* vek_strrchrx(const char* s, char c1, char c2) {
    if (!s) {
        VEK_ASSERT(s);
        return nullptr;
    }
    return find_last<char>(s, nullptr, c1, c2);
}

VEK_API vek_wchar* vek_wcsrchrx(const vek_wchar* s, vek_wchar c1, vek_wchar c2) {
    if (!s) {
        VEK_ASSERT(s);
        return nullptr;
    }
    return find_last<vek_wchar>(s, nullptr, c1, c2);
}

VEK_API char* vek_strpbrk(const char* s, const char* set) {
    for (; s && set && *s; s++) {
        if (in_set(*s, set)) {
            return const_cast<char*>(s);
        }
    }
    return nullptr;
}

VEK_API vek_s32 vek_get_digits(const char* src, char* dst, vek_s32 max) {
    if (!dst) {
        return 0;
    }
    vek_s32 n = 0;
    while (src && (max < 0 || n < max) && src[n] >= '0' && src[n] <= '9') {
        dst[n] = src[n];
        n++;
    }
    dst[n] = 0;
    return n;
}

// ---- splitting ----

VEK_API char* vek_strsep(char** p, const char* set) {
    if (!p || !*p) {
        return nullptr;
    }
    char* field = *p;
    char* sep = vek_strpbrk(field, set);
    if (sep) {
        *sep = 0;
        *p = sep + 1;
    } else {
        *p = nullptr;
    }
    return field;
}

VEK_API char* vek_strtok(char** p, const char* set) {
    if (!p || !*p) {
        return nullptr;
    }
    char* tok = *p;
    while (*tok && set && in_set(*tok, set)) {
        tok++;
    }
    if (!*tok) {
        *p = nullptr;
        return nullptr;
    }
    char* sep = vek_strpbrk(tok, set);
    if (sep) {
        *sep = 0;
        *p = sep + 1;
    } else {
        *p = tok + text_len(tok);
    }
    return tok;
}

// ---- copying and case ----

VEK_API char* vek_strdup(const char* s) {
    return s ? dup(s, -1) : nullptr;
}

VEK_API vek_wchar* vek_wcsdup(const vek_wchar* s) {
    return s ? dup(s, -1) : nullptr;
}

VEK_API char* vek_strdupx(const char* s, vek_s32 n) {
    if (!s) {
        VEK_ASSERT(s);
        return nullptr;
    }
    return dup(s, n);
}

VEK_API vek_wchar* vek_wcsdupx(const vek_wchar* s, vek_s32 n) {
    if (!s) {
        VEK_ASSERT(s);
        return nullptr;
    }
    return dup(s, n);
}

VEK_API vek_s32 vek_strxfrm(char* dst, const char* src, vek_s32 size) {
    return bounded_copy(dst, src, size);
}

VEK_API vek_s32 vek_wcsxfrm(vek_wchar* dst, const vek_wchar* src, vek_s32 size) {
    return bounded_copy(dst, src, size);
}

VEK_API char* vek_strupr(char* s) {
    return fold_case(s, true);
}

VEK_API char* vek_strlwr(char* s) {
    return fold_case(s, false);
}

VEK_API vek_wchar* vek_wcsupr(vek_wchar* s) {
    return fold_case(s, true);
}

VEK_API vek_wchar* vek_wcslwr(vek_wchar* s) {
    return fold_case(s, false);
}

// ---- trimming in place ----

VEK_API char* vek_strtrim(char* s) {
    return trim_both(s, Sets<char>::blank);
}

VEK_API char* vek_str_trim_ext(char* s, const char* set) {
    return trim_both(s, set);
}

VEK_API const char** vek_str_trim_try_ext(const char* s, const char* set, const char** beg,
                                          const char** end) {
    if (!s || !beg || !end) {
        VEK_ASSERT(s && beg && end);
        return end;
    }
    vek_s32 n = str_bskip_space(s, -1, beg, end, set);
    *end = n > 0 ? *end - 1 : *beg;
    return end;
}

VEK_API const char** vek_str_trim_try(const char* s, const char** beg, const char** end) {
    return vek_str_trim_try_ext(s, Sets<char>::blank, beg, end);
}

VEK_API char* vek_str_trim_chars(char* s, const char* set) {
    return remove_chars(s, set);
}

VEK_API vek_wchar* vek_wcs_trim_chars(vek_wchar* s, const vek_wchar* set) {
    return remove_chars(s, set);
}

VEK_API char* vek_qstr_trim(char* s) {
    return unquote(s);
}

VEK_API vek_wchar* vek_qwcs_trim(vek_wchar* s) {
    return unquote(s);
}

// ---- skipping ----

VEK_API const char* str_skip_space(const char* s, vek_s32 len, const char* set) {
    return skip_set(s, len, set);
}

VEK_API const char* str_rskip_space(const char* s, vek_s32 len, const char* set) {
    return rskip_set(s, len, set);
}

VEK_API vek_s32 str_bskip_space(const char* s, vek_s32 len, const char** beg, const char** end,
                                const char* set) {
    return bskip_set(s, len, beg, end, set);
}

VEK_API const vek_wchar* wcs_skip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set) {
    return skip_set(s, len, set);
}

VEK_API const vek_wchar* wcs_rskip_space(const vek_wchar* s, vek_s32 len, const vek_wchar* set) {
    return rskip_set(s, len, set);
}

VEK_API vek_s32 wcs_bskip_space(const vek_wchar* s, vek_s32 len, const vek_wchar** beg,
                                const vek_wchar** end, const vek_wchar* set) {
    return bskip_set(s, len, beg, end, set);
}

// ---- paths and markers ----

VEK_API const char* str_path_name(const char* path) {
    return path_name(path);
}

VEK_API const vek_wchar* wcs_path_name(const vek_wchar* path) {
    return path_name(path);
}

VEK_API char* vek_str_between(char* out, vek_s32 outSize, const char* text, const char* head,
                              const char* tail) {
    return between(out, outSize, text, head, tail);
}

VEK_API vek_wchar* vek_wcs_between(vek_wchar* out, vek_s32 outSize, const vek_wchar* text,
                                   const vek_wchar* head, const vek_wchar* tail) {
    return between(out, outSize, text, head, tail);
}

} // extern "C"
