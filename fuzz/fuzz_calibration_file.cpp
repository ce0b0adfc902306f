// The tool's calibration reader on arbitrary YAML or JSON text: a clear error or a
// record, never a crash.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "calibration_file.h"
#include "output_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    static const std::string base = "/tmp/qv_fuzz_calibration_" + std::to_string(getpid());
    const std::string path = base + (data[0] & 1 ? ".json" : ".yaml");
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1));
    }
    try {
        qvrecon::ReadCalibration(path);
    } catch (const qvrecon::CalibrationError&) {
    } catch (const qvrecon::ToolError&) {
    }
    std::remove(path.c_str());
    return 0;
}
