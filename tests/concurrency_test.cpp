// Several threads calling the frame operations on one initialised instance at once get
// exactly the single-threaded results. CI also runs this under ThreadSanitizer.
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core/utility.hpp>

#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

// OpenCV's own worker threads are not instrumented for the race detector; the library
// runs its OpenCV calls on the calling thread here.
const bool kOneOpenCvThread = [] {
    cv::setNumThreads(0);
    return true;
}();

struct Results {
    std::vector<uint16_t> depth, ir, registered;
    std::vector<float> cloud;
    std::vector<uint8_t> rgb, colour;
    bool operator==(const Results& o) const
    {
        return depth == o.depth && ir == o.ir && registered == o.registered && cloud == o.cloud &&
               rgb == o.rgb && colour == o.colour;
    }
};

Results RunAll(ReconstructionImpl& r, const qvsim::Capture& cap, const std::vector<uint8_t>* nv12)
{
    Results out;
    const int w = cap.width, h = cap.height;
    uint16_t* d = nullptr;
    EXPECT_EQ(r.CalculateDepth(cap.raw.data(), &d, w, h), STATUS_OK);
    out.depth.assign(d, d + w * h);
    out.ir.resize(w * h);
    EXPECT_EQ(r.GetIR(cap.raw.data(), out.ir.data(), w, h), STATUS_OK);
    out.cloud.resize(3 * w * h);
    EXPECT_EQ(r.GetCloudPoint(d, out.cloud.data(), w, h), STATUS_OK);
    uint8_t* rgb = nullptr;
    r.Convert2RGB(&rgb, d, w, h);
    out.rgb.assign(rgb, rgb + 3 * w * h);
    delete[] rgb;
    if (nv12 != nullptr) {
        std::vector<uint8_t> frame = *nv12;
        uint8_t* colour = nullptr;
        int cw = 0, ch = 0;
        EXPECT_EQ(r.MapDepthToRGB(&colour, &d, frame.data(), 1920, 1080, cw, ch), STATUS_OK);
        out.registered.assign(d, d + cw * ch);
        out.colour.assign(colour, colour + 3 * cw * ch);
        delete[] colour;
    }
    delete[] d;
    return out;
}

void RunThreads(StreamType stream)
{
    ReconstructionImpl r;
    r.SetType(DEVICE_GENERIC, stream);
    const bool single = stream == STREAM_SINGLE_FREQ;
    const auto binned = qvsim::SampleBinnedCalibration();
    ASSERT_EQ(r.Init(binned, single ? binned : qvsim::SampleCalibration()), STATUS_OK);
    r.SetCustomDistanceRange(500, 4000);
    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    qvsim::CaptureSpec setup;
    setup.stream = stream;
    const qvsim::Capture cap = qvsim::SimulateCapture(r.m_secondParam, scene, setup);
    std::vector<uint8_t> nv12;
    if (!single)
        nv12 = qvsim::RenderColour(r.m_secondParam, scene).nv12;
    const Results expected = RunAll(r, cap, single ? nullptr : &nv12);

    constexpr int kThreads = 4, kRounds = 3;
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round)
                if (!(RunAll(r, cap, single ? nullptr : &nv12) == expected))
                    ++mismatches;
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST(Concurrency, FullStreamOperationsFromSeveralThreads) { RunThreads(STREAM_DUAL_FREQ); }

TEST(Concurrency, ReducedStreamOperationsFromSeveralThreads) { RunThreads(STREAM_SINGLE_FREQ); }

}  // namespace
