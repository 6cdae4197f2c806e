/*
 * The XML decoder on any bytes: no crash, no leak, and the outcome does
 * not depend on how the bytes are cut: fed whole and fed in chunks of a
 * size the input picks, the events, the error and its position are the
 * same. Every event keeps its promises (terminated texts of the told
 * lengths, ends that match starts), and the tree is built exactly when
 * the decoder accepts the document.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

struct Outcome {
    std::string events;
    vek_s32 err = 0;
    vek_s32 line = 0;
    vek_s32 col = 0;
};

void check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

Outcome run(const uint8_t* data, size_t size, size_t chunk, vek_u32 flags) {
    XmlDecOpts o{};
    o.flags = flags;
    o.maxDepth = 64;
    o.maxToken = 4096;
    XmlDec* d = XmlDec_new(&o);
    Outcome out;
    size_t at = 0;
    vek_s32 depth = 0;
    std::string text;
    for (;;) {
        XmlEvt e;
        vek_s32 r = XmlDec_next(d, &e);
        if (r == 0) {
            if (at == size) {
                XmlDec_end(d);
            } else {
                size_t n = size - at < chunk ? size - at : chunk;
                if (XmlDec_feed(d, data + at, (vek_s32)n) < 0) {
                    at = size;
                    XmlDec_end(d);
                }
                at += n;
                at = at > size ? size : at;
            }
            continue;
        }
        if (r < 0 || r == XML_EVT_EOF) {
            out.err = r < 0 ? r : 0;
            XmlDec_pos(d, &out.line, &out.col);
            check(r == XML_EVT_EOF ? depth == 0 : true);
            break;
        }
        check(e.text[e.textLen] == 0 && (vek_s32)std::strlen(e.name) == e.nameLen);
        // Text runs are joined: a decoder may cut them where it likes.
        if (r == XML_EVT_TEXT || r == XML_EVT_CDATA) {
            text.append(e.text, (size_t)e.textLen);
            continue;
        }
        if (!text.empty()) {
            out.events += "T" + text + "\n";
            text.clear();
        }
        if (r == XML_EVT_START) {
            check(e.depth == ++depth);
            for (vek_s32 i = 0; i < e.attrCount; i++) {
                check(e.attrs[i].value[e.attrs[i].valueLen] == 0);
                out.events += std::string(e.attrs[i].name) + "=" + e.attrs[i].value + " ";
            }
        } else if (r == XML_EVT_END) {
            check(e.depth == depth--);
        }
        out.events += std::to_string(r) + e.name + "|" + std::string(e.text, (size_t)e.textLen) + "\n";
    }
    XmlDec_delete(d);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vek_u32 h = 2166136261u;
    for (size_t i = 0; i < size; i++) {
        h = (h ^ data[i]) * 16777619u;
    }
    vek_u32 flags = XMLDEC_COMMENTS | XMLDEC_PIS | XMLDEC_PROLOG;
    Outcome whole = run(data, size, size ? size : 1, flags);
    Outcome cut = run(data, size, 1 + h % 7, flags);
    check(whole.events == cut.events && whole.err == cut.err && whole.line == cut.line && whole.col == cut.col);
    XmlDecOpts o{};
    o.maxDepth = 64;
    o.maxToken = 4096;
    XmlErr err;
    XmlDoc* doc = XmlDoc_parse(data, (vek_s32)size, &o, &err);
    check((doc != nullptr) == (whole.err == 0) && err.code == whole.err);
    if (doc) {
        XmlNode* root = XmlDoc_root(doc);
        check(root && XmlNode_find(root, "") == root);
        XmlNode_find(root, "a/b");
        XmlNode_attr(root, "a");
        XmlDoc_delete(doc);
    }
    return 0;
}
