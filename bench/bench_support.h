// Shared pieces of the benchmarks: simulated inputs and the stream-read baseline.
//
// Every frame operation is timed three ways, named <Operation>/fast (what the library
// runs), <Operation>/reference (the plain scalar kernels the tests compare against)
// and <Operation>/stream_read (reading the operation's input once, the memory
// bound). The report at the end of a run puts the three side by side.
#ifndef QV_BENCH_SUPPORT_H
#define QV_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "reconstruction_impl.h"
#include "simd/targets.h"
#include "sample_calibration.h"
#include "simulator.h"

namespace qvbench {

// Reads `bytes` bytes once with wide loads, as an operation at memory speed would.
inline void StreamRead(benchmark::State& state, const void* data, size_t bytes)
{
    const uint64_t* p = static_cast<const uint64_t*>(data);
    const size_t n = bytes / sizeof(uint64_t);
    for (auto _ : state) {
        uint64_t a = 0, b = 0, c = 0, d = 0;
        for (size_t i = 0; i + 3 < n; i += 4) {
            a += p[i];
            b += p[i + 1];
            c += p[i + 2];
            d += p[i + 3];
        }
        benchmark::DoNotOptimize(a + b + c + d);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

// An initialised instance and a simulated capture of boxes in front of a wall.
struct Scene {
    std::unique_ptr<qvapi::ReconstructionImpl> r = std::make_unique<qvapi::ReconstructionImpl>();
    qvsim::Capture cap;

    Scene(qvapi::StreamType stream, bool binned)
    {
        r->SetType(qvapi::DEVICE_GENERIC, stream);
        const auto small = qvsim::SampleBinnedCalibration();
        r->Init(small, stream == qvapi::STREAM_SINGLE_FREQ ? small : qvsim::SampleCalibration());
        qvsim::SceneSpec scene;
        scene.kind = qvsim::SceneKind::Boxes;
        qvsim::CaptureSpec setup;
        setup.stream = stream;
        setup.binned = binned;
        setup.noiseSigma = 1.0;
        cap = qvsim::SimulateCapture(r->m_secondParam, scene, setup);
    }

    // A filtered depth frame of the capture.
    std::vector<uint16_t> Depth()
    {
        uint16_t* d = nullptr;
        r->OpenFilter(true);
        r->CalculateDepth(cap.raw.data(), &d, cap.width, cap.height);
        std::vector<uint16_t> out(d, d + static_cast<size_t>(cap.width) * cap.height);
        delete[] d;
        return out;
    }
};

}  // namespace qvbench

#endif
