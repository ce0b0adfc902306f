// qvrecon depth: raw captures to depth, false colour, IR and point clouds, in one
// process or in worker processes that write the files of the serial run.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>

#include "command_line.h"
#include "depth_inputs.h"
#include "output_files.h"
#include "pipeline.h"
#include "processed_recording.h"

namespace qvrecon {
namespace {

namespace fs = std::filesystem;

cv::Mat DepthMat(uint16_t* depth, int width, int height)
{
    return cv::Mat(height, width, CV_16UC1, depth).clone();
}

struct DepthArgs {
    Common common;
    std::vector<std::string> captures;
    std::string stream = "auto", filter = "on";
    int flip = 0;
    std::vector<int> range = {300, 4500};
    std::vector<std::string> outputs = {"depth", "colour", "ir", "ply"};
    std::string plyFormat = "binary", plyLayout = "points", plyUnits = "mm";
    std::vector<std::string> colourFrames;  // NV12: one for all captures, or one each
    int jobs = 1;
    FrameSelection selection;
    std::string format = "files";
    bool deviceGiven = false;
};

// Progress on a terminal as a bar, elsewhere as plain lines.
class Progress {
public:
    explicit Progress(size_t total) : total_(total), tty_(isatty(fileno(stderr)) != 0) {}
    void Step(size_t done, const std::string& name, double fps)
    {
        if (tty_) {
            const int width = 30, filled = static_cast<int>(width * done / total_);
            std::fprintf(stderr, "\r[%s%s] %zu/%zu %6.1f fps  %-32.32s", std::string(filled, '#').c_str(),
                         std::string(width - filled, '.').c_str(), done, total_, fps, name.c_str());
            if (done == total_)
                std::fprintf(stderr, "\n");
        } else {
            std::fprintf(stderr, "%zu/%zu %s %.1f fps\n", done, total_, name.c_str(), fps);
        }
    }

private:
    size_t total_;
    bool tty_;
};

// A fresh amplitude threshold (5) is 0 after three halvings, and stays 0.
constexpr int kHalvingsToZero = 3;

// For each capture, how many times the serial run has halved the amplitude threshold
// before converting it: the binned captures before it since the stream last changed,
// up to kHalvingsToZero. Binned and full captures are frames of one stream and share
// one Init, as in a live session; a change between the single-frequency and the full
// stream is a new Init, which restores the threshold.
std::vector<int> ThresholdHalvings(const std::vector<StreamKind>& kinds)
{
    std::vector<int> halvings(kinds.size(), 0);
    int binned = 0;
    for (size_t n = 0; n < kinds.size(); ++n) {
        if (n > 0 && Info(kinds[n]).type != Info(kinds[n - 1]).type)
            binned = 0;
        halvings[n] = binned;
        if (kinds[n] == StreamKind::Binned)
            binned = std::min(binned + 1, kHalvingsToZero);
    }
    return halvings;
}

// What one capture gave: pixels with depth, and pixels.
struct CaptureTally {
    uint64_t valid = 0, pixels = 0;
};

// Converts captures 0 .. count - 1 in `jobs` worker processes (the library keeps one
// instance per process), worker k taking captures k, k + jobs, ...: `convert(n)` runs
// in a worker, `finished(n, tally)` in this process as each capture completes. A
// worker that fails prints its one line and the others are stopped (their signal
// handlers remove any file half written); the result is then false. A cleanup signal
// to this process stops the workers too (InstallCleanupHandlers).
bool RunInWorkers(size_t jobs, size_t count, const std::function<CaptureTally(size_t)>& convert,
                  const std::function<void(size_t, const CaptureTally&)>& finished)
{
    struct Record {
        uint64_t index;  // kFailed: the worker failed
        CaptureTally tally;
    };
    constexpr uint64_t kFailed = ~uint64_t{0};
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        throw ToolError(std::string("cannot start workers (") + std::strerror(errno) + ")");
    std::fflush(stdout);
    std::fflush(stderr);
    std::vector<pid_t> workers;
    const auto stopAll = [&]() {
        for (pid_t w : workers)
            kill(w, SIGTERM);
    };
    for (size_t k = 0; k < jobs; ++k) {
        const pid_t pid = ForkWorker();
        if (pid < 0) {
            const int error = errno;
            stopAll();
            close(fds[0]);
            close(fds[1]);
            for (pid_t w : workers)
                ReapWorker(w);
            throw ToolError(std::string("cannot start workers (") + std::strerror(error) + ")");
        }
        if (pid == 0) {
            close(fds[0]);
            cv::setNumThreads(1);  // the workers share the cores
            int code = 0;
            try {
                for (size_t n = k; n < count; n += jobs) {
                    const Record r{n, convert(n)};
                    if (write(fds[1], &r, sizeof r) != static_cast<ssize_t>(sizeof r))
                        throw ToolError("lost the connection to the tool");
                }
            } catch (const std::exception& e) {
                std::fprintf(stderr, "qvrecon: %s\n", OneLine(e.what()).c_str());
                const Record r{kFailed, {}};
                (void)!write(fds[1], &r, sizeof r);
                code = 1;
            }
            std::fflush(stdout);
            std::fflush(stderr);
            _exit(code);
        }
        workers.push_back(pid);
    }
    close(fds[1]);
    bool failed = false;
    Record r{};
    for (;;) {
        const ssize_t got = read(fds[0], &r, sizeof r);
        if (got < 0 && errno == EINTR)
            continue;
        if (got != static_cast<ssize_t>(sizeof r))
            break;  // every worker has ended
        if (r.index == kFailed) {
            if (!failed)
                stopAll();
            failed = true;
        } else if (!failed) {
            finished(static_cast<size_t>(r.index), r.tally);
        }
    }
    close(fds[0]);
    for (pid_t w : workers) {
        const int status = ReapWorker(w);
        failed = failed || status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    }
    return !failed;
}

// The calibration and device of the run: --calib and --device when given, otherwise
// those the recordings carry (all the same), otherwise the sample module and 0.
ModuleCalibration RunCalibration(const DepthArgs& a, const DepthInputs& in, qvapi::DeviceType& device)
{
    device = static_cast<qvapi::DeviceType>(a.common.device);
    for (size_t k = 0; k < in.recordings.size(); ++k) {
        const qvapi::RecordingReader& r = *in.recordings[k];
        if (!a.deviceGiven && r.Device() != in.recordings[0]->Device())
            throw ToolError(in.recordingPaths[k] + ": recorded with device " + std::to_string(r.Device()) + ", " +
                            in.recordingPaths[0] + " with " + std::to_string(in.recordings[0]->Device()) +
                            "; give --device");
        if (a.common.calib.empty() && r.CalibrationYaml() != in.recordings[0]->CalibrationYaml())
            throw ToolError(in.recordingPaths[k] + ": its calibration differs from " + in.recordingPaths[0] +
                            "'s; give --calib");
    }
    if (!a.common.calib.empty() || in.recordings.empty())
        return LoadCalibration(a.common);
    if (!a.deviceGiven)
        device = in.recordings[0]->Device();
    const std::string& yaml = in.recordings[0]->CalibrationYaml();
    if (yaml.empty())
        throw ToolError(in.recordingPaths[0] + ": no calibration attached; give --calib");
    return qvapi::ParseCalibrationText(yaml, in.recordingPaths[0] + " (its calibration)");
}

int RunDepth(const DepthArgs& a)
{
    const bool filter = a.filter == "on";
    if (!filter && a.filter != "off")
        throw ToolError("--filter takes on or off");
    if (a.range.size() != 2 || a.range[0] >= a.range[1])
        throw ToolError("--range takes two distances in mm, the smaller first");
    for (const std::string& o : a.outputs)
        if (o != "depth" && o != "colour" && o != "ir" && o != "ply")
            throw ToolError("unknown output '" + o + "' (depth, colour, ir, ply)");
    const auto wants = [&](const char* o) { return std::find(a.outputs.begin(), a.outputs.end(), o) != a.outputs.end(); };
    if (a.selection.every == 0)
        throw ToolError("--every takes 1 or more");
    if (a.selection.end && *a.selection.end < a.selection.start)
        throw ToolError("--end comes before --start");
    const bool mcap = a.format == "mcap";

    // Every input is checked before anything is written.
    DepthInputs inputs = ExpandInputs(a.captures, a.selection, a.stream);
    const std::vector<DepthInput>& captures = inputs.captures;
    if (inputs.recordings.empty() && (a.selection.start != 0 || a.selection.end || a.selection.every != 1))
        throw ToolError("--start, --end and --every select frames of recordings; no recording was given");
    if (mcap && (a.captures.size() != 1 || inputs.recordings.size() != 1))
        throw ToolError("--format mcap converts one recording into one processed recording");
    if (mcap && a.jobs > 1)
        throw ToolError("--format mcap writes one recording in order: --jobs 1");
    qvapi::DeviceType device = qvapi::DEVICE_GENERIC;
    const ModuleCalibration cal = RunCalibration(a, inputs, device);
    constexpr uint64_t kNv12Bytes = 1920u * 1080u * 3u / 2u;
    if (!a.colourFrames.empty()) {
        if (!inputs.recordings.empty())
            throw ToolError("--colour goes with capture files; a recording's frames bring their own colour");
        if (a.colourFrames.size() != 1 && a.colourFrames.size() != captures.size())
            throw ToolError("--colour takes one NV12 frame for all captures or one per capture (" +
                            std::to_string(captures.size()) + "), not " + std::to_string(a.colourFrames.size()));
        if (!wants("ply"))
            throw ToolError("--colour colours the point clouds: ply must be among --outputs");
        for (const DepthInput& c : captures)
            if (Info(c.kind).width != 640 || Info(c.kind).height != 480)
                throw ToolError(c.path + ": registration takes 640x480 depth; a " + Info(c.kind).name +
                                " capture cannot be coloured");
        for (const std::string& frame : a.colourFrames)
            if (const uint64_t bytes = RegularFileSize(frame); bytes != kNv12Bytes)
                throw ToolError(frame + ": " + std::to_string(bytes) + " bytes, an NV12 1920x1080 frame has " +
                                std::to_string(kNv12Bytes));
    }
    const qvapi::RegistrationGeometry geometry = qvapi::DepthToColourGeometry(cal.full);
    const bool canRegister = cal.full.rgbLens.fx != 0.0f;
    EnsureFolder(a.common.out);
    std::unique_ptr<ProcessedRecording> processed;
    if (mcap) {
        const std::string path = In(a.common.out, OutputStem(a.captures[0]) + "_processed.mcap");
        std::error_code ec;
        if (fs::equivalent(path, a.captures[0], ec))
            throw ToolError(path + ": the processed recording would replace the recording it comes from");
        const qvapi::RecordingReader& source = *inputs.recordings[0];
        qvapi::RecordingSetup setup;
        setup.device = device;
        setup.stream = source.Stream();
        setup.moduleLabel = cal.full.label;
        setup.calibrationYaml = qvapi::CalibrationText(cal, false);
        processed = std::make_unique<ProcessedRecording>(path, setup, cal);
    }

    // Every capture is converted as the serial run in the order given converts it, so
    // that any --jobs writes the same files. The serial run sets the instance up (Init)
    // for the first capture and again whenever the stream changes (single-frequency or
    // full; binned captures are frames of the full stream); each binned capture halves
    // the library's amplitude threshold until the next Init, for every later capture.
    std::vector<StreamKind> kinds;
    for (const DepthInput& c : captures)
        kinds.push_back(c.kind);
    const std::vector<int> halvings = ThresholdHalvings(kinds);
    struct Worker {
        std::optional<qvapi::StreamType> configured;
        int halved = 0;  // binned frames since Init, up to kHalvingsToZero
        qvapi::Reconstruction* lib = nullptr;
    };
    const auto convert = [&](size_t n, Worker& w) -> CaptureTally {
        const StreamInfo& s = Info(kinds[n]);
        const std::string& name = captures[n].name;
        // A worker that skipped captures of the serial run catches up: Init, then as
        // many binned frames (of zeros: only their number counts) as the serial run had.
        if (w.configured != s.type || w.halved > halvings[n]) {
            w.lib = &Configure(cal, device, kinds[n]);
            w.configured = s.type;
            w.halved = 0;
        }
        qvapi::Reconstruction* lib = w.lib;
        if (w.halved < halvings[n]) {
            const StreamInfo& b = Info(StreamKind::Binned);
            const std::vector<uint16_t> zeros(b.words, 0);
            for (; w.halved < halvings[n]; ++w.halved) {
                uint16_t* skipped = nullptr;
                const int32_t status = lib->CalculateDepth(zeros.data(), &skipped, b.width, b.height);
                delete[] skipped;
                if (status != qvapi::STATUS_OK)
                    throw ToolError(name + ": " + StatusText(status));
            }
        }
        if (kinds[n] == StreamKind::Binned)
            w.halved = std::min(w.halved + 1, kHalvingsToZero);
        lib->OpenFilter(filter);
        lib->SetFlipMode(static_cast<qvapi::FlipMode>(a.flip));
        qvapi::RecordedFrame frame = ReadCapture(inputs, n);
        std::vector<uint16_t>& raw = frame.words;

        uint16_t* out = nullptr;
        const int32_t status = lib->CalculateDepth(raw.data(), &out, s.width, s.height);
        if (status != qvapi::STATUS_OK)
            throw ToolError(name + ": " + StatusText(status));
        Products p;
        p.depth = DepthMat(out, s.width, s.height);
        delete[] out;
        CaptureTally tally{static_cast<uint64_t>(cv::countNonZero(p.depth > 1)), p.depth.total()};

        // The colour frame of this capture: --colour's, or the one recorded with it.
        std::vector<uint8_t> nv12;
        if (!a.colourFrames.empty()) {
            const std::string& file = a.colourFrames[a.colourFrames.size() == 1 ? 0 : n];
            nv12 = ReadFile(file, kNv12Bytes);
            if (nv12.size() != kNv12Bytes)
                throw ToolError(file + ": changed size while reading");
        } else if (frame.hasColour && frame.colourWidth == 1920 && frame.colourHeight == 1080 &&
                   frame.nv12.size() == kNv12Bytes && s.width == 640 && s.height == 480 && canRegister) {
            nv12 = frame.nv12;
        }
        if (wants("ir") || mcap) {
            p.ir.resize(static_cast<size_t>(s.width) * s.height);
            lib->GetIR(raw.data(), p.ir.data(), s.width, s.height);
        }
        if (wants("ply") || mcap) {
            p.cloud.resize(3 * static_cast<size_t>(s.width) * s.height);
            const int32_t st = lib->GetCloudPoint(reinterpret_cast<const uint16_t*>(p.depth.data), p.cloud.data(),
                                                  s.width, s.height);
            if (st != qvapi::STATUS_OK)
                throw ToolError(name + ": " + StatusText(st));
        }
        if (!nv12.empty() && (mcap || wants("ply")))
            p.registration = Register(*lib, p.depth, nv12);
        if (mcap) {
            processed->Add(frame, kinds[n], p);
            return tally;
        }

        const std::string stem = In(a.common.out, captures[n].stem);
        if (wants("depth"))
            WritePng(stem + "_depth.png", p.depth);
        if (wants("colour"))
            WritePng(stem + "_colour.png", FalseColourWithLegend(*lib, p.depth, a.range[0], a.range[1]));
        if (wants("ir"))
            WritePng(stem + "_ir.png", IrPicture(p.ir, s.width, s.height));
        if (wants("ply")) {
            PlyOptions ply;
            ply.ascii = a.plyFormat == "ascii";
            ply.organised = a.plyLayout == "organised";
            ply.metres = a.plyUnits == "m";
            std::vector<uint8_t> colours;
            if (p.registration)
                colours = PointColours(p.cloud, p.registration->colourBgr, geometry);
            WritePointCloud(stem + ".ply", p.cloud, s.width, s.height, ply, colours.empty() ? nullptr : &colours);
        }
        return tally;
    };

    Progress progress(captures.size());
    const auto start = std::chrono::steady_clock::now();
    size_t validPixels = 0, pixels = 0, done = 0;
    const auto finished = [&](size_t n, const CaptureTally& t) {
        validPixels += t.valid;
        pixels += t.pixels;
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        ++done;
        progress.Step(done, fs::path(captures[n].name).filename().string(), done / std::max(seconds, 1e-9));
    };
    const size_t jobs = std::min(static_cast<size_t>(a.jobs), captures.size());
    if (jobs <= 1) {
        Worker w;
        for (size_t n = 0; n < captures.size(); ++n)
            finished(n, convert(n, w));
    } else if (Worker w; !RunInWorkers(jobs, captures.size(), [&](size_t n) { return convert(n, w); },
                                       finished)) {
        return 1;  // the worker that failed has said why
    }
    if (processed)
        processed->Close();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%zu capture%s in %.2f s (%.1f per second), %.1f%% of pixels with depth; outputs in %s\n",
                captures.size(), captures.size() == 1 ? "" : "s", seconds, captures.size() / std::max(seconds, 1e-9),
                pixels ? 100.0 * validPixels / pixels : 0.0, a.common.out.c_str());
    return 0;
}

}  // namespace

Command AddDepthCommand(CLI::App& app)
{
    const auto a = std::make_shared<DepthArgs>();
    CLI::App* cmd = app.add_subcommand("depth", "Raw captures or recordings to depth, false colour, IR and point clouds");
    AddCommon(cmd, a->common, "depth");
    cmd->add_option("captures", a->captures,
                    "Raw capture files and recordings (.mcap); a recording's frame n writes NAME_00000n_*")
        ->required();
    cmd->add_option("--start", a->selection.start, "First frame of each recording (from 0)")->default_val(0);
    cmd->add_option("--end", a->selection.end, "Last frame of each recording, included (default: its last)");
    cmd->add_option("--every", a->selection.every, "Every Nth frame of each recording from --start")
        ->default_val(1)
        ->check(CLI::PositiveNumber);
    cmd->add_option("--format", a->format,
                    "files: pictures and point clouds; mcap: one processed recording NAME_processed.mcap in --out "
                    "(captures, depth, IR, points, registered depth, camera infos)")
        ->default_val("files")
        ->check(CLI::IsMember({"files", "mcap"}));
    cmd->add_option("--stream", a->stream, "auto (from the file size), single, dual or binned")->default_val("auto");
    cmd->add_option("--filter", a->filter, "Median and edge filter: on or off")->default_val("on");
    cmd->add_option("--flip", a->flip, "Flip mode 0-3")->default_val(0)->check(CLI::Range(0, 3));
    cmd->add_option("--range", a->range, "Distance range of the false colour, mm")
        ->expected(2)
        ->default_str("300 4500")
        ->check(CLI::Range(0, 65535));
    cmd->add_option("--outputs", a->outputs, "Outputs to write: depth colour ir ply")->default_str("depth colour ir ply");
    cmd->add_option("--jobs", a->jobs, "Worker processes converting captures side by side")
        ->default_val(1)
        ->check(CLI::Range(1, 256));
    cmd->add_option("--ply-format", a->plyFormat, "Point clouds as binary (little-endian) or ascii PLY")
        ->default_val("binary")
        ->check(CLI::IsMember({"binary", "ascii"}));
    cmd->add_option("--ply-layout", a->plyLayout,
                    "points: only pixels with depth; organised: every pixel row by row, NaN without depth")
        ->default_val("points")
        ->check(CLI::IsMember({"points", "organised"}));
    cmd->add_option("--ply-units", a->plyUnits, "Point coordinates in mm or m")
        ->default_val("mm")
        ->check(CLI::IsMember({"mm", "m"}));
    cmd->add_option("--colour", a->colourFrames,
                    "NV12 1920x1080 colour frames (one for all captures, or one per capture in order): "
                    "point clouds get each point's colour through registration");
    return {cmd, [a, cmd] {
                a->deviceGiven = cmd->count("--device") > 0;
                return RunDepth(*a);
            }};
}

}  // namespace qvrecon
