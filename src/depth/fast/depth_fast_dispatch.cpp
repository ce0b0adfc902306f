// Chooses the instruction set of the fast kernels and checks what they can serve.
#include <cmath>
#include <cstdlib>
#include <string>
#include <cstring>
#include <vector>

#include "depth/edge_filter.h"
#include "depth/fast/depth_fast.h"
#include "depth/temperature.h"
#include "registration/map_depth_to_rgb.h"

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
    void Median3x3InPlace(uint16_t* img, int width, int height, uint16_t* scratch);              \
    void Median5x5Rows(const uint16_t* src, size_t srcStep, uint16_t* dst, size_t dstStep,       \
                       int width, int height, uint16_t* scratch);                                \
    void ProjectRowKernel(const uint16_t* depth, const float* rayX, const float* rayY,           \
                          const RegistrationParams& p, int width, int height, int32_t* target,   \
                          int32_t* column);                                                      \
    void PointCloudSpanKernel(const uint16_t* depth, const float* rayX, const float* rayY,       \
                              int count, float* out);                                            \
    void FalseColourSpanKernel(const uint16_t* depth, size_t n, const FalseColourRamp& ramp,      \
                               uint8_t* rgb);                                                    \
    void InfraredRows(const uint16_t* raw, uint16_t* ir, int width, int height);                 \
    }
QV_DECLARE_KERNELS(baseline)
#if defined(QV_HAVE_AVX2_KERNELS)
QV_DECLARE_KERNELS(avx2)
#endif
#if defined(QV_HAVE_AVX512_KERNELS)
QV_DECLARE_KERNELS(avx512)
#endif

namespace {

constexpr int64_t kExactFloatEnergy = int64_t(1) << 24;

enum class KernelSet { Baseline, Avx2, Avx512 };

// The widest instruction set the processor has: AVX-512 (F, BW, DQ, VL) with 512-bit
// vectors, AVX2 with FMA, or the baseline. The environment variable QV_KERNELS
// ("baseline", "avx2") caps the choice, to compare them on one machine.
KernelSet Kernels()
{
    static const KernelSet chosen = [] {
        KernelSet best = KernelSet::Baseline;
#if defined(QV_HAVE_AVX2_KERNELS)
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"))
            best = KernelSet::Avx2;
#if defined(QV_HAVE_AVX512_KERNELS)
        if (best == KernelSet::Avx2 && __builtin_cpu_supports("avx512f") &&
            __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
            __builtin_cpu_supports("avx512vl"))
            best = KernelSet::Avx512;
#endif
#endif
        const char* cap = std::getenv("QV_KERNELS");
        if (cap != nullptr && std::string(cap) == "baseline")
            return KernelSet::Baseline;
        if (cap != nullptr && std::string(cap) == "avx2" && best == KernelSet::Avx512)
            return KernelSet::Avx2;
        return best;
    }();
    return chosen;
}

// Calls the kernel `name` of the chosen instruction set.
#if defined(QV_HAVE_AVX512_KERNELS)
#define QV_KERNEL(name)                                                                          \
    (Kernels() == KernelSet::Avx512 ? avx512::name                                             \
     : Kernels() == KernelSet::Avx2 ? avx2::name                                               \
                                    : baseline::name)
#elif defined(QV_HAVE_AVX2_KERNELS)
#define QV_KERNEL(name) (Kernels() == KernelSet::Avx2 ? avx2::name : baseline::name)
#else
#define QV_KERNEL(name) baseline::name
#endif

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
    switch (Kernels()) {
    case KernelSet::Avx512: return "avx512";
    case KernelSet::Avx2: return "avx2";
    default: return "baseline";
    }
}

bool FastDualFreqApplies(const DualFreqParams& p)
{
    // Ranges below 2^24 are exact in float, as the vector unwrapping needs.
    constexpr int32_t kExactFloatRange = 1 << 24;
    return p.frequency1 != p.frequency2 && p.flipMode >= 0 && p.flipMode <= 3 &&
           (p.binning == 1 || p.binning == 2) && MinValidEnergy(p.amplitudeThreshold) <= kExactFloatEnergy &&
           p.range1 > -kExactFloatRange && p.range1 < kExactFloatRange && p.range2 > -kExactFloatRange &&
           p.range2 < kExactFloatRange;
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
    // Row scratch of the kernels: 13 rows of 32-bit values (two of them integers).
    std::vector<float> scratch(13 * static_cast<size_t>(width));
    QV_KERNEL(DualFreqDepthRows)(raw, depth, width, height, p, fppn1, fppn2, radialToZ, comp1, comp2,
                                 minEnergy, scratch.data(), last);
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
    QV_KERNEL(SingleFreqDepthFrame)(raw, depth, width, height, p, fppnOffset, radialToZ, half, minEnergy);
}

void EdgeFilterFast(uint16_t* depth, int width, int height)
{
    if (depth == nullptr || width <= 0 || height <= 2)
        return EdgeFilter(depth, width, height);
    const bool done = QV_KERNEL(EdgeFilterRows)(depth, width, height);
    if (!done)
        EdgeFilter(depth, width, height);
}

void MedianBlur3x3InPlace(uint16_t* img, int width, int height)
{
    if (img == nullptr || width <= 0 || height <= 0)
        return;
    std::vector<uint16_t> scratch(4 * (static_cast<size_t>(width) + 2));
    QV_KERNEL(Median3x3InPlace)(img, width, height, scratch.data());
}

void MedianBlur5x5(const uint16_t* src, size_t srcStep, uint16_t* dst, size_t dstStep, int width,
                   int height)
{
    if (src == nullptr || dst == nullptr || width <= 0 || height <= 0)
        return;
    // Five sorted rows of the window's columns, two replicated columns on each side.
    std::vector<uint16_t> scratch(5 * (static_cast<size_t>(width) + 4));
    QV_KERNEL(Median5x5Rows)(src, srcStep, dst, dstStep, width, height, scratch.data());
}

void ProjectDepthRow(const uint16_t* depth, const float* rayX, const float* rayY,
                     const RegistrationParams& p, int width, int height, int32_t* target,
                     int32_t* column)
{
    QV_KERNEL(ProjectRowKernel)(depth, rayX, rayY, p, width, height, target, column);
}

void PointCloudSpan(const uint16_t* depth, const float* rayX, const float* rayY, int count, float* out)
{
    QV_KERNEL(PointCloudSpanKernel)(depth, rayX, rayY, count, out);
}

void FalseColourSpan(const uint16_t* depth, size_t n, const FalseColourRamp& ramp, uint8_t* rgb)
{
#if defined(QV_HAVE_AVX512_KERNELS)
    // The AVX-512 colouring interleaves its bytes with VBMI's byte permutes; AVX-512
    // processors without them take the AVX2 kernel.
    static const bool vbmi = (__builtin_cpu_init(), __builtin_cpu_supports("avx512vbmi"));
    if (Kernels() == KernelSet::Avx512 && !vbmi) {
        avx2::FalseColourSpanKernel(depth, n, ramp, rgb);
        return;
    }
#endif
    QV_KERNEL(FalseColourSpanKernel)(depth, n, ramp, rgb);
}

void InfraredImageFast(const uint16_t* raw, uint16_t* ir, int width, int height)
{
    QV_KERNEL(InfraredRows)(raw, ir, width, height);
}

}  // namespace qvapi
