// Several threads calling the frame operations on one initialised instance at once get
// exactly the single-threaded results. CI also runs this under ThreadSanitizer.
#include <algorithm>
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

// Binned and full frames from two threads, DoubleFreqDepth, and Release, Init and the
// setters from a third: every call either refuses with a status and touches nothing, or
// gives exactly what it gives alone; Init never frees tables a frame operation reads.
TEST(Concurrency, MixedFramesBesideInitReleaseAndSetters)
{
    ReconstructionImpl r;
    r.SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    const auto binnedCal = qvsim::SampleBinnedCalibration(), fullCal = qvsim::SampleCalibration();
    ASSERT_EQ(r.Init(binnedCal, fullCal), STATUS_OK);
    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    qvsim::CaptureSpec setup;
    const qvsim::Capture full = qvsim::SimulateCapture(fullCal, scene, setup);
    setup.binned = true;
    const qvsim::Capture binned = qvsim::SimulateCapture(fullCal, scene, setup);
    std::vector<uint8_t> nv12 = qvsim::RenderColour(fullCal, scene).nv12;
    const std::pair<int, int> ranges[2] = {{500, 4000}, {800, 2500}};

    // Every Init restores the amplitude threshold and every binned frame halves it, so a
    // frame may meet any of the thresholds 5, 2, 1 and 0: the expected results are taken
    // alone under each. DoubleFreqDepth reads a frame of the size of the calling
    // thread's own last image, whatever the other thread converted since: each thread
    // hands it a frame of exactly that size (4 words a pixel).
    const int kThresholds[] = {5, 2, 1, 0};
    struct Expected {
        std::vector<Results> frame;
        std::vector<std::vector<uint16_t>> single;  // DoubleFreqDepth at this thread's size
        std::vector<std::vector<uint8_t>> rgb[2];  // colouring of each depth under each range
    } expect[2];
    std::vector<uint16_t> ownSize[2];
    for (int k = 0; k < 2; ++k) {
        const qvsim::Capture& cap = k == 0 ? binned : full;
        ownSize[k].assign(full.raw.begin(), full.raw.begin() + 4 * cap.width * cap.height);
        for (int t : kThresholds) {
            r.m_amplitudeThreshold = t;
            expect[k].frame.push_back(RunAll(r, cap, k == 0 ? nullptr : &nv12));
            uint16_t* d = nullptr;
            ASSERT_EQ(r.CalculateDepth(cap.raw.data(), &d, cap.width, cap.height), STATUS_OK);
            delete[] d;
            r.m_amplitudeThreshold = t;
            uint16_t* single = nullptr;
            int w = 0, h = 0;
            ASSERT_EQ(r.DoubleFreqDepth(ownSize[k].data(), nullptr, &single, w, h), STATUS_OK);
            ASSERT_EQ(w, cap.width);
            expect[k].single.emplace_back(single, single + w * h);
            delete[] single;
            for (int q = 0; q < 2; ++q) {
                r.SetCustomDistanceRange(ranges[q].first, ranges[q].second);
                uint8_t* rgb = nullptr;
                std::vector<uint16_t> depth = expect[k].frame.back().depth;
                r.Convert2RGB(&rgb, depth.data(), cap.width, cap.height);
                expect[k].rgb[q].emplace_back(rgb, rgb + 3 * depth.size());
                delete[] rgb;
            }
        }
    }
    const auto any = [](const auto& options, const auto& test) {
        return std::any_of(options.begin(), options.end(), test);
    };

    std::atomic<int> wrong{0}, done{0};
    const auto frames = [&](int k) {
        const qvsim::Capture& cap = k == 0 ? binned : full;
        const size_t n = size_t(cap.width) * cap.height;
        for (int round = 0; round < 4; ++round) {
            uint16_t* d = nullptr;
            const int32_t st = r.CalculateDepth(cap.raw.data(), &d, cap.width, cap.height);
            if (st != STATUS_OK) {
                wrong += st != STATUS_NOT_INITIALIZED || d != nullptr;
                continue;
            }
            // The results that go with the depth this frame got.
            const auto it = std::find_if(expect[k].frame.begin(), expect[k].frame.end(),
                                         [&](const Results& e) { return std::equal(d, d + n, e.depth.begin()); });
            if (it == expect[k].frame.end()) {
                ++wrong;
                delete[] d;
                continue;
            }
            std::vector<float> cloud(3 * n, -1.0f);
            const int32_t cs = r.GetCloudPoint(d, cloud.data(), cap.width, cap.height);
            wrong += cs == STATUS_OK ? cloud != it->cloud : cs != STATUS_NOT_INITIALIZED || cloud[0] != -1.0f;
            const size_t t = it - expect[k].frame.begin();
            uint8_t* rgb = nullptr;
            r.Convert2RGB(&rgb, d, cap.width, cap.height);
            wrong += !std::equal(rgb, rgb + 3 * n, expect[k].rgb[0][t].begin()) &&
                     !std::equal(rgb, rgb + 3 * n, expect[k].rgb[1][t].begin());
            delete[] rgb;
            uint16_t* single = nullptr;
            int w = -1, h = -1;
            const int32_t ss = r.DoubleFreqDepth(ownSize[k].data(), nullptr, &single, w, h);
            if (ss == STATUS_OK)
                wrong += w != cap.width || h != cap.height ||
                         !any(expect[k].single, [&](const std::vector<uint16_t>& e) {
                             return std::equal(single, single + n, e.begin());
                         });
            else
                wrong += single != nullptr || w != -1;
            delete[] single;
            if (k == 1) {
                std::vector<uint8_t> frame = nv12;
                uint8_t* colour = nullptr;
                int cw = 0, ch = 0;
                const int32_t ms = r.MapDepthToRGB(&colour, &d, frame.data(), 1920, 1080, cw, ch);
                wrong += ms == STATUS_OK ? !std::equal(d, d + cw * ch, it->registered.begin())
                                         : colour != nullptr;
                delete[] colour;
            }
            delete[] d;
        }
        ++done;
    };
    std::thread binnedThread(frames, 0), fullThread(frames, 1);
    std::thread settings([&] {
        for (int round = 0; done < 2; ++round) {
            r.SetCustomDistanceRange(ranges[round % 2].first, ranges[round % 2].second);
            r.OpenFilter(true);
            r.SetFlipMode(FLIP_NONE);
            if (round % 8 == 0) {
                r.Release();
                r.SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
                wrong += r.Init(binnedCal, fullCal) != STATUS_OK;
            }
            std::this_thread::yield();
        }
    });
    binnedThread.join();
    fullThread.join();
    settings.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(Concurrency, FullStreamOperationsFromSeveralThreads) { RunThreads(STREAM_DUAL_FREQ); }

TEST(Concurrency, ReducedStreamOperationsFromSeveralThreads) { RunThreads(STREAM_SINGLE_FREQ); }

}  // namespace
