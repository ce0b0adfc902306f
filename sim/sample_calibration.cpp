#include "sample_calibration.h"

#include <cmath>

namespace qvsim {
namespace {

// Rotation matrix of a rotation vector (Rodrigues' formula), row-major.
void RotationFromVector(double rx, double ry, double rz, float* R)
{
    const double theta = std::sqrt(rx * rx + ry * ry + rz * rz);
    const double kx = rx / theta, ky = ry / theta, kz = rz / theta;
    const double c = std::cos(theta), s = std::sin(theta), v = 1.0 - c;
    const double m[9] = {kx * kx * v + c,      kx * ky * v - kz * s, kx * kz * v + ky * s,
                         ky * kx * v + kz * s, ky * ky * v + c,      ky * kz * v - kx * s,
                         kz * kx * v - ky * s, kz * ky * v + kx * s, kz * kz * v + c};
    for (int i = 0; i < 9; ++i)
        R[i] = static_cast<float>(m[i]);
}

}  // namespace

qvapi::CameraCalibrationParam SampleCalibration()
{
    qvapi::CameraCalibrationParam p{};
    p.label = "sample module QV-640 #0001";
    p.depthLens = {0, 0, -0.112f, 0.041f, 0.0006f, -0.0004f, -0.006f,
                   462.3f, 461.8f, 321.6f, 238.9f, 640, 480};
    p.rgbLens = {0, 0, -0.095f, 0.012f, 0.0011f, -0.0007f, 0.002f,
                 1050.0f, 1049.2f, 958.2f, 543.7f, 1920, 1080};
    p.depthOffsetF1 = -0.214f;  // metres; Init makes it -214 mm
    p.depthOffsetF2 = -186.5f;  // mm
    // Wiggling (cyclic error) tables, mm per table step: a few millimetres.
    p.tableCountF1 = 39;
    for (int k = 0; k < 39; ++k)
        p.tableF1[k] = static_cast<float>(6.0 * std::sin(2.0 * M_PI * k / 19.0) +
                                          2.5 * std::cos(2.0 * M_PI * k / 9.5));
    p.tableCountF2 = 31;
    for (int k = 0; k < 31; ++k)
        p.tableF2[k] = static_cast<float>(5.0 * std::sin(2.0 * M_PI * k / 15.0 + 0.7) -
                                          1.5 * std::cos(2.0 * M_PI * k / 7.5));
    // Fixed-pattern phase-noise surfaces (x 100 gives mm over the sensor).
    const float f1[6] = {0.05f, 0.02f, -0.03f, -0.004f, 0.002f, 0.003f};
    const float f2[6] = {-0.04f, 0.015f, 0.025f, -0.002f, -0.003f, 0.001f};
    for (int i = 0; i < 6; ++i) {
        p.fppnF1[i] = f1[i];
        p.fppnF2[i] = f2[i];
    }
    // Colour camera 25 mm beside the depth camera, slightly rotated.
    RotationFromVector(0.0021, -0.0043, 0.0012, p.extrinsics);
    p.extrinsics[9] = -25.0f;
    p.extrinsics[10] = 0.4f;
    p.extrinsics[11] = 1.2f;
    return p;
}

qvapi::CameraCalibrationParam SampleBinnedCalibration()
{
    qvapi::CameraCalibrationParam p = SampleCalibration();
    p.depthLens.fx *= 0.5f;
    p.depthLens.fy *= 0.5f;
    p.depthLens.cx = (p.depthLens.cx + 0.5f) * 0.5f - 0.5f;
    p.depthLens.cy = (p.depthLens.cy + 0.5f) * 0.5f - 0.5f;
    p.depthLens.width = 320;
    p.depthLens.height = 240;
    return p;
}

}  // namespace qvsim
