// filter_module: the fixed 9 x 9 bilateral filter and its helpers, and the
// parameterised disc bilateral filter.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <vector>

#include "common/numeric.h"
#include "qvreconstruction/filter_module.h"

namespace qvapi {
namespace {

// exp(-d^2 / 3200) for every 16-bit depth difference, built once: the range weight
// of the 9 x 9 filter (range sigma 40) without an exp per sample.
const double* RangeWeights40()
{
    static const std::vector<double> table = [] {
        std::vector<double> t(65536);
        for (size_t d = 0; d < t.size(); ++d)
            t[d] = std::exp(-static_cast<double>(d * d) * 0.0003125);
        return t;
    }();
    return table.data();
}

}  // namespace

void filter_module::GetFinalKernal(unsigned short* img, int kw, int kh, double* spatial,
                                   double* out, int row, int col, int plane, int stride,
                                   long planeSize)
{
    if (kw <= 0 || kh <= 0)
        return;
    const size_t n = static_cast<size_t>(kw) * kh;
    // The 9 x 9 filter calls this once per pixel: its weights stay on the stack.
    double local[81];
    std::vector<double> heap;
    double* range = local;
    if (n > 81) {
        heap.resize(n);
        range = heap.data();
    }
    const double* weight = RangeWeights40();
    const unsigned short* base = img + static_cast<ptrdiff_t>(plane) * planeSize;
    const int c = base[static_cast<ptrdiff_t>(row) * stride + col];
    double sum = 0;
    size_t k = 0;
    // Exactly kw x kh weights, laid out as GetWindowArray lays out the window: an odd
    // size is centred, an even one reaches one further up and left than down and right.
    for (int64_t r = int64_t{row} - kh / 2, rEnd = r + kh; r < rEnd; ++r)
        for (int64_t q = int64_t{col} - kw / 2, qEnd = q + kw; q < qEnd; ++q, ++k) {
            const int d = std::abs(c - base[static_cast<ptrdiff_t>(r) * stride + q]);
            range[k] = weight[d];
            sum += range[k];
        }
    const double inv = 1.0 / sum;
    double total = 0;
    for (k = 0; k < n; ++k) {
        range[k] *= inv;
        out[k] = range[k] * spatial[k];
        total += out[k];
    }
    const double invTotal = 1.0 / total;
    for (k = 0; k < n; ++k)
        out[k] *= invTotal;
}

void filter_module::GetWindowArray(int row, int col, int plane, unsigned short* img,
                                   unsigned short* window, int winH, int winW, int stride,
                                   int planeSize)
{
    const unsigned short* base = img + static_cast<ptrdiff_t>(plane) * planeSize;
    for (int i = 0; i < winH; ++i)
        for (int j = 0; j < winW; ++j)
            window[i * winW + j] =
                base[static_cast<ptrdiff_t>(row - winH / 2 + i) * stride + (col - winW / 2 + j)];
}

unsigned short filter_module::GetGuassNum(unsigned short* window, double* kernel, int n)
{
    // Each term loses its fraction as it is added: the result may lie up to n - 1
    // below the exact weighted sum.
    unsigned short a = 0;
    for (int k = 0; k < n; ++k)
        a = TruncToU16Bits(static_cast<double>(window[k]) * kernel[k] + static_cast<double>(a));
    return a;
}

void filter_module::BilateralFiter(unsigned short* img, int width, int height)
{
    if (img == nullptr || width <= 8 || height <= 8)
        return;  // a 4-pixel frame is never filtered; nothing is left inside
    const size_t n = static_cast<size_t>(width) * height;
    std::vector<unsigned short> source(img, img + n), destination(img, img + n);
    double spatial[81], combined[81];
    unsigned short window[81];
    double sum = 0;
    for (int dy = -4; dy <= 4; ++dy)
        for (int dx = -4; dx <= 4; ++dx)
            sum += spatial[(dy + 4) * 9 + dx + 4] = std::exp(-(dx * dx + dy * dy) / 18.0);
    for (double& s : spatial)
        s /= sum;
    for (int row = 4; row <= height - 5; ++row)
        for (int col = 4; col <= width - 5; ++col) {
            GetFinalKernal(source.data(), 9, 9, spatial, combined, row, col, 0, width,
                           static_cast<long>(n));
            GetWindowArray(row, col, 0, source.data(), window, 9, 9, width, static_cast<int>(n));
            destination[static_cast<size_t>(row) * width + col] = GetGuassNum(window, combined, 81);
        }
    std::copy(destination.begin(), destination.end(), img);
}

void filter_module::Bilateral_Filter(unsigned short* img, int r, double sigmaS, double sigmaR,
                                     int width, int height)
{
    if (img == nullptr || width <= 0 || height <= 0 || r > kMaxBilateralRadius)
        return;
    const size_t n = static_cast<size_t>(width) * height;
    if (r < 0) {
        std::fill(img, img + n, 0);
        return;
    }
    const int side = 2 * r + 1;
    std::vector<double> G(static_cast<size_t>(side) * side);
    const double fs = -0.5 / (sigmaS * sigmaS);
    for (int dy = -r; dy <= r; ++dy)
        for (int dx = -r; dx <= r; ++dx)
            G[static_cast<size_t>(dy + r) * side + dx + r] = std::exp((dx * dx + dy * dy) * fs);
    const std::vector<double> D(img, img + n);
    std::vector<double> L(7500);
    const double fr = -0.5 / (sigmaR * sigmaR);
    L[0] = 1.0;
    for (int i = 1; i < 7500; ++i)
        L[i] = std::exp(static_cast<double>(i) * i * fr);

    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double centre = D[static_cast<size_t>(y) * width + x];
            double sw = 0, svw = 0;
            for (int dy = -r; dy <= r; ++dy) {
                const int yy = std::clamp(y + dy, 0, height - 1);
                for (int dx = -r; dx <= r; ++dx) {
                    if (dx * dx + dy * dy > r * r)
                        continue;  // a disc, not a square
                    const int xx = std::clamp(x + dx, 0, width - 1);
                    const double v = D[static_cast<size_t>(yy) * width + xx];
                    // Differences of 7500 mm or more share the last entry.
                    const int i = std::min(std::abs(TruncToInt(v - centre)), 7499);
                    const double w = G[static_cast<size_t>(dy + r) * side + dx + r] * L[i];
                    sw += w;
                    svw += v * w;
                }
            }
            img[static_cast<size_t>(y) * width + x] = TruncToU16Bits(svw / sw);
        }
}

}  // namespace qvapi
