// The depth kernels, the medians, the infrared image, the point cloud and the false colours alone, fast against scalar, on random frames: a program without
// OpenCV or GoogleTest so that it cross-compiles for ARM64 and runs under qemu-user.
#include <algorithm>
#include <numeric>
#include <utility>
#include <cstdio>
#include <random>
#include <vector>

#include "colour/false_colour.h"
#include "depth/dual_freq.h"
#include "depth/edge_filter.h"
#include "simd/targets.h"
#include "depth/ir.h"
#include "depth/point_cloud.h"
#include "depth/single_freq.h"
#include "registration/registration_kernels.h"

using namespace qvapi;

int main()
{
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::uniform_int_distribution<int> sample(0, 1023);
    const int W = 96, H = 40;  // 16 * W * H words: the full calibration grid is W x H
    std::vector<float> fppn1(W * H), fppn2(W * H), rays(W * H), table1(257), table2(257);  // padded: the last entry twice
    for (size_t i = 0; i < fppn1.size(); ++i) {
        fppn1[i] = 20.0f * unit(rng) - 10.0f;
        fppn2[i] = 20.0f * unit(rng) - 10.0f;
        rays[i] = 0.8f + 0.2f * unit(rng);
    }
    for (int k = 0; k < 40; ++k) {
        table1[k] = 10.0f * unit(rng) - 5.0f;
        table2[k] = 10.0f * unit(rng) - 5.0f;
    }
    int passed = 0, failed = 0;
    const auto report = [&](const char* what, size_t off, size_t flips, size_t n) {
        const bool ok = flips == 0 && off * 1000 <= n;
        std::printf("%-28s %zu of %zu differ by 1 mm, %zu marks differ: %s\n", what, off, n, flips,
                    ok ? "ok" : "FAILED");
        (ok ? passed : failed)++;
    };
    const auto exact = [&](const char* what, size_t differ, size_t n) {
        std::printf("%-28s %zu of %zu differ: %s\n", what, differ, n, differ == 0 ? "ok" : "FAILED");
        (differ == 0 ? passed : failed)++;
    };

    for (int flip = 0; flip < 4; ++flip) {
        // Random samples with a common phase per pixel, so that most pixels are strong
        // and consistent and give a depth.
        std::vector<uint16_t> raw(16 * W * H);
        for (uint16_t& w : raw)
            w = static_cast<uint16_t>(sample(rng));
        const DualFreqParams p{80000000, 100000000, 1875, 1500, 298.4155f, 238.7324f, -214.0f, -186.5f,
                               0.02f, table1.data(), table2.data(), 5, true, flip, 1};
        std::vector<uint16_t> ref(W * H), fast(W * H);
        DualFreqLast a{}, b{};
        DualFreqDepth(raw.data(), ref.data(), W, H, p, fppn1.data(), fppn2.data(), rays.data(), a);
        DualFreqDepthFast(raw.data(), fast.data(), W, H, p, fppn1.data(), fppn2.data(), rays.data(), b);
        size_t off = 0, flips = 0;
        for (size_t i = 0; i < ref.size(); ++i) {
            off += ref[i] != fast[i];
            flips += (ref[i] <= 1 || fast[i] <= 1) && ref[i] != fast[i];
        }
        report(flip == 0 ? "dual frequency, flip 0" : flip == 1 ? "dual frequency, flip 1"
               : flip == 2 ? "dual frequency, flip 2" : "dual frequency, flip 3", off, flips, ref.size());
    }
    {
        std::vector<uint16_t> raw(4 * W * H);
        for (uint16_t& w : raw)
            w = static_cast<uint16_t>(sample(rng));
        const SingleFreqParams p{596.831f, -214.0f, 3750, 0.02f, 39, table1.data(), 5, true};
        std::vector<uint16_t> ref(W * H), fast(W * H);
        SingleFreqDepth(raw.data(), ref.data(), W, H, W, p, fppn1.data(), rays.data());
        SingleFreqDepthFast(raw.data(), fast.data(), W, H, p, fppn1.data(), rays.data());
        size_t off = 0, flips = 0;
        for (size_t i = 0; i < ref.size(); ++i) {
            off += ref[i] != fast[i] && (ref[i] + 1 == fast[i] || fast[i] + 1 == ref[i]);
            flips += ref[i] != fast[i] && !(ref[i] + 1 == fast[i] || fast[i] + 1 == ref[i]);
        }
        report("single frequency", off, flips, ref.size());
    }
    {
        std::vector<uint16_t> img(W * H), ref, fast;
        for (size_t i = 0; i < img.size(); ++i)
            img[i] = static_cast<uint16_t>(i % 5 ? 1500 + (i % 13) : 900 + sample(rng));
        ref = fast = img;
        EdgeFilter(ref.data(), W, H);
        EdgeFilterFast(fast.data(), W, H);
        size_t off = 0;
        for (size_t i = 0; i < ref.size(); ++i)
            off += ref[i] != fast[i];
        exact("edge filter", off, ref.size());
    }
    for (int radius : {1, 2}) {
        // The 3 x 3 (in place) and 5 x 5 medians against sorting each window, border
        // replicated, on widths around the vector widths and values with many ties.
        size_t off = 0, n = 0;
        const int size = 2 * radius + 1, middle = size * size / 2;
        for (int w : {1, 4, 17, 33, 70}) {
            const int h = 9;
            std::vector<uint16_t> img(static_cast<size_t>(w) * h), fast(img.size());
            for (uint16_t& v : img)
                v = static_cast<uint16_t>(sample(rng) % (w % 2 ? 4 : 1024));
            if (radius == 1) {
                fast = img;
                MedianBlur3x3InPlace(fast.data(), w, h);
            } else {
                MedianBlur5x5(img.data(), w, fast.data(), w, w, h);
            }
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    std::vector<uint16_t> window;
                    for (int dy = -radius; dy <= radius; ++dy)
                        for (int dx = -radius; dx <= radius; ++dx)
                            window.push_back(img[static_cast<size_t>(std::min(std::max(y + dy, 0), h - 1)) * w +
                                                 std::min(std::max(x + dx, 0), w - 1)]);
                    std::nth_element(window.begin(), window.begin() + middle, window.end());
                    off += window[middle] != fast[static_cast<size_t>(y) * w + x];
                    ++n;
                }
        }
        exact(radius == 1 ? "median 3 x 3" : "median 5 x 5", off, n);
    }
    {
        // False colours of every depth, exactly as the plain loop paints them.
        std::vector<uint16_t> all(65536);
        std::iota(all.begin(), all.end(), uint16_t(0));
        size_t off = 0;
        for (auto [lo, hi] : {std::make_pair(300, 4000), std::make_pair(7, 3070), std::make_pair(0, 1021),
                              std::make_pair(2, 3), std::make_pair(-3000, 2000), std::make_pair(0, 65535)}) {
            std::vector<uint8_t> ref(3 * all.size()), fast(ref.size());
            FalseColour(all.data(), all.size(), lo, hi, ref.data());
            FalseColourFast(all.data(), all.size(), lo, hi, fast.data());
            for (size_t i = 0; i < ref.size(); ++i)
                off += ref[i] != fast[i];
        }
        exact("false colour", off, 6 * 3 * all.size());
    }
    {
        // The infrared image of random samples over the whole 16-bit range.
        std::vector<uint16_t> raw(4 * W * H), ref(W * H), fast(W * H);
        for (size_t i = 0; i < raw.size(); ++i)
            raw[i] = static_cast<uint16_t>(i % 3 ? sample(rng) : sample(rng) * 64);
        InfraredImage(raw.data(), ref.data(), W, H);
        InfraredImageFast(raw.data(), fast.data(), W, H);
        size_t off = 0;
        for (size_t i = 0; i < ref.size(); ++i)
            off += ref[i] != fast[i];
        exact("infrared", off, ref.size());
    }
    {
        // Points of the octagon, exactly as the plain loop computes them.
        std::vector<uint16_t> depth(W * H);
        for (uint16_t& d : depth)
            d = static_cast<uint16_t>(sample(rng) * 7);
        std::vector<float> ref(3 * depth.size(), -1.0f), fast(ref.size(), -2.0f);
        PointCloud(depth.data(), W, H, 1, 12, rays.data(), fppn1.data(), ref.data());
        PointCloudRows(depth.data(), W, H, 1, 12, rays.data(), fppn1.data(), fast.data());
        size_t off = 0;
        for (size_t i = 0; i < ref.size(); ++i)
            off += ref[i] != fast[i];
        exact("point cloud", off, ref.size());
    }
    std::printf("kernels: %s\n%d passed, %d failed\n", FastPathName(), passed, failed);
    return failed == 0 ? 0 : 1;
}
