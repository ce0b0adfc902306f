// Calibration files: both calibration records of a camera module (the binned 320 x 240
// read-out and the full 640 x 480 one, Init's two arguments) in one YAML or JSON file.
// This is libqvreconstruction_calibration (CMake: qvreconstruction::calibration;
// pkg-config: qvreconstruction-calibration), beside the core library.
//
//   qvapi::ModuleCalibration cal = qvapi::ReadCalibration("module.yaml");
//   recon->Init(cal.binned, cal.full);
//
// A file holds two maps, "binned" and "full", each with the record's fields by name
// (the shipped share/qvreconstruction/sample_calibration.yaml shows every field).
// Standard YAML 1.2 or JSON; an older file's leading "%YAML:1.0" line is accepted.
// Missing fields stay zero. Unknown or repeated fields, wrong types, integers outside
// 32 bits, numbers that are not finite 32-bit floats, lists longer than the record
// holds, labels that are not UTF-8 and text after the document are errors, and the
// message names the file and the field ("module.yaml: full.depthLens.fx: expected a
// number, found 'abc'"). Numbers are read and written with a decimal point in every
// locale (setlocale and std::locale::global change nothing here).
//
// DepthToColourGeometry tells where registration puts each depth pixel.
#ifndef QVRECONSTRUCTION_CALIBRATION_FILE_H
#define QVRECONSTRUCTION_CALIBRATION_FILE_H

#include <stdexcept>
#include <string>

#include <qvreconstruction/reconstruction.h>

#if defined(__GNUC__)
#define QV_CALIBRATION_API __attribute__((visibility("default")))
#else
#define QV_CALIBRATION_API
#endif

namespace qvapi {

struct ModuleCalibration {
    CameraCalibrationParam binned{};  // Init's first record (320-wide read-out)
    CameraCalibrationParam full{};    // Init's second record
};

// A calibration that cannot be read or written; what() names the file and the field.
class QV_CALIBRATION_API CalibrationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads a calibration file (a regular file of at most 1 MiB).
QV_CALIBRATION_API ModuleCalibration ReadCalibration(const std::string& path);

// The same from text in memory; `where` names it in messages.
QV_CALIBRATION_API ModuleCalibration ParseCalibrationText(const std::string& text,
                                                          const std::string& where);

// The text of a calibration file, YAML or JSON (RFC 8259 JSON, which is also YAML).
// Every float is written as the shortest decimal that reads back as the same bits,
// -0.0 as "-0.0" (other readers take "-0" for the integer 0); tables are written up
// to their count and any entry after it that is not +0.0, so that a round trip keeps
// every value bit for bit. Labels are written in double quotes with JSON's escapes.
// Non-finite numbers and labels that are not UTF-8 cannot be written (CalibrationError
// naming the field).
QV_CALIBRATION_API std::string CalibrationText(const ModuleCalibration& calibration, bool json);

// Writes CalibrationText to `path`, JSON when it ends in ".json", else YAML. The file
// appears whole or not at all: the text goes to a new temporary file beside it, which
// is renamed over `path` when complete and removed on failure.
QV_CALIBRATION_API void WriteCalibration(const std::string& path, const ModuleCalibration& calibration);

// The geometry MapDepthToRGB applies with a record (the full one, which Init makes the
// working record of the 640 x 480 stream): a depth-camera point P (mm, as GetCloudPoint
// gives it) moves into the colour camera as Pc = rotation * P + translation and lands
// on the pixel (trunc(Xc / Zc * fx + cx), trunc(Yc / Zc * fy + cy)) of the undistorted
// colour image the registration returns. The registered depth image holds the depth
// camera's Z of the point that landed there, not Zc: a caller that needs the colour
// camera's depth (Open3D's RGBD images, for one) converts it with this geometry.
struct RegistrationGeometry {
    float rotation[9];     // row-major
    float translation[3];  // mm
    float fx, fy, cx, cy;  // colour pinhole, pixels
};
QV_CALIBRATION_API RegistrationGeometry DepthToColourGeometry(const CameraCalibrationParam& record);

}  // namespace qvapi

#endif
