// Processor selection: each target's kernels are built for its instruction set, and
// the whole operations give the same results with and without the fast paths.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kernel_parity.h"
#include "simd/targets.h"
#include "simulator.h"

namespace {

using namespace qvapi;
using namespace qvtest;

TEST(Targets, WholeOperationsWithAndWithoutFastPaths)
{
    Instance in(DEVICE_GENERIC, STREAM_DUAL_FREQ);
    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    scene.brightPatch = true;
    const qvsim::Capture cap = qvsim::SimulateCapture(in.r->m_secondParam, scene, qvsim::CaptureSpec{});
    std::vector<uint16_t> depth[2];
    std::vector<float> cloud[2];
    std::vector<uint8_t> colour[2], registered[2];
    const std::vector<uint8_t> nv12 = qvsim::RenderColour(in.r->m_secondParam, scene).nv12;
    Differences diff;
    const bool built = FastPathsEnabled();
    for (int fast = 0; fast < 2; ++fast) {
        SetFastPathsEnabled(fast == 1);
        uint16_t* d = nullptr;
        ASSERT_EQ(in.r->CalculateDepth(cap.raw.data(), &d, 640, 480), 0);
        depth[fast].assign(d, d + 640 * 480);
        cloud[fast].resize(3 * 640 * 480);
        ASSERT_EQ(in.r->GetCloudPoint(d, cloud[fast].data(), 640, 480), 0);
        uint8_t* rgb = nullptr;
        in.r->Convert2RGB(&rgb, d, 640, 480);
        colour[fast].assign(rgb, rgb + 3 * 640 * 480);
        delete[] rgb;
        // Registration of the same (reference) depth frame.
        uint16_t* entry = new uint16_t[640 * 480];
        std::copy(depth[0].begin(), depth[0].end(), entry);
        std::vector<uint8_t> frame = nv12;
        int w = 0, h = 0;
        ASSERT_EQ(in.r->MapDepthToRGB(&rgb, &entry, frame.data(), 1920, 1080, w, h), 0);
        registered[fast].assign(reinterpret_cast<uint8_t*>(entry), reinterpret_cast<uint8_t*>(entry + w * h));
        registered[fast].insert(registered[fast].end(), rgb, rgb + 3 * w * h);
        delete[] entry;
        delete[] rgb;
        delete[] d;
    }
    SetFastPathsEnabled(built);
    diff.Add(depth[0].data(), depth[1].data(), depth[0].size());
    // The 3 x 3 median hands each converter difference on to up to eight neighbours.
    diff.Check("CalculateDepth, filters on", 9e-4);
    EXPECT_EQ(registered[0], registered[1]);
    // Colour and points follow the depth: equal wherever the depth is.
    size_t colourDiffer = 0, cloudDiffer = 0;
    for (size_t i = 0; i < depth[0].size(); ++i) {
        if (depth[0][i] != depth[1][i])
            continue;
        colourDiffer += std::memcmp(&colour[0][3 * i], &colour[1][3 * i], 3) != 0;
        cloudDiffer += std::memcmp(&cloud[0][3 * i], &cloud[1][3 * i], 3 * sizeof(float)) != 0;
    }
    EXPECT_EQ(colourDiffer, 0u);
    EXPECT_EQ(cloudDiffer, 0u);
}

TEST(Targets, EachTargetsKernelsAreCompiledForItsInstructionSet)
{
    // Compiler flags that fall short of what Highway needs for a target silently give
    // it a narrower one's vectors.
    const std::string set = KernelInstructionSet();
    std::printf("  fast paths run with: %s (%s)\n", FastPathName(), set.c_str());
#if defined(__x86_64__)
    const char* expected[] = {"SSE4", "AVX2", "AVX3"};
    EXPECT_EQ(set, expected[static_cast<int>(ChosenTarget())]);
#elif defined(__aarch64__)
    EXPECT_EQ(set, "NEON");
#endif
}

}  // namespace
