/*
 * String objects and the memory stream driven by the input as a program of
 * operations, each checked against a plain std::string model: copy on
 * write, fixed buffers and growth for VekStr; block chains, seeks,
 * truncation and ungetc for MemStrm.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"
#include "FuzzReader.h"

namespace {

using vekfuzz::Reader;

void check(const VekStr* s, const std::string& model) {
    if ((size_t)VekStr_len(s) != model.size() || std::memcmp(VekStr_buf(s), model.data(), model.size()) != 0 ||
        VekStr_buf(s)[model.size()] != 0) {
        std::abort();
    }
}

struct Inline {
    VekStr str;
    vek_u32 buf[(16 + 32) / 4];
};

void strings(Reader& r) {
    Inline fixed;
    StrExt_new__(&fixed.str, fixed.buf, 32);
    VekStr heap;
    VekStr_new(&heap);
    VekStr* obj[2] = {&fixed.str, &heap};
    std::string model[2];
    for (int step = 0; step < 64 && r.more(); step++) {
        int i = (int)(r.byte() & 1);
        switch (r.byte() % 9) {
        case 0: {
            std::string b = r.bytes(80);
            model[i] += b;
            VekStr_appdStrx(obj[i], b.data(), (vek_s32)b.size());
            break;
        }
        case 1: {
            std::string b = r.bytes(80);
            VekStr_setStrx(obj[i], b.data(), (vek_s32)b.size());
            model[i] = b.empty() || b[0] == 0 ? std::string() : b;
            break;
        }
        case 2: {
            size_t k = r.byte() % 100;
            VekStr_trunc(obj[i], (vek_s32)k);
            if (k < model[i].size()) {
                model[i].resize(k);
            }
            break;
        }
        case 3:  // share the other's block, then write to one of them
            VekStr_setCstr(obj[i], obj[1 - i]);
            model[i] = model[1 - i];
            break;
        case 4:
            VekStr_clear(obj[i]);
            model[i].clear();
            break;
        case 5:
            VekStr_clearx(obj[i]);
            model[i].clear();
            break;
        case 6: {
            char c = (char)(r.byte() | 1);
            model[i] += c;
            VekStr_appdChar(obj[i], c);
            break;
        }
        case 7: {
            vek_s32 removed = VekStr_trimTail(obj[i], " ");
            size_t keep = model[i].size();
            while (keep > 0 && model[i][keep - 1] == ' ') {
                keep--;
            }
            if ((size_t)removed != model[i].size() - keep) {
                std::abort();
            }
            model[i].resize(keep);
            break;
        }
        default: {
            size_t need = r.byte() % 200;
            char* b = VekStr_useBufBeg(obj[i], (vek_s32)need);
            size_t len = model[i].size() > need ? model[i].size() : need;
            for (size_t k = model[i].size(); k < len; k++) {
                b[k] = 'u';
            }
            VekStr_useBufEnd(obj[i], (vek_s32)len);
            model[i].resize(len, 'u');
            break;
        }
        }
        check(obj[0], model[0]);
        check(obj[1], model[1]);
    }
    VekStr_delete(&fixed.str);
    VekStr_delete(&heap);
}

void stream(Reader& r) {
    IStrm* s = MemStrm_xcreatex__(nullptr, (vek_s32)(r.byte() % 40 + 1), __FILE__, __LINE__);
    std::string model;
    size_t pos = 0;
    for (int step = 0; step < 64 && r.more(); step++) {
        switch (r.byte() % 6) {
        case 0: {
            std::string b = r.bytes(100);
            if (!b.empty()) {
                IStrm_write(s, b.data(), (vek_s32)b.size());
                if (pos + b.size() > model.size()) {
                    model.resize(pos + b.size());
                }
                model.replace(pos, b.size(), b);
                pos += b.size();
            }
            break;
        }
        case 1: {
            size_t target = r.byte() % (model.size() + 2);
            vek_s32 res = IStrm_seek(s, (vek_s64)target, 0);
            if ((res == 0) != (target <= model.size())) {
                std::abort();
            }
            if (res == 0) {
                pos = target;
            }
            break;
        }
        case 2: {
            char buf[64];
            vek_s32 k = IStrm_read(s, buf, 1 + (vek_s32)(r.byte() % 63));
            if (k < 0 || std::string(buf, (size_t)k) != model.substr(pos, (size_t)k)) {
                std::abort();
            }
            pos += (size_t)k;
            break;
        }
        case 3: {
            size_t n = r.byte() % (model.size() + 1);
            IStrm_setSize(s, (vek_s64)n);
            if (n < model.size()) {
                model.resize(n);
                pos = 0;  // a truncation puts the position at the start
            }
            break;
        }
        case 4:
            if (IStrm_ungetc(s) == 0) {
                pos--;
            } else if (pos != 0) {
                std::abort();
            }
            break;
        default: {
            vek_s32 c = IStrm_getc(s);
            if (pos < model.size() ? c != (vek_u8)model[pos++] : c != VEK_ERR_EOF) {
                std::abort();
            }
            break;
        }
        }
        if (IStrm_size(s) != (vek_s64)model.size() || IStrm_tell(s) != (vek_s64)pos) {
            std::abort();
        }
    }
    IStrm_release(s);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader r{data, size};
    strings(r);
    stream(r);
    return 0;
}
