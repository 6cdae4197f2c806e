/*
 * The XML decoder: the events of a document do not depend on how its bytes
 * are cut into chunks; the encodings; well-formedness errors with their
 * positions; the limits and the DOCTYPE policy; the tree; and, where expat
 * is installed, the same verdict and events as expat on generated
 * documents, well-formed and broken.
 */
#include <cstring>
#include <string>
#include <vector>
#include "StrmTest.h"
#include "VekTest.h"
#ifdef HAVE_EXPAT
#include <expat.h>
#endif

namespace {

const vek_u32 kAll = XMLDEC_COMMENTS | XMLDEC_PIS | XMLDEC_PROLOG;

// The events as one text each; text runs joined (CDATA included) so that
// decoders that cut character data differently still compare.
struct Outcome {
    std::vector<std::string> evts;
    vek_s32 err = 0;
    vek_s32 line = 0;
    vek_s32 col = 0;
    std::string text;
    void flush() {
        if (!text.empty()) {
            evts.push_back("T:" + text);
            text.clear();
        }
    }
};

std::string evt_text(const XmlEvt& e) {
    std::string s;
    switch (e.type) {
    case XML_EVT_START:
        s = "S:" + std::string(e.name, (size_t)e.nameLen);
        for (vek_s32 i = 0; i < e.attrCount; i++) {
            s += " " + std::string(e.attrs[i].name) + "=" + std::string(e.attrs[i].value, (size_t)e.attrs[i].valueLen);
        }
        return s;
    case XML_EVT_END:
        return "E:" + std::string(e.name);
    case XML_EVT_COMMENT:
        return "C:" + std::string(e.text, (size_t)e.textLen);
    case XML_EVT_PI:
        return "P:" + std::string(e.name) + "|" + std::string(e.text, (size_t)e.textLen);
    case XML_EVT_DECL:
    case XML_EVT_DOCTYPE:
        s = e.type == XML_EVT_DECL ? "X:" : "D:" + std::string(e.name);
        for (vek_s32 i = 0; i < e.attrCount; i++) {
            s += " " + std::string(e.attrs[i].name) + "=" + e.attrs[i].value;
        }
        return s;
    default:
        return "?";
    }
}

// Decodes doc fed in chunks of the given sizes (cycled; empty: whole).
Outcome decode(const std::string& doc, std::vector<size_t> chunks = {}, vek_u32 flags = kAll,
           const XmlDecOpts* base = nullptr) {
    XmlDecOpts o = base ? *base : XmlDecOpts{};
    o.flags = flags;
    XmlDec* d = XmlDec_new(&o);
    Outcome run;
    size_t at = 0;
    size_t k = 0;
    XmlEvt e;
    for (;;) {
        vek_s32 r = XmlDec_next(d, &e);
        if (r == 0) {
            if (at == doc.size()) {
                XmlDec_end(d);
                continue;
            }
            size_t n = chunks.empty() ? doc.size() : chunks[k++ % chunks.size()];
            n = n < doc.size() - at ? n : doc.size() - at;
            vek_s32 f = XmlDec_feed(d, doc.data() + at, (vek_s32)n);
            at += n;
            if (f == 0) {
                continue;
            }
            r = f;
        }
        if (r < 0 || r == XML_EVT_EOF) {
            run.err = r < 0 ? r : 0;
            XmlDec_pos(d, &run.line, &run.col);
            break;
        }
        EXPECT_EQ(r, e.type);
        if (r == XML_EVT_TEXT || r == XML_EVT_CDATA) {
            EXPECT_EQ(0, e.text[e.textLen]) << "terminated";
            run.text.append(e.text, (size_t)e.textLen);
        } else {
            run.flush();
            run.evts.push_back(evt_text(e));
        }
    }
    run.flush();
    XmlDec_delete(d);
    return run;
}

std::string utf16(const std::string& utf8, bool le, bool bom) {
    std::string out;
    auto put = [&](unsigned u) {
        out += (char)(le ? u & 0xFF : u >> 8);
        out += (char)(le ? u >> 8 : u & 0xFF);
    };
    if (bom) {
        put(0xFEFF);
    }
    std::vector<vek_wchar> w(utf8.size() * 2 + 2);
    vek_s32 n = 0;
    // the whole of Unicode, so the pairs go through the decoder too
    for (size_t i = 0; i < utf8.size();) {
        unsigned c = (unsigned char)utf8[i];
        unsigned cp;
        int len = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        cp = len == 1 ? c : c & (0x7F >> len);
        for (int j = 1; j < len; j++) {
            cp = (cp << 6) | ((unsigned char)utf8[i + j] & 0x3F);
        }
        i += len;
        if (cp >= 0x10000) {
            put(0xD800 + ((cp - 0x10000) >> 10));
            put(0xDC00 + ((cp - 0x10000) & 0x3FF));
        } else {
            put(cp);
        }
        n++;
    }
    return out;
}

const std::string kDoc =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
    "<!DOCTYPE root SYSTEM \"root.dtd\" [ <!ENTITY e \"a>b\"> <!-- ] --> ]>\n"
    "<!-- head -->\n"
    "<root a=\"1 &amp; 2\" b='x\ty\r\nz' c=\"&#x20AC;&#65;&lt;\">\r\n"
    "  <item id=\"\xC3\xA9t\xC3\xA9\"/>\n"
    "  <?proc some data?>\n"
    "  text &gt; &quot;q&quot; &apos;\xF0\x9F\x98\x80\r<![CDATA[ <raw> & ]] ]]>tail\n"
    "  <e\xE4\xB8\xAD\xE6\x96\x87 >x</e\xE4\xB8\xAD\xE6\x96\x87 >\n"
    "</root>\n<!-- end -->\n";

const std::vector<std::string> kDocEvents = {
    "X: version=1.0 encoding=UTF-8",
    "D:root SYSTEM=root.dtd",
    "C: head ",
    "S:root a=1 & 2 b=x y z c=\xE2\x82\xAC" "A<",
    "T:\n  ",
    "S:item id=\xC3\xA9t\xC3\xA9",
    "E:item",
    "T:\n  ",
    "P:proc|some data",
    "T:\n  text > \"q\" '\xF0\x9F\x98\x80\n <raw> & ]] tail\n  ",
    "S:e\xE4\xB8\xAD\xE6\x96\x87",
    "T:x",
    "E:e\xE4\xB8\xAD\xE6\x96\x87",
    "T:\n",
    "E:root",
    "C: end ",
};

} // namespace

class Xml : public VekTest {};

// A pull decoder is fed whatever the network delivers: one byte, odd
// sizes, everything at once. The events may never depend on it.
TEST_F(Xml, EventsDoNotDependOnChunking) {
    Outcome whole = decode(kDoc);
    EXPECT_EQ(0, whole.err) << whole.line << ":" << whole.col;
    EXPECT_EQ(kDocEvents, whole.evts);
    for (std::vector<size_t> c : {std::vector<size_t>{1}, {2, 3}, {7}, {13, 1, 64}}) {
        Outcome r = decode(kDoc, c);
        EXPECT_EQ(0, r.err);
        EXPECT_EQ(kDocEvents, r.evts) << "chunks of " << c[0];
    }
    // Blank runs can be left out; comments and PIs are off by default.
    Outcome quiet = decode(kDoc, {}, XMLDEC_SKIP_BLANK);
    EXPECT_EQ("S:root a=1 & 2 b=x y z c=\xE2\x82\xAC" "A<", quiet.evts[0]);
    EXPECT_EQ("S:item id=\xC3\xA9t\xC3\xA9", quiet.evts[1]);
    EXPECT_EQ(8u, quiet.evts.size());
}

TEST_F(Xml, EventPositionsAndDepth) {
    std::string doc = "<a>\n  <b\n   x='1'>\xC3\xA9\xC3\xA9<c/></b></a>";
    XmlDec* d = XmlDec_new(nullptr);
    XmlDec_feed(d, doc.data(), (vek_s32)doc.size());
    XmlDec_end(d);
    XmlEvt e;
    std::vector<std::string> seen;
    while (XmlDec_next(d, &e) > 0 && e.type != XML_EVT_EOF) {
        seen.push_back(std::to_string(e.type) + "@" + std::to_string(e.line) + ":" + std::to_string(e.col) + "/" +
                       std::to_string(e.depth));
    }
    // <c/> stands at column 12 of line 3, behind two two-byte characters:
    // columns count characters.
    EXPECT_EQ((std::vector<std::string>{"1@1:1/1", "3@1:4/1", "1@2:3/2", "3@3:10/2", "1@3:12/3", "2@3:12/3",
                                        "2@3:16/2", "2@3:20/1"}),
              seen);
    XmlDec_delete(d);
}

TEST_F(Xml, Encodings) {
    std::string body = "<r a=\"\xC3\xA9\">\xE2\x82\xAC\xF0\x9F\x98\x80</r>";
    std::vector<std::string> want = {"S:r a=\xC3\xA9", "T:\xE2\x82\xAC\xF0\x9F\x98\x80", "E:r"};
    for (bool le : {true, false}) {
        for (bool bom : {true, false}) {
            std::string doc = utf16(bom ? body : "<?xml version='1.0' encoding='UTF-16'?>" + body, le, bom);
            Outcome r = decode(doc, {3}, 0);  // odd chunks cut the units and pairs
            EXPECT_EQ(0, r.err) << le << bom;
            EXPECT_EQ(want, r.evts) << le << bom;
        }
    }
    EXPECT_EQ(want, decode("\xEF\xBB\xBF" + body, {1}, 0).evts);
    // ISO-8859-1 from the declaration on: the bytes behind it are converted.
    Outcome latin = decode("<?xml version='1.0' encoding='iso-8859-1'?><r a='\xE9'>\xE9t\xE9</r>", {5}, 0);
    EXPECT_EQ((std::vector<std::string>{"S:r a=\xC3\xA9", "T:\xC3\xA9t\xC3\xA9", "E:r"}), latin.evts);
    EXPECT_EQ(VEK_ERR_XML_CHAR, decode("<?xml version='1.0' encoding='US-ASCII'?><r>\xE9</r>").err);
    // What the bytes and the declaration say must agree.
    EXPECT_EQ(VEK_ERR_XML_ENCODING, decode(utf16("<?xml version='1.0' encoding='UTF-8'?><r/>", true, true)).err);
    EXPECT_EQ(VEK_ERR_XML_ENCODING, decode("<?xml version='1.0' encoding='UTF-16'?><r/>").err);
    EXPECT_EQ(VEK_ERR_XML_ENCODING, decode("\xEF\xBB\xBF<?xml version='1.0' encoding='ISO-8859-1'?><r/>").err);
    EXPECT_EQ(VEK_ERR_XML_ENCODING, decode("<?xml version='1.0' encoding='Shift_JIS'?><r/>").err);
    // A lone surrogate, a cut unit: errors where they stand.
    std::string lone = utf16("<r>ab</r>", true, true);
    lone[8] = 0x00;
    lone[9] = (char)0xDC;
    Outcome bad = decode(lone);
    EXPECT_EQ(VEK_ERR_XML_CHAR, bad.err);
    EXPECT_EQ(4, bad.col);
    EXPECT_EQ(VEK_ERR_XML_CHAR, decode(utf16("<r/>", true, true) + "x").err);
}

// Each broken document fails with its code where it breaks.
TEST_F(Xml, WellFormednessErrors) {
    struct Case {
        const char* doc;
        vek_s32 err;
        vek_s32 line;
        vek_s32 col;
    } cases[] = {
        {"<a></b>", VEK_ERR_XML_TAG, 1, 4},
        {"<a x='1' y='2' x='3'/>", VEK_ERR_XML_DUP_ATTR, 1, 16},
        {"<a>&nbsp;</a>", VEK_ERR_XML_ENTITY, 1, 4},
        {"<a>&#0;</a>", VEK_ERR_XML_CHAR_REF, 1, 4},
        {"<a>&#xD800;</a>", VEK_ERR_XML_CHAR_REF, 1, 4},
        {"<a>&amp</a>", VEK_ERR_XML_SYNTAX, 1, 8},
        {"<a>\n x\x01</a>", VEK_ERR_XML_CHAR, 2, 3},
        {"<a>\xC3\x28</a>", VEK_ERR_XML_CHAR, 1, 4},
        {"<a>\xEF\xBF\xBF</a>", VEK_ERR_XML_CHAR, 1, 4},
        {"<a b='<'/>", VEK_ERR_XML_SYNTAX, 1, 7},
        {"<a b=1/>", VEK_ERR_XML_SYNTAX, 1, 6},
        {"<a b='1'c='2'/>", VEK_ERR_XML_SYNTAX, 1, 9},
        {"<a>]]></a>", VEK_ERR_XML_SYNTAX, 1, 4},
        {"<a><!-- x -- y --></a>", VEK_ERR_XML_SYNTAX, 1, 11},
        {"<a>", VEK_ERR_XML_UNCLOSED, 1, 4},
        {"<a><b", VEK_ERR_XML_UNCLOSED, 1, 6},
        {"", VEK_ERR_XML_NO_ROOT, 1, 1},
        {"  <!-- only -->", VEK_ERR_XML_NO_ROOT, 1, 16},
        {"<a/><b/>", VEK_ERR_XML_JUNK, 1, 5},
        {"<a/>x", VEK_ERR_XML_JUNK, 1, 5},
        {"x<a/>", VEK_ERR_XML_SYNTAX, 1, 1},
        {" <?xml version='1.0'?><a/>", VEK_ERR_XML_DECL, 1, 2},
        {"<?xml encoding='UTF-8'?><a/>", VEK_ERR_XML_DECL, 1, 7},
        {"<?xml version='2.0'?><a/>", VEK_ERR_XML_DECL, 1, 15},
        {"<a><?XML x?></a>", VEK_ERR_XML_DECL, 1, 4},
        {"<a><![CDATA[x</a>", VEK_ERR_XML_UNCLOSED, 1, 18},
        {"<a/><!DOCTYPE a>", VEK_ERR_XML_JUNK, 1, 5},
        {"<!DOCTYPE a><!DOCTYPE a><a/>", VEK_ERR_XML_DOCTYPE, 1, 13},
        {"<1a/>", VEK_ERR_XML_SYNTAX, 1, 2},
    };
    for (const Case& c : cases) {
        for (std::vector<size_t> chunks : {std::vector<size_t>{}, {1}}) {
            Outcome r = decode(c.doc, chunks);
            EXPECT_EQ(c.err, r.err) << c.doc;
            EXPECT_EQ(c.line, r.line) << c.doc;
            EXPECT_EQ(c.col, r.col) << c.doc;
        }
    }
    // An error is final.
    XmlDec* d = XmlDec_new(nullptr);
    XmlDec_feed(d, "<a></b>", 7);
    XmlEvt e;
    XmlDec_next(d, &e);
    EXPECT_EQ(VEK_ERR_XML_TAG, XmlDec_next(d, &e));
    EXPECT_EQ(VEK_ERR_XML_TAG, XmlDec_feed(d, "<c/>", 4));
    EXPECT_EQ(VEK_ERR_XML_TAG, XmlDec_pos(d, nullptr, nullptr));
    EXPECT_STREQ("mismatched end tag", XmlDec_errText(VEK_ERR_XML_TAG));
    // ... until a reset starts a new document.
    XmlDec_reset(d);
    XmlDec_feed(d, "<c/>", 4);
    XmlDec_end(d);
    EXPECT_EQ(XML_EVT_START, XmlDec_next(d, &e));
    XmlDec_delete(d);
}

// No DTD is expanded: the classic expansion bomb is a plain error, at once.
TEST_F(Xml, DoctypeAndLimits) {
    std::string bomb = "<?xml version='1.0'?><!DOCTYPE lolz [<!ENTITY lol 'lol'>"
                       "<!ENTITY lol2 '&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;'>]><lolz>&lol2;</lolz>";
    Outcome r = decode(bomb);
    EXPECT_EQ(VEK_ERR_XML_ENTITY, r.err);
    EXPECT_EQ(VEK_ERR_XML_DOCTYPE, decode(bomb, {}, XMLDEC_NO_DOCTYPE).err);
    EXPECT_EQ((std::vector<std::string>{"D:a PUBLIC=-//X//Y SYSTEM=a.dtd", "S:a", "E:a"}),
              decode("<!DOCTYPE a PUBLIC \"-//X//Y\" 'a.dtd'><a/>", {4}).evts);

    XmlDecOpts o{};
    o.maxDepth = 3;
    EXPECT_EQ(0, decode("<a><b><c/></b></a>", {}, 0, &o).err);
    EXPECT_EQ(VEK_ERR_XML_DEPTH, decode("<a><b><c><d/></c></b></a>", {}, 0, &o).err);
    o = XmlDecOpts{};
    o.maxAttrs = 2;
    EXPECT_EQ(VEK_ERR_XML_SIZE, decode("<a x='1' y='2' z='3'/>", {}, 0, &o).err);
    o = XmlDecOpts{};
    o.maxToken = 100;
    Outcome big = decode("<a>" + std::string(200, 'x') + "</a>", {16}, 0, &o);
    EXPECT_EQ(VEK_ERR_XML_SIZE, big.err);
    o = XmlDecOpts{};
    o.maxSize = 50;
    EXPECT_EQ(VEK_ERR_XML_SIZE, decode("<a>" + std::string(60, 'x') + "</a>", {10}, 0, &o).err);
    // Many attributes go through the hashed duplicate check.
    std::string many = "<a";
    for (int i = 0; i < 40; i++) {
        many += " n" + std::to_string(i) + "='" + std::to_string(i) + "'";
    }
    EXPECT_EQ(0, decode(many + "/>").err);
    Outcome dup = decode(many + " n33='x'/>");
    EXPECT_EQ(VEK_ERR_XML_DUP_ATTR, dup.err);
    EXPECT_EQ((vek_s32)many.size() + 2, dup.col);
}

// A text a byte at a time must not cost quadratic time: the end search
// resumes. Fed one byte per call, 200 KB of text and of attribute stay fast.
TEST_F(Xml, LongTokensFedByteByByte) {
    std::string doc = "<a v='" + std::string(200000, 'v') + "'>" + std::string(200000, 't') + "<!--" +
                      std::string(200000, 'c') + "--></a>";
    vek_u32 t0 = vek_msec();
    Outcome r = decode(doc, {1});
    EXPECT_EQ(0, r.err);
    ASSERT_EQ(4u, r.evts.size());
    EXPECT_EQ(200000u + 2, r.evts[1].size());
    EXPECT_LT(vek_msec() - t0, 20000u);
}

TEST_F(Xml, StreamAndTree) {
    const char* text = "<dev id='7'><name>modem</name><port>COM3</port><port>COM4</port>"
                       "<note>a<b/>b<![CDATA[c]]></note></dev>";
    vektest::StrmPtr strm = vektest::chunk_strm(text, 3);  // reads come three bytes at a time
    XmlErr err{1, 1, 1};
    XmlDoc* doc = XmlDoc_parseStrm(strm.get(), nullptr, &err);
    ASSERT_NE(nullptr, doc);
    EXPECT_EQ(0, err.code);
    XmlNode* root = XmlDoc_root(doc);
    EXPECT_STREQ("dev", root->name);
    EXPECT_STREQ("7", XmlNode_attr(root, "id"));
    EXPECT_EQ(nullptr, XmlNode_attr(root, "ID"));
    EXPECT_STREQ("modem", XmlNode_find(root, "name")->text);
    XmlNode* port = XmlNode_child(root, "port");
    EXPECT_STREQ("COM4", XmlNode_next(port, "port")->text);
    EXPECT_EQ(nullptr, XmlNode_next(XmlNode_next(port, "port"), "port"));
    XmlNode* note = XmlNode_find(root, "note");
    EXPECT_STREQ("abc", note->text);  // its text children joined
    EXPECT_STREQ("b", XmlNode_child(note, nullptr)->name);
    EXPECT_EQ(nullptr, XmlNode_find(root, "note/x"));
    EXPECT_EQ(root, XmlNode_find(root, ""));
    XmlDoc_delete(doc);

    EXPECT_EQ(nullptr, XmlDoc_parse("<a><b></a>", -1, nullptr, &err));
    EXPECT_EQ(VEK_ERR_XML_TAG, err.code);
    EXPECT_EQ(7, err.col);
    std::string dir = vektest::temp_dir("xml");
    vektest::write_file(dir + "/d.xml", "\xEF\xBB\xBF<r><x>1</x></r>");
    doc = XmlDoc_parseFile((dir + "/d.xml").c_str(), nullptr, &err);
    ASSERT_NE(nullptr, doc);
    EXPECT_STREQ("1", XmlNode_find(XmlDoc_root(doc), "x")->text);
    XmlDoc_delete(doc);
    EXPECT_EQ(nullptr, XmlDoc_parseFile((dir + "/none.xml").c_str(), nullptr, &err));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, err.code);
    // A stream or fed bytes, not both; nothing after the end.
    XmlDec* d = XmlDec_new(nullptr);
    EXPECT_EQ(0, XmlDec_feed(d, "<a/>", 4));
    EXPECT_EQ(VEK_ERR_BAD_ARG, XmlDec_setStrm(d, strm.get()));
    XmlDec_end(d);
    EXPECT_EQ(VEK_ERR_BAD_ARG, XmlDec_feed(d, "x", 1));
    XmlDec_delete(d);
    vektest::remove_tree(dir);
}

#ifdef HAVE_EXPAT
namespace {

void XMLCALL ex_start(void* u, const XML_Char* name, const XML_Char** atts) {
    Outcome& r = *(Outcome*)u;
    r.flush();
    std::string s = std::string("S:") + name;
    for (int i = 0; atts[i]; i += 2) {
        s += " " + std::string(atts[i]) + "=" + atts[i + 1];
    }
    r.evts.push_back(s);
}
void XMLCALL ex_end(void* u, const XML_Char* name) {
    Outcome& r = *(Outcome*)u;
    r.flush();
    r.evts.push_back(std::string("E:") + name);
}
void XMLCALL ex_text(void* u, const XML_Char* s, int len) {
    ((Outcome*)u)->text.append(s, (size_t)len);
}
void XMLCALL ex_comment(void* u, const XML_Char* s) {
    Outcome& r = *(Outcome*)u;
    r.flush();
    r.evts.push_back(std::string("C:") + s);
}
void XMLCALL ex_pi(void* u, const XML_Char* target, const XML_Char* data) {
    Outcome& r = *(Outcome*)u;
    r.flush();
    r.evts.push_back(std::string("P:") + target + "|" + data);
}

Outcome expat(const std::string& doc) {
    Outcome r;
    XML_Parser p = XML_ParserCreate(nullptr);
    XML_SetUserData(p, &r);
    XML_SetElementHandler(p, ex_start, ex_end);
    XML_SetCharacterDataHandler(p, ex_text);
    XML_SetCommentHandler(p, ex_comment);
    XML_SetProcessingInstructionHandler(p, ex_pi);
    if (XML_Parse(p, doc.data(), (int)doc.size(), 1) != XML_STATUS_OK) {
        r.err = -1;
    }
    r.flush();
    XML_ParserFree(p);
    return r;
}

struct Gen {
    vek_u32 s;
    vek_u32 next() {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return s;
    }
    vek_u32 below(vek_u32 n) { return next() % n; }
    std::string name() {
        static const char* const kNames[] = {"a", "item", "x:y", "_n", "d-1", "\xC3\xA9l", "\xE4\xB8\xAD", "v.2"};
        return kNames[below(8)];
    }
    std::string text() {
        static const char* const kBits[] = {"plain", " ", "\n", "\r\n", "&amp;", "&lt;", "&#65;", "&#x20AC;",
                                            "\xC3\xA9", "\xF0\x9F\x98\x80", "]", ">", "'\"", "\t"};
        std::string s;
        for (vek_u32 i = below(4); i > 0; i--) {
            s += kBits[below(14)];
        }
        return s;
    }
    void element(std::string& out, int depth) {
        std::string n = name();
        out += "<" + n;
        vek_u32 attrs = below(4);
        for (vek_u32 i = 0; i < attrs; i++) {
            std::string v = text();
            for (char& c : v) {
                c = c == '"' ? '\'' : c;
            }
            out += (below(2) ? "\n " : " ") + std::string("k") + std::to_string(i) + "=\"" + v + "\"";
        }
        if (below(4) == 0) {
            out += "/>";
            return;
        }
        out += ">";
        for (vek_u32 i = below(depth < 4 ? 5 : 1); i > 0; i--) {
            switch (below(6)) {
            case 0:
                element(out, depth + 1);
                break;
            case 1:
                out += "<!--" + text() + "-->";
                break;
            case 2:
                out += "<?pi " + text() + "?>";
                break;
            case 3:
                out += "<![CDATA[" + text() + "<&]]>";
                break;
            default: {
                std::string t = text();
                if (t.find("]]>") == std::string::npos) {
                    out += t;
                }
            }
            }
        }
        out += "</" + n + ">";
    }
};

} // namespace

// The same verdict and the same events as expat, on documents made from a
// small grammar and on copies broken by a few byte changes.
TEST_F(Xml, SameAsExpat) {
    Gen g{12345};
    static const char kBreak[] = "<>&\"'=/ a;#\x01\xC3\xFF]-?!:";
    int broken = 0;
    int rejected = 0;
    for (int i = 0; i < 3000; i++) {
        std::string doc = g.below(2) ? "<?xml version=\"1.0\"?>\n" : "";
        g.element(doc, 0);
        doc += g.below(2) ? "\n<!-- tail -->\n" : "";
        if (i % 3 != 0) {
            // The declaration stays: expat takes any version number.
            size_t from = doc.find("?>") != std::string::npos && doc[1] == '?' ? doc.find("?>") + 2 : 0;
            broken++;
            for (vek_u32 k = 1 + g.below(3); k > 0; k--) {
                size_t at = from + g.below((vek_u32)(doc.size() - from));
                switch (g.below(3)) {
                case 0:
                    doc.erase(at, 1);
                    break;
                case 1:
                    doc.insert(at, 1, kBreak[g.below(sizeof kBreak - 1)]);
                    break;
                default:
                    doc[at] = kBreak[g.below(sizeof kBreak - 1)];
                }
            }
        }
        Outcome want = expat(doc);
        Outcome got = decode(doc, {1 + g.below(40)}, XMLDEC_COMMENTS | XMLDEC_PIS);
        rejected += got.err != 0;
        ASSERT_EQ(want.err != 0, got.err != 0) << "document: " << doc << "\nours: " << got.err << " at " << got.line
                                               << ":" << got.col;
        if (!want.err) {
            ASSERT_EQ(want.evts, got.evts) << doc;
        }
    }
    std::printf("[ expat    ] 3000 documents, %d broken, %d rejected by both\n", broken, rejected);
}
#endif
