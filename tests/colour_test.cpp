// False colour and the colour-bar legend.
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "colour/false_colour.h"
#include "reconstruction_impl.h"

namespace {

using namespace qvapi;

struct Rgb {
    int r, g, b;
    bool operator==(const Rgb& o) const { return r == o.r && g == o.g && b == o.b; }
};
std::ostream& operator<<(std::ostream& os, const Rgb& c)
{
    return os << "(" << c.r << "," << c.g << "," << c.b << ")";
}

Rgb Paint(uint16_t d, int lo, int hi)
{
    uint8_t px[3];
    FalseColour(&d, 1, lo, hi, px);
    return {px[0], px[1], px[2]};
}

TEST(FalseColour, LevelsAndTheirBoundaries)
{
    EXPECT_EQ(Paint(0, 0, 7500), (Rgb{0, 0, 0}));
    EXPECT_EQ(Paint(1, 500, 600), (Rgb{127, 0, 170}));  // the marker, whatever the range
    // A 1021 mm range makes one millimetre one level.
    EXPECT_EQ(Paint(1000, 1000, 2021), (Rgb{127, 0, 0}));
    EXPECT_EQ(Paint(1001, 1000, 2021), (Rgb{128, 0, 0}));
    EXPECT_EQ(Paint(1128, 1000, 2021), (Rgb{255, 0, 0}));
    EXPECT_EQ(Paint(1129, 1000, 2021), (Rgb{255, 1, 0}));
    EXPECT_EQ(Paint(1383, 1000, 2021), (Rgb{255, 255, 0}));
    EXPECT_EQ(Paint(1384, 1000, 2021), (Rgb{254, 255, 1}));
    EXPECT_EQ(Paint(1638, 1000, 2021), (Rgb{0, 255, 255}));
    EXPECT_EQ(Paint(1639, 1000, 2021), (Rgb{0, 254, 255}));
    EXPECT_EQ(Paint(1893, 1000, 2021), (Rgb{0, 0, 255}));
    EXPECT_EQ(Paint(1894, 1000, 2021), (Rgb{0, 0, 128}));   // flat navy from level 894
    EXPECT_EQ(Paint(9000, 1000, 2021), (Rgb{0, 0, 128}));   // beyond hi: level 1021
    EXPECT_EQ(Paint(500, 1000, 2021), (Rgb{127, 0, 0}));    // below lo: level 0
    // Empty range: 0/0 is NaN, whose conversion is the most negative level -> navy.
    EXPECT_EQ(FalseColourLevel(700, 700, 700), INT32_MIN);
    EXPECT_EQ(Paint(700, 700, 700), (Rgb{0, 0, 128}));
    EXPECT_EQ(Paint(600, 700, 700), (Rgb{127, 0, 0}));
    EXPECT_EQ(Paint(800, 700, 700), (Rgb{0, 0, 128}));
    // Reversed range: still defined.
    EXPECT_EQ(Paint(300, 500, 100), (Rgb{0, 0, 128}));
    EXPECT_EQ(Paint(50, 500, 100), (Rgb{127, 0, 0}));
    // Extreme ranges do not overflow: level (3000 + 2^31) / (2^32 - 1) * 1021 = 510.
    EXPECT_EQ(Paint(3000, INT32_MIN, INT32_MAX), (Rgb{128, 255, 127}));
}

TEST(FalseColour, ThroughTheInstanceWithTheCustomRange)
{
    auto r = std::make_unique<ReconstructionImpl>();
    r->SetCustomDistanceRange(1000, 2021);
    std::vector<uint16_t> depth = {0, 1, 1000, 1384, 5000, 1383};
    uint8_t* rgb = nullptr;
    r->Convert2RGB(&rgb, depth.data(), 3, 2);  // works before Init: no calibration needed
    ASSERT_NE(rgb, nullptr);
    const uint8_t expect[18] = {0, 0, 0, 127, 0, 170, 127, 0, 0, 254, 255, 1, 0, 0, 128, 255, 255, 0};
    EXPECT_EQ(0, std::memcmp(rgb, expect, 18));
    delete[] rgb;
    uint8_t* untouched = reinterpret_cast<uint8_t*>(0x1);
    r->Convert2RGB(&untouched, depth.data(), 0, 2);
    r->Convert2RGB(&untouched, nullptr, 3, 2);
    EXPECT_EQ(untouched, reinterpret_cast<uint8_t*>(0x1));
}

TEST(ColourBar, SegmentsAndCopies)
{
    // The five segments: the fixed channels hold their values throughout.
    for (int i = 0; i < 360; ++i) {
        const unsigned char* c = color_map[i];
        if (i <= 44)
            EXPECT_TRUE(c[1] == 0 && c[2] == 0) << i;
        else if (i <= 136)
            EXPECT_TRUE(c[0] == 255 && c[2] == 0) << i;
        else if (i <= 227)
            EXPECT_TRUE(c[1] == 255 && c[0] + c[2] == ((i >= 180 && i <= 185) ? 256 : 255)) << i;
        else if (i <= 318)
            EXPECT_TRUE(c[0] == 0 && c[2] == 255) << i;
        else
            EXPECT_TRUE(c[0] == 0 && c[1] == 0) << i;
    }
    EXPECT_EQ(color_map[44][0], 255);
    EXPECT_EQ(color_map[136][1], 255);
    EXPECT_EQ(color_map[318][1], 0);

    auto r = std::make_unique<ReconstructionImpl>();
    uint8_t *a = nullptr, *b = nullptr;
    int n = 0;
    r->GetColorBar(&a, n);
    EXPECT_EQ(n, 360);
    r->GetColorBar(&b, n);
    ASSERT_NE(a, b);
    EXPECT_EQ(a[0], 128);
    EXPECT_EQ(a[1], 0);
    EXPECT_EQ(a[3 * 359 + 2], 143);
    a[0] = 7;  // the caller's copy, not the table
    EXPECT_EQ(color_map[0][0], 128);
    EXPECT_EQ(0, std::memcmp(b, color_map, 1080));
    delete[] a;
    delete[] b;
    // The table and the painting are separate: the far end of the image is navy,
    // the far end of the legend dark blue 143.
    EXPECT_EQ(Paint(7500, 0, 7500), (Rgb{0, 0, 128}));
}

}  // namespace
