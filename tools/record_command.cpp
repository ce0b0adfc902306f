// qvrecon record: a recording (MCAP, with the calibration attached) of a simulated
// session or of existing capture files, each capture with its time, sequence number
// and sensor temperature, and its colour frame when there is one.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include <qvreconstruction/recording.h>

#include "command_line.h"
#include "output_files.h"
#include "pipeline.h"
#include "session.h"
#include "simulator.h"

namespace qvrecon {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kNv12Bytes = 1920u * 1080u * 3u / 2u;

struct RecordArgs {
    Common common;  // --out is the recording's file
    std::vector<std::string> captures;
    std::vector<std::string> colourFrames;
    std::string scene, stream = "dual", compression = "lz4";
    uint64_t frames = 0;
    double fps = 30, distance = 2000, temperature = 25, noise = 0;
    int level = 0;
    unsigned seed = 1;
    bool noColour = false;
    std::optional<uint64_t> startNs;
};

qvapi::RecordingCompression ParseCompression(const std::string& name)
{
    if (name == "none") return qvapi::RecordingCompression::None;
    if (name == "lz4") return qvapi::RecordingCompression::Lz4;
    return qvapi::RecordingCompression::Zstd;
}

void Check(const qvapi::RecordingStatus& status, const std::string& what)
{
    if (!status.ok())
        throw ToolError(what + ": " + status.message);
}

// The recording being written, and how long the writing itself takes.
class Recorder {
public:
    Recorder(const RecordArgs& a, const ModuleCalibration& cal, qvapi::StreamType stream) : pending_(a.common.out)
    {
        qvapi::RecordingSetup setup;
        setup.device = static_cast<qvapi::DeviceType>(a.common.device);
        setup.stream = stream;
        setup.moduleLabel = cal.full.label;
        setup.calibrationYaml = qvapi::CalibrationText(cal, false);
        qvapi::RecordingOptions options;
        options.compression = ParseCompression(a.compression);
        options.level = a.level;
        Check(writer_.Open(pending_.TemporaryPath(), setup, options), a.common.out);
        path_ = a.common.out;
    }

    void Capture(const StreamInfo& s, const uint16_t* words, uint64_t sequence, uint64_t timeNs)
    {
        qvapi::CaptureFrame c;
        c.stream = s.type;
        c.width = s.width;
        c.height = s.height;
        c.words = words;
        c.wordCount = s.words;
        c.timeNs = timeNs;
        c.sequence = sequence;
        const SensorTemperature t = TemperatureOf(words);
        c.temperatureCode = t.code;
        c.temperatureC = t.celsius;
        const auto start = Clock::now();
        Check(writer_.WriteCapture(c), path_);
        writing_ += Clock::now() - start;
    }

    void Colour(const uint8_t* nv12, uint64_t timeNs)
    {
        const auto start = Clock::now();
        Check(writer_.WriteColour(timeNs, nv12, 1920, 1080), path_);
        writing_ += Clock::now() - start;
    }

    void Finish()
    {
        const auto start = Clock::now();
        Check(writer_.Close(), path_);
        writing_ += Clock::now() - start;
        pending_.Commit();
    }

    double WritingSeconds() const { return std::chrono::duration<double>(writing_).count(); }
    uint64_t FileBytes() const { return writer_.FileBytes(); }
    uint64_t MessageBytes() const { return writer_.MessageBytes(); }

private:
    PendingFile pending_;
    std::string path_;
    qvapi::RecordingWriter writer_;
    Clock::duration writing_{};
};

// Capture k's time: the start plus k frame periods, to the nanosecond.
uint64_t TimeOf(uint64_t startNs, uint64_t k, double fps)
{
    return startNs + static_cast<uint64_t>(std::llround(static_cast<long double>(k) * 1e9L / fps));
}

int RunRecord(const RecordArgs& a)
{
    const bool simulate = !a.scene.empty();
    if (simulate == !a.captures.empty())
        throw ToolError("record takes either --simulate SCENE or capture files");
    if (simulate && a.frames == 0)
        throw ToolError("--simulate needs --frames N (1 or more)");
    if (!simulate && (a.frames != 0 || a.noColour))
        throw ToolError("--frames and --no-colour go with --simulate");
    if (simulate && !a.colourFrames.empty())
        throw ToolError("--colour goes with capture files; a simulated session renders its own colour frames");
    if ((a.compression == "none" && a.level != 0) || (a.compression == "lz4" && a.level > 12))
        throw ToolError("--level takes 0 to 12 with lz4, 1 to 19 with zstd, nothing without compression");
    const ModuleCalibration cal = LoadCalibration(a.common);
    const uint64_t startNs = a.startNs ? *a.startNs
                                       : static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                             std::chrono::system_clock::now().time_since_epoch())
                                                                   .count());

    // Every input is checked before anything is written.
    std::vector<StreamKind> kinds;
    if (simulate) {
        kinds.assign(a.frames, ParseStream(a.stream));
    } else {
        for (const std::string& path : a.captures) {
            const uint64_t bytes = RegularFileSize(path);
            const std::optional<StreamKind> kind = StreamForBytes(bytes);
            if (!kind)
                throw ToolError(path + ": " + std::to_string(bytes) + " bytes fit no stream (" + StreamSizes() + ")");
            if (!kinds.empty() && Info(*kind).type != Info(kinds[0]).type)
                throw ToolError(path + ": a recording holds one stream; this " + Info(*kind).name + " capture follows " +
                                Info(kinds[0]).name + " ones");
            kinds.push_back(*kind);
        }
        if (!a.colourFrames.empty() && a.colourFrames.size() != 1 && a.colourFrames.size() != a.captures.size())
            throw ToolError("--colour takes one NV12 frame for all captures or one per capture (" +
                            std::to_string(a.captures.size()) + "), not " + std::to_string(a.colourFrames.size()));
        for (const std::string& frame : a.colourFrames)
            if (const uint64_t bytes = RegularFileSize(frame); bytes != kNv12Bytes)
                throw ToolError(frame + ": " + std::to_string(bytes) + " bytes, an NV12 1920x1080 frame has " +
                                std::to_string(kNv12Bytes));
    }
    const fs::path parent = fs::path(a.common.out).parent_path();
    EnsureFolder(parent.empty() ? "." : parent.string());

    Recorder recorder(a, cal, Info(kinds[0]).type);
    const auto start = Clock::now();
    uint64_t colourFrames = 0;
    if (simulate) {
        const StreamKind kind = kinds[0];
        qvsim::SessionSpec session;
        session.scene.kind = ParseScene(a.scene);
        session.scene.distanceMm = a.distance;
        session.setup.device = static_cast<qvapi::DeviceType>(a.common.device);
        session.setup.stream = Info(kind).type;
        session.setup.binned = kind == StreamKind::Binned;
        session.setup.temperatureC = a.temperature;
        session.setup.noiseSigma = a.noise;
        session.setup.seed = a.seed;
        session.fps = a.fps;
        const bool colour = !a.noColour && cal.full.rgbLens.fx != 0.0f;
        for (uint64_t k = 0; k < a.frames; ++k) {
            const qvsim::SessionFrame f = qvsim::SessionFrameAt(session, k);
            const qvsim::Capture cap =
                qvsim::SimulateCapture(kind == StreamKind::Single ? cal.binned : cal.full, f.scene, f.setup);
            const uint64_t t = TimeOf(startNs, k, a.fps);
            recorder.Capture(Info(kind), cap.raw.data(), k, t);
            if (colour) {
                recorder.Colour(qvsim::RenderColour(cal.full, f.scene).nv12.data(), t);
                ++colourFrames;
            }
        }
    } else {
        std::vector<uint16_t> words;
        std::vector<uint8_t> nv12;
        for (size_t k = 0; k < a.captures.size(); ++k) {
            const StreamInfo& s = Info(kinds[k]);
            const std::vector<uint8_t> bytes = ReadFile(a.captures[k], 2 * s.words);
            if (bytes.size() != 2 * s.words)
                throw ToolError(a.captures[k] + ": changed size while reading");
            words.resize(s.words);
            std::memcpy(words.data(), bytes.data(), bytes.size());
            const uint64_t t = TimeOf(startNs, k, a.fps);
            recorder.Capture(s, words.data(), k, t);
            if (!a.colourFrames.empty()) {
                const std::string& frame = a.colourFrames[a.colourFrames.size() == 1 ? 0 : k];
                nv12 = ReadFile(frame, kNv12Bytes);
                if (nv12.size() != kNv12Bytes)
                    throw ToolError(frame + ": changed size while reading");
                recorder.Colour(nv12.data(), t);
                ++colourFrames;
            }
        }
    }
    recorder.Finish();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const double writing = std::max(recorder.WritingSeconds(), 1e-9);
    std::printf("%zu capture%s and %llu colour frame%s in %s (%s, %.1f MB, %.2f:1) in %.2f s (%.1f frames/s); "
                "writing alone %.1f frames/s, %.1f MB/s\n",
                kinds.size(), kinds.size() == 1 ? "" : "s", static_cast<unsigned long long>(colourFrames),
                colourFrames == 1 ? "" : "s", a.common.out.c_str(), a.compression.c_str(),
                recorder.FileBytes() / 1e6, recorder.MessageBytes() / std::max<double>(recorder.FileBytes(), 1.0),
                seconds, kinds.size() / std::max(seconds, 1e-9), kinds.size() / writing,
                recorder.MessageBytes() / 1e6 / writing);
    return 0;
}

}  // namespace

Command AddRecordCommand(CLI::App& app)
{
    const auto a = std::make_shared<RecordArgs>();
    CLI::App* cmd = app.add_subcommand(
        "record", "Record a simulated session (--simulate) or capture files as one MCAP recording");
    AddCommon(cmd, a->common, "", false);
    cmd->add_option("--out", a->common.out, "The recording to write (.mcap)")->required();
    cmd->add_option("captures", a->captures, "Raw capture files, in capture order (one stream)");
    cmd->add_option("--simulate", a->scene, "Record a simulated session of a scene: wall, plane, boxes or sphere");
    cmd->add_option("--frames", a->frames, "Frames of the simulated session")->check(CLI::Range(1, 100000));
    cmd->add_option("--fps", a->fps, "Frame rate: capture k is taken k / fps seconds after the first")
        ->default_val(30)
        ->check(Within(0.01, 1000));
    cmd->add_option("--start-time", a->startNs, "Time of the first capture, ns since the epoch (default: now)");
    cmd->add_option("--stream", a->stream, "Stream of the simulated session: single, dual or binned")
        ->default_val("dual")
        ->check(CLI::IsMember({"single", "dual", "binned"}));
    cmd->add_option("--distance", a->distance, "Simulated scene distance, mm")
        ->default_val(2000)
        ->check(Within(qvsim::kDistanceRangeMm));
    cmd->add_option("--temperature", a->temperature, "Sensor temperature at the start, degrees C (it warms by 12)")
        ->default_val(25)
        ->check(Within(qvsim::kTemperatureRangeC));
    cmd->add_option("--noise", a->noise, "Noise per sample, sample units")->default_val(0)->check(Within(qvsim::kNoiseRange));
    cmd->add_option("--seed", a->seed, "Noise seed of the session (each frame derives its own)")->default_val(1);
    cmd->add_flag("--no-colour", a->noColour, "Leave the simulated colour frames out");
    cmd->add_option("--colour", a->colourFrames,
                    "NV12 1920x1080 colour frames for capture files: one for all, or one per capture in order");
    cmd->add_option("--compression", a->compression, "Chunk compression: none, lz4 or zstd")
        ->default_val("lz4")
        ->check(CLI::IsMember({"none", "lz4", "zstd"}));
    cmd->add_option("--level", a->level, "Compression level: lz4 0 (fast) to 12, zstd 1 to 19; 0 the default")
        ->default_val(0)
        ->check(CLI::Range(0, 19));
    return {cmd, [a] { return RunRecord(*a); }};
}

}  // namespace qvrecon
