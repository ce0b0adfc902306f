// The dual-frequency converter's kernel, compiled once per target (see simd/targets.h).
//
// A row goes in pieces of kPiece pixels through four steps, written once over Highway
// vectors, branch-free, calling no library function and allocating nothing:
//  1. the samples of both frequencies to phase vectors and each pixel's status
//     (saturated, weak, or reaching one or both distances);
//  2. both frequencies' phase distances and where each falls in its wiggling table;
//  3. each pixel's wiggling entry and slope in each table, copied as one 64-bit word
//     (no gathers: NEON has none, and x86's measured slower);
//  4. the interpolation, both corrections, the unwrapping and the depth.
// The piece's intermediate values stay in the first-level cache between the loops. The
// arithmetic follows DualFreqDepth step by step; the differences are the polynomial
// arctangent, single precision where the plain kernel rounds through double, fused
// multiply-adds, and the amplitude test done on integer energies (exact).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <hwy/cache_control.h>

#include "depth/dual_freq.h"
#include "depth/kernel_math.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

// A multiple of twice every target's vector length (the first loop reads 2N pixels at
// a time), small enough for the piece (19 KB) to stay in the first-level cache.
constexpr int kPiece = 160;

struct FreqConstants {
    float phaseToMm, offset, range, step;
    const float* slopes;  // the wiggling table as WigglingSlopes lays it out
};

struct DualRowArgs {
    const uint16_t* raw;
    size_t plane;  // words per plane
    int width, height;
    const float *fppn1, *fppn2, *radialToZ;
    FreqConstants f1, f2;
    float minEnergy, rangeC, ratio1, ratio2, invR1, invR2;
};

// Status codes of the first loop, chosen so that the depth is (z & code) | (code >> 16):
// the depth's low 16 bits where both frequencies are strong and unsaturated, the mark 1
// for saturation, 0 for a weak pixel.
constexpr int32_t kKeepDepth = 0xFFFF, kMarkSaturated = 0x10000;

// What one piece's loops hand each other.
struct Piece {
    HWY_ALIGN float i1[kPiece];  // phase vectors
    HWY_ALIGN float q1[kPiece];
    HWY_ALIGN float i2[kPiece];
    HWY_ALIGN float q2[kPiece];
    HWY_ALIGN float dist1[kPiece];  // phase distances, wrapped
    HWY_ALIGN float dist2[kPiece];
    HWY_ALIGN float frac1[kPiece];  // fractions of the wiggling positions
    HWY_ALIGN float frac2[kPiece];
    HWY_ALIGN int32_t index1[kPiece];  // table entries
    HWY_ALIGN int32_t index2[kPiece];
    HWY_ALIGN float d1[kPiece];  // corrected distances, for DualFreqLast
    HWY_ALIGN float d2[kPiece];
    HWY_ALIGN int32_t code[kPiece];     // kKeepDepth, kMarkSaturated or 0
    // How far a pixel got, negated (the sum of two masks): -1 to the first frequency's
    // distance, -2 to both.
    HWY_ALIGN int32_t reached[kPiece];
    HWY_ALIGN float pairs1[2 * kPiece];  // each pixel's wiggling entry and slope
    HWY_ALIGN float pairs2[2 * kPiece];
    // The row's last, partial piece goes through these, padded with zeros.
    HWY_ALIGN uint16_t words[8][2 * kPiece];
    HWY_ALIGN float fppn1[kPiece];
    HWY_ALIGN float fppn2[kPiece];
    HWY_ALIGN float rays[kPiece];
    HWY_ALIGN uint16_t out[kPiece];
};

// Hides where a pointer came from, so that the compiler advances each of several
// streams' pointers by itself (on ARM64 within the load instruction) rather than
// adding a shared index to each stream's base before every load.
template <class T>
inline void OpaquePointer(T*& p)
{
#if defined(__GNUC__)
    asm("" : "+r"(p));
#else
    (void)p;
#endif
}

// 1. Samples to phase vectors and status codes. subRows[2 p + r] is sub-row r of plane p;
// n is a multiple of 2N. In every flip mode A and D share a sub-row, B and C the other,
// and A and B are both the even or both the odd word.
template <int kA, int kB, int kC, int kD>
void PieceSamples(float minEnergyValue, const uint16_t* const rows[8], size_t prefetchAhead, int n,
                  Piece& pc)
{
    // Copied, so that the compiler keeps them in registers across the stores below, and
    // advanced as the loop goes.
    const uint16_t* subRows[8];
    std::copy(rows, rows + 8, subRows);
    const size_t wordsPerStep = 4 * hn::Lanes(hn::ScalableTag<float>());  // 2N pixels
    static_assert(kA / 2 == kD / 2 && kB / 2 == kC / 2 && kA % 2 == kB % 2, "sample roles");
    constexpr int kRowA = kA < 2 ? 0 : 1, kRowB = 1 - kRowA;
    constexpr bool kOddA = kA % 2 == 1;
    const hn::ScalableTag<float> d;
    const hn::RebindToSigned<decltype(d)> di;
    using V = hn::Vec<decltype(d)>;
    using W = SubRowWords<decltype(d)>;
    const int N = static_cast<int>(hn::Lanes(d));
    const V minEnergy = hn::Set(d, minEnergyValue);
    const auto keepDepth = hn::Set(di, kKeepDepth), markSaturated = hn::Set(di, kMarkSaturated);

    for (int j = 0; j < n; j += 2 * N) {
        // The samples two rows on, a cache line a stream every 16 pixels: the eight
        // streams lie a plane apart and the hardware prefetchers lose them.
        if ((j & 15) == 0)
            for (int s = 0; s < 8; ++s)
                hwy::Prefetch(subRows[s] + prefetchAhead);
        const W a0(subRows[kRowA]), b0(subRows[kRowB]);
        const W a1(subRows[2 + kRowA]), b1(subRows[2 + kRowB]);
        const W a2(subRows[4 + kRowA]), b2(subRows[4 + kRowB]);
        const W a3(subRows[6 + kRowA]), b3(subRows[6 + kRowB]);
        for (int s = 0; s < 8; ++s) {
            subRows[s] += wordsPerStep;
            OpaquePointer(subRows[s]);
        }
        hn::Mask<decltype(di)> saturatedAt1[2], saturatedAt2[2];
        WordHits(a2, b2, 1023, saturatedAt1);
        WordHits(a0, b0, 1023, saturatedAt2);
        for (int h = 0; h < 2; ++h) {
            // A and D from the A sub-row (x), B and C from the other (y): y.B - x.D and
            // x.A - y.C, each one widening subtraction on NEON.
            const auto bd = [h](const W& x, const W& y) {
                return hn::Sub(y.template Word<kOddA>(h), x.template Word<!kOddA>(h));
            };
            const auto ac = [h](const W& x, const W& y) {
                return hn::Sub(x.template Word<kOddA>(h), y.template Word<!kOddA>(h));
            };
            const int at = j + h * N;
            // First frequency: planes 2 and 3, amplitude from plane 3;
            // (A2 - A3) - (C2 - C3) = (A2 - C2) - (A3 - C3).
            const auto ey1 = ac(a3, b3), ex1 = bd(a3, b3);
            hn::Store(hn::ConvertTo(d, hn::Sub(ac(a2, b2), ey1)), d, pc.i1 + at);
            hn::Store(hn::ConvertTo(d, hn::Sub(bd(a2, b2), ex1)), d, pc.q1 + at);
            // Second frequency: planes 0 and 1, amplitude from plane 0.
            const auto ey2 = ac(a0, b0), ex2 = bd(a0, b0);
            hn::Store(hn::ConvertTo(d, hn::Sub(ey2, ac(a1, b1))), d, pc.i2 + at);
            hn::Store(hn::ConvertTo(d, hn::Sub(ex2, bd(a1, b1))), d, pc.q2 + at);
            // Energies in float are exact below 2^24, and on the right side of the
            // threshold above it (the threshold's energy is below 2^24).
            const auto strong = [&](auto ex, auto ey) {
                const V fx = hn::ConvertTo(d, ex), fy = hn::ConvertTo(d, ey);
                return hn::RebindMask(di, hn::Ge(hn::MulAdd(fx, fx, hn::Mul(fy, fy)), minEnergy));
            };
            // Reaching the first distance: unsaturated and strong at the first
            // frequency; both: and at the second. The mark 1: saturated at the first
            // frequency or, reached, at the second.
            const auto saturated1 = saturatedAt1[h], saturated2 = saturatedAt2[h];
            const auto reach1 = hn::AndNot(saturated1, strong(ex1, ey1));
            const auto reach2 = hn::And(hn::AndNot(saturated2, strong(ex2, ey2)), reach1);
            const auto mark = hn::Or(saturated1, hn::And(reach1, saturated2));
            hn::Store(hn::IfThenElse(reach2, keepDepth, hn::IfThenElseZero(mark, markSaturated)), di,
                      pc.code + at);
            hn::Store(hn::Add(hn::VecFromMask(di, reach1), hn::VecFromMask(di, reach2)), di, pc.reached + at);
        }
    }
}

// 2. Both frequencies' wrapped phase distances, and where step * distance falls in each
// table, kept within [0, 255] (NaN gives 0): beyond the last entry its slope is 0, so
// every position past 255 gives that entry, as in the plain kernel.
void PieceDistances(const FreqConstants& f1, const FreqConstants& f2, int n, Piece& pc)
{
    const hn::ScalableTag<float> d;
    const hn::RebindToSigned<decltype(d)> di;
    using V = hn::Vec<decltype(d)>;
    const int N = static_cast<int>(hn::Lanes(d));
    const V scale1 = hn::Set(d, f1.phaseToMm), shift1 = hn::Set(d, f1.offset), range1 = hn::Set(d, f1.range);
    const V scale2 = hn::Set(d, f2.phaseToMm), shift2 = hn::Set(d, f2.offset), range2 = hn::Set(d, f2.range);
    const V step = hn::Set(d, f1.step), zero = hn::Zero(d), xMax = hn::Set(d, 255.0f);
    const auto one = [&](V i, V q, V scale, V shift, V range, float* dist, float* frac, int32_t* index) {
        const V dd = WrapV(hn::MulAdd(Atan2V(d, q, i), scale, shift), range);
        const V x = ClampV(hn::Mul(step, dd), zero, xMax);
        const auto k = hn::ConvertTo(di, x);
        hn::Store(dd, d, dist);
        hn::Store(hn::Sub(x, hn::ConvertTo(d, k)), d, frac);
        hn::Store(k, di, index);
    };
    for (int j = 0; j < n; j += N) {
        one(hn::Load(d, pc.i1 + j), hn::Load(d, pc.q1 + j), scale1, shift1, range1, pc.dist1 + j, pc.frac1 + j,
            pc.index1 + j);
        one(hn::Load(d, pc.i2 + j), hn::Load(d, pc.q2 + j), scale2, shift2, range2, pc.dist2 + j, pc.frac2 + j,
            pc.index2 + j);
    }
}

// 3. Each pixel's wiggling entry and slope. n is a multiple of 4.
QV_SCALAR_LOOKUPS void PieceLookups(const float* __restrict slopes, const int32_t* __restrict index, int n,
                                    float* __restrict pairs)
{
    for (int j = 0; j < n; j += 4) {
        for (int u = 0; u < 4; ++u) {
            uint64_t pair;
            // Entries 0..255: unsigned, so that the address needs no sign extension.
            const size_t k = static_cast<uint32_t>(index[j + u]);
            std::memcpy(&pair, slopes + 2 * k, sizeof pair);
            std::memcpy(pairs + 2 * (j + u), &pair, sizeof pair);
        }
    }
}

// The wrapped distances of pixels [j, j + N) corrected by both tables' integer parts.
// The wiggling correction lies within +-2 kSlopeTableLimit: its truncation needs no
// clamp.
template <class D, class V = hn::Vec<D>>
V CorrectedDistances(D d, const float* pairs, const float* frac, const float* dist, const float* fppn, V range,
                     int j)
{
    V entry, slope;
    hn::LoadInterleaved2(d, pairs + 2 * j, entry, slope);
    const V wig = hn::MulAdd(hn::Load(d, frac + j), slope, entry);
    return WrapV(hn::Sub(hn::Add(hn::Load(d, dist + j), hn::Trunc(hn::LoadU(d, fppn + j))), hn::Trunc(wig)), range);
}

// 4. Corrected distances, unwrapping into the combined range, the consistency of the
// two distances, and the depth or its marks.
void PieceDepth(const DualRowArgs& a, const float* __restrict fppn1, const float* __restrict fppn2,
                const float* __restrict rays, int n, Piece& pc, uint16_t* __restrict out)
{
    const hn::ScalableTag<float> d;
    const hn::RebindToSigned<decltype(d)> di;
    const hn::Rebind<uint16_t, decltype(d)> dOut;
    using V = hn::Vec<decltype(d)>;
    const int N = static_cast<int>(hn::Lanes(d));
    const V range1 = hn::Set(d, a.f1.range), range2 = hn::Set(d, a.f2.range);
    const V ratio1 = hn::Set(d, a.ratio1), ratio2 = hn::Set(d, a.ratio2);
    const V rangeC = hn::Set(d, a.rangeC), invR1 = hn::Set(d, a.invR1), invR2 = hn::Set(d, a.invR2);
    const V half = hn::Set(d, 0.5f);
    const V zero = hn::Zero(d), limit = hn::Set(d, 200.0f);
    const auto intMax = hn::Set(di, INT32_MAX);

    for (int j = 0; j < n; j += N) {
        const V d1 = CorrectedDistances(d, pc.pairs1, pc.frac1, pc.dist1, fppn1, range1, j);
        const V d2 = CorrectedDistances(d, pc.pairs2, pc.frac2, pc.dist2, fppn2, range2, j);
        hn::Store(d1, d, pc.d1 + j);
        hn::Store(d2, d, pc.d2 + j);
        // ratio1 d1 - ratio2 d2 is the distance modulo the combined range. The index
        // stays a float (truncated): its product with the range is the integer product
        // rounded once. (Only where a distance is NaN or beyond any range does it differ
        // from the plain kernel's integer index, and the depth is dropped there either
        // way: a NaN or infinite depth gives 0.)
        const V e = WrapV(hn::NegMulAdd(ratio2, d2, hn::Mul(ratio1, d1)), rangeC);
        const auto index = [&](V dist, V inv) { return hn::Trunc(hn::MulAdd(hn::Sub(e, dist), inv, half)); };
        V D1 = hn::MulAdd(index(d1, invR1), range1, d1);
        const V D2 = hn::MulAdd(index(d2, invR2), range2, d2);
        const V z = hn::Mul(hn::Mul(hn::LoadU(d, rays + j), half), hn::Add(D1, D2));
        D1 = hn::IfThenElse(hn::Lt(z, zero), hn::Add(D1, rangeC), D1);
        const V disagreement = hn::Sub(hn::IfThenElse(hn::Gt(z, rangeC), hn::Sub(D1, rangeC), D1), D2);
        // The depth's low 16 bits unless the distances disagree by more than 200 mm,
        // either is exactly 0, or z lies beyond the int32 range (the conversion gives
        // INT32_MAX, or INT32_MIN whose low bits are 0, or 0 for NaN).
        const auto depth = hn::ConvertTo(di, z);
        const auto drop = hn::Or(hn::RebindMask(di, hn::Or(hn::Gt(hn::Abs(disagreement), limit),
                                                           hn::Or(hn::Eq(d1, zero), hn::Eq(d2, zero)))),
                                 hn::Eq(depth, intMax));
        const auto code = hn::Load(di, pc.code + j);
        const auto value = hn::Or(hn::IfThenZeroElse(drop, hn::And(depth, code)), hn::ShiftRight<16>(code));
        hn::StoreU(hn::DemoteTo(dOut, value), dOut, out + j);
    }
}

template <int Flip, int Binning>
void DualRow(const DualRowArgs& a, int r, Piece& pc, uint16_t* out, DualFreqLast& last)
{
    // Sample roles A, B, C, D as word indices S0..S3 of the flip mode.
    constexpr int kA = Flip == 0 ? 0 : Flip == 1 ? 2 : Flip == 2 ? 1 : 3;
    constexpr int kB = Flip == 0 ? 2 : Flip == 1 ? 0 : Flip == 2 ? 3 : 1;
    constexpr int kC = Flip == 0 ? 3 : Flip == 1 ? 1 : Flip == 2 ? 2 : 0;
    constexpr int kD = Flip == 0 ? 1 : Flip == 1 ? 3 : Flip == 2 ? 0 : 2;
    constexpr bool kMirrorRows = Flip == 1 || Flip == 3;
    constexpr bool kMirrorCols = Flip == 2 || Flip == 3;
    constexpr int kStep = kMirrorCols ? -Binning : Binning;
    const int W = a.width;
    const size_t subRow = 2 * static_cast<size_t>(W);
    const int vectorPixels = 2 * static_cast<int>(hn::Lanes(hn::ScalableTag<float>()));

    const uint16_t* rowWords = a.raw + 4 * static_cast<size_t>(W) * r;
    const size_t calRow = static_cast<size_t>(kMirrorRows ? a.height - 1 - r : r);
    const std::ptrdiff_t first = static_cast<std::ptrdiff_t>(calRow * W * Binning * Binning +
                                                             (kMirrorCols ? static_cast<size_t>(W - 1) * Binning : 0));

    for (int c0 = 0; c0 < W; c0 += kPiece) {
        const int n = std::min(kPiece, W - c0);
        const int padded = (n + vectorPixels - 1) / vectorPixels * vectorPixels;
        const uint16_t* subRows[8];
        for (int s = 0; s < 8; ++s)
            subRows[s] = rowWords + (s / 2) * a.plane + (s % 2) * subRow + 2 * static_cast<size_t>(c0);
        // The calibration at the flipped, binned positions: read in place where they
        // run forwards one by one, else gathered into the piece.
        const std::ptrdiff_t at = first + std::ptrdiff_t{kStep} * c0;
        const float* fppn1 = a.fppn1 + at;
        const float* fppn2 = a.fppn2 + at;
        const float* rays = a.radialToZ + at;
        if (kStep != 1 || padded != n) {
            for (int c = 0; c < n; ++c) {
                pc.fppn1[c] = fppn1[kStep * c];
                pc.fppn2[c] = fppn2[kStep * c];
                pc.rays[c] = rays[kStep * c];
            }
            fppn1 = pc.fppn1;
            fppn2 = pc.fppn2;
            rays = pc.rays;
        }
        uint16_t* to = out + c0;
        if (padded != n) {
            for (int s = 0; s < 8; ++s) {
                std::fill(std::copy(subRows[s], subRows[s] + 2 * n, pc.words[s]), pc.words[s] + 2 * padded,
                          uint16_t{0});
                subRows[s] = pc.words[s];
            }
            std::fill(pc.fppn1 + n, pc.fppn1 + padded, 0.0f);
            std::fill(pc.fppn2 + n, pc.fppn2 + padded, 0.0f);
            std::fill(pc.rays + n, pc.rays + padded, 0.0f);
            to = pc.out;
        }
        PieceSamples<kA, kB, kC, kD>(a.minEnergy, subRows, padded == n ? 4 * subRow : 0, padded, pc);
        PieceDistances(a.f1, a.f2, padded, pc);
        PieceLookups(a.f1.slopes, pc.index1, padded, pc.pairs1);
        PieceLookups(a.f2.slopes, pc.index2, padded, pc.pairs2);
        PieceDepth(a, fppn1, fppn2, rays, padded, pc, to);
        if (to == pc.out)
            std::copy(pc.out, pc.out + n, out + c0);

        // The last pixel so far that reached each frequency's distance.
        int c = n - 1;
        while (c >= 0 && pc.reached[c] == 0)
            --c;
        if (c >= 0)
            last.distance1 = pc.d1[c];
        while (c >= 0 && pc.reached[c] > -2)
            --c;
        if (c >= 0)
            last.distance2 = pc.d2[c];
    }
}

using DualRowFn = void (*)(const DualRowArgs&, int, Piece&, uint16_t*, DualFreqLast&);

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
                       DualFreqLast& last)
{
    const int32_t f1 = p.frequency1, f2 = p.frequency2;
    DualRowArgs a{};
    a.raw = raw;
    a.plane = 4 * static_cast<size_t>(width) * height;
    a.width = width;
    a.height = height;
    a.fppn1 = fppn1;
    a.fppn2 = fppn2;
    a.radialToZ = radialToZ;
    // The second frequency's table step serves both tables.
    a.f1 = {p.phaseToMm1, p.depthOffset1 - comp1, static_cast<float>(p.range1), p.tableStep2, p.slopes1};
    a.f2 = {p.phaseToMm2, p.depthOffset2 - comp2, static_cast<float>(p.range2), p.tableStep2, p.slopes2};
    a.minEnergy = minEnergy;
    a.ratio1 = static_cast<float>(f1 / (f1 - f2));
    a.ratio2 = static_cast<float>(f2 / (f1 - f2));
    a.rangeC = static_cast<float>((f1 / (f1 > f2 ? f1 - f2 : f2 - f1)) * p.range1);
    a.invR1 = static_cast<float>(1.0 / p.range1);
    a.invR2 = static_cast<float>(1.0 / p.range2);
    const DualRowFn row = p.binning == 2 ? DualRowFor<2>(p.flipMode) : DualRowFor<1>(p.flipMode);
    Piece piece;
    for (int r = 2; r < height; ++r)
        row(a, r, piece, depth + static_cast<size_t>(r) * width, last);
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
