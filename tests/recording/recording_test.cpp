// The recordings' library: captures, their information, colour frames and the
// calibration round trip bit for bit for each compression; frames by index and by
// time agree with a plain pass; a recording cut short reads up to its last chunk.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <sstream>

#include <qvreconstruction/recording.h>

#include "recording/mcap_reader.h"
#include "recording/messages.h"

using namespace qvapi;

namespace {

std::string TempPath(const std::string& name)
{
    return ::testing::TempDir() + "/recording_test_" + std::to_string(::getpid()) + "_" + name;
}

constexpr int kW = 64, kH = 48;  // small single-frequency captures
constexpr uint64_t kT0 = 1700000000000000000ull, kPeriod = 33333333ull;

struct Session {
    std::vector<std::vector<uint16_t>> words;
    std::vector<std::vector<uint8_t>> colour;
    std::vector<uint64_t> colourTimes;
};

Session WriteSession(const std::string& path, RecordingCompression compression, int frames)
{
    Session s;
    std::remove(path.c_str());
    RecordingWriter w;
    RecordingSetup setup;
    setup.device = DEVICE_GENERIC;
    setup.stream = STREAM_SINGLE_FREQ;
    setup.moduleLabel = "module-7";
    setup.calibrationYaml = "full:\n  label: module-7\n";
    setup.algorithmVersion = "test-version";
    RecordingOptions options;
    options.compression = compression;
    options.chunkBytes = 40000;  // a few captures per chunk
    RecordingStatus st = w.Open(path, setup, options);
    EXPECT_TRUE(st.ok()) << st.message;
    std::mt19937 rng(11);
    for (int i = 0; i < frames; ++i) {
        CaptureFrame c;
        c.stream = STREAM_SINGLE_FREQ;
        c.width = kW;
        c.height = kH;
        s.words.emplace_back(4 * kW * kH);
        for (uint16_t& v : s.words.back()) v = static_cast<uint16_t>(rng() & 0xFFF);
        c.words = s.words.back().data();
        c.wordCount = s.words.back().size();
        c.timeNs = kT0 + kPeriod * static_cast<uint64_t>(i) + (i > 10 ? kPeriod : 0);  // one frame lost
        c.sequence = static_cast<uint64_t>(i + (i > 10));
        c.temperatureCode = static_cast<uint16_t>(1000 + i);
        c.temperatureC = 30.0f + 0.25f * static_cast<float>(i);
        c.framesDropped = i == 11 ? 1 : 0;
        EXPECT_TRUE(w.WriteCapture(c).ok());
        if (i % 2 == 0) {  // colour at half the rate, 5 ms after the capture
            s.colour.emplace_back(32 * 16 * 3 / 2, static_cast<uint8_t>(i));
            s.colourTimes.push_back(c.timeNs + 5000000);
            EXPECT_TRUE(w.WriteColour(c.timeNs + 5000000, s.colour.back().data(), 32, 16).ok());
        }
    }
    st = w.Close();
    EXPECT_TRUE(st.ok()) << st.message;
    return s;
}

void ExpectFrame(const Session& s, const RecordedFrame& f, uint64_t i)
{
    ASSERT_LT(i, s.words.size());
    EXPECT_EQ(f.index, i);
    EXPECT_EQ(f.stream, STREAM_SINGLE_FREQ);
    EXPECT_EQ(f.width, kW);
    EXPECT_EQ(f.height, kH);
    EXPECT_TRUE(f.words == s.words[i]) << i;
    const uint64_t t = kT0 + kPeriod * i + (i > 10 ? kPeriod : 0);
    EXPECT_EQ(f.timeNs, t);
    EXPECT_EQ(f.sequence, i + (i > 10));
    EXPECT_EQ(f.temperatureCode, 1000 + i);
    EXPECT_EQ(f.temperatureC, 30.0f + 0.25f * static_cast<float>(i));
    EXPECT_EQ(f.framesDropped, i == 11 ? 1u : 0u);
    // The nearest colour frame, found by trying every one.
    ASSERT_TRUE(f.hasColour) << i;
    size_t nearest = 0;
    uint64_t best = UINT64_MAX;
    for (size_t c = 0; c < s.colourTimes.size(); ++c) {
        const uint64_t gap = s.colourTimes[c] > t ? s.colourTimes[c] - t : t - s.colourTimes[c];
        if (gap < best) best = gap, nearest = c;
    }
    EXPECT_EQ(f.colourTimeNs, s.colourTimes[nearest]);
    EXPECT_EQ(f.colourWidth, 32);
    EXPECT_EQ(f.colourHeight, 16);
    EXPECT_EQ(f.nv12, s.colour[nearest]) << i;
}

class Compressions : public ::testing::TestWithParam<RecordingCompression> {};

TEST_P(Compressions, CapturesInformationColourAndCalibrationRoundTrip)
{
    const std::string path = TempPath("rt" + std::to_string(int(GetParam())));
    const Session s = WriteSession(path, GetParam(), 30);
    RecordingReader r;
    RecordingStatus st = r.Open(path);
    ASSERT_TRUE(st.ok()) << st.message;
    EXPECT_FALSE(r.IndexRebuilt());
    EXPECT_EQ(r.FrameCount(), 30u);
    EXPECT_EQ(r.CalibrationYaml(), "full:\n  label: module-7\n");
    EXPECT_EQ(r.Stream(), STREAM_SINGLE_FREQ);
    EXPECT_EQ(r.ModuleLabel(), "module-7");
    EXPECT_EQ(r.Metadata().at("algorithm_version"), "test-version");
    EXPECT_EQ(r.FirstTimeNs(), kT0);
    EXPECT_GE(r.LastTimeNs(), kT0 + kPeriod * 30);
    bool sawRaw = false;
    for (const RecordingChannel& c : r.Channels())
        if (c.topic == "/qv/raw") sawRaw = c.schemaName == "qvreconstruction_msgs/msg/RawCapture" && c.messages == 30;
    EXPECT_TRUE(sawRaw);
    RecordedFrame f;
    for (uint64_t i = 0; i < 30; ++i) {
        ASSERT_TRUE((st = r.Next(f)).ok()) << st.message;
        ExpectFrame(s, f, i);
    }
    EXPECT_EQ(r.Next(f).code, RECORDING_END);
    std::remove(path.c_str());
}
INSTANTIATE_TEST_SUITE_P(Recording, Compressions,
                         ::testing::Values(RecordingCompression::None, RecordingCompression::Lz4,
                                           RecordingCompression::Zstd));

TEST(RecordingSeek, ByIndexAndTimeAgreeWithAPlainPass)
{
    const std::string path = TempPath("seek");
    const Session s = WriteSession(path, RecordingCompression::Lz4, 40);
    RecordingReader r;
    ASSERT_TRUE(r.Open(path).ok());
    std::vector<uint64_t> times;
    RecordedFrame f;
    while (r.Next(f).ok()) times.push_back(f.timeNs);
    ASSERT_EQ(times.size(), 40u);
    for (uint64_t i : {39u, 0u, 17u, 11u, 12u, 3u}) {
        ASSERT_TRUE(r.SeekFrame(i).ok());
        ASSERT_TRUE(r.Next(f).ok());
        ExpectFrame(s, f, i);
        // Next then Previous read the same frame; Previous again the one before.
        ASSERT_TRUE(r.Previous(f).ok());
        EXPECT_EQ(f.index, i);
        EXPECT_EQ(r.Previous(f).code, i == 0 ? RECORDING_END : RECORDING_OK);
        // The first frame at or after a time, exact and between two frames.
        ASSERT_TRUE(r.SeekTime(times[i]).ok());
        ASSERT_TRUE(r.Next(f).ok());
        EXPECT_EQ(f.index, i);
        ASSERT_TRUE(r.SeekTime(times[i] - 1).ok());
        ASSERT_TRUE(r.Next(f).ok());
        EXPECT_EQ(f.index, i);
    }
    ASSERT_TRUE(r.SeekTime(times.back() + 1).ok());
    EXPECT_EQ(r.Next(f).code, RECORDING_END);
    EXPECT_EQ(r.SeekFrame(41).code, RECORDING_INVALID_ARGUMENT);
    std::remove(path.c_str());
}

TEST(RecordingDamage, ACutRecordingReadsUpToItsLastCompleteChunk)
{
    const std::string path = TempPath("cut");
    const Session s = WriteSession(path, RecordingCompression::Zstd, 30);
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string bytes = ss.str();
    uint64_t previous = 0;
    for (size_t cut : {bytes.size() / 4, bytes.size() / 2, bytes.size() - 200, bytes.size() - 1}) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes.substr(0, cut);
        RecordingReader r;
        ASSERT_TRUE(r.Open(path).ok());
        EXPECT_TRUE(r.IndexRebuilt());
        EXPECT_FALSE(r.Problems().empty());
        EXPECT_EQ(r.CalibrationYaml(), "full:\n  label: module-7\n");
        EXPECT_GE(r.FrameCount(), previous);
        if (cut < bytes.size() / 2 + 1) {
            EXPECT_LT(r.FrameCount(), 30u);
        }
        EXPECT_LE(r.FrameCount(), 30u);
        previous = r.FrameCount();
        RecordedFrame f;
        for (uint64_t i = 0; i < r.FrameCount(); ++i) {
            ASSERT_TRUE(r.Next(f).ok());
            EXPECT_TRUE(f.words == s.words[i]);
        }
    }
    EXPECT_EQ(previous, 30u);  // only the summary was cut
    std::remove(path.c_str());
}

TEST(RecordingCalls, BadCallsAreRefusedWithoutAFile)
{
    RecordingWriter w;
    CaptureFrame c;
    EXPECT_EQ(w.WriteCapture(c).code, RECORDING_INVALID_ARGUMENT);
    const std::string path = TempPath("calls");
    std::remove(path.c_str());
    ASSERT_TRUE(w.Open(path, {}, {}).ok());
    std::vector<uint16_t> words(16 * 4 * 4);
    c.stream = STREAM_DUAL_FREQ;
    c.width = 4;
    c.height = 4;
    c.words = words.data();
    c.wordCount = words.size() - 1;  // one word short
    EXPECT_EQ(w.WriteCapture(c).code, RECORDING_INVALID_ARGUMENT);
    c.width = INT32_MAX;
    c.wordCount = words.size();
    EXPECT_EQ(w.WriteCapture(c).code, RECORDING_INVALID_ARGUMENT);
    EXPECT_EQ(w.WriteColour(0, words.data() ? nullptr : nullptr, 4, 4).code, RECORDING_INVALID_ARGUMENT);
    EXPECT_TRUE(w.Close().ok());
    RecordingReader r;
    EXPECT_TRUE(r.Open(path).ok());
    EXPECT_EQ(r.FrameCount(), 0u);
    RecordedFrame f;
    EXPECT_EQ(r.Next(f).code, RECORDING_END);
    EXPECT_EQ(r.Open(path + ".missing").code, RECORDING_IO_ERROR);
    std::remove(path.c_str());
}

// Camera infos come back on their cameras' topics with the lens as written, in ROS's
// matrix layout; a lens that describes no camera is refused.
TEST(RecordingCameraInfo, LensesRoundTripOnTheirCamerasTopics)
{
    const std::string path = TempPath("camera_info");
    std::remove(path.c_str());
    RecordingWriter w;
    RecordingOptions options;
    options.compression = RecordingCompression::Zstd;
    ASSERT_TRUE(w.Open(path, {}, options).ok());
    Intrinsics depth{}, colour{};
    depth.width = 640, depth.height = 480, depth.fx = 525.5f, depth.fy = 524.25f, depth.cx = 319.75f,
    depth.cy = 241.5f, depth.k1 = -0.125f, depth.k2 = 0.0625f, depth.p1 = 0.001f, depth.p2 = -0.002f,
    depth.k3 = 0.01f;
    colour.width = 1920, colour.height = 1080, colour.fx = 1400.0f, colour.fy = 1401.0f, colour.cx = 960.5f,
    colour.cy = 539.5f;
    EXPECT_TRUE(w.WriteCameraInfo(RecordedCamera::Depth, kT0, depth).ok());
    EXPECT_TRUE(w.WriteCameraInfo(RecordedCamera::Colour, kT0 + 1, colour).ok());
    Intrinsics bad = depth;
    bad.fx = 0.0f;
    EXPECT_EQ(w.WriteCameraInfo(RecordedCamera::Depth, kT0, bad).code, RECORDING_INVALID_ARGUMENT);
    bad = depth;
    bad.k1 = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(w.WriteCameraInfo(RecordedCamera::Depth, kT0, bad).code, RECORDING_INVALID_ARGUMENT);
    bad = depth;
    bad.height = 0;
    EXPECT_EQ(w.WriteCameraInfo(RecordedCamera::Colour, kT0, bad).code, RECORDING_INVALID_ARGUMENT);
    ASSERT_TRUE(w.Close().ok());

    RecordingReader r;
    ASSERT_TRUE(r.Open(path).ok());
    std::map<std::string, uint64_t> counts;
    for (const RecordingChannel& c : r.Channels()) {
        counts[c.topic] = c.messages;
        if (c.topic.find("camera_info") != std::string::npos) {
            EXPECT_EQ(c.schemaName, "sensor_msgs/msg/CameraInfo");
        }
    }
    EXPECT_EQ(counts["/qv/depth/camera_info"], 1u);
    EXPECT_EQ(counts["/qv/colour/camera_info"], 1u);
    EXPECT_EQ(r.Storage().compression, "zstd");

    std::unique_ptr<qvrec::mcap::Source> source;
    ASSERT_TRUE(qvrec::mcap::OpenFileSource(path, source).ok());
    qvrec::mcap::Reader mr;
    ASSERT_TRUE(mr.Open(std::move(source), path).ok());
    std::map<std::string, qvrec::CameraInfo> infos;
    for (size_t i = 0; i < mr.Chunks().size(); ++i) {
        qvrec::mcap::LoadedChunk chunk;
        ASSERT_TRUE(mr.LoadChunk(i, chunk).ok());
        for (const auto& kv : mr.Channels()) {
            qvrec::mcap::MessageIndex index;
            ASSERT_TRUE(mr.ReadMessageIndex(i, kv.first, index).ok());
            for (const auto& e : index.records) {
                qvrec::mcap::Message m;
                ASSERT_TRUE(mr.ReadMessage(chunk, e.second, m).ok());
                qvrec::CameraInfo info;
                std::string error;
                ASSERT_TRUE(qvrec::Decode(reinterpret_cast<const uint8_t*>(m.data.data()), m.data.size(), &info,
                                          &error)) << error;
                infos[kv.second.topic] = info;
            }
        }
    }
    ASSERT_EQ(infos.size(), 2u);
    const qvrec::CameraInfo& d = infos["/qv/depth/camera_info"];
    EXPECT_EQ(d.header.frame_id, "qv_depth");
    EXPECT_EQ(d.width, 640u);
    EXPECT_EQ(d.height, 480u);
    EXPECT_EQ(d.distortion_model, "plumb_bob");
    EXPECT_EQ(d.d, (std::vector<double>{-0.125f, 0.0625f, 0.001f, -0.002f, 0.01f}));
    EXPECT_EQ(d.k, (std::array<double, 9>{525.5, 0, 319.75, 0, 524.25, 241.5, 0, 0, 1}));
    EXPECT_EQ(d.p, (std::array<double, 12>{525.5, 0, 319.75, 0, 0, 524.25, 241.5, 0, 0, 0, 1, 0}));
    EXPECT_EQ(d.r, (std::array<double, 9>{1, 0, 0, 0, 1, 0, 0, 0, 1}));
    const qvrec::CameraInfo& c = infos["/qv/colour/camera_info"];
    EXPECT_EQ(c.header.frame_id, "qv_colour");
    EXPECT_EQ(c.header.stamp.ToNanoseconds(), kT0 + 1);
    EXPECT_EQ(c.width, 1920u);
    EXPECT_EQ(c.k[2], 960.5);
    std::remove(path.c_str());
}

// The storage summary adds up the chunks: compressible captures take less room than
// their records, stored as written.
TEST(RecordingStorage, ChunksCompressionAndSizesAddUp)
{
    for (RecordingCompression compression : {RecordingCompression::None, RecordingCompression::Lz4}) {
        const std::string path = TempPath("storage");
        WriteSession(path, compression, 12);
        RecordingReader r;
        ASSERT_TRUE(r.Open(path).ok());
        const RecordingStorage st = r.Storage();
        EXPECT_EQ(st.compression, compression == RecordingCompression::None ? "none" : "lz4");
        EXPECT_GT(st.chunks, 1u);
        EXPECT_GT(st.recordBytes, 12u * 4 * kW * kH * 2);
        if (compression == RecordingCompression::None) {
            EXPECT_EQ(st.storedBytes, st.recordBytes);
        } else {
            EXPECT_LT(st.storedBytes, st.recordBytes);  // 12-bit words in 16 bits compress
        }
        EXPECT_GT(st.fileBytes, st.storedBytes);
        std::remove(path.c_str());
    }
}

}  // namespace
