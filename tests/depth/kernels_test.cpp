// The depth operations' fast kernels against their plain references on the target this
// run selects: simulated scenes and random frames, every flip mode and stream, widths
// that are not multiples of any vector width.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "depth/amplitude.h"
#include "depth/arctangent.h"
#include "depth/dual_freq.h"
#include "depth/edge_filter.h"
#include "depth/ir.h"
#include "depth/point_cloud.h"
#include "depth/single_freq.h"
#include "kernel_parity.h"
#include "simulator.h"

namespace {

using namespace qvapi;
using namespace qvtest;

void CompareDual(const Instance& in, const uint16_t* raw, int w, int h, int flip, int threshold,
                 Differences& diff, float tableStep = 0.0f, const float* table = nullptr,
                 const float* slopes = nullptr)
{
    DualFreqParams p = in.Dual(w, flip, threshold);
    if (tableStep > 0.0f)
        p.tableStep2 = tableStep;
    if (table) {
        p.table1 = p.table2 = table;
        p.slopes1 = p.slopes2 = slopes;
    }
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

TEST(DepthKernels, DualFrequencyScenesAndRandomFrames)
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

    // Random frames of odd widths (each plane holds 4 * w * h words), with words of 10
    // bits and of the whole 16.
    Instance in(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    std::mt19937 rng(42);
    Differences diff;
    for (int w : {1, 7, 17, 33, 320, 639}) {
        const int h = std::min(480, 307200 / std::max(w, 1) / 4 + 3);
        for (int flip = 0; flip < 4; ++flip) {
            const int top = flip % 2 ? 1023 : 65535;
            const std::vector<uint16_t> raw = RandomFrame(16 * static_cast<size_t>(w) * h, rng, top);
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
    std::vector<float> table(256), slopes(512);
    for (float& t : table)
        t = static_cast<float>(std::uniform_int_distribution<int>(-40, 40)(rng)) + 0.5f;
    ASSERT_TRUE(WigglingSlopes(table.data(), slopes.data()));
    for (float step : {0.05f, 0.2f}) {
        const std::vector<uint16_t> raw = RandomFrame(16 * 640 * 40, rng, 1023);
        CompareDual(in, raw.data(), 640, 40, 0, 5, diff, step);
        CompareDual(in, raw.data(), 640, 40, 0, 5, diff, step, table.data(), slopes.data());
    }
    diff.Check("dual, random frames");

    // A table the vector interpolation cannot serve (an entry beyond +-4096 mm): no
    // slopes, and the plain kernel's depth exactly.
    table[77] = 5000.0f;
    EXPECT_FALSE(WigglingSlopes(table.data(), slopes.data()));
    Differences wild;
    const std::vector<uint16_t> raw = RandomFrame(16 * 640 * 40, rng, 1023);
    CompareDual(in, raw.data(), 640, 40, 0, 5, wild, 0.05f, table.data(), nullptr);
    EXPECT_EQ(wild.off, 0u);
}

TEST(DepthKernels, SingleFrequencyScenesAndRandomFrames)
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

TEST(DepthKernels, EdgeFilterIsExact)
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

TEST(DepthKernels, InfraredIsExact)
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

TEST(DepthKernels, PointCloudIsExact)
{
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

TEST(DepthKernels, Median3x3EqualsOpenCvs)
{
    for (const cv::Mat& src : MedianTestImages()) {
        cv::Mat ref, inPlace = src.clone();
        cv::medianBlur(src, ref, 3);
        MedianBlur3x3InPlace(inPlace.ptr<uint16_t>(), src.cols, src.rows);  // in place, as depth runs it
        ASSERT_EQ(cv::norm(ref, inPlace, cv::NORM_INF), 0.0) << src.cols << "x" << src.rows;
    }
}

TEST(DepthKernels, ExactAmplitudeThreshold)
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

TEST(DepthKernels, ArctangentWithinItsBound)
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

}  // namespace
