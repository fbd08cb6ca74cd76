"""The transcoder, with the real daemon and beacon-source."""

import re
import subprocess
import time
from pathlib import Path

import pytest

from board import EMULATOR
from conftest import BUILD, MEDIA, wait_until
from h264_streams import FAST, PICTURE, encode, layout, pictures
from viewer import Program

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

SETTINGS = ("recording_place=2\ntranscoding_enabled=1\ntranscoding_bitrate=300\nresize_enabled=1\n"
            "resize_width=160\nresize_height=120\n")


def sizes(stream):
    """The sizes of the pictures that ffprobe finds."""
    done = subprocess.run(["ffprobe", "-v", "error", "-f", "h264", "-i", "-", "-show_entries",
                           "frame=width,height", "-of", "csv=p=0"], input=stream,
                          stdout=subprocess.PIPE, check=True, timeout=60)
    return {line.strip(b",") for line in done.stdout.split() if line.strip(b",")}


def test_a_smaller_picture(board, start, watch, tmp_path):
    """The daemon reads the second ring; when transcoding is switched off, the first one again."""
    daemon = start(SETTINGS)
    transcoder = Program(board, tmp_path, BUILD / "media/transcoder", env=MEDIA)
    viewer = watch(daemon)
    Program(board, tmp_path, BUILD / "beacon-source", "test", "--size", "320x240", "--bitrate",
            "800", "--telemetry", "none", env=MEDIA)
    small = viewer.wait_video(60000)
    assert sizes(small) == {b"160,120"}
    assert len(pictures(small)[0]) > 30
    viewer.payloads[1].clear()
    viewer.client.send(b'{"cmd":"updateconfig","param":"transcoding","value":"0","value2":"300",'
                       b'"value3":"0","value4":"160","value5":"120"}')
    daemon.wait_error("kill transcoder (PID ")
    assert transcoder.process.wait(60) != 0
    wait_until(lambda: b"320,240" in sizes(viewer.video()), "the source's own picture", 30.0, 0.5)


def test_colours_that_few_players_decode(board, start, watch, tmp_path):
    """A camera with 4:4:4 becomes what every player decodes."""
    daemon = start("recording_place=2\ntranscoding_enabled=1\ntranscoding_bitrate=300\n")
    transcoder = Program(board, tmp_path, BUILD / "media/transcoder", env=MEDIA)
    viewer = watch(daemon)
    stream = encode([*FAST, "-pix_fmt", "yuv444p"], PICTURE)
    assert layout(stream)[1] == "yuv444p"
    board.write("/tmp/film.h264", stream)
    Program(board, tmp_path, BUILD / "beacon-source", "/tmp/film.h264", "--loop", env=MEDIA)
    assert layout(viewer.wait_video(60000))[1] == "yuv420p"
    # Pictures do not take pages of 2 MB.
    status = Path(f"/proc/{transcoder.pid}/status").read_text()
    assert re.search(r"^THP_enabled:\s+0$", status, re.MULTILINE)


def test_an_encoder_that_is_too_slow(board, start, watch, tmp_path):
    """Pictures are left out up to a key frame, so that those that come are not old; one line."""
    library = tmp_path / "slow_encoder.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library,
                    Path(__file__).with_name("slow_encoder.c"), "-ldl"], check=True)
    board.write("/tmp/slow_encoder.so", library.read_bytes())
    daemon = start("recording_place=2\ntranscoding_enabled=1\ntranscoding_bitrate=300\n")
    transcoder = Program(board, tmp_path, BUILD / "media/transcoder", env={
        **MEDIA, "LD_PRELOAD": "/tmp/slow_encoder.so",
        "ASAN_OPTIONS": MEDIA["ASAN_OPTIONS"] + ":verify_asan_link_order=0"})
    viewer = watch(daemon)
    source = Program(board, tmp_path, BUILD / "beacon-source", "test", "--size", "160x120",
                     "--bitrate", "300", "--telemetry", "none", env=MEDIA)
    transcoder.complains("this board is too slow to encode the stream again", timeout=60.0)
    viewer.wait_video(len(viewer.video()) + 20000)
    source.end()
    # What waits then is no more than half a second; the encoder gives 12 pictures a second.
    viewer.payloads[1].clear()
    time.sleep(4.0)
    assert len(pictures(viewer.video())[0]) < 30
    assert transcoder.err.read_text().count("\n") == 1
    assert transcoder.end() == 0
