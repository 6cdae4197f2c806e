/*
 * AlSock.h - what each system gives the socket classes (VekSock.h): the
 * transports' system calls, behind one contract (internal).
 *
 * The portable layer (VekSock.cpp) keeps the object, checks arguments and
 * settings before anything reaches the system, and makes the final codes
 * sticky; each system's AlSock.cpp and AlSer.cpp open, wait, read and
 * write. Every blocking function waits through the abortable waits of
 * VekIoWait.h, so its results are theirs (-5, -12) besides the transport
 * codes of VekSock.h.
 */
#ifndef VEK_ALSOCK_H
#define VEK_ALSOCK_H

#include "VekSock.h"

namespace plat {

/* A socket's system side. h is the descriptor (POSIX) or the HANDLE /
 * SOCKET (Windows), kNoSock once closed; dev marks a device (a serial
 * port), whose end of stream and I/O errors mean "removed" (-700) where a
 * connection's mean "peer closed" (-851); ext is what the system keeps
 * beside the handle (null when nothing). */
constexpr vek_s64 kNoSock = -1;
struct SockSys {
    vek_s64 h = kNoSock;
    bool dev = false;
    bool local = false;   // a local stream socket (Unix socket, named pipe)
    bool server = false;  // the server's end of a local connection
    bool wsa = false;     // a Winsock SOCKET holding a WSAStartup reference
    void* ext = nullptr;
};

vek_s32 tcp_connect(const char* host, vek_s32 port, vek_s32 flags, vek_s32 tmo, SockSys* out);
vek_s32 tcp_listen(const char* host, vek_s32 port, vek_s32 flags, SockSys* out);
vek_s32 tcp_port(const SockSys* s);
vek_s32 tcp_nodelay(SockSys* s, bool on);
vek_s32 loc_connect(const char* name, vek_s32 tmo, SockSys* out);
/* Who may open a local listener: kDefault as the system makes it (the
 * umask; the default DACL), kUser the current user alone (socket 0600; a
 * DACL with that user only), kAnyUser every local user (0666; a DACL for
 * the users authenticated on this machine). */
enum class LocAccess { kDefault, kUser, kAnyUser };
vek_s32 loc_listen(const char* name, SockSys* out, LocAccess access = LocAccess::kDefault);
vek_s32 loc_peer(const SockSys* s, VekSockPeer* peer);
/* The next client of a listener (TCP or local, as l->local says). */
vek_s32 sock_accept(SockSys* l, vek_s32 tmo, SockSys* out);
/* Takes an open descriptor or handle for reads and writes. */
vek_s32 hnd_adopt(vek_s64 h, SockSys* out);
/* What has arrived (> 0), or -202 at the end of the stream, -851, -700
 * (devices), -850; write everything (as vek_fd_swrite). */
vek_s32 sock_read(SockSys* s, void* buf, vek_s32 len, vek_s32 tmo);
vek_s32 sock_write(SockSys* s, const void* data, vek_s32 len, vek_s32 tmo);
/* Closes h unless own is false, frees ext; a local listener's file named
 * name (when not null) is removed. */
void sock_close(SockSys* s, bool own, const char* name);

/* Serial ports: opened exclusive and raw, without settings: 0, -25 (no
 * such port), -701, -850. */
vek_s32 ser_open(const char* path, SockSys* out);
/* Sets cfg (already checked), reads the settings back and compares: 0, or
 * -702 with the previous settings restored. */
vek_s32 ser_set(SockSys* s, const VekSerCfg* cfg);
vek_s32 ser_get(SockSys* s, VekSerCfg* cfg);
vek_s32 ser_drain(SockSys* s, vek_s32 tmo);
vek_s32 ser_purge(SockSys* s, vek_s32 what);
vek_s32 ser_set_lines(SockSys* s, vek_s32 mask, vek_s32 values);
vek_s32 ser_get_lines(SockSys* s);
vek_s32 ser_break(SockSys* s, vek_s32 ms);

/* ---- endpoints by logical name (VekPipe.h) ---- */

/* The system address of a logical name (already checked): POSIX the
 * socket's path in the private runtime folder, which is created and
 * checked first; Windows the pipe name "vek-NAME". 0, -81 (no room), -761
 * (the folder is not private), -850. */
vek_s32 pipe_addr(const char* name, char* out, size_t cap);
/* Listens at addr. POSIX: a socket file left by a dead server (connect is
 * refused) is removed and the name taken; a live one gives -705. Both
 * under a lock file beside the socket, so two servers starting together
 * never remove each other's socket. */
vek_s32 pipe_listen(const char* addr, bool anyUser, SockSys* out);
/* Whether peer runs as the current user (uid, or SID on Windows). */
bool pipe_same_user(const VekSockPeer* peer);
#ifdef _WIN32
/* The user SID text of a process, "" when it cannot be read. */
void process_sid(unsigned long pid, char* out, size_t cap);
#endif

} // namespace plat

namespace vek {
/* The socket object around a local connection or listener the platform
 * opened (VekSock.cpp): null with the system object closed and *err -201
 * when memory ran out. name: a listener's address, removed at close. */
ISock* loc_sock_wrap(const plat::SockSys& sys, bool listener, const char* name, vek_s32* err);
} // namespace vek

#endif /* VEK_ALSOCK_H */
