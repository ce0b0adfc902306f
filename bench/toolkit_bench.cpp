// The toolkit's bilateral filters on a 640 x 480 depth image.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "qvreconstruction/filter_module.h"

namespace {

std::vector<unsigned short> NoisyDepth()
{
    std::vector<unsigned short> img(640 * 480);
    std::mt19937 rng(5);
    std::normal_distribution<double> noise(0.0, 8.0);
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x)
            img[y * 640 + x] = static_cast<unsigned short>((x < 320 ? 1500 : 2300) + y + noise(rng));
    return img;
}

void BM_BilateralFiter(benchmark::State& state)
{
    const std::vector<unsigned short> input = NoisyDepth();
    qvapi::filter_module f;
    std::vector<unsigned short> img;
    for (auto _ : state) {
        img = input;
        f.BilateralFiter(img.data(), 640, 480);
        benchmark::DoNotOptimize(img.data());
    }
}
BENCHMARK(BM_BilateralFiter)->Name("BilateralFiter/fast")->Unit(benchmark::kMillisecond);

void BM_Bilateral_Filter(benchmark::State& state)
{
    const std::vector<unsigned short> input = NoisyDepth();
    qvapi::filter_module f;
    std::vector<unsigned short> img;
    const int r = static_cast<int>(state.range(0));
    for (auto _ : state) {
        img = input;
        f.Bilateral_Filter(img.data(), r, 2.0, 30.0, 640, 480);
        benchmark::DoNotOptimize(img.data());
    }
}
BENCHMARK(BM_Bilateral_Filter)->Name("Bilateral_Filter_r2/fast")->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Bilateral_Filter)->Name("Bilateral_Filter_r4/fast")->Arg(4)->Unit(benchmark::kMillisecond);

}  // namespace
