/*
 * WinHelp.h - helpers of the Windows layer (internal): UTF-8 <-> UTF-16
 * for the wide Win32 calls.
 */
#ifndef VEK_WINHELP_H
#define VEK_WINHELP_H

#include <windows.h>
#include <cstring>
#include "VekUni.h"

namespace win {

static_assert(sizeof(wchar_t) == sizeof(vek_wchar), "UTF-16 wchar_t on Windows");

/* UTF-8 to UTF-16 into buf of cap units; returns the units written.
 * Windows decodes the whole of Unicode (file names may hold characters
 * beyond the Basic Multilingual Plane, as surrogate pairs); text too long
 * for buf is cut by the library's own decoder. */
inline int to_wide(const char* s, wchar_t* buf, int cap) {
    if (!s) {
        buf[0] = 0;
        return 0;
    }
    int n = MultiByteToWideChar(CP_UTF8, 0, s, -1, buf, cap);
    if (n > 0) {
        return n - 1;
    }
    return utf8_buf_to_wcs_str(s, (vek_s32)std::strlen(s), (vek_wchar*)buf, cap);
}

/* UTF-16 to UTF-8 into buf of cap bytes; returns the bytes written. */
inline int to_utf8(const wchar_t* w, char* buf, int cap) {
    return wcs_buf_to_utf8_str((const vek_wchar*)w, -1, buf, cap);
}

} // namespace win

#endif /* VEK_WINHELP_H */
