// Everything Init derives from a calibration record besides the lens maps: the
// per-frequency parameter sets, the dual-frequency constants and the per-pixel
// tables the depth loops only look up.
#ifndef QVRECONSTRUCTION_SRC_CALIBRATION_CALIBRATION_TABLES_H
#define QVRECONSTRUCTION_SRC_CALIBRATION_CALIBRATION_TABLES_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "frequency_param.h"

namespace qvapi {

// Calibration data of one modulation frequency as the record carries it.
struct FrequencyCalibration {
    float depthOffset;   // as stored; see metresToMm
    bool metresToMm;     // a magnitude below 100 is metres (first frequency only)
    int32_t tableCount;
    const float* table;  // 256 entries
    const float* fppn;   // 6
    const float* coef;   // 4
    const std::string* label;
};

// The parameter set of one frequency: range, mm per radian, offset in mm, the
// leading tableCount entries of the wiggling table (at most 256 are copied) and its
// index step.
FrequencyParam MakeFrequencyParam(int32_t frequency, const FrequencyCalibration& cal);

// Constants of the dual-frequency unwrapping. Equal frequencies have no combined
// range: ratios and combined range are then 0.
struct DualFreqConstants {
    float rangeF1, rangeF2, ratioF1, ratioF2, invRangeF1, invRangeF2;
    int32_t maxRangeMm;
};
DualFreqConstants MakeDualFreqConstants(int32_t f1, int32_t f2, int32_t rangeF1, int32_t rangeF2);

// Phase-noise surface x 100 at every pixel, x = column * step, y = row * step, and
// its truncation to 16 bits.
void BuildFppnTable(const float fppn[6], int width, int height, float step, float* surface,
                    uint16_t* truncated);

// 1 / sqrt(x^2 + y^2 + 1) for n normalised rays: the factor from radial distance to Z.
void BuildRadialToZ(const float* x, const float* y, size_t n, float* out);

// Normalised pinhole rays of every colour pixel and their radial-to-Z factors.
void BuildColourRays(float fx, float fy, float cx, float cy, int width, int height, float* rayX,
                     float* rayY, float* scale);

// Top-left sample of every 2 x 2 block: (width / 2) x (height / 2) values.
template <typename T>
void Decimate2x2(const T* src, int width, int height, T* dst)
{
    const int halfW = width / 2, halfH = height / 2;
    for (int r = 0; r < halfH; ++r)
        for (int c = 0; c < halfW; ++c)
            dst[static_cast<size_t>(r) * halfW + c] = src[static_cast<size_t>(2 * r) * width + 2 * c];
}

}  // namespace qvapi

#endif
