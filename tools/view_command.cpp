// qvrecon view: a viewer in the browser, served by the tool. A source (a simulated
// scene, a recording or capture files) goes through the library on a pipeline
// thread; one network thread serves the page, the API and the frame stream.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include "command_line.h"
#include "output_files.h"
#include "viewer/frame_pipeline.h"
#include "viewer/server.h"
#include "viewer/sources.h"

namespace qvrecon {
namespace {

namespace fs = std::filesystem;

struct ViewArgs {
    Common common;
    std::string simulate;
    std::vector<std::string> inputs;  // a recording, or capture files
    std::string listen = "127.0.0.1:8080";
    std::string assets, recordDir = ".", calibB;
    bool readOnly = false, token = false;
    double fps = 30;
    int frames = 24;
};

// --assets, else the build tree's page, else the installed one beside the binary.
std::string FindAssets(const std::string& given)
{
    if (!given.empty()) {
        if (!fs::is_directory(given))
            throw ToolError("--assets: " + given + " is not a folder");
        return given;
    }
#ifdef QV_VIEWER_BUILD_ASSETS
    if (fs::is_regular_file(fs::path(QV_VIEWER_BUILD_ASSETS) / "index.html"))
        return QV_VIEWER_BUILD_ASSETS;
#endif
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    const fs::path installed = self.parent_path().parent_path() / "share" / "qvreconstruction" / "viewer";
    if (!ec && fs::is_regular_file(installed / "index.html"))
        return installed.string();
    throw ToolError("the viewer's page is not installed (" + installed.string() + "); give --assets DIR");
}

int RunView(const ViewArgs& a)
{
    using namespace viewer;
    ServerOptions server;
    ParseListen(a.listen, server.host, server.port);
    server.assets = FindAssets(a.assets);
    server.readOnly = a.readOnly;
    server.alwaysToken = a.token;
    const auto device = static_cast<qvapi::DeviceType>(a.common.device);
    // Read as --calib reads its file; the page can choose it for B, never name another.
    std::optional<ModuleCalibration> calibrationB;
    if (!a.calibB.empty())
        calibrationB = ReadCalibration(a.calibB);

    std::unique_ptr<Source> source;
    if (!a.simulate.empty()) {
        if (!a.inputs.empty())
            throw ToolError("--simulate takes no recording or captures besides");
        SimulateOptions sim;
        sim.scene = a.simulate;
        sim.frames = a.frames;
        source = SimulatedSource(sim, LoadCalibration(a.common), device);
    } else if (a.inputs.size() == 1 && fs::path(a.inputs[0]).extension() == ".mcap") {
        std::optional<ModuleCalibration> calibration;
        if (!a.common.calib.empty())
            calibration = LoadCalibration(a.common);
        source = RecordingSource(a.inputs[0], calibration);
    } else if (!a.inputs.empty()) {
        for (const std::string& in : a.inputs)
            if (fs::path(in).extension() == ".mcap")
                throw ToolError(in + ": one recording at a time, without captures");
        source = CaptureSource(a.inputs, LoadCalibration(a.common), device);
    } else {
        throw ToolError("give a source: --simulate SCENE, a recording (.mcap) or capture files");
    }

    PipelineOptions options;
    options.fps = a.fps;
    options.recordDir = a.recordDir;
    options.calibrationB = std::move(calibrationB);
    Pipeline pipeline(std::move(source), options);
    boost::asio::io_context io(1);
    Server http(io, pipeline, server);
    pipeline.Start([&http](std::shared_ptr<const EncodedFrame> frame) { http.Publish(std::move(frame)); },
                   [&http] { http.FrameProcessed(); });
    // The pipeline's threads hand frames to the server: on every way out of this scope,
    // an exception too, they stop before the server is destroyed.
    struct StopPipeline {
        Pipeline& pipeline;
        ~StopPipeline() { pipeline.Stop(); }
    } stopFirst{pipeline};

    // Ctrl-C (and SIGTERM, SIGHUP) end the viewer cleanly: a recording is finished and named.
    boost::asio::signal_set signals(io, SIGINT, SIGTERM, SIGHUP);
    signals.async_wait([&](const boost::system::error_code& ec, int) {
        if (!ec)
            io.stop();
    });
    std::printf("qvrecon view: %s\n", http.Url().c_str());
    std::fflush(stdout);
    io.run();
    pipeline.Stop();
    const nlohmann::json recording = pipeline.RecordingStatus();
    if (recording["active"].get<bool>()) {
        const std::string error = pipeline.Record({{"action", "stop"}});
        if (!error.empty())
            throw ToolError(error);
        std::fprintf(stderr, "qvrecon view: recorded %s\n", pipeline.RecordingStatus()["path"].get<std::string>().c_str());
    }
    return 0;
}

}  // namespace

Command AddViewCommand(CLI::App& app)
{
    const auto a = std::make_shared<ViewArgs>();
    CLI::App* cmd = app.add_subcommand("view", "Serve a viewer of live depth, IR, colour and points to a browser");
    AddCommon(cmd, a->common, "", false);
    cmd->add_option("inputs", a->inputs, "A recording (.mcap) or raw capture files");
    cmd->add_option("--simulate", a->simulate, "Show a simulated scene: wall, plane, boxes or sphere");
    cmd->add_option("--frames", a->frames, "Frames of the simulated loop")->default_val(24)->check(CLI::Range(1, 1000));
    cmd->add_option("--fps", a->fps, "Frames a second of simulations and captures")->default_val(30)->check(Within(0.1, 120));
    cmd->add_option("--listen", a->listen, "HOST:PORT to serve on; port 0 takes a free one")->default_val("127.0.0.1:8080");
    cmd->add_option("--assets", a->assets, "The page's folder (default: the installed page)");
    cmd->add_option("--calib-b", a->calibB, "A second calibration file, for B of the A/B comparison");
    cmd->add_option("--record-dir", a->recordDir, "Where the page's recordings go")->default_val(".");
    cmd->add_flag("--read-only", a->readOnly, "Refuse every change of settings, playback and recording");
    cmd->add_flag("--token", a->token, "Ask for the access token even on loopback (always asked elsewhere)");
    return {cmd, [a] { return RunView(*a); }};
}

}  // namespace qvrecon
