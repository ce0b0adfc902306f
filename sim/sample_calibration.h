// Calibration of a plausible 640 x 480 time-of-flight module with a 1920 x 1080
// colour camera beside it: the default for the simulator, the tool and the tests.
#ifndef QVSIM_SAMPLE_CALIBRATION_H
#define QVSIM_SAMPLE_CALIBRATION_H

#include <qvreconstruction/reconstruction.h>

namespace qvsim {

// The full read-out's record (depth lens 640 x 480).
qvapi::CameraCalibrationParam SampleCalibration();

// The binned read-out's record: the same module with the depth lens at 320 x 240.
qvapi::CameraCalibrationParam SampleBinnedCalibration();

}  // namespace qvsim

#endif
