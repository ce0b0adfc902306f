// The calibration library's reader on arbitrary YAML or JSON text: a clear error or a
// record, never a crash or a hang. The first byte picks the file's extension. A text
// that reads must also write, in both formats, and read back bit for bit.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <qvreconstruction/calibration_file.h>

namespace {

bool Same(const qvapi::CameraCalibrationParam& a, const qvapi::CameraCalibrationParam& b)
{
    const size_t after = offsetof(qvapi::CameraCalibrationParam, depthLens);
    return a.reserved0 == b.reserved0 && a.reserved1 == b.reserved1 && a.label == b.label &&
           std::memcmp(reinterpret_cast<const char*>(&a) + after, reinterpret_cast<const char*>(&b) + after,
                       sizeof a - after) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const std::string where = data[0] & 1 ? "fuzz.json" : "fuzz.yaml";
    qvapi::ModuleCalibration read;
    try {
        read = qvapi::ParseCalibrationText(std::string(reinterpret_cast<const char*>(data + 1), size - 1), where);
    } catch (const qvapi::CalibrationError&) {
        return 0;
    }
    for (bool json : {false, true}) {
        const std::string text = qvapi::CalibrationText(read, json);  // throws nothing: what reads, writes
        const qvapi::ModuleCalibration back = qvapi::ParseCalibrationText(text, where);
        if (!Same(read.binned, back.binned) || !Same(read.full, back.full)) {
            std::fprintf(stderr, "not read back as written:\n%s\n", text.c_str());
            std::abort();
        }
    }
    return 0;
}
