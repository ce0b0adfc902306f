// The edge filter's kernel, compiled once per target (see simd/targets.h) and written
// once over Highway vectors of 16-bit lanes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "depth/edge_filter.h"
#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

// The filter of the pixels [from, to) one by one, as the vector loop does it.
void EdgeFilterPixels(uint16_t* depth, size_t W, size_t from, size_t to)
{
    for (size_t k = from; k < to; ++k) {
        const uint16_t p = depth[k], right = depth[k + 1], below = depth[k + W], br = depth[k + W + 1];
        const uint16_t s1 = static_cast<uint16_t>(p + right), s2 = static_cast<uint16_t>(below + br);
        const int mean = (s1 >> 2) + (s2 >> 2) + (((s1 & 3) + (s2 & 3)) >> 2);
        const auto square = [mean](int v) {
            const int dev = std::min(v > mean ? v - mean : mean - v, 81);
            return dev * dev;
        };
        const int sq = square(p) + square(right) + square(below) + square(br);
        const int limit = EdgeThreshold(mean) + 1;
        depth[k] = sq < limit * limit ? p : 0;
    }
}

}  // namespace

bool EdgeFilterRows(uint16_t* depth, int width, int height)
{
    // The block of pixel i is i, i + 1, i + W, i + W + 1 in the array, whatever the
    // column: the last column's right neighbours are the next row's first pixels. A
    // vector of pixels is written after its blocks are read, and later pixels read only
    // later positions, so the filter works in place.
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

    // Signed 16-bit lanes throughout (every value below 32768): pair sums of depths fit
    // unsigned, and the mean is the floor of their sum over 4 assembled from the parts.
    // trunc(sqrt(sq)) > T exactly when sq >= (T + 1)^2. No threshold is above 80, so a
    // deviation of 81 or more rejects the pixel whatever the others are: deviations
    // clamped to 81 keep the outcome and keep the squares' sum below 2^15.
    const hn::ScalableTag<int16_t> d;
    const size_t N = hn::Lanes(d);
    const auto three = hn::Set(d, 3), cap = hn::Set(d, 81);
    const auto load = [&](size_t at) { return hn::LoadU(d, reinterpret_cast<const int16_t*>(depth) + at); };
    size_t i = 0;
    for (; i + N <= n; i += N) {
        const auto p = load(i), right = load(i + 1), below = load(i + W), br = load(i + W + 1);
        const hn::RebindToUnsigned<decltype(d)> du;
        const auto s1 = hn::BitCast(du, hn::Add(p, right)), s2 = hn::BitCast(du, hn::Add(below, br));
        const auto parts = hn::Add(hn::ShiftRight<2>(s1), hn::ShiftRight<2>(s2));
        const auto carry = hn::ShiftRight<2>(hn::Add(hn::And(s1, hn::BitCast(du, three)), hn::And(s2, hn::BitCast(du, three))));
        const auto mean = hn::BitCast(d, hn::Add(parts, carry));
        const auto square = [&](decltype(p) v) {
            const auto dev = hn::Min(hn::Abs(hn::Sub(v, mean)), cap);
            return hn::Mul(dev, dev);
        };
        const auto sq = hn::Add(hn::Add(square(p), square(right)), hn::Add(square(below), square(br)));
        // (T + 1)^2 of the mean's band: 31 up to 1000, 41 up to 2000, 31 up to 3000 (the
        // band falls back), 51 up to 4000, 61 up to 5000, 81 above.
        auto limit = hn::Set(d, 31 * 31);
        limit = hn::IfThenElse(hn::Gt(mean, hn::Set(d, 1000)), hn::Set(d, 41 * 41), limit);
        limit = hn::IfThenElse(hn::Gt(mean, hn::Set(d, 2000)), hn::Set(d, 31 * 31), limit);
        limit = hn::IfThenElse(hn::Gt(mean, hn::Set(d, 3000)), hn::Set(d, 51 * 51), limit);
        limit = hn::IfThenElse(hn::Gt(mean, hn::Set(d, 4000)), hn::Set(d, 61 * 61), limit);
        limit = hn::IfThenElse(hn::Gt(mean, hn::Set(d, 5000)), hn::Set(d, 81 * 81), limit);
        hn::StoreU(hn::IfThenElseZero(hn::Lt(sq, limit), p), d, reinterpret_cast<int16_t*>(depth) + i);
    }
    EdgeFilterPixels(depth, W, i, n);
    std::memset(depth + n, 0, 2 * W * sizeof(uint16_t));
    return true;
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
