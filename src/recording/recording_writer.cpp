#include <qvreconstruction/recording.h>

#include <climits>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "recording/mcap_writer.h"
#include "recording/messages.h"
#include "recording/recording_layout.h"

namespace qvapi {

using namespace qvrec;

struct RecordingWriter::Impl {
    mcap::Writer writer;
    std::set<uint16_t> channels;  // added so far
    std::vector<uint8_t> payload;
    uint64_t messageBytes = 0;
    bool open = false;

    RecordingStatus AddChannel(uint16_t id)
    {
        if (channels.count(id)) return {};
        for (const ChannelLayout& c : kChannels) {
            if (c.id != id) continue;
            // One schema per channel (several channels share a type; ids stay simple).
            mcap::Status s = writer.AddSchema({id, c.type, kSchemaEncoding, Ros2MsgDefinition(c.type)});
            if (s.ok()) s = writer.AddChannel({id, id, c.topic, kMessageEncoding, {}});
            if (!s.ok()) return ToPublic(s);
            channels.insert(id);
            return {};
        }
        return {RECORDING_INVALID_ARGUMENT, "no channel " + std::to_string(id)};
    }

    // Writes `payload` on a channel; `commit` lets the chunk close after it.
    RecordingStatus Put(uint16_t channel, uint64_t timeNs, bool commit)
    {
        RecordingStatus r = AddChannel(channel);
        if (!r.ok()) return r;
        mcap::Message m;
        m.channelId = channel;
        m.sequence = static_cast<uint32_t>(sequence[channel]++);
        m.logTime = timeNs;
        m.publishTime = timeNs;
        mcap::Status s = writer.Write(m, payload.data(), payload.size());
        if (s.ok() && commit) s = writer.Commit();
        messageBytes += payload.size();
        return ToPublic(s);
    }
    uint64_t sequence[16] = {};

    RecordingStatus PutImage(uint16_t channel, uint64_t timeNs, const void* pixels,
                             int32_t w, int32_t h, uint32_t bytesPerPixel, const char* encoding, const char* frame,
                             uint64_t rows)
    {
        ImageView v;
        v.header.stamp = Time::FromNanoseconds(timeNs);
        v.header.frame_id = frame;
        v.height = static_cast<uint32_t>(h);
        v.width = static_cast<uint32_t>(w);
        v.encoding = encoding;
        v.step = static_cast<uint32_t>(w) * bytesPerPixel;
        v.data = static_cast<const uint8_t*>(pixels);
        v.data_size = static_cast<size_t>(uint64_t(v.step) * rows);
        payload.clear();
        payload.reserve(EncodedSize(v));
        Encode(v, &payload);
        return Put(channel, timeNs, true);
    }
};

RecordingWriter::RecordingWriter() : impl_(new Impl) {}
RecordingWriter::~RecordingWriter() = default;

namespace {

bool SizeOk(int32_t w, int32_t h, uint64_t perPixel, uint64_t limit = uint64_t(1) << 29)
{
    return w > 0 && h > 0 && uint64_t(w) * uint64_t(h) * perPixel <= limit;
}

const char* StreamName(StreamType s)
{
    return s == STREAM_SINGLE_FREQ ? "single" : s == STREAM_DUAL_FREQ ? "dual" : "unknown";
}

}  // namespace

RecordingStatus RecordingWriter::Open(const std::string& path, const RecordingSetup& setup,
                                      const RecordingOptions& options)
{
    Impl& d = *impl_;
    if (d.open) return {RECORDING_INVALID_ARGUMENT, "the writer is open already"};
    mcap::WriterOptions o;
    o.compression = options.compression == RecordingCompression::Lz4    ? "lz4"
                    : options.compression == RecordingCompression::Zstd ? "zstd"
                                                                        : "";
    if (options.compression != RecordingCompression::None && options.compression != RecordingCompression::Lz4 &&
        options.compression != RecordingCompression::Zstd)
        return {RECORDING_INVALID_ARGUMENT, "unknown compression"};
    o.level = options.compression == RecordingCompression::Zstd && options.level == 0 ? 1 : options.level;
    o.chunkSize = options.chunkBytes;
    o.overwrite = options.overwrite;
    mcap::Status s = d.writer.Open(path, o, {kProfile, "qvreconstruction " QV_PROJECT_VERSION});
    if (!s.ok()) return ToPublic(s);
    d.open = true;
    for (uint16_t id : {kRawChannel, kInfoChannel}) {
        RecordingStatus r = d.AddChannel(id);
        if (!r.ok()) return r;
    }
    std::string algorithm = setup.algorithmVersion;
    if (algorithm.empty()) Reconstruction::CreateInstance()->GetAlgorithmVersion(algorithm);
    mcap::Metadata md{kMetadataName,
                      {{"device_type", std::to_string(static_cast<int32_t>(setup.device))},
                       {"stream_type", std::to_string(static_cast<int32_t>(setup.stream))},
                       {"stream", StreamName(setup.stream)},
                       {"module_label", setup.moduleLabel},
                       {"library_version", QV_PROJECT_VERSION},
                       {"algorithm_version", algorithm}}};
    s = d.writer.AddMetadata(md);
    if (s.ok() && !setup.calibrationYaml.empty())
        s = d.writer.AddAttachment({0, 0, kCalibrationAttachment, "application/yaml", setup.calibrationYaml, 0});
    return ToPublic(s);
}

RecordingStatus RecordingWriter::WriteCapture(const CaptureFrame& c)
{
    Impl& d = *impl_;
    if (!d.open) return {RECORDING_INVALID_ARGUMENT, "the writer is not open"};
    const uint64_t planes = c.stream == STREAM_DUAL_FREQ ? 16 : 4;
    if (c.words == nullptr || !SizeOk(c.width, c.height, planes * 2) ||
        c.wordCount != planes * uint64_t(c.width) * uint64_t(c.height))
        return {RECORDING_INVALID_ARGUMENT, "a capture's words do not match its stream and size"};
    FrameInfo info;
    info.header.stamp = Time::FromNanoseconds(c.timeNs);
    info.header.frame_id = kDepthFrame;
    info.sequence = c.sequence;
    info.capture_time_ns = c.timeNs;
    info.temperature_code = c.temperatureCode;
    info.temperature_celsius = c.temperatureC;
    info.stream_type = c.stream;
    info.frames_dropped = c.framesDropped;
    d.payload.clear();
    Encode(info, &d.payload);
    RecordingStatus r = d.Put(kInfoChannel, c.timeNs, false);
    if (!r.ok()) return r;
    RawCaptureView raw;
    raw.header = info.header;
    raw.stream_type = c.stream;
    raw.width = static_cast<uint32_t>(c.width);
    raw.height = static_cast<uint32_t>(c.height);
    raw.words = c.words;
    raw.word_count = c.wordCount;
    d.payload.clear();
    d.payload.reserve(EncodedSize(raw));
    Encode(raw, &d.payload);
    return d.Put(kRawChannel, c.timeNs, true);
}

RecordingStatus RecordingWriter::WriteColour(uint64_t timeNs, const uint8_t* nv12, int32_t w, int32_t h)
{
    if (!impl_->open) return {RECORDING_INVALID_ARGUMENT, "the writer is not open"};
    if (nv12 == nullptr || !SizeOk(w, h, 2) || w % 2 || h % 2)
        return {RECORDING_INVALID_ARGUMENT, "an NV12 frame needs a buffer and an even width and height"};
    // NV12: the luma rows, then half as many rows of interleaved chroma.
    return impl_->PutImage(kColourChannel, timeNs, nv12, w, h, 1, "nv12", kColourFrame, uint64_t(h) * 3 / 2);
}

RecordingStatus RecordingWriter::WriteImage(ProcessedImage kind, uint64_t timeNs, const uint16_t* pixels,
                                            int32_t w, int32_t h)
{
    if (!impl_->open) return {RECORDING_INVALID_ARGUMENT, "the writer is not open"};
    if (pixels == nullptr || !SizeOk(w, h, 2)) return {RECORDING_INVALID_ARGUMENT, "an image needs pixels and a size"};
    switch (kind) {
    case ProcessedImage::Depth:
        return impl_->PutImage(kDepthChannel, timeNs, pixels, w, h, 2, "16UC1", kDepthFrame, uint64_t(h));
    case ProcessedImage::Ir:
        return impl_->PutImage(kIrChannel, timeNs, pixels, w, h, 2, "mono16", kDepthFrame, uint64_t(h));
    case ProcessedImage::RegisteredDepth:
        return impl_->PutImage(kRegisteredDepthChannel, timeNs, pixels, w, h, 2, "16UC1", kColourFrame, uint64_t(h));
    }
    return {RECORDING_INVALID_ARGUMENT, "unknown image kind"};
}

RecordingStatus RecordingWriter::WriteUndistortedColour(uint64_t timeNs, const uint8_t* bgr, int32_t w, int32_t h)
{
    if (!impl_->open) return {RECORDING_INVALID_ARGUMENT, "the writer is not open"};
    if (bgr == nullptr || !SizeOk(w, h, 3)) return {RECORDING_INVALID_ARGUMENT, "an image needs pixels and a size"};
    return impl_->PutImage(kUndistortedColourChannel, timeNs, bgr, w, h, 3, "bgr8", kColourFrame, uint64_t(h));
}

RecordingStatus RecordingWriter::WriteCameraInfo(RecordedCamera camera, uint64_t timeNs, const Intrinsics& l)
{
    Impl& d = *impl_;
    if (!d.open) return {RECORDING_INVALID_ARGUMENT, "the writer is not open"};
    if (camera != RecordedCamera::Depth && camera != RecordedCamera::Colour)
        return {RECORDING_INVALID_ARGUMENT, "unknown camera"};
    const float numbers[] = {l.fx, l.fy, l.cx, l.cy, l.k1, l.k2, l.p1, l.p2, l.k3};
    bool finite = true;
    for (float v : numbers) finite = finite && std::isfinite(v);
    if (l.width <= 0 || l.height <= 0 || !finite || !(l.fx > 0.0f) || !(l.fy > 0.0f))
        return {RECORDING_INVALID_ARGUMENT, "a camera info needs a size and a finite lens with fx, fy > 0"};
    const bool depth = camera == RecordedCamera::Depth;
    CameraInfo info;
    info.header.stamp = Time::FromNanoseconds(timeNs);
    info.header.frame_id = depth ? kDepthFrame : kColourFrame;
    info.width = static_cast<uint32_t>(l.width);
    info.height = static_cast<uint32_t>(l.height);
    info.distortion_model = "plumb_bob";
    info.d = {l.k1, l.k2, l.p1, l.p2, l.k3};
    info.k = {l.fx, 0, l.cx, 0, l.fy, l.cy, 0, 0, 1};
    info.r = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    info.p = {l.fx, 0, l.cx, 0, 0, l.fy, l.cy, 0, 0, 0, 1, 0};
    d.payload.clear();
    Encode(info, &d.payload);
    return d.Put(depth ? kDepthInfoChannel : kColourInfoChannel, timeNs, true);
}

RecordingStatus RecordingWriter::WritePoints(uint64_t timeNs, const float* xyz, int32_t w, int32_t h)
{
    Impl& d = *impl_;
    if (!d.open) return {RECORDING_INVALID_ARGUMENT, "the writer is not open"};
    if (xyz == nullptr || !SizeOk(w, h, 12)) return {RECORDING_INVALID_ARGUMENT, "points need a buffer and a size"};
    PointCloud2View v;
    v.header.stamp = Time::FromNanoseconds(timeNs);
    v.header.frame_id = kDepthFrame;
    v.height = static_cast<uint32_t>(h);
    v.width = static_cast<uint32_t>(w);
    v.fields = XyzFloat32Fields();
    v.point_step = 12;
    v.row_step = 12 * static_cast<uint32_t>(w);
    v.data = reinterpret_cast<const uint8_t*>(xyz);
    v.data_size = static_cast<size_t>(uint64_t(v.row_step) * uint64_t(h));
    d.payload.clear();
    Encode(v, &d.payload);
    return d.Put(kPointsChannel, timeNs, true);
}

RecordingStatus RecordingWriter::Close()
{
    Impl& d = *impl_;
    if (!d.open) return {RECORDING_INVALID_ARGUMENT, "the writer is not open"};
    d.open = false;
    return ToPublic(d.writer.Close());
}

uint64_t RecordingWriter::FileBytes() const { return impl_->writer.BytesWritten(); }
uint64_t RecordingWriter::MessageBytes() const { return impl_->messageBytes; }

}  // namespace qvapi
