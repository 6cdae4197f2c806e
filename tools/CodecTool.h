/*
 * CodecTool.h - what the codec, SMS, MIME and CSV commands share: reading
 * their input, hexadecimal in and out, and small option parsing.
 */
#ifndef CODECTOOL_H
#define CODECTOOL_H

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "VekTool.h"

namespace codectool {

/* The input named by the one optional argument (standard input when it is
 * absent or "-"); false after the error message. */
inline bool input(const char* what, int argc, char** argv, std::string& out) {
    return vektool::read_input(what, argc > 0 ? argv[0] : "-", out);
}

/* The text without blanks, tabs and line ends. */
inline std::string no_space(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n') {
            out += c;
        }
    }
    return out;
}

/* Hexadecimal text (blanks and line ends ignored) as bytes; false when a
 * character is not a hexadecimal digit or the count is odd. */
inline bool from_hex(const std::string& text, std::vector<vek_u8>& out) {
    std::string h = no_space(text);
    if (h.size() % 2 || h.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return false;
    }
    out.resize(h.size() / 2 + 1);
    out.resize((size_t)ira_dec_str_to_buf(h.c_str(), out.data(), (vek_s32)out.size()));
    return true;
}

/* Bytes as one line of lower-case hexadecimal on standard output. */
inline void put_hex_line(const vek_u8* data, size_t n) {
    VekStr s;
    VekStr_new(&s);
    if (n) {
        ira_enc_cstr_from_buf(&s, data, (vek_s32)n);
    }
    VekStr_appdChar(&s, '\n');
    vektool::write_out(VekStr_buf(&s), (size_t)VekStr_len(&s));
    VekStr_delete(&s);
}

/* Takes "NAME VALUE" options off the front of the arguments: returns false
 * for a bad value (not a number in lo..hi). */
inline bool int_option(int& argc, char**& argv, const char* name, int lo, int hi, int& value) {
    while (argc >= 2 && !std::strcmp(argv[0], name)) {
        char* end = nullptr;
        long v = std::strtol(argv[1], &end, 10);
        if (!*argv[1] || *end || v < lo || v > hi) {
            return false;
        }
        value = (int)v;
        argc -= 2;
        argv += 2;
    }
    return true;
}

/* Takes a flag off the front of the arguments; true when it was there. */
inline bool flag(int& argc, char**& argv, const char* name) {
    if (argc >= 1 && !std::strcmp(argv[0], name)) {
        argc--;
        argv++;
        return true;
    }
    return false;
}

/* A data error in the input: the message, then exit code 2. */
inline int bad_input(const char* what, int argc, char** argv, const char* reason) {
    return vektool::fail(what, argc > 0 ? argv[0] : "-", reason);
}

} // namespace codectool

#endif
