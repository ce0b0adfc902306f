#ifndef QVRECONSTRUCTION_SRC_CALIBRATION_RECTIFY_MAP_H
#define QVRECONSTRUCTION_SRC_CALIBRATION_RECTIFY_MAP_H

#include "calibration/lens_model.h"

namespace qvapi {

// Fills mapX/mapY (columns x rows floats each, row-major) with the normalised
// coordinates of every pixel: the pinhole coordinates, then `rounds` in-place
// fixed-point rounds solving distort(x, y) = pinhole(u, v) for the ideal ray.
void ComputeRectifyMap(const LensModel& lens, int columns, int rows, int rounds, float* mapX,
                       float* mapY);

}  // namespace qvapi

#endif
