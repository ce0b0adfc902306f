// Point clouds, false colour and depth-to-colour registration at their real sizes.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

struct Scene {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    std::vector<uint16_t> depth;
    std::vector<uint8_t> nv12;

    explicit Scene(bool colour)
    {
        r->SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
        const auto cal = qvsim::SampleCalibration();
        r->Init(qvsim::SampleBinnedCalibration(), cal);
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        const qvsim::Capture cap = qvsim::SimulateCapture(cal, scene, qvsim::CaptureSpec{});
        uint16_t* d = nullptr;
        r->CalculateDepth(cap.raw.data(), &d, 640, 480);
        depth.assign(d, d + 640 * 480);
        delete[] d;
        if (colour)
            nv12 = qvsim::RenderColour(cal, scene).nv12;
    }
};

void BM_GetCloudPoint(benchmark::State& state)
{
    Scene s(false);
    std::vector<float> cloud(3 * 640 * 480);
    for (auto _ : state) {
        s.r->GetCloudPoint(s.depth.data(), cloud.data(), 640, 480);
        benchmark::DoNotOptimize(cloud.data());
    }
    state.SetBytesProcessed(state.iterations() * 640 * 480 * 2);
}
BENCHMARK(BM_GetCloudPoint)->Unit(benchmark::kMicrosecond);

void BM_Convert2RGB(benchmark::State& state)
{
    Scene s(false);
    s.r->SetCustomDistanceRange(300, 4000);
    for (auto _ : state) {
        uint8_t* rgb = nullptr;
        s.r->Convert2RGB(&rgb, s.depth.data(), 640, 480);
        benchmark::DoNotOptimize(rgb);
        delete[] rgb;
    }
    state.SetBytesProcessed(state.iterations() * 640 * 480 * 2);
}
BENCHMARK(BM_Convert2RGB)->Unit(benchmark::kMicrosecond);

void BM_MapDepthToRGB(benchmark::State& state)
{
    Scene s(true);
    for (auto _ : state) {
        state.PauseTiming();
        uint16_t* depth = new uint16_t[640 * 480];
        std::copy(s.depth.begin(), s.depth.end(), depth);
        state.ResumeTiming();
        uint8_t* colour = nullptr;
        int w = 0, h = 0;
        s.r->MapDepthToRGB(&colour, &depth, s.nv12.data(), 1920, 1080, w, h);
        benchmark::DoNotOptimize(colour);
        delete[] colour;
        delete[] depth;
    }
}
BENCHMARK(BM_MapDepthToRGB)->Unit(benchmark::kMillisecond);

}  // namespace
