// Common ground of the kernel files, which are compiled once per target, each time
// into the namespace QV_KERNEL_NS (see simd/targets.h): the check that the namespace
// is named, Highway's vector operations for the target the compiler is set to (hn::),
// and the x86 intrinsics where the target has them.
#ifndef QVRECONSTRUCTION_SRC_SIMD_KERNEL_H
#define QVRECONSTRUCTION_SRC_SIMD_KERNEL_H

#ifndef QV_KERNEL_NS
#error "QV_KERNEL_NS names the instruction set this file is compiled for"
#endif

#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 warns inside its own AVX-512 headers (their "undefined" pass-through operand).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#if defined(__AVX2__)
#include <immintrin.h>
#endif
// One target per compilation: the one the compiler flags of this object enable.
#include <hwy/highway.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace qvapi {
namespace QV_KERNEL_NS {
namespace hn = hwy::HWY_NAMESPACE;
}  // namespace QV_KERNEL_NS
}  // namespace qvapi

// For a function whose loops are table look-ups one entry at a time: GCC would
// vectorise them into lane extracts and inserts (or hardware gathers), which cost several
// times the plain loads.
#if defined(__GNUC__) && !defined(__clang__)
#define QV_SCALAR_LOOKUPS __attribute__((optimize("no-tree-vectorize")))
#else
#define QV_SCALAR_LOOKUPS
#endif

#endif
