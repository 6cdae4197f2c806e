/*
 * The text forms of the catalogues and the settings on any bytes: a
 * catalogue loads or fails cleanly, and every message formats without
 * reading past its arguments; a setting written through the setters reads
 * back exactly, as a string and as a list, whatever its bytes (quotes,
 * blanks, ";", ","), so what the setters quote the reader unquotes.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "BaseLib.h"

namespace {

void check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string in((const char*)data, size);
    LangCat* cat = lang_new();
    if (!cat) {
        return 0;
    }
    lang_add_buf(cat, in.c_str(), -1);
    VekStr out;
    VekStr_new(&out);
    const char* args[] = {"A", "B", "C"};
    // Every line's key is looked up and its text formatted.
    for (size_t at = 0; at < in.size();) {
        size_t eol = in.find('\n', at);
        std::string line = in.substr(at, eol == std::string::npos ? std::string::npos : eol - at);
        size_t eq = line.find('=');
        if (eq != std::string::npos) {
            const char* t = lang_get(cat, nullptr, line.substr(0, eq).c_str(), nullptr);
            if (t) {
                vek_s32 n = lang_fmt_str(&out, t, 3, args);
                check(n == VekStr_len(&out) && n <= (vek_s32)std::strlen(t) * 2 + 2);
            }
        }
        at = eol == std::string::npos ? in.size() : eol + 1;
    }
    lang_fmt_str(&out, in.c_str(), 2, args);
    char tags[256];
    lang_fallbacks(in.c_str(), tags, sizeof tags);
    lang_close(cat);

    // The input's first line as a value, and its pieces between NULs as a list.
    std::string value = in.substr(0, in.find_first_of("\r\n"));
    value = value.substr(0, std::strlen(value.c_str()));
    CfgIni* cfg = CfgIni_new(nullptr, nullptr, 0, nullptr);
    if (cfg) {
        if (CfgIni_setStr(cfg, "S", "k", value.c_str()) == 0) {
            CfgIni_getStrx(cfg, "S", "k", &out);
            check(value == VekStr_buf(&out));
        }
        std::vector<std::string> items;
        for (size_t at = 0; at <= in.size() && items.size() < 8;) {
            size_t z = in.find('\0', at);
            items.push_back(in.substr(at, z == std::string::npos ? std::string::npos : z - at));
            at = z == std::string::npos ? in.size() + 1 : z + 1;
        }
        std::vector<const char*> ptrs;
        for (const std::string& s : items) {
            ptrs.push_back(s.c_str());
        }
        if (CfgIni_setList(cfg, "S", "l", ptrs.data(), (vek_s32)ptrs.size()) == 0) {
            const char* got[8];
            vek_s32 n = CfgIni_getList(cfg, "S", "l", &out, got, 8);
            check(n == (vek_s32)items.size());
            for (vek_s32 i = 0; i < n; i++) {
                check(items[(size_t)i] == got[i]);
            }
        }
        CfgIni_getInt(cfg, "S", "k");
        CfgIni_getBool(cfg, "S", "k");
        CfgIni_delete(cfg);
    }
    VekStr_delete(&out);
    return 0;
}
