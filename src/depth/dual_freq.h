#ifndef QVRECONSTRUCTION_SRC_DEPTH_DUAL_FREQ_H
#define QVRECONSTRUCTION_SRC_DEPTH_DUAL_FREQ_H

#include <cstdint>

namespace qvapi {

struct DualFreqParams {
    int32_t frequency1, frequency2;  // Hz, must differ
    int32_t range1, range2;          // unambiguous ranges, mm
    float phaseToMm1, phaseToMm2;
    float depthOffset1, depthOffset2;
    float tableStep2;                // the second frequency's step serves both tables
    const float* table1;             // 256 wiggling entries each
    const float* table2;
    // The same tables as the vector kernels interpolate them (WigglingSlopes), or null
    // where that would not be exact enough; the plain kernel runs then.
    const float* slopes1;
    const float* slopes2;
    int32_t amplitudeThreshold;
    bool temperatureCompensation;    // false for device type 4
    int32_t flipMode;
    int32_t binning;                 // 1, or 2 for 320-wide frames
};

// A wiggling table as the vector kernels interpolate it: entry k as the pair (t[k],
// t[k + 1] - t[k]), and (t[255], 0) last, so that the correction at k + f is one
// multiply-add, t[k] + f slope (the plain kernel's (1 - f) t[k] + f t[k + 1] rounds
// differently). False where an entry is not finite or beyond +-kSlopeTableLimit mm: the
// two roundings could then differ by more than the kernels' tolerance, and the plain
// kernel should run.
constexpr float kSlopeTableLimit = 4096.0f;
bool WigglingSlopes(const float table[256], float pairs[512]);

// Distances of the last pixel that reached each frequency's correction.
struct DualFreqLast {
    float distance1, distance2;
};

// The temperature drifts of both frequencies in mm (0 for device type 4), and rows 0
// and 1 of the depth set to 0: what every dual-frequency kernel does first. Returns
// whether there are rows to convert (height >= 3).
bool DualFreqPrepare(const uint16_t* raw, uint16_t* depth, int width, int height,
                     const DualFreqParams& p, float& comp1, float& comp2);

// Depth in mm of a four-plane capture (planes of 4 * width * height words: second
// frequency p and q, first frequency p and q). Rows 2 and below are converted;
// rows 0 and 1 are set to 0. 1 marks saturation, 0 a weak or inconsistent pixel.
// fppn1, fppn2 and radialToZ are full-resolution arrays indexed by the flipped,
// binned calibration position; the caller guarantees that position is inside them.
void DualFreqDepth(const uint16_t* raw, uint16_t* depth, int width, int height,
                   const DualFreqParams& p, const float* fppn1, const float* fppn2,
                   const float* radialToZ, DualFreqLast& last);

// The same with the vector kernels of the running processor where FastDualFreqApplies
// accepts the parameters (the plain kernel otherwise). Depth may differ by 1 mm where a
// value lies within about 1e-4 mm of an integer (the arctangent is a polynomial); 0
// and 1 marks never differ.
bool FastDualFreqApplies(const DualFreqParams& p);
void DualFreqDepthFast(const uint16_t* raw, uint16_t* depth, int width, int height,
                       const DualFreqParams& p, const float* fppn1, const float* fppn2,
                       const float* radialToZ, DualFreqLast& last);

// The operation: the vector kernels where they apply, else the plain one.
void ConvertDualFreq(const uint16_t* raw, uint16_t* depth, int width, int height,
                     const DualFreqParams& p, const float* fppn1, const float* fppn2,
                     const float* radialToZ, DualFreqLast& last);

}  // namespace qvapi

#endif
