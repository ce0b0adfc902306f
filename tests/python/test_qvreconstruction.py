"""The Python package against the C++ library: same results, errors as exceptions,
arrays that own their memory, and nothing kept over many calls."""
import ast
import os
import subprocess
import sys

import numpy as np
import pytest

import qvreconstruction as qv


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@pytest.fixture(scope="module")
def module():
    binned, full = qv.load_calibration(os.environ["QV_SAMPLE_CALIBRATION"])
    raw, width, height, truth = qv.simulate_capture(full, scene="boxes", noise=1.0, seed=3)
    return binned, full, raw, width, height, truth


def test_calls_before_init_and_bad_arguments_raise(module):
    binned, full, raw, width, height, _ = module
    # Other tests may have initialised this process's one instance: ask a new process.
    before_init = ("import numpy as np, qvreconstruction as qv\n"
                   "try: qv.Reconstruction().calculate_depth(np.zeros(16 * 640 * 480, np.uint16), 640, 480)\n"
                   "except qv.QvError as e: print(e.status)")
    refused = subprocess.run([sys.executable, "-c", before_init], check=True, capture_output=True, text=True)
    assert refused.stdout.strip() == "-1"
    with pytest.raises(ValueError):
        qv.load_calibration("/nonexistent/module.yaml")


def test_inputs_the_library_cannot_serve_exactly_are_refused(module, tmp_path):
    binned, full, raw, width, height, _ = module
    r = qv.Reconstruction()
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
    r.init(binned, full)
    depth = r.calculate_depth(raw, width, height)
    nv12 = qv.render_colour(full)
    # Sizes that are not the stream's images: the full stream's frames are 640 x 480 and
    # binned 320 x 240; depth images have those shapes (or the colour camera's).
    for w, h, words in [(640, 480, raw[:1000]), (480, 640, raw), (320, 480, raw), (320, 240, raw),
                        (640, 480, np.append(raw, 0))]:
        for op in (r.calculate_depth, r.get_ir):
            with pytest.raises(ValueError, match="raw|frame"):
                op(words, w, h)
    for image in (depth.T, depth[:, :-1], depth.reshape(-1), depth[np.newaxis], np.zeros((1080, 1921), np.uint16)):
        for op in (r.get_cloud_point, r.convert_to_rgb):
            with pytest.raises(ValueError, match="depth"):
                op(image)
        with pytest.raises(ValueError, match="depth"):
            r.map_depth_to_rgb(image, nv12)
    for image in (np.zeros((1080, 1920), np.uint16), np.zeros((481, 640), np.uint16)):
        with pytest.raises(ValueError, match="480, 640"):
            r.map_depth_to_rgb(image, nv12)
    with pytest.raises(ValueError, match="nv12"):
        r.map_depth_to_rgb(depth, nv12[:-1])
    assert r.get_cloud_point(np.zeros((1080, 1920), np.uint16)).shape == (1080, 1920, 3)

    # Values a cast would change: floats (metres), NaN, negatives, complex, booleans.
    metres = depth / 1000.0
    for image, error in [(metres, TypeError), (np.full_like(metres, np.nan), TypeError),
                         (depth.astype(np.int32) - 1, ValueError), (depth.astype(np.complex64), TypeError),
                         (depth > 0, TypeError), (depth.astype(np.int64) + 65536, ValueError)]:
        with pytest.raises(error, match="depth"):
            r.get_cloud_point(image)
    with pytest.raises(TypeError, match="raw"):
        r.calculate_depth(raw.astype(np.float32), width, height)
    with pytest.raises(ValueError, match="nv12"):
        r.map_depth_to_rgb(depth, nv12.astype(np.int16) * 2)
    # Integers that fit are the same frame, in any integer type or byte order.
    assert np.array_equal(r.calculate_depth(raw.astype(">u2"), width, height), depth)
    assert np.array_equal(r.get_cloud_point(depth.astype(np.int64)), r.get_cloud_point(depth))

    # The simulator takes what qvrecon simulate takes.
    for bad in [dict(distance_mm=0), dict(distance_mm=-1), dict(distance_mm=np.nan), dict(distance_mm=70000),
                dict(temperature=np.nan), dict(temperature=1e30), dict(noise=-1), dict(noise=np.inf)]:
        with pytest.raises(ValueError, match="outside"):
            qv.simulate_capture(full, **bad)
    with pytest.raises(ValueError, match="outside"):
        qv.render_colour(full, distance_mm=0)
    qv.simulate_capture(full, distance_mm=1, temperature=-40, noise=1000)

    # A path is the whole string: one holding a NUL is no file's name.
    qv.save_calibration(str(tmp_path / "cal.yaml"), binned, full)
    with pytest.raises(ValueError, match="NUL"):
        qv.load_calibration(str(tmp_path / "cal.yaml") + "\0junk")
    with pytest.raises(ValueError, match="NUL"):
        qv.save_calibration(str(tmp_path / "other.yaml") + "\0junk", binned, full)
    assert not (tmp_path / "other.yaml").exists()


def test_single_stream_init_takes_the_binned_record_in_the_documented_order(module):
    binned, full, _, _, _, _ = module
    raw, w, h, truth = qv.simulate_capture(binned, scene="wall", stream="single")
    r = qv.Reconstruction()
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.SINGLE_FREQ)
    r.init(binned, binned)
    expected = r.calculate_depth(raw, w, h)
    r.init(binned, full)  # the order init takes on the full stream
    assert np.array_equal(r.calculate_depth(raw, w, h), expected)
    assert np.median(np.abs(expected[40:200, 40:280] - truth[40:200, 40:280])) < 5
    with pytest.raises(ValueError, match="binned, full"):
        r.init(full, binned)  # a full read-out's record cannot serve the 320 x 240 stream
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
    with pytest.raises(ValueError, match="binned, full"):
        r.init(binned, binned)


def test_depth_equals_the_cpp_example_and_the_scene(module, tmp_path):
    binned, full, raw, width, height, truth = module
    r = qv.Reconstruction()
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
    r.init(binned, full)
    depth = r.calculate_depth(raw, width, height)
    assert depth.shape == (height, width) and depth.dtype == np.uint16
    centre = depth[100:380, 100:540].astype(int) - truth[100:380, 100:540]
    assert np.percentile(np.abs(centre), 99) <= 6

    capture = tmp_path / "capture.raw"
    raw.astype("<u2").tofile(capture)
    out = tmp_path / "depth.pgm"
    subprocess.run([os.environ["QV_EXAMPLE"], os.environ["QV_SAMPLE_CALIBRATION"], str(capture), str(out)],
                   check=True, capture_output=True)
    data = out.read_bytes()
    cpp = np.frombuffer(data[len(data) - 2 * width * height:], ">u2").reshape(height, width)
    assert np.array_equal(depth, cpp)

    points = r.get_cloud_point(depth)
    assert points.shape == (height, width, 3) and points.dtype == np.float32
    assert abs(points[240, 320, 2] - depth[240, 320]) <= 1
    colour = r.convert_to_rgb(depth)
    assert colour.shape == (height, width, 3) and colour.dtype == np.uint8
    registered_colour, registered = r.map_depth_to_rgb(depth, qv.render_colour(full))
    assert registered_colour.shape == (1080, 1920, 3) and registered.shape == (1080, 1920)
    assert np.count_nonzero(registered > 9) > 0.5 * 1920 * 1080
    depth_lens, rgb_lens = r.intrinsics(full)
    assert (depth_lens.width, rgb_lens.width) == (640, 1920)


def test_arrays_own_their_memory_and_nothing_grows_over_many_calls(module):
    binned, full, raw, width, height, _ = module
    r = qv.Reconstruction()
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
    r.init(binned, full)
    first = r.calculate_depth(raw, width, height)
    second = r.calculate_depth(raw, width, height)
    assert first.base is not None and not np.shares_memory(first, second)
    refs = sys.getrefcount(raw)
    for _ in range(50):  # settle the allocator
        r.get_cloud_point(r.calculate_depth(raw, width, height))
    before = rss_bytes()
    for _ in range(1000):
        r.get_cloud_point(r.calculate_depth(raw, width, height))
    grown = rss_bytes() - before
    assert sys.getrefcount(raw) == refs
    assert grown < 16 << 20, f"resident memory grew by {grown} bytes over 1000 frames"
    del first
    assert np.array_equal(second, r.calculate_depth(raw, width, height))


def test_calibration_round_trip(tmp_path):
    binned, full = qv.sample_calibration()
    full.label = "modul \u00c4 \u6df1\u5ea6"
    full.depth_offset_f2 = -0.125
    for name in ("module.yaml", "module.json"):
        path = str(tmp_path / name)
        qv.save_calibration(path, binned, full)
        back_binned, back_full = qv.load_calibration(path)
        assert back_full == full and back_binned == binned
    with pytest.raises(ValueError, match="unknown field"):
        (tmp_path / "bad.yaml").write_text("full:\n  depthOfset: 3\n")
        qv.load_calibration(str(tmp_path / "bad.yaml"))


def test_type_hints_name_what_the_module_has():
    stub = ast.parse(open(os.path.join(os.path.dirname(qv.__file__), "_core.pyi")).read())
    top = {n.name for n in stub.body if isinstance(n, (ast.FunctionDef, ast.ClassDef))}
    assert top == {n for n in dir(qv._core) if not n.startswith("_")}
    for cls in (n for n in stub.body if isinstance(n, ast.ClassDef)):
        hinted = {m.name for m in cls.body if isinstance(m, ast.FunctionDef) and not m.name.startswith("_")}
        hinted |= {m.target.id for m in cls.body if isinstance(m, ast.AnnAssign)}
        actual = {n for n in dir(getattr(qv._core, cls.name)) if not n.startswith("_")}
        assert hinted <= actual, (cls.name, hinted - actual)
        if cls.name in ("Reconstruction", "Intrinsics", "RecordedFrame", "RecordingReader", "RecordingWriter"):
            assert hinted == actual, (cls.name, actual - hinted)
