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
    int32_t k0 = TruncToInt(x);
    const float f = x - static_cast<float>(k0);
    int32_t k1 = f > 0.0f ? k0 + 1 : k0;
    if (fold) {
        if (k0 > count)
            k0 -= count - 1;
        if (k1 > count)
            k1 -= count - 1;
    }
    k0 = ClampIndex(k0, kWigglingTableSize);
    k1 = ClampIndex(k1, kWigglingTableSize);
    return (1.0f - f) * table[k0] + f * table[k1];
}

}  // namespace qvapi

#endif
