/*
 * ThrdCm.cpp - the thread manager: every thread's abort event, thread
 * cancellation with its two extensions (an additional cancel callback and
 * an associated thread), and each thread's stack of blocking calls.
 *
 * The thread table is the only shared state, under one lock that is never
 * held while a callback, a recursive cancel, a wait or a trace runs:
 * operations copy what they need, unlock, and then act (assertions, which
 * trace, are raised after unlocking too). Each thread caches its own abort
 * event in a thread-local slot and keeps its block stack in a second one;
 * only the thread itself touches them, so the block stack needs no lock.
 */
#include <deque>
#include <map>
#include <new>
#include "AlSync.h"
#include "VekAlloc.h"
#include "VekCall.h"
#include "VekCore.h"

namespace {

constexpr vek_s32 kBlkAsync = 1;
constexpr vek_s32 kBlkMsg = 2;

struct ThrdEnt {
    vek_handle abortEvt;              // manual reset, unnamed
    vek_addt_cancel_fn addtCancelFn;  // or null
    vek_u32 addtCancelArg;
    vek_u32 assoThrdId;               // cancelled together with this thread, or 0
};

struct BlkNode {
    vek_s32 mode;  // kBlkAsync, kBlkMsg
    union {
        VekAsync* async;
        vek_handle msg;  // the block's own call abort event
    } u;
};

struct ThrdBlk {
    std::deque<BlkNode, vek::HeapAllocator<BlkNode>> stack;  // back = innermost
    VekAsyncWait ablkWait = nullptr;
};

using ThrdMap = std::map<vek_u32, ThrdEnt, std::less<vek_u32>,
                         vek::HeapAllocator<std::pair<const vek_u32, ThrdEnt>>>;

const char* mode_name(vek_s32 mode) {
    return mode == kBlkAsync ? "ASYNC-BLK mode" : mode == kBlkMsg ? "MSG-BLK mode" : "UNKN mode";
}

/* ", blks=" and one line per node, innermost (number = level) first. */
void dump_blks(TinyStr* t, const ThrdBlk* b) {
    TinyStr_appdStr(t, ", blks=\n");
    for (size_t i = b->stack.size(); i > 0; i--) {
        TinyStr_appdf(t, "    blk[%d]: %s\n", (int)i, mode_name(b->stack[i - 1].mode));
    }
}

void trace_blks(const char* head, const ThrdBlk* b) {
    TinyStr t;
    TinyStr_new(&t);
    TinyStr_appdf(&t, "%s%d", head, (int)b->stack.size());
    dump_blks(&t, b);
    vek_printf("%s", TinyStr_buf(&t));
    TinyStr_delete(&t);
}

/* A zero-time test of an abort event: 1 signalled (reset when asked), 0
 * not signalled or a failed wait (asserted with "<what> FAIL, ... res="). */
vek_bool abort_test(vek_handle evt, vek_bool reset, const char* what) {
    vek_u32 r = plat::wait_any(&evt, 1, 0, 0);
    if (r == plat::kWaitTimeout) {
        return 0;
    }
    if (r == plat::kWaitObject0) {
        if (reset && !plat::event_reset(evt)) {
            vek_assert__("ResetEvent(evt)", __FILE__, __LINE__);
        }
        return 1;
    }
    char msg[128];
    vek_snprintf(msg, sizeof msg, "%s FAIL, for wait FAIL, res=%d", what, (int)r);
    vek_assert__(msg, __FILE__, __LINE__);
    return 0;
}

class ThrdCm {
  public:
    ThrdCm();
    ~ThrdCm();
    ThrdCm(const ThrdCm&) = delete;
    ThrdCm& operator=(const ThrdCm&) = delete;

    vek_handle get();
    void thrdEnd();
    vek_s32 cancel(vek_u32 tid);
    vek_bool setAddtCancel(vek_addt_cancel_fn fn, vek_u32 arg);
    vek_bool setAssoThrd(vek_u32 tid);

    ThrdBlk* blk(bool create);
    bool pushBlk(BlkNode node);
    void popBlk(ThrdBlk* b);
    void releaseIdle(ThrdBlk* b);

  private:
    ThrdEnt* entry(vek_u32 tid, bool signalled);
    template <class Change>
    vek_bool changeOwn(Change change);
    static void destroyBlk(ThrdBlk* b);

    bool recentlyEnded(vek_u32 tid) const;

    AlMutex lock_;  // guards table_ and ended_
    vek_u32 tslEvt_;
    vek_u32 tslBlk_;
    ThrdMap table_;
    // Threads that left the manager lately. Between its own end and the
    // system's, a thread can still be opened; a cancel then must not leave
    // it a new entry that nobody would ever take back (a leak, and an abort
    // waiting for whichever thread gets the number next).
    vek_u32 ended_[16] = {};
    vek_u32 endedNext_ = 0;
};

ThrdCm* g_thrdCm;

ThrdCm::ThrdCm() : tslEvt_(plat::tls_alloc()), tslBlk_(plat::tls_alloc()) {
    AlMutex_new(&lock_);
    if (tslEvt_ == plat::kTlsNone) {
        vek_assert__("this->tslEvt != TLS_OUT_OF_INDEXES", __FILE__, __LINE__);
    }
    if (tslBlk_ == plat::kTlsNone) {
        vek_assert__("this->tslBlk != TLS_OUT_OF_INDEXES", __FILE__, __LINE__);
    }
}

ThrdCm::~ThrdCm() {
    if (!table_.empty()) {
        TinyStr t;
        TinyStr_new(&t);
        TinyStr_appdf(&t, "detect %d thrd leak, the bug MUST be fixed", (int)table_.size());
        int i = 0;
        for (const auto& it : table_) {
            TinyStr_appdf(&t, "\n    thrd[%d]: ThrdId=%u", i++, it.first);
        }
        vek_printf("%s", TinyStr_buf(&t));
        TinyStr_delete(&t);
        for (const auto& it : table_) {
            const ThrdEnt& obj = it.second;
            if (!plat::handle_close(obj.abortEvt)) {
                vek_assert__("CloseHandle(obj.abortEvt)", __FILE__, __LINE__);
            }
        }
        table_.clear();
    }
    if (tslEvt_ != plat::kTlsNone && !plat::tls_free(tslEvt_)) {
        vek_assert__("TlsFree(tslEvt)", __FILE__, __LINE__);
    }
    if (tslBlk_ != plat::kTlsNone && !plat::tls_free(tslBlk_)) {
        vek_assert__("TlsFree(tslBlk)", __FILE__, __LINE__);
    }
    AlMutex_delete(&lock_);
}

/* Under the lock: the entry of tid, created with a fresh event (signalled
 * or not) when absent; null when the event or the entry cannot be made. */
bool ThrdCm::recentlyEnded(vek_u32 tid) const {
    for (vek_u32 t : ended_) {
        if (t == tid) {
            return true;
        }
    }
    return false;
}

ThrdEnt* ThrdCm::entry(vek_u32 tid, bool signalled) {
    auto it = table_.find(tid);
    if (it != table_.end()) {
        return &it->second;
    }
    for (vek_u32& t : ended_) {
        if (t == tid) {
            t = 0;  // the number came back: a new thread
        }
    }
    vek_handle evt = plat::event_create(1, signalled ? 1 : 0);
    if (!evt) {
        return nullptr;
    }
    try {
        return &table_.emplace(tid, ThrdEnt{evt, nullptr, 0, 0}).first->second;
    } catch (const std::bad_alloc&) {
        plat::handle_close(evt);
        return nullptr;
    }
}

vek_handle ThrdCm::get() {
    if (void* cached = plat::tls_get(tslEvt_)) {
        return cached;
    }
    AlMutex_lock(&lock_);
    ThrdEnt* e = entry(al_thrd_id(), false);  // a pre-armed entry may be signalled already
    vek_handle ret = e ? e->abortEvt : nullptr;
    AlMutex_unlock(&lock_);
    if (!ret) {
        VEK_ASSERT(ret);
        return nullptr;
    }
    if (!plat::tls_set(tslEvt_, ret)) {
        vek_assert__("TlsSetValue(tslEvt, abortEvt)", __FILE__, __LINE__);
    }
    return ret;
}

void ThrdCm::thrdEnd() {
    if (ThrdBlk* b = (ThrdBlk*)plat::tls_get(tslBlk_)) {
        plat::tls_set(tslBlk_, nullptr);
        destroyBlk(b);
    }
    bool closeFailed = false;
    AlMutex_lock(&lock_);
    auto it = table_.find(al_thrd_id());
    if (it != table_.end()) {
        closeFailed = !plat::handle_close(it->second.abortEvt);
        table_.erase(it);
    }
    ended_[endedNext_++ % (sizeof ended_ / sizeof ended_[0])] = al_thrd_id();
    AlMutex_unlock(&lock_);
    if (closeFailed) {
        vek_assert__("CloseHandle(it->second.abortEvt)", __FILE__, __LINE__);
    }
    if (!plat::tls_set(tslEvt_, nullptr)) {
        vek_assert__("TlsSetValue(tslEvt, NULL)", __FILE__, __LINE__);
    }
}

vek_s32 ThrdCm::cancel(vek_u32 tid) {
    if (!tid) {
        vek_assert__("thrdId", __FILE__, __LINE__);
        return 0;
    }
    vek_addt_cancel_fn fn = nullptr;
    vek_u32 arg = 0;
    vek_u32 asso = 0;
    vek_u32 err = 0;
    vek_s32 res = 0;
    bool closeFailed = false, setFailed = false, ended = false;
    AlMutex_lock(&lock_);
    auto it = table_.find(tid);
    if (it == table_.end()) {
        // Not known yet: when the thread lives, store the cancel in an entry
        // whose event starts signalled; its first library call finds it.
        if (recentlyEnded(tid)) {
            ended = true;
        } else if (void* thrdHnd = plat::thrd_open(tid, 1)) {
            closeFailed = !plat::thrd_close(thrdHnd);
            res = entry(tid, true) ? 1 : 0;
        } else {
            err = plat::last_error();
            ended = true;
        }
    } else {
        fn = it->second.addtCancelFn;
        arg = it->second.addtCancelArg;
        asso = it->second.assoThrdId;
        setFailed = !plat::event_set(it->second.abortEvt);
        res = 1;
    }
    AlMutex_unlock(&lock_);
    if (closeFailed) {
        vek_assert__("CloseHandle(thrdHnd)", __FILE__, __LINE__);
    }
    if (setFailed) {
        vek_assert__("SetEvent(it->second.abortEvt)", __FILE__, __LINE__);
    }
    if (ended) {
        vek_printf("cancel FAIL, for thrd ended, err=%u", err);
    }
    if (fn) {
        vek_printf("issue addt cancel req, tmo=%u", arg);
        fn(tid, arg);
    }
    if (asso) {
        vek_printf("issue asso cancel req, thrdId=%u", asso);
        cancel(asso);
    }
    return res;
}

/* Finds or creates the caller's entry and changes it under the lock
 * (change returns the text of an assertion to raise afterwards, or null);
 * then caches the event and tells whether the caller is aborted. */
template <class Change>
vek_bool ThrdCm::changeOwn(Change change) {
    AlMutex_lock(&lock_);
    ThrdEnt* e = entry(al_thrd_id(), false);
    const char* failed = e ? change(*e) : nullptr;
    vek_handle evt = e ? e->abortEvt : nullptr;
    AlMutex_unlock(&lock_);
    if (failed) {
        vek_assert__(failed, __FILE__, __LINE__);
    }
    if (!evt) {
        vek_assert__("ret", __FILE__, __LINE__);
        return 0;
    }
    if (!plat::tls_get(tslEvt_) && !plat::tls_set(tslEvt_, evt)) {
        vek_assert__("TlsSetValue(tslEvt, abortEvt)", __FILE__, __LINE__);
    }
    vek_u32 waitRes = plat::wait_any(&evt, 1, 0, 0);
    if (waitRes != plat::kWaitObject0 && waitRes != plat::kWaitTimeout) {
        vek_assert__("waitRes == WAIT_OBJECT_0 || waitRes == WAIT_TIMEOUT", __FILE__, __LINE__);
    }
    return waitRes == plat::kWaitObject0 ? 1 : 0;
}

vek_bool ThrdCm::setAddtCancel(vek_addt_cancel_fn fn, vek_u32 arg) {
    return changeOwn([&](ThrdEnt& e) -> const char* {
        e.addtCancelFn = fn;
        e.addtCancelArg = arg;
        return nullptr;
    });
}

vek_bool ThrdCm::setAssoThrd(vek_u32 tid) {
    // Associating a thread also clears any abort pending on it.
    return changeOwn([&](ThrdEnt& e) -> const char* {
        const char* failed = nullptr;
        auto it = table_.find(tid);
        if (it != table_.end() && !plat::event_reset(it->second.abortEvt)) {
            failed = "ResetEvent(it->second.abortEvt)";
        }
        e.assoThrdId = tid;
        return failed;
    });
}

ThrdBlk* ThrdCm::blk(bool create) {
    ThrdBlk* b = (ThrdBlk*)plat::tls_get(tslBlk_);
    if (b || !create) {
        return b;
    }
    void* mem = vek_malloc__(sizeof(ThrdBlk));
    if (!mem) {
        return nullptr;
    }
    try {
        b = new (mem) ThrdBlk();
    } catch (const std::bad_alloc&) {
        vek_free__(mem);
        return nullptr;
    }
    plat::tls_set(tslBlk_, b);
    return b;
}

bool ThrdCm::pushBlk(BlkNode node) {
    ThrdBlk* b = blk(true);
    if (!b) {
        return false;
    }
    try {
        b->stack.push_back(node);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (b->stack.size() >= 2) {  // nesting is allowed; it is only reported
        trace_blks("detect mulit-lev blks, lev=", b);
    }
    return true;
}

void ThrdCm::popBlk(ThrdBlk* b) {
    b->stack.pop_back();
    releaseIdle(b);
}

/* A record with no block and no wait procedure is given up (the next
 * block makes a new one): it holds nothing that a thread which never began
 * a block lacks. */
void ThrdCm::releaseIdle(ThrdBlk* b) {
    if (b->stack.empty() && !b->ablkWait) {
        plat::tls_set(tslBlk_, nullptr);
        destroyBlk(b);
    }
}

void ThrdCm::destroyBlk(ThrdBlk* b) {
    if (!b->stack.empty()) {
        trace_blks("~ThrdBlk, but in blk mode, lev=", b);
        for (const BlkNode& obj : b->stack) {
            if (obj.mode == kBlkAsync) {
                if (!obj.u.async) {
                    vek_assert__("obj.u.async", __FILE__, __LINE__);
                } else {
                    VekAsync_delete(obj.u.async);
                }
            } else if (obj.mode == kBlkMsg) {
                if (!plat::handle_close(obj.u.msg)) {
                    vek_assert__("CloseHandle(obj.u.msg)", __FILE__, __LINE__);
                }
            } else {
                vek_assert__("blk mode UNKN", __FILE__, __LINE__);
            }
        }
    }
    b->~ThrdBlk();
    vek_free__(b);
}

/* The manager, or null after the assertion "thrdCm". */
ThrdCm* thrd_cm() {
    ThrdCm* cm = __atomic_load_n(&g_thrdCm, __ATOMIC_ACQUIRE);
    if (!cm) {
        vek_assert__("thrdCm", __FILE__, __LINE__);
    }
    return cm;
}

/* The innermost node of the caller's block stack, or null. */
BlkNode* innermost(ThrdCm* cm) {
    ThrdBlk* b = cm->blk(false);
    return b && !b->stack.empty() ? &b->stack.back() : nullptr;
}

/* The innermost node when it has the mode; else null after the assertion
 * notInBlk (no block) or wrongMode. */
BlkNode* innermost_of(ThrdCm* cm, vek_s32 mode, const char* notInBlk, const char* wrongMode) {
    BlkNode* node = cm ? innermost(cm) : nullptr;
    if (cm && !node) {
        vek_assert__(notInBlk, __FILE__, __LINE__);
    } else if (node && node->mode != mode) {
        vek_assert__(wrongMode, __FILE__, __LINE__);
        node = nullptr;
    }
    return node;
}

} // namespace

namespace vek {

void thrdcm_create(void) {
    if (__atomic_load_n(&g_thrdCm, __ATOMIC_ACQUIRE)) {
        vek_assert__("!thrdCm", __FILE__, __LINE__);
        return;
    }
    void* mem = vek_malloc__(sizeof(ThrdCm));
    if (mem) {
        __atomic_store_n(&g_thrdCm, new (mem) ThrdCm(), __ATOMIC_RELEASE);
    }
}

void thrdcm_destroy(void) {
    ThrdCm* _this = __atomic_exchange_n(&g_thrdCm, nullptr, __ATOMIC_ACQ_REL);
    if (!_this) {
        VEK_ASSERT(_this);
        return;
    }
    ThrdCm* thrdCm = __atomic_load_n(&g_thrdCm, __ATOMIC_ACQUIRE);
    if (thrdCm) {
        VEK_ASSERT(!thrdCm);
    }
    _this->~ThrdCm();
    vek_free__(_this);
}

void win_thrd_beg(void) {
    ThrdCm* cm = __atomic_load_n(&g_thrdCm, __ATOMIC_ACQUIRE);
    if (!cm) {
        vek_printf("%s%s", "win_thrd_beg()", ", but thrdCm not exist, skip");
        return;
    }
    cm->get();
}

void win_thrd_end(void) {
    ThrdCm* cm = __atomic_load_n(&g_thrdCm, __ATOMIC_ACQUIRE);
    if (!cm) {
        vek_printf("%s%s", "win_thrd_end()", ", but thrdCm not exist, skip");
        return;
    }
    cm->thrdEnd();
}

} // namespace vek

extern "C" {

// ---- cancellation of threads ----

VEK_API vek_s32 vek_thrd_cancel(vek_u32 tid) {
    ThrdCm* cm = thrd_cm();
    return cm ? cm->cancel(tid) : 0;
}

VEK_API vek_handle vek_thrd_abort_evt(void) {
    ThrdCm* cm = thrd_cm();
    return cm ? cm->get() : nullptr;
}

VEK_API vek_bool vek_thrd_abortedx(vek_bool reset) {
    vek_handle evt = vek_thrd_abort_evt();
    return evt ? abort_test(evt, reset, "vek_thrd_abortedx()") : 0;
}

VEK_API vek_bool vek_thrd_aborted(void) {
    return vek_thrd_abortedx(0);
}

VEK_API void vek_thrd_abort_clear(void) {
    vek_handle evt = vek_thrd_abort_evt();
    if (evt && !plat::event_reset(evt)) {
        vek_assert__("ResetEvent(thrdCm->get())", __FILE__, __LINE__);
    }
}

VEK_API vek_bool vek_set_addt_cancel(vek_addt_cancel_fn fn, vek_u32 arg) {
    ThrdCm* cm = thrd_cm();
    return cm ? cm->setAddtCancel(fn, arg) : 0;
}

VEK_API vek_bool vek_set_asso_thrd(vek_u32 tid) {
    ThrdCm* cm = thrd_cm();
    return cm ? cm->setAssoThrd(tid) : 0;
}

// ---- blocks ----

VEK_API void vek_msg_blk_beg(void) {
    ThrdCm* cm = thrd_cm();
    if (!cm) {
        return;
    }
    vek_handle msg = plat::event_create(1, 0);
    if (!msg) {
        VEK_ASSERT(msg);
        return;
    }
    BlkNode node;
    node.mode = kBlkMsg;
    node.u.msg = msg;
    if (!cm->pushBlk(node)) {
        plat::handle_close(msg);
    }
}

VEK_API void vek_msg_blk_end(void) {
    ThrdCm* cm = thrd_cm();
    BlkNode* node = innermost_of(cm, kBlkMsg, "vek_msg_blk_end(), but not in blk",
                                 "vek_msg_blk_end(), but not in msg blk");
    if (!node) {
        return;
    }
    if (!plat::handle_close(node->u.msg)) {
        vek_assert__("CloseHandle(node->u.msg)", __FILE__, __LINE__);
    }
    cm->popBlk(cm->blk(false));
}

VEK_API VekAsync* vek_async_blk_beg(void) {
    ThrdCm* cm = thrd_cm();
    VekAsync* async = cm ? VekAsync_new() : nullptr;
    if (!async) {
        return nullptr;
    }
    BlkNode node;
    node.mode = kBlkAsync;
    node.u.async = async;
    if (!cm->pushBlk(node)) {
        VekAsync_delete(async);
        return nullptr;
    }
    return async;
}

VEK_API void vek_async_blk_end(void) {
    ThrdCm* cm = thrd_cm();
    BlkNode* node = innermost_of(cm, kBlkAsync, "vek_async_blk_end(), but not in blk",
                                 "vek_async_blk_end(), but not in async blk");
    if (!node) {
        return;
    }
    if (!node->u.async) {
        VEK_ASSERT(node->u.async);
        return;
    }
    VekAsync_delete(node->u.async);
    cm->popBlk(cm->blk(false));
}

VEK_API VekAsync* vek_get_blk_async(void) {
    BlkNode* node = innermost_of(thrd_cm(), kBlkAsync, "vek_get_blk_async(), but not in blk",
                                 "vek_get_blk_async(), but not in async blk");
    return node ? node->u.async : nullptr;
}

VEK_API vek_s32 vek_blk_call__(IVekFunc* funcItf, VekAsyncWait wproc) {
    vek_printf("vek_blk_call() beg");
    vek_s32 ret = VEK_ERR_WAIT_FAILED;
    if (VekAsync* async = vek_async_blk_beg()) {
        ret = VekAsync_start(async, funcItf, 0);
        if (ret == 0) {
            ret = VekAsync_waitEndx(async, wproc ? wproc : vek_get_ablk_wait());
        }
        vek_async_blk_end();
    }
    vek_printf("vek_blk_call() end, ret=%d", (int)ret);
    return ret;
}

VEK_API VekAsyncWait vek_set_ablk_wait(VekAsyncWait wproc) {
    ThrdCm* cm = thrd_cm();
    ThrdBlk* b = cm ? cm->blk(true) : nullptr;
    if (!b) {
        return nullptr;
    }
    VekAsyncWait prev = b->ablkWait;
    b->ablkWait = wproc;
    cm->releaseIdle(b);
    return prev;
}

VEK_API VekAsyncWait vek_get_ablk_wait(void) {
    ThrdCm* cm = thrd_cm();
    ThrdBlk* b = cm ? cm->blk(false) : nullptr;
    return b ? b->ablkWait : nullptr;
}

// ---- cancellation of the innermost call ----

VEK_API vek_handle vek_call_abort_evt(void) {
    ThrdCm* cm = thrd_cm();
    if (!cm) {
        return nullptr;
    }
    BlkNode* node = innermost(cm);
    if (!node) {
        return cm->get();
    }
    if (node->mode != kBlkMsg) {
        vek_assert__("vek_call_abort_evt(), but not in msg blk", __FILE__, __LINE__);
        return nullptr;
    }
    if (!node->u.msg) {
        VEK_ASSERT(node->u.msg);
    }
    return node->u.msg;
}

VEK_API vek_bool vek_call_abortedx(vek_bool reset) {
    vek_handle evt = vek_call_abort_evt();
    return evt ? abort_test(evt, reset, "vek_call_abortedx()") : 0;
}

VEK_API vek_bool vek_call_aborted(void) {
    return vek_call_abortedx(0);
}

VEK_API void vek_call_abort_clear(void) {
    vek_thrd_abort_clear();  // deliberately the thread's event, not a message block's
}

VEK_API void vek_call_cancelx(vek_s32 arg) {
    ThrdCm* cm = thrd_cm();
    if (!cm) {
        return;
    }
    BlkNode* node = innermost(cm);
    if (!node) {
        vek_assert__("vek_call_cancel(), but not in blk", __FILE__, __LINE__);
    } else if (node->mode == kBlkAsync) {
        VekAsync_cancel(node->u.async, arg);
    } else if (node->mode == kBlkMsg) {
        if (!plat::event_set(node->u.msg)) {
            vek_assert__("SetEvent(node->u.msg)", __FILE__, __LINE__);
        }
    } else {
        vek_assert__("vek_call_cancel(), but mode UNKN", __FILE__, __LINE__);
    }
}

VEK_API void vek_call_cancel(void) {
    vek_call_cancelx(0);
}

} // extern "C"
