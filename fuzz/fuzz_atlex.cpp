/*
 * The modem-response lexer on any bytes, in chunks the input picks. The
 * tokens must not depend on the chunking (the same bytes fed one at a time
 * give the same tokens), a token's text holds no line end or NUL and never
 * more than the line limit, and every byte is taken.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "BaseLib.h"
#include "FuzzReader.h"

namespace {

void check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

struct Seen {
    vek_s32 kind, code;
    std::string text;
    bool operator==(const Seen& o) const { return kind == o.kind && code == o.code && text == o.text; }
};

std::vector<Seen> run(const std::string& in, vek_s32 flags, vekfuzz::Reader* chunks, const char* echo) {
    VekLex* lex = VekLex_new(32, flags);
    check(lex != nullptr);
    VekLex_addPrefix(lex, "#X:", VEK_LEX_URC, 2, 0);
    VekLex_setEcho(lex, echo);
    std::vector<Seen> out;
    size_t at = 0;
    while (at < in.size()) {
        size_t n = chunks ? 1 + chunks->byte() % 9 : 1;
        n = n < in.size() - at ? n : in.size() - at;
        VekLexTok t;
        vek_s32 used = VekLex_feed(lex, in.data() + at, (vek_s32)n, &t);
        check(used > 0 && (size_t)used <= n);
        at += (size_t)used;
        if (t.kind == VEK_LEX_NONE) {
            check((size_t)used == n);
            continue;
        }
        check(t.len >= 0 && t.len <= 32 && t.text[t.len] == 0);
        check(std::memchr(t.text, '\r', (size_t)t.len) == nullptr && std::memchr(t.text, '\n', (size_t)t.len) == nullptr);
        check(t.arg >= t.text && t.arg + t.argLen == t.text + t.len);
        check(std::strcmp(VekLex_kindName(t.kind), "?") != 0);
        out.push_back({t.kind, t.code, std::string(t.text, (size_t)t.len)});
    }
    VekLex_delete(lex);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vekfuzz::Reader r{data, size};
    vek_s32 flags = (vek_s32)(r.byte() & 3);
    std::string echo = r.bytes(12);
    std::string chunkBytes = r.bytes(64);
    std::string in((const char*)r.p, r.n);
    vekfuzz::Reader chunks{(const uint8_t*)chunkBytes.data(), chunkBytes.size()};
    const char* e = echo.empty() || echo.find('\0') != std::string::npos ? nullptr : echo.c_str();
    check(run(in, flags, &chunks, e) == run(in, flags, nullptr, e));
    return 0;
}
