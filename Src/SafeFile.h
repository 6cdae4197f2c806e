/*
 * SafeFile.h - writing a whole file so that it is never lost (internal).
 *
 * Where it is safe and possible, the new content goes to a temporary file
 * in the target's folder; commit flushes it to the disk and only then puts
 * it in the original's place in one step, so a failure leaves the original
 * exactly as it was; then the folder itself is synced (POSIX; the move is
 * written through on Windows), since a power loss could otherwise undo the
 * rename. A failure of that last sync is reported although the new content
 * is already in place. That needs a regular file with a single name (another
 * hard link would keep the old content), whose owner this process can keep,
 * in a folder that takes a temporary file. Anything else is written in
 * place, exactly as an open with mode "wb" would write it: a file with
 * several links, a file in a folder that refuses the temporary file, a
 * device or a FIFO (never replaced by a regular file). A directory cannot be
 * written. A symbolic link is followed, so the link stays and its target is
 * written.
 */
#ifndef VEK_SAFEFILE_H
#define VEK_SAFEFILE_H

#include "AlOs.h"
#include "VekStrm.h"

namespace vek {

class SafeFile {
  public:
    SafeFile() = default;
    SafeFile(const SafeFile&) = delete;
    SafeFile& operator=(const SafeFile&) = delete;
    ~SafeFile() { discard(); }

    /* Opens path for writing, through a temporary file where that is safe.
     * VEK_ERR_FILE_OPEN when the target is a directory, exists but may not
     * be written, or cannot be opened. With tempOnly, a target that would be
     * written in place is left untouched and the answer is
     * VEK_ERR_NOT_SUPPORTED (a writer that may fail half-way then keeps the
     * content elsewhere until it is complete). */
    vek_s32 open(const char* path, bool tempOnly = false);
    /* The file to write to (null before open). */
    AlFile* file() const { return file_; }
    /* Completes the write: 0, or the negative error (a replaced original
     * is then untouched, unless only the folder's sync failed). */
    vek_s32 commit();
    /* Gives up: a temporary file is closed and removed (a file written in
     * place keeps what was written, as it would with "wb"). */
    void discard();

    /* Writes path whole: fill writes the content to a file stream; returns
     * fill's negative result, or the result of the commit. */
    static vek_s32 write(const char* path, vek_s32 (*fill)(IStrm* strm, void* ctx), void* ctx);

  private:
    bool openTemp(bool existing);

    static constexpr vek_s32 kPathMax = 4096;
    char target_[kPathMax] = {0};
    char temp_[kPathMax + 64] = {0};
    AlFile* file_ = nullptr;
};

} // namespace vek

#endif /* VEK_SAFEFILE_H */
