#include "calibration/default_calibration.h"

#include <cstring>

namespace qvapi {
namespace {

// One default set. The camera matrix is row-major 3 x 3 (fx at 0, cx at 2, fy at 4,
// cy at 5). The lenses are those of a typical 640 x 480 time-of-flight module with a
// field of view of about 70 x 55 degrees (the binned read-out halves the matrix); the
// wiggling tables and phase-noise surfaces are zero, i.e. no correction, until Init
// brings the module's own.
struct DefaultSet {
    float depthOffsetF1;
    float depthOffsetF2;
    float cameraMatrix[9];
    float distortion[5];
    float tableF1[39];
    float tableF2[31];
    float fppnF1[6];
    float fppnF2[6];
};

float FloatFromBits(uint32_t bits)
{
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

constexpr float kFullMatrix[9] = {458.0f, 0.0f, 319.5f, 0.0f, 458.0f, 239.5f, 0.0f, 0.0f, 1.0f};
constexpr float kBinnedMatrix[9] = {229.0f, 0.0f, 159.75f, 0.0f, 229.0f, 119.75f, 0.0f, 0.0f, 1.0f};
constexpr float kDistortion[5] = {-0.12f, 0.035f, 0.0f, 0.0f, 0.0f};

DefaultSet MakeSet(float offset1, float offset2, const float (&matrix)[9])
{
    DefaultSet set{};
    set.depthOffsetF1 = offset1;
    set.depthOffsetF2 = offset2;
    std::memcpy(set.cameraMatrix, matrix, sizeof set.cameraMatrix);
    std::memcpy(set.distortion, kDistortion, sizeof set.distortion);
    return set;
}

}  // namespace

CameraCalibrationParam DefaultCalibration(DeviceType device, StreamType stream)
{
    const bool single = stream == STREAM_SINGLE_FREQ;
    DefaultSet set;
    if (device == DEVICE_TYPE_1 && single) {
        // -1502.333 mm, exactly the float with these bits.
        const float offset = FloatFromBits(0xC4BBCAA8u);
        set = MakeSet(offset, offset, kBinnedMatrix);
    } else if (device == DEVICE_TYPE_1) {
        set = MakeSet(-303.0f, -434.0f, kFullMatrix);
    } else if (device == DEVICE_TYPE_4 && single) {
        set = MakeSet(-1926.0f, -1926.0f, kBinnedMatrix);
    } else {
        // The general module has one set for every stream.
        set = MakeSet(-714.0f, -815.0f, kFullMatrix);
    }

    CameraCalibrationParam p{};
    p.depthOffsetF1 = set.depthOffsetF1;
    p.depthOffsetF2 = set.depthOffsetF2;
    p.depthLens.fx = set.cameraMatrix[0];
    p.depthLens.cx = set.cameraMatrix[2];
    p.depthLens.fy = set.cameraMatrix[4];
    p.depthLens.cy = set.cameraMatrix[5];
    p.depthLens.k1 = set.distortion[0];
    p.depthLens.k2 = set.distortion[1];
    p.depthLens.p1 = set.distortion[2];
    p.depthLens.p2 = set.distortion[3];
    p.depthLens.k3 = set.distortion[4];
    p.tableCountF1 = 39;
    std::memcpy(p.tableF1, set.tableF1, sizeof set.tableF1);
    p.tableCountF2 = 31;
    std::memcpy(p.tableF2, set.tableF2, sizeof set.tableF2);
    std::memcpy(p.fppnF1, set.fppnF1, sizeof set.fppnF1);
    std::memcpy(p.fppnF2, set.fppnF2, sizeof set.fppnF2);
    return p;
}

}  // namespace qvapi
