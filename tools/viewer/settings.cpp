#include "settings.h"

namespace qvrecon::viewer {

namespace {
const char* const kFlipNames[] = {"none", "horizontal", "vertical", "both"};
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
    return {{"filter", s.filter}, {"flip", FlipName(s.flip)}, {"range", {s.rangeMin, s.rangeMax}}};
}

std::string ApplySettings(const nlohmann::json& update, Settings& s)
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
            // Whole millimetres only: 300.5 and 1e3 are refused rather than rounded.
            if (!value.is_array() || value.size() != 2 || !value[0].is_number_integer() ||
                !value[1].is_number_integer())
                return "range takes [min, max], whole millimetres";
            const int64_t lo = value[0].get<int64_t>(), hi = value[1].get<int64_t>();
            if (!(lo >= 0 && lo < hi && hi <= 65535))
                return "range needs 0 <= min < max <= 65535";
            next.rangeMin = static_cast<int>(lo);
            next.rangeMax = static_cast<int>(hi);
        } else {
            return "unknown setting '" + key + "' (filter, flip, range)";
        }
    }
    s = next;
    return "";
}

}  // namespace qvrecon::viewer
