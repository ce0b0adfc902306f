// Sensor temperature carried in the frame and the phase drift it causes.
#ifndef QVRECONSTRUCTION_SRC_DEPTH_TEMPERATURE_H
#define QVRECONSTRUCTION_SRC_DEPTH_TEMPERATURE_H

#include <cstdint>

namespace qvapi {

// Degrees Celsius from the code in words 188 (high part) and 190 (low part).
inline float SensorTemperature(const uint16_t* raw)
{
    const int hi = raw[188] >> 2;
    const int lo = raw[190] >> 2;
    const uint16_t code = static_cast<uint16_t>(static_cast<int32_t>(static_cast<float>(hi * 256.0 + lo)));
    return static_cast<float>((code - 296) * 0.18518518518518517 + 25.0);
}

// Phase drift of the first frequency, radians (used by the single-frequency path).
inline float SingleFreqDrift(float temperature)
{
    const double t = temperature;
    return static_cast<float>(t * ((3.58724e-8 * t + 1.46942e-5) * t + 0.00270372) - 0.0950557);
}

// Phase drifts of the two frequencies of the dual-frequency capture, radians.
inline float DualFreqDrift1(float temperature)
{
    const double t = temperature;
    return static_cast<float>(0.00270372 * t - 0.0950557 + (3.58724e-8 * t * t * t + 1.46942e-5 * t * t));
}

inline float DualFreqDrift2(float temperature)
{
    const double t = temperature;
    return static_cast<float>(0.00550856 * t - 0.178587 + (1.67766e-5 * t * t - 8.06871e-8 * t * t * t));
}

// Words a frame must hold for the temperature code to be read.
constexpr long kTemperatureWords = 191;

}  // namespace qvapi

#endif
