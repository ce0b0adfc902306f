// Built against the installed package only.
#include <cstdio>
#include <string>

#include <qvreconstruction/filter_module.h>
#include <qvreconstruction/logger.h>
#include <qvreconstruction/reconstruction.h>

int main()
{
    qvapi::Reconstruction* recon = qvapi::Reconstruction::CreateInstance();
    if (recon == nullptr || recon != qvapi::Reconstruction::CreateInstance())
        return 1;
    std::string version;
    recon->GetAlgorithmVersion(version);
    std::printf("installed library reports %s\n", version.c_str());
    return version == "v0.1.3_202207301328" ? 0 : 1;
}
