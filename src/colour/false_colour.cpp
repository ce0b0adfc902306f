#include "colour/false_colour.h"

#include <algorithm>

#include "common/numeric.h"
#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(void FalseColourSpanKernel(const uint16_t* depth, size_t n, const FalseColourRamp& ramp,
                                         uint8_t* rgb);)

int32_t FalseColourLevel(int32_t d, int32_t lo, int32_t hi)
{
    // min/max clamp the depth into [lo, hi] without a separate test.
    const int32_t a = std::min(d, lo);
    const int32_t b = std::max(d, hi);
    // Differences in 64 bits: any custom range the caller set stays defined.
    return TruncToIntIndefinite(static_cast<double>(int64_t(d) - a) /
                                static_cast<double>(int64_t(b) - a) * 1021.0);
}

namespace {

// The colour of one depth value.
inline void Paint(int32_t d, int32_t lo, int32_t hi, uint8_t* px)
{
    int r = 0, g = 0, b = 0;
    if (d == 1) {
        r = 127, b = 170;  // the marker value
    } else if (d != 0) {
        const int32_t v = FalseColourLevel(d, lo, hi);
        if (static_cast<uint32_t>(v) <= 128u)
            r = v + 127;
        else if (v < 0 || v >= 894)
            b = 128;  // navy: empty or reversed range, and the far end
        else if (v <= 383)
            r = 255, g = v - 128;
        else if (v <= 638)
            r = 638 - v, g = 255, b = v - 383;
        else
            g = 893 - v, b = 255;
    }
    px[0] = static_cast<uint8_t>(r);
    px[1] = static_cast<uint8_t>(g);
    px[2] = static_cast<uint8_t>(b);
}

}  // namespace

void FalseColour(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb)
{
    for (size_t i = 0; i < n; ++i)
        Paint(depth[i], lo, hi, rgb + 3 * i);
}

bool MakeFalseColourRamp(int32_t lo, int32_t hi, FalseColourRamp& ramp)
{
    // Depths below lo give level 0 as lo does and depths above hi 1021 as hi does, so
    // clamping the depth into [lo, hi] and that interval into 0..65535 keep the levels
    // when the interval reaches into 0..65535.
    if (!(lo < hi) || int64_t(hi) - lo > 65535 || hi < 0 || lo > 65535)
        return false;
    const uint32_t range = static_cast<uint32_t>(hi - lo);
    ramp.lo = lo;
    ramp.hi = hi;
    ramp.lo16 = std::max(lo, 0);
    ramp.hi16 = std::min(hi, 65535);
    ramp.whole = 1021 / range;
    ramp.fraction = static_cast<uint32_t>((uint64_t(1021 % range) << 32) / range);
    return true;
}

void FalseColourSpan(const uint16_t* depth, size_t n, const FalseColourRamp& ramp, uint8_t* rgb)
{
#if defined(QV_HAVE_AVX512_KERNELS)
    // The AVX-512 colouring interleaves its bytes with VBMI's byte permutes; AVX-512
    // processors without them take the AVX2 kernel.
    if (ChosenTarget() == Target::Avx512 && !HasAvx512Vbmi()) {
        avx2::FalseColourSpanKernel(depth, n, ramp, rgb);
        return;
    }
#endif
    QV_DISPATCH(FalseColourSpanKernel)(depth, n, ramp, rgb);
}

void PaintFalseColour(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb)
{
    if (FastPathsEnabled())
        FalseColourFast(depth, n, lo, hi, rgb);
    else
        FalseColour(depth, n, lo, hi, rgb);
}

void FalseColourFast(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb)
{
    FalseColourRamp ramp;
    if (MakeFalseColourRamp(lo, hi, ramp))
        FalseColourSpan(depth, n, ramp, rgb);
    else
        FalseColour(depth, n, lo, hi, rgb);
}

}  // namespace qvapi
