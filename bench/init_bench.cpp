// Init: tables, maps and registration geometry built from a calibration.
#include <benchmark/benchmark.h>

#include "reconstruction_impl.h"
#include "sample_calibration.h"

namespace {

using namespace qvapi;

void BM_Init(benchmark::State& state)
{
    ReconstructionImpl r;
    r.SetType(static_cast<DeviceType>(state.range(0)), static_cast<StreamType>(state.range(1)));
    const CameraCalibrationParam first = qvsim::SampleBinnedCalibration();
    const CameraCalibrationParam second = qvsim::SampleCalibration();
    for (auto _ : state)
        benchmark::DoNotOptimize(r.Init(first, second));
}
BENCHMARK(BM_Init)->Name("Init_full_stream/fast")->Args({0, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Init)->Name("Init_full_stream_device4/fast")->Args({4, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Init)->Name("Init_reduced_stream/fast")->Args({0, 5})->Unit(benchmark::kMillisecond);

}  // namespace
