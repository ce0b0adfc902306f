// The depth kernels' arctangent over a row, compiled once per target (see
// simd/targets.h), so that it can be checked on its own against the library's.
#include "depth/kernel_math.h"

namespace qvapi {
namespace QV_KERNEL_NS {

void Arctangent2Row(const float* y, const float* x, int n, float* out)
{
    const hn::ScalableTag<float> d;
    const int N = static_cast<int>(hn::Lanes(d));
    int i = 0;
    for (; i + N <= n; i += N)
        hn::StoreU(Atan2V(d, hn::LoadU(d, y + i), hn::LoadU(d, x + i)), d, out + i);
    const hn::CappedTag<float, 1> d1;
    for (; i < n; ++i)
        hn::StoreU(Atan2V(d1, hn::LoadU(d1, y + i), hn::LoadU(d1, x + i)), d1, out + i);
}

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
