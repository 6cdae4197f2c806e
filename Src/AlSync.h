/*
 * AlSync.h - the platform contract of threads and waits (internal).
 *
 * win/AlSync.cpp and posix/AlSync.cpp implement it file for file. The
 * portable thread manager, waits, locks and semaphores are written once on
 * top of it, so the contract speaks the Windows vocabulary: waitable handles
 * (manual- and auto-reset events, recursive owner-tracked mutexes, named
 * system-wide mutexes), a wait for any of a few handles with the Win32 wait
 * results, thread-local slots, and threads known by their system id. On
 * Windows these are the kernel's objects; on POSIX the library owns them
 * (see posix/AlSync.cpp). Nothing here is exported.
 */
#ifndef VEK_ALSYNC_H
#define VEK_ALSYNC_H

#include "VekType.h"

namespace plat {

/* Results of wait_any and thrd_wait (the Win32 values). An object index
 * is added to kWaitObject0 and kWaitAbandoned0; msg_wait_any returns
 * kWaitObject0 + n when a window message arrived. */
constexpr vek_u32 kWaitObject0 = 0x00;
constexpr vek_u32 kWaitAbandoned0 = 0x80;
constexpr vek_u32 kWaitIoCompletion = 0xC0;
constexpr vek_u32 kWaitTimeout = 0x102;
constexpr vek_u32 kWaitFailed = 0xFFFFFFFFu;
/* wait_fds on a system without descriptors to wait on (Windows). */
constexpr vek_u32 kWaitUnsupported = 0xFFFFFFFEu;

/* The most handles one wait takes. */
constexpr vek_s32 kMaxWait = 8;

/* Events: an unnamed event, null on failure; set / reset return non-zero
 * on success. */
vek_handle event_create(vek_s32 manualReset, vek_s32 initialState);
vek_s32 event_set(vek_handle evt);
vek_s32 event_reset(vek_handle evt);

/* Mutexes: name null for an unnamed (in-process) mutex, else a system-wide
 * name in UTF-16, created with a security descriptor that lets every user
 * open it. An existing named mutex is opened and initialOwner is then
 * ignored. Null on failure. release returns non-zero on success (only the
 * owner can release). */
vek_handle mutex_create(const vek_wchar* name, vek_s32 initialOwner);
vek_s32 mutex_release(vek_handle mutex);
/* 1 when a mutex of that name exists (also when it cannot be opened for
 * lack of access rights), else 0. */
vek_s32 mutex_exists(const vek_wchar* name);

/* Closes an event or a mutex; non-zero on success. */
vek_s32 handle_close(vek_handle hnd);

/* Waits until one of n handles (1 <= n <= kMaxWait) is signalled, the
 * first in order when several are, or tmo milliseconds pass (negative: no
 * limit). Acquires what it reports (an auto-reset event's signal, a
 * mutex). Alertable waits let asynchronous procedure calls run (Windows
 * only; they end the wait with kWaitIoCompletion). */
vek_u32 wait_any(const vek_handle* hnds, vek_s32 n, vek_s32 tmo, vek_s32 alertable);
/* The same, also ending when the thread's window-message queue receives
 * input (kWaitObject0 + n). POSIX has no window messages: there it is
 * wait_any. */
vek_u32 msg_wait_any(const vek_handle* hnds, vek_s32 n, vek_s32 tmo, vek_s32 alertable);
/* Dispatches the window messages queued for the calling thread. */
void disp_msg(void);

/* One descriptor with the readiness asked for and found: the layout of
 * struct pollfd, so a public VekPollFd array is passed on as it stands. */
struct PollFd {
    vek_s32 fd;
    vek_s16 events;
    vek_s16 revents;
};
constexpr vek_s32 kMaxFds = 64;
/* Waits until one of nfd descriptors (1 <= nfd <= kMaxFds) is ready
 * (result kWaitObject0 + nh, revents filled in, *nReady of them), or one
 * of nh events (0 <= nh <= 2, events only) is signalled (kWaitObject0 +
 * its index; an auto-reset event's signal is taken), or tmo ms pass
 * (kWaitTimeout; negative: no limit). The descriptors come first: when
 * both are ready the descriptors are reported and the events keep their
 * signals. Nothing is read from a descriptor. kWaitFailed (errno) on
 * failure. kWaitUnsupported on Windows. */
vek_u32 wait_fds(PollFd* fds, vek_s32 nfd, const vek_handle* hnds, vek_s32 nh, vek_s32 tmo, vek_s32* nReady);

/* The system error code of the calling thread's last failed call. */
vek_u32 last_error(void);

/* Thread-local slots: kTlsNone when none is left. */
constexpr vek_u32 kTlsNone = 0xFFFFFFFFu;
vek_u32 tls_alloc(void);
vek_s32 tls_free(vek_u32 slot);
void* tls_get(vek_u32 slot);
vek_s32 tls_set(vek_u32 slot, void* value);

/* The thread-end hook, one per process. thread_end_hook(fn) installs fn
 * (null removes it); from then on fn(value) runs on every thread that ends
 * holding a non-null value stored by thread_end_set, before a join of the
 * thread returns (POSIX: a key's destructor, run again when fn stores a new
 * value; Windows: a fiber-local-storage callback). The thread's
 * thread-local variables may be gone by then (MinGW's emulated ones are).
 * Non-zero on success. thread_end_get: the calling thread's value, or null
 * (also while fn runs on it). */
vek_s32 thread_end_hook(void (*fn)(void* value));
vek_s32 thread_end_set(void* value);
void* thread_end_get(void);

/* Threads. thrd_create runs vek::thrd_start(startRec) on a new thread with
 * the given stack size (0: the default) and returns its handle (null on
 * failure) and its id. thrd_open opens a thread of the process by id (full
 * access for a cancel, else wait access only), null when it has ended.
 * thrd_wait waits for the end (kWaitObject0, kWaitTimeout, kWaitFailed).
 * thrd_close returns non-zero on success. */
void* thrd_create(void* startRec, vek_u32 stackSize, vek_u32* tid);
void* thrd_open(vek_u32 tid, vek_s32 fullAccess);
vek_u32 thrd_wait(void* thrd, vek_s32 tmo);
vek_s32 thrd_close(void* thrd);

} // namespace plat

namespace vek {
/* The start trampoline of vek_thrd_create__ (VekVosx.cpp); returns the
 * thread's exit code. */
vek_u32 thrd_start(void* startRec);
} // namespace vek

#endif /* VEK_ALSYNC_H */
