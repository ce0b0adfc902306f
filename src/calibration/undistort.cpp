#include "calibration/undistort.h"

namespace qvapi {
namespace {

// Calls copy(u, v, us, vs) for every output pixel whose source is usable and
// clear(u, v) for the others.
template <typename Copy, typename Clear>
void Resample(const LensModel& lens, int width, int height, Copy copy, Clear clear)
{
    const float invFx = 1.0f / lens.fx;
    const float invFy = 1.0f / lens.fy;
    for (int v = 0; v < height; ++v) {
        const float y = (static_cast<float>(v) - lens.cy) * invFy;
        for (int u = 0; u < width; ++u) {
            const float x = (static_cast<float>(u) - lens.cx) * invFx;
            float xd, yd;
            Distort(lens, x, y, xd, yd);
            const double fu = static_cast<double>(xd * lens.fx + lens.cx) + 0.5;
            const double fv = static_cast<double>(yd * lens.fy + lens.cy) + 0.5;
            // 1 <= trunc(f) < size - 1, written on the double so that NaN and huge
            // values are simply unusable.
            if (fu >= 1.0 && fu < width - 1 && fv >= 1.0 && fv < height - 1)
                copy(u, v, static_cast<int>(fu), static_cast<int>(fv));
            else
                clear(u, v);
        }
    }
}

}  // namespace

void UndistortWords(const LensModel& lens, const uint16_t* src, int width, int height,
                    int wordsPerPixel, uint16_t* dst)
{
    const size_t n = static_cast<size_t>(wordsPerPixel);
    auto at = [width, n](int u, int v) { return (static_cast<size_t>(v) * width + u) * n; };
    Resample(
        lens, width, height,
        [&](int u, int v, int us, int vs) {
            for (size_t k = 0; k < n; ++k)
                dst[at(u, v) + k] = src[at(us, vs) + k];
        },
        [&](int u, int v) {
            for (size_t k = 0; k < n; ++k)
                dst[at(u, v) + k] = 0;
        });
}

void UndistortBgr8(const LensModel& lens, const uint8_t* src, size_t srcStride, uint8_t* dst,
                   size_t dstStride, int width, int height)
{
    Resample(
        lens, width, height,
        [&](int u, int v, int us, int vs) {
            const uint8_t* s = src + vs * srcStride + 3 * static_cast<size_t>(us);
            uint8_t* d = dst + v * dstStride + 3 * static_cast<size_t>(u);
            d[0] = s[0];
            d[1] = s[1];
            d[2] = s[2];
        },
        [&](int u, int v) {
            uint8_t* d = dst + v * dstStride + 3 * static_cast<size_t>(u);
            d[0] = d[1] = d[2] = 0;
        });
}

}  // namespace qvapi
