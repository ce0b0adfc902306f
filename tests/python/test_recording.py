"""Recordings from Python: what is written reads back bit for bit, the ways to a frame
agree, damaged and cut-short files read as far as they can, and batch converts
recordings as a serial run would, here or over Dask."""
import os
import shutil
import subprocess
import threading

import numpy as np
import pytest

import qvreconstruction as qv
from qvreconstruction import batch

T0 = 1_700_000_000_000_000_000  # capture times: nanoseconds since the epoch
WORDS = {"dual": 16 * 640 * 480, "binned": 16 * 320 * 240, "single": 4 * 320 * 240}
SIZE = {"dual": (640, 480), "binned": (320, 240), "single": (320, 240)}


def random_words(kind, seed):
    return np.random.default_rng(seed).integers(0, 1 << 16, WORDS[kind], dtype=np.uint16)


def write(path, captures, colours=(), **options):
    """Writes (kind, words, time, sequence, temperature code, degrees, dropped) captures
    and (nv12, time) colour frames, interleaved by time as a session would."""
    binned, full = qv.sample_calibration()
    events = sorted([(c[2], 0, c) for c in captures] + [(c[1], 1, c) for c in colours], key=lambda e: e[:2])
    with qv.RecordingWriter(str(path), binned, full, **options) as w:
        for _, is_colour, item in events:
            if is_colour:
                w.write_colour(item[0], item[1], 64, 32)
            else:
                kind, words, t, seq, code, deg, dropped = item
                w.write_capture(words, *SIZE[kind], t, sequence=seq, temperature_code=code, temperature_c=deg,
                                frames_dropped=dropped)
    return path


def session(n, kinds=("dual", "binned")):
    """n captures of random words, 33 ms apart, with gaps and drops here and there."""
    out = []
    for k in range(n):
        kind = kinds[k % len(kinds)]
        out.append((kind, random_words(kind, k), T0 + k * 33_333_333 + (k > 3) * 5_000_000, 100 + 2 * k,
                    4000 + k, np.float32(30.0 + k / 8), k % 3))
    return out


@pytest.mark.parametrize("compression,level", [("none", 0), ("lz4", 0), ("zstd", 3)])
def test_round_trip_written_from_python_reads_back_bit_for_bit(tmp_path, compression, level):
    captures = session(6)
    colours = [(np.random.default_rng(50 + k).integers(0, 256, 64 * 32 * 3 // 2, dtype=np.uint8), T0 + k * 50_000_000)
               for k in range(4)]
    path = write(tmp_path / "s.mcap", captures, colours, compression=compression, level=level, chunk_bytes=1 << 20)
    binned, full = qv.sample_calibration()
    with qv.Recording(path) as rec:
        assert len(rec) == 6 and not rec.index_rebuilt and rec.problems == []
        assert rec.calibration == (binned, full)
        assert qv.parse_calibration(rec.calibration_yaml) == (binned, full)
        assert (rec.device, rec.stream, rec.module_label) == (qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ,
                                                             full.label)
        assert rec.metadata["module_label"] == full.label
        assert rec.metadata["algorithm_version"] == qv.Reconstruction().version
        assert {c.topic: c.messages for c in rec.channels}["/qv/raw"] == 6
        assert (rec.first_time_ns, rec.last_time_ns) == (captures[0][2], captures[-1][2])
        for frame, (kind, words, t, seq, code, deg, dropped) in zip(rec, captures):
            assert frame.raw.dtype == np.uint16 and np.array_equal(frame.raw, words)
            assert (frame.kind, (frame.width, frame.height), frame.stream) == (kind, SIZE[kind],
                                                                               qv.StreamType.DUAL_FREQ)
            assert (frame.time_ns, frame.sequence, frame.temperature_code, frame.frames_dropped) == (t, seq, code,
                                                                                                     dropped)
            assert np.float32(frame.temperature_c) == deg
            # The colour frame nearest in time, with its own time.
            nearest = min(colours, key=lambda c: abs(c[1] - t))
            assert frame.colour_time_ns == nearest[1] and np.array_equal(frame.colour, nearest[0])
            assert (frame.colour_width, frame.colour_height) == (64, 32)
        info = rec.info
        assert info.dtype.names == ("index", "time_ns", "sequence", "temperature_code", "temperature_c", "stream",
                                    "width", "height", "frames_dropped")
        assert info["index"].tolist() == list(range(6))
        assert info["time_ns"].tolist() == [c[2] for c in captures]
        assert info["sequence"].tolist() == [c[3] for c in captures]
        assert info["temperature_code"].tolist() == [c[4] for c in captures]
        assert np.array_equal(info["temperature_c"], np.array([c[5] for c in captures], np.float32))
        assert info["width"].tolist() == [SIZE[c[0]][0] for c in captures]
        assert info["frames_dropped"].tolist() == [c[6] for c in captures]
        assert set(info["stream"].tolist()) == {int(qv.StreamType.DUAL_FREQ)}
    with pytest.raises(ValueError, match="closed"):
        len(rec)


def test_single_stream_recordings_and_default_sequence_numbers(tmp_path):
    binned, full = qv.sample_calibration()
    words = [random_words("single", k) for k in range(3)]
    with qv.RecordingWriter(str(tmp_path / "s.mcap"), binned, full, stream=qv.StreamType.SINGLE_FREQ) as w:
        for k, raw in enumerate(words):
            w.write_capture(raw, 320, 240, T0 + k)
        with pytest.raises(ValueError, match="no frame size"):
            w.write_capture(random_words("dual", 0), 640, 480, T0 + 9)
    rec = qv.Recording(tmp_path / "s.mcap")
    assert rec.stream == qv.StreamType.SINGLE_FREQ
    assert [(f.kind, f.sequence, f.colour) for f in rec] == [("single", k, None) for k in range(3)]
    assert all(np.array_equal(f.raw, w) for f, w in zip(rec, words))


def test_indexing_iteration_seek_time_and_threads_agree(tmp_path):
    captures = session(9, kinds=("binned",))
    rec = qv.Recording(write(tmp_path / "s.mcap", captures, chunk_bytes=5_000_000))
    times = [c[2] for c in captures]
    by_index = [rec[k] for k in range(len(rec))]
    assert [f.index for f in rec] == list(range(9)) == [f.index for f in by_index]
    assert rec[-1].index == 8 and rec[-9].index == 0 and rec[np.int64(4)].index == 4
    for bad in (9, -10, 1 << 70):
        with pytest.raises(IndexError):
            rec[bad]
    with pytest.raises(TypeError):
        rec[1.0]
    assert [f.index for f in rec[7:2:-2]] == [7, 5, 3] and rec[20:] == []
    assert all(np.array_equal(a.raw, b.raw) for a, b in zip(rec[::-1], reversed(by_index)))
    # The first frame at or after a time, as a search over the per-frame times finds it.
    for t in [0, times[0], times[0] + 1, times[4] - 1, times[4], times[8], times[8] + 1, (1 << 64) - 1]:
        expected = int(np.searchsorted(rec.info["time_ns"], np.uint64(t), side="left"))
        assert rec.seek_time(t) == expected, t
        if expected < len(rec):
            assert rec[expected].time_ns >= t and (expected == 0 or rec[expected - 1].time_ns < t)
    # Threads sharing one recording take turns and read the same frames.
    seen = {}

    def read(offset):
        seen[offset] = [rec[(k + offset) % 9].raw.copy() for k in range(9)]

    threads = [threading.Thread(target=read, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for offset, frames in seen.items():
        assert all(np.array_equal(a, by_index[(k + offset) % 9].raw) for k, a in enumerate(frames))


def test_a_recording_cut_short_reads_to_its_last_complete_chunk(tmp_path):
    captures = session(5)
    path = write(tmp_path / "whole.mcap", captures, compression="none", chunk_bytes=1)  # a chunk per capture
    data = path.read_bytes()
    # Cut inside the summary, inside the fourth capture's words, and inside the first.
    first, fourth = (data.find(captures[k][1].tobytes()) for k in (0, 3))
    for cut, frames in [(len(data) - 40, 5), (fourth + 1000, 3), (first + 10, 0)]:
        short = tmp_path / f"cut{cut}.mcap"
        short.write_bytes(data[:cut])
        with qv.Recording(short) as rec:
            assert rec.index_rebuilt and rec.problems
            assert len(rec) == frames, cut
            assert all(np.array_equal(f.raw, c[1]) and f.time_ns == c[2] for f, c in zip(rec, captures))
            assert rec.calibration == qv.sample_calibration()
    # A writer never closed (its process killed) leaves such a file too.
    binned, full = qv.sample_calibration()
    w = qv.RecordingWriter(str(tmp_path / "open.mcap"), binned, full, chunk_bytes=1)
    for kind, words, t, *_ in captures[:2]:
        w.write_capture(words, *SIZE[kind], t)
    shutil.copy(tmp_path / "open.mcap", tmp_path / "killed.mcap")
    w.close()
    killed = qv.Recording(tmp_path / "killed.mcap")
    assert killed.index_rebuilt and len(killed) == 2 and np.array_equal(killed[1].raw, captures[1][1])


def test_a_flipped_byte_names_its_chunk_and_the_other_frames_read(tmp_path):
    captures = session(4)
    path = write(tmp_path / "s.mcap", captures, compression="none", chunk_bytes=1)
    data = bytearray(path.read_bytes())
    data[data.find(captures[2][1].tobytes()) + 5000] ^= 0x10
    path.write_bytes(data)
    rec = qv.Recording(path)
    with pytest.raises(qv.RecordingError, match=r"chunk \d+.*CRC") as caught:
        rec[2]
    assert isinstance(caught.value, qv.QvError) and caught.value.status == -5
    assert str(path) in str(caught.value)
    for k in (0, 1, 3):
        assert np.array_equal(rec[k].raw, captures[k][1])
    with pytest.raises(qv.RecordingError, match="chunk"):
        rec.info
    with pytest.raises(qv.RecordingError, match="chunk"):
        batch.process([path], tmp_path / "out", progress=False)


def test_bad_files_and_bad_writes_are_refused(tmp_path):
    binned, full = qv.sample_calibration()
    with pytest.raises(FileNotFoundError):
        qv.Recording(tmp_path / "missing.mcap")
    (tmp_path / "text.mcap").write_bytes(b"not a recording at all, just some text")
    with pytest.raises(qv.RecordingError) as caught:
        qv.Recording(tmp_path / "text.mcap")
    assert caught.value.status == -2
    path = str(tmp_path / "w.mcap")
    with qv.RecordingWriter(path, binned, full) as w:
        words = random_words("dual", 1)
        with pytest.raises(TypeError, match="uint16"):
            w.write_capture(words.astype(np.float32), 640, 480, T0)
        with pytest.raises(ValueError, match="words"):
            w.write_capture(words[:-1], 640, 480, T0)
        with pytest.raises(ValueError, match="outside"):
            w.write_capture(words.astype(np.int32) - 1, 640, 480, T0)
        w.write_capture(words, 640, 480, T0)
        with pytest.raises(ValueError, match="before the last capture"):
            w.write_capture(words, 640, 480, T0 - 1)
        with pytest.raises(ValueError, match="NV12"):
            w.write_colour(np.zeros(100, np.uint8), T0)
        with pytest.raises(TypeError):
            w.write_depth(np.zeros((480, 640), np.float32), T0)
        w.write_depth(np.zeros((480, 640), np.uint16), T0)
        w.write_points(np.zeros((480, 640, 3), np.float32), T0)
    with pytest.raises(ValueError, match="closed"):
        w.write_capture(words, 640, 480, T0 + 1)
    assert len(qv.Recording(path)) == 1
    with pytest.raises(qv.RecordingError):
        qv.RecordingWriter(path, binned, full)  # an existing file stays
    assert len(qv.Recording(path)) == 1
    qv.RecordingWriter(path, binned, full, overwrite=True).close()
    assert len(qv.Recording(path)) == 0
    other = qv.sample_calibration()[1]
    other.depth_offset_f1 += 1
    for bad in [dict(compression="brotli"), dict(compression="lz4", level=13), dict(chunk_bytes=0),
                dict(calibration_yaml="full: {}"), dict(full=binned)]:
        with pytest.raises(ValueError):
            qv.RecordingWriter(path, **{"binned": binned, "full": full, "overwrite": True, **bad})
    yaml = open(os.environ["QV_SAMPLE_CALIBRATION"]).read()
    with pytest.raises(ValueError, match="other records"):
        qv.RecordingWriter(path, binned, other, calibration_yaml=yaml, overwrite=True)


QVRECON = os.environ.get("QVRECON")


def dark_capture(folder, name, kind, seed):
    """A capture whose noise lies about the amplitude threshold (a patch returns no
    light): its depth shows how many binned frames halved the threshold before it."""
    subprocess.run([QVRECON, "simulate", "--dark", "--noise", "2", "--seed", str(seed), "--stream",
                    kind, "--out", str(folder / "sim")], check=True,
                   capture_output=True)
    folder.mkdir(parents=True, exist_ok=True)
    os.replace(folder / "sim" / "capture.raw", folder / name)
    return folder / name


@pytest.fixture(scope="module")
def mixed(tmp_path_factory):
    """Binned and full captures as files and the same captures in one recording."""
    folder = tmp_path_factory.mktemp("mixed")
    kinds = ["dual", "binned", "dual", "binned", "binned", "dual", "dual", "binned", "dual"]
    sources = {(kind, seed): dark_capture(folder / "sim", f"{kind}{seed}.raw", kind, seed)
               for kind, seed in [("dual", 1), ("dual", 2), ("binned", 3), ("binned", 4)]}
    files = []
    for k, kind in enumerate(kinds):
        files.append(folder / f"c{k}.raw")
        shutil.copy(sources[kind, 1 + k % 2 + 2 * (kind == "binned")], files[-1])
    captures = [(kind, np.fromfile(p, "<u2"), T0 + k * 33_333_333, k, 0, np.float32(35), 0)
                for k, (kind, p) in enumerate(zip(kinds, files))]
    return files, write(folder / "rec.mcap", captures, chunk_bytes=1 << 20)


@pytest.mark.skipif(QVRECON is None, reason="needs the qvrecon tool")
def test_batch_over_a_recording_equals_batch_over_its_captures_as_files(tmp_path, mixed):
    files, rec = mixed
    from_files = batch.process(files, tmp_path / "files", progress=False)
    from_rec = batch.process([rec], tmp_path / "rec", progress=False, frames_per_task=4)
    assert from_rec == from_files
    assert sorted(os.listdir(tmp_path / "rec")) == sorted(f"rec_{k:06d}{s}" for k in range(9)
                                                         for s in ("_depth.npy", ".ply"))
    for k in range(9):
        for suffix in ("_depth.npy", ".ply"):
            assert (tmp_path / "rec" / f"rec_{k:06d}{suffix}").read_bytes() == \
                (tmp_path / "files" / f"c{k}{suffix}").read_bytes(), (k, suffix)
    # The threshold halving shows: the last full capture differs from a fresh instance's.
    r = qv.Reconstruction()
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
    r.init(*qv.sample_calibration())
    r.set_flip_mode(qv.FlipMode.NONE)
    r.open_filter(True)
    fresh = r.calculate_depth(np.fromfile(files[8], "<u2"), 640, 480)
    assert np.count_nonzero(np.load(tmp_path / "rec" / "rec_000008_depth.npy") != fresh) > 20
    # One frame alone, told the binned frames before it, with the recording's own records.
    batch.convert_frames(rec, [8], [str(tmp_path / "alone")], binned_before=[4])
    assert (tmp_path / "alone.ply").read_bytes() == (tmp_path / "rec" / "rec_000008.ply").read_bytes()


@pytest.mark.skipif(QVRECON is None, reason="needs the qvrecon tool")
def test_dask_over_a_recording_with_binned_and_full_frames_equals_serial(tmp_path, mixed):
    from dask.distributed import Client, LocalCluster

    files, rec = mixed
    # A capture named like a frame of the recording, and a recording with another calibration.
    clash = tmp_path / "in" / "rec_000002.raw"
    clash.parent.mkdir()
    shutil.copy(files[1], clash)
    binned, full = qv.sample_calibration()
    full.depth_offset_f2 += 30
    moved = tmp_path / "in" / "moved.mcap"
    with qv.RecordingWriter(str(moved), binned, full) as w:
        for k in (0, 1, 2):
            w.write_capture(np.fromfile(files[k], "<u2"), *SIZE["dual" if k != 1 else "binned"], T0 + k)
    inputs = [files[3], rec, clash, moved, files[7]]
    serial = batch.process(inputs, tmp_path / "serial", progress=False, frames_per_task=3)
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \
            Client(cluster) as client:
        spread = batch.process(inputs, tmp_path / "dask", client=client, progress=False, frames_per_task=2)
    assert spread == serial and len(serial) == 1 + 9 + 1 + 3 + 1
    names = sorted(os.listdir(tmp_path / "serial"))
    stems = ["c3", *(f"rec_{k:06d}" for k in range(9)), "rec_000002-2", *(f"moved_{k:06d}" for k in range(3)), "c7"]
    assert names == sorted(f"{s}{suffix}" for s in stems for suffix in ("_depth.npy", ".ply"))
    for name in names:
        assert (tmp_path / "serial" / name).read_bytes() == (tmp_path / "dask" / name).read_bytes(), name
    # The recording's own calibration converts its frames: a fresh instance with the
    # moved records gives its first frame (set up afresh for the new records).
    r = qv.Reconstruction()
    r.set_type(qv.DeviceType.GENERIC, qv.StreamType.DUAL_FREQ)
    r.init(binned, full)
    r.set_flip_mode(qv.FlipMode.NONE)
    r.open_filter(True)
    assert np.array_equal(np.load(tmp_path / "dask" / "moved_000000_depth.npy"),
                          r.calculate_depth(np.fromfile(files[0], "<u2"), 640, 480))
    # Unless a calibration is given for the whole batch.
    batch.process([moved], tmp_path / "given", calibration=qv.sample_calibration(), progress=False)
    assert (tmp_path / "given" / "moved_000000.ply").read_bytes() != \
        (tmp_path / "dask" / "moved_000000.ply").read_bytes()
