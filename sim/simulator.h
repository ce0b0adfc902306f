// A time-of-flight capture simulator: renders built-in scenes into raw frames in the
// layouts the sensor delivers, so that reconstructing them should give the scenes'
// depth back. It is a model of the sensor of its own: it does not call the
// library's depth code.
#ifndef QVSIM_SIMULATOR_H
#define QVSIM_SIMULATOR_H

#include <cstdint>
#include <string>
#include <vector>

#include <qvreconstruction/reconstruction.h>

namespace qvsim {

enum class SceneKind {
    Wall,         // a flat wall facing the camera
    TiltedPlane,  // a plane turned about the vertical axis
    Boxes,        // two boxes in front of a wall: depth edges
    Sphere,       // a ball in front of a wall
};

struct SceneSpec {
    SceneKind kind = SceneKind::Wall;
    double distanceMm = 1500.0;  // the wall's (or plane's, at the optical axis) distance
    double tiltDeg = 35.0;       // TiltedPlane
    double reflectivity = 0.8;   // about 1.1 and above saturates the sensor
    bool brightPatch = false;    // a saturating patch left of centre
    bool darkPatch = false;      // a patch returning no light right of centre
    // Boxes: how far each box (the left one first) stands from its place above, mm,
    // x to the right and z away from the camera. Zero keeps the scene as it is.
    double boxOffsetXMm[2] = {0.0, 0.0};
    double boxOffsetZMm[2] = {0.0, 0.0};
};

// What a ray (x, y, 1) of normalised camera coordinates meets: Z (mm) and reflectivity.
struct Hit {
    double z;
    double reflectivity;
};
Hit TraceScene(const SceneSpec& scene, double x, double y);

// Scene objects: 0 the wall or plane, 1 and 2 the boxes, 1 the sphere.
constexpr uint8_t kNoObject = 255;

struct Vec3 {
    double x, y, z;
};
struct SurfaceHit {
    double s;            // ray parameter of the hit
    Vec3 point;          // in the depth camera's frame, mm
    double reflectivity;
    int object;          // kNoObject when the ray meets nothing
};
// The nearest surface along origin + s * dir (s > 0), in the depth camera's frame.
SurfaceHit TraceRay(const SceneSpec& scene, const Vec3& origin, const Vec3& dir);

struct CaptureSpec {
    qvapi::DeviceType device = qvapi::DEVICE_GENERIC;
    qvapi::StreamType stream = qvapi::STREAM_DUAL_FREQ;
    bool binned = false;                      // 320 x 240 frames of the full stream
    qvapi::FlipMode flip = qvapi::FLIP_NONE;  // 0..3
    double temperatureC = 25.0;
    double noiseSigma = 0.0;                  // Gaussian noise per sample, sample units
    uint32_t seed = 1;
    bool mixEdges = true;                     // pixels straddling a depth edge mix both returns
};

enum PixelLabel : uint8_t {
    kValid = 0,
    kEdge = 1,       // near a depth discontinuity (mixed returns, filters at work)
    kSaturated = 2,
    kDark = 3,
    kOutOfRange = 4, // beyond the unambiguous range of the stream
};

struct Capture {
    int width = 0, height = 0;        // frame size, pixels
    std::vector<uint16_t> raw;        // 4*W*H words (single frequency) or 16*W*H (dual)
    std::vector<float> truthZ;        // per output pixel, mm
    std::vector<float> truthRadial;   // distance along the pixel's ray, mm
    std::vector<uint8_t> label;       // PixelLabel per output pixel
};

// The values the model is defined for, as `qvrecon simulate` and the Python package
// take them: beyond them its arithmetic overflows (a wall at 0 mm, a temperature of
// 1e30) or means nothing. Both ends are included; NaN lies outside every range.
struct ValueRange {
    double lo, hi;
    bool Holds(double v) const { return v >= lo && v <= hi; }
};
constexpr ValueRange kDistanceRangeMm{1, 65535};
constexpr ValueRange kTiltRangeDeg{-80, 80};
constexpr ValueRange kTemperatureRangeC{-40, 125};
constexpr ValueRange kNoiseRange{0, 1000};  // sample units
constexpr ValueRange kFlipRange{0, 3};
constexpr ValueRange kBoxOffsetRangeMm{-65535, 65535};

// Empty when every value of the scene (and the set-up) lies in its range; otherwise
// names the first that does not, e.g. "distance 0 mm is outside [1, 65535]".
std::string CheckScene(const SceneSpec& scene);
std::string CheckCaptureSetup(const SceneSpec& scene, const CaptureSpec& setup);

// Simulates one capture (std::invalid_argument where CheckCaptureSetup objects). `calibration` is the full read-out's record handed to
// Init as its second argument (for the reduced stream, the record of the 320 x 240
// sensor); the per-pixel rays and corrections follow it.
Capture SimulateCapture(const qvapi::CameraCalibrationParam& calibration, const SceneSpec& scene,
                        const CaptureSpec& setup);

// The colour camera's view of a scene (1920 x 1080), through the calibration's
// colour lens and depth-to-colour extrinsics.
struct ColourFrame {
    int width = 1920, height = 1080;
    std::vector<uint8_t> nv12;       // the raw (distorted) frame, NV12
    // On the undistorted colour grid: the depth-camera Z of the surface each colour
    // pixel sees (what registration should put there) and that surface's object.
    std::vector<float> truthDepth;
    std::vector<uint8_t> object;
};
ColourFrame RenderColour(const qvapi::CameraCalibrationParam& calibration, const SceneSpec& scene);

}  // namespace qvsim

#endif
