// One-time geometry of depth-to-colour registration.
#ifndef QVRECONSTRUCTION_SRC_REGISTRATION_RGBD_GEOMETRY_H
#define QVRECONSTRUCTION_SRC_REGISTRATION_RGBD_GEOMETRY_H

#include <opencv2/core.hpp>

#include "qvreconstruction/reconstruction.h"

namespace qvapi {

struct RgbdGeometry {
    // Rows 0-2: H = Kc R' Kd^-1 beside e = Kc t; row 3: 0 0 0 1.
    float depthToColor[16];
    cv::Mat depthMapX, depthMapY;  // 480 x 640 CV_32FC1
    cv::Mat colorMapX, colorMapY;  // 1080 x 1920 CV_32FC1
};

// Derives the registration geometry from a calibration record, substituting the
// factory colour lens (colour fx 0), rotation (extrinsics[0] 0) and translation
// (extrinsics[9] 0). OpenCV's exceptions propagate.
RgbdGeometry ComputeRgbdGeometry(const CameraCalibrationParam& p);

}  // namespace qvapi

#endif
