// Registration's kernels on the target this run selects: NV12 conversion and the 5 x 5
// median against OpenCV's, the undistortion copy runs against remap, the projection
// against its plain loop.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "kernel_parity.h"
#include "registration/register_fast.h"

namespace {

using namespace qvapi;
using namespace qvtest;

TEST(RegistrationKernels, Nv12RemapProjectionAndMedian)
{
    // NV12 to BGR against OpenCV's conversion for every (Y, U, V): each 2 x 2 block has
    // one chroma pair and four luma values, 64 blocks a pair; 1030 pixels a row, so the
    // rows end off every vector width. Written into a larger buffer: nothing after it.
    {
        const int w = 1030, blocksPerRows = w / 2, blocks = 65536 * 64;
        const int h = 2 * ((blocks + blocksPerRows - 1) / blocksPerRows);
        cv::Mat yuv(h * 3 / 2, w, CV_8UC1, cv::Scalar(0)), ref;
        for (int b = 0; b < blocksPerRows * h / 2; ++b) {
            const int pair = b % 65536, luma = 4 * ((b / 65536) % 64);
            const int row = 2 * (b / blocksPerRows), col = 2 * (b % blocksPerRows);
            for (int k = 0; k < 4; ++k)
                yuv.at<uint8_t>(row + k / 2, col + k % 2) = static_cast<uint8_t>(luma + k);
            yuv.at<uint8_t>(h + row / 2, col) = static_cast<uint8_t>(pair & 0xFF);
            yuv.at<uint8_t>(h + row / 2, col + 1) = static_cast<uint8_t>(pair >> 8);
        }
        cv::cvtColor(yuv, ref, cv::COLOR_YUV2BGR_NV12);
        const size_t bytes = ref.total() * 3;
        std::vector<uint8_t> got(bytes + 64, 7);
        Nv12ToBgr(yuv.data, w, h, got.data());
        EXPECT_EQ(std::memcmp(ref.data, got.data(), bytes), 0);
        EXPECT_EQ(std::count(got.begin() + static_cast<ptrdiff_t>(bytes), got.end(), 7), 64);
    }

    Instance in(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    // Undistortion by copy runs: the same pixels as remap through the maps, for the
    // instance's map and for one that points anywhere, outside the image on every side
    // too (runs of one pixel, black runs). Nothing is written after the image.
    cv::Mat bgr(1080, 1920, CV_8UC3), a;
    cv::randu(bgr, 0, 256);
    std::vector<uint8_t> padded(bgr.data, bgr.data + bgr.total() * 3);
    padded.resize(padded.size() + 64, 0);
    cv::Mat anywhereX(1080, 1920, CV_32F), anywhereY(1080, 1920, CV_32F);
    cv::randu(anywhereX, -3.0, 1923.0);
    cv::randu(anywhereY, -3.0, 1083.0);
    const std::pair<cv::Mat, cv::Mat> maps[] = {
        {in.r->m_colorUndistortMapX, in.r->m_colorUndistortMapY}, {anywhereX, anywhereY}};
    for (const auto& [mapX, mapY] : maps) {
        cv::remap(bgr, a, mapX, mapY, cv::INTER_NEAREST, cv::BORDER_CONSTANT, cv::Scalar(0));
        cv::Mat nearest, unused;
        cv::convertMaps(mapX, mapY, nearest, unused, CV_16SC2, true);
        const std::vector<CopyRun> runs = NearestCopyRuns(nearest, 1920, 1080);
        std::vector<uint8_t> b(a.total() * 3 + 32, 7);
        RemapByRuns(padded.data(), runs.data(), runs.size(), b.data(), a.total());
        EXPECT_EQ(std::memcmp(a.data, b.data(), a.total() * 3), 0);
        EXPECT_EQ(std::count(b.end() - 32, b.end(), 7), 32);
        // Fewer pixels than the runs hold: the copy stops at n, wherever that falls.
        for (size_t n : {size_t(1), size_t(17), size_t(1920 * 3 + 5)}) {
            std::vector<uint8_t> part(3 * n + 32, 7);
            RemapByRuns(padded.data(), runs.data(), runs.size(), part.data(), n);
            EXPECT_EQ(std::memcmp(a.data, part.data(), 3 * n), 0) << n;
            EXPECT_EQ(std::count(part.end() - 32, part.end(), 7), 32) << n;
        }
    }
    // The instance's map keeps most neighbours together (what makes the copy fast).
    EXPECT_LT(in.r->m_registration.RunCount(), 1920u * 1080u / 4);

    // Projection and median, against the plain loop and a median over the whole image,
    // for dense, sparse, single-pixel and empty frames, and a geometry that folds every
    // point onto one column (no colour lens: fx 0).
    std::mt19937 rng(11);
    const RegistrationParams normal = MakeRegistrationParams(in.r->m_workParam);
    CameraCalibrationParam noLens = in.r->m_workParam;
    noLens.rgbLens.fx = 0.0f;
    const RegistrationParams folded = MakeRegistrationParams(noLens);
    std::vector<std::vector<uint16_t>> frames;
    for (int density : {100, 30, 2}) {
        std::vector<uint16_t> f(640 * 480, 0);
        // A fifth of the depths are marks and small values around the limits (9, 10).
        std::uniform_int_distribution<int> pick(0, 99), depthOf(0, 8000), small(0, 12);
        for (uint16_t& d : f)
            d = pick(rng) >= density ? 0 : static_cast<uint16_t>(pick(rng) < 20 ? small(rng) : depthOf(rng));
        frames.push_back(f);
    }
    for (size_t corner : {size_t(0), size_t(639), size_t(479 * 640), size_t(480 * 640 - 1), size_t(240 * 640 + 320)}) {
        std::vector<uint16_t> f(640 * 480, 0);
        for (uint16_t d : {uint16_t(10), uint16_t(300), uint16_t(7000)}) {
            f[corner] = d;
            frames.push_back(f);
        }
    }
    frames.emplace_back(640 * 480, 0);
    int32_t scratch[2 * 640];
    for (const RegistrationParams* p : {&normal, &folded}) {
        for (size_t k = 0; k < frames.size(); ++k) {
            cv::Mat ref(1080, 1920, CV_16UC1, cv::Scalar(0)), fast(1080, 1920, CV_16UC1, cv::Scalar(0));
            ProjectDepthToColour(frames[k].data(), in.r->m_rectifyMapX.get(), in.r->m_rectifyMapY.get(), *p,
                                 ref.ptr<uint16_t>(), 1920, 1080);
            const LandingBounds bounds = ProjectDepthToColourFast(
                frames[k].data(), in.r->m_rectifyMapX.get(), in.r->m_rectifyMapY.get(), *p,
                fast.ptr<uint16_t>(), 1920, 1080, scratch);
            ASSERT_EQ(cv::norm(ref, fast, cv::NORM_INF), 0.0) << "frame " << k;
            // Nothing was written outside the bounds.
            cv::Mat outside = fast.clone();
            if (bounds.right >= bounds.left)
                outside(cv::Rect(bounds.left, bounds.top, bounds.right - bounds.left + 1,
                                 bounds.bottom - bounds.top + 1)).setTo(0);
            ASSERT_EQ(cv::countNonZero(outside), 0) << "frame " << k;
            cv::Mat refMedian, fastMedian(1080, 1920, CV_16UC1, cv::Scalar(55));
            cv::medianBlur(ref, refMedian, 5);
            MedianOverLandings(fast, bounds, fastMedian);
            ASSERT_EQ(cv::norm(refMedian, fastMedian, cv::NORM_INF), 0.0) << "frame " << k;
        }
    }
}

TEST(RegistrationKernels, Median5x5EqualsOpenCvs)
{
    for (const cv::Mat& src : MedianTestImages()) {
        const int w = src.cols, h = src.rows;
        cv::Mat ref;
        cv::medianBlur(src, ref, 5);
        // Written into a wider image: the step is honoured and nothing beside is touched.
        cv::Mat wide(h, w + 3, CV_16UC1, cv::Scalar(777));
        MedianBlur5x5(src.ptr<uint16_t>(), src.step1(), wide.ptr<uint16_t>(), wide.step1(), w, h);
        ASSERT_EQ(cv::norm(ref, wide(cv::Rect(0, 0, w, h)), cv::NORM_INF), 0.0) << w << "x" << h;
        ASSERT_EQ(cv::countNonZero(wide(cv::Rect(w, 0, 3, h)) != 777), 0);
    }
}

}  // namespace
