// 5 x 5 median of a 16-bit image, equal to cv::medianBlur(src, dst, 5) with its
// replicated border. This file is compiled once per instruction set, like
// depth_fast.cpp, into the namespace QV_KERNEL_NS.
//
// Each output row first sorts the five values of every column of its window (shared
// by the five windows that contain the column); the median of a window is then taken
// from its five sorted columns by a fixed network of minima and maxima: each rank is
// partly sorted across the columns, which leaves 13 candidates, and the candidates'
// rows are merged up to the middle one. The network was generated and checked on every
// input of zeros and ones with sorted columns (7,776 of them), which by the zero-one
// principle covers every input; the parity test compares it with OpenCV's filter.
// Straight-line minima and maxima in a loop over columns: the compiler vectorises it.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#ifndef QV_KERNEL_NS
#error "QV_KERNEL_NS names the instruction set this file is compiled for"
#endif

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

inline void Exchange(uint16_t& a, uint16_t& b)
{
    const uint16_t lo = std::min(a, b), hi = std::max(a, b);
    a = lo;
    b = hi;
}

// s_k[x] = the k-th smallest of r0[x] .. r4[x].
void SortColumns(const uint16_t* __restrict r0, const uint16_t* __restrict r1,
                 const uint16_t* __restrict r2, const uint16_t* __restrict r3,
                 const uint16_t* __restrict r4, int n, uint16_t* __restrict s0,
                 uint16_t* __restrict s1, uint16_t* __restrict s2, uint16_t* __restrict s3,
                 uint16_t* __restrict s4)
{
    for (int x = 0; x < n; ++x) {
        uint16_t v0 = r0[x], v1 = r1[x], v2 = r2[x], v3 = r3[x], v4 = r4[x];
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
        s0[x] = v0;
        s1[x] = v1;
        s2[x] = v2;
        s3[x] = v3;
        s4[x] = v4;
    }
}

// out[x] = median of the sorted columns x .. x + 4 of s0..s4 (a_cr: column c, rank r).
void MedianOfSortedColumns(const uint16_t* __restrict s0, const uint16_t* __restrict s1,
                           const uint16_t* __restrict s2, const uint16_t* __restrict s3,
                           const uint16_t* __restrict s4, int n, uint16_t* __restrict out)
{
    for (int x = 0; x < n; ++x) {
        const uint16_t a00 = s0[x + 0], a01 = s1[x + 0], a02 = s2[x + 0], a03 = s3[x + 0], a04 = s4[x + 0];
        const uint16_t a10 = s0[x + 1], a11 = s1[x + 1], a12 = s2[x + 1], a13 = s3[x + 1], a14 = s4[x + 1];
        const uint16_t a20 = s0[x + 2], a21 = s1[x + 2], a22 = s2[x + 2], a23 = s3[x + 2], a24 = s4[x + 2];
        const uint16_t a30 = s0[x + 3], a31 = s1[x + 3], a32 = s2[x + 3], a33 = s3[x + 3], a34 = s4[x + 3];
        const uint16_t a40 = s0[x + 4], a41 = s1[x + 4], a42 = s2[x + 4], a43 = s3[x + 4], a44 = s4[x + 4];
        const uint16_t t25 = std::min(a00, a10);
        const uint16_t t26 = std::max(a00, a10);
        const uint16_t t27 = std::min(a30, a40);
        const uint16_t t28 = std::max(a30, a40);
        const uint16_t t29 = std::min(a20, t28);
        const uint16_t t30 = std::max(a20, t28);
        const uint16_t t32 = std::max(t29, t27);
        const uint16_t t34 = std::max(t25, t32);
        const uint16_t t37 = std::min(t26, t30);
        const uint16_t t38 = std::max(t26, t30);
        const uint16_t t40 = std::max(t37, t34);
        const uint16_t t43 = std::min(a01, a11);
        const uint16_t t44 = std::max(a01, a11);
        const uint16_t t45 = std::min(a31, a41);
        const uint16_t t46 = std::max(a31, a41);
        const uint16_t t47 = std::min(a21, t46);
        const uint16_t t48 = std::max(a21, t46);
        const uint16_t t49 = std::min(t47, t45);
        const uint16_t t50 = std::max(t47, t45);
        const uint16_t t51 = std::min(t43, t50);
        const uint16_t t52 = std::max(t43, t50);
        const uint16_t t54 = std::max(t51, t49);
        const uint16_t t55 = std::min(t44, t48);
        const uint16_t t56 = std::max(t44, t48);
        const uint16_t t57 = std::min(t55, t52);
        const uint16_t t58 = std::max(t55, t52);
        const uint16_t t60 = std::max(t57, t54);
        const uint16_t t61 = std::min(a02, a12);
        const uint16_t t62 = std::max(a02, a12);
        const uint16_t t63 = std::min(a32, a42);
        const uint16_t t64 = std::max(a32, a42);
        const uint16_t t65 = std::min(a22, t64);
        const uint16_t t66 = std::max(a22, t64);
        const uint16_t t67 = std::min(t65, t63);
        const uint16_t t68 = std::max(t65, t63);
        const uint16_t t69 = std::min(t61, t68);
        const uint16_t t70 = std::max(t61, t68);
        const uint16_t t72 = std::max(t69, t67);
        const uint16_t t73 = std::min(t62, t66);
        const uint16_t t75 = std::min(t73, t70);
        const uint16_t t76 = std::max(t73, t70);
        const uint16_t t77 = std::min(t75, t72);
        const uint16_t t78 = std::max(t75, t72);
        const uint16_t t79 = std::min(a03, a13);
        const uint16_t t80 = std::max(a03, a13);
        const uint16_t t81 = std::min(a33, a43);
        const uint16_t t82 = std::max(a33, a43);
        const uint16_t t83 = std::min(a23, t82);
        const uint16_t t84 = std::max(a23, t82);
        const uint16_t t85 = std::min(t83, t81);
        const uint16_t t86 = std::max(t83, t81);
        const uint16_t t87 = std::min(t79, t86);
        const uint16_t t88 = std::max(t79, t86);
        const uint16_t t89 = std::min(t87, t85);
        const uint16_t t90 = std::max(t87, t85);
        const uint16_t t91 = std::min(t80, t84);
        const uint16_t t93 = std::min(t91, t88);
        const uint16_t t95 = std::min(t93, t90);
        const uint16_t t96 = std::max(t93, t90);
        const uint16_t t97 = std::min(a04, a14);
        const uint16_t t98 = std::max(a04, a14);
        const uint16_t t99 = std::min(a34, a44);
        const uint16_t t100 = std::max(a34, a44);
        const uint16_t t101 = std::min(a24, t100);
        const uint16_t t102 = std::max(a24, t100);
        const uint16_t t103 = std::min(t101, t99);
        const uint16_t t104 = std::max(t101, t99);
        const uint16_t t105 = std::min(t97, t104);
        const uint16_t t106 = std::max(t97, t104);
        const uint16_t t107 = std::min(t105, t103);
        const uint16_t t108 = std::max(t105, t103);
        const uint16_t t109 = std::min(t98, t102);
        const uint16_t t111 = std::min(t109, t106);
        const uint16_t t113 = std::min(t111, t108);
        const uint16_t t115 = std::min(t40, t60);
        const uint16_t t116 = std::max(t40, t60);
        const uint16_t t117 = std::min(t56, t116);
        const uint16_t t118 = std::max(t56, t116);
        const uint16_t t119 = std::min(t38, t58);
        const uint16_t t120 = std::max(t38, t58);
        const uint16_t t121 = std::min(t119, t117);
        const uint16_t t122 = std::max(t119, t117);
        const uint16_t t123 = std::min(t120, t118);
        const uint16_t t124 = std::max(t120, t118);
        const uint16_t t125 = std::min(t77, t107);
        const uint16_t t126 = std::max(t77, t107);
        const uint16_t t127 = std::min(t76, t126);
        const uint16_t t128 = std::max(t76, t126);
        const uint16_t t129 = std::min(t78, t113);
        const uint16_t t130 = std::max(t78, t113);
        const uint16_t t131 = std::min(t129, t127);
        const uint16_t t132 = std::max(t129, t127);
        const uint16_t t133 = std::min(t130, t128);
        const uint16_t t134 = std::max(t130, t128);
        const uint16_t t135 = std::min(t115, t125);
        const uint16_t t136 = std::max(t115, t125);
        const uint16_t t137 = std::min(t124, t134);
        const uint16_t t138 = std::max(t124, t134);
        const uint16_t t139 = std::min(t137, t136);
        const uint16_t t140 = std::max(t137, t136);
        const uint16_t t141 = std::min(t122, t132);
        const uint16_t t142 = std::max(t122, t132);
        const uint16_t t143 = std::min(t141, t139);
        const uint16_t t144 = std::max(t141, t139);
        const uint16_t t145 = std::min(t142, t140);
        const uint16_t t146 = std::max(t142, t140);
        const uint16_t t147 = std::min(t121, t131);
        const uint16_t t148 = std::max(t121, t131);
        const uint16_t t149 = std::min(t123, t133);
        const uint16_t t150 = std::max(t123, t133);
        const uint16_t t151 = std::min(t149, t148);
        const uint16_t t152 = std::max(t149, t148);
        const uint16_t t153 = std::min(t147, t143);
        const uint16_t t154 = std::max(t147, t143);
        const uint16_t t155 = std::min(t151, t144);
        const uint16_t t156 = std::max(t151, t144);
        const uint16_t t157 = std::min(t152, t145);
        const uint16_t t158 = std::max(t152, t145);
        const uint16_t t160 = std::max(t150, t146);
        const uint16_t t162 = std::max(t135, t89);
        const uint16_t t163 = std::min(t160, t162);
        const uint16_t t166 = std::max(t156, t163);
        const uint16_t t168 = std::max(t154, t96);
        const uint16_t t169 = std::min(t158, t168);
        const uint16_t t173 = std::min(t169, t166);
        const uint16_t t178 = std::max(t153, t95);
        const uint16_t t179 = std::min(t138, t178);
        const uint16_t t181 = std::min(t157, t179);
        const uint16_t t184 = std::max(t155, t181);
        const uint16_t t192 = std::max(t184, t173);
        out[x] = t192;
    }
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
        SortColumns(r[0], r[1], r[2], r[3], r[4], width, s[0] + 2, s[1] + 2, s[2] + 2, s[3] + 2,
                    s[4] + 2);
        for (int k = 0; k < 5; ++k) {
            s[k][0] = s[k][1] = s[k][2];
            s[k][width + 2] = s[k][width + 3] = s[k][width + 1];
        }
        MedianOfSortedColumns(s[0], s[1], s[2], s[3], s[4], width,
                              dst + static_cast<size_t>(y) * dstStep);
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
