// Point clouds: the mask, the ray maps, a fitted wall, and the files written from them.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "reconstruction_impl.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace {

using namespace qvapi;

struct Cloud : ::testing::Test {
    std::unique_ptr<ReconstructionImpl> r = std::make_unique<ReconstructionImpl>();
    void Start(StreamType stream = STREAM_DUAL_FREQ, DeviceType device = DEVICE_GENERIC)
    {
        r->SetType(device, stream);
        const auto binned = qvsim::SampleBinnedCalibration();
        ASSERT_EQ(r->Init(binned, stream == STREAM_SINGLE_FREQ ? binned : qvsim::SampleCalibration()), 0);
    }
    std::vector<float> Points(const std::vector<uint16_t>& depth, int w, int h)
    {
        std::vector<float> pts(3 * depth.size(), -1.0f);
        EXPECT_EQ(r->GetCloudPoint(depth.data(), pts.data(), w, h), STATUS_OK);
        return pts;
    }
};

TEST_F(Cloud, OctagonalMaskAndRayMaps)
{
    Start();
    std::vector<uint16_t> depth(640 * 480, 1000);
    depth[240 * 640 + 100] = 0;
    std::vector<float> p = Points(depth, 640, 480);
    const auto at = [&](int r, int c) { return &p[3 * (r * 640 + c)]; };
    EXPECT_EQ(at(2, 2)[2], 0.0f);      // r + c = 4 < 50
    EXPECT_EQ(at(30, 20)[2], 1000.0f);  // r + c = 50
    EXPECT_EQ(at(29, 20)[2], 0.0f);
    EXPECT_EQ(at(240, 638)[2], 1000.0f);
    EXPECT_EQ(at(240, 639)[2], 0.0f);
    EXPECT_EQ(at(478, 240)[2], 1000.0f);
    EXPECT_EQ(at(479, 240)[2], 0.0f);
    EXPECT_EQ(at(1, 240)[2], 0.0f);
    EXPECT_EQ(at(5, 640 - 50 + 5)[2], 1000.0f);  // c - r = width - cut
    EXPECT_EQ(at(5, 640 - 50 + 6)[2], 0.0f);
    const float* hole = at(240, 100);  // kept, depth 0
    EXPECT_TRUE(hole[0] == 0.0f && hole[1] == 0.0f && hole[2] == 0.0f);
    const size_t i = 200 * 640 + 300;
    EXPECT_EQ(at(200, 300)[0], r->m_rectifyMapX[i] * 1000.0f);
    EXPECT_EQ(at(200, 300)[1], r->m_rectifyMapY[i] * 1000.0f);

    // A 1920-wide image reads the colour rays.
    std::vector<uint16_t> wide(1920 * 1080, 2000);
    p = Points(wide, 1920, 1080);
    const size_t j = 500 * 1920 + 1500;
    EXPECT_EQ(p[3 * j], r->m_rgbRayX[j] * 2000.0f);
    EXPECT_EQ(p[3 * j + 1], r->m_rgbRayY[j] * 2000.0f);

    // The image's size decides the scale and the cut, whatever binning the last depth
    // frame left: binned frames read every second full-resolution ray with a cut of 25,
    // full frames every ray with a cut of 50.
    const std::vector<float> full = Points(depth, 640, 480);
    std::vector<uint16_t> small(320 * 240, 1000);
    const std::vector<float> binned = Points(small, 320, 240);
    EXPECT_EQ(binned[3 * (15 * 320 + 10) + 2], 1000.0f);
    EXPECT_EQ(binned[3 * (14 * 320 + 10) + 2], 0.0f);
    EXPECT_EQ(binned[3 * (100 * 320 + 50)], r->m_rectifyMapX[200 * 640 + 100] * 1000.0f);
    for (int leftOver : {2, 1}) {
        r->m_binning = leftOver;
        EXPECT_EQ(Points(depth, 640, 480), full) << leftOver;
        EXPECT_EQ(Points(small, 320, 240), binned) << leftOver;
    }
    // Frames no scale can serve are refused and nothing is written.
    std::vector<uint16_t> huge(1300 * 1000, 1000);
    std::vector<float> untouched(3 * huge.size(), -1.0f);
    EXPECT_EQ(r->GetCloudPoint(huge.data(), untouched.data(), 1300, 1000), STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(untouched[3 * 100000], -1.0f);
    EXPECT_EQ(r->GetCloudPoint(nullptr, untouched.data(), 640, 480), STATUS_INVALID_ARGUMENT);
}

TEST_F(Cloud, ReducedStreamCutIsHalved)
{
    Start(STREAM_SINGLE_FREQ);
    std::vector<uint16_t> depth(320 * 240, 1000);
    std::vector<float> p = Points(depth, 320, 240);
    EXPECT_EQ(r->m_binning, 2);  // the 320-wide lens
    EXPECT_EQ(p[3 * (8 * 320 + 4) + 2], 1000.0f);  // cut 50 / 2 / 2 = 12
    EXPECT_EQ(p[3 * (7 * 320 + 4) + 2], 0.0f);
    // The maps are at 320 x 240 here: pixel (r, c) reads ray (r, c).
    EXPECT_EQ(p[3 * (100 * 320 + 50)], r->m_rectifyMapX[100 * 320 + 50] * 1000.0f);
}

// Least-squares plane Z = a + b X + c Y through the non-zero points.
cv::Vec3d FitPlane(const std::vector<float>& pts)
{
    cv::Mat A(0, 3, CV_64F), z(0, 1, CV_64F);
    for (size_t i = 0; i + 2 < pts.size(); i += 3 * 7) {
        if (pts[i + 2] == 0.0f)
            continue;
        const double row[3] = {1.0, pts[i], pts[i + 1]};
        A.push_back(cv::Mat(1, 3, CV_64F, const_cast<double*>(row)));
        z.push_back(static_cast<double>(pts[i + 2]));
    }
    cv::Mat x;
    cv::solve(A, z, x, cv::DECOMP_SVD);
    return {x.at<double>(0), x.at<double>(1), x.at<double>(2)};
}

TEST_F(Cloud, SimulatedWallsFitTheirPlanes)
{
    for (DeviceType device : {DEVICE_GENERIC, DEVICE_TYPE_4}) {
        Start(STREAM_DUAL_FREQ, device);
        for (double tilt : {0.0, 30.0}) {
            qvsim::SceneSpec scene;
            scene.kind = qvsim::SceneKind::TiltedPlane;
            scene.tiltDeg = tilt;
            scene.distanceMm = 1800;
            qvsim::CaptureSpec setup;
            setup.device = device;
            const qvsim::Capture cap = qvsim::SimulateCapture(r->m_secondParam, scene, setup);
            uint16_t* depth = nullptr;
            ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &depth, 640, 480), 0);
            const std::vector<float> pts = Points(std::vector<uint16_t>(depth, depth + 640 * 480), 640, 480);
            delete[] depth;
            const cv::Vec3d plane = FitPlane(pts);
            EXPECT_NEAR(plane[0], 1800.0, 2.0) << device << " " << tilt;
            EXPECT_NEAR(plane[1], -std::tan(tilt * M_PI / 180.0), 0.003);
            EXPECT_NEAR(plane[2], 0.0, 0.003);
        }
    }
}

TEST_F(Cloud, PlyAndRawFilesReadBack)
{
    Start();
    const std::string dir = testing::TempDir();
    // A 4 x 3 image: rows 0 and 1 are written as zeros, the rest truncated.
    r->m_width = 4;
    r->m_height = 3;
    std::vector<float> cloud(3 * 12, 5.5f);
    cloud[3 * 9] = 12.9f;
    cloud[3 * 9 + 1] = -3.7f;
    cloud[3 * 9 + 2] = 1000.0f;
    r->m_plyFileCounter = 0;
    r->SavePointCloud(cloud.data(), dir + "scan");
    r->SavePointCloud(cloud.data(), dir + "scan");
    std::ifstream first(dir + "scan_0.ply"), second(dir + "scan_1.ply");
    ASSERT_TRUE(first.good());
    ASSERT_TRUE(second.good());
    std::stringstream text;
    text << first.rdbuf();
    const std::string expectHeader =
        "ply\n\t\t\tformat ascii 1.0\n\t\t\telement vertex 12\n\t\t\tproperty float x\n"
        "\t\t\tproperty float y\n\t\t\tproperty float z\n\t\t\telement face 0\n"
        "\t\t\tproperty list uchar int vertex_index\n\t\t\tend_header\n";
    const std::string all = text.str();
    ASSERT_EQ(all.substr(0, expectHeader.size()), expectHeader);
    std::istringstream body(all.substr(expectHeader.size()));
    std::vector<std::string> lines;
    for (std::string line; std::getline(body, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 12u);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(lines[i], "0 0 0");
    EXPECT_EQ(lines[8], "5 5 5");
    EXPECT_EQ(lines[9], "12 -3 1000");

    // A simulated frame: cloud and raw file through SaveCloudPoint, parsed back.
    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Sphere;
    const qvsim::Capture cap = qvsim::SimulateCapture(r->m_secondParam, scene, qvsim::CaptureSpec{});
    uint16_t* depth = nullptr;
    ASSERT_EQ(r->CalculateDepth(cap.raw.data(), &depth, 640, 480), 0);
    const int counter = r->m_plyFileCounter;
    r->SaveCloudPoint(depth, dir + "ball");
    std::vector<float> pts(3 * 640 * 480);
    ASSERT_EQ(r->GetCloudPoint(depth, pts.data(), 640, 480), 0);
    std::ifstream raw(dir + "ball.raw", std::ios::binary);
    std::vector<uint16_t> back(640 * 480);
    raw.read(reinterpret_cast<char*>(back.data()), 640 * 480 * 2);
    EXPECT_EQ(raw.gcount(), 640 * 480 * 2);
    EXPECT_EQ(0, std::memcmp(back.data(), depth, 640 * 480 * 2));
    std::ifstream ply(dir + "ball_" + std::to_string(counter) + ".ply");
    std::string line;
    size_t vertices = 0;
    while (std::getline(ply, line) && line != "\t\t\tend_header")
        if (line.rfind("\t\t\telement vertex ", 0) == 0)
            vertices = std::stoul(line.substr(18));
    ASSERT_EQ(vertices, 640u * 480u);
    size_t i = 0, mismatches = 0;
    long x, y, z;
    while (ply >> x >> y >> z) {
        const bool zeroRow = i < 2 * 640;
        mismatches += x != (zeroRow ? 0 : long(pts[3 * i])) || y != (zeroRow ? 0 : long(pts[3 * i + 1])) ||
                      z != (zeroRow ? 0 : long(pts[3 * i + 2]));
        ++i;
    }
    EXPECT_EQ(i, vertices);
    EXPECT_EQ(mismatches, 0u);
    delete[] depth;

    // After Init and before any frame the image is 0 x 0: an empty raw file and a PLY
    // of the header alone, and the counter advances. An unopenable path writes nothing.
    Start();
    const int emptyCounter = r->m_plyFileCounter;
    r->SaveCloudPoint(back.data(), dir + "empty");
    EXPECT_EQ(r->m_plyFileCounter, emptyCounter + 1);
    std::ifstream emptyRaw(dir + "empty.raw", std::ios::binary | std::ios::ate);
    ASSERT_TRUE(emptyRaw.good());
    EXPECT_EQ(emptyRaw.tellg(), 0);
    std::ifstream empty(dir + "empty_" + std::to_string(emptyCounter) + ".ply");
    std::stringstream e;
    e << empty.rdbuf();
    EXPECT_NE(e.str().find("element vertex 0\n"), std::string::npos);
    EXPECT_EQ(e.str().substr(e.str().size() - 11), "end_header\n");
    EXPECT_EQ(r->SaveDepth(back.data(), "/nonexistent-dir/x.raw"), 0);
}

}  // namespace
