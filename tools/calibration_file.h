// Calibration files: both records of a module (binned and full read-out) in one
// YAML or JSON file, read and written with yaml-cpp.
#ifndef QVRECON_CALIBRATION_FILE_H
#define QVRECON_CALIBRATION_FILE_H

#include <stdexcept>
#include <string>

#include <qvreconstruction/reconstruction.h>

namespace qvrecon {

struct ModuleCalibration {
    qvapi::CameraCalibrationParam binned{};  // Init's first record (320-wide read-out)
    qvapi::CameraCalibrationParam full{};    // Init's second record
};

// A calibration file that cannot be used; the message names the file and the field.
struct CalibrationError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads a file written by WriteCalibration (or by hand): two maps "binned" and "full",
// each holding the record's fields by name. Missing fields stay zero; unknown or
// repeated fields, wrong types, numbers outside their field's range, text after the
// document and arrays longer than the record holds are errors that name the field.
ModuleCalibration ReadCalibration(const std::string& path);

// The same from text in memory; `where` names it in messages.
ModuleCalibration ParseCalibrationText(const std::string& text, const std::string& where);

// Writes both records; the format follows the extension (.yaml, .yml or .json).
void WriteCalibration(const std::string& path, const ModuleCalibration& calibration);

// The built-in sample module, the same as the shipped data/sample_calibration.yaml.
ModuleCalibration SampleModule();

}  // namespace qvrecon

#endif
