// The single-frequency converter's kernel, compiled once per target (see
// simd/targets.h) and written once over Highway vectors. Each row goes in blocks of
// kBlock pixels through three loops: the samples, distance and table indices in
// vectors; the table's two entries of each pixel read one by one (no gathers); and the
// interpolation, corrections and depth in vectors again. Each step is the plain
// kernel's; the arctangent is the polynomial one (kernel_math.h).
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "depth/kernel_math.h"
#include "depth/single_freq.h"

namespace qvapi {
namespace QV_KERNEL_NS {

namespace {

constexpr int kBlock = 64;

// Entries k0 and k1 of each pixel, four at a time (n is a multiple of 8). The indices
// lie in [0, 255]: read unsigned, so that addresses need no sign extension.
QV_SCALAR_LOOKUPS void LookUpPairs(const float* __restrict table, const int32_t* __restrict k0,
                                   const int32_t* __restrict k1, int n, float* __restrict lo,
                                   float* __restrict hi)
{
    for (int j = 0; j < n; j += 4) {
        for (int u = 0; u < 4; ++u) {
            lo[j + u] = table[static_cast<uint32_t>(k0[j + u])];
            hi[j + u] = table[static_cast<uint32_t>(k1[j + u])];
        }
    }
}

}  // namespace

void SingleFreqDepthFrame(const uint16_t* raw, uint16_t* depth, int width, int height,
                          const SingleFreqParams& p, const float* fppnOffset, const float* radialToZ,
                          float halfRangeMinusComp, float minEnergy)
{
    const hn::ScalableTag<float> d;
    const hn::RebindToSigned<decltype(d)> di;
    const hn::Rebind<uint16_t, decltype(d)> dOut;      // a depth per float lane
    using V = hn::Vec<decltype(d)>;
    const int N = static_cast<int>(hn::Lanes(d));

    const float range = static_cast<float>(p.rangeMm);
    const float* const table = p.table;
    const V vRange = hn::Set(d, range), vScale = hn::Set(d, p.phaseToMm);
    const V vOffset = hn::Set(d, p.depthOffset), vShift = hn::Set(d, halfRangeMinusComp);
    const V vStep = hn::Set(d, p.tableStep), vEnergy = hn::Set(d, minEnergy);
    const V zero = hn::Zero(d), one = hn::Set(d, 1.0f), xMax = hn::Set(d, 1.0e6f);
    // An index beyond the table's count folds back by count - 1. The indices lie in
    // [0, 1e6 + 1]: every count below -256 folds them past the table's end and every
    // count above 2^24 never folds them, so clamping the count changes nothing but keeps
    // the fold from overflowing.
    const int32_t count = std::min(std::max(p.tableCount, -256), 1 << 24);
    const auto vCount = hn::Set(di, count), vFold = hn::Set(di, count - 1);
    const auto firstEntry = hn::Zero(di), lastEntry = hn::Set(di, 255), oneStep = hn::Set(di, 1);

    HWY_ALIGN float dB[kBlock], fB[kBlock], loB[kBlock], hiB[kBlock], strongB[kBlock];
    HWY_ALIGN int32_t k0B[kBlock], k1B[kBlock];
    // The row's last, partial block goes through these, padded to whole vectors.
    HWY_ALIGN uint16_t h0T[2 * kBlock], h1T[2 * kBlock], oT[kBlock];
    HWY_ALIGN float fT[kBlock], rT[kBlock];

    for (int r = 0; r < height; ++r) {
        const uint16_t* h0Row = raw + 4 * static_cast<size_t>(width) * r;
        const uint16_t* h1Row = h0Row + 2 * static_cast<size_t>(width);
        const size_t rowBase = static_cast<size_t>(r) * width;
        for (int c0 = 0; c0 < width; c0 += kBlock) {
            const int n = std::min(kBlock, width - c0);
            const int padded = (n + 2 * N - 1) / (2 * N) * (2 * N);
            const uint16_t *h0 = h0Row + 2 * c0, *h1 = h1Row + 2 * c0;
            const float *fppn = fppnOffset + rowBase + c0, *ray = radialToZ + rowBase + c0;
            uint16_t* out = depth + rowBase + c0;
            if (padded != n) {
                std::fill(std::copy(h0, h0 + 2 * n, h0T), h0T + 2 * padded, uint16_t{0});
                std::fill(std::copy(h1, h1 + 2 * n, h1T), h1T + 2 * padded, uint16_t{0});
                std::fill(std::copy(fppn, fppn + n, fT), fT + padded, 0.0f);
                std::fill(std::copy(ray, ray + n, rT), rT + padded, 0.0f);
                h0 = h0T;
                h1 = h1T;
                fppn = fT;
                ray = rT;
                out = oT;
            }
            for (int j0 = 0; j0 < padded; j0 += 2 * N) {
                // Samples s0 s1 on the first half-row, s2 s3 on the second: I = s0 - s3,
                // Q = s2 - s1.
                const SubRowWords<decltype(d)> w0(h0 + 2 * j0), w1(h1 + 2 * j0);
                for (int half = 0; half < 2; ++half) {
                    const int j = j0 + half * N;
                    const V I = hn::ConvertTo(d, hn::Sub(w0.Word<false>(half), w1.Word<true>(half)));
                    const V Q = hn::ConvertTo(d, hn::Sub(w1.Word<false>(half), w0.Word<true>(half)));
                    // Exact: both squares and their sum are integers below 2^24.
                    const auto strong = hn::Ge(hn::MulAdd(I, I, hn::Mul(Q, Q)), vEnergy);
                    hn::Store(hn::IfThenElseZero(strong, one), d, strongB + j);
                    V dist = hn::MulAdd(Atan2V(d, Q, I), vScale, vOffset);
                    dist = WrapV(hn::Add(dist, vShift), vRange);
                    // Wiggling at step * d, kept within [0, 1e6] (NaN gives 0), folded
                    // beyond the table's count and kept inside its 256 entries.
                    const V x = ClampV(hn::Mul(vStep, dist), zero, xMax);
                    auto k0 = hn::ConvertTo(di, x);
                    const V f = hn::Sub(x, hn::ConvertTo(d, k0));
                    auto k1 = hn::IfThenElse(hn::RebindMask(di, hn::Gt(f, zero)), hn::Add(k0, oneStep), k0);
                    k0 = hn::IfThenElse(hn::Gt(k0, vCount), hn::Sub(k0, vFold), k0);
                    k1 = hn::IfThenElse(hn::Gt(k1, vCount), hn::Sub(k1, vFold), k1);
                    hn::Store(dist, d, dB + j);
                    hn::Store(f, d, fB + j);
                    hn::Store(hn::Min(hn::Max(k0, firstEntry), lastEntry), di, k0B + j);
                    hn::Store(hn::Min(hn::Max(k1, firstEntry), lastEntry), di, k1B + j);
                }
            }
            LookUpPairs(table, k0B, k1B, padded, loB, hiB);
            for (int j = 0; j < padded; j += N) {
                const V f = hn::Load(d, fB + j);
                const V wig = hn::MulAdd(f, hn::Load(d, hiB + j), hn::Mul(hn::Sub(one, f), hn::Load(d, loB + j)));
                const V dist = WrapV(hn::Sub(hn::Add(hn::Load(d, dB + j), hn::LoadU(d, fppn + j)), hn::Trunc(wig)), vRange);
                // Weak pixels give 0 (a NaN or infinite depth times 0 stays NaN, also 0).
                const V z = hn::Mul(hn::Mul(dist, hn::LoadU(d, ray + j)), hn::Load(d, strongB + j));
                const auto value = TruncLow16V(z);
                hn::StoreU(hn::DemoteTo(dOut, value), dOut, out + j);
            }
            if (out == oT)
                std::copy(oT, oT + n, depth + rowBase + c0);
        }
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
