// Pieces of the depth converters' kernels, for the kernel files only (each is compiled
// once per target, and these functions with it): the polynomial arctangent, the
// one-shot wrap, the clamps and truncations and the sample words, on Highway vectors;
// the wrap and the 16-bit truncation also on single values, for the scalar row ends.
#ifndef QVRECONSTRUCTION_SRC_DEPTH_KERNEL_MATH_H
#define QVRECONSTRUCTION_SRC_DEPTH_KERNEL_MATH_H

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

inline float Wrap(float d, float range)
{
    d = d < 0.0f ? d + range : d;
    return d > range ? d - range : d;
}

// Low 16 bits of the truncation toward zero; 0 for NaN and beyond the int32 range
// (-2^31 included, as in the plain kernels).
inline int32_t TruncLow16(float v)
{
    const bool inRange = (v > -2147483648.0f) & (v < 2147483648.0f);
    return static_cast<int32_t>(inRange ? v : 0.0f) & 0xFFFF;
}

// atan2 lane by lane within 3e-7 rad (float's own spacing near pi is 2.4e-7), for
// inputs that are not NaN: atan on [0, 1], reduced to |u| <= tan(pi/8) by
// atan(t) = pi/4 + atan((t - 1) / (t + 1)) above tan(pi/8) (formed from lo and hi
// directly, so one division serves both cases), where the degree-11 odd polynomial
// above is below float resolution; then folded into the four quadrants by the signs of
// x and y, as std::atan2 does (signed zeros included). Exact for the common exact
// cases: atan2(0, 0) = 0, atan2(0, x < 0) = pi, and |y| = |x| (pi/4 multiples).
template <class D, class V = hn::Vec<D>>
inline V Atan2V(D d, V y, V x)
{
    const V ax = hn::Abs(x), ay = hn::Abs(y);
    const V hi = hn::Max(ax, ay), lo = hn::Min(ax, ay);
    const auto reduce = hn::Gt(lo, hn::Mul(hn::Set(d, 0.41421356f), hi));
    const V num = hn::IfThenElse(reduce, hn::Sub(lo, hi), lo);
    // 0 / 0 would be NaN; lo is 0 then.
    const V den = hn::IfThenElse(reduce, hn::Add(lo, hi), hn::Max(hi, hn::Set(d, 1.0e-30f)));
    const V u = hn::Div(num, den);
    const V s = hn::Mul(u, u);
    V p = hn::Set(d, kAtanCoef[4]);
    p = hn::MulAdd(p, s, hn::Set(d, kAtanCoef[3]));
    p = hn::MulAdd(p, s, hn::Set(d, kAtanCoef[2]));
    p = hn::MulAdd(p, s, hn::Set(d, kAtanCoef[1]));
    p = hn::MulAdd(p, s, hn::Set(d, kAtanCoef[0]));
    V a = hn::MulAdd(hn::Mul(u, s), p, u);
    a = hn::Add(a, hn::IfThenElseZero(reduce, hn::Set(d, kQuarterPi)));
    a = hn::IfThenElse(hn::Gt(ay, ax), hn::Sub(hn::Set(d, kHalfPi), a), a);
    a = hn::IfNegativeThenElse(x, hn::Sub(hn::Set(d, kPi), a), a);
    return hn::CopySignToAbs(a, y);
}

// d + range below 0, d - range above range (the distance's one-shot wrap).
template <class V>
inline V WrapV(V d, V range)
{
    const auto zero = hn::Zero(hn::DFromV<V>());
    d = hn::IfThenElse(hn::Lt(d, zero), hn::Add(d, range), d);
    return hn::IfThenElse(hn::Gt(d, range), hn::Sub(d, range), d);
}

// v kept within [lo, hi], NaN giving lo. On x86 the minimum and maximum give their
// second operand for NaN; elsewhere NaN needs the compares.
template <class V>
inline V ClampV(V v, V lo, V hi)
{
#if HWY_ARCH_X86
    return hn::Min(hn::Max(v, lo), hi);
#else
    v = hn::IfThenElse(hn::Gt(v, lo), v, lo);
    return hn::IfThenElse(hn::Lt(v, hi), v, hi);
#endif
}

// Trunc: the integer part, kept within +-1e9 (NaN gives -1e9).
template <class V>
inline V TruncV(V v)
{
    const hn::DFromV<V> d;
    return hn::Trunc(ClampV(v, hn::Set(d, -1.0e9f), hn::Set(d, 1.0e9f)));
}

// The low 16 bits of the truncation toward zero, as TruncLow16 lane by lane: 0 for NaN
// and beyond the int32 range.
template <class V>
inline hn::Vec<hn::RebindToSigned<hn::DFromV<V>>> TruncLow16V(V v)
{
    const hn::DFromV<V> d;
    const hn::RebindToSigned<decltype(d)> di;
    const auto inRange = hn::And(hn::Gt(v, hn::Set(d, -2147483648.0f)), hn::Lt(v, hn::Set(d, 2147483648.0f)));
    return hn::And(hn::ConvertTo(di, hn::IfThenElseZero(inRange, v)), hn::Set(di, 0xFFFF));
}

// Sample words read two to a 32-bit lane: the even word of each pair, or the odd.
template <bool kOdd, class VU>
inline hn::Vec<hn::RebindToSigned<hn::DFromV<VU>>> Word(VU pair)
{
    const hn::RebindToSigned<hn::DFromV<VU>> di;
    if constexpr (kOdd)
        return hn::BitCast(di, hn::ShiftRight<16>(pair));
    else
        return hn::BitCast(di, hn::And(pair, hn::Set(hn::DFromV<VU>(), 0xFFFFu)));
}

}  // namespace
}  // namespace QV_KERNEL_NS
}  // namespace qvapi

#endif
