/*
 * XmlDoc.cpp - the small tree on the XML decoder.
 *
 * Nodes, attribute arrays and texts are carved from a few large blocks
 * (an arena), so a document is freed in one sweep and a tree of many small
 * elements costs few allocations. Text and CDATA that follow each other
 * become one text node; an element's own text (its text children joined)
 * is made when its end tag comes.
 */
#include <cstring>
#include "VekCore.h"
#include "VekStrm.h"
#include "XmlDec.h"

namespace {

constexpr size_t kBlock = 16 * 1024;

struct Block {
    Block* next;
    size_t used;
    size_t size;
    // data follows
};

} // namespace

struct XmlDoc {
    Block* blocks;
    XmlNode* root;
};

namespace {

void* arena(XmlDoc* doc, size_t n) {
    n = (n + 7) & ~(size_t)7;
    Block* b = doc->blocks;
    if (!b || b->size - b->used < n) {
        size_t size = n > kBlock / 4 ? n : kBlock;
        b = (Block*)vek_malloc__(sizeof(Block) + size);
        if (!b) {
            return nullptr;
        }
        b->size = size;
        b->used = 0;
        // A block made for one large piece goes behind the current one,
        // which keeps its room for the small pieces to come.
        if (size > kBlock && doc->blocks) {
            b->next = doc->blocks->next;
            doc->blocks->next = b;
        } else {
            b->next = doc->blocks;
            doc->blocks = b;
        }
    }
    void* p = (char*)(b + 1) + b->used;
    b->used += n;
    return p;
}

char* arena_str(XmlDoc* doc, const char* s, vek_s32 n) {
    char* p = (char*)arena(doc, (size_t)n + 1);
    if (p) {
        std::memcpy(p, s, (size_t)n);
        p[n] = 0;
    }
    return p;
}

// The text gathered between two other nodes, and the open elements with
// their last child.
struct Builder {
    XmlDoc* doc;
    char* text = nullptr;
    vek_s32 textLen = 0;
    vek_s32 textCap = 0;
    vek_s32 textLine = 0;
    vek_s32 textCol = 0;
    XmlNode** open = nullptr;  // [2 * depth]: element, its last child
    vek_s32 depth = 0;
    vek_s32 openCap = 0;

    ~Builder() {
        vek_free__(text);
        vek_free__(open);
    }

    void link(XmlNode* n) {
        XmlNode* parent = depth ? open[2 * depth - 2] : nullptr;
        n->parent = parent;
        if (!parent) {
            return;
        }
        if (open[2 * depth - 1]) {
            open[2 * depth - 1]->next = n;
        } else {
            parent->child = n;
        }
        open[2 * depth - 1] = n;
    }

    bool add_text(const XmlEvt* ev) {
        if (textLen == 0) {
            textLine = ev->line;
            textCol = ev->col;
        }
        if ((vek_s64)textLen + ev->textLen + 1 > textCap) {
            vek_s64 cap = textCap ? textCap : 256;
            while (cap < (vek_s64)textLen + ev->textLen + 1) {
                cap *= 2;
            }
            char* p = (char*)vek::heap_realloc(text, (size_t)cap);
            if (!p) {
                return false;
            }
            text = p;
            textCap = (vek_s32)cap;
        }
        std::memcpy(text + textLen, ev->text, (size_t)ev->textLen);
        textLen += ev->textLen;
        return true;
    }

    bool flush_text() {
        if (textLen == 0) {
            return true;
        }
        XmlNode* n = (XmlNode*)arena(doc, sizeof(XmlNode));
        char* t = n ? arena_str(doc, text, textLen) : nullptr;
        if (!t) {
            return false;
        }
        std::memset(n, 0, sizeof *n);
        n->type = XML_NODE_TEXT;
        n->name = "";
        n->text = t;
        n->textLen = textLen;
        n->line = textLine;
        n->col = textCol;
        link(n);
        textLen = 0;
        return true;
    }

    bool start(const XmlEvt* ev) {
        XmlNode* n = (XmlNode*)arena(doc, sizeof(XmlNode));
        XmlAttr* attrs = n && ev->attrCount ? (XmlAttr*)arena(doc, sizeof(XmlAttr) * (size_t)ev->attrCount) : nullptr;
        const char* name = n && (attrs || !ev->attrCount) ? arena_str(doc, ev->name, ev->nameLen) : nullptr;
        if (!name) {
            return false;
        }
        for (vek_s32 i = 0; i < ev->attrCount; i++) {
            const XmlAttr& a = ev->attrs[i];
            attrs[i].name = arena_str(doc, a.name, a.nameLen);
            attrs[i].value = arena_str(doc, a.value, a.valueLen);
            if (!attrs[i].name || !attrs[i].value) {
                return false;
            }
            attrs[i].nameLen = a.nameLen;
            attrs[i].valueLen = a.valueLen;
        }
        std::memset(n, 0, sizeof *n);
        n->type = XML_NODE_ELEM;
        n->name = name;
        n->text = "";
        n->attrs = attrs;
        n->attrCount = ev->attrCount;
        n->line = ev->line;
        n->col = ev->col;
        link(n);
        if (!doc->root) {
            doc->root = n;
        }
        if (2 * (depth + 1) > openCap) {
            vek_s32 cap = openCap ? openCap * 2 : 64;
            XmlNode** p = (XmlNode**)vek::heap_realloc(open, sizeof(XmlNode*) * (size_t)cap);
            if (!p) {
                return false;
            }
            open = p;
            openCap = cap;
        }
        open[2 * depth] = n;
        open[2 * depth + 1] = nullptr;
        depth++;
        return true;
    }

    // The element's own text: its text children joined (the one child's
    // text itself when there is one).
    bool end() {
        XmlNode* n = open[2 * --depth];
        vek_s32 len = 0;
        vek_s32 parts = 0;
        XmlNode* only = nullptr;
        for (XmlNode* c = n->child; c; c = c->next) {
            if (c->type == XML_NODE_TEXT) {
                len += c->textLen;
                parts++;
                only = c;
            }
        }
        if (parts == 1) {
            n->text = only->text;
            n->textLen = only->textLen;
        } else if (parts > 1) {
            char* t = (char*)arena(doc, (size_t)len + 1);
            if (!t) {
                return false;
            }
            n->text = t;
            n->textLen = len;
            for (XmlNode* c = n->child; c; c = c->next) {
                if (c->type == XML_NODE_TEXT) {
                    std::memcpy(t, c->text, (size_t)c->textLen);
                    t += c->textLen;
                }
            }
            *t = 0;
        }
        return true;
    }
};

void free_doc(XmlDoc* doc) {
    for (Block* b = doc->blocks; b;) {
        Block* next = b->next;
        vek_free__(b);
        b = next;
    }
    vek_free__(doc);
}

// Pulls every event of a decoder that has its input and builds the tree.
XmlDoc* build(XmlDec* dec, vek_s32 inputErr, XmlErr* err) {
    XmlDoc* doc = (XmlDoc*)vek_malloc__(sizeof(XmlDoc));
    vek_s32 code = inputErr;
    if (!doc) {
        code = VEK_ERR_FULL;
    } else {
        doc->blocks = nullptr;
        doc->root = nullptr;
        Builder b{doc};
        XmlEvt ev;
        while (code == 0) {
            vek_s32 r = XmlDec_next(dec, &ev);
            bool ok = true;
            if (r < 0) {
                code = r;
            } else if (r == XML_EVT_EOF || r == 0) {
                code = r == 0 ? VEK_ERR_XML_UNCLOSED : 0;
                break;
            } else if (r == XML_EVT_TEXT || r == XML_EVT_CDATA) {
                ok = b.add_text(&ev);
            } else if (r == XML_EVT_START) {
                ok = b.flush_text() && b.start(&ev);
            } else if (r == XML_EVT_END) {
                ok = b.flush_text() && b.end();
            }
            if (!ok) {
                code = VEK_ERR_FULL;
            }
        }
    }
    vek_s32 line = 0;
    vek_s32 col = 0;
    XmlDec_pos(dec, &line, &col);
    if (err) {
        err->code = code;
        err->line = code ? line : 0;
        err->col = code ? col : 0;
    }
    if (code != 0 && doc) {
        free_doc(doc);
        doc = nullptr;
    }
    return doc;
}

XmlDoc* fail_early(vek_s32 code, XmlErr* err) {
    if (err) {
        err->code = code;
        err->line = 0;
        err->col = 0;
    }
    return nullptr;
}

// The first element from n on among its siblings named name (null: any).
XmlNode* first_elem(XmlNode* n, const char* name) {
    size_t len = name ? std::strlen(name) : 0;
    for (; n; n = n->next) {
        if (n->type == XML_NODE_ELEM && (!name || (std::strlen(n->name) == len && !std::memcmp(n->name, name, len)))) {
            return n;
        }
    }
    return nullptr;
}

} // namespace

extern "C" {

VEK_API XmlDoc* XmlDoc_parse(const void* data, vek_s32 len, const XmlDecOpts* opts, XmlErr* err) {
    if (!data) {
        VEK_ASSERT(data);
        return fail_early(VEK_ERR_BAD_ARG, err);
    }
    if (len < 0) {
        len = (vek_s32)std::strlen((const char*)data);
    }
    XmlDec* dec = XmlDec_new(opts);
    if (!dec) {
        return fail_early(VEK_ERR_FULL, err);
    }
    vek_s32 r = XmlDec_feed(dec, data, len);
    XmlDec_end(dec);
    XmlDoc* doc = build(dec, r == VEK_ERR_FULL ? r : 0, err);
    XmlDec_delete(dec);
    return doc;
}

VEK_API XmlDoc* XmlDoc_parseStrm(IStrm* strm, const XmlDecOpts* opts, XmlErr* err) {
    if (!strm) {
        VEK_ASSERT(strm);
        return fail_early(VEK_ERR_BAD_ARG, err);
    }
    XmlDec* dec = XmlDec_new(opts);
    if (!dec) {
        return fail_early(VEK_ERR_FULL, err);
    }
    XmlDec_setStrm(dec, strm);
    XmlDoc* doc = build(dec, 0, err);
    XmlDec_delete(dec);
    return doc;
}

VEK_API XmlDoc* XmlDoc_parseFile(const char* path, const XmlDecOpts* opts, XmlErr* err) {
    if (!path || !*path) {
        VEK_ASSERT(path && *path);
        return fail_early(VEK_ERR_BAD_ARG, err);
    }
    FileStrm mem;
    vek_s32 e = 0;
    IStrm* s = FileStrm_xcreatex__(&mem, path, "rb", &e, __FILE__, __LINE__);
    if (!s) {
        return fail_early(e ? e : VEK_ERR_FILE_OPEN, err);
    }
    XmlDoc* doc = XmlDoc_parseStrm(s, opts, err);
    IStrm_release(s);
    return doc;
}

VEK_API void XmlDoc_delete(XmlDoc* doc) {
    if (doc) {
        free_doc(doc);
    }
}

VEK_API XmlNode* XmlDoc_root(const XmlDoc* doc) {
    return doc ? doc->root : nullptr;
}

VEK_API XmlNode* XmlNode_child(const XmlNode* node, const char* name) {
    return first_elem(node ? node->child : nullptr, name);
}

VEK_API XmlNode* XmlNode_next(const XmlNode* node, const char* name) {
    return first_elem(node ? node->next : nullptr, name);
}

VEK_API XmlNode* XmlNode_find(const XmlNode* node, const char* path) {
    if (!node || !path) {
        return nullptr;
    }
    const XmlNode* n = node;
    while (*path && n) {
        const char* slash = std::strchr(path, '/');
        size_t len = slash ? (size_t)(slash - path) : std::strlen(path);
        const XmlNode* c = n->child;
        while (c && !(c->type == XML_NODE_ELEM && std::strlen(c->name) == len && !std::memcmp(c->name, path, len))) {
            c = c->next;
        }
        n = c;  // a step's name is a piece of the path, not terminated
        path += len + (slash ? 1 : 0);
    }
    return (XmlNode*)n;
}

VEK_API const char* XmlNode_attr(const XmlNode* node, const char* name) {
    if (!node || !name) {
        return nullptr;
    }
    for (vek_s32 i = 0; i < node->attrCount; i++) {
        if (!std::strcmp(node->attrs[i].name, name)) {
            return node->attrs[i].value;
        }
    }
    return nullptr;
}

} // extern "C"
