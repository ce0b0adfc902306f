#ifndef QVRECONSTRUCTION_SRC_DEPTH_TEMPERATURE_LOG_H
#define QVRECONSTRUCTION_SRC_DEPTH_TEMPERATURE_LOG_H

#include <cstdint>
#include <string>

namespace qvapi {

// The log file used when the instance's path is empty: in the working directory.
constexpr const char* kDefaultTemperatureLog = "qv_temperature_test.csv";

// One line of the temperature test record (ending in a line feed): nine depth
// samples 40 pixels apart around the image centre, the last corrected distances of
// both frequencies with the recorder's own compensations, the temperature and the
// time stamp. Empty when the image is too small for the samples.
std::string TemperatureLogLine(const uint16_t* raw, const uint16_t* depth, int width, int height,
                               float lastDistance1, float lastDistance2, const std::string& stamp);

// Local time, whole seconds, as "%F_%T" (2024-05-01_13:45:07).
std::string LocalTimeStamp();

}  // namespace qvapi

#endif
