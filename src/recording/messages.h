// The messages a recording carries, as plain structs, with their CDR encoding and
// their ROS 2 message definitions ("ros2msg" schema texts).
//
// The encoding is what ROS 2 puts on the wire and in its bags: XCDR1, little-endian,
// behind the 4-byte encapsulation header 00 01 00 00; every primitive is aligned to its
// own size (8 for 64-bit values) counted from the end of that header. Strings are a
// uint32 length that counts a terminating NUL, then the bytes and the NUL; sequences
// are a uint32 count and the elements; fixed arrays are the elements alone.
//
// Encoders append to a byte vector, so a container can serialize a message straight
// behind its own record header; EncodedSize gives the length beforehand. The bulk data
// of images, point clouds and raw captures is copied with one memcpy on little-endian
// hosts. The *View forms borrow that data from the caller instead of owning a vector.
//
// Decoders treat the bytes as hostile: they never read outside [data, data + size),
// never allocate more than the remaining bytes could hold, and on failure return
// false with a message naming the field, leaving *out in an unspecified but valid state.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvrec {

// Channel and schema encodings of MCAP's ros2 profile.
inline constexpr const char kMessageEncoding[] = "cdr";
inline constexpr const char kSchemaEncoding[] = "ros2msg";

// builtin_interfaces/msg/Time
struct Time {
    int32_t sec = 0;
    uint32_t nanosec = 0;

    // Nanoseconds since the epoch (sec saturates at INT32_MAX past 2038).
    static Time FromNanoseconds(uint64_t ns);
    uint64_t ToNanoseconds() const;  // 0 for times before the epoch
};

// std_msgs/msg/Header
struct Header {
    Time stamp;
    std::string frame_id;
};

// sensor_msgs/msg/Image
struct ImageView {
    Header header;
    uint32_t height = 0;
    uint32_t width = 0;
    std::string encoding;  // e.g. "16UC1", "mono16", "nv12", "bgr8"
    uint8_t is_bigendian = 0;
    uint32_t step = 0;  // bytes per row
    const uint8_t* data = nullptr;
    size_t data_size = 0;
};
struct Image {
    static constexpr const char kTypeName[] = "sensor_msgs/msg/Image";
    Header header;
    uint32_t height = 0;
    uint32_t width = 0;
    std::string encoding;
    uint8_t is_bigendian = 0;
    uint32_t step = 0;
    std::vector<uint8_t> data;

    ImageView View() const;
};

// sensor_msgs/msg/RegionOfInterest
struct RegionOfInterest {
    uint32_t x_offset = 0;
    uint32_t y_offset = 0;
    uint32_t height = 0;
    uint32_t width = 0;
    bool do_rectify = false;
};

// sensor_msgs/msg/CameraInfo
struct CameraInfo {
    static constexpr const char kTypeName[] = "sensor_msgs/msg/CameraInfo";
    Header header;
    uint32_t height = 0;
    uint32_t width = 0;
    std::string distortion_model;  // "plumb_bob": d = k1, k2, p1, p2, k3
    std::vector<double> d;
    std::array<double, 9> k{};   // 3 x 3 intrinsics, row-major
    std::array<double, 9> r{};   // 3 x 3 rectification rotation, row-major
    std::array<double, 12> p{};  // 3 x 4 projection, row-major
    uint32_t binning_x = 0;
    uint32_t binning_y = 0;
    RegionOfInterest roi;
};

// sensor_msgs/msg/PointField
struct PointField {
    enum DataType : uint8_t {
        INT8 = 1, UINT8 = 2, INT16 = 3, UINT16 = 4,
        INT32 = 5, UINT32 = 6, FLOAT32 = 7, FLOAT64 = 8,
    };
    std::string name;
    uint32_t offset = 0;
    uint8_t datatype = 0;
    uint32_t count = 0;
};

// The fields x, y, z as float32 at offsets 0, 4 and 8 (point_step 12).
std::vector<PointField> XyzFloat32Fields();

// sensor_msgs/msg/PointCloud2
struct PointCloud2View {
    Header header;
    uint32_t height = 0;
    uint32_t width = 0;
    std::vector<PointField> fields;
    bool is_bigendian = false;
    uint32_t point_step = 0;
    uint32_t row_step = 0;
    const uint8_t* data = nullptr;
    size_t data_size = 0;
    bool is_dense = false;
};
struct PointCloud2 {
    static constexpr const char kTypeName[] = "sensor_msgs/msg/PointCloud2";
    Header header;
    uint32_t height = 0;
    uint32_t width = 0;
    std::vector<PointField> fields;
    bool is_bigendian = false;
    uint32_t point_step = 0;
    uint32_t row_step = 0;
    std::vector<uint8_t> data;
    bool is_dense = false;

    PointCloud2View View() const;
};

// qvreconstruction_msgs/msg/RawCapture: one capture exactly as handed to
// CalculateDepth. words holds 4 * W * H words for the single-frequency stream and
// 16 * W * H (four planes) for the dual-frequency one; the sensor's temperature code
// is inside them. header.stamp is the capture time.
struct RawCaptureView {
    Header header;
    int32_t stream_type = 0;  // qvapi::StreamType
    int32_t device_type = 0;  // qvapi::DeviceType
    uint32_t width = 0;
    uint32_t height = 0;
    const uint16_t* words = nullptr;
    size_t word_count = 0;
};
struct RawCapture {
    static constexpr const char kTypeName[] = "qvreconstruction_msgs/msg/RawCapture";
    Header header;
    int32_t stream_type = 0;
    int32_t device_type = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint16_t> words;

    RawCaptureView View() const;
};

// qvreconstruction_msgs/msg/FrameInfo: what is known about one capture besides its
// words. header.stamp is the capture time, as capture_time_ns.
struct FrameInfo {
    static constexpr const char kTypeName[] = "qvreconstruction_msgs/msg/FrameInfo";
    Header header;
    uint64_t sequence = 0;             // the capture's number in the session, from 0
    uint64_t capture_time_ns = 0;      // nanoseconds since the epoch
    uint16_t temperature_code = 0;     // as the sensor reports it in the raw words
    float temperature_celsius = 0.0f;  // that code converted
    int32_t stream_type = 0;           // qvapi::StreamType
    uint32_t frames_dropped = 0;       // captures lost between the previous one and this
};

// Serialized length in bytes, encapsulation header included.
size_t EncodedSize(const ImageView& m);
size_t EncodedSize(const CameraInfo& m);
size_t EncodedSize(const PointCloud2View& m);
size_t EncodedSize(const RawCaptureView& m);
size_t EncodedSize(const FrameInfo& m);

// Appends the serialized message (encapsulation header included) to *out.
void Encode(const ImageView& m, std::vector<uint8_t>* out);
void Encode(const Image& m, std::vector<uint8_t>* out);
void Encode(const CameraInfo& m, std::vector<uint8_t>* out);
void Encode(const PointCloud2View& m, std::vector<uint8_t>* out);
void Encode(const PointCloud2& m, std::vector<uint8_t>* out);
void Encode(const RawCaptureView& m, std::vector<uint8_t>* out);
void Encode(const RawCapture& m, std::vector<uint8_t>* out);
void Encode(const FrameInfo& m, std::vector<uint8_t>* out);

// Reads one serialized message (encapsulation header included). Bytes after the
// message are allowed (a sender may pad). error may be null.
bool Decode(const uint8_t* data, size_t size, Image* out, std::string* error);
bool Decode(const uint8_t* data, size_t size, CameraInfo* out, std::string* error);
bool Decode(const uint8_t* data, size_t size, PointCloud2* out, std::string* error);
bool Decode(const uint8_t* data, size_t size, RawCapture* out, std::string* error);
bool Decode(const uint8_t* data, size_t size, FrameInfo* out, std::string* error);

// The message definition of a type named as in kTypeName, in the form MCAP's ros2
// profile stores as a schema: the type's own fields, then each type it uses once,
// after a line of 80 '=' and "MSG: pkg/Name". Null for a name not listed here.
const char* Ros2MsgDefinition(std::string_view type_name);

}  // namespace qvrec
