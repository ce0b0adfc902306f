#ifndef QVRECONSTRUCTION_SRC_DEPTH_ARCTANGENT_H
#define QVRECONSTRUCTION_SRC_DEPTH_ARCTANGENT_H

namespace qvapi {

// out[i] = atan2(y[i], x[i]) as the depth kernels of the running processor compute it
// (a polynomial, within 3e-7 rad of the true value).
void Arctangent2(const float* y, const float* x, int n, float* out);

}  // namespace qvapi

#endif
