// The one stateful class of the library. It validates calls, gathers the state that
// SetType and Init produced, and hands plain inputs to the kernels in src/*/.
#ifndef QVRECONSTRUCTION_SRC_RECONSTRUCTION_IMPL_H
#define QVRECONSTRUCTION_SRC_RECONSTRUCTION_IMPL_H

#include <atomic>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "calibration/lens_model.h"
#include "frequency_param.h"
#include "qvreconstruction/reconstruction.h"
#include "registration/registration.h"

namespace qvapi {

// Process-wide lock of the calibration-derived members: Init, the dual-frequency
// depth path, the single-frequency depth path and MapDepthToRGB hold it.
std::mutex& ParamMutex();

class ReconstructionImpl final : public Reconstruction {
public:
    ReconstructionImpl();
    ~ReconstructionImpl() = default;
    ReconstructionImpl(const ReconstructionImpl&) = delete;
    ReconstructionImpl& operator=(const ReconstructionImpl&) = delete;

    // The interface, in slot order.
    void GetAlgorithmVersion(std::string& version) override;
    void SetType(DeviceType device, StreamType stream) override;
    int32_t Init(CameraCalibrationParam first, CameraCalibrationParam second) override;
    int32_t GetCloudPoint(const uint16_t* depth, float* points, int32_t width,
                          int32_t height) override;
    int32_t GetIR(const uint16_t* raw, uint16_t* image, int32_t width, int32_t height) override;
    int32_t CalculateDepth(const uint16_t* raw, uint16_t** depth, int32_t width,
                           int32_t height) override;
    int32_t DoubleFreqDepth(const uint16_t* frame1, const uint16_t* frame2, uint16_t** depth,
                            int& width, int& height) override;
    void Convert2RGB(uint8_t** image, uint16_t* depth, int32_t width, int32_t height) override;
    int32_t MapDepthToRGB(uint8_t** image, uint16_t** depth, uint8_t* nv12, int32_t colorWidth,
                          int32_t colorHeight, int& width, int& height) override;
    void Pb2Structrue(Intrinsics& depth, Intrinsics& rgb, CameraCalibrationParam param) override;
    void GetCustomDistanceRange(int& min, int& max) override;
    void SetCustomDistanceRange(int32_t min, int32_t max) override;
    void GetDistanceRange(int& min, int& max) override;
    void GetColorBar(uint8_t** bar, int& count) override;
    void SetFlipMode(FlipMode mode) override;
    void OpenFilter(bool on) override;
    void GetFilterStatu(bool& on) override;

    // Frees everything Init allocated and returns to the configured state.
    QV_EXPORT int32_t Release();

    // Fills both maps (the stream's pixel count each) with the undistorted normalised
    // coordinates of every depth pixel, from m_workParam.depthLens.
    void CalculateRectifyMap(float* mapX, float* mapY);
    // Nearest-neighbour resampling through the forward lens model.
    void Undistort(const uint16_t* src, int width, int height, uint16_t* dst, bool isDepth);
    void Undistort(cv::Mat src, int width, int height, cv::Mat dst, bool isDepth);
    // Depth-to-colour geometry and both cameras' undistortion maps from m_workParam.
    void GetRgbdRt();

    // The depth converters, called with validated frames and the lock held; the
    // dual-frequency one checks the frame and allocates the output itself.
    int GetDepthSingleFreq(const uint16_t* raw, uint16_t* depth, int width, int height);
    int GetDepthFromDualFreqTagMode(const uint16_t* raw, uint16_t** depth, int width, int height);

    // Post-filters of the current depth image (m_width x m_height), in place.
    void EdgeFilterMad(uint16_t* depth);
    void OkadaFilter(uint16_t* depth);
    void SpeckleFilter(uint16_t* depth, int maxSpeckleSize, int maxDiff);

    // Temperature test recorder: every m_tempLogInterval-th call appends a line to
    // m_tempLogPath (qv_temperature_test.csv in the working directory when empty).
    void TemperatureTest(const uint16_t* raw, uint16_t* depth);
    std::string GetCurrentTime2Str();

    // Diagnostics files at the size of the current depth image (m_width x m_height).
    // SaveDepth returns 0 when the file cannot be opened, else the result of closing it.
    int SaveDepth(uint16_t* depth, std::string path);
    // Writes path_N.ply, N being m_plyFileCounter, which then advances.
    void SavePointCloud(float* cloud, std::string path);
    // path.raw and path_N.ply of one depth image.
    void SaveCloudPoint(uint16_t* depth, std::string path);

    // --- State. Public so that the library's own tests can inspect it; the class is
    // not part of the installed headers.

    // The caller's distance range, read and written as a pair under m_rangeMutex.
    int32_t m_customMaxDistance = 7500;
    int32_t m_customMinDistance = 0;
    int32_t m_width = 0;
    int32_t m_height = 0;
    int32_t m_binning = 1;
    // Switches a caller may change beside a frame operation.
    std::atomic<bool> m_filterOn{true};
    bool m_initialized = false;
    std::atomic<FlipMode> m_flipMode{FLIP_NONE};
    CameraCalibrationParam m_firstParam{};
    CameraCalibrationParam m_secondParam{};
    CameraCalibrationParam m_workParam{};
    FrequencyParam m_freqParam[2]{};
    // The two wiggling tables as the dual-frequency vector kernels interpolate them
    // (WigglingSlopes), or null where they cannot.
    float m_slopeTable[2][512]{};
    const float* m_slopes[2]{};
    float m_rangeF1 = 0, m_rangeF2 = 0, m_ratioF1 = 0, m_ratioF2 = 0, m_invRangeF1 = 0,
          m_invRangeF2 = 0;
    int32_t m_maxRangeMm = 0;
    float m_offsetF1 = 0, m_offsetF2 = 0;
    DeviceType m_deviceType = DEVICE_GENERIC;
    StreamType m_streamType = STREAM_DUAL_FREQ;

    // A fresh instance's amplitude threshold; every Init starts from it again.
    static constexpr int32_t kDefaultAmplitudeThreshold = 5;
    int32_t m_amplitudeThreshold = kDefaultAmplitudeThreshold;
    int32_t m_madThreshold = 15;
    // Kept from the original configuration; no operation reads it.
    int32_t m_reservedThreshold = 200;

    // Temperature test recorder.
    int32_t m_tempLogInterval = 60;
    int32_t m_tempLogCounter = 0;
    std::string m_tempLogPath;
    std::ofstream m_tempLogFile;
    float m_lastDistance1 = 0, m_lastDistance2 = 0;

    // Configuration group that no operation reads; kept with its defaults.
    int32_t m_configA = 60;
    int32_t m_configB = 2250;
    int32_t m_configC = 1800000;
    int32_t m_configD = 10000;
    int32_t m_configE = 120000;

    // Depth-to-colour geometry (GetRgbdRt).
    float m_depthToColorMatrix[16] = {};
    cv::Mat m_depthUndistortMapX, m_depthUndistortMapY;
    cv::Mat m_colorUndistortMapX, m_colorUndistortMapY;
    // Registration onto the colour camera, with its workspace (prepared by Init).
    Registration m_registration;
    int16_t m_centerDepth = 0;
    int32_t m_plyFileCounter = 0;

    // Buffers built by Init; size and stream the tables were built for, and the
    // binning Init derived from the working record's depth lens.
    int32_t m_tableWidth = 0;
    int32_t m_tableHeight = 0;
    bool m_tablesReduced = false;
    int32_t m_tableBinning = 1;
    std::unique_ptr<float[]> m_fppnOffset, m_fppnOffset2;
    std::unique_ptr<uint16_t[]> m_fppnOffsetInt, m_fppnOffset2Int;
    std::unique_ptr<uint16_t[]> m_depthWork1, m_depthWork2, m_depthWork3;
    std::unique_ptr<float[]> m_rectifyMapX, m_rectifyMapY;
    std::unique_ptr<float[]> m_rgbRayX, m_rgbRayY, m_rgbRayScale;
    std::unique_ptr<float[]> m_radialToZ;
    std::unique_ptr<uint16_t[]> m_fppnOffsetHalf, m_fppnOffset2Half;
    std::unique_ptr<float[]> m_radialToZHalf;

    static constexpr int kColourWidth = 1920;
    static constexpr int kColourHeight = 1080;
    // The largest frame the sensor delivers (the full read-out).
    static constexpr int kMaxFrameWidth = 640;
    static constexpr int kMaxFrameHeight = 480;

private:
    std::mutex m_rangeMutex;
    // Numbers each Init and Release (process-wide), so that a thread's last depth image is known to
    // belong to the current tables (DoubleFreqDepth). Lock held.
    uint64_t m_generation;
    // Records a depth image of this size made by the calling thread: the size later
    // operations read (m_width, m_height) and this thread's own. Lock held.
    void NoteDepthImage(int32_t width, int32_t height);
    // Frees every table and resets the frequency sets; the caller holds the lock.
    void ReleaseBuffers();
    // Init's work once the lock is held and the previous tables are gone.
    void BuildTables(const CameraCalibrationParam& first, const CameraCalibrationParam& second);
    LensModel UndistortLens(bool isDepth) const;
    // Whether the calibrated frame operations can run: STATUS_NOT_INITIALIZED before
    // Init, STATUS_STREAM_MISMATCH when SetType changed the stream since. Lock held.
    int32_t TablesStatus() const;
    // Frame sizes the tables of the last Init can serve.
    int32_t CheckSingleFreqFrame(int width, int height) const;
    int32_t CheckDualFreqFrame(int width, int height) const;
};

}  // namespace qvapi

#endif  // QVRECONSTRUCTION_SRC_RECONSTRUCTION_IMPL_H
