// Chunk compression as MCAP names it: "" (none), "lz4" (the LZ4 frame format) and
// "zstd" (a Zstandard frame).
#ifndef QVREC_MCAP_COMPRESSION_H
#define QVREC_MCAP_COMPRESSION_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "recording/mcap_records.h"

namespace qvrec {
namespace mcap {

// The most a chunk may hold uncompressed: the reader refuses larger claims before
// allocating anything.
constexpr uint64_t kMaxChunkUncompressed = uint64_t(1) << 30;

bool KnownCompression(const std::string& compression);

// Compresses `size` bytes into `out` (replaced). `level`: LZ4's 0 (fast) to 12 (HC),
// Zstandard's 1 to 19.
Status Compress(const std::string& compression, int level, const void* data, size_t size,
                std::string& out);

// Decompresses into `out`, which must come out exactly `expectedSize` bytes long. The
// buffer grows only as the decompressor produces output, so a false claim in the file
// costs nothing beyond what the compressed bytes really expand to.
Status Decompress(const std::string& compression, const uint8_t* data, size_t size,
                  uint64_t expectedSize, std::string& out);

}  // namespace mcap
}  // namespace qvrec

#endif
