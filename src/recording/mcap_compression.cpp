#include "recording/mcap_compression.h"

#include <lz4frame.h>
#include <zstd.h>

#include <algorithm>
#include <memory>

namespace qvrec {
namespace mcap {

bool KnownCompression(const std::string& c) { return c.empty() || c == "lz4" || c == "zstd"; }

namespace {

Status CompressLz4(int level, const void* data, size_t size, std::string& out)
{
    LZ4F_preferences_t prefs{};
    prefs.compressionLevel = level;
    prefs.frameInfo.contentSize = size;
    prefs.frameInfo.blockSizeID = LZ4F_max4MB;
    out.resize(LZ4F_compressFrameBound(size, &prefs));
    const size_t n = LZ4F_compressFrame(&out[0], out.size(), data, size, &prefs);
    if (LZ4F_isError(n)) return Error(Code::IoError, std::string("lz4: ") + LZ4F_getErrorName(n));
    out.resize(n);
    return Status::Ok();
}

Status CompressZstd(int level, const void* data, size_t size, std::string& out)
{
    // One context per thread, kept: creating one per chunk costs more than small chunks.
    thread_local std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> ctx(ZSTD_createCCtx(), ZSTD_freeCCtx);
    if (!ctx) return Error(Code::IoError, "zstd: no compression context");
    out.resize(ZSTD_compressBound(size));
    const size_t n = ZSTD_compressCCtx(ctx.get(), &out[0], out.size(), data, size, level);
    if (ZSTD_isError(n)) return Error(Code::IoError, std::string("zstd: ") + ZSTD_getErrorName(n));
    out.resize(n);
    return Status::Ok();
}

// Grows `out` towards `expected` when the decompressor has filled it.
bool Grow(std::string& out, size_t used, uint64_t expected)
{
    if (used < out.size()) return true;
    if (out.size() >= expected) return false;
    out.resize(static_cast<size_t>(std::min<uint64_t>(expected, std::max<uint64_t>(out.size() * 2, 1 << 16))));
    return true;
}

Status DecompressLz4(const uint8_t* data, size_t size, uint64_t expected, std::string& out)
{
    LZ4F_dctx* raw = nullptr;
    if (LZ4F_isError(LZ4F_createDecompressionContext(&raw, LZ4F_VERSION)))
        return Error(Code::IoError, "lz4: no decompression context");
    std::unique_ptr<LZ4F_dctx, LZ4F_errorCode_t (*)(LZ4F_dctx*)> ctx(raw, LZ4F_freeDecompressionContext);
    out.resize(static_cast<size_t>(std::min<uint64_t>(expected, std::max<uint64_t>(size * 4, 1 << 16))));
    size_t used = 0, consumed = 0;
    for (;;) {
        size_t dst = out.size() - used, src = size - consumed;
        const size_t hint = LZ4F_decompress(ctx.get(), &out[0] + used, &dst, data + consumed, &src, nullptr);
        if (LZ4F_isError(hint)) return Error(Code::BadRecord, std::string("lz4: ") + LZ4F_getErrorName(hint));
        used += dst;
        consumed += src;
        if (hint == 0) break;  // the frame is complete
        if (consumed == size && dst == 0) return Error(Code::Truncated, "lz4: the frame is cut short");
        if (!Grow(out, used, expected))
            return Error(Code::BadRecord, "lz4: decompresses to more than uncompressed_size");
    }
    if (consumed != size) return Error(Code::BadRecord, "lz4: bytes after the frame");
    if (used != expected) return Error(Code::BadRecord, "lz4: decompresses to less than uncompressed_size");
    out.resize(used);
    return Status::Ok();
}

Status DecompressZstd(const uint8_t* data, size_t size, uint64_t expected, std::string& out)
{
    thread_local std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx*)> ctx(ZSTD_createDCtx(), ZSTD_freeDCtx);
    if (!ctx) return Error(Code::IoError, "zstd: no decompression context");
    ZSTD_DCtx_reset(ctx.get(), ZSTD_reset_session_only);
    out.resize(static_cast<size_t>(std::min<uint64_t>(expected, std::max<uint64_t>(size * 4, 1 << 16))));
    ZSTD_inBuffer in{data, size, 0};
    size_t used = 0;
    for (;;) {
        ZSTD_outBuffer o{&out[0], out.size(), used};
        const size_t r = ZSTD_decompressStream(ctx.get(), &o, &in);
        if (ZSTD_isError(r)) return Error(Code::BadRecord, std::string("zstd: ") + ZSTD_getErrorName(r));
        used = o.pos;
        if (r == 0) break;  // a frame is complete
        if (in.pos == in.size && o.pos < o.size) return Error(Code::Truncated, "zstd: the frame is cut short");
        if (!Grow(out, used, expected))
            return Error(Code::BadRecord, "zstd: decompresses to more than uncompressed_size");
    }
    if (in.pos != in.size) return Error(Code::BadRecord, "zstd: bytes after the frame");
    if (used != expected) return Error(Code::BadRecord, "zstd: decompresses to less than uncompressed_size");
    out.resize(used);
    return Status::Ok();
}

}  // namespace

Status Compress(const std::string& compression, int level, const void* data, size_t size, std::string& out)
{
    if (compression.empty()) {
        out.assign(static_cast<const char*>(data), size);
        return Status::Ok();
    }
    if (compression == "lz4") return CompressLz4(level, data, size, out);
    if (compression == "zstd") return CompressZstd(level, data, size, out);
    return Error(Code::Unsupported, "unknown compression '" + compression + "'");
}

Status Decompress(const std::string& compression, const uint8_t* data, size_t size, uint64_t expectedSize,
                  std::string& out)
{
    if (expectedSize > kMaxChunkUncompressed)
        return Error(Code::BadRecord, "uncompressed_size " + std::to_string(expectedSize) + " exceeds 1 GiB");
    if (compression.empty()) {
        if (expectedSize != size) return Error(Code::BadRecord, "uncompressed_size differs from the records' size");
        out.assign(reinterpret_cast<const char*>(data), size);
        return Status::Ok();
    }
    if (expectedSize == 0) {  // an empty chunk, whatever its (empty) frame holds
        out.clear();
        return Status::Ok();
    }
    if (compression == "lz4") return DecompressLz4(data, size, expectedSize, out);
    if (compression == "zstd") return DecompressZstd(data, size, expectedSize, out);
    return Error(Code::Unsupported, "unknown compression '" + compression + "'");
}

}  // namespace mcap
}  // namespace qvrec
