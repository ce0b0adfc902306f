#include "registration/registration.h"

#include <algorithm>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "simd/targets.h"

namespace qvapi {

void Registration::Prepare(const cv::Mat& colourMapX, const cv::Mat& colourMapY)
{
    mapX_ = colourMapX;
    mapY_ = colourMapY;
    // The map's nearest source pixels as runs of consecutive pixels, once per Init: the
    // fast steps copy runs without rounding floats on every frame.
    cv::Mat nearest, unused;
    cv::convertMaps(colourMapX, colourMapY, nearest, unused, CV_16SC2, true);
    runs_ = NearestCopyRuns(nearest, colourMapX.cols, colourMapX.rows);
}

void Registration::Release()
{
    mapX_.release();
    mapY_.release();
    runs_ = std::vector<CopyRun>();
    bgr_ = std::vector<uint8_t>();
    landed_ = std::vector<uint16_t>();
}

void Registration::Register(const uint8_t* nv12, int width, int height, const uint16_t* depth,
                            const float* rayX, const float* rayY, const RegistrationParams& p,
                            uint8_t* colourOut, uint16_t* depthOut)
{
    const cv::Mat yuv(height * 3 / 2, width, CV_8UC1, const_cast<uint8_t*>(nv12));
    cv::Mat registered(height, width, CV_16UC1, depthOut);
    if (FastPathsEnabled())
        RegisterFast(yuv, depth, rayX, rayY, p, colourOut, registered);
    else
        RegisterPlain(yuv, depth, rayX, rayY, p, colourOut, registered);
}

void Registration::RegisterPlain(const cv::Mat& yuv, const uint16_t* depth, const float* rayX,
                                 const float* rayY, const RegistrationParams& p,
                                 uint8_t* colourOut, cv::Mat& registered)
{
    cv::Mat bgr, undistorted;
    cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_NV12);
    cv::remap(bgr, undistorted, mapX_, mapY_, cv::INTER_NEAREST, cv::BORDER_CONSTANT, cv::Scalar(0));
    cv::Mat landed(registered.size(), CV_16UC1, cv::Scalar(0)), filtered;
    ProjectDepthToColour(depth, rayX, rayY, p, reinterpret_cast<uint16_t*>(landed.data), landed.cols,
                         landed.rows);
    cv::medianBlur(landed, filtered, 5);
    std::memcpy(colourOut, undistorted.data, undistorted.total() * undistorted.elemSize());
    filtered.copyTo(registered);
}

void Registration::RegisterFast(const cv::Mat& yuv, const uint16_t* depth, const float* rayX,
                                const float* rayY, const RegistrationParams& p, uint8_t* colourOut,
                                cv::Mat& registered)
{
    const size_t n = registered.total();
    // The BGR image is followed by the 64 readable bytes the run copy needs; the
    // landed depth is zero between calls.
    if (bgr_.size() != 3 * n + 64)
        bgr_.assign(3 * n + 64, 0);
    if (landed_.size() != n)
        landed_.assign(n, 0);
    Nv12ToBgr(yuv.data, registered.cols, registered.rows, bgr_.data());
    RemapByRuns(bgr_.data(), runs_.data(), runs_.size(), colourOut, n);

    cv::Mat landed(registered.size(), CV_16UC1, landed_.data());
    int32_t rows[2 * 640];
    // Cleared on every way out, so the next call starts from zero.
    struct Clear {
        std::vector<uint16_t>& v;
        ptrdiff_t width;
        LandingBounds b;
        bool all = true;
        ~Clear()
        {
            if (all)
                std::fill(v.begin(), v.end(), 0);
            else
                for (int y = b.top; y <= b.bottom; ++y)
                    std::fill_n(v.begin() + y * width + b.left, b.right - b.left + 1, 0);
        }
    } clear{landed_, landed.cols, {}};
    clear.b = ProjectDepthToColourFast(depth, rayX, rayY, p, landed_.data(), landed.cols, landed.rows, rows);
    clear.all = false;
    MedianOverLandings(landed, clear.b, registered);
}

}  // namespace qvapi
