/*
 * CallStack.cpp - call stacks as text. Capturing and symbol lookup are the
 * platform's (the debug-help library on Windows, backtrace and dladdr on
 * POSIX); the line layout is the library's own.
 */
#include <cstring>
#include "AlPlat.h"
#include "VekCore.h"

namespace {

constexpr vek_s32 kDefaultMaxFrames = 128;

// The platform's symbol support, with the library's folder searched first;
// what the platform has to say on the way goes to the trace.
void sym_note(const char* text) {
    vek_printf("%s", text);
}

vek_s32 sym_open(void) {
    return plat::sym_init(vek_base_fld(), sym_note);
}

struct Frame {
    char func[256];
    char file[512];
    vek_s32 line;
};

void resolve(void* addr, Frame& f) {
    f.func[0] = 0;
    f.file[0] = 0;
    f.line = 0;
    plat::sym_resolve(addr, f.func, sizeof f.func, f.file, sizeof f.file, &f.line);
}

// One line: "<prefix><file>[<line>]: <func>()" when the source position is
// known, else "<prefix><address> (file/line unkn): <func>()".
vek_s32 put_frame(TinyStr* out, void* addr, const Frame& f, const char* prefix) {
    const char* func = f.func[0] ? f.func : "(unkn func)";
    if (f.file[0] && f.line > 0) {
        return TinyStr_appdf(out, "%s%s[%d]: %s()\n", prefix, str_path_name(f.file), (int)f.line, func);
    }
    return TinyStr_appdf(out, "%s%p (file/line unkn): %s()\n", prefix, addr, func);
}

bool same_func(const char* func, const char* name) {
    if (!name || !*name || !*func) {
        return false;
    }
    // A C++ symbol reads "name(args)"; compare up to the parameter list.
    size_t n = std::strlen(name);
    return std::strncmp(func, name, n) == 0 && (func[n] == 0 || func[n] == '(');
}

} // namespace

namespace vek {

vek_s32 sym_start(void) {
    return sym_open();
}

void sym_stop(void) {
    plat::sym_exit();
}

} // namespace vek

// The capturing functions count the frames they skip, so they must stay real
// frames: never inlined.
extern "C" {

__attribute__((noinline)) VEK_API vek_s32 vek_get_call_stack(void** addrs, vek_s32 capa, vek_s32 skip) {
    if (!addrs || capa < 1) {
        return 0;
    }
    vek_s32 n = plat::call_stack(addrs, capa, skip < 0 ? 1 : skip + 1);
    // This frame is one of those skipped: the call must not become a jump.
    __asm__ __volatile__("" : "+r"(n));
    return n;
}

VEK_API vek_s32 vek_fmt_call_stack(TinyStr* out, void* const* addrs, vek_s32 n, const char* prefix) {
    if (!out || !addrs) {
        VEK_ASSERT(out && addrs);
        return 0;
    }
    if (!sym_open()) {
        return 0;
    }
    vek_s32 written = 0;
    Frame f;
    for (vek_s32 i = 0; i < n; i++) {
        resolve(addrs[i], f);
        written += put_frame(out, addrs[i], f, prefix ? prefix : "");
    }
    plat::sym_exit();
    return written;
}

__attribute__((noinline)) VEK_API vek_s32 vek_out_call_stack(TinyStr* out, void* faultAddr, const char* skipFunc,
                                   const char* prefix, vek_s32 maxFrames) {
    if (!out) {
        VEK_ASSERT(out);
        return 0;
    }
    if (!sym_open()) {
        return 0;
    }
    if (maxFrames < 1) {
        maxFrames = kDefaultMaxFrames;
    }
    if (!prefix) {
        prefix = "";
    }
    void* addrs[kDefaultMaxFrames + 1];
    vek_s32 cap = maxFrames + 1 < kDefaultMaxFrames + 1 ? maxFrames + 1 : kDefaultMaxFrames + 1;
    vek_s32 n = plat::call_stack(addrs, cap, 1);
    vek_s32 written = 0;
    Frame f;
    if (faultAddr) {
        resolve(faultAddr, f);
        written += put_frame(out, faultAddr, f, prefix);
    }
    for (vek_s32 i = 0; i < n; i++) {
        if (i >= maxFrames) {
            written += TinyStr_appdf(out, "(discard for limit, max=%d)\n", (int)maxFrames);
            break;
        }
        resolve(addrs[i], f);
        if (same_func(f.func, skipFunc) || same_func(f.func, "vek_out_call_stack")) {
            continue;  // left out, but counted toward the limit
        }
        written += put_frame(out, addrs[i], f, prefix);
    }
    plat::sym_exit();
    return written;
}

} // extern "C"
