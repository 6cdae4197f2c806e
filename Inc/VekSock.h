/*
 * VekSock.h - one socket interface over the transports: TCP (client and
 * listening server, IPv4 and IPv6), local stream sockets (a Unix domain
 * socket on POSIX, a named pipe on Windows), serial ports, and a
 * descriptor or handle the caller already opened.
 *
 * ISock follows the object model of BaseItf.h (queryItf, addRef, release
 * in the first three slots; identifier below). Sockets own system
 * resources and waiting state, so the library always allocates them: each
 * class is built by its _x...__ functions (the caller's source path and
 * line last, for the leak report), which return the interface with one
 * reference, and release at zero closes it and frees the record.
 *
 * Waits. Every call that can block takes tmo in milliseconds (negative: no
 * limit; 0: what can be done now) and returns -5 (VEK_ERR_ABORTED) when the
 * calling thread or call is cancelled (vek_thrd_cancel, vek_call_cancel;
 * also a cancel that came before the call) and -12 (VEK_ERR_TIMEOUT) at the
 * time-out. No byte is lost to a cancel: data that arrived wins over it.
 *
 * Threads. One thread reads while another writes (a socket is full
 * duplex); every other call comes from one of those two. close ends the
 * socket when no other call is inside it (a thread blocked in one is
 * cancelled first: vek_thrd_cancel); after it every call but release
 * returns -23.
 *
 * Results (besides -5 and -12), the same for every class:
 *   -23  VEK_ERR_NOT_OPEN     closed by ISock_close
 *   -81  VEK_ERR_BAD_ARG      a null buffer or a bad setting (an assertion
 *                             for a null buffer; nothing changed)
 *   -94  VEK_ERR_UNSUPPORTED  the class or the device lacks the operation
 *                             (modem lines on a pseudo-terminal, a break on
 *                             TCP, accept on a connected socket)
 *   -700 VEK_ERR_DEV_GONE     the device was removed or hung up
 *   -701 VEK_ERR_BUSY         another program holds the port
 *   -702 VEK_ERR_BAD_SETTING  the device refused a setting (the settings
 *                             read back differ); the old settings stay
 *   -703 VEK_ERR_REFUSED      nothing listens at the address
 *   -704 VEK_ERR_NO_HOST      the name does not resolve
 *   -705 VEK_ERR_ADDR_IN_USE  the address or name is taken
 *   -850 VEK_ERR_IO           another system error (errno / GetLastError)
 *   -851 VEK_ERR_PEER_CLOSED  the other end closed or reset the connection
 * -700 and -851 are final: once a read or write has seen one, every later
 * call but close and release reports it again (a read first returns the
 * bytes that arrived before the end).
 */
#ifndef VEK_SOCK_H
#define VEK_SOCK_H

#include "BaseItf.h"

VEK_BEGIN_DECLS

/* 5d7a3c18-9e42-4b6f-8a1d-2c4e6f8b0a93: ISock. */
#define VEK_IID_ISOCK_INIT {0x5d7a3c18u, 0x9e42, 0x4b6f, {0x8a, 0x1d, 0x2c, 0x4e, 0x6f, 0x8b, 0x0a, 0x93}}

/* Class numbers (the class word without VEK_CLS_OWNED). */
#define VEK_CLS_TCPSOCK 0x7C3A51u
#define VEK_CLS_LOCSOCK 0x4E19B7u
#define VEK_CLS_HNDSOCK 0x2A6D93u
#define VEK_CLS_SERSOCK 0x5B8E24u

/* Serial settings. baud: any rate above 0; a rate outside the standard
 * list is set where the system allows it (Linux through BOTHER, Windows
 * as DCB.BaudRate) and is otherwise -702. */
#define VEK_PAR_NONE  0
#define VEK_PAR_ODD   1
#define VEK_PAR_EVEN  2
#define VEK_FLOW_NONE    0
#define VEK_FLOW_RTSCTS  1
#define VEK_FLOW_XONXOFF 2
typedef struct VekSerCfg {
    vek_s32 baud;      /* bits per second, > 0 */
    vek_s32 dataBits;  /* 5..8 */
    vek_s32 parity;    /* VEK_PAR_* */
    vek_s32 stopBits;  /* 1 or 2 */
    vek_s32 flow;      /* VEK_FLOW_* */
} VekSerCfg;
/* 115200 8N1 without flow control. */
#define VEK_SER_CFG_INIT {115200, 8, VEK_PAR_NONE, 1, VEK_FLOW_NONE}

/* Modem control lines: DTR and RTS are set, the others read. */
#define VEK_LINE_DTR 0x01
#define VEK_LINE_RTS 0x02
#define VEK_LINE_CTS 0x04
#define VEK_LINE_DSR 0x08
#define VEK_LINE_DCD 0x10
#define VEK_LINE_RI  0x20

/* What purge discards. */
#define VEK_PURGE_IN  1  /* received, not yet read */
#define VEK_PURGE_OUT 2  /* written, not yet sent */

typedef struct ISock ISock;
typedef struct ISockVtbl {
    vek_s32 (*queryItf)(ISock* self, const VekGuid* iid, void** out); /* 0 */
    vek_s32 (*addRef)(ISock* self);                                   /* 1 */
    vek_s32 (*release)(ISock* self);                                  /* 2 */
    /* 3: what has arrived, 1..len bytes, waiting only for the first one. */
    vek_s32 (*read)(ISock* self, void* buf, vek_s32 len, vek_s32 tmo);
    /* 4: writes all len bytes: len, or the count written before a cancel,
     * the time-out or an error stopped it (the next call tells which), or
     * the code when nothing was written. */
    vek_s32 (*write)(ISock* self, const void* data, vek_s32 len, vek_s32 tmo);
    /* 5: a listener's next client: 0 and *out with one reference. */
    vek_s32 (*accept)(ISock* self, ISock** out, vek_s32 tmo);
    /* 6: waits until everything written has left (serial ports: the
     * transmitter is empty; others: 0 at once). */
    vek_s32 (*drain)(ISock* self, vek_s32 tmo);
    /* 7: discards VEK_PURGE_IN and/or VEK_PURGE_OUT data: 0. */
    vek_s32 (*purge)(ISock* self, vek_s32 what);
    /* 8: settings of a serial port (VekSerCfg); checked first, then set,
     * read back and compared: 0, -81, -702. */
    vek_s32 (*setCfg)(ISock* self, const VekSerCfg* cfg);
    vek_s32 (*getCfg)(ISock* self, VekSerCfg* cfg);                   /* 9 */
    /* 10: sets the lines in mask (DTR, RTS) to those in values: 0, -94. */
    vek_s32 (*setLines)(ISock* self, vek_s32 mask, vek_s32 values);
    /* 11: the VEK_LINE_* bits that are on, or -94. */
    vek_s32 (*getLines)(ISock* self);
    /* 12: holds a break for ms (0: the system's default, 250-500 ms). */
    vek_s32 (*sendBreak)(ISock* self, vek_s32 ms);
    /* 13: closes the system object (once; a listener's socket file is
     * removed): 0. */
    vek_s32 (*close)(ISock* self);
    /* 14: the descriptor (POSIX) or HANDLE/SOCKET (Windows) for the
     * caller's own waits or options, -1 once closed; it stays the
     * socket's (never close it). */
    vek_s64 (*native)(ISock* self);
    const char* (*className)(ISock* self);                            /* 15 */
} ISockVtbl;
struct ISock {
    const ISockVtbl* vtbl;
};

static inline vek_s32 ISock_addRef(ISock* s) { return (s->vtbl->addRef)(s); }
static inline vek_s32 ISock_release(ISock* s) { return (s->vtbl->release)(s); }
static inline vek_s32 ISock_read(ISock* s, void* b, vek_s32 n, vek_s32 tmo) { return (s->vtbl->read)(s, b, n, tmo); }
static inline vek_s32 ISock_write(ISock* s, const void* d, vek_s32 n, vek_s32 tmo) {
    return (s->vtbl->write)(s, d, n, tmo);
}
static inline vek_s32 ISock_accept(ISock* s, ISock** out, vek_s32 tmo) { return (s->vtbl->accept)(s, out, tmo); }
static inline vek_s32 ISock_drain(ISock* s, vek_s32 tmo) { return (s->vtbl->drain)(s, tmo); }
static inline vek_s32 ISock_purge(ISock* s, vek_s32 what) { return (s->vtbl->purge)(s, what); }
static inline vek_s32 ISock_setCfg(ISock* s, const VekSerCfg* c) { return (s->vtbl->setCfg)(s, c); }
static inline vek_s32 ISock_getCfg(ISock* s, VekSerCfg* c) { return (s->vtbl->getCfg)(s, c); }
static inline vek_s32 ISock_setLines(ISock* s, vek_s32 mask, vek_s32 v) { return (s->vtbl->setLines)(s, mask, v); }
static inline vek_s32 ISock_getLines(ISock* s) { return (s->vtbl->getLines)(s); }
static inline vek_s32 ISock_sendBreak(ISock* s, vek_s32 ms) { return (s->vtbl->sendBreak)(s, ms); }
static inline vek_s32 ISock_close(ISock* s) { return (s->vtbl->close)(s); }
static inline vek_s64 ISock_native(ISock* s) { return (s->vtbl->native)(s); }
static inline const char* ISock_className(ISock* s) { return (s->vtbl->className)(s); }

/* Creation: each _x...__ function returns the socket with one reference,
 * or null with the reason in *err (err may be null; 0 on success; -201
 * when memory ran out). */

/* ---- TcpSock: TCP ----
 * flags: VEK_TCP_NUMERIC takes host as a numeric address only (no name
 * service is asked); VEK_TCP_IPV4 / VEK_TCP_IPV6 keep to one family;
 * VEK_TCP_NODELAY sends small writes at once (Nagle off; accepted sockets
 * inherit it from their listener). Read: -851 once the peer closed and
 * its data was read. drain, purge: 0 (nothing to do); serial calls -94.
 * className "TcpSock". */
#define VEK_TCP_NUMERIC 0x01
#define VEK_TCP_IPV4    0x02
#define VEK_TCP_IPV6    0x04
#define VEK_TCP_NODELAY 0x08
/* Connects to host:port within tmo, trying each address the name has in
 * turn: -703, -704, -12, -5, -850. */
VEK_API ISock* TcpSock_xconnect__(const char* host, vek_s32 port, vek_s32 flags, vek_s32 tmo, vek_s32* err,
                                  const char* path, vek_s32 line);
/* Listens on host:port (host null: every address of the family, IPv6
 * taking IPv4 too where the system allows; port 0: one the system picks,
 * see TcpSock_port): -705, -704, -850. accept gives TcpSock clients. */
VEK_API ISock* TcpSock_xlisten__(const char* host, vek_s32 port, vek_s32 flags, vek_s32* err, const char* path,
                                 vek_s32 line);
/* The local port of a TcpSock (a listener's chosen port), or -94. */
VEK_API vek_s32 TcpSock_port(ISock* sock);
/* Turns Nagle's delay off (on != 0) or on: 0, -94. */
VEK_API vek_s32 TcpSock_setNoDelay(ISock* sock, vek_s32 on);

/* ---- LocSock: local stream sockets ----
 * POSIX: a Unix domain socket at the path name (an existing file of that
 * name is -705; the listener removes its file when closed). Windows: the
 * named pipe \\.\pipe\name (name without the prefix), byte mode, one
 * instance per client, remote clients refused, a name another server
 * holds -705 (first-instance flag); the next instance exists before
 * accept hands one out, so a client never finds every instance busy.
 * accept serves one client after another from one thread; every
 * accepted socket is independent of the listener. Read: -851 once the
 * peer closed. className "LocSock". */
VEK_API ISock* LocSock_xconnect__(const char* name, vek_s32 tmo, vek_s32* err, const char* path, vek_s32 line);
VEK_API ISock* LocSock_xlisten__(const char* name, vek_s32* err, const char* path, vek_s32 line);
/* Who is at the other end of a connected LocSock. */
typedef struct VekSockPeer {
    vek_s64 pid;      /* process id */
    vek_s64 uid;      /* POSIX user id; -1 on Windows */
    char sid[192];    /* Windows: the user's SID text ("S-1-5-..."); POSIX "" */
} VekSockPeer;
/* 0 and *peer filled in, -94 (not a connected LocSock), -850. */
VEK_API vek_s32 LocSock_peer(ISock* sock, VekSockPeer* peer);

/* ---- HndSock: a descriptor or handle already open ----
 * POSIX: any descriptor that poll() serves (made non-blocking); Windows: a
 * handle opened for overlapped I/O. own != 0 closes it with the socket.
 * Read: -851 at the end of the stream (the writer closed). Serial calls
 * -94; drain, purge 0. className "HndSock". */
VEK_API ISock* HndSock_xcreate__(vek_s64 hnd, vek_s32 own, const char* path, vek_s32 line);

/* ---- SerSock: serial ports ----
 * POSIX: the device path ("/dev/ttyUSB0"), opened without becoming the
 * controlling terminal, exclusive (TIOCEXCL and an advisory lock, so a
 * second open by any program that honours either is -701), raw (no echo,
 * no line editing, no character translation). Windows: "COM3" or
 * "\\.\COM3", opened exclusive and overlapped; a read returns as soon as
 * any byte arrived. Settings are read back after each change and compared
 * (-702 when the driver changed them; the previous ones then stay).
 * Removal and hang-up (the USB adapter unplugged, the other side of a
 * pseudo-terminal closed) are -700, sticky. A port without modem lines (a
 * pseudo-terminal, some Bluetooth and USB ports) opens and works; only
 * setLines and getLines give -94 there. drain waits for the transmitter to
 * empty (cancellable); purge discards; sendBreak holds a break for ms
 * (cancellable), -94 where the port has none. className "SerSock". */
/* Opens port with cfg (null: VEK_SER_CFG_INIT): -81 for a bad setting
 * (checked before the port is touched), -25 no such port, -701, -702,
 * -850. */
VEK_API ISock* SerSock_xopen__(const char* port, const VekSerCfg* cfg, vek_s32* err, const char* path,
                               vek_s32 line);

VEK_END_DECLS

#endif /* VEK_SOCK_H */
