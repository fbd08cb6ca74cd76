"""The demo: a whole run, and that its checks notice what they should."""

import hashlib
import os
import re
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path
from types import SimpleNamespace

import pytest

from conftest import BINARY, REPOSITORY, Producer, wait_until

sys.path.insert(0, str(REPOSITORY / "demo"))

from checks import (CheckFailed, FrameTimes, check_whole, compare,  # noqa: E402
                    decode, png_size, save_picture)
from client import Client, VideoFile  # noqa: E402


def demo_command(output, *options):
    return ["/usr/bin/python3", "-B", str(REPOSITORY / "demo/demo.py"), "--binary", str(BINARY),
            "--output", str(output), *options]


@pytest.fixture
def start_demo(tmp_path):
    """start_demo(option, ...): the demo as a process, its output in tmp_path/"out"."""
    started = []

    def start(*options):
        with open(tmp_path / "out", "wb") as out:
            process = subprocess.Popen(demo_command(tmp_path, *options), stdout=out,
                                       stderr=subprocess.STDOUT, start_new_session=True)
        started.append(process)
        return process

    yield start
    for process in started:
        process.kill()
        process.wait()


def descendants(pid):
    """All processes below a process, as (pid, command line)."""
    for task in Path(f"/proc/{pid}/task").glob("*/children"):
        for child in task.read_text().split():
            try:
                yield int(child), Path(f"/proc/{child}/cmdline").read_bytes().split(b"\0")
                yield from descendants(child)
            except (FileNotFoundError, ProcessLookupError):
                pass  # ended meanwhile


def find(process, program):
    """The process id of a program that the demo runs, or None."""
    for pid, command in descendants(process.pid):
        if command[0] == program.encode():
            return pid
    return None


def wait_for_frames(process, out):
    wait_until(lambda: " frames " in out.read_text() or process.poll() is not None,
               "the live line", 60.0)


def test_whole_run(tmp_path):
    result = subprocess.run(demo_command(tmp_path, "--seconds", "3"), timeout=120,
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stderr == ""
    frames = int(re.search(r"video +(\d+) frames", result.stdout).group(1))
    assert frames > 0
    assert re.search(r"lost +0 packets", result.stdout)
    sent = re.search(r"telemetry +(\d+) of (\d+)", result.stdout)
    assert sent.group(1) == sent.group(2) != "0"
    assert int(re.search(r"(\d+) keep-alive commands", result.stdout).group(1)) > 0
    sent = re.search(r"audio +(\d+) of (\d+)", result.stdout)
    assert sent.group(1) == sent.group(2) != "0"
    assert re.search(r"gimbal +turned by a stick up to [1-9]\d* degrees", result.stdout)
    assert decode(tmp_path / "demo.h264") == frames
    assert png_size(tmp_path / "demo.png") == (1280, 720)


def test_stays_until_interrupted(start_demo, tmp_path):
    process = start_demo("--stay")
    wait_for_frames(process, tmp_path / "out")
    # Ctrl-C in a terminal: a signal to the whole process group.
    os.killpg(process.pid, signal.SIGINT)
    assert process.wait(60) == 0, (tmp_path / "out").read_text()
    assert "byte for byte" in (tmp_path / "out").read_text()
    assert decode(tmp_path / "demo.h264") > 0


def test_death_of_the_daemon_is_noticed(start_demo, tmp_path):
    process = start_demo("--stay")
    wait_for_frames(process, tmp_path / "out")
    os.kill(find(process, str(BINARY)), signal.SIGKILL)
    assert process.wait(60) == 1
    text = (tmp_path / "out").read_text()
    assert "The demo failed: the daemon ended" in text
    assert "The daemon said:\nQuillorbeacon-NG" in text


def test_death_of_the_encoder_is_noticed(start_demo, tmp_path):
    process = start_demo("--stay")
    wait_for_frames(process, tmp_path / "out")
    os.kill(find(process, "ffmpeg"), signal.SIGKILL)
    assert process.wait(60) == 1
    assert "The demo failed: the simulated camera failed" in (tmp_path / "out").read_text()


def test_a_foreign_frame_is_noticed(start_demo, tmp_path):
    """The client receives what the camera did not publish."""
    process = start_demo("--stay")
    wait_for_frames(process, tmp_path / "out")
    root = Path(f"/proc/{find(process, str(BINARY))}/root")
    producer = Producer(SimpleNamespace(path=lambda inside: root / inside.lstrip("/")))
    while producer.is_ready(producer.next_slot):  # the camera's own
        producer.next_slot = (producer.next_slot + 1) % 200
    producer.identifier = 0x8000
    producer.publish(b"not from the camera")
    time.sleep(0.3)
    process.send_signal(signal.SIGTERM)
    assert process.wait(60) == 1
    text = (tmp_path / "out").read_text()
    assert "The demo failed: the received video differs from the published one at byte" in text


# The checks by themselves.

@pytest.fixture
def files(tmp_path):
    """files(published, received): two files with these contents."""

    def make(*contents):
        paths = [tmp_path / "published", tmp_path / "received"]
        for path, content in zip(paths, contents):
            path.write_bytes(content)
        return paths

    return make


DATA = bytes(range(256)) * 10000  # more than one block of the comparison


@pytest.mark.parametrize("received, offset", [
    (DATA, None),
    (DATA[:-1], len(DATA) - 1),
    (DATA + b"x", len(DATA)),
    (b"", 0),
    (b"x" + DATA[1:], 0),
    (DATA[:2000000] + b"x" + DATA[2000001:], 2000000),
    (DATA[:1300] + DATA[2600:], None),
], ids=["equal", "cut", "longer", "empty", "first byte", "second block", "a packet missing"])
def test_compare(files, received, offset):
    if len(received) == len(DATA) - 1300:
        offset = next(i for i, (a, b) in enumerate(zip(DATA, received)) if a != b)
    assert compare(*files(DATA, received)) == offset


def record_of(data, kept):
    return {"bytes": len(data), "kept": kept, "sha256": hashlib.sha256(data).hexdigest()}


def test_beyond_the_kept_part_the_digest_counts(files):
    published, received = files(DATA[:5000], DATA[:5000])
    record = record_of(DATA, 5000)
    check_whole(record, published, received, len(DATA), record["sha256"])
    other = hashlib.sha256(DATA[:-1] + b"x").hexdigest()
    with pytest.raises(CheckFailed):
        check_whole(record, published, received, len(DATA), other)
    with pytest.raises(CheckFailed):
        check_whole(record, published, received, len(DATA) - 1, record["sha256"])


def test_nothing_published_is_a_failure(files):
    with pytest.raises(CheckFailed):
        check_whole(record_of(b"", 0), *files(b"", b""), 0, hashlib.sha256(b"").hexdigest())


def test_a_damaged_stream_does_not_decode(tmp_path):
    stream = tmp_path / "stream.h264"
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                    "testsrc2=size=320x240:rate=30", "-frames:v", "30", "-pix_fmt", "yuv420p",
                    "-c:v", "libx264", "-preset", "ultrafast", str(stream)], check=True)
    assert decode(stream) == 30
    assert save_picture(stream, 15, tmp_path / "picture.png") == (320, 240)
    data = stream.read_bytes()
    middle = len(data) // 2
    stream.write_bytes(data[:middle] + data[middle + 1300:])
    with pytest.raises(CheckFailed):
        decode(stream)


# The client by itself.

def packet(kind, sequence, payload=b"", length=None):
    length = len(payload) if length is None else length
    return (b"R" + bytes([kind]) + length.to_bytes(2, "little")
            + (sequence % (1 << 32)).to_bytes(4, "little") + b"\1\0\0\0" + payload)


def lost_in(*sequences):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as opened:
        client = Client(opened)
        for sequence in sequences:
            client.take(packet(1, sequence), 0)
        return client.lost


def test_lost_packets_are_counted():
    assert lost_in(7, 8, 9) == 0
    assert lost_in(7, 8, 10) == 1
    assert lost_in(7, 17) == 9
    assert lost_in(7, 9, 8, 10) == 0
    assert lost_in((1 << 32) - 2, (1 << 32) - 1, 0, 1) == 0
    assert lost_in((1 << 32) - 1, 2) == 2


def test_malformed_packets_are_counted(board):
    client = Client(board.socket())
    for datagram in (b"", b"R", b"X" + packet(1, 1)[1:], packet(1, 1, b"abc", length=2),
                     packet(1, 1)[:8] + b"\2\0\0\0"):
        client.take(datagram, 0)
    assert client.malformed == 5 and not client.packets


def test_latency_is_that_of_the_last_piece(tmp_path):
    video = VideoFile(tmp_path / "video", 1000)
    frames = tmp_path / "frames.bin"
    times = FrameTimes(frames, video.arrivals)
    times.update()
    frames.write_bytes(b"".join(n.to_bytes(8, "little")
                                for n in (1_000_000, 30, 2_000_000, 40, 3_000_000, 60)))
    for piece, when in ((b"a" * 20, 2_000_000), (b"b" * 10, 6_000_000), (b"c" * 10, 4_500_000)):
        video.add(piece, when)
        times.update()
    assert times.latencies == [5.0, 2.5] and times.frames == 2
    video.add(b"d" * 19, 9_000_000)
    times.update()
    assert times.frames == 2
    # Pieces that do not end where the frame does: frames can no longer be timed.
    video.add(b"e" * 19, 9_000_000)
    times.update()
    assert times.frames == 2
