#include "depth/temperature_log.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <sstream>

#include "depth/temperature.h"

namespace qvapi {

std::string TemperatureLogLine(const uint16_t* raw, const uint16_t* depth, int width, int height,
                               float lastDistance1, float lastDistance2, const std::string& stamp)
{
    const int cx = width / 2, cy = height / 2;
    if (cx < 40 || cy < 40 || cx + 40 >= width || cy + 40 >= height)
        return std::string();
    const double t = SensorTemperature(raw);
    // The recorder's own millimetres-per-radian factors, not the instance's.
    const float comp1 =
        static_cast<float>(1.46942e-5 * t * t + 3.58724e-8 * t * t * t + (0.00270372 * t - 0.0950557)) *
        298.256378f;
    const float comp2 =
        static_cast<float>(-8.06871e-8 * t * t * t + 1.67766e-5 * t * t + (0.00550856 * t - 0.178587)) *
        238.732422f;
    std::ostringstream line;
    for (int row : {cy - 40, cy, cy + 40})
        for (int col : {cx - 40, cx, cx + 40})
            line << depth[static_cast<size_t>(row) * width + col] << ",";
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "%f,%f,%f,%f,", lastDistance1, comp1, lastDistance2,
                  comp2);
    line << numbers << static_cast<float>(t) << "," << stamp << "\n";
    return line.str();
}

std::string LocalTimeStamp()
{
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local{};
    localtime_r(&now, &local);
    char text[64];
    std::strftime(text, sizeof text, "%F_%T", &local);
    return text;
}

}  // namespace qvapi
