#include "reconstruction_impl.h"

#include <cstdio>

#include "calibration/default_calibration.h"

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
    ReleaseBuffers();
    return STATUS_OK;
}

void ReconstructionImpl::ReleaseBuffers()
{
    if (!m_initialized)
        return;
    m_width = 0;
    m_height = 0;
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

// ---------------------------------------------------------------- not built yet

int32_t ReconstructionImpl::Init(CameraCalibrationParam, CameraCalibrationParam)
{
    return STATUS_NOT_INITIALIZED;
}

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
