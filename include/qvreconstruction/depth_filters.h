// Depth post-filters for 16-bit depth images (mm, 0 = no depth, row-major), offered
// beside the reconstruction interface. All work in place and allocate only scratch
// memory of their own. Images wider or taller than 65535 pixels are left unchanged
// by SpeckleFilter; null images and empty sizes are ignored by all.
//
//   uint16_t* depth = ...;                         // from CalculateDepth
//   qvapi::OkadaFilter(depth, 640, 480);           // flatten one-pixel spikes
//   qvapi::SpeckleFilter(depth, 640, 480, 50, 30); // drop blobs of <= 50 pixels
#ifndef QVRECONSTRUCTION_DEPTH_FILTERS_H
#define QVRECONSTRUCTION_DEPTH_FILTERS_H

#include <cstdint>

#include "qvreconstruction/export.h"

namespace qvapi {

// Flying-pixel removal on 2 x 2 blocks (the filter CalculateDepth runs after its 3 x 3
// median): a pixel whose block deviates from the block mean by more than a threshold
// of the mean's distance band becomes 0; the last two rows become 0.
QV_EXPORT void EdgeFilter(uint16_t* depth, int width, int height);

// Removes a pixel whose mean absolute difference to its non-zero 3 x 3 neighbours
// (itself counted) exceeds depth * madThreshold / 500; 15 allows 3 %.
QV_EXPORT void EdgeFilterMad(uint16_t* depth, int width, int height, int madThreshold);

// Flattens one-pixel peaks and pits, along rows and then along columns: a value
// where the slope changes sign becomes the mean of its two neighbours.
QV_EXPORT void OkadaFilter(uint16_t* depth, int width, int height);

// Removes four-connected regions of at most maxSpeckleSize pixels, a neighbour
// joining a region when its depth is within maxDiff of the pixel it is reached from.
QV_EXPORT void SpeckleFilter(uint16_t* depth, int width, int height, int maxSpeckleSize,
                             int maxDiff);

}  // namespace qvapi

#endif  // QVRECONSTRUCTION_DEPTH_FILTERS_H
