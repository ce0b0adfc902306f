#!/usr/bin/env python3
"""The viewer server's CPU per frame and bytes per frame per client.

Records a simulated session of the full stream with colour at 30 frames a second
(`qvrecon record --simulate boxes`, with sensor noise) into a temporary folder, then
starts the real `qvrecon view` on it and, for each configuration in turn, lets it run and
measures over SECONDS: the server process's CPU time (user + system, all its threads, from
/proc/PID/stat), that of its pipeline and encoder threads (qv-pipeline, qv-encoder, from
/proc/PID/task, with the threads they started), the frames its pipeline processed and those its encoder encoded (from
/api/status), with no client
(the pipeline alone) and with 1 and 4 WebSocket clients that read everything as fast as
they can, each with one set of stream options:

    full   every blob at decimation 1
    page   what the page asks for at 1600 x 1000 with every picture in sight: depth,
           IR, colour and registered depth at decimation 1, the colour grid drawn
           384 pixels wide (480 x 270 on the link)
    half   every blob at decimation 2 (the page's "1/2"; colour at 960 x 540)
    light  depth, false colour and IR at decimation 2

CPU time per frame does not depend on other load the way wall-clock rates do; the
frames a second do. The pipeline thread's CPU per frame processed says what rate it
keeps with a core of its own. Prints a table.

    python3 bench/viewer_server_cpu.py [--qvrecon build/bin/qvrecon] [--seconds 10]
        [--frames 60] [--clients 0,1,4] [--options full,half,light] [--recording FILE]

(--recording plays a recording made before, with `qvrecon record --simulate boxes
--frames 60 --fps 30 --noise 1 --out FILE`, instead of making one: simulating the colour
frames takes most of a minute.)
"""

import argparse
import base64
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

OPTIONS = {
    "full": {"type": "options", "decimate": 1},
    "page": {"type": "options", "decimate": 1, "blobs": ["depth", "ir", "colour", "registered"], "colour_width": 384},
    "half": {"type": "options", "decimate": 2},
    "light": {"type": "options", "decimate": 2, "blobs": ["depth", "false_colour", "ir"]},
}
TICKS = os.sysconf("SC_CLK_TCK")
WAIT = 180  # seconds for anything to start, on a loaded machine


def cpu_seconds(pid, tid=None):
    """User + system CPU of a process, all its threads, or of one thread, in seconds."""
    with open(f"/proc/{pid}/stat" if tid is None else f"/proc/{pid}/task/{tid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS  # utime, stime (fields 14 and 15)


def threads_cpu(pid, names):
    """CPU seconds of a process's threads by name, for the names it has (a build before
    the threads had names has none). A thread started by a named one (a worker pool's)
    inherits its name and counts with it."""
    out = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/comm") as f:
                name = f.read().strip()
            if name in names:
                out[name] = out.get(name, 0.0) + cpu_seconds(pid, tid)
        except OSError:
            continue  # ended meanwhile
    return out


class Client(threading.Thread):
    """A WebSocket client of /api/stream that reads every message as fast as it can and
    counts the frame messages and their bytes."""

    def __init__(self, port, options):
        super().__init__(daemon=True)
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=WAIT)
        key = base64.b64encode(os.urandom(16)).decode()
        self.sock.sendall((f"GET /api/stream HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nUpgrade: websocket\r\n"
                           f"Connection: Upgrade\r\nSec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\n\r\n")
                          .encode())
        self.reader = self.sock.makefile("rb", buffering=1 << 20)
        status = self.reader.readline().split()
        if len(status) < 2 or status[1] != b"101":
            raise RuntimeError(f"the stream refused the connection: {status}")
        while self.reader.readline() not in (b"\r\n", b""):
            pass
        self.send(0x1, json.dumps(options).encode())
        self.frames = 0
        self.bytes = 0
        self.error = None

    def send(self, opcode, data):
        mask = os.urandom(4)
        n = len(data)
        head = bytes([0x80 | opcode]) + (bytes([0x80 | n]) if n < 126 else bytes([0x80 | 126]) + struct.pack(">H", n))
        self.sock.sendall(head + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(data)))

    def exact(self, n):
        data = self.reader.read(n)
        if data is None or len(data) < n:
            raise ConnectionError("closed")
        return data

    def run(self):
        kind = None  # the opcode of the message whose fragments arrive
        try:
            while True:
                b0, b1 = self.exact(2)
                n = b1 & 0x7F
                if n == 126:
                    n = struct.unpack(">H", self.exact(2))[0]
                elif n == 127:
                    n = struct.unpack(">Q", self.exact(8))[0]
                payload = self.exact(n)
                opcode = b0 & 0x0F
                if opcode == 0x9:
                    self.send(0xA, payload)
                    continue
                if opcode == 0x8:
                    return
                if opcode != 0x0:
                    kind = opcode
                if kind == 0x2:
                    self.bytes += n
                    self.frames += 1 if b0 & 0x80 else 0
        except (OSError, ValueError, ConnectionError) as e:
            self.error = e

    def close(self):
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.sock.close()


class Viewer:
    """A running `qvrecon view` on a recording."""

    def __init__(self, qvrecon, recording, folder):
        self.log = open(os.path.join(folder, "view.log"), "w+")
        self.proc = subprocess.Popen([qvrecon, "view", recording, "--listen", "127.0.0.1:0", "--assets", folder,
                                      "--record-dir", folder], stdout=self.log, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + WAIT
        while True:
            self.log.seek(0)
            m = re.search(r"qvrecon view: http://127\.0\.0\.1:(\d+)/", self.log.read())
            if m:
                self.port = int(m.group(1))
                break
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.log.seek(0)
                raise RuntimeError(f"qvrecon view did not start: {self.log.read()}")
            time.sleep(0.05)

    def status(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/api/status", timeout=WAIT) as res:
            return json.loads(res.read())

    def close(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.wait(timeout=WAIT)
        self.log.close()


class FrameCounter:
    """Frames the pipeline processed, from the frame index in /api/status: playback
    takes every frame in turn and loops, so the index's steps (modulo the recording's
    frames) add up to the frames processed, when polled faster than a loop takes."""

    def __init__(self, viewer):
        self.viewer = viewer
        self.total = 0
        self.last = None

    def poll(self):
        s = self.viewer.status()
        frames = s["source"]["frames"]
        index = s["frame"]["index"] if s["frame"] else None
        if index is not None:
            if self.last is not None:
                self.total += (index - self.last) % frames
            self.last = index
        return s


def measure(viewer, clients, options, seconds, warmup):
    # No client of an earlier row left.
    deadline = time.monotonic() + WAIT
    while viewer.status().get("client_list"):
        if time.monotonic() > deadline:
            raise RuntimeError("the clients of the row before are still connected")
        time.sleep(0.05)
    readers = []
    try:
        readers = [Client(viewer.port, OPTIONS[options]) for _ in range(clients)]
        for r in readers:
            r.start()
        counter = FrameCounter(viewer)
        # Running: a processed frame, and a frame at every client.
        while counter.poll()["frame"] is None or any(r.frames == 0 for r in readers):
            if time.monotonic() > deadline or any(r.error for r in readers):
                raise RuntimeError("the viewer sent no frame")
            time.sleep(0.05)
        time.sleep(warmup)

        def snapshot():
            s = counter.poll()
            sent = {c["id"]: c["dropped"] for c in s.get("client_list", [])}
            by_thread = threads_cpu(viewer.proc.pid, ("qv-pipeline", "qv-encoder"))
            encoded = s["encoder"]["encoded"] if "encoder" in s else None
            return (time.monotonic(), cpu_seconds(viewer.proc.pid), counter.total,
                    [(r.frames, r.bytes) for r in readers], sent, by_thread, encoded)

        t0, cpu0, n0, got0, dropped0, threads0, enc0 = snapshot()
        end = t0 + seconds
        while time.monotonic() < end:
            time.sleep(min(0.1, max(0.0, end - time.monotonic())))
            counter.poll()
        t1, cpu1, n1, got1, dropped1, threads1, enc1 = snapshot()
        for r in readers:
            if r.error:
                raise RuntimeError(f"a client failed: {r.error}")
    finally:
        for r in readers:
            r.close()
    frames = n1 - n0
    received = [f1 - f0 for (f0, _), (f1, _) in zip(got0, got1)]
    got_bytes = [b1 - b0 for (_, b0), (_, b1) in zip(got0, got1)]
    dropped = [dropped1[k] - dropped0.get(k, 0) for k in dropped1]
    wall = t1 - t0
    encoded = enc1 - enc0 if enc0 is not None else None

    def thread_ms(name, count):
        if name not in threads0 or name not in threads1 or not count:
            return None
        return 1000 * (threads1[name] - threads0[name]) / count

    return {
        "clients": clients,
        "options": options if clients else "-",
        "fps": frames / wall,
        "cpu_ms": 1000 * (cpu1 - cpu0) / frames if frames else None,
        "cpu_share": (cpu1 - cpu0) / wall,
        "encoded_fps": encoded / wall if encoded is not None and clients else None,
        "pipeline_ms": thread_ms("qv-pipeline", frames),
        "encoder_ms": thread_ms("qv-encoder", encoded),
        "received_fps": sum(received) / len(received) / wall if received else None,
        "kb_per_frame": sum(got_bytes) / sum(received) / 1000 if sum(received) else None,
        "dropped_fps": sum(dropped) / len(dropped) / wall if dropped else None,
    }


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--qvrecon", default="build/bin/qvrecon")
    p.add_argument("--seconds", type=float, default=10.0, help="measured seconds a configuration")
    p.add_argument("--warmup", type=float, default=2.0, help="seconds run before measuring")
    p.add_argument("--frames", type=int, default=60,
                   help="frames of the recording, played in a loop (at least 10)")
    p.add_argument("--recording", help="a recording to play instead of a new simulated one")
    p.add_argument("--clients", default="0,1,4")
    p.add_argument("--options", default="full,page,half,light", help=f"client options among {','.join(OPTIONS)}")
    a = p.parse_args()
    counts = [int(c) for c in a.clients.split(",")]
    names = a.options.split(",")
    if any(n not in OPTIONS for n in names) or any(c < 0 or c > 16 for c in counts) or a.frames < 10:
        p.error("clients take 0 to 16, options " + ", ".join(OPTIONS) + ", frames at least 10")

    with tempfile.TemporaryDirectory(prefix="qv_viewer_bench_") as folder:
        recording = a.recording or os.path.join(folder, "session.mcap")
        if not a.recording:
            subprocess.run([a.qvrecon, "record", "--simulate", "boxes", "--frames", str(a.frames), "--fps", "30",
                            "--noise", "1", "--out", recording], check=True, stdout=subprocess.DEVNULL)
        load = os.getloadavg()
        rows = []
        viewer = Viewer(a.qvrecon, recording, folder)
        try:
            for c in counts:
                for name in (names if c else [None]):
                    rows.append(measure(viewer, c, name, a.seconds, a.warmup))
                    print(f"measured {c} client(s) {name or ''}", file=sys.stderr, flush=True)
        finally:
            viewer.close()
        load_end = os.getloadavg()

    def f(v, fmt):
        return "-" if v is None else fmt % v

    played = a.recording or "a simulated recording of the full stream with colour at 30 fps"
    print(f"qvrecon view on {played}; {a.seconds:g} s a row; "
          f"{os.cpu_count()} cores, load average {load[0]:.1f} before, {load_end[0]:.1f} after")
    print("| clients | options | frames/s | encoded frames/s | server CPU ms/frame | server CPU (cores) "
          "| pipeline thread ms/frame | encoder thread ms/encoded frame "
          "| received frames/s per client | dropped/s per client | KB/frame per client |")
    print("|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
    for r in rows:
        print(f"| {r['clients']} | {r['options']} | {r['fps']:.1f} | {f(r['encoded_fps'], '%.1f')} | "
              f"{f(r['cpu_ms'], '%.1f')} | {r['cpu_share']:.2f} | {f(r['pipeline_ms'], '%.1f')} | "
              f"{f(r['encoder_ms'], '%.1f')} | {f(r['received_fps'], '%.1f')} | {f(r['dropped_fps'], '%.1f')} | "
              f"{f(r['kb_per_frame'], '%.0f')} |")


if __name__ == "__main__":
    main()
