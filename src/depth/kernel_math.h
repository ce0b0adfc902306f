// Pieces of the depth converters' kernels, for the kernel files only (each is compiled
// once per target, and these functions with it): the polynomial arctangent, the
// one-shot wrap, the clamps and truncations and the sample words, on Highway vectors.
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
// squares on Chebyshev nodes, as close to minimax as float needs; 4.9e-9 rad in exact
// arithmetic, below the rounding of the result itself (1.9e-8 in float).
constexpr float kAtanCoef[4] = {-3.3332756669e-01f, 1.9971879303e-01f, -1.3824453730e-01f,
                                7.9025981016e-02f};

// atan2 lane by lane within 3e-7 rad (float's own spacing near pi is 2.4e-7), for
// inputs that are not NaN: atan on [0, 1], reduced to |u| <= tan(pi/8) by
// atan(t) = pi/4 + atan((t - 1) / (t + 1)) above tan(pi/8) (formed from lo and hi
// directly, so one division serves both cases), where the degree-9 odd polynomial
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
    V p = hn::Set(d, kAtanCoef[3]);
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
// second operand for NaN, on ARM64 the number (maxNum); elsewhere NaN needs the
// compares.
template <class V>
inline V ClampV(V v, V lo, V hi)
{
#if HWY_ARCH_X86 || (HWY_ARCH_ARM_A64 && HWY_TARGET == HWY_NEON)
    return hn::Min(hn::Max(v, lo), hi);
#else
    v = hn::IfThenElse(hn::Gt(v, lo), v, lo);
    return hn::IfThenElse(hn::Lt(v, hi), v, hi);
#endif
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

// The sample words of 2N pixels (N: the lanes of D) of one sub-row, where each pixel's
// two words lie side by side: its even and its odd word as 32-bit integers, for pixels
// [0, N) (half 0) and [N, 2N) (half 1). NEON deinterleaves on loading and widens each
// half with one instruction (a widening subtraction where two words are subtracted);
// x86 has no such loads, so there each 32-bit lane holds a pixel's pair and the words
// are taken apart by a mask and a shift.
template <class D>
struct SubRowWords {
    using DI = hn::RebindToSigned<D>;
    using DU = hn::RebindToUnsigned<D>;
    using D16 = hn::Repartition<uint16_t, D>;  // 2N lanes
    using V16 = hn::Vec<D16>;
#if HWY_TARGET == HWY_NEON
    static constexpr bool kDeinterleaved = true;
#else
    static constexpr bool kDeinterleaved = false;
#endif
    // Deinterleaved: the even words, the odd words; else the pairs of each half.
    V16 raw[2];

    explicit SubRowWords(const uint16_t* p)
    {
        const D16 d16;
        if constexpr (kDeinterleaved)
            hn::LoadInterleaved2(d16, p, raw[0], raw[1]);
        else
            raw[0] = hn::LoadU(d16, p), raw[1] = hn::LoadU(d16, p + hn::Lanes(d16));
    }
    template <bool kOdd>
    hn::Vec<DI> Word(int half) const
    {
        const DU du;
        if constexpr (kDeinterleaved) {
            const hn::Half<D16> dh;
            const V16 v = raw[kOdd ? 1 : 0];
            return hn::BitCast(DI(), half == 0 ? hn::PromoteTo(du, hn::LowerHalf(dh, v))
                                               : hn::PromoteTo(du, hn::UpperHalf(dh, v)));
        } else {
            const auto pairs = hn::BitCast(du, raw[half]);
            if constexpr (kOdd)
                return hn::BitCast(DI(), hn::ShiftRight<16>(pairs));
            else
                return hn::BitCast(DI(), hn::And(pairs, hn::Set(du, 0xFFFFu)));
        }
    }
};

// The pixels (per half, as above) with a word equal to `value` in either of two
// sub-rows: compared in 16-bit lanes, then widened to one mask lane a pixel.
template <class D>
inline void WordHits(const SubRowWords<D>& a, const SubRowWords<D>& b, uint16_t value,
                     hn::Mask<hn::RebindToSigned<D>> hits[2])
{
    using W = SubRowWords<D>;
    const typename W::D16 d16;
    const typename W::DI di;
    const auto v = hn::Set(d16, value);
    if constexpr (W::kDeinterleaved) {
        const auto any = hn::Or(hn::Or(hn::Eq(a.raw[0], v), hn::Eq(a.raw[1], v)),
                                hn::Or(hn::Eq(b.raw[0], v), hn::Eq(b.raw[1], v)));
        const hn::Repartition<int16_t, D> di16;
        const hn::Half<decltype(di16)> dh;
        const auto lanes = hn::BitCast(di16, hn::VecFromMask(d16, any));
        hits[0] = hn::MaskFromVec(hn::PromoteTo(di, hn::LowerHalf(dh, lanes)));
        hits[1] = hn::MaskFromVec(hn::PromoteTo(di, hn::UpperHalf(dh, lanes)));
    } else {
        for (int h = 0; h < 2; ++h) {
            const auto any = hn::Or(hn::Eq(a.raw[h], v), hn::Eq(b.raw[h], v));
            hits[h] = hn::Ne(hn::BitCast(di, hn::VecFromMask(d16, any)), hn::Zero(di));
        }
    }
}

}  // namespace
}  // namespace QV_KERNEL_NS
}  // namespace qvapi

#endif
