// Depth: CalculateDepth in every stream, the IR image and the depth filters.
#include "bench_support.h"
#include "depth/edge_filter.h"
#include "depth/dual_freq.h"
#include "depth/single_freq.h"
#include "registration/register_fast.h"
#include "qvreconstruction/depth_filters.h"

namespace {

using namespace qvapi;
using qvbench::Scene;

struct DepthCase {
    StreamType stream;
    bool binned, filter;
};

// The public operation as callers run it: with the fast paths, or with the plain
// scalar kernels the tests compare against.
void Run(benchmark::State& state, DepthCase c, bool fast)
{
    Scene s(c.stream, c.binned);
    s.r->OpenFilter(c.filter);
    qvapi::SetFastPathsEnabled(fast);
    for (auto _ : state) {
        s.r->m_amplitudeThreshold = 5;  // binned frames halve it on every frame
        uint16_t* depth = nullptr;
        s.r->CalculateDepth(s.cap.raw.data(), &depth, s.cap.width, s.cap.height);
        benchmark::DoNotOptimize(depth);
        delete[] depth;
    }
}
void Fast(benchmark::State& state, DepthCase c) { Run(state, c, true); }
void Reference(benchmark::State& state, DepthCase c) { Run(state, c, false); }

void StreamReadCapture(benchmark::State& state, DepthCase c)
{
    Scene s(c.stream, c.binned);
    qvbench::StreamRead(state, s.cap.raw.data(), s.cap.raw.size() * 2);
}

#define QV_DEPTH_CASE(name, ...)                                                                   \
    BENCHMARK_CAPTURE(Fast, name, DepthCase{__VA_ARGS__})->Name(#name "/fast")->Unit(benchmark::kMillisecond); \
    BENCHMARK_CAPTURE(Reference, name, DepthCase{__VA_ARGS__})->Name(#name "/reference")->Unit(benchmark::kMillisecond); \
    BENCHMARK_CAPTURE(StreamReadCapture, name, DepthCase{__VA_ARGS__})->Name(#name "/stream_read")->Unit(benchmark::kMillisecond);

QV_DEPTH_CASE(CalculateDepth_dual_filtered, STREAM_DUAL_FREQ, false, true)
QV_DEPTH_CASE(CalculateDepth_dual_unfiltered, STREAM_DUAL_FREQ, false, false)
QV_DEPTH_CASE(CalculateDepth_binned_filtered, STREAM_DUAL_FREQ, true, true)
QV_DEPTH_CASE(CalculateDepth_single_filtered, STREAM_SINGLE_FREQ, false, true)
QV_DEPTH_CASE(CalculateDepth_single_unfiltered, STREAM_SINGLE_FREQ, false, false)

void GetIRRun(benchmark::State& state, bool fast)
{
    Scene s(STREAM_DUAL_FREQ, false);
    qvapi::SetFastPathsEnabled(fast);
    std::vector<uint16_t> ir(640 * 480);
    for (auto _ : state) {
        s.r->GetIR(s.cap.raw.data(), ir.data(), 640, 480);
        benchmark::DoNotOptimize(ir.data());
    }
}
void GetIRStream(benchmark::State& state)
{
    Scene s(STREAM_DUAL_FREQ, false);
    qvbench::StreamRead(state, s.cap.raw.data(), 4 * 640 * 480 * 2);  // the first block only
}
BENCHMARK_CAPTURE(GetIRRun, fast, true)->Name("GetIR/fast")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(GetIRRun, reference, false)->Name("GetIR/reference")->Unit(benchmark::kMillisecond);
BENCHMARK(GetIRStream)->Name("GetIR/stream_read")->Unit(benchmark::kMillisecond);

// A depth filter on a fresh copy of a filtered frame each time (the copy is not timed).
template <typename Filter>
void RunFilter(benchmark::State& state, Filter filter)
{
    Scene s(STREAM_DUAL_FREQ, false);
    const std::vector<uint16_t> input = s.Depth();
    std::vector<uint16_t> img(input.size());
    for (auto _ : state) {
        state.PauseTiming();
        img = input;
        state.ResumeTiming();
        filter(img.data());
        benchmark::DoNotOptimize(img.data());
    }
}
void DepthStream(benchmark::State& state)
{
    Scene s(STREAM_DUAL_FREQ, false);
    const std::vector<uint16_t> input = s.Depth();
    qvbench::StreamRead(state, input.data(), input.size() * 2);
}

#define QV_FILTER(name, kind, call)                                                                 \
    void name##_##kind(benchmark::State& state) { RunFilter(state, [](uint16_t* d) { call; }); } \
    BENCHMARK(name##_##kind)->Name(#name "/" #kind)->Unit(benchmark::kMillisecond);

QV_FILTER(EdgeFilter, fast, EdgeFilterFast(d, 640, 480))
QV_FILTER(EdgeFilter, reference, EdgeFilterPlain(d, 640, 480))
QV_FILTER(EdgeFilterMad, fast, qvapi::EdgeFilterMad(d, 640, 480, 15))
QV_FILTER(OkadaFilter, fast, qvapi::OkadaFilter(d, 640, 480))
QV_FILTER(SpeckleFilter, fast, qvapi::SpeckleFilter(d, 640, 480, 100, 30))
BENCHMARK(DepthStream)->Name("EdgeFilter/stream_read")->Unit(benchmark::kMillisecond);
BENCHMARK(DepthStream)->Name("EdgeFilterMad/stream_read")->Unit(benchmark::kMillisecond);
BENCHMARK(DepthStream)->Name("OkadaFilter/stream_read")->Unit(benchmark::kMillisecond);
BENCHMARK(DepthStream)->Name("SpeckleFilter/stream_read")->Unit(benchmark::kMillisecond);

}  // namespace
