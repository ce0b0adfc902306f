// Calibration ingest: derived constants, per-pixel tables and the rebuild on a second Init.
#include <cmath>
#include <memory>

#include <gtest/gtest.h>

#include "reconstruction_impl.h"
#include "sample_calibration.h"

namespace {

using namespace qvapi;

std::unique_ptr<ReconstructionImpl> Initialised(DeviceType device, StreamType stream,
                                                const CameraCalibrationParam& full)
{
    auto r = std::make_unique<ReconstructionImpl>();
    r->SetType(device, stream);
    EXPECT_EQ(r->Init(qvsim::SampleBinnedCalibration(), full), STATUS_OK);
    return r;
}

TEST(Init, FullStreamConstantsAndFrequencySets)
{
    CameraCalibrationParam cal = qvsim::SampleCalibration();
    cal.depthOffsetF1 = 0.012f;  // metres
    cal.depthOffsetF2 = 0.012f;  // always mm
    cal.coefF2[3] = 9.5f;
    auto r = Initialised(DEVICE_GENERIC, STREAM_DUAL_FREQ, cal);
    const FrequencyParam& a = r->m_freqParam[0];
    const FrequencyParam& b = r->m_freqParam[1];
    EXPECT_TRUE(r->m_initialized);
    EXPECT_EQ(a.frequency, 80000000);
    EXPECT_EQ(b.frequency, 100000000);
    EXPECT_EQ(a.rangeMm, 1875);
    EXPECT_EQ(b.rangeMm, 1500);
    EXPECT_NEAR(a.phaseToMm, 298.4155f, 1e-3f);
    EXPECT_NEAR(b.phaseToMm, 238.7324f, 1e-3f);
    EXPECT_FLOAT_EQ(a.depthOffset, 12.0f);
    EXPECT_FLOAT_EQ(b.depthOffset, 0.012f);
    EXPECT_EQ(a.tableCount, 39);
    EXPECT_FLOAT_EQ(a.tableStep, 0.02f);
    EXPECT_EQ(a.table[17], cal.tableF1[17]);
    EXPECT_EQ(b.table[30], cal.tableF2[30]);
    EXPECT_EQ(b.coef[3], 9.5f);
    EXPECT_EQ(a.fppn[5], cal.fppnF1[5]);
    EXPECT_EQ(a.label, cal.label);
    EXPECT_EQ(b.label, cal.label);

    EXPECT_EQ(r->m_maxRangeMm, 7500);
    EXPECT_EQ(r->m_ratioF1, -4.0f);
    EXPECT_EQ(r->m_ratioF2, -5.0f);
    EXPECT_EQ(r->m_rangeF1, 1875.0f);
    EXPECT_EQ(r->m_rangeF2, 1500.0f);
    EXPECT_FLOAT_EQ(r->m_invRangeF1, 1.0f / 1875);
    EXPECT_FLOAT_EQ(r->m_invRangeF2, 1.0f / 1500);
    EXPECT_FLOAT_EQ(r->m_offsetF1, 12.0f);
    EXPECT_FLOAT_EQ(r->m_offsetF2, 0.012f);
    EXPECT_EQ(r->m_binning, 1);
    EXPECT_EQ(r->m_tableWidth, 640);
    EXPECT_EQ(r->m_tableHeight, 480);

    // Records copied; the defaults of SetType do not survive.
    EXPECT_EQ(r->m_secondParam.depthOffsetF2, 0.012f);
    EXPECT_EQ(r->m_workParam.coefF2[3], 9.5f);
    EXPECT_EQ(r->m_firstParam.depthLens.width, 320);
}

TEST(Init, OffsetsTableStepsAndCounts)
{
    struct Case {
        float offset1;
        int count1, count2;
        float expectOffset, expectStep1, expectStep2;
    } cases[] = {
        {150.0f, 21, 20, 150.0f, 0.02f, 0.01f},
        {-99.5f, 0, 256, -99500.0f, 0.01f, 0.02f},
        {-100.0f, 257, -1, -100.0f, 0.02f, 0.01f},  // absurd counts: nothing read past the table
    };
    for (const Case& c : cases) {
        CameraCalibrationParam cal = qvsim::SampleCalibration();
        cal.depthOffsetF1 = c.offset1;
        cal.tableCountF1 = c.count1;
        cal.tableCountF2 = c.count2;
        auto r = Initialised(DEVICE_GENERIC, STREAM_DUAL_FREQ, cal);
        EXPECT_FLOAT_EQ(r->m_freqParam[0].depthOffset, c.expectOffset);
        EXPECT_EQ(r->m_freqParam[0].tableStep, c.expectStep1);
        EXPECT_EQ(r->m_freqParam[1].tableStep, c.expectStep2);
        EXPECT_EQ(r->m_freqParam[0].tableCount, c.count1);
        if (c.count1 == 0) {
            EXPECT_EQ(r->m_freqParam[0].table[0], 0.0f);  // nothing copied
        }
    }
}

TEST(Init, ReducedStreamWithEqualFrequenciesDoesNotFault)
{
    auto r = Initialised(DEVICE_TYPE_4, STREAM_SINGLE_FREQ, qvsim::SampleCalibration());
    EXPECT_EQ(r->m_freqParam[0].frequency, 40000000);
    EXPECT_EQ(r->m_freqParam[1].frequency, 40000000);
    EXPECT_EQ(r->m_freqParam[0].rangeMm, 3750);
    EXPECT_NEAR(r->m_freqParam[0].phaseToMm, 596.831f, 1e-2f);
    EXPECT_EQ(r->m_ratioF1, 0.0f);
    EXPECT_EQ(r->m_ratioF2, 0.0f);
    EXPECT_EQ(r->m_maxRangeMm, 0);
    EXPECT_EQ(r->m_rangeF1, 3750.0f);
    EXPECT_EQ(r->m_tableWidth, 320);
    EXPECT_EQ(r->m_tableHeight, 240);
    // The registration maps keep their fixed sizes in every stream.
    EXPECT_EQ(r->m_depthUndistortMapX.rows, 480);
    EXPECT_EQ(r->m_depthUndistortMapX.cols, 640);
    EXPECT_EQ(r->m_colorUndistortMapY.rows, 1080);
    EXPECT_EQ(r->m_colorUndistortMapY.cols, 1920);
    EXPECT_EQ(r->m_colorUndistortMapX.type(), CV_32FC1);
}

TEST(Init, PerPixelTables)
{
    CameraCalibrationParam cal = qvsim::SampleCalibration();
    cal.depthLens.width = 320;  // binned module: binning 2, tables still at s = 0.01
    auto r = Initialised(DEVICE_GENERIC, STREAM_DUAL_FREQ, cal);
    EXPECT_EQ(r->m_binning, 2);
    const int W = 640, H = 480;
    const float* c = cal.fppnF2;
    for (int row : {0, 17, 240, 479}) {
        for (int col : {0, 333, 639}) {
            const size_t i = static_cast<size_t>(row) * W + col;
            const double x = col * 0.01, y = row * 0.01;
            const double expect =
                (c[0] + c[1] * x + c[2] * y + c[3] * x * x + c[4] * x * y + c[5] * y * y) * 100.0;
            EXPECT_NEAR(r->m_fppnOffset2[i], expect, 1e-3);
            EXPECT_EQ(r->m_fppnOffset2Int[i], static_cast<uint16_t>(static_cast<int>(r->m_fppnOffset2[i])));
        }
    }
    // Radial-to-Z against the exact reciprocal square root over the whole table.
    double worst = 0;
    for (int i = 0; i < W * H; ++i) {
        const double x = r->m_rectifyMapX[i], y = r->m_rectifyMapY[i];
        const double exact = 1.0 / std::sqrt(x * x + y * y + 1.0);
        worst = std::max(worst, std::fabs(r->m_radialToZ[i] - exact) / exact);
    }
    EXPECT_LT(worst, 1e-6);
    // Colour rays, pinhole through the colour lens.
    const Intrinsics& l = cal.rgbLens;
    const size_t j = 700 * 1920 + 1500;
    EXPECT_FLOAT_EQ(r->m_rgbRayX[j], (1500 - l.cx) / l.fx);
    EXPECT_FLOAT_EQ(r->m_rgbRayY[j], (700 - l.cy) / l.fy);
    const double rx = r->m_rgbRayX[j], ry = r->m_rgbRayY[j];
    EXPECT_NEAR(r->m_rgbRayScale[j], 1.0 / std::sqrt(rx * rx + ry * ry + 1), 1e-7);
    // Half-resolution copies take the top-left sample of each 2 x 2 block.
    for (int row : {0, 100, 239}) {
        for (int col : {0, 201, 319}) {
            const size_t half = static_cast<size_t>(row) * 320 + col;
            const size_t full = static_cast<size_t>(2 * row) * W + 2 * col;
            EXPECT_EQ(r->m_fppnOffsetHalf[half], r->m_fppnOffsetInt[full]);
            EXPECT_EQ(r->m_fppnOffset2Half[half], r->m_fppnOffset2Int[full]);
            EXPECT_EQ(r->m_radialToZHalf[half], r->m_radialToZ[full]);
        }
    }
    for (int i = 0; i < W * H; i += 997)
        EXPECT_EQ(r->m_depthWork3[i], 0);
}

TEST(Init, IncompleteColourLensLeavesColourRaysUnfilled)
{
    CameraCalibrationParam cal = qvsim::SampleCalibration();
    cal.rgbLens.cy = 0.0f;
    auto r = Initialised(DEVICE_GENERIC, STREAM_DUAL_FREQ, cal);
    EXPECT_TRUE(r->m_initialized);
    for (size_t j : {size_t{0}, size_t{1920 * 540 + 960}, size_t{1920 * 1080 - 1}}) {
        EXPECT_EQ(r->m_rgbRayX[j], 0.0f);
        EXPECT_EQ(r->m_rgbRayScale[j], 0.0f);
    }
}

TEST(Init, SecondInitReleasesAndRebuildsForTheNewStream)
{
    auto r = Initialised(DEVICE_GENERIC, STREAM_DUAL_FREQ, qvsim::SampleCalibration());
    r->m_width = 640;
    r->SetType(DEVICE_GENERIC, STREAM_SINGLE_FREQ);
    CameraCalibrationParam cal = qvsim::SampleCalibration();
    cal.label = "second";
    ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(), cal), STATUS_OK);
    EXPECT_EQ(r->m_width, 0);  // released first
    EXPECT_EQ(r->m_tableWidth, 320);
    EXPECT_EQ(r->m_freqParam[1].label, "second");
    EXPECT_EQ(r->m_freqParam[1].frequency, 40000000);
    // The reduced maps are pinhole coordinates at 320 x 240 from the same lens block.
    const float invFx = 1.0f / cal.depthLens.fx;
    EXPECT_EQ(r->m_rectifyMapX[239 * 320 + 319], (319 - cal.depthLens.cx) * invFx);

    EXPECT_EQ(r->Release(), STATUS_OK);
    EXPECT_FALSE(r->m_initialized);
    EXPECT_EQ(r->m_radialToZ, nullptr);
    EXPECT_EQ(r->m_rgbRayScale, nullptr);
    EXPECT_EQ(r->m_freqParam[0].frequency, 0);
    EXPECT_TRUE(r->m_freqParam[0].label.empty());
    EXPECT_EQ(r->Init(qvsim::SampleBinnedCalibration(), cal), STATUS_OK);
}

}  // namespace
