// Depth kernels and the frame pipeline: the cases that catch real faults.
#include <cmath>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "depth/dual_freq.h"
#include "depth/edge_filter.h"
#include "depth/ir.h"
#include "depth/single_freq.h"
#include "depth/temperature.h"
#include "depth/wiggling.h"
#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

TEST(DepthCorrections, WrapAndWigglingFold)
{
    EXPECT_EQ(WrapOnce(1875.0f, 1875.0f), 1875.0f);  // exactly the range stays
    EXPECT_EQ(WrapOnce(-10.0f, 1875.0f), 1865.0f);
    EXPECT_EQ(WrapOnce(1885.0f, 1875.0f), 10.0f);
    EXPECT_EQ(WrapOnce(-2000.0f, 1875.0f), -125.0f);  // one correction only

    float table[256] = {};
    for (int k = 0; k < 39; ++k)
        table[k] = static_cast<float>(k + 1);
    // Index equal to the count is not folded (reads past the calibrated entries);
    // past it, the index folds back by count - 1.
    EXPECT_EQ(WigglingAt(table, 1.0f, 38.0f, true, 39), 39.0f);
    EXPECT_EQ(WigglingAt(table, 1.0f, 39.0f, true, 39), 0.0f);
    EXPECT_EQ(WigglingAt(table, 1.0f, 40.0f, true, 39), table[2]);
    EXPECT_EQ(WigglingAt(table, 1.0f, 39.5f, true, 39), 0.5f * table[2]);
    EXPECT_EQ(WigglingAt(table, 1.0f, 40.0f, false, 39), 0.0f);  // dual: no folding
    EXPECT_EQ(WigglingAt(table, 0.5f, 5.0f, false, 0), table[2] + 0.5f * (table[3] - table[2]));
    // Absurd inputs stay inside the table.
    EXPECT_TRUE(std::isnan(WigglingAt(table, 1.0f, NAN, true, 39)));
    EXPECT_EQ(WigglingAt(table, 1.0f, 1e9f, false, 0), table[255]);
    EXPECT_EQ(WigglingAt(table, 1.0f, 300.0f, true, -5), table[255]);
    EXPECT_EQ(WigglingAt(table, 1.0f, 3.0f, true, std::numeric_limits<int32_t>::min()), table[255]);
}

TEST(DepthCorrections, TemperatureFromTheFrame)
{
    std::vector<uint16_t> raw(200, 0);
    raw[188] = 1 << 2;   // code 296: 25 degrees
    raw[190] = 40 << 2;
    EXPECT_FLOAT_EQ(SensorTemperature(raw.data()), 25.0f);
    const float comp = SingleFreqDrift(25.0f) * 596.831f;
    EXPECT_NEAR(comp, -10.58f, 0.02f);
    raw[190] = 148 << 2;  // code 404: 45 degrees
    EXPECT_NEAR(SensorTemperature(raw.data()), 45.0f, 1e-4f);
}

// A single-frequency frame of w x h pixels whose samples are all `value`.
std::vector<uint16_t> Flat(int w, int h, uint16_t value) { return std::vector<uint16_t>(4 * w * h, value); }

TEST(SingleFreq, ThresholdStrideAndSizes)
{
    float table[256] = {}, fppn[64] = {}, ray[64];
    std::fill(ray, ray + 64, 1.0f);
    SingleFreqParams p{596.831f, 0.0f, 3750, 0.02f, 0, table, 0, false};
    // Equal samples: amplitude 0. With threshold 0 the pixel is valid, phase 0: half range.
    std::vector<uint16_t> raw = Flat(8, 4, 300), depth(32, 7);
    SingleFreqDepth(raw.data(), depth.data(), 8, 4, 8, p, fppn, ray);
    EXPECT_EQ(depth[9], 1875);
    p.amplitudeThreshold = 1;
    SingleFreqDepth(raw.data(), depth.data(), 8, 4, 8, p, fppn, ray);
    EXPECT_EQ(depth[9], 0);
    // An amplitude equal to the threshold is valid: I = 2, Q = 0 gives 2 * pi / 2.
    raw[2 * 1] = 302;  // S0 of column 1, row 0
    p.amplitudeThreshold = 3;
    SingleFreqDepth(raw.data(), depth.data(), 8, 4, 8, p, fppn, ray);
    EXPECT_EQ(depth[1], 1875);  // pi * 1 = 3.14 >= 3
    // Invalid pixels are written with the member stride, valid ones with the width.
    std::fill(depth.begin(), depth.end(), 7);
    p.amplitudeThreshold = 100;
    SingleFreqDepth(raw.data(), depth.data(), 4, 2, 8, p, fppn, ray);
    EXPECT_EQ(depth[8], 0);  // row 1, column 0 at stride 8
    EXPECT_EQ(depth[4], 7);  // where width 4 would have put it
    // No rows: nothing written.
    std::fill(depth.begin(), depth.end(), 7);
    SingleFreqDepth(raw.data(), depth.data(), 8, 0, 8, p, fppn, ray);
    EXPECT_EQ(depth[0], 7);
}

// One pixel at row 2 of a 1-wide, 3-row dual-frequency capture with phase 0 at both
// frequencies: the offsets become the wrapped distances d1 and d2 directly.
uint16_t DualPixel(float d1, float d2, uint16_t saturateWord = 0)
{
    const int W = 1, H = 3;
    std::vector<uint16_t> raw(16 * W * H, 500);
    const size_t plane = 4 * W * H, row2 = 4 * W * 2;
    // Flip 0 roles: A = S0, C = S3 carry the cosine; p planes 0 and 2, q planes 1 and 3.
    for (size_t pl : {size_t{0}, size_t{2}}) {
        raw[pl * plane + row2 + 0] = 600;        // A_p
        raw[pl * plane + row2 + 3] = 400;        // C_p
        raw[(pl + 1) * plane + row2 + 0] = 400;  // A_q
        raw[(pl + 1) * plane + row2 + 3] = 600;  // C_q
    }
    if (saturateWord != 0)
        raw[saturateWord] = 1023;
    float table[256] = {}, fppn[3] = {}, ray[3] = {1, 1, 1};
    DualFreqParams p{80000000, 100000000, 1875, 1500, 298.4155f, 238.7324f, d1, d2, 0.02f,
                     table,    table,     nullptr, nullptr, 5,  false, 0,    1};
    std::vector<uint16_t> depth(3, 9);
    DualFreqLast last{};
    DualFreqDepth(raw.data(), depth.data(), W, H, p, fppn, fppn, ray, last);
    EXPECT_EQ(depth[0], 0);  // rows 0 and 1 carry no depth
    EXPECT_EQ(depth[1], 0);
    return depth[2];
}

TEST(DualFreq, UnwrappingConsistencyAndSaturation)
{
    EXPECT_EQ(DualPixel(1000, 1000), 1000);
    // A true 3000 mm: 3000 mod 1875 and 3000 mod 1500.
    EXPECT_EQ(DualPixel(1125, 1500 - 1e-3f), 3000 - 1);
    EXPECT_EQ(DualPixel(1125, 0.5f), 3000);
    // Disagreement of exactly 200 mm keeps the pixel; 201 does not.
    EXPECT_EQ(DualPixel(1100, 900), 1000);
    EXPECT_EQ(DualPixel(1101, 900), 0);
    // Exactly zero distance: no depth.
    EXPECT_EQ(DualPixel(0, 900), 0);
    // Saturation of the first frequency (plane 2) wins over everything.
    const size_t plane = 4 * 3, row2 = 4 * 2;
    EXPECT_EQ(DualPixel(1000, 1000, static_cast<uint16_t>(2 * plane + row2 + 1)), 1);
    EXPECT_EQ(DualPixel(1000, 1000, static_cast<uint16_t>(0 * plane + row2 + 2)), 1);
}

TEST(EdgeFilter, BlocksBandsAndBorders)
{
    const auto topLeftAfter = [](uint16_t a, uint16_t b, uint16_t c, uint16_t d) {
        std::vector<uint16_t> img = {a, b, c, d, 0, 0};  // 2 x 3
        EdgeFilter(img.data(), 2, 3);
        EXPECT_EQ(img[4] | img[5] | img[2] | img[3], 0);  // last two rows cleared
        return img[0];
    };
    EXPECT_EQ(topLeftAfter(1000, 1000, 1000, 1100), 0);     // mean 1025, dev 86 > 40
    EXPECT_EQ(topLeftAfter(1000, 1000, 1000, 1060), 0);     // dev 51 > 40
    EXPECT_EQ(topLeftAfter(1000, 1000, 1000, 1040), 1000);  // dev 34 <= 40
    // Deviation 35: kept in the 1001-2000 band, removed in the 2001-3000 band (30).
    EXPECT_EQ(topLeftAfter(1500, 1500, 1500, 1540), 1500);
    EXPECT_EQ(topLeftAfter(2500, 2500, 2500, 2540), 0);
    EXPECT_EQ(topLeftAfter(3500, 3500, 3500, 3550), 3500);  // 43 <= 50

    // Uniform image: unchanged but the last two rows. The last column's right
    // neighbours are the next row's first pixels.
    std::vector<uint16_t> img(5 * 4, 2000);
    img[2 * 5] = 2400;  // first pixel of row 2: below-right of (0, 4), right of (1, 4)
    EdgeFilter(img.data(), 5, 4);
    EXPECT_EQ(img[0 * 5 + 3], 2000);
    EXPECT_EQ(img[0 * 5 + 4], 0);
    EXPECT_EQ(img[1 * 5 + 4], 0);
    EXPECT_EQ(img[1 * 5 + 0], 0);  // its own block holds the 2400 below
    EXPECT_EQ(img[1 * 5 + 1], 2000);
    for (int i = 10; i < 20; ++i)
        EXPECT_EQ(img[i], 0);

    std::vector<uint16_t> shallow(6 * 2, 1234);
    EdgeFilter(shallow.data(), 6, 2);
    for (uint16_t v : shallow)
        EXPECT_EQ(v, 0);
}

TEST(Infrared, MeanSaturatedAtByteRange)
{
    std::vector<uint16_t> raw = {100, 100, 300, 300, 100, 103, 300, 300};  // 2 x 1
    std::vector<uint16_t> ir(2);
    InfraredImage(raw.data(), ir.data(), 2, 1);
    EXPECT_EQ(ir[0], (100 + 100 + 100 + 103) >> 2);
    EXPECT_EQ(ir[1], 255);
}

// ------------------------------------------------------------------ the pipeline

struct Pipeline : ::testing::Test {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    void Start(StreamType stream)
    {
        r->SetType(DEVICE_GENERIC, stream);
        const auto binned = qvsim::SampleBinnedCalibration();
        ASSERT_EQ(r->Init(binned, stream == STREAM_SINGLE_FREQ ? binned : qvsim::SampleCalibration()), 0);
    }
    qvsim::Capture Simulate(StreamType stream, bool binned = false)
    {
        qvsim::CaptureSpec setup;
        setup.stream = stream;
        setup.binned = binned;
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        return qvsim::SimulateCapture(r->m_secondParam, scene, setup);
    }
};

TEST_F(Pipeline, FilterSwitchFreshBuffersAndTheFilterSteps)
{
    Start(STREAM_DUAL_FREQ);
    const qvsim::Capture cap = Simulate(STREAM_DUAL_FREQ);
    uint16_t* converted = nullptr;
    ASSERT_EQ(r->GetDepthFromDualFreqTagMode(cap.raw.data(), &converted, 640, 480), 0);
    uint16_t *off = nullptr, *on = nullptr;
    r->OpenFilter(false);
    ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &off, 640, 480), 0);
    r->OpenFilter(true);
    ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &on, 640, 480), 0);
    EXPECT_NE(off, on);
    EXPECT_NE(off, converted);
    EXPECT_EQ(0, std::memcmp(off, converted, 640 * 480 * 2));  // off: the converter's output
    cv::Mat expect;
    cv::medianBlur(cv::Mat(480, 640, CV_16UC1, converted), expect, 3);
    EdgeFilter(reinterpret_cast<uint16_t*>(expect.data), 640, 480);
    EXPECT_EQ(0, std::memcmp(on, expect.data, 640 * 480 * 2));
    EXPECT_NE(0, std::memcmp(on, off, 640 * 480 * 2));
    EXPECT_EQ(r->m_width, 640);
    EXPECT_EQ(r->m_height, 480);
    delete[] converted;
    delete[] off;
    delete[] on;
}

TEST_F(Pipeline, BinnedFramesHalveTheThresholdOnEveryFrame)
{
    Start(STREAM_DUAL_FREQ);
    const qvsim::Capture cap = Simulate(STREAM_DUAL_FREQ, true);
    r->m_amplitudeThreshold = 1000;
    r->OpenFilter(false);
    for (int frame = 0; frame < 10; ++frame) {
        uint16_t* d = nullptr;
        ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &d, 320, 240), 0);
        delete[] d;
    }
    EXPECT_EQ(r->m_amplitudeThreshold, 0);  // 1000 >> 10
    EXPECT_EQ(r->m_binning, 2);
    EXPECT_EQ(r->m_workParam.depthLens.width, 320);  // the binned record is in force
}

TEST_F(Pipeline, InitGivesBackTheThresholdBinnedFramesHalved)
{
    // Three binned frames bring the threshold to 0; a new Init converts the next full
    // frame exactly as a fresh instance does.
    Start(STREAM_DUAL_FREQ);
    qvsim::CaptureSpec noisy;
    noisy.noiseSigma = 3.0;
    qvsim::SceneSpec scene;  // the dark patch has pixels between thresholds 0 and 5
    scene.kind = qvsim::SceneKind::Boxes;
    scene.darkPatch = true;
    const qvsim::Capture full = qvsim::SimulateCapture(r->m_secondParam, scene, noisy);
    const qvsim::Capture binned = Simulate(STREAM_DUAL_FREQ, true);
    r->OpenFilter(false);
    const auto depthOf = [&](const qvsim::Capture& cap) {
        uint16_t* d = nullptr;
        EXPECT_EQ(r->CalculateDepth(cap.raw.data(), &d, cap.width, cap.height), 0);
        std::vector<uint16_t> out(d, d + cap.width * cap.height);
        delete[] d;
        return out;
    };
    const std::vector<uint16_t> fresh = depthOf(full);
    for (int k = 0; k < 3; ++k)
        depthOf(binned);
    ASSERT_EQ(r->m_amplitudeThreshold, 0);
    EXPECT_NE(depthOf(full), fresh);
    ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()), 0);
    EXPECT_EQ(r->m_amplitudeThreshold, 5);
    EXPECT_EQ(depthOf(full), fresh);
}

TEST_F(Pipeline, SingleFrequencyReleasesItsLockAndDoubleFreqDepthUsesTheLastSize)
{
    Start(STREAM_SINGLE_FREQ);
    const qvsim::Capture cap = Simulate(STREAM_SINGLE_FREQ);
    r->OpenFilter(false);
    // A lock left held would stop the second call in this thread (the mutex is not
    // recursive), and a call from any other thread.
    for (int i = 0; i < 3; ++i) {
        uint16_t* d = nullptr;
        ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &d, 320, 240), 0);
        delete[] d;
    }
    // Two threads in turn.
    for (int round = 0; round < 2; ++round) {
        std::thread t([&] {
            for (int i = 0; i < 50; ++i) {
                uint16_t* d = nullptr;
                EXPECT_EQ(r->CalculateDepth(cap.raw.data(), &d, 320, 240), 0);
                delete[] d;
            }
        });
        t.join();
    }
    uint16_t* viaPipeline = nullptr;
    ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &viaPipeline, 320, 240), 0);
    uint16_t* d = nullptr;
    int w = 0, h = 0;
    ASSERT_EQ(r->DoubleFreqDepth(cap.raw.data(), nullptr, &d, w, h), 0);
    EXPECT_EQ(w, 320);
    EXPECT_EQ(h, 240);
    EXPECT_EQ(r->m_binning, 2);
    EXPECT_EQ(0, std::memcmp(d, viaPipeline, 320 * 240 * 2));
    delete[] d;
    delete[] viaPipeline;
}

// Refusals shared by every frame operation (sizes, null pointers, before Init) are
// covered with the bad calls; these are the depth pipeline's own.
TEST_F(Pipeline, RefusedFramesChangeNothing)
{
    Start(STREAM_DUAL_FREQ);
    std::vector<uint16_t> raw(16 * 640 * 480, 500);
    uint16_t* d = nullptr;
    int w = 1, h = 1;
    EXPECT_EQ(r->DoubleFreqDepth(raw.data(), raw.data(), &d, w, h), STATUS_INVALID_ARGUMENT);  // no frame yet
    EXPECT_EQ(r->m_amplitudeThreshold, 5);
    // A frame of two rows is served: all zeros.
    ASSERT_EQ(r->CalculateDepth(raw.data(), &d, 640, 2), STATUS_OK);
    EXPECT_EQ(d[0] | d[640 + 639], 0);
    delete[] d;
    d = nullptr;

    // The stream changed after Init: the reduced tables cannot serve the full stream.
    r->SetType(DEVICE_GENERIC, STREAM_SINGLE_FREQ);
    ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(), qvsim::SampleBinnedCalibration()), 0);
    r->SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    EXPECT_EQ(r->CalculateDepth(raw.data(), &d, 640, 480), STATUS_STREAM_MISMATCH);
    r->SetType(DEVICE_GENERIC, STREAM_SINGLE_FREQ);
    EXPECT_EQ(r->CalculateDepth(raw.data(), &d, 6, 7), STATUS_INVALID_ARGUMENT);  // no temperature words
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(w, 1);
}

}  // namespace
