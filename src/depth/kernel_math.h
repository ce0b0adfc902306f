// Scalar pieces of the depth converters' kernels, for the kernel files only (each is
// compiled once per target, and these functions with it): the polynomial arctangent,
// the one-shot wrap, the truncations and the wiggling look-up, all branch-free so that
// the loops around them vectorise.
#ifndef QVRECONSTRUCTION_SRC_DEPTH_KERNEL_MATH_H
#define QVRECONSTRUCTION_SRC_DEPTH_KERNEL_MATH_H

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

constexpr float kPi = 3.14159265358979f;
constexpr float kHalfPi = 1.57079632679490f;
constexpr float kQuarterPi = 0.78539816339745f;

// atan(u) = u + u s P(s), s = u^2, on |u| <= tan(pi/8): P fitted by weighted least
// squares on Chebyshev nodes; 1.7e-10 rad in exact arithmetic, 1.9e-8 in float (the
// rounding of the result itself).
constexpr float kAtanCoef[5] = {-3.3333301544e-01f, 1.9997815788e-01f, -1.4233340323e-01f,
                                1.0528951138e-01f, -5.9327166528e-02f};

// atan2 within about 1e-7 rad: atan on [0, 1], reduced to |u| <= tan(pi/8) by
// atan(t) = pi/4 + atan((t - 1) / (t + 1)) above tan(pi/8) (formed from lo and hi
// directly, so one division serves both cases), where the degree-11 odd polynomial
// above is below float resolution; then folded into the four quadrants. Exact for the common exact cases: atan2(0, 0) = 0,
// atan2(0, x < 0) = pi (integer differences give +0), and |y| = |x| (pi/4 multiples).
inline float Atan2(float y, float x)
{
    const float ax = std::fabs(x), ay = std::fabs(y);
    const float hi = ax > ay ? ax : ay;
    const float lo = ax > ay ? ay : ax;
    // One division: above tan(pi/8), u = (t - 1) / (t + 1) = (lo - hi) / (lo + hi).
    const bool reduce = lo > 0.41421356f * hi;
    const float num = reduce ? lo - hi : lo;
    const float den = reduce ? lo + hi : std::max(hi, 1.0e-30f);  // 0 / 0 would be NaN; lo is 0 then
    const float u = num / den;
    const float s = u * u;
    float p = kAtanCoef[4];
    p = p * s + kAtanCoef[3];
    p = p * s + kAtanCoef[2];
    p = p * s + kAtanCoef[1];
    p = p * s + kAtanCoef[0];
    const float atanU = u + u * s * p;
    float a = reduce ? kQuarterPi + atanU : atanU;
    a = ay > ax ? kHalfPi - a : a;
    a = x < 0.0f ? kPi - a : a;
    return y < 0.0f ? -a : a;
}

inline float Wrap(float d, float range)
{
    d = d < 0.0f ? d + range : d;
    return d > range ? d - range : d;
}

// Truncation toward zero of a value kept within +-2^30 (NaN gives 0), as float.
inline float Trunc(float v)
{
    v = v > -1.0e9f ? v : -1.0e9f;  // NaN takes this side
    v = v < 1.0e9f ? v : 1.0e9f;
    return static_cast<float>(static_cast<int32_t>(v));
}

// Low 16 bits of the truncation toward zero; 0 for NaN and beyond the int32 range
// (-2^31 included, as in the plain kernels).
inline int32_t TruncLow16(float v)
{
    const bool inRange = (v > -2147483648.0f) & (v < 2147483648.0f);
    return static_cast<int32_t>(inRange ? v : 0.0f) & 0xFFFF;
}

// Wiggling look-up at x = step * d: an index beyond `count` folds back by count - 1
// (pass INT32_MAX for no folding); indices are kept inside the 256-entry table.
inline float Wiggling(const float* table, float step, float d, int32_t count)
{
    float x = step * d;
    x = x > 0.0f ? x : 0.0f;  // NaN too
    x = x < 1.0e6f ? x : 1.0e6f;
    int32_t k0 = static_cast<int32_t>(x);
    const float f = x - static_cast<float>(k0);
    int32_t k1 = k0 + (f > 0.0f);
    // k0 and k1 lie in [0, 1e6 + 1]: every count below -256 folds them past the table's
    // end and every count above 2^24 never folds them, so clamping the count changes
    // nothing but keeps the fold from overflowing.
    count = std::min(std::max(count, -256), 1 << 24);
    k0 -= (k0 > count) * (count - 1);
    k1 -= (k1 > count) * (count - 1);
    k0 = std::min(std::max(k0, 0), 255);
    k1 = std::min(std::max(k1, 0), 255);
    return (1.0f - f) * table[k0] + f * table[k1];
}

}  // namespace
}  // namespace QV_KERNEL_NS
}  // namespace qvapi

#endif
