#include "colour/false_colour.h"

#include <algorithm>

#include "common/numeric.h"

namespace qvapi {

int32_t FalseColourLevel(int32_t d, int32_t lo, int32_t hi)
{
    // min/max clamp the depth into [lo, hi] without a separate test.
    const int32_t a = std::min(d, lo);
    const int32_t b = std::max(d, hi);
    // Differences in 64 bits: any custom range the caller set stays defined.
    return TruncToIntIndefinite(static_cast<double>(int64_t(d) - a) /
                                static_cast<double>(int64_t(b) - a) * 1021.0);
}

void FalseColour(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb)
{
    for (size_t i = 0; i < n; ++i) {
        uint8_t* px = rgb + 3 * i;
        const int32_t d = depth[i];
        int r = 0, g = 0, b = 0;
        if (d == 1) {
            r = 127, b = 170;  // the marker value
        } else if (d != 0) {
            const int32_t v = FalseColourLevel(d, lo, hi);
            if (static_cast<uint32_t>(v) <= 128u)
                r = v + 127;
            else if (v < 0 || v >= 894)
                b = 128;  // navy: empty or reversed range, and the far end
            else if (v <= 383)
                r = 255, g = v - 128;
            else if (v <= 638)
                r = 638 - v, g = 255, b = v - 383;
            else
                g = 893 - v, b = 255;
        }
        px[0] = static_cast<uint8_t>(r);
        px[1] = static_cast<uint8_t>(g);
        px[2] = static_cast<uint8_t>(b);
    }
}

}  // namespace qvapi
