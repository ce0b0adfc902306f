// qvrecon register: a depth image registered onto an NV12 colour frame, with the
// colour image and an overlay.
#include <cstdio>
#include <memory>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "command_line.h"
#include "output_files.h"
#include "pipeline.h"

namespace qvrecon {
namespace {

// A depth PNG of 640 x 480 16-bit pixels is at most a few megabytes, even uncompressed.
constexpr uint64_t kMaxDepthPngBytes = 64u << 20;

struct RegisterArgs {
    Common common;
    std::string depth, nv12;
    std::vector<int> range = {300, 4500};
};

int RunRegister(const RegisterArgs& a)
{
    const ModuleCalibration cal = LoadCalibration(a.common);
    if (a.range.size() != 2 || a.range[0] >= a.range[1])
        throw ToolError("--range takes two distances in mm, the smaller first");
    const std::vector<uint8_t> png = ReadFile(a.depth, kMaxDepthPngBytes);
    const cv::Mat depth = png.empty() ? cv::Mat() : cv::imdecode(png, cv::IMREAD_UNCHANGED);
    if (depth.empty() || depth.type() != CV_16UC1 || depth.cols != 640 || depth.rows != 480)
        throw ToolError(a.depth + ": expected a 16-bit 640x480 depth PNG");
    std::vector<uint8_t> nv12 = ReadFile(a.nv12, 1920u * 1080u * 3u / 2u);
    if (nv12.size() != 1920u * 1080u * 3u / 2u)
        throw ToolError(a.nv12 + ": " + std::to_string(nv12.size()) + " bytes, an NV12 1920x1080 frame has " +
                        std::to_string(1920 * 1080 * 3 / 2));
    if (cal.full.rgbLens.fx == 0.0f)
        std::fprintf(stderr, "qvrecon: the calibration has no colour lens; the factory geometry is used\n");
    EnsureFolder(a.common.out);

    qvapi::Reconstruction& lib = Configure(cal, static_cast<qvapi::DeviceType>(a.common.device), StreamKind::Dual);
    const Registration r = Register(lib, depth, nv12);
    const cv::Mat& registered = r.depth;
    const cv::Mat& bgr = r.colourBgr;
    WritePng(In(a.common.out, "registered_depth.png"), registered);
    WritePng(In(a.common.out, "colour.png"), bgr);
    WritePng(In(a.common.out, "overlay.png"), Overlay(lib, bgr, registered, a.range[0], a.range[1]));
    std::printf("registered %s onto %s: %d of %d colour pixels with depth; outputs in %s\n", a.depth.c_str(),
                a.nv12.c_str(), cv::countNonZero(registered), registered.cols * registered.rows, a.common.out.c_str());
    return 0;
}

}  // namespace

Command AddRegisterCommand(CLI::App& app)
{
    const auto a = std::make_shared<RegisterArgs>();
    CLI::App* cmd = app.add_subcommand("register", "Register a depth image onto an NV12 colour frame");
    AddCommon(cmd, a->common, "registered");
    cmd->add_option("depth", a->depth, "16-bit 640x480 depth PNG")->required();
    cmd->add_option("nv12", a->nv12, "1920x1080 NV12 colour frame")->required();
    cmd->add_option("--range", a->range, "Distance range of the overlay colours, mm")
        ->expected(2)
        ->default_str("300 4500")
        ->check(CLI::Range(0, 65535));
    return {cmd, [a] { return RunRegister(*a); }};
}

}  // namespace qvrecon
