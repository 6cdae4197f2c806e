/*
 * AlPipe.cpp (Windows) - endpoints by logical name (VekPipe.h) as named
 * pipes "vek-NAME".
 *
 * A pipe lives only as long as its server, so there is no stale name to
 * take over: a name that answers is a live server or a squatter, and the
 * first-instance flag of the listener refuses both. Who may open the pipe
 * is its DACL (the current user, or every authenticated user).
 */
#include <windows.h>
#include <cstdio>
#include <cstring>
#include "AlSock.h"
#include "VekCore.h"

namespace plat {

vek_s32 pipe_addr(const char* name, char* out, size_t cap) {
    int n = std::snprintf(out, cap, "vek-%s", name);
    return n < 0 || (size_t)n >= cap ? VEK_ERR_BAD_ARG : 0;
}

vek_s32 pipe_listen(const char* addr, bool anyUser, SockSys* out) {
    return loc_listen(addr, out, anyUser ? LocAccess::kAnyUser : LocAccess::kUser);
}

bool pipe_same_user(const VekSockPeer* peer) {
    char own[192];
    process_sid(GetCurrentProcessId(), own, sizeof own);
    return own[0] != 0 && std::strcmp(own, peer->sid) == 0;
}

} // namespace plat
