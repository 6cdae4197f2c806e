/*
 * vektool ini: read, change, compare and reformat INI files.
 */
#include <cstdio>
#include <cstring>
#include "VekTool.h"

namespace {


const char* ini_error(vek_s32 code) {
    switch (code) {
    case VEK_ERR_FILE_OPEN: return "the file cannot be opened";
    case VEK_ERR_INI_LINE_LONG: return "a line is longer than 1024 bytes";
    case VEK_ERR_NOT_FOUND: return "not found";
    default: return "write error";
    }
}

int fail(const char* what, const char* path, vek_s32 code) {
    std::fprintf(stderr, "vektool ini %s: %s: %s (%d)\n", what, path, ini_error(code), (int)code);
    return 2;
}

// A command-line section name: "" (or "-") is the nameless section.
const char* sect_arg(const char* s) {
    return std::strcmp(s, "-") == 0 ? "" : s;
}

/* Loads a document; a missing file gives an empty one when allowMissing. */
IniFile* load_doc(const char* what, const char* path, bool allowMissing, int* rc) {
    vek_s32 err = 0;
    IniFile* doc = IniFile_newFile(path, &err);
    if (!doc && allowMissing && err == VEK_ERR_FILE_OPEN) {
        doc = IniFile_new(nullptr);
    }
    if (!doc) {
        *rc = fail(what, path, err);
    }
    return doc;
}

int save_doc(IniFile* doc, const char* path) {
    vek_s32 r = IniFile_outFile(doc, path);
    IniFile_delete(doc);
    return r < 0 ? fail("write", path, r) : 0;
}

void write_stdout(IniFile* doc) {
    char* text = nullptr;
    vek_s32 len = IniFile_outBuf(doc, &text);
    if (len > 0) {
        std::fwrite(text, 1, (size_t)len, stdout);
    }
    vek_free__(text);
}

int ini_get(int argc, char** argv) {
    if (argc != 3) {
        return vektool::kUsage;
    }
    int rc = 0;
    IniFile* doc = load_doc("get", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    IniField* f = IniFile_findField(doc, sect_arg(argv[1]), argv[2]);
    if (f) {
        std::printf("%s\n", VekStr_buf(&f->value));
    }
    IniFile_delete(doc);
    return f ? 0 : 1;
}

int ini_set(int argc, char** argv) {
    if (argc != 4) {
        return vektool::kUsage;
    }
    int rc = 0;
    IniFile* doc = load_doc("set", argv[0], true, &rc);
    if (!doc) {
        return rc;  // an unreadable file is never overwritten
    }
    IniFile_setStr(doc, sect_arg(argv[1]), argv[2], argv[3]);
    return save_doc(doc, argv[0]);
}

int ini_del(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        return vektool::kUsage;
    }
    int rc = 0;
    IniFile* doc = load_doc("del", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    vek_s32 r = argc == 3 ? IniFile_delField(doc, sect_arg(argv[1]), argv[2])
                          : IniFile_delSect(doc, sect_arg(argv[1]));
    if (r == VEK_ERR_NOT_FOUND) {
        IniFile_delete(doc);
        return 1;
    }
    return save_doc(doc, argv[0]);
}

int ini_sections(int argc, char** argv) {
    if (argc != 1) {
        return vektool::kUsage;
    }
    int rc = 0;
    IniFile* doc = load_doc("sections", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    for (vek_s32 i = 0; i < IniFile_sectCount(doc); i++) {
        IniSect* s = IniFile_sectById(doc, i);
        std::printf("%s\n", VekStr_len(&s->name) ? VekStr_buf(&s->name) : "-");
    }
    IniFile_delete(doc);
    return 0;
}

int ini_diff(int argc, char** argv) {
    if (argc != 2) {
        return vektool::kUsage;
    }
    int rc = 0;
    IniFile* oldDoc = load_doc("diff", argv[0], false, &rc);
    IniFile* newDoc = oldDoc ? load_doc("diff", argv[1], false, &rc) : nullptr;
    if (!newDoc) {
        if (oldDoc) {
            IniFile_delete(oldDoc);
        }
        return rc;
    }
    IniFile* parts[3] = {IniFile_new(nullptr), IniFile_new(nullptr), IniFile_new(nullptr)};
    IniFile_diff(oldDoc, newDoc, parts[0], parts[1], parts[2]);
    const char* names[3] = {"added", "changed", "removed"};
    vektool::binary_stdout();
    for (int i = 0; i < 3; i++) {
        std::printf("; %s\r\n", names[i]);
        write_stdout(parts[i]);
        IniFile_delete(parts[i]);
    }
    IniFile_delete(oldDoc);
    IniFile_delete(newDoc);
    return 0;
}

int ini_fmt(int argc, char** argv) {
    if (argc != 1) {
        return vektool::kUsage;
    }
    int rc = 0;
    IniFile* doc = load_doc("fmt", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    vektool::binary_stdout();
    write_stdout(doc);
    IniFile_delete(doc);
    return 0;
}

const vektool::SubCommand kIniCommands[] = {
    {"get", "ini get FILE SECT KEY", "print a value (exit 1 when absent)", ini_get},
    {"set", "ini set FILE SECT KEY VALUE", "set a value; the file is replaced safely", ini_set},
    {"del", "ini del FILE SECT [KEY]", "delete a field or a whole section", ini_del},
    {"sections", "ini sections FILE", "list the sections (\"-\" is the nameless one)", ini_sections},
    {"diff", "ini diff OLD NEW", "print what was added, changed and removed, as INI text", ini_diff},
    {"fmt", "ini fmt FILE", "write the file back to stdout (CR LF line ends)", ini_fmt},
};

} // namespace

static const vektool::Command kIni = {
    "ini", "ini get|set|del|sections|diff|fmt ...",
    "INI files (section \"-\" or \"\" is the nameless one)", nullptr, kIniCommands,
    sizeof kIniCommands / sizeof kIniCommands[0]};
VEKTOOL_COMMAND(kIni);
