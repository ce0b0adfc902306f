#include "demo.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <filesystem>
#include <functional>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "calibration_file.h"
#include "output_files.h"
#include "pipeline.h"
#include "simulator.h"

namespace qvrecon {
namespace {

struct Timings {
    std::vector<std::pair<std::string, double>> rows;

    // Runs f `runs` times and records the median time in milliseconds (the first call
    // of an operation pays for OpenCV's one-time set-up); returns the last result.
    template <typename F>
    auto Time(const std::string& stage, F&& f, int runs = 1) -> decltype(f())
    {
        std::vector<double> times;
        for (int k = 1; k < runs; ++k) {
            const auto start = std::chrono::steady_clock::now();
            f();
            times.push_back(Since(start));
        }
        const auto start = std::chrono::steady_clock::now();
        if constexpr (std::is_void_v<decltype(f())>) {
            f();
            Record(stage, times, Since(start));
        } else {
            decltype(auto) result = f();
            Record(stage, times, Since(start));
            return result;
        }
    }
    void Record(const std::string& stage, std::vector<double>& times, double last)
    {
        times.push_back(last);
        std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
        rows.emplace_back(stage, times[times.size() / 2]);
    }
    static double Since(std::chrono::steady_clock::time_point start)
    {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    }
};

struct Accuracy {
    size_t withDepth = 0, checked = 0;
    double median = 0, worst = 0;
};

// Compares the depth with the scene's truth on the pixels the simulator marks
// valid, away from the rows the pipeline leaves empty.
Accuracy Measure(const cv::Mat& depth, const qvsim::Capture& cap)
{
    Accuracy a;
    std::vector<double> errors;
    for (int r = 0; r < cap.height; ++r)
        for (int c = 0; c < cap.width; ++c) {
            const size_t i = static_cast<size_t>(r) * cap.width + c;
            const uint16_t d = depth.at<uint16_t>(r, c);
            a.withDepth += d > 1;
            if (cap.label[i] != qvsim::kValid || r < 2 || r >= cap.height - 2 || d <= 1)
                continue;
            errors.push_back(std::fabs(d - cap.truthZ[i]));
        }
    a.checked = errors.size();
    if (!errors.empty()) {
        std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
        a.median = errors[errors.size() / 2];
        a.worst = *std::max_element(errors.begin(), errors.end());
    }
    return a;
}

cv::Mat TakeDepth(uint16_t* d, int w, int h)
{
    cv::Mat m = cv::Mat(h, w, CV_16UC1, d).clone();
    delete[] d;
    return m;
}

}  // namespace

int RunDemo(const DemoArgs& args)
{
    namespace fs = std::filesystem;
    const ModuleCalibration cal = args.calib.empty() ? SampleModule() : ReadCalibration(args.calib);
    EnsureFolder(args.out);
    const auto out = [&](const std::string& name) { return (fs::path(args.out) / name).string(); };
    Timings t;

    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    scene.distanceMm = 2200;
    qvsim::CaptureSpec setup;
    setup.noiseSigma = 0.5;
    setup.temperatureC = 38;

    // Full stream: depth, IR, points, false colour, registration.
    const qvsim::Capture dual = t.Time("simulate dual-frequency capture", [&] {
        return qvsim::SimulateCapture(cal.full, scene, setup);
    });
    qvapi::Reconstruction& lib = t.Time("Init (full stream)", [&]() -> qvapi::Reconstruction& {
        return Configure(cal, qvapi::DEVICE_GENERIC, StreamKind::Dual);
    });
    constexpr int kRuns = 5;  // library stages: the median of five calls
    const cv::Mat depth = t.Time("CalculateDepth 640x480, filters on", [&] {
        uint16_t* d = nullptr;
        if (lib.CalculateDepth(dual.raw.data(), &d, 640, 480) != qvapi::STATUS_OK)
            throw ToolError("depth of the simulated capture failed");
        return TakeDepth(d, 640, 480);
    }, kRuns);
    std::vector<uint16_t> ir(640 * 480);
    t.Time("GetIR", [&] { lib.GetIR(dual.raw.data(), ir.data(), 640, 480); }, kRuns);
    std::vector<float> cloud(3 * 640 * 480);
    t.Time("GetCloudPoint", [&] {
        lib.GetCloudPoint(reinterpret_cast<const uint16_t*>(depth.data), cloud.data(), 640, 480);
    }, kRuns);
    const cv::Mat painted = t.Time("Convert2RGB and legend", [&] { return FalseColourWithLegend(lib, depth, 1200, 2400); }, kRuns);
    const qvsim::ColourFrame colour = t.Time("simulate colour frame", [&] { return qvsim::RenderColour(cal.full, scene); });
    cv::Mat registered, undistorted;
    t.Time("MapDepthToRGB 1920x1080", [&] {
        uint16_t* d = new uint16_t[640 * 480];
        std::memcpy(d, depth.data, 640 * 480 * 2);
        uint8_t* rgb = nullptr;
        int w = 0, h = 0;
        std::vector<uint8_t> nv12 = colour.nv12;
        if (lib.MapDepthToRGB(&rgb, &d, nv12.data(), 1920, 1080, w, h) != qvapi::STATUS_OK) {
            delete[] d;
            throw ToolError("registration of the simulated frame failed");
        }
        registered = TakeDepth(d, w, h);
        undistorted = cv::Mat(h, w, CV_8UC3, rgb).clone();
        delete[] rgb;
    }, kRuns);

    // Reduced stream: the same scene, single frequency.
    qvsim::CaptureSpec single = setup;
    single.stream = qvapi::STREAM_SINGLE_FREQ;
    const qvsim::Capture small = t.Time("simulate single-frequency capture", [&] {
        return qvsim::SimulateCapture(cal.binned, scene, single);
    });
    qvapi::Reconstruction& lib5 = t.Time("Init (reduced stream)", [&]() -> qvapi::Reconstruction& {
        return Configure(cal, qvapi::DEVICE_GENERIC, StreamKind::Single);
    });
    const cv::Mat depth5 = t.Time("CalculateDepth 320x240, filters on", [&] {
        uint16_t* d = nullptr;
        if (lib5.CalculateDepth(small.raw.data(), &d, 320, 240) != qvapi::STATUS_OK)
            throw ToolError("depth of the simulated single-frequency capture failed");
        return TakeDepth(d, 320, 240);
    }, kRuns);

    // Pictures and files.
    cv::Mat truth(480, 640, CV_16UC1);
    for (int i = 0; i < 640 * 480; ++i)
        truth.at<uint16_t>(i) = static_cast<uint16_t>(std::lround(dual.truthZ[i]));
    cv::Mat raw(1080 * 3 / 2, 1920, CV_8UC1, const_cast<uint8_t*>(colour.nv12.data())), rawBgr;
    cv::cvtColor(raw, rawBgr, cv::COLOR_YUV2BGR_NV12);
    WritePng(out("truth_depth.png"), truth);
    WritePng(out("dual_depth.png"), depth);
    WritePng(out("dual_colour.png"), painted);
    WritePng(out("dual_ir.png"), IrPicture(ir, 640, 480));
    WritePointCloud(out("dual.ply"), cloud, 640, 480);
    WritePng(out("single_depth.png"), depth5);
    WritePng(out("single_colour.png"), FalseColourWithLegend(lib5, depth5, 1200, 2400));
    WritePng(out("colour_raw.png"), rawBgr);
    WritePng(out("colour_undistorted.png"), undistorted);
    WritePng(out("registered_depth.png"), registered);
    WritePng(out("registered_overlay.png"), Overlay(lib5, undistorted, registered, 1200, 2400));

    std::printf("qvrecon demo: boxes in front of a wall at %.0f mm, sensor at %.0f C, noise %.1f\n\n",
                scene.distanceMm, setup.temperatureC, setup.noiseSigma);
    std::printf("%-22s %12s %10s %14s %12s\n", "depth", "with depth", "checked", "median error", "worst error");
    for (const auto& [name, d, cap] : {std::tuple<const char*, const cv::Mat&, const qvsim::Capture&>{"dual 640x480", depth, dual},
                                       {"single 320x240", depth5, small}}) {
        const Accuracy a = Measure(d, cap);
        std::printf("%-22s %11.1f%% %10zu %11.1f mm %9.1f mm\n", name, 100.0 * a.withDepth / d.total(), a.checked,
                    a.median, a.worst);
    }
    std::printf("\n%-40s %10s\n", "stage", "time");
    for (const auto& [stage, ms] : t.rows)
        std::printf("%-40s %7.2f ms\n", stage.c_str(), ms);
    std::printf("\npictures and point cloud in %s/\n", args.out.c_str());
    return 0;
}

}  // namespace qvrecon
