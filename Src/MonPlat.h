/*
 * MonPlat.h - the platform contract of the file and disc monitors
 * (internal), and the portable parsers of what Linux tells about mounts
 * and block devices (MonParse.cpp).
 *
 * posix/AlMon.cpp and win/AlMon.cpp implement the watches: each turns what
 * its system reports into MonEvt records, in order, pairing renames and
 * never dropping a sign of lost events (VEK_MON_RESCAN). The portable
 * monitor (VekMon.cpp) hands them out one at a time or pushes them to the
 * owner's event-receive queue. Memory comes from the tracked heap through
 * the containers' allocator, which throws std::bad_alloc; the platform
 * calls catch it and answer -201.
 */
#ifndef VEK_MONPLAT_H
#define VEK_MONPLAT_H

#include <deque>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>
#include "VekAlloc.h"
#include "VekMon.h"

namespace vek {

/* One event as a monitor keeps it. */
struct MonEvt {
    vek_s32 type = 0;
    vek_s32 flags = 0;
    vek_s32 err = 0;
    VString path, oldPath, fsType;
};
using MonQue = std::deque<MonEvt, HeapAllocator<MonEvt>>;

/* Appends one event to q (may throw std::bad_alloc). */
inline void mon_push(MonQue& q, vek_s32 type, vek_s32 flags, VString path, VString old = VString(), vek_s32 err = 0) {
    MonEvt e;
    e.type = type;
    e.flags = flags;
    e.err = err;
    e.path = std::move(path);
    e.oldPath = std::move(old);
    q.push_back(std::move(e));
}

/* A sign that events may have been lost: whoever keeps a copy of the tree
 * looks at it again. err says why when the system told (-797: out of
 * watches), else 0; path is the folder to look at, "" for the whole tree. */
inline void mon_rescan(MonQue& q, VString path = VString(), vek_s32 err = 0) {
    mon_push(q, VEK_MON_RESCAN, VEK_MON_DIR, std::move(path), VString(), err);
}

/* A set of relative paths. */
struct PathHash {
    size_t operator()(const VString& s) const { return std::hash<std::string_view>()(std::string_view(s.data(), s.size())); }
};
using PathSet = std::unordered_set<VString, PathHash, std::equal_to<VString>, HeapAllocator<VString>>;

/* What a recursive watch found by listing a folder that appeared in it.
 * What was made in such a folder before its watch existed (mkdir -p, a
 * tree moved in) is reported by nobody else, so the watch lists it; the
 * system may still report some of it a moment later, in the read that
 * listed it or the next one, and that second report is dropped. Both
 * systems' watches keep one of these (VekMon.cpp). */
class ListedPaths {
  public:
    /* A read begins: what the read before the previous one listed can no
     * longer come again. */
    void next_read();
    /* Reports path as found by listing (ADDED, SCANNED) and remembers it. */
    void found(MonQue& q, const VString& path, bool isDir);
    /* Whether the system's report of path repeats a listing's (then
     * forgotten: a later report is a change of its own). */
    bool repeats(const VString& path);

  private:
    PathSet now_, before_;
};

/* One line of /proc/self/mountinfo: the mount's id, where it is mounted,
 * what is mounted there and the file system's type (octal escapes such as
 * "\040" undone). */
struct MountEnt {
    vek_s32 id = 0;
    VString mountPoint, source, fsType;
};
using MountList = std::vector<MountEnt, HeapAllocator<MountEnt>>;
/* Appends the mounts of a mountinfo text to out; a line that does not
 * have the format is skipped. */
void mountinfo_parse(const char* text, size_t len, MountList& out);

/* A kernel announcement of a device ("ACTION@DEVPATH" and NUL-separated
 * KEY=VALUE fields). */
struct UEvent {
    VString action, subsystem, devName, devType;
    bool mediaChange = false;  /* DISK_MEDIA_CHANGE=1: a medium came or went */
};
/* Parses one announcement; false when it is not one. */
bool uevent_parse(const char* msg, size_t len, UEvent& out);

} // namespace vek

namespace plat {

/* A watch of one folder (and its tree when recursive). open: 0, -25, -64,
 * -797, -201. read waits for events and appends them to q: how many (>
 * 0), or -5, -12, -202 (the folder is gone: nothing more comes), -201.
 * close ends the watch; a read that runs at the same time is not allowed. */
struct FileWatch;
vek_s32 filewatch_open(const char* dir, bool recursive, FileWatch** out);
vek_s32 filewatch_read(FileWatch* w, vek::MonQue& q, vek_s32 tmo, vek_s32 flags);
void filewatch_close(FileWatch* w);

/* A watch of the mounts and removable media: as above; open 0, -201 or
 * -94. */
struct DiscWatch;
vek_s32 discwatch_open(DiscWatch** out);
vek_s32 discwatch_read(DiscWatch* w, vek::MonQue& q, vek_s32 tmo, vek_s32 flags);
void discwatch_close(DiscWatch* w);

} // namespace plat

#endif /* VEK_MONPLAT_H */
