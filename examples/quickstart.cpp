// Smallest useful program: create the instance, configure it and print what it
// reports. Build it against the installed package with
//   find_package(qvreconstruction) + target_link_libraries(app qvreconstruction::qvreconstruction)
#include <cstdio>
#include <string>

#include <qvreconstruction/reconstruction.h>

int main()
{
    qvapi::Reconstruction* recon = qvapi::Reconstruction::CreateInstance();

    std::string version;
    recon->GetAlgorithmVersion(version);
    std::printf("qvreconstruction %s\n", version.c_str());

    recon->SetType(qvapi::DEVICE_GENERIC, qvapi::STREAM_DUAL_FREQ);
    recon->SetFlipMode(qvapi::FLIP_NONE);
    recon->SetCustomDistanceRange(300, 4000);

    int minMm = 0, maxMm = 0, customMin = 0, customMax = 0;
    bool filter = false;
    recon->GetDistanceRange(minMm, maxMm);
    recon->GetCustomDistanceRange(customMin, customMax);
    recon->GetFilterStatu(filter);
    std::printf("device range    %d..%d mm\n", minMm, maxMm);
    std::printf("custom range    %d..%d mm\n", customMin, customMax);
    std::printf("post-filters    %s\n", filter ? "on" : "off");

    // A frame operation before Init is refused and touches nothing.
    uint16_t* depth = nullptr;
    const int status = recon->CalculateDepth(nullptr, &depth, 640, 480);
    std::printf("CalculateDepth before Init -> %d (%s)\n", status,
                status == qvapi::STATUS_NOT_INITIALIZED ? "not initialised" : "unexpected");
    return status == qvapi::STATUS_NOT_INITIALIZED ? 0 : 1;
}
