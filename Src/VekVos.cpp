/*
 * VekVos.cpp - the spine of the library: load level and application level,
 * assertions and the fault dialog, the process utilities and the allocation
 * entry points.
 */
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include "AlPlat.h"
#include "ObjModel.h"
#include "TimerSvc.h"
#include "VekCore.h"
#include "VekUni.h"

namespace vek {
CoreState g_core;
}

using vek::g_core;

namespace {

constexpr vek_s32 kFaultTextSize = 16384;
constexpr vek_s32 kFaultCaptionSize = 256;
constexpr vek_s32 kFaultPathSize = 512;
constexpr vek_s32 kAssertTextSize = 8192;
constexpr vek_s32 kAssertMaxFrames = 64;

vek_fault_hook g_faultHook;

// An assertion raised while an assertion is being reported (by the trace or
// the call-stack code) must not recurse: it falls back to the bare form.
thread_local vek_s32 t_assertDepth;

bool ieq(const char* a, const char* b) {
    for (; *a && *b; a++, b++) {
        if (std::tolower((unsigned char)*a) != std::tolower((unsigned char)*b)) {
            return false;
        }
    }
    return *a == *b;
}

/* The answer to a fault dialog: the hook, else VEK_FAULT_ACTION, else the
 * platform's box, else Ignore. The text goes to standard error unless a
 * hook takes it. */
vek_s32 fault_answer(const char* caption, const char* text, vek_u32 style) {
    vek_fault_hook hook = __atomic_load_n(&g_faultHook, __ATOMIC_ACQUIRE);
    if (hook) {
        return hook(caption, text);
    }
    plat::stderr_write(caption);
    plat::stderr_write(": ");
    plat::stderr_write(text);
    plat::stderr_write("\n");
    const char* env = std::getenv("VEK_FAULT_ACTION");
    if (env && *env) {
        if (ieq(env, "abort")) {
            return VEK_FAULT_ABORT;
        }
        if (ieq(env, "retry")) {
            return VEK_FAULT_RETRY;
        }
        return VEK_FAULT_IGNORE;
    }
    vek_s32 r = plat::message_box(caption, text, style);
    return r ? r : VEK_FAULT_IGNORE;
}

void exe_name(char* buf, vek_s32 size) {
    char path[1536];
    if (plat::exe_path(path, sizeof path) <= 0) {
        vek_snprintf(buf, size, "%s", "UNKN proc");
        return;
    }
    vek_snprintf(buf, size, "%s", str_path_name(path));
}

void trace_env(void) {
    TinyStr t;
    TinyStr_newx(&t, 512);
    vek_env_text(&t);
    vek::trc_record(__FILE__, __LINE__, vek::kModBase, vek::kFldLife, 1, TinyStr_buf(&t), TinyStr_len(&t));
    TinyStr_delete(&t);
}

/* Load-level start: counted; the second start does nothing. */
vek_s32 load_start(void) {
    if (AlAtom_inc(&g_core.loadCnt) > 1) {
        return 0;
    }
    AlAtom_set(&g_core.mainTid, (vek_s32)al_thrd_id());
    g_core.tps = 1000;
    AlOs_init();
    vek_srand((vek_u32)std::time(nullptr));
    g_core.trcEnabled = vek::trc_start() >= 0;
    vek_s32 leakLev = vek_dbg_rtc_nval("VekHeap", "LeakChkLev", 0);
    vek_s32 statInfo = vek_dbg_rtc_nval("VekHeap", "RecStatInfo", 0);
    vek_s32 crashLev = vek_dbg_rtc_nval("VekHeap", "CrashChkLev", 0);
    g_core.heapMon = HeapMon_create("VekHeap", al_malloc, al_free, al_fault_proc, leakLev,
                                    crashLev, statInfo);
    g_core.uiHeapMon = HeapMon_create("UiHeap", al_malloc, al_free, al_fault_proc, leakLev,
                                      crashLev, statInfo);
    AlAtom_set(&g_core.leakChking, leakLev >= 1 ? 1 : 0);
    vek_printf("%s cfg: LeakChkLev=%d, CrashChkLev=%d, RecStatInfo=%d\n", "VekHeap", (int)leakLev,
               (int)crashLev, (int)statInfo);
    return 1;
}

void close_heap(IHeapMon*& mon) {
    if (mon) {
        IHeapMon* m = mon;
        m->vtbl->close(m, 0);
        mon = nullptr;
        m->vtbl->release(m);
    }
}

void load_exit(void) {
    if (vek::count_down(&g_core.loadCnt, true) != 0) {
        return;
    }
    close_heap(g_core.heapMon);
    close_heap(g_core.uiHeapMon);
    if (g_core.trcEnabled) {
        vek::trc_stop();
        g_core.trcEnabled = 0;
    }
    AlAtom_set(&g_core.mainTid, 0);
    AlOs_exit();
}

void free_base_fld(void) {
    al_free(g_core.baseFld);
    al_free(g_core.baseFldW);
    g_core.baseFld = nullptr;
    g_core.baseFldW = nullptr;
    g_core.baseFldLen = 0;
    g_core.baseFldWLen = 0;
}

/* Base folder: the library's own path cut at the last separator, kept as
 * UTF-8 (at most 3072 bytes) and as UTF-16 (at most 1024 units). */
void find_base_fld(void) {
    char path[3072];
    vek_s32 len = plat::module_path(path, sizeof path);
    vek_s32 cut = -1;
    for (vek_s32 i = 0; i < len; i++) {
        if (path[i] == '/' || path[i] == '\\') {
            cut = i;
        }
    }
    if (cut < 0) {
        low_assert__("pos", __FILE__, __LINE__);
        cut = 0;
    }
    path[cut] = 0;
    g_core.baseFld = (char*)al_malloc((size_t)cut + 1);
    g_core.baseFldW = (vek_wchar*)al_malloc(sizeof(vek_wchar) * 1025);
    if (!g_core.baseFld || !g_core.baseFldW) {
        free_base_fld();
        return;
    }
    std::memcpy(g_core.baseFld, path, (size_t)cut + 1);
    g_core.baseFldLen = cut;
    g_core.baseFldWLen = utf8_buf_to_wcs_str(path, cut, g_core.baseFldW, 1025);
}

} // namespace

namespace vek {

vek_s32 count_down(AlAtom* cnt, bool low) {
    vek_s32 ret = AlAtom_dec(cnt);
    if (ret < 0) {
        if (low) {
            low_assert__("ret >= 0", __FILE__, __LINE__);
        } else {
            vek_assert__("ret >= 0", __FILE__, __LINE__);
        }
        AlAtom_inc(cnt);
        return -1;
    }
    return ret;
}

void load_attach(void* module) {
    sys_printf("proc beg, clk=%ld\n", (long)al_clock());
    g_core.module = module;
    g_core.primTid = al_thrd_id();
    find_base_fld();
    rtc_build_paths();
    load_start();
    DbgMng_init();
    VEK_LIFE_TRACE("%s%s", "BaseLib.dll", " attached");
}

void load_detach(void) {
    VEK_LIFE_TRACE("%s%s", "BaseLib.dll", " detach...");
    DbgMng_exit();
    load_exit();
    rtc_free_paths();
    free_base_fld();
    sys_printf("proc end, clk=%ld\n", (long)al_clock());
    g_core.primTid = 0;
    g_core.module = nullptr;
}

IHeapMon* heap_mon(void) {
    return g_core.heapMon;
}

void* heap_realloc(void* block, size_t size) {
    IHeapMon* m = g_core.heapMon;
    if (!m) {
        vek_assert__("vek_heap_mon", __FILE__, __LINE__);
        return nullptr;
    }
    return m->vtbl->reallocMem(m, block, size);
}

} // namespace vek

extern "C" {

// ---- lifecycle ----

VEK_API vek_s32 BaseLib_init(void) {
    (void)*(const volatile int*)&vek::load_hooks_linked;
    if (AlAtom_inc(&g_core.appCnt) > 1) {
        return 0;
    }
    if (al_thrd_id() != g_core.primTid) {
        low_assert__("al_thrd_id() == vek_prim_thrd", __FILE__, __LINE__);
    }
    if (!g_core.heapMon) {
        low_assert__("vek_heap_mon", __FILE__, __LINE__);
    }
    VEK_LIFE_TRACE("BaseLib_init() beg");
    trace_env();

    g_core.holdDynDll = vek_dbg_rtc_bval("VekHeap", "HoldDynDll", 0);
    vek::sym_start();
    if (g_core.heapMon) {
        g_core.heapMon->vtbl->appBeg(g_core.heapMon);
    }
    if (g_core.uiHeapMon) {
        g_core.uiHeapMon->vtbl->appBeg(g_core.uiHeapMon);
    }
    DbgMng_cfgByFile(vek_trc_rtc_file());
    vek::thrdcm_create();
    EvtMng_init();
    vek::erpmng_create();
    vek_thrd_beg();
    vek::timer_svc_start();
    vek::task_svr_start();

    if (g_core.trcEnabled) {
        if (vek::trc_hold_supported() && vek_dbg_rtc_bval("VekTrc", "HoldConn", 1)) {
            vek::trc_hold_start();
            g_core.trcHold = 1;
        } else {
            vek_printf("TrcHold disabled, %s\n", vek::trc_hold_supported() ? "by cfg" : "for trc not supp hold");
        }
    }
    VEK_LIFE_TRACE("BaseLib_init() end");
    return 0;
}

VEK_API void BaseLib_exit(void) {
    if (vek::count_down(&g_core.appCnt, false) != 0) {
        return;
    }
    if (al_thrd_id() != g_core.primTid) {
        vek_assert__("al_thrd_id() == vek_prim_thrd", __FILE__, __LINE__);
    }
    VEK_LIFE_TRACE("%s%s", "BaseLib_exit()", " beg");
    if (g_core.trcHold) {
        g_core.trcHold = 0;
        vek::trc_hold_stop();
    }
    vek::task_svr_stop();
    vek::timer_svc_stop();
    vek_thrd_end();
    vek::erpmng_destroy();
    EvtMng_exit();
    vek::thrdcm_destroy();
    if (g_core.heapMon) {
        g_core.heapMon->vtbl->outLeak(g_core.heapMon, vek_dbg_rtc_nval("VekHeap", "MaxDumpSize", 0));
    }
    vek::sym_stop();
    g_core.holdDynDll = 0;
    VEK_LIFE_TRACE("%s%s", "BaseLib_exit()", " end");
}

VEK_API const char* vek_version(void) {
    return "1.0.0";
}

VEK_API const char* vek_base_fld(void) {
    return g_core.baseFld ? g_core.baseFld : "";
}

VEK_API const vek_wchar* vek_base_fldw(void) {
    static const vek_wchar kEmpty[1] = {0};
    return g_core.baseFldW ? g_core.baseFldW : kEmpty;
}

// ---- assertions and faults ----

VEK_API vek_fault_hook al_set_fault_hook(vek_fault_hook hook) {
    return __atomic_exchange_n(&g_faultHook, hook, __ATOMIC_ACQ_REL);
}

VEK_API vek_s32 al_fault_proc(const char* fmt, ...) {
    char* text = (char*)al_malloc(kFaultTextSize);
    char* caption = (char*)al_malloc(kFaultCaptionSize);
    char* path = (char*)al_malloc(kFaultPathSize);
    char smallText[512], smallCaption[64], smallPath[128];
    vek_s32 textSize = kFaultTextSize, captionSize = kFaultCaptionSize, pathSize = kFaultPathSize;
    if (!text || !caption || !path) {
        // Out of memory must not silence a fault: fall back to small buffers.
        al_free(text);
        al_free(caption);
        al_free(path);
        text = nullptr;
        caption = nullptr;
        path = nullptr;
    }
    char* t = text ? text : smallText;
    char* c = caption ? caption : smallCaption;
    char* p = path ? path : smallPath;
    if (!text) {
        textSize = sizeof smallText;
        captionSize = sizeof smallCaption;
        pathSize = sizeof smallPath;
    }
    if (plat::exe_path(p, pathSize) <= 0) {
        vek_snprintf(p, pathSize, "%s", "UNKN proc path");
    }
    vek_snprintf(c, captionSize, "%s FAULT ERROR", str_path_name(p));
    vek_s32 n = vek_snprintf(t, textSize, "%s\n\n", p);
    va_list va;
    va_start(va, fmt);
    vek_vsnprintf(t + n, textSize - n, fmt ? fmt : "", va);
    va_end(va);

    if (t_assertDepth == 0) {  // vek_assert__ has traced its own, fuller record
        vek::trc_record(__FILE__, __LINE__, vek::kModBase, vek::kFldAssert, 1, t, -1);
    }
    vek_s32 answer = fault_answer(c, t, 0x12012);
    al_free(text);
    al_free(caption);
    al_free(path);
    if (answer == VEK_FAULT_ABORT) {
        std::_Exit(3);
    }
    if (answer == VEK_FAULT_RETRY) {
        if (plat::debugger_present()) {
            plat::debug_break();
        }
        return VEK_FAULT_RETRY;
    }
    return VEK_FAULT_IGNORE;
}

VEK_API void vek_assert__(const char* expr, const char* path, vek_s32 line) {
    if (!expr) {
        expr = "";
    }
    const char* file = str_path_name(path ? path : "");
    if (t_assertDepth > 0) {
        low_assert__(expr, path, line);
        return;
    }
    t_assertDepth++;
    TinyStr t;
    TinyStr_newx(&t, kAssertTextSize);
    TinyStr_appdf(&t, "\n    Assert FAIL\n    Src: %s[%d]\n    Exp: %s\n    Stack:\n", file, (int)line, expr);
    vek_out_call_stack(&t, nullptr, "vek_assert__", "        ", kAssertMaxFrames);
    vek::trc_record(__FILE__, __LINE__, vek::kModBase, vek::kFldAssert, 1, TinyStr_buf(&t), TinyStr_len(&t));
    TinyStr_delete(&t);
    al_fault_proc("Assert FAIL\nSrc: %s[%d]\nExp: %s", file, (int)line, expr);
    t_assertDepth--;
}

VEK_API void low_assert__(const char* expr, const char* path, vek_s32 line) {
    al_fault_proc("Assert FAIL\nSrc: %s[%d]\nExp: %s", str_path_name(path ? path : ""), (int)line,
                  expr ? expr : "");
}

VEK_API void win_assert__(const char* expr, const char* path, vek_s32 line) {
    char name[81];
    exe_name(name, sizeof name);
    char caption[128];
    vek_snprintf(caption, sizeof caption, "Assert by %s", name);
    char text[2048];
    vek_snprintf(text, sizeof text,
                 "Assert fail (win_assert)\r\nProc: %s\r\nSrc: %s[%d]\r\nExp: %s\r\nPress OK to exit the program",
                 name, str_path_name(path ? path : ""), (int)line, expr ? expr : "");
    fault_answer(caption, text, 0x1010);
    vek_exit();
}

VEK_API void vek_exit(void) {
    // The crash is the purpose: debuggers and crash reporting see an access
    // violation at the caller. The address is read through a volatile so the
    // compiler cannot turn the read into a trap of its own.
    static volatile std::uintptr_t zeroAddr = 0;
    for (;;) {
        volatile int* p = (volatile int*)zeroAddr;
        if (*p == 0) {
            std::exit(51);
        }
    }
}

// ---- process utilities ----

VEK_API vek_u32 vek_glb_hnd(void) {
    return vek::glb_hnd_next(&g_core.glbHnd);
}

VEK_API vek_u32 vek_main_tid(void) {
    return (vek_u32)AlAtom_get(&g_core.mainTid);
}

VEK_API vek_u32 vek_msec(void) {
    vek_u32 t = al_clock();
    vek_u32 tps = g_core.tps ? g_core.tps : 1000;
    return (t / tps) * 1000 + ((t % tps) * 1000) / tps;
}

VEK_API void vek_sleep(vek_u32 ms) {
    vek_u32 tps = g_core.tps ? g_core.tps : 1000;
    al_sleep((vek_u32)((vek_u64)ms * tps / 1000));
}

VEK_API void vek_srand(vek_u32 seed) {
    AlAtom_set(&g_core.randState, (vek_s32)seed);
}

VEK_API vek_s32 vek_rand(void) {
    // A get followed by a set, not one atomic update: two threads may draw
    // the same number, which is acceptable for this generator.
    vek_u32 s = (vek_u32)AlAtom_get(&g_core.randState);
    s = s * 1103515245u + 12345u;
    AlAtom_set(&g_core.randState, (vek_s32)s);
    return (vek_s32)((s >> 16) & 0x7FFF);
}

VEK_API void vek_rand_buf(void* buf, vek_s32 n) {
    vek_u8* b = (vek_u8*)buf;
    for (vek_s32 i = 0; b && i < n; i++) {
        b[i] = (vek_u8)vek_rand();
    }
}

// ---- environment record ----

VEK_API vek_s32 vek_env_info(VekEnvInfo* info) {
    if (!info) {
        VEK_ASSERT(info);
        return VEK_ERR_BAD_ARG;
    }
    std::memset(info, 0, sizeof *info);
    plat::env_info(info);
    return 0;
}

VEK_API vek_s32 vek_env_text(TinyStr* out) {
    VekEnvInfo e;
    vek_env_info(&e);
    char mem[96];
    vek_snprintf(mem, sizeof mem, "Total=%.0fM, Free=%.0fM", e.memTotalMB, e.memFreeMB);
    return TinyStr_appdf(out,
                         "\n    [Environment]\n    System: %s (Type=%dbit, Build=%u %s)\n"
                         "    Language: %s\n    Memory: %s\n",
                         e.osName, (int)e.wordBits, e.build, e.osExtra, e.language, mem);
}

// ---- allocation entry points ----

VEK_API void* vek_malloc__(size_t size) {
    IHeapMon* m = g_core.heapMon;
    if (!m) {
        vek_assert__("vek_heap_mon", __FILE__, __LINE__);
        return nullptr;
    }
    return m->vtbl->allocMem(m, size);
}

VEK_API void vek_free__(void* block) {
    if (!block) {
        return;
    }
    IHeapMon* m = g_core.heapMon;
    if (!m) {
        vek_assert__("vek_heap_mon", __FILE__, __LINE__);
        return;
    }
    m->vtbl->freeMem(m, block);
}

VEK_API vek_s32 vek_heap_chk__(void) {
    IHeapMon* m = g_core.heapMon;
    if (!m) {
        vek_assert__("vek_heap_mon", __FILE__, __LINE__);
        return 0;
    }
    return m->vtbl->verify(m, 4);
}

VEK_API void* vek_set_mpos__(void* block) {
    return block;
}

VEK_API vek_s32 vek_leak_chking(void) {
    return AlAtom_get(&g_core.leakChking);
}

VEK_API vek_malloc_fn vek_malloc_func(void) {
    return vek_malloc__;
}

VEK_API vek_free_fn vek_free_func(void) {
    return vek_free__;
}

VEK_API vek_s32 vek_heap_stat(VekHeapStat* out) {
    IHeapMon* m = g_core.heapMon;
    if (!m) {
        return VEK_ERR_NOT_OPEN;
    }
    return m->vtbl->getStat(m, out);
}

VEK_API void* ui_malloc(size_t size) {
    IHeapMon* m = g_core.uiHeapMon;
    if (!m) {
        vek_assert__("ui_heap_mon", __FILE__, __LINE__);
        return nullptr;
    }
    return m->vtbl->allocMem(m, size);
}

VEK_API void* ui_realloc(void* block, size_t size) {
    IHeapMon* m = g_core.uiHeapMon;
    if (!m) {
        vek_assert__("ui_heap_mon", __FILE__, __LINE__);
        return nullptr;
    }
    return m->vtbl->reallocMem(m, block, size);
}

VEK_API void ui_free(void* block) {
    IHeapMon* m = g_core.uiHeapMon;
    if (!block) {
        return;
    }
    if (!m) {
        vek_assert__("ui_heap_mon", __FILE__, __LINE__);
        return;
    }
    m->vtbl->freeMem(m, block);
}

VEK_API vek_s32 ui_heap_chk__(void) {
    IHeapMon* m = g_core.uiHeapMon;
    return m ? m->vtbl->verify(m, 4) : 0;
}

VEK_API vek_s32 ui_leak_chking(void) {
    return AlAtom_get(&g_core.leakChking);
}

VEK_API vek_s32 vek_sblk_verify__(const char* path, vek_s32 line) {
    if (plat::is_ui_thread()) {
        vek_assert__("UI thrd MUST NOT call sblk func, call blk_to_blk() instead", path, line);
        return 0;
    }
    return 1;
}

VEK_API vek_s32 win_free_dll_dbg__(void* module, const char* path, vek_s32 line) {
    if (!vek_leak_chking()) {
        return plat::dll_unload(module);
    }
    vek_printf("FreeLibrary ignored for leak chk, %s[%d]", str_path_name(path ? path : ""), (int)line);
    char modPath[1024 * 3];
    vek_s32 pathLen = plat::dll_path(module, modPath, sizeof modPath);
    if (pathLen <= 0) {
        vek_assert__("pathLen > 0", __FILE__, __LINE__);
    } else if (!plat::dll_load(modPath)) {
        vek_assert__("newHnd", __FILE__, __LINE__);
    }
    if (!plat::dll_unload(module)) {
        vek_assert__("FreeLibrary(mod)", __FILE__, __LINE__);
    }
    return 1;
}

} // extern "C"
