/*
 * SafeFile.h - writing a file so that it is never lost (internal).
 *
 * The new content goes to a temporary file in the target's folder; commit
 * flushes it to the disk, gives it the old file's permissions and only then
 * replaces the original in one step. A symbolic link is followed, so the
 * link stays and its target is replaced. Any failure leaves the original
 * exactly as it was and removes the temporary file.
 */
#ifndef VEK_SAFEFILE_H
#define VEK_SAFEFILE_H

#include "AlOs.h"

namespace vek {

class SafeFile {
  public:
    SafeFile() = default;
    SafeFile(const SafeFile&) = delete;
    SafeFile& operator=(const SafeFile&) = delete;
    ~SafeFile() { discard(); }

    /* Creates the temporary file for path. VEK_ERR_FILE_OPEN when the target
     * exists but may not be written, or the temporary cannot be created. */
    vek_s32 open(const char* path);
    /* The temporary file to write to (null before open). */
    AlFile* file() const { return file_; }
    /* Completes the write: 0, or the negative error (original untouched). */
    vek_s32 commit();
    /* Gives up: closes and removes the temporary file. */
    void discard();

  private:
    static constexpr vek_s32 kPathMax = 4096;
    char target_[kPathMax] = {0};
    char temp_[kPathMax + 64] = {0};
    AlFile* file_ = nullptr;
};

} // namespace vek

#endif /* VEK_SAFEFILE_H */
