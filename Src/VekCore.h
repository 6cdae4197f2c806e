/*
 * VekCore.h - internal declarations shared by the core sources (lifecycle,
 * configuration, heap, trace). Not installed, nothing here is exported.
 */
#ifndef VEK_CORE_H
#define VEK_CORE_H

#include <atomic>
#include "VekType.h"
#include "AlOs.h"
#include "VekVos.h"
#include "VekTrc.h"
#include "MemUtil.h"
#include "TinyStr.h"
#include "StrUtil.h"
#include "VekVosx.h"
#include "BaseItf.h"

namespace vek {

/* Plain allocations left before a failure a test armed with
 * vek_heap_fail_at__; 0 when none is armed. */
extern std::atomic<vek_s32> g_allocFailCountdown;
inline bool alloc_fail_armed() {
    return g_allocFailCountdown.load(std::memory_order_relaxed) != 0;
}

/* Trace coordinates of the library's own records. */
constexpr vek_s32 kModBase = 10;   /* the library itself */
constexpr vek_s32 kFldLife = 1;    /* lifecycle records */
constexpr vek_s32 kFldAssert = 2;  /* assertion records */
constexpr vek_s32 kFldHeap = 3;    /* heap monitor records */
constexpr vek_s32 kFldNet = 4;     /* downloads */
constexpr vek_s32 kFldMon = 5;     /* file and disc monitors */

/* One configuration source: a file path and/or an in-memory text. */
struct RtcSrc {
    char* path;   /* al_malloc'ed UTF-8 path or null */
    char* txt;    /* al_malloc'ed text or null */
    vek_s32 txtLen;
};

/* Process-wide state of the core. */
struct CoreState {
    void* module;          /* the library's own module, set at attach */
    vek_u32 primTid;       /* thread that ran the attach */
    char* baseFld;         /* UTF-8 folder of the library's file (al_malloc) */
    vek_s32 baseFldLen;
    vek_wchar* baseFldW;   /* the same as UTF-16 (al_malloc) */
    vek_s32 baseFldWLen;
    RtcSrc rtc[3];         /* VEK_RTC_SYS, VEK_RTC_DBG, VEK_RTC_TRC */
    AlAtom loadCnt;        /* load-level starts */
    AlAtom appCnt;         /* BaseLib_init nesting */
    AlAtom mainTid;
    vek_u32 tps;           /* clock ticks per second */
    vek_s32 trcEnabled;    /* result of the trace manager's start >= 0 */
    IHeapMon* heapMon;     /* "VekHeap" */
    IHeapMon* uiHeapMon;   /* "UiHeap" */
    AlAtom leakChking;
    vek_s32 trcHold;       /* BaseLib_init started trace holding */
    vek_s32 holdDynDll;    /* unload dynamic libraries through the debug unloader */
    AlAtom randState;
    AlAtom glbHnd;
};
extern CoreState g_core;

/* Process attach / detach, called by the platform's load hooks. */
void load_attach(void* module);
void load_detach(void);

/* Defined beside the load hooks and read by BaseLib_init: a program linked
 * with the static library then always links the hooks' object too, which
 * the linker would otherwise leave out (nothing else refers to it). */
extern const int load_hooks_linked;

/* A counted stop: decrements cnt and returns the new count. Going below
 * zero is the assertion "ret >= 0" (the bare form when low is set, for the
 * layers that run without the trace); the count is then left at 0 and the
 * result is -1. */
vek_s32 count_down(AlAtom* cnt, bool low);

/* The next global handle after the counter at p: never 0, never all ones. */
inline vek_u32 glb_hnd_next(AlAtom* p) {
    vek_u32 v;
    do {
        v = (vek_u32)AlAtom_inc(p);
    } while (v == 0u || v == 0xFFFFFFFFu);
    return v;
}

/* ---- configuration (VekRtc.cpp) ---- */
void rtc_build_paths(void);
void rtc_free_paths(void);
/* Reads a value; returns 1 when the source could be opened ("found"), else
 * 0 with def copied into buf. */
vek_s32 rtc_read(vek_s32 source, const char* sect, const char* key, const char* def, char* buf,
                 vek_s32 size);

/* ---- trace manager (VekTrc.cpp) ---- */
vek_s32 trc_start(void);            /* >= 0 when tracing is on */
void trc_stop(void);
vek_s32 trc_active(void);           /* a sink, a listener or the relay receives records */
/* The trace relay (TrcRelay.cpp): relay_set starts sending records to the
 * endpoint name (null or "": none), ending the relay before; true when
 * that changed anything. relay_push queues a record without waiting. */
bool relay_set(const char* name);
bool relay_on(void);
void relay_push(vek_s32 level, const char* text, vek_s32 len);
void relay_stats(vek_s64* sent, vek_s64* dropped);
vek_s32 trc_hold_supported(void);
void trc_hold_start(void);
void trc_hold_stop(void);
/* The asynchronous sink as "AsyncQue" / "AsyncFull" configure it
 * (BaseLib_init), and its end: the ring drained, the writer thread gone
 * (BaseLib_exit). */
void trc_async_start(void);
void trc_async_stop(void);
/* The fault path: writes what the ring holds and flushes the trace file,
 * giving up on locks that stay held (a crashed thread may hold them). */
void trc_fault_flush(void);
/* Writes one record when tracing (or a listener) is on and the debug
 * manager lets (module, field, level) through. */
void trc_record(const char* path, vek_s32 line, vek_s32 module, vek_s32 field, vek_s32 level,
                const char* text, vek_s32 len);
/* The file DbgMng_cfgByFile read last into buf; its length, 0 before. */
vek_s32 dbg_cfg_path(char* buf, vek_s32 cap);
/* DbgMng_cfgByFile; remember false leaves the watched file as it is (the
 * watcher loading it again). */
vek_s32 dbg_cfg_load(const char* path, bool remember);
/* The watcher of that file (DbgWatch.cpp): started by BaseLib_init,
 * stopped by BaseLib_exit, moved to the new file by DbgMng_cfgByFile. */
void dbg_watch_start(void);
void dbg_watch_stop(void);
void dbg_watch_restart(void);
/* Lifecycle record: module 10, field 1, level 1. */
#define VEK_LIFE_TRACE(...) VEK_TRACE(::vek::kModBase, ::vek::kFldLife, 1, __VA_ARGS__)

/* ---- heap ---- */
IHeapMon* heap_mon(void);
/* Resizes a block of the process heap (vek_malloc__), in place where the
 * system can; null and the block untouched when out of memory. */
void* heap_realloc(void* block, size_t size);

/* ---- files ---- */
/* Flushes a file's buffers and its data to the disk; 0 or a negative error. */
vek_s32 file_sync(AlFile* f);
/* Makes the folder entry of path durable after a rename; 0 or a negative
 * error. Both syncs count as the file layer's kind 2 of injected failures. */
vek_s32 folder_sync(const char* path);

/* ---- downloads (VekHttp.cpp) ----
 * BaseLib_exit's stop: unloads a libcurl no transfer uses any more. */
void net_stop(void);

/* ---- loadable-library manager (VekCm.cpp) ----
 * BaseLib_exit's stop: traces the libraries still loaded. */
void cm_stop(void);

/* ---- symbol support (CallStack.cpp) ---- */
vek_s32 sym_start(void);
void sym_stop(void);

/* ---- thread manager (ThrdCm.cpp) ----
 * Created by BaseLib_init, destroyed by BaseLib_exit (which reports the
 * threads still listed). win_thrd_beg / win_thrd_end enter and remove the
 * calling thread (vek_thrd_beg / vek_thrd_end). */
void thrdcm_create(void);
void thrdcm_destroy(void);
void win_thrd_beg(void);
void win_thrd_end(void);

/* ---- event-receive processors (ErpMng.cpp) ----
 * The manager starts after the event manager and stops before it
 * (BaseLib_init / BaseLib_exit). erp_thrd_end (vek_thrd_end) reports the
 * calling thread's processors and ends its queue. erp_wait_hnd: the handle
 * a message-pumping wait adds for the caller's queue (POSIX; null on
 * Windows, where the queue's wake-up is a window message, and for a thread
 * without a queue). */
void erpmng_create(void);
void erpmng_destroy(void);
void erp_thrd_end(void);
vek_handle erp_wait_hnd(void);

} // namespace vek

#endif /* VEK_CORE_H */
