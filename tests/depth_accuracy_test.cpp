// End to end: simulated captures of known scenes come back as their depth.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;
using qvsim::Capture;
using qvsim::CaptureSpec;
using qvsim::SceneKind;
using qvsim::SceneSpec;

struct Outcome {
    double worst = 0;
    size_t checked = 0, outside = 0;
};

// Compares valid pixels away from the frame's border rows (rows 0-1 carry no depth,
// the edge filter clears the last two) with the scene's Z.
Outcome Compare(const uint16_t* depth, const Capture& cap, double tolerance)
{
    Outcome o;
    for (int r = 2; r < cap.height - 2; ++r)
        for (int c = 1; c < cap.width - 1; ++c) {
            const size_t i = static_cast<size_t>(r) * cap.width + c;
            if (cap.label[i] != qvsim::kValid)
                continue;
            const double err = std::fabs(depth[i] - cap.truthZ[i]);
            o.worst = std::max(o.worst, err);
            o.outside += err > tolerance;
            ++o.checked;
        }
    return o;
}

struct Fixture {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    CameraCalibrationParam full = qvsim::SampleCalibration();
    CameraCalibrationParam binned = qvsim::SampleBinnedCalibration();

    Fixture(DeviceType device, StreamType stream)
    {
        r->SetType(device, stream);
        // The reduced stream's working record is the 320 x 240 sensor's.
        const CameraCalibrationParam& second = stream == STREAM_SINGLE_FREQ ? binned : full;
        EXPECT_EQ(r->Init(binned, second), STATUS_OK);
    }
    const CameraCalibrationParam& Working() const { return r->m_secondParam; }

    std::vector<uint16_t> Depth(const Capture& cap, bool filter)
    {
        r->OpenFilter(filter);
        uint16_t* out = nullptr;
        EXPECT_EQ(r->CalculateDepth(cap.raw.data(), &out, cap.width, cap.height), STATUS_OK);
        std::vector<uint16_t> v(out, out + static_cast<size_t>(cap.width) * cap.height);
        delete[] out;
        return v;
    }
};

double g_worst = 0;  // reported at the end

void Expect(const Outcome& o, const char* what)
{
    g_worst = std::max(g_worst, o.worst);
    EXPECT_GT(o.checked, 1000u) << what;
    EXPECT_EQ(o.outside, 0u) << what << ": worst " << o.worst << " mm over " << o.checked;
    std::printf("  %-48s worst %.1f mm over %zu pixels\n", what, o.worst, o.checked);
}

TEST(DepthAccuracy, DualFrequencyAcrossTheCombinedRangeFlipsAndDevices)
{
    for (DeviceType device : {DEVICE_GENERIC, DEVICE_TYPE_4}) {
        Fixture f(device, STREAM_DUAL_FREQ);
        // Distances past each frequency's own range (1875 and 1500 mm); every flip mode
        // and both temperatures met along the way.
        const double distances[] = {300.0, 1000.0, 1874.0, 2600.0, 3800.0, 4500.0, 5700.0, 6900.0};
        for (int n = 0; n < 8; ++n) {
            const double distance = distances[n];
            const int flip = n % 4;
            {
                {
                    const double temperature = n < 4 ? 25.0 : 45.0;
                    CaptureSpec setup;
                    setup.device = device;
                    setup.flip = static_cast<FlipMode>(flip);
                    setup.temperatureC = temperature;
                    f.r->SetFlipMode(setup.flip);
                    SceneSpec scene;
                    scene.kind = SceneKind::TiltedPlane;
                    scene.distanceMm = distance;
                    scene.tiltDeg = 20;
                    const Capture cap = qvsim::SimulateCapture(f.Working(), scene, setup);
                    char what[96];
                    std::snprintf(what, sizeof what, "dual dev %d at %.0f mm flip %d %.0f C", device,
                                  distance, flip, temperature);
                    Expect(Compare(f.Depth(cap, false).data(), cap, 3.0), what);
                }
            }
        }
        // Far: a wall at 7.4 m (corners beyond the combined range are excluded).
        SceneSpec far;
        far.distanceMm = 7400;
        const Capture cap = qvsim::SimulateCapture(f.Working(), far, CaptureSpec{device});
        f.r->SetFlipMode(FLIP_NONE);
        Expect(Compare(f.Depth(cap, true).data(), cap, 3.0), "dual wall at 7400 mm, filtered");
    }
}

TEST(DepthAccuracy, BinnedFramesInTheFullStream)
{
    Fixture f(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    for (double distance : {800.0, 3300.0}) {
        // The threshold halves on every binned frame; keep it from reaching 0 early.
        f.r->m_amplitudeThreshold = 5;
        CaptureSpec setup;
        setup.binned = true;
        setup.flip = FLIP_BOTH;
        f.r->SetFlipMode(FLIP_BOTH);
        SceneSpec scene;
        scene.kind = SceneKind::Sphere;
        scene.distanceMm = distance;
        const Capture cap = qvsim::SimulateCapture(f.Working(), scene, setup);
        ASSERT_EQ(cap.width, 320);
        Expect(Compare(f.Depth(cap, true).data(), cap, 3.0), "binned sphere");
        EXPECT_EQ(f.r->m_binning, 2);
    }
}

TEST(DepthAccuracy, SingleFrequencyStream)
{
    for (DeviceType device : {DEVICE_TYPE_1, DEVICE_TYPE_4}) {
        Fixture f(device, STREAM_SINGLE_FREQ);
        for (double distance : {300.0, 1200.0, 2500.0, 3400.0}) {
            for (double temperature : {25.0, 45.0}) {
                CaptureSpec setup;
                setup.device = device;
                setup.stream = STREAM_SINGLE_FREQ;
                setup.temperatureC = temperature;
                SceneSpec scene;
                scene.kind = SceneKind::TiltedPlane;
                scene.distanceMm = distance;
                scene.tiltDeg = 15;
                const Capture cap = qvsim::SimulateCapture(f.Working(), scene, setup);
                ASSERT_EQ(cap.width, 320);
                char what[96];
                std::snprintf(what, sizeof what, "single dev %d at %.0f mm %.0f C", device, distance,
                              temperature);
                Expect(Compare(f.Depth(cap, false).data(), cap, 3.0), what);
            }
        }
    }
}

TEST(DepthAccuracy, SaturationDarknessAndFlyingPixels)
{
    Fixture f(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    SceneSpec scene;
    scene.kind = SceneKind::Boxes;
    scene.distanceMm = 2200;
    scene.brightPatch = true;
    scene.darkPatch = true;
    const Capture cap = qvsim::SimulateCapture(f.Working(), scene, CaptureSpec{});
    const std::vector<uint16_t> raw = f.Depth(cap, false);
    const std::vector<uint16_t> filtered = f.Depth(cap, true);
    size_t saturated = 0, dark = 0, flying = 0, flyingKept = 0;
    for (int r = 2; r < cap.height - 2; ++r)
        for (int c = 1; c < cap.width - 1; ++c) {
            const size_t i = static_cast<size_t>(r) * cap.width + c;
            if (cap.label[i] == qvsim::kSaturated) {
                EXPECT_EQ(raw[i], 1);
                ++saturated;
            } else if (cap.label[i] == qvsim::kDark) {
                EXPECT_EQ(raw[i], 0);
                ++dark;
            } else if (cap.label[i] == qvsim::kEdge && raw[i] > 0) {
                // A flying pixel: depth between the surfaces, far from both of its 4-neighbours.
                const double near = std::min({raw[i - 1] + 0.0, raw[i + 1] + 0.0});
                const double farther = std::max({raw[i - 1] + 0.0, raw[i + 1] + 0.0});
                if (raw[i] > near + 100 && raw[i] + 100 < farther) {
                    ++flying;
                    flyingKept += filtered[i] != 0 && filtered[i] > near + 100 && filtered[i] + 100 < farther;
                }
            }
        }
    EXPECT_GT(saturated, 100u);
    EXPECT_GT(dark, 100u);
    EXPECT_GT(flying, 20u);
    EXPECT_EQ(flyingKept, 0u) << "of " << flying << " flying pixels";
    Expect(Compare(filtered.data(), cap, 3.0), "boxes, filtered, away from edges");
}

TEST(DepthAccuracy, NoiseStaysWithinAFewMillimetresAfterFiltering)
{
    Fixture f(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    CaptureSpec setup;
    setup.noiseSigma = 1.0;
    setup.seed = 7;
    SceneSpec scene;
    scene.distanceMm = 1500;
    const Capture cap = qvsim::SimulateCapture(f.Working(), scene, setup);
    const Outcome o = Compare(f.Depth(cap, true).data(), cap, 6.0);
    EXPECT_EQ(o.outside, 0u) << o.worst;
}

}  // namespace
