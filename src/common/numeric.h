// Conversions from float to integer that stay defined for every input. For values
// in range they are the plain truncations toward zero; NaN and values beyond the
// integer range (possible only with absurd calibrations) give 0 instead of
// undefined behaviour.
#ifndef QVRECONSTRUCTION_SRC_COMMON_NUMERIC_H
#define QVRECONSTRUCTION_SRC_COMMON_NUMERIC_H

#include <cstdint>

namespace qvapi {

inline int32_t TruncToInt(double v)
{
    return (v > -2147483648.0 && v < 2147483648.0) ? static_cast<int32_t>(v) : 0;
}

// Truncation as the x86 conversion instruction does it: NaN and values beyond the
// integer range give the most negative integer ("integer indefinite"), on every
// platform. The false colouring depends on that for an empty distance range.
inline int32_t TruncToIntIndefinite(double v)
{
    return (v > -2147483649.0 && v < 2147483648.0) ? static_cast<int32_t>(v) : INT32_MIN;
}

// Truncates toward zero and keeps the low 16 bits, as a 16-bit store of an int does.
inline uint16_t TruncToU16Bits(double v) { return static_cast<uint16_t>(TruncToInt(v)); }

// A table index from a truncated float, kept inside [0, size - 1].
inline int32_t ClampIndex(int32_t k, int32_t size)
{
    return k < 0 ? 0 : (k >= size ? size - 1 : k);
}

}  // namespace qvapi

#endif
