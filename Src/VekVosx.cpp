/*
 * VekVosx.cpp - threads (start, registration, join, exit test), the
 * handle waits on which every blocking call of the library rests, events,
 * locks and kernel-object names.
 *
 * The abortable waits wait on their own handle first and on the caller's
 * call abort event second (vek_call_abort_evt, ThrdCm.cpp); the abort event
 * is never reset by a wait, so once a thread is cancelled every later
 * abortable wait of it returns -5 until somebody clears the event.
 */
#include <cstring>
#include "AlPlat.h"
#include "AlSync.h"
#include "VekCall.h"
#include "VekCore.h"
#include "VekErp.h"
#include "VekStr.h"
#include "VekUni.h"

namespace {

/* What vek_thrd_create__ hands to the new thread. */
struct StartRec {
    vek_thrd_entry entry;
    void* arg;
};

enum WaitKind { kPlainWait, kAbortWait, kPumpWait };

/* Waits on hnd (and, unless forbidden, the caller's call abort event) and
 * maps the system's result: 0, -5, -12 or -51. name prefixes the traces
 * and assertion texts of the family. A pumping wait also wakes for the
 * caller's window messages (Windows) and event-receive queue, runs
 * dispProc (null: vek_disp_msg) and whatever it left in the queue, and
 * then looks at hnd and the abort event again. */
vek_s32 hnd_wait(WaitKind kind, const char* name, vek_handle hnd, vek_disp_proc dispProc,
                 vek_s32 tmo, vek_s32 flags) {
    if (!hnd) {
        VEK_ASSERT(hnd);
        return VEK_ERR_WAIT_FAILED;
    }
    bool forbidAbort = kind == kPlainWait || (flags & VEK_WAIT_FORBID_ABORT) != 0;
    vek_s32 alertable = (flags & VEK_WAIT_ALERTABLE) != 0;
    vek_handle hnds[3] = {hnd, nullptr, nullptr};
    vek_s32 n = 1;
    if (!forbidAbort) {
        hnds[1] = vek_call_abort_evt();
        n = hnds[1] ? 2 : 1;
        if (!(forbidAbort || hnd != hnds[1])) {
            vek_assert__("forbidAbort || hnd != hnds[1]", __FILE__, __LINE__);
        }
    }
    // The queue's wake-up waits last: the own object and the abort win.
    vek_s32 nWait = n;
    if (kind == kPumpWait && (hnds[nWait] = vek::erp_wait_hnd()) != nullptr) {
        nWait++;
    }
    vek_u32 start = vek_msec();
    for (;;) {
        vek_s32 left = tmo;
        if (kind == kPumpWait && tmo > 0) {
            vek_u32 spent = vek_msec() - start;
            left = spent >= (vek_u32)tmo ? 0 : tmo - (vek_s32)spent;
        }
        vek_u32 r = kind == kPumpWait ? plat::msg_wait_any(hnds, nWait, left, alertable)
                                      : plat::wait_any(hnds, n, left, alertable);
        if (kind == kPumpWait && r >= plat::kWaitObject0 + (vek_u32)n && r <= plat::kWaitObject0 + (vek_u32)nWait) {
            if (dispProc) {
                dispProc();
                vek_erp_disp();
            } else {
                vek_disp_msg();
            }
            // The dispatch may have satisfied either handle.
            r = plat::wait_any(hnds, 1, 0, 0);
            if (r == plat::kWaitTimeout && n == 2) {
                r = plat::wait_any(hnds + 1, 1, 0, 0) == plat::kWaitObject0 ? 1 : r;
            }
            if (r == plat::kWaitTimeout) {
                continue;
            }
        }
        if (r == plat::kWaitObject0) {
            return 0;
        }
        if (r == plat::kWaitObject0 + 1 && n == 2) {
            if (forbidAbort) {
                VEK_ASSERT(!forbidAbort);
            }
            return VEK_ERR_ABORTED;
        }
        if (r == plat::kWaitAbandoned0) {
            vek_printf("%s detect ABANDONED", name);
            return 0;
        }
        if (r == plat::kWaitIoCompletion) {
            if (!alertable) {
                VEK_ASSERT(alertable);
            }
            continue;
        }
        if (r == plat::kWaitTimeout) {
            return VEK_ERR_TIMEOUT;
        }
        char msg[128];
        vek_snprintf(msg, sizeof msg, "%s FAIL for WaitFor FAIL, res=%d", name, (int)r);
        vek_assert__(msg, __FILE__, __LINE__);
        return VEK_ERR_WAIT_FAILED;
    }
}

/* Runs a handle operation: null asserts nullText, a failure failText. */
void hnd_op(vek_handle hnd, vek_s32 (*op)(vek_handle), const char* nullText, const char* failText) {
    if (!hnd) {
        vek_assert__(nullText, __FILE__, __LINE__);
    } else if (!op(hnd)) {
        vek_assert__(failText, __FILE__, __LINE__);
    }
}

vek_handle create_mutex(const vek_wchar* name, vek_bool initialOwner) {
    vek_handle mutex = plat::mutex_create(name, initialOwner);
    if (!mutex) {
        VEK_ASSERT(mutex);
    }
    return mutex;
}

/* Lower case of the letters of ASCII, Latin-1, Greek and Cyrillic; each
 * keeps its UTF-8 length, so 8-bit names can be rewritten in place. */
vek_wchar kobj_lower(vek_wchar c) {
    if ((c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7) ||
        (c >= 0x391 && c <= 0x3AB && c != 0x3A2) || (c >= 0x410 && c <= 0x42F)) {
        return (vek_wchar)(c + 0x20);
    }
    if (c >= 0x400 && c <= 0x40F) {
        return (vek_wchar)(c + 0x50);
    }
    return c;
}

/* Length of a kept namespace prefix at the start of name. */
template <class Ch>
size_t kobj_prefix(const Ch* name) {
    static const char* const kPrefixes[] = {"Global\\", "Local\\"};
    for (const char* p : kPrefixes) {
        size_t i = 0;
        while (p[i] && name[i] == (Ch)p[i]) {
            i++;
        }
        if (!p[i]) {
            return i;
        }
    }
    return 0;
}

template <class Ch>
Ch* kobj_fmt(Ch* name) {
    if (!name) {
        return name;
    }
    for (Ch* p = name + kobj_prefix(name); *p; p++) {
        if (*p == '\\' || *p == '/' || *p == ':') {
            *p = '$';
        } else if (sizeof(Ch) == 2 || (vek_u8)*p < 0x80) {
            *p = (Ch)kobj_lower((vek_wchar)(vek_u16)*p);
        } else if (((vek_u8)*p & 0xE0) == 0xC0 && p[1]) {  // two-byte UTF-8
            vek_s32 used = 0;
            vek_wchar lower = kobj_lower(utf8_str_to_wcs_char((const char*)p, &used));
            if (used == 2) {
                wcs_char_to_utf8_char(lower, (char*)p);
            }
            p++;
        }
    }
    return name;
}

} // namespace

namespace vek {

vek_u32 thrd_start(void* startRec) {
    StartRec* rec = (StartRec*)startRec;
    vek_thrd_entry entry = rec->entry;
    void* arg = rec->arg;
    vek_free__(rec);
    vek_thrd_beg();
    vek_u32 code = 0xFFFFFFFFu;
    try {
        code = entry(arg);
    } catch (...) {
        // The entry is C; whatever it let escape ends the thread, reported,
        // with all ones as its exit code.
        vek_printf("thrd entry FAIL for exception, thrdId=%u", al_thrd_id());
    }
    vek_thrd_end();
    return code;
}

} // namespace vek

extern "C" {

// ---- threads ----

VEK_API vek_u32 vek_thrd_create__(vek_thrd_entry entry, void* arg, vek_u32 stackSize) {
    if (!entry) {
        vek_assert__("thrdEntry", __FILE__, __LINE__);
        return 0;
    }
    StartRec* rec = (StartRec*)vek_malloc__(sizeof(StartRec));
    if (!rec) {
        return 0;
    }
    rec->entry = entry;
    rec->arg = arg;
    vek_u32 thrdId = 0;
    void* thrdHnd = plat::thrd_create(rec, stackSize, &thrdId);
    if (!thrdHnd) {
        VEK_ASSERT(thrdHnd);
        vek_free__(rec);
        return 0;
    }
    if (!thrdId) {
        VEK_ASSERT(thrdId);
    }
    if (!plat::thrd_close(thrdHnd)) {
        vek_assert__("0", __FILE__, __LINE__);
    }
    return thrdId;
}

VEK_API void vek_thrd_beg(void) {
    VEK_LIFE_TRACE("thrd attaching ...");
    // Structured exceptions have no counterpart to translate here: a fault
    // in a thread ends the process through the platform's own handling.
    vek::win_thrd_beg();
    VEK_LIFE_TRACE("thrd attached");
}

VEK_API void vek_thrd_end(void) {
    VEK_LIFE_TRACE("thrd detaching...");
    vek::erp_thrd_end();  // reports the processors left (vek_erp_leak(0)), then ends them
    vek::win_thrd_end();
    VEK_LIFE_TRACE("thrd detached");
}

VEK_API vek_s32 vek_thrd_join(vek_u32 thrdId) {
    if (!thrdId) {
        VEK_ASSERT(thrdId);
        return 0;
    }
    void* thrdHnd = plat::thrd_open(thrdId, 0);
    if (!thrdHnd) {
        vek_printf("%s%s%s", "vek_thrd_join()", ", but thrd already end", ", it's ok");
        return 0;
    }
    vek_u32 waitRes = plat::thrd_wait(thrdHnd, -1);
    if (waitRes != plat::kWaitObject0) {
        vek_assert__("waitRes == WAIT_OBJECT_0", __FILE__, __LINE__);
    }
    if (!plat::thrd_close(thrdHnd)) {
        vek_assert__("CloseHandle(thrdHnd)", __FILE__, __LINE__);
    }
    return 0;
}

VEK_API vek_bool vek_thrd_exited(vek_u32 thrdId) {
    if (!thrdId) {
        VEK_ASSERT(thrdId);
        return 1;
    }
    void* thrdHnd = plat::thrd_open(thrdId, 0);
    if (!thrdHnd) {
        return 1;
    }
    vek_u32 waitRes = plat::thrd_wait(thrdHnd, 0);
    plat::thrd_close(thrdHnd);
    return waitRes == plat::kWaitObject0 ? 1 : 0;
}

VEK_API vek_s32 vek_thrd_wait(vek_u32 tid) {
    vek_thrd_cancel(tid);
    return vek_thrd_join(tid);
}

// ---- waits ----

VEK_API vek_s32 win_hnd_wait__(vek_handle hnd, vek_s32 tmo, vek_s32 flags) {
    return hnd_wait(kPlainWait, "win_hnd_wait()", hnd, nullptr, tmo, flags);
}

VEK_API vek_s32 win_hnd_swait__(vek_handle hnd, vek_s32 tmo, vek_s32 flags) {
    return hnd_wait(kAbortWait, "win_hnd_swait()", hnd, nullptr, tmo, flags);
}

VEK_API vek_s32 win_hnd_mwait__(vek_handle hnd, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags) {
    return hnd_wait(kPumpWait, "win_hnd_mwait()", hnd, dispProc, tmo, flags);
}

VEK_API vek_s32 vek_ssleep(vek_s32 ms) {
    vek_handle evt = vek_call_abort_evt();
    if (!evt) {  // asserted already: nothing can abort this sleep
        vek_sleep(ms > 0 ? (vek_u32)ms : 0);
        return 0;
    }
    vek_u32 r = plat::wait_any(&evt, 1, ms, 0);
    if (r == plat::kWaitTimeout) {
        return 0;
    }
    if (r == plat::kWaitObject0) {
        return VEK_ERR_ABORTED;
    }
    char msg[128];
    vek_snprintf(msg, sizeof msg, "vek_ssleep() FAIL for WaitFor FAIL, res=%d", (int)r);
    vek_assert__(msg, __FILE__, __LINE__);
    return VEK_ERR_WAIT_FAILED;
}

// ---- events ----

VEK_API vek_handle vek_evt_create__(vek_bool manualReset, vek_bool initialState) {
    vek_handle evt = plat::event_create(manualReset, initialState);
    if (!evt) {
        VEK_ASSERT(evt);
    }
    return evt;
}

VEK_API void vek_evt_set(vek_handle evt) {
    hnd_op(evt, plat::event_set, "evt", "SetEvent(evt)");
}

VEK_API void vek_evt_reset(vek_handle evt) {
    hnd_op(evt, plat::event_reset, "evt", "ResetEvent(evt)");
}

VEK_API void vek_evt_close(vek_handle evt) {
    hnd_op(evt, plat::handle_close, "evt", "CloseHandle(evt)");
}

VEK_API vek_bool vek_evt_test(vek_handle evt) {
    if (!evt) {
        VEK_ASSERT(evt);
        return 0;
    }
    return plat::wait_any(&evt, 1, 0, 0) == plat::kWaitObject0 ? 1 : 0;
}

VEK_API vek_s32 vek_evt_wait__(vek_handle evt, vek_s32 tmo, vek_s32 flags) {
    return win_hnd_wait__(evt, tmo, flags);
}

VEK_API vek_s32 vek_evt_swait__(vek_handle evt, vek_s32 tmo, vek_s32 flags) {
    return win_hnd_swait__(evt, tmo, flags);
}

VEK_API vek_s32 vek_evt_mwait__(vek_handle evt, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags) {
    return win_hnd_mwait__(evt, dispProc, tmo, flags);
}

// ---- locks ----

VEK_API vek_handle vek_lock_create__(const char* name, vek_bool initialOwner) {
    if (!name || !name[0]) {
        return create_mutex(nullptr, initialOwner);
    }
    vek_s32 len = (vek_s32)std::strlen(name);
    vek_wchar* wname = (vek_wchar*)vek_malloc__(sizeof(vek_wchar) * ((size_t)len + 1));
    if (!wname) {
        VEK_ASSERT(wname);
        return nullptr;
    }
    utf8_buf_to_wcs_str(name, len, wname, len + 1);
    vek_handle mutex = create_mutex(wname, initialOwner);
    vek_free__(wname);
    return mutex;
}

VEK_API vek_handle vek_lock_createw__(const vek_wchar* name, vek_bool initialOwner) {
    return create_mutex(name && name[0] ? name : nullptr, initialOwner);
}

VEK_API vek_s32 vek_lock_lock__(vek_handle mutex, vek_s32 tmo, vek_s32 flags) {
    return win_hnd_wait__(mutex, tmo, flags);
}

VEK_API vek_s32 vek_lock_slock__(vek_handle mutex, vek_s32 tmo, vek_s32 flags) {
    return win_hnd_swait__(mutex, tmo, flags);
}

VEK_API vek_s32 vek_lock_mlock__(vek_handle mutex, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags) {
    return win_hnd_mwait__(mutex, dispProc, tmo, flags);
}

VEK_API vek_s32 vek_lock_trylock__(vek_handle mutex, vek_s32 flags) {
    if (!mutex) {
        VEK_ASSERT(mutex);
        return VEK_ERR_WAIT_FAILED;
    }
    vek_u32 r = plat::wait_any(&mutex, 1, 0, (flags & VEK_WAIT_ALERTABLE) != 0);
    if (r == plat::kWaitObject0) {
        return 0;
    }
    if (r == plat::kWaitAbandoned0) {
        vek_printf("vek_lock_trylock() detect ABANDONED");
        return 0;
    }
    if (r == plat::kWaitTimeout) {
        return VEK_ERR_TIMEOUT;
    }
    char msg[128];
    vek_snprintf(msg, sizeof msg, "vek_lock_trylock() FAIL for WaitFor FAIL, res=%d", (int)r);
    vek_assert__(msg, __FILE__, __LINE__);
    return VEK_ERR_WAIT_FAILED;
}

VEK_API void vek_lock_unlock(vek_handle mutex) {
    hnd_op(mutex, plat::mutex_release, "mutex", "0");
}

VEK_API void vek_lock_close(vek_handle mutex) {
    // One text for a null handle and a failed close alike.
    hnd_op(mutex, plat::handle_close, "CloseHandle(mutex)", "CloseHandle(mutex)");
}

VEK_API vek_bool win_mutex_exist__(const vek_wchar* mutexName) {
    if (!mutexName || !mutexName[0]) {
        vek_assert__("!wcs_noo(mutexName)", __FILE__, __LINE__);
        return 0;
    }
    return plat::mutex_exists(mutexName);
}

// ---- kernel-object names ----

VEK_API char* win_kobj_fmt(char* name) {
    return kobj_fmt(name);
}

VEK_API vek_wchar* win_kobj_fmtw(vek_wchar* name) {
    return kobj_fmt(name);
}

VEK_API char* vek_mutex_fmt(char* name) {
    return kobj_fmt(name);
}

VEK_API vek_wchar* vek_mutex_fmtw(vek_wchar* name) {
    return kobj_fmt(name);
}

VEK_API vek_s32 vek_proc_path__(char* buf, vek_s32 size) {
    if (!buf || size < 1) {
        return 0;
    }
    buf[0] = 0;
    return plat::exe_path(buf, size);
}

} // extern "C"

namespace {

// "Global\<kind>$<name>" in str, formatted in place as a kernel-object name.
const char* kobj_name(VekStr* str, const char* kind, const char* name) {
    VekStr_setf(str, "Global\\%s$%s", kind, name);
    char* p = VekStr_useBufBeg(str, -1);
    if (!p) {
        return VekStr_buf(str);
    }
    kobj_fmt(p);
    VekStr_useBufEnd(str, -1);
    return VekStr_buf(str);
}

} // namespace

extern "C" {

VEK_API const char* vek_file_mutex__(VekStr* str, const char* filePath) {
    if (!str) {
        vek_assert__("mutexName", __FILE__, __LINE__);
        return "";
    }
    VekStr_clear(str);
    if (!filePath || !*filePath) {
        vek_assert__("!str_noo(filePath)", __FILE__, __LINE__);
        return VekStr_buf(str);
    }
    return kobj_name(str, "FileMutex", filePath);
}

VEK_API const char* vek_proc_mutex__(VekStr* str, const char* procName) {
    if (!str) {
        vek_assert__("mutexName", __FILE__, __LINE__);
        return "";
    }
    VekStr_clear(str);
    char path[3072];
    if (!procName || !*procName) {
        vek_proc_path__(path, sizeof path);
        procName = path;
    }
    return kobj_name(str, "ProcMutex", procName);
}

} // extern "C"
