#include "registration/register_fast.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "registration/registration_kernels.h"

namespace qvapi {

namespace {

constexpr int kDepthWidth = 640;
constexpr int kDepthHeight = 480;

}  // namespace

std::vector<CopyRun> NearestCopyRuns(const cv::Mat& nearest, int srcWidth, int srcHeight)
{
    CV_Assert(nearest.type() == CV_16SC2 && nearest.isContinuous());
    const int16_t* m = nearest.ptr<int16_t>();
    const size_t n = nearest.total();
    std::vector<CopyRun> runs;
    int32_t next = -2;  // the source offset that would continue the current run
    for (size_t i = 0; i < n; ++i) {
        const int sx = m[2 * i], sy = m[2 * i + 1];
        const bool inside = static_cast<unsigned>(sx) < static_cast<unsigned>(srcWidth) &&
                            static_cast<unsigned>(sy) < static_cast<unsigned>(srcHeight);
        const int32_t source = inside ? (sy * srcWidth + sx) * 3 : -1;
        if (source == next && !runs.empty()) {
            runs.back().length++;
        } else {
            runs.push_back({source, 1});
        }
        next = source < 0 ? -1 : source + 3;
    }
    return runs;
}

void RemapByRuns(const uint8_t* bgr, const CopyRun* runs, size_t count, uint8_t* out, size_t n)
{
    uint8_t* d = out;
    uint8_t* const end = out + 3 * n;
    for (size_t j = 0; j < count && d < end; ++j) {
        const size_t bytes = std::min(3 * static_cast<size_t>(runs[j].length),
                                      static_cast<size_t>(end - d));
        if (runs[j].source < 0) {
            std::memset(d, 0, bytes);
        } else if (bytes + 64 <= static_cast<size_t>(end - d)) {
            // Most runs are shorter than 22 pixels: two fixed pieces, no loop.
            const uint8_t* s = bgr + runs[j].source;
            std::memcpy(d, s, 32);
            std::memcpy(d + 32, s + 32, 32);
            for (size_t k = 64; k < bytes; k += 32)
                std::memcpy(d + k, s + k, 32);
        } else {
            std::memcpy(d, bgr + runs[j].source, bytes);  // near the end: exactly
        }
        d += bytes;
    }
}

LandingBounds ProjectDepthToColourFast(const uint16_t* depth, const float* rayX,
                                       const float* rayY, const RegistrationParams& p,
                                       uint16_t* registered, int width, int height,
                                       int32_t* scratch)
{
    int32_t* target = scratch;
    int32_t* column = scratch + kDepthWidth;
    const ptrdiff_t w = width;
    // Neighbours filled around a landing (their order does not matter: each one that
    // still holds 9 or less takes the same depth).
    const ptrdiff_t around[11] = {-1, -w, -w - 1, 1, w - 1, -w + 1, w, w + 1, -2 * w - 2, -2, -2 * w};
    LandingExtent e{INT32_MAX, -1, INT32_MAX, -1};
    for (int r = 0; r < kDepthHeight; ++r) {
        const size_t i0 = static_cast<size_t>(r) * kDepthWidth;
        ProjectDepthRow(depth + i0, rayX + i0, rayY + i0, p, width, height, target, column, e);
        for (int c = 0; c < kDepthWidth; ++c) {
            const int32_t t = target[c];
            if (t < 0)
                continue;
            const uint16_t d = depth[i0 + c];
            uint16_t* q = registered + t;
            *q = d;
            if (column[c] < 0)
                continue;
            for (const ptrdiff_t a : around)
                if (q[a] <= 9)
                    q[a] = d;
        }
    }
    const int32_t first = e.first, last = e.last, left = e.left, right = e.right;
    LandingBounds b;
    if (last < 0)
        return b;
    // A landing fills at most two pixels to the left and above and one to the right
    // and below.
    b.left = std::max(left - 2, 0);
    b.right = std::min(right + 1, width - 1);
    b.top = std::max(first / width - 2, 0);
    b.bottom = std::min(last / width + 1, height - 1);
    return b;
}

void MedianOverLandings(const cv::Mat& registered, const LandingBounds& bounds, cv::Mat& out)
{
    CV_Assert(registered.type() == CV_16UC1 && out.type() == CV_16UC1 &&
              registered.size() == out.size());
    if (bounds.right < bounds.left || bounds.bottom < bounds.top) {
        out.setTo(0);
        return;
    }
    // Outside the bounds the image is zero, so a 5 x 5 window farther than two pixels
    // from them sees zeros only. The filter replicates its region's border; with a
    // margin of zeros around the bounds the replicated values are the image's own.
    const int margin = 4;
    const int x0 = std::max(bounds.left - margin, 0);
    const int x1 = std::min(bounds.right + margin, registered.cols - 1);
    const int y0 = std::max(bounds.top - margin, 0);
    const int y1 = std::min(bounds.bottom + margin, registered.rows - 1);
    const cv::Rect roi(x0, y0, x1 - x0 + 1, y1 - y0 + 1);
    for (int y = 0; y < out.rows; ++y) {
        uint16_t* row = out.ptr<uint16_t>(y);
        if (y < y0 || y > y1) {
            std::memset(row, 0, sizeof(uint16_t) * out.cols);
        } else {
            std::memset(row, 0, sizeof(uint16_t) * x0);
            std::memset(row + x1 + 1, 0, sizeof(uint16_t) * (out.cols - x1 - 1));
        }
    }
    const cv::Mat src = registered(roi);
    cv::Mat dst = out(roi);
    MedianBlur5x5(src.ptr<uint16_t>(), src.step1(), dst.ptr<uint16_t>(), dst.step1(), roi.width,
                  roi.height);
}

}  // namespace qvapi
