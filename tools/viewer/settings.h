// The settings the viewer lets a browser change, and their strict JSON form: a request
// may name any of them, nothing else, each with a value of the right type and range.
#ifndef QVRECON_VIEWER_SETTINGS_H
#define QVRECON_VIEWER_SETTINGS_H

#include <string>

#include <nlohmann/json.hpp>
#include <qvreconstruction/reconstruction.h>

namespace qvrecon::viewer {

struct Settings {
    bool filter = true;
    qvapi::FlipMode flip = qvapi::FLIP_NONE;
    int rangeMin = 300, rangeMax = 4500;  // mm, of the false colour
};

nlohmann::json ToJson(const Settings& s);

// Applies a partial update ({"filter": .., "flip": .., "range": [min, max]}) to `s`.
// Returns "" when applied, else the reason (and `s` is left as it was).
std::string ApplySettings(const nlohmann::json& update, Settings& s);

// An error message as one line (line breaks become spaces), as every API error is.
std::string SingleLine(std::string text);

// "none", "horizontal", "vertical", "both".
const char* FlipName(qvapi::FlipMode mode);

}  // namespace qvrecon::viewer

#endif
