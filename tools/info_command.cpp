// qvrecon info: the library's version and a summary of the calibration, or the
// cameras' intrinsics as Open3D or ROS files.
#include <cmath>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

#include "command_line.h"
#include "output_files.h"
#include "pipeline.h"

namespace qvrecon {
namespace {

struct InfoArgs {
    Common common;
    std::string format = "text";
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
    qvapi::Intrinsics binned = cal.full.depthLens;
    binned.width /= 2;
    binned.height /= 2;
    binned.fx /= 2;
    binned.fy /= 2;
    binned.cx /= 2;
    binned.cy /= 2;
    std::vector<std::pair<std::string, qvapi::Intrinsics>> cameras = {
        {"depth", cal.full.depthLens}, {"depth_binned", binned}, {"depth_single", cal.binned.depthLens}};
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
    return {cmd, [a] { return RunInfo(a->common, a->format); }};
}

}  // namespace qvrecon
