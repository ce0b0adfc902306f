#include "common/registration_pose.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

namespace qvapi {
namespace {

// Factory geometry of the registration, for records without a colour lens. It differs
// from the factory set of the undistortion geometry, and is kept as it is.
const float kFactoryRotation[9] = {0.997996628f,  -0.0166003797f, -0.0610508732f,
                                   0.0150793055f, 0.999566376f,   -0.0252918005f,
                                   0.0614442565f, 0.024320526f,   0.997814178f};
const float kFactoryTranslation[3] = {-8.4647131f, 13.4888792f, 29.0027504f};

}  // namespace

void CorrectedRotation(const float R[9], int32_t vectorCount, const float* vector, float corrected[9])
{
    cv::Mat r;
    cv::Rodrigues(cv::Mat(3, 3, CV_32F, const_cast<float*>(R)), r);
    if (vectorCount >= 3) {
        r.at<float>(0) += vector[0];
        r.at<float>(1) += vector[1];
        r.at<float>(2) += vector[2];
    }
    cv::Mat back;
    cv::Rodrigues(r, back);
    for (int k = 0; k < 9; ++k)
        corrected[k] = back.at<float>(k / 3, k % 3);
}

RegistrationParams MakeRegistrationParams(const CameraCalibrationParam& p)
{
    const bool factory = p.rgbLens.fx == 0.0f;
    const float* rotation = factory ? kFactoryRotation : p.extrinsics;
    const float* translation = factory ? kFactoryTranslation : p.extrinsics + 9;
    RegistrationParams out{};
    CorrectedRotation(rotation, p.vectorCount, p.vector, out.R);
    for (int k = 0; k < 3; ++k)
        out.t[k] = translation[k];
    out.fx = p.rgbLens.fx;
    out.fy = p.rgbLens.fy;
    out.cx = p.rgbLens.cx;
    out.cy = p.rgbLens.cy;
    return out;
}

}  // namespace qvapi
