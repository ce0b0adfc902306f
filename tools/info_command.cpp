// qvrecon info: the library's version and a summary of the calibration, or the
// cameras' intrinsics as Open3D or ROS files; or a recording's summary.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include <qvreconstruction/recording.h>

#include "command_line.h"
#include "output_files.h"
#include "pipeline.h"

namespace qvrecon {
namespace {

struct InfoArgs {
    Common common;
    std::string format = "text";
    std::string recording;
};

void PrintLens(const char* name, const qvapi::Intrinsics& l)
{
    std::printf("    %-6s %4dx%-4d fx %8.2f fy %8.2f cx %7.2f cy %7.2f  k1 %+.4f k2 %+.4f p1 %+.5f p2 %+.5f k3 %+.4f\n",
                name, l.width, l.height, l.fx, l.fy, l.cx, l.cy, l.k1, l.k2, l.p1, l.p2, l.k3);
}

std::string Num(float v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", v);  // read back exactly
    return text;
}

// Open3D's PinholeCameraIntrinsic file (o3d.io.read_pinhole_camera_intrinsic): the
// camera matrix column by column.
std::string Open3dIntrinsic(const qvapi::Intrinsics& l)
{
    return "{\n  \"width\": " + std::to_string(l.width) + ",\n  \"height\": " + std::to_string(l.height) +
           ",\n  \"intrinsic_matrix\": [" + Num(l.fx) + ", 0, 0, 0, " + Num(l.fy) + ", 0, " + Num(l.cx) + ", " +
           Num(l.cy) + ", 1]\n}\n";
}

// ROS's camera_info YAML (camera_calibration_parsers): the lens with its plumb-bob
// distortion; the projection matrix is the camera matrix (no stereo rectification).
std::string RosCameraInfo(const std::string& name, const qvapi::Intrinsics& l)
{
    const std::string K = Num(l.fx) + ", 0, " + Num(l.cx) + ", 0, " + Num(l.fy) + ", " + Num(l.cy) + ", 0, 0, 1";
    const std::string P = Num(l.fx) + ", 0, " + Num(l.cx) + ", 0, 0, " + Num(l.fy) + ", " + Num(l.cy) + ", 0, 0, 0, 1, 0";
    return "image_width: " + std::to_string(l.width) + "\nimage_height: " + std::to_string(l.height) +
           "\ncamera_name: " + name + "\ncamera_matrix:\n  rows: 3\n  cols: 3\n  data: [" + K +
           "]\ndistortion_model: plumb_bob\ndistortion_coefficients:\n  rows: 1\n  cols: 5\n  data: [" + Num(l.k1) +
           ", " + Num(l.k2) + ", " + Num(l.p1) + ", " + Num(l.p2) + ", " + Num(l.k3) +
           "]\nrectification_matrix:\n  rows: 3\n  cols: 3\n  data: [1, 0, 0, 0, 1, 0, 0, 0, 1]\n"
           "projection_matrix:\n  rows: 3\n  cols: 4\n  data: [" + P + "]\n";
}

// The cameras' intrinsics as Open3D or ROS files, one per kind of image: depth.* (full
// stream, 640 x 480), depth_binned.* (binned read-outs of the dual-frequency stream:
// every other ray of the full grid), depth_single.* (single-frequency stream, from the
// binned record) and colour.* (when the record has a colour lens). Open3D's colour
// file describes the images registration returns: it writes a point at the pixel its
// projection falls in, so the principal point moves half a pixel and Open3D's ray
// through a pixel passes through its centre. ROS's files describe the cameras' raw
// images.
int WriteIntrinsics(const ModuleCalibration& cal, const Common& c, const std::string& format)
{
    const bool open3d = format == "open3d";
    std::vector<std::pair<std::string, qvapi::Intrinsics>> cameras = {
        {"depth", DepthLens(cal, StreamKind::Dual)},
        {"depth_binned", DepthLens(cal, StreamKind::Binned)},
        {"depth_single", DepthLens(cal, StreamKind::Single)}};
    if (cal.full.rgbLens.fx != 0.0f) {
        qvapi::Intrinsics colour = cal.full.rgbLens;
        if (open3d) {
            colour.cx -= 0.5f;
            colour.cy -= 0.5f;
        }
        cameras.push_back({"colour", colour});
    } else {
        std::fprintf(stderr, "qvrecon: the calibration has no colour lens; no colour camera file\n");
    }
    // The files describe one calibration together: all are written, or none.
    std::vector<std::pair<std::string, std::string>> files;
    for (const auto& [name, lens] : cameras) {
        if (lens.width <= 0 || lens.height <= 0 || !(lens.fx > 0.0f) || !(lens.fy > 0.0f))
            throw ToolError("the " + name + " lens has no usable pinhole (" + std::to_string(lens.width) + "x" +
                            std::to_string(lens.height) + ", fx " + Num(lens.fx) + ", fy " + Num(lens.fy) + ")");
        files.emplace_back(In(c.out, name + (open3d ? ".json" : ".yaml")),
                           open3d ? Open3dIntrinsic(lens) : RosCameraInfo(name, lens));
    }
    EnsureFolder(c.out);
    WriteFiles(files);
    for (const auto& file : files)
        std::printf("%s\n", file.first.c_str());
    return 0;
}

std::string Seconds(uint64_t ns)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", ns / 1e9);
    return text;
}

// A recording's summary on stdout: frames, duration, channels, storage, temperatures,
// gaps and dropped frames, calibration. What is damaged goes to stderr, one line
// each, and the rest is still summed up; the exit code is then 1.
int RecordingInfo(const std::string& path)
{
    qvapi::RecordingReader r;
    const qvapi::RecordingStatus opened = r.Open(path);
    if (!opened.ok())
        throw ToolError(opened.message);
    std::vector<std::string> problems = r.Problems();
    // Every frame's information; a frame that cannot be read names its chunk, once.
    std::vector<uint64_t> times;
    std::vector<uint64_t> dropped;  // frame numbers with frames lost before them
    uint64_t lost = 0, unreadable = 0, withColour = 0;
    float tMin = 0, tMax = 0;
    uint16_t codeMin = 0, codeMax = 0;
    std::set<std::string> seen(problems.begin(), problems.end());
    qvapi::RecordedFrame f;
    for (uint64_t k = 0; k < r.FrameCount(); ++k) {
        const qvapi::RecordingStatus st = r.ReadFrame(k, f);
        if (!st.ok()) {
            ++unreadable;
            if (seen.insert(st.message).second)
                problems.push_back(st.message);
            continue;
        }
        if (times.empty() || f.temperatureC < tMin) tMin = f.temperatureC, codeMin = f.temperatureCode;
        if (times.empty() || f.temperatureC > tMax) tMax = f.temperatureC, codeMax = f.temperatureCode;
        times.push_back(f.timeNs);
        withColour += f.hasColour;
        if (f.framesDropped > 0) {
            lost += f.framesDropped;
            dropped.push_back(k);
        }
    }
    for (const std::string& p : problems)
        std::fprintf(stderr, "qvrecon: %s\n", OneLine(p).c_str());

    const std::map<std::string, std::string>& md = r.Metadata();
    const auto meta = [&](const char* key) { return md.count(key) ? md.at(key) : std::string("?"); };
    std::printf("recording: %s\n", path.c_str());
    if (r.IndexRebuilt())
        std::printf("index: rebuilt by a scan (the file has no usable summary: cut short?)\n");
    std::printf("frames: %llu", static_cast<unsigned long long>(r.FrameCount()));
    if (unreadable)
        std::printf(" (%llu unreadable)", static_cast<unsigned long long>(unreadable));
    std::printf(", %llu with a colour frame\n", static_cast<unsigned long long>(withColour));
    const uint64_t first = times.empty() ? 0 : times.front(), last = times.empty() ? 0 : times.back();
    std::printf("duration: %s (first capture at %llu ns, last at %llu ns)\n", Seconds(last - first).c_str(),
                static_cast<unsigned long long>(first), static_cast<unsigned long long>(last));
    std::printf("device %s, stream %s, module \"%s\", library %s, algorithms %s\n", meta("device_type").c_str(),
                meta("stream").c_str(), r.ModuleLabel().c_str(), meta("library_version").c_str(),
                meta("algorithm_version").c_str());
    if (r.CalibrationYaml().empty()) {
        std::printf("calibration: none attached\n");
    } else {
        try {
            const ModuleCalibration cal = qvapi::ParseCalibrationText(r.CalibrationYaml(), "the attached calibration");
            std::printf("calibration: attached, full record \"%s\", binned record \"%s\"\n", cal.full.label.c_str(),
                        cal.binned.label.c_str());
        } catch (const CalibrationError& e) {
            std::printf("calibration: attached but unreadable (%s)\n", OneLine(e.what()).c_str());
        }
    }
    std::printf("channels:\n");
    for (const qvapi::RecordingChannel& c : r.Channels())
        std::printf("  %-30s %-40s %llu messages\n", c.topic.c_str(), c.schemaName.c_str(),
                    static_cast<unsigned long long>(c.messages));
    const qvapi::RecordingStorage storage = r.Storage();
    std::printf("storage: %s, %llu chunks, %.1f MB of records in %.1f MB (%.2f:1), file %.1f MB\n",
                storage.compression.c_str(), static_cast<unsigned long long>(storage.chunks),
                storage.recordBytes / 1e6, storage.storedBytes / 1e6,
                storage.recordBytes / std::max<double>(storage.storedBytes, 1.0), storage.fileBytes / 1e6);
    if (!times.empty())
        std::printf("temperature: %.2f to %.2f degrees C (codes %u to %u)\n", tMin, tMax, codeMin, codeMax);
    // Gaps: steps between captures of more than 1.5 times the median step.
    std::vector<uint64_t> steps;
    for (size_t k = 1; k < times.size(); ++k)
        steps.push_back(times[k] >= times[k - 1] ? times[k] - times[k - 1] : 0);
    if (!steps.empty()) {
        std::vector<uint64_t> sorted = steps;
        std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
        const uint64_t median = sorted[sorted.size() / 2];
        std::string gaps;
        size_t count = 0;
        for (size_t k = 0; k < steps.size(); ++k)
            if (steps[k] * 2 > median * 3) {
                if (++count <= 10)
                    gaps += (gaps.empty() ? "" : ", ") + std::string("before frame ") + std::to_string(k + 1) + " (" +
                            Seconds(steps[k]) + ")";
            }
        std::printf("frame step: median %s (%.2f fps); gaps: %s%s\n", Seconds(median).c_str(),
                    median ? 1e9 / median : 0.0, count ? gaps.c_str() : "none",
                    count > 10 ? (" and " + std::to_string(count - 10) + " more").c_str() : "");
    }
    std::printf("dropped frames: %llu", static_cast<unsigned long long>(lost));
    for (size_t k = 0; k < dropped.size() && k < 10; ++k)
        std::printf("%s%llu", k == 0 ? " (before frames " : ", ", static_cast<unsigned long long>(dropped[k]));
    std::printf("%s\n", dropped.empty() ? "" : dropped.size() > 10 ? ", ...)" : ")");
    return problems.empty() ? 0 : 1;
}

int RunInfo(const Common& c, const std::string& format)
{
    const ModuleCalibration cal = LoadCalibration(c);
    if (format != "text")
        return WriteIntrinsics(cal, c, format);
    std::string version;
    qvapi::Reconstruction::CreateInstance()->GetAlgorithmVersion(version);
    std::printf("qvreconstruction %s\n", version.c_str());
    std::printf("calibration: %s\n", c.calib.empty() ? "built-in sample module" : c.calib.c_str());
    for (const auto* rec : {&cal.binned, &cal.full}) {
        std::printf("  %s record \"%s\"\n", rec == &cal.binned ? "binned" : "full", rec->label.c_str());
        PrintLens("depth", rec->depthLens);
        PrintLens("colour", rec->rgbLens);
        std::printf("    offsets %.3f / %.3f, wiggling tables %d / %d entries, registration values %d\n",
                    rec->depthOffsetF1, rec->depthOffsetF2, rec->tableCountF1, rec->tableCountF2, rec->vectorCount);
    }
    // The constants Init derives from the full record.
    const qvapi::CameraCalibrationParam& p = cal.full;
    const float offset1 = std::fabs(p.depthOffsetF1) < 100 ? p.depthOffsetF1 * 1000 : p.depthOffsetF1;
    std::printf("derived, full stream (640x480):   80 MHz range 1875 mm, 100 MHz range 1500 mm, combined 7500 mm\n");
    std::printf("derived, reduced stream (320x240): 40 MHz range 3750 mm\n");
    std::printf("offsets: first frequency %.1f mm%s, second %.1f mm\n", offset1,
                std::fabs(p.depthOffsetF1) < 100 ? " (given in metres)" : "", p.depthOffsetF2);
    std::printf("binning: %d (depth lens %d wide); wiggling steps %.2f / %.2f\n", p.depthLens.width == 320 ? 2 : 1,
                p.depthLens.width, p.tableCountF1 > 20 ? 0.02 : 0.01, p.tableCountF2 > 20 ? 0.02 : 0.01);
    return 0;
}

}  // namespace

Command AddInfoCommand(CLI::App& app)
{
    const auto a = std::make_shared<InfoArgs>();
    CLI::App* cmd = app.add_subcommand("info", "Library version, calibration summary and derived constants");
    AddCommon(cmd, a->common, "intrinsics");
    cmd->add_option("--format", a->format,
                    "text: a summary on the terminal; open3d or ros: the cameras' intrinsics as files in --out "
                    "(Open3D's PinholeCameraIntrinsic JSON, ROS camera_info YAML)")
        ->default_val("text")
        ->check(CLI::IsMember({"text", "open3d", "ros"}));
    cmd->add_option("recording", a->recording, "A recording (.mcap) to sum up instead");
    return {cmd, [a] {
                if (a->recording.empty())
                    return RunInfo(a->common, a->format);
                if (a->format != "text" || !a->common.calib.empty())
                    throw ToolError("a recording's summary takes neither --format nor --calib");
                return RecordingInfo(a->recording);
            }};
}

}  // namespace qvrecon
