// Seed corpora from the simulator: captures of every stream (with the harness's header),
// the sample calibration as YAML and JSON, and small depth images for the toolkit.
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "sample_calibration.h"
#include "simulator.h"

namespace {

void Write(const std::string& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
}

template <typename T>
void Put(std::vector<uint8_t>& b, T v)
{
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
    b.insert(b.end(), p, p + sizeof v);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_make_seeds DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    int n = 0;
    // The reduced and binned streams (320 x 240): small seeds keep the fuzzer fast; the
    // header's sizes reach the full stream's frames too.
    for (int stream = 1; stream < 3; ++stream) {
        qvsim::CaptureSpec setup;
        setup.stream = stream == 1 ? qvapi::STREAM_SINGLE_FREQ : qvapi::STREAM_DUAL_FREQ;
        setup.binned = stream == 2;
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        scene.brightPatch = scene.darkPatch = true;
        const auto cal = stream == 1 ? qvsim::SampleBinnedCalibration() : qvsim::SampleCalibration();
        const qvsim::Capture cap = qvsim::SimulateCapture(cal, scene, setup);
        std::vector<uint8_t> b;
        Put<uint8_t>(b, 0);                                   // device
        Put<uint8_t>(b, static_cast<uint8_t>(stream == 1));   // stream
        Put<uint8_t>(b, 0);                                   // flip
        Put<uint8_t>(b, 2);                                   // filter on
        Put<int16_t>(b, static_cast<int16_t>(cap.width));
        Put<int16_t>(b, static_cast<int16_t>(cap.height));
        Put<int8_t>(b, 5);                                    // threshold
        const uint8_t* raw = reinterpret_cast<const uint8_t*>(cap.raw.data());
        b.insert(b.end(), raw, raw + cap.raw.size() * 2);
        Write(dir + "/frames/seed" + std::to_string(n++), b);
    }
    for (const char* ext : {".yaml", ".json"}) {
        const std::string path = dir + "/sample" + ext;
        cv::FileStorage fs(path, cv::FileStorage::WRITE);
        const auto c = qvsim::SampleCalibration();
        fs << "full" << "{" << "label" << c.label << "depthLens" << "{" << "fx" << c.depthLens.fx
           << "width" << c.depthLens.width << "}" << "tableCountF1" << c.tableCountF1 << "tableF1"
           << "[:" << c.tableF1[0] << c.tableF1[1] << "]" << "}";
        fs.release();
        std::ifstream in(path, std::ios::binary);
        std::vector<uint8_t> b{static_cast<uint8_t>(std::string(ext) == ".json")};
        b.insert(b.end(), std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        Write(dir + "/calibration/seed" + ext, b);
        std::remove(path.c_str());
    }
    for (int op = 0; op < 11; ++op) {
        std::vector<uint8_t> b{static_cast<uint8_t>(op), 24, 16, 0};
        Put<int16_t>(b, 2);
        Put<int16_t>(b, 30);
        Put<uint8_t>(b, 32);
        Put<uint16_t>(b, 320);
        for (int i = 0; i < 24 * 16; ++i)
            Put<uint16_t>(b, static_cast<uint16_t>(1500 + (i % 24 < 12 ? 0 : 800) + (i * 7) % 23));
        Write(dir + "/toolkit/seed" + std::to_string(op), b);
    }
    std::printf("seeds written to %s\n", dir.c_str());
    return 0;
}
