// The recorded messages' CDR encoding: round trips, the wire layout, and decoders
// that refuse truncated or hostile bytes without reading or allocating past them.
#include "recording/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <sstream>

// The largest single allocation since the last reset: a decoder given a length field
// it cannot satisfy must refuse before allocating for it.
static std::atomic<size_t> g_largest_allocation{0};

// (Not inlined: the compiler would otherwise see malloc's pointer reach free through
// delete and warn about a mismatch that replacing both operators makes correct.)
__attribute__((noinline)) void* operator new(size_t n) {
    size_t seen = g_largest_allocation.load();
    while (n > seen && !g_largest_allocation.compare_exchange_weak(seen, n)) {
    }
    if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace qvrec {
namespace {

Header MakeHeader(const char* frame) {
    Header h;
    h.stamp = Time::FromNanoseconds(1'700'000'123'456'789'012ull);
    h.frame_id = frame;
    return h;
}

template <typename M>
std::vector<uint8_t> Bytes(const M& m) {
    std::vector<uint8_t> out;
    Encode(m, &out);
    return out;
}

template <typename M>
M RoundTrip(const M& m) {
    const std::vector<uint8_t> bytes = Bytes(m);
    M back;
    std::string error;
    EXPECT_TRUE(Decode(bytes.data(), bytes.size(), &back, &error)) << error;
    return back;
}

void ExpectSameHeader(const Header& a, const Header& b) {
    EXPECT_EQ(a.stamp.sec, b.stamp.sec);
    EXPECT_EQ(a.stamp.nanosec, b.stamp.nanosec);
    EXPECT_EQ(a.frame_id, b.frame_id);
}

Image SampleImage() {
    Image m;
    m.header = MakeHeader("tof");  // 4 bytes with the NUL: the fields after stay aligned
    m.height = 3;
    m.width = 5;
    m.encoding = "16UC1";
    m.step = 10;
    for (int i = 0; i < 30; ++i) m.data.push_back(static_cast<uint8_t>(i * 37 + 1));
    return m;
}

CameraInfo SampleCameraInfo() {
    CameraInfo m;
    m.header = MakeHeader("colour_optical");  // odd length: the doubles need padding
    m.height = 1080;
    m.width = 1920;
    m.distortion_model = "plumb_bob";
    m.d = {-0.125, 0.0625, 1e-4, -2e-4, 0.5};
    for (int i = 0; i < 9; ++i) m.k[i] = 100.5 * i - 3;
    for (int i = 0; i < 9; ++i) m.r[i] = i % 4 == 0 ? 1.0 : 0.0;
    for (int i = 0; i < 12; ++i) m.p[i] = 0.25 * i;
    m.binning_x = 2;
    m.binning_y = 3;
    m.roi = {10, 20, 30, 40, true};
    return m;
}

PointCloud2 SamplePointCloud() {
    PointCloud2 m;
    m.header = MakeHeader("tof");
    m.height = 2;
    m.width = 3;
    m.fields = XyzFloat32Fields();
    m.fields.push_back({"intensity", 12, PointField::UINT16, 1});
    m.point_step = 14;
    m.row_step = 42;
    m.data.resize(84);
    for (size_t i = 0; i < m.data.size(); ++i) m.data[i] = static_cast<uint8_t>(255 - i);
    m.is_dense = true;
    return m;
}

RawCapture SampleCapture(uint32_t width, uint32_t height, uint32_t planes) {
    RawCapture m;
    m.header = MakeHeader("tof");
    m.stream_type = planes == 4 ? 0 : 5;
    m.device_type = 4;
    m.width = width;
    m.height = height;
    m.words.resize(size_t{4} * planes * width * height);
    for (size_t i = 0; i < m.words.size(); ++i) m.words[i] = static_cast<uint16_t>(i * 2654435761u >> 7);
    return m;
}

FrameInfo SampleFrameInfo() {
    FrameInfo m;
    m.header = MakeHeader("ab");
    m.sequence = 0x0102030405060708ull;
    m.capture_time_ns = 1'700'000'123'456'789'012ull;
    m.temperature_code = 0xA1B2;
    m.temperature_celsius = 41.5f;
    m.stream_type = 5;
    m.frames_dropped = 0xDEADBEEF;
    return m;
}

TEST(RecordingMessages, EveryTypeComesBackFieldForField) {
    const Image image = SampleImage();
    const Image image_back = RoundTrip(image);
    ExpectSameHeader(image.header, image_back.header);
    EXPECT_EQ(image_back.height, image.height);
    EXPECT_EQ(image_back.width, image.width);
    EXPECT_EQ(image_back.encoding, image.encoding);
    EXPECT_EQ(image_back.is_bigendian, image.is_bigendian);
    EXPECT_EQ(image_back.step, image.step);
    EXPECT_EQ(image_back.data, image.data);

    const CameraInfo info = SampleCameraInfo();
    const CameraInfo info_back = RoundTrip(info);
    ExpectSameHeader(info.header, info_back.header);
    EXPECT_EQ(info_back.height, info.height);
    EXPECT_EQ(info_back.width, info.width);
    EXPECT_EQ(info_back.distortion_model, info.distortion_model);
    EXPECT_EQ(info_back.d, info.d);
    EXPECT_EQ(info_back.k, info.k);
    EXPECT_EQ(info_back.r, info.r);
    EXPECT_EQ(info_back.p, info.p);
    EXPECT_EQ(info_back.binning_x, info.binning_x);
    EXPECT_EQ(info_back.binning_y, info.binning_y);
    EXPECT_EQ(info_back.roi.x_offset, 10u);
    EXPECT_EQ(info_back.roi.y_offset, 20u);
    EXPECT_EQ(info_back.roi.height, 30u);
    EXPECT_EQ(info_back.roi.width, 40u);
    EXPECT_TRUE(info_back.roi.do_rectify);

    const PointCloud2 cloud = SamplePointCloud();
    const PointCloud2 cloud_back = RoundTrip(cloud);
    ExpectSameHeader(cloud.header, cloud_back.header);
    EXPECT_EQ(cloud_back.height, cloud.height);
    EXPECT_EQ(cloud_back.width, cloud.width);
    ASSERT_EQ(cloud_back.fields.size(), cloud.fields.size());
    for (size_t i = 0; i < cloud.fields.size(); ++i) {
        EXPECT_EQ(cloud_back.fields[i].name, cloud.fields[i].name);
        EXPECT_EQ(cloud_back.fields[i].offset, cloud.fields[i].offset);
        EXPECT_EQ(cloud_back.fields[i].datatype, cloud.fields[i].datatype);
        EXPECT_EQ(cloud_back.fields[i].count, cloud.fields[i].count);
    }
    EXPECT_EQ(cloud_back.is_bigendian, cloud.is_bigendian);
    EXPECT_EQ(cloud_back.point_step, cloud.point_step);
    EXPECT_EQ(cloud_back.row_step, cloud.row_step);
    EXPECT_EQ(cloud_back.data, cloud.data);
    EXPECT_TRUE(cloud_back.is_dense);

    const FrameInfo frame = SampleFrameInfo();
    const FrameInfo frame_back = RoundTrip(frame);
    ExpectSameHeader(frame.header, frame_back.header);
    EXPECT_EQ(frame_back.sequence, frame.sequence);
    EXPECT_EQ(frame_back.capture_time_ns, frame.capture_time_ns);
    EXPECT_EQ(frame_back.temperature_code, frame.temperature_code);
    EXPECT_EQ(frame_back.temperature_celsius, frame.temperature_celsius);
    EXPECT_EQ(frame_back.stream_type, frame.stream_type);
    EXPECT_EQ(frame_back.frames_dropped, frame.frames_dropped);
}

TEST(RecordingMessages, FullStreamCapturesKeepEveryWord) {
    for (uint32_t planes : {1u, 4u}) {
        const RawCapture capture = planes == 4 ? SampleCapture(640, 480, 4) : SampleCapture(320, 240, 1);
        const RawCapture back = RoundTrip(capture);
        ExpectSameHeader(capture.header, back.header);
        EXPECT_EQ(back.stream_type, capture.stream_type);
        EXPECT_EQ(back.device_type, capture.device_type);
        EXPECT_EQ(back.width, capture.width);
        EXPECT_EQ(back.height, capture.height);
        EXPECT_TRUE(back.words == capture.words) << "planes " << planes;
    }
}

// The layout ROS 2 readers expect, byte for byte: alignment counts from the end of the
// encapsulation header, so the uint64 after the 3-byte frame id "ab" starts at 16 there
// (20 in the buffer), and the float after the uint16 is padded to 4.
TEST(RecordingMessages, FrameInfoLayoutIsXcdr1LittleEndian) {
    FrameInfo m = SampleFrameInfo();
    m.header.stamp = {0x11223344, 0x55667788};
    const std::vector<uint8_t> expected = {
        0x00, 0x01, 0x00, 0x00,                          // CDR little-endian
        0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55,  // stamp
        0x03, 0x00, 0x00, 0x00, 'a',  'b',  0x00, 0x00,  // frame_id, 1 byte padding
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // sequence
        0x14, 0x1A, 0xC3, 0xF4, 0x1A, 0x9D, 0x97, 0x17,  // capture_time_ns
        0xB2, 0xA1, 0x00, 0x00,                          // temperature_code, padding
        0x00, 0x00, 0x26, 0x42,                          // 41.5f
        0x05, 0x00, 0x00, 0x00,                          // stream_type
        0xEF, 0xBE, 0xAD, 0xDE,                          // frames_dropped
    };
    EXPECT_EQ(Bytes(m), expected);
    EXPECT_EQ(EncodedSize(m), expected.size());
}

// A container serializes behind its own record header: the padding must not depend on
// where in the vector the message starts, and the bytes before it stay as they were.
TEST(RecordingMessages, EncodingAppendsAndSizesExactly) {
    const CameraInfo info = SampleCameraInfo();
    const std::vector<uint8_t> alone = Bytes(info);
    EXPECT_EQ(EncodedSize(info), alone.size());
    for (size_t prefix = 0; prefix < 9; ++prefix) {
        std::vector<uint8_t> out(prefix, 0xEE);
        Encode(info, &out);
        ASSERT_EQ(out.size(), prefix + alone.size());
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + prefix), std::vector<uint8_t>(prefix, 0xEE));
        EXPECT_TRUE(std::equal(alone.begin(), alone.end(), out.begin() + prefix)) << prefix;
    }
    const RawCapture capture = SampleCapture(8, 2, 4);
    EXPECT_EQ(EncodedSize(capture.View()), Bytes(capture).size());
    const PointCloud2 cloud = SamplePointCloud();
    EXPECT_EQ(EncodedSize(cloud.View()), Bytes(cloud).size());
    const Image image = SampleImage();
    EXPECT_EQ(EncodedSize(image.View()), Bytes(image).size());
}

// Every strict prefix of a message is refused (each byte belongs to some field), and
// the whole message still decodes.
template <typename M>
void ExpectEveryPrefixRefused(const M& m) {
    const std::vector<uint8_t> bytes = Bytes(m);
    M out;
    std::string error;
    for (size_t n = 0; n < bytes.size(); ++n) {
        // A copy of exactly n bytes, so that a read past them is caught by the sanitizers.
        std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + n);
        EXPECT_FALSE(Decode(cut.data(), cut.size(), &out, &error)) << M::kTypeName << " cut at " << n;
        EXPECT_NE(error.find(M::kTypeName), std::string::npos) << error;
    }
    EXPECT_TRUE(Decode(bytes.data(), bytes.size(), &out, &error)) << error;
}

TEST(RecordingMessages, TruncatedMessagesAreRefused) {
    ExpectEveryPrefixRefused(SampleImage());
    ExpectEveryPrefixRefused(SampleCameraInfo());
    ExpectEveryPrefixRefused(SamplePointCloud());
    ExpectEveryPrefixRefused(SampleCapture(4, 2, 4));
    ExpectEveryPrefixRefused(SampleFrameInfo());
}

void PutU32(std::vector<uint8_t>* bytes, size_t at, uint32_t v) {
    ASSERT_LE(at + 4, bytes->size());
    for (int i = 0; i < 4; ++i) (*bytes)[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// Length fields claiming more than the message holds: refused with the field named,
// and no allocation for what was claimed.
TEST(RecordingMessages, HostileLengthsAreRefusedWithoutAllocating) {
    std::string error;
    // Offsets in the buffer: header 4 + stamp 8 + frame_id "tof" (4 + 4) = 20.
    for (uint32_t claim : {0xFFFFFFFFu, 0x7FFFFFFFu, 1u << 24, 1000u}) {
        {
            std::vector<uint8_t> bytes = Bytes(SampleCapture(4, 2, 1));
            PutU32(&bytes, 20 + 16, claim);  // words' count after four 32-bit fields
            RawCapture out;
            g_largest_allocation = 0;
            EXPECT_FALSE(Decode(bytes.data(), bytes.size(), &out, &error)) << claim;
            EXPECT_LT(g_largest_allocation.load(), 4096u) << claim;
            EXPECT_NE(error.find("'words'"), std::string::npos) << error;
        }
        {
            std::vector<uint8_t> bytes = Bytes(SamplePointCloud());
            PutU32(&bytes, 20 + 8, claim);  // fields' count after height and width
            PointCloud2 out;
            g_largest_allocation = 0;
            EXPECT_FALSE(Decode(bytes.data(), bytes.size(), &out, &error)) << claim;
            EXPECT_LT(g_largest_allocation.load(), 8192u) << claim;
            EXPECT_NE(error.find("'fields"), std::string::npos) << error;
        }
        {
            std::vector<uint8_t> bytes = Bytes(SampleImage());
            PutU32(&bytes, 12, claim);  // frame_id's length
            Image out;
            g_largest_allocation = 0;
            EXPECT_FALSE(Decode(bytes.data(), bytes.size(), &out, &error)) << claim;
            EXPECT_LT(g_largest_allocation.load(), 4096u) << claim;
            EXPECT_NE(error.find("'header.frame_id'"), std::string::npos) << error;
        }
    }
    // One word more than the bytes left hold.
    {
        std::vector<uint8_t> bytes = Bytes(SampleCapture(4, 2, 1));
        PutU32(&bytes, 20 + 16, 33);
        RawCapture out;
        EXPECT_FALSE(Decode(bytes.data(), bytes.size(), &out, &error));
        PutU32(&bytes, 20 + 16, 32);
        EXPECT_TRUE(Decode(bytes.data(), bytes.size(), &out, &error)) << error;
    }
    // CameraInfo's d: eight bytes per element, so a count that would fit as bytes but
    // not as doubles is refused too.
    std::vector<uint8_t> bytes = Bytes(SampleCameraInfo());
    const size_t d_count_at = 4 + 8 + (4 + 15) + 1 + 8 + (4 + 10) + 2;  // after padding
    PutU32(&bytes, d_count_at, static_cast<uint32_t>(bytes.size() - d_count_at));
    CameraInfo out;
    EXPECT_FALSE(Decode(bytes.data(), bytes.size(), &out, &error));
    EXPECT_NE(error.find("'d'"), std::string::npos) << error;
}

TEST(RecordingMessages, OnlyLittleEndianPlainCdrIsAccepted) {
    std::vector<uint8_t> bytes = Bytes(SampleFrameInfo());
    FrameInfo out;
    std::string error;
    EXPECT_FALSE(Decode(nullptr, 0, &out, &error));
    bytes[1] = 0x00;  // big-endian CDR
    EXPECT_FALSE(Decode(bytes.data(), bytes.size(), &out, &error));
    EXPECT_NE(error.find("big-endian"), std::string::npos) << error;
    bytes[1] = 0x03;  // parameter-list CDR
    EXPECT_FALSE(Decode(bytes.data(), bytes.size(), &out, &error));
    bytes[1] = 0x01;
    bytes.push_back(0);  // padding a sender may leave after the message
    EXPECT_TRUE(Decode(bytes.data(), bytes.size(), &out, nullptr));
}

// A string whose length leaves out the terminating NUL is read as its sender wrote it.
TEST(RecordingMessages, StringsWithoutTheirNulAreReadWhole) {
    std::vector<uint8_t> bytes = Bytes(SampleFrameInfo());
    bytes[8 + 4] = 2;   // frame_id's length: "ab" without the NUL
    bytes[8 + 4 + 6] = 'c';  // the old NUL becomes padding
    FrameInfo out;
    std::string error;
    ASSERT_TRUE(Decode(bytes.data(), bytes.size(), &out, &error)) << error;
    EXPECT_EQ(out.header.frame_id, "ab");
    EXPECT_EQ(out.sequence, SampleFrameInfo().sequence);
}

TEST(RecordingMessages, TimesConvertFromAndToNanoseconds) {
    const Time t = Time::FromNanoseconds(1'700'000'123'456'789'012ull);
    EXPECT_EQ(t.sec, 1'700'000'123);
    EXPECT_EQ(t.nanosec, 456'789'012u);
    EXPECT_EQ(t.ToNanoseconds(), 1'700'000'123'456'789'012ull);
    EXPECT_EQ(Time::FromNanoseconds(~0ull).sec, 2147483647);
    EXPECT_EQ((Time{-5, 10}).ToNanoseconds(), 0u);
}

// Each schema names every type it uses in a "MSG:" section of its own, once, and
// nothing else; the sections follow the 80-character separator.
TEST(RecordingMessages, SchemasDefineEveryTypeTheyUse) {
    const std::string separator(80, '=');
    for (const char* name : {Image::kTypeName, CameraInfo::kTypeName, PointCloud2::kTypeName,
                             RawCapture::kTypeName, FrameInfo::kTypeName}) {
        const char* text = Ros2MsgDefinition(name);
        ASSERT_NE(text, nullptr) << name;
        std::istringstream lines(text);
        std::string line;
        std::set<std::string> used, defined;
        bool after_separator = false;
        while (std::getline(lines, line)) {
            if (line == separator) {
                after_separator = true;
                continue;
            }
            if (after_separator) {
                ASSERT_EQ(line.rfind("MSG: ", 0), 0u) << name << ": " << line;
                EXPECT_TRUE(defined.insert(line.substr(5)).second) << name << " twice: " << line;
                after_separator = false;
                continue;
            }
            if (line.empty() || line[0] == '#') continue;
            std::string type = line.substr(0, line.find(' '));
            type = type.substr(0, type.find('['));
            if (type.find('/') != std::string::npos) used.insert(type);
        }
        EXPECT_EQ(used, defined) << name;
        EXPECT_NE(used.count("std_msgs/Header"), 0u) << name;
    }
    EXPECT_EQ(Ros2MsgDefinition("sensor_msgs/msg/Imu"), nullptr);
    EXPECT_EQ(Ros2MsgDefinition("sensor_msgs/Image"), nullptr);
}

}  // namespace
}  // namespace qvrec
