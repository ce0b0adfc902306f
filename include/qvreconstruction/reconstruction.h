// libqvreconstruction: raw time-of-flight frames to depth, IR, point clouds,
// false colour and depth registered onto the 1920 x 1080 colour camera.
//
// Use:
//   qvapi::Reconstruction* r = qvapi::Reconstruction::CreateInstance();
//   r->SetType(qvapi::DEVICE_GENERIC, qvapi::STREAM_DUAL_FREQ);
//   r->Init(binnedCalibration, fullCalibration);
//   uint16_t* depth = nullptr;
//   if (r->CalculateDepth(raw, &depth, 640, 480) == qvapi::STATUS_OK) { ...; delete[] depth; }
//
// The layout of every type in this header is part of the binary interface:
// the 17 virtual operations keep their slot order, and the records keep their
// field order and types.
#ifndef QVRECONSTRUCTION_RECONSTRUCTION_H
#define QVRECONSTRUCTION_RECONSTRUCTION_H

#include <cstdint>
#include <string>

#include "qvreconstruction/export.h"

namespace qvapi {

// Camera module. Only 1 and 4 are told apart; any other value is the general module.
// Module 4 has no temperature correction in the depth path.
enum DeviceType : int32_t {
    DEVICE_GENERIC = 0,
    DEVICE_TYPE_1 = 1,
    DEVICE_TYPE_4 = 4,
};

// Sensor read-out. 5 is the reduced stream (320 x 240, one 40 MHz frequency);
// every other value is the full stream (640 x 480, 80 and 100 MHz unwrapped together).
enum StreamType : int32_t {
    STREAM_DUAL_FREQ = 0,
    STREAM_SINGLE_FREQ = 5,
};

// Mirroring done by the sensor; the depth path reassigns samples and mirrors its
// look-ups into the per-pixel calibration accordingly.
enum FlipMode : int32_t {
    FLIP_NONE = 0,
    FLIP_VERTICAL = 1,    // calibration rows mirrored
    FLIP_HORIZONTAL = 2,  // calibration columns mirrored
    FLIP_BOTH = 3,
};

// Results of the operations that compute. Invalid pixels are reported in the data
// (0, or 1 for saturation); these codes report calls that could not be carried out.
// A call that returns a negative code has written and allocated nothing.
enum StatusCode : int32_t {
    STATUS_OK = 0,
    STATUS_NOT_INITIALIZED = -1,    // frame operation before Init (or after Release)
    STATUS_INVALID_ARGUMENT = -2,   // null pointer, or a size the instance cannot serve
    STATUS_STREAM_MISMATCH = -3,    // the tables of the last Init are for the other stream:
                                    // call Init again after SetType
};

// Lens model: 13 four-byte fields. Distortion in the order k1, k2, p1, p2, k3;
// camera matrix [fx 0 cx; 0 fy cy; 0 0 1].
struct Intrinsics {
    int32_t reserved0;
    int32_t reserved1;
    float k1;
    float k2;
    float p1;
    float p2;
    float k3;
    float fx;
    float fy;
    float cx;
    float cy;
    int32_t width;
    int32_t height;
};

// Calibration of one read-out of a camera module. Counts say how many leading
// entries of the arrays are valid; copying a record copies every entry.
struct CameraCalibrationParam {
    int32_t reserved0;
    int32_t reserved1;
    std::string label;        // free text, copied into both frequency parameter sets
    Intrinsics depthLens;     // width 640 (full sensor) or 320 (binned)
    Intrinsics rgbLens;       // fx == 0 selects the built-in colour lens
    float depthOffsetF1;      // mm; a magnitude below 100 is taken as metres
    float depthOffsetF2;      // mm, always
    float reserved2;
    int32_t tableCountF1;     // valid entries of tableF1 (0 to 256)
    float tableF1[256];       // wiggling correction of the first frequency, mm
    int32_t tableCountF2;
    float tableF2[256];
    float fppnF1[6];          // c0 + c1 x + c2 y + c3 x^2 + c4 x y + c5 y^2
    float fppnF2[6];
    float coefF1[4];
    float coefF2[4];
    int32_t reserved3;
    float reserved4[12];
    float extrinsics[12];     // row-major 3 x 3 rotation, then translation (mm)
    int32_t vectorCount;      // valid entries of vector
    float vector[256];        // [0..2] rotation-vector correction (rad), [3] fallback centre depth (mm)
    int32_t tableCount3;
    float table3[256];        // carried, not read
};

// The library's interface. Obtain the one instance with CreateInstance(); it lives
// until the process ends and is never deleted by the caller.
class Reconstruction {
public:
    QV_EXPORT static Reconstruction* CreateInstance();

    /* 1 */ virtual void GetAlgorithmVersion(std::string& version) = 0;
    /* 2 */ virtual void SetType(DeviceType device, StreamType stream) = 0;
    /* 3 */ virtual int32_t Init(CameraCalibrationParam first, CameraCalibrationParam second) = 0;
    /* 4 */ virtual int32_t GetCloudPoint(const uint16_t* depth, float* points, int32_t width,
                                          int32_t height) = 0;
    /* 5 */ virtual int32_t GetIR(const uint16_t* raw, uint16_t* image, int32_t width,
                                  int32_t height) = 0;
    /* 6 */ virtual int32_t CalculateDepth(const uint16_t* raw, uint16_t** depth, int32_t width,
                                           int32_t height) = 0;
    /* 7 */ virtual int32_t DoubleFreqDepth(const uint16_t* frame1, const uint16_t* frame2,
                                            uint16_t** depth, int& width, int& height) = 0;
    /* 8 */ virtual void Convert2RGB(uint8_t** image, uint16_t* depth, int32_t width,
                                     int32_t height) = 0;
    /* 9 */ virtual int32_t MapDepthToRGB(uint8_t** image, uint16_t** depth, uint8_t* nv12,
                                          int32_t colorWidth, int32_t colorHeight, int& width,
                                          int& height) = 0;
    /* 10 */ virtual void Pb2Structrue(Intrinsics& depth, Intrinsics& rgb,
                                       CameraCalibrationParam param) = 0;
    /* 11 */ virtual void GetCustomDistanceRange(int& min, int& max) = 0;
    /* 12 */ virtual void SetCustomDistanceRange(int32_t min, int32_t max) = 0;
    /* 13 */ virtual void GetDistanceRange(int& min, int& max) = 0;
    /* 14 */ virtual void GetColorBar(uint8_t** bar, int& count) = 0;
    /* 15 */ virtual void SetFlipMode(FlipMode mode) = 0;
    /* 16 */ virtual void OpenFilter(bool on) = 0;
    /* 17 */ virtual void GetFilterStatu(bool& on) = 0;

protected:
    Reconstruction() = default;
    // Not virtual, and not public: the instance is never destroyed through this interface.
    ~Reconstruction() = default;

    QV_EXPORT static Reconstruction* m_instance;
};

}  // namespace qvapi

// The colour-bar legend handed out by GetColorBar: 360 RGB triples from dark red
// (nearest) to dark blue (farthest). Writable, as the library has always exported it.
QV_EXPORT extern unsigned char color_map[360][3];

#endif  // QVRECONSTRUCTION_RECONSTRUCTION_H
