/*
 * INI documents: the loader's recognition rules, byte-for-byte round trips,
 * lookups, every change operation, diff and categories; the TinyIni scanner
 * where it deliberately disagrees; the one-shot accessors; safe writes.
 */
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#ifndef _WIN32
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#endif
#include "StrmTest.h"
#include "VekTest.h"

using vektest::StrmPtr;

namespace {

/* A document loaded from text, deleted at the end of the test. */
struct Doc {
    IniFile* d;
    explicit Doc(const std::string& text = "") {
        vek_s32 err = 1;
        d = IniFile_newBuf(text.c_str(), (vek_s32)text.size(), &err);
        EXPECT_EQ(0, err);
    }
    ~Doc() { IniFile_delete(d); }
    std::string out() const {
        char* buf = nullptr;
        vek_s32 len = IniFile_outBuf(d, &buf);
        std::string s(buf ? buf : "", len > 0 ? (size_t)len : 0);
        vek_free__(buf);
        return s;
    }
    std::string get(const char* sect, const char* field, const char* def = "<none>") const {
        char buf[256];
        IniFile_getStr(d, sect, field, def, buf, sizeof buf);
        return buf;
    }
};

std::string name_of(const IniSect* s) {
    return VekStr_buf(&s->name);
}

std::string tiny(const std::string& text, const char* sect, const char* field, const char* def = "<none>") {
    StrStrm mem;
    IStrm* s = StrStrm_xcreate__(&mem, text.c_str(), (vek_s32)text.size(), __FILE__, __LINE__);
    char buf[64];
    TinyIni_getStr(s, sect, field, def, buf, sizeof buf);
    IStrm_release(s);
    return buf;
}

} // namespace

using IniLoad = VekTest;

TEST_F(IniLoad, FieldRecognition) {
    Doc doc("a=b\r\nc = d\r\ne=\r\n=f\r\n; g=h\r\n#i=1\r\n\"q\"=2\r\nword\r\nx\"y=3\r\n  \tk=v ; not a comment\r\n");
    EXPECT_EQ("b", doc.get(nullptr, "a"));
    EXPECT_EQ(" d", doc.get(nullptr, "c "));  // blanks before "=" belong to the name
    EXPECT_EQ("<none>", doc.get(nullptr, "c"));
    EXPECT_EQ("", doc.get(nullptr, "e"));
    EXPECT_EQ("1", doc.get(nullptr, "#i"));   // only ";" starts a comment
    EXPECT_EQ("v ; not a comment", doc.get(nullptr, "k"));
    EXPECT_EQ("<none>", doc.get(nullptr, "; g"));
    EXPECT_EQ(10, IniFile_fieldCount(doc.d, nullptr));  // every line is kept
    int valid = 0;  // "=f", "; g=h", "\"q\"=2", "word" and "x\"y=3" are not fields
    for (vek_s32 i = 0; IniFile_fieldById(doc.d, nullptr, i); i++) {
        valid++;
    }
    EXPECT_EQ(5, valid);
}

TEST_F(IniLoad, HeaderRecognition) {
    Doc doc("[s] ; note\r\na=1\r\n[ a ]\r\nb=2\r\n[]\r\n[\"x]\r\n  \t[t]\r\n[open\r\n[u]]\r\n");
    ASSERT_EQ(4, IniFile_sectCount(doc.d));
    EXPECT_EQ("s", name_of(IniFile_sectById(doc.d, 0)));
    EXPECT_EQ(" a ", name_of(IniFile_sectById(doc.d, 1)));  // blanks inside are kept
    EXPECT_EQ(3, IniFile_fieldCount(doc.d, " a "));        // b=2, [] and ["x] are its lines
    EXPECT_EQ("t", name_of(IniFile_sectById(doc.d, 2)));
    EXPECT_EQ("u", name_of(IniFile_sectById(doc.d, 3)));   // the name ends at the first "]"
    EXPECT_EQ("[s] ; note", std::string(VekStr_buf(&IniFile_findSect(doc.d, "S")->header)));
    EXPECT_EQ(nullptr, IniFile_findSect(doc.d, "open"));
}

TEST_F(IniLoad, ByteOrderMarkHidesTheFirstHeader) {
    Doc doc("\xEF\xBB\xBF[s]\r\na=1\r\n");
    EXPECT_EQ(nullptr, IniFile_findSect(doc.d, "s"));
    EXPECT_EQ(2, IniFile_fieldCount(doc.d, nullptr));  // the nameless section holds both lines
    EXPECT_EQ("1", doc.get("", "a"));
}

TEST_F(IniLoad, MessyFileRoundTripsByteForByte) {
    const std::string text =
        "; generated file, do not edit\r\n"
        "Top = level value  \r\n"
        "\r\n"
        "[Device] ; the modem\r\n"
        "Port=COM3\r\n"
        "  Baud\t=\t115200\r\n"
        "port=duplicate, ignored by lookups\r\n"
        "garbage line without equals\r\n"
        "=orphan value\r\n"
        "\r\n"
        "[device]\r\n"
        "Second=section of the same name\r\n"
        "   [ Spaced Name ]   trailing text\r\n"
        "key=\"quoted ; value\"\r\n"
        "\t\r\n"
        "[Empty]\r\n";
    Doc doc(text);
    EXPECT_EQ(text, doc.out());
    EXPECT_EQ("COM3", doc.get("DEVICE", "PORT"));  // the first duplicate wins
    EXPECT_EQ("<none>", doc.get("device", "Second"));
    EXPECT_EQ("\t115200", doc.get("Device", "Baud\t"));
    EXPECT_EQ("\"quoted ; value\"", doc.get(" Spaced Name ", "key"));
    EXPECT_EQ(0, IniFile_moded(doc.d));
    // Other line ends come back as CR LF, and a final line gains one.
    Doc lf("a=1\n[s]\nb=2");
    EXPECT_EQ("a=1\r\n[s]\r\nb=2\r\n", lf.out());
}

// Where the 1024-byte limit falls is pinned by the boundary sweep below;
// here, what a failed load does to a document that already held text.
TEST_F(IniLoad, AnOverLongLineLeavesTheDocumentEmpty) {
    IniFile* d = IniFile_new(nullptr);
    EXPECT_EQ(0, IniFile_loadBuf(d, "[keep]\r\nx=1\r\n", -1));
    std::string tooLong = "[s]\r\nk=" + std::string(1023, 'v') + "\r\n";
    EXPECT_EQ(VEK_ERR_INI_LINE_LONG, IniFile_loadBuf(d, tooLong.c_str(), (vek_s32)tooLong.size()));
    EXPECT_EQ(0, IniFile_sectCount(d));
    EXPECT_EQ(0, IniFile_moded(d));
    IniFile_delete(d);
}

TEST_F(IniLoad, LinesAcrossReadBoundaries) {
    // The reader takes the text in pieces. Shifting a stretch of every kind
    // of line end and the longest line allowed a byte at a time across 16 KiB
    // (a piece boundary for any power-of-two piece size up to that) puts
    // each of its bytes on the boundary once.
    const std::string shortLines = "a=1\r\n\r\rb=2\n\n[s]\r;c\n\rd=\r\n";
    std::string filler;
    for (int i = 0; i < 15; i++) {
        filler += ";" + std::string(997, 'f') + "\r\n";
    }
    while (filler.size() < 15190) {
        filler += shortLines;
    }
    auto crlf = [](const std::string& t) {
        std::string want;
        for (size_t i = 0; i < t.size();) {
            size_t j = t.find_first_of("\r\n", i);
            if (j == std::string::npos) {
                return want + t.substr(i) + "\r\n";
            }
            want += t.substr(i, j - i) + "\r\n";
            i = j + (t[j] == '\r' && j + 1 < t.size() && t[j + 1] == '\n' ? 2 : 1);
        }
        return want;
    };
    for (size_t shift = 0; shift < 1200; shift++) {
        SCOPED_TRACE(shift);
        std::string head = std::string(shift, '\n') + filler + shortLines + "k=" + std::string(1022, 'v');
        std::string tail = "\r\n" + shortLines + shortLines + "e=last";
        {
            Doc doc(head + tail);
            ASSERT_EQ(crlf(head + tail), doc.out());
        }
        vek_s32 err = 0;
        std::string tooLong = head + "v" + tail;
        ASSERT_EQ(nullptr, IniFile_newBuf(tooLong.data(), (vek_s32)tooLong.size(), &err));
        ASSERT_EQ(VEK_ERR_INI_LINE_LONG, err);
    }
}

TEST_F(IniLoad, LoadingAppendsToWhatTheDocumentHolds) {
    Doc doc("[a]\r\nx=1\r\n");
    IniFile_loadBuf(doc.d, "y=2\r\n[b]\r\nz=3\r\n", -1);
    EXPECT_EQ("2", doc.get("a", "y"));  // leading fields join the last section
    EXPECT_EQ("3", doc.get("b", "z"));
    VekData* data = VekData_new("w=4\r\n", 5);
    EXPECT_EQ(0, IniFile_loadData(doc.d, data));
    EXPECT_EQ("4", doc.get("b", "w"));
    EXPECT_EQ(5, VekData_len(data));  // the chain stays the caller's
    VekData_delete(data);
}

using IniLookup = VekTest;

TEST_F(IniLookup, CountsAndIndexes) {
    Doc doc("n=0\r\n[s]\r\na=1\r\n; c\r\nb=2\r\n");
    EXPECT_EQ(2, IniFile_sectCount(doc.d));
    EXPECT_EQ(3, IniFile_fieldCount(doc.d, "s"));  // lines, not fields
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_fieldCount(doc.d, "x"));
    EXPECT_EQ("b", std::string(VekStr_buf(&IniFile_fieldById(doc.d, "s", 1)->name)));
    EXPECT_EQ(nullptr, IniFile_fieldById(doc.d, "s", 2));  // only two fields
    EXPECT_EQ(nullptr, IniFile_sectById(doc.d, 2));
    EXPECT_EQ(nullptr, IniFile_sectById(doc.d, -1));
    expect_assert("id >= 0");
    EXPECT_EQ(nullptr, IniFile_fieldById(doc.d, "s", -1));
    expect_assert("id >= 0");
    EXPECT_EQ(1, IniField_valid(IniFile_findField(doc.d, "S", "A")));
    EXPECT_EQ(nullptr, IniFile_findField(doc.d, "s", ""));
    expect_assert("fieldName && *fieldName");
}

TEST_F(IniLookup, FollowsListsAndNamesChangedDirectly) {
    // Callers may rearrange the lists and rename through the string calls;
    // every answer afterwards is the first match in the lists as they stand.
    // The document is long enough to be indexed, and each question is asked
    // twice, so that the second answer comes from a table built after the
    // change.
    std::string text;
    for (int i = 0; i < 20; i++) {
        text += "[f" + std::to_string(i) + "]\r\nk=f\r\n";
    }
    Doc doc(text + "[a]\r\nk=1\r\n[b]\r\nk=2\r\n[A]\r\nk=3\r\nK=4\r\n[c]\r\nk=5\r\n");
    Doc other("[B]\r\nk=6\r\n");
    auto ask = [&](const char* sect, const char* field) {
        std::string first = doc.get(sect, field);
        EXPECT_EQ(first, doc.get(sect, field)) << sect;
        return first;
    };
    VekList* sects = IniFile_sectList(doc.d);
    IniSect* b = IniFile_sectById(doc.d, 21);
    IniSect* a2 = IniFile_sectById(doc.d, 22);
    IniSect* c = IniFile_sectById(doc.d, 23);
    EXPECT_EQ("1", ask("A", "k"));
    VekList_getAny__(sects, a2);
    EXPECT_EQ("1", ask("a", "K"));
    VekList_addHdr__(sects, a2);
    EXPECT_EQ("3", ask("a", "k"));  // the later duplicate now comes first
    VekStr_setStr(&a2->name, "z");  // same length, in place
    EXPECT_EQ("1", ask("a", "k"));
    EXPECT_EQ("3", ask("Z", "k"));
    const std::string longName(80, 'n');
    VekStr_setStr(&b->name, longName.c_str());
    EXPECT_EQ("<none>", ask("b", "k"));
    EXPECT_EQ("2", ask(longName.c_str(), "k"));
    VekStr_useBufBeg(&b->name, 1)[0] = 'B';
    VekStr_useBufEnd(&b->name, 1);
    EXPECT_EQ("2", ask("b", "k"));
    IniSect* ob = IniFile_sectById(other.d, 0);
    VekList_getAny__(IniFile_sectList(other.d), ob);
    EXPECT_EQ("2", ask("b", "k"));
    EXPECT_EQ(1, VekList_addAnyNext__(sects, ob, a2));
    EXPECT_EQ("6", ask("b", "k"));
    EXPECT_EQ(a2, (IniSect*)VekList_getHdr(sects));
    EXPECT_EQ("<none>", ask("z", "k"));
    VekList_addTail__(sects, a2);
    EXPECT_EQ("3", ask("z", "k"));
    VekStr_setStr(&a2->name, "cz");
    EXPECT_EQ("3", ask("CZ", "k"));
    VekStr_appdStrx(&c->name, "z", 1);  // "cz", and c stands before it
    EXPECT_EQ("5", ask("CZ", "k"));
    VekStr_clear(&c->name);
    EXPECT_EQ("3", ask("cz", "k"));
    // The lines of a section likewise.
    VekStr_setStr(&a2->name, "q");
    IniField* k4 = (IniField*)VekList_getTail(&a2->fields);
    VekList_addHdr__(&a2->fields, k4);
    EXPECT_EQ("4", ask("q", "k"));
    VekStr_setStr(&k4->name, "j");
    EXPECT_EQ("3", ask("q", "k"));
    EXPECT_EQ("4", ask("q", "J"));
    IniField* k3 = (IniField*)VekList_getTail(&a2->fields);
    EXPECT_EQ("<none>", ask("q", "k"));
    VekList_addTail__(&a2->fields, k3);
    EXPECT_EQ("3", ask("q", "k"));
}

TEST_F(IniLookup, IndexKeepsToItsOwnDocument) {
    // A document's index is trusted until something of its own changes.
    // A byte written straight into a name (behind every call) shows which
    // answered: a current index still holds the old name, the scan sees the
    // new one.
    std::string text;
    for (int i = 0; i < 20; i++) {
        text += "[s" + std::to_string(i) + "]\r\nk=" + std::to_string(i) + "\r\n";
    }
    Doc a(text), b(text);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ("3", a.get("s3", "k"));
        EXPECT_EQ("3", b.get("s3", "k"));
    }
    IniSect* s3 = IniFile_sectById(a.d, 3);
    ((char*)s3->name.data + STRDATA_HDR)[1] = 'X';
    VekList unrelated;
    VekList_init(&unrelated, LIST_ONE_WAY);
    VekStr_len(&IniFile_sectById(b.d, 0)->name);  // a name of the other document
    VekList_addHdr__(IniFile_sectList(b.d), VekList_getTail(IniFile_sectList(b.d)));
    EXPECT_EQ(nullptr, IniFile_findSect(a.d, "sX"));
    VekStr_len(&IniFile_sectById(a.d, 0)->name);  // one of its own
    EXPECT_EQ(s3, IniFile_findSect(a.d, "sX"));
    VekStr_len(&s3->name);
}

TEST_F(IniLookup, DistinctDocumentsOnTwoThreads) {
    // Each thread renames and relinks the sections of its own document
    // between lookups while the other does the same; the shared index chain
    // and change count must keep every answer right.
    auto work = [](int* wrong) {
        std::string text;
        for (int i = 0; i < 24; i++) {
            text += "[s" + std::to_string(i) + "]\r\nk=" + std::to_string(i) + "\r\n";
        }
        IniFile* d = IniFile_newBuf(text.c_str(), (vek_s32)text.size(), nullptr);
        VekList* sects = IniFile_sectList(d);
        char buf[16];
        for (int round = 0; round < 400; round++) {
            IniSect* s = IniFile_sectById(d, round % 24);
            std::string oldName = VekStr_buf(&s->name);
            std::string newName = "t" + std::to_string(round);
            std::string want = VekStr_buf(&((IniField*)s->fields.hdr)->value);
            VekStr_setStr(&s->name, newName.c_str());
            VekList_getAny__(sects, s);
            VekList_addHdr__(sects, s);
            for (int ask = 0; ask < 3; ask++) {
                IniFile_getStr(d, newName.c_str(), "K", "-", buf, sizeof buf);
                *wrong += want != buf;
                IniFile_getStr(d, oldName.c_str(), "k", "-", buf, sizeof buf);
                *wrong += std::string("-") != buf;
            }
        }
        IniFile_delete(d);
    };
    int wrong1 = 0, wrong2 = 0;
    std::thread t1(work, &wrong1), t2(work, &wrong2);
    t1.join();
    t2.join();
    EXPECT_EQ(0, wrong1);
    EXPECT_EQ(0, wrong2);
}

TEST_F(IniLookup, ReadersAndTheirDefaults) {
    Doc doc("[s]\r\nnum= 42abc\r\nneg=-7\r\nhex=0x10\r\nlong=abcdefghij\r\n");
    EXPECT_EQ(42, IniFile_getInt(doc.d, "s", "num", 5));
    EXPECT_EQ(-7, IniFile_getInt(doc.d, "s", "neg", 5));
    EXPECT_EQ(0, IniFile_getInt(doc.d, "s", "hex", 5));  // decimal only
    EXPECT_EQ(5, IniFile_getInt(doc.d, "s", "none", 5));
    char buf[5] = "zzzz";
    EXPECT_EQ(4, IniFile_getStr(doc.d, "s", "long", "d", buf, sizeof buf));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(0, IniFile_getStr(doc.d, "s", "none", nullptr, buf, sizeof buf));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(2, IniFile_getStr(doc.d, "s", "none", "df", buf, sizeof buf));
    EXPECT_EQ(0, IniFile_getStr(doc.d, "s", "long", "d", buf, 0));
    VekStr str;
    VekStr_new(&str);
    EXPECT_EQ(10, IniFile_getStrx(doc.d, "s", "long", nullptr, &str));
    EXPECT_EQ(0, IniFile_getStrx(doc.d, "s", "none", nullptr, &str));
    EXPECT_EQ(3, IniFile_getStrx(doc.d, "s", "none", "def", &str));
    EXPECT_EQ(0, IniFile_getStrx(doc.d, "s", "long", nullptr, nullptr));
    VekStr_delete(&str);
}

using IniChange = VekTest;

TEST_F(IniChange, SetKeepsCommentsBelowAndRewritesTheLine) {
    Doc doc("[s]\r\nkey=old\r\nb=2\r\n; closing comment\r\n\r\n[t]\r\n; only comments\r\n[u]\r\nlast=1\r\n");
    EXPECT_EQ(0, IniFile_setStr(doc.d, "s", "KEY", "new"));
    EXPECT_EQ(0, IniFile_setStr(doc.d, "s", "c", "3"));
    EXPECT_EQ(0, IniFile_setStr(doc.d, "t", "x", "y"));
    EXPECT_EQ(0, IniFile_setInt(doc.d, "u", "n", -5));
    EXPECT_EQ(0, IniFile_setStr(doc.d, "new", "k", nullptr));
    EXPECT_EQ(0, IniFile_setStr(doc.d, nullptr, "top", "1"));
    EXPECT_EQ(1, IniFile_moded(doc.d));
    EXPECT_EQ("top=1\r\n"
              "[s]\r\nKEY=new\r\nb=2\r\nc=3\r\n; closing comment\r\n\r\n"
              "[t]\r\nx=y\r\n; only comments\r\n"
              "[u]\r\nlast=1\r\nn=-5\r\n"
              "[new]\r\nk=\r\n",
              doc.out());
}

TEST_F(IniChange, RenamesDeletesAndTheValueLossOfRenField) {
    Doc doc("[s] ; c\r\na=1\r\nb=2\r\n[t]\r\n");
    EXPECT_EQ(0, IniFile_renField(doc.d, "s", "a", "A2"));
    EXPECT_EQ("1", doc.get("s", "a2"));  // still readable in memory...
    EXPECT_EQ(0, IniFile_renSect(doc.d, "s", "S2"));
    EXPECT_EQ(0, IniFile_delField(doc.d, "S2", "b"));
    EXPECT_EQ(0, IniFile_delSect(doc.d, "t"));
    EXPECT_EQ("[S2]\r\nA2=\r\n", doc.out());  // ...but written as "name=" only
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_renSect(doc.d, "none", "x"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_renField(doc.d, "S2", "none", "x"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_delField(doc.d, "S2", "none"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_delSect(doc.d, "none"));
    IniFile_renField(doc.d, "S2", "A2", "");
    expect_assert("oldFieldName && *oldFieldName && newFieldName && *newFieldName");
    IniFile_renSect(doc.d, "S2", nullptr);
    expect_assert("newSectName && *newSectName");
}

TEST_F(IniChange, MoveSectionIntoAnExistingOne) {
    Doc doc("[src]\r\na=new\r\n; note\r\nb=2\r\n[dst]\r\nA=old\r\nc=3\r\n");
    EXPECT_EQ(0, IniFile_moveSect(doc.d, "src", "dst"));
    EXPECT_EQ("[dst]\r\na=new\r\nc=3\r\n; note\r\nb=2\r\n", doc.out());
    EXPECT_EQ(0, IniFile_moveSect(doc.d, "dst", "fresh"));  // created at the end
    EXPECT_EQ("[fresh]\r\na=new\r\nc=3\r\n; note\r\nb=2\r\n", doc.out());
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_moveSect(doc.d, "none", "x"));
    EXPECT_EQ(0, IniFile_moveSect(doc.d, "fresh", "fresh"));  // not guarded, but it ends
}

TEST_F(IniChange, MoveField) {
    Doc doc("[a]\r\nk=1\r\nm=2\r\n[b]\r\nK=0\r\n");
    EXPECT_EQ(0, IniFile_moveField(doc.d, "a", "k", "b"));  // overwrites b's field
    EXPECT_EQ(0, IniFile_moveField(doc.d, "a", "m", "c"));  // appended to a new section
    EXPECT_EQ("[a]\r\n[b]\r\nk=1\r\n[c]\r\nm=2\r\n", doc.out());
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_moveField(doc.d, "a", "k", "b"));
}

TEST_F(IniChange, ClearAndTheModifiedFlag) {
    Doc empty;
    IniFile_clear(empty.d);
    EXPECT_EQ(0, IniFile_moded(empty.d));  // nothing was there
    Doc doc("[s]\r\n");
    IniFile_clear(doc.d);
    EXPECT_EQ(1, IniFile_moded(doc.d));
    EXPECT_EQ(0, IniFile_sectCount(doc.d));
}

using IniExport = VekTest;

TEST_F(IniExport, DiffComparesValuesWithoutCase) {
    Doc oldDoc("[same]\r\nflag=On\r\nval=1\r\ngone=x\r\n[dropped]\r\np=1\r\n; c\r\n");
    Doc newDoc("[same]\r\nflag=on\r\nval=2\r\nadded=y\r\n[new] ; hdr\r\nq=1\r\n; c\r\n");
    Doc added, changed, removed;
    EXPECT_EQ(1, IniFile_diff(oldDoc.d, newDoc.d, added.d, changed.d, removed.d));
    EXPECT_EQ("[same]\r\nadded=y\r\n[new]\r\nq=1\r\n", added.out());
    EXPECT_EQ("[same]\r\nval=2\r\n", changed.out());
    EXPECT_EQ("[same]\r\ngone=x\r\n[dropped]\r\np=1\r\n", removed.out());
    EXPECT_EQ(1, IniFile_moded(added.d));
    EXPECT_EQ(0, IniFile_diff(oldDoc.d, oldDoc.d, nullptr, nullptr, nullptr));
}

TEST_F(IniExport, CategoriesAndSections) {
    std::string longName(140, 'n');
    Doc doc("[App.Main]\r\na=1\r\n[other]\r\nb=2\r\n[app.Extra] ; x\r\n; c\r\nc=3\r\n[App." + longName + "]\r\n");
    StrmPtr out = vektest::mem_strm_with();
    EXPECT_EQ(3, IniFile_getCate(doc.d, "APP", out.get()));
    EXPECT_EQ("[Main]\r\na=1\r\n[Extra]\r\n; c\r\nc=3\r\n[" + std::string(127, 'n') + "]\r\n",
              vektest::bytes_of(out.get()));
    StrmPtr one = vektest::mem_strm_with();
    EXPECT_EQ(14, IniFile_getSect(doc.d, "other", one.get()));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, IniFile_getSect(doc.d, "none", one.get()));
    IniFile_getCate(doc.d, nullptr, one.get());
    expect_assert("cateName && strm");
}

TEST_F(IniExport, OutputForms) {
    Doc doc("[s]\r\nk=v\r\n; c\r\n");
    StrmPtr s = vektest::mem_strm_with("junk");
    EXPECT_EQ(15, IniFile_outStrm(doc.d, s.get()));  // the stream is emptied first
    EXPECT_EQ(30, IniFile_outStrmx(doc.d, s.get(), 1));
    StrmPtr fields = vektest::mem_strm_with();
    EXPECT_EQ(5, IniSect_outStrmx(IniFile_findSect(doc.d, "s"), fields.get(), 0, 1));
    EXPECT_EQ("k=v\r\n", vektest::bytes_of(fields.get()));
    VekData* data = nullptr;
    EXPECT_EQ(15, IniFile_outData(doc.d, &data));
    EXPECT_EQ(15, VekData_len(data));
    VekData_delete(data);
}

using TinyIniScan = VekTest;

TEST_F(TinyIniScan, DisagreesWithTheDocumentWhereItShould) {
    const std::string text = "[Sect]\r\nkey = value ; note\r\n  other\t=  x y \t\r\n";
    EXPECT_EQ("value", tiny(text, "sect", "KEY"));
    Doc doc(text);
    EXPECT_EQ("<none>", doc.get("Sect", "key"));  // the document's name is "key "
    EXPECT_EQ(" value ; note", doc.get("Sect", "key "));
    EXPECT_EQ("x y", tiny(text, "Sect", "other"));
    EXPECT_EQ("value", tiny("[ Sect ]\r\nkey=value\r\n", "sect", "key"));  // names trimmed
}

TEST_F(TinyIniScan, SectionsCommentsAndDefaults) {
    const std::string text = "top=1\r\n; c=2\r\n[a]\r\nk=in a\r\n[b]\r\nk=in b\n";
    EXPECT_EQ("1", tiny(text, nullptr, "top"));
    EXPECT_EQ("<none>", tiny(text, "", "k"));  // the nameless part ends at the first header
    EXPECT_EQ("in b", tiny(text, "B", "k"));
    EXPECT_EQ("<none>", tiny(text, "a", "top"));
    EXPECT_EQ("", tiny(text, "a", "none", nullptr));
    EXPECT_EQ("<none>", tiny(text, "a", "c"));
    StrStrm mem;
    IStrm* s = StrStrm_xcreate__(&mem, text.c_str(), -1, __FILE__, __LINE__);
    char small[4];
    EXPECT_STREQ("in", TinyIni_getStr(s, "a", "k", nullptr, small, sizeof small));  // cut, then trimmed
    EXPECT_EQ(1, TinyIni_getInt(s, "", "top", 9));
    EXPECT_EQ(9, TinyIni_getInt(s, "a", "top", 9));
    TinyStr ts;
    TinyStr_new(&ts);
    TinyStr_appdStr(&ts, ">");
    EXPECT_STREQ(">in a", TinyIni_getStrx(s, "a", "k", "d", &ts));
    EXPECT_STREQ(">in ad", TinyIni_getStrx(s, "a", "x", "d", &ts));
    TinyStr_delete(&ts);
    IStrm_release(s);
}

TEST_F(TinyIniScan, LongNamesAndBadArguments) {
    // 126 characters is the longest name, for sections and fields alike.
    std::string ok(126, 's');
    EXPECT_EQ("1", tiny("[" + ok + "]\r\n" + ok + "=1\r\n", ok.c_str(), ok.c_str()));
    std::string over(127, 's');
    EXPECT_EQ("<none>", tiny("[" + over + "]\r\nk=1\r\n", "x", "k"));
    expect_assert("offset < TINI_NAME_MAX - 1");
    tiny(over + "=1\r\n", "", over.c_str());
    expect_assert("offset < TINI_NAME_MAX - 1");
    char buf[8];
    EXPECT_EQ(buf, TinyIni_getStr(nullptr, "a", "b", nullptr, buf, sizeof buf));
    expect_assert("strm && fieldName");
    StrStrm mem;
    IStrm* s = StrStrm_xcreate__(&mem, "k=1", -1, __FILE__, __LINE__);
    TinyIni_getStr(s, nullptr, "k", nullptr, buf, 0);
    expect_assert("val || valBuf && valSize > 0");
    IStrm_release(s);
}

using IniOneShot = VekTest;

TEST_F(IniOneShot, UnloadableSourcesReturnTheErrorAndKeepTheBuffer) {
    std::string dir = vektest::temp_dir("oneshot");
    std::string missing = dir + "/missing.ini";
    char buf[8] = "keep";
    EXPECT_EQ(VEK_ERR_FILE_OPEN, IniUtil_getFileStr(missing.c_str(), "s", "k", "def", buf, sizeof buf));
    EXPECT_STREQ("keep", buf);
    EXPECT_EQ(VEK_ERR_FILE_OPEN, IniUtil_getFileInt(missing.c_str(), "s", "k", 5));
    std::string tooLong(1100, 'x');
    EXPECT_EQ(VEK_ERR_INI_LINE_LONG, IniUtil_getStrStr(tooLong.c_str(), nullptr, "k", "d", buf, sizeof buf));
    EXPECT_STREQ("keep", buf);
    IniUtil_getFileStr(nullptr, "s", "k", "d", buf, sizeof buf);
    expect_assert("file && fieldName && *fieldName");
    vektest::remove_tree(dir);
}

TEST_F(IniOneShot, EverySourceKind) {
    const char* text = "[s]\r\nk=v\r\nn=12\r\n";
    char buf[8];
    VekStr str, cstr;
    VekStr_new(&str);
    VekStr_new(&cstr);
    VekStr_setStr(&cstr, text);
    EXPECT_EQ(1, IniUtil_getStrStr(text, "s", "k", "d", buf, sizeof buf));
    EXPECT_EQ(12, IniUtil_getBufInt(text, 16, "S", "n", 0));
    EXPECT_EQ(5, IniUtil_getBufInt(text, 10, "s", "n", 5));  // the length cuts "n=12" off
    EXPECT_EQ(1, IniUtil_getCstrStrx(&cstr, "s", "k", nullptr, &str));
    EXPECT_EQ(12, IniUtil_getCstrInt(&cstr, "s", "n", 0));
    VekData* data = VekData_new(text, (vek_s32)std::strlen(text));
    EXPECT_EQ(1, IniUtil_getDataStr(data, "s", "none", "x", buf, sizeof buf));
    EXPECT_EQ(2, IniUtil_getDataStrx(data, "s", "n", "x", &str));
    VekData_delete(data);
    StrmPtr strm = vektest::mem_strm_with(text);
    EXPECT_EQ(12, IniUtil_getStrmInt(strm.get(), "s", "n", 0));
    EXPECT_EQ(0, IniUtil_setStrmInt(strm.get(), "s", "n", 13));
    EXPECT_EQ("[s]\r\nk=v\r\nn=13\r\n", vektest::bytes_of(strm.get()));
    VekStr_delete(&str);
    VekStr_delete(&cstr);
}

// The one-shot readers make their own pass over the text; on random texts
// built from the pieces the line rules care about they must answer exactly
// as a loaded document does (and fail as its load fails).
TEST_F(IniOneShot, AnswerAsTheLoadedDocumentOnRandomTexts) {
    const char* pieces[] = {"[a]", "[A]", " [b]", "\t[a ]", "[\"x]", "[]", "[a", "a=1", "A =2", " b=3",
                            "a;=4", "c\"=5", "=6", "b=", ";a=7", "# b=8", "", "a=x\rb=y", "\xEF\xBB\xBF[b]",
                            "a=9", "c = 10", "B=0x1f"};
    const char* ends[] = {"\n", "\r\n", "\r", "\n\r"};
    const char* sects[] = {nullptr, "", "a", "A", "b", "a ", "x", "\"x"};
    const char* fields[] = {"a", "A", "b", "c", "c ", "B"};
    unsigned seed = 7;
    auto rnd = [&](unsigned n) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) % n;
    };
    VekStr got, want;
    VekStr_new(&got);
    VekStr_new(&want);
    for (int round = 0; round < 400; round++) {
        std::string text;
        for (unsigned i = 0, n = rnd(14); i < n; i++) {
            text += pieces[rnd(sizeof pieces / sizeof *pieces)];
            if (rnd(60) == 0) {
                text += std::string(1020 + rnd(8), 'v');  // near the line limit
            }
            if (rnd(8) == 0) {
                text += std::string(1, '\0') + "z";
            }
            if (i + 1 < n || rnd(2)) {
                text += ends[rnd(4)];
            }
        }
        vek_s32 len = (vek_s32)text.size();
        vek_s32 err = 0;
        IniFile* d = len > 0 ? IniFile_newBuf(text.data(), len, &err) : nullptr;
        for (const char* sect : sects) {
            for (const char* field : fields) {
                SCOPED_TRACE(testing::Message() << "round " << round << " [" << (sect ? sect : "(null)")
                                                << "] " << field);
                char buf[16] = "keep";
                vek_s32 r = len > 0 ? IniUtil_getBufStr(text.data(), len, sect, field, "def", buf, sizeof buf)
                                    : 0;
                vek_s32 rx = len > 0 ? IniUtil_getBufStrx(text.data(), len, sect, field, "def", &got) : 0;
                vek_s32 ri = len > 0 ? IniUtil_getBufInt(text.data(), len, sect, field, -3) : 0;
                if (len == 0) {
                    continue;
                }
                if (!d) {
                    EXPECT_EQ(err, r);
                    EXPECT_EQ(err, rx);
                    EXPECT_EQ(err, ri);
                    EXPECT_STREQ("keep", buf);
                    continue;
                }
                char wbuf[16];
                EXPECT_EQ(IniFile_getStr(d, sect, field, "def", wbuf, sizeof wbuf), r);
                EXPECT_STREQ(wbuf, buf);
                EXPECT_EQ(IniFile_getStrx(d, sect, field, "def", &want), rx);
                EXPECT_EQ(std::string(VekStr_buf(&want), (size_t)VekStr_len(&want)),
                          std::string(VekStr_buf(&got), (size_t)VekStr_len(&got)));
                EXPECT_EQ(IniFile_getInt(d, sect, field, -3), ri);
            }
        }
        if (d) {
            IniFile_delete(d);
        }
    }
    VekStr_delete(&got);
    VekStr_delete(&want);
}

TEST_F(IniOneShot, NameValueTexts) {
    StrmPtr s = vektest::mem_strm_with("old");
    TxtStrm_new(s.get(), "a", "1", "b", (const char*)nullptr, "", "skipped", (const char*)nullptr);
    expect_assert("*name");
    EXPECT_EQ("a=1\r\nb=\r\n", vektest::bytes_of(s.get()));
    VekStr str;
    VekStr_new(&str);
    EXPECT_STREQ("x=y\r\n", TxtCstr_new(&str, "x", "y", (const char*)nullptr));
    EXPECT_EQ(0, TxtCstr_getStr(&str, "none", "", nullptr, 0));
    EXPECT_EQ(1, TxtCstr_getStrx(&str, "X", nullptr, &str));
    VekStr_delete(&str);
    VekData* data = nullptr;
    VekData* made = TxtData_new(&data, "n", "7", (const char*)nullptr);
    EXPECT_EQ(made, data);
    EXPECT_EQ(7, IniUtil_getDataInt(data, nullptr, "n", 0));
    VekData_delete(data);
    EXPECT_EQ(7, TxtStr_getInt("n=7\r\n", "n", 0));
    VekStr out;
    VekStr_new(&out);
    EXPECT_EQ(1, TxtStr_getStrx("n=7\r\n", "n", nullptr, &out));
    char buf[4];
    EXPECT_EQ(1, TxtStr_getStr("n=7\r\n", "n", nullptr, buf, sizeof buf));
    EXPECT_EQ(7, TxtCstr_getInt(&out, "none", 7));
    VekStr_delete(&out);
}

using IniFiles = VekTest;

TEST_F(IniFiles, SetOnAMissingFileCreatesItAndFilesRoundTrip) {
    std::string dir = vektest::temp_dir("inifiles");
    std::string path = dir + "/\xC3\xA9t\xC3\xA9.ini";  // a UTF-8 name
    EXPECT_EQ(0, IniUtil_setFileStr(path.c_str(), "Net", "Host", "example"));
    EXPECT_EQ("[Net]\r\nHost=example\r\n", vektest::read_file(path));
    EXPECT_EQ(0, IniUtil_setFileInt(path.c_str(), "Net", "Port", 80));
    EXPECT_EQ(80, IniUtil_getFileInt(path.c_str(), "net", "port", 0));
    Doc doc("; c\r\n[s]\r\n");
    EXPECT_EQ(0, IniFile_outFilex(doc.d, path.c_str(), 1));  // appended
    EXPECT_EQ("[Net]\r\nHost=example\r\nPort=80\r\n; c\r\n[s]\r\n", vektest::read_file(path));
    vek_s32 err = 0;
    IniFile* loaded = IniFile_newFile(path.c_str(), &err);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(0, IniFile_outFile(loaded, path.c_str()));
    EXPECT_EQ("[Net]\r\nHost=example\r\nPort=80\r\n; c\r\n[s]\r\n", vektest::read_file(path));
    IniFile_delete(loaded);
    EXPECT_EQ(VEK_ERR_FILE_OPEN, IniFile_outFile(doc.d, (dir + "/no/such/folder.ini").c_str()));
    size_t files = 0;
    for (auto& e : std::filesystem::directory_iterator(std::filesystem::u8path(dir))) {
        (void)e;
        files++;
    }
    EXPECT_EQ(1u, files);  // no temporary file left behind
    vektest::remove_tree(dir);
}

#ifndef _WIN32
TEST_F(IniFiles, AFailedWriteLeavesTheOriginalIntact) {
    std::string dir = vektest::temp_dir("safewrite");
    std::string path = dir + "/cfg.ini";
    const std::string original = "[keep]\r\nvalue=original\r\n";
    vektest::write_file(path, original);
    EXPECT_EXIT(
        {
            // A full disk: the file size limit cuts the write halfway.
            signal(SIGXFSZ, SIG_IGN);
            struct rlimit lim;
            lim.rlim_cur = lim.rlim_max = 4096;
            setrlimit(RLIMIT_FSIZE, &lim);
            Doc doc;
            IniFile_setStr(doc.d, "big", "v", std::string(3000, 'x').c_str());
            IniFile_setStr(doc.d, "big", "w", std::string(3000, 'y').c_str());
            vek_s32 r = IniFile_outFile(doc.d, path.c_str());
            std::_Exit(r < 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(original, vektest::read_file(path));
    size_t files = 0;
    for (auto& e : std::filesystem::directory_iterator(dir)) {
        (void)e;
        files++;
    }
    EXPECT_EQ(1u, files);
    // A read-only file stays read-only (and intact), unless one is root.
    chmod(path.c_str(), 0444);
    if (geteuid() != 0) {
        EXPECT_EQ(VEK_ERR_FILE_OPEN, IniUtil_setFileStr(path.c_str(), "keep", "value", "changed"));
        EXPECT_EQ(original, vektest::read_file(path));
    }
    vektest::remove_tree(dir);
}

TEST_F(IniFiles, LinksAreFollowedAndPermissionsKept) {
    std::string dir = vektest::temp_dir("links");
    std::string target = dir + "/real.ini";
    std::string link = dir + "/link.ini";
    vektest::write_file(target, "[s]\r\nk=1\r\n");
    chmod(target.c_str(), 0640);
    ASSERT_EQ(0, symlink("real.ini", link.c_str()));
    EXPECT_EQ(0, IniUtil_setFileStr(link.c_str(), "s", "k", "2"));
    struct stat st;
    ASSERT_EQ(0, lstat(link.c_str(), &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));  // the link is still a link...
    EXPECT_EQ("[s]\r\nk=2\r\n", vektest::read_file(target));  // ...to the new content
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 0777u);
    vektest::remove_tree(dir);
}
#endif

using IniObject = VekTest;

TEST_F(IniObject, CallerStorageAndAWrongTag) {
    IniFile mem;
    IniFile* d = IniFile_new(&mem);
    EXPECT_EQ(INIFILE_TAG, mem.tag);  // no top bit: the caller owns the storage
    IniFile_setStr(d, "s", "k", "v");
    IniFile_delete(d);
    EXPECT_EQ(0u, mem.tag);
    IniFile* heap = IniFile_new(nullptr);
    EXPECT_EQ(INIFILE_TAG | 0x80000000u, heap->tag);
    IniFile_delete(heap);
    EXPECT_DEATH(
        {
            al_set_fault_hook(nullptr);
            IniFile_moded(&mem);
        },
        "obj crash");
}
