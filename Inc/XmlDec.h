/*
 * XmlDec.h - a streaming, non-validating XML 1.0 decoder (XmlDec) and a
 * small tree built on it (XmlDoc).
 *
 * The decoder is pulled: feed it bytes in chunks of any size (or give it a
 * stream to read), then ask for the next event until it says it needs more
 * input. It checks well-formedness as XML 1.0 defines it: names, nesting,
 * attribute syntax (an attribute given twice is refused), legal characters,
 * character references (&#N; &#xH;) and the five predefined entities (&lt;
 * &gt; &amp; &apos; &quot;), CDATA sections, comments, processing
 * instructions and the XML declaration. Text and attribute values arrive
 * decoded: references resolved, line ends (CR LF, lone CR) made LF, white
 * space in attribute values made spaces.
 *
 * Input: UTF-8 (with or without a byte-order mark), UTF-16 in either byte
 * order (by its byte-order mark, or by "<?" at the start), and ISO-8859-1
 * or US-ASCII when the declaration names them. Everything handed out is
 * UTF-8. Any other declared encoding is refused (VEK_ERR_XML_ENCODING).
 *
 * No external entity is ever fetched and no DTD is expanded, so the
 * entity-expansion attacks cannot happen: a DOCTYPE is reported (its name
 * and external identifiers) and skipped, its internal subset unread but
 * for the quoting, comments and brackets that find its end; a reference to
 * any entity other than the five predefined ones is then an error
 * (VEK_ERR_XML_ENTITY). With XMLDEC_NO_DOCTYPE a DOCTYPE is refused.
 *
 * Limits (XmlDecOpts, 0 takes the default): nesting depth, the bytes of
 * the whole input, the bytes of one token (a tag with its attributes, a
 * text run, a comment) and the attributes of one tag.
 *
 * Errors are final: once XmlDec_next returns a negative code it returns
 * the same code again, and XmlDec_pos tells the line and column (from 1;
 * columns count characters) where the document went wrong. Codes:
 * VEK_ERR_XML_* (-830..-843, VekType.h), VEK_ERR_FULL (-201) when memory
 * ran out, or a stream's read error.
 *
 * Ownership and threads: a decoder and a document belong to the caller and
 * are used by one thread at a time. Every text of an event (names, values,
 * text) is terminated UTF-8 that lives in the decoder and stays valid until
 * the next XmlDec_next, XmlDec_feed, XmlDec_reset or XmlDec_delete.
 */
#ifndef VEK_XMLDEC_H
#define VEK_XMLDEC_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- events ---- */
#define XML_EVT_START    1  /* a start tag (or an empty-element tag, then followed by its END) */
#define XML_EVT_END      2  /* an end tag */
#define XML_EVT_TEXT     3  /* character data between markup (a whole run, never split) */
#define XML_EVT_CDATA    4  /* the content of a CDATA section */
#define XML_EVT_COMMENT  5  /* with XMLDEC_COMMENTS */
#define XML_EVT_PI       6  /* with XMLDEC_PIS: name is the target, text the data */
#define XML_EVT_DECL     7  /* with XMLDEC_PROLOG: the XML declaration; attrs are its
                               "version", "encoding" and "standalone" as given */
#define XML_EVT_DOCTYPE  8  /* with XMLDEC_PROLOG: name is the root's name; attrs "PUBLIC"
                               and "SYSTEM" as given; the internal subset is not reported */
#define XML_EVT_EOF      9  /* the document is complete and XmlDec_end was called */

/* ---- options ---- */
#define XMLDEC_COMMENTS   0x01u /* report comments */
#define XMLDEC_PIS        0x02u /* report processing instructions */
#define XMLDEC_PROLOG     0x04u /* report the XML declaration and the DOCTYPE */
#define XMLDEC_SKIP_BLANK 0x08u /* leave out text runs that are only white space */
#define XMLDEC_NO_DOCTYPE 0x10u /* refuse a DOCTYPE (VEK_ERR_XML_DOCTYPE) */

typedef struct XmlDecOpts {
    vek_u32 flags;     /* XMLDEC_* */
    vek_s32 maxDepth;  /* elements open at once; 0: 256 */
    vek_s32 maxToken;  /* bytes of one token, as decoded to UTF-8; 0: 16 MiB */
    vek_s32 maxAttrs;  /* attributes of one tag; 0: 1024 */
    vek_s64 maxSize;   /* bytes of the whole input, as fed; 0: 256 MiB */
} XmlDecOpts;

typedef struct XmlAttr {
    const char* name;
    const char* value;  /* decoded */
    vek_s32 nameLen;
    vek_s32 valueLen;
} XmlAttr;

typedef struct XmlEvt {
    vek_s32 type;          /* XML_EVT_* */
    vek_s32 depth;         /* open elements, this START's or END's element counted */
    const char* name;      /* element name, PI target, DOCTYPE root name; else "" */
    vek_s32 nameLen;
    const char* text;      /* TEXT, CDATA, COMMENT, PI data; else "" */
    vek_s32 textLen;
    const XmlAttr* attrs;  /* START, DECL, DOCTYPE; in document order */
    vek_s32 attrCount;
    vek_s32 line;          /* where the event's first character stands, from 1 */
    vek_s32 col;
} XmlEvt;

typedef struct XmlDec XmlDec;

/* A decoder with these options (null: all defaults); null without memory. */
VEK_API XmlDec* XmlDec_new(const XmlDecOpts* opts);
VEK_API void XmlDec_delete(XmlDec* dec);  /* null is ignored */
/* Forgets the document, keeps the options and the memory: the next input
 * starts a new document. */
VEK_API void XmlDec_reset(XmlDec* dec);
/* Hands the decoder the next len bytes of the document (copied). 0, the
 * decoder's error, VEK_ERR_XML_SIZE past the size limit, VEK_ERR_FULL, or
 * -81 after XmlDec_end. */
VEK_API vek_s32 XmlDec_feed(XmlDec* dec, const void* data, vek_s32 len);
/* No more input: the decoder completes the document (or reports where it
 * was cut). 0, or -81 when a stream is attached. */
VEK_API vek_s32 XmlDec_end(XmlDec* dec);
/* Reads the input from strm instead (from its position, in blocks, as
 * events are asked for; its end ends the document). The stream stays the
 * caller's and must outlive the decoding. 0, or -81 once bytes were fed. */
VEK_API vek_s32 XmlDec_setStrm(XmlDec* dec, IStrm* strm);
/* The next event: its type (XML_EVT_*) with *evt filled; 0 when it needs
 * more input (feed more, or call XmlDec_end); a negative error. After
 * XML_EVT_EOF it keeps returning XML_EVT_EOF. */
VEK_API vek_s32 XmlDec_next(XmlDec* dec, XmlEvt* evt);
/* Line and column (from 1) of the error, or of the last event; either
 * pointer may be null. Returns the error (0 when none). */
VEK_API vek_s32 XmlDec_pos(const XmlDec* dec, vek_s32* line, vek_s32* col);
/* A short English text for an XML error code (any other code: "unknown"). */
VEK_API const char* XmlDec_errText(vek_s32 code);

/* ---- the tree ----
 * XmlDoc_parse decodes a whole document into nodes: elements with their
 * attributes and children, and text nodes (TEXT and CDATA joined as one
 * text between two other nodes). Comments, processing instructions and the
 * prolog are left out; opts as for the decoder (its XMLDEC_SKIP_BLANK
 * leaves out blank text). Every node and text lives in the document until
 * XmlDoc_delete. */
#define XML_NODE_ELEM 1
#define XML_NODE_TEXT 2

typedef struct XmlNode XmlNode;
struct XmlNode {
    vek_s32 type;          /* XML_NODE_ELEM or XML_NODE_TEXT */
    const char* name;      /* element name; "" for text */
    const char* text;      /* text node: its text; element: its text children joined */
    vek_s32 textLen;
    const XmlAttr* attrs;  /* element: its attributes */
    vek_s32 attrCount;
    XmlNode* parent;
    XmlNode* child;        /* first child */
    XmlNode* next;         /* next sibling */
    vek_s32 line;          /* where the node starts */
    vek_s32 col;
};

typedef struct XmlDoc XmlDoc;
/* Where a parse failed: the code (0 on success), line and column. */
typedef struct XmlErr {
    vek_s32 code;
    vek_s32 line;
    vek_s32 col;
} XmlErr;

/* Parses len bytes (negative: a terminated text); the document, or null
 * with *err (may be null) filled. */
VEK_API XmlDoc* XmlDoc_parse(const void* data, vek_s32 len, const XmlDecOpts* opts, XmlErr* err);
/* The same, reading a stream from its position to its end. */
VEK_API XmlDoc* XmlDoc_parseStrm(IStrm* strm, const XmlDecOpts* opts, XmlErr* err);
/* The same, reading a file (UTF-8 path; -64 when it cannot be opened). */
VEK_API XmlDoc* XmlDoc_parseFile(const char* path, const XmlDecOpts* opts, XmlErr* err);
VEK_API void XmlDoc_delete(XmlDoc* doc);  /* null is ignored */
/* The root element (null for a null doc). */
VEK_API XmlNode* XmlDoc_root(const XmlDoc* doc);
/* The first child element of node named name (null: any element), the
 * next sibling element after node named name (null: any), or null. */
VEK_API XmlNode* XmlNode_child(const XmlNode* node, const char* name);
VEK_API XmlNode* XmlNode_next(const XmlNode* node, const char* name);
/* The element reached from node by a path of child names separated by "/"
 * ("device/serialNumber"), each step the first child of that name; null
 * when a step is missing. An empty path is node itself. */
VEK_API XmlNode* XmlNode_find(const XmlNode* node, const char* path);
/* The value of the attribute name, or null. */
VEK_API const char* XmlNode_attr(const XmlNode* node, const char* name);

VEK_END_DECLS

#endif /* VEK_XMLDEC_H */
