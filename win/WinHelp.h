/*
 * WinHelp.h - helpers of the Windows layer (internal): UTF-8 <-> UTF-16
 * for the wide Win32 calls.
 */
#ifndef VEK_WINHELP_H
#define VEK_WINHELP_H

#include <windows.h>
#include <cstring>
#include "AlOs.h"
#include "UtfFull.h"

namespace win {

static_assert(sizeof(wchar_t) == sizeof(vek_wchar), "UTF-16 wchar_t on Windows");

/* UTF-8 to UTF-16 into buf of cap units, through the library's own
 * converter over the whole of Unicode (file names may hold characters
 * beyond the Basic Multilingual Plane, as surrogate pairs); returns the
 * units written. Text too long for buf is cut between characters. */
inline int to_wide(const char* s, wchar_t* buf, int cap) {
    vek_s32 n = vek::utf8_to_utf16(s ? s : "", -1, (vek_wchar*)buf, cap);
    return n < cap ? n : cap - 1;
}

/* UTF-16 to UTF-8 into buf of cap bytes; returns the bytes written. */
inline int to_utf8(const wchar_t* w, char* buf, int cap) {
    vek_s32 n = vek::utf16_to_utf8((const vek_wchar*)w, -1, buf, cap);
    return n < cap ? n : cap - 1;
}

/* A UTF-8 text as a terminated UTF-16 one for a wide call, of any length:
 * short texts stay on the stack. ok() is false only when memory for a
 * long one was not given. */
class Wide {
  public:
    explicit Wide(const char* s) {
        vek_s32 n = vek::utf8_to_utf16(s ? s : "", -1, (vek_wchar*)small_, kSmall);
        if (n >= kSmall) {
            big_ = (wchar_t*)al_malloc(((size_t)n + 1) * sizeof(wchar_t));
            if (big_) {
                vek::utf8_to_utf16(s, -1, (vek_wchar*)big_, n + 1);
            }
        }
        ptr_ = n < kSmall ? small_ : big_;
    }
    ~Wide() { al_free(big_); }
    Wide(const Wide&) = delete;
    Wide& operator=(const Wide&) = delete;
    bool ok() const { return ptr_ != nullptr; }
    const wchar_t* get() const { return ptr_; }

  private:
    static constexpr int kSmall = 520;
    wchar_t small_[kSmall];
    wchar_t* big_ = nullptr;
    const wchar_t* ptr_;
};

} // namespace win

#endif /* VEK_WINHELP_H */
