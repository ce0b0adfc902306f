// The records of an MCAP file as plain structs, and the status every container
// operation returns. MCAP: magic, a Header record, the data section (schemas,
// channels, chunks of messages with their message indexes, attachments, metadata,
// DataEnd), an optional summary section (schemas, channels, statistics and the
// chunk, attachment and metadata indexes), the summary offsets, the Footer and the
// magic again. Every record is an opcode byte, a little-endian uint64 length and
// the content; strings and byte arrays carry a uint32 length (chunk records and
// attachment data a uint64 one), maps and arrays a uint32 byte length.
#ifndef QVREC_MCAP_RECORDS_H
#define QVREC_MCAP_RECORDS_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qvrec {
namespace mcap {

// Result of a container operation: a code and a message naming what is wrong (the
// record, the chunk and its offset). No exception leaves the container's functions.
enum class Code : int32_t {
    Ok = 0,
    EndOfData = 1,      // no further message in that direction (not an error)
    IoError = -1,       // the operating system refused (open, read, write, disk full)
    BadMagic = -2,      // not an MCAP file, or another major version
    Truncated = -3,     // a record or field runs past the end of its file or record
    BadRecord = -4,     // a field holds an impossible value, records out of order
    BadCrc = -5,        // a CRC does not match its bytes
    Unsupported = -6,   // unknown compression
    InvalidArgument = -7,
};

struct Status {
    Code code = Code::Ok;
    std::string message;

    bool ok() const { return code == Code::Ok; }
    static Status Ok() { return {}; }
};
inline Status Error(Code code, std::string message) { return Status{code, std::move(message)}; }

enum class Opcode : uint8_t {
    Header = 0x01,
    Footer = 0x02,
    Schema = 0x03,
    Channel = 0x04,
    Message = 0x05,
    Chunk = 0x06,
    MessageIndex = 0x07,
    ChunkIndex = 0x08,
    Attachment = 0x09,
    AttachmentIndex = 0x0A,
    Statistics = 0x0B,
    Metadata = 0x0C,
    MetadataIndex = 0x0D,
    SummaryOffset = 0x0E,
    DataEnd = 0x0F,
};
const char* OpcodeName(uint8_t opcode);

constexpr uint8_t kMagic[8] = {0x89, 'M', 'C', 'A', 'P', '0', '\r', '\n'};
constexpr uint64_t kRecordPrefix = 9;          // opcode + uint64 length
constexpr uint64_t kFooterContent = 8 + 8 + 4;  // summary start, offset start, CRC

using StringMap = std::map<std::string, std::string>;

struct Header {
    std::string profile;
    std::string library;
};

struct Footer {
    uint64_t summaryStart = 0;        // 0: no summary section
    uint64_t summaryOffsetStart = 0;  // 0: no summary offset section
    uint32_t summaryCrc = 0;          // 0: not computed
};

struct Schema {
    uint16_t id = 0;  // 0 is reserved: a channel without a schema
    std::string name;
    std::string encoding;
    std::string data;
};

struct Channel {
    uint16_t id = 0;
    uint16_t schemaId = 0;
    std::string topic;
    std::string messageEncoding;
    StringMap metadata;
};

struct Message {
    uint16_t channelId = 0;
    uint32_t sequence = 0;
    uint64_t logTime = 0;      // nanoseconds
    uint64_t publishTime = 0;  // nanoseconds
    std::string data;
};

struct Chunk {
    uint64_t messageStartTime = 0;
    uint64_t messageEndTime = 0;
    uint64_t uncompressedSize = 0;
    uint32_t uncompressedCrc = 0;  // 0: not computed
    std::string compression;       // "", "lz4" or "zstd"
    std::string records;           // compressed records
};

struct MessageIndex {
    uint16_t channelId = 0;
    // (log time, offset of the message record in the uncompressed chunk)
    std::vector<std::pair<uint64_t, uint64_t>> records;
};

struct ChunkIndex {
    uint64_t messageStartTime = 0;
    uint64_t messageEndTime = 0;
    uint64_t chunkStartOffset = 0;  // of the chunk record's opcode in the file
    uint64_t chunkLength = 0;       // of the whole chunk record
    std::map<uint16_t, uint64_t> messageIndexOffsets;  // channel -> message index record
    uint64_t messageIndexLength = 0;                    // all of the chunk's message indexes
    std::string compression;
    uint64_t compressedSize = 0;
    uint64_t uncompressedSize = 0;
};

struct Attachment {
    uint64_t logTime = 0;
    uint64_t createTime = 0;
    std::string name;
    std::string mediaType;
    std::string data;
    uint32_t crc = 0;  // of every field before it; 0: not computed
};

struct AttachmentIndex {
    uint64_t offset = 0;
    uint64_t length = 0;
    uint64_t logTime = 0;
    uint64_t createTime = 0;
    uint64_t dataSize = 0;
    std::string name;
    std::string mediaType;
};

struct Statistics {
    uint64_t messageCount = 0;
    uint16_t schemaCount = 0;
    uint32_t channelCount = 0;
    uint32_t attachmentCount = 0;
    uint32_t metadataCount = 0;
    uint32_t chunkCount = 0;
    uint64_t messageStartTime = 0;
    uint64_t messageEndTime = 0;
    std::map<uint16_t, uint64_t> channelMessageCounts;
};

struct Metadata {
    std::string name;
    StringMap metadata;
};

struct MetadataIndex {
    uint64_t offset = 0;
    uint64_t length = 0;
    std::string name;
};

struct SummaryOffset {
    uint8_t groupOpcode = 0;
    uint64_t groupStart = 0;
    uint64_t groupLength = 0;
};

struct DataEnd {
    uint32_t dataSectionCrc = 0;  // 0: not computed
};

}  // namespace mcap
}  // namespace qvrec

#endif
