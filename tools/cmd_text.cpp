/*
 * vektool mime and csv: a header of a mail message, and the records of a
 * CSV file one per line.
 */
#include "CodecTool.h"

using namespace codectool;

namespace {

int mime_get(int argc, char** argv) {
    if (argc != 2 || !*argv[1]) {
        return vektool::kUsage;
    }
    std::string in;
    if (!vektool::read_input("mime get", argv[0], in)) {
        return vektool::kFailed;
    }
    // The library matches a prefix and skips the character after it: the
    // name with its colon is what it expects.
    std::string name = argv[1];
    if (name.back() != ':') {
        name += ':';
    }
    StrStrm mem;
    IStrm* s = StrStrm_xcreate__(&mem, in.data(), (vek_s32)in.size(), __FILE__, __LINE__);
    std::vector<char> value(in.size() + 2);
    vek_s32 found = mhdr_get_to_buf(s, name.c_str(), value.data(), (vek_s32)value.size());
    IStrm_release(s);
    if (!found) {
        return vektool::kNotFound;
    }
    std::string line = std::string(value.data()) + "\n";
    vektool::write_out(line.data(), line.size());
    return vektool::kDone;
}

// A field made safe for one line: backslash, tab, CR, LF as \\ \t \r \n.
void put_field(std::string& line, const CsvField* f) {
    for (vek_s32 i = 0; i < f->len; i++) {
        char c = f->text[i];
        switch (c) {
        case '\\': line += "\\\\"; break;
        case '\t': line += "\\t"; break;
        case '\r': line += "\\r"; break;
        case '\n': line += "\\n"; break;
        default: line += c;
        }
    }
}

int csv_run(int argc, char** argv) {
    int sepOpt = ',';
    if (argc >= 2 && !std::strcmp(argv[0], "--sep")) {
        if (std::strlen(argv[1]) != 1) {
            return vektool::kUsage;
        }
        sepOpt = (unsigned char)argv[1][0];
        argc -= 2;
        argv += 2;
    }
    if (argc != 1) {
        return vektool::kUsage;
    }
    std::string in;
    if (!vektool::read_input("csv", argv[0], in)) {
        return vektool::kFailed;
    }
    vektool::binary_stdout();  // the same LF-ended lines on every platform
    const char* text = in.c_str();
    const char* pos = nullptr;
    CsvField* fields = nullptr;
    while (CsvUtil_read(text, pos, &pos, &fields, (char)sepOpt)) {
        std::string line;
        for (CsvField* f = fields; f; f = f->next) {
            put_field(line, f);
            line += f->next ? "\t" : "\n";
        }
        SmpList_delete(fields, vek_free__);
        vektool::write_out(line.data(), line.size());
    }
    return vektool::kDone;
}

const vektool::SubCommand kMime[] = {
    {"get", "mime get FILE|- HEADER", "the value of a header (folded lines joined); exit 1 when absent", mime_get},
};

} // namespace

static const vektool::Command kMimeCmd = {"mime", "mime get FILE|- HEADER", "mail header lines", nullptr, kMime, 1};
VEKTOOL_COMMAND(kMimeCmd);

static const vektool::Command kCsvCmd = {
    "csv", "csv [--sep C] FILE|-",
    "CSV records, one per line, fields separated by tabs (\\\\ \\t \\r \\n escaped)", csv_run, nullptr, 0};
VEKTOOL_COMMAND(kCsvCmd);
