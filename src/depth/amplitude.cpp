#include "depth/amplitude.h"

#include <cmath>

namespace qvapi {
namespace {

// The amplitude test of the scalar kernels for an energy I^2 + Q^2.
bool Strong(int64_t energy, float threshold)
{
    const float amplitude =
        static_cast<float>(std::sqrt(static_cast<float>(energy)) * 1.5707963265);
    return !(threshold > amplitude);
}

}  // namespace

int64_t MinValidEnergy(int32_t amplitudeThreshold)
{
    const float threshold = static_cast<float>(amplitudeThreshold);
    int64_t lo = 0, hi = int64_t(1) << 40;
    if (Strong(lo, threshold))
        return 0;
    if (!Strong(hi, threshold))
        return INT64_MAX;
    while (hi - lo > 1) {  // Strong(hi) and not Strong(lo)
        const int64_t mid = lo + (hi - lo) / 2;
        (Strong(mid, threshold) ? hi : lo) = mid;
    }
    return hi;
}

}  // namespace qvapi
