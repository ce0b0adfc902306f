// Depth-to-colour registration: each depth pixel is lifted along its ray, moved into
// the colour camera and projected onto the colour grid.
#ifndef QVRECONSTRUCTION_SRC_REGISTRATION_MAP_DEPTH_TO_RGB_H
#define QVRECONSTRUCTION_SRC_REGISTRATION_MAP_DEPTH_TO_RGB_H

#include <cstdint>

#include "common/registration_pose.h"

namespace qvapi {

// Registers a 640 x 480 depth frame onto `registered` (width x height, zero on entry).
// Depths of 9 or less are skipped; the last pixel to land on a colour pixel wins;
// landings away from the border fill eleven neighbours still holding 9 or less.
void ProjectDepthToColour(const uint16_t* depth, const float* rayX, const float* rayY,
                          const RegistrationParams& p, uint16_t* registered, int width,
                          int height);

// Reference depth from the 3 x 3 block at the frame's centre: the mean of the values
// above 10 when there are at least three, else `fallback`.
int32_t CentreReferenceDepth(const uint16_t* depth, int32_t fallback);

}  // namespace qvapi

#endif
