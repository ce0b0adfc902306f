// The filter step of the depth pipeline.
#ifndef QVRECONSTRUCTION_SRC_DEPTH_DEPTH_FILTER_H
#define QVRECONSTRUCTION_SRC_DEPTH_DEPTH_FILTER_H

#include <cstdint>

namespace qvapi {

// The 3 x 3 median, then the edge filter, in place: the vector kernels, or OpenCV's
// median and the plain filter in a forced-scalar build.
void FilterDepthFrame(uint16_t* depth, int width, int height);

}  // namespace qvapi

#endif
