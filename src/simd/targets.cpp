#include "simd/targets.h"

#include <atomic>
#if defined(QV_HAVE_AVX2_KERNELS)
#include <cpuid.h>
#endif
#include <cstdlib>
#include <string>

namespace qvapi {

QV_PER_TARGET(const char* KernelInstructionSet();)

namespace {

#if defined(QV_FORCE_SCALAR)
std::atomic<bool> g_fastPaths{false};
#else
std::atomic<bool> g_fastPaths{true};
#endif

#if defined(QV_HAVE_AVX2_KERNELS)
// CPUID leaf 1, ECX bit 29 (clang's __builtin_cpu_supports does not know "f16c").
bool HasF16c()
{
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_F16C) != 0;
}
#endif

}  // namespace

Target ChosenTarget()
{
    static const Target chosen = [] {
        Target best = Target::Baseline;
#if defined(QV_HAVE_AVX2_KERNELS)
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
            __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2") && HasF16c())
            best = Target::Avx2;
#if defined(QV_HAVE_AVX512_KERNELS)
        if (best == Target::Avx2 && __builtin_cpu_supports("avx512f") &&
            __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
            __builtin_cpu_supports("avx512vl"))
            best = Target::Avx512;
#endif
#endif
        const char* cap = std::getenv("QV_KERNELS");
        if (cap != nullptr && std::string(cap) == "baseline")
            return Target::Baseline;
        if (cap != nullptr && std::string(cap) == "avx2" && best == Target::Avx512)
            return Target::Avx2;
        return best;
    }();
    return chosen;
}

bool HasAvx512Vbmi()
{
#if defined(QV_HAVE_AVX512_KERNELS)
    static const bool vbmi = (__builtin_cpu_init(), __builtin_cpu_supports("avx512vbmi"));
    return vbmi;
#else
    return false;
#endif
}

// Whether the processor runs the baseline kernels: on x86-64 they need SSE4.2 (every
// processor since 2011); elsewhere the build's own baseline (NEON on ARM64).
bool BaselineRuns()
{
#if defined(QV_X86_KERNELS)
    static const bool sse42 = (__builtin_cpu_init(), __builtin_cpu_supports("sse4.2"));
    return sse42;
#else
    return true;
#endif
}

bool FastPathsEnabled() { return g_fastPaths.load(std::memory_order_relaxed) && BaselineRuns(); }

void SetFastPathsEnabled(bool enabled) { g_fastPaths.store(enabled, std::memory_order_relaxed); }

const char* FastPathName()
{
    if (!FastPathsEnabled())
        return "scalar";
    switch (ChosenTarget()) {
    case Target::Avx512: return "avx512";
    case Target::Avx2: return "avx2";
    default: return "baseline";
    }
}

const char* KernelInstructionSet() { return QV_DISPATCH(KernelInstructionSet)(); }

}  // namespace qvapi
