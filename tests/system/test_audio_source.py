"""The board's microphone, with the real daemon; ALSA plays a file in its place."""

import statistics
import struct

import pytest

from board import EMULATOR
from conftest import BUILD, MEDIA, wait_until
from viewer import Program

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

# What is recorded comes from the file, as fast as the null device gives silence.
ASOUNDRC = """pcm.!default { type plug slave.pcm "film" }
pcm.film { type file slave.pcm "null" file "/dev/null" infile "/tmp/tone" format "raw" }
"""


def test_sound_of_the_microphone(board, start, watch, tmp_path):
    """At half the volume; killed when the settings change."""
    board.write("/tmp/.asoundrc", ASOUNDRC)
    board.write("/tmp/tone", struct.pack("<2h", 8000, 8000) * 4_000_000)
    daemon = start("recording_place=2\naudio_enabled=1\naudio_volume=50\n")
    viewer = watch(daemon)
    source = Program(board, tmp_path, BUILD / "media/gst-audio-src", env=MEDIA)
    wait_until(lambda: len(viewer.payloads[2]) > 50, "sound", 30.0)
    assert {len(payload) for payload in viewer.payloads[2]} == {640}
    samples = [value for value, in struct.iter_unpack("<h", b"".join(viewer.payloads[2][10:]))]
    assert {round(sample / 1000) for sample in samples} <= {0, 4} and max(samples) > 3500
    viewer.client.send(b'{"cmd":"updateconfig","param":"audio","value":"0","value2":"0",'
                       b'"value3":"0","value4":"0","value5":"50"}')
    daemon.wait_error("kill gst-audio-src (PID ")
    assert source.process.wait(60) != 0


def test_loud_parts_are_made_softer(board, start, watch, tmp_path):
    """With `audio_autogain`: 30000 becomes 22,660, by GStreamer's soft knee."""
    board.write("/tmp/.asoundrc", ASOUNDRC)
    board.write("/tmp/tone", struct.pack("<2h", 30000, 30000) * 4_000_000)
    viewer = watch(start("recording_place=2\naudio_enabled=1\naudio_autogain=1\n"
                         "audio_volume=100\n"))
    source = Program(board, tmp_path, BUILD / "media/gst-audio-src", env=MEDIA)

    def loud():
        # The null device mixes silence in.
        samples = struct.iter_unpack("<h", b"".join(viewer.payloads[2]))
        return [value for value, in samples if value > 15000]

    wait_until(lambda: len(loud()) > 5000, "sound", 30.0)
    assert 22000 < statistics.median(loud()) < 23500
    assert source.end() == 0


def test_no_microphone_is_one_line(board, start, tmp_path):
    start("recording_place=2\naudio_enabled=1\n")
    source = Program(board, tmp_path, BUILD / "media/gst-audio-src", env=MEDIA)
    source.complains("no sound: ", timeout=30.0)
    assert source.end() == 0
    assert source.err.read_text().count("no sound: ") == 1
