// NV12 to BGR, equal to cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_NV12): BT.601 video
// range in 20-bit fixed point,
//   y = max(Y - 16, 0) * 1220542
//   R = sat((y + 2^19 + 1673527 (V - 128)) >> 20)
//   G = sat((y + 2^19 - 852492 (V - 128) - 409993 (U - 128)) >> 20)
//   B = sat((y + 2^19 + 2116026 (U - 128)) >> 20)
// with sat clamping to [0, 255]. The sums stay within int32 for every input. This file
// is compiled once per target (see simd/targets.h), into the namespace QV_KERNEL_NS.
//
// Each 32-bit lane holds four pixels of a luma row and, read from the chroma row, their
// two U, V pairs; the pixels are taken apart with shifts and masks and put back with
// shifts, ors and odd/even lane selects within each 32-bit lane, so the bytes come out
// in pixel order on every target without reordering across lanes. A chroma row serves
// two luma rows.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

constexpr int32_t kY = 1220542, kUB = 2116026, kUG = -409993, kVG = -852492, kVR = 1673527;
constexpr int32_t kHalf = 1 << 19;

inline uint8_t Saturate(int32_t v) { return static_cast<uint8_t>(std::min(std::max(v, 0), 255)); }

// One pixel pair of a row: luma y0, y1 and their chroma.
inline void PairScalar(const uint8_t* luma, int u, int v, uint8_t* out)
{
    const int32_t r = kHalf + kVR * (v - 128), g = kHalf + kVG * (v - 128) + kUG * (u - 128);
    const int32_t b = kHalf + kUB * (u - 128);
    for (int k = 0; k < 2; ++k) {
        const int32_t y = std::max(luma[k] - 16, 0) * kY;
        out[3 * k] = Saturate((y + b) >> 20);
        out[3 * k + 1] = Saturate((y + g) >> 20);
        out[3 * k + 2] = Saturate((y + r) >> 20);
    }
}

// Byte k of each 32-bit lane, as a signed value.
template <int k, class VU>
inline hn::Vec<hn::RebindToSigned<hn::DFromV<VU>>> Byte(VU v)
{
    const hn::DFromV<VU> du;
    const hn::RebindToSigned<decltype(du)> di;
    if constexpr (k == 3)
        return hn::BitCast(di, hn::ShiftRight<24>(v));
    else
        return hn::BitCast(di, hn::And(hn::ShiftRight<8 * k>(v), hn::Set(du, 0xFFu)));
}

// A channel of four pixels a lane, pixel k in byte k: sat((y_k + c_k) >> 20). The
// sums' high halves (which fit 16 bits) are paired into 16-bit lanes, pixels 0 and 2
// in one vector and 1 and 3 in another, so that the last shift by 4 and the clamp
// take two values an operation: (s >> 16) >> 4 is s >> 20 for arithmetic shifts.
template <class VI>
inline hn::Vec<hn::RebindToUnsigned<hn::DFromV<VI>>> Channel(VI y0, VI y1, VI y2, VI y3, VI c01,
                                                             VI c23)
{
    const hn::DFromV<VI> di;
    const hn::RebindToUnsigned<decltype(di)> du;
    const hn::Repartition<int16_t, decltype(di)> d16;
    const auto lo = hn::Zero(d16), hi = hn::Set(d16, 255);
    const auto pairUp = [&](VI first, VI second) {
        // The even 16-bit lane takes first's high half, the odd lane second's.
        const auto both = hn::OddEven(hn::BitCast(d16, hn::Add(second, c23)),
                                      hn::BitCast(d16, hn::ShiftRight<16>(hn::Add(first, c01))));
        return hn::BitCast(du, hn::Min(hn::Max(hn::ShiftRight<4>(both), lo), hi));
    };
    return hn::Or(pairUp(y0, y2), hn::ShiftLeft<8>(pairUp(y1, y3)));
}

}  // namespace

void Nv12ToBgrRows(const uint8_t* nv12, int width, int height, uint8_t* bgr)
{
    const hn::ScalableTag<uint32_t> du;
    const hn::RebindToSigned<decltype(du)> di;
    const hn::Repartition<uint8_t, decltype(du)> d8;
    const int step = static_cast<int>(hn::Lanes(d8));  // pixels a vector
    const auto sixteen = hn::Set(d8, 16);
    const auto yScale = hn::Set(di, kY);
    const auto vr = hn::Set(di, kVR), vg = hn::Set(di, kVG), ug = hn::Set(di, kUG), ub = hn::Set(di, kUB);
    // The rounding half and the chroma's offset of 128, folded into one constant a channel.
    const auto rBias = hn::Set(di, kHalf - 128 * kVR), bBias = hn::Set(di, kHalf - 128 * kUB);
    const auto gBias = hn::Set(di, kHalf - 128 * (kVG + kUG));
    const size_t w = static_cast<size_t>(width);
    const uint8_t* chroma = nv12 + w * static_cast<size_t>(height);
    for (int row = 0; row + 1 < height; row += 2) {
        const uint8_t* uv = chroma + w * static_cast<size_t>(row / 2);
        int x = 0;
        for (; x + step <= width; x += step) {
            const auto c = hn::BitCast(du, hn::LoadU(d8, uv + x));
            const auto u0 = Byte<0>(c), v0 = Byte<1>(c), u1 = Byte<2>(c), v1 = Byte<3>(c);
            const auto r01 = hn::Add(hn::Mul(v0, vr), rBias), r23 = hn::Add(hn::Mul(v1, vr), rBias);
            const auto b01 = hn::Add(hn::Mul(u0, ub), bBias), b23 = hn::Add(hn::Mul(u1, ub), bBias);
            const auto g01 = hn::Add(hn::Add(hn::Mul(v0, vg), hn::Mul(u0, ug)), gBias);
            const auto g23 = hn::Add(hn::Add(hn::Mul(v1, vg), hn::Mul(u1, ug)), gBias);
            for (int r = 0; r < 2; ++r) {
                const size_t line = static_cast<size_t>(row + r) * w;
                const auto luma = hn::BitCast(du, hn::SaturatedSub(hn::LoadU(d8, nv12 + line + x), sixteen));
                const auto y0 = hn::Mul(Byte<0>(luma), yScale), y1 = hn::Mul(Byte<1>(luma), yScale);
                const auto y2 = hn::Mul(Byte<2>(luma), yScale), y3 = hn::Mul(Byte<3>(luma), yScale);
                hn::StoreInterleaved3(hn::BitCast(d8, Channel(y0, y1, y2, y3, b01, b23)),
                                      hn::BitCast(d8, Channel(y0, y1, y2, y3, g01, g23)),
                                      hn::BitCast(d8, Channel(y0, y1, y2, y3, r01, r23)), d8,
                                      bgr + 3 * (line + static_cast<size_t>(x)));
            }
        }
        for (; x + 1 < width; x += 2)
            for (int r = 0; r < 2; ++r) {
                const size_t line = static_cast<size_t>(row + r) * w;
                PairScalar(nv12 + line + x, uv[x], uv[x + 1], bgr + 3 * (line + static_cast<size_t>(x)));
            }
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
