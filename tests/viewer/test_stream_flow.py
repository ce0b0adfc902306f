"""The frame stream's flow control and automatic decimation, against the real server:
a client that sends credit gets frames only against it (and then the newest), bad
credit and options messages are refused and change nothing, and "auto" moves a client
to a coarser decimation when its link falls behind, never because it withholds credit."""

import json
import socket
import threading
import time

from test_viewer import FRAMES, WebSocket, assets, inputs, viewer  # noqa: F401 (fixtures)


def captures(inputs):  # noqa: F811
    # Frames stamped when processed: a later frame has a later time.
    return [str(inputs / f"capture_{k}.raw") for k in range(FRAMES)]


def client(v, ws_id):
    return next(c for c in v.get_json("/api/status")["client_list"] if c["id"] == ws_id)


def connect(v, recv_buffer=None):
    """A stream client and its id (the status it gets first names it)."""
    ws = WebSocket(v.port, recv_buffer=recv_buffer)
    assert ws.status == 101
    opcode, text = ws.message()
    status = json.loads(text)
    assert opcode == 1 and status["type"] == "status"
    return ws, status["client"]["id"]


def errors(ws, n):
    """Waits for n error answers; gives their texts and the number of frames read meanwhile."""
    out, frames = [], 0
    while len(out) < n:
        opcode, payload = ws.message()
        if opcode == 2:
            frames += 1
        elif json.loads(payload)["type"] == "error":
            out.append(json.loads(payload)["error"])
    return out, frames


def depth_width(header):
    return next(b["width"] for b in header["blobs"] if b["name"] == "depth")


def until(check):
    while not (value := check()):
        time.sleep(0.05)  # polling gently; no time limit but ctest's
    return value


class Throttled:
    """A socket read 4 KiB at a time, each 20 ms."""

    def __init__(self, sock):
        self.sock = sock

    def recv(self, n):
        time.sleep(0.02)  # the link's pace, not a wait for something
        return self.sock.recv(min(n, 4096))

    def sendall(self, data):
        self.sock.sendall(data)

    def close(self):
        self.sock.shutdown(socket.SHUT_RDWR)  # wakes the reader blocked in recv
        self.sock.close()


def test_credit_sends_only_what_was_granted_and_then_the_newest(viewer, inputs):  # noqa: F811
    v = viewer(*captures(inputs), "--fps", "30")
    held, held_id = connect(v)
    held.send_text('{"type": "credit", "frames": 1}')
    held.send_text("{}")  # refused after the credit is applied: frames after it are against credit
    _, before_credit = errors(held, 1)
    free, free_id = connect(v)  # never sends credit: every frame, as before
    for _ in range(60):
        last_free, _ = free.frame()
    first, first_blobs = held.frame()
    mine = client(v, held_id)
    # Only the frame that one credit bought, whatever came before the credit did.
    assert mine["sent"] in (before_credit + 1, before_credit + 2) and mine["credit"] == 0
    if mine["sent"] == before_credit + 2:  # the credit's frame went out before the refusal
        first, first_blobs = held.frame()
    assert mine["pending"] and mine["dropped"] >= 30
    assert client(v, free_id)["credit"] is None and client(v, free_id)["sent"] >= 60
    # Credit given later brings the newest frame: at least as new as every frame the
    # other client has had, not the one after the first.
    held.send_text('{"type": "credit", "frames": 1}')
    second, blobs = held.frame()
    assert second["time_ns"] >= last_free["time_ns"] > first["time_ns"]
    assert set(blobs) == set(first_blobs) == {"depth", "false_colour", "ir"}  # captures have no colour
    assert client(v, held_id)["sent"] == mine["sent"] + 1
    held.close()
    free.close()


def test_credit_in_the_address_holds_back_frames_from_the_start(viewer, inputs):  # noqa: F811
    v = viewer(*captures(inputs), "--fps", "30")
    for bad in ("0", "17", "-1", "1.5", "x", "", "001", "99999999999"):
        ws = WebSocket(v.port, path=f"/api/stream?credit={bad}")
        assert ws.status == 400, bad
        ws.close()
    # Two credits in the address: two frames, then none until more credit comes, although
    # the client never sent a credit message.
    ws = WebSocket(v.port, path="/api/stream?credit=2")
    assert ws.status == 101
    opcode, text = ws.message()
    ws_id = json.loads(text)["client"]["id"]
    assert json.loads(text)["client"]["credit"] == 2
    ws.frame()
    ws.frame()
    until(lambda: client(v, ws_id)["dropped"] >= 10)  # frames made meanwhile, missed
    assert client(v, ws_id)["sent"] == 2 and client(v, ws_id)["credit"] == 0
    ws.send_text('{"type": "credit", "frames": 1}')
    ws.frame()
    until(lambda: client(v, ws_id)["sent"] == 3)
    ws.close()


def test_frames_are_encoded_only_for_what_a_client_takes_and_a_stale_one_is_replaced(viewer, inputs):  # noqa: F811
    v = viewer(*captures(inputs), "--fps", "30")
    held = WebSocket(v.port, path="/api/stream?credit=1")
    opcode, text = held.message()
    held_id = json.loads(text)["client"]["id"]
    held.frame()
    until(lambda: client(v, held_id)["credit"] == 0)
    # Alone and without credit, the client costs the encoder one frame, which waits in
    # its slot for the next credit (and one begun before); frames go on being processed
    # and count as dropped for it.
    encoded = v.get_json("/api/status")["encoder"]["encoded"]
    until(lambda: client(v, held_id)["dropped"] >= 10)
    assert v.get_json("/api/status")["encoder"]["encoded"] <= encoded + 2
    assert client(v, held_id)["pending"]

    # Beside it a client without flow control at another decimation: every frame is
    # encoded for it alone. Credit then brings the held client the newest frame (encoded
    # for it alone; the other gets no frame twice), not the one that waited too long.
    free, free_id = connect(v)
    free.send_text('{"type": "options", "decimate": 2}')
    times = []
    while len(times) < 20:
        header, _ = free.frame()
        if depth_width(header) == 320:
            times.append(header["time_ns"])
    held.send_text('{"type": "credit", "frames": 1}')
    header, _ = held.frame()
    assert depth_width(header) == 640 and header["time_ns"] >= times[-1]
    for _ in range(10):
        times.append(free.frame()[0]["time_ns"])
    assert times == sorted(set(times))
    free.close()

    # Paused, a step processed while the client has no credit: credit brings that frame,
    # not the one waiting in its slot from before.
    until(lambda: client(v, held_id)["pending"])
    assert v.post("/api/playback", {"action": "pause"})[0] == 200
    code, answer = v.post("/api/playback", {"action": "step"})
    assert code == 200 and client(v, held_id)["credit"] == 0
    held.send_text('{"type": "credit", "frames": 1}')
    header, _ = held.frame(limit=60)
    assert header["index"] == answer["frame"]["index"]
    assert client(v, held_id)["sent"] == 3
    held.close()


def test_bad_credit_and_options_are_refused_and_change_nothing(viewer, inputs):  # noqa: F811
    v = viewer(*captures(inputs), "--fps", "30")
    ws, ws_id = connect(v)
    ws.send_text('{"type": "options", "decimate": 2, "blobs": ["depth"]}')
    ws.send_text('{"type": "credit", "frames": 1}')
    until(lambda: client(v, ws_id)["credit"] == 0)  # its frame sent: nothing moves now
    before = client(v, ws_id)
    assert before["decimate"] == 2 and not before["auto"]
    bad = [
        '{"type": "credit", "frames": 0}',
        '{"type": "credit", "frames": 17}',
        '{"type": "credit", "frames": -1}',
        '{"type": "credit", "frames": 1.5}',
        '{"type": "credit", "frames": "1"}',
        '{"type": "credit", "frames": true}',
        '{"type": "credit", "frames": 1, "more": 1}',
        '{"type": "options", "decimate": "automatic"}',
        '{"type": "options", "decimate": "auto", "blobs": ["depth", "x"]}',
        '{"type": "options", "decimate": 3}',
        '{"type": "options", "decimate": 1, "blobs": "depth"}',
        '{"type": "ack", "frames": 1}',
        '{"frames": 1}',
        '[{"type": "credit"}]',
        'credit 1',
    ]
    for text in bad:
        ws.send_text(text)
    answers, _ = errors(ws, len(bad))
    assert all(a and "\n" not in a for a in answers)
    after = client(v, ws_id)
    assert {k: after[k] for k in ("decimate", "credit", "auto")} == {"decimate": 2, "credit": 0, "auto": False}
    # Credit piles up to 16 at most (paused, one frame at most waits to use some).
    assert v.post("/api/playback", {"action": "pause"})[0] == 200
    for _ in range(3):
        ws.send_text('{"type": "credit", "frames": 16}')
    ws.send_text("{}")
    errors(ws, 1)
    assert client(v, ws_id)["credit"] == 16
    ws.close()


def test_auto_decimation_follows_the_link_not_the_credit(viewer, inputs):  # noqa: F811
    v = viewer(*captures(inputs), "--fps", "30")
    # A client whose link is idle, that took one small frame and takes no more: a slow
    # page. Its link has headroom: it may go finer, never coarser.
    thrifty, thrifty_id = connect(v)
    thrifty.send_text('{"type": "options", "decimate": 4, "blobs": ["depth"]}')
    thrifty.send_text('{"type": "credit", "frames": 1}')
    until(lambda: client(v, thrifty_id)["credit"] == 0)
    thrifty.send_text('{"type": "options", "decimate": "auto"}')
    # A link that cannot keep up: a tiny receive buffer read slowly (4 KiB each 20 ms,
    # about 200 kB/s, for frames of about 0.6 MB at full size, 50 kB at 1/4), by a
    # client that asks for each frame once it has the last, as the page does.
    slow, slow_id = connect(v, recv_buffer=4096)
    slow.sock = Throttled(slow.sock)
    slow.send_text('{"type": "credit", "frames": 1}')
    slow.send_text('{"type": "options", "decimate": "auto"}')
    stop = threading.Event()

    def drain():
        try:
            while not stop.is_set():
                slow.frame()
                slow.send_text('{"type": "credit", "frames": 1}')
        except (OSError, ConnectionError):
            pass

    def keep_alive():  # reads thrifty's status messages and answers the server's pings
        try:
            while True:
                thrifty.message()
        except (OSError, ConnectionError):
            pass

    until(lambda: client(v, slow_id)["auto"] and client(v, thrifty_id)["auto"])
    reader = threading.Thread(target=drain)
    reader.start()
    pinged = threading.Thread(target=keep_alive)
    pinged.start()
    try:
        held = []

        def settled():
            clients = {c["id"]: c for c in v.get_json("/api/status")["client_list"]}
            held.append(clients[thrifty_id]["decimate"])
            return clients[slow_id] if clients[slow_id]["decimate"] == 4 else None

        at4 = until(settled)

        def later():
            now = settled()
            assert now, "the slow link's client moved finer"
            return now["dropped"] >= at4["dropped"] + 60 and held[-1] == 1

        # The slow link stays at 1/4 (it is still behind); the held client's idle link
        # went finer, to full size, and never coarser.
        until(later)
        assert held == sorted(held, reverse=True) and client(v, thrifty_id)["sent"] == 1
    finally:
        stop.set()
        slow.close()
        reader.join()
        thrifty.sock.shutdown(socket.SHUT_RDWR)  # wakes keep_alive blocked in recv
        thrifty.close()
        pinged.join()
