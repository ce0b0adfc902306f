// The viewer's per-client encoding of one frame (tools/viewer/encoding.h): the full
// capture with sensor noise and its colour frame, as the server keeps them, encoded
// for one client's options. No reference beside it: the figure is the cost itself.
#include "bench_support.h"

#include <cstring>

#include <opencv2/imgproc.hpp>

#include "encoding.h"

namespace {

using qvrecon::viewer::FrameImages;

FrameImages ViewerFrame()
{
    qvbench::Scene s(qvapi::STREAM_DUAL_FREQ, false);
    const int w = s.cap.width, h = s.cap.height;
    std::vector<uint16_t> depth = s.Depth(), ir(depth.size());
    FrameImages f;
    f.depth = cv::Mat(h, w, CV_16UC1, depth.data()).clone();
    s.r->GetIR(s.cap.raw.data(), ir.data(), w, h);
    cv::Mat(h, w, CV_16UC1, ir.data()).convertTo(f.ir, CV_8UC1);
    uint8_t* rgb = nullptr;
    s.r->Convert2RGB(&rgb, depth.data(), w, h);
    cv::cvtColor(cv::Mat(h, w, CV_8UC3, rgb), f.falseColour, cv::COLOR_RGB2BGR);
    delete[] rgb;
    qvsim::SceneSpec scene;
    scene.kind = qvsim::SceneKind::Boxes;
    std::vector<uint8_t> nv12 = qvsim::RenderColour(s.r->m_secondParam, scene).nv12;
    uint16_t* entry = new uint16_t[depth.size()];
    std::memcpy(entry, depth.data(), depth.size() * sizeof(uint16_t));
    uint8_t* colour = nullptr;
    int cw = 0, ch = 0;
    if (s.r->MapDepthToRGB(&colour, &entry, nv12.data(), 1920, 1080, cw, ch) == qvapi::STATUS_OK) {
        f.registered = cv::Mat(ch, cw, CV_16UC1, entry).clone();
        f.colour = cv::Mat(ch, cw, CV_8UC3, colour).clone();
    }
    delete[] colour;
    delete[] entry;
    return f;
}

// Arguments: the decimation and the blobs (bit i: kBlobNames[i]).
void ViewerEncode(benchmark::State& state)
{
    const FrameImages f = ViewerFrame();
    if (f.colour.empty()) {
        state.SkipWithError("no registration of the simulated frame");
        return;
    }
    const int decimate = static_cast<int>(state.range(0));
    const uint32_t blobs = static_cast<uint32_t>(state.range(1));
    size_t bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        for (const qvrecon::viewer::Blob& b : qvrecon::viewer::EncodeBlobs(f, decimate, blobs))
            bytes += b.bytes.size();
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["KB"] = static_cast<double>(bytes) / 1000.0;
}
// Depth, false colour and IR at decimation 2; every blob at 2; every blob at full size.
BENCHMARK(ViewerEncode)->Name("ViewerEncodeLight/fast")->Args({2, 0b00111})->Unit(benchmark::kMillisecond);
BENCHMARK(ViewerEncode)->Name("ViewerEncodeHalf/fast")->Args({2, 0b11111})->Unit(benchmark::kMillisecond);
BENCHMARK(ViewerEncode)->Name("ViewerEncodeFull/fast")->Args({1, 0b11111})->Unit(benchmark::kMillisecond);

}  // namespace
