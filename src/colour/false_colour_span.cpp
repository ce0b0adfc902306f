// False colouring of a run of depth values for an ordinary range. This file is compiled
// once per instruction set, like depth_fast.cpp, into the namespace QV_KERNEL_NS.
//
// The colour of a depth depends on its level v = trunc((d - lo) / (hi - lo) * 1021)
// with d clamped into [lo, hi]. In doubles that quotient is within 2^-40 of the exact
// 1021 x / R (x = d - lo, R = hi - lo <= 65535), and an exact quotient that is not an
// integer lies at least 1/R from one, so the level is the integer floor(1021 x / R)
// (where 1021 x / R is an integer the double expression gives it exactly, checked for
// every j / 1021). That floor is computed without division:
//     floor(1021 x / R) = I x + floor(x M / 2^32),  I = 1021 / R,  M = ceil((1021 % R) 2^32 / R)
// where the rounding-up of M adds less than x / 2^32 < 1/R, too little to reach the
// next integer. With 16-bit lanes, x M / 2^32 is the high half of x * (M >> 16) plus
// the carry of adding the high half of x * (M & 0xffff) to its low half.
// From the level, the ramp is minima of saturating differences: red rises from 127 to
// 255 and falls after 383, green rises after 128 and falls after 638, blue rises after
// 383, and the far end (894 and beyond) is navy; red and green are capped at 255 by
// the saturating pack to bytes. The usual range, at least 1022 depths wide and starting
// at or above 0, has no whole part and clamps with one saturating difference.
// The bytes are put in order by one two-source byte permute per output vector with
// AVX-512 (VBMI); with AVX2 by in-lane shuffles and overlapping 16-byte stores.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "colour/false_colour.h"
#include "depth/fast/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

// The level of a depth above 1, as the vectors compute it.
inline int32_t Level(int32_t d, int32_t lo, int32_t hi, uint32_t whole, uint32_t fraction)
{
    const uint32_t x = static_cast<uint32_t>(std::min(std::max(d, lo), hi) - lo);
    const uint32_t high = x * (fraction >> 16), low = (x * (fraction & 0xffff)) >> 16;
    return static_cast<int32_t>(x * whole + ((high + low) >> 16));
}

// The colour of a level as r | g << 8 | b << 16.
inline uint32_t Ramp(int32_t v)
{
    const int32_t r = std::max(std::min(std::min(v + 127, 638 - v), 255), 0);
    const int32_t g = std::max(std::min(std::min(v - 128, 893 - v), 255), 0);
    const int32_t b = std::max(std::min(v - 383, 255 - (127 & -int32_t(v >= 894))), 0);  // branch-free
    return static_cast<uint32_t>(r | g << 8 | b << 16);
}

// 0 is black and 1 violet (127, 0, 170).
inline uint32_t Reserved(int32_t d) { return static_cast<uint32_t>(d) * (127u | 170u << 16); }

inline void Store(uint32_t p, uint8_t* out)
{
    out[0] = static_cast<uint8_t>(p);
    out[1] = static_cast<uint8_t>(p >> 8);
    out[2] = static_cast<uint8_t>(p >> 16);
}

#if defined(__AVX512BW__)
constexpr int kLanes = 32;

// The AVX-512 colours are interleaved by byte permutes (VBMI); the dispatcher hands
// processors without them to the AVX2 kernel.
#define QV_VBMI __attribute__((target("avx512vbmi")))

inline __m512i Splat(int v) { return _mm512_set1_epi16(static_cast<short>(v)); }

// Where byte j of the 96 colour bytes of 32 pixels comes from in a byte permute of two
// sources: red and green packed to bytes by lane (pixel p's red at 16 (p / 8) + p % 8,
// its green 8 further on), then the blue words (pixel p's at 64 + 2 p).
struct InterleaveOrder {
    uint8_t index[2][64];
};
constexpr InterleaveOrder MakeInterleaveOrder()
{
    InterleaveOrder order{};
    for (int j = 0; j < 96; ++j) {
        const int p = j / 3, channel = j % 3;
        order.index[j / 64][j % 64] =
            static_cast<uint8_t>(channel == 2 ? 64 + 2 * p : 16 * (p / 8) + p % 8 + 8 * channel);
    }
    return order;
}
constexpr InterleaveOrder kInterleaveOrder = MakeInterleaveOrder();

// 32 pixels from d[0..31]: out[0..95]. kNarrow: a range of fewer than 1022 depths
// (whole > 0) or one starting below 0; otherwise the clamp is one saturating
// difference and the level has no whole part.
template <bool kNarrow>
QV_VBMI inline void Colours(const uint16_t* depth, const FalseColourRamp& q, __m512i order0, __m512i order1,
                            uint8_t* out)
{
    const __m512i d = _mm512_loadu_si512(depth);
    const __m512i x = kNarrow ? _mm512_sub_epi16(_mm512_min_epu16(_mm512_max_epu16(d, Splat(q.lo16)), Splat(q.hi16)), Splat(q.lo))
                              : _mm512_min_epu16(_mm512_subs_epu16(d, Splat(q.lo)), Splat(q.hi16 - q.lo));
    const __m512i high = Splat(static_cast<int>(q.fraction >> 16)), low = Splat(static_cast<int>(q.fraction & 0xffff));
    const __m512i lo16 = _mm512_mullo_epi16(x, high);
    const __m512i sum = _mm512_add_epi16(lo16, _mm512_mulhi_epu16(x, low));
    __m512i v = _mm512_mulhi_epu16(x, high);
    if (kNarrow)
        v = _mm512_add_epi16(v, _mm512_mullo_epi16(x, Splat(static_cast<int>(q.whole))));
    v = _mm512_mask_add_epi16(v, _mm512_cmplt_epu16_mask(sum, lo16), v, Splat(1));

    // 0 is black and 1 violet (127, 0, 170). In the usual range both have level 0, coloured
    // (127, 0, 0), so only red is cleared for 0 and blue set for 1; otherwise all three
    // channels are replaced. Red and green saturate to 255 in the pack to bytes.
    const __mmask32 zero = _mm512_cmpeq_epi16_mask(d, _mm512_setzero_si512()), one = _mm512_cmpeq_epi16_mask(d, Splat(1));
    const __mmask32 keep = kNarrow ? static_cast<__mmask32>(~(zero | one)) : static_cast<__mmask32>(~0u);
    const __m512i redEnd = kNarrow ? _mm512_maskz_mov_epi16(one, Splat(127)) : _mm512_setzero_si512();
    const __m512i blueEnd = kNarrow ? _mm512_maskz_mov_epi16(one, Splat(170)) : Splat(170);
    const __m512i red = _mm512_mask_min_epu16(redEnd, kNarrow ? keep : static_cast<__mmask32>(~zero),
                                              _mm512_add_epi16(v, Splat(127)), _mm512_subs_epu16(Splat(638), v));
    const __m512i green = _mm512_maskz_min_epu16(keep, _mm512_subs_epu16(v, Splat(128)), _mm512_subs_epu16(Splat(893), v));
    const __m512i blueCap = _mm512_mask_mov_epi16(Splat(255), _mm512_cmpgt_epu16_mask(v, Splat(893)), Splat(128));
    const __m512i blue = _mm512_mask_min_epu16(blueEnd, kNarrow ? keep : static_cast<__mmask32>(~one),
                                               _mm512_subs_epu16(v, Splat(383)), blueCap);

    const __m512i rg = _mm512_packus_epi16(red, green);
    _mm512_storeu_si512(out, _mm512_permutex2var_epi8(rg, order0, blue));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 64),
                        _mm512_castsi512_si256(_mm512_permutex2var_epi8(rg, order1, blue)));
}

template <bool kNarrow>
QV_VBMI size_t ColourBlocks(const uint16_t* depth, size_t n, const FalseColourRamp& ramp, uint8_t* rgb)
{
    const FalseColourRamp q = ramp;  // a copy the stores cannot alias, kept in registers
    const __m512i order0 = _mm512_loadu_si512(kInterleaveOrder.index[0]);
    const __m512i order1 = _mm512_loadu_si512(kInterleaveOrder.index[1]);
    size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        Colours<kNarrow>(depth + i, q, order0, order1, rgb + 3 * i);
    return i;
}
#elif defined(__AVX2__)
constexpr int kLanes = 16;

inline __m256i Splat(int v) { return _mm256_set1_epi16(static_cast<short>(v)); }

// 16 pixels from d[0..15]: out[0..47]; kNarrow as above.
template <bool kNarrow>
inline void Colours(const uint16_t* depth, const FalseColourRamp& q, uint8_t* out)
{
    const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(depth));
    const __m256i x = kNarrow ? _mm256_sub_epi16(_mm256_min_epu16(_mm256_max_epu16(d, Splat(q.lo16)), Splat(q.hi16)), Splat(q.lo))
                              : _mm256_min_epu16(_mm256_subs_epu16(d, Splat(q.lo)), Splat(q.hi16 - q.lo));
    const __m256i high = Splat(static_cast<int>(q.fraction >> 16)), low = Splat(static_cast<int>(q.fraction & 0xffff));
    const __m256i lo16 = _mm256_mullo_epi16(x, high);
    const __m256i sum = _mm256_add_epi16(lo16, _mm256_mulhi_epu16(x, low));
    // No carry where max(sum, lo16) == sum: that compare is -1, cancelling the +1.
    const __m256i noCarry = _mm256_cmpeq_epi16(_mm256_max_epu16(sum, lo16), sum);
    __m256i v = _mm256_add_epi16(_mm256_mulhi_epu16(x, high), _mm256_add_epi16(noCarry, Splat(1)));
    if (kNarrow)
        v = _mm256_add_epi16(v, _mm256_mullo_epi16(x, Splat(static_cast<int>(q.whole))));

    // 0 is black and 1 violet (127, 0, 170); in the usual range both have level 0,
    // coloured (127, 0, 0), as with the AVX-512 kernel.
    const __m256i one = _mm256_cmpeq_epi16(d, Splat(1));
    __m256i red = _mm256_min_epu16(_mm256_add_epi16(v, Splat(127)), _mm256_subs_epu16(Splat(638), v));
    if (!kNarrow)
        red = _mm256_andnot_si256(_mm256_cmpeq_epi16(d, _mm256_setzero_si256()), red);
    const __m256i green = _mm256_min_epu16(_mm256_subs_epu16(v, Splat(128)), _mm256_subs_epu16(Splat(893), v));
    // 255 below 894, 128 from there: 255 - 127 where v > 893.
    const __m256i blueCap = _mm256_sub_epi16(Splat(255), _mm256_and_si256(_mm256_cmpgt_epi16(v, Splat(893)), Splat(127)));
    __m256i blue = _mm256_min_epu16(_mm256_subs_epu16(v, Splat(383)), blueCap);
    const __m256i pairs = _mm256_broadcastsi128_si256(_mm_setr_epi8(0, 8, 1, 9, 2, 10, 3, 11, 4, 12, 5, 13, 6, 14, 7, 15));
    __m256i rg = _mm256_shuffle_epi8(_mm256_packus_epi16(red, green), pairs);
    if (kNarrow) {
        const __m256i reserved = _mm256_cmpeq_epi16(_mm256_min_epu16(d, Splat(1)), d);
        rg = _mm256_blendv_epi8(rg, _mm256_and_si256(one, Splat(127)), reserved);
        blue = _mm256_blendv_epi8(blue, _mm256_and_si256(one, Splat(170)), reserved);
    } else {
        blue = _mm256_blendv_epi8(blue, Splat(170), one);
    }

    const __m256i pack = _mm256_broadcastsi128_si256(_mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
    const __m256i first = _mm256_shuffle_epi8(_mm256_unpacklo_epi16(rg, blue), pack);
    const __m256i second = _mm256_shuffle_epi8(_mm256_unpackhi_epi16(rg, blue), pack);
    // Each lane's 12 bytes stored in order with 16-byte stores; a store's last 4 bytes are
    // overwritten by the next one, the block's last by the next block.
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(first));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 12), _mm256_castsi256_si128(second));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 24), _mm256_extracti128_si256(first, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 36), _mm256_extracti128_si256(second, 1));
}

// Blocks of 16 pixels while two more follow, whose first 4 bytes the last store overwrites.
template <bool kNarrow>
size_t ColourBlocks(const uint16_t* depth, size_t n, const FalseColourRamp& ramp, uint8_t* rgb)
{
    const FalseColourRamp q = ramp;  // a copy the stores cannot alias, kept in registers
    size_t i = 0;
    for (; i + kLanes + 2 <= n; i += kLanes)
        Colours<kNarrow>(depth + i, q, rgb + 3 * i);
    return i;
}
#endif

}  // namespace

void FalseColourSpanKernel(const uint16_t* depth, size_t n, const FalseColourRamp& q, uint8_t* rgb)
{
    size_t i = 0;
#if defined(__AVX2__)
    i = q.whole > 0 || q.lo < 0 ? ColourBlocks<true>(depth, n, q, rgb) : ColourBlocks<false>(depth, n, q, rgb);
#endif
    // Copies: the byte stores could otherwise alias the ramp.
    const int32_t lo = q.lo, hi = q.hi;
    const uint32_t whole = q.whole, fraction = q.fraction;
#if defined(__x86_64__) && !defined(__AVX2__)
    // SSE2 alone has no byte shuffle to interleave the colours and the scalar ramp is
    // long: the 1022 levels' colours once, then a look-up per pixel.
    uint32_t ramp[1022];
    for (int32_t v = 0; v < 1022; ++v)
        ramp[v] = Ramp(v);
    for (; i < n; ++i) {
        const int32_t d = depth[i];
        Store(d > 1 ? ramp[Level(d, lo, hi, whole, fraction)] : Reserved(d), rgb + 3 * i);
    }
#else
    // The vectoriser interleaves the bytes itself where the target has such stores (NEON).
    for (; i < n; ++i) {
        const int32_t d = depth[i];
        const uint32_t p = Ramp(Level(d, lo, hi, whole, fraction));
        Store(d > 1 ? p : Reserved(d), rgb + 3 * i);
    }
#endif
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
