/*
 * VekCall.h - blocking calls of the calling thread and their cancellation,
 * and VekAsync, the asynchronous operation.
 *
 * Each thread keeps a stack of blocking calls ("blocks"). A message block
 * owns a private abort event: inside it, the abortable waits (VekVosx.h)
 * wait on that event instead of the thread's, so a handler running nested
 * on the same thread ends only the innermost call with vek_call_cancel(),
 * while vek_thrd_cancel from another thread ends the whole thread's waits.
 * An asynchronous block owns a VekAsync; cancelling the call cancels the
 * operation. Blocks nest freely (nesting is traced); each _beg has its
 * _end on the same thread. Another thread reaches a blocked call only
 * through vek_thrd_cancel.
 */
#ifndef VEK_CALL_H
#define VEK_CALL_H

#include "VekType.h"
#include "BaseItf.h"

VEK_BEGIN_DECLS

/* ---- VekAsync: an operation run on a worker thread ----
 * VekAsync_start runs func->call(func, arg) as a task of the default task
 * server (TaskSvr.h), which starts a worker when none is idle, so
 * operations run side by side and never queue behind one another below
 * that pool's 128 workers. The operation is cancelled by cancelling it
 * there: a queued operation is removed (its result is -5), a running one
 * has its worker thread cancelled (vek_thrd_cancel), so its abortable
 * waits return -5 and it should then return. A wait procedure waits for
 * the end: it receives the operation and its end event (manual reset,
 * signalled once the operation has returned) and returns 0 once the event
 * is signalled, or a negative code to give up waiting (VekAsync_waitEndx
 * then cancels the operation with that code and waits for its end without
 * limit). The default wait procedure waits for the end event or the
 * calling thread's abort event (-5). */
typedef struct VekAsync VekAsync;

/* The operation interface: the object model's three slots, then call. */
typedef struct IVekFunc IVekFunc;
typedef struct IVekFuncVtbl {
    vek_s32 (*queryItf)(IVekFunc* self, const VekGuid* iid, void** out);
    vek_s32 (*addRef)(IVekFunc* self);
    vek_s32 (*release)(IVekFunc* self);
    /* Runs the operation on the worker; its result is the operation's. */
    vek_s32 (*call)(IVekFunc* self, vek_s32 arg);
} IVekFuncVtbl;
struct IVekFunc {
    const IVekFuncVtbl* vtbl;
};

typedef vek_s32 (*VekAsyncWait)(VekAsync* async, vek_handle endEvt);

/* A new idle operation object (tracked heap); null on failure. */
VEK_API VekAsync* VekAsync_new(void);
/* Cancels a running operation, waits for its end, frees. */
VEK_API void VekAsync_delete(VekAsync* async);
/* Starts func (one reference is held while it runs) with arg. 0, or -51
 * when the operation is still running or cannot be posted. */
VEK_API vek_s32 VekAsync_start(VekAsync* async, IVekFunc* func, vek_s32 arg);
/* Waits for the end through wproc (null: the default wait procedure).
 * Returns the operation's result, or the non-zero argument of the cancel
 * that reached it while it ran. */
VEK_API vek_s32 VekAsync_waitEndx(VekAsync* async, VekAsyncWait wproc);
/* Cancels the running operation; a non-zero arg becomes the result of
 * VekAsync_waitEndx. Returns 1 when an operation was running, else 0. */
VEK_API vek_s32 VekAsync_cancel(VekAsync* async, vek_s32 arg);

/* ---- blocks of the calling thread ---- */

/* Enters / leaves a message block (a private abort event). */
VEK_API void vek_msg_blk_beg(void);
VEK_API void vek_msg_blk_end(void);
/* Enters an asynchronous block and returns its new VekAsync; leaving it
 * deletes that object. */
VEK_API VekAsync* vek_async_blk_beg(void);
VEK_API void vek_async_blk_end(void);
/* The innermost block's VekAsync (null with an assertion when the
 * innermost block is not asynchronous). */
VEK_API VekAsync* vek_get_blk_async(void);
/* Runs funcItf in an asynchronous block and waits for its end with wproc
 * (null: the thread's wait procedure, see vek_set_ablk_wait, else the
 * default); returns what VekAsync_waitEndx returned. */
VEK_API vek_s32 vek_blk_call__(IVekFunc* funcItf, VekAsyncWait wproc);
/* Sets the thread's wait procedure for asynchronous blocks; returns the
 * previous one. vek_get_ablk_wait: the current one (null when none). */
VEK_API VekAsyncWait vek_set_ablk_wait(VekAsyncWait wproc);
VEK_API VekAsyncWait vek_get_ablk_wait(void);

/* ---- cancellation of the innermost call ---- */

/* The event that aborts the caller's current blocking call: the innermost
 * message block's, else (outside any block) the thread's abort event;
 * null with an assertion inside an asynchronous block. */
VEK_API vek_handle vek_call_abort_evt(void);
/* As vek_thrd_abortedx / vek_thrd_aborted, on vek_call_abort_evt(). */
VEK_API vek_bool vek_call_abortedx(vek_bool reset);
VEK_API vek_bool vek_call_aborted(void);
/* Resets the thread's abort event (not a message block's). */
VEK_API void vek_call_abort_clear(void);
/* Cancels the caller's innermost blocking call: signals the message
 * block's event, or VekAsync_cancel(async, arg) for an asynchronous block.
 * vek_call_cancel() = vek_call_cancelx(0). */
VEK_API void vek_call_cancelx(vek_s32 arg);
VEK_API void vek_call_cancel(void);

VEK_END_DECLS

#endif /* VEK_CALL_H */
