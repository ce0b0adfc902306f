// The registration's projection of one 640-pixel depth row. This file is compiled once
// per target (see simd/targets.h), into the namespace QV_KERNEL_NS.
#include <climits>
#include <cstdint>

#include "simd/kernel.h"
#include "registration/map_depth_to_rgb.h"
#include "registration/registration_kernels.h"

namespace qvapi {
namespace QV_KERNEL_NS {

// One depth row through the registration geometry: target[c] is the index of the
// colour pixel depth pixel c lands on (-1: skipped); column[c] is that pixel's column
// when the landing fills its neighbours and the column's complement (negative) when
// it lies too near the border to; `extent` widens to the row's landings. The
// arithmetic is the scalar kernel's, operation for operation (no fused multiply-adds;
// a pixel that lands nowhere is never converted to an integer).
void ProjectRowKernel(const uint16_t* __restrict depth, const float* __restrict rayX,
                      const float* __restrict rayY, const RegistrationParams& p, int width,
                      int height, int32_t* __restrict target, int32_t* __restrict column,
                      LandingExtent& extent)
{
    const hn::ScalableTag<float> df;
    const hn::RebindToSigned<decltype(df)> di;
    const hn::Rebind<uint16_t, decltype(df)> d16;
    // A row is 640 pixels: whole vectors on every target.
    constexpr int N = static_cast<int>(hn::MaxLanes(df));
    static_assert(640 % N == 0, "a depth row is a whole number of vectors");
    const auto r0 = hn::Set(df, p.R[0]), r1 = hn::Set(df, p.R[1]), r2 = hn::Set(df, p.R[2]);
    const auto r3 = hn::Set(df, p.R[3]), r4 = hn::Set(df, p.R[4]), r5 = hn::Set(df, p.R[5]);
    const auto r6 = hn::Set(df, p.R[6]), r7 = hn::Set(df, p.R[7]), r8 = hn::Set(df, p.R[8]);
    const auto t0 = hn::Set(df, p.t[0]), t1 = hn::Set(df, p.t[1]), t2 = hn::Set(df, p.t[2]);
    const auto fx = hn::Set(df, p.fx), fy = hn::Set(df, p.fy), cx = hn::Set(df, p.cx), cy = hn::Set(df, p.cy);
    const auto w = hn::Set(df, static_cast<float>(width)), h = hn::Set(df, static_cast<float>(height));
    const auto minusOne = hn::Set(df, -1.0f);
    const auto nine = hn::Set(di, 9), one = hn::Set(di, 1), iw = hn::Set(di, width);
    const auto uEnd = hn::Set(di, width - 2), vEnd = hn::Set(di, height - 2);
    const auto none = hn::Set(di, INT32_MAX);
    auto first = hn::Set(di, extent.first), last = hn::Set(di, extent.last);
    auto left = hn::Set(di, extent.left), right = hn::Set(di, extent.right);
    for (int c = 0; c < 640; c += N) {
        const auto d = hn::PromoteTo(di, hn::LoadU(d16, depth + c));
        const auto Z = hn::ConvertTo(df, d);
        const auto X = hn::Mul(hn::LoadU(df, rayX + c), Z);
        const auto Y = hn::Mul(hn::LoadU(df, rayY + c), Z);
        const auto xc = hn::Add(hn::Add(hn::Add(hn::Mul(r0, X), hn::Mul(r1, Y)), hn::Mul(r2, Z)), t0);
        const auto yc = hn::Add(hn::Add(hn::Add(hn::Mul(r3, X), hn::Mul(r4, Y)), hn::Mul(r5, Z)), t1);
        const auto zc = hn::Add(hn::Add(hn::Add(hn::Mul(r6, X), hn::Mul(r7, Y)), hn::Mul(r8, Z)), t2);
        const auto fu = hn::Add(hn::Mul(hn::Div(xc, zc), fx), cx);
        const auto fv = hn::Add(hn::Mul(hn::Div(yc, zc), fy), cy);
        // NaN fails every comparison and lands nowhere.
        const auto inside = hn::And(hn::And(hn::Gt(fu, minusOne), hn::Lt(fu, w)),
                                    hn::And(hn::Gt(fv, minusOne), hn::Lt(fv, h)));
        const auto landsF = hn::And(inside, hn::RebindMask(df, hn::Gt(d, nine)));
        const auto lands = hn::RebindMask(di, landsF);
        const auto u = hn::ConvertTo(di, hn::IfThenElseZero(landsF, fu));
        const auto v = hn::ConvertTo(di, hn::IfThenElseZero(landsF, fv));
        const auto t = hn::IfThenElse(lands, hn::Add(hn::Mul(v, iw), u), hn::Set(di, -1));
        // 2 <= u <= width - 3 and 2 <= v <= height - 3.
        const auto inner = hn::And(hn::And(hn::Gt(u, one), hn::Lt(u, uEnd)),
                                   hn::And(hn::Gt(v, one), hn::Lt(v, vEnd)));
        hn::StoreU(t, di, target + c);
        hn::StoreU(hn::IfThenElse(inner, u, hn::Not(u)), di, column + c);
        // A pixel that lands nowhere has t = -1 and u = 0, below every landing.
        first = hn::Min(first, hn::IfThenElse(lands, t, none));
        last = hn::Max(last, t);
        left = hn::Min(left, hn::IfThenElse(lands, u, none));
        right = hn::Max(right, u);
    }
    extent.first = hn::GetLane(hn::MinOfLanes(di, first));
    extent.last = hn::GetLane(hn::MaxOfLanes(di, last));
    extent.left = hn::GetLane(hn::MinOfLanes(di, left));
    extent.right = hn::GetLane(hn::MaxOfLanes(di, right));
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
