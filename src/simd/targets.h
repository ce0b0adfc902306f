// Processor selection for the kernels. Every kernel file is compiled once per target
// of the build into its own namespace (baseline: SSE4.2 on x86-64, NEON on ARM64; on
// x86-64 also avx2, with FMA, and avx512), and each operation picks its kernel with
// QV_DISPATCH at run time. This layer knows no operation.
#ifndef QVRECONSTRUCTION_SRC_SIMD_TARGETS_H
#define QVRECONSTRUCTION_SRC_SIMD_TARGETS_H

namespace qvapi {

enum class Target { Baseline, Avx2, Avx512 };

// The widest target the processor runs and the build holds: AVX-512 (F, BW, DQ, VL),
// AVX2 with FMA, BMI, BMI2 and F16C, or the baseline. QV_KERNELS=baseline or QV_KERNELS=avx2 in the
// environment caps the choice, to compare targets on one machine.
Target ChosenTarget();

// Whether the processor has AVX-512's byte permutes (VBMI), for the kernels that use
// them beyond the AVX-512 target's own instructions.
bool HasAvx512Vbmi();

// False in a build configured with QV_FORCE_SCALAR, or on an x86-64 processor without
// SSE4.2: every operation then runs its plain scalar reference.
bool FastPathsEnabled();
// Overrides that choice for the whole process, so that tests can compare whole
// operations with and without their fast paths in one run.
void SetFastPathsEnabled(bool enabled);

// The target the operations run ("avx512", "avx2", "baseline"), or "scalar" in a
// forced-scalar build.
const char* FastPathName();

// Highway's name for the instruction set the chosen target's kernels were compiled for
// ("AVX3", "AVX2", "SSE4", "NEON").
const char* KernelInstructionSet();

}  // namespace qvapi

// Declares what follows (function declarations) in the namespace of every target the
// build compiles, for an operation's dispatch.
#if defined(QV_HAVE_AVX512_KERNELS)
#define QV_PER_TARGET(...)                                                                    \
    namespace baseline { __VA_ARGS__ }                                                       \
    namespace avx2 { __VA_ARGS__ }                                                           \
    namespace avx512 { __VA_ARGS__ }
// The kernel `name` of the chosen target.
#define QV_DISPATCH(name)                                                                     \
    (::qvapi::ChosenTarget() == ::qvapi::Target::Avx512 ? avx512::name                        \
     : ::qvapi::ChosenTarget() == ::qvapi::Target::Avx2 ? avx2::name                          \
                                                          : baseline::name)
#elif defined(QV_HAVE_AVX2_KERNELS)
#define QV_PER_TARGET(...)                                                                    \
    namespace baseline { __VA_ARGS__ }                                                       \
    namespace avx2 { __VA_ARGS__ }
#define QV_DISPATCH(name) (::qvapi::ChosenTarget() == ::qvapi::Target::Avx2 ? avx2::name : baseline::name)
#else
#define QV_PER_TARGET(...) namespace baseline { __VA_ARGS__ }
#define QV_DISPATCH(name) baseline::name
#endif

#endif
