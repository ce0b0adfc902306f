#include "calibration_file.h"

#include "output_files.h"
#include "sample_calibration.h"

namespace qvrecon {

void SaveCalibration(const std::string& path, const ModuleCalibration& calibration)
{
    const bool json = path.size() >= 5 && path.compare(path.size() - 5, 5, ".json") == 0;
    std::string text;
    try {
        text = qvapi::CalibrationText(calibration, json);
    } catch (const CalibrationError& e) {
        throw CalibrationError(path + ": " + e.what());
    }
    WriteBytes(path, text.data(), text.size());
}

ModuleCalibration SampleModule() { return {qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()}; }

}  // namespace qvrecon
