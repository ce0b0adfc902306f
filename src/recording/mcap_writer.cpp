#include "recording/mcap_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "recording/mcap_codec.h"
#include "recording/mcap_compression.h"

namespace qvrec {
namespace mcap {

Writer::~Writer()
{
    if (fd_ >= 0) ::close(fd_);
}

Status Writer::Fail(Status s)
{
    if (failed_.ok()) failed_ = s;
    return s;
}

Status Writer::Put(const void* data, uint64_t size)
{
    const char* p = static_cast<const char*>(data);
    uint64_t left = size;
    while (left > 0) {
        const ssize_t n = ::write(fd_, p, static_cast<size_t>(std::min<uint64_t>(left, 1 << 30)));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            return Fail(Error(Code::IoError, path_ + ": cannot write: " +
                                                 (n < 0 ? std::strerror(errno) : "no space written")));
        p += n;
        left -= static_cast<uint64_t>(n);
    }
    dataCrc_ = Crc32(dataCrc_, data, size);
    position_ += size;
    return Status::Ok();
}

Status Writer::Open(const std::string& path, const WriterOptions& options, const Header& header)
{
    if (fd_ >= 0) return Error(Code::InvalidArgument, "the writer is open already");
    if (!KnownCompression(options.compression))
        return Error(Code::Unsupported, "unknown compression '" + options.compression + "'");
    if (options.chunkSize == 0 || options.chunkSize > kMaxChunkUncompressed / 2)
        return Error(Code::InvalidArgument, "chunk size must be between 1 byte and 512 MiB");
    path_ = path;
    options_ = options;
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (options.overwrite ? O_TRUNC : O_EXCL);
    fd_ = ::open(path.c_str(), flags, 0644);
    if (fd_ < 0) return Fail(Error(Code::IoError, path + ": cannot create: " + std::strerror(errno)));
    std::string out(reinterpret_cast<const char*>(kMagic), sizeof(kMagic));
    Serialise(out, header);
    return Put(out.data(), out.size());
}

Status Writer::AddSchema(const Schema& schema)
{
    if (!failed_.ok() || fd_ < 0) return fd_ < 0 ? Error(Code::InvalidArgument, "not open") : failed_;
    if (schema.id == 0) return Error(Code::InvalidArgument, "schema id 0 is reserved");
    for (const Schema& s : schemas_)
        if (s.id == schema.id) return Error(Code::InvalidArgument, "schema id " + std::to_string(s.id) + " taken");
    schemas_.push_back(schema);
    scratch_.clear();
    Serialise(scratch_, schema);
    return Put(scratch_.data(), scratch_.size());
}

Status Writer::AddChannel(const Channel& channel)
{
    if (!failed_.ok() || fd_ < 0) return fd_ < 0 ? Error(Code::InvalidArgument, "not open") : failed_;
    const bool schemaKnown = channel.schemaId == 0 ||
        std::any_of(schemas_.begin(), schemas_.end(), [&](const Schema& s) { return s.id == channel.schemaId; });
    if (!schemaKnown || channels_.count(channel.id))
        return Error(Code::InvalidArgument, "channel " + std::to_string(channel.id) + ": id taken or schema unknown");
    channels_[channel.id] = channel;
    scratch_.clear();
    Serialise(scratch_, channel);
    return Put(scratch_.data(), scratch_.size());
}

Status Writer::AddAttachment(const Attachment& attachment)
{
    if (!failed_.ok() || fd_ < 0) return fd_ < 0 ? Error(Code::InvalidArgument, "not open") : failed_;
    scratch_.clear();
    Serialise(scratch_, attachment);
    AttachmentIndex index{position_, scratch_.size(), attachment.logTime, attachment.createTime,
                          attachment.data.size(), attachment.name, attachment.mediaType};
    Status s = Put(scratch_.data(), scratch_.size());
    if (s.ok()) attachmentIndexes_.push_back(index);
    return s;
}

Status Writer::AddMetadata(const Metadata& metadata)
{
    if (!failed_.ok() || fd_ < 0) return fd_ < 0 ? Error(Code::InvalidArgument, "not open") : failed_;
    scratch_.clear();
    Serialise(scratch_, metadata);
    MetadataIndex index{position_, scratch_.size(), metadata.name};
    Status s = Put(scratch_.data(), scratch_.size());
    if (s.ok()) metadataIndexes_.push_back(index);
    return s;
}

Status Writer::Write(const Message& fields, const void* data, uint64_t size)
{
    if (!failed_.ok() || fd_ < 0) return fd_ < 0 ? Error(Code::InvalidArgument, "not open") : failed_;
    if (!channels_.count(fields.channelId))
        return Error(Code::InvalidArgument, "channel " + std::to_string(fields.channelId) + " was not added");
    if (size > kMaxChunkUncompressed / 2) return Error(Code::InvalidArgument, "a message of more than 512 MiB");
    if (chunk_.size() + size + 64 > kMaxChunkUncompressed) {
        Status s = FlushChunk();
        if (!s.ok()) return s;
    }
    if (chunkIndex_.empty()) {
        chunkStart_ = fields.logTime;
        chunkEnd_ = fields.logTime;
    }
    chunkStart_ = std::min(chunkStart_, fields.logTime);
    chunkEnd_ = std::max(chunkEnd_, fields.logTime);
    MessageIndex& index = chunkIndex_[fields.channelId];
    index.channelId = fields.channelId;
    index.records.emplace_back(fields.logTime, chunk_.size());
    SerialiseMessageHead(chunk_, fields, size);
    chunk_.append(static_cast<const char*>(data), static_cast<size_t>(size));

    if (stats_.messageCount == 0 || fields.logTime < stats_.messageStartTime)
        stats_.messageStartTime = fields.logTime;
    stats_.messageEndTime = std::max(stats_.messageEndTime, fields.logTime);
    ++stats_.messageCount;
    ++stats_.channelMessageCounts[fields.channelId];
    return Status::Ok();
}

Status Writer::Commit()
{
    if (!failed_.ok()) return failed_;
    return chunk_.size() >= options_.chunkSize ? FlushChunk() : Status::Ok();
}

Status Writer::FlushChunk()
{
    if (chunkIndex_.empty()) return Status::Ok();
    Status s = Compress(options_.compression, options_.level, chunk_.data(), chunk_.size(), compressed_);
    if (!s.ok()) return Fail(s);
    Chunk head;
    head.messageStartTime = chunkStart_;
    head.messageEndTime = chunkEnd_;
    head.uncompressedSize = chunk_.size();
    head.uncompressedCrc = Crc32(0, chunk_.data(), chunk_.size());
    head.compression = options_.compression;

    ChunkIndex index;
    index.messageStartTime = chunkStart_;
    index.messageEndTime = chunkEnd_;
    index.chunkStartOffset = position_;
    index.compression = options_.compression;
    index.compressedSize = compressed_.size();
    index.uncompressedSize = chunk_.size();
    scratch_.clear();
    SerialiseChunkHead(scratch_, head, compressed_.size());
    index.chunkLength = scratch_.size() + compressed_.size();
    if (!(s = Put(scratch_.data(), scratch_.size())).ok() || !(s = Put(compressed_.data(), compressed_.size())).ok())
        return s;

    // The message indexes, one per channel in the chunk, right after it.
    scratch_.clear();
    for (const auto& kv : chunkIndex_) {
        index.messageIndexOffsets[kv.first] = position_ + scratch_.size();
        Serialise(scratch_, kv.second);
    }
    index.messageIndexLength = scratch_.size();
    if (!(s = Put(scratch_.data(), scratch_.size())).ok()) return s;

    chunkIndexes_.push_back(std::move(index));
    uncompressedTotal_ += chunk_.size();
    chunk_.clear();
    chunkIndex_.clear();
    return Status::Ok();
}

Status Writer::Close()
{
    if (fd_ < 0) return failed_.ok() ? Error(Code::InvalidArgument, "not open") : failed_;
    Status s = failed_.ok() ? FlushChunk() : failed_;
    if (s.ok()) {
        std::string out;
        Serialise(out, DataEnd{dataCrc_});
        s = Put(out.data(), out.size());
    }
    if (s.ok()) {
        const uint64_t summaryStart = position_;
        stats_.schemaCount = static_cast<uint16_t>(schemas_.size());
        stats_.channelCount = static_cast<uint32_t>(channels_.size());
        stats_.attachmentCount = static_cast<uint32_t>(attachmentIndexes_.size());
        stats_.metadataCount = static_cast<uint32_t>(metadataIndexes_.size());
        stats_.chunkCount = static_cast<uint32_t>(chunkIndexes_.size());

        std::string summary;
        std::vector<SummaryOffset> groups;
        auto group = [&](Opcode op, auto&& records) {
            const uint64_t start = summary.size();
            for (const auto& r : records) Serialise(summary, r);
            if (summary.size() > start)
                groups.push_back({static_cast<uint8_t>(op), summaryStart + start, summary.size() - start});
        };
        std::vector<Channel> channels;
        for (const auto& kv : channels_) channels.push_back(kv.second);
        group(Opcode::Schema, schemas_);
        group(Opcode::Channel, channels);
        group(Opcode::Statistics, std::vector<Statistics>{stats_});
        group(Opcode::ChunkIndex, chunkIndexes_);
        group(Opcode::AttachmentIndex, attachmentIndexes_);
        group(Opcode::MetadataIndex, metadataIndexes_);
        Footer footer;
        footer.summaryStart = summaryStart;
        footer.summaryOffsetStart = summaryStart + summary.size();
        for (const SummaryOffset& g : groups) Serialise(summary, g);
        Serialise(summary, footer);
        // The CRC covers the summary, the offsets and the footer up to its CRC field.
        const uint32_t crc = Crc32(0, summary.data(), summary.size() - 4);
        for (int i = 0; i < 4; ++i) summary[summary.size() - 4 + i] = static_cast<char>((crc >> (8 * i)) & 0xFF);
        summary.append(reinterpret_cast<const char*>(kMagic), sizeof(kMagic));
        s = Put(summary.data(), summary.size());
    }
    if (::close(fd_) != 0 && s.ok()) s = Fail(Error(Code::IoError, path_ + ": cannot close: " + std::strerror(errno)));
    fd_ = -1;
    return s;
}

}  // namespace mcap
}  // namespace qvrec
