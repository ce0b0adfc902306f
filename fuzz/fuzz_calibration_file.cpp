// The calibration library's reader on arbitrary YAML or JSON text: a clear error or a
// record, never a crash or a hang. The first byte picks the file's extension.
#include <cstdint>
#include <string>

#include <qvreconstruction/calibration_file.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const std::string where = data[0] & 1 ? "fuzz.json" : "fuzz.yaml";
    try {
        qvapi::ParseCalibrationText(std::string(reinterpret_cast<const char*>(data + 1), size - 1), where);
    } catch (const qvapi::CalibrationError&) {
    }
    return 0;
}
