#include "depth/edge_filter.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(bool EdgeFilterRows(uint16_t* depth, int width, int height);
              void Median3x3InPlace(uint16_t* img, int width, int height, uint16_t* scratch);)

void EdgeFilterPlain(uint16_t* depth, int width, int height)
{
    if (depth == nullptr || width <= 0 || height <= 0)
        return;
    // In place: pixel i reads only pixels at i and after, and is written after it
    // has been read, so no later pixel sees a filtered value.
    const int blockRows = height - 2;
    for (int r = 0; r < blockRows; ++r) {
        for (int c = 0; c < width; ++c) {
            const size_t i = static_cast<size_t>(r) * width + c;
            const int p = depth[i];
            const int right = depth[i + 1];
            const int below = depth[i + width];
            const int belowRight = depth[i + width + 1];
            const int mean = static_cast<uint16_t>((p + right + below + belowRight) >> 2);
            const int64_t sq = int64_t(p - mean) * (p - mean) + int64_t(right - mean) * (right - mean) +
                               int64_t(below - mean) * (below - mean) +
                               int64_t(belowRight - mean) * (belowRight - mean);
            const int dev = static_cast<uint16_t>(static_cast<int64_t>(std::sqrt(static_cast<double>(sq))));
            if (dev > EdgeThreshold(mean))
                depth[i] = 0;
        }
    }
    const int firstZeroRow = blockRows > 0 ? blockRows : 0;
    std::memset(depth + static_cast<size_t>(firstZeroRow) * width, 0,
                sizeof(uint16_t) * static_cast<size_t>(height - firstZeroRow) * width);
}

void EdgeFilterFast(uint16_t* depth, int width, int height)
{
    if (depth == nullptr || width <= 0 || height <= 2)
        return EdgeFilterPlain(depth, width, height);
    const bool done = QV_DISPATCH(EdgeFilterRows)(depth, width, height);
    if (!done)
        EdgeFilterPlain(depth, width, height);
}

void EdgeFilter(uint16_t* depth, int width, int height)
{
    if (FastPathsEnabled())
        EdgeFilterFast(depth, width, height);
    else
        EdgeFilterPlain(depth, width, height);
}

void MedianBlur3x3InPlace(uint16_t* img, int width, int height)
{
    if (img == nullptr || width <= 0 || height <= 0)
        return;
    std::vector<uint16_t> scratch(4 * (static_cast<size_t>(width) + 2));
    QV_DISPATCH(Median3x3InPlace)(img, width, height, scratch.data());
}

}  // namespace qvapi
