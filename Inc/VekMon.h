/*
 * VekMon.h - file monitors (FileMon: what changes in a folder) and disc
 * monitors (DiscMon: file systems mounted and unmounted, removable media
 * arriving and leaving).
 *
 * A monitor is read in one of two ways, chosen when it is made:
 *  - pulled: cb null; the owner calls FileMon_read / DiscMon_read, which
 *    waits (cancellable: -5 on vek_thrd_cancel or vek_call_cancel, -12 at
 *    the time-out) and returns one event at a time;
 *  - pushed: cb given; a thread of the monitor waits for the system and
 *    the events reach cb(ctx, evt) on the thread that made the monitor,
 *    through its event-receive queue (VekErp.h): that thread must dispatch
 *    (vek_erp_run, or any message-pumping wait). Delete the monitor on that
 *    thread to be sure no callback runs after the delete.
 * The strings of an event stay valid until the next read (pulled) or until
 * the callback returns (pushed).
 *
 * Never silent: whenever events may have been lost the monitor says so
 * with a VEK_MON_RESCAN event for the folder to look at again: when the
 * system's queue overflowed (Linux IN_Q_OVERFLOW; Windows: a completion
 * with no data, or ERROR_NOTIFY_ENUM_DIR), err 0; when the system would
 * watch no more folders (Linux max_user_watches), err -797
 * (VEK_ERR_WATCH_LIMIT) and path the folder left unwatched; when a new
 * folder of a recursive watch could not be watched or listed for another
 * reason than being gone or closed to the user, err -850 (VEK_ERR_IO) and
 * path that folder.
 *
 * FileMon paths are relative to the watched folder ("" is the folder
 * itself), with the system's separator. A rename within the watched tree
 * is one VEK_MON_RENAMED event with both names; moved in from outside it
 * is VEK_MON_ADDED, moved out VEK_MON_REMOVED. Repeated changes of one file
 * that arrive together are one VEK_MON_CHANGED. With VEK_FILEMON_RECURSIVE
 * the whole tree is watched, also folders made later: on Linux a new
 * folder is watched as soon as it is reported, and on both systems it is
 * then listed, so entries made in it before its watch existed or that the
 * system does not report (mkdir -p, a tree moved in) are reported as
 * VEK_MON_ADDED with VEK_MON_SCANNED (an entry reported both ways comes
 * once). When the watched folder
 * itself is removed, VEK_MON_REMOVED with path "" comes last and reads
 * then return -202.
 *
 * DiscMon: Linux watches /proc/self/mountinfo (a mount or unmount anywhere
 * in the process's view) and the kernel's block-device announcements
 * (media: path "/dev/sdb", a card put into a reader); Windows looks at the
 * drives every half second (a drive letter that comes or goes, a medium
 * put into or taken out of a removable drive: path "E:\").
 *
 * Results: 0 / an event; -5, -12 (reads); -25 the folder does not exist;
 * -64 it cannot be opened (not a folder, no access); -797 the watch limit
 * (FileMon_new); -202 after the folder was removed; -95 FileMon_read on a
 * pushed monitor; -201 out of memory; -81 bad arguments (null pointers
 * assert); -94 where the system has no such monitor.
 */
#ifndef VEK_MON_H
#define VEK_MON_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Event types. */
#define VEK_MON_ADDED         1  /* made, or moved in */
#define VEK_MON_REMOVED       2  /* deleted, or moved out */
#define VEK_MON_CHANGED       3  /* content or attributes written */
#define VEK_MON_RENAMED       4  /* oldPath is now path */
#define VEK_MON_RESCAN        5  /* events may have been lost under path */
#define VEK_MON_MOUNTED       6  /* a file system is mounted at path */
#define VEK_MON_UNMOUNTED     7  /* the file system at path is gone */
#define VEK_MON_MEDIA_ADDED   8  /* a medium arrived (path: the device or drive) */
#define VEK_MON_MEDIA_REMOVED 9  /* a medium left */

/* Event flags. */
#define VEK_MON_DIR       0x1  /* the entry is a folder */
#define VEK_MON_SCANNED   0x2  /* found by listing a new folder */
#define VEK_MON_REMOVABLE 0x4  /* on a removable medium (DiscMon) */

typedef struct VekMonEvt {
    vek_s32 type;
    vek_s32 flags;
    vek_s32 err;          /* VEK_MON_RESCAN: 0, -797 or -850 */
    const char* path;
    const char* oldPath;  /* RENAMED: the old path; DiscMon: the device or source; else "" */
    const char* fsType;   /* DiscMon: the file system type ("ext4", "NTFS"); else "" */
} VekMonEvt;

/* A pushed monitor's callback, on the thread that made the monitor. */
typedef void (*vek_mon_cb)(void* ctx, const VekMonEvt* evt);

/* ---- file monitors ---- */
typedef struct FileMon FileMon;
#define VEK_FILEMON_RECURSIVE 0x1

/* Watches the folder dir (UTF-8); *mon receives the monitor. Changes made
 * once this returns are reported. */
VEK_API vek_s32 FileMon_new(const char* dir, vek_s32 flags, vek_mon_cb cb, void* ctx, FileMon** mon);
/* The next event into *evt: 0, or -5, -12, -202, -95. */
VEK_API vek_s32 FileMon_read(FileMon* mon, VekMonEvt* evt, vek_s32 tmo, vek_s32 flags);
/* Stops watching and frees the monitor (null: nothing). */
VEK_API void FileMon_delete(FileMon* mon);

/* ---- disc monitors ---- */
typedef struct DiscMon DiscMon;

/* Watches the mounts and removable media; *mon receives the monitor (-94
 * where the system offers no such watch). */
VEK_API vek_s32 DiscMon_new(vek_mon_cb cb, void* ctx, DiscMon** mon);
/* The next event into *evt: 0, or -5, -12, -95. */
VEK_API vek_s32 DiscMon_read(DiscMon* mon, VekMonEvt* evt, vek_s32 tmo, vek_s32 flags);
/* Stops watching and frees the monitor (null: nothing). */
VEK_API void DiscMon_delete(DiscMon* mon);

/* The name of an event type ("added", "removed", "changed", "renamed",
 * "rescan", "mounted", "unmounted", "media-added", "media-removed"; "?"). */
VEK_API const char* vek_mon_type_name(vek_s32 type);

VEK_END_DECLS

#endif /* VEK_MON_H */
