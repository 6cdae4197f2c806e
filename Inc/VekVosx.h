/*
 * VekVosx.h - threads, thread cancellation, events, waits, locks,
 * semaphores and kernel-object names.
 *
 * Cancellation is cooperative. Every thread that runs library code owns an
 * abort event (manual reset) kept by the thread manager. Every abortable
 * wait (the "s" and "m" waits, vek_ssleep, VekSem_swait/mwait and the
 * library's blocking calls) waits on its own object and on the caller's
 * call abort event (VekCall.h) together and returns -5 when the abort wins.
 * vek_thrd_cancel(tid) signals the abort event of tid: every abortable wait
 * of that thread then returns -5 until the thread clears the event. A
 * cancel never waits for the thread and never terminates it.
 *
 * Results of the waits: 0 acquired / signalled, -5 aborted, -12 timed out,
 * -51 the system wait failed. Time-outs are milliseconds; any negative
 * value waits without limit. Flags: VEK_WAIT_FORBID_ABORT (bit 0) leaves
 * the abort event out; VEK_WAIT_ALERTABLE (bit 16) lets asynchronous
 * procedure calls run during the wait (Windows). A mutex whose owner ended
 * without releasing it ("abandoned") counts as acquired, after a trace.
 *
 * Handles (vek_handle) are the system's event and mutex handles on Windows
 * and objects owned by the library on POSIX; close each one once.
 *
 * The message-pumping waits (the "m" waits: win_hnd_mwait__,
 * vek_evt_mwait__, vek_lock_mlock__, VekSem_mwait) also wake for the
 * calling thread's window messages (Windows) and for work posted to its
 * event-receive processors (VekErp.h, both systems: POSIX has no window
 * messages, so there they wake for that work alone); they then call
 * dispProc, run what it left of the processors' work, and look at their
 * own object and the abort event again. Named mutexes are process-shared robust mutexes in shared memory
 * (shm_open) named from the normalised name (win_kobj_fmtw), so names that
 * differ only in case name the same mutex there.
 *
 * Misuse (null handles, failing system calls) goes to the assertion
 * facility (VekVos.h) with the texts of the functions below, and the
 * function carries on.
 */
#ifndef VEK_VOSX_H
#define VEK_VOSX_H

#include "VekType.h"
#include "AlOs.h"

VEK_BEGIN_DECLS

#define VEK_WAIT_FORBID_ABORT 0x1
#define VEK_WAIT_ALERTABLE    0x10000
#define VEK_WAIT_INFINITE     (-1)

/* ---- threads ---- */

/* A thread's entry function; its result is the thread's exit code. */
typedef vek_u32 (*vek_thrd_entry)(void* arg);

/* Starts entry(arg) on a new thread (stackSize 0: the default) that runs
 * vek_thrd_beg before and vek_thrd_end after the entry. Returns the new
 * thread's id, 0 on failure (assertions "thrdEntry", "thrdHnd", "thrdId"). */
VEK_API vek_u32 vek_thrd_create__(vek_thrd_entry entry, void* arg, vek_u32 stackSize);
/* Registers the calling thread with the thread manager (its abort event);
 * a thread that runs library waits and was not started by
 * vek_thrd_create__ calls this first. BaseLib_init does it for the
 * primary thread. */
VEK_API void vek_thrd_beg(void);
/* Removes the calling thread from the thread manager (its abort event, its
 * block stack). Every thread that called vek_thrd_beg, or any wait, calls
 * this before it ends; BaseLib_exit reports the threads that did not. */
VEK_API void vek_thrd_end(void);
/* Waits without limit until thread tid has ended (any thread of the
 * process); 0, also when it has ended already. */
VEK_API vek_s32 vek_thrd_join(vek_u32 tid);
/* 1 when thread tid has ended, 0 while it runs. */
VEK_API vek_bool vek_thrd_exited(vek_u32 tid);
/* vek_thrd_cancel(tid), then vek_thrd_join(tid). */
VEK_API vek_s32 vek_thrd_wait(vek_u32 tid);

/* ---- cancellation of threads ---- */

/* Signals the abort event of thread tid. A live thread that has not yet
 * called the library gets an entry whose event starts signalled, so it
 * finds itself aborted at its first call. Then, outside the manager's
 * lock, calls the target's additional cancel callback and cancels its
 * associated thread (recursively: associations must form chains, not
 * cycles). Safe from any thread and from callbacks. Returns 1 when the
 * request was delivered or stored, 0 when the thread has ended. */
VEK_API vek_s32 vek_thrd_cancel(vek_u32 tid);
/* The calling thread's abort event (created on first use). */
VEK_API vek_handle vek_thrd_abort_evt(void);
/* 1 when the caller's abort event is signalled (reset first when reset is
 * non-zero), else 0. vek_thrd_aborted() = vek_thrd_abortedx(0). */
VEK_API vek_bool vek_thrd_abortedx(vek_bool reset);
VEK_API vek_bool vek_thrd_aborted(void);
/* Resets the caller's abort event. */
VEK_API void vek_thrd_abort_clear(void);

/* Called by vek_thrd_cancel(tid) outside the manager's lock, with the id
 * of the cancelled thread and the argument stored with it; the result is
 * ignored. */
typedef vek_s32 (*vek_addt_cancel_fn)(vek_u32 tid, vek_u32 arg);
/* Stores fn and arg for the calling thread (replacing earlier ones) until
 * replaced or until the thread ends. Returns 1 when the caller is already
 * aborted, else 0. */
VEK_API vek_bool vek_set_addt_cancel(vek_addt_cancel_fn fn, vek_u32 arg);
/* Makes tid the caller's associated thread: cancelling the caller cancels
 * tid too. Also resets tid's abort event when tid is known to the manager.
 * Returns 1 when the caller is already aborted, else 0. */
VEK_API vek_bool vek_set_asso_thrd(vek_u32 tid);

/* ---- waits on handles ---- */

/* Not abortable: waits for hnd alone. */
VEK_API vek_s32 win_hnd_wait__(vek_handle hnd, vek_s32 tmo, vek_s32 flags);
/* Abortable: waits for hnd or the caller's call abort event; -5 when the
 * abort wins (hnd wins when both are signalled). */
VEK_API vek_s32 win_hnd_swait__(vek_handle hnd, vek_s32 tmo, vek_s32 flags);
/* Dispatches what woke a message-pumping wait; the default is
 * vek_disp_msg (VekErp.h): the window messages (Windows), then the work
 * posted to the thread's event-receive processors. */
typedef void (*vek_disp_proc)(void);
/* Abortable and pumping: as win_hnd_swait__, and calls dispProc (null:
 * vek_disp_msg) whenever window messages or event-receive work arrive. */
VEK_API vek_s32 win_hnd_mwait__(vek_handle hnd, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags);
/* Sleeps ms milliseconds (negative: without limit) unless the caller's
 * call abort event fires: 0 after the full time, -5 when aborted, -51. */
VEK_API vek_s32 vek_ssleep(vek_s32 ms);

/* ---- events ---- */

/* An unnamed event, manual or automatic reset, signalled or not. */
VEK_API vek_handle vek_evt_create__(vek_bool manualReset, vek_bool initialState);
VEK_API void vek_evt_set(vek_handle evt);
VEK_API void vek_evt_reset(vek_handle evt);
VEK_API void vek_evt_close(vek_handle evt);
/* 1 when signalled now; testing an auto-reset event consumes its signal. */
VEK_API vek_bool vek_evt_test(vek_handle evt);
/* The waits above, on an event. */
VEK_API vek_s32 vek_evt_wait__(vek_handle evt, vek_s32 tmo, vek_s32 flags);
VEK_API vek_s32 vek_evt_swait__(vek_handle evt, vek_s32 tmo, vek_s32 flags);
VEK_API vek_s32 vek_evt_mwait__(vek_handle evt, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags);

/* ---- locks: system mutexes, recursive, owned by a thread ---- */

/* A mutex; name (UTF-8, or UTF-16 for the w form) null or empty for an
 * unnamed one, else system-wide (an existing one is opened, and
 * initialOwner then does not apply). Every user may open a named lock.
 * Null on failure (assertion "mutex"). */
VEK_API vek_handle vek_lock_create__(const char* name, vek_bool initialOwner);
VEK_API vek_handle vek_lock_createw__(const vek_wchar* name, vek_bool initialOwner);
/* The waits above, on a mutex. */
VEK_API vek_s32 vek_lock_lock__(vek_handle mutex, vek_s32 tmo, vek_s32 flags);
VEK_API vek_s32 vek_lock_slock__(vek_handle mutex, vek_s32 tmo, vek_s32 flags);
VEK_API vek_s32 vek_lock_mlock__(vek_handle mutex, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags);
/* 0 acquired, -12 held by another thread, -51 failed; never waits. */
VEK_API vek_s32 vek_lock_trylock__(vek_handle mutex, vek_s32 flags);
VEK_API void vek_lock_unlock(vek_handle mutex);
VEK_API void vek_lock_close(vek_handle mutex);
/* 1 when a mutex of that name exists (also when this process may not
 * open it), else 0. */
VEK_API vek_bool win_mutex_exist__(const vek_wchar* mutexName);

/* ---- kernel-object names ----
 * Rewrite name in place and return it: a leading "Global\" or "Local\" is
 * kept as it stands; in the rest "\", "/" and ":" become "$" and letters
 * are lower-cased (ASCII, Latin-1, Greek and Cyrillic). vek_mutex_fmt(w)
 * is the same rule. */
VEK_API char* win_kobj_fmt(char* name);
VEK_API vek_wchar* win_kobj_fmtw(vek_wchar* name);
VEK_API char* vek_mutex_fmt(char* name);
VEK_API vek_wchar* vek_mutex_fmtw(vek_wchar* name);
/* The calling process's executable path (UTF-8) into buf of size bytes,
 * always terminated; returns its length, 0 when unknown. */
VEK_API vek_s32 vek_proc_path__(char* buf, vek_s32 size);
/* The name of the system-wide mutex that guards a file: str (cleared
 * first) becomes "Global\FileMutex$" and filePath, formatted as above (so
 * C:\Data\X.ini gives Global\filemutex$c$$data$x.ini). Returns str's
 * text. Assertions: "mutexName" for a null str, "!str_noo(filePath)" for
 * a null or empty path. */
VEK_API const char* vek_file_mutex__(VekStr* str, const char* filePath);
/* The same for a process: "Global\ProcMutex$" and procName, or the
 * calling process's executable path when procName is null or empty. */
VEK_API const char* vek_proc_mutex__(VekStr* str, const char* procName);

/* ---- semaphores ----
 * A counting semaphore in caller memory (VekSem_init, VekSem_new with mem)
 * or allocated (VekSem_new with null). The count stays within 0..maxVal.
 * Every operation checks the header and ends the process on a foreign or
 * damaged record. */
#define VEK_SEM_MARK 0x9EA27Bu
typedef struct VekSem {
    vek_u32 hdr;        /* VEK_SEM_MARK; top bit set when VekSem_new allocated it */
    AlMutex lock;       /* guards val */
    vek_handle evt;     /* manual reset: signalled while a take may succeed */
    vek_s32 val;        /* current count */
    vek_s32 maxVal;     /* bound of the count (0x7FFFFFFF for a negative bound) */
} VekSem;
/* Builds in mem (null: allocates); a negative maxVal bounds at 0x7FFFFFFF. */
VEK_API VekSem* VekSem_new(VekSem* mem, vek_s32 maxVal, vek_s32 initVal);
VEK_API VekSem* VekSem_init(VekSem* sem, vek_s32 maxVal, vek_s32 initVal);
VEK_API void VekSem_delete(VekSem* sem);
/* Adds count units (count > 0); the count before, or -201 (nothing
 * changed) when the count would leave 1..maxVal. */
VEK_API vek_s32 VekSem_add(VekSem* sem, vek_s32 count);
/* Takes one unit when there is one: 1, else 0. */
VEK_API vek_bool VekSem_test(VekSem* sem);
/* Sets the count to 0; returns the count before. */
VEK_API vek_s32 VekSem_reset(VekSem* sem);
/* Take one unit, waiting through the event waits: 0, -5, -12 (or -51).
 * The units given at creation are taken by VekSem_test at once, but a
 * waiting take sees them only after the first VekSem_add. */
VEK_API vek_s32 VekSem_wait(VekSem* sem, vek_s32 tmo, vek_s32 flags);
VEK_API vek_s32 VekSem_swait(VekSem* sem, vek_s32 tmo, vek_s32 flags);
VEK_API vek_s32 VekSem_mwait(VekSem* sem, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags);

VEK_END_DECLS

#endif /* VEK_VOSX_H */
