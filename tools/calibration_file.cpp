#include "calibration_file.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <set>
#include <vector>

#include <opencv2/core.hpp>

#include "output_files.h"
#include "sample_calibration.h"

namespace qvrecon {
namespace {

using qvapi::CameraCalibrationParam;
using qvapi::Intrinsics;

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

struct Writer {
    cv::FileStorage& fs;

    void Int(const char* name, int32_t v) { fs << name << v; }
    void Float(const char* name, float v) { fs << name << v; }
    void Text(const char* name, const std::string& v) { fs << name << v; }
    void Lens(const char* name, Intrinsics& l)
    {
        fs << name << "{";
        VisitLens(*this, l);
        fs << "}";
    }
    // The valid entries and any non-zero entry behind them: a round trip keeps
    // every value, without 256 zeros per table.
    void Floats(const char* name, const float* v, int capacity, int count)
    {
        int n = std::clamp(count, 0, capacity);
        for (int k = capacity; k > n; --k)
            if (v[k - 1] != 0.0f) {
                n = k;
                break;
            }
        fs << name << "[:";
        for (int k = 0; k < n; ++k)
            fs << v[k];
        fs << "]";
    }
};

struct Reader {
    cv::FileNode node;
    std::string where;  // file and path of this map, for messages
    std::set<std::string> known;

    [[noreturn]] void Fail(const std::string& field, const std::string& what) const
    {
        throw CalibrationError(where + "." + field + ": " + what);
    }
    cv::FileNode Field(const char* name)
    {
        known.insert(name);
        return node[name];
    }
    static bool IsNumber(const cv::FileNode& n) { return n.isInt() || n.isReal(); }

    void Int(const char* name, int32_t& v)
    {
        const cv::FileNode n = Field(name);
        if (n.empty())
            return;
        if (!n.isInt())
            Fail(name, "expected an integer");
        v = static_cast<int32_t>(n);
    }
    void Float(const char* name, float& v)
    {
        const cv::FileNode n = Field(name);
        if (n.empty())
            return;
        if (!IsNumber(n))
            Fail(name, "expected a number");
        v = static_cast<float>(static_cast<double>(n));
    }
    void Text(const char* name, std::string& v)
    {
        const cv::FileNode n = Field(name);
        if (n.empty())
            return;
        if (!n.isString())
            Fail(name, "expected text");
        v = static_cast<std::string>(n);
    }
    void Lens(const char* name, Intrinsics& l)
    {
        const cv::FileNode n = Field(name);
        if (n.empty())
            return;
        if (!n.isMap())
            Fail(name, "expected a map of lens fields");
        Reader inner{n, where + "." + name, {}};
        VisitLens(inner, l);
        inner.RejectUnknown();
    }
    void Floats(const char* name, float* v, int capacity, int /*count*/)
    {
        const cv::FileNode n = Field(name);
        if (n.empty())
            return;
        if (!n.isSeq())
            Fail(name, "expected a list of numbers");
        if (static_cast<int>(n.size()) > capacity)
            Fail(name, "holds " + std::to_string(n.size()) + " values, at most " +
                           std::to_string(capacity) + " fit");
        int k = 0;
        for (const cv::FileNode& e : n) {
            if (!IsNumber(e))
                Fail(name + std::string("[") + std::to_string(k) + "]", "expected a number");
            v[k++] = static_cast<float>(static_cast<double>(e));
        }
    }
    void RejectUnknown() const
    {
        for (const cv::FileNode& child : node)
            if (known.count(child.name()) == 0)
                throw CalibrationError(where + ": unknown field '" + child.name() + "'");
    }
};

}  // namespace

namespace {

std::string OneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

constexpr size_t kMaxCalibrationBytes = 1 << 20;

ModuleCalibration ParseCalibration(cv::FileStorage& fs, const std::string& path)
{
    ModuleCalibration out;
    Reader top{fs.root(), path, {}};
    if (!top.node.isMap())
        throw CalibrationError(path + ": expected the maps 'binned' and 'full'");
    for (const char* name : {"binned", "full"}) {
        const cv::FileNode n = top.Field(name);
        if (n.empty())
            continue;
        if (!n.isMap())
            top.Fail(name, "expected a map of calibration fields");
        Reader r{n, path + ": " + name, {}};
        VisitRecord(r, std::string(name) == "binned" ? out.binned : out.full);
        r.RejectUnknown();
    }
    top.RejectUnknown();
    return out;
}

}  // namespace

namespace {

// The records as bytes: every plain field, then the label's length and text.
void AppendRecord(std::string& out, const CameraCalibrationParam& p)
{
    const char* bytes = reinterpret_cast<const char*>(&p);
    const size_t textAt = offsetof(CameraCalibrationParam, label);
    const size_t textEnd = offsetof(CameraCalibrationParam, depthLens);
    out.append(bytes, textAt);
    out.append(bytes + textEnd, sizeof(CameraCalibrationParam) - textEnd);
    const uint32_t length = static_cast<uint32_t>(p.label.size());
    out.append(reinterpret_cast<const char*>(&length), sizeof length);
    out.append(p.label);
}

size_t TakeRecord(const std::string& in, size_t at, CameraCalibrationParam& p)
{
    char* bytes = reinterpret_cast<char*>(&p);
    const size_t textAt = offsetof(CameraCalibrationParam, label);
    const size_t textEnd = offsetof(CameraCalibrationParam, depthLens);
    const size_t plain = textAt + sizeof(CameraCalibrationParam) - textEnd;
    if (in.size() < at + plain + sizeof(uint32_t))
        return std::string::npos;
    std::memcpy(bytes, in.data() + at, textAt);
    std::memcpy(bytes + textEnd, in.data() + at + textAt, sizeof(CameraCalibrationParam) - textEnd);
    at += plain;
    uint32_t length = 0;
    std::memcpy(&length, in.data() + at, sizeof length);
    at += sizeof length;
    if (in.size() < at + length)
        return std::string::npos;
    p.label.assign(in.data() + at, length);
    return at + length;
}

// OpenCV's YAML parser does not return on some malformed text (found by fuzzing, even
// in plain ASCII). The text is therefore parsed in a child process that is stopped
// after a few seconds; the records come back through a pipe.
ModuleCalibration ParseGuarded(const std::string& text, const std::string& path)
{
    int fds[2];
    if (pipe(fds) != 0)
        throw CalibrationError(path + ": cannot start the parser");
    const pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        throw CalibrationError(path + ": cannot start the parser");
    }
    if (child == 0) {
        close(fds[0]);
        std::string reply;
        try {
            const ModuleCalibration m = ParseCalibrationText(text, path);
            reply = "R";
            AppendRecord(reply, m.binned);
            AppendRecord(reply, m.full);
        } catch (const std::exception& e) {
            reply = std::string("E") + e.what();
        }
        for (size_t done = 0; done < reply.size();) {
            const ssize_t n = write(fds[1], reply.data() + done, reply.size() - done);
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    std::string reply;
    char buffer[65536];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    bool finished = false;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd p{fds[0], POLLIN, 0};
        const int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              deadline - std::chrono::steady_clock::now()).count());
        if (poll(&p, 1, std::max(left, 1)) <= 0)
            continue;
        const ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n <= 0) {
            finished = true;  // the child closed the pipe
            break;
        }
        reply.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (!finished)
        kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (!finished || reply.empty())
        throw CalibrationError(path + ": not a readable YAML or JSON calibration (the parser did not finish)");
    if (reply[0] == 'E')
        throw CalibrationError(reply.substr(1));
    ModuleCalibration m;
    size_t at = TakeRecord(reply, 1, m.binned);
    if (at != std::string::npos)
        at = TakeRecord(reply, at, m.full);
    if (at == std::string::npos)
        throw CalibrationError(path + ": not a readable YAML or JSON calibration");
    return m;
}

}  // namespace

ModuleCalibration ParseCalibrationText(const std::string& text, const std::string& path)
{
    // OpenCV's parser reports malformed text with its own exceptions and, for some
    // inputs, with the standard library's (a length error found by fuzzing): all
    // become one clear error naming the file.
    try {
        cv::FileStorage fs;
        if (!fs.open(text, cv::FileStorage::READ | cv::FileStorage::MEMORY))
            throw CalibrationError(path + ": not a readable YAML or JSON calibration");
        return ParseCalibration(fs, path);
    } catch (const CalibrationError&) {
        throw;
    } catch (const cv::Exception& e) {
        throw CalibrationError(path + ": not a readable YAML or JSON calibration (" + OneLine(e.err) + ")");
    } catch (const std::exception& e) {
        throw CalibrationError(path + ": not a readable YAML or JSON calibration (" + OneLine(e.what()) + ")");
    }
}

ModuleCalibration ReadCalibration(const std::string& path)
{
    // A calibration is a small ASCII text file. Anything else is refused before
    // OpenCV's parser sees it (control characters and bytes above 127 made it hang).
    std::vector<uint8_t> bytes;
    try {
        bytes = ReadFile(path);
    } catch (const ToolError& e) {
        throw CalibrationError(e.what());
    }
    if (bytes.size() > kMaxCalibrationBytes)
        throw CalibrationError(path + ": " + std::to_string(bytes.size()) +
                               " bytes, too large for a calibration file");
    for (size_t i = 0; i < bytes.size(); ++i)
        if ((bytes[i] < 0x20 && bytes[i] != '\t' && bytes[i] != '\n' && bytes[i] != '\r') ||
            bytes[i] > 0x7E)
            throw CalibrationError(path + ": not an ASCII text file (byte " + std::to_string(i) +
                                   " is " + std::to_string(bytes[i]) + ")");
    return ParseGuarded(std::string(bytes.begin(), bytes.end()), path);
}

void WriteCalibration(const std::string& path, const ModuleCalibration& calibration)
{
    ModuleCalibration copy = calibration;
    WriteAtomically(path, [&](const std::string& temporary) {
        cv::FileStorage fs(temporary, cv::FileStorage::WRITE);
        if (!fs.isOpened())
            return false;
        Writer w{fs};
        fs << "binned" << "{";
        VisitRecord(w, copy.binned);
        fs << "}" << "full" << "{";
        VisitRecord(w, copy.full);
        fs << "}";
        fs.release();
        return true;
    });
}

ModuleCalibration SampleModule() { return {qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()}; }

}  // namespace qvrecon
