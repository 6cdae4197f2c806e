/*
 * VekHttp.h - HTTP downloads and posts through libcurl, loaded at run time.
 *
 * libcurl is never linked: the first transfer loads it (cm_load) from the
 * library's own folder or the system's, by the names "libcurl.so.4",
 * "libcurl-gnutls.so.4", "libcurl-nss.so.4", "libcurl.so" on POSIX and
 * "libcurl.dll", "libcurl-x64.dll", "libcurl-4.dll", "libcurl-x64-4.dll" on
 * Windows, or by those given to net_curl_load. Where none loads, every
 * transfer returns -94 (VEK_ERR_NO_LIBRARY) at once and the rest of the
 * library works as before; a libcurl older than 7.32 gives -790.
 *
 * A single transfer runs on the calling thread with an easy handle of its
 * own (libcurl's rule: one handle, one thread), signals off
 * (CURLOPT_NOSIGNAL), HTTP and HTTPS only (also for redirects). It is
 * cancellable as every blocking call of the library is: vek_thrd_cancel of
 * the thread, or vek_call_cancel, ends it within 50 ms with -5, also while
 * the server sends nothing at all; so is a transfer that a task of the task
 * server makes (TaskSvr_cancel with running set). The progress callback
 * runs on the calling thread. net_multi_down runs a batch on the task
 * server.
 *
 * Results: 0 when the server answered with a status below 400 (*status
 * receives it when status is not null, also on failure once a status
 * line arrived); -791 (VEK_ERR_HTTP_STATUS) for 400 and above; -5
 * cancelled (or the progress callback returned non-zero); -12 the
 * transfer's time-out, or no byte for stallMs; -792 the host name could not
 * be resolved; -793 no connection; -796 the secure connection failed; -794
 * the transfer broke off; -795 the data could not be stored (a file write
 * failed; the file keeps its old content); -201 more than maxBytes to
 * memory, or out of memory; -81 a bad argument or URL (null pointers also
 * assert); -94 no libcurl.
 */
#ifndef VEK_HTTP_H
#define VEK_HTTP_H

#include "TaskSvr.h"
#include "VekType.h"

VEK_BEGIN_DECLS

/* Called with the bytes moved so far and the totals (0 while unknown);
 * a non-zero result ends the transfer with -5. */
typedef vek_s32 (*vek_net_progress)(void* ctx, vek_s64 dlNow, vek_s64 dlTotal, vek_s64 ulNow,
                                     vek_s64 ulTotal);

/* Options of a transfer; all zero (or a null pointer) means the defaults. */
typedef struct NetReqOpt {
    vek_s32 timeoutMs;         /* the whole transfer; 0: no limit */
    vek_s32 connectTimeoutMs;  /* resolving and connecting; 0: 30 s */
    vek_s32 stallMs;           /* no byte moved for this long: -12; 0: no limit */
    vek_s32 maxRedirs;         /* redirects followed; 0: 10, negative: none */
    vek_s64 maxBytes;          /* most bytes kept in memory; 0: 64 MiB */
    const char* contentType;   /* of a posted body; null: "application/octet-stream" */
    const char* userAgent;     /* null: "BaseLib/<version>" */
    vek_net_progress progress; /* null: none */
    void* progressCtx;
} NetReqOpt;

/* Loads libcurl from names ("|" between candidates; null: the default
 * list) when it is not loaded yet or no transfer uses it; 0, -94, -790.
 * After a failure the transfers return -94 until a load succeeds. */
VEK_API vek_s32 net_curl_load(const char* names);
/* The loaded libcurl's version ("7.88.1") into buf; its length, 0 when
 * none is loaded. */
VEK_API vek_s32 net_curl_version(char* buf, vek_s32 cap);

/* GET url into the file path, written safely: the file is replaced only by
 * a complete download with a status below 400, otherwise it keeps its old
 * content (or is not created). */
VEK_API vek_s32 net_http_get_file(const char* url, const char* path, const NetReqOpt* opt,
                                  vek_s32* status);
/* GET url and append the body to out (also the body of an error status). */
VEK_API vek_s32 net_http_get(const char* url, VekStr* out, const NetReqOpt* opt, vek_s32* status);
/* POST len bytes of body (len negative: up to the terminator) to url and
 * append the answer's body to resp (null: discarded). */
VEK_API vek_s32 net_http_post(const char* url, const void* body, vek_s32 len, VekStr* resp,
                              const NetReqOpt* opt, vek_s32* status);

/* ---- several transfers at once ----
 * One transfer of a batch: the caller fills the inputs, net_multi_down the
 * outputs. */
typedef struct NetDown {
    const char* url;       /* in: the URL */
    const char* path;      /* in: GET into this file, written safely (as
                              net_http_get_file); null: into body */
    VekStr* body;          /* in: with path null, the answer's body is
                              appended here (null: discarded) */
    const void* post;      /* in: non-null: POST postLen bytes of it (negative:
                              up to the terminator) instead of a GET; the
                              answer goes to body, path must be null */
    vek_s32 postLen;
    const NetReqOpt* opt;  /* in: this transfer's options (null: defaults);
                              its progress callback runs on the worker */
    vek_s32 result;        /* out: as the single transfer calls give it; -5
                              for a transfer that never started */
    vek_s32 status;        /* out: the HTTP status, 0 without one */
} NetDown;

/* Runs count transfers, at most maxParallel at a time (0 or less: all at
 * once), each as a task of svr (null: the default pool) with an easy handle
 * of its own on its worker. One transfer's failure does not stop the
 * others. Returns once every transfer has ended: 0 when all succeeded; -5
 * when the caller was cancelled (vek_thrd_cancel, vek_call_cancel): the
 * running transfers are cancelled too and the call returns within 100 ms,
 * those not started get -5; -94 without libcurl (every result -94);
 * otherwise the result of the first transfer, in array order, that failed
 * (-201 for one that could not be posted, -81 for a bad entry). A null
 * downs with count above 0 asserts and returns -81. Not from a task of svr
 * when svr has fewer workers than the batch needs. */
VEK_API vek_s32 net_multi_down(NetDown* downs, vek_s32 count, vek_s32 maxParallel, TaskSvr* svr);

VEK_END_DECLS

#endif /* VEK_HTTP_H */
