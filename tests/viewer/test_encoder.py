"""The server's encoder thread, against the real server: a client taking every blob at
full size (the costliest encoding) still gets the frame of every settings change and
of every step of a paused recording, the last one asked for always; the encoder's
figures in /api/status agree with what the client was offered."""

import threading
import time

from test_stream_flow import connect  # a client at full size, every blob (the default), and its id
from test_viewer import FRAMES, assets, inputs, viewer  # noqa: F401 (fixtures)


def figures(v, ws_id):
    status = v.get_json("/api/status")
    return status, next(c for c in status["client_list"] if c["id"] == ws_id)


def check_counts(status, mine):
    # Every frame offered to the client was encoded first (and counted before it could be
    # offered); a frame is offered once, then sent, dropped or left waiting.
    enc = status["encoder"]
    assert enc["encoded"] >= mine["sent"] + mine["dropped"] + int(mine["pending"])
    assert enc["not_encoded"] >= 0
    assert status["rates"]["encoded_fps"] > 0 and status["stages_ms"]["encode"] > 0


def settle(v, ws, rng):
    """Changes the range of a paused viewer and reads the stream up to the frame that
    shows it: its answer comes once that frame, the last, has gone to the clients."""
    assert v.post("/api/settings", {"range": rng})[0] == 200
    wanted = v.get_json("/api/status")["settings_version"]
    while True:
        header, _ = ws.frame()
        if header["settings_version"] == wanted:
            return header


def test_settings_changes_reach_a_full_size_client(viewer, inputs):  # noqa: F811
    v = viewer(str(inputs / "session.mcap"), "--fps", "30")
    # Without a client frames are processed and nothing is encoded.
    status = v.get_json("/api/status")
    while status["frame"] is None:
        time.sleep(0.05)  # polling gently; no time limit but ctest's
        status = v.get_json("/api/status")
    assert status["encoder"] == {"encoded": 0, "not_encoded": 0} and status["rates"]["encoded_fps"] == 0
    ws, ws_id = connect(v)
    header, blobs = ws.frame()
    assert header["blobs"][0]["width"] == 640 and "registered" in blobs
    versions = [header["settings_version"]]
    for rng in ([400, 3000], [500, 3500], [300, 4500]):
        assert v.post("/api/settings", {"range": rng})[0] == 200
        wanted = v.get_json("/api/status")["settings_version"]
        # The stream's versions never go back, and the new one comes, however far behind
        # the encoder is (a newer frame may replace one it has not started).
        while versions[-1] != wanted:
            header, _ = ws.frame()
            assert header["settings_version"] >= versions[-1]
            versions.append(header["settings_version"])
    status, mine = figures(v, ws_id)
    check_counts(status, mine)
    ws.close()


def test_steps_of_a_paused_recording_each_deliver_their_frame(viewer, inputs):  # noqa: F811
    v = viewer(str(inputs / "session.mcap"), "--fps", "30")
    ws, ws_id = connect(v)
    ws.frame()
    assert v.post("/api/playback", {"action": "pause"})[0] == 200
    index = settle(v, ws, [400, 3000])["index"]
    assert v.get_json("/api/status")["frame"]["index"] == index

    # One step at a time: exactly the frame stepped to, encoded once and sent.
    for delta in (1, 1, -1, 1, 1):
        before = v.get_json("/api/status")["encoder"]
        code, answer = v.post("/api/playback", {"action": "step", "delta": delta})
        index = (index + delta) % FRAMES
        assert code == 200 and answer["frame"]["index"] == index
        assert answer["encoder"] == {"encoded": before["encoded"] + 1, "not_encoded": before["not_encoded"]}
        header, _ = ws.frame()
        assert header["index"] == index

    # Steps asked for at once, each on its own connection: the pipeline may take some
    # together and the encoder may skip some, but the last frame is the one they lead to,
    # and every frame encoded reaches the client or is dropped for it.
    before, mine = figures(v, ws_id)
    steps = 7
    answers = []
    threads = [threading.Thread(target=lambda: answers.append(v.post("/api/playback", {"action": "step"})))
               for _ in range(steps)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert [code for code, _ in answers] == [200] * steps
    index = (index + steps) % FRAMES
    after, mine_after = figures(v, ws_id)
    assert after["frame"]["index"] == index
    encoded = after["encoder"]["encoded"] - before["encoder"]["encoded"]
    skipped = after["encoder"]["not_encoded"] - before["encoder"]["not_encoded"]
    assert 1 <= encoded and encoded + skipped <= steps
    for _ in range(encoded - (mine_after["dropped"] - mine["dropped"])):
        header, _ = ws.frame()
    assert header["index"] == index
    status, mine = figures(v, ws_id)
    check_counts(status, mine)
    ws.close()
