#ifndef QVRECONSTRUCTION_SRC_DEPTH_EDGE_FILTER_H
#define QVRECONSTRUCTION_SRC_DEPTH_EDGE_FILTER_H

#include "qvreconstruction/depth_filters.h"

namespace qvapi {

// The deviation threshold, mm, for a block mean in mm.
inline int EdgeThreshold(int mean)
{
    if (mean <= 1000) return 30;
    if (mean <= 2000) return 40;
    if (mean <= 3000) return 30;  // the band falls back to the near-range value
    if (mean <= 4000) return 50;
    if (mean <= 5000) return 60;
    return 80;
}

// The edge filter as a plain loop (the reference), and with the vector kernel of the
// running processor (equal results). The exported EdgeFilter runs the second where
// fast paths are enabled.
void EdgeFilterPlain(uint16_t* depth, int width, int height);
void EdgeFilterFast(uint16_t* depth, int width, int height);

// The 3 x 3 median of a 16-bit image in place, equal to cv::medianBlur(img, img, 3)
// (replicated border).
void MedianBlur3x3InPlace(uint16_t* img, int width, int height);

}  // namespace qvapi

#endif
