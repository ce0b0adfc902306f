// Fast path of the depth-to-colour registration. Same results as the plain steps of
// MapDepthToRGB (ProjectDepthToColour, cv::remap, cv::medianBlur over the whole colour
// image), with less work: the colour is undistorted through a byte-offset table made
// once per Init, the projection is computed a row at a time in a loop the compiler
// vectorises, and the median (the library's own, vectorised for each instruction set)
// runs only over the part of the image that depth reached.
#ifndef QVRECONSTRUCTION_SRC_REGISTRATION_REGISTER_FAST_H
#define QVRECONSTRUCTION_SRC_REGISTRATION_REGISTER_FAST_H

#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

#include "registration/map_depth_to_rgb.h"

namespace qvapi {

// For each undistorted pixel, the byte offset of its nearest source pixel in a BGR
// image of srcWidth x srcHeight, or srcWidth * srcHeight * 3 (the black pixel kept
// after the image) where the map points outside it. `nearest` is the CV_16SC2 map
// cv::convertMaps makes for nearest-neighbour remapping; the result is CV_32SC1 of
// the same size.
cv::Mat NearestOffsets(const cv::Mat& nearest, int srcWidth, int srcHeight);

// out[3i..3i+2] = bgr[offsets[i]..offsets[i]+2] for i < n. `bgr` holds the image, a
// black pixel after it and one more byte (4-byte reads).
void RemapNearestBgr(const uint8_t* bgr, const int32_t* offsets, size_t n, uint8_t* out);

// Rows and columns of the registered image that can hold depth: every landing and the
// neighbours it fills lie inside. Empty when nothing landed (right < left).
struct LandingBounds {
    int left = 0, top = 0, right = -1, bottom = -1;
};

// ProjectDepthToColour with the same result; returns where depth was written.
// `scratch` holds 2 * 640 int32 values.
LandingBounds ProjectDepthToColourFast(const uint16_t* depth, const float* rayX,
                                       const float* rayY, const RegistrationParams& p,
                                       uint16_t* registered, int width, int height,
                                       int32_t* scratch);

// cv::medianBlur(registered, out, 5) for an image that is zero outside `bounds`: the
// filter runs over the bounds and a margin; the rest of `out` is zero.
void MedianOverLandings(const cv::Mat& registered, const LandingBounds& bounds, cv::Mat& out);

}  // namespace qvapi

#endif
