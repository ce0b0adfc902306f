#include "depth/ir.h"

#include <cstddef>

#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(void InfraredRows(const uint16_t* raw, uint16_t* ir, int width, int height);)

void InfraredImage(const uint16_t* raw, uint16_t* ir, int width, int height)
{
    for (int r = 0; r < height; ++r) {
        const uint16_t* row = raw + 4 * static_cast<size_t>(width) * r;
        uint16_t* out = ir + static_cast<size_t>(width) * r;
        for (int c = 0; c < width; ++c) {
            const uint32_t sum = uint32_t(row[2 * c]) + row[2 * c + 1] + row[2 * width + 2 * c] +
                                 row[2 * width + 2 * c + 1];
            const uint32_t mean = sum >> 2;
            out[c] = static_cast<uint16_t>(mean > 255 ? 255 : mean);
        }
    }
}

void InfraredImageFast(const uint16_t* raw, uint16_t* ir, int width, int height)
{
    QV_DISPATCH(InfraredRows)(raw, ir, width, height);
}

void MakeInfraredImage(const uint16_t* raw, uint16_t* ir, int width, int height)
{
    if (FastPathsEnabled())
        InfraredImageFast(raw, ir, width, height);
    else
        InfraredImage(raw, ir, width, height);
}

}  // namespace qvapi
