#include "depth/single_freq.h"

#include <cmath>
#include <cstddef>

#include "common/numeric.h"
#include "depth/amplitude.h"
#include "depth/temperature.h"
#include "depth/wiggling.h"
#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(void SingleFreqDepthFrame(const uint16_t* raw, uint16_t* depth, int width, int height,
                                        const SingleFreqParams& p, const float* fppnOffset,
                                        const float* radialToZ, float halfRangeMinusComp,
                                        float minEnergy);)

void SingleFreqDepth(const uint16_t* raw, uint16_t* depth, int width, int height,
                     int invalidStride, const SingleFreqParams& p, const float* fppnOffset,
                     const float* radialToZ)
{
    float comp = 0.0f;
    if (p.temperatureCompensation)
        comp = SingleFreqDrift(SensorTemperature(raw)) * p.phaseToMm;
    if (height < 1)
        return;
    const double halfRangeMinusComp = p.rangeMm * 0.5 - comp;
    const float range = static_cast<float>(p.rangeMm);
    const float threshold = static_cast<float>(p.amplitudeThreshold);

    for (int r = 0; r < height; ++r) {
        const uint16_t* row = raw + 4 * static_cast<ptrdiff_t>(width) * r;
        for (int c = 0; c < width; ++c) {
            const int32_t s0 = row[2 * c], s1 = row[2 * c + 1];
            const int32_t s2 = row[2 * width + 2 * c], s3 = row[2 * width + 2 * c + 1];
            const int32_t I = s0 - s3;
            const int32_t Q = s2 - s1;
            const float phase = std::atan2(static_cast<float>(Q), static_cast<float>(I));
            const int64_t energy = static_cast<int64_t>(I) * I + static_cast<int64_t>(Q) * Q;
            const float amplitude =
                static_cast<float>(std::sqrt(static_cast<float>(energy)) * 1.5707963265);
            if (threshold > amplitude) {
                depth[static_cast<ptrdiff_t>(r) * invalidStride + c] = 0;
                continue;
            }
            const size_t i = static_cast<size_t>(r) * width + c;
            float d = phase * p.phaseToMm + p.depthOffset;
            d = static_cast<float>(d + halfRangeMinusComp);
            d = WrapOnce(d, range);
            const float wig = WigglingAt(p.table, p.tableStep, d, true, p.tableCount);
            d = (d + fppnOffset[i]) - std::trunc(wig);
            d = WrapOnce(d, range);
            depth[i] = TruncToU16Bits(d * radialToZ[i]);
        }
    }
}

bool FastSingleFreqApplies(const SingleFreqParams& p, int width, int invalidStride)
{
    return invalidStride == width && MinValidEnergy(p.amplitudeThreshold) <= kExactFloatEnergy;
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
    QV_DISPATCH(SingleFreqDepthFrame)(raw, depth, width, height, p, fppnOffset, radialToZ, half, minEnergy);
}

void ConvertSingleFreq(const uint16_t* raw, uint16_t* depth, int width, int height,
                       int invalidStride, const SingleFreqParams& p, const float* fppnOffset,
                       const float* radialToZ)
{
    if (FastPathsEnabled() && FastSingleFreqApplies(p, width, invalidStride))
        SingleFreqDepthFast(raw, depth, width, height, p, fppnOffset, radialToZ);
    else
        SingleFreqDepth(raw, depth, width, height, invalidStride, p, fppnOffset, radialToZ);
}

}  // namespace qvapi
