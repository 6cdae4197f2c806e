/*
 * SafeFile.cpp - a file is replaced only once its new content is complete
 * and on the disk.
 */
#include "SafeFile.h"
#include "AlPlat.h"
#include "VekCore.h"

namespace vek {

vek_s32 SafeFile::open(const char* path) {
    discard();
    if (!path || !*path || plat::file_resolve(path, target_, kPathMax) <= 0) {
        return VEK_ERR_FILE_OPEN;
    }
    if (plat::file_check_writable(target_) != 0) {
        return VEK_ERR_FILE_OPEN;  // a read-only file stays read-only
    }
    // Unique within the process (handle counter) and among processes (the
    // thread id is system-wide); the folder is the target's, so the final
    // replacement never crosses file systems.
    vek_snprintf(temp_, sizeof temp_, "%s.~%08x%08x.tmp", target_, vek_glb_hnd(), al_thrd_id());
    file_ = AlFile_open(temp_, "wb");
    return file_ ? 0 : VEK_ERR_FILE_OPEN;
}

vek_s32 SafeFile::commit() {
    if (!file_) {
        return VEK_ERR_NOT_OPEN;
    }
    vek_s32 r = file_sync(file_);
    vek_s32 c = AlFile_close(file_);
    file_ = nullptr;
    if (r == 0) {
        r = c;
    }
    if (r == 0) {
        plat::file_copy_mode(target_, temp_);  // nothing to copy for a new file
        r = plat::file_replace(temp_, target_);
    }
    if (r != 0) {
        plat::file_remove(temp_);
    }
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

} // namespace vek
