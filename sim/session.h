// A simulated session: the scene and the sensor's set-up of each frame of a capture
// session at a fixed frame rate. The boxes move (the left one to and fro across the
// wall, the right one towards the camera and back), the sensor warms from its start
// temperature towards a plateau, and every frame has a noise seed of its own, so that
// frame k is the same whenever and in whatever order it is asked for.
#ifndef QVSIM_SESSION_H
#define QVSIM_SESSION_H

#include <cstdint>

#include "simulator.h"

namespace qvsim {

struct SessionSpec {
    SceneSpec scene;          // frame 0's scene (the boxes' offsets are added to)
    CaptureSpec setup;        // frame 0's set-up (temperature, seed)
    double fps = 30.0;
    double boxSwingMm = 250.0;     // the left box's sideways swing, either way
    double boxApproachMm = 300.0;  // how far the right box comes towards the camera
    double periodS = 4.0;          // of the boxes' motion
    double warmingC = 12.0;        // the rise of the sensor's temperature, at its plateau
    double warmingTimeS = 20.0;    // time constant of the warming
};

struct SessionFrame {
    SceneSpec scene;
    CaptureSpec setup;
    double timeS = 0.0;  // since frame 0
};

// Frame k of the session (k / fps seconds after frame 0). The seed of frame k is
// derived from the session's seed and k; the temperature stays inside the
// simulator's range.
SessionFrame SessionFrameAt(const SessionSpec& session, uint64_t k);

}  // namespace qvsim

#endif
