// The point cloud's inner loop: a run of pixels inside the mask whose rays lie one
// after the other (binning 1). This file is compiled once per target (see
// simd/targets.h), into the namespace QV_KERNEL_NS.
//
// Each point is (rayX * z, rayY * z, z), one rounding per coordinate as in the plain
// loop, so the results are identical. The explicit AVX2/AVX-512 loops compute W points
// at once and interleave them into three vectors: W is not a multiple of 3, so every
// lane of the three output vectors takes X in one of them, Y in another and Z in the
// third; one permute per coordinate brings the values to their lanes and two blends
// per output vector pick them (the vectoriser's own interleave was scalar shuffles).
#include <cstdint>

#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

inline void Point(const uint16_t* depth, const float* rayX, const float* rayY, int c, float* out)
{
    const float z = depth[c];
    out[3 * c] = rayX[c] * z;
    out[3 * c + 1] = rayY[c] * z;
    out[3 * c + 2] = z;
}

#if defined(__AVX2__)
// Lane s of output vector j (of W lanes) holds coordinate (j * W + s) % 3 of point
// (j * W + s) / 3.
constexpr int Coordinate(int W, int j, int s) { return (j * W + s) % 3; }

// The lanes of output vector j that hold coordinate m, as a blend mask.
constexpr unsigned Lanes(int W, int j, int m)
{
    unsigned mask = 0;
    for (int s = 0; s < W; ++s)
        mask |= (Coordinate(W, j, s) == m ? 1u : 0u) << s;
    return mask;
}

// The point whose coordinate m lane s holds, in the one output vector where it holds m.
constexpr int Source(int W, int m, int s)
{
    for (int j = 0; j < 3; ++j)
        if (Coordinate(W, j, s) == m)
            return (j * W + s) / 3;
    return 0;
}
#endif

#if defined(__AVX512F__)
constexpr int kLanes = 16;

template <int M>
inline __m512i SourceIndex()
{
    return _mm512_setr_epi32(Source(16, M, 0), Source(16, M, 1), Source(16, M, 2), Source(16, M, 3),
                             Source(16, M, 4), Source(16, M, 5), Source(16, M, 6), Source(16, M, 7),
                             Source(16, M, 8), Source(16, M, 9), Source(16, M, 10), Source(16, M, 11),
                             Source(16, M, 12), Source(16, M, 13), Source(16, M, 14), Source(16, M, 15));
}

template <int J>
inline __m512 Interleaved(__m512 x, __m512 y, __m512 z)
{
    const __m512 xy = _mm512_mask_blend_ps(static_cast<__mmask16>(Lanes(16, J, 1)), x, y);
    return _mm512_mask_blend_ps(static_cast<__mmask16>(Lanes(16, J, 2)), xy, z);
}

inline void Points(const uint16_t* depth, const float* rayX, const float* rayY, int c, float* out)
{
    const __m512 z = _mm512_cvtepi32_ps(
        _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(depth + c))));
    const __m512 x = _mm512_permutexvar_ps(SourceIndex<0>(), _mm512_mul_ps(_mm512_loadu_ps(rayX + c), z));
    const __m512 y = _mm512_permutexvar_ps(SourceIndex<1>(), _mm512_mul_ps(_mm512_loadu_ps(rayY + c), z));
    const __m512 zs = _mm512_permutexvar_ps(SourceIndex<2>(), z);
    float* p = out + 3 * c;
    _mm512_storeu_ps(p, Interleaved<0>(x, y, zs));
    _mm512_storeu_ps(p + 16, Interleaved<1>(x, y, zs));
    _mm512_storeu_ps(p + 32, Interleaved<2>(x, y, zs));
}
#elif defined(__AVX2__)
constexpr int kLanes = 8;

template <int M>
inline __m256i SourceIndex()
{
    return _mm256_setr_epi32(Source(8, M, 0), Source(8, M, 1), Source(8, M, 2), Source(8, M, 3),
                             Source(8, M, 4), Source(8, M, 5), Source(8, M, 6), Source(8, M, 7));
}

template <int J>
inline __m256 Interleaved(__m256 x, __m256 y, __m256 z)
{
    const __m256 xy = _mm256_blend_ps(x, y, Lanes(8, J, 1));
    return _mm256_blend_ps(xy, z, Lanes(8, J, 2));
}

inline void Points(const uint16_t* depth, const float* rayX, const float* rayY, int c, float* out)
{
    const __m256 z = _mm256_cvtepi32_ps(
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(depth + c))));
    const __m256 x = _mm256_permutevar8x32_ps(_mm256_mul_ps(_mm256_loadu_ps(rayX + c), z), SourceIndex<0>());
    const __m256 y = _mm256_permutevar8x32_ps(_mm256_mul_ps(_mm256_loadu_ps(rayY + c), z), SourceIndex<1>());
    const __m256 zs = _mm256_permutevar8x32_ps(z, SourceIndex<2>());
    float* p = out + 3 * c;
    _mm256_storeu_ps(p, Interleaved<0>(x, y, zs));
    _mm256_storeu_ps(p + 8, Interleaved<1>(x, y, zs));
    _mm256_storeu_ps(p + 16, Interleaved<2>(x, y, zs));
}
#endif

}  // namespace

// Points of columns [0, count) of depth, rays and out (three floats per point).
void PointCloudSpanKernel(const uint16_t* depth, const float* rayX, const float* rayY, int count,
                          float* out)
{
    int c = 0;
#if defined(__AVX2__)
    if (count >= kLanes) {
        for (; c + kLanes <= count; c += kLanes)
            Points(depth, rayX, rayY, c, out);
        // The last partial vector again ends at the run's end; the points it repeats
        // come out the same.
        if (c < count)
            Points(depth, rayX, rayY, count - kLanes, out);
        return;
    }
#endif
    for (; c < count; ++c)
        Point(depth, rayX, rayY, c, out);
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
