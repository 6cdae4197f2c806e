/*
 * VekDev.h - the serial devices of the machine: USB serial adapters and
 * modems (ttyUSB, ttyACM), on-board ports with hardware behind them,
 * Bluetooth RFCOMM ports and the AT ports of PCIe modems (wwan).
 *
 * The family is portable: the same vek_dev_* calls on both systems, rather
 * than a Windows-only wdev_* set (the library's prefix for calls that
 * exist on Windows alone) beside a POSIX one.
 * Linux reads sysfs: each /sys/class/tty entry is followed to its device
 * and up to the USB device for its ids, serial number and names; an
 * 8250 port without a UART behind it (type 0) is no device and is left
 * out. The sysfs root is a parameter so that a copy of a tree can be
 * listed. Windows asks SetupAPI for the COM-port interfaces and the
 * Modem class (USB ids and interface from the hardware id, the serial
 * number from the USB device's instance id, the friendly name as the
 * description) and adds the ports only the system's serial map
 * (HKLM\HARDWARE\DEVICEMAP\SERIALCOMM) knows, virtual ones among them,
 * with the name of their driver's device and ids -1.
 */
#ifndef VEK_DEV_H
#define VEK_DEV_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* What kind of port a device is. */
#define VEK_DEV_OTHER 0
#define VEK_DEV_USB   1  /* a USB adapter or modem interface */
#define VEK_DEV_UART  2  /* an on-board or PCI UART */
#define VEK_DEV_BT    3  /* Bluetooth RFCOMM */
#define VEK_DEV_WWAN  4  /* a PCIe modem's AT port */

typedef struct VekDevInfo {
    char path[128];      /* what SerSock opens: "/dev/ttyUSB0", "COM3" */
    vek_s32 kind;        /* VEK_DEV_* */
    vek_s32 vid;         /* USB vendor id, -1 when not USB */
    vek_s32 pid;         /* USB product id, -1 when not USB */
    vek_s32 iface;       /* USB interface number, -1 when unknown */
    char serial[128];    /* USB serial number, "" when none */
    char driver[64];     /* the kernel or Windows driver, "" when unknown */
    char desc[256];      /* readable: "Quectel EG25-G", "Bluetooth RFCOMM", ... */
} VekDevInfo;

/* Lists the serial devices into devs (room for cap, which may be 0),
 * sorted by path. root is the sysfs root (null: "/sys"; ignored on
 * Windows). Returns how many there are (more than cap: call again with
 * more room), or -850 when the list cannot be read (errno /
 * GetLastError). Texts are UTF-8, cut to their fields. */
VEK_API vek_s32 vek_dev_list_serial(const char* root, VekDevInfo* devs, vek_s32 cap);

/* ---- Watching arrivals and removals ----
 * Linux listens to the kernel's uevents (a NETLINK_KOBJECT_UEVENT socket)
 * for the tty and wwan devices the list above reports; Windows registers
 * for COM-port interface notifications (CM_Register_Notification). An
 * arrival carries what the list says of the device; a removal carries
 * what the watch knew of it (from the list at open or its arrival), else
 * the path with the ids -1. On Linux udev may still be setting the node's
 * owner and mode when the arrival is reported: a first open may fail with
 * a permission error and succeed a moment later. One thread at a time
 * calls vek_dev_watch_next; vek_dev_watch_close after it has returned. */
#define VEK_DEV_ARRIVED 1
#define VEK_DEV_REMOVED 2
#define VEK_DEV_RESYNC  3  /* the system dropped events: list the devices again */

typedef struct VekDevEvent {
    vek_s32 action;      /* VEK_DEV_ARRIVED, VEK_DEV_REMOVED, VEK_DEV_RESYNC */
    char syspath[256];   /* Linux: the kernel's DEVPATH; Windows: the interface's
                            symbolic link; "" for VEK_DEV_RESYNC */
    VekDevInfo dev;      /* dev.path always (but for VEK_DEV_RESYNC); the rest as
                            known, ids -1 and texts "" otherwise */
} VekDevEvent;

typedef struct VekDevWatch VekDevWatch;

/* Starts watching. root as vek_dev_list_serial (Linux: where arrivals are
 * described; null: "/sys"). *out is the watch, or null on error: 0, -707
 * (the system gives no device notifications here: a container without
 * kernel uevents, a Windows without CM_Register_Notification), -850,
 * -201 (memory ran out). */
VEK_API vek_s32 vek_dev_watch_open(const char* root, VekDevWatch** out);
/* The next arrival or removal into *ev, waiting up to tmo ms (negative: no
 * limit): 0, -5 when the thread or the call is cancelled (unless flags has
 * VEK_WAIT_FORBID_ABORT), -12 at the time-out, -850. Events the watch has
 * no use for (other devices, other actions) are skipped inside the wait. */
VEK_API vek_s32 vek_dev_watch_next(VekDevWatch* w, VekDevEvent* ev, vek_s32 tmo, vek_s32 flags);
/* Stops watching and frees w (null is ignored). */
VEK_API void vek_dev_watch_close(VekDevWatch* w);

/* Reads one kernel uevent message (Linux's "ACTION@DEVPATH" header and
 * KEY=value fields, each ended by a NUL; len bytes): 1 with *ev filled
 * (action, syspath, dev.path "/dev/DEVNAME", dev.kind from the name, ids
 * -1) when it is the arrival or removal of a serial device the list would
 * report, 0 when it is another device or action, -81 when msg is not a
 * uevent (no header, a field without '=', no ACTION, DEVPATH or
 * SUBSYSTEM). Portable: recorded messages read the same everywhere. */
VEK_API vek_s32 vek_dev_uevent_parse(const void* msg, vek_s32 len, VekDevEvent* ev);

/* Finds the device at path ("/dev/ttyUSB0", "COM3") in the list: 0 with
 * *dev filled, -25 when the list has no such device, or the list's error. */
VEK_API vek_s32 vek_dev_find_serial(const char* root, const char* path, VekDevInfo* dev);

VEK_END_DECLS

#endif /* VEK_DEV_H */
