"""Many raw captures and recordings to depth and point clouds, on this machine or over a
Dask cluster.

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

Recordings (`rec.mcap`, see qvreconstruction.Recording) may stand among the captures:
frame k of `rec.mcap` becomes `rec_000012_depth.npy` and `rec_000012.ply` for k = 12,
converted with the calibration the recording carries unless `calibration=` is given.
The frames keep their place: the serial run converts the inputs in the order given,
a recording's frames one after another.

The files are those of one serial run in the order given, whoever converts what: the
instance is set up from the calibration's content (read once, by the caller), with
no flip and the filter as asked, whatever was set on it before; and each binned
capture halves the library's amplitude threshold for the full-stream captures after
it (down to 0 after three), until a single-frequency capture sets the instance up
afresh, as does a change of records (a recording with another calibration). A worker
brings its instance to that state before each capture or range of frames.

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


def binned_before(streams, setups=None):
    """For each capture (by stream: "single", "dual", "binned"), the binned captures
    before it in the serial run since the instance was last set up: since the batch's
    start, its last single-frequency capture or, given each capture's `setups` (the
    records it is converted with), the last change of records."""
    counts, k, last = [], 0, None
    for n, stream in enumerate(streams):
        setup = None if setups is None else setups[n]
        if stream == "single" or (n and setup != last):
            k = 0
        last = setup
        counts.append(k)
        k += stream == "binned"
    return counts


def _convert_words(raw, stream, width, height, stem, records, filter_on, binned_before):
    """Converts one capture's words in the serial run's state; writes the two files."""
    global _state
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


def convert(path, stem, calibration=None, filter_on=True, binned_before=0):
    """Converts one capture: writes `stem`_depth.npy and `stem`.ply; returns (pixels with
    depth, pixels). `stem` is the output path without suffix; `calibration` the records
    (binned, full), a calibration file's path or None for the sample module;
    `binned_before` the binned captures the serial run converted before this one since
    it set the instance up (see binned_before())."""
    words, stream, width, height = _stream_of(path)
    raw = np.fromfile(path, dtype="<u2")
    if raw.size != words:
        raise ValueError(f"{path}: changed size while reading")
    return _convert_words(raw, stream, width, height, stem, _records(calibration), filter_on, binned_before)


def convert_frames(path, frames, stems, calibration=None, filter_on=True, binned_before=None, kinds=None):
    """Converts frames of a recording in the order given: frame `frames[i]` to
    `stems[i]`_depth.npy and .ply, with `calibration` (the records (binned, full) or a
    calibration file's path; the recording's own when None) and `binned_before[i]`
    binned captures before it since the serial run set the instance up (zeros when
    None). `kinds`, when given, are the frames' kinds the caller planned
    with ("single", "dual", "binned"): a frame of another kind (the file replaced
    meanwhile) is refused. Returns (pixels with depth, pixels) per frame."""
    from .recording import Recording

    results = []
    with Recording(path) as rec:
        records = rec.calibration if calibration is None else _records(calibration)
        for i, (index, stem) in enumerate(zip(frames, stems)):
            frame = rec[index]
            if kinds is not None and frame.kind != kinds[i]:
                raise ValueError(f"{path}: frame {index} is {frame.kind}, not {kinds[i]} as first read")
            results.append(_convert_words(frame.raw, frame.kind, frame.width, frame.height, stem, records,
                                          filter_on, 0 if binned_before is None else binned_before[i]))
    return results


def _run(task, filter_on):
    """One Dask task: a capture file ("capture", path, stem, binned before, records) or
    a range of a recording's frames ("frames", path, frames, stems, binned before,
    kinds, records). Returns its (pixels with depth, pixels) in order."""
    if task[0] == "capture":
        _, path, stem, before, records = task
        return [convert(path, stem, records, filter_on, before)]
    _, path, frames, stems, before, kinds, records = task
    return convert_frames(path, frames, stems, records, filter_on, before, kinds)


def is_recording(path):
    """Whether batch takes `path` for a recording (its name ends in .mcap) rather than a
    capture file."""
    return os.fspath(path).lower().endswith(".mcap")


def _unique(names):
    """The names made unique in order: x, x-2, x-3..., never another input's own name."""
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


def output_stems(paths):
    """Each capture's output name: its file name without its last extension, where
    leading dots never start one (`x.raw` gives `x`, `..raw` and `.raw` stay whole), made
    unique in the batch (x, x-2, x-3... in the order given, never another capture's own
    name)."""
    return _unique([os.path.splitext(os.path.basename(p))[0] for p in paths])


def frame_name(recording_path, index):
    """The output name of a recording's frame before it is made unique: the recording's
    name without its extension and the frame number from 0 (`rec.mcap`, 12: `rec_000012`)."""
    return f"{os.path.splitext(os.path.basename(recording_path))[0]}_{index:06d}"


def _plan(paths, calibration):
    """Every capture of the batch in the serial run's order: (path, frame index or None
    for a capture file, kind, records). A recording's frames are converted with its own
    calibration unless `calibration` is given."""
    from .recording import Recording

    given = None if calibration is None else _records(calibration)
    default = given if given is not None else _core.sample_calibration()
    plan = []
    for path in paths:
        if not is_recording(path):
            plan.append((path, None, _stream_of(path)[1], default))
            continue
        with Recording(path) as rec:
            records = given if given is not None else rec.calibration
            info = rec.info
        for row in info:
            kind = "single" if int(row["stream"]) == int(_core.StreamType.SINGLE_FREQ) else \
                "binned" if int(row["width"]) == 320 else "dual"
            plan.append((path, int(row["index"]), kind, records))
    return plan


def process(paths, out_dir, client=None, calibration=None, filter_on=True, progress=True, frames_per_task=8):
    """Converts captures and recordings to depth and point clouds in `out_dir` (created
    if missing).

    `paths` are capture files and recordings (names ending in .mcap), in any mix. A
    recording's frames are converted in their order, at the recording's place among
    the inputs, and named after it and the frame number (`rec_000012_depth.npy`,
    `rec_000012.ply`); names are made unique over the whole batch (x, x-2...).

    The work is cut into tasks: each capture file one, each recording's frames in
    ranges of `frames_per_task`. Without a client they run here, one after another,
    and `progress` prints a line per task to stderr; with a dask.distributed Client
    they are mapped over its workers, and `progress` shows Dask's progress bar.
    `calibration` is a calibration file's path or the records (binned, full), read here
    once; when None,
    capture files use the sample module's records and recordings the calibration they
    carry. Every input is checked before anything is written: each recording is read
    through once here (its frames' kinds decide the serial run's state), and once more
    where its frames are converted. The files are those of the serial run (see the
    module's documentation), whatever the partition. Returns the list of (pixels with
    depth, pixels), one per capture or frame, in the serial run's order."""
    paths = [os.fspath(p) for p in paths]
    if frames_per_task < 1:
        raise ValueError("frames_per_task must be at least 1")
    plan = _plan(paths, calibration)
    os.makedirs(out_dir, exist_ok=True)
    names = [os.path.splitext(os.path.basename(p))[0] if k is None else frame_name(p, k) for p, k, _, _ in plan]
    stems = [os.path.join(out_dir, s) for s in _unique(names)]
    before = binned_before([kind for _, _, kind, _ in plan], [records for _, _, _, records in plan])
    tasks, n = [], 0
    while n < len(plan):
        path, index, kind, records = plan[n]
        if index is None:
            tasks.append(("capture", path, stems[n], before[n], records))
            n += 1
            continue
        end = n + 1
        while end < len(plan) and end - n < frames_per_task and plan[end][0] == path and plan[end][1] is not None:
            end += 1
        part = range(n, end)
        tasks.append(("frames", path, [plan[i][1] for i in part], [stems[i] for i in part],
                      [before[i] for i in part], [plan[i][2] for i in part], records))
        n = end
    if client is None:
        results = []
        for task in tasks:
            results += _run(task, filter_on)
            if progress:
                where = os.path.basename(task[1]) + ("" if task[0] == "capture" else
                                                     f" frames {task[2][0]}..{task[2][-1]}")
                print(f"[{len(results)}/{len(plan)}] {where}", file=sys.stderr)
        return results
    futures = client.map(_run, tasks, filter_on=filter_on, pure=False)
    if progress:
        from dask.distributed import progress as show

        show(futures)
    return [result for part in client.gather(futures) for result in part]
