#ifndef QVRECONSTRUCTION_SRC_DEPTH_IR_H
#define QVRECONSTRUCTION_SRC_DEPTH_IR_H

#include <cstdint>

namespace qvapi {

// Infrared image of a four-sample frame: the mean of each pixel's four samples,
// saturated at 255. Reads only the first 4 * width * height words.
void InfraredImage(const uint16_t* raw, uint16_t* ir, int width, int height);

// The same with the vector kernel of the running processor.
void InfraredImageFast(const uint16_t* raw, uint16_t* ir, int width, int height);

// The operation: the vector kernel (the plain loop in a forced-scalar build).
void MakeInfraredImage(const uint16_t* raw, uint16_t* ir, int width, int height);

}  // namespace qvapi

#endif
