#include "calibration_file.h"

#include <algorithm>
#include <set>

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

ModuleCalibration ReadCalibration(const std::string& path)
{
    cv::FileStorage fs;
    try {
        if (!fs.open(path, cv::FileStorage::READ))
            throw CalibrationError(path + ": cannot open the calibration file");
    } catch (const cv::Exception& e) {
        std::string why = e.err;  // OpenCV's description alone, on one line
        std::replace(why.begin(), why.end(), '\n', ' ');
        while (!why.empty() && why.back() == ' ')
            why.pop_back();
        throw CalibrationError(path + ": not a readable YAML or JSON calibration (" + why + ")");
    }
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
    top.where = path;
    top.RejectUnknown();
    return out;
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
