// Byte-level reading and writing of MCAP records, in one place. Serialise* append a
// whole record (opcode, length, content) to a buffer; Parse* read a record's content
// and refuse any field that runs past it, naming the record and the field.
#ifndef QVREC_MCAP_CODEC_H
#define QVREC_MCAP_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "recording/mcap_records.h"

namespace qvrec {
namespace mcap {

// CRC-32 as zlib computes it (the polynomial 0xEDB88320, reflected); start with 0.
uint32_t Crc32(uint32_t crc, const void* data, size_t size);

void Serialise(std::string& out, const Header& r);
void Serialise(std::string& out, const Footer& r);
void Serialise(std::string& out, const Schema& r);
void Serialise(std::string& out, const Channel& r);
void Serialise(std::string& out, const Message& r);
void Serialise(std::string& out, const Chunk& r);
void Serialise(std::string& out, const MessageIndex& r);
void Serialise(std::string& out, const ChunkIndex& r);
// Computes the attachment's CRC when r.crc is 0 (the record then carries it).
void Serialise(std::string& out, const Attachment& r);
void Serialise(std::string& out, const AttachmentIndex& r);
void Serialise(std::string& out, const Statistics& r);
void Serialise(std::string& out, const Metadata& r);
void Serialise(std::string& out, const MetadataIndex& r);
void Serialise(std::string& out, const SummaryOffset& r);
void Serialise(std::string& out, const DataEnd& r);

// A chunk record up to its records, which the caller writes after it (recordsSize bytes).
void SerialiseChunkHead(std::string& out, const Chunk& fields, uint64_t recordsSize);
// A message record's fields without its data, to write the data from elsewhere.
void SerialiseMessageHead(std::string& out, const Message& fields, uint64_t dataSize);

Status Parse(const uint8_t* p, uint64_t n, Header& r);
Status Parse(const uint8_t* p, uint64_t n, Footer& r);
Status Parse(const uint8_t* p, uint64_t n, Schema& r);
Status Parse(const uint8_t* p, uint64_t n, Channel& r);
Status Parse(const uint8_t* p, uint64_t n, Message& r);
// The chunk's fields; `records` is left empty and recordsOffset/recordsSize tell where
// the compressed records lie in the content, so that a caller reads them once.
Status ParseChunkHead(const uint8_t* p, uint64_t n, Chunk& r, uint64_t& recordsOffset,
                      uint64_t& recordsSize);
Status Parse(const uint8_t* p, uint64_t n, MessageIndex& r);
Status Parse(const uint8_t* p, uint64_t n, ChunkIndex& r);
// Checks the attachment's CRC when it is not 0.
Status Parse(const uint8_t* p, uint64_t n, Attachment& r);
Status Parse(const uint8_t* p, uint64_t n, AttachmentIndex& r);
Status Parse(const uint8_t* p, uint64_t n, Statistics& r);
Status Parse(const uint8_t* p, uint64_t n, Metadata& r);
Status Parse(const uint8_t* p, uint64_t n, MetadataIndex& r);
Status Parse(const uint8_t* p, uint64_t n, SummaryOffset& r);
Status Parse(const uint8_t* p, uint64_t n, DataEnd& r);

inline uint64_t ReadU64(const uint8_t* p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

}  // namespace mcap
}  // namespace qvrec

#endif
