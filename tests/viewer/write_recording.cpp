// Writes the viewer tests' inputs: N simulated full-stream captures of a boxes scene
// at different distances, each as a raw file (capture_K.raw, for `qvrecon depth`) and
// all of them, with a colour frame each, as one recording (session.mcap); and a
// recording of binned and full frames of a scene with a dark patch (mixed.mcap), whose
// depth depends on the binned frames before each; and a second calibration of the
// module whose distances are 30 mm longer (calib_b.yaml, B of the A/B comparison).
// With --session-only, session.mcap alone (the browser tests' recording).
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <qvreconstruction/recording.h>

#include "calibration_file.h"
#include "simulator.h"

int main(int argc, char** argv)
{
    const bool sessionOnly = argc == 4 && std::string(argv[3]) == "--session-only";
    if (argc != 3 && !sessionOnly) {
        std::fprintf(stderr, "usage: %s FOLDER FRAMES [--session-only]\n", argv[0]);
        return 2;
    }
    const std::string folder = argv[1];
    const int frames = std::atoi(argv[2]);
    const qvapi::ModuleCalibration cal = qvrecon::SampleModule();
    qvapi::ModuleCalibration other = cal;
    other.binned.depthOffsetF1 += 0.03f;  // metres, as the sample module gives it
    other.full.depthOffsetF1 += 0.03f;
    qvapi::WriteCalibration(folder + "/calib_b.yaml", other);
    qvapi::RecordingSetup setup;
    setup.calibrationYaml = qvapi::CalibrationText(cal, false);
    qvapi::RecordingWriter writer;
    qvapi::RecordingStatus st = writer.Open(folder + "/session.mcap", setup, {});
    for (int k = 0; st.ok() && k < frames; ++k) {
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        scene.distanceMm = 1500.0 + 250.0 * k;
        qvsim::CaptureSpec sensor;
        sensor.noiseSigma = 3.0;  // the filter then has something to change
        sensor.seed = static_cast<uint32_t>(k + 1);
        sensor.temperatureC = 30.0 + k;
        const qvsim::Capture cap = qvsim::SimulateCapture(cal.full, scene, sensor);
        if (!sessionOnly)
            std::ofstream(folder + "/capture_" + std::to_string(k) + ".raw", std::ios::binary)
                .write(reinterpret_cast<const char*>(cap.raw.data()), static_cast<std::streamsize>(cap.raw.size() * 2));
        qvapi::CaptureFrame c;
        c.width = cap.width;
        c.height = cap.height;
        c.words = cap.raw.data();
        c.wordCount = cap.raw.size();
        c.timeNs = 1000000000ull + 33333333ull * static_cast<uint64_t>(k);
        c.sequence = static_cast<uint64_t>(k);
        c.temperatureC = static_cast<float>(sensor.temperatureC);
        st = writer.WriteCapture(c);
        if (st.ok()) {
            const qvsim::ColourFrame colour = qvsim::RenderColour(cal.full, scene);
            st = writer.WriteColour(c.timeNs, colour.nv12.data(), colour.width, colour.height);
        }
    }
    if (st.ok())
        st = writer.Close();
    qvapi::RecordingWriter mixed;
    if (st.ok() && !sessionOnly)
        st = mixed.Open(folder + "/mixed.mcap", setup, {});
    const bool binned[] = {true, false, true, true, false};
    for (int k = 0; st.ok() && !sessionOnly && k < 5; ++k) {
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        scene.darkPatch = true;  // amplitudes between the halved thresholds
        qvsim::CaptureSpec sensor;
        sensor.noiseSigma = 3.0;
        sensor.seed = static_cast<uint32_t>(k + 1);
        sensor.binned = binned[k];
        const qvsim::Capture cap = qvsim::SimulateCapture(cal.full, scene, sensor);
        qvapi::CaptureFrame c;
        c.width = cap.width;
        c.height = cap.height;
        c.words = cap.raw.data();
        c.wordCount = cap.raw.size();
        c.timeNs = 1000000000ull + 33333333ull * static_cast<uint64_t>(k);
        c.sequence = static_cast<uint64_t>(k);
        st = mixed.WriteCapture(c);
    }
    if (st.ok() && !sessionOnly)
        st = mixed.Close();
    if (!st.ok()) {
        std::fprintf(stderr, "%s\n", st.message.c_str());
        return 1;
    }
    return 0;
}
