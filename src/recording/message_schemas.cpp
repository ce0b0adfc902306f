// The ros2msg definitions of the recorded messages. Each schema is the type's own
// fields followed by every type it uses, once, each behind a separator line and
// "MSG: pkg/Name", which is how ROS 2 bags and MCAP's ros2 profile store them.
// Nested types are named in full so that a reader need not guess their package.
#include "recording/messages.h"

#include <string>

namespace qvrec {
namespace {

const std::string kSeparator =
    "================================================================================\n";

std::string Dependency(const char* name, const char* fields) {
    return kSeparator + "MSG: " + name + "\n" + fields;
}

const char kTime[] =
    "int32 sec\n"
    "uint32 nanosec\n";

const char kHeader[] =
    "builtin_interfaces/Time stamp\n"
    "string frame_id\n";

const char kImage[] =
    "std_msgs/Header header\n"
    "uint32 height\n"
    "uint32 width\n"
    "string encoding\n"
    "uint8 is_bigendian\n"
    "uint32 step\n"
    "uint8[] data\n";

const char kRegionOfInterest[] =
    "uint32 x_offset\n"
    "uint32 y_offset\n"
    "uint32 height\n"
    "uint32 width\n"
    "bool do_rectify\n";

const char kCameraInfo[] =
    "std_msgs/Header header\n"
    "uint32 height\n"
    "uint32 width\n"
    "string distortion_model\n"
    "float64[] d\n"
    "float64[9] k\n"
    "float64[9] r\n"
    "float64[12] p\n"
    "uint32 binning_x\n"
    "uint32 binning_y\n"
    "sensor_msgs/RegionOfInterest roi\n";

const char kPointField[] =
    "uint8 INT8    = 1\n"
    "uint8 UINT8   = 2\n"
    "uint8 INT16   = 3\n"
    "uint8 UINT16  = 4\n"
    "uint8 INT32   = 5\n"
    "uint8 UINT32  = 6\n"
    "uint8 FLOAT32 = 7\n"
    "uint8 FLOAT64 = 8\n"
    "string name\n"
    "uint32 offset\n"
    "uint8 datatype\n"
    "uint32 count\n";

const char kPointCloud2[] =
    "std_msgs/Header header\n"
    "uint32 height\n"
    "uint32 width\n"
    "sensor_msgs/PointField[] fields\n"
    "bool is_bigendian\n"
    "uint32 point_step\n"
    "uint32 row_step\n"
    "uint8[] data\n"
    "bool is_dense\n";

const char kRawCapture[] =
    "# One raw capture of the time-of-flight sensor, exactly as the depth library takes it.\n"
    "# header.stamp is the capture time.\n"
    "std_msgs/Header header\n"
    "# Sensor read-out: 0 dual frequency (four planes), 5 single frequency.\n"
    "int32 stream_type\n"
    "int32 device_type\n"
    "# Pixels of the depth image the capture gives.\n"
    "uint32 width\n"
    "uint32 height\n"
    "# 16 * width * height words for the dual-frequency stream, 4 * width * height for\n"
    "# the single-frequency one; words 188 and 190 of each plane hold the sensor's\n"
    "# temperature code.\n"
    "uint16[] words\n";

const char kFrameInfo[] =
    "# What is known about one raw capture besides its words; header.stamp is the\n"
    "# capture time.\n"
    "std_msgs/Header header\n"
    "# The capture's number in the session, from 0.\n"
    "uint64 sequence\n"
    "# Capture time in nanoseconds since the epoch.\n"
    "uint64 capture_time_ns\n"
    "# The sensor's temperature as it reports it, and in degrees Celsius.\n"
    "uint16 temperature_code\n"
    "float32 temperature_celsius\n"
    "int32 stream_type\n"
    "# Captures lost between the previous one and this one.\n"
    "uint32 frames_dropped\n";

std::string WithHeader(const char* own) {
    return own + Dependency("std_msgs/Header", kHeader) +
           Dependency("builtin_interfaces/Time", kTime);
}

struct Definition {
    const char* type_name;
    std::string text;
};

const Definition* Definitions() {
    static const Definition table[] = {
        {Image::kTypeName, WithHeader(kImage)},
        {CameraInfo::kTypeName,
         WithHeader(kCameraInfo) + Dependency("sensor_msgs/RegionOfInterest", kRegionOfInterest)},
        {PointCloud2::kTypeName,
         WithHeader(kPointCloud2) + Dependency("sensor_msgs/PointField", kPointField)},
        {RawCapture::kTypeName, WithHeader(kRawCapture)},
        {FrameInfo::kTypeName, WithHeader(kFrameInfo)},
        {nullptr, {}},
    };
    return table;
}

}  // namespace

const char* Ros2MsgDefinition(std::string_view type_name) {
    for (const Definition* d = Definitions(); d->type_name != nullptr; ++d) {
        if (type_name == d->type_name) return d->text.c_str();
    }
    return nullptr;
}

}  // namespace qvrec
