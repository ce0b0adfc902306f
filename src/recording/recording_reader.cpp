#include <qvreconstruction/recording.h>

#include <algorithm>
#include <cstring>

#include "recording/mcap_reader.h"
#include "recording/messages.h"
#include "recording/recording_layout.h"

namespace qvapi {

using namespace qvrec;

struct RecordingReader::Impl {
    mcap::Reader reader;
    std::string path;
    std::string calibration;
    std::map<std::string, std::string> metadata;
    DeviceType device = DEVICE_GENERIC;
    StreamType stream = STREAM_DUAL_FREQ;
    std::string label;
    // The chunks holding captures, with the number of captures before each.
    std::vector<size_t> frameChunks;
    std::vector<uint64_t> framesBefore;
    uint64_t frames = 0;
    uint64_t cursor = 0;
    mcap::LoadedChunk loaded;
    std::map<std::pair<size_t, uint16_t>, mcap::MessageIndex> indexCache;

    RecordingStatus Index(size_t chunk, uint16_t channel, const mcap::MessageIndex*& out)
    {
        auto key = std::make_pair(chunk, channel);
        auto it = indexCache.find(key);
        if (it == indexCache.end()) {
            if (indexCache.size() > 256) indexCache.clear();
            mcap::MessageIndex index;
            mcap::Status s = reader.ReadMessageIndex(chunk, channel, index);
            if (!s.ok()) return ToPublic(s);
            it = indexCache.emplace(key, std::move(index)).first;
        }
        out = &it->second;
        return {};
    }

    // The number of captures in a chunk, from the size of its raw channel's message
    // index (the records' sizes are fixed), checked when the index is read.
    uint64_t CapturesIn(size_t i)
    {
        const mcap::ChunkIndex& c = reader.Chunks()[i];
        if (reader.Scanned()) {
            const mcap::MessageIndex* index = nullptr;
            return Index(i, kRawChannel, index).ok() ? index->records.size() : 0;
        }
        auto it = c.messageIndexOffsets.find(kRawChannel);
        if (it == c.messageIndexOffsets.end()) return 0;
        uint64_t end = c.chunkStartOffset + c.chunkLength + c.messageIndexLength;
        for (const auto& kv : c.messageIndexOffsets)
            if (kv.second > it->second) end = std::min(end, kv.second);
        const uint64_t bytes = end - it->second;
        return bytes >= mcap::kRecordPrefix + 6 ? (bytes - mcap::kRecordPrefix - 6) / 16 : 0;
    }

    RecordingStatus Message(size_t chunk, uint64_t offset, mcap::Message& m)
    {
        mcap::Status s = reader.LoadChunk(chunk, loaded);
        if (s.ok()) s = reader.ReadMessage(loaded, offset, m);
        return ToPublic(s);
    }

    RecordingStatus Colour(size_t around, uint64_t timeNs, RecordedFrame& f);
    RecordingStatus Read(uint64_t index, RecordedFrame& f);
};

RecordingReader::RecordingReader() : impl_(new Impl) {}
RecordingReader::~RecordingReader() = default;

RecordingStatus RecordingReader::Open(const std::string& path)
{
    impl_.reset(new Impl);
    Impl& d = *impl_;
    d.path = path;
    std::unique_ptr<mcap::Source> source;
    mcap::Status s = mcap::OpenFileSource(path, source);
    if (s.ok()) s = d.reader.Open(std::move(source), path);
    if (!s.ok()) return ToPublic(s);
    if (d.reader.header().profile != kProfile || !d.reader.Channels().count(kRawChannel) ||
        d.reader.Channels().at(kRawChannel).topic != kChannels[0].topic)
        return {RECORDING_BAD_RECORD, path + ": not a recording of captures (no " + kChannels[0].topic + ")"};
    for (const mcap::MetadataIndex& m : d.reader.MetadataIndexes()) {
        mcap::Metadata md;
        if (m.name != kMetadataName) continue;
        if (!(s = d.reader.ReadMetadata(m, md)).ok()) return ToPublic(s);
        d.metadata = md.metadata;
    }
    auto number = [&](const char* key) { return d.metadata.count(key) ? std::atoi(d.metadata[key].c_str()) : 0; };
    d.device = static_cast<DeviceType>(number("device_type"));
    d.stream = static_cast<StreamType>(number("stream_type"));
    d.label = d.metadata.count("module_label") ? d.metadata["module_label"] : "";
    for (const mcap::AttachmentIndex& a : d.reader.Attachments()) {
        if (a.name != kCalibrationAttachment) continue;
        mcap::Attachment att;
        if (!(s = d.reader.ReadAttachment(a, att)).ok()) return ToPublic(s);
        d.calibration = att.data;
    }
    for (size_t i = 0; i < d.reader.Chunks().size(); ++i) {
        const uint64_t n = d.CapturesIn(i);
        if (n == 0) continue;
        d.frameChunks.push_back(i);
        d.framesBefore.push_back(d.frames);
        d.frames += n;
    }
    return {};
}

bool RecordingReader::IndexRebuilt() const { return impl_->reader.Scanned(); }
std::vector<std::string> RecordingReader::Problems() const { return impl_->reader.Problems(); }
const std::string& RecordingReader::CalibrationYaml() const { return impl_->calibration; }
DeviceType RecordingReader::Device() const { return impl_->device; }
StreamType RecordingReader::Stream() const { return impl_->stream; }
const std::string& RecordingReader::ModuleLabel() const { return impl_->label; }
const std::map<std::string, std::string>& RecordingReader::Metadata() const { return impl_->metadata; }
uint64_t RecordingReader::FrameCount() const { return impl_->frames; }

std::vector<RecordingChannel> RecordingReader::Channels() const
{
    std::vector<RecordingChannel> out;
    const mcap::Reader& r = impl_->reader;
    for (const auto& kv : r.Channels()) {
        RecordingChannel c;
        c.id = kv.first;
        c.topic = kv.second.topic;
        auto schema = r.Schemas().find(kv.second.schemaId);
        if (schema != r.Schemas().end()) c.schemaName = schema->second.name;
        auto count = r.statistics().channelMessageCounts.find(kv.first);
        if (count != r.statistics().channelMessageCounts.end()) c.messages = count->second;
        out.push_back(c);
    }
    return out;
}

uint64_t RecordingReader::FirstTimeNs() const
{
    const Impl& d = *impl_;
    return d.frames ? d.reader.Chunks()[d.frameChunks.front()].messageStartTime : 0;
}
uint64_t RecordingReader::LastTimeNs() const
{
    const Impl& d = *impl_;
    return d.frames ? d.reader.Chunks()[d.frameChunks.back()].messageEndTime : 0;
}

RecordingStorage RecordingReader::Storage() const
{
    const mcap::Reader& r = impl_->reader;
    RecordingStorage out;
    std::vector<std::string> kinds;
    for (const mcap::ChunkIndex& c : r.Chunks()) {
        ++out.chunks;
        out.storedBytes += c.compressedSize;
        out.recordBytes += c.uncompressedSize;
        const std::string kind = c.compression.empty() ? "none" : c.compression;
        if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) kinds.push_back(kind);
    }
    for (const std::string& k : kinds) out.compression += (out.compression.empty() ? "" : "+") + k;
    if (kinds.empty()) out.compression = "none";
    out.fileBytes = r.FileSize();
    return out;
}

// The colour frame nearest in time among the chunks near the capture's: captures and
// colour frames are written as they come, so the nearest lies at most a few chunks away.
RecordingStatus RecordingReader::Impl::Colour(size_t around, uint64_t timeNs, RecordedFrame& f)
{
    f.hasColour = false;
    const size_t count = reader.Chunks().size();
    size_t bestChunk = 0;
    uint64_t bestOffset = 0, bestTime = 0, bestGap = UINT64_MAX;
    for (size_t i = around > 3 ? around - 3 : 0; i < std::min(count, around + 4); ++i) {
        const mcap::MessageIndex* index = nullptr;
        RecordingStatus r = Index(i, kColourChannel, index);
        if (!r.ok()) return r;
        for (const auto& e : index->records) {
            const uint64_t gap = e.first > timeNs ? e.first - timeNs : timeNs - e.first;
            if (gap < bestGap) bestGap = gap, bestChunk = i, bestOffset = e.second, bestTime = e.first;
        }
    }
    if (bestGap == UINT64_MAX) return {};
    mcap::Message m;
    RecordingStatus r = Message(bestChunk, bestOffset, m);
    if (!r.ok()) return r;
    Image image;
    std::string error;
    if (!Decode(reinterpret_cast<const uint8_t*>(m.data.data()), m.data.size(), &image, &error))
        return {RECORDING_BAD_RECORD, path + ": colour frame: " + error};
    f.hasColour = true;
    f.colourTimeNs = bestTime;
    f.colourWidth = static_cast<int32_t>(image.width);
    f.colourHeight = static_cast<int32_t>(image.height);
    f.nv12 = std::move(image.data);
    return {};
}

RecordingStatus RecordingReader::Impl::Read(uint64_t index, RecordedFrame& f)
{
    if (index >= frames) return {RECORDING_END, "no frame " + std::to_string(index)};
    const size_t k = static_cast<size_t>(std::upper_bound(framesBefore.begin(), framesBefore.end(), index) -
                                         framesBefore.begin() - 1);
    const size_t chunk = frameChunks[k];
    const mcap::MessageIndex* raw = nullptr;
    RecordingStatus r = Index(chunk, kRawChannel, raw);
    if (!r.ok()) return r;
    const uint64_t j = index - framesBefore[k];
    if (j >= raw->records.size())
        return {RECORDING_BAD_RECORD, path + ": chunk " + std::to_string(chunk) + ": its message index lists fewer "
                                          "captures than its size says"};
    mcap::Message m;
    if (!(r = Message(chunk, raw->records[j].second, m)).ok()) return r;
    RawCapture capture;
    std::string error;
    if (!Decode(reinterpret_cast<const uint8_t*>(m.data.data()), m.data.size(), &capture, &error))
        return {RECORDING_BAD_RECORD, path + ": capture " + std::to_string(index) + ": " + error};
    f = RecordedFrame{};
    f.index = index;
    f.stream = static_cast<StreamType>(capture.stream_type);
    f.width = static_cast<int32_t>(capture.width);
    f.height = static_cast<int32_t>(capture.height);
    f.words = std::move(capture.words);
    f.timeNs = m.logTime;
    // The information written beside it, at the same time in the same chunk.
    const mcap::MessageIndex* info = nullptr;
    if (!(r = Index(chunk, kInfoChannel, info)).ok()) return r;
    for (const auto& e : info->records) {
        if (e.first != m.logTime) continue;
        mcap::Message im;
        FrameInfo fi;
        if (!(r = Message(chunk, e.second, im)).ok()) return r;
        if (!Decode(reinterpret_cast<const uint8_t*>(im.data.data()), im.data.size(), &fi, &error))
            return {RECORDING_BAD_RECORD, path + ": information of capture " + std::to_string(index) + ": " + error};
        f.sequence = fi.sequence;
        f.temperatureCode = fi.temperature_code;
        f.temperatureC = fi.temperature_celsius;
        f.framesDropped = fi.frames_dropped;
        break;
    }
    return Colour(chunk, f.timeNs, f);
}

RecordingStatus RecordingReader::ReadFrame(uint64_t index, RecordedFrame& frame) { return impl_->Read(index, frame); }

RecordingStatus RecordingReader::Next(RecordedFrame& frame)
{
    RecordingStatus r = impl_->Read(impl_->cursor, frame);
    if (r.ok()) ++impl_->cursor;
    return r;
}

RecordingStatus RecordingReader::Previous(RecordedFrame& frame)
{
    if (impl_->cursor == 0) return {RECORDING_END, "no frame before the first"};
    RecordingStatus r = impl_->Read(impl_->cursor - 1, frame);
    if (r.ok()) --impl_->cursor;
    return r;
}

RecordingStatus RecordingReader::SeekFrame(uint64_t index)
{
    if (index > impl_->frames) return {RECORDING_INVALID_ARGUMENT, "no frame " + std::to_string(index)};
    impl_->cursor = index;
    return {};
}

RecordingStatus RecordingReader::SeekTime(uint64_t timeNs)
{
    Impl& d = *impl_;
    // The first chunk of captures ending at or after the time, then its message index.
    const auto& chunks = d.reader.Chunks();
    size_t k = static_cast<size_t>(std::partition_point(d.frameChunks.begin(), d.frameChunks.end(),
                                                        [&](size_t c) { return chunks[c].messageEndTime < timeNs; }) -
                                   d.frameChunks.begin());
    for (; k < d.frameChunks.size(); ++k) {
        const mcap::MessageIndex* raw = nullptr;
        RecordingStatus r = d.Index(d.frameChunks[k], kRawChannel, raw);
        if (!r.ok()) return r;
        for (size_t j = 0; j < raw->records.size(); ++j)
            if (raw->records[j].first >= timeNs) {
                d.cursor = d.framesBefore[k] + j;
                return {};
            }
    }
    d.cursor = d.frames;
    return {};
}

}  // namespace qvapi
