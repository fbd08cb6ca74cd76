"""RTSP with several viewers: other addresses, sound that begins later, one that vanishes."""

import json
import os
import signal

import pytest

from board import EMULATOR
from conftest import BUILD, MEDIA, wait_until
from viewer import Program

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

PICTURE = ["test", "--size", "160x120", "--bitrate", "300", "--telemetry", "none"]
URL = "rtsp://127.0.0.1:8554/live"
NUMBER = "/run/quillorbeacon/rtsp-server.info"


@pytest.fixture
def view(board, tmp_path):
    """view(name, ...): a viewer; what it gets is in /tmp/NAME.h264."""
    def begin(name, url=URL, transport="tcp"):
        return Program(board, tmp_path, "/usr/bin/ffmpeg", "-nostdin", "-v", "error",
                       "-rtsp_transport", transport, "-i", url, "-map", "v", "-c", "copy",
                       "-flush_packets", "1", "-f", "h264", f"/tmp/{name}.h264", name=name)

    return begin


@pytest.fixture
def serve(board, tmp_path, start):
    def begin():
        start("recording_place=2\nrtsp_server_enabled=1\naudio_enabled=1\n")
        board.write("/tmp/.asoundrc", "pcm.!default null\n")
        run = [Program(board, tmp_path, BUILD / "beacon-source", *PICTURE, env=MEDIA),
               Program(board, tmp_path, BUILD / "media/rtsp-server-manager", env=MEDIA)]
        run[1].complains("serving rtsp://BOARD:8554/live", timeout=30.0)

    return begin


def goes_on(board, name):
    """Waits for two seconds more of the picture."""
    path = board.path(f"/tmp/{name}.h264")
    size = path.stat().st_size if path.exists() else 0
    wait_until(lambda: path.exists() and path.stat().st_size > size + 75000, f"viewer {name}", 60.0)


def viewers(board):
    return int(board.path(NUMBER).read_text())


def kinds(board, url):
    text = board.run("/usr/bin/ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
                     "stream=codec_type", "-of", "json", url, timeout=180)
    return sorted(stream["codec_type"] for stream in json.loads(text)["streams"])


def test_viewers_who_come_and_go_do_not_stop_the_others(board, tmp_path, serve, view):
    """Whatever their addresses are. Those who come after sound has begun get it."""
    serve()
    view("first")
    goes_on(board, "first")
    second = view("second", URL + "?x")
    goes_on(board, "second")
    goes_on(board, "first")
    second.end()
    goes_on(board, "first")
    assert kinds(board, URL) == ["video"]
    Program(board, tmp_path, BUILD / "media/gst-audio-src", env=MEDIA)
    wait_until(lambda: kinds(board, URL) == ["audio", "video"], "sound", 60.0)
    goes_on(board, "first")


@pytest.mark.long
def test_a_viewer_that_vanishes_is_forgotten_after_a_minute(board, serve, view):
    """One that only watches is not."""
    serve()
    view("watching")
    vanished = view("vanished", transport="udp")
    goes_on(board, "vanished")
    wait_until(lambda: viewers(board) == 2, "two viewers", 30.0)
    os.kill(vanished.pid, signal.SIGSTOP)
    wait_until(lambda: viewers(board) == 1, "one viewer", 180.0)
    goes_on(board, "watching")
    os.kill(vanished.pid, signal.SIGKILL)
