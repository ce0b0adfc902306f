// Where the viewer's frames come from: a simulated scene (a loop of frames made once,
// in the background, then played at the sensor's rate), a recording, or capture files.
// A source only reads; the pipeline decides which frame to show and when.
#ifndef QVRECON_VIEWER_SOURCES_H
#define QVRECON_VIEWER_SOURCES_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "calibration_file.h"
#include "pipeline.h"

namespace qvrecon::viewer {

struct SourceFrame {
    uint64_t index = 0;
    StreamKind kind = StreamKind::Dual;
    std::shared_ptr<const std::vector<uint16_t>> words;  // the capture, as CalculateDepth takes it
    uint64_t timeNs = 0;                                  // 0: not known (shown at --fps)
    float temperatureC = 0.0f;
    uint16_t temperatureCode = 0;
    std::shared_ptr<const std::vector<uint8_t>> nv12;     // a 1920 x 1080 colour frame, or null
};

class Source {
public:
    virtual ~Source() = default;
    virtual const char* Kind() const = 0;  // "simulate", "recording" or "captures"
    virtual std::string Name() const = 0;
    // Frames in all (null while a simulation is still making its loop), and those
    // that can be read now.
    virtual std::optional<uint64_t> Frames() const = 0;
    virtual uint64_t Available() const = 0;
    // Live sources play a loop and cannot be sought.
    virtual bool Live() const = 0;
    // Frame `index` (< Available()); a ToolError names what is wrong with it.
    virtual SourceFrame Get(uint64_t index) = 0;
    // The kind of frame `index`; sources that know it without reading the frame say so.
    virtual StreamKind KindAt(uint64_t index) { return Get(index).kind; }
    // Whether frames of both streams (single-frequency and full) may follow each other.
    virtual bool MixesStreams() const { return false; }
    virtual const ModuleCalibration& Calibration() const = 0;
    virtual qvapi::DeviceType Device() const = 0;
};

struct SimulateOptions {
    std::string scene = "boxes";
    int frames = 24;
    bool colour = true;
};

// A moving, warming scene: the distance swings and the temperature climbs over the loop.
std::unique_ptr<Source> SimulatedSource(const SimulateOptions& options, const ModuleCalibration& calibration,
                                        qvapi::DeviceType device);
// A recording; its own calibration unless `calibration` is given.
std::unique_ptr<Source> RecordingSource(const std::string& path, const std::optional<ModuleCalibration>& calibration);
// Capture files, checked (size, stream) before anything is shown.
std::unique_ptr<Source> CaptureSource(const std::vector<std::string>& paths, const ModuleCalibration& calibration,
                                      qvapi::DeviceType device);

}  // namespace qvrecon::viewer

#endif
