// Fast path of the depth-to-colour registration. Same results as the plain steps of
// MapDepthToRGB (cv::cvtColor, ProjectDepthToColour, cv::remap, cv::medianBlur over the
// whole colour image), with less work: the NV12 frame is converted by the library's
// own vector kernel (Nv12ToBgr), the colour is undistorted by copying runs of consecutive
// source pixels, found once per Init, the projection is computed a row at a time in a loop the compiler
// vectorises, and the median (the library's own, vectorised for each instruction set)
// runs only over the part of the image that depth reached.
#ifndef QVRECONSTRUCTION_SRC_REGISTRATION_REGISTER_FAST_H
#define QVRECONSTRUCTION_SRC_REGISTRATION_REGISTER_FAST_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "registration/map_depth_to_rgb.h"
#include "registration/registration_kernels.h"

namespace qvapi {

// A stretch of undistorted pixels whose nearest source pixels follow each other in
// the colour image (byte offset `source` of the first one), or that all lie outside it
// (source -1: black).
struct CopyRun {
    int32_t source;
    int32_t length;  // pixels
};

// The undistortion of a srcWidth x srcHeight BGR image as copy runs, in the order of
// the undistorted pixels. `nearest` is the CV_16SC2 map cv::convertMaps makes for
// nearest-neighbour remapping.
std::vector<CopyRun> NearestCopyRuns(const cv::Mat& nearest, int srcWidth, int srcHeight);

// out[0 .. 3n) = the n undistorted pixels the runs describe (cv::remap with nearest
// neighbours and a black border). `bgr` holds the image and 64 more readable bytes:
// runs are copied in 32-byte pieces, the last piece spilling onto the next run's
// pixels, which that run then overwrites. Nothing is written at or after out + 3n.
void RemapByRuns(const uint8_t* bgr, const CopyRun* runs, size_t count, uint8_t* out, size_t n);

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
