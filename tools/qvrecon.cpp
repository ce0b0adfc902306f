// qvrecon: time-of-flight captures to depth, IR, point clouds and registered colour,
// without writing code. Sub-commands: simulate, depth, register, info, demo.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <set>

#include <CLI/CLI.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>

#include "calibration_file.h"
#include "demo.h"
#include "output_files.h"
#include "pipeline.h"
#include "simulator.h"

namespace fs = std::filesystem;
using namespace qvrecon;

namespace {

// A depth PNG of 640 x 480 16-bit pixels is at most a few megabytes, even uncompressed.
constexpr uint64_t kMaxDepthPngBytes = 64u << 20;

// A floating-point option inside [lo, hi]; NaN and infinities are refused.
CLI::Validator Within(double lo, double hi)
{
    const std::string range = "[" + CLI::detail::to_string(lo) + " - " + CLI::detail::to_string(hi) + "]";
    return CLI::Validator(
        [lo, hi, range](std::string& text) -> std::string {
            double v = 0;
            if (!CLI::detail::lexical_cast(text, v) || !(v >= lo && v <= hi))
                return "Value " + text + " not in range " + range;
            return "";
        },
        "FLOAT in " + range);
}

struct Common {
    std::string out;
    std::string calib;  // empty: the built-in sample module
    int device = 0;
};

void AddCommon(CLI::App* cmd, Common& c, const std::string& defaultOut, bool writes = true)
{
    if (writes)
        cmd->add_option("--out", c.out, "Output folder, created if missing")->default_val(defaultOut);
    cmd->add_option("--calib", c.calib, "Calibration file (YAML or JSON); the sample module if omitted");
    cmd->add_option("--device", c.device, "Device type: 1, 4, or 0 for the general module")
        ->default_val(0)
        ->check(CLI::IsMember({0, 1, 4}));
}

ModuleCalibration LoadCalibration(const Common& c)
{
    return c.calib.empty() ? SampleModule() : ReadCalibration(c.calib);
}

// A message as one line: line breaks become spaces.
std::string OneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

std::string In(const std::string& folder, const std::string& name) { return (fs::path(folder) / name).string(); }

cv::Mat DepthMat(uint16_t* depth, int width, int height)
{
    return cv::Mat(height, width, CV_16UC1, depth).clone();
}

// ---------------------------------------------------------------- simulate

struct SimulateArgs {
    Common common;
    std::string scene = "boxes", stream = "dual";
    double distance = 2000, tilt = 35, temperature = 25, noise = 0;
    int flip = 0;
    unsigned seed = 1;
    bool bright = false, dark = false;
};

qvsim::SceneKind ParseScene(const std::string& s)
{
    if (s == "wall") return qvsim::SceneKind::Wall;
    if (s == "plane") return qvsim::SceneKind::TiltedPlane;
    if (s == "boxes") return qvsim::SceneKind::Boxes;
    if (s == "sphere") return qvsim::SceneKind::Sphere;
    throw ToolError("unknown scene '" + s + "' (wall, plane, boxes or sphere)");
}

int RunSimulate(const SimulateArgs& a)
{
    const ModuleCalibration cal = LoadCalibration(a.common);
    const StreamKind kind = ParseStream(a.stream);
    qvsim::SceneSpec scene;
    scene.kind = ParseScene(a.scene);
    scene.distanceMm = a.distance;
    scene.tiltDeg = a.tilt;
    scene.brightPatch = a.bright;
    scene.darkPatch = a.dark;
    qvsim::CaptureSpec setup;
    setup.device = static_cast<qvapi::DeviceType>(a.common.device);
    setup.stream = Info(kind).type;
    setup.binned = kind == StreamKind::Binned;
    setup.flip = static_cast<qvapi::FlipMode>(a.flip);
    setup.temperatureC = a.temperature;
    setup.noiseSigma = a.noise;
    setup.seed = a.seed;
    EnsureFolder(a.common.out);

    const qvsim::Capture cap =
        qvsim::SimulateCapture(kind == StreamKind::Single ? cal.binned : cal.full, scene, setup);
    WriteBytes(In(a.common.out, "capture.raw"), cap.raw.data(), cap.raw.size() * 2);
    cv::Mat truth(cap.height, cap.width, CV_16UC1);
    for (size_t i = 0; i < cap.truthZ.size(); ++i)
        truth.at<uint16_t>(static_cast<int>(i)) = static_cast<uint16_t>(std::lround(std::min(cap.truthZ[i], 65535.0f)));
    WritePng(In(a.common.out, "truth_depth.png"), truth);
    SaveCalibration(In(a.common.out, "calibration.yaml"), cal);
    if (cal.full.rgbLens.fx != 0.0f) {
        const qvsim::ColourFrame colour = qvsim::RenderColour(cal.full, scene);
        WriteBytes(In(a.common.out, "colour.nv12"), colour.nv12.data(), colour.nv12.size());
    }
    std::printf("simulated a %s capture (%dx%d) of %s at %.0f mm into %s\n", Info(kind).name, cap.width,
                cap.height, a.scene.c_str(), a.distance, a.common.out.c_str());
    return 0;
}

// ---------------------------------------------------------------- depth

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

// The name each capture's outputs start with (OutputStem), made unique within the
// batch (x, x-2, x-3... in the order given), so that captures of the same name from
// different folders never overwrite each other's outputs.
std::vector<std::string> OutputStems(const std::vector<std::string>& captures)
{
    std::map<std::string, int> count;
    for (const std::string& path : captures)
        ++count[OutputStem(path)];
    std::set<std::string> taken;
    std::vector<std::string> stems;
    for (const std::string& path : captures) {
        const std::string stem = OutputStem(path);
        // A new name never takes another capture's own stem.
        std::string name = stem;
        for (int k = 2; taken.count(name) || (name != stem && count.count(name)); ++k)
            name = stem + "-" + std::to_string(k);
        taken.insert(name);
        stems.push_back(name);
    }
    return stems;
}

// A fresh amplitude threshold (5) is 0 after three halvings, and stays 0.
constexpr int kHalvingsToZero = 3;

// For each capture, how many times the serial run has halved the amplitude threshold
// before converting it: the binned captures right before a binned one, up to
// kHalvingsToZero (the stream's Init restores the threshold; other streams never halve it).
std::vector<int> ThresholdHalvings(const std::vector<StreamKind>& kinds)
{
    std::vector<int> halvings(kinds.size(), 0);
    for (size_t n = 1; n < kinds.size(); ++n)
        if (kinds[n] == StreamKind::Binned && kinds[n - 1] == StreamKind::Binned)
            halvings[n] = std::min(halvings[n - 1] + 1, kHalvingsToZero);
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

int RunDepth(const DepthArgs& a)
{
    const ModuleCalibration cal = LoadCalibration(a.common);
    const bool filter = a.filter == "on";
    if (!filter && a.filter != "off")
        throw ToolError("--filter takes on or off");
    if (a.range.size() != 2 || a.range[0] >= a.range[1])
        throw ToolError("--range takes two distances in mm, the smaller first");
    for (const std::string& o : a.outputs)
        if (o != "depth" && o != "colour" && o != "ir" && o != "ply")
            throw ToolError("unknown output '" + o + "' (depth, colour, ir, ply)");
    const auto wants = [&](const char* o) { return std::find(a.outputs.begin(), a.outputs.end(), o) != a.outputs.end(); };

    // Every input is checked before anything is written.
    std::vector<StreamKind> kinds;
    for (const std::string& path : a.captures) {
        const uint64_t bytes = RegularFileSize(path);
        const std::optional<StreamKind> found = StreamForBytes(bytes);
        if (a.stream == "auto") {
            if (!found)
                throw ToolError(path + ": " + std::to_string(bytes) + " bytes fit no stream (" + StreamSizes() + ")");
            kinds.push_back(*found);
        } else {
            const StreamKind k = ParseStream(a.stream);
            if (bytes != 2 * Info(k).words)
                throw ToolError(path + ": " + std::to_string(bytes) + " bytes, a " + a.stream + " capture has " +
                                std::to_string(2 * Info(k).words));
            kinds.push_back(k);
        }
    }
    constexpr uint64_t kNv12Bytes = 1920u * 1080u * 3u / 2u;
    if (!a.colourFrames.empty()) {
        if (a.colourFrames.size() != 1 && a.colourFrames.size() != a.captures.size())
            throw ToolError("--colour takes one NV12 frame for all captures or one per capture (" +
                            std::to_string(a.captures.size()) + "), not " + std::to_string(a.colourFrames.size()));
        if (!wants("ply"))
            throw ToolError("--colour colours the point clouds: ply must be among --outputs");
        for (size_t n = 0; n < a.captures.size(); ++n)
            if (Info(kinds[n]).width != 640 || Info(kinds[n]).height != 480)
                throw ToolError(a.captures[n] + ": registration takes 640x480 depth; a " + Info(kinds[n]).name +
                                " capture cannot be coloured");
        for (const std::string& frame : a.colourFrames)
            if (const uint64_t bytes = RegularFileSize(frame); bytes != kNv12Bytes)
                throw ToolError(frame + ": " + std::to_string(bytes) + " bytes, an NV12 1920x1080 frame has " +
                                std::to_string(kNv12Bytes));
    }
    const qvapi::RegistrationGeometry geometry = qvapi::DepthToColourGeometry(cal.full);
    const std::vector<std::string> stems = OutputStems(a.captures);
    EnsureFolder(a.common.out);

    // Every capture is converted as the serial run in the order given converts it, so
    // that any --jobs writes the same files. The serial run sets the instance up (Init)
    // for the first capture and again whenever the stream changes; each binned capture
    // halves the library's amplitude threshold until the next Init. So a binned capture
    // sees the threshold halved once for each binned capture right before it (since the
    // last capture of another stream), and the others see a fresh one.
    const std::vector<int> halvings = ThresholdHalvings(kinds);
    struct Worker {
        std::optional<StreamKind> configured;
        int halved = 0;  // binned frames since Init, up to kHalvingsToZero
        qvapi::Reconstruction* lib = nullptr;
    };
    const auto convert = [&](size_t n, Worker& w) -> CaptureTally {
        const StreamInfo& s = Info(kinds[n]);
        // A worker that skipped captures of the serial run catches up: Init, then as
        // many binned frames (of zeros: only their number counts) as the serial run had.
        if (w.configured != kinds[n] || w.halved > halvings[n]) {
            w.lib = &Configure(cal, static_cast<qvapi::DeviceType>(a.common.device), kinds[n]);
            w.configured = kinds[n];
            w.halved = 0;
        }
        qvapi::Reconstruction* lib = w.lib;
        if (w.halved < halvings[n]) {
            const std::vector<uint16_t> zeros(s.words, 0);
            for (; w.halved < halvings[n]; ++w.halved) {
                uint16_t* skipped = nullptr;
                const int32_t status = lib->CalculateDepth(zeros.data(), &skipped, s.width, s.height);
                delete[] skipped;
                if (status != qvapi::STATUS_OK)
                    throw ToolError(a.captures[n] + ": " + StatusText(status));
            }
        }
        if (kinds[n] == StreamKind::Binned)
            w.halved = std::min(w.halved + 1, kHalvingsToZero);
        lib->OpenFilter(filter);
        lib->SetFlipMode(static_cast<qvapi::FlipMode>(a.flip));
        const std::vector<uint8_t> bytes = ReadFile(a.captures[n], 2 * s.words);
        if (bytes.size() != 2 * s.words)
            throw ToolError(a.captures[n] + ": changed size while reading");
        std::vector<uint16_t> raw(s.words);
        std::memcpy(raw.data(), bytes.data(), bytes.size());

        uint16_t* out = nullptr;
        const int32_t status = lib->CalculateDepth(raw.data(), &out, s.width, s.height);
        if (status != qvapi::STATUS_OK)
            throw ToolError(a.captures[n] + ": " + StatusText(status));
        const cv::Mat depth = DepthMat(out, s.width, s.height);
        delete[] out;
        CaptureTally tally{static_cast<uint64_t>(cv::countNonZero(depth > 1)), depth.total()};

        const std::string stem = In(a.common.out, stems[n]);
        if (wants("depth"))
            WritePng(stem + "_depth.png", depth);
        if (wants("colour"))
            WritePng(stem + "_colour.png", FalseColourWithLegend(*lib, depth, a.range[0], a.range[1]));
        if (wants("ir")) {
            std::vector<uint16_t> ir(static_cast<size_t>(s.width) * s.height);
            lib->GetIR(raw.data(), ir.data(), s.width, s.height);
            WritePng(stem + "_ir.png", IrPicture(ir, s.width, s.height));
        }
        if (wants("ply")) {
            std::vector<float> cloud(3 * static_cast<size_t>(s.width) * s.height);
            const int32_t st = lib->GetCloudPoint(reinterpret_cast<const uint16_t*>(depth.data), cloud.data(),
                                                  s.width, s.height);
            if (st != qvapi::STATUS_OK)
                throw ToolError(a.captures[n] + ": " + StatusText(st));
            PlyOptions ply;
            ply.ascii = a.plyFormat == "ascii";
            ply.organised = a.plyLayout == "organised";
            ply.metres = a.plyUnits == "m";
            std::vector<uint8_t> colours;
            if (!a.colourFrames.empty()) {
                const std::string& frame = a.colourFrames[a.colourFrames.size() == 1 ? 0 : n];
                std::vector<uint8_t> nv12 = ReadFile(frame, kNv12Bytes);
                if (nv12.size() != kNv12Bytes)
                    throw ToolError(frame + ": changed size while reading");
                colours = PointColours(cloud, Register(*lib, depth, nv12).colourBgr, geometry);
            }
            WritePointCloud(stem + ".ply", cloud, s.width, s.height, ply, colours.empty() ? nullptr : &colours);
        }
        return tally;
    };

    Progress progress(a.captures.size());
    const auto start = std::chrono::steady_clock::now();
    size_t validPixels = 0, pixels = 0, done = 0;
    const auto finished = [&](size_t n, const CaptureTally& t) {
        validPixels += t.valid;
        pixels += t.pixels;
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        ++done;
        progress.Step(done, fs::path(a.captures[n]).filename().string(), done / std::max(seconds, 1e-9));
    };
    const size_t jobs = std::min(static_cast<size_t>(a.jobs), a.captures.size());
    if (jobs <= 1) {
        Worker w;
        for (size_t n = 0; n < a.captures.size(); ++n)
            finished(n, convert(n, w));
    } else if (Worker w; !RunInWorkers(jobs, a.captures.size(), [&](size_t n) { return convert(n, w); },
                                       finished)) {
        return 1;  // the worker that failed has said why
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%zu capture%s in %.2f s (%.1f per second), %.1f%% of pixels with depth; outputs in %s\n",
                a.captures.size(), a.captures.size() == 1 ? "" : "s", seconds, a.captures.size() / std::max(seconds, 1e-9),
                pixels ? 100.0 * validPixels / pixels : 0.0, a.common.out.c_str());
    return 0;
}

// ---------------------------------------------------------------- register

struct RegisterArgs {
    Common common;
    std::string depth, nv12;
    std::vector<int> range = {300, 4500};
};

int RunRegister(const RegisterArgs& a)
{
    const ModuleCalibration cal = LoadCalibration(a.common);
    if (a.range.size() != 2 || a.range[0] >= a.range[1])
        throw ToolError("--range takes two distances in mm, the smaller first");
    const std::vector<uint8_t> png = ReadFile(a.depth, kMaxDepthPngBytes);
    const cv::Mat depth = png.empty() ? cv::Mat() : cv::imdecode(png, cv::IMREAD_UNCHANGED);
    if (depth.empty() || depth.type() != CV_16UC1 || depth.cols != 640 || depth.rows != 480)
        throw ToolError(a.depth + ": expected a 16-bit 640x480 depth PNG");
    std::vector<uint8_t> nv12 = ReadFile(a.nv12, 1920u * 1080u * 3u / 2u);
    if (nv12.size() != 1920u * 1080u * 3u / 2u)
        throw ToolError(a.nv12 + ": " + std::to_string(nv12.size()) + " bytes, an NV12 1920x1080 frame has " +
                        std::to_string(1920 * 1080 * 3 / 2));
    if (cal.full.rgbLens.fx == 0.0f)
        std::fprintf(stderr, "qvrecon: the calibration has no colour lens; the factory geometry is used\n");
    EnsureFolder(a.common.out);

    qvapi::Reconstruction& lib = Configure(cal, static_cast<qvapi::DeviceType>(a.common.device), StreamKind::Dual);
    const Registration r = Register(lib, depth, nv12);
    const cv::Mat& registered = r.depth;
    const cv::Mat& bgr = r.colourBgr;
    WritePng(In(a.common.out, "registered_depth.png"), registered);
    WritePng(In(a.common.out, "colour.png"), bgr);
    WritePng(In(a.common.out, "overlay.png"), Overlay(lib, bgr, registered, a.range[0], a.range[1]));
    std::printf("registered %s onto %s: %d of %d colour pixels with depth; outputs in %s\n", a.depth.c_str(),
                a.nv12.c_str(), cv::countNonZero(registered), registered.cols * registered.rows, a.common.out.c_str());
    return 0;
}

// ---------------------------------------------------------------- info

void PrintLens(const char* name, const qvapi::Intrinsics& l)
{
    std::printf("    %-6s %4dx%-4d fx %8.2f fy %8.2f cx %7.2f cy %7.2f  k1 %+.4f k2 %+.4f p1 %+.5f p2 %+.5f k3 %+.4f\n",
                name, l.width, l.height, l.fx, l.fy, l.cx, l.cy, l.k1, l.k2, l.p1, l.p2, l.k3);
}

std::string Num(float v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", v);  // read back exactly
    return text;
}

// Open3D's PinholeCameraIntrinsic file (o3d.io.read_pinhole_camera_intrinsic): the
// camera matrix column by column.
std::string Open3dIntrinsic(const qvapi::Intrinsics& l)
{
    return "{\n  \"width\": " + std::to_string(l.width) + ",\n  \"height\": " + std::to_string(l.height) +
           ",\n  \"intrinsic_matrix\": [" + Num(l.fx) + ", 0, 0, 0, " + Num(l.fy) + ", 0, " + Num(l.cx) + ", " +
           Num(l.cy) + ", 1]\n}\n";
}

// ROS's camera_info YAML (camera_calibration_parsers): the lens with its plumb-bob
// distortion; the projection matrix is the camera matrix (no stereo rectification).
std::string RosCameraInfo(const std::string& name, const qvapi::Intrinsics& l)
{
    const std::string K = Num(l.fx) + ", 0, " + Num(l.cx) + ", 0, " + Num(l.fy) + ", " + Num(l.cy) + ", 0, 0, 1";
    const std::string P = Num(l.fx) + ", 0, " + Num(l.cx) + ", 0, 0, " + Num(l.fy) + ", " + Num(l.cy) + ", 0, 0, 0, 1, 0";
    return "image_width: " + std::to_string(l.width) + "\nimage_height: " + std::to_string(l.height) +
           "\ncamera_name: " + name + "\ncamera_matrix:\n  rows: 3\n  cols: 3\n  data: [" + K +
           "]\ndistortion_model: plumb_bob\ndistortion_coefficients:\n  rows: 1\n  cols: 5\n  data: [" + Num(l.k1) +
           ", " + Num(l.k2) + ", " + Num(l.p1) + ", " + Num(l.p2) + ", " + Num(l.k3) +
           "]\nrectification_matrix:\n  rows: 3\n  cols: 3\n  data: [1, 0, 0, 0, 1, 0, 0, 0, 1]\n"
           "projection_matrix:\n  rows: 3\n  cols: 4\n  data: [" + P + "]\n";
}

// The cameras' intrinsics as Open3D or ROS files, one per kind of image: depth.* (full
// stream, 640 x 480), depth_binned.* (binned read-outs of the dual-frequency stream:
// every other ray of the full grid), depth_single.* (single-frequency stream, from the
// binned record) and colour.* (when the record has a colour lens). Open3D's colour
// file describes the images registration returns: it writes a point at the pixel its
// projection falls in, so the principal point moves half a pixel and Open3D's ray
// through a pixel passes through its centre. ROS's files describe the cameras' raw
// images.
int WriteIntrinsics(const ModuleCalibration& cal, const Common& c, const std::string& format)
{
    const bool open3d = format == "open3d";
    qvapi::Intrinsics binned = cal.full.depthLens;
    binned.width /= 2;
    binned.height /= 2;
    binned.fx /= 2;
    binned.fy /= 2;
    binned.cx /= 2;
    binned.cy /= 2;
    std::vector<std::pair<std::string, qvapi::Intrinsics>> cameras = {
        {"depth", cal.full.depthLens}, {"depth_binned", binned}, {"depth_single", cal.binned.depthLens}};
    if (cal.full.rgbLens.fx != 0.0f) {
        qvapi::Intrinsics colour = cal.full.rgbLens;
        if (open3d) {
            colour.cx -= 0.5f;
            colour.cy -= 0.5f;
        }
        cameras.push_back({"colour", colour});
    } else {
        std::fprintf(stderr, "qvrecon: the calibration has no colour lens; no colour camera file\n");
    }
    // The files describe one calibration together: all are written, or none.
    std::vector<std::pair<std::string, std::string>> files;
    for (const auto& [name, lens] : cameras) {
        if (lens.width <= 0 || lens.height <= 0 || !(lens.fx > 0.0f) || !(lens.fy > 0.0f))
            throw ToolError("the " + name + " lens has no usable pinhole (" + std::to_string(lens.width) + "x" +
                            std::to_string(lens.height) + ", fx " + Num(lens.fx) + ", fy " + Num(lens.fy) + ")");
        files.emplace_back(In(c.out, name + (open3d ? ".json" : ".yaml")),
                           open3d ? Open3dIntrinsic(lens) : RosCameraInfo(name, lens));
    }
    EnsureFolder(c.out);
    WriteFiles(files);
    for (const auto& file : files)
        std::printf("%s\n", file.first.c_str());
    return 0;
}

int RunInfo(const Common& c, const std::string& format)
{
    const ModuleCalibration cal = LoadCalibration(c);
    if (format != "text")
        return WriteIntrinsics(cal, c, format);
    std::string version;
    qvapi::Reconstruction::CreateInstance()->GetAlgorithmVersion(version);
    std::printf("qvreconstruction %s\n", version.c_str());
    std::printf("calibration: %s\n", c.calib.empty() ? "built-in sample module" : c.calib.c_str());
    for (const auto* rec : {&cal.binned, &cal.full}) {
        std::printf("  %s record \"%s\"\n", rec == &cal.binned ? "binned" : "full", rec->label.c_str());
        PrintLens("depth", rec->depthLens);
        PrintLens("colour", rec->rgbLens);
        std::printf("    offsets %.3f / %.3f, wiggling tables %d / %d entries, registration values %d\n",
                    rec->depthOffsetF1, rec->depthOffsetF2, rec->tableCountF1, rec->tableCountF2, rec->vectorCount);
    }
    // The constants Init derives from the full record.
    const qvapi::CameraCalibrationParam& p = cal.full;
    const float offset1 = std::fabs(p.depthOffsetF1) < 100 ? p.depthOffsetF1 * 1000 : p.depthOffsetF1;
    std::printf("derived, full stream (640x480):   80 MHz range 1875 mm, 100 MHz range 1500 mm, combined 7500 mm\n");
    std::printf("derived, reduced stream (320x240): 40 MHz range 3750 mm\n");
    std::printf("offsets: first frequency %.1f mm%s, second %.1f mm\n", offset1,
                std::fabs(p.depthOffsetF1) < 100 ? " (given in metres)" : "", p.depthOffsetF2);
    std::printf("binning: %d (depth lens %d wide); wiggling steps %.2f / %.2f\n", p.depthLens.width == 320 ? 2 : 1,
                p.depthLens.width, p.tableCountF1 > 20 ? 0.02 : 0.01, p.tableCountF2 > 20 ? 0.02 : 0.01);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    InstallCleanupHandlers();
    CLI::App app{"qvrecon: time-of-flight captures to depth, IR, point clouds and registered colour"};
    app.require_subcommand(1);
    std::string version;
    qvapi::Reconstruction::CreateInstance()->GetAlgorithmVersion(version);
    app.set_version_flag("--version", "qvrecon " QVRECON_VERSION " (algorithms " + version + ")");

    SimulateArgs sim;
    CLI::App* simulate = app.add_subcommand("simulate", "Write a simulated capture of a built-in scene");
    AddCommon(simulate, sim.common, "capture");
    simulate->add_option("--scene", sim.scene, "wall, plane, boxes or sphere")->default_val("boxes");
    simulate->add_option("--distance", sim.distance, "Scene distance, mm")->default_val(2000)->check(Within(1, 65535));
    simulate->add_option("--tilt", sim.tilt, "Tilt of the plane scene, degrees")->default_val(35)->check(Within(-80, 80));
    simulate->add_option("--stream", sim.stream, "single, dual or binned")->default_val("dual");
    simulate->add_option("--flip", sim.flip, "Flip mode 0-3")->default_val(0)->check(CLI::Range(0, 3));
    simulate->add_option("--temperature", sim.temperature, "Sensor temperature, degrees C")->default_val(25)->check(Within(-40, 125));
    simulate->add_option("--noise", sim.noise, "Noise per sample, sample units")->default_val(0)->check(Within(0, 1000));
    simulate->add_option("--seed", sim.seed, "Noise seed")->default_val(1);
    simulate->add_flag("--bright", sim.bright, "Add a patch that saturates the sensor");
    simulate->add_flag("--dark", sim.dark, "Add a patch that returns no light");

    DepthArgs dep;
    CLI::App* depth = app.add_subcommand("depth", "Raw captures to depth, false colour, IR and point clouds");
    AddCommon(depth, dep.common, "depth");
    depth->add_option("captures", dep.captures, "Raw capture files")->required();
    depth->add_option("--stream", dep.stream, "auto (from the file size), single, dual or binned")->default_val("auto");
    depth->add_option("--filter", dep.filter, "Median and edge filter: on or off")->default_val("on");
    depth->add_option("--flip", dep.flip, "Flip mode 0-3")->default_val(0)->check(CLI::Range(0, 3));
    depth->add_option("--range", dep.range, "Distance range of the false colour, mm")
        ->expected(2)
        ->default_str("300 4500")
        ->check(CLI::Range(0, 65535));
    depth->add_option("--outputs", dep.outputs, "Outputs to write: depth colour ir ply")->default_str("depth colour ir ply");
    depth->add_option("--jobs", dep.jobs, "Worker processes converting captures side by side")
        ->default_val(1)
        ->check(CLI::Range(1, 256));
    depth->add_option("--ply-format", dep.plyFormat, "Point clouds as binary (little-endian) or ascii PLY")
        ->default_val("binary")
        ->check(CLI::IsMember({"binary", "ascii"}));
    depth->add_option("--ply-layout", dep.plyLayout,
                      "points: only pixels with depth; organised: every pixel row by row, NaN without depth")
        ->default_val("points")
        ->check(CLI::IsMember({"points", "organised"}));
    depth->add_option("--ply-units", dep.plyUnits, "Point coordinates in mm or m")
        ->default_val("mm")
        ->check(CLI::IsMember({"mm", "m"}));
    depth->add_option("--colour", dep.colourFrames,
                      "NV12 1920x1080 colour frames (one for all captures, or one per capture in order): "
                      "point clouds get each point's colour through registration");

    RegisterArgs reg;
    CLI::App* registerCmd = app.add_subcommand("register", "Register a depth image onto an NV12 colour frame");
    AddCommon(registerCmd, reg.common, "registered");
    registerCmd->add_option("depth", reg.depth, "16-bit 640x480 depth PNG")->required();
    registerCmd->add_option("nv12", reg.nv12, "1920x1080 NV12 colour frame")->required();
    registerCmd->add_option("--range", reg.range, "Distance range of the overlay colours, mm")
        ->expected(2)
        ->default_str("300 4500")
        ->check(CLI::Range(0, 65535));

    Common infoArgs;
    std::string infoFormat = "text";
    CLI::App* info = app.add_subcommand("info", "Library version, calibration summary and derived constants");
    AddCommon(info, infoArgs, "intrinsics");
    info->add_option("--format", infoFormat,
                     "text: a summary on the terminal; open3d or ros: the cameras' intrinsics as files in --out "
                     "(Open3D's PinholeCameraIntrinsic JSON, ROS camera_info YAML)")
        ->default_val("text")
        ->check(CLI::IsMember({"text", "open3d", "ros"}));

    DemoArgs demoArgs;
    CLI::App* demo = app.add_subcommand("demo", "Simulate a scene and run the whole pipeline on it");
    demo->add_option("--out", demoArgs.out, "Output folder, created if missing")->default_val("qvrecon-demo");
    demo->add_option("--calib", demoArgs.calib, "Calibration file; the sample module if omitted");

    // Exit codes: 0 done, 1 a run that failed, 2 a command line that cannot be run.
    // Every failure is one line on stderr.
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "qvrecon: %s (see qvrecon --help)\n", OneLine(e.what()).c_str());
        return 2;
    }
    try {
        if (*simulate)
            return RunSimulate(sim);
        if (*depth)
            return RunDepth(dep);
        if (*registerCmd)
            return RunRegister(reg);
        if (*info)
            return RunInfo(infoArgs, infoFormat);
        if (*demo)
            return RunDemo(demoArgs);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qvrecon: %s\n", OneLine(e.what()).c_str());
        return 1;
    }
    return 1;
}
