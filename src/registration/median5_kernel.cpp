// 5 x 5 median of a 16-bit image, equal to cv::medianBlur(src, dst, 5) with its
// replicated border. This file is compiled once per target (see
// simd/targets.h), into the namespace QV_KERNEL_NS.
//
// Each output row first sorts the five values of every column of its window (shared
// by the five windows that contain the column); the median of a window is then taken
// from its five sorted columns by a fixed network of minima and maxima: each rank is
// partly sorted across the columns, which leaves 13 candidates, and the candidates'
// rows are merged up to the middle one. The network was generated and checked on every
// input of zeros and ones with sorted columns (7,776 of them), which by the zero-one
// principle covers every input; the parity test compares it with OpenCV's filter.
// Both networks are written once, over Highway's vectors of 16-bit lanes: whole
// vectors of the target (SSE4, AVX2, AVX-512, NEON), then single lanes at the row's end.
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

// The median of the sorted columns x .. x + 4 of s0..s4 (a_cr: column c, rank r), for
// the lanes of d from x on.
template <class D, class V = hn::Vec<D>>
inline V MedianOfSortedColumnsAt(D d, const uint16_t* __restrict s0, const uint16_t* __restrict s1,
                                 const uint16_t* __restrict s2, const uint16_t* __restrict s3,
                                 const uint16_t* __restrict s4, int x)
{
    const auto Load = [d](const uint16_t* p) { return hn::LoadU(d, p); };
    const auto Min = [](V a, V b) { return hn::Min(a, b); };
    const auto Max = [](V a, V b) { return hn::Max(a, b); };
    const V a00 = Load(s0 + x + 0), a01 = Load(s1 + x + 0), a02 = Load(s2 + x + 0), a03 = Load(s3 + x + 0), a04 = Load(s4 + x + 0);
    const V a10 = Load(s0 + x + 1), a11 = Load(s1 + x + 1), a12 = Load(s2 + x + 1), a13 = Load(s3 + x + 1), a14 = Load(s4 + x + 1);
    const V a20 = Load(s0 + x + 2), a21 = Load(s1 + x + 2), a22 = Load(s2 + x + 2), a23 = Load(s3 + x + 2), a24 = Load(s4 + x + 2);
    const V a30 = Load(s0 + x + 3), a31 = Load(s1 + x + 3), a32 = Load(s2 + x + 3), a33 = Load(s3 + x + 3), a34 = Load(s4 + x + 3);
    const V a40 = Load(s0 + x + 4), a41 = Load(s1 + x + 4), a42 = Load(s2 + x + 4), a43 = Load(s3 + x + 4), a44 = Load(s4 + x + 4);
    const V t25 = Min(a00, a10);
    const V t26 = Max(a00, a10);
    const V t27 = Min(a30, a40);
    const V t28 = Max(a30, a40);
    const V t29 = Min(a20, t28);
    const V t30 = Max(a20, t28);
    const V t32 = Max(t29, t27);
    const V t34 = Max(t25, t32);
    const V t37 = Min(t26, t30);
    const V t38 = Max(t26, t30);
    const V t40 = Max(t37, t34);
    const V t43 = Min(a01, a11);
    const V t44 = Max(a01, a11);
    const V t45 = Min(a31, a41);
    const V t46 = Max(a31, a41);
    const V t47 = Min(a21, t46);
    const V t48 = Max(a21, t46);
    const V t49 = Min(t47, t45);
    const V t50 = Max(t47, t45);
    const V t51 = Min(t43, t50);
    const V t52 = Max(t43, t50);
    const V t54 = Max(t51, t49);
    const V t55 = Min(t44, t48);
    const V t56 = Max(t44, t48);
    const V t57 = Min(t55, t52);
    const V t58 = Max(t55, t52);
    const V t60 = Max(t57, t54);
    const V t61 = Min(a02, a12);
    const V t62 = Max(a02, a12);
    const V t63 = Min(a32, a42);
    const V t64 = Max(a32, a42);
    const V t65 = Min(a22, t64);
    const V t66 = Max(a22, t64);
    const V t67 = Min(t65, t63);
    const V t68 = Max(t65, t63);
    const V t69 = Min(t61, t68);
    const V t70 = Max(t61, t68);
    const V t72 = Max(t69, t67);
    const V t73 = Min(t62, t66);
    const V t75 = Min(t73, t70);
    const V t76 = Max(t73, t70);
    const V t77 = Min(t75, t72);
    const V t78 = Max(t75, t72);
    const V t79 = Min(a03, a13);
    const V t80 = Max(a03, a13);
    const V t81 = Min(a33, a43);
    const V t82 = Max(a33, a43);
    const V t83 = Min(a23, t82);
    const V t84 = Max(a23, t82);
    const V t85 = Min(t83, t81);
    const V t86 = Max(t83, t81);
    const V t87 = Min(t79, t86);
    const V t88 = Max(t79, t86);
    const V t89 = Min(t87, t85);
    const V t90 = Max(t87, t85);
    const V t91 = Min(t80, t84);
    const V t93 = Min(t91, t88);
    const V t95 = Min(t93, t90);
    const V t96 = Max(t93, t90);
    const V t97 = Min(a04, a14);
    const V t98 = Max(a04, a14);
    const V t99 = Min(a34, a44);
    const V t100 = Max(a34, a44);
    const V t101 = Min(a24, t100);
    const V t102 = Max(a24, t100);
    const V t103 = Min(t101, t99);
    const V t104 = Max(t101, t99);
    const V t105 = Min(t97, t104);
    const V t106 = Max(t97, t104);
    const V t107 = Min(t105, t103);
    const V t108 = Max(t105, t103);
    const V t109 = Min(t98, t102);
    const V t111 = Min(t109, t106);
    const V t113 = Min(t111, t108);
    const V t115 = Min(t40, t60);
    const V t116 = Max(t40, t60);
    const V t117 = Min(t56, t116);
    const V t118 = Max(t56, t116);
    const V t119 = Min(t38, t58);
    const V t120 = Max(t38, t58);
    const V t121 = Min(t119, t117);
    const V t122 = Max(t119, t117);
    const V t123 = Min(t120, t118);
    const V t124 = Max(t120, t118);
    const V t125 = Min(t77, t107);
    const V t126 = Max(t77, t107);
    const V t127 = Min(t76, t126);
    const V t128 = Max(t76, t126);
    const V t129 = Min(t78, t113);
    const V t130 = Max(t78, t113);
    const V t131 = Min(t129, t127);
    const V t132 = Max(t129, t127);
    const V t133 = Min(t130, t128);
    const V t134 = Max(t130, t128);
    const V t135 = Min(t115, t125);
    const V t136 = Max(t115, t125);
    const V t137 = Min(t124, t134);
    const V t138 = Max(t124, t134);
    const V t139 = Min(t137, t136);
    const V t140 = Max(t137, t136);
    const V t141 = Min(t122, t132);
    const V t142 = Max(t122, t132);
    const V t143 = Min(t141, t139);
    const V t144 = Max(t141, t139);
    const V t145 = Min(t142, t140);
    const V t146 = Max(t142, t140);
    const V t147 = Min(t121, t131);
    const V t148 = Max(t121, t131);
    const V t149 = Min(t123, t133);
    const V t150 = Max(t123, t133);
    const V t151 = Min(t149, t148);
    const V t152 = Max(t149, t148);
    const V t153 = Min(t147, t143);
    const V t154 = Max(t147, t143);
    const V t155 = Min(t151, t144);
    const V t156 = Max(t151, t144);
    const V t157 = Min(t152, t145);
    const V t158 = Max(t152, t145);
    const V t160 = Max(t150, t146);
    const V t162 = Max(t135, t89);
    const V t163 = Min(t160, t162);
    const V t166 = Max(t156, t163);
    const V t168 = Max(t154, t96);
    const V t169 = Min(t158, t168);
    const V t173 = Min(t169, t166);
    const V t178 = Max(t153, t95);
    const V t179 = Min(t138, t178);
    const V t181 = Min(t157, t179);
    const V t184 = Max(t155, t181);
    const V t192 = Max(t184, t173);
    return t192;
}

// Each row step over whole vectors, then the last pixels one lane at a time.
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
    // Sorted columns of the window, two replicated columns on each side.
    const int padded = width + 4;
    uint16_t* s[5];
    for (int k = 0; k < 5; ++k)
        s[k] = scratch + static_cast<size_t>(k) * padded;
    for (int y = 0; y < height; ++y) {
        const uint16_t* r[5];
        for (int k = 0; k < 5; ++k)
            r[k] = src + static_cast<size_t>(std::min(std::max(y - 2 + k, 0), height - 1)) * srcStep;
        ForEachLane(width, [&](auto d, int x) {
            SortColumnsAt(d, r[0], r[1], r[2], r[3], r[4], x, s[0] + 2, s[1] + 2, s[2] + 2,
                          s[3] + 2, s[4] + 2);
        });
        for (int k = 0; k < 5; ++k) {
            s[k][0] = s[k][1] = s[k][2];
            s[k][width + 2] = s[k][width + 3] = s[k][width + 1];
        }
        uint16_t* out = dst + static_cast<size_t>(y) * dstStep;
        ForEachLane(width, [&](auto d, int x) {
            hn::StoreU(MedianOfSortedColumnsAt(d, s[0], s[1], s[2], s[3], s[4], x), d, out + x);
        });
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
