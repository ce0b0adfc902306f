#include "recording/mcap_codec.h"

#include <zlib.h>

#include <climits>

namespace qvrec {
namespace mcap {

uint32_t Crc32(uint32_t crc, const void* data, size_t size)
{
    const auto* p = static_cast<const Bytef*>(data);
    while (size > 0) {  // zlib takes uInt lengths
        const uInt piece = size > UINT_MAX ? UINT_MAX : static_cast<uInt>(size);
        crc = static_cast<uint32_t>(crc32(crc, p, piece));
        p += piece;
        size -= piece;
    }
    return crc;
}

const char* OpcodeName(uint8_t opcode)
{
    static const char* const names[] = {"unknown",        "Header",       "Footer",     "Schema",
                                        "Channel",        "Message",      "Chunk",      "MessageIndex",
                                        "ChunkIndex",     "Attachment",   "AttachmentIndex",
                                        "Statistics",     "Metadata",     "MetadataIndex",
                                        "SummaryOffset",  "DataEnd"};
    return opcode < sizeof(names) / sizeof(names[0]) ? names[opcode] : names[0];
}

namespace {

// ------------------------------------------------------------------ writing
void PutU8(std::string& o, uint8_t v) { o.push_back(static_cast<char>(v)); }
void PutLE(std::string& o, uint64_t v, int bytes)
{
    for (int i = 0; i < bytes; ++i) o.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}
void PutU16(std::string& o, uint16_t v) { PutLE(o, v, 2); }
void PutU32(std::string& o, uint32_t v) { PutLE(o, v, 4); }
void PutU64(std::string& o, uint64_t v) { PutLE(o, v, 8); }
void PutString(std::string& o, const std::string& s)
{
    PutU32(o, static_cast<uint32_t>(s.size()));
    o += s;
}
void PutStringMap(std::string& o, const StringMap& m)
{
    uint64_t bytes = 0;
    for (const auto& kv : m) bytes += 8 + kv.first.size() + kv.second.size();
    PutU32(o, static_cast<uint32_t>(bytes));
    for (const auto& kv : m) {
        PutString(o, kv.first);
        PutString(o, kv.second);
    }
}
void PutU16U64Map(std::string& o, const std::map<uint16_t, uint64_t>& m)
{
    PutU32(o, static_cast<uint32_t>(m.size() * 10));
    for (const auto& kv : m) {
        PutU16(o, kv.first);
        PutU64(o, kv.second);
    }
}

// Opens a record: writes its opcode and a length to fill in by Close.
size_t Open(std::string& o, Opcode op)
{
    PutU8(o, static_cast<uint8_t>(op));
    PutU64(o, 0);
    return o.size();
}
void Close(std::string& o, size_t contentStart)
{
    const uint64_t length = o.size() - contentStart;
    for (int i = 0; i < 8; ++i) o[contentStart - 8 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
}

// ------------------------------------------------------------------ reading
// Reads fields from a record's content; the first field that does not fit makes it
// fail, and the status then names the record and that field.
class Cursor {
public:
    Cursor(const uint8_t* p, uint64_t n, const char* record) : p_(p), n_(n), record_(record) {}

    bool U8(uint8_t& v, const char* f) { return Fixed(v, 1, f); }
    bool U16(uint16_t& v, const char* f) { return Fixed(v, 2, f); }
    bool U32(uint32_t& v, const char* f) { return Fixed(v, 4, f); }
    bool U64(uint64_t& v, const char* f) { return Fixed(v, 8, f); }
    bool String(std::string& s, const char* f)
    {
        uint32_t len = 0;
        return U32(len, f) && Bytes(s, len, f);
    }
    bool Bytes(std::string& s, uint64_t len, const char* f)
    {
        if (!Need(len, f)) return false;
        s.assign(reinterpret_cast<const char*>(p_ + at_), static_cast<size_t>(len));
        at_ += len;
        return true;
    }
    // A uint32 byte length, then that many bytes read by `Entry` until used up.
    template <typename F>
    bool Group(const char* f, F entry)
    {
        uint32_t bytes = 0;
        if (!U32(bytes, f) || !Need(bytes, f)) return false;
        const uint64_t end = at_ + bytes;
        const uint64_t outer = n_;
        n_ = end;  // entries may not run past the group
        while (at_ < end)
            if (!entry()) return false;
        n_ = outer;
        return true;
    }
    uint64_t At() const { return at_; }
    uint64_t Left() const { return n_ - at_; }
    Status status() const
    {
        return field_ ? Error(Code::Truncated, std::string(record_) + " record: field " + field_ +
                                                   " runs past the end of the record")
                      : Status::Ok();
    }

private:
    bool Need(uint64_t len, const char* f)
    {
        if (len > n_ - at_) {
            if (!field_) field_ = f;
            return false;
        }
        return true;
    }
    template <typename T>
    bool Fixed(T& v, int bytes, const char* f)
    {
        if (!Need(static_cast<uint64_t>(bytes), f)) return false;
        uint64_t x = 0;
        for (int i = bytes - 1; i >= 0; --i) x = (x << 8) | p_[at_ + i];
        v = static_cast<T>(x);
        at_ += static_cast<uint64_t>(bytes);
        return true;
    }

    const uint8_t* p_;
    uint64_t n_;
    uint64_t at_ = 0;
    const char* record_;
    const char* field_ = nullptr;
};

Status Done(const Cursor& c, bool ok) { return ok ? Status::Ok() : c.status(); }

bool ReadStringMap(Cursor& c, StringMap& m, const char* f)
{
    m.clear();
    return c.Group(f, [&] {
        std::string k, v;
        if (!c.String(k, f) || !c.String(v, f)) return false;
        m[k] = v;
        return true;
    });
}
bool ReadU16U64Map(Cursor& c, std::map<uint16_t, uint64_t>& m, const char* f)
{
    m.clear();
    return c.Group(f, [&] {
        uint16_t k = 0;
        uint64_t v = 0;
        if (!c.U16(k, f) || !c.U64(v, f)) return false;
        m[k] = v;
        return true;
    });
}

}  // namespace

// ------------------------------------------------------------------ records
void Serialise(std::string& o, const Header& r)
{
    const size_t s = Open(o, Opcode::Header);
    PutString(o, r.profile);
    PutString(o, r.library);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, Header& r)
{
    Cursor c(p, n, "Header");
    return Done(c, c.String(r.profile, "profile") && c.String(r.library, "library"));
}

void Serialise(std::string& o, const Footer& r)
{
    const size_t s = Open(o, Opcode::Footer);
    PutU64(o, r.summaryStart);
    PutU64(o, r.summaryOffsetStart);
    PutU32(o, r.summaryCrc);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, Footer& r)
{
    Cursor c(p, n, "Footer");
    return Done(c, c.U64(r.summaryStart, "summary_start") &&
                       c.U64(r.summaryOffsetStart, "summary_offset_start") &&
                       c.U32(r.summaryCrc, "summary_crc"));
}

void Serialise(std::string& o, const Schema& r)
{
    const size_t s = Open(o, Opcode::Schema);
    PutU16(o, r.id);
    PutString(o, r.name);
    PutString(o, r.encoding);
    PutString(o, r.data);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, Schema& r)
{
    Cursor c(p, n, "Schema");
    return Done(c, c.U16(r.id, "id") && c.String(r.name, "name") && c.String(r.encoding, "encoding") &&
                       c.String(r.data, "data"));
}

void Serialise(std::string& o, const Channel& r)
{
    const size_t s = Open(o, Opcode::Channel);
    PutU16(o, r.id);
    PutU16(o, r.schemaId);
    PutString(o, r.topic);
    PutString(o, r.messageEncoding);
    PutStringMap(o, r.metadata);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, Channel& r)
{
    Cursor c(p, n, "Channel");
    return Done(c, c.U16(r.id, "id") && c.U16(r.schemaId, "schema_id") && c.String(r.topic, "topic") &&
                       c.String(r.messageEncoding, "message_encoding") &&
                       ReadStringMap(c, r.metadata, "metadata"));
}

void SerialiseMessageHead(std::string& o, const Message& r, uint64_t dataSize)
{
    PutU8(o, static_cast<uint8_t>(Opcode::Message));
    PutU64(o, 2 + 4 + 8 + 8 + dataSize);
    PutU16(o, r.channelId);
    PutU32(o, r.sequence);
    PutU64(o, r.logTime);
    PutU64(o, r.publishTime);
}
void Serialise(std::string& o, const Message& r)
{
    SerialiseMessageHead(o, r, r.data.size());
    o += r.data;
}
Status Parse(const uint8_t* p, uint64_t n, Message& r)
{
    Cursor c(p, n, "Message");
    const bool ok = c.U16(r.channelId, "channel_id") && c.U32(r.sequence, "sequence") &&
                    c.U64(r.logTime, "log_time") && c.U64(r.publishTime, "publish_time") &&
                    c.Bytes(r.data, c.Left(), "data");
    return Done(c, ok);
}

void SerialiseChunkHead(std::string& o, const Chunk& r, uint64_t recordsSize)
{
    PutU8(o, static_cast<uint8_t>(Opcode::Chunk));
    PutU64(o, 8 + 8 + 8 + 4 + 4 + r.compression.size() + 8 + recordsSize);
    PutU64(o, r.messageStartTime);
    PutU64(o, r.messageEndTime);
    PutU64(o, r.uncompressedSize);
    PutU32(o, r.uncompressedCrc);
    PutString(o, r.compression);
    PutU64(o, recordsSize);
}
void Serialise(std::string& o, const Chunk& r)
{
    SerialiseChunkHead(o, r, r.records.size());
    o += r.records;
}
Status ParseChunkHead(const uint8_t* p, uint64_t n, Chunk& r, uint64_t& recordsOffset,
                      uint64_t& recordsSize)
{
    Cursor c(p, n, "Chunk");
    const bool ok = c.U64(r.messageStartTime, "message_start_time") &&
                    c.U64(r.messageEndTime, "message_end_time") &&
                    c.U64(r.uncompressedSize, "uncompressed_size") &&
                    c.U32(r.uncompressedCrc, "uncompressed_crc") && c.String(r.compression, "compression") &&
                    c.U64(recordsSize, "records");
    if (!ok) return c.status();
    if (recordsSize > c.Left())
        return Error(Code::Truncated, "Chunk record: field records runs past the end of the record");
    recordsOffset = c.At();
    r.records.clear();
    return Status::Ok();
}

void Serialise(std::string& o, const MessageIndex& r)
{
    const size_t s = Open(o, Opcode::MessageIndex);
    PutU16(o, r.channelId);
    PutU32(o, static_cast<uint32_t>(r.records.size() * 16));
    for (const auto& e : r.records) {
        PutU64(o, e.first);
        PutU64(o, e.second);
    }
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, MessageIndex& r)
{
    Cursor c(p, n, "MessageIndex");
    r.records.clear();
    const bool ok = c.U16(r.channelId, "channel_id") && c.Group("records", [&] {
        std::pair<uint64_t, uint64_t> e;
        if (!c.U64(e.first, "records") || !c.U64(e.second, "records")) return false;
        r.records.push_back(e);
        return true;
    });
    return Done(c, ok);
}

void Serialise(std::string& o, const ChunkIndex& r)
{
    const size_t s = Open(o, Opcode::ChunkIndex);
    PutU64(o, r.messageStartTime);
    PutU64(o, r.messageEndTime);
    PutU64(o, r.chunkStartOffset);
    PutU64(o, r.chunkLength);
    PutU16U64Map(o, r.messageIndexOffsets);
    PutU64(o, r.messageIndexLength);
    PutString(o, r.compression);
    PutU64(o, r.compressedSize);
    PutU64(o, r.uncompressedSize);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, ChunkIndex& r)
{
    Cursor c(p, n, "ChunkIndex");
    const bool ok = c.U64(r.messageStartTime, "message_start_time") &&
                    c.U64(r.messageEndTime, "message_end_time") &&
                    c.U64(r.chunkStartOffset, "chunk_start_offset") && c.U64(r.chunkLength, "chunk_length") &&
                    ReadU16U64Map(c, r.messageIndexOffsets, "message_index_offsets") &&
                    c.U64(r.messageIndexLength, "message_index_length") &&
                    c.String(r.compression, "compression") && c.U64(r.compressedSize, "compressed_size") &&
                    c.U64(r.uncompressedSize, "uncompressed_size");
    return Done(c, ok);
}

void Serialise(std::string& o, const Attachment& r)
{
    const size_t s = Open(o, Opcode::Attachment);
    PutU64(o, r.logTime);
    PutU64(o, r.createTime);
    PutString(o, r.name);
    PutString(o, r.mediaType);
    PutU64(o, r.data.size());
    o += r.data;
    const uint32_t crc = r.crc != 0 ? r.crc : Crc32(0, o.data() + s, o.size() - s);
    PutU32(o, crc);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, Attachment& r)
{
    Cursor c(p, n, "Attachment");
    uint64_t size = 0;
    bool ok = c.U64(r.logTime, "log_time") && c.U64(r.createTime, "create_time") &&
              c.String(r.name, "name") && c.String(r.mediaType, "media_type") && c.U64(size, "data") &&
              c.Bytes(r.data, size, "data");
    const uint64_t covered = c.At();
    ok = ok && c.U32(r.crc, "crc");
    if (!ok) return c.status();
    if (r.crc != 0 && Crc32(0, p, covered) != r.crc)
        return Error(Code::BadCrc, "Attachment '" + r.name + "': CRC mismatch");
    return Status::Ok();
}

void Serialise(std::string& o, const AttachmentIndex& r)
{
    const size_t s = Open(o, Opcode::AttachmentIndex);
    PutU64(o, r.offset);
    PutU64(o, r.length);
    PutU64(o, r.logTime);
    PutU64(o, r.createTime);
    PutU64(o, r.dataSize);
    PutString(o, r.name);
    PutString(o, r.mediaType);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, AttachmentIndex& r)
{
    Cursor c(p, n, "AttachmentIndex");
    return Done(c, c.U64(r.offset, "offset") && c.U64(r.length, "length") && c.U64(r.logTime, "log_time") &&
                       c.U64(r.createTime, "create_time") && c.U64(r.dataSize, "data_size") &&
                       c.String(r.name, "name") && c.String(r.mediaType, "media_type"));
}

void Serialise(std::string& o, const Statistics& r)
{
    const size_t s = Open(o, Opcode::Statistics);
    PutU64(o, r.messageCount);
    PutU16(o, r.schemaCount);
    PutU32(o, r.channelCount);
    PutU32(o, r.attachmentCount);
    PutU32(o, r.metadataCount);
    PutU32(o, r.chunkCount);
    PutU64(o, r.messageStartTime);
    PutU64(o, r.messageEndTime);
    PutU16U64Map(o, r.channelMessageCounts);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, Statistics& r)
{
    Cursor c(p, n, "Statistics");
    return Done(c, c.U64(r.messageCount, "message_count") && c.U16(r.schemaCount, "schema_count") &&
                       c.U32(r.channelCount, "channel_count") && c.U32(r.attachmentCount, "attachment_count") &&
                       c.U32(r.metadataCount, "metadata_count") && c.U32(r.chunkCount, "chunk_count") &&
                       c.U64(r.messageStartTime, "message_start_time") &&
                       c.U64(r.messageEndTime, "message_end_time") &&
                       ReadU16U64Map(c, r.channelMessageCounts, "channel_message_counts"));
}

void Serialise(std::string& o, const Metadata& r)
{
    const size_t s = Open(o, Opcode::Metadata);
    PutString(o, r.name);
    PutStringMap(o, r.metadata);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, Metadata& r)
{
    Cursor c(p, n, "Metadata");
    return Done(c, c.String(r.name, "name") && ReadStringMap(c, r.metadata, "metadata"));
}

void Serialise(std::string& o, const MetadataIndex& r)
{
    const size_t s = Open(o, Opcode::MetadataIndex);
    PutU64(o, r.offset);
    PutU64(o, r.length);
    PutString(o, r.name);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, MetadataIndex& r)
{
    Cursor c(p, n, "MetadataIndex");
    return Done(c, c.U64(r.offset, "offset") && c.U64(r.length, "length") && c.String(r.name, "name"));
}

void Serialise(std::string& o, const SummaryOffset& r)
{
    const size_t s = Open(o, Opcode::SummaryOffset);
    PutU8(o, r.groupOpcode);
    PutU64(o, r.groupStart);
    PutU64(o, r.groupLength);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, SummaryOffset& r)
{
    Cursor c(p, n, "SummaryOffset");
    return Done(c, c.U8(r.groupOpcode, "group_opcode") && c.U64(r.groupStart, "group_start") &&
                       c.U64(r.groupLength, "group_length"));
}

void Serialise(std::string& o, const DataEnd& r)
{
    const size_t s = Open(o, Opcode::DataEnd);
    PutU32(o, r.dataSectionCrc);
    Close(o, s);
}
Status Parse(const uint8_t* p, uint64_t n, DataEnd& r)
{
    Cursor c(p, n, "DataEnd");
    return Done(c, c.U32(r.dataSectionCrc, "data_section_crc"));
}

}  // namespace mcap
}  // namespace qvrec
