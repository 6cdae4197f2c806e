/*
 * AlFile.cpp (Windows) - files: UTF-8 paths become UTF-16 for the wide CRT
 * and Win32 calls, 64-bit positions, and what a safe replacement of a file
 * needs.
 */
#include <cerrno>
#include <cstdio>
#include <io.h>
#include "WinHelp.h"
#include "AlPlat.h"

namespace {

vek_s32 crt_error(void) {
    return errno > 0 ? -errno : -5;
}

vek_s32 win_error(void) {
    DWORD e = GetLastError();
    return e ? -(vek_s32)(e & 0x7FFFFFFF) : -5;
}

} // namespace

namespace plat {

std::FILE* file_open(const char* path, const char* mode) {
    wchar_t wpath[MAX_PATH * 4];
    wchar_t wmode[16];
    win::to_wide(path, wpath, MAX_PATH * 4);
    win::to_wide(mode, wmode, 16);
    return _wfopen(wpath, wmode);
}

vek_s32 file_seek(std::FILE* f, vek_s64 offset, vek_s32 origin) {
    return _fseeki64(f, offset, origin) == 0 ? 0 : crt_error();
}

vek_s64 file_tell(std::FILE* f) {
    __int64 pos = _ftelli64(f);
    return pos >= 0 ? (vek_s64)pos : crt_error();
}

vek_s64 file_size(std::FILE* f) {
    __int64 n = _filelengthi64(_fileno(f));
    return n >= 0 ? (vek_s64)n : crt_error();
}

vek_s32 file_sync(std::FILE* f) {
    HANDLE h = (HANDLE)_get_osfhandle(_fileno(f));
    return h != INVALID_HANDLE_VALUE && FlushFileBuffers(h) ? 0 : win_error();
}

vek_s32 file_resolve(const char* path, char* out, vek_s32 cap) {
    // Links are rare on Windows and MoveFileEx replaces a link's target
    // through the link's own name only when given the target: resolve it.
    wchar_t wpath[MAX_PATH * 4];
    win::to_wide(path, wpath, MAX_PATH * 4);
    DWORD attr = GetFileAttributesW(wpath);
    if (attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_REPARSE_POINT)) {
        HANDLE h = CreateFileW(wpath, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            wchar_t real[MAX_PATH * 4];
            DWORD n = GetFinalPathNameByHandleW(h, real, MAX_PATH * 4, 0);
            CloseHandle(h);
            if (n > 0 && n < MAX_PATH * 4) {
                const wchar_t* r = real;
                if (wcsncmp(r, L"\\\\?\\", 4) == 0) {
                    r += 4;
                }
                return win::to_utf8(r, out, cap);
            }
        }
    }
    vek_s32 n = (vek_s32)strlen(path);
    if (n >= cap) {
        return 0;
    }
    memcpy(out, path, (size_t)n + 1);
    return n;
}

vek_s32 file_replace(const char* from, const char* target) {
    wchar_t wfrom[MAX_PATH * 4];
    wchar_t wto[MAX_PATH * 4];
    win::to_wide(from, wfrom, MAX_PATH * 4);
    win::to_wide(target, wto, MAX_PATH * 4);
    return MoveFileExW(wfrom, wto, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) ? 0 : win_error();
}

vek_s32 folder_sync(const char*) {
    return 0;  // MOVEFILE_WRITE_THROUGH returned only once the move was on the disk
}

vek_s32 file_copy_mode(const char* from, const char* to) {
    // The read-only attribute is the permission a replacement must keep.
    if (os_fails(VEK_OS_OWNER)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return win_error();
    }
    wchar_t wfrom[MAX_PATH * 4];
    wchar_t wto[MAX_PATH * 4];
    win::to_wide(from, wfrom, MAX_PATH * 4);
    win::to_wide(to, wto, MAX_PATH * 4);
    DWORD attr = GetFileAttributesW(wfrom);
    if (attr == INVALID_FILE_ATTRIBUTES) {
        return win_error();
    }
    return SetFileAttributesW(wto, attr & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN)) ? 0 : win_error();
}

FileKind file_kind(const char* path, vek_s32* links) {
    wchar_t wpath[MAX_PATH * 4];
    win::to_wide(path, wpath, MAX_PATH * 4);
    *links = 0;
    DWORD attr = GetFileAttributesW(wpath);
    if (attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY)) {
        return FileKind::directory;
    }
    // Devices (NUL, CON, COM1) have no attributes but open; asking for no
    // access at all opens without touching them.
    HANDLE h = CreateFileW(wpath, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        DWORD e = GetLastError();
        return e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND ? FileKind::missing : FileKind::unknown;
    }
    FileKind kind = FileKind::special;
    BY_HANDLE_FILE_INFORMATION info;
    if (GetFileType(h) == FILE_TYPE_DISK && GetFileInformationByHandle(h, &info)) {
        kind = (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? FileKind::directory : FileKind::regular;
        *links = info.nNumberOfLinks > 0x7FFFFFFF ? 0x7FFFFFFF : (vek_s32)info.nNumberOfLinks;
    }
    CloseHandle(h);
    return kind;
}

vek_s32 file_check_writable(const char* path) {
    wchar_t wpath[MAX_PATH * 4];
    win::to_wide(path, wpath, MAX_PATH * 4);
    DWORD attr = GetFileAttributesW(wpath);
    if (attr == INVALID_FILE_ATTRIBUTES) {
        return 0;
    }
    return (attr & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY)) ? -EACCES : 0;
}

vek_s32 file_remove(const char* path) {
    wchar_t wpath[MAX_PATH * 4];
    win::to_wide(path, wpath, MAX_PATH * 4);
    return DeleteFileW(wpath) ? 0 : win_error();
}

} // namespace plat
