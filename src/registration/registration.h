// Registration of 640 x 480 depth frames onto the 1920 x 1080 colour camera, as an
// object that owns what it keeps between frames: the colour undistortion as copy runs
// (built once per Init) and its two working images (about 10 MB). It runs the fast
// steps, or in a forced-scalar build the plain ones (OpenCV's remap and median).
#ifndef QVRECONSTRUCTION_SRC_REGISTRATION_REGISTRATION_H
#define QVRECONSTRUCTION_SRC_REGISTRATION_REGISTRATION_H

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "registration/map_depth_to_rgb.h"
#include "registration/register_fast.h"

namespace qvapi {

class Registration {
public:
    // Once per Init: the colour undistortion maps (1920 x 1080, CV_32FC1 each).
    void Prepare(const cv::Mat& colourMapX, const cv::Mat& colourMapY);
    // Frees the runs and the working images.
    void Release();
    // How many copy runs the colour undistortion takes (fewer is faster).
    size_t RunCount() const { return runs_.size(); }

    // Registers `depth` (640 x 480, rays rayX and rayY) onto the NV12 colour frame of
    // width x height (the size of the maps): the undistorted BGR colour into colourOut
    // (3 bytes a pixel) and the 5 x 5 median of the registered depth into depthOut.
    void Register(const uint8_t* nv12, int width, int height, const uint16_t* depth,
                  const float* rayX, const float* rayY, const RegistrationParams& p,
                  uint8_t* colourOut, uint16_t* depthOut);

private:
    void RegisterPlain(const cv::Mat& yuv, const uint16_t* depth, const float* rayX,
                       const float* rayY, const RegistrationParams& p, uint8_t* colourOut,
                       cv::Mat& registered);
    void RegisterFast(const cv::Mat& yuv, const uint16_t* depth, const float* rayX,
                      const float* rayY, const RegistrationParams& p, uint8_t* colourOut,
                      cv::Mat& registered);

    cv::Mat mapX_, mapY_;
    std::vector<CopyRun> runs_;
    // The BGR colour with the 64 readable bytes the run copy needs after it, and the
    // landed depth (all zero between calls).
    std::vector<uint8_t> bgr_;
    std::vector<uint16_t> landed_;
};

}  // namespace qvapi

#endif
