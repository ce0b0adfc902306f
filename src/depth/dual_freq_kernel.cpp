// The dual-frequency converter's kernel, compiled once per target (see simd/targets.h).
//
// Every step of a row is written once over Highway vectors (whole vectors, then the
// row's last pixels by the scalar loops), branch-free, calling no library function and
// allocating nothing; the distance row's table look-ups go through small blocks, read
// one by one. The arithmetic follows DualFreqDepth step by step;
// the differences are the polynomial arctangent, single precision where the plain
// kernel rounds through double, fused multiply-adds, and the amplitude test done on
// integer energies (exact).
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <hwy/cache_control.h>

#include "depth/dual_freq.h"
#include "depth/kernel_math.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

struct DualRowArgs {
    const uint16_t* raw;
    size_t plane;  // words per plane
    int width, height;
    const DualFreqParams* p;
    const float *fppn1, *fppn2, *radialToZ;
    float minEnergy;
    float off1, off2, range1, range2, rangeC, ratio1, ratio2, invR1, invR2;
    int32_t R1, R2;
};

// Scratch of one row: the samples' sums and differences, then the calibration values
// of the row's pixels, each as a contiguous array the next loop streams through.
struct DualRowScratch {
    float *i1, *q1, *e1, *i2, *q2, *e2;  // phase vectors and amplitude energies
    int32_t* saturated;                   // 1: first frequency, 2: second
    float *fppn1, *fppn2, *rays;          // calibration at the flipped, binned position
};

// 1. Samples to phase vectors, energies and saturation (1: first frequency, 2: second).
template <int kA, int kB, int kC, int kD>
void RowSamplesScalar(const uint16_t* __restrict q0, const uint16_t* __restrict q1,
                      const uint16_t* __restrict q2, const uint16_t* __restrict q3, size_t half, int W,
                      float* __restrict i1, float* __restrict qq1, float* __restrict e1,
                      float* __restrict i2, float* __restrict qq2, float* __restrict e2,
                      int32_t* __restrict sat)
{
    for (int c = 0; c < W; ++c) {
        const size_t w0 = 2 * static_cast<size_t>(c);
        const size_t words[4] = {w0, w0 + 1, half + w0, half + w0 + 1};
        const int32_t A2 = q2[words[kA]], B2 = q2[words[kB]], C2 = q2[words[kC]], D2 = q2[words[kD]];
        const int32_t A3 = q3[words[kA]], B3 = q3[words[kB]], C3 = q3[words[kC]], D3 = q3[words[kD]];
        const int32_t A0 = q0[words[kA]], B0 = q0[words[kB]], C0 = q0[words[kC]], D0 = q0[words[kD]];
        const int32_t A1 = q1[words[kA]], B1 = q1[words[kB]], C1 = q1[words[kC]], D1 = q1[words[kD]];
        const bool sat1 = (A2 == 1023) | (B2 == 1023) | (C2 == 1023) | (D2 == 1023);
        const bool sat2 = (A0 == 1023) | (B0 == 1023) | (C0 == 1023) | (D0 == 1023);
        // Energies in float are exact below 2^24, and on the right side of the
        // threshold above it (the threshold's energy is below 2^24).
        const float ex1 = static_cast<float>(B3 - D3), ey1 = static_cast<float>(A3 - C3);
        const float ex2 = static_cast<float>(B0 - D0), ey2 = static_cast<float>(A0 - C0);
        e1[c] = ex1 * ex1 + ey1 * ey1;
        e2[c] = ex2 * ex2 + ey2 * ey2;
        i1[c] = static_cast<float>((A2 - A3) - (C2 - C3));
        qq1[c] = static_cast<float>((B2 - B3) - (D2 - D3));
        i2[c] = static_cast<float>((A0 - A1) - (C0 - C1));
        qq2[c] = static_cast<float>((B0 - B1) - (D0 - D1));
        sat[c] = sat1 + 2 * sat2;
    }
}

// The same over whole vectors, then the scalar loop for the row's last pixels. In every
// flip mode A and D share a sub-row, B and C the other, and A and B are both the even
// or both the odd word.
template <int kA, int kB, int kC, int kD>
void RowSamples(const uint16_t* __restrict q0, const uint16_t* __restrict q1,
                const uint16_t* __restrict q2, const uint16_t* __restrict q3, size_t half, int W,
                float* __restrict i1, float* __restrict qq1, float* __restrict e1,
                float* __restrict i2, float* __restrict qq2, float* __restrict e2,
                int32_t* __restrict sat)
{
    static_assert(kA / 2 == kD / 2 && kB / 2 == kC / 2 && kA % 2 == kB % 2, "sample roles");
    constexpr size_t kRowA = kA < 2 ? 0 : 1, kRowB = 1 - kRowA;
    constexpr bool kOddA = kA % 2 == 1, kOddD = !kOddA;
    const hn::ScalableTag<float> d;
    const hn::RebindToSigned<decltype(d)> di;
    const hn::RebindToUnsigned<decltype(d)> du32;
    const hn::Repartition<uint16_t, decltype(d)> du16;
    const int N = static_cast<int>(hn::Lanes(d));
    const auto full = hn::Set(di, 1023), one = hn::Set(di, 1), two = hn::Set(di, 2);
    int c = 0;
    for (; c + N <= W; c += N) {
        const size_t w = 2 * static_cast<size_t>(c);
        // The samples two rows on, a cache line per stream every 16 pixels: the eight
        // streams lie a plane apart and the hardware prefetchers lose them while the
        // distance loops run.
        if ((c & 15) == 0)
            for (const uint16_t* q : {q0, q1, q2, q3})
                for (size_t row = 0; row < 2; ++row)
                    hwy::Prefetch(q + row * half + w + 4 * half);
        const auto load = [&](const uint16_t* q, size_t row) {
            return hn::BitCast(du32, hn::LoadU(du16, q + row * half + w));
        };
        const auto ad0 = load(q0, kRowA), bc0 = load(q0, kRowB), ad1 = load(q1, kRowA), bc1 = load(q1, kRowB);
        const auto ad2 = load(q2, kRowA), bc2 = load(q2, kRowB), ad3 = load(q3, kRowA), bc3 = load(q3, kRowB);
        const auto A0 = Word<kOddA>(ad0), D0 = Word<kOddD>(ad0), B0 = Word<kOddA>(bc0), C0 = Word<kOddD>(bc0);
        const auto A1 = Word<kOddA>(ad1), D1 = Word<kOddD>(ad1), B1 = Word<kOddA>(bc1), C1 = Word<kOddD>(bc1);
        const auto A2 = Word<kOddA>(ad2), D2 = Word<kOddD>(ad2), B2 = Word<kOddA>(bc2), C2 = Word<kOddD>(bc2);
        const auto A3 = Word<kOddA>(ad3), D3 = Word<kOddD>(ad3), B3 = Word<kOddA>(bc3), C3 = Word<kOddD>(bc3);
        const auto diff = [&](auto a, auto b, auto cc, auto dd) {
            return hn::ConvertTo(d, hn::Sub(hn::Sub(a, b), hn::Sub(cc, dd)));
        };
        hn::StoreU(diff(A2, A3, C2, C3), d, i1 + c);
        hn::StoreU(diff(B2, B3, D2, D3), d, qq1 + c);
        hn::StoreU(diff(A0, A1, C0, C1), d, i2 + c);
        hn::StoreU(diff(B0, B1, D0, D1), d, qq2 + c);
        // Energies in float are exact below 2^24, and on the right side of the
        // threshold above it (the threshold's energy is below 2^24).
        const auto energy = [&](auto a, auto b, auto cc, auto dd) {
            const auto ex = hn::ConvertTo(d, hn::Sub(b, dd)), ey = hn::ConvertTo(d, hn::Sub(a, cc));
            return hn::MulAdd(ex, ex, hn::Mul(ey, ey));
        };
        hn::StoreU(energy(A3, B3, C3, D3), d, e1 + c);
        hn::StoreU(energy(A0, B0, C0, D0), d, e2 + c);
        const auto saturated = [&](auto a, auto b, auto cc, auto dd) {
            return hn::Or(hn::Or(hn::Eq(a, full), hn::Eq(b, full)), hn::Or(hn::Eq(cc, full), hn::Eq(dd, full)));
        };
        hn::StoreU(hn::Add(hn::IfThenElseZero(saturated(A2, B2, C2, D2), one),
                           hn::IfThenElseZero(saturated(A0, B0, C0, D0), two)),
                   di, sat + c);
    }
    RowSamplesScalar<kA, kB, kC, kD>(q0 + 2 * c, q1 + 2 * c, q2 + 2 * c, q3 + 2 * c, half, W - c, i1 + c,
                                     qq1 + c, e1 + c, i2 + c, qq2 + c, e2 + c, sat + c);
}

// 2. The row's calibration at the flipped, binned positions, made contiguous (only
// needed when the positions run backwards or skip).
template <int Step>
void RowCalibration(const float* __restrict f1, const float* __restrict f2,
                    const float* __restrict rz, int W, float* __restrict o1,
                    float* __restrict o2, float* __restrict orz)
{
    for (int c = 0; c < W; ++c) {
        o1[c] = f1[Step * c];
        o2[c] = f2[Step * c];
        orz[c] = rz[Step * c];
    }
}

// 3. One frequency's corrected wrapped distance from its phase vector: both corrections
// by their integer parts, the wiggling index not folded (the dual-frequency tables are
// read without folding).
//
// Written once over Highway vectors. The table look-ups are plain loads: the row goes
// in blocks of kLookupBlock pixels, whose distances, fractions and indices are kept; a
// scalar loop copies each pixel's two neighbouring entries as one 64-bit word, and the
// interpolation finishes in vectors, the pairs split by an interleaved load. The
// table's 257th entry repeats the 256th, so index 255 reads its own entry twice.
// (Hardware gathers, and gathers emulated an entry at a time, cost several times more.)
constexpr int kLookupBlock = 64;

void RowDistance(const float* __restrict iv, const float* __restrict qv,
                 const float* __restrict fppn, const float* __restrict table,
                 float phaseToMm, float offset, float range, float step, int W,
                 float* __restrict dOut)
{
    const hn::ScalableTag<float> d;
    const hn::RebindToSigned<decltype(d)> di;
    using V = hn::Vec<decltype(d)>;
    const int N = static_cast<int>(hn::Lanes(d));
    const V vRange = hn::Set(d, range), vStep = hn::Set(d, step);
    const V vScale = hn::Set(d, phaseToMm), vOffset = hn::Set(d, offset);
    const V one = hn::Set(d, 1.0f), zero = hn::Zero(d), xMax = hn::Set(d, 1.0e6f);
    const auto last = hn::Set(di, 255);
    HWY_ALIGN float dB[kLookupBlock], fB[kLookupBlock], pairB[2 * kLookupBlock];
    HWY_ALIGN int32_t kB[kLookupBlock];
    // The row's last, partial block goes through these, padded to whole vectors.
    HWY_ALIGN float iT[kLookupBlock], qT[kLookupBlock], pT[kLookupBlock], oT[kLookupBlock];
    for (int c0 = 0; c0 < W; c0 += kLookupBlock) {
        const int n = std::min(kLookupBlock, W - c0);
        const int padded = (n + N - 1) / N * N;
        const float *i0 = iv + c0, *q0 = qv + c0, *p0 = fppn + c0;
        float* o0 = dOut + c0;
        if (padded != n) {
            std::fill(iT + n, iT + padded, 0.0f);
            std::fill(qT + n, qT + padded, 0.0f);
            std::fill(pT + n, pT + padded, 0.0f);
            std::copy(i0, i0 + n, iT);
            std::copy(q0, q0 + n, qT);
            std::copy(p0, p0 + n, pT);
            i0 = iT;
            q0 = qT;
            p0 = pT;
            o0 = oT;
        }
        for (int j = 0; j < padded; j += N) {
            const V dist = WrapV(hn::MulAdd(Atan2V(d, hn::LoadU(d, q0 + j), hn::LoadU(d, i0 + j)), vScale, vOffset),
                                 vRange);
            // Wiggling at step * d, kept within [0, 1e6] (NaN gives 0); the index
            // within the table.
            const V x = ClampV(hn::Mul(vStep, dist), zero, xMax);
            const auto k = hn::ConvertTo(di, x);
            hn::Store(dist, d, dB + j);
            hn::Store(hn::Sub(x, hn::ConvertTo(d, k)), d, fB + j);
            hn::Store(hn::Min(k, last), di, kB + j);
        }
        // Entries k and k + 1 (k + 1 = 256 is entry 255 again).
        for (int j = 0; j < padded; ++j)
            std::memcpy(pairB + 2 * j, table + kB[j], 2 * sizeof(float));
        for (int j = 0; j < padded; j += N) {
            V lo, hi;
            hn::LoadInterleaved2(d, pairB + 2 * j, lo, hi);
            // Entry k, and entry k + 1 where the fraction is above 0 (k itself
            // otherwise, as if k + 1 were not read).
            const V f = hn::Load(d, fB + j);
            const V w1 = hn::IfThenElse(hn::Gt(f, zero), hi, lo);
            const V wig = hn::MulAdd(f, w1, hn::Mul(hn::Sub(one, f), lo));
            const V corrected = hn::Sub(hn::Add(hn::Load(d, dB + j), TruncV(hn::LoadU(d, p0 + j))), TruncV(wig));
            hn::StoreU(WrapV(corrected, vRange), d, o0 + j);
        }
        if (o0 == oT)
            std::copy(oT, oT + n, dOut + c0);
    }
}

struct UnwrapConstants {
    float minEnergy, rangeC, ratio1, ratio2, invR1, invR2;
    int32_t R1, R2;
};

// 4. Unwrapping into the combined range, the consistency of the two distances, the
// depth or its marks, and how far each pixel got (1: the first frequency's distance,
// 2: both) for the last-distance members.
void RowUnwrapScalar(const UnwrapConstants k, const float* __restrict d1s,
                     const float* __restrict d2s, const float* __restrict e1,
                     const float* __restrict e2, const int32_t* __restrict sat,
                     const float* __restrict rays, int W, uint16_t* __restrict out,
                     int32_t* __restrict reachOut)
{
    for (int c = 0; c < W; ++c) {
        const float d1 = d1s[c], d2 = d2s[c];
        const float e = Wrap(k.ratio1 * d1 - k.ratio2 * d2, k.rangeC);
        float kf2 = (e - d2) * k.invR2 + 0.5f;
        float kf1 = (e - d1) * k.invR1 + 0.5f;
        kf2 = kf2 > -1.0e6f ? kf2 : -1.0e6f;  // NaN too
        kf2 = kf2 < 1.0e6f ? kf2 : 1.0e6f;
        kf1 = kf1 > -1.0e6f ? kf1 : -1.0e6f;
        kf1 = kf1 < 1.0e6f ? kf1 : 1.0e6f;
        const int32_t k2 = static_cast<int32_t>(kf2), k1 = static_cast<int32_t>(kf1);
        float D1 = d1 + static_cast<float>(k1 * k.R1);
        const float D2 = d2 + static_cast<float>(k2 * k.R2);
        const float z = rays[c] * 0.5f * (D1 + D2);
        D1 = z < 0.0f ? D1 + k.rangeC : D1;
        const float disagreement = z > k.rangeC ? D1 - k.rangeC - D2 : D1 - D2;
        const bool keep = (std::fabs(disagreement) <= 200.0f) & (d1 != 0.0f) & (d2 != 0.0f);

        // 1 for saturation (the first frequency tested first), the depth for a pixel
        // strong and consistent at both frequencies, 0 otherwise: the two cases exclude
        // each other, so the sum selects.
        // Integers rather than bools throughout: the vectoriser handles no 1-bit lanes.
        const int32_t sat1 = sat[c] & 1, sat2 = (sat[c] >> 1) & 1;
        const int32_t strong1 = e1[c] >= k.minEnergy ? 1 : 0;
        const int32_t strong2 = e2[c] >= k.minEnergy ? 1 : 0;
        const int32_t reach1 = (1 - sat1) & strong1;
        const int32_t reach2 = reach1 & (1 - sat2) & strong2;
        const int32_t mark = sat1 | (reach1 & sat2);
        out[c] = static_cast<uint16_t>(mark + (reach2 & (keep ? 1 : 0)) * TruncLow16(z));
        reachOut[c] = reach1 + reach2;
    }
}

// The same over whole vectors, then the scalar loop for the row's last pixels.
void RowUnwrap(const UnwrapConstants k, const float* __restrict d1s, const float* __restrict d2s,
               const float* __restrict e1, const float* __restrict e2,
               const int32_t* __restrict sat, const float* __restrict rays, int W,
               uint16_t* __restrict out, int32_t* __restrict reachOut)
{
    const hn::ScalableTag<float> d;
    const hn::RebindToSigned<decltype(d)> di;
    const hn::Rebind<uint16_t, decltype(d)> dOut;
    using V = hn::Vec<decltype(d)>;
    const int N = static_cast<int>(hn::Lanes(d));
    const V ratio1 = hn::Set(d, k.ratio1), ratio2 = hn::Set(d, k.ratio2);
    const V rangeC = hn::Set(d, k.rangeC), invR1 = hn::Set(d, k.invR1), invR2 = hn::Set(d, k.invR2);
    const V half = hn::Set(d, 0.5f), lowest = hn::Set(d, -1.0e6f), highest = hn::Set(d, 1.0e6f);
    const V minEnergy = hn::Set(d, k.minEnergy), zero = hn::Zero(d), limit = hn::Set(d, 200.0f);
    const V R1 = hn::Set(d, static_cast<float>(k.R1)), R2 = hn::Set(d, static_cast<float>(k.R2));
    const auto one = hn::Set(di, 1), two = hn::Set(di, 2);
    int c = 0;
    for (; c + N <= W; c += N) {
        const V d1 = hn::LoadU(d, d1s + c), d2 = hn::LoadU(d, d2s + c);
        const V e = WrapV(hn::MulSub(ratio1, d1, hn::Mul(ratio2, d2)), rangeC);
        // The index stays a float (truncated, within +-1e6, NaN at -1e6): its product
        // with the range (below 2^24) is the exact integer product rounded once, as in
        // integers.
        const auto index = [&](V dist, V inv) {
            return hn::Trunc(ClampV(hn::MulAdd(hn::Sub(e, dist), inv, half), lowest, highest));
        };
        V D1 = hn::MulAdd(index(d1, invR1), R1, d1);
        const V D2 = hn::MulAdd(index(d2, invR2), R2, d2);
        const V z = hn::Mul(hn::Mul(hn::LoadU(d, rays + c), half), hn::Add(D1, D2));
        D1 = hn::IfThenElse(hn::Lt(z, zero), hn::Add(D1, rangeC), D1);
        const V disagreement = hn::Sub(hn::IfThenElse(hn::Gt(z, rangeC), hn::Sub(D1, rangeC), D1), D2);
        const auto keep = hn::And(hn::Le(hn::Abs(disagreement), limit),
                                  hn::And(hn::Ne(d1, zero), hn::Ne(d2, zero)));

        // reach1 = not saturated at the first frequency and strong there; reach2 =
        // reach1 and the same at the second; the mark 1 for saturation at the first
        // frequency or, reached, at the second.
        const auto s = hn::LoadU(di, sat + c);
        const auto sat1 = hn::Eq(hn::And(s, one), one), sat2 = hn::Eq(hn::And(s, two), two);
        const auto strong1 = hn::RebindMask(di, hn::Ge(hn::LoadU(d, e1 + c), minEnergy));
        const auto strong2 = hn::RebindMask(di, hn::Ge(hn::LoadU(d, e2 + c), minEnergy));
        const auto reach1 = hn::AndNot(sat1, strong1);
        const auto reach2 = hn::And(hn::AndNot(sat2, strong2), reach1);
        const auto mark = hn::Or(sat1, hn::And(reach1, sat2));
        const auto depth = TruncLow16V(hn::IfThenElseZero(keep, z));
        const auto value = hn::Add(hn::IfThenElseZero(mark, one), hn::IfThenElseZero(reach2, depth));
        hn::StoreU(hn::DemoteTo(dOut, value), dOut, out + c);
        hn::StoreU(hn::Add(hn::IfThenElseZero(reach1, one), hn::IfThenElseZero(reach2, one)), di, reachOut + c);
    }
    RowUnwrapScalar(k, d1s + c, d2s + c, e1 + c, e2 + c, sat + c, rays + c, W - c, out + c, reachOut + c);
}

constexpr int kRowPiece = 128;

template <int Flip, int Binning>
void DualRow(const DualRowArgs& a, int r, const DualRowScratch& s, uint16_t* out, float* d1s,
             float* d2s, int32_t* reached)
{
    // Sample roles A, B, C, D as word indices S0..S3 of the flip mode.
    constexpr int kA = Flip == 0 ? 0 : Flip == 1 ? 2 : Flip == 2 ? 1 : 3;
    constexpr int kB = Flip == 0 ? 2 : Flip == 1 ? 0 : Flip == 2 ? 3 : 1;
    constexpr int kC = Flip == 0 ? 3 : Flip == 1 ? 1 : Flip == 2 ? 2 : 0;
    constexpr int kD = Flip == 0 ? 1 : Flip == 1 ? 3 : Flip == 2 ? 0 : 2;
    constexpr bool kMirrorRows = Flip == 1 || Flip == 3;
    constexpr bool kMirrorCols = Flip == 2 || Flip == 3;
    const int W = a.width;
    const DualFreqParams& p = *a.p;

    const uint16_t* q0 = a.raw + 4 * static_cast<size_t>(W) * r;
    const size_t calRow = static_cast<size_t>(kMirrorRows ? a.height - 1 - r : r);
    const size_t first = calRow * W * Binning * Binning +
                         (kMirrorCols ? static_cast<size_t>(W - 1) * Binning : 0);
    constexpr int kStep = kMirrorCols ? -Binning : Binning;
    const UnwrapConstants k{a.minEnergy, a.rangeC, a.ratio1, a.ratio2, a.invR1, a.invR2, a.R1, a.R2};

    // The row in pieces of kRowPiece pixels, so that the intermediate rows stay in the
    // first-level cache between the steps.
    for (int c0 = 0; c0 < W; c0 += kRowPiece) {
        const int n = std::min(kRowPiece, W - c0);
        const uint16_t* q = q0 + 2 * static_cast<size_t>(c0);
        RowSamples<kA, kB, kC, kD>(q, q + a.plane, q + 2 * a.plane, q + 3 * a.plane,
                                   2 * static_cast<size_t>(W), n, s.i1, s.q1, s.e1, s.i2, s.q2, s.e2,
                                   s.saturated);
        const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(first) + std::ptrdiff_t{kStep} * c0;
        const float* fppn1 = a.fppn1 + at;
        const float* fppn2 = a.fppn2 + at;
        const float* rays = a.radialToZ + at;
        if (kStep != 1) {
            RowCalibration<kStep>(fppn1, fppn2, rays, n, s.fppn1, s.fppn2, s.rays);
            fppn1 = s.fppn1;
            fppn2 = s.fppn2;
            rays = s.rays;
        }
        RowDistance(s.i1, s.q1, fppn1, p.table1, p.phaseToMm1, a.off1, a.range1, p.tableStep2,
                    n, d1s + c0);
        RowDistance(s.i2, s.q2, fppn2, p.table2, p.phaseToMm2, a.off2, a.range2, p.tableStep2,
                    n, d2s + c0);
        RowUnwrap(k, d1s + c0, d2s + c0, s.e1, s.e2, s.saturated, rays, n, out + c0, reached + c0);
    }
}

using DualRowFn = void (*)(const DualRowArgs&, int, const DualRowScratch&, uint16_t*, float*, float*,
                           int32_t*);

template <int Binning>
DualRowFn DualRowFor(int flip)
{
    switch (flip) {
    case 1: return DualRow<1, Binning>;
    case 2: return DualRow<2, Binning>;
    case 3: return DualRow<3, Binning>;
    default: return DualRow<0, Binning>;
    }
}

}  // namespace

void DualFreqDepthRows(const uint16_t* raw, uint16_t* depth, int width, int height,
                       const DualFreqParams& p, const float* fppn1, const float* fppn2,
                       const float* radialToZ, float comp1, float comp2, float minEnergy,
                       float* scratch, DualFreqLast& last)
{
    // Scratch: 13 rows of the frame's width, two of them 32-bit integers (saturation and
    // reach). The first ten hold one piece of a row at a time; the distances and reach
    // cover the whole row for the last-distance search below.
    const size_t W = static_cast<size_t>(width);
    DualRowScratch rowScratch{scratch,         scratch + W,     scratch + 2 * W,
                              scratch + 3 * W, scratch + 4 * W, scratch + 5 * W,
                              reinterpret_cast<int32_t*>(scratch + 6 * W),
                              scratch + 7 * W, scratch + 8 * W, scratch + 9 * W};
    float* d1s = scratch + 10 * W;
    float* d2s = scratch + 11 * W;
    int32_t* reached = reinterpret_cast<int32_t*>(scratch + 12 * W);
    const int32_t f1 = p.frequency1, f2 = p.frequency2;
    DualRowArgs a{};
    a.raw = raw;
    a.plane = 4 * static_cast<size_t>(width) * height;
    a.width = width;
    a.height = height;
    a.p = &p;
    a.fppn1 = fppn1;
    a.fppn2 = fppn2;
    a.radialToZ = radialToZ;
    a.minEnergy = minEnergy;
    a.off1 = p.depthOffset1 - comp1;
    a.off2 = p.depthOffset2 - comp2;
    a.R1 = p.range1;
    a.R2 = p.range2;
    a.range1 = static_cast<float>(p.range1);
    a.range2 = static_cast<float>(p.range2);
    a.ratio1 = static_cast<float>(f1 / (f1 - f2));
    a.ratio2 = static_cast<float>(f2 / (f1 - f2));
    a.rangeC = static_cast<float>((f1 / (f1 > f2 ? f1 - f2 : f2 - f1)) * p.range1);
    a.invR1 = static_cast<float>(1.0 / p.range1);
    a.invR2 = static_cast<float>(1.0 / p.range2);
    const DualRowFn row = p.binning == 2 ? DualRowFor<2>(p.flipMode) : DualRowFor<1>(p.flipMode);
    for (int r = 2; r < height; ++r) {
        row(a, r, rowScratch, depth + static_cast<size_t>(r) * width, d1s, d2s, reached);
        // The last pixel of the frame that reached each frequency's distance.
        int c = width - 1;
        while (c >= 0 && reached[c] == 0)
            --c;
        if (c >= 0)
            last.distance1 = d1s[c];
        while (c >= 0 && reached[c] < 2)
            --c;
        if (c >= 0)
            last.distance2 = d2s[c];
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
