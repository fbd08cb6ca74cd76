"""The local sockets by which the helpers share one place for clients; other users of the board."""

import os
import signal
import subprocess
from pathlib import Path

import pytest

from board import EMULATOR
from conftest import BUILD, MEDIA, wait_until
from viewer import Program

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

BEGIN = """
import select, socket, time
def new():
    return socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
NAME = "\\0quillorbeacon-media"
"""
SETTINGS = "recording_place=2\nrecording_enabled=1\n"
AS_NOBODY = ["/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]


@pytest.fixture
def number(board):
    """number(): the seconds of the film, -1 before the recorder runs."""
    path = board.path("/run/quillorbeacon/recorder.info")
    return lambda: int(path.read_text()) if path.exists() else -1


@pytest.fixture
def film(board, tmp_path, number):
    """film(): begins one, and returns the recorder."""
    def make(**env):
        Program(board, tmp_path, BUILD / "beacon-source", "test", "--size", "160x120",
                "--telemetry", "none", env=MEDIA)
        recorder = Program(board, tmp_path, BUILD / "media/recorder", env={**MEDIA, **env})
        wait_until(lambda: number() > 0, "a film", 60.0)
        return recorder

    return make


@pytest.mark.parametrize("then", ["", "taken.listen(5)", "taken.listen(0); new().connect(NAME)"],
                         ids=["bound", "listening", "full"])
def test_a_name_that_another_user_has_taken_is_in_nobodys_way(board, start, film, tmp_path, then):
    start(SETTINGS)
    squatter = Program(board, tmp_path, *AS_NOBODY, "/usr/bin/python3", "-u", "-c",
                       f"{BEGIN}taken = new(); taken.bind(NAME)\n{then}\nprint('taken')\n"
                       "time.sleep(1000)", name="squatter")
    wait_until(lambda: "taken" in squatter.out.read_text(), "the name", 30.0)
    recorder = film()
    assert recorder.err.read_text().count("another user's program is in the way") == 1


def test_other_users_get_nothing_and_the_helpers_are_bounded(board, start, film):
    start(SETTINGS)
    film()
    told = board.run(*AS_NOBODY, "/usr/bin/python3", "-c", BEGIN + """
for _ in range(30):
    stranger = new()
    stranger.connect(NAME)
    try:
        assert stranger.recv(100000) == b""
    except ConnectionResetError:
        pass
print("nothing")
""", timeout=60)
    assert told == b"nothing\n"
    told = board.run("/usr/bin/python3", "-c", BEGIN + """
helpers = [new() for _ in range(20)]
for helper in helpers:
    helper.connect(NAME)
while len(select.select(helpers, [], [], 0)[0]) < 15:
    time.sleep(0.01)
time.sleep(1)
print(len(select.select(helpers, [], [], 0)[0]))
""", timeout=60)
    assert told == b"15\n"  # and the recorder


def test_a_film_ends_also_while_the_helpers_cannot_be_reached(board, start, film, number, tmp_path):
    library = tmp_path / "failing_stick.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library,
                    Path(__file__).with_name("failing_stick.c"), "-ldl"], check=True)
    board.write("/tmp/failing_stick.so", library.read_bytes())
    daemon = start(SETTINGS + "rtsp_server_enabled=1\n")
    first = Program(board, tmp_path, BUILD / "media/rtsp-server-manager", env=MEDIA)
    daemon.wait_error("New client connected", timeout=30.0)
    recorder = film(LD_PRELOAD="/tmp/failing_stick.so",
                    ASAN_OPTIONS=MEDIA["ASAN_OPTIONS"] + ":verify_asan_link_order=0")
    board.write("/tmp/bad-socket", "")
    os.kill(first.pid, signal.SIGKILL)
    recorder.complains("cannot ask the daemon for pictures: Too many open files", timeout=30.0)
    assert recorder.end() == 0 and number() == 0
    assert " frames, " in recorder.err.read_text()
    assert recorder.err.read_text().count("cannot ask") == 1
