// Writes an MCAP file straight to its final name, chunk by chunk: each chunk is
// compressed and written with its message indexes as soon as it is full, so a file cut
// short (the process killed, the disk full) keeps every chunk completed before. Close
// writes DataEnd, the summary section, the summary offsets and the footer.
#ifndef QVREC_MCAP_WRITER_H
#define QVREC_MCAP_WRITER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "recording/mcap_records.h"

namespace qvrec {
namespace mcap {

struct WriterOptions {
    std::string compression = "lz4";  // "", "lz4" or "zstd"
    int level = 0;                    // as Compress takes it
    uint64_t chunkSize = 4 << 20;     // a chunk closes at Commit once it holds this many bytes
    bool overwrite = false;           // replace an existing file (else refuse it)
};

class Writer {
public:
    Writer() = default;
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    ~Writer();  // closes the file without a summary when Close was not called

    // Creates the file and writes the magic and the header.
    Status Open(const std::string& path, const WriterOptions& options, const Header& header);

    // Schemas, channels, attachments and metadata go straight into the data section
    // (ahead of the chunk being filled) and are listed again in the summary.
    Status AddSchema(const Schema& schema);
    Status AddChannel(const Channel& channel);
    Status AddAttachment(const Attachment& attachment);
    Status AddMetadata(const Metadata& metadata);

    // Appends a message to the chunk being filled; `data` is the payload. The channel
    // must have been added.
    Status Write(const Message& fields, const void* data, uint64_t size);
    // Closes the chunk when it is full. Messages written between two commits stay in
    // one chunk (a capture and its information, say).
    Status Commit();
    // Writes the last chunk, DataEnd, the summary and the footer, and closes the file.
    Status Close();

    uint64_t BytesWritten() const { return position_; }
    uint64_t UncompressedBytes() const { return uncompressedTotal_; }
    const Status& status() const { return failed_; }

private:
    Status Put(const void* data, uint64_t size);
    Status FlushChunk();
    Status Fail(Status s);

    int fd_ = -1;
    std::string path_;
    WriterOptions options_;
    Status failed_;
    uint64_t position_ = 0;
    uint32_t dataCrc_ = 0;
    uint64_t uncompressedTotal_ = 0;

    std::vector<Schema> schemas_;
    std::map<uint16_t, Channel> channels_;
    std::vector<ChunkIndex> chunkIndexes_;
    std::vector<AttachmentIndex> attachmentIndexes_;
    std::vector<MetadataIndex> metadataIndexes_;
    Statistics stats_;

    // The chunk being filled.
    std::string chunk_;
    std::map<uint16_t, MessageIndex> chunkIndex_;
    uint64_t chunkStart_ = 0, chunkEnd_ = 0;
    std::string compressed_;
    std::string scratch_;
};

}  // namespace mcap
}  // namespace qvrec

#endif
