// Calibration files, read with yaml-cpp (which also reads the JSON subset) without a
// child process: the parser is fuzzed, and its one known hang (LoadAll on a comma after
// a document) is avoided below. They are written here, as YAML or as JSON, with numbers
// converted by std::to_chars and std::from_chars, which no locale changes.
#include <qvreconstruction/calibration_file.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

namespace qvapi {
namespace {

// Every field of the records, in order, for a visitor with Int, Float, Text, Floats
// and Lens members. One list serves both reading and writing.
template <typename V>
void VisitLens(V& v, Intrinsics& l)
{
    v.Int("reserved0", l.reserved0);
    v.Int("reserved1", l.reserved1);
    v.Float("k1", l.k1);
    v.Float("k2", l.k2);
    v.Float("p1", l.p1);
    v.Float("p2", l.p2);
    v.Float("k3", l.k3);
    v.Float("fx", l.fx);
    v.Float("fy", l.fy);
    v.Float("cx", l.cx);
    v.Float("cy", l.cy);
    v.Int("width", l.width);
    v.Int("height", l.height);
}

template <typename V>
void VisitRecord(V& v, CameraCalibrationParam& p)
{
    v.Int("reserved0", p.reserved0);
    v.Int("reserved1", p.reserved1);
    v.Text("label", p.label);
    v.Lens("depthLens", p.depthLens);
    v.Lens("rgbLens", p.rgbLens);
    v.Float("depthOffsetF1", p.depthOffsetF1);
    v.Float("depthOffsetF2", p.depthOffsetF2);
    v.Float("reserved2", p.reserved2);
    v.Int("tableCountF1", p.tableCountF1);
    v.Floats("tableF1", p.tableF1, 256, p.tableCountF1);
    v.Int("tableCountF2", p.tableCountF2);
    v.Floats("tableF2", p.tableF2, 256, p.tableCountF2);
    v.Floats("fppnF1", p.fppnF1, 6, 6);
    v.Floats("fppnF2", p.fppnF2, 6, 6);
    v.Floats("coefF1", p.coefF1, 4, 4);
    v.Floats("coefF2", p.coefF2, 4, 4);
    v.Int("reserved3", p.reserved3);
    v.Floats("reserved4", p.reserved4, 12, 12);
    v.Floats("extrinsics", p.extrinsics, 12, 12);
    v.Int("vectorCount", p.vectorCount);
    v.Floats("vector", p.vector, 256, p.vectorCount);
    v.Int("tableCount3", p.tableCount3);
    v.Floats("table3", p.table3, 256, p.tableCount3);
}

// Numbers as text in every locale: the shortest decimal that reads back as the same
// value (std::to_chars ignores the C and C++ locales, unlike printf and streams).
template <typename T>
std::string NumberText(T v)
{
    char buffer[48];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
    return std::string(buffer, result.ptr);
}

// The first code point of s[at...] when it is well-formed UTF-8 (no overlong forms,
// surrogates or values past U+10FFFF): its value and length; length 0 when it is not.
struct CodePoint {
    uint32_t value;
    size_t length;
};
CodePoint DecodeUtf8(std::string_view s, size_t at)
{
    const auto byte = [&](size_t k) { return at + k < s.size() ? static_cast<unsigned char>(s[at + k]) : 0u; };
    const auto follows = [&](size_t k, unsigned lo, unsigned hi) { return byte(k) >= lo && byte(k) <= hi; };
    const unsigned b0 = byte(0);
    if (b0 < 0x80)
        return {b0, 1};
    if (b0 >= 0xC2 && b0 <= 0xDF && follows(1, 0x80, 0xBF))
        return {(b0 & 0x1Fu) << 6 | (byte(1) & 0x3Fu), 2};
    if (b0 >= 0xE0 && b0 <= 0xEF) {
        const unsigned lo = b0 == 0xE0 ? 0xA0 : 0x80;  // no overlong forms
        const unsigned hi = b0 == 0xED ? 0x9F : 0xBF;  // no surrogates
        if (follows(1, lo, hi) && follows(2, 0x80, 0xBF))
            return {(b0 & 0x0Fu) << 12 | (byte(1) & 0x3Fu) << 6 | (byte(2) & 0x3Fu), 3};
    }
    if (b0 >= 0xF0 && b0 <= 0xF4) {
        const unsigned lo = b0 == 0xF0 ? 0x90 : 0x80;  // no overlong forms
        const unsigned hi = b0 == 0xF4 ? 0x8F : 0xBF;  // nothing past U+10FFFF
        if (follows(1, lo, hi) && follows(2, 0x80, 0xBF) && follows(3, 0x80, 0xBF))
            return {(b0 & 0x07u) << 18 | (byte(1) & 0x3Fu) << 12 | (byte(2) & 0x3Fu) << 6 | (byte(3) & 0x3Fu), 4};
    }
    return {0, 0};
}

// Where s stops being UTF-8, or npos when all of it is.
size_t FirstNonUtf8(std::string_view s)
{
    for (size_t at = 0; at < s.size();) {
        const size_t n = DecodeUtf8(s, at).length;
        if (n == 0)
            return at;
        at += n;
    }
    return std::string_view::npos;
}

std::string NotUtf8(std::string_view s, size_t at)
{
    static const char hex[] = "0123456789ABCDEF";
    const unsigned char b = static_cast<unsigned char>(s[at]);
    return std::string("is not UTF-8 text (byte 0x") + hex[b >> 4] + hex[b & 15] + " at offset " +
           std::to_string(at) + ")";
}

// Text from a file as an error message shows it: bytes that are not UTF-8 and control
// characters as \xNN (a message is UTF-8 text, which Python turns into a str), and no
// more than 80 bytes of it.
std::string Shown(std::string_view s)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    size_t at = 0;
    while (at < s.size() && at < 80) {
        const CodePoint c = DecodeUtf8(s, at);
        if (c.length == 0 || c.value < 0x20 || c.value == 0x7F) {
            const unsigned char b = static_cast<unsigned char>(s[at]);
            out += std::string("\\x") + hex[b >> 4] + hex[b & 15];
            ++at;
        } else {
            out.append(s, at, c.length);
            at += c.length;
        }
    }
    return at < s.size() ? out + "..." : out;
}

// UTF-8 text in double quotes, read the same by JSON (RFC 8259) and YAML parsers: the
// quote, the backslash and every control character are escaped as JSON requires, and
// so are the characters some YAML readers take for a line break or a byte order mark,
// or refuse unescaped (U+0085, U+2028, U+2029, U+FEFF, U+FFFE, U+FFFF). Every escape
// is one JSON and YAML share; characters past U+FFFF are written as they are, so no
// surrogate pair is needed.
std::string Quoted(std::string_view s)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out = "\"";
    for (size_t at = 0; at < s.size();) {
        const CodePoint c = DecodeUtf8(s, at);
        const uint32_t v = c.value;
        switch (v) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (v < 0x20 || (v >= 0x7F && v <= 0xA0) || v == 0x2028 || v == 0x2029 || v == 0xFEFF ||
                v == 0xFFFE || v == 0xFFFF) {
                out += "\\u";
                for (int shift = 12; shift >= 0; shift -= 4)
                    out += hex[(v >> shift) & 15];
            } else {
                out.append(s, at, c.length);
            }
        }
        at += c.length;
    }
    return out + "\"";
}

// Writes the records as YAML block maps or as indented JSON, one field a line, every
// list on one line. Written here rather than with yaml-cpp's emitter, whose numbers
// follow the C++ locale and whose escapes (\x85, \N, \_) are not JSON.
struct Writer {
    std::string& out;
    bool json;
    std::string where;        // the record being written, for messages
    std::vector<bool> empty;  // for each open map: no field written yet

    void Open()
    {
        if (json)
            out += '{';
        empty.push_back(true);
    }
    void Close()
    {
        empty.pop_back();
        if (json)
            out += '\n' + std::string(2 * empty.size(), ' ') + '}';
    }
    void Key(const char* name)
    {
        if (json)
            out += empty.back() ? "\n" : ",\n";
        empty.back() = false;
        out += std::string(2 * (empty.size() - (json ? 0 : 1)), ' ');
        out += json ? Quoted(name) : std::string(name);
        out += ':';
    }
    void Value(const std::string& text)
    {
        out += ' ';
        out += text;
        if (!json)
            out += '\n';
    }
    std::string Number(const std::string& field, float v) const
    {
        if (!std::isfinite(v))
            throw CalibrationError(where + "." + field + ": " + NumberText(v) +
                                   " cannot be written (not a finite number)");
        // "-0" is the integer 0 to many JSON and YAML readers (Python's among them):
        // with a point it stays a negative zero.
        if (v == 0.0f && std::signbit(v))
            return "-0.0";
        return NumberText(v);
    }
    void Int(const char* name, int32_t v)
    {
        Key(name);
        Value(NumberText(v));
    }
    void Float(const char* name, float v)
    {
        Key(name);
        Value(Number(name, v));
    }
    void Text(const char* name, const std::string& v)
    {
        const size_t bad = FirstNonUtf8(v);
        if (bad != std::string::npos)
            throw CalibrationError(where + "." + name + ": " + NotUtf8(v, bad) + ", cannot be written");
        Key(name);
        Value(Quoted(v));
    }
    void Lens(const char* name, Intrinsics& l)
    {
        Map(name, [&] {
            const std::string outer = where;
            where += std::string(".") + name;
            VisitLens(*this, l);
            where = outer;
        });
    }
    template <typename F>
    void Map(const char* name, F fields)
    {
        Key(name);
        if (!json)
            out += '\n';
        else
            out += ' ';
        Open();
        fields();
        Close();
    }
    // The valid entries and any entry behind them that is not +0.0 (a -0.0 is kept):
    // a round trip keeps every bit, without 256 zeros per table.
    void Floats(const char* name, const float* v, int capacity, int count)
    {
        int n = std::clamp(count, 0, capacity);
        for (int k = capacity; k > n; --k)
            if (v[k - 1] != 0.0f || std::signbit(v[k - 1])) {
                n = k;
                break;
            }
        std::string list = "[";
        for (int k = 0; k < n; ++k)
            list += (k ? ", " : "") + Number(name + std::string("[") + std::to_string(k) + "]", v[k]);
        Key(name);
        Value(list + "]");
    }
};

// Whole-text numbers: the scalar must be a number and nothing else, within the
// range of the field's type.
bool ParseInt(const std::string& text, int64_t& v)
{
    const char* first = text.data();
    const char* last = first + text.size();
    if (first != last && *first == '+')
        ++first;
    const auto [end, ec] = std::from_chars(first, last, v);
    return ec == std::errc() && end == last && first != last;
}

struct Reader {
    YAML::Node node;
    std::string where;  // file and path of this map, for messages
    std::set<std::string> known;

    [[noreturn]] void Fail(const std::string& field, const std::string& what) const
    {
        throw CalibrationError(where + "." + field + ": " + what);
    }
    // The field's node, or an undefined node when the field is missing.
    YAML::Node Field(const char* name)
    {
        known.insert(name);
        const YAML::Node n = node[name];
        if (n && n.IsNull())
            Fail(name, "has no value");
        return n;
    }
    std::string Scalar(const char* name, const YAML::Node& n, const char* expected) const
    {
        if (!n.IsScalar())
            Fail(name, std::string("expected ") + expected);
        return n.Scalar();
    }
    float ToFloat(const std::string& name, const std::string& text) const
    {
        // from_chars rounds the decimal text once, straight to the field's precision,
        // and reads a point as the decimal separator whatever the locale.
        const char* first = text.data();
        const char* last = first + text.size();
        if (first != last && *first == '+' && last - first > 1 && first[1] != '-')
            ++first;
        float v = 0.0f;
        auto [end, ec] = std::from_chars(first, last, v);
        if (ec == std::errc::result_out_of_range) {
            // Too large, or too small to be anything but zero: a double tells which.
            double wide = 0.0;
            const auto [wideEnd, wideEc] = std::from_chars(first, last, wide);
            if (wideEc != std::errc() || wideEnd != last || std::fabs(wide) > 1.0)
                Fail(name, Shown(text) + " is outside the range of a 32-bit float");
            v = static_cast<float>(wide);
            end = wideEnd;
            ec = std::errc();
        }
        if (ec != std::errc() || end != last || first == last)
            Fail(name, "expected a number, found '" + Shown(text) + "'");
        if (!std::isfinite(v))
            Fail(name, "expected a finite number, found '" + Shown(text) + "'");
        return v;
    }

    void Int(const char* name, int32_t& v)
    {
        const YAML::Node n = Field(name);
        if (!n)
            return;
        const std::string text = Scalar(name, n, "an integer");
        int64_t value = 0;
        if (!ParseInt(text, value)) {
            if (text.size() > 24 && ParseInt(text.substr(0, 24), value))
                Fail(name, Shown(text) + " is outside the range of a 32-bit integer");
            Fail(name, "expected an integer, found '" + Shown(text) + "'");
        }
        if (value < INT32_MIN || value > INT32_MAX)
            Fail(name, Shown(text) + " is outside the range of a 32-bit integer (-2147483648 to 2147483647)");
        v = static_cast<int32_t>(value);
    }
    void Float(const char* name, float& v)
    {
        const YAML::Node n = Field(name);
        if (n)
            v = ToFloat(name, Scalar(name, n, "a number"));
    }
    void Text(const char* name, std::string& v)
    {
        const YAML::Node n = Field(name);
        if (!n)
            return;
        std::string text = Scalar(name, n, "text");
        const size_t bad = FirstNonUtf8(text);
        if (bad != std::string::npos)
            Fail(name, NotUtf8(text, bad));
        v = std::move(text);
    }
    void Lens(const char* name, Intrinsics& l)
    {
        const YAML::Node n = Field(name);
        if (!n)
            return;
        if (!n.IsMap())
            Fail(name, "expected a map of lens fields");
        Reader inner{n, where + "." + name, {}};
        VisitLens(inner, l);
        inner.RejectUnknown();
    }
    void Floats(const char* name, float* v, int capacity, int /*count*/)
    {
        const YAML::Node n = Field(name);
        if (!n)
            return;
        if (!n.IsSequence())
            Fail(name, "expected a list of numbers");
        if (n.size() > static_cast<size_t>(capacity))
            Fail(name, "holds " + std::to_string(n.size()) + " values, at most " +
                           std::to_string(capacity) + " fit");
        int k = 0;
        for (const YAML::Node& e : n) {
            const std::string entry = name + std::string("[") + std::to_string(k) + "]";
            if (!e.IsScalar())
                Fail(entry, "expected a number");
            v[k++] = ToFloat(entry, e.Scalar());
        }
    }
    // Every key must be a field of the record, given once.
    void RejectUnknown() const
    {
        std::set<std::string> seen;
        for (const auto& child : node) {
            if (!child.first.IsScalar())
                throw CalibrationError(where + ": a field name must be text");
            const std::string key = child.first.Scalar();
            if (known.count(key) == 0)
                throw CalibrationError(where + ": unknown field '" + Shown(key) + "'");
            if (!seen.insert(key).second)
                throw CalibrationError(where + "." + Shown(key) + ": given twice");
        }
    }
};

constexpr size_t kMaxCalibrationBytes = 1 << 20;

// Ignores the parser's events: only whether a document follows matters.
struct IgnoreEvents : YAML::EventHandler {
    void OnDocumentStart(const YAML::Mark&) override {}
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
    void OnAlias(const YAML::Mark&, YAML::anchor_t) override {}
    void OnScalar(const YAML::Mark&, const std::string&, YAML::anchor_t, const std::string&) override {}
    void OnSequenceStart(const YAML::Mark&, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {}
    void OnSequenceEnd() override {}
    void OnMapStart(const YAML::Mark&, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {}
    void OnMapEnd() override {}
};

// Whether the text holds a second document. The parser is asked for two documents at
// most: yaml-cpp 0.7's LoadAll never returns on some malformed text (a lone comma
// after a document), asking for one document after another forever.
bool MoreThanOneDocument(const std::string& text)
{
    std::istringstream in(text);
    YAML::Parser parser(in);
    IgnoreEvents events;
    return parser.HandleNextDocument(events) && parser.HandleNextDocument(events);
}

std::string OneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

}  // namespace

ModuleCalibration ParseCalibrationText(const std::string& text, const std::string& path)
{
    // Files written by earlier versions begin with OpenCV's "%YAML:1.0" line, which is
    // not a standard directive: it is read as an empty line.
    std::string_view body = text;
    if (body.rfind("%YAML:1.0", 0) == 0)
        body.remove_prefix(std::string_view("%YAML:1.0").size());
    YAML::Node document;
    try {
        const std::string yaml(body);
        document = YAML::Load(yaml);
        if (MoreThanOneDocument(yaml))
            throw CalibrationError(path + ": text follows the calibration (a second document)");
    } catch (const YAML::Exception& e) {
        throw CalibrationError(path + ": not a readable YAML or JSON calibration (line " +
                               std::to_string(e.mark.line + 1) + ", column " +
                               std::to_string(e.mark.column + 1) + ": " + OneLine(e.msg) + ")");
    }
    if (!document.IsMap())
        throw CalibrationError(path + ": expected the maps 'binned' and 'full'");
    ModuleCalibration out;
    Reader top{document, path, {}};
    for (const char* name : {"binned", "full"}) {
        const YAML::Node n = top.Field(name);
        if (!n)
            continue;
        if (!n.IsMap())
            top.Fail(name, "expected a map of calibration fields");
        Reader r{n, path + ": " + name, {}};
        VisitRecord(r, std::string(name) == "binned" ? out.binned : out.full);
        r.RejectUnknown();
    }
    top.RejectUnknown();
    return out;
}

namespace {

std::string SystemError(const std::string& path, const char* what)
{
    return path + ": " + what + " (" + std::strerror(errno) + ")";
}

// The whole file, which must be a regular file of at most maxBytes.
std::string ReadBounded(const std::string& path, size_t maxBytes)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        throw CalibrationError(SystemError(path, "cannot open"));
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    struct stat st {};
    if (fstat(fd, &st) != 0)
        throw CalibrationError(SystemError(path, "cannot read"));
    if (!S_ISREG(st.st_mode))
        throw CalibrationError(path + ": not a regular file");
    if (static_cast<uint64_t>(st.st_size) > maxBytes)
        throw CalibrationError(path + ": " + std::to_string(st.st_size) + " bytes, more than the " +
                               std::to_string(maxBytes) + " a calibration file can have");
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw CalibrationError(SystemError(path, "cannot read"));
        if (n == 0)
            break;
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > maxBytes)
            throw CalibrationError(path + ": more than the " + std::to_string(maxBytes) +
                                   " bytes a calibration file can have");
    }
    return text;
}

// `text` as the file `path`, whole or not at all.
void WriteWhole(const std::string& path, const std::string& text)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        throw CalibrationError(SystemError(path, "cannot create a file beside"));
    const auto fail = [&](const char* what) {
        const std::string message = SystemError(path, what);
        close(fd);
        unlink(temporary.c_str());
        throw CalibrationError(message);
    };
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            fail("cannot write");
        done += static_cast<size_t>(n);
    }
    if (fchmod(fd, 0644) != 0 || fsync(fd) != 0)
        fail("cannot write");
    if (close(fd) != 0) {
        const std::string message = SystemError(path, "cannot write");
        unlink(temporary.c_str());
        throw CalibrationError(message);
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const std::string message = SystemError(path, "cannot replace");
        unlink(temporary.c_str());
        throw CalibrationError(message);
    }
}

bool EndsWith(const std::string& s, const char* suffix)
{
    const size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

}  // namespace

ModuleCalibration ReadCalibration(const std::string& path)
{
    return ParseCalibrationText(ReadBounded(path, kMaxCalibrationBytes), path);
}

std::string CalibrationText(const ModuleCalibration& calibration, bool json)
{
    ModuleCalibration copy = calibration;
    std::string text;
    Writer w{text, json, "", {}};
    w.Open();
    for (CameraCalibrationParam* record : {&copy.binned, &copy.full}) {
        const char* name = record == &copy.binned ? "binned" : "full";
        w.where = name;
        w.Map(name, [&] { VisitRecord(w, *record); });
    }
    w.Close();
    return json ? text + "\n" : text;
}

void WriteCalibration(const std::string& path, const ModuleCalibration& calibration)
{
    std::string text;
    try {
        text = CalibrationText(calibration, EndsWith(path, ".json"));
    } catch (const CalibrationError& e) {
        throw CalibrationError(path + ": " + e.what());
    }
    WriteWhole(path, text);
}

}  // namespace qvapi
