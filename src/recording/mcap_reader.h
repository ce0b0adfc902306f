// Reads an MCAP file through its summary: the chunk indexes say where each chunk lies
// and the message indexes where each message lies in its chunk, so nothing is scanned.
// A file without a usable summary (cut short, or its summary damaged) is read by one
// linear scan that rebuilds the same indexes from every complete chunk, and says so.
// Every CRC is checked: the summary's on opening, a chunk's when it is loaded, an
// attachment's when it is read, the data section's by a scan or VerifyDataSection.
// Nothing is allocated for a length the file cannot hold.
#ifndef QVREC_MCAP_READER_H
#define QVREC_MCAP_READER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "recording/mcap_records.h"

namespace qvrec {
namespace mcap {

// Where the bytes come from: a file (read with pread) or memory (the fuzzer's input).
class Source {
public:
    virtual ~Source() = default;
    virtual uint64_t Size() const = 0;
    // Reads exactly `size` bytes at `offset` into `out`; the caller has checked that they
    // lie in the file.
    virtual Status Read(uint64_t offset, uint64_t size, uint8_t* out) = 0;
};
Status OpenFileSource(const std::string& path, std::unique_ptr<Source>& out);
std::unique_ptr<Source> MemorySource(const uint8_t* data, uint64_t size);

// A chunk's records, decompressed and checked.
struct LoadedChunk {
    size_t index = SIZE_MAX;
    std::string records;
};

class Reader {
public:
    // Reads the header and the summary, or scans when there is none. A file that is not
    // MCAP or whose header is damaged is an error; damaged chunks found by a scan are
    // listed in Problems() and left out of the index.
    Status Open(std::unique_ptr<Source> source, const std::string& name);

    const Header& header() const { return header_; }
    bool Scanned() const { return scanned_; }
    const std::vector<std::string>& Problems() const { return problems_; }
    const std::map<uint16_t, Schema>& Schemas() const { return schemas_; }
    const std::map<uint16_t, Channel>& Channels() const { return channels_; }
    const std::vector<ChunkIndex>& Chunks() const { return chunks_; }
    const std::vector<AttachmentIndex>& Attachments() const { return attachments_; }
    const std::vector<MetadataIndex>& MetadataIndexes() const { return metadata_; }
    const Statistics& statistics() const { return stats_; }
    uint64_t FileSize() const { return source_ ? source_->Size() : 0; }

    // Loads chunk i: its CRC is checked; an error names the chunk and its offset.
    Status LoadChunk(size_t i, LoadedChunk& out);
    // The message index of a channel in chunk i (empty when the chunk has none).
    Status ReadMessageIndex(size_t i, uint16_t channel, MessageIndex& out);
    // The message record at `offset` in a loaded chunk.
    Status ReadMessage(const LoadedChunk& chunk, uint64_t offset, Message& out) const;
    Status ReadAttachment(const AttachmentIndex& index, Attachment& out);
    Status ReadMetadata(const MetadataIndex& index, Metadata& out);
    // Reads the whole data section and checks DataEnd's CRC (the one CRC that a reader
    // using the summary cannot check without reading everything).
    Status VerifyDataSection();

private:
    Status ReadRecordAt(uint64_t offset, uint64_t limit, uint8_t& opcode, std::string& content);
    Status ReadSummary(const Footer& footer, uint64_t footerOffset);
    Status CheckChunkIndexes(uint64_t dataEnd);
    void Scan();
    Status ScanChunk(uint64_t offset, const std::string& content);
    std::string ChunkName(size_t i) const;
    void Reset();

    std::unique_ptr<Source> source_;
    std::string name_;
    Header header_;
    uint64_t dataStart_ = 0;
    bool scanned_ = false;
    std::vector<std::string> problems_;
    std::map<uint16_t, Schema> schemas_;
    std::map<uint16_t, Channel> channels_;
    std::vector<ChunkIndex> chunks_;
    std::vector<AttachmentIndex> attachments_;
    std::vector<MetadataIndex> metadata_;
    Statistics stats_;
    // Message indexes rebuilt by a scan, per chunk and channel.
    std::vector<std::map<uint16_t, MessageIndex>> rebuilt_;
};

}  // namespace mcap
}  // namespace qvrec

#endif
