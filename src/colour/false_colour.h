#ifndef QVRECONSTRUCTION_SRC_COLOUR_FALSE_COLOUR_H
#define QVRECONSTRUCTION_SRC_COLOUR_FALSE_COLOUR_H

#include <cstddef>
#include <cstdint>

namespace qvapi {

// Paints n depth values as RGB triples (3 n bytes): 0 black, 1 violet, others on a
// dark red -> red -> yellow -> cyan -> blue ramp over [lo, hi], navy beyond and for
// an empty range.
void FalseColour(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb);

// The same colours through a table of the range's depths, built per call: the fast
// path for an ordinary range (lo < hi, at most 65536 depths wide); others take the
// plain loop above.
void FalseColourFast(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb);

// The level 0..1021 of a depth in [lo, hi] (clamped), INT32_MIN for an empty range.
int32_t FalseColourLevel(int32_t d, int32_t lo, int32_t hi);

}  // namespace qvapi

#endif
