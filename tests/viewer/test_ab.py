"""A/B in the real `qvrecon view`: every frame through the library twice, A with the
settings, B with B's filter and calibration; B's snapshots and stream equal `qvrecon
depth` run with B's settings, whatever order the frames are shown in."""

import json
import struct
import zlib

from test_viewer import FRAMES, WebSocket, assets, inputs, tool_outputs, viewer  # noqa: F401 (fixtures)


def png_u16(data):
    """The pixels of a 16-bit grey PNG, as a list of rows of ints."""
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    pos, idat = 8, b""
    while pos < len(data):
        n, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + n]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
            assert (depth, colour) == (16, 0)
        elif kind == b"IDAT":
            idat += body
        pos += 12 + n
    raw, stride, rows, prior = zlib.decompress(idat), 2 * width, [], bytearray(2 * width)
    for r in range(height):
        kind, line = raw[r * (stride + 1)], bytearray(raw[r * (stride + 1) + 1:(r + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - 2] if i >= 2 else 0
            b, c = prior[i], prior[i - 2] if i >= 2 else 0
            if kind == 1:
                line[i] = (line[i] + a) & 0xFF
            elif kind == 2:
                line[i] = (line[i] + b) & 0xFF
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 0xFF
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 0xFF
        rows.append(list(struct.unpack(">%dH" % width, bytes(line))))
        prior = line
    return rows


def snapshot(v, part, k):
    res, data = v.request("GET", "/api/frame/" + part)
    assert res.status == 200 and res.getheader("X-Frame-Index") == str(k), (part, res.status, data[:200])
    return data


def test_b_with_the_filter_off_equals_the_tool_and_streams(viewer, inputs, tmp_path):
    v = viewer(str(inputs / "session.mcap"))
    assert v.post("/api/playback", {"action": "pause"})[0] == 200
    res, _ = v.request("GET", "/api/frame/depth_b.png")
    assert res.status == 404  # A/B starts off
    status, answer = v.post("/api/settings", {"ab": True})
    assert status == 200 and answer["ab"] and answer["b"] == {"filter": False, "range": [300, 4500], "calibration": "a"}
    for k in [2, 0]:
        assert v.post("/api/playback", {"action": "seek", "frame": k})[0] == 200
        on, off = tool_outputs(tmp_path, inputs / f"capture_{k}.raw"), \
            tool_outputs(tmp_path, inputs / f"capture_{k}.raw", "--filter", "off")
        assert snapshot(v, "depth.png", k) == (on / f"capture_{k}_depth.png").read_bytes()
        assert snapshot(v, "depth_b.png", k) == (off / f"capture_{k}_depth.png").read_bytes()
    meta = v.get_json("/api/frame/meta.json")
    assert meta["settings"]["ab"] and meta["settings"]["b"]["filter"] is False
    status = v.get_json("/api/status")
    assert status["settings"]["ab"] and status["calibration_b"] is False and status["stages_ms"]["depth_b"] > 0

    # The stream carries B's depth as asked, decimated like A's.
    b_rows = png_u16(snapshot(v, "depth_b.png", 0))
    ws = WebSocket(v.port)
    ws.send_text(json.dumps({"type": "options", "decimate": 2, "blobs": ["depth", "depth_b"]}))
    assert v.post("/api/settings", {"b": {"range": [400, 4000]}})[0] == 200  # frame 0 shown again
    while True:
        header, blobs = ws.frame()
        if header["blobs"][0]["width"] == 320 and "depth_b" in blobs:
            break
    assert [(b["name"], b["encoding"], b["width"], b["height"]) for b in header["blobs"]] == \
        [("depth", "u16-deflate", 320, 240), ("depth_b", "u16-deflate", 320, 240)]
    got = struct.unpack("<%dH" % (320 * 240), zlib.decompress(blobs["depth_b"]))
    assert list(got) == [d for row in b_rows[::2] for d in row[::2]]
    assert blobs["depth_b"] != blobs["depth"]
    ws.close()

    # Off again: B is neither made nor served.
    assert v.post("/api/settings", {"ab": False})[0] == 200
    res, _ = v.request("GET", "/api/frame/depth_b.png")
    assert res.status == 404
    assert v.get_json("/api/status")["stages_ms"]["depth_b"] == 0


def test_b_with_its_own_calibration_equals_the_tool_in_any_order(viewer, inputs, tmp_path):
    # A binned recording: each binned frame halves the threshold for the frames after it,
    # in A's and in B's serial run alike, though A and B share the library's one instance.
    calib_b = inputs / "calib_b.yaml"
    a = tool_outputs(tmp_path, inputs / "mixed.mcap")
    b = tool_outputs(tmp_path, inputs / "mixed.mcap", "--calib", str(calib_b))
    b_off = tool_outputs(tmp_path, inputs / "mixed.mcap", "--filter", "off")
    v = viewer(str(inputs / "mixed.mcap"), "--calib-b", str(calib_b))
    assert v.post("/api/playback", {"action": "pause"})[0] == 200
    status, answer = v.post("/api/settings", {"ab": True})
    assert status == 200 and answer["b"] == {"filter": True, "range": [300, 4500], "calibration": "b"}
    assert v.get_json("/api/status")["calibration_b"] is True
    for k in [4, 1, 4, 3, 0, 2]:
        assert v.post("/api/playback", {"action": "seek", "frame": k})[0] == 200
        assert snapshot(v, "depth.png", k) == (a / f"mixed_{k:06d}_depth.png").read_bytes(), k
        assert snapshot(v, "depth_b.png", k) == (b / f"mixed_{k:06d}_depth.png").read_bytes(), k
    assert (a / "mixed_000002_depth.png").read_bytes() != (b / "mixed_000002_depth.png").read_bytes()
    # B on A's calibration with the filter off: one calibration, converted twice a frame.
    assert v.post("/api/settings", {"b": {"calibration": "a", "filter": False}})[0] == 200
    for k in [0, 3, 2, 4]:
        assert v.post("/api/playback", {"action": "seek", "frame": k})[0] == 200
        assert snapshot(v, "depth.png", k) == (a / f"mixed_{k:06d}_depth.png").read_bytes(), k
        assert snapshot(v, "depth_b.png", k) == (b_off / f"mixed_{k:06d}_depth.png").read_bytes(), k


def test_bad_ab_requests_change_nothing_and_read_only_refuses(viewer, inputs):
    v = viewer(str(inputs / "session.mcap"))
    before = v.get_json("/api/settings")
    for body in [{"ab": 1}, {"ab": "on"}, {"b": []}, {"b": {"filter": "off"}}, {"b": {"range": [900, 900]}},
                 {"b": {"range": [0, 70000]}}, {"b": {"calibration": "c"}}, {"b": {"flip": "both"}},
                 {"b": {"calibration": "b"}},  # no --calib-b
                 {"ab": True, "b": {"filter": True, "calibration": "/etc/passwd"}}]:
        status, answer = v.post("/api/settings", body)
        assert status == 400 and set(answer) == {"error"} and "\n" not in answer["error"], body
    assert v.get_json("/api/settings") == before and not before["ab"]
    v.close()

    r = viewer(str(inputs / "session.mcap"), "--read-only", "--calib-b", str(inputs / "calib_b.yaml"))
    status, _ = r.post("/api/settings", {"ab": True})
    assert status == 403 and not r.get_json("/api/settings")["ab"]


def test_a_bad_second_calibration_stops_the_viewer_before_it_serves(inputs, tmp_path):
    import subprocess
    from test_viewer import QVRECON
    bad = tmp_path / "bad.yaml"
    bad.write_text("not: [a calibration\n")
    run = subprocess.run([QVRECON, "view", str(inputs / "session.mcap"), "--listen", "127.0.0.1:0",
                          "--calib-b", str(bad)], capture_output=True, text=True, timeout=60)
    assert run.returncode != 0 and "bad.yaml" in run.stderr and "qvrecon view:" not in run.stdout
