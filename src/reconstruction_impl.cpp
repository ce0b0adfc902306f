#include "reconstruction_impl.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "calibration/calibration_tables.h"
#include "calibration/default_calibration.h"
#include "calibration/rectify_map.h"
#include "calibration/undistort.h"
#include "registration/rgbd_geometry.h"

namespace qvapi {

Reconstruction* Reconstruction::m_instance = nullptr;

std::mutex& ParamMutex()
{
    static std::mutex mutex;
    return mutex;
}

Reconstruction* Reconstruction::CreateInstance()
{
    // One object per process. The static's initialisation is thread-safe, so two
    // first calls at once still create a single instance.
    static Reconstruction* const instance =
        m_instance != nullptr ? m_instance : (m_instance = new ReconstructionImpl());
    return instance;
}

ReconstructionImpl::ReconstructionImpl() = default;

// ---------------------------------------------------------------- version

void ReconstructionImpl::GetAlgorithmVersion(std::string& version)
{
    constexpr int kMajor = 0, kMinor = 1, kPatch = 3;
    constexpr const char* kStamp = "202207301328";
    char text[64];
    std::snprintf(text, sizeof text, "v%d.%d.%d_%s", kMajor, kMinor, kPatch, kStamp);
    version = text;
}

// ---------------------------------------------------------------- configuration

void ReconstructionImpl::SetType(DeviceType device, StreamType stream)
{
    m_deviceType = device;
    m_streamType = stream;
    m_secondParam = DefaultCalibration(device, stream);
    m_firstParam = m_secondParam;
}

void ReconstructionImpl::Pb2Structrue(Intrinsics& depth, Intrinsics& rgb,
                                      CameraCalibrationParam param)
{
    // The depth size is that of the images the instance produces now; the colour
    // size is the calibration's.
    depth = param.depthLens;
    depth.reserved0 = 0;
    depth.reserved1 = 0;
    depth.width = m_width;
    depth.height = m_height;
    rgb = param.rgbLens;
    rgb.reserved0 = 0;
    rgb.reserved1 = 0;
}

void ReconstructionImpl::GetCustomDistanceRange(int& min, int& max)
{
    min = m_customMinDistance;
    max = m_customMaxDistance;
}

void ReconstructionImpl::SetCustomDistanceRange(int32_t min, int32_t max)
{
    m_customMinDistance = min;
    m_customMaxDistance = max;
}

void ReconstructionImpl::GetDistanceRange(int& min, int& max)
{
    // The device's fixed working range, whatever the configuration.
    min = 0;
    max = 7500;
}

void ReconstructionImpl::SetFlipMode(FlipMode mode) { m_flipMode = mode; }
void ReconstructionImpl::OpenFilter(bool on) { m_filterOn = on; }
void ReconstructionImpl::GetFilterStatu(bool& on) { on = m_filterOn; }

// ---------------------------------------------------------------- lifecycle

int32_t ReconstructionImpl::Release()
{
    std::lock_guard<std::mutex> lock(ParamMutex());
    if (m_initialized) {
        m_width = 0;
        m_height = 0;
        ReleaseBuffers();
    }
    return STATUS_OK;
}

void ReconstructionImpl::ReleaseBuffers()
{
    m_tableWidth = 0;
    m_tableHeight = 0;
    m_fppnOffset.reset();
    m_fppnOffset2.reset();
    m_fppnOffsetInt.reset();
    m_fppnOffset2Int.reset();
    m_depthWork1.reset();
    m_depthWork2.reset();
    m_depthWork3.reset();
    m_rectifyMapX.reset();
    m_rectifyMapY.reset();
    m_rgbRayX.reset();
    m_rgbRayY.reset();
    m_rgbRayScale.reset();
    m_radialToZ.reset();
    m_fppnOffsetHalf.reset();
    m_fppnOffset2Half.reset();
    m_radialToZHalf.reset();
    m_freqParam[0] = FrequencyParam{};
    m_freqParam[1] = FrequencyParam{};
    m_initialized = false;
}

// ---------------------------------------------------------------- calibration ingest

int32_t ReconstructionImpl::Init(CameraCalibrationParam first, CameraCalibrationParam second)
{
    std::lock_guard<std::mutex> lock(ParamMutex());
    if (m_initialized) {
        m_width = 0;
        m_height = 0;
        ReleaseBuffers();
    }
    std::string version;
    GetAlgorithmVersion(version);
    try {
        BuildTables(first, second);
    } catch (...) {
        // An allocation or OpenCV failure leaves the instance released, with
        // nothing half-built; the lock is released by its guard.
        ReleaseBuffers();
        throw;
    }
    return STATUS_OK;
}

void ReconstructionImpl::BuildTables(const CameraCalibrationParam& first,
                                     const CameraCalibrationParam& second)
{
    const bool reduced = m_streamType == STREAM_SINGLE_FREQ;
    const int W = reduced ? 320 : 640;
    const int H = reduced ? 240 : 480;
    const size_t N = static_cast<size_t>(W) * H;
    const size_t colourN = static_cast<size_t>(kColourWidth) * kColourHeight;
    const int32_t f1 = reduced ? 40000000 : 80000000;
    const int32_t f2 = reduced ? 40000000 : 100000000;

    m_fppnOffset.reset(new float[N]);
    m_fppnOffset2.reset(new float[N]);
    m_fppnOffsetInt.reset(new uint16_t[N]);
    m_fppnOffset2Int.reset(new uint16_t[N]);
    m_depthWork1.reset(new uint16_t[N]);
    m_depthWork2.reset(new uint16_t[N]);
    m_rectifyMapX.reset(new float[N]);
    m_rectifyMapY.reset(new float[N]);
    // The colour ray tables start at zero, so that a calibration without a colour
    // lens leaves defined (zero) rays rather than stale memory.
    m_rgbRayX.reset(new float[colourN]());
    m_rgbRayY.reset(new float[colourN]());
    m_depthWork3.reset(new uint16_t[N]());

    m_secondParam = second;
    m_firstParam = first;
    m_workParam = second;
    m_binning = 1;

    const CameraCalibrationParam& p = m_workParam;
    m_freqParam[0] = MakeFrequencyParam(
        f1, {p.depthOffsetF1, true, p.tableCountF1, p.tableF1, p.fppnF1, p.coefF1, &p.label});
    m_freqParam[1] = MakeFrequencyParam(
        f2, {p.depthOffsetF2, false, p.tableCountF2, p.tableF2, p.fppnF2, p.coefF2, &p.label});

    m_tableWidth = W;
    m_tableHeight = H;
    CalculateRectifyMap(m_rectifyMapX.get(), m_rectifyMapY.get());

    const float step = static_cast<float>(m_binning) * 0.01f;
    BuildFppnTable(m_freqParam[0].fppn, W, H, step, m_fppnOffset.get(), m_fppnOffsetInt.get());
    BuildFppnTable(m_freqParam[1].fppn, W, H, step, m_fppnOffset2.get(), m_fppnOffset2Int.get());

    m_radialToZ.reset(new float[N]);
    m_rgbRayScale.reset(new float[colourN]());
    BuildRadialToZ(m_rectifyMapX.get(), m_rectifyMapY.get(), N, m_radialToZ.get());
    const Intrinsics& rgb = p.rgbLens;
    if (rgb.cx != 0.0f && rgb.cy != 0.0f && rgb.fx != 0.0f && rgb.fy != 0.0f)
        BuildColourRays(rgb.fx, rgb.fy, rgb.cx, rgb.cy, kColourWidth, kColourHeight,
                        m_rgbRayX.get(), m_rgbRayY.get(), m_rgbRayScale.get());

    m_fppnOffsetHalf.reset(new uint16_t[N / 4]);
    m_fppnOffset2Half.reset(new uint16_t[N / 4]);
    m_radialToZHalf.reset(new float[N / 4]);
    Decimate2x2(m_fppnOffsetInt.get(), W, H, m_fppnOffsetHalf.get());
    Decimate2x2(m_fppnOffset2Int.get(), W, H, m_fppnOffset2Half.get());
    Decimate2x2(m_radialToZ.get(), W, H, m_radialToZHalf.get());

    GetRgbdRt();

    m_initialized = true;
    if (p.depthLens.width == 320)
        m_binning = 2;
    else
        m_binning = 1;

    const DualFreqConstants k =
        MakeDualFreqConstants(f1, f2, m_freqParam[0].rangeMm, m_freqParam[1].rangeMm);
    m_rangeF1 = k.rangeF1;
    m_rangeF2 = k.rangeF2;
    m_ratioF1 = k.ratioF1;
    m_ratioF2 = k.ratioF2;
    m_maxRangeMm = k.maxRangeMm;
    m_invRangeF1 = k.invRangeF1;
    m_invRangeF2 = k.invRangeF2;
    m_offsetF1 = m_freqParam[0].depthOffset;
    m_offsetF2 = m_freqParam[1].depthOffset;
}

void ReconstructionImpl::CalculateRectifyMap(float* mapX, float* mapY)
{
    // The map size is the stream's, whatever the lens block says.
    const bool reduced = m_streamType == STREAM_SINGLE_FREQ;
    const int rounds = m_deviceType == DEVICE_TYPE_4 ? 4 : 0;
    ComputeRectifyMap(LensOf(m_workParam.depthLens), reduced ? 320 : 640, reduced ? 240 : 480,
                      rounds, mapX, mapY);
}

LensModel ReconstructionImpl::UndistortLens(bool isDepth) const
{
    if (isDepth)
        return LensOf(m_workParam.depthLens);
    return m_workParam.rgbLens.fx != 0.0f ? LensOf(m_workParam.rgbLens) : kDefaultColourLens;
}

void ReconstructionImpl::Undistort(const uint16_t* src, int width, int height, uint16_t* dst,
                                   bool isDepth)
{
    if (src == nullptr || dst == nullptr || width <= 0 || height <= 0)
        return;
    UndistortWords(UndistortLens(isDepth), src, width, height, isDepth ? 1 : 3, dst);
}

void ReconstructionImpl::Undistort(cv::Mat src, int width, int height, cv::Mat dst, bool isDepth)
{
    // Both images must hold width x height 8-bit three-channel pixels.
    const auto fits = [width, height](const cv::Mat& m) {
        return m.type() == CV_8UC3 && m.cols >= width && m.rows >= height;
    };
    if (width <= 0 || height <= 0 || !fits(src) || !fits(dst))
        return;
    UndistortBgr8(UndistortLens(isDepth), src.data, src.step, dst.data, dst.step, width, height);
}

void ReconstructionImpl::GetRgbdRt()
{
    RgbdGeometry g = ComputeRgbdGeometry(m_workParam);
    std::copy(std::begin(g.depthToColor), std::end(g.depthToColor), m_depthToColorMatrix);
    m_depthUndistortMapX = g.depthMapX;
    m_depthUndistortMapY = g.depthMapY;
    m_colorUndistortMapX = g.colorMapX;
    m_colorUndistortMapY = g.colorMapY;
}

// ---------------------------------------------------------------- not built yet

int32_t ReconstructionImpl::GetCloudPoint(const uint16_t*, float*, int32_t, int32_t)
{
    return STATUS_NOT_INITIALIZED;
}

int32_t ReconstructionImpl::GetIR(const uint16_t*, uint16_t*, int32_t, int32_t)
{
    return STATUS_NOT_INITIALIZED;
}

int32_t ReconstructionImpl::CalculateDepth(const uint16_t*, uint16_t**, int32_t, int32_t)
{
    return STATUS_NOT_INITIALIZED;
}

int32_t ReconstructionImpl::DoubleFreqDepth(const uint16_t*, const uint16_t*, uint16_t**, int&,
                                            int&)
{
    return STATUS_NOT_INITIALIZED;
}

void ReconstructionImpl::Convert2RGB(uint8_t**, uint16_t*, int32_t, int32_t) {}

int32_t ReconstructionImpl::MapDepthToRGB(uint8_t**, uint16_t**, uint8_t*, int32_t, int32_t, int&,
                                          int&)
{
    return STATUS_NOT_INITIALIZED;
}

void ReconstructionImpl::GetColorBar(uint8_t**, int&) {}

}  // namespace qvapi
