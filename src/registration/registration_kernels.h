// The registration's vector kernels, chosen for the running processor.
#ifndef QVRECONSTRUCTION_SRC_REGISTRATION_REGISTRATION_KERNELS_H
#define QVRECONSTRUCTION_SRC_REGISTRATION_REGISTRATION_KERNELS_H

#include <cstddef>
#include <cstdint>

#include "registration/map_depth_to_rgb.h"

namespace qvapi {

// Where a frame's landings lie: the least and greatest colour pixel index and column
// (last < 0 while nothing has landed).
struct LandingExtent {
    int32_t first, last, left, right;
};

// One 640-pixel depth row through the registration geometry, as ProjectDepthToColour
// computes it: target[c] is the index of the colour pixel depth pixel c lands on (-1:
// skipped); column[c] is that pixel's column when the landing fills its neighbours and
// the column's complement (negative) when it lies too near the border to. `extent`
// widens to the row's landings.
void ProjectDepthRow(const uint16_t* depth, const float* rayX, const float* rayY,
                     const RegistrationParams& p, int width, int height, int32_t* target,
                     int32_t* column, LandingExtent& extent);

// The 5 x 5 median of a 16-bit image with replicated border, equal to
// cv::medianBlur(src, dst, 5); steps in elements; src and dst must not overlap.
void MedianBlur5x5(const uint16_t* src, size_t srcStep, uint16_t* dst, size_t dstStep, int width,
                   int height);

// cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_NV12) for an NV12 frame (a width x height
// luma plane, then height / 2 rows of interleaved U, V pairs) into width x height BGR
// pixels. Width and height must be even and positive; otherwise nothing is written.
void Nv12ToBgr(const uint8_t* nv12, int width, int height, uint8_t* bgr);

}  // namespace qvapi

#endif
