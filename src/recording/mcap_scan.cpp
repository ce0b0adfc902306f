// The reader's linear pass: rebuilds the index of a file without a usable summary,
// and checks the data section's CRC.
#include <algorithm>

#include "recording/mcap_codec.h"
#include "recording/mcap_compression.h"
#include "recording/mcap_reader.h"

namespace qvrec {
namespace mcap {

namespace {

std::string At(uint64_t offset) { return " at offset " + std::to_string(offset); }

// CRCs `size` bytes of the source at `offset` in pieces of at most 1 MiB.
Status CrcRange(Source& source, uint64_t offset, uint64_t size, uint32_t& crc)
{
    std::string piece;
    while (size > 0) {
        piece.resize(static_cast<size_t>(std::min<uint64_t>(size, 1 << 20)));
        Status s = source.Read(offset, piece.size(), reinterpret_cast<uint8_t*>(&piece[0]));
        if (!s.ok()) return s;
        crc = Crc32(crc, piece.data(), piece.size());
        offset += piece.size();
        size -= piece.size();
    }
    return Status::Ok();
}

}  // namespace

Status Reader::ScanChunk(uint64_t offset, const std::string& content)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(content.data());
    Chunk head;
    uint64_t at = 0, size = 0;
    Status s = ParseChunkHead(bytes, content.size(), head, at, size);
    LoadedChunk loaded;
    if (s.ok()) s = Decompress(head.compression, bytes + at, size, head.uncompressedSize, loaded.records);
    if (s.ok() && head.uncompressedCrc != 0 &&
        Crc32(0, loaded.records.data(), loaded.records.size()) != head.uncompressedCrc)
        s = Error(Code::BadCrc, "CRC mismatch: its records are damaged");
    if (!s.ok()) return s;

    std::map<uint16_t, MessageIndex> indexes;
    const std::string& r = loaded.records;
    const auto* p = reinterpret_cast<const uint8_t*>(r.data());
    for (uint64_t pos = 0; pos < r.size();) {
        if (r.size() - pos < kRecordPrefix || ReadU64(p + pos + 1) > r.size() - pos - kRecordPrefix)
            return Error(Code::Truncated, "a record" + At(pos) + " of its records runs past them");
        const uint8_t op = p[pos];
        const uint64_t len = ReadU64(p + pos + 1);
        const uint8_t* c = p + pos + kRecordPrefix;
        if (op == uint8_t(Opcode::Message)) {
            if (len < 22) return Error(Code::Truncated, "a message" + At(pos) + " is too short");
            const uint16_t channel = static_cast<uint16_t>(c[0] | (c[1] << 8));
            if (!channels_.count(channel))
                return Error(Code::BadRecord, "a message" + At(pos) + " on channel " + std::to_string(channel) +
                                                  ", which no Channel record declared before it");
            MessageIndex& index = indexes[channel];
            index.channelId = channel;
            index.records.emplace_back(ReadU64(c + 6), pos);
        } else if (op == uint8_t(Opcode::Schema)) {
            Schema x;
            if (!(s = Parse(c, len, x)).ok()) return s;
            schemas_[x.id] = x;
        } else if (op == uint8_t(Opcode::Channel)) {
            Channel x;
            if (!(s = Parse(c, len, x)).ok()) return s;
            channels_[x.id] = x;
        } else if (op >= 1 && op <= 0x0F) {
            return Error(Code::BadRecord, std::string(OpcodeName(op)) + " record inside a chunk");
        }
        pos += kRecordPrefix + len;
    }
    ChunkIndex ci;
    ci.messageStartTime = head.messageStartTime;
    ci.messageEndTime = head.messageEndTime;
    ci.chunkStartOffset = offset;
    ci.chunkLength = kRecordPrefix + content.size();
    ci.compression = head.compression;
    ci.compressedSize = size;
    ci.uncompressedSize = head.uncompressedSize;
    for (auto& kv : indexes) {
        std::stable_sort(kv.second.records.begin(), kv.second.records.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        stats_.channelMessageCounts[kv.first] += kv.second.records.size();
        stats_.messageCount += kv.second.records.size();
    }
    if (!indexes.empty()) {
        if (chunks_.empty() || head.messageStartTime < stats_.messageStartTime)
            stats_.messageStartTime = head.messageStartTime;
        stats_.messageEndTime = std::max(stats_.messageEndTime, head.messageEndTime);
    }
    chunks_.push_back(ci);
    rebuilt_.push_back(std::move(indexes));
    return Status::Ok();
}

void Reader::Scan()
{
    scanned_ = true;
    Source& source = *source_;
    const uint64_t size = source.Size();
    uint32_t crc = 0;
    if (!CrcRange(source, 0, dataStart_, crc).ok()) return;
    size_t chunkNumber = 0;
    std::string content;
    for (uint64_t pos = dataStart_;;) {
        if (pos == size) {
            problems_.push_back("the file ends" + At(pos) + " without DataEnd and footer");
            break;
        }
        uint8_t op = 0;
        Status s = ReadRecordAt(pos, size, op, content);
        if (!s.ok()) {
            problems_.push_back(s.message + " (the file is cut short there)");
            break;
        }
        const auto* c = reinterpret_cast<const uint8_t*>(content.data());
        const uint64_t len = content.size();
        if (op == uint8_t(Opcode::DataEnd)) {
            DataEnd end;
            if (Parse(c, len, end).ok() && end.dataSectionCrc != 0 && end.dataSectionCrc != crc)
                problems_.push_back("the data section's CRC does not match");
            break;
        }
        if (op == uint8_t(Opcode::Header) || op == uint8_t(Opcode::Footer)) {
            problems_.push_back(std::string(OpcodeName(op)) + " record" + At(pos) + " out of order; the scan stops");
            break;
        }
        uint8_t prefix[kRecordPrefix];
        if (!source.Read(pos, kRecordPrefix, prefix).ok()) break;
        crc = Crc32(crc, prefix, kRecordPrefix);
        crc = Crc32(crc, content.data(), content.size());
        switch (static_cast<Opcode>(op)) {
        case Opcode::Schema: { Schema r; s = Parse(c, len, r); if (s.ok()) schemas_[r.id] = r; break; }
        case Opcode::Channel: { Channel r; s = Parse(c, len, r); if (s.ok()) channels_[r.id] = r; break; }
        case Opcode::Chunk:
            s = ScanChunk(pos, content);
            if (!s.ok()) s = Error(s.code, "chunk " + std::to_string(chunkNumber) + " of the file" + At(pos) +
                                               " left out: " + s.message);
            ++chunkNumber;
            break;
        case Opcode::Attachment: {
            Attachment r;
            s = Parse(c, len, r);
            if (s.ok()) attachments_.push_back({pos, kRecordPrefix + len, r.logTime, r.createTime, r.data.size(),
                                                r.name, r.mediaType});
            break;
        }
        case Opcode::Metadata: {
            Metadata r;
            s = Parse(c, len, r);
            if (s.ok()) metadata_.push_back({pos, kRecordPrefix + len, r.name});
            break;
        }
        case Opcode::Message:
            s = Error(Code::Unsupported, "a message outside any chunk" + At(pos) + " is not indexed");
            break;
        default: break;  // message indexes are rebuilt; later versions' records skipped
        }
        if (!s.ok()) problems_.push_back(s.message);
        pos += kRecordPrefix + len;
    }
    stats_.schemaCount = static_cast<uint16_t>(schemas_.size());
    stats_.channelCount = static_cast<uint32_t>(channels_.size());
    stats_.attachmentCount = static_cast<uint32_t>(attachments_.size());
    stats_.metadataCount = static_cast<uint32_t>(metadata_.size());
    stats_.chunkCount = static_cast<uint32_t>(chunks_.size());
}

Status Reader::VerifyDataSection()
{
    Source& source = *source_;
    uint32_t crc = 0;
    Status s = CrcRange(source, 0, dataStart_, crc);
    std::string content;
    for (uint64_t pos = dataStart_; s.ok();) {
        uint8_t prefix[kRecordPrefix];
        if (source.Size() - pos < kRecordPrefix) return Error(Code::Truncated, name_ + ": no DataEnd record");
        if (!(s = source.Read(pos, kRecordPrefix, prefix)).ok()) break;
        const uint64_t len = ReadU64(prefix + 1);
        if (len > source.Size() - pos - kRecordPrefix)
            return Error(Code::Truncated, name_ + ": " + OpcodeName(prefix[0]) + " record" + At(pos) + " is cut short");
        if (prefix[0] == uint8_t(Opcode::DataEnd)) {
            uint8_t op = 0;
            DataEnd end;
            if (!(s = ReadRecordAt(pos, source.Size(), op, content)).ok() ||
                !(s = Parse(reinterpret_cast<const uint8_t*>(content.data()), content.size(), end)).ok())
                break;
            if (end.dataSectionCrc != 0 && end.dataSectionCrc != crc)
                return Error(Code::BadCrc, name_ + ": the data section's CRC does not match");
            return Status::Ok();
        }
        crc = Crc32(crc, prefix, kRecordPrefix);
        s = CrcRange(source, pos + kRecordPrefix, len, crc);
        pos += kRecordPrefix + len;
    }
    return Error(s.code, name_ + ": " + s.message);
}

}  // namespace mcap
}  // namespace qvrec
