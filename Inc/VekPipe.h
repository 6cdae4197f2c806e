/*
 * VekPipe.h - local endpoints by logical name: a server that accepts many
 * clients of the same machine, and a client that connects with a
 * time-out. Connections are LocSock sockets (VekSock.h): read, write,
 * close and release them through ISock.
 *
 * Names. A logical name is 1 to 64 characters of A-Z a-z 0-9 . _ - that
 * does not start with a dot. POSIX: the Unix domain socket NAME.sock in
 * the user's private runtime folder: $XDG_RUNTIME_DIR/vek when that
 * variable names an absolute folder, else $TMPDIR/vek-UID (or
 * /tmp/vek-UID). The library creates the folder with mode 0700 and, before
 * every use, checks that it is a folder (not a symbolic link), owned by
 * the user and closed to everyone else (-761 otherwise; the library never
 * loosens or takes over a folder it finds). Windows: the named pipe
 * \\.\pipe\vek-NAME. A name holding a slash (POSIX; a socket path) or a
 * backslash (Windows; the pipe name after \\.\pipe\) is used as it is,
 * without the folder checks, for endpoints shared with other users.
 *
 * Security. The server's socket is mode 0600 (a pipe's DACL grants the
 * current user alone; remote clients are rejected), so other users are
 * refused by the system; VEK_PIPE_ANY_USER opens it to every local user
 * (0666; the users authenticated on the machine). Behind that, the server
 * asks each client's user (SO_PEERCRED; the client process's SID) and
 * refuses other users unless VEK_PIPE_ANY_USER is set, and a client asks
 * the server's in the same way. POSIX: a socket file left by a dead server
 * (connect is refused) is replaced; a live server's name is never taken
 * (-705). Windows: the first instance is created with the first-instance
 * flag, so a name another process created first (a squatter) is -705.
 *
 * Waits. Connect and accept take tmo in milliseconds (negative: no limit)
 * and return -5 (VEK_ERR_ABORTED) when the thread or the call is cancelled
 * (vek_thrd_cancel, vek_call_cancel) and -12 at the time-out.
 *
 * Threads. One thread accepts on a server at a time; VekPipe_delete comes
 * when no accept is running (cancel a blocked one first).
 *
 * Results besides -5 and -12:
 *   -81  VEK_ERR_BAD_ARG       a bad name or flag (a null one asserts)
 *   -201 VEK_ERR_FULL          memory ran out
 *   -703 VEK_ERR_REFUSED       nothing listens at the name
 *   -705 VEK_ERR_ADDR_IN_USE   a live server (or a squatter) holds the name
 *   -760 VEK_ERR_PEER_REFUSED  the other end runs as another user
 *   -761 VEK_ERR_UNSAFE_DIR    the runtime folder is not the user's own
 *   -850 VEK_ERR_IO            another system error
 */
#ifndef VEK_PIPE_H
#define VEK_PIPE_H

#include "TaskSvr.h"
#include "VekEvt.h"
#include "VekSock.h"

VEK_BEGIN_DECLS

/* Flags of VekPipe_xlisten__ and VekPipe_xconnect__. */
#define VEK_PIPE_ANY_USER 0x01  /* every local user may connect / serve */

typedef struct VekPipe VekPipe;

/* A server listening at name: the server, or null with the reason in *err
 * (err may be null). path and line name the caller for the leak report. */
VEK_API VekPipe* VekPipe_xlisten__(const char* name, vek_s32 flags, vek_s32* err, const char* path, vek_s32 line);
/* Closes the server (its socket file is removed) and frees it; null is
 * allowed. Connections already accepted stay open. */
VEK_API void VekPipe_delete(VekPipe* srv);
/* The next client: 0 with *out (one reference, the caller's) and *peer
 * (may be null) filled in. A client of another user is closed at once
 * and gives -760 with *peer telling who it was; the server goes on with
 * the next call. */
VEK_API vek_s32 VekPipe_accept(VekPipe* srv, ISock** out, VekSockPeer* peer, vek_s32 tmo);

/* Connects to the server at name within tmo (a server whose backlog is
 * full, or whose pipe instances are all taken, is tried again until
 * then): the socket, or null with the reason in *err. A server of another
 * user is -760 unless flags has VEK_PIPE_ANY_USER. */
VEK_API ISock* VekPipe_xconnect__(const char* name, vek_s32 flags, vek_s32 tmo, vek_s32* err, const char* path,
                                  vek_s32 line);

/* The system address of name (the socket's path, or the pipe's name
 * after \\.\pipe\) into buf, creating and checking the runtime folder on
 * POSIX: its length, -81 (bad name, or no room), -761, -850. */
VEK_API vek_s32 VekPipe_addr(const char* name, char* buf, vek_s32 size);

/* ---- pm_*: messages over a connection ----
 *
 * A connection carries frames: a 12-byte head (payload length, kind,
 * flags, the sender's message type, a request's id) and a payload of
 * bytes or of one generic event's packet (GenEvt_enc). The receiver's
 * size limit bounds what a peer can make it hold; a frame over the limit
 * (-762) or malformed (-763: an unknown kind or flag, a broken event
 * packet) closes the connection, and every later call returns that code.
 * A peer gone in mid-frame is -851 like a peer gone between frames.
 *
 * Threads. One thread receives at a time (pm_recv, pm_request); any
 * number send, each frame going out whole. pm_close comes when no call is
 * inside (cancel a blocked one first). A send that a cancel or time-out
 * cut in mid-frame has broken the stream: the connection is closed and
 * later calls return -23.
 *
 * Waits. tmo in milliseconds (negative: no limit); -5 on a cancel, -12 at
 * the time-out. A receive that ends in mid-frame keeps what arrived for
 * the next one: no byte is lost.
 *
 * Results besides those: -23 closed, -81 bad argument (asserted), -201
 * memory ran out (a received message is then lost, the connection goes
 * on), -762, -763, -851, -850. */

#define PM_MAX_LEN_DEF (1 << 20)  /* the default size limit of a payload */

#define PM_KIND_MSG 1  /* one-way message */
#define PM_KIND_REQ 2  /* request: answer it with pm_reply */
#define PM_KIND_RSP 3  /* response to a request of this side */
#define PM_KIND_CANCEL 4  /* the peer gave up waiting for its request id */

typedef struct PmConn PmConn;

/* A received message. data (the bytes) or evt (an event message's event)
 * belong to the message until pm_msg_clean. */
typedef struct PmMsg {
    vek_s32 kind;    /* PM_KIND_* */
    vek_u32 type;    /* the sender's message type, 0..65535 */
    vek_u32 id;      /* a request's id, 0 for a one-way message */
    vek_u8* data;    /* the payload, null when empty or an event */
    vek_s32 len;     /* its length */
    GenEvt* evt;     /* the event, or null */
} PmMsg;

/* Messages over sock (any stream ISock; the connection holds a reference
 * of its own) with a payload limit of maxLen bytes (<= 0: the default):
 * the connection, or null with *err (may be null) -201. */
VEK_API PmConn* pm_open(ISock* sock, vek_s32 maxLen, vek_s32* err);
/* VekPipe_xconnect__ and pm_open with the default limit. */
VEK_API PmConn* pm_connect(const char* name, vek_s32 flags, vek_s32 tmo, vek_s32* err);
/* Closes the socket (the peer sees the end) and frees; null allowed. */
VEK_API void pm_close(PmConn* conn);
/* The connection's socket (no reference added). */
VEK_API ISock* pm_sock(PmConn* conn);

/* Sends a one-way message of len bytes (data may be null when len is 0)
 * with the caller's type (0..65535): 0. */
VEK_API vek_s32 pm_send(PmConn* conn, vek_u32 type, const void* data, vek_s32 len, vek_s32 tmo);
/* Sends evt (encoded by GenEvt_enc; the caller keeps it) as a one-way
 * message of the given type: 0. */
VEK_API vek_s32 pm_send_evt(PmConn* conn, vek_u32 type, const GenEvt* evt, vek_s32 tmo);
/* The next message (a request, a one-way message or a cancel) into *msg:
 * 0. A response nobody waits for any more (its request timed out) is
 * dropped. */
VEK_API vek_s32 pm_recv(PmConn* conn, PmMsg* msg, vek_s32 tmo);
/* Frees a message's data and event and clears it. */
VEK_API void pm_msg_clean(PmMsg* msg);
/* Sends a request of len bytes (or the event evt when not null) and
 * waits for its response into *reply: 0, or the code of an error answer
 * (pm_reply_err). A request given up (-5, -12) is followed by a cancel
 * frame naming it, so the peer may stop working on it; its late answer is
 * dropped. Messages and requests that
 * arrive meanwhile are kept for pm_recv (up to 64; beyond that the
 * connection ends with -201, as a peer that never answers would make it
 * grow without bound). */
VEK_API vek_s32 pm_request(PmConn* conn, vek_u32 type, const void* data, vek_s32 len, const GenEvt* evt,
                           PmMsg* reply, vek_s32 tmo);
/* Answers the request req with len bytes (or evt when not null): 0. */
VEK_API vek_s32 pm_reply(PmConn* conn, const PmMsg* req, vek_u32 type, const void* data, vek_s32 len,
                         const GenEvt* evt, vek_s32 tmo);

/* Answers the request req with the negative code instead of a payload
 * (pm_request and rpc_call return it): 0. */
VEK_API vek_s32 pm_reply_err(PmConn* conn, const PmMsg* req, vek_s32 code, vek_s32 tmo);

/* ---- rpc_*: calls ----
 *
 * A call is a request (pm_* frames) that a server answers by running its
 * handler as a task of a task server pool; the caller waits for the
 * answer that carries its own call id, so an answer that comes after the
 * caller gave up is dropped, never taken for a later call's.
 *
 * Cancelling. A call ends with -5 when the calling thread is cancelled
 * (vek_thrd_cancel) or the call is (vek_call_cancel: the call made inside
 * a message block, or as the operation of an asynchronous block), and
 * with -12 at its time-out. Either way the caller sends a cancel naming
 * the call, and the server cancels the task running its handler (a task
 * not started yet is removed): the handler's abortable waits return -5.
 * A handler that runs to its end anyway still answers; that answer is
 * dropped by the caller.
 *
 * A server that ends (or dies) while a call waits ends the call with
 * -851 (VEK_ERR_PEER_CLOSED); a connection that ended earlier gives -23
 * or the code that ended it. */

typedef struct RpcSvr RpcSvr;

/* A handler: answers the request req (its type, and its bytes or event)
 * into *rsp (cleared on entry: set type, and data from vek_malloc with
 * len, or evt; the library frees them after sending). Its result: >= 0
 * sends *rsp, negative sends that code as the call's result. It runs on a
 * worker of the server's pool, one task per call, so calls of one client
 * run side by side. */
typedef vek_s32 (*RpcFn)(void* ctx, const PmMsg* req, PmMsg* rsp);

/* A server at name (VekPipe_xlisten__; flags VEK_PIPE_ANY_USER allowed)
 * whose handler fn(ctx, ...) runs on pool (null: TaskSvr_def). Each client
 * connection (pm_connect) is read by a thread of the server's own; up to
 * 256 connections are served at once, further ones (and any a thread
 * cannot be started for) are closed at once.
 * The server, or null with the reason in *err (may be null): the codes of
 * VekPipe_xlisten__. */
VEK_API RpcSvr* rpc_svr_new(const char* name, vek_s32 flags, TaskSvr* pool, RpcFn fn, void* ctx, vek_s32* err);
/* Stops accepting, closes every connection, cancels the handlers still
 * running and returns once they have returned (a handler that ignores
 * its cancel holds this up); null allowed. Not from a handler. */
VEK_API void rpc_svr_delete(RpcSvr* svr);

/* Calls the server at the other end of conn: sends type with len bytes
 * of data (or evt when not null) and waits up to tmo ms (negative: no
 * limit) for the answer into *reply (free it with pm_msg_clean): 0, or
 * the handler's negative result, -5, -12, -851, or a code of pm_request.
 * Several threads may call on one connection: their calls take turns
 * (waiting for the turn counts in tmo and is cancellable). A connection
 * used for calls is not read with pm_recv meanwhile. */
VEK_API vek_s32 rpc_call(PmConn* conn, vek_u32 type, const void* data, vek_s32 len, const GenEvt* evt, PmMsg* reply,
                         vek_s32 tmo);

VEK_END_DECLS

#endif /* VEK_PIPE_H */
