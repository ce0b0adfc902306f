// The filter toolkit: behaviour that would catch a wrong implementation.
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "qvreconstruction/filter_module.h"

namespace {

using qvapi::filter_module;
using qvapi::Point3D;
using Image = std::vector<unsigned short>;

TEST(Smoothing, RunningInPlaceMeanAndMedians)
{
    filter_module f;
    // A hole among equal values. Worked by hand: each pixel averages what is there
    // when it is visited, earlier pixels already filtered.
    Image img = {100, 100, 100, 100, 0, 100, 100, 100, 100};
    f.meanFilter(img.data(), 3, 3);
    EXPECT_EQ(img, (Image{75, 79, 69, 75, 77, 87, 88, 87, 87}));

    // medianFilter: only the interior; a 2 x N image is left alone.
    Image m = {9, 1, 9, 1, 50, 1, 9, 1, 9};
    f.medianFilter(m.data(), 3, 3);
    EXPECT_EQ(m, (Image{9, 1, 9, 1, 9, 1, 9, 1, 9}));
    Image thin = {5, 1, 7, 3, 9, 2};
    f.medianFilter(thin.data(), 3, 2);
    EXPECT_EQ(thin, (Image{5, 1, 7, 3, 9, 2}));

    // medianFilter2: shrinking windows, the upper median; 1 2 / 3 4 gives 3 at the
    // corner, and the later pixels see it.
    Image c = {1, 2, 3, 4};
    f.medianFilter2(c.data(), 2, 2);
    EXPECT_EQ(c, (Image{3, 3, 3, 3}));
    Image edge = {10, 20, 30, 40, 50, 60};  // 3 x 2: (0, 1) sees 6 values
    f.medianFilter2(edge.data(), 3, 2);
    EXPECT_EQ(edge[0], 40);  // {10, 20, 40, 50} -> index 2
    EXPECT_EQ(edge[1], 40);  // {40 (already written), 20, 30, 40, 50, 60} -> index 3
}

TEST(Smoothing, PixelFilterTallyAndRings)
{
    filter_module f;
    // Two values each seen three times around a hole: the first met (scan order) wins.
    Image img(25, 0);
    img[0] = 700, img[1] = 700, img[2] = 700;    // row 0
    img[20] = 900, img[21] = 900, img[22] = 900;  // row 4
    Image out = img;
    f.PixelFilter(out.data(), 5, 5, 9, 1);
    EXPECT_EQ(out[12], 700);
    // minInner 1: one inner neighbour is enough; outer-only neighbours below
    // minOuter leave the hole. A hole next to a hole sees it as empty.
    Image ring(25, 0);
    ring[6] = 1500;   // inner ring of (2, 2)
    ring[24] = 2000;  // outer ring of (2, 2)
    out = ring;
    f.PixelFilter(out.data(), 5, 5, 1, 5);
    EXPECT_EQ(out[12], 1500);
    EXPECT_EQ(out[0], 1500);   // (0, 0) sees 1500 at (1, 1)
    ring[6] = 0;
    out = ring;
    f.PixelFilter(out.data(), 5, 5, 1, 2);
    EXPECT_EQ(out[12], 0);
    EXPECT_EQ(out[18], 2000);  // (3, 3): inner neighbour 2000
}

TEST(Bilateral, FixedNineByNine)
{
    filter_module f;
    unsigned short w[4] = {10, 10, 10, 10};
    double k[4] = {0.25, 0.25, 0.25, 0.25};
    EXPECT_EQ(f.GetGuassNum(w, k, 4), 8);  // 2.5 truncated four times
    EXPECT_EQ(f.GetGuassNum(w, k, 0), 0);

    // 9 x 9: only the centre can be filtered.
    Image img(81);
    for (int i = 0; i < 81; ++i)
        img[i] = static_cast<unsigned short>(1000 + 7 * (i % 9) + 13 * (i / 9));
    Image out = img;
    f.BilateralFiter(out.data(), 9, 9);
    for (int i = 0; i < 81; ++i) {
        if (i != 40) {
            EXPECT_EQ(out[i], img[i]);
        }
    }
    // The centre is the weighted mean of a plane, less the per-term truncation.
    EXPECT_LE(out[40], img[40]);
    EXPECT_GE(out[40], img[40] - 80);
    Image small(8 * 8, 500);
    small[27] = 900;
    f.BilateralFiter(small.data(), 8, 8);
    EXPECT_EQ(small[27], 900);  // 8 or fewer rows: unchanged

    // An even kernel fills exactly kw x kh weights, in the window's layout: the far
    // pixel at the window's top-left gets no weight, and nothing past the end is written.
    Image plane(8 * 8, 1000);
    plane[2 * 8 + 1] = 3000;  // row 4 - 4 / 2, column 3 - 4 / 2
    std::vector<double> spatial(12, 1.0 / 12), weights(12 + 4, -7.0);
    f.GetFinalKernal(plane.data(), 4, 3, spatial.data(), weights.data(), 3, 3, 0, 8, 64);
    unsigned short window[12];
    f.GetWindowArray(3, 3, 0, plane.data(), window, 3, 4, 8, 64);
    EXPECT_EQ(window[0], 3000);
    EXPECT_LT(weights[0], 1e-12);
    double sum = 0;
    for (int k = 0; k < 12; ++k)
        sum += weights[k];
    EXPECT_NEAR(sum, 1.0, 1e-12);
    for (int k = 12; k < 16; ++k)
        EXPECT_EQ(weights[k], -7.0);
}

TEST(Bilateral, DiscFilter)
{
    filter_module f;
    Image flat(6 * 5, 1234);
    f.Bilateral_Filter(flat.data(), 3, 2.0, 30.0, 6, 5);
    EXPECT_EQ(flat, Image(6 * 5, 1234));  // equal weights, exact average

    Image img = {100, 200, 300, 400, 500, 600, 700, 800, 900};
    Image same = img;
    f.Bilateral_Filter(same.data(), 0, 1.0, 10.0, 3, 3);
    EXPECT_EQ(same, img);
    Image zero = img;
    f.Bilateral_Filter(zero.data(), -1, 1.0, 10.0, 3, 3);
    EXPECT_EQ(zero, Image(9, 0));

    // r = 1 is the cross: the centre of a 3 x 3 sees 200, 400, 500, 600, 800 with
    // spatial weight e^-0.5 on the arms and range weights e^(-d^2/(2*100^2)).
    Image cross = img;
    f.Bilateral_Filter(cross.data(), 1, 1.0, 100.0, 3, 3);
    const double gs = std::exp(-0.5), l1 = std::exp(-100.0 * 100 / 20000), l3 = std::exp(-300.0 * 300 / 20000);
    const double expect = (500 + gs * l3 * (200 + 800) + gs * l1 * (400 + 600)) / (1 + 2 * gs * l3 + 2 * gs * l1);
    EXPECT_EQ(cross[4], static_cast<unsigned short>(expect));  // the corners do not count

    // Differences beyond the table's 7500 entries share the last one; a huge radius
    // leaves the image as it was.
    Image far = {0, 9000, 0, 9000};
    f.Bilateral_Filter(far.data(), 1, 1.0, 5000.0, 2, 2);
    EXPECT_GT(far[0], 0);
    Image big = img;
    f.Bilateral_Filter(big.data(), 100000, 1.0, 10.0, 3, 3);
    EXPECT_EQ(big, img);
}

TEST(LinearAlgebra, InverseDeterminantAndElimination)
{
    filter_module f;
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1, 1);
    double a[6][6], inv[6][6];
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j)
            a[i][j] = (i == j ? 4.0 : 0.0) + u(rng);  // diagonally dominant
    ASSERT_TRUE(f.GetMatrixInverse(a, 6, inv));
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j) {
            double s = 0;
            for (int k = 0; k < 6; ++k)
                s += a[i][k] * inv[k][j];
            EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12);
        }
    const cv::Mat A(6, 6, CV_64F, a);
    EXPECT_NEAR(f.getA(a, 6), cv::determinant(A), 1e-9);

    double one[6][6] = {{-2.5}};
    EXPECT_EQ(f.getA(one, 1), -2.5);
    EXPECT_EQ(f.getA(one, 0), 0.0);
    double singular[6][6] = {{1, 2}, {0, 0}};
    double untouched[6][6] = {{42}};
    EXPECT_FALSE(f.GetMatrixInverse(singular, 2, untouched));
    EXPECT_EQ(untouched[0][0], 42);

    // The last row is always the pivot. Here it is 0 in column 0: elimination stops
    // at once and back substitution still solves the (already triangular) system.
    double r0[3] = {2, 1, 5}, r1[3] = {0, 4, 8};
    double* rows[2] = {r0, r1};
    f.column_principle_gauss(2, rows);
    EXPECT_DOUBLE_EQ(r1[2], 2.0);
    EXPECT_DOUBLE_EQ(r0[2], 1.5);
    // A full 3 x 3 solve.
    double s0[4] = {2, 1, -1, 8}, s1[4] = {-3, -1, 2, -11}, s2[4] = {-2, 1, 2, -3};
    double* sys[3] = {s0, s1, s2};
    f.column_principle_gauss(3, sys);
    EXPECT_NEAR(s0[3], 2, 1e-12);
    EXPECT_NEAR(s1[3], 3, 1e-12);
    EXPECT_NEAR(s2[3], -1, 1e-12);
}

TEST(LinearAlgebra, SurfaceAndPlaneFits)
{
    filter_module f;
    // A run of samples; point i is (s[i], s[i+1], s[i+2]).
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-3, 3);
    const int count = 200;
    std::vector<float> s(count + 2);
    for (float& v : s)
        v = u(rng);
    cv::Mat M(count, 6, CV_64F), z(count, 1, CV_64F);
    for (int i = 0; i < count; ++i) {
        const double x = s[i], y = s[i + 1];
        const double row[6] = {1, x, y, x * x, x * y, y * y};
        for (int k = 0; k < 6; ++k)
            M.at<double>(i, k) = row[k];
        z.at<double>(i) = s[i + 2];
    }
    cv::Mat expect;
    cv::solve(M, z, expect, cv::DECOMP_SVD);
    double coeffs[6] = {};
    f.calcFPPN(s.data(), count, coeffs, false);
    for (int k = 0; k < 6; ++k)
        EXPECT_NEAR(coeffs[k], expect.at<double>(k), 1e-9) << k;
    f.calcFPPN(s.data(), count, coeffs, false);  // accumulates
    for (int k = 0; k < 6; ++k)
        EXPECT_NEAR(coeffs[k], 2 * expect.at<double>(k), 2e-9);

    // Square terms first: the normal equations with y^2 as the last row's first entry.
    cv::Mat N = cv::Mat::zeros(6, 6, CV_64F), b = cv::Mat::zeros(6, 1, CV_64F);
    for (int i = 0; i < count; ++i) {
        const double x = s[i], y = s[i + 1], t[6] = {x * x, x * y, y * y, x, y, 1};
        for (int r = 0; r < 6; ++r) {
            for (int c = 0; c < 6; ++c)
                N.at<double>(r, c) += (r == 5 && c == 0) ? y * y : t[r] * t[c];
            b.at<double>(r) += t[r] * s[i + 2];
        }
    }
    cv::Mat sq;
    cv::solve(N, b, sq, cv::DECOMP_LU);
    double c2[6] = {};
    f.calcFPPN(s.data(), count, c2, true);
    for (int k = 0; k < 6; ++k)
        EXPECT_NEAR(c2[k], sq.at<double>(k), 1e-8) << k;

    double untouched[6] = {1, 2, 3, 4, 5, 6};
    f.calcFPPN(s.data(), 0, untouched, false);  // zero matrix: no inverse
    EXPECT_EQ(untouched[5], 6);

    std::vector<Point3D> plane = {{0, 0, 1}, {1, 0, 3}, {0, 1, 4}};
    double abc[3];
    testing::internal::CaptureStdout();
    f.Least_squares(plane, abc);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NEAR(abc[0], 1, 1e-12);
    EXPECT_NEAR(abc[1], 2, 1e-12);
    EXPECT_NEAR(abc[2], 3, 1e-12);
    EXPECT_EQ(printed.substr(0, 48), "3.000000   1.000000   1.000000   8.000000   \n1.0");
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 3);
}

TEST(Estimators, KalmanWigglingAndSampling)
{
    filter_module f;
    qvapi::kalman1_state k1{};
    f.kalman1_init(&k1, 0.0f, 1.0f);
    const float x = f.kalman1_filter(&k1, 10.0f);
    EXPECT_FLOAT_EQ(k1.gain, 201.0f / 701.0f);
    EXPECT_NEAR(x, 2.867f, 1e-3f);
    EXPECT_FLOAT_EQ(k1.p, (1 - 201.0f / 701.0f) * 201.0f);

    qvapi::kalman2_state k2{};
    float x0[2] = {0, 0}, p0[2][2] = {{1, 0}, {0, 1}};
    f.kalman2_init(&k2, x0, p0);
    float last = 0;
    for (int i = 0; i < 200; ++i)
        last = f.kalman2_filter(&k2, 50.0f);
    EXPECT_NEAR(last, 50.0f, 0.5f);
    EXPECT_NEAR(k2.x[1], 0.0f, 1.0f);

    float table[5] = {1, 3, 6, 10, 15};
    EXPECT_FLOAT_EQ(f.calc_wiggling_error(table, 25.0f, 10, 0), 6 + 0.5f * (10 - 6));
    EXPECT_FLOAT_EQ(f.calc_wiggling_error(table, 0.0f, 10, 99), 1.0f);

    const unsigned short img[12] = {10, 20, 40, 80,  //
                                    1, 2, 3, 4,      //
                                    5, 6, 7, 9};
    EXPECT_FLOAT_EQ(f.bilinearInterpolation(img, 1.5f, 0.0f, 4), 30.0f);
    EXPECT_FLOAT_EQ(f.bilinearInterpolation(img, 3.0f, 2.0f, 4), 9.0f);
    EXPECT_FLOAT_EQ(f.bilinearInterpolation(img, 0.5f, 0.5f, 4), (10 + 20 + 1 + 2) / 4.0f);
    // Coordinates are held in 16 bits: 65537 is column 1.
    EXPECT_FLOAT_EQ(f.bilinearInterpolation(img, 65537.0f, 1.0f, 4), 2.0f);
}

}  // namespace
