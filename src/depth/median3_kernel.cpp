// 3 x 3 median of a 16-bit image in place, equal to cv::medianBlur(img, img, 3) with
// its replicated border. This file is compiled once per target (see
// simd/targets.h), into the namespace QV_KERNEL_NS.
//
// Each output row sorts the three values of every column of its window once; the
// median of a window is then the median of three numbers taken from its three sorted
// columns: the largest of the minima, the median of the middles and the smallest of
// the maxima. Minima and maxima over Highway vectors of 16-bit lanes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

inline uint16_t Median3(uint16_t a, uint16_t b, uint16_t c)
{
    return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

template <class V>
inline V Median3V(V a, V b, V c)
{
    return hn::Max(hn::Min(a, b), hn::Min(hn::Max(a, b), c));
}

// lo/mid/hi[x + 1] = the sorted r0[x], r1[x], r2[x]: whole vectors, then one by one.
void SortColumns3(const uint16_t* __restrict r0, const uint16_t* __restrict r1,
                  const uint16_t* __restrict r2, int n, uint16_t* __restrict lo,
                  uint16_t* __restrict mid, uint16_t* __restrict hi)
{
    const hn::ScalableTag<uint16_t> d;
    const int N = static_cast<int>(hn::Lanes(d));
    int x = 0;
    for (; x + N <= n; x += N) {
        const auto a = hn::LoadU(d, r0 + x), b = hn::LoadU(d, r1 + x), c = hn::LoadU(d, r2 + x);
        const auto ab = hn::Min(a, b), AB = hn::Max(a, b);
        hn::StoreU(hn::Min(ab, c), d, lo + x + 1);
        hn::StoreU(hn::Max(AB, c), d, hi + x + 1);
        hn::StoreU(hn::Max(ab, hn::Min(AB, c)), d, mid + x + 1);
    }
    for (; x < n; ++x) {
        const uint16_t a = r0[x], b = r1[x], c = r2[x];
        const uint16_t ab = std::min(a, b), AB = std::max(a, b);
        lo[x + 1] = std::min(ab, c);
        hi[x + 1] = std::max(AB, c);
        mid[x + 1] = std::max(ab, std::min(AB, c));
    }
}

// The median of each window: the largest of its columns' minima, the median of their
// middles and the smallest of their maxima.
void MedianOfSortedColumns3(const uint16_t* __restrict lo, const uint16_t* __restrict mid,
                            const uint16_t* __restrict hi, int n, uint16_t* __restrict out)
{
    const hn::ScalableTag<uint16_t> d;
    const int N = static_cast<int>(hn::Lanes(d));
    int x = 0;
    for (; x + N <= n; x += N) {
        const auto maxLo = hn::Max(hn::Max(hn::LoadU(d, lo + x), hn::LoadU(d, lo + x + 1)), hn::LoadU(d, lo + x + 2));
        const auto minHi = hn::Min(hn::Min(hn::LoadU(d, hi + x), hn::LoadU(d, hi + x + 1)), hn::LoadU(d, hi + x + 2));
        const auto midMid = Median3V(hn::LoadU(d, mid + x), hn::LoadU(d, mid + x + 1), hn::LoadU(d, mid + x + 2));
        hn::StoreU(Median3V(maxLo, midMid, minHi), d, out + x);
    }
    for (; x < n; ++x) {
        const uint16_t maxLo = std::max(std::max(lo[x], lo[x + 1]), lo[x + 2]);
        const uint16_t minHi = std::min(std::min(hi[x], hi[x + 1]), hi[x + 2]);
        out[x] = Median3(maxLo, Median3(mid[x], mid[x + 1], mid[x + 2]), minHi);
    }
}

}  // namespace

void Median3x3InPlace(uint16_t* img, int width, int height, uint16_t* scratch)
{
    // Scratch: the sorted columns with one replicated column on each side, and the
    // original of the row above (the row itself is overwritten by then).
    const size_t padded = static_cast<size_t>(width) + 2;
    uint16_t* lo = scratch;
    uint16_t* mid = lo + padded;
    uint16_t* hi = mid + padded;
    uint16_t* above = hi + padded;
    const size_t W = static_cast<size_t>(width);
    std::memcpy(above, img, W * sizeof(uint16_t));  // row 0 replicated upwards
    for (int y = 0; y < height; ++y) {
        uint16_t* row = img + y * W;
        const uint16_t* below = y + 1 < height ? row + W : row;
        SortColumns3(above, row, below, width, lo, mid, hi);
        lo[0] = lo[1], mid[0] = mid[1], hi[0] = hi[1];
        lo[W + 1] = lo[W], mid[W + 1] = mid[W], hi[W + 1] = hi[W];
        std::memcpy(above, row, W * sizeof(uint16_t));
        MedianOfSortedColumns3(lo, mid, hi, width, row);
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
