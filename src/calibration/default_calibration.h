// Built-in calibration loaded by SetType until Init receives the module's own.
#ifndef QVRECONSTRUCTION_SRC_CALIBRATION_DEFAULT_CALIBRATION_H
#define QVRECONSTRUCTION_SRC_CALIBRATION_DEFAULT_CALIBRATION_H

#include "qvreconstruction/reconstruction.h"

namespace qvapi {

// The default record of a device/stream combination: depth offsets, depth lens
// (camera matrix and distortion), 39- and 31-entry wiggling tables and the two
// phase-noise surfaces; everything else zero.
CameraCalibrationParam DefaultCalibration(DeviceType device, StreamType stream);

}  // namespace qvapi

#endif
