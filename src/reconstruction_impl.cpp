#include "reconstruction_impl.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>
#include <opencv2/imgproc.hpp>
#include <iterator>

#include "calibration/calibration_tables.h"
#include "calibration/default_calibration.h"
#include "calibration/rectify_map.h"
#include "calibration/undistort.h"
#include "colour/false_colour.h"
#include "common/numeric.h"
#include "depth/depth_filter.h"
#include "qvreconstruction/depth_filters.h"
#include "depth/dual_freq.h"
#include "depth/ir.h"
#include "depth/point_cloud.h"
#include "depth/single_freq.h"
#include "depth/temperature.h"
#include "depth/temperature_log.h"
#include "files/depth_files.h"
#include "registration/map_depth_to_rgb.h"
#include "registration/rgbd_geometry.h"

namespace qvapi {

Reconstruction* Reconstruction::m_instance = nullptr;

std::mutex& ParamMutex()
{
    static std::mutex mutex;
    return mutex;
}

namespace {

// The size of the last depth image the calling thread made, and the initialisation it
// was made under. DoubleFreqDepth reads its frame at this size: the caller sized that
// frame for its own image, whatever another thread converted since.
struct ThreadDepthImage {
    uint64_t generation = 0;
    int32_t width = 0, height = 0;
};
thread_local ThreadDepthImage t_lastImage;

// Initialisations are numbered across the process, so that an image made under one
// instance's tables never counts for another's.
uint64_t NextGeneration()
{
    static std::atomic<uint64_t> counter{0};
    return ++counter;
}

}  // namespace

void ReconstructionImpl::NoteDepthImage(int32_t width, int32_t height)
{
    m_width = width;
    m_height = height;
    t_lastImage = {m_generation, width, height};
}

Reconstruction* Reconstruction::CreateInstance()
{
    // One object per process. The static's initialisation is thread-safe, so two
    // first calls at once still create a single instance.
    static Reconstruction* const instance =
        m_instance != nullptr ? m_instance : (m_instance = new ReconstructionImpl());
    return instance;
}

ReconstructionImpl::ReconstructionImpl() : m_generation(NextGeneration()) {}

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
    // Under the lock: the depth paths copy the stored records and read both types.
    // A changed stream takes effect at the next Init; until then the calibrated frame
    // operations refuse to run (TablesStatus).
    std::lock_guard<std::mutex> lock(ParamMutex());
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
    {
        std::lock_guard<std::mutex> lock(ParamMutex());
        depth.width = m_width;
        depth.height = m_height;
    }
    rgb = param.rgbLens;
    rgb.reserved0 = 0;
    rgb.reserved1 = 0;
}

void ReconstructionImpl::GetCustomDistanceRange(int& min, int& max)
{
    std::lock_guard<std::mutex> lock(m_rangeMutex);
    min = m_customMinDistance;
    max = m_customMaxDistance;
}

void ReconstructionImpl::SetCustomDistanceRange(int32_t min, int32_t max)
{
    // The pair changes at once: a colouring running beside this call sees the old
    // range or the new one, never half of each.
    std::lock_guard<std::mutex> lock(m_rangeMutex);
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
    m_generation = NextGeneration();
    return STATUS_OK;
}

void ReconstructionImpl::ReleaseBuffers()
{
    m_tableWidth = 0;
    m_tableHeight = 0;
    m_tablesReduced = false;
    m_tableBinning = 1;
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
    m_registration.Release();
    m_freqParam[0] = FrequencyParam{};
    m_freqParam[1] = FrequencyParam{};
    for (int f = 0; f < 2; ++f)
        m_slopes[f] = WigglingSlopes(m_freqParam[f].table, m_slopeTable[f]) ? m_slopeTable[f] : nullptr;
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
    // Depth images made before this point no longer size DoubleFreqDepth's frame, and
    // the amplitude threshold, halved by every binned frame, starts afresh: the same
    // calibration converts the same frames the same way after every Init.
    m_generation = NextGeneration();
    m_amplitudeThreshold = kDefaultAmplitudeThreshold;
    std::string version;
    GetAlgorithmVersion(version);
    try {
        BuildTables(first, second);
    } catch (const cv::Exception&) {
        // OpenCV refused the calibration's geometry: the instance stays released.
        ReleaseBuffers();
        return STATUS_INVALID_ARGUMENT;
    } catch (...) {
        // An allocation failure leaves the instance released, with nothing
        // half-built, and propagates; the lock is released by its guard.
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
    for (int f = 0; f < 2; ++f)
        m_slopes[f] = WigglingSlopes(m_freqParam[f].table, m_slopeTable[f]) ? m_slopeTable[f] : nullptr;

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
    m_tablesReduced = reduced;
    if (p.depthLens.width == 320)
        m_binning = 2;
    else
        m_binning = 1;
    m_tableBinning = m_binning;

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
    m_registration.Prepare(m_colorUndistortMapX, m_colorUndistortMapY);
}

// ---------------------------------------------------------------- depth

int32_t ReconstructionImpl::TablesStatus() const
{
    if (!m_initialized)
        return STATUS_NOT_INITIALIZED;
    if ((m_streamType == STREAM_SINGLE_FREQ) != m_tablesReduced)
        return STATUS_STREAM_MISMATCH;  // SetType changed the stream after Init
    return STATUS_OK;
}

int32_t ReconstructionImpl::CheckSingleFreqFrame(int width, int height) const
{
    // Each side is bounded before the product is formed, so no size wraps.
    const int64_t tablePixels = int64_t(m_tableWidth) * m_tableHeight;
    if (width <= 0 || height <= 0 || width > tablePixels || height > tablePixels)
        return STATUS_INVALID_ARGUMENT;
    const int64_t pixels = int64_t(width) * height;
    if (pixels > tablePixels || 4 * pixels < kTemperatureWords)
        return STATUS_INVALID_ARGUMENT;
    return STATUS_OK;
}

int32_t ReconstructionImpl::CheckDualFreqFrame(int width, int height) const
{
    const int64_t tablePixels = int64_t(m_tableWidth) * m_tableHeight;
    if (width <= 0 || height <= 0 || width > tablePixels || height > tablePixels ||
        16 * int64_t(width) * height < kTemperatureWords)
        return STATUS_INVALID_ARGUMENT;
    // The furthest calibration position a pixel can address must lie in the tables.
    const int64_t b = width == 320 ? 2 : 1;
    const int64_t lastIndex = ((int64_t(height) - 1) * width * b + width - 1) * b;
    if (lastIndex >= tablePixels)
        return STATUS_INVALID_ARGUMENT;
    return STATUS_OK;
}

int32_t ReconstructionImpl::CalculateDepth(const uint16_t* raw, uint16_t** depth, int32_t width,
                                           int32_t height)
{
    {
        // A scoped lock, released on every return (the single-frequency path too, so
        // the next frame never waits on this one).
        std::lock_guard<std::mutex> lock(ParamMutex());
        if (const int32_t status = TablesStatus())
            return status;
        if (raw == nullptr || depth == nullptr)
            return STATUS_INVALID_ARGUMENT;
        if (m_streamType == STREAM_SINGLE_FREQ) {
            if (const int32_t status = CheckSingleFreqFrame(width, height))
                return status;
            NoteDepthImage(width, height);
            *depth = new uint16_t[static_cast<size_t>(width) * height];
            GetDepthSingleFreq(raw, *depth, width, height);
        } else if (const int32_t status = GetDepthFromDualFreqTagMode(raw, depth, width, height)) {
            return status;
        }
    }
    // The filters work on the caller's image alone.
    if (m_filterOn)
        FilterDepthFrame(*depth, width, height);
    return STATUS_OK;
}

int32_t ReconstructionImpl::DoubleFreqDepth(const uint16_t* frame1, const uint16_t* /*frame2*/,
                                            uint16_t** depth, int& width, int& height)
{
    // Single-frequency depth of the first frame at the size of the last depth image this
    // thread made since Init (for a single-threaded caller, the size Pb2Structrue
    // reports); the second frame is accepted and not read. A thread that made none
    // since Init is refused: no size it could have sized its frame for is known.
    std::lock_guard<std::mutex> lock(ParamMutex());
    if (const int32_t status = TablesStatus())
        return status;
    if (frame1 == nullptr || depth == nullptr)
        return STATUS_INVALID_ARGUMENT;
    if (t_lastImage.generation != m_generation)
        return STATUS_INVALID_ARGUMENT;
    const int w = t_lastImage.width, h = t_lastImage.height;
    if (const int32_t status = CheckSingleFreqFrame(w, h))
        return status;
    width = w;
    height = h;
    NoteDepthImage(w, h);
    m_binning = w == 320 ? 2 : 1;
    *depth = new uint16_t[static_cast<size_t>(w) * h];
    return GetDepthSingleFreq(frame1, *depth, w, h);
}

int ReconstructionImpl::GetDepthSingleFreq(const uint16_t* raw, uint16_t* depth, int width,
                                           int height)
{
    const FrequencyParam& f = m_freqParam[0];
    const SingleFreqParams params{f.phaseToMm,  f.depthOffset, f.rangeMm,
                                  f.tableStep,  f.tableCount,  f.table,
                                  m_amplitudeThreshold, m_deviceType != DEVICE_TYPE_4};
    ConvertSingleFreq(raw, depth, width, height, width, params, m_fppnOffset.get(), m_radialToZ.get());
    return 0;
}

int ReconstructionImpl::GetDepthFromDualFreqTagMode(const uint16_t* raw, uint16_t** depth,
                                                    int width, int height)
{
    if (!m_initialized)
        return STATUS_NOT_INITIALIZED;
    if (const int32_t status = CheckDualFreqFrame(width, height))
        return status;
    NoteDepthImage(width, height);
    if (width != 320) {
        m_workParam = m_secondParam;
        m_binning = 1;
    } else {
        // Binned frames: the binned record, and a threshold halved on every such frame.
        m_binning = 2;
        m_workParam = m_firstParam;
        m_amplitudeThreshold /= 2;
    }
    *depth = new uint16_t[static_cast<size_t>(width) * height];

    const FrequencyParam& a = m_freqParam[0];
    const FrequencyParam& b = m_freqParam[1];
    const DualFreqParams params{a.frequency,      b.frequency,      a.rangeMm,
                                b.rangeMm,        a.phaseToMm,      b.phaseToMm,
                                a.depthOffset,    b.depthOffset,    b.tableStep,
                                a.table,          b.table,          m_slopes[0],
                                m_slopes[1],      m_amplitudeThreshold,
                                m_deviceType != DEVICE_TYPE_4,      m_flipMode.load(),
                                m_binning};
    DualFreqLast last{m_lastDistance1, m_lastDistance2};
    ConvertDualFreq(raw, *depth, width, height, params, m_fppnOffset.get(), m_fppnOffset2.get(),
                    m_radialToZ.get(), last);
    m_lastDistance1 = last.distance1;
    m_lastDistance2 = last.distance2;
    return STATUS_OK;
}

int32_t ReconstructionImpl::GetIR(const uint16_t* raw, uint16_t* image, int32_t width,
                                  int32_t height)
{
    // Needs no calibration: works in every state, for frames the sensor can deliver.
    if (raw == nullptr || image == nullptr || width <= 0 || height <= 0 ||
        width > kMaxFrameWidth || height > kMaxFrameHeight)
        return STATUS_INVALID_ARGUMENT;
    MakeInfraredImage(raw, image, width, height);
    return STATUS_OK;
}

// ---------------------------------------------------------------- points and colour

int32_t ReconstructionImpl::GetCloudPoint(const uint16_t* depth, float* points, int32_t width,
                                          int32_t height)
{
    // Under the lock for the whole run: Init and Release wait until the rays are read.
    std::lock_guard<std::mutex> lock(ParamMutex());
    if (const int32_t status = TablesStatus())
        return status;
    if (depth == nullptr || points == nullptr || width <= 0 || height <= 0)
        return STATUS_INVALID_ARGUMENT;
    // Images 1920 wide or 1080 high are registered to the colour camera. The image's
    // own size, not the last depth frame, decides the scale at which it reads the rays
    // (2 for binned frames of the full sensor) and the corner cut; in the reduced
    // stream the cut follows the calibration's read-out, as Init left the binning.
    const bool colour = width == kColourWidth || height == kColourHeight;
    const int scale = colour ? PointCloudScale(width, height, kColourWidth, kColourHeight, false)
                             : PointCloudScale(width, height, m_tableWidth, m_tableHeight,
                                               !m_tablesReduced);
    if (scale == 0)
        return STATUS_INVALID_ARGUMENT;
    const int cut = PointCloudCut(m_tablesReduced ? m_tableBinning : scale, m_tablesReduced);
    const float* rayX = colour ? m_rgbRayX.get() : m_rectifyMapX.get();
    const float* rayY = colour ? m_rgbRayY.get() : m_rectifyMapY.get();
    MakePointCloud(depth, width, height, scale, cut, rayX, rayY, points);
    return STATUS_OK;
}

void ReconstructionImpl::Convert2RGB(uint8_t** image, uint16_t* depth, int32_t width,
                                     int32_t height)
{
    // Needs no calibration. A call that cannot be served leaves *image untouched:
    // depth images are at most the colour camera's size.
    if (image == nullptr || depth == nullptr || width <= 0 || height <= 0 ||
        int64_t(width) * height > int64_t(kColourWidth) * kColourHeight)
        return;
    int32_t lo, hi;
    GetCustomDistanceRange(lo, hi);
    const size_t n = static_cast<size_t>(width) * height;
    *image = new uint8_t[3 * n];
    PaintFalseColour(depth, n, lo, hi, *image);
}

void ReconstructionImpl::GetColorBar(uint8_t** bar, int& count)
{
    if (bar == nullptr)
        return;
    *bar = new uint8_t[sizeof color_map];
    std::memcpy(*bar, color_map, sizeof color_map);
    count = 360;
}

int32_t ReconstructionImpl::MapDepthToRGB(uint8_t** image, uint16_t** depth, uint8_t* nv12,
                                          int32_t colorWidth, int32_t colorHeight, int& width,
                                          int& height)
{
    std::lock_guard<std::mutex> lock(ParamMutex());
    if (const int32_t status = TablesStatus())
        return status;
    // The colour undistortion maps are built for 1920 x 1080; the depth frame is
    // 640 x 480 and needs the full stream's ray tables.
    if (image == nullptr || depth == nullptr || *depth == nullptr || nv12 == nullptr ||
        colorWidth != kColourWidth || colorHeight != kColourHeight)
        return STATUS_INVALID_ARGUMENT;
    if (m_tablesReduced)
        return STATUS_STREAM_MISMATCH;
    // The depth image is read as 640 x 480. After a binned frame the image a caller
    // holds is 320 x 240, so the call is refused until the next 640 x 480 frame (or Init).
    if ((m_width != 0 || m_height != 0) && (m_width != 640 || m_height != 480))
        return STATUS_INVALID_ARGUMENT;

    NoteDepthImage(640, 480);
    // Reference depth at the frame's centre; a fallback of 0 is not stored.
    const bool fallbackFromRecord = m_workParam.vectorCount >= 6;
    const int32_t reference = CentreReferenceDepth(
        *depth, fallbackFromRecord ? TruncToInt(m_workParam.vector[3]) : 2000);
    if ((reference & 0xFFFF) != 0)
        m_centerDepth = static_cast<int16_t>(reference);

    // Both outputs exist before the caller's depth buffer is released, so a failed
    // allocation leaves the caller's pointers as they were.
    const size_t n = static_cast<size_t>(colorWidth) * colorHeight;
    std::unique_ptr<uint8_t[]> colourOut(new uint8_t[3 * n]);
    std::unique_ptr<uint16_t[]> depthOut(new uint16_t[n]);
    m_registration.Register(nv12, colorWidth, colorHeight, *depth, m_rectifyMapX.get(),
                            m_rectifyMapY.get(), MakeRegistrationParams(m_workParam), colourOut.get(),
                            depthOut.get());
    delete[] *depth;
    *depth = depthOut.release();
    *image = colourOut.release();
    width = colorWidth;
    height = colorHeight;
    return STATUS_OK;
}

// ---------------------------------------------------------------- post-filters and recorder

void ReconstructionImpl::EdgeFilterMad(uint16_t* depth)
{
    qvapi::EdgeFilterMad(depth, m_width, m_height, m_madThreshold);
}

void ReconstructionImpl::OkadaFilter(uint16_t* depth) { qvapi::OkadaFilter(depth, m_width, m_height); }

void ReconstructionImpl::SpeckleFilter(uint16_t* depth, int maxSpeckleSize, int maxDiff)
{
    qvapi::SpeckleFilter(depth, m_width, m_height, maxSpeckleSize, maxDiff);
}

void ReconstructionImpl::TemperatureTest(const uint16_t* raw, uint16_t* depth)
{
    if (!m_tempLogFile.is_open())
        m_tempLogFile.open(m_tempLogPath.empty() ? kDefaultTemperatureLog : m_tempLogPath.c_str(),
                           std::ios::out);
    // An interval below 1 records every frame rather than dividing by zero.
    const int32_t interval = m_tempLogInterval > 0 ? m_tempLogInterval : 1;
    if (m_tempLogCounter % interval == 0 && raw != nullptr && depth != nullptr) {
        const std::string line = TemperatureLogLine(raw, depth, m_width, m_height, m_lastDistance1,
                                                    m_lastDistance2, GetCurrentTime2Str());
        m_tempLogFile << line << std::flush;
    }
    ++m_tempLogCounter;
}

std::string ReconstructionImpl::GetCurrentTime2Str() { return LocalTimeStamp(); }

// ---------------------------------------------------------------- files

int ReconstructionImpl::SaveDepth(uint16_t* depth, std::string path)
{
    const size_t n = static_cast<size_t>(std::max(m_width, 0)) * std::max(m_height, 0);
    return WriteRawDepth(depth, n, path);
}

void ReconstructionImpl::SavePointCloud(float* cloud, std::string path)
{
    const std::string name = path + "_" + std::to_string(m_plyFileCounter) + ".ply";
    ++m_plyFileCounter;
    WritePly(cloud, std::max(m_width, 0), std::max(m_height, 0), name);
}

void ReconstructionImpl::SaveCloudPoint(uint16_t* depth, std::string path)
{
    const size_t n = static_cast<size_t>(std::max(m_width, 0)) * std::max(m_height, 0);
    std::vector<float> cloud(3 * n, 0.0f);
    // Through the interface, as a derived implementation would expect. With no depth
    // image yet (0 x 0) there are no points to ask for: the files are written empty.
    Reconstruction& self = *this;
    if (n > 0 && self.GetCloudPoint(depth, cloud.data(), m_width, m_height) != STATUS_OK)
        return;
    SaveDepth(depth, path + ".raw");
    SavePointCloud(cloud.data(), path);
}

}  // namespace qvapi
