#include "calibration/calibration_tables.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "common/numeric.h"

namespace qvapi {

FrequencyParam MakeFrequencyParam(int32_t frequency, const FrequencyCalibration& cal)
{
    FrequencyParam p{};
    p.frequency = frequency;
    p.rangeMm = static_cast<int32_t>(1.5e11 / frequency);
    p.phaseToMm = static_cast<float>(23873241468.266193 / frequency);
    p.depthOffset = (cal.metresToMm && std::fabs(cal.depthOffset) < 100.0f)
                        ? cal.depthOffset * 1000.0f
                        : cal.depthOffset;
    p.tableCount = cal.tableCount;
    // The count is kept as given; only what fits the table is copied.
    std::copy_n(cal.table, std::clamp(cal.tableCount, 0, 256), p.table);
    std::copy_n(cal.fppn, 6, p.fppn);
    std::copy_n(cal.coef, 4, p.coef);
    p.tableStep = cal.tableCount > 20 ? 0.02f : 0.01f;
    p.label = *cal.label;
    return p;
}

DualFreqConstants MakeDualFreqConstants(int32_t f1, int32_t f2, int32_t rangeF1, int32_t rangeF2)
{
    DualFreqConstants k{};
    k.rangeF1 = static_cast<float>(rangeF1);
    k.rangeF2 = static_cast<float>(rangeF2);
    if (f1 != f2) {
        k.ratioF1 = static_cast<float>(f1 / (f1 - f2));
        k.ratioF2 = static_cast<float>(f2 / (f1 - f2));
        k.maxRangeMm = (f1 / std::abs(f1 - f2)) * rangeF1;
    }
    k.invRangeF1 = static_cast<float>(1.0 / rangeF1);
    k.invRangeF2 = static_cast<float>(1.0 / rangeF2);
    return k;
}

void BuildFppnTable(const float c[6], int width, int height, float step, float* surface,
                    uint16_t* truncated)
{
    for (int row = 0; row < height; ++row) {
        const float y = static_cast<float>(row) * step;
        for (int col = 0; col < width; ++col) {
            const float x = static_cast<float>(col) * step;
            const float v = (c[0] + c[1] * x + c[2] * y + c[3] * x * x + c[4] * x * y + c[5] * y * y) *
                            100.0f;
            const size_t i = static_cast<size_t>(row) * width + col;
            surface[i] = v;
            truncated[i] = TruncToU16Bits(v);
        }
    }
}

void BuildRadialToZ(const float* x, const float* y, size_t n, float* out)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = 1.0f / std::sqrt(x[i] * x[i] + y[i] * y[i] + 1.0f);
}

void BuildColourRays(float fx, float fy, float cx, float cy, int width, int height, float* rayX,
                     float* rayY, float* scale)
{
    for (int v = 0; v < height; ++v) {
        const float y = (static_cast<float>(v) - cy) / fy;
        for (int u = 0; u < width; ++u) {
            const float x = (static_cast<float>(u) - cx) / fx;
            const size_t i = static_cast<size_t>(v) * width + u;
            rayX[i] = x;
            rayY[i] = y;
            scale[i] = 1.0f / std::sqrt(x * x + y * y + 1.0f);
        }
    }
}

}  // namespace qvapi
