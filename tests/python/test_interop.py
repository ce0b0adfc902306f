"""The package with other tools: Open3D and meshio read what the tool writes, Open3D's
clouds from the exported intrinsics are the library's, and batches give the same
files serially and over a Dask cluster of processes."""
import os
import subprocess

import meshio
import numpy as np
import open3d as o3d
import pytest
import yaml

import qvreconstruction as qv
from qvreconstruction import batch
from qvreconstruction import open3d_tools as qo

QVRECON = os.environ["QVRECON"]


def run(*args):
    return subprocess.run([QVRECON, *map(str, args)], check=True, capture_output=True, text=True)


def instance(binned, working, single=False):
    r = qv.Reconstruction()
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.SINGLE_FREQ if single else qv.StreamType.DUAL_FREQ)
    r.init(binned, working)
    r.open_filter(True)
    r.set_flip_mode(qv.FlipMode.NONE)
    return r


def test_open3d_clouds_from_the_exported_intrinsics_are_the_librarys(tmp_path):
    binned, full = qv.sample_calibration()
    run("info", "--format", "open3d", "--out", tmp_path)
    run("info", "--format", "ros", "--out", tmp_path)
    cases = [("dual", full, full, 1, "depth"), ("binned", full, full, 2, "depth_binned"),
             ("single", binned, binned, 1, "depth_single")]
    for stream, working, record, binning, name in cases:
        raw, w, h, _ = qv.simulate_capture(working, scene="plane", stream=stream)
        r = instance(binned, working, single=stream == "single")
        depth = r.calculate_depth(raw, w, h)
        points = r.get_cloud_point(depth)
        keep = points[:, :, 2] > 1
        exported = o3d.io.read_pinhole_camera_intrinsic(str(tmp_path / f"{name}.json"))
        helper = qo.depth_intrinsic(record, binning)
        assert np.allclose(exported.intrinsic_matrix, helper.intrinsic_matrix, rtol=0, atol=1e-4), name
        assert (exported.width, exported.height) == (w, h)
        cloud = o3d.geometry.PointCloud.create_from_depth_image(
            o3d.geometry.Image(depth), exported, depth_scale=1.0, depth_trunc=1e6, project_valid_depth_only=False)
        theirs = np.asarray(cloud.points).reshape(h, w, 3)
        assert np.abs(theirs[keep] - points[keep]).max() < 0.1, name
        ros = yaml.safe_load((tmp_path / f"{name}.yaml").read_text())
        assert (ros["image_width"], ros["image_height"]) == (w, h)
        assert np.allclose(np.reshape(ros["camera_matrix"]["data"], (3, 3)), exported.intrinsic_matrix, atol=1e-4)
    ros = yaml.safe_load((tmp_path / "colour.yaml").read_text())
    lens = full.rgb_lens
    assert ros["distortion_coefficients"]["data"] == pytest.approx([lens.k1, lens.k2, lens.p1, lens.p2, lens.k3])


def test_registered_depth_becomes_the_colour_cameras_z(tmp_path):
    binned, full = qv.sample_calibration()
    raw, w, h, _ = qv.simulate_capture(full, scene="plane", distance_mm=1500)
    r = instance(binned, full)
    depth = r.calculate_depth(raw, w, h)
    colour, registered = r.map_depth_to_rgb(depth, qv.render_colour(full, scene="plane", distance_mm=1500))
    run("info", "--format", "open3d", "--out", tmp_path)
    intrinsic = o3d.io.read_pinhole_camera_intrinsic(str(tmp_path / "colour.json"))
    assert np.allclose(intrinsic.intrinsic_matrix, qo.colour_intrinsic(full).intrinsic_matrix, atol=1e-4)
    rgbd = qo.rgbd_image(colour, registered, full)
    cloud = o3d.geometry.PointCloud.create_from_rgbd_image(rgbd, intrinsic, project_valid_depth_only=False)
    theirs = np.asarray(cloud.points).reshape(1080, 1920, 3) * 1000.0

    # Where each of the library's points lands, and the point itself in the colour camera.
    g = qv.registration_geometry(full)
    points = r.get_cloud_point(depth).reshape(-1, 3).astype(np.float64)
    pc = points @ g.rotation.T.astype(np.float64) + g.translation
    u = np.trunc(pc[:, 0] / pc[:, 2] * g.fx + g.cx).astype(int)
    v = np.trunc(pc[:, 1] / pc[:, 2] * g.fy + g.cy).astype(int)
    d = depth.reshape(-1)
    ok = (points[:, 2] > 9) & (u >= 0) & (u < 1920) & (v >= 0) & (v < 1080)
    ok[ok] &= registered[v[ok], u[ok]] == d[ok]  # the pixel kept this point's depth
    assert ok.sum() > 100000
    z_error = np.abs(theirs[v[ok], u[ok], 2] - pc[ok, 2])
    assert z_error.max() < 0.1
    # The same depth taken as the colour camera's Z is millimetres off.
    assert np.median(np.abs(registered[v[ok], u[ok]] - pc[ok, 2])) > 1.0
    # Across the ray, the points differ by at most the half pixel the truncation hides.
    half_pixel = 0.5 * pc[ok, 2] / g.fx * np.sqrt(2) + 0.01
    assert np.all(np.linalg.norm(theirs[v[ok], u[ok], :2] - pc[ok, :2], axis=1) <= half_pixel)


def test_coloured_point_clouds_read_back_in_open3d_and_meshio(tmp_path):
    binned, full = qv.sample_calibration()
    run("simulate", "--scene", "boxes", "--out", tmp_path / "cap")
    capture, frame = tmp_path / "cap" / "capture.raw", tmp_path / "cap" / "colour.nv12"
    variants = {"binary": [], "ascii": ["--ply-format", "ascii"],
                "organised": ["--ply-layout", "organised", "--ply-units", "m"]}
    for name, extra in variants.items():
        run("depth", capture, "--outputs", "ply", "--colour", frame, "--out", tmp_path / name, *extra)

    r = instance(binned, full)
    depth = r.calculate_depth(np.fromfile(capture, "<u2"), 640, 480)
    points = r.get_cloud_point(depth).reshape(-1, 3)
    colour_bgr, _ = r.map_depth_to_rgb(depth, np.fromfile(frame, np.uint8))
    colours = qo.point_colours(points, colour_bgr, full).reshape(-1, 3)
    keep = points[:, 2] > 1
    for name in variants:
        path = str(tmp_path / name / "capture.ply")
        mesh = meshio.read(path)
        cloud = o3d.io.read_point_cloud(path)
        # (meshio 5 hands uchar properties out as int8: the same bytes)
        mesh_rgb = np.stack([mesh.point_data[c] for c in ("red", "green", "blue")], axis=1).astype(np.uint8)
        if name == "organised":
            assert mesh.points.shape == (640 * 480, 3)
            assert np.array_equal(np.isnan(mesh.points[:, 2]), ~keep)
            assert np.allclose(mesh.points[keep], points[keep] * 0.001, rtol=1e-6, atol=0)
            assert np.array_equal(mesh_rgb[keep], colours[keep])
            continue
        atol = 0.051 if name == "ascii" else 0  # ASCII keeps a tenth of a millimetre
        assert np.allclose(mesh.points, points[keep], rtol=0, atol=atol)
        assert np.allclose(np.asarray(cloud.points), points[keep], rtol=0, atol=atol)
        assert np.array_equal(mesh_rgb, colours[keep])
        assert np.array_equal(np.round(np.asarray(cloud.colors) * 255).astype(np.uint8), colours[keep])

    # Each point has its object's colour: saturated on the boxes, grey on the wall behind.
    rgb = colours[keep].astype(int)
    saturated = rgb.max(axis=1) - rgb.min(axis=1) > 60
    on_boxes = points[keep, 2] < 1900
    assert np.mean(saturated == on_boxes) > 0.99
    # The coloured Open3D cloud made from the library's points is the same cloud.
    mine = qo.point_cloud(points, colours)
    assert np.allclose(np.asarray(mine.points), points[keep] * 0.001)


def simulated(tmp_path, name, stream, seed, *extra):
    """A capture with a patch returning no light, whose noise lies about the amplitude
    threshold: its depth shows how many binned frames halved the threshold before it."""
    run("simulate", "--dark", "--noise", 2, "--seed", seed, "--stream", stream, "--out", tmp_path / "sim", *extra)
    path = tmp_path / name
    path.parent.mkdir(parents=True, exist_ok=True)
    os.replace(tmp_path / "sim" / "capture.raw", path)
    return path


def test_batch_gives_the_serial_runs_files_over_any_dask_partition(tmp_path):
    from dask.distributed import Client, LocalCluster

    binned, full = qv.sample_calibration()
    plan = [("a/capture.raw", "binned"), ("b/capture.raw", "dual"), ("a2/plane.raw", "binned", "--scene", "plane"),
            ("b2/sphere.raw", "dual", "--scene", "sphere"), ("c/wall.raw", "binned", "--scene", "wall"),
            ("c/late.raw", "dual"), ("c/single.raw", "single"), ("c/after.raw", "dual")]
    paths = [simulated(tmp_path / "in", name, stream, k, *extra) for k, (name, stream, *extra) in enumerate(plan)]
    serial = batch.process(paths, tmp_path / "serial", progress=False)
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \
            Client(cluster) as client:
        spread = batch.process(paths, tmp_path / "dask", client=client)
    assert spread == serial
    names = sorted(os.listdir(tmp_path / "serial"))
    assert names == sorted(os.listdir(tmp_path / "dask"))
    assert names == sorted(f"{s}{suffix}" for s in ("capture", "capture-2", "plane", "sphere", "wall", "late",
                                                     "single", "after") for suffix in ("_depth.npy", ".ply"))
    for name in names:
        assert (tmp_path / "serial" / name).read_bytes() == (tmp_path / "dask" / name).read_bytes(), name

    # The serial run: one instance in the order given, set up afresh for the
    # single-frequency capture and for the full stream after it.
    r, single_set_up = None, None
    for path, stem, (_, stream, *_) in zip(paths, batch.output_stems(paths), plan):
        if single_set_up != (stream == "single"):
            single_set_up = stream == "single"
            r = instance(binned, binned if single_set_up else full, single=single_set_up)
        w, h = (640, 480) if stream == "dual" else (320, 240)
        depth = r.calculate_depth(np.fromfile(path, "<u2"), w, h)
        assert np.array_equal(np.load(tmp_path / "dask" / f"{stem}_depth.npy"), depth), path
    # Three binned captures before it: converted with threshold 0, not as after Init.
    fresh = instance(binned, full).calculate_depth(np.fromfile(paths[5], "<u2"), 640, 480)
    assert np.count_nonzero(np.load(tmp_path / "serial" / "late_depth.npy") != fresh) > 20
    sphere = r.get_cloud_point(np.load(tmp_path / "dask" / "sphere_depth.npy")).reshape(-1, 3)
    assert np.array_equal(meshio.read(tmp_path / "dask" / "sphere.ply").points, sphere[sphere[:, 2] > 1])
    with pytest.raises(ValueError, match="fit no stream"):
        (tmp_path / "short.raw").write_bytes(b"12345")
        batch.process([paths[0], tmp_path / "short.raw"], tmp_path / "refused")
    assert not (tmp_path / "refused").exists()


def test_batch_reads_the_calibration_now_and_ignores_the_callers_settings(tmp_path):
    binned, full = qv.sample_calibration()
    capture = simulated(tmp_path, "in/x.raw", "dual", 1)
    cal = tmp_path / "module.yaml"
    qv.save_calibration(str(cal), binned, full)
    batch.process([capture], tmp_path / "first", calibration=cal, progress=False)
    expected = instance(binned, full).calculate_depth(np.fromfile(capture, "<u2"), 640, 480)
    assert np.array_equal(np.load(tmp_path / "first" / "x_depth.npy"), expected)

    # A rewritten file is used at once, not the records of the path's first reading.
    full.depth_offset_f2 += 40
    qv.save_calibration(str(cal), binned, full)
    batch.process([capture], tmp_path / "rewritten", calibration=cal, progress=False)
    moved = instance(binned, full).calculate_depth(np.fromfile(capture, "<u2"), 640, 480)
    assert not np.array_equal(moved, expected)
    assert np.array_equal(np.load(tmp_path / "rewritten" / "x_depth.npy"), moved)

    # Nothing set on the process's instance beforehand leaks into the batch.
    r = qv.Reconstruction()
    r.set_flip_mode(qv.FlipMode.BOTH)
    r.open_filter(False)
    batch.process([capture], tmp_path / "flipped", calibration=cal, progress=False)
    assert (tmp_path / "flipped" / "x.ply").read_bytes() == (tmp_path / "rewritten" / "x.ply").read_bytes()


def test_batch_names_and_modes_are_the_tools(tmp_path):
    # The stem is the name without its last extension; leading dots never start one.
    names = ["x.raw", "..raw", ".raw", "a.b.raw", "noext"]
    assert batch.output_stems([f"in/{n}" for n in names]) == ["x", "..raw", ".raw", "a.b", "noext"]
    capture = simulated(tmp_path, "in/..raw", "binned", 1)
    old = os.umask(0o027)
    try:
        batch.process([capture], tmp_path / "out", progress=False)
    finally:
        os.umask(old)
    out = tmp_path / "out"
    assert sorted(os.listdir(out)) == ["..raw.ply", "..raw_depth.npy"]
    assert {(out / n).stat().st_mode & 0o777 for n in os.listdir(out)} == {0o640}
