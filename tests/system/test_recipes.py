"""The programs in docs/recipes.md, run against the daemon with a real stream."""

import re
import signal
import subprocess
import threading

import pytest

from board import EMULATOR
from conftest import REPOSITORY, wait_until
from h264_streams import FAST, encode, unit_type, units

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="these programs are not the daemon")

TEXT = (REPOSITORY / "docs/recipes.md").read_text()
RECIPES = dict(re.findall(r"(?ms)^```\w+ (\S+)\n(.*?)^```$", TEXT))
SETTINGS = ("recording_place=2\nstream_udp_enabled=1\nstream_udp_clients=127.0.0.1:5600\n"
            "stream_udp_blocksize=1300\n")


def pictures_of(stream):
    """One part for each picture, with the parameter sets before it."""
    part = b""
    for unit in units(stream):
        part += b"\0\0\0\1" + unit
        if unit_type(unit) in (1, 5):
            yield part
            part = b""


class Camera:
    """Publishes a stream again and again, a picture every ten milliseconds."""

    def __init__(self, producer):
        self.producer = producer
        self.pictures = list(pictures_of(encode(FAST)))
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        number = 0
        while not self.stopped.wait(0.01):
            self.producer.publish(self.pictures[number % len(self.pictures)])
            number += 1

    def stop(self):
        self.stopped.set()
        self.thread.join()


@pytest.fixture
def stage(board, start, make_producer):
    """A board that streams to everybody who asks, and to 127.0.0.1:5600."""
    start(SETTINGS)
    made = Camera(make_producer())
    yield board
    made.stop()


def run_recipe(board, name, *words):
    program = {"py": "/usr/bin/python3", "sh": "/bin/sh"}[name.partition(".")[2]]
    board.path("/tmp/recipe").mkdir(exist_ok=True)
    board.write(f"/tmp/recipe/{name}", RECIPES[name])
    return board.popen(program, f"/tmp/recipe/{name}", *words, cwd="/tmp/recipe",
                       stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       env={"HOME": "/tmp/recipe"}, start_new_session=True)


def frames_in(film):
    done = subprocess.run(["ffprobe", "-v", "quiet", "-count_frames", "-show_entries",
                           "stream=nb_read_frames", "-of", "csv=p=0", film],
                          stdout=subprocess.PIPE, check=False, text=True)
    return int(done.stdout.strip() or 0)


@pytest.mark.parametrize("name,film", [("ffmpeg.sh", "film.mkv"), ("gstreamer.sh", "film.h264")])
def test_raw_udp_becomes_a_film(stage, name, film):
    process = run_recipe(stage, name)
    made = stage.path(f"/tmp/recipe/{film}")
    wait_until(lambda: made.exists() and made.stat().st_size > 50_000, "a part of a film", 60.0)
    subprocess.run(["pkill", "-INT", "--session", str(process.pid)], check=True)
    process.communicate(timeout=60)
    assert frames_in(made) > 10


def test_a_python_client_gets_pictures(stage):
    process = run_recipe(stage, "pictures.py", "127.0.0.1", "30")
    said, errors = process.communicate(timeout=60)
    lines = said.decode().splitlines()
    assert process.returncode == 0, errors.decode()
    assert lines == [f"{count} 160 120" for count in range(1, len(lines) + 1)] and len(lines) >= 30


def test_mavlink_goes_both_ways(stage):
    station = stage.socket(bind=("127.0.0.1", 14550))
    process = run_recipe(stage, "mavlink.py", "127.0.0.1")
    source = stage.socket()
    heartbeat = bytes.fromhex("fd0900000001010000000000000002030c0403a3b4")
    arrived = []

    def asked():
        source.sendto(b"another line", ("127.0.0.1", 5000))
        source.sendto(heartbeat, ("127.0.0.1", 5000))
        try:
            station.settimeout(0.1)
            arrived.append(station.recvfrom(65536))
        except TimeoutError:
            return False
        return True

    wait_until(asked, "a message", 30.0)
    assert arrived[0][0] == heartbeat
    station.sendto(b"\xfecommand", arrived[0][1])
    source.settimeout(10.0)
    while (got := source.recv(65536)) != b"!\xfecommand":
        assert got.startswith(b"{") or got.startswith(b"!")
    process.send_signal(signal.SIGKILL)
    process.wait()


def test_every_recipe_is_tried():
    assert sorted(RECIPES) == ["ffmpeg.sh", "gstreamer.sh", "mavlink.py", "pictures.py"]
