// 5 x 5 median of a 16-bit image, equal to cv::medianBlur(src, dst, 5) with its
// replicated border. This file is compiled once per target (see
// simd/targets.h), into the namespace QV_KERNEL_NS.
//
// Each output row first sorts the five values of every column of its window (shared
// by the five windows that contain the column). Two neighbouring windows then share
// four sorted columns: one network of minima and maxima finds ranks 8 to 13 of those
// twenty values, and each window's median follows from them and its own column in ten
// more (MedianWith), about 75 operations a pixel in all where a network over one
// window's five columns takes 148. Written once, over Highway's vectors of 16-bit
// lanes: whole vectors of the target (SSE4, AVX2, AVX-512, NEON), then single lanes at
// the row's end; the parity test compares the filter with OpenCV's.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

// Sorts a, b into ascending order, lane by lane.
template <class V>
inline void Exchange(V& a, V& b)
{
    const V lo = hn::Min(a, b), hi = hn::Max(a, b);
    a = lo;
    b = hi;
}

// s_k[x] = the k-th smallest of r0[x] .. r4[x], for the lanes of d from x on.
template <class D>
inline void SortColumnsAt(D d, const uint16_t* __restrict r0, const uint16_t* __restrict r1,
                          const uint16_t* __restrict r2, const uint16_t* __restrict r3,
                          const uint16_t* __restrict r4, int x, uint16_t* __restrict s0,
                          uint16_t* __restrict s1, uint16_t* __restrict s2, uint16_t* __restrict s3,
                          uint16_t* __restrict s4)
{
    auto v0 = hn::LoadU(d, r0 + x), v1 = hn::LoadU(d, r1 + x), v2 = hn::LoadU(d, r2 + x);
    auto v3 = hn::LoadU(d, r3 + x), v4 = hn::LoadU(d, r4 + x);
    // Sorting network for five values.
    Exchange(v0, v1);
    Exchange(v3, v4);
    Exchange(v2, v4);
    Exchange(v2, v3);
    Exchange(v0, v3);
    Exchange(v0, v2);
    Exchange(v1, v4);
    Exchange(v1, v3);
    Exchange(v1, v2);
    hn::StoreU(v0, d, s0 + x);
    hn::StoreU(v1, d, s1 + x);
    hn::StoreU(v2, d, s2 + x);
    hn::StoreU(v3, d, s3 + x);
    hn::StoreU(v4, d, s4 + x);
}

// Ranks 8 to 13 (ascending, counted from 1) of the twenty values in four sorted
// columns a, b, c, e (index 0 the smallest of each): Batcher's odd-even merges of a with
// b, c with e and then of the two, each column padded to eight with values above all,
// and every comparison that does not lead to those six ranks left out (88 minima and
// maxima of the merges' 134). Checked on every input of zeros and ones with sorted
// columns (1,296 of them), which by the zero-one principle covers every input.
template <class V>
inline void MiddleRanks(const V (&a)[5], const V (&b)[5], const V (&c)[5], const V (&e)[5], V (&x)[6])
{
    const V t1 = hn::Min(a[0], b[0]);
    const V t2 = hn::Max(a[0], b[0]);
    const V t3 = hn::Min(a[4], b[4]);
    const V t4 = hn::Max(a[4], b[4]);
    const V t5 = hn::Min(t3, t2);
    const V t6 = hn::Max(t3, t2);
    const V t7 = hn::Min(a[2], b[2]);
    const V t8 = hn::Max(a[2], b[2]);
    const V t9 = hn::Min(t7, t5);
    const V t10 = hn::Max(t7, t5);
    const V t11 = hn::Min(t8, t6);
    const V t12 = hn::Max(t8, t6);
    const V t13 = hn::Min(a[1], b[1]);
    const V t14 = hn::Max(a[1], b[1]);
    const V t15 = hn::Min(a[3], b[3]);
    const V t16 = hn::Max(a[3], b[3]);
    const V t17 = hn::Min(t15, t14);
    const V t18 = hn::Max(t15, t14);
    const V t19 = hn::Min(t13, t9);
    const V t20 = hn::Max(t13, t9);
    const V t21 = hn::Min(t17, t10);
    const V t22 = hn::Max(t17, t10);
    const V t23 = hn::Min(t18, t11);
    const V t24 = hn::Max(t18, t11);
    const V t25 = hn::Min(t16, t12);
    const V t26 = hn::Max(t16, t12);
    const V t27 = hn::Min(c[0], e[0]);
    const V t28 = hn::Max(c[0], e[0]);
    const V t29 = hn::Min(c[4], e[4]);
    const V t30 = hn::Max(c[4], e[4]);
    const V t31 = hn::Min(t29, t28);
    const V t32 = hn::Max(t29, t28);
    const V t33 = hn::Min(c[2], e[2]);
    const V t34 = hn::Max(c[2], e[2]);
    const V t35 = hn::Min(t33, t31);
    const V t36 = hn::Max(t33, t31);
    const V t37 = hn::Min(t34, t32);
    const V t38 = hn::Max(t34, t32);
    const V t39 = hn::Min(c[1], e[1]);
    const V t40 = hn::Max(c[1], e[1]);
    const V t41 = hn::Min(c[3], e[3]);
    const V t42 = hn::Max(c[3], e[3]);
    const V t43 = hn::Min(t41, t40);
    const V t44 = hn::Max(t41, t40);
    const V t45 = hn::Min(t39, t35);
    const V t46 = hn::Max(t39, t35);
    const V t47 = hn::Min(t43, t36);
    const V t48 = hn::Max(t43, t36);
    const V t49 = hn::Min(t44, t37);
    const V t50 = hn::Max(t44, t37);
    const V t51 = hn::Min(t42, t38);
    const V t52 = hn::Max(t42, t38);
    const V t54 = hn::Max(t1, t27);
    const V t55 = hn::Min(t26, t52);
    const V t57 = hn::Min(t55, t54);
    const V t58 = hn::Max(t55, t54);
    const V t59 = hn::Min(t22, t48);
    const V t60 = hn::Max(t22, t48);
    const V t62 = hn::Max(t59, t57);
    const V t63 = hn::Min(t60, t58);
    const V t66 = hn::Max(t20, t46);
    const V t67 = hn::Min(t24, t50);
    const V t69 = hn::Min(t67, t66);
    const V t70 = hn::Max(t67, t66);
    const V t74 = hn::Max(t69, t62);
    const V t75 = hn::Min(t70, t63);
    const V t76 = hn::Max(t70, t63);
    const V t80 = hn::Max(t19, t45);
    const V t81 = hn::Min(t4, t30);
    const V t83 = hn::Min(t81, t80);
    const V t84 = hn::Max(t81, t80);
    const V t85 = hn::Min(t23, t49);
    const V t86 = hn::Max(t23, t49);
    const V t88 = hn::Max(t85, t83);
    const V t89 = hn::Min(t86, t84);
    const V t92 = hn::Max(t21, t47);
    const V t93 = hn::Min(t25, t51);
    const V t95 = hn::Min(t93, t92);
    const V t96 = hn::Max(t93, t92);
    const V t99 = hn::Min(t95, t88);
    const V t100 = hn::Max(t95, t88);
    const V t101 = hn::Min(t96, t89);
    const V t111 = hn::Min(t99, t74);
    const V t112 = hn::Max(t99, t74);
    const V t113 = hn::Min(t100, t75);
    const V t114 = hn::Max(t100, t75);
    const V t115 = hn::Min(t101, t76);
    const V t116 = hn::Max(t101, t76);
    x[0] = t111;
    x[1] = t112;
    x[2] = t113;
    x[3] = t114;
    x[4] = t115;
    x[5] = t116;
}

// The median of a window's 25 values from the ranks 8 to 13 of the 20 it shares with
// its neighbour (x) and its own sorted column (y). Below x's smallest lie 7 shared
// values and above its largest 7, so the 13th of 25 is the 6th of these 11: the least,
// over i + j = 6, of max(x_i, y_j) (1-based; y_0 below everything).
template <class V>
inline V MedianWith(const V (&x)[6], const V (&y)[5])
{
    V m = hn::Min(x[5], hn::Max(x[4], y[0]));
    m = hn::Min(m, hn::Max(x[3], y[1]));
    m = hn::Min(m, hn::Max(x[2], y[2]));
    m = hn::Min(m, hn::Max(x[1], y[3]));
    return hn::Min(m, hn::Max(x[0], y[4]));
}

// The medians of outputs x + 2i and x + 2i + 1 for the lanes i of d, from the sorted
// columns s[0..4] (padded: output x's window is columns x .. x + 4). The two windows
// share four columns; a deinterleaving load gives the even and the odd columns in
// separate vectors, so lane i sees the pair's six columns. With `both` false only the
// even outputs are written (a row's odd last pixel).
template <class D>
inline void MedianPairsAt(D d, uint16_t* const (&s)[5], int x, uint16_t* out, bool both)
{
    using V = hn::Vec<D>;
    V own0[5], a[5], b[5], c[5], e[5], own1[5];
    for (int k = 0; k < 5; ++k) {
        hn::LoadInterleaved2(d, s[k] + x, own0[k], a[k]);
        hn::LoadInterleaved2(d, s[k] + x + 2, b[k], c[k]);
        hn::LoadInterleaved2(d, s[k] + x + 4, e[k], own1[k]);
    }
    V middle[6];
    MiddleRanks(a, b, c, e, middle);
    const V left = MedianWith(middle, own0);
    if (both)
        hn::StoreInterleaved2(left, MedianWith(middle, own1), d, out + x);
    else
        hn::StoreU(left, d, out + x);
}

// The columns' sort over whole vectors, then the last pixels one lane at a time.
template <class Step>
inline void ForEachLane(int n, const Step& step)
{
    const hn::ScalableTag<uint16_t> d;
    const int lanes = static_cast<int>(hn::Lanes(d));
    int x = 0;
    for (; x + lanes <= n; x += lanes)
        step(d, x);
    for (; x < n; ++x)
        step(hn::CappedTag<uint16_t, 1>(), x);
}

}  // namespace

void Median5x5Rows(const uint16_t* src, size_t srcStep, uint16_t* dst, size_t dstStep, int width,
                   int height, uint16_t* scratch)
{
    // Sorted columns of the window: two replicated columns on the left, three on the
    // right (the pair of a row's odd last pixel reads one more).
    const int padded = width + 5;
    uint16_t* s[5];
    for (int k = 0; k < 5; ++k)
        s[k] = scratch + static_cast<size_t>(k) * padded;
    const hn::ScalableTag<uint16_t> d;
    const hn::CappedTag<uint16_t, 1> d1;
    const int pairs = 2 * static_cast<int>(hn::Lanes(d));
    for (int y = 0; y < height; ++y) {
        const uint16_t* r[5];
        for (int k = 0; k < 5; ++k)
            r[k] = src + static_cast<size_t>(std::min(std::max(y - 2 + k, 0), height - 1)) * srcStep;
        ForEachLane(width, [&](auto dx, int x) {
            SortColumnsAt(dx, r[0], r[1], r[2], r[3], r[4], x, s[0] + 2, s[1] + 2, s[2] + 2,
                          s[3] + 2, s[4] + 2);
        });
        for (int k = 0; k < 5; ++k) {
            s[k][0] = s[k][1] = s[k][2];
            s[k][width + 2] = s[k][width + 3] = s[k][width + 4] = s[k][width + 1];
        }
        uint16_t* out = dst + static_cast<size_t>(y) * dstStep;
        int x = 0;
        for (; x + pairs <= width; x += pairs)
            MedianPairsAt(d, s, x, out, true);
        for (; x + 2 <= width; x += 2)
            MedianPairsAt(d1, s, x, out, true);
        if (x < width)
            MedianPairsAt(d1, s, x, out, false);
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
