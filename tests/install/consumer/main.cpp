// Built against the installed package only: the instance, and the shipped sample
// calibration read with the calibration library and accepted by Init.
#include <cstdio>
#include <string>

#include <qvreconstruction/calibration_file.h>
#include <qvreconstruction/filter_module.h>
#include <qvreconstruction/logger.h>
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
    return version == "v0.1.3_202207301328" && status == qvapi::STATUS_OK && cal.full.depthLens.fx > 0 ? 0 : 1;
}
