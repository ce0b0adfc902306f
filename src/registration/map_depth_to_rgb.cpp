#include "registration/map_depth_to_rgb.h"

#include <cstddef>

namespace qvapi {
namespace {

constexpr int kDepthWidth = 640;
constexpr int kDepthHeight = 480;

// Neighbours filled around a landing, in order: the eight around it, then two pixels
// to the left and upward only.
const int kFill[11][2] = {{0, -1}, {-1, 0}, {-1, -1}, {0, 1},  {1, -1}, {-1, 1},
                          {1, 0},  {1, 1},  {-2, -2}, {0, -2}, {-2, 0}};

}  // namespace

void ProjectDepthToColour(const uint16_t* depth, const float* rayX, const float* rayY,
                          const RegistrationParams& p, uint16_t* registered, int width, int height)
{
    const float* R = p.R;
    for (int r = 0; r < kDepthHeight; ++r) {
        for (int c = 0; c < kDepthWidth; ++c) {
            const size_t i = static_cast<size_t>(r) * kDepthWidth + c;
            const uint16_t d = depth[i];
            if (d <= 9)
                continue;
            const float Z = d;
            const float X = rayX[i] * Z;
            const float Y = rayY[i] * Z;
            const float xc = R[0] * X + R[1] * Y + R[2] * Z + p.t[0];
            const float yc = R[3] * X + R[4] * Y + R[5] * Z + p.t[1];
            const float zc = R[6] * X + R[7] * Y + R[8] * Z + p.t[2];
            const float fu = (xc / zc) * p.fx + p.cx;
            const float fv = (yc / zc) * p.fy + p.cy;
            // Truncation toward zero keeps (-1, 0) as column 0; NaN and infinities
            // (a point in the colour camera's plane) land nowhere.
            if (!(fu > -1.0f && fu < static_cast<float>(width) && fv > -1.0f &&
                  fv < static_cast<float>(height)))
                continue;
            const int u = static_cast<int>(fu);
            const int v = static_cast<int>(fv);
            uint16_t* row = registered + static_cast<size_t>(v) * width;
            row[u] = d;
            if (u < 2 || u > width - 3 || v < 2 || v > height - 3)
                continue;
            for (const auto& n : kFill) {
                uint16_t& q = row[static_cast<ptrdiff_t>(n[0]) * width + u + n[1]];
                if (q <= 9)
                    q = d;
            }
        }
    }
}

int32_t CentreReferenceDepth(const uint16_t* depth, int32_t fallback)
{
    int32_t n = 0, sum = 0;
    for (int r = kDepthHeight / 2 - 1; r <= kDepthHeight / 2 + 1; ++r)
        for (int c = kDepthWidth / 2 - 1; c <= kDepthWidth / 2 + 1; ++c) {
            const uint16_t v = depth[static_cast<size_t>(r) * kDepthWidth + c];
            if (v > 10) {
                ++n;
                sum += v;
            }
        }
    return n >= 3 ? sum / n : fallback;
}

}  // namespace qvapi
