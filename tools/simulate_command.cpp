// qvrecon simulate: a simulated capture of a built-in scene, with its truth, its
// calibration and a colour frame.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include <opencv2/core.hpp>

#include "command_line.h"
#include "output_files.h"
#include "pipeline.h"
#include "simulator.h"

namespace qvrecon {
namespace {

struct SimulateArgs {
    Common common;
    std::string scene = "boxes", stream = "dual";
    double distance = 2000, tilt = 35, temperature = 25, noise = 0;
    int flip = 0;
    unsigned seed = 1;
    bool bright = false, dark = false;
};

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

}  // namespace

Command AddSimulateCommand(CLI::App& app)
{
    const auto a = std::make_shared<SimulateArgs>();
    CLI::App* cmd = app.add_subcommand("simulate", "Write a simulated capture of a built-in scene");
    AddCommon(cmd, a->common, "capture");
    cmd->add_option("--scene", a->scene, "wall, plane, boxes or sphere")->default_val("boxes");
    cmd->add_option("--distance", a->distance, "Scene distance, mm")->default_val(2000)->check(Within(qvsim::kDistanceRangeMm));
    cmd->add_option("--tilt", a->tilt, "Tilt of the plane scene, degrees")->default_val(35)->check(Within(qvsim::kTiltRangeDeg));
    cmd->add_option("--stream", a->stream, "single, dual or binned")->default_val("dual");
    cmd->add_option("--flip", a->flip, "Flip mode 0-3")->default_val(0)->check(CLI::Range(int(qvsim::kFlipRange.lo), int(qvsim::kFlipRange.hi)));
    cmd->add_option("--temperature", a->temperature, "Sensor temperature, degrees C")->default_val(25)->check(Within(qvsim::kTemperatureRangeC));
    cmd->add_option("--noise", a->noise, "Noise per sample, sample units")->default_val(0)->check(Within(qvsim::kNoiseRange));
    cmd->add_option("--seed", a->seed, "Noise seed")->default_val(1);
    cmd->add_flag("--bright", a->bright, "Add a patch that saturates the sensor");
    cmd->add_flag("--dark", a->dark, "Add a patch that returns no light");
    return {cmd, [a] { return RunSimulate(*a); }};
}

}  // namespace qvrecon
