/*
 * RpcSvr.cpp - the server of calls (rpc_* of VekPipe.h).
 *
 * Threads. The server has threads of its own: one accepts, and one per
 * connection reads it (a thread, not a pool's task, so that a reader that
 * cannot start is known at once and its connection closed, instead of
 * queueing behind the readers that never end). A reader hands each request to the
 * handler pool as a task (a Job) and each cancel frame to TaskSvr_cancel,
 * so the handler's worker thread is cancelled like any other task's. The
 * reader is the only thread that posts or cancels the jobs of its
 * connection, and it does both in frame order, so a cancel always finds
 * its job's task id in place (or no job: the call already ended).
 *
 * A job answers from its clean-up, not from the task: by then the task
 * server has cleared the worker's abort state, so the answer of a handler
 * that ran to its end goes out even if its call was cancelled meanwhile
 * (the caller drops it). A job removed before it started has no answer.
 *
 * Ends. A connection ends when its client goes or the server is deleted:
 * its reader cancels the jobs still there and waits for each, so the
 * connection is closed only once no job can write to it.
 */
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include "TagRec.h"
#include "VekCore.h"
#include "VekPipe.h"
#include "VekVosx.h"

namespace {

const char kSrc[] = __FILE__;
constexpr vek_u32 kSvrTag = 0x6E3C1Au;
constexpr vek_s32 kMaxLinks = 256;
constexpr vek_s32 kReplyTmo = 10000;  // an answer the client does not read in this time ends its connection

struct Link;

struct Job {
    Job* next;
    Link* link;
    PmMsg req;
    VekTask task;
    std::atomic<int> refs;  // the reader's (until the task id is stored) and the task's
    bool ran;
    vek_s32 res;
    PmMsg rsp;
};

struct SvrRec {
    vek_u32 tag;
    VekPipe* pipe;
    TaskSvr* pool;
    RpcFn fn;
    void* ctx;
    vek_u32 acceptTid = 0;
    Link* links = nullptr;  // the connections served: the accepting thread's, then the deleting one's
    vek_s32 nLinks = 0;
};

struct Link {
    Link* next;
    SvrRec* svr;
    PmConn* conn;
    vek_u32 tid;  // its reader
    std::atomic<bool> ended{false};  // its reader has closed the connection and leaves
    std::mutex lk;
    Job* jobs = nullptr;  // the jobs not ended, under lk
};

void job_unref(Job* j) {
    if (--j->refs == 0) {
        pm_msg_clean(&j->req);
        pm_msg_clean(&j->rsp);
        j->~Job();
        vek_free__(j);
    }
}

vek_s32 job_run(void* ctx) {
    Job* j = (Job*)ctx;
    j->ran = true;
    j->res = j->link->svr->fn(j->link->svr->ctx, &j->req, &j->rsp);
    return j->res;
}

void job_end(void* ctx, vek_s32) {
    Job* j = (Job*)ctx;
    Link* l = j->link;
    if (j->ran) {
        if (j->res < 0) {
            pm_reply_err(l->conn, &j->req, j->res, kReplyTmo);
        } else {
            pm_reply(l->conn, &j->req, j->rsp.type, j->rsp.data, j->rsp.len, j->rsp.evt, kReplyTmo);
        }
    }
    {
        std::lock_guard<std::mutex> g(l->lk);
        for (Job** p = &l->jobs; *p; p = &(*p)->next) {
            if (*p == j) {
                *p = j->next;
                break;
            }
        }
    }
    job_unref(j);
}

/* Posts the request m (taken over) as a job of the handler pool. */
void job_post(Link* l, PmMsg& m) {
    void* mem = vek_malloc__(sizeof(Job));
    if (!mem) {
        pm_reply_err(l->conn, &m, VEK_ERR_FULL, kReplyTmo);
        pm_msg_clean(&m);
        return;
    }
    Job* j = new (mem) Job();
    j->link = l;
    j->req = m;
    std::memset(&m, 0, sizeof m);
    j->refs = 2;
    {
        std::lock_guard<std::mutex> g(l->lk);
        j->next = l->jobs;
        l->jobs = j;
    }
    VekTask t = TaskSvr_post(l->svr->pool, job_run, job_end, j);
    if (t == 0) {
        // Never posted: no clean-up will come, so the job leaves here.
        pm_reply_err(l->conn, &j->req, VEK_ERR_FULL, kReplyTmo);
        job_end(j, VEK_ERR_FULL);
    } else {
        std::lock_guard<std::mutex> g(l->lk);
        j->task = t;
    }
    job_unref(j);
}

VekTask task_of(Link* l, vek_u32 id) {
    std::lock_guard<std::mutex> g(l->lk);
    for (Job* j = l->jobs; j; j = j->next) {
        if (id == 0 ? true : j->req.id == id) {
            return j->task;
        }
    }
    return 0;
}

/* Joins and frees a link whose reader has left (or is cancelled). */
void link_free(Link* l) {
    vek_thrd_join(l->tid);
    l->~Link();
    vek_free__(l);
}

vek_u32 reader_run(void* ctx) {
    Link* l = (Link*)ctx;
    for (;;) {
        PmMsg m;
        // Out of memory ends the connection too: the caller whose request
        // was lost would otherwise wait for an answer that never comes.
        vek_s32 r = pm_recv(l->conn, &m, -1);
        if (r < 0) {
            break;
        }
        if (m.kind == PM_KIND_REQ) {
            job_post(l, m);
        } else if (m.kind == PM_KIND_CANCEL) {
            VekTask t = task_of(l, m.id);
            if (t != 0) {
                TaskSvr_cancel(t, 1);
            }
        }
        pm_msg_clean(&m);
    }
    // The reader may be cancelled itself (now, or by the server's deletion
    // while it waits here); its waits for the jobs must not end for that.
    vek_thrd_abort_clear();
    while (VekTask t = task_of(l, 0)) {
        TaskSvr_cancel(t, 1);
        if (TaskSvr_wait(t, -1) == VEK_ERR_ABORTED) {
            vek_thrd_abort_clear();
        }
    }
    pm_close(l->conn);
    l->ended = true;
    return 0;
}

/* Serves conn (taken over) with a reader thread of its own, or closes it
 * when there is no room or no thread. */
void link_start(SvrRec* s, PmConn* conn) {
    // Readers whose client left are joined here, so that every thread the
    // server started has ended when it is deleted.
    for (Link** p = &s->links; *p;) {
        Link* l = *p;
        if (l->ended) {
            *p = l->next;
            s->nLinks--;
            link_free(l);
        } else {
            p = &l->next;
        }
    }
    void* mem = s->nLinks < kMaxLinks ? vek_malloc__(sizeof(Link)) : nullptr;
    if (!mem) {
        pm_close(conn);
        return;
    }
    Link* l = new (mem) Link();
    l->svr = s;
    l->conn = conn;
    if ((l->tid = vek_thrd_create__(reader_run, l, 0)) == 0) {
        pm_close(conn);
        l->~Link();
        vek_free__(l);
        return;
    }
    l->next = s->links;
    s->links = l;
    s->nLinks++;
}

vek_u32 accept_run(void* ctx) {
    SvrRec* s = (SvrRec*)ctx;
    for (;;) {
        ISock* sock = nullptr;
        vek_s32 r = VekPipe_accept(s->pipe, &sock, nullptr, -1);
        if (r == VEK_ERR_ABORTED) {
            return 0;
        }
        if (r < 0) {
            // A refused user, or a passing shortage: the next client may
            // well be served, a little later.
            if (r != VEK_ERR_PEER_REFUSED && vek_ssleep(50) == VEK_ERR_ABORTED) {
                return 0;
            }
            continue;
        }
        PmConn* conn = pm_open(sock, 0, nullptr);
        ISock_release(sock);
        if (conn) {
            link_start(s, conn);
        }
    }
}

} // namespace

extern "C" {

VEK_API RpcSvr* rpc_svr_new(const char* name, vek_s32 flags, TaskSvr* pool, RpcFn fn, void* ctx, vek_s32* err) {
    vek_s32 sink;
    err = err ? err : &sink;
    if (!name || !fn) {
        vek_assert__("name && fn", __FILE__, __LINE__);
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    VekPipe* pipe = VekPipe_xlisten__(name, flags, err, __FILE__, __LINE__);
    if (!pipe) {
        return nullptr;
    }
    void* mem = vek_malloc__(sizeof(SvrRec));
    if (!mem) {
        VekPipe_delete(pipe);
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    SvrRec* s = new (mem) SvrRec();
    s->tag = kSvrTag;
    s->pipe = pipe;
    s->pool = pool ? pool : TaskSvr_def();
    s->fn = fn;
    s->ctx = ctx;
    if ((s->acceptTid = vek_thrd_create__(accept_run, s, 0)) == 0) {
        VekPipe_delete(pipe);
        s->~SvrRec();
        vek_free__(s);
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    *err = 0;
    return (RpcSvr*)s;
}

VEK_API void rpc_svr_delete(RpcSvr* svr) {
    if (!svr) {
        return;
    }
    SvrRec* s = vek::tag_check((SvrRec*)svr, kSvrTag, kSrc, __LINE__);
    // No connection comes after the accepting thread; then each reader in
    // turn ends its connection's jobs and is joined.
    vek_thrd_cancel(s->acceptTid);
    vek_thrd_join(s->acceptTid);
    while (Link* l = s->links) {
        s->links = l->next;
        vek_thrd_cancel(l->tid);
        link_free(l);
    }
    VekPipe_delete(s->pipe);
    s->tag = 0;
    s->~SvrRec();
    vek_free__(s);
}

} // extern "C"
