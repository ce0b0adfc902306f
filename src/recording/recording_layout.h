// The channels, attachment and metadata of a recording, shared by its writer and
// reader (and documented for other readers in docs/recording.md).
#ifndef QVREC_RECORDING_LAYOUT_H
#define QVREC_RECORDING_LAYOUT_H

#include <cstdint>

#include <qvreconstruction/recording.h>

#include "recording/mcap_records.h"

namespace qvrec {

enum ChannelId : uint16_t {
    kRawChannel = 1,
    kInfoChannel = 2,
    kColourChannel = 3,
    kDepthChannel = 4,
    kIrChannel = 5,
    kRegisteredDepthChannel = 6,
    kPointsChannel = 7,
    kUndistortedColourChannel = 8,
    kDepthInfoChannel = 9,
    kColourInfoChannel = 10,
};

struct ChannelLayout {
    uint16_t id;
    const char* topic;
    const char* type;  // the schema's name
};
constexpr ChannelLayout kChannels[] = {
    {kRawChannel, "/qv/raw", "qvreconstruction_msgs/msg/RawCapture"},
    {kInfoChannel, "/qv/frame_info", "qvreconstruction_msgs/msg/FrameInfo"},
    {kColourChannel, "/qv/colour/image_raw", "sensor_msgs/msg/Image"},
    {kDepthChannel, "/qv/depth/image", "sensor_msgs/msg/Image"},
    {kIrChannel, "/qv/ir/image", "sensor_msgs/msg/Image"},
    {kRegisteredDepthChannel, "/qv/registered_depth/image", "sensor_msgs/msg/Image"},
    {kPointsChannel, "/qv/points", "sensor_msgs/msg/PointCloud2"},
    {kUndistortedColourChannel, "/qv/colour/image_undistorted", "sensor_msgs/msg/Image"},
    {kDepthInfoChannel, "/qv/depth/camera_info", "sensor_msgs/msg/CameraInfo"},
    {kColourInfoChannel, "/qv/colour/camera_info", "sensor_msgs/msg/CameraInfo"},
};

constexpr const char kProfile[] = "ros2";
constexpr const char kCalibrationAttachment[] = "calibration.yaml";
constexpr const char kMetadataName[] = "qvreconstruction";
constexpr const char kDepthFrame[] = "qv_depth";
constexpr const char kColourFrame[] = "qv_colour";

inline qvapi::RecordingStatus ToPublic(const mcap::Status& s)
{
    return qvapi::RecordingStatus{static_cast<int32_t>(s.code), s.message};
}

}  // namespace qvrec

#endif
