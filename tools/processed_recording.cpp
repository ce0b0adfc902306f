#include "processed_recording.h"

namespace qvrecon {

namespace {

void Check(const qvapi::RecordingStatus& status, const std::string& path)
{
    if (!status.ok())
        throw ToolError(path + ": " + status.message);
}

}  // namespace

ProcessedRecording::ProcessedRecording(const std::string& path, const qvapi::RecordingSetup& setup,
                                       const ModuleCalibration& calibration)
    : pending_(path), path_(path), calibration_(calibration)
{
    Check(writer_.Open(pending_.TemporaryPath(), setup, {}), path_);
}

void ProcessedRecording::Add(const qvapi::RecordedFrame& f, StreamKind kind, const Products& p)
{
    const StreamInfo& s = Info(kind);
    const uint64_t t = f.timeNs;
    qvapi::CaptureFrame c;
    c.stream = f.stream;
    c.width = f.width;
    c.height = f.height;
    c.words = f.words.data();
    c.wordCount = f.words.size();
    c.timeNs = t;
    c.sequence = f.sequence;
    c.temperatureCode = f.temperatureCode;
    c.temperatureC = f.temperatureC;
    c.framesDropped = f.framesDropped;
    Check(writer_.WriteCapture(c), path_);
    // Colour frames as recorded, each once, however many captures it is nearest to.
    if (f.hasColour && lastColourTime_ != f.colourTimeNs) {
        Check(writer_.WriteColour(f.colourTimeNs, f.nv12.data(), f.colourWidth, f.colourHeight), path_);
        lastColourTime_ = f.colourTimeNs;
    }
    Check(writer_.WriteCameraInfo(qvapi::RecordedCamera::Depth, t, DepthLens(calibration_, kind)), path_);
    Check(writer_.WriteImage(qvapi::ProcessedImage::Depth, t, reinterpret_cast<const uint16_t*>(p.depth.data),
                             s.width, s.height),
          path_);
    Check(writer_.WriteImage(qvapi::ProcessedImage::Ir, t, p.ir.data(), s.width, s.height), path_);
    Check(writer_.WritePoints(t, p.cloud.data(), s.width, s.height), path_);
    if (p.registration) {
        const Registration& r = *p.registration;
        Check(writer_.WriteCameraInfo(qvapi::RecordedCamera::Colour, t, calibration_.full.rgbLens), path_);
        Check(writer_.WriteImage(qvapi::ProcessedImage::RegisteredDepth, t,
                                 reinterpret_cast<const uint16_t*>(r.depth.data), r.depth.cols, r.depth.rows),
              path_);
        Check(writer_.WriteUndistortedColour(t, r.colourBgr.data, r.colourBgr.cols, r.colourBgr.rows), path_);
    }
}

void ProcessedRecording::Close()
{
    Check(writer_.Close(), path_);
    pending_.Commit();
}

}  // namespace qvrecon
