// Shared pieces of the per-pixel distance corrections.
#ifndef QVRECONSTRUCTION_SRC_DEPTH_WIGGLING_H
#define QVRECONSTRUCTION_SRC_DEPTH_WIGGLING_H

#include <cstdint>

#include "common/numeric.h"

namespace qvapi {

constexpr int kWigglingTableSize = 256;

// One correction into [0, range]: add the range below 0, then subtract it above;
// exactly `range` stays.
inline float WrapOnce(float d, float range)
{
    if (d < 0.0f)
        d += range;
    if (d > range)
        d -= range;
    return d;
}

// Linear look-up of the wiggling table at x = step * d. With `fold`, an index beyond
// `count` is folded back by count - 1 (an index equal to the count is kept).
// Indices are finally kept inside the table whatever the calibration.
inline float WigglingAt(const float* table, float step, float d, bool fold, int32_t count)
{
    const float x = step * d;
    const int32_t k = TruncToInt(x);
    const float f = x - static_cast<float>(k);
    // 64-bit, so that no table count (INT_MIN included) overflows the fold.
    int64_t k0 = k;
    int64_t k1 = f > 0.0f ? k0 + 1 : k0;
    if (fold) {
        if (k0 > count)
            k0 -= int64_t{count} - 1;
        if (k1 > count)
            k1 -= int64_t{count} - 1;
    }
    const auto inside = [](int64_t i) {
        return i < 0 ? 0 : (i >= kWigglingTableSize ? kWigglingTableSize - 1 : static_cast<int>(i));
    };
    return (1.0f - f) * table[inside(k0)] + f * table[inside(k1)];
}

}  // namespace qvapi

#endif
