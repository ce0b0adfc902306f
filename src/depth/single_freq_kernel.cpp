// The single-frequency converter's kernel, compiled once per target (see
// simd/targets.h): one branch-free loop per row that the compiler vectorises.
#include <cstddef>
#include <cstdint>

#include "depth/kernel_math.h"
#include "depth/single_freq.h"

namespace qvapi {
namespace QV_KERNEL_NS {

void SingleFreqDepthFrame(const uint16_t* raw, uint16_t* depth, int width, int height,
                          const SingleFreqParams& p, const float* fppnOffset, const float* radialToZ,
                          float halfRangeMinusComp, float minEnergy)
{
    const float range = static_cast<float>(p.rangeMm);
    for (int r = 0; r < height; ++r) {
        const uint16_t* h0 = raw + 4 * static_cast<size_t>(width) * r;
        const uint16_t* h1 = h0 + 2 * static_cast<size_t>(width);
        const size_t rowBase = static_cast<size_t>(r) * width;
        const float* fppn = fppnOffset + rowBase;
        const float* ray = radialToZ + rowBase;
        uint16_t* out = depth + rowBase;
        for (int c = 0; c < width; ++c) {
            const int32_t s0 = h0[2 * c], s1 = h0[2 * c + 1], s2 = h1[2 * c], s3 = h1[2 * c + 1];
            const float I = static_cast<float>(s0 - s3), Q = static_cast<float>(s2 - s1);
            const bool strong = I * I + Q * Q >= minEnergy;
            float d = Atan2(Q, I) * p.phaseToMm + p.depthOffset;
            d = Wrap(d + halfRangeMinusComp, range);
            const float wig = Wiggling(p.table, p.tableStep, d, p.tableCount);
            d = Wrap((d + fppn[c]) - Trunc(wig), range);
            out[c] = static_cast<uint16_t>(strong * TruncLow16(d * ray[c]));
        }
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
