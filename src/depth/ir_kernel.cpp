// The infrared image, compiled once per target (see simd/targets.h) into the
// namespace QV_KERNEL_NS. Each pixel's two samples of a sub-row are adjacent words, so
// one 32-bit load holds both and the vectoriser adds its halves with shifts and masks
// (the word-by-word form became shuffles of every other word).
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {
namespace {

// The sum of the two words at p (their order in the load does not matter).
inline uint32_t PairSum(const uint16_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return (v & 0xffff) + (v >> 16);
}

}  // namespace

void InfraredRows(const uint16_t* raw, uint16_t* ir, int width, int height)
{
    for (int r = 0; r < height; ++r) {
        const uint16_t* __restrict top = raw + 4 * static_cast<size_t>(width) * r;
        const uint16_t* __restrict bottom = top + 2 * static_cast<size_t>(width);
        uint16_t* __restrict out = ir + static_cast<size_t>(width) * r;
        for (int c = 0; c < width; ++c) {
            const uint32_t mean = (PairSum(top + 2 * c) + PairSum(bottom + 2 * c)) >> 2;
            out[c] = static_cast<uint16_t>(mean > 255 ? 255 : mean);
        }
    }
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
