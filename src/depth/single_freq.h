#ifndef QVRECONSTRUCTION_SRC_DEPTH_SINGLE_FREQ_H
#define QVRECONSTRUCTION_SRC_DEPTH_SINGLE_FREQ_H

#include <cstdint>

namespace qvapi {

struct SingleFreqParams {
    float phaseToMm;       // mm per radian
    float depthOffset;     // mm
    int32_t rangeMm;       // wrap length
    float tableStep;       // mm to wiggling-table index
    int32_t tableCount;
    const float* table;    // 256 entries
    int32_t amplitudeThreshold;
    bool temperatureCompensation;  // false for device type 4
};

// Depth in mm of one four-sample frame (width x height pixels, 4 * width * height
// words, at least 191 when the temperature is read). Pixels below the amplitude
// threshold become 0, written with `invalidStride` as row stride; valid pixels
// use `width`. fppnOffset and radialToZ hold one value per pixel (index
// row * width + column). Writes nothing when height < 1.
void SingleFreqDepth(const uint16_t* raw, uint16_t* depth, int width, int height,
                     int invalidStride, const SingleFreqParams& p, const float* fppnOffset,
                     const float* radialToZ);

// The same with the vector kernel of the running processor, for parameters
// FastSingleFreqApplies accepts. Depth may differ by 1 mm where a value lies within
// about 1e-4 mm of an integer (the arctangent is a polynomial); 0 never differs.
bool FastSingleFreqApplies(const SingleFreqParams& p, int width, int invalidStride);
void SingleFreqDepthFast(const uint16_t* raw, uint16_t* depth, int width, int height,
                         const SingleFreqParams& p, const float* fppnOffset,
                         const float* radialToZ);

// The operation: the vector kernel where it applies, else the plain one.
void ConvertSingleFreq(const uint16_t* raw, uint16_t* depth, int width, int height,
                       int invalidStride, const SingleFreqParams& p, const float* fppnOffset,
                       const float* radialToZ);

}  // namespace qvapi

#endif
