// The instruction set Highway compiles each target's kernels for (its static target,
// which follows the object's compiler flags), so that a test can see that each target
// gets the vectors it is chosen for.
#include "simd/kernel.h"

namespace qvapi {
namespace QV_KERNEL_NS {

const char* KernelInstructionSet() { return hwy::TargetName(HWY_TARGET); }

}  // namespace QV_KERNEL_NS
}  // namespace qvapi
