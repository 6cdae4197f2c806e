/*
 * vektool ini: read, change, compare and reformat INI files.
 *
 * The commands that change a file (set, del, rename) hold the library's
 * system-wide lock of that file from reading it to writing it back, so
 * concurrent runs never lose each other's changes; they change only what
 * they could read completely, only regular files, and only to a text that
 * reads back exactly as intended. The write itself is the library's safe
 * replacement. A file whose lines end in LF keeps LF.
 *
 * Programs built on the library read these files too, so the commands
 * read them exactly as IniFile does, quirks included, and say so when a
 * user probably meant something else: a name that keeps the blanks before
 * "=" or inside "[ ]", a value that keeps a "; comment", values compared
 * without regard to case. A UTF-8 byte-order mark that hides the first
 * line's header or key (IniFile reads the mark as part of that line) is
 * refused by every command alike.
 */
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include "VekTool.h"

namespace {

using vektool::Args;
using vektool::kDone;
using vektool::kFailed;
using vektool::kNotFound;
using vektool::kUsage;

const char kBom[] = "\xEF\xBB\xBF";

bool is_stdio(const char* path) {
    return !std::strcmp(path, "-");
}

// A command-line section name: "" (or "-") is the nameless section.
const char* sect_arg(const char* s) {
    return is_stdio(s) ? "" : s;
}

std::string ini_error(vek_s32 code) {
    return vek_err_text(code) + std::string(" (") + std::to_string(code) + ")";
}

/* A document read from a file or standard input, with the text it came from. */
struct IniInput {
    const char* cmd = "";
    const char* path = "";
    std::string text;
    vektool::InputInfo info;
    IniFile* doc = nullptr;

    IniInput() = default;
    IniInput(const IniInput&) = delete;
    IniInput& operator=(const IniInput&) = delete;
    ~IniInput() {
        if (doc) {
            IniFile_delete(doc);
        }
    }
    int fail(const std::string& reason) const { return vektool::fail(cmd, path, reason); }

    /* Reads and parses path; for a change, a missing file is an empty
     * document and anything but a regular file is refused; with
     * missingOk a missing file is no error (info.missing tells). Prints
     * the error and returns false on failure. */
    bool load(const char* command, const char* file, bool forChange, bool missingOk = false) {
        cmd = command;
        path = file;
        info.regularOnly = forChange;
        bool asked = forChange || missingOk;
        if (!vektool::read_input(cmd, path, text, asked ? &info : nullptr) || hidden_by_bom()) {
            return false;
        }
        vek_s32 err = 0;
        doc = text.empty() ? IniFile_new(nullptr) : IniFile_newBuf(text.data(), (vek_s32)text.size(), &err);
        if (!doc) {
            fail(ini_error(err));
        }
        return doc != nullptr;
    }

    /* IniFile keeps a byte-order mark as the start of the first line: a
     * header or key there is hidden from every lookup (and a change would
     * add a second copy of it). Said and refused alike by every command;
     * a mark before a comment or a blank line hides nothing. */
    bool hidden_by_bom() const {
        if (text.compare(0, 3, kBom) != 0) {
            return false;
        }
        std::size_t end = text.find_first_of("\r\n");
        std::string first = text.substr(3, end == std::string::npos ? std::string::npos : end - 3);
        IniFile* probe = IniFile_newBuf(first.empty() ? ";" : first.c_str(), -1, nullptr);
        IniSect* s = probe ? IniFile_sectById(probe, 0) : nullptr;
        bool hides = s && (VekStr_len(&s->name) > 0 || IniFile_fieldById(probe, "", 0));
        if (probe) {
            IniFile_delete(probe);
        }
        if (hides) {
            fail("the file starts with a UTF-8 byte-order mark, which BaseLib reads as part of the first line, "
                 "so \"" + first + "\" there is neither a section nor a key; remove the first 3 bytes");
        }
        return hides;
    }
};

bool same_ci(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); i++) {
        if (std::tolower((unsigned char)a[i]) != std::tolower((unsigned char)b[i])) {
            return false;
        }
    }
    return true;
}

std::string trim_blanks(const std::string& s) {
    std::size_t b = s.find_first_not_of(" \t"), e = s.find_last_not_of(" \t");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// A name that differs from want only by blanks around it.
bool near_name(const std::string& have, const std::string& want) {
    return !same_ci(have, want) && same_ci(trim_blanks(have), trim_blanks(want));
}

/* When sect or key is missing, says which name the file has that the user
 * probably meant (blanks are part of IniFile's names). */
void note_near(const IniInput& in, const char* sect, const char* key, bool added = false) {
    IniSect* s = IniFile_findSect(in.doc, sect);
    if (!s) {
        for (vek_s32 i = 0; IniSect* o = IniFile_sectById(in.doc, i); i++) {
            if (*sect && near_name(VekStr_buf(&o->name), sect)) {
                vektool::note(in.cmd, in.path,
                              std::string(added ? "added section '" : "no section '") + sect + "'; the file has '" +
                                  VekStr_buf(&o->name) + "' (the name keeps the blanks inside the brackets)");
                return;
            }
        }
        return;
    }
    if (!key) {
        return;
    }
    for (VekListNode* n = s->fields.hdr; n; n = n->next) {
        auto* f = (IniField*)n;
        if (IniField_valid(f) && near_name(VekStr_buf(&f->name), key)) {
            vektool::note(in.cmd, in.path,
                          std::string(added ? "added key '" : "no key '") + key + "'; the section has '" +
                              VekStr_buf(&f->name) + "' (the name keeps the space before '=')");
            return;
        }
    }
}

// Why a name or value cannot be stored so that it reads back the same, or
// null when it can.
const char* bad_name(const char* sect, const char* key, const char* value) {
    for (const char* s : {sect, key, value}) {
        if (s && std::strpbrk(s, "\r\n")) {
            return "a line break cannot be stored in an INI line";
        }
    }
    if (sect && std::strchr(sect, ']')) {
        return "a section name cannot contain \"]\"";
    }
    if (sect && std::strlen(sect) + 2 > INI_LINE_MAX) {
        return "the section line would be longer than 1024 bytes";
    }
    if (key && !*key) {
        return "the key is empty";
    }
    if (key && std::strchr(key, '=')) {
        return "a key cannot contain \"=\"";
    }
    if (key && (*key == ';' || *key == '[')) {
        return "a key cannot start with \";\" or \"[\"";
    }
    if (key && value && std::strlen(key) + 1 + std::strlen(value) > INI_LINE_MAX) {
        return "the line would be longer than 1024 bytes";
    }
    return nullptr;
}

bool same(const VekStr& a, const VekStr& b) {
    return VekStr_len(&a) == VekStr_len(&b) && !std::memcmp(VekStr_buf(&a), VekStr_buf(&b), (size_t)VekStr_len(&a));
}

// Every section and line of b is read back as a holds it: same names,
// same lines, same fields and values.
bool reads_back(IniFile* a, IniFile* b) {
    if (IniFile_sectCount(a) != IniFile_sectCount(b)) {
        return false;
    }
    for (vek_s32 i = 0; i < IniFile_sectCount(a); i++) {
        IniSect* sa = IniFile_sectById(a, i);
        IniSect* sb = IniFile_sectById(b, i);
        if (!same(sa->name, sb->name) || sa->fields.len != sb->fields.len) {
            return false;
        }
        VekListNode* na = sa->fields.hdr;
        for (VekListNode* nb = sb->fields.hdr; na && nb; na = na->next, nb = nb->next) {
            auto* fa = (IniField*)na;
            auto* fb = (IniField*)nb;
            if (fa->flags != fb->flags || (IniField_valid(fa) && (!same(fa->name, fb->name) || !same(fa->value, fb->value)))) {
                return false;
            }
        }
    }
    return true;
}

/* Writes the changed document back where it came from (standard output
 * for "-"), in the line ends the input used, once it is certain to read
 * back as it stands. */
int save(const IniInput& in) {
    char* buf = nullptr;
    vek_s32 len = IniFile_outBuf(in.doc, &buf);
    std::string text(buf ? buf : "", len > 0 ? (size_t)len : 0);
    vek_free__(buf);
    if (len < 0) {
        return in.fail(ini_error(len));
    }
    vek_s32 err = 0;
    IniFile* back = IniFile_newBuf(text.c_str(), (vek_s32)text.size(), &err);
    bool ok = back && reads_back(in.doc, back);
    if (back) {
        IniFile_delete(back);
    }
    if (!ok) {
        return in.fail(err ? ini_error(err) + " after the change; nothing written"
                           : "the changed text would not read back the same; nothing written");
    }
    bool lf = in.text.find('\n') != std::string::npos && in.text.find("\r\n") == std::string::npos;
    if (lf) {
        std::string out;
        out.reserve(text.size());
        for (size_t i = 0; i < text.size(); i++) {
            if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) {
                out += text[i];
            }
        }
        text.swap(out);
    }
    if (is_stdio(in.path)) {
        vektool::binary_stdout();
        vektool::write_out(text.data(), text.size());
        return kDone;
    }
    IStrm* s = StrStrm_xcreate__(nullptr, text.data(), (vek_s32)text.size(), __FILE__, __LINE__);
    errno = 0;
    vek_s32 r = IStrm_toFile(s, in.path);
    int e = errno;
    IStrm_release(s);
    if (r < 0) {
        return in.fail("cannot be written: " + (e ? std::string(std::strerror(e)) : ini_error(r)));
    }
    return kDone;
}

/* Runs a change of path under its lock: load, change (which returns an
 * exit code; kDone means "write it back"), save. */
template <class Change>
int change_file(const char* cmd, const char* path, bool mustExist, Change change) {
    vektool::FileLock lock(is_stdio(path) ? nullptr : path);
    if (!lock.ok()) {
        return vektool::fail(cmd, path, "the file's lock cannot be taken");
    }
    IniInput in;
    if (!in.load(cmd, path, true)) {
        return kFailed;
    }
    if (mustExist && in.info.missing) {
        return in.fail(std::strerror(ENOENT));
    }
    int rc = change(in);
    return rc == kDone ? save(in) : rc;
}

int ini_get(const Args& a) {
    const char* def = a.value("--default");
    const char* sect = sect_arg(a[1]);
    const char* key = a[2];
    if (!*key) {
        return vektool::fail(a.cmd, a[0], "the key is empty");
    }
    IniInput in;
    if (!in.load(a.cmd, a[0], false, def != nullptr)) {
        return kFailed;
    }
    IniField* f = in.info.missing ? nullptr : IniFile_findField(in.doc, sect, key);
    if (!f && !in.info.missing) {
        note_near(in, sect, key);
    }
    if (f) {
        std::string value = VekStr_buf(&f->value);
        std::size_t semi = value.find(';');
        if (semi != std::string::npos && semi > 0 && (value[semi - 1] == ' ' || value[semi - 1] == '\t')) {
            vektool::note(a.cmd, a[0], "the value keeps \"" + value.substr(semi) +
                                           "\": \";\" starts a comment only at the start of a line");
        }
    }
    if (f || def) {
        std::printf("%s\n", f ? VekStr_buf(&f->value) : def);
    }
    return f || def ? kDone : kNotFound;
}

int ini_set(const Args& a) {
    const char* sect = sect_arg(a[1]);
    if (const char* why = bad_name(sect, a[2], a[3])) {
        return vektool::fail(a.cmd, a[0], std::string(why) + "; nothing written");
    }
    return change_file(a.cmd, a[0], false, [&](IniInput& in) -> int {
        if (!IniFile_findField(in.doc, sect, a[2])) {
            note_near(in, sect, a[2], true);
        }
        IniFile_setStr(in.doc, sect, a[2], a[3]);
        return kDone;
    });
}

int ini_del(const Args& a) {
    const char* key = a.count() == 3 ? a[2] : nullptr;
    if (key && !*key) {
        return vektool::fail(a.cmd, a[0], "the key is empty");
    }
    return change_file(a.cmd, a[0], true, [&](IniInput& in) -> int {
        vek_s32 r = key ? IniFile_delField(in.doc, sect_arg(a[1]), key) : IniFile_delSect(in.doc, sect_arg(a[1]));
        if (r == VEK_ERR_NOT_FOUND) {
            note_near(in, sect_arg(a[1]), key);
            return kNotFound;
        }
        return kDone;
    });
}

int ini_rename(const Args& a) {
    const char* sect = sect_arg(a[1]);
    const char* key = a.count() == 4 ? a[2] : nullptr;
    const char* to = a[a.count() - 1];
    if (key && !*key) {
        return vektool::fail(a.cmd, a[0], "the key is empty");
    }
    const char* why = key ? bad_name(nullptr, to, "") : is_stdio(to) || !*to ? "the new section name is empty"
                                                                              : bad_name(to, nullptr, nullptr);
    if (why) {
        return vektool::fail(a.cmd, a[0], std::string(why) + "; nothing written");
    }
    return change_file(a.cmd, a[0], true, [&](IniInput& in) -> int {
        if (!key) {
            IniSect* s = IniFile_findSect(in.doc, sect);
            IniSect* other = IniFile_findSect(in.doc, to);
            if (!s) {
                note_near(in, sect, nullptr);
                return kNotFound;
            }
            if (other && other != s) {
                return in.fail("section \"" + std::string(to) + "\" already exists");
            }
            IniFile_renSect(in.doc, sect, to);
            return kDone;
        }
        IniField* f = IniFile_findField(in.doc, sect, key);
        IniField* other = IniFile_findField(in.doc, sect, to);
        if (!f) {
            note_near(in, sect, key);
            return kNotFound;
        }
        if (other && other != f) {
            return in.fail("key \"" + std::string(to) + "\" already exists in the section");
        }
        if (std::strlen(to) + 1 + (size_t)VekStr_len(&f->value) > INI_LINE_MAX) {
            return in.fail("the line would be longer than 1024 bytes; nothing written");
        }
        // Renaming a field writes only "name=": the value is put back so
        // that the file keeps it.
        std::string value = VekStr_buf(&f->value);
        IniFile_renField(in.doc, sect, key, to);
        IniFile_setStr(in.doc, sect, to, value.c_str());
        return kDone;
    });
}

int ini_keys(const Args& a) {
    IniInput in;
    if (!in.load(a.cmd, a[0], false)) {
        return kFailed;
    }
    const char* sect = sect_arg(a[1]);
    if (!IniFile_findSect(in.doc, sect)) {
        note_near(in, sect, nullptr);
        return kNotFound;
    }
    for (vek_s32 i = 0; IniField* f = IniFile_fieldById(in.doc, sect, i); i++) {
        std::printf("%s\n", VekStr_buf(&f->name));
    }
    return kDone;
}

// Lists the sections ("-" for the nameless one) or, with fields, every
// field as SECT.KEY=VALUE, in document order.
int print_doc(const Args& a, bool fields) {
    IniInput in;
    if (!in.load(a.cmd, a[0], false)) {
        return kFailed;
    }
    for (vek_s32 i = 0; i < IniFile_sectCount(in.doc); i++) {
        IniSect* s = IniFile_sectById(in.doc, i);
        const char* name = VekStr_len(&s->name) ? VekStr_buf(&s->name) : "-";
        if (!fields) {
            std::printf("%s\n", name);
        }
        for (VekListNode* n = fields ? s->fields.hdr : nullptr; n; n = n->next) {
            auto* f = (IniField*)n;
            if (IniField_valid(f)) {
                std::printf("%s.%s=%s\n", name, VekStr_buf(&f->name), VekStr_buf(&f->value));
            }
        }
    }
    return kDone;
}

int ini_dump(const Args& a) {
    return print_doc(a, true);
}

int ini_sections(const Args& a) {
    return print_doc(a, false);
}

void write_doc(IniFile* doc) {
    char* text = nullptr;
    vek_s32 len = IniFile_outBuf(doc, &text);
    vektool::write_out(text, len > 0 ? (size_t)len : 0);
    vek_free__(text);
}

/* IniFile_diff compares values without regard to case: says where two
 * values that differ only so were taken as equal. */
void note_case(const IniInput& oldIn, const IniInput& newIn) {
    for (vek_s32 i = 0; IniSect* s = IniFile_sectById(newIn.doc, i); i++) {
        for (VekListNode* n = s->fields.hdr; n; n = n->next) {
            auto* f = (IniField*)n;
            IniField* o = IniField_valid(f) ? IniFile_findField(oldIn.doc, VekStr_buf(&s->name), VekStr_buf(&f->name))
                                            : nullptr;
            if (o && !same(o->value, f->value) && same_ci(VekStr_buf(&o->value), VekStr_buf(&f->value))) {
                vektool::note(newIn.cmd, newIn.path,
                              std::string("[") + VekStr_buf(&s->name) + "] " + VekStr_buf(&f->name) + ": \"" +
                                  VekStr_buf(&o->value) + "\" and \"" + VekStr_buf(&f->value) +
                                  "\" count as equal (values are compared without regard to case)");
            }
        }
    }
}

int ini_diff(const Args& a) {
    if (is_stdio(a[0]) && is_stdio(a[1])) {
        std::fprintf(stderr, "vektool ini diff: standard input can be only one of the two files\n");
        return kFailed;
    }
    IniInput oldIn, newIn;
    if (!oldIn.load(a.cmd, a[0], false) || !newIn.load(a.cmd, a[1], false)) {
        return kFailed;
    }
    IniFile* parts[3] = {IniFile_new(nullptr), IniFile_new(nullptr), IniFile_new(nullptr)};
    vek_s32 differ = IniFile_diff(oldIn.doc, newIn.doc, parts[0], parts[1], parts[2]);
    note_case(oldIn, newIn);
    const char* names[3] = {"added", "changed", "removed"};
    vektool::binary_stdout();
    for (int i = 0; i < 3; i++) {
        std::printf("; %s\r\n", names[i]);
        write_doc(parts[i]);
        IniFile_delete(parts[i]);
    }
    return differ ? kNotFound : kDone;
}

int ini_fmt(const Args& a) {
    IniInput in;
    if (!in.load(a.cmd, a[0], false)) {
        return kFailed;
    }
    vektool::binary_stdout();
    write_doc(in.doc);
    return kDone;
}

const vektool::Option kGetOptions[] = {
    {"--default", nullptr, "VALUE", "print VALUE when the key, the section or the file is missing"},
    {nullptr, nullptr, nullptr, nullptr},
};

// Where every ini command departs from reading the file with IniFile alone.
#define INI_BOM                                                                                  \
    "A UTF-8 byte-order mark before a section or key on the first line is refused: IniFile reads\n" \
    "the mark as part of that line, which hides them."
#define INI_NEAR                                                                                  \
    "\nA missing name that the file has with blanks around it is noted (\"Baud \": the blank before\n" \
    "\"=\" belongs to IniFile's name; \"[ Net ]\")."

const vektool::SubCommand kIniCommands[] = {
    {"get", "ini get [--default VALUE] FILE SECT KEY", "print a value (exit 1 when absent, unless a default is given)",
     ini_get, 3, 3, kGetOptions,
     "--default also for a missing file (IniUtil_getFileStr: -64); near misses noted\n"
     "IniUtil_getFileStr returns -64 for a missing file and applies no default. The value is\n"
     "IniFile_getStr's; one that keeps a \"; comment\" is noted." INI_NEAR "\n" INI_BOM},
    {"set", "ini set FILE SECT KEY VALUE", "set a value (the file is created when missing)", ini_set, 4, 4, nullptr,
     "a byte-order mark hiding the first line is refused; near misses noted\n" INI_BOM INI_NEAR},
    {"del", "ini del FILE SECT [KEY]", "delete a field or a whole section (exit 1 when absent)", ini_del, 2, 3,
     nullptr, "a byte-order mark hiding the first line is refused; near misses noted\n" INI_BOM INI_NEAR},
    {"rename", "ini rename FILE SECT [KEY] NEWNAME", "rename a section or a field (exit 1 when absent)", ini_rename,
     3, 4, nullptr,
     "a renamed key keeps its value (IniFile_renField writes \"name=\" only)\n" INI_BOM INI_NEAR},
    {"keys", "ini keys FILE SECT", "list the keys of a section in order (exit 1 when absent)", ini_keys, 2, 2, nullptr,
     "a byte-order mark hiding the first line is refused; near misses noted\n" INI_BOM INI_NEAR},
    {"sections", "ini sections FILE", "list the sections (\"-\" is the nameless one)", ini_sections, 1, 1, nullptr,
     "a byte-order mark hiding the first line's section or key is refused\n" INI_BOM},
    {"dump", "ini dump FILE", "print every field as SECT.KEY=VALUE, one a line", ini_dump, 1, 1, nullptr,
     "a byte-order mark hiding the first line's section or key is refused\n" INI_BOM},
    {"diff", "ini diff OLD NEW", "print what was added, changed and removed, as INI text (exit 1 when different)",
     ini_diff, 2, 2, nullptr,
     "values equal but for case are noted (IniFile_diff takes them as equal)\n"
     "Such values count as equal, as IniFile_diff compares them; each pair is noted on standard\n"
     "error.\n" INI_BOM},
    {"fmt", "ini fmt FILE", "write the file back to stdout (CR LF line ends)", ini_fmt, 1, 1, nullptr,
     "a byte-order mark hiding the first line's section or key is refused\n" INI_BOM},
};

} // namespace

static const vektool::Command kIni = {
    "ini", "ini get|set|del|rename|keys|sections|dump|diff|fmt ...",
    "INI files (section \"-\" or \"\" is the nameless one; FILE \"-\" is standard input, and set, del "
    "and rename then write the result to standard output)",
    kIniCommands, sizeof kIniCommands / sizeof kIniCommands[0]};
VEKTOOL_COMMAND(kIni);
