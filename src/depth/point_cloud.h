#ifndef QVRECONSTRUCTION_SRC_DEPTH_POINT_CLOUD_H
#define QVRECONSTRUCTION_SRC_DEPTH_POINT_CLOUD_H

#include <cstdint>

namespace qvapi {

// Width of the corner cut of the octagonal mask: 50 pixels at full resolution,
// scaled by the binning and halved again in the reduced stream.
inline int PointCloudCut(int binning, bool reducedStream)
{
    const int cut = 50 / binning;
    return reducedStream ? cut / 2 : cut;
}

// Inside the octagon: two pixels off every border and `cut` off every corner.
inline bool InPointCloudMask(int r, int c, int width, int height, int cut)
{
    return r >= 2 && r <= height - 2 && c >= 2 && c <= width - 2 && r + c >= cut &&
           r + c <= width + height - cut && c - r <= width - cut && r - c <= height - cut;
}

// One point (X, Y, Z) in mm per pixel: the pixel's normalised ray scaled by its depth,
// (0, 0, 0) outside the mask. The rays are read at (r * width * binning + c) * binning.
void PointCloud(const uint16_t* depth, int width, int height, int binning, int cut,
                const float* rayX, const float* rayY, float* cloud);

// The same points, row by row: the mask of a row is one interval of columns, so the
// loop inside it has no test per pixel. The result equals PointCloud's.
void PointCloudRows(const uint16_t* depth, int width, int height, int binning, int cut,
                    const float* rayX, const float* rayY, float* cloud);

}  // namespace qvapi

#endif
