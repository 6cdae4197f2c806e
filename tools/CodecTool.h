/*
 * CodecTool.h - what the codec, digest, SMS, MIME and CSV commands share:
 * input in blocks, hexadecimal in and out, and staged output.
 */
#ifndef CODECTOOL_H
#define CODECTOOL_H

#include <cstring>
#include <string>
#include <vector>
#include "VekTool.h"

namespace codectool {

inline bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/*
 * Feeds the input to eat(data, n, last) in pieces whose length is a
 * multiple of unit, except the last one (last set), which holds what is
 * left (it may be empty). eat returns false to stop after its message.
 */
template <class Eat>
bool each_block(vektool::Reader& in, std::size_t unit, Eat eat) {
    std::vector<char> buf(vektool::kChunk / unit * unit + unit);
    std::size_t have = 0;
    for (;;) {
        long n = in.read(buf.data() + have, buf.size() - have);
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            return eat((const char*)buf.data(), have, true);
        }
        have += (std::size_t)n;
        std::size_t whole = have / unit * unit;
        if (whole && !eat((const char*)buf.data(), whole, false)) {
            return false;
        }
        std::memmove(buf.data(), buf.data() + whole, have - whole);
        have -= whole;
    }
}

/* Output gathered into large writes. */
class Staged {
  public:
    Staged() : buf_(vektool::kChunk) {}
    ~Staged() { flush(); }
    Staged(const Staged&) = delete;
    Staged& operator=(const Staged&) = delete;
    void put(const char* p, std::size_t n) {
        if (n > buf_.size() - used_) {
            flush();
            if (n > buf_.size()) {
                vektool::write_out(p, n);
                return;
            }
        }
        std::memcpy(buf_.data() + used_, p, n);
        used_ += n;
    }
    void put(char c) {
        if (used_ == buf_.size()) {
            flush();
        }
        buf_[used_++] = c;
    }
    void flush() {
        vektool::write_out(buf_.data(), used_);
        used_ = 0;
    }

  private:
    std::vector<char> buf_;
    std::size_t used_ = 0;
};

/* Hexadecimal text given on the command line (blanks ignored) as bytes;
 * false when a character is not a hexadecimal digit or the count is odd. */
inline bool from_hex(const std::string& text, std::vector<vek_u8>& out) {
    std::string h;
    for (char c : text) {
        if (!is_blank(c)) {
            h += c;
        }
    }
    if (h.size() % 2 || h.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return false;
    }
    out.resize(h.size() / 2 + 1);
    out.resize((size_t)ira_dec_str_to_buf(h.c_str(), out.data(), (vek_s32)out.size()));
    return true;
}

/* Bytes as one line of lower-case hexadecimal on standard output. */
inline void put_hex_line(const vek_u8* data, size_t n) {
    std::string s(2 * n + 2, '\0');
    vek_s32 len = n ? ira_enc_buf_from_buf(&s[0], (vek_s32)s.size(), data, (vek_s32)n) : 0;
    s.resize((size_t)len);
    s += '\n';
    vektool::write_out(s.data(), s.size());
}

/*
 * Hexadecimal text read in pieces: blanks and line ends skipped, the digits
 * handed to eat(digits, n, last) an even number at a time (a terminated
 * copy, so the library's text decoders can take it). False after the
 * message on a character that is not a digit, an odd count, or when eat
 * stops.
 */
template <class Eat>
bool each_hex(vektool::Reader& in, Eat eat) {
    std::vector<char> text(vektool::kChunk + 2);
    std::size_t have = 0;
    long long offset = 0;
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        for (std::size_t i = 0; i < n; i++) {
            char c = p[i];
            if (is_blank(c)) {
                continue;
            }
            if (!((c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f'))) {
                in.fail("byte " + std::to_string(offset + (long long)i) + " is not a hexadecimal digit");
                return false;
            }
            text[have++] = c;
        }
        offset += (long long)n;
        std::size_t even = have & ~(std::size_t)1;
        char keep = text[even];
        text[even] = 0;
        if (even && !eat(text.data(), even)) {
            return false;
        }
        text[0] = keep;
        have -= even;
        return true;
    });
    if (ok && have) {
        in.fail("an odd number of hexadecimal digits");
        return false;
    }
    return ok;
}

} // namespace codectool

#endif
