/*
 * MemUtil.h - tracked allocation: the heap monitor, the leak monitor and
 * the user-interface heap.
 *
 * Every block of the library's objects, strings and buffers comes from the
 * process heap monitor ("VekHeap"), which keeps live blocks in a list so
 * that leaks can be counted and listed at BaseLib_exit. Each block is one
 * raw allocation laid out as (32-bit words, host order; on 64-bit builds the
 * two links are pointer-sized):
 *
 *   +0   link to the previous live block
 *   +4   link to the next live block
 *   +8   raw size of the whole allocation
 *   +12  size requested by the caller
 *   +16  check word: (raw size + requested size) XOR 0x4B27A696
 *   +20  head guard 0x4B27A696
 *   +24  the caller's bytes, rounded up to a multiple of 8  <- returned pointer
 *        tail guard 0xD3A841BE
 *        number of call-stack entries recorded (0 unless LeakChkLev >= 1)
 *        the recorded return addresses
 *
 * The raw size ends there. A monitor over al_malloc/al_free asks for one
 * pointer-sized word more (which thread's part of the monitor lists the
 * block), and rounds allocations up to 2 KiB up to a multiple of 32 bytes.
 *
 * Threads: any thread may allocate, resize and free any block. Each thread
 * that allocates has its own part of the monitor, so threads do not wait
 * for each other; a block freed by another thread is handed back to the
 * allocating thread's part and unlinked there (at its next call, or by the
 * next report, check or statistics call, which always see every thread's
 * blocks). When a thread ends, its blocks stay listed for the report.
 *
 * Configuration (section "VekHeap" of "VekDbg.ini", each key default 0):
 * "LeakChkLev" (>= 1 records call stacks so leaks can be listed),
 * "CrashChkLev" (>= 1 verifies every live block on each allocation),
 * "RecStatInfo" (keep statistics), "MaxDumpSize" (bytes dumped per leak).
 */
#ifndef VEK_MEMUTIL_H
#define VEK_MEMUTIL_H

#include "VekType.h"
#include "BaseItf.h"

VEK_BEGIN_DECLS

#define VEK_HEAP_GUARD_HEAD 0x4B27A696u
#define VEK_HEAP_GUARD_TAIL 0xD3A841BEu

typedef void* (*vek_malloc_fn)(size_t size);
typedef void (*vek_free_fn)(void* block);
typedef vek_s32 (*vek_fault_fn)(const char* fmt, ...);

/* ---- the process heap ---- */
VEK_API void* vek_malloc__(size_t size);  /* the block, or null */
VEK_API void vek_free__(void* block);     /* null is ignored */
/* Verifies every live block; returns the number of damaged blocks. */
VEK_API vek_s32 vek_heap_chk__(void);
VEK_API void* vek_set_mpos__(void* block); /* returns block; records nothing */
VEK_API vek_s32 vek_leak_chking(void);     /* 1 when LeakChkLev >= 1 */
/* The process heap's allocation and release functions (vek_malloc__ and
 * vek_free__), for code that takes an allocator as function pointers. */
VEK_API vek_malloc_fn vek_malloc_func(void);
VEK_API vek_free_fn vek_free_func(void);

/* Statistics of a heap monitor. liveBlocks is always kept; the other
 * fields only when "RecStatInfo" is non-zero (else 0). The peaks are those
 * of all threads' blocks together. */
typedef struct VekHeapStat {
    vek_u64 allocCount;  /* allocations so far */
    vek_s64 liveBlocks;  /* blocks held now */
    vek_s64 liveBytes;   /* caller bytes held now */
    vek_s64 liveRaw;     /* raw bytes held now */
    vek_s64 peakBlocks;
    vek_s64 peakBytes;
    vek_s64 peakRaw;
} VekHeapStat;
/* Statistics of the process heap; returns 0, or -23 without a monitor. */
VEK_API vek_s32 vek_heap_stat(VekHeapStat* out);

/* Fault injection for tests: makes the k-th call from now of the plain
 * allocator (al_malloc and al_realloc, under the heap monitors, the runtime
 * configuration and the trace) return null as if the system were out of
 * memory; k = 1 is the next call. While armed, the heap monitor takes every
 * block from the allocator rather than from its kept blocks. 0 disarms.
 * Returns 1 when the failure armed by the previous call has happened, else
 * 0, so a test can raise k until an operation runs through without it. */
VEK_API vek_s32 vek_heap_fail_at__(vek_s32 k);

/* Verifies that the calling thread may enter a synchronous blocking call:
 * a user-interface thread must not (assertion "UI thrd MUST NOT call sblk
 * func, call blk_to_blk() instead"). Returns 1 when allowed, else 0. */
VEK_API vek_s32 vek_sblk_verify__(const char* path, vek_s32 line);

/* Unloads a dynamic library (a module handle: HMODULE / dlopen handle).
 * While leak checking is on, the library is kept mapped for the leak report
 * (trace "FreeLibrary ignored for leak chk, <file>[<line>]") and 1 is
 * returned; otherwise the result of the unload (non-zero on success). */
VEK_API vek_s32 win_free_dll_dbg__(void* module, const char* path, vek_s32 line);

/* ---- heap monitor objects ----
 * IHeapMon operations, after queryItf/addRef/release:
 *   allocMem(size)       the caller's block or null
 *   reallocMem(p, size)  a block of the new size holding the old bytes (p
 *                        null: allocMem; size 0: freeMem, null result)
 *   freeMem(p)           releases a block; a block the monitor does not hold
 *                        and damaged guards go to the fault procedure
 *   outLeak(dumpSize)    the leak report; returns the number of leaks
 *   close(arg)           final check (reports leaks not yet reported)
 *   verify(kind)         checks every live block; returns the damaged count
 *   appBeg()             the application phase begins: blocks held now are
 *                        reported as ignored leaks, not as leaks
 *   getStat(out)         statistics; returns 0 */
typedef struct IHeapMon IHeapMon;
typedef struct IHeapMonVtbl {
    vek_s32 (*queryItf)(IHeapMon* self, const VekGuid* iid, void** out);
    vek_s32 (*addRef)(IHeapMon* self);
    vek_s32 (*release)(IHeapMon* self);
    void* (*allocMem)(IHeapMon* self, size_t size);
    void* (*reallocMem)(IHeapMon* self, void* block, size_t size);
    void (*freeMem)(IHeapMon* self, void* block);
    vek_s32 (*outLeak)(IHeapMon* self, vek_s32 maxDumpSize);
    vek_s32 (*close)(IHeapMon* self, vek_s32 arg);
    vek_s32 (*verify)(IHeapMon* self, vek_s32 kind);
    void (*appBeg)(IHeapMon* self);
    vek_s32 (*getStat)(IHeapMon* self, VekHeapStat* out);
} IHeapMonVtbl;
struct IHeapMon {
    const IHeapMonVtbl* vtbl;
};
/* 6b1e0a52-3c47-4d2e-9a61-5f0c2e7d8b14 */
#define VEK_IID_IHEAPMON_INIT {0x6b1e0a52u, 0x3c47, 0x4d2e, {0x9a, 0x61, 0x5f, 0x0c, 0x2e, 0x7d, 0x8b, 0x14}}

/* Creates a heap monitor named name over allocFn/freeFn; faultFn receives
 * corruption reports (al_fault_proc when null). Returns the interface with
 * one reference, or null when out of memory. */
VEK_API IHeapMon* HeapMon_create(const char* name, vek_malloc_fn allocFn, vek_free_fn freeFn,
                                 vek_fault_fn faultFn, vek_s32 leakChkLev, vek_s32 crashChkLev,
                                 vek_s32 recStatInfo);

/* ---- leak monitor: counts and lists the blocks of one component ----
 * ILeakMon operations, after queryItf/addRef/release:
 *   addMem(p, size)  records a block; returns its id (ids rise from 1)
 *   delMem(p)        forgets a block; 0, or -25 with the trace
 *                    "LeakMon::delMem(0x...), but not found"
 *   outLeak(minId)   reports the blocks still recorded: those with an id of
 *                    at least minId are leaks, older ones are ignored;
 *                    returns the number of leaks
 *   count()          the number of blocks recorded now
 * With a leak-check level of 0 only counts are kept (delMem never fails). */
typedef struct ILeakMon ILeakMon;
typedef struct ILeakMonVtbl {
    vek_s32 (*queryItf)(ILeakMon* self, const VekGuid* iid, void** out);
    vek_s32 (*addRef)(ILeakMon* self);
    vek_s32 (*release)(ILeakMon* self);
    vek_s32 (*addMem)(ILeakMon* self, const void* block, size_t size);
    vek_s32 (*delMem)(ILeakMon* self, const void* block);
    vek_s32 (*outLeak)(ILeakMon* self, vek_s32 minId);
    vek_s32 (*count)(ILeakMon* self);
} ILeakMonVtbl;
struct ILeakMon {
    const ILeakMonVtbl* vtbl;
};
/* 9d4f27c3-81b5-4e0a-b3d6-2a7c6e19f055 */
#define VEK_IID_ILEAKMON_INIT {0x9d4f27c3u, 0x81b5, 0x4e0a, {0xb3, 0xd6, 0x2a, 0x7c, 0x6e, 0x19, 0xf0, 0x55}}

/* Creates a leak monitor for one component (name is used in its texts;
 * leakChkLev 0 counts only). Returns the interface with one reference. */
VEK_API ILeakMon* LeakMon_create(const char* name, vek_s32 leakChkLev);

/* ---- the user-interface heap ----
 * The services of the process heap on a separate monitor ("UiHeap", same
 * configuration), for the user-interface code: a block of ui_malloc or
 * ui_realloc goes back through ui_free only. ui_malloc: the block or null;
 * ui_realloc: as the monitor's reallocMem (null block: allocates; size 0:
 * frees and returns null); ui_free: null is ignored; ui_heap_chk__: the
 * number of damaged blocks (0 without the monitor); ui_leak_chking: the
 * leak-checking flag, as vek_leak_chking. Outside the load level (no
 * monitor) allocation is the assertion "ui_heap_mon" and gives null. */
VEK_API void* ui_malloc(size_t size);
VEK_API void* ui_realloc(void* block, size_t size);
VEK_API void ui_free(void* block);
VEK_API vek_s32 ui_heap_chk__(void);
VEK_API vek_s32 ui_leak_chking(void);

VEK_END_DECLS

#endif /* VEK_MEMUTIL_H */
