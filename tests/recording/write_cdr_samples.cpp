// Writes one of each recorded message type, CDR-encoded by our encoders, to standard
// output, each with its schema text and the field values an independent decoder must
// find in it (as JSON). tests/recording/node/cdr_samples.mjs puts them in an MCAP file
// with @mcap/core's writer and decodes them with @foxglove/rosmsg2-serialization.
//
// Output: "QVCDRSAMPLES\n", then per sample four blocks, each a little-endian uint32
// length and the bytes: type name, schema text, expected JSON, payload.
#include "recording/messages.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace qvrec;

// FNV-1a over the bytes, as the checking script computes it over the decoded array.
std::string Fnv1a(const void* data, size_t size) {
    uint32_t h = 2166136261u;
    const uint8_t* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) h = (h ^ p[i]) * 16777619u;
    char text[16];
    std::snprintf(text, sizeof text, "%08" PRIx32, h);
    return text;
}

std::string Bytes(const void* data, size_t size) {
    return "{\"$bytes\": {\"length\": " + std::to_string(size) + ", \"fnv1a\": \"" + Fnv1a(data, size) +
           "\"}}";
}

std::string Number(double v) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", v);
    return text;
}

template <size_t N>
std::string Numbers(const double (&v)[N]) {
    std::string s = "[";
    for (size_t i = 0; i < N; ++i) s += (i ? ", " : "") + Number(v[i]);
    return s + "]";
}
std::string Numbers(const std::vector<double>& v) {
    std::string s = "[";
    for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + Number(v[i]);
    return s + "]";
}

std::string HeaderJson(const Header& h) {
    return "{\"stamp\": {\"sec\": " + std::to_string(h.stamp.sec) + ", \"nanosec\": " +
           std::to_string(h.stamp.nanosec) + "}, \"frame_id\": \"" + h.frame_id + "\"}";
}

Header MakeHeader(uint64_t ns, const char* frame) {
    return {Time::FromNanoseconds(ns), frame};
}

void Block(const std::string& bytes) {
    const uint32_t n = static_cast<uint32_t>(bytes.size());
    const uint8_t length[4] = {uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), uint8_t(n >> 24)};
    std::fwrite(length, 1, 4, stdout);
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
}

template <typename M, typename Encodable>
void Sample(const Encodable& message, const std::string& expected) {
    std::vector<uint8_t> payload;
    Encode(message, &payload);
    Block(M::kTypeName);
    Block(Ros2MsgDefinition(M::kTypeName));
    Block(expected);
    Block(std::string(payload.begin(), payload.end()));
}

void Images() {
    for (const char* encoding : {"16UC1", "mono16"}) {
        Image m;
        m.header = MakeHeader(1'700'000'000'033'333'333ull, "tof_optical_frame");
        m.width = 7;
        m.height = 5;
        m.encoding = encoding;
        m.step = 14;
        for (int i = 0; i < 70; ++i) m.data.push_back(static_cast<uint8_t>(i * 11 + 3));
        Sample<Image>(m, "{\"header\": " + HeaderJson(m.header) +
                             ", \"height\": 5, \"width\": 7, \"encoding\": \"" + encoding +
                             "\", \"is_bigendian\": 0, \"step\": 14, \"data\": " +
                             Bytes(m.data.data(), m.data.size()) + "}");
    }
}

void CameraInfos() {
    CameraInfo m;
    m.header = MakeHeader(1'700'000'000'000'000'001ull, "colour_optical_frame");
    m.width = 1920;
    m.height = 1080;
    m.distortion_model = "plumb_bob";
    m.d = {-0.125, 0.0625, 0.001953125, -0.0009765625, 0.5};
    const double k[9] = {1400.5, 0, 960.25, 0, 1401.75, 540.5, 0, 0, 1};
    const double r[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double p[12] = {1400.5, 0, 960.25, -70.125, 0, 1401.75, 540.5, 0, 0, 0, 1, 0};
    std::copy(k, k + 9, m.k.begin());
    std::copy(r, r + 9, m.r.begin());
    std::copy(p, p + 12, m.p.begin());
    m.binning_x = 1;
    m.binning_y = 2;
    m.roi = {3, 4, 50, 60, true};
    Sample<CameraInfo>(m, "{\"header\": " + HeaderJson(m.header) +
                              ", \"height\": 1080, \"width\": 1920, \"distortion_model\": "
                              "\"plumb_bob\", \"d\": " + Numbers(m.d) + ", \"k\": " + Numbers(k) +
                              ", \"r\": " + Numbers(r) + ", \"p\": " + Numbers(p) +
                              ", \"binning_x\": 1, \"binning_y\": 2, \"roi\": {\"x_offset\": 3, "
                              "\"y_offset\": 4, \"height\": 50, \"width\": 60, \"do_rectify\": true}}");
}

void PointClouds() {
    PointCloud2 m;
    m.header = MakeHeader(1'700'000'000'066'666'667ull, "tof");
    m.width = 4;
    m.height = 3;
    m.fields = XyzFloat32Fields();
    m.fields.push_back({"ir", 12, PointField::UINT16, 1});
    m.point_step = 14;
    m.row_step = 56;
    m.data.resize(168);
    for (size_t i = 0; i < m.data.size(); ++i) m.data[i] = static_cast<uint8_t>(i * 7);
    m.is_dense = false;
    Sample<PointCloud2>(
        m, "{\"header\": " + HeaderJson(m.header) +
               ", \"height\": 3, \"width\": 4, \"fields\": ["
               "{\"name\": \"x\", \"offset\": 0, \"datatype\": 7, \"count\": 1}, "
               "{\"name\": \"y\", \"offset\": 4, \"datatype\": 7, \"count\": 1}, "
               "{\"name\": \"z\", \"offset\": 8, \"datatype\": 7, \"count\": 1}, "
               "{\"name\": \"ir\", \"offset\": 12, \"datatype\": 4, \"count\": 1}], "
               "\"is_bigendian\": false, \"point_step\": 14, \"row_step\": 56, \"data\": " +
               Bytes(m.data.data(), m.data.size()) + ", \"is_dense\": false}");
}

// Both streams at full size: 320 x 240 with one plane, 640 x 480 with four.
void RawCaptures() {
    for (int dual = 0; dual < 2; ++dual) {
        RawCapture m;
        m.header = MakeHeader(1'700'000'000'100'000'000ull + dual, "tof");
        m.stream_type = dual ? 0 : 5;
        m.device_type = 4;
        m.width = dual ? 640 : 320;
        m.height = dual ? 480 : 240;
        m.words.resize(size_t{dual ? 16u : 4u} * m.width * m.height);
        for (size_t i = 0; i < m.words.size(); ++i) m.words[i] = static_cast<uint16_t>(i * 40503u + 17);
        Sample<RawCapture>(m, "{\"header\": " + HeaderJson(m.header) + ", \"stream_type\": " +
                                  std::to_string(m.stream_type) + ", \"device_type\": 4, \"width\": " +
                                  std::to_string(m.width) + ", \"height\": " + std::to_string(m.height) +
                                  ", \"words\": " + Bytes(m.words.data(), m.words.size() * 2) + "}");
    }
}

void FrameInfos() {
    for (uint64_t i = 0; i < 3; ++i) {
        FrameInfo m;
        m.capture_time_ns = 1'700'000'000'100'000'000ull + i * 33'333'333ull;
        m.header = MakeHeader(m.capture_time_ns, "tof");
        m.sequence = 4'294'967'296ull + i * 2;  // past 32 bits: a 64-bit field
        m.temperature_code = static_cast<uint16_t>(0x0F00 + i);
        m.temperature_celsius = 40.25f + static_cast<float>(i);
        m.stream_type = 0;
        m.frames_dropped = static_cast<uint32_t>(i == 0 ? 0 : 1);
        Sample<FrameInfo>(m, "{\"header\": " + HeaderJson(m.header) + ", \"sequence\": \"" +
                                 std::to_string(m.sequence) + "\", \"capture_time_ns\": \"" +
                                 std::to_string(m.capture_time_ns) + "\", \"temperature_code\": " +
                                 std::to_string(m.temperature_code) + ", \"temperature_celsius\": " +
                                 Number(m.temperature_celsius) + ", \"stream_type\": 0, \"frames_dropped\": " +
                                 std::to_string(m.frames_dropped) + "}");
    }
}

}  // namespace

int main() {
    std::fputs("QVCDRSAMPLES\n", stdout);
    Images();
    CameraInfos();
    PointClouds();
    RawCaptures();
    FrameInfos();
    return std::fflush(stdout) == 0 ? 0 : 1;
}
