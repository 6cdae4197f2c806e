/*
 * SafeFile.cpp - a file is replaced only once its new content is complete
 * and on the disk, and only where replacing it changes nothing else.
 */
#include "SafeFile.h"
#include "AlPlat.h"
#include "VekCore.h"

namespace vek {

// The temporary file takes the original's permissions and owner before any
// content reaches it, so a private file is never readable by others on the
// way; where the owner cannot be kept, the file is written in place.
bool SafeFile::openTemp(bool existing) {
    // Unique within the process (handle counter) and among processes (the
    // thread id is system-wide); the folder is the target's, so the final
    // replacement never crosses file systems.
    vek_snprintf(temp_, sizeof temp_, "%s.~%08x%08x.tmp", target_, vek_glb_hnd(), al_thrd_id());
    file_ = AlFile_open(temp_, "wb");
    if (file_ && (!existing || plat::file_copy_mode(target_, temp_) == 0)) {
        return true;
    }
    discard();
    return false;
}

vek_s32 SafeFile::open(const char* path, bool tempOnly) {
    discard();
    if (!path || !*path || plat::file_resolve(path, target_, kPathMax) <= 0) {
        return VEK_ERR_FILE_OPEN;
    }
    vek_s32 links = 0;
    plat::FileKind kind = plat::file_kind(target_, &links);
    if (kind == plat::FileKind::directory) {
        return VEK_ERR_FILE_OPEN;
    }
    if (kind == plat::FileKind::regular && plat::file_check_writable(target_) != 0) {
        return VEK_ERR_FILE_OPEN;  // a read-only file stays read-only
    }
    bool replaceable = kind == plat::FileKind::missing || (kind == plat::FileKind::regular && links == 1);
    if (!replaceable || !openTemp(kind == plat::FileKind::regular)) {
        if (tempOnly) {
            return VEK_ERR_NOT_SUPPORTED;
        }
        file_ = AlFile_open(target_, "wb");
    }
    return file_ ? 0 : VEK_ERR_FILE_OPEN;
}

vek_s32 SafeFile::commit() {
    if (!file_) {
        return VEK_ERR_NOT_OPEN;
    }
    if (!temp_[0]) {
        vek_s32 c = AlFile_close(file_);  // what the plain write reports
        file_ = nullptr;
        return c;
    }
    vek_s32 r = file_sync(file_);
    vek_s32 c = AlFile_close(file_);
    file_ = nullptr;
    if (r == 0) {
        r = c;
    }
    if (r == 0) {
        r = plat::file_replace(temp_, target_);
        if (r == 0) {
            // The new content is in place; only its folder entry may still
            // be lost to a power cut, and a caller must hear of that too.
            temp_[0] = 0;
            return folder_sync(target_);
        }
    }
    plat::file_remove(temp_);
    temp_[0] = 0;
    return r;
}

void SafeFile::discard() {
    if (file_) {
        AlFile_close(file_);
        file_ = nullptr;
    }
    if (temp_[0]) {
        plat::file_remove(temp_);
        temp_[0] = 0;
    }
}

vek_s32 SafeFile::write(const char* path, vek_s32 (*fill)(IStrm* strm, void* ctx), void* ctx) {
    SafeFile safe;
    if (!vek_path_verify__(path, __FILE__, __LINE__) || safe.open(path) != 0) {
        return VEK_ERR_FILE_OPEN;
    }
    FileStrm mem;
    vek_s32 err = 0;
    IStrm* s = FileStrm_xcreatex__(&mem, "", "", &err, __FILE__, __LINE__);
    FileStrm_attach(s, safe.file());
    vek_s32 r = fill(s, ctx);
    FileStrm_detach(s);
    IStrm_release(s);
    if (r < 0) {
        safe.discard();
        return r;
    }
    return safe.commit();
}

} // namespace vek
