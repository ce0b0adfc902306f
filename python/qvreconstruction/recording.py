"""Recordings: sessions of raw captures kept in one MCAP file with their times,
temperatures, sequence numbers, paired colour frames and the module's calibration.

    import qvreconstruction as qv
    binned, full = qv.sample_calibration()
    with qv.RecordingWriter("session.mcap", binned, full) as w:
        w.write_capture(raw, 640, 480, time_ns=t, temperature_c=31.5)
        w.write_colour(nv12, time_ns=t)

    with qv.Recording("session.mcap") as rec:
        r = qv.Reconstruction()
        r.set_type(rec.device, rec.stream)
        r.init(*rec.calibration)
        for frame in rec:
            depth = r.calculate_depth(frame.raw, frame.width, frame.height)

A recording cut short (the writer's process killed) opens with ``index_rebuilt`` True
and reads up to its last complete chunk; a damaged chunk raises RecordingError naming
it when one of its frames is read, and the other frames stay readable.
"""
import collections
import os

from . import _core

Channel = collections.namedtuple("Channel", "id topic schema messages")


class Recording:
    """A recording opened for reading: a sequence of RecordedFrame.

    ``len(rec)``, ``rec[k]`` (negative counts from the end; IndexError past it),
    ``rec[a:b:c]`` (a list of those frames, each read), iteration in capture order,
    ``seek_time(ns)`` and the recording's calibration, types, metadata and channels.
    Each frame read costs the decompression of its chunk (frames in a row share it)
    and the copy of its words and nearest colour frame. Reads release the GIL; threads
    sharing one Recording take turns, separate Recordings of one file work side by side.
    Errors raise RecordingError (a QvError) with the library's message.
    """

    def __init__(self, path):
        self.path = os.fspath(path)
        os.stat(self.path)  # a missing file is FileNotFoundError, as open() says it
        self._reader = _core.RecordingReader(self.path)
        self._info = None

    def __len__(self):
        return len(self._reader)

    def __getitem__(self, key):
        if isinstance(key, slice):
            return [self._reader.read(k) for k in range(*key.indices(len(self)))]
        index = _index(key)
        n = len(self)
        if index < 0:
            index += n
        if not 0 <= index < n:
            raise IndexError(f"frame {key} is outside a recording of {n}")
        return self._reader.read(index)

    def __iter__(self):
        for k in range(len(self)):
            yield self._reader.read(k)

    def seek_time(self, time_ns):
        """The index of the first frame captured at or after `time_ns` (nanoseconds since
        the epoch), len(self) when there is none. Goes through the indexes and reads that
        one frame."""
        return self._reader.seek_time(time_ns)

    @property
    def info(self):
        """Every frame's information as a numpy structured array, one row a frame:
        index, time_ns, sequence, temperature_code, temperature_c, stream (the
        StreamType's value), width, height, frames_dropped. The first access reads every
        frame once (the reader keeps a capture's information in the capture's chunk, so
        it decompresses them all); the array is kept for later ones."""
        if self._info is None:
            self._info = self._reader.info()
            self._info.flags.writeable = False
        return self._info

    @property
    def calibration(self):
        """The module's records (binned, full), from the calibration attached to the
        recording. ValueError when there is none or it does not read."""
        text = self.calibration_yaml
        if not text:
            raise ValueError(f"{self.path}: the recording carries no calibration")
        return _core.parse_calibration(text, f"{self.path}: calibration attachment")

    @property
    def calibration_yaml(self):
        """The attached calibration file's text ('' when there is none)."""
        return self._reader.calibration_yaml

    device = property(lambda self: self._reader.device, doc="The module's DeviceType")
    stream = property(lambda self: self._reader.stream, doc="The recording's StreamType")
    module_label = property(lambda self: self._reader.module_label, doc="The module's label")
    metadata = property(lambda self: self._reader.metadata,
                        doc="The metadata: device and stream types, module label, library and algorithm versions")
    index_rebuilt = property(lambda self: self._reader.index_rebuilt,
                             doc="True when the file had no summary (cut short) and was scanned to index it")
    problems = property(lambda self: self._reader.problems,
                        doc="What was wrong with the file but left the rest readable, one line each")
    first_time_ns = property(lambda self: self._reader.first_time_ns, doc="The first capture's time (0: none)")
    last_time_ns = property(lambda self: self._reader.last_time_ns, doc="The last capture's time (0: none)")
    closed = property(lambda self: self._reader.closed)

    @property
    def channels(self):
        """The recording's channels as Channel(id, topic, schema, messages)."""
        return [Channel(*c) for c in self._reader.channels]

    def close(self):
        """Closes the file; later reads raise ValueError."""
        self._reader.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __repr__(self):
        state = "not open" if "_reader" not in vars(self) else "closed" if self.closed else f"{len(self)} frames"
        return f"Recording({self.path!r}, {state})"


def _index(key):
    """An integer index (numpy's integers too); TypeError for anything else."""
    try:
        return int(key.__index__())
    except AttributeError:
        raise TypeError(f"recording indices are integers or slices, not {type(key).__name__}") from None
