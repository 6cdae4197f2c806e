/*
 * AlWake.cpp (Windows) - the wake-up of an event-receive queue: a
 * message-only window of the owner thread. A signal posts it a message, so
 * the owner sees its queue's work wherever it looks at its messages: the
 * library's message-pumping waits, and any message loop of a program
 * (GetMessage / DispatchMessage), which dispatches the message to the
 * window procedure below and so runs the queue.
 */
#include "WinHelp.h"
#include "AlWake.h"

namespace {

constexpr UINT kWakeMsg = WM_APP + 0x1E5;
const wchar_t kClassName[] = L"VekErpWake";

LRESULT CALLBACK wake_proc(HWND wnd, UINT msg, WPARAM wp, LPARAM lp) {
    if (msg == kWakeMsg) {
        vek::erp_wnd_disp();
        return 0;
    }
    return DefWindowProcW(wnd, msg, wp, lp);
}

/* The module that holds the window procedure: the library, or the program
 * in a static build. */
HINSTANCE own_module() {
    HMODULE mod = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       (LPCWSTR)(void*)&wake_proc, &mod);
    return mod;
}

} // namespace

namespace plat {

void erp_wake_init(void) {
    WNDCLASSEXW wc = {};
    wc.cbSize = sizeof wc;
    wc.lpfnWndProc = wake_proc;
    wc.hInstance = own_module();
    wc.lpszClassName = kClassName;
    RegisterClassExW(&wc);  // registered already (a restart): the same procedure
}

void erp_wake_exit(void) {
    // Fails while a thread that never ended still has its window: the
    // class then stays with it.
    UnregisterClassW(kClassName, own_module());
}

bool erp_wake_create(ErpWake* w) {
    w->evt = nullptr;
    w->wnd = CreateWindowExW(0, kClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, own_module(), nullptr);
    return w->wnd != nullptr;
}

void erp_wake_signal(const ErpWake* w) {
    PostMessageW((HWND)w->wnd, kWakeMsg, 0, 0);
}

void erp_wake_retire(ErpWake* w) {
    DestroyWindow((HWND)w->wnd);  // a late signal then posts to no window, and fails
}

void erp_wake_destroy(ErpWake* w) {
    w->wnd = nullptr;
}

} // namespace plat
