/*
 * The INI loader and writer, and the TinyIni scanner, on any bytes: no
 * crash, no leak, and writing is stable: a written document reloads and
 * writes back to the same bytes. The one-shot readers, which make their
 * own pass, answer as the loaded document does, a long one answering from
 * its section index too.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

std::string out_text(IniFile* d) {
    char* buf = nullptr;
    vek_s32 len = IniFile_outBuf(d, &buf);
    std::string s(buf ? buf : "", len > 0 ? (size_t)len : 0);
    vek_free__(buf);
    return s;
}

// The one-shot reader against the document for one query.
void same_answer(const char* text, vek_s32 len, IniFile* d, vek_s32 err, const char* sect, const char* field) {
    VekStr a, b;
    VekStr_new(&a);
    VekStr_new(&b);
    vek_s32 r = IniUtil_getBufStrx(text, len, sect, field, "-", &a);
    if (d ? r != IniFile_getStrx(d, sect, field, "-", &b) ||
                VekStr_len(&a) != VekStr_len(&b) ||
                std::memcmp(VekStr_buf(&a), VekStr_buf(&b), (size_t)VekStr_len(&a)) != 0
          : r != err) {
        std::abort();
    }
    VekStr_delete(&a);
    VekStr_delete(&b);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = (const char*)data;
    vek_s32 len = (vek_s32)size;
    vek_s32 err = 0;
    IniFile* d = len > 0 ? IniFile_newBuf(text, len, &err) : IniFile_new(nullptr);
    if (len > 0) {
        same_answer(text, len, d, err, "sect", "key");
        same_answer(text, len, d, err, nullptr, "a");
        same_answer(text, len, d, err, "S", "K");
    }
    {
        // Again behind sixteen sections (each name twice, each field name
        // twice in a section), so the document is long enough to answer
        // from its index (built by the second query).
        std::string padded;
        for (int i = 0; i < 16; i++) {
            padded += "[~" + std::to_string(i % 8) + "]\nk=" + std::to_string(i) + "\nK=later\n";
        }
        padded.append(text, size);
        vek_s32 plen = (vek_s32)padded.size();
        vek_s32 perr = 0;
        IniFile* p = IniFile_newBuf(padded.data(), plen, &perr);
        same_answer(padded.data(), plen, p, perr, "sect", "key");
        same_answer(padded.data(), plen, p, perr, "S", "K");
        same_answer(padded.data(), plen, p, perr, "sect", "key");
        same_answer(padded.data(), plen, p, perr, "~3", "K");
        if (p) {
            IniFile_delete(p);
        }
    }
    if (d) {
        std::string once = out_text(d);
        IniFile* again = IniFile_newBuf(once.c_str(), (vek_s32)once.size(), &err);
        if (!again || out_text(again) != once) {
            std::abort();
        }
        char buf[64];
        IniFile_getStr(d, "sect", "key", "", buf, sizeof buf);
        IniFile_diff(d, again, nullptr, nullptr, nullptr);
        IniFile_setStr(d, "sect", "key", "v");
        IniFile_moveSect(d, "", "sect");
        IniFile_renField(d, "sect", "key", "k2");
        IniFile_delete(again);
        IniFile_delete(d);
    }
    StrStrm mem;
    IStrm* s = StrStrm_xcreate__(&mem, text, len, __FILE__, __LINE__);
    char value[16];
    TinyIni_getStr(s, "sect", "key", nullptr, value, sizeof value);
    TinyIni_getInt(s, nullptr, "a", 0);
    IStrm_release(s);
    return 0;
}
