#ifndef QVRECONSTRUCTION_SRC_DEPTH_EDGE_FILTER_H
#define QVRECONSTRUCTION_SRC_DEPTH_EDGE_FILTER_H

#include <cstdint>

namespace qvapi {

// Flying-pixel removal on 2 x 2 blocks, in place: a pixel whose block (itself, right,
// below, below-right) deviates from the block mean by more than the threshold of
// that mean's distance band becomes 0. In the last column the right neighbours are
// the first pixels of the next rows, as they fall in the array. The last two rows
// become 0.
void EdgeFilter(uint16_t* depth, int width, int height);

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

}  // namespace qvapi

#endif
