/*
 * BaseItf.cpp - the free functions over any IStrm: formatted output, copy,
 * append, clone and the file round trips. They borrow their streams and
 * use only the fifteen operations, so they work on every stream class.
 */
#include "SafeFile.h"
#include "StrUtil.h"
#include "VekStrm.h"
#include "VekVos.h"

namespace {

constexpr vek_s32 kCopyChunk = 1024;

// The formatting engine's sink: the stream's own write.
vek_s32 strm_sink(void* strm, const char* bytes, vek_s32 n) {
    return n > 0 ? IStrm_write((IStrm*)strm, bytes, n) : 0;
}

// Moves the source's bytes (from its start, or from its position) to the
// destination's position. The source is left where it was. Returns 0 or the
// first negative result of a read or a write.
vek_s32 copy_bytes(IStrm* dst, IStrm* src, vek_s32 fromStart) {
    vek_s64 srcPos = IStrm_tell(src);
    if (fromStart) {
        IStrm_seek(src, 0, 0);
    }
    vek_s32 err = 0;
    char buf[kCopyChunk];
    for (;;) {
        vek_s32 n = IStrm_read(src, buf, kCopyChunk);
        if (n <= 0) {
            err = n;
            break;
        }
        vek_s32 w = IStrm_write(dst, buf, n);
        if (w < 0) {
            err = w;
            break;
        }
    }
    IStrm_seek(src, srcPos, 0);
    return err;
}

struct CopySource {
    IStrm* src;
    vek_s32 fromStart;
};

// Copies strm into a file at path, which ends up holding exactly those bytes
// (written safely: a failure keeps the old file), or an existing file's
// bytes into strm ("rb"). An empty path, which would give a stream without a
// file, is a file that cannot be opened.
vek_s32 copy_file(IStrm* strm, const char* path, bool toFile, vek_s32 fromStart) {
    if (!*path) {
        return VEK_ERR_FILE_OPEN;
    }
    if (toFile) {
        CopySource from = {strm, fromStart};
        return vek::SafeFile::write(
            path,
            [](IStrm* file, void* ctx) {
                auto* c = (CopySource*)ctx;
                return IStrm_copyx(file, c->src, c->fromStart);
            },
            &from);
    }
    vek_s32 err = VEK_ERR_FILE_OPEN;
    FileStrm fs;
    IStrm* file = FileStrm_xcreatex__(&fs, path, "rb", &err, __FILE__, __LINE__);
    if (!file) {
        return VEK_ERR_FILE_OPEN;
    }
    err = IStrm_copy(strm, file);
    IStrm_release(file);
    return err;
}

} // namespace

extern "C" {

VEK_API vek_s32 IStrm_vprintf(IStrm* strm, const char* fmt, va_list args) {
    if (!strm || !fmt) {
        VEK_ASSERT(strm && fmt);
        return VEK_ERR_BAD_ARG;
    }
    return str_fmt_out(strm, strm_sink, fmt, args);
}

VEK_API vek_s32 IStrm_printf(IStrm* strm, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vek_s32 ret = IStrm_vprintf(strm, fmt, args);
    va_end(args);
    return ret;
}

// The destination is emptied first (a stream that cannot be emptied, like
// a file, is then written from its position) and left at its start, ready
// to be read.
VEK_API vek_s32 IStrm_copyx(IStrm* dst, IStrm* src, vek_s32 fromStart) {
    if (!dst || !src) {
        VEK_ASSERT(dst && src);
        return VEK_ERR_BAD_ARG;
    }
    IStrm_clear(dst);
    vek_s32 err = copy_bytes(dst, src, fromStart);
    IStrm_seek(dst, 0, 0);
    return err;
}

VEK_API vek_s32 IStrm_copy(IStrm* dst, IStrm* src) {
    return IStrm_copyx(dst, src, 1);
}

// The destination keeps its bytes and ends after the appended ones. One
// that cannot seek to its end is written at its position.
VEK_API vek_s32 IStrm_appdx(IStrm* dst, IStrm* src, vek_s32 fromStart) {
    if (!dst || !src) {
        VEK_ASSERT(dst && src);
        return VEK_ERR_BAD_ARG;
    }
    IStrm_seek(dst, 0, 2);
    return copy_bytes(dst, src, fromStart);
}

VEK_API vek_s32 IStrm_appd(IStrm* dst, IStrm* src) {
    return IStrm_appdx(dst, src, 1);
}

VEK_API IStrm* IStrm_clone(IStrm* src) {
    if (!src) {
        VEK_ASSERT(src);
        return nullptr;
    }
    IStrm* dst = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    if (dst && IStrm_copy(dst, src) < 0) {
        IStrm_release(dst);  // a partial copy would pass for the whole source
        return nullptr;
    }
    return dst;
}

VEK_API vek_s32 IStrm_toFilex(IStrm* src, const char* path, vek_s32 fromStart) {
    if (!src || !path) {
        VEK_ASSERT(src && path);
        return VEK_ERR_BAD_ARG;
    }
    return copy_file(src, path, true, fromStart);
}

VEK_API vek_s32 IStrm_toFile(IStrm* src, const char* path) {
    return IStrm_toFilex(src, path, 1);
}

VEK_API vek_s32 IStrm_fromFile(IStrm* dst, const char* path) {
    if (!dst || !path) {
        VEK_ASSERT(dst && path);
        return VEK_ERR_BAD_ARG;
    }
    return copy_file(dst, path, false, 1);
}

} // extern "C"
