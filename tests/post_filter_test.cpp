// Depth post-filters and the temperature test recorder.
#include <cctype>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qvreconstruction/depth_filters.h"
#include "reconstruction_impl.h"

namespace {

using namespace qvapi;

TEST(EdgeFilterMad, RelativeThresholdAndIsolatedPixels)
{
    // Centre 1000 with seven neighbours at 1035 and one at 1034: MAD 279 / 9 = 31.
    const std::vector<uint16_t> block = {1035, 1035, 1035, 1035, 1000, 1035, 1035, 1035, 1034};
    std::vector<uint16_t> img = block;
    EdgeFilterMad(img.data(), 3, 3, 15);  // 1000 * 15 / 500 = 30 < 31
    EXPECT_EQ(img[4], 0);
    img = block;
    EdgeFilterMad(img.data(), 3, 3, 30);  // 60 >= 31
    EXPECT_EQ(img[4], 1000);

    // An isolated pixel among zeros: count 1, MAD 0, kept.
    std::vector<uint16_t> lone(25, 0);
    lone[12] = 4321;
    EdgeFilterMad(lone.data(), 5, 5, 15);
    EXPECT_EQ(lone[12], 4321);

    // Sums wrap at 16 bits: eight neighbours 9000 away sum to 72000, kept as 6464,
    // so the MAD is 718 rather than 8000; at a threshold of 5000 (limit 2000) the
    // centre therefore stays.
    std::vector<uint16_t> far = {9200, 9200, 9200, 9200, 200, 9200, 9200, 9200, 9200};
    EdgeFilterMad(far.data(), 3, 3, 5000);
    EXPECT_EQ(far[4], 200);
    EdgeFilterMad(far.data(), 3, 3, 15);
    EXPECT_EQ(far[4], 0);
    EXPECT_EQ(far[0], 0);  // corner: MAD 9000 / 4 = 2250 > 9200 * 15 / 500 = 276
}

TEST(OkadaFilter, SpikesZerosAndTheLastElement)
{
    std::vector<uint16_t> row = {1000, 1100, 1000};
    OkadaFilter(row.data(), 3, 1);
    EXPECT_EQ(row, (std::vector<uint16_t>{1000, 1000, 1000}));
    // A pit flattened too; division rounds toward zero.
    row = {1000, 901, 1003};
    OkadaFilter(row.data(), 3, 1);
    EXPECT_EQ(row[1], 1001);  // (2 * 901 + 99 - (-102)) / 2 = 1001.5 -> 1001
    // A zero resets the slope: values around it are left alone.
    row = {1000, 1100, 0, 1100, 1000};
    OkadaFilter(row.data(), 5, 1);
    EXPECT_EQ(row, (std::vector<uint16_t>{1000, 1100, 0, 1100, 1000}));
    // Rows first, then columns (the column pass sees the row results); the last
    // element of a line never changes.
    std::vector<uint16_t> img = {1000, 1000, 1000,  //
                                 1000, 1300, 1000,  //
                                 1000, 1000, 1000};
    OkadaFilter(img.data(), 3, 3);
    EXPECT_EQ(img[4], 1000);
    std::vector<uint16_t> tail = {1000, 1000, 1300};
    OkadaFilter(tail.data(), 3, 1);
    EXPECT_EQ(tail[2], 1300);
}

TEST(SpeckleFilter, SmallBlobsGoLargeRegionsStay)
{
    const int W = 12, H = 8;
    std::vector<uint16_t> img(W * H, 0);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < 6; ++x)
            img[y * W + x] = static_cast<uint16_t>(2000 + 3 * x + 2 * y);  // a 48-pixel plane
    // A 4-pixel blob at a different depth, touching the plane at x = 6.
    for (int y = 2; y < 4; ++y)
        for (int x = 6; x < 8; ++x)
            img[y * W + x] = 2500;
    img[7 * W + 11] = 800;  // a lone pixel
    std::vector<uint16_t> none = img;
    SpeckleFilter(none.data(), W, H, 0, 10);  // every region has a pixel: nothing goes
    EXPECT_EQ(none, img);

    std::vector<uint16_t> out = img;
    SpeckleFilter(out.data(), W, H, 10, 10);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x)
            EXPECT_EQ(out[y * W + x], x < 6 ? img[y * W + x] : 0) << x << "," << y;

    // With a generous maxDiff the blob joins the plane and stays.
    out = img;
    SpeckleFilter(out.data(), W, H, 10, 1000);
    EXPECT_EQ(out[2 * W + 7], 2500);
    EXPECT_EQ(out[7 * W + 11], 0);
}

TEST(SpeckleFilter, WholeImageRegionAndHostileSizes)
{
    // One region covering a large image: the region stack lives on the heap.
    const int W = 2000, H = 1500;
    std::vector<uint16_t> flat(static_cast<size_t>(W) * H, 1234);
    SpeckleFilter(flat.data(), W, H, W * H - 1, 0);
    EXPECT_EQ(flat[0], 1234);
    EXPECT_EQ(flat.back(), 1234);
    SpeckleFilter(flat.data(), W, H, W * H, 0);  // exactly its size: removed
    EXPECT_EQ(flat[0], 0);
    EXPECT_EQ(flat.back(), 0);
    // Every pixel its own region (neighbours differ by more than maxDiff).
    std::vector<uint16_t> stripes(64 * 64);
    for (size_t i = 0; i < stripes.size(); ++i)
        stripes[i] = static_cast<uint16_t>(1000 + 500 * ((i + i / 64) % 2));
    SpeckleFilter(stripes.data(), 64, 64, 1, -5);
    for (uint16_t v : stripes)
        EXPECT_EQ(v, 0);
    // Wider than the packed coordinates allow: left unchanged.
    std::vector<uint16_t> wide(70000, 500);
    SpeckleFilter(wide.data(), 70000, 1, 100000, 10);
    EXPECT_EQ(wide[69999], 500);
    SpeckleFilter(nullptr, 10, 10, 5, 5);
}

TEST(TemperatureRecorder, CadenceAndLineFormat)
{
    auto r = std::make_unique<ReconstructionImpl>();
    r->m_tempLogPath = testing::TempDir() + "qv_temperature.csv";
    std::remove(r->m_tempLogPath.c_str());
    r->m_tempLogInterval = 10;
    r->m_width = 640;
    r->m_height = 480;
    r->m_lastDistance1 = 1234.5f;
    r->m_lastDistance2 = 987.25f;
    std::vector<uint16_t> raw(4 * 640 * 480, 0), depth(640 * 480, 0);
    raw[188] = 1 << 2;
    raw[190] = 40 << 2;  // 25 degrees
    const int rows[3] = {200, 240, 280}, cols[3] = {280, 320, 360};
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b)
            depth[rows[a] * 640 + cols[b]] = static_cast<uint16_t>(1000 + 10 * a + b);
    for (int call = 0; call < 25; ++call)
        r->TemperatureTest(raw.data(), depth.data());
    EXPECT_EQ(r->m_tempLogCounter, 25);
    r->m_tempLogFile.close();

    std::ifstream in(r->m_tempLogPath);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 3u);  // calls 1, 11 and 21
    const float comp1 = static_cast<float>(1.46942e-5 * 625 + 3.58724e-8 * 15625 + (0.00270372 * 25 - 0.0950557)) * 298.256378f;
    char expectNumbers[160];
    std::snprintf(expectNumbers, sizeof expectNumbers, "1234.500000,%f,987.250000,", comp1);
    const std::string prefix = "1000,1001,1002,1010,1011,1012,1020,1021,1022," + std::string(expectNumbers);
    EXPECT_EQ(lines[0].substr(0, prefix.size()), prefix) << lines[0];
    // ... then a number, the temperature code 25 and a stamp such as 2026-11-15_11:29:02.
    const auto isStamp = [](const std::string& t) {
        const std::string shape = "9999-99-99_99:99:99";
        if (t.size() != shape.size())
            return false;
        for (size_t i = 0; i < t.size(); ++i)
            if (shape[i] == '9' ? !std::isdigit(static_cast<unsigned char>(t[i])) : t[i] != shape[i])
                return false;
        return true;
    };
    const size_t code = lines[0].rfind(",25,");
    ASSERT_NE(code, std::string::npos) << lines[0];
    EXPECT_TRUE(isStamp(lines[0].substr(code + 4))) << lines[0];
    const size_t number = lines[0].rfind(',', code - 1);
    EXPECT_NE(lines[0].substr(number + 1, code - number - 1).find_first_of("0123456789"), std::string::npos);
    EXPECT_TRUE(isStamp(r->GetCurrentTime2Str()));

    // Too small an image for the samples: the frame is counted, nothing is read.
    r->m_width = 40;
    r->m_height = 40;
    r->m_tempLogCounter = 0;
    r->TemperatureTest(raw.data(), depth.data());
    EXPECT_EQ(r->m_tempLogCounter, 1);
    std::remove(r->m_tempLogPath.c_str());
}

}  // namespace
