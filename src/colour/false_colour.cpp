#include "colour/false_colour.h"

#include <algorithm>
#include <vector>

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

namespace {

// The colour of one depth value.
inline void Paint(int32_t d, int32_t lo, int32_t hi, uint8_t* px)
{
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

}  // namespace

void FalseColour(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb)
{
    for (size_t i = 0; i < n; ++i)
        Paint(depth[i], lo, hi, rgb + 3 * i);
}

void FalseColourFast(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb)
{
    if (!(lo < hi) || int64_t(hi) - lo > 65535)
        return FalseColour(depth, n, lo, hi, rgb);
    // With lo < hi a depth below lo has level 0, as lo itself, and one above hi level
    // 1021, as hi itself: the table of [lo, hi] serves every depth but the two
    // reserved values.
    const int32_t first = std::max(lo, 2), last = std::min(hi, 65535);
    if (first > last)
        return FalseColour(depth, n, lo, hi, rgb);
    std::vector<uint8_t> table(3 * static_cast<size_t>(std::max(last - first + 1, 1)));
    for (int32_t d = first; d <= last; ++d)
        Paint(d, lo, hi, &table[3 * static_cast<size_t>(d - first)]);
    uint8_t special[2][3];
    Paint(0, lo, hi, special[0]);
    Paint(1, lo, hi, special[1]);
    for (size_t i = 0; i < n; ++i) {
        const int32_t d = depth[i];
        const uint8_t* c = d <= 1 ? special[d]
                                  : &table[3 * static_cast<size_t>(std::min(std::max(d, first), last) - first)];
        rgb[3 * i] = c[0];
        rgb[3 * i + 1] = c[1];
        rgb[3 * i + 2] = c[2];
    }
}

}  // namespace qvapi
