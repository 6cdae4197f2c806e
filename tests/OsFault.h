/*
 * OsFault.h - walks an operation through the failure of each of its
 * system calls in turn (vek_os_fail_at__ with VEK_OS_IO: the transports,
 * serial ports, endpoints, device list and monitors on POSIX).
 */
#ifndef VEK_OSFAULT_H
#define VEK_OSFAULT_H

#include <initializer_list>
#include "VekTest.h"

namespace vektest {

/* Whether r is one of the codes in ok. */
inline bool one_of(vek_s32 r, std::initializer_list<vek_s32> ok) {
    for (vek_s32 c : ok) {
        if (r == c) {
            return true;
        }
    }
    return false;
}

/* Runs op with its k-th system call failing, k = 1, 2, ..., until a run
 * makes fewer than k calls; op(k) runs the whole operation, releasing
 * what it made, and returns 0 when everything worked. A run that met no
 * failure must work: a failure before it that left a port locked, a name
 * taken or a descriptor open shows there. Returns how many runs met a
 * failure. */
template <class Op>
int os_io_sweep(Op op, int limit = 300) {
    for (int k = 1; k <= limit; k++) {
        vek_os_fail_at__(VEK_OS_IO, k);
        vek_s32 r = op(k);
        if (!vek_os_fail_at__(VEK_OS_IO, 0)) {
            EXPECT_EQ(0, r) << "the run without a failure (" << k << " calls)";
            return k - 1;
        }
    }
    ADD_FAILURE() << "more than " << limit << " system calls";
    return limit;
}

/* Disarms the failures at the end of a test, also one that failed half
 * way through a sweep. */
struct OsIoDisarm {
    ~OsIoDisarm() {
        vek_os_fail_at__(VEK_OS_IO, 0);
        vek_os_fail_errno__(0);
    }
};

} // namespace vektest

#endif /* VEK_OSFAULT_H */
