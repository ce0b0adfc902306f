#include "depth/dual_freq.h"

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/numeric.h"
#include "depth/amplitude.h"
#include "depth/temperature.h"
#include "depth/wiggling.h"
#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(void DualFreqDepthRows(const uint16_t* raw, uint16_t* depth, int width, int height,
                                     const DualFreqParams& p, const float* fppn1, const float* fppn2,
                                     const float* radialToZ, float comp1, float comp2, float minEnergy,
                                     DualFreqLast& last);)
namespace {

constexpr uint16_t kSaturated = 1023;

// Word offsets of the sample roles A, B, C, D inside a row pair, per flip mode,
// as multiples of (S0, S1, S2, S3): S0 = 2c, S1 = 2c + 1, S2 = 2W + 2c, S3 = S2 + 1.
struct Roles {
    int a, b, c, d;  // 0..3 for S0..S3
};
constexpr Roles kRoles[4] = {{0, 2, 3, 1}, {2, 0, 1, 3}, {1, 3, 2, 0}, {3, 1, 0, 2}};

struct Samples {
    int32_t a, b, c, d;
};

inline bool AnySaturated(const Samples& s)
{
    return s.a == kSaturated || s.b == kSaturated || s.c == kSaturated || s.d == kSaturated;
}

struct FrequencyModel {
    float phaseToMm, offset, range, step;
    const float* table;
};

// The corrected wrapped distance of one frequency from its two tag captures p and q,
// or false when the amplitude (of `amplitudeFrom`) is below the threshold. Both
// corrections count by their integer parts; the wiggling index is not folded.
inline bool CorrectedDistance(const Samples& p, const Samples& q, const Samples& amplitudeFrom,
                              float threshold, const FrequencyModel& f, float fppn, float& d)
{
    const float phase = std::atan2(static_cast<float>((p.b - q.b) - (p.d - q.d)) * 0.5f,
                                   static_cast<float>((p.a - q.a) - (p.c - q.c)) * 0.5f);
    const Samples& s = amplitudeFrom;
    const int64_t energy = static_cast<int64_t>(s.b - s.d) * (s.b - s.d) +
                           static_cast<int64_t>(s.a - s.c) * (s.a - s.c);
    const float amplitude = static_cast<float>(std::sqrt(static_cast<float>(energy)) * 1.5707963265);
    if (threshold > amplitude)
        return false;
    d = WrapOnce(phase * f.phaseToMm + f.offset, f.range);
    const float wig = WigglingAt(f.table, f.step, d, false, 0);
    d = WrapOnce(d + std::trunc(fppn) - std::trunc(wig), f.range);
    return true;
}

}  // namespace

bool DualFreqPrepare(const uint16_t* raw, uint16_t* depth, int width, int height,
                     const DualFreqParams& p, float& comp1, float& comp2)
{
    comp1 = comp2 = 0.0f;
    if (p.temperatureCompensation) {
        const float t = SensorTemperature(raw);
        comp1 = DualFreqDrift1(t) * p.phaseToMm1;
        comp2 = DualFreqDrift2(t) * p.phaseToMm2;
    }
    // Rows 0 and 1 carry no depth.
    std::memset(depth, 0, sizeof(uint16_t) * static_cast<size_t>(width) * (height < 2 ? height : 2));
    return height >= 3;
}

void DualFreqDepth(const uint16_t* raw, uint16_t* depth, int width, int height,
                   const DualFreqParams& p, const float* fppn1, const float* fppn2,
                   const float* radialToZ, DualFreqLast& last)
{
    const int32_t f1 = p.frequency1, f2 = p.frequency2;
    const int32_t R1 = p.range1, R2 = p.range2;
    const int32_t ratio1 = f1 / (f1 - f2);
    const int32_t ratio2 = f2 / (f1 - f2);
    const int32_t Rc = (f1 / std::abs(f1 - f2)) * R1;

    float comp1, comp2;
    if (!DualFreqPrepare(raw, depth, width, height, p, comp1, comp2))
        return;

    // The second frequency's table step serves both tables.
    const FrequencyModel f1Model{p.phaseToMm1, p.depthOffset1 - comp1, static_cast<float>(R1),
                                 p.tableStep2, p.table1};
    const FrequencyModel f2Model{p.phaseToMm2, p.depthOffset2 - comp2, static_cast<float>(R2),
                                 p.tableStep2, p.table2};
    const float rangeC = static_cast<float>(Rc);
    const double invR1 = 1.0 / R1, invR2 = 1.0 / R2;
    const float threshold = static_cast<float>(p.amplitudeThreshold);
    const size_t plane = 4 * static_cast<size_t>(width) * height;
    const uint16_t* p0 = raw;
    const uint16_t* p1 = raw + plane;
    const uint16_t* p2 = raw + 2 * plane;
    const uint16_t* p3 = raw + 3 * plane;
    const bool knownFlip = p.flipMode >= 0 && p.flipMode <= 3;
    const Roles roles = knownFlip ? kRoles[p.flipMode] : Roles{0, 0, 0, 0};
    const bool mirrorRows = p.flipMode == 1 || p.flipMode == 3;
    const bool mirrorCols = p.flipMode == 2 || p.flipMode == 3;
    const int b = p.binning;
    size_t idx = 0;  // an unknown flip mode keeps the index it had (0)

    for (int r = 2; r < height; ++r) {
        const size_t rowBase = 4 * static_cast<size_t>(width) * r;
        for (int c = 0; c < width; ++c) {
            uint16_t& out = depth[static_cast<size_t>(r) * width + c];
            size_t s[4] = {rowBase + 2 * c, rowBase + 2 * c + 1, rowBase + 2 * width + 2 * c,
                           rowBase + 2 * width + 2 * c + 1};
            if (knownFlip) {
                const size_t row = mirrorRows ? height - 1 - r : r;
                const size_t col = mirrorCols ? width - 1 - c : c;
                idx = (row * width * b + col) * b;
            } else {
                s[0] = 0;  // every role reads word 0 of its plane
            }
            const auto at = [&](const uint16_t* pl) {
                return Samples{pl[s[roles.a]], pl[s[roles.b]], pl[s[roles.c]], pl[s[roles.d]]};
            };

            // First frequency: planes 2 and 3, amplitude from plane 3.
            const Samples a2 = at(p2);
            if (AnySaturated(a2)) {
                out = 1;
                continue;
            }
            const Samples a3 = at(p3);
            float d1;
            if (!CorrectedDistance(a2, a3, a3, threshold, f1Model, fppn1[idx], d1)) {
                out = 0;
                continue;
            }
            last.distance1 = d1;

            // Second frequency: planes 0 and 1, amplitude from plane 0.
            const Samples a0 = at(p0);
            if (AnySaturated(a0)) {
                out = 1;
                continue;
            }
            float d2;
            if (!CorrectedDistance(a0, at(p1), a0, threshold, f2Model, fppn2[idx], d2)) {
                out = 0;
                continue;
            }
            last.distance2 = d2;

            if (d1 == 0.0f || d2 == 0.0f) {
                out = 0;
                continue;
            }
            // Unwrap: ratio1 d1 - ratio2 d2 is the distance modulo the combined range.
            const float e = WrapOnce(static_cast<float>(ratio1) * d1 - static_cast<float>(ratio2) * d2,
                                     rangeC);
            const int32_t k2 = TruncToInt((e - d2) * invR2 + 0.5);
            const int32_t k1 = TruncToInt((e - d1) * invR1 + 0.5);
            float D1 = d1 + static_cast<float>(static_cast<int64_t>(k1) * R1);
            const float D2 = d2 + static_cast<float>(static_cast<int64_t>(k2) * R2);
            const float z = radialToZ[idx] * 0.5f * (D1 + D2);
            if (z < 0.0f)
                D1 += rangeC;
            const float disagreement = z > rangeC ? D1 - rangeC - D2 : D1 - D2;
            out = std::fabs(disagreement) > 200.0f ? 0 : TruncToU16Bits(z);
        }
    }
}

bool WigglingSlopes(const float table[256], float pairs[512])
{
    bool tame = true;
    for (int k = 0; k < 256; ++k) {
        const float next = table[k < 255 ? k + 1 : 255];
        tame &= std::fabs(table[k]) <= kSlopeTableLimit;  // NaN too
        pairs[2 * k] = table[k];
        pairs[2 * k + 1] = next - table[k];
    }
    return tame;
}

bool FastDualFreqApplies(const DualFreqParams& p)
{
    // Ranges below 2^24 are exact in float, as the vector unwrapping needs.
    constexpr int32_t kExactFloatRange = 1 << 24;
    return p.slopes1 && p.slopes2 && p.frequency1 != p.frequency2 && p.flipMode >= 0 && p.flipMode <= 3 &&
           (p.binning == 1 || p.binning == 2) && MinValidEnergy(p.amplitudeThreshold) <= kExactFloatEnergy &&
           p.range1 > -kExactFloatRange && p.range1 < kExactFloatRange && p.range2 > -kExactFloatRange &&
           p.range2 < kExactFloatRange;
}

void DualFreqDepthFast(const uint16_t* raw, uint16_t* depth, int width, int height,
                       const DualFreqParams& p, const float* fppn1, const float* fppn2,
                       const float* radialToZ, DualFreqLast& last)
{
    if (!FastDualFreqApplies(p))
        return DualFreqDepth(raw, depth, width, height, p, fppn1, fppn2, radialToZ, last);
    float comp1, comp2;
    if (!DualFreqPrepare(raw, depth, width, height, p, comp1, comp2))
        return;
    const float minEnergy = static_cast<float>(MinValidEnergy(p.amplitudeThreshold));
    QV_DISPATCH(DualFreqDepthRows)(raw, depth, width, height, p, fppn1, fppn2, radialToZ, comp1, comp2,
                                   minEnergy, last);
}

void ConvertDualFreq(const uint16_t* raw, uint16_t* depth, int width, int height,
                     const DualFreqParams& p, const float* fppn1, const float* fppn2,
                     const float* radialToZ, DualFreqLast& last)
{
    if (FastPathsEnabled())
        DualFreqDepthFast(raw, depth, width, height, p, fppn1, fppn2, radialToZ, last);
    else
        DualFreqDepth(raw, depth, width, height, p, fppn1, fppn2, radialToZ, last);
}

}  // namespace qvapi
