// The instance: lifecycle, accessors, SetType defaults, records and the version text.
#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "reconstruction_impl.h"

namespace {

using namespace qvapi;

ReconstructionImpl& Instance()
{
    return *static_cast<ReconstructionImpl*>(Reconstruction::CreateInstance());
}

bool SameRecord(const CameraCalibrationParam& a, const CameraCalibrationParam& b)
{
    // Every field but the text is plain data; compare the bytes around the text.
    const auto* pa = reinterpret_cast<const unsigned char*>(&a);
    const auto* pb = reinterpret_cast<const unsigned char*>(&b);
    const size_t textEnd = offsetof(CameraCalibrationParam, depthLens);
    return a.label == b.label && std::memcmp(pa, pb, offsetof(CameraCalibrationParam, label)) == 0 &&
           std::memcmp(pa + textEnd, pb + textEnd, sizeof(CameraCalibrationParam) - textEnd) == 0;
}

TEST(Instance, OneObjectWithItsDefaultsAndAccessorsInEveryState)
{
    Reconstruction* first = Reconstruction::CreateInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, Reconstruction::CreateInstance());

    ReconstructionImpl& r = Instance();
    EXPECT_FALSE(r.m_initialized);
    EXPECT_EQ(r.m_amplitudeThreshold, 5);
    EXPECT_EQ(r.m_madThreshold, 15);
    EXPECT_EQ(r.m_reservedThreshold, 200);
    EXPECT_EQ(r.m_tempLogInterval, 60);
    EXPECT_TRUE(r.m_tempLogPath.empty());
    EXPECT_FALSE(r.m_tempLogFile.is_open());
    EXPECT_EQ(r.m_configA + r.m_configB + r.m_configC + r.m_configD + r.m_configE,
              60 + 2250 + 1800000 + 10000 + 120000);
    EXPECT_TRUE(r.m_colorUndistortMapX.empty() && r.m_depthUndistortMapY.empty());
    for (float v : r.m_depthToColorMatrix)
        EXPECT_EQ(v, 0.0f);
    EXPECT_EQ(r.m_centerDepth, 0);
    EXPECT_EQ(r.m_binning, 1);

    bool filter = false;
    int lo = -1, hi = -1;
    r.GetFilterStatu(filter);
    r.GetCustomDistanceRange(lo, hi);
    EXPECT_TRUE(filter);
    EXPECT_EQ(lo, 0);
    EXPECT_EQ(hi, 7500);

    // Stored as passed, unchecked and unordered; the device range never moves.
    r.SetCustomDistanceRange(500, 100);
    r.GetCustomDistanceRange(lo, hi);
    EXPECT_EQ(lo, 500);
    EXPECT_EQ(hi, 100);
    r.GetDistanceRange(lo, hi);
    EXPECT_EQ(lo, 0);
    EXPECT_EQ(hi, 7500);
    r.OpenFilter(false);
    r.GetFilterStatu(filter);
    EXPECT_FALSE(filter);
    r.SetFlipMode(static_cast<FlipMode>(7));
    EXPECT_EQ(r.m_flipMode, 7);

    // Release before Init changes nothing, twice.
    r.m_width = 33;
    EXPECT_EQ(r.Release(), 0);
    EXPECT_EQ(r.Release(), 0);
    EXPECT_EQ(r.m_width, 33);
    EXPECT_FALSE(r.m_initialized);
    r.m_width = 0;  // the object outlives the test: later tests expect a fresh one
}

TEST(Instance, SetTypeLoadsTheDefaultSetOfTheCombination)
{
    ReconstructionImpl& r = Instance();
    struct Case {
        int device, stream;
        float offset1, offset2;
    } cases[] = {
        {1, 0, -303.0f, -434.0f},
        {1, 5, -1502.333f, -1502.333f},
        {4, 5, -1926.0f, -1926.0f},
        {4, 0, -714.0f, -815.0f},
        {0, 0, -714.0f, -815.0f},
        {9, 5, -714.0f, -815.0f},
    };
    for (const Case& c : cases) {
        r.m_firstParam.label = "module 7";
        r.SetType(static_cast<DeviceType>(c.device), static_cast<StreamType>(c.stream));
        SCOPED_TRACE(testing::Message() << "device " << c.device << " stream " << c.stream);
        EXPECT_EQ(r.m_deviceType, c.device);
        EXPECT_EQ(r.m_streamType, c.stream);
        EXPECT_FLOAT_EQ(r.m_firstParam.depthOffsetF1, c.offset1);
        EXPECT_FLOAT_EQ(r.m_firstParam.depthOffsetF2, c.offset2);
        EXPECT_TRUE(SameRecord(r.m_firstParam, r.m_secondParam));
        EXPECT_TRUE(r.m_firstParam.label.empty());
        EXPECT_EQ(r.m_firstParam.tableCountF1, 39);
        EXPECT_EQ(r.m_firstParam.tableCountF2, 31);
        EXPECT_EQ(r.m_firstParam.rgbLens.fx, 0.0f);
        EXPECT_EQ(r.m_firstParam.depthLens.width, 0);
        EXPECT_GT(r.m_firstParam.depthLens.fx, 0.0f);
        EXPECT_EQ(r.m_firstParam.extrinsics[0], 0.0f);
        EXPECT_EQ(r.m_firstParam.vectorCount, 0);
    }
    // Four sets in all: the general module has one whatever the stream.
    r.SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    const CameraCalibrationParam general = r.m_secondParam;
    r.SetType(DEVICE_GENERIC, STREAM_SINGLE_FREQ);
    EXPECT_TRUE(SameRecord(general, r.m_secondParam));
    // Device 1 in the reduced stream carries exactly the float with bits C4BBCAA8.
    r.SetType(DEVICE_TYPE_1, STREAM_SINGLE_FREQ);
    uint32_t bits;
    std::memcpy(&bits, &r.m_secondParam.depthOffsetF1, 4);
    EXPECT_EQ(bits, 0xC4BBCAA8u);
}

TEST(Instance, Pb2StructrueReportsTheCurrentDepthSizeAndClearsReservedFields)
{
    ReconstructionImpl& r = Instance();
    CameraCalibrationParam p{};
    p.depthLens = Intrinsics{7, 8, 0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 500, 501, 320, 240, 640, 480};
    p.rgbLens = Intrinsics{9, 9, 1, 2, 3, 4, 5, 1000, 1001, 960, 540, 1920, 1080};
    Intrinsics depth{}, rgb{};
    r.Pb2Structrue(depth, rgb, p);
    EXPECT_EQ(depth.width, 0);  // fresh instance: no depth image yet
    EXPECT_EQ(depth.height, 0);
    EXPECT_EQ(depth.reserved0 | depth.reserved1 | rgb.reserved0 | rgb.reserved1, 0);
    EXPECT_EQ(depth.k1, 0.1f);
    EXPECT_EQ(depth.cy, 240.0f);
    EXPECT_EQ(rgb.fx, 1000.0f);
    EXPECT_EQ(rgb.width, 1920);
    EXPECT_EQ(rgb.height, 1080);

    r.m_width = 320;
    r.m_height = 240;
    r.Pb2Structrue(depth, rgb, p);
    EXPECT_EQ(depth.width, 320);
    EXPECT_EQ(depth.height, 240);
}

TEST(Instance, RecordCopyCopiesEveryEntryWhateverTheCounts)
{
    CameraCalibrationParam a{};
    a.label = "serial 42";
    a.tableCountF1 = 3;
    for (int i = 0; i < 256; ++i) {
        a.tableF1[i] = static_cast<float>(i);
        a.table3[i] = static_cast<float>(-i);
        a.vector[i] = 0.5f * i;
    }
    CameraCalibrationParam b{};
    b = a;
    EXPECT_TRUE(SameRecord(a, b));
    EXPECT_EQ(b.tableF1[255], 255.0f);
    EXPECT_EQ(b.vector[200], 100.0f);
}

TEST(Instance, VersionTextReplacesWhatTheStringHeld)
{
    std::string version = "something much longer than the version text itself";
    Instance().GetAlgorithmVersion(version);
    EXPECT_EQ(version, "v0.1.3_202207301328");
    std::string again;
    Instance().GetAlgorithmVersion(again);
    EXPECT_EQ(again, version);
}

}  // namespace
