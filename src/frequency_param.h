// Parameter set of one modulation frequency, derived from a calibration record by Init.
#ifndef QVRECONSTRUCTION_SRC_FREQUENCY_PARAM_H
#define QVRECONSTRUCTION_SRC_FREQUENCY_PARAM_H

#include <cstdint>
#include <string>

namespace qvapi {

struct FrequencyParam {
    int32_t frequency;   // Hz
    int32_t rangeMm;     // unambiguous range: 1.5e11 / frequency, truncated
    float coef[4];
    float depthOffset;   // mm
    float fppn[6];
    float tableStep;     // mm to wiggling-table index: 0.01, or 0.02 above 20 entries
    int32_t tableCount;
    float table[256];    // wiggling correction, mm per table step
    float phaseToMm;     // mm of distance per radian of phase
    std::string label;
};

}  // namespace qvapi

#endif  // QVRECONSTRUCTION_SRC_FREQUENCY_PARAM_H
