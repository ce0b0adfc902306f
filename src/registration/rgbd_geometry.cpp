#include "registration/rgbd_geometry.h"

#include <opencv2/calib3d.hpp>

#include "common/registration_pose.h"

namespace qvapi {
namespace {

// Factory values of the module, used where the record carries none.
const float kFactoryColour[9] = {948.635864f,     944.204956f,   983.402954f,
                                 575.152527f,     -0.0982687771f, 0.0140670193f,
                                 0.00336070312f,  0.00189596904f, 0.00304645207f};
const float kFactoryRotation[9] = {0.999539912f,  -0.00163754076f, -0.0302863028f,
                                   0.00195854832f, 0.999942183f,   0.0105724735f,
                                   0.0302672405f, -0.010626927f,   0.999485373f};
const float kFactoryTranslation[3] = {-43.5730362f, 0.00192679174f, -2.35643005f};

cv::Mat CameraMatrix(float fx, float fy, float cx, float cy)
{
    return (cv::Mat_<float>(3, 3) << fx, 0, cx, 0, fy, cy, 0, 0, 1);
}

cv::Mat Distortion(const Intrinsics& l)
{
    return (cv::Mat_<float>(5, 1) << l.k1, l.k2, l.p1, l.p2, l.k3);
}

}  // namespace

RgbdGeometry ComputeRgbdGeometry(const CameraCalibrationParam& p)
{
    Intrinsics colour = p.rgbLens;
    if (colour.fx == 0.0f) {
        colour.fx = kFactoryColour[0];
        colour.fy = kFactoryColour[1];
        colour.cx = kFactoryColour[2];
        colour.cy = kFactoryColour[3];
        colour.k1 = kFactoryColour[4];
        colour.k2 = kFactoryColour[5];
        colour.p1 = kFactoryColour[6];
        colour.p2 = kFactoryColour[7];
        colour.k3 = kFactoryColour[8];
    }
    const cv::Mat Kc = CameraMatrix(colour.fx, colour.fy, colour.cx, colour.cy);
    const cv::Mat Dc = Distortion(colour);
    const Intrinsics& depth = p.depthLens;
    const cv::Mat Kd = CameraMatrix(depth.fx, depth.fy, depth.cx, depth.cy);
    const cv::Mat Dd = Distortion(depth);

    const float* rotation = p.extrinsics[0] == 0.0f ? kFactoryRotation : p.extrinsics;
    const float* translation = p.extrinsics[9] == 0.0f ? kFactoryTranslation : p.extrinsics + 9;
    const cv::Mat t = cv::Mat(3, 1, CV_32F, const_cast<float*>(translation)).clone();
    cv::Mat Rc(3, 3, CV_32F);
    CorrectedRotation(rotation, p.vectorCount, p.vector, Rc.ptr<float>());

    const cv::Mat H = (Kc * Rc) * Kd.inv(cv::DECOMP_LU);
    const cv::Mat e = Kc * t;

    RgbdGeometry g{};
    for (int row = 0; row < 3; ++row) {
        for (int col = 0; col < 3; ++col)
            g.depthToColor[4 * row + col] = H.at<float>(row, col);
        g.depthToColor[4 * row + 3] = e.at<float>(row);
    }
    g.depthToColor[15] = 1.0f;  // elements 12-14 stay 0: a proper homogeneous transform

    const cv::Mat eye = cv::Mat::eye(3, 3, CV_32F);
    cv::initUndistortRectifyMap(Kd, Dd, eye, Kd, cv::Size(640, 480), CV_32FC1, g.depthMapX,
                                g.depthMapY);
    cv::initUndistortRectifyMap(Kc, Dc, eye, Kc, cv::Size(1920, 1080), CV_32FC1, g.colorMapX,
                                g.colorMapY);
    return g;
}

}  // namespace qvapi
