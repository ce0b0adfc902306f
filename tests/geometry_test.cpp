// Camera geometry: rectification maps, undistortion and the depth-to-colour transform.
#include <cmath>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include "calibration/lens_model.h"
#include "calibration/rectify_map.h"
#include "reconstruction_impl.h"
#include "common/registration_pose.h"
#include "registration/rgbd_geometry.h"
#include "sample_calibration.h"

namespace {

using namespace qvapi;

TEST(RectifyMap, PinholeForOtherDevicesAndInvertedLensForDevice4)
{
    const CameraCalibrationParam cal = qvsim::SampleCalibration();
    const LensModel lens = LensOf(cal.depthLens);
    const int W = 640, H = 480;
    std::vector<float> px(W * H), py(W * H), mx(W * H), my(W * H);
    ComputeRectifyMap(lens, W, H, 0, px.data(), py.data());
    for (int v : {0, 200, 479})
        for (int u : {0, 321, 639}) {
            EXPECT_EQ(px[v * W + u], (u - lens.cx) * (1.0f / lens.fx));
            EXPECT_EQ(py[v * W + u], (v - lens.cy) * (1.0f / lens.fy));
        }

    // Four fixed-point rounds: distorting the map's ray comes back to the pixel's
    // pinhole coordinates. The rounds converge fast near the centre, slower in the
    // corners where the lens bends most.
    ComputeRectifyMap(lens, W, H, 4, mx.data(), my.data());
    double worstCentre = 0, worstAll = 0;
    for (int v = 0; v < H; ++v)
        for (int u = 0; u < W; ++u) {
            const int i = v * W + u;
            float xd, yd;
            Distort(lens, mx[i], my[i], xd, yd);
            const double err = std::hypot(xd - px[i], yd - py[i]);
            worstAll = std::max(worstAll, err);
            if (std::abs(u - 320) < 160 && std::abs(v - 240) < 120)
                worstCentre = std::max(worstCentre, err);
        }
    EXPECT_LT(worstCentre * lens.fx, 0.01);  // pixels
    EXPECT_LT(worstAll * lens.fx, 0.5);

    // Without distortion the rounds leave the pinhole map unchanged.
    LensModel flat = lens;
    flat.k1 = flat.k2 = flat.p1 = flat.p2 = flat.k3 = 0.0f;
    ComputeRectifyMap(flat, W, H, 4, mx.data(), my.data());
    EXPECT_EQ(mx, px);
    EXPECT_EQ(my, py);

    // Through the instance: device 4 gets the rounds, the map size follows the stream.
    auto r = std::make_unique<ReconstructionImpl>();
    r->SetType(DEVICE_TYPE_4, STREAM_DUAL_FREQ);
    ASSERT_EQ(r->Init(qvsim::SampleBinnedCalibration(), cal), 0);
    ComputeRectifyMap(lens, W, H, 4, mx.data(), my.data());
    EXPECT_EQ(0, std::memcmp(r->m_rectifyMapX.get(), mx.data(), W * H * sizeof(float)));
}

TEST(Undistort, IdealLensCopiesTheInteriorAndColourFallsBackToTheDefaultLens)
{
    auto r = std::make_unique<ReconstructionImpl>();
    const int W = 40, H = 30;
    r->m_workParam.depthLens = {0, 0, 0, 0, 0, 0, 0, 50.0f, 50.0f, 20.0f, 15.0f, W, H};
    std::vector<uint16_t> src(W * H), dst(W * H, 0xFFFF);
    for (int i = 0; i < W * H; ++i)
        src[i] = static_cast<uint16_t>(i + 1);
    r->Undistort(src.data(), W, H, dst.data(), true);
    for (int v = 0; v < H; ++v)
        for (int u = 0; u < W; ++u) {
            const bool inner = u >= 1 && u < W - 1 && v >= 1 && v < H - 1;
            EXPECT_EQ(dst[v * W + u], inner ? src[v * W + u] : 0) << u << "," << v;
        }

    // Colour with fx 0 in the calibration uses the built-in colour lens; the word
    // form (three words a pixel) and the matrix form (three bytes) agree.
    const int CW = 1920, CH = 1080;
    cv::Mat bgr(CH, CW, CV_8UC3);
    cv::randu(bgr, 0, 256);
    std::vector<uint16_t> words(CW * CH * 3), outA(CW * CH * 3), outB(CW * CH * 3);
    for (size_t i = 0; i < words.size(); ++i)
        words[i] = bgr.data[i];
    r->m_workParam.rgbLens = Intrinsics{};
    r->Undistort(words.data(), CW, CH, outA.data(), false);
    const LensModel d = kDefaultColourLens;
    r->m_workParam.rgbLens = {0, 0, d.k1, d.k2, d.p1, d.p2, d.k3, d.fx, d.fy, d.cx, d.cy, CW, CH};
    r->Undistort(words.data(), CW, CH, outB.data(), false);
    EXPECT_EQ(outA, outB);
    cv::Mat out(CH, CW, CV_8UC3, cv::Scalar(7, 7, 7));
    r->Undistort(bgr, CW, CH, out, false);
    size_t differ = 0;
    for (size_t i = 0; i < outB.size(); ++i)
        differ += outB[i] != out.data[i];
    EXPECT_EQ(differ, 0u);
}

TEST(RgbdGeometry, FactoryValuesWhereTheRecordHasNone)
{
    CameraCalibrationParam cal = qvsim::SampleCalibration();
    cal.rgbLens = Intrinsics{};
    cal.rgbLens.cx = 5.0f;  // ignored: the test is on fx alone
    for (float& e : cal.extrinsics)
        e = 0.0f;
    cal.extrinsics[1] = 0.5f;   // extrinsics[0] == 0 still selects the factory rotation
    cal.extrinsics[10] = 9.0f;  // extrinsics[9] == 0 still selects the factory translation
    cal.vectorCount = 0;
    const RgbdGeometry g = ComputeRgbdGeometry(cal);

    const cv::Matx33f Kc(948.635864f, 0, 983.402954f, 0, 944.204956f, 575.152527f, 0, 0, 1);
    const cv::Matx33f R(0.999539912f, -0.00163754076f, -0.0302863028f, 0.00195854832f,
                        0.999942183f, 0.0105724735f, 0.0302672405f, -0.010626927f, 0.999485373f);
    const cv::Vec3f t(-43.5730362f, 0.00192679174f, -2.35643005f);
    const cv::Matx33f Kd(cal.depthLens.fx, 0, cal.depthLens.cx, 0, cal.depthLens.fy,
                         cal.depthLens.cy, 0, 0, 1);
    const cv::Matx33f H = Kc * R * Kd.inv();
    const cv::Vec3f e = Kc * t;
    for (int row = 0; row < 3; ++row) {
        for (int col = 0; col < 3; ++col)
            EXPECT_NEAR(g.depthToColor[4 * row + col], H(row, col), 2e-4 * std::fabs(H(row, col)) + 1e-6);
        EXPECT_NEAR(g.depthToColor[4 * row + 3], e[row], 1e-3);
    }
    EXPECT_EQ(g.depthToColor[12], 0.0f);
    EXPECT_EQ(g.depthToColor[14], 0.0f);
    EXPECT_EQ(g.depthToColor[15], 1.0f);

    // The colour maps are those of the factory colour lens.
    cv::Mat mapX, mapY;
    const cv::Mat Dc = (cv::Mat_<float>(5, 1) << -0.0982687771f, 0.0140670193f, 0.00336070312f,
                        0.00189596904f, 0.00304645207f);
    cv::initUndistortRectifyMap(cv::Mat(Kc), Dc, cv::Mat::eye(3, 3, CV_32F), cv::Mat(Kc),
                                cv::Size(1920, 1080), CV_32FC1, mapX, mapY);
    EXPECT_EQ(cv::norm(mapX, g.colorMapX, cv::NORM_INF), 0.0);
    EXPECT_EQ(g.depthMapY.size(), cv::Size(640, 480));
}

TEST(RgbdGeometry, IdentityGeometryAndTheRotationCorrection)
{
    CameraCalibrationParam cal = qvsim::SampleCalibration();
    cal.rgbLens = cal.depthLens;
    const float identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::copy(identity, identity + 9, cal.extrinsics);
    cal.extrinsics[9] = 2.0f;
    cal.extrinsics[10] = 0.0f;
    cal.extrinsics[11] = 0.0f;
    cal.vectorCount = 2;  // fewer than three: the correction is ignored
    cal.vector[0] = 0.3f;
    RgbdGeometry g = ComputeRgbdGeometry(cal);
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col < 3; ++col)
            EXPECT_NEAR(g.depthToColor[4 * row + col], row == col ? 1.0f : 0.0f, 1e-4);
    EXPECT_FLOAT_EQ(g.depthToColor[3], 2.0f * cal.depthLens.fx);
    EXPECT_EQ(g.depthToColor[7], 0.0f);

    // Three entries: a rotation of 0.01 rad about y is added.
    cal.vectorCount = 3;
    cal.vector[0] = 0.0f;
    cal.vector[1] = 0.01f;
    cal.vector[2] = 0.0f;
    const float eye[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    cv::Matx33f R;
    CorrectedRotation(eye, cal.vectorCount, cal.vector, R.val);
    EXPECT_NEAR(R(0, 2), std::sin(0.01), 1e-6);
    EXPECT_NEAR(R(0, 0), std::cos(0.01), 1e-6);
    g = ComputeRgbdGeometry(cal);
    // With Kc = Kd, H = K R' K^-1.
    const cv::Matx33f K(cal.depthLens.fx, 0, cal.depthLens.cx, 0, cal.depthLens.fy,
                        cal.depthLens.cy, 0, 0, 1);
    const cv::Matx33f expected = K * R * K.inv();
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col < 3; ++col)
            EXPECT_NEAR(g.depthToColor[4 * row + col], expected(row, col), 1e-4);
}

}  // namespace
