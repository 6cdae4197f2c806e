/*
 * AlOs.cpp (Windows) - the OS layer on Win32: critical sections, thread
 * ids, the tick clock, sleeping, files with UTF-16 names and the ANSI code
 * page.
 */
#include <cerrno>
#include <cstdio>
#include "WinHelp.h"
#include "AlPlat.h"
#include "AlOs.h"

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(AlMutex), "AlMutex holds a critical section");

namespace {

CRITICAL_SECTION* cs(AlMutex* m) {
    return (CRITICAL_SECTION*)(void*)m->opaque;
}

} // namespace

extern "C" {

VEK_API AlMutex* AlMutex_new(AlMutex* mem) {
    if (mem) {
        InitializeCriticalSection(cs(mem));
    }
    return mem;
}

VEK_API void AlMutex_delete(AlMutex* mem) {
    if (mem) {
        DeleteCriticalSection(cs(mem));
    }
}

VEK_API void AlMutex_lock(AlMutex* mem) {
    EnterCriticalSection(cs(mem));
}

VEK_API vek_s32 AlMutex_unlock(AlMutex* mem) {
    LeaveCriticalSection(cs(mem));
    return 0;
}

VEK_API vek_s32 AlMutex_trylock(AlMutex* mem) {
    return TryEnterCriticalSection(cs(mem)) ? 1 : 0;
}

VEK_API vek_u32 al_thrd_id(void) {
    return (vek_u32)GetCurrentThreadId();
}

// The tick count moves in 10-16 ms steps; time-outs in milliseconds need
// the performance counter.
VEK_API vek_u32 al_clock(void) {
    static LARGE_INTEGER freq;
    if (freq.QuadPart == 0) {
        QueryPerformanceFrequency(&freq);
    }
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return (vek_u32)((now.QuadPart / freq.QuadPart) * 1000 + (now.QuadPart % freq.QuadPart) * 1000 / freq.QuadPart);
}

VEK_API void al_sleep(vek_u32 ticks) {
    Sleep(ticks);
}

VEK_API vek_s32 al_ansi_to_wcs(const char* src, vek_s32 srcLen, vek_wchar* dst, vek_s32 dstSize) {
    if (!dst || dstSize < 1) {
        return 0;
    }
    dst[0] = 0;
    if (!src || srcLen == 0 || plat::os_fails(VEK_OS_CODESET)) {
        return 0;
    }
    if (srcLen < 0) {
        srcLen = (vek_s32)strlen(src);
    }
    int n = MultiByteToWideChar(CP_ACP, 0, src, srcLen, (wchar_t*)dst, dstSize - 1);
    if (n <= 0 && srcLen > 0) {
        // Too small a target: convert what fits, character by character.
        n = 0;
        for (vek_s32 i = 0; i < srcLen && n < dstSize - 1;) {
            int len = IsDBCSLeadByte((BYTE)src[i]) && i + 1 < srcLen ? 2 : 1;
            int k = MultiByteToWideChar(CP_ACP, 0, src + i, len, (wchar_t*)dst + n, dstSize - 1 - n);
            if (k <= 0) {
                break;
            }
            n += k;
            i += len;
        }
    }
    dst[n] = 0;
    return n;
}

VEK_API vek_s32 al_wcs_to_ansi(const vek_wchar* src, vek_s32 srcLen, char* dst, vek_s32 dstSize) {
    if (!dst || dstSize < 1) {
        return 0;
    }
    dst[0] = 0;
    if (!src || srcLen == 0 || plat::os_fails(VEK_OS_CODESET)) {
        return 0;
    }
    if (srcLen < 0) {
        srcLen = (vek_s32)wcslen((const wchar_t*)src);
    }
    int n = 0;
    for (vek_s32 i = 0; i < srcLen; i++) {
        char tmp[8];
        int k = WideCharToMultiByte(CP_ACP, 0, (const wchar_t*)src + i, 1, tmp, sizeof tmp, "?", nullptr);
        if (k <= 0) {
            tmp[0] = '?';
            k = 1;
        }
        if (n + k > dstSize - 1) {
            break;
        }
        memcpy(dst + n, tmp, (size_t)k);
        n += k;
    }
    dst[n] = 0;
    return n;
}

} // extern "C"
