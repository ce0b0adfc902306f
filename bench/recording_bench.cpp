// Recordings: writing and reading full-stream raw captures (dual frequency, 640 x 480,
// simulated boxes with sensor noise) and depth images, for each compression. Reports
// MB/s of message data, frames/s and the compression ratio (message bytes / file bytes).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <qvreconstruction/recording.h>

#include "sample_calibration.h"
#include "simulator.h"

namespace {

constexpr int kFrames = 8;

const std::vector<std::vector<uint16_t>>& Captures()
{
    static const std::vector<std::vector<uint16_t>> captures = [] {
        std::vector<std::vector<uint16_t>> out;
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        for (int i = 0; i < kFrames; ++i) {
            qvsim::CaptureSpec setup;
            setup.noiseSigma = 4.0;
            setup.seed = static_cast<uint32_t>(i + 1);
            out.push_back(qvsim::SimulateCapture(qvsim::SampleCalibration(), scene, setup).raw);
        }
        return out;
    }();
    return captures;
}

// The library's depth of the same captures: what a processed recording holds.
const std::vector<std::vector<uint16_t>>& Depths()
{
    static const std::vector<std::vector<uint16_t>> depths = [] {
        qvapi::Reconstruction* r = qvapi::Reconstruction::CreateInstance();
        r->SetType(qvapi::DEVICE_GENERIC, qvapi::STREAM_DUAL_FREQ);
        r->Init(qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration());
        std::vector<std::vector<uint16_t>> out;
        for (const std::vector<uint16_t>& raw : Captures()) {
            uint16_t* d = nullptr;
            if (r->CalculateDepth(raw.data(), &d, 640, 480) != qvapi::STATUS_OK)
                std::abort();
            out.emplace_back(d, d + 640 * 480);
            delete[] d;
        }
        return out;
    }();
    return depths;
}

std::string Path() { return "/tmp/qv_recording_bench_" + std::to_string(::getpid()) + ".mcap"; }

// The compression of the benchmark's arguments, replacing any file of a former run.
qvapi::RecordingOptions OptionsOf(const benchmark::State& state)
{
    qvapi::RecordingOptions options;
    options.compression = static_cast<qvapi::RecordingCompression>(state.range(0));
    options.level = static_cast<int>(state.range(1));
    options.overwrite = true;
    return options;
}

struct Written {
    double fileBytes = 0, messageBytes = 0;
};

// Writes `count` frames to `path`, the simulated captures in turn (or their depth
// images), 30 a second.
Written WriteFrames(benchmark::State& state, const std::string& path, int count, bool depth)
{
    const auto& frames = depth ? Depths() : Captures();
    qvapi::RecordingWriter w;
    qvapi::RecordingSetup setup;
    setup.algorithmVersion = "bench";
    if (!w.Open(path, setup, OptionsOf(state)).ok()) state.SkipWithError("open");
    for (int i = 0; i < count; ++i) {
        const std::vector<uint16_t>& frame = frames[i % kFrames];
        const uint64_t t = 33333333ull * static_cast<uint64_t>(i + 1);
        qvapi::RecordingStatus s;
        if (depth) {
            s = w.WriteImage(qvapi::ProcessedImage::Depth, t, frame.data(), 640, 480);
        } else {
            qvapi::CaptureFrame c;
            c.width = 640;
            c.height = 480;
            c.words = frame.data();
            c.wordCount = frame.size();
            c.timeNs = t;
            s = w.WriteCapture(c);
        }
        if (!s.ok()) state.SkipWithError(s.message.c_str());
    }
    if (!w.Close().ok()) state.SkipWithError("close");
    return {static_cast<double>(w.FileBytes()), static_cast<double>(w.MessageBytes())};
}

void Rates(benchmark::State& state, const Written& written)
{
    state.SetBytesProcessed(static_cast<int64_t>(written.messageBytes) * state.iterations());
    state.counters["frames/s"] = benchmark::Counter(kFrames * static_cast<double>(state.iterations()),
                                                    benchmark::Counter::kIsRate);
    state.counters["ratio"] = written.messageBytes / written.fileBytes;
}

void Write(benchmark::State& state, bool depth)
{
    Written written;
    for (auto _ : state)
        written = WriteFrames(state, Path(), kFrames, depth);
    std::remove(Path().c_str());
    Rates(state, written);
}

void Read(benchmark::State& state)
{
    const Written written = WriteFrames(state, Path(), kFrames, false);
    for (auto _ : state) {
        qvapi::RecordingReader r;
        if (!r.Open(Path()).ok()) state.SkipWithError("open");
        qvapi::RecordedFrame f;
        while (r.Next(f).ok()) benchmark::DoNotOptimize(f.words.data());
    }
    std::remove(Path().c_str());
    Rates(state, written);
}

// One seek to a frame and its read: the index look-up and one chunk's decompression,
// whatever the frame (chunks of about one capture here, the default 4 MiB).
void SeekAndRead(benchmark::State& state)
{
    const std::string path = Path();
    WriteFrames(state, path, 4 * kFrames, false);
    qvapi::RecordingReader r;
    if (!r.Open(path).ok()) state.SkipWithError("open");
    qvapi::RecordedFrame f;
    uint64_t k = 0;
    for (auto _ : state) {
        k = (k * 7 + 5) % (4 * kFrames);  // frames in no order
        if (!r.SeekFrame(k).ok() || !r.Next(f).ok()) state.SkipWithError("seek");
        benchmark::DoNotOptimize(f.words.data());
    }
    std::remove(path.c_str());
}

void Compressions(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"compression", "level"});
    b->Args({0, 0})->Args({1, 0})->Args({2, 1})->Args({2, 3})->Unit(benchmark::kMillisecond);
}

void WriteCaptures(benchmark::State& state) { Write(state, false); }
void WriteDepth(benchmark::State& state) { Write(state, true); }

}  // namespace

BENCHMARK(WriteCaptures)->Apply(Compressions);
BENCHMARK(WriteDepth)->Apply(Compressions);
BENCHMARK(Read)->Apply(Compressions);
BENCHMARK(SeekAndRead)->Apply(Compressions);
