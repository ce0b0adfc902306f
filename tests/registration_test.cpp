// Depth-to-colour registration: the projection kernel's rules and a simulated scene.
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "reconstruction_impl.h"
#include "registration/map_depth_to_rgb.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

// Every depth pixel lands at (u0, v0): zero rays, identity pose, unit focal length.
struct Landing {
    std::vector<uint16_t> depth = std::vector<uint16_t>(640 * 480, 0);
    std::vector<float> zeros = std::vector<float>(640 * 480, 0.0f);
    std::vector<uint16_t> out = std::vector<uint16_t>(100 * 80, 0);
    RegistrationParams p{{1, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 0, 0}, 1, 1, 0, 0};

    uint16_t& At(int v, int u) { return out[v * 100 + u]; }
    void Land(int u0, int v0)
    {
        p.cx = u0 + 0.5f;
        p.cy = v0 + 0.5f;
        ProjectDepthToColour(depth.data(), zeros.data(), zeros.data(), p, out.data(), 100, 80);
    }
};

TEST(Registration, LastWriterWinsAndTheLopsidedHoleFilling)
{
    Landing l;
    l.depth[1000] = 1500;
    l.depth[2000] = 1600;  // later in row-major order
    l.At(40, 49) = 10;     // a neighbour holding a depth keeps it...
    l.At(39, 50) = 9;      // ...one holding 1-9 is overwritten
    l.Land(50, 40);
    EXPECT_EQ(l.At(40, 50), 1600);
    EXPECT_EQ(l.At(40, 49), 10);
    EXPECT_EQ(l.At(39, 50), 1500);  // filled by the first landing, kept by the second
    const int filled[][2] = {{-1, -1}, {0, 1}, {1, -1}, {-1, 1}, {1, 0}, {1, 1}, {-2, -2}, {0, -2}, {-2, 0}};
    for (const auto& f : filled)
        EXPECT_EQ(l.At(40 + f[0], 50 + f[1]), 1500) << f[0] << "," << f[1];
    // Two pixels to the left and upward only.
    for (const auto& f : {std::make_pair(2, 2), std::make_pair(0, 2), std::make_pair(2, 0), std::make_pair(-2, 2)})
        EXPECT_EQ(l.At(40 + f.first, 50 + f.second), 0);

    // Landings near the border are written but fill nothing; 9 and below never land;
    // 10 does.
    Landing edge;
    edge.depth[5] = 10;
    edge.depth[6] = 9;
    edge.Land(1, 40);
    EXPECT_EQ(edge.At(40, 1), 10);
    EXPECT_EQ(edge.At(40, 0) + edge.At(39, 1) + edge.At(40, 2), 0);
    Landing bottom;
    bottom.depth[5] = 777;
    bottom.Land(50, 80 - 2);
    EXPECT_EQ(bottom.At(78, 50), 777);
    EXPECT_EQ(bottom.At(78, 49), 0);
    // Outside the grid, or a point in the colour camera's plane: nothing lands.
    Landing outside;
    outside.depth[5] = 500;
    outside.Land(100, 10);
    outside.p.R[8] = 0.0f;  // zc = 0
    outside.Land(50, 40);
    for (uint16_t v : outside.out)
        EXPECT_EQ(v, 0);
}

TEST(Registration, CentreReferenceDepth)
{
    std::vector<uint16_t> depth(640 * 480, 0);
    EXPECT_EQ(CentreReferenceDepth(depth.data(), 2000), 2000);
    depth[240 * 640 + 320] = 900;
    depth[239 * 640 + 319] = 1000;
    depth[241 * 640 + 321] = 10;  // mapped by the loop, but not counted here
    EXPECT_EQ(CentreReferenceDepth(depth.data(), 2000), 2000);
    depth[241 * 640 + 321] = 11;
    EXPECT_EQ(CentreReferenceDepth(depth.data(), 2000), (900 + 1000 + 11) / 3);
}

struct Registered : ::testing::Test {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    CameraCalibrationParam cal = qvsim::SampleCalibration();
    std::vector<uint8_t> nv12 = std::vector<uint8_t>(1920 * 1080 * 3 / 2, 128);

    void Start()
    {
        r->SetType(DEVICE_GENERIC, STREAM_DUAL_FREQ);
        ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(), cal), STATUS_OK);
    }
    int32_t Map(uint16_t*& depth, uint8_t*& colour, int cw = 1920, int ch = 1080)
    {
        int w = 0, h = 0;
        const int32_t status = r->MapDepthToRGB(&colour, &depth, nv12.data(), cw, ch, w, h);
        if (status == STATUS_OK) {
            EXPECT_EQ(w, cw);
            EXPECT_EQ(h, ch);
        }
        return status;
    }
};

// Refusals shared with the other operations (before Init, wrong sizes, the reduced
// stream's tables) are covered with the bad calls.
TEST_F(Registered, CentreDepthState)
{
    uint16_t* depth = new uint16_t[640 * 480]();
    uint8_t* colour = nullptr;
    Start();
    uint16_t* const entry = depth;
    int w = 0, h = 0;  // no colour frame: refused, the entry buffer kept
    EXPECT_EQ(r->MapDepthToRGB(&colour, &depth, nullptr, 1920, 1080, w, h), STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(depth, entry);

    // All zeros: zeros out, the fixed 2000 as centre depth, sizes 640 x 480.
    ASSERT_EQ(Map(depth, colour), STATUS_OK);
    EXPECT_NE(depth, entry);  // the entry buffer was released and replaced
    EXPECT_EQ(r->m_centerDepth, 2000);
    EXPECT_EQ(r->m_width, 640);
    size_t nonZero = 0;
    for (int i = 0; i < 1920 * 1080; ++i)
        nonZero += depth[i] != 0;
    EXPECT_EQ(nonZero, 0u);
    delete[] colour;
    delete[] depth;

    // With six or more registration values, the record's fallback; 0 is not stored.
    r->m_centerDepth = 1234;
    r->m_workParam.vectorCount = 6;
    r->m_workParam.vector[3] = 0.0f;
    depth = new uint16_t[640 * 480]();
    ASSERT_EQ(Map(depth, colour), STATUS_OK);
    EXPECT_EQ(r->m_centerDepth, 1234);
    delete[] colour;
    r->m_workParam.vector[3] = 1750.9f;
    ASSERT_EQ(Map(depth, colour), STATUS_OK);
    EXPECT_EQ(r->m_centerDepth, 1750);
    delete[] colour;
    delete[] depth;
}

TEST_F(Registered, ObjectsLandWhereTheColourCameraDrewThem)
{
    Start();
    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    scene.distanceMm = 2000;
    const qvsim::Capture cap = qvsim::SimulateCapture(cal, scene, qvsim::CaptureSpec{});
    const qvsim::ColourFrame colourTruth = qvsim::RenderColour(cal, scene);
    nv12 = colourTruth.nv12;
    uint16_t* depth = nullptr;
    ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &depth, 640, 480), STATUS_OK);
    uint8_t* colour = nullptr;
    ASSERT_EQ(Map(depth, colour), STATUS_OK);

    // Per object: pixels whose registered depth matches the truth within 5 mm, over
    // the interior of the object (the same object 12 pixels around: a strip beside
    // each box is hidden from the depth camera, 25 mm away).
    size_t seen[3] = {}, right[3] = {}, colourRight = 0, colourSeen = 0, allSeen = 0, allRight = 0;
    const auto sameAround = [&](int u, int v, uint8_t obj) {
        for (int dv = -12; dv <= 12; dv += 6)
            for (int du = -12; du <= 12; du += 6)
                if (colourTruth.object[(v + dv) * 1920 + u + du] != obj)
                    return false;
        return true;
    };
    // Inside the depth camera's field of view, which is narrower than the colour
    // camera's (about 69 against 85 degrees across).
    for (int v = 60; v < 1020; v += 2)
        for (int u = 300; u < 1620; u += 2) {
            const size_t i = static_cast<size_t>(v) * 1920 + u;
            const uint8_t obj = colourTruth.object[i];
            if (obj > 2)
                continue;
            ++allSeen;  // edges and occlusion strips included
            allRight += std::fabs(depth[i] - colourTruth.truthDepth[i]) <= 5.0f;
            if (!sameAround(u, v, obj))
                continue;
            ++seen[obj];
            right[obj] += std::fabs(depth[i] - colourTruth.truthDepth[i]) <= 5.0f;
            if (obj == 1) {
                // The undistorted colour image shows the box's orange there.
                const uint8_t* px = colour + 3 * i;
                ++colourSeen;
                colourRight += std::abs(px[0] - 40) < 25 && std::abs(px[1] - 120) < 25 && std::abs(px[2] - 230) < 25;
            }
        }
    for (int obj = 0; obj < 3; ++obj) {
        ASSERT_GT(seen[obj], 1000u) << obj;
        const double fraction = double(right[obj]) / seen[obj];
        std::printf("  object %d: %.2f%% of %zu colour pixels within 5 mm\n", obj, 100 * fraction, seen[obj]);
        EXPECT_GT(fraction, 0.97) << obj;
    }
    EXPECT_GT(double(colourRight) / colourSeen, 0.97);
    std::printf("  all object pixels: %.2f%% of %zu within 5 mm\n", 100.0 * allRight / allSeen, allSeen);
    EXPECT_GT(double(allRight) / allSeen, 0.9);
    delete[] depth;
    delete[] colour;
}

}  // namespace
