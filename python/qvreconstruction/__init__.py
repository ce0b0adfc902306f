"""Time-of-flight depth reconstruction with numpy arrays.

    import qvreconstruction as qv
    binned, full = qv.sample_calibration()          # or qv.load_calibration("module.yaml")
    raw, width, height, truth = qv.simulate_capture(full, scene="boxes")
    r = qv.Reconstruction()                         # the one instance of this process
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
    r.init(binned, full)
    depth = r.calculate_depth(raw, width, height)   # uint16 (height, width), mm
    points = r.get_cloud_point(depth)               # float32 (height, width, 3), mm

Refused calls raise QvError, whose ``status`` is the library's status code.
Recordings (MCAP files of raw captures, colour frames and the calibration): ``Recording``
reads one as a sequence of frames, ``RecordingWriter`` writes one (see ``recording``).
Submodules: ``open3d_tools`` (Open3D intrinsics, clouds and RGBD images) and ``batch``
(many captures and recordings, here or over a Dask cluster).
"""
from ._errors import QvError, RecordingError
from ._core import (
    CalibrationRecord,
    DeviceType,
    FlipMode,
    Intrinsics,
    Reconstruction,
    RecordedFrame,
    RecordingWriter,
    RegistrationGeometry,
    StreamType,
    load_calibration,
    parse_calibration,
    registration_geometry,
    render_colour,
    sample_calibration,
    save_calibration,
    simulate_capture,
)
from .recording import Recording

__all__ = [
    "CalibrationRecord",
    "DeviceType",
    "FlipMode",
    "Intrinsics",
    "QvError",
    "Reconstruction",
    "RecordedFrame",
    "Recording",
    "RecordingError",
    "RecordingWriter",
    "RegistrationGeometry",
    "StreamType",
    "load_calibration",
    "parse_calibration",
    "registration_geometry",
    "render_colour",
    "sample_calibration",
    "save_calibration",
    "simulate_capture",
]
