"""script/demo --media, with each stream watched for a second."""

import re
import subprocess

import pytest

from board import EMULATOR
from conftest import BUILD, MEDIA, REPOSITORY

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

ROADS = ["rtsp://BOARD:8554/live, over TCP", "rtsp://BOARD:8554/live, over UDP",
         "rtmp://SERVER/live/demo, by nginx", "srt://BOARD:9000", "/media/DCIM/"]


def test_every_road_delivers_its_frames():
    done = subprocess.run(["/usr/bin/python3", "-B", REPOSITORY / "demo/media.py", "--build", BUILD,
                           "--seconds", "1"], capture_output=True, text=True, check=False,
                          timeout=240, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", **MEDIA})
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stderr == ""
    title, *lines = done.stdout.splitlines()
    assert title == "One picture from beacon-source, through the daemon:" and len(lines) == 5
    for road, line in zip(ROADS, lines):
        frames, = re.findall(r" (\d+) frames of h264, 640x360 and aac$", line)
        assert line.startswith("  " + road) and int(frames) > 0
