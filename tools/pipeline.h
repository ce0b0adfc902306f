// What the sub-commands share: stream kinds, the configured library instance, and
// the pictures and files made from its results.
#ifndef QVRECON_PIPELINE_H
#define QVRECON_PIPELINE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <qvreconstruction/reconstruction.h>

#include "calibration_file.h"
#include "simulator.h"

namespace qvrecon {

// The three kinds of raw capture the sensor delivers.
enum class StreamKind { Single, Dual, Binned };

struct StreamInfo {
    StreamKind kind;
    const char* name;         // as on the command line
    qvapi::StreamType type;   // for SetType
    int width, height;        // depth image
    size_t words;             // 16-bit words of one capture
};

const StreamInfo& Info(StreamKind kind);
// The stream whose capture has this many bytes, if any.
std::optional<StreamKind> StreamForBytes(size_t bytes);
// "single", "dual" or "binned".
StreamKind ParseStream(const std::string& name);
// The simulator's scene of that name (wall, plane, boxes or sphere); a ToolError otherwise.
qvsim::SceneKind ParseScene(const std::string& name);
// "single 614400, binned 2457600, dual 9830400 bytes": for messages.
std::string StreamSizes();

// The stream of a capture of this type and depth-image size, if any.
std::optional<StreamKind> StreamOf(qvapi::StreamType type, int width, int height);

// The depth camera's lens as the images of a stream see it: the full record's for the
// full stream, halved for its binned read-outs, the binned record's for the
// single-frequency stream.
qvapi::Intrinsics DepthLens(const ModuleCalibration& calibration, StreamKind stream);

// The sensor's temperature code, carried in words 188 (high part) and 190 (low part)
// of a capture, and the degrees the library reads it as.
struct SensorTemperature {
    uint16_t code;
    float celsius;
};
SensorTemperature TemperatureOf(const uint16_t* words);

// The library's one instance, configured for a module, a device and a stream. The
// reduced stream is initialised with the binned record as its working record (its
// tables are 320 x 240); the full stream with the binned and full records.
qvapi::Reconstruction& Configure(const ModuleCalibration& calibration, qvapi::DeviceType device,
                                 StreamKind stream);

// A library status as a message ("" for success).
std::string StatusText(int32_t status);

// False-colour picture of a depth image (BGR) with the colour-bar legend beside it and
// the distance range written on it.
cv::Mat FalseColourWithLegend(qvapi::Reconstruction& lib, const cv::Mat& depth16, int minMm,
                              int maxMm);

// 8-bit picture of an IR image (values 0..255 in 16 bits).
cv::Mat IrPicture(const std::vector<uint16_t>& ir, int width, int height);

// How a point cloud is written as PLY: binary little-endian or ASCII; every pixel in
// row order (organised: pixels without depth as NaN points) or only the pixels with a
// depth; millimetres or metres.
struct PlyOptions {
    bool ascii = false;
    bool organised = false;
    bool metres = false;
};

// The PLY file of the cloud of a width x height depth image (x, y, z floats a pixel; z
// 0, or the mark 1, where the pixel has no depth), with each point's colour (red,
// green, blue bytes a pixel) when `colours` is given; and writing it.
std::string PointCloudPly(const std::vector<float>& cloud, int width, int height, const PlyOptions& options = {},
                          const std::vector<uint8_t>* colours = nullptr);
void WritePointCloud(const std::string& path, const std::vector<float>& cloud, int width, int height,
                     const PlyOptions& options = {}, const std::vector<uint8_t>* colours = nullptr);

// A 640 x 480 depth image (CV_16UC1) registered onto a 1920 x 1080 NV12 frame through
// the library: the registered depth (CV_16UC1) and the undistorted colour image (BGR).
struct Registration {
    cv::Mat depth, colourBgr;
};
Registration Register(qvapi::Reconstruction& lib, const cv::Mat& depth16, std::vector<uint8_t>& nv12);

// The colour each point of a cloud sees in the undistorted colour image (BGR) that the
// registration returned, found where the registration puts the point: red, green and
// blue bytes a point, black for points without depth or landing outside the image.
std::vector<uint8_t> PointColours(const std::vector<float>& cloud, const cv::Mat& colourBgr,
                                  const qvapi::RegistrationGeometry& geometry);

// Registered depth in false colour laid over the colour image where there is depth.
cv::Mat Overlay(qvapi::Reconstruction& lib, const cv::Mat& colourBgr, const cv::Mat& registered16,
                int minMm, int maxMm);

}  // namespace qvrecon

#endif
