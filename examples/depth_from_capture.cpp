// Depth from a raw full-stream capture and a module's calibration file:
//
//   qv_depth_from_capture CALIBRATION CAPTURE OUT.pgm
//
// CALIBRATION is a calibration file (YAML or JSON, such as the installed
// share/qvreconstruction/sample_calibration.yaml); CAPTURE holds one raw frame of the
// dual-frequency stream (640 x 480 pixels, 16 little-endian 16-bit words a pixel, as
// `qvrecon simulate --stream dual` writes it). The depth image is written as a 16-bit
// PGM in millimetres. Build it against the installed package with
//   find_package(qvreconstruction)
//   target_link_libraries(app qvreconstruction::qvreconstruction qvreconstruction::calibration)
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include <qvreconstruction/calibration_file.h>
#include <qvreconstruction/reconstruction.h>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s CALIBRATION CAPTURE OUT.pgm\n", argv[0]);
        return 2;
    }
    const int width = 640, height = 480;
    qvapi::ModuleCalibration calibration;
    try {
        calibration = qvapi::ReadCalibration(argv[1]);
    } catch (const qvapi::CalibrationError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }

    std::ifstream in(argv[2], std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t words = size_t{16} * width * height;
    if (!in.good() && !in.eof()) {
        std::fprintf(stderr, "%s: cannot read\n", argv[2]);
        return 1;
    }
    if (bytes.size() != 2 * words) {
        std::fprintf(stderr, "%s: %zu bytes, a full-stream capture has %zu\n", argv[2], bytes.size(), 2 * words);
        return 1;
    }
    std::vector<uint16_t> raw(words);
    for (size_t i = 0; i < words; ++i)
        raw[i] = static_cast<uint16_t>(static_cast<uint8_t>(bytes[2 * i]) | static_cast<uint8_t>(bytes[2 * i + 1]) << 8);

    qvapi::Reconstruction* recon = qvapi::Reconstruction::CreateInstance();
    recon->SetType(qvapi::DEVICE_GENERIC, qvapi::STREAM_DUAL_FREQ);
    if (const int status = recon->Init(calibration.binned, calibration.full); status != qvapi::STATUS_OK) {
        std::fprintf(stderr, "Init: status %d\n", status);
        return 1;
    }
    uint16_t* depth = nullptr;
    if (const int status = recon->CalculateDepth(raw.data(), &depth, width, height); status != qvapi::STATUS_OK) {
        std::fprintf(stderr, "CalculateDepth: status %d\n", status);
        return 1;
    }
    const std::unique_ptr<uint16_t[]> owned(depth);  // the caller frees the image

    std::ofstream out(argv[3], std::ios::binary);
    out << "P5\n" << width << " " << height << "\n65535\n";
    size_t valid = 0;
    for (int i = 0; i < width * height; ++i) {
        const char be[2] = {static_cast<char>(depth[i] >> 8), static_cast<char>(depth[i] & 0xFF)};
        out.write(be, 2);
        valid += depth[i] > 1;  // 0 and 1 mark pixels without depth
    }
    out.close();
    if (!out) {
        std::fprintf(stderr, "%s: cannot write\n", argv[3]);
        return 1;
    }
    std::printf("%s: %zu of %d pixels with depth, %u mm at the centre\n", argv[3], valid, width * height,
                depth[(height / 2) * width + width / 2]);
    return valid > 0 ? 0 : 1;
}
