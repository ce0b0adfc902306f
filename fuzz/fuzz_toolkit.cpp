// The toolkit's image filters and the depth post-filters on random images, including
// empty ones and rows wider than 65535.
#include <cstdlib>
#include <vector>

#include "fuzz_input.h"
#include "qvreconstruction/depth_filters.h"
#include "qvreconstruction/filter_module.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in{data, size};
    const uint8_t op = in.Take<uint8_t>();
    int w = in.Take<int8_t>(), h = in.Take<int8_t>();
    if (in.Take<uint8_t>() == 0xFF)
        w = 65536 + (w & 7);  // a very wide row, a few rows high
    h = h % 40;
    const int a = in.Take<int16_t>(), b = in.Take<int16_t>();
    const double sigmaS = in.Take<uint8_t>() / 16.0, sigmaR = in.Take<uint16_t>() / 8.0;
    const size_t n = w > 0 && h > 0 ? size_t(w) * h : 0;
    std::vector<unsigned short> img(n + 1);
    for (size_t i = 0; i < n && in.RestSize() >= 2; ++i)
        img[i] = in.Take<uint16_t>();

    qvapi::filter_module f;
    switch (op % 11) {
    case 0: f.meanFilter(img.data(), w, h); break;
    case 1: f.medianFilter(img.data(), w, h); break;
    case 2: f.medianFilter2(img.data(), w, h); break;
    case 3: f.PixelFilter(img.data(), w, h, a % 10, b % 20); break;
    case 4: if (n <= 4096) f.BilateralFiter(img.data(), w, h); break;
    case 5: {
        // The filter's work grows with the disc's area per pixel: keep each input fast
        // (a wide image with a radius of 7 took over 10 s under the sanitizers).
        const int r = a % 8;
        if (n * size_t(2 * std::abs(r) + 1) * size_t(2 * std::abs(r) + 1) <= 4000000)
            f.Bilateral_Filter(img.data(), r, sigmaS, sigmaR, w, h);
        break;
    }
    case 6: qvapi::EdgeFilter(img.data(), w, h); break;
    case 7: qvapi::EdgeFilterMad(img.data(), w, h, a); break;
    case 8: qvapi::OkadaFilter(img.data(), w, h); break;
    case 9: qvapi::SpeckleFilter(img.data(), w, h, a, b); break;
    default: {
        float x = in.Take<float>(), y = in.Take<float>();
        if (n > 0 && x >= 0 && y >= 0 && x < w - 1 && y < h - 1)
            f.bilinearInterpolation(img.data(), x, y, static_cast<unsigned short>(w));
    }
    }
    return 0;
}
