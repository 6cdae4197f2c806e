/*
 * AlDev.h - what each system gives the device watch (VekDev.h), behind
 * one contract (internal).
 *
 * The portable layer (VekDev.cpp) owns the watch: it describes arrivals
 * from the device list and remembers every device it has seen, so that a
 * removal still names the modem that went away. The system side only
 * delivers raw arrivals and removals of serial devices: the kernel's
 * uevents on Linux (posix/AlDev.cpp), COM-port interface notifications on
 * Windows (win/AlDev.cpp).
 */
#ifndef VEK_ALDEV_H
#define VEK_ALDEV_H

#include "VekDev.h"

namespace plat {

struct DevWatchSys;

/* Opens the system's notifications: 0, -707 (none here), -850, -201. */
vek_s32 devw_open(DevWatchSys** out);
/* The next arrival, removal or VEK_DEV_RESYNC of a serial device, waiting
 * through the abortable waits: 0 with ev's action, syspath, dev.path and
 * dev.kind set (the ids -1), -5, -12, -850. */
vek_s32 devw_next(DevWatchSys* s, VekDevEvent* ev, vek_s32 tmo, vek_s32 flags);
void devw_close(DevWatchSys* s);

} // namespace plat

namespace vek {

/* The kind of serial device a kernel device name stands for (VEK_DEV_*),
 * or -1 when the list leaves it out: ttyUSB and ttyACM, ttyS, rfcomm in
 * the tty class; the AT ports ("wwan0at0") in the wwan class. The list
 * and the uevent reader judge names alike through it. */
vek_s32 dev_kind_of(const char* name, bool wwanClass);

} // namespace vek

#endif /* VEK_ALDEV_H */
