/*
 * vektool mime and csv: a header of a mail message, and the records of a
 * CSV file one per line. Both read their input in pieces and keep no more
 * than one header line or one record.
 */
#include "CodecTool.h"

using namespace codectool;
using vektool::Args;
using vektool::kDone;
using vektool::kFailed;
using vektool::Reader;

namespace {

// The longest header line or record these commands keep.
constexpr std::size_t kLineMax = (std::size_t)64 << 20;

inline char lower(char c) {
    return c >= 'A' && c <= 'Z' ? (char)(c + 32) : c;
}

bool same_name(const char* a, std::size_t n, const std::string& b) {
    if (n != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < n; i++) {
        if (lower(a[i]) != lower(b[i])) {
            return false;
        }
    }
    return true;
}

/*
 * The header block is read up to its first empty line, one line at a time
 * (LF or CR LF line ends). A line that starts with a blank continues the
 * one before (RFC 5322 unfolding: the line end goes, the blank stays). The
 * first header whose whole name matches, without regard to case, gives
 * the value: each logical line is split by mhdr_strx_dec.
 */
int mime_get(const Args& a) {
    std::string want = a[1];
    if (!want.empty() && want.back() == ':') {
        want.pop_back();
    }
    if (want.empty()) {
        return vektool::kUsage;
    }
    Reader in;
    if (!in.open(a.cmd, a[0])) {
        return kFailed;
    }
    std::string line;       // the physical line being read
    std::string match;      // the logical line of the header asked for
    bool matching = false;  // the lines being read belong to it
    bool done = false;
    VekStr name, value;
    VekStr_new(&name);
    VekStr_new(&value);
    // One whole physical line; false when the block has ended.
    auto take = [&](const std::string& l) {
        if (l.empty()) {
            return false;  // the empty line that ends the header block
        }
        if (l[0] == ' ' || l[0] == '\t') {
            if (matching) {
                match += l;
            }
            return true;
        }
        if (matching) {
            return false;  // the header asked for is complete
        }
        if (mhdr_strx_dec(l.data(), (vek_s32)l.size(), &name, nullptr) == 1 &&
            same_name(VekStr_buf(&name), (std::size_t)VekStr_len(&name), want)) {
            matching = true;
            match = l;
        }
        return true;
    };
    bool tooLong = false;
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        for (std::size_t i = 0; i < n && !done;) {
            const char* nl = (const char*)std::memchr(p + i, '\n', n - i);
            std::size_t end = nl ? (std::size_t)(nl - p) : n;
            line.append(p + i, end - i);
            i = end + 1;
            if (line.size() > kLineMax || match.size() > kLineMax) {
                tooLong = true;
                return false;
            }
            if (!nl) {
                break;
            }
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            done = !take(line);
            line.clear();
        }
        return !done;
    });
    if (tooLong) {
        ok = false;
        in.fail("a header line longer than " + std::to_string(kLineMax >> 20) + " MiB");
    } else if (!done && !line.empty()) {
        take(line);  // the last line, without a line end
    }
    bool found = ok || done ? matching : false;
    if (found) {
        mhdr_strx_dec(match.data(), (vek_s32)match.size(), nullptr, &value);
        std::string out = std::string(VekStr_buf(&value), (std::size_t)VekStr_len(&value)) + "\n";
        vektool::write_out(out.data(), out.size());
    }
    VekStr_delete(&name);
    VekStr_delete(&value);
    if (!ok && !done) {
        return kFailed;
    }
    return found ? kDone : vektool::kNotFound;
}

/* ---- CSV ---- */

// A field made safe for one line: backslash, tab, CR, LF as \\ \t \r \n.
void put_field(Staged& out, const CsvField* f) {
    const char* p = f->text;
    const char* end = p + f->len;
    while (p < end) {
        const char* q = p;
        while (q < end && *q != '\\' && *q != '\t' && *q != '\r' && *q != '\n') {
            q++;
        }
        out.put(p, (std::size_t)(q - p));
        if (q == end) {
            break;
        }
        out.put(*q == '\\' ? "\\\\" : *q == '\t' ? "\\t" : *q == '\r' ? "\\r" : "\\n", 2);
        p = q + 1;
    }
}

/*
 * Splits CSV text into records as RFC 4180 readers do, whatever its line
 * ends (CR LF, LF or CR) and hands each record, without its line end, to
 * CsvUtil_read, which reads one record of such text exactly as the
 * standard does. Text that no reading can answer right is refused: a NUL
 * byte (the library's text ends there), a quoted field never closed (it
 * would take the rest of the file) and text after a closing quote.
 */
class CsvSplitter {
  public:
    CsvSplitter(Reader& in, char sep, Staged& out) : in_(in), sep_(sep), out_(out) {}

    bool feed(const char* p, std::size_t n) {
        for (std::size_t i = 0; i < n; i++) {
            if (!byte(p[i])) {
                return false;
            }
        }
        return true;
    }

    bool finish() {
        if (quoted_ && !quoteSeen_) {
            return bad("the quoted field opened on line " + std::to_string(quoteLine_) + " is never closed");
        }
        if (cr_ || started_) {
            return record();
        }
        return true;
    }

  private:
    bool byte(char c) {
        if (cr_) {  // CR LF or a lone CR: the record ends either way
            cr_ = false;
            if (!record()) {
                return false;
            }
            if (c == '\n') {
                return true;
            }
        }
        if (c == 0) {
            return bad("a NUL byte on line " + std::to_string(line_) + ": CSV text cannot hold one");
        }
        if (quoted_) {
            if (!quoteSeen_) {
                quoteSeen_ = c == '"';
                line_ += c == '\n';
                return put(c);
            }
            quoteSeen_ = false;
            if (c == '"') {  // a doubled quote
                return put(c);
            }
            quoted_ = false;  // the quote before closed the field
            if (c != sep_ && c != '\r' && c != '\n') {
                return bad("text after the closing quote of a field on line " + std::to_string(line_));
            }
        }
        started_ = true;
        if (c == '\r') {
            cr_ = true;
            line_++;
            return true;
        }
        if (c == '\n') {
            line_++;
            return record();
        }
        if (c == '"' && fieldStart_) {
            quoted_ = true;
            quoteLine_ = line_;
        }
        fieldStart_ = c == sep_;
        return put(c);
    }

    bool put(char c) {
        rec_ += c;
        if (rec_.size() > kLineMax) {
            return bad("a record longer than " + std::to_string(kLineMax >> 20) + " MiB");
        }
        return true;
    }

    bool record() {
        CsvField* fields = nullptr;
        vek_s32 r = rec_.empty() ? 0 : CsvUtil_read(rec_.c_str(), nullptr, nullptr, &fields, sep_);
        if (r < 0) {
            return bad("out of memory");
        }
        for (CsvField* f = fields; f; f = f->next) {
            put_field(out_, f);
            if (f->next) {
                out_.put('\t');
            }
        }
        out_.put('\n');
        SmpList_delete(fields, vek_free__);
        rec_.clear();
        started_ = false;
        fieldStart_ = true;
        return true;
    }

    bool bad(const std::string& why) {
        in_.fail("not CSV as RFC 4180 reads it: " + why);
        return false;
    }

    Reader& in_;
    char sep_;
    Staged& out_;
    std::string rec_;
    long long line_ = 1;
    long long quoteLine_ = 0;
    bool cr_ = false;          // a CR outside quotes, its LF not yet seen
    bool quoted_ = false;      // inside a quoted field
    bool quoteSeen_ = false;   // ... just after a quote in it
    bool fieldStart_ = true;   // the next byte starts a field
    bool started_ = false;     // the record holds something
};

int csv_run(const Args& a) {
    const char* sep = a.value("--sep");
    if (sep && (std::strlen(sep) != 1 || std::strchr("\"\r\n", *sep))) {
        std::fprintf(stderr, "vektool csv: --sep: one character other than a double quote or a line end\n");
        return kFailed;
    }
    Reader in;
    if (!in.open(a.cmd, a[0])) {
        return kFailed;
    }
    vektool::binary_stdout();  // the same LF-ended lines on every platform
    Staged out;
    CsvSplitter split(in, sep ? *sep : ',', out);
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) { return split.feed(p, n); }) &&
              split.finish();
    return ok ? kDone : kFailed;
}

const vektool::SubCommand kMime[] = {
    {"get", "mime get FILE|- HEADER", "the value of a header (folded lines joined); exit 1 when absent", mime_get, 2,
     2, nullptr,
     "whole names, the value from the colon, RFC 5322 unfolding (mhdr_strx_dec)\n"
     "Each logical line is split by mhdr_strx_dec; mhdr_get_to_buf would match a prefix of the name,\n"
     "skip the character after it unseen and drop the blank of a folded line. LF line ends are read\n"
     "too; the value is trimmed of blanks at both ends."},
};

const vektool::Option kCsvOptions[] = {
    {"--sep", nullptr, "C", "the field separator (default \",\")"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::SubCommand kCsv[] = {
    {nullptr, "csv [--sep C] FILE|-", "CSV records, one per line, fields separated by tabs (\\\\ \\t \\r \\n escaped)",
     csv_run, 1, 1, kCsvOptions,
     "records end at LF and CR too; bad CSV is refused (CsvUtil_read: CR LF only)\n"
     "Records end at CR LF, LF or a lone CR, as RFC 4180 readers take them, and CsvUtil_read splits\n"
     "each one. A NUL byte (the library's text ends there), a quote never closed (it would take the\n"
     "rest of the file) and text after a closing quote are refused with exit 2."},
};

} // namespace

static const vektool::Command kMimeCmd = {"mime", "mime get FILE|- HEADER", "mail header lines", kMime, 1};
VEKTOOL_COMMAND(kMimeCmd);

static const vektool::Command kCsvCmd = {"csv", "csv [--sep C] FILE|-", "CSV records", kCsv, 1};
VEKTOOL_COMMAND(kCsvCmd);
