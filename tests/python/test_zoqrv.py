# The zoqrv module on real recordings (libx265 or libx264 here, NVENC on a GPU machine): round
# trips of every kind in order, out of order and by slices, exact timestamps and metadata, the
# failures as Python exceptions, the GIL left to other threads, frames lost to a full disk, and
# unclosed and damaged files.
import resource, signal, threading, time
import numpy as np
import pytest
import zoqrv

FRAMES, FPS = 10, 8  # a key frame every 4 frames lossless, every 8 lossy
STAMPS = [0, 1, 2**32, 2**64 - 1] + [10**15 + 33_333 * i for i in range(FRAMES - 4)]


def sensor_frames(kind, height, width, count=FRAMES, seed=1):
    # A moving ramp with noise in the low bits, in the kind's numpy layout.
    rng = np.random.default_rng(seed)
    dtype, scale, shape = {"u4": (np.uint8, 17, (width // 2,)), "u8": (np.uint8, 3, ()), "u16": (np.uint16, 1500, ()),
                           "u32": (np.uint32, 65537, ()), "uyvy": (np.uint8, 1, (2,)), "bgra": (np.uint8, 1, (4,))}[kind]
    shape = (height,) + (shape if kind == "u4" else (width,) + shape)
    ramp = np.indices(shape).sum(axis=0)
    noise = 16 if kind in ("u4", "u8", "u16", "u32") else 3
    if kind in ("bgra", "uyvy"):
        ramp += np.arange(shape[-1]) * 30  # colour, so that swapped channels show
    frames = [((ramp + i) * scale + rng.integers(0, noise, shape)).astype(dtype) for i in range(count)]
    for frame in frames if kind == "bgra" else []:
        frame[..., 3] = 255  # the codecs carry no alpha
    return frames


def record(path, kind, size, frames, **options):
    with zoqrv.Recorder(str(path), kind, size, FPS, **options) as rec:
        for i, frame in enumerate(frames):
            assert rec.write(frame, STAMPS[i], [i, 0xFFFFFFFF - i])
    return rec


@pytest.mark.parametrize("kind, size, codec", [
    ("u16", (45, 31), "hevc"), ("u16", (64, 48), "h264"), ("u8", (64, 48), "default"), ("u32", (40, 32), "hevc"),
    ("u4", (64, 48), "default"), ("bgra", (64, 48), "default"), ("uyvy", (64, 48), "default")])
def test_round_trip(tmp_path, kind, size, codec):
    frames, path = sensor_frames(kind, size[1], size[0]), tmp_path / "r.qrv"
    recorder = record(path, kind, size, frames, codec=codec)
    lossy = kind in ("bgra", "uyvy")
    assert recorder.lossless != lossy and codec in ("default", recorder.codec)
    def same(got, want):
        assert got.dtype == want.dtype and got.shape == want.shape
        error = np.abs(got.astype(np.int64) - want)
        assert (error.sum() <= 1.5 * error.size and error.max(initial=0) < 16) if lossy else not error.any()
    with zoqrv.open(str(path)) as rec:
        assert (len(rec), rec.kind, rec.size, rec.fps, rec.time_unit_ns) == (FRAMES, kind, size, FPS, 1000)
        for i, frame in enumerate(rec):
            same(frame, frames[i])
        for i in [9, 2, 5, 4, 0, -1, -7]:  # seeks onto, after and between key frames
            same(rec[i], frames[i])
        for key in [slice(2, 7), slice(-3, None), slice(None, None, 4), slice(8, 2, -2), slice(5, 5)]:
            same(rec[key], np.stack(frames)[key])
            assert rec.metadata(key)[:, :3].tolist() == [[i, 0xFFFFFFFF - i, 0] for i in range(FRAMES)[key]]
        assert rec.timestamps.dtype == np.uint64 and rec.timestamps.tolist() == STAMPS
        gop = FPS // 2 if recorder.lossless else FPS
        assert set(rec.frame_types[::gop]) == {3} and rec.frame_types[1] != 3
        assert rec.metadata(-4)[:3].tolist() == [6, 0xFFFFFFFF - 6, 0] and rec.verify() == []
    with pytest.raises(ValueError, match="closed"):
        rec[0]


@pytest.mark.parametrize("call, error, text", [
    (lambda p: zoqrv.open(str(p / "missing.qrv")), FileNotFoundError, "missing.qrv"),
    (lambda p: zoqrv.Recorder(str(p / "no" / "n.qrv"), "u16", (16, 16), 8), FileNotFoundError, "n.qrv"),
    (lambda p: zoqrv.Recorder(str(p / "ok.qrv"), "u16", (16, 16), 8), FileExistsError, "ok.qrv"),
    (lambda p: zoqrv.open(str(p / "junk.qrv")), ValueError, "junk.qrv"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"), kind="u16"), ValueError, "together"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"), kind="f32", size=(8, 8)), ValueError, "unknown kind"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"), decoder="gpu"), ValueError, "unknown decoder"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"))[2], IndexError, "out of range"),
    (lambda p: zoqrv.open(str(p / "ok.qrv")).metadata(-3), IndexError, "out of range"),
    (lambda p: zoqrv.Recorder(str(p / "n.qrv"), "u16", (16, 16), 8, codec="vp9"), ValueError, "unknown codec"),
    (lambda p: zoqrv.Recorder(str(p / "n.qrv"), "u16", (16, 16), 8, encoder="x"), ValueError, "unknown encoder"),
    (lambda p: zoqrv.Recorder(str(p / "n.qrv"), "u16", (0, 16), 8), ValueError, ""),
    (lambda p: zoqrv.Recorder(str(p / "n.qrv"), "u4", (33, 16), 8), ValueError, "even"),
    (lambda p: zoqrv.Recorder(str(p / "n.qrv"), "u16", (16, 16), 8).write(np.zeros((16, 16), np.uint8), 0),
     ValueError, r"uint16 array of shape \(16, 16\)"),
])
def test_failures_raise(tmp_path, call, error, text):
    record(tmp_path / "ok.qrv", "u16", (32, 16), [np.zeros((16, 32), np.uint16)] * 2)
    (tmp_path / "junk.qrv").write_bytes(bytes(range(256)) * 40)
    with pytest.raises(error, match=text):
        call(tmp_path)


# Metadata words and timestamps come back exactly, or the write refuses them.
def test_metadata_and_timestamps_are_exact(tmp_path):
    rec = zoqrv.Recorder(str(tmp_path / "m.qrv"), "u8", (32, 16), 8)
    frame = np.zeros((16, 32), np.uint8)
    for bad in [np.array([-1], np.int64), [1.5], [2**32], np.array([2**32], np.uint64), ["7"], list(range(65))]:
        with pytest.raises(ValueError, match="metadata"):
            rec.write(frame, 0, bad)
    for bad in [-1, 2**64, 1.5]:
        with pytest.raises(TypeError):
            rec.write(frame, bad)
    assert rec.write(frame, 2**64 - 1, [1.0, 2**32 - 1, np.uint64(7), True]) and rec.write(frame, 5)
    rec.close()
    back = zoqrv.open(str(tmp_path / "m.qrv"))
    assert back.timestamps.tolist() == [2**64 - 1, 5]
    assert back.metadata(0)[:5].tolist() == [1, 2**32 - 1, 7, 1, 0] and not back.metadata(1).any()
    with zoqrv.Recorder(str(tmp_path / "m.qrv"), "u8", (32, 16), 8, overwrite=True) as again:
        again.write(frame + 1, 9)
    assert zoqrv.open(str(tmp_path / "m.qrv")).timestamps.tolist() == [9]


# While a frame encodes or decodes, another Python thread keeps running: it ticks in the middle
# half of the call, which holding the GIL through the call would forbid. In software, which takes
# long enough to tell from the interpreter's switch interval.
def test_other_threads_run_while_frames_encode_and_decode(tmp_path):
    frames, path = sensor_frames("u16", 720, 1280, count=2), str(tmp_path / "g.qrv")
    def ticks_amid(call):
        ticks, done = [], threading.Event()
        thread = threading.Thread(target=lambda: [ticks.append(time.perf_counter()) for _ in iter(done.is_set, True)])
        thread.start()
        start = time.perf_counter()
        call()
        quarter = (time.perf_counter() - start) / 4
        done.set()
        thread.join()
        assert quarter > 0.005
        return sum(start + quarter < t < start + 3 * quarter for t in ticks)
    with zoqrv.Recorder(path, "u16", (1280, 720), 8, encoder="software") as rec:
        rec.write(frames[0], 0)  # the encoder's set-up
        assert ticks_amid(lambda: rec.write(frames[1], 1)) > 0
    with zoqrv.open(path, decoder="software") as back:
        assert ticks_amid(lambda: back[1]) > 0


# A file that may grow no further loses the frames written meanwhile, each told by a warning, and
# the recording goes on with the frames before and after them intact.
def test_frames_not_stored_on_a_full_disk(tmp_path):
    frames, path = sensor_frames("u8", 48, 64), tmp_path / "full.qrv"
    limits = resource.getrlimit(resource.RLIMIT_FSIZE)
    previous = signal.signal(signal.SIGXFSZ, signal.SIG_IGN)  # a write past the limit fails with EFBIG
    with zoqrv.Recorder(str(path), "u8", (64, 48), FPS) as rec:
        stored = [rec.write(frames[i], i) for i in range(3)]
        try:
            resource.setrlimit(resource.RLIMIT_FSIZE, (path.stat().st_size, limits[1]))
            with pytest.warns(zoqrv.FrameNotStoredWarning, match="frame 4 not stored") as told:
                stored += [rec.write(frames[i], i) for i in range(3, 5)]
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)
            signal.signal(signal.SIGXFSZ, previous)
        stored += [rec.write(frames[i], i) for i in range(5, FRAMES)]
    assert stored == [True] * 3 + [False] * 2 + [True] * 5 and rec.frames_not_stored == 2 and len(told) == 2
    back = zoqrv.open(str(path))
    kept = [i for i in range(FRAMES) if stored[i]]
    assert back.timestamps.tolist() == kept and all(np.array_equal(back[j], frames[i]) for j, i in enumerate(kept))


# A recording cut inside its 7th record reads as its first 6 frames, with a warning; a flipped
# payload byte makes its frame and those predicted from it fail, and verify() lists them.
def test_unclosed_and_damaged_recordings(tmp_path):
    frames = sensor_frames("u16", 16, 32)
    record(tmp_path / "ok.qrv", "u16", (32, 16), frames)
    whole = (tmp_path / "ok.qrv").read_bytes()
    count = int.from_bytes(whole[-4:], "little")
    offsets = [int.from_bytes(whole[-4 - 16 * (count - i):][:8], "little") for i in range(count)]
    (tmp_path / "cut.qrv").write_bytes(whole[:offsets[6] + 30])
    with pytest.warns(RuntimeWarning, match="not closed"):
        rec = zoqrv.open(str(tmp_path / "cut.qrv"))
    assert not rec.closed and len(rec) == 6 and rec.timestamps.tolist() == STAMPS[:6]
    assert all(np.array_equal(rec[i], frames[i]) for i in [5, 0, 3])
    with pytest.raises(RuntimeError, match="not closed"):
        rec.verify()
    damaged = bytearray(whole)
    damaged[offsets[5] + 24] ^= 0x40  # inside frame 5's payload
    (tmp_path / "bad.qrv").write_bytes(damaged)
    bad = zoqrv.open(str(tmp_path / "bad.qrv"))
    assert bad.verify() == [5, 6, 7]
    with pytest.raises(RuntimeError):
        bad[6]
    assert np.array_equal(bad[4], frames[4]) and np.array_equal(bad[8], frames[8])
