// Seeds for fuzz_recording: small recordings of simulated-size captures, one per
// compression, and the same cut short and without their summary.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <qvreconstruction/recording.h>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const qvapi::RecordingCompression kinds[] = {qvapi::RecordingCompression::None, qvapi::RecordingCompression::Lz4,
                                                 qvapi::RecordingCompression::Zstd};
    int n = 0;
    for (qvapi::RecordingCompression kind : kinds) {
        const std::string path = dir + "/seed" + std::to_string(n++) + ".mcap";
        std::remove(path.c_str());
        qvapi::RecordingWriter w;
        qvapi::RecordingSetup setup;
        setup.stream = qvapi::STREAM_SINGLE_FREQ;
        setup.calibrationYaml = "full: {}\n";
        setup.algorithmVersion = "seed";
        qvapi::RecordingOptions options;
        options.compression = kind;
        options.chunkBytes = 300;
        if (!w.Open(path, setup, options).ok()) return 1;
        std::vector<uint16_t> words(4 * 4 * 3);
        std::vector<uint8_t> nv12(4 * 2 * 3 / 2, 9);
        for (int i = 0; i < 6; ++i) {
            for (size_t k = 0; k < words.size(); ++k) words[k] = static_cast<uint16_t>(k * 31 + i);
            qvapi::CaptureFrame c;
            c.stream = qvapi::STREAM_SINGLE_FREQ;
            c.width = 4;
            c.height = 3;
            c.words = words.data();
            c.wordCount = words.size();
            c.timeNs = 1000u * static_cast<uint64_t>(i);
            c.sequence = static_cast<uint64_t>(i);
            if (!w.WriteCapture(c).ok() || !w.WriteColour(c.timeNs + 1, nv12.data(), 4, 2).ok()) return 1;
        }
        if (!w.Close().ok()) return 1;
        std::ifstream in(path, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        const std::string bytes = ss.str();
        std::ofstream(dir + "/seed" + std::to_string(n++) + "_cut.mcap", std::ios::binary)
            << bytes.substr(0, bytes.size() * 2 / 3);
    }
    return 0;
}
