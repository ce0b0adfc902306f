// The fast depth kernels against their scalar references: simulated scenes and random
// frames, every flip mode and stream, widths that are not multiples of a vector.
#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "depth/dual_freq.h"
#include "depth/edge_filter.h"
#include "depth/fast/depth_fast.h"
#include "depth/single_freq.h"
#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

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
    // At most 1 mm on at most 0.01 % of the pixels, and never between a mark (0 or 1)
    // and a depth.
    void Check(const char* what) const
    {
        EXPECT_EQ(flips, 0u) << what;
        EXPECT_LE(worst, 1u) << what;
        EXPECT_LE(off * 10000, pixels) << what << ": " << off << " of " << pixels;
        std::printf("  %-34s %zu of %zu pixels differ by 1 mm\n", what, off, pixels);
    }
};

std::vector<uint16_t> RandomFrame(size_t words, std::mt19937& rng, int top)
{
    std::uniform_int_distribution<int> u(0, top);
    std::vector<uint16_t> raw(words);
    for (uint16_t& w : raw)
        w = static_cast<uint16_t>(u(rng));
    return raw;
}

struct Instance {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    Instance(DeviceType device, StreamType stream)
    {
        r->SetType(device, stream);
        const auto binned = qvsim::SampleBinnedCalibration();
        r->Init(binned, stream == STREAM_SINGLE_FREQ ? binned : qvsim::SampleCalibration());
    }
    DualFreqParams Dual(int width, int flip, int threshold) const
    {
        const FrequencyParam& a = r->m_freqParam[0];
        const FrequencyParam& b = r->m_freqParam[1];
        return {a.frequency, b.frequency, a.rangeMm, b.rangeMm, a.phaseToMm, b.phaseToMm,
                a.depthOffset, b.depthOffset, b.tableStep, a.table, b.table, threshold,
                r->m_deviceType != DEVICE_TYPE_4, flip, width == 320 ? 2 : 1};
    }
    SingleFreqParams Single(int threshold) const
    {
        const FrequencyParam& f = r->m_freqParam[0];
        return {f.phaseToMm, f.depthOffset, f.rangeMm, f.tableStep, f.tableCount, f.table,
                threshold, r->m_deviceType != DEVICE_TYPE_4};
    }
};

void CompareDual(const Instance& in, const uint16_t* raw, int w, int h, int flip, int threshold,
                 Differences& diff)
{
    const DualFreqParams p = in.Dual(w, flip, threshold);
    std::vector<uint16_t> ref(static_cast<size_t>(w) * h), fast(ref.size());
    DualFreqLast lastRef{-1, -1}, lastFast{-1, -1};
    DualFreqDepth(raw, ref.data(), w, h, p, in.r->m_fppnOffset.get(), in.r->m_fppnOffset2.get(),
                  in.r->m_radialToZ.get(), lastRef);
    DualFreqDepthFast(raw, fast.data(), w, h, p, in.r->m_fppnOffset.get(), in.r->m_fppnOffset2.get(),
                      in.r->m_radialToZ.get(), lastFast);
    diff.Add(ref.data(), fast.data(), ref.size());
    EXPECT_NEAR(lastRef.distance1, lastFast.distance1, 0.01f);
    EXPECT_NEAR(lastRef.distance2, lastFast.distance2, 0.01f);
}

TEST(Parity, DualFrequencyScenesAndRandomFrames)
{
    for (DeviceType device : {DEVICE_GENERIC, DEVICE_TYPE_4}) {
        Instance in(device, STREAM_DUAL_FREQ);
        Differences diff;
        for (int flip = 0; flip < 4; ++flip) {
            for (bool binned : {false, true}) {
                qvsim::SceneSpec scene;
                scene.kind = flip % 2 ? qvsim::SceneKind::Boxes : qvsim::SceneKind::Sphere;
                scene.distanceMm = 900 + 1500 * flip;
                scene.brightPatch = scene.darkPatch = true;
                qvsim::CaptureSpec setup;
                setup.device = device;
                setup.flip = static_cast<FlipMode>(flip);
                setup.binned = binned;
                setup.noiseSigma = 2.0;
                setup.seed = static_cast<uint32_t>(flip + 10 * binned);
                const qvsim::Capture cap = qvsim::SimulateCapture(in.r->m_secondParam, scene, setup);
                CompareDual(in, cap.raw.data(), cap.width, cap.height, flip, 5, diff);
            }
        }
        diff.Check(device == DEVICE_TYPE_4 ? "dual, device 4, scenes" : "dual, scenes");
    }

    // Random frames of odd widths (each plane holds 4 * w * h words).
    Instance in(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    std::mt19937 rng(42);
    Differences diff;
    for (int w : {1, 7, 17, 33, 320, 639}) {
        const int h = std::min(480, 307200 / std::max(w, 1) / 4 + 3);
        for (int flip = 0; flip < 4; ++flip) {
            const std::vector<uint16_t> raw = RandomFrame(16 * static_cast<size_t>(w) * h, rng, 1023);
            CompareDual(in, raw.data(), w, std::min(h, w == 320 ? 240 : h), flip, 5, diff);
        }
    }
    diff.Check("dual, random frames");
}

TEST(Parity, SingleFrequencyScenesAndRandomFrames)
{
    Instance in(DEVICE_TYPE_1, STREAM_SINGLE_FREQ);
    Differences diff;
    std::mt19937 rng(7);
    for (double distance : {400.0, 1700.0, 3300.0}) {
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        scene.distanceMm = distance;
        qvsim::CaptureSpec setup;
        setup.stream = STREAM_SINGLE_FREQ;
        setup.noiseSigma = 1.5;
        const qvsim::Capture cap = qvsim::SimulateCapture(in.r->m_secondParam, scene, setup);
        for (int threshold : {0, 5, 40}) {
            std::vector<uint16_t> ref(320 * 240), fast(320 * 240);
            SingleFreqDepth(cap.raw.data(), ref.data(), 320, 240, 320, in.Single(threshold),
                            in.r->m_fppnOffset.get(), in.r->m_radialToZ.get());
            SingleFreqDepthFast(cap.raw.data(), fast.data(), 320, 240, in.Single(threshold),
                                in.r->m_fppnOffset.get(), in.r->m_radialToZ.get());
            diff.Add(ref.data(), fast.data(), ref.size());
        }
    }
    for (int w : {5, 31, 77, 320}) {
        const int h = 76800 / w;
        const std::vector<uint16_t> raw = RandomFrame(4 * static_cast<size_t>(w) * h, rng, 4095);
        std::vector<uint16_t> ref(static_cast<size_t>(w) * h), fast(ref.size());
        SingleFreqDepth(raw.data(), ref.data(), w, h, w, in.Single(5), in.r->m_fppnOffset.get(),
                        in.r->m_radialToZ.get());
        SingleFreqDepthFast(raw.data(), fast.data(), w, h, in.Single(5), in.r->m_fppnOffset.get(),
                            in.r->m_radialToZ.get());
        diff.Add(ref.data(), fast.data(), ref.size());
    }
    diff.Check("single, scenes and random frames");
}

TEST(Parity, EdgeFilterIsExact)
{
    std::mt19937 rng(9);
    for (int w : {1, 2, 15, 16, 17, 63, 640}) {
        for (int h : {1, 2, 3, 9, 50}) {
            for (int top : {100, 7500, 32767, 65535}) {
                // Smooth areas with steps, so that both outcomes of the test occur.
                std::uniform_int_distribution<int> u(0, top);
                std::vector<uint16_t> img(static_cast<size_t>(w) * h);
                for (size_t i = 0; i < img.size(); ++i)
                    img[i] = static_cast<uint16_t>((i / 7) % 3 == 0 ? u(rng) : std::min(top, 1000 + int(i % 50)));
                std::vector<uint16_t> ref = img, fast = img;
                EdgeFilter(ref.data(), w, h);
                EdgeFilterFast(fast.data(), w, h);
                ASSERT_EQ(ref, fast) << w << "x" << h << " top " << top;
            }
        }
    }
}

TEST(Parity, ExactAmplitudeThreshold)
{
    // The integer energy bound reproduces the float amplitude test at every threshold.
    for (int threshold : {-3, 0, 1, 2, 5, 17, 300, 6000}) {
        const int64_t e = MinValidEnergy(threshold);
        const auto strong = [threshold](int64_t energy) {
            const float a = static_cast<float>(std::sqrt(static_cast<float>(energy)) * 1.5707963265);
            return !(static_cast<float>(threshold) > a);
        };
        EXPECT_TRUE(strong(e)) << threshold;
        if (e > 0) {
            EXPECT_FALSE(strong(e - 1)) << threshold;
        }
    }
    std::printf("  fast paths run with: %s\n", FastPathName());
}

}  // namespace
