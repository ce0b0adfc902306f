#include "registration/registration_kernels.h"

#include <vector>

#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(void Median5x5Rows(const uint16_t* src, size_t srcStep, uint16_t* dst, size_t dstStep,
                                 int width, int height, uint16_t* scratch);
              void ProjectRowKernel(const uint16_t* depth, const float* rayX, const float* rayY,
                                    const RegistrationParams& p, int width, int height, int32_t* target,
                                    int32_t* column, LandingExtent& extent);
              void Nv12ToBgrRows(const uint8_t* nv12, int width, int height, uint8_t* bgr);)

void ProjectDepthRow(const uint16_t* depth, const float* rayX, const float* rayY,
                     const RegistrationParams& p, int width, int height, int32_t* target,
                     int32_t* column, LandingExtent& extent)
{
    QV_DISPATCH(ProjectRowKernel)(depth, rayX, rayY, p, width, height, target, column, extent);
}

void MedianBlur5x5(const uint16_t* src, size_t srcStep, uint16_t* dst, size_t dstStep, int width,
                   int height)
{
    if (src == nullptr || dst == nullptr || width <= 0 || height <= 0)
        return;
    // Five sorted rows of the window's columns, two replicated columns on the left and
    // three on the right.
    std::vector<uint16_t> scratch(5 * (static_cast<size_t>(width) + 5));
    QV_DISPATCH(Median5x5Rows)(src, srcStep, dst, dstStep, width, height, scratch.data());
}

void Nv12ToBgr(const uint8_t* nv12, int width, int height, uint8_t* bgr)
{
    if (nv12 == nullptr || bgr == nullptr || width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0)
        return;
    QV_DISPATCH(Nv12ToBgrRows)(nv12, width, height, bgr);
}

}  // namespace qvapi
