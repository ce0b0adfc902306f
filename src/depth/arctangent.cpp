#include "depth/arctangent.h"

#include "simd/targets.h"

namespace qvapi {

QV_PER_TARGET(void Arctangent2Row(const float* y, const float* x, int n, float* out);)

void Arctangent2(const float* y, const float* x, int n, float* out)
{
    QV_DISPATCH(Arctangent2Row)(y, x, n, out);
}

}  // namespace qvapi
