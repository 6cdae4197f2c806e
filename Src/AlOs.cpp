/*
 * AlOs.cpp - the parts of the OS layer that standard C already gives on
 * every platform: the start counter, plain allocation and files over the C
 * runtime's streams (buffered, which keeps byte-at-a-time stream reading
 * cheap). Opening with a UTF-8 path and 64-bit positioning are the
 * platform's (AlPlat.h).
 */
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include "AlPlat.h"
#include "AlOs.h"
#include "VekCore.h"

struct AlFile {
    std::FILE* fp;
    vek_s32 lastOp;  // 0 none, 1 read, 2 write
};

namespace {

AlAtom g_osCnt;

vek_s32 os_error(void) {
    return errno > 0 ? -errno : -5;
}

// C streams need a positioning call between a write and a read (either
// way); callers of AlFile may alternate freely.
void switch_op(AlFile* f, vek_s32 op) {
    if (f->lastOp != 0 && f->lastOp != op) {
        plat::file_seek(f->fp, 0, SEEK_CUR);
    }
    f->lastOp = op;
}

bool file_ok(AlFile* f) {
    if (!f || !f->fp) {
        VEK_ASSERT(f && f->fp);
        return false;
    }
    return true;
}

} // namespace

extern "C" {

VEK_API vek_s32 AlOs_init(void) {
    return AlAtom_inc(&g_osCnt);
}

VEK_API vek_s32 AlOs_exit(void) {
    return vek::count_down(&g_osCnt, true);
}

} // extern "C"

namespace {

std::atomic<vek_s32> g_failFired{0};

bool injected_failure() {
    if (vek::g_allocFailCountdown.load(std::memory_order_relaxed) == 0) {
        return false;
    }
    vek_s32 left = vek::g_allocFailCountdown.fetch_sub(1, std::memory_order_relaxed);
    if (left == 1) {
        g_failFired.store(1, std::memory_order_relaxed);
        return true;
    }
    if (left <= 0) {
        vek::g_allocFailCountdown.fetch_add(1, std::memory_order_relaxed);  // raced with a disarm
    }
    return false;
}

// Bytes (syncs, for kind 2) left before an injected file failure, per
// kind (0 writes, 1 reads, 2 syncs); negative is disarmed.
std::atomic<vek_s64> g_ioLeft[3] = {{-1}, {-1}, {-1}};
std::atomic<vek_s32> g_ioFired[3] = {{0}, {0}, {0}};

// How many of len bytes the call may move; -1 when it fails outright.
vek_s32 io_allowance(vek_s32 kind, vek_s32 len) {
    vek_s64 left = g_ioLeft[kind].load(std::memory_order_relaxed);
    if (left < 0) {
        return len;
    }
    vek_s64 take = left < len ? left : len;
    g_ioLeft[kind].store(left - take, std::memory_order_relaxed);
    if (take < len || (left == 0 && len > 0)) {
        g_ioFired[kind].store(1, std::memory_order_relaxed);
        return take > 0 ? (vek_s32)take : -1;
    }
    return len;
}

} // namespace

// 0 is disarmed, so the common path reads one relaxed word.
std::atomic<vek_s32> vek::g_allocFailCountdown{0};

extern "C" {

VEK_API vek_s32 vek_heap_fail_at__(vek_s32 k) {
    vek::g_allocFailCountdown.store(k > 0 ? k : 0, std::memory_order_relaxed);
    return g_failFired.exchange(0, std::memory_order_relaxed);
}

VEK_API vek_s32 vek_file_fail_at__(vek_s32 kind, vek_s64 bytes) {
    if (kind < 0 || kind > 2) {
        return VEK_ERR_BAD_ARG;
    }
    g_ioLeft[kind].store(bytes < 0 ? -1 : bytes, std::memory_order_relaxed);
    return g_ioFired[kind].exchange(0, std::memory_order_relaxed);
}

VEK_API vek_s32 vek_os_fail_at__(vek_s32 call, vek_s32 k) {
    if (call < 0 || call >= plat::kOsServices) {
        return VEK_ERR_BAD_ARG;
    }
    plat::g_osFailLeft[call].store(k > 0 ? k : 0, std::memory_order_relaxed);
    return plat::g_osFailFired[call].exchange(0, std::memory_order_relaxed);
}

VEK_API void vek_os_fail_errno__(vek_s32 err) {
    plat::g_osFailErrno.store(err > 0 ? err : 0, std::memory_order_relaxed);
}

VEK_API void* al_malloc(size_t size) {
    return injected_failure() ? nullptr : std::malloc(size ? size : 1);
}

VEK_API void al_free(void* block) {
    std::free(block);
}

VEK_API void* al_realloc(void* block, size_t size) {
    return injected_failure() ? nullptr : std::realloc(block, size ? size : 1);
}

VEK_API AlFile* AlFile_open(const char* path, const char* mode) {
    if (!path || !*path || !mode || !*mode) {
        return nullptr;
    }
    std::FILE* fp = plat::file_open(path, mode);
    if (!fp) {
        return nullptr;
    }
    AlFile* f = (AlFile*)al_malloc(sizeof(AlFile));
    if (!f) {
        std::fclose(fp);
        return nullptr;
    }
    f->fp = fp;
    f->lastOp = 0;
    return f;
}

VEK_API vek_s32 AlFile_close(AlFile* f) {
    if (!file_ok(f)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 r = std::fclose(f->fp) == 0 ? 0 : os_error();
    f->fp = nullptr;
    al_free(f);
    return r;
}

VEK_API vek_s32 AlFile_read(AlFile* f, void* buf, vek_s32 len) {
    if (!file_ok(f) || !buf || len < 0) {
        return VEK_ERR_BAD_ARG;
    }
    switch_op(f, 1);
    vek_s32 allowed = io_allowance(1, len);
    if (allowed < 0) {
        return -5;  // EIO, as a failing device reports it
    }
    errno = 0;
    size_t n = std::fread(buf, 1, (size_t)allowed, f->fp);
    if (n == 0 && std::ferror(f->fp)) {
        std::clearerr(f->fp);
        return os_error();
    }
    return (vek_s32)n;
}

VEK_API vek_s32 AlFile_write(AlFile* f, const void* data, vek_s32 len) {
    if (!file_ok(f) || !data || len < 0) {
        return VEK_ERR_BAD_ARG;
    }
    switch_op(f, 2);
    vek_s32 allowed = io_allowance(0, len);
    if (allowed < 0) {
        return -28;  // ENOSPC, as a full disc reports it
    }
    errno = 0;
    size_t n = std::fwrite(data, 1, (size_t)allowed, f->fp);
    if (allowed < len) {
        return -28;  // the bytes before the point went out, as on a real disc
    }
    // A short write is a failed write: a caller that counted on every byte
    // must not take a part for the whole.
    if (n < (size_t)len && std::ferror(f->fp)) {
        std::clearerr(f->fp);
        return os_error();
    }
    return (vek_s32)n;
}

VEK_API vek_s32 AlFile_seek(AlFile* f, vek_s64 offset, vek_s32 origin) {
    if (!file_ok(f)) {
        return VEK_ERR_BAD_ARG;
    }
    if (origin < 0 || origin > 2) {
        return VEK_ERR_BAD_ARG;
    }
    f->lastOp = 0;
    return plat::file_seek(f->fp, offset, origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END);
}

VEK_API vek_s64 AlFile_tell(AlFile* f) {
    return file_ok(f) ? plat::file_tell(f->fp) : VEK_ERR_BAD_ARG;
}

VEK_API vek_s64 AlFile_size(AlFile* f) {
    if (!file_ok(f)) {
        return VEK_ERR_BAD_ARG;
    }
    std::fflush(f->fp);  // buffered writes count toward the length
    return plat::file_size(f->fp);
}

} // extern "C"

namespace vek {

vek_s32 file_sync(AlFile* f) {
    if (!file_ok(f)) {
        return VEK_ERR_BAD_ARG;
    }
    if (std::fflush(f->fp) != 0) {
        return os_error();
    }
    if (io_allowance(2, 1) < 1) {
        return -5;  // EIO, as a failing disc reports it
    }
    return plat::file_sync(f->fp);
}

vek_s32 folder_sync(const char* path) {
    if (io_allowance(2, 1) < 1) {
        return -5;
    }
    return plat::folder_sync(path);
}

} // namespace vek

extern "C" {

VEK_API vek_s32 AlFile_flush(AlFile* f) {
    if (!file_ok(f)) {
        return VEK_ERR_BAD_ARG;
    }
    return std::fflush(f->fp) == 0 ? 0 : os_error();
}

} // extern "C"
