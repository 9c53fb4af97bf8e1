# The zoqrv module: lossless round trips of every data kind that survives the codec bit for bit,
# read in order and out of order across key frames, and failures as Python exceptions.
import numpy as np
import pytest
import zoqrv

FRAMES, FPS = 10, 8  # lossless at 8 frames/s: a key frame every 4 frames


def record(path, kind, size, frames):
    with zoqrv.Recorder(str(path), kind, size, FPS) as rec:
        for i, frame in enumerate(frames):
            rec.write(frame, 1000 * i + 7, np.array([i, 0xFFFFFFFF - i], np.uint32))


# Sensor-like frames: a moving ramp (scaled to use the high bytes) with noise in the low bits.
@pytest.mark.parametrize("kind, dtype, shape, scale", [
    ("u16", np.uint16, (31, 45), 1500), ("u8", np.uint8, (48, 64), 3), ("u32", np.uint32, (32, 40), 65537),
    ("u4", np.uint8, (48, 32), 16)])
def test_lossless_round_trip(tmp_path, kind, dtype, shape, scale):
    rng = np.random.default_rng(shape[1])
    y, x = np.mgrid[0:shape[0], 0:shape[1]]
    frames = [((x + 2 * y + i) * scale + rng.integers(0, 16, shape)).astype(dtype) for i in range(FRAMES)]
    path = tmp_path / "r.qrv"
    width = shape[1] * 2 if kind == "u4" else shape[1]  # u4 rows hold two samples a byte
    record(path, kind, (width, shape[0]), frames)
    rec = zoqrv.open(str(path))
    assert (len(rec), rec.kind, rec.size) == (FRAMES, kind, (width, shape[0]))
    for i, frame in enumerate(rec):
        assert frame.dtype == dtype and np.array_equal(frame, frames[i]), i
    for i in [9, 2, 5, 4, 0, -1]:  # seeks onto, after and between key frames
        assert np.array_equal(rec[i], frames[i]), i
    assert list(rec.timestamps) == [1000 * i + 7 for i in range(FRAMES)]
    assert list(rec.frame_types[::4]) == [3, 3, 3] and rec.frame_types[1] != 3
    assert list(rec.metadata(6)[:3]) == [6, 0xFFFFFFFF - 6, 0]
    assert np.array_equal(zoqrv.open(str(path), kind=kind, size=(width, shape[0]))[3], frames[3])


@pytest.mark.parametrize("call, error, text", [
    (lambda p: zoqrv.open(str(p / "missing.qrv")), ValueError, "cannot open"),
    (lambda p: zoqrv.open(str(p / "cut.qrv")), ValueError, "cannot read the sample index"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"), kind="u16"), ValueError, "together"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"), kind="f32", size=(8, 8)), ValueError, "unknown kind"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"), kind="u32", size=(9000, 16)), ValueError, "holds no frame"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"))[2], IndexError, "out of range"),
    (lambda p: zoqrv.open(str(p / "ok.qrv"), kind="u16", size=(64, 64))[0], RuntimeError, "did not decode"),
    (lambda p: zoqrv.Recorder(str(p / "n.qrv"), "u16", (16, 16), 8).write(np.zeros((16, 16), np.uint8), 0),
     ValueError, "uint16 array of shape (16, 16)"),
])
def test_failures_raise(tmp_path, call, error, text):
    record(tmp_path / "ok.qrv", "u16", (32, 16), [np.zeros((16, 32), np.uint16)] * 2)
    (tmp_path / "cut.qrv").write_bytes((tmp_path / "ok.qrv").read_bytes()[:60])  # no complete record
    with pytest.raises(error, match=text.replace("(", r"\(").replace(")", r"\)")):
        call(tmp_path)


# A recording cut inside its 7th record reads as its first 6 frames, with a warning; verify() needs
# the index of a closed file.
def test_unclosed_recording_and_verify(tmp_path):
    frames = [np.full((16, 32), 100 * i, np.uint16) for i in range(FRAMES)]
    record(tmp_path / "ok.qrv", "u16", (32, 16), frames)
    whole = (tmp_path / "ok.qrv").read_bytes()
    assert (closed := zoqrv.open(str(tmp_path / "ok.qrv"))).closed and closed.verify() == []
    cut = tmp_path / "cut.qrv"
    at = 32  # after the recording header (version 2); each record: head, payload, sample info
    for _ in range(6): at += 20 + int.from_bytes(whole[at + 16:at + 20], "little") + 264
    cut.write_bytes(whole[:at + 30])
    with pytest.warns(RuntimeWarning, match="not closed"):
        rec = zoqrv.open(str(cut))
    assert not rec.closed and len(rec) == 6 and list(rec.timestamps) == [1000 * i + 7 for i in range(6)]
    assert all(np.array_equal(rec[i], frames[i]) for i in [5, 0, 3])
    with pytest.raises(RuntimeError, match="not closed"):
        rec.verify()
