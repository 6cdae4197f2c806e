/*
 * AlOs.cpp (POSIX) - the OS layer on Linux: recursive locks, thread ids,
 * the monotonic clock, sleeping, files and the locale's code page.
 */
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iconv.h>
#include <langinfo.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include "AlPlat.h"
#include "AlOs.h"

static_assert(sizeof(pthread_mutex_t) <= sizeof(AlMutex), "AlMutex holds a pthread mutex");

namespace {

pthread_mutex_t* pm(AlMutex* m) {
    return (pthread_mutex_t*)(void*)m->opaque;
}

/* Converts through iconv; a character the target cannot hold (or a bad
 * source sequence) becomes "?" and conversion goes on behind it. Returns
 * the bytes written to out. */
size_t iconv_all(const char* to, const char* from, const char* in, size_t inLen, char* out,
                 size_t outCap, const char* question, size_t questionLen, size_t inUnit) {
    iconv_t cd = plat::os_fails(VEK_OS_CODESET) ? (errno = EINVAL, (iconv_t)-1) : iconv_open(to, from);
    if (cd == (iconv_t)-1) {
        return (size_t)-1;
    }
    char* src = const_cast<char*>(in);
    char* dst = out;
    size_t srcLeft = inLen;
    size_t dstLeft = outCap;
    while (srcLeft > 0) {
        if (iconv(cd, &src, &srcLeft, &dst, &dstLeft) != (size_t)-1) {
            break;
        }
        if (errno == E2BIG || dstLeft < questionLen) {
            break;
        }
        // EILSEQ or EINVAL: replace one source unit by "?".
        std::memcpy(dst, question, questionLen);
        dst += questionLen;
        dstLeft -= questionLen;
        size_t skip = srcLeft < inUnit ? srcLeft : inUnit;
        src += skip;
        srcLeft -= skip;
    }
    iconv_close(cd);
    return (size_t)(dst - out);
}

} // namespace

extern "C" {

VEK_API AlMutex* AlMutex_new(AlMutex* mem) {
    if (!mem) {
        return mem;
    }
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(pm(mem), &attr);
    pthread_mutexattr_destroy(&attr);
    return mem;
}

VEK_API void AlMutex_delete(AlMutex* mem) {
    if (mem) {
        pthread_mutex_destroy(pm(mem));
    }
}

VEK_API void AlMutex_lock(AlMutex* mem) {
    pthread_mutex_lock(pm(mem));
}

VEK_API vek_s32 AlMutex_unlock(AlMutex* mem) {
    pthread_mutex_unlock(pm(mem));
    return 0;
}

VEK_API vek_s32 AlMutex_trylock(AlMutex* mem) {
    return pthread_mutex_trylock(pm(mem)) == 0 ? 1 : 0;
}

namespace {
// The id is asked for on every wait and cancel: kept per thread after the
// first system call. The child of a fork is a thread of its own.
thread_local vek_u32 t_tid;
pthread_once_t g_tidOnce = PTHREAD_ONCE_INIT;
void forget_tid() {
    t_tid = 0;
}
void watch_forks() {
    pthread_atfork(nullptr, nullptr, forget_tid);
}
} // namespace

VEK_API vek_u32 al_thrd_id(void) {
    vek_u32 tid = t_tid;
    if (!tid) {
        pthread_once(&g_tidOnce, watch_forks);
        t_tid = tid = (vek_u32)syscall(SYS_gettid);
    }
    return tid;
}

VEK_API vek_u32 al_clock(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (vek_u32)((vek_u64)ts.tv_sec * 1000u + (vek_u64)ts.tv_nsec / 1000000u);
}

VEK_API void al_sleep(vek_u32 ticks) {
    if (ticks == 0) {
        sched_yield();
        return;
    }
    struct timespec ts = {(time_t)(ticks / 1000), (long)(ticks % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

VEK_API vek_s32 al_ansi_to_wcs(const char* src, vek_s32 srcLen, vek_wchar* dst, vek_s32 dstSize) {
    if (!dst || dstSize < 1) {
        return 0;
    }
    dst[0] = 0;
    if (!src) {
        return 0;
    }
    size_t inLen = srcLen < 0 ? std::strlen(src) : (size_t)srcLen;
    static const vek_wchar kQ = '?';
    size_t n = iconv_all("UTF-16LE", nl_langinfo(CODESET), src, inLen, (char*)dst,
                         (size_t)(dstSize - 1) * 2, (const char*)&kQ, 2, 1);
    if (n == (size_t)-1) {
        return 0;
    }
    vek_s32 units = (vek_s32)(n / 2);
    dst[units] = 0;
    return units;
}

VEK_API vek_s32 al_wcs_to_ansi(const vek_wchar* src, vek_s32 srcLen, char* dst, vek_s32 dstSize) {
    if (!dst || dstSize < 1) {
        return 0;
    }
    dst[0] = 0;
    if (!src) {
        return 0;
    }
    size_t units = 0;
    if (srcLen < 0) {
        while (src[units]) {
            units++;
        }
    } else {
        units = (size_t)srcLen;
    }
    size_t n = iconv_all(nl_langinfo(CODESET), "UTF-16LE", (const char*)src, units * 2, dst,
                         (size_t)dstSize - 1, "?", 1, 2);
    if (n == (size_t)-1) {
        return 0;
    }
    dst[n] = 0;
    return (vek_s32)n;
}

} // extern "C"
