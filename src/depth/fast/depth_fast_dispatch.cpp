// Chooses the instruction set of the fast depth kernels and checks what they can serve.
#include <cmath>
#include <cstdlib>
#include <string>
#include <cstring>
#include <vector>

#include "depth/edge_filter.h"
#include "depth/fast/depth_fast.h"
#include "depth/temperature.h"

namespace qvapi {

// The per-instruction-set kernels of depth_fast.cpp.
#define QV_DECLARE_KERNELS(ns)                                                                   \
    namespace ns {                                                                               \
    void DualFreqDepthRows(const uint16_t* raw, uint16_t* depth, int width, int height,          \
                           const DualFreqParams& p, const float* fppn1, const float* fppn2,      \
                           const float* radialToZ, float comp1, float comp2, float minEnergy,    \
                           float* scratch, DualFreqLast& last);                                  \
    void SingleFreqDepthFrame(const uint16_t* raw, uint16_t* depth, int width, int height,       \
                              const SingleFreqParams& p, const float* fppnOffset,                \
                              const float* radialToZ, float halfRangeMinusComp,                  \
                              float minEnergy);                                                  \
    bool EdgeFilterRows(uint16_t* depth, int width, int height);                                 \
    }
QV_DECLARE_KERNELS(baseline)
#if defined(QV_HAVE_AVX2_KERNELS)
QV_DECLARE_KERNELS(avx2)
#endif

namespace {

constexpr int64_t kExactFloatEnergy = int64_t(1) << 24;

// AVX2 with FMA when the processor has it, unless the environment variable
// QV_KERNELS is "baseline" (to compare the two on one machine).
bool UseAvx2()
{
#if defined(QV_HAVE_AVX2_KERNELS)
    static const bool avx2 = [] {
        const char* choice = std::getenv("QV_KERNELS");
        if (choice != nullptr && std::string(choice) == "baseline")
            return false;
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    }();
    return avx2;
#else
    return false;
#endif
}

// The amplitude test of the scalar kernels for an energy I^2 + Q^2.
bool Strong(int64_t energy, float threshold)
{
    const float amplitude =
        static_cast<float>(std::sqrt(static_cast<float>(energy)) * 1.5707963265);
    return !(threshold > amplitude);
}

}  // namespace

int64_t MinValidEnergy(int32_t amplitudeThreshold)
{
    const float threshold = static_cast<float>(amplitudeThreshold);
    int64_t lo = 0, hi = int64_t(1) << 40;
    if (Strong(lo, threshold))
        return 0;
    if (!Strong(hi, threshold))
        return INT64_MAX;
    while (hi - lo > 1) {  // Strong(hi) and not Strong(lo)
        const int64_t mid = lo + (hi - lo) / 2;
        (Strong(mid, threshold) ? hi : lo) = mid;
    }
    return hi;
}

bool FastPathsEnabled()
{
#if defined(QV_FORCE_SCALAR)
    return false;
#else
    return true;
#endif
}

const char* FastPathName()
{
    if (!FastPathsEnabled())
        return "scalar";
    return UseAvx2() ? "avx2" : "baseline";
}

bool FastDualFreqApplies(const DualFreqParams& p)
{
    return p.frequency1 != p.frequency2 && p.flipMode >= 0 && p.flipMode <= 3 &&
           (p.binning == 1 || p.binning == 2) && MinValidEnergy(p.amplitudeThreshold) <= kExactFloatEnergy;
}

bool FastSingleFreqApplies(const SingleFreqParams& p, int width, int invalidStride)
{
    return invalidStride == width && MinValidEnergy(p.amplitudeThreshold) <= kExactFloatEnergy;
}

void DualFreqDepthFast(const uint16_t* raw, uint16_t* depth, int width, int height,
                       const DualFreqParams& p, const float* fppn1, const float* fppn2,
                       const float* radialToZ, DualFreqLast& last)
{
    float comp1, comp2;
    if (!DualFreqPrepare(raw, depth, width, height, p, comp1, comp2))
        return;
    const float minEnergy = static_cast<float>(MinValidEnergy(p.amplitudeThreshold));
    // Row scratch of the kernels: 13 rows of floats (bytes rows take a float row each).
    std::vector<float> scratch(13 * static_cast<size_t>(width));
    const auto rows = UseAvx2() ?
#if defined(QV_HAVE_AVX2_KERNELS)
                                avx2::DualFreqDepthRows
#else
                                baseline::DualFreqDepthRows
#endif
                                : baseline::DualFreqDepthRows;
    rows(raw, depth, width, height, p, fppn1, fppn2, radialToZ, comp1, comp2, minEnergy, scratch.data(),
         last);
}

void SingleFreqDepthFast(const uint16_t* raw, uint16_t* depth, int width, int height,
                         const SingleFreqParams& p, const float* fppnOffset, const float* radialToZ)
{
    float comp = 0.0f;
    if (p.temperatureCompensation)
        comp = SingleFreqDrift(SensorTemperature(raw)) * p.phaseToMm;
    if (height < 1)
        return;
    const float half = static_cast<float>(p.rangeMm * 0.5 - comp);
    const float minEnergy = static_cast<float>(MinValidEnergy(p.amplitudeThreshold));
#if defined(QV_HAVE_AVX2_KERNELS)
    if (UseAvx2())
        return avx2::SingleFreqDepthFrame(raw, depth, width, height, p, fppnOffset, radialToZ, half, minEnergy);
#endif
    baseline::SingleFreqDepthFrame(raw, depth, width, height, p, fppnOffset, radialToZ, half, minEnergy);
}

void EdgeFilterFast(uint16_t* depth, int width, int height)
{
    if (depth == nullptr || width <= 0 || height <= 2)
        return EdgeFilter(depth, width, height);
#if defined(QV_HAVE_AVX2_KERNELS)
    const bool done = UseAvx2() ? avx2::EdgeFilterRows(depth, width, height)
                                : baseline::EdgeFilterRows(depth, width, height);
#else
    const bool done = baseline::EdgeFilterRows(depth, width, height);
#endif
    if (!done)
        EdgeFilter(depth, width, height);
}

}  // namespace qvapi
