#ifndef QVRECONSTRUCTION_SRC_CALIBRATION_UNDISTORT_H
#define QVRECONSTRUCTION_SRC_CALIBRATION_UNDISTORT_H

#include <cstddef>
#include <cstdint>

#include "calibration/lens_model.h"

namespace qvapi {

// Nearest-neighbour resampling through the forward lens model: output pixel (u, v)
// takes the source pixel where the lens puts its ideal ray, or zeros when that
// falls on or outside the outermost row or column. Source and destination are
// width x height pixels of `wordsPerPixel` words (1 for depth, 3 for colour).
void UndistortWords(const LensModel& lens, const uint16_t* src, int width, int height,
                    int wordsPerPixel, uint16_t* dst);

// The same for 8-bit three-channel images addressed with their row strides in bytes.
void UndistortBgr8(const LensModel& lens, const uint8_t* src, size_t srcStride, uint8_t* dst,
                   size_t dstStride, int width, int height);

}  // namespace qvapi

#endif
