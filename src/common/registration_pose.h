// The geometry depth-to-colour registration applies, derived once from a calibration
// record: shared by the registration itself and by the calibration files' library,
// which hands it to callers that colour or re-project registered depth.
#ifndef QVRECONSTRUCTION_SRC_COMMON_REGISTRATION_POSE_H
#define QVRECONSTRUCTION_SRC_COMMON_REGISTRATION_POSE_H

#include <cstdint>

#include "qvreconstruction/reconstruction.h"

namespace qvapi {

struct RegistrationParams {
    float R[9];              // depth to colour rotation, row-major
    float t[3];              // translation, mm
    float fx, fy, cx, cy;    // colour camera
};

// R's rotation vector plus the record's correction (vector[0..2] when vectorCount >= 3),
// back to a matrix (row-major 3 x 3, like R). The round trip is made even for a zero
// correction.
void CorrectedRotation(const float R[9], int32_t vectorCount, const float* vector, float corrected[9]);

// Rotation and translation used by the registration: the record's extrinsics, or the
// module's factory values when the record has no colour lens (fx 0); the rotation
// corrected by the record's rotation vector when vectorCount >= 3. Colour intrinsics
// are the record's own.
RegistrationParams MakeRegistrationParams(const CameraCalibrationParam& p);

}  // namespace qvapi

#endif
