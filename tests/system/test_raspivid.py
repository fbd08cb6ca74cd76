"""The stand-in for the old camera program: the daemon starts it, and it starts today's."""


import pytest

from board import EMULATOR, PATH
from conftest import BUILD, MEDIA, wait_until
from h264_streams import FAST, encode

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

CAMERA = """#!/bin/sh
echo "$*" > /tmp/arguments
echo $$ > /tmp/pid
while cat /tmp/film.h264; do sleep 0.05; done
"""


def test_the_internal_camera_on_a_new_system(board, start, registered_client):
    stream = encode(FAST)
    board.write("/tmp/film.h264", stream)
    board.write("/tmp/bin/rpicam-vid", CAMERA).chmod(0o755)
    daemon = start("recording_place=2\n", env={**MEDIA, "PATH": f"/tmp/bin:{BUILD}/media:{PATH}"})
    client = registered_client(daemon)
    client.send(b'{"cmd":"updateconfig","param":"internal_camera","value":"1",'
                b'"value2":"-w 640 -h 480 -fps 25 -ifx film"}')
    received = b""
    while len(received) < len(stream):
        received += client.receive_type(3, 10.0)[2]
    assert received.startswith(stream)
    assert board.path("/tmp/arguments").read_text() == (
        "--codec h264 --timeout 0 --width 640 --height 480 --framerate 25 --flush --inline "
        "--output -\n")
    assert "raspivid: rpicam-vid has nothing like -ifx film" in daemon.errors()
    # Killed by its name, it takes the camera with it.
    pid = board.path("/tmp/pid").read_text().strip()
    assert (board.path("/proc") / pid).exists()
    client.send(b'{"cmd":"updateconfig","param":"internal_camera","value":"0","value2":""}')
    daemon.wait_error("kill raspivid (PID ")
    wait_until(lambda: not (board.path("/proc") / pid).exists(), "the camera's end")
    daemon.wait_error("int cam thread ended")
