"""Open3D for the library's images: camera intrinsics, point clouds with colour, and
RGBD images on the colour camera.

    import open3d as o3d
    import qvreconstruction as qv
    from qvreconstruction import open3d_tools as qo

    depth = r.calculate_depth(raw, 640, 480)
    points = r.get_cloud_point(depth)                       # mm, the lens model applied
    colour_bgr, registered = r.map_depth_to_rgb(depth, nv12)
    cloud = qo.point_cloud(points, qo.point_colours(points, colour_bgr, full))
    rgbd = qo.rgbd_image(colour_bgr, registered, full)      # colour camera's Z
    same_scene = o3d.geometry.PointCloud.create_from_rgbd_image(rgbd, qo.colour_intrinsic(full))

The library's clouds are pinhole clouds of the depth image, so Open3D's own cloud from
a depth image and `depth_intrinsic` is the same cloud (to float rounding); the images
map_depth_to_rgb returns are undistorted, so `colour_intrinsic` describes them exactly.

Open3D is imported when these functions are called, so the rest of the package works
without it. Open3D works in metres: clouds made here are in metres unless `scale`
says otherwise.
"""
import numpy as np

from ._core import registration_geometry


def _open3d():
    import open3d  # imported on use: the package does not need it otherwise

    return open3d


def depth_intrinsic(record, binning=1):
    """Open3D's PinholeCameraIntrinsic of the depth images the library computes with this
    record as its working record: the full record for the full stream (640 x 480), the
    full record with binning=2 for binned read-outs of the dual-frequency stream (they
    use every other ray of the full grid), the binned record for the single-frequency
    stream."""
    if binning not in (1, 2):
        raise ValueError("binning is 1 or 2")
    lens = record.depth_lens
    return _open3d().camera.PinholeCameraIntrinsic(lens.width // binning, lens.height // binning, lens.fx / binning,
                                                  lens.fy / binning, lens.cx / binning, lens.cy / binning)


def colour_intrinsic(record):
    """Open3D's PinholeCameraIntrinsic of the colour camera for the images map_depth_to_rgb
    returns (1920 x 1080, undistorted). The registration writes a point at the pixel its
    projection falls in (truncation), so the principal point moves half a pixel: Open3D's
    ray through pixel (u, v) then passes through the pixel's centre."""
    g = registration_geometry(record)
    lens = record.rgb_lens
    return _open3d().camera.PinholeCameraIntrinsic(lens.width, lens.height, g.fx, g.fy, g.cx - 0.5, g.cy - 0.5)


def colour_camera_z(registered, record):
    """The colour camera's Z (float32 mm, 0 where there is no depth) of a registered depth
    image, which holds the depth camera's Z of the point seen at each pixel. Along the
    ray through pixel (u, v)'s centre, r = ((u + 0.5 - cx) / fx, (v + 0.5 - cy) / fy, 1),
    the point Zc * r is at depth-camera Z = Zc * (R^T r)_z - (R^T t)_z."""
    registered = np.asarray(registered)
    if registered.ndim != 2:
        raise ValueError("registered depth must be a 2-D image")
    g = registration_geometry(record)
    R = g.rotation.astype(np.float64)
    t = g.translation.astype(np.float64)
    h, w = registered.shape
    x = (np.arange(w) + 0.5 - g.cx) / g.fx
    y = (np.arange(h) + 0.5 - g.cy) / g.fy
    along = R[0, 2] * x[np.newaxis, :] + R[1, 2] * y[:, np.newaxis] + R[2, 2]  # (R^T r)_z
    offset = R[:, 2] @ t  # (R^T t)_z
    z = registered.astype(np.float64)
    with np.errstate(divide="ignore", invalid="ignore"):
        zc = np.where(z > 9, (z + offset) / along, 0.0)  # values below 10 mark no depth
    return zc.astype(np.float32)


def rgbd_image(colour_bgr, registered, record, depth_trunc=10.0):
    """Open3D RGBDImage of the colour camera from map_depth_to_rgb's two images: the
    colour (BGR as returned, given to Open3D as RGB) and the colour camera's Z. Use it
    with `colour_intrinsic(record)`; Open3D's clouds from it are in metres, cut at
    `depth_trunc` metres."""
    o3d = _open3d()
    colour = np.ascontiguousarray(np.asarray(colour_bgr)[:, :, ::-1])
    depth = colour_camera_z(registered, record)
    return o3d.geometry.RGBDImage.create_from_color_and_depth(
        o3d.geometry.Image(colour), o3d.geometry.Image(depth), depth_scale=1000.0, depth_trunc=depth_trunc,
        convert_rgb_to_intensity=False)


def point_colours(points, colour_bgr, record):
    """The colour (uint8 RGB, one per point, black where none) each point of
    get_cloud_point's cloud sees in the colour image map_depth_to_rgb returned, found
    where the registration puts the point."""
    points = np.asarray(points, dtype=np.float32)
    colour_bgr = np.asarray(colour_bgr)
    g = registration_geometry(record)
    flat = points.reshape(-1, 3)
    R, t = g.rotation, g.translation
    X, Y, Z = flat[:, 0], flat[:, 1], flat[:, 2]
    # float32 in the registration's order of operations, so points land where it puts them
    xc, yc, zc = (R[k, 0] * X + R[k, 1] * Y + R[k, 2] * Z + t[k] for k in range(3))
    with np.errstate(divide="ignore", invalid="ignore"):
        fu = xc / zc * np.float32(g.fx) + np.float32(g.cx)
        fv = yc / zc * np.float32(g.fy) + np.float32(g.cy)
    h, w = colour_bgr.shape[:2]
    inside = (flat[:, 2] > 9) & (fu > -1) & (fu < w) & (fv > -1) & (fv < h)
    rgb = np.zeros(flat.shape, np.uint8)
    u = np.trunc(fu[inside]).astype(np.intp)
    v = np.trunc(fv[inside]).astype(np.intp)
    rgb[inside] = colour_bgr[v, u, ::-1]
    return rgb.reshape(points.shape)


def point_cloud(points, colours=None, scale=0.001):
    """Open3D PointCloud of get_cloud_point's points with depth (z above the marks 0 and 1),
    scaled to metres unless `scale` says otherwise; with `colours` (uint8 RGB, one per
    point, as point_colours gives them) the cloud is coloured."""
    o3d = _open3d()
    flat = np.asarray(points, dtype=np.float32).reshape(-1, 3)
    keep = flat[:, 2] > 1
    cloud = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(flat[keep].astype(np.float64) * scale))
    if colours is not None:
        rgb = np.asarray(colours, dtype=np.uint8).reshape(-1, 3)
        if rgb.shape[0] != flat.shape[0]:
            raise ValueError(f"{rgb.shape[0]} colours for {flat.shape[0]} points")
        cloud.colors = o3d.utility.Vector3dVector(rgb[keep] / 255.0)
    return cloud
