"""`beaconctl view`: what a player gets, and what becomes of one that cannot show it."""

import shutil
import subprocess

import pytest

from beaconctl import LIMIT, PARAMETER_SET, PROGRAM
from conftest import SANITIZERS

OTHER_SLICE = b"\0\0\0\1\x41\x9a"
QUIET = "recording_place=2\n"


@pytest.fixture
def daemon(start):
    return start(QUIET)


def test_view_gives_the_video_to_a_player(board, daemon, make_producer):
    board.write("/tmp/bin/ffplay", '#!/bin/sh\necho "$@" > /tmp/words; head -c 900 > /tmp/seen\n')
    board.path("/tmp/bin/ffplay").chmod(0o755)
    process = board.popen("/usr/bin/env", "PATH=/tmp/bin:/usr/bin:/bin", PROGRAM, "view",
                          env=SANITIZERS, cwd="/tmp")
    daemon.wait_error("New client connected")
    producer = make_producer()
    made = [OTHER_SLICE, PARAMETER_SET + bytes(1000), OTHER_SLICE + bytes(3000)]
    for frame in made:
        producer.publish(frame)
    assert process.wait(60) == 0  # the player has ended
    assert board.path("/tmp/seen").read_bytes() == b"".join(made[1:])[:900]
    assert " -fflags nobuffer " in board.path("/tmp/words").read_text()
    process = board.popen("/usr/bin/env", "PATH=/tmp/bin", PROGRAM, "view", "--player", "mpv",
                          env=SANITIZERS, cwd="/tmp", stderr=subprocess.PIPE)
    assert process.wait(60) == 1
    assert process.stderr.read() == (
        b"beaconctl: no mpv is installed here: install ffmpeg or mpv\n")


@pytest.mark.skipif(not shutil.which("ffplay"), reason="ffplay is not installed")
@pytest.mark.parametrize("desktop", [None, "DISPLAY", "WAYLAND_DISPLAY"])
def test_view_without_a_display_ends(board, daemon, desktop):
    """By itself the player would draw into memory, and never end."""
    env = {**SANITIZERS, "XDG_RUNTIME_DIR": "/tmp", **({desktop: ":77"} if desktop else {})}
    done = subprocess.run(board.command(PROGRAM, "view", "--player", "ffplay", env=env, cwd="/tmp"),
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                          timeout=LIMIT)
    *players, last = done.stderr.splitlines()
    assert done.returncode == 1 and "Could not initialize SDL" in "".join(players)
    assert last == "beaconctl: ffplay failed with status 1" + (
        "" if desktop else "; there is no desktop here: neither DISPLAY nor WAYLAND_DISPLAY is set")
