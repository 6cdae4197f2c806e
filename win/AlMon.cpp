/*
 * AlMon.cpp (Windows) - the monitors' watches on Win32: ReadDirectoryChangesW
 * for folders (the system watches a whole tree itself), the drives for
 * discs.
 *
 * The folder's changes are asked for at once when the watch opens and
 * again as soon as a batch arrived, so the system keeps collecting them
 * between two reads. A completion without data means the system's buffer
 * overflowed, ERROR_NOTIFY_ENUM_DIR that it gave up: both are a RESCAN.
 * Windows has no call that announces a drive or a medium to a program
 * without a window, so the disc watch looks at the drives twice a second.
 */
#include <cstring>
#include <string_view>
#include <unordered_set>
#include "MonPlat.h"
#include "VekCore.h"
#include "VekIoWait.h"
#include "WinHelp.h"

using vek::MonEvt;
using vek::MonQue;
using vek::VString;
using vek::ListedPaths;
using vek::mon_push;

namespace {

constexpr DWORD kNotify = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_ATTRIBUTES |
                          FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_CREATION;
constexpr DWORD kBufSize = 64 * 1024;  // the most a watch of a network share takes
/* How often a waiting read looks whether the watched folder still exists:
 * not every system ends the watch of a folder that was removed. */
constexpr vek_s32 kLookMs = 1000;

VString utf8(const wchar_t* w, size_t n) {
    VString s;
    if (n == 0) {
        return s;
    }
    int len = WideCharToMultiByte(CP_UTF8, 0, w, (int)n, nullptr, 0, nullptr, nullptr);
    s.resize(len > 0 ? (size_t)len : 0);
    if (len > 0) {
        WideCharToMultiByte(CP_UTF8, 0, w, (int)n, &s[0], len, nullptr, nullptr);
    }
    return s;
}

using WString = std::basic_string<wchar_t, std::char_traits<wchar_t>, vek::HeapAllocator<wchar_t>>;

WString wide(const char* s) {
    int n = MultiByteToWideChar(CP_UTF8, 0, s, -1, nullptr, 0);
    WString w(n > 0 ? (size_t)n : 1, L'\0');
    if (n > 0) {
        MultiByteToWideChar(CP_UTF8, 0, s, -1, &w[0], n);
    }
    w.resize(wcslen(w.c_str()));
    return w;
}

} // namespace

namespace plat {

struct FileWatch {
    HANDLE dir = INVALID_HANDLE_VALUE;
    OVERLAPPED ov = {};
    bool recursive = false;
    bool armed = false;
    bool gone = false;
    WString root;
    ListedPaths listed;
    alignas(DWORD) char buf[kBufSize];

    /* A folder that appears in a recursive watch may bring a tree with it
     * (moved in whole): the system reports only the folder, so it is
     * listed. */
    void list_tree(const VString& rel, MonQue& q) {
        WString pattern = root + L"\\" + wide(rel.c_str()) + L"\\*";
        WIN32_FIND_DATAW fd;
        HANDLE h = FindFirstFileW(pattern.c_str(), &fd);
        if (h == INVALID_HANDLE_VALUE) {
            return;
        }
        struct Closer {  // also when running out of memory part way
            HANDLE h;
            ~Closer() { FindClose(h); }
        } closer{h};
        do {
            if (!wcscmp(fd.cFileName, L".") || !wcscmp(fd.cFileName, L"..")) {
                continue;
            }
            VString path = rel + "\\" + utf8(fd.cFileName, wcslen(fd.cFileName));
            bool isDir = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
                         !(fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT);
            listed.found(q, path, isDir);
            if (isDir) {
                list_tree(path, q);
            }
        } while (FindNextFileW(h, &fd));
    }

    void appeared(const VString& name, MonQue& q) {
        if (listed.repeats(name)) {
            return;
        }
        bool d = is_dir(name);
        mon_push(q, VEK_MON_ADDED, d ? VEK_MON_DIR : 0, name);
        if (d && recursive) {
            list_tree(name, q);
        }
    }

    bool arm() {
        ResetEvent(ov.hEvent);
        armed = ReadDirectoryChangesW(dir, buf, kBufSize, recursive, kNotify, nullptr, &ov, nullptr) != 0;
        return armed;
    }

    bool is_dir(const VString& rel) const {
        WString p = root + L"\\" + wide(rel.c_str());
        DWORD a = GetFileAttributesW(p.c_str());
        return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }

    void parse(DWORD n, MonQue& q) {
        VString oldName;
        bool haveOld = false;
        for (DWORD off = 0; off < n;) {
            auto* fi = (FILE_NOTIFY_INFORMATION*)(buf + off);
            VString name = utf8(fi->FileName, fi->FileNameLength / sizeof(WCHAR));
            switch (fi->Action) {
            case FILE_ACTION_ADDED: appeared(name, q); break;
            case FILE_ACTION_REMOVED: mon_push(q, VEK_MON_REMOVED, 0, name); break;
            case FILE_ACTION_MODIFIED:
                // A folder is "modified" whenever an entry in it changes:
                // that entry is reported on its own.
                if (!is_dir(name)) {
                    mon_push(q, VEK_MON_CHANGED, 0, name);
                }
                break;
            case FILE_ACTION_RENAMED_OLD_NAME:
                if (haveOld) {
                    mon_push(q, VEK_MON_REMOVED, 0, oldName);
                }
                oldName = name;
                haveOld = true;
                break;
            case FILE_ACTION_RENAMED_NEW_NAME:
                if (haveOld) {
                    mon_push(q, VEK_MON_RENAMED, is_dir(name) ? VEK_MON_DIR : 0, name, oldName);
                    haveOld = false;
                } else {
                    appeared(name, q);
                }
                break;
            default: break;
            }
            if (fi->NextEntryOffset == 0) {
                break;
            }
            off += fi->NextEntryOffset;
        }
        if (haveOld) {
            mon_push(q, VEK_MON_REMOVED, 0, oldName);
        }
    }
};

vek_s32 filewatch_open(const char* dir, bool recursive, FileWatch** out) {
    FileWatch* fw = nullptr;
    try {
        WString w = wide(dir);
        DWORD attr = GetFileAttributesW(w.c_str());
        if (attr == INVALID_FILE_ATTRIBUTES) {
            DWORD e = GetLastError();
            return e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND ? VEK_ERR_NOT_FOUND : VEK_ERR_FILE_OPEN;
        }
        if (!(attr & FILE_ATTRIBUTE_DIRECTORY)) {
            return VEK_ERR_FILE_OPEN;
        }
        void* mem = vek_malloc__(sizeof(FileWatch));
        if (!mem) {
            return VEK_ERR_FULL;
        }
        fw = new (mem) FileWatch();  // allocates nothing: the record is freed by close from here on
        fw->recursive = recursive;
        fw->root = w;
        while (fw->root.size() > 3 && (fw->root.back() == L'\\' || fw->root.back() == L'/')) {
            fw->root.pop_back();
        }
        fw->dir = CreateFileW(fw->root.c_str(), FILE_LIST_DIRECTORY,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
        fw->ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (fw->dir == INVALID_HANDLE_VALUE || !fw->ov.hEvent || !fw->arm()) {
            filewatch_close(fw);
            return VEK_ERR_FILE_OPEN;
        }
    } catch (const std::bad_alloc&) {
        filewatch_close(fw);
        return VEK_ERR_FULL;
    }
    *out = fw;
    return 0;
}

vek_s32 filewatch_read(FileWatch* w, MonQue& q, vek_s32 tmo, vek_s32 flags) {
    size_t before = q.size();
    vek_u32 start = vek_msec();
    try {
        w->listed.next_read();
        while (q.size() == before) {
            if (w->gone) {
                return VEK_ERR_EOF;
            }
            if (!w->armed && !w->arm()) {
                mon_push(q, VEK_MON_REMOVED, VEK_MON_DIR, VString());
                w->gone = true;
                break;
            }
            vek_s32 left = tmo < 0 ? kLookMs : tmo - (vek_s32)(vek_msec() - start);
            vek_u32 n = 0;
            vek_s32 r = vek_ovl_swait(w->dir, &w->ov, &n, left < 0 ? 0 : (left < kLookMs ? left : kLookMs), flags);
            if (r == VEK_ERR_ABORTED || r == VEK_ERR_TIMEOUT) {
                w->armed = false;  // cancelled: asked again, the system keeps what comes meanwhile
                if (GetFileAttributesW(w->root.c_str()) == INVALID_FILE_ATTRIBUTES) {
                    mon_push(q, VEK_MON_REMOVED, VEK_MON_DIR, VString());
                    w->gone = true;
                    break;
                }
                if (r == VEK_ERR_ABORTED || (tmo >= 0 && (vek_s32)(vek_msec() - start) >= tmo)) {
                    return r;
                }
                continue;
            }
            w->armed = false;
            if (r == 0 && n > 0) {
                w->parse(n, q);
                continue;
            }
            DWORD e = GetLastError();
            if (r == 0 || e == ERROR_NOTIFY_ENUM_DIR) {
                vek::mon_rescan(q);  // the system's buffer overflowed
                continue;
            }
            // The folder went away (or its handle broke).
            if (GetFileAttributesW(w->root.c_str()) == INVALID_FILE_ATTRIBUTES) {
                mon_push(q, VEK_MON_REMOVED, VEK_MON_DIR, VString());
                w->gone = true;
            } else {
                vek::mon_rescan(q);
            }
        }
        if (!w->gone && !w->armed) {
            w->arm();
        }
    } catch (const std::bad_alloc&) {
        return q.size() > before ? (vek_s32)(q.size() - before) : VEK_ERR_FULL;
    }
    return (vek_s32)(q.size() - before);
}

void filewatch_close(FileWatch* w) {
    if (!w) {
        return;
    }
    if (w->dir != INVALID_HANDLE_VALUE) {
        if (w->armed) {
            CancelIoEx(w->dir, &w->ov);
            DWORD n;
            GetOverlappedResult(w->dir, &w->ov, &n, TRUE);
        }
        CloseHandle(w->dir);
    }
    if (w->ov.hEvent) {
        CloseHandle(w->ov.hEvent);
    }
    w->~FileWatch();
    vek_free__(w);
}

// ---- discs ----

constexpr vek_s32 kDiscLookMs = 500;

struct DriveState {
    bool present = false;  // the letter exists
    bool medium = false;   // a volume can be read in it
    bool removable = false;
    VString fsType;
};

struct DiscWatch {
    DriveState drives[26];

    static void look(DriveState* out) {
        DWORD mask = GetLogicalDrives();
        UINT old = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
        for (int i = 0; i < 26; i++) {
            DriveState& d = out[i];
            d = DriveState();
            d.present = (mask >> i) & 1;
            if (!d.present) {
                continue;
            }
            wchar_t root[4] = {(wchar_t)(L'A' + i), L':', L'\\', 0};
            UINT type = GetDriveTypeW(root);
            d.removable = type == DRIVE_REMOVABLE || type == DRIVE_CDROM;
            wchar_t fs[32] = {0};
            d.medium = GetVolumeInformationW(root, nullptr, 0, nullptr, nullptr, nullptr, fs, 32) != 0;
            d.fsType = utf8(fs, wcslen(fs));
        }
        SetErrorMode(old);
    }

    void changes(MonQue& q) {
        DriveState now[26];
        look(now);
        for (int i = 0; i < 26; i++) {
            const DriveState& a = drives[i];
            const DriveState& b = now[i];
            char root[4] = {(char)('A' + i), ':', '\\', 0};
            vek_s32 fl = (a.removable || b.removable) ? VEK_MON_REMOVABLE : 0;
            if (a.present && !b.present) {
                mon_push(q, VEK_MON_UNMOUNTED, fl, root);
                q.back().fsType = a.fsType;
            } else if (!a.present && b.present) {
                mon_push(q, VEK_MON_MOUNTED, fl, root);
                q.back().fsType = b.fsType;
            } else if (a.present && a.removable && a.medium != b.medium) {
                mon_push(q, b.medium ? VEK_MON_MEDIA_ADDED : VEK_MON_MEDIA_REMOVED, fl, root);
                q.back().fsType = b.medium ? b.fsType : a.fsType;
            }
            drives[i] = b;
        }
    }
};

vek_s32 discwatch_open(DiscWatch** out) {
    void* mem = vek_malloc__(sizeof(DiscWatch));
    if (!mem) {
        return VEK_ERR_FULL;
    }
    DiscWatch* w = new (mem) DiscWatch();
    try {
        DiscWatch::look(w->drives);
    } catch (const std::bad_alloc&) {
        discwatch_close(w);
        return VEK_ERR_FULL;
    }
    *out = w;
    return 0;
}

vek_s32 discwatch_read(DiscWatch* w, MonQue& q, vek_s32 tmo, vek_s32 flags) {
    size_t before = q.size();
    vek_u32 start = vek_msec();
    try {
        for (;;) {
            w->changes(q);
            if (q.size() > before) {
                return (vek_s32)(q.size() - before);
            }
            vek_s32 left = tmo < 0 ? kDiscLookMs : tmo - (vek_s32)(vek_msec() - start);
            if (left <= 0) {
                return VEK_ERR_TIMEOUT;
            }
            vek_s32 r = (flags & VEK_WAIT_FORBID_ABORT) ? (vek_sleep(left < kDiscLookMs ? left : kDiscLookMs), 0)
                                                        : vek_ssleep(left < kDiscLookMs ? left : kDiscLookMs);
            if (r < 0) {
                return r;
            }
        }
    } catch (const std::bad_alloc&) {
        return q.size() > before ? (vek_s32)(q.size() - before) : VEK_ERR_FULL;
    }
}

void discwatch_close(DiscWatch* w) {
    if (w) {
        w->~DiscWatch();
        vek_free__(w);
    }
}

} // namespace plat
