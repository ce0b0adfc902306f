#include "calibration/rectify_map.h"

namespace qvapi {

void ComputeRectifyMap(const LensModel& lens, int columns, int rows, int rounds, float* mapX,
                       float* mapY)
{
    const float invFx = 1.0f / lens.fx;
    const float invFy = 1.0f / lens.fy;
    for (int v = 0; v < rows; ++v) {
        const float y = (static_cast<float>(v) - lens.cy) * invFy;
        float* mx = mapX + static_cast<long>(v) * columns;
        float* my = mapY + static_cast<long>(v) * columns;
        for (int u = 0; u < columns; ++u) {
            mx[u] = (static_cast<float>(u) - lens.cx) * invFx;
            my[u] = y;
        }
    }
    // Each round updates every pixel from its own current estimate; the pinhole
    // target is recomputed rather than kept in scratch arrays (same values).
    for (int round = 0; round < rounds; ++round) {
        for (int v = 0; v < rows; ++v) {
            const float y0 = (static_cast<float>(v) - lens.cy) * invFy;
            float* mx = mapX + static_cast<long>(v) * columns;
            float* my = mapY + static_cast<long>(v) * columns;
            for (int u = 0; u < columns; ++u) {
                const float x0 = (static_cast<float>(u) - lens.cx) * invFx;
                const float x = mx[u], y = my[u];
                float xd, yd;
                Distort(lens, x, y, xd, yd);
                mx[u] = x0 + x - xd;
                my[u] = y0 + y - yd;
            }
        }
    }
}

}  // namespace qvapi
