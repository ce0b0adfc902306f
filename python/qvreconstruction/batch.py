"""Many raw captures to depth and point clouds, on this machine or over a Dask cluster.

    from qvreconstruction import batch
    batch.process(paths, "out")                                    # one after another, here
    from dask.distributed import Client
    batch.process(paths, "out", client=Client("tcp://scheduler:8786"))   # over a cluster

For each capture `x.raw` the output folder receives `x_depth.npy` (uint16 depth in mm,
height x width) and `x.ply` (binary little-endian PLY of the points with depth, mm).
The name is the capture's file name without its last extension, where leading dots
never start one (os.path.splitext: `..raw` gives `..raw.ply`), as `qvrecon depth`
names its outputs. Captures of the same name from different folders get `x-2`,
`x-3`... in the order given. Each file appears whole or not at all, created like any
new file (0666 less the umask). The stream of each capture follows from its size, as
in `qvrecon depth`.

The files are those of one serial run in the order given, whoever converts what: the
instance is set up from the calibration's content (read once, by the caller), with
no flip and the filter as asked, whatever was set on it before; and each binned
capture halves the library's amplitude threshold for the full-stream captures after
it (down to 0 after three), until a single-frequency capture sets the instance up
afresh. A worker brings its instance to that state before each capture.

Every Dask worker process keeps its own library instance, which its threads take in
turn: run workers with one thread each (`--nthreads 1`) and as many workers as cores.

Dask's nanny starts workers with MALLOC_TRIM_THRESHOLD_=65536, so that they give memory
back at once; glibc then maps and unmaps every frame's arrays (4 MB of points) afresh
and the page faults make a capture several times slower. Start the workers with
WORKER_MALLOC instead, which keeps some 20 MB per worker for reuse. Variables in the
environment outrank Dask's setting, so before the first LocalCluster:

    os.environ.update(batch.WORKER_MALLOC)
    cluster = LocalCluster(n_workers=2, threads_per_worker=1)

and for `dask worker` on other machines, set the two variables in its environment.
"""
import io
import os
import secrets
import sys
import threading

import numpy as np

from . import _core

# Words of one capture, per stream: (stream name, width, height).
_STREAMS = {
    4 * 320 * 240: ("single", 320, 240),
    16 * 640 * 480: ("dual", 640, 480),
    16 * 320 * 240: ("binned", 320, 240),
}

# glibc's settings for worker processes: arrays below 16 MB come from the heap, and the
# heap is given back only past 64 MB free (see the module's documentation).
WORKER_MALLOC = {"MALLOC_TRIM_THRESHOLD_": str(64 << 20), "MALLOC_MMAP_THRESHOLD_": str(16 << 20)}

# This process's instance as the last capture left it: (what it was set up for, binned
# frames passed since its Init, the module's change count after the capture), or None.
# The lock keeps a worker's threads (if it was given several) from taking it at once.
_state = None
_lock = threading.Lock()
_BINNED_ZEROS = np.zeros(16 * 320 * 240, np.uint16)
# From the third binned frame on, the halved threshold is 0 and stays so.
_MAX_HALVINGS = 3


def _stream_of(path):
    """The capture's (words, stream name, width, height), from its size."""
    words, odd = divmod(os.stat(path).st_size, 2)
    if odd or words not in _STREAMS:
        sizes = ", ".join(f"{name} {2 * w} bytes" for w, (name, _, _) in sorted(_STREAMS.items()))
        raise ValueError(f"{path}: {2 * words + odd} bytes fit no stream ({sizes})")
    return (words, *_STREAMS[words])


def _write_whole(path, *parts):
    """Writes the parts (bytes or contiguous arrays) through a new temporary file beside
    `path`, renamed when complete. The file is created 0666 less the umask, as open()
    creates files (mkstemp would make it 0600)."""
    folder = os.path.dirname(path) or "."
    while True:
        tmp = os.path.join(folder, f".tmp-{secrets.token_hex(8)}")
        try:
            fd = os.open(tmp, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o666)
            break
        except FileExistsError:
            continue
    try:
        with os.fdopen(fd, "wb") as f:
            for part in parts:
                f.write(part)
        os.replace(tmp, path)
    except BaseException:
        os.unlink(tmp)
        raise


def _ply_parts(points):
    """The PLY's header and its vertices as a contiguous array, written one after the other."""
    flat = np.asarray(points, dtype="<f4").reshape(-1, 3)
    kept = np.ascontiguousarray(flat[flat[:, 2] > 1])
    header = ("ply\nformat binary_little_endian 1.0\ncomment qvrecon point cloud, millimetres\n"
              f"element vertex {len(kept)}\nproperty float x\nproperty float y\nproperty float z\nend_header\n")
    return header.encode(), kept


def ply_bytes(points):
    """Binary little-endian PLY (mm) of get_cloud_point's points with depth (z above the
    marks 0 and 1), the layout `qvrecon depth` writes by default."""
    header, kept = _ply_parts(points)
    return header + kept.tobytes()


def _records(calibration):
    """The module's records (binned, full): given, read from a file, or the sample module's."""
    if calibration is None:
        return _core.sample_calibration()
    if isinstance(calibration, tuple):
        return calibration
    return _core.load_calibration(os.fspath(calibration))


def _instance(records, stream, filter_on, binned_before):
    """The process's instance in the state the serial run had before a capture: set up
    for the module and the stream, no flip, the filter as asked, and `binned_before`
    binned frames passed since Init. Set up again only when it was set up for something
    else, has passed more binned frames, or anybody else changed it since."""
    global _state
    single = stream == "single"
    setup = (records, single, filter_on)
    halvings = 0 if single else min(binned_before, _MAX_HALVINGS)
    r = _core.Reconstruction()
    if _state is not None and _state[0] == setup and _state[1] <= halvings and \
            _state[2] == _core._instance_changes():
        passed = _state[1]
    else:
        _state = None
        r.set_type(_core.DeviceType.GENERIC, _core.StreamType.SINGLE_FREQ if single else _core.StreamType.DUAL_FREQ)
        r.init(*records)  # the single-frequency stream works from the binned record alone
        r.set_flip_mode(_core.FlipMode.NONE)
        r.open_filter(filter_on)
        passed = 0
    # Any binned frame halves the threshold: zeros do.
    for _ in range(passed, halvings):
        r.calculate_depth(_BINNED_ZEROS, 320, 240)
    return r, setup, halvings


def binned_before(streams):
    """For each capture (by stream: "single", "dual", "binned"), the binned captures
    before it in the serial run since the instance was last set up: since the batch's
    start or its last single-frequency capture."""
    counts, k = [], 0
    for stream in streams:
        if stream == "single":
            k = 0
        counts.append(k)
        k += stream == "binned"
    return counts


def convert(path, stem, calibration=None, filter_on=True, binned_before=0):
    """Converts one capture: writes `stem`_depth.npy and `stem`.ply; returns (pixels with
    depth, pixels). `stem` is the output path without suffix; `calibration` the records
    (binned, full), a calibration file's path or None for the sample module;
    `binned_before` the binned captures the serial run converted before this one since
    it set the instance up (see binned_before())."""
    global _state
    words, stream, width, height = _stream_of(path)
    raw = np.fromfile(path, dtype="<u2")
    if raw.size != words:
        raise ValueError(f"{path}: changed size while reading")
    records = _records(calibration)
    with _lock:
        try:
            r, setup, halvings = _instance(records, stream, filter_on, binned_before)
            depth = r.calculate_depth(raw, width, height)
            points = r.get_cloud_point(depth)
            if stream == "binned":
                halvings = min(halvings + 1, _MAX_HALVINGS)
            _state = (setup, halvings, _core._instance_changes())
        except BaseException:
            _state = None
            raise
    npy = io.BytesIO()
    np.save(npy, depth, allow_pickle=False)
    _write_whole(stem + "_depth.npy", npy.getvalue())
    _write_whole(stem + ".ply", *_ply_parts(points))
    return int(np.count_nonzero(depth > 1)), int(depth.size)


def _task(path, stem, binned_before, calibration, filter_on):
    """convert() with the per-capture arguments first, as client.map hands them out."""
    return convert(path, stem, calibration, filter_on, binned_before)


def output_stems(paths):
    """Each capture's output name: its file name without its last extension, where
    leading dots never start one (`x.raw` gives `x`, `..raw` and `.raw` stay whole), made
    unique in the batch (x, x-2, x-3... in the order given, never another capture's own
    name)."""
    names = [os.path.splitext(os.path.basename(p))[0] for p in paths]
    own = set(names)
    taken = set()
    stems = []
    for name in names:
        stem, k = name, 2
        while stem in taken or (stem != name and stem in own):
            stem, k = f"{name}-{k}", k + 1
        taken.add(stem)
        stems.append(stem)
    return stems


def process(paths, out_dir, client=None, calibration=None, filter_on=True, progress=True):
    """Converts captures to depth and point clouds in `out_dir` (created if missing).

    Without a client the captures are converted here, one after another. With a
    dask.distributed Client they are mapped over its workers, each capture one task,
    and `progress` shows Dask's progress bar; otherwise a line per capture goes to
    stderr. `calibration` is a calibration file's path (the sample module's when None),
    read here once: the workers get its records. Every input is checked before
    anything is written. The files are those of the serial run (see the module's
    documentation), whatever the partition. Returns the list of (pixels with depth,
    pixels), one per capture, in the order given."""
    paths = [os.fspath(p) for p in paths]
    streams = [_stream_of(p)[1] for p in paths]
    records = _records(calibration)
    os.makedirs(out_dir, exist_ok=True)
    stems = [os.path.join(out_dir, s) for s in output_stems(paths)]
    before = binned_before(streams)
    if client is None:
        results = []
        for n, (path, stem, k) in enumerate(zip(paths, stems, before), 1):
            results.append(convert(path, stem, records, filter_on, k))
            if progress:
                print(f"[{n}/{len(paths)}] {os.path.basename(path)}", file=sys.stderr)
        return results
    futures = client.map(_task, paths, stems, before, calibration=records, filter_on=filter_on, pure=False)
    if progress:
        from dask.distributed import progress as show

        show(futures)
    return client.gather(futures)
