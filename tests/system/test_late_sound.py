"""Sound that begins after the film and the stream, and too much of it."""

import json
import subprocess

import pytest

from board import EMULATOR
from conftest import BUILD, MEDIA, wait_until
from rtmp_server import NGINX
from viewer import Program

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

SETTINGS = ("recording_place=2\nrecording_enabled=1\naudio_enabled=1\nstream_rtmp_enabled=1\n"
            "stream_rtmp_url=rtmp://127.0.0.9/live\nstream_rtmp_key=key\n")
PICTURE = ["test", "--size", "160x120", "--bitrate", "300", "--telemetry", "none"]


@pytest.fixture
def run(board, tmp_path):
    number = iter(range(20))

    def make(program, *options):
        path = program if program.startswith("/") else BUILD / program
        return Program(board, tmp_path, path, *options,
                       name=f"{program.split('/')[-1]}{next(number)}", env=MEDIA)

    return make


def number(board, name):
    path = board.path(f"/run/quillorbeacon/{name}.info")
    return int(path.read_text()) if path.exists() else 0


def lengths(board, url):
    """The length of each kind of stream, as ffprobe sees it; 0 where it is not known."""
    text = board.run("/usr/bin/ffprobe", "-v", "error", "-show_entries",
                     "stream=codec_type,duration", "-of", "json", url, timeout=180)
    return {stream["codec_type"]: float(stream.get("duration", 0))
            for stream in json.loads(text)["streams"]}


def has_sound(board):
    """Does the stream at the server? A probe may fail while it begins again."""
    try:
        return len(lengths(board, "rtmp://127.0.0.9/live/key")) == 2
    except subprocess.CalledProcessError:
        return False


def films(board):
    return sorted("/media" + str(film).rpartition("/media")[2]
                  for film in board.path("/media").glob("DCIM/*/*.mp4"))


def test_sound_that_begins_later_goes_with_the_picture(board, start, run):
    """Another film begins with it, and the stream begins again, once."""
    start(SETTINGS)
    board.write("/tmp/.asoundrc", "pcm.!default null\n")
    board.write("/tmp/nginx.conf", NGINX)
    run("/usr/sbin/nginx", "-p", "/tmp", "-e", "/tmp/nginx.log", "-c", "/tmp/nginx.conf")
    run("beacon-source", *PICTURE)
    recorder, restreamer = run("media/recorder"), run("media/rtmp-restreamer")
    wait_until(lambda: number(board, "recorder") >= 2, "a film", 60.0)
    wait_until(lambda: number(board, "rtmp-streamer") > 50, "a stream", 60.0)
    assert list(lengths(board, "rtmp://127.0.0.9/live/key")) == ["video"]
    run("media/gst-audio-src")
    recorder.complains("recording /media/", 2, timeout=60.0)
    # Two at once: what comes faster than time passes is left out.
    run("media/gst-audio-src")
    wait_until(lambda: has_sound(board), "sound", 60.0, 0.5)
    wait_until(lambda: number(board, "recorder") >= 10, "more of the film", 60.0)
    assert recorder.end() == 0 and restreamer.end() == 0
    silent, film = (lengths(board, path) for path in films(board))
    assert list(silent) == ["video"]
    assert film["audio"] < film["video"] + 4.0 and film["audio"] > 5.0
    assert restreamer.err.read_text() == ""
