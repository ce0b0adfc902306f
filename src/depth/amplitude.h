// The converters' amplitude test done exactly on integer energies, as their fast
// kernels do it.
#ifndef QVRECONSTRUCTION_SRC_DEPTH_AMPLITUDE_H
#define QVRECONSTRUCTION_SRC_DEPTH_AMPLITUDE_H

#include <cstdint>

namespace qvapi {

// Energies up to 2^24 are exact in float, as the fast kernels compare them.
constexpr int64_t kExactFloatEnergy = int64_t(1) << 24;

// The smallest energy I^2 + Q^2 whose amplitude, as the scalar kernels compute it
// (sqrtf, times pi/2 in double, rounded to float), is not below the threshold: the
// amplitude test done exactly on integers. INT64_MAX when none is.
int64_t MinValidEnergy(int32_t amplitudeThreshold);

}  // namespace qvapi

#endif
