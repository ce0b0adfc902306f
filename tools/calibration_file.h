// The tool's calibration files: the calibration library's reader, the tool's own
// writer (through its output files, which are removed on errors and signals), and the
// built-in sample module.
#ifndef QVRECON_CALIBRATION_FILE_H
#define QVRECON_CALIBRATION_FILE_H

#include <string>

#include <qvreconstruction/calibration_file.h>

namespace qvrecon {

using qvapi::CalibrationError;
using qvapi::ModuleCalibration;
using qvapi::ReadCalibration;

// Writes both records as YAML, or JSON when the name ends in ".json".
void SaveCalibration(const std::string& path, const ModuleCalibration& calibration);

// The built-in sample module, the same as the shipped data/sample_calibration.yaml.
ModuleCalibration SampleModule();

}  // namespace qvrecon

#endif
