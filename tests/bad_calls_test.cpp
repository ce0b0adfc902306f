// Bad calls and their outcomes: a status code or defined data, nothing written or
// allocated on refusal, and correct results from valid calls afterwards. Run under
// AddressSanitizer and UndefinedBehaviorSanitizer in CI, which catch any access
// outside a buffer.
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "qvreconstruction/depth_filters.h"
#include "qvreconstruction/filter_module.h"
#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

constexpr uint16_t kGuard = 0xBEEF;

// Runs every frame operation with the given sizes and reports what each returned; an
// output is "touched" when its guard values changed or a pointer was set.
struct Outcomes {
    int32_t depth, doubleFreq, cloud, ir, map;
    bool touched;
};

Outcomes CallEverything(ReconstructionImpl& r, const uint16_t* raw, int w, int h)
{
    Outcomes o{};
    uint16_t* depth = nullptr;
    o.depth = r.CalculateDepth(raw, &depth, w, h);
    if (o.depth == STATUS_OK)
        delete[] depth;
    else
        o.touched |= depth != nullptr;
    int dw = -7, dh = -7;
    uint16_t* d2 = nullptr;
    o.doubleFreq = r.DoubleFreqDepth(raw, raw, &d2, dw, dh);
    if (o.doubleFreq == STATUS_OK)
        delete[] d2;
    else
        o.touched |= d2 != nullptr || dw != -7 || dh != -7;
    const size_t n = w > 0 && h > 0 && int64_t(w) * h < 4000000 ? size_t(w) * h : 16;
    std::vector<float> cloud(3 * n, -1.0f);
    std::vector<uint16_t> ir(n, kGuard), img(n, 1000);
    o.cloud = r.GetCloudPoint(img.data(), cloud.data(), w, h);
    if (o.cloud != STATUS_OK)
        o.touched |= cloud[0] != -1.0f;
    o.ir = r.GetIR(raw, ir.data(), w, h);
    if (o.ir != STATUS_OK)
        o.touched |= ir[0] != kGuard;
    uint16_t* entry = new uint16_t[640 * 480]();
    uint16_t* const before = entry;
    uint8_t* colour = nullptr;
    std::vector<uint8_t> nv12(1920 * 1080 * 3 / 2, 100);
    int mw = -7, mh = -7;
    o.map = r.MapDepthToRGB(&colour, &entry, nv12.data(), w, h, mw, mh);
    if (o.map == STATUS_OK)
        delete[] colour;
    else
        o.touched |= entry != before || colour != nullptr || mw != -7;
    delete[] entry;
    return o;
}

struct Fixture : ::testing::Test {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    std::vector<uint16_t> raw = std::vector<uint16_t>(16 * 640 * 480, 500);

    void Start(StreamType stream, const CameraCalibrationParam& cal)
    {
        r->SetType(DEVICE_GENERIC, stream);
        ASSERT_GE(r->Init(qvsim::SampleBinnedCalibration(), cal), STATUS_INVALID_ARGUMENT);
    }
};

TEST_F(Fixture, BeforeInitAfterReleaseAndNullPointers)
{
    for (int round = 0; round < 2; ++round) {
        const Outcomes o = CallEverything(*r, raw.data(), 640, 480);
        EXPECT_EQ(o.depth, STATUS_NOT_INITIALIZED);
        EXPECT_EQ(o.doubleFreq, STATUS_NOT_INITIALIZED);
        EXPECT_EQ(o.cloud, STATUS_NOT_INITIALIZED);
        EXPECT_EQ(o.map, STATUS_NOT_INITIALIZED);
        EXPECT_EQ(o.ir, STATUS_OK);  // needs no calibration
        EXPECT_FALSE(o.touched);
        Start(STREAM_DUAL_FREQ, qvsim::SampleCalibration());
        r->Release();
    }
    Start(STREAM_DUAL_FREQ, qvsim::SampleCalibration());
    const Outcomes o = CallEverything(*r, nullptr, 640, 480);
    EXPECT_EQ(o.depth, STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(o.doubleFreq, STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(o.ir, STATUS_INVALID_ARGUMENT);
    EXPECT_FALSE(o.touched);
    EXPECT_EQ(r->GetCloudPoint(nullptr, nullptr, 640, 480), STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(r->GetIR(raw.data(), nullptr, 640, 480), STATUS_INVALID_ARGUMENT);
    uint8_t* image = nullptr;
    int w = 0, h = 0;
    EXPECT_EQ(r->MapDepthToRGB(nullptr, nullptr, nullptr, 1920, 1080, w, h), STATUS_INVALID_ARGUMENT);
    uint16_t* noDepth = nullptr;
    EXPECT_EQ(r->MapDepthToRGB(&image, &noDepth, raw.data() ? reinterpret_cast<uint8_t*>(raw.data()) : nullptr,
                               1920, 1080, w, h),
              STATUS_INVALID_ARGUMENT);
    r->Convert2RGB(nullptr, raw.data(), 640, 480);
    r->GetColorBar(nullptr, w);
    EXPECT_EQ(image, nullptr);
}

TEST_F(Fixture, SizesTheStreamCannotServe)
{
    Start(STREAM_DUAL_FREQ, qvsim::SampleCalibration());
    constexpr int kMax = std::numeric_limits<int>::max(), kMin = std::numeric_limits<int>::min();
    struct Size {
        int w, h;
    } refused[] = {{0, 480}, {640, 0}, {-640, 480}, {640, -2}, {640, 481}, {641, 480}, {320, 241},
                   {100000, 100000}, {kMax, 2}, {3, 3}, {kMax, kMax}, {kMin, kMin}, {kMax, kMin},
                   {2, kMax}, {kMax, 1080}, {1920, kMax}, {65536, 65536}, {131072, 32768}};
    // Fresh, then after a binned frame (which leaves binning 2 and a 320 x 240 image):
    // no size reads or writes past the 16-pixel buffers, whatever the products wrap to.
    for (const int lastWidth : {0, 320}) {
        if (lastWidth != 0) {
            uint16_t* binned = nullptr;
            ASSERT_EQ(r->CalculateDepth(raw.data(), &binned, 320, 240), STATUS_OK);
            delete[] binned;
        }
        for (const Size& s : refused) {
            const Outcomes o = CallEverything(*r, raw.data(), s.w, s.h);
            EXPECT_EQ(o.depth, STATUS_INVALID_ARGUMENT) << s.w << "x" << s.h;
            if (s.w <= 0 || s.h <= 0 || int64_t(s.w) * s.h > 4000000) {  // beyond any ray map
                EXPECT_EQ(o.cloud, STATUS_INVALID_ARGUMENT) << s.w << "x" << s.h;
            }
            EXPECT_EQ(o.map, STATUS_INVALID_ARGUMENT) << s.w << "x" << s.h;  // colour must be 1920 x 1080
            EXPECT_FALSE(o.touched) << s.w << "x" << s.h;
            EXPECT_EQ(r->m_width, lastWidth);
        }
    }
    // Registration reads 640 x 480: after the binned frame it is refused, after a full
    // frame it works again.
    EXPECT_EQ(CallEverything(*r, raw.data(), 1920, 1080).map, STATUS_INVALID_ARGUMENT);
    uint16_t* full = nullptr;
    ASSERT_EQ(r->CalculateDepth(raw.data(), &full, 640, 480), STATUS_OK);
    delete[] full;
    EXPECT_EQ(CallEverything(*r, raw.data(), 1920, 1080).map, STATUS_OK);
    // A stream changed by SetType after Init, in either direction, is refused by every
    // calibrated operation until the next Init.
    for (const StreamType changed : {STREAM_SINGLE_FREQ, STREAM_DUAL_FREQ}) {
        r->SetType(DEVICE_GENERIC, changed);
        const int w = changed == STREAM_SINGLE_FREQ ? 320 : 640, h = w * 3 / 4;
        const Outcomes o = CallEverything(*r, raw.data(), w, h);
        EXPECT_EQ(o.depth, STATUS_STREAM_MISMATCH) << changed;
        EXPECT_EQ(o.doubleFreq, STATUS_STREAM_MISMATCH) << changed;
        EXPECT_EQ(o.cloud, STATUS_STREAM_MISMATCH) << changed;
        EXPECT_EQ(o.map, STATUS_STREAM_MISMATCH) << changed;
        EXPECT_FALSE(o.touched);
        ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(),
                          changed == STREAM_SINGLE_FREQ ? qvsim::SampleBinnedCalibration() : qvsim::SampleCalibration()),
                  STATUS_OK);
        EXPECT_EQ(CallEverything(*r, raw.data(), w, h).depth, STATUS_OK);
        r->SetType(DEVICE_GENERIC, changed == STREAM_SINGLE_FREQ ? STREAM_DUAL_FREQ : STREAM_SINGLE_FREQ);
    }
    Start(STREAM_DUAL_FREQ, qvsim::SampleCalibration());
    uint8_t* rgb = nullptr;
    r->Convert2RGB(&rgb, raw.data(), 100000, 100000);  // larger than any depth image
    r->Convert2RGB(&rgb, raw.data(), -5, 10);
    EXPECT_EQ(rgb, nullptr);
    // Single-frequency stream: its tables are 320 x 240.
    Start(STREAM_SINGLE_FREQ, qvsim::SampleBinnedCalibration());
    for (const Size& s : {Size{320, 241}, Size{640, 480}, Size{321, 240}, Size{7, 6}}) {
        uint16_t* d = nullptr;
        EXPECT_EQ(r->CalculateDepth(raw.data(), &d, s.w, s.h), STATUS_INVALID_ARGUMENT) << s.w << "x" << s.h;
        EXPECT_EQ(d, nullptr);
    }
    // The colour frame of registration must be 1920 x 1080, and the tables the full stream's.
    const Outcomes o = CallEverything(*r, raw.data(), 1920, 1080);
    EXPECT_EQ(o.map, STATUS_STREAM_MISMATCH);
    // Unknown device and stream types take the general module and the full stream.
    r->SetType(static_cast<DeviceType>(99), static_cast<StreamType>(-3));
    EXPECT_FLOAT_EQ(r->m_secondParam.depthOffsetF1, -714.0f);
    ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()), STATUS_OK);
    EXPECT_EQ(r->m_tableWidth, 640);
    EXPECT_EQ(r->m_freqParam[1].frequency, 100000000);
}

TEST_F(Fixture, AbsurdCalibrationsGiveDefinedDataAndLeaveNothingBehind)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<CameraCalibrationParam> absurd;
    const auto add = [&](auto change) {
        CameraCalibrationParam c = qvsim::SampleCalibration();
        change(c);
        absurd.push_back(c);
    };
    add([](CameraCalibrationParam& c) { c.depthLens.fx = c.depthLens.fy = 0; });
    add([&](CameraCalibrationParam& c) { c.depthLens.fx = nan; c.rgbLens.fy = nan; });
    add([](CameraCalibrationParam& c) { c.tableCountF1 = 257; c.tableCountF2 = -1; });
    add([](CameraCalibrationParam& c) { c.tableCountF1 = -1; c.tableCountF2 = 257; });
    add([](CameraCalibrationParam& c) {
        c.tableCountF1 = std::numeric_limits<int32_t>::min();
        c.tableCountF2 = std::numeric_limits<int32_t>::max();
    });
    add([&](CameraCalibrationParam& c) { c.depthOffsetF1 = nan; c.depthOffsetF2 = 1e30f; });
    add([](CameraCalibrationParam& c) { c.depthOffsetF1 = -1e30f; c.depthOffsetF2 = -1e30f; });
    add([&](CameraCalibrationParam& c) {
        for (int k = 0; k < 256; ++k)
            c.tableF1[k] = c.tableF2[k] = nan;
        for (float& f : c.fppnF1)
            f = nan;
        for (float& f : c.fppnF2)
            f = 1e30f;
    });
    add([&](CameraCalibrationParam& c) {
        for (float& e : c.extrinsics)
            e = 1e30f;
        c.vectorCount = 300;
        c.vector[0] = nan;
        c.rgbLens.k1 = 1e30f;
    });
    const qvsim::Capture cap = qvsim::SimulateCapture(qvsim::SampleCalibration(), qvsim::SceneSpec{}, qvsim::CaptureSpec{});
    for (size_t k = 0; k < absurd.size(); ++k) {
        for (StreamType stream : {STREAM_DUAL_FREQ, STREAM_SINGLE_FREQ}) {
            r->SetType(k % 2 ? DEVICE_TYPE_4 : DEVICE_GENERIC, stream);
            const int32_t status = r->Init(absurd[k], absurd[k]);
            ASSERT_TRUE(status == STATUS_OK || status == STATUS_INVALID_ARGUMENT) << k;
            const int w = stream == STREAM_SINGLE_FREQ ? 320 : 640, h = w * 3 / 4;
            const Outcomes o = CallEverything(*r, cap.raw.data(), w, h);
            if (status == STATUS_OK) {
                EXPECT_EQ(o.depth, STATUS_OK) << k;
            } else {
                EXPECT_EQ(o.depth, STATUS_NOT_INITIALIZED) << k;
            }
            uint8_t* rgb = nullptr;
            std::vector<uint16_t> depth(w * h, 1500);
            r->Convert2RGB(&rgb, depth.data(), w, h);
            delete[] rgb;
        }
    }
    // A sound calibration afterwards gives exactly what a fresh instance gives.
    r->SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()), STATUS_OK);
    ReconstructionImpl fresh;
    fresh.SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    ASSERT_EQ(fresh.Init(qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()), STATUS_OK);
    uint16_t *a = nullptr, *b = nullptr;
    ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &a, 640, 480), STATUS_OK);
    ASSERT_EQ(fresh.CalculateDepth(cap.raw.data(), &b, 640, 480), STATUS_OK);
    EXPECT_EQ(0, std::memcmp(a, b, 640 * 480 * 2));
    delete[] a;
    delete[] b;
}

TEST(ToolkitBadCalls, EmptyAndHugeImagesAndRadii)
{
    filter_module f;
    unsigned short one = 7;
    for (auto size : {std::make_pair(0, 5), std::make_pair(5, 0), std::make_pair(-3, 4), std::make_pair(4, -3)}) {
        f.meanFilter(&one, size.first, size.second);
        f.medianFilter(&one, size.first, size.second);
        f.medianFilter2(&one, size.first, size.second);
        f.PixelFilter(&one, size.first, size.second, 1, 1);
        f.BilateralFiter(&one, size.first, size.second);
        f.Bilateral_Filter(&one, 2, 1.0, 10.0, size.first, size.second);
        EdgeFilterMad(&one, size.first, size.second, 15);
        OkadaFilter(&one, size.first, size.second);
        SpeckleFilter(&one, size.first, size.second, 5, 5);
        EdgeFilter(&one, size.first, size.second);
    }
    EXPECT_EQ(one, 7);
    f.meanFilter(nullptr, 4, 4);
    f.PixelFilter(nullptr, 4, 4, 1, 1);

    // Wider than 65535.
    const int W = 70000;
    std::vector<unsigned short> wide(static_cast<size_t>(W) * 3, 1000);
    wide[W + 5] = 0;
    f.meanFilter(wide.data(), W, 3);
    f.medianFilter(wide.data(), W, 3);
    f.medianFilter2(wide.data(), W, 3);
    f.PixelFilter(wide.data(), W, 3, 1, 1);
    f.Bilateral_Filter(wide.data(), 1, 1.0, 50.0, W, 3);
    EdgeFilterMad(wide.data(), W, 3, 15);
    OkadaFilter(wide.data(), W, 3);
    for (unsigned short v : wide)
        ASSERT_LE(v, 1000);  // every value an average or a median of the input's
    EXPECT_GT(wide[W + 5], 800);  // the hole was averaged over on the way
    std::vector<unsigned short> tall(9 * 9, 400);
    f.BilateralFiter(tall.data(), 9, 9);
    const std::vector<unsigned short> before = tall;
    f.Bilateral_Filter(tall.data(), std::numeric_limits<int>::max(), 1.0, 1.0, 9, 9);
    EXPECT_EQ(tall, before);  // a radius beyond the limit leaves the image as it was
}

}  // namespace
