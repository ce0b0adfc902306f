// The MCAP container on its own: round trips of every record through the writer and
// the reader, files cut short anywhere, damaged bytes and hostile lengths.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <fstream>
#include <random>
#include <sstream>

#include "recording/mcap_codec.h"
#include "recording/mcap_reader.h"
#include "recording/mcap_writer.h"

using namespace qvrec::mcap;

namespace {

std::string TempPath(const std::string& name)
{
    return ::testing::TempDir() + "/mcap_test_" + std::to_string(::getpid()) + "_" + name;
}
std::string Slurp(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}
void Spit(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

struct Written {
    std::vector<Message> messages;  // in the order written
    std::vector<ChunkIndex> chunks;
    std::string bytes;
};

// Three channels, messages of varied sizes, committed in pairs; small chunks.
Written WriteSample(const std::string& path, const std::string& compression, int messages = 40)
{
    Written w;
    std::remove(path.c_str());
    Writer writer;
    WriterOptions options;
    options.compression = compression;
    options.level = compression == "zstd" ? 3 : 0;
    options.chunkSize = 3000;
    EXPECT_TRUE(writer.Open(path, options, {"ros2", "qvrec test"}).ok());
    EXPECT_TRUE(writer.AddSchema({1, "pkg/msg/A", "ros2msg", "uint8[] data"}).ok());
    for (uint16_t c = 1; c <= 3; ++c)
        EXPECT_TRUE(writer.AddChannel({c, c == 3 ? uint16_t(0) : uint16_t(1), "/t" + std::to_string(c), "cdr",
                                       {{"k", "v" + std::to_string(c)}}}).ok());
    EXPECT_TRUE(writer.AddAttachment({5, 6, "calibration.yaml", "application/yaml", "full: {}\n", 0}).ok());
    EXPECT_TRUE(writer.AddMetadata({"device", {{"type", "generic"}, {"label", "m1"}}}).ok());
    std::mt19937 rng(7);
    for (int i = 0; i < messages; ++i) {
        Message m;
        m.channelId = static_cast<uint16_t>(1 + i % 3);
        m.sequence = static_cast<uint32_t>(i);
        m.logTime = 1000000000ull + 33333333ull * static_cast<uint64_t>(i / 2);
        m.publishTime = m.logTime + 1;
        m.data.resize(rng() % 700);
        for (char& ch : m.data) ch = static_cast<char>(rng() % 7);  // compressible
        EXPECT_TRUE(writer.Write(m, m.data.data(), m.data.size()).ok());
        w.messages.push_back(m);
        if (i % 2 == 1) {
            EXPECT_TRUE(writer.Commit().ok());
        }
    }
    EXPECT_TRUE(writer.Close().ok());
    w.bytes = Slurp(path);
    Reader reader;
    std::unique_ptr<Source> src;
    EXPECT_TRUE(OpenFileSource(path, src).ok());
    EXPECT_TRUE(reader.Open(std::move(src), path).ok());
    w.chunks = reader.Chunks();
    return w;
}

// Opens a copy of `bytes` kept for the rest of the test program (the reader reads
// from memory it does not own).
Status OpenBytes(Reader& reader, const std::string& bytes)
{
    static std::deque<std::string> kept;
    kept.push_back(bytes);
    return reader.Open(MemorySource(reinterpret_cast<const uint8_t*>(kept.back().data()), bytes.size()), "mem");
}

// Every message the reader's indexes lead to, in chunk order; the first error stops.
std::vector<Message> ReadAll(Reader& reader, std::vector<size_t>* badChunks = nullptr)
{
    std::vector<Message> out;
    for (size_t i = 0; i < reader.Chunks().size(); ++i) {
        LoadedChunk chunk;
        Status s = reader.LoadChunk(i, chunk);
        if (!s.ok()) {
            if (!badChunks) ADD_FAILURE() << s.message;
            else badChunks->push_back(i);
            continue;
        }
        std::vector<std::pair<uint64_t, uint64_t>> all;
        for (const auto& kv : reader.Channels()) {
            MessageIndex index;
            EXPECT_TRUE(reader.ReadMessageIndex(i, kv.first, index).ok());
            all.insert(all.end(), index.records.begin(), index.records.end());
        }
        std::sort(all.begin(), all.end(), [](auto a, auto b) { return a.second < b.second; });
        for (const auto& e : all) {
            Message m;
            EXPECT_TRUE(reader.ReadMessage(chunk, e.second, m).ok());
            EXPECT_EQ(m.logTime, e.first);
            out.push_back(m);
        }
    }
    return out;
}

void ExpectSame(const std::vector<Message>& a, const std::vector<Message>& b, size_t count)
{
    ASSERT_GE(a.size(), count);
    ASSERT_GE(b.size(), count);
    for (size_t i = 0; i < count; ++i) {
        EXPECT_EQ(a[i].channelId, b[i].channelId) << i;
        EXPECT_EQ(a[i].sequence, b[i].sequence) << i;
        EXPECT_EQ(a[i].logTime, b[i].logTime) << i;
        EXPECT_EQ(a[i].publishTime, b[i].publishTime) << i;
        EXPECT_EQ(a[i].data, b[i].data) << i;
    }
}

class Compressions : public ::testing::TestWithParam<const char*> {};

TEST_P(Compressions, EveryRecordRoundTripsThroughTheSummary)
{
    const std::string path = TempPath(std::string("rt_") + GetParam());
    Written w = WriteSample(path, GetParam());
    Reader reader;
    ASSERT_TRUE(OpenBytes(reader, w.bytes).ok());
    EXPECT_FALSE(reader.Scanned());
    EXPECT_TRUE(reader.Problems().empty());
    EXPECT_EQ(reader.header().profile, "ros2");
    EXPECT_EQ(reader.header().library, "qvrec test");
    ASSERT_EQ(reader.Schemas().size(), 1u);
    EXPECT_EQ(reader.Schemas().at(1).data, "uint8[] data");
    ASSERT_EQ(reader.Channels().size(), 3u);
    EXPECT_EQ(reader.Channels().at(2).metadata.at("k"), "v2");
    EXPECT_EQ(reader.Channels().at(3).schemaId, 0);
    EXPECT_GE(reader.Chunks().size(), 5u);
    EXPECT_EQ(reader.statistics().messageCount, w.messages.size());
    EXPECT_EQ(reader.statistics().chunkCount, reader.Chunks().size());
    EXPECT_EQ(reader.statistics().channelMessageCounts.at(1), 14u);
    EXPECT_EQ(reader.Chunks()[0].compression, GetParam());
    std::vector<Message> got = ReadAll(reader);
    EXPECT_EQ(got.size(), w.messages.size());
    ExpectSame(got, w.messages, w.messages.size());

    ASSERT_EQ(reader.Attachments().size(), 1u);
    Attachment a;
    ASSERT_TRUE(reader.ReadAttachment(reader.Attachments()[0], a).ok());
    EXPECT_EQ(a.name, "calibration.yaml");
    EXPECT_EQ(a.data, "full: {}\n");
    EXPECT_EQ(a.logTime, 5u);
    ASSERT_EQ(reader.MetadataIndexes().size(), 1u);
    Metadata md;
    ASSERT_TRUE(reader.ReadMetadata(reader.MetadataIndexes()[0], md).ok());
    EXPECT_EQ(md.metadata.at("label"), "m1");
    EXPECT_TRUE(reader.VerifyDataSection().ok());

    // The scan of the same file (as if it had no summary) finds the same.
    std::string noFooter = w.bytes.substr(0, w.bytes.size() - 1);
    Reader scanned;
    ASSERT_TRUE(OpenBytes(scanned, noFooter).ok());
    EXPECT_TRUE(scanned.Scanned());
    EXPECT_EQ(scanned.Chunks().size(), reader.Chunks().size());
    EXPECT_EQ(scanned.statistics().messageCount, w.messages.size());
    EXPECT_EQ(scanned.Attachments().size(), 1u);
    ExpectSame(ReadAll(scanned), w.messages, w.messages.size());
    std::remove(path.c_str());
}
INSTANTIATE_TEST_SUITE_P(Mcap, Compressions, ::testing::Values("", "lz4", "zstd"));

TEST(McapDamage, CutAtEveryChunkBoundaryAndAtRandomKeepsTheCompleteChunks)
{
    const std::string path = TempPath("cut");
    Written w = WriteSample(path, "lz4");
    std::vector<uint64_t> cuts;
    for (const ChunkIndex& c : w.chunks) {
        cuts.push_back(c.chunkStartOffset);
        cuts.push_back(c.chunkStartOffset + c.chunkLength);
        cuts.push_back(c.chunkStartOffset + c.chunkLength - 1);
    }
    std::mt19937 rng(3);
    for (int i = 0; i < 60; ++i) cuts.push_back(rng() % w.bytes.size());
    for (uint64_t cut : cuts) {
        Reader reader;
        Status s = OpenBytes(reader, w.bytes.substr(0, cut));
        if (cut < w.chunks[0].chunkStartOffset - 200) continue;  // inside the header: may fail
        ASSERT_TRUE(s.ok()) << cut << ": " << s.message;
        EXPECT_TRUE(reader.Scanned());
        ASSERT_FALSE(reader.Problems().empty());
        size_t complete = 0, messages = 0;
        for (const ChunkIndex& c : w.chunks)
            if (c.chunkStartOffset + c.chunkLength <= cut) ++complete;
        EXPECT_EQ(reader.Chunks().size(), complete) << cut;
        for (size_t i = 0; i < complete; ++i)
            for (const auto& kv : reader.Channels()) {
                MessageIndex index;
                ASSERT_TRUE(reader.ReadMessageIndex(i, kv.first, index).ok());
                messages += index.records.size();
            }
        ExpectSame(ReadAll(reader), w.messages, messages);
    }
    std::remove(path.c_str());
}

TEST(McapDamage, AFlippedByteNamesItsChunkAndLeavesTheOthersReadable)
{
    for (const char* compression : {"", "lz4", "zstd"}) {
        const std::string path = TempPath("flip");
        Written w = WriteSample(path, compression);
        const ChunkIndex& c = w.chunks[2];
        size_t inChunk2 = 0;
        {
            Reader whole;
            ASSERT_TRUE(OpenBytes(whole, w.bytes).ok());
            for (const auto& kv : whole.Channels()) {
                MessageIndex index;
                ASSERT_TRUE(whole.ReadMessageIndex(2, kv.first, index).ok());
                inChunk2 += index.records.size();
            }
        }
        std::string bytes = w.bytes;
        bytes[c.chunkStartOffset + c.chunkLength - 5] ^= 0x5A;
        for (bool cutShort : {false, true}) {
            Reader reader;
            ASSERT_TRUE(OpenBytes(reader, cutShort ? bytes.substr(0, bytes.size() - 3) : bytes).ok());
            std::vector<size_t> bad;
            std::vector<Message> got = ReadAll(reader, &bad);
            if (!cutShort) {  // through the index: loading chunk 2 fails, naming it
                ASSERT_EQ(bad, std::vector<size_t>{2}) << compression;
                LoadedChunk chunk;
                Status s = reader.LoadChunk(2, chunk);
                EXPECT_NE(s.message.find("chunk 2 at offset " + std::to_string(c.chunkStartOffset)),
                          std::string::npos) << s.message;
                EXPECT_EQ(reader.VerifyDataSection().code, Code::BadCrc);
            } else {  // a scan leaves the chunk out and says which
                EXPECT_TRUE(bad.empty());
                EXPECT_EQ(reader.Chunks().size(), w.chunks.size() - 1);
                bool named = false;
                for (const std::string& p : reader.Problems())
                    named |= p.find("chunk 2 of the file at offset " + std::to_string(c.chunkStartOffset)) !=
                             std::string::npos;
                EXPECT_TRUE(named) << compression;
            }
            EXPECT_EQ(got.size() + inChunk2, w.messages.size()) << compression;
        }
        std::remove(path.c_str());
    }
}

TEST(McapDamage, ADamagedSummaryFallsBackToAScan)
{
    const std::string path = TempPath("summary");
    Written w = WriteSample(path, "zstd");
    std::string bytes = w.bytes;
    bytes[bytes.size() - 60] ^= 1;  // inside the summary offsets
    Reader reader;
    ASSERT_TRUE(OpenBytes(reader, bytes).ok());
    EXPECT_TRUE(reader.Scanned());
    EXPECT_NE(reader.Problems()[0].find("summary: CRC mismatch"), std::string::npos);
    ExpectSame(ReadAll(reader), w.messages, w.messages.size());
    std::remove(path.c_str());
}

std::string Prefix(Opcode op, uint64_t length)
{
    std::string s(1, static_cast<char>(op));
    for (int i = 0; i < 8; ++i) s.push_back(static_cast<char>((length >> (8 * i)) & 0xFF));
    return s;
}

TEST(McapHostile, LengthsPastTheEndAllocateNothing)
{
    std::string start(reinterpret_cast<const char*>(kMagic), 8);
    Serialise(start, Header{"ros2", "x"});
    // A record claiming 2^60 bytes.
    Reader reader;
    ASSERT_TRUE(OpenBytes(reader, start + Prefix(Opcode::Chunk, uint64_t(1) << 60) + std::string(100, '\0')).ok());
    EXPECT_TRUE(reader.Chunks().empty());
    EXPECT_NE(reader.Problems().back().find("claims 1152921504606846976 bytes"), std::string::npos);
    // A chunk whose records claim to expand to 2^60 bytes, and one whose byte array
    // claims more than the record holds.
    Chunk chunk;
    chunk.uncompressedSize = uint64_t(1) << 60;
    chunk.compression = "zstd";
    chunk.records = std::string(40, 'x');
    std::string file = start;
    Serialise(file, chunk);
    std::string lying = start;
    SerialiseChunkHead(lying, Chunk{}, uint64_t(1) << 60);
    lying += std::string(64, 'y');
    ASSERT_TRUE(OpenBytes(reader, file).ok());
    EXPECT_TRUE(reader.Chunks().empty());
    EXPECT_NE(reader.Problems()[1].find("uncompressed_size 1152921504606846976 exceeds 1 GiB"), std::string::npos);
    ASSERT_TRUE(OpenBytes(reader, lying).ok());
    EXPECT_TRUE(reader.Chunks().empty());
    EXPECT_NE(reader.Problems()[1].find("Chunk record at offset 30 claims"), std::string::npos) << reader.Problems()[1];
    // A header whose string claims 2^32 - 1 bytes.
    std::string header(reinterpret_cast<const char*>(kMagic), 8);
    header += Prefix(Opcode::Header, 8) + std::string("\xff\xff\xff\xff\0\0\0\0", 8);
    EXPECT_EQ(OpenBytes(reader, header).code, Code::Truncated);
}

TEST(McapHostile, WrongMagicAndRecordsOutOfOrder)
{
    Reader reader;
    EXPECT_EQ(OpenBytes(reader, "").code, Code::BadMagic);
    EXPECT_EQ(OpenBytes(reader, "not an mcap file at all").code, Code::BadMagic);
    std::string v1(reinterpret_cast<const char*>(kMagic), 8);
    v1[5] = '1';
    EXPECT_NE(OpenBytes(reader, v1 + std::string(40, '\0')).message.find("major version '1'"), std::string::npos);
    std::string noHeader(reinterpret_cast<const char*>(kMagic), 8);
    Serialise(noHeader, DataEnd{});
    Status s = OpenBytes(reader, noHeader);
    EXPECT_EQ(s.code, Code::BadRecord);
    EXPECT_NE(s.message.find("DataEnd, not Header"), std::string::npos);
    // A second header after the first stops the scan.
    std::string twice(reinterpret_cast<const char*>(kMagic), 8);
    Serialise(twice, Header{});
    Serialise(twice, Header{});
    ASSERT_TRUE(OpenBytes(reader, twice).ok());
    EXPECT_NE(reader.Problems().back().find("out of order"), std::string::npos);
}

TEST(McapHostile, ChunkIndexesOutsideTheFileAreRefused)
{
    const std::string path = TempPath("index");
    Written w = WriteSample(path, "");
    // Point the first chunk index past the end: the summary is refused (the CRC is
    // recomputed so that only the check of the offsets can catch it).
    Reader reader;
    ASSERT_TRUE(OpenBytes(reader, w.bytes).ok());
    std::string summaryIndex;
    Serialise(summaryIndex, w.chunks[0]);
    ChunkIndex moved = w.chunks[0];
    moved.chunkStartOffset = w.bytes.size() * 4;
    std::string replacement;
    Serialise(replacement, moved);
    std::string bytes = w.bytes;
    const size_t at = bytes.rfind(summaryIndex);
    ASSERT_NE(at, std::string::npos);
    bytes.replace(at, summaryIndex.size(), replacement);
    const size_t footer = bytes.size() - 8 - 29;
    const uint64_t summaryStart = ReadU64(reinterpret_cast<const uint8_t*>(bytes.data()) + footer + 9);
    const uint32_t crc = Crc32(0, bytes.data() + summaryStart, footer + 25 - summaryStart);
    for (int i = 0; i < 4; ++i) bytes[footer + 25 + i] = static_cast<char>((crc >> (8 * i)) & 0xFF);
    ASSERT_TRUE(OpenBytes(reader, bytes).ok());
    EXPECT_TRUE(reader.Scanned());
    EXPECT_NE(reader.Problems()[0].find("chunk index 0 points outside"), std::string::npos) << reader.Problems()[0];
    EXPECT_EQ(reader.Chunks().size(), w.chunks.size());
    std::remove(path.c_str());
}

TEST(McapWriter, RefusesToReplaceAFileUnlessAskedAndReportsAFullDisk)
{
    const std::string path = TempPath("exists");
    Spit(path, "keep");
    Writer writer;
    EXPECT_EQ(writer.Open(path, {}, {}).code, Code::IoError);
    EXPECT_EQ(Slurp(path), "keep");
    std::remove(path.c_str());
    if (access("/dev/full", W_OK) == 0) {
        Writer full;
        WriterOptions options;
        options.overwrite = true;
        options.chunkSize = 1;
        Status s = full.Open("/dev/full", options, {"ros2", ""});
        if (s.ok()) {  // small writes may sit in no buffer: the first one fails
            s = full.AddSchema({1, "a", "ros2msg", ""});
        }
        EXPECT_EQ(s.code, Code::IoError);
        EXPECT_NE(s.message.find("No space left"), std::string::npos) << s.message;
        EXPECT_EQ(full.Close().code, Code::IoError);
    }
}

}  // namespace
