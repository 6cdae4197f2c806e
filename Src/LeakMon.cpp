/*
 * LeakMon.cpp - the leak monitor: counts and lists the blocks of one
 * component. Its records live on the OS layer's heap so that a component's
 * bookkeeping never shows up as a leak of the process heap.
 */
#include <unordered_map>
#include "ObjModel.h"
#include "VekAlloc.h"
#include "VekCore.h"

namespace {

struct LeakRec {
    size_t size;
    vek_s32 id;
};
using RecMap = std::unordered_map<const void*, LeakRec, std::hash<const void*>,
                                  std::equal_to<const void*>,
                                  vek::AlAllocator<std::pair<const void* const, LeakRec>>>;

constexpr vek_u32 kLeakMonCls = 0x1EA6D0u;

struct LeakMon {
    vek_u32 cls;
    AlAtom ref;
    const ILeakMonVtbl* vtbl;
    char name[32];
    vek_s32 leakChkLev;
    AlMutex lock;
    vek_s32 lastId;
    vek_s32 count;
    RecMap* recs;  // null when only counting
};

const char kSrc[] = __FILE__;
const VekGuid kIidLeakMon = VEK_IID_ILEAKMON_INIT;
void leak_mon_delete(LeakMon* m);
using Cls = vek::ObjClass<LeakMon, ILeakMon, kLeakMonCls, leak_mon_delete, &kIidLeakMon, kSrc>;

void leak_out(TinyStr* t) {
    if (TinyStr_len(t) == 0) {
        return;
    }
    if (vek::trc_active()) {
        vek::trc_record(kSrc, __LINE__, vek::kModBase, vek::kFldHeap, 1, TinyStr_buf(t), TinyStr_len(t));
    } else {
        sys_printf("%s", TinyStr_buf(t));
    }
}

vek_s32 lm_add(ILeakMon* itf, const void* p, size_t size) {
    LeakMon* m = Cls::self(itf, __LINE__);
    AlMutex_lock(&m->lock);
    vek_s32 id = ++m->lastId;
    m->count++;
    if (m->recs) {
        try {
            (*m->recs)[p] = LeakRec{size, id};
        } catch (...) {
            m->count--;  // out of memory: the block stays unrecorded
            id = VEK_ERR_FULL;
        }
    }
    AlMutex_unlock(&m->lock);
    return id;
}

vek_s32 lm_del(ILeakMon* itf, const void* p) {
    LeakMon* m = Cls::self(itf, __LINE__);
    AlMutex_lock(&m->lock);
    vek_s32 ret = 0;
    if (m->recs) {
        if (m->recs->erase(p) == 0) {
            ret = VEK_ERR_NOT_FOUND;
        } else {
            m->count--;
        }
    } else if (m->count > 0) {
        m->count--;
    }
    AlMutex_unlock(&m->lock);
    if (ret < 0) {
        vek_printf("LeakMon::delMem(0x%p), but not found\n", p);
    }
    return ret;
}

vek_s32 lm_out_leak(ILeakMon* itf, vek_s32 minId) {
    LeakMon* m = Cls::self(itf, __LINE__);
    TinyStr t;
    TinyStr_new(&t);
    vek_s32 leaks = 0;
    AlMutex_lock(&m->lock);
    if (m->recs) {
        vek_s32 ignored = 0;
        vek_s32 validIdMin = 0;
        for (auto& kv : *m->recs) {
            if (validIdMin == 0 || kv.second.id < validIdMin) {
                validIdMin = kv.second.id;
            }
            kv.second.id >= minId ? leaks++ : ignored++;
        }
        TinyStr_appdf(&t, "outLeak, minId=%d, validIdMin=%d\n", (int)minId, (int)validIdMin);
        if (leaks > 0) {
            TinyStr_appdf(&t, "LeakMon detect %d mem leaks\n", (int)leaks);
            for (auto& kv : *m->recs) {
                if (kv.second.id >= minId) {
                    TinyStr_appdf(&t, "    leak: %p, size=%u, id=%d\n", kv.first,
                                  (unsigned)kv.second.size, (int)kv.second.id);
                }
            }
        }
        if (ignored > 0) {
            TinyStr_appdf(&t, "detect %d ignored mem leaks, it's OK\n", (int)ignored);
        }
    } else if (m->count > 0) {
        leaks = m->count;
        TinyStr_appdf(&t,
                      "\n\t NOTE: LeakMon detect %d mem leaks\n\t but LeakChkLev cfg in \"%s.ini\" is 0\n"
                      "\t please set LeakChkLev>0 to dump leak info next time\n",
                      (int)leaks, "VekDbg");
    }
    AlMutex_unlock(&m->lock);
    leak_out(&t);
    TinyStr_delete(&t);
    return leaks;
}

vek_s32 lm_count(ILeakMon* itf) {
    LeakMon* m = Cls::self(itf, __LINE__);
    AlMutex_lock(&m->lock);
    vek_s32 n = m->count;
    AlMutex_unlock(&m->lock);
    return n;
}

void leak_mon_delete(LeakMon* m) {
    if (m->recs) {
        m->recs->~RecMap();
        al_free(m->recs);
    }
    AlMutex_delete(&m->lock);
    m->cls = 0;
    al_free(m);
}

const ILeakMonVtbl kLeakMonVtbl = {
    Cls::queryItf, Cls::addRef, Cls::release, lm_add, lm_del, lm_out_leak, lm_count,
};

} // namespace

extern "C" VEK_API ILeakMon* LeakMon_create(const char* name, vek_s32 leakChkLev) {
    LeakMon* m = (LeakMon*)al_malloc(sizeof(LeakMon));
    if (!m) {
        return nullptr;
    }
    std::memset(m, 0, sizeof *m);
    m->cls = kLeakMonCls | VEK_CLS_OWNED;
    m->vtbl = &kLeakMonVtbl;
    vek_snprintf(m->name, sizeof m->name, "%s", name ? name : "LeakMon");
    m->leakChkLev = leakChkLev;
    if (leakChkLev >= 1) {
        void* mem = al_malloc(sizeof(RecMap));
        m->recs = mem ? new (mem) RecMap() : nullptr;
    }
    AlMutex_new(&m->lock);
    m->ref = 1;
    return Cls::itf(m);
}
