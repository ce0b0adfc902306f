#include "depth/point_cloud.h"

#include <algorithm>
#include <cstddef>

#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(void PointCloudSpanKernel(const uint16_t* depth, const float* rayX, const float* rayY,
                                        int count, float* out);)

void PointCloudSpan(const uint16_t* depth, const float* rayX, const float* rayY, int count, float* out)
{
    QV_DISPATCH(PointCloudSpanKernel)(depth, rayX, rayY, count, out);
}

void MakePointCloud(const uint16_t* depth, int width, int height, int binning, int cut,
                    const float* rayX, const float* rayY, float* cloud)
{
    if (FastPathsEnabled())
        PointCloudRows(depth, width, height, binning, cut, rayX, rayY, cloud);
    else
        PointCloud(depth, width, height, binning, cut, rayX, rayY, cloud);
}

void PointCloud(const uint16_t* depth, int width, int height, int binning, int cut,
                const float* rayX, const float* rayY, float* cloud)
{
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            const size_t i = static_cast<size_t>(r) * width + c;
            float* p = cloud + 3 * i;
            if (!InPointCloudMask(r, c, width, height, cut)) {
                p[0] = p[1] = p[2] = 0.0f;
                continue;
            }
            const size_t idx = (static_cast<size_t>(r) * width * binning + c) * binning;
            const float z = depth[i];
            p[0] = rayX[idx] * z;
            p[1] = rayY[idx] * z;
            p[2] = z;
        }
    }
}

void PointCloudRows(const uint16_t* depth, int width, int height, int binning, int cut,
                    const float* rayX, const float* rayY, float* cloud)
{
    for (int r = 0; r < height; ++r) {
        // The octagon's columns in this row: c >= 2, c >= cut - r, c >= r - (height - cut);
        // c <= width - 2, c <= width + height - cut - r, c <= width - cut + r.
        int lo = std::max({2, cut - r, r - (height - cut)});
        int hi = std::min({width - 2, width + height - cut - r, width - cut + r});
        if (r < 2 || r > height - 2 || lo > hi) {
            lo = width;
            hi = width - 1;
        }
        const size_t row = static_cast<size_t>(r) * width;
        float* out = cloud + 3 * row;
        std::fill(out, out + 3 * static_cast<size_t>(std::min(lo, width)), 0.0f);
        const uint16_t* d = depth + row;
        const size_t rays = static_cast<size_t>(r) * width * binning * binning;
        const float* __restrict rx = rayX + rays;
        const float* __restrict ry = rayY + rays;
        if (binning == 1 && lo <= hi) {
            // Rays one after the other: the vector kernel.
            PointCloudSpan(d + lo, rx + lo, ry + lo, hi - lo + 1, out + 3 * static_cast<size_t>(lo));
        } else {
            for (int c = lo; c <= hi; ++c) {
                const float z = d[c];
                out[3 * c] = rx[static_cast<size_t>(c) * binning] * z;
                out[3 * c + 1] = ry[static_cast<size_t>(c) * binning] * z;
                out[3 * c + 2] = z;
            }
        }
        std::fill(out + 3 * static_cast<size_t>(hi + 1), out + 3 * static_cast<size_t>(width), 0.0f);
    }
}

}  // namespace qvapi
