// EdgeFilterMad, OkadaFilter and SpeckleFilter.
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <vector>

#include "qvreconstruction/depth_filters.h"

namespace qvapi {

void EdgeFilterMad(uint16_t* depth, int width, int height, int madThreshold)
{
    if (depth == nullptr || width <= 0 || height <= 0)
        return;
    const size_t n = static_cast<size_t>(width) * height;
    std::vector<uint16_t> sum(n, 0);   // wraps at 16 bits, as designed
    std::vector<int32_t> count(n, 0);
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
            for (int y = 0; y < height; ++y) {
                const int qy = y + dy;
                if (qy < 0 || qy >= height)
                    continue;
                for (int x = 0; x < width; ++x) {
                    const int qx = x + dx;
                    if (qx < 0 || qx >= width)
                        continue;
                    const size_t i = static_cast<size_t>(y) * width + x;
                    const int p = depth[i];
                    const int q = depth[static_cast<size_t>(qy) * width + qx];
                    if (p != 0 && q != 0) {
                        sum[i] = static_cast<uint16_t>(sum[i] + std::abs(p - q));
                        ++count[i];
                    }
                }
            }
    for (size_t i = 0; i < n; ++i) {
        const int64_t mad = count[i] >= 1 ? sum[i] / count[i] : 0;
        if (int64_t(depth[i]) * madThreshold / 500 < mad)
            depth[i] = 0;
    }
}

namespace {

// One line of the Okada pass: `stride` apart, `length` values.
void OkadaLine(uint16_t* line, ptrdiff_t stride, int length)
{
    int16_t prev = 0;
    for (int i = 0; i + 1 < length; ++i) {
        uint16_t& a = line[i * stride];
        const uint16_t b = line[(i + 1) * stride];
        if (a == 0 || b == 0) {
            prev = 0;
            continue;
        }
        const int16_t d = static_cast<int16_t>(a - b);
        if (int32_t(prev) * d < 0)
            a = static_cast<uint16_t>((2 * int32_t(a) + prev - d) / 2);  // toward zero
        prev = d;
    }
}

}  // namespace

void OkadaFilter(uint16_t* depth, int width, int height)
{
    if (depth == nullptr || width <= 0 || height <= 0)
        return;
    for (int y = 0; y < height; ++y)
        OkadaLine(depth + static_cast<size_t>(y) * width, 1, width);
    for (int x = 0; x < width; ++x)
        OkadaLine(depth + x, width, height);
}

void SpeckleFilter(uint16_t* depth, int width, int height, int maxSpeckleSize, int maxDiff)
{
    // Coordinates are packed 16 bits each on the region stack.
    if (depth == nullptr || width <= 0 || height <= 0 || width > 65535 || height > 65535)
        return;
    const size_t n = static_cast<size_t>(width) * height;
    std::vector<uint32_t> label(n, 0);
    // Every pixel is pushed at most once (it is labelled when it joins), so a stack
    // of n entries never overflows, even for one region covering the whole image.
    std::unique_ptr<uint32_t[]> stack(new uint32_t[n]);
    std::vector<uint8_t> speckle(n + 1, 0);  // per label: at most one region per pixel
    uint32_t next = 0;
    const int64_t diff = maxDiff;

    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(y) * width + x;
            if (depth[i] == 0)
                continue;
            if (label[i] != 0) {
                if (speckle[label[i]])
                    depth[i] = 0;
                continue;
            }
            const uint32_t l = ++next;
            label[i] = l;
            int64_t size = 1;
            size_t top = 0;
            int cx = x, cy = y;
            const auto joins = [&](int qx, int qy, int px, int py) {
                if (qx < 0 || qy < 0 || qx >= width || qy >= height)
                    return false;
                const size_t q = static_cast<size_t>(qy) * width + qx;
                if (label[q] != 0 || depth[q] == 0)
                    return false;
                const int64_t d = int64_t(depth[q]) - depth[static_cast<size_t>(py) * width + px];
                if (d > diff || -d > diff)
                    return false;
                label[q] = l;
                ++size;
                return true;
            };
            for (;;) {
                const int px = cx, py = cy;
                if (joins(px, py + 1, px, py))
                    stack[top++] = (uint32_t(px) << 16) | uint32_t(py + 1);
                if (joins(px, py - 1, px, py))
                    stack[top++] = (uint32_t(px) << 16) | uint32_t(py - 1);
                if (joins(px + 1, py, px, py))
                    stack[top++] = (uint32_t(px + 1) << 16) | uint32_t(py);
                if (joins(px - 1, py, px, py)) {
                    cx = px - 1;  // the left neighbour is taken next directly
                    continue;
                }
                if (top == 0)
                    break;
                const uint32_t packed = stack[--top];
                cx = static_cast<int>(packed >> 16);
                cy = static_cast<int>(packed & 0xFFFF);
            }
            if (size <= maxSpeckleSize) {
                speckle[l] = 1;
                depth[i] = 0;
            }
        }
    }
}

}  // namespace qvapi
