// Common ground of the kernel files, which are compiled once per target, each time
// into the namespace QV_KERNEL_NS (see simd/targets.h): the check that the namespace
// is named, and the x86 intrinsics where the target has them.
#ifndef QVRECONSTRUCTION_SRC_SIMD_KERNEL_H
#define QVRECONSTRUCTION_SRC_SIMD_KERNEL_H

#ifndef QV_KERNEL_NS
#error "QV_KERNEL_NS names the instruction set this file is compiled for"
#endif

#if defined(__AVX2__)
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 warns inside its own AVX-512 headers (their "undefined" pass-through operand).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif
#endif

#endif
