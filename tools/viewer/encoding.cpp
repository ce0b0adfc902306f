#include "encoding.h"

#include <cstring>
#include <stdexcept>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <zlib.h>

namespace qvrecon::viewer {

namespace {

template <typename Pixel>
void DecimateInto(const cv::Mat& image, int factor, cv::Mat& out)
{
    for (int y = 0; y < out.rows; ++y) {
        const Pixel* src = image.ptr<Pixel>(y * factor);
        Pixel* dst = out.ptr<Pixel>(y);
        for (int x = 0; x < out.cols; ++x)
            dst[x] = src[static_cast<size_t>(x) * factor];
    }
}

}  // namespace

cv::Mat Decimate(const cv::Mat& image, int factor)
{
    if (factor <= 1)
        return image;
    const int rows = (image.rows + factor - 1) / factor, cols = (image.cols + factor - 1) / factor;
    cv::Mat out(rows, cols, image.type());
    // Whole pixels copied at once for the viewer's pictures (8-bit grey, 16-bit, BGR).
    switch (image.elemSize()) {
    case 1: DecimateInto<uint8_t>(image, factor, out); break;
    case 2: DecimateInto<uint16_t>(image, factor, out); break;
    case 3: DecimateInto<cv::Vec3b>(image, factor, out); break;
    default: {
        const size_t pixelBytes = image.elemSize();
        for (int y = 0; y < rows; ++y) {
            const uint8_t* src = image.ptr<uint8_t>(y * factor);
            uint8_t* dst = out.ptr<uint8_t>(y);
            for (int x = 0; x < cols; ++x)
                std::memcpy(dst + x * pixelBytes, src + static_cast<size_t>(x) * factor * pixelBytes, pixelBytes);
        }
    }
    }
    return out;
}

std::string DeflateU16(const cv::Mat& image16, int level)
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words are sent in the host's byte order");
    CV_Assert(image16.type() == CV_16UC1);
    const cv::Mat image = image16.isContinuous() ? image16 : image16.clone();
    const uLong bytes = static_cast<uLong>(image.total() * 2);
    std::string out(compressBound(bytes), '\0');
    uLongf size = static_cast<uLongf>(out.size());
    if (compress2(reinterpret_cast<Bytef*>(out.data()), &size, image.data, bytes, level) != Z_OK)
        throw std::runtime_error("cannot compress a depth image");
    out.resize(size);
    return out;
}

std::string Png(const cv::Mat& image)
{
    // OpenCV's defaults (4.6) are its fast ones: zlib level 1 with run-length matches
    // after the Sub filter. (Setting the level alone would also bring back libpng's trial
    // of every filter on every row: up to three times the time, and larger IR pictures.)
    std::vector<uint8_t> png;
    if (!cv::imencode(".png", image, png))
        throw std::runtime_error("cannot encode a PNG");
    return std::string(png.begin(), png.end());
}

std::string Jpeg(const cv::Mat& bgr, int quality)
{
    std::vector<uint8_t> jpeg;
    if (!cv::imencode(".jpg", bgr, jpeg, {cv::IMWRITE_JPEG_QUALITY, quality}))
        throw std::runtime_error("cannot encode a JPEG");
    return std::string(jpeg.begin(), jpeg.end());
}

int ColourScale(int decimate, int drawnWidth)
{
    int scale = decimate == 1 ? 1 : 2;
    for (int s : kColourScales)
        if (drawnWidth > 0 && s > scale && kColourWidth / s >= drawnWidth)
            scale = s;
    return scale;
}

std::vector<Blob> EncodeBlobs(const FrameImages& images, int decimate, uint32_t mask)
{
    return EncodeBlobs(images, Layout{decimate, ColourScale(decimate, 0)}, mask);
}

std::vector<Blob> EncodeBlobs(const FrameImages& images, Layout layout, uint32_t mask)
{
    std::vector<Blob> blobs;
    const int decimate = layout.decimate, colourScale = layout.colourScale;
    for (size_t b = 0; b < kBlobNames.size(); ++b) {
        if (!(mask & (1u << b)))
            continue;
        const std::string name = kBlobNames[b];
        Blob blob;
        blob.name = name;
        cv::Mat image;
        if (name == "depth") {
            image = Decimate(images.depth, decimate);
            blob.encoding = "u16-deflate";
            blob.bytes = DeflateU16(image, 1);
        } else if (name == "false_colour") {
            image = Decimate(images.falseColour, decimate);
            blob.encoding = "png";
            blob.bytes = Png(image);
        } else if (name == "ir") {
            image = Decimate(images.ir, decimate);
            blob.encoding = "png";
            blob.bytes = Png(image);
        } else if (name == "colour" && !images.colour.empty()) {
            if (colourScale == 1)
                image = images.colour;
            else
                cv::resize(images.colour, image,
                           cv::Size(images.colour.cols / colourScale, images.colour.rows / colourScale), 0, 0,
                           cv::INTER_AREA);
            blob.encoding = "jpeg";
            blob.bytes = Jpeg(image, 80);
        } else if (name == "registered" && !images.registered.empty()) {
            image = Decimate(images.registered, colourScale);
            blob.encoding = "u16-deflate";
            blob.bytes = DeflateU16(image, 1);
        } else if (name == "depth_b" && !images.depthB.empty()) {
            image = Decimate(images.depthB, decimate);
            blob.encoding = "u16-deflate";
            blob.bytes = DeflateU16(image, 1);
        } else {
            continue;  // a part this frame lacks
        }
        blob.width = image.cols;
        blob.height = image.rows;
        blobs.push_back(std::move(blob));
    }
    return blobs;
}

std::vector<float> CloudFromRays(const cv::Mat& depth16, const std::vector<float>& rays)
{
    const size_t n = depth16.total();
    CV_Assert(depth16.type() == CV_16UC1 && depth16.isContinuous() && rays.size() == 3 * n);
    std::vector<float> cloud(3 * n);
    const uint16_t* d = depth16.ptr<uint16_t>();
    for (size_t i = 0; i < n; ++i) {
        const float z = static_cast<float>(d[i]);
        cloud[3 * i] = rays[i] * z;
        cloud[3 * i + 1] = rays[n + i] * z;
        cloud[3 * i + 2] = rays[2 * n + i] * z;
    }
    return cloud;
}

}  // namespace qvrecon::viewer
