#include "depth/point_cloud.h"

#include <cstddef>

namespace qvapi {

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

}  // namespace qvapi
