// The five-coefficient pinhole lens model shared by the rectification maps and the
// undistortion operations.
#ifndef QVRECONSTRUCTION_SRC_CALIBRATION_LENS_MODEL_H
#define QVRECONSTRUCTION_SRC_CALIBRATION_LENS_MODEL_H

#include "qvreconstruction/reconstruction.h"

namespace qvapi {

struct LensModel {
    float k1, k2, p1, p2, k3;
    float fx, fy, cx, cy;
};

inline LensModel LensOf(const Intrinsics& lens)
{
    return {lens.k1, lens.k2, lens.p1, lens.p2, lens.k3, lens.fx, lens.fy, lens.cx, lens.cy};
}

// Colour lens used when a calibration carries none (its fx is 0).
constexpr LensModel kDefaultColourLens = {-0.09826878f, 0.014067019f, 0.0033607031f,
                                          0.001895969f, 0.003046452f, 948.63586f,
                                          944.20496f,   983.40295f,   575.1525f};

// Forward model: ideal normalised coordinates to distorted normalised coordinates.
inline void Distort(const LensModel& l, float x, float y, float& xd, float& yd)
{
    const float r2 = x * x + y * y;
    const float radial = ((l.k3 * r2 + l.k2) * r2 + l.k1) * r2 + 1.0f;
    xd = x * radial + 2.0f * l.p1 * x * y + l.p2 * (r2 + 2.0f * x * x);
    yd = y * radial + l.p1 * (r2 + 2.0f * y * y) + 2.0f * l.p2 * x * y;
}

}  // namespace qvapi

#endif
