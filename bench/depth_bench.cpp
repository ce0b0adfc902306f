// Per-frame depth operations at their real sizes, on simulated captures.
#include <benchmark/benchmark.h>

#include <memory>

#include "depth/edge_filter.h"
#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

struct Setup {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    qvsim::Capture cap;

    Setup(StreamType stream, bool binned)
    {
        r->SetType(DEVICE_GENERIC, stream);
        const auto small = qvsim::SampleBinnedCalibration();
        r->Init(small, stream == STREAM_SINGLE_FREQ ? small : qvsim::SampleCalibration());
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        qvsim::CaptureSpec setup;
        setup.stream = stream;
        setup.binned = binned;
        setup.noiseSigma = 1.0;
        cap = qvsim::SimulateCapture(r->m_secondParam, scene, setup);
    }
};

// Arguments: stream type, binned frames, filter switch.
void BM_CalculateDepth(benchmark::State& state)
{
    Setup s(static_cast<StreamType>(state.range(0)), state.range(1) != 0);
    s.r->OpenFilter(state.range(2) != 0);
    for (auto _ : state) {
        // Binned frames halve the threshold every frame; keep it at its default.
        s.r->m_amplitudeThreshold = 5;
        uint16_t* depth = nullptr;
        s.r->CalculateDepth(s.cap.raw.data(), &depth, s.cap.width, s.cap.height);
        benchmark::DoNotOptimize(depth);
        delete[] depth;
    }
    state.SetItemsProcessed(state.iterations() * s.cap.width * s.cap.height);
}
BENCHMARK(BM_CalculateDepth)
    ->ArgNames({"stream", "binned", "filter"})
    ->Args({0, 0, 1})
    ->Args({0, 0, 0})
    ->Args({0, 1, 1})
    ->Args({5, 0, 1})
    ->Args({5, 0, 0})
    ->Unit(benchmark::kMillisecond);

void BM_GetIR(benchmark::State& state)
{
    Setup s(STREAM_DUAL_FREQ, false);
    std::vector<uint16_t> ir(640 * 480);
    for (auto _ : state) {
        s.r->GetIR(s.cap.raw.data(), ir.data(), 640, 480);
        benchmark::DoNotOptimize(ir.data());
    }
    state.SetBytesProcessed(state.iterations() * 4 * 640 * 480 * 2);
}
BENCHMARK(BM_GetIR)->Unit(benchmark::kMicrosecond);

}  // namespace

namespace {

void BM_EdgeFilter(benchmark::State& state)
{
    Setup s(STREAM_DUAL_FREQ, false);
    s.r->OpenFilter(false);
    uint16_t* depth = nullptr;
    s.r->CalculateDepth(s.cap.raw.data(), &depth, 640, 480);
    std::vector<uint16_t> work(depth, depth + 640 * 480);
    delete[] depth;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<uint16_t> img = work;
        state.ResumeTiming();
        qvapi::EdgeFilter(img.data(), 640, 480);
        benchmark::DoNotOptimize(img.data());
    }
}
BENCHMARK(BM_EdgeFilter)->Unit(benchmark::kMicrosecond);

}  // namespace

namespace {

// The post-filters on a filtered depth frame of the boxes scene.
template <typename Filter>
void RunPostFilter(benchmark::State& state, Filter filter)
{
    Setup s(STREAM_DUAL_FREQ, false);
    uint16_t* depth = nullptr;
    s.r->CalculateDepth(s.cap.raw.data(), &depth, 640, 480);
    const std::vector<uint16_t> work(depth, depth + 640 * 480);
    delete[] depth;
    std::vector<uint16_t> img(work.size());
    for (auto _ : state) {
        state.PauseTiming();
        img = work;
        state.ResumeTiming();
        filter(img.data());
        benchmark::DoNotOptimize(img.data());
    }
}

void BM_EdgeFilterMad(benchmark::State& state)
{
    RunPostFilter(state, [](uint16_t* d) { qvapi::EdgeFilterMad(d, 640, 480, 15); });
}
void BM_OkadaFilter(benchmark::State& state)
{
    RunPostFilter(state, [](uint16_t* d) { qvapi::OkadaFilter(d, 640, 480); });
}
void BM_SpeckleFilter(benchmark::State& state)
{
    RunPostFilter(state, [](uint16_t* d) { qvapi::SpeckleFilter(d, 640, 480, 100, 30); });
}
BENCHMARK(BM_EdgeFilterMad)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OkadaFilter)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SpeckleFilter)->Unit(benchmark::kMicrosecond);

}  // namespace
