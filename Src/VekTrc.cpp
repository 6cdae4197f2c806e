/*
 * VekTrc.cpp - the trace manager (where records go) and the debug manager
 * (which records pass).
 *
 * Records are built with TinyStr, never with the tracked heap, because the
 * heap monitor writes its own reports through here.
 */
#include <cstdlib>
#include <cstring>
#include "AlPlat.h"
#include "IniFile.h"
#include "VekCore.h"

namespace {

enum TrcType { kTrcNone = 0, kTrcSys = 1, kTrcFile = 2 };
constexpr vek_s32 kMaxBufQue = 10000;

struct TrcState {
    vek_s32 type;
    char fileName[1024];
    vek_s32 holdConn;
    vek_s32 bufQueSize;
    vek_s32 holding;
    AlFile* file;  // open while holding
    AlMutex lock;
    AlAtom lockReady;
    vek_trc_sink sink;
    void* sinkCtx;
};
TrcState g_trc;

void trc_lock() {
    // The lock is made on first use: records may be written before the
    // trace manager starts (and after it stops).
    if (AlAtom_get(&g_trc.lockReady) != 2) {
        if (AlAtom_sget(&g_trc.lockReady, 1) == 0) {
            AlMutex_new(&g_trc.lock);
            AlAtom_set(&g_trc.lockReady, 2);
        } else {
            while (AlAtom_get(&g_trc.lockReady) != 2) {
                al_sleep(0);
            }
        }
    }
    AlMutex_lock(&g_trc.lock);
}

void trc_unlock() {
    AlMutex_unlock(&g_trc.lock);
}

// Writes text to the trace file with CR LF line ends.
void file_write(AlFile* f, const char* text, vek_s32 len) {
    vek_s32 start = 0;
    for (vek_s32 i = 0; i < len; i++) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) {
            if (i > start) {
                AlFile_write(f, text + start, i - start);
            }
            AlFile_write(f, "\r\n", 2);
            start = i + 1;
        }
    }
    if (len > start) {
        AlFile_write(f, text + start, len - start);
    }
}

// One record: "<date> <time> [<tid>] <text>" as one line (the text's own
// line breaks stay), to the configured sink and to the listener.
void emit(const char* text, vek_s32 len) {
    if (len < 0) {
        len = (vek_s32)std::strlen(text);
    }
    while (len > 0 && (text[len - 1] == '\n' || text[len - 1] == '\r')) {
        len--;
    }
    trc_lock();
    if (g_trc.sink) {
        g_trc.sink(g_trc.sinkCtx, text, len);
    }
    if (g_trc.type != kTrcNone) {
        plat::LocalTime lt;
        plat::local_time(&lt);
        char head[64];
        vek_snprintf(head, sizeof head, "%04d-%02d-%02d %02d:%02d:%02d.%03d [%u] ", lt.year,
                     lt.month, lt.day, lt.hour, lt.minute, lt.second, lt.msec, al_thrd_id());
        if (g_trc.type == kTrcSys) {
            TinyStr t;
            TinyStr_newx(&t, (vek_s32)sizeof head + len + 2);
            TinyStr_appdStr(&t, head);
            TinyStr_appdStrx(&t, text, len);
            TinyStr_appdChar(&t, '\n');
            plat::debug_output(TinyStr_buf(&t));
            TinyStr_delete(&t);
        } else {
            AlFile* f = g_trc.file ? g_trc.file : AlFile_open(g_trc.fileName, "ab");
            if (f) {
                AlFile_write(f, head, (vek_s32)std::strlen(head));
                file_write(f, text, len);
                AlFile_write(f, "\r\n", 2);
                if (f == g_trc.file) {
                    AlFile_flush(f);
                } else {
                    AlFile_close(f);
                }
            }
        }
    }
    trc_unlock();
}

/* Formats into a TinyStr (never the tracked heap, which reports through
 * here) and hands the text to out; returns its length. */
template <class Out>
vek_s32 with_text(const char* fmt, va_list va, Out out) {
    TinyStr t;
    TinyStr_new(&t);
    TinyStr_appdvf(&t, fmt, va);
    vek_s32 n = TinyStr_len(&t);
    out(TinyStr_buf(&t), n);
    TinyStr_delete(&t);
    return n;
}

/* The record a thread is building between tout_beg and tout_endx. */
struct ThreadRecord {
    TinyStr text;
    bool active = false;
    ThreadRecord() { TinyStr_new(&text); }
    ~ThreadRecord() { TinyStr_delete(&text); }
};
thread_local ThreadRecord t_rec;

// ---- debug manager limits ----
struct Limit {
    vek_s32 module;
    vek_s32 field;  // -1: the module's limit
    vek_s32 level;
};
constexpr vek_s32 kMaxLimits = 128;
constexpr vek_s32 kDefaultLimit = 3;
Limit g_limits[kMaxLimits];
AlAtom g_limitCount;
AlAtom g_defaultLimit = kDefaultLimit;
AlAtom g_dbgCnt;

} // namespace

namespace vek {

vek_s32 trc_active(void) {
    // Any thread asks, without the lock, while tout_set_sink may change it.
    return g_trc.type != kTrcNone || __atomic_load_n(&g_trc.sink, __ATOMIC_RELAXED) != nullptr;
}

vek_s32 trc_start(void) {
    char type[32];
    vek_dbg_rtc_sval("VekTrc", "TrcType", "", type, sizeof type);
    vek_s32 t = !std::strcmp(type, "SysTrc") ? kTrcSys : !std::strcmp(type, "FileTrc") ? kTrcFile : kTrcNone;
    if (t == kTrcNone) {
        sys_printf("trace disabled, for TrcType \"%s\" not supp\n", type);
        return -1;
    }
    trc_lock();
    g_trc.fileName[0] = 0;
    g_trc.holdConn = 0;
    g_trc.bufQueSize = 0;
    if (t == kTrcFile) {
        char name[1024];
        vek_dbg_rtc_sval("FileTrc", "FileName", "VekTrc.dlog", name, sizeof name);
        if (!std::strchr(name, '\\') && !std::strchr(name, '/')) {
            vek_snprintf(g_trc.fileName, sizeof g_trc.fileName, "%s%c%s", vek_base_fld(),
                         VEK_PATH_SEP, name);
        } else {
            vek_snprintf(g_trc.fileName, sizeof g_trc.fileName, "%s", name);
        }
    } else {
        g_trc.holdConn = vek_dbg_rtc_bval("VekTrc", "HoldConn", 0);
        vek_s32 q = vek_dbg_rtc_nval("VekTrc", "BufQueSize", 0);
        g_trc.bufQueSize = q <= 0 ? 0 : (q > kMaxBufQue ? kMaxBufQue : q);
    }
    g_trc.type = t;
    trc_unlock();
    return t;
}

void trc_stop(void) {
    trc_lock();
    if (g_trc.file) {
        AlFile_close(g_trc.file);
        g_trc.file = nullptr;
    }
    g_trc.holding = 0;
    g_trc.type = kTrcNone;
    trc_unlock();
}

// Holding keeps the trace connection (the file) open between records.
vek_s32 trc_hold_supported(void) {
    return g_trc.type == kTrcFile;
}

void trc_hold_start(void) {
    trc_lock();
    if (g_trc.type == kTrcFile && !g_trc.file) {
        g_trc.file = AlFile_open(g_trc.fileName, "ab");
    }
    g_trc.holding = g_trc.file != nullptr;
    trc_unlock();
}

void trc_hold_stop(void) {
    trc_lock();
    if (g_trc.file) {
        AlFile_close(g_trc.file);
        g_trc.file = nullptr;
    }
    g_trc.holding = 0;
    trc_unlock();
}

void trc_record(const char*, vek_s32, vek_s32 module, vek_s32 field, vek_s32 level,
                const char* text, vek_s32 len) {
    if (trc_active() && DbgMng_enabled__(nullptr, module, field, level)) {
        emit(text, len);
    }
}

vek_s32 trc_printf(vek_s32 module, vek_s32 field, vek_s32 level, const char* fmt, ...) {
    if (!trc_active() || !DbgMng_enabled__(nullptr, module, field, level)) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    vek_s32 n = with_text(fmt, va, emit);
    va_end(va);
    return n;
}

} // namespace vek

extern "C" {

VEK_API vek_s32 tout_beg(const char*, vek_s32, vek_s32 module, vek_s32 field, vek_s32 level) {
    ThreadRecord& r = t_rec;
    TinyStr_clear(&r.text);
    r.active = vek::trc_active() && DbgMng_enabled__(nullptr, module, field, level);
    return r.active ? 1 : 0;
}

VEK_API vek_s32 tout_strx(const char* text, vek_s32 len) {
    ThreadRecord& r = t_rec;
    return r.active && text ? TinyStr_appdStrx(&r.text, text, len) : 0;
}

VEK_API vek_s32 tout_endx(void) {
    ThreadRecord& r = t_rec;
    if (!r.active) {
        return 0;
    }
    r.active = false;
    vek_s32 n = TinyStr_len(&r.text);
    emit(TinyStr_buf(&r.text), n);
    TinyStr_clearx(&r.text);
    return n;
}

VEK_API vek_s32 vek_printf(const char* fmt, ...) {
    if (!vek::trc_active() || !fmt) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    vek_s32 n = with_text(fmt, va, emit);
    va_end(va);
    return n;
}

VEK_API vek_s32 tout_printf(const char* path, vek_s32 line, vek_s32 module, vek_s32 field,
                            vek_s32 level, const char* fmt, ...) {
    if (!fmt || !tout_beg(path, line, module, field, level)) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    TinyStr_appdvf(&t_rec.text, fmt, va);
    va_end(va);
    return tout_endx();
}

VEK_API vek_s32 base_log_data(const char* path, vek_s32 line, vek_s32 field, vek_s32 level,
                              const char* text, vek_s32 len) {
    if (!tout_beg(path, line, vek::kModBase, field, level)) {
        return 0;
    }
    tout_strx(text, len);
    return tout_endx();
}

VEK_API vek_s32 sys_printf(const char* fmt, ...) {
    if (!fmt) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    vek_s32 n = with_text(fmt, va, [](const char* text, vek_s32 len) {
        if (len > 0) {
            plat::debug_output(text);
        }
    });
    va_end(va);
    return n;
}

VEK_API vek_s32 tout_enabled(void) {
    return g_trc.type != kTrcNone ? 1 : 0;
}

VEK_API vek_trc_sink tout_set_sink(vek_trc_sink sink, void* ctx) {
    trc_lock();
    vek_trc_sink old = g_trc.sink;
    g_trc.sinkCtx = ctx;
    __atomic_store_n(&g_trc.sink, sink, __ATOMIC_RELAXED);
    trc_unlock();
    return old;
}

VEK_API vek_s32 tout_info(VekTrcInfo* info) {
    if (!info) {
        VEK_ASSERT(info);
        return VEK_ERR_BAD_ARG;
    }
    trc_lock();
    std::memset(info, 0, sizeof *info);
    vek_snprintf(info->type, sizeof info->type, "%s",
                 g_trc.type == kTrcSys ? "SysTrc" : g_trc.type == kTrcFile ? "FileTrc" : "");
    vek_snprintf(info->fileName, sizeof info->fileName, "%s", g_trc.fileName);
    info->holdConn = g_trc.holdConn;
    info->bufQueSize = g_trc.bufQueSize;
    info->holding = g_trc.holding;
    trc_unlock();
    return 0;
}

// ---- debug manager ----

VEK_API vek_s32 DbgMng_init(void) {
    return AlAtom_inc(&g_dbgCnt);
}

VEK_API vek_s32 DbgMng_exit(void) {
    return vek::count_down(&g_dbgCnt, false);
}

VEK_API vek_s32 DbgMng_cfgByFile(const char* path) {
    if (!path || !*path) {
        return VEK_ERR_FILE_OPEN;
    }
    IniFile doc;
    IniFile_new(&doc);
    vek_s32 r = IniFile_loadFile(&doc, path);
    for (VekListNode* n = r == 0 ? doc.sects.hdr : nullptr; n; n = n->next) {
        IniSect* s = (IniSect*)n;
        const char* name = VekStr_buf(&s->name);
        if (!vek_stricmp(name, "DbgMng")) {
            if (IniFile_findField(&doc, name, "Level")) {
                DbgMng_setLevel(-1, -1, IniFile_getInt(&doc, name, "Level", 0));
            }
            continue;
        }
        if (vek_strincmp(name, "Mod", 3) != 0 || !name[3] || !vek_isdigits(name + 3)) {
            continue;
        }
        vek_s32 module = std::atoi(name + 3);
        for (VekListNode* m = s->fields.hdr; m; m = m->next) {
            IniField* f = (IniField*)m;
            const char* key = VekStr_buf(&f->name);
            vek_s32 level = std::atoi(VekStr_buf(&f->value));
            if (!IniField_valid(f)) {
                continue;
            }
            if (!vek_stricmp(key, "Level")) {
                DbgMng_setLevel(module, -1, level);
            } else if (!vek_strincmp(key, "Fld", 3) && key[3] && vek_isdigits(key + 3)) {
                DbgMng_setLevel(module, std::atoi(key + 3), level);
            }
        }
    }
    IniFile_delete(&doc);
    return r;
}

VEK_API void DbgMng_setLevel(vek_s32 module, vek_s32 field, vek_s32 level) {
    if (module < 0) {
        AlAtom_set(&g_defaultLimit, level);
        return;
    }
    if (field < 0) {
        field = -1;
    }
    trc_lock();
    vek_s32 n = AlAtom_get(&g_limitCount);
    vek_s32 i = 0;
    while (i < n && !(g_limits[i].module == module && g_limits[i].field == field)) {
        i++;
    }
    if (i < n) {
        AlAtom_set(&g_limits[i].level, level);
    } else if (n < kMaxLimits) {
        g_limits[n] = Limit{module, field, level};
        AlAtom_set(&g_limitCount, n + 1);  // published after the entry is complete
    } else {
        vek_printf("DbgMng: too many limits, %d.%d ignored\n", (int)module, (int)field);
    }
    trc_unlock();
}

VEK_API vek_s32 DbgMng_enabled__(const void*, vek_s32 module, vek_s32 field, vek_s32 level) {
    vek_s32 n = AlAtom_get(&g_limitCount);
    vek_s32 modLimit = -1;
    for (vek_s32 i = 0; i < n; i++) {
        if (g_limits[i].module == module) {
            vek_s32 lim = AlAtom_get(&g_limits[i].level);
            if (g_limits[i].field == field) {
                return level <= lim ? 1 : 0;
            }
            if (g_limits[i].field == -1) {
                modLimit = lim;
            }
        }
    }
    vek_s32 lim = modLimit >= 0 ? modLimit : AlAtom_get(&g_defaultLimit);
    return level <= lim ? 1 : 0;
}

} // extern "C"
