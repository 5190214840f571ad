"""The Python module lumora against lumora-fuse: same bytes, the array
contract, the GIL, cancellation and the Dask batch."""

import gc
import json
import os
import subprocess
import threading

import numpy as np
import pytest

import lumora
import lumora.batch

TOOL = os.environ["LUMORA_FUSE"]
SAMPLES = os.path.join(os.environ["LUMORA_SAMPLES_DIR"], "belgium_house")


@pytest.fixture(scope="module")
def frames():
    """The sample bracket at a quarter of its size (128 x 96), darkest first."""
    return [lumora.read(os.path.join(SAMPLES, f"{name}.png"))[::4, ::4].copy()
            for name in ("0_dark", "1_mid", "2_bright")]


def tool(*args):
    done = subprocess.run([TOOL, "-q", *map(str, args)], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return done


# {case: (lumora.fuse keywords, lumora-fuse options)}; every output written as PNG
# with the middle frame's metadata, as the tool writes it.
PARITY = {
    "defaults": ({}, []),
    "loupe": ({"loupe": (20, 10, 48, 40)}, ["--loupe", "20,10,48,40"]),
    "depth 16, the library's look": ({"depth": 16, "look": "library", "strength": 18},
                                     ["--depth", "16", "--look", "library", "--strength", "18"]),
    "bgr": ({"bgr": True}, []),
    "uint16 frames": ({"wide": True}, []),
}


@pytest.mark.parametrize("case", PARITY)
def test_fuse_gives_the_bytes_lumora_fuse_writes(frames, tmp_path, case):
    keywords, options = PARITY[case]
    keywords = dict(keywords)
    wide, bgr = keywords.pop("wide", False), keywords.get("bgr", False)
    # 16-bit frames as a camera gives them, which the tool reduces on reading.
    given = [f.astype(np.uint16) * 257 + np.uint16(100) for f in frames] if wide else frames
    paths = [tmp_path / f"{i}.png" for i in range(3)]
    for path, frame in zip(paths, given):
        lumora.write(path, frame)
    tool(*options, *reversed(paths), "-o", tmp_path / "tool.png")
    fused = lumora.fuse([f[..., ::-1] for f in given] if bgr else given[::-1], **keywords)
    assert fused.flags.c_contiguous and fused.dtype == (np.uint16 if "depth" in keywords else np.uint8)
    lumora.write(tmp_path / "module.png", fused[..., ::-1] if bgr else fused, metadata_from=paths[1])
    assert (tmp_path / "module.png").read_bytes() == (tmp_path / "tool.png").read_bytes()


def test_the_array_contract(frames):
    reference = lumora.fuse(frames, threads=1)
    cases = [  # (frames, keywords, exception, words in its message)
        ([f.astype(np.float32) for f in frames], {}, TypeError, "dtype float32"),
        ([f.tolist() for f in frames], {}, TypeError, "expected a numpy.ndarray"),
        ([np.dstack([f, f[..., :1]]) for f in frames], {}, ValueError, "expected (height, width, 3)"),
        ([frames[0], frames[1][:50]], {}, ValueError, "differs from frame 0"),
        (frames[:1], {}, ValueError, "expected 2 or more frames, got 1"),
        (frames, {"strength": 101}, ValueError, "--strength"),
        (frames, {"strength": "18"}, TypeError, "strength: expected a number"),
        (frames, {"loupe": (100, 0, 64, 48)}, ValueError, "does not fit in the 128x96 picture"),
        (frames, {"depth": 12}, ValueError, "--depth: '12' is not valid"),
        (frames, {"look": "vivid"}, ValueError, "--look"),
    ]
    for given, keywords, exception, words in cases:
        with pytest.raises(exception) as raised:
            lumora.fuse(given, **keywords)
        assert words in str(raised.value), (keywords, str(raised.value))
    # A view of another layout (mirrored twice: the same pixels) is copied once.
    views = [np.asfortranarray(f)[::-1][::-1] for f in frames]
    assert not views[0].flags.c_contiguous
    assert np.array_equal(lumora.fuse(views, threads=2), reference)
    # Of four frames the tool's three: the extremes, and of the others the mean nearest mid-grey (118).
    four = frames + [(frames[1] // 2).astype(np.uint8)]
    middle = min((1, 3), key=lambda i: abs(four[i].mean() - 118))
    assert np.array_equal(lumora.fuse(four), lumora.fuse([frames[0], four[middle], frames[2]]))
    # The result owns its memory.
    copies = [f.copy() for f in frames]
    fused = lumora.fuse(copies)
    del copies
    gc.collect()
    assert np.array_equal(fused, reference)


def test_the_gil_is_released_and_progress_can_cancel(frames):
    ticks, done = [0], threading.Event()

    def count():
        while not done.is_set():
            ticks[0] += 1

    counter = threading.Thread(target=count)
    seen = []
    counter.start()
    try:
        lumora.fuse(frames, threads=1, progress=lambda fraction: seen.append(fraction))
        during = ticks[0]
    finally:
        done.set()
        counter.join()
    assert during > 1000, "the counting thread ran while the fusion did"
    assert seen == sorted(seen) and seen[-1] == 1.0

    with pytest.raises(lumora.Cancelled):
        lumora.fuse(frames, progress=lambda fraction: fraction < 0.3)
    with pytest.raises(ZeroDivisionError):
        lumora.fuse(frames, progress=lambda fraction: 1 / 0)
    assert np.array_equal(lumora.fuse(frames), lumora.fuse(frames)), "nothing left behind"


def test_deghost_leaves_a_still_bracket_alone_and_fuses_a_moving_one_as_the_tool(frames, tmp_path):
    same, info = lumora.deghost(frames)
    assert info["replaced"] == [0, 0, 0] and all(np.array_equal(a, b) for a, b in zip(same, frames))
    # A 24-pixel patch of each frame moved to a place of its own, as a walker is.
    moving = [frame.copy() for frame in frames]
    for frame, (x, y) in zip(moving, [(4, 66), (80, 4), (100, 66)]):
        frame[y:y + 24, x:x + 24] = frame[30:54, 45:69]
    deghosted, info = lumora.deghost(moving)
    # (The dark frame is mostly crushed, there and around.)
    assert info["reference"] == 1 and info["replaced"][1] == 0 and info["replaced"][2] > 0.03
    assert np.array_equal(deghosted[1], moving[1]) and info["masks"][2].max() == 255
    for i, frame in enumerate(moving):
        lumora.write(tmp_path / f"{i}.png", frame)
    tool("--deghost", *(tmp_path / f"{i}.png" for i in range(3)), "-o", tmp_path / "tool.png")
    assert np.array_equal(lumora.fuse(deghosted), lumora.read(tmp_path / "tool.png"))
    with pytest.raises(ValueError, match="reference: 3 is not one of the 3 frames"):
        lumora.deghost(frames, reference=3)


def test_dask_batch_writes_what_lumora_fuse_batch_writes(frames, tmp_path):
    source = tmp_path / "in"
    source.mkdir()
    for b in range(3):
        for i, frame in enumerate(frames):
            lumora.write(source / f"s{b}{i}.jpg", np.roll(frame, 8 * b, axis=1), quality=90)
    (source / "t0.jpg").write_bytes(b"not a picture")
    options = ["--group", "3", "--format", "png"]
    tool_run = subprocess.run([TOOL, "-q", "--batch", *options, str(source), "-o", str(tmp_path / "tool")],
                              capture_output=True, text=True)
    assert tool_run.returncode == 1, tool_run.stderr
    report = tmp_path / "report.json"
    args = [*options, "--workers", "2", "--report", str(report), str(source), "-o", str(tmp_path / "dask")]
    assert lumora.batch.run(args) == 1, "the broken file fails"
    outputs = sorted(p.name for p in (tmp_path / "tool").iterdir())
    assert outputs == ["s01_fused.png", "s11_fused.png", "s21_fused.png"]
    assert sorted(p.name for p in (tmp_path / "dask").iterdir()) == outputs
    for name in outputs:
        assert (tmp_path / "dask" / name).read_bytes() == (tmp_path / "tool" / name).read_bytes(), name
    summary = json.loads(report.read_text())
    assert (summary["fused"], summary["skipped"], summary["failed"]) == (3, 0, 1)
    assert lumora.batch.run(args) == 1
    assert json.loads(report.read_text())["skipped"] == 3, "a second run skips what exists"
