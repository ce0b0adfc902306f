#include "recording/mcap_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "recording/mcap_codec.h"
#include "recording/mcap_compression.h"

namespace qvrec {
namespace mcap {

namespace {

class FileSource : public Source {
public:
    FileSource(int fd, uint64_t size) : fd_(fd), size_(size) {}
    ~FileSource() override { ::close(fd_); }
    uint64_t Size() const override { return size_; }
    Status Read(uint64_t offset, uint64_t size, uint8_t* out) override
    {
        while (size > 0) {
            const ssize_t n = ::pread(fd_, out, static_cast<size_t>(std::min<uint64_t>(size, 1 << 30)),
                                      static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0)
                return Error(n == 0 ? Code::Truncated : Code::IoError,
                             n == 0 ? "the file ended while it was read" : std::strerror(errno));
            out += n;
            offset += static_cast<uint64_t>(n);
            size -= static_cast<uint64_t>(n);
        }
        return Status::Ok();
    }

private:
    int fd_;
    uint64_t size_;
};

class BytesSource : public Source {
public:
    BytesSource(const uint8_t* data, uint64_t size) : data_(data), size_(size) {}
    uint64_t Size() const override { return size_; }
    Status Read(uint64_t offset, uint64_t size, uint8_t* out) override
    {
        if (offset > size_ || size > size_ - offset) return Error(Code::Truncated, "read past the end");
        std::memcpy(out, data_ + offset, static_cast<size_t>(size));
        return Status::Ok();
    }

private:
    const uint8_t* data_;
    uint64_t size_;
};

std::string At(uint64_t offset) { return " at offset " + std::to_string(offset); }
const uint8_t* Bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

}  // namespace

Status OpenFileSource(const std::string& path, std::unique_ptr<Source>& out)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return Error(Code::IoError, path + ": cannot open: " + std::strerror(errno));
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return Error(Code::IoError, path + ": not a regular file");
    }
    out.reset(new FileSource(fd, static_cast<uint64_t>(st.st_size)));
    return Status::Ok();
}

std::unique_ptr<Source> MemorySource(const uint8_t* data, uint64_t size)
{
    return std::unique_ptr<Source>(new BytesSource(data, size));
}

void Reader::Reset()
{
    schemas_.clear();
    channels_.clear();
    chunks_.clear();
    attachments_.clear();
    metadata_.clear();
    rebuilt_.clear();
    stats_ = Statistics{};
}

// Reads the record at `offset`, which must end by `limit` (at most the file's size).
Status Reader::ReadRecordAt(uint64_t offset, uint64_t limit, uint8_t& opcode, std::string& content)
{
    limit = std::min(limit, source_->Size());
    if (offset > limit || limit - offset < kRecordPrefix)
        return Error(Code::Truncated, "record" + At(offset) + " is cut short");
    uint8_t prefix[kRecordPrefix];
    Status s = source_->Read(offset, kRecordPrefix, prefix);
    if (!s.ok()) return s;
    opcode = prefix[0];
    const uint64_t length = ReadU64(prefix + 1);
    if (length > limit - offset - kRecordPrefix)
        return Error(Code::Truncated, std::string(OpcodeName(opcode)) + " record" + At(offset) + " claims " +
                                          std::to_string(length) + " bytes, more than remain");
    content.resize(static_cast<size_t>(length));
    return length ? source_->Read(offset + kRecordPrefix, length, reinterpret_cast<uint8_t*>(&content[0]))
                  : Status::Ok();
}

Status Reader::Open(std::unique_ptr<Source> source, const std::string& name)
{
    source_ = std::move(source);
    name_ = name;
    Reset();
    problems_.clear();
    scanned_ = false;
    const uint64_t size = source_->Size();
    uint8_t magic[8];
    if (size < sizeof(magic)) return Error(Code::BadMagic, name + ": too short to be an MCAP file");
    Status s = source_->Read(0, sizeof(magic), magic);
    if (!s.ok()) return s;
    if (std::memcmp(magic, kMagic, 5) != 0 || std::memcmp(magic + 6, kMagic + 6, 2) != 0)
        return Error(Code::BadMagic, name + ": not an MCAP file (wrong magic)");
    if (magic[5] != kMagic[5])
        return Error(Code::BadMagic, name + ": MCAP major version '" + std::string(1, char(magic[5])) +
                                         "' is not supported");
    uint8_t opcode = 0;
    std::string content;
    s = ReadRecordAt(sizeof(magic), size, opcode, content);
    if (!s.ok()) return Error(s.code, name + ": header: " + s.message);
    if (opcode != uint8_t(Opcode::Header))
        return Error(Code::BadRecord, name + ": the first record is " + OpcodeName(opcode) + ", not Header");
    s = Parse(Bytes(content), content.size(), header_);
    if (!s.ok()) return Error(s.code, name + ": " + s.message);
    dataStart_ = sizeof(magic) + kRecordPrefix + content.size();

    // The footer, then the summary it points to.
    const uint64_t tail = kRecordPrefix + kFooterContent + sizeof(magic);
    std::string why;
    if (size < dataStart_ + tail) {
        why = "no footer (the file is cut short)";
    } else {
        const uint64_t footerOffset = size - tail;
        uint8_t end[kRecordPrefix + kFooterContent + 8];
        s = source_->Read(footerOffset, sizeof(end), end);
        if (!s.ok()) return s;
        Footer footer;
        if (std::memcmp(end + kRecordPrefix + kFooterContent, kMagic, 8) != 0 ||
            end[0] != uint8_t(Opcode::Footer) || ReadU64(end + 1) != kFooterContent) {
            why = "no footer (the file is cut short)";
        } else if (!Parse(end + kRecordPrefix, kFooterContent, footer).ok() || footer.summaryStart == 0) {
            why = "no summary section";
        } else if (!(s = ReadSummary(footer, footerOffset)).ok()) {
            why = "summary: " + s.message;
        }
    }
    if (!why.empty()) {
        problems_.push_back(why + "; the index was rebuilt by a scan");
        Reset();
        Scan();
    }
    return Status::Ok();
}

Status Reader::ReadSummary(const Footer& footer, uint64_t footerOffset)
{
    if (footer.summaryStart < dataStart_ || footer.summaryStart > footerOffset ||
        (footer.summaryOffsetStart != 0 &&
         (footer.summaryOffsetStart < footer.summaryStart || footer.summaryOffsetStart > footerOffset)))
        return Error(Code::BadRecord, "the footer points outside the file");
    // The summary, the summary offsets and the footer up to its CRC.
    std::string bytes(static_cast<size_t>(footerOffset + kRecordPrefix + 16 - footer.summaryStart), '\0');
    Status s = source_->Read(footer.summaryStart, bytes.size(), reinterpret_cast<uint8_t*>(&bytes[0]));
    if (!s.ok()) return s;
    if (footer.summaryCrc != 0 && Crc32(0, bytes.data(), bytes.size()) != footer.summaryCrc)
        return Error(Code::BadCrc, "CRC mismatch");
    const uint64_t end = (footer.summaryOffsetStart ? footer.summaryOffsetStart : footerOffset) - footer.summaryStart;
    bool haveStats = false;
    for (uint64_t pos = 0; pos < end;) {
        if (end - pos < kRecordPrefix) return Error(Code::Truncated, "record cut short");
        const uint8_t op = Bytes(bytes)[pos];
        const uint64_t len = ReadU64(Bytes(bytes) + pos + 1);
        if (len > end - pos - kRecordPrefix)
            return Error(Code::Truncated, std::string(OpcodeName(op)) + " record runs past the summary");
        const uint8_t* p = Bytes(bytes) + pos + kRecordPrefix;
        switch (static_cast<Opcode>(op)) {
        case Opcode::Schema: { Schema r; s = Parse(p, len, r); if (s.ok()) schemas_[r.id] = r; break; }
        case Opcode::Channel: { Channel r; s = Parse(p, len, r); if (s.ok()) channels_[r.id] = r; break; }
        case Opcode::ChunkIndex: { ChunkIndex r; s = Parse(p, len, r); if (s.ok()) chunks_.push_back(r); break; }
        case Opcode::AttachmentIndex: { AttachmentIndex r; s = Parse(p, len, r); if (s.ok()) attachments_.push_back(r); break; }
        case Opcode::MetadataIndex: { MetadataIndex r; s = Parse(p, len, r); if (s.ok()) metadata_.push_back(r); break; }
        case Opcode::Statistics: s = Parse(p, len, stats_); haveStats = s.ok(); break;
        case Opcode::Header: case Opcode::Footer: case Opcode::Chunk: case Opcode::Message:
        case Opcode::MessageIndex: case Opcode::DataEnd:
            return Error(Code::BadRecord, std::string(OpcodeName(op)) + " record in the summary: out of order");
        default: break;  // records of later versions are skipped
        }
        if (!s.ok()) return s;
        pos += kRecordPrefix + len;
    }
    if (!haveStats) stats_.chunkCount = static_cast<uint32_t>(chunks_.size());
    return CheckChunkIndexes(footer.summaryStart);
}

// Every index must point inside the data section, chunks in file order, apart.
Status Reader::CheckChunkIndexes(uint64_t dataEnd)
{
    auto inside = [&](uint64_t offset, uint64_t length) {
        return offset >= dataStart_ && offset <= dataEnd && length >= kRecordPrefix && length <= dataEnd - offset;
    };
    uint64_t previousEnd = dataStart_;
    for (size_t i = 0; i < chunks_.size(); ++i) {
        const ChunkIndex& c = chunks_[i];
        if (!inside(c.chunkStartOffset, c.chunkLength) || c.chunkStartOffset < previousEnd)
            return Error(Code::BadRecord, "chunk index " + std::to_string(i) + " points outside the data section "
                                          "or before the previous chunk");
        const uint64_t chunkEnd = c.chunkStartOffset + c.chunkLength;
        if (c.messageIndexLength > dataEnd - chunkEnd)
            return Error(Code::BadRecord, "chunk index " + std::to_string(i) + ": message indexes past the data");
        for (const auto& kv : c.messageIndexOffsets)
            if (kv.second < chunkEnd || kv.second - chunkEnd >= c.messageIndexLength)
                return Error(Code::BadRecord, "chunk index " + std::to_string(i) + ": a message index outside its place");
        if (c.uncompressedSize > kMaxChunkUncompressed || !KnownCompression(c.compression))
            return Error(Code::BadRecord, "chunk index " + std::to_string(i) + ": size or compression refused");
        previousEnd = chunkEnd + c.messageIndexLength;
    }
    for (const AttachmentIndex& a : attachments_)
        if (!inside(a.offset, a.length)) return Error(Code::BadRecord, "an attachment index points outside the data");
    for (const MetadataIndex& m : metadata_)
        if (!inside(m.offset, m.length)) return Error(Code::BadRecord, "a metadata index points outside the data");
    return Status::Ok();
}

std::string Reader::ChunkName(size_t i) const
{
    return "chunk " + std::to_string(i) + At(chunks_[i].chunkStartOffset);
}

Status Reader::LoadChunk(size_t i, LoadedChunk& out)
{
    if (i >= chunks_.size()) return Error(Code::InvalidArgument, "no chunk " + std::to_string(i));
    if (out.index == i) return Status::Ok();
    out.index = SIZE_MAX;
    const ChunkIndex& c = chunks_[i];
    uint8_t opcode = 0;
    std::string content;
    Status s = ReadRecordAt(c.chunkStartOffset, c.chunkStartOffset + c.chunkLength, opcode, content);
    if (s.ok() && (opcode != uint8_t(Opcode::Chunk) || kRecordPrefix + content.size() != c.chunkLength))
        s = Error(Code::BadRecord, std::string("a ") + OpcodeName(opcode) + " record where the index puts a chunk");
    Chunk head;
    uint64_t at = 0, size = 0;
    if (s.ok()) s = ParseChunkHead(Bytes(content), content.size(), head, at, size);
    if (s.ok() && head.uncompressedSize != c.uncompressedSize)
        s = Error(Code::BadRecord, "its size differs from its index");
    if (s.ok()) s = Decompress(head.compression, Bytes(content) + at, size, head.uncompressedSize, out.records);
    if (s.ok() && head.uncompressedCrc != 0 && Crc32(0, out.records.data(), out.records.size()) != head.uncompressedCrc)
        s = Error(Code::BadCrc, "CRC mismatch: its records are damaged");
    if (!s.ok()) return Error(s.code, name_ + ": " + ChunkName(i) + ": " + s.message);
    out.index = i;
    return Status::Ok();
}

Status Reader::ReadMessageIndex(size_t i, uint16_t channel, MessageIndex& out)
{
    out = MessageIndex{channel, {}};
    if (i >= chunks_.size()) return Error(Code::InvalidArgument, "no chunk " + std::to_string(i));
    if (scanned_) {
        auto it = rebuilt_[i].find(channel);
        if (it != rebuilt_[i].end()) out = it->second;
        return Status::Ok();
    }
    const ChunkIndex& c = chunks_[i];
    auto it = c.messageIndexOffsets.find(channel);
    if (it == c.messageIndexOffsets.end()) return Status::Ok();
    uint8_t opcode = 0;
    std::string content;
    Status s = ReadRecordAt(it->second, c.chunkStartOffset + c.chunkLength + c.messageIndexLength, opcode, content);
    if (s.ok() && opcode != uint8_t(Opcode::MessageIndex)) s = Error(Code::BadRecord, "not a MessageIndex record");
    if (s.ok()) s = Parse(Bytes(content), content.size(), out);
    if (s.ok() && out.channelId != channel) s = Error(Code::BadRecord, "the message index is another channel's");
    if (!s.ok()) return Error(s.code, name_ + ": message index of " + ChunkName(i) + ": " + s.message);
    return Status::Ok();
}

Status Reader::ReadMessage(const LoadedChunk& chunk, uint64_t offset, Message& out) const
{
    const std::string& r = chunk.records;
    if (offset > r.size() || r.size() - offset < kRecordPrefix || Bytes(r)[offset] != uint8_t(Opcode::Message) ||
        ReadU64(Bytes(r) + offset + 1) > r.size() - offset - kRecordPrefix)
        return Error(Code::BadRecord, name_ + ": chunk " + std::to_string(chunk.index) +
                                          ": no whole message record" + At(offset) + " of its records");
    Status s = Parse(Bytes(r) + offset + kRecordPrefix, ReadU64(Bytes(r) + offset + 1), out);
    return s.ok() ? s : Error(s.code, name_ + ": chunk " + std::to_string(chunk.index) + ": " + s.message);
}

Status Reader::ReadAttachment(const AttachmentIndex& index, Attachment& out)
{
    uint8_t opcode = 0;
    std::string content;
    Status s = ReadRecordAt(index.offset, index.offset + index.length, opcode, content);
    if (s.ok() && opcode != uint8_t(Opcode::Attachment)) s = Error(Code::BadRecord, "not an Attachment record");
    if (s.ok()) s = Parse(Bytes(content), content.size(), out);
    return s.ok() ? s : Error(s.code, name_ + ": attachment" + At(index.offset) + ": " + s.message);
}

Status Reader::ReadMetadata(const MetadataIndex& index, Metadata& out)
{
    uint8_t opcode = 0;
    std::string content;
    Status s = ReadRecordAt(index.offset, index.offset + index.length, opcode, content);
    if (s.ok() && opcode != uint8_t(Opcode::Metadata)) s = Error(Code::BadRecord, "not a Metadata record");
    if (s.ok()) s = Parse(Bytes(content), content.size(), out);
    return s.ok() ? s : Error(s.code, name_ + ": metadata" + At(index.offset) + ": " + s.message);
}

}  // namespace mcap
}  // namespace qvrec
