/*
 * VekRtc.cpp - the runtime configuration: three INI sources beside the
 * library ("VekSys.ini", "VekDbg.ini", "VekTrc.ini") and the value readers.
 *
 * Every read opens its own stream and shares no state, so any thread may
 * read. Once a source opens, the lookup's own result is the value: the
 * default applies only when the source cannot be opened.
 */
#include <cstdlib>
#include <cstring>
#include "AlPlat.h"
#include "IniFile.h"
#include "VekCore.h"
#include "VekStrm.h"

using vek::g_core;

namespace {

const char* const kRtcFile[3] = {"VekSys.ini", "VekDbg.ini", "VekTrc.ini"};

char* dup_text(const char* s, vek_s32 len) {
    if (!s) {
        return nullptr;
    }
    if (len < 0) {
        len = (vek_s32)std::strlen(s);
    }
    char* d = (char*)al_malloc((size_t)len + 1);
    if (d) {
        std::memcpy(d, s, (size_t)len);
        d[len] = 0;
    }
    return d;
}

void free_src(vek::RtcSrc& s) {
    al_free(s.path);
    al_free(s.txt);
    s.path = nullptr;
    s.txt = nullptr;
    s.txtLen = 0;
}

/* Storage for a source's stream, so that a value can be read without the
 * tracked heap (the trace manager reads its settings before the heap
 * monitor exists). */
struct SrcStrmMem {
    FileStrm file;
    StrStrm text;
};

// A read stream over a source: the file when a path is set (a missing file
// gives none), else the in-memory text. With mem the stream lives there.
IStrm* open_src(vek_s32 source, SrcStrmMem* mem) {
    const vek::RtcSrc& s = g_core.rtc[source];
    if (s.path) {
        vek_s32 err = 0;
        return FileStrm_xcreatex__(mem ? &mem->file : nullptr, s.path, "r", &err, __FILE__, __LINE__);
    }
    if (s.txt) {
        return StrStrm_xcreate__(mem ? &mem->text : nullptr, s.txt, s.txtLen, __FILE__, __LINE__);
    }
    return nullptr;
}

IStrm* open_strm(vek_s32 source, SrcStrmMem* mem) {
    if (source == VEK_RTC_DBG && !g_core.rtc[VEK_RTC_DBG].path && !g_core.rtc[VEK_RTC_DBG].txt) {
        // Debug settings live in the system file when no debug source is set.
        return open_src(VEK_RTC_SYS, mem);
    }
    return open_src(source, mem);
}

void copy_bounded(char* buf, vek_s32 size, const char* s) {
    if (!buf || size < 1) {
        return;
    }
    vek_s32 n = 0;
    if (s) {
        while (s[n] && n < size - 1) {
            buf[n] = s[n];
            n++;
        }
    }
    buf[n] = 0;
}

vek_s32 nval(vek_s32 source, const char* sect, const char* key, vek_s32 def) {
    char buf[32];
    if (!vek::rtc_read(source, sect, key, nullptr, buf, sizeof buf)) {
        return def;
    }
    return (vek_s32)std::atol(buf);
}

vek_bool bval(vek_s32 source, const char* sect, const char* key, vek_bool def) {
    char buf[32];
    if (!vek::rtc_read(source, sect, key, nullptr, buf, sizeof buf)) {
        return def ? 1 : 0;
    }
    if (!vek_stricmp(buf, "true")) {
        return 1;
    }
    if (!vek_stricmp(buf, "false")) {
        return 0;
    }
    return std::atoi(buf) != 0 ? 1 : 0;
}

} // namespace

namespace vek {

void rtc_build_paths(void) {
    for (vek_s32 i = 0; i < 3; i++) {
        free_src(g_core.rtc[i]);
        size_t n = (size_t)g_core.baseFldLen + 1 + std::strlen(kRtcFile[i]) + 1;
        char* p = (char*)al_malloc(n);
        if (p) {
            vek_snprintf(p, (vek_s32)n, "%s%c%s", vek_base_fld(), VEK_PATH_SEP, kRtcFile[i]);
        }
        g_core.rtc[i].path = p;
    }
}

void rtc_free_paths(void) {
    for (vek::RtcSrc& s : g_core.rtc) {
        free_src(s);
    }
}

vek_s32 rtc_read(vek_s32 source, const char* sect, const char* key, const char* def, char* buf,
                 vek_s32 size) {
    SrcStrmMem mem;
    IStrm* strm = open_strm(source, &mem);
    if (!strm) {
        copy_bounded(buf, size, def);
        return 0;
    }
    TinyIni_getStr(strm, sect, key, def, buf, size);
    vek_qstr_trim(buf);
    IStrm_release(strm);
    return 1;
}

} // namespace vek

extern "C" {

VEK_API vek_s32 vek_rtc_set_src(vek_s32 source, const char* path, const char* txt, vek_s32 txtLen) {
    if (source < VEK_RTC_SYS || source > VEK_RTC_TRC) {
        return VEK_ERR_BAD_ARG;
    }
    // Both copies are made before the old source goes, so running out of
    // memory leaves the settings as they were.
    char* newPath = dup_text(path, -1);
    char* newTxt = dup_text(txt, txtLen);
    if ((path && !newPath) || (txt && !newTxt)) {
        al_free(newPath);
        al_free(newTxt);
        return VEK_ERR_FULL;
    }
    vek::RtcSrc& s = g_core.rtc[source];
    free_src(s);
    s.path = newPath;
    s.txt = newTxt;
    s.txtLen = s.txt ? (vek_s32)std::strlen(s.txt) : 0;
    if (txt && txtLen >= 0) {
        s.txtLen = txtLen;
    }
    return 0;
}

VEK_API const char* vek_sys_rtc_file(void) { return g_core.rtc[VEK_RTC_SYS].path; }
VEK_API const char* vek_dbg_rtc_file(void) { return g_core.rtc[VEK_RTC_DBG].path; }
VEK_API const char* vek_trc_rtc_file(void) { return g_core.rtc[VEK_RTC_TRC].path; }
VEK_API const char* vek_sys_rtc_txt(void) { return g_core.rtc[VEK_RTC_SYS].txt; }
VEK_API const char* vek_dbg_rtc_txt(void) { return g_core.rtc[VEK_RTC_DBG].txt; }
VEK_API const char* vek_trc_rtc_txt(void) { return g_core.rtc[VEK_RTC_TRC].txt; }
VEK_API IStrm* vek_sys_rtc_strm(void) { return open_strm(VEK_RTC_SYS, nullptr); }
VEK_API IStrm* vek_dbg_rtc_strm(void) { return open_strm(VEK_RTC_DBG, nullptr); }
VEK_API IStrm* vek_trc_rtc_strm(void) { return open_strm(VEK_RTC_TRC, nullptr); }

VEK_API char* vek_sys_rtc_sval(const char* sect, const char* key, const char* def, char* buf,
                               vek_s32 size) {
    vek::rtc_read(VEK_RTC_SYS, sect, key, def, buf, size);
    return buf;
}

VEK_API char* vek_dbg_rtc_sval(const char* sect, const char* key, const char* def, char* buf,
                               vek_s32 size) {
    vek::rtc_read(VEK_RTC_DBG, sect, key, def, buf, size);
    return buf;
}

VEK_API vek_s32 vek_sys_rtc_nval(const char* sect, const char* key, vek_s32 def) {
    return nval(VEK_RTC_SYS, sect, key, def);
}

VEK_API vek_s32 vek_dbg_rtc_nval(const char* sect, const char* key, vek_s32 def) {
    return nval(VEK_RTC_DBG, sect, key, def);
}

VEK_API vek_bool vek_sys_rtc_bval(const char* sect, const char* key, vek_bool def) {
    return bval(VEK_RTC_SYS, sect, key, def);
}

VEK_API vek_bool vek_dbg_rtc_bval(const char* sect, const char* key, vek_bool def) {
    return bval(VEK_RTC_DBG, sect, key, def);
}

} // extern "C"
