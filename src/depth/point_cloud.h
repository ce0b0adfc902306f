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

// The scale at which an image of width x height reads a ray map of mapWidth x mapHeight:
// 2 (a binned frame of the full sensor) when `binnedFits` allows it and the image fits
// the map twice over in both directions, else 1; 0 when the pixels inside the mask
// would read past the map at that scale. Sizes of any magnitude are safe.
inline int PointCloudScale(int width, int height, int mapWidth, int mapHeight, bool binnedFits)
{
    const int64_t mapSize = int64_t(mapWidth) * mapHeight;
    if (width <= 0 || height <= 0 || width > mapSize || height > mapSize)
        return 0;
    const int scale = binnedFits && 2 * width <= mapWidth && 2 * height <= mapHeight ? 2 : 1;
    // The furthest ray read: row height - 2, column width - 2.
    const int64_t last = ((int64_t(height) - 2) * width * scale + width - 2) * scale;
    return last < mapSize ? scale : 0;
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

// Points (rayX[c] * z, rayY[c] * z, z) of depth z = depth[c], c in [0, count), into
// out[3 c] .. out[3 c + 2], with the vector kernel of the running processor.
void PointCloudSpan(const uint16_t* depth, const float* rayX, const float* rayY, int count, float* out);

// The operation: PointCloudRows (PointCloud in a forced-scalar build).
void MakePointCloud(const uint16_t* depth, int width, int height, int binning, int cut,
                    const float* rayX, const float* rayY, float* cloud);

}  // namespace qvapi

#endif
