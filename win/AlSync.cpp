/*
 * AlSync.cpp (Windows) - waitable objects, the wait for any of them,
 * thread-local slots and threads on Win32: the kernel's events and mutexes,
 * WaitForMultipleObjectsEx / MsgWaitForMultipleObjectsEx, TLS slots and
 * threads opened by id.
 */
#include "WinHelp.h"
#include "AlPlat.h"
#include "AlSync.h"

namespace {

/* Every window message the wait should wake for: input, posted, timer,
 * paint, sent and hot-key messages. */
constexpr DWORD kWakeMask = 0xFF;

DWORD tmo_ms(vek_s32 tmo) {
    return tmo < 0 ? INFINITE : (DWORD)tmo;
}

DWORD WINAPI win_start(LPVOID rec) {
    return (DWORD)vek::thrd_start(rec);
}

/* A descriptor with a null access list: every user may open the mutex
 * (another user's process must see and share the program's named locks).
 * Built for the call and freed after it. */
struct OpenSecurity {
    SECURITY_ATTRIBUTES sa;
    PSECURITY_DESCRIPTOR sd;
    OpenSecurity() : sa(), sd(LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH)) {
        sa.nLength = sizeof sa;
        if (sd && InitializeSecurityDescriptor(sd, SECURITY_DESCRIPTOR_REVISION) &&
            SetSecurityDescriptorDacl(sd, TRUE, nullptr, FALSE)) {
            sa.lpSecurityDescriptor = sd;
        }
    }
    ~OpenSecurity() { LocalFree(sd); }
    OpenSecurity(const OpenSecurity&) = delete;
    OpenSecurity& operator=(const OpenSecurity&) = delete;
};

} // namespace

namespace plat {

vek_handle event_create(vek_s32 manualReset, vek_s32 initialState) {
    return CreateEventW(nullptr, manualReset ? TRUE : FALSE, initialState ? TRUE : FALSE, nullptr);
}

vek_s32 event_set(vek_handle evt) {
    return SetEvent(evt) ? 1 : 0;
}

vek_s32 event_reset(vek_handle evt) {
    return ResetEvent(evt) ? 1 : 0;
}

vek_handle mutex_create(const vek_wchar* name, vek_s32 initialOwner) {
    if (name && name[0] && os_fails(VEK_OS_SHM)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    OpenSecurity sec;
    return CreateMutexW(&sec.sa, initialOwner ? TRUE : FALSE, name && name[0] ? (LPCWSTR)name : nullptr);
}

vek_s32 mutex_release(vek_handle mutex) {
    return ReleaseMutex(mutex) ? 1 : 0;
}

vek_s32 mutex_exists(const vek_wchar* name) {
    HANDLE h = OpenMutexW(MUTEX_ALL_ACCESS, FALSE, (LPCWSTR)name);
    if (h) {
        CloseHandle(h);
        return 1;
    }
    return GetLastError() == ERROR_ACCESS_DENIED ? 1 : 0;
}

vek_s32 handle_close(vek_handle hnd) {
    return CloseHandle(hnd) ? 1 : 0;
}

vek_u32 wait_any(const vek_handle* hnds, vek_s32 n, vek_s32 tmo, vek_s32 alertable) {
    return WaitForMultipleObjectsEx((DWORD)n, (const HANDLE*)hnds, FALSE, tmo_ms(tmo), alertable ? TRUE : FALSE);
}

vek_u32 msg_wait_any(const vek_handle* hnds, vek_s32 n, vek_s32 tmo, vek_s32 alertable) {
    return MsgWaitForMultipleObjectsEx((DWORD)n, (const HANDLE*)hnds, tmo_ms(tmo), kWakeMask,
                                       alertable ? MWMO_ALERTABLE : 0);
}

vek_u32 wait_fds(PollFd*, vek_s32, const vek_handle*, vek_s32, vek_s32, vek_s32* nReady) {
    *nReady = 0;
    return kWaitUnsupported;  // Windows waits on handles and overlapped I/O
}

void disp_msg(void) {
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

vek_u32 last_error(void) {
    return GetLastError();
}

vek_u32 tls_alloc(void) {
    DWORD slot = TlsAlloc();
    return slot == TLS_OUT_OF_INDEXES ? kTlsNone : slot;
}

vek_s32 tls_free(vek_u32 slot) {
    return TlsFree(slot) ? 1 : 0;
}

void* tls_get(vek_u32 slot) {
    return TlsGetValue(slot);
}

vek_s32 tls_set(vek_u32 slot, void* value) {
    return TlsSetValue(slot, value) ? 1 : 0;
}

namespace {
DWORD g_endSlot = FLS_OUT_OF_INDEXES;
void (*g_endFn)(void*);

VOID WINAPI end_callback(PVOID value) {
    if (value && g_endFn) {
        g_endFn(value);
    }
}
} // namespace

vek_s32 thread_end_hook(void (*fn)(void* value)) {
    if (g_endSlot != FLS_OUT_OF_INDEXES) {
        FlsFree(g_endSlot);  // runs the callback for the values still stored
        g_endSlot = FLS_OUT_OF_INDEXES;
    }
    g_endFn = fn;
    if (fn) {
        g_endSlot = FlsAlloc(end_callback);
    }
    return g_endSlot != FLS_OUT_OF_INDEXES || !fn;
}

vek_s32 thread_end_set(void* value) {
    return g_endSlot != FLS_OUT_OF_INDEXES && FlsSetValue(g_endSlot, value) ? 1 : 0;
}

void* thread_end_get(void) {
    return g_endSlot != FLS_OUT_OF_INDEXES ? FlsGetValue(g_endSlot) : nullptr;
}

void* thrd_create(void* startRec, vek_u32 stackSize, vek_u32* tid) {
    DWORD id = 0;
    HANDLE h = nullptr;
    if (os_fails(VEK_OS_THREAD)) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    } else {
        h = CreateThread(nullptr, stackSize, win_start, startRec, 0, &id);
    }
    *tid = h ? id : 0;
    return h;
}

void* thrd_open(vek_u32 tid, vek_s32 fullAccess) {
    return OpenThread(fullAccess ? THREAD_ALL_ACCESS : SYNCHRONIZE, FALSE, tid);
}

vek_u32 thrd_wait(void* thrd, vek_s32 tmo) {
    return WaitForSingleObject(thrd, tmo_ms(tmo));
}

vek_s32 thrd_close(void* thrd) {
    return CloseHandle(thrd) ? 1 : 0;
}

} // namespace plat
