#include "sources.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>

#include <qvreconstruction/recording.h>

#include "output_files.h"
#include "simulator.h"

namespace qvrecon::viewer {
namespace {

constexpr size_t kNv12Bytes = 1920u * 1080u * 3u / 2u;

class Simulated final : public Source {
public:
    Simulated(const SimulateOptions& o, const ModuleCalibration& cal, qvapi::DeviceType device)
        : options_(o), calibration_(cal), device_(device), kind_(ParseScene(o.scene))
    {
        if (o.frames < 1)
            throw ToolError("--frames takes 1 or more");
        worker_ = std::thread([this] { Make(); });
    }
    ~Simulated() override
    {
        stop_ = true;
        worker_.join();
    }
    const char* Kind() const override { return "simulate"; }
    std::string Name() const override { return options_.scene; }
    std::optional<uint64_t> Frames() const override
    {
        std::lock_guard<std::mutex> lock(m_);
        return frames_.size() == static_cast<size_t>(options_.frames) ? std::optional<uint64_t>(frames_.size())
                                                                       : std::nullopt;
    }
    uint64_t Available() const override
    {
        std::lock_guard<std::mutex> lock(m_);
        return frames_.size();
    }
    bool Live() const override { return true; }
    SourceFrame Get(uint64_t index) override
    {
        std::lock_guard<std::mutex> lock(m_);
        if (index >= frames_.size())
            throw ToolError("simulated frame " + std::to_string(index) + " is not made yet");
        return frames_[index];
    }
    const ModuleCalibration& Calibration() const override { return calibration_; }
    qvapi::DeviceType Device() const override { return device_; }

private:
    // One frame after another, each visible as soon as it is made. A frame costs
    // about a third of a second, its colour about half a second.
    void Make()
    {
        const int n = options_.frames;
        for (int i = 0; i < n && !stop_; ++i) {
            const double phase = 2.0 * M_PI * i / n;
            qvsim::SceneSpec scene;
            scene.kind = kind_;
            scene.distanceMm = 1800.0 + 400.0 * std::sin(phase);
            scene.tiltDeg = 35.0 * std::cos(phase);
            qvsim::CaptureSpec setup;
            setup.device = device_;
            setup.temperatureC = 30.0 + 10.0 * i / n;
            setup.noiseSigma = 2.0;
            setup.seed = static_cast<uint32_t>(i + 1);
            SourceFrame f;
            f.index = static_cast<uint64_t>(i);
            f.kind = StreamKind::Dual;
            f.temperatureC = static_cast<float>(setup.temperatureC);
            try {
                qvsim::Capture cap = qvsim::SimulateCapture(calibration_.full, scene, setup);
                f.words = std::make_shared<const std::vector<uint16_t>>(std::move(cap.raw));
                if (options_.colour && calibration_.full.rgbLens.fx != 0.0f)
                    f.nv12 = std::make_shared<const std::vector<uint8_t>>(
                        qvsim::RenderColour(calibration_.full, scene).nv12);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "qvrecon view: cannot simulate frame %d: %s\n", i, e.what());
                return;
            }
            std::lock_guard<std::mutex> lock(m_);
            frames_.push_back(std::move(f));
        }
    }

    SimulateOptions options_;
    ModuleCalibration calibration_;
    qvapi::DeviceType device_;
    qvsim::SceneKind kind_;
    mutable std::mutex m_;
    std::vector<SourceFrame> frames_;
    std::atomic<bool> stop_{false};
    std::thread worker_;
};

StreamKind KindOf(qvapi::StreamType stream, int width, int height)
{
    for (StreamKind k : {StreamKind::Single, StreamKind::Dual, StreamKind::Binned})
        if (Info(k).type == stream && Info(k).width == width && Info(k).height == height)
            return k;
    throw ToolError("a " + std::to_string(width) + "x" + std::to_string(height) + " frame fits no stream");
}

class Recorded final : public Source {
public:
    Recorded(const std::string& path, const std::optional<ModuleCalibration>& calibration) : path_(path)
    {
        const qvapi::RecordingStatus st = reader_.Open(path);
        if (!st.ok())
            throw ToolError(st.message);
        for (const std::string& problem : reader_.Problems())
            std::fprintf(stderr, "qvrecon view: %s\n", problem.c_str());
        if (calibration) {
            calibration_ = *calibration;
        } else {
            try {
                calibration_ = qvapi::ParseCalibrationText(reader_.CalibrationYaml(), path + " (its calibration)");
            } catch (const std::exception& e) {
                throw ToolError(std::string(e.what()) + " (--calib gives another)");
            }
        }
        if (reader_.FrameCount() == 0)
            throw ToolError(path + ": the recording has no captures");
    }
    const char* Kind() const override { return "recording"; }
    std::string Name() const override { return std::filesystem::path(path_).filename().string(); }
    std::optional<uint64_t> Frames() const override { return reader_.FrameCount(); }
    uint64_t Available() const override { return reader_.FrameCount(); }
    bool Live() const override { return false; }
    SourceFrame Get(uint64_t index) override
    {
        qvapi::RecordedFrame r;
        const qvapi::RecordingStatus st = reader_.ReadFrame(index, r);
        if (!st.ok())
            throw ToolError(st.message);
        SourceFrame f;
        f.index = r.index;
        f.kind = KindOf(r.stream, r.width, r.height);
        if (r.words.size() != Info(f.kind).words)
            throw ToolError(path_ + ": frame " + std::to_string(index) + " has " + std::to_string(r.words.size()) +
                            " words, its stream " + std::to_string(Info(f.kind).words));
        f.words = std::make_shared<const std::vector<uint16_t>>(std::move(r.words));
        f.timeNs = r.timeNs;
        f.temperatureC = r.temperatureC;
        f.temperatureCode = r.temperatureCode;
        if (r.hasColour && r.colourWidth == 1920 && r.colourHeight == 1080 && r.nv12.size() == kNv12Bytes)
            f.nv12 = std::make_shared<const std::vector<uint8_t>>(std::move(r.nv12));
        return f;
    }
    const ModuleCalibration& Calibration() const override { return calibration_; }
    qvapi::DeviceType Device() const override { return reader_.Device(); }

private:
    std::string path_;
    qvapi::RecordingReader reader_;
    ModuleCalibration calibration_;
};

class Captures final : public Source {
public:
    Captures(const std::vector<std::string>& paths, const ModuleCalibration& cal, qvapi::DeviceType device)
        : paths_(paths), calibration_(cal), device_(device)
    {
        for (const std::string& path : paths) {
            const uint64_t bytes = RegularFileSize(path);
            const std::optional<StreamKind> kind = StreamForBytes(bytes);
            if (!kind)
                throw ToolError(path + ": " + std::to_string(bytes) + " bytes fit no stream (" + StreamSizes() + ")");
            kinds_.push_back(*kind);
        }
    }
    const char* Kind() const override { return "captures"; }
    std::string Name() const override
    {
        return paths_.size() == 1 ? std::filesystem::path(paths_[0]).filename().string()
                                  : std::to_string(paths_.size()) + " captures";
    }
    std::optional<uint64_t> Frames() const override { return paths_.size(); }
    uint64_t Available() const override { return paths_.size(); }
    bool Live() const override { return false; }
    SourceFrame Get(uint64_t index) override
    {
        const StreamInfo& s = Info(kinds_.at(index));
        const std::vector<uint8_t> bytes = ReadFile(paths_[index], 2 * s.words);
        if (bytes.size() != 2 * s.words)
            throw ToolError(paths_[index] + ": changed size since the start");
        auto words = std::make_shared<std::vector<uint16_t>>(s.words);
        std::memcpy(words->data(), bytes.data(), bytes.size());
        SourceFrame f;
        f.index = index;
        f.kind = kinds_[index];
        f.words = std::move(words);
        return f;
    }
    StreamKind KindAt(uint64_t index) override { return kinds_.at(index); }
    bool MixesStreams() const override
    {
        return std::any_of(kinds_.begin(), kinds_.end(),
                           [&](StreamKind k) { return Info(k).type != Info(kinds_[0]).type; });
    }
    const ModuleCalibration& Calibration() const override { return calibration_; }
    qvapi::DeviceType Device() const override { return device_; }

private:
    std::vector<std::string> paths_;
    std::vector<StreamKind> kinds_;
    ModuleCalibration calibration_;
    qvapi::DeviceType device_;
};

}  // namespace

std::unique_ptr<Source> SimulatedSource(const SimulateOptions& options, const ModuleCalibration& calibration,
                                        qvapi::DeviceType device)
{
    return std::make_unique<Simulated>(options, calibration, device);
}

std::unique_ptr<Source> RecordingSource(const std::string& path, const std::optional<ModuleCalibration>& calibration)
{
    return std::make_unique<Recorded>(path, calibration);
}

std::unique_ptr<Source> CaptureSource(const std::vector<std::string>& paths, const ModuleCalibration& calibration,
                                      qvapi::DeviceType device)
{
    return std::make_unique<Captures>(paths, calibration, device);
}

}  // namespace qvrecon::viewer
