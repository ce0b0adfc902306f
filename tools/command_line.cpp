#include "command_line.h"

#include <algorithm>
#include <filesystem>

namespace qvrecon {

CLI::Validator Within(double lo, double hi)
{
    const std::string range = "[" + CLI::detail::to_string(lo) + " - " + CLI::detail::to_string(hi) + "]";
    return CLI::Validator(
        [lo, hi, range](std::string& text) -> std::string {
            double v = 0;
            if (!CLI::detail::lexical_cast(text, v) || !(v >= lo && v <= hi))
                return "Value " + text + " not in range " + range;
            return "";
        },
        "FLOAT in " + range);
}

void AddCommon(CLI::App* cmd, Common& c, const std::string& defaultOut, bool writes)
{
    if (writes)
        cmd->add_option("--out", c.out, "Output folder, created if missing")->default_val(defaultOut);
    cmd->add_option("--calib", c.calib, "Calibration file (YAML or JSON); the sample module if omitted");
    cmd->add_option("--device", c.device, "Device type: 1, 4, or 0 for the general module")
        ->default_val(0)
        ->check(CLI::IsMember({0, 1, 4}));
}

ModuleCalibration LoadCalibration(const Common& c)
{
    return c.calib.empty() ? SampleModule() : ReadCalibration(c.calib);
}

std::string OneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

std::string In(const std::string& folder, const std::string& name)
{
    return (std::filesystem::path(folder) / name).string();
}

}  // namespace qvrecon
