/*
 * VekHttp.cpp - HTTP transfers through libcurl, loaded at run time.
 *
 * libcurl's headers are not used: the few entry points, options and codes
 * this file needs are declared below as libcurl's documentation gives
 * them (their values are libcurl's ABI and never change).
 *
 * A transfer drives its easy handle through a multi handle of its own on
 * the calling thread, so that it can wait in short slices: between two
 * slices it asks whether the call was cancelled, and whether bytes still
 * move. The easy interface would sit in curl_easy_perform, where the
 * progress callback may come only once a second while nothing arrives.
 *
 * A batch (net_multi_down) is one task per transfer on the task server:
 * each worker makes its own easy handle, as libcurl wants, and a cancelled
 * task's worker sees the cancel as any single transfer does.
 */
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include "AlPlat.h"
#include "SafeFile.h"
#include "VekCall.h"
#include "VekCm.h"
#include "VekCore.h"
#include "VekHttp.h"
#include "VekStr.h"
#include "VekStrm.h"

namespace {

// ---- libcurl's ABI ----
enum : int {
    kOptWriteData = 10001,
    kOptUrl = 10002,
    kOptErrorBuffer = 10010,
    kOptWriteFunction = 20011,
    kOptPostFields = 10015,
    kOptUserAgent = 10018,
    kOptHttpHeader = 10023,
    kOptNoProgress = 43,
    kOptPost = 47,
    kOptFollowLocation = 52,
    kOptXferInfoData = 10057,
    kOptMaxRedirs = 68,
    kOptHttpGet = 80,
    kOptNoSignal = 99,
    kOptTimeoutMs = 155,
    kOptConnectTimeoutMs = 156,
    kOptProtocols = 181,
    kOptRedirProtocols = 182,
    kOptXferInfoFunction = 20219,
    kOptPostFieldSizeLarge = 30120,
};
constexpr long kProtoHttpAndHttps = 1 | 2;
constexpr long kGlobalAll = 3;
constexpr int kInfoResponseCode = 0x200000 + 2;
constexpr int kMsgDone = 1;
enum : int {
    kOk = 0,
    kUnsupportedProtocol = 1,
    kUrlMalformat = 3,
    kCouldntResolveProxy = 5,
    kCouldntResolveHost = 6,
    kCouldntConnect = 7,
    kWriteError = 23,
    kOutOfMemory = 27,
    kOperationTimedout = 28,
    kSslConnectError = 35,
    kAbortedByCallback = 42,
    kPeerFailedVerification = 60,
    kSslCertProblem = 58,
    kSslCacertBadfile = 77,
};

struct CurlMsg {
    int msg;
    void* easy;
    union {
        void* whatever;
        int result;
    } data;
};
struct CurlVersionHead {
    int age;
    const char* version;
    unsigned int versionNum;
};

using WriteFn = size_t (*)(char* ptr, size_t size, size_t n, void* ctx);
using XferInfoFn = int (*)(void* ctx, vek_s64 dlTotal, vek_s64 dlNow, vek_s64 ulTotal, vek_s64 ulNow);

/* The entry points of one loaded libcurl; shared by the transfers that use
 * it and freed with the last of them once another library replaced it. */
struct CurlApi {
    CmLib* lib;
    std::atomic<vek_s32> users;
    bool current;  // under g_apiLock
    int (*global_init)(long flags);
    void (*global_cleanup)(void);
    void* (*easy_init)(void);
    int (*easy_setopt)(void* easy, int option, ...);
    int (*easy_getinfo)(void* easy, int info, ...);
    void (*easy_cleanup)(void* easy);
    void* (*multi_init)(void);
    int (*multi_add_handle)(void* multi, void* easy);
    int (*multi_remove_handle)(void* multi, void* easy);
    int (*multi_perform)(void* multi, int* running);
    int (*multi_wait)(void* multi, void* extra, unsigned n, int tmo, int* numfds);
    CurlMsg* (*multi_info_read)(void* multi, int* left);
    int (*multi_cleanup)(void* multi);
    void* (*slist_append)(void* list, const char* text);
    void (*slist_free_all)(void* list);
    CurlVersionHead* (*version_info)(int age);
    int (*multi_poll)(void* multi, void* extra, unsigned n, int tmo, int* numfds);  // 7.66 on
};

const char* const kRequired[] = {
    "curl_global_init",      "curl_global_cleanup",       "curl_easy_init",      "curl_easy_setopt",
    "curl_easy_getinfo",     "curl_easy_cleanup",         "curl_multi_init",     "curl_multi_add_handle",
    "curl_multi_remove_handle", "curl_multi_perform",     "curl_multi_wait",     "curl_multi_info_read",
    "curl_multi_cleanup",    "curl_slist_append",         "curl_slist_free_all", "curl_version_info",
};
constexpr vek_s32 kRequiredCount = (vek_s32)(sizeof kRequired / sizeof kRequired[0]);

#ifdef _WIN32
const char kDefaultNames[] = "libcurl.dll|libcurl-x64.dll|libcurl-4.dll|libcurl-x64-4.dll";
#else
const char kDefaultNames[] = "libcurl.so.4|libcurl-gnutls.so.4|libcurl-nss.so.4|libcurl.so";
#endif
/* The oldest libcurl with the progress callback used here (7.32.0). */
constexpr unsigned kMinVersion = 0x072000;

enum class ApiState { untried, loaded, absent };
std::mutex g_apiLock;
CurlApi* g_api;
ApiState g_state = ApiState::untried;

void api_free(CurlApi* a) {
    a->global_cleanup();
    cm_unload(a->lib);
    a->~CurlApi();
    al_free(a);
}

void api_release(CurlApi* a) {
    if (a->users.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        std::lock_guard<std::mutex> lk(g_apiLock);
        if (!a->current && a->users.load(std::memory_order_acquire) == 0) {
            api_free(a);
        }
    }
}

/* Loads libcurl from names and makes it the current one; under g_apiLock. */
vek_s32 api_load(const char* names) {
    CmLib* lib = nullptr;
    vek_s32 r = cm_load(names ? names : kDefaultNames, &lib);
    if (r != 0) {
        return r;
    }
    void* syms[kRequiredCount];
    r = cm_syms(lib, kRequired, syms, kRequiredCount);
    CurlApi* a = nullptr;
    if (r == 0 && (a = (CurlApi*)al_malloc(sizeof(CurlApi))) == nullptr) {
        r = VEK_ERR_FULL;
    }
    if (r != 0) {
        cm_unload(lib);
        return r;
    }
    new (a) CurlApi();
    a->lib = lib;
    void** slots[kRequiredCount] = {
        (void**)&a->global_init,      (void**)&a->global_cleanup,   (void**)&a->easy_init,
        (void**)&a->easy_setopt,      (void**)&a->easy_getinfo,     (void**)&a->easy_cleanup,
        (void**)&a->multi_init,       (void**)&a->multi_add_handle, (void**)&a->multi_remove_handle,
        (void**)&a->multi_perform,    (void**)&a->multi_wait,       (void**)&a->multi_info_read,
        (void**)&a->multi_cleanup,    (void**)&a->slist_append,     (void**)&a->slist_free_all,
        (void**)&a->version_info,
    };
    for (vek_s32 i = 0; i < kRequiredCount; i++) {
        *slots[i] = syms[i];
    }
    *(void**)&a->multi_poll = cm_sym(lib, "curl_multi_poll");
    CurlVersionHead* v = a->version_info(0);
    if (!v || v->versionNum < kMinVersion || a->global_init(kGlobalAll) != kOk) {
        cm_unload(lib);
        a->~CurlApi();
        al_free(a);
        return VEK_ERR_LIB_SYMBOL;
    }
    if (g_api) {
        g_api->current = false;
        if (g_api->users.load(std::memory_order_acquire) == 0) {
            api_free(g_api);
        }
    }
    a->current = true;
    g_api = a;
    return 0;
}

/* The current libcurl with one more user (loading the default list on the
 * first call), or null with -94 / -790 in *err. */
CurlApi* api_acquire(vek_s32* err) {
    std::lock_guard<std::mutex> lk(g_apiLock);
    if (g_state == ApiState::untried) {
        g_state = api_load(nullptr) == 0 ? ApiState::loaded : ApiState::absent;
    }
    if (g_state != ApiState::loaded || !g_api) {
        *err = VEK_ERR_NO_LIBRARY;
        return nullptr;
    }
    g_api->users.fetch_add(1, std::memory_order_acq_rel);
    return g_api;
}

// ---- one transfer ----

/* Bytes received go to a file, or to a string (the body in memory). */
struct Xfer {
    CurlApi* api = nullptr;
    const NetReqOpt* opt = nullptr;
    AlFile* file = nullptr;
    VekStr* str = nullptr;
    vek_s64 maxBytes = 0;
    vek_s64 got = 0;
    vek_s32 failure = 0;     // why the library stopped the transfer itself
    vek_s64 moved = -1;      // bytes moved at the last look
    vek_u32 movedAt = 0;     // al_clock() when they last moved
};

/* How long one wait lasts before the transfer looks for a cancel. */
constexpr int kSliceMs = 20;

size_t on_write(char* ptr, size_t size, size_t n, void* ctx) {
    Xfer* x = (Xfer*)ctx;
    size_t bytes = size * n;
    if (x->got + (vek_s64)bytes > x->maxBytes) {
        x->failure = VEK_ERR_FULL;
        return 0;
    }
    if (x->file) {
        if (AlFile_write(x->file, ptr, (vek_s32)bytes) != (vek_s32)bytes) {
            x->failure = VEK_ERR_WRITE;
            return 0;
        }
    } else if (x->str && bytes > 0) {
        vek_s32 old = VekStr_len(x->str);
        char* b = VekStr_useBufBeg(x->str, old + (vek_s32)bytes);
        if (!b) {
            x->failure = VEK_ERR_FULL;
            return 0;
        }
        std::memcpy(b + old, ptr, bytes);
        VekStr_useBufEnd(x->str, old + (vek_s32)bytes);
    }
    x->got += (vek_s64)bytes;
    return bytes;
}

/* Whether the transfer must stop now: cancelled, or stalled. */
bool must_stop(Xfer* x, vek_s64 moved) {
    if (vek_call_aborted()) {
        x->failure = VEK_ERR_ABORTED;
        return true;
    }
    vek_u32 now = al_clock();
    if (moved != x->moved) {
        x->moved = moved;
        x->movedAt = now;
    } else if (x->opt->stallMs > 0 && (vek_s32)(now - x->movedAt) >= x->opt->stallMs) {
        x->failure = VEK_ERR_TIMEOUT;
        return true;
    }
    return false;
}

int on_xferinfo(void* ctx, vek_s64 dlTotal, vek_s64 dlNow, vek_s64 ulTotal, vek_s64 ulNow) {
    Xfer* x = (Xfer*)ctx;
    if (must_stop(x, dlNow + ulNow)) {
        return 1;
    }
    if (x->opt->progress && x->opt->progress(x->opt->progressCtx, dlNow, dlTotal, ulNow, ulTotal) != 0) {
        x->failure = VEK_ERR_ABORTED;
        return 1;
    }
    return 0;
}

vek_s32 map_result(int code, const Xfer& x) {
    if (x.failure != 0) {
        return x.failure;
    }
    switch (code) {
    case kOk: return 0;
    case kAbortedByCallback: return VEK_ERR_ABORTED;
    case kOperationTimedout: return VEK_ERR_TIMEOUT;
    case kCouldntResolveHost:
    case kCouldntResolveProxy: return VEK_ERR_HOST_UNKNOWN;
    case kCouldntConnect: return VEK_ERR_CONNECT;
    case kWriteError: return VEK_ERR_WRITE;
    case kOutOfMemory: return VEK_ERR_FULL;
    case kUnsupportedProtocol:
    case kUrlMalformat: return VEK_ERR_BAD_ARG;
    case kSslConnectError:
    case kPeerFailedVerification:
    case kSslCertProblem:
    case kSslCacertBadfile: return VEK_ERR_TLS;
    default: return VEK_ERR_TRANSFER;
    }
}

/* Runs a prepared transfer to its end; its result and *status. */
vek_s32 perform(Xfer& x, void* easy, vek_s32* status) {
    CurlApi* a = x.api;
    void* multi = a->multi_init();
    if (!multi || a->multi_add_handle(multi, easy) != kOk) {
        if (multi) {
            a->multi_cleanup(multi);
        }
        return VEK_ERR_FULL;
    }
    x.movedAt = al_clock();
    int code = kOk;
    for (;;) {
        int running = 0;
        a->multi_perform(multi, &running);
        if (running == 0 || x.failure != 0 || must_stop(&x, x.moved)) {
            break;
        }
        int n = 0;
        if (a->multi_poll) {
            a->multi_poll(multi, nullptr, 0, kSliceMs, &n);
        } else if (a->multi_wait(multi, nullptr, 0, kSliceMs, &n) == kOk && n == 0) {
            // Before 7.66 the wait returns at once when curl has no socket
            // to wait on (resolving): sleep the slice instead.
            if (vek_ssleep(kSliceMs) == VEK_ERR_ABORTED) {
                x.failure = VEK_ERR_ABORTED;
                break;
            }
        }
    }
    int left = 0;
    while (CurlMsg* m = a->multi_info_read(multi, &left)) {
        if (m->msg == kMsgDone && m->easy == easy) {
            code = m->data.result;
        }
    }
    long httpStatus = 0;
    a->easy_getinfo(easy, kInfoResponseCode, &httpStatus);
    if (status) {
        *status = (vek_s32)httpStatus;
    }
    a->multi_remove_handle(multi, easy);
    a->multi_cleanup(multi);
    vek_s32 r = map_result(code, x);
    if (r == 0 && httpStatus >= 400) {
        r = VEK_ERR_HTTP_STATUS;
    }
    return r;
}

/* One transfer: GET when body is null, else POST. The bytes received go
 * where x says. */
vek_s32 transfer(Xfer& x, const char* url, const void* body, vek_s64 bodyLen, vek_s32* status) {
    static const NetReqOpt kDefaults = {};
    if (!x.opt) {
        x.opt = &kDefaults;
    }
    const NetReqOpt& o = *x.opt;
    x.maxBytes = !x.str ? INT64_MAX : (o.maxBytes > 0 ? o.maxBytes : (vek_s64)64 << 20);
    CurlApi* a = x.api;
    void* easy = a->easy_init();
    if (!easy) {
        return VEK_ERR_FULL;
    }
    char agent[48];
    vek_snprintf(agent, sizeof agent, "BaseLib/%s", vek_version());
    char errBuf[256] = {0};
    a->easy_setopt(easy, kOptErrorBuffer, errBuf);
    a->easy_setopt(easy, kOptUrl, url);
    a->easy_setopt(easy, kOptNoSignal, 1L);
    a->easy_setopt(easy, kOptProtocols, kProtoHttpAndHttps);
    a->easy_setopt(easy, kOptRedirProtocols, kProtoHttpAndHttps);
    a->easy_setopt(easy, kOptFollowLocation, o.maxRedirs < 0 ? 0L : 1L);
    a->easy_setopt(easy, kOptMaxRedirs, o.maxRedirs > 0 ? (long)o.maxRedirs : 10L);
    a->easy_setopt(easy, kOptConnectTimeoutMs, o.connectTimeoutMs > 0 ? (long)o.connectTimeoutMs : 30000L);
    a->easy_setopt(easy, kOptTimeoutMs, o.timeoutMs > 0 ? (long)o.timeoutMs : 0L);
    a->easy_setopt(easy, kOptUserAgent, o.userAgent ? o.userAgent : agent);
    a->easy_setopt(easy, kOptWriteFunction, (WriteFn)on_write);
    a->easy_setopt(easy, kOptWriteData, &x);
    a->easy_setopt(easy, kOptNoProgress, 0L);
    a->easy_setopt(easy, kOptXferInfoFunction, (XferInfoFn)on_xferinfo);
    a->easy_setopt(easy, kOptXferInfoData, &x);
    void* headers = nullptr;
    if (body) {
        char type[256];
        vek_snprintf(type, sizeof type, "Content-Type: %s",
                     o.contentType ? o.contentType : "application/octet-stream");
        headers = a->slist_append(nullptr, type);
        a->easy_setopt(easy, kOptPost, 1L);
        a->easy_setopt(easy, kOptPostFieldSizeLarge, (vek_s64)bodyLen);
        a->easy_setopt(easy, kOptPostFields, body);
        a->easy_setopt(easy, kOptHttpHeader, headers);
    } else {
        a->easy_setopt(easy, kOptHttpGet, 1L);
    }
    vek_s32 r = perform(x, easy, status);
    if (r != 0 && r != VEK_ERR_HTTP_STATUS) {
        VEK_TRACE(vek::kModBase, vek::kFldNet, 2, "http: %s: %d (%s)", url, (int)r, errBuf);
    }
    a->easy_cleanup(easy);
    if (headers) {
        a->slist_free_all(headers);
    }
    return r;
}

bool url_ok(const char* url) {
    return url && *url;
}

/* Runs fn(x) with a libcurl in use; its result, or -94. */
template <class Fn>
vek_s32 with_curl(Xfer& x, Fn fn) {
    vek_s32 err = 0;
    x.api = api_acquire(&err);
    if (!x.api) {
        return err;
    }
    vek_s32 r = fn();
    api_release(x.api);
    return r;
}

} // namespace

namespace vek {

/* BaseLib_exit: a libcurl no transfer uses any more is unloaded. */
void net_stop(void) {
    std::lock_guard<std::mutex> lk(g_apiLock);
    if (g_api && g_api->users.load(std::memory_order_acquire) == 0) {
        api_free(g_api);
        g_api = nullptr;
        g_state = ApiState::untried;
    }
}

} // namespace vek

extern "C" {

VEK_API vek_s32 net_curl_load(const char* names) {
    std::lock_guard<std::mutex> lk(g_apiLock);
    if (g_api && g_api->users.load(std::memory_order_acquire) > 0) {
        return 0;  // in use: kept
    }
    if (g_api) {
        api_free(g_api);
        g_api = nullptr;
    }
    vek_s32 r = api_load(names);
    g_state = r == 0 ? ApiState::loaded : ApiState::absent;
    return r;
}

VEK_API vek_s32 net_curl_version(char* buf, vek_s32 cap) {
    if (!buf || cap < 1) {
        VEK_ASSERT(buf && cap >= 1);
        return 0;
    }
    std::lock_guard<std::mutex> lk(g_apiLock);
    CurlVersionHead* v = g_api ? g_api->version_info(0) : nullptr;
    return vek_snprintf(buf, cap, "%s", v && v->version ? v->version : "");
}

VEK_API vek_s32 net_http_get_file(const char* url, const char* path, const NetReqOpt* opt,
                                  vek_s32* status) {
    if (status) {
        *status = 0;
    }
    if (!url || !path) {
        VEK_ASSERT(url && path);
        return VEK_ERR_BAD_ARG;
    }
    if (!url_ok(url) || !*path) {
        return VEK_ERR_BAD_ARG;
    }
    Xfer x;
    x.opt = opt;
    return with_curl(x, [&]() -> vek_s32 {
        vek::SafeFile safe;
        vek_s32 r = safe.open(path, true);
        if (r == VEK_ERR_NOT_SUPPORTED) {
            // The file must be written in place (other links to it, a
            // folder that takes no temporary file): the body waits in
            // memory until it is complete.
            VekStr body;
            VekStr_new(&body);
            x.str = &body;
            r = transfer(x, url, nullptr, 0, status);
            if (r == 0) {
                r = safe.open(path) == 0 ? 0 : VEK_ERR_FILE_OPEN;
                if (r == 0 && AlFile_write(safe.file(), VekStr_buf(&body), VekStr_len(&body)) != VekStr_len(&body)) {
                    r = VEK_ERR_WRITE;
                }
                vek_s32 c = safe.commit();
                r = r == 0 && c != 0 ? VEK_ERR_WRITE : r;
            }
            VekStr_delete(&body);
            return r;
        }
        if (r != 0) {
            return r;
        }
        x.file = safe.file();
        r = transfer(x, url, nullptr, 0, status);
        if (r != 0) {
            safe.discard();
            return r;
        }
        return safe.commit() == 0 ? 0 : VEK_ERR_WRITE;
    });
}

VEK_API vek_s32 net_http_get(const char* url, VekStr* out, const NetReqOpt* opt, vek_s32* status) {
    if (status) {
        *status = 0;
    }
    if (!url || !out) {
        VEK_ASSERT(url && out);
        return VEK_ERR_BAD_ARG;
    }
    if (!url_ok(url)) {
        return VEK_ERR_BAD_ARG;
    }
    Xfer x;
    x.opt = opt;
    x.str = out;
    return with_curl(x, [&] { return transfer(x, url, nullptr, 0, status); });
}

VEK_API vek_s32 net_http_post(const char* url, const void* body, vek_s32 len, VekStr* resp,
                              const NetReqOpt* opt, vek_s32* status) {
    if (status) {
        *status = 0;
    }
    if (!url || (!body && len != 0)) {
        VEK_ASSERT(url && (body || len == 0));
        return VEK_ERR_BAD_ARG;
    }
    if (!url_ok(url)) {
        return VEK_ERR_BAD_ARG;
    }
    if (len < 0) {
        len = (vek_s32)std::strlen((const char*)body);
    }
    Xfer x;
    x.opt = opt;
    x.str = resp;
    return with_curl(x, [&] { return transfer(x, url, body ? body : "", len, status); });
}

} // extern "C"

namespace {

/* The state of one net_multi_down call, on its caller's stack: the tasks'
 * clean-ups report to it under mu, and the caller returns only once every
 * task it posted has reported. */
struct Batch {
    std::mutex mu;
    std::condition_variable cv;
    vek_s32 running = 0;
};

struct DownTask {
    Batch* batch;
    NetDown* down;
    VekTask id;
};

vek_s32 down_run(void* ctx) {
    NetDown* d = ((DownTask*)ctx)->down;
    if (d->post) {
        return net_http_post(d->url, d->post, d->postLen, d->body, d->opt, &d->status);
    }
    if (d->path) {
        return net_http_get_file(d->url, d->path, d->opt, &d->status);
    }
    if (d->body) {
        return net_http_get(d->url, d->body, d->opt, &d->status);
    }
    VekStr sink;  // a body nobody wants is still received, then dropped
    VekStr_new(&sink);
    vek_s32 r = net_http_get(d->url, &sink, d->opt, &d->status);
    VekStr_delete(&sink);
    return r;
}

/* Runs exactly once per posted task: after it ran, or when it was removed
 * before it started (-5). */
void down_clean(void* ctx, vek_s32 res) {
    DownTask* t = (DownTask*)ctx;
    std::lock_guard<std::mutex> lk(t->batch->mu);
    t->down->result = res;
    t->batch->running--;
    t->batch->cv.notify_all();
}

bool down_ok(const NetDown& d) {
    return url_ok(d.url) && !(d.post && d.path) && (d.path == nullptr || *d.path);
}

} // namespace

extern "C" {

VEK_API vek_s32 net_multi_down(NetDown* downs, vek_s32 count, vek_s32 maxParallel, TaskSvr* svr) {
    if (count <= 0) {
        return 0;
    }
    if (!downs) {
        VEK_ASSERT(downs);
        return VEK_ERR_BAD_ARG;
    }
    for (vek_s32 i = 0; i < count; i++) {
        downs[i].result = VEK_ERR_ABORTED;
        downs[i].status = 0;
    }
    // The library stays loaded for the whole batch, and its absence is
    // known before anything is posted.
    vek_s32 err = 0;
    CurlApi* api = api_acquire(&err);
    if (!api) {
        for (vek_s32 i = 0; i < count; i++) {
            downs[i].result = err;
        }
        return err;
    }
    DownTask* tasks = (DownTask*)vek_malloc__(sizeof(DownTask) * (size_t)count);
    if (!tasks) {
        api_release(api);
        return VEK_ERR_FULL;
    }
    if (!svr) {
        svr = TaskSvr_def();
    }
    Batch b;
    vek_s32 next = 0;
    bool aborted = vek_call_aborted() != 0;
    {
        std::unique_lock<std::mutex> lk(b.mu);
        for (;;) {
            while (!aborted && next < count && (maxParallel <= 0 || b.running < maxParallel)) {
                DownTask* t = &tasks[next];
                NetDown* d = &downs[next++];
                *t = {&b, d, 0};
                if (!down_ok(*d)) {
                    d->result = VEK_ERR_BAD_ARG;
                    continue;
                }
                b.running++;
                lk.unlock();  // a clean-up may run before the post returns
                VekTask id = TaskSvr_post(svr, down_run, down_clean, t);
                lk.lock();
                t->id = id;
                if (!id) {
                    b.running--;
                    d->result = VEK_ERR_FULL;
                }
            }
            if (b.running == 0 && (aborted || next == count)) {
                break;
            }
            // Slices as short as a transfer's own, so a cancel of the
            // caller reaches the workers in time.
            b.cv.wait_for(lk, std::chrono::milliseconds(20));
            if (!aborted && vek_call_aborted()) {
                aborted = true;
                lk.unlock();  // a task removed before its start reports here
                for (vek_s32 i = 0; i < next; i++) {
                    if (tasks[i].id) {
                        TaskSvr_cancel(tasks[i].id, 1);
                    }
                }
                lk.lock();
            }
        }
    }
    vek_free__(tasks);
    api_release(api);
    if (aborted) {
        return VEK_ERR_ABORTED;
    }
    for (vek_s32 i = 0; i < count; i++) {
        if (downs[i].result != 0) {
            return downs[i].result;
        }
    }
    return 0;
}

} // extern "C"
