// Built against the installed package only: the instance, and the shipped sample
// calibration read with the calibration library and accepted by Init.
#include <cstdio>
#include <string>
#include <vector>

#include <qvreconstruction/calibration_file.h>
#include <qvreconstruction/filter_module.h>
#include <qvreconstruction/logger.h>
#include <qvreconstruction/recording.h>
#include <qvreconstruction/reconstruction.h>

int main(int argc, char** argv)
{
    qvapi::Reconstruction* recon = qvapi::Reconstruction::CreateInstance();
    if (recon == nullptr || recon != qvapi::Reconstruction::CreateInstance() || argc != 2)
        return 1;
    std::string version;
    recon->GetAlgorithmVersion(version);
    std::printf("installed library reports %s\n", version.c_str());
    qvapi::ModuleCalibration cal;
    try {
        cal = qvapi::ReadCalibration(argv[1]);
        qvapi::ParseCalibrationText("full: {fx: 1}", "bad.yaml");
        return 1;  // an unknown field must be refused
    } catch (const qvapi::CalibrationError& e) {
        std::printf("refused as expected: %s\n", e.what());
    }
    recon->SetType(qvapi::DEVICE_GENERIC, qvapi::STREAM_DUAL_FREQ);
    const int status = recon->Init(cal.binned, cal.full);
    std::printf("Init with the shipped calibration -> %d\n", status);
    // A recording of one capture, read back through the installed recording library.
    const std::string path = std::string(argv[1]) + ".consumer.mcap";
    std::remove(path.c_str());
    std::vector<uint16_t> words(16 * 8 * 6, 7);
    qvapi::CaptureFrame capture;
    capture.width = 8;
    capture.height = 6;
    capture.words = words.data();
    capture.wordCount = words.size();
    capture.timeNs = 5;
    qvapi::RecordingWriter writer;
    qvapi::RecordingSetup setup;
    setup.calibrationYaml = qvapi::CalibrationText(cal, false);
    qvapi::RecordedFrame frame;
    qvapi::RecordingReader reader;
    const bool recorded = writer.Open(path, setup, {}).ok() && writer.WriteCapture(capture).ok() &&
                          writer.Close().ok() && reader.Open(path).ok() && reader.Next(frame).ok() &&
                          frame.words == words && reader.CalibrationYaml() == setup.calibrationYaml;
    std::remove(path.c_str());
    std::printf("recording round trip: %s\n", recorded ? "same words and calibration" : "FAILED");
    return recorded && version == "v0.1.3_202207301328" && status == qvapi::STATUS_OK && cal.full.depthLens.fx > 0 ? 0 : 1;
}
