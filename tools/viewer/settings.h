// The settings the viewer lets a browser change, and their strict JSON form: a request
// may name any of them, nothing else, each with a value of the right type and range.
// With A/B on, every frame also goes through the library a second time with B's
// filter and calibration (A's or the one given with --calib-b); the flip is shared so
// that A's and B's pixels line up.
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
    bool ab = false;
    struct B {
        bool filter = false;
        int rangeMin = 300, rangeMax = 4500;
        bool calibrationB = false;  // --calib-b's calibration, else A's
    } b;
};

// The settings a viewer starts with: B compares the filter off, or with --calib-b the
// other calibration with the filter on.
Settings InitialSettings(bool haveCalibrationB);

nlohmann::json ToJson(const Settings& s);

// Applies a partial update ({"filter": .., "flip": .., "range": [min, max], "ab": ..,
// "b": {"filter": .., "range": .., "calibration": "a" | "b"}}) to `s`; B's calibration
// "b" only when there is one. Returns "" when applied, else the reason (and `s` is
// left as it was).
std::string ApplySettings(const nlohmann::json& update, Settings& s, bool haveCalibrationB = false);

// An error message as one line (line breaks become spaces), as every API error is.
std::string SingleLine(std::string text);

// "none", "horizontal", "vertical", "both".
const char* FlipName(qvapi::FlipMode mode);

}  // namespace qvrecon::viewer

#endif
