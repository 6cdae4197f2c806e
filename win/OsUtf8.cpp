/*
 * OsUtf8.cpp (Windows) - the UTF-8 forms of the system calls: names become
 * UTF-16 through the library's own converter and go to the wide calls.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include "WinHelp.h"
#include "AlPlat.h"
#include "StrUtil.h"

namespace {

vek_s32 win_error(DWORD e) {
    if (e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND || e == ERROR_INVALID_NAME ||
        e == ERROR_MOD_NOT_FOUND || e == ERROR_ENVVAR_NOT_FOUND) {
        return VEK_ERR_NOT_FOUND;
    }
    return e ? -(vek_s32)(e & 0x7FFFFFFF) : -5;
}

vek_s32 last_error(void) {
    return win_error(GetLastError());
}

vek_s32 kind_of(DWORD attr) {
    if (attr & FILE_ATTRIBUTE_DIRECTORY) {
        return VEK_FS_DIR;
    }
    return (attr & FILE_ATTRIBUTE_DEVICE) ? VEK_FS_OTHER : VEK_FS_FILE;
}

// The system's text of an error, UTF-8, without its line end.
void error_text(DWORD e, char* why, vek_s32 whySize) {
    wchar_t w[512];
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, e, 0, w,
                             512, nullptr);
    while (n > 0 && (w[n - 1] == L'\r' || w[n - 1] == L'\n' || w[n - 1] == L' ')) {
        n--;
    }
    w[n] = 0;
    if (n == 0) {
        std::snprintf(why, (size_t)whySize, "error %lu", (unsigned long)e);
    } else {
        win::to_utf8(w, why, whySize);
    }
}

} // namespace

namespace plat {

vek_s32 fs_stat(const char* path, VekStat* st) {
    win::Wide w(path);
    WIN32_FILE_ATTRIBUTE_DATA a;
    if (!w.ok()) {
        return VEK_ERR_FULL;
    }
    if (!GetFileAttributesExW(w.get(), GetFileExInfoStandard, &a)) {
        return last_error();
    }
    // A link is followed: its target's data come from a handle on it.
    if (a.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        HANDLE h = CreateFileW(w.get(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        BY_HANDLE_FILE_INFORMATION info;
        if (h == INVALID_HANDLE_VALUE) {
            st->kind = VEK_FS_OTHER;
            st->size = 0;
            st->mtime = 0;
            st->readOnly = 0;
            return 0;
        }
        bool ok = GetFileInformationByHandle(h, &info) != 0;
        CloseHandle(h);
        if (ok) {
            a.dwFileAttributes = info.dwFileAttributes;
            a.ftLastWriteTime = info.ftLastWriteTime;
            a.nFileSizeHigh = info.nFileSizeHigh;
            a.nFileSizeLow = info.nFileSizeLow;
        }
    }
    st->kind = kind_of(a.dwFileAttributes);
    st->size = st->kind == VEK_FS_FILE ? (vek_s64)(((vek_u64)a.nFileSizeHigh << 32) | a.nFileSizeLow) : 0;
    st->mtime = (vek_s64)(((vek_u64)a.ftLastWriteTime.dwHighDateTime << 32) | a.ftLastWriteTime.dwLowDateTime);
    st->readOnly = (a.dwFileAttributes & FILE_ATTRIBUTE_READONLY) ? 1 : 0;
    return 0;
}

vek_s32 fs_rename(const char* from, const char* to) {
    win::Wide a(from);
    win::Wide b(to);
    if (!a.ok() || !b.ok()) {
        return VEK_ERR_FULL;
    }
    return MoveFileExW(a.get(), b.get(), MOVEFILE_REPLACE_EXISTING) ? 0 : last_error();
}

vek_s32 fs_remove(const char* path) {
    win::Wide w(path);
    if (!w.ok()) {
        return VEK_ERR_FULL;
    }
    DWORD attr = GetFileAttributesW(w.get());
    if (attr == INVALID_FILE_ATTRIBUTES) {
        return last_error();
    }
    BOOL ok = (attr & FILE_ATTRIBUTE_DIRECTORY) ? RemoveDirectoryW(w.get()) : DeleteFileW(w.get());
    return ok ? 0 : last_error();
}

vek_s32 fs_mkdir(const char* path) {
    win::Wide w(path);
    if (!w.ok()) {
        return VEK_ERR_FULL;
    }
    if (CreateDirectoryW(w.get(), nullptr)) {
        return 0;
    }
    DWORD e = GetLastError();
    return e == ERROR_ALREADY_EXISTS ? VEK_ERR_NAME_EXISTS : win_error(e);
}

// The first entry comes with the search handle; next hands it out first.
struct DirList {
    HANDLE find;
    WIN32_FIND_DATAW data;
    bool pending;
    wchar_t* base;  // the folder's path with a separator, for the kind of links
    char name[MAX_PATH * 3 + 1];
};

DirList* dir_open(const char* path, vek_s32* err) {
    size_t n = std::strlen(path);
    char* pattern = (char*)al_malloc(n + 3);
    DirList* l = (DirList*)al_malloc(sizeof(DirList));
    if (!pattern || !l) {
        al_free(pattern);
        al_free(l);
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    std::memcpy(pattern, path, n);
    bool sep = n > 0 && (path[n - 1] == '\\' || path[n - 1] == '/');
    std::memcpy(pattern + n, sep ? "*" : "\\*", sep ? 2 : 3);
    win::Wide w(pattern);
    pattern[n + (sep ? 0 : 1)] = 0;
    win::Wide base(pattern);
    al_free(pattern);
    l->find = w.ok() && base.ok() ? FindFirstFileExW(w.get(), FindExInfoBasic, &l->data, FindExSearchNameMatch,
                                                     nullptr, 0)
                                  : INVALID_HANDLE_VALUE;
    if (l->find == INVALID_HANDLE_VALUE) {
        DWORD e = GetLastError();
        al_free(l);
        *err = e == ERROR_DIRECTORY ? VEK_ERR_NOT_FOUND : win_error(e);
        return nullptr;
    }
    size_t bl = std::wcslen(base.get());
    l->base = (wchar_t*)al_malloc((bl + 1) * sizeof(wchar_t));
    if (l->base) {
        std::memcpy(l->base, base.get(), (bl + 1) * sizeof(wchar_t));
    }
    l->pending = true;
    *err = 0;
    return l;
}

vek_s32 dir_next(DirList* l, const char** name, vek_s32* kind) {
    for (;;) {
        if (!l->pending) {
            if (!FindNextFileW(l->find, &l->data)) {
                DWORD e = GetLastError();
                return e == ERROR_NO_MORE_FILES ? 0 : win_error(e);
            }
        }
        l->pending = false;
        const wchar_t* n = l->data.cFileName;
        if (n[0] == L'.' && (n[1] == 0 || (n[1] == L'.' && n[2] == 0))) {
            continue;
        }
        win::to_utf8(n, l->name, (int)sizeof l->name);
        *name = l->name;
        DWORD attr = l->data.dwFileAttributes;
        if ((attr & FILE_ATTRIBUTE_REPARSE_POINT) && l->base) {
            // A link's kind is its target's, as stat would say.
            size_t bl = std::wcslen(l->base);
            size_t nl = std::wcslen(n);
            wchar_t* full = (wchar_t*)al_malloc((bl + nl + 1) * sizeof(wchar_t));
            *kind = VEK_FS_OTHER;
            if (full) {
                std::memcpy(full, l->base, bl * sizeof(wchar_t));
                std::memcpy(full + bl, n, (nl + 1) * sizeof(wchar_t));
                HANDLE h = CreateFileW(full, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                       OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
                BY_HANDLE_FILE_INFORMATION info;
                if (h != INVALID_HANDLE_VALUE) {
                    if (GetFileInformationByHandle(h, &info)) {
                        *kind = kind_of(info.dwFileAttributes);
                    }
                    CloseHandle(h);
                }
                al_free(full);
            }
        } else {
            *kind = kind_of(attr);
        }
        return 1;
    }
}

void dir_close(DirList* l) {
    FindClose(l->find);
    al_free(l->base);
    al_free(l);
}

void* lib_load(const char* path, char* why, vek_s32 whySize) {
    win::Wide w(path);
    if (!w.ok()) {
        if (why) {
            plat::copy_out(why, whySize, "out of memory");
        }
        return nullptr;
    }
    // No dialog box for a missing dependency: the caller hears the reason.
    UINT old = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    HMODULE h = LoadLibraryW(w.get());
    DWORD e = GetLastError();
    SetErrorMode(old);
    if (!h && why) {
        error_text(e, why, whySize);
    }
    return (void*)h;
}

void* lib_sym(void* lib, const char* name) {
    return (void*)GetProcAddress((HMODULE)lib, name);
}

vek_s32 lib_unload(void* lib) {
    return FreeLibrary((HMODULE)lib) ? 0 : last_error();
}

// The process's own environment block, which the programs it starts
// inherit; a change goes to the C runtime's copy as well, so that getenv
// in the same process agrees.
vek_s32 env_get(const char* name, char* buf, vek_s32 size) {
    win::Wide w(name);
    if (!w.ok()) {
        return VEK_ERR_FULL;
    }
    wchar_t small[512];
    SetLastError(0);
    DWORD n = GetEnvironmentVariableW(w.get(), small, 512);
    if (n == 0 && GetLastError() == ERROR_ENVVAR_NOT_FOUND) {
        return VEK_ERR_NOT_FOUND;
    }
    const wchar_t* v = small;
    wchar_t* big = nullptr;
    if (n >= 512) {
        big = (wchar_t*)al_malloc((size_t)n * sizeof(wchar_t));
        if (!big) {
            return VEK_ERR_FULL;
        }
        n = GetEnvironmentVariableW(w.get(), big, n);
        v = big;
    } else if (n == 0) {
        small[0] = 0;
    }
    vek_s32 r = vek::utf16_to_utf8((const vek_wchar*)v, -1, buf, size);
    al_free(big);
    return r;
}

vek_s32 env_set(const char* name, const char* value) {
    win::Wide w(name);
    win::Wide v(value ? value : "");
    if (!w.ok() || !v.ok()) {
        return VEK_ERR_FULL;
    }
    if (!SetEnvironmentVariableW(w.get(), value ? v.get() : nullptr)) {
        return last_error();
    }
    // The C runtime removes a variable given an empty value; it keeps the
    // others in step with the block.
    _wputenv_s(w.get(), value ? v.get() : L"");
    if (value && !*value) {
        SetEnvironmentVariableW(w.get(), L"");
    }
    return 0;
}

vek_s32 user_langs(char* buf, vek_s32 size) {
    ULONG count = 0;
    ULONG len = 0;
    vek_s32 out = 0;
    if (size > 0) {
        buf[0] = 0;
    }
    if (GetUserPreferredUILanguages(MUI_LANGUAGE_NAME, &count, nullptr, &len) && len > 0 && len < 4096) {
        wchar_t list[4096];
        if (GetUserPreferredUILanguages(MUI_LANGUAGE_NAME, &count, list, &len)) {
            // A list of terminated names ending in an empty one.
            for (const wchar_t* p = list; *p && out < size - 1; p += std::wcslen(p) + 1) {
                char tag[128];
                win::to_utf8(p, tag, (int)sizeof tag);
                int k = std::snprintf(buf + out, (size_t)(size - out), "%s%s", out ? ":" : "", tag);
                if (k < 0 || k >= size - out) {
                    buf[out] = 0;  // the list keeps the names that fit whole
                    break;
                }
                out += k;
            }
        }
    }
    if (out == 0) {
        wchar_t name[LOCALE_NAME_MAX_LENGTH];
        if (LCIDToLocaleName(MAKELCID(GetUserDefaultUILanguage(), SORT_DEFAULT), name, LOCALE_NAME_MAX_LENGTH, 0) >
            0) {
            out = win::to_utf8(name, buf, size);
        }
    }
    return out;
}

} // namespace plat
