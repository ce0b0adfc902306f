// qv_frame_ops OP N: one frame operation N times through the public interface on the
// simulator's standard scene (boxes before a wall), everything else set up once before
// the N calls. Two runs with different N under an instruction counter give the cost of
// one call by their difference (scripts/arm64_bench.sh); the program is built for every
// architecture the library is.
//
//   dual, dual_nofilter  CalculateDepth on the full stream's capture, filters on / off
//   binned               CalculateDepth on binned frames of the full stream
//   single               CalculateDepth on the reduced stream's capture
//   edge                 EdgeFilter on the full capture's depth
//   ir, cloud, colour    GetIR, GetCloudPoint, Convert2RGB on the full capture
//   register             MapDepthToRGB of the full capture's depth onto its colour frame
//                        (each call also copies the 640 x 480 depth it consumes)
//   record               RecordingWriter::WriteCapture of the full capture with the
//                        default options (LZ4 chunks), into a temporary file
//   encode_light         the viewer's blobs for one client (tools/viewer/encoding.h) of
//                        the full capture with sensor noise and its colour frame: depth,
//                        false colour and IR at decimation 2
//   encode_half          every blob at decimation 2 (colour and registered depth at
//                        960 x 540), what the page receives at "1/2"
//   encode_full          every blob at decimation 1 (the 1920 x 1080 colour JPEG and
//                        registered depth)
//   encode_page          what the page asks for at full size with every picture in
//                        sight: depth, IR, colour and registered depth at decimation 1,
//                        the colour grid drawn 384 pixels wide (480 x 270)
// (The encode operations are there where the tool is built.)
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <opencv2/core/utility.hpp>
#ifdef QV_FRAME_OPS_ENCODE
#include <opencv2/imgproc.hpp>

#include "encoding.h"
#endif
#include <qvreconstruction/depth_filters.h>
#include <qvreconstruction/reconstruction.h>
#include <qvreconstruction/recording.h>
#include <unistd.h>

#include "sample_calibration.h"
#include "simulator.h"

namespace {

int Fail(const std::string& message)
{
    std::fprintf(stderr, "qv_frame_ops: %s\n", message.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string ops = "dual dual_nofilter binned single edge ir cloud colour register record";
#ifdef QV_FRAME_OPS_ENCODE
    ops += " encode_light encode_half encode_full encode_page";
#endif
    if (argc != 3)
        return Fail("usage: qv_frame_ops OP N, OP one of: " + ops);
    const std::string op = argv[1];
    char* end = nullptr;
    const long n = std::strtol(argv[2], &end, 10);
    if (*end != '\0' || n < 0 || n > 1000000)
        return Fail("N must be a whole number from 0 to 1000000");
    if ((" " + ops + " ").find(" " + op + " ") == std::string::npos)
        return Fail("unknown operation '" + op + "' (" + ops + ")");

    // One core, as on the board: OpenCV (in Init, registration and the simulator) runs
    // on this thread, so no worker thread's instructions enter the count.
    cv::setNumThreads(0);

    const bool single = op == "single";
    const qvapi::CameraCalibrationParam binnedCal = qvsim::SampleBinnedCalibration();
    const qvapi::CameraCalibrationParam fullCal = qvsim::SampleCalibration();
    qvapi::Reconstruction& r = *qvapi::Reconstruction::CreateInstance();
    r.SetType(qvapi::DEVICE_GENERIC, single ? qvapi::STREAM_SINGLE_FREQ : qvapi::STREAM_DUAL_FREQ);
    if (r.Init(binnedCal, single ? binnedCal : fullCal) != qvapi::STATUS_OK)
        return Fail("Init refused the sample calibration");
    r.OpenFilter(op != "dual_nofilter");

    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    qvsim::CaptureSpec setup;
    setup.stream = single ? qvapi::STREAM_SINGLE_FREQ : qvapi::STREAM_DUAL_FREQ;
    setup.binned = op == "binned";
    // The viewer's blobs compress as a real sensor's would: with noise.
    const bool encode = op.rfind("encode_", 0) == 0;
    setup.noiseSigma = encode ? 1.0 : 0.0;
    const qvsim::Capture cap = qvsim::SimulateCapture(single ? binnedCal : fullCal, scene, setup);
    const int w = cap.width, h = cap.height;
    const size_t pixels = size_t(w) * h;

    // The depth image the operations after the converters start from.
    uint16_t* depth = nullptr;
    if (r.CalculateDepth(cap.raw.data(), &depth, w, h) != qvapi::STATUS_OK)
        return Fail("CalculateDepth refused the simulated capture");
    std::vector<uint16_t> depthCopy(depth, depth + pixels), work(pixels), ir(pixels);
    std::vector<float> cloud(3 * pixels);
    std::vector<uint8_t> nv12, frame;
    if (op == "register" || encode)
        nv12 = qvsim::RenderColour(fullCal, scene).nv12;

#ifdef QV_FRAME_OPS_ENCODE
    // The pictures the viewer's pipeline keeps of a frame, made once.
    qvrecon::viewer::FrameImages images;
    if (encode) {
        images.depth = cv::Mat(h, w, CV_16UC1, depthCopy.data());
        r.GetIR(cap.raw.data(), ir.data(), w, h);
        cv::Mat(h, w, CV_16UC1, ir.data()).convertTo(images.ir, CV_8UC1);
        uint8_t* rgb = nullptr;
        r.Convert2RGB(&rgb, depthCopy.data(), w, h);
        if (rgb == nullptr)
            return Fail("Convert2RGB gave no picture");
        cv::cvtColor(cv::Mat(h, w, CV_8UC3, rgb), images.falseColour, cv::COLOR_RGB2BGR);
        delete[] rgb;
        uint16_t* entry = new uint16_t[pixels];
        std::memcpy(entry, depthCopy.data(), pixels * sizeof(uint16_t));
        uint8_t* colour = nullptr;
        int cw = 0, ch = 0;
        if (r.MapDepthToRGB(&colour, &entry, nv12.data(), 1920, 1080, cw, ch) != qvapi::STATUS_OK)
            return Fail("MapDepthToRGB refused the simulated frame");
        images.registered = cv::Mat(ch, cw, CV_16UC1, entry).clone();
        images.colour = cv::Mat(ch, cw, CV_8UC3, colour).clone();
        delete[] colour;
        delete[] entry;
    }
    const int decimate = op == "encode_full" || op == "encode_page" ? 1 : 2;
    const qvrecon::viewer::Layout layout{decimate, qvrecon::viewer::ColourScale(decimate, op == "encode_page" ? 384 : 0)};
    const uint32_t everyBlob = (1u << qvrecon::viewer::kBlobNames.size()) - 1;
    const uint32_t blobs = op == "encode_light"  ? 0b111u     // depth, false colour, IR
                           : op == "encode_page" ? 0b11101u  // depth, IR, colour, registered
                                                 : everyBlob;
#endif

    // The recording's file, opened before the calls and closed (and removed) after them.
    qvapi::RecordingWriter writer;
    char recordPath[] = "/tmp/qv_frame_ops_XXXXXX";
    if (op == "record") {
        const int fd = mkstemp(recordPath);
        if (fd < 0)
            return Fail("cannot make a temporary file");
        close(fd);
        qvapi::RecordingOptions options;
        options.overwrite = true;
        const qvapi::RecordingStatus opened = writer.Open(recordPath, qvapi::RecordingSetup{}, options);
        if (!opened.ok())
            return Fail(opened.message);
    }

    uint64_t checksum = 0;
    for (long k = 0; k < n; ++k) {
        int32_t status = qvapi::STATUS_OK;
        if (op == "dual" || op == "dual_nofilter" || op == "binned" || op == "single") {
            uint16_t* out = nullptr;
            status = r.CalculateDepth(cap.raw.data(), &out, w, h);
            checksum += status == qvapi::STATUS_OK ? out[pixels / 2] : 0;
            delete[] out;
        } else if (op == "edge") {
            std::memcpy(work.data(), depthCopy.data(), pixels * sizeof(uint16_t));
            qvapi::EdgeFilter(work.data(), w, h);
            checksum += work[pixels / 2];
        } else if (op == "ir") {
            status = r.GetIR(cap.raw.data(), ir.data(), w, h);
            checksum += ir[pixels / 2];
        } else if (op == "cloud") {
            status = r.GetCloudPoint(depthCopy.data(), cloud.data(), w, h);
            checksum += static_cast<uint64_t>(cloud[3 * (pixels / 2) + 2]);
        } else if (op == "colour") {
            uint8_t* rgb = nullptr;
            r.Convert2RGB(&rgb, depthCopy.data(), w, h);
            checksum += rgb != nullptr ? rgb[3 * (pixels / 2)] : 0;
            delete[] rgb;
#ifdef QV_FRAME_OPS_ENCODE
        } else if (encode) {
            for (const qvrecon::viewer::Blob& b : qvrecon::viewer::EncodeBlobs(images, layout, blobs))
                checksum += b.bytes.size();
#endif
        } else if (op == "record") {
            qvapi::CaptureFrame capture;
            capture.width = w;
            capture.height = h;
            capture.words = cap.raw.data();
            capture.wordCount = cap.raw.size();
            capture.timeNs = 33333333ull * static_cast<uint64_t>(k + 1);
            capture.sequence = static_cast<uint64_t>(k);
            const qvapi::RecordingStatus written = writer.WriteCapture(capture);
            if (!written.ok())
                return Fail(written.message);
            checksum += writer.FileBytes();
        } else {
            uint16_t* entry = new uint16_t[pixels];
            std::memcpy(entry, depthCopy.data(), pixels * sizeof(uint16_t));
            uint8_t* colour = nullptr;
            int cw = 0, ch = 0;
            status = r.MapDepthToRGB(&colour, &entry, nv12.data(), 1920, 1080, cw, ch);
            checksum += status == qvapi::STATUS_OK ? entry[size_t(cw) * ch / 2] : 0;
            delete[] colour;
            delete[] entry;
        }
        if (status != qvapi::STATUS_OK)
            return Fail(op + " returned status " + std::to_string(status));
    }
    if (op == "record") {
        const qvapi::RecordingStatus closed = writer.Close();
        unlink(recordPath);
        if (!closed.ok())
            return Fail(closed.message);
    }
    delete[] depth;
    std::printf("%s x %ld: checksum %llu\n", op.c_str(), n, static_cast<unsigned long long>(checksum));
    return 0;
}
