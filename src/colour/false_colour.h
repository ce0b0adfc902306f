#ifndef QVRECONSTRUCTION_SRC_COLOUR_FALSE_COLOUR_H
#define QVRECONSTRUCTION_SRC_COLOUR_FALSE_COLOUR_H

#include <cstddef>
#include <cstdint>

namespace qvapi {

// Paints n depth values as RGB triples (3 n bytes): 0 black, 1 violet, others on a
// dark red -> red -> yellow -> cyan -> blue ramp over [lo, hi], navy beyond and for
// an empty range.
void FalseColour(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb);

// The same colours, computed without division by the vector kernel for an ordinary
// range (lo < hi, at most 65535 apart, meeting the depths' 0..65535); others take
// the plain loop above.
void FalseColourFast(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb);

// What the vector kernel needs of a range R = hi - lo: the range, the same clamped to 16
// bits, and the level of x = d - lo, floor(1021 x / R), as
// whole * x + (x H + (x L >> 16) + 1) >> 16 with fraction = H 2^16 + L, the fraction
// 1021 % R / R rounded down to 32 bits.
struct FalseColourRamp {
    int32_t lo, hi;
    int32_t lo16, hi16;
    uint32_t whole, fraction;
};

// Whether the vector kernel serves [lo, hi], and its ramp if it does.
bool MakeFalseColourRamp(int32_t lo, int32_t hi, FalseColourRamp& ramp);

// The level 0..1021 of a depth in [lo, hi] (clamped), INT32_MIN for an empty range.
int32_t FalseColourLevel(int32_t d, int32_t lo, int32_t hi);

// The false colours of depth[0..n) for a range MakeFalseColourRamp accepted, as
// FalseColour paints them, with the vector kernel of the running processor.
void FalseColourSpan(const uint16_t* depth, size_t n, const FalseColourRamp& ramp, uint8_t* rgb);

// The operation: FalseColourFast (FalseColour in a forced-scalar build).
void PaintFalseColour(const uint16_t* depth, size_t n, int32_t lo, int32_t hi, uint8_t* rgb);

}  // namespace qvapi

#endif
