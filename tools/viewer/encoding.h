// How the viewer puts a frame's images on the wire: 16-bit images as zlib streams of
// little-endian words, pictures as PNG or JPEG, every-k-th-pixel decimation, and
// point clouds from the per-pixel rays.
#ifndef QVRECON_VIEWER_ENCODING_H
#define QVRECON_VIEWER_ENCODING_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace qvrecon::viewer {

// The blobs a client can ask for, in the order a frame message carries them, and the
// decimations.
constexpr std::array<const char*, 6> kBlobNames = {"depth", "false_colour", "ir", "colour", "registered", "depth_b"};
constexpr std::array<int, 3> kDecimations = {1, 2, 4};

// The colour grid's pictures (colour and registered depth) are 1920 x 1080 at scale 1,
// 960 x 540 at 2 and 480 x 270 at 4.
constexpr int kColourWidth = 1920;
constexpr std::array<int, 3> kColourScales = {1, 2, 4};

// The colour grid's scale for a client: half size unless its depth is at full size,
// and no finer than it needs to draw the pictures `drawnWidth` pixels wide (0: the
// client did not say).
int ColourScale(int decimate, int drawnWidth);

// How one client's blobs are sized; a frame is encoded once per layout in use.
struct Layout {
    int decimate = 1;
    int colourScale = 1;
    bool operator<(const Layout& o) const
    {
        return decimate != o.decimate ? decimate < o.decimate : colourScale < o.colourScale;
    }
};

struct Blob {
    std::string name, encoding;
    int width = 0, height = 0;
    std::string bytes;
};

// The pictures of one processed frame that blobs are made from.
struct FrameImages {
    cv::Mat depth;        // CV_16UC1, mm
    cv::Mat falseColour;  // BGR
    cv::Mat ir;           // CV_8UC1
    cv::Mat colour;       // BGR 1920 x 1080, empty without a colour frame
    cv::Mat registered;   // CV_16UC1 on the colour grid, empty without a colour frame
    cv::Mat depthB;       // CV_16UC1, mm: the A/B comparison's B side, empty while it is off
};

// The blobs of `mask` (bit i: kBlobNames[i]) in one layout, as a client receives
// them: depth as u16-deflate, false colour and IR as PNG, colour as JPEG and registered
// depth and B's depth as u16-deflate; the depth grid's decimated, the colour grid's two
// at the layout's colour scale. Blobs of parts the frame lacks are left out.
std::vector<Blob> EncodeBlobs(const FrameImages& images, Layout layout, uint32_t mask);
// (The colour grid at ColourScale(decimate, 0).)
std::vector<Blob> EncodeBlobs(const FrameImages& images, int decimate, uint32_t mask);

// Every `factor`-th pixel of every `factor`-th row, starting at (0, 0).
cv::Mat Decimate(const cv::Mat& image, int factor);

// A CV_16UC1 image as a zlib stream (RFC 1950) of its words, little-endian, row by row.
std::string DeflateU16(const cv::Mat& image16, int level);

// PNG (8-bit grey, BGR, or 16-bit grey) and JPEG (BGR) of an image; the PNG made fast
// enough for every frame.
std::string Png(const cv::Mat& image);
std::string Jpeg(const cv::Mat& bgr, int quality);

// The library's point of each pixel from its ray: (rayX * d, rayY * d, rayZ * d) in
// floats, `rays` holding rayX, rayY and rayZ of every pixel one after the other
// (GetCloudPoint of a depth image of ones: rayZ is 1, or 0 where it gives no point).
std::vector<float> CloudFromRays(const cv::Mat& depth16, const std::vector<float>& rays);

}  // namespace qvrecon::viewer

#endif
