// The edge filter's kernel, compiled once per target (see simd/targets.h).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "depth/edge_filter.h"
#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {

bool EdgeFilterRows(uint16_t* depth, int width, int height)
{
    // The block of pixel i is i, i + 1, i + W, i + W + 1 in the array, whatever the
    // column: the last column's right neighbours are the next row's first pixels. A
    // pixel is written after its block is read, and later pixels read only later
    // positions, so the filter works in place.
    const size_t W = static_cast<size_t>(width);
    const size_t n = static_cast<size_t>(height - 2) * W;
    // Pair sums and deviations fit 16 bits only for depths below 32768 (and above it the
    // plain filter's deviation can wrap): other images go to the scalar kernel.
    uint16_t top = 0;
    const size_t all = static_cast<size_t>(height) * W;
    for (size_t i = 0; i < all; ++i)
        top = depth[i] > top ? depth[i] : top;
    if (top >= 32768)
        return false;
    constexpr size_t kBlock = 64;
    uint16_t result[kBlock];
    for (size_t start = 0; start < n; start += kBlock) {
        const size_t count = n - start < kBlock ? n - start : kBlock;
        const uint16_t* d = depth + start;
        for (size_t k = 0; k < count; ++k) {
            // Sixteen-bit lanes throughout: pair sums of depths below 32768 fit, and the
            // mean is the floor of their sum over 4 assembled from the parts.
            const uint16_t p = d[k], right = d[k + 1], below = d[k + W], br = d[k + W + 1];
            const uint16_t s1 = static_cast<uint16_t>(p + right), s2 = static_cast<uint16_t>(below + br);
            const uint16_t mean = static_cast<uint16_t>((s1 >> 2) + (s2 >> 2) + (((s1 & 3) + (s2 & 3)) >> 2));
            // trunc(sqrt(sq)) > T exactly when sq >= (T + 1)^2 (sq < 2^32 here). No
            // threshold is above 80, so a deviation of 81 or more rejects the pixel
            // whatever the others are: deviations clamped to 81 keep the outcome and
            // keep the squares' sum below 2^15.
            const auto square = [mean](uint16_t v) {
                const int16_t dv = static_cast<int16_t>(v - mean);
                int16_t dev = static_cast<int16_t>(dv < 0 ? -dv : dv);
                dev = dev < 81 ? dev : 81;
                return static_cast<uint16_t>(dev * dev);
            };
            const uint16_t sq = static_cast<uint16_t>(square(p) + square(right) + square(below) + square(br));
            // The threshold T of the block mean's band: 30 up to 1000, 40 up to 2000, 30 up
            // to 3000 (the band falls back), 50 up to 4000, 60 up to 5000, 80 above.
            // A sum of steps rather than a table or a chain of selects, so that it
            // vectorises without gathers or branches: above(b) is all ones exactly
            // when mean > b.
            const auto above = [mean](int b) { return static_cast<int16_t>(b - mean) >> 15; };
            const uint16_t limit = static_cast<uint16_t>(
                31 * 31 + (above(1000) & (41 * 41 - 31 * 31)) - (above(2000) & (41 * 41 - 31 * 31)) +
                (above(3000) & (51 * 51 - 31 * 31)) + (above(4000) & (61 * 61 - 51 * 51)) +
                (above(5000) & (81 * 81 - 61 * 61)));
            result[k] = static_cast<uint16_t>(p * (sq < limit));
        }
        // Reads of the next block start at its own first pixel: storing now is safe.
        std::memcpy(depth + start, result, count * sizeof(uint16_t));
    }
    std::memset(depth + n, 0, 2 * W * sizeof(uint16_t));
    return true;
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
