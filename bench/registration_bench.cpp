// Point clouds, false colour and registration onto the colour camera.
#include "bench_support.h"

#include <cstring>

#if defined(QV_BENCH_WITH_RGBD)
#include <opencv2/rgbd.hpp>

#include "registration/map_depth_to_rgb.h"
#endif

namespace {

using namespace qvapi;
using qvbench::Scene;

void GetCloudPointRun(benchmark::State& state, bool fast)
{
    Scene s(STREAM_DUAL_FREQ, false);
    qvapi::SetFastPathsEnabled(fast);
    const std::vector<uint16_t> depth = s.Depth();
    std::vector<float> cloud(3 * depth.size());
    for (auto _ : state) {
        s.r->GetCloudPoint(depth.data(), cloud.data(), 640, 480);
        benchmark::DoNotOptimize(cloud.data());
    }
}

void Convert2RGBRun(benchmark::State& state, bool fast)
{
    Scene s(STREAM_DUAL_FREQ, false);
    qvapi::SetFastPathsEnabled(fast);
    const std::vector<uint16_t> depth = s.Depth();
    s.r->SetCustomDistanceRange(300, 4000);
    for (auto _ : state) {
        uint8_t* rgb = nullptr;
        s.r->Convert2RGB(&rgb, const_cast<uint16_t*>(depth.data()), 640, 480);
        benchmark::DoNotOptimize(rgb);
        delete[] rgb;
    }
}

void DepthStream(benchmark::State& state)
{
    Scene s(STREAM_DUAL_FREQ, false);
    const std::vector<uint16_t> depth = s.Depth();
    qvbench::StreamRead(state, depth.data(), depth.size() * 2);
}

// What GetCloudPoint reads: the depth frame and the two ray tables, one after the other.
void CloudStream(benchmark::State& state)
{
    Scene s(STREAM_DUAL_FREQ, false);
    const std::vector<uint16_t> depth = s.Depth();
    const size_t n = depth.size();
    std::vector<uint8_t> input(2 * n + 2 * sizeof(float) * n);
    std::memcpy(input.data(), depth.data(), 2 * n);
    std::memcpy(input.data() + 2 * n, s.r->m_rectifyMapX.get(), sizeof(float) * n);
    std::memcpy(input.data() + 2 * n + sizeof(float) * n, s.r->m_rectifyMapY.get(), sizeof(float) * n);
    qvbench::StreamRead(state, input.data(), input.size());
}

struct Registration {
    Scene s{STREAM_DUAL_FREQ, false};
    std::vector<uint16_t> depth = s.Depth();
    std::vector<uint8_t> nv12 = qvsim::RenderColour(s.r->m_secondParam, [] {
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        return scene;
    }()).nv12;
};

void MapDepthToRGBRun(benchmark::State& state, bool fast)
{
    Registration g;
    qvapi::SetFastPathsEnabled(fast);
    for (auto _ : state) {
        state.PauseTiming();
        uint16_t* depth = new uint16_t[g.depth.size()];
        std::copy(g.depth.begin(), g.depth.end(), depth);
        state.ResumeTiming();
        uint8_t* colour = nullptr;
        int w = 0, h = 0;
        g.s.r->MapDepthToRGB(&colour, &depth, g.nv12.data(), 1920, 1080, w, h);
        benchmark::DoNotOptimize(colour);
        delete[] colour;
        delete[] depth;
    }
}

void MapDepthToRGBStream(benchmark::State& state)
{
    Registration g;
    std::vector<uint8_t> input(g.nv12);
    input.insert(input.end(), reinterpret_cast<const uint8_t*>(g.depth.data()),
                 reinterpret_cast<const uint8_t*>(g.depth.data() + g.depth.size()));
    qvbench::StreamRead(state, input.data(), input.size());
}

#if defined(QV_BENCH_WITH_RGBD)
// OpenCV's own depth registration (contrib rgbd) of the same frame with the same
// calibration onto the 1920 x 1080 colour camera, with its hole-closing dilation.
void RegisterDepthOpenCv(benchmark::State& state)
{
    Registration g;
    const CameraCalibrationParam& p = g.s.r->m_secondParam;
    const RegistrationParams rp = MakeRegistrationParams(p);
    const Intrinsics& d = p.depthLens;
    const cv::Matx33f depthCamera(d.fx, 0, d.cx, 0, d.fy, d.cy, 0, 0, 1);
    const cv::Matx33f colourCamera(rp.fx, 0, rp.cx, 0, rp.fy, rp.cy, 0, 0, 1);
    const Intrinsics& c = p.rgbLens;
    const cv::Matx<float, 5, 1> colourDistortion(c.k1, c.k2, c.p1, c.p2, c.k3);
    // Depth in millimetres is taken in metres: the translation too.
    cv::Matx44f rt = cv::Matx44f::eye();
    for (int k = 0; k < 9; ++k)
        rt(k / 3, k % 3) = rp.R[k];
    for (int k = 0; k < 3; ++k)
        rt(k, 3) = rp.t[k] / 1000.0f;
    const cv::Mat depth(480, 640, CV_16UC1, g.depth.data());
    cv::Mat registered;
    for (auto _ : state) {
        cv::rgbd::registerDepth(depthCamera, colourCamera, colourDistortion, rt, depth,
                                cv::Size(1920, 1080), registered, true);
        benchmark::DoNotOptimize(registered.data);
    }
}
#endif

#define QV_OPERATION(name, run)                                                                     \
    BENCHMARK_CAPTURE(run, fast, true)->Name(#name "/fast")->Unit(benchmark::kMillisecond);         \
    BENCHMARK_CAPTURE(run, reference, false)->Name(#name "/reference")->Unit(benchmark::kMillisecond);

QV_OPERATION(GetCloudPoint, GetCloudPointRun)
QV_OPERATION(Convert2RGB, Convert2RGBRun)
QV_OPERATION(MapDepthToRGB, MapDepthToRGBRun)
BENCHMARK(CloudStream)->Name("GetCloudPoint/stream_read")->Unit(benchmark::kMillisecond);
BENCHMARK(DepthStream)->Name("Convert2RGB/stream_read")->Unit(benchmark::kMillisecond);
BENCHMARK(MapDepthToRGBStream)->Name("MapDepthToRGB/stream_read")->Unit(benchmark::kMillisecond);
#if defined(QV_BENCH_WITH_RGBD)
BENCHMARK(RegisterDepthOpenCv)->Name("MapDepthToRGB/opencv_registerDepth")->Unit(benchmark::kMillisecond);
#endif

}  // namespace
