// The registration's projection of one 640-pixel depth row. This file is compiled once
// per target (see simd/targets.h), into the namespace QV_KERNEL_NS.
#include <cstdint>

#include "simd/kernel.h"
#include "registration/map_depth_to_rgb.h"

namespace qvapi {
namespace QV_KERNEL_NS {

// One depth row through the registration geometry: target[c] is the index of the
// colour pixel depth pixel c lands on (-1: skipped); column[c] is that pixel's column
// when the landing fills its neighbours and the column's complement (negative) when
// it lies too near the border to. The arithmetic is the scalar kernel's, operation
// for operation; the loop has no branches so the compiler vectorises it.
void ProjectRowKernel(const uint16_t* __restrict depth, const float* __restrict rayX,
                      const float* __restrict rayY, const RegistrationParams& p, int width,
                      int height, int32_t* __restrict target, int32_t* __restrict column)
{
    const float r0 = p.R[0], r1 = p.R[1], r2 = p.R[2], r3 = p.R[3], r4 = p.R[4], r5 = p.R[5],
                r6 = p.R[6], r7 = p.R[7], r8 = p.R[8];
    const float t0 = p.t[0], t1 = p.t[1], t2 = p.t[2];
    const float fx = p.fx, fy = p.fy, cx = p.cx, cy = p.cy;
    const float w = static_cast<float>(width), h = static_cast<float>(height);
    for (int c = 0; c < 640; ++c) {
        const int d = depth[c];
        const float Z = static_cast<float>(d);
        const float X = rayX[c] * Z;
        const float Y = rayY[c] * Z;
        const float xc = r0 * X + r1 * Y + r2 * Z + t0;
        const float yc = r3 * X + r4 * Y + r5 * Z + t1;
        const float zc = r6 * X + r7 * Y + r8 * Z + t2;
        const float fu = (xc / zc) * fx + cx;
        const float fv = (yc / zc) * fy + cy;
        // NaN fails every comparison and lands nowhere.
        const bool lands = (d > 9) & (fu > -1.0f) & (fu < w) & (fv > -1.0f) & (fv < h);
        // Only in-range values are converted (others would be undefined).
        const int u = static_cast<int>(lands ? fu : 0.0f);
        const int v = static_cast<int>(lands ? fv : 0.0f);
        const int mask = lands ? -1 : 0;
        target[c] = (v * width + u) | ~mask;
        const bool inner = (u >= 2) & (u <= width - 3) & (v >= 2) & (v <= height - 3);
        column[c] = inner ? u : ~u;
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
