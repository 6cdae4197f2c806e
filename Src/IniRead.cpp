/*
 * IniRead.cpp - the forgiving reading of INI names and values (IniRead.h).
 */
#include <cstring>
#include "IniRead.h"
#include "StrUtil.h"
#include "VekStr.h"

namespace {

bool blank(char c) {
    return c == ' ' || c == '\t';
}

} // namespace

namespace vek {

const char* ini_trim(const char* want, vek_s32* n) {
    if (!want) {
        *n = 0;
        return "";
    }
    while (blank(*want)) {
        want++;
    }
    vek_s32 k = (vek_s32)std::strlen(want);
    while (k > 0 && blank(want[k - 1])) {
        k--;
    }
    *n = k;
    return want;
}

const char* ini_trimmed(const VekStr* name, vek_s32* len) {
    const char* p = VekStr_buf(name);
    vek_s32 n = VekStr_len(name);
    while (n > 0 && blank(*p)) {
        p++;
        n--;
    }
    while (n > 0 && blank(p[n - 1])) {
        n--;
    }
    *len = n;
    return p;
}

IniSect* ini_sect(IniFile* doc, const char* name) {
    vek_s32 wn;
    const char* w = ini_trim(name, &wn);
    for (VekListNode* n = IniFile_sectList(doc)->hdr; n; n = n->next) {
        IniSect* s = (IniSect*)n;
        vek_s32 len;
        const char* p = ini_trimmed(&s->name, &len);
        bool nameless = VekStr_len(&s->header) == 0 && VekStr_len(&s->name) == 0;
        if (wn == 0 ? nameless : len == wn && vek_strincmp(p, w, wn) == 0 && !nameless) {
            return s;
        }
    }
    return nullptr;
}

IniField* ini_key(IniSect* s, const char* key) {
    vek_s32 wn;
    const char* w = ini_trim(key, &wn);
    for (VekListNode* n = s ? s->fields.hdr : nullptr; n; n = n->next) {
        IniField* f = (IniField*)n;
        if (!IniField_valid(f)) {
            continue;
        }
        vek_s32 len;
        const char* p = ini_trimmed(&f->name, &len);
        if (len == wn && wn > 0 && vek_strincmp(p, w, wn) == 0) {
            return f;
        }
    }
    return nullptr;
}

vek_s32 ini_value(const char* raw, vek_s32 len, bool comments, VekStr* out) {
    vek_s32 b = 0;
    while (b < len && blank(raw[b])) {
        b++;
    }
    vek_s32 before = VekStr_len(out);
    if (b < len && raw[b] == '"') {
        vek_s32 k = 0;
        for (vek_s32 i = b + 1; i < len; i++) {
            if (raw[i] == '"') {
                if (i + 1 < len && raw[i + 1] == '"') {
                    i++;
                } else {
                    break;
                }
            }
            if (raw[i]) {
                VekStr_appdChar(out, raw[i]);
                k++;
            }
        }
        return VekStr_len(out) == before + k ? 0 : VEK_ERR_FULL;
    } else {
        vek_s32 e = len;
        if (comments) {
            for (vek_s32 i = b + 1; i < len; i++) {
                if (raw[i] == ';' && blank(raw[i - 1])) {
                    e = i;
                    break;
                }
            }
        }
        while (e > b && blank(raw[e - 1])) {
            e--;
        }
        if (e > b) {
            VekStr_appdStrx(out, raw + b, e - b);
        }
        return VekStr_len(out) == before + (e > b ? e - b : 0) ? 0 : VEK_ERR_FULL;
    }
}

vek_s32 ini_quote(const char* value, VekStr* out) {
    vek_s32 n = (vek_s32)std::strlen(value);
    vek_s32 want = VekStr_len(out) + n;
    bool quote = n > 0 && (blank(value[0]) || blank(value[n - 1]) || value[0] == '"' || value[0] == ';');
    for (vek_s32 i = 1; i < n && !quote; i++) {
        quote = value[i] == ';' && blank(value[i - 1]);
    }
    if (!quote) {
        VekStr_appdStr(out, value);
    } else {
        VekStr_appdChar(out, '"');
        for (vek_s32 i = 0; i < n; i++) {
            if (value[i] == '"') {
                VekStr_appdChar(out, '"');
                want++;
            }
            VekStr_appdChar(out, value[i]);
        }
        VekStr_appdChar(out, '"');
        want += 2;
    }
    return VekStr_len(out) == want ? 0 : VEK_ERR_FULL;
}

} // namespace vek
