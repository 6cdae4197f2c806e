/*
 * FuzzReader.h - reads a fuzz input as a program: one byte at a time
 * (zeros once it runs out) or a run of bytes whose length the input picks.
 */
#ifndef VEK_FUZZ_READER_H
#define VEK_FUZZ_READER_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace vekfuzz {

struct Reader {
    const uint8_t* p;
    size_t n;
    bool more() const { return n > 0; }
    uint32_t byte() {
        if (!n) {
            return 0;
        }
        n--;
        return *p++;
    }
    std::string bytes(size_t max) {
        size_t k = byte() % (max + 1);
        k = k < n ? k : n;
        std::string s((const char*)p, k);
        p += k;
        n -= k;
        return s;
    }
};

} // namespace vekfuzz

#endif /* VEK_FUZZ_READER_H */
