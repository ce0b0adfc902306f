// The registration's geometry for callers of the calibration library, computed by the
// same code as the registration's own.
#include <qvreconstruction/calibration_file.h>

#include <algorithm>

#include "common/registration_pose.h"

namespace qvapi {

RegistrationGeometry DepthToColourGeometry(const CameraCalibrationParam& record)
{
    const RegistrationParams p = MakeRegistrationParams(record);
    RegistrationGeometry g{};
    std::copy(p.R, p.R + 9, g.rotation);
    std::copy(p.t, p.t + 3, g.translation);
    g.fx = p.fx;
    g.fy = p.fy;
    g.cx = p.cx;
    g.cy = p.cy;
    return g;
}

}  // namespace qvapi
