/* The reading of a Linux kernel uevent message, shared by the serial
 * device watch (VekDev) and the disc watch (MonParse), which keep
 * different fields of it. Portable: recorded messages read the same on
 * every system. */
#ifndef VEK_UEVENT_H
#define VEK_UEVENT_H

#include <cstddef>
#include <cstring>

namespace vek {

/* Walks msg (len bytes): the header "ACTION@DEVPATH" ended by a NUL, then
 * KEY=value fields, each ended by a NUL (the last may lack it). Calls
 * field(key, keyLen, val, valLen) for each non-empty field, val null for a
 * field without '='; a false from field ends the walk. False when msg has
 * no header (udev's own messages start otherwise) or field said stop. */
template <class Field>
bool uevent_walk(const char* msg, size_t len, Field&& field) {
    const char* end = msg + len;
    const char* hdrEnd = (const char*)std::memchr(msg, 0, len);
    hdrEnd = hdrEnd ? hdrEnd : end;
    if (!std::memchr(msg, '@', (size_t)(hdrEnd - msg))) {
        return false;
    }
    for (const char* f = hdrEnd; f < end; f++) {
        const char* fEnd = (const char*)std::memchr(f, 0, (size_t)(end - f));
        fEnd = fEnd ? fEnd : end;
        if (fEnd == f) {
            continue;  // the header's terminator, or an empty field
        }
        const char* eq = (const char*)std::memchr(f, '=', (size_t)(fEnd - f));
        bool go = eq ? field(f, (size_t)(eq - f), eq + 1, (size_t)(fEnd - eq - 1))
                     : field(f, (size_t)(fEnd - f), (const char*)nullptr, (size_t)0);
        if (!go) {
            return false;
        }
        f = fEnd;
    }
    return true;
}

} // namespace vek

#endif /* VEK_UEVENT_H */
