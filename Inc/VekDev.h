/*
 * VekDev.h - the serial devices of the machine: USB serial adapters and
 * modems (ttyUSB, ttyACM), on-board ports with hardware behind them,
 * Bluetooth RFCOMM ports and the AT ports of PCIe modems (wwan).
 *
 * The family is portable; wdev_* are the Windows names of the same job.
 * Linux reads sysfs: each /sys/class/tty entry is followed to its device
 * and up to the USB device for its ids, serial number and names; an
 * 8250 port without a UART behind it (type 0) is no device and is left
 * out. The sysfs root is a parameter so that a copy of a tree can be
 * listed. Windows reads the system's serial map (HKLM\HARDWARE\DEVICEMAP\
 * SERIALCOMM): every COM port with the name of its driver's device; USB
 * ids are not known there (-1).
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

VEK_END_DECLS

#endif /* VEK_DEV_H */
