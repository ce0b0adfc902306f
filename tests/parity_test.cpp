// The fast depth kernels against their scalar references: simulated scenes and random
// frames, every flip mode and stream, widths that are not multiples of a vector.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "colour/false_colour.h"
#include "depth/amplitude.h"
#include "depth/arctangent.h"
#include "depth/dual_freq.h"
#include "depth/point_cloud.h"
#include "depth/edge_filter.h"
#include "simd/targets.h"
#include "depth/ir.h"
#include "depth/single_freq.h"
#include "registration/register_fast.h"
#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

struct Differences {
    size_t pixels = 0, off = 0, flips = 0, worst = 0;
    void Add(const uint16_t* ref, const uint16_t* fast, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            pixels++;
            if (ref[i] == fast[i])
                continue;
            const bool refMark = ref[i] <= 1, fastMark = fast[i] <= 1;
            flips += refMark != fastMark || (refMark && fastMark);
            const size_t d = ref[i] > fast[i] ? ref[i] - fast[i] : fast[i] - ref[i];
            worst = std::max(worst, d);
            off++;
        }
    }
    // At most 1 mm on at most `share` of the pixels (0.01 % for the converters), and
    // never between a mark (0 or 1) and a depth.
    void Check(const char* what, double share = 1e-4) const
    {
        EXPECT_EQ(flips, 0u) << what;
        EXPECT_LE(worst, 1u) << what;
        EXPECT_LE(static_cast<double>(off), share * pixels) << what << ": " << off << " of " << pixels;
        std::printf("  %-34s %zu of %zu pixels differ by 1 mm\n", what, off, pixels);
    }
};

std::vector<uint16_t> RandomFrame(size_t words, std::mt19937& rng, int top, int bottom = 0)
{
    std::uniform_int_distribution<int> u(bottom, top);
    std::vector<uint16_t> raw(words);
    for (uint16_t& w : raw)
        w = static_cast<uint16_t>(u(rng));
    return raw;
}

struct Instance {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    Instance(DeviceType device, StreamType stream)
    {
        r->SetType(device, stream);
        const auto binned = qvsim::SampleBinnedCalibration();
        r->Init(binned, stream == STREAM_SINGLE_FREQ ? binned : qvsim::SampleCalibration());
    }
    DualFreqParams Dual(int width, int flip, int threshold) const
    {
        const FrequencyParam& a = r->m_freqParam[0];
        const FrequencyParam& b = r->m_freqParam[1];
        return {a.frequency, b.frequency, a.rangeMm, b.rangeMm, a.phaseToMm, b.phaseToMm,
                a.depthOffset, b.depthOffset, b.tableStep, r->m_paddedTable[0], r->m_paddedTable[1], threshold,
                r->m_deviceType != DEVICE_TYPE_4, flip, width == 320 ? 2 : 1};
    }
    SingleFreqParams Single(int threshold) const
    {
        const FrequencyParam& f = r->m_freqParam[0];
        return {f.phaseToMm, f.depthOffset, f.rangeMm, f.tableStep, f.tableCount, f.table,
                threshold, r->m_deviceType != DEVICE_TYPE_4};
    }
};

void CompareDual(const Instance& in, const uint16_t* raw, int w, int h, int flip, int threshold,
                 Differences& diff, float tableStep = 0.0f, const float* table = nullptr)
{
    DualFreqParams p = in.Dual(w, flip, threshold);
    if (tableStep > 0.0f)
        p.tableStep2 = tableStep;
    if (table)
        p.table1 = p.table2 = table;
    std::vector<uint16_t> ref(static_cast<size_t>(w) * h), fast(ref.size());
    DualFreqLast lastRef{-1, -1}, lastFast{-1, -1};
    DualFreqDepth(raw, ref.data(), w, h, p, in.r->m_fppnOffset.get(), in.r->m_fppnOffset2.get(),
                  in.r->m_radialToZ.get(), lastRef);
    DualFreqDepthFast(raw, fast.data(), w, h, p, in.r->m_fppnOffset.get(), in.r->m_fppnOffset2.get(),
                      in.r->m_radialToZ.get(), lastFast);
    diff.Add(ref.data(), fast.data(), ref.size());
    EXPECT_NEAR(lastRef.distance1, lastFast.distance1, 0.01f);
    EXPECT_NEAR(lastRef.distance2, lastFast.distance2, 0.01f);
}

TEST(Parity, DualFrequencyScenesAndRandomFrames)
{
    for (DeviceType device : {DEVICE_GENERIC, DEVICE_TYPE_4}) {
        Instance in(device, STREAM_DUAL_FREQ);
        Differences diff;
        for (int flip = 0; flip < 4; ++flip) {
            for (bool binned : {false, true}) {
                qvsim::SceneSpec scene;
                scene.kind = flip % 2 ? qvsim::SceneKind::Boxes : qvsim::SceneKind::Sphere;
                scene.distanceMm = 900 + 1500 * flip;
                scene.brightPatch = scene.darkPatch = true;
                qvsim::CaptureSpec setup;
                setup.device = device;
                setup.flip = static_cast<FlipMode>(flip);
                setup.binned = binned;
                setup.noiseSigma = 2.0;
                setup.seed = static_cast<uint32_t>(flip + 10 * binned);
                const qvsim::Capture cap = qvsim::SimulateCapture(in.r->m_secondParam, scene, setup);
                CompareDual(in, cap.raw.data(), cap.width, cap.height, flip, 5, diff);
            }
        }
        diff.Check(device == DEVICE_TYPE_4 ? "dual, device 4, scenes" : "dual, scenes");
    }

    // Random frames of odd widths (each plane holds 4 * w * h words).
    Instance in(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    std::mt19937 rng(42);
    Differences diff;
    for (int w : {1, 7, 17, 33, 320, 639}) {
        const int h = std::min(480, 307200 / std::max(w, 1) / 4 + 3);
        for (int flip = 0; flip < 4; ++flip) {
            const std::vector<uint16_t> raw = RandomFrame(16 * static_cast<size_t>(w) * h, rng, 1023);
            CompareDual(in, raw.data(), w, std::min(h, w == 320 ? 240 : h), flip, 5, diff);
        }
    }
    // Samples a few counts apart: energies around the threshold's (20 for threshold 7,
    // a sum of two squares), equal to it often.
    for (int flip = 0; flip < 4; ++flip) {
        const std::vector<uint16_t> raw = RandomFrame(16 * 640 * 20, rng, 507, 500);
        CompareDual(in, raw.data(), 640, 20, flip, 7, diff);
    }
    // Coarser table steps reach every wiggling entry up to the last (255), in the
    // calibration's table and in one whose neighbouring entries all differ by whole
    // millimetres.
    std::vector<float> entries(256), table(257);
    for (float& t : entries)
        t = static_cast<float>(std::uniform_int_distribution<int>(-40, 40)(rng)) + 0.5f;
    PadWigglingTable(entries.data(), table.data());
    for (float step : {0.05f, 0.2f}) {
        const std::vector<uint16_t> raw = RandomFrame(16 * 640 * 40, rng, 1023);
        CompareDual(in, raw.data(), 640, 40, 0, 5, diff, step);
        CompareDual(in, raw.data(), 640, 40, 0, 5, diff, step, table.data());
    }
    diff.Check("dual, random frames");
}

TEST(Parity, SingleFrequencyScenesAndRandomFrames)
{
    Instance in(DEVICE_TYPE_1, STREAM_SINGLE_FREQ);
    Differences diff;
    std::mt19937 rng(7);
    for (double distance : {400.0, 1700.0, 3300.0}) {
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        scene.distanceMm = distance;
        qvsim::CaptureSpec setup;
        setup.stream = STREAM_SINGLE_FREQ;
        setup.noiseSigma = 1.5;
        const qvsim::Capture cap = qvsim::SimulateCapture(in.r->m_secondParam, scene, setup);
        for (int threshold : {0, 5, 40}) {
            std::vector<uint16_t> ref(320 * 240), fast(320 * 240);
            SingleFreqDepth(cap.raw.data(), ref.data(), 320, 240, 320, in.Single(threshold),
                            in.r->m_fppnOffset.get(), in.r->m_radialToZ.get());
            SingleFreqDepthFast(cap.raw.data(), fast.data(), 320, 240, in.Single(threshold),
                                in.r->m_fppnOffset.get(), in.r->m_radialToZ.get());
            diff.Add(ref.data(), fast.data(), ref.size());
        }
    }
    for (int w : {5, 31, 77, 320}) {
        const int h = 76800 / w;
        const std::vector<uint16_t> raw = RandomFrame(4 * static_cast<size_t>(w) * h, rng, 4095);
        std::vector<uint16_t> ref(static_cast<size_t>(w) * h), fast(ref.size());
        SingleFreqDepth(raw.data(), ref.data(), w, h, w, in.Single(5), in.r->m_fppnOffset.get(),
                        in.r->m_radialToZ.get());
        SingleFreqDepthFast(raw.data(), fast.data(), w, h, in.Single(5), in.r->m_fppnOffset.get(),
                            in.r->m_radialToZ.get());
        diff.Add(ref.data(), fast.data(), ref.size());
    }
    diff.Check("single, scenes and random frames");
}

TEST(Parity, EdgeFilterIsExact)
{
    std::mt19937 rng(9);
    for (int w : {1, 2, 15, 16, 17, 63, 640}) {
        for (int h : {1, 2, 3, 9, 50}) {
            for (int top : {100, 7500, 32767, 65535}) {
                // Smooth areas with steps, so that both outcomes of the test occur.
                std::uniform_int_distribution<int> u(0, top);
                std::vector<uint16_t> img(static_cast<size_t>(w) * h);
                for (size_t i = 0; i < img.size(); ++i)
                    img[i] = static_cast<uint16_t>((i / 7) % 3 == 0 ? u(rng) : std::min(top, 1000 + int(i % 50)));
                std::vector<uint16_t> ref = img, fast = img;
                EdgeFilterPlain(ref.data(), w, h);
                EdgeFilterFast(fast.data(), w, h);
                ASSERT_EQ(ref, fast) << w << "x" << h << " top " << top;
            }
        }
    }
    // Block means on both sides of each band's edge, deviations around each threshold.
    for (int edge : {0, 1000, 2000, 3000, 4000, 5000}) {
        std::uniform_int_distribution<int> near(-3, 3), spread(-130, 130);
        std::vector<uint16_t> img(640 * 20);
        for (size_t i = 0; i < img.size(); ++i)
            img[i] = static_cast<uint16_t>(
                std::max(0, edge + near(rng) + (i % 3 == 0 ? spread(rng) : 0)));
        std::vector<uint16_t> ref = img, fast = img;
        EdgeFilterPlain(ref.data(), 640, 20);
        EdgeFilterFast(fast.data(), 640, 20);
        ASSERT_EQ(ref, fast) << "means near " << edge;
    }
}

TEST(Parity, InfraredIsExact)
{
    // Samples over the whole 16-bit range (sums beyond 16 bits, means above 255 and
    // below), widths off the vector widths.
    std::mt19937 rng(9);
    std::uniform_int_distribution<int> word(0, 65535), dim(0, 1100);
    for (int w : {1, 3, 17, 33, 640}) {
        const int h = 7;
        std::vector<uint16_t> raw(4 * static_cast<size_t>(w) * h);
        for (size_t i = 0; i < raw.size(); ++i)
            raw[i] = static_cast<uint16_t>(i % 3 ? dim(rng) : word(rng));
        std::vector<uint16_t> ref(static_cast<size_t>(w) * h, 1), fast(ref.size(), 2);
        InfraredImage(raw.data(), ref.data(), w, h);
        InfraredImageFast(raw.data(), fast.data(), w, h);
        ASSERT_EQ(ref, fast) << "width " << w;
    }
}

TEST(Parity, ColouringPointsAndColourRemapAreExact)
{
    // Every depth value, ordinary, narrow, wide, empty and reversed ranges.
    std::vector<uint16_t> all(65536);
    for (size_t d = 0; d < all.size(); ++d)
        all[d] = static_cast<uint16_t>(d);
    // Widths that divide 1021 times a level exactly (1021, 2042, 3063, 64 * 1021), widths up
    // to 1021 (several levels per depth), one just under 2042 (over half a level per depth),
    // the widest (65535), ranges reaching past either end of the 16-bit depths, and ranges
    // the plain loop serves.
    for (auto range : {std::make_pair(0, 7500), std::make_pair(300, 4000), std::make_pair(1000, 1001),
                       std::make_pair(-50, 3), std::make_pair(0, 1), std::make_pair(700, 700),
                       std::make_pair(900, 100), std::make_pair(60000, 70000), std::make_pair(-100000, 100000),
                       std::make_pair(0, 1021), std::make_pair(100, 2142), std::make_pair(7, 3070), std::make_pair(10, 2051), std::make_pair(5, 65349),
                       std::make_pair(2, 3), std::make_pair(40, 551), std::make_pair(0, 65535),
                       std::make_pair(-65525, 10), std::make_pair(-3000, 2000), std::make_pair(-10, -5),
                       std::make_pair(70000, 70010)}) {
        // All depths, and a run that starts and ends off the vector width.
        for (size_t first : {0, 3}) {
            const size_t n = all.size() - 2 * first;
            std::vector<uint8_t> ref(3 * n), fast(ref.size());
            FalseColour(all.data() + first, n, range.first, range.second, ref.data());
            FalseColourFast(all.data() + first, n, range.first, range.second, fast.data());
            ASSERT_EQ(ref, fast) << range.first << ".." << range.second;
        }
    }

    std::mt19937 rng(5);
    std::uniform_int_distribution<int> u(0, 9000);
    std::vector<float> rays(640 * 480);
    for (float& v : rays)
        v = static_cast<float>(u(rng)) / 9000.0f - 0.5f;
    for (int w : {3, 17, 320, 640}) {
        for (int binning : {1, 2}) {
            const int h = std::min(480 / binning, 300000 / w / binning / binning);
            if (static_cast<size_t>((h - 1) * w * binning + w) * binning > rays.size())
                continue;
            std::vector<uint16_t> depth(static_cast<size_t>(w) * h);
            for (uint16_t& d : depth)
                d = static_cast<uint16_t>(u(rng));
            for (int cut : {0, 12, 25, 50, 1000}) {
                std::vector<float> ref(3 * depth.size(), -1.0f), fast(ref.size(), -2.0f);
                PointCloud(depth.data(), w, h, binning, cut, rays.data(), rays.data(), ref.data());
                PointCloudRows(depth.data(), w, h, binning, cut, rays.data(), rays.data(), fast.data());
                ASSERT_EQ(ref, fast) << w << "x" << h << " binning " << binning << " cut " << cut;
            }
        }
    }

}

TEST(Parity, RegistrationKernels)
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

TEST(Parity, MedianEqualsOpenCvs)
{
    std::mt19937 rng(21);
    const std::pair<int, int> sizes[] = {{1, 1}, {1, 9}, {7, 1}, {2, 3}, {5, 5}, {6, 4},
                                         {33, 17}, {64, 31}, {65, 66}, {640, 480}};
    for (const auto& [w, h] : sizes) {
        for (int spread : {3, 65536}) {  // many ties, then anything
            cv::Mat src(h, w, CV_16UC1), ref;
            std::uniform_int_distribution<int> value(0, spread - 1);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    src.at<uint16_t>(y, x) = static_cast<uint16_t>(value(rng));
            cv::medianBlur(src, ref, 5);
            // Written into a wider image: the step is honoured and nothing beside is touched.
            cv::Mat wide(h, w + 3, CV_16UC1, cv::Scalar(777));
            MedianBlur5x5(src.ptr<uint16_t>(), src.step1(), wide.ptr<uint16_t>(), wide.step1(), w, h);
            ASSERT_EQ(cv::norm(ref, wide(cv::Rect(0, 0, w, h)), cv::NORM_INF), 0.0) << w << "x" << h;
            ASSERT_EQ(cv::countNonZero(wide(cv::Rect(w, 0, 3, h)) != 777), 0);

            // The depth pipeline's 3 x 3 median works in place.
            cv::medianBlur(src, ref, 3);
            cv::Mat inPlace = src.clone();
            MedianBlur3x3InPlace(inPlace.ptr<uint16_t>(), w, h);
            ASSERT_EQ(cv::norm(ref, inPlace, cv::NORM_INF), 0.0) << "3 x 3, " << w << "x" << h;
        }
    }
}

TEST(Parity, WholeOperationsWithAndWithoutFastPaths)
{
    Instance in(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    scene.brightPatch = true;
    const qvsim::Capture cap = qvsim::SimulateCapture(in.r->m_secondParam, scene, qvsim::CaptureSpec{});
    std::vector<uint16_t> depth[2];
    std::vector<float> cloud[2];
    std::vector<uint8_t> colour[2], registered[2];
    const std::vector<uint8_t> nv12 = qvsim::RenderColour(in.r->m_secondParam, scene).nv12;
    Differences diff;
    const bool built = FastPathsEnabled();
    for (int fast = 0; fast < 2; ++fast) {
        SetFastPathsEnabled(fast == 1);
        uint16_t* d = nullptr;
        ASSERT_EQ(in.r->CalculateDepth(cap.raw.data(), &d, 640, 480), 0);
        depth[fast].assign(d, d + 640 * 480);
        cloud[fast].resize(3 * 640 * 480);
        ASSERT_EQ(in.r->GetCloudPoint(d, cloud[fast].data(), 640, 480), 0);
        uint8_t* rgb = nullptr;
        in.r->Convert2RGB(&rgb, d, 640, 480);
        colour[fast].assign(rgb, rgb + 3 * 640 * 480);
        delete[] rgb;
        // Registration of the same (reference) depth frame.
        uint16_t* entry = new uint16_t[640 * 480];
        std::copy(depth[0].begin(), depth[0].end(), entry);
        std::vector<uint8_t> frame = nv12;
        int w = 0, h = 0;
        ASSERT_EQ(in.r->MapDepthToRGB(&rgb, &entry, frame.data(), 1920, 1080, w, h), 0);
        registered[fast].assign(reinterpret_cast<uint8_t*>(entry), reinterpret_cast<uint8_t*>(entry + w * h));
        registered[fast].insert(registered[fast].end(), rgb, rgb + 3 * w * h);
        delete[] entry;
        delete[] rgb;
        delete[] d;
    }
    SetFastPathsEnabled(built);
    diff.Add(depth[0].data(), depth[1].data(), depth[0].size());
    // The 3 x 3 median hands each converter difference on to up to eight neighbours.
    diff.Check("CalculateDepth, filters on", 9e-4);
    EXPECT_EQ(registered[0], registered[1]);
    // Colour and points follow the depth: equal wherever the depth is.
    size_t colourDiffer = 0, cloudDiffer = 0;
    for (size_t i = 0; i < depth[0].size(); ++i) {
        if (depth[0][i] != depth[1][i])
            continue;
        colourDiffer += std::memcmp(&colour[0][3 * i], &colour[1][3 * i], 3) != 0;
        cloudDiffer += std::memcmp(&cloud[0][3 * i], &cloud[1][3 * i], 3 * sizeof(float)) != 0;
    }
    EXPECT_EQ(colourDiffer, 0u);
    EXPECT_EQ(cloudDiffer, 0u);
}

TEST(Parity, ExactAmplitudeThreshold)
{
    // The integer energy bound reproduces the float amplitude test at every threshold.
    for (int threshold : {-3, 0, 1, 2, 5, 17, 300, 6000}) {
        const int64_t e = MinValidEnergy(threshold);
        const auto strong = [threshold](int64_t energy) {
            const float a = static_cast<float>(std::sqrt(static_cast<float>(energy)) * 1.5707963265);
            return !(static_cast<float>(threshold) > a);
        };
        EXPECT_TRUE(strong(e)) << threshold;
        if (e > 0) {
            EXPECT_FALSE(strong(e - 1)) << threshold;
        }
    }
}

TEST(Parity, ArctangentWithinItsBound)
{
    // Integer phase vectors as the sensor gives them, the exact cases (axes, diagonals,
    // the origin), and float vectors of every size and sign; a length off the vector
    // widths, so the single-lane tail runs too.
    std::vector<float> y, x;
    for (int a = -40; a <= 40; ++a)
        for (int b = -40; b <= 40; ++b) {
            y.push_back(static_cast<float>(a * 97));
            x.push_back(static_cast<float>(b * 97));
        }
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> word(-4095, 4095);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f), scale(-30.0f, 30.0f);
    for (int i = 0; i < 100003; ++i) {
        y.push_back(static_cast<float>(word(rng)));
        x.push_back(static_cast<float>(word(rng)));
        y.push_back(unit(rng) * std::exp2(scale(rng)));
        x.push_back(unit(rng) * std::exp2(scale(rng)));
    }
    std::vector<float> got(y.size());
    Arctangent2(y.data(), x.data(), static_cast<int>(y.size()), got.data());
    // Near pi the float spacing alone is 2.4e-7 rad.
    double worst = 0.0;
    for (size_t i = 0; i < y.size(); ++i) {
        const double want = std::atan2(static_cast<double>(y[i]), static_cast<double>(x[i]));
        worst = std::max(worst, std::fabs(got[i] - want));
        if (std::fabs(y[i]) == std::fabs(x[i]) || y[i] == 0.0f || x[i] == 0.0f) {
            ASSERT_EQ(got[i], std::atan2(y[i], x[i])) << y[i] << ", " << x[i];
        }
    }
    std::printf("  arctangent: worst error %.3g rad\n", worst);
    EXPECT_LT(worst, 3.0e-7);
}

TEST(Parity, EachTargetsKernelsAreCompiledForItsInstructionSet)
{
    // Compiler flags that fall short of what Highway needs for a target silently give
    // it a narrower one's vectors.
    const std::string set = KernelInstructionSet();
    std::printf("  fast paths run with: %s (%s)\n", FastPathName(), set.c_str());
#if defined(__x86_64__)
    const char* expected[] = {"SSE4", "AVX2", "AVX3"};
    EXPECT_EQ(set, expected[static_cast<int>(ChosenTarget())]);
#elif defined(__aarch64__)
    EXPECT_EQ(set, "NEON");
#endif
}

}  // namespace
