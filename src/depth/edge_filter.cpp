#include "depth/edge_filter.h"

#include <cmath>
#include <cstddef>
#include <cstring>

namespace qvapi {

void EdgeFilter(uint16_t* depth, int width, int height)
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

}  // namespace qvapi
