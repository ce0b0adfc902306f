// Raw frames of random sizes, with the sample calibration or a perturbed one, into every
// frame operation of one instance. The harness passes buffers as large as the sizes it
// claims, so any access outside them is the library's.
#include <algorithm>
#include <vector>

#include "fuzz_input.h"
#include "reconstruction_impl.h"
#include "simd/targets.h"
#include "sample_calibration.h"

using namespace qvapi;

namespace {

ReconstructionImpl& Instance()
{
    static ReconstructionImpl r;
    return r;
}

// Fills a calibration field from the input: a float that may be anything at all.
void Perturb(FuzzInput& in, CameraCalibrationParam& c)
{
    c.depthLens.fx = in.Take<float>();
    c.depthLens.fy = in.Take<float>();
    c.depthLens.cx = in.Take<float>();
    c.depthLens.k1 = in.Take<float>();
    c.rgbLens.fx = in.Take<float>();
    c.rgbLens.cy = in.Take<float>();
    c.depthOffsetF1 = in.Take<float>();
    c.depthOffsetF2 = in.Take<float>();
    c.tableCountF1 = in.Take<int16_t>();
    c.tableCountF2 = in.Take<int16_t>();
    c.tableF1[in.Take<uint8_t>()] = in.Take<float>();
    c.fppnF2[in.Take<uint8_t>() % 6] = in.Take<float>();
    c.extrinsics[in.Take<uint8_t>() % 12] = in.Take<float>();
    c.vectorCount = in.Take<int16_t>();
    c.vector[in.Take<uint8_t>() % 8] = in.Take<float>();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in{data, size};
    const uint8_t device = in.Take<uint8_t>(), streamByte = in.Take<uint8_t>();
    const uint8_t flip = in.Take<uint8_t>(), flags = in.Take<uint8_t>();
    const int w = in.Take<int16_t>() % 700, h = in.Take<int16_t>() % 520;
    const int32_t threshold = in.Take<int8_t>();

    static int lastKey = -1;
    ReconstructionImpl& r = Instance();
    const DeviceType dev = static_cast<DeviceType>(device % 6);
    const StreamType stream = streamByte & 1 ? STREAM_SINGLE_FREQ : static_cast<StreamType>(streamByte >> 1);
    const int key = (device % 6) * 2 + (streamByte & 1);
    if (flags & 1 || key != lastKey) {
        r.SetType(dev, stream);
        CameraCalibrationParam full = stream == STREAM_SINGLE_FREQ ? qvsim::SampleBinnedCalibration()
                                                                   : qvsim::SampleCalibration();
        CameraCalibrationParam binned = qvsim::SampleBinnedCalibration();
        if (flags & 1)
            Perturb(in, full);
        r.Init(binned, full);
        lastKey = flags & 1 ? -1 : key;
    }
    r.SetFlipMode(static_cast<FlipMode>(flip % 6));
    r.OpenFilter(flags & 2);
    r.m_amplitudeThreshold = threshold;
    qvapi::SetFastPathsEnabled(!(flags & 4));

    // A frame of the claimed size (four planes, the largest layout), from the input.
    const size_t pixels = w > 0 && h > 0 ? size_t(w) * h : 0;
    std::vector<uint16_t> raw(std::max<size_t>(16 * pixels, 192));
    for (size_t i = 0; i < raw.size() && in.RestSize() >= 2; ++i)
        raw[i] = in.Take<uint16_t>();

    uint16_t* depth = nullptr;
    if (r.CalculateDepth(raw.data(), &depth, w, h) == STATUS_OK) {
        std::vector<float> cloud(3 * pixels);
        r.GetCloudPoint(depth, cloud.data(), w, h);
        uint8_t* rgb = nullptr;
        r.Convert2RGB(&rgb, depth, w, h);
        delete[] rgb;
        delete[] depth;
    }
    // DoubleFreqDepth reads a frame of the last depth image's size.
    std::vector<uint16_t> last(4 * size_t(std::max(r.m_width, 0)) * std::max(r.m_height, 0) + 192, 300);
    std::copy(raw.begin(), raw.begin() + std::min(raw.size(), last.size()), last.begin());
    uint16_t* again = nullptr;
    int dw = 0, dh = 0;
    if (r.DoubleFreqDepth(last.data(), last.data(), &again, dw, dh) == STATUS_OK)
        delete[] again;
    std::vector<uint16_t> ir(pixels + 1);
    r.GetIR(raw.data(), ir.data(), w, h);
    if (flags & 8) {
        static std::vector<uint8_t> nv12(1920 * 1080 * 3 / 2, 90);
        uint16_t* d = new uint16_t[640 * 480];
        std::copy(raw.begin(), raw.begin() + std::min<size_t>(raw.size(), 640 * 480), d);
        uint8_t* colour = nullptr;
        int cw = 0, ch = 0;
        if (r.MapDepthToRGB(&colour, &d, nv12.data(), 1920, 1080, cw, ch) == STATUS_OK)
            delete[] colour;
        delete[] d;
    }
    return 0;
}
