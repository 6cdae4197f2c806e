/*
 * vektool ini: read, change, compare and reformat INI files.
 *
 * The commands that change a file (set, del, rename) hold the library's
 * system-wide lock of that file from reading it to writing it back, so
 * concurrent runs never lose each other's changes; they change only what
 * they could read completely, only regular files, and only to a text that
 * reads back exactly as intended. The write itself is the library's safe
 * replacement. A file whose lines end in LF keeps LF.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include "VekTool.h"

namespace {

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
struct Input {
    const char* cmd = "";
    const char* path = "";
    std::string text;
    vektool::InputInfo info;
    IniFile* doc = nullptr;

    Input() = default;
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input() {
        if (doc) {
            IniFile_delete(doc);
        }
    }
    int fail(const std::string& reason) const { return vektool::fail(cmd, path, reason); }

    /* Reads and parses path; for a change, a missing file is an empty
     * document and anything but a regular file is refused. Prints the
     * error and returns false on failure. */
    bool load(const char* command, const char* file, bool forChange) {
        cmd = command;
        path = file;
        info.regularOnly = forChange;
        if (!vektool::read_input(cmd, path, text, forChange ? &info : nullptr)) {
            return false;
        }
        vek_s32 err = 0;
        doc = text.empty() ? IniFile_new(nullptr) : IniFile_newBuf(text.data(), (vek_s32)text.size(), &err);
        if (!doc) {
            fail(ini_error(err));
        }
        return doc != nullptr;
    }

    /* Lookups by section name miss the first section behind a byte-order
     * mark, which the document keeps as text: say so rather than answer
     * "not found" or add a second copy of the section. */
    bool refuse_bom() const {
        if (text.compare(0, 3, kBom) != 0) {
            return false;
        }
        fail("the file starts with a UTF-8 byte-order mark, which hides its first section; "
             "remove the first 3 bytes");
        return true;
    }
};

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
int save(const Input& in) {
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
    Input in;
    if (!in.load(cmd, path, true) || in.refuse_bom()) {
        return kFailed;
    }
    if (mustExist && in.info.missing) {
        return in.fail(std::strerror(ENOENT));
    }
    int rc = change(in);
    return rc == kDone ? save(in) : rc;
}

int ini_get(int argc, char** argv) {
    const char* def = nullptr;
    char* args[3];
    int n = 0;
    for (int i = 0; i < argc; i++) {
        if (!std::strcmp(argv[i], "--default") && i + 1 < argc) {
            def = argv[++i];
        } else if (!std::strncmp(argv[i], "--default=", 10)) {
            def = argv[i] + 10;
        } else if (n < 3) {
            args[n++] = argv[i];
        } else {
            return kUsage;
        }
    }
    if (n != 3) {
        return kUsage;
    }
    if (!*args[2]) {
        return vektool::fail("ini get", args[0], "the key is empty");
    }
    Input in;
    if (!in.load("ini get", args[0], false) || in.refuse_bom()) {
        return kFailed;
    }
    IniField* f = IniFile_findField(in.doc, sect_arg(args[1]), args[2]);
    if (f || def) {
        std::printf("%s\n", f ? VekStr_buf(&f->value) : def);
    }
    return f || def ? kDone : kNotFound;
}

int ini_set(int argc, char** argv) {
    if (argc != 4) {
        return kUsage;
    }
    const char* sect = sect_arg(argv[1]);
    if (const char* why = bad_name(sect, argv[2], argv[3])) {
        return vektool::fail("ini set", argv[0], std::string(why) + "; nothing written");
    }
    return change_file("ini set", argv[0], false, [&](Input& in) -> int {
        IniFile_setStr(in.doc, sect, argv[2], argv[3]);
        return kDone;
    });
}

int ini_del(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        return kUsage;
    }
    if (argc == 3 && !*argv[2]) {
        return vektool::fail("ini del", argv[0], "the key is empty");
    }
    return change_file("ini del", argv[0], true, [&](Input& in) -> int {
        vek_s32 r = argc == 3 ? IniFile_delField(in.doc, sect_arg(argv[1]), argv[2])
                              : IniFile_delSect(in.doc, sect_arg(argv[1]));
        return r == VEK_ERR_NOT_FOUND ? kNotFound : kDone;
    });
}

int ini_rename(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        return kUsage;
    }
    const char* sect = sect_arg(argv[1]);
    const char* key = argc == 4 ? argv[2] : nullptr;
    const char* to = argv[argc - 1];
    if (key && !*key) {
        return vektool::fail("ini rename", argv[0], "the key is empty");
    }
    const char* why = key ? bad_name(nullptr, to, "") : is_stdio(to) || !*to ? "the new section name is empty"
                                                                              : bad_name(to, nullptr, nullptr);
    if (why) {
        return vektool::fail("ini rename", argv[0], std::string(why) + "; nothing written");
    }
    return change_file("ini rename", argv[0], true, [&](Input& in) -> int {
        if (!key) {
            IniSect* s = IniFile_findSect(in.doc, sect);
            IniSect* other = IniFile_findSect(in.doc, to);
            if (!s) {
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

int ini_keys(int argc, char** argv) {
    if (argc != 2) {
        return kUsage;
    }
    Input in;
    if (!in.load("ini keys", argv[0], false) || in.refuse_bom()) {
        return kFailed;
    }
    const char* sect = sect_arg(argv[1]);
    if (!IniFile_findSect(in.doc, sect)) {
        return kNotFound;
    }
    for (vek_s32 i = 0; IniField* f = IniFile_fieldById(in.doc, sect, i); i++) {
        std::printf("%s\n", VekStr_buf(&f->name));
    }
    return kDone;
}

// Lists the sections ("-" for the nameless one) or, with fields, every
// field as SECT.KEY=VALUE, in document order.
int print_doc(const char* cmd, int argc, char** argv, bool fields) {
    if (argc != 1) {
        return kUsage;
    }
    Input in;
    if (!in.load(cmd, argv[0], false)) {
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

int ini_dump(int argc, char** argv) {
    return print_doc("ini dump", argc, argv, true);
}

int ini_sections(int argc, char** argv) {
    return print_doc("ini sections", argc, argv, false);
}

void write_doc(IniFile* doc) {
    char* text = nullptr;
    vek_s32 len = IniFile_outBuf(doc, &text);
    vektool::write_out(text, len > 0 ? (size_t)len : 0);
    vek_free__(text);
}

int ini_diff(int argc, char** argv) {
    if (argc != 2) {
        return kUsage;
    }
    if (is_stdio(argv[0]) && is_stdio(argv[1])) {
        std::fprintf(stderr, "vektool ini diff: standard input can be only one of the two files\n");
        return kFailed;
    }
    Input oldIn, newIn;
    if (!oldIn.load("ini diff", argv[0], false) || !newIn.load("ini diff", argv[1], false)) {
        return kFailed;
    }
    IniFile* parts[3] = {IniFile_new(nullptr), IniFile_new(nullptr), IniFile_new(nullptr)};
    vek_s32 differ = IniFile_diff(oldIn.doc, newIn.doc, parts[0], parts[1], parts[2]);
    const char* names[3] = {"added", "changed", "removed"};
    vektool::binary_stdout();
    for (int i = 0; i < 3; i++) {
        std::printf("; %s\r\n", names[i]);
        write_doc(parts[i]);
        IniFile_delete(parts[i]);
    }
    return differ ? kNotFound : kDone;
}

int ini_fmt(int argc, char** argv) {
    if (argc != 1) {
        return kUsage;
    }
    Input in;
    if (!in.load("ini fmt", argv[0], false)) {
        return kFailed;
    }
    vektool::binary_stdout();
    write_doc(in.doc);
    return kDone;
}

const vektool::SubCommand kIniCommands[] = {
    {"get", "ini get [--default VALUE] FILE SECT KEY", "print a value (exit 1 when absent, unless a default is given)",
     ini_get},
    {"set", "ini set FILE SECT KEY VALUE", "set a value (the file is created when missing)", ini_set},
    {"del", "ini del FILE SECT [KEY]", "delete a field or a whole section (exit 1 when absent)", ini_del},
    {"rename", "ini rename FILE SECT [KEY] NEWNAME", "rename a section or a field (exit 1 when absent)",
     ini_rename},
    {"keys", "ini keys FILE SECT", "list the keys of a section in order (exit 1 when absent)", ini_keys},
    {"sections", "ini sections FILE", "list the sections (\"-\" is the nameless one)", ini_sections},
    {"dump", "ini dump FILE", "print every field as SECT.KEY=VALUE, one a line", ini_dump},
    {"diff", "ini diff OLD NEW", "print what was added, changed and removed, as INI text (exit 1 when different)",
     ini_diff},
    {"fmt", "ini fmt FILE", "write the file back to stdout (CR LF line ends)", ini_fmt},
};

} // namespace

static const vektool::Command kIni = {
    "ini", "ini get|set|del|rename|keys|sections|dump|diff|fmt ...",
    "INI files (section \"-\" or \"\" is the nameless one; FILE \"-\" is standard input, and set, del "
    "and rename then write the result to standard output)",
    nullptr, kIniCommands, sizeof kIniCommands / sizeof kIniCommands[0]};
VEKTOOL_COMMAND(kIni);
