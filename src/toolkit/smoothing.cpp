// filter_module: 3 x 3 mean and medians (running, in place) and 5 x 5 hole filling.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qvreconstruction/filter_module.h"

namespace qvapi {
namespace {

// Gathers the in-image 3 x 3 neighbours of (y, x) row by row, left to right, from
// the image as it is now (earlier pixels already filtered). Returns the count.
int Gather3x3(const unsigned short* img, int width, int height, int y, int x, unsigned short* out)
{
    int n = 0;
    for (int yy = y - 1; yy <= y + 1; ++yy) {
        if (yy < 0 || yy >= height)
            continue;
        for (int xx = x - 1; xx <= x + 1; ++xx)
            if (xx >= 0 && xx < width)
                out[n++] = img[static_cast<size_t>(yy) * width + xx];
    }
    return n;
}

// Replaces every pixel, in row-major order and in place, by reduce(window, count) of
// its in-image 3 x 3 neighbourhood as it is at that moment.
template <typename Reduce>
void Running3x3(unsigned short* img, int width, int height, Reduce reduce)
{
    if (img == nullptr || width <= 0 || height <= 0)
        return;
    unsigned short window[9];
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int n = Gather3x3(img, width, height, y, x, window);
            img[static_cast<size_t>(y) * width + x] = reduce(window, n);
        }
}

}  // namespace

void filter_module::meanFilter(unsigned short* img, int width, int height)
{
    Running3x3(img, width, height, [](unsigned short* window, int n) {
        uint32_t sum = 0;
        for (int k = 0; k < n; ++k)
            sum += window[k];
        return static_cast<unsigned short>(sum / n);
    });
}

void filter_module::medianFilter(unsigned short* img, int width, int height)
{
    if (img == nullptr || height <= 2 || width <= 2)
        return;
    unsigned short window[9];
    for (int y = 1; y <= height - 2; ++y)
        for (int x = 1; x <= width - 2; ++x) {
            Gather3x3(img, width, height, y, x, window);
            std::sort(window, window + 9);
            img[static_cast<size_t>(y) * width + x] = window[4];
        }
}

void filter_module::medianFilter2(unsigned short* img, int width, int height)
{
    Running3x3(img, width, height, [](unsigned short* window, int n) {
        std::sort(window, window + n);
        return window[n / 2];  // upper median
    });
}

void filter_module::PixelFilter(unsigned short* img, int width, int height, int minInner,
                                int minOuter)
{
    if (img == nullptr || width <= 0 || height <= 0)
        return;
    // Read from the input as it was, write into a copy.
    std::vector<unsigned short> out(img, img + static_cast<size_t>(width) * height);
    struct Tally {
        unsigned short value, count;
    };
    Tally tally[24];
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (img[static_cast<size_t>(y) * width + x] != 0)
                continue;
            int used = 0, inner = 0, outer = 0;
            for (int dy = -2; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx) {
                    const int yy = y + dy, xx = x + dx;
                    if ((dy == 0 && dx == 0) || yy < 0 || yy >= height || xx < 0 || xx >= width)
                        continue;
                    const unsigned short v = img[static_cast<size_t>(yy) * width + xx];
                    if (v == 0)
                        continue;
                    (dy >= -1 && dy <= 1 && dx >= -1 && dx <= 1 ? inner : outer)++;
                    int k = 0;
                    while (k < used && tally[k].value != v)
                        ++k;
                    if (k < used)
                        ++tally[k].count;
                    else if (used < 24)
                        tally[used++] = {v, 1};
                }
            if (inner < minInner && outer < minOuter)
                continue;
            // Earliest tallied value wins a tie: only a strictly higher count replaces.
            int best = -1;
            for (int k = 0; k < used; ++k)
                if (best < 0 || tally[k].count > tally[best].count)
                    best = k;
            if (best >= 0)
                out[static_cast<size_t>(y) * width + x] = tally[best].value;
        }
    std::copy(out.begin(), out.end(), img);
}

}  // namespace qvapi
