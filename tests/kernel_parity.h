// What the kernel tests share: counting 1 mm depth differences, random frames, and an
// instance whose tables and parameters the kernels are called with directly.
#ifndef QVRECONSTRUCTION_TESTS_KERNEL_PARITY_H
#define QVRECONSTRUCTION_TESTS_KERNEL_PARITY_H

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "depth/dual_freq.h"
#include "depth/single_freq.h"
#include "reconstruction_impl.h"
#include "sample_calibration.h"

namespace qvtest {

struct Differences {
    size_t pixels = 0, off = 0, flips = 0, worst = 0;
    void Add(const uint16_t* ref, const uint16_t* fast, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            pixels++;
            if (ref[i] == fast[i])
                continue;
            const bool refMark = ref[i] <= 1, fastMark = fast[i] <= 1;
            flips += refMark != fastMark || (refMark && fastMark);
            const size_t d = ref[i] > fast[i] ? ref[i] - fast[i] : fast[i] - ref[i];
            worst = std::max(worst, d);
            off++;
        }
    }
    // At most 1 mm on at most `share` of the pixels (0.01 % for the converters), and
    // never between a mark (0 or 1) and a depth.
    void Check(const char* what, double share = 1e-4) const
    {
        EXPECT_EQ(flips, 0u) << what;
        EXPECT_LE(worst, 1u) << what;
        EXPECT_LE(static_cast<double>(off), share * pixels) << what << ": " << off << " of " << pixels;
        std::printf("  %-34s %zu of %zu pixels differ by 1 mm\n", what, off, pixels);
    }
};

inline std::vector<uint16_t> RandomFrame(size_t words, std::mt19937& rng, int top, int bottom = 0)
{
    std::uniform_int_distribution<int> u(bottom, top);
    std::vector<uint16_t> raw(words);
    for (uint16_t& w : raw)
        w = static_cast<uint16_t>(u(rng));
    return raw;
}

struct Instance {
    std::unique_ptr<qvapi::ReconstructionImpl> r = std::make_unique<qvapi::ReconstructionImpl>();
    Instance(qvapi::DeviceType device, qvapi::StreamType stream)
    {
        r->SetType(device, stream);
        const auto binned = qvsim::SampleBinnedCalibration();
        r->Init(binned, stream == qvapi::STREAM_SINGLE_FREQ ? binned : qvsim::SampleCalibration());
    }
    qvapi::DualFreqParams Dual(int width, int flip, int threshold) const
    {
        const qvapi::FrequencyParam& a = r->m_freqParam[0];
        const qvapi::FrequencyParam& b = r->m_freqParam[1];
        return {a.frequency, b.frequency, a.rangeMm, b.rangeMm, a.phaseToMm, b.phaseToMm,
                a.depthOffset, b.depthOffset, b.tableStep, a.table, b.table, r->m_slopes[0], r->m_slopes[1], threshold,
                r->m_deviceType != qvapi::DEVICE_TYPE_4, flip, width == 320 ? 2 : 1};
    }
    qvapi::SingleFreqParams Single(int threshold) const
    {
        const qvapi::FrequencyParam& f = r->m_freqParam[0];
        return {f.phaseToMm, f.depthOffset, f.rangeMm, f.tableStep, f.tableCount, f.table,
                threshold, r->m_deviceType != qvapi::DEVICE_TYPE_4};
    }
};

// Images for the median tests: sizes down to one pixel and off every vector width,
// each with many ties and with values anywhere.
inline std::vector<cv::Mat> MedianTestImages()
{
    std::mt19937 rng(21);
    const std::pair<int, int> sizes[] = {{1, 1}, {1, 9}, {7, 1}, {2, 3}, {5, 5}, {6, 4},
                                         {33, 17}, {64, 31}, {65, 66}, {640, 480}};
    std::vector<cv::Mat> images;
    for (const auto& [w, h] : sizes) {
        for (int spread : {3, 65536}) {
            cv::Mat src(h, w, CV_16UC1);
            std::uniform_int_distribution<int> value(0, spread - 1);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    src.at<uint16_t>(y, x) = static_cast<uint16_t>(value(rng));
            images.push_back(src);
        }
    }
    return images;
}

}  // namespace qvtest

#endif
