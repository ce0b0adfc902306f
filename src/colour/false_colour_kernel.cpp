// False colouring of a run of depth values for an ordinary range. This file is compiled
// once per target (see simd/targets.h), into the namespace QV_KERNEL_NS.
//
// The colour of a depth depends on its level v = trunc((d - lo) / (hi - lo) * 1021)
// with d clamped into [lo, hi]. In doubles that quotient is within 2^-40 of the exact
// 1021 x / R (x = d - lo, R = hi - lo <= 65535), and an exact quotient that is not an
// integer lies at least 1/R from one, so the level is the integer floor(1021 x / R)
// (where 1021 x / R is an integer the double expression gives it exactly, checked for
// every j / 1021). That floor is computed without division: with I = 1021 / R,
// F = x (1021 % R) / R and M = floor((1021 % R) 2^32 / R) = H 2^16 + L,
//     floor(1021 x / R) = I x + floor(F) = I x + (x H + floor(x L / 2^16) + 1) >> 16.
// Shifted up by 16 bits, the sum lies in (x M, x M + 2^16] and is a multiple of 2^16.
// x M is above F 2^32 - x > F 2^32 - 2^16, so the sum is not below floor(F) 2^32; it is
// at most F 2^32 + 2^16, below the next multiple of 2^32 because F is either whole or at
// least 1/R > 2^-16 below the next integer. With 16-bit lanes, x H is mullo and mulhi
// of x and H, and the carry out of its low half plus mulhi(x, L) plus 1 is the top bit
// of their rounding average.
// From the level, each channel rises and falls with slope one between 0 and 255: red
// rises from 127 and falls after 383, green rises after 128 and falls after 638, blue
// rises after 383, and the far end (894 and beyond) is navy. With AVX-512 a channel is
// the minimum of two saturating word differences; with AVX2 the rising slopes are packed
// to bytes with saturation and a channel is the difference of two (red falls as blue
// rises). The usual range (see Narrow) has no whole part and clamps the depth from below
// only.
// The bytes are put in order by one two-source byte permute per output vector with
// AVX-512 (VBMI); with AVX2 by a byte shuffle per colour plane, two blends per 16 output
// bytes and 128-bit lane permutes.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "colour/false_colour.h"
#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

// The level of a depth above 1, as the vectors compute it.
inline int32_t Level(int32_t d, int32_t lo, int32_t hi, uint32_t whole, uint32_t fraction)
{
    const uint32_t x = static_cast<uint32_t>(std::min(std::max(d, lo), hi) - lo);
    // x H + floor(x L / 2^16) + 1 stays below 2^32 for x, H, L below 2^16.
    const uint32_t high = x * (fraction >> 16), low = (x * (fraction & 0xffff)) >> 16;
    return static_cast<int32_t>(x * whole + ((high + low + 1) >> 16));
}

#if defined(__AVX2__)
// Whether a range needs the full clamp of the depth into [lo, hi] and the whole part of
// the level: one narrower than 2042 depths or starting below 0. The usual range clamps
// from below only, by one saturating difference: a depth beyond hi has a level of 1021
// or more, navy as 1021 is, and as the range gives at most one level per two depths, no
// level reaches 32768.
inline bool Narrow(const FalseColourRamp& q) { return q.lo < 0 || q.hi - q.lo < 2042; }
#endif

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

// 32 pixels from d[0..31]: out[0..95]; kNarrow as for Narrow() above.
template <bool kNarrow>
QV_VBMI inline void Colours(const uint16_t* depth, const FalseColourRamp& q, __m512i order0, __m512i order1,
                            uint8_t* out)
{
    const __m512i d = _mm512_loadu_si512(depth);
    const __m512i x = kNarrow ? _mm512_sub_epi16(_mm512_min_epu16(_mm512_max_epu16(d, Splat(q.lo16)), Splat(q.hi16)), Splat(q.lo))
                              : _mm512_subs_epu16(d, Splat(q.lo));
    const __m512i high = Splat(static_cast<int>(q.fraction >> 16)), low = Splat(static_cast<int>(q.fraction & 0xffff));
    const __m512i carry = _mm512_srli_epi16(_mm512_avg_epu16(_mm512_mullo_epi16(x, high), _mm512_mulhi_epu16(x, low)), 15);
    __m512i v = _mm512_add_epi16(_mm512_mulhi_epu16(x, high), carry);
    if (kNarrow)
        v = _mm512_add_epi16(v, _mm512_mullo_epi16(x, Splat(static_cast<int>(q.whole))));

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
constexpr int kLanes = 32;

inline __m256i Splat(int v) { return _mm256_set1_epi16(static_cast<short>(v)); }

// The byte shuffle of each colour plane and the blend masks that interleave three planes
// of 16 pixels into 48 bytes, lane by lane. Channel c of pixel p is byte j = (3 p + c) % 16
// of 16-byte block k = (3 p + c) / 16, and as 16 = 1 (mod 3) that byte's channel is
// (j + k) % 3. So plane c's shuffle holds at byte j the pixel (16 k + j) / 3 of the one
// block k = (c - j) mod 3 that takes channel c there, and block k takes byte j from plane
// (j + k) % 3: plane k, replaced by the next where j % 3 == 1 and the one after where
// j % 3 == 2.
struct InterleaveOrder {
    int8_t plane[3][16];
    int8_t next[16], after[16];
};
constexpr InterleaveOrder MakeInterleaveOrder()
{
    InterleaveOrder order{};
    for (int j = 0; j < 16; ++j) {
        for (int c = 0; c < 3; ++c)
            order.plane[c][j] = static_cast<int8_t>((16 * ((c - j % 3 + 3) % 3) + j) / 3);
        order.next[j] = static_cast<int8_t>(j % 3 == 1 ? -1 : 0);
        order.after[j] = static_cast<int8_t>(j % 3 == 2 ? -1 : 0);
    }
    return order;
}
constexpr InterleaveOrder kInterleaveOrder = MakeInterleaveOrder();

inline __m256i Lanes(const int8_t* bytes)
{
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
}

// The levels of 16 depths, as words; kNarrow as for Narrow() above.
template <bool kNarrow>
inline __m256i Levels(__m256i d, const FalseColourRamp& q)
{
    const __m256i x = kNarrow ? _mm256_sub_epi16(_mm256_min_epu16(_mm256_max_epu16(d, Splat(q.lo16)), Splat(q.hi16)), Splat(q.lo))
                              : _mm256_subs_epu16(d, Splat(q.lo));
    const __m256i high = Splat(static_cast<int>(q.fraction >> 16)), low = Splat(static_cast<int>(q.fraction & 0xffff));
    const __m256i carry = _mm256_srli_epi16(_mm256_avg_epu16(_mm256_mullo_epi16(x, high), _mm256_mulhi_epu16(x, low)), 15);
    __m256i v = _mm256_add_epi16(_mm256_mulhi_epu16(x, high), carry);
    if (kNarrow)
        v = _mm256_add_epi16(v, _mm256_mullo_epi16(x, Splat(static_cast<int>(q.whole))));
    return v;
}

// The levels of pixels 0-7 and 16-23 (a) and of 8-15 and 24-31 (b) plus k, as bytes
// capped at 0 and 255, pixels 0-31 in order: a slope rising from level -k.
inline __m256i Rise(__m256i a, __m256i b, int k)
{
    return _mm256_packus_epi16(_mm256_add_epi16(a, Splat(k)), _mm256_add_epi16(b, Splat(k)));
}

// Byte a0, a1 or a2 for each byte 0, 1 or 2 of capped.
inline __m256i Pick(__m256i capped, int a0, int a1, int a2)
{
    const __m128i table = _mm_setr_epi8(static_cast<char>(a0), static_cast<char>(a1), static_cast<char>(a2), 0, 0, 0, 0, 0,
                                        0, 0, 0, 0, 0, 0, 0, 0);
    return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(table), capped);
}

// 32 pixels from depth[0..31]: out[0..95].
template <bool kNarrow>
inline void Colours(const uint16_t* depth, const FalseColourRamp& q, uint8_t* out)
{
    const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(depth));
    const __m256i second = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(depth + 16));
    // Pixels 0-7 with 16-23 and 8-15 with 24-31: the packs to bytes, which work lane by
    // lane, then give pixels 0-31 in order.
    const __m256i dA = _mm256_permute2x128_si256(first, second, 0x20);
    const __m256i dB = _mm256_permute2x128_si256(first, second, 0x31);
    const __m256i vA = Levels<kNarrow>(dA, q), vB = Levels<kNarrow>(dB, q);

    // Red falls from 255 as blue rises, green as a slope from 638 rises: each falling
    // side is a saturating byte difference.
    const __m256i blueUp = Rise(vA, vB, -383);
    __m256i red = _mm256_subs_epu8(Rise(vA, vB, 127), blueUp);
    __m256i green = _mm256_subs_epu8(Rise(vA, vB, -128), Rise(vA, vB, -638));
    // Navy from level 894 on, where 893 - v packed to bytes with signed saturation is
    // negative: blue's 255 there becomes 128.
    const __m256i far = _mm256_packs_epi16(_mm256_sub_epi16(Splat(893), vA), _mm256_sub_epi16(Splat(893), vB));
    __m256i blue = _mm256_blendv_epi8(blueUp, _mm256_set1_epi8(static_cast<char>(128)), far);

    // 0 is black and 1 violet (127, 0, 170): the depths capped at 2 pick bytes by shuffles.
    // In the usual range both have level 0, coloured (127, 0, 0), so only red is cleared
    // for 0 and blue set for 1; otherwise all three channels are replaced.
    const __m256i reserved = _mm256_packus_epi16(_mm256_min_epu16(dA, Splat(2)), _mm256_min_epu16(dB, Splat(2)));
    if (kNarrow) {
        const __m256i mask = Pick(reserved, -1, -1, 0);
        red = _mm256_blendv_epi8(red, Pick(reserved, 0, 127, 0), mask);
        green = _mm256_andnot_si256(mask, green);
        blue = _mm256_blendv_epi8(blue, Pick(reserved, 0, 170, 0), mask);
    } else {
        red = _mm256_and_si256(red, Pick(reserved, 0, -1, -1));
        blue = _mm256_or_si256(blue, Pick(reserved, 0, 170, 0));
    }

    const InterleaveOrder& o = kInterleaveOrder;
    const __m256i p0 = _mm256_shuffle_epi8(red, Lanes(o.plane[0]));
    const __m256i p1 = _mm256_shuffle_epi8(green, Lanes(o.plane[1]));
    const __m256i p2 = _mm256_shuffle_epi8(blue, Lanes(o.plane[2]));
    const __m256i next = Lanes(o.next), after = Lanes(o.after);
    const __m256i block0 = _mm256_blendv_epi8(_mm256_blendv_epi8(p0, p1, next), p2, after);
    const __m256i block1 = _mm256_blendv_epi8(_mm256_blendv_epi8(p1, p2, next), p0, after);
    const __m256i block2 = _mm256_blendv_epi8(_mm256_blendv_epi8(p2, p0, next), p1, after);
    // Lane 0 holds the 48 bytes of pixels 0-15, lane 1 those of pixels 16-31.
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(block0, block1, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 32), _mm256_permute2x128_si256(block2, block0, 0x30));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 64), _mm256_permute2x128_si256(block1, block2, 0x31));
}

template <bool kNarrow>
size_t ColourBlocks(const uint16_t* depth, size_t n, const FalseColourRamp& ramp, uint8_t* rgb)
{
    const FalseColourRamp q = ramp;  // a copy the stores cannot alias, kept in registers
    size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        Colours<kNarrow>(depth + i, q, rgb + 3 * i);
    return i;
}
#endif

}  // namespace

void FalseColourSpanKernel(const uint16_t* depth, size_t n, const FalseColourRamp& q, uint8_t* rgb)
{
    size_t i = 0;
#if defined(__AVX2__)
    i = Narrow(q) ? ColourBlocks<true>(depth, n, q, rgb) : ColourBlocks<false>(depth, n, q, rgb);
#endif
    // Copies: the byte stores could otherwise alias the ramp.
    const int32_t lo = q.lo, hi = q.hi;
    const uint32_t whole = q.whole, fraction = q.fraction;
#if defined(__x86_64__) && !defined(__AVX2__)
    // Below AVX2 the vectoriser leaves the colours' interleave scalar and the ramp is
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
