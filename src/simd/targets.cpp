#include "simd/targets.h"

#include <atomic>
#include <cstdlib>
#include <string>

namespace qvapi {
namespace {

#if defined(QV_FORCE_SCALAR)
std::atomic<bool> g_fastPaths{false};
#else
std::atomic<bool> g_fastPaths{true};
#endif

}  // namespace

Target ChosenTarget()
{
    static const Target chosen = [] {
        Target best = Target::Baseline;
#if defined(QV_HAVE_AVX2_KERNELS)
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"))
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

bool FastPathsEnabled() { return g_fastPaths.load(std::memory_order_relaxed); }

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

}  // namespace qvapi
