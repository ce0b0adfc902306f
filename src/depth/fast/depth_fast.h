// Fast paths of the per-frame kernels: depth converters, edge filter, medians,
// registration projection, infrared image, point cloud and false colour. Each has a
// plain kernel beside it (single_freq.cpp, dual_freq.cpp, edge_filter.cpp, ir.cpp,
// point_cloud.cpp, false_colour.cpp, OpenCV's median) that is the reference the parity
// tests compare against. The kernel files are compiled once per instruction set and
// the best one for the running processor is chosen at run time.
#ifndef QVRECONSTRUCTION_SRC_DEPTH_FAST_DEPTH_FAST_H
#define QVRECONSTRUCTION_SRC_DEPTH_FAST_DEPTH_FAST_H

#include <cstddef>
#include <cstdint>

#include "colour/false_colour.h"
#include "depth/dual_freq.h"
#include "depth/single_freq.h"
#include "registration/map_depth_to_rgb.h"

namespace qvapi {

// The smallest energy I^2 + Q^2 whose amplitude, as the scalar kernels compute it
// (sqrtf, times pi/2 in double, rounded to float), is not below the threshold: the
// amplitude test done exactly on integers. INT64_MAX when none is.
int64_t MinValidEnergy(int32_t amplitudeThreshold);

// Whether the fast paths can serve these parameters exactly as the scalar kernels
// define them (otherwise the caller uses the scalar kernel).
bool FastDualFreqApplies(const DualFreqParams& p);
bool FastSingleFreqApplies(const SingleFreqParams& p, int width, int invalidStride);

// Same contracts as DualFreqDepth, SingleFreqDepth and EdgeFilter. Depth may differ
// from the scalar kernels by 1 mm where a value lies within about 1e-4 mm of an
// integer (the arctangent is a polynomial); 0 and 1 marks never differ.
void DualFreqDepthFast(const uint16_t* raw, uint16_t* depth, int width, int height,
                       const DualFreqParams& p, const float* fppn1, const float* fppn2,
                       const float* radialToZ, DualFreqLast& last);
void SingleFreqDepthFast(const uint16_t* raw, uint16_t* depth, int width, int height,
                         const SingleFreqParams& p, const float* fppnOffset,
                         const float* radialToZ);
void EdgeFilterFast(uint16_t* depth, int width, int height);

// One 640-pixel depth row through the registration geometry, as ProjectDepthToColour
// computes it: target[c] is the index of the colour pixel depth pixel c lands on (-1:
// skipped); column[c] is that pixel's column when the landing fills its neighbours and
// the column's complement (negative) when it lies too near the border to.
void ProjectDepthRow(const uint16_t* depth, const float* rayX, const float* rayY,
                     const RegistrationParams& p, int width, int height, int32_t* target,
                     int32_t* column);

// The infrared image, as InfraredImage computes it.
void InfraredImageFast(const uint16_t* raw, uint16_t* ir, int width, int height);

// Points (rayX[c] * z, rayY[c] * z, z) of depth z = depth[c], c in [0, count), into
// out[3 c] .. out[3 c + 2], as the point cloud's plain loop computes them.
void PointCloudSpan(const uint16_t* depth, const float* rayX, const float* rayY, int count, float* out);

// The false colours of depth[0..n) for a range MakeFalseColourRamp accepted, as
// FalseColour paints them.
void FalseColourSpan(const uint16_t* depth, size_t n, const FalseColourRamp& ramp, uint8_t* rgb);

// The 3 x 3 median of a 16-bit image in place, equal to cv::medianBlur(img, img, 3)
// (replicated border).
void MedianBlur3x3InPlace(uint16_t* img, int width, int height);

// The 5 x 5 median of a 16-bit image with replicated border, equal to
// cv::medianBlur(src, dst, 5); steps in elements; src and dst must not overlap.
void MedianBlur5x5(const uint16_t* src, size_t srcStep, uint16_t* dst, size_t dstStep, int width,
                   int height);

// The instruction set the fast paths run with ("avx512", "avx2", "baseline"), or "scalar" when
// the build forces the scalar kernels.
const char* FastPathName();
// False in a build configured with QV_FORCE_SCALAR: the instance then runs the
// scalar kernels only.
bool FastPathsEnabled();

}  // namespace qvapi

#endif
