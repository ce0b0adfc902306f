"""Many raw captures to depth and point clouds, on this machine or over a Dask cluster.

    from qvreconstruction import batch
    batch.process(paths, "out")                                    # one after another, here
    from dask.distributed import Client
    batch.process(paths, "out", client=Client("tcp://scheduler:8786"))   # over a cluster

For each capture `x.raw` the output folder receives `x_depth.npy` (uint16 depth in mm,
height x width) and `x.ply` (binary little-endian PLY of the points with depth, mm).
Captures of the same name from different folders get `x-2`, `x-3`... in the order
given. Each file appears whole or not at all. The stream of each capture follows from
its size, as in `qvrecon depth`. Every Dask worker process keeps its own library
instance, which its threads take in turn: run workers with one thread each
(`--nthreads 1`) and as many workers as cores. The outputs are the same whichever runs the work.

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
import sys
import tempfile
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

# This process's instance, what it was last set up for, and the lock that keeps a
# worker's threads (if it was given several) from setting it up under each other.
_instance = None
_configured = None
_lock = threading.Lock()


def _stream_of(path):
    """The capture's (words, stream name, width, height), from its size."""
    words, odd = divmod(os.stat(path).st_size, 2)
    if odd or words not in _STREAMS:
        sizes = ", ".join(f"{name} {2 * w} bytes" for w, (name, _, _) in sorted(_STREAMS.items()))
        raise ValueError(f"{path}: {2 * words + odd} bytes fit no stream ({sizes})")
    return (words, *_STREAMS[words])


def _write_whole(path, *parts):
    """Writes the parts (bytes or contiguous arrays) through a new temporary file beside
    `path`, renamed when complete."""
    folder = os.path.dirname(path) or "."
    fd, tmp = tempfile.mkstemp(prefix=".tmp-", dir=folder)
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


def _setup(calibration, stream, filter_on):
    """The process's instance, set up for the module and stream (again only when they change)."""
    global _instance, _configured
    key = (calibration, stream, filter_on)
    if _configured != key:
        binned, full = _core.sample_calibration() if calibration is None else _core.load_calibration(calibration)
        if _instance is None:
            _instance = _core.Reconstruction()
        dual = stream != "single"
        _instance.set_type(_core.DeviceType.GENERIC, _core.StreamType.DUAL_FREQ if dual else _core.StreamType.SINGLE_FREQ)
        # The reduced stream works from the binned record (its tables are 320 x 240).
        _instance.init(binned, full if dual else binned)
        _instance.open_filter(filter_on)
        _configured = key
    return _instance


def convert(path, stem, calibration=None, filter_on=True):
    """Converts one capture: writes `stem`_depth.npy and `stem`.ply; returns (pixels with
    depth, pixels). `stem` is the output path without suffix."""
    words, stream, width, height = _stream_of(path)
    raw = np.fromfile(path, dtype="<u2")
    if raw.size != words:
        raise ValueError(f"{path}: changed size while reading")
    with _lock:
        r = _setup(calibration, stream, filter_on)
        depth = r.calculate_depth(raw, width, height)
        points = r.get_cloud_point(depth)
    npy = io.BytesIO()
    np.save(npy, depth, allow_pickle=False)
    _write_whole(stem + "_depth.npy", npy.getvalue())
    _write_whole(stem + ".ply", *_ply_parts(points))
    return int(np.count_nonzero(depth > 1)), int(depth.size)


def output_stems(paths):
    """Each capture's output name: its file name without the extension, made unique in
    the batch (x, x-2, x-3... in the order given, never another capture's own name)."""
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
    read by each worker. Every input is checked before anything is written. Returns
    the list of (pixels with depth, pixels), one per capture, in the order given."""
    paths = [os.fspath(p) for p in paths]
    for p in paths:
        _stream_of(p)
    if calibration is not None:
        calibration = os.fspath(calibration)
        _core.load_calibration(calibration)  # a bad file fails here, not on every worker
    os.makedirs(out_dir, exist_ok=True)
    stems = [os.path.join(out_dir, s) for s in output_stems(paths)]
    if client is None:
        results = []
        for n, (path, stem) in enumerate(zip(paths, stems), 1):
            results.append(convert(path, stem, calibration, filter_on))
            if progress:
                print(f"[{n}/{len(paths)}] {os.path.basename(path)}", file=sys.stderr)
        return results
    futures = client.map(convert, paths, stems, calibration=calibration, filter_on=filter_on, pure=False)
    if progress:
        from dask.distributed import progress as show

        show(futures)
    return client.gather(futures)
