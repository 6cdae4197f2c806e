/*
 * SpinWait.h - the back-off of the library's spin locks (internal).
 *
 * They guard a few stores at a time, so a waiter first spins with the
 * processor's pause hint, and after that yields: the holder may have been
 * preempted, and with more threads than cores it needs the core to finish.
 */
#ifndef VEK_SPINWAIT_H
#define VEK_SPINWAIT_H

#include <thread>

namespace vek {

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

/* One more round of waiting; spin counts the rounds (start it at 0). */
inline void spin_wait(unsigned& spin) {
    if (++spin < 64) {
        cpu_relax();
    } else {
        std::this_thread::yield();
    }
}

} // namespace vek

#endif /* VEK_SPINWAIT_H */
