#include "settings.h"

namespace qvrecon::viewer {

namespace {
const char* const kFlipNames[] = {"none", "horizontal", "vertical", "both"};

// Whole millimetres only: 300.5 and 1e3 are refused rather than rounded.
std::string ApplyRange(const nlohmann::json& value, int& rangeMin, int& rangeMax)
{
    if (!value.is_array() || value.size() != 2 || !value[0].is_number_integer() || !value[1].is_number_integer())
        return "range takes [min, max], whole millimetres";
    const int64_t lo = value[0].get<int64_t>(), hi = value[1].get<int64_t>();
    if (!(lo >= 0 && lo < hi && hi <= 65535))
        return "range needs 0 <= min < max <= 65535";
    rangeMin = static_cast<int>(lo);
    rangeMax = static_cast<int>(hi);
    return "";
}

std::string ApplyB(const nlohmann::json& update, Settings::B& b, bool haveCalibrationB)
{
    if (!update.is_object())
        return "b takes an object (filter, range, calibration)";
    for (const auto& [key, value] : update.items()) {
        if (key == "filter") {
            if (!value.is_boolean())
                return "b's filter takes true or false";
            b.filter = value.get<bool>();
        } else if (key == "range") {
            if (std::string error = ApplyRange(value, b.rangeMin, b.rangeMax); !error.empty())
                return "b's " + error;
        } else if (key == "calibration") {
            if (!value.is_string() || (value != "a" && value != "b"))
                return "b's calibration takes \"a\" or \"b\"";
            if (value == "b" && !haveCalibrationB)
                return "there is no calibration \"b\": start the viewer with --calib-b FILE";
            b.calibrationB = value == "b";
        } else {
            return "unknown setting 'b." + key + "' (filter, range, calibration)";
        }
    }
    return "";
}
}  // namespace

Settings InitialSettings(bool haveCalibrationB)
{
    Settings s;
    s.b.filter = haveCalibrationB;
    s.b.calibrationB = haveCalibrationB;
    return s;
}

std::string SingleLine(std::string text)
{
    for (char& c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return text;
}

const char* FlipName(qvapi::FlipMode mode)
{
    const int m = static_cast<int>(mode);
    return m >= 0 && m < 4 ? kFlipNames[m] : "none";
}

nlohmann::json ToJson(const Settings& s)
{
    return {{"filter", s.filter},
            {"flip", FlipName(s.flip)},
            {"range", {s.rangeMin, s.rangeMax}},
            {"ab", s.ab},
            {"b",
             {{"filter", s.b.filter},
              {"range", {s.b.rangeMin, s.b.rangeMax}},
              {"calibration", s.b.calibrationB ? "b" : "a"}}}};
}

std::string ApplySettings(const nlohmann::json& update, Settings& s, bool haveCalibrationB)
{
    if (!update.is_object())
        return "settings are a JSON object";
    Settings next = s;
    for (const auto& [key, value] : update.items()) {
        if (key == "filter") {
            if (!value.is_boolean())
                return "filter takes true or false";
            next.filter = value.get<bool>();
        } else if (key == "flip") {
            bool found = false;
            if (value.is_string())
                for (int m = 0; m < 4 && !found; ++m)
                    if (value.get<std::string>() == kFlipNames[m]) {
                        next.flip = static_cast<qvapi::FlipMode>(m);
                        found = true;
                    }
            if (!found)
                return "flip takes \"none\", \"horizontal\", \"vertical\" or \"both\"";
        } else if (key == "range") {
            if (std::string error = ApplyRange(value, next.rangeMin, next.rangeMax); !error.empty())
                return error;
        } else if (key == "ab") {
            if (!value.is_boolean())
                return "ab takes true or false";
            next.ab = value.get<bool>();
        } else if (key == "b") {
            if (std::string error = ApplyB(value, next.b, haveCalibrationB); !error.empty())
                return error;
        } else {
            return "unknown setting '" + key + "' (filter, flip, range, ab, b)";
        }
    }
    s = next;
    return "";
}

}  // namespace qvrecon::viewer
