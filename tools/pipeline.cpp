#include "pipeline.h"

#include <algorithm>
#include <cstring>
#include <cstdio>
#include <limits>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "output_files.h"

namespace qvrecon {
namespace {

const StreamInfo kStreams[] = {
    {StreamKind::Single, "single", qvapi::STREAM_SINGLE_FREQ, 320, 240, 4u * 320 * 240},
    {StreamKind::Dual, "dual", qvapi::STREAM_DUAL_FREQ, 640, 480, 16u * 640 * 480},
    {StreamKind::Binned, "binned", qvapi::STREAM_DUAL_FREQ, 320, 240, 16u * 320 * 240},
};

// Converts an RGB buffer of the library (new[]-allocated, ours to free) into a BGR image.
cv::Mat TakeRgb(uint8_t* rgb, int width, int height)
{
    std::unique_ptr<uint8_t[]> owned(rgb);
    cv::Mat bgr;
    cv::cvtColor(cv::Mat(height, width, CV_8UC3, owned.get()), bgr, cv::COLOR_RGB2BGR);
    return bgr;
}

cv::Mat Paint(qvapi::Reconstruction& lib, const cv::Mat& depth16, int minMm, int maxMm)
{
    cv::Mat depth = depth16.isContinuous() ? depth16 : depth16.clone();
    lib.SetCustomDistanceRange(minMm, maxMm);
    uint8_t* rgb = nullptr;
    lib.Convert2RGB(&rgb, reinterpret_cast<uint16_t*>(depth.data), depth.cols, depth.rows);
    if (rgb == nullptr)
        throw ToolError("cannot colour an empty depth image");
    return TakeRgb(rgb, depth.cols, depth.rows);
}

}  // namespace

const StreamInfo& Info(StreamKind kind) { return kStreams[static_cast<int>(kind)]; }

std::optional<StreamKind> StreamForBytes(size_t bytes)
{
    for (const StreamInfo& s : kStreams)
        if (bytes == 2 * s.words)
            return s.kind;
    return std::nullopt;
}

std::optional<StreamKind> StreamOf(qvapi::StreamType type, int width, int height)
{
    for (const StreamInfo& s : kStreams)
        if (s.type == type && s.width == width && s.height == height)
            return s.kind;
    return std::nullopt;
}

qvapi::Intrinsics DepthLens(const ModuleCalibration& calibration, StreamKind stream)
{
    if (stream == StreamKind::Single)
        return calibration.binned.depthLens;
    qvapi::Intrinsics lens = calibration.full.depthLens;
    if (stream == StreamKind::Binned) {
        // Every other ray of the full grid.
        lens.width /= 2;
        lens.height /= 2;
        lens.fx /= 2;
        lens.fy /= 2;
        lens.cx /= 2;
        lens.cy /= 2;
    }
    return lens;
}

SensorTemperature TemperatureOf(const uint16_t* words)
{
    const uint16_t code = static_cast<uint16_t>(((words[188] >> 2) << 8) + (words[190] >> 2));
    return {code, static_cast<float>((code - 296) * 0.18518518518518517 + 25.0)};
}

qvsim::SceneKind ParseScene(const std::string& name)
{
    if (name == "wall") return qvsim::SceneKind::Wall;
    if (name == "plane") return qvsim::SceneKind::TiltedPlane;
    if (name == "boxes") return qvsim::SceneKind::Boxes;
    if (name == "sphere") return qvsim::SceneKind::Sphere;
    throw ToolError("unknown scene '" + name + "' (wall, plane, boxes or sphere)");
}

StreamKind ParseStream(const std::string& name)
{
    for (const StreamInfo& s : kStreams)
        if (name == s.name)
            return s.kind;
    throw ToolError("unknown stream '" + name + "' (single, dual or binned)");
}

std::string StreamSizes()
{
    std::string out;
    for (const StreamInfo& s : kStreams)
        out += (out.empty() ? "" : ", ") + std::string(s.name) + " " + std::to_string(2 * s.words);
    return out + " bytes";
}

qvapi::Reconstruction& Configure(const ModuleCalibration& calibration, qvapi::DeviceType device,
                                 StreamKind stream)
{
    qvapi::Reconstruction& lib = *qvapi::Reconstruction::CreateInstance();
    lib.SetType(device, Info(stream).type);
    const qvapi::CameraCalibrationParam& working =
        stream == StreamKind::Single ? calibration.binned : calibration.full;
    const int32_t status = lib.Init(calibration.binned, working);
    if (status != qvapi::STATUS_OK)
        throw ToolError("the library refused the calibration: " + StatusText(status));
    return lib;
}

std::string StatusText(int32_t status)
{
    switch (status) {
    case qvapi::STATUS_OK: return "";
    case qvapi::STATUS_NOT_INITIALIZED: return "the library is not initialised";
    case qvapi::STATUS_INVALID_ARGUMENT: return "the frame does not fit the calibration's stream";
    default: return "library status " + std::to_string(status);
    }
}

cv::Mat FalseColourWithLegend(qvapi::Reconstruction& lib, const cv::Mat& depth16, int minMm,
                              int maxMm)
{
    const cv::Mat picture = Paint(lib, depth16, minMm, maxMm);
    uint8_t* bar = nullptr;
    int entries = 0;
    lib.GetColorBar(&bar, entries);
    const cv::Mat legendRgb = TakeRgb(bar, 1, entries);  // near at the top

    const int H = picture.rows, margin = 14, barWidth = 24, textWidth = 92;
    cv::Mat canvas(H, picture.cols + barWidth + textWidth + 2 * margin, CV_8UC3, cv::Scalar(32, 32, 32));
    picture.copyTo(canvas(cv::Rect(0, 0, picture.cols, H)));
    const int barTop = margin, barHeight = H - 2 * margin;
    cv::Mat scaled;
    cv::resize(legendRgb, scaled, cv::Size(barWidth, barHeight), 0, 0, cv::INTER_NEAREST);
    scaled.copyTo(canvas(cv::Rect(picture.cols + margin, barTop, barWidth, barHeight)));
    const int textX = picture.cols + margin + barWidth + 6;
    const auto label = [&](const std::string& text, int y) {
        cv::putText(canvas, text, cv::Point(textX, y), cv::FONT_HERSHEY_SIMPLEX, 0.45,
                    cv::Scalar(235, 235, 235), 1, cv::LINE_AA);
    };
    label(std::to_string(minMm) + " mm", barTop + 12);
    label(std::to_string((minMm + maxMm) / 2) + " mm", barTop + barHeight / 2 + 4);
    label(std::to_string(maxMm) + " mm", barTop + barHeight);
    return canvas;
}

cv::Mat IrPicture(const std::vector<uint16_t>& ir, int width, int height)
{
    cv::Mat out;
    cv::Mat(height, width, CV_16UC1, const_cast<uint16_t*>(ir.data())).convertTo(out, CV_8UC1);
    return out;
}

std::string PointCloudPly(const std::vector<float>& cloud, int width, int height, const PlyOptions& options,
                          const std::vector<uint8_t>* colours)
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "PLY bodies are written in the host's byte order");
    size_t pixels = std::min(cloud.size() / 3, static_cast<size_t>(width) * static_cast<size_t>(height));
    if (colours != nullptr)
        pixels = std::min(pixels, colours->size() / 3);
    const float scale = options.metres ? 0.001f : 1.0f;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::string body;
    body.reserve(options.ascii ? 36 * pixels : 15 * pixels);
    size_t count = 0;
    char line[128];
    for (size_t i = 0; i < pixels; ++i) {
        const bool valid = cloud[3 * i + 2] > 1.0f;  // depths 0 and 1 mark pixels without one
        if (!valid && !options.organised)
            continue;
        float p[3];
        for (int k = 0; k < 3; ++k)
            p[k] = valid ? cloud[3 * i + k] * scale : nan;
        const uint8_t* rgb = colours != nullptr ? colours->data() + 3 * i : nullptr;
        if (options.ascii) {
            int n = options.metres ? std::snprintf(line, sizeof line, "%.4f %.4f %.4f", p[0], p[1], p[2])
                                   : std::snprintf(line, sizeof line, "%.1f %.1f %.1f", p[0], p[1], p[2]);
            if (rgb != nullptr)
                n += std::snprintf(line + n, sizeof line - static_cast<size_t>(n), " %u %u %u", rgb[0], rgb[1], rgb[2]);
            body.append(line, static_cast<size_t>(n));
            body += '\n';
        } else {
            body.append(reinterpret_cast<const char*>(p), sizeof p);
            if (rgb != nullptr)
                body.append(reinterpret_cast<const char*>(rgb), 3);
        }
        ++count;
    }
    std::string header = std::string("ply\nformat ") + (options.ascii ? "ascii" : "binary_little_endian") +
                         " 1.0\ncomment qvrecon point cloud, " + (options.metres ? "metres" : "millimetres") + "\n";
    if (options.organised)
        header += "comment organised " + std::to_string(width) + " x " + std::to_string(height) +
                  ", row by row; pixels without depth are NaN\n";
    header += "element vertex " + std::to_string(count) + "\nproperty float x\nproperty float y\nproperty float z\n";
    if (colours != nullptr)
        header += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
    header += "end_header\n";
    return header + body;
}

void WritePointCloud(const std::string& path, const std::vector<float>& cloud, int width, int height,
                     const PlyOptions& options, const std::vector<uint8_t>* colours)
{
    const std::string all = PointCloudPly(cloud, width, height, options, colours);
    WriteBytes(path, all.data(), all.size());
}

Registration Register(qvapi::Reconstruction& lib, const cv::Mat& depth16, std::vector<uint8_t>& nv12)
{
    if (depth16.type() != CV_16UC1 || depth16.cols != 640 || depth16.rows != 480 || !depth16.isContinuous() ||
        nv12.size() != 1920u * 1080u * 3u / 2u)
        throw ToolError("registration takes a 640x480 depth image and a 1920x1080 NV12 frame");
    // The library replaces the depth buffer it is given and hands out new ones.
    std::unique_ptr<uint16_t[]> depth(new uint16_t[640 * 480]);
    std::memcpy(depth.get(), depth16.data, 640 * 480 * sizeof(uint16_t));
    uint16_t* d = depth.release();
    uint8_t* colour = nullptr;
    int w = 0, h = 0;
    const int32_t status = lib.MapDepthToRGB(&colour, &d, nv12.data(), 1920, 1080, w, h);
    const std::unique_ptr<uint16_t[]> registered(d);
    const std::unique_ptr<uint8_t[]> bgr(colour);
    if (status != qvapi::STATUS_OK)
        throw ToolError("registration failed: " + StatusText(status));
    return {cv::Mat(h, w, CV_16UC1, registered.get()).clone(), cv::Mat(h, w, CV_8UC3, bgr.get()).clone()};
}

std::vector<uint8_t> PointColours(const std::vector<float>& cloud, const cv::Mat& colourBgr,
                                  const qvapi::RegistrationGeometry& g)
{
    CV_Assert(colourBgr.type() == CV_8UC3);
    const size_t points = cloud.size() / 3;
    std::vector<uint8_t> rgb(3 * points, 0);
    const float* R = g.rotation;
    const float* t = g.translation;
    for (size_t i = 0; i < points; ++i) {
        const float X = cloud[3 * i], Y = cloud[3 * i + 1], Z = cloud[3 * i + 2];
        if (!(Z > 9.0f))  // the registration moves depths of 10 mm and more
            continue;
        // The registration's own arithmetic, in its order.
        const float xc = R[0] * X + R[1] * Y + R[2] * Z + t[0];
        const float yc = R[3] * X + R[4] * Y + R[5] * Z + t[1];
        const float zc = R[6] * X + R[7] * Y + R[8] * Z + t[2];
        const float fu = (xc / zc) * g.fx + g.cx;
        const float fv = (yc / zc) * g.fy + g.cy;
        if (!(fu > -1.0f && fu < static_cast<float>(colourBgr.cols) && fv > -1.0f &&
              fv < static_cast<float>(colourBgr.rows)))
            continue;
        const cv::Vec3b bgr = colourBgr.at<cv::Vec3b>(static_cast<int>(fv), static_cast<int>(fu));
        rgb[3 * i] = bgr[2];
        rgb[3 * i + 1] = bgr[1];
        rgb[3 * i + 2] = bgr[0];
    }
    return rgb;
}

cv::Mat Overlay(qvapi::Reconstruction& lib, const cv::Mat& colourBgr, const cv::Mat& registered16,
                int minMm, int maxMm)
{
    const cv::Mat painted = Paint(lib, registered16, minMm, maxMm);
    cv::Mat out = colourBgr.clone();
    cv::Mat blended;
    cv::addWeighted(colourBgr, 0.4, painted, 0.6, 0.0, blended);
    blended.copyTo(out, registered16 > 9);
    return out;
}

}  // namespace qvrecon
