// The viewer's per-client encoding: what a client decodes from each blob is the frame's
// picture at the decimation asked for, pixel for pixel (JPEG aside, which is lossy).
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <zlib.h>

#include "encoding.h"

namespace qvrecon::viewer {
namespace {

// Every factor-th pixel of every factor-th row, the slow and obvious way.
cv::Mat EveryKth(const cv::Mat& image, int factor)
{
    cv::Mat out((image.rows + factor - 1) / factor, (image.cols + factor - 1) / factor, image.type());
    for (int y = 0; y < out.rows; ++y)
        for (int x = 0; x < out.cols; ++x)
            std::memcpy(out.ptr(y, x), image.ptr(y * factor, x * factor), image.elemSize());
    return out;
}

bool Same(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

cv::Mat Noise(int rows, int cols, int type, uint64_t seed)
{
    cv::Mat m(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(m, cv::RNG::UNIFORM, 0, type == CV_16UC1 ? 4000 : 256);
    return m;
}

cv::Mat Inflate16(const std::string& bytes, int rows, int cols)
{
    cv::Mat out(rows, cols, CV_16UC1);
    uLongf size = static_cast<uLongf>(out.total() * 2);
    EXPECT_EQ(uncompress(out.data, &size, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()), Z_OK);
    EXPECT_EQ(size, out.total() * 2);
    return out;
}

cv::Mat Decode(const std::string& bytes)
{
    return cv::imdecode(std::vector<uint8_t>(bytes.begin(), bytes.end()), cv::IMREAD_UNCHANGED);
}

TEST(ViewerEncoding, DecimateKeepsEveryKthPixelOfEveryPixelSize)
{
    // Grey, 16-bit, BGR and a 4-byte type; sizes that the factors do not divide; a view
    // into a larger image (rows not contiguous).
    const cv::Mat big = Noise(40, 60, CV_8UC3, 1);
    for (const cv::Mat& image : {Noise(7, 11, CV_8UC1, 2), Noise(480, 640, CV_16UC1, 3), Noise(9, 5, CV_8UC3, 4),
                                 Noise(6, 6, CV_32FC1, 5), cv::Mat(big, cv::Rect(3, 2, 33, 21))}) {
        for (int factor : {1, 2, 3, 4})
            EXPECT_TRUE(Same(Decimate(image, factor), EveryKth(image, factor)))
                << image.cols << "x" << image.rows << " type " << image.type() << " factor " << factor;
    }
}

TEST(ViewerEncoding, BlobsDecodeToTheFramesPicturesInOrder)
{
    FrameImages f;
    f.depth = Noise(480, 640, CV_16UC1, 10);
    f.falseColour = Noise(480, 640, CV_8UC3, 11);
    f.ir = Noise(480, 640, CV_8UC1, 12);
    f.colour = Noise(1080, 1920, CV_8UC3, 13);
    f.registered = Noise(1080, 1920, CV_16UC1, 14);
    f.depthB = Noise(480, 640, CV_16UC1, 15);
    const uint32_t all = (1u << kBlobNames.size()) - 1;
    for (int decimate : {1, 2, 4}) {
        SCOPED_TRACE("decimation " + std::to_string(decimate));
        const std::vector<Blob> blobs = EncodeBlobs(f, decimate, all);
        ASSERT_EQ(blobs.size(), kBlobNames.size());
        for (size_t i = 0; i < blobs.size(); ++i)
            EXPECT_EQ(blobs[i].name, kBlobNames[i]);
        const int colourScale = decimate == 1 ? 1 : 2;
        const cv::Mat depth = EveryKth(f.depth, decimate), registered = EveryKth(f.registered, colourScale);
        EXPECT_EQ(blobs[0].encoding, "u16-deflate");
        EXPECT_TRUE(Same(Inflate16(blobs[0].bytes, depth.rows, depth.cols), depth));
        EXPECT_EQ(blobs[1].encoding, "png");
        EXPECT_TRUE(Same(Decode(blobs[1].bytes), EveryKth(f.falseColour, decimate)));
        EXPECT_EQ(blobs[2].encoding, "png");
        EXPECT_TRUE(Same(Decode(blobs[2].bytes), EveryKth(f.ir, decimate)));
        EXPECT_EQ(blobs[3].encoding, "jpeg");
        const cv::Mat colour = Decode(blobs[3].bytes);
        EXPECT_EQ(colour.size(), cv::Size(1920 / colourScale, 1080 / colourScale));
        EXPECT_EQ(blobs[4].encoding, "u16-deflate");
        EXPECT_TRUE(Same(Inflate16(blobs[4].bytes, registered.rows, registered.cols), registered));
        EXPECT_EQ(blobs[5].encoding, "u16-deflate");
        const cv::Mat depthB = EveryKth(f.depthB, decimate);
        EXPECT_TRUE(Same(Inflate16(blobs[5].bytes, depthB.rows, depthB.cols), depthB));
        for (const Blob& b : blobs) {
            const cv::Size size = b.name == "colour" || b.name == "registered"
                                      ? cv::Size(1920 / colourScale, 1080 / colourScale)
                                      : cv::Size((640 + decimate - 1) / decimate, (480 + decimate - 1) / decimate);
            EXPECT_EQ(cv::Size(b.width, b.height), size) << b.name;
        }
    }
}

TEST(ViewerEncoding, TheColourGridIsNoFinerThanDrawnNorThanItsDecimationAllows)
{
    // Not said: full size with full-size depth, else half.
    EXPECT_EQ(ColourScale(1, 0), 1);
    EXPECT_EQ(ColourScale(2, 0), 2);
    EXPECT_EQ(ColourScale(4, 0), 2);
    // Drawn narrower: the coarsest scale still at least as wide as drawn.
    EXPECT_EQ(ColourScale(1, 1920), 1);
    EXPECT_EQ(ColourScale(1, 961), 1);
    EXPECT_EQ(ColourScale(1, 960), 2);
    EXPECT_EQ(ColourScale(1, 481), 2);
    EXPECT_EQ(ColourScale(1, 480), 4);
    EXPECT_EQ(ColourScale(1, 1), 4);
    EXPECT_EQ(ColourScale(2, 4000), 2);  // never finer than the decimation's half size

    FrameImages f;
    f.depth = Noise(480, 640, CV_16UC1, 30);
    f.colour = Noise(1080, 1920, CV_8UC3, 31);
    f.registered = Noise(1080, 1920, CV_16UC1, 32);
    const std::vector<Blob> blobs = EncodeBlobs(f, Layout{1, 4}, 0b011001u);  // depth, colour, registered
    ASSERT_EQ(blobs.size(), 3u);
    EXPECT_EQ(cv::Size(blobs[0].width, blobs[0].height), cv::Size(640, 480));
    EXPECT_EQ(cv::Size(blobs[1].width, blobs[1].height), cv::Size(480, 270));
    EXPECT_EQ(Decode(blobs[1].bytes).size(), cv::Size(480, 270));
    EXPECT_TRUE(Same(Inflate16(blobs[2].bytes, 270, 480), EveryKth(f.registered, 4)));
}

TEST(ViewerEncoding, OnlyTheBlobsAskedForAndThoseTheFrameHas)
{
    FrameImages f;
    f.depth = Noise(240, 320, CV_16UC1, 20);
    f.falseColour = Noise(240, 320, CV_8UC3, 21);
    f.ir = Noise(240, 320, CV_8UC1, 22);
    // No colour frame and A/B off: colour, registered depth and B's depth are left out
    // even when asked for.
    std::vector<std::string> names;
    for (const Blob& b : EncodeBlobs(f, 2, 0b111101u))
        names.push_back(b.name);
    EXPECT_EQ(names, (std::vector<std::string>{"depth", "ir"}));
    EXPECT_TRUE(EncodeBlobs(f, 1, 0).empty());
}

}  // namespace
}  // namespace qvrecon::viewer
